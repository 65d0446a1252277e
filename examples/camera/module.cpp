// SPDX-License-Identifier: MIT
//
// What every module is made of: a task that is called for its regular work and for what it is sent,
// and the mailbox before it.
//
// A timer and an event each take memory, which may be refused.  So the time of a module's next beat
// stands in its record, and what is owed to it as well: ModulesTick() makes good for what could not
// be had when it was wanted.
#include "camera.h"
#include "guard.h"

namespace camera
{

namespace
{

constexpr uint32_t kStackSize = 256 * 1024; // reserved; only what is touched takes memory
constexpr uint32_t kMaxEvents = 16;         // nudges, lines and settings; bulk goes by mailboxes
constexpr uint32_t kTaskPoolSize = 64 * 1024;
constexpr uint32_t kNever = 0; // the modules' tasks do not go idle by themselves
constexpr uint32_t kMaxModules = 16;
constexpr uint32_t kLateMs = 2000;       // a beat may be late by so much
constexpr uint32_t kLateNudgeMs = 10000; // and what is in a mailbox by so much: push waits itself

// Who waits for a module's end tells so after a while, and again.
constexpr uint32_t kFirstWordMs = 5000;
constexpr uint32_t kNextWordMs = 30000;

// What an event is for, told by its argument.
char s_chBeat, s_chSettings;

// A module whose task may be ending is not in the table.
TMutex s_tMutex;
TModule *s_aptModule[kMaxModules];

bool Replace(const TModule *ptOld, TModule *ptNew)
{
    const Guard guard(s_tMutex);
    for (TModule *&ptEntry : s_aptModule) {
        if (ptEntry != ptOld)
            continue;
        ptEntry = ptNew;
        return true;
    }
    return false;
}

// How many milliseconds ago a tick was; 0 for one to come.
uint32_t Passed(uint32_t dwTick)
{
    const auto nTicks = static_cast<int32_t>(AppGetTick() - dwTick);
    return nTicks > 0 ? AppConvertTickToMS(static_cast<uint32_t>(nTicks)) : 0;
}

// A module that is to have a beat at a time has the tick before the flag.
void Plan(TModule *ptModule, uint32_t dwMs)
{
    ptModule->dwDueTick = AppGetTick() + dwMs / AppConvertTickToMS(1);
    ptModule->bBeats = true;
}

void SendBeat(TModule *ptModule)
{
    if (!ptModule->bBeatSent.exchange(true) && !ModuleSend(ptModule, &s_chBeat))
        ptModule->bBeatSent = false;
}

void SendSettings(TModule *ptModule)
{
    if (ptModule->bSettingsSent.exchange(true) || ModuleSend(ptModule, &s_chSettings))
        return;
    ptModule->bSettingsSent = false;
    ptModule->bSettingsOwed = true;
}

void Nudge(TMailbox *ptMailbox)
{
    if (ptMailbox->bNudged.exchange(true))
        return;
    ptMailbox->dwNudgeTick = AppGetTick();
    if (ModuleSend(ptMailbox->ptOwner, nullptr))
        return;
    ptMailbox->bNudged = false;
    ptMailbox->bNudgeOwed = true;
}

void Beat(TModule *ptModule)
{
    ModuleRest(ptModule);
    ptModule->pfnWork(ptModule, kBeat, nullptr);
}

void HandleEvent(TModule *ptModule, void *pvArg)
{
    if (pvArg == &s_chSettings) {
        ptModule->bSettingsSent = false; // what is set from here on is told again
        ptModule->pfnWork(ptModule, kSettings, nullptr);
    } else if (pvArg == &s_chBeat) {
        ptModule->bBeatSent = false;
        // The timer may have been quicker, and the next beat not be due.
        if (ptModule->bBeats && static_cast<int32_t>(AppGetTick() - ptModule->dwDueTick) >= 0)
            Beat(ptModule);
    } else {
        if (ptModule->ptMailbox) // what is put from here on is told again
            ptModule->ptMailbox->bNudged = false;
        ptModule->pfnWork(ptModule, kEvent, pvArg);
    }
}

uint32_t HandleModule(HAppTask, uint32_t dwEventType, void *pvArg, void *pvModule)
{
    auto ptModule = static_cast<TModule *>(pvModule);
    switch (dwEventType) {
    case APP_TASK_EVENT_USER:
        HandleEvent(ptModule, pvArg);
        break;
    case APP_TASK_EVENT_DROP:
        if (pvArg != &s_chBeat && pvArg != &s_chSettings)
            ptModule->pfnWork(ptModule, kDropped, pvArg);
        break;
    case APP_TASK_EVENT_TIMEOUT:
        ptModule->hBeat = nullptr;
        Beat(ptModule);
        break;
    case APP_TASK_EVENT_TIMER_CANCEL:
        ptModule->hBeat = nullptr;
        break;
    case APP_TASK_EVENT_STOP:
        ptModule->pfnWork(ptModule, kStop, nullptr);
        AppLockGive(ptModule->hStopped);
        break;
    }
    return 0;
}

// How long ago a module should have run; 0 when it is on time.
uint32_t LateMs(const TModule *ptModule)
{
    const TMailbox *ptMailbox = ptModule->ptMailbox;
    const bool bNudged = ptMailbox && (ptMailbox->bNudged || ptMailbox->bNudgeOwed);
    const uint32_t dwNudged = bNudged ? Passed(ptMailbox->dwNudgeTick) : 0;
    const uint32_t dwMs = ptModule->bBeats ? Passed(ptModule->dwDueTick) : 0;
    if (dwNudged > kLateNudgeMs && dwNudged > dwMs)
        return dwNudged;
    return dwMs > kLateMs ? dwMs : 0;
}

void AwaitStop(const TModule *ptModule)
{
    uint32_t dwMs = kFirstWordMs;
    while (AppLockTakeByTime(ptModule->hStopped, dwMs) == APP_TIMEOUT) {
        char achTask[kTaskTextSize];
        TAppTaskStats tTask = {};
        tTask.dwSize = sizeof(tTask);
        AppTaskGetStats(ptModule->hTask, &tTask);
        AppLog(g_byLog, APP_LOG_ALWAYS, "camera: the end waits: %s\n", TaskText(tTask, achTask));
        dwMs = kNextWordMs;
    }
}

} // namespace

const char *TaskText(const TAppTaskStats &tTask, char (&achText)[kTaskTextSize])
{
    AppSnprintf(achText, kTaskTextSize, "task %s %s %p for %lu s", tTask.achName,
                tTask.bInHandler ? "is in handler" : "has left handler",
                reinterpret_cast<void *>(tTask.pfnHandler),
                static_cast<unsigned long>(tTask.dwSinceMs / 1000));
    return achText;
}

bool ModuleStart(TModule *ptModule)
{
    if (AppLockCreate(g_hPool, 1, 0, APP_LOCK_TYPE_SEM, &ptModule->hStopped) != APP_OK)
        return false;
    if (AppTaskMgrNewTask(g_hTaskMgr, ptModule->szName, kMaxEvents, kStackSize, kTaskPoolSize,
                          kNever, HandleModule, ptModule, &ptModule->hTask) != APP_OK) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "%s: no task\n", ptModule->szName);
        AppLockDestroy(ptModule->hStopped);
        ptModule->hStopped = nullptr;
        return false;
    }
    ptModule->bBeatSent = ptModule->bSettingsSent = ptModule->bSettingsOwed = false;
    Plan(ptModule, 0);
    SendBeat(ptModule);
    if (Replace(nullptr, ptModule))
        return true;
    ModuleStop(ptModule);
    return false;
}

void ModuleStop(TModule *ptModule)
{
    if (!ptModule->hTask)
        return;
    Replace(ptModule, nullptr);
    if (AppTaskTerminate(ptModule->hTask) == APP_OK)
        AwaitStop(ptModule);
    ptModule->hTask = nullptr; // the thread is the manager's again
    ptModule->bBeats = false;
    AppLockDestroy(ptModule->hStopped);
    ptModule->hStopped = nullptr;
}

bool ModuleSend(TModule *ptModule, void *pvArg)
{
    return AppTaskSendEvent(ptModule->hTask, pvArg, nullptr, nullptr) == APP_OK;
}

void ModuleBeat(TModule *ptModule, uint32_t dwMs)
{
    ModuleRest(ptModule);
    Plan(ptModule, dwMs);
    ptModule->hBeat = AppTaskSetTimer(ptModule->hTask, dwMs, nullptr, nullptr);
}

void ModuleRest(TModule *ptModule)
{
    ptModule->bBeats = false;
    AppTaskCancelTimer(ptModule->hBeat); // which tells the handler
}

void ModuleAlive(TModule *ptModule, uint32_t dwMs)
{
    Plan(ptModule, dwMs);
}

void ModulesTick()
{
    const Guard guard(s_tMutex);
    for (TModule *ptModule : s_aptModule) {
        if (!ptModule)
            continue;
        // As much time again for the timer, which is the one to come first.
        if (ptModule->bBeats && Passed(ptModule->dwDueTick) >= static_cast<uint32_t>(kTickMs))
            SendBeat(ptModule);
        if (ptModule->bSettingsOwed.exchange(false))
            SendSettings(ptModule);
        if (ptModule->ptMailbox && ptModule->ptMailbox->bNudgeOwed.exchange(false))
            Nudge(ptModule->ptMailbox);
    }
}

void ModulesTellSettings()
{
    const Guard guard(s_tMutex);
    for (TModule *ptModule : s_aptModule)
        if (ptModule)
            SendSettings(ptModule);
}

int32_t ModulesStatus(char *szBuf, uint32_t dwSize)
{
    const Guard guard(s_tMutex);
    auto dwUsed = static_cast<uint32_t>(AppSnprintf(szBuf, dwSize, "modules:"));
    const uint32_t dwStart = dwUsed;
    for (const TModule *ptModule : s_aptModule) {
        const uint32_t dwMs = ptModule ? LateMs(ptModule) : 0;
        if (dwMs == 0)
            continue;
        const int32_t nLen = AppSnprintf(szBuf + dwUsed, dwSize - dwUsed,
                                         "%s %s has not run for %lu s", dwUsed > dwStart ? "," : "",
                                         ptModule->szName, static_cast<unsigned long>(dwMs / 1000));
        if (nLen < 0)
            return -1;
        dwUsed += static_cast<uint32_t>(nLen);
    }
    const int32_t nEnd = AppSnprintf(szBuf + dwUsed, dwSize - dwUsed, "%s\n",
                                     dwUsed > dwStart ? "" : " all on time");
    return nEnd < 0 ? -1 : static_cast<int32_t>(dwUsed) + nEnd;
}

// ---- Mailboxes ----------------------------------------------------------------------------------

bool MailboxOpen(TMailbox *ptMailbox, TModule *ptOwner, uint32_t dwRoom)
{
    ptMailbox->ptOwner = ptOwner;
    ptMailbox->dwRoom = dwRoom;
    ptOwner->ptMailbox = ptMailbox;
    if (AppQueueCreate(g_hPool, dwRoom, 1, &ptMailbox->hQueue) != APP_OK)
        return false;
    AppQueueSetName(ptMailbox->hQueue, ptOwner->szName);
    return true;
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
    Nudge(ptMailbox); // one on its way is enough: the flag falls before the owner looks
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
