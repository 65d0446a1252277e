// SPDX-License-Identifier: MIT
#include "utils/queue_node.h"

#include <stddef.h>

#include "mempool/try_malloc.h"

namespace
{

// With both headers of the pools a block fills one class of theirs: 512 bytes on 32-bit machines,
// 1024 on 64-bit ones.
constexpr uint32_t kPoolHeads = sizeof(void *) == 4 ? 20 : 48;
constexpr uint32_t kBlockSize = 128 * sizeof(void *) - kPoolHeads;
// What a node alone takes from the pool when no record follows.
constexpr uint32_t kBareNode = offsetof(TAppQueueNode, dwOffset);

#if UINTPTR_MAX == UINT32_MAX
static_assert(kBareNode == 12, "a node alone and both headers are 32 bytes");
#endif
static_assert((kBlockSize - sizeof(TAppQueueBlock)) / sizeof(TAppQueueNode) <= UINT8_MAX);
static_assert((kBlockSize - sizeof(TAppQueueBlock)) /
                  (sizeof(TAppQueueNode) + app::kQueueRecordMax) >=
              2);

TAppQueueBlock *BlockOf(const TAppQueueNode *ptNode)
{
    const auto uNode = reinterpret_cast<uintptr_t>(ptNode);
    return reinterpret_cast<TAppQueueBlock *>(uNode - ptNode->dwOffset);
}

void List(HAppQueue hQueue, TAppQueueBlock *ptBlock) APP_REQUIRES(hQueue->hLock)
{
    ptBlock->ptPrev = nullptr;
    ptBlock->ptNext = hQueue->ptBlocks;
    if (ptBlock->ptNext)
        ptBlock->ptNext->ptPrev = ptBlock;
    hQueue->ptBlocks = ptBlock;
}

} // namespace

void app::UnlistBlock(HAppQueue hQueue, TAppQueueBlock *ptBlock)
{
    if (ptBlock->ptNext)
        ptBlock->ptNext->ptPrev = ptBlock->ptPrev;
    if (ptBlock->ptPrev)
        ptBlock->ptPrev->ptNext = ptBlock->ptNext;
    else
        hQueue->ptBlocks = ptBlock->ptNext;
    ptBlock->ptPrev = ptBlock->ptNext = nullptr;
}

TAppQueueBlock *app::NewBlock(HAppQueue hQueue)
{
    auto ptBlock = static_cast<TAppQueueBlock *>(app::TryMalloc(hQueue->hMemPool, kBlockSize));
    if (!ptBlock)
        return nullptr;
    *ptBlock = {};
    ptBlock->wFresh = sizeof(TAppQueueBlock);
    List(hQueue, ptBlock);
    return ptBlock;
}

void app::SizeNodes(HAppQueue hQueue, uint32_t dwRecordSize)
{
    const uint32_t dwSize = NodeSize(dwRecordSize);
    hQueue->wRecordSize = static_cast<uint16_t>(dwRecordSize);
    hQueue->wLoneSize = static_cast<uint16_t>(dwRecordSize == 0 ? kBareNode : dwSize);
    hQueue->byBlockNodes = 0; // counted, since 32-bit processors divide in software
    for (uint32_t dwRoom = kBlockSize - sizeof(TAppQueueBlock); dwRoom >= dwSize; dwRoom -= dwSize)
        ++hQueue->byBlockNodes;
}

TAppQueueBlock *app::GiveBlockNode(HAppQueue hQueue, TAppQueueNode *ptNode)
{
    TAppQueueBlock *ptBlock = BlockOf(ptNode);
    if (ptBlock->wUsed == hQueue->byBlockNodes)
        List(hQueue, ptBlock);
    ptNode->ptNext.SetNext(ptBlock->ptFree);
    ptBlock->ptFree = ptNode;
    if (--ptBlock->wUsed != 0)
        return nullptr;
    UnlistBlock(hQueue, ptBlock);
    return ptBlock;
}

#ifdef APPCORE_CHECKS
static bool BlockIsValid(const TAppQueue *ptQueue, const TAppQueueBlock *ptBlock)
{
    const uint32_t dwSize = app::NodeSize(ptQueue->wRecordSize);
    uint32_t dwKnown = ptBlock->wUsed; // nodes that have been used
    for (const TAppQueueNode *ptNode = ptBlock->ptFree; ptNode; ptNode = ptNode->ptNext.Next())
        if (++dwKnown > ptQueue->byBlockNodes || BlockOf(ptNode) != ptBlock)
            return false;
    return ptBlock->wUsed > 0 && ptBlock->wUsed < ptQueue->byBlockNodes &&
           ptBlock->wFresh == sizeof(TAppQueueBlock) + dwKnown * dwSize;
}

bool app::BlocksAreValid(const TAppQueue *ptQueue)
{
    const TAppQueueBlock *ptPrev = nullptr;
    for (const TAppQueueBlock *ptBlock = ptQueue->ptBlocks; ptBlock; ptBlock = ptBlock->ptNext) {
        if (ptBlock->ptPrev != ptPrev || !BlockIsValid(ptQueue, ptBlock))
            return false;
        ptPrev = ptBlock;
    }
    return true;
}

bool app::IsListedRightly(const TAppQueue *ptQueue, const TAppQueueNode *ptNode)
{
    if (!ptNode->ptNext.Has(QueueLink::kOfBlock))
        return true;
    const TAppQueueBlock *ptBlock = BlockOf(ptNode);
    const bool bListed = ptBlock->ptPrev || ptQueue->ptBlocks == ptBlock;
    return bListed == (ptBlock->wUsed < ptQueue->byBlockNodes);
}
#endif
