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

struct TWalk {
    uint32_t dwKinds;
    PFAppStats pfnStats;
    void *pvContext;
    uint32_t dwRecords;

    void HandOver(uint32_t dwKind, const app::TAnyStats &stats)
    {
        ++dwRecords;
        pfnStats(dwKind, &stats, pvContext);
    }
};

[[gnu::noinline]] void WalkRegistry(TWalk &walk, EAppRegistry eRegistry, uint32_t dwKind,
                                    void (*pfnRead)(const void *pvObject, void *pvStats))
{
    if ((walk.dwKinds & dwKind) == 0)
        return;
    app::TAnyStats stats;
    for (uint64_t qwPlace = 0; app::LookAtNext(eRegistry, &qwPlace, pfnRead, &stats);)
        walk.HandOver(dwKind, stats);
}

void WalkLogs(TWalk &walk)
{
    if ((walk.dwKinds & APP_STATS_LOGS) == 0)
        return;
    app::TAnyStats stats;
    for (uint32_t i = 0; i < 256; ++i) {
        stats.dwSize = sizeof(stats.log);
        AppLogGetStats(static_cast<uint8_t>(i), &stats.log);
        if (stats.log.dwLines != 0 || stats.log.bFile != 0)
            walk.HandOver(APP_STATS_LOGS, stats);
    }
}

// Those of which there is one.
void WalkSingles(TWalk &walk)
{
    app::TAnyStats stats;
    stats.dwSize = sizeof(stats);
    if ((walk.dwKinds & APP_STATS_ACTIONS) != 0) {
        AppShareActionGetStats(&stats.actions);
        walk.HandOver(APP_STATS_ACTIONS, stats);
    }
    stats.dwSize = sizeof(stats);
    if ((walk.dwKinds & APP_STATS_SOCKETS) != 0) {
        AppSocketGetStats(&stats.sockets);
        walk.HandOver(APP_STATS_SOCKETS, stats);
    }
}

} // namespace

uint32_t AppStatsWalk(uint32_t dwKinds, PFAppStats pfnStats, void *pvContext)
{
    if (!pfnStats)
        return 0;
    TWalk walk = {dwKinds, pfnStats, pvContext, 0};
    WalkRegistry(walk, APP_REGISTRY_POOLS, APP_STATS_POOLS, app::ReadPoolStats);
    WalkRegistry(walk, APP_REGISTRY_QUEUES, APP_STATS_QUEUES, app::ReadQueueStats);
    WalkRegistry(walk, APP_REGISTRY_TASK_MGRS, APP_STATS_TASK_MGRS, app::ReadTaskMgrStats);
    WalkRegistry(walk, APP_REGISTRY_TASKS, APP_STATS_TASKS, app::ReadTaskStats);
    WalkLogs(walk);
    WalkSingles(walk);
    return walk.dwRecords;
}
