// SPDX-License-Identifier: MIT
#include "utils/lock_rank.h"

#include "utils/check.h"

#ifdef APPCORE_CHECKS
__thread app::HeldLock *app::HeldLock::t_ptLast;

void app::HeldLock::Enter(HAppLock hLock, uint32_t dwRank, uint32_t dwTimeout)
{
    APP_CHECK(dwTimeout != 0 || !t_ptLast || t_ptLast->m_dwRank < dwRank,
              "a lock is taken out of order");
    m_ptOuter = t_ptLast;
    m_hLock = hLock;
    m_dwRank = dwRank;
    t_ptLast = this;
}

void app::HeldLock::Leave()
{
    t_ptLast = m_ptOuter;
}

bool app::HeldLock::Holds(HAppLock hLock)
{
    for (const HeldLock *pt = t_ptLast; pt; pt = pt->m_ptOuter)
        if (pt->m_hLock == hLock)
            return true;
    return false;
}

bool app::HeldLock::HoldsAny()
{
    return t_ptLast;
}
#endif
