// SPDX-License-Identifier: MIT
#ifndef APPCORE_CROSS_LINUX_DEADLINE_H
#define APPCORE_CROSS_LINUX_DEADLINE_H

#include <stdint.h>
#include <time.h>

namespace app
{

// The one instant at which a wait ends, on the monotonic clock, which is read only when there is one.
// Created when a wait begins, not before: that costs more than a take that need not wait.  In seconds
// and nanoseconds, as the system takes and gives them: 32-bit processors divide 64 bits in software.
class Deadline
{
public:
    // A time-out of 0 has no end.
    explicit Deadline(uint32_t dwTimeout);

    bool Passed() const;

    // For waits on the same clock; null: none.
    const struct timespec *End() const { return m_bLimited ? &m_tEnd : nullptr; }

    // Milliseconds left, by a reading of its own, rounded up and cut to `nMost`; `nMost` when there
    // is no end.
    int32_t LeftMs(int32_t nMost) const;

private:
    bool m_bLimited;
    struct timespec m_tEnd;
};

} // namespace app

#endif
