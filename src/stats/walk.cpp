// SPDX-License-Identifier: MIT
//
// Every record of the process, one after the other.  A record is copied under the registry's mutex
// and handed over without it, so that a callback may take as long as it likes.
#include "mempool/mempool.h"
#include "task/task.h"
#include "utils/queue.h"
#include "utils/registry.h"
#include "utils/stats.h"

namespace
{

union TAnyStats {
    TAppMemPoolStats pool;
    TAppQueueStats queue;
    TAppTaskMgrStats manager;
    TAppTaskStats task;
    TAppLogStats log;
    TAppShareActionStats actions;
    TAppSocketStats sockets;
    uint32_t dwSize; // of each
};

struct TWalk {
    uint32_t dwKinds;
    PFAppStats pfnStats;
    void *pvContext;
    uint32_t dwRecords;

    void HandOver(uint32_t dwKind, const TAnyStats &stats)
    {
        ++dwRecords;
        pfnStats(dwKind, &stats, pvContext);
    }
};

template <auto Read, typename Owner, typename Stats>
void Copy(void *pvOwner, void *pvStats)
{
    auto ptStats = static_cast<Stats *>(pvStats);
    *ptStats = Read(static_cast<Owner *>(pvOwner));
    ptStats->dwSize = sizeof(Stats);
}

void WalkRegistry(TWalk &walk, EAppRegistry eRegistry, uint32_t dwKind,
                  void (*pfnCopy)(void *pvOwner, void *pvStats))
{
    if ((walk.dwKinds & dwKind) == 0)
        return;
    TAnyStats stats;
    for (uint64_t qwPlace = 0; app::LookAtNext(eRegistry, &qwPlace, pfnCopy, &stats);)
        walk.HandOver(dwKind, stats);
}

void WalkLogs(TWalk &walk)
{
    if ((walk.dwKinds & APP_STATS_LOGS) == 0)
        return;
    TAnyStats stats;
    for (uint32_t i = 0; i < 256; ++i) {
        stats.dwSize = sizeof(stats.log);
        AppLogGetStats(static_cast<uint8_t>(i), &stats.log);
        if (stats.log.dwLines != 0 || stats.log.bFile != 0)
            walk.HandOver(APP_STATS_LOGS, stats);
    }
}

template <typename Stats>
void WalkOne(TWalk &walk, uint32_t dwKind, uint32_t (*pfnGet)(Stats *ptStats))
{
    if ((walk.dwKinds & dwKind) == 0)
        return;
    TAnyStats stats;
    stats.dwSize = sizeof(Stats);
    pfnGet(reinterpret_cast<Stats *>(&stats));
    walk.HandOver(dwKind, stats);
}

} // namespace

uint32_t AppStatsWalk(uint32_t dwKinds, PFAppStats pfnStats, void *pvContext)
{
    if (!pfnStats)
        return 0;
    TWalk walk = {dwKinds, pfnStats, pvContext, 0};
    WalkRegistry(walk, APP_REGISTRY_POOLS, APP_STATS_POOLS,
                 Copy<app::ReadPoolStats, TAppMemPool, TAppMemPoolStats>);
    WalkRegistry(walk, APP_REGISTRY_QUEUES, APP_STATS_QUEUES,
                 Copy<app::ReadQueueStats, TAppQueue, TAppQueueStats>);
    WalkRegistry(walk, APP_REGISTRY_TASK_MGRS, APP_STATS_TASK_MGRS,
                 Copy<app::ReadTaskMgrStats, TAppTaskMgr, TAppTaskMgrStats>);
    WalkRegistry(walk, APP_REGISTRY_TASKS, APP_STATS_TASKS,
                 Copy<app::ReadTaskStats, TAppTask, TAppTaskStats>);
    WalkLogs(walk);
    WalkOne(walk, APP_STATS_ACTIONS, AppShareActionGetStats);
    WalkOne(walk, APP_STATS_SOCKETS, AppSocketGetStats);
    return walk.dwRecords;
}
