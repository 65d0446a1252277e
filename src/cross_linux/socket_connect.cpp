// SPDX-License-Identifier: MIT
//
// A connect with a time-out: the socket does not block until it has a peer, and is an ordinary
// blocking one from then on.
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>

#include "base/rollback.h"
#include "cross_linux/error_text.h"
#include "cross_linux/socket.h"

namespace
{

constexpr uint32_t kDefaultTimeoutMs = 30000;

// With a source port of the system's choice, a connect to a port of this device that nobody listens
// on can meet itself: TCP connects the socket to its own end.  There is no service; the connection
// is reset, so that it does not keep the port from the service that may yet come.
bool MetItself(int nFd, uint16_t wPeerPort)
{
    struct sockaddr_in tOwn = {}, tPeer = {};
    socklen_t nOwnLen = sizeof(tOwn), nPeerLen = sizeof(tPeer);
    if (getsockname(nFd, app::Generic(&tOwn), &nOwnLen) != 0 || tOwn.sin_port != wPeerPort ||
        getpeername(nFd, app::Generic(&tPeer), &nPeerLen) != 0 ||
        tOwn.sin_addr.s_addr != tPeer.sin_addr.s_addr)
        return false;
    const struct linger tReset = {1, 0};
    setsockopt(nFd, SOL_SOCKET, SO_LINGER, &tReset, sizeof(tReset));
    return true;
}

// 0 when there is a peer.  Otherwise the socket's pending error is the cause; "not connected" is what
// getpeername() finds, and no cause: the connection is not decided yet.
int FindPeer(int nFd, TAppNetAddr *ptPeerAddr)
{
    struct sockaddr_in tPeer = {};
    socklen_t nLen = sizeof(tPeer);
    if (getpeername(nFd, app::Generic(&tPeer), &nLen) != 0) {
        const int nError = errno;
        int nPending = 0;
        socklen_t nPendingLen = sizeof(nPending);
        getsockopt(nFd, SOL_SOCKET, SO_ERROR, &nPending, &nPendingLen);
        return nPending != 0 ? nPending : nError;
    }
    if (MetItself(nFd, tPeer.sin_port))
        return ECONNREFUSED;
    if (ptPeerAddr)
        app::FromInAddr(tPeer.sin_addr, ptPeerAddr);
    return 0;
}

bool AwaitConnection(int nFd, uint32_t dwTimeout, const char *szOp)
{
    const app::Deadline deadline(dwTimeout != 0 ? dwTimeout : kDefaultTimeoutMs);
    // Writable means decided, not connected: see FindPeer().
    const app::WaitResult wait = app::WaitForSocket(nFd, EPOLLOUT, deadline, szOp);
    if (wait == app::WaitResult::Failed)
        APP_LOG_ERRNO(errno, "[ERROR] %s: epoll_wait failed %d %s\n", szOp);
    if (wait == app::WaitResult::Timeout) // errno tells of whatever came before, such as a signal
        APP_LOG_ERRNO(ETIMEDOUT, "[ERROR] %s: connect timeout %d %s\n", szOp);
    return wait == app::WaitResult::Ready;
}

// `nFd` does not block.
bool Connect(int nFd, const struct sockaddr_in &tAddr, uint32_t dwTimeout, TAppNetAddr *ptPeerAddr,
             const char *szOp)
{
    int nError = connect(nFd, app::Generic(&tAddr), sizeof(tAddr)) == 0 ? 0 : errno;
    if (nError == 0 && MetItself(nFd, tAddr.sin_port))
        nError = ECONNREFUSED;
    if (nError == EINPROGRESS) {
        nError = FindPeer(nFd, ptPeerAddr); // on this device it is decided by now
        if (nError == ENOTCONN) {
            if (!AwaitConnection(nFd, dwTimeout, szOp))
                return false;
            nError = FindPeer(nFd, ptPeerAddr);
        }
    }
    if (nError != 0)
        APP_LOG_ERRNO(nError, "[ERROR] %s: connect failed %d %s\n", szOp);
    return nError == 0;
}

// Connects without blocking and makes the socket block again.
bool ConnectInTime(int nFd, const struct sockaddr_in &tAddr, uint32_t dwTimeout,
                   TAppNetAddr *ptPeerAddr, const char *szOp)
{
    const int nFlags = fcntl(nFd, F_GETFL);
    if (nFlags < 0) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: fcntl F_GETFL failed %d %s\n", szOp);
        return false;
    }
    if (fcntl(nFd, F_SETFL, nFlags | O_NONBLOCK) != 0) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: fcntl F_SETFL O_NONBLOCK failed %d %s\n", szOp);
        return false;
    }
    if (!Connect(nFd, tAddr, dwTimeout, ptPeerAddr, szOp))
        return false;
    if (fcntl(nFd, F_SETFL, nFlags) != 0) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: fcntl F_SETFL failed %d %s\n", szOp);
        return false;
    }
    return true;
}

// Small messages at once, and an end to connections whose peer has lost its power.  A connection
// without them is a connection all the same.
void SetOptions(int nFd, const char *szOp)
{
    if (!app::SetOption(nFd, IPPROTO_TCP, TCP_NODELAY, 1)) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: setsockopt TCP_NODELAY fail %d %s\n", szOp);
    }
    if (!app::SetOption(nFd, SOL_SOCKET, SO_KEEPALIVE, 1)) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: setsockopt SO_KEEPALIVE fail %d %s\n", szOp);
    }
}

} // namespace

HAppSocket _AppSocketTCPConnect(HAppMemPool hMemPool, const TAppNetAddr *ptRemoteAddr,
                                uint16_t wPort, uint32_t dwTimeout, TAppNetAddr *ptPeerAddr)
{
    const struct sockaddr_in tAddr = app::ToSockaddr(*ptRemoteAddr, wPort);
    HAppSocket hSocket = _AppSocketCreate(hMemPool, APP_SOCKET_TCP);
    if (!hSocket) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: _AppSocketCreate failed\n", __func__);
        return nullptr;
    }
    app::Rollback undo([&] { _AppSocketDestroy(hSocket); });
    if (!ConnectInTime(hSocket->nFd, tAddr, dwTimeout, ptPeerAddr, __func__)) {
        // Each failure has been logged, which leaves its error.
        app::CountSocket(errno == ETIMEDOUT ? &TAppSocketStats::dwTimeouts
                                            : &TAppSocketStats::dwConnectFailed);
        return nullptr;
    }
    SetOptions(hSocket->nFd, __func__);
    undo.Dismiss();
    return hSocket;
}
