// SPDX-License-Identifier: MIT
#include "appcore/host.h"

#include <stdarg.h>
#include <stdio.h>

extern "C" __attribute__((weak)) int32_t QorPrintf(int32_t, int32_t, const char *szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    const int nWritten = vfprintf(stderr, szFormat, args);
    va_end(args);
    return nWritten;
}
