// SPDX-License-Identifier: MIT
//
// Creation, binding, groups, and the local address.
#include "cross_linux/socket.h"

#include <netinet/tcp.h>

#include <initializer_list>
#include <new>

#include "cross_linux/error_text.h"

TAppSocketStats app::g_tSocketStats;

namespace
{

constexpr uint16_t kProbePort = 5690; // any: connecting a UDP socket sends nothing
constexpr int kSocketFailed = 666;    // marks the line of a refused probe socket

// Close-on-exec: the programs that a camera starts must not keep its ports.
int OpenDescriptor(uint32_t dwSockType)
{
    if (dwSockType == APP_SOCKET_UDP)
        return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

// A bind or a membership.
uint32_t Refused()
{
    app::CountSocket(&TAppSocketStats::dwBindFailed);
    return APP_FAILED;
}

uint32_t CalLocalIpv4(const TAppNetAddr *ptRemoteAddr, TAppNetAddr *ptLocalAddr, const char *szOp)
{
    const app::OwnedFd probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    if (probe.Get() < 0) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: [%d]socket failed  %d %s\n", szOp, kSocketFailed);
        return APP_FAILED;
    }
    struct sockaddr_in tAddr = app::ToSockaddr(*ptRemoteAddr, htons(kProbePort));
    socklen_t nLen = sizeof(tAddr);
    if (connect(probe.Get(), app::Generic(&tAddr), nLen) != 0) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: connect failed %d %s\n", szOp);
        return APP_FAILED;
    }
    if (getsockname(probe.Get(), app::Generic(&tAddr), &nLen) != 0) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: getsockname failed  %d %s\n", szOp);
        return APP_FAILED;
    }
    app::FromInAddr(tAddr.sin_addr, ptLocalAddr);
    return APP_OK;
}

// A device without IPv6 is nothing unusual: what fails is told at INFO, and a refused socket not at
// all.
uint32_t CalLocalIpv6(const TAppNetAddr *ptRemoteAddr, TAppNetAddr *ptLocalAddr, const char *szOp)
{
    const app::OwnedFd probe(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    if (probe.Get() < 0)
        return APP_FAILED;
    struct sockaddr_in6 tAddr = {};
    tAddr.sin6_family = AF_INET6;
    tAddr.sin6_port = htons(kProbePort);
    // A link-local remote is refused without an interface.
    tAddr.sin6_scope_id = 1;
    AppMemcpy(&tAddr.sin6_addr, ptRemoteAddr->abyIpv6, sizeof(ptRemoteAddr->abyIpv6));
    socklen_t nLen = sizeof(tAddr);
    if (connect(probe.Get(), app::Generic(&tAddr), nLen) != 0) {
        const app::ErrorText error(errno);
        AppLog(0, APP_LOG_INFO, "[INFO ] %s: connect failed %d %s\n", szOp, error.Number(),
               error.Text());
        return APP_FAILED;
    }
    if (getsockname(probe.Get(), app::Generic(&tAddr), &nLen) != 0) {
        const app::ErrorText error(errno);
        AppLog(0, APP_LOG_INFO, "[INFO ] %s: getsockname failed %d %s\n", szOp, error.Number(),
               error.Text());
        return APP_FAILED;
    }
    ptLocalAddr->dwType = APP_NET_ADDR_IPV6;
    AppMemcpy(ptLocalAddr->abyIpv6, &tAddr.sin6_addr, sizeof(ptLocalAddr->abyIpv6));
    return APP_OK;
}

} // namespace

void _AppSocetStartUp(void) {}

void _AppSocetClearUp(void) {}

HAppSocket _AppSocketCreate(HAppMemPool hMemPool, uint32_t dwSockType)
{
    auto hSocket = static_cast<HAppSocket>(AppMemPoolMalloc(hMemPool, sizeof(TAppSocket)));
    if (!hSocket) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", __func__);
        return nullptr;
    }
    if (dwSockType != APP_SOCKET_UDP && dwSockType != APP_SOCKET_TCP) {
        AppMemPoolFree(hSocket);
        return nullptr;
    }
    // A refused descriptor is found by the first operation, which tells it with its cause.
    new (hSocket) TAppSocket{dwSockType, OpenDescriptor(dwSockType), 0, {0}};
    app::CountSocket(&TAppSocketStats::dwOpen);
    if (hSocket->nFd < 0)
        app::CountSocket(&TAppSocketStats::dwNoDescriptor);
    return hSocket;
}

void _AppSocketDestroy(HAppSocket hSocket)
{
    if (!hSocket)
        return;
    const app::OwnedFd closed(hSocket->nFd);
    AppMemPoolFree(hSocket);
    app::CountSocket(&TAppSocketStats::dwOpen, UINT32_MAX);
}

uint32_t _AppSocketCalLocalAddr(const TAppNetAddr *ptRemoteAddr, TAppNetAddr *ptLocalAddr)
{
    if (ptRemoteAddr->dwType == APP_NET_ADDR_IPV4)
        return CalLocalIpv4(ptRemoteAddr, ptLocalAddr, __func__);
    if (ptRemoteAddr->dwType == APP_NET_ADDR_IPV6)
        return CalLocalIpv6(ptRemoteAddr, ptLocalAddr, __func__);
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: not V4 or V6,APP_INVALID_ARG\n", __func__);
    return APP_INVALID_ARG;
}

uint32_t _AppSocketBind(HAppSocket hSocket, const TAppNetAddr *ptLocalAddr, uint16_t wPort,
                        uint32_t bReuse)
{
    if (!hSocket)
        return APP_INVALID_ARG;
    if (ptLocalAddr->dwType != APP_NET_ADDR_IPV4)
        return Refused();
    if (bReuse == 1 && !app::SetOption(hSocket->nFd, SOL_SOCKET, SO_REUSEADDR, 1)) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: setsockopt  SO_REUSEADDR nError %d %s\n", __func__);
        return Refused();
    }
    const struct sockaddr_in tAddr = app::ToSockaddr(*ptLocalAddr, wPort);
    // What the receive reports, also when the system refuses the bind.
    hSocket->wPort = wPort;
    if (bind(hSocket->nFd, app::Generic(&tAddr), sizeof(tAddr)) != 0) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: bind nError %d %s\n", __func__);
        return Refused();
    }
    return APP_OK;
}

uint32_t _AppSocketUDPJoinMulticastGroup(HAppSocket hSocket, const TAppNetAddr *ptGroupAddr,
                                         const TAppNetAddr *ptIfAddr, uint32_t bLoop)
{
    if (!hSocket || hSocket->dwSockType != APP_SOCKET_UDP)
        return APP_INVALID_ARG;
    struct ip_mreq tRequest = {};
    tRequest.imr_multiaddr.s_addr = ptGroupAddr->dwIpv4;
    tRequest.imr_interface.s_addr = ptIfAddr ? ptIfAddr->dwIpv4 : AppConvertHtonl(INADDR_ANY);
    // Only sending depends on this one; the membership names its interface itself.
    if (ptIfAddr && setsockopt(hSocket->nFd, IPPROTO_IP, IP_MULTICAST_IF, &ptIfAddr->dwIpv4,
                               sizeof(ptIfAddr->dwIpv4)) != 0) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: setsockopt IP_MULTICAST_IF failed %x %d %s\n", __func__,
                      ptIfAddr->dwIpv4);
    }
    if (setsockopt(hSocket->nFd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &tRequest, sizeof(tRequest)) != 0 &&
        errno != EADDRINUSE) { // else a member already
        APP_LOG_ERRNO(errno, "[ERROR] %s: setsockopt IP_ADD_MEMBERSHIP failed %d %s\n", __func__);
        return Refused();
    }
    if (!app::SetOption(hSocket->nFd, IPPROTO_IP, IP_MULTICAST_LOOP, static_cast<int>(bLoop))) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: setsockopt IP_MULTICAST_LOOP failed %d %s\n", __func__);
        return Refused();
    }
    return APP_OK;
}

void _AppSocketGetStats(TAppSocketStats *ptStats)
{
    for (uint32_t TAppSocketStats::*pdwCounter :
         {&TAppSocketStats::dwOpen, &TAppSocketStats::dwSends, &TAppSocketStats::dwReceives,
          &TAppSocketStats::dwTimeouts, &TAppSocketStats::dwNoDescriptor,
          &TAppSocketStats::dwBindFailed, &TAppSocketStats::dwConnectFailed,
          &TAppSocketStats::dwSendFailed, &TAppSocketStats::dwReceiveFailed})
        ptStats->*pdwCounter = app::PeekCounter(app::g_tSocketStats.*pdwCounter);
}
