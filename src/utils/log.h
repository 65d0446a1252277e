// SPDX-License-Identifier: MIT
//
// What the library itself needs for its log lines: the threshold test in front of a call, and the
// casts that make a value fit its conversion on both word sizes.
#ifndef APPCORE_UTILS_LOG_H
#define APPCORE_UTILS_LOG_H

#include <atomic>
#include <type_traits>

#include "appcore/foundation.h"

extern "C" {
// Written by the setters while other threads log.  Each entry stands for itself, so relaxed order
// is enough: a line around a change is judged by the old threshold or the new one.
extern std::atomic<uint8_t> g_byAppLogLevel[256];
extern std::atomic<uint32_t> g_bAppLogViaStdout[256];
extern std::atomic<uint8_t> g_byAppLogNextChannel;
}

// AppLog on channel 0 for the levels that are normally off: the threshold is tested before the
// arguments are even evaluated.
#define APP_TRACE(byLevel, ...)                                                                    \
    do {                                                                                           \
        if ((byLevel) <= g_byAppLogLevel[0].load(std::memory_order_relaxed))                       \
            AppLog(0, (byLevel), __VA_ARGS__);                                                     \
    } while (0)

namespace app
{

// For %lu, %ld and %llu.
constexpr unsigned long Ul(uint32_t dwValue)
{
    return dwValue;
}
constexpr long Sl(int32_t nValue)
{
    return nValue;
}
constexpr unsigned long long Ull(uint64_t qwValue)
{
    return qwValue;
}

// For %p: object and function pointers alike.
template <typename T>
const void *Ptr(T *pt)
{
    if constexpr (std::is_function_v<T>)
        return reinterpret_cast<const void *>(pt);
    else
        return pt;
}

// A diagnostic field: written without a lock while reports read it.  Readers want some recent
// value and draw no conclusion about other memory from it, so relaxed order is enough.
template <typename T>
T Peek(const std::atomic<T> &field)
{
    return field.load(std::memory_order_relaxed);
}
template <typename T>
void Poke(std::atomic<T> &field, T value)
{
    field.store(value, std::memory_order_relaxed);
}

// The same for the counters of plain records: one writer at a time, under the record's own rules.
inline uint32_t Peek(const uint32_t &dwField)
{
    return __atomic_load_n(&dwField, __ATOMIC_RELAXED);
}
inline void Poke(uint32_t &dwField, uint32_t dwValue)
{
    __atomic_store_n(&dwField, dwValue, __ATOMIC_RELAXED);
}

} // namespace app

#endif
