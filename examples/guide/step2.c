// SPDX-License-Identifier: MIT
#include <appcore/appcore.h>

static uint8_t s_byLog; /* this program's channel; the library itself logs on channel 0 */

int main(void)
{
    s_byLog = AppGenerateLogChannel();
    AppLog(s_byLog, APP_LOG_ALWAYS, "station: on the console and on standard output\n");
    AppSetLogViaStdout(s_byLog, 0);
    AppLog(s_byLog, APP_LOG_ALWAYS, "station: on the console\n");

    AppSetFileLog(s_byLog, "station.log", 64 * 1024); /* rotates to station.log1 */
    AppLog(s_byLog, APP_LOG_ALWAYS, "station: level 0, on the console and in the file\n");
    AppLog(s_byLog, APP_LOG_INFO, "[INFO ] %s: level 1, on the console only\n", __func__);
    AppLog(s_byLog, APP_LOG_DEBUG, "[DEBUG] %s: beyond the threshold, nowhere\n", __func__);
    AppLogFile(s_byLog, APP_LOG_ALWAYS, "station: in the file only\n");
    AppSetLogLevel(s_byLog, APP_LOG_DEBUG);
    AppLog(s_byLog, APP_LOG_DEBUG, "[DEBUG] %s: now within it\n", __func__);
    AppCloseFileLog(s_byLog);
    return 0;
}
