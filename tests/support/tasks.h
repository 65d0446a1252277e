// SPDX-License-Identifier: MIT
//
// What the tests of tasks share: a diary of the calls that a handler gets, a door at which a
// handler stops, a manager that ends with its scope, an account of what is told, and a watchdog.
#ifndef APPCORE_TESTS_SUPPORT_TASKS_H
#define APPCORE_TESTS_SUPPORT_TASKS_H

#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>

#include "appcore/appcore.h"
#include "base/field.h"
#include "cross_linux/cross_linux.h"
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

inline uint32_t StateOf(HAppTask hTask)
{
    return app::Peek(hTask->dwState);
}

// Closed at first.  Whoever passes waits until it is opened.  The end opens it and waits until all
// have passed.
class Door
{
public:
    ~Door()
    {
        Open();
        EXPECT_TRUE(WaitUntil([this] { return m_nInside == 0; }));
    }
    void Pass()
    {
        ++m_nInside;
        m_bVisited = true;
        EXPECT_TRUE(WaitUntil([this] { return m_bOpen.load(); }));
        --m_nInside;
    }
    void AwaitVisitor()
    {
        EXPECT_TRUE(WaitUntil([this] { return m_bVisited.load(); }));
    }
    void Open() { m_bOpen = true; }

private:
    std::atomic<int> m_nInside{0};
    std::atomic<bool> m_bVisited{false}, m_bOpen{false};
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

    static uint32_t Handle(HAppTask hTask, uint32_t dwType, void *pvArg, void *pvDiary)
    {
        auto diary = static_cast<Diary *>(pvDiary);
        const Call call{hTask, dwType, pvArg, _AppThreadGetTID()};
        {
            std::lock_guard<std::mutex> lock(diary->m_mutex);
            diary->m_calls.push_back(call);
        }
        if (diary->m_react)
            diary->m_react(call);
        return 0;
    }
    std::vector<Call> Calls() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    std::string Text() const
    {
        static const char *const names[] = {"refresh", "user", "drop", "stop", "timeout", "cancel"};
        std::string text;
        for (const Call &call : Calls()) {
            text += std::string(text.empty() ? "" : ", ") + names[call.dwType % 6];
            if (call.dwType <= APP_TASK_EVENT_DROP)
                text += " " + std::to_string(reinterpret_cast<uintptr_t>(call.pvArg));
        }
        return text;
    }
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
    explicit Manager(uint32_t dwMaxTask = 8, uint32_t dwIdleTimeout = 0, uint32_t dwPoolSize = 0)
    {
        if (dwPoolSize)
            AppMemPoolCreate(dwPoolSize, 1, 0, &m_hPool);
        HAppTaskMgr hTaskMgr = nullptr;
        EXPECT_CODE(APP_OK, AppTaskMgrCreate(m_hPool, dwMaxTask, dwIdleTimeout, &hTaskMgr));
        m_hTaskMgr = hTaskMgr;
    }
    ~Manager() { Destroy(); }

    HAppTask New(PFAppTaskHandler pfnHandler, void *pvContext, const Wanted &wanted = {})
    {
        HAppTask hTask = nullptr;
        EXPECT_CODE(APP_OK, AppTaskMgrNewTask(m_hTaskMgr, wanted.szName, wanted.dwMaxEvent, 1 << 18,
                                              wanted.dwMemPoolSize, wanted.dwIdleTimeout,
                                              pfnHandler, pvContext, &hTask));
        return hTask;
    }
    // For a diary or a ledger.
    template <typename Owner>
    HAppTask New(Owner &owner, const Wanted &wanted = {})
    {
        return New(Owner::Handle, &owner, wanted);
    }
    void Destroy()
    {
        AppTaskMgrDestroy(m_hTaskMgr);
        m_hTaskMgr = nullptr;
        AppMemPoolDestroy(std::exchange(m_hPool, nullptr));
    }
    HAppTaskMgr Get() const { return m_hTaskMgr; } // null when destroyed
    HAppMemPool Pool() const { return m_hPool; }
    uint32_t Idle() const
    {
        HAppTaskMgr hTaskMgr = m_hTaskMgr;
        app::LockGuard guard(hTaskMgr);
        return hTaskMgr->hIdleTaskList->dwCurSize;
    }
    // Terminates the task and waits until it is parked.
    void Park(HAppTask hTask)
    {
        const uint32_t dwIdle = Idle();
        EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
        EXPECT_TRUE(WaitUntil([&] { return Idle() > dwIdle; }));
    }
    // Leaves nothing in the created pool.
    void Exhaust()
    {
        for (uint32_t dwSize = 1 << 19; dwSize != 0; dwSize /= 2)
            while (AppMemPoolMalloc(m_hPool, dwSize)) {
            }
    }

private:
    HAppMemPool m_hPool = nullptr;
    std::atomic<HAppTaskMgr> m_hTaskMgr{nullptr};
};

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
    static uint32_t Handle(HAppTask hTask, uint32_t dwType, void *pvEntry, void *pvLedger)
    {
        EXPECT_LE(dwType - 1, 2u) << "not a user's event, a drop or a stop";
        EXPECT_EQ(pvEntry == nullptr, dwType == APP_TASK_EVENT_STOP);
        if (pvEntry)
            --*static_cast<std::atomic<int> *>(pvEntry);
        if (const Reaction &react = static_cast<Ledger *>(pvLedger)->m_react)
            react(hTask, dwType);
        return 0;
    }
    // False when refused.
    bool Send(HAppTask hTask, bool bAssign = false)
    {
        std::atomic<int> &entry = m_open.at(m_nUsed++);
        const auto send = bAssign ? AppTaskAssignEvent : AppTaskSendEvent;
        const bool bAccepted = send(hTask, &entry, nullptr, nullptr) == APP_OK;
        entry += bAccepted;
        return bAccepted;
    }
    HAppTimer Set(HAppTask hTask, uint32_t dwTimeout)
    {
        std::atomic<int> &entry = m_open.at(m_nUsed++);
        HAppTimer hTimer = AppTaskSetTimer(hTask, dwTimeout, HandleTimer, &entry);
        entry += hTimer != nullptr;
        return hTimer;
    }
    size_t Used() const { return m_nUsed.load(); }
    void ExpectBalance() const
    {
        for (size_t i = 0; i < m_nUsed; ++i)
            EXPECT_EQ(m_open[i], 0) << "entry " << i;
    }

private:
    static uint32_t HandleTimer(HAppTask, uint32_t dwType, void *, void *pvEntry)
    {
        EXPECT_LE(dwType - APP_TASK_EVENT_TIMEOUT, 1u) << "neither expired nor cancelled";
        --*static_cast<std::atomic<int> *>(pvEntry);
        return 0;
    }

    std::vector<std::atomic<int>> m_open; // 1 when accepted, 1 less when told
    std::atomic<size_t> m_nUsed{0};
    Reaction m_react;
};

// Destroys a manager in the thread returned; returns when the destruction has begun.
inline std::thread BeginDestroy(Manager &manager)
{
    HAppTaskMgr hTaskMgr = manager.Get();
    std::thread destroyer([&] { manager.Destroy(); });
    EXPECT_TRUE(WaitUntil([&] {
        app::LockGuard guard(hTaskMgr);
        return hTaskMgr->bQuit == 1;
    }));
    return destroyer;
}

// Ends a program that hangs.
struct Watchdog {
    Watchdog() { alarm(Scaled(20) == 1 ? 400 : 100); }
    ~Watchdog() { alarm(0); }
};

} // namespace test

#endif
