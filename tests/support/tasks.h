// SPDX-License-Identifier: MIT
//
// What the tests of tasks share: a diary of the calls that a handler gets, a door at which a
// handler stops, a manager that ends with its scope, and a watchdog.
#ifndef APPCORE_TESTS_SUPPORT_TASKS_H
#define APPCORE_TESTS_SUPPORT_TASKS_H

#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include "appcore/appcore.h"
#include "support/expect.h"
#include "support/fault.h"
#include "task/task.h"
#include "task/timer.h"
#include "utils/lock_guard.h"

namespace test
{

// Arguments of events are small numbers.
inline void *Arg(uintptr_t nValue)
{
    return reinterpret_cast<void *>(nValue);
}

// Closed at first.  Whoever passes waits until it is opened.  The end opens it and waits until all
// have passed.
class Door
{
public:
    ~Door()
    {
        Open();
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_nInside == 0; });
    }
    void Pass()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_bVisited = true;
        ++m_nInside;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_bOpen; });
        --m_nInside;
        m_changed.notify_all();
    }
    void AwaitVisitor()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_bVisited; });
    }
    void Open()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bOpen = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_nInside = 0;
    bool m_bVisited = false, m_bOpen = false;
};

// Writes down every call that a handler gets: "user 1", "drop 2", "stop", "timeout", "cancel".
// Given as context together with Diary::Handle.
class Diary
{
public:
    struct Call {
        HAppTask hTask;
        uint32_t dwType;
        void *pvArg;
        int32_t nThreadId;
    };
    using Reaction = std::function<void(const Call &)>;

    // `react` runs in the handler, after the call has been written down.
    explicit Diary(const Reaction &react = nullptr) : m_react(react) {}

    static uint32_t Handle(HAppTask hTask, uint32_t dwType, void *pvArg, void *pvDiary);

    std::vector<Call> Calls() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    std::string Text() const;
    // Waits until the text is this one, and shows the difference when it never is.
    void Await(const std::string &text) const
    {
        (void)WaitUntil([&] { return Text() == text; }, std::chrono::seconds(20));
        EXPECT_EQ(Text(), text);
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Call> m_calls;
    Reaction m_react;
};

// What a task is made of; the defaults serve most cases.
struct Wanted {
    const char *szName = "task";
    uint32_t dwMaxEvent = 100;
    uint32_t dwIdleTimeout = 0;
    uint32_t dwMemPoolSize = 0;
};

// A manager for a scope.  `dwPoolSize` other than 0 gives it a created pool of that limit, which is
// destroyed right after the manager: a thread that still touched it would be caught by the address
// sanitizer.
class Manager
{
public:
    explicit Manager(uint32_t dwMaxTask = 8, uint32_t dwIdleTaskTimeout = 0,
                     uint32_t dwPoolSize = 0);
    ~Manager() { Destroy(); }

    HAppTask New(PFAppTaskHandler pfnHandler, void *pvContext, const Wanted &wanted = {});
    // For a diary or a ledger.
    template <typename Owner>
    HAppTask New(Owner &owner, const Wanted &wanted = {})
    {
        return New(Owner::Handle, &owner, wanted);
    }
    void Destroy();
    HAppTaskMgr Get() const { return m_hTaskMgr; }
    HAppMemPool Pool() const { return m_hPool; }
    // Terminates the task and waits until it is parked.
    void Park(HAppTask hTask);
    uint32_t Idle() const;

private:
    HAppMemPool m_hPool = nullptr;
    HAppTaskMgr m_hTaskMgr = nullptr;
};

// Called by a STOP notice, lets the idle task look at its time-out every 10 ms instead of every
// 5 s, by a timer that no public operation would set.  `pOnLook`, may be null, is called at each
// look, after the task has decided whether to end.
void LookOften(HAppTask hTask, const std::function<void()> *pOnLook = nullptr);

// An account of events and timers: each one accepted is told exactly once, each one refused never.
class Ledger
{
public:
    using Reaction = std::function<void(HAppTask hTask, uint32_t dwType)>;

    // For at most `nMost` entries; `react` runs for each call of the task's handler.
    explicit Ledger(size_t nMost, const Reaction &react = nullptr) : m_open(nMost), m_react(react)
    {
    }
    // The task's handler, with the ledger as context.
    static uint32_t Handle(HAppTask hTask, uint32_t dwType, void *pvEntry, void *pvLedger);

    // False when refused.
    bool Send(HAppTask hTask, bool bAssign = false);
    HAppTimer Set(HAppTask hTask, uint32_t dwTimeout);
    size_t Used() const { return m_nUsed.load(); }
    void ExpectBalance() const;

private:
    static uint32_t HandleTimer(HAppTask, uint32_t dwType, void *, void *pvEntry);
    std::atomic<int> &NewEntry() { return m_open.at(m_nUsed++); }

    std::vector<std::atomic<int>> m_open; // 1 when accepted, 1 less when told
    std::atomic<size_t> m_nUsed{0};
    Reaction m_react;
};

// Destroys a manager in a thread of its own.
class Destroyer
{
public:
    // Returns when the destruction has begun.
    explicit Destroyer(Manager &manager)
    {
        HAppTaskMgr hTaskMgr = manager.Get();
        m_thread = std::thread([&] {
            manager.Destroy();
            m_bDone = true;
        });
        EXPECT_TRUE(WaitUntil([&] {
            app::LockGuard guard(hTaskMgr);
            return hTaskMgr->bQuit == 1;
        }));
    }
    ~Destroyer() { m_thread.join(); }
    // Gives a destruction that does not wait as it should the time to show it.
    void ExpectWaits() const
    {
        EXPECT_FALSE(WaitUntil([&] { return m_bDone.load(); }, std::chrono::milliseconds(100)));
    }

private:
    std::atomic<bool> m_bDone{false};
    std::thread m_thread;
};

// Ends a program that hangs.
struct Watchdog {
    Watchdog() { alarm(Scaled(20) == 1 ? 400 : 100); }
    ~Watchdog() { alarm(0); }
};

} // namespace test

#endif
