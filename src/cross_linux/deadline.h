// SPDX-License-Identifier: MIT
#ifndef APPCORE_CROSS_LINUX_DEADLINE_H
#define APPCORE_CROSS_LINUX_DEADLINE_H

#include <stdint.h>
#include <time.h>

namespace app
{

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerSecond = 1000000000;

inline int64_t ClockNow(clockid_t nClock)
{
    struct timespec tNow = {};
    clock_gettime(nClock, &tNow);
    return static_cast<int64_t>(tNow.tv_sec) * kNsPerSecond + tNow.tv_nsec;
}

inline struct timespec ToTimespec(int64_t qnTime)
{
    struct timespec tTime = {};
    tTime.tv_sec = static_cast<time_t>(qnTime / kNsPerSecond);
    tTime.tv_nsec = static_cast<long>(qnTime % kNsPerSecond);
    return tTime;
}

// The one instant at which a wait ends.  Created when a wait begins, not before: reading the clock
// costs more than a take that need not wait.  Who needs one reading for a check and
// the end of the next slice uses the one that is kept.
class Deadline
{
public:
    // A time-out of 0 has no end.
    explicit Deadline(uint32_t dwTimeout, clockid_t nClock = CLOCK_MONOTONIC)
        : m_nClock(nClock), m_bLimited(dwTimeout != 0), m_qnNow(ClockNow(nClock)),
          m_qnEnd(m_qnNow + dwTimeout * kNsPerMs)
    {
    }

    void ReadClock() { m_qnNow = ClockNow(m_nClock); }
    // By the last reading.
    bool Reached() const { return m_bLimited && m_qnNow >= m_qnEnd; }
    bool Passed() const { return m_bLimited && ClockNow(m_nClock) >= m_qnEnd; }

    // The deadline itself, for waits on the same clock.
    struct timespec End() const { return ToTimespec(m_qnEnd); }

    // The end of the next slice of at most `dwSliceMs` after the last reading, or the deadline.
    struct timespec SliceEnd(uint32_t dwSliceMs) const
    {
        const int64_t qnSlice = m_qnNow + dwSliceMs * kNsPerMs;
        return ToTimespec(m_bLimited && m_qnEnd < qnSlice ? m_qnEnd : qnSlice);
    }

    // Milliseconds left, rounded up and cut to `nMost`; `nMost` when there is no end.
    int32_t LeftMs(int32_t nMost) const
    {
        if (!m_bLimited)
            return nMost;
        const int64_t qnLeft = (m_qnEnd - ClockNow(m_nClock) + kNsPerMs - 1) / kNsPerMs;
        if (qnLeft <= 0)
            return 0;
        return qnLeft < nMost ? static_cast<int32_t>(qnLeft) : nMost;
    }

private:
    clockid_t m_nClock;
    bool m_bLimited;
    int64_t m_qnNow;
    int64_t m_qnEnd;
};

} // namespace app

#endif
