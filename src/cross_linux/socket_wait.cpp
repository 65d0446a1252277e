// SPDX-License-Identifier: MIT
//
// The one wait of the sockets.  An epoll instance for each wait: it is shared with nobody, so two
// threads may wait for one socket, and it knows no largest descriptor as select() does.
#include <sys/epoll.h>

#include "cross_linux/error_text.h"
#include "cross_linux/socket.h"

app::WaitResult app::WaitForSocket(int nFd, uint32_t dwEvents, const Deadline &deadline,
                                   const char *szOp)
{
    const OwnedFd epoll(epoll_create1(EPOLL_CLOEXEC));
    if (epoll.Get() < 0) {
        APP_LOG_ERRNO(errno, "[ERROR] %s: epoll_create failed %d %s\n", szOp);
        return WaitResult::NoEpoll;
    }
    struct epoll_event tEvent = {};
    tEvent.events = dwEvents;
    tEvent.data.fd = nFd;
    if (epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, nFd, &tEvent) != 0)
        return WaitResult::Failed; // nothing would end the wait before its time
    for (;;) {
        // A time-out beyond what epoll_wait() can express is waited for in several rounds.
        const int32_t nLeft = deadline.LeftMs(INT32_MAX);
        struct epoll_event atEvent[2];
        const int nReady = epoll_wait(epoll.Get(), atEvent, 2, nLeft);
        if (nReady > 0)
            return WaitResult::Ready;
        // After a signal the deadline decides, as after a round that was too short.
        if (nReady < 0 && errno != EINTR)
            return WaitResult::Failed;
        if (deadline.Passed())
            return WaitResult::Timeout;
    }
}
