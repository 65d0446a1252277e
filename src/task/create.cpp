// SPDX-License-Identifier: MIT
//
// Creation of a task record, and its refreshing for a new owner.
//
// All of it comes from the manager's pool but the task's own pool, which has no lock: only handlers
// of this task use it, one after the other, in its thread.
#include <new>

#include "appcore/platform.h"
#include "base/rollback.h"
#include "cross_linux/cross_linux.h"
#include "mempool/mempool.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

namespace
{

constexpr uint32_t kFirstWaitMs = 300; // so that short idle time-outs are noticed in time

// A failed copy leaves the task without a name.
char *CopyName(const TAppTaskMgr *ptTaskMgr, const char *szTaskName)
{
    return AppStrndup(ptTaskMgr->hMemPool, szTaskName, AppStrlen(szTaskName) + 1);
}

// What others see of the name.
void NameRecords(TAppTask *ptTask, const char *szTaskName)
{
    app::SetName(szTaskName, &ptTask->tEntry, &ptTask->hMemPool->tEntry,
                 &ptTask->hEventQueue->tEntry);
}

uint32_t CreateMembers(TAppTask *ptTask, uint32_t dwMaxEvent, uint32_t dwMemPoolSize,
                       const char *szOp)
{
    HAppMemPool hMgrPool = ptTask->ptTaskMgr->hMemPool;
    uint32_t dwResult = AppMemPoolCreate(dwMemPoolSize, 0, 0, &ptTask->hMemPool);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: AppMemPoolCreate failed %d\n", szOp);
        return dwResult;
    }
    dwResult = AppLockCreate(hMgrPool, 1, 1, APP_LOCK_TYPE_SEM, &ptTask->hLock);
    if (dwResult == APP_OK)
        dwResult = AppLockCreate(hMgrPool, 1, 0, APP_LOCK_TYPE_SEM, &ptTask->hExitLock);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: AppLockCreate failed %d\n", szOp);
        return dwResult;
    }
    dwResult = app::QueueCreateForRecords(hMgrPool, dwMaxEvent, sizeof(TAppTaskEvent),
                                          &ptTask->hEventQueue);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: AppQueueCreate failed %d\n", szOp);
        return dwResult;
    }
    app::AssertAlone(ptTask);
    dwResult = _AppTimerMgrCreate(hMgrPool, ptTask, ptTask->pfnHandler, ptTask->pvContext,
                                  &ptTask->ptTimerMgr);
    if (dwResult != APP_OK)
        APP_LOG_RESULT(dwResult, "[ERROR] %s: _AppTimerMgrCreate failed %d\n", szOp);
    return dwResult;
}

} // namespace

uint32_t _AppTaskCreate(TAppTaskMgr *ptTaskMgr, const char *szTaskName, uint32_t dwMaxEvent,
                        uint32_t dwStackSize, uint32_t dwMemPoolSize, uint32_t dwIdleTimeout,
                        PFAppTaskHandler pfnHandler, void *pvContext, HAppTask *phTask)
{
    auto ptTask = static_cast<TAppTask *>(AppMemPoolMalloc(ptTaskMgr->hMemPool, sizeof(TAppTask)));
    if (!ptTask) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", __func__);
        return APP_NO_RESOURCE;
    }
    app::Rollback undo([&] { _AppTaskDestroy(ptTask); });
    new (ptTask) TAppTask{};
    app::AssertAlone(ptTask);
    ptTask->ptTaskMgr = ptTaskMgr;
    app::Poke(ptTask->dwIdleTimeout, dwIdleTimeout);
    ptTask->pfnHandler = pfnHandler;
    ptTask->pvContext = pvContext;
    ptTask->szTaskName = CopyName(ptTaskMgr, szTaskName);
    ptTask->dwUsers = 1; // the thread
    uint32_t dwResult = CreateMembers(ptTask, dwMaxEvent, dwMemPoolSize, __func__);
    if (dwResult != APP_OK)
        return dwResult;
    NameRecords(ptTask, szTaskName);
    app::Poke(ptTask->tRun.dwSinceTick, _AppGetTick());
    app::Register(APP_REGISTRY_TASKS, &ptTask->tEntry, ptTask);
    // Last, since a thread cannot be taken back.
    dwResult = _AppThreadCreate(AppTask, dwStackSize, ptTask);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: _AppThreadCreate failed %d\n", __func__);
        return dwResult;
    }
    undo.Dismiss(); // the thread runs: the record ends by way of it only
    *phTask = ptTask;
    return APP_OK;
}

[[gnu::noinline]] uint32_t app::Start(TAppTask *ptTask)
{
    LockGuard guard(ptTask);
    NameThread(ptTask);
    Poke(ptTask->nThreadId, _AppThreadGetTID());
    Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_RUNNING);
    ptTask->dwLastEventTick = _AppGetTick();
    AssertHeld(ptTask->ptTimerMgr->ptTask);
    // Timers may have been set already; they are run when the wait is over.
    return Announce(ptTask, ptTask->dwLastEventTick,
                    NextTimeoutMs(ptTask->ptTimerMgr, kFirstWaitMs));
}

// With the task's lock.  The state is IDLE until the new owner's handler is in place.
uint32_t _AppTaskRefreshArg(TAppTask *ptTask, const char *szTaskName, uint32_t dwMaxEvent,
                            uint32_t dwIdleTimeout, PFAppTaskHandler pfnHandler, void *pvContext,
                            bool *pbWake)
{
    // First, since it is the one step that may be refused.
    const uint32_t dwResult = _AppQueueChangeMaxSize(ptTask->hEventQueue, dwMaxEvent);
    if (dwResult != APP_OK) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: new size %lu is Invalid\n", __func__,
               app::Ul(dwMaxEvent));
        return dwResult;
    }
    AppMemPoolFree(ptTask->szTaskName);
    ptTask->szTaskName = CopyName(ptTask->ptTaskMgr, szTaskName);
    NameRecords(ptTask, szTaskName);
    app::Poke(ptTask->dwIdleTimeout, dwIdleTimeout);
    app::AssertHeld(ptTask);
    app::AssertHeld(ptTask->ptTimerMgr->ptTask);
    ptTask->pfnHandler = ptTask->ptTimerMgr->pfnHandler = pfnHandler;
    ptTask->pvContext = ptTask->ptTimerMgr->pvContext = pvContext;
    {
        // One step, for whoever sends with a handle of the last owner's: what is admitted from here
        // on is served after the refresh.
        app::LockGuard guard(ptTask->hEventQueue);
        app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_RUNNING);
        ptTask->dwRequests.fetch_or(APP_TASK_REQUEST_REFRESH);
    }
    // Until the thread has served this it sends the task neither idle nor to its end: the new
    // owner's idle time-out runs from there.
    *pbWake = app::QueuePlaceInterrupt(ptTask->hEventQueue);
    return APP_OK;
}
