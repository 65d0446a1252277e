// SPDX-License-Identifier: MIT
//
// The task's thread.
#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "cross_linux/cross_linux.h"
#include "task/task.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

namespace
{

constexpr uint32_t kFirstWaitMs = 300;

void Start(TAppTask *ptTask)
{
    app::LockGuard guard(ptTask->hLock);
    app::Poke(ptTask->nThreadId, _AppThreadGetTID());
    _AppThreadSetName(ptTask->szTaskName ? ptTask->szTaskName : "");
    app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_RUNNING);
    ptTask->dwLastEventTick = AppGetTick();
}

void TraceWait(TAppTask *ptTask, uint32_t dwWait, const char *szOp)
{
    if (APP_LOG_DEBUG > app::Peek(g_byAppLogLevel[0]))
        return;
    app::LockGuard guard(ptTask->hLock); // a new owner replaces the name
    AppLog(0, APP_LOG_DEBUG, "[DEBUG] %s: task %p %lu  szTaskName(%s)\n", szOp, app::Ptr(ptTask),
           app::Ul(dwWait), ptTask->szTaskName ? ptTask->szTaskName : "");
}

void Serve(TAppTask *ptTask, const TAppTaskEvent &event)
{
    {
        app::LockGuard guard(ptTask->hLock);
        ptTask->dwLastEventTick = AppGetTick();
        if (event.pfnHandler)
            app::RecordEvent(ptTask, event.dwEventType, event.pvArg, event.pfnHandler,
                             event.pvContext);
        else
            app::RecordEvent(ptTask, event.dwEventType, event.pvArg, ptTask->pfnHandler,
                             ptTask->pvContext);
        if (app::Peek(ptTask->dwState) == APP_TASK_STATE_RUNNING)
            app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_PROCESSING);
    }
    app::CallHandler(ptTask, event, event.dwEventType);
}

// Looks at the state that a handler has left behind; false when the thread has to leave.
bool AfterEvent(TAppTask *ptTask, uint32_t *pdwWait)
{
    app::LockGuard guard(ptTask->hLock);
    const uint32_t dwState = app::Peek(ptTask->dwState);
    if (dwState == APP_TASK_STATE_TERMINATE || dwState == APP_TASK_STATE_UNINIT)
        return false;
    if (dwState == APP_TASK_STATE_PROCESSING)
        app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_RUNNING);
    *pdwWait = _AppTimerMgrRun(ptTask->ptTimerMgr);
    return true;
}

// Under the task's lock: changes the state and queues the request that carries it out.  When the
// request cannot be queued the state goes back, and the next wake-up tries again.
void Request(TAppTask *ptTask, uint32_t dwState, PFAppTaskHandler pfnHandler)
{
    const uint32_t dwBefore = app::Peek(ptTask->dwState);
    const TAppTaskEvent event = {APP_TASK_EVENT_STOP, nullptr, pfnHandler, nullptr};
    app::Poke<uint32_t>(ptTask->dwState, dwState);
    if (_AppTaskSendEvent(ptTask, &event, APP_TASK_PRIORITY_REQUEST, 1) != APP_OK)
        app::Poke<uint32_t>(ptTask->dwState, dwBefore);
}

bool HasPassed(uint32_t dwTimeout, uint32_t dwElapsedMs)
{
    return dwTimeout != 0 && dwElapsedMs > dwTimeout;
}

// After a wait that ended without an event.
void AfterWait(TAppTask *ptTask, uint32_t *pdwWait)
{
    app::LockGuard guard(ptTask->hLock);
    const uint32_t dwElapsed = app::ElapsedMs(ptTask->dwLastEventTick, AppGetTick());
    // An event that was queued since the wait ended counts: sends hold the lock held here.
    const bool bQuiet = AppQueueGetSize(ptTask->hEventQueue) == 0;
    if (bQuiet && app::Peek(ptTask->dwState) == APP_TASK_STATE_RUNNING &&
        HasPassed(app::Peek(ptTask->dwIdleTimeout), dwElapsed))
        Request(ptTask, APP_TASK_STATE_IDLE, _AppTaskGoForIdleHandler);
    else if (bQuiet && app::Peek(ptTask->dwState) == APP_TASK_STATE_IDLE && !ptTask->bClaimed &&
             HasPassed(ptTask->ptTaskMgr->dwIdleTaskTimeout, dwElapsed))
        Request(ptTask, APP_TASK_STATE_TERMINATE, _AppTaskGoForTerminateHandler);
    *pdwWait = _AppTimerMgrRun(ptTask->ptTimerMgr);
}

// One turn of the loop; false when the thread has to leave.
bool ServeNext(TAppTask *ptTask, uint32_t *pdwWait, const char *szOp)
{
    TraceWait(ptTask, *pdwWait, szOp);
    void *pvEvent = nullptr;
    if (ptTask->dwEnd.load() != APP_TASK_END_NOW &&
        AppQueueOut(ptTask->hEventQueue, *pdwWait, &pvEvent) == APP_OK) {
        Serve(ptTask, *static_cast<TAppTaskEvent *>(pvEvent));
        const bool bStay = AfterEvent(ptTask, pdwWait);
        AppMemPoolFree(pvEvent);
        return bStay;
    }
    if (ptTask->dwEnd.load() == APP_TASK_END_NOW) {
        Serve(ptTask, {APP_TASK_EVENT_STOP, nullptr, _AppTaskGoForTerminateHandler, nullptr});
        return AfterEvent(ptTask, pdwWait);
    }
    AfterWait(ptTask, pdwWait);
    return true;
}

void Leave(TAppTask *ptTask)
{
    const bool bOwner =
        app::Peek(ptTask->dwState) == APP_TASK_STATE_UNINIT; // no one else will destroy it
    TAppTaskMgr *ptTaskMgr = ptTask->ptTaskMgr;
    if (!bOwner) {
        // The destroyer frees the record as soon as it has hExitLock: nothing is touched after
        // this, neither the record nor the manager nor its pool.
        app::DropVisitor(ptTask);
        return;
    }
    if (!app::DropUser(ptTask))
        AppLockTakeByTime(ptTask->hExitLock, 0);
    _AppTaskDestroy(ptTask);
    app::EndLeaving(ptTaskMgr);
}

} // namespace

void app::CallHandler(TAppTask *ptTask, const TAppTaskEvent &event, uint32_t dwEventType)
{
    if (event.pfnHandler)
        event.pfnHandler(ptTask, dwEventType, event.pvArg, event.pvContext);
    else if (ptTask->pfnHandler)
        ptTask->pfnHandler(ptTask, dwEventType, event.pvArg, ptTask->pvContext);
}

void *AppTask(void *pvTask)
{
    auto ptTask = static_cast<TAppTask *>(pvTask);
    if (ptTask) {
        Start(ptTask);
        uint32_t dwWait = kFirstWaitMs;
        while (ServeNext(ptTask, &dwWait, __func__)) {
        }
        Leave(ptTask);
    }
    _AppThreadExit();
    return nullptr;
}
