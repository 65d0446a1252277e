// SPDX-License-Identifier: MIT
//
// What must hold of an engine; empty in the release build.
#include "mempool_implement/engine.h"
#include "utils/double_list.h"

#ifdef APPCORE_CHECKS
static bool BlocksAreValid(const TAppDoubleList *ptList, uint32_t dwBlockSize)
{
    for (HAppDoubleListNode hNode = ptList->ptHead; hNode; hNode = hNode->ptNext) {
        auto ptHead = static_cast<const TAppMemBlockHead *>(hNode->pvData);
        if (ptHead->dwBlockSize != dwBlockSize || ptHead->hNode != hNode)
            return false;
    }
    return true;
}

bool app::EngineAddsUp(const TAppMemPoolImpl *ptImpl)
{
    uint32_t dwOnCount = 0;
    uint32_t dwOnSize = 0;
    uint32_t dwOffSize = 0;
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k) {
        dwOnCount += ptImpl->hOnList[k]->dwCurSize;
        dwOnSize += ptImpl->hOnList[k]->dwCurSize * (32u << k);
        dwOffSize += ptImpl->hOffList[k]->dwCurSize * (32u << k);
    }
    // What goes beyond the lists are large blocks.
    return ptImpl->dwOnWorkCount >= dwOnCount && ptImpl->dwOnWorkSize >= dwOnSize &&
           (ptImpl->dwOnWorkCount == dwOnCount) == (ptImpl->dwOnWorkSize == dwOnSize) &&
           ptImpl->dwTotalSize == ptImpl->dwOnWorkSize + dwOffSize;
}

bool app::ClassIsValid(const TAppMemPoolImpl *ptImpl, uint32_t dwClass)
{
    return BlocksAreValid(ptImpl->hOnList[dwClass], 32u << dwClass) &&
           BlocksAreValid(ptImpl->hOffList[dwClass], (32u << dwClass) | kIdle);
}

bool app::EngineIsValid(const TAppMemPoolImpl *ptImpl)
{
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k)
        if (!ListIsValid(ptImpl->hOnList[k]) || !ListIsValid(ptImpl->hOffList[k]) ||
            !ClassIsValid(ptImpl, k))
            return false;
    return EngineAddsUp(ptImpl);
}
#endif
