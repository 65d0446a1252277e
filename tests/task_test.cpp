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
using test::StateOf;
using test::Text;

namespace
{

std::string ThreadName(int32_t nThreadId)
{
    std::string name;
    std::getline(std::ifstream("/proc/self/task/" + std::to_string(nThreadId) + "/comm"), name);
    return name;
}

void Send(HAppTask hTask, uintptr_t nArg)
{
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(nArg), nullptr, nullptr));
}

// Whatever the task's state.
void SendUnchecked(HAppTask hTask, const TAppTaskEvent &event)
{
    bool bWake = false;
    {
        app::LockGuard guard(hTask->hEventQueue);
        EXPECT_CODE(APP_OK, _AppTaskSendEvent(hTask, &event, 0, 1, &bWake));
    }
    if (bWake)
        app::QueueWake(hTask->hEventQueue);
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

// A sender that cannot have the queue's lock neither looks at the state nor queues.
TEST_F(TaskTest, ReachTheirHandlersInOrder)
{
    HAppTask hTask = manager.New(diary);
    const auto start = std::chrono::steady_clock::now();
    {
        app::LockGuard guard(hTask->hEventQueue);
        EXPECT_CODE(APP_TIMEOUT, AppTaskSendEvent(hTask, Arg(9), nullptr, nullptr));
        EXPECT_GE(test::ElapsedMs(start), 990);
    }
    AppTaskSetTimer(hTask, 1000, Diary::Handle, &own); // long after the events
    for (uintptr_t i = 1; i <= 3; ++i)
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(i), nullptr, &own));
    EXPECT_CODE(APP_OK, AppTaskAssignEvent(hTask, Arg(4), Diary::Handle, &own));
    own.Await("user 4, timeout");
    EXPECT_GE(test::ElapsedMs(start), 990 + 980); // ticks of 10 ms
    EXPECT_EQ(diary.Text(), "user 1, user 2, user 3");
    for (const Diary::Call &call : own.Calls())
        EXPECT_EQ(call.nThreadId, diary.Calls()[0].nThreadId);
    EXPECT_EQ(ThreadName(own.Calls()[0].nThreadId), "task");
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
    EXPECT_EQ(AppTaskTimerGetRemainTime(hTimer), 0u);
}

TEST_F(TaskTest, InternalOperationsRefuseWhatIsNotTheirs)
{
    HAppTask hTask = manager.New(diary);
    const auto refuse = [hTask](uint32_t dwState, uint32_t dwType) {
        EXPECT_TRUE(test::WaitUntil([&] { return StateOf(hTask) == dwState; }));
        for (auto pfnHandler : {_AppTaskGoForIdleHandler, _AppTaskGoForTerminateHandler})
            EXPECT_CODE(APP_INVALID_STATE, pfnHandler(hTask, dwType, nullptr, nullptr));
    };
    refuse(APP_TASK_STATE_RUNNING, APP_TASK_EVENT_STOP);
    manager.Park(hTask);
    refuse(APP_TASK_STATE_IDLE, APP_TASK_EVENT_DROP);
    _AppTaskRefreshHandler(hTask, 0, nullptr, nullptr); // nothing revives it but a new owner
    EXPECT_EQ(StateOf(hTask), APP_TASK_STATE_IDLE);
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
// one takes every lock of the manager at each line.
TEST_F(TaskTest, LinesArePrintedAfterTheLocks)
{
    g_byAppLogLevel[0] = APP_LOG_DEBUG;
    Diary logs([&](const Diary::Call &call) { // a handler's line follows those before its call
        const std::string line =
            Text("[DEBUG] _AppTaskGoForIdleHandler: task %p go on state IDLE\n", Ptr(call.hTask));
        EXPECT_EQ(log.Count(line), call.dwType == APP_TASK_EVENT_STOP ? 1u : 0u);
    });
    Manager full(3, 0, 1 << 20);
    Busy busy(full.New(logs, {"busy", 1}));
    HAppTask hTask = busy.hTask, hParked = full.New(logs);
    full.Park(hParked);
    std::atomic<int> nLines{0};
    log.OnLine([&](const std::string &line) {
        ++nLines;
        for (HAppLock hLock : {full.Get()->hLock, hTask->hLock, hTask->hEventQueue->hLock,
                               hParked->hLock, full.Pool()->hLock})
            if (AppLockTakeByTime(hLock, 10000) == APP_OK)
                AppLockGive(hLock);
            else
                ADD_FAILURE() << line;
    });
    Send(hTask, 1);
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskSendEvent(hTask, Arg(2), nullptr, nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppTaskSendEvent(hParked, Arg(3), nullptr, nullptr));
    EXPECT_EQ(AppTaskSetTimer(hParked, 1, nullptr, nullptr), nullptr);
    EXPECT_EQ(full.New(logs), hParked);
    full.Exhaust();
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskTerminate(hTask));
    EXPECT_EQ(AppTaskSetTimer(hTask, 1, nullptr, nullptr), nullptr);
    busy.Go();
    logs.Await("stop, user 1");
    EXPECT_GT(nLines.load(), 20);
    log.OnLine(nullptr);
}

// This thread's tick: a clock that cannot be read counts as tick ~errno.
struct Clock {
    explicit Clock(uint32_t dwNow) : dwTick(dwNow) { Pass(0); }
    void Pass(uint32_t dwMs)
    {
        dwTick += (dwMs + 9) / 10;
        dwTick += dwTick == 0xFFFFFFFF; // for which there is no errno
        fail.reset();
        fail.emplace(Fn::clock_gettime, 1, static_cast<int>(~dwTick), 1u << 30);
    }
    uint32_t dwTick;
    std::optional<fault::Fail> fail;
};

// The timers of a task whose thread is busy, run by the test's thread at the test's time, beside a
// model: a list, in the order of setting, of which the first that is due expires.  Handlers do to
// the timers whatever the test may do.
class TimerModel
{
public:
    explicit TimerModel(unsigned nSeed) : m_random(nSeed), m_clock(0xFFFFFFFF - nSeed * 20) {}
    void Step()
    {
        m_nActs = 6; // for the handlers
        const unsigned n = Pick(100);
        if (n == 0) // elapsed milliseconds wrap
            m_clock.Pass(0xFFFFFFF0 - Pick(100) * 10);
        if (n < 25)
            Run();
        else
            Act();
    }
    // In a handler the task is asked to end: no further timer expires, and what is left is told.
    void End()
    {
        m_nActs = 0;
        uint32_t dwWait = Run();
        // A look that came too early costs a look and nothing else.
        for (int i = 0; i < 4 && dwWait != Wait(); ++i) {
            m_clock.Pass(dwWait);
            dwWait = Run();
        }
        EXPECT_EQ(dwWait, Wait());
        Set(0);
        Set(0);
        m_bEnds = true;
        EXPECT_EQ(Run(), 1u);
        m_busy.Go();
        m_manager.Destroy();
        EXPECT_TRUE(m_running.empty());
    }

private:
    struct Timed {
        HAppTimer hTimer;
        uint32_t dwStart, dwTimeout, dwRun;
    };
    unsigned Pick(size_t nBelow) { return m_random() % nBelow; }
    uint32_t Elapsed(uint32_t dwStart) const { return (m_clock.dwTick - dwStart) * 10; }
    uint32_t Left(const Timed &timed) const
    {
        return timed.dwTimeout - std::min(timed.dwTimeout, Elapsed(timed.dwStart));
    }
    std::vector<Timed>::iterator Find(HAppTimer hTimer)
    {
        return std::find_if(m_running.begin(), m_running.end(),
                            [=](const Timed &timed) { return timed.hTimer == hTimer; });
    }
    // The one that expires next; null when none is due, or the run has to stop in front of it.
    HAppTimer Next() const
    {
        for (const Timed &timed : m_running)
            if (Left(timed) == 0) {
                const bool bAnew = timed.dwRun == m_dwRun && Elapsed(m_dwRunStart) >= 50;
                return bAnew || app::MustEnd(m_busy.hTask) ? nullptr : timed.hTimer;
            }
        return nullptr;
    }
    bool AnyIsDue() const
    {
        return std::any_of(m_running.begin(), m_running.end(),
                           [this](const Timed &timed) { return Left(timed) == 0; });
    }
    uint32_t Wait() const
    {
        uint32_t dwTicks = 500;
        for (const Timed &timed : m_running)
            dwTicks = std::min(dwTicks, Left(timed) / 10 + (Left(timed) % 10 != 0));
        return std::max(dwTicks * 10, 1u);
    }

    static uint32_t Handle(HAppTask hTask, uint32_t dwType, void *pvTimer, void *pvModel)
    {
        static_cast<TimerModel *>(pvModel)->React(hTask, dwType, static_cast<HAppTimer>(pvTimer));
        return 0;
    }
    void React(HAppTask hTask, uint32_t dwType, HAppTimer hTimer)
    {
        const bool bRest = app::MustEnd(hTask); // is told, not recorded
        uint32_t dwLast = 0;
        void *pvArg = nullptr, *pvContext = nullptr;
        PFAppTaskHandler pfnLast = nullptr;
        EXPECT_CODE(APP_OK, AppTaskGetLastEvent(hTask, &dwLast, &pvArg, &pfnLast, &pvContext));
        EXPECT_NE(bRest,
                  dwLast == dwType && pvArg == hTimer && pfnLast == Handle && pvContext == this);
        const bool bExpires = dwType == APP_TASK_EVENT_TIMEOUT;
        HAppTimer hDue = bRest ? m_running[0].hTimer : bExpires ? Next() : m_hCancelled;
        EXPECT_EQ(hTimer, hDue);
        if (!bExpires)
            m_hCancelled = nullptr;
        m_running.erase(Find(hTimer));
        if (m_bEnds)
            app::Request(hTask, APP_TASK_REQUEST_END);
        for (unsigned n = Pick(4); n > 0 && m_nActs > 0; --n) {
            --m_nActs;
            Act();
        }
    }

    void Act()
    {
        static const uint32_t adwTimeout[] = {0,    0,    0,          10,         20,        50,
                                              1000, 4999, 0xFFFFFC18, 0xFFFFFFFE, 0xFFFFFFFF};
        const unsigned n = Pick(8);
        if (n < 3 || m_known.empty())
            return Set(adwTimeout[Pick(std::size(adwTimeout))]);
        if (n == 3)
            return m_clock.Pass(Pick(7) * 10);
        HAppTimer hTimer = m_known[Pick(m_known.size())];
        const auto at = Find(hTimer);
        const bool bRuns = at != m_running.end();
        if (n == 4) {
            EXPECT_CODE(bRuns ? APP_OK : APP_NOT_FOUND, AppTaskResetTimer(hTimer));
            if (bRuns)
                at->dwStart = m_clock.dwTick;
        } else if (n == 5 && bRuns) {
            EXPECT_EQ(AppTaskTimerGetRemainTime(hTimer), Left(*at));
        } else {
            m_hCancelled = bRuns ? hTimer : nullptr;
            AppTaskCancelTimer(hTimer);
            EXPECT_EQ(m_hCancelled, nullptr);
        }
    }
    void Set(uint32_t dwTimeout)
    {
        fault::Fail fail(Fn::malloc, m_nActs > 0 && Pick(4) == 0);
        HAppTimer hTimer = AppTaskSetTimer(m_busy.hTask, dwTimeout, Handle, this);
        EXPECT_EQ(hTimer == nullptr, fail.Hits() > 0);
        if (!hTimer)
            return;
        EXPECT_TRUE(Find(hTimer) == m_running.end());
        m_known.push_back(hTimer);
        m_running.push_back({hTimer, m_clock.dwTick, dwTimeout, m_dwRun});
    }
    uint32_t Run()
    {
        ++m_dwRun;
        m_dwRunStart = m_clock.dwTick;
        const TAppTimerMgr *ptTimerMgr = m_busy.hTask->ptTimerMgr;
        EXPECT_TRUE(app::TimersMayBeDue(ptTimerMgr) || !AnyIsDue());
        app::LockGuard guard(m_busy.hTask);
        const uint32_t dwWait = _AppTimerMgrRun(m_busy.hTask->ptTimerMgr);
        EXPECT_EQ(Next(), nullptr);
        EXPECT_EQ(app::NextTimeoutMs(ptTimerMgr, 9), std::min(dwWait, 9u));
        EXPECT_EQ(app::TimersMayBeDue(ptTimerMgr), AnyIsDue());
        ++m_dwRun; // odd in a run
        EXPECT_TRUE(dwWait >= 1 && dwWait <= Wait()) << dwWait;
        return dwWait;
    }
    std::minstd_rand m_random;
    std::vector<Timed> m_running; // in the order of setting
    std::vector<HAppTimer> m_known;
    HAppTimer m_hCancelled = nullptr;
    bool m_bEnds = false;
    uint32_t m_dwRun = 0, m_dwRunStart = 0;
    unsigned m_nActs = 0;
    Manager m_manager;
    Busy m_busy{m_manager.New(nullptr, nullptr)};
    Clock m_clock;
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
        model.End();
        ASSERT_FALSE(HasFailure());
    }
}

// A task that sleeps beyond a timer's time-out is woken to look at it; nothing else about its queue
// changes.  One that is busy looks by itself.
TEST_F(TaskTest, ATimerSetFromOutsideEndsTheWait)
{
    Busy busy(manager.New(diary));
    EXPECT_NE(AppTaskSetTimer(busy.hTask, 1, nullptr, nullptr), nullptr);
    EXPECT_FALSE(busy.hTask->hEventQueue->bInterrupt);
    HAppTask hTask = manager.New(own);
    const auto sleepsFor = [&](uint32_t dwMs) { return app::Peek(hTask->dwWait) == dwMs; };
    EXPECT_TRUE(test::WaitUntil([&] { return sleepsFor(5000); }));
    EXPECT_NE(AppTaskSetTimer(hTask, 7000, nullptr, nullptr), nullptr);
    EXPECT_TRUE(sleepsFor(5000));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_NE(AppTaskSetTimer(hTask, 1, nullptr, nullptr), nullptr);
    own.Await("timeout");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    EXPECT_EQ(_AppQueueGetTopSize(hTask->hEventQueue), 0u);
}

using Show = std::function<void(const std::string &)>;

void Report(HAppTaskMgr hTaskMgr, Show show)
{
    const auto pass = [](const char *sz, void *pvShow) { (*static_cast<Show *>(pvShow))(sz); };
    AppTaskMgrShow(hTaskMgr, pass, &show);
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
    const auto task = [](HAppTask hTask) {
        const int nThreadId = hTask->nThreadId;
        return Text("Task(%p) Name(%s) Thread(%d %p) ", Ptr(hTask), hTask->szTaskName, nThreadId,
                    reinterpret_cast<void *>(static_cast<intptr_t>(nThreadId)));
    };
    const std::string head =
        "\n============================================\n" + Text("TaskMgr(%p) ", Ptr(shown.Get()));
    const std::string tables =
        Text("Tasks(2/8) MemPool(%p) Timeout(70000ms)\n--- 1 ACTIVE TASKS "
             "------------------------\n",
             Ptr(shown.Pool())) +
        task(hBusy) +
        Text("PROCESSING Timeout(5000ms) EventListSize(2/ MAX 7/ TOP 2) Timer(1) LastHandler(%p "
             "Type:1 Arg:%p Context:%p)\n",
             Ptr(Diary::Handle), Arg(77), Ptr(&busy.diary));
    const std::string timer =
        Text("Task(%p) Timer(%p)  Handler(%p) Timeout(50ms) RemainTime(-20ms)\n", Ptr(hBusy),
             Ptr(hTimer), nullptr);
    const std::string idle = "--- 1 INACTIVE TASKS ------------------------\n" + task(hIdle) +
                             "IDLE Timeout(0ms) EventListSize(0/ MAX 100/ TOP 1)\n";
    std::vector<std::string> pieces;
    const Show add = [&](const std::string &piece) { pieces.push_back(piece); };
    Report(shown.Get(), add);
    EXPECT_EQ(pieces.front(), head + Text("MemPool(%p)", Ptr(shown.Pool())));
    EXPECT_EQ(pieces.back(), "\n\n" + head + tables + timer + idle);
    for (HAppTask hTask : {hBusy, hIdle}) {
        const std::string piece = "\n" + task(hTask) + Text("MemPool(%p)", Ptr(hTask->hMemPool));
        EXPECT_EQ(std::count(pieces.begin(), pieces.end(), piece), 1) << piece;
    }
    clock.reset();
    { // nobody looks at the timers without their lock,
        app::LockGuard guard(hBusy);
        Report(shown.Get(), add);
        EXPECT_EQ(pieces.back(), "\n\n" + head + tables + idle);
    } // nor walks the lists
    app::LockGuard guard(shown.Get());
    const size_t nBefore = pieces.size();
    Report(shown.Get(), add);
    EXPECT_EQ(pieces.size(), nBefore + 2);
    EXPECT_EQ(pieces.back(), Text("\nTaskMgr(%p) is busy, no details\n", Ptr(shown.Get())));
}

// A slow callback holds up nobody: not those who send to the task whose timers it shows, nor who
// cancel them, be it those where it goes on; nor those who send to a task that is going idle and
// waits for the manager's lock.
TEST_F(TaskTest, AReportsCallbackRunsWithoutATasksLock)
{
    Busy busy(manager.New(diary));
    HAppTask hTask = manager.New(own);
    HAppTimer ahTimer[50];
    for (HAppTimer &hTimer : ahTimer)
        hTimer = AppTaskSetTimer(busy.hTask, 99999, nullptr, nullptr);
    std::string report;
    Report(manager.Get(), [&](const std::string &piece) {
        Send(busy.hTask, 1);
        log.Clear();
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: its own line\n", "AppTask");
        EXPECT_EQ(log.Count("[ERROR] AppTask: its own line\n"), 1u); // printed at once
        if (report.empty()) {
            EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
            own.Await("stop");
            AppDelay(20); // until it has come to the lock
            EXPECT_NE(APP_OK, AppTaskSendEvent(hTask, nullptr, nullptr, nullptr));
        } else if (piece.find(" Timer(0x") != std::string::npos) {
            std::for_each(ahTimer + 30, ahTimer + 50, AppTaskCancelTimer);
        }
        report += piece;
    });
    for (size_t i : {0u, 29u, 40u})
        EXPECT_EQ(report.find(Text(" Timer(%p)", Ptr(ahTimer[i]))) != std::string::npos, i < 30);
    EXPECT_NE(report.find(" IDLE Timeout(0ms)"), std::string::npos);
}

// A reused task whose queue still holds more than the new owner allows is ended, not handed out.
TEST_F(TaskTest, RefusedRefresh)
{
    Door door;
    Diary stopper([&](const Diary::Call &) { door.Pass(); });
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
    EXPECT_EQ(stopper.Text(), "user 0, drop 0, drop 0");
    EXPECT_EQ(own.Text() + diary.Text(), "stop");
    EXPECT_EQ(manager.Get()->hTaskList->dwCurSize + manager.Idle(), 0u);
}

} // namespace
