// SPDX-License-Identifier: MIT
//
// The queue's operations for the task manager, and its record for tests.
#ifndef APPCORE_UTILS_QUEUE_H
#define APPCORE_UTILS_QUEUE_H

#include "appcore/containers.h"
#include "base/field.h"
#include "base/thread_safety.h"

struct TAppQueueBlock;
struct TAppQueueNode;

namespace app
{

// The way to the next node and two marks of the node that has it, in the bits which addresses leave
// free: so a node that stands alone fills one block of a pool's smallest class on 32-bit machines.
class QueueLink
{
public:
    static constexpr uintptr_t kOfBlock = 1; // the node came from a block of nodes
    static constexpr uintptr_t kSeveral = 2; // it begins a level of several, not the last level

    TAppQueueNode *Next() const { return reinterpret_cast<TAppQueueNode *>(m_uValue & ~kMarks); }
    void SetNext(TAppQueueNode *ptNext)
    {
        m_uValue = reinterpret_cast<uintptr_t>(ptNext) | (m_uValue & kMarks);
    }
    bool Has(uintptr_t uMark) const { return (m_uValue & uMark) != 0; }
    void Mark(uintptr_t uMark) { m_uValue |= uMark; }
    void Clear(uintptr_t uMark) { m_uValue &= ~uMark; }
    // No next node, and this mark alone or none.
    void Reset(uintptr_t uMark) { m_uValue = uMark; }

private:
    static constexpr uintptr_t kMarks = kOfBlock | kSeveral;

    uintptr_t m_uValue;
};

} // namespace app

struct TAppQueueNode {
    app::QueueLink ptNext; // towards the tail
    void *pvData;
    union {
        int32_t nPriority;
        // In the second node of a level, whose priority the first one tells; not in the last level.
        TAppQueueNode *ptLevelTail;
    };
    // From the node's block.  A node alone ends before this when no record follows.
    uint32_t dwOffset;
};

// As many as the pools' size class leaves room for in the record.
#define APP_QUEUE_STOP_NUM (sizeof(void *) == 4 ? 5u : 9u)

// From the head, priorities never increase; equal ones, a level, are in the order of insertion.
// See queue_levels.h for the levels and stops, queue_node.h for the blocks.
struct TAppQueue {
    TAppQueueNode *ptTail APP_GUARDED_BY(hLock); // meaningful only while ptHead is not null
    TAppQueueNode *ptHead APP_GUARDED_BY(hLock);
    HAppLock hLock;      // null for a queue without
    HAppLock hCountLock; // consumers sleep on it; one unit for each that is woken
    HAppMemPool hMemPool;
    uint32_t dwCurSize APP_GUARDED_BY(hLock);
    uint32_t dwMaxSize APP_GUARDED_BY(hLock); // for ordinary insertions; 0 is no limit
    // Highest dwCurSize since creation or the last change of the maximum.
    uint32_t dwTopSize APP_GUARDED_BY(hLock);

    TAppQueueNode *ptLastLevel APP_GUARDED_BY(hLock); // its first node; null when empty
    TAppQueueNode *aptStop[APP_QUEUE_STOP_NUM] APP_GUARDED_BY(hLock);
    uint32_t adwSpan[APP_QUEUE_STOP_NUM + 1] APP_GUARDED_BY(hLock);

    TAppQueueBlock *ptBlocks APP_GUARDED_BY(hLock); // those with a free node
    uint16_t wRecordSize;                           // of what lies behind each node; 0 is nothing
    uint16_t wLoneSize;                             // of a node alone, with its record
    uint8_t byBlockNodes;                           // nodes in a block
    uint8_t byStops APP_GUARDED_BY(hLock);

    // Of a queue with hLock: see queue.cpp.
    uint32_t dwSleepers APP_GUARDED_BY(hLock);    // consumers for which no unit is on its way
    uint32_t dwPromised APP_GUARDED_BY(hLock);    // elements for which a consumer has been woken
    uint32_t dwInterrupted APP_GUARDED_BY(hLock); // consumers that have been woken for nothing
    bool bInterrupt APP_GUARDED_BY(hLock); // an interrupt that found no sleeper: for the next one
};

extern "C" {
// AppQueueIn() that may pass the maximum.
uint32_t _AppQueueIn(HAppQueue hQueue, void *pvData, int32_t nPriority, int32_t bForce);
// 0 for a null handle.
uint32_t _AppQueueGetMaxSize(HAppQueue hQueue);
uint32_t _AppQueueGetTopSize(HAppQueue hQueue);
// Refused below the current size; 0 (of an empty queue) removes the limit.  Resets the top mark.
uint32_t _AppQueueChangeMaxSize(HAppQueue hQueue, uint32_t dwMaxSize);
}

namespace app
{
// A queue with a lock whose elements are records of so many bytes, a multiple of a pointer's and at
// most kQueueRecordMax, which it keeps behind its nodes: a record needs no memory of its own.  Such
// a queue is used through the four operations below; its records are aligned as pointers are.
// Messages and results are those of AppQueueCreate(), which creates it with 0.
constexpr uint32_t kQueueRecordMax = 128;
uint32_t QueueCreateForRecords(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t dwRecordSize,
                               HAppQueue *phQueue);

// AppQueueIn() of a copy of the record, under the queue's lock, so that what the caller asks before
// is one step with it; when `*pbWake` says so QueueWake() wakes a consumer, after the lock, and
// otherwise the queue must not be touched any more.  Without memory the pool has logged its line,
// the queue none: the result is kQueueNoMemory, and the caller's own line names who wanted it.
constexpr uint32_t kQueueNoMemory = UINT32_MAX;
uint32_t QueuePlaceRecord(HAppQueue hQueue, const void *pvRecord, int32_t nPriority, int32_t bForce,
                          bool *pbWake) APP_REQUIRES(hQueue->hLock);
void QueueWake(HAppQueue hQueue);

// AppQueueOut() of a record, which stays valid until it is given back.  `*ppvRecord` hands back the
// one taken before, or null, in the same critical section and before any sleep, and receives the
// next, or null when the result is not APP_OK.
uint32_t QueueTakeRecord(HAppQueue hQueue, uint32_t dwTimeout, void **ppvRecord);
// For who leaves without another take; null does nothing.
void QueueGiveRecordBack(HAppQueue hQueue, void *pvRecord);

// Ends the wait of one consumer, whose AppQueueOut() returns APP_TIMEOUT.  While none waits the
// interrupt is kept, one at most, for the next that would have to.  An element that is there goes
// first; size, marks and elements stay as they are, and no memory is needed.  The interrupted
// consumer may destroy the queue as soon as it has returned.  Only for a queue with a lock.
void QueueInterrupt(HAppQueue hQueue);
// The same in two steps: true when QueueWake() has to follow, after the caller's lock; otherwise
// the queue must not be touched any more.
bool QueuePlaceInterrupt(HAppQueue hQueue);

// For the one consumer of a queue: what it sees there stays until it takes it.  No lock.
inline bool QueueHolds(HAppQueue hQueue) APP_NO_ANALYSIS
{
    return PeekCounter(hQueue->dwCurSize) != 0;
}

// Order, tail, levels, stops, blocks and counts agree.  Only in builds with checks.
bool QueueIsValid(const TAppQueue *ptQueue) APP_REQUIRES(ptQueue->hLock);
} // namespace app

#endif
