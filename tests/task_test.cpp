// SPDX-License-Identifier: MIT
#include <algorithm>
#include <fstream>
#include <map>
#include <numeric>
#include <optional>
#include <random>

#include "cross_linux/cross_linux.h"
#include "mempool/mempool.h"
#include "support/log_capture.h"
#include "support/tasks.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

using app::Ptr;
using fault::Fn;
using test::Arg;
using test::Diary;
using test::Door;
using test::LogCapture;
using test::Manager;
using test::Text;

namespace
{

std::string ThreadName(int32_t nThreadId)
{
    std::string name;
    std::getline(std::ifstream("/proc/self/task/" + std::to_string(nThreadId) + "/comm"), name);
    return name;
}

uint32_t StateOf(HAppTask hTask)
{
    return app::Peek(hTask->dwState);
}

void Send(HAppTask hTask, uintptr_t nArg)
{
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(nArg), nullptr, nullptr));
}

// Without the task's lock, and whatever its state.
void SendUnchecked(HAppTask hTask, const TAppTaskEvent &event)
{
    bool bWake = false;
    EXPECT_CODE(APP_OK, _AppTaskSendEvent(hTask, &event, 0, 1, &bWake));
    if (bWake)
        app::QueueWake(hTask->hEventQueue);
}

bool LastIs(HAppTask hTask, uint32_t dwType, const void *pvArg, PFAppTaskHandler pfnHandler,
            const void *pvContext)
{
    uint32_t dwLast = 99;
    void *pvLastArg = nullptr, *pvLastContext = nullptr;
    PFAppTaskHandler pfnLast = nullptr;
    EXPECT_CODE(APP_OK, AppTaskGetLastEvent(hTask, &dwLast, &pvLastArg, &pfnLast, &pvLastContext));
    return dwLast == dwType && pvLastArg == pvArg && pfnLast == pfnHandler &&
           pvLastContext == pvContext;
}

// A task's thread that stands in a handler, so that queue and timers stay as they are.
class Busy
{
public:
    explicit Busy(HAppTask hBusy, void *pvArg = nullptr)
        : hTask(hBusy), diary([this](const Diary::Call &) { m_door.Pass(); })
    {
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, pvArg, Diary::Handle, &diary));
        m_door.AwaitVisitor();
    }
    void Go() { m_door.Open(); }

    HAppTask hTask;
    Diary diary;

private:
    Door m_door;
};

// What most tests need.  Whoever a task of the manager may still tell something outlives it.
class TaskTest : public testing::Test
{
protected:
    LogCapture log;
    Diary own, diary;
    Manager manager;
};

// ---- Manager ----------------------------------------------------------------------------------

TEST_F(TaskTest, ReusesTheTaskThatWasParkedLast)
{
    Diary second, third;
    Manager two(2);
    HAppTask hFirst = two.New(diary, {"first"});
    HAppTask hSecond = two.New(second, {"second", 5, 0, 1000});
    HAppMemPool hPool = AppTaskGetMemPool(hSecond);
    EXPECT_EQ(AppMemPoolMalloc(hPool, 1000), nullptr);
    HAppTask hTooMany = hFirst;
    EXPECT_CODE(APP_NO_RESOURCE,
                AppTaskMgrNewTask(two.Get(), "a", 1, 0, 0, 0, nullptr, nullptr, &hTooMany));
    EXPECT_EQ(hTooMany, nullptr);
    two.Park(hFirst);
    two.Park(hSecond);
    const int32_t nThreadId = hSecond->nThreadId;
    EXPECT_EQ(two.New(third, {"a name longer than a thread's", 2, 0, 1}), hSecond);
    EXPECT_EQ(two.New(nullptr, nullptr, {nullptr}), hFirst);
    Send(hFirst, 1);
    Send(hSecond, 7); // after the refresh
    third.Await("user 7");
    EXPECT_EQ(second.Text() + diary.Text(), "stopstop");
    EXPECT_EQ(third.Calls()[0].nThreadId, nThreadId);
    EXPECT_EQ(ThreadName(nThreadId), "a name longer t");
    EXPECT_EQ(AppTaskGetMemPool(hSecond), hPool);
    EXPECT_EQ(_AppQueueGetMaxSize(hSecond->hEventQueue), 2u);
    EXPECT_EQ(hFirst->szTaskName, nullptr);
}

// ---- Events -----------------------------------------------------------------------------------

// A sender that cannot have the task's lock neither looks at the state nor queues.
TEST_F(TaskTest, ReachTheirHandlersInOrder)
{
    HAppTask hTask = manager.New(diary);
    {
        app::LockGuard guard(hTask);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_CODE(APP_TIMEOUT, AppTaskSendEvent(hTask, Arg(9), nullptr, nullptr));
        EXPECT_GE(test::ElapsedMs(start), 990);
    }
    for (uintptr_t i = 1; i <= 3; ++i)
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(i), nullptr, &own));
    EXPECT_CODE(APP_OK, AppTaskAssignEvent(hTask, Arg(4), Diary::Handle, &own));
    own.Await("user 4");
    EXPECT_EQ(diary.Text(), "user 1, user 2, user 3");
    EXPECT_EQ(own.Calls()[0].nThreadId, diary.Calls()[0].nThreadId);
    EXPECT_EQ(ThreadName(own.Calls()[0].nThreadId), "task");
    EXPECT_TRUE(LastIs(hTask, APP_TASK_EVENT_USER, Arg(4), Diary::Handle, &own));
}

TEST_F(TaskTest, ATerminatedTaskTellsAllAndForgets)
{
    Diary notices([](const Diary::Call &call) { // nothing is admitted any more
        EXPECT_CODE(APP_INVALID_ARG, AppTaskSendEvent(call.hTask, nullptr, nullptr, nullptr));
        EXPECT_EQ(AppTaskSetTimer(call.hTask, 0, nullptr, nullptr), nullptr);
    });
    Manager one;
    Busy busy(one.New(notices, {"task", 2}));
    HAppTask hTask = busy.hTask;
    HAppTimer hTimer = AppTaskSetTimer(hTask, 100000, nullptr, nullptr);
    AppTaskSetTimer(hTask, 100000, Diary::Handle, &own);
    Send(hTask, 1);
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(2), Diary::Handle, &own));
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskSendEvent(hTask, Arg(9), nullptr, nullptr)); // full
    EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
    EXPECT_CODE(APP_OK, AppTaskTerminate(hTask)); // met by the drain of the first
    EXPECT_CODE(APP_OK, AppTaskAssignEvent(hTask, Arg(3), nullptr, nullptr));
    busy.Go();
    notices.Await("cancel, drop 1, drop 3, stop");
    EXPECT_EQ(own.Text(), "cancel, drop 2");
    EXPECT_TRUE(test::WaitUntil([&] { return one.Idle() == 1; }));
    EXPECT_CODE(APP_INVALID_ARG, AppTaskTerminate(hTask));
    EXPECT_CODE(APP_INVALID_STATE, AppTaskResetTimer(hTimer));
    AppTaskCancelTimer(hTimer);
    EXPECT_EQ(AppTaskTimerGetRemainTime(hTimer), 0u);
}

TEST_F(TaskTest, InternalOperationsRefuseWhatIsNotTheirs)
{
    HAppTask hTask = manager.New(diary);
    manager.Park(hTask);
    for (auto pfnHandler : {_AppTaskGoForIdleHandler, _AppTaskGoForTerminateHandler})
        EXPECT_CODE(APP_INVALID_STATE, pfnHandler(hTask, APP_TASK_EVENT_DROP, nullptr, nullptr));
    _AppTaskRefreshHandler(hTask, 0, nullptr, nullptr); // nothing revives it but a new owner
    EXPECT_EQ(StateOf(hTask), APP_TASK_STATE_IDLE);
    manager.New(diary);
    Send(hTask, 1);
    diary.Await("stop, user 1");
    EXPECT_TRUE(test::WaitUntil([&] { return StateOf(hTask) == APP_TASK_STATE_RUNNING; }));
    for (auto pfnHandler : {_AppTaskGoForIdleHandler, _AppTaskGoForTerminateHandler})
        EXPECT_CODE(APP_INVALID_STATE, pfnHandler(hTask, APP_TASK_EVENT_STOP, nullptr, nullptr));
    TAppTimerMgr lonely = {};
    TAppTimer noTask = {};
    noTask.ptTimerMgr = &lonely;
    EXPECT_CODE(APP_INVALID_ARG, AppTaskResetTimer(&noTask));
    EXPECT_STREQ(_AppGetTaskStateString(APP_TASK_STATE_UNINIT + 1), "UNKNOWN");
    _AppTaskRefreshHandler(nullptr, 0, nullptr, nullptr);
    _AppTaskDropEventCB(nullptr, hTask);
    _AppTaskDropEventCB(&diary, nullptr);
    __AppFreeTaskCB(nullptr, nullptr);
    _AppTaskDestroy(nullptr);
    EXPECT_EQ(AppTask(nullptr), nullptr);
}

// The wait has expired, and an event comes before the thread looks at the time-out.
TEST_F(TaskTest, AnEventBeatsTheIdleTimeOut)
{
    HAppTask hTask = manager.New(diary, {"task", 9, 100});
    EXPECT_TRUE(test::WaitUntil([&] { return StateOf(hTask) == APP_TASK_STATE_RUNNING; }));
    {
        app::LockGuard guard(hTask);
        AppDelay(500); // the first wait takes 300 ms
        SendUnchecked(hTask, {APP_TASK_EVENT_USER, Arg(1), nullptr, nullptr});
    }
    EXPECT_TRUE(test::WaitUntil([&] { return diary.Calls().size() > 0; }));
    EXPECT_EQ(diary.Text().substr(0, 6), "user 1");
}

// A console may be slow, and may call the library: no line is printed while a lock is held.  This
// one takes every lock of the manager at each line, and allocates from its pool.
TEST_F(TaskTest, LinesArePrintedAfterTheLocks)
{
    test::Watchdog watchdog;
    g_byAppLogLevel[0] = APP_LOG_DEBUG;
    Diary logs([&](const Diary::Call &call) { // a handler's line follows those before its call
        const std::string line =
            Text("[DEBUG] _AppTaskGoForIdleHandler: task %p go on state IDLE\n", Ptr(call.hTask));
        EXPECT_EQ(log.Count(line), call.dwType == APP_TASK_EVENT_STOP ? 1u : 0u);
    });
    Manager full(3, 0, 1 << 20);
    Busy busy(full.New(logs, {"busy", 1}));
    HAppTask hParked = full.New(logs);
    full.Park(hParked);
    std::atomic<int> nLines{0};
    log.OnLine([&](const std::string &line) {
        ++nLines;
        for (HAppLock hLock : {full.Get()->hLock, busy.hTask->hLock, busy.hTask->hEventQueue->hLock,
                               hParked->hLock, full.Pool()->hLock}) {
            const bool bTaken = AppLockTakeByTime(hLock, 10000) == APP_OK;
            EXPECT_TRUE(bTaken) << line;
            if (bTaken)
                AppLockGive(hLock);
        }
        EXPECT_EQ(AppMemPoolMalloc(full.Pool(), 1 << 20), nullptr);
    });
    Send(busy.hTask, 1);
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskSendEvent(busy.hTask, Arg(2), nullptr, nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppTaskSendEvent(hParked, Arg(3), nullptr, nullptr));
    EXPECT_EQ(AppTaskSetTimer(hParked, 1, nullptr, nullptr), nullptr);
    EXPECT_EQ(full.New(logs), hParked);
    for (uint32_t dwSize = 1024; dwSize != 0; dwSize /= 2)
        while (AppMemPoolMalloc(full.Pool(), dwSize)) {
        }
    HAppTask hNone = nullptr;
    EXPECT_CODE(APP_NO_RESOURCE,
                AppTaskMgrNewTask(full.Get(), "x", 1, 0, 0, 0, nullptr, nullptr, &hNone));
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskTerminate(busy.hTask));
    EXPECT_EQ(AppTaskSetTimer(busy.hTask, 1, nullptr, nullptr), nullptr);
    busy.Go();
    logs.Await("stop, user 1");
    EXPECT_GT(nLines.load(), 20);
    log.OnLine(nullptr);
}

// ---- Timers -----------------------------------------------------------------------------------

// They expire in the task's thread, which looks at them after each event; and one that its handler
// sets anew for ever leaves the events their turns.
TEST_F(TaskTest, TimersLeaveTheEventsTheirTurns)
{
    test::Watchdog watchdog;
    Diary endless([](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_TIMEOUT)
            AppTaskSetTimer(call.hTask, 0, nullptr, nullptr);
    });
    Manager one;
    HAppTask hTask = one.New(endless);
    const auto start = std::chrono::steady_clock::now();
    AppTaskSetTimer(hTask, 100, Diary::Handle, &own);
    Send(hTask, 1);
    own.Await("timeout");
    EXPECT_GE(test::ElapsedMs(start), 80); // ticks of 10 ms
    EXPECT_EQ(own.Calls()[0].nThreadId, hTask->nThreadId);
    AppTaskSetTimer(hTask, 0, nullptr, nullptr);
    for (const char *szTold : {"timeout, user 2", "timeout, user 2, user 2"}) {
        const size_t nBefore = endless.Calls().size();
        EXPECT_CODE(APP_OK, AppTaskAssignEvent(hTask, Arg(2), Diary::Handle, &own));
        own.Await(szTold);
        EXPECT_TRUE(test::WaitUntil([&] { return endless.Calls().size() > nBefore; }));
    }
    one.Park(hTask);
}

// This thread's tick: a clock that cannot be read counts as tick ~errno.
class Clock
{
public:
    explicit Clock(uint32_t dwTick) { Set(dwTick); }
    uint32_t Now() const { return m_dwTick; }
    void Pass(uint32_t dwMs) { Set(m_dwTick + (dwMs + 9) / 10); }

private:
    void Set(uint32_t dwTick)
    {
        m_dwTick = dwTick == 0xFFFFFFFF ? 0 : dwTick; // for which there is no errno
        m_fail.reset();
        m_fail.emplace(Fn::clock_gettime, 1, static_cast<int>(~m_dwTick), 1u << 30);
    }
    uint32_t m_dwTick = 0;
    std::optional<fault::Fail> m_fail;
};

// The timers of a task whose thread is busy, run by the test's thread at the test's time, beside a
// model: a list, in the order of setting, of which the first that is due expires.  Handlers do to
// the timers whatever the test may do.
class TimerModel
{
public:
    explicit TimerModel(unsigned nSeed) : m_random(nSeed), m_clock(0xFFFFFFFF - nSeed * 20)
    {
        for (unsigned n = Pick(50); n > 0; --n)
            Set(99999);
    }
    void Step()
    {
        m_nActs = 6; // for the handlers
        const unsigned n = Pick(40);
        if (n == 0)
            Settle();
        else if (n < 10)
            Run();
        else
            Act();
    }
    // The manager's destruction begins in a handler: no further timer expires.
    void End()
    {
        Settle();
        m_onExpiry = [&] {
            m_bEnds = true;
            m_destroyer.emplace(m_manager);
        };
        for (int i = 0; i < 3; ++i)
            Set(0);
        EXPECT_EQ(Run(), 1u);
        m_busy.Go();
        m_destroyer.reset();
        EXPECT_TRUE(m_running.empty());
    }

private:
    struct Timed {
        uint32_t dwStart, dwTimeout, dwRun; // of which run, or 0
        bool bOwn;
    };
    unsigned Pick(unsigned nBelow) { return m_random() % nBelow; }
    uint32_t Elapsed(uint32_t dwStart) const { return (m_clock.Now() - dwStart) * 10; }
    uint32_t Left(HAppTimer hTimer)
    {
        const Timed &timed = m_all[hTimer];
        const uint32_t dwElapsed = Elapsed(timed.dwStart);
        return timed.dwTimeout > dwElapsed ? timed.dwTimeout - dwElapsed : 0;
    }
    bool Runs(HAppTimer hTimer)
    {
        return std::count(m_running.begin(), m_running.end(), hTimer) != 0;
    }
    // The one that expires next; null when none is due, or the run has to stop in front of it.
    HAppTimer Next()
    {
        const auto at = std::find_if(m_running.begin(), m_running.end(),
                                     [this](HAppTimer hTimer) { return Left(hTimer) == 0; });
        const bool bStop =
            at != m_running.end() &&
            (m_bEnds || (m_all[*at].dwRun == m_dwRun && Elapsed(m_dwRunStart) >= 50));
        return at == m_running.end() || bStop ? nullptr : *at;
    }
    uint32_t Wait()
    {
        uint32_t dwWait = 5000;
        for (HAppTimer hTimer : m_running)
            dwWait = std::min(dwWait, std::max(Left(hTimer), 1u));
        return dwWait;
    }

    static uint32_t Handle(HAppTask hTask, uint32_t dwType, void *pvTimer, void *pvSide)
    {
        TimerModel &model = **static_cast<TimerModel **>(pvSide);
        auto hTimer = static_cast<HAppTimer>(pvTimer);
        EXPECT_EQ(model.Expected(dwType), hTimer);
        EXPECT_EQ(model.m_all[hTimer].bOwn, pvSide == &model.m_own);
        EXPECT_NE(LastIs(hTask, dwType, pvTimer, Handle, pvSide), model.m_bEnds);
        model.m_running.erase(std::find(model.m_running.begin(), model.m_running.end(), hTimer));
        if (model.m_onExpiry)
            std::exchange(model.m_onExpiry, nullptr)();
        else
            model.MayAct();
        model.m_ended.push_back(hTimer);
        return 0;
    }
    HAppTimer Expected(uint32_t dwType)
    {
        if (dwType == APP_TASK_EVENT_TIMEOUT)
            return m_bRuns ? Next() : nullptr;
        return m_bEnds ? m_running.front() : std::exchange(m_hCancelled, nullptr);
    }
    void MayAct()
    {
        for (unsigned n = Pick(4); n > 0 && m_nActs > 0; --n) {
            --m_nActs;
            Act();
        }
    }

    void Act()
    {
        static const uint32_t adwTimeout[] = {0, 0, 0, 10, 20, 50, 1000, 4999, 5001, 0xFFFFFFFF};
        const unsigned n = Pick(8);
        if (n < 3 || m_known.empty())
            Set(adwTimeout[Pick(10)]);
        else if (n == 3)
            m_clock.Pass(Pick(7) * 10);
        else
            Use(m_known[Pick(static_cast<unsigned>(m_known.size()))], n);
    }
    void Set(uint32_t dwTimeout)
    {
        const bool bOwn = Pick(2) == 0;
        HAppTimer hEnded = m_ended.empty() ? nullptr : m_ended.back();
        std::optional<fault::Fail> scarce;
        if (Pick(4) == 0)
            scarce.emplace(Fn::malloc, 1 + Pick(2));
        HAppTimer hTimer =
            AppTaskSetTimer(m_busy.hTask, dwTimeout, bOwn ? Handle : nullptr, &m_own);
        EXPECT_EQ(hTimer == nullptr, scarce && !hEnded); // a record that is there needs no memory
        if (!hTimer)
            return;
        if (hEnded) {
            EXPECT_EQ(hTimer, hEnded);
            m_ended.pop_back();
        } else {
            EXPECT_EQ(m_all.count(hTimer), 0u);
            m_known.push_back(hTimer);
        }
        m_running.push_back(hTimer);
        m_all[hTimer] = {m_clock.Now(), dwTimeout, m_bRuns ? m_dwRun : 0, bOwn};
    }
    void Use(HAppTimer hTimer, unsigned nHow)
    {
        const bool bRuns = Runs(hTimer);
        if (nHow == 4) {
            EXPECT_CODE(bRuns ? APP_OK : APP_NOT_FOUND, AppTaskResetTimer(hTimer));
            if (bRuns)
                m_all[hTimer].dwStart = m_clock.Now();
        } else if (nHow == 5) {
            EXPECT_EQ(AppTaskTimerGetRemainTime(hTimer), Left(hTimer));
        } else {
            m_hCancelled = bRuns ? hTimer : nullptr;
            AppTaskCancelTimer(hTimer);
            EXPECT_EQ(m_hCancelled, nullptr);
        }
    }
    uint32_t Run()
    {
        ++m_dwRun;
        m_dwRunStart = m_clock.Now();
        app::LockGuard guard(m_busy.hTask);
        m_bRuns = true;
        const uint32_t dwWait = _AppTimerMgrRun(m_busy.hTask->ptTimerMgr);
        EXPECT_EQ(Next(), nullptr);
        m_bRuns = false;
        EXPECT_TRUE(dwWait >= 1 && dwWait <= Wait()) << dwWait;
        return dwWait;
    }
    // A look that came too early costs a look and nothing else.
    void Settle()
    {
        m_nActs = 0;
        uint32_t dwWait = Run();
        for (int i = 0; dwWait != Wait(); ++i) {
            ASSERT_LT(i, 4) << dwWait << " ms, not " << Wait();
            m_clock.Pass(dwWait);
            dwWait = Run();
        }
    }
    std::minstd_rand m_random;
    TimerModel *m_own = this, *m_default = this; // contexts
    std::map<HAppTimer, Timed> m_all;
    std::vector<HAppTimer> m_running, m_ended, m_known;
    HAppTimer m_hCancelled = nullptr;
    bool m_bRuns = false, m_bEnds = false;
    uint32_t m_dwRun = 0, m_dwRunStart = 0;
    unsigned m_nActs = 0;
    std::function<void()> m_onExpiry;
    Manager m_manager;
    Busy m_busy{m_manager.New(Handle, &m_default)};
    Clock m_clock;
    std::optional<test::Destroyer> m_destroyer;
};

TEST_F(TaskTest, TimersFollowTheirModel)
{
    test::Watchdog watchdog;
    g_byAppLogLevel[0] = APP_LOG_ALWAYS;
    for (unsigned nSeed = 1; nSeed <= 60; ++nSeed) {
        SCOPED_TRACE(nSeed);
        TimerModel model(nSeed);
        for (int i = 0; i < 300 && !HasFailure(); ++i)
            model.Step();
        ASSERT_FALSE(HasFailure());
        model.End();
    }
}

// ---- Report -----------------------------------------------------------------------------------

using Pieces = std::vector<std::string>;

void Add(const char *szText, void *pvPieces)
{
    static_cast<Pieces *>(pvPieces)->push_back(szText);
}

Pieces Report(HAppTaskMgr hTaskMgr)
{
    Pieces pieces;
    AppTaskMgrShow(hTaskMgr, Add, &pieces);
    return pieces;
}

TEST_F(TaskTest, ShowsTasksTimersAndPools)
{
    Manager shown(8, 70000, 1 << 20);
    Busy busy(shown.New(diary, {"busy", 7, 5000}), Arg(77));
    HAppTask hBusy = busy.hTask, hIdle = shown.New(diary, {"idle"});
    shown.Park(hIdle);
    std::optional<Clock> clock(1000);
    HAppTimer hTimer = AppTaskSetTimer(hBusy, 50, nullptr, nullptr);
    clock->Pass(70);
    Send(hBusy, 1);
    Send(hBusy, 2);
    const auto task = [](HAppTask hTask, const char *szName) {
        const int nThreadId = hTask->nThreadId;
        return Text("Task(%p) Name(%s) Thread(%d %p) ", Ptr(hTask), szName, nThreadId,
                    reinterpret_cast<void *>(static_cast<intptr_t>(nThreadId)));
    };
    const std::string rule = "============================================\n";
    const std::string head = "\n" + rule + Text("TaskMgr(%p) ", Ptr(shown.Get()));
    const std::string tables =
        Text("Tasks(2/8) MemPool(%p) Timeout(70000ms)\n--- 1 ACTIVE TASKS "
             "------------------------\n",
             Ptr(shown.Pool())) +
        task(hBusy, "busy") +
        Text("PROCESSING Timeout(5000ms) EventListSize(2/ MAX 7/ TOP 2) Timer(1) LastHandler(%p "
             "Type:1 Arg:%p Context:%p)\n",
             Ptr(Diary::Handle), Arg(77), Ptr(&busy.diary));
    const std::string timer =
        Text("Task(%p) Timer(%p)  Handler((nil)) Timeout(50ms) RemainTime(-20ms)\n", Ptr(hBusy),
             Ptr(hTimer));
    const std::string idle = "--- 1 INACTIVE TASKS ------------------------\n" +
                             task(hIdle, "idle") +
                             "IDLE Timeout(0ms) EventListSize(0/ MAX 100/ TOP 1)\n";
    Pieces pieces = Report(shown.Get());
    EXPECT_EQ(pieces.front(), head + Text("MemPool(%p)", Ptr(shown.Pool())));
    EXPECT_EQ(pieces.back(), "\n\n" + head + tables + timer + idle);
    for (HAppTask hTask : {hBusy, hIdle}) {
        const std::string piece =
            "\n" + task(hTask, hTask->szTaskName) + Text("MemPool(%p)", Ptr(hTask->hMemPool));
        EXPECT_EQ(std::count(pieces.begin(), pieces.end(), piece), 1) << piece;
    }
    clock.reset();
    { // nobody looks at the timers without their lock,
        app::LockGuard guard(hBusy);
        EXPECT_EQ(Report(shown.Get()).back(), "\n\n" + head + tables + idle);
    } // nor walks the lists
    app::LockGuard guard(shown.Get());
    pieces = Report(shown.Get());
    ASSERT_EQ(pieces.size(), 2u);
    EXPECT_EQ(pieces[1], Text("\nTaskMgr(%p) is busy, no details\n", Ptr(shown.Get())));
}

// A slow callback holds up nobody: not those who send to the task whose timers it shows, nor who
// cancel them, be it those where it goes on; nor those who send to a task that is going idle and
// waits for the manager's lock.
TEST_F(TaskTest, AReportsCallbackRunsWithoutATasksLock)
{
    Busy busy(manager.New(diary));
    HAppTask hTask = manager.New(own);
    std::vector<HAppTimer> timers;
    for (int i = 0; i < 100; ++i)
        timers.push_back(AppTaskSetTimer(busy.hTask, 99999, nullptr, nullptr));
    Pieces pieces;
    Diary callback([&](const Diary::Call &call) {
        EXPECT_CODE(APP_OK, AppTaskSendEvent(busy.hTask, nullptr, nullptr, nullptr));
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: its own line\n", "AppTask"); // printed at once
        pieces.push_back(static_cast<const char *>(call.pvArg));
        EXPECT_EQ(log.Count("[ERROR] AppTask: its own line\n"), pieces.size());
        if (pieces.size() == 1) {
            EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
            own.Await("stop");
            AppDelay(20); // until it has come to the lock
            EXPECT_NE(APP_OK, AppTaskSendEvent(hTask, nullptr, nullptr, nullptr));
        } else if (strstr(pieces.back().c_str(), " Timer(0x")) {
            std::for_each(timers.begin() + 30, timers.end(), AppTaskCancelTimer);
        }
    });
    AppTaskMgrShow(
        manager.Get(),
        [](const char *szText, void *pv) {
            Diary::Handle(nullptr, 0, const_cast<char *>(szText), pv);
        },
        &callback);
    const std::string report = std::accumulate(pieces.begin(), pieces.end(), std::string());
    for (size_t i : {0u, 29u, 40u})
        EXPECT_EQ(report.find(Text(" Timer(%p)", Ptr(timers[i]))) != std::string::npos, i < 30);
    EXPECT_NE(report.find(" IDLE Timeout(0ms)"), std::string::npos);
    busy.Go();
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
}

// ---- Faults -----------------------------------------------------------------------------------

// A reused task whose queue still holds more than the new owner allows is ended, not handed out.
TEST_F(TaskTest, RefusedRefresh)
{
    Door door;
    Diary stopper([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_USER)
            door.Pass();
    });
    HAppTask hTask = manager.New(own);
    manager.Park(hTask);
    for (int i = 0; i < 3; ++i) // one keeps the thread, two stay in the queue
        SendUnchecked(hTask, {APP_TASK_EVENT_USER, nullptr, Diary::Handle, &stopper});
    door.AwaitVisitor();
    std::thread opener([&] { // the caller waits until the thread has ended
        EXPECT_TRUE(test::WaitUntil([&] { return app::MustEnd(hTask); }));
        door.Open();
    });
    HAppTask hNew = hTask;
    EXPECT_CODE(APP_INVALID_ARG,
                AppTaskMgrNewTask(manager.Get(), "t", 1, 0, 0, 0, Diary::Handle, &diary, &hNew));
    opener.join();
    EXPECT_EQ(hNew, nullptr);
    EXPECT_EQ(stopper.Text(), "user 0, drop 0, drop 0");
    EXPECT_EQ(own.Text() + diary.Text(), "stop");
    EXPECT_EQ(manager.Get()->hTaskList->dwCurSize + manager.Idle(), 0u);
}

} // namespace
