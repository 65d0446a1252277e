// SPDX-License-Identifier: MIT
//
// What a task and its manager tell of themselves, without any of their locks.
#include "utils/stats.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/queue.h"

namespace
{

void ReadTimers(const TAppTimerMgr *ptTimerMgr, TAppTaskStats *ptRecord) APP_NO_ANALYSIS
{
    ptRecord->dwTimers = app::PeekCounter(ptTimerMgr->hTimerList->dwCurSize);
    ptRecord->dwTimersSet = app::PeekCounter(ptTimerMgr->dwSet);
    ptRecord->dwTimersExpired = app::PeekCounter(ptTimerMgr->dwExpired);
    ptRecord->dwTimerLateMs = app::PeekCounter(ptTimerMgr->dwMostLate);
}

void ReadEvents(const TAppTask *ptTask, TAppTaskStats *ptRecord)
{
    const TAppQueueStats queue = app::ReadQueueStats(ptTask->hEventQueue);
    ptRecord->dwRefused = app::Peek(ptTask->dwRefused);
    ptRecord->dwDropped = app::Peek(ptTask->dwDropped);
    ptRecord->dwQueued = queue.dwCount;
    ptRecord->dwQueuePeak = queue.dwPeak;
    ptRecord->dwQueueLimit = queue.dwLimit;
}

} // namespace

TAppTaskStats app::ReadTaskStats(HAppTask hTask)
{
    TAppTaskStats record = {};
    const TTaskRun &tRun = hTask->tRun;
    PFAppTaskHandler pfnRunning = Peek(tRun.pfnHandler);
    record.hTask = hTask;
    record.hTaskMgr = hTask->ptTaskMgr;
    AppStrncpy(record.achName, hTask->tEntry.achName, sizeof(record.achName));
    record.nThreadId = Peek(hTask->nThreadId);
    record.dwState = Peek(hTask->dwState);
    record.bInHandler = pfnRunning ? 1 : 0;
    record.dwSinceMs = MsSince(Peek(tRun.dwSinceTick), _AppGetTick());
    record.pfnHandler = pfnRunning ? pfnRunning : Peek(hTask->pfnLastHandler);
    record.pvArg = Peek(hTask->pvLastArg);
    record.dwEventType = Peek(hTask->dwLastEventType);
    record.dwServed = Peek(tRun.dwServed);
    record.dwLongestMs = Peek(tRun.dwLongest) * APP_MS_PER_TICK;
    record.pfnLongest = Peek(tRun.pfnLongest);
    ReadEvents(hTask, &record);
    ReadTimers(hTask->ptTimerMgr, &record);
    return record;
}

TAppTaskMgrStats app::ReadTaskMgrStats(HAppTaskMgr hTaskMgr) APP_NO_ANALYSIS
{
    TAppTaskMgrStats record = {};
    record.hTaskMgr = hTaskMgr;
    record.dwActive = PeekCounter(hTaskMgr->hTaskList->dwCurSize);
    record.dwIdle = PeekCounter(hTaskMgr->hIdleTaskList->dwCurSize);
    record.dwLimit = hTaskMgr->hTaskList->dwMaxSize;
    record.dwCreated = PeekCounter(hTaskMgr->dwCreated);
    record.dwReused = PeekCounter(hTaskMgr->dwReused);
    record.dwRefused = PeekCounter(hTaskMgr->dwRefused);
    record.bEnding = PeekCounter(hTaskMgr->bQuit);
    return record;
}

uint32_t AppTaskGetStats(HAppTask hTask, TAppTaskStats *ptStats)
{
    return app::GetStats(hTask, ptStats, app::ReadTaskStats);
}

uint32_t AppTaskMgrGetStats(HAppTaskMgr hTaskMgr, TAppTaskMgrStats *ptStats)
{
    return app::GetStats(hTaskMgr, ptStats, app::ReadTaskMgrStats);
}
