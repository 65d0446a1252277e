// SPDX-License-Identifier: MIT
#include "probe.h"

#include "scope.h"
#include "soap.h"
#include "text.h"

namespace camera
{

namespace
{

constexpr uint32_t kScopesSize = 512;
constexpr uint32_t kAddressSize = 60;

uint32_t s_dwInstance;
std::atomic<uint32_t> s_dwMessages;

// ---- The camera's own description ---------------------------------------------------------------

void MakeScopes(const TConfig &tConfig, char *szBuf, uint32_t dwSize)
{
    char achName[200], achHardware[200];
    AppSnprintf(szBuf, dwSize, "onvif://www.onvif.org/type/Network_Video_Transmitter %s%s %s%s",
                kNameScope, EncodeUri(tConfig.achName, achName, sizeof(achName)), kHardwareScope,
                EncodeUri(tConfig.achHardware, achHardware, sizeof(achHardware)));
}

void MakeAddress(const TConfig &tConfig, char *szBuf, uint32_t dwSize)
{
    AppSnprintf(szBuf, dwSize, "urn:uuid:%s", tConfig.achUuid);
}

// Where the peer finds the device's service.
bool MakeUrl(const TConfig &tConfig, const TAppNetAddr &tPeer, char *szBuf, uint32_t dwSize)
{
    TAppNetAddr tOwn = {};
    uint16_t wPort = 0;
    char achIp[16] = "";
    if (AppSocketCalNATAddr(&tPeer, APP_SOCKET_TCP,
                            AppConvertHtons(static_cast<uint16_t>(tConfig.dwService)), &tOwn,
                            &wPort) != APP_OK ||
        AppConvertNettoStr(&tOwn, achIp, sizeof(achIp)) != APP_OK)
        return false;
    AppSnprintf(szBuf, dwSize, "http://%s:%u/onvif/device_service", achIp,
                static_cast<unsigned>(AppConvertNtohs(wPort)));
    return true;
}

// ---- What is asked ------------------------------------------------------------------------------

// Every type that is asked for must be one of ours.
bool TypesMatch(mxml_node_t *ptProbe)
{
    mxml_node_t *ptTypes = SoapChild(ptProbe, kDiscoveryNs, "Types");
    const char *szRest = SoapText(ptTypes);
    uint32_t dwLen = 0;
    while (const char *szType = szRest ? NextWord(&szRest, &dwLen) : nullptr)
        if (!SoapNameIs(ptTypes, szType, dwLen, kNetworkNs, "NetworkVideoTransmitter") &&
            !SoapNameIs(ptTypes, szType, dwLen, kDeviceNs, "Device"))
            return false;
    return true;
}

bool HasScope(const char *szOurs, const char *szRule, const char *szAsked, uint32_t dwAsked)
{
    uint32_t dwOur = 0;
    while (const char *szOur = NextWord(&szOurs, &dwOur))
        if (ScopeMatches(szRule, szAsked, dwAsked, szOur, dwOur))
            return true;
    return false;
}

// Every scope that is asked for must match one of ours.
bool ScopesMatch(mxml_node_t *ptProbe, const TConfig &tConfig)
{
    char achOurs[kScopesSize];
    mxml_node_t *ptScopes = SoapChild(ptProbe, kDiscoveryNs, "Scopes");
    const char *szRest = SoapText(ptScopes);
    const char *szRule = mxmlElementGetAttr(ptScopes, "MatchBy");
    uint32_t dwLen = 0;
    if (!ScopeRuleKnown(szRule))
        return false;
    MakeScopes(tConfig, achOurs, sizeof(achOurs));
    while (const char *szScope = szRest ? NextWord(&szRest, &dwLen) : nullptr)
        if (!HasScope(achOurs, szRule, szScope, dwLen))
            return false;
    return true;
}

EOutcome JudgeProbe(mxml_node_t *ptProbe, const TConfig &tConfig)
{
    if (!TypesMatch(ptProbe))
        return kOtherTypes;
    return ScopesMatch(ptProbe, tConfig) ? kAnswered : kOtherScopes;
}

EOutcome JudgeResolve(mxml_node_t *ptResolve, const TConfig &tConfig)
{
    char achOurs[kAddressSize];
    mxml_node_t *ptReference = SoapChild(ptResolve, kAddressingNs, "EndpointReference");
    const char *szRest = SoapText(SoapChild(ptReference, kAddressingNs, "Address"));
    uint32_t dwLen = 0, dwMore = 0;
    const char *szAddress = szRest ? NextWord(&szRest, &dwLen) : nullptr;
    MakeAddress(tConfig, achOurs, sizeof(achOurs));
    return szAddress && dwLen == AppStrlen(achOurs) &&
                   AppStrncasecmp(szAddress, achOurs, dwLen) == 0 && !NextWord(&szRest, &dwMore)
               ? kAnswered
               : kOtherDevice;
}

// The answer repeats the id, so it must be what every document can hold.
bool IsXmlText(const char *szText)
{
    uint32_t dwLeft = AppStrlen(szText), dwCode = 0;
    for (const char *sz = szText; dwLeft > 0;) {
        const uint32_t dwLength = ReadChar(sz, dwLeft, &dwCode);
        if (dwLength == 0 || dwCode == 0xFFFE || dwCode == 0xFFFF)
            return false;
        sz += dwLength;
        dwLeft -= dwLength;
    }
    return !HasControlChars(szText);
}

// kAnswered when the id can be repeated.
EOutcome JudgeId(const char *szId)
{
    const char *szRest = szId;
    uint32_t dwLen = 0;
    if (!szId || !NextWord(&szRest, &dwLen))
        return kNoMessageId;
    return AppStrlen(szId) < kMaxIdSize && IsXmlText(szId) ? kAnswered : kBroken;
}

// A ReplyTo is not looked at: the answer goes where the question came from, which is what the
// anonymous address asks for.  By the book another address would have the answer sent there, and
// anybody could aim the camera at anybody else with it.
EOutcome Judge(const TSoapMessage &tMessage, const TConfig &tConfig, TQuestion *ptQuestion)
{
    mxml_node_t *ptProbe = SoapChild(tMessage.ptBody, kDiscoveryNs, "Probe");
    mxml_node_t *ptResolve = SoapChild(tMessage.ptBody, kDiscoveryNs, "Resolve");
    if (SoapHasDocumentType(tMessage))
        return kDocumentType;
    if (!SoapIsUnderstood(tMessage))
        return kNotUnderstood;
    if (ptProbe && SoapEqual(tMessage.szAction, kProbeAction))
        ptQuestion->eKind = kProbe;
    else if (ptResolve && SoapEqual(tMessage.szAction, kResolveAction))
        ptQuestion->eKind = kResolve;
    else
        return kOtherAction;
    const EOutcome eOutcome = JudgeId(tMessage.szMessageId);
    if (eOutcome != kAnswered)
        return eOutcome;
    AppStrncpy(ptQuestion->achMessageId, tMessage.szMessageId, kMaxIdSize);
    return ptQuestion->eKind == kProbe ? JudgeProbe(ptProbe, tConfig)
                                       : JudgeResolve(ptResolve, tConfig);
}

// ---- What is sent -------------------------------------------------------------------------------

void Begin(TSoapWriter *ptWriter, const char *szAction, const char *szTo, const char *szRelatesTo)
{
    SoapBegin(ptWriter, szAction, szTo, szRelatesTo);
    mxml_node_t *ptNode = SoapAdd(ptWriter, ptWriter->ptHeader, "d:AppSequence", nullptr);
    ptWriter->bFailed = ptWriter->bFailed ||
                        AppXmlSetAttr_u32(ptNode, "InstanceId", s_dwInstance) != APP_OK ||
                        AppXmlSetAttr_u32(ptNode, "MessageNumber", ++s_dwMessages) != APP_OK;
}

void AddIdentity(TSoapWriter *ptWriter, mxml_node_t *ptParent, const TConfig &tConfig)
{
    char achAddress[kAddressSize];
    MakeAddress(tConfig, achAddress, sizeof(achAddress));
    mxml_node_t *ptReference = SoapAdd(ptWriter, ptParent, "a:EndpointReference", nullptr);
    SoapAdd(ptWriter, ptReference, "a:Address", achAddress);
}

// Everything about the camera, with the address that the peer can reach.
void AddDescription(TSoapWriter *ptWriter, mxml_node_t *ptParent, const TConfig &tConfig,
                    const TAppNetAddr &tPeer)
{
    char achScopes[kScopesSize], achUrl[80], achVersion[12];
    AddIdentity(ptWriter, ptParent, tConfig);
    if (!MakeUrl(tConfig, tPeer, achUrl, sizeof(achUrl))) {
        ptWriter->bFailed = true;
        return;
    }
    AppSnprintf(achVersion, sizeof(achVersion), "%lu",
                static_cast<unsigned long>(tConfig.dwMetadata));
    MakeScopes(tConfig, achScopes, sizeof(achScopes));
    SoapAdd(ptWriter, ptParent, "d:Types", "dn:NetworkVideoTransmitter tds:Device");
    SoapAdd(ptWriter, ptParent, "d:Scopes", achScopes);
    SoapAdd(ptWriter, ptParent, "d:XAddrs", achUrl);
    SoapAdd(ptWriter, ptParent, "d:MetadataVersion", achVersion);
}

} // namespace

EOutcome ProbeJudge(const char *szText, uint32_t dwLength, const TConfig &tConfig,
                    TQuestion *ptQuestion)
{
    TSoapMessage tMessage;
    EOutcome eOutcome = kBroken;
    *ptQuestion = {};
    if (SoapParse(szText, dwLength, &tMessage))
        eOutcome = Judge(tMessage, tConfig, ptQuestion);
    EscapeForLog(tMessage.szAction, ptQuestion->achAction, sizeof(ptQuestion->achAction));
    SoapFree(&tMessage);
    return eOutcome;
}

uint32_t ProbeAnswer(const TQuestion &tQuestion, const TConfig &tConfig, const TAppNetAddr &tPeer,
                     char *szBuf, uint32_t dwSize)
{
    const bool bProbe = tQuestion.eKind == kProbe;
    TSoapWriter tWriter;
    Begin(&tWriter, bProbe ? kMatchAction : kResolveMatchAction, kAnonymous,
          tQuestion.achMessageId);
    mxml_node_t *ptMatches =
        SoapAdd(&tWriter, tWriter.ptBody, bProbe ? "d:ProbeMatches" : "d:ResolveMatches", nullptr);
    mxml_node_t *ptMatch =
        SoapAdd(&tWriter, ptMatches, bProbe ? "d:ProbeMatch" : "d:ResolveMatch", nullptr);
    AddDescription(&tWriter, ptMatch, tConfig, tPeer);
    return SoapEnd(&tWriter, szBuf, dwSize);
}

uint32_t ProbeAnnounce(bool bHello, const TConfig &tConfig, const TAppNetAddr &tInterface,
                       char *szBuf, uint32_t dwSize)
{
    TSoapWriter tWriter;
    Begin(&tWriter, bHello ? kHelloAction : kByeAction, kEverybody, nullptr);
    mxml_node_t *ptNode = SoapAdd(&tWriter, tWriter.ptBody, bHello ? "d:Hello" : "d:Bye", nullptr);
    if (bHello)
        AddDescription(&tWriter, ptNode, tConfig, tInterface);
    else
        AddIdentity(&tWriter, ptNode, tConfig);
    return SoapEnd(&tWriter, szBuf, dwSize);
}

void ProbeStart(uint32_t dwInstance)
{
    s_dwInstance = dwInstance;
}

} // namespace camera
