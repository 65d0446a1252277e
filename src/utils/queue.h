// SPDX-License-Identifier: MIT
//
// The queue's operations for the task manager.
#ifndef APPCORE_UTILS_QUEUE_H
#define APPCORE_UTILS_QUEUE_H

#include "base/field.h"
#include "utils/queue_record.h"

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

// Under the registry's mutex.
void ReadQueueStats(const void *pvQueue, void *pvStats);

// Order, tail, levels, stops, blocks and counts agree.  Only in builds with checks.
bool QueueIsValid(const TAppQueue *ptQueue) APP_REQUIRES(ptQueue->hLock);
} // namespace app

#endif
