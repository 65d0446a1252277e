/* SPDX-License-Identifier: MIT */
/**
 * @file appcore.h
 * The whole library, without host.h: what the device and the application provide is the business of
 * the few sources that provide it; and without log_fast.h, which has its price.  Programs that do
 * not use the XML helpers may include the single headers and need no Mini-XML headers then.
 */
#ifndef APPCORE_APPCORE_H
#define APPCORE_APPCORE_H

#include "appcore/containers.h"
#include "appcore/convert.h"
#include "appcore/enum_str.h"
#include "appcore/foundation.h"
#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "appcore/share_action.h"
#include "appcore/socket.h"
#include "appcore/stats.h"
#include "appcore/task.h"
#include "appcore/xml.h"

#ifdef __cplusplus
extern "C" {
#endif

/** @name Version
 * That of the headers a program is compiled with.  The build takes it from here.
 * @{ */
#define APPCORE_VERSION_MAJOR 1 /**< a new one when programs have to be built anew */
#define APPCORE_VERSION_MINOR 1 /**< a new one when something has been added */
#define APPCORE_VERSION_PATCH 0 /**< a new one when something has been mended */
/** The three as one number, to compare: 10203 is 1.2.3. */
#define APPCORE_VERSION                                                                            \
    (APPCORE_VERSION_MAJOR * 10000 + APPCORE_VERSION_MINOR * 100 + APPCORE_VERSION_PATCH)
/** @cond */
#define APPCORE_VERSION_JOIN(nMajor, nMinor, nPatch) #nMajor "." #nMinor "." #nPatch
#define APPCORE_VERSION_TEXT(nMajor, nMinor, nPatch) APPCORE_VERSION_JOIN(nMajor, nMinor, nPatch)
/** @endcond */
/** The three as a text, such as "1.2.3". */
#define APPCORE_VERSION_STRING                                                                     \
    APPCORE_VERSION_TEXT(APPCORE_VERSION_MAJOR, APPCORE_VERSION_MINOR, APPCORE_VERSION_PATCH)

/**
 * The version of the library that has been loaded, which may be newer than the headers.  From any
 * thread.
 * @return its ::APPCORE_VERSION_STRING, a constant
 */
APP_API const char *AppGetVersion(void);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
