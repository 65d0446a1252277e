// SPDX-License-Identifier: MIT
//
// The end of tasks and managers: each pairing of a manager's destruction with something under way,
// first in forced order, a thread standing still in the window that matters, then in many rounds.
// Managers live in a pool that is destroyed right after them, or on the heap: in both cases the
// address sanitizer sees every late touch.
#include <stdio.h>

#include <algorithm>

#include "support/log_capture.h"
#include "support/tasks.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

using fault::Fn;
using test::Arg;
using test::Destroyer;
using test::Diary;
using test::Door;
using test::Ledger;
using test::LogCapture;
using test::Manager;
using test::Stall;
using test::Text;

namespace
{

class TaskShutdown : public testing::Test
{
protected:
    test::Watchdog watchdog;
    LogCapture log;
};

uint32_t StateOf(HAppTask hTask)
{
    return app::Peek(hTask->dwState);
}

// Two tasks, one of them parked, and no room in the idle list for the other: it ends by itself when
// it goes idle.
HAppTask NewWithoutRoom(Manager &manager, Diary &diary)
{
    HAppTask hParked = manager.New(diary);
    HAppTask hTask = manager.New(diary);
    manager.Park(hParked);
    app::LockGuard guard(manager.Get());
    manager.Get()->hIdleTaskList->dwMaxSize = 1;
    return hTask;
}

// ---- Forced windows ---------------------------------------------------------------------------

// The destruction begins while the go-idle handler is in one of its notices.
TEST_F(TaskShutdown, GoingIdleKeepsTheRequest)
{
    for (const uint32_t dwNotice :
         {APP_TASK_EVENT_TIMER_CANCEL, APP_TASK_EVENT_DROP, APP_TASK_EVENT_STOP}) {
        SCOPED_TRACE(dwNotice);
        Door door;
        Diary diary([&](const Diary::Call &call) {
            if (call.dwType == dwNotice)
                door.Pass();
        });
        Manager manager;
        HAppTask hTask = manager.New(diary);
        AppTaskSetTimer(hTask, 99999, nullptr, nullptr);
        Door start;
        Diary first([&](const Diary::Call &) { start.Pass(); });
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, Diary::Handle, &first));
        start.AwaitVisitor();
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
        EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
        start.Open();
        door.AwaitVisitor();
        Destroyer destroyer(manager);
        door.Open();
        diary.Await("cancel, drop 1, stop");
    }
}

// A task that has left the lists, or is about to, is waited for like any other.
TEST_F(TaskShutdown, WaitsForTasksThatEndByThemselves)
{
    Diary diary;
    { // no room in the idle list
        Manager manager;
        HAppTask hTask = NewWithoutRoom(manager, diary);
        Stall stall(Fn::free, [&] { return StateOf(hTask) == APP_TASK_STATE_UNINIT; });
        EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
        stall.AwaitVisitor();
        Destroyer destroyer(manager);
        destroyer.ExpectWaits();
        stall.Open();
    }
    { // nobody took it in time
        Door door;
        HAppTask hTask = nullptr;
        const std::function<void()> stall = [&] {
            if (StateOf(hTask) == APP_TASK_STATE_TERMINATE)
                door.Pass();
        };
        Diary last([&](const Diary::Call &call) { test::LookOften(call.hTask, &stall); });
        Manager manager(8, 10);
        hTask = manager.New(last);
        EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
        door.AwaitVisitor(); // it has decided to end
        Destroyer destroyer(manager);
        destroyer.ExpectWaits();
        door.Open();
    }
}

// With an exhausted pool a waiting idle task is handed out, and eight waiting tasks end, at once: none
// of it may wait until a thread wakes by itself, after up to five seconds.  Nor does a handler that
// sends to itself hold back the end.
TEST_F(TaskShutdown, NeitherReuseNorTheEndNeedsMemory)
{
    Diary quiet;
    Door door;
    Diary endless([&](const Diary::Call &call) {
        if (call.dwType != APP_TASK_EVENT_USER)
            return;
        AppTaskSendEvent(call.hTask, nullptr, nullptr, nullptr);
        door.Pass();
    });
    Manager manager(8, 0, 1 << 20);
    for (int i = 0; i < 6; ++i)
        manager.New(quiet);
    HAppTask hEndless = manager.New(endless), hParked = manager.New(quiet);
    manager.Park(hParked);
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hEndless, nullptr, nullptr, nullptr));
    door.AwaitVisitor(); // one event in hand, one queued: room for one more will come free
    while (AppMemPoolMalloc(manager.Pool(), 1024)) {
    }
    AppDelay(400); // the first, short waits are over
    while (AppMemPoolMalloc(manager.Pool(), 1)) {
    }
    const auto start = std::chrono::steady_clock::now();
    const int32_t nThreadId = hParked->nThreadId;
    EXPECT_EQ(manager.New(quiet), hParked);
    EXPECT_TRUE(test::WaitUntil([&] { // the thread has seen its new owner
        uint32_t dwType;
        void *pvArg, *pvContext;
        PFAppTaskHandler pfnHandler;
        AppTaskGetLastEvent(hParked, &dwType, &pvArg, &pfnHandler, &pvContext);
        return pfnHandler == _AppTaskRefreshHandler;
    }));
    EXPECT_EQ(hParked->nThreadId, nThreadId);
    {
        Destroyer destroyer(manager);
        door.Open();
    }
    EXPECT_LT(test::ElapsedMs(start), 3000);
}

// Until the destruction is over, handlers may use every task of the manager, those too whose threads
// have left: a handler that still runs, and a notice that is told to the destroying thread.
TEST_F(TaskShutdown, HandlersMayUseEveryTaskToTheEnd)
{
    HAppTask hOlder = nullptr;
    HAppTimer hTimer = nullptr;
    HAppTaskMgr hTaskMgr = nullptr;
    std::string report;
    const auto useOlder = [&] {
        uint32_t dwType;
        void *pvArg, *pvContext;
        PFAppTaskHandler pfnHandler;
        EXPECT_CODE(APP_INVALID_ARG, AppTaskSendEvent(hOlder, Arg(1), nullptr, nullptr));
        EXPECT_CODE(APP_INVALID_ARG, AppTaskAssignEvent(hOlder, Arg(1), nullptr, nullptr));
        EXPECT_CODE(APP_INVALID_ARG, AppTaskTerminate(hOlder));
        EXPECT_EQ(AppTaskSetTimer(hOlder, 1, nullptr, nullptr), nullptr);
        EXPECT_CODE(APP_INVALID_STATE, AppTaskResetTimer(hTimer));
        AppTaskCancelTimer(hTimer);
        EXPECT_EQ(AppTaskTimerGetRemainTime(hTimer), 0u);
        EXPECT_CODE(APP_OK, AppTaskGetLastEvent(hOlder, &dwType, &pvArg, &pfnHandler, &pvContext));
        const auto append = [](const char *szText, void *pvReport) {
            *static_cast<std::string *>(pvReport) += szText;
        };
        AppTaskMgrShow(hTaskMgr, append, &(report = ""));
        EXPECT_NE(report.find(Text("Task(%p) Name(older)", static_cast<void *>(hOlder))),
                  std::string::npos);
    };
    Door door;
    Diary diary;
    Diary later([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_USER)
            door.Pass();
        useOlder();
    });
    Manager manager;
    hTaskMgr = manager.Get();
    hOlder = manager.New(diary, {"older"});
    HAppTask hLater = manager.New(later);
    hTimer = AppTaskSetTimer(hOlder, 99999, nullptr, nullptr);
    AppTaskSetTimer(hLater, 99999, nullptr, nullptr);
    for (uintptr_t i = 1; i <= 2; ++i)
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hLater, Arg(i), nullptr, nullptr));
    door.AwaitVisitor();
    {
        Destroyer destroyer(manager);
        EXPECT_TRUE(test::WaitUntil([&] { return StateOf(hOlder) == APP_TASK_STATE_TERMINATE; }));
        HAppTask hNew = hLater;
        EXPECT_CODE(APP_INVALID_ARG,
                    AppTaskMgrNewTask(hTaskMgr, "late", 1, 0, 0, 0, nullptr, nullptr, &hNew));
        EXPECT_EQ(hNew, nullptr);
        EXPECT_EQ(log.Count("[ERROR] AppTaskMgrNewTask: TaskMgr is being destroyed\n"), 1u);
        destroyer.ExpectWaits();
        door.Open();
    }
    EXPECT_EQ(later.Text(), "user 1, cancel, drop 2");
    EXPECT_EQ(diary.Text(), "cancel");
}

// A 10 ms timer that is set anew at the start of a handler of 20 ms is always due: neither an event,
// nor a terminate request, nor the end waits for more than a few expiries.
TEST_F(TaskShutdown, ATimerThatFallsBehindHoldsNothingBack)
{
    std::atomic<int> nExpiries{0};
    int nAtEvent = 0, nAtStop = 0;
    Diary behind([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_TIMEOUT) {
            AppTaskSetTimer(call.hTask, 10, nullptr, nullptr);
            if (++nExpiries == 1)
                AppTaskSendEvent(call.hTask, Arg(1), nullptr, nullptr);
            if (nAtEvent != 0 && nExpiries == nAtEvent + 1)
                AppTaskTerminate(call.hTask);
            AppDelay(20);
        }
        if (call.pvArg == Arg(1))
            nAtEvent = nExpiries;
        for (int i = 0; call.pvArg == Arg(2) && i < 200; ++i) // four seconds' worth
            AppTaskSetTimer(call.hTask, 0, nullptr, nullptr);
        if (call.dwType == APP_TASK_EVENT_STOP)
            nAtStop = nExpiries;
    });
    Manager manager;
    HAppTask hTask = manager.New(behind);
    AppTaskSetTimer(hTask, 0, nullptr, nullptr);
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, nullptr, nullptr));
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
    EXPECT_LE(nAtEvent, 6);
    EXPECT_LE(nAtStop, nAtEvent + 6);

    EXPECT_EQ(manager.New(behind), hTask);
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(2), nullptr, nullptr));
    EXPECT_TRUE(test::WaitUntil([&] { return nExpiries > nAtStop; }));
    {
        Destroyer destroyer(manager);
    }
    EXPECT_LE(nExpiries, nAtStop + 100); // how many come before the destruction begins is open
}

// A cancel keeps the record while it is in its handler.
TEST_F(TaskShutdown, ACancelKeepsTheRecord)
{
    for (const bool bByItself : {true, false}) {
        Door door;
        Diary diary, stopper([&](const Diary::Call &) { door.Pass(); });
        Manager manager;
        HAppTask hTask = NewWithoutRoom(manager, diary);
        HAppTimer hTimer = AppTaskSetTimer(hTask, 99999, Diary::Handle, &stopper);
        std::thread canceller([&] { AppTaskCancelTimer(hTimer); });
        door.AwaitVisitor();
        if (bByItself) {
            EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
            EXPECT_TRUE(test::WaitUntil([&] { return StateOf(hTask) == APP_TASK_STATE_UNINIT; }));
        }
        {
            Destroyer destroyer(manager);
            destroyer.ExpectWaits();
            door.Open();
        }
        canceller.join();
        EXPECT_EQ(stopper.Text(), "cancel");
    }
}

// So does a send that has placed its event and has not woken the thread yet: the thread has been
// promised the event and does not leave its wait.
TEST_F(TaskShutdown, ASendOnItsWayKeepsTheRecord)
{
    Diary diary;
    Manager manager;
    HAppTask hTask = manager.New(diary);
    EXPECT_TRUE(test::WaitUntil([&] {
        app::LockGuard guard(hTask->hEventQueue);
        return hTask->hEventQueue->dwSleepers == 1;
    }));
    std::atomic<std::thread::id> sender;
    Stall stall(Fn::pthread_cond_signal,
                [&] { return std::this_thread::get_id() == sender.load(); });
    std::thread thread([&] {
        sender = std::this_thread::get_id();
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
    });
    stall.AwaitVisitor();
    {
        Destroyer destroyer(manager);
        destroyer.ExpectWaits();
        stall.Open();
    }
    thread.join();
    EXPECT_EQ(diary.Text(), "user 1");
}

// The report, slow as its callback may be, comes to a task that is going idle and needs the manager's
// lock: neither do the two meet, nor are those who send to that task kept waiting.
TEST_F(TaskShutdown, AReportPassesATaskThatGoesIdle)
{
    Diary diary;
    Manager manager;
    struct Reader {
        HAppTask hTask;
        Diary &diary;
        std::string text = "";
    } reader = {manager.New(diary), diary};
    AppTaskMgrShow(
        manager.Get(),
        [](const char *szText, void *pvReader) {
            auto ptReader = static_cast<Reader *>(pvReader);
            if (ptReader->text.empty()) {
                EXPECT_CODE(APP_OK, AppTaskTerminate(ptReader->hTask));
                ptReader->diary.Await("stop");
                AppDelay(20); // until it has come to the lock
                EXPECT_CODE(APP_INVALID_ARG,
                            AppTaskSendEvent(ptReader->hTask, nullptr, nullptr, nullptr));
            }
            ptReader->text += szText;
        },
        &reader);
    EXPECT_NE(reader.text.find(" IDLE Timeout(0ms)"), std::string::npos);
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
}

// ---- Many rounds ------------------------------------------------------------------------------

// Between no time at all and some ten microseconds, different in each round.
void Dawdle(unsigned nRound)
{
    for (unsigned i = 0; i < nRound % 7; ++i)
        std::this_thread::yield();
    for (std::atomic<unsigned> i{0}; i < nRound * 37 % 2000; ++i) {
    }
}

struct Round {
    explicit Round(unsigned n)
        : nRound(n), ledger(400, [this](HAppTask hTask, uint32_t dwType) { React(hTask, dwType); }),
          manager(8, 0, 1 << 20)
    {
    }

    // What a task is given to do.
    HAppTask NewBusy(uint32_t dwMaxEvent = 100)
    {
        HAppTask hTask = manager.New(ledger, {"busy", dwMaxEvent});
        ledger.Set(hTask, 99999);
        ledger.Set(hTask, 0);
        for (int i = 0; i < 3; ++i)
            ledger.Send(hTask);
        return hTask;
    }
    // The handlers use all the tasks, also while they are told what is left.
    void React(HAppTask, uint32_t)
    {
        const unsigned n = nActs++;
        HAppTask hTask = tasks[(n * 5 + nRound) % kTasks];
        if (!hTask || n > 60)
            return;
        switch ((n + nRound) % 6) {
        case 0:
            ledger.Set(hTask, n % 2 * 10);
            break;
        case 1:
            if (HAppTimer hTimer = ledger.Set(hTask, 0))
                AppTaskCancelTimer(hTimer);
            break;
        case 2:
            if (n > 40)
                AppTaskTerminate(hTask);
            break;
        case 3:
            if (n > 50)
                AppTaskMgrShow(manager.Get(), nullptr, nullptr);
            break;
        default:
            ledger.Send(hTask, n % 4 == 0);
        }
    }

    static constexpr unsigned kTasks = 3;
    const unsigned nRound;
    std::atomic<HAppTask> tasks[kTasks] = {};
    std::atomic<unsigned> nActs{0};
    Ledger ledger;
    Manager manager;
};

struct Pairing {
    const char *szName;
    void (*pfnRound)(Round &round);
};

const Pairing kPairings[] = {
    {"TalkToEachOther",
     [](Round &round) {
         for (auto &hTask : round.tasks)
             hTask = round.NewBusy(round.nRound % 3 ? 100 : 2);
     }},
    {"FullPool",
     [](Round &round) {
         for (auto &hTask : round.tasks)
             hTask = round.NewBusy();
         if (round.nRound % 2)
             AppTaskTerminate(round.tasks[0]);
         for (uint32_t dwSize = 1 << 19; dwSize != 0; dwSize /= 2)
             while (AppMemPoolMalloc(round.manager.Pool(), dwSize)) {
             }
     }},
    {"TimersFallBehind",
     [](Round &round) {
         static const PFAppTaskHandler again = [](HAppTask hTask, uint32_t dwType, void *,
                                                  void *) -> uint32_t {
             if (dwType == APP_TASK_EVENT_TIMEOUT) {
                 AppTaskSetTimer(hTask, 0, again, nullptr);
                 AppDelay(1);
             }
             return 0;
         };
         for (auto &hTask : round.tasks)
             AppTaskSetTimer(hTask = round.NewBusy(), 0, again, nullptr);
     }},
    {"SelfEndAndReuse",
     [](Round &round) {
         {
             app::LockGuard guard(round.manager.Get());
             round.manager.Get()->hIdleTaskList->dwMaxSize = 1; // further ones end
         }
         for (int i = 0; i < 4; ++i) {
             HAppTask hTask = round.NewBusy();
             std::thread canceller([&] {
                 if (HAppTimer hTimer = round.ledger.Set(hTask, 0))
                     AppTaskCancelTimer(hTimer);
             });
             canceller.join(); // before the task may be gone
             AppTaskTerminate(hTask);
             Dawdle(round.nRound * 5);
         }
     }},
};

class TaskShutdownRounds : public TaskShutdown, public testing::WithParamInterface<Pairing>
{
};

TEST_P(TaskShutdownRounds, EndWithEverythingTold)
{
    g_byAppLogLevel[0] = APP_LOG_ALWAYS;
    int64_t nLongest = 0;
    const unsigned nRounds = test::Scaled(10000);
    for (unsigned nRound = 0; nRound < nRounds; ++nRound) {
        Round round(nRound);
        GetParam().pfnRound(round);
        Dawdle(nRound);
        const auto start = std::chrono::steady_clock::now();
        round.manager.Destroy();
        nLongest = std::max(nLongest, test::ElapsedMs(start));
        round.ledger.ExpectBalance();
        if (HasFailure())
            FAIL() << "in round " << nRound;
    }
    printf("%u shutdowns, the longest %d ms\n", nRounds, static_cast<int>(nLongest));
}

INSTANTIATE_TEST_SUITE_P(Pairings, TaskShutdownRounds, testing::ValuesIn(kPairings),
                         [](const auto &info) { return info.param.szName; });

// Idle tasks that end in time, beside their reuse and beside the manager's destruction.
TEST_F(TaskShutdown, TimeOutsBesideReuseAndDestruction)
{
    g_byAppLogLevel[0] = APP_LOG_ALWAYS;
    for (unsigned nRound = 0; nRound < test::Scaled(200) + 10; ++nRound) {
        Ledger ledger(200, [](HAppTask hTask, uint32_t dwType) {
            if (dwType == APP_TASK_EVENT_STOP)
                test::LookOften(hTask);
        });
        {
            Manager manager(16, 10, 1 << 20);
            for (int i = 0; i < 8; ++i) {
                HAppTask hTask = manager.New(ledger);
                ledger.Set(hTask, 99999);
                ledger.Send(hTask);
                AppTaskTerminate(hTask);
            }
            AppDelay(15 + nRound % 15);
            for (int i = 0; i < 4; ++i) // whichever is handed out works
                EXPECT_TRUE(ledger.Send(manager.New(ledger)));
            AppDelay(nRound % 3);
        }
        ledger.ExpectBalance();
        ASSERT_FALSE(HasFailure()) << "in round " << nRound;
    }
}

} // namespace
