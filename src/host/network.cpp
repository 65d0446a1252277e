// SPDX-License-Identifier: MIT
//
// The device's network, asked of the system the program runs on.
#include <ifaddrs.h>
#include <netinet/in.h>
#include <string.h>

#include "base/rollback.h"
#include "host/call.h"

namespace
{

constexpr int32_t kSuccess = 1;
constexpr int32_t kFailure = 0;
constexpr uint32_t kMostInterfaces = 255;

uint32_t AddressOf(const struct sockaddr *ptAddr)
{
    struct sockaddr_in tAddr = {};
    if (ptAddr)
        memcpy(&tAddr, ptAddr, sizeof(tAddr));
    return tAddr.sin_addr.s_addr;
}

bool HasIpv4(const struct ifaddrs *ptIf)
{
    return ptIf->ifa_addr && ptIf->ifa_addr->sa_family == AF_INET;
}

// Interfaces are numbered in the order in which their first IPv4 address is listed.
bool IsFirstOfName(const struct ifaddrs *ptAll, const struct ifaddrs *ptIf)
{
    for (; ptAll != ptIf; ptAll = ptAll->ifa_next)
        if (HasIpv4(ptAll) && strcmp(ptAll->ifa_name, ptIf->ifa_name) == 0)
            return false;
    return true;
}

// Calls `visit` with each interface's number and first entry until it returns false.
template <typename Visit>
void ForEachInterface(const struct ifaddrs *ptAll, Visit visit)
{
    uint32_t dwIndex = 0;
    for (const struct ifaddrs *ptIf = ptAll; ptIf; ptIf = ptIf->ifa_next)
        if (HasIpv4(ptIf) && IsFirstOfName(ptAll, ptIf) && !visit(dwIndex++, ptIf))
            return;
}

void CopyAddresses(const struct ifaddrs *ptIf, const char *szName, TIpcNetEthParam *ptParam)
{
    ptParam->dwAddrNum = 0;
    for (; ptIf && ptParam->dwAddrNum < APP_HOST_ETH_ADDR_MAX; ptIf = ptIf->ifa_next)
        if (HasIpv4(ptIf) && strcmp(ptIf->ifa_name, szName) == 0)
            ptParam->atAddr[ptParam->dwAddrNum++] = {AddressOf(ptIf->ifa_addr),
                                                     AddressOf(ptIf->ifa_netmask)};
}

} // namespace

extern "C" {

// Asked anew each time: cables and leases come and go, and the interfaces' numbers with them.
int32_t _AppIpcCapGetHwExternal(TIpcCapHwExternal *ptHw)
{
    struct ifaddrs *ptAll = nullptr;
    if (getifaddrs(&ptAll) != 0)
        return kFailure;
    app::Rollback release([&] { freeifaddrs(ptAll); });
    uint32_t dwCount = 0;
    ForEachInterface(ptAll,
                     [&](uint32_t, const struct ifaddrs *) { return ++dwCount < kMostInterfaces; });
    ptHw->byIfCount1 = static_cast<uint8_t>(dwCount);
    ptHw->byIfCount2 = 0;
    return kSuccess;
}

int32_t _AppIpcGetNetEthParam(uint8_t byIndex, TIpcNetEthParam *ptParam)
{
    struct ifaddrs *ptAll = nullptr;
    if (getifaddrs(&ptAll) != 0)
        return kFailure;
    app::Rollback release([&] { freeifaddrs(ptAll); });
    int32_t nResult = kFailure;
    ForEachInterface(ptAll, [&](uint32_t dwIndex, const struct ifaddrs *ptIf) {
        if (dwIndex != byIndex)
            return true;
        CopyAddresses(ptIf, ptIf->ifa_name, ptParam);
        nResult = kSuccess;
        return false;
    });
    return nResult;
}

int32_t _AppIpcGetUpupCfg(TIpcUpupCfg *ptCfg)
{
    ptCfg->dwEnable = 0;
    return kSuccess;
}

} // extern "C"
