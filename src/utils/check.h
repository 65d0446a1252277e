// SPDX-License-Identifier: MIT
//
// Conditions that only builds with APPCORE_CHECKS verify: what callers must not do, where it would
// otherwise pass unseen.  A broken one is reported on channel 0 and ends the process.
#ifndef APPCORE_UTILS_CHECK_H
#define APPCORE_UTILS_CHECK_H

#ifdef APPCORE_CHECKS
#include <stdlib.h>

#include "appcore/foundation.h"
#include "utils/held_lines.h"

namespace app
{
[[noreturn]] inline void CheckFailed(const char *szOp, const char *szWhat)
{
    LinesAtOnce last; // no lock will be given any more
    last.PrintHeld();
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: %s\n", szOp, szWhat);
    abort();
}
} // namespace app

#define APP_CHECK(condition, szWhat)                                                               \
    ((condition) ? static_cast<void>(0) : app::CheckFailed(__func__, (szWhat)))
#else
#define APP_CHECK(condition, szWhat) static_cast<void>(0)
#endif

#endif
