// SPDX-License-Identifier: MIT
#include "utils/share_action_registry.h"

#include <string.h>

#include <new>

#include "appcore/mempool.h"
#include "appcore/stats.h"
#include "base/field.h"
#include "base/print.h"
#include "base/rollback.h"
#include "cross_linux/cross_linux.h"
#include "utils/lock_guard.h"
#include "utils/report_writer.h"
#include "utils/stats.h"

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

// Ordinary actions run under the recursive lock, so nothing here needs a locked instruction.  And all
// of it is here: a run that wrote to its entry would cost a line of the cache for each action.
std::atomic<uint32_t> s_dwSince; // tick at which the one that runs began; 0: none does
std::atomic<const TAppShareAction *> s_ptRunning;
uint32_t s_dwNested; // runs by an action that runs
uint32_t s_dwRuns;   // that have ended

uint32_t s_dwBlockingRuns; // of the other actions
uint32_t s_dwRefused;      // runs of unknown keys

HAppDoubleList Registry()
{
    return g_hAppShareActionList.load(std::memory_order_acquire);
}

HAppLock ActionsLock()
{
    return g_hAppShareActionRecursiveLock.load(std::memory_order_acquire);
}

uint32_t TakeActions(HAppLock hLock)
{
    APP_CHECK(!app::HeldLock::HoldsAny(), "the actions' lock is taken under another");
    return _AppLockTakeByTime(hLock, 0);
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
    _AppNoteTick(); // the first one, should nobody else note it: actions run since then at most
    // The lock last: whoever runs an action looks for that alone.
    g_hAppShareActionList.store(hList, std::memory_order_release);
    g_hAppShareActionRecursiveLock.store(hLock, std::memory_order_release);
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
TAppShareAction *FindEntry(const char *szKey)
{
    TKey key;
    if (!LoadKey(szKey, &key))
        return nullptr;
    TAppShareAction *ptEntry = SlotOf(key).load(std::memory_order_acquire);
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
    new (ptEntry) TAppShareAction{};
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

// The result first: the report never shows the action with that of the one before.  By the entry, so
// that a key is never seen half written.
void NoteCalled(const TAppShareAction &entry)
{
    app::Poke<uint32_t>(g_eAppShareActionLastCalledResult, APP_IN_PROGRESS);
    s_ptLastCalled.store(&entry, std::memory_order_release);
}

// A run has ended in another tick than it began in.
[[gnu::noinline]] void NoteTime(TAppShareAction &entry, uint32_t dwBegin, uint32_t dwEnd)
{
    const uint32_t dwMs = app::MsSince(dwBegin, dwEnd);
    uint32_t dwLongest = app::Peek(entry.dwLongestMs);
    while (dwMs > dwLongest && !entry.dwLongestMs.compare_exchange_weak(dwLongest, dwMs)) {
    }
}

// By another action, which is the one that has run for longer.
[[gnu::noinline]] uint32_t RunNested(const TAppShareAction &entry, uint32_t dwArg1, uint32_t dwArg2,
                                     uint32_t dwArg3)
{
    app::CountOne(s_dwNested);
    const uint32_t dwResult = entry.pfnAction(dwArg1, dwArg2, dwArg3);
    app::SetCounter(s_dwNested, s_dwNested - 1);
    return dwResult;
}

// Under the recursive lock.
[[gnu::always_inline]] inline uint32_t RunOrdinary(TAppShareAction &entry, uint32_t dwArg1,
                                                   uint32_t dwArg2, uint32_t dwArg3)
{
    uint32_t dwResult;
    if (__builtin_expect(app::Peek(s_dwSince) != 0, 0)) {
        dwResult = RunNested(entry, dwArg1, dwArg2, dwArg3);
    } else {
        app::Poke<const TAppShareAction *>(s_ptRunning, &entry);
        app::Poke(s_dwSince, app::Peek(g_dwAppRecentTick));
        dwResult = entry.pfnAction(dwArg1, dwArg2, dwArg3);
        const uint32_t dwBegin = app::Peek(s_dwSince);
        app::Poke(s_dwSince, 0u);
        const uint32_t dwEnd = app::Peek(g_dwAppRecentTick);
        if (__builtin_expect(dwEnd != dwBegin, 0))
            NoteTime(entry, dwBegin, dwEnd);
    }
    app::CountOne(s_dwRuns);
    return dwResult;
}

// In any number of threads.  It has time for the clock.
[[gnu::noinline]] uint32_t RunBlocking(TAppShareAction &entry, uint32_t dwArg1, uint32_t dwArg2,
                                       uint32_t dwArg3)
{
    const uint32_t dwBegin = _AppNoteTick();
    // Before it shows as running, and again should the last run of another thread have ended since.
    if (entry.dwRunning.load() == 0)
        entry.dwSince.store(dwBegin);
    if (entry.dwRunning.fetch_add(1) == 0)
        entry.dwSince.store(dwBegin);
    const uint32_t dwResult = entry.pfnAction(dwArg1, dwArg2, dwArg3);
    NoteTime(entry, dwBegin, _AppNoteTick());
    entry.dwRunning.fetch_sub(1);
    app::AddCounter(s_dwBlockingRuns, 1);
    return dwResult;
}

[[gnu::cold]] void TellRunning(TAppShareActionStats &tStats, const TAppShareAction &entry,
                               uint32_t dwSince)
{
    const uint32_t dwMs = app::MsSince(dwSince, _AppNoteTick());
    if (tStats.dwRunning++ > 0 && dwMs <= tStats.dwCurrentMs)
        return;
    tStats.dwCurrentMs = dwMs;
    AppMemcpy(tStats.achCurrent, entry.achKey, sizeof(entry.achKey));
}

// One that has ended while it was looked at does not run.
[[gnu::cold]] void TellOrdinary(TAppShareActionStats &tStats)
{
    const uint32_t dwSince = s_dwSince.load();
    const TAppShareAction *ptRunning = s_ptRunning.load();
    if (dwSince == 0 || s_dwSince.load() != dwSince)
        return;
    TellRunning(tStats, *ptRunning, dwSince);
    tStats.dwRunning += app::PeekCounter(s_dwNested);
}

[[gnu::cold]] void TellEntry(TAppShareActionStats &tStats, const TAppShareAction &entry)
{
    ++tStats.dwActions;
    if (entry.dwRunning.load() != 0)
        TellRunning(tStats, entry, entry.dwSince.load());
    const uint32_t dwLongestMs = entry.dwLongestMs.load();
    if (dwLongestMs <= tStats.dwLongestMs)
        return;
    tStats.dwLongestMs = dwLongestMs;
    AppMemcpy(tStats.achLongest, entry.achKey, sizeof(entry.achKey));
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
    _AppNoteTick(); // a run that begins at no tick is none
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
    TAppShareAction *ptEntry = ActionsLock() ? FindEntry(szKey) : nullptr;
    if (!ptEntry || !ptEntry->pfnAction) {
        app::AddCounter(s_dwRefused, 1);
        return ActionsLock() ? APP_INVALID_ARG : APP_FAILED;
    }
    // A blocking action is not held up by an ordinary one that hangs, from its look-up on.
    const bool bBlock = ptEntry->bBlock == 1;
    if (!bBlock)
        TakeActions(ActionsLock());
    NoteCalled(*ptEntry);
    const uint32_t dwResult = bBlock ? RunBlocking(*ptEntry, dwArg1, dwArg2, dwArg3)
                                     : RunOrdinary(*ptEntry, dwArg1, dwArg2, dwArg3);
    if (pdwResult)
        *pdwResult = dwResult;
    // Of actions that run at once the last to return is told.
    app::Poke(g_eAppShareActionLastCalledResult, dwResult);
    if (!bBlock)
        _AppLockGive(ActionsLock()); // read again: nothing to keep across the run
    return APP_OK;
}

uint32_t AppShareActionLock(void)
{
    HAppLock hLock = ActionsLock();
    return hLock ? TakeActions(hLock) : static_cast<uint32_t>(APP_INVALID_ARG);
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

// By the index, which needs no lock: the list's one may be held by a report that hangs.
[[gnu::cold]] uint32_t AppShareActionGetStats(TAppShareActionStats *ptStats)
{
    TAppShareActionStats tStats = {};
    TellOrdinary(tStats);
    for (const std::atomic<TAppShareAction *> &slot : s_aptIndex)
        for (const TAppShareAction *ptEntry = slot.load(std::memory_order_acquire); ptEntry;
             ptEntry = ptEntry->ptNextSame)
            TellEntry(tStats, *ptEntry);
    tStats.dwRuns = app::PeekCounter(s_dwRuns) + app::PeekCounter(s_dwBlockingRuns);
    tStats.dwRefused = app::PeekCounter(s_dwRefused);
    return app::FillStats(ptStats, tStats);
}
