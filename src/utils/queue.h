// SPDX-License-Identifier: MIT
//
// The queue's operations for the task manager, and its record for tests.
#ifndef APPCORE_UTILS_QUEUE_H
#define APPCORE_UTILS_QUEUE_H

#include "appcore/containers.h"

struct TAppQueueNode {
    TAppQueueNode *ptNext; // towards the tail
    void *pvData;
    int32_t nPriority;
    TAppQueueNode *ptLevelTail; // in the first node of a level: the level's last
};

// From the head, priorities never increase; equal ones, a level, are in the order of insertion.
// An insertion between the ends passes level by level, so its cost is that of the levels in use,
// not of the elements.
struct TAppQueue {
    TAppQueueNode *ptTail; // meaningful only while ptHead is not null
    TAppQueueNode *ptHead;
    HAppLock hLock;      // guards the record; null for a queue without
    HAppLock hCountLock; // consumers sleep on it; one unit for each element that is promised
    HAppMemPool hMemPool;
    uint32_t dwCurSize;
    uint32_t dwMaxSize; // for ordinary insertions; 0 is no limit
    uint32_t dwTopSize; // highest dwCurSize since creation or the last change of the maximum
    TAppQueueNode *ptLastLevel; // first node of the level that ptTail ends

    // Of a queue with hLock: see queue.cpp.
    uint32_t dwSleepers; // consumers that found nothing and have been promised nothing
    uint32_t dwPromised; // elements that wait for a consumer which has been woken for them
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
// the queue must not be touched any more.  `szOp` stands in the messages.
uint32_t QueuePlace(HAppQueue hQueue, void *pvData, int32_t nPriority, int32_t bForce,
                    const char *szOp, bool *pbWake);
void QueueWake(HAppQueue hQueue);

// Order, count and tail agree.  For tests; takes the queue's lock.
bool QueueIsValid(HAppQueue hQueue);
} // namespace app

#endif
