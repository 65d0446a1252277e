// SPDX-License-Identifier: MIT
//
// Writes the counters to the log at regular times, and now and then the reports of memory and
// tasks; the actions "report.…" print them.
#include "camera.h"

#include <stdio.h>

#include <initializer_list>

namespace camera
{

namespace
{

constexpr uint32_t kLongReport = 10; // every so many short ones

uint32_t HandleHousekeeping(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvContext);

TModule s_tModule = {"housekeeping", HandleHousekeeping, nullptr, nullptr};
uint32_t s_dwReports;

void Print(const char *szText, void *)
{
    fputs(szText, stdout);
}

void WriteToLog(const char *szText, void *)
{
    AppLogFile(g_byLog, APP_LOG_ALWAYS, "%s", szText);
}

void ShowStatus(PFAppShow pfnShow)
{
    char achText[512];
    for (auto pfnStatus : {MotionStatus, AlarmStatus, PushStatus, DiscoveryStatus})
        if (pfnStatus(achText, sizeof(achText)) > 0)
            pfnShow(achText, nullptr);
}

void Report(HAppTask hTask)
{
    ShowStatus(WriteToLog);
    if (++s_dwReports % kLongReport == 0) {
        AppMemPoolShow(g_hPool, WriteToLog, nullptr);
        AppTaskMgrShow(g_hTaskMgr, WriteToLog, nullptr);
    }
    AppTaskSetTimer(hTask, ConfigGet().dwReport, nullptr, nullptr);
}

uint32_t HandleHousekeeping(HAppTask hTask, uint32_t dwEventType, void *, void *)
{
    if (dwEventType == APP_TASK_EVENT_USER || dwEventType == APP_TASK_EVENT_TIMEOUT) {
        Report(hTask);
    } else if (dwEventType == APP_TASK_EVENT_STOP) {
        ShowStatus(WriteToLog);
        ModuleStopped(&s_tModule);
    }
    return 0;
}

uint32_t TasksAction(uint32_t, uint32_t, uint32_t)
{
    AppTaskMgrShow(g_hTaskMgr, Print, nullptr);
    return APP_OK;
}

uint32_t PoolsAction(uint32_t, uint32_t, uint32_t)
{
    AppMemPoolShow(g_hPool, Print, nullptr);
    return APP_OK;
}

uint32_t StatusAction(uint32_t, uint32_t, uint32_t)
{
    ShowStatus(Print);
    return APP_OK;
}

} // namespace

bool HousekeepingStart()
{
    return AppRegisterShareAction("report.tasks", TasksAction) == APP_OK &&
           AppRegisterShareAction("report.pools", PoolsAction) == APP_OK &&
           AppRegisterShareAction("report.status", StatusAction) == APP_OK &&
           ModuleStart(&s_tModule) &&
           AppTaskSendEvent(s_tModule.hTask, nullptr, nullptr, nullptr) == APP_OK;
}

void HousekeepingStop()
{
    ModuleStop(&s_tModule);
}

} // namespace camera
