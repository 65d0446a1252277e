// SPDX-License-Identifier: MIT
//
// The public fronts: missing arguments and other address families are refused here, a socket of the
// wrong kind by the platform layer.
#include "appcore/socket.h"

#include "base/print.h"
#include "cross_linux/cross_linux.h"
#include "utils/stats.h"

namespace
{

bool IsIpv4(uint32_t dwVersion, const char *szOp)
{
    if (dwVersion == APP_NET_ADDR_IPV4)
        return true;
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Invalid Socket version %d\n", szOp, app::Int(dwVersion));
    return false;
}

} // namespace

void AppSocketStartUp(void)
{
    _AppSocetStartUp();
}

void AppSocketClearUp(void)
{
    _AppSocetClearUp();
}

HAppSocket AppSocketCreate(HAppMemPool hMemPool, uint32_t dwSockType, uint32_t dwVersion)
{
    if (!IsIpv4(dwVersion, __func__))
        return nullptr;
    return _AppSocketCreate(hMemPool, dwSockType);
}

void AppSocketDestroy(HAppSocket hSocket)
{
    _AppSocketDestroy(hSocket);
}

uint32_t AppSocketBind(HAppSocket hSocket, const TAppNetAddr *ptLocalAddr, uint16_t wPort,
                       uint32_t bReuse)
{
    if (!ptLocalAddr)
        return APP_INVALID_ARG;
    return _AppSocketBind(hSocket, ptLocalAddr, wPort, bReuse);
}

int32_t AppSocketUDPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen, uint32_t dwTimeout,
                         TAppNetAddr *ptLocalAddr, uint16_t *pwLocalPort, TAppNetAddr *ptRemoteAddr,
                         uint16_t *pwRemotePort)
{
    if (!pvBuf || !pdwLen)
        return -1;
    return _AppSocketUDPRecv(hSocket, pvBuf, pdwLen, dwTimeout, ptLocalAddr, pwLocalPort,
                             ptRemoteAddr, pwRemotePort);
}

int32_t AppSocketUDPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen, uint32_t dwTimeout,
                         const TAppNetAddr *ptRemoteAddr, uint16_t wPort)
{
    if (!pvBuf || !ptRemoteAddr || !IsIpv4(ptRemoteAddr->dwType, __func__))
        return -1;
    return _AppSocketUDPSend(hSocket, pvBuf, dwLen, dwTimeout, ptRemoteAddr, wPort);
}

uint32_t AppSocketUDPJoinMulticastGroup(HAppSocket hSocket, const TAppNetAddr *ptGroupAddr,
                                        const TAppNetAddr *ptIfAddr, uint32_t bLoop)
{
    if (!ptGroupAddr || !IsIpv4(ptGroupAddr->dwType, __func__) ||
        (ptIfAddr && ptIfAddr->dwType != APP_NET_ADDR_IPV4))
        return APP_INVALID_ARG;
    return _AppSocketUDPJoinMulticastGroup(hSocket, ptGroupAddr, ptIfAddr, bLoop);
}

HAppSocket AppSocketTCPConnect(HAppMemPool hMemPool, const TAppNetAddr *ptRemoteAddr,
                               uint16_t wPort, uint32_t dwTimeout, TAppNetAddr *ptPeerAddr)
{
    if (!ptRemoteAddr || !IsIpv4(ptRemoteAddr->dwType, __func__))
        return nullptr;
    return _AppSocketTCPConnect(hMemPool, ptRemoteAddr, wPort, dwTimeout, ptPeerAddr);
}

int32_t AppSocketTCPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen, uint32_t dwTimeout)
{
    if (!hSocket || !pvBuf)
        return -1;
    return _AppSocketTCPSend(hSocket, pvBuf, dwLen, dwTimeout);
}

int32_t AppSocketTCPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen, uint32_t dwTimeout)
{
    if (!hSocket || !pvBuf || !pdwLen)
        return -1;
    return _AppSocketTCPRecv(hSocket, pvBuf, pdwLen, dwTimeout);
}

uint32_t AppSocketCalLocalAddr(const TAppNetAddr *ptRemoteAddr, TAppNetAddr *ptLocalAddr)
{
    if (!ptRemoteAddr || !ptLocalAddr) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppSocketCalLocalAddr failed.\n", __func__);
        return APP_INVALID_ARG;
    }
    return _AppSocketCalLocalAddr(ptRemoteAddr, ptLocalAddr);
}

[[gnu::cold]] uint32_t AppSocketGetStats(TAppSocketStats *ptStats)
{
    TAppSocketStats tStats;
    _AppSocketGetStats(&tStats);
    return app::FillStats(ptStats, tStats);
}
