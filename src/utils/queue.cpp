// SPDX-License-Identifier: MIT
//
// One critical section is enough to insert an element, and one to take it while nobody has to
// sleep.  A consumer that finds nothing counts itself as a sleeper and sleeps on hCountLock.  The
// next insertion makes one sleeper into a promise: it gives hCountLock one unit, and its element,
// or whichever is first by then, stays in the queue until the woken consumer fetches it.  So
// consumers inside AppQueueOut() that have found nothing are dwSleepers + dwPromised, whoever they
// are.  One whose time is up leaves as a sleeper; when all have been promised an element meanwhile,
// it takes its own.  A queue without hLock has nothing to guard these counts: there hCountLock
// counts every element.
#include "utils/queue.h"

#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/rollback.h"

#if UINTPTR_MAX == UINT32_MAX
static_assert(offsetof(TAppQueue, dwCurSize) == 20 && offsetof(TAppQueue, dwTopSize) == 28);
static_assert(offsetof(TAppQueueNode, nPriority) == 8);
#endif

namespace
{

// More than the elements any queue can hold, forced insertions and raised maxima included.
constexpr uint32_t kCountCeiling = 4294967295u;

uint32_t CreateLock(HAppMemPool hMemPool, uint32_t dwMaxCount, uint32_t dwInitCount,
                    HAppLock *phLock, const char *szOp)
{
    const uint32_t dwResult =
        AppLockCreate(hMemPool, dwMaxCount, dwInitCount, APP_LOCK_TYPE_SEM, phLock);
    if (dwResult != APP_OK)
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppLockCreate failed %d\n", szOp,
               static_cast<int>(dwResult));
    return dwResult;
}

// Puts a node behind the last node of a level, of which it becomes part when it can.
void PlaceBehindLevel(HAppQueue hQueue, TAppQueueNode *ptLevel, TAppQueueNode *ptNode)
{
    TAppQueueNode *ptBefore = ptLevel->ptLevelTail;
    ptNode->ptNext = ptBefore->ptNext;
    ptBefore->ptNext = ptNode;
    TAppQueueNode *ptOwnLevel = ptLevel->nPriority == ptNode->nPriority ? ptLevel : ptNode;
    ptOwnLevel->ptLevelTail = ptNode;
    if (hQueue->ptTail == ptBefore) {
        hQueue->ptTail = ptNode;
        hQueue->ptLastLevel = ptOwnLevel;
    }
}

// Behind all elements of equal or higher priority, before the first of lower priority.
void PlaceNode(HAppQueue hQueue, TAppQueueNode *ptNode)
{
    if (!hQueue->ptHead || hQueue->ptHead->nPriority < ptNode->nPriority) {
        if (!hQueue->ptHead) {
            hQueue->ptTail = ptNode;
            hQueue->ptLastLevel = ptNode;
        }
        ptNode->ptNext = hQueue->ptHead;
        ptNode->ptLevelTail = ptNode;
        hQueue->ptHead = ptNode;
        return;
    }
    TAppQueueNode *ptLevel = hQueue->ptLastLevel;
    if (ptLevel->nPriority < ptNode->nPriority) {
        ptLevel = hQueue->ptHead;
        for (TAppQueueNode *ptNext = ptLevel->ptLevelTail->ptNext;
             ptNext->nPriority >= ptNode->nPriority; ptNext = ptLevel->ptLevelTail->ptNext)
            ptLevel = ptNext;
    }
    PlaceBehindLevel(hQueue, ptLevel, ptNode);
}

TAppQueueNode *UnlinkHead(HAppQueue hQueue)
{
    TAppQueueNode *ptNode = hQueue->ptHead;
    TAppQueueNode *ptNext = ptNode->ptNext;
    if (ptNode->ptLevelTail != ptNode) { // the level goes on with the next node
        ptNext->ptLevelTail = ptNode->ptLevelTail;
        if (hQueue->ptLastLevel == ptNode)
            hQueue->ptLastLevel = ptNext;
    }
    hQueue->ptHead = ptNext;
    --hQueue->dwCurSize;
    return ptNode;
}

// Under hLock: true when a consumer has to be woken for the element just placed.
bool Promise(HAppQueue hQueue)
{
    if (!hQueue->hLock)
        return true;
    if (hQueue->dwSleepers == 0)
        return false;
    --hQueue->dwSleepers;
    ++hQueue->dwPromised;
    return true;
}

// The first element, unless all are promised: then the caller is a sleeper.
TAppQueueNode *TakeFree(HAppQueue hQueue)
{
    if (!hQueue->hLock)
        return nullptr;
    app::LockGuard guard(hQueue->hLock);
    if (hQueue->dwCurSize > hQueue->dwPromised)
        return UnlinkHead(hQueue);
    ++hQueue->dwSleepers;
    return nullptr;
}

uint32_t AwaitPromise(HAppQueue hQueue, uint32_t dwTimeout)
{
    const uint32_t dwResult = AppLockTakeByTime(hQueue->hCountLock, dwTimeout);
    if (dwResult == APP_OK || !hQueue->hLock)
        return dwResult;
    {
        app::LockGuard guard(hQueue->hLock);
        if (hQueue->dwSleepers > 0) {
            --hQueue->dwSleepers;
            return dwResult;
        }
    }
    // Every consumer still here has been promised an element since: the unit is on its way.
    return AppLockTakeByTime(hQueue->hCountLock, 0);
}

TAppQueueNode *TakePromised(HAppQueue hQueue)
{
    app::LockGuard guard(hQueue->hLock);
    if (hQueue->hLock)
        --hQueue->dwPromised;
    return UnlinkHead(hQueue);
}

uint32_t ReadField(HAppQueue hQueue, uint32_t TAppQueue::*pdwField, uint32_t dwNull)
{
    if (!hQueue)
        return dwNull;
    app::LockGuard guard(hQueue->hLock);
    return hQueue->*pdwField;
}

} // namespace

uint32_t AppQueueCreate(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t bLock,
                        HAppQueue *phQueue)
{
    if (!phQueue)
        return APP_INVALID_ARG;
    *phQueue = nullptr;
    if (dwMaxSize == 0) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: change dwMaxSize(%u) ==> %u\n", __func__, dwMaxSize,
               APP_QUEUE_DEFAULT_MAX);
        dwMaxSize = APP_QUEUE_DEFAULT_MAX;
    }
    auto hQueue = static_cast<HAppQueue>(AppMemPoolMalloc(hMemPool, sizeof(TAppQueue)));
    if (!hQueue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", __func__);
        return APP_NO_RESOURCE;
    }
    app::Rollback undo([&] { AppQueueDestroy(hQueue, nullptr, nullptr); });
    *hQueue = {};
    hQueue->dwMaxSize = dwMaxSize;
    hQueue->hMemPool = hMemPool;
    uint32_t dwResult = APP_OK;
    if (bLock == 1)
        dwResult = CreateLock(hMemPool, 1, 1, &hQueue->hLock, __func__);
    if (dwResult == APP_OK)
        dwResult = CreateLock(hMemPool, kCountCeiling, 0, &hQueue->hCountLock, __func__);
    if (dwResult != APP_OK)
        return dwResult;
    undo.Dismiss();
    *phQueue = hQueue;
    return APP_OK;
}

void AppQueueDestroy(HAppQueue hQueue, PFAppFree pfnDrop, void *pvContext)
{
    if (!hQueue)
        return;
    // Waits for a producer that is still inside its insertion; never given back.
    app::LockGuard guard(hQueue->hLock);
    guard.Release();
    while (hQueue->ptHead) {
        TAppQueueNode *ptNode = UnlinkHead(hQueue);
        if (pfnDrop)
            pfnDrop(ptNode->pvData, pvContext);
        AppMemPoolFree(ptNode);
    }
    AppLockDestroy(hQueue->hCountLock);
    hQueue->hCountLock = nullptr;
    AppLockDestroy(hQueue->hLock);
    hQueue->hLock = nullptr;
    AppMemPoolFree(hQueue);
}

// Under hLock.
static uint32_t InsertNode(HAppQueue hQueue, void *pvData, int32_t nPriority, const char *szOp)
{
    auto ptNode =
        static_cast<TAppQueueNode *>(AppMemPoolMalloc(hQueue->hMemPool, sizeof(TAppQueueNode)));
    if (!ptNode) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", szOp);
        return APP_NO_RESOURCE;
    }
    *ptNode = {nullptr, pvData, nPriority, nullptr};
    PlaceNode(hQueue, ptNode);
    if (++hQueue->dwCurSize > hQueue->dwTopSize)
        hQueue->dwTopSize = hQueue->dwCurSize;
    return APP_OK;
}

uint32_t app::QueuePlace(HAppQueue hQueue, void *pvData, int32_t nPriority, int32_t bForce,
                         const char *szOp, bool *pbWake)
{
    LockGuard guard(hQueue->hLock);
    if (hQueue->dwMaxSize != 0 && bForce == 0 && hQueue->dwCurSize >= hQueue->dwMaxSize) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Queue full. cur size: %lu max size: %lu\n", szOp,
               Ul(hQueue->dwCurSize), Ul(hQueue->dwMaxSize));
        return APP_NO_RESOURCE;
    }
    const uint32_t dwResult = InsertNode(hQueue, pvData, nPriority, szOp);
    if (dwResult == APP_OK)
        *pbWake = Promise(hQueue);
    return dwResult;
}

// The last touch: the consumer of the element may destroy the queue.
void app::QueueWake(HAppQueue hQueue)
{
    AppLockGive(hQueue->hCountLock);
}

uint32_t _AppQueueIn(HAppQueue hQueue, void *pvData, int32_t nPriority, int32_t bForce)
{
    if (!hQueue)
        return APP_INVALID_ARG;
    bool bWake = false;
    const uint32_t dwResult = app::QueuePlace(hQueue, pvData, nPriority, bForce, __func__, &bWake);
    if (bWake)
        app::QueueWake(hQueue);
    return dwResult;
}

uint32_t AppQueueIn(HAppQueue hQueue, void *pvData, int32_t nPriority)
{
    return _AppQueueIn(hQueue, pvData, nPriority, 0);
}

uint32_t AppQueueOut(HAppQueue hQueue, uint32_t dwTimeout, void **ppvData)
{
    if (!hQueue)
        return APP_INVALID_ARG;
    TAppQueueNode *ptNode = TakeFree(hQueue);
    if (!ptNode) {
        const uint32_t dwResult = AwaitPromise(hQueue, dwTimeout);
        if (dwResult != APP_OK)
            return dwResult;
        ptNode = TakePromised(hQueue);
    }
    if (ppvData)
        *ppvData = ptNode->pvData;
    AppMemPoolFree(ptNode);
    return APP_OK;
}

uint32_t AppQueueGetSize(HAppQueue hQueue)
{
    return ReadField(hQueue, &TAppQueue::dwCurSize, 4294967295u);
}

uint32_t _AppQueueGetMaxSize(HAppQueue hQueue)
{
    return ReadField(hQueue, &TAppQueue::dwMaxSize, 0);
}

uint32_t _AppQueueGetTopSize(HAppQueue hQueue)
{
    return ReadField(hQueue, &TAppQueue::dwTopSize, 0);
}

uint32_t _AppQueueChangeMaxSize(HAppQueue hQueue, uint32_t dwMaxSize)
{
    if (!hQueue)
        return APP_INVALID_ARG;
    app::LockGuard guard(hQueue->hLock);
    if (hQueue->dwCurSize > dwMaxSize)
        return APP_INVALID_ARG;
    hQueue->dwMaxSize = dwMaxSize;
    hQueue->dwTopSize = 0;
    return APP_OK;
}

bool app::QueueIsValid(HAppQueue hQueue)
{
    LockGuard guard(hQueue->hLock);
    uint32_t dwCount = 0;
    const TAppQueueNode *ptLevel = nullptr; // first node of the present level
    const TAppQueueNode *ptLast = nullptr;
    for (const TAppQueueNode *ptNode = hQueue->ptHead; ptNode; ptNode = ptNode->ptNext) {
        if (++dwCount > hQueue->dwCurSize || (ptLast && ptLast->nPriority < ptNode->nPriority))
            return false;
        const bool bNewLevel = !ptLast || ptLast->nPriority != ptNode->nPriority;
        if (bNewLevel && ptLevel && ptLevel->ptLevelTail != ptLast)
            return false;
        ptLevel = bNewLevel ? ptNode : ptLevel;
        ptLast = ptNode;
    }
    return dwCount == hQueue->dwCurSize &&
           (!ptLast || (ptLast == hQueue->ptTail && ptLevel == hQueue->ptLastLevel &&
                        ptLevel->ptLevelTail == ptLast));
}
