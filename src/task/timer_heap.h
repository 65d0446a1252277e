// SPDX-License-Identifier: MIT
//
// Timers of which the first is wanted: by due time, or by the order of setting.
#ifndef APPCORE_TASK_TIMER_HEAP_H
#define APPCORE_TASK_TIMER_HEAP_H

#include <stdint.h>

struct TAppTimer;

// Under the lock of the timers' task.
struct TAppTimerHeap {
    TAppTimer *ptRoot;   // the first of all; null: empty
    TAppTimer *ptLatest; // inserted last, unless it has left since
    uint32_t bBySetting;
};

// A timer's place in a heap; null where there is none.
struct TAppTimerPlace {
    TAppTimerHeap *ptHeap;
    TAppTimer *ptChild; // first of those that come behind this one
    TAppTimer *ptNext;  // sibling
    TAppTimer *ptPrev;  // sibling, or else the parent
};

namespace app
{

// Neither needs memory.  Inserting takes a constant time, and so does removing what has no children;
// removing what has many takes a step for each, which its and their insertions have saved.
void InsertTimer(TAppTimerHeap *ptHeap, TAppTimer *ptTimer);
void RemoveTimer(TAppTimer *ptTimer);

#ifdef APPCORE_CHECKS
// What points to the timer and to its children agrees, and none of them comes before it.  Adds how
// many they are.
bool PlaceIsValid(const TAppTimer *ptTimer, uint32_t *pdwChildren);
#endif

} // namespace app

#endif
