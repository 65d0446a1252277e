// SPDX-License-Identifier: MIT
//
// Makes lines of the bytes that standard input has, and runs them, each when its time has come.
#include "camera.h"

namespace camera
{

namespace
{

bool RunLine(TPrompt *ptPrompt)
{
    if (ptPrompt->bTooLong) // which has been told
        return true;
    if (ptPrompt->bEcho)
        Print("%s\n", ptPrompt->achLine);
    if (AppStrlen(ptPrompt->achLine) == ptPrompt->dwUsed)
        return ShellRun(ptPrompt->achLine);
    Print("this line cannot be run\n"); // it has a zero byte
    return true;
}

void TakeByte(TPrompt *ptPrompt, char ch)
{
    if (ch == '\n') {
        ptPrompt->achLine[ptPrompt->dwUsed] = '\0';
        ptPrompt->bWhole = true;
    } else if (ptPrompt->dwUsed < sizeof(ptPrompt->achLine) - 1) {
        ptPrompt->achLine[ptPrompt->dwUsed++] = ch;
    } else if (!ptPrompt->bTooLong) {
        PrintText("\nthis line is too long\n");
        ptPrompt->bTooLong = true; // to its end
    }
}

void EndLine(TPrompt *ptPrompt)
{
    ptPrompt->bQuit = !RunLine(ptPrompt);
    ptPrompt->bTooLong = ptPrompt->bWhole = ptPrompt->bShown = false;
    ptPrompt->dwUsed = 0;
}

void Show(TPrompt *ptPrompt)
{
    if (!ptPrompt->bShown)
        PrintText("camera> ");
    ptPrompt->bShown = true;
}

} // namespace

uint32_t PromptTake(TPrompt *ptPrompt, const char *pchBytes, uint32_t dwLen)
{
    uint32_t dwTaken = 0;
    while (!ptPrompt->bQuit && ShellIsReady()) {
        Show(ptPrompt);
        if (!ptPrompt->bWhole && dwTaken < dwLen)
            TakeByte(ptPrompt, pchBytes[dwTaken++]);
        else if (ptPrompt->bWhole && ShellMayRun(ptPrompt->achLine))
            EndLine(ptPrompt);
        else
            break;
    }
    return dwTaken;
}

bool PromptIsIdle(const TPrompt *ptPrompt)
{
    return !ptPrompt->bWhole && ShellIsReady();
}

} // namespace camera
