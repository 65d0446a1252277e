// SPDX-License-Identifier: MIT
//
// What must hold of an engine; empty in the release build.
#include "mempool_implement/engine.h"
#include "utils/double_list.h"

#ifdef APPCORE_CHECKS
bool app::EngineAddsUp(const TAppMemPoolImpl *ptImpl)
{
    uint32_t dwCount = 0;
    uint32_t dwSize = 0;
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k) {
        const TAppMemClass &tClass = ptImpl->atClass[k];
        if (tClass.dwInUse > tClass.hBlocks->dwCurSize)
            return false;
        dwCount += tClass.hBlocks->dwCurSize;
        dwSize += tClass.hBlocks->dwCurSize * (32u << k);
    }
    // What goes beyond the lists are large blocks.
    return ptImpl->dwTotalCount >= dwCount && ptImpl->dwTotalSize >= dwSize &&
           (ptImpl->dwTotalCount == dwCount) == (ptImpl->dwTotalSize == dwSize);
}

bool app::ClassIsValid(const TAppMemPoolImpl *ptImpl, uint32_t dwClass)
{
    const TAppMemClass &tClass = ptImpl->atClass[dwClass];
    const uint32_t dwBlockSize = 32u << dwClass;
    uint32_t dwIdle = 0;
    for (HAppDoubleListNode hNode = tClass.hBlocks->ptHead; hNode; hNode = hNode->ptNext) {
        const auto ptHead = static_cast<const TAppMemBlockHead *>(hNode->pvData);
        if ((ptHead->dwBlockSize & ~kIdle) != dwBlockSize || !ptHead->ptNext)
            return false;
        dwIdle += ptHead->dwBlockSize & kIdle;
    }
    const TAppMemBlockHead *ptLast = nullptr;
    const TAppMemBlockHead *ptNext = tClass.ptOldest;
    for (uint32_t i = 0; i < dwIdle; ++i, ptNext = ptLast->ptNext) {
        ptLast = ptNext;
        if (!ptLast || ptLast->dwBlockSize != (dwBlockSize | kIdle))
            return false;
    }
    return dwIdle == tClass.hBlocks->dwCurSize - tClass.dwInUse &&
           (dwIdle == 0 ? !ptNext : ptLast == tClass.ptNewest);
}

bool app::EngineIsValid(const TAppMemPoolImpl *ptImpl)
{
    for (uint32_t k = 0; k < APP_MEMPOOL_CLASS_NUM; ++k)
        if (!ListIsValid(ptImpl->atClass[k].hBlocks) || !ClassIsValid(ptImpl, k))
            return false;
    return EngineAddsUp(ptImpl);
}
#endif
