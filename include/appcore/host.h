/* SPDX-License-Identifier: MIT */
/**
 * @file host.h
 * What the device's platform library and the host application must provide.
 *
 * A build with stand-ins (the default) brings a weak definition of each that does real work on any
 * Linux; a definition in the application overrides it.  A device build takes them from `libqor.so`
 * and from the process.
 */
#ifndef APPCORE_HOST_H
#define APPCORE_HOST_H

#include "appcore/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Prints on the platform's console.  Receives every log line that passes its threshold, from any
 * thread.  Stand-in: standard error.
 * @param nFlag1   always 1
 * @param nFlag2   always 0
 * @param szFormat printf format, always "%s"
 * @return ignored
 */
APP_API int32_t QorPrintf(int32_t nFlag1, int32_t nFlag2, const char *szFormat, ...)
    APP_PRINTF(3, 4);

#ifdef __cplusplus
}
#endif

#endif
