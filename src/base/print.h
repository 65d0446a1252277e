// SPDX-License-Identifier: MIT
//
// The casts that make a value fit its conversion on both word sizes.
#ifndef APPCORE_BASE_PRINT_H
#define APPCORE_BASE_PRINT_H

#include <stdint.h>

#include <type_traits>

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

// For %d: codes and counts that are printed as signed.
constexpr int Int(uint32_t dwValue)
{
    return static_cast<int>(dwValue);
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

} // namespace app

#endif
