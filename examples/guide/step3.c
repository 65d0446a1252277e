// SPDX-License-Identifier: MIT
#include <appcore/appcore.h>

static uint8_t s_byLog;

int main(void)
{
    HAppMemPool hPool = NULL;
    void *apvBlocks[16];
    uint32_t dwBlocks = 0;
    s_byLog = AppGenerateLogChannel();
    AppSetLogViaStdout(s_byLog, 0);

    if (AppMemPoolCreate(1000, 1, 0, &hPool) != APP_OK) /* 1: with a lock */
        return 1;                                       /* why, is in the log */
    while (dwBlocks < 16 && (apvBlocks[dwBlocks] = AppMemPoolMalloc(hPool, 100)) != NULL)
        ++dwBlocks;
    AppLog(s_byLog, APP_LOG_ALWAYS, "station: %u blocks of 100 bytes\n", dwBlocks);

    AppMemPoolFree(apvBlocks[0]); /* the block knows its pool */
    char *szPlace = AppStrndup(hPool, "on the roof", 100);
    AppLog(s_byLog, APP_LOG_ALWAYS, "station: %s\n", szPlace ? szPlace : "nowhere");
    AppMemPoolDestroy(hPool); /* and every block that is left */
    return 0;
}
