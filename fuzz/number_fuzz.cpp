// SPDX-License-Identifier: MIT
//
// The number parsers beside the C library's: the same value wherever that one is in range, and a
// failure exactly where the library's own rules ask for one.
#include <errno.h>
#include <math.h>

#include "appcore/convert.h"
#include "fuzz.h"
#include "number_oracle.h"

template <typename T>
static void CheckInteger(T (*pfnRead)(const char *, uint32_t *), const std::string &text,
                         std::optional<T> wanted)
{
    uint32_t bErr = 7;
    Require(pfnRead(text.c_str(), &bErr) == wanted.value_or(0) && bErr == (wanted ? 0u : 1u));
    Require(pfnRead(text.c_str(), nullptr) == wanted.value_or(0));
    bErr = 7;
    Require(pfnRead(nullptr, &bErr) == 0 && bErr == 0);
    Require(TakeLines() == 0);
}

// A failure keeps the value and logs where the number ended and why it is none.
template <typename T>
static void CheckReal(const char *szOp, T (*pfnRead)(const char *, uint32_t *),
                      T (*pfnOracle)(const char *, char **), const char *szText)
{
    char *szEnd = nullptr;
    errno = 0;
    const T oracle = pfnOracle(szText, &szEnd);
    const int nError = errno;
    const bool bFails = szEnd == szText || nError == ERANGE;
    uint32_t bErr = 7;
    errno = ERANGE; // an old error must not count
    const T value = pfnRead(szText, &bErr);
    Require(bErr == (bFails ? 1u : 0u) && (value == oracle || (isnan(value) && isnan(oracle))));
    Require(TakeLines() == bErr);
    const std::string line =
        Printed("[ERROR] %s: szStr %p, szEndPtr %p, errno %d, ERANGE 34\n", szOp,
                static_cast<const void *>(szText), static_cast<void *>(szEnd), nError);
    Require(!bFails || g_line == line);
    bErr = 7;
    Require(pfnRead(nullptr, &bErr) == 0 && bErr == 0 && TakeLines() == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    const std::string text = AsText(pbyData, nSize);
    CheckInteger(AppConvertStrtoS32, text, OracleS32(text));
    CheckInteger(AppConvertStrtoU32, text, OracleU32(text));
    CheckInteger(AppConvertStrtoU64, text, OracleU64(text));
    CheckReal("AppConvertStrtoFloat", AppConvertStrtoFloat, strtof, text.c_str());
    CheckReal("AppConvertStrtoDouble", AppConvertStrtoDouble, strtod, text.c_str());
    return 0;
}
