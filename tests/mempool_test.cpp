// SPDX-License-Identifier: MIT
#include "mempool/mempool.h"

#include <string.h>

#include <deque>
#include <random>
#include <thread>
#include <utility>

#include "appcore/appcore.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "utils/lock_guard.h"

using fault::Fn;
using test::LogCapture;
using test::Text;

namespace
{

constexpr uint32_t kBlockHead = sizeof(TAppMemBlockHead);
constexpr uint32_t kHeads = sizeof(TAppMemPoolHead) + kBlockHead;
constexpr uint32_t kLargest = 4294967295u;
constexpr uint32_t kSize = 128 - kHeads; // a block of class 2 on both word sizes
constexpr uint32_t kLarge = 5000000 - kHeads;
constexpr uint32_t kMost = kLargest - kHeads;

TAppMemBlockHead *BlockOf(void *pvData)
{
    return reinterpret_cast<TAppMemBlockHead *>(static_cast<char *>(pvData) - kHeads);
}

void Collect(const char *szText, void *pvContext)
{
    static_cast<std::vector<std::string> *>(pvContext)->push_back(szText);
}

std::vector<std::string> Report(HAppMemPool hPool)
{
    std::vector<std::string> texts;
    AppMemPoolShow(hPool, Collect, &texts);
    return texts;
}

class MemPool : public testing::Test
{
protected:
    MemPool() { Recreate(0); }
    ~MemPool() override
    {
        EXPECT_TRUE(app::PoolIsValid(hPool));
        AppMemPoolDestroy(hPool);
    }
    void Recreate(uint32_t dwMaxSize)
    {
        AppMemPoolDestroy(hPool);
        ASSERT_CODE(APP_OK, AppMemPoolCreate(dwMaxSize, 1, 0, &hPool));
        ptImpl = hPool->ptImpl;
        log.Name(hPool, "POOL");
        log.Name(hPool->hLock, "LOCK");
        log.Name(ptImpl, "ENGINE");
        log.Clear();
    }
    void ExpectCounters(uint32_t dwCount, uint32_t dwOnWork, uint32_t dwTotal) const
    {
        EXPECT_EQ(ptImpl->dwOnWorkCount, dwCount);
        EXPECT_EQ(ptImpl->dwOnWorkSize, dwOnWork);
        EXPECT_EQ(ptImpl->dwTotalSize, dwTotal);
        EXPECT_TRUE(app::PoolIsValid(hPool));
    }

    LogCapture log{APP_LOG_ERROR};
    HAppMemPool hPool = nullptr;
    TAppMemPoolImpl *ptImpl = nullptr;
};

} // namespace

// Beside a model: sizes around the limit, the classes' ends and 4 GiB.
TEST_F(MemPool, KeepsItsAccountsAndReusesTheOldestBlock)
{
    struct TBlock {
        unsigned char *pby = nullptr;
        uint32_t dwSize = 0;
    };
    EXPECT_EQ(kHeads, sizeof(void *) == 8 ? 48u : 20u);
    std::minstd_rand random(11);
    for (const uint32_t dwMax : {0u, 100u, 70000u, 9000000u}) {
        Recreate(dwMax);
        TBlock atHeld[16];
        std::deque<void *> idle[18];
        uint32_t dwCount = 0, dwWork = 0, dwUsed = 0;
        const auto Count = [&](const TBlock &block, bool bTaken) {
            const uint32_t dwClass = __AppMemGetOffset(block.dwSize + kHeads),
                           dwSign = bTaken ? 1 : UINT32_MAX;
            dwCount += dwSign;
            dwUsed += dwSign * block.dwSize;
            dwWork += dwSign * (dwClass < 18 ? 32u << dwClass : block.dwSize + kHeads);
            if (dwClass < 18 && !bTaken)
                idle[dwClass].push_back(block.pby);
            if (dwClass == 18 || !bTaken || idle[dwClass].empty())
                return;
            EXPECT_EQ(block.pby, idle[dwClass].front());
            idle[dwClass].pop_front();
        };
        for (unsigned i = 0; i < test::Scaled(4000) && !HasFailure(); ++i) {
            TBlock &held = atHeld[random() % 16];
            const auto dwNear = static_cast<uint32_t>(random() % 3) - 1;
            const uint32_t adwSize[] = {
                dwMax ? dwMax - dwUsed + dwNear : static_cast<uint32_t>(random() % 200),
                (64u << random() % 18) - kHeads + dwNear, kMost + 1 + dwNear, 0};
            const uint32_t dwSize = i % 9 ? adwSize[random() % 2] : adwSize[random() % 4];
            const bool bStays = held.pby && dwSize <= held.dwSize, bFree = random() % 2;
            const bool bFits =
                dwSize != 0 && dwSize < kMost && (dwMax == 0 || dwSize + dwUsed < dwMax);
            const std::string full =
                Text("[ERROR] AppMemPoolMalloc: AppMemPool POOL full! can't malloc %u "
                     "(curSize %u MaxSize %u)\n",
                     dwSize, dwUsed, dwMax);
            if (bFree) {
                AppMemPoolFree(held.pby);
                if (held.pby)
                    Count(std::exchange(held, {}), false);
            } else if (dwSize != kMost) {
                const TBlock got = {
                    static_cast<unsigned char *>(AppMemPoolRealloc(hPool, held.pby, dwSize)),
                    dwSize};
                EXPECT_EQ(got.pby != nullptr, bStays || bFits) << dwSize;
                log.ExpectLines(std::vector<std::string>(!bStays && !bFits && dwSize != 0, full));
                EXPECT_TRUE(!bStays || got.pby == held.pby);
                if (bStays || !got.pby)
                    continue;
                EXPECT_EQ(reinterpret_cast<uintptr_t>(got.pby) %
                              (sizeof(void *) == 8 ? alignof(max_align_t) : 4),
                          0u);
                if (held.pby) {
                    EXPECT_EQ(got.pby[0] + got.pby[held.dwSize - 1], 2 * (held.dwSize % 128));
                }
                Count(got, true);
                if (held.pby)
                    Count(held, false);
                held = got;
                held.pby[0] = held.pby[dwSize - 1] = static_cast<unsigned char>(dwSize % 128);
            }
            EXPECT_EQ(hPool->dwCurSize, dwUsed);
            ExpectCounters(dwCount, dwWork, ptImpl->dwTotalSize);
        }
        for (const TBlock &held : atHeld)
            AppMemPoolFree(held.pby);
        ExpectCounters(0, 0, ptImpl->dwTotalSize);
    }
}

TEST_F(MemPool, BlocksMoveBetweenPoolAndHeap)
{
    auto szText = static_cast<char *>(AppMemPoolMalloc(nullptr, 10));
    strcpy(szText, "123456789");
    for (const HAppMemPool hTo : {hPool, HAppMemPool(nullptr)}) {
        szText = static_cast<char *>(AppMemPoolRealloc(hTo, szText, hTo ? 5000000 : 9000000));
        EXPECT_STREQ(szText, "123456789");
        EXPECT_EQ(hPool->dwCurSize, hTo ? 5000000u : 0u);
    }
    AppMemPoolFree(szText);
}

TEST_F(MemPool, TheLargestSizeIsTried)
{
    fault::Fail fail(Fn::malloc, 1, ENOMEM, 2);
    EXPECT_EQ(AppMemPoolMalloc(hPool, kMost), nullptr);
    EXPECT_EQ(AppMemPoolMalloc(nullptr, kMost + 1), nullptr); // is not
    EXPECT_EQ(fail.Hits(), 1u);
    EXPECT_EQ(AppMemPoolMalloc(nullptr, kMost), nullptr);
    EXPECT_EQ(fail.Hits(), 2u);
    ExpectCounters(0, 0, 0);
}

TEST_F(MemPool, ClassesEndAtPowersOfTwo)
{
    EXPECT_EQ(__AppMemGetOffset(0), 18u);
    EXPECT_EQ(__AppMemGetOffset(1), 0u);
    EXPECT_EQ(__AppMemGetOffset(kLargest), 18u);
    for (uint32_t k = 0; k < 18; ++k) {
        EXPECT_EQ(__AppMemGetOffset(32u << k), k);
        EXPECT_EQ(__AppMemGetOffset((32u << k) + 1), k + 1);
    }
}

TEST_F(MemPool, ForeignPointersAreLeftAlone)
{
    alignas(16) char achForeign[128] = "not ours";
    log.Name(achForeign + 65, "IT"); // not even aligned
    AppMemPoolFree(achForeign + 65);
    EXPECT_EQ(AppMemPoolRealloc(nullptr, achForeign + 65, 10), nullptr);
    log.ExpectLines(
        {"[ERROR] AppMemPoolFree: IT is not create by AppMemPool or Data corruption.\n",
         "[ERROR] AppMemPoolRealloc: IT is not create by AppMemPool or Data corruption.\n"});
}

TEST_F(MemPool, StrndupCutsAndFills)
{
    for (const uint32_t dwSize : {1u, 2u, 4u, 60u}) {
        char *szCopy = AppStrndup(hPool, "abc", dwSize);
        const std::string kept = std::string("abc").substr(0, dwSize - 1);
        EXPECT_EQ(std::string(szCopy, dwSize), kept + std::string(dwSize - kept.size(), '\0'));
        EXPECT_EQ(hPool->dwCurSize, dwSize);
        AppMemPoolFree(szCopy);
    }
    EXPECT_EQ(AppStrndup(hPool, "", 5), nullptr);
    EXPECT_EQ(AppStrndup(hPool, "abc", 0), nullptr);
}

TEST_F(MemPool, TracesTellEveryStep)
{
    AppSetLogLevel(0, APP_LOG_MEMDBG2);
    void *pvData = AppMemPoolMalloc(hPool, kSize), *pvLarge = AppMemPoolMalloc(hPool, kLarge);
    HAppDoubleListNode hNode = BlockOf(pvData)->hNode; // comes from the null pool
    for (void *pvBlock : {pvData, pvLarge})
        AppMemPoolFree(pvBlock);
    EXPECT_EQ(AppMemPoolMalloc(hPool, kSize), pvData);
    const std::string node = Text(" with size %zu\n", sizeof(*hNode)),
                      size = Text(" with size %u\n", kSize);
    const std::string large = Text(" with size %u\n", kLarge),
                      handed = "AppMemPool POOL with MEMPOOL ENGINE malloc ";
    log.Name(pvData, "DATA");
    log.Name(pvLarge, "LARGE");
    log.Name(BlockOf(pvData), "BLOCK");
    log.Name(BlockOf(pvLarge) + 1, "HEAD");
    log.Name(hNode, "NODE");
    log.ExpectLines(
        {"[MEMDBG-1] AppMemPoolMalloc: AppMemPool NULL  malloc NODE" + node,
         "[MEMDBG-2] _AppMalloc: Size 128, use MP ENGINE offset 2(128) new block BLOCK\n",
         "[MEMDBG-2] _AppMalloc: MP ENGINE count=1, OnWorkSize=128 TotalSize=128\n",
         "[MEMDBG-1] AppMemPoolMalloc: " + handed + "DATA" + size,
         "[MEMDBG-2] _AppMalloc: size 5000000, use MP ENGINE use malloc\n",
         "[MEMDBG-2] _AppMalloc: MP ENGINE count=2, OnWorkSize=5000128 TotalSize=5000128\n",
         "[MEMDBG-1] AppMemPoolMalloc: " + handed + "LARGE" + large,
         "[MEMDBG-1] AppMemPoolFree: AppMemPool POOL free DATA" + size,
         "[MEMDBG-2] _AppFree: Size 128, use MP ENGINE offset 2(128) block BLOCK return to "
         "offlist\n",
         "[MEMDBG-2] _AppFree: MP ENGINE count=1, OnWorkSize=5000000 TotalSize=5000128\n",
         "[MEMDBG-1] AppMemPoolFree: AppMemPool POOL free LARGE" + large,
         "[MEMDBG-2] _AppFree: size 5000000, use MP ENGINE HEAD use free\n",
         "[MEMDBG-2] _AppMalloc: Size 128, use MP ENGINE offset 2(128) block BLOCK\n",
         "[MEMDBG-2] _AppMalloc: MP ENGINE count=1, OnWorkSize=128 TotalSize=128\n",
         "[MEMDBG-1] AppMemPoolMalloc: " + handed + "DATA" + size});
    _AppMemPoolDestroy(std::exchange(hPool->ptImpl, nullptr)); // with a block in use
    EXPECT_EQ(log.Count("[INFO ] _AppMemPoolDestroy: Mempool ENGINE\n"), 1u);
    EXPECT_EQ(
        log.Count("[MEMDBG-2] __AppMemPoolFreeData: Size 128, use MP ENGINE block BLOCK free\n"),
        1u);
    Recreate(0);
    EXPECT_EQ(_AppMalloc(ptImpl, 0), nullptr);
    _AppFree(ptImpl, nullptr);
    _AppFree(nullptr, _AppMalloc(nullptr, 10)); // an engine without a record
}

TEST(MemPoolChecks, FindASecondRelease)
{
    HAppMemPool hPool = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
    void *pvData = AppMemPoolMalloc(hPool, kSize);
    AppMemPoolFree(pvData);
    EXPECT_DEATH(AppMemPoolFree(pvData),
                 "\\[ERROR\\] _AppFree: the block has been released before");
    AppMemPoolDestroy(hPool);
}

TEST_F(MemPool, ReportShowsClassesAndTotals)
{
    Recreate(20000000);
    void *const apvData[] = {AppMemPoolMalloc(hPool, kLarge), AppMemPoolMalloc(hPool, kSize),
                             AppMemPoolMalloc(hPool, 4000000)};
    AppMemPoolFree(AppMemPoolMalloc(hPool, 4000000));
    const std::vector<std::string> texts = Report(hPool);
    EXPECT_EQ(texts[0], "============================================\n" +
                            Text("hMemPool(%p) Lock(%p) CurSize(%u) MaxSize(20000000)\n",
                                 (void *)hPool, (void *)hPool->hLock, hPool->dwCurSize) +
                            "--- Details ------------------------");
    EXPECT_EQ(
        texts[1],
        Text("[ 2] OnList count=1 blocksize=128 size=128\n"
             "[17] OnList count=1 blocksize=4194304 size=4194304\n"
             "[17] OffList count=1 blocksize=4194304 size=4194304\n"
             "[malloc/free]count=1 size=5000000\n"
             "MEMPOOL %p OnWorkCount=3 OnWorkSize=9194432 TotalSize=13388736 IdleSize=4194304\n",
             (void *)ptImpl));
    for (void *pvData : apvData)
        AppMemPoolFree(pvData);
    _AppMemPoolShow(nullptr, Collect, nullptr);
    AppMemPoolShow(hPool, nullptr, nullptr);
    const auto UseThePool = [](const char *, void *pvContext) {
        app::TimedLockGuard guard(static_cast<HAppMemPool>(pvContext));
        EXPECT_TRUE(guard.TakeByTime(1000));
    };
    AppMemPoolShow(hPool, UseThePool, hPool);
}

TEST_F(MemPool, ReportComesWhileTheLockIsHeldElsewhere)
{
    std::atomic<bool> bHeld{false}, bEnd{false};
    std::thread holder([&] {
        AppLockTakeByTime(hPool->hLock, 0);
        for (bHeld = true; !bEnd; std::this_thread::yield()) // the figures change meanwhile
            _AppFree(ptImpl, _AppMalloc(ptImpl, 100));
        AppLockGive(hPool->hLock);
    });
    EXPECT_TRUE(test::WaitUntil([&] { return bHeld.load(); }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Report(hPool).size(), 2u);
    EXPECT_GE(test::ElapsedMs(start), 1000);
    EXPECT_CODE(APP_TIMEOUT, AppLockTakeByTime(hPool->hLock, 1)); // not given by the report
    bEnd = true;
    holder.join();
}

// Each thread fills its blocks with its own pattern and finds it again; the sums are conserved.
TEST_F(MemPool, EightThreadsShareAPool)
{
    constexpr unsigned kThreads = 8;
    test::RunThreads(kThreads + 1, [&](unsigned nThread) {
        std::minstd_rand random(nThread + 1);
        struct {
            unsigned char *pbyData = nullptr;
            uint32_t dwSize = 0;
        } atHeld[32];
        for (unsigned i = 0; nThread == kThreads && i < 100; ++i)
            EXPECT_EQ(Report(hPool).size(), 2u);
        for (unsigned i = 0; nThread < kThreads && i < test::Scaled(60000); ++i) {
            auto &held = atHeld[random() % 32];
            for (uint32_t j = 0; j < held.dwSize; j += 64)
                ASSERT_EQ(held.pbyData[j], nThread);
            AppMemPoolFree(held.pbyData);
            held.dwSize = 1 + static_cast<uint32_t>(random() % (i % 100 ? 500 : 20000));
            held.pbyData = static_cast<unsigned char *>(AppMemPoolMalloc(hPool, held.dwSize));
            ASSERT_NE(held.pbyData, nullptr);
            memset(held.pbyData, static_cast<int>(nThread), held.dwSize);
        }
        for (const auto &held : atHeld)
            AppMemPoolFree(held.pbyData);
    });
    EXPECT_EQ(hPool->dwCurSize, 0u);
    ExpectCounters(0, 0, ptImpl->dwTotalSize);
}
