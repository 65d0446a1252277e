// SPDX-License-Identifier: MIT
#include <type_traits>

#include "appcore/share_action.h"
#include "host/call.h"

static_assert(std::is_same_v<PFAppCommand, PFQorCommand>, "the host's commands are ours");

void AppRegCommand(const char *szName, PFAppCommand pfnCommand, const char *szHelp)
{
    APP_HOST(QorRegCommand)(szName, pfnCommand, szHelp);
}
