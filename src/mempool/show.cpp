// SPDX-License-Identifier: MIT
#include "mempool/mempool.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/report_writer.h"

static constexpr uint32_t kLockWaitMs = 1000;

void app::ShowPool(ReportWriter &writer, HAppMemPool hMemPool)
{
    if (!hMemPool)
        return;
    writer.Reset();
    writer.Line("============================================\n");
    // Without the lock the figures may not fit together, but only counters are read: still safe.
    LockGuard guard(hMemPool->hLock, kLockWaitMs);
    writer.Line("hMemPool(%p) Lock(%p) CurSize(%lu) MaxSize(%lu)\n", Ptr(hMemPool),
                Ptr(hMemPool->hLock), Ul(Peek(hMemPool->dwCurSize)), Ul(hMemPool->dwMaxSize));
    writer.Line("--- Details ------------------------");
    writer.HandOver();
    ShowEngine(writer, hMemPool->ptImpl);
}

void AppMemPoolShow(HAppMemPool hMemPool, PFAppShow pfnShow, void *pvContext)
{
    app::ReportWriter writer(pfnShow, pvContext);
    app::ShowPool(writer, hMemPool);
}

bool app::PoolIsValid(HAppMemPool hMemPool)
{
    LockGuard guard(hMemPool->hLock);
    return EngineIsValid(hMemPool->ptImpl) && hMemPool->dwCurSize <= hMemPool->ptImpl->dwOnWorkSize;
}
