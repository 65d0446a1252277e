// SPDX-License-Identifier: MIT
#include <appcore/appcore.h>

enum { READING_SIZE = 32, COLLECTOR_PORT = 47000 };

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

static uint32_t HandleSensor(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvCount)
{
    uint32_t *pdwCount = pvCount;
    (void)pvArg;
    if (dwEventType == APP_TASK_EVENT_USER || dwEventType == APP_TASK_EVENT_TIMEOUT) {
        AppTaskSetTimer(hTask, 100, NULL, NULL);
        Measure(++*pdwCount);
    }
    return 0;
}

/* The far end.  Between two looks the task's events have their turn, and its end. */
static uint32_t HandleCollector(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvSocket)
{
    char achText[READING_SIZE];
    uint32_t dwLen = sizeof(achText) - 1;
    TAppNetAddr tSender;
    uint16_t wSenderPort;
    (void)pvArg;
    if (dwEventType != APP_TASK_EVENT_USER && dwEventType != APP_TASK_EVENT_TIMEOUT)
        return 0;
    if (AppSocketUDPRecv(pvSocket, achText, &dwLen, 200, NULL, NULL, &tSender, &wSenderPort) > 0) {
        achText[dwLen] = '\0';
        AppLog(s_byLog, APP_LOG_ALWAYS, "collector: %s\n", achText);
        AppSocketUDPSend(pvSocket, "ok", 2, 200, &tSender, wSenderPort);
    }
    AppTaskSetTimer(hTask, 0, NULL, NULL); /* a timer of 0 ms expires at once */
    return 0;
}

static void Send(HAppSocket hSocket, const TAppNetAddr *ptAddr, const char *szReading)
{
    char achAnswer[8];
    uint32_t dwLen = sizeof(achAnswer);
    AppSocketUDPSend(hSocket, szReading, AppStrlen(szReading), 1000, ptAddr,
                     AppConvertHtons(COLLECTOR_PORT));
    int32_t nBytes = AppSocketUDPRecv(hSocket, achAnswer, &dwLen, 5000, NULL, NULL, NULL, NULL);
    AppLog(s_byLog, APP_LOG_ALWAYS, "station: an answer of %d bytes\n", nBytes);
}

int main(void)
{
    HAppTaskMgr hTaskMgr = NULL;
    HAppTask hSensor = NULL, hCollector = NULL;
    uint32_t dwCount = 0;
    void *pvReading = NULL;
    TAppNetAddr tLoopback;
    s_byLog = AppGenerateLogChannel();
    AppSetLogViaStdout(s_byLog, 0);
    HAppSocket hServer = AppSocketCreate(NULL, APP_SOCKET_UDP, APP_NET_ADDR_IPV4);
    HAppSocket hClient = AppSocketCreate(NULL, APP_SOCKET_UDP, APP_NET_ADDR_IPV4);
    if (AppConvertStrtoNet("127.0.0.1", &tLoopback) != APP_OK ||
        AppSocketBind(hServer, &tLoopback, AppConvertHtons(COLLECTOR_PORT), 0) != APP_OK ||
        AppMemPoolCreate(64 * 1024, 1, 0, &s_hPool) != APP_OK ||
        AppQueueCreate(s_hPool, 64, 1, &s_hReadings) != APP_OK ||
        AppTaskMgrCreate(s_hPool, 4, 30000, &hTaskMgr) != APP_OK ||
        AppTaskMgrNewTask(hTaskMgr, "sensor", 8, 24 * 1024, 0, 0, HandleSensor, &dwCount,
                          &hSensor) != APP_OK ||
        AppTaskMgrNewTask(hTaskMgr, "collector", 8, 24 * 1024, 0, 0, HandleCollector, hServer,
                          &hCollector) != APP_OK)
        return 1;

    AppTaskSendEvent(hCollector, NULL, NULL, NULL);
    AppTaskSendEvent(hSensor, NULL, NULL, NULL);
    for (int i = 0; i < 3 && AppQueueOut(s_hReadings, 5000, &pvReading) == APP_OK; ++i) {
        Send(hClient, &tLoopback, pvReading);
        AppMemPoolFree(pvReading);
    }
    AppTaskMgrDestroy(hTaskMgr); /* first: its tasks use all the rest */
    AppSocketDestroy(hClient);
    AppSocketDestroy(hServer);
    AppQueueDestroy(s_hReadings, NULL, NULL);
    AppMemPoolDestroy(s_hPool);
    return 0;
}
