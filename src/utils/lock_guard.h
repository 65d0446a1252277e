// SPDX-License-Identifier: MIT
#ifndef APPCORE_UTILS_LOCK_GUARD_H
#define APPCORE_UTILS_LOCK_GUARD_H

#include "appcore/platform.h"

namespace app
{

// Holds a lock for a scope.  A null lock counts as taken: containers without a lock use the same
// code.  Tests true when the lock is held (or there is none).
class [[nodiscard]] LockGuard
{
public:
    explicit LockGuard(HAppLock hLock, uint32_t dwTimeout = 0)
        : m_hLock(hLock), m_bTaken(!hLock || AppLockTakeByTime(hLock, dwTimeout) == APP_OK)
    {
    }
    ~LockGuard()
    {
        if (m_bTaken && m_hLock)
            AppLockGive(m_hLock);
    }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

    explicit operator bool() const { return m_bTaken; }

    // The lock is taken for good: its owner is about to destroy it.
    void Release() { m_hLock = nullptr; }

private:
    HAppLock m_hLock;
    bool m_bTaken;
};

} // namespace app

#endif
