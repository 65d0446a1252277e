// SPDX-License-Identifier: MIT
//
// The steps of every typed reader and of every typed writer.  A member brings its own messages: the
// formats stay whole at the member, with its name captured there.
#ifndef APPCORE_XML_TYPED_H
#define APPCORE_XML_TYPED_H

#include "appcore/foundation.h"

namespace app
{

// Takes what `source` finds (a text, or the number of a wider reader), converts it and writes it.
// `source` logs its own failures, `refuse` logs a value that does not convert.
template <typename TFound, typename TValue, typename Source, typename Convert, typename Refuse>
uint32_t ReadTyped(TValue *ptValue, Source source, Convert convert, Refuse refuse)
{
    TFound found{};
    const uint32_t dwResult = source(&found);
    if (dwResult != APP_OK)
        return dwResult;
    TValue value{};
    if (!convert(found, &value)) {
        refuse(found);
        return APP_BAD_VALUE;
    }
    *ptValue = value;
    return APP_OK;
}

// A conversion by one of the number parsers.
template <typename T, T (*pfnParse)(const char *, uint32_t *)>
bool ParseNumber(const char *szText, T *ptValue)
{
    uint32_t bErr = 0;
    *ptValue = pfnParse(szText, &bErr);
    return bErr == 0;
}

// The conversion of a wider reader's number.
template <typename TWide, typename TNarrow>
bool NarrowNumber(TWide wide, TNarrow *ptValue)
{
    *ptValue = static_cast<TNarrow>(wide);
    return static_cast<TWide>(*ptValue) == wide;
}

// Formats a number and hands its text to `put`; `refuse` logs a number whose text does not fit.
template <typename Format, typename Refuse, typename Put>
uint32_t WriteTyped(Format format, Refuse refuse, Put put)
{
    char achText[64] = {};
    if (format(achText, static_cast<uint32_t>(sizeof(achText))) < 0) {
        refuse();
        return APP_FAILED;
    }
    return put(achText);
}

} // namespace app

#endif
