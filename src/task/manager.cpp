// SPDX-License-Identifier: MIT
//
// The manager and its two lists.  A new task is the idle one that was parked last, whose stack and
// pool are the likeliest to be warm, or else a new thread.
//
// Nobody waits for a thread under the manager's lock, which that thread needs to leave its place.
// So a task whose creation or reuse has failed is taken from the lists under the lock, and ended and
// released after it; whoever is handed a task meanwhile cannot get this one.
#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "task/task.h"
#include "utils/check.h"
#include "utils/double_list.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

namespace
{

// What the application asks of a new task.
struct TWanted {
    const char *szOp; // the operation it has called, for the messages
    const char *szTaskName;
    uint32_t dwMaxEvent;
    uint32_t dwStackSize;
    uint32_t dwMemPoolSize;
    uint32_t dwIdleTimeout;
    PFAppTaskHandler pfnHandler;
    void *pvContext;
};

// What comes of it.
struct TProvided {
    TAppTask *ptTask;   // null when there is none
    TAppTask *ptFailed; // one whose thread runs, and that must be disposed of
    bool bWake;         // the thread of the reused one has to be woken, after the locks
};

// The lists have changed.
void CheckLists([[maybe_unused]] const TAppTaskMgr *ptTaskMgr) APP_REQUIRES(ptTaskMgr->hLock)
{
    APP_CHECK_WHOLE(ptTaskMgr->hTaskList->dwCurSize + ptTaskMgr->hIdleTaskList->dwCurSize,
                    app::TaskMgrIsValid(ptTaskMgr), "the lists of tasks are broken");
}

// A task has come to the end of the list.
void CheckTail(const TAppTaskMgr *ptTaskMgr, [[maybe_unused]] const TAppDoubleList *ptList)
    APP_REQUIRES(ptTaskMgr->hLock)
{
    APP_CHECK(app::TaskIsValid(ptList, ptList->ptTail), "a task is on the wrong list");
    CheckLists(ptTaskMgr);
}

uint32_t CreateMembers(TAppTaskMgr *ptTaskMgr, uint32_t dwMaxTask, const char *szOp)
{
    HAppMemPool hMemPool = ptTaskMgr->hMemPool;
    uint32_t dwResult = AppLockCreate(hMemPool, 1, 1, APP_LOCK_TYPE_SEM, &ptTaskMgr->hLock);
    if (dwResult == APP_OK)
        dwResult = AppLockCreate(hMemPool, 1, 0, APP_LOCK_TYPE_SEM, &ptTaskMgr->hLeftLock);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: AppLockCreate failed %d\n", szOp);
        return dwResult;
    }
    dwResult = AppDoubleListCreate(hMemPool, dwMaxTask, 0, &ptTaskMgr->hTaskList);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: hTaskList AppDoubleListCreate failed %d\n", szOp);
        return dwResult;
    }
    dwResult = AppDoubleListCreate(hMemPool, dwMaxTask, 0, &ptTaskMgr->hIdleTaskList);
    if (dwResult != APP_OK)
        APP_LOG_RESULT(dwResult, "[ERROR] %s: hIdleTaskList AppDoubleListCreate failed %d\n", szOp);
    return dwResult;
}

// Equality is the test, so that a manager made for 0 tasks refuses every one.
uint32_t CheckAdmission(const TAppTaskMgr *ptTaskMgr, const char *szOp)
    APP_REQUIRES(ptTaskMgr->hLock)
{
    if (ptTaskMgr->bQuit == 1) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: TaskMgr is being destroyed\n", szOp);
        return APP_INVALID_ARG;
    }
    if (ptTaskMgr->hTaskList->dwCurSize == ptTaskMgr->hTaskList->dwMaxSize) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Task Max Num %lu reach: %d\n", szOp,
               app::Ul(ptTaskMgr->hTaskList->dwMaxSize), app::Int(APP_NO_RESOURCE));
        return APP_NO_RESOURCE;
    }
    return APP_OK;
}

// Under the task's lock.
uint32_t Reuse(TAppTask *ptTask, const TWanted &wanted, TProvided *ptProvided)
{
    TAppTaskMgr *ptTaskMgr = ptTask->ptTaskMgr;
    AppLog(0, APP_LOG_INFO, "[INFO ] %s: Reuse Task: %p\n", wanted.szOp, app::Ptr(ptTask));
    const uint32_t dwResult =
        _AppTaskRefreshArg(ptTask, wanted.szTaskName, wanted.dwMaxEvent, wanted.dwIdleTimeout,
                           wanted.pfnHandler, wanted.pvContext, &ptProvided->bWake);
    if (dwResult != APP_OK) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: _AppTaskRefreshArg failed: %d %p destroyed\n",
               wanted.szOp, app::Int(dwResult), app::Ptr(ptTask));
        app::UnlistTask(ptTask, ptTaskMgr->hIdleTaskList);
        ptProvided->ptFailed = ptTask;
        return dwResult;
    }
    app::MoveTask(ptTask, ptTaskMgr->hIdleTaskList, ptTaskMgr->hTaskList);
    ptProvided->ptTask = ptTask;
    app::AssertHeld(ptTaskMgr);
    app::SetCounter(ptTaskMgr->dwReused, ptTaskMgr->dwReused + 1);
    return APP_OK;
}

// Hands out the task that went idle last and has not chosen to end.
uint32_t ReuseLast(TAppTaskMgr *ptTaskMgr, const TWanted &wanted, TProvided *ptProvided)
    APP_REQUIRES(ptTaskMgr->hLock)
{
    HAppDoubleListNode hNode = ptTaskMgr->hIdleTaskList->ptTail;
    for (; hNode; hNode = hNode->ptPrev) {
        auto ptTask = static_cast<TAppTask *>(hNode->pvData);
        app::LockGuard guard(ptTask);
        if (app::Peek(ptTask->dwState) == APP_TASK_STATE_IDLE)
            return Reuse(ptTask, wanted, ptProvided);
    }
    return APP_OK;
}

uint32_t Create(TAppTaskMgr *ptTaskMgr, const TWanted &wanted, TProvided *ptProvided)
    APP_REQUIRES(ptTaskMgr->hLock)
{
    TAppTask *ptTask = nullptr;
    uint32_t dwResult = _AppTaskCreate(
        ptTaskMgr, wanted.szTaskName, wanted.dwMaxEvent, wanted.dwStackSize, wanted.dwMemPoolSize,
        wanted.dwIdleTimeout, wanted.pfnHandler, wanted.pvContext, &ptTask);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: _AppTaskCreate failed: %d\n", wanted.szOp);
        return dwResult;
    }
    AppLog(0, APP_LOG_INFO, "[INFO ] %s: _AppTaskCreate: %s %p\n", wanted.szOp,
           wanted.szTaskName ? wanted.szTaskName : "", app::Ptr(ptTask));
    dwResult = AppDoubleListInsertAfter(ptTaskMgr->hTaskList, nullptr, ptTask, &ptTask->hListNode);
    if (dwResult != APP_OK) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppDoubleListInsertAfter failed: %d %p destroyed\n",
               wanted.szOp, app::Int(dwResult), app::Ptr(ptTask));
        ptProvided->ptFailed = ptTask;
        return dwResult;
    }
    CheckTail(ptTaskMgr, ptTaskMgr->hTaskList);
    ptProvided->ptTask = ptTask;
    app::SetCounter(ptTaskMgr->dwCreated, ptTaskMgr->dwCreated + 1);
    return APP_OK;
}

uint32_t Provide(TAppTaskMgr *ptTaskMgr, const TWanted &wanted, TProvided *ptProvided)
    APP_REQUIRES(ptTaskMgr->hLock)
{
    uint32_t dwResult = CheckAdmission(ptTaskMgr, wanted.szOp);
    if (dwResult == APP_OK)
        dwResult = ReuseLast(ptTaskMgr, wanted, ptProvided);
    if (dwResult == APP_OK && !ptProvided->ptTask)
        dwResult = Create(ptTaskMgr, wanted, ptProvided);
    if (dwResult != APP_OK)
        app::SetCounter(ptTaskMgr->dwRefused, ptTaskMgr->dwRefused + 1);
    return dwResult;
}

// Without the manager's lock, which the task's thread needs to end.
void Dispose(TAppTask *ptTask)
{
    TAppTaskMgr *ptTaskMgr = ptTask->ptTaskMgr;
    __AppFreeTaskCB(ptTask, nullptr);
    app::EndLeaving(ptTaskMgr);
}

// The first two phases of the destruction: see leaving.cpp.  Once bQuit is set the lists do not
// change any more.
void EndTasks(TAppTaskMgr *ptTaskMgr)
{
    {
        const auto requestEnd = [](TAppTask *ptTask) {
            app::Request(ptTask, APP_TASK_REQUEST_END);
        };
        app::LockGuard guard(ptTaskMgr);
        app::SetCounter(ptTaskMgr->bQuit, 1);
        app::ForEachTask(ptTaskMgr->hTaskList, requestEnd);
        app::ForEachTask(ptTaskMgr->hIdleTaskList, requestEnd);
    }
    app::AwaitLeaving(ptTaskMgr);
    app::AssertAlone(ptTaskMgr);
    app::ForEachTask(ptTaskMgr->hIdleTaskList, app::AwaitLeft);
    app::ForEachTask(ptTaskMgr->hTaskList, app::AwaitLeft);
    app::ForEachTask(ptTaskMgr->hIdleTaskList, app::TellRest);
    app::ForEachTask(ptTaskMgr->hTaskList, app::TellRest);
}

} // namespace

void app::MoveTask(TAppTask *ptTask, HAppDoubleList hFrom, HAppDoubleList hTo)
{
    AssertHeld(ptTask->ptTaskMgr);
    MoveNode(hFrom, hTo, ptTask->hListNode);
    CheckTail(ptTask->ptTaskMgr, hTo);
}

void app::UnlistTask(TAppTask *ptTask, HAppDoubleList hList)
{
    AssertHeld(ptTask->ptTaskMgr);
    AppDoubleListRemove(hList, ptTask->hListNode, nullptr);
    ptTask->hListNode = nullptr;
    CheckLists(ptTask->ptTaskMgr);
}

uint32_t AppTaskMgrCreate(HAppMemPool hMemPool, uint32_t dwMaxTask, uint32_t dwIdleTaskTimeout,
                          HAppTaskMgr *phTaskMgr)
{
    if (!phTaskMgr)
        return APP_INVALID_ARG;
    *phTaskMgr = nullptr;
    auto hTaskMgr = static_cast<HAppTaskMgr>(AppMemPoolMalloc(hMemPool, sizeof(TAppTaskMgr)));
    if (!hTaskMgr) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", __func__);
        return APP_NO_RESOURCE;
    }
    *hTaskMgr = {};
    hTaskMgr->dwIdleTaskTimeout = dwIdleTaskTimeout;
    hTaskMgr->hMemPool = hMemPool;
    const uint32_t dwResult = CreateMembers(hTaskMgr, dwMaxTask, __func__);
    if (dwResult != APP_OK) { // what is half built has no tasks, and lists that may be null
        AppTaskMgrDestroy(hTaskMgr);
        return dwResult;
    }
    app::Register(APP_REGISTRY_TASK_MGRS, &hTaskMgr->tEntry, hTaskMgr);
    *phTaskMgr = hTaskMgr;
    return APP_OK;
}

void AppTaskMgrDestroy(HAppTaskMgr hTaskMgr)
{
    if (!hTaskMgr)
        return;
    if (hTaskMgr->hIdleTaskList) // else a creation has failed, and there are no tasks
        EndTasks(hTaskMgr);
    app::Unregister(APP_REGISTRY_TASK_MGRS, &hTaskMgr->tEntry);
    // No handler runs any more: from here on the records go.
    AppDoubleListDestroy(hTaskMgr->hIdleTaskList, __AppFreeTaskCB, nullptr);
    AppDoubleListDestroy(hTaskMgr->hTaskList, __AppFreeTaskCB, nullptr);
    AppLockDestroy(hTaskMgr->hLeftLock);
    AppLockDestroy(hTaskMgr->hLock);
    hTaskMgr->hLock = nullptr;
    AppMemPoolFree(hTaskMgr);
}

void __AppFreeTaskCB(void *pvTask, void *)
{
    auto ptTask = static_cast<TAppTask *>(pvTask);
    if (!ptTask) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: NULL Task Found.\n", __func__);
        return;
    }
    // Taken here and given by the thread, or by the last who came by.
    app::TakeWithWord(ptTask->hExitLock, ptTask->ptTaskMgr, __func__);
    _AppTaskDestroy(ptTask);
}

uint32_t AppTaskMgrNewTask(HAppTaskMgr hTaskMgr, const char *szTaskName, uint32_t dwMaxEvent,
                           uint32_t dwStackSize, uint32_t dwMemPoolSize, uint32_t dwIdleTimeout,
                           PFAppTaskHandler pfnHandler, void *pvContext, HAppTask *phTask)
{
    if (!hTaskMgr || !phTask)
        return APP_INVALID_ARG;
    *phTask = nullptr;
    TProvided provided = {};
    uint32_t dwResult;
    {
        app::LockGuard guard(hTaskMgr);
        dwResult = Provide(hTaskMgr,
                           {__func__, szTaskName, dwMaxEvent, dwStackSize, dwMemPoolSize,
                            dwIdleTimeout, pfnHandler, pvContext},
                           &provided);
        if (provided.ptFailed) { // counted under the lock: a destruction waits for the disposal
            app::BeginLeaving(hTaskMgr);
            app::Request(provided.ptFailed, APP_TASK_REQUEST_END);
        }
    }
    // After the locks, so that the thread does not run into them; interrupted, it does not leave its
    // wait before this.
    if (provided.bWake)
        app::QueueWake(provided.ptTask->hEventQueue);
    if (provided.ptFailed)
        Dispose(provided.ptFailed);
    *phTask = provided.ptTask;
    return dwResult;
}
