// SPDX-License-Identifier: MIT
#include "appcore/platform.h"
#include "cross_linux/cross_linux.h"

uint32_t AppGetTick(void)
{
    return _AppNoteTick();
}

uint32_t AppConvertTickToMS(uint32_t dwTick)
{
    return _AppConvertTickToMS(dwTick);
}

uint32_t AppTickDiff(uint32_t dwStart, uint32_t dwEnd)
{
    return dwEnd - dwStart;
}

void AppDelay(uint32_t dwMs)
{
    _AppDelay(dwMs);
}
