// SPDX-License-Identifier: MIT
#ifndef APPCORE_UTILS_STATS_H
#define APPCORE_UTILS_STATS_H

#include "appcore/stats.h"
#include "cross_linux/cross_linux.h"
#include "utils/registry.h"

namespace app
{

// Copies as much of a record as its reader knows.
uint32_t HandOverStats(void *pvStats, void *pvRecord, uint32_t dwRecordSize);
template <typename Stats>
uint32_t FillStats(Stats *ptStats, Stats &record)
{
    return HandOverStats(ptStats, &record, sizeof(record));
}

// The same of an object, by a reader that needs the registry's mutex.
template <typename Handle, typename Stats>
uint32_t GetStats(Handle hObject, Stats *ptStats, Stats (*pfnRead)(Handle))
{
    if (!hObject || !ptStats)
        return APP_INVALID_ARG;
    const RegistryGuard guard;
    Stats record = pfnRead(hObject);
    return FillStats(ptStats, record);
}

// Of ticks that are read as they come: one that is later than now counts as now.
inline uint32_t MsSince(uint32_t dwTick, uint32_t dwNowTick)
{
    const uint32_t dwTicks = dwNowTick - dwTick;
    return static_cast<int32_t>(dwTicks) > 0 ? dwTicks * APP_MS_PER_TICK : 0;
}

} // namespace app

#endif
