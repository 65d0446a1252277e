// SPDX-License-Identifier: MIT
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <future>

#include "appcore/appcore.h"
#include "cross_linux/cross_linux.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using fault::Fn;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

static HAppLock CreateLock(uint32_t dwMax, uint32_t dwInit, uint32_t dwType = APP_LOCK_TYPE_SEM)
{
    HAppLock hLock = nullptr;
    EXPECT_CODE(APP_OK, AppLockCreate(nullptr, dwMax, dwInit, dwType, &hLock));
    return hLock;
}

// A take in a thread of its own, which has gone to sleep, or is done, on return; not earlier than
// asked.  What it took it gives back.
static std::future<uint32_t> TakeElsewhere(HAppLock hLock, uint32_t dwTimeout)
{
    fault::Fail waits(Fn::_AppConditionWait, 0, 0, 1, fault::kEveryThread);
    auto taker = std::async(std::launch::async, [=] {
        const auto start = steady_clock::now();
        const uint32_t dwResult = AppLockTakeByTime(hLock, dwTimeout);
        if (dwResult == APP_OK)
            AppLockGive(hLock);
        else
            EXPECT_GE(test::ElapsedMs(start), dwTimeout);
        return dwResult;
    });
    EXPECT_TRUE(test::WaitUntil([&] {
        return waits.Calls() > 0 || taker.wait_for(milliseconds(0)) == std::future_status::ready;
    }));
    return taker;
}

TEST(Lock, CountsUpToItsMaximum)
{
    auto hLock = reinterpret_cast<HAppLock>(16);
    EXPECT_CODE(APP_INVALID_ARG, AppLockCreate(nullptr, 0, 1, APP_LOCK_TYPE_SEM, &hLock));
    EXPECT_CODE(APP_INVALID_ARG, AppLockCreate(nullptr, 2, 1, APP_LOCK_TYPE_RECURSIVE, &hLock));
    EXPECT_EQ(hLock, reinterpret_cast<HAppLock>(16));
    for (const uint32_t dwType : {uint32_t{APP_LOCK_TYPE_SEM}, 7u})
        for (const uint32_t dwMax : {1u, 2u, UINT_MAX})
            for (const uint32_t dwInit : {0u, 1u, 9u}) {
                SCOPED_TRACE(test::Text("max %u init %u type %u", dwMax, dwInit, dwType));
                hLock = CreateLock(dwMax, dwInit, dwType);
                for (uint32_t dwUnits : {dwInit, 7u}) {
                    for (dwUnits = std::min(dwUnits, dwMax); dwUnits > 0; --dwUnits)
                        EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, dwUnits % 2));
                    EXPECT_CODE(APP_TIMEOUT, AppLockTakeByTime(hLock, 1));
                    for (int i = 0; i < 7; ++i)
                        EXPECT_CODE(APP_OK, AppLockGive(hLock));
                }
                AppLockDestroy(hLock);
            }
}

// A lock that is held twice is given twice.
TEST(Lock, TimeoutsAreNotEarlierThanAskedAndDoNotWrap)
{
    for (const uint32_t dwType : {APP_LOCK_TYPE_SEM, APP_LOCK_TYPE_RECURSIVE}) {
        const bool bHeld = dwType == APP_LOCK_TYPE_RECURSIVE;
        HAppLock hLock = CreateLock(1, 0, dwType);
        for (const uint32_t dwTimeout : {1u, 50u, 1100u})
            EXPECT_CODE(APP_TIMEOUT, TakeElsewhere(hLock, dwTimeout).get());
        for (const uint32_t dwTimeout : {2147483u, 2147483648u, UINT_MAX}) {
            EXPECT_TRUE(!bHeld || AppLockTakeByTime(hLock, dwTimeout % 2) == APP_OK);
            auto taker = TakeElsewhere(hLock, dwTimeout);
            EXPECT_TRUE(!bHeld || AppLockGive(hLock) == APP_OK);
            EXPECT_EQ(taker.wait_for(milliseconds(5)), std::future_status::timeout) << dwTimeout;
            EXPECT_CODE(APP_OK, AppLockGive(hLock));
            EXPECT_CODE(APP_OK, taker.get());
            EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 1));
        }
        // A wait that fails at once is tried again, but not for ever.
        fault::Fail fail(Fn::_AppConditionWait, 1, EAGAIN, UINT_MAX, fault::kEveryThread);
        EXPECT_CODE(APP_TIMEOUT, TakeElsewhere(hLock, 5).get());
        EXPECT_GT(fail.Calls(), 0u);
        AppLockGive(hLock);
        AppLockDestroy(hLock);
    }
}

// Whoever waits without limit says so once, where that is to be seen, and waits on.  An end reckoned
// from a clock that could not be read has passed.
TEST(Lock, SaysOnceThatItIsWaitedForLong)
{
    HAppLock hLock = CreateLock(1, 0);
    const std::string line = test::Text(
        "[DEBUG] AppLockTakeByTime: lock %p has been waited for 30000 ms, without limit\n",
        static_cast<void *>(hLock));
    for (const uint8_t byThreshold : {uint8_t{APP_LOG_DEBUG}, uint8_t{APP_LOG_INFO}}) {
        const unsigned nTold = byThreshold == APP_LOG_DEBUG;
        test::LogCapture log(byThreshold);
        fault::Fail waits(Fn::_AppConditionWait, 0, 0, 0, fault::kEveryThread);
        auto taker = std::async(std::launch::async, [&] {
            fault::Fail clock(Fn::clock_gettime);
            const uint32_t dwResult = AppLockTakeByTime(hLock, 0);
            EXPECT_EQ(clock.Hits(), nTold); // a wait that nobody asks about has no end to reckon
            return dwResult;
        });
        EXPECT_TRUE(test::WaitUntil([&] { return waits.Calls() > nTold; }));
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
        EXPECT_CODE(APP_OK, taker.get());
        log.ExpectLines(std::vector<std::string>(nTold, line));
    }
    AppLockDestroy(hLock);
}

// The second give of two, made before the first sleeper can have run, wakes the second sleeper; and
// where there is room for one unit only, the first sleeper's own give does.
TEST(Lock, EachOfTwoGivesSignals)
{
    for (const uint32_t dwMax : {2u, 1u}) {
        HAppLock hLock = CreateLock(dwMax, 0);
        auto first = TakeElsewhere(hLock, 0), second = TakeElsewhere(hLock, 0);
        { // a give that wakes nobody gives nothing
            fault::Fail refused(Fn::_AppConditionSignal, 1, EINVAL);
            EXPECT_CODE(APP_FAILED, AppLockGive(hLock));
        }
        EXPECT_CODE(APP_TIMEOUT, AppLockTakeByTime(hLock, 1));
        fault::Fail signals(Fn::_AppConditionSignal, dwMax == 2, 0, 1, fault::kEveryThread);
        signals.Action([&] {
            std::thread([&] { EXPECT_CODE(APP_OK, AppLockGive(hLock)); }).join();
            EXPECT_GE(signals.Calls(), 2u); // more once the sleepers run
        });
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
        EXPECT_CODE(APP_OK, first.get());
        EXPECT_CODE(APP_OK, second.get());
        EXPECT_GE(signals.Calls(), 2u);
        AppLockDestroy(hLock);
    }
}

// Only its holder's gives count; of a free lock none does.
TEST(Lock, IsItsHoldersAlone)
{
    HAppLock hLock = CreateLock(1, 0, APP_LOCK_TYPE_RECURSIVE);
    const auto give = [&] { EXPECT_CODE(APP_OK, AppLockGive(hLock)); };
    auto first = TakeElsewhere(hLock, 0), second = TakeElsewhere(hLock, 0);
    std::thread(give).join();
    EXPECT_CODE(APP_TIMEOUT, TakeElsewhere(hLock, 5).get());
    {
        // A sleeper that cannot be woken: the lock is free all the same, and the next give wakes it.
        fault::Fail refused(fault::Fn::_AppConditionSignal, 1, EINVAL);
        give();
        EXPECT_EQ(refused.Hits(), 1u);
    }
    EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 1));
    give();
    EXPECT_CODE(APP_OK, first.get());
    EXPECT_CODE(APP_OK, second.get());
    give();
    std::thread(give).join();
    unsigned nInside = 0;
    test::RunThreads(4, [&](unsigned nThread) {
        for (unsigned i = 0; i < test::Scaled(20000); ++i) {
            if (AppLockTakeByTime(hLock, (nThread + i) % 3) != APP_OK)
                continue;
            EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, i % 2));
            EXPECT_EQ(++nInside, 1u);
            give();
            EXPECT_EQ(--nInside, 0u);
            give();
        }
    });
    AppLockDestroy(hLock);
}

// The giver's last touch of a record is its give: who takes may destroy and release at once.
TEST(Lock, MayBeDestroyedRightAfterAHandOver)
{
    std::atomic<HAppLock> hShared{nullptr};
    test::RunThreads(2, [&](unsigned nThread) {
        for (unsigned i = 0; i < test::Scaled(40000); ++i) {
            while (nThread > 0 && AppLockGive(hShared.exchange(nullptr)) != APP_OK)
                std::this_thread::yield();
            if (nThread > 0)
                continue;
            HAppLock hLock = CreateLock(1, 0);
            hShared = hLock;
            ASSERT_CODE(APP_OK, AppLockTakeByTime(hLock, i % 2 ? 0 : 60000));
            AppLockDestroy(hLock);
        }
    });
}

TEST(Tick, CountsTenMilliseconds)
{
    EXPECT_EQ(AppTickDiff(0xFFFFFFF0, 0x10), 32u);
    EXPECT_EQ(AppConvertTickToMS(0x1999999A), 4u);
    const auto start = steady_clock::now();
    const uint32_t dwStart = AppGetTick();
    signal(SIGALRM, [](int) {});
    ualarm(20000, 20000); // signals do not cut it short
    AppDelay(300);
    ualarm(0, 0);
    EXPECT_GE(test::ElapsedMs(start), 300);
    const uint32_t dwElapsed = AppConvertTickToMS(AppTickDiff(dwStart, AppGetTick()));
    EXPECT_GE(dwElapsed, 280u); // a reading is at most two ticks old
    EXPECT_LE(dwElapsed, test::ElapsedMs(start) + 20);
}

static void *NoteThread(void *pvArg)
{
    pthread_attr_t tAttr;
    int nDetached = -1;
    EXPECT_EQ(pthread_getattr_np(pthread_self(), &tAttr), 0);
    pthread_attr_getdetachstate(&tAttr, &nDetached);
    pthread_attr_destroy(&tAttr);
    EXPECT_EQ(nDetached, PTHREAD_CREATE_DETACHED);
    char achName[16] = "";
    _AppThreadSetName("a name of 20 letters");
    prctl(PR_GET_NAME, achName);
    EXPECT_STREQ(achName, "a name of 20 le");
    EXPECT_EQ(_AppThreadGetTID(), static_cast<int32_t>(syscall(SYS_gettid)));
    ++*static_cast<std::atomic<int> *>(pvArg);
    return nullptr;
}

// A creation is tried twice, and with the inheritance changed: each row fails so many of them.
TEST(Thread, CreationFallsBackToInheritedScheduling)
{
    for (const auto &[nCreations, nInheritances] : {std::pair{0u, 0u}, {1, 0}, {2, 0}, {1, 1}}) {
        test::LogCapture log;
        std::atomic<int> nRan{0};
        fault::Fail create(Fn::pthread_create, 1, EINVAL, nCreations);
        fault::Fail inherit(Fn::pthread_attr_setinheritsched, 2, ENOTSUP, nInheritances);
        const unsigned nFailures = nCreations + nInheritances;
        // A stack size that is refused is not checked.
        EXPECT_CODE(nFailures < 2 ? APP_OK : APP_FAILED,
                    _AppThreadCreate(NoteThread, nFailures ? 65536 : 1, &nRan));
        EXPECT_EQ(log.Lines().size(), nFailures);
        EXPECT_TRUE(test::WaitUntil([&] { return nRan == (nFailures < 2); }));
    }
}
