// SPDX-License-Identifier: MIT
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

#include "appcore/appcore.h"

TEST(Log, ConsoleGetsWhatPassesTheThreshold)
{
    test::LogCapture log;
    AppLog(0, APP_LOG_ERROR, "%s %d\n", "kept", 16);
    AppLog(0, 17, "dropped\n");
    log.ExpectLines({"kept 16\n"});
}
