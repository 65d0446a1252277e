// SPDX-License-Identifier: MIT
//
// The run of a task's timers.  Timers expire in the order in which they were set, counted again
// from the head of the list after each expiry, because a handler may have set, reset or cancelled
// any of them.
//
// No run walks over the list for that.  The timers wait in a heap by due tick; each step moves what
// has become due into a heap by the order of setting, whose first timer is the one that a walk from
// the head would find.  Resetting a timer leaves it where it is: found too early in either heap, it
// is put back with the time that is left.  So what is not due costs nothing.
#include "appcore/platform.h"
#include "base/field.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

namespace
{

// After this long the thread looks at its time-outs, and at timers that nobody has woken it for.
constexpr uint32_t kLongestWaitMs = 5000;
constexpr uint32_t kNever = 0xFFFFFFFF;
// How long timers that were set during the run may hold back the task's events.  A count of
// expiries would be no bound: their handlers take time.
constexpr uint32_t kRearmedMs = 50;

uint32_t LeftMs(const TAppTimer *ptTimer, uint32_t dwNowTick)
{
    const uint32_t dwPassed = app::ElapsedMs(ptTimer->dwStartTick, dwNowTick);
    return ptTimer->dwTimeout > dwPassed ? ptTimer->dwTimeout - dwPassed : 0;
}

// Milliseconds until a timer may be due; whole ticks, since none becomes due between two.
[[gnu::noinline]] uint32_t NextMs(const TAppTimerMgr *ptTimerMgr, uint32_t dwNowTick)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    const TAppTimer *ptTimer = ptTimerMgr->tWaiting.ptRoot;
    if (ptTimerMgr->tDue.ptRoot || (ptTimer && app::HasCome(ptTimer->dwDueTick, dwNowTick)))
        return 0;
    const uint32_t dwTicks = ptTimer ? ptTimer->dwDueTick - dwNowTick : kNever;
    return dwTicks < kNever / APP_MS_PER_TICK ? dwTicks * APP_MS_PER_TICK : kNever;
}

// 0 would be a wait without end.
uint32_t Bounded(uint32_t dwMs, uint32_t dwMost)
{
    if (dwMs == 0)
        return 1;
    return dwMs < dwMost ? dwMs : dwMost;
}

// The first tick so long after another.
uint32_t TickAfter(uint32_t dwTick, uint32_t dwMs)
{
    return dwTick + dwMs / APP_MS_PER_TICK + (dwMs % APP_MS_PER_TICK != 0);
}

// Into the heap where it belongs with so much time left.
void Place(TAppTimerMgr *ptTimerMgr, TAppTimer *ptTimer, uint32_t dwNowTick, uint32_t dwLeft)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    ptTimer->dwDueTick = TickAfter(dwNowTick, dwLeft);
    app::InsertTimer(dwLeft == 0 ? &ptTimerMgr->tDue : &ptTimerMgr->tWaiting, ptTimer);
}

// After a reset a timer is found before it is due.  Elapsed milliseconds wrap, too: one whose
// time-out is near 2^32 may have been due and have most of it ahead again.
[[gnu::noinline]] void PlaceAnew(TAppTimerMgr *ptTimerMgr, TAppTimer *ptTimer, uint32_t dwNowTick)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    app::RemoveTimer(ptTimer);
    Place(ptTimerMgr, ptTimer, dwNowTick, LeftMs(ptTimer, dwNowTick));
}

bool IsDue(TAppTimerMgr *ptTimerMgr, const TAppTimer *ptTimer, uint32_t dwNowTick, const char *szOp)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    const uint32_t dwPassed = app::ElapsedMs(ptTimer->dwStartTick, dwNowTick);
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: Timer %p timeout %lu passed %lu %lu %lu\n", szOp,
              app::Ptr(ptTimer), app::Ul(ptTimer->dwTimeout), app::Ul(dwPassed),
              app::Ul(ptTimer->dwStartTick), app::Ul(dwNowTick));
    if (ptTimer->dwTimeout > dwPassed)
        return false;
    const uint32_t dwLate = dwPassed - ptTimer->dwTimeout;
    if (dwLate > ptTimerMgr->dwMostLate)
        app::SetCounter(ptTimerMgr->dwMostLate, dwLate);
    return true;
}

// Of the timers that are due, the one that was set first; null when none is.
TAppTimer *FirstDue(TAppTimerMgr *ptTimerMgr, uint32_t dwNowTick, const char *szOp)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    TAppTimer *ptTimer = ptTimerMgr->tWaiting.ptRoot;
    while (ptTimer && app::HasCome(ptTimer->dwDueTick, dwNowTick)) {
        PlaceAnew(ptTimerMgr, ptTimer, dwNowTick);
        ptTimer = ptTimerMgr->tWaiting.ptRoot;
    }
    ptTimer = ptTimerMgr->tDue.ptRoot;
    while (ptTimer && !IsDue(ptTimerMgr, ptTimer, dwNowTick, szOp)) {
        PlaceAnew(ptTimerMgr, ptTimer, dwNowTick);
        ptTimer = ptTimerMgr->tDue.ptRoot;
    }
    return ptTimer;
}

// A handler that sets its timer anew must not hold the thread for ever: neither from its end, which
// tells what is left, nor from the events that wait.
bool MustStop(const TAppTimerMgr *ptTimerMgr, const TAppTimer *ptTimer, uint32_t dwNowTick)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    return app::MustEnd(ptTimerMgr->ptTask) ||
           (ptTimer->qwOrder > ptTimerMgr->qwRunOrder &&
            app::ElapsedMs(ptTimerMgr->dwRunTick, dwNowTick) >= kRearmedMs);
}

// Returns the tick of the last look.
uint32_t ExpireDue(TAppTimerMgr *ptTimerMgr, uint32_t dwNowTick, const char *szOp)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    ptTimerMgr->dwRunTick = dwNowTick;
    ptTimerMgr->qwRunOrder = ptTimerMgr->qwOrder;
    TAppTimer *ptTimer = FirstDue(ptTimerMgr, dwNowTick, szOp);
    while (ptTimer && !MustStop(ptTimerMgr, ptTimer, dwNowTick)) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: Timer %p Timeout\n", szOp, app::Ptr(ptTimer));
        app::SetCounter(ptTimerMgr->dwExpired, ptTimerMgr->dwExpired + 1);
        app::BeginRun(ptTimerMgr->ptTask,
                      ptTimer->pfnHandler ? ptTimer->pfnHandler : ptTimerMgr->pfnHandler);
        _AppTaskEndTimer(ptTimer, APP_TASK_EVENT_TIMEOUT, 1);
        dwNowTick = _AppGetTick();
        app::EndRun(ptTimerMgr->ptTask, dwNowTick);
        ptTimer = FirstDue(ptTimerMgr, dwNowTick, szOp);
    }
    return dwNowTick;
}

} // namespace

void app::OrderTimer(TAppTimerMgr *ptTimerMgr, TAppTimer *ptTimer)
{
    const uint32_t dwDueTick = TickAfter(ptTimer->dwStartTick, ptTimer->dwTimeout);
    if (ptTimerMgr->hTimerList->dwCurSize == 1 || !HasCome(ptTimerMgr->dwLookTick, dwDueTick))
        SetCounter(ptTimerMgr->dwLookTick, dwDueTick);
    ptTimer->qwOrder = ++ptTimerMgr->qwOrder;
    SetCounter(ptTimerMgr->dwSet, static_cast<uint32_t>(ptTimer->qwOrder));
    Place(ptTimerMgr, ptTimer, ptTimer->dwStartTick, ptTimer->dwTimeout);
}

// Relaxed reads are enough: nothing is concluded from them but whether to take the lock, which shows
// the rest.  What this thread has set itself it sees, and what another sets now is looked for later.
bool app::TimersMayBeDue(const TAppTimerMgr *ptTimerMgr) APP_NO_ANALYSIS
{
    return PeekCounter(ptTimerMgr->hTimerList->dwCurSize) != 0 &&
           HasCome(PeekCounter(ptTimerMgr->dwLookTick), _AppNoteTick());
}

uint32_t app::NextTimeoutMs(const TAppTimerMgr *ptTimerMgr, uint32_t dwMost)
{
    return ptTimerMgr->hTimerList->dwCurSize == 0
               ? dwMost
               : Bounded(NextMs(ptTimerMgr, _AppNoteTick()), dwMost);
}

uint32_t _AppTimerMgrRun(TAppTimerMgr *ptTimerMgr)
{
    if (!ptTimerMgr || !ptTimerMgr->hTimerList)
        return kLongestWaitMs;
    app::AssertHeld(ptTimerMgr->ptTask);
    if (ptTimerMgr->hTimerList->dwCurSize == 0)
        return kLongestWaitMs;
    if (app::MustEnd(ptTimerMgr->ptTask))
        return 1;
    uint32_t dwNowTick = _AppNoteTick();
    if (NextMs(ptTimerMgr, dwNowTick) == 0)
        dwNowTick = ExpireDue(ptTimerMgr, dwNowTick, __func__);
    const TAppTimer *ptNext = ptTimerMgr->tWaiting.ptRoot;
    app::SetCounter(ptTimerMgr->dwLookTick,
                    ptTimerMgr->tDue.ptRoot || !ptNext ? dwNowTick : ptNext->dwDueTick);
    return Bounded(NextMs(ptTimerMgr, dwNowTick), kLongestWaitMs);
}
