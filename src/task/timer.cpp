// SPDX-License-Identifier: MIT
//
// The public operations of timers.  Setting one ends the wait of a thread that would sleep beyond
// its time-out; a reset only postpones.  An ended timer's handle may name a later timer of the same
// task, so that a late use reaches a live record, if the wrong one, as long as the task lives.
#include "task/timer.h"
#include "appcore/platform.h"
#include "task/task.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

namespace
{

[[gnu::cold]] TAppTask *RefuseTimer(const char *szOp)
{
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Invalid Arg\n", szOp);
    return nullptr;
}

// The task of a timer, or null with a line for what is not a timer.
TAppTask *FindTask(HAppTimer hTimer, const char *szOp)
{
    return hTimer && hTimer->ptTimerMgr && hTimer->ptTimerMgr->ptTask ? hTimer->ptTimerMgr->ptTask
                                                                      : RefuseTimer(szOp);
}

[[gnu::cold]] bool RefuseState(const TAppTask *ptTask, const char *szOp)
{
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Invalid state %s of task %p\n", szOp,
           _AppGetTaskStateString(app::Peek(ptTask->dwState)), app::Ptr(ptTask));
    return false;
}

// Under the task's lock.
inline bool AdmitsTimers(const TAppTask *ptTask, const char *szOp)
{
    return app::AdmitsWork(app::Peek(ptTask->dwState)) || RefuseState(ptTask, szOp);
}

} // namespace

HAppTimer AppTaskSetTimer(HAppTask hTask, uint32_t dwTimeout, PFAppTaskHandler pfnHandler,
                          void *pvContext)
{
    if (!hTask)
        return nullptr;
    HAppTimer hTimer = nullptr;
    bool bWake;
    {
        app::FastLockGuard guard(hTask);
        if (!AdmitsTimers(hTask, __func__))
            return nullptr;
        const uint32_t dwResult =
            _AppTimerMgrNewTimer(hTask->ptTimerMgr, dwTimeout, pfnHandler, pvContext, &hTimer);
        if (dwResult != APP_OK) {
            APP_LOG_RESULT(dwResult, "[ERROR] %s: _AppTimerMgrNewTimer failed %d\n", __func__);
            return nullptr;
        }
        bWake = app::EndWaitFor(hTask, hTimer->dwStartTick, dwTimeout);
    }
    // After the lock, so that the thread does not run into it; which, interrupted, does not leave
    // its wait before this.
    if (bWake)
        app::QueueWake(hTask->hEventQueue);
    return hTimer;
}

uint32_t AppTaskResetTimer(HAppTimer hTimer)
{
    TAppTask *ptTask = FindTask(hTimer, __func__);
    if (!ptTask)
        return APP_INVALID_ARG;
    app::LockGuard guard(ptTask);
    if (!AdmitsTimers(ptTask, __func__))
        return APP_INVALID_STATE;
    return _AppTaskResetTimer(hTimer);
}

void AppTaskCancelTimer(HAppTimer hTimer)
{
    if (!hTimer)
        return;
    TAppTask *ptTask = FindTask(hTimer, __func__);
    if (!ptTask)
        return;
    bool bLast;
    {
        app::FastLockGuard guard(ptTask);
        if (!AdmitsTimers(ptTask, __func__))
            return;
        // The handler runs without the lock: meanwhile the task may go idle and end, and its
        // record must wait for this call.
        ++ptTask->dwUsers;
        _AppTaskEndTimer(hTimer, APP_TASK_EVENT_TIMER_CANCEL, 1);
        bLast = app::DropUser(ptTask);
    }
    if (bLast)
        AppLockGive(ptTask->hExitLock); // the last touch: the record may be gone
}

[[gnu::cold]] uint32_t AppTaskTimerGetRemainTime(HAppTimer hTimer)
{
    TAppTask *ptTask = FindTask(hTimer, __func__);
    if (!ptTask)
        return 0;
    app::LockGuard guard(ptTask);
    if (!AdmitsTimers(ptTask, __func__))
        return 0;
    const uint32_t dwPassed = app::ElapsedMs(hTimer->dwStartTick, _AppGetTick());
    return hTimer->dwTimeout > dwPassed ? hTimer->dwTimeout - dwPassed : 0;
}
