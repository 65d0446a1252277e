// SPDX-License-Identifier: MIT
#include "cross_linux/socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/time.h>

#include "appcore/appcore.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/sockets.h"

using fault::Fn;
using std::chrono::steady_clock;
using test::kLong;
using test::kLoopback;
using test::kShort;
using test::LogCapture;
using test::Text;
using test::TListener;
using test::TUdp;

static int s_nAskedMs;
static bool s_bNoWait = false;

// In front of the system's: a time-out may be seen without waiting for it.
int epoll_wait(int nEpoll, struct epoll_event *ptEvents, int nMost, int nTimeout)
{
    s_nAskedMs = nTimeout;
    errno = EPERM;
    return s_bNoWait ? -1 : epoll_pwait(nEpoll, ptEvents, nMost, nTimeout, nullptr);
}

namespace
{

const TAppNetAddr kLoopback2 = {APP_NET_ADDR_IPV4, {inet_addr("127.0.0.2")}};
const TAppNetAddr kAny = {APP_NET_ADDR_IPV4, {0}};
const TAppNetAddr kIpv6 = {APP_NET_ADDR_IPV6, {kLoopback.dwIpv4}}; // would do, but for its type

bool Same(const TAppNetAddr &first, const TAppNetAddr &second)
{
    return first.dwType == second.dwType && first.dwIpv4 == second.dwIpv4;
}

int Option(HAppSocket hSocket, int nLevel, int nOption)
{
    int nValue = -1;
    socklen_t nLen = sizeof(nValue);
    EXPECT_EQ(getsockopt(hSocket->nFd, nLevel, nOption, &nValue, &nLen), 0);
    return nValue;
}

// A socket of the library's; at the other end is one of the system's, or the very same.
struct TLine {
    explicit TLine(uint32_t dwType) : bUdp(dwType == APP_SOCKET_UDP)
    {
        const struct sockaddr_in tAddr = app::ToSockaddr(kLoopback, udp.wBound);
        EXPECT_EQ(connect(udp.hSocket->nFd, app::Generic(&tAddr), sizeof(tAddr)), 0);
    }
    ~TLine() { AppSocketDestroy(hTcp); }
    void PeerSends(const std::string &text) const
    {
        EXPECT_EQ(send(nPeer, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    int32_t Send(const std::string &text, uint32_t dwTimeout) const
    {
        return bUdp ? udp.Send(udp, text.c_str(), dwTimeout)
                    : AppSocketTCPSend(hTcp, text.data(), AppStrlen(text.c_str()), dwTimeout);
    }
    int32_t Receive(uint32_t dwTimeout)
    {
        udp.dwLen = sizeof(udp.achBuf);
        return bUdp ? udp.Receive(dwTimeout)
                    : AppSocketTCPRecv(hTcp, udp.achBuf, &udp.dwLen, dwTimeout);
    }
    const bool bUdp;
    TUdp udp;
    TListener listener;
    HAppSocket hTcp = listener.Connect(), hSocket = bUdp ? udp.hSocket : hTcp;
    int nPeer = bUdp ? udp.hSocket->nFd : listener.nPeer;
};

class Transfer : public testing::TestWithParam<uint32_t>
{
protected:
    TLine line{GetParam()};
    LogCapture log;
};
INSTANTIATE_TEST_SUITE_P(Socket, Transfer, testing::Values(APP_SOCKET_UDP, APP_SOCKET_TCP));

TEST_P(Transfer, CarriesBytesAndTellsTheEnd)
{
    char achTaken[8] = {};
    {
        fault::Fail signal({Fn::sendto, Fn::send}, 1, EINTR);
        EXPECT_EQ(line.Send("hello", 0), 5);
    }
    EXPECT_EQ(recv(line.nPeer, achTaken, 8, 0), 5);
    EXPECT_STREQ(achTaken, "hello");
    line.PeerSends("abcdefghij");
    EXPECT_EQ(line.Receive(kLong), 8);
    EXPECT_EQ(std::string(line.udp.achBuf, 8), "abcdefgh");
    EXPECT_EQ(line.Receive(1), line.bUdp ? -2 : 2); // a datagram is cut
    line.PeerSends("ab");
    EXPECT_EQ(line.Receive(0), 2);
    EXPECT_EQ(line.udp.dwLen, 2u);
    EXPECT_EQ(fcntl(line.hSocket->nFd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(line.Send("", kLong), -1);
    line.PeerSends("");
    if (!line.bUdp)
        close(std::exchange(line.listener.nPeer, -1));
    EXPECT_EQ(line.Receive(kLong), -1);
    const char *szKind = line.bUdp ? "UDP" : "TCP"; // both tell that there was no error
    log.ExpectLines({Text("[ERROR] _AppSocket%sSend: sendto failed 0\n", szKind),
                     Text("[ERROR] _AppSocket%sRecv: recvmsg failed 0 %s\n", szKind, strerror(0))});
    while (!line.bUdp && line.Send("x", kShort) >= 0) { // no SIGPIPE
    }
}

// -2 at the time-out and not before; a signal a millisecond, or somebody else who takes what came,
// neither ends the wait nor prolongs it for ever.
TEST_P(Transfer, WaitsAreKept)
{
    const long nDescriptors = fault::OpenDescriptors();
    struct sigaction tAction = {};
    tAction.sa_handler = [](int) {};
    sigaction(SIGALRM, &tAction, nullptr);
    const struct itimerval tEvery = {{0, 1000}, {0, 1000}}, tOff = {};
    const auto expires = [&](uint32_t dwTimeout, const auto &operation) {
        const auto start = steady_clock::now();
        EXPECT_EQ(operation(dwTimeout), -2);
        EXPECT_GE(test::ElapsedMs(start), dwTimeout);
    };
    const auto receive = [&](uint32_t dwTimeout) { return line.Receive(dwTimeout); };
    setitimer(ITIMER_REAL, &tEvery, nullptr);
    expires(kShort, receive);
    setitimer(ITIMER_REAL, &tOff, nullptr);
    const auto arrive = [&] { line.PeerSends("x"); };
    { // Readiness seen, but nothing is there any more by the time of the transfer.
        fault::Fail waits(Fn::epoll_wait, 1, 0);
        fault::Fail thief(line.bUdp ? Fn::recvmsg : Fn::recv, 2, 0);
        char chTaken;
        waits.Action(arrive);
        thief.Action([&] { EXPECT_EQ(recv(line.hSocket->nFd, &chTaken, 1, 0), 1); });
        expires(kShort, receive);
        EXPECT_EQ(thief.Hits(), 1u);
    }
    line.PeerSends("x");
    for (const Fn fn : {Fn::recvmsg, Fn::recv, Fn::sendto, Fn::send}) {
        fault::Fail starved(fn, 1, EAGAIN, 1u << 30); // always ready, and yet it would block
        if (line.bUdp == (fn == Fn::recvmsg || fn == Fn::sendto))
            expires(kShort, [&](uint32_t dwTimeout) {
                return fn == Fn::sendto || fn == Fn::send ? line.Send("x", dwTimeout)
                                                          : line.Receive(dwTimeout);
            });
        EXPECT_LE(starved.Calls(), kShort + 3) << "a pause from the second round on";
    }
    EXPECT_EQ(line.Receive(kShort), 1);
    for (const uint32_t dwTimeout : {0x80000000u, 0xFFFFFFFFu}) { // no wait for ever
        fault::Fail waits(Fn::epoll_wait, 1, 0);
        waits.Action(arrive);
        EXPECT_EQ(line.Receive(dwTimeout), 1);
        EXPECT_GT(s_nAskedMs, 2000000000);
    }
    // A peer that never reads: each send ends in time, whatever it was given.
    const std::string large(line.bUdp ? 1 : 8 << 20, 'x');
    for (int i = 0; i < 64 && line.Send(large, kShort) != -2; ++i)
        EXPECT_TRUE(line.bUdp || i < 63);
    log.ExpectNone();
    EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
}

TEST(Socket, RefusesWrongKindsAndFamilies)
{
    LogCapture log;
    TLine line(APP_SOCKET_TCP);
    EXPECT_EQ(AppSocketCreate(nullptr, APP_SOCKET_UDP, 1), nullptr);
    EXPECT_EQ(AppSocketUDPSend(line.udp.hSocket, "x", 1, 0, &kIpv6, line.udp.wBound), -1);
    EXPECT_CODE(APP_INVALID_ARG,
                AppSocketUDPJoinMulticastGroup(line.udp.hSocket, &kIpv6, nullptr, 0));
    EXPECT_EQ(AppSocketTCPConnect(nullptr, &kIpv6, line.listener.wPort, 0, nullptr), nullptr);
    EXPECT_EQ(log.Lines().size(), 4u);
    log.Clear();
    EXPECT_EQ(AppSocketCreate(nullptr, 2, 0), nullptr); // the rest is silent
    EXPECT_CODE(APP_FAILED, AppSocketBind(line.udp.hSocket, &kIpv6, 1, 0));
    EXPECT_CODE(APP_INVALID_ARG,
                AppSocketUDPJoinMulticastGroup(line.udp.hSocket, &kAny, &kIpv6, 0));
    EXPECT_CODE(APP_INVALID_ARG, AppSocketUDPJoinMulticastGroup(line.hTcp, &kAny, nullptr, 0));
    EXPECT_EQ(AppSocketTCPSend(line.udp.hSocket, "x", 1, 1), -1);
    EXPECT_EQ(AppSocketTCPRecv(line.udp.hSocket, line.udp.achBuf, &line.udp.dwLen, 1), -1);
    std::swap(line.udp.hSocket, line.hTcp);
    EXPECT_EQ(line.udp.Send(line.udp, "x"), -1);
    EXPECT_EQ(line.udp.Receive(1), -1);
    log.ExpectNone();
}

TEST(Socket, DatagramsTellTheirAddresses)
{
    LogCapture log;
    TUdp sender, receiver(kAny), second(kLoopback, sender.wBound);
    EXPECT_EQ(sender.Send(receiver, "hello", kLong, kLoopback2), 5);
    EXPECT_EQ(receiver.Receive(kLong), 5);
    EXPECT_TRUE(Same(receiver.local, kLoopback2)) << "one of several local addresses";
    EXPECT_EQ(receiver.wLocal, 0) << "the port given at the bind";
    EXPECT_TRUE(Same(receiver.remote, kLoopback));
    EXPECT_EQ(receiver.wRemote, sender.wBound);
    log.ExpectNone();
    EXPECT_CODE(APP_FAILED, AppSocketBind(second.hSocket, &kLoopback, 1, 0)); // bound already
    EXPECT_EQ(second.hSocket->wPort, 1);
}

TEST(Socket, ConnectNamesTheCause)
{
    LogCapture log;
    TListener silent, listener; // a full one is as silent as a host that is not there
    ASSERT_EQ(listen(silent.nFd, 0), 0);
    HAppSocket hFirst = AppSocketTCPConnect(nullptr, &kLoopback, silent.wPort, kLong, nullptr);
    ASSERT_NE(hFirst, nullptr);
    const uint16_t wClosed = TListener().wPort;
    const auto refused = [&](uint16_t wPort, uint32_t dwTimeout, const char *szWhat, int nError) {
        TAppNetAddr peer = kIpv6;
        EXPECT_EQ(AppSocketTCPConnect(nullptr, &kLoopback, wPort, dwTimeout, &peer), nullptr);
        EXPECT_EQ(peer.dwType, kIpv6.dwType);
        log.ExpectLines(
            {Text("[ERROR] _AppSocketTCPConnect: %s %d %s\n", szWhat, nError, strerror(nError))});
    };
    refused(wClosed, kLong, "connect failed", ECONNREFUSED);
    {
        fault::Fail atOnce(Fn::connect, 1, ENETUNREACH);
        refused(listener.wPort, kLong, "connect failed", ENETUNREACH);
        fault::Fail signal(Fn::epoll_wait, 1, EINTR);
        const auto start = steady_clock::now();
        refused(silent.wPort, kShort, "connect timeout", ETIMEDOUT);
        EXPECT_GE(test::ElapsedMs(start), kShort);
    }
    s_bNoWait = true;
    refused(silent.wPort, 0, "epoll_wait failed", EPERM);
    s_bNoWait = false;
    EXPECT_TRUE(s_nAskedMs > 29000 && s_nAskedMs <= 30000) << s_nAskedMs;
    AppSocketDestroy(hFirst);

    // The system may choose the very port that nobody listens on: TCP connects the socket to itself.
    const int nNextFd = dup(STDIN_FILENO);
    close(nNextFd);
    for (const bool bAtOnce : {false, true}) {
        const auto meet = [&](uint16_t wPort) {
            const struct sockaddr_in tAddr = app::ToSockaddr(kLoopback, wPort);
            EXPECT_EQ(wPort == wClosed ? bind(nNextFd, app::Generic(&tAddr), sizeof(tAddr)) : 0, 0);
            if (bAtOnce) // the library's own call finds it done
                connect(nNextFd, app::Generic(&tAddr), sizeof(tAddr));
        };
        fault::Fail choice(Fn::connect, 1, 0, 2);
        choice.Action([&] { meet(choice.Hits() == 1 ? wClosed : listener.wPort); });
        refused(wClosed, kLong, "connect failed", ECONNREFUSED); // and is reset: the port is free

        TAppNetAddr peer = kIpv6;
        HAppSocket hSocket = listener.Connect(&peer);
        ASSERT_NE(hSocket, nullptr);
        EXPECT_TRUE(Same(peer, bAtOnce ? kIpv6 : kLoopback));
        EXPECT_EQ(Option(hSocket, IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_EQ(Option(hSocket, SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_EQ(fcntl(hSocket->nFd, F_GETFL) & O_NONBLOCK, 0);
        AppSocketDestroy(hSocket);
        close(std::exchange(listener.nPeer, -1));
    }
}

// The group is that of one interface, for joining and for sending.
TEST(Socket, MulticastGroups)
{
    LogCapture log;
    const TAppNetAddr group = {APP_NET_ADDR_IPV4, {inet_addr("239.1.2.3")}};
    TUdp sender, receiver(kAny);
    for (TUdp *udp : {&sender, &receiver, &receiver}) // a member already
        EXPECT_CODE(APP_OK, AppSocketUDPJoinMulticastGroup(udp->hSocket, &group, &kLoopback,
                                                           udp == &sender));
    if (log.Lines().size() == 3)
        GTEST_SKIP() << "not run: this emulator has no IP_MULTICAST_IF";
    log.ExpectNone();
    EXPECT_EQ(Option(sender.hSocket, IPPROTO_IP, IP_MULTICAST_IF), int(kLoopback.dwIpv4));
    EXPECT_EQ(Option(receiver.hSocket, IPPROTO_IP, IP_MULTICAST_LOOP), 0);
    EXPECT_EQ(sender.Send(receiver, "x", kLong, group), 1);
    EXPECT_EQ(receiver.Receive(kLong), 1);
    EXPECT_TRUE(Same(receiver.local, group));
}

} // namespace
