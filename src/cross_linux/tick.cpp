// SPDX-License-Identifier: MIT
#include <errno.h>
#include <time.h>

#include "base/field.h"
#include "cross_linux/cross_linux.h"
#include "cross_linux/deadline.h"

namespace
{
constexpr uint32_t kTicksPerSecond = 100;
static_assert(APP_MS_PER_TICK == 1000 / kTicksPerSecond);
constexpr long kNsPerTick = 1000000000L / kTicksPerSecond;
} // namespace

std::atomic<uint32_t> g_dwAppRecentTick;

// The coarse monotonic clock advances with the kernel's timer interrupt, at least as often as
// times() counts, and is read without a system call: the task thread asks after every event.
uint32_t _AppGetTick(void)
{
    struct timespec tNow;
    if (clock_gettime(CLOCK_MONOTONIC_COARSE, &tNow) != 0)
        return ~static_cast<uint32_t>(errno);
    return static_cast<uint32_t>(tNow.tv_sec) * kTicksPerSecond +
           static_cast<uint32_t>(tNow.tv_nsec / kNsPerTick);
}

[[gnu::noinline]] uint32_t _AppNoteTick(void)
{
    const uint32_t dwTick = _AppGetTick();
    if (app::Peek(g_dwAppRecentTick) != dwTick)
        app::Poke(g_dwAppRecentTick, dwTick);
    return dwTick;
}

uint32_t _AppConvertTickToMS(uint32_t dwTick)
{
    return dwTick * APP_MS_PER_TICK;
}

void _AppDelay(uint32_t dwMs)
{
    if (dwMs == 0)
        return;
    const app::Deadline deadline(dwMs);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, deadline.End(), nullptr) == EINTR) {
    }
}
