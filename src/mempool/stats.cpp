// SPDX-License-Identifier: MIT
#include "utils/stats.h"
#include "base/field.h"
#include "mempool/mempool.h"

static_assert(APP_STATS_POOL_CLASSES == APP_MEMPOOL_CLASS_NUM);
static_assert(sizeof(TAppMemPoolStats::adwBlocksInUse) == sizeof(app::EngineFigures::adwOnCount));

// Without the pool's lock: only counters are read.
void app::ReadPoolStats(const void *pvPool, void *pvStats) APP_NO_ANALYSIS
{
    const auto hMemPool = const_cast<HAppMemPool>(static_cast<const TAppMemPool *>(pvPool));
    auto &stats = *static_cast<TAppMemPoolStats *>(pvStats);
    stats = {};
    stats.dwSize = sizeof(stats);
    const EngineFigures figures = ReadEngine(hMemPool->ptImpl);
    stats.hMemPool = hMemPool;
    AppStrncpy(stats.achName, hMemPool->tEntry.achName, sizeof(stats.achName));
    stats.dwUsed = PeekCounter(hMemPool->dwCurSize);
    stats.dwPeak = PeekCounter(hMemPool->dwPeak);
    stats.dwLimit = hMemPool->dwMaxSize;
    stats.dwRefused = PeekCounter(hMemPool->dwRefused);
    stats.dwBlocks = figures.dwOnWorkCount;
    stats.dwHeld = figures.dwTotalSize;
    stats.dwIdle = figures.dwIdleSize;
    AppMemcpy(stats.adwBlocksInUse, figures.adwOnCount, sizeof(stats.adwBlocksInUse));
    AppMemcpy(stats.adwBlocksIdle, figures.adwOffCount, sizeof(stats.adwBlocksIdle));
}

uint32_t AppMemPoolGetStats(HAppMemPool hMemPool, TAppMemPoolStats *ptStats)
{
    return app::GetStats(hMemPool, ptStats, app::ReadPoolStats);
}

void AppMemPoolSetName(HAppMemPool hMemPool, const char *szName)
{
    if (hMemPool)
        app::SetName(szName, &hMemPool->tEntry);
}
