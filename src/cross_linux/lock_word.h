// SPDX-License-Identifier: MIT
//
// What every lock record begins with, so that a take or a give that concerns nobody else is one
// compare-exchange in line.  Whatever may sleep, wake somebody or fails here goes through the twins.
#ifndef APPCORE_CROSS_LINUX_LOCK_WORD_H
#define APPCORE_CROSS_LINUX_LOCK_WORD_H

#include <stdint.h>

#include <atomic>

#include "cross_linux/cross_linux.h"

namespace app
{

constexpr uint32_t kSleepers = 0x80000000; // the bit in dwCount that says that takers sleep
constexpr uint32_t kMaxUnits = 0x7FFFFFFF; // what it leaves: more units than any memory holds

struct TLockWord {
    std::atomic<uint32_t> dwCount; // units available, and kSleepers
    uint32_t dwMaxCount;           // 0 for a recursive lock, which has nothing for the paths here
};

inline TLockWord &WordOf(HAppLock hLock)
{
    return *reinterpret_cast<TLockWord *>(hLock);
}

// Of a lock for one: from free to held, and back where nobody sleeps.  It is guessed, since to look
// first has to wait for the exchange before.  The twins sort out what fails.
inline bool TakeAtOnce(HAppLock hLock)
{
    uint32_t dwFree = 1;
    return WordOf(hLock).dwCount.compare_exchange_weak(dwFree, 0, std::memory_order_acquire,
                                                       std::memory_order_relaxed);
}
// Once it is true a taker may destroy the lock: nothing is touched after the exchange.
inline bool GiveAtOnce(HAppLock hLock)
{
    uint32_t dwHeld = 0;
    return WordOf(hLock).dwCount.compare_exchange_weak(dwHeld, 1, std::memory_order_release,
                                                       std::memory_order_relaxed);
}

// The twins behind those two: for semaphores, and meant for such that never hold more than one unit.
inline uint32_t TakeInLine(HAppLock hLock, uint32_t dwTimeout)
{
    if (__builtin_expect(TakeAtOnce(hLock), true))
        return APP_OK;
    return _AppLockTakeByTime(hLock, dwTimeout);
}
inline uint32_t GiveInLine(HAppLock hLock)
{
    if (__builtin_expect(GiveAtOnce(hLock), true))
        return APP_OK;
    return _AppLockGive(hLock);
}

} // namespace app

#endif
