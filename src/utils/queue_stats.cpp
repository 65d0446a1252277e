// SPDX-License-Identifier: MIT
#include "appcore/platform.h"
#include "utils/queue.h"
#include "utils/stats.h"

// Without the queue's lock: only counters are read.
TAppQueueStats app::ReadQueueStats(HAppQueue hQueue) APP_NO_ANALYSIS
{
    TAppQueueStats record = {};
    record.hQueue = hQueue;
    AppStrncpy(record.achName, hQueue->tEntry.achName, sizeof(record.achName));
    record.dwCount = PeekCounter(hQueue->dwCurSize);
    record.dwPeak = PeekCounter(hQueue->dwTopSize);
    record.dwLimit = PeekCounter(hQueue->dwMaxSize);
    record.dwRefused = PeekCounter(hQueue->dwRefused);
    record.dwLongestMs = PeekCounter(hQueue->dwLongest) * APP_MS_PER_TICK;
    if (Peek(hQueue->ptWatched))
        record.dwOldestMs = MsSince(PeekCounter(hQueue->dwWatchTick), _AppGetTick());
    record.dwSleepers = PeekCounter(hQueue->dwSleepers);
    return record;
}

uint32_t AppQueueGetStats(HAppQueue hQueue, TAppQueueStats *ptStats)
{
    return app::GetStats(hQueue, ptStats, app::ReadQueueStats);
}

void AppQueueSetName(HAppQueue hQueue, const char *szName)
{
    if (hQueue)
        app::SetName(szName, &hQueue->tEntry);
}
