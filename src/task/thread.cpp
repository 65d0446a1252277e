// SPDX-License-Identifier: MIT
//
// The task's thread.  Its turns: a request of the manager's, or else an event, or else, when a wait
// has brought neither, a look at the time-outs; after each the timers that are due.
//
// The state says what callers may do, the requests what the thread must do: the thread alone takes
// a task out of the states that admit work, and only a new owner takes it back into them.  So while
// a task admits work its state is the thread's own, which steps between RUNNING and PROCESSING
// without the lock: whoever asks under it finds either.
//
// After an event the lock is taken only when the thread has something to do under it: a timer may
// be due, or it is about to wait.  The queue has no other consumer: an element that the thread has
// seen there is there.  Before it waits it leaves word how long; who sets a timer that ends earlier
// ends the wait, with an interrupt of the queue, which is kept for a wait that has not begun yet.
#include "appcore/platform.h"
#include "cross_linux/cross_linux.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

namespace
{

constexpr TAppTaskEvent kRefresh = {APP_TASK_EVENT_REFRESH, nullptr, _AppTaskRefreshHandler,
                                    nullptr};
constexpr TAppTaskEvent kGoForIdle = {APP_TASK_EVENT_STOP, nullptr, _AppTaskGoForIdleHandler,
                                      nullptr};
constexpr TAppTaskEvent kGoForTerminate = {APP_TASK_EVENT_STOP, nullptr,
                                           _AppTaskGoForTerminateHandler, nullptr};

// Returns the next wait.  Timers' handlers take time.
uint32_t RunTimers(TAppTask *ptTask, uint32_t dwNowTick) APP_REQUIRES(ptTask->hLock)
{
    app::AssertHeld(ptTask->ptTimerMgr->ptTask);
    const bool bTimers = ptTask->ptTimerMgr->hTimerList->dwCurSize != 0;
    const uint32_t dwWait = _AppTimerMgrRun(ptTask->ptTimerMgr);
    return app::Announce(ptTask, bTimers ? _AppNoteTick() : dwNowTick, dwWait);
}

// What ends a wait early from here on is kept for the next.  Relaxed: who misses it interrupts once
// too often.
void Retract(TAppTask *ptTask)
{
    app::Poke<uint32_t>(ptTask->dwWait, 0);
}

[[gnu::cold]] void TraceWait(TAppTask *ptTask, uint32_t dwWait, const char *szOp)
{
    app::LockGuard guard(ptTask); // a new owner replaces the name
    AppLog(0, APP_LOG_DEBUG, "[DEBUG] %s: task %p %lu  szTaskName(%s)\n", szOp, app::Ptr(ptTask),
           app::Ul(dwWait), ptTask->szTaskName ? ptTask->szTaskName : "");
}

// The task's handler changes while the task is idle, under its lock: not while it has events.
void Record(TAppTask *ptTask, const TAppTaskEvent &event) APP_NO_ANALYSIS
{
    PFAppTaskHandler pfnHandler = event.pfnHandler ? event.pfnHandler : ptTask->pfnHandler;
    app::RecordEvent(ptTask, event.dwEventType, event.pvArg, pfnHandler,
                     event.pfnHandler ? event.pvContext : ptTask->pvContext);
    app::BeginRun(ptTask, pfnHandler);
}

void Serve(TAppTask *ptTask, const TAppTaskEvent &event)
{
    // The clock is read for a time-out only.  That of an idle task runs from the request that sent
    // it there, a new owner's from the refresh.
    if (event.dwEventType != APP_TASK_EVENT_USER || app::Peek(ptTask->dwIdleTimeout) != 0)
        ptTask->dwLastEventTick = _AppNoteTick();
    Record(ptTask, event);
    if (app::Peek(ptTask->dwState) == APP_TASK_STATE_RUNNING)
        app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_PROCESSING);
    app::CallHandler(ptTask, event, event.dwEventType);
}

// Nothing calls for the lock before the next event.
bool RunsOn(const TAppTask *ptTask)
{
    return app::QueueHolds(ptTask->hEventQueue) && !app::TimersMayBeDue(ptTask->ptTimerMgr) &&
           !app::Traces(APP_LOG_DEBUG);
}

// Among events in a row the clock is read after the first, for while a handler takes long they come
// to stand in a row, and now and then.
uint32_t TickAfterRun(const TAppTask *ptTask, bool bExact)
{
    constexpr uint32_t kRow = 16;
    return bExact || app::Peek(ptTask->tRun.dwServed) % kRow == 0 ? _AppNoteTick()
                                                                  : app::Peek(g_dwAppRecentTick);
}

// Looks at the state that a handler has left behind; false when the thread has to leave.
bool AfterEvent(TAppTask *ptTask, uint32_t *pdwWait, bool bWaited)
{
    const uint32_t dwState = app::Peek(ptTask->dwState);
    const bool bLeaves = dwState == APP_TASK_STATE_TERMINATE || dwState == APP_TASK_STATE_UNINIT;
    if (dwState == APP_TASK_STATE_PROCESSING)
        app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_RUNNING);
    const bool bRunsOn = !bLeaves && RunsOn(ptTask);
    const uint32_t dwNowTick = TickAfterRun(ptTask, bWaited || !bRunsOn);
    app::EndRun(ptTask, dwNowTick);
    if (bLeaves || bRunsOn)
        return bRunsOn;
    app::LockGuard guard(ptTask);
    *pdwWait = RunTimers(ptTask, dwNowTick);
    return true;
}

bool ServeOne(TAppTask *ptTask, const TAppTaskEvent &event, uint32_t *pdwWait, bool bWaited)
{
    if (bWaited)
        app::Poke(ptTask->tRun.dwSinceTick, app::Peek(g_dwAppRecentTick));
    Serve(ptTask, event);
    return AfterEvent(ptTask, pdwWait, bWaited);
}

bool IsRefreshed(const TAppTask *ptTask)
{
    return (ptTask->dwRequests.load() & APP_TASK_REQUEST_REFRESH) != 0;
}

// Only this thread clears the bit, and no owner follows another without it.
bool TakeRefresh(TAppTask *ptTask)
{
    if (!IsRefreshed(ptTask))
        return false;
    ptTask->dwRequests.fetch_and(~static_cast<uint32_t>(APP_TASK_REQUEST_REFRESH));
    return true;
}

bool HasPassed(uint32_t dwTimeout, uint32_t dwElapsedMs)
{
    return dwTimeout != 0 && dwElapsedMs > dwTimeout;
}

// Under the task's lock, after a wait: is a time-out over?  The state is then changed, so that no
// send is admitted and no owner found before the request has been served.
const TAppTaskEvent *CheckIdleTimeouts(TAppTask *ptTask) APP_REQUIRES(ptTask->hLock)
{
    const uint32_t dwElapsed = app::ElapsedMs(ptTask->dwLastEventTick, _AppNoteTick());
    app::LockGuard guard(ptTask->hEventQueue);
    // What came since the wait ended counts: sends and reuse hold a lock that is held here.
    if (app::QueueHolds(ptTask->hEventQueue) || IsRefreshed(ptTask))
        return nullptr;
    if (app::Peek(ptTask->dwState) == APP_TASK_STATE_RUNNING &&
        HasPassed(app::Peek(ptTask->dwIdleTimeout), dwElapsed)) {
        app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_IDLE);
        return &kGoForIdle;
    }
    if (app::Peek(ptTask->dwState) == APP_TASK_STATE_IDLE &&
        HasPassed(ptTask->ptTaskMgr->dwIdleTaskTimeout, dwElapsed)) {
        app::Poke<uint32_t>(ptTask->dwState, APP_TASK_STATE_TERMINATE);
        return &kGoForTerminate;
    }
    return nullptr;
}

// After a wait that ended without an event.
[[gnu::cold]] const TAppTaskEvent *AfterWait(TAppTask *ptTask, uint32_t *pdwWait)
{
    app::LockGuard guard(ptTask);
    const TAppTaskEvent *ptRequest = CheckIdleTimeouts(ptTask);
    *pdwWait = RunTimers(ptTask, _AppNoteTick());
    return ptRequest;
}

// What the manager has asked of the task.
const TAppTaskEvent *NextRequest(TAppTask *ptTask)
{
    if (app::MustEnd(ptTask))
        return &kGoForTerminate;
    return TakeRefresh(ptTask) ? &kRefresh : nullptr;
}

// One turn of the loop; false when the thread has to leave.  A request needs no place in the queue
// and passes what is there.
bool ServeNext(TAppTask *ptTask, uint32_t *pdwWait, void **ppvEvent)
{
    if (const TAppTaskEvent *ptRequest = NextRequest(ptTask)) {
        Retract(ptTask);
        return ServeOne(ptTask, *ptRequest, pdwWait, true);
    }
    const bool bWaits = app::Peek(ptTask->dwWait) != 0; // or would have, had there been no event
    const uint32_t dwResult = app::QueueTakeRecord(ptTask->hEventQueue, *pdwWait, ppvEvent);
    Retract(ptTask);
    if (bWaits)
        _AppNoteTick();
    if (dwResult == APP_OK) {
        // Reused since the look above: the event is the new owner's already, or its end.
        if (TakeRefresh(ptTask))
            ServeOne(ptTask, kRefresh, pdwWait, true);
        return ServeOne(ptTask, *static_cast<TAppTaskEvent *>(*ppvEvent), pdwWait, bWaits);
    }
    const TAppTaskEvent *ptRequest = NextRequest(ptTask); // what may have ended the wait
    if (!ptRequest)
        ptRequest = AfterWait(ptTask, pdwWait);
    return !ptRequest || ServeOne(ptTask, *ptRequest, pdwWait, true);
}

} // namespace

[[gnu::cold]] bool app::EndWait(TAppTask *ptTask, uint32_t dwNowTick, uint32_t dwTimeout)
{
    const uint32_t dwWait = Peek(ptTask->dwWait);
    const uint32_t dwWaited = ElapsedMs(ptTask->dwWaitTick, dwNowTick);
    if (dwWaited >= dwWait || dwTimeout >= dwWait - dwWaited) // it ends in time by itself
        return false;
    Retract(ptTask); // one interrupt is enough
    return QueuePlaceInterrupt(ptTask->hEventQueue);
}

// The system is told only what is new to it: tasks for one job are reused under one name.
void app::NameThread(TAppTask *ptTask)
{
    constexpr uint32_t kSize = sizeof(ptTask->achThreadName);
    const char *szName = ptTask->szTaskName ? ptTask->szTaskName : "";
    const bool bNamed = Peek(ptTask->nThreadId) != 0; // else it bears its creator's name
    if (bNamed && AppStrncmp(ptTask->achThreadName, szName, kSize - 1) == 0)
        return;
    AppStrncpy(ptTask->achThreadName, szName, kSize);
    _AppThreadSetName(ptTask->achThreadName);
}

void *AppTask(void *pvTask)
{
    auto ptTask = static_cast<TAppTask *>(pvTask);
    if (ptTask) {
        uint32_t dwWait = app::Start(ptTask);
        void *pvEvent = nullptr; // the last one served, which goes back with the next take
        do
            if (app::Traces(APP_LOG_DEBUG))
                TraceWait(ptTask, dwWait, __func__);
        while (ServeNext(ptTask, &dwWait, &pvEvent));
        app::QueueGiveRecordBack(ptTask->hEventQueue, pvEvent);
        app::Leave(ptTask);
    }
    _AppThreadExit();
    return nullptr;
}
