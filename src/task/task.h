// SPDX-License-Identifier: MIT
//
// The task manager's records and its internal operations.
//
// Locks.  What a record's own lock guards is marked.  Order: the manager's lock, then a task's.  No
// lock is held while a handler runs.
//
// Who may touch a record last, and who waits for whom, is told in leaving.cpp.
#ifndef APPCORE_TASK_TASK_H
#define APPCORE_TASK_TASK_H

#include <stddef.h>

#include <atomic>

#include "appcore/containers.h"
#include "appcore/task.h"
#include "base/field.h"
#include "base/thread_safety.h"
#include "cross_linux/cross_linux.h"
#include "utils/registry.h"

struct TAppTaskMgr {
    uint32_t dwIdleTaskTimeout; // ms; 0: idle tasks never end by themselves
    HAppLock hLock;
    // Active tasks, oldest first; idle ones in the order in which they went idle.  Once bQuit is
    // set, the lists do not change any more.
    HAppDoubleList hTaskList APP_PT_GUARDED_BY(hLock);
    HAppDoubleList hIdleTaskList APP_PT_GUARDED_BY(hLock);
    HAppMemPool hMemPool;                 // pool of every record
    uint32_t bQuit APP_GUARDED_BY(hLock); // the destruction has begun

    uint32_t dwLeaving APP_GUARDED_BY(hLock); // threads that still destroy a task on no list
    HAppLock hLeftLock; // given for each of them that is done once bQuit is set

    uint32_t dwCreated APP_GUARDED_BY(hLock); // tasks handed out with a new thread
    uint32_t dwReused APP_GUARDED_BY(hLock);  // and idle ones
    uint32_t dwRefused APP_GUARDED_BY(hLock); // tasks wanted and not handed out
    TAppEntry tEntry;
};

struct TAppTimerMgr;

namespace app
{

// What the thread runs, for those who look from outside.  Written by the thread alone, without a
// lock; the ticks are those that anybody has read last.
struct TTaskRun {
    std::atomic<PFAppTaskHandler> pfnHandler; // null between two
    std::atomic<uint32_t> dwSinceTick; // the last one has ended, or this one begun after a wait
    std::atomic<uint32_t> dwServed;    // handlers that have returned
    std::atomic<uint32_t> dwLongest;   // ticks
    std::atomic<PFAppTaskHandler> pfnLongest;
    uint32_t dwTold; // number of the last one told as late; under the registry's mutex
};

} // namespace app

struct TAppTask {
    TAppTaskMgr *ptTaskMgr;
    HAppMemPool hMemPool; // the task's own, for its handlers
    HAppLock hLock;
    HAppLock hExitLock; // given by the last user of the record, see leaving.cpp
    HAppQueue hEventQueue;
    // What admits work is written under hLock and the queue's, so that either is enough to ask; but
    // the thread's steps between RUNNING and PROCESSING, which admit the same, under neither.
    std::atomic<uint32_t> dwState;
    std::atomic<uint32_t> dwIdleTimeout;               // written under hLock
    PFAppTaskHandler pfnHandler APP_GUARDED_BY(hLock); // null once the task has gone idle
    void *pvContext APP_GUARDED_BY(hLock);
    // In one of the manager's lists.
    HAppDoubleListNode hListNode APP_GUARDED_BY(ptTaskMgr->hLock);
    char *szTaskName; // replaced under both locks, so that either is enough to read it
    std::atomic<int32_t> nThreadId;
    TAppTimerMgr *ptTimerMgr;

    // Diagnostics, written without a lock.
    std::atomic<uint32_t> dwLastEventType;
    std::atomic<void *> pvLastArg;
    std::atomic<PFAppTaskHandler> pfnLastHandler;
    std::atomic<void *> pvLastContext;

    uint32_t dwLastEventTick;               // when the last event came; the thread's own
    char achThreadName[16];                 // what the system calls the thread; the thread's own
    uint32_t dwUsers APP_GUARDED_BY(hLock); // see leaving.cpp
    std::atomic<uint32_t> dwRequests;       // EAppTaskRequest

    // For who sets a timer: since when the thread waits, or is about to, and how long, in ms; 0 when
    // it looks at its timers before it waits again.
    uint32_t dwWaitTick APP_GUARDED_BY(hLock);
    std::atomic<uint32_t> dwWait;

    app::TTaskRun tRun;
    std::atomic<uint32_t> dwRefused; // sends
    std::atomic<uint32_t> dwDropped; // events
    TAppEntry tEntry;
};

// What the manager wants of a task's thread lies in the record itself, so that neither reuse nor
// the end can fail for want of memory.  A request passes every event that is queued.
enum EAppTaskRequest {
    APP_TASK_REQUEST_END = 1, // leave: the manager is destroyed or the task disposed of
    APP_TASK_REQUEST_REFRESH = 2,
};

// The queue keeps copies.
struct TAppTaskEvent {
    uint32_t dwEventType;
    void *pvArg;
    PFAppTaskHandler pfnHandler; // null: the task's
    void *pvContext;             // with pfnHandler only
};

#if UINTPTR_MAX == UINT32_MAX
// What has been added stands behind the fixed part.
static_assert(offsetof(TAppTaskMgr, dwLeaving) == 24, "fixed layout");
static_assert(offsetof(TAppTask, dwState) == 20 && offsetof(TAppTask, ptTimerMgr) == 48 &&
                  offsetof(TAppTask, dwLastEventTick) == 68,
              "fixed layout");
static_assert(sizeof(TAppTaskEvent) == 16, "fixed layout");
#endif

enum EAppTaskPriority {
    APP_TASK_PRIORITY_USER = 0,
    APP_TASK_PRIORITY_REQUEST = 100, // AppTaskTerminate()'s go-idle request
};

extern "C" {

// "INIT" … "UNINIT", else "UNKNOWN".
const char *_AppGetTaskStateString(uint32_t dwState);

// Builds a task and starts its thread; called with the manager's lock held.
uint32_t _AppTaskCreate(TAppTaskMgr *ptTaskMgr, const char *szTaskName, uint32_t dwMaxEvent,
                        uint32_t dwStackSize, uint32_t dwMemPoolSize, uint32_t dwIdleTimeout,
                        PFAppTaskHandler pfnHandler, void *pvContext, HAppTask *phTask);
// Tells what is left and releases the record.  No thread uses it, no list walks over it.
void _AppTaskDestroy(TAppTask *ptTask);
// Makes an idle task the new owner's; called with the manager's and the task's lock held.  `*pbWake`
// says that its thread has to be woken, with QueueWake(), after them.
uint32_t _AppTaskRefreshArg(TAppTask *ptTask, const char *szTaskName, uint32_t dwMaxEvent,
                            uint32_t dwIdleTimeout, PFAppTaskHandler pfnHandler, void *pvContext,
                            bool *pbWake);
// Queues a copy of the event, under the queue's lock; `*pbWake` says that the task's thread has to
// be woken for it, with QueueWake(), after it.
uint32_t _AppTaskSendEvent(TAppTask *ptTask, const TAppTaskEvent *ptEvent, int32_t nPriority,
                           uint32_t bForce, bool *pbWake);

// The thread's function, and the handlers of the internal requests.
void *AppTask(void *pvTask);
uint32_t _AppTaskGoForIdleHandler(HAppTask hTask, uint32_t dwEventType, void *pvArg,
                                  void *pvContext);
uint32_t _AppTaskGoForTerminateHandler(HAppTask hTask, uint32_t dwEventType, void *pvArg,
                                       void *pvContext);
uint32_t _AppTaskRefreshHandler(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvContext);
// Tells one event's drop.
void _AppTaskDropEventCB(void *pvEvent, void *pvTask);
// Waits for the task's thread and destroys the task; a callback for the lists' destruction.
void __AppFreeTaskCB(void *pvTask, void *pvIgnored);

} // extern "C"

namespace app
{

// Visits the tasks of one of the manager's lists.
template <typename Visit>
void ForEachTask(const TAppDoubleList *ptList, Visit visit)
{
    for (HAppDoubleListNode hNode = ptList->ptHead; hNode; hNode = hNode->ptNext)
        visit(static_cast<TAppTask *>(hNode->pvData));
}

// ---- state.cpp ------------------------------------------------------------------------------

// Sends, timers and terminate requests are admitted in the first three states; in INIT too, for the
// application has the handle before the thread has come to run.
inline bool AdmitsWork(uint32_t dwState)
{
    static_assert(APP_TASK_STATE_INIT == 0 && APP_TASK_STATE_RUNNING < APP_TASK_STATE_IDLE &&
                  APP_TASK_STATE_PROCESSING < APP_TASK_STATE_IDLE);
    return dwState < APP_TASK_STATE_IDLE;
}
// Under the task's lock; takes the queue's.
void SetState(TAppTask *ptTask, uint32_t dwState) APP_REQUIRES(ptTask->hLock);
// Milliseconds from a tick to another.
inline uint32_t ElapsedMs(uint32_t dwStartTick, uint32_t dwNowTick)
{
    return (dwNowTick - dwStartTick) * APP_MS_PER_TICK;
}
// The last event, for diagnostics.
inline void RecordEvent(TAppTask *ptTask, uint32_t dwEventType, void *pvArg,
                        PFAppTaskHandler pfnHandler, void *pvContext)
{
    Poke(ptTask->dwLastEventType, dwEventType);
    Poke(ptTask->pvLastArg, pvArg);
    Poke(ptTask->pfnLastHandler, pfnHandler);
    Poke(ptTask->pvLastContext, pvContext);
}

// ---- create.cpp -----------------------------------------------------------------------------

// The thread's first step; returns its first wait.
uint32_t Start(TAppTask *ptTask);

// ---- watch.cpp ------------------------------------------------------------------------------

// Takes a lock that tasks of the manager give when they are done, without limit, and tells now and
// then which of their handlers it waits for.
void TakeWithWord(HAppLock hLock, HAppTaskMgr hTaskMgr, const char *szOp);

// ---- stats.cpp, under the registry's mutex --------------------------------------------------

void ReadTaskStats(const void *pvTask, void *pvStats);
void ReadTaskMgrStats(const void *pvTaskMgr, void *pvStats);

// ---- event.cpp ------------------------------------------------------------------------------

// Calls the event's handler, or else the task's, as `dwEventType`.
void CallHandler(TAppTask *ptTask, const TAppTaskEvent &event, uint32_t dwEventType);
// Drops what is queued.  Without the task's lock, in a state that admits no work: so the queue runs
// empty.
void DropEvents(TAppTask *ptTask);

// ---- thread.cpp -----------------------------------------------------------------------------

// The thread is about to wait.
inline uint32_t Announce(TAppTask *ptTask, uint32_t dwNowTick, uint32_t dwWait)
    APP_REQUIRES(ptTask->hLock)
{
    ptTask->dwWaitTick = dwNowTick;
    Poke(ptTask->dwWait, dwWait);
    return dwWait;
}

// A timer has been set, under the task's lock: true when the thread waits beyond its time-out, and
// has to be woken, with QueueWake(), after the lock.
bool EndWait(TAppTask *ptTask, uint32_t dwNowTick, uint32_t dwTimeout) APP_REQUIRES(ptTask->hLock);
inline bool EndWaitFor(TAppTask *ptTask, uint32_t dwNowTick, uint32_t dwTimeout)
    APP_REQUIRES(ptTask->hLock)
{
    return dwTimeout < Peek(ptTask->dwWait) && EndWait(ptTask, dwNowTick, dwTimeout);
}

// A handler begins in the task's thread, at once after the last one or, with a tick of its own, after
// a wait; and has returned.
inline void BeginRun(TAppTask *ptTask, PFAppTaskHandler pfnHandler)
{
    Poke(ptTask->tRun.pfnHandler, pfnHandler);
}
inline void EndRun(TAppTask *ptTask, uint32_t dwTick)
{
    TTaskRun &tRun = ptTask->tRun;
    const uint32_t dwTook = dwTick - Peek(tRun.dwSinceTick);
    // A tick that anybody has read may be older than one read before.
    if (dwTook > Peek(tRun.dwLongest) && static_cast<int32_t>(dwTook) > 0) {
        Poke(tRun.dwLongest, dwTook);
        Poke(tRun.pfnLongest, Peek(tRun.pfnHandler));
    }
    Poke(tRun.dwSinceTick, dwTick);
    Poke(tRun.dwServed, Peek(tRun.dwServed) + 1);
    Poke<PFAppTaskHandler>(tRun.pfnHandler, nullptr);
}

// Names the calling thread after its task.  Under the task's lock.
void NameThread(TAppTask *ptTask) APP_REQUIRES(ptTask->hLock);

// ---- leaving.cpp ----------------------------------------------------------------------------

// Asks something of the task's thread (EAppTaskRequest).  Under the manager's lock.
void Request(TAppTask *ptTask, uint32_t dwRequest);
inline bool MustEnd(const TAppTask *ptTask)
{
    return (ptTask->dwRequests.load() & APP_TASK_REQUEST_END) != 0;
}
// A cancel has counted itself as user of the record, and is done with it: true for the last one,
// who gives hExitLock after the task's lock.  Any other must not touch the record after that.
bool DropUser(TAppTask *ptTask) APP_REQUIRES(ptTask->hLock);
// The thread's last step.
void Leave(TAppTask *ptTask);
// Returns when the task's thread has left and nobody else uses the record.
void AwaitLeft(TAppTask *ptTask);
// A task that is on no list any more will be destroyed outside the manager's lock: counted under
// that lock, so that the manager's destruction waits for it.
void BeginLeaving(TAppTaskMgr *ptTaskMgr);
// It has been destroyed.  The last touch of the manager.
void EndLeaving(TAppTaskMgr *ptTaskMgr);
void AwaitLeaving(TAppTaskMgr *ptTaskMgr);
// Cancels the timers and drops the events of a task whose thread has left.
void TellRest(TAppTask *ptTask);

// ---- manager.cpp ----------------------------------------------------------------------------

// From one of the manager's lists to the tail of the other, under its lock.  The node itself moves,
// so that an exhausted pool cannot cost the task.
void MoveTask(TAppTask *ptTask, HAppDoubleList hFrom, HAppDoubleList hTo);
// From the list to none; likewise.
void UnlistTask(TAppTask *ptTask, HAppDoubleList hList);

#ifdef APPCORE_CHECKS
// ---- check.cpp ------------------------------------------------------------------------------

// The node holds a task that knows it, and whose state belongs into the list.  Under the manager's
// lock.
bool TaskIsValid(const TAppDoubleList *ptList, const TAppDoubleListNode *ptNode);
// All of both lists are; links, counts and limits agree.  Under the manager's lock.
bool TaskMgrIsValid(const TAppTaskMgr *ptTaskMgr);
#endif

} // namespace app

#endif
