// SPDX-License-Identifier: MIT
#include "cross_linux/deadline.h"

namespace
{

constexpr uint32_t kMsPerSecond = 1000;
constexpr long kNsPerMs = 1000000;
constexpr long kNsPerSecond = 1000000000;

struct timespec ReadNow()
{
    struct timespec tNow = {};
    clock_gettime(CLOCK_MONOTONIC, &tNow);
    return tNow;
}

struct timespec Later(struct timespec tTime, uint32_t dwMs)
{
    tTime.tv_sec += dwMs / kMsPerSecond;
    tTime.tv_nsec += static_cast<long>(dwMs % kMsPerSecond) * kNsPerMs;
    if (tTime.tv_nsec >= kNsPerSecond) {
        tTime.tv_nsec -= kNsPerSecond;
        ++tTime.tv_sec;
    }
    return tTime;
}

bool IsBefore(const struct timespec &tOne, const struct timespec &tOther)
{
    return tOne.tv_sec != tOther.tv_sec ? tOne.tv_sec < tOther.tv_sec
                                        : tOne.tv_nsec < tOther.tv_nsec;
}

} // namespace

app::Deadline::Deadline(uint32_t dwTimeout)
    : m_bLimited(dwTimeout != 0), m_tEnd(m_bLimited ? Later(ReadNow(), dwTimeout) : timespec{})
{
}

bool app::Deadline::Passed() const
{
    return m_bLimited && !IsBefore(ReadNow(), m_tEnd);
}

int32_t app::Deadline::LeftMs(int32_t nMost) const
{
    if (!m_bLimited)
        return nMost;
    const struct timespec tNow = ReadNow();
    if (!IsBefore(tNow, m_tEnd))
        return 0;
    const auto dwSeconds = static_cast<uint32_t>(m_tEnd.tv_sec - tNow.tv_sec);
    const long nNs = m_tEnd.tv_nsec - tNow.tv_nsec + kNsPerSecond; // one second is borrowed
    const uint64_t qwLeft = uint64_t{dwSeconds} * kMsPerSecond - kMsPerSecond +
                            static_cast<uint32_t>(nNs / kNsPerMs) + (nNs % kNsPerMs != 0 ? 1 : 0);
    return qwLeft < static_cast<uint32_t>(nMost) ? static_cast<int32_t>(qwLeft) : nMost;
}
