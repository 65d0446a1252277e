// SPDX-License-Identifier: MIT
//
// A task's timer records.  A record keeps its list node when it moves between the running and the
// ended timers, so that neither ending a timer nor setting one anew can fail for want of memory.
#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "base/rollback.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/check.h"
#include "utils/double_list.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

namespace
{

// Whom a timer's end is told to: its own handler, or else the default one.
struct TNotice {
    explicit TNotice(const TAppTimer *ptTimer)
        : pfnHandler(ptTimer->pfnHandler ? ptTimer->pfnHandler : ptTimer->ptTimerMgr->pfnHandler),
          pvContext(ptTimer->pfnHandler ? ptTimer->pvContext : ptTimer->ptTimerMgr->pvContext)
    {
    }

    PFAppTaskHandler pfnHandler;
    void *pvContext;
};

// A timer has come to the end of the list.
void CheckTail([[maybe_unused]] const TAppTimerMgr *ptTimerMgr,
               [[maybe_unused]] const TAppDoubleList *ptList)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    APP_CHECK(app::TimerIsValid(ptList, ptList->ptTail), "a timer is on the wrong list");
    APP_CHECK_WHOLE(ptTimerMgr->hTimerList->dwCurSize + ptTimerMgr->hIdleTimerList->dwCurSize,
                    app::TimerMgrIsValid(ptTimerMgr), "the timers are broken");
}

// The record that ended last, off its list.
TAppTimer *ReuseRecord(TAppTimerMgr *ptTimerMgr, const char *szOp)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    HAppDoubleListNode hNode = ptTimerMgr->hIdleTimerList->ptTail;
    if (!hNode)
        return nullptr;
    auto ptTimer = static_cast<TAppTimer *>(hNode->pvData);
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: Reuse Timer: %p\n", szOp, app::Ptr(ptTimer));
    app::MoveNode(ptTimerMgr->hIdleTimerList, ptTimerMgr->hTimerList, hNode);
    return ptTimer;
}

[[gnu::cold]] uint32_t NewRecord(TAppTimerMgr *ptTimerMgr, TAppTimer **pptTimer, const char *szOp)
{
    auto ptTimer =
        static_cast<TAppTimer *>(AppMemPoolMalloc(ptTimerMgr->hMemPool, sizeof(TAppTimer)));
    if (!ptTimer) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", szOp);
        return APP_NO_RESOURCE;
    }
    *ptTimer = {};
    ptTimer->ptTimerMgr = ptTimerMgr;
    const uint32_t dwResult =
        AppDoubleListInsertAfter(ptTimerMgr->hTimerList, nullptr, ptTimer, &ptTimer->hListNode);
    if (dwResult != APP_OK) {
        AppMemPoolFree(ptTimer);
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppDoubleListInsertAfter failed: %d %p destroyed\n",
               szOp, app::Int(dwResult), app::Ptr(ptTimer));
        return APP_FAILED;
    }
    *pptTimer = ptTimer;
    return APP_OK;
}

// Takes a timer out of the running ones, its node kept.
HAppDoubleListNode Unlist(TAppTimerMgr *ptTimerMgr, TAppTimer *ptTimer)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    HAppDoubleListNode hNode = ptTimer->hListNode;
    HAppDoubleListNode hNext = hNode->ptNext; // a running timer has a node
    if (ptTimerMgr->hShown == hNode)
        ptTimerMgr->hShown = hNext;
    app::UnlinkNode(ptTimerMgr->hTimerList, hNode);
    app::RemoveTimer(ptTimer);
    ptTimer->hListNode = nullptr;
    ptTimer->dwState = 0;
    return hNode;
}

// The task's lock is given for the handler's call.  Meanwhile the timer is on no list: a second end
// finds it ended, and nobody is handed its record before the handler has returned.
void EndRunning(TAppTimerMgr *ptTimerMgr, TAppTimer *ptTimer, uint32_t dwEventType, bool bRecord)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    TAppTask *ptTask = ptTimerMgr->ptTask;
    HAppDoubleListNode hNode = Unlist(ptTimerMgr, ptTimer);
    const TNotice notice(ptTimer); // before the lock is given: a new owner changes the default
    if (notice.pfnHandler) {
        app::WithoutLock unlocked(ptTimerMgr->ptTask);
        if (bRecord)
            app::RecordEvent(ptTask, dwEventType, ptTimer, notice.pfnHandler, notice.pvContext);
        notice.pfnHandler(ptTask, dwEventType, ptTimer, notice.pvContext);
    }
    ptTimer->hListNode = hNode;
    app::LinkNode(ptTimerMgr->hIdleTimerList, ptTimerMgr->hIdleTimerList->ptTail, hNode, nullptr);
    CheckTail(ptTimerMgr, ptTimerMgr->hIdleTimerList);
}

// Apart, so that the usual end, under the lock, does not pay for the guard.
[[gnu::cold]] void TakeLockAndEnd(TAppTimer *ptTimer, uint32_t dwEventType)
{
    app::LockGuard guard(ptTimer->ptTimerMgr->ptTask);
    _AppTaskEndTimer(ptTimer, dwEventType, 1);
}

} // namespace

[[gnu::cold]] void app::CancelTimers(TAppTimerMgr *ptTimerMgr, bool bRecord)
{
    AssertHeld(ptTimerMgr->ptTask);
    // From the head each time: a handler may cancel any of them.
    while (HAppDoubleListNode hNode = ptTimerMgr->hTimerList->ptHead)
        EndRunning(ptTimerMgr, static_cast<TAppTimer *>(hNode->pvData), APP_TASK_EVENT_TIMER_CANCEL,
                   bRecord);
}

[[gnu::cold]] uint32_t _AppTimerMgrCreate(HAppMemPool hMemPool, TAppTask *ptTask,
                                          PFAppTaskHandler pfnHandler, void *pvContext,
                                          TAppTimerMgr **pptTimerMgr)
{
    if (!pptTimerMgr)
        return APP_INVALID_ARG;
    *pptTimerMgr = nullptr;
    auto ptTimerMgr = static_cast<TAppTimerMgr *>(AppMemPoolMalloc(hMemPool, sizeof(TAppTimerMgr)));
    if (!ptTimerMgr) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", __func__);
        return APP_NO_RESOURCE;
    }
    *ptTimerMgr = {};
    app::Rollback undo([&] { _AppTimerMgrDestroy(ptTimerMgr); });
    uint32_t dwResult = AppDoubleListCreate(hMemPool, 0, 0, &ptTimerMgr->hTimerList);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: hTimerList AppDoubleListCreate failed %d\n",
                       __func__);
        return dwResult;
    }
    dwResult = AppDoubleListCreate(hMemPool, 0, 0, &ptTimerMgr->hIdleTimerList);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: hIdleTimerList AppDoubleListCreate failed %d\n",
                       __func__);
        return dwResult;
    }
    ptTimerMgr->ptTask = ptTask;
    app::AssertAlone(ptTimerMgr->ptTask);
    ptTimerMgr->tDue.bBySetting = 1;
    ptTimerMgr->pfnHandler = pfnHandler;
    ptTimerMgr->pvContext = pvContext;
    ptTimerMgr->hMemPool = hMemPool;
    undo.Dismiss();
    *pptTimerMgr = ptTimerMgr;
    return APP_OK;
}

[[gnu::cold]] void _AppTimerMgrDestroy(TAppTimerMgr *ptTimerMgr)
{
    if (!ptTimerMgr)
        return;
    AppDoubleListDestroy(ptTimerMgr->hTimerList, nullptr, nullptr); // empty: all have been told
    AppDoubleListDestroy(ptTimerMgr->hIdleTimerList, __AppFreeIdleTimerCB, nullptr);
    AppMemPoolFree(ptTimerMgr);
}

void __AppFreeIdleTimerCB(void *pvTimer, void *)
{
    AppMemPoolFree(pvTimer);
}

uint32_t _AppTimerMgrNewTimer(TAppTimerMgr *ptTimerMgr, uint32_t dwTimeout,
                              PFAppTaskHandler pfnHandler, void *pvContext, HAppTimer *phTimer)
{
    if (!ptTimerMgr || !phTimer)
        return APP_INVALID_ARG;
    app::AssertHeld(ptTimerMgr->ptTask);
    TAppTimer *ptTimer = ReuseRecord(ptTimerMgr, __func__);
    if (!ptTimer) {
        const uint32_t dwResult = NewRecord(ptTimerMgr, &ptTimer, __func__);
        if (dwResult != APP_OK)
            return dwResult;
    }
    ptTimer->dwTimeout = dwTimeout;
    ptTimer->pfnHandler = pfnHandler;
    ptTimer->pvContext = pvContext;
    ptTimer->dwStartTick = _AppGetTick();
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: timer %p, init %lu\n", __func__, app::Ptr(ptTimer),
              app::Ul(ptTimer->dwStartTick));
    ptTimer->dwState = 1;
    app::OrderTimer(ptTimerMgr, ptTimer);
    CheckTail(ptTimerMgr, ptTimerMgr->hTimerList);
    *phTimer = ptTimer;
    return APP_OK;
}

uint32_t _AppTaskResetTimer(TAppTimer *ptTimer)
{
    if (ptTimer->dwState != 1)
        return APP_NOT_FOUND;
    // It can only become due later: its place stays, too early, until a run finds it there.
    ptTimer->dwStartTick = _AppGetTick();
    return APP_OK;
}

void _AppTaskEndTimer(TAppTimer *ptTimer, uint32_t dwEventType, uint32_t bLocked)
{
    if (bLocked == 0)
        return TakeLockAndEnd(ptTimer, dwEventType);
    app::AssertHeld(ptTimer->ptTimerMgr->ptTask);
    if (ptTimer->dwState != 0)
        EndRunning(ptTimer->ptTimerMgr, ptTimer, dwEventType, true);
}
