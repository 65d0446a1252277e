// SPDX-License-Identifier: MIT
#include "appcore/platform.h"
#include "cross_linux/lock_word.h"

static bool IsForOne(HAppLock hLock)
{
    return app::WordOf(hLock).dwMaxCount == 1;
}

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
    return IsForOne(hLock) ? app::TakeInLine(hLock, dwTimeout)
                           : _AppLockTakeByTime(hLock, dwTimeout);
}

uint32_t AppLockGive(HAppLock hLock)
{
    if (!hLock)
        return APP_INVALID_ARG;
    return IsForOne(hLock) ? app::GiveInLine(hLock) : _AppLockGive(hLock);
}
