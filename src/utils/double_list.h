// SPDX-License-Identifier: MIT
//
// The double list's low-level moves, for owners that keep nodes across lists.
#ifndef APPCORE_UTILS_DOUBLE_LIST_H
#define APPCORE_UTILS_DOUBLE_LIST_H

#include "appcore/containers.h"
#include "base/field.h"
#include "utils/check.h"

enum EAppAttachSide {
    APP_ATTACH_AFTER = 0,
    APP_ATTACH_BEFORE = 1,
};

extern "C" {
// Links a node in beside the anchor, or at the tail without one.  The maximum is not checked.
void _AppDoubleListAttachNode(HAppDoubleList hList, HAppDoubleListNode hAnchor,
                              HAppDoubleListNode hNode, uint32_t dwFlag);
// Unlinks a node; it is not released and its own fields stay.
void _AppDoubleListDetachNode(HAppDoubleList hList, HAppDoubleListNode hNode);
}

namespace app
{
// Links, tail and count agree.  Only in builds with checks; the caller holds the list's lock.
bool ListIsValid(const TAppDoubleList *ptList);

// The two moves in line, for the pools' engine.
inline void LinkNode(HAppDoubleList hList, HAppDoubleListNode hPrev, HAppDoubleListNode hNode,
                     HAppDoubleListNode hNext)
{
    APP_CHECK((hPrev ? hPrev->ptNext : hList->ptHead) == hNext &&
                  (hNext ? hNext->ptPrev : hList->ptTail) == hPrev,
              "the anchor is not in this list");
    hNode->ptPrev = hPrev;
    hNode->ptNext = hNext;
    (hPrev ? hPrev->ptNext : hList->ptHead) = hNode;
    (hNext ? hNext->ptPrev : hList->ptTail) = hNode;
    SetCounter(hList->dwCurSize, hList->dwCurSize + 1);
    APP_CHECK_WHOLE(hList->dwCurSize, ListIsValid(hList), "the list is broken");
}
inline void UnlinkNode(HAppDoubleList hList, HAppDoubleListNode hNode)
{
    HAppDoubleListNode &hBefore = hNode->ptPrev ? hNode->ptPrev->ptNext : hList->ptHead;
    HAppDoubleListNode &hBehind = hNode->ptNext ? hNode->ptNext->ptPrev : hList->ptTail;
    APP_CHECK(hBefore == hNode && hBehind == hNode, "the node is not in this list");
    hBefore = hNode->ptNext;
    hBehind = hNode->ptPrev;
    SetCounter(hList->dwCurSize, hList->dwCurSize - 1);
    APP_CHECK_WHOLE(hList->dwCurSize, ListIsValid(hList), "the list is broken");
}
// To the tail of another list.
inline void MoveNode(HAppDoubleList hFrom, HAppDoubleList hTo, HAppDoubleListNode hNode)
{
    UnlinkNode(hFrom, hNode);
    LinkNode(hTo, hTo->ptTail, hNode, nullptr);
}
} // namespace app

#endif
