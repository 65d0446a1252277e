// SPDX-License-Identifier: MIT
#include <stdarg.h>

#include "appcore/foundation.h"
#include "cross_linux/cross_linux.h"

int32_t AppSnprintf(char *szBuf, uint32_t dwSize, const char *szFormat, ...)
{
    if (dwSize == 0 || !szBuf || !szFormat)
        return -1;
    va_list args;
    va_start(args, szFormat);
    const int32_t nWritten = _AppVsnprintf(szBuf, dwSize, szFormat, args);
    va_end(args);
    return nWritten;
}

int32_t AppSscanf(const char *szText, const char *szFormat, ...)
{
    if (!szText || !szFormat)
        return 0;
    va_list args;
    va_start(args, szFormat);
    const int32_t nItems = _AppVsscanf(szText, szFormat, args);
    va_end(args);
    return nItems;
}
