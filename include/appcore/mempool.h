/* SPDX-License-Identifier: MIT */
/**
 * @file mempool.h
 * Memory pools: a limit on the bytes handed out, and released blocks kept for reuse.
 *
 * A pool handle is a pool made by AppMemPoolCreate(), or null: the process heap.  Every block names
 * its pool in a header, so AppMemPoolFree() needs only the pointer.  Blocks are aligned as malloc()
 * aligns them on 64-bit machines and to 4 bytes on 32-bit ones.  A pool created without a lock is
 * for one thread at a time; the null pool is as thread-safe as the heap.
 *
 * A pool's limit counts the bytes that are asked for.  The process gives more, and does not get it
 * back before the pool is destroyed: a block freed stays with its pool, for blocks of its class.
 * For n bytes of a pool that is the smallest power of two, from 32 on, that holds n + 20 bytes on
 * 32-bit machines and n + 48 bytes on 64-bit ones, and beside it some 40 and 80 bytes for a list node
 * and what malloc() keeps for itself; above 4 MiB, and from the null pool, it is n with its headers.
 * So small blocks cost most: a limit of 64 KiB filled with blocks of 1 byte takes 4.5 MiB on 32-bit
 * machines and 9 MiB on 64-bit ones.
 */
#ifndef APPCORE_MEMPOOL_H
#define APPCORE_MEMPOOL_H

#include "appcore/foundation.h"
#include "appcore/handles.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Creates a pool.
 * @param dwMaxSize  limit in bytes: the sizes asked for, without headers and rounding, summed over
 *                   the blocks in use, stay strictly below it; 0 is no limit
 * @param bLock      exactly 1 gives the pool a lock
 * @param dwReserved not used; give 0
 * @param phMemPool  receives the pool; untouched on failure
 * @retval APP_OK          created
 * @retval APP_INVALID_ARG null `phMemPool`
 * @retval APP_NO_RESOURCE no memory for the record; other codes are AppLockCreate()'s
 * @retval APP_FAILED      no memory for the engine
 */
APP_API uint32_t AppMemPoolCreate(uint32_t dwMaxSize, uint32_t bLock, uint32_t dwReserved,
                                  HAppMemPool *phMemPool);

/**
 * Destroys a pool and releases its blocks, those in use too: pointers into them become invalid.
 * Blocks above the largest size class (4 MiB with the headers) come straight from the heap and
 * must have been freed before.
 * @param hMemPool null does nothing; no other thread may use the pool any more
 */
APP_API void AppMemPoolDestroy(HAppMemPool hMemPool);

/**
 * Allocates a block.
 * @param hMemPool the pool; null is the process heap
 * @param dwSize   bytes; 0 gives null without a message
 * @return the block, uninitialised, released with AppMemPoolFree(); null with an ERROR line when
 *         the pool is full or the heap exhausted
 */
APP_API void *AppMemPoolMalloc(HAppMemPool hMemPool, uint32_t dwSize);

/**
 * Grows a block.  A block is never shrunk: a size that fits returns it unchanged.
 * @param hMemPool pool of the new block, not necessarily the old one's
 * @param pvData   the block; null allocates
 * @param dwSize   bytes wanted
 * @return the block, moved when it had to grow; null on failure, and the old block stays valid
 */
APP_API void *AppMemPoolRealloc(HAppMemPool hMemPool, void *pvData, uint32_t dwSize);

/**
 * Releases a block into the pool that it came from.  A pointer without the block header is
 * reported with an ERROR line and left alone.  A second release must not happen and is not
 * detected; builds with APPCORE_CHECKS report it, where the pool has kept the block, and abort.
 * @param pvData null does nothing
 */
APP_API void AppMemPoolFree(void *pvData);

/**
 * Duplicates a text into a pool.
 * @param hMemPool the pool; null is the process heap
 * @param szSrc    the text; null or empty gives null
 * @param dwSize   bytes of the copy, terminator included; a longer text is cut; 0 gives null
 * @return the copy, released with AppMemPoolFree(), or null
 */
APP_API char *AppStrndup(HAppMemPool hMemPool, const char *szSrc, uint32_t dwSize);

/**
 * Reports a pool: its limit and size, the blocks of each size class, and the engine's counters.
 * Waits at most 1000 ms for the pool's lock to copy the figures, and copies them without it
 * otherwise.  The text comes after the lock has been given: `pfnShow` may use the pool.
 * @param hMemPool  null hands nothing over
 * @param pfnShow   receives the text in pieces; null drops it
 * @param pvContext handed to `pfnShow`
 */
APP_API void AppMemPoolShow(HAppMemPool hMemPool, PFAppShow pfnShow, void *pvContext);

#ifdef __cplusplus
}
#endif

#endif
