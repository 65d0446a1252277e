// SPDX-License-Identifier: MIT
//
// Everything that stands for itself in the process: pools, queues, managers, tasks, each kind in the
// order of creation.  For those who look at a process from outside, with AppStatsWalk() or a
// debugger.
//
// One mutex of moments guards the lists and the names, the innermost of all: nothing is waited for,
// logged or allocated while it is held.  An object is in its list from the end of its creation to
// the beginning of its destruction: under the mutex its record may be read, by relaxed reads.
#ifndef APPCORE_UTILS_REGISTRY_H
#define APPCORE_UTILS_REGISTRY_H

#include <stddef.h>
#include <stdint.h>

#include "appcore/stats.h"
#include "cross_linux/cross_linux.h"

// Never wraps.  The pools align to four bytes on 32 bits.
typedef uint64_t TAppEntrySerial __attribute__((aligned(4)));

struct TAppEntry {
    TAppEntry *ptPrev;
    TAppEntry *ptNext;
    void *pvOwner; // null while not in a list
    TAppEntrySerial qwSerial;
    char achName[APP_STATS_NAME_SIZE];
};

struct TAppRegistry {
    TAppEntry *ptHead;
    TAppEntry *ptTail;
};

enum EAppRegistry {
    APP_REGISTRY_POOLS,
    APP_REGISTRY_QUEUES,
    APP_REGISTRY_TASK_MGRS,
    APP_REGISTRY_TASKS,
    APP_REGISTRY_NUM
};

extern "C" {
extern TAppRegistry g_atAppRegistry[APP_REGISTRY_NUM];
}

namespace app
{

class [[nodiscard]] RegistryGuard
{
public:
    RegistryGuard() { _AppRegistryLock(); }
    ~RegistryGuard() { _AppRegistryUnlock(); }
    RegistryGuard(const RegistryGuard &) = delete;
    RegistryGuard &operator=(const RegistryGuard &) = delete;
};

void Register(EAppRegistry eKind, TAppEntry *ptEntry, void *pvOwner);
// Does nothing for an entry that is in no list.
void Unregister(EAppRegistry eKind, TAppEntry *ptEntry);
// One name for one object or a few that belong together; null takes it away.
void SetName(const char *szName, TAppEntry *ptEntry, TAppEntry *ptSecond = nullptr,
             TAppEntry *ptThird = nullptr);

// Hands the next object to `pfnLook`, under the mutex; false when there is none.  `*pqwSerial` keeps
// the place, 0 at the beginning, while objects come and go.
bool LookAtNext(EAppRegistry eKind, uint64_t *pqwSerial,
                void (*pfnLook)(const void *pvOwner, void *pvContext), void *pvContext);

} // namespace app

#endif
