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

// One look at the next task.
struct TLook {
    HAppTaskMgr hTaskMgr;
    uint32_t dwMs;       // a handler is late that has run for longer
    bool bTell;          // once for each run
    bool bLate;          // what was found
    bool bTold;          // before
    TAppTaskStats stats; // filled when it is late
};

// Under the registry's mutex, so that of several who watch one tells.
void LookAt(const void *pvTask, void *pvLook)
{
    auto ptTask = const_cast<TAppTask *>(static_cast<const TAppTask *>(pvTask));
    auto ptLook = static_cast<TLook *>(pvLook);
    app::TTaskRun &tRun = ptTask->tRun;
    const uint32_t dwRun = app::Peek(tRun.dwServed) + 1;
    ptLook->bLate = ptTask->ptTaskMgr == ptLook->hTaskMgr && app::Peek(tRun.pfnHandler) &&
                    app::MsSince(app::Peek(tRun.dwSinceTick), _AppGetTick()) > ptLook->dwMs;
    if (!ptLook->bLate)
        return;
    app::ReadTaskStats(ptTask, &ptLook->stats);
    ptLook->bTold = tRun.dwTold == dwRun;
    if (ptLook->bTell)
        tRun.dwTold = dwRun;
}

// Hands every task whose handler runs for longer to `tell`, no lock held; returns how many.
template <typename Tell>
uint32_t ForEachLate(TLook look, Tell tell)
{
    uint32_t dwLate = 0;
    for (uint64_t qwPlace = 0; app::LookAtNext(APP_REGISTRY_TASKS, &qwPlace, LookAt, &look);) {
        if (!look.bLate)
            continue;
        ++dwLate;
        tell(look);
    }
    return dwLate;
}

void TellAwaited(HAppTaskMgr hTaskMgr, const char *szOp)
{
    const uint32_t dwInHandler =
        ForEachLate({hTaskMgr, 0, false, false, false, {}}, [&](const TLook &look) {
            AppLog(0, APP_LOG_INFO,
                   "[INFO ] %s: waits for task %p %s: handler %p type %d runs for %lu ms\n", szOp,
                   app::Ptr(look.stats.hTask), look.stats.achName, app::Ptr(look.stats.pfnHandler),
                   app::Int(look.stats.dwEventType), app::Ul(look.stats.dwSinceMs));
        });
    if (dwInHandler == 0)
        AppLog(0, APP_LOG_INFO, "[INFO ] %s: waits for a task of manager %p that runs no handler\n",
               szOp, app::Ptr(hTaskMgr));
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
    return ForEachLate({hTaskMgr, dwMs, pfnLate != nullptr, false, false, {}},
                       [&](const TLook &look) {
                           if (pfnLate && !look.bTold)
                               pfnLate(&look.stats, pvContext);
                       });
}
