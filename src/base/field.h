// SPDX-License-Identifier: MIT
//
// Fields that one thread writes while reports and tests read them without a lock.  A reader wants
// some recent value and draws no conclusion about other memory from it, so relaxed order is enough.
#ifndef APPCORE_BASE_FIELD_H
#define APPCORE_BASE_FIELD_H

#include <stdint.h>

#include <atomic>

namespace app
{

// Of the library's own records: any thread may write.
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

// Of records that are plain, because callers see them or their layout is fixed: one writer at a
// time, under the record's own lock, who may read the field plainly.
inline uint32_t PeekCounter(const uint32_t &dwCounter)
{
    return __atomic_load_n(&dwCounter, __ATOMIC_RELAXED);
}
inline void SetCounter(uint32_t &dwCounter, uint32_t dwValue)
{
    __atomic_store_n(&dwCounter, dwValue, __ATOMIC_RELAXED);
}
inline void CountOne(uint32_t &dwCounter)
{
    SetCounter(dwCounter, PeekCounter(dwCounter) + 1);
}
// With any number of writers.
inline void AddCounter(uint32_t &dwCounter, uint32_t dwValue)
{
    __atomic_fetch_add(&dwCounter, dwValue, __ATOMIC_RELAXED);
}

} // namespace app

#endif
