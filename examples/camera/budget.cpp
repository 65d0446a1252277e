// SPDX-License-Identifier: MIT
#include "budget.h"

#include <appcore/appcore.h>

namespace camera
{

constexpr uint32_t kOne = 1000; // thousandths
constexpr uint32_t kFullMs = 2000;

// A thousandth comes each millisecond for each one that there may be in a second.
static void Fill(TBucket *ptBucket, uint32_t dwTick, uint32_t dwRate)
{
    const uint32_t dwMs = AppConvertTickToMS(AppTickDiff(ptBucket->dwTick, dwTick));
    const uint64_t qwMost = uint64_t{kFullMs} * dwRate;
    const uint64_t qwNow = ptBucket->dwThousandths + uint64_t{dwMs} * dwRate;
    ptBucket->dwThousandths = static_cast<uint32_t>(qwNow < qwMost ? qwNow : qwMost);
    ptBucket->dwTick = dwTick;
}

// The address's bucket, or a full one in place of that which was used longest ago.
static TBucket *FindSource(TBudget *ptBudget, uint32_t dwIpv4, uint32_t dwTick, uint32_t dwRate)
{
    TSourceBucket *ptOldest = &ptBudget->atSource[0];
    for (TSourceBucket &source : ptBudget->atSource) {
        if (source.bUsed && source.dwIpv4 == dwIpv4)
            return &source.tBucket;
        if (!ptOldest->bUsed)
            continue;
        if (!source.bUsed || AppTickDiff(source.tBucket.dwTick, dwTick) >
                                 AppTickDiff(ptOldest->tBucket.dwTick, dwTick))
            ptOldest = &source;
    }
    *ptOldest = {dwIpv4, true, {dwTick, kFullMs * dwRate}};
    return &ptOldest->tBucket;
}

bool BudgetTake(TBudget *ptBudget, uint32_t dwIpv4, uint32_t dwTick, uint32_t dwCount,
                uint32_t dwEach, uint32_t dwAll)
{
    if (!ptBudget->bStarted)
        ptBudget->tAll = {dwTick, kFullMs * dwAll};
    ptBudget->bStarted = true;
    TBucket *ptSource = FindSource(ptBudget, dwIpv4, dwTick, dwEach);
    Fill(ptSource, dwTick, dwEach);
    Fill(&ptBudget->tAll, dwTick, dwAll);
    const uint32_t dwTaken = dwCount * kOne;
    if (ptSource->dwThousandths < dwTaken || ptBudget->tAll.dwThousandths < dwTaken)
        return false;
    ptSource->dwThousandths -= dwTaken;
    ptBudget->tAll.dwThousandths -= dwTaken;
    return true;
}

} // namespace camera
