// SPDX-License-Identifier: MIT
//
// Until the counters of logs, actions and sockets are there.
#include "utils/stats.h"

uint32_t AppLogGetStats(uint8_t byChannel, TAppLogStats *ptStats)
{
    TAppLogStats record = {};
    record.dwChannel = byChannel;
    return app::FillStats(ptStats, record);
}

uint32_t AppShareActionGetStats(TAppShareActionStats *ptStats)
{
    TAppShareActionStats record = {};
    return app::FillStats(ptStats, record);
}

uint32_t AppSocketGetStats(TAppSocketStats *ptStats)
{
    TAppSocketStats record = {};
    return app::FillStats(ptStats, record);
}
