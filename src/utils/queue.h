// SPDX-License-Identifier: MIT
//
// The queue's operations for the task manager, and its record for tests.
#ifndef APPCORE_UTILS_QUEUE_H
#define APPCORE_UTILS_QUEUE_H

#include "appcore/containers.h"
#include "base/field.h"
#include "base/thread_safety.h"

struct TAppQueueNode {
    TAppQueueNode *ptNext; // towards the tail
    void *pvData;
    int32_t nPriority;
};

#define APP_QUEUE_FINGER_NUM 8u

// From the head, priorities never increase; equal ones, a level, are in the order of insertion.
// An insertion between the ends starts at a finger: so it costs nothing while the levels in use are
// no more than the fingers, and a fraction of the elements' number beyond.
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

    // Last nodes of levels, never the tail, from head to tail; unused ones are null.
    TAppQueueNode *aptFinger[APP_QUEUE_FINGER_NUM] APP_GUARDED_BY(hLock);
    uint32_t dwVictim APP_GUARDED_BY(hLock); // which finger makes room next

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
// _AppQueueIn() in two steps, for callers that hold a lock which the consumer takes next: the
// element is placed, and QueueWake() wakes one consumer for it when `*pbWake` says so; otherwise
// the queue must not be touched any more.
uint32_t QueuePlace(HAppQueue hQueue, void *pvData, int32_t nPriority, int32_t bForce,
                    bool *pbWake);
void QueueWake(HAppQueue hQueue);

// Ends the wait of one consumer, whose AppQueueOut() returns APP_TIMEOUT.  While none waits the
// interrupt is kept, one at most, for the next that would have to.  An element that is there goes
// first; size, marks and elements stay as they are, and no memory is needed.  The interrupted
// consumer may destroy the queue as soon as it has returned.  Only for a queue with a lock.
void QueueInterrupt(HAppQueue hQueue);
// In two steps: true when QueueWake() has to follow, the last touch of the queue.
bool QueuePlaceInterrupt(HAppQueue hQueue);

// For the one consumer of a queue: what it sees there stays until it takes it.  No lock.
inline bool QueueHolds(HAppQueue hQueue) APP_NO_ANALYSIS
{
    return PeekCounter(hQueue->dwCurSize) != 0;
}

// Order, tail, fingers and counts agree.  Only in builds with checks.
bool QueueIsValid(const TAppQueue *ptQueue) APP_REQUIRES(ptQueue->hLock);
} // namespace app

#endif
