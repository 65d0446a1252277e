// SPDX-License-Identifier: MIT
//
// The list never takes its lock but to be destroyed: its users walk it through its fields, and what
// they do is more than one operation (find and insert, walk and print), so they hold the lock.
#include "utils/double_list.h"

#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "base/rollback.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

#if UINTPTR_MAX == UINT32_MAX
static_assert(sizeof(TAppDoubleList) == 24 && offsetof(TAppDoubleList, dwCurSize) == 16);
static_assert(sizeof(TAppDoubleListNode) == 12);
#endif

void _AppDoubleListAttachNode(HAppDoubleList hList, HAppDoubleListNode hAnchor,
                              HAppDoubleListNode hNode, uint32_t dwFlag)
{
    // Every case is "between two neighbours"; null neighbours are the ends of the list.
    HAppDoubleListNode hPrev = hList->ptTail;
    HAppDoubleListNode hNext = nullptr;
    if (hAnchor && dwFlag == APP_ATTACH_BEFORE) {
        hPrev = hAnchor->ptPrev;
        hNext = hAnchor;
    } else if (hAnchor) {
        hPrev = hAnchor;
        hNext = hAnchor->ptNext;
    }
    // Whatever the maximum: a move between two lists must not fail half-way.
    app::LinkNode(hList, hPrev, hNode, hNext);
}

void _AppDoubleListDetachNode(HAppDoubleList hList, HAppDoubleListNode hNode)
{
    app::UnlinkNode(hList, hNode);
}

[[gnu::cold]] uint32_t AppDoubleListCreate(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t bLock,
                                           HAppDoubleList *phList)
{
    if (!phList)
        return APP_INVALID_ARG;
    *phList = nullptr;
    auto hList = static_cast<HAppDoubleList>(AppMemPoolMalloc(hMemPool, sizeof(TAppDoubleList)));
    if (!hList) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", __func__);
        return APP_NO_RESOURCE;
    }
    *hList = {};
    hList->dwMaxSize = dwMaxSize;
    hList->hMemPool = hMemPool;
    if (bLock == 1) {
        const uint32_t dwResult = AppLockCreate(hMemPool, 1, 1, APP_LOCK_TYPE_SEM, &hList->hLock);
        if (dwResult != APP_OK) {
            APP_LOG_RESULT(dwResult, "[ERROR] %s: AppLockCreate failed %d\n", __func__);
            AppMemPoolFree(hList);
            return dwResult;
        }
    }
    *phList = hList;
    return APP_OK;
}

[[gnu::cold]] void AppDoubleListDestroy(HAppDoubleList hList, PFAppFree pfnFree, void *pvContext)
{
    if (!hList)
        return;
    // Waits for a user that is still inside an operation; never given back.
    app::LockGuard guard(hList);
    guard.Release();
    while (hList->dwCurSize != 0) {
        void *pvData = nullptr;
        // Out of the list before the callback, which may look at those that are left.
        AppDoubleListRemove(hList, hList->ptHead, &pvData);
        if (pfnFree)
            pfnFree(pvData, pvContext);
    }
    AppLockDestroy(hList->hLock);
    hList->hLock = nullptr;
    AppMemPoolFree(hList);
}

static uint32_t Insert(HAppDoubleList hList, HAppDoubleListNode hAnchor, void *pvData,
                       HAppDoubleListNode *phNode, uint32_t dwFlag, const char *szOp)
{
    if (!hList)
        return APP_INVALID_ARG;
    if (phNode)
        *phNode = nullptr;
    if (hList->dwMaxSize != 0 && hList->dwCurSize >= hList->dwMaxSize) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: List full. cur size: %lu max size: %lu\n", szOp,
               app::Ul(hList->dwCurSize), app::Ul(hList->dwMaxSize));
        return APP_NO_RESOURCE;
    }
    auto hNode = static_cast<HAppDoubleListNode>(
        AppMemPoolMalloc(hList->hMemPool, sizeof(TAppDoubleListNode)));
    if (!hNode) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppMemPoolMalloc failed\n", szOp);
        return APP_NO_RESOURCE;
    }
    hNode->pvData = pvData;
    _AppDoubleListAttachNode(hList, hAnchor, hNode, dwFlag);
    if (phNode)
        *phNode = hNode;
    return APP_OK;
}

uint32_t AppDoubleListInsertAfter(HAppDoubleList hList, HAppDoubleListNode hAnchor, void *pvData,
                                  HAppDoubleListNode *phNode)
{
    return Insert(hList, hAnchor, pvData, phNode, APP_ATTACH_AFTER, __func__);
}

uint32_t AppDoubleListInsertBefore(HAppDoubleList hList, HAppDoubleListNode hAnchor, void *pvData,
                                   HAppDoubleListNode *phNode)
{
    return Insert(hList, hAnchor, pvData, phNode, APP_ATTACH_BEFORE, __func__);
}

uint32_t AppDoubleListRemove(HAppDoubleList hList, HAppDoubleListNode hNode, void **ppvData)
{
    if (!hList || !hNode || hList->dwCurSize == 0)
        return APP_INVALID_ARG;
    _AppDoubleListDetachNode(hList, hNode);
    if (ppvData)
        *ppvData = hNode->pvData;
    AppMemPoolFree(hNode);
    return APP_OK;
}

#ifdef APPCORE_CHECKS
bool app::ListIsValid(const TAppDoubleList *ptList)
{
    uint32_t dwCount = 0;
    const TAppDoubleListNode *ptPrev = nullptr;
    for (const TAppDoubleListNode *ptNode = ptList->ptHead; ptNode; ptNode = ptNode->ptNext) {
        if (ptNode->ptPrev != ptPrev || ++dwCount > ptList->dwCurSize)
            return false;
        ptPrev = ptNode;
    }
    return ptList->ptTail == ptPrev && dwCount == ptList->dwCurSize;
}
#endif
