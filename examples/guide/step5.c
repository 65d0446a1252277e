// SPDX-License-Identifier: MIT
#include <appcore/appcore.h>

enum { READING_SIZE = 32 };

static uint8_t s_byLog;
static HAppMemPool s_hPool;
static HAppQueue s_hReadings;

static void Measure(uint32_t dwNumber)
{
    char *szReading = AppMemPoolMalloc(s_hPool, READING_SIZE);
    if (!szReading)
        return;
    AppSnprintf(szReading, READING_SIZE, "reading %u: 20.%u degrees", dwNumber, dwNumber % 10);
    if (AppQueueIn(s_hReadings, szReading, 0) != APP_OK)
        AppMemPoolFree(szReading);
}

/* In the task's thread: for its events and its timers, one after the other. */
static uint32_t HandleSensor(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvCount)
{
    uint32_t *pdwCount = pvCount;
    switch (dwEventType) {
    case APP_TASK_EVENT_USER:
        AppLog(s_byLog, APP_LOG_ALWAYS, "sensor: %s\n", (char *)pvArg);
        AppTaskSetTimer(hTask, 100, NULL, NULL); /* told to this handler too */
        break;
    case APP_TASK_EVENT_TIMEOUT:
        AppTaskSetTimer(hTask, 100, NULL, NULL); /* one-shot: set it again */
        Measure(++*pdwCount);
        break;
    case APP_TASK_EVENT_TIMER_CANCEL:
        AppLog(s_byLog, APP_LOG_ALWAYS, "sensor: its timer is cancelled\n");
        break;
    }
    return 0;
}

int main(void)
{
    HAppTaskMgr hTaskMgr = NULL;
    HAppTask hSensor = NULL;
    uint32_t dwCount = 0; /* the sensor's, until the manager is destroyed */
    void *pvReading = NULL;
    s_byLog = AppGenerateLogChannel();
    AppSetLogViaStdout(s_byLog, 0);
    if (AppMemPoolCreate(64 * 1024, 1, 0, &s_hPool) != APP_OK ||
        AppQueueCreate(s_hPool, 64, 1, &s_hReadings) != APP_OK ||
        AppTaskMgrCreate(s_hPool, 4, 30000, &hTaskMgr) != APP_OK ||
        AppTaskMgrNewTask(hTaskMgr, "sensor", 8, 24 * 1024, 0, 0, HandleSensor, &dwCount,
                          &hSensor) != APP_OK)
        return 1;

    AppTaskSendEvent(hSensor, "measure ten times a second", NULL, NULL);
    for (int i = 0; i < 3 && AppQueueOut(s_hReadings, 5000, &pvReading) == APP_OK; ++i) {
        AppLog(s_byLog, APP_LOG_ALWAYS, "%s\n", (char *)pvReading);
        AppMemPoolFree(pvReading);
    }
    AppTaskMgrDestroy(hTaskMgr); /* waits for the thread; what it used may go afterwards */
    AppQueueDestroy(s_hReadings, NULL, NULL);
    AppMemPoolDestroy(s_hPool);
    return 0;
}
