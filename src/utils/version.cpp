// SPDX-License-Identifier: MIT
#include "appcore/appcore.h"

const char *AppGetVersion(void)
{
    return APPCORE_VERSION_STRING;
}
