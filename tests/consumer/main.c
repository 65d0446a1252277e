/* SPDX-License-Identifier: MIT */
#include "appcore/appcore.h"
#include "appcore/log_fast.h"

int main(void)
{
    HAppMemPool hMemPool = NULL;
    HAppQueue hQueue = NULL;
    int nElement = 42;
    void *pvTaken = NULL;
    if (AppMemPoolCreate(4096, 1, 0, &hMemPool) != APP_OK)
        return 1;
    if (AppQueueCreate(hMemPool, 4, 1, &hQueue) != APP_OK)
        return 2;
    if (AppQueueIn(hQueue, &nElement, 0) != APP_OK)
        return 3;
    if (AppQueueOut(hQueue, 0, &pvTaken) != APP_OK || pvTaken != &nElement)
        return 4;
    AppQueueDestroy(hQueue, NULL, NULL);
    AppMemPoolDestroy(hMemPool);
    APP_LOG_FAST(0, APP_LOG_DEBUG, "%d\n", ++nElement); /* off: nothing is counted */
    return nElement == 42 ? 0 : 5;
}
