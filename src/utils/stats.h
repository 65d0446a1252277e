// SPDX-License-Identifier: MIT
#ifndef APPCORE_UTILS_STATS_H
#define APPCORE_UTILS_STATS_H

#include "appcore/stats.h"
#include "cross_linux/cross_linux.h"
#include "utils/registry.h"

namespace app
{

// Room for any of the records.
union TAnyStats {
    uint32_t dwSize; // every record begins with it
    TAppMemPoolStats pool;
    TAppQueueStats queue;
    TAppTaskMgrStats manager;
    TAppTaskStats task;
    TAppLogStats log;
    TAppShareActionStats actions;
    TAppSocketStats sockets;
};

// Copies as much of a record as its reader has room for.
uint32_t HandOverStats(void *pvStats, TAnyStats *ptRecord);
template <typename Stats>
uint32_t FillStats(Stats *ptStats, Stats &record)
{
    record.dwSize = sizeof(record);
    return HandOverStats(ptStats, reinterpret_cast<TAnyStats *>(&record));
}
// The same of an object, which `pfnRead` reads under the registry's mutex.
uint32_t GetStats(const void *pvObject, void *pvStats,
                  void (*pfnRead)(const void *pvObject, void *pvStats));

// Of ticks that are read as they come: one that is later than now counts as now.
inline uint32_t MsSince(uint32_t dwTick, uint32_t dwNowTick)
{
    const uint32_t dwTicks = dwNowTick - dwTick;
    return static_cast<int32_t>(dwTicks) > 0 ? dwTicks * APP_MS_PER_TICK : 0;
}

} // namespace app

#endif
