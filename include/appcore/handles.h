/* SPDX-License-Identifier: MIT */
/**
 * @file handles.h
 * The handle types: pointers to records that belong to the library.
 */
#ifndef APPCORE_HANDLES_H
#define APPCORE_HANDLES_H

typedef struct TAppMemPool *HAppMemPool; /**< a memory pool; null is the process heap */
typedef struct TAppLock *HAppLock;       /**< a semaphore or a recursive mutex */
typedef struct TAppQueue *HAppQueue;     /**< a blocking priority queue */
typedef struct TAppTaskMgr *HAppTaskMgr; /**< a task manager */
typedef struct TAppTask *HAppTask;       /**< a task; owned by its manager */
typedef struct TAppTimer *HAppTimer;     /**< a one-shot timer; valid until it ends */
typedef struct TAppSocket *HAppSocket;   /**< a UDP or TCP socket */

#endif
