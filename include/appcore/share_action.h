/* SPDX-License-Identifier: MIT */
/**
 * @file share_action.h
 * Named actions: modules register functions under a short key, others run them by that key.
 *
 * Ordinary actions run one at a time, under a process-wide recursive lock, so an action may run
 * another one.  Blocking actions run outside that lock, beside anything.  The registry comes into
 * being with the first registration and lasts for the life of the process; entries are never
 * removed.  All operations may be called from any thread, at once; none logs.
 */
#ifndef APPCORE_SHARE_ACTION_H
#define APPCORE_SHARE_ACTION_H

#include "appcore/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

#define APP_SHARE_ACTION_KEY_SIZE 32 /**< a key has at most 31 characters */

/** An action.  @return its result, handed to whoever runs it */
typedef uint32_t (*PFAppShareAction)(uint32_t dwArg1, uint32_t dwArg2, uint32_t dwArg3);

/**
 * Registers an ordinary action.  The first registration of a key stays.
 * @param szKey     1 to 31 characters, copied; upper and lower case differ
 * @param pfnAction the action
 * @retval APP_OK          registered, now or before
 * @retval APP_INVALID_ARG null or too long key
 * @retval APP_NO_RESOURCE no memory; other codes are those of the registry's lock and list
 */
APP_API uint32_t AppRegisterShareAction(const char *szKey, PFAppShareAction pfnAction);

/** Registers an action that may wait or take long: it runs without the registry's lock.
 *  Otherwise as AppRegisterShareAction(). */
APP_API uint32_t AppRegisterBlockShareAction(const char *szKey, PFAppShareAction pfnAction);

/**
 * Runs an action in the calling thread.  An ordinary one waits for those that run in other threads.
 * @param szKey     its key
 * @param dwArg1    first argument
 * @param dwArg2    second argument
 * @param dwArg3    third argument
 * @param pdwResult receives the action's result; may be null; untouched on failure
 * @retval APP_OK          run, whatever its own result
 * @retval APP_INVALID_ARG no such key
 * @retval APP_FAILED      nothing has been registered yet
 */
APP_API uint32_t AppRunShareAction(const char *szKey, uint32_t dwArg1, uint32_t dwArg2,
                                   uint32_t dwArg3, uint32_t *pdwResult);

/**
 * Keeps ordinary actions of other threads from running until AppShareActionUnlock() has been called
 * as often.  Waits for the one that runs.
 * @return APP_OK, or APP_INVALID_ARG before the first registration
 */
APP_API uint32_t AppShareActionLock(void);
/** Ends one AppShareActionLock() of the calling thread.  @return as AppShareActionLock() */
APP_API uint32_t AppShareActionUnlock(void);

/**
 * Reports the last action run with its result (::APP_IN_PROGRESS while it runs) and every entry.
 * @param pfnShow   receives the text in pieces, the list of actions locked: it must not call the
 *                  registry; null drops the text
 * @param pvContext handed to `pfnShow`
 */
APP_API void AppShareActionShow(PFAppShow pfnShow, void *pvContext);

/**
 * A command of the platform's debug shell.
 * @param nArgc    number of words, the command's name included
 * @param ppszArgv the words
 * @return 0 for success
 */
typedef int32_t (*PFAppCommand)(int32_t nArgc, char **ppszArgv);

/**
 * Registers a command of the platform's debug shell, by QorRegCommand() of host.h.
 * @param szName     handed on unchanged
 * @param pfnCommand handed on unchanged
 * @param szHelp     handed on unchanged
 */
APP_API void AppRegCommand(const char *szName, PFAppCommand pfnCommand, const char *szHelp);

#ifdef __cplusplus
}
#endif

#endif
