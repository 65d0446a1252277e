// SPDX-License-Identifier: MIT
//
// Writes the counters to the log at regular times, and now and then the reports of memory and
// tasks; the actions "report.…" print them.
#include "camera.h"

#include <initializer_list>

namespace camera
{

namespace
{

constexpr uint32_t kLongReport = 10; // every so many short ones

void Work(TModule *ptModule, EWork eWork, void *pvArg);

TModule s_tModule = {"housekeeping", Work};
uint32_t s_dwReports;
uint32_t s_dwInterval; // until the next report

// A report is collected before it is printed: it is made with a lock held that the detector's next
// allocation needs, and a terminal may stand still for as long as it likes.
struct TReport {
    uint32_t dwUsed;
    char achText[64 * 1024];
};

void Collect(const char *szText, void *pvReport)
{
    auto ptReport = static_cast<TReport *>(pvReport);
    AppStrncat(ptReport->achText + ptReport->dwUsed, szText,
               static_cast<uint32_t>(sizeof(ptReport->achText)) - ptReport->dwUsed);
    ptReport->dwUsed += AppStrlen(ptReport->achText + ptReport->dwUsed);
}

void ShowPool(PFAppShow pfnShow, void *pvContext)
{
    AppMemPoolShow(g_hPool, pfnShow, pvContext);
}

void ShowTasks(PFAppShow pfnShow, void *pvContext)
{
    AppTaskMgrShow(g_hTaskMgr, pfnShow, pvContext);
}

void ShowStatus(PFAppShow pfnShow, void *pvContext)
{
    char achText[1024];
    for (auto pfnStatus :
         {MotionStatus, AlarmStatus, PushStatus, ConsoleStatus, ModulesStatus, DiscoveryStatus})
        if (pfnStatus(achText, sizeof(achText)) > 0)
            pfnShow(achText, pvContext);
}

constexpr TAppS32StrPair s_atKind[] = {
    {APP_STATS_ALL, ""},
    {APP_STATS_POOLS, "pools"},
    {APP_STATS_QUEUES, "queues"},
    {APP_STATS_TASK_MGRS, "managers"},
    {APP_STATS_TASKS, "tasks"},
    {APP_STATS_LOGS, "logs"},
    {APP_STATS_ACTIONS, "actions"},
    {APP_STATS_SOCKETS, "sockets"},
};
constexpr uint32_t kKinds = sizeof(s_atKind) / sizeof(s_atKind[0]);

void ShowStats(PFAppShow pfnShow, void *pvContext)
{
    const TAppS32StrPair *ptKind = AppFindS32StrPair_Str(s_atKind, kKinds, ShellText());
    AppStatsJson(static_cast<uint32_t>(ptKind->nEnum), pfnShow, pvContext);
}

void WriteToConsole(char *szText)
{
    PrintText(szText);
}

void WriteToLog(char *szText)
{
    while (char *szEnd = AppStrchr(szText, '\n')) { // a line has its own stamp
        *szEnd = '\0';
        AppLogFile(g_byLog, APP_LOG_ALWAYS, "%s\n", szText);
        szText = szEnd + 1;
    }
}

// The report's memory is the heap's: it may be asked for when the camera's pool is full.
uint32_t Report(void (*pfnMake)(PFAppShow, void *), void (*pfnWrite)(char *))
{
    auto ptReport = static_cast<TReport *>(AppMemPoolMalloc(nullptr, sizeof(TReport)));
    if (!ptReport)
        return APP_NO_RESOURCE;
    AppMemzero(ptReport, sizeof(*ptReport));
    pfnMake(Collect, ptReport);
    pfnWrite(ptReport->achText);
    AppMemPoolFree(ptReport);
    return APP_OK;
}

void ReportToLog()
{
    Report(ShowStatus, WriteToLog);
    if (++s_dwReports % kLongReport == 0) {
        Report(ShowPool, WriteToLog);
        Report(ShowTasks, WriteToLog);
    }
}

void PlanReport()
{
    s_dwInterval = ConfigGet().dwReport;
    ModuleBeat(&s_tModule, s_dwInterval);
}

void Work(TModule *, EWork eWork, void *)
{
    if (eWork == kBeat) {
        PlanReport();
        ReportToLog();
    } else if (eWork == kSettings && s_dwInterval != ConfigGet().dwReport) {
        PlanReport();
    } else if (eWork == kStop) {
        Report(ShowStatus, WriteToLog);
    }
}

uint32_t TasksAction(uint32_t, uint32_t, uint32_t)
{
    return Report(ShowTasks, WriteToConsole);
}

uint32_t PoolsAction(uint32_t, uint32_t, uint32_t)
{
    return Report(ShowPool, WriteToConsole);
}

uint32_t StatusAction(uint32_t, uint32_t, uint32_t)
{
    return Report(ShowStatus, WriteToConsole);
}

// The shell's text is a kind of records, or nothing for all of them.
uint32_t StatsAction(uint32_t, uint32_t, uint32_t)
{
    if (AppFindS32StrPair_Str(s_atKind, kKinds, ShellText()))
        return Report(ShowStats, WriteToConsole);
    Print("kinds are");
    for (uint32_t i = 1; i < kKinds; ++i)
        Print(" %s", s_atKind[i].szStr);
    Print("\n");
    return APP_BAD_VALUE;
}

} // namespace

bool HousekeepingStart()
{
    return AppRegisterBlockShareAction("report.tasks", TasksAction) == APP_OK &&
           AppRegisterBlockShareAction("report.pools", PoolsAction) == APP_OK &&
           AppRegisterBlockShareAction("report.status", StatusAction) == APP_OK &&
           AppRegisterBlockShareAction("report.stats", StatsAction) == APP_OK &&
           ModuleStart(&s_tModule);
}

void HousekeepingStop()
{
    ModuleStop(&s_tModule);
}

} // namespace camera
