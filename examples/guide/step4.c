// SPDX-License-Identifier: MIT
#include <appcore/appcore.h>

enum { READING_SIZE = 32, PRIORITY_ROUTINE = 0, PRIORITY_ALARM = 10 };

static uint8_t s_byLog;
static HAppMemPool s_hPool;
static HAppQueue s_hReadings;

static void Measure(uint32_t dwNumber, uint32_t dwTenths)
{
    char *szReading = AppMemPoolMalloc(s_hPool, READING_SIZE);
    if (!szReading)
        return;
    AppSnprintf(szReading, READING_SIZE, "reading %u: %u.%u degrees", dwNumber, dwTenths / 10,
                dwTenths % 10);
    int32_t nPriority = dwTenths >= 300 ? PRIORITY_ALARM : PRIORITY_ROUTINE;
    if (AppQueueIn(s_hReadings, szReading, nPriority) != APP_OK)
        AppMemPoolFree(szReading); /* what is refused stays ours */
}

int main(void)
{
    void *pvReading = NULL;
    uint32_t dwResult;
    s_byLog = AppGenerateLogChannel();
    AppSetLogViaStdout(s_byLog, 0);
    if (AppMemPoolCreate(16 * 1024, 1, 0, &s_hPool) != APP_OK ||
        AppQueueCreate(s_hPool, 4, 1, &s_hReadings) != APP_OK) /* 4 elements, with a lock */
        return 1;

    for (uint32_t i = 1; i <= 5; ++i)
        Measure(i, i == 3 ? 315 : 200 + i);
    while ((dwResult = AppQueueOut(s_hReadings, 50, &pvReading)) == APP_OK) {
        AppLog(s_byLog, APP_LOG_ALWAYS, "%s\n", (char *)pvReading);
        AppMemPoolFree(pvReading);
    }
    AppLog(s_byLog, APP_LOG_ALWAYS, "station: that was %u, APP_TIMEOUT is %u\n", dwResult,
           APP_TIMEOUT);
    AppQueueDestroy(s_hReadings, NULL, NULL);
    AppMemPoolDestroy(s_hPool);
    return 0;
}
