// SPDX-License-Identifier: MIT
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

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

// Units that can be had without waiting; they are given back.
uint32_t CountUnits(HAppLock hLock)
{
    uint32_t dwUnits = 0;
    while (AppLockTakeByTime(hLock, 1) == APP_OK)
        ++dwUnits;
    for (uint32_t i = 0; i < dwUnits; ++i)
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
    return dwUnits;
}

uint32_t TakeInOtherThread(HAppLock hLock, uint32_t dwTimeout)
{
    uint32_t dwResult = 0;
    std::thread([&] { dwResult = AppLockTakeByTime(hLock, dwTimeout); }).join();
    return dwResult;
}

// A take in a thread of its own, which has gone to sleep when the constructor ends.  What it took
// it gives back.
class SleepingTaker
{
public:
    SleepingTaker(HAppLock hLock, uint32_t dwTimeout)
        : m_waits(s_waits, 0, 0, 1, fault::kEveryThread), m_thread([=] {
              m_dwResult = AppLockTakeByTime(hLock, dwTimeout);
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

private:
    fault::Fail m_waits;
    std::atomic<bool> m_bDone{false};
    uint32_t m_dwResult = 0;
    std::thread m_thread;
};

} // namespace

// ---- Locks ----------------------------------------------------------------------------------

TEST(Lock, CountsStayBetweenZeroAndTheCeiling)
{
    const auto hUntouched = reinterpret_cast<HAppLock>(16);
    for (const uint32_t dwType :
         {uint32_t{APP_LOCK_TYPE_RECURSIVE}, uint32_t{APP_LOCK_TYPE_SEM}, 7u}) // any other type
        for (const uint32_t dwMax : {0u, 1u, 2u, 4294967295u})
            for (const uint32_t dwInit : {0u, 1u, 2u, 5u}) {
                SCOPED_TRACE(Text("max %u init %u type %u", dwMax, dwInit, dwType));
                HAppLock hLock = hUntouched;
                const bool bGood = dwMax == 1 || (dwMax > 1 && dwType != APP_LOCK_TYPE_RECURSIVE);
                EXPECT_CODE(bGood ? APP_OK : APP_INVALID_ARG,
                            AppLockCreate(nullptr, dwMax, dwInit, dwType, &hLock));
                EXPECT_EQ(hLock == hUntouched, !bGood);
                if (bGood && dwType != APP_LOCK_TYPE_RECURSIVE) {
                    EXPECT_EQ(CountUnits(hLock), std::min(dwInit, dwMax));
                    for (int i = 0; i < 5; ++i)
                        EXPECT_CODE(APP_OK, AppLockGive(hLock)); // absorbed at the ceiling
                    EXPECT_EQ(CountUnits(hLock), std::min(std::min(dwInit, dwMax) + 5, dwMax));
                }
                if (bGood && dwType == APP_LOCK_TYPE_RECURSIVE && dwInit == 0)
                    AppLockGive(hLock); // held at first
                if (bGood)
                    AppLockDestroy(hLock);
            }
}

// 1200 ms is beyond the slice in which the library sleeps.
TEST(Lock, TimeoutsAreNotEarlierThanAsked)
{
    HAppLock hEmpty = CreateLock(1, 0);
    HAppLock hHeld = CreateLock(1, 0, APP_LOCK_TYPE_RECURSIVE);
    for (const uint32_t dwTimeout : {1u, 50u, 1200u}) {
        auto start = steady_clock::now();
        EXPECT_CODE(APP_TIMEOUT, AppLockTakeByTime(hEmpty, dwTimeout));
        EXPECT_GE(test::ElapsedMs(start), dwTimeout);
        start = steady_clock::now();
        EXPECT_CODE(APP_TIMEOUT, TakeInOtherThread(hHeld, dwTimeout));
        EXPECT_GE(test::ElapsedMs(start) + 1, dwTimeout); // the wall clock, where there is no other
    }
    AppLockGive(hHeld);
    AppLockDestroy(hHeld);
    AppLockDestroy(hEmpty);
}

TEST(Lock, LongTimeoutsDoNotWrap)
{
    for (const uint32_t dwType : {APP_LOCK_TYPE_SEM, APP_LOCK_TYPE_RECURSIVE})
        for (const uint32_t dwTimeout : {2147483u, 604800000u, 2147483648u, 4294967295u}) {
            SCOPED_TRACE(dwTimeout);
            HAppLock hLock = CreateLock(1, 0, dwType);
            SleepingTaker taker(hLock, dwTimeout);
            std::this_thread::sleep_for(milliseconds(5));
            EXPECT_FALSE(taker.Done());
            EXPECT_CODE(APP_OK, AppLockGive(hLock));
            EXPECT_CODE(APP_OK, taker.Join());
            AppLockDestroy(hLock);
        }
}

TEST(Lock, RecursiveIsGivenAsOftenAsTaken)
{
    HAppLock hLock = CreateLock(1, 0, APP_LOCK_TYPE_RECURSIVE); // starts held
    EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 0));
    EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 5));
    for (int i = 0; i < 3; ++i) {
        EXPECT_CODE(APP_TIMEOUT, TakeInOtherThread(hLock, 2));
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
    }
    EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 0));
    std::thread([&] { // errors other than the time-out are tried again, but not for ever
        fault::Fail fail(s_timedLocks, 1, EAGAIN, UINT_MAX);
        EXPECT_CODE(APP_TIMEOUT, AppLockTakeByTime(hLock, 1));
        EXPECT_EQ(fail.Calls(), 100u);
    })
        .join();
    AppLockGive(hLock);
    AppLockDestroy(hLock);
}

TEST(Lock, RefusedSignalGivesNothing)
{
    HAppLock hLock = CreateLock(2, 0);
    SleepingTaker taker(hLock, 0);
    {
        fault::Fail fail(Fn::pthread_cond_signal, 1, EINVAL);
        EXPECT_CODE(APP_FAILED, AppLockGive(hLock));
    }
    EXPECT_CODE(APP_TIMEOUT, AppLockTakeByTime(hLock, 1));
    EXPECT_FALSE(taker.Done());
    EXPECT_CODE(APP_OK, AppLockGive(hLock));
    EXPECT_CODE(APP_OK, taker.Join());
    AppLockDestroy(hLock);
}

// The second give of two, made before the first sleeper can have run, wakes the second sleeper; and
// where there is room for one unit only, the first sleeper's own give does.
TEST(Lock, EachOfTwoGivesSignals)
{
    for (const uint32_t dwMax : {2u, 1u}) {
        HAppLock hLock = CreateLock(dwMax, 0);
        SleepingTaker first(hLock, 0), second(hLock, 0);
        fault::Fail signals(Fn::pthread_cond_signal, dwMax == 2, 0, 1, fault::kEveryThread);
        signals.Action([&] {
            std::thread([&] { EXPECT_CODE(APP_OK, AppLockGive(hLock)); }).join();
            EXPECT_GE(signals.Calls(), 2u); // more once the sleepers run
        });
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
        EXPECT_CODE(APP_OK, first.Join());
        EXPECT_CODE(APP_OK, second.Join());
        EXPECT_GE(signals.Calls(), 2u);
        EXPECT_EQ(CountUnits(hLock), dwMax);
        AppLockDestroy(hLock);
    }
}

// The giver's last touch of a record is its give: who takes may destroy and release at once.
TEST(Lock, MayBeDestroyedRightAfterAHandOver)
{
    constexpr unsigned kRounds = test::Scaled(40000);
    std::atomic<HAppLock> hShared{nullptr};
    std::atomic<bool> bEnd{false};
    std::thread giver([&] {
        for (unsigned i = 0; !bEnd; ++i) {
            HAppLock hLock = hShared.exchange(nullptr);
            if (!hLock)
                std::this_thread::yield();
            else
                AppLockGive(hLock);
        }
    });
    for (unsigned i = 0; i < kRounds; ++i) {
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

TEST(Lock, ExcludesEightThreads)
{
    constexpr unsigned kThreads = 8;
    constexpr unsigned kTakes = test::Scaled(1000000) / kThreads;
    for (const uint32_t dwType : {APP_LOCK_TYPE_SEM, APP_LOCK_TYPE_RECURSIVE}) {
        HAppLock hLock = CreateLock(1, 1, dwType);
        unsigned nInside = 0, nSum = 0; // guarded by the lock
        std::atomic<unsigned> nMissed{0};
        test::RunThreads(kThreads, [&](unsigned nThread) {
            for (unsigned i = 0; i < kTakes; ++i) {
                if (AppLockTakeByTime(hLock, (i + nThread) % 3 ? 0 : 1) != APP_OK) {
                    ++nMissed;
                    continue;
                }
                if (dwType == APP_LOCK_TYPE_RECURSIVE && i % 16 == 0) {
                    EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 1));
                    AppLockGive(hLock);
                }
                ASSERT_EQ(++nInside, 1u);
                ++nSum;
                --nInside;
                AppLockGive(hLock);
            }
        });
        EXPECT_EQ(nSum + nMissed, kThreads * kTakes);
        EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 1)); // free again
        AppLockGive(hLock);
        AppLockDestroy(hLock);
    }
}

// ---- Ticks and delays -----------------------------------------------------------------------

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

// ---- Threads --------------------------------------------------------------------------------

static void *NoteThread(void *pvArg)
{
    pthread_attr_t tAttr;
    int nDetached = -1;
    pthread_getattr_np(pthread_self(), &tAttr);
    pthread_attr_getdetachstate(&tAttr, &nDetached);
    pthread_attr_destroy(&tAttr);
    _AppThreadSetName("a name of 20 letters");
    char achName[16] = "";
    prctl(PR_GET_NAME, achName);
    EXPECT_STREQ(achName, "a name of 20 le");
    EXPECT_EQ(nDetached, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(_AppThreadGetTID(), static_cast<int32_t>(syscall(SYS_gettid)));
    EXPECT_NE(_AppThreadGetTID(), getpid());
    _AppThreadExit(); // does nothing
    ++*static_cast<std::atomic<int> *>(pvArg);
    return nullptr;
}

TEST(Thread, CreationFallsBackToInheritedScheduling)
{
    struct {
        int nCreateError;
        unsigned nCreateTimes;
        unsigned nInheritNth, nInheritTimes; // which calls of setinheritsched fail
        uint32_t dwResult;
        const char *szLines; // c: of the creation, i: of the inheritance
    } const rows[] = {{0, 0, 0, 0, APP_OK, ""},
                      {EAGAIN, 1, 0, 0, APP_FAILED, "c"},
                      {EINVAL, 1, 0, 0, APP_OK, "c"},
                      {EINVAL, 2, 0, 0, APP_FAILED, "cc"},
                      {0, 0, 1, 1, APP_OK, "i"},
                      {EINVAL, 1, 2, 1, APP_FAILED, "ci"},
                      {EINVAL, 1, 1, 2, APP_FAILED, "ici"}};
    LogCapture log;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.szLines);
        std::atomic<int> nRan{0};
        fault::Fail create(Fn::pthread_create, row.nCreateTimes ? 1 : 0, row.nCreateError,
                           row.nCreateTimes);
        fault::Fail inherit(Fn::pthread_attr_setinheritsched, row.nInheritNth, ENOTSUP,
                            row.nInheritTimes);
        // A stack size that is refused is not checked.
        EXPECT_CODE(row.dwResult, _AppThreadCreate(NoteThread, *row.szLines ? 65536 : 1, &nRan));
        std::vector<std::string> lines;
        for (const char *pch = row.szLines; *pch; ++pch)
            lines.push_back(*pch == 'c' ? Text("[ERROR] _AppThreadCreate: pthread_create ret %d, "
                                               "try with PTHREAD_INHERIT_SCHED\n",
                                               row.nCreateError)
                                        : "[ERROR] _AppThreadCreate: "
                                          "pthread_attr_setinheritsched:Operation not supported\n");
        log.ExpectLines(lines);
        EXPECT_TRUE(test::WaitUntil([&] { return nRan == (row.dwResult == APP_OK); }));
    }
    fault::Fail attr(Fn::pthread_attr_init);
    EXPECT_CODE(APP_FAILED, _AppThreadCreate(NoteThread, 65536, nullptr));
}
