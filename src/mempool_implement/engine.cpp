// SPDX-License-Identifier: MIT
//
// Every block is as large as its class and goes back to the list of its class alone: nothing is
// split, merged or searched for, so that both operations take the same short time after months of
// use, and a pool holds what its busiest moment needed.  The block that has been idle for longest is
// reused first: whoever still writes to what it has released harms nobody for a while.
#include "mempool_implement/engine.h"

#include <stdlib.h>

#include "mempool/try_malloc.h"
#include "utils/check.h"
#include "utils/double_list.h"
#include "utils/log.h"

namespace
{

using app::kIdle;

constexpr uint32_t kSmallestShift = 5;
constexpr uint32_t kHead = sizeof(TAppMemBlockHead);

uint32_t ClassSize(uint32_t dwClass)
{
    return 1u << (dwClass + kSmallestShift);
}

void *BehindHead(TAppMemBlockHead *ptHead)
{
    return ptHead + 1;
}

// Poked, like every counter here: a report that does not get the pool's lock reads them all the same.
void Count(TAppMemPoolImpl *ptImpl, uint32_t dwBlockSize)
{
    app::SetCounter(ptImpl->dwOnWorkCount, ptImpl->dwOnWorkCount + 1);
    app::SetCounter(ptImpl->dwOnWorkSize, ptImpl->dwOnWorkSize + dwBlockSize);
}

// A header may be corrupt: the account ends at zero then.
void Lower(uint32_t &dwField, uint32_t dwAmount)
{
    app::SetCounter(dwField, dwField > dwAmount ? dwField - dwAmount : 0);
}

void Uncount(TAppMemPoolImpl *ptImpl, uint32_t dwBlockSize)
{
    Lower(ptImpl->dwOnWorkCount, 1);
    Lower(ptImpl->dwOnWorkSize, dwBlockSize);
}

// A large block's need may be odd; it has no node.
bool IsIdle(const TAppMemBlockHead *ptHead)
{
    return (ptHead->dwBlockSize & kIdle) && ptHead->hNode &&
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
        APP_CHECK_WHOLE(ptImpl->hOnList[dwClass]->dwCurSize + ptImpl->hOffList[dwClass]->dwCurSize,
                        app::ClassIsValid(ptImpl, dwClass), "a block is on the wrong list");
}

void TraceCounters(const TAppMemPoolImpl *ptImpl, const char *szOp)
{
    APP_TRACE(APP_LOG_MEMDBG2, "[MEMDBG-2] %s: MP %p count=%lu, OnWorkSize=%lu TotalSize=%lu\n",
              szOp, app::Ptr(ptImpl), app::Ul(ptImpl->dwOnWorkCount), app::Ul(ptImpl->dwOnWorkSize),
              app::Ul(ptImpl->dwTotalSize));
}

bool IsQuiet(const TAppMemPoolImpl *ptImpl)
{
    return ptImpl && ptImpl->bQuiet;
}

void *MallocLarge(TAppMemPoolImpl *ptImpl, uint32_t dwNeed, const char *szOp)
{
    APP_TRACE(APP_LOG_MEMDBG2, "[MEMDBG-2] %s: size %lu, use MP %p use malloc\n", szOp,
              app::Ul(dwNeed), app::Ptr(ptImpl));
    auto ptHead = static_cast<TAppMemBlockHead *>(malloc(dwNeed));
    if (!ptHead) {
        if (!IsQuiet(ptImpl))
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: malloc with size %lu failed\n", szOp,
                   app::Ul(dwNeed));
        return nullptr;
    }
    *ptHead = {dwNeed, nullptr};
    if (ptImpl) {
        Count(ptImpl, dwNeed);
        app::SetCounter(ptImpl->dwTotalSize, ptImpl->dwTotalSize + dwNeed);
        TraceCounters(ptImpl, szOp);
        Verify(ptImpl, APP_MEMPOOL_CLASS_NUM);
    }
    return BehindHead(ptHead);
}

TAppMemBlockHead *ReuseBlock(TAppMemPoolImpl *ptImpl, uint32_t dwNeed, uint32_t dwClass,
                             const char *szOp)
{
    HAppDoubleListNode hNode = ptImpl->hOffList[dwClass]->ptHead;
    APP_TRACE(APP_LOG_MEMDBG2, "[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) block %p\n",
              szOp, app::Ul(dwNeed), app::Ptr(ptImpl), app::Ul(dwClass),
              app::Ul(ClassSize(dwClass)), hNode->pvData);
    app::MoveNode(ptImpl->hOffList[dwClass], ptImpl->hOnList[dwClass], hNode);
    auto ptHead = static_cast<TAppMemBlockHead *>(hNode->pvData);
    ptHead->dwBlockSize = ClassSize(dwClass);
    return ptHead;
}

// The list's own insertion would log its want of a node.
bool InsertQuietly(HAppDoubleList hList, TAppMemBlockHead *ptHead)
{
    auto hNode = static_cast<HAppDoubleListNode>(
        app::TryMalloc(hList->hMemPool, sizeof(TAppDoubleListNode)));
    if (!hNode)
        return false;
    hNode->pvData = ptHead;
    app::LinkNode(hList, hList->ptTail, hNode, nullptr);
    ptHead->hNode = hNode;
    return true;
}

bool Insert(HAppDoubleList hList, TAppMemBlockHead *ptHead)
{
    return AppDoubleListInsertBefore(hList, nullptr, ptHead, &ptHead->hNode) == APP_OK;
}

TAppMemBlockHead *NewBlock(TAppMemPoolImpl *ptImpl, uint32_t dwNeed, uint32_t dwClass,
                           const char *szOp)
{
    const uint32_t dwBlockSize = ClassSize(dwClass);
    auto ptHead = static_cast<TAppMemBlockHead *>(malloc(dwBlockSize));
    if (!ptHead) {
        APP_TRACE(APP_LOG_MEMDBG2,
                  "[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) malloc failed\n", szOp,
                  app::Ul(dwNeed), app::Ptr(ptImpl), app::Ul(dwClass), app::Ul(dwBlockSize));
        return nullptr;
    }
    ptHead->dwBlockSize = dwBlockSize;
    const bool bQuiet = IsQuiet(ptImpl);
    if (!(bQuiet ? InsertQuietly : Insert)(ptImpl->hOnList[dwClass], ptHead)) {
        if (!bQuiet)
            AppLog(0, APP_LOG_ERROR,
                   "[ERROR] %s: Size %lu, use MP %p offset %lu(%lu) insert failed\n", szOp,
                   app::Ul(dwNeed), app::Ptr(ptImpl), app::Ul(dwClass), app::Ul(dwBlockSize));
        free(ptHead);
        return nullptr;
    }
    APP_TRACE(APP_LOG_MEMDBG2, "[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) new block %p\n",
              szOp, app::Ul(dwNeed), app::Ptr(ptImpl), app::Ul(dwClass), app::Ul(dwBlockSize),
              app::Ptr(ptHead));
    app::SetCounter(ptImpl->dwTotalSize, ptImpl->dwTotalSize + dwBlockSize);
    return ptHead;
}

void FreeLarge(TAppMemPoolImpl *ptImpl, TAppMemBlockHead *ptHead, const char *szOp)
{
    APP_TRACE(APP_LOG_MEMDBG2, "[MEMDBG-2] %s: size %lu, use MP %p %p use free\n", szOp,
              app::Ul(ptHead->dwBlockSize), app::Ptr(ptImpl), BehindHead(ptHead));
    if (ptImpl) {
        Lower(ptImpl->dwTotalSize, ptHead->dwBlockSize);
        Uncount(ptImpl, ptHead->dwBlockSize);
        Verify(ptImpl, APP_MEMPOOL_CLASS_NUM);
    }
    free(ptHead);
}

void ParkBlock(TAppMemPoolImpl *ptImpl, TAppMemBlockHead *ptHead, uint32_t dwClass,
               const char *szOp)
{
    APP_TRACE(APP_LOG_MEMDBG2,
              "[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) block %p return to offlist\n",
              szOp, app::Ul(ptHead->dwBlockSize), app::Ptr(ptImpl), app::Ul(dwClass),
              app::Ul(ClassSize(dwClass)), app::Ptr(ptHead));
    app::MoveNode(ptImpl->hOnList[dwClass], ptImpl->hOffList[dwClass], ptHead->hNode);
    Uncount(ptImpl, ptHead->dwBlockSize);
    ptHead->dwBlockSize += kIdle;
    TraceCounters(ptImpl, szOp);
    Verify(ptImpl, dwClass);
}

bool CreateList(HAppDoubleList *phList, uint32_t *pdwResult)
{
    *pdwResult = AppDoubleListCreate(nullptr, 0, 0, phList);
    return *pdwResult == APP_OK;
}

bool CreateLists(TAppMemPoolImpl *ptImpl, const char *szOp)
{
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k) {
        uint32_t dwResult;
        if (!CreateList(&ptImpl->hOnList[k], &dwResult)) {
            APP_LOG_RESULT(dwResult,
                           "[ERROR] %s: AppDoubleListCreate for hOnList %lu failed, ret=%d\n", szOp,
                           app::Ul(k));
            return false;
        }
        if (!CreateList(&ptImpl->hOffList[k], &dwResult)) {
            APP_LOG_RESULT(dwResult,
                           "[ERROR] %s: AppDoubleListCreate for hOffList %lu failed, ret=%d\n",
                           szOp, app::Ul(k));
            return false;
        }
    }
    return true;
}

void DestroyList(HAppDoubleList *phList, TAppMemPoolImpl *ptImpl)
{
    AppDoubleListDestroy(*phList, __AppMemPoolFreeData, ptImpl);
    *phList = nullptr;
}

} // namespace

uint32_t __AppMemGetOffset(uint32_t dwSize)
{
    const uint32_t dwUnits = (dwSize - 1) >> kSmallestShift; // of 0 more than any class has
    if (dwUnits == 0)
        return 0; // the instruction below knows no 0
    const auto dwClass = static_cast<uint32_t>(32 - __builtin_clz(dwUnits));
    return dwClass < APP_MEMPOOL_CLASS_NUM ? dwClass : APP_MEMPOOL_CLASS_NUM;
}

uint32_t _AppMemPoolCreate(uint32_t, uint32_t, TAppMemPoolImpl **pptImpl)
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

void _AppMemPoolDestroy(TAppMemPoolImpl *ptImpl)
{
    AppLog(0, APP_LOG_INFO, "[INFO ] %s: Mempool %p\n", __func__, app::Ptr(ptImpl));
    if (!ptImpl)
        return;
    ptImpl->dwOnWorkCount = ptImpl->dwOnWorkSize = ptImpl->dwTotalSize = 0;
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k) {
        DestroyList(&ptImpl->hOnList[k], ptImpl);
        DestroyList(&ptImpl->hOffList[k], ptImpl);
    }
    free(ptImpl);
}

void __AppMemPoolFreeData(void *pvBlock, void *pvImpl)
{
    APP_TRACE(APP_LOG_MEMDBG2, "[MEMDBG-2] %s: Size %lu, use MP %p block %p free\n", __func__,
              app::Ul(SizeOf(static_cast<TAppMemBlockHead *>(pvBlock))), pvImpl, pvBlock);
    free(pvBlock);
}

void *_AppMalloc(TAppMemPoolImpl *ptImpl, uint32_t dwSize)
{
    if (dwSize == 0 || dwSize > UINT32_MAX - kHead)
        return nullptr;
    const uint32_t dwNeed = dwSize + kHead;
    const uint32_t dwClass = __AppMemGetOffset(dwNeed);
    if (dwClass == APP_MEMPOOL_CLASS_NUM || !ptImpl)
        return MallocLarge(ptImpl, dwNeed, __func__);
    TAppMemBlockHead *ptHead = ptImpl->hOffList[dwClass]->ptHead
                                   ? ReuseBlock(ptImpl, dwNeed, dwClass, __func__)
                                   : NewBlock(ptImpl, dwNeed, dwClass, __func__);
    if (!ptHead)
        return nullptr;
    Count(ptImpl, ptHead->dwBlockSize);
    TraceCounters(ptImpl, __func__);
    Verify(ptImpl, dwClass);
    return BehindHead(ptHead);
}

void _AppFree(TAppMemPoolImpl *ptImpl, void *pvData)
{
    if (!pvData)
        return;
    TAppMemBlockHead *ptHead = static_cast<TAppMemBlockHead *>(pvData) - 1;
    if (!ptImpl) {
        FreeLarge(ptImpl, ptHead, __func__);
        return;
    }
    const bool bIdle = IsIdle(ptHead);
    const uint32_t dwBlockSize = SizeOf(ptHead);
    // Less in use than is released now: a header or the account is corrupt.  It goes on all the same,
    // since a camera that stops releasing stops soon.
    if (ptImpl->dwOnWorkSize < dwBlockSize)
        AppLog(
            0, APP_LOG_ERROR,
            "[ERROR] %s: WARING!!!! MEMPOOL %p(OnWorkSize=%lu) is less than %p(size=%lu), MEM LEAK may occured!!!!\n",
            __func__, app::Ptr(ptImpl), app::Ul(ptImpl->dwOnWorkSize), pvData,
            app::Ul(dwBlockSize));
    if (!ptHead->hNode) {
        FreeLarge(ptImpl, ptHead, __func__);
        return;
    }
    APP_CHECK(!bIdle, "the block has been released before");
    if (bIdle)
        return; // moved once more it would be handed out while its next owner has it
    const uint32_t dwClass = __AppMemGetOffset(dwBlockSize);
    if (dwClass < APP_MEMPOOL_CLASS_NUM) {
        ParkBlock(ptImpl, ptHead, dwClass, __func__);
        return;
    }
    // The header is corrupt.  The block is kept: its node is still on a list, and the pool's
    // destruction releases it.
    AppLog(0, APP_LOG_ERROR,
           "[ERROR] %s: WARING!!!!  %p(size=%lu) use MP %p, SHOULD NOT BE IN THE ON LIST!!!!\n",
           __func__, pvData, app::Ul(dwBlockSize), app::Ptr(ptImpl));
    Lower(ptImpl->dwTotalSize, dwBlockSize);
    Uncount(ptImpl, dwBlockSize);
    Verify(ptImpl, dwClass);
}
