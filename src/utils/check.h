// SPDX-License-Identifier: MIT
//
// Conditions that only builds with APPCORE_CHECKS verify: what callers must not do, where it would
// otherwise pass unseen, and what must hold of a structure after each change.  A broken one is
// reported on channel 0 and ends the process; nothing is logged while they hold.
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

// Whether a structure of so many elements is looked at as a whole now.  Each change pays for eight:
// small structures are verified every time, large ones when enough changes have paid, so that a
// change costs the same whatever the size and stress tests keep their rounds.  By thread, since
// some records have no room for a count; what one structure has paid another may spend.
inline bool CheckIsDue(uint32_t dwElements)
{
    static __thread uint32_t t_dwPaid = 0;
    t_dwPaid += 8;
    if (t_dwPaid < dwElements)
        return false;
    t_dwPaid -= dwElements;
    return true;
}
} // namespace app

#define APP_CHECK(condition, szWhat)                                                               \
    ((condition) ? static_cast<void>(0) : app::CheckFailed(__func__, (szWhat)))
// For conditions that cost a step for each element of a structure.
#define APP_CHECK_WHOLE(dwElements, condition, szWhat)                                             \
    APP_CHECK(!app::CheckIsDue(dwElements) || (condition), szWhat)
#else
#define APP_CHECK(condition, szWhat) static_cast<void>(0)
#define APP_CHECK_WHOLE(dwElements, condition, szWhat) static_cast<void>(0)
#endif

#endif
