// SPDX-License-Identifier: MIT
#include <appcore/appcore.h>
#include <stdio.h>

static HAppMemPool s_hPool;

/* Runs in the task's thread: for the event, then for each timer. */
static uint32_t HandleBeat(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvQueue)
{
    (void)pvArg;
    if (dwEventType == APP_TASK_EVENT_USER || dwEventType == APP_TASK_EVENT_TIMEOUT) {
        AppQueueIn(pvQueue, AppStrndup(s_hPool, "beat", 5), 0); /* higher priorities come first */
        AppTaskSetTimer(hTask, 100, NULL, NULL);                /* one-shot: set it again */
    }
    return 0;
}

int main(void)
{
    HAppQueue hQueue = NULL;
    HAppTaskMgr hTaskMgr = NULL;
    HAppTask hTask = NULL;
    void *pvText = NULL;
    AppMemPoolCreate(64 * 1024, 1, 0, &s_hPool); /* never hands out more than 64 KiB */
    AppQueueCreate(s_hPool, 8, 1, &hQueue);
    AppTaskMgrCreate(s_hPool, 4, 0, &hTaskMgr);
    AppTaskMgrNewTask(hTaskMgr, "beat", 8, 65536, 0, 0, HandleBeat, hQueue, &hTask);
    AppTaskSendEvent(hTask, NULL, NULL, NULL);
    for (int i = 0; i < 3 && AppQueueOut(hQueue, 5000, &pvText) == APP_OK; ++i) {
        puts(pvText);
        AppMemPoolFree(pvText); /* the block knows its pool */
    }
    AppTaskMgrDestroy(hTaskMgr); /* waits for the thread and cancels the timer */
    AppQueueDestroy(hQueue, NULL, NULL);
    AppMemPoolDestroy(s_hPool);
    return 0;
}
