/* SPDX-License-Identifier: MIT */
/**
 * @file platform.h
 * Locks with time-outs, ticks and delays.
 *
 * Time-outs and delays are milliseconds, measured on the monotonic clock: a change of the system
 * time neither stretches nor shortens them.  A time-out of 0 means no limit.  Every operation is
 * thread-safe.  None logs.
 */
#ifndef APPCORE_PLATFORM_H
#define APPCORE_PLATFORM_H

#include "appcore/foundation.h"
#include "appcore/handles.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Lock types; every value other than 1 is the semaphore. */
enum EAppLockType {
    APP_LOCK_TYPE_SEM = 0,      /**< counting semaphore, bound to no thread */
    APP_LOCK_TYPE_RECURSIVE = 1 /**< recursive mutex, bound to its holder */
};

/**
 * Creates a lock.  A semaphore with maximum and initial count 1 is the ordinary mutual exclusion
 * lock (not recursive: a holder that takes it again waits like anyone else); any thread may give
 * what another took.
 * @param hMemPool    pool of the record; null is the process heap
 * @param dwMaxCount  ceiling of the count, at least 1; exactly 1 for the recursive type
 * @param dwInitCount units available at first, cut to the ceiling; a recursive lock created with 0
 *                    starts held by the calling thread
 * @param dwType      ::EAppLockType
 * @param phLock      receives the lock; null when the creation failed; untouched by argument errors
 * @retval APP_OK          created; release with AppLockDestroy()
 * @retval APP_INVALID_ARG null `phLock` or counts out of range
 * @retval APP_NO_RESOURCE no memory
 * @retval APP_FAILED      the threading library refused
 */
APP_API uint32_t AppLockCreate(HAppMemPool hMemPool, uint32_t dwMaxCount, uint32_t dwInitCount,
                               uint32_t dwType, HAppLock *phLock);

/**
 * Destroys a lock.  No other thread may use it any more; a thread whose AppLockGive() let the
 * caller get here may still be inside that call.  Takers are neither woken nor waited for.
 * @param hLock null does nothing
 */
APP_API void AppLockDestroy(HAppLock hLock);

/**
 * Takes one unit of a semaphore, or the recursive lock.  Blocks up to the time-out.
 * @param hLock     the lock
 * @param dwTimeout milliseconds; 0 waits without limit
 * @retval APP_OK          taken
 * @retval APP_INVALID_ARG null handle
 * @retval APP_TIMEOUT     not available in time; the lock is unchanged
 */
APP_API uint32_t AppLockTakeByTime(HAppLock hLock, uint32_t dwTimeout);

/**
 * Gives one unit and wakes a taker; at the ceiling the give is absorbed.  A recursive lock must be
 * given by its holder, as often as it was taken.  Never blocks for long.
 * @param hLock the lock
 * @retval APP_OK          given
 * @retval APP_INVALID_ARG null handle
 * @retval APP_FAILED      the threading library refused to signal
 */
APP_API uint32_t AppLockGive(HAppLock hLock);

/** @return the tick counter: unsigned, 10 ms a tick, wrapping modulo 2^32 */
APP_API uint32_t AppGetTick(void);

/** @return `dwTick` ticks in milliseconds, modulo 2^32 */
APP_API uint32_t AppConvertTickToMS(uint32_t dwTick);

/** @return the ticks from `dwStart` to `dwEnd`, across one wrap of the counter */
APP_API uint32_t AppTickDiff(uint32_t dwStart, uint32_t dwEnd);

/** Sleeps; a signal does not cut it short.  @param dwMs milliseconds; 0 returns at once */
APP_API void AppDelay(uint32_t dwMs);

#ifdef __cplusplus
}
#endif

#endif
