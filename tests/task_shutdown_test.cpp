// SPDX-License-Identifier: MIT
//
// The end of tasks and managers: each pairing of a manager's destruction with something under way,
// first in forced order, a thread standing still in the window that matters, then in many rounds.
// Managers live in a pool that is destroyed right after them, or on the heap: in both cases the
// address sanitizer sees every late touch.
#include <string.h>

#include "support/log_capture.h"
#include "support/tasks.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

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

namespace {

class TaskShutdown : public testing::Test {
protected:
    test::Watchdog watchdog;
    LogCapture log;
};

uint32_t StateOf(HAppTask hTask) { return app::Peek(hTask->dwState); }

// Two tasks, one of them parked, and no room in the idle list for the other: it ends by itself when
// it goes idle.
HAppTask NewWithoutRoom(Manager &manager, Diary &diary) {
    HAppTask hParked = manager.New(diary);
    HAppTask hTask = manager.New(diary);
    manager.Park(hParked);
    app::LockGuard guard(manager.Get()->hLock);
    manager.Get()->hIdleTaskList->dwMaxSize = 1;
    return hTask;
}

// ---- Forced windows ---------------------------------------------------------------------------

TEST_F(TaskShutdown, WaitsForABusyHandler) {
    Door door;
    Diary diary([&](const Diary::Call &call) {
        if (call.pvArg == Arg(1)) door.Pass();
    });
    Manager manager;
    HAppTask hTask = manager.New(diary);
    AppTaskSetTimer(hTask, 99999, nullptr, nullptr);
    for (uintptr_t i = 1; i <= 3; ++i) EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(i), nullptr, nullptr));
    door.AwaitVisitor();
    Destroyer destroyer(manager);
    log.Clear();
    HAppTask hNew = hTask;
    EXPECT_CODE(APP_INVALID_ARG, AppTaskMgrNewTask(hTask->ptTaskMgr, "late", 1, 0, 0, 0, Diary::Handle, &diary, &hNew));
    EXPECT_EQ(hNew, nullptr);
    log.ExpectLines({"[ERROR] AppTaskMgrNewTask: TaskMgr is being destroyed\n"});
    destroyer.ExpectWaits();
    door.Open();
    diary.Await("user 1, cancel, drop 2, drop 3");
}

// The destruction's request arrives while the go-idle handler is in one of its notices; the first
// two are followed by the drain, which meets the request.
TEST_F(TaskShutdown, GoingIdleKeepsTheRequest) {
    for (const uint32_t dwNotice : {APP_TASK_EVENT_TIMER_CANCEL, APP_TASK_EVENT_DROP, APP_TASK_EVENT_STOP}) {
        SCOPED_TRACE(dwNotice);
        Door door;
        Diary diary([&](const Diary::Call &call) {
            if (call.dwType == dwNotice) door.Pass();
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
TEST_F(TaskShutdown, WaitsForTasksThatEndByThemselves) {
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
        Diary last([](const Diary::Call &call) { test::LookOften(call.hTask); });
        Manager manager(8, 10);
        HAppTask hTask = manager.New(last);
        Stall stall(Fn::free, [&] { return StateOf(hTask) == APP_TASK_STATE_TERMINATE; });
        EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
        stall.AwaitVisitor(); // its own request in hand
        Destroyer destroyer(manager);
        destroyer.ExpectWaits();
        stall.Open();
    }
}

// The thread gives the exit lock as its last touch: not before it has released its event.
TEST_F(TaskShutdown, TheExitLockIsTheLastTouch) {
    Diary diary;
    Manager manager;
    HAppTask hTask = manager.New(diary);
    Stall stall(Fn::free, [&] { return StateOf(hTask) == APP_TASK_STATE_TERMINATE; });
    Destroyer destroyer(manager);
    stall.AwaitVisitor();
    destroyer.ExpectWaits();
    stall.Open();
}

// Reused, but destroyed before the thread has seen the refresh: the refresh is dropped, and the
// drop notices that follow must not find a task that admits work.
TEST_F(TaskShutdown, ADroppedRefreshRevivesNothing) {
    Door door;
    std::vector<uint32_t> codes;
    Diary hold([&](const Diary::Call &) { door.Pass(); });
    Diary diary([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_DROP) {
            codes.push_back(AppTaskAssignEvent(call.hTask, Arg(2), nullptr, nullptr));
            codes.push_back(AppTaskSetTimer(call.hTask, 1, nullptr, nullptr) != nullptr);
        }
    });
    Manager manager;
    HAppTask hTask = manager.New(diary);
    manager.Park(hTask);
    const TAppTaskEvent event = {APP_TASK_EVENT_USER, nullptr, Diary::Handle, &hold};
    EXPECT_CODE(APP_OK, _AppTaskSendEvent(hTask, &event, 0, 1));
    door.AwaitVisitor();
    EXPECT_EQ(manager.New(diary), hTask);
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
    {
        Destroyer destroyer(manager);
        door.Open();
    }
    EXPECT_EQ(diary.Text(), "stop, drop 1");
    EXPECT_EQ(codes, (std::vector<uint32_t>{APP_INVALID_ARG, 0}));
}

// The terminate request cannot be queued.  The thread notices at its next wake-up, and before the
// events that wait, of which there would be more for ever.
TEST_F(TaskShutdown, EndsWithAnExhaustedPool) {
    Diary quiet;
    Door door;
    std::atomic<int> nUsers{0};
    Diary endless([&](const Diary::Call &call) {
        if (call.dwType != APP_TASK_EVENT_USER) return;
        AppTaskSendEvent(call.hTask, nullptr, nullptr, nullptr);
        if (nUsers++ == 0) door.Pass();
    });
    const auto start = std::chrono::steady_clock::now();
    {
        Manager manager(8, 0, 1 << 20);
        manager.New(quiet);
        HAppTask hParked = manager.New(quiet);
        HAppTask hTask = manager.New(endless);
        manager.Park(hParked);
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, nullptr, nullptr));
        door.AwaitVisitor(); // one event in hand, one queued: room for one more will come free
        for (uint32_t dwSize = 1024; dwSize != 0; dwSize /= 2)
            while (AppMemPoolMalloc(manager.Pool(), dwSize)) {}
        Destroyer destroyer(manager);
        door.Open();
    }
    EXPECT_GT(log.Count("[ERROR] _AppTaskSendEvent: AppMemPoolMalloc failed\n"), 2u);
    EXPECT_GE(nUsers.load(), 1);
    EXPECT_LT(test::ElapsedMs(start), 60000); // 5 s on an idle machine
}

// Whoever came by with a valid handle keeps the record: a cancel in its handler, a send on its way
// to wake the thread.
TEST_F(TaskShutdown, VisitorsKeepTheRecord) {
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
    // The send has given the task's lock, for which somebody waits, and has not woken the thread yet.
    Door door;
    Diary diary([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_USER) door.Pass();
    });
    Manager manager;
    HAppTask hTask = manager.New(diary, {"task", 0});
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, nullptr, nullptr));
    door.AwaitVisitor(); // busy, so that only the task's lock can have a sleeper
    std::atomic<std::thread::id> sender;
    Stall stall(Fn::pthread_cond_signal, [&] { return std::this_thread::get_id() == sender.load(); });
    std::thread waiter([&] {
        uint32_t dwType;
        void *pvArg, *pvContext;
        PFAppTaskHandler pfnHandler;
        while (!stall.WasVisited()) AppTaskGetLastEvent(hTask, &dwType, &pvArg, &pfnHandler, &pvContext);
    });
    std::thread thread([&] {
        sender = std::this_thread::get_id();
        while (!stall.WasVisited()) EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
    });
    stall.AwaitVisitor();
    waiter.join();
    {
        Destroyer destroyer(manager);
        door.Open();
        destroyer.ExpectWaits();
        stall.Open();
    }
    thread.join();
}

// The report holds the manager's lock and comes to a task that is going idle, which holds its own
// lock and waits for the manager's.
TEST_F(TaskShutdown, AReportPassesATaskThatGoesIdle) {
    Diary diary;
    Manager manager;
    struct Reader {
        HAppTask hTask;
        std::string text;
    } reader = {manager.New(diary), ""};
    AppTaskMgrShow(
        manager.Get(),
        [](const char *szText, void *pvReader) {
            auto ptReader = static_cast<Reader *>(pvReader);
            if (ptReader->text.empty()) {
                EXPECT_CODE(APP_OK, AppTaskTerminate(ptReader->hTask));
                EXPECT_TRUE(test::WaitUntil([&] { // held for good: it waits
                    return !app::LockGuard(ptReader->hTask->hLock, 50);
                }));
            }
            ptReader->text += szText;
        },
        &reader);
    EXPECT_NE(reader.text.find(" IDLE Timeout(0ms)"), std::string::npos);
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
}

// ---- Many rounds ------------------------------------------------------------------------------

// Between no time at all and some ten microseconds, different in each round.
void Dawdle(unsigned nRound) {
    for (unsigned i = 0; i < nRound % 7; ++i) std::this_thread::yield();
    for (std::atomic<unsigned> i{0}; i < nRound * 37 % 2000; ++i) {}
}

// What a task is given to do in each round.
HAppTask NewBusy(Manager &manager, Ledger &ledger, uint32_t dwMaxEvent = 100) {
    HAppTask hTask = manager.New(ledger, {"busy", dwMaxEvent});
    ledger.Set(hTask, 99999);
    ledger.Set(hTask, 0);
    for (int i = 0; i < 3; ++i) ledger.Send(hTask);
    return hTask;
}

struct Pairing {
    const char *szName;
    void (*pfnRound)(Manager &manager, Ledger &ledger, unsigned nRound);
};

const Pairing kPairings[] = {
    {"BusyHandler",
     [](Manager &manager, Ledger &ledger, unsigned) {
         NewBusy(manager, ledger);
         NewBusy(manager, ledger);
     }},
    {"GoIdle",
     [](Manager &manager, Ledger &ledger, unsigned nRound) {
         HAppTask hTask = NewBusy(manager, ledger);
         Dawdle(nRound * 3);
         AppTaskTerminate(hTask);
         AppTaskTerminate(hTask);
     }},
    {"SelfEnd",
     [](Manager &manager, Ledger &ledger, unsigned nRound) {
         HAppTask tasks[3];
         for (HAppTask &hTask : tasks) hTask = NewBusy(manager, ledger);
         {
             app::LockGuard guard(manager.Get()->hLock);
             manager.Get()->hIdleTaskList->dwMaxSize = 1; // two of them end
         }
         for (HAppTask hTask : tasks) {
             AppTaskTerminate(hTask);
             Dawdle(nRound);
         }
     }},
    {"Reuse",
     [](Manager &manager, Ledger &ledger, unsigned nRound) {
         HAppTask hTask = NewBusy(manager, ledger);
         for (int i = 0; i < 3; ++i) { // handed out again, or a second one
             AppTaskTerminate(hTask);
             Dawdle(nRound * 5);
             hTask = NewBusy(manager, ledger);
         }
     }},
    {"FullQueue",
     [](Manager &manager, Ledger &ledger, unsigned nRound) {
         HAppTask hTask = NewBusy(manager, ledger, 2);
         ledger.Send(hTask, true);
         if (nRound % 2) AppTaskTerminate(hTask);
     }},
    {"CancelFromOutside",
     [](Manager &manager, Ledger &ledger, unsigned nRound) {
         HAppTask hTask = NewBusy(manager, ledger);
         std::thread canceller([&] {
             for (int i = 0; i < 4; ++i)
                 if (HAppTimer hTimer = ledger.Set(hTask, 0)) {
                     ledger.Send(hTask); // the expiry beside the cancel
                     AppTaskCancelTimer(hTimer);
                 }
         });
         if (nRound % 2) AppTaskTerminate(hTask);
         canceller.join(); // a destruction must not meet anybody else's call
     }},
};

class TaskShutdownRounds : public TaskShutdown, public testing::WithParamInterface<Pairing> {};

TEST_P(TaskShutdownRounds, EndWithEverythingTold) {
    g_byAppLogLevel[0] = APP_LOG_ALWAYS;
    for (unsigned nRound = 0; nRound < test::Scaled(10000); ++nRound) {
        Ledger ledger(64, [&](HAppTask hTask, uint32_t dwType) {
            if (dwType == APP_TASK_EVENT_USER && ledger.Used() < 40) ledger.Send(hTask);
        });
        {
            Manager manager(8, 0, nRound % 2 ? 1 << 20 : 0);
            GetParam().pfnRound(manager, ledger, nRound);
            Dawdle(nRound);
        }
        ledger.ExpectBalance();
        if (HasFailure()) FAIL() << "in round " << nRound;
    }
}

INSTANTIATE_TEST_SUITE_P(Pairings, TaskShutdownRounds, testing::ValuesIn(kPairings),
                         [](const auto &info) { return info.param.szName; });

// Idle tasks that end in time, beside their reuse and beside the manager's destruction.
TEST_F(TaskShutdown, TimeOutsBesideReuseAndDestruction) {
    g_byAppLogLevel[0] = APP_LOG_ALWAYS;
    for (unsigned nRound = 0; nRound < test::Scaled(200) + 10; ++nRound) {
        Ledger ledger(200, [](HAppTask hTask, uint32_t dwType) {
            if (dwType == APP_TASK_EVENT_STOP) test::LookOften(hTask);
        });
        {
            Manager manager(16, 10, 1 << 20);
            for (int i = 0; i < 8; ++i) AppTaskTerminate(NewBusy(manager, ledger));
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
