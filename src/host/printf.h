// SPDX-License-Identifier: MIT
#ifndef APPCORE_HOST_PRINTF_H
#define APPCORE_HOST_PRINTF_H

#include <stdarg.h>

#include "host/call.h"

// Of what decltype() tells, the check of formats is not a part everywhere.
extern "C" int32_t _AppQorPrintf(int32_t nFlag1, int32_t nFlag2, const char *szFormat, ...)
    APP_PRINTF(3, 4);
extern "C" int32_t _AppQorVprintf(const char *szFormat, va_list args) APP_PRINTF(1, 0);

#endif
