// SPDX-License-Identifier: MIT
#include "utils/stats.h"

uint32_t app::HandOverStats(void *pvStats, void *pvRecord, uint32_t dwRecordSize)
{
    auto pdwSize = static_cast<uint32_t *>(pvStats); // every record begins with its size
    if (!pdwSize || *pdwSize < sizeof(uint32_t))
        return APP_INVALID_ARG;
    const uint32_t dwSize = *pdwSize < dwRecordSize ? *pdwSize : dwRecordSize;
    *static_cast<uint32_t *>(pvRecord) = dwSize;
    AppMemcpy(pvStats, pvRecord, dwSize);
    return APP_OK;
}
