// SPDX-License-Identifier: MIT
//
// Guards of the lock that stands as hLock in a record.  A null one counts as taken: containers
// without a lock use the same code.  Lines that are logged while a guard holds its lock are printed
// when the thread's outermost guard has given its own.
#ifndef APPCORE_UTILS_LOCK_GUARD_H
#define APPCORE_UTILS_LOCK_GUARD_H

#include "appcore/platform.h"
#include "base/thread_safety.h"
#include "cross_linux/lock_word.h"
#include "utils/check.h"
#include "utils/held_lines.h"
#include "utils/lock_rank.h"

struct APP_CAPABILITY("lock") TAppLock;

namespace app
{

// What the guards share: one taken lock, or none.
class LockHolder
{
protected:
    LockHolder() = default;
    LockHolder(const LockHolder &) = delete;
    LockHolder &operator=(const LockHolder &) = delete;

    template <bool bInLine>
    void Take(HAppLock hLock, [[maybe_unused]] uint32_t dwRank)
    {
        if (!hLock)
            return;
#ifdef APPCORE_CHECKS
        m_held.Enter(hLock, dwRank, 0);
#endif
        // A semaphore's wait without limit does not fail.
        bInLine ? TakeInLine(hLock, 0) : _AppLockTakeByTime(hLock, 0);
        m_hLock = hLock;
        BeginHolding();
    }
    bool TakeByTime(HAppLock hLock, [[maybe_unused]] uint32_t dwRank, uint32_t dwTimeout)
    {
        if (!hLock)
            return true;
#ifdef APPCORE_CHECKS
        m_held.Enter(hLock, dwRank, dwTimeout);
#endif
        if (TakeInLine(hLock, dwTimeout) != APP_OK) {
            Forget();
            return false;
        }
        m_hLock = hLock;
        BeginHolding();
        return true;
    }
    template <bool bInLine>
    void Give()
    {
        if (!m_hLock)
            return;
        Forget();
        bInLine ? GiveInLine(m_hLock) : _AppLockGive(m_hLock);
        EndHolding(); // touches nothing but the thread's own: the record may be gone
    }
    // The lock is taken for good: its owner is about to destroy it.
    void Keep()
    {
        if (!m_hLock)
            return;
        Forget();
        m_hLock = nullptr;
        EndHolding();
    }

private:
    void Forget()
    {
#ifdef APPCORE_CHECKS
        m_held.Leave();
#endif
    }

    HAppLock m_hLock = nullptr;
#ifdef APPCORE_CHECKS
    HeldLock m_held;
#endif
};

// Holds a record's lock for a scope.
template <bool bInLine>
class APP_SCOPED_CAPABILITY [[nodiscard]] ScopedLock : LockHolder
{
public:
    template <typename Record>
    explicit ScopedLock(Record *ptRecord) APP_ACQUIRE(ptRecord->hLock)
    {
        Take<bInLine>(ptRecord->hLock, RankOf(ptRecord));
    }
    ~ScopedLock() APP_RELEASE() { Give<bInLine>(); }

    void Release() APP_RELEASE() { Keep(); }
};
using LockGuard = ScopedLock<false>;
// Where a call counts: some 80 bytes of code each.
using FastLockGuard = ScopedLock<true>;

// Holds a record's lock until its scope ends, if it was to be had in time.  In line, as senders are.
class APP_SCOPED_CAPABILITY [[nodiscard]] TimedLockGuard : LockHolder
{
public:
    template <typename Record>
    explicit TimedLockGuard(Record *ptRecord) APP_EXCLUDES(ptRecord->hLock)
        : m_hWanted(ptRecord->hLock), m_dwRank(RankOf(ptRecord))
    {
    }
    ~TimedLockGuard() APP_RELEASE() { Give<true>(); }

    bool TakeByTime(uint32_t dwTimeout) APP_TRY_ACQUIRE(true)
    {
        return LockHolder::TakeByTime(m_hWanted, m_dwRank, dwTimeout);
    }

private:
    HAppLock m_hWanted;
    uint32_t m_dwRank;
};

// Gives the lock that a guard of this thread holds, and no other does, for a scope in which a
// handler runs.
class APP_SCOPED_CAPABILITY [[nodiscard]] WithoutLock
{
public:
    template <typename Record>
    explicit WithoutLock(Record *ptRecord) APP_RELEASE(ptRecord->hLock) : m_hLock(ptRecord->hLock)
    {
        GiveInLine(m_hLock);
        m_lines.PrintHeld();
    }
    ~WithoutLock() APP_RELEASE() { TakeInLine(m_hLock, 0); }
    WithoutLock(const WithoutLock &) = delete;
    WithoutLock &operator=(const WithoutLock &) = delete;

private:
    HAppLock m_hLock;
    LinesAtOnce m_lines;
};

// The thread holds the record's lock, by way of a guard that the analysis does not see from here.
template <typename Record>
void AssertHeld([[maybe_unused]] const Record *ptRecord) APP_ASSERT_CAPABILITY(ptRecord->hLock)
{
    APP_CHECK(!ptRecord->hLock || HeldLock::Holds(ptRecord->hLock), "the lock is not held");
}

// Needs no lock: no other thread knows the record yet, or any more.
template <typename Record>
void AssertAlone([[maybe_unused]] const Record *ptRecord) APP_ASSERT_CAPABILITY(ptRecord->hLock)
{
}

} // namespace app

#endif
