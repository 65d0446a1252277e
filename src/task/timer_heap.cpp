// SPDX-License-Identifier: MIT
//
// A pairing heap: a tree in which no timer comes before its parent.  Two trees are melded by making
// the later root the earlier one's first child.  When a timer leaves, its children are melded into
// one tree, first in pairs and then from the last pair to the first, which keeps the number of
// children small; that tree takes the timer's place.
//
// Timers mostly come in the order in which they will leave: by the order of setting always, by due
// time where one time-out is used again and again.  So a timer becomes a child of the one inserted
// last, if it may, and not the root's: what comes in order forms a chain and leaves without a
// comparison.
#include "task/timer_heap.h"

#include "task/timer.h"
#include "utils/check.h"

namespace
{

bool IsBefore(const TAppTimer *ptTimer, const TAppTimer *ptOther)
{
    if (ptTimer->tPlace.ptHeap->bBySetting)
        return ptTimer->qwOrder < ptOther->qwOrder;
    return !app::HasCome(ptOther->dwDueTick, ptTimer->dwDueTick);
}

void Adopt(TAppTimer *ptParent, TAppTimer *ptTimer)
{
    TAppTimer *ptSibling = ptParent->tPlace.ptChild;
    ptTimer->tPlace.ptPrev = ptParent;
    ptTimer->tPlace.ptNext = ptSibling;
    if (ptSibling)
        ptSibling->tPlace.ptPrev = ptTimer;
    ptParent->tPlace.ptChild = ptTimer;
}

// Two roots; what links them to siblings is for the caller to set.
TAppTimer *Meld(TAppTimer *ptTimer, TAppTimer *ptOther)
{
    if (IsBefore(ptOther, ptTimer)) {
        Adopt(ptOther, ptTimer);
        return ptOther;
    }
    Adopt(ptTimer, ptOther);
    return ptTimer;
}

// The trees in pairs, the last one first.
TAppTimer *MeldPairs(TAppTimer *ptTimer)
{
    TAppTimer *ptPairs = nullptr;
    while (ptTimer) {
        TAppTimer *ptPair = ptTimer;
        TAppTimer *ptOther = ptTimer->tPlace.ptNext;
        ptTimer = ptOther ? ptOther->tPlace.ptNext : nullptr;
        if (ptOther)
            ptPair = Meld(ptPair, ptOther);
        ptPair->tPlace.ptNext = ptPairs;
        ptPairs = ptPair;
    }
    return ptPairs;
}

// One tree of siblings.
TAppTimer *MeldAll(TAppTimer *ptTimer)
{
    if (!ptTimer || !ptTimer->tPlace.ptNext)
        return ptTimer;
    TAppTimer *ptRoot = MeldPairs(ptTimer);
    ptTimer = ptRoot->tPlace.ptNext;
    while (ptTimer) {
        TAppTimer *ptNext = ptTimer->tPlace.ptNext;
        ptRoot = Meld(ptRoot, ptTimer);
        ptTimer = ptNext;
    }
    return ptRoot;
}

// What points to the timer: its heap, its parent or the sibling before it.
TAppTimer *&LinkTo(const TAppTimer *ptTimer)
{
    const TAppTimerPlace &tPlace = ptTimer->tPlace;
    if (!tPlace.ptPrev)
        return tPlace.ptHeap->ptRoot;
    TAppTimerPlace &tPrev = tPlace.ptPrev->tPlace;
    return tPrev.ptChild == ptTimer ? tPrev.ptChild : tPrev.ptNext;
}

} // namespace

void app::InsertTimer(TAppTimerHeap *ptHeap, TAppTimer *ptTimer)
{
    APP_CHECK(!ptTimer->tPlace.ptHeap, "the timer is in a heap already");
    TAppTimer *ptLatest = ptHeap->ptLatest;
    ptHeap->ptLatest = ptTimer;
    ptTimer->tPlace = {ptHeap, nullptr, nullptr, nullptr};
    if (ptLatest && !IsBefore(ptTimer, ptLatest))
        Adopt(ptLatest, ptTimer);
    else
        ptHeap->ptRoot = ptHeap->ptRoot ? Meld(ptHeap->ptRoot, ptTimer) : ptTimer;
}

void app::RemoveTimer(TAppTimer *ptTimer)
{
    TAppTimerPlace &tPlace = ptTimer->tPlace;
    TAppTimer *&ptLink = LinkTo(ptTimer);
    APP_CHECK(ptLink == ptTimer, "the timer is not in its heap");
    TAppTimer *ptHeir = MeldAll(tPlace.ptChild);
    if (ptHeir) {
        ptHeir->tPlace.ptPrev = tPlace.ptPrev;
        ptHeir->tPlace.ptNext = tPlace.ptNext;
        if (tPlace.ptNext)
            tPlace.ptNext->tPlace.ptPrev = ptHeir;
    } else {
        ptHeir = tPlace.ptNext;
        if (ptHeir)
            ptHeir->tPlace.ptPrev = tPlace.ptPrev;
    }
    ptLink = ptHeir;
    if (tPlace.ptHeap->ptLatest == ptTimer)
        tPlace.ptHeap->ptLatest = nullptr;
    tPlace.ptHeap = nullptr;
}

#ifdef APPCORE_CHECKS
bool app::PlaceIsValid(const TAppTimer *ptTimer, uint32_t *pdwChildren)
{
    const TAppTimerPlace &tPlace = ptTimer->tPlace;
    for (const TAppTimer *pt = tPlace.ptChild; pt; pt = pt->tPlace.ptNext, ++*pdwChildren)
        if (pt->tPlace.ptHeap != tPlace.ptHeap || LinkTo(pt) != pt || IsBefore(pt, ptTimer))
            return false;
    return LinkTo(ptTimer) == ptTimer;
}
#endif
