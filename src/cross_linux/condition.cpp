// SPDX-License-Identifier: MIT
#include "cross_linux/condition.h"

#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

// The oldest form of the call has a time in words of the machine.  32 bits of seconds since the
// start of the system last for 68 years, and every kernel has it but those of processors that came
// later.
#ifdef SYS_futex
constexpr long kFutex = SYS_futex;
typedef long TWord;
#else
constexpr long kFutex = SYS_futex_time64;
typedef int64_t TWord;
#endif

// Of <linux/futex.h>, which musl's compilers do not find: within the process, until an instant of the
// monotonic clock, whoever wakes.
constexpr int kPrivate = 128;
constexpr int kWaitBitset = 9 | kPrivate;
constexpr int kWake = 1 | kPrivate;
constexpr uint32_t kMatchAny = UINT32_MAX;

struct TInstant {
    TWord nSeconds;
    TWord nNs;
};

} // namespace

int _AppConditionWait(TAppCondition *ptCondition, pthread_mutex_t *ptMutex,
                      const struct timespec *ptEnd)
{
    const int nErrno = errno;
    TInstant end = {};
    if (ptEnd)
        end = {static_cast<TWord>(ptEnd->tv_sec), static_cast<TWord>(ptEnd->tv_nsec)};
    // A signal between this and the call is seen there: the number is not the same any more.
    const uint32_t dwSeen = ptCondition->dwSignals.load(std::memory_order_relaxed);
    pthread_mutex_unlock(ptMutex);
    const long nResult = syscall(kFutex, &ptCondition->dwSignals, kWaitBitset, dwSeen,
                                 ptEnd ? &end : nullptr, nullptr, kMatchAny);
    errno = nErrno;
    pthread_mutex_lock(ptMutex);
    return nResult == 0 ? 0 : -1;
}

int _AppConditionSignal(TAppCondition *ptCondition)
{
    ptCondition->dwSignals.fetch_add(1, std::memory_order_relaxed);
    return syscall(kFutex, &ptCondition->dwSignals, kWake, 1) >= 0 ? 0 : -1;
}
