// SPDX-License-Identifier: MIT
#include "appcore/appcore.h"
#include "appcore/host.h"

#include <atomic>

static std::atomic<int> g_nLines{0};

// An application's definition takes the stand-in's place, in the shared library too.
extern "C" int32_t QorPrintf(int32_t, int32_t, const char *, ...)
{
    ++g_nLines;
    return 0;
}

int main()
{
    AppLog(0, APP_LOG_ALWAYS, "one line\n");
    return g_nLines == 1 ? 0 : 1;
}
