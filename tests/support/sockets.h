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

// Bound to a port of the system's choice.
struct TBound {
    TBound(uint32_t dwType, const TAppNetAddr &addr) : hSocket(AppSocketCreate(nullptr, dwType, 0))
    {
        socklen_t nLen = sizeof(tAddr);
        EXPECT_CODE(APP_OK, AppSocketBind(hSocket, &addr, 0, 1));
        EXPECT_EQ(getsockname(hSocket->nFd, app::Generic(&tAddr), &nLen), 0);
        wPort = tAddr.sin_port;
    }
    ~TBound() { AppSocketDestroy(hSocket); }
    HAppSocket hSocket;
    struct sockaddr_in tAddr = {};
    uint16_t wPort;
};

struct TUdp : TBound {
    explicit TUdp(const TAppNetAddr &addr = kLoopback) : TBound(APP_SOCKET_UDP, addr) {}
};

struct TListener : TBound {
    TListener() : TBound(APP_SOCKET_TCP, kLoopback) { EXPECT_EQ(listen(hSocket->nFd, 64), 0); }
    ~TListener() { close(nPeer); }
    // Another socket; this one's end of the connection is kept, until the next.
    HAppSocket Connect(TAppNetAddr *ptPeer = nullptr)
    {
        HAppSocket hPeer = AppSocketTCPConnect(nullptr, &kLoopback, wPort, 0, ptPeer);
        close(nPeer);
        nPeer = hPeer ? accept4(hSocket->nFd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        return hPeer;
    }
    int nPeer = -1;
};

} // namespace test

#endif
