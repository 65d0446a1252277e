// SPDX-License-Identifier: MIT
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "appcore/appcore.h"
#include "cross_linux/cross_linux.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using fault::Fn;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::LogCapture;
using test::Text;

namespace
{

const std::vector<Fn> s_timedLocks{Fn::pthread_mutex_clocklock, Fn::pthread_mutex_timedlock};
const std::vector<Fn> s_waits{Fn::pthread_cond_timedwait, Fn::pthread_mutex_clocklock,
                              Fn::pthread_mutex_timedlock};

HAppLock CreateLock(uint32_t dwMax, uint32_t dwInit, uint32_t dwType = APP_LOCK_TYPE_SEM)
{
    HAppLock hLock = nullptr;
    EXPECT_CODE(APP_OK, AppLockCreate(nullptr, dwMax, dwInit, dwType, &hLock));
    return hLock;
}

// A take in a thread of its own, which has gone to sleep, or is done, when the constructor ends.
// What it took it gives back.
class Taker
{
public:
    Taker(HAppLock hLock, uint32_t dwTimeout)
        : m_waits(s_waits, 0, 0, 1, fault::kEveryThread), m_thread([=] {
              m_dwResult = AppLockTakeByTime(hLock, dwTimeout);
              qnMs = test::ElapsedMs(m_start);
              if (m_dwResult == APP_OK)
                  AppLockGive(hLock);
              m_bDone = true;
          })
    {
        EXPECT_TRUE(test::WaitUntil([&] { return m_waits.Calls() > 0 || m_bDone; }));
    }
    uint32_t Join()
    {
        m_thread.join();
        return m_dwResult;
    }
    bool Done() const { return m_bDone; }
    int64_t qnMs = 0; // that it took

private:
    fault::Fail m_waits;
    std::atomic<bool> m_bDone{false};
    uint32_t m_dwResult = 0;
    const steady_clock::time_point m_start = steady_clock::now();
    std::thread m_thread;
};

} // namespace

// Seeded random takes and gives beside a count, for each kind of lock that can be created.
TEST(Lock, CountsAsItsModel)
{
    const auto hUntouched = reinterpret_cast<HAppLock>(16);
    std::mt19937 random(11);
    for (const uint32_t dwType :
         {uint32_t{APP_LOCK_TYPE_RECURSIVE}, uint32_t{APP_LOCK_TYPE_SEM}, 7u})
        for (const uint32_t dwMax : {0u, 1u, 2u, 5u, UINT_MAX})
            for (const uint32_t dwInit : {0u, 1u, 9u}) {
                SCOPED_TRACE(Text("max %u init %u type %u", dwMax, dwInit, dwType));
                const bool bRecursive = dwType == APP_LOCK_TYPE_RECURSIVE,
                           bGood = dwMax == 1 || (dwMax > 1 && !bRecursive);
                HAppLock hLock = hUntouched;
                EXPECT_CODE(bGood ? APP_OK : APP_INVALID_ARG,
                            AppLockCreate(nullptr, dwMax, dwInit, dwType, &hLock));
                EXPECT_EQ(hLock == hUntouched, !bGood);
                // Units; of the recursive kind, how often it is held.
                uint32_t dwCount = bRecursive ? dwInit == 0 : std::min(dwInit, dwMax);
                for (int i = 0; bGood && i < 30; ++i) {
                    const bool bTaken = bRecursive || dwCount > 0;
                    if (random() % 2) {
                        EXPECT_CODE(bTaken ? APP_OK : APP_TIMEOUT,
                                    AppLockTakeByTime(hLock, bTaken ? random() % 2 : 1));
                        dwCount = bRecursive ? dwCount + 1 : dwCount - bTaken;
                    } else if (!bRecursive || dwCount > 0) {
                        EXPECT_CODE(APP_OK, AppLockGive(hLock));
                        dwCount = bRecursive ? dwCount - 1 : std::min(dwCount, dwMax - 1) + 1;
                    }
                    const uint32_t dwElsewhere = bRecursive ? Taker(hLock, 1).Join() : 0;
                    EXPECT_CODE(bRecursive && dwCount ? APP_TIMEOUT : APP_OK, dwElsewhere);
                }
                for (; bRecursive && bGood && dwCount > 0; --dwCount)
                    AppLockGive(hLock);
                AppLockDestroy(bGood ? hLock : nullptr);
            }
}

// 1200 ms is beyond the slice in which the library sleeps.
TEST(Lock, TimeoutsAreNotEarlierThanAskedAndDoNotWrap)
{
    for (const uint32_t dwType : {APP_LOCK_TYPE_SEM, APP_LOCK_TYPE_RECURSIVE})
        for (const uint32_t dwTimeout : {1u, 50u, 1200u, 2147483u, 2147483648u, UINT_MAX}) {
            SCOPED_TRACE(dwTimeout);
            HAppLock hLock = CreateLock(1, 0, dwType); // the recursive one is held
            Taker taker(hLock, dwTimeout);
            const bool bLong = dwTimeout > 1200;
            if (bLong) {
                std::this_thread::sleep_for(milliseconds(5));
                EXPECT_FALSE(taker.Done());
                EXPECT_CODE(APP_OK, AppLockGive(hLock));
            }
            EXPECT_CODE(bLong ? APP_OK : APP_TIMEOUT, taker.Join());
            // By the wall clock, where there is no other for mutexes.
            EXPECT_GE(taker.qnMs + 1, bLong ? 5 : dwTimeout);
            if (!bLong)
                AppLockGive(hLock);
            AppLockDestroy(hLock);
        }
    HAppLock hLock = CreateLock(1, 0, APP_LOCK_TYPE_RECURSIVE);
    { // Other errors than the time-out are tried again, but not for ever.
        fault::Fail fail(s_timedLocks, 1, EAGAIN, UINT_MAX, fault::kEveryThread);
        EXPECT_CODE(APP_TIMEOUT, Taker(hLock, 1).Join());
        EXPECT_EQ(fail.Calls(), 100u);
    }
    AppLockGive(hLock);
    AppLockDestroy(hLock);
}

// A give whose signal is refused gives nothing.  The second give of two, made before the first
// sleeper can have run, wakes the second sleeper; and where there is room for one unit only, the
// first sleeper's own give does.
TEST(Lock, EachOfTwoGivesSignals)
{
    for (const uint32_t dwMax : {2u, 1u}) {
        HAppLock hLock = CreateLock(dwMax, 0);
        Taker first(hLock, 0), second(hLock, 0);
        {
            fault::Fail refused(Fn::pthread_cond_signal, 1, EINVAL);
            EXPECT_CODE(APP_FAILED, AppLockGive(hLock));
        }
        EXPECT_CODE(APP_TIMEOUT, AppLockTakeByTime(hLock, 1));
        EXPECT_FALSE(first.Done() || second.Done());
        fault::Fail signals(Fn::pthread_cond_signal, dwMax == 2, 0, 1, fault::kEveryThread);
        signals.Action([&] {
            std::thread([&] { EXPECT_CODE(APP_OK, AppLockGive(hLock)); }).join();
            EXPECT_GE(signals.Calls(), 2u); // more once the sleepers run
        });
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
        EXPECT_CODE(APP_OK, first.Join());
        EXPECT_CODE(APP_OK, second.Join());
        EXPECT_GE(signals.Calls(), 2u);
        AppLockDestroy(hLock);
    }
}

// The giver's last touch of a record is its give: who takes may destroy and release at once.
TEST(Lock, MayBeDestroyedRightAfterAHandOver)
{
    std::atomic<HAppLock> hShared{nullptr};
    std::atomic<bool> bEnd{false};
    std::thread giver([&] {
        while (!bEnd) {
            AppLockGive(hShared.exchange(nullptr));
            std::this_thread::yield();
        }
    });
    for (unsigned i = 0; i < test::Scaled(40000); ++i) {
        HAppLock hLock = CreateLock(1, 0);
        hShared = hLock;
        for (unsigned nSpin = 0; nSpin < i % 64 * 8; ++nSpin) // asleep, about to sleep, or late
            std::atomic_signal_fence(std::memory_order_seq_cst);
        ASSERT_CODE(APP_OK, AppLockTakeByTime(hLock, i % 2 ? 0 : 60000));
        AppLockDestroy(hLock);
    }
    bEnd = true;
    giver.join();
}

// As mutexes they exclude; with gives and takes at random no unit is lost, and none made up.
TEST(Lock, ServesEightThreads)
{
    constexpr unsigned kTakes = test::Scaled(40000);
    for (const uint32_t dwType : {APP_LOCK_TYPE_SEM, APP_LOCK_TYPE_RECURSIVE}) {
        HAppLock hLock = CreateLock(1, 1, dwType);
        unsigned nInside = 0, nSum = 0; // guarded by the lock
        std::atomic<unsigned> nMissed{0};
        test::RunThreads(8, [&](unsigned nThread) {
            for (unsigned i = 0; i < kTakes; ++i) {
                if (AppLockTakeByTime(hLock, (i + nThread) % 3 ? 0 : 1) != APP_OK) {
                    ++nMissed;
                    continue;
                }
                ASSERT_EQ(++nInside, 1u);
                ++nSum;
                --nInside;
                AppLockGive(hLock);
            }
        });
        EXPECT_EQ(nSum + nMissed, 8 * kTakes);
        AppLockDestroy(hLock);
    }
    for (const uint32_t dwMax : {1u, 2u, UINT_MAX}) {
        HAppLock hLock = CreateLock(dwMax, 0);
        std::atomic<unsigned> nGiven{0}, nTaken{0};
        test::RunThreads(8, [&](unsigned nThread) {
            std::mt19937 random(nThread);
            for (unsigned i = 0; i < kTakes / 16; ++i)
                if (random() % 2)
                    nTaken += AppLockTakeByTime(hLock, 1) == APP_OK;
                else
                    nGiven += AppLockGive(hLock) == APP_OK;
        });
        unsigned nLeft = 0;
        while (AppLockTakeByTime(hLock, 1) == APP_OK)
            ++nLeft;
        EXPECT_LE(nLeft, std::min(dwMax, nGiven - nTaken));
        EXPECT_TRUE(dwMax < UINT_MAX || nLeft == nGiven - nTaken);
        AppLockDestroy(hLock);
    }
}

// ---- Ticks, delays, threads -------------------------------------------------------------------

TEST(Tick, CountsTenMilliseconds)
{
    EXPECT_EQ(AppTickDiff(0xFFFFFFF0, 0x10), 32u);
    EXPECT_EQ(AppConvertTickToMS(0x1999999A), 4u);
    const auto before = steady_clock::now();
    const uint32_t dwStart = AppGetTick();
    const auto start = steady_clock::now();
    AppDelay(0);
    struct sigaction tAction = {};
    tAction.sa_handler = [](int) {};
    sigaction(SIGALRM, &tAction, nullptr);
    const itimerval tEach20Ms = {{0, 20000}, {0, 20000}}, tNever = {};
    setitimer(ITIMER_REAL, &tEach20Ms, nullptr); // signals do not cut it short
    AppDelay(300);
    setitimer(ITIMER_REAL, &tNever, nullptr);
    const int64_t qnAtLeast = test::ElapsedMs(start);
    const uint32_t dwElapsed = AppConvertTickToMS(AppTickDiff(dwStart, AppGetTick()));
    EXPECT_GE(qnAtLeast, 300);
    EXPECT_GE(dwElapsed + 20, qnAtLeast); // a reading is at most two ticks old
    EXPECT_LE(dwElapsed, test::ElapsedMs(before) + 20);
}

static void *NoteThread(void *pvArg)
{
    pthread_attr_t tAttr;
    int nDetached = -1;
    pthread_getattr_np(pthread_self(), &tAttr);
    pthread_attr_getdetachstate(&tAttr, &nDetached);
    pthread_attr_destroy(&tAttr);
    EXPECT_EQ(nDetached, PTHREAD_CREATE_DETACHED);
    char achName[16] = "";
    _AppThreadSetName("a name of 20 letters");
    prctl(PR_GET_NAME, achName);
    EXPECT_STREQ(achName, "a name of 20 le");
    EXPECT_EQ(_AppThreadGetTID(), static_cast<int32_t>(syscall(SYS_gettid)));
    _AppThreadExit(); // does nothing
    ++*static_cast<std::atomic<int> *>(pvArg);
    return nullptr;
}

TEST(Thread, CreationFallsBackToInheritedScheduling)
{
    struct {
        int nError;
        unsigned nTimes, nRefusals; // of creations, and of the inheritance from the second call on
        uint32_t dwResult;
        size_t nLines;
    } const rows[] = {{0, 0, 0, APP_OK, 0},
                      {EINVAL, 1, 0, APP_OK, 1},
                      {EINVAL, 2, 0, APP_FAILED, 2},
                      {EINVAL, 1, 1, APP_FAILED, 2},
                      {EAGAIN, 1, 0, APP_FAILED, 1}};
    LogCapture log;
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        std::atomic<int> nRan{0};
        fault::Fail create(Fn::pthread_create, 1, row.nError, row.nTimes);
        fault::Fail inherit(Fn::pthread_attr_setinheritsched, 2, ENOTSUP, row.nRefusals);
        // A stack size that is refused is not checked.
        EXPECT_CODE(row.dwResult, _AppThreadCreate(NoteThread, row.nLines ? 65536 : 1, &nRan));
        EXPECT_EQ(log.Lines().size(), row.nLines);
        log.Clear();
        EXPECT_TRUE(test::WaitUntil([&] { return nRan == (row.dwResult == APP_OK); }));
    }
}
