// SPDX-License-Identifier: MIT
#ifndef APPCORE_UTILS_LOCK_GUARD_H
#define APPCORE_UTILS_LOCK_GUARD_H

#include "appcore/platform.h"
#include "utils/held_lines.h"

namespace app
{

// Holds a lock for a scope.  A null lock counts as taken: containers without a lock use the same
// code.  Tests true when the lock is held (or there is none).  Lines logged meanwhile are printed
// when the thread's outermost guard has given its lock.
class [[nodiscard]] LockGuard
{
public:
    explicit LockGuard(HAppLock hLock, uint32_t dwTimeout = 0)
        : m_hLock(hLock), m_bTaken(!hLock || AppLockTakeByTime(hLock, dwTimeout) == APP_OK)
    {
        if (m_bTaken && m_hLock)
            m_lines.Begin();
    }
    ~LockGuard()
    {
        if (!m_bTaken || !m_hLock)
            return;
        AppLockGive(m_hLock);
        m_lines.End(); // touches nothing but the guard: the record may be gone
    }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

    explicit operator bool() const { return m_bTaken; }

    // The lock is taken for good: its owner is about to destroy it.
    void Release()
    {
        m_hLock = nullptr;
        m_lines.End();
    }

private:
    HAppLock m_hLock;
    bool m_bTaken;
    HeldLines m_lines;
};

// Gives the lock that a guard of this thread holds, and no other does, for a scope in which a
// handler runs.
class [[nodiscard]] WithoutLock
{
public:
    explicit WithoutLock(HAppLock hLock) : m_hLock(hLock)
    {
        AppLockGive(m_hLock);
        m_lines.PrintHeld();
    }
    ~WithoutLock() { AppLockTakeByTime(m_hLock, 0); }
    WithoutLock(const WithoutLock &) = delete;
    WithoutLock &operator=(const WithoutLock &) = delete;

private:
    HAppLock m_hLock;
    LinesAtOnce m_lines;
};

} // namespace app

#endif
