// SPDX-License-Identifier: MIT
#include "support/tasks.h"

#include "cross_linux/cross_linux.h"

namespace test
{

namespace
{

std::string Word(const Diary::Call &call)
{
    static const char *const names[] = {"refresh", "user", "drop", "stop", "timeout", "cancel"};
    const bool bNumber = call.dwType <= APP_TASK_EVENT_DROP;
    return names[call.dwType % 6] +
           (bNumber ? " " + std::to_string(reinterpret_cast<uintptr_t>(call.pvArg)) : "");
}

} // namespace

uint32_t Diary::Handle(HAppTask hTask, uint32_t dwType, void *pvArg, void *pvDiary)
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

std::string Diary::Text() const
{
    std::string text;
    for (const Call &call : Calls())
        text += (text.empty() ? "" : ", ") + Word(call);
    return text;
}

Manager::Manager(uint32_t dwMaxTask, uint32_t dwIdleTaskTimeout, uint32_t dwPoolSize)
{
    if (dwPoolSize) {
        EXPECT_CODE(APP_OK, AppMemPoolCreate(dwPoolSize, 1, 0, &m_hPool));
    }
    EXPECT_CODE(APP_OK, AppTaskMgrCreate(m_hPool, dwMaxTask, dwIdleTaskTimeout, &m_hTaskMgr));
}

HAppTask Manager::New(PFAppTaskHandler pfnHandler, void *pvContext, const Wanted &wanted)
{
    HAppTask hTask = nullptr;
    EXPECT_CODE(APP_OK, AppTaskMgrNewTask(m_hTaskMgr, wanted.szName, wanted.dwMaxEvent, 256 * 1024,
                                          wanted.dwMemPoolSize, wanted.dwIdleTimeout, pfnHandler,
                                          pvContext, &hTask));
    return hTask;
}

void Manager::Destroy()
{
    AppTaskMgrDestroy(m_hTaskMgr);
    AppMemPoolDestroy(m_hPool);
    m_hTaskMgr = nullptr;
    m_hPool = nullptr;
}

uint32_t Manager::Idle() const
{
    app::LockGuard guard(m_hTaskMgr);
    return m_hTaskMgr->hIdleTaskList->dwCurSize;
}

void Manager::Park(HAppTask hTask)
{
    const uint32_t dwIdle = Idle();
    EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
    EXPECT_TRUE(WaitUntil([&] { return Idle() > dwIdle; }));
}

static uint32_t Look(HAppTask hTask, uint32_t dwType, void *, void *pvOnLook)
{
    auto pOnLook = static_cast<const std::function<void()> *>(pvOnLook);
    if (pOnLook)
        (*pOnLook)();
    if (dwType == APP_TASK_EVENT_TIMEOUT)
        LookOften(hTask, pOnLook);
    return 0;
}

void LookOften(HAppTask hTask, const std::function<void()> *pOnLook)
{
    app::LockGuard guard(hTask);
    HAppTimer hTimer = nullptr;
    EXPECT_CODE(APP_OK,
                _AppTimerMgrNewTimer(hTask->ptTimerMgr, 10, Look,
                                     const_cast<std::function<void()> *>(pOnLook), &hTimer));
}

uint32_t Ledger::Handle(HAppTask hTask, uint32_t dwType, void *pvEntry, void *pvLedger)
{
    EXPECT_LE(dwType - 1, 2u) << "not a user's event, a drop or a stop";
    EXPECT_EQ(pvEntry == nullptr, dwType == APP_TASK_EVENT_STOP);
    if (pvEntry)
        --*static_cast<std::atomic<int> *>(pvEntry);
    if (const Reaction &react = static_cast<Ledger *>(pvLedger)->m_react)
        react(hTask, dwType);
    return 0;
}

uint32_t Ledger::HandleTimer(HAppTask, uint32_t dwType, void *, void *pvEntry)
{
    EXPECT_LE(dwType - APP_TASK_EVENT_TIMEOUT, 1u) << "neither expired nor cancelled";
    --*static_cast<std::atomic<int> *>(pvEntry);
    return 0;
}

bool Ledger::Send(HAppTask hTask, bool bAssign)
{
    std::atomic<int> &entry = NewEntry();
    const auto send = bAssign ? AppTaskAssignEvent : AppTaskSendEvent;
    const bool bAccepted = send(hTask, &entry, nullptr, nullptr) == APP_OK;
    entry += bAccepted;
    return bAccepted;
}

HAppTimer Ledger::Set(HAppTask hTask, uint32_t dwTimeout)
{
    std::atomic<int> &entry = NewEntry();
    HAppTimer hTimer = AppTaskSetTimer(hTask, dwTimeout, HandleTimer, &entry);
    entry += hTimer != nullptr;
    return hTimer;
}

void Ledger::ExpectBalance() const
{
    for (size_t i = 0; i < m_nUsed; ++i)
        EXPECT_EQ(m_open[i], 0) << "entry " << i;
}

} // namespace test
