// SPDX-License-Identifier: MIT
#include "cross_linux/socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/epoll.h>

#include "support/fault.h"
#include "support/log_capture.h"
#include "support/sockets.h"

using fault::Fn;
using test::kLong;
using test::kLoopback;
using test::kShort;

static int s_nAskedMs; // by the library; epoll_wait() here stands in front of the system's

int epoll_wait(int nEpoll, struct epoll_event *ptEvents, int nMost, int nTimeout)
{
    return epoll_pwait(nEpoll, ptEvents, nMost, s_nAskedMs = nTimeout, nullptr);
}

namespace
{

const TAppNetAddr kIpv6 = {APP_NET_ADDR_IPV6, {kLoopback.dwIpv4}}; // would do, but for its type

// What has been counted since the last call; `open` is what is open now.
std::string Counted()
{
    static TAppSocketStats s_tLast;
    TAppSocketStats tNow = {};
    tNow.dwSize = sizeof(tNow);
    EXPECT_CODE(APP_OK, AppSocketGetStats(&tNow));
    const TAppSocketStats tLast = std::exchange(s_tLast, tNow);
    return test::Text(
        "open %u sent %u received %u late %u failed %u %u %u %u %u", tNow.dwOpen,
        tNow.dwSends - tLast.dwSends, tNow.dwReceives - tLast.dwReceives,
        tNow.dwTimeouts - tLast.dwTimeouts, tNow.dwNoDescriptor - tLast.dwNoDescriptor,
        tNow.dwBindFailed - tLast.dwBindFailed, tNow.dwConnectFailed - tLast.dwConnectFailed,
        tNow.dwSendFailed - tLast.dwSendFailed, tNow.dwReceiveFailed - tLast.dwReceiveFailed);
}

int Option(HAppSocket hSocket, int nLevel, int nOption)
{
    int nValue = -1;
    socklen_t nLen = sizeof(nValue);
    EXPECT_EQ(getsockopt(hSocket->nFd, nLevel, nOption, &nValue, &nLen), 0);
    return nValue;
}

constexpr uint32_t kUdpTo = 77; // UDP whose receiver asks where a datagram was sent to

// A socket of the library's; at the other end is one of the system's, or the very same.
struct Transfer : testing::TestWithParam<uint32_t> {
    Transfer() { connect(udp.hSocket->nFd, app::Generic(&udp.tAddr), sizeof(udp.tAddr)); }
    ~Transfer() override { AppSocketDestroy(hTcp); }
    int32_t Send(const std::string &text, uint32_t dwTimeout) const
    {
        return bUdp ? AppSocketUDPSend(udp.hSocket, text.data(), text.size(), dwTimeout, &kLoopback,
                                       udp.wPort)
                    : AppSocketTCPSend(hTcp, text.data(), text.size(), dwTimeout);
    }
    int32_t Receive(uint32_t dwTimeout)
    {
        dwLen = sizeof(achBuf);
        TAppNetAddr local;
        return bUdp ? AppSocketUDPRecv(udp.hSocket, achBuf, &dwLen, dwTimeout,
                                       GetParam() == kUdpTo ? &local : nullptr, nullptr, nullptr,
                                       nullptr)
                    : AppSocketTCPRecv(hTcp, achBuf, &dwLen, dwTimeout);
    }
    const bool bUdp = GetParam() != APP_SOCKET_TCP;
    test::TUdp udp;
    test::TListener listener;
    HAppSocket hTcp = listener.Connect(), hSocket = bUdp ? udp.hSocket : hTcp;
    int nPeer = bUdp ? udp.hSocket->nFd : listener.nPeer;
    char achBuf[8] = {};
    uint32_t dwLen = 0;
    test::LogCapture log;
};
INSTANTIATE_TEST_SUITE_P(Socket, Transfer, testing::Values(APP_SOCKET_UDP, kUdpTo, APP_SOCKET_TCP));

TEST_P(Transfer, CarriesBytesInTimeAndTellsTheEnd)
{
    std::swap(udp.hSocket, hTcp); // the wrong kind, refused silently
    EXPECT_EQ(Send("x", 1), -1);
    EXPECT_EQ(Receive(1), -1);
    std::swap(udp.hSocket, hTcp);
    log.OnLine([](const std::string &) { errno = EXDEV; }); // as a console may leave it
    {
        fault::Fail refusals(Fn::setsockopt, 1, EDOM, 2);
        for (const int32_t nResult : {-1, -1, -2, -2})
            EXPECT_TRUE(Receive(1) == (bUdp ? nResult : -2) &&
                        (!bUdp || nResult == -2 || errno == EDOM));
        EXPECT_EQ(refusals.Calls(), bUdp ? 3u : 0u) << "until it has succeeded once";
        EXPECT_EQ(log.Lines().size(), refusals.Hits());
    }
    Counted();
    {
        fault::Fail signal({Fn::sendto, Fn::send}, 1, EINTR);
        EXPECT_EQ(Send("hello", 0), 5);
    }
    EXPECT_EQ(std::string(achBuf, recv(nPeer, achBuf, 8, 0)), "hello");
    send(nPeer, "ab", 2, 0);
    EXPECT_EQ(Receive(0), 2);
    EXPECT_EQ(std::string(achBuf, dwLen), "ab");
    EXPECT_EQ(Receive(1), -2);
    EXPECT_EQ(Counted(), "open 3 sent 1 received 1 late 1 failed 0 0 0 0 0");
    { // Always ready, but somebody else takes what came.
        fault::Fail waits(Fn::epoll_wait, 1, 0, 1u << 30);
        fault::Fail thief({Fn::recvmsg, Fn::recvfrom, Fn::recv}, 2, 0, 1u << 30);
        waits.Action([&] { send(nPeer, "x", 1, 0); });
        thief.Action([&] { recv(hSocket->nFd, achBuf, 1, 0); });
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Receive(kShort), -2);
        EXPECT_GE(test::ElapsedMs(start), kShort);
        EXPECT_LE(thief.Calls(), kShort + 3) << "a pause from the second round on";
        thief.Action([] {});
        EXPECT_EQ(Receive(UINT32_MAX), 1);
        EXPECT_GT(s_nAskedMs, 2000000000) << "no wait for ever";
    }
    EXPECT_EQ(fcntl(hSocket->nFd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    while (!bUdp && Send(std::string(8 << 20, 'x'), kShort) > 0) { // the peer does not read
    }
    Counted();
    EXPECT_EQ(Send("", kLong), -1);
    EXPECT_EQ(Counted(), "open 3 sent 0 received 0 late 0 failed 0 0 0 1 0");
    for (const Fn fn : {Fn::recvmsg, Fn::recvfrom, Fn::recv, Fn::epoll_create1, Fn::epoll_ctl,
                        Fn::epoll_wait, Fn::sendto, Fn::send}) {
        fault::Fail failure(fn, 1, EDOM);
        const bool bSends = fn == (bUdp ? Fn::sendto : Fn::send);
        const int32_t nResult = bSends ? Send("x", 1) : Receive(1);
        EXPECT_TRUE(failure.Hits() == 0 || (nResult == -1 && errno == EDOM)) << fault::Name(fn);
    }
    log.Clear();
    bUdp ? send(nPeer, "", 0, 0) : shutdown(nPeer, SHUT_RDWR);
    Counted();
    EXPECT_EQ(Receive(kLong), -1);
    EXPECT_EQ(Counted(), "open 3 sent 0 received 0 late 0 failed 0 0 0 0 1");
    EXPECT_EQ(errno, 0) << "there was no error";
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_NE(log.Lines()[0].find(" failed 0 "), std::string::npos);
    while (!bUdp && Send("x", kShort) >= 0) { // no SIGPIPE
    }
}

TEST(Socket, DatagramsAndGroups)
{
    test::LogCapture log;
    test::TUdp sender, receiver(TAppNetAddr{}); // bound to any address
    test::TListener tcp;
    const auto joins = AppSocketUDPJoinMulticastGroup;
    EXPECT_EQ(AppSocketCreate(nullptr, 2, 0), nullptr);
    Counted();
    EXPECT_CODE(APP_FAILED, AppSocketBind(sender.hSocket, &kIpv6, 1, 0));
    EXPECT_CODE(APP_INVALID_ARG, joins(sender.hSocket, &kLoopback, &kIpv6, 0));
    EXPECT_CODE(APP_INVALID_ARG, joins(tcp.hSocket, &kLoopback, nullptr, 0));
    EXPECT_EQ(AppSocketCreate(nullptr, APP_SOCKET_UDP, 1), nullptr);
    EXPECT_EQ(AppSocketUDPSend(sender.hSocket, "x", 1, 0, &kIpv6, sender.wPort), -1);
    EXPECT_EQ(AppSocketTCPConnect(nullptr, &kIpv6, tcp.wPort, 0, nullptr), nullptr);
    EXPECT_CODE(APP_INVALID_ARG, joins(sender.hSocket, &kIpv6, nullptr, 0));
    EXPECT_CODE(APP_FAILED, joins(sender.hSocket, &kLoopback, nullptr, 0));
    EXPECT_CODE(APP_FAILED, AppSocketBind(receiver.hSocket, &kLoopback, 1, 0)); // bound already
    EXPECT_EQ(Counted(), "open 3 sent 0 received 0 late 0 failed 0 3 0 0 0");

    const TAppNetAddr group = {APP_NET_ADDR_IPV4, {inet_addr("239.1.2.3")}};
    const auto arrives = [&](const TAppNetAddr &addr) {
        uint32_t dwLen = 1, dwData;
        TAppNetAddr local = {}, remote = {};
        uint16_t wLocal = 0, wRemote = 0;
        EXPECT_EQ(AppSocketUDPSend(sender.hSocket, "x", 1, kLong, &addr, receiver.wPort), 1);
        EXPECT_EQ(1, AppSocketUDPRecv(receiver.hSocket, &dwData, &dwLen, kLong, &local, &wLocal,
                                      &remote, &wRemote));
        EXPECT_EQ(local.dwIpv4, addr.dwIpv4) << "one of several";
        EXPECT_EQ(wLocal, 1) << "the port given at the last bind";
        EXPECT_EQ(remote.dwIpv4, kLoopback.dwIpv4);
        EXPECT_EQ(wRemote, sender.wPort);
    };
    arrives({APP_NET_ADDR_IPV4, {inet_addr("127.0.0.2")}});
    EXPECT_EQ(Option(sender.hSocket, SOL_SOCKET, SO_REUSEADDR), 1);
    // The group is that of one interface, for joining and for sending.
    for (HAppSocket hSocket : {sender.hSocket, receiver.hSocket, receiver.hSocket})
        EXPECT_CODE(APP_OK, joins(hSocket, &group, &kLoopback, hSocket == sender.hSocket));
    if (log.Lines().size() == 9)
        GTEST_SKIP() << "not run: this emulator has no IP_MULTICAST_IF";
    EXPECT_EQ(log.Lines().size(), 6u) << "the first four are refused silently";
    EXPECT_EQ(Option(receiver.hSocket, IPPROTO_IP, IP_MULTICAST_LOOP), 0);
    arrives(group);
}

TEST(Socket, ConnectNamesTheCause)
{
    test::LogCapture log;
    test::TListener silent, listener;
    const uint16_t wClosed = test::TListener().wPort;
    const auto refused = [&](uint16_t wPort, uint32_t dwTimeout, const char *szWhat, int nError) {
        TAppNetAddr peer = kIpv6;
        EXPECT_EQ(AppSocketTCPConnect(nullptr, &kLoopback, wPort, dwTimeout, &peer), nullptr);
        EXPECT_EQ(peer.dwType, kIpv6.dwType);
        log.ExpectLines({test::Text("[ERROR] _AppSocketTCPConnect: %s %d %s\n", szWhat, nError,
                                    strerror(nError))});
    };
    refused(wClosed, kLong, "connect failed", ECONNREFUSED);
    ASSERT_EQ(listen(silent.hSocket->nFd, 0), 0); // as a host that is not there, once it is full
    AppSocketDestroy(AppSocketTCPConnect(nullptr, &kLoopback, silent.wPort, kLong, nullptr));
    Counted();
    for (const unsigned nSignals : {0u, 1u << 30}) { // neither end a wait nor prolong it
        fault::Fail signals(Fn::epoll_wait, 1, EINTR, nSignals);
        const auto start = std::chrono::steady_clock::now();
        refused(silent.wPort, kShort, "connect timeout", ETIMEDOUT);
        EXPECT_GE(test::ElapsedMs(start), kShort);
    }
    EXPECT_EQ(Counted(), "open 2 sent 0 received 0 late 2 failed 0 0 0 0 0");
    const int nNextFd = dup(STDIN_FILENO);
    close(nNextFd);
    {
        fault::Fail end(Fn::epoll_wait, 1, 0);
        end.Action([&] { shutdown(nNextFd, SHUT_RDWR); });
        refused(silent.wPort, 0, "connect failed", ECONNRESET);
        EXPECT_TRUE(s_nAskedMs > 29000 && s_nAskedMs <= 30000) << s_nAskedMs;
    }
    EXPECT_EQ(Counted(), "open 2 sent 0 received 0 late 0 failed 0 0 1 0 0");
    // The system may choose the very port that nobody listens on: TCP connects the socket to itself.
    for (const bool bAtOnce : {false, true}) {
        fault::Fail choice(Fn::connect, 1, 0, 2);
        choice.Action([&] {
            const bool bItself = choice.Hits() == 1;
            const auto tAddr = app::ToSockaddr(kLoopback, bItself ? wClosed : listener.wPort);
            EXPECT_EQ(bItself ? bind(nNextFd, app::Generic(&tAddr), sizeof(tAddr)) : 0, 0);
            if (bAtOnce) // the library's own call finds it done
                connect(nNextFd, app::Generic(&tAddr), sizeof(tAddr));
        });
        refused(wClosed, kLong, "connect failed", ECONNREFUSED); // and is reset: the port is free
        TAppNetAddr peer = kIpv6;
        HAppSocket hSocket = listener.Connect(&peer);
        ASSERT_NE(hSocket, nullptr);
        EXPECT_EQ(peer.dwType, bAtOnce ? APP_NET_ADDR_IPV6 : APP_NET_ADDR_IPV4);
        EXPECT_EQ(Option(hSocket, IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_EQ(Option(hSocket, SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_EQ(fcntl(hSocket->nFd, F_GETFL) & O_NONBLOCK, 0);
        AppSocketDestroy(hSocket);
    }
}

} // namespace
