// SPDX-License-Identifier: MIT
#include "base/field.h"
#include "base/print.h"
#include "mempool/mempool.h"
#include "utils/lock_guard.h"
#include "utils/report_writer.h"

static constexpr uint32_t kLockWaitMs = 1000;

namespace
{
struct PoolFigures {
    uint32_t dwCurSize;
    app::EngineFigures engine;
};

// Without the lock the figures may not fit together, but only counters are read: still safe.
PoolFigures ReadPool(HAppMemPool hMemPool) APP_NO_ANALYSIS
{
    app::TimedLockGuard guard(hMemPool);
    guard.TakeByTime(kLockWaitMs);
    return {app::PeekCounter(hMemPool->dwCurSize), app::ReadEngine(hMemPool->ptImpl)};
}
} // namespace

void app::ShowPool(ReportWriter &writer, HAppMemPool hMemPool)
{
    if (!hMemPool)
        return;
    const PoolFigures figures = ReadPool(hMemPool);
    writer.Reset();
    writer.Line("============================================\n");
    writer.Line("hMemPool(%p) Lock(%p) CurSize(%lu) MaxSize(%lu)\n", Ptr(hMemPool),
                Ptr(hMemPool->hLock), Ul(figures.dwCurSize), Ul(hMemPool->dwMaxSize));
    writer.Line("--- Details ------------------------");
    writer.HandOver();
    ShowEngine(writer, figures.engine);
}

void AppMemPoolShow(HAppMemPool hMemPool, PFAppShow pfnShow, void *pvContext)
{
    app::ReportWriter writer(pfnShow, pvContext);
    app::ShowPool(writer, hMemPool);
}
