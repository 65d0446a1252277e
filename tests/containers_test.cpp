// SPDX-License-Identifier: MIT
#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <thread>
#include <utility>

#include "appcore/appcore.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "utils/double_list.h"
#include "utils/lock_guard.h"
#include "utils/queue.h"

using fault::Fn;
using test::LogCapture;
using test::Text;

namespace
{

// Elements are letters.
void *El(int ch)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(ch));
}

char Letter(const void *pvData)
{
    return static_cast<char>(reinterpret_cast<uintptr_t>(pvData));
}

void Note(void *pvData, void *pvContext)
{
    *static_cast<std::string *>(pvContext) += Letter(pvData);
}

std::string Walk(HAppDoubleList hList)
{
    EXPECT_TRUE(app::ListIsValid(hList));
    std::string text;
    for (HAppDoubleListNode hNode = hList->ptHead; hNode; hNode = hNode->ptNext)
        text += Letter(hNode->pvData);
    return text;
}

HAppDoubleList CreateList(uint32_t dwMaxSize = 0, uint32_t bLock = 0)
{
    HAppDoubleList hList = nullptr;
    EXPECT_CODE(APP_OK, AppDoubleListCreate(nullptr, dwMaxSize, bLock, &hList));
    return hList;
}

HAppQueue CreateQueue(uint32_t dwMaxSize = 100, uint32_t bLock = 1)
{
    HAppQueue hQueue = nullptr;
    EXPECT_CODE(APP_OK, AppQueueCreate(nullptr, dwMaxSize, bLock, &hQueue));
    return hQueue;
}

uint32_t Sleepers(HAppQueue hQueue)
{
    app::LockGuard guard(hQueue);
    return hQueue->dwSleepers;
}

// Size, maximum, top mark.
void ExpectMarks(HAppQueue hQueue, uint32_t dwSize, uint32_t dwMax, uint32_t dwTop)
{
    EXPECT_EQ(AppQueueGetSize(hQueue), dwSize);
    EXPECT_EQ(_AppQueueGetMaxSize(hQueue), dwMax);
    EXPECT_EQ(_AppQueueGetTopSize(hQueue), dwTop);
    EXPECT_TRUE(app::QueueIsValid(hQueue));
}

} // namespace

// ---- Double list ----------------------------------------------------------------------------

// Beside texts: two lists, the second with a maximum, and nodes that move between them.
TEST(DoubleList, KeepsItsOrderWithinItsMaximum)
{
    LogCapture log;
    std::minstd_rand random(3);
    HAppDoubleList ahList[] = {CreateList(), CreateList(5, 2)}; // only 1 asks for a lock
    std::string texts[2];
    EXPECT_EQ(ahList[1]->hLock, nullptr);
    EXPECT_CODE(APP_INVALID_ARG,
                AppDoubleListRemove(ahList[0], reinterpret_cast<HAppDoubleListNode>(16), nullptr));
    for (unsigned i = 0; i < 2000; ++i) {
        const size_t nList = random() % 2, nOp = random() % 5,
                     nAt = random() % (texts[nList].size() + 1);
        HAppDoubleList hList = ahList[nList];
        std::string &text = texts[nList];
        HAppDoubleListNode hAt = hList->ptHead; // null behind the last one
        for (size_t j = 0; j < nAt; ++j)
            hAt = hAt->ptNext;
        if (nOp < 2) {
            const bool bFits = nList == 0 || text.size() < 5;
            const char ch = static_cast<char>('a' + i % 26), *szOp = nOp ? "After" : "Before";
            HAppDoubleListNode hNew = hAt;
            EXPECT_CODE(bFits ? APP_OK : APP_NO_RESOURCE,
                        (nOp ? AppDoubleListInsertAfter
                             : AppDoubleListInsertBefore)(hList, hAt, El(ch), &hNew));
            EXPECT_EQ(hNew && Letter(hNew->pvData) == ch, bFits);
            if (bFits)
                text.insert(hAt ? nAt + nOp : nAt, 1, ch);
            const std::string full =
                Text("[ERROR] AppDoubleListInsert%s: List full. cur size: %zu max size: 5\n", szOp,
                     text.size());
            log.ExpectLines(std::vector<std::string>(!bFits, full));
        } else if (hAt && nOp == 2) {
            _AppDoubleListDetachNode(hList, hAt);
            _AppDoubleListAttachNode(ahList[1 - nList], nullptr, hAt,
                                     APP_ATTACH_BEFORE); // the engine's way
            texts[1 - nList] += text[nAt];
            text.erase(nAt, 1);
        } else if (hAt) {
            void *pvData = nullptr;
            EXPECT_CODE(APP_OK, AppDoubleListRemove(hList, hAt, &pvData));
            EXPECT_EQ(Letter(pvData), text[nAt]);
            text.erase(nAt, 1);
        }
        ASSERT_EQ(Walk(ahList[0]) + "-" + Walk(ahList[1]), texts[0] + "-" + texts[1]);
    }
    std::string freed;
    AppDoubleListDestroy(ahList[0], Note, &freed);
    EXPECT_EQ(freed, texts[0]);
    AppDoubleListDestroy(ahList[1], nullptr, nullptr);
}

TEST(DoubleList, DestroyWaitsForAUserInside)
{
    HAppDoubleList hList = CreateList(0, 1);
    AppLockTakeByTime(hList->hLock, 0);
    std::thread user([&] {
        for (int i = 0; i < 100; ++i, std::this_thread::yield())
            AppDoubleListInsertAfter(hList, nullptr, El('x'), nullptr);
        AppLockGive(hList->hLock);
    });
    std::string freed;
    AppDoubleListDestroy(hList, Note, &freed);
    EXPECT_EQ(freed, std::string(100, 'x'));
    user.join();
}

// ---- Queue ----------------------------------------------------------------------------------

// Beside a sorted model: few levels and more than the queue has fingers, with and without a limit.
TEST(Queue, OrdersBySignedPriorityThenAgeWithinItsMaximum)
{
    LogCapture log;
    std::mt19937 random(7);
    for (const uint32_t bLock : {1u, 0u, 2u})
        for (const unsigned nLevels : {1u, 3u, 9u, 40u}) {
            SCOPED_TRACE(nLevels);
            uint32_t dwMax = 5, dwTop = 0;
            HAppQueue hQueue = CreateQueue(dwMax, bLock);
            EXPECT_EQ(hQueue->hLock != nullptr, bLock == 1);
            std::multimap<int64_t, char> model; // equal keys stay in the order of their insertion
            for (unsigned i = 0; i < test::Scaled(4000); ++i) {
                const auto dwSize = static_cast<uint32_t>(model.size());
                if (random() % 50 == 0) {
                    const uint32_t dwNew =
                        std::array{0u, 20u, dwSize - 1, dwSize, UINT32_MAX}[random() % 5];
                    const bool bFits = dwSize <= dwNew;
                    EXPECT_CODE(bFits ? APP_OK : APP_INVALID_ARG,
                                _AppQueueChangeMaxSize(hQueue, dwNew));
                    dwMax = bFits ? dwNew : dwMax;
                    dwTop = bFits ? 0 : dwTop;
                } else if (random() % 100 < (i / 100 % 2 ? 30u : 70u)) {
                    const int nLevel =
                        static_cast<int>(random() % nLevels) - static_cast<int>(nLevels / 2);
                    const int32_t nPriority = nLevel == -1  ? INT32_MIN
                                              : nLevel == 1 ? INT32_MAX
                                                            : nLevel;
                    const char ch = static_cast<char>('!' + i % 90);
                    const int32_t bForce = static_cast<int32_t>(random() % 4) - 2; // 0 is a quarter
                    const bool bFits = dwMax == 0 || bForce != 0 || dwSize < dwMax;
                    ASSERT_CODE(bFits ? APP_OK : APP_NO_RESOURCE,
                                _AppQueueIn(hQueue, El(ch), nPriority, bForce));
                    if (bFits)
                        model.emplace(-int64_t{nPriority}, ch);
                    if (bFits)
                        dwTop = std::max(dwTop, dwSize + 1);
                    log.ExpectLines(std::vector<std::string>(
                        !bFits, Text("[ERROR] _AppQueueIn: Queue full. cur size: %u max size: %u\n",
                                     dwSize, dwMax)));
                } else if (!model.empty()) {
                    void *pvData = nullptr;
                    ASSERT_CODE(APP_OK, AppQueueOut(hQueue, 0, &pvData));
                    ASSERT_EQ(Letter(pvData), model.begin()->second);
                    model.erase(model.begin());
                }
                ExpectMarks(hQueue, static_cast<uint32_t>(model.size()), dwMax, dwTop);
            }
            std::string dropped, expected;
            for (const auto &[nKey, ch] : model)
                expected += ch;
            AppQueueDestroy(hQueue, Note, &dropped);
            EXPECT_EQ(dropped, expected);
        }
}

TEST(Queue, InterruptEndsOneWaitOrIsKeptForTheNext)
{
    LogCapture log;
    HAppQueue hQueue = CreateQueue(0);
    log.ExpectLines({"[ERROR] AppQueueCreate: change dwMaxSize(0) ==> 1048576\n"});
    app::QueueInterrupt(hQueue);
    app::QueueInterrupt(hQueue); // no second one is kept
    void *pvData = El('u');
    EXPECT_CODE(APP_OK, AppQueueIn(hQueue, nullptr, 0));
    EXPECT_CODE(APP_OK, AppQueueOut(hQueue, 0, &pvData)); // an element goes first
    EXPECT_EQ(std::exchange(pvData, El('u')), nullptr);
    ExpectMarks(hQueue, 0, APP_QUEUE_DEFAULT_MAX, 1);
    EXPECT_CODE(APP_TIMEOUT, AppQueueOut(hQueue, 0, &pvData));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_CODE(APP_TIMEOUT, AppQueueOut(hQueue, 20, &pvData));
    EXPECT_GE(test::ElapsedMs(start), 20);
    EXPECT_EQ(Letter(pvData), 'u'); // untouched
    uint32_t dwResults[3];
    std::thread consumers[3];
    for (int i = 0; i < 3; ++i)
        consumers[i] = std::thread([&, i] { dwResults[i] = AppQueueOut(hQueue, 0, nullptr); });
    EXPECT_TRUE(test::WaitUntil([&] { return Sleepers(hQueue) == 3; }));
    fault::Fail fail(Fn::malloc, 2); // one for the element
    app::QueueInterrupt(hQueue);
    EXPECT_CODE(APP_OK, AppQueueIn(hQueue, El('b'), 0));
    app::QueueInterrupt(hQueue);
    for (std::thread &consumer : consumers)
        consumer.join();
    EXPECT_EQ(std::count(dwResults, dwResults + 3, APP_OK), 1);
    EXPECT_EQ(std::count(dwResults, dwResults + 3, APP_TIMEOUT), 2);
    ExpectMarks(hQueue, 0, APP_QUEUE_DEFAULT_MAX, 1);
    AppQueueDestroy(hQueue, nullptr, nullptr);
}

// A consumer whose time runs out between the insertion and its wake-up takes the element.
TEST(Queue, PromisedElementIsTakenAfterTheTimeout)
{
    HAppQueue hQueue = CreateQueue();
    bool bWake = false;
    while (!bWake) { // unless this thread was too slow
        uint32_t dwResult = APP_FAILED;
        std::atomic<bool> bDone{false};
        std::thread consumer([&] {
            dwResult = AppQueueOut(hQueue, 100, nullptr);
            bDone = true;
        });
        EXPECT_TRUE(test::WaitUntil([&] { return Sleepers(hQueue) == 1 || bDone; }));
        LogCapture log;
        {
            fault::Fail fail(Fn::malloc); // a failed insertion promises nothing
            EXPECT_CODE(APP_NO_RESOURCE, app::QueuePlace(hQueue, El('f'), 0, 0, &bWake));
            EXPECT_FALSE(bWake);
        }
        EXPECT_CODE(APP_OK, app::QueuePlace(hQueue, El('p'), 0, 0, &bWake));
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        if (bWake)
            app::QueueWake(hQueue);
        consumer.join();
        EXPECT_CODE(bWake ? APP_OK : APP_TIMEOUT, dwResult);
        EXPECT_CODE(bWake ? APP_TIMEOUT : APP_OK, AppQueueOut(hQueue, 1, nullptr));
    }
    AppQueueDestroy(hQueue, nullptr, nullptr);
}

// Who takes the last element, or is interrupted, may destroy the queue: nobody touches it any more.
TEST(Queue, MayBeDestroyedRightAfterItsLastElement)
{
    std::atomic<HAppQueue> hShared{nullptr};
    std::atomic<bool> bEnd{false};
    std::thread producer([&] {
        while (!bEnd)
            if (HAppQueue hQueue = hShared.exchange(nullptr))
                hQueue->dwMaxSize == 1 ? void(AppQueueIn(hQueue, El('x'), 0))
                                       : app::QueueInterrupt(hQueue);
            else
                std::this_thread::yield();
    });
    for (unsigned i = 0; i < test::Scaled(20000); ++i) {
        HAppQueue hQueue = CreateQueue(1 + i % 2);
        hShared = hQueue;
        for (unsigned nSpin = 0; nSpin < i % 64 * 8; ++nSpin) // asleep, about to sleep, or late
            std::atomic_signal_fence(std::memory_order_seq_cst);
        ASSERT_CODE(i % 2 ? APP_TIMEOUT : APP_OK, AppQueueOut(hQueue, 0, nullptr));
        AppQueueDestroy(hQueue, nullptr, nullptr);
    }
    bEnd = true;
    producer.join();
}

// Elements are producer and number.  Each consumer sees a producer's elements of one priority in
// the order of their insertion, and every element comes out once, also while time-outs expire.
TEST(Queue, FourProducersAndFourConsumersLoseNothing)
{
    constexpr unsigned kProducers = 4, kElements = test::Scaled(120000);
    HAppQueue hQueue = CreateQueue(16);
    std::atomic<uint64_t> qwSum{0};
    const auto Produce = [&](unsigned nThread) {
        for (uint32_t i = 1; i <= kElements; ++i) {
            while (AppQueueGetSize(hQueue) > 300)
                std::this_thread::yield();  // far beyond its maximum
            if (i % (kElements / 100) == 0) // lets the consumers fall asleep
                std::this_thread::sleep_for(std::chrono::microseconds(900 + i % 400));
            if (i % 7 == 0)
                app::QueueInterrupt(hQueue);
            const auto nPriority = static_cast<int32_t>(i % 3) - 1;
            ASSERT_CODE(APP_OK,
                        _AppQueueIn(hQueue, El(static_cast<int>(nThread << 24 | i)), nPriority, 1));
        }
    };
    const auto Consume = [&] {
        std::map<std::pair<unsigned, unsigned>, unsigned> last;
        for (uint32_t i = 0; i < kElements; ++i) {
            void *pvData = nullptr;
            while (AppQueueOut(hQueue, i % 4, &pvData) == APP_TIMEOUT) {
            }
            const auto dwElement = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pvData));
            const uint32_t dwNumber = dwElement & 0xFFFFFF;
            ASSERT_LT(std::exchange(last[{dwElement >> 24, dwNumber % 3}], dwNumber), dwNumber);
            qwSum += dwNumber;
        }
    };
    test::RunThreads(2 * kProducers, [&](unsigned nThread) {
        nThread < kProducers ? Produce(nThread) : Consume();
    });
    ASSERT_TRUE(app::QueueIsValid(hQueue));
    EXPECT_EQ(hQueue->dwSleepers + hQueue->dwPromised + hQueue->dwInterrupted + hQueue->dwCurSize,
              0u);
    EXPECT_EQ(qwSum, uint64_t{kProducers} * kElements * (kElements + 1) / 2);
    AppQueueDestroy(hQueue, nullptr, nullptr);
}
