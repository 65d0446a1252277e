// SPDX-License-Identifier: MIT
//
// The internal requests: going idle, ending, reuse.  Their handlers run in the task's thread.
// AppTaskTerminate() queues its request; the others lie in the task's record or are the thread's
// own decision, and need no memory.
#include "cross_linux/cross_linux.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

namespace
{

void GoOn(TAppTask *ptTask, uint32_t dwState, const char *szOp) APP_REQUIRES(ptTask->hLock)
{
    app::SetState(ptTask, dwState);
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: task %p go on state %s\n", szOp, app::Ptr(ptTask),
              _AppGetTaskStateString(dwState));
}

bool IsFull(const TAppDoubleList *ptList)
{
    return ptList->dwMaxSize != 0 && ptList->dwCurSize >= ptList->dwMaxSize;
}

// Under the manager's lock.
bool MoveToIdleList(TAppTask *ptTask)
{
    TAppTaskMgr *ptTaskMgr = ptTask->ptTaskMgr;
    if (IsFull(ptTaskMgr->hIdleTaskList)) {
        app::UnlistTask(ptTask, ptTaskMgr->hTaskList);
        return false;
    }
    app::MoveTask(ptTask, ptTaskMgr->hTaskList, ptTaskMgr->hIdleTaskList);
    return true;
}

// Somebody waits for the thread to leave: the task stays where it is, in its list or, when its
// creation has failed, in none.  Under the manager's lock.
void StayToLeave(const TAppTaskMgr *ptTaskMgr, const char *szOp) APP_REQUIRES(ptTaskMgr->hLock)
{
    if (ptTaskMgr->bQuit == 1)
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: taskmgr quiting...\n", szOp);
}

// Without the task's lock: whoever reports may hold the manager's for long, and those who send must
// be refused meanwhile, not kept waiting.  Nobody takes an idle task from the active ones.
void ParkTask(TAppTask *ptTask, const char *szOp)
{
    app::LockGuard guard(ptTask->ptTaskMgr);
    if (app::MustEnd(ptTask)) {
        StayToLeave(ptTask->ptTaskMgr, szOp);
    } else if (MoveToIdleList(ptTask)) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: go for idle\n", szOp);
    } else {
        app::LockGuard taskGuard(ptTask);
        app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_UNINIT);
        app::BeginLeaving(ptTask->ptTaskMgr);
    }
}

// Under the task's lock, which is given for the call.
void TellStop(TAppTask *ptTask) APP_REQUIRES(ptTask->hLock)
{
    if (PFAppTaskHandler pfnHandler = ptTask->pfnHandler) {
        void *pvContext = ptTask->pvContext;
        app::WithoutLock unlocked(ptTask);
        pfnHandler(ptTask, APP_TASK_EVENT_STOP, nullptr, pvContext);
    }
    ptTask->pfnHandler = nullptr;
}

} // namespace

uint32_t _AppTaskGoForIdleHandler(HAppTask hTask, uint32_t dwEventType, void *, void *)
{
    {
        app::LockGuard guard(hTask);
        const uint32_t dwState = app::Peek(hTask->dwState);
        if ((dwState != APP_TASK_STATE_IDLE && dwState != APP_TASK_STATE_PROCESSING) ||
            dwEventType != APP_TASK_EVENT_STOP) {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Invalid call. task %p state %s event type %d\n",
                   __func__, app::Ptr(hTask), _AppGetTaskStateString(dwState),
                   app::Int(dwEventType));
            return APP_INVALID_STATE;
        }
        // Before the timers end: a handler that sets its timer anew whatever it is told would
        // otherwise be told again and again.
        GoOn(hTask, APP_TASK_STATE_IDLE, __func__);
        app::CancelTimers(hTask->ptTimerMgr, true);
        {
            app::WithoutLock unlocked(hTask);
            app::DropEvents(hTask);
        }
        TellStop(hTask);
    }
    ParkTask(hTask, __func__);
    return APP_OK;
}

uint32_t _AppTaskGoForTerminateHandler(HAppTask hTask, uint32_t dwEventType, void *, void *)
{
    TAppTaskMgr *ptTaskMgr = hTask->ptTaskMgr;
    app::LockGuard mgrGuard(ptTaskMgr);
    app::LockGuard taskGuard(hTask);
    const uint32_t dwState = app::Peek(hTask->dwState);
    if ((dwState != APP_TASK_STATE_IDLE && dwState != APP_TASK_STATE_PROCESSING &&
         dwState != APP_TASK_STATE_TERMINATE) ||
        dwEventType != APP_TASK_EVENT_STOP) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Invalid call. task state %s event type %d\n",
               __func__, _AppGetTaskStateString(dwState), app::Int(dwEventType));
        return APP_INVALID_STATE;
    }
    GoOn(hTask, APP_TASK_STATE_TERMINATE, __func__);
    if (app::MustEnd(hTask)) {
        StayToLeave(ptTaskMgr, __func__);
    } else { // an idle task's own end
        app::UnlistTask(hTask, ptTaskMgr->hIdleTaskList);
        app::Poke<uint32_t>(hTask->dwState, APP_TASK_STATE_UNINIT);
        app::BeginLeaving(ptTaskMgr);
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: go for uninit\n", __func__);
    }
    return APP_OK;
}

uint32_t _AppTaskRefreshHandler(HAppTask hTask, uint32_t, void *, void *)
{
    if (!hTask)
        return APP_INVALID_ARG;
    app::LockGuard guard(hTask);
    // Nothing but the event being served is revived: a task that has ended since must not find that
    // it admits work.
    if (app::Peek(hTask->dwState) != APP_TASK_STATE_PROCESSING)
        return APP_INVALID_STATE;
    app::NameThread(hTask); // the thread is the same, and so is its id
    app::Poke<uint32_t>(hTask->dwState, APP_TASK_STATE_RUNNING);
    return APP_OK;
}
