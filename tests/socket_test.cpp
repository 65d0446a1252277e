// SPDX-License-Identifier: MIT
#include "cross_linux/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>

#include <thread>

#include "appcore/appcore.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/sockets.h"

using fault::Fn;
using test::LogCapture;
using test::Text;

namespace
{

using test::kLong;
using test::kLoopback;
using test::kShort;
using test::TListener;
using test::TUdp;

const TAppNetAddr kLoopback2 = {APP_NET_ADDR_IPV4, {inet_addr("127.0.0.2")}};
const TAppNetAddr kAny = {APP_NET_ADDR_IPV4, {0}};
const TAppNetAddr kIpv6 = {APP_NET_ADDR_IPV6, {1}};

std::chrono::steady_clock::time_point Now()
{
    return std::chrono::steady_clock::now();
}

uint16_t ClosedPort()
{
    return TListener().wPort;
}

TEST(Socket, FrontsCheckFamilyAndKind)
{
    LogCapture log;
    const auto version = [](const char *szOp) {
        return Text("[ERROR] %s: Invalid Socket version %d\n", szOp, 1);
    };
    TUdp udp;
    char achBuf[8];
    uint32_t dwLen = sizeof(achBuf);
    EXPECT_EQ(AppSocketCreate(nullptr, APP_SOCKET_UDP, 1), nullptr);
    EXPECT_EQ(AppSocketUDPSend(udp.hSocket, "x", 1, 0, &kIpv6, 1), -1);
    EXPECT_CODE(APP_INVALID_ARG, AppSocketUDPJoinMulticastGroup(udp.hSocket, &kIpv6, nullptr, 0));
    EXPECT_EQ(AppSocketTCPConnect(nullptr, &kIpv6, 1, 0, nullptr), nullptr);
    log.ExpectLines({version("AppSocketCreate"), version("AppSocketUDPSend"),
                     version("AppSocketUDPJoinMulticastGroup"), version("AppSocketTCPConnect")});
    // The rest is silent.
    EXPECT_CODE(APP_FAILED, AppSocketBind(udp.hSocket, &kIpv6, 1, 0));
    EXPECT_CODE(APP_INVALID_ARG, AppSocketUDPJoinMulticastGroup(udp.hSocket, &kAny, &kIpv6, 0));
    EXPECT_EQ(AppSocketTCPSend(udp.hSocket, "x", 1, 1), -1);
    EXPECT_EQ(AppSocketTCPRecv(udp.hSocket, achBuf, &dwLen, 1), -1);
    log.ExpectNone();
}

TEST(Socket, DatagramsAndTheirAddresses)
{
    LogCapture log;
    TUdp sender, receiver(kAny);
    char achBuf[8] = {};
    uint32_t dwLen = sizeof(achBuf);
    TAppNetAddr local = kIpv6, remote = kIpv6;
    uint16_t wLocal = 1, wRemote = 1;
    ASSERT_EQ(sender.Send(receiver, "hello", kLong, kLoopback2), 5);
    ASSERT_EQ(AppSocketUDPRecv(receiver.hSocket, achBuf, &dwLen, kLong, &local, &wLocal, &remote,
                               &wRemote),
              5);
    EXPECT_EQ(dwLen, 5u);
    EXPECT_STREQ(achBuf, "hello");
    EXPECT_EQ(local.dwType, 0u);
    EXPECT_EQ(local.dwIpv4, kLoopback2.dwIpv4) << "one of several local addresses";
    EXPECT_EQ(wLocal, 0) << "the port given at the bind";
    EXPECT_EQ(remote.dwType, 0u);
    EXPECT_EQ(remote.dwIpv4, kLoopback.dwIpv4);
    EXPECT_EQ(wRemote, sender.wBound);

    sender.Send(receiver, "0123456789"); // longer than the buffer: cut
    dwLen = 4;
    EXPECT_EQ(
        AppSocketUDPRecv(receiver.hSocket, achBuf, &dwLen, 0, nullptr, nullptr, nullptr, nullptr),
        4);
    log.ExpectNone();
    const struct sockaddr_in tTo = app::ToSockaddr(kLoopback, receiver.wBound);
    ASSERT_EQ(sendto(sender.hSocket->nFd, "", 0, 0, app::Generic(&tTo), sizeof(tTo)), 0);
    EXPECT_EQ(AppSocketUDPRecv(receiver.hSocket, achBuf, &dwLen, kLong, nullptr, nullptr, nullptr,
                               nullptr),
              -1);
    EXPECT_EQ(sender.Send(receiver, ""), -1);
    log.ExpectLines(
        {Text("[ERROR] %s: recvmsg failed %d %s\n", "_AppSocketUDPRecv", 0, strerror(0)),
         Text("[ERROR] %s: sendto failed %d\n", "_AppSocketUDPSend", 0)});
    EXPECT_EQ(fcntl(sender.hSocket->nFd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(Socket, BindReportsAndStoresThePort)
{
    LogCapture log;
    TUdp first;
    HAppSocket hSecond = AppSocketCreate(nullptr, APP_SOCKET_UDP, 0);
    EXPECT_CODE(APP_FAILED, AppSocketBind(hSecond, &kLoopback, first.wBound, 0));
    EXPECT_EQ(hSecond->wPort, first.wBound);
    log.ExpectLines({Text("[ERROR] %s: bind nError %d %s\n", "_AppSocketBind", EADDRINUSE,
                          strerror(EADDRINUSE))});
    AppSocketDestroy(hSecond);
}

// -2 at the time-out and not before; a signal a millisecond, or a datagram that another thread
// takes, neither ends the wait nor prolongs it for ever.
TEST(Socket, WaitsAreKept)
{
    LogCapture log;
    TUdp receiver, sender;
    const long nDescriptors = fault::OpenDescriptors();
    struct sigaction tAction = {};
    tAction.sa_handler = [](int) {};
    sigaction(SIGALRM, &tAction, nullptr);
    const struct itimerval tEvery = {{0, 1000}, {0, 1000}}, tOff = {};
    setitimer(ITIMER_REAL, &tEvery, nullptr);
    char achBuf[8];
    const auto receive = [&](uint32_t dwTimeout) {
        uint32_t dwLen = sizeof(achBuf);
        return AppSocketUDPRecv(receiver.hSocket, achBuf, &dwLen, dwTimeout, nullptr, nullptr,
                                nullptr, nullptr);
    };
    auto start = Now();
    EXPECT_EQ(receive(kShort), -2);
    EXPECT_GE(test::ElapsedMs(start), kShort);
    setitimer(ITIMER_REAL, &tOff, nullptr);

    { // Readiness seen, but the datagram is gone by the time of the transfer.
        fault::Fail thief(Fn::recvmsg, 2, 0);
        char chTaken;
        thief.Action([&] { EXPECT_EQ(recv(receiver.hSocket->nFd, &chTaken, 1, 0), 1); });
        std::thread late([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(kShort / 3));
            sender.Send(receiver, "x");
        });
        start = Now();
        EXPECT_EQ(receive(kShort * 2), -2);
        EXPECT_GE(test::ElapsedMs(start), kShort * 2);
        EXPECT_EQ(thief.Hits(), 1u);
        late.join();
    }
    ASSERT_EQ(sender.Send(receiver, "x"), 1);
    { // Always ready, and yet it would block.
        fault::Fail starved(Fn::recvmsg, 1, EAGAIN, 1u << 30);
        start = Now();
        EXPECT_EQ(receive(kShort), -2);
        EXPECT_GE(test::ElapsedMs(start), kShort);
        EXPECT_LE(starved.Calls(), kShort + 3)
            << "a pause of a millisecond or more from the second round on";
    }
    EXPECT_EQ(receive(kShort), 1);
    for (const uint32_t dwTimeout : {0x80000000u, 0xFFFFFFFFu}) { // no wait for ever, none of 0
        std::thread late([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            sender.Send(receiver, "x");
        });
        EXPECT_EQ(receive(dwTimeout), 1);
        late.join();
    }
    std::thread late([&] { sender.Send(receiver, "x"); });
    EXPECT_EQ(receive(0), 1);
    late.join();
    log.ExpectNone();
    EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
}

TEST(Socket, StreamsAndTheirEnds)
{
    LogCapture log;
    TListener listener;
    HAppSocket hSocket = listener.Connect();
    ASSERT_NE(hSocket, nullptr);
    int nNoDelay = 0, nKeepAlive = 0;
    socklen_t nLen = sizeof(int);
    getsockopt(hSocket->nFd, IPPROTO_TCP, TCP_NODELAY, &nNoDelay, &nLen);
    getsockopt(hSocket->nFd, SOL_SOCKET, SO_KEEPALIVE, &nKeepAlive, &nLen);
    EXPECT_TRUE(nNoDelay && nKeepAlive);
    EXPECT_EQ(fcntl(hSocket->nFd, F_GETFL) & O_NONBLOCK, 0);

    char achBuf[8] = {};
    uint32_t dwLen = sizeof(achBuf);
    ASSERT_EQ(AppSocketTCPSend(hSocket, "abc", 3, kLong), 3);
    ASSERT_EQ(recv(listener.nPeer, achBuf, 3, MSG_WAITALL), 3);
    EXPECT_EQ(AppSocketTCPRecv(hSocket, achBuf, &dwLen, kShort), -2);
    ASSERT_EQ(send(listener.nPeer, "wxyz", 4, 0), 4);
    EXPECT_EQ(AppSocketTCPRecv(hSocket, achBuf, &dwLen, kLong), 4);
    EXPECT_EQ(dwLen, 4u);

    // A peer that never reads: each send ends in time, whatever it was given.
    const std::string large(8 << 20, 'x');
    int32_t nSent = 1;
    for (int i = 0; i < 64 && nSent > 0; ++i)
        nSent =
            AppSocketTCPSend(hSocket, large.data(), static_cast<uint32_t>(large.size()), kShort);
    EXPECT_EQ(nSent, -2);
    log.ExpectNone();
    listener.ClosePeer();
    while (AppSocketTCPRecv(hSocket, achBuf, &dwLen, kLong) > 0) {
    }
    EXPECT_EQ(log.Lines().size(), 1u);
    EXPECT_NE(log.Lines()[0].find("_AppSocketTCPRecv: recvmsg failed"), std::string::npos);
    AppSocketDestroy(hSocket);
}

// The default action of SIGPIPE would kill the process.
TEST(Socket, ASendToAGonePeerIsAFailureNotASignal)
{
    const auto Send = [] {
        signal(SIGPIPE, SIG_DFL);
        TListener listener;
        HAppSocket hSocket = listener.Connect();
        listener.ClosePeer();
        int32_t nSent = 0;
        for (int i = 0; i < 1000 && nSent >= 0; ++i)
            nSent = AppSocketTCPSend(hSocket, "x", 1, kShort);
        _exit(nSent == -1 ? 0 : 1);
    };
    EXPECT_EXIT(Send(), testing::ExitedWithCode(0), "");
}

TEST(Socket, ConnectNamesTheCause)
{
    LogCapture log;
    EXPECT_EQ(AppSocketTCPConnect(nullptr, &kLoopback, ClosedPort(), kLong, nullptr), nullptr);
    log.ExpectLines({Text("[ERROR] %s: connect failed %d %s\n", "_AppSocketTCPConnect",
                          ECONNREFUSED, strerror(ECONNREFUSED))});
    TListener listener;
    TAppNetAddr peer = kIpv6;
    HAppSocket hSocket = listener.Connect(&peer);
    ASSERT_NE(hSocket, nullptr);
    if (peer.dwType == 0) { // in progress at first; at once leaves it unwritten
        EXPECT_EQ(peer.dwIpv4, kLoopback.dwIpv4);
    }
    AppSocketDestroy(hSocket);
    fault::Fail atOnce(Fn::connect, 1, ENETUNREACH);
    EXPECT_EQ(listener.Connect(), nullptr);
    log.ExpectLines({Text("[ERROR] %s: connect failed %d %s\n", "_AppSocketTCPConnect", ENETUNREACH,
                          strerror(ENETUNREACH))});
}

// A listener that takes no more connections is as silent as a host that is not there.
TEST(Socket, ConnectEndsInTime)
{
    TListener listener;
    ASSERT_EQ(listen(listener.nFd, 0), 0);
    HAppSocket hSocket = AppSocketTCPConnect(nullptr, &kLoopback, listener.wPort, kLong, nullptr);
    ASSERT_NE(hSocket, nullptr);
    LogCapture log;
    fault::Fail signal(Fn::epoll_wait, 1, EINTR);
    const auto start = Now();
    EXPECT_EQ(AppSocketTCPConnect(nullptr, &kLoopback, listener.wPort, kShort, nullptr), nullptr);
    EXPECT_GE(test::ElapsedMs(start), kShort);
    log.ExpectLines({Text("[ERROR] %s: connect timeout %d %s\n", "_AppSocketTCPConnect", ETIMEDOUT,
                          strerror(ETIMEDOUT))});
    AppSocketDestroy(hSocket);
}

// The system may choose the very port that nobody listens on: TCP then connects the socket to itself.
TEST(Socket, ConnectRefusesToMeetItself)
{
    LogCapture log;
    const struct sockaddr_in tAddr = app::ToSockaddr(kLoopback, ClosedPort());
    const int nNextFd = dup(STDIN_FILENO);
    close(nNextFd);
    fault::Fail choice(Fn::connect, 1, 0);
    choice.Action([&] { EXPECT_EQ(bind(nNextFd, app::Generic(&tAddr), sizeof(tAddr)), 0); });
    TAppNetAddr peer = kIpv6;
    EXPECT_EQ(AppSocketTCPConnect(nullptr, &kLoopback, tAddr.sin_port, kLong, &peer), nullptr);
    EXPECT_EQ(peer.dwType, kIpv6.dwType);
    log.ExpectLines({Text("[ERROR] %s: connect failed %d %s\n", "_AppSocketTCPConnect",
                          ECONNREFUSED, strerror(ECONNREFUSED))});
    HAppSocket hService = AppSocketCreate(nullptr, APP_SOCKET_TCP, 0);
    EXPECT_CODE(APP_OK, AppSocketBind(hService, &kLoopback, tAddr.sin_port, 0))
        << "the port is free again";
    AppSocketDestroy(hService);
}

// The group is that of one interface, for joining and for sending.
TEST(Socket, MulticastGroups)
{
    LogCapture log;
    const TAppNetAddr group = {APP_NET_ADDR_IPV4, {inet_addr("239.1.2.3")}};
    TUdp sender, receiver(kAny);
    EXPECT_CODE(APP_OK, AppSocketUDPJoinMulticastGroup(receiver.hSocket, &group, &kLoopback, 0));
    EXPECT_CODE(APP_OK, AppSocketUDPJoinMulticastGroup(receiver.hSocket, &group, &kLoopback, 0))
        << "a member already";
    EXPECT_CODE(APP_OK, AppSocketUDPJoinMulticastGroup(sender.hSocket, &group, &kLoopback, 1));
    const int nReceiver = receiver.hSocket->nFd;
    if (setsockopt(nReceiver, IPPROTO_IP, IP_MULTICAST_IF, &kLoopback.dwIpv4,
                   sizeof(kLoopback.dwIpv4)) != 0)
        GTEST_SKIP() << "not run: this emulator has no IP_MULTICAST_IF";
    log.ExpectNone();
    struct in_addr tInterface = {};
    socklen_t nAddrLen = sizeof(tInterface);
    EXPECT_EQ(getsockopt(sender.hSocket->nFd, IPPROTO_IP, IP_MULTICAST_IF, &tInterface, &nAddrLen),
              0);
    EXPECT_EQ(tInterface.s_addr, kLoopback.dwIpv4);
    int nLoop = 1;
    socklen_t nLen = sizeof(nLoop);
    EXPECT_EQ(getsockopt(nReceiver, IPPROTO_IP, IP_MULTICAST_LOOP, &nLoop, &nLen), 0);
    EXPECT_EQ(nLoop, 0);
    ASSERT_EQ(sender.Send(receiver, "x", kLong, group), 1);
    char chTaken;
    uint32_t dwLen = 1;
    TAppNetAddr local = kAny;
    EXPECT_EQ(AppSocketUDPRecv(receiver.hSocket, &chTaken, &dwLen, kLong, &local, nullptr, nullptr,
                               nullptr),
              1);
    EXPECT_EQ(local.dwIpv4, group.dwIpv4);
}

} // namespace
