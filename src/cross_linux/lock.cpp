// SPDX-License-Identifier: MIT
//
// The semaphore keeps its fast paths to one atomic operation each.  A top bit in `dwCount` says
// that takers sleep: only then does a give go through the mutex and signal.
//
// A taker that sleeps sets the bit under the mutex.  A give that finds it signals one sleeper, and
// clears it once there is a unit for every sleeper, or no room for more units: until then the next
// give has to wake the next one, whether or not the first has run.  So a lock with a ceiling of 1
// is fast again after one give.  Every sleeper on its way out, with a unit or without, sets the bit
// again when others still sleep and passes a unit that is left on to them.  So a signal that
// reached a taker whose time had just run out is never lost.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stddef.h>
#include <unistd.h>

#include "base/rollback.h"
#include "cross_linux/cross_linux.h"
#include "cross_linux/deadline.h"
#include "cross_linux/lock_word.h"
#include "cross_linux/mutex_guard.h"

#if defined(__SANITIZE_THREAD__)
#define APP_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define APP_THREAD_SANITIZER 1
#endif
#endif

// On 32-bit machines the headers of the pools leave a record at 4 modulo 8, less than the condition
// asks for; it is made of 32-bit words and needs no more.
typedef pthread_cond_t TPlacedCond __attribute__((aligned(sizeof(void *))));

struct TAppLock {
    app::TLockWord tWord;
    uint32_t dwType;
    uint32_t dwSleepers;            // takers in the slow path; under tMutex
    std::atomic<uint32_t> dwGivers; // gives that have published their unit and still touch the lock
    TPlacedCond tCond;              // semaphore only: takers sleep here
    pthread_mutex_t tMutex;         // semaphore: guards sleeping; recursive: the lock itself
};

static_assert(offsetof(TAppLock, tWord) == 0, "where the paths in line look for it");
#if UINTPTR_MAX == UINT32_MAX && defined(__GLIBC__)
static_assert(sizeof(TAppLock) == 20 + sizeof(pthread_cond_t) + sizeof(pthread_mutex_t),
              "fixed layout");
static_assert(alignof(TAppLock) == 4, "at most what the pools' headers leave");
#endif

namespace
{

using app::kMaxUnits;
using app::kSleepers;

constexpr uint32_t kSliceMs = 1000; // see SleepSlice
constexpr int kAttempts = 100;

uint32_t Least(uint32_t dwFirst, uint32_t dwSecond)
{
    return dwFirst < dwSecond ? dwFirst : dwSecond;
}

std::atomic<uint32_t> &CountOf(HAppLock hLock)
{
    return hLock->tWord.dwCount;
}

inline bool TryTake(HAppLock hLock)
{
    uint32_t dwCount = CountOf(hLock).load(std::memory_order_relaxed);
    while ((dwCount & kMaxUnits) != 0)
        if (CountOf(hLock).compare_exchange_weak(dwCount, dwCount - 1, std::memory_order_acquire,
                                                 std::memory_order_relaxed))
            return true;
    return false;
}

// Sleeps until a signal, the deadline or the end of the slice.  The slice is a precaution: several
// C libraries in the field can lose the wake-up of a condition variable; here that costs a second.
void SleepSlice(HAppLock hLock, const app::Deadline &deadline)
{
    const struct timespec tEnd = deadline.SliceEnd(kSliceMs);
    pthread_cond_timedwait(&hLock->tCond, &hLock->tMutex, &tEnd);
}

// Under tMutex.  Takes a unit, or marks that gives must signal.
bool TakeOrMark(HAppLock hLock)
{
    uint32_t dwCount = CountOf(hLock).load(std::memory_order_relaxed);
    for (;;) {
        const bool bTake = (dwCount & kMaxUnits) != 0;
        if (!bTake && (dwCount & kSleepers))
            return false;
        if (CountOf(hLock).compare_exchange_weak(dwCount, bTake ? dwCount - 1 : dwCount | kSleepers,
                                                 std::memory_order_acquire,
                                                 std::memory_order_relaxed))
            if (bTake)
                return true;
    }
}

// Under tMutex, when a taker leaves the slow path.
void LeaveSleepers(HAppLock hLock)
{
    if (--hLock->dwSleepers == 0) {
        CountOf(hLock).fetch_and(kMaxUnits, std::memory_order_relaxed);
        return;
    }
    const uint32_t dwCount = CountOf(hLock).fetch_or(kSleepers, std::memory_order_relaxed);
    if ((dwCount & kMaxUnits) != 0)
        pthread_cond_signal(&hLock->tCond);
}

// Out of line, like every path that may sleep: the fast paths need no frame then.
[[gnu::noinline, gnu::cold]] bool TakeSleeping(HAppLock hLock, uint32_t dwTimeout)
{
    app::Deadline deadline(dwTimeout);
    app::MutexGuard guard(hLock->tMutex);
    ++hLock->dwSleepers;
    bool bTaken = TakeOrMark(hLock);
    while (!bTaken && !deadline.Reached()) {
        SleepSlice(hLock, deadline);
        bTaken = TakeOrMark(hLock);
        if (!bTaken)
            deadline.ReadClock();
    }
    LeaveSleepers(hLock);
    return bTaken;
}

// The wall clock only where the C library has no monotonic mutex lock, or the thread sanitizer
// does not know it.
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 30) && !defined(APP_THREAD_SANITIZER)
constexpr clockid_t kMutexClock = CLOCK_MONOTONIC;
int LockUntil(pthread_mutex_t *ptMutex, const struct timespec &tEnd)
{
    return pthread_mutex_clocklock(ptMutex, kMutexClock, &tEnd);
}
#else
constexpr clockid_t kMutexClock = CLOCK_REALTIME;
int LockUntil(pthread_mutex_t *ptMutex, const struct timespec &tEnd)
{
    return pthread_mutex_timedlock(ptMutex, &tEnd);
}
#endif

[[gnu::noinline, gnu::cold]] bool TakeRecursiveUntil(HAppLock hLock, uint32_t dwTimeout)
{
    const struct timespec tEnd = app::Deadline(dwTimeout, kMutexClock).End();
    for (int i = 0; i < kAttempts; ++i) {
        const int nError = LockUntil(&hLock->tMutex, tEnd);
        if (nError == 0 || nError == ETIMEDOUT)
            return nError == 0;
    }
    return false;
}

inline bool TakeRecursive(HAppLock hLock, uint32_t dwTimeout)
{
    if (dwTimeout == 0)
        return pthread_mutex_lock(&hLock->tMutex) == 0;
    return pthread_mutex_trylock(&hLock->tMutex) == 0 || TakeRecursiveUntil(hLock, dwTimeout);
}

// Under tMutex.  One unit more; the bit stays while the next give has to wake someone, too.
void RaiseForSleepers(HAppLock hLock)
{
    const uint32_t dwMost = Least(hLock->dwSleepers, hLock->tWord.dwMaxCount);
    uint32_t dwCount = CountOf(hLock).load(std::memory_order_relaxed);
    uint32_t dwRaised;
    do {
        const uint32_t dwUnits = Least((dwCount & kMaxUnits) + 1, hLock->tWord.dwMaxCount);
        dwRaised = dwUnits < dwMost ? dwUnits | kSleepers : dwUnits;
    } while (!CountOf(hLock).compare_exchange_weak(dwCount, dwRaised, std::memory_order_release,
                                                   std::memory_order_relaxed));
}

[[gnu::noinline, gnu::cold]] uint32_t GiveSleeping(HAppLock hLock)
{
    {
        app::MutexGuard guard(hLock->tMutex);
        hLock->dwGivers.fetch_add(1, std::memory_order_relaxed);
        RaiseForSleepers(hLock);
    }
    // Signalled outside the mutex, so that the woken taker does not run into it.  That taker may
    // destroy the lock at once: AppLockDestroy waits for the count of givers, the last touch here.
    uint32_t dwResult = APP_OK;
    if (pthread_cond_signal(&hLock->tCond) != 0 && TryTake(hLock))
        dwResult = APP_FAILED; // nobody was woken and the unit is taken back
    hLock->dwGivers.fetch_sub(1, std::memory_order_release);
    return dwResult;
}

int InitRecursiveMutex(pthread_mutex_t *ptMutex)
{
    pthread_mutexattr_t tAttr;
    int nError = pthread_mutexattr_init(&tAttr);
    if (nError != 0)
        return nError;
    app::Rollback release([&] { pthread_mutexattr_destroy(&tAttr); });
    nError = pthread_mutexattr_settype(&tAttr, PTHREAD_MUTEX_RECURSIVE);
    return nError != 0 ? nError : pthread_mutex_init(ptMutex, &tAttr);
}

int InitMonotonicCond(pthread_cond_t *ptCond)
{
    pthread_condattr_t tAttr;
    int nError = pthread_condattr_init(&tAttr);
    if (nError != 0)
        return nError;
    app::Rollback release([&] { pthread_condattr_destroy(&tAttr); });
    nError = pthread_condattr_setclock(&tAttr, CLOCK_MONOTONIC);
    return nError != 0 ? nError : pthread_cond_init(ptCond, &tAttr);
}

[[gnu::cold]] int InitRecursive(HAppLock hLock, uint32_t dwInitCount)
{
    const int nError = InitRecursiveMutex(&hLock->tMutex);
    if (nError == 0 && dwInitCount == 0)
        pthread_mutex_lock(&hLock->tMutex);
    return nError;
}

[[gnu::cold]] int InitSemaphore(HAppLock hLock)
{
    int nError = pthread_mutex_init(&hLock->tMutex, nullptr);
    if (nError != 0)
        return nError;
    nError = InitMonotonicCond(&hLock->tCond);
    if (nError != 0)
        pthread_mutex_destroy(&hLock->tMutex);
    return nError;
}

} // namespace

[[gnu::cold]] uint32_t _AppLockCreate(HAppMemPool hMemPool, uint32_t dwMaxCount,
                                      uint32_t dwInitCount, uint32_t dwType, HAppLock *phLock)
{
    if (dwMaxCount == 0 || (dwType == APP_LOCK_TYPE_RECURSIVE && dwMaxCount > 1))
        return APP_INVALID_ARG;
    *phLock = nullptr;
    auto hLock = static_cast<HAppLock>(AppMemPoolMalloc(hMemPool, sizeof(TAppLock)));
    if (!hLock)
        return APP_NO_RESOURCE;
    app::Rollback release([&] { AppMemPoolFree(hLock); });
    hLock->dwType = dwType;
    hLock->tWord.dwMaxCount = dwType == APP_LOCK_TYPE_RECURSIVE ? 0 : Least(dwMaxCount, kMaxUnits);
    CountOf(hLock).store(Least(dwInitCount, hLock->tWord.dwMaxCount));
    hLock->dwSleepers = 0;
    hLock->dwGivers.store(0);
    if ((dwType == APP_LOCK_TYPE_RECURSIVE ? InitRecursive(hLock, dwInitCount)
                                           : InitSemaphore(hLock)) != 0)
        return APP_FAILED;
    release.Dismiss();
    *phLock = hLock;
    return APP_OK;
}

[[gnu::cold]] void _AppLockDestroy(HAppLock hLock)
{
    // Yields first; sleeps when that does not let the giver run (a caller of higher priority).
    for (int i = 0; hLock->dwGivers.load(std::memory_order_acquire) != 0; ++i)
        i < kAttempts ? sched_yield() : usleep(1000);
    if (hLock->dwType != APP_LOCK_TYPE_RECURSIVE)
        pthread_cond_destroy(&hLock->tCond);
    pthread_mutex_destroy(&hLock->tMutex);
    AppMemPoolFree(hLock);
}

uint32_t _AppLockTakeByTime(HAppLock hLock, uint32_t dwTimeout)
{
    const bool bTaken = hLock->dwType == APP_LOCK_TYPE_RECURSIVE
                            ? TakeRecursive(hLock, dwTimeout)
                            : TryTake(hLock) || TakeSleeping(hLock, dwTimeout);
    return bTaken ? APP_OK : APP_TIMEOUT;
}

uint32_t _AppLockGive(HAppLock hLock)
{
    if (hLock->dwType == APP_LOCK_TYPE_RECURSIVE) {
        pthread_mutex_unlock(&hLock->tMutex);
        return APP_OK;
    }
    uint32_t dwCount = CountOf(hLock).load(std::memory_order_relaxed);
    while (!(dwCount & kSleepers)) {
        if (dwCount == hLock->tWord.dwMaxCount)
            return APP_OK;
        // From here on a taker may destroy the lock: nothing is touched after the exchange.
        if (CountOf(hLock).compare_exchange_weak(dwCount, dwCount + 1, std::memory_order_release,
                                                 std::memory_order_relaxed))
            return APP_OK;
    }
    return GiveSleeping(hLock);
}
