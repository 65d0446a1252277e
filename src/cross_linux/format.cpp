// SPDX-License-Identifier: MIT
#include <stdio.h>
#include <strings.h>

#include "cross_linux/cross_linux.h"

int32_t _AppVsnprintf(char *szBuf, uint32_t dwSize, const char *szFormat, va_list args)
{
    const int nWritten = vsnprintf(szBuf, dwSize, szFormat, args);
    // An error, -1, is larger than any buffer once it is unsigned.
    return static_cast<uint32_t>(nWritten) < dwSize ? nWritten : -1;
}

int32_t _AppVsscanf(const char *szText, const char *szFormat, va_list args)
{
    return vsscanf(szText, szFormat, args);
}

int32_t _AppStrcasecmp(const char *szFirst, const char *szSecond)
{
    return strcasecmp(szFirst, szSecond);
}

int32_t _AppStrncasecmp(const char *szFirst, const char *szSecond, uint32_t dwCount)
{
    return strncasecmp(szFirst, szSecond, dwCount);
}
