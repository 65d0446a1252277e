// SPDX-License-Identifier: MIT
#include "mempool/mempool.h"

#include <stdlib.h>

#include <memory>
#include <random>
#include <thread>

#include "appcore/appcore.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using fault::Fn;
using test::LogCapture;
using test::Text;

namespace
{

constexpr uint32_t kBlockHead = sizeof(TAppMemBlockHead);
constexpr uint32_t kHeads = sizeof(TAppMemPoolHead) + kBlockHead;

#define TEXT_FULL "[ERROR] %s: AppMemPool %p full! can't malloc %lu (curSize %lu MaxSize %lu)\n"
#define TEXT_FOREIGN "[ERROR] %s: %p is not create by AppMemPool or Data corruption.\n"
#define TEXT_COUNTERS "[MEMDBG-2] %s: MP %p count=%lu, OnWorkSize=%lu TotalSize=%lu\n"

void *BlockOf(void *pvData)
{
    return static_cast<char *>(pvData) - kHeads;
}

void *HeadOf(void *pvData)
{
    return static_cast<char *>(pvData) - sizeof(TAppMemPoolHead);
}

unsigned long Ul(uint32_t dwValue)
{
    return dwValue;
}

// A pool that must be valid when it ends.
class Pool
{
public:
    explicit Pool(uint32_t dwMaxSize = 0, uint32_t bLock = 1)
    {
        EXPECT_CODE(APP_OK, AppMemPoolCreate(dwMaxSize, bLock, 0, &m_hPool));
    }
    ~Pool()
    {
        EXPECT_TRUE(app::PoolIsValid(m_hPool));
        AppMemPoolDestroy(m_hPool);
    }
    operator HAppMemPool() const { return m_hPool; }
    HAppMemPool operator->() const { return m_hPool; }
    TAppMemPoolImpl *Impl() const { return m_hPool->ptImpl; }
    void ExpectCounters(uint32_t dwCount, uint32_t dwOnWork, uint32_t dwTotal) const
    {
        EXPECT_EQ(Impl()->dwOnWorkCount, dwCount);
        EXPECT_EQ(Impl()->dwOnWorkSize, dwOnWork);
        EXPECT_EQ(Impl()->dwTotalSize, dwTotal);
        EXPECT_TRUE(app::PoolIsValid(m_hPool));
    }

private:
    HAppMemPool m_hPool = nullptr;
};

} // namespace

// ---- Front ----------------------------------------------------------------------------------

TEST(MemPool, LimitIsStrict)
{
    LogCapture log;
    Pool pool(100);
    struct {
        uint32_t dwSize;
        bool bTaken;
        uint32_t dwCurSize;
    } const rows[] = {{0, false, 0},           {100, false, 0}, {101, false, 0},
                      {4294967295u, false, 0}, {99, true, 99},  {1, false, 99}};
    void *pvLast = nullptr;
    for (const auto &row : rows) {
        void *pvData = AppMemPoolMalloc(pool, row.dwSize);
        EXPECT_EQ(pvData != nullptr, row.bTaken) << row.dwSize;
        EXPECT_EQ(pool->dwCurSize, row.dwCurSize);
        if (row.bTaken || row.dwSize == 0)
            log.ExpectNone();
        else
            log.ExpectLines({Text(TEXT_FULL, "AppMemPoolMalloc", (void *)(HAppMemPool)pool,
                                  Ul(row.dwSize), Ul(row.dwCurSize), 100ul)});
        pvLast = pvData ? pvData : pvLast;
    }
    AppMemPoolFree(pvLast);
    EXPECT_EQ(pool->dwCurSize, 0u);
    log.Clear();
    AppMemPoolFree(AppMemPoolMalloc(pool, 99));
    log.ExpectNone();
}

TEST(MemPool, SizesNear4GiBAreRefused)
{
    Pool pool;
    LogCapture log;
    for (const uint32_t dwSize :
         {4294967295u, 4294967295u - kBlockHead, 4294967295u - kHeads + 1}) {
        EXPECT_EQ(AppMemPoolMalloc(pool, dwSize), nullptr);
        EXPECT_EQ(AppMemPoolMalloc(nullptr, dwSize), nullptr);
        log.ExpectLines(
            {Text(TEXT_FULL, "AppMemPoolMalloc", (void *)(HAppMemPool)pool, Ul(dwSize), 0ul, 0ul),
             Text("[ERROR] %s: AppMemPool NULL malloc failed with size %lu\n", "AppMemPoolMalloc",
                  Ul(dwSize))});
    }
    // The largest that is tried; the heap need not have it.
    fault::Fail fail(Fn::malloc, 1, ENOMEM, 2);
    EXPECT_EQ(AppMemPoolMalloc(pool, 4294967295u - kHeads), nullptr);
    EXPECT_EQ(AppMemPoolMalloc(nullptr, 4294967295u - kHeads), nullptr);
    EXPECT_EQ(fail.Hits(), 2u);
    log.ExpectLines({Text("[ERROR] %s: malloc with size %lu failed\n", "_AppMalloc", 4294967295ul),
                     Text("[ERROR] %s: AppMemPool NULL malloc failed with size %lu\n",
                          "AppMemPoolMalloc", Ul(4294967295u - kHeads))});
    EXPECT_EQ(pool->dwCurSize, 0u);
    pool.ExpectCounters(0, 0, 0);
}

TEST(MemPool, BlocksAreAlignedAndWritable)
{
    Pool pool;
    constexpr size_t kAlign = sizeof(void *) == 8 ? alignof(max_align_t) : 4;
    EXPECT_EQ(kHeads, sizeof(void *) == 4 ? 20u : 48u);
    for (const HAppMemPool hPool : {HAppMemPool(pool), HAppMemPool(nullptr)})
        for (uint32_t dwSize = 1; dwSize < 9000000; dwSize += dwSize / 2 + 1) {
            void *pvData = AppMemPoolMalloc(hPool, dwSize);
            ASSERT_NE(pvData, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(pvData) % kAlign, 0u);
            memset(pvData, 0x5A, dwSize);
            AppMemPoolFree(pvData);
        }
    EXPECT_EQ(pool->dwCurSize, 0u);
}

TEST(MemPool, ReallocGrowsAcrossPools)
{
    Pool poolA, poolB(200);
    for (const HAppMemPool hFrom : {HAppMemPool(poolA), HAppMemPool(nullptr)}) {
        auto szOld = static_cast<char *>(AppMemPoolRealloc(hFrom, nullptr, 10));
        memcpy(szOld, "123456789", 10);
        EXPECT_EQ(AppMemPoolRealloc(poolB, szOld, 10), szOld);
        EXPECT_EQ(AppMemPoolRealloc(poolB, szOld, 3), szOld);
        EXPECT_EQ(AppMemPoolRealloc(poolB, szOld, 0), szOld);
        EXPECT_EQ(poolA->dwCurSize, hFrom ? 10u : 0u);
        LogCapture log;
        EXPECT_EQ(AppMemPoolRealloc(poolB, szOld, 200), nullptr);
        log.ExpectLines(
            {Text(TEXT_FULL, "AppMemPoolMalloc", (void *)(HAppMemPool)poolB, 200ul, 0ul, 200ul)});
        EXPECT_STREQ(szOld, "123456789"); // still valid
        auto szNew = static_cast<char *>(AppMemPoolRealloc(poolB, szOld, 150));
        EXPECT_STREQ(szNew, "123456789");
        EXPECT_EQ(poolA->dwCurSize, 0u); // the old block went back to its own pool
        EXPECT_EQ(poolB->dwCurSize, 150u);
        AppMemPoolFree(szNew);
        EXPECT_EQ(poolB->dwCurSize, 0u);
    }
    EXPECT_EQ(AppMemPoolRealloc(poolA, nullptr, 0), nullptr);
}

TEST(MemPool, ForeignPointersAreLeftAlone)
{
    LogCapture log;
    alignas(16) char achForeign[128] = "not ours";
    for (const size_t nOffset : {64u, 65u}) { // the second is not even aligned
        void *pvForeign = achForeign + nOffset;
        AppMemPoolFree(pvForeign);
        EXPECT_EQ(AppMemPoolRealloc(nullptr, pvForeign, 10), nullptr);
        log.ExpectLines({Text(TEXT_FOREIGN, "AppMemPoolFree", pvForeign),
                         Text(TEXT_FOREIGN, "AppMemPoolRealloc", pvForeign)});
    }
    AppMemPoolFree(nullptr);
    log.ExpectNone();
}

TEST(MemPool, StrndupCutsAndAccounts)
{
    struct {
        const char *szSrc;
        uint32_t dwSize;
        const char *szCopy;
    } const rows[] = {{"abc", 4, "abc"},   {"abc", 2, "a"},      {"abc", 1, ""},
                      {"abc", 60, "abc"},  {"", 5, nullptr},     {nullptr, 5, nullptr},
                      {"abc", 0, nullptr}, {"abc", 100, nullptr}};
    Pool pool(100);
    LogCapture log;
    for (const auto &row : rows) {
        char *szCopy = AppStrndup(pool, row.szSrc, row.dwSize);
        EXPECT_STREQ(szCopy, row.szCopy);
        EXPECT_EQ(pool->dwCurSize, row.szCopy ? row.dwSize : 0);
        for (uint32_t i = AppStrlen(szCopy); szCopy && i < row.dwSize; ++i)
            EXPECT_EQ(szCopy[i], '\0');
        AppMemPoolFree(szCopy);
    }
    EXPECT_EQ(log.Lines().size(), 1u); // the pool was full
}

// ---- Engine ---------------------------------------------------------------------------------

TEST(MemPool, ClassesEndAtPowersOfTwo)
{
    EXPECT_EQ(__AppMemGetOffset(0), 18u);
    EXPECT_EQ(__AppMemGetOffset(1), 0u);
    EXPECT_EQ(__AppMemGetOffset(4294967295u), 18u);
    for (uint32_t k = 0; k < 18; ++k) {
        EXPECT_EQ(__AppMemGetOffset(32u << k), k);
        EXPECT_EQ(__AppMemGetOffset((32u << k) + 1), k + 1);
    }
    // Through the front, the headers come on top.
    Pool pool;
    uint32_t dwTotal = 0;
    for (uint32_t k = __AppMemGetOffset(kHeads + 1); k < 18; ++k)
        for (const uint32_t dwMore : {0u, 1u}) {
            const uint32_t dwBlock = 32u << k;
            const uint32_t dwNeed = dwBlock + dwMore;
            const uint32_t dwReal = dwMore == 0 ? dwBlock : k == 17 ? dwNeed : 2 * dwBlock;
            void *pvData = AppMemPoolMalloc(pool, dwNeed - kHeads);
            pool.ExpectCounters(1, dwReal, pool.Impl()->dwTotalSize);
            AppMemPoolFree(pvData);
            dwTotal += dwMore == 0 && dwTotal == 0 ? dwReal : dwMore != 0 && k < 17 ? dwReal : 0;
            pool.ExpectCounters(0, 0, dwTotal); // each class keeps one block, the heap's went back
        }
}

TEST(MemPool, OldestIdleBlockIsReusedFirst)
{
    Pool pool(0, 0);
    void *apvData[3];
    for (void *&pvData : apvData)
        pvData = AppMemPoolMalloc(pool, 100);
    const uint32_t dwTotal = pool.Impl()->dwTotalSize;
    for (const int i : {1, 0, 2})
        AppMemPoolFree(apvData[i]);
    fault::Fail none(Fn::malloc, 0);
    for (const int i : {1, 0, 2})
        EXPECT_EQ(AppMemPoolMalloc(pool, 90 + static_cast<uint32_t>(i)), apvData[i]);
    EXPECT_EQ(none.Calls(), 0u); // reuse needs no heap
    pool.ExpectCounters(3, dwTotal, dwTotal);
    EXPECT_EQ(pool->dwCurSize, 273u);
    for (void *pvData : apvData)
        AppMemPoolFree(pvData);
}

// One class block and one large block, taken, released and destroyed, with every trace on.
TEST(MemPool, TracesTellEveryStep)
{
    HAppMemPool hPool = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
    TAppMemPoolImpl *ptImpl = hPool->ptImpl;
    void *const pvPool = hPool, *const pvImpl = ptImpl;
    LogCapture log(APP_LOG_MEMDBG2);
    const unsigned long nNeed = 100 + kHeads, nBlock = 32ul << __AppMemGetOffset(100 + kHeads);
    const unsigned long nClass = __AppMemGetOffset(100 + kHeads);

    void *pvData = AppMemPoolMalloc(hPool, 100);
    // The node comes from the null pool.
    void *const pvNode = static_cast<TAppMemBlockHead *>(BlockOf(pvData))->hNode;
    const std::string node = Text("[MEMDBG-1] %s: AppMemPool NULL  malloc %p with size %lu\n",
                                  "AppMemPoolMalloc", pvNode, Ul(sizeof(TAppDoubleListNode)));
    const std::string handed =
        Text("[MEMDBG-1] %s: AppMemPool %p with MEMPOOL %p malloc %p with size %lu\n",
             "AppMemPoolMalloc", pvPool, pvImpl, pvData, 100ul);
    log.ExpectLines({node,
                     Text("[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) new block %p\n",
                          "_AppMalloc", nNeed, pvImpl, nClass, nBlock, BlockOf(pvData)),
                     Text(TEXT_COUNTERS, "_AppMalloc", pvImpl, 1ul, nBlock, nBlock), handed});
    AppMemPoolFree(pvData);
    log.ExpectLines(
        {Text("[MEMDBG-1] %s: AppMemPool %p free %p with size %lu\n", "AppMemPoolFree", pvPool,
              pvData, 100ul),
         Text("[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) block %p return to offlist\n",
              "_AppFree", nBlock, pvImpl, nClass, nBlock, BlockOf(pvData)),
         Text(TEXT_COUNTERS, "_AppFree", pvImpl, 0ul, 0ul, nBlock)});
    EXPECT_EQ(AppMemPoolMalloc(hPool, 100), pvData);
    log.ExpectLines({Text("[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) block %p\n",
                          "_AppMalloc", nNeed, pvImpl, nClass, nBlock, BlockOf(pvData)),
                     Text(TEXT_COUNTERS, "_AppMalloc", pvImpl, 1ul, nBlock, nBlock), handed});

    const unsigned long nLarge = 5000000 + kHeads;
    void *pvLarge = AppMemPoolMalloc(hPool, 5000000);
    log.ExpectLines(
        {Text("[MEMDBG-2] %s: size %lu, use MP %p use malloc\n", "_AppMalloc", nLarge, pvImpl),
         Text(TEXT_COUNTERS, "_AppMalloc", pvImpl, 2ul, nBlock + nLarge, nBlock + nLarge),
         Text("[MEMDBG-1] %s: AppMemPool %p with MEMPOOL %p malloc %p with size %lu\n",
              "AppMemPoolMalloc", pvPool, pvImpl, pvLarge, 5000000ul)});
    AppMemPoolFree(pvLarge);
    log.ExpectLines({Text("[MEMDBG-1] %s: AppMemPool %p free %p with size %lu\n", "AppMemPoolFree",
                          pvPool, pvLarge, 5000000ul),
                     Text("[MEMDBG-2] %s: size %lu, use MP %p %p use free\n", "_AppFree", nLarge,
                          pvImpl, HeadOf(pvLarge))});

    // The block in use goes back to the heap with its pool.
    AppMemPoolDestroy(hPool);
    EXPECT_EQ(log.Lines().front(), Text("[INFO ] %s: Mempool %p\n", "_AppMemPoolDestroy", pvImpl));
    EXPECT_EQ(log.Count(Text("[MEMDBG-2] %s: Size %lu, use MP %p block %p free\n",
                             "__AppMemPoolFreeData", nBlock, pvImpl, BlockOf(pvData))),
              1u);
    EXPECT_EQ(log.Count(Text("[MEMDBG-1] %s: AppMemPool NULL free %p with size %lu\n",
                             "AppMemPoolFree", pvNode, Ul(sizeof(TAppDoubleListNode)))),
              1u);
}

TEST(MemPool, EngineWithoutRecordServesFromTheHeap)
{
    LogCapture log(APP_LOG_MEMDBG2);
    EXPECT_EQ(_AppMalloc(nullptr, 0), nullptr);
    EXPECT_EQ(_AppMalloc(nullptr, 4294967295u), nullptr);
    log.ExpectNone();
    void *pvData = _AppMalloc(nullptr, 10);
    _AppFree(nullptr, pvData);
    _AppFree(nullptr, nullptr);
    log.ExpectLines({Text("[MEMDBG-2] %s: size %lu, use MP %p use malloc\n", "_AppMalloc",
                          Ul(10 + kBlockHead), nullptr),
                     Text("[MEMDBG-2] %s: size %lu, use MP %p %p use free\n", "_AppFree",
                          Ul(10 + kBlockHead), nullptr, pvData)});
}

TEST(MemPool, DamageIsReportedAndSurvived)
{
    Pool pool;
    auto ptImpl = pool.Impl();
    void *const pvImpl = ptImpl;
    void *pvFirst = AppMemPoolMalloc(pool, 100), *pvSecond = AppMemPoolMalloc(pool, 100);
    auto ptHead = static_cast<TAppMemBlockHead *>(BlockOf(pvFirst));
    const uint32_t dwBlock = ptHead->dwBlockSize;
    {
        LogCapture log;
        ptImpl->dwOnWorkSize = 1; // less than what is released now
        AppMemPoolFree(pvFirst);
        log.ExpectLines({Text("[ERROR] %s: WARING!!!! MEMPOOL %p(OnWorkSize=%lu) is less than "
                              "%p(size=%lu), MEM LEAK may occured!!!!\n",
                              "_AppFree", pvImpl, 1ul, HeadOf(pvFirst), Ul(dwBlock))});
        ptImpl->dwOnWorkSize = dwBlock;
        EXPECT_EQ(AppMemPoolMalloc(pool, 100), pvFirst); // released all the same

        // A listed block whose size fits no class is kept; its pool's destruction releases it once.
        ptHead->dwBlockSize = 5000000;
        ptImpl->dwOnWorkSize = ptImpl->dwTotalSize = 6000000;
        AppMemPoolFree(pvFirst);
        log.ExpectLines({Text(
            "[ERROR] %s: WARING!!!!  %p(size=%lu) use MP %p, SHOULD NOT BE IN THE ON LIST!!!!\n",
            "_AppFree", HeadOf(pvFirst), 5000000ul, pvImpl)});
        EXPECT_EQ(ptImpl->dwOnWorkCount, 1u);
        EXPECT_EQ(ptImpl->dwOnWorkSize, 1000000u);
        EXPECT_EQ(ptImpl->dwTotalSize, 1000000u);
        EXPECT_FALSE(app::PoolIsValid(pool)); // the check sees it
    }
    ptHead->dwBlockSize = dwBlock;
    ptImpl->dwOnWorkCount = 2;
    ptImpl->dwOnWorkSize = ptImpl->dwTotalSize = 2 * dwBlock;
    AppMemPoolFree(pvSecond);
}

// ---- Faults ---------------------------------------------------------------------------------

TEST(MemPool, EveryFailedCreationLeavesNothing)
{
    const auto hUntouched = reinterpret_cast<HAppMemPool>(16);
    EXPECT_CODE(APP_INVALID_ARG, AppMemPoolCreate(0, 1, 0, nullptr));
    AppMemPoolDestroy(nullptr);
    LogCapture log;
    const std::string create = "AppMemPoolCreate",
                      null = Text("[INFO ] %s: Mempool %p\n", "_AppMemPoolDestroy", nullptr);
    const std::string engine =
        Text("[ERROR] %s: _AppMemPoolCreate failed %d\n", "AppMemPoolCreate", 101);
    unsigned nFaults = 0;
    fault::Sweep(
        {Fn::malloc, Fn::pthread_mutex_init, Fn::pthread_cond_init},
        [&] {
            log.Clear();
            HAppMemPool hPool = hUntouched;
            const uint32_t dwResult = AppMemPoolCreate(0, 1, 0, &hPool);
            EXPECT_EQ(hPool == hUntouched, dwResult != APP_OK);
            if (dwResult == APP_OK)
                AppMemPoolDestroy(hPool);
            return dwResult;
        },
        [&](uint32_t dwResult) {
            switch (++nFaults) {
            case 1:
                EXPECT_CODE(APP_NO_RESOURCE, dwResult);
                log.ExpectLines({Text("[ERROR] %s: malloc failed\n", "AppMemPoolCreate")});
                break;
            case 2: // the lock's record, whose allocation has its own line, then its mutex …
            case 3:
            case 4: // … and its condition
                EXPECT_CODE(nFaults == 2 ? APP_NO_RESOURCE : APP_FAILED, dwResult);
                EXPECT_EQ(log.Count(Text("[ERROR] %s: AppLockCreate failed %d\n",
                                         "AppMemPoolCreate", static_cast<int>(dwResult))),
                          1u);
                EXPECT_EQ(log.Lines().back(), null);
                break;
            case 5:
                EXPECT_CODE(APP_FAILED, dwResult);
                log.ExpectLines({Text("[ERROR] %s: malloc for %d failed\n", "_AppMemPoolCreate",
                                      static_cast<int>(sizeof(TAppMemPoolImpl))),
                                 null, engine, null});
                break;
            default: { // the lists: on, off, on, off, …
                EXPECT_CODE(APP_FAILED, dwResult);
                const unsigned long k = (nFaults - 6) / 2;
                EXPECT_EQ(log.Count(nFaults % 2 == 0 ? Text("[ERROR] %s: AppDoubleListCreate for "
                                                            "hOnList %lu failed, ret=%d\n",
                                                            "_AppMemPoolCreate", k, 104)
                                                     : Text("[ERROR] %s: AppDoubleListCreate for "
                                                            "hOffList %lu failed, ret=%d\n",
                                                            "_AppMemPoolCreate", k, 104)),
                          1u);
                EXPECT_EQ(log.Count(engine), 1u);
            }
            }
        });
    EXPECT_EQ(nFaults, 5u + 2 * APP_MEMPOOL_CLASS_NUM);
}

TEST(MemPool, EveryFailedAllocationLeavesThePoolAsItWas)
{
    // A new block each time, so that blocks and nodes are really allocated.
    struct {
        uint32_t dwSize;
        unsigned nFaults; // heap calls: block and node, or the large block
    } const rows[] = {{100, 2}, {5000000, 1}};
    for (const auto &row : rows) {
        HAppMemPool hPool = nullptr;
        std::vector<std::string> lines;
        const uint32_t dwNeed = row.dwSize + kHeads, dwClass = __AppMemGetOffset(dwNeed);
        for (unsigned n = 1; n <= row.nFaults; ++n) {
            ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
            const long nBlocks = fault::LiveBlocks();
            {
                LogCapture log(APP_LOG_MEMDBG2);
                fault::Fail fail(Fn::malloc, n);
                EXPECT_EQ(AppMemPoolMalloc(hPool, row.dwSize), nullptr);
                lines = log.Lines();
            }
            EXPECT_EQ(fault::LiveBlocks(), nBlocks);
            EXPECT_EQ(hPool->dwCurSize, 0u);
            EXPECT_EQ(hPool->ptImpl->dwOnWorkCount + hPool->ptImpl->dwOnWorkSize +
                          hPool->ptImpl->dwTotalSize,
                      0u);
            EXPECT_TRUE(app::PoolIsValid(hPool));
            void *const pvImpl = hPool->ptImpl;
            EXPECT_EQ(
                lines.back(),
                dwClass == 18
                    ? Text("[ERROR] %s: malloc with size %lu failed\n", "_AppMalloc", Ul(dwNeed))
                : n == 1
                    ? Text("[MEMDBG-2] %s: Size %lu, use MP %p offset %lu(%lu) malloc failed\n",
                           "_AppMalloc", Ul(dwNeed), pvImpl, Ul(dwClass), 32ul << dwClass)
                    : Text("[ERROR] %s: Size %lu, use MP %p offset %lu(%lu) insert failed\n",
                           "_AppMalloc", Ul(dwNeed), pvImpl, Ul(dwClass), 32ul << dwClass));
            void *pvData = AppMemPoolMalloc(hPool, row.dwSize); // usable as before
            EXPECT_NE(pvData, nullptr);
            AppMemPoolFree(pvData);
            AppMemPoolDestroy(hPool);
        }
    }
    LogCapture log;
    EXPECT_EQ(1u, fault::Sweep(
                      {Fn::malloc},
                      [] {
                          char *szCopy = AppStrndup(nullptr, "text", 5);
                          AppMemPoolFree(szCopy);
                          return szCopy;
                      },
                      [](const char *szCopy) { EXPECT_EQ(szCopy, nullptr); }));
}

// ---- Report ---------------------------------------------------------------------------------

namespace
{

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

std::string Totals(const TAppMemPoolImpl *ptImpl, uint32_t dwLargeCount, uint32_t dwLargeSize,
                   uint32_t dwIdle)
{
    return Text("[malloc/free]count=%lu size=%lu\n", Ul(dwLargeCount), Ul(dwLargeSize)) +
           Text("MEMPOOL %p OnWorkCount=%lu OnWorkSize=%lu TotalSize=%lu IdleSize=%lu\n",
                (const void *)ptImpl, Ul(ptImpl->dwOnWorkCount), Ul(ptImpl->dwOnWorkSize),
                Ul(ptImpl->dwTotalSize), Ul(dwIdle));
}

} // namespace

TEST(MemPoolReport, ShowsClassesAndTotals)
{
    Pool pool(20000000);
    const auto Heading = [&] {
        return "============================================\n" +
               Text("hMemPool(%p) Lock(%p) CurSize(%lu) MaxSize(%lu)\n", (void *)(HAppMemPool)pool,
                    (void *)pool->hLock, Ul(pool->dwCurSize), 20000000ul) +
               "--- Details ------------------------";
    };
    using Texts = std::vector<std::string>;
    EXPECT_EQ(Report(pool), (Texts{Heading(), Totals(pool.Impl(), 0, 0, 0)}));
    void *pvLarge = AppMemPoolMalloc(pool, 5000000);
    void *pvSmall = AppMemPoolMalloc(pool, 120 - kHeads + 8); // class 2 on both word sizes
    void *pvBig = AppMemPoolMalloc(pool, 4000000);            // class 17
    AppMemPoolFree(AppMemPoolMalloc(pool, 4000000));
    EXPECT_EQ(Report(pool),
              (Texts{Heading(), "[ 2] OnList count=1 blocksize=128 size=128\n"
                                "[17] OnList count=1 blocksize=4194304 size=4194304\n"
                                "[17] OffList count=1 blocksize=4194304 size=4194304\n" +
                                    Totals(pool.Impl(), 1, 5000000 + kHeads, 4194304)}));
    for (void *pvData : {pvLarge, pvSmall, pvBig})
        AppMemPoolFree(pvData);
    EXPECT_EQ(Report(pool),
              (Texts{Heading(), "[ 2] OffList count=1 blocksize=128 size=128\n"
                                "[17] OffList count=2 blocksize=4194304 size=8388608\n" +
                                    Totals(pool.Impl(), 0, 0, 128 + 8388608)}));
    std::vector<std::string> engine;
    _AppMemPoolShow(pool.Impl(), Collect, &engine);
    EXPECT_EQ(engine, Texts{Report(pool)[1]});

    EXPECT_EQ(Report(nullptr), Texts{});
    engine.clear();
    _AppMemPoolShow(nullptr, Collect, &engine);
    EXPECT_EQ(engine, Texts{});
    AppMemPoolShow(pool, nullptr, nullptr);
}

TEST(MemPoolReport, ComesWhileTheLockIsHeldElsewhere)
{
    Pool pool;
    std::atomic<bool> bHeld{false}, bEnd{false};
    std::thread holder([&] {
        AppLockTakeByTime(pool->hLock, 0);
        for (bHeld = true; !bEnd; std::this_thread::yield()) // the figures change meanwhile
            _AppFree(pool.Impl(), _AppMalloc(pool.Impl(), 100));
        AppLockGive(pool->hLock);
    });
    EXPECT_TRUE(test::WaitUntil([&] { return bHeld.load(); }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Report(pool).size(), 2u);
    EXPECT_GE(test::ElapsedMs(start), 1000);
    EXPECT_CODE(APP_TIMEOUT, AppLockTakeByTime(pool->hLock, 1)); // not given by the report
    bEnd = true;
    holder.join();
    Report(pool);
    EXPECT_CODE(APP_OK, AppLockTakeByTime(pool->hLock, 1)); // given, this time
    AppLockGive(pool->hLock);
}

// ---- Threads --------------------------------------------------------------------------------

// Each thread fills its blocks with its own pattern and finds it again; the sums are conserved.
TEST(MemPool, EightThreadsShareAPool)
{
    constexpr unsigned kThreads = 8, kHeld = 32;
    constexpr unsigned kRounds = test::Scaled(1000000) / kThreads / 2; // malloc and free are two
    Pool pool;
    struct Held {
        unsigned char *pbyData = nullptr;
        uint32_t dwSize = 0;
    };
    static Held atHeld[kThreads][kHeld];
    std::atomic<bool> bEnd{false};
    std::thread reporter([&] {
        while (!bEnd)
            EXPECT_EQ(Report(pool).size(), 2u);
    });
    for (int nPhase = 0; nPhase < 2; ++nPhase) {
        test::RunThreads(kThreads, [&](unsigned nThread) {
            std::minstd_rand random(nThread + 1);
            const auto byPattern = static_cast<unsigned char>(nThread + 1);
            for (unsigned i = 0; i < kRounds; ++i) {
                Held &held = atHeld[nThread][random() % kHeld];
                for (uint32_t j = 0; j < held.dwSize; j += 64)
                    ASSERT_EQ(held.pbyData[j], byPattern);
                AppMemPoolFree(held.pbyData);
                held.dwSize = 1 + static_cast<uint32_t>(random() % (i % 100 ? 500 : 20000));
                held.pbyData = static_cast<unsigned char *>(AppMemPoolMalloc(pool, held.dwSize));
                ASSERT_NE(held.pbyData, nullptr);
                memset(held.pbyData, byPattern, held.dwSize);
            }
        });
        ASSERT_TRUE(app::PoolIsValid(pool));
        uint32_t dwSum = 0, dwCount = 0;
        for (auto &thread : atHeld)
            for (const Held &held : thread) {
                dwSum += held.dwSize;
                dwCount += held.pbyData != nullptr;
            }
        EXPECT_EQ(pool->dwCurSize, dwSum);
        EXPECT_EQ(pool.Impl()->dwOnWorkCount, dwCount);
    }
    bEnd = true;
    reporter.join();
    for (auto &thread : atHeld)
        for (Held &held : thread)
            AppMemPoolFree(held.pbyData);
    EXPECT_EQ(pool->dwCurSize, 0u);
    pool.ExpectCounters(0, 0, pool.Impl()->dwTotalSize);
}
