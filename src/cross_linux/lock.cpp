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
//
// The recursive lock is such a semaphore with one unit, whose holder is known: so its waits are the
// semaphore's, on the monotonic clock with every C library.
#include <pthread.h>
#include <sched.h>
#include <stddef.h>
#include <unistd.h>

#include "appcore/log_fast.h"
#include "base/fast_tls.h"
#include "base/print.h"
#include "base/rollback.h"
#include "cross_linux/condition.h"
#include "cross_linux/cross_linux.h"
#include "cross_linux/deadline.h"
#include "cross_linux/lock_word.h"
#include "cross_linux/mutex_guard.h"

struct TAppLock {
    app::TLockWord tWord;
    uint32_t dwType;
    uint32_t dwSleepers;            // takers in the slow path; under tMutex
    std::atomic<uint32_t> dwGivers; // gives that have published their unit and still touch the lock
    TAppCondition tCond;            // takers sleep here
    pthread_mutex_t tMutex;         // guards sleeping
};

// Written by the holder alone, between its take and its give.  Others may look at the owner at any
// moment: a thread finds its own number there only while it holds the lock itself.
struct TRecursiveLock : TAppLock {
    std::atomic<uint32_t> dwOwner; // its number, 0 while nobody holds the lock
    uint32_t dwDepth;              // takes not yet given
};

static_assert(offsetof(TAppLock, tWord) == 0, "where the paths in line look for it");
#if UINTPTR_MAX == UINT32_MAX && defined(__GLIBC__)
static_assert(sizeof(TAppLock) == 24 + sizeof(pthread_mutex_t), "fixed layout");
static_assert(alignof(TAppLock) == 4, "at most what the pools' headers leave");
#endif

namespace
{

using app::kMaxUnits;
using app::kSleepers;

constexpr int kAttempts = 100;

// Threads that use recursive locks are numbered: unlike the system's, the number of one that has
// ended while it held a lock is not another's soon.
std::atomic<uint32_t> s_dwLastNumber;
__thread uint32_t t_dwNumber APP_FAST_TLS;

[[gnu::noinline, gnu::cold]] uint32_t TakeNumber()
{
    while (t_dwNumber == 0)
        t_dwNumber = s_dwLastNumber.fetch_add(1, std::memory_order_relaxed) + 1;
    return t_dwNumber;
}
inline uint32_t OwnNumber()
{
    return t_dwNumber != 0 ? t_dwNumber : TakeNumber();
}

inline bool IsRecursive(HAppLock hLock)
{
    return hLock->dwType == APP_LOCK_TYPE_RECURSIVE;
}

// The word says 0 of a recursive lock.
uint32_t MaxCountOf(HAppLock hLock)
{
    return IsRecursive(hLock) ? 1 : hLock->tWord.dwMaxCount;
}

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
        _AppConditionSignal(&hLock->tCond);
}

bool TakeUntil(HAppLock hLock, const app::Deadline &deadline)
{
    app::MutexGuard guard(hLock->tMutex);
    ++hLock->dwSleepers;
    bool bTaken = TakeOrMark(hLock);
    while (!bTaken) {
        _AppConditionWait(&hLock->tCond, &hLock->tMutex, deadline.End());
        bTaken = TakeOrMark(hLock);
        if (!bTaken && deadline.Passed())
            break;
    }
    LeaveSleepers(hLock);
    return bTaken;
}

// Out of line, like every path that may sleep: the fast paths need no frame then.
[[gnu::noinline, gnu::cold]] bool TakeSleeping(HAppLock hLock, uint32_t dwTimeout)
{
    // A word for who looks for a hang, and not for the others: a timer in the kernel is a tenth of a
    // short wait.
    constexpr uint32_t kWordMs = 30000;
    uint32_t dwMs = dwTimeout == 0 && AppLogPasses(0, APP_LOG_DEBUG) ? kWordMs : dwTimeout;
    while (!TakeUntil(hLock, app::Deadline(dwMs))) {
        if (dwTimeout != 0)
            return false;
        AppLog(0, APP_LOG_DEBUG, "[DEBUG] %s: lock %p has been waited for %lu ms, without limit\n",
               "AppLockTakeByTime", app::Ptr(hLock), app::Ul(kWordMs));
        dwMs = 0;
    }
    return true;
}

inline uint32_t TakeUnit(HAppLock hLock, uint32_t dwTimeout)
{
    return TryTake(hLock) || TakeSleeping(hLock, dwTimeout) ? APP_OK : APP_TIMEOUT;
}

void SetHolder(TRecursiveLock *ptLock, uint32_t dwNumber)
{
    ptLock->dwOwner.store(dwNumber, std::memory_order_relaxed);
    ptLock->dwDepth = 1;
}

// Out of line, so that the semaphore's way needs no frame.
[[gnu::noinline]] uint32_t TakeRecursive(TRecursiveLock *ptLock, uint32_t dwTimeout)
{
    const uint32_t dwSelf = OwnNumber();
    if (ptLock->dwOwner.load(std::memory_order_relaxed) == dwSelf) {
        if (ptLock->dwDepth == UINT32_MAX)
            return APP_TIMEOUT;
        ++ptLock->dwDepth;
        return APP_OK;
    }
    if (!app::TakeAtOnce(ptLock) && TakeUnit(ptLock, dwTimeout) != APP_OK)
        return APP_TIMEOUT;
    SetHolder(ptLock, dwSelf);
    return APP_OK;
}

// Under tMutex.  One unit more; the bit stays while the next give has to wake someone, too.
void RaiseForSleepers(HAppLock hLock)
{
    const uint32_t dwMaxCount = MaxCountOf(hLock);
    const uint32_t dwMost = Least(hLock->dwSleepers, dwMaxCount);
    uint32_t dwCount = CountOf(hLock).load(std::memory_order_relaxed);
    uint32_t dwRaised;
    do {
        const uint32_t dwUnits = Least((dwCount & kMaxUnits) + 1, dwMaxCount);
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
    if (_AppConditionSignal(&hLock->tCond) != 0) {
        CountOf(hLock).fetch_or(kSleepers, std::memory_order_relaxed); // for the next give
        if (!IsRecursive(hLock) && TryTake(hLock))
            dwResult = APP_FAILED; // nobody was woken and the unit is taken back
    }
    hLock->dwGivers.fetch_sub(1, std::memory_order_release);
    return dwResult;
}

inline uint32_t GiveUnit(HAppLock hLock, uint32_t dwMaxCount)
{
    uint32_t dwCount = CountOf(hLock).load(std::memory_order_relaxed);
    while (!(dwCount & kSleepers)) {
        if (dwCount == dwMaxCount)
            return APP_OK;
        // From here on a taker may destroy the lock: nothing is touched after the exchange.
        if (CountOf(hLock).compare_exchange_weak(dwCount, dwCount + 1, std::memory_order_release,
                                                 std::memory_order_relaxed))
            return APP_OK;
    }
    return GiveSleeping(hLock);
}

inline void GiveRecursive(TRecursiveLock *ptLock)
{
    const uint32_t dwOwner = ptLock->dwOwner.load(std::memory_order_relaxed);
    if (dwOwner == 0 || dwOwner != t_dwNumber || --ptLock->dwDepth != 0)
        return;
    ptLock->dwOwner.store(0, std::memory_order_relaxed);
    if (!app::GiveAtOnce(ptLock))
        GiveUnit(ptLock, 1);
}

} // namespace

[[gnu::cold]] uint32_t _AppLockCreate(HAppMemPool hMemPool, uint32_t dwMaxCount,
                                      uint32_t dwInitCount, uint32_t dwType, HAppLock *phLock)
{
    const bool bRecursive = dwType == APP_LOCK_TYPE_RECURSIVE;
    if (dwMaxCount == 0 || (bRecursive && dwMaxCount > 1))
        return APP_INVALID_ARG;
    *phLock = nullptr;
    auto hLock = static_cast<HAppLock>(
        AppMemPoolMalloc(hMemPool, bRecursive ? sizeof(TRecursiveLock) : sizeof(TAppLock)));
    if (!hLock)
        return APP_NO_RESOURCE;
    app::Rollback release([&] { AppMemPoolFree(hLock); });
    hLock->dwType = dwType;
    hLock->tWord.dwMaxCount = bRecursive ? 0 : Least(dwMaxCount, kMaxUnits);
    CountOf(hLock).store(Least(dwInitCount, MaxCountOf(hLock)));
    hLock->dwSleepers = 0;
    hLock->dwGivers.store(0);
    hLock->tCond.dwSignals.store(0);
    if (bRecursive)
        SetHolder(static_cast<TRecursiveLock *>(hLock), dwInitCount == 0 ? OwnNumber() : 0);
    if (pthread_mutex_init(&hLock->tMutex, nullptr) != 0)
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
    pthread_mutex_destroy(&hLock->tMutex);
    AppMemPoolFree(hLock);
}

uint32_t _AppLockTakeByTime(HAppLock hLock, uint32_t dwTimeout)
{
    if (!IsRecursive(hLock))
        return TakeUnit(hLock, dwTimeout);
    return TakeRecursive(static_cast<TRecursiveLock *>(hLock), dwTimeout);
}

uint32_t _AppLockGive(HAppLock hLock)
{
    if (!IsRecursive(hLock))
        return GiveUnit(hLock, hLock->tWord.dwMaxCount);
    GiveRecursive(static_cast<TRecursiveLock *>(hLock));
    return APP_OK;
}
