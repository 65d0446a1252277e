// SPDX-License-Identifier: MIT
//
// How often something may be done: so often a second for one address, and so often for all.
#ifndef CAMERA_BUDGET_H
#define CAMERA_BUDGET_H

#include <stdint.h>

namespace camera
{

// A token bucket: what it holds at dwTick.
struct TBucket {
    uint32_t dwTick;
    uint32_t dwThousandths;
};

struct TSourceBucket {
    uint32_t dwIpv4;
    bool bUsed;
    TBucket tBucket;
};

// Addresses can be invented: only so many are remembered, and the limit for all holds for them too.
struct TBudget {
    TBucket tAll;
    TSourceBucket atSource[64];
    bool bStarted;
};

// Takes so many for the address; false when they are not there.  A bucket fills with dwEach or dwAll
// a second and holds as many as come in two.  Nothing is taken from one that the other refuses.
bool BudgetTake(TBudget *ptBudget, uint32_t dwIpv4, uint32_t dwTick, uint32_t dwCount,
                uint32_t dwEach, uint32_t dwAll);

} // namespace camera

#endif
