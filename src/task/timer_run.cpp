// SPDX-License-Identifier: MIT
//
// The run of a task's timers.  Timers expire in the order in which they were set, counted again
// from the head after each expiry, because a handler may have set, reset or cancelled any of them.
//
// Two short cuts keep that affordable without changing the order.  The timer manager remembers an
// instant before which no timer can be due: a run before it looks at no timer at all, and the walk
// goes on behind an expired timer, instead of starting again, as long as that instant shows that
// none of the timers passed over has become due.  Setting a timer moves the instant forward;
// cancelling or resetting one leaves it too early, which costs a look and nothing else.
#include "appcore/platform.h"
#include "base/field.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/double_list.h"
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
constexpr uint32_t kMsPerTick = 10;

// The first tick that lies so long after another.
uint32_t TickAfter(uint32_t dwTick, uint32_t dwMs)
{
    return dwTick + dwMs / kMsPerTick + (dwMs % kMsPerTick != 0);
}

// Milliseconds until a timer may be due.
uint32_t LeftMs(const TAppTimerMgr *ptTimerMgr, uint32_t dwNowTick)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    const uint32_t dwPassed = app::ElapsedMs(ptTimerMgr->dwCheckTick, dwNowTick);
    return ptTimerMgr->dwCheckWait > dwPassed ? ptTimerMgr->dwCheckWait - dwPassed : 0;
}

void StartWalk(TAppTimerMgr *ptTimerMgr, uint32_t dwNowTick) APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    ptTimerMgr->hNext = ptTimerMgr->hTimerList->ptHead;
    ptTimerMgr->dwCheckTick = dwNowTick;
    ptTimerMgr->dwCheckWait = kNever;
}

// Looks at one timer; true when it is due.
bool IsDue(TAppTimerMgr *ptTimerMgr, const TAppTimer *ptTimer, uint32_t dwNowTick, const char *szOp)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    const uint32_t dwPassed = app::ElapsedMs(ptTimer->dwStartTick, dwNowTick);
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: Timer %p timeout %lu passed %lu %lu %lu\n", szOp,
              app::Ptr(ptTimer), app::Ul(ptTimer->dwTimeout), app::Ul(dwPassed),
              app::Ul(ptTimer->dwStartTick), app::Ul(dwNowTick));
    if (ptTimer->dwTimeout <= dwPassed)
        return true;
    app::NoteTimeout(ptTimerMgr, dwNowTick, ptTimer->dwTimeout - dwPassed);
    return false;
}

// A handler that sets its timer anew must not hold the thread for ever: neither from its end, which
// tells what is left, nor from the events that wait.
bool MustStop(const TAppTimerMgr *ptTimerMgr, const TAppTimer *ptTimer, uint32_t dwNowTick)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    return app::MustEnd(ptTimerMgr->ptTask) ||
           (ptTimer->dwRun == ptTimerMgr->dwRun &&
            app::ElapsedMs(ptTimerMgr->dwRunTick, dwNowTick) >= kRearmedMs);
}

void Walk(TAppTimerMgr *ptTimerMgr, const char *szOp) APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    uint32_t dwNowTick = AppGetTick();
    ptTimerMgr->dwRunTick = dwNowTick;
    StartWalk(ptTimerMgr, dwNowTick);
    while (ptTimerMgr->hNext) {
        auto ptTimer = static_cast<TAppTimer *>(ptTimerMgr->hNext->pvData);
        ptTimerMgr->hNext = ptTimerMgr->hNext->ptNext;
        if (!IsDue(ptTimerMgr, ptTimer, dwNowTick, szOp))
            continue;
        if (MustStop(ptTimerMgr, ptTimer, dwNowTick)) {
            ptTimerMgr->dwCheckWait = 0;
            break;
        }
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: Timer %p Timeout\n", szOp, app::Ptr(ptTimer));
        _AppTaskEndTimer(ptTimer, APP_TASK_EVENT_TIMEOUT, 1);
        dwNowTick = AppGetTick();
        if (LeftMs(ptTimerMgr, dwNowTick) == 0)
            StartWalk(ptTimerMgr, dwNowTick);
    }
    ptTimerMgr->hNext = nullptr;
}

} // namespace

void app::NoteTimeout(TAppTimerMgr *ptTimerMgr, uint32_t dwNowTick, uint32_t dwTimeout)
{
    const uint32_t dwLeft = LeftMs(ptTimerMgr, dwNowTick);
    ptTimerMgr->dwCheckTick = dwNowTick;
    ptTimerMgr->dwCheckWait = dwLeft < dwTimeout ? dwLeft : dwTimeout;
    SetCounter(ptTimerMgr->dwDueTick, TickAfter(dwNowTick, ptTimerMgr->dwCheckWait));
}

// Relaxed reads are enough: nothing is concluded from them but whether to take the lock, which shows
// the rest.  What this thread has set itself it sees, and what another sets now is looked for later.
bool app::TimersMayBeDue(const TAppTimerMgr *ptTimerMgr) APP_NO_ANALYSIS
{
    return PeekCounter(ptTimerMgr->hTimerList->dwCurSize) != 0 &&
           static_cast<int32_t>(AppGetTick() - PeekCounter(ptTimerMgr->dwDueTick)) >= 0;
}

uint32_t app::NextTimeoutMs(const TAppTimerMgr *ptTimerMgr, uint32_t dwMost)
{
    if (ptTimerMgr->hTimerList->dwCurSize == 0)
        return dwMost;
    const uint32_t dwLeft = LeftMs(ptTimerMgr, AppGetTick());
    if (dwLeft == 0) // 0 would be a wait without end
        return 1;
    return dwLeft < dwMost ? dwLeft : dwMost;
}

HAppDoubleListNode app::UnlistTimer(TAppTimer *ptTimer)
{
    TAppTimerMgr *ptTimerMgr = ptTimer->ptTimerMgr;
    AssertHeld(ptTimerMgr->ptTask);
    HAppDoubleListNode hNode = ptTimer->hListNode;
    if (ptTimerMgr->hNext == hNode)
        ptTimerMgr->hNext = hNode->ptNext;
    if (ptTimerMgr->hShown == hNode)
        ptTimerMgr->hShown = hNode->ptNext;
    _AppDoubleListDetachNode(ptTimerMgr->hTimerList, hNode);
    ptTimer->hListNode = nullptr;
    ptTimer->dwState = 0;
    return hNode;
}

uint32_t _AppTimerMgrRun(TAppTimerMgr *ptTimerMgr)
{
    if (!ptTimerMgr || !ptTimerMgr->hTimerList)
        return kLongestWaitMs;
    app::AssertHeld(ptTimerMgr->ptTask);
    if (ptTimerMgr->hTimerList->dwCurSize != 0 && LeftMs(ptTimerMgr, AppGetTick()) == 0) {
        ++ptTimerMgr->dwRun;
        Walk(ptTimerMgr, __func__);
        ++ptTimerMgr->dwRun;
        app::SetCounter(ptTimerMgr->dwDueTick,
                        TickAfter(ptTimerMgr->dwCheckTick, ptTimerMgr->dwCheckWait));
    }
    return app::NextTimeoutMs(ptTimerMgr, kLongestWaitMs);
}
