/* SPDX-License-Identifier: MIT */
/**
 * @file task.h
 * Tasks: event-driven workers with a thread, a priority queue of events, a memory pool and
 * one-shot timers each; and the task manager that owns them.
 *
 * A task's handlers - for its events, its timers and its notices - run one after the other in the
 * task's own thread, with no lock of the library held.  The two exceptions: AppTaskCancelTimer()
 * calls the timer's handler in the calling thread, and what is left when a manager is destroyed is
 * told in the destroying thread.
 *
 * A task that has had no event for its idle time-out, or that is terminated, goes idle: its timers
 * end with ::APP_TASK_EVENT_TIMER_CANCEL, its waiting events with ::APP_TASK_EVENT_DROP, its
 * handler is told with ::APP_TASK_EVENT_STOP and forgotten.  The task then waits, thread and all,
 * to be handed out again by AppTaskMgrNewTask(), and ends when nobody takes it within the manager's
 * time-out.  So a task handle is valid from its creation to its STOP notice or to
 * AppTaskMgrDestroy(), whichever comes first; the application never releases a task.
 *
 * Every event is either delivered, or dropped with its notice, or refused by the send; every timer
 * is told exactly once.  The library never looks into an event's argument: whoever gets it, by
 * delivery or by drop notice, releases it.
 *
 * All operations may be called from any thread and from handlers, unless their text says otherwise.
 * Time-outs are milliseconds; timers and idle time-outs have a resolution of 10 ms.
 */
#ifndef APPCORE_TASK_H
#define APPCORE_TASK_H

#include "appcore/foundation.h"
#include "appcore/handles.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Why a handler is called. */
enum EAppTaskEventType {
    APP_TASK_EVENT_REFRESH = 0,     /**< internal: a task is reused */
    APP_TASK_EVENT_USER = 1,        /**< an event of the application */
    APP_TASK_EVENT_DROP = 2,        /**< the event with this argument is discarded unprocessed */
    APP_TASK_EVENT_STOP = 3,        /**< the task has gone idle and forgets its handler */
    APP_TASK_EVENT_TIMEOUT = 4,     /**< a timer has expired; the argument is its handle */
    APP_TASK_EVENT_TIMER_CANCEL = 5 /**< a timer has ended without expiring; likewise */
};

/** The states of a task, as reports and messages name them. */
enum EAppTaskState {
    APP_TASK_STATE_INIT = 0,       /**< created; the thread has not started its loop yet */
    APP_TASK_STATE_RUNNING = 1,    /**< the thread waits for events */
    APP_TASK_STATE_PROCESSING = 2, /**< the thread runs an event's handler */
    APP_TASK_STATE_IDLE = 3,       /**< gone idle, or about to */
    APP_TASK_STATE_TERMINATE = 4,  /**< the task is ending */
    APP_TASK_STATE_UNINIT = 5      /**< the task has left the manager */
};

/**
 * Handles an event, a timer or a notice.
 * @param hTask       the task
 * @param dwEventType ::EAppTaskEventType
 * @param pvArg       the event's argument; the timer's handle; null for the STOP notice
 * @param pvContext   the context that belongs to the handler called: the event's or the timer's
 *                    own, or the task's when the task's handler is called
 * @return ignored
 */
typedef uint32_t (*PFAppTaskHandler)(HAppTask hTask, uint32_t dwEventType, void *pvArg,
                                     void *pvContext);

/** @name Task manager
 * @{ */

/**
 * Creates a task manager.
 * @param hMemPool          pool of every record of the manager and its tasks, created with a lock;
 *                          null is the process heap.  It must outlive the manager.
 * @param dwMaxTask         most active tasks, and most idle ones; 0 refuses every task
 * @param dwIdleTaskTimeout milliseconds after which an idle task ends; 0 never
 * @param phTaskMgr         receives the manager; null when the creation failed
 * @retval APP_OK          created
 * @retval APP_INVALID_ARG null `phTaskMgr`
 * @retval APP_NO_RESOURCE no memory; other codes are those of the lock and the lists
 */
APP_API uint32_t AppTaskMgrCreate(HAppMemPool hMemPool, uint32_t dwMaxTask,
                                  uint32_t dwIdleTaskTimeout, HAppTaskMgr *phTaskMgr);

/**
 * Ends every task and destroys the manager.  Waits until each task's thread has left, which is
 * after the handler that it runs has returned; not to be called from a handler.  Then the running
 * timers reach their handlers with ::APP_TASK_EVENT_TIMER_CANCEL and the events still queued theirs
 * with ::APP_TASK_EVENT_DROP, task by task, in the calling thread and with no lock held.  Only then
 * is anything released: until this returns, handlers may use every task of the manager that was
 * valid when it was called, and its report; the sends and timers of a task that has left are
 * refused with their line.  Needs no memory.  When it returns, no thread touches the manager, its
 * pool or any of its records.
 * @param hTaskMgr null does nothing; beside the handlers, no other thread may use the manager or
 * its tasks any more
 */
APP_API void AppTaskMgrDestroy(HAppTaskMgr hTaskMgr);

/**
 * Hands out a task: the one that went idle last, or a new one with a thread of its own.  Reuse
 * needs no memory but for the name; without it the task has none.
 * @param hTaskMgr      the manager
 * @param szTaskName    name, copied; the thread bears its first 15 characters; may be null
 * @param dwMaxEvent    most waiting events; 0 is ::APP_QUEUE_DEFAULT_MAX for a new task and no
 *                      limit for a reused one
 * @param dwStackSize   stack of a new thread in bytes; a reused task keeps its own.  16 KiB, the
 *                      least that the system takes (PTHREAD_STACK_MIN), are enough for handlers
 *                      that log to the console, send and set timers; 24 KiB for all that the
 *                      library does, log files and logged reports included.  5 KiB of it are the C
 *                      library's and the task's own, the guard page is not part of it.  What
 *                      handlers and callbacks take beyond 2 KiB, signal handlers, floating-point
 *                      values in log lines (3 KiB) and an unbuffered standard output (9 KiB) come
 *                      on top.  A size below the system's least, and 0, gives the thread the
 *                      process's default: `ulimit -s`, as a rule 8 MiB of address space, of which
 *                      only what is touched takes memory
 * @param dwMemPoolSize limit of a new task's pool in bytes; 0 is none
 * @param dwIdleTimeout milliseconds without an event after which the task goes idle; 0 never
 * @param pfnHandler    handler of events without their own, of timers without their own, and of
 *                      the STOP notice; may be null
 * @param pvContext     handed to `pfnHandler`
 * @param phTask        receives the task; null on every failure after the argument checks
 * @retval APP_OK          handed out
 * @retval APP_INVALID_ARG null manager or `phTask`, or the manager is being destroyed
 * @retval APP_NO_RESOURCE as many active tasks as the manager allows, or no memory
 * @retval APP_FAILED      the thread could not be started
 */
APP_API uint32_t AppTaskMgrNewTask(HAppTaskMgr hTaskMgr, const char *szTaskName,
                                   uint32_t dwMaxEvent, uint32_t dwStackSize,
                                   uint32_t dwMemPoolSize, uint32_t dwIdleTimeout,
                                   PFAppTaskHandler pfnHandler, void *pvContext, HAppTask *phTask);

/**
 * Reports a manager: its pool, every task with its pool, then a table of the tasks with their
 * states, queues, timers and last events.  Waits at most a second for the manager's lock and
 * reports only the header without it.
 * @param hTaskMgr  null hands nothing over
 * @param pfnShow   receives the text in pieces, the manager's lock held but no task's and no
 * pool's: it may send to tasks and set timers, but must neither create a task nor report or destroy
 * the manager; null drops the text
 * @param pvContext handed to `pfnShow`
 */
APP_API void AppTaskMgrShow(HAppTaskMgr hTaskMgr, PFAppShow pfnShow, void *pvContext);

/** @} */

/** @name Events
 * @{ */

/**
 * Sends an event.  Blocks at most a second, for the lock of the task's queue.
 * @param hTask      the task
 * @param pvArg      argument; stays the property of whoever handles it
 * @param pfnHandler handler of this event; null is the task's
 * @param pvContext  handed to `pfnHandler`; not used without one
 * @retval APP_OK          queued
 * @retval APP_INVALID_ARG null task, or a task that is idle or ending
 * @retval APP_NO_RESOURCE the task's queue is full, or no memory
 * @retval APP_TIMEOUT     the queue's lock was not to be had; nothing is queued
 */
APP_API uint32_t AppTaskSendEvent(HAppTask hTask, void *pvArg, PFAppTaskHandler pfnHandler,
                                  void *pvContext);

/** As AppTaskSendEvent(), but a full queue takes the event too, and the lock is waited for without
 *  limit. */
APP_API uint32_t AppTaskAssignEvent(HAppTask hTask, void *pvArg, PFAppTaskHandler pfnHandler,
                                    void *pvContext);

/**
 * Makes a task go idle, after the handler that it runs and before every event that waits.  Returns
 * at once.
 * @retval APP_OK          the request is queued
 * @retval APP_INVALID_ARG null task, or a task that is idle or ending
 * @retval APP_NO_RESOURCE no memory
 */
APP_API uint32_t AppTaskTerminate(HAppTask hTask);

/**
 * The last event that the task dispatched or timer that it ended: for diagnostics, the four values
 * need not belong together.
 * @retval APP_OK          all four written
 * @retval APP_INVALID_ARG an argument is null
 */
APP_API uint32_t AppTaskGetLastEvent(HAppTask hTask, uint32_t *pdwEventType, void **ppvArg,
                                     PFAppTaskHandler *ppfnHandler, void **ppvContext);

/**
 * The task's own pool, for its handlers.  It has no lock: only for use in the task's thread, and
 * only until the task goes idle.
 * @return the pool; null for a null task
 */
APP_API HAppMemPool AppTaskGetMemPool(HAppTask hTask);

/** @} */

/** @name Timers
 * One-shot; a periodic timer is set anew by its handler.  A handle is valid until its timer ends:
 * drop it when the handler is told ::APP_TASK_EVENT_TIMEOUT or ::APP_TASK_EVENT_TIMER_CANCEL, for
 * the task's next timer may bear the same handle.  The operations need a task that is not idle.
 * @{ */

/**
 * Sets a timer.  Whoever sets it, it expires in the task's thread as soon as its time-out has passed
 * in ticks of 10 ms: while the task waits, a tick and the thread's waking later; while its handlers
 * run, after the one that runs.  A thread that sleeps beyond the time-out is woken to look again.
 * @param hTask      the task
 * @param dwTimeout  milliseconds; 0 expires at the next look at the timers
 * @param pfnHandler null is the task's handler, with the task's context
 * @param pvContext  handed to `pfnHandler`; not used without one
 * @return the timer; null for a null task, one that is idle or ending, or without memory
 */
APP_API HAppTimer AppTaskSetTimer(HAppTask hTask, uint32_t dwTimeout, PFAppTaskHandler pfnHandler,
                                  void *pvContext);

/**
 * Lets the timer's full time-out run again from now.
 * @retval APP_OK            restarted
 * @retval APP_INVALID_ARG   not a timer
 * @retval APP_INVALID_STATE the task is idle or ending
 * @retval APP_NOT_FOUND     the timer has ended
 */
APP_API uint32_t AppTaskResetTimer(HAppTimer hTimer);

/** Ends a timer; its handler is told ::APP_TASK_EVENT_TIMER_CANCEL in the calling thread, before
 *  this returns.  A timer that has ended already is left alone.  @param hTimer null does nothing */
APP_API void AppTaskCancelTimer(HAppTimer hTimer);

/** @return milliseconds until the timer expires; 0 when overdue, or when the task is idle */
APP_API uint32_t AppTaskTimerGetRemainTime(HAppTimer hTimer);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
