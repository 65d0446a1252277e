// SPDX-License-Identifier: MIT
#ifndef APPCORE_CROSS_LINUX_DEADLINE_H
#define APPCORE_CROSS_LINUX_DEADLINE_H

#include <stdint.h>
#include <time.h>

namespace app
{

// The one instant at which a wait ends, on the monotonic clock.  Created when a wait begins, not
// before: reading the clock costs more than a take that need not wait.  In seconds and nanoseconds,
// as the system takes and gives them: 32-bit processors divide 64 bits in software.
class Deadline
{
public:
    // A time-out of 0 has no end.
    explicit Deadline(uint32_t dwTimeout);

    // Reads the clock.
    bool Passed() const;
    // Reached() and SliceEnd() go by the last reading, the first of which is the creation's.
    void ReadClock();
    bool Reached() const;
    // The end of the next slice of at most `dwSliceMs`, or the deadline.
    struct timespec SliceEnd(uint32_t dwSliceMs) const;

    // The deadline itself, for waits on the same clock.
    const struct timespec &End() const { return m_tEnd; }

    // Milliseconds left, by a reading of its own, rounded up and cut to `nMost`; `nMost` when there
    // is no end.
    int32_t LeftMs(int32_t nMost) const;

private:
    bool m_bLimited;
    struct timespec m_tNow;
    struct timespec m_tEnd;
};

} // namespace app

#endif
