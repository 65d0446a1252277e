// SPDX-License-Identifier: MIT
//
// The number parsers beside the C library's: the same value wherever that one is in range, and a
// failure exactly where the library's own rules ask for one.
#include <errno.h>
#include <math.h>
#include <string.h>

#include "appcore/convert.h"
#include "appcore/host.h"
#include "fuzz.h"

APP_FUZZ_SILENT_CONSOLE

static void CheckS32(const std::string &text)
{
    uint32_t bErr = 7;
    const int32_t nValue = AppConvertStrtoS32(text.c_str(), &bErr);
    const long long qnOracle = strtoll(text.c_str(), nullptr, 10);
    const bool bInside = qnOracle > INT32_MIN && qnOracle < INT32_MAX;
    if (bInside || text == "2147483647" || text == "-2147483648")
        Require(bErr == 0 && nValue == qnOracle);
    else
        Require(bErr == 1 && nValue == 0);
}

static void CheckUnsigned(const std::string &text)
{
    errno = 0;
    const unsigned long long qwOracle = strtoull(text.c_str(), nullptr, 10);
    const bool bRange = errno == ERANGE;
    const bool bMinus = text.find('-') != std::string::npos;
    uint32_t bErr = 7;
    const uint32_t dwValue = AppConvertStrtoU32(text.c_str(), &bErr);
    const bool bRefused = bMinus || (qwOracle >= UINT32_MAX && text != "4294967295");
    Require(bErr == (bRefused ? 1u : 0u) && dwValue == (bRefused ? 0 : qwOracle));
    const uint64_t qwValue = AppConvertStrtoU64(text.c_str(), &bErr);
    Require(bErr == (bMinus || bRange ? 1u : 0u) && qwValue == (bErr ? 0 : qwOracle));
}

static void CheckDouble(const std::string &text)
{
    char *szEnd = nullptr;
    errno = 0;
    const double dOracle = strtod(text.c_str(), &szEnd);
    const bool bFails = szEnd == text.c_str() || errno == ERANGE;
    uint32_t bErr = 7;
    const double dValue = AppConvertStrtoDouble(text.c_str(), &bErr);
    Require(bErr == (bFails ? 1u : 0u) && (dValue == dOracle || (isnan(dValue) && isnan(dOracle))));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    const std::string text = AsText(pbyData, nSize);
    CheckS32(text);
    CheckUnsigned(text);
    CheckDouble(text);
    return 0;
}
