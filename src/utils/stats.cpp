// SPDX-License-Identifier: MIT
#include "utils/stats.h"

uint32_t app::HandOverStats(void *pvStats, TAnyStats *ptRecord)
{
    const auto pdwSize = static_cast<const uint32_t *>(pvStats);
    if (!pdwSize || *pdwSize < sizeof(uint32_t))
        return APP_INVALID_ARG;
    if (ptRecord->dwSize > *pdwSize)
        ptRecord->dwSize = *pdwSize;
    AppMemcpy(pvStats, ptRecord, ptRecord->dwSize);
    return APP_OK;
}

uint32_t app::GetStats(const void *pvObject, void *pvStats,
                       void (*pfnRead)(const void *pvObject, void *pvStats))
{
    if (!pvObject || !pvStats)
        return APP_INVALID_ARG;
    TAnyStats record;
    const RegistryGuard guard;
    pfnRead(pvObject, &record);
    return HandOverStats(pvStats, &record);
}
