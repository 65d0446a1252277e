// SPDX-License-Identifier: MIT
//
// What the number parsers make of a text, by the C library's: nothing for a failure.
#ifndef APPCORE_FUZZ_NUMBER_ORACLE_H
#define APPCORE_FUZZ_NUMBER_ORACLE_H

#include <errno.h>
#include <stdlib.h>

#include <optional>
#include <string>

// The limits themselves only as their exact texts.
inline std::optional<int32_t> OracleS32(const std::string &text)
{
    const long long qnValue = strtoll(text.c_str(), nullptr, 10);
    const bool bInside = qnValue > INT32_MIN && qnValue < INT32_MAX;
    if (!bInside && text != "2147483647" && text != "-2147483648")
        return std::nullopt;
    return static_cast<int32_t>(qnValue);
}

inline std::optional<uint64_t> OracleU64(const std::string &text)
{
    errno = 0;
    const unsigned long long qwValue = strtoull(text.c_str(), nullptr, 10);
    if (errno == ERANGE || text.find('-') != std::string::npos)
        return std::nullopt;
    return qwValue;
}

inline std::optional<uint32_t> OracleU32(const std::string &text)
{
    const std::optional<uint64_t> wide = OracleU64(text);
    if (!wide || (*wide >= UINT32_MAX && text != "4294967295"))
        return std::nullopt;
    return static_cast<uint32_t>(*wide);
}

#endif
