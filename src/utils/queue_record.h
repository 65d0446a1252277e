// SPDX-License-Identifier: MIT
//
// The queue's record and its nodes.
#ifndef APPCORE_UTILS_QUEUE_RECORD_H
#define APPCORE_UTILS_QUEUE_RECORD_H

#include <atomic>

#include "appcore/containers.h"
#include "base/thread_safety.h"
#include "utils/registry.h"

struct TAppQueueBlock;
struct TAppQueueNode;

namespace app
{

constexpr uint32_t kQueueRecordMax = 128; // bytes behind a node

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

    // Written under hLock, read without it too.  An element is watched from its insertion until it
    // is taken; the next to come is watched then.
    std::atomic<TAppQueueNode *> ptWatched;
    uint32_t dwWatchTick;
    uint32_t dwLongest; // ticks that a watched element has waited at most
    uint32_t dwRefused; // insertions
    TAppEntry tEntry;
};

#endif
