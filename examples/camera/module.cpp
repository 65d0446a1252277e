// SPDX-License-Identifier: MIT
//
// What every module is made of: a task that tells when it has stopped, and the mailbox before it.
#include "camera.h"

namespace camera
{

constexpr uint32_t kStackSize = 256 * 1024; // reserved; only what is touched takes memory
constexpr uint32_t kMaxEvents = 16;         // nudges, lines and set-ups; bulk goes by mailboxes
constexpr uint32_t kTaskPoolSize = 64 * 1024;
constexpr uint32_t kNever = 0; // the modules' tasks do not go idle by themselves

bool ModuleStart(TModule *ptModule)
{
    if (AppLockCreate(g_hPool, 1, 0, APP_LOCK_TYPE_SEM, &ptModule->hStopped) != APP_OK)
        return false;
    if (AppTaskMgrNewTask(g_hTaskMgr, ptModule->szName, kMaxEvents, kStackSize, kTaskPoolSize,
                          kNever, ptModule->pfnHandler, nullptr, &ptModule->hTask) == APP_OK)
        return true;
    AppLog(g_byLog, APP_LOG_ALWAYS, "%s: no task\n", ptModule->szName);
    AppLockDestroy(ptModule->hStopped);
    ptModule->hStopped = nullptr;
    return false;
}

void ModuleStopped(TModule *ptModule)
{
    AppLockGive(ptModule->hStopped);
}

void ModuleStop(TModule *ptModule)
{
    if (!ptModule->hTask)
        return;
    if (AppTaskTerminate(ptModule->hTask) == APP_OK)
        AppLockTakeByTime(ptModule->hStopped, 0);
    ptModule->hTask = nullptr; // the thread is the manager's again
    AppLockDestroy(ptModule->hStopped);
    ptModule->hStopped = nullptr;
}

bool MailboxOpen(TMailbox *ptMailbox, TModule *ptOwner, uint32_t dwRoom)
{
    ptMailbox->ptOwner = ptOwner;
    ptMailbox->dwRoom = dwRoom;
    return AppQueueCreate(g_hPool, dwRoom, 1, &ptMailbox->hQueue) == APP_OK;
}

static bool HasRoom(const TMailbox *ptMailbox, int32_t nPriority)
{
    const uint32_t dwReserve = nPriority < kAlarm ? ptMailbox->dwRoom / 4 : 0;
    return AppQueueGetSize(ptMailbox->hQueue) < ptMailbox->dwRoom - dwReserve;
}

bool MailboxPut(TMailbox *ptMailbox, void *pvBlock, int32_t nPriority)
{
    if (!pvBlock || !HasRoom(ptMailbox, nPriority) ||
        AppQueueIn(ptMailbox->hQueue, pvBlock, nPriority) != APP_OK) {
        AppMemPoolFree(pvBlock);
        ptMailbox->dwDropped++;
        return false;
    }
    // One event on its way is enough: the flag falls before the owner looks into the queue.
    if (!ptMailbox->bNudged.exchange(true) &&
        AppTaskSendEvent(ptMailbox->ptOwner->hTask, nullptr, nullptr, nullptr) != APP_OK)
        ptMailbox->bNudged = false;
    return true;
}

void *MailboxTake(TMailbox *ptMailbox)
{
    void *pvBlock = nullptr;
    ptMailbox->bNudged = false;
    // The queue would wait for an element; its one consumer knows that there is one.
    if (AppQueueGetSize(ptMailbox->hQueue) > 0)
        AppQueueOut(ptMailbox->hQueue, 1, &pvBlock);
    return pvBlock;
}

uint32_t MailboxWaiting(const TMailbox *ptMailbox)
{
    return ptMailbox->hQueue ? AppQueueGetSize(ptMailbox->hQueue) : 0;
}

void MailboxClose(TMailbox *ptMailbox)
{
    AppQueueDestroy(
        ptMailbox->hQueue, [](void *pvBlock, void *) { AppMemPoolFree(pvBlock); }, nullptr);
    ptMailbox->hQueue = nullptr;
}

} // namespace camera
