// SPDX-License-Identifier: MIT
#include "appcore/platform.h"
#include "cross_linux/lock_word.h"

uint32_t AppLockCreate(HAppMemPool hMemPool, uint32_t dwMaxCount, uint32_t dwInitCount,
                       uint32_t dwType, HAppLock *phLock)
{
    if (!phLock)
        return APP_INVALID_ARG;
    return _AppLockCreate(hMemPool, dwMaxCount, dwInitCount, dwType, phLock);
}

void AppLockDestroy(HAppLock hLock)
{
    if (hLock)
        _AppLockDestroy(hLock);
}

uint32_t AppLockTakeByTime(HAppLock hLock, uint32_t dwTimeout)
{
    if (!hLock)
        return APP_INVALID_ARG;
    return app::TakeInLine(hLock, dwTimeout);
}

uint32_t AppLockGive(HAppLock hLock)
{
    if (!hLock)
        return APP_INVALID_ARG;
    return app::GiveInLine(hLock);
}
