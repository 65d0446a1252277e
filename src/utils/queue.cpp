// SPDX-License-Identifier: MIT
//
// One critical section is enough to insert an element, and one to take it while nobody has to
// sleep.  A consumer that finds nothing counts itself as a sleeper and sleeps on hCountLock.  The
// next insertion makes one sleeper into a promise: it gives hCountLock one unit, and its element,
// or whichever is first by then, stays in the queue until the woken consumer fetches it.  An
// interrupt makes one sleeper into an interrupted one, likewise with one unit; without a sleeper it
// leaves a mark, which answers the next consumer that finds nothing.
//
// So consumers inside AppQueueOut() that have found nothing are dwSleepers + dwPromised +
// dwInterrupted, whoever they are: a woken one fetches a promised element while there is one, and
// only then counts as interrupted.  One whose time is up leaves as a sleeper; when there is none
// any more, a unit is on its way for every consumer left, and it waits for its own.  Units are
// given after hLock and are the giver's last touch: no consumer leaves before the unit made for it.
// A queue without hLock has nothing to guard these counts: there hCountLock counts every element.
#include "utils/queue.h"

#include <string.h>

#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "base/rollback.h"
#include "utils/check.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

#if UINTPTR_MAX == UINT32_MAX
static_assert(offsetof(TAppQueue, dwCurSize) == 20 && offsetof(TAppQueue, aptFinger) == 32);
static_assert(sizeof(TAppQueueNode) == 12 && offsetof(TAppQueueNode, nPriority) == 8);
// With both pool headers the record fills a block of 128 bytes, a node one of 32.
static_assert(sizeof(TAppQueue) + 20 <= 128);
#endif

namespace
{

// More than the elements any queue can hold, forced insertions and raised maxima included.
constexpr uint32_t kCountCeiling = 4294967295u;
// An insertion's messages name the one operation behind every way to insert.
constexpr char kInsert[] = "_AppQueueIn";
constexpr char kCreate[] = "AppQueueCreate";

#ifdef APPCORE_CHECKS
// Sleepers sleep because every element there is promised, and no interrupt has been kept.
bool CountsAgree(const TAppQueue *ptQueue) APP_REQUIRES(ptQueue->hLock)
{
    const uint32_t dwWaiting = ptQueue->dwSleepers + ptQueue->dwPromised + ptQueue->dwInterrupted;
    if ((ptQueue->dwCurSize == 0) != !ptQueue->ptHead || (!ptQueue->hLock && dwWaiting != 0))
        return false;
    return ptQueue->dwSleepers > 0
               ? ptQueue->dwPromised == ptQueue->dwCurSize && !ptQueue->bInterrupt
               : ptQueue->dwPromised <= ptQueue->dwCurSize;
}
#endif

// After each change, under hLock.
void Verify([[maybe_unused]] const TAppQueue *ptQueue) APP_REQUIRES(ptQueue->hLock)
{
    APP_CHECK(CountsAgree(ptQueue), "the queue's counts do not agree");
    APP_CHECK_WHOLE(ptQueue->dwCurSize, app::QueueIsValid(ptQueue), "the queue is broken");
}

// The fingers at priorities not below this one.
uint32_t CountFingers(const TAppQueue *ptQueue, int32_t nPriority) APP_REQUIRES(ptQueue->hLock)
{
    uint32_t dwCount = 0;
    while (dwCount < APP_QUEUE_FINGER_NUM && ptQueue->aptFinger[dwCount] &&
           ptQueue->aptFinger[dwCount]->nPriority >= nPriority)
        ++dwCount;
    return dwCount;
}

void DropFinger(HAppQueue hQueue, uint32_t dwFinger) APP_REQUIRES(hQueue->hLock)
{
    for (; dwFinger + 1 < APP_QUEUE_FINGER_NUM; ++dwFinger)
        hQueue->aptFinger[dwFinger] = hQueue->aptFinger[dwFinger + 1];
    hQueue->aptFinger[dwFinger] = nullptr;
}

// Behind the fingers in front of it, of which the last may be that of the same level.  The finger
// that makes room is the next in turn: to know the least used one would cost each insertion more.
void AddFinger(HAppQueue hQueue, uint32_t dwBefore, TAppQueueNode *ptNode)
    APP_REQUIRES(hQueue->hLock)
{
    TAppQueueNode **pptFinger = hQueue->aptFinger;
    if (dwBefore > 0 && pptFinger[dwBefore - 1]->nPriority == ptNode->nPriority) {
        pptFinger[dwBefore - 1] = ptNode;
        return;
    }
    if (pptFinger[APP_QUEUE_FINGER_NUM - 1]) {
        const uint32_t dwVictim = hQueue->dwVictim++ % APP_QUEUE_FINGER_NUM;
        DropFinger(hQueue, dwVictim);
        dwBefore -= dwVictim < dwBefore ? 1 : 0;
    }
    for (uint32_t i = APP_QUEUE_FINGER_NUM - 1; i > dwBefore; --i)
        pptFinger[i] = pptFinger[i - 1];
    pptFinger[dwBefore] = ptNode;
}

void PlaceAtTail(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock)
{
    TAppQueueNode *ptTail = hQueue->ptTail;
    if (ptTail->nPriority != ptNode->nPriority) // the old tail ends its level from now on
        AddFinger(hQueue, CountFingers(hQueue, ptTail->nPriority), ptTail);
    ptTail->ptNext = ptNode;
    hQueue->ptTail = ptNode;
}

void PlaceBetween(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock)
{
    const uint32_t dwBefore = CountFingers(hQueue, ptNode->nPriority);
    // Only the levels behind that finger which have none of their own are walked.
    TAppQueueNode *ptBefore = dwBefore > 0 ? hQueue->aptFinger[dwBefore - 1] : hQueue->ptHead;
    while (ptBefore->ptNext->nPriority >= ptNode->nPriority)
        ptBefore = ptBefore->ptNext;
    ptNode->ptNext = ptBefore->ptNext;
    ptBefore->ptNext = ptNode;
    AddFinger(hQueue, dwBefore, ptNode);
}

// Behind all elements of equal or higher priority, before the first of lower priority.
void PlaceNode(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock)
{
    if (hQueue->ptHead && hQueue->ptTail->nPriority >= ptNode->nPriority) {
        PlaceAtTail(hQueue, ptNode);
    } else if (hQueue->ptHead && hQueue->ptHead->nPriority >= ptNode->nPriority) {
        PlaceBetween(hQueue, ptNode);
    } else {
        if (!hQueue->ptHead)
            hQueue->ptTail = ptNode;
        ptNode->ptNext = hQueue->ptHead;
        hQueue->ptHead = ptNode;
    }
}

TAppQueueNode *UnlinkHead(HAppQueue hQueue) APP_REQUIRES(hQueue->hLock)
{
    TAppQueueNode *ptNode = hQueue->ptHead;
    // The last of its level takes its finger along, which is the first: none stands before the head.
    if (hQueue->aptFinger[0] == ptNode)
        DropFinger(hQueue, 0);
    hQueue->ptHead = ptNode->ptNext;
    app::SetCounter(hQueue->dwCurSize, hQueue->dwCurSize - 1);
    return ptNode;
}

// True when a consumer has to be woken for the element just placed.
bool Promise(HAppQueue hQueue) APP_REQUIRES(hQueue->hLock)
{
    if (!hQueue->hLock)
        return true;
    if (hQueue->dwSleepers == 0)
        return false;
    --hQueue->dwSleepers;
    ++hQueue->dwPromised;
    return true;
}

void *RecordOf(TAppQueueNode *ptNode)
{
    return ptNode + 1;
}

// Null for a null record.
TAppQueueNode *NodeOf(void *pvRecord)
{
    return pvRecord ? static_cast<TAppQueueNode *>(pvRecord) - 1 : nullptr;
}

// False when the caller has to sleep.  Otherwise it has the first element that is not promised, or
// none when an interrupt was kept for it.
bool TakeFree(HAppQueue hQueue, TAppQueueNode **pptNode)
{
    if (!hQueue->hLock)
        return false;
    app::LockGuard guard(hQueue);
    if (hQueue->dwCurSize > hQueue->dwPromised) {
        *pptNode = UnlinkHead(hQueue);
    } else if (hQueue->bInterrupt) {
        hQueue->bInterrupt = false;
    } else {
        ++hQueue->dwSleepers;
        Verify(hQueue);
        return false;
    }
    Verify(hQueue);
    return true;
}

uint32_t AwaitUnit(HAppQueue hQueue, uint32_t dwTimeout)
{
    // The lock says that it is too late, not whether an insertion was earlier: the counts do.
    const uint32_t dwResult = AppLockTakeByTime(hQueue->hCountLock, dwTimeout);
    if (dwResult == APP_OK || !hQueue->hLock)
        return dwResult;
    {
        app::LockGuard guard(hQueue);
        if (hQueue->dwSleepers > 0) {
            --hQueue->dwSleepers;
            Verify(hQueue);
            return dwResult;
        }
    }
    // Every consumer still here has been promised an element or interrupted since.
    return AppLockTakeByTime(hQueue->hCountLock, 0);
}

// With a unit in hand: a promised element, or null when that unit was an interrupt's.
TAppQueueNode *TakePromised(HAppQueue hQueue)
{
    app::LockGuard guard(hQueue);
    if (hQueue->hLock) {
        if (hQueue->dwPromised == 0) {
            APP_CHECK(hQueue->dwInterrupted > 0, "a unit came for nobody");
            --hQueue->dwInterrupted;
            return nullptr;
        }
        --hQueue->dwPromised;
    }
    TAppQueueNode *ptNode = UnlinkHead(hQueue);
    Verify(hQueue);
    return ptNode;
}

uint32_t ReadField(HAppQueue hQueue, uint32_t TAppQueue::*pdwField, uint32_t dwNull)
{
    if (!hQueue)
        return dwNull;
    app::LockGuard guard(hQueue);
    return hQueue->*pdwField;
}

} // namespace

static uint32_t Create(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t bLock,
                       uint32_t dwRecordSize, HAppQueue *phQueue)
{
    if (!phQueue)
        return APP_INVALID_ARG;
    *phQueue = nullptr;
    if (dwMaxSize == 0) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: change dwMaxSize(%u) ==> %u\n", kCreate, dwMaxSize,
               APP_QUEUE_DEFAULT_MAX);
        dwMaxSize = APP_QUEUE_DEFAULT_MAX;
    }
    auto hQueue = static_cast<HAppQueue>(AppMemPoolMalloc(hMemPool, sizeof(TAppQueue)));
    if (!hQueue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", kCreate);
        return APP_NO_RESOURCE;
    }
    app::Rollback undo([&] { AppQueueDestroy(hQueue, nullptr, nullptr); }); // takes half a queue
    app::AssertAlone(hQueue);
    *hQueue = {};
    hQueue->dwMaxSize = dwMaxSize;
    hQueue->hMemPool = hMemPool;
    hQueue->wRecordSize = static_cast<uint16_t>(dwRecordSize);
    uint32_t dwResult = APP_OK;
    if (bLock == 1)
        dwResult = AppLockCreate(hMemPool, 1, 1, APP_LOCK_TYPE_SEM, &hQueue->hLock);
    if (dwResult == APP_OK)
        dwResult =
            AppLockCreate(hMemPool, kCountCeiling, 0, APP_LOCK_TYPE_SEM, &hQueue->hCountLock);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: AppLockCreate failed %d\n", kCreate);
        return dwResult;
    }
    undo.Dismiss();
    *phQueue = hQueue;
    return APP_OK;
}

uint32_t AppQueueCreate(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t bLock,
                        HAppQueue *phQueue)
{
    return Create(hMemPool, dwMaxSize, bLock, 0, phQueue);
}

uint32_t app::QueueCreateForRecords(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t dwRecordSize,
                                    HAppQueue *phQueue)
{
    return Create(hMemPool, dwMaxSize, 1, dwRecordSize, phQueue);
}

void AppQueueDestroy(HAppQueue hQueue, PFAppFree pfnDrop, void *pvContext)
{
    if (!hQueue)
        return;
    // Waits for a producer that is still inside its insertion; never given back.
    app::LockGuard guard(hQueue);
    guard.Release();
    app::AssertAlone(hQueue);
    APP_CHECK(hQueue->dwSleepers + hQueue->dwPromised + hQueue->dwInterrupted == 0,
              "a consumer waits still");
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

// The allocation is made under the lock too: a full queue asks for no memory, and nobody comes in
// between.
template <typename Fill>
static uint32_t Place(HAppQueue hQueue, int32_t nPriority, int32_t bForce, bool *pbWake, Fill fill)
    APP_REQUIRES(hQueue->hLock)
{
    if (hQueue->dwMaxSize != 0 && bForce == 0 && hQueue->dwCurSize >= hQueue->dwMaxSize) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Queue full. cur size: %lu max size: %lu\n", kInsert,
               app::Ul(hQueue->dwCurSize), app::Ul(hQueue->dwMaxSize));
        return APP_NO_RESOURCE;
    }
    auto ptNode = static_cast<TAppQueueNode *>(
        AppMemPoolMalloc(hQueue->hMemPool, sizeof(TAppQueueNode) + hQueue->wRecordSize));
    if (!ptNode)
        return app::kQueueNoMemory;
    *ptNode = {nullptr, nullptr, nPriority};
    fill(ptNode);
    PlaceNode(hQueue, ptNode);
    app::SetCounter(hQueue->dwCurSize, hQueue->dwCurSize + 1);
    if (hQueue->dwCurSize > hQueue->dwTopSize)
        hQueue->dwTopSize = hQueue->dwCurSize;
    *pbWake = Promise(hQueue);
    Verify(hQueue);
    return APP_OK;
}

uint32_t app::QueuePlace(HAppQueue hQueue, void *pvData, int32_t nPriority, int32_t bForce,
                         bool *pbWake)
{
    LockGuard guard(hQueue);
    const uint32_t dwResult = Place(hQueue, nPriority, bForce, pbWake,
                                    [=](TAppQueueNode *ptNode) { ptNode->pvData = pvData; });
    if (dwResult != kQueueNoMemory)
        return dwResult;
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", kInsert);
    return APP_NO_RESOURCE;
}

uint32_t app::QueuePlaceRecord(HAppQueue hQueue, const void *pvRecord, int32_t nPriority,
                               int32_t bForce, bool *pbWake)
{
    return Place(hQueue, nPriority, bForce, pbWake, [=](TAppQueueNode *ptNode) {
        ptNode->pvData = RecordOf(ptNode);
        memcpy(ptNode->pvData, pvRecord, hQueue->wRecordSize);
    });
}

// The last touch: the woken consumer may destroy the queue.
void app::QueueWake(HAppQueue hQueue)
{
    AppLockGive(hQueue->hCountLock);
}

bool app::QueuePlaceInterrupt(HAppQueue hQueue)
{
    LockGuard guard(hQueue);
    if (hQueue->dwSleepers == 0) {
        hQueue->bInterrupt = true;
        return false;
    }
    --hQueue->dwSleepers;
    ++hQueue->dwInterrupted;
    Verify(hQueue);
    return true;
}

void app::QueueInterrupt(HAppQueue hQueue)
{
    if (QueuePlaceInterrupt(hQueue))
        QueueWake(hQueue);
}

uint32_t _AppQueueIn(HAppQueue hQueue, void *pvData, int32_t nPriority, int32_t bForce)
{
    if (!hQueue)
        return APP_INVALID_ARG;
    bool bWake = false;
    const uint32_t dwResult = app::QueuePlace(hQueue, pvData, nPriority, bForce, &bWake);
    if (bWake)
        app::QueueWake(hQueue);
    return dwResult;
}

uint32_t AppQueueIn(HAppQueue hQueue, void *pvData, int32_t nPriority)
{
    return _AppQueueIn(hQueue, pvData, nPriority, 0);
}

// The first element's node, which is the caller's.
static uint32_t TakeNode(HAppQueue hQueue, uint32_t dwTimeout, TAppQueueNode **pptNode)
{
    if (!TakeFree(hQueue, pptNode)) {
        const uint32_t dwResult = AwaitUnit(hQueue, dwTimeout);
        if (dwResult != APP_OK)
            return dwResult;
        *pptNode = TakePromised(hQueue);
    }
    return *pptNode ? APP_OK : APP_TIMEOUT; // interrupted
}

uint32_t AppQueueOut(HAppQueue hQueue, uint32_t dwTimeout, void **ppvData)
{
    if (!hQueue)
        return APP_INVALID_ARG;
    TAppQueueNode *ptNode = nullptr;
    const uint32_t dwResult = TakeNode(hQueue, dwTimeout, &ptNode);
    if (dwResult != APP_OK)
        return dwResult;
    if (ppvData)
        *ppvData = ptNode->pvData;
    AppMemPoolFree(ptNode);
    return APP_OK;
}

uint32_t app::QueueTakeRecord(HAppQueue hQueue, uint32_t dwTimeout, void **ppvRecord)
{
    AppMemPoolFree(NodeOf(*ppvRecord));
    *ppvRecord = nullptr;
    TAppQueueNode *ptNode = nullptr;
    const uint32_t dwResult = TakeNode(hQueue, dwTimeout, &ptNode);
    if (ptNode)
        *ppvRecord = RecordOf(ptNode);
    return dwResult;
}

void app::QueueGiveRecordBack(HAppQueue, void *pvRecord)
{
    AppMemPoolFree(NodeOf(pvRecord));
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
    app::LockGuard guard(hQueue);
    if (hQueue->dwCurSize > dwMaxSize)
        return APP_INVALID_ARG;
    hQueue->dwMaxSize = dwMaxSize;
    hQueue->dwTopSize = 0;
    return APP_OK;
}

#ifdef APPCORE_CHECKS
bool app::QueueIsValid(const TAppQueue *ptQueue)
{
    uint32_t dwCount = 0;
    uint32_t dwFingers = 0;
    const TAppQueueNode *ptLast = nullptr;
    for (const TAppQueueNode *ptNode = ptQueue->ptHead; ptNode; ptNode = ptNode->ptNext) {
        if (++dwCount > ptQueue->dwCurSize || (ptLast && ptLast->nPriority < ptNode->nPriority))
            return false;
        if (dwFingers < APP_QUEUE_FINGER_NUM && ptNode == ptQueue->aptFinger[dwFingers]) {
            if (!ptNode->ptNext || ptNode->ptNext->nPriority == ptNode->nPriority)
                return false;
            ++dwFingers;
        }
        ptLast = ptNode;
    }
    return CountsAgree(ptQueue) && dwCount == ptQueue->dwCurSize &&
           (!ptLast || ptLast == ptQueue->ptTail) &&
           (dwFingers == APP_QUEUE_FINGER_NUM || !ptQueue->aptFinger[dwFingers]);
}
#endif
