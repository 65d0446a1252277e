// SPDX-License-Identifier: MIT
//
// The commands of standard input.  Each is registered with the platform's debug shell and runs a
// named action of the module that knows how; this module knows none of them but by their names.
//
// A line runs in one of two tasks, for reports and for everything else: whatever hangs, main() does
// not wait for it, and there is a report to tell of it.
#include "camera.h"
#include "text.h"

namespace camera
{

namespace
{

// A script's next line begins when the last one has ended, but no more than so long after its begin:
// which is longer than any takes, unless it hangs.
constexpr uint32_t kReportMs = 1500; // for a report, and for the prompt
constexpr uint32_t kOtherMs = 5000;  // for a line of any other kind
constexpr uint32_t kLineSize = 256;  // longer ones are none that can be run

enum ELane { kOthers, kReports, kLanes, kHere = kLanes };

// A command: numbers between limits are the action's arguments; a text is for ShellText().
struct TCommand {
    const char *szName;
    const char *szAction;
    ELane eLane;
    const char *szHelp;
    bool bText = false;
    uint32_t dwNumbers = 0;
    uint32_t dwMost[2] = {};
};

constexpr TCommand s_atCommand[] = {
    {"help", "shell.help", kReports, "what there is"},
    {"status", "report.status", kReports, "the modules' counters"},
    {"tasks", "report.tasks", kReports, "the task manager, its tasks and their pools"},
    {"pools", "report.pools", kReports, "the camera's memory pool"},
    {"actions", "shell.actions", kReports, "the named actions, and which ran last"},
    {"stats", "report.stats", kReports, "KIND: the library's counters; alone: all kinds", true},
    {"log", "shell.log", kOthers, "CH LEVEL: set a log channel's threshold", false, 2, {255, 255}},
    {"motion",
     "motion.raise",
     kOthers,
     "N: let the detector see N motions at once",
     false,
     1,
     {1000000}},
    {"set", "config.set", kOthers, "KEY VALUE: change a setting; alone: show all", true},
    {"discover", "discovery.search", kOthers, "look for cameras on the network"},
    {"quit", "shell.quit", kHere, "end"},
};

// A task that runs lines, one at a time.
struct TLane {
    TModule tModule;
    std::atomic<bool> bRuns{false}; // achLine
    uint32_t dwStartTick = 0;
    char achLine[kLineSize + 1] = "";
};

void Work(TModule *ptModule, EWork eWork, void *pvArg);

TLane s_atLane[kLanes] = {{{"shell", Work}}, {{"reports", Work}}};
bool s_bQuit;                           // main()'s thread's alone
thread_local const char *s_szText = ""; // of the command that runs in this thread

const TCommand *FindCommand(const char *szName)
{
    for (const TCommand &command : s_atCommand)
        if (AppStrcmp(command.szName, szName) == 0)
            return &command;
    return nullptr;
}

// The words behind the command, with one blank between.
void JoinWords(int32_t nArgc, char **ppszArgv, char (&achText)[kLineSize])
{
    achText[0] = '\0';
    for (int32_t i = 1; i < nArgc; ++i) {
        AppStrncat(achText, i > 1 ? " " : "", sizeof(achText));
        AppStrncat(achText, ppszArgv[i], sizeof(achText));
    }
}

// Every command comes here: its first word tells which.
int32_t RunCommand(int32_t nArgc, char **ppszArgv)
{
    const TCommand *ptCommand = FindCommand(ppszArgv[0]);
    uint32_t adwArg[2] = {}, dwResult = APP_OK;
    bool bGood = ptCommand->bText || nArgc == static_cast<int32_t>(ptCommand->dwNumbers) + 1;
    for (uint32_t i = 0; bGood && i < ptCommand->dwNumbers; ++i)
        bGood = ParseNumber(ppszArgv[i + 1], 0, ptCommand->dwMost[i], &adwArg[i]);
    if (!bGood) {
        Print("usage: %s %s\n", ptCommand->szName, ptCommand->szHelp);
        return 1;
    }
    char achText[kLineSize];
    JoinWords(nArgc, ppszArgv, achText);
    s_szText = achText;
    const uint32_t dwRun =
        AppRunShareAction(ptCommand->szAction, adwArg[0], adwArg[1], 0, &dwResult);
    s_szText = "";
    if (dwRun != APP_OK || dwResult != APP_OK)
        Print("%s: failed, code %lu\n", ptCommand->szName,
              static_cast<unsigned long>(dwRun != APP_OK ? dwRun : dwResult));
    return dwRun == APP_OK && dwResult == APP_OK ? 0 : 1;
}

void RunLine(const char *szLine)
{
    const uint32_t dwResult = AppHostRunCommand(szLine, nullptr);
    if (dwResult == APP_NOT_FOUND)
        Print("no such command; try help\n");
    else if (dwResult != APP_OK && *szLine)
        Print("this line cannot be run\n");
}

void Work(TModule *, EWork eWork, void *pvLane)
{
    auto ptLane = static_cast<TLane *>(pvLane);
    if (eWork == kEvent)
        RunLine(ptLane->achLine);
    if (eWork == kEvent || eWork == kDropped) {
        ptLane->bRuns = false;
        MainWake();
    }
}

// ---- Lanes --------------------------------------------------------------------------------------

// What has no command's name belongs to the others: whoever registers more commands has them there.
ELane LaneOf(const char *szLine)
{
    uint32_t dwLen = 0;
    char achName[16];
    const char *szWord = NextWord(&szLine, &dwLen);
    AppStrncpy(achName, szWord, dwLen < sizeof(achName) ? dwLen + 1 : sizeof(achName));
    const TCommand *ptCommand = szWord ? FindCommand(achName) : nullptr;
    return ptCommand ? ptCommand->eLane : kOthers;
}

// Whether the lines that run have been running for so long, or none does.
bool HaveRun(uint32_t dwMs)
{
    for (const TLane &lane : s_atLane)
        if (lane.bRuns && MsSince(lane.dwStartTick) < dwMs)
            return false;
    return true;
}

void TellBusy(const TLane *ptLane)
{
    TAppShareActionStats tStats = {};
    tStats.dwSize = sizeof(tStats);
    AppShareActionGetStats(&tStats);
    Print("the last command runs still: %s, %lu s\n",
          tStats.achCurrent[0] ? tStats.achCurrent : ptLane->achLine,
          static_cast<unsigned long>(MsSince(ptLane->dwStartTick) / 1000));
}

// ---- The shell's own actions --------------------------------------------------------------------

uint32_t HelpAction(uint32_t, uint32_t, uint32_t)
{
    AppHostWalkCommands([](const char *szName, const char *szHelp,
                           void *) { Print("  %-10s %s\n", szName, szHelp); },
                        nullptr);
    return APP_OK;
}

uint32_t ActionsAction(uint32_t, uint32_t, uint32_t)
{
    AppShareActionShow([](const char *szText, void *) { PrintText(szText); }, nullptr);
    return APP_OK;
}

uint32_t LogAction(uint32_t dwChannel, uint32_t dwLevel, uint32_t)
{
    AppSetLogLevel(static_cast<uint8_t>(dwChannel), static_cast<uint8_t>(dwLevel));
    return APP_OK;
}

uint32_t QuitAction(uint32_t, uint32_t, uint32_t)
{
    s_bQuit = true;
    return APP_OK;
}

} // namespace

const char *ShellText()
{
    return s_szText;
}

bool ShellIsReady()
{
    return HaveRun(kReportMs);
}

bool ShellMayRun(const char *szLine)
{
    return HaveRun(LaneOf(szLine) == kOthers ? kOtherMs : kReportMs);
}

bool ShellRun(const char *szLine)
{
    const ELane eLane = LaneOf(szLine);
    if (eLane == kHere) {
        RunLine(szLine);
        return !s_bQuit;
    }
    TLane &lane = s_atLane[eLane];
    if (lane.bRuns) {
        TellBusy(&lane);
        return true;
    }
    AppStrncpy(lane.achLine, szLine, sizeof(lane.achLine)); // what is cut is too long anyway
    lane.dwStartTick = AppGetTick();
    lane.bRuns = true;
    if (!ModuleSend(&lane.tModule, &lane)) {
        lane.bRuns = false;
        Print("this line cannot be run now\n");
    }
    return true;
}

bool ShellStart()
{
    s_bQuit = false;
    for (const TCommand &command : s_atCommand)
        AppRegCommand(command.szName, RunCommand, command.szHelp);
    return AppRegisterBlockShareAction("shell.help", HelpAction) == APP_OK &&
           AppRegisterBlockShareAction("shell.actions", ActionsAction) == APP_OK &&
           AppRegisterShareAction("shell.log", LogAction) == APP_OK &&
           AppRegisterBlockShareAction("shell.quit", QuitAction) == APP_OK &&
           ModuleStart(&s_atLane[kOthers].tModule) && ModuleStart(&s_atLane[kReports].tModule);
}

void ShellStop()
{
    for (TLane &lane : s_atLane)
        ModuleStop(&lane.tModule);
}

} // namespace camera
