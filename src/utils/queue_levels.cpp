// SPDX-License-Identifier: MIT
#include "utils/queue_levels.h"

using app::QueueLink;

namespace
{

// Shorter ones are walked faster than they are halved.
constexpr uint32_t kShortSpan = 8;

// Of a level that is not the last.
TAppQueueNode *LevelTail(TAppQueueNode *ptLevel)
{
    return ptLevel->ptNext.Has(QueueLink::kSeveral) ? ptLevel->ptNext.Next()->ptLevelTail : ptLevel;
}

TAppQueueNode *NextLevel(TAppQueueNode *ptLevel)
{
    return LevelTail(ptLevel)->ptNext.Next();
}

// The level that a span begins with.
TAppQueueNode *SpanHead(const TAppQueue *ptQueue, uint32_t dwSpan) APP_REQUIRES(ptQueue->hLock)
{
    return dwSpan == 0 ? ptQueue->ptHead : ptQueue->aptStop[dwSpan - 1];
}

uint32_t CountLevels(const TAppQueue *ptQueue) APP_REQUIRES(ptQueue->hLock)
{
    uint32_t dwLevels = 0;
    for (const uint32_t dwSpan : ptQueue->adwSpan)
        dwLevels += dwSpan;
    return dwLevels;
}

// The span before the stop becomes one with the span behind it.
void DropStop(HAppQueue hQueue, uint32_t dwStop) APP_REQUIRES(hQueue->hLock)
{
    hQueue->adwSpan[dwStop] += hQueue->adwSpan[dwStop + 1];
    --hQueue->byStops;
    for (; dwStop < hQueue->byStops; ++dwStop) {
        hQueue->aptStop[dwStop] = hQueue->aptStop[dwStop + 1];
        hQueue->adwSpan[dwStop + 1] = hQueue->adwSpan[dwStop + 2];
    }
    hQueue->aptStop[dwStop] = nullptr;
    hQueue->adwSpan[dwStop + 1] = 0;
}

// Into a span, so many levels behind its beginning.
void AddStop(HAppQueue hQueue, uint32_t dwSpan, TAppQueueNode *ptLevel, uint32_t dwBefore)
    APP_REQUIRES(hQueue->hLock)
{
    for (uint32_t i = hQueue->byStops++; i > dwSpan; --i) {
        hQueue->aptStop[i] = hQueue->aptStop[i - 1];
        hQueue->adwSpan[i + 1] = hQueue->adwSpan[i];
    }
    hQueue->aptStop[dwSpan] = ptLevel;
    hQueue->adwSpan[dwSpan + 1] = hQueue->adwSpan[dwSpan] - dwBefore;
    hQueue->adwSpan[dwSpan] = dwBefore;
}

// Whether a span, which has just grown, is to be divided and a stop there for it.  Its number may
// change.  It is too long with half more than its share.
bool MakeStop(HAppQueue hQueue, uint32_t *pdwSpan) APP_REQUIRES(hQueue->hLock)
{
    const uint32_t dwLength = hQueue->adwSpan[*pdwSpan];
    if (dwLength <= kShortSpan ||
        dwLength - dwLength / 3 <= CountLevels(hQueue) / APP_QUEUE_STOP_NUM)
        return false;
    if (hQueue->byStops < APP_QUEUE_STOP_NUM)
        return true;
    uint32_t dwLeast = dwLength;
    uint32_t dwDrop = APP_QUEUE_STOP_NUM;
    for (uint32_t i = 0; i < APP_QUEUE_STOP_NUM; ++i) {
        const uint32_t dwJoint = hQueue->adwSpan[i] + hQueue->adwSpan[i + 1];
        if (i != *pdwSpan && i + 1 != *pdwSpan && dwJoint <= dwLeast) {
            dwLeast = dwJoint;
            dwDrop = i;
        }
    }
    if (dwDrop == APP_QUEUE_STOP_NUM)
        return false;
    DropStop(hQueue, dwDrop);
    *pdwSpan -= dwDrop < *pdwSpan ? 1 : 0;
    return true;
}

// At the ends the stop is at hand, so that these insertions walk nowhere.
void PlaceAtHead(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock)
{
    TAppQueueNode *ptSecond = hQueue->ptHead;
    ptNode->ptNext.SetNext(ptSecond);
    hQueue->ptHead = ptNode;
    ++hQueue->adwSpan[0];
    uint32_t dwSpan = 0;
    if (MakeStop(hQueue, &dwSpan))
        AddStop(hQueue, dwSpan, ptSecond, 1);
}

void PlaceAtTail(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock)
{
    TAppQueueNode *ptLevel = hQueue->ptLastLevel;
    if (ptLevel != hQueue->ptTail) {
        ptLevel->ptNext.Mark(QueueLink::kSeveral);
        ptLevel->ptNext.Next()->ptLevelTail = hQueue->ptTail;
    }
    hQueue->ptTail->ptNext.SetNext(ptNode);
    hQueue->ptTail = hQueue->ptLastLevel = ptNode;
    uint32_t dwSpan = hQueue->byStops;
    ++hQueue->adwSpan[dwSpan];
    if (MakeStop(hQueue, &dwSpan))
        AddStop(hQueue, dwSpan, ptLevel, hQueue->adwSpan[dwSpan] - 1);
}

void HalveSpan(HAppQueue hQueue, uint32_t dwSpan) APP_REQUIRES(hQueue->hLock)
{
    const uint32_t dwHalf = hQueue->adwSpan[dwSpan] / 2;
    TAppQueueNode *ptLevel = SpanHead(hQueue, dwSpan);
    for (uint32_t i = 0; i < dwHalf; ++i)
        ptLevel = NextLevel(ptLevel);
    AddStop(hQueue, dwSpan, ptLevel, dwHalf);
}

// In the order of the list, but known as the level's last.
void JoinLevel(TAppQueueNode *ptLevel, TAppQueueNode *ptNode)
{
    TAppQueueNode *ptSecond =
        ptLevel->ptNext.Has(QueueLink::kSeveral) ? ptLevel->ptNext.Next() : ptNode;
    ptSecond->ptLevelTail = ptNode;
    ptLevel->ptNext.Mark(QueueLink::kSeveral);
}

void PlaceBetween(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock)
{
    const int32_t nPriority = ptNode->nPriority;
    uint32_t dwSpan = 0;
    while (dwSpan < hQueue->byStops && hQueue->aptStop[dwSpan]->nPriority >= nPriority)
        ++dwSpan;
    TAppQueueNode *ptLevel = SpanHead(hQueue, dwSpan);
    TAppQueueNode *ptBefore = LevelTail(ptLevel);
    TAppQueueNode *ptBehind = ptBefore->ptNext.Next();
    while (ptBehind->nPriority >= nPriority) {
        ptLevel = ptBehind;
        ptBefore = LevelTail(ptLevel);
        ptBehind = ptBefore->ptNext.Next();
    }
    const bool bJoins = ptLevel->nPriority == nPriority;
    if (bJoins)
        JoinLevel(ptLevel, ptNode);
    ptNode->ptNext.SetNext(ptBehind);
    ptBefore->ptNext.SetNext(ptNode);
    if (bJoins)
        return;
    ++hQueue->adwSpan[dwSpan];
    if (MakeStop(hQueue, &dwSpan))
        HalveSpan(hQueue, dwSpan);
}

} // namespace

void app::PlaceInLevel(HAppQueue hQueue, TAppQueueNode *ptNode)
{
    if (hQueue->ptTail->nPriority > ptNode->nPriority)
        PlaceAtTail(hQueue, ptNode);
    else if (hQueue->ptHead->nPriority < ptNode->nPriority)
        PlaceAtHead(hQueue, ptNode);
    else
        PlaceBetween(hQueue, ptNode);
}

void app::LeaveLevel(HAppQueue hQueue)
{
    TAppQueueNode *ptHead = hQueue->ptHead;
    TAppQueueNode *ptNext = ptHead->ptNext.Next();
    if (ptHead->ptNext.Has(QueueLink::kSeveral)) { // the second becomes the first
        TAppQueueNode *ptTail = ptNext->ptLevelTail;
        ptNext->nPriority = ptHead->nPriority;
        if (ptNext != ptTail) {
            ptNext->ptNext.Mark(QueueLink::kSeveral);
            ptNext->ptNext.Next()->ptLevelTail = ptTail;
        }
        return;
    }
    --hQueue->adwSpan[0];
    if (hQueue->byStops > 0 && hQueue->aptStop[0] == ptNext)
        DropStop(hQueue, 0);
}

#ifdef APPCORE_CHECKS
// The nodes of a level, of which the first one's priority counts; null when they are not valid.
static const TAppQueueNode *WalkLevel(const TAppQueue *ptQueue, const TAppQueueNode *ptLevel,
                                      uint32_t *pdwCount) APP_REQUIRES(ptQueue->hLock)
{
    const bool bLast = ptLevel == ptQueue->ptLastLevel;
    const bool bSeveral = ptLevel->ptNext.Has(QueueLink::kSeveral);
    const TAppQueueNode *ptSecond = ptLevel->ptNext.Next();
    const TAppQueueNode *ptTail = bLast      ? ptQueue->ptTail
                                  : bSeveral ? ptSecond->ptLevelTail
                                             : ptLevel;
    if (bLast && bSeveral)
        return nullptr;
    const TAppQueueNode *ptNode = ptLevel;
    for (++*pdwCount; ptNode != ptTail; ++*pdwCount) {
        ptNode = ptNode->ptNext.Next();
        if (!ptNode || *pdwCount >= ptQueue->dwCurSize || ptNode->ptNext.Has(QueueLink::kSeveral))
            return nullptr;
        if ((bLast || ptNode != ptSecond) && ptNode->nPriority != ptLevel->nPriority)
            return nullptr;
    }
    return ptTail;
}

bool app::LevelsAreValid(const TAppQueue *ptQueue)
{
    uint32_t dwCount = 0;
    uint32_t dwSpan = 0;
    uint32_t dwLength = 0; // of the span so far
    const TAppQueueNode *ptLevel = ptQueue->ptHead;
    while (ptLevel) {
        const TAppQueueNode *ptTail = WalkLevel(ptQueue, ptLevel, &dwCount);
        const TAppQueueNode *ptNext = ptTail ? ptTail->ptNext.Next() : nullptr;
        if (!ptTail || (ptLevel == ptQueue->ptLastLevel) != !ptNext ||
            (ptNext && ptNext->nPriority >= ptLevel->nPriority))
            return false;
        dwLength += ptNext ? 1 : 0;
        if (ptNext && dwSpan < ptQueue->byStops && ptNext == ptQueue->aptStop[dwSpan]) {
            if (ptQueue->adwSpan[dwSpan++] != dwLength)
                return false;
            dwLength = 0;
        }
        ptLevel = ptNext;
    }
    return dwCount == ptQueue->dwCurSize && dwSpan == ptQueue->byStops &&
           dwLength == ptQueue->adwSpan[dwSpan];
}
#endif
