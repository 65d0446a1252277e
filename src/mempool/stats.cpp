// SPDX-License-Identifier: MIT
#include "utils/stats.h"
#include "base/field.h"
#include "mempool/mempool.h"

static_assert(APP_STATS_POOL_CLASSES == APP_MEMPOOL_CLASS_NUM);
static_assert(sizeof(TAppMemPoolStats::adwBlocksInUse) == sizeof(app::EngineFigures::adwOnCount));

// Without the pool's lock: only counters are read.
TAppMemPoolStats app::ReadPoolStats(HAppMemPool hMemPool) APP_NO_ANALYSIS
{
    TAppMemPoolStats record = {};
    const EngineFigures figures = ReadEngine(hMemPool->ptImpl);
    record.hMemPool = hMemPool;
    AppStrncpy(record.achName, hMemPool->tEntry.achName, sizeof(record.achName));
    record.dwUsed = PeekCounter(hMemPool->dwCurSize);
    record.dwPeak = PeekCounter(hMemPool->dwPeak);
    record.dwLimit = hMemPool->dwMaxSize;
    record.dwRefused = PeekCounter(hMemPool->dwRefused);
    record.dwBlocks = figures.dwOnWorkCount;
    record.dwHeld = figures.dwTotalSize;
    record.dwIdle = figures.dwIdleSize;
    AppMemcpy(record.adwBlocksInUse, figures.adwOnCount, sizeof(record.adwBlocksInUse));
    AppMemcpy(record.adwBlocksIdle, figures.adwOffCount, sizeof(record.adwBlocksIdle));
    return record;
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
