/* SPDX-License-Identifier: MIT */
/**
 * @file appcore.h
 * The whole library, without host.h: what the device and the application provide is the business of
 * the few sources that provide it; and without log_fast.h, which has its price.  Programs that do
 * not use the XML helpers may include the single headers and need no Mini-XML headers then.
 */
#ifndef APPCORE_APPCORE_H
#define APPCORE_APPCORE_H

#include "appcore/containers.h"
#include "appcore/convert.h"
#include "appcore/enum_str.h"
#include "appcore/foundation.h"
#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "appcore/share_action.h"
#include "appcore/socket.h"
#include "appcore/task.h"
#include "appcore/xml.h"

#endif
