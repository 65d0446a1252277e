// SPDX-License-Identifier: MIT
//
// The end of tasks and managers: what the model of the protocol leaves out (the pool, the handlers,
// the idle time-out), in forced order, a thread standing still in the window that matters; then
// everything at once, in many rounds.  Managers live in a pool that is destroyed right after them,
// or on the heap: in both cases the address sanitizer sees every late touch.
#include <random>
#include <shared_mutex>

#include "support/log_capture.h"
#include "support/tasks.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

using test::Arg;
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
        std::thread destroyer = test::BeginDestroy(manager);
        EXPECT_FALSE(
            test::WaitUntil([&] { return !manager.Get(); }, std::chrono::milliseconds(100)));
        door.Open();
        destroyer.join();
    }

    test::Watchdog watchdog;
    test::LogCapture log;
};

// Called by a STOP notice, lets the idle task look at its time-out every 10 ms instead of every
// 5 s, by a timer that no public operation would set.
uint32_t LookOften(HAppTask hTask, uint32_t dwType, void *, void *)
{
    if (dwType == APP_TASK_EVENT_TIMER_CANCEL)
        return 0;
    app::LockGuard guard(hTask);
    HAppTimer hTimer = nullptr;
    return _AppTimerMgrNewTimer(hTask->ptTimerMgr, 10, LookOften, nullptr, &hTimer);
}

// ---- Forced windows ---------------------------------------------------------------------------

// With an exhausted pool a waiting idle task is handed out, and waiting tasks end, at once: none of
// it may wait until a thread wakes by itself, after up to five seconds.  Nor does a handler that
// sends to itself hold back the end, in which it may still ask for a report and is refused a task.
TEST_F(TaskShutdown, NeitherReuseNorTheEndNeedsMemory)
{
    Diary quiet;
    Door door;
    Diary endless([&](const Diary::Call &call) {
        AppTaskSendEvent(call.hTask, nullptr, nullptr, nullptr);
        door.Pass();
        AppTaskMgrShow(call.hTask->ptTaskMgr, nullptr, nullptr);
        HAppTask hNew = call.hTask;
        EXPECT_CODE(APP_INVALID_ARG, AppTaskMgrNewTask(call.hTask->ptTaskMgr, "late", 1, 0, 0, 0,
                                                       nullptr, nullptr, &hNew));
        EXPECT_EQ(hNew, nullptr);
    });
    Manager manager(8, 0, 1 << 20);
    manager.New(quiet);
    HAppTask hEndless = manager.New(endless), hParked = manager.New(quiet);
    manager.Park(hParked);
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hEndless, nullptr, nullptr, nullptr));
    door.AwaitVisitor(); // one event in hand, one queued: room for one more will come free
    AppDelay(400);       // the first, short waits are over
    manager.Exhaust();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(manager.New(quiet), hParked);
    EXPECT_TRUE(test::WaitUntil( // the thread has seen its new owner
        [&] { return app::Peek(hParked->pfnLastHandler) == _AppTaskRefreshHandler; }));
    DestroyBeside(door, manager);
    EXPECT_LT(test::ElapsedMs(start), 3000);
    EXPECT_EQ(endless.Text(), "user 0, drop 0");
}

// A cancel keeps the record while it is in its handler, also of a task that went idle by its own
// time-out, was handed out, went idle again and ended when nobody took it.
TEST_F(TaskShutdown, ACancelKeepsTheRecord)
{
    Door door;
    Diary stopper([&](const Diary::Call &) { door.Pass(); });
    Diary lives(
        [](const Diary::Call &call) { LookOften(call.hTask, call.dwType, nullptr, nullptr); });
    Manager manager(8, 10);
    HAppTask hTask = manager.New(nullptr, nullptr, {"t", 9, 1});
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
    EXPECT_EQ(manager.New(lives), hTask);
    HAppTimer hTimer = AppTaskSetTimer(hTask, 99999, Diary::Handle, &stopper);
    std::thread canceller([&] { AppTaskCancelTimer(hTimer); });
    door.AwaitVisitor();
    EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
    EXPECT_TRUE(test::WaitUntil([&] { return test::StateOf(hTask) == APP_TASK_STATE_UNINIT; }));
    DestroyBeside(door, manager);
    canceller.join();
    EXPECT_EQ(lives.Text() + stopper.Text(), "stopcancel");
}

// A handler that runs late in the destruction may use a task whose thread has left: the record lives.
TEST_F(TaskShutdown, HandlersMayUseEveryTaskToTheEnd)
{
    HAppTask hOlder = nullptr;
    HAppTimer hTimer = nullptr;
    Door door;
    Diary diary, later([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_USER)
            door.Pass();
        EXPECT_CODE(APP_INVALID_ARG, AppTaskSendEvent(hOlder, nullptr, nullptr, nullptr));
        EXPECT_CODE(APP_INVALID_STATE, AppTaskResetTimer(hTimer));
    });
    Manager manager;
    hOlder = manager.New(diary);
    HAppTask hLater = manager.New(later);
    hTimer = AppTaskSetTimer(hOlder, 99999, nullptr, nullptr);
    for (uintptr_t i = 1; i <= 2; ++i)
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hLater, Arg(i), nullptr, nullptr));
    DestroyBeside(door, manager);
    EXPECT_EQ(later.Text() + diary.Text(), "user 1, drop 2cancel");
}

// A send stands still between its event's place in the queue and the wake: its task's thread, which
// has been promised the event, does not leave before.
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
    std::thread sender([&] { AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr); });
    DestroyBeside(door, manager);
    sender.join();
    log.OnLine(nullptr);
    EXPECT_EQ(diary.Text(), "user 1");
}

// ---- Many rounds ------------------------------------------------------------------------------

// Everything at once: tasks created, sent to by others and by each other's handlers, terminated,
// reused, timed out and ended for want of room, at random from several threads, reports taken all
// the while; then the manager's end, with its pool exhausted or not, beside handlers that go on.
class Storm
{
public:
    explicit Storm(unsigned nSeed)
        : m_nSeed(nSeed), m_nEvents(nSeed % 50 == 0 ? 2000 : 40),
          m_ledger(m_nEvents * 60 + 100,
                   [this](HAppTask hTask, uint32_t dwType) { React(hTask, dwType); })
    {
        HAppTaskMgr hTaskMgr = m_manager.Get();
        app::LockGuard guard(hTaskMgr);
        hTaskMgr->hIdleTaskList->dwMaxSize = 4; // further ones end at once
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
        if (m_nSeed % 4 == 0)
            m_manager.Exhaust();
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
            LookOften(hTask, dwType, nullptr, nullptr); // ends soon when nobody takes it
        } else if (nCall < m_nEvents * 3) {
            if (nCall % 64 == 2)
                AppTaskTerminate(hTask);
            Slot &slot = m_slots[nCall % m_slots.size()];
            if (nCall % 4 == 1 && slot.mutex.try_lock_shared()) {
                std::shared_lock<std::shared_mutex> lock(slot.mutex, std::adopt_lock);
                Use(slot.hTask, nCall);
            }
        }
    }
    bool Use(HAppTask hTask, unsigned nHow)
    {
        if (hTask && nHow % 8 == 1) {
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
