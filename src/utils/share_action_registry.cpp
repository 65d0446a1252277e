// SPDX-License-Identifier: MIT
#include "utils/share_action_registry.h"

#include <string.h>

#include "appcore/mempool.h"
#include "base/field.h"
#include "base/print.h"
#include "base/rollback.h"
#include "cross_linux/cross_linux.h"
#include "utils/lock_guard.h"
#include "utils/report_writer.h"

std::atomic<HAppDoubleList> g_hAppShareActionList;
std::atomic<HAppLock> g_hAppShareActionRecursiveLock;
char g_achAppShareActionLastCalledKey[APP_SHARE_ACTION_KEY_SIZE];
std::atomic<uint32_t> g_eAppShareActionLastCalledResult;

namespace
{

constexpr unsigned kSlotBits = 10;
constexpr size_t kWordBits = sizeof(size_t) * 8;
constexpr size_t kWords = APP_SHARE_ACTION_KEY_SIZE / sizeof(size_t);

// Chains of entries.  Written under the list's lock, with release once an entry is complete, and
// read with acquire and no lock: entries are never removed.
std::atomic<TAppShareAction *> s_aptIndex[1u << kSlotBits];
std::atomic<const TAppShareAction *> s_ptLastCalled;
std::atomic<uint32_t> s_bCreating; // one thread at a time creates the registry

HAppDoubleList Registry()
{
    return g_hAppShareActionList.load(std::memory_order_acquire);
}

HAppLock ActionsLock()
{
    return g_hAppShareActionRecursiveLock.load(std::memory_order_acquire);
}

[[gnu::cold]] uint32_t CreateRegistry()
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
[[gnu::cold]] uint32_t EnsureRegistry()
{
    if (Registry())
        return APP_OK;
    while (s_bCreating.exchange(1, std::memory_order_acquire) != 0)
        AppDelay(1);
    const uint32_t dwResult = Registry() ? static_cast<uint32_t>(APP_OK) : CreateRegistry();
    s_bCreating.store(0, std::memory_order_release);
    return dwResult;
}

// A key as numbers, with zeros behind its end: compared, and spread over the slots, in a few steps.
struct TKey {
    size_t anWord[kWords];
};

// The same whatever the order of bytes: the first one is the lowest.
size_t LoadWord(const char *achText)
{
    size_t nWord;
    memcpy(&nWord, achText, sizeof(nWord));
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    nWord = sizeof(nWord) == 8 ? __builtin_bswap64(nWord) : __builtin_bswap32(nWord);
#endif
    return nWord;
}

// The last word of a text of `nLen` characters, which does not fill it.
size_t LoadTail(const char *szText, size_t nLen)
{
    if (nLen > sizeof(size_t)) // of the last characters the first ones are in the word before
        return LoadWord(szText + nLen - sizeof(size_t)) >> (kWordBits - nLen % sizeof(size_t) * 8);
    size_t nWord = 0;
    while (nLen-- > 0)
        nWord = nWord << 8 | static_cast<uint8_t>(szText[nLen]);
    return nWord;
}

// False for a text that is too long for a key.
bool LoadKey(const char *szText, TKey *ptKey)
{
    const size_t nLen = AppStrlen(szText);
    if (nLen >= APP_SHARE_ACTION_KEY_SIZE)
        return false;
    for (size_t i = 0; i < kWords; ++i)
        ptKey->anWord[i] =
            (i + 1) * sizeof(size_t) <= nLen ? LoadWord(szText + i * sizeof(size_t)) : 0;
    if (nLen % sizeof(size_t) != 0)
        ptKey->anWord[nLen / sizeof(size_t)] = LoadTail(szText, nLen);
    return true;
}

// Powers of the golden ratio.
struct TFactors {
    constexpr TFactors()
    {
        constexpr size_t kRatio = 0x9E3779B97F4A7C15 >> (64 - kWordBits);
        for (size_t i = 0; i < kWords; ++i)
            anOf[i] = i == 0 ? kRatio : anOf[i - 1] * kRatio;
    }
    size_t anOf[kWords] = {};
};

// By products whose top bits depend on every character, and not on one another: AppStringHash()
// waits for multiplications.
std::atomic<TAppShareAction *> &SlotOf(const TKey &key)
{
    static constexpr TFactors kFactors;
    size_t nSum = 0;
    for (size_t i = 0; i < kWords; ++i)
        nSum += key.anWord[i] * kFactors.anOf[i];
    return s_aptIndex[nSum >> (kWordBits - kSlotBits)];
}

bool HasKey(const TAppShareAction &entry, const TKey &key)
{
    size_t nDifference = 0;
    for (size_t i = 0; i < kWords; ++i)
        nDifference |= LoadWord(entry.achKey + i * sizeof(size_t)) ^ key.anWord[i];
    return nDifference == 0;
}

// Needs no lock.
const TAppShareAction *FindEntry(const char *szKey)
{
    TKey key;
    if (!LoadKey(szKey, &key))
        return nullptr;
    const TAppShareAction *ptEntry = SlotOf(key).load(std::memory_order_acquire);
    while (ptEntry && !HasKey(*ptEntry, key))
        ptEntry = ptEntry->ptNextSame;
    return ptEntry;
}

// Under the list's lock.
[[gnu::cold]] void Publish(TAppShareAction *ptEntry)
{
    TKey key;
    LoadKey(ptEntry->achKey, &key);
    std::atomic<TAppShareAction *> &slot = SlotOf(key);
    ptEntry->ptNextSame = app::Peek(slot);
    slot.store(ptEntry, std::memory_order_release);
}

// Under the list's lock.
[[gnu::cold]] uint32_t AddEntry(HAppDoubleList hList, const char *szKey, PFAppShareAction pfnAction,
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
    Publish(ptEntry);
    return APP_OK;
}

// Looks the action up and notes it as the last one called: by its entry, so that a key is never
// seen half written.  The result first: the report never shows it with that of the one before.
const TAppShareAction *BeginAction(const char *szKey)
{
    const TAppShareAction *ptEntry = FindEntry(szKey);
    if (!ptEntry || !ptEntry->pfnAction)
        return nullptr;
    app::Poke<uint32_t>(g_eAppShareActionLastCalledResult, APP_IN_PROGRESS);
    s_ptLastCalled.store(ptEntry, std::memory_order_release);
    return ptEntry;
}

// Under the list's lock, which keeps other reports out.
void CopyLastCalled()
{
    if (const TAppShareAction *ptEntry = s_ptLastCalled.load(std::memory_order_acquire))
        AppMemcpy(g_achAppShareActionLastCalledKey, ptEntry->achKey, APP_SHARE_ACTION_KEY_SIZE);
}

} // namespace

[[gnu::cold]] uint32_t _AppRegisterShareAction(const char *szKey, PFAppShareAction pfnAction,
                                               uint32_t bBlock)
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
    if (!Registry())
        return APP_FAILED;
    AppShareActionLock();
    app::Rollback unlock([] { AppShareActionUnlock(); });
    const TAppShareAction *ptEntry = BeginAction(szKey);
    if (!ptEntry)
        return APP_INVALID_ARG;
    if (ptEntry->bBlock == 1) {
        unlock.Dismiss();
        AppShareActionUnlock();
    }
    const uint32_t dwResult = ptEntry->pfnAction(dwArg1, dwArg2, dwArg3);
    if (pdwResult)
        *pdwResult = dwResult;
    // Of actions that run at once the last to return is told.
    app::Poke(g_eAppShareActionLastCalledResult, dwResult);
    return APP_OK;
}

uint32_t AppShareActionLock(void)
{
    APP_CHECK(!app::HeldLock::HoldsAny(), "the actions' lock is taken under another");
    HAppLock hLock = ActionsLock();
    return hLock ? _AppLockTakeByTime(hLock, 0) : static_cast<uint32_t>(APP_INVALID_ARG);
}

uint32_t AppShareActionUnlock(void)
{
    HAppLock hLock = ActionsLock();
    return hLock ? _AppLockGive(hLock) : static_cast<uint32_t>(APP_INVALID_ARG);
}

[[gnu::cold]] void AppShareActionShow(PFAppShow pfnShow, void *pvContext)
{
    HAppDoubleList hList = Registry();
    if (!hList)
        return;
    app::ReportWriter writer(pfnShow, pvContext);
    {
        app::LockGuard guard(hList);
        CopyLastCalled();
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
