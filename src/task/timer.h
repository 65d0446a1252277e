// SPDX-License-Identifier: MIT
//
// A task's timers: their records, and what the task's other operations ask of them.  Everything
// here is under the task's lock unless said otherwise; no handler runs under it.
#ifndef APPCORE_TASK_TIMER_H
#define APPCORE_TASK_TIMER_H

#include <stddef.h>

#include "appcore/containers.h"
#include "appcore/task.h"
#include "task/task.h"
#include "task/timer_heap.h"

// Never wraps.  The pools align to four bytes on 32 bits.
typedef uint64_t TAppTimerOrder __attribute__((aligned(4)));

struct TAppTimerMgr {
    // Running, in the order in which they were set; ended, in the order in which they ended.
    HAppDoubleList hTimerList APP_PT_GUARDED_BY(ptTask->hLock);
    HAppDoubleList hIdleTimerList APP_PT_GUARDED_BY(ptTask->hLock);
    PFAppTaskHandler pfnHandler APP_GUARDED_BY(ptTask->hLock); // for timers without their own
    void *pvContext APP_GUARDED_BY(ptTask->hLock);
    TAppTask *ptTask;
    HAppMemPool hMemPool;

    // The running ones again, see timer_run.cpp: by due tick, and by the order of setting those
    // that have been found due.
    TAppTimerHeap tWaiting APP_GUARDED_BY(ptTask->hLock);
    TAppTimerHeap tDue APP_GUARDED_BY(ptTask->hLock);
    TAppTimerOrder qwOrder APP_GUARDED_BY(ptTask->hLock);    // of the timer that was set last
    TAppTimerOrder qwRunOrder APP_GUARDED_BY(ptTask->hLock); // likewise, when the run began
    uint32_t dwRunTick APP_GUARDED_BY(ptTask->hLock);        // when the run began
    // While timers run, none is due before: written under the lock, read without it too.
    uint32_t dwLookTick;

    // Written under the lock, read without it.
    uint32_t dwSet;      // timers set: the end of qwOrder
    uint32_t dwExpired;  // of these
    uint32_t dwMostLate; // ms

    // Where a report goes on; moved when its node leaves the list.
    HAppDoubleListNode hShown APP_GUARDED_BY(ptTask->hLock);
};

struct TAppTimer {
    TAppTimerMgr *ptTimerMgr; // for the record's life: a late cancel reads it without a lock
    // The rest is under the lock of the timer's task.
    HAppDoubleListNode hListNode; // null while in neither list
    PFAppTaskHandler pfnHandler;
    void *pvContext;
    uint32_t dwStartTick;
    uint32_t dwTimeout;     // ms
    uint32_t dwState;       // 1 running, 0 ended
    uint32_t dwDueTick;     // not due before; too early once the timer has been reset
    TAppTimerOrder qwOrder; // grows with each timer that is set
    TAppTimerPlace tPlace;
};

#if UINTPTR_MAX == UINT32_MAX
// What has been added stands behind the fixed part.
static_assert(offsetof(TAppTimerMgr, tWaiting) == 24, "fixed layout");
static_assert(offsetof(TAppTimer, dwDueTick) == 28, "fixed layout");
#endif

extern "C" {

uint32_t _AppTimerMgrCreate(HAppMemPool hMemPool, TAppTask *ptTask, PFAppTaskHandler pfnHandler,
                            void *pvContext, TAppTimerMgr **pptTimerMgr);
void _AppTimerMgrDestroy(TAppTimerMgr *ptTimerMgr);
uint32_t _AppTimerMgrNewTimer(TAppTimerMgr *ptTimerMgr, uint32_t dwTimeout,
                              PFAppTaskHandler pfnHandler, void *pvContext, HAppTimer *phTimer);
uint32_t _AppTaskResetTimer(TAppTimer *ptTimer);
// Gives the task's lock for the handler's call, also when the caller holds it.
void _AppTaskEndTimer(TAppTimer *ptTimer, uint32_t dwEventType, uint32_t bLocked);
// Expires what is due; returns the ms until the next look, 1 to 5000.
uint32_t _AppTimerMgrRun(TAppTimerMgr *ptTimerMgr);
// Releases an ended timer; a callback for the list's destruction.
void __AppFreeIdleTimerCB(void *pvTimer, void *pvIgnored);

} // extern "C"

namespace app
{

// Ticks are counted modulo 2^32: one has come when it is less than half of that ago.  Time-outs reach
// 50 days ahead, so that a handler may run for 198 days before two ticks are taken for each other.
inline bool HasCome(uint32_t dwTick, uint32_t dwNowTick)
{
    return static_cast<int32_t>(dwNowTick - dwTick) >= 0;
}

// Cancels every running timer, oldest first.  Under the task's lock, which is given for each call
// of a handler.  `bRecord`: each becomes the task's last event.
void CancelTimers(TAppTimerMgr *ptTimerMgr, bool bRecord);
// Whether it is worth taking the lock to run the timers: false, without a look at the clock, when
// none runs.  Without the lock, for the task's thread alone.  A timer that another thread has set an
// instant ago may be missed: the thread looks again under the lock before it sleeps.
bool TimersMayBeDue(const TAppTimerMgr *ptTimerMgr);
// Milliseconds until a timer may be due, 1 to `dwMost`; runs none.
uint32_t NextTimeoutMs(const TAppTimerMgr *ptTimerMgr, uint32_t dwMost)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock);
// A timer has been set and is on the list: gives it its places in the orders.
void OrderTimer(TAppTimerMgr *ptTimerMgr, TAppTimer *ptTimer)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock);

#ifdef APPCORE_CHECKS
// The node holds a timer that knows it, and whose state belongs into the list.
bool TimerIsValid(const TAppDoubleList *ptList, const TAppDoubleListNode *ptNode);
// All of both lists are; links, order and the places kept in them agree.
bool TimerMgrIsValid(const TAppTimerMgr *ptTimerMgr);
#endif

} // namespace app

#endif
