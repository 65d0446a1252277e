// SPDX-License-Identifier: MIT
//
// The four data operations.  With a time-out the transfer itself never blocks: readiness promises
// one byte and not the whole buffer, and another thread may take the datagram first.  So the
// transfer is tried, and only when it would block is there a wait, with the time that is left.
#include <sys/epoll.h>

#include "cross_linux/error_text.h"
#include "cross_linux/socket.h"

namespace
{

constexpr int32_t kFailed = -1;
constexpr int32_t kTimeout = -2;
constexpr int32_t kMostPauseMs = 10;

// What a transfer came to: a count above 0 or 0 and errno, or no transfer at all.
struct TOutcome {
    ssize_t nCount;
    int32_t nResult; // kFailed or kTimeout when there was none, else 0
};

bool WouldBlock(ssize_t nCount)
{
    return nCount < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

// A signal does not end a transfer that waits.
template <typename Transfer>
ssize_t Try(Transfer transfer, int nFlags)
{
    ssize_t nCount;
    do {
        errno = 0; // a count of 0 is logged with it
        nCount = transfer(nFlags);
    } while (nCount < 0 && errno == EINTR);
    return nCount;
}

template <typename Transfer>
TOutcome Run(HAppSocket hSocket, uint32_t dwEvents, uint32_t dwTimeout, const char *szOp,
             Transfer transfer)
{
    if (dwTimeout == 0)
        return {Try(transfer, 0), 0};
    ssize_t nCount = Try(transfer, MSG_DONTWAIT);
    if (!WouldBlock(nCount))
        return {nCount, 0};
    // Short of memory, a socket can stay ready and yet block.  Once is nothing: another thread took
    // the datagram.  From the second round on there are pauses, lest the loop keep a processor
    // busy.
    const app::Deadline deadline(dwTimeout);
    int32_t nPauseMs = 0;
    do {
        const app::WaitResult wait = app::WaitForSocket(hSocket->nFd, dwEvents, deadline, szOp);
        if (wait != app::WaitResult::Ready)
            return {0, wait == app::WaitResult::Timeout ? kTimeout : kFailed};
        nCount = Try(transfer, MSG_DONTWAIT);
        if (!WouldBlock(nCount))
            return {nCount, 0};
        if (nPauseMs > 0)
            _AppDelay(static_cast<uint32_t>(deadline.LeftMs(nPauseMs)));
        nPauseMs = nPauseMs < kMostPauseMs / 2 ? 2 * nPauseMs + 1 : kMostPauseMs;
    } while (!deadline.Passed());
    return {0, kTimeout};
}

// Counts what an operation has come to, and gives it back.
int32_t Counted(int32_t nResult, uint32_t TAppSocketStats::*pdwDone,
                uint32_t TAppSocketStats::*pdwFailed)
{
    app::CountSocket(nResult > 0           ? pdwDone
                     : nResult == kTimeout ? &TAppSocketStats::dwTimeouts
                                           : pdwFailed);
    return nResult;
}

int32_t CountedSend(int32_t nResult)
{
    return Counted(nResult, &TAppSocketStats::dwSends, &TAppSocketStats::dwSendFailed);
}

int32_t CountedReceive(int32_t nResult)
{
    return Counted(nResult, &TAppSocketStats::dwReceives, &TAppSocketStats::dwReceiveFailed);
}

int32_t FinishSend(const TOutcome &outcome, const char *szOp)
{
    if (outcome.nResult != 0)
        return CountedSend(outcome.nResult);
    if (outcome.nCount > 0)
        return CountedSend(static_cast<int32_t>(outcome.nCount));
    const int nError = errno;
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: sendto failed %d\n", szOp, nError);
    errno = nError; // as APP_LOG_ERRNO() leaves it
    return CountedSend(kFailed);
}

int32_t FinishReceive(const TOutcome &outcome, uint32_t *pdwLen, const char *szOp)
{
    if (outcome.nResult != 0)
        return CountedReceive(outcome.nResult);
    if (outcome.nCount > 0) {
        *pdwLen = static_cast<uint32_t>(outcome.nCount);
        return CountedReceive(static_cast<int32_t>(outcome.nCount));
    }
    APP_LOG_ERRNO(errno, "[ERROR] %s: recvmsg failed %d %s\n", szOp);
    return CountedReceive(kFailed);
}

// Set until it has succeeded once.  With acquire and release, so that whoever finds it done receives
// after the system has done it.
bool WillTellDestination(HAppSocket hSocket)
{
    if (hSocket->bTellsDestination.load(std::memory_order_acquire))
        return true;
    if (!app::SetOption(hSocket->nFd, IPPROTO_IP, IP_PKTINFO, 1))
        return false;
    hSocket->bTellsDestination.store(1, std::memory_order_release);
    return true;
}

// The address that a datagram was sent to.
void FindDestination(struct msghdr *ptMsg, TAppNetAddr *ptLocalAddr)
{
    app::FromInAddr({0}, ptLocalAddr);
    for (struct cmsghdr *ptHead = CMSG_FIRSTHDR(ptMsg); ptHead;
         ptHead = CMSG_NXTHDR(ptMsg, ptHead)) {
        if (ptHead->cmsg_level != IPPROTO_IP || ptHead->cmsg_type != IP_PKTINFO)
            continue;
        struct in_pktinfo tInfo;
        AppMemcpy(&tInfo, CMSG_DATA(ptHead), sizeof(tInfo));
        app::FromInAddr(tInfo.ipi_addr, ptLocalAddr);
    }
}

ssize_t ReceiveWithDestination(int nFd, struct iovec tPiece, int nFlags,
                               struct sockaddr_in *ptRemote, TAppNetAddr *ptLocalAddr)
{
    alignas(struct cmsghdr) char achControl[32];
    struct msghdr tMsg = {};
    tMsg.msg_name = ptRemote;
    tMsg.msg_namelen = sizeof(*ptRemote);
    tMsg.msg_iov = &tPiece;
    tMsg.msg_iovlen = 1;
    tMsg.msg_control = achControl;
    tMsg.msg_controllen = sizeof(achControl);
    const ssize_t nCount = recvmsg(nFd, &tMsg, nFlags);
    if (nCount > 0)
        FindDestination(&tMsg, ptLocalAddr);
    return nCount;
}

bool IsKind(HAppSocket hSocket, uint32_t dwSockType)
{
    return hSocket && hSocket->dwSockType == dwSockType;
}

} // namespace

int32_t _AppSocketUDPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen, uint32_t dwTimeout,
                          TAppNetAddr *ptLocalAddr, uint16_t *pwLocalPort,
                          TAppNetAddr *ptRemoteAddr, uint16_t *pwRemotePort)
{
    if (!IsKind(hSocket, APP_SOCKET_UDP))
        return kFailed;
    if (!WillTellDestination(hSocket)) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: setsockopt  IP_PKTINFO failed %d %s\n", __func__);
        return CountedReceive(kFailed);
    }
    struct sockaddr_in tRemote;
    const TOutcome outcome = Run(hSocket, EPOLLIN, dwTimeout, __func__, [&](int nFlags) {
        if (ptLocalAddr)
            return ReceiveWithDestination(hSocket->nFd, {pvBuf, *pdwLen}, nFlags, &tRemote,
                                          ptLocalAddr);
        socklen_t dwSize = sizeof(tRemote); // the shorter way through the system
        return recvfrom(hSocket->nFd, pvBuf, *pdwLen, nFlags, app::Generic(&tRemote), &dwSize);
    });
    const int32_t nResult = FinishReceive(outcome, pdwLen, __func__);
    if (nResult < 0)
        return nResult;
    if (ptRemoteAddr)
        app::FromInAddr(tRemote.sin_addr, ptRemoteAddr);
    if (pwRemotePort)
        *pwRemotePort = tRemote.sin_port;
    if (pwLocalPort)
        *pwLocalPort = hSocket->wPort;
    return nResult;
}

int32_t _AppSocketUDPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen, uint32_t dwTimeout,
                          const TAppNetAddr *ptRemoteAddr, uint16_t wPort)
{
    if (!IsKind(hSocket, APP_SOCKET_UDP))
        return kFailed;
    const struct sockaddr_in tAddr = app::ToSockaddr(*ptRemoteAddr, wPort);
    const TOutcome outcome = Run(hSocket, EPOLLOUT, dwTimeout, __func__, [&](int nFlags) {
        return sendto(hSocket->nFd, pvBuf, dwLen, nFlags | MSG_NOSIGNAL, app::Generic(&tAddr),
                      sizeof(tAddr));
    });
    return FinishSend(outcome, __func__);
}

int32_t _AppSocketTCPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen, uint32_t dwTimeout)
{
    if (!IsKind(hSocket, APP_SOCKET_TCP))
        return kFailed;
    const TOutcome outcome = Run(hSocket, EPOLLOUT, dwTimeout, __func__, [&](int nFlags) {
        return send(hSocket->nFd, pvBuf, dwLen, nFlags | MSG_NOSIGNAL);
    });
    return FinishSend(outcome, __func__);
}

int32_t _AppSocketTCPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen, uint32_t dwTimeout)
{
    if (!IsKind(hSocket, APP_SOCKET_TCP))
        return kFailed;
    const TOutcome outcome = Run(hSocket, EPOLLIN, dwTimeout, __func__, [&](int nFlags) {
        return recv(hSocket->nFd, pvBuf, *pdwLen, nFlags);
    });
    return FinishReceive(outcome, pdwLen, __func__);
}
