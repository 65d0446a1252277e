/* SPDX-License-Identifier: MIT */
/**
 * @file stats.h
 * Counters as records: what the library knows about itself, for a monitor, a shell or the night.
 *
 * Each record is filled by one call.  Reading takes no lock of a task, a pool or a queue and waits
 * for nobody but others who read, create or destroy, for moments: so it works while something
 * hangs.  The price: the fields of one record may be of slightly different moments.
 *
 * `dwSize` comes first, so that records can grow: set it to the record's size before the call; the
 * library fills that much of what it knows, and sets it to the bytes filled.  Fields are only ever
 * added at the end.
 *
 * Counters begin with 0 when their object is created, or with the process, and are modulo 2^32: the
 * difference of two readings is right.  Times are milliseconds, made of ticks of 10 ms.  The hot
 * paths do not ask the clock for them: they take the tick that any thread has read last.  A thread
 * that waits for events reads it before and after, and at least every 5 s, so a time here can be
 * too short by what passed since then, and in a process without tasks by more.  (That of an ordinary
 * action too long, too, where the tick was old when the action began.)
 *
 * All operations may be called from any thread; none logs.
 */
#ifndef APPCORE_STATS_H
#define APPCORE_STATS_H

#include "appcore/handles.h"
#include "appcore/mempool.h"
#include "appcore/share_action.h"
#include "appcore/task.h"

#ifdef __cplusplus
extern "C" {
#endif

#define APP_STATS_NAME_SIZE 32    /**< a name has at most 31 characters; what is longer is cut */
#define APP_STATS_POOL_CLASSES 18 /**< size classes of a pool: blocks of 32 bytes, 64, ... 4 MiB */

/** @name Names
 * For the records and the lines that tell what somebody waits for.
 * @{ */

/**
 * Names a pool.  A task's own pool bears the task's name.
 * @param hMemPool null does nothing
 * @param szName   copied; null or empty takes the name away
 */
APP_API void AppMemPoolSetName(HAppMemPool hMemPool, const char *szName);

/** Names a queue, as AppMemPoolSetName() a pool. */
APP_API void AppQueueSetName(HAppQueue hQueue, const char *szName);

/** @} */

/** @name Records
 * Each call: @retval APP_OK filled  @retval APP_INVALID_ARG a null argument, or a `dwSize` below its
 * own size
 * @{ */

/** A pool. */
struct TAppMemPoolStats {
    uint32_t dwSize;                   /**< see stats.h */
    HAppMemPool hMemPool;              /**< the pool */
    char achName[APP_STATS_NAME_SIZE]; /**< empty for none */
    uint32_t dwUsed;                   /**< bytes asked for by the blocks in use */
    uint32_t dwPeak;                   /**< most that this has been */
    uint32_t dwLimit;                  /**< dwUsed stays below; 0: no limit */
    uint32_t dwRefused;                /**< allocations refused, by the limit or the heap */
    uint32_t dwBlocks;                 /**< blocks in use */
    uint32_t dwHeld;                   /**< bytes taken from the heap */
    uint32_t dwIdle;                   /**< of these, in blocks kept for reuse */
    uint32_t
        adwBlocksInUse[APP_STATS_POOL_CLASSES]; /**< blocks in use by class; larger ones by none */
    uint32_t adwBlocksIdle[APP_STATS_POOL_CLASSES]; /**< blocks kept for reuse by class */
};

/** A queue, a task's queue of events included, which bears the task's name. */
struct TAppQueueStats {
    uint32_t dwSize;                   /**< see stats.h */
    HAppQueue hQueue;                  /**< the queue */
    char achName[APP_STATS_NAME_SIZE]; /**< empty for none */
    uint32_t dwCount;                  /**< elements now */
    uint32_t dwPeak;      /**< most that this has been since the creation, or a task's reuse */
    uint32_t dwLimit;     /**< for ordinary insertions; 0: none */
    uint32_t dwRefused;   /**< insertions refused, full or without memory */
    uint32_t dwOldestMs;  /**< an element has waited for so long now; 0 when none does */
    uint32_t dwLongestMs; /**< longest wait of an element that has been taken: one waits under
                               observation at any time, and the next one after it was taken */
    uint32_t dwSleepers;  /**< consumers that wait; 0 for a queue without a lock */
};

/** A task. */
struct TAppTaskStats {
    uint32_t dwSize;                   /**< see stats.h */
    HAppTask hTask;                    /**< the task */
    HAppTaskMgr hTaskMgr;              /**< its manager */
    char achName[APP_STATS_NAME_SIZE]; /**< empty for none */
    int32_t nThreadId;                 /**< the kernel's number of its thread; 0 before it runs */
    uint32_t dwState;                  /**< ::EAppTaskState */
    uint32_t bInHandler;               /**< 1 while the thread runs a handler, of a timer too */
    uint32_t dwSinceMs;                /**< for so long, or since the last handler returned */
    PFAppTaskHandler pfnHandler;       /**< of the event dispatched or timer ended last: when
                                            bInHandler, the one that runs */
    void *pvArg;                       /**< its argument */
    uint32_t dwEventType;              /**< ::EAppTaskEventType of its call */
    uint32_t dwServed;                 /**< handlers that have returned, timers' included */
    uint32_t dwRefused;                /**< sends refused, for whatever reason */
    uint32_t dwDropped;                /**< events told as dropped */
    uint32_t dwQueued;                 /**< events that wait */
    uint32_t dwQueuePeak;              /**< as TAppQueueStats::dwPeak */
    uint32_t dwQueueLimit;             /**< as TAppQueueStats::dwLimit */
    uint32_t dwTimers;                 /**< timers that run */
    uint32_t dwTimersSet;              /**< timers set */
    uint32_t dwTimersExpired;          /**< timers expired; the others were cancelled, or run */
    uint32_t dwTimerLateMs;            /**< a timer has been late by so much at most */
    uint32_t dwLongestMs;              /**< the longest run of a handler that has returned */
    PFAppTaskHandler pfnLongest;       /**< that handler; null when it took less than a tick */
};

/** A task manager. */
struct TAppTaskMgrStats {
    uint32_t dwSize;      /**< see stats.h */
    HAppTaskMgr hTaskMgr; /**< the manager */
    uint32_t dwActive;    /**< active tasks */
    uint32_t dwIdle;      /**< idle tasks */
    uint32_t dwLimit;     /**< most active ones, and most idle ones */
    uint32_t dwCreated;   /**< tasks handed out with a new thread */
    uint32_t dwReused;    /**< idle tasks handed out again */
    uint32_t dwRefused;   /**< tasks wanted and not handed out */
    uint32_t bEnding;     /**< 1 once AppTaskMgrDestroy() has begun */
};

/** A log channel. */
struct TAppLogStats {
    uint32_t dwSize;      /**< see stats.h */
    uint32_t dwChannel;   /**< the channel */
    uint32_t dwLevel;     /**< its threshold */
    uint32_t dwLines;     /**< lines that passed it.  Counted without a lock: of lines logged at one
                               instant by several threads one may be missing */
    uint32_t dwRepeated;  /**< lines held back by AppSetLogRepeat() */
    uint32_t bFile;       /**< 1 while it has a log file.  The rest tells of that, and its counters
                               of those that it had before: */
    uint32_t dwFileSize;  /**< bytes in the file */
    uint32_t dwFileLimit; /**< above which it is rotated */
    uint32_t dwFileLines; /**< lines written */
    uint32_t dwFileBytes; /**< bytes written */
    uint32_t dwLost;      /**< lines lost */
    uint32_t dwRotations; /**< files that have become the backup, or were dropped for want of one */
    int32_t nLastError;   /**< errno of the last failure; 0 for none */
};

/**
 * The named actions.  Of ordinary actions that run one another the outermost one is told, which has
 * run for longest; of a blocking one that runs in several threads, the first run of these.
 */
struct TAppShareActionStats {
    uint32_t dwSize;    /**< see stats.h */
    uint32_t dwActions; /**< registered */
    uint32_t dwRuns;    /**< runs that have ended */
    uint32_t dwRefused; /**< runs wanted with a key that nobody has registered */
    uint32_t dwRunning; /**< actions that run now, those that they run included */
    char achCurrent[APP_SHARE_ACTION_KEY_SIZE]; /**< of these the one that runs for longest */
    uint32_t dwCurrentMs;                       /**< for so long */
    char achLongest[APP_SHARE_ACTION_KEY_SIZE]; /**< the action of the longest run that has ended */
    uint32_t dwLongestMs;                       /**< which took so long */
};

/** The sockets of the process. */
struct TAppSocketStats {
    uint32_t dwSize;          /**< see stats.h */
    uint32_t dwOpen;          /**< sockets that have not been destroyed */
    uint32_t dwSends;         /**< successful sends */
    uint32_t dwReceives;      /**< successful receives */
    uint32_t dwTimeouts;      /**< sends, receives and connects whose time was over */
    uint32_t dwNoDescriptor;  /**< sockets created without a descriptor, which the system refused */
    uint32_t dwBindFailed;    /**< binds and memberships of groups refused */
    uint32_t dwConnectFailed; /**< connections refused, or not to be had */
    uint32_t dwSendFailed;    /**< sends that failed */
    uint32_t dwReceiveFailed; /**< receives that failed, the peer's orderly end included */
};

#ifndef __cplusplus
typedef struct TAppMemPoolStats TAppMemPoolStats;
typedef struct TAppQueueStats TAppQueueStats;
typedef struct TAppTaskStats TAppTaskStats;
typedef struct TAppTaskMgrStats TAppTaskMgrStats;
typedef struct TAppLogStats TAppLogStats;
typedef struct TAppShareActionStats TAppShareActionStats;
typedef struct TAppSocketStats TAppSocketStats;
#endif

/** Fills a pool's record; the null pool has none. */
APP_API uint32_t AppMemPoolGetStats(HAppMemPool hMemPool, TAppMemPoolStats *ptStats);
/** Fills a queue's record. */
APP_API uint32_t AppQueueGetStats(HAppQueue hQueue, TAppQueueStats *ptStats);
/** Fills a task's record. */
APP_API uint32_t AppTaskGetStats(HAppTask hTask, TAppTaskStats *ptStats);
/** Fills a task manager's record. */
APP_API uint32_t AppTaskMgrGetStats(HAppTaskMgr hTaskMgr, TAppTaskMgrStats *ptStats);
/** Fills a log channel's record. */
APP_API uint32_t AppLogGetStats(uint8_t byChannel, TAppLogStats *ptStats);
/** Fills the record of the named actions. */
APP_API uint32_t AppShareActionGetStats(TAppShareActionStats *ptStats);
/** Fills the record of the process's sockets. */
APP_API uint32_t AppSocketGetStats(TAppSocketStats *ptStats);

/** @} */

/** @name All of them
 * @{ */

/** Kinds of records, to be combined. */
enum EAppStats {
    APP_STATS_POOLS = 1,     /**< TAppMemPoolStats */
    APP_STATS_QUEUES = 2,    /**< TAppQueueStats */
    APP_STATS_TASK_MGRS = 4, /**< TAppTaskMgrStats */
    APP_STATS_TASKS = 8,     /**< TAppTaskStats */
    APP_STATS_LOGS = 16,     /**< TAppLogStats of the channels that have logged or have a file */
    APP_STATS_ACTIONS = 32,  /**< TAppShareActionStats */
    APP_STATS_SOCKETS = 64,  /**< TAppSocketStats */
    APP_STATS_ALL = 127      /**< every kind */
};

/**
 * Receives a record.
 * @param dwKind    which (one of ::EAppStats)
 * @param pvStats   the record, valid during the call only; its object may have ended meanwhile
 * @param pvContext the value given with the callback
 */
typedef void (*PFAppStats)(uint32_t dwKind, const void *pvStats, void *pvContext);

/**
 * Hands over the records of everything there is in the process, kind by kind in the order of
 * ::EAppStats, the oldest first.  What is created meanwhile may be among it.
 * @param dwKinds   kinds that are wanted
 * @param pfnStats  called with no lock held; may do anything
 * @param pvContext handed to `pfnStats`
 * @return the number of records; 0 for a null `pfnStats`
 */
APP_API uint32_t AppStatsWalk(uint32_t dwKinds, PFAppStats pfnStats, void *pvContext);

/**
 * The same as JSON (RFC 8259): an object with a member for each kind, "pools", "queues", "managers",
 * "tasks" and "logs" with arrays of objects, "actions" and "sockets" with one each.  The members
 * of these bear the names of the records' fields without their prefix: "used", "peak".
 * Addresses are texts such as "0x1f40".  Needs no memory and 4 KiB of stack.
 * @param dwKinds   kinds that are wanted
 * @param pfnShow   receives the text in pieces, no lock held
 * @param pvContext handed to `pfnShow`
 */
APP_API void AppStatsJson(uint32_t dwKinds, PFAppShow pfnShow, void *pvContext);

/** @} */

/** @name Watch
 * @{ */

/**
 * Is told of a handler that does not return.
 * @param ptTask    its task's record: who, which handler, since when
 * @param pvContext the value given with the callback
 */
typedef void (*PFAppTaskLate)(const TAppTaskStats *ptTask, void *pvContext);

/**
 * Looks for handlers that run for long.  For a timer of the application, in a task that does nothing
 * else or in its main loop: no thread is started for it, and no lock of a task or the manager
 * waited for.
 * @param hTaskMgr  null does nothing; must not be destroyed meanwhile
 * @param dwMs      how long a handler may run
 * @param pfnLate   called once for each run of a handler that is found to have lasted longer, no
 *                  lock held; may be null
 * @param pvContext handed to `pfnLate`
 * @return how many handlers run for longer now, those told before included
 */
APP_API uint32_t AppTaskMgrCheck(HAppTaskMgr hTaskMgr, uint32_t dwMs, PFAppTaskLate pfnLate,
                                 void *pvContext);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
