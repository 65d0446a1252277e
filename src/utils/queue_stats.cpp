// SPDX-License-Identifier: MIT
#include "appcore/platform.h"
#include "utils/queue.h"
#include "utils/stats.h"

// Without the queue's lock: only counters are read.
void app::ReadQueueStats(const void *pvQueue, void *pvStats) APP_NO_ANALYSIS
{
    const auto hQueue = const_cast<HAppQueue>(static_cast<const TAppQueue *>(pvQueue));
    auto &stats = *static_cast<TAppQueueStats *>(pvStats);
    stats = {};
    stats.dwSize = sizeof(stats);
    stats.hQueue = hQueue;
    AppStrncpy(stats.achName, hQueue->tEntry.achName, sizeof(stats.achName));
    stats.dwCount = PeekCounter(hQueue->dwCurSize);
    stats.dwPeak = PeekCounter(hQueue->dwTopSize);
    stats.dwLimit = PeekCounter(hQueue->dwMaxSize);
    stats.dwRefused = PeekCounter(hQueue->dwRefused);
    stats.dwLongestMs = PeekCounter(hQueue->dwLongest) * APP_MS_PER_TICK;
    if (Peek(hQueue->ptWatched))
        stats.dwOldestMs = MsSince(PeekCounter(hQueue->dwWatchTick), _AppGetTick());
    stats.dwSleepers = PeekCounter(hQueue->dwSleepers);
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
