// SPDX-License-Identifier: MIT
//
// The internal requests: going idle, ending, reuse.  Their handlers run in the task's thread.
#include "appcore/mempool.h"
#include "cross_linux/cross_linux.h"
#include "task/task.h"
#include "utils/double_list.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

namespace
{

void SetState(TAppTask *ptTask, uint32_t dwState, const char *szOp)
{
    app::Poke<uint32_t>(ptTask->dwState, dwState);
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: task %p go on state %s\n", szOp, app::Ptr(ptTask),
              _AppGetTaskStateString(dwState));
}

// Under the task's lock, which is given for each call of a handler.
void EndTimers(TAppTask *ptTask)
{
    while (HAppDoubleListNode hNode = ptTask->ptTimerMgr->hTimerList->ptHead)
        _AppTaskEndTimer(static_cast<TAppTimer *>(hNode->pvData), APP_TASK_EVENT_TIMER_CANCEL, 1);
}

// Without the task's lock: no send is admitted any more, so the queue runs empty.
void DropEvents(TAppTask *ptTask)
{
    while (AppQueueGetSize(ptTask->hEventQueue) != 0) {
        void *pvEvent = nullptr;
        AppQueueOut(ptTask->hEventQueue, 0, &pvEvent);
        auto ptEvent = static_cast<TAppTaskEvent *>(pvEvent);
        if (ptEvent->pfnHandler == _AppTaskGoForTerminateHandler)
            ptTask->dwEnd.store(APP_TASK_END_NOW); // not lost: ends the thread after this handler
        else
            app::CallHandler(ptTask, *ptEvent, APP_TASK_EVENT_DROP);
        AppMemPoolFree(ptEvent);
    }
}

bool IsFull(const TAppDoubleList *ptList)
{
    return ptList->dwMaxSize != 0 && ptList->dwCurSize >= ptList->dwMaxSize;
}

// Under the manager's and the task's lock.  The node itself moves, so that an exhausted pool cannot
// cost the task.
bool MoveToIdleList(TAppTask *ptTask)
{
    TAppTaskMgr *ptTaskMgr = ptTask->ptTaskMgr;
    if (IsFull(ptTaskMgr->hIdleTaskList)) {
        AppDoubleListRemove(ptTaskMgr->hTaskList, ptTask->hListNode, nullptr);
        ptTask->hListNode = nullptr;
        return false;
    }
    _AppDoubleListDetachNode(ptTaskMgr->hTaskList, ptTask->hListNode);
    _AppDoubleListAttachNode(ptTaskMgr->hIdleTaskList, nullptr, ptTask->hListNode,
                             APP_ATTACH_AFTER);
    return true;
}

// Under the task's lock.
void ParkTask(TAppTask *ptTask, const char *szOp)
{
    app::LockGuard guard(ptTask->ptTaskMgr->hLock);
    if (ptTask->ptTaskMgr->bQuit == 1) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: taskmgr quiting...\n", szOp);
    } else if (ptTask->dwEnd.load() != APP_TASK_END_NOT) {
        // On no list: its creation has failed, and whoever disposes of it waits for the thread.
    } else if (MoveToIdleList(ptTask)) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: go for idle\n", szOp);
    } else {
        app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_UNINIT);
        app::BeginLeaving(ptTask->ptTaskMgr);
    }
}

// Under the task's lock, which is given for the call.
void TellStop(TAppTask *ptTask)
{
    if (PFAppTaskHandler pfnHandler = ptTask->pfnHandler) {
        void *pvContext = ptTask->pvContext;
        AppLockGive(ptTask->hLock);
        pfnHandler(ptTask, APP_TASK_EVENT_STOP, nullptr, pvContext);
        AppLockTakeByTime(ptTask->hLock, 0);
    }
    ptTask->pfnHandler = nullptr;
}

} // namespace

uint32_t _AppTaskGoForIdleHandler(HAppTask hTask, uint32_t dwEventType, void *, void *)
{
    app::LockGuard guard(hTask->hLock);
    const uint32_t dwState = app::Peek(hTask->dwState);
    if ((dwState != APP_TASK_STATE_IDLE && dwState != APP_TASK_STATE_PROCESSING) ||
        dwEventType != APP_TASK_EVENT_STOP) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Invalid call. task %p state %s event type %d\n",
               __func__, app::Ptr(hTask), _AppGetTaskStateString(dwState),
               static_cast<int>(dwEventType));
        return APP_INVALID_STATE;
    }
    // Before the timers end: a handler that sets its timer anew whatever it is told would
    // otherwise be told again and again.
    SetState(hTask, APP_TASK_STATE_IDLE, __func__);
    EndTimers(hTask);
    AppLockGive(hTask->hLock);
    DropEvents(hTask);
    AppLockTakeByTime(hTask->hLock, 0);
    TellStop(hTask);
    ParkTask(hTask, __func__);
    return APP_OK;
}

uint32_t _AppTaskGoForTerminateHandler(HAppTask hTask, uint32_t dwEventType, void *, void *)
{
    TAppTaskMgr *ptTaskMgr = hTask->ptTaskMgr;
    app::LockGuard mgrGuard(ptTaskMgr->hLock);
    app::LockGuard taskGuard(hTask->hLock);
    const uint32_t dwState = app::Peek(hTask->dwState);
    if ((dwState != APP_TASK_STATE_IDLE && dwState != APP_TASK_STATE_PROCESSING &&
         dwState != APP_TASK_STATE_TERMINATE) ||
        dwEventType != APP_TASK_EVENT_STOP) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Invalid call. task state %s event type %d\n",
               __func__, _AppGetTaskStateString(dwState), static_cast<int>(dwEventType));
        return APP_INVALID_STATE;
    }
    SetState(hTask, APP_TASK_STATE_TERMINATE, __func__);
    if (ptTaskMgr->bQuit == 1) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: taskmgr quiting...\n", __func__);
    } else if (hTask->dwEnd.load() == APP_TASK_END_NOT) {
        AppDoubleListRemove(ptTaskMgr->hIdleTaskList, hTask->hListNode, nullptr);
        hTask->hListNode = nullptr;
        app::Poke<uint32_t>(hTask->dwState, APP_TASK_STATE_UNINIT);
        app::BeginLeaving(ptTaskMgr);
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: go for uninit\n", __func__);
    }
    // Otherwise whoever set dwEnd waits for hExitLock and destroys the task.
    return APP_OK;
}

uint32_t _AppTaskRefreshHandler(HAppTask hTask, uint32_t, void *, void *)
{
    if (!hTask)
        return APP_INVALID_ARG;
    app::LockGuard guard(hTask->hLock);
    const uint32_t dwState = app::Peek(hTask->dwState);
    // Dropped while the task is destroyed: neither does the destroying thread take the task's name,
    // nor may what is told next find a task that admits work.
    if (dwState == APP_TASK_STATE_TERMINATE || dwState == APP_TASK_STATE_UNINIT)
        return APP_INVALID_STATE;
    app::Poke(hTask->nThreadId, _AppThreadGetTID());
    _AppThreadSetName(hTask->szTaskName ? hTask->szTaskName : "");
    app::Poke<uint32_t>(hTask->dwState, APP_TASK_STATE_RUNNING);
    return APP_OK;
}

void _AppTaskDropEventCB(void *pvEvent, void *pvTask)
{
    if (!pvEvent || !pvTask)
        return;
    app::CallHandler(static_cast<TAppTask *>(pvTask), *static_cast<TAppTaskEvent *>(pvEvent),
                     APP_TASK_EVENT_DROP);
    AppMemPoolFree(pvEvent);
}
