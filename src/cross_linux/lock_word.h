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
    std::atomic<uint32_t> dwCount; // units available, and kSleepers; of a recursive lock kSleepers
    uint32_t dwMaxCount;
};

inline TLockWord &WordOf(HAppLock hLock)
{
    return *reinterpret_cast<TLockWord *>(hLock);
}

// False where there is no unit, and where it was lost to another taker in the meantime.
inline bool TakeAtOnce(HAppLock hLock)
{
    TLockWord &tWord = WordOf(hLock);
    uint32_t dwCount = tWord.dwCount.load(std::memory_order_relaxed);
    return (dwCount & kMaxUnits) != 0 &&
           tWord.dwCount.compare_exchange_weak(dwCount, dwCount - 1, std::memory_order_acquire,
                                               std::memory_order_relaxed);
}

// False where somebody has to be woken, at the ceiling, and where the word has changed meanwhile.
// Once it is true a taker may destroy the lock: nothing is touched after the exchange.
inline bool GiveAtOnce(HAppLock hLock)
{
    TLockWord &tWord = WordOf(hLock);
    uint32_t dwCount = tWord.dwCount.load(std::memory_order_relaxed);
    // The bit is above every ceiling.
    return dwCount < tWord.dwMaxCount &&
           tWord.dwCount.compare_exchange_weak(dwCount, dwCount + 1, std::memory_order_release,
                                               std::memory_order_relaxed);
}

// The twins behind those two.
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
