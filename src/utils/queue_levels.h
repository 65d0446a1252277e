// SPDX-License-Identifier: MIT
//
// A queue's order.  The elements of one priority, a level, lie behind each other in the order of
// their insertion.  Levels can be stepped over: the first node of a level of several says so, and
// the second one, whose priority is the first one's, says where the level ends.  The last level is
// not so marked, for ptTail tells its end: as long as all elements are of one priority nothing is
// kept but the list.
//
// An insertion between the ends walks level by level from a stop, the first node of a level.  The
// stops divide the levels in front of the last one into spans, whose lengths adwSpan counts: from
// the head to the first stop, from each stop to the next, and behind the last.  None is at the head.
// A span that becomes too long is halved by one more stop; when there is none to be had, the two
// shortest neighbours elsewhere are joined for it.  So an insertion passes at most one level in
// kQueueSpanPart of those which the queue has held at once since it was last empty, or a few, and
// half as many again when it halves the span; at the ends, and a removal, it costs the same always.
#ifndef APPCORE_UTILS_QUEUE_LEVELS_H
#define APPCORE_UTILS_QUEUE_LEVELS_H

#include "base/field.h"
#include "utils/queue_record.h"

namespace app
{

// When no span can be joined for the longest one, the others make at least as many pairs as this
// less one, each longer than it.
constexpr uint32_t kQueueSpanPart = (APP_QUEUE_STOP_NUM + 1) / 2;

// Where the queue is neither empty nor the last level the element's.
void PlaceInLevel(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock);
// The head is about to leave a level that is not the last.
void LeaveLevel(HAppQueue hQueue) APP_REQUIRES(hQueue->hLock);
// Only in builds with checks: order, levels, stops and spans.
bool LevelsAreValid(const TAppQueue *ptQueue) APP_REQUIRES(ptQueue->hLock);

// Behind all elements of equal or higher priority, before the first of lower priority.
inline void PlaceNode(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock)
{
    if (!hQueue->ptHead) {
        hQueue->ptHead = hQueue->ptLastLevel = ptNode;
    } else if (hQueue->ptTail->nPriority == ptNode->nPriority) {
        hQueue->ptTail->ptNext.SetNext(ptNode);
    } else {
        PlaceInLevel(hQueue, ptNode);
        return;
    }
    hQueue->ptTail = ptNode;
}

inline TAppQueueNode *UnlinkHead(HAppQueue hQueue) APP_REQUIRES(hQueue->hLock)
{
    TAppQueueNode *ptNode = hQueue->ptHead;
    if (hQueue->ptLastLevel == ptNode)
        hQueue->ptLastLevel = ptNode->ptNext.Next();
    else
        LeaveLevel(hQueue);
    hQueue->ptHead = ptNode->ptNext.Next();
    SetCounter(hQueue->dwCurSize, hQueue->dwCurSize - 1);
    return ptNode;
}

} // namespace app

#endif
