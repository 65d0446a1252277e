// SPDX-License-Identifier: MIT
//
// The pool record, the header in front of every block, and what reports and tests need of a pool.
#ifndef APPCORE_MEMPOOL_MEMPOOL_H
#define APPCORE_MEMPOOL_MEMPOOL_H

#include <stddef.h>

#include "appcore/mempool.h"
#include "base/thread_safety.h"
#include "mempool_implement/engine.h"
#include "utils/registry.h"

#define APP_MEMPOOL_MAGIC 0x12235690u

// The front calls its engine only through these two.
typedef void *(*PFAppEngineMalloc)(TAppMemPoolImpl *ptImpl, uint32_t dwSize);
typedef void (*PFAppEngineFree)(TAppMemPoolImpl *ptImpl, void *pvData);

struct TAppMemPool {
    PFAppEngineMalloc pfnMalloc;
    PFAppEngineFree pfnFree;
    TAppMemPoolImpl *ptImpl;
    // Bytes asked for by the blocks in use, without headers and rounding.
    uint32_t dwCurSize APP_GUARDED_BY(hLock);
    uint32_t dwMaxSize; // limit of dwCurSize; 0 is none
    HAppLock hLock;     // guards the record and its engine; null for a pool without

    uint32_t dwPeak APP_GUARDED_BY(hLock);    // highest dwCurSize
    uint32_t dwRefused APP_GUARDED_BY(hLock); // allocations, but those that need not succeed
    TAppEntry tEntry;
};

// In front of the caller's data.  Never cleared: the magic stays after the release.
struct alignas(app::kHeadAlign) TAppMemPoolHead {
    uint32_t dwMagic;
    HAppMemPool hMemPool; // null for the process heap
    uint32_t dwSize;      // as asked for
};

#if UINTPTR_MAX == UINT32_MAX
// What has been added stands behind the fixed part.
static_assert(offsetof(TAppMemPool, dwPeak) == 24 && sizeof(TAppMemPoolHead) == 12, "fixed layout");
#endif

namespace app
{

class ReportWriter;

// AppMemPoolShow() into a report that is already under way.
void ShowPool(ReportWriter &writer, HAppMemPool hMemPool);
// Under the registry's mutex.
void ReadPoolStats(const void *pvPool, void *pvStats);
// What is in use fits, with its headers, into the engine's blocks.
inline bool PoolAddsUp(const TAppMemPool *ptPool) APP_REQUIRES(ptPool->hLock)
{
    constexpr uint32_t kHeads = sizeof(TAppMemPoolHead) + sizeof(TAppMemBlockHead);
    const EngineFigures figures = ReadEngine(ptPool->ptImpl);
    return ptPool->dwCurSize + figures.dwOnWorkCount * kHeads <= figures.dwOnWorkSize &&
           (ptPool->dwCurSize == 0) == (figures.dwOnWorkCount == 0);
}
// And its engine is valid.  Only in builds with checks.
inline bool PoolIsValid(const TAppMemPool *ptPool) APP_REQUIRES(ptPool->hLock)
{
    return PoolAddsUp(ptPool) && EngineIsValid(ptPool->ptImpl);
}

} // namespace app

#endif
