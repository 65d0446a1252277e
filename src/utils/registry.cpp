// SPDX-License-Identifier: MIT
#include "utils/registry.h"

#include <initializer_list>

#include "appcore/foundation.h"

TAppRegistry g_atAppRegistry[APP_REGISTRY_NUM];

void app::Register(EAppRegistry eKind, TAppEntry *ptEntry, void *pvOwner)
{
    static uint64_t s_qwLast;
    _AppNoteTick(); // or what is noted of the object might be of the system's start
    TAppRegistry &tRegistry = g_atAppRegistry[eKind];
    const RegistryGuard guard;
    ptEntry->ptPrev = tRegistry.ptTail;
    ptEntry->ptNext = nullptr;
    ptEntry->pvOwner = pvOwner;
    ptEntry->qwSerial = ++s_qwLast;
    (tRegistry.ptTail ? tRegistry.ptTail->ptNext : tRegistry.ptHead) = ptEntry;
    tRegistry.ptTail = ptEntry;
}

void app::Unregister(EAppRegistry eKind, TAppEntry *ptEntry)
{
    TAppRegistry &tRegistry = g_atAppRegistry[eKind];
    const RegistryGuard guard;
    if (!ptEntry->pvOwner)
        return;
    (ptEntry->ptPrev ? ptEntry->ptPrev->ptNext : tRegistry.ptHead) = ptEntry->ptNext;
    (ptEntry->ptNext ? ptEntry->ptNext->ptPrev : tRegistry.ptTail) = ptEntry->ptPrev;
    ptEntry->pvOwner = nullptr;
}

void app::SetName(const char *szName, TAppEntry *ptEntry, TAppEntry *ptSecond, TAppEntry *ptThird)
{
    const RegistryGuard guard;
    for (TAppEntry *pt : {ptEntry, ptSecond, ptThird})
        if (pt)
            AppStrncpy(pt->achName, szName ? szName : "", sizeof(pt->achName));
}

bool app::LookAtNext(EAppRegistry eKind, uint64_t *pqwSerial,
                     void (*pfnLook)(const void *pvOwner, void *pvContext), void *pvContext)
{
    const RegistryGuard guard;
    const TAppEntry *ptEntry = g_atAppRegistry[eKind].ptHead;
    while (ptEntry && ptEntry->qwSerial <= *pqwSerial)
        ptEntry = ptEntry->ptNext;
    if (!ptEntry)
        return false;
    *pqwSerial = ptEntry->qwSerial;
    pfnLook(ptEntry->pvOwner, pvContext);
    return true;
}
