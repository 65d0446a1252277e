// SPDX-License-Identifier: MIT
//
// Whom are we waiting for: handlers that do not return, looked for from outside, and by the
// manager's destruction, which waits for them.
#include "appcore/platform.h"
#include "base/print.h"
#include "task/task.h"
#include "utils/stats.h"

namespace
{

constexpr uint32_t kFirstWordMs = 5000; // the destruction tells whom it waits for
constexpr uint32_t kNextWordMs = 30000;

// A walk over the handlers that run for longer.
struct TWatch {
    HAppTaskMgr hTaskMgr;
    uint32_t dwMs;
    bool bTell;          // each run once
    uint64_t qwPlace;    // how far it has come
    bool bLate;          // what the last look has found
    bool bTold;          // that before
    TAppTaskStats stats; // of a late one
};

// Under the registry's mutex, so that of several who watch one tells.
void LookAt(const void *pvTask, void *pvWatch)
{
    auto ptTask = const_cast<TAppTask *>(static_cast<const TAppTask *>(pvTask));
    auto ptWatch = static_cast<TWatch *>(pvWatch);
    app::TTaskRun &tRun = ptTask->tRun;
    const uint32_t dwRun = app::Peek(tRun.dwServed) + 1;
    ptWatch->bLate = ptTask->ptTaskMgr == ptWatch->hTaskMgr && app::Peek(tRun.pfnHandler) &&
                     app::MsSince(app::Peek(tRun.dwSinceTick), _AppGetTick()) > ptWatch->dwMs;
    if (!ptWatch->bLate)
        return;
    app::ReadTaskStats(ptTask, &ptWatch->stats);
    ptWatch->bTold = tRun.dwTold == dwRun;
    if (ptWatch->bTell)
        tRun.dwTold = dwRun;
}

// False at the end.
bool FindLate(TWatch *ptWatch)
{
    do {
        if (!app::LookAtNext(APP_REGISTRY_TASKS, &ptWatch->qwPlace, LookAt, ptWatch))
            return false;
    } while (!ptWatch->bLate);
    return true;
}

void TellAwaited(HAppTaskMgr hTaskMgr, const char *szOp)
{
    TWatch watch = {};
    watch.hTaskMgr = hTaskMgr;
    if (!FindLate(&watch)) {
        AppLog(0, APP_LOG_INFO, "[INFO ] %s: waits for a task of manager %p that runs no handler\n",
               szOp, app::Ptr(hTaskMgr));
        return;
    }
    do
        AppLog(0, APP_LOG_INFO,
               "[INFO ] %s: waits for task %p %s: handler %p type %d runs for %lu ms\n", szOp,
               app::Ptr(watch.stats.hTask), watch.stats.achName, app::Ptr(watch.stats.pfnHandler),
               app::Int(watch.stats.dwEventType), app::Ul(watch.stats.dwSinceMs));
    while (FindLate(&watch));
}

} // namespace

void app::TakeWithWord(HAppLock hLock, HAppTaskMgr hTaskMgr, const char *szOp)
{
    for (uint32_t dwMs = kFirstWordMs; AppLockTakeByTime(hLock, dwMs) != APP_OK; dwMs = kNextWordMs)
        TellAwaited(hTaskMgr, szOp);
}

uint32_t AppTaskMgrCheck(HAppTaskMgr hTaskMgr, uint32_t dwMs, PFAppTaskLate pfnLate,
                         void *pvContext)
{
    if (!hTaskMgr)
        return 0;
    TWatch watch = {};
    watch.hTaskMgr = hTaskMgr;
    watch.dwMs = dwMs;
    watch.bTell = pfnLate != nullptr;
    uint32_t dwLate = 0;
    for (; FindLate(&watch); ++dwLate)
        if (pfnLate && !watch.bTold)
            pfnLate(&watch.stats, pvContext);
    return dwLate;
}
