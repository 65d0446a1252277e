// SPDX-License-Identifier: MIT
//
// Where a queue's nodes come from.  While the queue holds fewer elements than a block has nodes,
// each comes from the pool alone: a short queue keeps nothing back, and an exhausted pool refuses
// its next element.  Beyond that they come from blocks, which cost one allocation for many nodes
// and spare each the pool's headers.  A block is listed exactly while it has a free node, and goes
// back to the pool when none of its nodes is in use: after a drain nothing is left.  One that cannot
// be had is no failure: the node comes alone then.
#ifndef APPCORE_UTILS_QUEUE_NODE_H
#define APPCORE_UTILS_QUEUE_NODE_H

#include "appcore/mempool.h"
#include "utils/queue_record.h"

struct TAppQueueBlock {
    TAppQueueBlock *ptPrev; // among the listed
    TAppQueueBlock *ptNext;
    TAppQueueNode *ptFree; // the first of those given back
    uint16_t wUsed;        // nodes in use
    uint16_t wFresh;       // where those begin that have never been used: a block costs no walk
};

namespace app
{

// A queue's figures for nodes with records of so many bytes.
void SizeNodes(HAppQueue hQueue, uint32_t dwRecordSize);
// Listed; null when it cannot be had.
TAppQueueBlock *NewBlock(HAppQueue hQueue) APP_REQUIRES(hQueue->hLock);
void UnlistBlock(HAppQueue hQueue, TAppQueueBlock *ptBlock) APP_REQUIRES(hQueue->hLock);
// A block, or null when it goes on being used.
TAppQueueBlock *GiveBlockNode(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock);

// Only in builds with checks: the listed blocks are as they should, and the node's is listed when
// it has to be.
bool BlocksAreValid(const TAppQueue *ptQueue) APP_REQUIRES(ptQueue->hLock);
bool IsListedRightly(const TAppQueue *ptQueue, const TAppQueueNode *ptNode)
    APP_REQUIRES(ptQueue->hLock);

inline uint32_t NodeSize(uint32_t dwRecordSize)
{
    return static_cast<uint32_t>(sizeof(TAppQueueNode)) + dwRecordSize;
}

inline TAppQueueNode *TakeBlockNode(HAppQueue hQueue) APP_REQUIRES(hQueue->hLock)
{
    TAppQueueBlock *ptBlock = hQueue->ptBlocks;
    if (!ptBlock && !(ptBlock = NewBlock(hQueue)))
        return nullptr;
    TAppQueueNode *ptNode = ptBlock->ptFree;
    if (ptNode) {
        ptBlock->ptFree = ptNode->ptNext.Next();
    } else {
        char *pchBlock = reinterpret_cast<char *>(ptBlock);
        ptNode = reinterpret_cast<TAppQueueNode *>(pchBlock + ptBlock->wFresh);
        ptNode->dwOffset = ptBlock->wFresh;
        ptBlock->wFresh = static_cast<uint16_t>(ptBlock->wFresh + NodeSize(hQueue->wRecordSize));
    }
    if (++ptBlock->wUsed == hQueue->byBlockNodes)
        UnlistBlock(hQueue, ptBlock);
    ptNode->ptNext.Reset(QueueLink::kOfBlock);
    return ptNode;
}

// Null when there is no memory: the pool has logged its line.
inline TAppQueueNode *TakeNode(HAppQueue hQueue) APP_REQUIRES(hQueue->hLock)
{
    if (hQueue->dwCurSize >= hQueue->byBlockNodes)
        if (TAppQueueNode *ptNode = TakeBlockNode(hQueue))
            return ptNode;
    auto ptNode =
        static_cast<TAppQueueNode *>(AppMemPoolMalloc(hQueue->hMemPool, hQueue->wLoneSize));
    if (ptNode)
        ptNode->ptNext.Reset(0);
    return ptNode;
}

// What has to be released for it, after the lock, or null; a null node is none.
inline void *GiveNode(HAppQueue hQueue, TAppQueueNode *ptNode) APP_REQUIRES(hQueue->hLock)
{
    if (!ptNode || !ptNode->ptNext.Has(QueueLink::kOfBlock))
        return ptNode;
    return GiveBlockNode(hQueue, ptNode);
}

} // namespace app

#endif
