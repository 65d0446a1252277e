// SPDX-License-Identifier: MIT
//
// Sending an event, dropping it, and the last one.
//
// The queue holds copies of its own, so that a sender's record may be gone when its event
// is served; the argument stays the sender's affair.  A send that is refused has told nobody, and
// one that is accepted is told once, as what it is or as dropped.
#include "task/task.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

namespace
{

// The queue's lock is held for moments only.  Who does not get it within this time is told so
// instead of being lost with whatever has gone wrong.
constexpr uint32_t kSendWaitMs = 1000;

// What the public sends share: a copy of the event is queued while the task admits work.  Which the
// queue's lock alone tells: see app::SetState().
uint32_t Send(HAppTask hTask, const TAppTaskEvent &event, int32_t nPriority, uint32_t bForce,
              uint32_t dwTimeout, const char *szOp)
{
    if (!hTask)
        return APP_INVALID_ARG;
    uint32_t dwResult = APP_INVALID_ARG;
    bool bWake = false;
    {
        app::TimedLockGuard guard(hTask->hEventQueue);
        if (!guard.TakeByTime(dwTimeout)) {
            hTask->dwRefused.fetch_add(1, std::memory_order_relaxed);
            return APP_TIMEOUT;
        }
        const uint32_t dwState = app::Peek(hTask->dwState);
        if (app::AdmitsWork(dwState))
            dwResult = _AppTaskSendEvent(hTask, &event, nPriority, bForce, &bWake);
        else
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Invalid Task State. Task %p state %s\n", szOp,
                   app::Ptr(hTask), _AppGetTaskStateString(dwState));
        if (dwResult != APP_OK)
            hTask->dwRefused.fetch_add(1, std::memory_order_relaxed);
    }
    // After the lock, so that the thread does not run into it.  The thread, promised the event, does
    // not leave its wait before this: see leaving.cpp.
    if (bWake)
        app::QueueWake(hTask->hEventQueue);
    return dwResult;
}

} // namespace

// The task's handler changes while the task is idle, under its lock: not while it has events.
void app::CallHandler(TAppTask *ptTask, const TAppTaskEvent &event,
                      uint32_t dwEventType) APP_NO_ANALYSIS
{
    if (event.pfnHandler)
        event.pfnHandler(ptTask, dwEventType, event.pvArg, event.pvContext);
    else if (ptTask->pfnHandler)
        ptTask->pfnHandler(ptTask, dwEventType, event.pvArg, ptTask->pvContext);
}

// One by one: the queue's destruction holds its lock while it tells, and a handler may ask for a
// report.
[[gnu::cold]] void app::DropEvents(TAppTask *ptTask)
{
    void *pvEvent = nullptr;
    while (QueueHolds(ptTask->hEventQueue)) {
        QueueTakeRecord(ptTask->hEventQueue, 0, &pvEvent);
        _AppTaskDropEventCB(pvEvent, ptTask);
        Poke(ptTask->dwDropped, Peek(ptTask->dwDropped) + 1);
    }
    QueueGiveRecordBack(ptTask->hEventQueue, pvEvent);
}

void _AppTaskDropEventCB(void *pvEvent, void *pvTask)
{
    if (!pvEvent || !pvTask)
        return;
    app::CallHandler(static_cast<TAppTask *>(pvTask), *static_cast<TAppTaskEvent *>(pvEvent),
                     APP_TASK_EVENT_DROP);
}

uint32_t _AppTaskSendEvent(TAppTask *ptTask, const TAppTaskEvent *ptEvent, int32_t nPriority,
                           uint32_t bForce, bool *pbWake)
{
    APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: task %p type %d Handler %p arg %p\n", __func__,
              app::Ptr(ptTask), app::Int(ptEvent->dwEventType), app::Ptr(ptEvent->pfnHandler),
              ptEvent->pvArg);
    app::AssertHeld(ptTask->hEventQueue);
    const uint32_t dwResult = app::QueuePlaceRecord(ptTask->hEventQueue, ptEvent, nPriority,
                                                    static_cast<int32_t>(bForce), pbWake);
    if (dwResult == app::kQueueNoMemory) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", __func__);
        return APP_NO_RESOURCE;
    }
    if (dwResult != APP_OK)
        APP_LOG_RESULT(dwResult, "[ERROR] %s: AppQueueIn failed %d\n", __func__);
    return dwResult;
}

uint32_t AppTaskSendEvent(HAppTask hTask, void *pvArg, PFAppTaskHandler pfnHandler, void *pvContext)
{
    return Send(hTask, {APP_TASK_EVENT_USER, pvArg, pfnHandler, pvContext}, APP_TASK_PRIORITY_USER,
                0, kSendWaitMs, __func__);
}

// For what must not be lost to a full queue or a lock that is not to be had in time.
uint32_t AppTaskAssignEvent(HAppTask hTask, void *pvArg, PFAppTaskHandler pfnHandler,
                            void *pvContext)
{
    return Send(hTask, {APP_TASK_EVENT_USER, pvArg, pfnHandler, pvContext}, APP_TASK_PRIORITY_USER,
                1, 0, __func__);
}

uint32_t AppTaskTerminate(HAppTask hTask)
{
    return Send(hTask, {APP_TASK_EVENT_STOP, nullptr, _AppTaskGoForIdleHandler, nullptr},
                APP_TASK_PRIORITY_REQUEST, 1, 0, __func__);
}

// A timer's end is recorded without the lock: what is read meanwhile may belong to two.
[[gnu::cold]] uint32_t AppTaskGetLastEvent(HAppTask hTask, uint32_t *pdwEventType, void **ppvArg,
                                           PFAppTaskHandler *ppfnHandler, void **ppvContext)
{
    if (!hTask || !pdwEventType || !ppvArg || !ppfnHandler || !ppvContext)
        return APP_INVALID_ARG;
    app::LockGuard guard(hTask);
    *pdwEventType = app::Peek(hTask->dwLastEventType);
    *ppvArg = app::Peek(hTask->pvLastArg);
    *ppfnHandler = app::Peek(hTask->pfnLastHandler);
    *ppvContext = app::Peek(hTask->pvLastContext);
    return APP_OK;
}

HAppMemPool AppTaskGetMemPool(HAppTask hTask)
{
    return hTask ? hTask->hMemPool : nullptr;
}
