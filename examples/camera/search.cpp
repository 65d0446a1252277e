// SPDX-License-Identifier: MIT
//
// The action "discovery.search": asks the network for cameras and prints who answers.  It waits for
// a second, so it is a blocking action, and its task is one that the manager hands out for the time
// of the search only: the next search gets the same thread again, if it comes before the idle
// time-out.
#include "camera.h"
#include "interfaces.h"
#include "soap.h"
#include "text.h"

#include <errno.h>

namespace camera
{

namespace
{

constexpr uint32_t kSearchMs = 1000;
constexpr uint32_t kStackSize = 256 * 1024;
constexpr uint32_t kMaxFound = 64;

struct TSearch {
    HAppLock hDone;
    HAppSocket hSocket;
    uint32_t dwFound;
    uint32_t adwFound[kMaxFound]; // hashes of their addresses: each camera is printed once
    char achMessageId[48];
    char achBuf[kDatagramSize];
};

// The same message on every interface, so that a camera on two of them answers once.
bool SendProbe(TSearch *ptSearch)
{
    TAppNetAddr tGroup;
    TOwnAddress atOwn[kMaxAddresses];
    const TAppNetAddr tAny = {};
    AppConvertStrtoNet(kDiscoveryGroup, &tGroup);
    if (AppSocketBind(ptSearch->hSocket, &tAny, 0, 0) != APP_OK)
        return false;

    TSoapWriter tWriter;
    SoapBegin(&tWriter, kProbeAction, kEverybody, nullptr);
    mxml_node_t *ptProbe = SoapAdd(&tWriter, tWriter.ptBody, "d:Probe", nullptr);
    SoapAdd(&tWriter, ptProbe, "d:Types", "dn:NetworkVideoTransmitter");
    AppStrncpy(ptSearch->achMessageId, tWriter.achMessageId, sizeof(ptSearch->achMessageId));
    const uint32_t dwLen = SoapEnd(&tWriter, ptSearch->achBuf, kMessageSize);

    uint32_t dwSent = 0;
    const uint32_t dwOwn = ListAddresses(atOwn, kMaxAddresses);
    for (uint32_t i = 0; dwLen > 0 && i < dwOwn; ++i)
        if (atOwn[i].bFirst &&
            AppSocketUDPJoinMulticastGroup(ptSearch->hSocket, &tGroup, &atOwn[i].tAddr, 1) ==
                APP_OK &&
            AppSocketUDPSend(ptSearch->hSocket, ptSearch->achBuf, dwLen, kSearchMs, &tGroup,
                             AppConvertHtons(kDiscoveryPort)) > 0)
            ++dwSent;
    return dwSent > 0;
}

bool IsNew(TSearch *ptSearch, const char *szAddress)
{
    const uint32_t dwHash = AppStringHash(szAddress);
    for (uint32_t i = 0; i < ptSearch->dwFound; ++i)
        if (ptSearch->adwFound[i] == dwHash)
            return false;
    if (ptSearch->dwFound == kMaxFound) // nobody needs more, and anybody may invent some
        return false;
    ptSearch->adwFound[ptSearch->dwFound++] = dwHash;
    return true;
}

void FindName(const char *szScopes, char *szName, uint32_t dwSize)
{
    constexpr uint32_t kPrefix = sizeof(kNameScope) - 1;
    uint32_t dwLen = 0;
    AppStrncpy(szName, "(no name)", dwSize);
    while (const char *szScope = szScopes ? NextWord(&szScopes, &dwLen) : nullptr)
        if (dwLen > kPrefix && AppStrncmp(szScope, kNameScope, kPrefix) == 0)
            DecodeUri(szScope + kPrefix, dwLen - kPrefix, szName, dwSize);
}

void PrintMatches(TSearch *ptSearch, const TSoapMessage &tMessage)
{
    mxml_node_t *ptMatches = SoapChild(tMessage.ptBody, kDiscoveryNs, "ProbeMatches");
    for (mxml_node_t *ptMatch = SoapChild(ptMatches, kDiscoveryNs, "ProbeMatch"); ptMatch;
         ptMatch = SoapNext(ptMatch, kDiscoveryNs, "ProbeMatch")) {
        mxml_node_t *ptReference = SoapChild(ptMatch, kAddressingNs, "EndpointReference");
        const char *szAddress = SoapText(SoapChild(ptReference, kAddressingNs, "Address"));
        if (!szAddress || !IsNew(ptSearch, szAddress))
            continue;
        char achName[100], achShown[200], achUrl[200];
        FindName(SoapText(SoapChild(ptMatch, kDiscoveryNs, "Scopes")), achName, sizeof(achName));
        const char *szUrl = SoapText(SoapChild(ptMatch, kDiscoveryNs, "XAddrs"));
        Print("  %-24s %s\n", EscapeForLog(achName, achShown, sizeof(achShown)),
              EscapeForLog(szUrl, achUrl, sizeof(achUrl)));
    }
}

void Collect(TSearch *ptSearch)
{
    const uint32_t dwStart = AppGetTick();
    for (;;) {
        const uint32_t dwPassed = MsSince(dwStart);
        if (dwPassed >= kSearchMs)
            break;
        uint32_t dwLen = kDatagramSize;
        const int32_t nLen =
            AppSocketUDPRecv(ptSearch->hSocket, ptSearch->achBuf, &dwLen, kSearchMs - dwPassed,
                             nullptr, nullptr, nullptr, nullptr);
        if (nLen == -2 || (nLen == -1 && errno != 0)) // a socket that fails may do so for ever
            break;
        if (nLen == -1) // an empty datagram
            continue;
        TSoapMessage tMessage;
        if (SoapParse(ptSearch->achBuf, dwLen, &tMessage) &&
            SoapEqual(tMessage.szAction, kMatchAction) && tMessage.szRelatesTo &&
            SoapEqual(tMessage.szRelatesTo, ptSearch->achMessageId))
            PrintMatches(ptSearch, tMessage);
        SoapFree(&tMessage);
    }
}

uint32_t HandleSearch(HAppTask, uint32_t dwEventType, void *pvArg, void *)
{
    auto ptSearch = static_cast<TSearch *>(pvArg);
    if (dwEventType == APP_TASK_EVENT_USER) {
        ptSearch->hSocket = AppSocketCreate(g_hPool, APP_SOCKET_UDP, APP_NET_ADDR_IPV4);
        if (SendProbe(ptSearch))
            Collect(ptSearch);
        else
            Print("the question could not be sent\n");
        AppSocketDestroy(ptSearch->hSocket);
        Print("%lu found\n", static_cast<unsigned long>(ptSearch->dwFound));
    }
    if (dwEventType == APP_TASK_EVENT_USER || dwEventType == APP_TASK_EVENT_DROP)
        AppLockGive(ptSearch->hDone);
    return 0;
}

uint32_t RunSearch(TSearch *ptSearch)
{
    HAppTask hTask;
    uint32_t dwResult =
        AppTaskMgrNewTask(g_hTaskMgr, "search", 4, kStackSize, 0, 0, HandleSearch, nullptr, &hTask);
    if (dwResult != APP_OK)
        return dwResult;
    dwResult = AppTaskSendEvent(hTask, ptSearch, nullptr, nullptr);
    if (dwResult == APP_OK)
        AppLockTakeByTime(ptSearch->hDone, 0);
    AppTaskTerminate(hTask); // goes idle, to be handed out again
    return dwResult;
}

uint32_t SearchAction(uint32_t, uint32_t, uint32_t)
{
    auto ptSearch = static_cast<TSearch *>(AppMemPoolMalloc(g_hPool, sizeof(TSearch)));
    if (!ptSearch)
        return APP_NO_RESOURCE;
    AppMemzero(ptSearch, sizeof(*ptSearch));
    uint32_t dwResult = AppLockCreate(g_hPool, 1, 0, APP_LOCK_TYPE_SEM, &ptSearch->hDone);
    if (dwResult == APP_OK)
        dwResult = RunSearch(ptSearch);
    AppLockDestroy(ptSearch->hDone);
    AppMemPoolFree(ptSearch);
    return dwResult;
}

} // namespace

bool SearchStart()
{
    return AppRegisterBlockShareAction("discovery.search", SearchAction) == APP_OK;
}

} // namespace camera
