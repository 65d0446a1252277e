// SPDX-License-Identifier: MIT
#include "mempool/mempool.h"

#include <deque>
#include <map>
#include <random>

#include "appcore/appcore.h"
#include "mempool/try_malloc.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "utils/lock_guard.h"

namespace
{

constexpr uint32_t kHeads = sizeof(TAppMemPoolHead) + sizeof(TAppMemBlockHead);
constexpr uint32_t kMost = UINT32_MAX - kHeads;
static_assert(kHeads == (sizeof(void *) == 8 ? 48 : 20));
constexpr uint32_t kLargestClass = 4u << 20;

// The first and the last byte tell its size.
struct TBlock {
    unsigned char *pby = nullptr;
    uint32_t dwSize = 0;
    uint32_t dwBlock = 0; // what the engine takes for it; 0 from the heap

    unsigned char Mark() const { return static_cast<unsigned char>(1 + dwSize % 255); }
};

class MemPool : public testing::Test
{
protected:
    MemPool() { EXPECT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool)); }
    ~MemPool() override { AppMemPoolDestroy(hPool); }

    test::LogCapture log;
    HAppMemPool hPool = nullptr;
};

} // namespace

// Beside a model: sizes around the limit, the classes' ends and 4 GiB; the heap may be exhausted.
TEST_F(MemPool, KeepsItsAccountsAndReusesTheOldestBlock)
{
    AppSetLogLevel(0, APP_LOG_MEMDBG2); // traces are lines, too
    std::minstd_rand random(11);
    for (const uint32_t dwMax : {0u, 100u, 70000u, 9000000u}) {
        AppMemPoolDestroy(hPool);
        ASSERT_CODE(APP_OK, AppMemPoolCreate(dwMax, dwMax == 100 ? 2 : 1, 0, &hPool));
        EXPECT_EQ(hPool->hLock == nullptr, dwMax == 100); // only 1 asks for a lock
        TBlock atHeld[16];
        std::map<uint32_t, std::deque<void *>> idle; // by dwBlock
        for (unsigned i = 0; i < test::Scaled(4000) && !HasFailure(); ++i) {
            uint32_t dwUsed = 0;
            for (const TBlock &block : atHeld)
                dwUsed += block.dwBlock ? block.dwSize : 0;
            EXPECT_EQ(hPool->dwCurSize, dwUsed);
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
                fault::Fail fail(fault::Fn::malloc, got.dwSize > INT32_MAX ? 1
                                                    : random() % 8         ? 0
                                                                           : 2);
                got.pby = static_cast<unsigned char *>(
                    AppMemPoolRealloc(bPool ? hPool : nullptr, held.pby, got.dwSize));
                EXPECT_EQ(fail.Calls() != 0, bFits && !(bPool && !reusable.empty()));
                ASSERT_EQ(got.pby != nullptr, bStays || (bFits && fail.Hits() == 0));
                EXPECT_TRUE(!got.pby || !held.pby || got.pby[held.dwSize - 1] == held.Mark());
                if (bStays || !got.pby)
                    continue;
                got.pby[0] = got.pby[got.dwSize - 1] = got.Mark();
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
            AppMemPoolFree(held.pby);
    }
}

TEST_F(MemPool, WhatThePoolNeverHandsOut)
{
    alignas(16) char achForeign[128] = "not ours";
    AppMemPoolFree(achForeign + 65); // not even aligned
    EXPECT_EQ(AppMemPoolRealloc(nullptr, achForeign + 65, 10), nullptr);
    EXPECT_EQ(AppMemPoolMalloc(hPool, UINT32_MAX), nullptr);
    AppMemPoolFree(AppMemPoolMalloc(hPool, 1)); // the only one: not a word
    EXPECT_EQ(log.Lines().size(), 3u);
    // By the limit; by the heap for a large block, a block, its node and the heap itself.
    AppMemPoolFree(app::TryMalloc(hPool, 5000000));
    EXPECT_EQ(app::TryMalloc(hPool, UINT32_MAX), nullptr);
    for (const auto &[dwSize, nFailing] : {std::pair{5000000u, 1u}, {300, 1}, {300, 2}, {0, 1}}) {
        fault::Fail fail(fault::Fn::malloc, nFailing);
        EXPECT_EQ(app::TryMalloc(dwSize ? hPool : nullptr, dwSize + 1), nullptr);
    }
    EXPECT_EQ(log.Lines().size(), 3u);
    // What a console logs while it prints such an attempt's trace is its own affair.
    log.OnLine([](const std::string &) { AppLog(0, APP_LOG_ERROR, "[ERROR] AppLog: console\n"); });
    AppSetLogLevel(0, APP_LOG_MEMDBG1);
    void *pvBlock = app::TryMalloc(hPool, 10);
    log.OnLine(nullptr);
    AppSetLogLevel(0, APP_LOG_ERROR);
    AppMemPoolFree(pvBlock);
    EXPECT_EQ(log.Count("[ERROR] AppLog: console\n"), 1u);
    _AppFree(nullptr, _AppMalloc(nullptr, 10)); // an engine without a record
    _AppFree(hPool->ptImpl, _AppMalloc(hPool->ptImpl, 0));
    EXPECT_EQ(__AppMemGetOffset(32), 0u); // less than the headers on 64-bit machines
}

// With the pool's lock, or after a second without it.
TEST_F(MemPool, ReportShowsClassesAndTotals)
{
    struct TReport {
        HAppMemPool hPool;
        std::string text;
    } report = {hPool, ""};
    const PFAppShow collect = [](const char *szText, void *pvReport) {
        const auto ptReport = static_cast<TReport *>(pvReport);
        app::TimedLockGuard guard(ptReport->hPool);
        ptReport->text += szText + std::string(guard.TakeByTime(1) ? "(free)" : "(held)");
    };
    void *pvLarge = AppMemPoolMalloc(hPool, 5000000 - kHeads);
    AppMemPoolMalloc(hPool, 128 - kHeads);
    AppMemPoolMalloc(hPool, 4000000);
    AppMemPoolFree(AppMemPoolMalloc(hPool, 4000000));
    const std::string wanted = test::Text(
        "============================================\n"
        "hMemPool(%p) Lock(%p) CurSize(%u) MaxSize(0)\n"
        "--- Details ------------------------(free)"
        "[ 2] OnList count=1 blocksize=128 size=128\n"
        "[17] OnList count=1 blocksize=4194304 size=4194304\n"
        "[17] OffList count=1 blocksize=4194304 size=4194304\n"
        "[malloc/free]count=1 size=5000000\n"
        "MEMPOOL %p OnWorkCount=3 OnWorkSize=9194432 TotalSize=13388736 IdleSize=4194304\n(free)",
        (void *)hPool, (void *)hPool->hLock, hPool->dwCurSize, (void *)hPool->ptImpl);
    AppMemPoolShow(hPool, collect, &report);
    _AppMemPoolShow(nullptr, collect, &report);
    EXPECT_EQ(report.text, wanted);

    AppLockTakeByTime(hPool->hLock, 0);
    const auto start = std::chrono::steady_clock::now();
    AppMemPoolShow(hPool, collect, &report);
    EXPECT_GE(test::ElapsedMs(start), 1000);
    EXPECT_EQ(report.text.size(), 2 * wanted.size());
    EXPECT_EQ(report.text.substr(report.text.size() - 6), "(held)");
    EXPECT_CODE(APP_OK, AppLockGive(hPool->hLock)); // the report has not
    AppMemPoolFree(pvLarge);
}
