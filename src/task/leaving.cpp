// SPDX-License-Identifier: MIT
//
// The end of a task: who may touch its record last, who gives what, and who waits.
//
// Users of the record are its thread, and each AppTaskCancelTimer() under way, which runs the
// timer's handler in the caller's thread without the task's lock.  They are counted in dwUsers, under
// that lock; a cancel counts itself while the task admits work.  A send need not be
// counted: it touches the record under the queue's lock, which the change to a state that admits no
// work needs too, or else wakes the thread for the event that it has just placed there; and a thread
// that has been promised an event does not leave its wait before that wake-up has come.  Nor does
// one that has been interrupted for a timer: the wake-up follows after the task's lock.
//
// A thread leaves its loop for one of two reasons:
// - TERMINATE: somebody waits for it, the manager's destruction or the disposal of a task whose
//   creation or reuse has failed.  The last user gives hExitLock and touches nothing after that;
//   who waits then destroys the record.
// - UNINIT: an idle task has found nobody to take it, or no room among the idle ones.  It is on no
//   list any more, nobody waits, and the thread itself destroys the record, after the last cancel.
//
// Who destroys a record outside the manager's lock, the thread in the second case or the disposer
// in the first, has been counted in dwLeaving under that lock, and ends with EndLeaving().
//
// The manager's destruction has three phases.  Every thread has left, those of dwLeaving included;
// what is left is told, timers and events, the idle tasks' first; then the records are released.
// Handlers that run meanwhile may use every task of the manager: a record lives until the last
// phase, when no handler runs any more.
//
// models/task.pml proves this for every interleaving of two tasks.
#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "base/field.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/check.h"
#include "utils/lock_guard.h"
#include "utils/queue.h"

namespace
{

bool DropThread(TAppTask *ptTask)
{
    app::LockGuard guard(ptTask);
    return app::DropUser(ptTask);
}

} // namespace

// The bit first: the thread looks at it before each wait, and an interrupt that finds no wait ends
// the next one.
void app::Request(TAppTask *ptTask, uint32_t dwRequest)
{
    ptTask->dwRequests.fetch_or(dwRequest);
    QueueInterrupt(ptTask->hEventQueue);
}

bool app::DropUser(TAppTask *ptTask)
{
    APP_CHECK(ptTask->dwUsers != 0, "more users leave than have come");
    return --ptTask->dwUsers == 0;
}

[[gnu::noinline]] void app::Leave(TAppTask *ptTask)
{
    TAppTaskMgr *ptTaskMgr = ptTask->ptTaskMgr;
    const bool bAwaited = Peek(ptTask->dwState) != APP_TASK_STATE_UNINIT;
    const bool bLast = DropThread(ptTask);
    if (bAwaited) {
        if (bLast)
            AppLockGive(ptTask->hExitLock); // the last touch: the record may be gone
        return;
    }
    if (!bLast)
        AppLockTakeByTime(ptTask->hExitLock, 0); // the last cancel gives it
    _AppTaskDestroy(ptTask);
    EndLeaving(ptTaskMgr);
}

// Given back, for whoever comes to the record after this.
void app::AwaitLeft(TAppTask *ptTask)
{
    TakeWithWord(ptTask->hExitLock, ptTask->ptTaskMgr, "AppTaskMgrDestroy");
    AppLockGive(ptTask->hExitLock);
}

void app::BeginLeaving(TAppTaskMgr *ptTaskMgr)
{
    AssertHeld(ptTaskMgr);
    ++ptTaskMgr->dwLeaving;
}

void app::EndLeaving(TAppTaskMgr *ptTaskMgr)
{
    LockGuard guard(ptTaskMgr);
    APP_CHECK(ptTaskMgr->dwLeaving != 0, "more tasks have left than were leaving");
    --ptTaskMgr->dwLeaving;
    if (ptTaskMgr->bQuit == 1)
        AppLockGive(ptTaskMgr->hLeftLock);
    // The guard's give is the last touch of the manager.
}

void app::AwaitLeaving(TAppTaskMgr *ptTaskMgr)
{
    for (;;) {
        {
            LockGuard guard(ptTaskMgr);
            if (ptTaskMgr->dwLeaving == 0)
                return;
        }
        TakeWithWord(ptTaskMgr->hLeftLock, ptTaskMgr, "AppTaskMgrDestroy");
    }
}

void app::TellRest(TAppTask *ptTask)
{
    if (ptTask->ptTimerMgr) { // else the creation has failed before there could be anything to tell
        LockGuard guard(ptTask);
        CancelTimers(ptTask->ptTimerMgr, false);
    }
    if (ptTask->hEventQueue)
        DropEvents(ptTask);
}

void _AppTaskDestroy(TAppTask *ptTask)
{
    if (!ptTask)
        return;
    app::Unregister(APP_REGISTRY_TASKS, &ptTask->tEntry);
    app::TellRest(ptTask); // the manager's destruction has done so before
    _AppTimerMgrDestroy(ptTask->ptTimerMgr);
    AppQueueDestroy(ptTask->hEventQueue, nullptr, nullptr);
    AppMemPoolDestroy(ptTask->hMemPool);
    AppLockDestroy(ptTask->hExitLock);
    ptTask->hExitLock = nullptr;
    AppLockDestroy(ptTask->hLock);
    ptTask->hLock = nullptr;
    AppMemPoolFree(ptTask->szTaskName);
    AppMemPoolFree(ptTask);
}
