// SPDX-License-Identifier: MIT
//
// The report, wanted most when something hangs: so neither the manager's lock nor a task's is waited
// for without an end.  The manager's guards the lists and the names, which change only under it too;
// everything else about a task but its timers is read without its lock, and may be of two moments.
#include "appcore/platform.h"
#include "base/field.h"
#include "base/print.h"
#include "mempool/mempool.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/lock_guard.h"
#include "utils/queue.h"
#include "utils/report_writer.h"

using app::Int;
using app::Peek;
using app::PeekCounter;
using app::Ptr;
using app::Ul;

namespace
{

constexpr uint32_t kMgrLockWaitMs = 1000;
constexpr uint32_t kTaskLockWaitMs = 20;

const char *NameOf(const TAppTask *ptTask)
{
    return ptTask->szTaskName ? ptTask->szTaskName : "";
}

// The thread's id, as the report prints it the second time.
const void *AsPointer(int32_t nThreadId)
{
    return reinterpret_cast<const void *>(static_cast<intptr_t>(nThreadId));
}

void ShowPoolOf(app::ReportWriter &writer, const TAppTask *ptTask)
{
    const int32_t nThreadId = Peek(ptTask->nThreadId);
    writer.Reset();
    writer.Line("\nTask(%p) Name(%s) Thread(%d %p) MemPool(%p)", Ptr(ptTask), NameOf(ptTask),
                nThreadId, AsPointer(nThreadId), Ptr(ptTask->hMemPool));
    writer.HandOver();
    app::ShowPool(writer, ptTask->hMemPool);
}

// A timer's line, copied under the task's lock and printed after it: a slow callback must not hold
// up those who send to the task.
struct TTimerLine {
    const void *pvTimer;
    const void *pvHandler;
    uint32_t dwTimeout;
    int32_t nLeftMs;
};
constexpr uint32_t kLines = 16; // copied at a time

// Without the lock: only the counter is read.
uint32_t CountTimers(const TAppTask *ptTask) APP_NO_ANALYSIS
{
    return PeekCounter(ptTask->ptTimerMgr->hTimerList->dwCurSize);
}

// Copies the lines from hShown on, which keeps its place while timers come and go.  None when the
// task's lock is not to be had: a report is wanted most when something hangs.
uint32_t CopyTimers(const TAppTask *ptTask, uint32_t dwNowTick, bool bFirst,
                    TTimerLine (&atLine)[kLines])
{
    app::TimedLockGuard guard(ptTask);
    if (!guard.TakeByTime(kTaskLockWaitMs))
        return 0;
    app::AssertHeld(ptTask->ptTimerMgr->ptTask);
    HAppDoubleListNode &hNode = ptTask->ptTimerMgr->hShown;
    if (bFirst)
        hNode = ptTask->ptTimerMgr->hTimerList->ptHead;
    uint32_t dwLines = 0;
    for (; hNode && dwLines < kLines; hNode = hNode->ptNext) {
        auto ptTimer = static_cast<const TAppTimer *>(hNode->pvData);
        const uint32_t dwPassed = app::ElapsedMs(ptTimer->dwStartTick, dwNowTick);
        atLine[dwLines++] = {ptTimer, Ptr(ptTimer->pfnHandler), ptTimer->dwTimeout,
                             static_cast<int32_t>(ptTimer->dwTimeout - dwPassed)};
    }
    return dwLines;
}

void ShowTimers(app::ReportWriter &writer, const TAppTask *ptTask, uint32_t dwNowTick)
{
    // No more lines than there are timers now: handlers may set timers faster than they are shown.
    const uint32_t dwMost = CountTimers(ptTask);
    TTimerLine atLine[kLines];
    // The task's lock is taken anew for each group, so that senders come in between.
    for (uint32_t dwShown = 0, dwLines; dwShown < dwMost; dwShown += dwLines) {
        dwLines = CopyTimers(ptTask, dwNowTick, dwShown == 0, atLine);
        if (dwLines == 0)
            return;
        for (uint32_t i = 0; i < dwLines; ++i)
            writer.Line("Task(%p) Timer(%p)  Handler(%p) Timeout(%lums) RemainTime(%ldms)\n",
                        Ptr(ptTask), atLine[i].pvTimer, atLine[i].pvHandler,
                        Ul(atLine[i].dwTimeout), app::Sl(atLine[i].nLeftMs));
    }
}

void ShowActive(app::ReportWriter &writer, const TAppTask *ptTask)
{
    const uint32_t dwNowTick = AppGetTick();
    const int32_t nThreadId = Peek(ptTask->nThreadId);
    writer.Line(
        "Task(%p) Name(%s) Thread(%d %p) %s Timeout(%lums) EventListSize(%lu/ MAX %lu/ TOP %lu) Timer(%d) LastHandler(%p Type:%d Arg:%p Context:%p)\n",
        Ptr(ptTask), NameOf(ptTask), nThreadId, AsPointer(nThreadId),
        _AppGetTaskStateString(Peek(ptTask->dwState)), Ul(Peek(ptTask->dwIdleTimeout)),
        Ul(AppQueueGetSize(ptTask->hEventQueue)), Ul(_AppQueueGetMaxSize(ptTask->hEventQueue)),
        Ul(_AppQueueGetTopSize(ptTask->hEventQueue)), Int(CountTimers(ptTask)),
        Ptr(Peek(ptTask->pfnLastHandler)), Int(Peek(ptTask->dwLastEventType)),
        Peek(ptTask->pvLastArg), Peek(ptTask->pvLastContext));
    ShowTimers(writer, ptTask, dwNowTick);
}

void ShowIdle(app::ReportWriter &writer, const TAppTask *ptTask)
{
    const int32_t nThreadId = Peek(ptTask->nThreadId);
    writer.Line(
        "Task(%p) Name(%s) Thread(%d %p) %s Timeout(%lums) EventListSize(%lu/ MAX %lu/ TOP %lu)\n",
        Ptr(ptTask), NameOf(ptTask), nThreadId, AsPointer(nThreadId),
        _AppGetTaskStateString(Peek(ptTask->dwState)), Ul(Peek(ptTask->dwIdleTimeout)),
        Ul(AppQueueGetSize(ptTask->hEventQueue)), Ul(_AppQueueGetMaxSize(ptTask->hEventQueue)),
        Ul(_AppQueueGetTopSize(ptTask->hEventQueue)));
}

void ShowTables(app::ReportWriter &writer, HAppTaskMgr hTaskMgr)
{
    const TAppDoubleList *ptActive = hTaskMgr->hTaskList;
    const TAppDoubleList *ptIdle = hTaskMgr->hIdleTaskList;
    writer.Reset();
    writer.Line("\n\n\n============================================\n");
    writer.Line("TaskMgr(%p) Tasks(%lu/%lu) MemPool(%p) Timeout(%lums)\n", Ptr(hTaskMgr),
                Ul(ptActive->dwCurSize + ptIdle->dwCurSize), Ul(ptActive->dwMaxSize),
                Ptr(hTaskMgr->hMemPool), Ul(hTaskMgr->dwIdleTaskTimeout));
    writer.Line("--- %lu ACTIVE TASKS ------------------------\n", Ul(ptActive->dwCurSize));
    app::ForEachTask(ptActive, [&](const TAppTask *ptTask) { ShowActive(writer, ptTask); });
    writer.Line("--- %d INACTIVE TASKS ------------------------\n", Int(ptIdle->dwCurSize));
    app::ForEachTask(ptIdle, [&](const TAppTask *ptTask) { ShowIdle(writer, ptTask); });
    writer.HandOver();
}

} // namespace

void AppTaskMgrShow(HAppTaskMgr hTaskMgr, PFAppShow pfnShow, void *pvContext)
{
    if (!hTaskMgr)
        return;
    app::TimedLockGuard guard(hTaskMgr);
    const bool bTaken = guard.TakeByTime(kMgrLockWaitMs);
    app::ReportWriter writer(pfnShow, pvContext);
    writer.Line("\n============================================\nTaskMgr(%p) MemPool(%p)",
                Ptr(hTaskMgr), Ptr(hTaskMgr->hMemPool));
    writer.HandOver();
    if (!bTaken) { // a callback that blocks, somewhere; the lists may change: no walk
        writer.Line("\nTaskMgr(%p) is busy, no details\n", Ptr(hTaskMgr));
        writer.HandOver();
        return;
    }
    app::ShowPool(writer, hTaskMgr->hMemPool);
    const auto show = [&](const TAppTask *ptTask) { ShowPoolOf(writer, ptTask); };
    app::ForEachTask(hTaskMgr->hTaskList, show);
    app::ForEachTask(hTaskMgr->hIdleTaskList, show);
    ShowTables(writer, hTaskMgr);
}
