// SPDX-License-Identifier: MIT
#include "interfaces.h"

#include <appcore/host.h>

namespace camera
{

static uint32_t ListInterface(uint8_t byIndex, TOwnAddress *atOwn, uint32_t dwRoom)
{
    TIpcNetEthParam tParam = {};
    uint32_t dwFound = 0;
    if (IpcGetNetEthParam(byIndex, &tParam) != 1)
        return 0;
    for (uint32_t i = 0; i < tParam.dwAddrNum && i < APP_HOST_ETH_ADDR_MAX && dwFound < dwRoom;
         ++i) {
        TOwnAddress own = {};
        own.tAddr.dwIpv4 = tParam.atAddr[i].dwAddr;
        own.tMask.dwIpv4 = tParam.atAddr[i].dwMask;
        own.bFirst = dwFound == 0;
        if (AppCheckIpv4Class(&own.tAddr, nullptr) != APP_IPV4_CLASS_LOOPBACK)
            atOwn[dwFound++] = own;
    }
    return dwFound;
}

uint32_t ListAddresses(TOwnAddress *atOwn, uint32_t dwRoom)
{
    TIpcCapHwExternal tHw = {};
    uint32_t dwFound = 0;
    if (IpcCapGetHwExternal(&tHw) != 1)
        return 0;
    const uint32_t dwInterfaces = tHw.byIfCount1 + tHw.byIfCount2;
    for (uint32_t i = 0; i < dwInterfaces && i < 256; ++i)
        dwFound += ListInterface(static_cast<uint8_t>(i), atOwn + dwFound, dwRoom - dwFound);
    return dwFound;
}

bool IsNeighbour(const TOwnAddress &own, const TAppNetAddr &tPeer)
{
    if (((own.tAddr.dwIpv4 ^ tPeer.dwIpv4) & own.tMask.dwIpv4) != 0)
        return false;
    // A network of one or two addresses has none to spare for a name.
    if (AppConvertSubnetMasktoPrefixLength(&own.tMask) > 30)
        return true;
    const EAppIpv4Class eClass = AppCheckIpv4Class(&tPeer, &own.tMask);
    return eClass != APP_IPV4_CLASS_NETWORK && eClass != APP_IPV4_CLASS_BROADCAST;
}

} // namespace camera
