// SPDX-License-Identifier: MIT
#include "mempool/mempool.h"

#include <deque>
#include <map>
#include <random>
#include <utility>

#include "appcore/appcore.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "utils/lock_guard.h"

using fault::Fn;
using test::Text;

namespace
{

constexpr uint32_t kHeads = sizeof(TAppMemPoolHead) + sizeof(TAppMemBlockHead);
constexpr uint32_t kMost = UINT32_MAX - kHeads;
constexpr size_t kAlign = sizeof(void *) == 8 ? alignof(max_align_t) : 4;
static_assert(kHeads == (sizeof(void *) == 8 ? 48 : 20));
constexpr uint32_t kLargestClass = 4u << 20;

// Filled with what tells its size.
struct TBlock {
    unsigned char *pby = nullptr;
    uint32_t dwSize = 0;
    uint32_t dwBlock = 0; // what the engine takes for it; 0 from the heap

    unsigned char Mark() const { return static_cast<unsigned char>(1 + dwSize % 255); }
    void Fill() const { pby[0] = pby[dwSize - 1] = Mark(); }
    bool Holds(const TBlock &old) const // what that one was filled with
    {
        return pby[0] == old.Mark() && pby[old.dwSize - 1] == old.Mark();
    }
};

class MemPool : public testing::Test
{
protected:
    MemPool() { EXPECT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool)); }
    ~MemPool() override { AppMemPoolDestroy(hPool); }
    void Report()
    {
        texts.clear();
        AppMemPoolShow(hPool, Collect, this);
    }
    static void Collect(const char *szText, void *pvTest)
    {
        const auto test = static_cast<MemPool *>(pvTest);
        test->texts.push_back(szText);
        app::TimedLockGuard guard(test->hPool);
        test->bLockFree = guard.TakeByTime(1);
    }

    test::LogCapture log;
    HAppMemPool hPool = nullptr;
    std::vector<std::string> texts; // of a report
    bool bLockFree = false;         // while its callback ran
};

} // namespace

// Beside a model: sizes around the limit, the classes' ends and 4 GiB, from the pool and now and
// then from the heap, which is exhausted now and then.
TEST_F(MemPool, KeepsItsAccountsAndReusesTheOldestBlock)
{
    std::minstd_rand random(11);
    for (const uint32_t dwMax : {0u, 100u, 70000u, 9000000u}) {
        AppMemPoolDestroy(hPool); // releases its blocks
        ASSERT_CODE(APP_OK, AppMemPoolCreate(dwMax, dwMax == 100 ? 2 : 1, 0, &hPool));
        EXPECT_EQ(hPool->hLock == nullptr, dwMax == 100);                  // only 1 asks for a lock
        AppSetLogLevel(0, dwMax == 100 ? APP_LOG_MEMDBG2 : APP_LOG_ERROR); // traces are lines, too
        TBlock atHeld[16];
        std::map<uint32_t, std::deque<void *>> idle; // by dwBlock
        bool bRefused = false;
        log.Clear();
        for (unsigned i = 0; i < test::Scaled(4000) && !HasFailure(); ++i) {
            uint32_t dwUsed = 0, dwWork = 0;
            for (const TBlock &block : atHeld) {
                dwUsed += block.dwBlock ? block.dwSize : 0;
                dwWork += block.dwBlock;
            }
            EXPECT_EQ(hPool->dwCurSize, dwUsed);
            EXPECT_EQ(hPool->ptImpl->dwOnWorkSize, dwWork);
            EXPECT_TRUE(dwMax == 100 || log.Lines().empty() != std::exchange(bRefused, false));
            log.Clear();

            TBlock &held = atHeld[random() % 16], got;
            const bool bPool = random() % 4, bFree = random() % 2;
            const auto dwNear = static_cast<uint32_t>(random() % 3) - 1;
            const uint32_t adwSize[] = {
                dwMax ? dwMax - dwUsed + dwNear : static_cast<uint32_t>(random() % 200),
                (64u << random() % 18) - kHeads + dwNear, kMost + dwNear, 0};
            got.dwSize = adwSize[random() % (i % 9 ? 2 : 4)];
            for (got.dwBlock = 32; got.dwBlock < got.dwSize + kHeads;)
                got.dwBlock = got.dwBlock < kLargestClass ? got.dwBlock * 2 : got.dwSize + kHeads;
            std::deque<void *> &reusable = idle[got.dwBlock];
            const bool bStays = held.pby && got.dwSize <= held.dwSize;
            const bool bFits = !bStays && got.dwSize != 0 && got.dwSize <= kMost &&
                               (!bPool || dwMax == 0 || uint64_t{got.dwSize} + dwUsed < dwMax);
            if (!bFree) {
                fault::Fail fail(Fn::malloc, got.dwSize > INT32_MAX ? 1 : random() % 8 ? 0 : 2);
                got.pby = static_cast<unsigned char *>(
                    AppMemPoolRealloc(bPool ? hPool : nullptr, held.pby, got.dwSize));
                EXPECT_EQ(fail.Calls() != 0, bFits && !(bPool && !reusable.empty()));
                ASSERT_EQ(got.pby != nullptr, bStays || (bFits && fail.Hits() == 0));
                EXPECT_TRUE(!got.pby || !held.pby || got.Holds(held));
                EXPECT_TRUE(!bStays || got.pby == held.pby);
                EXPECT_EQ(reinterpret_cast<uintptr_t>(got.pby) % kAlign, 0u);
                bRefused = !got.pby && got.dwSize != 0;
                if (bStays || !got.pby)
                    continue;
                got.Fill();
                if (bPool && !reusable.empty()) {
                    EXPECT_EQ(got.pby, reusable.front());
                    reusable.pop_front();
                }
                got.dwBlock = bPool ? got.dwBlock : 0;
            } else {
                AppMemPoolFree(held.pby);
                got = {};
            }
            if (held.dwBlock != 0 && held.dwBlock <= kLargestClass)
                idle[held.dwBlock].push_back(held.pby);
            held = got;
        }
        for (const TBlock &held : atHeld)
            if (held.dwBlock == 0 || held.dwBlock > kLargestClass)
                AppMemPoolFree(held.pby);
    }
}

TEST_F(MemPool, WhatThePoolNeverHandsOut)
{
    alignas(16) char achForeign[128] = "not ours";
    AppMemPoolFree(achForeign + 65); // not even aligned
    EXPECT_EQ(AppMemPoolRealloc(nullptr, achForeign + 65, 10), nullptr);
    EXPECT_EQ(log.Lines().size(), 2u);
    _AppFree(nullptr, _AppMalloc(nullptr, 10)); // an engine without a record
    _AppFree(hPool->ptImpl, _AppMalloc(hPool->ptImpl, 0));
    EXPECT_EQ(__AppMemGetOffset(32), 0u); // less than the headers on 64-bit machines
}

// With the pool's lock, or after a second without it.
TEST_F(MemPool, ReportShowsClassesAndTotals)
{
    void *pvLarge = AppMemPoolMalloc(hPool, 5000000 - kHeads);
    AppMemPoolMalloc(hPool, 128 - kHeads);
    AppMemPoolMalloc(hPool, 4000000);
    AppMemPoolFree(AppMemPoolMalloc(hPool, 4000000));
    Report();
    EXPECT_TRUE(bLockFree);
    EXPECT_EQ(texts[0], "============================================\n" +
                            Text("hMemPool(%p) Lock(%p) CurSize(%u) MaxSize(0)\n", (void *)hPool,
                                 (void *)hPool->hLock, hPool->dwCurSize) +
                            "--- Details ------------------------");
    EXPECT_EQ(
        texts[1],
        Text("[ 2] OnList count=1 blocksize=128 size=128\n"
             "[17] OnList count=1 blocksize=4194304 size=4194304\n"
             "[17] OffList count=1 blocksize=4194304 size=4194304\n"
             "[malloc/free]count=1 size=5000000\n"
             "MEMPOOL %p OnWorkCount=3 OnWorkSize=9194432 TotalSize=13388736 IdleSize=4194304\n",
             (void *)hPool->ptImpl));
    _AppMemPoolShow(nullptr, Collect, this);
    EXPECT_EQ(texts.size(), 2u);

    AppLockTakeByTime(hPool->hLock, 0);
    std::atomic<bool> bEnd{false};
    std::thread user([&] {
        for (; !bEnd; std::this_thread::yield()) // the figures change meanwhile
            _AppFree(hPool->ptImpl, _AppMalloc(hPool->ptImpl, 100));
    });
    const auto start = std::chrono::steady_clock::now();
    Report();
    EXPECT_GE(test::ElapsedMs(start), 1000);
    EXPECT_EQ(texts.size(), 2u);
    EXPECT_FALSE(bLockFree); // not given by the report
    bEnd = true;
    user.join();
    AppLockGive(hPool->hLock);
    AppMemPoolFree(pvLarge);
}

// Each finds its blocks as it has filled them.
TEST_F(MemPool, EightThreadsShareAPool)
{
    test::RunThreads(8, [&](unsigned nThread) {
        std::minstd_rand random(nThread + 1);
        TBlock atHeld[32];
        for (unsigned i = 0; i < test::Scaled(60000); ++i) {
            TBlock &held = atHeld[random() % 32];
            ASSERT_TRUE(!held.pby || held.Holds(held));
            AppMemPoolFree(held.pby);
            held.dwSize = 1 + static_cast<uint32_t>(random() % (i % 100 ? 500 : 20000));
            held.pby = static_cast<unsigned char *>(AppMemPoolMalloc(hPool, held.dwSize));
            held.Fill();
        }
        for (const TBlock &held : atHeld)
            AppMemPoolFree(held.pby);
    });
    EXPECT_EQ(hPool->dwCurSize, 0u);
}
