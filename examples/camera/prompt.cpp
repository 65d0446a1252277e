// SPDX-License-Identifier: MIT
//
// Makes lines of the bytes that standard input has, and runs them.
#include "camera.h"

namespace camera
{

namespace
{

bool RunLine(TPrompt *ptPrompt)
{
    if (ptPrompt->bEcho)
        Print("%s\n", ptPrompt->achLine);
    if (AppStrlen(ptPrompt->achLine) == ptPrompt->dwUsed)
        return ShellRun(ptPrompt->achLine);
    Print("this line cannot be run\n"); // it has a zero byte
    return true;
}

bool EndLine(TPrompt *ptPrompt)
{
    ptPrompt->achLine[ptPrompt->dwUsed] = '\0';
    const bool bGoOn = ptPrompt->bTooLong || RunLine(ptPrompt);
    ptPrompt->bTooLong = false;
    ptPrompt->dwUsed = 0;
    if (bGoOn)
        PromptShow();
    return bGoOn;
}

} // namespace

void PromptShow()
{
    PrintText("camera> ");
}

bool PromptTake(TPrompt *ptPrompt, const char *pchBytes, uint32_t dwLen)
{
    for (uint32_t i = 0; i < dwLen; ++i) {
        if (pchBytes[i] == '\n') {
            if (!EndLine(ptPrompt))
                return false;
        } else if (ptPrompt->dwUsed < sizeof(ptPrompt->achLine) - 1) {
            ptPrompt->achLine[ptPrompt->dwUsed++] = pchBytes[i];
        } else if (!ptPrompt->bTooLong) {
            PrintText("\nthis line is too long\n");
            ptPrompt->bTooLong = true; // to its end
        }
    }
    return true;
}

} // namespace camera
