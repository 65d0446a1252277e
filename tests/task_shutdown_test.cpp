// SPDX-License-Identifier: MIT
//
// The end of tasks and managers: each pairing of a manager's destruction with something under way,
// first in forced order, a thread standing still in the window that matters, then in many rounds.
// Managers live in a pool that is destroyed right after them, or on the heap: in both cases the
// address sanitizer sees every late touch.
#include <random>
#include <shared_mutex>

#include "support/log_capture.h"
#include "support/tasks.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

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

// A task goes idle by its own time-out, is handed out, goes idle again, and ends when nobody takes it.
// From when its thread has decided so, but has not come to carry it out, it is not handed out any
// more; and it is waited for like any other.
TEST_F(TaskShutdown, TimeOutsEndEveryLifeOfATask)
{
    Door door;
    HAppTask hEnding = nullptr;
    const std::function<void()> stall = [&] {
        if (StateOf(hEnding) == APP_TASK_STATE_TERMINATE)
            door.Pass();
    };
    Diary diary, lives([&](const Diary::Call &call) {
        if (call.pvArg == Arg(1)) // lets it look at its time-out
            AppTaskSetTimer(call.hTask, 10, Diary::Handle, &diary);
        else if (lives.Calls().size() > 1)
            test::LookOften(call.hTask, &stall);
    });
    Manager manager(8, 10);
    hEnding = manager.New(lives, {"t", 9, 1});
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
    EXPECT_EQ(manager.New(lives, {"t", 9, 1}), hEnding);
    HAppTask hParked = manager.New(diary);
    manager.Park(hParked);
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hEnding, Arg(1), nullptr, nullptr));
    door.AwaitVisitor();
    EXPECT_EQ(lives.Text(), "stop, user 1, stop");
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
        app::LockGuard guard(hTask->hEventQueue);
        return hTask->hEventQueue->dwSleepers == 1;
    }));
    Door door;
    g_byAppLogLevel[0] = APP_LOG_DEBUG;
    log.OnLine([&](const std::string &line) { // printed when the task's lock has been given
        if (line.find("_AppTaskSendEvent: task") != std::string::npos)
            door.Pass();
    });
    std::thread sender(
        [&] { EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr)); });
    DestroyBeside(door, manager);
    sender.join();
    log.OnLine(nullptr);
    EXPECT_EQ(diary.Text(), "user 1");
}

// ---- Many rounds ------------------------------------------------------------------------------

// Everything at once: tasks created, sent to by others and by each other's handlers, terminated,
// reused, timed out and ended for want of room, at random from several threads, reports taken all
// the while; then the manager's end, beside handlers that go on.
class Storm
{
public:
    explicit Storm(unsigned nSeed)
        : m_nSeed(nSeed), m_nEvents(nSeed % 50 == 0 ? 2000 : 40),
          m_ledger(m_nEvents * 60 + 100,
                   [this](HAppTask hTask, uint32_t dwType) { React(hTask, dwType); })
    {
        app::LockGuard guard(m_manager.Get());
        m_manager.Get()->hIdleTaskList->dwMaxSize = 4; // further ones end at once
    }
    void Run()
    {
        test::RunThreads(4, [this](unsigned nThread) {
            std::minstd_rand random(m_nSeed * 4 + nThread);
            while (m_nSent < m_nEvents && m_ledger.Used() < m_nEvents * 50) {
                Slot &slot = m_slots[random() % m_slots.size()];
                if (nThread < 2)
                    Send(slot, random());
                else if (nThread == 2)
                    Fill(slot, random());
                else if (AppDelay(1); true) // the locks are not fair
                    AppTaskMgrShow(m_manager.Get(), nullptr, nullptr);
            }
        });
        for (uint32_t dwSize = m_nSeed % 4 ? 0 : 1 << 19; dwSize != 0; dwSize /= 2)
            while (AppMemPoolMalloc(m_manager.Pool(), dwSize)) {
            }
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

    void React(HAppTask hTask, uint32_t dwType)
    {
        const unsigned nCall = ++m_nCalls;
        if (dwType == APP_TASK_EVENT_STOP) {
            for (Slot &slot : m_slots) {
                std::unique_lock<std::shared_mutex> lock(slot.mutex);
                if (slot.hTask == hTask)
                    slot.hTask = nullptr;
            }
            if (m_nSeed % 4 != 0)
                test::LookOften(hTask); // ends soon when nobody takes it
        } else if (nCall < m_nEvents * 3) {
            if (nCall % 16 == 0)
                m_ledger.Set(hTask, nCall % 64);
            if (nCall % 64 == 2)
                AppTaskTerminate(hTask);
            Slot &slot = m_slots[nCall % m_slots.size()];
            if (nCall % 4 == 1 && slot.mutex.try_lock_shared()) {
                std::shared_lock<std::shared_mutex> lock(slot.mutex, std::adopt_lock);
                if (slot.hTask)
                    Use(slot.hTask, nCall);
            }
        }
    }
    bool Use(HAppTask hTask, unsigned nHow)
    {
        if (nHow % 8 == 1) {
            HAppTimer hTimer = m_ledger.Set(hTask, nHow % 20);
            AppTaskResetTimer(hTimer);
            AppTaskCancelTimer(hTimer); // perhaps told already, and another timer by now
        }
        return m_ledger.Send(hTask, nHow % 16 < 2);
    }
    void Send(Slot &slot, unsigned nHow)
    {
        std::shared_lock<std::shared_mutex> lock(slot.mutex);
        if (!slot.hTask || !Use(slot.hTask, nHow))
            return std::this_thread::yield();
        ++m_nSent;
        if (nHow % 100 == 0)
            AppTaskTerminate(slot.hTask);
    }
    void Fill(Slot &slot, unsigned nHow)
    {
        std::unique_lock<std::shared_mutex> lock(slot.mutex);
        if (!slot.hTask &&
            AppTaskMgrNewTask(m_manager.Get(), "storm", 1 + nHow % 50, 65536, 0, nHow % 4 ? 0 : 10,
                              Ledger::Handle, &m_ledger, &slot.hTask) == APP_OK)
            m_ledger.Set(slot.hTask, 15); // lets it notice its idle time-out
    }

    const unsigned m_nSeed, m_nEvents;
    Ledger m_ledger;
    std::vector<Slot> m_slots{m_nEvents / 100 + 3};
    Manager m_manager{16, 20, 4 << 20};
    std::atomic<unsigned> m_nSent{0}, m_nCalls{0};
};

TEST_F(TaskShutdown, StormsEndWithEverythingTold)
{
    g_byAppLogLevel[0] = APP_LOG_ALWAYS;
    for (unsigned nSeed = 1; nSeed < test::Scaled(1000) + 50 && !HasFailure(); ++nSeed)
        Storm(nSeed).Run();
}

} // namespace
