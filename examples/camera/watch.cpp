// SPDX-License-Identifier: MIT
//
// Whom the camera waits for: names each handler that does not return, and, when the camera is told
// a second time to end, those that its end waits for.
#include "camera.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace camera
{

namespace
{

constexpr uint32_t kEveryMs = 1000;
constexpr uint32_t kHangsMs = 1000; // whom the end waits for that nobody has patience with

uint32_t s_dwLookTick;     // main()'s thread's alone
std::atomic<bool> s_bTold; // to end, by a signal

void TellLate(const TAppTaskStats *ptTask, void *)
{
    char achTask[kTaskTextSize];
    AppLog(g_byLog, APP_LOG_ALWAYS, "watch: %s\n", TaskText(*ptTask, achTask));
}

// ---- The end at once ----------------------------------------------------------------------------

struct TText {
    uint32_t dwUsed;
    char achText[1024];
};

void Add(TText *ptText, const char *szText)
{
    AppStrncat(ptText->achText, ptText->dwUsed > 0 ? "; " : "", sizeof(ptText->achText));
    AppStrncat(ptText->achText, szText, sizeof(ptText->achText));
    ptText->dwUsed = AppStrlen(ptText->achText);
}

void AddTask(TText *ptText, const TAppTaskStats &tTask)
{
    char achTask[kTaskTextSize];
    if (tTask.bInHandler && tTask.dwSinceMs >= kHangsMs)
        Add(ptText, TaskText(tTask, achTask));
}

void AddAction(TText *ptText, const TAppShareActionStats &tActions)
{
    char achAction[100];
    AppSnprintf(achAction, sizeof(achAction), "action %s runs for %lu s", tActions.achCurrent,
                static_cast<unsigned long>(tActions.dwCurrentMs / 1000));
    if (tActions.dwRunning > 0)
        Add(ptText, achAction);
}

void AddHanging(uint32_t dwKind, const void *pvStats, void *pvText)
{
    auto ptText = static_cast<TText *>(pvText);
    if (dwKind == APP_STATS_TASKS)
        AddTask(ptText, *static_cast<const TAppTaskStats *>(pvStats));
    else
        AddAction(ptText, *static_cast<const TAppShareActionStats *>(pvStats));
}

// Needs nothing that may hang itself: no log, no relay, no lock of a task.
void EndAtOnce()
{
    TText tText = {};
    AppStatsWalk(APP_STATS_TASKS | APP_STATS_ACTIONS, AddHanging, &tText);
    char achText[sizeof(tText.achText) + 100];
    AppSnprintf(achText, sizeof(achText), "\ncamera: ended at once; it waited for: %s\n",
                tText.dwUsed > 0 ? tText.achText : "no task");
    ConsoleLastWords(achText);
    _exit(1);
}

// A thread of its own, for main() itself waits while the camera ends.  An end that has begun without
// a signal is none that has been told once: the first one may have crossed the end of the input.
void *TakeSignals(void *pvSignals)
{
    signalfd_siginfo tSignal;
    while (read(*static_cast<const int *>(pvSignals), &tSignal, sizeof(tSignal)) > 0) {
        if (s_bTold.exchange(true))
            EndAtOnce();
        MainWake();
    }
    return nullptr;
}

} // namespace

// The longest work of a module is a round of push: 2 s, and at their end a connection (1 s) and a
// send (0.5 s); a listener's turn is shorter, and so are a search and what waits for it.  Three times
// that is no false alarm on a slow disk either.
uint32_t g_dwLateMs = 10000;

bool WatchStart(int nSignals)
{
    static int s_nSignals;
    s_nSignals = nSignals;
    return nSignals >= 0 && StartThread(TakeSignals, &s_nSignals);
}

void WatchLook()
{
    if (MsSince(s_dwLookTick) < kEveryMs)
        return;
    s_dwLookTick = AppGetTick();
    AppTaskMgrCheck(g_hTaskMgr, g_dwLateMs, TellLate, nullptr);
}

bool WatchIsTold()
{
    return s_bTold;
}

} // namespace camera
