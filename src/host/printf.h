// SPDX-License-Identifier: MIT
#ifndef APPCORE_HOST_PRINTF_H
#define APPCORE_HOST_PRINTF_H

#include <stdarg.h>

#include "base/host.h"

// The stand-in's work.
extern "C" int32_t _AppQorVprintf(const char *szFormat, va_list args) APP_PRINTF(1, 0);

#endif
