// SPDX-License-Identifier: MIT
//
// Every block is as large as its class and goes back to the list of its class alone: nothing is
// split, merged or searched for, so that both operations take the same short time after months of
// use, and a pool holds what its busiest moment needed.  The block that has been idle for longest is
// reused first: whoever still writes to what it has released harms nobody for a while.
//
// A block never leaves the list of its class, by which the pool's destruction finds it.  Idle ones
// form a queue through their own headers, which a hand-out and a release have to touch anyway, and
// nothing is counted twice: what a report says of blocks in use and their bytes is derived.
#include "mempool_implement/engine.h"

#include <stdlib.h>

#include "utils/check.h"
#include "utils/double_list.h"
#include "utils/log.h"

namespace
{

using app::kIdle;

constexpr uint32_t kSmallestShift = 5;
constexpr uint32_t kHead = sizeof(TAppMemBlockHead);

constexpr uint32_t ClassSize(uint32_t dwClass)
{
    return 1u << (dwClass + kSmallestShift);
}

constexpr uint32_t kSmallest = ClassSize(0);
constexpr uint32_t kLargest = ClassSize(APP_MEMPOOL_CLASS_NUM - 1);

inline uint32_t HighestBit(uint32_t dwValue)
{
    return 31 ^ static_cast<uint32_t>(__builtin_clz(dwValue));
}

// Beyond the largest, and of 0, more than any class has.
inline uint32_t ClassOf(uint32_t dwSize)
{
    return HighestBit((dwSize - 1) | (kSmallest - 1)) - (kSmallestShift - 1);
}

// Of the pooled blocks only those in use have one: kIdle is no part of it.
inline bool IsClassSize(uint32_t dwSize)
{
    return dwSize - kSmallest <= kLargest - kSmallest && (dwSize & (dwSize - 1)) == 0;
}

void *BehindHead(TAppMemBlockHead *ptHead)
{
    return ptHead + 1;
}

// Poked, like every counter here: a report that does not get the pool's lock reads them all the same.
void Count(TAppMemPoolImpl *ptImpl, uint32_t dwBlockSize)
{
    app::SetCounter(ptImpl->dwTotalCount, ptImpl->dwTotalCount + 1);
    app::SetCounter(ptImpl->dwTotalSize, ptImpl->dwTotalSize + dwBlockSize);
}

// A header may be corrupt: the account ends at zero then.
void Lower(uint32_t &dwField, uint32_t dwAmount)
{
    app::SetCounter(dwField, dwField > dwAmount ? dwField - dwAmount : 0);
}

void Uncount(TAppMemPoolImpl *ptImpl, uint32_t dwBlockSize)
{
    Lower(ptImpl->dwTotalCount, 1);
    Lower(ptImpl->dwTotalSize, dwBlockSize);
}

// A large block's need may be odd, too; it is of no class.
bool IsIdle(const TAppMemBlockHead *ptHead)
{
    return (ptHead->dwBlockSize & kIdle) && ptHead->ptNext &&
           __AppMemGetOffset(ptHead->dwBlockSize - kIdle) < APP_MEMPOOL_CLASS_NUM;
}

uint32_t SizeOf(const TAppMemBlockHead *ptHead)
{
    return IsIdle(ptHead) ? ptHead->dwBlockSize - kIdle : ptHead->dwBlockSize;
}

// After each change, which concerned the lists of one class or, beyond the classes, none.
void Verify([[maybe_unused]] const TAppMemPoolImpl *ptImpl, [[maybe_unused]] uint32_t dwClass)
{
    APP_CHECK(app::EngineAddsUp(ptImpl), "the engine's totals do not add up");
    if (dwClass < APP_MEMPOOL_CLASS_NUM)
        APP_CHECK_WHOLE(2 * ptImpl->atClass[dwClass].hBlocks->dwCurSize,
                        app::ClassIsValid(ptImpl, dwClass), "a block is on the wrong list");
}

// Behind the test of the level, out of the way of those who have no use for it.
[[gnu::noinline, gnu::cold]] void TraceCounters(const TAppMemPoolImpl *ptImpl, const char *szOp)
{
    const app::EngineFigures figures = app::ReadEngine(ptImpl);
    AppLog(0, APP_LOG_MEMDBG2, "[MEMDBG-2] %s: MP %p count=%lu, OnWorkSize=%lu TotalSize=%lu\n",
           szOp, app::Ptr(ptImpl), app::Ul(figures.dwOnWorkCount), app::Ul(figures.dwOnWorkSize),
           app::Ul(figures.dwTotalSize));
}

[[gnu::noinline, gnu::cold]] void TraceReuse(const TAppMemPoolImpl *ptImpl,
                                             const TAppMemBlockHead *ptHead, uint32_t dwNeed,
                                             uint32_t dwClass, const char *szOp)
{
    AppLog(0, APP_LOG_MEMDBG2, "[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) block %p\n",
           szOp, app::Ul(dwNeed), app::Ptr(ptImpl), app::Ul(dwClass), app::Ul(ClassSize(dwClass)),
           app::Ptr(ptHead));
    TraceCounters(ptImpl, szOp);
}

[[gnu::noinline, gnu::cold]] void TraceParking(const TAppMemPoolImpl *ptImpl,
                                               const TAppMemBlockHead *ptHead, uint32_t dwClass,
                                               const char *szOp)
{
    AppLog(0, APP_LOG_MEMDBG2,
           "[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) block %p return to offlist\n", szOp,
           app::Ul(SizeOf(ptHead)), app::Ptr(ptImpl), app::Ul(dwClass), app::Ul(ClassSize(dwClass)),
           app::Ptr(ptHead));
    TraceCounters(ptImpl, szOp);
}

void *MallocLarge(TAppMemPoolImpl *ptImpl, uint32_t dwNeed, const char *szOp)
{
    APP_TRACE(APP_LOG_MEMDBG2, "[MEMDBG-2] %s: size %lu, use MP %p use malloc\n", szOp,
              app::Ul(dwNeed), app::Ptr(ptImpl));
    auto ptHead = static_cast<TAppMemBlockHead *>(malloc(dwNeed));
    if (!ptHead) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: malloc with size %lu failed\n", szOp,
               app::Ul(dwNeed));
        return nullptr;
    }
    *ptHead = {dwNeed, nullptr};
    if (ptImpl) {
        Count(ptImpl, dwNeed);
        if (app::Traces(APP_LOG_MEMDBG2))
            TraceCounters(ptImpl, szOp);
        Verify(ptImpl, APP_MEMPOOL_CLASS_NUM);
    }
    return BehindHead(ptHead);
}

void *NewBlock(TAppMemPoolImpl *ptImpl, uint32_t dwNeed, uint32_t dwClass, const char *szOp)
{
    const uint32_t dwBlockSize = ClassSize(dwClass);
    auto ptHead = static_cast<TAppMemBlockHead *>(malloc(dwBlockSize));
    if (!ptHead) {
        APP_TRACE(APP_LOG_MEMDBG2,
                  "[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) malloc failed\n", szOp,
                  app::Ul(dwNeed), app::Ptr(ptImpl), app::Ul(dwClass), app::Ul(dwBlockSize));
        return nullptr;
    }
    *ptHead = {dwBlockSize, ptHead};
    if (AppDoubleListInsertBefore(ptImpl->atClass[dwClass].hBlocks, nullptr, ptHead, nullptr) !=
        APP_OK) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Size %lu, use MP %p offset %lu(%lu) insert failed\n",
               szOp, app::Ul(dwNeed), app::Ptr(ptImpl), app::Ul(dwClass), app::Ul(dwBlockSize));
        free(ptHead);
        return nullptr;
    }
    Count(ptImpl, dwBlockSize);
    TAppMemClass &tClass = ptImpl->atClass[dwClass];
    app::SetCounter(tClass.dwInUse, tClass.dwInUse + 1);
    if (app::Traces(APP_LOG_MEMDBG2)) {
        AppLog(0, APP_LOG_MEMDBG2,
               "[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) new block %p\n", szOp,
               app::Ul(dwNeed), app::Ptr(ptImpl), app::Ul(dwClass), app::Ul(dwBlockSize),
               app::Ptr(ptHead));
        TraceCounters(ptImpl, szOp);
    }
    Verify(ptImpl, dwClass);
    return BehindHead(ptHead);
}

// Beyond the classes, or of a class without an idle block.
[[gnu::noinline, gnu::cold]] void *MallocFromHeap(TAppMemPoolImpl *ptImpl, uint32_t dwSize,
                                                  const char *szOp)
{
    if (dwSize - 1 >= UINT32_MAX - kHead) // 0, too
        return nullptr;
    const uint32_t dwNeed = dwSize + kHead;
    return ptImpl && dwNeed <= kLargest ? NewBlock(ptImpl, dwNeed, ClassOf(dwNeed), szOp)
                                        : MallocLarge(ptImpl, dwNeed, szOp);
}

void FreeLarge(TAppMemPoolImpl *ptImpl, TAppMemBlockHead *ptHead, const char *szOp)
{
    APP_TRACE(APP_LOG_MEMDBG2, "[MEMDBG-2] %s: size %lu, use MP %p %p use free\n", szOp,
              app::Ul(ptHead->dwBlockSize), app::Ptr(ptImpl), BehindHead(ptHead));
    if (ptImpl) {
        Uncount(ptImpl, ptHead->dwBlockSize);
        Verify(ptImpl, APP_MEMPOOL_CLASS_NUM);
    }
    free(ptHead);
}

// The one that has been idle for longest.
inline TAppMemBlockHead *TakeIdle(TAppMemClass *ptClass, uint32_t dwClass)
{
    TAppMemBlockHead *ptHead = ptClass->ptOldest;
    ptClass->ptOldest = ptHead == ptClass->ptNewest ? nullptr : ptHead->ptNext;
    ptHead->dwBlockSize = ClassSize(dwClass); // whatever has been written to it while it was idle
    app::SetCounter(ptClass->dwInUse, ptClass->dwInUse + 1);
    return ptHead;
}

inline void AddIdle(TAppMemClass *ptClass, TAppMemBlockHead *ptHead)
{
    ptHead->dwBlockSize += kIdle;
    app::SetCounter(ptClass->dwInUse, ptClass->dwInUse - 1);
    (ptClass->ptOldest ? ptClass->ptNewest->ptNext : ptClass->ptOldest) = ptHead;
    ptClass->ptNewest = ptHead;
}

inline void ParkBlock(TAppMemPoolImpl *ptImpl, TAppMemBlockHead *ptHead, uint32_t dwClass,
                      const char *szOp)
{
    AddIdle(&ptImpl->atClass[dwClass], ptHead);
    if (app::Traces(APP_LOG_MEMDBG2))
        TraceParking(ptImpl, ptHead, dwClass, szOp);
    Verify(ptImpl, dwClass);
}

// A large block, one of no pool, a second release or damage.
[[gnu::noinline, gnu::cold]] void FreeOther(TAppMemPoolImpl *ptImpl, TAppMemBlockHead *ptHead,
                                            const char *szOp)
{
    if (!ptImpl) {
        FreeLarge(ptImpl, ptHead, szOp);
        return;
    }
    const bool bIdle = IsIdle(ptHead);
    const uint32_t dwBlockSize = SizeOf(ptHead);
    const uint32_t dwOnWorkSize = app::ReadEngine(ptImpl).dwOnWorkSize;
    // Less in use than is released now: a header or the account is corrupt.  It goes on all the same,
    // since a camera that stops releasing stops soon.
    if (dwOnWorkSize < dwBlockSize)
        AppLog(
            0, APP_LOG_ERROR,
            "[ERROR] %s: WARING!!!! MEMPOOL %p(OnWorkSize=%lu) is less than %p(size=%lu), MEM LEAK may occured!!!!\n",
            szOp, app::Ptr(ptImpl), app::Ul(dwOnWorkSize), BehindHead(ptHead),
            app::Ul(dwBlockSize));
    if (!ptHead->ptNext) {
        FreeLarge(ptImpl, ptHead, szOp);
        return;
    }
    if (bIdle)
        return; // queued once more it would be handed out while its next owner has it
    const uint32_t dwClass = __AppMemGetOffset(dwBlockSize);
    if (dwClass < APP_MEMPOOL_CLASS_NUM) {
        // Of a class that has none in use, by what its header says: its count ends at zero, too.
        uint32_t &dwInUse = ptImpl->atClass[dwClass].dwInUse;
        app::SetCounter(dwInUse, dwInUse != 0 ? dwInUse : 1);
        ParkBlock(ptImpl, ptHead, dwClass, szOp);
        return;
    }
    // The header is corrupt.  The block is kept: it is still on its class's list, and the pool's
    // destruction releases it.
    AppLog(0, APP_LOG_ERROR,
           "[ERROR] %s: WARING!!!!  %p(size=%lu) use MP %p, SHOULD NOT BE IN THE ON LIST!!!!\n",
           szOp, BehindHead(ptHead), app::Ul(dwBlockSize), app::Ptr(ptImpl));
    Uncount(ptImpl, dwBlockSize);
    Verify(ptImpl, dwClass);
}

[[gnu::cold]] bool CreateLists(TAppMemPoolImpl *ptImpl, const char *szOp)
{
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k) {
        const uint32_t dwResult = AppDoubleListCreate(nullptr, 0, 0, &ptImpl->atClass[k].hBlocks);
        if (dwResult != APP_OK) {
            APP_LOG_RESULT(dwResult,
                           "[ERROR] %s: AppDoubleListCreate for hOnList %lu failed, ret=%d\n", szOp,
                           app::Ul(k));
            return false;
        }
    }
    return true;
}

} // namespace

uint32_t __AppMemGetOffset(uint32_t dwSize)
{
    const uint32_t dwClass = ClassOf(dwSize);
    return dwClass < APP_MEMPOOL_CLASS_NUM ? dwClass : APP_MEMPOOL_CLASS_NUM;
}

[[gnu::cold]] uint32_t _AppMemPoolCreate(uint32_t, uint32_t, TAppMemPoolImpl **pptImpl)
{
    auto ptImpl = static_cast<TAppMemPoolImpl *>(malloc(sizeof(TAppMemPoolImpl)));
    if (!ptImpl) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: malloc for %d failed\n", __func__,
               app::Int(sizeof(TAppMemPoolImpl)));
        _AppMemPoolDestroy(nullptr);
        return APP_FAILED;
    }
    *ptImpl = {};
    if (!CreateLists(ptImpl, __func__)) {
        _AppMemPoolDestroy(ptImpl); // lists that are not there yet are null
        return APP_FAILED;
    }
    *pptImpl = ptImpl;
    return APP_OK;
}

[[gnu::cold]] void _AppMemPoolDestroy(TAppMemPoolImpl *ptImpl)
{
    AppLog(0, APP_LOG_INFO, "[INFO ] %s: Mempool %p\n", __func__, app::Ptr(ptImpl));
    if (!ptImpl)
        return;
    ptImpl->dwTotalCount = ptImpl->dwTotalSize = 0;
    for (TAppMemClass &tClass : ptImpl->atClass) {
        AppDoubleListDestroy(tClass.hBlocks, __AppMemPoolFreeData, ptImpl);
        tClass = {};
    }
    free(ptImpl);
}

[[gnu::cold]] void __AppMemPoolFreeData(void *pvBlock, void *pvImpl)
{
    APP_TRACE(APP_LOG_MEMDBG2, "[MEMDBG-2] %s: Size %lu, use MP %p block %p free\n", __func__,
              app::Ul(SizeOf(static_cast<TAppMemBlockHead *>(pvBlock))), pvImpl, pvBlock);
    free(pvBlock);
}

void *_AppMalloc(TAppMemPoolImpl *ptImpl, uint32_t dwSize)
{
    if (dwSize - 1 >= kLargest - kHead || !ptImpl) // 0, too
        return MallocFromHeap(ptImpl, dwSize, __func__);
    const uint32_t dwNeed = dwSize + kHead;
    const uint32_t dwClass = ClassOf(dwNeed);
    if (!ptImpl->atClass[dwClass].ptOldest)
        return MallocFromHeap(ptImpl, dwSize, __func__);
    TAppMemBlockHead *ptHead = TakeIdle(&ptImpl->atClass[dwClass], dwClass);
    if (app::Traces(APP_LOG_MEMDBG2))
        TraceReuse(ptImpl, ptHead, dwNeed, dwClass, __func__);
    Verify(ptImpl, dwClass);
    return BehindHead(ptHead);
}

void _AppFree(TAppMemPoolImpl *ptImpl, void *pvData)
{
    if (!pvData)
        return;
    TAppMemBlockHead *ptHead = static_cast<TAppMemBlockHead *>(pvData) - 1;
    APP_CHECK(!ptImpl || !IsIdle(ptHead), "the block has been released before");
    if (ptImpl && ptHead->ptNext && IsClassSize(ptHead->dwBlockSize)) {
        const uint32_t dwClass = HighestBit(ptHead->dwBlockSize) - kSmallestShift;
        // Some block of its class is in use, or it would not be released.
        if (ptImpl->atClass[dwClass].dwInUse != 0) {
            ParkBlock(ptImpl, ptHead, dwClass, __func__);
            return;
        }
    }
    FreeOther(ptImpl, ptHead, __func__);
}
