// SPDX-License-Identifier: MIT
//
// The end of tasks and managers: each pairing of a manager's destruction with something under way,
// first in forced order, a thread standing still in the window that matters, then in many rounds.
// Managers live in a pool that is destroyed right after them, or on the heap: in both cases the
// address sanitizer sees every late touch.
#include <memory>
#include <random>
#include <shared_mutex>

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
using test::Manager;

namespace
{

class TaskShutdown : public testing::Test
{
protected:
    // Destroys the manager while somebody stands at the door: it has to wait for him.
    static void DestroyBeside(Door &door, Manager &manager)
    {
        door.AwaitVisitor();
        Destroyer destroyer(manager);
        destroyer.ExpectWaits();
        door.Open();
    }

    test::Watchdog watchdog;
    test::LogCapture log;
};

uint32_t StateOf(HAppTask hTask)
{
    return app::Peek(hTask->dwState);
}

// ---- Forced windows ---------------------------------------------------------------------------

// The destruction begins while the go-idle handler is in one of its notices.
TEST_F(TaskShutdown, GoingIdleKeepsTheRequest)
{
    for (const uint32_t dwNotice :
         {APP_TASK_EVENT_TIMER_CANCEL, APP_TASK_EVENT_DROP, APP_TASK_EVENT_STOP}) {
        SCOPED_TRACE(dwNotice);
        Door start, door;
        Diary first([&](const Diary::Call &) { start.Pass(); });
        Diary diary([&](const Diary::Call &call) {
            if (call.dwType == dwNotice)
                door.Pass();
        });
        Manager manager;
        HAppTask hTask = manager.New(diary);
        AppTaskSetTimer(hTask, 99999, nullptr, nullptr);
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, Diary::Handle, &first));
        start.AwaitVisitor();
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
        EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
        start.Open();
        DestroyBeside(door, manager);
        EXPECT_EQ(diary.Text(), "cancel, drop 1, stop");
    }
}

// An idle task whose thread has decided to end, but has not come to carry it out, is not handed out
// any more; and it is waited for like any other.
TEST_F(TaskShutdown, ATaskThatHasChosenToEnd)
{
    Door door;
    HAppTask hEnding = nullptr;
    const std::function<void()> stall = [&] {
        if (StateOf(hEnding) == APP_TASK_STATE_TERMINATE)
            door.Pass();
    };
    Diary diary, last([&](const Diary::Call &call) { test::LookOften(call.hTask, &stall); });
    Manager manager(8, 10);
    HAppTask hParked = manager.New(diary);
    hEnding = manager.New(last);
    manager.Park(hParked);
    EXPECT_CODE(APP_OK, AppTaskTerminate(hEnding));
    door.AwaitVisitor();
    EXPECT_EQ(hEnding->hListNode, manager.Get()->hIdleTaskList->ptTail);
    EXPECT_EQ(manager.New(diary), hParked);
    EXPECT_NE(manager.New(diary), hEnding);
    DestroyBeside(door, manager);
}

// With an exhausted pool a waiting idle task is handed out, and eight waiting tasks end, at once:
// none of it may wait until a thread wakes by itself, after up to five seconds.  Nor does a handler
// that sends to itself hold back the end.
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
    AppDelay(400);       // the first, short waits are over
    for (uint32_t dwSize = 1024; dwSize != 0; dwSize /= 2)
        while (AppMemPoolMalloc(manager.Pool(), dwSize)) {
        }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(manager.New(quiet), hParked);
    EXPECT_TRUE(test::WaitUntil( // the thread has seen its new owner
        [&] { return app::Peek(hParked->pfnLastHandler) == _AppTaskRefreshHandler; }));
    DestroyBeside(door, manager);
    EXPECT_LT(test::ElapsedMs(start), 3000);
}

// Until the destruction is over, handlers may use every task of the manager, those too whose threads
// have left: a handler that still runs, and a notice that is told to the destroying thread.
TEST_F(TaskShutdown, HandlersMayUseEveryTaskToTheEnd)
{
    HAppTask hOlder = nullptr;
    HAppTimer hTimer = nullptr;
    HAppTaskMgr hTaskMgr = nullptr;
    Door door;
    Diary diary, later([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_USER)
            door.Pass();
        for (const auto send : {AppTaskSendEvent, AppTaskAssignEvent})
            EXPECT_CODE(APP_INVALID_ARG, send(hOlder, Arg(1), nullptr, nullptr));
        EXPECT_CODE(APP_INVALID_ARG, AppTaskTerminate(hOlder));
        EXPECT_EQ(AppTaskSetTimer(hOlder, 1, nullptr, nullptr), nullptr);
        EXPECT_CODE(APP_INVALID_STATE, AppTaskResetTimer(hTimer));
        AppTaskCancelTimer(hTimer);
        AppTaskMgrShow(hTaskMgr, nullptr, nullptr);
        HAppTask hNew = hOlder;
        EXPECT_CODE(APP_INVALID_ARG,
                    AppTaskMgrNewTask(hTaskMgr, "late", 1, 0, 0, 0, nullptr, nullptr, &hNew));
        EXPECT_EQ(hNew, nullptr);
    });
    Manager manager;
    hTaskMgr = manager.Get();
    hOlder = manager.New(diary);
    HAppTask hLater = manager.New(later);
    hTimer = AppTaskSetTimer(hOlder, 99999, nullptr, nullptr);
    AppTaskSetTimer(hLater, 99999, nullptr, nullptr);
    for (uintptr_t i = 1; i <= 2; ++i)
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hLater, Arg(i), nullptr, nullptr));
    DestroyBeside(door, manager);
    EXPECT_EQ(later.Text(), "user 1, cancel, drop 2");
    EXPECT_EQ(diary.Text(), "cancel");
}

// A cancel keeps the record while it is in its handler, also of a task that finds no room among the
// idle ones and ends by itself.
TEST_F(TaskShutdown, ACancelKeepsTheRecord)
{
    for (const bool bByItself : {true, false}) {
        Door door;
        Diary diary, stopper([&](const Diary::Call &) { door.Pass(); });
        Manager manager;
        HAppTask hParked = manager.New(diary), hTask = manager.New(diary);
        manager.Park(hParked);
        HAppTimer hTimer = AppTaskSetTimer(hTask, 99999, Diary::Handle, &stopper);
        std::thread canceller([&] { AppTaskCancelTimer(hTimer); });
        door.AwaitVisitor();
        if (bByItself) {
            app::LockGuard(manager.Get()->hLock),
                manager.Get()->hIdleTaskList->dwMaxSize = 1; // no room
            EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
            EXPECT_TRUE(test::WaitUntil([&] { return StateOf(hTask) == APP_TASK_STATE_UNINIT; }));
        }
        DestroyBeside(door, manager);
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
        app::LockGuard guard(hTask->hEventQueue->hLock);
        return hTask->hEventQueue->dwSleepers == 1;
    }));
    Door door;
    std::thread sender([&] {
        fault::Fail stall(Fn::pthread_cond_signal, 1, 0);
        stall.Action([&] { door.Pass(); });
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
    });
    DestroyBeside(door, manager);
    sender.join();
    EXPECT_EQ(diary.Text(), "user 1");
}

// The report, slow as its callback may be, comes to a task that is going idle and needs the manager's
// lock: neither do the two meet, nor are those who send to that task kept waiting.
TEST_F(TaskShutdown, AReportPassesATaskThatGoesIdle)
{
    static HAppTask s_hTask;
    static Diary *s_pDiary;
    Diary diary;
    Manager manager;
    s_hTask = manager.New(*(s_pDiary = &diary));
    std::string report;
    AppTaskMgrShow(
        manager.Get(),
        [](const char *szText, void *pvReport) {
            auto pReport = static_cast<std::string *>(pvReport);
            if (pReport->empty()) {
                EXPECT_CODE(APP_OK, AppTaskTerminate(s_hTask));
                s_pDiary->Await("stop");
                AppDelay(20); // until it has come to the lock
                EXPECT_CODE(APP_INVALID_ARG, AppTaskSendEvent(s_hTask, nullptr, nullptr, nullptr));
            }
            *pReport += szText;
        },
        &report);
    EXPECT_NE(report.find(" IDLE Timeout(0ms)"), std::string::npos);
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
}

// ---- Many rounds ------------------------------------------------------------------------------

using Random = std::minstd_rand;

// Tasks that work on each other's, in their handlers, also while they are told what is left: with
// short queues, with an exhausted pool, with timers that fall behind.
struct Round {
    explicit Round(unsigned n)
        : nRound(n), ledger(400, [this](HAppTask, uint32_t) { React(); }), manager(8, 0, 1 << 20)
    {
        for (auto &hTask : tasks) {
            hTask = manager.New(ledger, {"busy", n % 3 ? 100u : 2u});
            ledger.Set(hTask, 99999);
            ledger.Set(hTask, 0);
            if (n % 16 == 0)
                AppTaskSetTimer(hTask, 0, FallBehind, nullptr);
            for (int i = 0; i < 3; ++i)
                ledger.Send(hTask);
        }
        for (uint32_t dwSize = n % 4 ? 0 : 1 << 19; dwSize != 0; dwSize /= 2)
            while (AppMemPoolMalloc(manager.Pool(), dwSize)) {
            }
        for (unsigned i = n % 7; i > 0; --i) // the destruction comes at any time
            std::this_thread::yield();
        for (std::atomic<unsigned> i{0}; i < n * 37 % 2000; ++i) {
        }
    }
    static uint32_t FallBehind(HAppTask hTask, uint32_t dwType, void *, void *)
    {
        if (dwType == APP_TASK_EVENT_TIMEOUT) {
            AppTaskSetTimer(hTask, 0, FallBehind, nullptr);
            AppDelay(1);
        }
        return 0;
    }
    void React()
    {
        const unsigned n = nActs++, nHow = (n + nRound) % 7;
        HAppTask hTask = tasks[(n * 5 + nRound) % 3], hNew = nullptr;
        if (!hTask || n > 60)
            return;
        if (nHow == 0)
            ledger.Set(hTask, n % 2 * 10);
        else if (nHow == 1)
            AppTaskCancelTimer(ledger.Set(hTask, 0));
        else if (nHow == 2 && n > 30)
            AppTaskTerminate(hTask);
        else if (nHow == 3 && n > 50)
            AppTaskMgrShow(manager.Get(), nullptr, nullptr);
        else if (nHow == 4 && n > 40)
            AppTaskMgrNewTask(manager.Get(), "new", 9, 65536, 0, 0, Ledger::Handle, &ledger, &hNew);
        else
            ledger.Send(hTask, n % 4 == 0);
    }

    const unsigned nRound;
    std::atomic<HAppTask> tasks[3] = {};
    std::atomic<unsigned> nActs{0};
    Ledger ledger;
    Manager manager;
};

TEST_F(TaskShutdown, RoundsEndWithEverythingTold)
{
    g_byAppLogLevel[0] = APP_LOG_ALWAYS;
    for (unsigned nRound = 0; nRound < test::Scaled(10000); ++nRound) {
        Round round(nRound);
        round.manager.Destroy();
        round.ledger.ExpectBalance();
        ASSERT_FALSE(HasFailure()) << "in round " << nRound;
    }
}

// Everything at once: tasks created, sent to, terminated, reused, timed out and ended for want of
// room, at random from several threads, reports taken all the while.
class Storm
{
public:
    Storm()
        : m_ledger(kEvents * 50, [this](HAppTask hTask, uint32_t dwType) { React(hTask, dwType); })
    {
        app::LockGuard guard(m_manager.Get()->hLock);
        m_manager.Get()->hIdleTaskList->dwMaxSize = 4; // further ones end at once
    }
    void Run(unsigned nSeed)
    {
        test::RunThreads(5, [&](unsigned nThread) {
            Random random(nSeed * 5 + nThread);
            while (m_nSent < kEvents)
                if (nThread < 3)
                    Send(m_slots[random() % kSlots], random);
                else if (nThread < 4)
                    Fill(m_slots[random() % kSlots], random);
                else if (AppDelay(1); true) // the locks are not fair
                    AppTaskMgrShow(
                        m_manager.Get(), [](const char *, void *) {}, nullptr);
        });
        m_manager.Destroy();
        m_ledger.ExpectBalance();
    }

private:
    // The application's side of a task: a handle is used under the slot's lock, shared, and
    // forgotten under it, exclusively, when the STOP notice says so.
    struct Slot {
        std::shared_mutex mutex;
        HAppTask hTask = nullptr;
    };
    static constexpr unsigned kSlots = 20, kEvents = 2000;

    // What handlers do, at their own task: the slot's lock would be a rope around its neck.
    void React(HAppTask hTask, uint32_t dwType)
    {
        const unsigned nCall = ++m_nCalls;
        if (dwType == APP_TASK_EVENT_STOP) {
            for (Slot &slot : m_slots) {
                std::unique_lock<std::shared_mutex> lock(slot.mutex);
                if (slot.hTask == hTask)
                    slot.hTask = nullptr;
            }
            test::LookOften(hTask); // ends soon when nobody takes it
        } else if (dwType == APP_TASK_EVENT_USER && m_nSent < kEvents) {
            if (nCall % 16 == 0)
                m_ledger.Set(hTask, nCall % 64);
            if (nCall % 64 == 1)
                m_ledger.Send(hTask, nCall % 128 == 1);
            if (nCall % 200 == 3)
                AppTaskTerminate(hTask);
        }
    }
    void Send(Slot &slot, Random &random)
    {
        std::shared_lock<std::shared_mutex> lock(slot.mutex);
        if (!slot.hTask || !m_ledger.Send(slot.hTask, random() % 8 == 0))
            return std::this_thread::yield();
        ++m_nSent;
        if (random() % 64 == 0) {
            HAppTimer hTimer = m_ledger.Set(slot.hTask, random() % 20);
            AppTaskResetTimer(hTimer);
            AppTaskCancelTimer(hTimer); // perhaps told already, and another timer by now
        }
        if (random() % 100 == 0)
            AppTaskTerminate(slot.hTask);
    }
    void Fill(Slot &slot, Random &random)
    {
        std::unique_lock<std::shared_mutex> lock(slot.mutex);
        if (!slot.hTask && AppTaskMgrNewTask(m_manager.Get(), "storm", 1 + random() % 50,
                                             128 * 1024, 0, random() % 4 == 0 ? 10 : 0,
                                             Ledger::Handle, &m_ledger, &slot.hTask) == APP_OK)
            m_ledger.Set(slot.hTask, 15); // lets it notice its idle time-out
    }

    Ledger m_ledger;
    Slot m_slots[kSlots];
    Manager m_manager{kSlots, 20, 16 << 20};
    std::atomic<unsigned> m_nSent{0}, m_nCalls{0};
};

TEST_F(TaskShutdown, StormsEndWithEverythingTold)
{
    g_byAppLogLevel[0] = APP_LOG_ALWAYS;
    for (unsigned i = 0; i < test::Scaled(100) + 5 && !HasFailure(); ++i)
        std::make_unique<Storm>()->Run(i + 1);
}

} // namespace
