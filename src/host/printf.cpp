// SPDX-License-Identifier: MIT
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "host/printf.h"

namespace
{

// Straight to the descriptor: for an unbuffered stream like standard error, stdio prints by way of
// 8 KiB on the stack, more than a small task has.  One call, unless a signal cuts it short.  A
// console that takes no more, or is gone, loses the rest: nobody waits or tries for ever.
int32_t Write(const char *szText)
{
    const size_t nLen = strlen(szText);
    size_t nDone = 0;
    while (nDone < nLen) {
        const ssize_t nWritten = write(STDERR_FILENO, szText + nDone, nLen - nDone);
        if (nWritten > 0)
            nDone += static_cast<size_t>(nWritten);
        else if (nWritten == 0 || errno != EINTR)
            return -1;
    }
    return static_cast<int32_t>(nDone);
}

// For the application's own calls; the library has made its text already.
[[gnu::noinline]] int32_t WriteFormatted(const char *szFormat, va_list args) APP_PRINTF(1, 0);
int32_t WriteFormatted(const char *szFormat, va_list args)
{
    char achText[512];
    const int nLen = vsnprintf(achText, sizeof(achText), szFormat, args);
    if (nLen >= static_cast<int>(sizeof(achText)))
        achText[sizeof(achText) - 2] = '\n';
    return nLen < 0 ? -1 : Write(achText);
}

} // namespace

int32_t _AppQorVprintf(const char *szFormat, va_list args)
{
    if (strcmp(szFormat, "%s") != 0)
        return WriteFormatted(szFormat, args);
    const char *szText = va_arg(args, const char *);
    return Write(szText ? szText : "(null)");
}

int32_t _AppQorPrintf(int32_t, int32_t, const char *szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    const int32_t nResult = _AppQorVprintf(szFormat, args);
    va_end(args);
    return nResult;
}
