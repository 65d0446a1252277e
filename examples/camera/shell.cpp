// SPDX-License-Identifier: MIT
//
// The commands of standard input.  Each is registered with the platform's debug shell and runs a
// named action of the module that knows how; this module knows none of them but by their names.
#include "camera.h"
#include "text.h"

namespace camera
{

namespace
{

// A command: numbers between limits are the action's arguments; a text is for ShellText().
struct TCommand {
    const char *szName;
    const char *szAction;
    uint32_t dwNumbers;
    bool bText;
    uint32_t dwMost[2];
    const char *szHelp;
};

constexpr TCommand s_atCommand[] = {
    {"help", "shell.help", 0, false, {}, "what there is"},
    {"status", "report.status", 0, false, {}, "the modules' counters"},
    {"tasks", "report.tasks", 0, false, {}, "the task manager, its tasks and their pools"},
    {"pools", "report.pools", 0, false, {}, "the camera's memory pool"},
    {"actions", "shell.actions", 0, false, {}, "the named actions, and which ran last"},
    {"log", "shell.log", 2, false, {255, 255}, "CH LEVEL: set a log channel's threshold"},
    {"motion", "motion.raise", 1, false, {1000000}, "N: let the detector see N motions at once"},
    {"set", "config.set", 0, true, {}, "KEY VALUE: change a setting; alone: show all"},
    {"discover", "discovery.search", 0, false, {}, "look for cameras on the network"},
    {"quit", "shell.quit", 0, false, {}, "end"},
};

void Work(TModule *ptModule, EWork eWork, void *pvArg);

TModule s_tModule = {"shell", Work};
HAppLock s_hLineDone; // given when a line has been run
bool s_bQuit;
char s_achText[256];

const TCommand *FindCommand(const char *szName)
{
    for (const TCommand &command : s_atCommand)
        if (AppStrcmp(command.szName, szName) == 0)
            return &command;
    return nullptr;
}

// The words behind the command, with one blank between.
void JoinWords(int32_t nArgc, char **ppszArgv)
{
    s_achText[0] = '\0';
    for (int32_t i = 1; i < nArgc; ++i) {
        AppStrncat(s_achText, i > 1 ? " " : "", sizeof(s_achText));
        AppStrncat(s_achText, ppszArgv[i], sizeof(s_achText));
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
    JoinWords(nArgc, ppszArgv);
    const uint32_t dwRun =
        AppRunShareAction(ptCommand->szAction, adwArg[0], adwArg[1], 0, &dwResult);
    if (dwRun != APP_OK || dwResult != APP_OK)
        Print("%s: failed, code %lu\n", ptCommand->szName,
              static_cast<unsigned long>(dwRun != APP_OK ? dwRun : dwResult));
    return dwRun == APP_OK && dwResult == APP_OK ? 0 : 1;
}

void Work(TModule *, EWork eWork, void *pvArg)
{
    if (eWork == kEvent) {
        const auto szLine = static_cast<const char *>(pvArg);
        const uint32_t dwResult = AppHostRunCommand(szLine, nullptr);
        if (dwResult == APP_NOT_FOUND)
            Print("no such command; try help\n");
        else if (dwResult != APP_OK && *szLine)
            Print("this line cannot be run\n");
    }
    if (eWork == kEvent || eWork == kDropped)
        AppLockGive(s_hLineDone);
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
    return s_achText;
}

bool ShellRun(const char *szLine)
{
    // The line lives until it has been run; the lock also hands the task's memory over to us.
    if (ModuleSend(&s_tModule, const_cast<char *>(szLine)))
        AppLockTakeByTime(s_hLineDone, 0);
    else
        Print("this line cannot be run now\n");
    return !s_bQuit;
}

bool ShellStart()
{
    s_bQuit = false;
    for (const TCommand &command : s_atCommand)
        AppRegCommand(command.szName, RunCommand, command.szHelp);
    return AppRegisterShareAction("shell.help", HelpAction) == APP_OK &&
           AppRegisterShareAction("shell.actions", ActionsAction) == APP_OK &&
           AppRegisterShareAction("shell.log", LogAction) == APP_OK &&
           AppRegisterShareAction("shell.quit", QuitAction) == APP_OK &&
           AppLockCreate(g_hPool, 1, 0, APP_LOCK_TYPE_SEM, &s_hLineDone) == APP_OK &&
           ModuleStart(&s_tModule);
}

void ShellStop()
{
    ModuleStop(&s_tModule);
    AppLockDestroy(s_hLineDone);
    s_hLineDone = nullptr;
}

} // namespace camera
