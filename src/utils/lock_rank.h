// SPDX-License-Identifier: MIT
//
// The order in which a thread may take the library's locks, verified in builds with APPCORE_CHECKS:
// one taken out of order ends the process, whether or not another thread was there to meet it.
#ifndef APPCORE_UTILS_LOCK_RANK_H
#define APPCORE_UTILS_LOCK_RANK_H

#include "appcore/platform.h"

struct TAppTaskMgr;
struct TAppTask;
struct TAppDoubleList;
struct TAppQueue;
struct TAppMemPool;

namespace app
{

// Outer locks have lower ranks; no two of the same rank at once.  The lock around the named actions
// is outside of all: an action may do anything.
constexpr uint32_t RankOf(const TAppTaskMgr *)
{
    return 1;
}
constexpr uint32_t RankOf(const TAppTask *)
{
    return 2;
}
constexpr uint32_t RankOf(const TAppDoubleList *) // of the named actions
{
    return 3;
}
constexpr uint32_t RankOf(const TAppQueue *)
{
    return 3;
}
constexpr uint32_t RankOf(const TAppMemPool *)
{
    return 4;
}

#ifdef APPCORE_CHECKS
// A lock that the thread holds; in the order of taking, the last one first.
class HeldLock
{
public:
    HeldLock() = default;
    HeldLock(const HeldLock &) = delete;
    HeldLock &operator=(const HeldLock &) = delete;

    // To be called before the lock is waited for.  Only a wait without limit has to keep the order:
    // one that ends by itself cannot hang.
    void Enter(HAppLock hLock, uint32_t dwRank, uint32_t dwTimeout);
    void Leave();
    static bool Holds(HAppLock hLock);
    static bool HoldsAny();

private:
    friend class LocksAside;
    static __thread HeldLock *t_ptLast;

    HeldLock *m_ptOuter = nullptr;
    HAppLock m_hLock = nullptr;
    uint32_t m_dwRank = 0;
};

// For a scope in which a callback runs: what it takes is its own affair.
class LocksAside
{
public:
    LocksAside() : m_ptLast(HeldLock::t_ptLast) { HeldLock::t_ptLast = nullptr; }
    ~LocksAside() { HeldLock::t_ptLast = m_ptLast; }
    LocksAside(const LocksAside &) = delete;
    LocksAside &operator=(const LocksAside &) = delete;

private:
    HeldLock *m_ptLast;
};
#endif

} // namespace app

#endif
