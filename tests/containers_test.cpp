// SPDX-License-Identifier: MIT
#include <map>
#include <random>

#include "appcore/appcore.h"
#include "mempool/mempool.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "utils/double_list.h"
#include "utils/lock_guard.h"
#include "utils/queue.h"
#include "utils/queue_levels.h"
#include "utils/queue_node.h"

using fault::Fn;

// Elements are letters.
static void *El(int ch)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(ch));
}

static char Letter(const void *pvData)
{
    return static_cast<char>(reinterpret_cast<uintptr_t>(pvData));
}

static void Note(void *pvData, void *pvContext)
{
    *static_cast<std::string *>(pvContext) += Letter(pvData);
}

// Beside a text.
TEST(DoubleList, KeepsItsOrderWithinItsMaximum)
{
    test::LogCapture log;
    std::minstd_rand random(3);
    HAppMemPool hPool = nullptr;
    HAppDoubleList hList = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 0, 0, &hPool));
    ASSERT_CODE(APP_OK, AppDoubleListCreate(hPool, 5, 2, &hList));
    EXPECT_EQ(hList->hLock, nullptr); // only 1 asks for a lock
    EXPECT_CODE(APP_INVALID_ARG,
                AppDoubleListRemove(hList, reinterpret_cast<HAppDoubleListNode>(16), nullptr));
    std::string text;
    for (unsigned i = 0; i < 1000; ++i) {
        const size_t nOp = random() % 4, nAt = random() % (text.size() + 1);
        const char ch = static_cast<char>('a' + i % 26);
        HAppDoubleListNode hAt = hList->ptHead; // null behind the last one
        for (size_t j = 0; j < nAt; ++j)
            hAt = hAt->ptNext;
        void *pvData = nullptr;
        if (nOp < 2) {
            const auto pfnInsert = nOp ? AppDoubleListInsertAfter : AppDoubleListInsertBefore;
            fault::Fail fail(Fn::malloc, random() % 8 == 0);
            const uint32_t dwCode = pfnInsert(hList, hAt, El(ch), nullptr);
            EXPECT_CODE(text.size() >= 5 || fail.Hits() ? APP_NO_RESOURCE : APP_OK, dwCode);
            text.insert(hAt ? nAt + nOp : nAt, dwCode == APP_OK, ch);
        } else if (hAt) {
            EXPECT_CODE(APP_OK, AppDoubleListRemove(hList, hAt, &pvData));
            EXPECT_EQ(Letter(pvData), text[nAt]);
            text.erase(nAt, 1);
        }
        std::string walked;
        for (HAppDoubleListNode hNode = hList->ptHead; hNode; hNode = hNode->ptNext)
            Note(hNode->pvData, &walked);
        ASSERT_EQ(walked, text);
        ASSERT_EQ(hPool->dwCurSize, sizeof(*hList) + text.size() * sizeof(TAppDoubleListNode));
    }
    std::string freed;
    AppDoubleListDestroy(hList, Note, &freed);
    EXPECT_EQ(freed, text);
    AppMemPoolDestroy(hPool);
}

// A queue of elements or of records, which are the same to its test.
struct AnyQueue {
    struct Record {
        void *pvData, *pvCopy;
    };
    uint32_t In(char ch, int32_t nPriority, int32_t bForce)
    {
        const Record record = {El(ch), El(ch)};
        bool bWake = false;
        if (!bRecords)
            return _AppQueueIn(hQueue, El(ch), nPriority, bForce);
        const uint32_t dwCode = app::QueuePlaceRecord(hQueue, &record, nPriority, bForce, &bWake);
        return dwCode == app::kQueueNoMemory ? uint32_t{APP_NO_RESOURCE} : dwCode;
    }
    uint32_t Out(uint32_t dwTimeout, void **ppvData)
    {
        if (!bRecords)
            return AppQueueOut(hQueue, dwTimeout, ppvData);
        EXPECT_TRUE(!ptHeld || ptHeld->pvData == ptHeld->pvCopy); // still what it was
        void *pvRecord = ptHeld;
        const uint32_t dwCode = app::QueueTakeRecord(hQueue, dwTimeout, &pvRecord);
        ptHeld = static_cast<Record *>(pvRecord);
        EXPECT_EQ(dwCode == APP_OK, ptHeld != nullptr);
        *ppvData = ptHeld ? ptHeld->pvData : *ppvData;
        return dwCode;
    }
    void GiveBack() { app::QueueGiveRecordBack(hQueue, std::exchange(ptHeld, nullptr)); }

    bool bRecords;
    HAppQueue hQueue = nullptr;
    Record *ptHeld = nullptr;
};

// Beside a sorted model: few levels and more than the queue has stops, short and of several blocks,
// with and without a limit, elements and records, and a pool that refuses blocks or everything.
TEST(Queue, OrdersBySignedPriorityThenAgeWithinItsMaximum)
{
    test::LogCapture log;
    std::mt19937 random(7);
    HAppMemPool hPool = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 0, 0, &hPool));
    for (const uint32_t dwLevels : {1u, 3u, 9u, 40u, 1001u}) {
        AnyQueue queue{dwLevels == 9 || dwLevels == 1001};
        HAppQueue &hQueue = queue.hQueue;
        const uint32_t dwFirstMax = dwLevels == 9 ? 0 : 5;
        constexpr uint32_t kRecord = sizeof(AnyQueue::Record);
        ASSERT_CODE(APP_OK, queue.bRecords
                                ? app::QueueCreateForRecords(hPool, dwFirstMax, kRecord, &hQueue)
                                : AppQueueCreate(hPool, dwFirstMax, dwLevels % 4, &hQueue));
        EXPECT_EQ(hQueue->hLock != nullptr, dwLevels % 4 == 1);
        const uint32_t dwIdle = hPool->dwCurSize;
        uint32_t dwMax = dwFirstMax ? dwFirstMax : APP_QUEUE_DEFAULT_MAX, dwTop = 0;
        uint32_t dwDistinct = 0, dwPeak = 0; // levels

        bool bInterrupted = false;
        std::multimap<int64_t, char> model; // equal keys stay in the order of their insertion
        for (unsigned i = 0; i < test::Scaled(10000); ++i) {
            const auto dwSize = static_cast<uint32_t>(model.size());
            const auto dwOp = static_cast<uint32_t>(random() % 100);
            void *pvData = El('u');
            if (dwOp < 2) {
                const uint32_t adwNew[] = {0, 20, dwSize - 1, dwSize, UINT32_MAX};
                const uint32_t dwNew = adwNew[random() % 5];
                const bool bFits = dwSize <= dwNew;
                ASSERT_CODE(bFits ? APP_OK : APP_INVALID_ARG,
                            _AppQueueChangeMaxSize(hQueue, dwNew));
                dwMax = bFits ? dwNew : dwMax;
                dwTop = bFits ? 0 : dwTop;
            } else if (dwOp < 4 && hQueue->hLock) {
                app::QueueInterrupt(hQueue);
                bInterrupted = true; // one at most is kept
            } else if (dwOp < (i / (dwLevels < 40 ? 100 : 800) % 2 ? 30u : 70u)) {
                const auto dwLevel =
                    static_cast<uint32_t>(random() % (i % dwLevels + 1)); // clusters
                const auto nPriority = static_cast<int32_t>(dwLevel * (UINT32_MAX / dwLevels));
                const int32_t bForce = static_cast<int32_t>(random() % 4) - 2; // 0 is a quarter
                const char ch = static_cast<char>('!' + i % 90);
                const bool bFull = dwMax != 0 && bForce == 0 && dwSize >= dwMax;
                const bool bShort = dwSize < hQueue->byBlockNodes;
                const uint32_t dwUsed = hPool->dwCurSize, dwRefuse = random() % 16;
                hPool->dwMaxSize = dwRefuse == 0 ? 1 : dwRefuse < 4 ? dwUsed + 200 : 0;
                log.Clear();
                const uint32_t dwCode = queue.In(ch, nPriority, bForce);
                const uint32_t dwGrown = hPool->dwCurSize - dwUsed;
                hPool->dwMaxSize = 0;
                const bool bNone = dwRefuse == 0 && (bShort || dwCode != APP_OK);
                ASSERT_CODE(bFull || bNone ? APP_NO_RESOURCE : APP_OK, dwCode);
                ASSERT_EQ(log.Lines().empty(), dwCode == APP_OK); // a block is no loss
                if (dwCode == APP_OK) {
                    ASSERT_TRUE(bShort || dwRefuse < 4 ? dwGrown < 200
                                                       : dwGrown == 0 || dwGrown > 200);
                    dwDistinct += model.count(-int64_t{nPriority}) == 0 ? 1 : 0;
                    model.emplace(-int64_t{nPriority}, ch);
                    dwTop = dwTop > dwSize ? dwTop : dwSize + 1;
                }
            } else if (!model.empty()) {
                ASSERT_CODE(APP_OK, queue.Out(0, &pvData));
                ASSERT_EQ(Letter(pvData), model.begin()->second);
                const int64_t nKey = model.begin()->first;
                model.erase(model.begin());
                dwDistinct -= model.count(nKey) == 0 ? 1 : 0;
            } else if (bInterrupted || dwOp > 97) {
                const uint32_t dwTimeout = std::exchange(bInterrupted, false) ? 0 : 2;
                // What is held goes back first.
                fault::Fail sleeps(Fn::_AppConditionWait, 1, 0);
                sleeps.Action([&] { EXPECT_EQ(hPool->dwCurSize, dwIdle); });
                ASSERT_CODE(APP_TIMEOUT, queue.Out(dwTimeout, &pvData));
                ASSERT_EQ(Letter(pvData), 'u');
            } else {
                queue.GiveBack();
            }
            dwPeak = model.empty() ? 0 : std::max(dwPeak, dwDistinct);
            for (const uint32_t dwSpan : hQueue->adwSpan)
                ASSERT_LE(dwSpan, std::max(8u, dwPeak / app::kQueueSpanPart + 1));
            ASSERT_TRUE(!model.empty() || queue.ptHeld || hPool->dwCurSize == dwIdle);
            ASSERT_EQ(AppQueueGetSize(hQueue), model.size());
            ASSERT_EQ(_AppQueueGetMaxSize(hQueue), dwMax);
            ASSERT_EQ(_AppQueueGetTopSize(hQueue), dwTop);
        }
        std::string dropped;
        queue.GiveBack();
        AppQueueDestroy(hQueue, Note, &dropped);
        EXPECT_EQ(dropped.size(), model.size());
        EXPECT_EQ(hPool->dwCurSize, 0u);
    }
    AppMemPoolDestroy(hPool);
}

// Every element comes out once, also while time-outs expire and interrupts come; who takes the last
// one may destroy the queue, for nobody touches it any more.
TEST(Queue, FourProducersAndFourConsumersLoseNothing)
{
    constexpr unsigned kProducers = 4, kElements = test::Scaled(120000);
    HAppMemPool hPool = nullptr; // shared too
    HAppQueue hQueue = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
    ASSERT_CODE(APP_OK, AppQueueCreate(hPool, 16, 1, &hQueue));
    std::atomic<uint64_t> qwSum{0};
    std::atomic<unsigned> nLeft{kProducers * kElements};
    test::RunThreads(2 * kProducers, [&](unsigned nThread) {
        for (uint32_t i = 1; nThread < kProducers && i <= kElements; ++i) {
            while (AppQueueGetSize(hQueue) > 300)
                std::this_thread::yield();  // far beyond its maximum
            if (i % (kElements / 100) == 0) // lets the consumers fall asleep
                std::this_thread::sleep_for(std::chrono::microseconds(900 + i % 400));
            if (i % 7 == 0)
                app::QueueInterrupt(hQueue);
            ASSERT_CODE(APP_OK, _AppQueueIn(hQueue, El(static_cast<int>(i)), i % 3, 1));
        }
        for (uint32_t i = 0; nThread >= kProducers && i < kElements; ++i) {
            void *pvData = nullptr;
            while (AppQueueOut(hQueue, i % 4, &pvData) == APP_TIMEOUT) {
            }
            qwSum += reinterpret_cast<uintptr_t>(pvData);
            if (--nLeft == 0) // the checks see a consumer that is left behind
                AppQueueDestroy(hQueue, nullptr, nullptr);
        }
    });
    EXPECT_EQ(qwSum, uint64_t{kProducers} * kElements * (kElements + 1) / 2);
    EXPECT_EQ(hPool->dwCurSize, 0u);
    AppMemPoolDestroy(hPool);
}

// A user that holds the lock is inside an operation.
TEST(Destroy, WaitsForAUserInside)
{
    HAppDoubleList hList = nullptr;
    ASSERT_CODE(APP_OK, AppDoubleListCreate(nullptr, 0, 1, &hList));
    HAppQueue hQueue = nullptr;
    ASSERT_CODE(APP_OK, AppQueueCreate(nullptr, 1, 1, &hQueue));
    HAppMemPool hPool = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
    const std::pair<HAppLock, std::function<void()>> rows[] = {
        {hList->hLock, [&] { AppDoubleListDestroy(hList, nullptr, nullptr); }},
        {hQueue->hLock, [&] { AppQueueDestroy(hQueue, nullptr, nullptr); }},
        {hPool->hLock, [&] { AppMemPoolDestroy(hPool); }}};
    for (const auto &[hLock, destroy] : rows) {
        AppLockTakeByTime(hLock, 0);
        fault::Fail sleeps(fault::Fn::_AppConditionWait, 0, 0, 0, fault::kEveryThread);
        std::thread destroyer(destroy);
        EXPECT_TRUE(test::WaitUntil([&] { return sleeps.Calls() > 0; }));
        AppLockGive(hLock);
        destroyer.join();
    }
}

#ifdef APPCORE_CHECKS
// Where something is broken the process ends, not where that shows.
TEST(Checks, FindWhatIsBroken)
{
    TAppDoubleListNode node = {};
    TAppDoubleList list = {};
    list.dwCurSize = 1;
    EXPECT_DEATH(_AppDoubleListAttachNode(&list, nullptr, &node, 0), "the list is broken");
    TAppQueue queue = {};
    app::SizeNodes(&queue, 0);
    queue.dwSleepers = 1;
    EXPECT_DEATH(AppQueueIn(&queue, nullptr, 0), "the queue's counts do not agree");
    EXPECT_DEATH(AppQueueDestroy(&queue, nullptr, nullptr), "a consumer waits still");
    HAppMemPool hPool = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
    void *pvData = AppMemPoolMalloc(hPool, 1);
    AppMemPoolFree(pvData);
    EXPECT_DEATH(AppMemPoolFree(pvData), "_AppFree: the block has been released before");
    {
        app::LockGuard inner(hPool);
        queue.hLock = list.hLock = reinterpret_cast<HAppLock>(&node); // never looked at
        EXPECT_DEATH(app::LockGuard outer(&queue), "a lock is taken out of order");
        EXPECT_DEATH(app::AssertHeld(&list), "the lock is not held");
    }
    ++hPool->ptImpl->dwTotalSize;
    EXPECT_DEATH(AppMemPoolMalloc(hPool, 1), "the engine's totals do not add up");
    AppMemPoolDestroy(hPool);
}
#endif
