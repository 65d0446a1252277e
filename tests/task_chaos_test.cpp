// SPDX-License-Identifier: MIT
//
// Everything at once: tasks created, sent to, terminated, reused, timed out and destroyed at random
// from several threads, managers created and destroyed, reports taken all the while.  Every event
// and every timer is accounted for exactly once.
#include <memory>
#include <random>
#include <shared_mutex>

#include "support/log_capture.h"
#include "support/tasks.h"
#include "utils/lock_guard.h"
#include "utils/log.h"

using test::Ledger;
using test::Manager;

namespace
{

constexpr unsigned kSlots = 60;
constexpr unsigned kSenders = 4;
constexpr unsigned kManagers = 4; // one after the other
const unsigned kEvents = test::Scaled(100000) / kManagers / kSenders;

// The application's side of a task: a handle is used under the slot's lock, shared, and forgotten
// under it, exclusively, when the STOP notice says so.
struct Slot {
    std::shared_mutex mutex;
    HAppTask hTask = nullptr;
};

using Random = std::minstd_rand;

class Chaos
{
public:
    Chaos()
        : m_ledger(kEvents * kSenders * 4 + 200000,
                   [this](HAppTask hTask, uint32_t dwType) { React(hTask, dwType); }),
          m_manager(kSlots, 30, 64 << 20)
    {
        app::LockGuard guard(m_manager.Get());
        m_manager.Get()->hIdleTaskList->dwMaxSize = 8; // further ones end at once
    }
    void Run()
    {
        test::RunThreads(kSenders + 3, [this](unsigned nThread) {
            Random random(nThread + 1);
            if (nThread < kSenders)
                Send(random);
            else if (nThread < kSenders + 2)
                Fill(random);
            for (; m_nSending != 0; AppDelay(1)) // the locks are not fair
                AppTaskMgrShow(
                    m_manager.Get(), [](const char *, void *) {}, nullptr);
        });
        m_manager.Destroy();
        m_ledger.ExpectBalance();
        EXPECT_GT(m_nStops.load(), 0u); // how many is chance
    }

private:
    // What handlers do, at their own task: the slot's lock would be a rope around its neck.
    void React(HAppTask hTask, uint32_t dwType)
    {
        const unsigned nCall = ++m_nCalls;
        if (dwType == APP_TASK_EVENT_STOP) {
            ++m_nStops;
            for (Slot &slot : m_slots) {
                std::unique_lock<std::shared_mutex> lock(slot.mutex);
                if (slot.hTask == hTask)
                    slot.hTask = nullptr;
            }
            test::LookOften(hTask); // ends soon when nobody takes it
        } else if (dwType == APP_TASK_EVENT_USER && m_nSending != 0) {
            if (nCall % 16 == 0)
                m_ledger.Set(hTask, nCall % 64);
            if (nCall % 64 == 1)
                m_ledger.Send(hTask, nCall % 128 == 1);
            if (nCall % 256 == 2)
                AppTaskCancelTimer(m_ledger.Set(hTask, 0));
            if (nCall % 200 == 3)
                AppTaskTerminate(hTask);
        }
    }
    // False when it is refused: full, or going idle.
    bool SendTo(HAppTask hTask, Random &random)
    {
        const bool bSent = m_ledger.Send(hTask, random() % 8 == 0);
        if (random() % 64 == 0) {
            HAppTimer hTimer = m_ledger.Set(hTask, random() % 20);
            if (random() % 2)
                AppTaskResetTimer(hTimer);
            if (random() % 2)
                AppTaskCancelTimer(hTimer); // perhaps told already, and another timer by now
        }
        if (random() % 100 == 0)
            AppTaskTerminate(hTask);
        return bSent;
    }
    void Send(Random &random)
    {
        for (unsigned nSent = 0; nSent < kEvents;) {
            Slot &slot = m_slots[random() % kSlots];
            std::shared_lock<std::shared_mutex> lock(slot.mutex);
            if (slot.hTask && SendTo(slot.hTask, random))
                ++nSent;
            else
                std::this_thread::yield();
        }
        --m_nSending;
    }
    void Fill(Random &random)
    {
        for (; m_nSending != 0; std::this_thread::yield()) {
            Slot &slot = m_slots[random() % kSlots];
            std::unique_lock<std::shared_mutex> lock(slot.mutex);
            const uint32_t dwIdle = random() % 4 == 0 ? 10 : 0;
            if (!slot.hTask &&
                AppTaskMgrNewTask(m_manager.Get(), "chaos", 1 + random() % 50, 128 * 1024, 0,
                                  dwIdle, Ledger::Handle, &m_ledger, &slot.hTask) == APP_OK)
                m_ledger.Set(slot.hTask, 15); // lets it notice its idle time-out
        }
    }

    Ledger m_ledger;
    Slot m_slots[kSlots];
    Manager m_manager;
    std::atomic<unsigned> m_nSending{kSenders}, m_nCalls{0}, m_nStops{0};
};

TEST(TaskChaos, TellsEverythingExactlyOnce)
{
    test::Watchdog watchdog;
    test::LogCapture log(APP_LOG_ALWAYS);
    for (unsigned i = 0; i < kManagers && !HasFailure(); ++i)
        std::make_unique<Chaos>()->Run();
}

} // namespace
