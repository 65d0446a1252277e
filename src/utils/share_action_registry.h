// SPDX-License-Identifier: MIT
//
// The registry of named actions.  The list is the record of what is registered and in which order;
// an index over the keys keeps a look-up independent of the number of entries, and without a lock.
#ifndef APPCORE_UTILS_SHARE_ACTION_REGISTRY_H
#define APPCORE_UTILS_SHARE_ACTION_REGISTRY_H

#include <stddef.h>

#include <atomic>

#include "appcore/containers.h"
#include "appcore/share_action.h"

struct TAppShareAction {
    uint32_t dwHash;                        // AppStringHash of the key
    char achKey[APP_SHARE_ACTION_KEY_SIZE]; // zeros behind its end
    PFAppShareAction pfnAction;
    uint32_t bBlock;             // runs without the recursive lock
    TAppShareAction *ptNextSame; // next entry of the same index slot
    // For the record of the actions, which is made without any lock.
    std::atomic<uint32_t> dwLongestMs; // the longest run that has ended
    std::atomic<uint32_t> dwRunning;   // runs of a blocking action that have not
    std::atomic<uint32_t> dwSince;     // tick at which the first of these began
};

#if UINTPTR_MAX == UINT32_MAX
static_assert(offsetof(TAppShareAction, ptNextSame) == 44, "fixed layout");
#endif

extern "C" {
// Null until the first registration; the list is published last, with release.
extern std::atomic<HAppDoubleList> g_hAppShareActionList;
extern std::atomic<HAppLock> g_hAppShareActionRecursiveLock;
extern char g_achAppShareActionLastCalledKey[APP_SHARE_ACTION_KEY_SIZE]; // as last reported
extern std::atomic<uint32_t> g_eAppShareActionLastCalledResult;

uint32_t _AppRegisterShareAction(const char *szKey, PFAppShareAction pfnAction, uint32_t bBlock);
// Null for an unknown key.
PFAppShareAction _AppFindShareAction(HAppDoubleList hList, const char *szKey, uint32_t *pbBlock);
}

#endif
