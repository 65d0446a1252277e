// SPDX-License-Identifier: MIT
#include "mempool/mempool.h"

#include <stdlib.h>
#include <string.h>

#include "base/function_align.h"
#include "mempool/try_malloc.h"
#include "utils/check.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

namespace
{

// The front counts what callers ask for; headers and rounding are the engine's account.
constexpr uint32_t kHead = sizeof(TAppMemPoolHead);
// With both headers a larger request would pass 32 bits.  The heap alone could serve more on 64-bit
// machines, but the limit is the same everywhere.
constexpr uint32_t kLargest = UINT32_MAX - kHead - sizeof(TAppMemBlockHead);

// What is written into cold memory of a block that nobody else knows yet need not hold up the others.
void *Finish(void *pvHead, HAppMemPool hMemPool, uint32_t dwSize)
{
    const auto ptHead = static_cast<TAppMemPoolHead *>(pvHead);
    *ptHead = {APP_MEMPOOL_MAGIC, hMemPool, dwSize};
    return ptHead + 1;
}

// The sum must stay strictly below the limit.
bool IsFull(const TAppMemPool *ptPool, uint32_t dwSize) APP_REQUIRES(ptPool->hLock)
{
    if (dwSize > kLargest)
        return true;
    return ptPool->dwMaxSize != 0 &&
           (dwSize > ptPool->dwMaxSize || ptPool->dwMaxSize - dwSize <= ptPool->dwCurSize);
}

// Out of the way of those for whom there is room and who trace nothing.  Null, but not to the eyes of
// the compiler, which would give a result that it knows a way of its own back through the guard.
// Who has a way out, and has not had it logged, is not counted.
[[gnu::noinline, gnu::cold]] void *Refuse(HAppMemPool hMemPool) APP_REQUIRES(hMemPool->hLock)
{
    if (!app::t_tHeldLines.bNoErrors)
        app::SetCounter(hMemPool->dwRefused, hMemPool->dwRefused + 1);
    return nullptr;
}

[[gnu::noinline, gnu::cold]] void *RefuseFull(HAppMemPool hMemPool, uint32_t dwSize,
                                              const char *szOp) APP_REQUIRES(hMemPool->hLock)
{
    AppLog(0, APP_LOG_ERROR,
           "[ERROR] %s: AppMemPool %p full! can't malloc %lu (curSize %lu MaxSize %lu)\n", szOp,
           app::Ptr(hMemPool), app::Ul(dwSize), app::Ul(hMemPool->dwCurSize),
           app::Ul(hMemPool->dwMaxSize));
    return Refuse(hMemPool);
}

[[gnu::noinline, gnu::cold]] void *RefuseHeap(uint32_t dwSize, const char *szOp)
{
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPool NULL malloc failed with size %lu\n", szOp,
           app::Ul(dwSize));
    return nullptr;
}

// Not of constant data, or the compiler takes a block that has just been made for one that is read.
[[gnu::noinline, gnu::cold]] void TraceMalloc(const TAppMemPool *ptPool, void *pvData,
                                              uint32_t dwSize, const char *szOp)
{
    if (ptPool)
        AppLog(0, APP_LOG_MEMDBG1,
               "[MEMDBG-1] %s: AppMemPool %p with MEMPOOL %p malloc %p with size %lu\n", szOp,
               app::Ptr(ptPool), app::Ptr(ptPool->ptImpl), pvData, app::Ul(dwSize));
    else
        AppLog(0, APP_LOG_MEMDBG1, "[MEMDBG-1] %s: AppMemPool NULL  malloc %p with size %lu\n",
               szOp, pvData, app::Ul(dwSize));
}

[[gnu::noinline, gnu::cold]] void TraceFree(const TAppMemPool *ptPool, const void *pvData,
                                            uint32_t dwSize, const char *szOp)
{
    if (ptPool)
        AppLog(0, APP_LOG_MEMDBG1, "[MEMDBG-1] %s: AppMemPool %p free %p with size %lu\n", szOp,
               app::Ptr(ptPool), pvData, app::Ul(dwSize));
    else
        AppLog(0, APP_LOG_MEMDBG1, "[MEMDBG-1] %s: AppMemPool NULL free %p with size %lu\n", szOp,
               pvData, app::Ul(dwSize));
}

[[gnu::noinline]] void *MallocFromHeap(uint32_t dwSize, const char *szOp)
{
    void *pvHead = dwSize > kLargest ? nullptr : malloc(size_t{dwSize} + kHead);
    if (!pvHead)
        return RefuseHeap(dwSize, szOp);
    void *pvData = Finish(pvHead, nullptr, dwSize);
    if (app::Traces(APP_LOG_MEMDBG1))
        TraceMalloc(nullptr, pvData, dwSize, szOp);
    return pvData;
}

// By its name where it is the engine that there is: what is called through a pointer waits for it.
inline void *TakeBlock(const TAppMemPool *ptPool, uint32_t dwSize)
{
    if (__builtin_expect(ptPool->pfnMalloc == _AppMalloc, true))
        return _AppMalloc(ptPool->ptImpl, dwSize);
    return ptPool->pfnMalloc(ptPool->ptImpl, dwSize);
}
inline void GiveBlock(const TAppMemPool *ptPool, void *pvHead)
{
    if (__builtin_expect(ptPool->pfnFree == _AppFree, true))
        return _AppFree(ptPool->ptImpl, pvHead);
    ptPool->pfnFree(ptPool->ptImpl, pvHead);
}

// A block's header, not written yet; null without room or memory, and counted as refused.
[[gnu::always_inline]] inline void *TakeCounted(HAppMemPool hMemPool, uint32_t dwSize,
                                                const char *szOp) APP_REQUIRES(hMemPool->hLock)
{
    if (IsFull(hMemPool, dwSize))
        return RefuseFull(hMemPool, dwSize, szOp);
    void *pvHead = TakeBlock(hMemPool, dwSize + kHead);
    if (!pvHead)
        return Refuse(hMemPool);
    const uint32_t dwCurSize = hMemPool->dwCurSize + dwSize;
    app::SetCounter(hMemPool->dwCurSize, dwCurSize);
    if (dwCurSize > hMemPool->dwPeak)
        app::SetCounter(hMemPool->dwPeak, dwCurSize);
    APP_CHECK(app::PoolAddsUp(hMemPool), "the pool's totals do not add up");
    return pvHead;
}

// This and FreeGuarded() are out of line, so that the pools without a lock have nothing to save for a
// guard.
[[gnu::noinline]] void *MallocGuarded(HAppMemPool hMemPool, uint32_t dwSize, const char *szOp)
{
    void *pvHead;
    {
        app::FastLockGuard guard(hMemPool);
        pvHead = TakeCounted(hMemPool, dwSize, szOp);
        if (pvHead && app::Traces(APP_LOG_MEMDBG1))
            TraceMalloc(hMemPool, static_cast<TAppMemPoolHead *>(pvHead) + 1, dwSize, szOp);
    }
    return pvHead ? Finish(pvHead, hMemPool, dwSize) : nullptr;
}

// Ends at zero whatever is released twice: wrapped, it would refuse everything for good.
inline void Uncount(HAppMemPool hMemPool, uint32_t dwSize) APP_REQUIRES(hMemPool->hLock)
{
    app::SetCounter(hMemPool->dwCurSize,
                    hMemPool->dwCurSize > dwSize ? hMemPool->dwCurSize - dwSize : 0);
}

[[gnu::noinline]] void FreeGuarded(HAppMemPool hMemPool, TAppMemPoolHead *ptHead, const char *szOp)
{
    // Copied: as soon as the engine has the block back, its next owner may write the header.
    const uint32_t dwSize = ptHead->dwSize;
    app::FastLockGuard guard(hMemPool);
    Uncount(hMemPool, dwSize);
    if (app::Traces(APP_LOG_MEMDBG1))
        TraceFree(hMemPool, ptHead + 1, dwSize, szOp);
    GiveBlock(hMemPool, ptHead);
    APP_CHECK(app::PoolAddsUp(hMemPool), "the pool's totals do not add up");
}

// The header of a block, or null with a line when the pointer is not one of ours.
TAppMemPoolHead *FindHead(void *pvData, const char *szOp)
{
    void *pvHead = static_cast<char *>(pvData) - kHead;
    uint32_t dwMagic;
    memcpy(&dwMagic, pvHead, sizeof(dwMagic)); // copied: a foreign pointer need not be aligned
    if (dwMagic == APP_MEMPOOL_MAGIC)
        return static_cast<TAppMemPoolHead *>(pvHead);
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: %p is not create by AppMemPool or Data corruption.\n",
           szOp, pvData);
    return nullptr;
}

} // namespace

// Where the two begin, which everything goes through, is a tenth of a block from the heap.  Never in
// line, nor in part: a debugger that calls the rest of one would call half of it.
[[gnu::noinline, gnu::aligned(app::FunctionAlign(32))]] void *AppMemPoolMalloc(HAppMemPool hMemPool,
                                                                               uint32_t dwSize)
{
    if (dwSize == 0)
        return nullptr;
    if (!hMemPool)
        return MallocFromHeap(dwSize, __func__);
    if (__builtin_expect(hMemPool->hLock || app::Traces(APP_LOG_MEMDBG1), false))
        return MallocGuarded(hMemPool, dwSize, __func__);
    app::AssertHeld(hMemPool);
    void *pvHead = TakeCounted(hMemPool, dwSize, __func__);
    return pvHead ? Finish(pvHead, hMemPool, dwSize) : nullptr;
}

void *app::TryMalloc(HAppMemPool hMemPool, uint32_t dwSize)
{
    const ErrorLines drop(true);
    return AppMemPoolMalloc(hMemPool, dwSize);
}

[[gnu::noinline, gnu::aligned(app::FunctionAlign(32))]] void AppMemPoolFree(void *pvData)
{
    if (__builtin_expect(!pvData, false)) // told, or the compiler keeps two ways through all of it
        return;
    TAppMemPoolHead *ptHead = FindHead(pvData, __func__);
    if (!ptHead)
        return;
    HAppMemPool hMemPool = ptHead->hMemPool;
    if (!hMemPool) {
        if (app::Traces(APP_LOG_MEMDBG1))
            TraceFree(nullptr, pvData, ptHead->dwSize, __func__);
        free(ptHead);
    } else if (hMemPool->hLock || app::Traces(APP_LOG_MEMDBG1)) {
        FreeGuarded(hMemPool, ptHead, __func__);
    } else {
        app::AssertHeld(hMemPool);
        Uncount(hMemPool, ptHead->dwSize);
        GiveBlock(hMemPool, ptHead);
        APP_CHECK(app::PoolAddsUp(hMemPool), "the pool's totals do not add up");
    }
}

[[gnu::cold]] void *AppMemPoolRealloc(HAppMemPool hMemPool, void *pvData, uint32_t dwSize)
{
    if (!pvData)
        return AppMemPoolMalloc(hMemPool, dwSize);
    const TAppMemPoolHead *ptHead = FindHead(pvData, __func__);
    if (!ptHead)
        return nullptr;
    if (ptHead->dwSize >= dwSize)
        return pvData;
    // Always a new block, also where the old one's class has room left: the pool given need not be
    // the block's own, and the accounts know a block by the size that it was asked for.
    void *pvGrown = AppMemPoolMalloc(hMemPool, dwSize);
    if (!pvGrown)
        return nullptr;
    AppMemcpy(pvGrown, pvData, ptHead->dwSize);
    AppMemPoolFree(pvData);
    return pvGrown;
}
