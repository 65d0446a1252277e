// SPDX-License-Identifier: MIT
#include <algorithm>
#include <fstream>

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
using test::Wanted;

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

void ExpectLast(HAppTask hTask, uint32_t dwType, const void *pvArg, const void *pvContext)
{
    uint32_t dwLastType = 99;
    void *pvLastArg = nullptr, *pvLastContext = nullptr;
    PFAppTaskHandler pfnLast = nullptr;
    EXPECT_CODE(APP_OK,
                AppTaskGetLastEvent(hTask, &dwLastType, &pvLastArg, &pfnLast, &pvLastContext));
    EXPECT_TRUE(dwLastType == dwType && pvLastArg == pvArg && pfnLast == Diary::Handle &&
                pvLastContext == pvContext);
}

// A task whose thread stands in a handler, so that its queue and timers stay as they are.
class Busy
{
public:
    Busy(Manager &manager, Diary &diary, Wanted wanted = {})
        : m_diary([this](const Diary::Call &) { m_door.Pass(); }), hTask(manager.New(diary, wanted))
    {
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, Diary::Handle, &m_diary));
        m_door.AwaitVisitor();
    }
    void Go() { m_door.Open(); }

private:
    Diary m_diary;
    Door m_door;

public:
    HAppTask hTask;
};

// What most tests need.  Whoever a task of the manager may still tell something outlives it.
// Without the task's lock, and whatever its state.
void SendUnchecked(HAppTask hTask, const TAppTaskEvent &event)
{
    bool bWake = false;
    EXPECT_CODE(APP_OK, _AppTaskSendEvent(hTask, &event, 0, 1, &bWake));
    if (bWake)
        app::QueueWake(hTask->hEventQueue);
}

class TaskTest : public testing::Test
{
protected:
    LogCapture log;
    Diary own, diary;
    Manager manager;
};
using TaskManager = TaskTest;
using TaskEvents = TaskTest;
using TaskTimers = TaskTest;
using TaskReport = TaskTest;
using TaskFaults = TaskTest;

// ---- Manager ----------------------------------------------------------------------------------

TEST_F(TaskManager, ReusesTheTaskThatWasParkedLast)
{
    Diary second, third;
    Manager two(2);
    HAppTask hFirst = two.New(diary, {"first"});
    HAppTask hSecond = two.New(second, {"second", 5, 0, 1000});
    HAppMemPool hPool = AppTaskGetMemPool(hSecond);
    EXPECT_EQ(AppMemPoolMalloc(hPool, 1000), nullptr);
    log.Clear();
    HAppTask hTooMany = hFirst;
    EXPECT_CODE(APP_NO_RESOURCE,
                AppTaskMgrNewTask(two.Get(), "a", 1, 0, 0, 0, nullptr, nullptr, &hTooMany));
    EXPECT_EQ(hTooMany, nullptr);
    __AppFreeTaskCB(nullptr, nullptr);
    log.ExpectLines({"[ERROR] AppTaskMgrNewTask: Task Max Num 2 reach: 104\n",
                     "[ERROR] __AppFreeTaskCB: NULL Task Found.\n"});
    two.Park(hFirst);
    two.Park(hSecond);
    const int32_t nThreadId = hSecond->nThreadId;
    EXPECT_EQ(two.New(third, {"a name longer than a thread's", 2, 0, 1}), hSecond);
    EXPECT_EQ(two.New(third, {nullptr}), hFirst);
    Send(hSecond, 7); // after the refresh
    third.Await("user 7");
    EXPECT_EQ(second.Text() + diary.Text(), "stopstop");
    EXPECT_EQ(third.Calls()[0].nThreadId, nThreadId);
    EXPECT_EQ(ThreadName(nThreadId), "a name longer t");
    EXPECT_EQ(AppTaskGetMemPool(hSecond), hPool);
    EXPECT_EQ(_AppQueueGetMaxSize(hSecond->hEventQueue), 2u);
    EXPECT_EQ(hFirst->szTaskName, nullptr);
}

TEST_F(TaskManager, SkipsAnIdleTaskThatHasChosenToEnd)
{
    Door door;
    HAppTask hEnding = nullptr;
    // The thread has decided to end, but has not come to carry it out.
    const std::function<void()> stall = [&] {
        if (StateOf(hEnding) == APP_TASK_STATE_TERMINATE)
            door.Pass();
    };
    Diary last([&](const Diary::Call &call) { test::LookOften(call.hTask, &stall); });
    Manager hasty(8, 10);
    HAppTask hParked = hasty.New(diary);
    hEnding = hasty.New(last);
    hasty.Park(hParked);
    hasty.Park(hEnding);
    door.AwaitVisitor();
    EXPECT_EQ(hEnding->hListNode, hasty.Get()->hIdleTaskList->ptTail);
    EXPECT_EQ(hasty.New(diary), hParked);
    EXPECT_NE(hasty.New(diary), hEnding);
    door.Open();
    EXPECT_TRUE(test::WaitUntil([&] { return hasty.Idle() == 0; }));
}

TEST_F(TaskManager, EndsIdleTasksWhenNobodyTakesThem)
{
    g_byAppLogLevel[0] = APP_LOG_DEBUG;
    Diary ends([](const Diary::Call &call) { test::LookOften(call.hTask); });
    Manager hasty(4, 10);
    for (int i = 0; i < 4; ++i)
        hasty.New(ends, {"t", 10, 1}); // first wait: 300 ms
    ends.Await("stop, stop, stop, stop");
    const std::string ended = "[DEBUG] _AppTaskGoForTerminateHandler: go for uninit\n";
    EXPECT_TRUE(test::WaitUntil([&] { return log.Count(ended) == 4; }));
    EXPECT_EQ(hasty.Idle(), 0u);
}

TEST_F(TaskManager, NamesItsStates)
{
    const char *const names[] = {"INIT",      "RUNNING", "PROCESSING", "IDLE",
                                 "TERMINATE", "UNINIT",  "UNKNOWN"};
    for (uint32_t dwState = 0; dwState < 7; ++dwState)
        EXPECT_STREQ(_AppGetTaskStateString(dwState), names[dwState]);
}

// ---- Events -----------------------------------------------------------------------------------

TEST_F(TaskEvents, ReachTheirHandlersInOrder)
{
    HAppTask hTask = manager.New(diary);
    for (uintptr_t i = 1; i <= 3; ++i)
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(i), nullptr, &own));
    EXPECT_CODE(APP_OK, AppTaskAssignEvent(hTask, Arg(4), Diary::Handle, &own));
    own.Await("user 4");
    EXPECT_EQ(diary.Text(), "user 1, user 2, user 3");
    EXPECT_EQ(own.Calls()[0].nThreadId, diary.Calls()[0].nThreadId);
    EXPECT_EQ(ThreadName(own.Calls()[0].nThreadId), "task");
    ExpectLast(hTask, APP_TASK_EVENT_USER, Arg(4), &own);
}

TEST_F(TaskEvents, ATerminatedTaskTellsAllAndForgets)
{
    Busy busy(manager, diary);
    HAppTask hTask = busy.hTask;
    HAppTimer hTimer = AppTaskSetTimer(hTask, 100000, nullptr, nullptr);
    AppTaskSetTimer(hTask, 100000, Diary::Handle, &own);
    Send(hTask, 1);
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(2), Diary::Handle, &own));
    EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
    EXPECT_CODE(APP_OK, AppTaskTerminate(hTask)); // met by the drain of the first
    Send(hTask, 3);
    busy.Go();
    diary.Await("cancel, drop 1, drop 3, stop");
    EXPECT_EQ(own.Text(), "cancel, drop 2");
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));

    log.Clear();
    EXPECT_CODE(APP_INVALID_ARG, AppTaskTerminate(hTask));
    EXPECT_EQ(AppTaskSetTimer(hTask, 1, nullptr, nullptr), nullptr);
    log.ExpectLines(
        {Text("[ERROR] AppTaskTerminate: Invalid Task State. Task %p state IDLE\n", Ptr(hTask)),
         Text("[ERROR] AppTaskSetTimer: Invalid state IDLE of task %p\n", Ptr(hTask))});
    AppTaskCancelTimer(hTimer);
    EXPECT_EQ(AppTaskTimerGetRemainTime(hTimer), 0u);
    EXPECT_CODE(APP_INVALID_STATE,
                _AppTaskGoForIdleHandler(hTask, APP_TASK_EVENT_DROP, nullptr, nullptr));
}

// Everything that a handler may do to its own task and its manager.
TEST_F(TaskEvents, HandlersMayDoAnything)
{
    g_byAppLogLevel[0] = APP_LOG_ALWAYS;
    std::vector<uint32_t> codes;
    HAppTaskMgr hTaskMgr = nullptr;
    HAppTimer hVictim = nullptr;
    Diary busy([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_TIMER_CANCEL) { // sets whatever it is told anew
            codes.push_back(AppTaskSetTimer(call.hTask, 0, nullptr, nullptr) != nullptr);
        } else if (call.pvArg == Arg(1)) {
            codes.push_back(AppTaskSendEvent(call.hTask, Arg(2), nullptr, nullptr));
            codes.push_back(AppTaskSendEvent(call.hTask, Arg(3), nullptr, nullptr)); // full
            codes.push_back(AppTaskAssignEvent(call.hTask, Arg(4), nullptr, nullptr));
            HAppTask hOther = nullptr;
            codes.push_back(
                AppTaskMgrNewTask(hTaskMgr, "other", 9, 65536, 0, 0, Diary::Handle, &own, &hOther));
            codes.push_back(AppTaskSendEvent(hOther, Arg(5), nullptr, nullptr));
            hVictim = AppTaskSetTimer(hOther, 100000, Diary::Handle, &own);
            AppTaskCancelTimer(hVictim);
            AppTaskSetTimer(call.hTask, 100000, nullptr, nullptr);
            codes.push_back(AppTaskTerminate(call.hTask));
            AppTaskMgrShow(hTaskMgr, nullptr, nullptr);
        } else { // the notices: nothing is admitted, and a task is handed out, but not this one
            codes.push_back(AppTaskSendEvent(call.hTask, Arg(6), nullptr, nullptr));
        }
    });
    Manager all;
    hTaskMgr = all.Get();
    HAppTask hTask = all.New(busy, {"task", 1});
    Send(hTask, 1);
    EXPECT_TRUE(test::WaitUntil([&] { return all.Idle() == 1; }));
    EXPECT_EQ(busy.Text(), "user 1, cancel, drop 2, drop 4, stop");
    EXPECT_EQ(codes, (std::vector<uint32_t>{APP_OK, APP_NO_RESOURCE, APP_OK, APP_OK, APP_OK, APP_OK,
                                            0, APP_INVALID_ARG, APP_INVALID_ARG, APP_INVALID_ARG}));
    EXPECT_TRUE(test::WaitUntil([&] { return own.Calls().size() == 2; }));
    EXPECT_EQ(hTask->ptTimerMgr->hTimerList->dwCurSize, 0u);
}

TEST_F(TaskEvents, InternalRequestsRefuseWhatIsNotTheirs)
{
    HAppTask hTask = manager.New(diary);
    EXPECT_TRUE(test::WaitUntil([&] { return StateOf(hTask) == APP_TASK_STATE_RUNNING; }));
    EXPECT_CODE(APP_INVALID_STATE,
                _AppTaskGoForIdleHandler(hTask, APP_TASK_EVENT_STOP, nullptr, nullptr));
    EXPECT_CODE(APP_INVALID_STATE,
                _AppTaskGoForTerminateHandler(hTask, APP_TASK_EVENT_STOP, nullptr, nullptr));
    _AppTaskRefreshHandler(nullptr, 0, nullptr, nullptr);
    manager.Park(hTask); // nothing revives it but a new owner
    _AppTaskRefreshHandler(hTask, 0, nullptr, nullptr);
    EXPECT_EQ(StateOf(hTask), APP_TASK_STATE_IDLE);
    _AppTaskDropEventCB(nullptr, hTask);
    _AppTaskDropEventCB(&diary, nullptr);
    _AppTaskDestroy(nullptr);
    EXPECT_EQ(AppTask(nullptr), nullptr);
    EXPECT_EQ(diary.Text(), "stop");
}

// The wait has expired, and an event comes before the thread looks at the time-out.
TEST_F(TaskEvents, AnEventBeatsTheIdleTimeOut)
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

// A console may be slow, and may call the library: no line is printed while a lock is held.  This one
// takes every lock of the manager at each line, allocates from the full pool and sends to the full queue.
TEST_F(TaskEvents, LinesArePrintedAfterTheLocks)
{
    test::Watchdog watchdog;
    g_byAppLogLevel[0] = APP_LOG_DEBUG;
    Diary logs([](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_STOP)
            AppLog(0, APP_LOG_DEBUG, "[DEBUG] %s: its own line\n", "AppTask");
    });
    Manager full(3, 0, 1 << 20);
    Busy busy(full, logs, {"busy", 1});
    HAppTask hParked = full.New(logs);
    full.Park(hParked);
    const std::vector<std::string> lines =
        log.Lines(); // a handler's line follows those before its call
    const auto at = [&](const std::string &line) {
        return std::find(lines.begin(), lines.end(), line);
    };
    EXPECT_LT(
        at(Text("[DEBUG] _AppTaskGoForIdleHandler: task %p go on state IDLE\n", Ptr(hParked))),
        at("[DEBUG] AppTask: its own line\n"));
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
        if (AppQueueGetSize(busy.hTask->hEventQueue) != 0) { // full
            EXPECT_CODE(APP_NO_RESOURCE, AppTaskSendEvent(busy.hTask, Arg(9), nullptr, nullptr));
        }
    });
    Send(busy.hTask, 1);
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskSendEvent(busy.hTask, Arg(2), nullptr, nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppTaskSendEvent(hParked, Arg(3), nullptr, nullptr));
    EXPECT_EQ(AppTaskSetTimer(hParked, 1, nullptr, nullptr), nullptr);
    _AppTaskGoForIdleHandler(hParked, APP_TASK_EVENT_DROP, nullptr, nullptr);
    _AppTaskGoForTerminateHandler(busy.hTask, APP_TASK_EVENT_DROP, nullptr, nullptr);
    EXPECT_EQ(full.New(logs), hParked);
    full.New(logs, {std::string(300, 'n').c_str()}); // a long line
    for (uint32_t dwSize = 1024; dwSize != 0; dwSize /= 2)
        while (AppMemPoolMalloc(full.Pool(), dwSize)) {
        }
    HAppTask hNone = nullptr;
    EXPECT_CODE(APP_NO_RESOURCE,
                AppTaskMgrNewTask(full.Get(), "x", 1, 0, 0, 0, nullptr, nullptr, &hNone));
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskAssignEvent(busy.hTask, Arg(4), nullptr, nullptr));
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskTerminate(busy.hTask));
    EXPECT_EQ(AppTaskSetTimer(busy.hTask, 1, nullptr, nullptr), nullptr);
    EXPECT_GE(log.Count("[ERROR] _AppTaskSendEvent: AppMemPoolMalloc failed\n"), 2u);
    busy.Go();
    logs.Await("stop, user 1");
    EXPECT_GT(nLines.load(), 20);
    log.OnLine(nullptr);
}

// A sender that cannot have the task's lock neither looks at the state nor queues.
TEST_F(TaskEvents, ASendGivesUpAfterASecond)
{
    HAppTask hTask = manager.New(diary);
    {
        app::LockGuard guard(hTask);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_CODE(APP_TIMEOUT, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
        EXPECT_GE(test::ElapsedMs(start), 990);
    }
    Send(hTask, 2);
    diary.Await("user 2");
}

// ---- Timers -----------------------------------------------------------------------------------

TEST_F(TaskTimers, ExpireInTheTasksThread)
{
    HAppTask hTask = manager.New(diary);
    const auto start = std::chrono::steady_clock::now();
    HAppTimer hTimer = AppTaskSetTimer(hTask, 100, Diary::Handle, &own);
    Send(hTask, 1); // looks at its timers
    own.Await("timeout");
    EXPECT_GE(test::ElapsedMs(start), 80); // ticks of 10 ms
    EXPECT_EQ(own.Calls()[0].nThreadId, hTask->nThreadId);
    ExpectLast(hTask, APP_TASK_EVENT_TIMEOUT, hTimer, &own);
    EXPECT_CODE(APP_NOT_FOUND, AppTaskResetTimer(hTimer));

    // The record serves again; without a handler the task's is told, with the task's context.
    EXPECT_TRUE(test::WaitUntil(
        [&] { return app::PeekCounter(hTask->ptTimerMgr->hIdleTimerList->dwCurSize) == 1; }));
    EXPECT_EQ(AppTaskSetTimer(hTask, 0, nullptr, &own), hTimer);
    Send(hTask, 2);
    diary.Await("user 1, user 2, timeout");
    EXPECT_EQ(own.Text(), "timeout");
}

TEST_F(TaskTimers, CancelResetAndRemainingTime)
{
    Busy busy(manager, diary);
    HAppTimer hLong = AppTaskSetTimer(busy.hTask, 1000, Diary::Handle, &own);
    HAppTimer hShort = AppTaskSetTimer(busy.hTask, 30, nullptr, nullptr);
    EXPECT_LE(AppTaskTimerGetRemainTime(hLong), 1000u);
    EXPECT_TRUE(test::WaitUntil([&] { return AppTaskTimerGetRemainTime(hShort) == 0; }));
    EXPECT_LE(AppTaskTimerGetRemainTime(hLong), 970u);
    EXPECT_TRUE(test::WaitUntil([&] { // not told meanwhile: the thread is busy
        return AppTaskResetTimer(hShort) == APP_OK && AppTaskTimerGetRemainTime(hShort) > 0;
    }));
    AppTaskCancelTimer(hLong);
    AppTaskCancelTimer(hLong);
    EXPECT_EQ(own.Calls()[0].nThreadId, _AppThreadGetTID());
    EXPECT_CODE(APP_NOT_FOUND, AppTaskResetTimer(hLong));
    busy.Go();
    diary.Await("timeout");
    EXPECT_EQ(own.Text(), "cancel");
    TAppTimerMgr lonely = {};
    TAppTimer noTask = {};
    noTask.ptTimerMgr = &lonely;
    log.Clear();
    EXPECT_CODE(APP_INVALID_ARG, AppTaskResetTimer(&noTask));
    log.ExpectLines({"[ERROR] AppTaskResetTimer: Invalid Arg\n"});
}

// A cancel that comes late reads the record of a timer that is being reused.
TEST_F(TaskTimers, ALateCancelIsNoRace)
{
    Busy busy(manager, diary);
    HAppTimer hTimer = AppTaskSetTimer(busy.hTask, 99999, nullptr, nullptr);
    AppTaskCancelTimer(hTimer);
    test::RunThreads(2, [&](unsigned nThread) {
        for (int i = 0; i < 300; ++i)
            if (nThread == 0)
                AppTaskSetTimer(busy.hTask, 99999, nullptr, nullptr);
            else
                AppTaskCancelTimer(hTimer);
    });
    busy.Go();
}

// Five timers, A to E, whose expiries a string collects in upper case and whose cancellations in
// lower case.  One of them acts in its handler.
struct Timers {
    struct Named {
        Timers *pAll;
        char chName;
        HAppTimer hTimer;
    };
    Named names[5] = {};
    HAppTask hTask;
    char chActor;
    std::string acts; // upper case: set with 0 ms; lower case: cancel; '+': 60 ms pass
    std::string order;

    void Set(char chName, uint32_t dwTimeout)
    {
        Named &named = names[chName - 'A'];
        named = {this, chName, AppTaskSetTimer(hTask, dwTimeout, Handle, &named)};
    }
    static uint32_t Handle(HAppTask, uint32_t dwType, void *, void *pvNamed)
    {
        const Named named = *static_cast<Named *>(pvNamed);
        const bool bExpired = dwType == APP_TASK_EVENT_TIMEOUT;
        named.pAll->order += static_cast<char>(bExpired ? named.chName : named.chName + 32);
        if (bExpired && named.chName == named.pAll->chActor)
            named.pAll->Act();
        return 0;
    }
    void Act()
    {
        for (const char ch : std::exchange(acts, ""))
            if (ch == '+')
                AppDelay(60);
            else if (ch >= 'a')
                AppTaskCancelTimer(names[ch - 'a'].hTimer);
            else
                Set(ch, 0);
    }
};

// The walk of one run: list order, counted again from the head after each expiry, whatever the
// handlers do to the timers.
TEST_F(TaskTimers, ARunFollowsTheList)
{
    const struct {
        const char *szWhat;
        std::vector<uint32_t> timeouts; // of A, B, ...
        char chActor;
        const char *szActs;
        const char *szOrder;
    } rows[] = {
        {"due ones in order", {0, 99999, 0}, ' ', "", "AC"},
        {"a new one is seen in the same run", {0, 0}, 'A', "D", "ABD"},
        {"a new one set by the last", {0, 0}, 'B', "D", "ABD"},
        {"the next is cancelled", {0, 0, 0}, 'A', "b", "AbC"},
        {"the next two are cancelled, one comes back", {0, 0, 0, 0}, 'A', "bcB", "AbcDB"},
        {"one passed over becomes due meanwhile", {20, 0, 0}, 'B', "+", "BAC"},
        {"the expired one is cancelled", {0, 0}, 'A', "a", "AB"},
        {"the only other one is cancelled", {99999, 0}, 'B', "a", "Ba"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.szWhat);
        Diary calls;
        Manager one;
        Busy busy(one, calls);
        Timers timers = {{}, busy.hTask, row.chActor, row.szActs, ""};
        for (size_t i = 0; i < row.timeouts.size(); ++i)
            timers.Set(static_cast<char>('A' + i), row.timeouts[i]);
        Send(busy.hTask, 1);
        busy.Go();
        calls.Await("user 1"); // the event after the run
        EXPECT_EQ(timers.order, row.szOrder);
        one.Destroy(); // tells the timers left
    }
}

// A handler that sets its timer of 0 ms again and again: the timers set before it all expire, and
// the task's events get their turns.
TEST_F(TaskTimers, AnEndlessTimerDoesNotStarveTheEvents)
{
    test::Watchdog watchdog;
    std::atomic<uint64_t> qwExpiries{0};
    const PFAppTaskHandler again = [](HAppTask hTask, uint32_t dwType, void *,
                                      void *pvCount) -> uint32_t {
        if (dwType == APP_TASK_EVENT_TIMEOUT) {
            ++*static_cast<std::atomic<uint64_t> *>(pvCount);
            AppTaskSetTimer(hTask, 0, nullptr, nullptr); // the task's handler, the same
        }
        return 0;
    };
    Manager one;
    HAppTask hTask = one.New(again, &qwExpiries);
    AppTaskSetTimer(hTask, 0, nullptr, nullptr);
    for (int i = 0; i < 1500; ++i) // more than one run may expire of those set during it
        AppTaskSetTimer(hTask, 0, Diary::Handle, &own);
    for (const size_t nCalls : {1501u, 1502u, 1503u}) {
        EXPECT_CODE(APP_OK, AppTaskAssignEvent(hTask, Arg(1), Diary::Handle, &own));
        EXPECT_TRUE(test::WaitUntil([&] { return own.Calls().size() == nCalls; }));
    }
    EXPECT_GT(qwExpiries.load(), 0u);
    one.Park(hTask);
}

// ---- Report -----------------------------------------------------------------------------------

std::string Report(HAppTaskMgr hTaskMgr)
{
    std::string text;
    AppTaskMgrShow(
        hTaskMgr,
        [](const char *szText, void *pvText) { *static_cast<std::string *>(pvText) += szText; },
        &text);
    return test::Masked(text);
}

TEST_F(TaskReport, ShowsTasksTimersAndPools)
{
    Busy busy(manager, diary, {"busy", 7, 5000});
    HAppTask hIdle = manager.New(diary, {"idle"});
    manager.Park(hIdle);
    HAppTimer hFirst = AppTaskSetTimer(busy.hTask, 50, nullptr, nullptr);
    AppTaskSetTimer(busy.hTask, 100000000, Diary::Handle, &diary);
    Send(busy.hTask, 1);
    EXPECT_TRUE(test::WaitUntil([&] {
        return AppTickDiff(hFirst->dwStartTick, AppGetTick()) > 6; // overdue by more than 10 ms
    }));
    const std::string report = Report(manager.Get());
    const std::string busyName =
        Text("Task(P) Name(busy) Thread(%d P) ", app::Peek(busy.hTask->nThreadId));
    const std::string idleName =
        Text("Task(P) Name(idle) Thread(%d P) ", app::Peek(hIdle->nThreadId));
    const std::string rule = "============================================\n";
    for (const std::string &part :
         {"\n" + rule + "TaskMgr(P) MemPool((nil))\n" + busyName + "MemPool(P)" + rule,
          "\n" + idleName + "MemPool(P)" + rule,
          "\n\n\n" + rule +
              "TaskMgr(P) Tasks(2/8) MemPool((nil)) Timeout(0ms)\n--- 1 ACTIVE TASKS "
              "------------------------\n" +
              busyName +
              "PROCESSING Timeout(5000ms) EventListSize(1/ MAX 7/ TOP 1) Timer(2) LastHandler(P "
              "Type:1 Arg:(nil) "
              "Context:P)\nTask(P) Timer(P)  Handler((nil)) Timeout(50ms) RemainTime(-",
          std::string("Task(P) Timer(P)  Handler(P) Timeout(100000000ms) RemainTime(9999"),
          "--- 1 INACTIVE TASKS ------------------------\n" + idleName +
              "IDLE Timeout(0ms) EventListSize(0/ MAX 100/ TOP 1)\n"})
        EXPECT_NE(report.find(part), std::string::npos) << part << "\nis not in\n" << report;
    busy.Go();
    // Nobody may walk the lists without the lock.
    app::LockGuard guard(manager.Get());
    EXPECT_EQ(Report(manager.Get()),
              "\n" + rule + "TaskMgr(P) MemPool((nil))\nTaskMgr(P) is busy, no details\n");
}

// A slow callback holds up nobody who sends to the task whose timers it shows, nor who cancels them.
TEST_F(TaskReport, ItsCallbackRunsWithoutATasksLock)
{
    Busy busy(manager, diary);
    struct Reader {
        HAppTask hTask;
        std::vector<HAppTimer> timers;
        LogCapture &log;
        std::string text = "";
        size_t nCalls = 0;
    } reader = {busy.hTask, {}, log};
    log.Clear();
    for (int i = 0; i < 100; ++i)
        reader.timers.push_back(AppTaskSetTimer(busy.hTask, 99999, nullptr, nullptr));
    AppTaskMgrShow(
        manager.Get(),
        [](const char *szText, void *pvReader) {
            auto ptReader = static_cast<Reader *>(pvReader);
            EXPECT_CODE(APP_OK, AppTaskSendEvent(ptReader->hTask, nullptr, nullptr, nullptr));
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: %s\n", "AppTask",
                   "its own line"); // printed at once
            EXPECT_EQ(ptReader->log.Lines().size(), ++ptReader->nCalls);
            if (ptReader->text.find("Timer(") == std::string::npos && strstr(szText, "Timer("))
                for (size_t i = 30; i < 100; ++i)
                    AppTaskCancelTimer(ptReader->timers[i]); // where it goes on, too
            ptReader->text += szText;
        },
        &reader);
    for (size_t i : {0u, 29u})
        EXPECT_NE(reader.text.find(Text("Timer(%p)", Ptr(reader.timers[i]))), std::string::npos);
    EXPECT_EQ(reader.text.find(Text("Timer(%p)", Ptr(reader.timers[40]))), std::string::npos);
    busy.Go();
}

// ---- Faults -----------------------------------------------------------------------------------

// A reused task whose queue still holds more than the new owner allows is ended, not handed out.
TEST_F(TaskFaults, RefusedRefresh)
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
    EXPECT_EQ(log.Count("[ERROR] _AppTaskRefreshArg: new size 1 is Invalid\n"), 1u);
    EXPECT_EQ(stopper.Text(), "user 0, drop 0, drop 0");
    EXPECT_EQ(own.Text() + diary.Text(), "stop");
    EXPECT_EQ(manager.Get()->hTaskList->dwCurSize + manager.Idle(), 0u);
}

// A handed-out task that cannot be listed, and that has meanwhile gone idle by itself.
TEST_F(TaskFaults, AnUnlistedTaskThatGoesIdleIsEndedToo)
{
    test::Watchdog watchdog;
    fault::Fail count(Fn::malloc, 0);
    manager.New(diary);
    const unsigned nLast = count.Calls(); // the list's node
    fault::Fail fail(Fn::malloc, nLast);
    fail.Action([&] { // until the thread waits for the manager's lock
        EXPECT_TRUE(test::WaitUntil([&] { return diary.Text() == "stop"; }));
    });
    HAppTask hTask = nullptr;
    EXPECT_CODE(APP_NO_RESOURCE,
                AppTaskMgrNewTask(manager.Get(), "t", 1, 0, 0, 1, Diary::Handle, &diary, &hTask));
    EXPECT_EQ(fail.Hits(), 1u);
    EXPECT_EQ(diary.Text(), "stop");
    EXPECT_EQ(manager.Get()->hTaskList->dwCurSize, 1u);
    EXPECT_EQ(manager.Idle(), 0u);
}

} // namespace
