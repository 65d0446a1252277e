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
    TAppQueueStats queue;
    app::ReadQueueStats(ptTask->hEventQueue, &queue);
    ptRecord->dwRefused = app::Peek(ptTask->dwRefused);
    ptRecord->dwDropped = app::Peek(ptTask->dwDropped);
    ptRecord->dwQueued = queue.dwCount;
    ptRecord->dwQueuePeak = queue.dwPeak;
    ptRecord->dwQueueLimit = queue.dwLimit;
}

} // namespace

void app::ReadTaskStats(const void *pvTask, void *pvStats)
{
    const auto hTask = const_cast<HAppTask>(static_cast<const TAppTask *>(pvTask));
    auto &stats = *static_cast<TAppTaskStats *>(pvStats);
    stats = {};
    stats.dwSize = sizeof(stats);
    const TTaskRun &tRun = hTask->tRun;
    PFAppTaskHandler pfnRunning = Peek(tRun.pfnHandler);
    stats.hTask = hTask;
    stats.hTaskMgr = hTask->ptTaskMgr;
    AppStrncpy(stats.achName, hTask->tEntry.achName, sizeof(stats.achName));
    stats.nThreadId = Peek(hTask->nThreadId);
    stats.dwState = Peek(hTask->dwState);
    stats.bInHandler = pfnRunning ? 1 : 0;
    stats.dwSinceMs = MsSince(Peek(tRun.dwSinceTick), _AppGetTick());
    stats.pfnHandler = pfnRunning ? pfnRunning : Peek(hTask->pfnLastHandler);
    stats.pvArg = Peek(hTask->pvLastArg);
    stats.dwEventType = Peek(hTask->dwLastEventType);
    stats.dwServed = Peek(tRun.dwServed);
    stats.dwLongestMs = Peek(tRun.dwLongest) * APP_MS_PER_TICK;
    stats.pfnLongest = Peek(tRun.pfnLongest);
    ReadEvents(hTask, &stats);
    ReadTimers(hTask->ptTimerMgr, &stats);
}

void app::ReadTaskMgrStats(const void *pvTaskMgr, void *pvStats) APP_NO_ANALYSIS
{
    const auto hTaskMgr = const_cast<HAppTaskMgr>(static_cast<const TAppTaskMgr *>(pvTaskMgr));
    auto &stats = *static_cast<TAppTaskMgrStats *>(pvStats);
    stats = {};
    stats.dwSize = sizeof(stats);
    stats.hTaskMgr = hTaskMgr;
    stats.dwActive = PeekCounter(hTaskMgr->hTaskList->dwCurSize);
    stats.dwIdle = PeekCounter(hTaskMgr->hIdleTaskList->dwCurSize);
    stats.dwLimit = hTaskMgr->hTaskList->dwMaxSize;
    stats.dwCreated = PeekCounter(hTaskMgr->dwCreated);
    stats.dwReused = PeekCounter(hTaskMgr->dwReused);
    stats.dwRefused = PeekCounter(hTaskMgr->dwRefused);
    stats.bEnding = PeekCounter(hTaskMgr->bQuit);
}

uint32_t AppTaskGetStats(HAppTask hTask, TAppTaskStats *ptStats)
{
    return app::GetStats(hTask, ptStats, app::ReadTaskStats);
}

uint32_t AppTaskMgrGetStats(HAppTaskMgr hTaskMgr, TAppTaskMgrStats *ptStats)
{
    return app::GetStats(hTaskMgr, ptStats, app::ReadTaskMgrStats);
}
