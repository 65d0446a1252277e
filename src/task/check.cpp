// SPDX-License-Identifier: MIT
//
// What must hold of the manager's lists and of a task's timers after each change, verified by builds
// with APPCORE_CHECKS alone.  A record knows its node, and each node is walked over in one list
// only: so a record that is on two lists, or twice on one, is found.
#ifdef APPCORE_CHECKS
#include "task/task.h"
#include "task/timer.h"
#include "utils/double_list.h"
#include "utils/lock_guard.h"

namespace
{

// The list's own links, and what the test says of each node.
template <typename Test>
bool AllAreValid(const TAppDoubleList *ptList, Test isValid)
{
    if (!app::ListIsValid(ptList))
        return false;
    for (const TAppDoubleListNode *ptNode = ptList->ptHead; ptNode; ptNode = ptNode->ptNext)
        if (!isValid(ptList, ptNode))
            return false;
    return true;
}

bool KeepsItsLimit(const TAppDoubleList *ptList)
{
    return ptList->dwMaxSize == 0 || ptList->dwCurSize <= ptList->dwMaxSize;
}

// A place kept in the list of running timers: a node of that list, or none.
bool IsPlace(const TAppTimerMgr *ptTimerMgr, const TAppDoubleListNode *ptPlace)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    const TAppDoubleListNode *ptNode = ptTimerMgr->hTimerList->ptHead;
    while (ptNode && ptNode != ptPlace)
        ptNode = ptNode->ptNext;
    return ptNode == ptPlace;
}

const TAppTimer *TimerOf(const TAppDoubleListNode *ptNode)
{
    return static_cast<const TAppTimer *>(ptNode->pvData);
}

// In the order in which they were set.
bool IsInOrder(const TAppTimerMgr *ptTimerMgr, const TAppDoubleListNode *ptNode)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    const TAppTimer *ptTimer = TimerOf(ptNode);
    return ptNode->ptNext ? ptTimer->qwOrder < TimerOf(ptNode->ptNext)->qwOrder
                          : ptTimer->qwOrder <= ptTimerMgr->qwOrder;
}

// In one of the heaps, and not due before the thread looks.
bool IsInHeap(const TAppTimerMgr *ptTimerMgr, const TAppTimer *ptTimer)
    APP_REQUIRES(ptTimerMgr->ptTask->hLock)
{
    return ptTimer->tPlace.ptHeap == &ptTimerMgr->tDue ||
           (ptTimer->tPlace.ptHeap == &ptTimerMgr->tWaiting &&
            app::HasCome(ptTimerMgr->dwLookTick, ptTimer->dwDueTick));
}

} // namespace

// The states change under the task's lock alone, but never to one that the list does not allow.
// Nor does the handler change while the task is among the idle ones.
bool app::TaskIsValid(const TAppDoubleList *ptList,
                      const TAppDoubleListNode *ptNode) APP_NO_ANALYSIS
{
    auto ptTask = static_cast<const TAppTask *>(ptNode->pvData);
    AssertHeld(ptTask->ptTaskMgr);
    const uint32_t dwState = Peek(ptTask->dwState);
    if (ptTask->hListNode != ptNode || dwState == APP_TASK_STATE_UNINIT)
        return false;
    if (ptList == ptTask->ptTaskMgr->hIdleTaskList) // the owner has heard the last
        return !AdmitsWork(dwState) && !ptTask->pfnHandler;
    return ptList == ptTask->ptTaskMgr->hTaskList &&
           (dwState != APP_TASK_STATE_TERMINATE || MustEnd(ptTask));
}

bool app::TaskMgrIsValid(const TAppTaskMgr *ptTaskMgr)
{
    return KeepsItsLimit(ptTaskMgr->hTaskList) && KeepsItsLimit(ptTaskMgr->hIdleTaskList) &&
           AllAreValid(ptTaskMgr->hTaskList, TaskIsValid) &&
           AllAreValid(ptTaskMgr->hIdleTaskList, TaskIsValid);
}

bool app::TimerIsValid(const TAppDoubleList *ptList, const TAppDoubleListNode *ptNode)
{
    const TAppTimer *ptTimer = TimerOf(ptNode);
    const TAppTimerMgr *ptTimerMgr = ptTimer->ptTimerMgr;
    return ptTimer->hListNode == ptNode &&
           ptList == (ptTimer->dwState == 1 ? ptTimerMgr->hTimerList : ptTimerMgr->hIdleTimerList);
}

bool app::TimerMgrIsValid(const TAppTimerMgr *ptTimerMgr)
{
    AssertHeld(ptTimerMgr->ptTask);
    // Every timer is a root or somebody's child.
    uint32_t dwTimers = (ptTimerMgr->tWaiting.ptRoot ? 1 : 0) + (ptTimerMgr->tDue.ptRoot ? 1 : 0);
    const auto isValid = [&](const TAppDoubleList *ptList, const TAppDoubleListNode *ptNode) {
        AssertHeld(ptTimerMgr->ptTask);
        return TimerIsValid(ptList, ptNode) && IsInOrder(ptTimerMgr, ptNode) &&
               IsInHeap(ptTimerMgr, TimerOf(ptNode)) && PlaceIsValid(TimerOf(ptNode), &dwTimers);
    };
    return AllAreValid(ptTimerMgr->hTimerList, isValid) &&
           ptTimerMgr->hTimerList->dwCurSize == dwTimers &&
           AllAreValid(ptTimerMgr->hIdleTimerList, TimerIsValid) &&
           IsPlace(ptTimerMgr, ptTimerMgr->hShown);
}
#endif
