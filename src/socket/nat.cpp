// SPDX-License-Identifier: MIT
//
// The address and port under which a peer reaches a service of this device: the local ones, unless
// the peer is on another network and the router has a mapping.
#include "appcore/socket.h"
#include "host/call.h"
#include "utils/log.h"

namespace
{

constexpr int32_t kHostSuccess = 1;
constexpr uint32_t kMostInterfaces = 256; // the index is 8 bits wide

// The mask of a local address in one interface's record.
bool FindMask(const TIpcNetEthParam &param, uint32_t dwLocalAddr, uint32_t *pdwMask)
{
    const uint32_t dwPairs =
        param.dwAddrNum < APP_HOST_ETH_ADDR_MAX ? param.dwAddrNum : APP_HOST_ETH_ADDR_MAX;
    for (uint32_t i = 0; i < dwPairs; ++i) {
        if (param.atAddr[i].dwAddr == dwLocalAddr) {
            *pdwMask = param.atAddr[i].dwMask;
            return true;
        }
    }
    return false;
}

// The local address's mask among all interfaces; 0 when none lists it.
uint32_t SearchMask(uint32_t dwLocalAddr, uint32_t dwInterfaces, const char *szOp)
{
    for (uint32_t i = 0; i < dwInterfaces && i < kMostInterfaces; ++i) {
        // Zeroed before each query: a host may fill less than it should.
        TIpcNetEthParam param = {};
        const int32_t nStatus = APP_HOST(IpcGetNetEthParam)(static_cast<uint8_t>(i), &param);
        if (nStatus != kHostSuccess) {
            APP_LOG_RESULT(nStatus, "[ERROR] %s: IpcGetNetEthParam failed %d\n", szOp);
            continue;
        }
        uint32_t dwMask = 0;
        if (FindMask(param, dwLocalAddr, &dwMask)) {
            APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: subnet mask:%x\n", szOp, dwMask);
            return dwMask;
        }
    }
    AppLog(0, APP_LOG_INFO, "[INFO ] %s: can't find addr %x in net param\n", szOp, dwLocalAddr);
    return 0;
}

// A local address without a mask counts as on the subnet of every remote: without the mask nothing
// speaks for a mapping.
bool IsOnSubnet(uint32_t dwRemoteAddr, uint32_t dwLocalAddr, const char *szOp)
{
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: LocalAddr %x RemoteAddr %x\n", szOp, dwLocalAddr,
              dwRemoteAddr);
    TIpcCapHwExternal hardware = {};
    const int32_t nStatus = APP_HOST(IpcCapGetHwExternal)(&hardware);
    if (nStatus != kHostSuccess) {
        APP_LOG_RESULT(nStatus, "[ERROR] %s: IpcCapGetHwInternal failed %d\n", szOp);
        return false;
    }
    const uint32_t dwInterfaces = uint32_t{hardware.byIfCount1} + hardware.byIfCount2;
    const uint32_t dwMask = SearchMask(dwLocalAddr, dwInterfaces, szOp);
    if (((dwRemoteAddr ^ dwLocalAddr) & dwMask) != 0)
        return false;
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: remote addr %x is in the subnet\n", szOp, dwRemoteAddr);
    return true;
}

bool Matches(const TIpcUpupMap &map, uint32_t dwProtocol, uint16_t wLocalPort)
{
    const bool bKind = (dwProtocol == APP_SOCKET_TCP && map.dwMapType == 0) ||
                       (dwProtocol == APP_SOCKET_UDP && map.dwMapType == 1);
    return bKind && map.wInPort == wLocalPort && map.dwActive != 0;
}

// The last matching entry decides.
void SearchMapping(uint32_t dwProtocol, uint16_t wLocalPort, TAppNetAddr *ptNatAddr,
                   uint16_t *pwPort, const char *szOp)
{
    TIpcUpupCfg config = {};
    const int32_t nStatus = APP_HOST(IpcGetUpupCfg)(&config);
    if (nStatus != kHostSuccess) {
        APP_LOG_RESULT(nStatus, "[ERROR] %s: IpcGetUpupCfg failed %d\n", szOp);
        return;
    }
    if (config.dwEnable == 0) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: UPnP Disabled\n", szOp);
        return;
    }
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: Local Port %d\n", szOp, wLocalPort);
    for (int i = 0; i < APP_HOST_UPNP_MAP_NUM; ++i) {
        const TIpcUpupMap &map = config.atMap[i];
        char achName[APP_HOST_UPNP_NAME_SIZE + 1]; // the host's name need not be terminated
        AppStrncpy(achName, map.achName, sizeof(achName));
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: UPnP[%d]: type %d enable %d inport:%d name %s\n",
                  szOp, i, app::Int(map.dwMapType), app::Int(map.dwEnable), map.wInPort, achName);
        if (!Matches(map, dwProtocol, wLocalPort))
            continue;
        *pwPort = map.wExtPort;
        ptNatAddr->dwType = APP_NET_ADDR_IPV4;
        ptNatAddr->dwIpv4 = map.dwExtAddr;
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: UPnP: addr:%x port:%u protocal:%s\n", szOp,
                  map.dwExtAddr, map.wExtPort, achName);
    }
}

} // namespace

uint32_t AppSocketCalNATAddr(const TAppNetAddr *ptRemoteAddr, uint32_t dwProtocol,
                             uint16_t wLocalPort, TAppNetAddr *ptNatAddr, uint16_t *pwNatPort)
{
    if (!ptRemoteAddr || !ptNatAddr)
        return APP_INVALID_ARG;
    const TAppNetAddr remote = *ptRemoteAddr; // the result may go into the same record
    if (AppSocketCalLocalAddr(&remote, ptNatAddr) != APP_OK) {
        AppLog(0, APP_LOG_INFO, "[INFO ] %s: AppSocketCalLocalAddr failed.\n", __func__);
        return APP_FAILED;
    }
    uint16_t wPort = wLocalPort;
    // Only IPv4 has a mask to compare with; for IPv6 a mapping is looked for at once.
    const bool bOnSubnet = ptNatAddr->dwType == APP_NET_ADDR_IPV4 &&
                           IsOnSubnet(remote.dwIpv4, ptNatAddr->dwIpv4, __func__);
    if (!bOnSubnet)
        SearchMapping(dwProtocol, wLocalPort, ptNatAddr, &wPort, __func__);
    if (pwNatPort)
        *pwNatPort = wPort;
    return APP_OK;
}
