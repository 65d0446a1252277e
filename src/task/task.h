// SPDX-License-Identifier: MIT
//
// The task manager's records and its internal operations.
//
// Locks.  The manager's lock guards both task lists, bQuit and dwLeaving.  A task's lock guards
// what is marked (task) below.  Order: the manager's lock, then a task's.  No lock is held while a
// handler runs.
//
// Who may touch a record last, and who waits for whom, is told in leaving.cpp.
#ifndef APPCORE_TASK_TASK_H
#define APPCORE_TASK_TASK_H

#include <stddef.h>

#include <atomic>

#include "appcore/containers.h"
#include "appcore/task.h"

struct TAppTaskMgr {
    uint32_t dwIdleTaskTimeout; // ms; 0: idle tasks never end by themselves
    HAppLock hLock;
    HAppDoubleList hTaskList;     // active tasks, oldest first
    HAppDoubleList hIdleTaskList; // in the order in which they went idle
    HAppMemPool hMemPool;         // pool of every record
    uint32_t bQuit;               // the destruction has begun

    uint32_t dwLeaving; // threads that still destroy a task that is on no list
    HAppLock hLeftLock; // given for each of them that is done once bQuit is set
};

struct TAppTimerMgr;

struct TAppTask {
    TAppTaskMgr *ptTaskMgr;
    HAppMemPool hMemPool; // the task's own, for its handlers
    HAppLock hLock;
    HAppLock hExitLock; // given by the last user of the record, see leaving.cpp
    HAppQueue hEventQueue;
    std::atomic<uint32_t> dwState;       // (task); atomic only because reports peek at it
    std::atomic<uint32_t> dwIdleTimeout; // (task); likewise
    PFAppTaskHandler pfnHandler;         // (task); null once the task has gone idle
    void *pvContext;                     // (task)
    HAppDoubleListNode hListNode;        // in one of the manager's lists; under the manager's lock
    char *szTaskName;                    // (task), and replaced under the manager's lock too
    std::atomic<int32_t> nThreadId;
    TAppTimerMgr *ptTimerMgr;

    // Diagnostics, written without a lock.
    std::atomic<uint32_t> dwLastEventType;
    std::atomic<void *> pvLastArg;
    std::atomic<PFAppTaskHandler> pfnLastHandler;
    std::atomic<void *> pvLastContext;

    uint32_t dwLastEventTick;         // (task) when the last event came
    std::atomic<uint32_t> dwUsers;    // see leaving.cpp; grows only under the task's lock
    std::atomic<uint32_t> dwRequests; // EAppTaskRequest
};

// What the manager wants of a task's thread lies in the record itself, so that neither reuse nor
// the end can fail for want of memory.  A request passes every event that is queued.
enum EAppTaskRequest {
    APP_TASK_REQUEST_END = 1, // leave: the manager is destroyed or the task disposed of
    APP_TASK_REQUEST_REFRESH = 2,
};

// Copied into a record of its own for the queue.
struct TAppTaskEvent {
    uint32_t dwEventType;
    void *pvArg;
    PFAppTaskHandler pfnHandler; // null: the task's
    void *pvContext;             // with pfnHandler only
};

struct TAppTimerMgr {
    HAppDoubleList hTimerList;     // running, in the order in which they were set
    HAppDoubleList hIdleTimerList; // ended, in the order in which they ended
    PFAppTaskHandler pfnHandler;   // for timers without their own
    void *pvContext;
    TAppTask *ptTask;
    HAppMemPool hMemPool;

    // Of the run: see timer_run.cpp.
    HAppDoubleListNode hNext; // where the walk goes on; moved when its node leaves the list
    uint32_t dwRun;           // odd during a run
    uint32_t dwRunTick;       // when the run began
    uint32_t dwCheckTick;     // no timer is due before dwCheckWait ms after this tick
    uint32_t dwCheckWait;

    HAppDoubleListNode hShown; // where a report goes on; moved like hNext
};

struct TAppTimer {
    TAppTimerMgr *ptTimerMgr;     // for the record's life: a late cancel reads it without a lock
    HAppDoubleListNode hListNode; // null while in neither list
    PFAppTaskHandler pfnHandler;
    void *pvContext;
    uint32_t dwStartTick;
    uint32_t dwTimeout; // ms
    uint32_t dwState;   // 1 running, 0 ended
    uint32_t dwRun;     // the timer manager's when the timer was set
};

#if UINTPTR_MAX == UINT32_MAX
// What has been added stands behind the fixed part.
static_assert(offsetof(TAppTaskMgr, dwLeaving) == 24, "fixed layout");
static_assert(offsetof(TAppTask, dwState) == 20 && offsetof(TAppTask, ptTimerMgr) == 48 &&
                  offsetof(TAppTask, dwLastEventTick) == 68,
              "fixed layout");
static_assert(sizeof(TAppTaskEvent) == 16, "fixed layout");
static_assert(offsetof(TAppTimerMgr, hNext) == 24, "fixed layout");
static_assert(offsetof(TAppTimer, dwRun) == 28, "fixed layout");
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
// Makes an idle task the new owner's; called with the manager's and the task's lock held.
uint32_t _AppTaskRefreshArg(TAppTask *ptTask, const char *szTaskName, uint32_t dwMaxEvent,
                            uint32_t dwIdleTimeout, PFAppTaskHandler pfnHandler, void *pvContext);
// Queues a copy of the event.  Takes no task lock; `*pbWake` says that the task's thread has to be
// woken for it, with QueueWake(), after the lock that the caller may hold.
uint32_t _AppTaskSendEvent(TAppTask *ptTask, const TAppTaskEvent *ptEvent, int32_t nPriority,
                           uint32_t bForce, bool *pbWake);

// The thread's function, and the handlers of the internal requests.
void *AppTask(void *pvTask);
uint32_t _AppTaskGoForIdleHandler(HAppTask hTask, uint32_t dwEventType, void *pvArg,
                                  void *pvContext);
uint32_t _AppTaskGoForTerminateHandler(HAppTask hTask, uint32_t dwEventType, void *pvArg,
                                       void *pvContext);
uint32_t _AppTaskRefreshHandler(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvContext);
// Tells one event's drop and releases it.
void _AppTaskDropEventCB(void *pvEvent, void *pvTask);
// Callbacks for the lists' destruction.
void __AppFreeTaskCB(void *pvTask, void *pvIgnored);
void __AppFreeIdleTimerCB(void *pvTimer, void *pvIgnored);

// Timers; called with the task's lock held unless said otherwise.
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

// Sends, timers and terminate requests are admitted in these states.
bool AdmitsWork(uint32_t dwState);
// Milliseconds from a tick to now.
uint32_t ElapsedMs(uint32_t dwStartTick, uint32_t dwNowTick);
// The last event, for diagnostics.
void RecordEvent(TAppTask *ptTask, uint32_t dwEventType, void *pvArg, PFAppTaskHandler pfnHandler,
                 void *pvContext);

// ---- event.cpp ------------------------------------------------------------------------------

// Calls the event's handler, or else the task's, as `dwEventType`.
void CallHandler(TAppTask *ptTask, const TAppTaskEvent &event, uint32_t dwEventType);
// Drops what is queued.  Without the task's lock, in a state that admits no work: so the queue runs
// empty.
void DropEvents(TAppTask *ptTask);

// ---- leaving.cpp ----------------------------------------------------------------------------

// Asks something of the task's thread (EAppTaskRequest).  Under the manager's lock.
void Request(TAppTask *ptTask, uint32_t dwRequest);
inline bool MustEnd(const TAppTask *ptTask)
{
    return (ptTask->dwRequests.load() & APP_TASK_REQUEST_END) != 0;
}
// A cancel has counted itself as user of the record, and is done with it.
void DropVisitor(TAppTask *ptTask);
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

// ---- timer_mgr.cpp, timer_run.cpp -----------------------------------------------------------

// Cancels every running timer, oldest first.  Under the task's lock, which is given for each call
// of a handler.  `bRecord`: each becomes the task's last event.
void CancelTimers(TAppTimerMgr *ptTimerMgr, bool bRecord);
// A timer has been set; see timer_run.cpp.
void NoteTimeout(TAppTimerMgr *ptTimerMgr, uint32_t dwNowTick, uint32_t dwTimeout);
// Takes a timer out of the running ones, its node kept.
HAppDoubleListNode UnlistTimer(TAppTimer *ptTimer);

} // namespace app

#endif
