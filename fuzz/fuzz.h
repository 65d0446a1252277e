// SPDX-License-Identifier: MIT
#ifndef APPCORE_FUZZ_FUZZ_H
#define APPCORE_FUZZ_FUZZ_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

// Ends the run, with a report, when an answer is wrong.
inline void Require(bool bHolds)
{
    if (!bHolds)
        abort();
}

// The input as a text; a NUL inside ends it, as it would in a document.
inline std::string AsText(const uint8_t *pbyData, size_t nSize)
{
    return std::string(reinterpret_cast<const char *>(pbyData), nSize).c_str();
}

// The console stays silent: refused inputs are the rule here.
#define APP_FUZZ_SILENT_CONSOLE                                                                    \
    extern "C" int32_t QorPrintf(int32_t, int32_t, const char *, ...)                              \
    {                                                                                              \
        return 0;                                                                                  \
    }

#endif
