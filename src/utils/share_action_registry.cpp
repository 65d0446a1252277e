// SPDX-License-Identifier: MIT
#include "utils/share_action_registry.h"

#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "base/field.h"
#include "base/print.h"
#include "base/rollback.h"
#include "utils/lock_guard.h"
#include "utils/report_writer.h"

std::atomic<HAppDoubleList> g_hAppShareActionList;
std::atomic<HAppLock> g_hAppShareActionRecursiveLock;
char g_achAppShareActionLastCalledKey[APP_SHARE_ACTION_KEY_SIZE];
std::atomic<uint32_t> g_eAppShareActionLastCalledResult;

namespace
{

constexpr uint32_t kSlots = 1024;

TAppShareAction *s_aptIndex[kSlots]; // under the list's lock
std::atomic<uint32_t> s_bCreating;   // one thread at a time creates the registry

HAppDoubleList Registry()
{
    return g_hAppShareActionList.load(std::memory_order_acquire);
}

uint32_t CreateRegistry()
{
    HAppLock hLock = nullptr;
    uint32_t dwResult = AppLockCreate(nullptr, 1, 1, APP_LOCK_TYPE_RECURSIVE, &hLock);
    if (dwResult != APP_OK)
        return dwResult;
    HAppDoubleList hList = nullptr;
    dwResult = AppDoubleListCreate(nullptr, 4294967295u, 1, &hList);
    if (dwResult != APP_OK) {
        AppLockDestroy(hLock);
        return dwResult;
    }
    // The list last: whoever sees it finds the lock too.
    g_hAppShareActionRecursiveLock.store(hLock, std::memory_order_release);
    g_hAppShareActionList.store(hList, std::memory_order_release);
    return APP_OK;
}

// There is no lock yet that could keep a second thread out, so it waits in short sleeps.
uint32_t EnsureRegistry()
{
    if (Registry())
        return APP_OK;
    while (s_bCreating.exchange(1, std::memory_order_acquire) != 0)
        AppDelay(1);
    const uint32_t dwResult = Registry() ? static_cast<uint32_t>(APP_OK) : CreateRegistry();
    s_bCreating.store(0, std::memory_order_release);
    return dwResult;
}

// Under the list's lock, which guards the index too.
const TAppShareAction *FindEntry(const char *szKey)
{
    app::AssertHeld(Registry());
    const uint32_t dwHash = AppStringHash(szKey);
    const TAppShareAction *ptEntry = s_aptIndex[dwHash % kSlots];
    while (ptEntry && (ptEntry->dwHash != dwHash || AppStrcmp(ptEntry->achKey, szKey) != 0))
        ptEntry = ptEntry->ptNextSame;
    return ptEntry;
}

// Under the list's lock.
uint32_t AddEntry(HAppDoubleList hList, const char *szKey, PFAppShareAction pfnAction,
                  uint32_t bBlock)
{
    auto ptEntry =
        static_cast<TAppShareAction *>(AppMemPoolMalloc(nullptr, sizeof(TAppShareAction)));
    if (!ptEntry)
        return APP_NO_RESOURCE;
    *ptEntry = {};
    ptEntry->dwHash = AppStringHash(szKey);
    AppSnprintf(ptEntry->achKey, sizeof(ptEntry->achKey), "%s", szKey);
    ptEntry->pfnAction = pfnAction;
    ptEntry->bBlock = bBlock;
    const uint32_t dwResult = AppDoubleListInsertAfter(hList, nullptr, ptEntry, nullptr);
    if (dwResult != APP_OK) {
        AppMemPoolFree(ptEntry);
        return dwResult;
    }
    TAppShareAction **pptSlot = &s_aptIndex[ptEntry->dwHash % kSlots];
    ptEntry->ptNextSame = *pptSlot;
    *pptSlot = ptEntry;
    return APP_OK;
}

// Looks the action up and notes it as the last one called.  The note is made under the list's lock,
// which the report holds too: a key is never seen half written.
PFAppShareAction BeginAction(HAppDoubleList hList, const char *szKey, uint32_t *pbBlock)
{
    app::LockGuard guard(hList);
    PFAppShareAction pfnAction = _AppFindShareAction(hList, szKey, pbBlock);
    if (pfnAction) {
        AppStrncpy(g_achAppShareActionLastCalledKey, szKey, APP_SHARE_ACTION_KEY_SIZE);
        app::Poke<uint32_t>(g_eAppShareActionLastCalledResult, APP_IN_PROGRESS);
    }
    return pfnAction;
}

} // namespace

uint32_t _AppRegisterShareAction(const char *szKey, PFAppShareAction pfnAction, uint32_t bBlock)
{
    if (!szKey || AppStrlen(szKey) >= APP_SHARE_ACTION_KEY_SIZE)
        return APP_INVALID_ARG;
    const uint32_t dwResult = EnsureRegistry();
    if (dwResult != APP_OK)
        return dwResult;
    HAppDoubleList hList = Registry();
    app::LockGuard guard(hList);
    if (FindEntry(szKey))
        return APP_OK;
    return AddEntry(hList, szKey, pfnAction, bBlock);
}

uint32_t AppRegisterShareAction(const char *szKey, PFAppShareAction pfnAction)
{
    return _AppRegisterShareAction(szKey, pfnAction, 0);
}

uint32_t AppRegisterBlockShareAction(const char *szKey, PFAppShareAction pfnAction)
{
    return _AppRegisterShareAction(szKey, pfnAction, 1);
}

PFAppShareAction _AppFindShareAction(HAppDoubleList hList, const char *szKey, uint32_t *pbBlock)
{
    // The index covers the registry's list, the only one there is.
    const TAppShareAction *ptEntry = hList == Registry() ? FindEntry(szKey) : nullptr;
    if (!ptEntry)
        return nullptr;
    if (pbBlock)
        *pbBlock = ptEntry->bBlock;
    return ptEntry->pfnAction;
}

uint32_t AppRunShareAction(const char *szKey, uint32_t dwArg1, uint32_t dwArg2, uint32_t dwArg3,
                           uint32_t *pdwResult)
{
    HAppDoubleList hList = Registry();
    if (!hList)
        return APP_FAILED;
    AppShareActionLock();
    app::Rollback unlock([] { AppShareActionUnlock(); });
    uint32_t bBlock = 0;
    // Entries are never removed, so what has been found stays good after the list's lock.
    PFAppShareAction pfnAction = BeginAction(hList, szKey, &bBlock);
    if (!pfnAction)
        return APP_INVALID_ARG;
    if (bBlock == 1) {
        unlock.Dismiss();
        AppShareActionUnlock();
    }
    const uint32_t dwResult = pfnAction(dwArg1, dwArg2, dwArg3);
    if (pdwResult)
        *pdwResult = dwResult;
    // Of actions that run at once the last to return is told.
    app::Poke(g_eAppShareActionLastCalledResult, dwResult);
    return APP_OK;
}

// The lock's operations refuse a null handle.
uint32_t AppShareActionLock(void)
{
    APP_CHECK(!app::HeldLock::HoldsAny(), "the actions' lock is taken under another");
    return AppLockTakeByTime(g_hAppShareActionRecursiveLock.load(std::memory_order_acquire), 0);
}

uint32_t AppShareActionUnlock(void)
{
    return AppLockGive(g_hAppShareActionRecursiveLock.load(std::memory_order_acquire));
}

void AppShareActionShow(PFAppShow pfnShow, void *pvContext)
{
    HAppDoubleList hList = Registry();
    if (!hList)
        return;
    app::ReportWriter writer(pfnShow, pvContext);
    {
        app::LockGuard guard(hList);
        writer.Line("Last called action: %s result %d\n", g_achAppShareActionLastCalledKey,
                    app::Int(app::Peek(g_eAppShareActionLastCalledResult)));
        writer.Line("========================================\n");
        int nEntry = 0;
        for (HAppDoubleListNode hNode = hList->ptHead; hNode; hNode = hNode->ptNext) {
            auto ptEntry = static_cast<const TAppShareAction *>(hNode->pvData);
            writer.Line("[%d/%d] Hash %u Key %s Addr %p\n", ++nEntry, app::Int(hList->dwCurSize),
                        ptEntry->dwHash, ptEntry->achKey, app::Ptr(ptEntry->pfnAction));
        }
    }
    writer.HandOver();
}
