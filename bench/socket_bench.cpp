// SPDX-License-Identifier: MIT
#include <apr_general.h>
#include <apr_network_io.h>
#include <apr_pools.h>
#include <apr_portable.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <thread>

#include "appcore/socket.h"
#include "bench.h"

namespace
{

constexpr uint32_t kTimeoutMs = 1000;
constexpr uint32_t kLength = 64;

sockaddr_in Loopback(uint16_t wPort)
{
    sockaddr_in tAddr{};
    tAddr.sin_family = AF_INET;
    tAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    tAddr.sin_port = wPort;
    return tAddr;
}

// All ports here are in network byte order.
uint16_t PortOf(int nSocket)
{
    sockaddr_in tAddr{};
    socklen_t dwSize = sizeof tAddr;
    getsockname(nSocket, reinterpret_cast<sockaddr *>(&tAddr), &dwSize);
    return tAddr.sin_port;
}

int BoundSocket(int nKind)
{
    const int nSocket = socket(AF_INET, nKind, 0);
    const sockaddr_in tAddr = Loopback(0);
    bench::Require(bind(nSocket, reinterpret_cast<const sockaddr *>(&tAddr), sizeof tAddr) == 0);
    return nSocket;
}

// A port that the kernel has just chosen and nobody uses.
uint16_t FreePort()
{
    const int nSocket = BoundSocket(SOCK_DGRAM);
    const uint16_t wPort = PortOf(nSocket);
    close(nSocket);
    return wPort;
}

TAppNetAddr AppLoopback()
{
    TAppNetAddr tAddr{};
    tAddr.dwIpv4 = htonl(INADDR_LOOPBACK);
    return tAddr;
}

// ---- UDP ------------------------------------------------------------------------------------

struct AppcoreUdp {
    AppcoreUdp()
    {
        wPort = FreePort();
        hSocket = AppSocketCreate(nullptr, APP_SOCKET_UDP, 0);
        bench::Require(AppSocketBind(hSocket, &tLoopback, wPort, 0) == APP_OK);
    }
    ~AppcoreUdp() { AppSocketDestroy(hSocket); }
    void Send(const char *achData, uint16_t wTo)
    {
        AppSocketUDPSend(hSocket, achData, kLength, kTimeoutMs, &tLoopback, wTo);
    }
    bool Receive(char *achData)
    {
        uint32_t dwLen = kLength;
        TAppNetAddr tFrom;
        uint16_t wFrom;
        return AppSocketUDPRecv(hSocket, achData, &dwLen, kTimeoutMs, nullptr, nullptr, &tFrom,
                                &wFrom) == static_cast<int32_t>(kLength);
    }
    const TAppNetAddr tLoopback = AppLoopback();
    HAppSocket hSocket = nullptr;
    uint16_t wPort = 0;
};

// Plain sockets, with the three ways to a time-out.
struct PlainUdp {
    PlainUdp() : nSocket(BoundSocket(SOCK_DGRAM)), wPort(PortOf(nSocket)) {}
    ~PlainUdp() { close(nSocket); }
    void Send(const char *achData, uint16_t wTo)
    {
        const sockaddr_in tTo = Loopback(wTo);
        sendto(nSocket, achData, kLength, 0, reinterpret_cast<const sockaddr *>(&tTo), sizeof tTo);
    }
    bool Read(char *achData, int nFlags)
    {
        sockaddr_in tFrom;
        socklen_t dwSize = sizeof tFrom;
        return recvfrom(nSocket, achData, kLength, nFlags, reinterpret_cast<sockaddr *>(&tFrom),
                        &dwSize) == kLength;
    }
    bool Wait()
    {
        pollfd tPoll{nSocket, POLLIN, 0};
        return poll(&tPoll, 1, static_cast<int>(kTimeoutMs)) > 0;
    }
    int nSocket;
    uint16_t wPort;
};

struct PollUdp : PlainUdp {
    bool Receive(char *achData) { return Wait() && Read(achData, 0); }
};

struct TryThenPollUdp : PlainUdp {
    bool Receive(char *achData)
    {
        return Read(achData, MSG_DONTWAIT) || (Wait() && Read(achData, MSG_DONTWAIT));
    }
};

struct TimedOptionUdp : PlainUdp {
    TimedOptionUdp()
    {
        const timeval tLimit{1, 0};
        setsockopt(nSocket, SOL_SOCKET, SO_RCVTIMEO, &tLimit, sizeof tLimit);
    }
    bool Receive(char *achData) { return Read(achData, 0); }
};

struct GlibUdp {
    GlibUdp() : ptAddr(g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4))
    {
        ptSocket = g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP,
                                nullptr);
        g_socket_set_timeout(ptSocket, 1);
        GSocketAddress *ptBind = g_inet_socket_address_new(ptAddr, 0);
        bench::Require(g_socket_bind(ptSocket, ptBind, FALSE, nullptr));
        g_object_unref(ptBind);
        wPort = PortOf(g_socket_get_fd(ptSocket));
    }
    ~GlibUdp()
    {
        g_clear_object(&ptTo);
        g_object_unref(ptSocket);
        g_object_unref(ptAddr);
    }
    void Send(const char *achData, uint16_t wTo)
    {
        if (!ptTo)
            ptTo = g_inet_socket_address_new(ptAddr, ntohs(wTo));
        g_socket_send_to(ptSocket, ptTo, achData, kLength, nullptr, nullptr);
    }
    bool Receive(char *achData)
    {
        GSocketAddress *ptFrom = nullptr;
        const gssize nRead =
            g_socket_receive_from(ptSocket, &ptFrom, achData, kLength, nullptr, nullptr);
        if (ptFrom)
            g_object_unref(ptFrom);
        return nRead == kLength;
    }
    GInetAddress *ptAddr;
    GSocket *ptSocket = nullptr;
    GSocketAddress *ptTo = nullptr;
    uint16_t wPort = 0;
};

struct AprPool {
    AprPool() { bench::Require(apr_pool_create(&ptPool, nullptr) == APR_SUCCESS); }
    ~AprPool() { apr_pool_destroy(ptPool); }
    apr_pool_t *ptPool = nullptr;
};

struct AprUdp {
    AprUdp()
    {
        apr_socket_create(&ptSocket, APR_INET, SOCK_DGRAM, APR_PROTO_UDP, pool.ptPool);
        apr_sockaddr_info_get(&ptTo, "127.0.0.1", APR_INET, 0, 0, pool.ptPool);
        apr_sockaddr_info_get(&ptFrom, "127.0.0.1", APR_INET, 0, 0, pool.ptPool);
        bench::Require(apr_socket_bind(ptSocket, ptTo) == APR_SUCCESS);
        apr_socket_timeout_set(ptSocket, kTimeoutMs * 1000);
        apr_os_sock_t nSocket;
        apr_os_sock_get(&nSocket, ptSocket);
        wPort = PortOf(nSocket);
    }
    ~AprUdp() { apr_socket_close(ptSocket); }
    void Send(const char *achData, uint16_t wTo)
    {
        ptTo->sa.sin.sin_port = wTo;
        apr_size_t nLength = kLength;
        apr_socket_sendto(ptSocket, ptTo, 0, achData, &nLength);
    }
    bool Receive(char *achData)
    {
        apr_size_t nLength = kLength;
        return apr_socket_recvfrom(ptFrom, ptSocket, 0, achData, &nLength) == APR_SUCCESS;
    }
    AprPool pool;
    apr_socket_t *ptSocket = nullptr;
    apr_sockaddr_t *ptTo = nullptr;
    apr_sockaddr_t *ptFrom = nullptr;
    uint16_t wPort = 0;
};

template <typename Udp>
void SendToSelf(benchmark::State &state)
{
    Udp udp;
    char achData[kLength] = "go";
    for (auto _ : state) {
        udp.Send(achData, udp.wPort);
        bench::Require(udp.Receive(achData));
    }
}

template <typename Udp>
void Echo(benchmark::State &state)
{
    Udp client;
    Udp server;
    std::thread echo([&] {
        char achData[kLength];
        while (server.Receive(achData) && achData[0] != '\0')
            server.Send(achData, client.wPort);
    });
    char achData[kLength] = "go";
    for (auto _ : state) {
        client.Send(achData, server.wPort);
        bench::Require(client.Receive(achData));
    }
    achData[0] = '\0';
    client.Send(achData, server.wPort);
    echo.join();
}

// ---- TCP ------------------------------------------------------------------------------------

// Accepts in the benchmark's own thread, after the connect: the kernel completes a connection
// without it.  Its side is reset, so that no port lingers.
class Listener
{
public:
    Listener() : m_nSocket(BoundSocket(SOCK_STREAM)), m_wPort(PortOf(m_nSocket))
    {
        bench::Require(listen(m_nSocket, 16) == 0);
    }
    ~Listener() { close(m_nSocket); }
    uint16_t Port() const { return m_wPort; }
    void AcceptAndReset()
    {
        const int nPeer = accept(m_nSocket, nullptr, nullptr);
        const linger tReset{1, 0};
        setsockopt(nPeer, SOL_SOCKET, SO_LINGER, &tReset, sizeof tReset);
        close(nPeer);
    }

private:
    int m_nSocket;
    uint16_t m_wPort;
};

struct AppcoreTcp {
    void Connect(uint16_t wPort)
    {
        hSocket = AppSocketTCPConnect(nullptr, &tLoopback, wPort, kTimeoutMs, nullptr);
        bench::Require(hSocket != nullptr);
    }
    void Close() { AppSocketDestroy(hSocket); }
    const TAppNetAddr tLoopback = AppLoopback();
    HAppSocket hSocket = nullptr;
};

// Non-blocking connect, poll, blocking again: what a time-out needs.
struct PollTcp {
    void Connect(uint16_t wPort)
    {
        nSocket = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        const sockaddr_in tTo = Loopback(wPort);
        if (connect(nSocket, reinterpret_cast<const sockaddr *>(&tTo), sizeof tTo) != 0) {
            pollfd tPoll{nSocket, POLLOUT, 0};
            bench::Require(poll(&tPoll, 1, static_cast<int>(kTimeoutMs)) == 1);
        }
        int nError = 0;
        socklen_t dwSize = sizeof nError;
        getsockopt(nSocket, SOL_SOCKET, SO_ERROR, &nError, &dwSize);
        bench::Require(nError == 0);
        bench::Require(fcntl(nSocket, F_SETFL, 0) == 0);
    }
    void Close() { close(nSocket); }
    int nSocket = -1;
};

struct GlibTcp {
    GlibTcp() : ptAddr(g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4)) {}
    ~GlibTcp()
    {
        g_clear_object(&ptTo);
        g_object_unref(ptAddr);
    }
    void Connect(uint16_t wPort)
    {
        if (!ptTo)
            ptTo = g_inet_socket_address_new(ptAddr, ntohs(wPort));
        ptSocket = g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP,
                                nullptr);
        g_socket_set_timeout(ptSocket, 1);
        bench::Require(g_socket_connect(ptSocket, ptTo, nullptr, nullptr));
    }
    void Close() { g_object_unref(ptSocket); }
    GInetAddress *ptAddr;
    GSocketAddress *ptTo = nullptr;
    GSocket *ptSocket = nullptr;
};

struct AprTcp {
    void Connect(uint16_t wPort)
    {
        if (!ptTo)
            apr_sockaddr_info_get(&ptTo, "127.0.0.1", APR_INET, ntohs(wPort), 0, address.ptPool);
        apr_socket_create(&ptSocket, APR_INET, SOCK_STREAM, APR_PROTO_TCP, connection.ptPool);
        apr_socket_timeout_set(ptSocket, kTimeoutMs * 1000);
        bench::Require(apr_socket_connect(ptSocket, ptTo) == APR_SUCCESS);
    }
    void Close()
    {
        apr_socket_close(ptSocket);
        apr_pool_clear(connection.ptPool);
    }
    AprPool address;
    AprPool connection;
    apr_sockaddr_t *ptTo = nullptr;
    apr_socket_t *ptSocket = nullptr;
};

template <typename Tcp>
void ConnectClose(benchmark::State &state)
{
    Listener listener;
    Tcp tcp;
    for (auto _ : state) {
        tcp.Connect(listener.Port());
        listener.AcceptAndReset();
        tcp.Close();
    }
}

template <typename Udp>
void AddUdp(const std::string &strName, bool bOurs = false)
{
    bench::Add("udp_self", strName, SendToSelf<Udp>, bOurs ? "1.1" : "");
    bench::Add("udp_echo", strName, Echo<Udp>, bOurs ? "1.1" : "");
}

} // namespace

void bench::RegisterRows()
{
    Require(apr_initialize() == APR_SUCCESS);
    AddUdp<AppcoreUdp>("appcore", true);
    AddUdp<PollUdp>("poll");
    AddUdp<TryThenPollUdp>("try_then_poll");
    AddUdp<TimedOptionUdp>("rcvtimeo");
    AddUdp<GlibUdp>("glib");
    AddUdp<AprUdp>("apr");
    Add("tcp_connect", "appcore", ConnectClose<AppcoreTcp>, "1.1");
    Add("tcp_connect", "poll", ConnectClose<PollTcp>);
    Add("tcp_connect", "glib", ConnectClose<GlibTcp>);
    Add("tcp_connect", "apr", ConnectClose<AprTcp>);
}
