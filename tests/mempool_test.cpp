// SPDX-License-Identifier: MIT
#include "mempool/mempool.h"

#include <random>
#include <thread>

#include "appcore/appcore.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "utils/lock_guard.h"

using fault::Fn;
using test::LogCapture;
using test::Text;

namespace {

constexpr uint32_t kBlockHead = sizeof(TAppMemBlockHead);
constexpr uint32_t kHeads = sizeof(TAppMemPoolHead) + kBlockHead;
constexpr uint32_t kLargest = 4294967295u;
constexpr uint32_t kSize = 128 - kHeads; // a block of class 2 on both word sizes
constexpr uint32_t kLarge = 5000000 - kHeads;

TAppMemBlockHead *BlockOf(void *pvData) {
    return reinterpret_cast<TAppMemBlockHead *>(static_cast<char *>(pvData) - kHeads);
}

void Collect(const char *szText, void *pvContext) {
    static_cast<std::vector<std::string> *>(pvContext)->push_back(szText);
}

std::vector<std::string> Report(HAppMemPool hPool) {
    std::vector<std::string> texts;
    AppMemPoolShow(hPool, Collect, &texts);
    return texts;
}

class MemPool : public testing::Test {
protected:
    MemPool() { Recreate(0); }
    ~MemPool() override {
        EXPECT_TRUE(app::PoolIsValid(hPool));
        AppMemPoolDestroy(hPool);
    }
    void Recreate(uint32_t dwMaxSize) {
        AppMemPoolDestroy(hPool);
        ASSERT_CODE(APP_OK, AppMemPoolCreate(dwMaxSize, 1, 0, &hPool));
        ptImpl = hPool->ptImpl;
        log.Name(hPool, "POOL");
        log.Name(hPool->hLock, "LOCK");
        log.Name(ptImpl, "ENGINE");
        log.Clear();
    }
    void ExpectCounters(uint32_t dwCount, uint32_t dwOnWork, uint32_t dwTotal) const {
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

TEST_F(MemPool, LimitIsStrict) {
    Recreate(100);
    struct {
        uint32_t dwSize;
        bool bTaken;
    } const rows[] = {{0, false}, {100, false}, {101, false}, {99, true}, {1, false}};
    void *pvTaken = nullptr;
    for (const auto &row : rows) {
        const std::string full = Text("[ERROR] AppMemPoolMalloc: AppMemPool POOL full! can't malloc "
                                      "%u (curSize %u MaxSize 100)\n",
                                      row.dwSize, hPool->dwCurSize);
        void *pvData = AppMemPoolMalloc(hPool, row.dwSize);
        EXPECT_EQ(pvData != nullptr, row.bTaken) << row.dwSize;
        pvTaken = pvData ? pvData : pvTaken;
        EXPECT_EQ(hPool->dwCurSize, pvTaken ? 99u : 0u);
        log.ExpectLines(std::vector<std::string>(row.dwSize != 0 && !pvData, full));
    }
    AppMemPoolFree(pvTaken);
    EXPECT_EQ(hPool->dwCurSize, 0u);
}

TEST_F(MemPool, SizesNear4GiBAreRefused) {
    for (const uint32_t dwSize : {kLargest, kLargest - kBlockHead, kLargest - kHeads + 1}) {
        EXPECT_EQ(AppMemPoolMalloc(hPool, dwSize), nullptr);
        EXPECT_EQ(AppMemPoolMalloc(nullptr, dwSize), nullptr);
        log.ExpectLines({Text("[ERROR] AppMemPoolMalloc: AppMemPool POOL full! can't malloc %u (curSize 0 "
                              "MaxSize 0)\n",
                              dwSize),
                         Text("[ERROR] AppMemPoolMalloc: AppMemPool NULL malloc failed with size %u\n", dwSize)});
    }
    fault::Fail fail(Fn::malloc, 1, ENOMEM, 2); // the largest is tried
    EXPECT_EQ(AppMemPoolMalloc(hPool, kLargest - kHeads), nullptr);
    EXPECT_EQ(AppMemPoolMalloc(nullptr, kLargest - kHeads), nullptr);
    EXPECT_EQ(fail.Hits(), 2u);
    EXPECT_EQ(log.Lines()[0], "[ERROR] _AppMalloc: malloc with size 4294967295 failed\n");
    ExpectCounters(0, 0, 0);
}

TEST_F(MemPool, BlocksAreAlignedAndWritable) {
    constexpr size_t kAlign = sizeof(void *) == 8 ? alignof(max_align_t) : 4;
    EXPECT_EQ(kHeads, sizeof(void *) == 8 ? 48u : 20u);
    for (const HAppMemPool hFrom : {hPool, HAppMemPool(nullptr)})
        for (uint32_t dwSize = 1; dwSize < 9000000; dwSize += dwSize / 2 + 1) {
            void *pvData = AppMemPoolMalloc(hFrom, dwSize);
            ASSERT_NE(pvData, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(pvData) % kAlign, 0u);
            memset(pvData, 0x5A, dwSize);
            AppMemPoolFree(pvData);
        }
    EXPECT_EQ(hPool->dwCurSize, 0u);
}

TEST_F(MemPool, ReallocGrowsAcrossPools) {
    HAppMemPool hOther = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(200, 0, 0, &hOther));
    EXPECT_EQ(hOther->hLock, nullptr);
    for (const HAppMemPool hFrom : {hPool, HAppMemPool(nullptr)}) {
        auto szOld = static_cast<char *>(AppMemPoolRealloc(hFrom, nullptr, 10));
        memcpy(szOld, "123456789", 10);
        for (const uint32_t dwSize : {10u, 3u, 0u}) EXPECT_EQ(AppMemPoolRealloc(hOther, szOld, dwSize), szOld);
        EXPECT_EQ(hPool->dwCurSize, hFrom ? 10u : 0u);
        EXPECT_EQ(AppMemPoolRealloc(hOther, szOld, 200), nullptr); // full; the old one stays
        auto szNew = static_cast<char *>(AppMemPoolRealloc(hOther, szOld, 150));
        EXPECT_STREQ(szNew, "123456789");
        EXPECT_EQ(hPool->dwCurSize, 0u);
        EXPECT_EQ(hOther->dwCurSize, 150u);
        AppMemPoolFree(szNew);
    }
    EXPECT_EQ(AppMemPoolRealloc(hPool, nullptr, 0), nullptr);
    AppMemPoolDestroy(hOther);
}

TEST_F(MemPool, ForeignPointersAreLeftAlone) {
    alignas(16) char achForeign[128] = "not ours";
    for (const size_t nOffset : {64u, 65u}) { // the second is not even aligned
        log.Name(achForeign + nOffset, "IT");
        AppMemPoolFree(achForeign + nOffset);
        EXPECT_EQ(AppMemPoolRealloc(nullptr, achForeign + nOffset, 10), nullptr);
        log.ExpectLines({"[ERROR] AppMemPoolFree: IT is not create by AppMemPool or Data corruption.\n",
                         "[ERROR] AppMemPoolRealloc: IT is not create by AppMemPool or Data corruption.\n"});
    }
    AppMemPoolFree(nullptr);
    log.ExpectNone();
}

TEST_F(MemPool, StrndupCutsAndAccounts) {
    struct {
        const char *szSrc;
        uint32_t dwSize;
        const char *szCopy;
    } const rows[] = {{"abc", 4, "abc"}, {"abc", 2, "a"},       {"abc", 1, ""},      {"abc", 60, "abc"},
                      {"", 5, nullptr},  {nullptr, 5, nullptr}, {"abc", 0, nullptr}, {"abc", 100, nullptr}};
    Recreate(100);
    for (const auto &row : rows) {
        char *szCopy = AppStrndup(hPool, row.szSrc, row.dwSize);
        EXPECT_STREQ(szCopy, row.szCopy);
        EXPECT_EQ(hPool->dwCurSize, row.szCopy ? row.dwSize : 0);
        for (uint32_t i = AppStrlen(szCopy); szCopy && i < row.dwSize; ++i) EXPECT_EQ(szCopy[i], '\0');
        AppMemPoolFree(szCopy);
    }
    EXPECT_EQ(log.Lines().size(), 1u); // the pool was full
}

TEST_F(MemPool, ClassesEndAtPowersOfTwo) {
    EXPECT_EQ(__AppMemGetOffset(0), 18u);
    EXPECT_EQ(__AppMemGetOffset(1), 0u);
    EXPECT_EQ(__AppMemGetOffset(kLargest), 18u);
    for (uint32_t k = 0; k < 18; ++k) {
        EXPECT_EQ(__AppMemGetOffset(32u << k), k);
        EXPECT_EQ(__AppMemGetOffset((32u << k) + 1), k + 1);
    }
    uint32_t dwTotal = 0;
    for (uint32_t dwBlock = 64; dwBlock <= 4194304; dwBlock *= 2) { // the headers come on top
        AppMemPoolFree(AppMemPoolMalloc(hPool, dwBlock - kHeads));
        ExpectCounters(0, 0, dwTotal += dwBlock); // each class keeps its block
    }
    void *pvLarge = AppMemPoolMalloc(hPool, 4194305 - kHeads);
    ExpectCounters(1, 4194305, dwTotal + 4194305);
    AppMemPoolFree(pvLarge); // back to the heap
    ExpectCounters(0, 0, dwTotal);
}

TEST_F(MemPool, OldestIdleBlockIsReusedFirst) {
    void *apvData[3];
    for (void *&pvData : apvData) pvData = AppMemPoolMalloc(hPool, kSize);
    for (const int i : {1, 0, 2}) AppMemPoolFree(apvData[i]);
    fault::Fail none(Fn::malloc, 0);
    for (const int i : {1, 0, 2}) EXPECT_EQ(AppMemPoolMalloc(hPool, kSize - 2), apvData[i]);
    EXPECT_EQ(none.Calls(), 0u); // reuse needs no heap
    ExpectCounters(3, 384, 384);
    EXPECT_EQ(hPool->dwCurSize, 3 * (kSize - 2));
}

TEST_F(MemPool, TracesTellEveryStep) {
    AppSetLogLevel(0, APP_LOG_MEMDBG2);
    void *pvData = AppMemPoolMalloc(hPool, kSize);
    HAppDoubleListNode hNode = BlockOf(pvData)->hNode; // comes from the null pool
    const std::string node = std::to_string(sizeof(*hNode)), size = std::to_string(kSize);
    log.Name(pvData, "DATA");
    log.Name(BlockOf(pvData) + 1, "HEAD");
    log.Name(BlockOf(pvData), "BLOCK");
    log.Name(hNode, "NODE");
    const std::string handed =
        "[MEMDBG-1] AppMemPoolMalloc: AppMemPool POOL with MEMPOOL ENGINE malloc DATA with size " + size + "\n";
    log.ExpectLines({"[MEMDBG-1] AppMemPoolMalloc: AppMemPool NULL  malloc NODE with size " + node + "\n",
                     "[MEMDBG-2] _AppMalloc: Size 128, use MP ENGINE offset 2(128) new block BLOCK\n",
                     "[MEMDBG-2] _AppMalloc: MP ENGINE count=1, OnWorkSize=128 TotalSize=128\n", handed});
    AppMemPoolFree(pvData);
    log.ExpectLines({"[MEMDBG-1] AppMemPoolFree: AppMemPool POOL free DATA with size " + size + "\n",
                     "[MEMDBG-2] _AppFree: Size 128, use MP ENGINE offset 2(128) block BLOCK return to "
                     "offlist\n",
                     "[MEMDBG-2] _AppFree: MP ENGINE count=0, OnWorkSize=0 TotalSize=128\n"});
    EXPECT_EQ(AppMemPoolMalloc(hPool, kSize), pvData);
    log.ExpectLines({"[MEMDBG-2] _AppMalloc: Size 128, use MP ENGINE offset 2(128) block BLOCK\n",
                     "[MEMDBG-2] _AppMalloc: MP ENGINE count=1, OnWorkSize=128 TotalSize=128\n", handed});

    void *pvLarge = AppMemPoolMalloc(hPool, kLarge);
    AppMemPoolFree(pvLarge);
    log.Name(pvLarge, "LARGE");
    log.Name(BlockOf(pvLarge) + 1, "HEAD");
    log.ExpectLines({"[MEMDBG-2] _AppMalloc: size 5000000, use MP ENGINE use malloc\n",
                     "[MEMDBG-2] _AppMalloc: MP ENGINE count=2, OnWorkSize=5000128 TotalSize=5000128\n",
                     Text("[MEMDBG-1] AppMemPoolMalloc: AppMemPool POOL with MEMPOOL ENGINE malloc LARGE with "
                          "size %u\n",
                          kLarge),
                     Text("[MEMDBG-1] AppMemPoolFree: AppMemPool POOL free LARGE with size %u\n", kLarge),
                     "[MEMDBG-2] _AppFree: size 5000000, use MP ENGINE HEAD use free\n"});

    _AppFree(nullptr, _AppMalloc(nullptr, 10)); // an engine without a record
    EXPECT_EQ(log.Lines()[0], Text("[MEMDBG-2] _AppMalloc: size %u, use MP (nil) use malloc\n", 10 + kBlockHead));
    EXPECT_EQ(_AppMalloc(ptImpl, 0), nullptr);
    _AppFree(ptImpl, nullptr);

    AppMemPoolDestroy(hPool); // with a block in use
    EXPECT_EQ(log.Count("[INFO ] _AppMemPoolDestroy: Mempool ENGINE\n"), 1u);
    EXPECT_EQ(log.Count("[MEMDBG-2] __AppMemPoolFreeData: Size 128, use MP ENGINE block BLOCK free\n"), 1u);
    EXPECT_EQ(log.Count("[MEMDBG-1] AppMemPoolFree: AppMemPool NULL free NODE with size " + node + "\n"), 1u);
    hPool = nullptr;
    Recreate(0);
}

TEST_F(MemPool, DamageIsReportedAndSurvived) {
    void *pvData = AppMemPoolMalloc(hPool, kSize);
    log.Name(BlockOf(pvData) + 1, "HEAD");
    hPool->dwCurSize = ptImpl->dwOnWorkSize = 1; // less than what is released now
    AppMemPoolFree(pvData);
    EXPECT_EQ(hPool->dwCurSize, 0u);
    ExpectCounters(0, 0, 128); // no account wraps
    log.ExpectLines({"[ERROR] _AppFree: WARING!!!! MEMPOOL ENGINE(OnWorkSize=1) is less than HEAD(size=128), "
                     "MEM LEAK may occured!!!!\n"});
    EXPECT_EQ(AppMemPoolMalloc(hPool, kSize), pvData); // released all the same

    // A listed block whose size fits no class is kept: the pool's destruction releases it, once.
    BlockOf(pvData)->dwBlockSize = 5000000;
    ptImpl->dwOnWorkSize = 6000000;
    AppMemPoolFree(pvData);
    log.ExpectLines({"[ERROR] _AppFree: WARING!!!!  HEAD(size=5000000) use MP ENGINE, SHOULD NOT "
                     "BE IN THE ON LIST!!!!\n"});
    EXPECT_EQ(ptImpl->dwOnWorkCount, 0u);
    EXPECT_EQ(ptImpl->dwOnWorkSize, 1000000u);
    EXPECT_EQ(ptImpl->dwTotalSize, 0u);
    EXPECT_FALSE(app::PoolIsValid(hPool)); // the check sees it
    BlockOf(pvData)->dwBlockSize = 128;
    ptImpl->dwOnWorkCount = 1;
    ptImpl->dwOnWorkSize = ptImpl->dwTotalSize = 128;
}

TEST(MemPoolChecks, FindASecondRelease) {
    HAppMemPool hPool = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
    void *pvData = AppMemPoolMalloc(hPool, kSize);
    AppMemPoolFree(pvData);
    EXPECT_DEATH(AppMemPoolFree(pvData), "\\[ERROR\\] _AppFree: the block has been released before");
    AppMemPoolDestroy(hPool);
}

TEST_F(MemPool, ReportShowsClassesAndTotals) {
    Recreate(20000000);
    // The engine's half follows the front's, which is checked here and cut off.
    const auto EngineReport = [&] {
        const std::vector<std::string> texts = Report(hPool);
        EXPECT_EQ(texts[0], "============================================\n" +
                                Text("hMemPool(%p) Lock(%p) CurSize(%u) MaxSize(20000000)\n", (void *)hPool,
                                     (void *)hPool->hLock, hPool->dwCurSize) +
                                "--- Details ------------------------");
        std::vector<std::string> engine;
        _AppMemPoolShow(ptImpl, Collect, &engine);
        EXPECT_EQ(texts.size(), 2u);
        EXPECT_EQ(engine, std::vector<std::string>{texts[1]});
        return texts[1];
    };
    const std::string engine = Text("MEMPOOL %p ", (void *)ptImpl);
    EXPECT_EQ(EngineReport(),
              "[malloc/free]count=0 size=0\n" + engine + "OnWorkCount=0 OnWorkSize=0 TotalSize=0 IdleSize=0\n");
    void *const apvData[] = {AppMemPoolMalloc(hPool, kLarge), AppMemPoolMalloc(hPool, kSize),
                             AppMemPoolMalloc(hPool, 4000000)};
    AppMemPoolFree(AppMemPoolMalloc(hPool, 4000000));
    EXPECT_EQ(EngineReport(), "[ 2] OnList count=1 blocksize=128 size=128\n"
                              "[17] OnList count=1 blocksize=4194304 size=4194304\n"
                              "[17] OffList count=1 blocksize=4194304 size=4194304\n"
                              "[malloc/free]count=1 size=5000000\n" +
                                  engine + "OnWorkCount=3 OnWorkSize=9194432 TotalSize=13388736 IdleSize=4194304\n");
    for (void *pvData : apvData) AppMemPoolFree(pvData);
    EXPECT_EQ(EngineReport(), "[ 2] OffList count=1 blocksize=128 size=128\n"
                              "[17] OffList count=2 blocksize=4194304 size=8388608\n"
                              "[malloc/free]count=0 size=0\n" +
                                  engine + "OnWorkCount=0 OnWorkSize=0 TotalSize=8388736 IdleSize=8388736\n");
    _AppMemPoolShow(nullptr, Collect, nullptr);
    AppMemPoolShow(hPool, nullptr, nullptr);
    const auto UseThePool = [](const char *, void *pvContext) {
        app::LockGuard guard(static_cast<HAppMemPool>(pvContext)->hLock, 1000);
        EXPECT_TRUE(guard);
    };
    AppMemPoolShow(hPool, UseThePool, hPool);
}

TEST_F(MemPool, ReportComesWhileTheLockIsHeldElsewhere) {
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
    Report(hPool);
    EXPECT_CODE(APP_OK, AppLockTakeByTime(hPool->hLock, 1)); // given, this time
    AppLockGive(hPool->hLock);
}

// Each thread fills its blocks with its own pattern and finds it again; the sums are conserved.
TEST_F(MemPool, EightThreadsShareAPool) {
    constexpr unsigned kThreads = 8, kHeld = 32;
    constexpr unsigned kRounds = test::Scaled(1000000) / kThreads / 4; // free and malloc, two phases
    struct {
        unsigned char *pbyData = nullptr;
        uint32_t dwSize = 0;
    } atHeld[kThreads][kHeld];
    for (int nPhase = 0; nPhase < 2; ++nPhase) {
        test::RunThreads(kThreads + 1, [&](unsigned nThread) {
            std::minstd_rand random(nThread + 1);
            const auto byPattern = static_cast<unsigned char>(nThread + 1);
            for (unsigned i = 0; nThread == kThreads && i < 100; ++i) EXPECT_EQ(Report(hPool).size(), 2u);
            for (unsigned i = 0; nThread < kThreads && i < kRounds; ++i) {
                auto &held = atHeld[nThread][random() % kHeld];
                for (uint32_t j = 0; j < held.dwSize; j += 64) ASSERT_EQ(held.pbyData[j], byPattern);
                AppMemPoolFree(held.pbyData);
                held.dwSize = 1 + static_cast<uint32_t>(random() % (i % 100 ? 500 : 20000));
                held.pbyData = static_cast<unsigned char *>(AppMemPoolMalloc(hPool, held.dwSize));
                ASSERT_NE(held.pbyData, nullptr);
                memset(held.pbyData, byPattern, held.dwSize);
            }
        });
        ASSERT_TRUE(app::PoolIsValid(hPool));
        uint32_t dwSum = 0, dwCount = 0;
        for (auto &thread : atHeld)
            for (const auto &held : thread) {
                dwSum += held.dwSize;
                dwCount += held.pbyData != nullptr;
            }
        EXPECT_EQ(hPool->dwCurSize, dwSum);
        EXPECT_EQ(ptImpl->dwOnWorkCount, dwCount);
    }
    for (auto &thread : atHeld)
        for (auto &held : thread) AppMemPoolFree(held.pbyData);
    EXPECT_EQ(hPool->dwCurSize, 0u);
    ExpectCounters(0, 0, ptImpl->dwTotalSize);
}
