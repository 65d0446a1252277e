// SPDX-License-Identifier: MIT
//
// What the library itself needs for its log lines: the threshold test in front of a call, the line
// of a result code, and with base/print.h the casts of the arguments.
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

namespace app
{
// Whether the library's own lines of a level are wanted.
inline bool Traces(uint8_t byLevel)
{
    return byLevel <= Peek(g_byAppLogLevel[0]);
}
} // namespace app

// AppLog on channel 0 for the levels that are normally off: the threshold is tested before the
// arguments are even evaluated.
#define APP_TRACE(byLevel, ...)                                                                    \
    do {                                                                                           \
        if (app::Traces(byLevel))                                                                  \
            AppLog(0, (byLevel), __VA_ARGS__);                                                     \
    } while (0)

// Logs the failure of another operation: the format and its arguments, of which the last one, the
// result code (%d), is added here.
#define APP_LOG_RESULT(dwResult, ...) AppLog(0, APP_LOG_ERROR, __VA_ARGS__, app::Int(dwResult))

#endif
