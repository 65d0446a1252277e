// SPDX-License-Identifier: MIT
#include <errno.h>
#include <stdlib.h>

#include "appcore/convert.h"
#include "utils/log.h"

namespace
{

void SetFlag(uint32_t *pbErr, bool bFailed)
{
    if (pbErr)
        *pbErr = bFailed ? 1 : 0;
}

struct TDecimal {
    uint64_t qwValue;  // the digits' value, saturated
    const char *szEnd; // behind the digits
    bool bNegative;
    bool bOverflow; // of 64 bits
};

constexpr uint64_t kMostBefore = UINT64_MAX / 10; // a smaller number takes any digit more,
constexpr uint64_t kMostLast = UINT64_MAX % 10;   // this one digits up to here

bool IsSpace(char ch)
{
    return ch == ' ' || (ch >= '\t' && ch <= '\r');
}

// What the strtol family reads in base 10: white space, one sign, digits.  Written out because the
// width of their `long` differs between word sizes and the limits here do not.
TDecimal ReadDecimal(const char *szStr)
{
    TDecimal decimal = {};
    while (IsSpace(*szStr))
        ++szStr;
    decimal.bNegative = *szStr == '-';
    if (*szStr == '-' || *szStr == '+')
        ++szStr;
    for (; *szStr >= '0' && *szStr <= '9'; ++szStr) {
        const auto qwDigit = static_cast<uint64_t>(*szStr - '0');
        if (decimal.qwValue < kMostBefore ||
            (decimal.qwValue == kMostBefore && qwDigit <= kMostLast))
            decimal.qwValue = decimal.qwValue * 10 + qwDigit;
        else
            decimal.bOverflow = true;
    }
    decimal.szEnd = szStr;
    if (decimal.bOverflow)
        decimal.qwValue = UINT64_MAX;
    return decimal;
}

// Unsigned numbers come without one, and without one in what follows them.
bool HasMinus(const TDecimal &decimal)
{
    return decimal.bNegative || (*decimal.szEnd != '\0' && AppStrchr(decimal.szEnd, '-'));
}

// strtof() and strtod().
template <typename Number>
Number ReadReal(const char *szStr, uint32_t *pbErr, Number (*pfnRead)(const char *, char **),
                const char *szOp)
{
    SetFlag(pbErr, false);
    if (!szStr)
        return 0;
    char *szEndPtr = nullptr;
    // strtod() sets errno and never clears it.
    errno = 0;
    const Number value = pfnRead(szStr, &szEndPtr);
    const int nError = errno;
    if (szEndPtr == szStr || nError == ERANGE) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: szStr %p, szEndPtr %p, errno %d, ERANGE %d\n", szOp,
               app::Ptr(szStr), app::Ptr(szEndPtr), nError, ERANGE);
        SetFlag(pbErr, true);
    }
    return value;
}

} // namespace

float AppConvertStrtoFloat(const char *szStr, uint32_t *pbErr)
{
    return ReadReal<float>(szStr, pbErr, strtof, __func__);
}

double AppConvertStrtoDouble(const char *szStr, uint32_t *pbErr)
{
    return ReadReal<double>(szStr, pbErr, strtod, __func__);
}

int32_t AppConvertStrtoS32(const char *szStr, uint32_t *pbErr)
{
    SetFlag(pbErr, false);
    if (!szStr)
        return 0;
    const TDecimal decimal = ReadDecimal(szStr);
    // The limits stand for everything beyond them too: only their exact texts are values.
    if (decimal.bNegative && decimal.qwValue > INT32_MAX) {
        const bool bExact = AppStrcmp(szStr, "-2147483648") == 0;
        SetFlag(pbErr, !bExact);
        return bExact ? INT32_MIN : 0;
    }
    if (!decimal.bNegative && decimal.qwValue >= INT32_MAX) {
        const bool bExact = AppStrcmp(szStr, "2147483647") == 0;
        SetFlag(pbErr, !bExact);
        return bExact ? INT32_MAX : 0;
    }
    const auto nMagnitude = static_cast<int32_t>(decimal.qwValue);
    return decimal.bNegative ? -nMagnitude : nMagnitude;
}

uint32_t AppConvertStrtoU32(const char *szStr, uint32_t *pbErr)
{
    SetFlag(pbErr, false);
    if (!szStr)
        return 0;
    const TDecimal decimal = ReadDecimal(szStr);
    if (HasMinus(decimal) ||
        (decimal.qwValue >= UINT32_MAX && AppStrcmp(szStr, "4294967295") != 0)) {
        SetFlag(pbErr, true);
        return 0;
    }
    return static_cast<uint32_t>(decimal.qwValue);
}

uint64_t AppConvertStrtoU64(const char *szStr, uint32_t *pbErr)
{
    SetFlag(pbErr, false);
    if (!szStr)
        return 0;
    const TDecimal decimal = ReadDecimal(szStr);
    if (HasMinus(decimal) || decimal.bOverflow) {
        SetFlag(pbErr, true);
        return 0;
    }
    return decimal.qwValue;
}
