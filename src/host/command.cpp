// SPDX-License-Identifier: MIT
//
// The debug shell's command table, for hosts without the device's platform library.
#include <string.h>

#include <atomic>

#include "appcore/platform.h"
#include "host/call.h"

namespace
{

constexpr uint32_t kMostCommands = 64;
constexpr int32_t kMostWords = 15;
constexpr uint32_t kLineSize = 256;

struct TCommand {
    const char *szName;
    // These two change when a name is registered again, while others run or list it.
    std::atomic<PFQorCommand> pfnCommand;
    std::atomic<const char *> szHelp;
};

// Entries are published by the count and stay.
TCommand s_atCommand[kMostCommands];
std::atomic<uint32_t> s_dwCommands;
std::atomic<uint32_t> s_bRegistering;

TCommand *FindCommand(const char *szName)
{
    const uint32_t dwCommands = s_dwCommands.load(std::memory_order_acquire);
    for (uint32_t i = 0; i < dwCommands; ++i)
        if (AppStrcmp(s_atCommand[i].szName, szName) == 0)
            return &s_atCommand[i];
    return nullptr;
}

int32_t Register(const char *szName, PFQorCommand pfnCommand, const char *szHelp)
{
    TCommand *ptCommand = FindCommand(szName);
    const uint32_t dwCommands = s_dwCommands.load();
    if (!ptCommand && dwCommands == kMostCommands) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: no room for command %s\n", "QorRegCommand", szName);
        return 0;
    }
    const bool bNew = !ptCommand;
    if (bNew) {
        ptCommand = &s_atCommand[dwCommands];
        ptCommand->szName = szName;
    }
    ptCommand->pfnCommand.store(pfnCommand);
    ptCommand->szHelp.store(szHelp ? szHelp : "");
    // The count last: a reader that sees the entry sees it whole.
    if (bNew)
        s_dwCommands.store(dwCommands + 1, std::memory_order_release);
    return 1;
}

} // namespace

int32_t _AppQorRegCommand(const char *szName, PFQorCommand pfnCommand, const char *szHelp)
{
    if (!szName || !pfnCommand)
        return 0;
    // A lock would have to be made first, by whoever comes first; and registrations are rare.
    while (s_bRegistering.exchange(1, std::memory_order_acquire) != 0)
        AppDelay(1);
    const int32_t nResult = Register(szName, pfnCommand, szHelp);
    s_bRegistering.store(0, std::memory_order_release);
    return nResult;
}

void AppHostWalkCommands(PFAppHostCommand pfnVisit, void *pvContext)
{
    const uint32_t dwCommands = s_dwCommands.load(std::memory_order_acquire);
    for (uint32_t i = 0; i < dwCommands; ++i)
        pfnVisit(s_atCommand[i].szName, s_atCommand[i].szHelp.load(), pvContext);
}

uint32_t AppHostRunCommand(const char *szLine, int32_t *pnResult)
{
    char achLine[kLineSize];
    if (AppStrlen(szLine) >= kLineSize || !szLine)
        return APP_INVALID_ARG;
    AppStrncpy(achLine, szLine, kLineSize);
    char *apszWord[kMostWords + 1] = {};
    int32_t nWords = 0;
    char *szRest = nullptr;
    for (char *szWord = strtok_r(achLine, " \t\r\n", &szRest); szWord && nWords < kMostWords;
         szWord = strtok_r(nullptr, " \t\r\n", &szRest))
        apszWord[nWords++] = szWord;
    if (nWords == 0)
        return APP_INVALID_ARG;
    const TCommand *ptCommand = FindCommand(apszWord[0]);
    if (!ptCommand)
        return APP_NOT_FOUND;
    const int32_t nResult = ptCommand->pfnCommand.load()(nWords, apszWord);
    if (pnResult)
        *pnResult = nResult;
    return APP_OK;
}
