// SPDX-License-Identifier: MIT
//
// What the library itself needs for its log lines: the threshold test in front of a call, and with
// base/print.h the casts of their arguments.  The one header of this folder that the platform layer
// below includes.
#ifndef APPCORE_UTILS_LOG_H
#define APPCORE_UTILS_LOG_H

#include <atomic>

#include "appcore/foundation.h"
#include "base/field.h"
#include "base/print.h"

extern "C" {
// Written by the setters while other threads log.  Each entry stands for itself, so relaxed order
// is enough: a line around a change is judged by the old threshold or the new one.
extern std::atomic<uint8_t> g_byAppLogLevel[256];
extern std::atomic<uint32_t> g_bAppLogViaStdout[256];
extern std::atomic<uint8_t> g_byAppLogNextChannel;
}

// AppLog on channel 0 for the levels that are normally off: the threshold is tested before the
// arguments are even evaluated.
#define APP_TRACE(byLevel, ...)                                                                    \
    do {                                                                                           \
        if ((byLevel) <= app::Peek(g_byAppLogLevel[0]))                                            \
            AppLog(0, (byLevel), __VA_ARGS__);                                                     \
    } while (0)

#endif
