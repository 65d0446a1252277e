// SPDX-License-Identifier: MIT
//
// Makes the camera known by WS-Discovery: says Hello and Bye, and answers each Probe that asks for
// a video transmitter with the address under which that peer reaches the camera.
#include "camera.h"
#include "soap.h"
#include "text.h"

#include <time.h>

namespace camera
{

namespace
{

constexpr uint32_t kWaitMs = 200;   // how long the end of the camera may wait for this task
constexpr uint32_t kSendMs = 50;    // an answer has 250 ms in all
constexpr uint32_t kLookMs = 10000; // between two looks for new interfaces
constexpr uint32_t kMaxInterfaces = 16;
constexpr uint32_t kRemembered = 10; // messages that are answered once
constexpr uint32_t kCopyMs = 400;    // how much later a copy of a message may come by another way
constexpr uint32_t kMaxIdSize = 256;
constexpr uint32_t kScopesSize = 512;

enum EOutcome {
    kAnswered,
    kRepeated,
    kOtherTypes,
    kOtherScopes,
    kOtherAction,
    kNoMessageId,
    kBroken,
    kNotSent,
    kOutcomes
};
constexpr TAppS32StrPair s_atOutcome[kOutcomes] = {
    {kAnswered, "answered"},
    {kRepeated, "repeated"},
    {kOtherTypes, "other types"},
    {kOtherScopes, "other scopes"},
    {kOtherAction, "other actions"},
    {kNoMessageId, "no MessageID"},
    {kBroken, "broken"},
    {kNotSent, "not sent"},
};

struct TSeen {
    char achId[kMaxIdSize];
    uint16_t wPort;
    uint32_t dwTick;
};

uint32_t HandleDiscovery(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvContext);

TModule s_tModule = {"discovery", HandleDiscovery, nullptr, nullptr};
HAppSocket s_hSocket;
TAppNetAddr s_tGroup;
TAppNetAddr s_atInterface[kMaxInterfaces]; // where Hello has been said
uint32_t s_dwInterfaces;
TSeen s_atSeen[kRemembered]; // a ring
uint32_t s_dwSeen;
uint32_t s_dwInstance; // with each start of the camera a larger one
uint32_t s_dwMessages;
uint32_t s_dwFailures; // receives that failed without a success between
std::atomic<uint32_t> s_adwCount[kOutcomes];

// What an event asks for, told by its argument.
char s_chListen, s_chAnnounce;

// ---- The camera's own description ---------------------------------------------------------------

void MakeScopes(const TConfig &tConfig, char *szBuf, uint32_t dwSize)
{
    char achName[200], achHardware[200];
    AppSnprintf(szBuf, dwSize, "onvif://www.onvif.org/type/Network_Video_Transmitter %s%s %s%s",
                kNameScope, EncodeUri(tConfig.achName, achName, sizeof(achName)), kHardwareScope,
                EncodeUri(tConfig.achHardware, achHardware, sizeof(achHardware)));
}

mxml_node_t *AddIdentity(TSoapWriter *ptWriter, mxml_node_t *ptParent, const TConfig &tConfig)
{
    char achAddress[60];
    AppSnprintf(achAddress, sizeof(achAddress), "urn:uuid:%s", tConfig.achUuid);
    mxml_node_t *ptReference = SoapAdd(ptWriter, ptParent, "a:EndpointReference", nullptr);
    return SoapAdd(ptWriter, ptReference, "a:Address", achAddress);
}

// Everything about the camera, with the address that the peer can reach.
void AddDescription(TSoapWriter *ptWriter, mxml_node_t *ptParent, const TConfig &tConfig,
                    const TAppNetAddr &tPeer)
{
    char achScopes[kScopesSize], achIp[16] = "", achUrl[80], achVersion[12];
    TAppNetAddr tOwn = {};
    uint16_t wPort = 0;
    if (AppSocketCalNATAddr(&tPeer, APP_SOCKET_TCP,
                            AppConvertHtons(static_cast<uint16_t>(tConfig.dwService)), &tOwn,
                            &wPort) != APP_OK ||
        AppConvertNettoStr(&tOwn, achIp, sizeof(achIp)) != APP_OK) {
        ptWriter->bFailed = true;
        return;
    }
    AppSnprintf(achUrl, sizeof(achUrl), "http://%s:%u/onvif/device_service", achIp,
                static_cast<unsigned>(AppConvertNtohs(wPort)));
    AppSnprintf(achVersion, sizeof(achVersion), "%lu",
                static_cast<unsigned long>(tConfig.dwMetadata));
    MakeScopes(tConfig, achScopes, sizeof(achScopes));
    AddIdentity(ptWriter, ptParent, tConfig);
    SoapAdd(ptWriter, ptParent, "d:Types", "dn:NetworkVideoTransmitter");
    SoapAdd(ptWriter, ptParent, "d:Scopes", achScopes);
    SoapAdd(ptWriter, ptParent, "d:XAddrs", achUrl);
    SoapAdd(ptWriter, ptParent, "d:MetadataVersion", achVersion);
}

void AddSequence(TSoapWriter *ptWriter)
{
    mxml_node_t *ptNode = SoapAdd(ptWriter, ptWriter->ptHeader, "d:AppSequence", nullptr);
    if (!ptNode)
        return;
    AppXmlSetAttr_u32(ptNode, "InstanceId", s_dwInstance);
    AppXmlSetAttr_u32(ptNode, "MessageNumber", ++s_dwMessages);
}

bool SendMessage(TSoapWriter *ptWriter, const TAppNetAddr &tPeer, uint16_t wPort)
{
    auto szMessage = static_cast<char *>(AppMemPoolMalloc(g_hPool, kMessageSize));
    ptWriter->bFailed |= !szMessage;
    const uint32_t dwLength = SoapEnd(ptWriter, szMessage, kMessageSize);
    const bool bSent =
        dwLength > 0 && AppSocketUDPSend(s_hSocket, szMessage, dwLength, kSendMs, &tPeer, wPort) ==
                            static_cast<int32_t>(dwLength);
    AppMemPoolFree(szMessage);
    return bSent;
}

// ---- Hello and Bye ------------------------------------------------------------------------------

// Joining also chooses the interface for what is sent to groups.
void Announce(const char *szAction, const TAppNetAddr &tInterface)
{
    if (AppSocketUDPJoinMulticastGroup(s_hSocket, &s_tGroup, &tInterface, 0) != APP_OK)
        return;
    const TConfig tConfig = ConfigGet();
    const bool bHello = szAction == kHelloAction;
    TSoapWriter tWriter;
    SoapBegin(&tWriter, szAction, kEverybody, nullptr);
    AddSequence(&tWriter);
    mxml_node_t *ptNode = SoapAdd(&tWriter, tWriter.ptBody, bHello ? "d:Hello" : "d:Bye", nullptr);
    if (bHello)
        AddDescription(&tWriter, ptNode, tConfig, tInterface);
    else
        AddIdentity(&tWriter, ptNode, tConfig);
    char achIp[16] = "";
    AppConvertNettoStr(&tInterface, achIp, sizeof(achIp));
    const bool bSent = SendMessage(&tWriter, s_tGroup, AppConvertHtons(kDiscoveryPort));
    AppLog(g_byLog, APP_LOG_ALWAYS, "discovery: %s on %s%s\n", bHello ? "Hello" : "Bye", achIp,
           bSent ? "" : " could not be sent");
}

void AnnounceAll(const char *szAction)
{
    for (uint32_t i = 0; i < s_dwInterfaces; ++i)
        Announce(szAction, s_atInterface[i]);
}

bool IsKnown(const TAppNetAddr &tInterface)
{
    for (uint32_t i = 0; i < s_dwInterfaces; ++i)
        if (s_atInterface[i].dwIpv4 == tInterface.dwIpv4)
            return true;
    return false;
}

// Interfaces come and go: a new one is greeted.
void LookForInterfaces(HAppTask hTask)
{
    TAppNetAddr atNow[kMaxInterfaces];
    const uint32_t dwNow = ListInterfaces(atNow, kMaxInterfaces);
    for (uint32_t i = 0; i < dwNow; ++i)
        if (IsKnown(atNow[i])) // joining again is no failure, and needed when it came back
            AppSocketUDPJoinMulticastGroup(s_hSocket, &s_tGroup, &atNow[i], 0);
        else
            Announce(kHelloAction, atNow[i]);
    AppMemcpy(s_atInterface, atNow, dwNow * static_cast<uint32_t>(sizeof(TAppNetAddr)));
    s_dwInterfaces = dwNow;
    AppTaskSetTimer(hTask, kLookMs, nullptr, nullptr);
}

// ---- Probes -------------------------------------------------------------------------------------

// A MessageID that was answered stands for the same message again, unless it comes from another
// port and too late for a copy: some clients draw theirs from the clock, by the second, and the
// next of them wants its answer too.
bool WasAnswered(const char *szMessageId, uint16_t wPort)
{
    const uint32_t dwNow = AppGetTick();
    for (const TSeen &seen : s_atSeen)
        if (AppStrcmp(seen.achId, szMessageId) == 0 &&
            (seen.wPort == wPort || AppConvertTickToMS(AppTickDiff(seen.dwTick, dwNow)) < kCopyMs))
            return true;
    return false;
}

void Remember(const char *szMessageId, uint16_t wPort)
{
    TSeen &seen = s_atSeen[s_dwSeen++ % kRemembered];
    AppStrncpy(seen.achId, szMessageId, kMaxIdSize);
    seen.wPort = wPort;
    seen.dwTick = AppGetTick();
}

// Every type that is asked for must be one of ours.
bool TypesMatch(mxml_node_t *ptProbe)
{
    mxml_node_t *ptTypes = SoapChild(ptProbe, kDiscoveryNs, "Types");
    const char *szRest = SoapText(ptTypes);
    uint32_t dwLen = 0;
    while (const char *szType = szRest ? NextWord(&szRest, &dwLen) : nullptr)
        if (!SoapNameIs(ptTypes, szType, dwLen, kNetworkNs, "NetworkVideoTransmitter"))
            return false;
    return true;
}

// A scope that is asked for matches one of ours that is equal or goes on behind it with a '/'.
bool ScopeMatches(const char *szScope, uint32_t dwLen, const char *szOurs)
{
    uint32_t dwOur = 0;
    while (dwLen > 0 && szScope[dwLen - 1] == '/')
        --dwLen;
    while (const char *szOur = NextWord(&szOurs, &dwOur))
        if (dwOur >= dwLen && AppStrncmp(szOur, szScope, dwLen) == 0 &&
            (dwOur == dwLen || szOur[dwLen] == '/'))
            return true;
    return false;
}

bool ScopesMatch(mxml_node_t *ptProbe)
{
    char achOurs[kScopesSize];
    const char *szRest = SoapText(SoapChild(ptProbe, kDiscoveryNs, "Scopes"));
    uint32_t dwLen = 0;
    if (!szRest)
        return true;
    MakeScopes(ConfigGet(), achOurs, sizeof(achOurs));
    while (const char *szScope = NextWord(&szRest, &dwLen))
        if (!ScopeMatches(szScope, dwLen, achOurs))
            return false;
    return true;
}

// Why a message is not to be answered, or kAnswered when it is.
EOutcome Judge(const TSoapMessage &tMessage, uint16_t wPort)
{
    mxml_node_t *ptProbe = SoapChild(tMessage.ptBody, kDiscoveryNs, "Probe");
    const char *szId = tMessage.szMessageId, *szRest = szId;
    uint32_t dwLen = 0;
    if (!ptProbe || !SoapEqual(tMessage.szAction, kProbeAction))
        return kOtherAction;
    if (!szId || !NextWord(&szRest, &dwLen))
        return kNoMessageId;
    if (AppStrlen(szId) >= kMaxIdSize || HasControlChars(szId))
        return kBroken;
    if (WasAnswered(szId, wPort))
        return kRepeated;
    if (!TypesMatch(ptProbe))
        return kOtherTypes;
    return ScopesMatch(ptProbe) ? kAnswered : kOtherScopes;
}

bool Answer(const char *szMessageId, const TAppNetAddr &tPeer, uint16_t wPort)
{
    TSoapWriter tWriter;
    SoapBegin(&tWriter, kMatchAction, kAnonymous, szMessageId);
    AddSequence(&tWriter);
    mxml_node_t *ptMatches = SoapAdd(&tWriter, tWriter.ptBody, "d:ProbeMatches", nullptr);
    mxml_node_t *ptMatch = SoapAdd(&tWriter, ptMatches, "d:ProbeMatch", nullptr);
    AddDescription(&tWriter, ptMatch, ConfigGet(), tPeer);
    return SendMessage(&tWriter, tPeer, wPort);
}

void HandleDatagram(const char *szText, uint32_t dwLength, const TAppNetAddr &tPeer, uint16_t wPort)
{
    TSoapMessage tMessage;
    EOutcome eOutcome = kBroken;
    if (SoapParse(szText, dwLength, &tMessage))
        eOutcome = Judge(tMessage, wPort);
    if (eOutcome == kAnswered && !Answer(tMessage.szMessageId, tPeer, wPort))
        eOutcome = kNotSent;
    if (eOutcome == kAnswered)
        Remember(tMessage.szMessageId, wPort);
    s_adwCount[eOutcome]++;

    char achIp[16] = "", achId[80], achAction[100];
    AppConvertNettoStr(&tPeer, achIp, sizeof(achIp));
    AppLog(g_byNetLog, APP_LOG_DEBUG, "[DEBUG] %s: %s: %s:%u, action {%s}, message {%s}\n",
           __func__, AppConvEnum2Str(s_atOutcome, kOutcomes, eOutcome), achIp,
           static_cast<unsigned>(AppConvertNtohs(wPort)),
           EscapeForLog(tMessage.szAction, achAction, sizeof(achAction)),
           EscapeForLog(tMessage.szMessageId, achId, sizeof(achId)));
    SoapFree(&tMessage);
}

// Waits a moment for one datagram, then asks for the next turn: between two turns the task serves
// its other events and timers.
void Listen(HAppTask hTask, char *szBuf)
{
    TAppNetAddr tPeer;
    uint16_t wPort = 0;
    uint32_t dwLen = kMessageSize;
    const int32_t nLen =
        AppSocketUDPRecv(s_hSocket, szBuf, &dwLen, kWaitMs, nullptr, nullptr, &tPeer, &wPort);
    if (nLen > 0)
        HandleDatagram(szBuf, dwLen, tPeer, wPort);
    // A socket that fails at once, again and again, must not keep a processor busy.
    s_dwFailures = nLen == -1 ? s_dwFailures + 1 : 0;
    if (s_dwFailures > 16)
        AppDelay(kWaitMs);
    AppTaskAssignEvent(hTask, &s_chListen, nullptr, nullptr);
}

// ---- The task -----------------------------------------------------------------------------------

uint32_t HandleDiscovery(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *)
{
    static char *s_szBuf; // this thread's alone
    switch (dwEventType) {
    case APP_TASK_EVENT_USER:
        if (!s_szBuf)
            s_szBuf = static_cast<char *>(AppMemPoolMalloc(AppTaskGetMemPool(hTask), kMessageSize));
        if (pvArg == &s_chAnnounce)
            AnnounceAll(kHelloAction);
        else if (pvArg == &s_chListen)
            Listen(hTask, s_szBuf);
        else
            LookForInterfaces(hTask);
        break;
    case APP_TASK_EVENT_TIMEOUT:
        LookForInterfaces(hTask);
        break;
    case APP_TASK_EVENT_STOP:
        AnnounceAll(kByeAction);
        AppMemPoolFree(s_szBuf);
        s_szBuf = nullptr;
        ModuleStopped(&s_tModule);
        break;
    }
    return 0;
}

bool OpenSocket()
{
    const TAppNetAddr tAny = {};
    AppConvertStrtoNet(kDiscoveryGroup, &s_tGroup);
    s_hSocket = AppSocketCreate(g_hPool, APP_SOCKET_UDP, APP_NET_ADDR_IPV4);
    return s_hSocket &&
           AppSocketBind(s_hSocket, &tAny, AppConvertHtons(kDiscoveryPort), 1) == APP_OK;
}

} // namespace

uint32_t ListInterfaces(TAppNetAddr *atAddr, uint32_t dwRoom)
{
    TIpcCapHwExternal tHw = {};
    uint32_t dwFound = 0;
    if (IpcCapGetHwExternal(&tHw) != 1)
        return 0;
    const uint32_t dwInterfaces = tHw.byIfCount1 + tHw.byIfCount2;
    for (uint32_t i = 0; i < dwInterfaces && i < 256 && dwFound < dwRoom; ++i) {
        TIpcNetEthParam tParam = {};
        if (IpcGetNetEthParam(static_cast<uint8_t>(i), &tParam) != 1)
            continue;
        for (uint32_t j = 0; j < tParam.dwAddrNum && j < APP_HOST_ETH_ADDR_MAX; ++j) {
            atAddr[dwFound] = {};
            atAddr[dwFound].dwIpv4 = tParam.atAddr[j].dwAddr;
            if (AppCheckIpv4Class(&atAddr[dwFound], nullptr) == APP_IPV4_CLASS_LOOPBACK)
                continue;
            ++dwFound; // one address stands for the interface
            break;
        }
    }
    return dwFound;
}

bool DiscoveryStart()
{
    s_dwInstance = static_cast<uint32_t>(time(nullptr));
    if (!OpenSocket()) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "discovery: UDP port %u cannot be used\n",
               static_cast<unsigned>(kDiscoveryPort));
        return false;
    }
    return ModuleStart(&s_tModule) &&
           AppTaskSendEvent(s_tModule.hTask, nullptr, nullptr, nullptr) == APP_OK &&
           AppTaskSendEvent(s_tModule.hTask, &s_chListen, nullptr, nullptr) == APP_OK;
}

void DiscoveryStop()
{
    ModuleStop(&s_tModule);
    AppSocketDestroy(s_hSocket);
    s_hSocket = nullptr;
}

void DiscoveryAnnounce()
{
    AppTaskSendEvent(s_tModule.hTask, &s_chAnnounce, nullptr, nullptr);
}

int32_t DiscoveryStatus(char *szBuf, uint32_t dwSize)
{
    uint32_t dwUsed = static_cast<uint32_t>(AppSnprintf(szBuf, dwSize, "discovery:"));
    for (uint32_t i = 0; i < kOutcomes; ++i) {
        const int32_t nLen =
            AppSnprintf(szBuf + dwUsed, dwSize - dwUsed, "%s %s %lu", i > 0 ? "," : "",
                        s_atOutcome[i].szStr, static_cast<unsigned long>(s_adwCount[i]));
        if (nLen < 0)
            return -1;
        dwUsed += static_cast<uint32_t>(nLen);
    }
    const int32_t nEnd = AppSnprintf(szBuf + dwUsed, dwSize - dwUsed, "\n");
    return nEnd < 0 ? -1 : static_cast<int32_t>(dwUsed) + nEnd;
}

} // namespace camera
