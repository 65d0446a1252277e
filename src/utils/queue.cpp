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

#include <new>
#include <utility>

#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "base/rollback.h"
#include "utils/check.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue_levels.h"
#include "utils/queue_node.h"

#if UINTPTR_MAX == UINT32_MAX
static_assert(offsetof(TAppQueue, dwCurSize) == 20 && offsetof(TAppQueue, ptLastLevel) == 32);
static_assert(offsetof(TAppQueueNode, nPriority) == 8 && offsetof(TAppQueueNode, dwOffset) == 12);
#endif
// With both pool headers the record lies in a block of 256 or 512 bytes.
static_assert(sizeof(TAppQueue) + (sizeof(void *) == 4 ? 20 : 48) <= 64 * sizeof(void *));

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

// True when a consumer has to be woken for the element just placed.
bool Promise(HAppQueue hQueue) APP_REQUIRES(hQueue->hLock)
{
    if (!hQueue->hLock)
        return true;
    if (hQueue->dwSleepers == 0)
        return false;
    app::SetCounter(hQueue->dwSleepers, hQueue->dwSleepers - 1);
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

void Release(void *pvMemory)
{
    if (pvMemory)
        AppMemPoolFree(pvMemory);
}

// By the tick that anybody has read last: an insertion has no time for the clock.
inline void Watch(HAppQueue hQueue, TAppQueueNode *ptNode)
{
    if (app::Peek(hQueue->ptWatched))
        return;
    app::SetCounter(hQueue->dwWatchTick, app::Peek(g_dwAppRecentTick));
    app::Poke(hQueue->ptWatched, ptNode);
}

inline void EndWatch(HAppQueue hQueue, const TAppQueueNode *ptNode)
{
    if (app::Peek(hQueue->ptWatched) != ptNode)
        return;
    app::Poke<TAppQueueNode *>(hQueue->ptWatched, nullptr);
    const uint32_t dwWaited = app::Peek(g_dwAppRecentTick) - hQueue->dwWatchTick;
    if (dwWaited > hQueue->dwLongest && static_cast<int32_t>(dwWaited) > 0)
        app::SetCounter(hQueue->dwLongest, dwWaited);
}

// Takes the head's element.  A record stays with its node: the caller's own is what goes back then.
inline TAppQueueNode *TakeHead(HAppQueue hQueue, TAppQueueNode *ptBack, void **ppvElement)
    APP_REQUIRES(hQueue->hLock)
{
    TAppQueueNode *ptNode = app::UnlinkHead(hQueue);
    EndWatch(hQueue, ptNode);
    if (ppvElement)
        *ppvElement = ptNode->pvData;
    return hQueue->wRecordSize == 0 ? ptNode : ptBack;
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
            app::SetCounter(hQueue->dwSleepers, hQueue->dwSleepers - 1);
            Verify(hQueue);
            return dwResult;
        }
    }
    // Every consumer still here has been promised an element or interrupted since.
    return AppLockTakeByTime(hQueue->hCountLock, 0);
}

// With a unit in hand: takes a promised element, unless that unit was an interrupt's.
uint32_t TakePromised(HAppQueue hQueue, void **ppvElement)
{
    void *pvRelease;
    {
        app::LockGuard guard(hQueue);
        if (hQueue->hLock) {
            if (hQueue->dwPromised == 0) {
                APP_CHECK(hQueue->dwInterrupted > 0, "a unit came for nobody");
                --hQueue->dwInterrupted;
                return APP_TIMEOUT;
            }
            --hQueue->dwPromised;
        }
        TAppQueueNode *ptBack = TakeHead(hQueue, nullptr, ppvElement);
        pvRelease = app::GiveNode(hQueue, ptBack);
        Verify(hQueue);
    }
    Release(pvRelease);
    return APP_OK;
}

[[gnu::noinline, gnu::cold]] uint32_t TakeSleeping(HAppQueue hQueue, uint32_t dwTimeout,
                                                   void **ppvElement)
{
    const uint32_t dwResult = AwaitUnit(hQueue, dwTimeout);
    AppGetTick(); // so that what others note is not of before this wait
    return dwResult == APP_OK ? TakePromised(hQueue, ppvElement) : dwResult;
}

// Takes the first element that is not promised, or sleeps for one.  A record that the caller hands
// back, or null, goes first.
uint32_t Take(HAppQueue hQueue, uint32_t dwTimeout, void *pvBack, void **ppvElement)
{
    if (!hQueue->hLock)
        return TakeSleeping(hQueue, dwTimeout, ppvElement);
    TAppQueueNode *ptBack = NodeOf(pvBack);
    uint32_t dwResult = APP_OK;
    bool bSleep = false;
    void *pvRelease;
    {
        app::FastLockGuard guard(hQueue);
        if (hQueue->dwCurSize > hQueue->dwPromised) {
            ptBack = TakeHead(hQueue, ptBack, ppvElement);
        } else {
            bSleep = !hQueue->bInterrupt;
            app::SetCounter(hQueue->dwSleepers, hQueue->dwSleepers + (bSleep ? 1 : 0));
            hQueue->bInterrupt = false;
            dwResult = APP_TIMEOUT; // of the interrupt
        }
        pvRelease = app::GiveNode(hQueue, ptBack);
        Verify(hQueue);
    }
    Release(pvRelease);
    return bSleep ? TakeSleeping(hQueue, dwTimeout, ppvElement) : dwResult;
}

// Here and below, out of line: a guard is larger than a call.
[[gnu::noinline, gnu::cold]] uint32_t ReadField(HAppQueue hQueue, uint32_t TAppQueue::*pdwField,
                                                uint32_t dwNull)
{
    if (!hQueue)
        return dwNull;
    app::LockGuard guard(hQueue);
    return hQueue->*pdwField;
}

} // namespace

[[gnu::cold]] static uint32_t Create(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t bLock,
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
    new (hQueue) TAppQueue{};
    hQueue->dwMaxSize = dwMaxSize;
    hQueue->hMemPool = hMemPool;
    app::SizeNodes(hQueue, dwRecordSize);
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
    app::Register(APP_REGISTRY_QUEUES, &hQueue->tEntry, hQueue);
    *phQueue = hQueue;
    return APP_OK;
}

[[gnu::cold]] uint32_t AppQueueCreate(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t bLock,
                                      HAppQueue *phQueue)
{
    return Create(hMemPool, dwMaxSize, bLock, 0, phQueue);
}

[[gnu::cold]] uint32_t app::QueueCreateForRecords(HAppMemPool hMemPool, uint32_t dwMaxSize,
                                                  uint32_t dwRecordSize, HAppQueue *phQueue)
{
    APP_CHECK(dwRecordSize != 0 && dwRecordSize <= kQueueRecordMax &&
                  dwRecordSize % sizeof(void *) == 0,
              "a queue cannot keep records of this size");
    return Create(hMemPool, dwMaxSize, 1, dwRecordSize, phQueue);
}

[[gnu::cold]] void AppQueueDestroy(HAppQueue hQueue, PFAppFree pfnDrop, void *pvContext)
{
    if (!hQueue)
        return;
    app::Unregister(APP_REGISTRY_QUEUES, &hQueue->tEntry);
    // Waits for a producer that is still inside its insertion; never given back.
    app::LockGuard guard(hQueue);
    guard.Release();
    app::AssertAlone(hQueue);
    APP_CHECK(hQueue->dwSleepers + hQueue->dwPromised + hQueue->dwInterrupted == 0,
              "a consumer waits still");
    while (hQueue->ptHead) {
        TAppQueueNode *ptNode = app::UnlinkHead(hQueue);
        if (pfnDrop)
            pfnDrop(ptNode->pvData, pvContext);
        Release(app::GiveNode(hQueue, ptNode));
    }
    APP_CHECK(!hQueue->ptBlocks, "a record has not been given back");
    AppLockDestroy(hQueue->hCountLock);
    hQueue->hCountLock = nullptr;
    AppLockDestroy(hQueue->hLock);
    hQueue->hLock = nullptr;
    AppMemPoolFree(hQueue);
}

// The allocation is made under the lock too: a full queue asks for no memory, and nobody comes in
// between.
uint32_t app::QueuePlaceRecord(HAppQueue hQueue, const void *pvRecord, int32_t nPriority,
                               int32_t bForce, bool *pbWake)
{
    if (hQueue->dwMaxSize != 0 && bForce == 0 && hQueue->dwCurSize >= hQueue->dwMaxSize) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Queue full. cur size: %lu max size: %lu\n", kInsert,
               Ul(hQueue->dwCurSize), Ul(hQueue->dwMaxSize));
        app::SetCounter(hQueue->dwRefused, hQueue->dwRefused + 1);
        return APP_NO_RESOURCE;
    }
    TAppQueueNode *ptNode = TakeNode(hQueue);
    if (!ptNode) {
        app::SetCounter(hQueue->dwRefused, hQueue->dwRefused + 1);
        return kQueueNoMemory;
    }
    ptNode->nPriority = nPriority;
    if (hQueue->wRecordSize == 0)
        ptNode->pvData = const_cast<void *>(pvRecord);
    else
        ptNode->pvData = memcpy(RecordOf(ptNode), pvRecord, hQueue->wRecordSize);
    PlaceNode(hQueue, ptNode);
    Watch(hQueue, ptNode);
    app::SetCounter(hQueue->dwCurSize, hQueue->dwCurSize + 1);
    if (hQueue->dwCurSize > hQueue->dwTopSize)
        app::SetCounter(hQueue->dwTopSize, hQueue->dwCurSize);
    *pbWake = Promise(hQueue);
    Verify(hQueue);
    return APP_OK;
}

// The last touch: the woken consumer may destroy the queue.
void app::QueueWake(HAppQueue hQueue)
{
    AppLockGive(hQueue->hCountLock);
}

[[gnu::noinline, gnu::cold]] bool app::QueuePlaceInterrupt(HAppQueue hQueue)
{
    LockGuard guard(hQueue);
    if (hQueue->dwSleepers == 0) {
        hQueue->bInterrupt = true;
        return false;
    }
    app::SetCounter(hQueue->dwSleepers, hQueue->dwSleepers - 1);
    ++hQueue->dwInterrupted;
    Verify(hQueue);
    return true;
}

void app::QueueInterrupt(HAppQueue hQueue)
{
    if (QueuePlaceInterrupt(hQueue))
        QueueWake(hQueue);
}

// An element is a record that the queue does not look at.
[[gnu::noinline]] uint32_t _AppQueueIn(HAppQueue hQueue, void *pvData, int32_t nPriority,
                                       int32_t bForce)
{
    if (!hQueue)
        return APP_INVALID_ARG;
    bool bWake = false;
    uint32_t dwResult;
    {
        app::FastLockGuard guard(hQueue);
        dwResult = app::QueuePlaceRecord(hQueue, pvData, nPriority, bForce, &bWake);
    }
    if (bWake)
        app::QueueWake(hQueue);
    if (dwResult != app::kQueueNoMemory)
        return dwResult;
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", kInsert);
    return APP_NO_RESOURCE;
}

uint32_t AppQueueIn(HAppQueue hQueue, void *pvData, int32_t nPriority)
{
    return _AppQueueIn(hQueue, pvData, nPriority, 0);
}

uint32_t AppQueueOut(HAppQueue hQueue, uint32_t dwTimeout, void **ppvData)
{
    if (!hQueue)
        return APP_INVALID_ARG;
    return Take(hQueue, dwTimeout, nullptr, ppvData);
}

uint32_t app::QueueTakeRecord(HAppQueue hQueue, uint32_t dwTimeout, void **ppvRecord)
{
    return Take(hQueue, dwTimeout, std::exchange(*ppvRecord, nullptr), ppvRecord);
}

[[gnu::cold]] void app::QueueGiveRecordBack(HAppQueue hQueue, void *pvRecord)
{
    if (!pvRecord)
        return;
    void *pvRelease;
    {
        LockGuard guard(hQueue);
        pvRelease = GiveNode(hQueue, NodeOf(pvRecord));
        Verify(hQueue);
    }
    Release(pvRelease);
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

[[gnu::cold]] uint32_t _AppQueueChangeMaxSize(HAppQueue hQueue, uint32_t dwMaxSize)
{
    if (!hQueue)
        return APP_INVALID_ARG;
    app::LockGuard guard(hQueue);
    if (hQueue->dwCurSize > dwMaxSize)
        return APP_INVALID_ARG;
    app::SetCounter(hQueue->dwMaxSize, dwMaxSize);
    app::SetCounter(hQueue->dwTopSize, 0);
    return APP_OK;
}

#ifdef APPCORE_CHECKS
bool app::QueueIsValid(const TAppQueue *ptQueue)
{
    if (!CountsAgree(ptQueue) || !LevelsAreValid(ptQueue) || !BlocksAreValid(ptQueue))
        return false;
    const TAppQueueNode *ptNode = ptQueue->ptHead;
    while (ptNode && IsListedRightly(ptQueue, ptNode))
        ptNode = ptNode->ptNext.Next();
    return !ptNode;
}
#endif
