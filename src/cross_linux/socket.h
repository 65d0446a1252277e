// SPDX-License-Identifier: MIT
//
// What the files of the socket layer share: the record, owned descriptors, address structures and
// the one wait.
#ifndef APPCORE_CROSS_LINUX_SOCKET_H
#define APPCORE_CROSS_LINUX_SOCKET_H

#include <errno.h>
#include <netinet/in.h>
#include <stddef.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "appcore/stats.h"
#include "base/field.h"
#include "cross_linux/cross_linux.h"
#include "cross_linux/deadline.h"

struct TAppSocket {
    uint32_t dwSockType;
    int32_t nFd;    // -1 when the system refused one: every operation then fails at once
    uint16_t wPort; // of the last bind, network byte order
    std::atomic<uint8_t> bTellsDestination; // IP_PKTINFO has been set; several threads may receive
};

#if UINTPTR_MAX == UINT32_MAX
static_assert(offsetof(TAppSocket, wPort) == 8 && sizeof(TAppSocket) == 12, "fixed layout");
#endif

namespace app
{

// What the process's sockets have come to; `dwOpen` is modulo 2^32 like the rest.  An atomic addition
// is nothing beside the system call that each count goes with.
extern TAppSocketStats g_tSocketStats;

inline void CountSocket(uint32_t TAppSocketStats::*pdwCounter, uint32_t dwValue = 1)
{
    AddCounter(g_tSocketStats.*pdwCounter, dwValue);
}

// Owns a descriptor.  Its end leaves errno alone, which may still be looked at.
class [[nodiscard]] OwnedFd
{
public:
    explicit OwnedFd(int nFd) : m_nFd(nFd) {}
    ~OwnedFd()
    {
        const int nError = errno;
        if (m_nFd >= 0)
            close(m_nFd);
        errno = nError;
    }
    OwnedFd(const OwnedFd &) = delete;
    OwnedFd &operator=(const OwnedFd &) = delete;

    int Get() const { return m_nFd; }

private:
    int m_nFd;
};

enum class WaitResult {
    Ready,
    Timeout,
    NoEpoll, // the epoll instance could not be created; logged
    Failed,
};

// Waits until the descriptor is ready for `dwEvents` (EPOLLIN or EPOLLOUT) or the deadline has
// passed.  A signal does not end the wait.  `szOp` stands in the message.
WaitResult WaitForSocket(int nFd, uint32_t dwEvents, const Deadline &deadline, const char *szOp);

inline struct sockaddr_in ToSockaddr(const TAppNetAddr &addr, uint16_t wPort)
{
    struct sockaddr_in tAddr = {};
    tAddr.sin_family = AF_INET;
    tAddr.sin_port = wPort;
    tAddr.sin_addr.s_addr = addr.dwIpv4;
    return tAddr;
}

inline void FromInAddr(struct in_addr tAddr, TAppNetAddr *ptAddr)
{
    ptAddr->dwType = APP_NET_ADDR_IPV4;
    ptAddr->dwIpv4 = tAddr.s_addr;
}

// The system's structures of one kind through the interface of all kinds.
template <typename Sockaddr>
struct sockaddr *Generic(Sockaddr *ptAddr)
{
    return reinterpret_cast<struct sockaddr *>(ptAddr);
}
template <typename Sockaddr>
const struct sockaddr *Generic(const Sockaddr *ptAddr)
{
    return reinterpret_cast<const struct sockaddr *>(ptAddr);
}

// setsockopt() with an int.
inline bool SetOption(int nFd, int nLevel, int nOption, int nValue)
{
    return setsockopt(nFd, nLevel, nOption, &nValue, sizeof(nValue)) == 0;
}

} // namespace app

#endif
