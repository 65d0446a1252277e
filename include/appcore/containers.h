/* SPDX-License-Identifier: MIT */
/**
 * @file containers.h
 * The double list and the blocking priority queue.
 *
 * Both hold pointers of the caller: they never look at the data nor release it.  Whoever creates a
 * container destroys it and gets each remaining element through a callback.  Records, nodes and
 * locks come from the pool given at creation.  On every failure the container is unchanged.
 */
#ifndef APPCORE_CONTAINERS_H
#define APPCORE_CONTAINERS_H

#include "appcore/foundation.h"
#include "appcore/handles.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Receives an element that a container gives up.
 * @param pvData    the element
 * @param pvContext the value given with the callback
 */
typedef void (*PFAppFree)(void *pvData, void *pvContext);

/** @name Double list
 * The record is open: users walk `ptHead` and `ptNext` and read `pvData` and `dwCurSize`.  The
 * operations never lock, except AppDoubleListDestroy(): a list used by several threads is created
 * with a lock, and its users hold `hLock` around every operation and every walk.
 * @{ */

typedef struct TAppDoubleListNode *HAppDoubleListNode; /**< valid until the node is removed */
typedef struct TAppDoubleList *HAppDoubleList;         /**< a double list */

/** One element of a double list. */
struct TAppDoubleListNode {
    HAppDoubleListNode ptPrev; /**< neighbour towards the head, null for the head */
    HAppDoubleListNode ptNext; /**< neighbour towards the tail, null for the tail */
    void *pvData;              /**< the caller's data */
};

/** A double list. */
struct TAppDoubleList {
    HAppDoubleListNode ptHead; /**< first node, null when empty */
    HAppDoubleListNode ptTail; /**< last node, null when empty */
    HAppLock hLock;            /**< the list's lock, null for a list without */
    HAppMemPool hMemPool;      /**< pool of the record and its nodes */
    uint32_t dwCurSize;        /**< number of nodes */
    uint32_t dwMaxSize;        /**< maximum number of nodes; 0 is no limit */
};

#ifndef __cplusplus
typedef struct TAppDoubleListNode TAppDoubleListNode;
typedef struct TAppDoubleList TAppDoubleList;
#endif

/**
 * Creates a list.
 * @param hMemPool  pool of the record, its nodes and its lock; null is the process heap
 * @param dwMaxSize maximum number of elements; 0 is no limit
 * @param bLock     exactly 1 gives the list a lock
 * @param phList    receives the list; null when the creation failed
 * @retval APP_OK          created
 * @retval APP_INVALID_ARG null `phList`
 * @retval APP_NO_RESOURCE no memory; other codes are AppLockCreate()'s
 */
APP_API uint32_t AppDoubleListCreate(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t bLock,
                                     HAppDoubleList *phList);

/**
 * Takes the list's lock without limit and destroys the list.
 * @param hList     null does nothing; no other thread may use it any more
 * @param pfnFree   called with each remaining element, head to tail, the list's lock held: it must
 *                  not use the list; may be null
 * @param pvContext handed to `pfnFree`
 */
APP_API void AppDoubleListDestroy(HAppDoubleList hList, PFAppFree pfnFree, void *pvContext);

/**
 * Inserts an element after a node.
 * @param hList   the list
 * @param hAnchor a node of this list; null appends at the tail
 * @param pvData  the element
 * @param phNode  receives the new node, null when nothing was inserted; untouched by argument
 *                errors; may be null
 * @retval APP_OK          inserted
 * @retval APP_INVALID_ARG null `hList`
 * @retval APP_NO_RESOURCE the list is full, or no memory
 */
APP_API uint32_t AppDoubleListInsertAfter(HAppDoubleList hList, HAppDoubleListNode hAnchor,
                                          void *pvData, HAppDoubleListNode *phNode);

/** Inserts an element before a node; a null anchor appends at the tail, here too.
 *  Otherwise as AppDoubleListInsertAfter(). */
APP_API uint32_t AppDoubleListInsertBefore(HAppDoubleList hList, HAppDoubleListNode hAnchor,
                                           void *pvData, HAppDoubleListNode *phNode);

/**
 * Removes a node and releases it.
 * @param hList   the list
 * @param hNode   a node of this list (not checked)
 * @param ppvData receives the element; may be null
 * @retval APP_OK          removed
 * @retval APP_INVALID_ARG a null handle or an empty list
 */
APP_API uint32_t AppDoubleListRemove(HAppDoubleList hList, HAppDoubleListNode hNode,
                                     void **ppvData);

/** @} */

/** @name Queue
 * A blocking priority queue: larger priorities come out first, equal ones in the order they went
 * in.  Created with a lock it may be used by any number of producers and consumers at once.
 *
 * A removal, and an insertion of the highest or lowest priority, cost the same at any size.  One in
 * between steps from priority to priority, whatever their elements: at most 12 times, or half as
 * often as the queue has held priorities at once since it was last empty; usually a tenth of it.
 *
 * On 32-bit machines an element costs 32 bytes of the pool, headers included.  As soon as a queue
 * holds 29, further ones share blocks of 512 bytes, 29 in each; a block goes back to the pool with
 * the last of its elements, and an empty queue keeps nothing.
 * @{ */

#define APP_QUEUE_DEFAULT_MAX 1048576u /**< maximum of a queue created with maximum 0 */

/**
 * Creates a queue.
 * @param hMemPool  pool of the record, its nodes and its locks; null is the process heap
 * @param dwMaxSize maximum number of elements; 0 logs a line and takes ::APP_QUEUE_DEFAULT_MAX
 * @param bLock     exactly 1 gives the record a lock; without it insertions and removals must not
 *                  run at the same time
 * @param phQueue   receives the queue; null when the creation failed
 * @retval APP_OK          created
 * @retval APP_INVALID_ARG null `phQueue`
 * @retval APP_NO_RESOURCE no memory; other codes are AppLockCreate()'s
 */
APP_API uint32_t AppQueueCreate(HAppMemPool hMemPool, uint32_t dwMaxSize, uint32_t bLock,
                                HAppQueue *phQueue);

/**
 * Destroys a queue.  No consumer may be waiting: waiters are not woken.
 * @param hQueue    null does nothing
 * @param pfnDrop   called with each remaining element, highest priority first, the queue's lock
 *                  held: it must not use the queue; may be null
 * @param pvContext handed to `pfnDrop`
 */
APP_API void AppQueueDestroy(HAppQueue hQueue, PFAppFree pfnDrop, void *pvContext);

/**
 * Inserts an element and wakes one waiting consumer.  Never waits for room.
 * @param hQueue    the queue
 * @param pvData    the element
 * @param nPriority its priority; larger values come out first
 * @retval APP_OK          inserted
 * @retval APP_INVALID_ARG null handle
 * @retval APP_NO_RESOURCE the queue is full, or no memory
 */
APP_API uint32_t AppQueueIn(HAppQueue hQueue, void *pvData, int32_t nPriority);

/**
 * Takes the first element.  Blocks up to the time-out while the queue is empty.
 * @param hQueue    the queue
 * @param dwTimeout milliseconds; 0 waits without limit
 * @param ppvData   receives the element; null drops it; untouched on failure
 * @retval APP_OK          taken
 * @retval APP_INVALID_ARG null handle
 * @retval APP_TIMEOUT     nothing came in time
 */
APP_API uint32_t AppQueueOut(HAppQueue hQueue, uint32_t dwTimeout, void **ppvData);

/** @return the number of elements; 4294967295 for a null handle */
APP_API uint32_t AppQueueGetSize(HAppQueue hQueue);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
