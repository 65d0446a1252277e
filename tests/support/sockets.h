// SPDX-License-Identifier: MIT
//
// Sockets on the loopback interface.
#ifndef APPCORE_TESTS_SUPPORT_SOCKETS_H
#define APPCORE_TESTS_SUPPORT_SOCKETS_H

#include <arpa/inet.h>

#include "cross_linux/socket.h"
#include "support/expect.h"

namespace test
{

constexpr uint32_t kShort = 60; // a time-out that is meant to expire
constexpr uint32_t kLong = 60000;
const TAppNetAddr kLoopback = {APP_NET_ADDR_IPV4, {inet_addr("127.0.0.1")}};

inline uint16_t PortOf(int nFd)
{
    struct sockaddr_in tAddr = {};
    socklen_t nLen = sizeof(tAddr);
    EXPECT_EQ(getsockname(nFd, app::Generic(&tAddr), &nLen), 0);
    return tAddr.sin_port;
}

// A bound UDP socket.
struct TUdp {
    explicit TUdp(const TAppNetAddr &addr = kLoopback, uint16_t wPort = 0)
        : hSocket(AppSocketCreate(nullptr, APP_SOCKET_UDP, 0))
    {
        EXPECT_CODE(APP_OK, AppSocketBind(hSocket, &addr, wPort, 1));
        wBound = PortOf(hSocket->nFd);
    }
    ~TUdp() { AppSocketDestroy(hSocket); }
    int32_t Send(const TUdp &to, const char *szText, uint32_t dwTimeout = 0,
                 const TAppNetAddr &addr = kLoopback) const
    {
        return AppSocketUDPSend(hSocket, szText, AppStrlen(szText), dwTimeout, &addr, to.wBound);
    }

    int32_t Receive(uint32_t dwTimeout)
    {
        dwLen = sizeof(achBuf);
        return AppSocketUDPRecv(hSocket, achBuf, &dwLen, dwTimeout, &local, &wLocal, &remote,
                                &wRemote);
    }

    HAppSocket hSocket;
    uint16_t wBound, wLocal = 1, wRemote = 1;
    TAppNetAddr local = {}, remote = {}; // of what was received last
    char achBuf[8] = {};
    uint32_t dwLen = 0;
};

// A listening TCP socket of the system's own, and the connections it takes.
struct TListener {
    TListener() : nFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const struct sockaddr_in tAddr = app::ToSockaddr(kLoopback, 0);
        EXPECT_EQ(bind(nFd, app::Generic(&tAddr), sizeof(tAddr)), 0);
        EXPECT_EQ(listen(nFd, 64), 0);
        wPort = PortOf(nFd);
    }
    ~TListener()
    {
        close(nFd);
        if (nPeer >= 0)
            close(nPeer);
    }
    HAppSocket Connect(TAppNetAddr *ptPeer = nullptr)
    {
        HAppSocket hSocket = AppSocketTCPConnect(nullptr, &kLoopback, wPort, kLong, ptPeer);
        if (hSocket)
            nPeer = accept4(nFd, nullptr, nullptr, SOCK_CLOEXEC);
        return hSocket;
    }
    int nFd;
    int nPeer = -1;
    uint16_t wPort;
};

} // namespace test

#endif
