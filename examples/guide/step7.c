// SPDX-License-Identifier: MIT
#include <appcore/appcore.h>
#include <stdio.h>

enum { READING_SIZE = 32 };

/* What station.xml says, and what holds where it says nothing. */
static struct {
    char achName[32];
    uint32_t dwInterval; /* milliseconds */
    TAppNetAddr tAddr;   /* the collector's */
    uint16_t wPort;      /* in network byte order */
} s_tSettings = {"station", 1000, {0}, 0};

static uint8_t s_byLog;
static HAppMemPool s_hPool;
static HAppQueue s_hReadings;

/* Texts handed out point into the tree: what is to outlive it is copied. */
static uint32_t ReadSettings(mxml_node_t *ptStation)
{
    const char *szText = NULL;
    uint16_t wPort = 0;
    if (AppXmlGetAttr_Str(ptStation, "name", &szText) == APP_OK)
        AppStrncpy(s_tSettings.achName, szText, sizeof(s_tSettings.achName));
    AppXmlGetSonNodeValue_u32(ptStation, "interval", &s_tSettings.dwInterval);
    uint32_t dwResult = AppXmlGetSonNodeValue_u16(ptStation, "collector/port", &wPort);
    s_tSettings.wPort = AppConvertHtons(wPort);
    if (dwResult == APP_OK)
        dwResult = AppXmlGetSonNodeValue_Str(ptStation, "collector/address", &szText);
    if (dwResult == APP_OK)
        dwResult = AppConvertStrtoNet(szText, &s_tSettings.tAddr);
    return dwResult;
}

static uint32_t LoadSettings(const char *szPath)
{
    char achText[4096];
    mxml_node_t *ptTree = NULL, *ptStation = NULL;
    FILE *ptFile = fopen(szPath, "r");
    if (!ptFile)
        return APP_NOT_FOUND;
    uint32_t dwLen = (uint32_t)fread(achText, 1, sizeof(achText), ptFile);
    fclose(ptFile);
    uint32_t dwResult = AppXmlLoad(achText, dwLen, &ptTree);
    if (dwResult == APP_OK) /* the tree begins with the declaration, <?xml …?> */
        dwResult = AppXmlGetSonNode(ptTree, "station", &ptStation);
    if (dwResult == APP_OK)
        dwResult = ReadSettings(ptStation);
    mxmlDelete(ptTree);
    return dwResult;
}

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
        AppTaskSetTimer(hTask, s_tSettings.dwInterval, NULL, NULL);
        Measure(++*pdwCount);
    }
    return 0;
}

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
    AppTaskSetTimer(hTask, 0, NULL, NULL);
    return 0;
}

static void Send(HAppSocket hSocket, const char *szReading)
{
    char achAnswer[8];
    uint32_t dwLen = sizeof(achAnswer);
    AppSocketUDPSend(hSocket, szReading, AppStrlen(szReading), 1000, &s_tSettings.tAddr,
                     s_tSettings.wPort);
    int32_t nBytes = AppSocketUDPRecv(hSocket, achAnswer, &dwLen, 5000, NULL, NULL, NULL, NULL);
    AppLog(s_byLog, APP_LOG_ALWAYS, "%s: an answer of %d bytes\n", s_tSettings.achName, nBytes);
}

int main(void)
{
    HAppTaskMgr hTaskMgr = NULL;
    HAppTask hSensor = NULL, hCollector = NULL;
    uint32_t dwCount = 0;
    void *pvReading = NULL;
    s_byLog = AppGenerateLogChannel();
    AppSetLogViaStdout(s_byLog, 0);
    uint32_t dwResult = LoadSettings("station.xml");
    if (dwResult != APP_OK) {
        AppLog(s_byLog, APP_LOG_ERROR, "[ERROR] %s: station.xml: %u\n", __func__, dwResult);
        return 1;
    }
    HAppSocket hServer = AppSocketCreate(NULL, APP_SOCKET_UDP, APP_NET_ADDR_IPV4);
    HAppSocket hClient = AppSocketCreate(NULL, APP_SOCKET_UDP, APP_NET_ADDR_IPV4);
    if (AppSocketBind(hServer, &s_tSettings.tAddr, s_tSettings.wPort, 0) != APP_OK ||
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
        Send(hClient, pvReading);
        AppMemPoolFree(pvReading);
    }
    AppTaskMgrDestroy(hTaskMgr);
    AppSocketDestroy(hClient);
    AppSocketDestroy(hServer);
    AppQueueDestroy(s_hReadings, NULL, NULL);
    AppMemPoolDestroy(s_hPool);
    return 0;
}
