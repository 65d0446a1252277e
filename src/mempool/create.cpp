// SPDX-License-Identifier: MIT
#include <stdlib.h>

#include "appcore/platform.h"
#include "base/rollback.h"
#include "mempool/mempool.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

static uint32_t FillPool(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t bLock,
                         uint32_t dwReserved, const char *szOp)
{
    // From the heap: the pool cannot serve its own lock, which outlives the engine.
    if (bLock == 1) {
        const uint32_t dwResult = AppLockCreate(nullptr, 1, 1, APP_LOCK_TYPE_SEM, &hMemPool->hLock);
        if (dwResult != APP_OK) {
            APP_LOG_RESULT(dwResult, "[ERROR] %s: AppLockCreate failed %d\n", szOp);
            return dwResult;
        }
    }
    const uint32_t dwResult = _AppMemPoolCreate(dwMaxSize, dwReserved, &hMemPool->ptImpl);
    if (dwResult != APP_OK)
        APP_LOG_RESULT(dwResult, "[ERROR] %s: _AppMemPoolCreate failed %d\n", szOp);
    return dwResult;
}

uint32_t AppMemPoolCreate(uint32_t dwMaxSize, uint32_t bLock, uint32_t dwReserved,
                          HAppMemPool *phMemPool)
{
    if (!phMemPool)
        return APP_INVALID_ARG;
    auto hMemPool = static_cast<HAppMemPool>(malloc(sizeof(TAppMemPool)));
    if (!hMemPool) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: malloc failed\n", __func__);
        return APP_NO_RESOURCE;
    }
    *hMemPool = {};
    hMemPool->pfnMalloc = _AppMalloc;
    hMemPool->pfnFree = _AppFree;
    hMemPool->dwMaxSize = dwMaxSize;
    const uint32_t dwResult = FillPool(hMemPool, dwMaxSize, bLock, dwReserved, __func__);
    if (dwResult != APP_OK) {
        AppMemPoolDestroy(hMemPool); // of a half-built pool, too
        return dwResult;
    }
    app::Register(APP_REGISTRY_POOLS, &hMemPool->tEntry, hMemPool);
    *phMemPool = hMemPool;
    return APP_OK;
}

void AppMemPoolDestroy(HAppMemPool hMemPool)
{
    if (!hMemPool)
        return;
    app::Unregister(APP_REGISTRY_POOLS, &hMemPool->tEntry);
    // Waits for a user that is still inside an operation; never given back.
    app::LockGuard guard(hMemPool);
    guard.Release();
    _AppMemPoolDestroy(hMemPool->ptImpl);
    AppLockDestroy(hMemPool->hLock);
    // A late user meets a null function at once where the record's memory has not been reused.
    hMemPool->hLock = nullptr;
    hMemPool->pfnFree = nullptr;
    hMemPool->pfnMalloc = nullptr;
    free(hMemPool);
}
