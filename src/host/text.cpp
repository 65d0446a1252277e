// SPDX-License-Identifier: MIT
//
// The host's text converters over iconv.
#include <iconv.h>
#include <string.h>

#include "host/call.h"

namespace
{

constexpr char kUtf8[] = "UTF-8";
constexpr char kGbk[] = "GBK";
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
constexpr char kUtf16[] = "UTF-16BE";
#else
constexpr char kUtf16[] = "UTF-16LE";
#endif
constexpr uint32_t kUnit = sizeof(uint16_t);

struct TConversion {
    const char *szTo;
    const char *szFrom;
    uint32_t dwTerminator; // bytes of the destination's terminator
};

// The bytes written without the terminator, or -1.
int64_t Convert(const TConversion &conversion, const void *pvSrc, size_t nSrc, void *pvDst,
                size_t nRoom)
{
    if (nRoom < conversion.dwTerminator)
        return -1;
    const iconv_t hConv = iconv_open(conversion.szTo, conversion.szFrom);
    if (hConv == reinterpret_cast<iconv_t>(-1)) {
        memset(pvDst, 0, conversion.dwTerminator);
        return -1;
    }
    // iconv() leaves the source alone, whatever its signature says.
    char *pchSrc = static_cast<char *>(const_cast<void *>(pvSrc));
    char *pchDst = static_cast<char *>(pvDst);
    size_t nLeft = nRoom - conversion.dwTerminator;
    const bool bDone = iconv(hConv, &pchSrc, &nSrc, &pchDst, &nLeft) != static_cast<size_t>(-1);
    iconv_close(hConv);
    // After a failure too: callers print what they have got.
    memset(pchDst, 0, conversion.dwTerminator);
    return bDone ? pchDst - static_cast<char *>(pvDst) : -1;
}

int32_t ToUnicode(const char *szFrom, const void *pvSrc, void *pvDst, uint32_t *pdwLen)
{
    if (*pdwLen == 0)
        return 0;
    const TConversion conversion = {kUtf16, szFrom, kUnit};
    const int64_t qnWritten = Convert(conversion, pvSrc, strlen(static_cast<const char *>(pvSrc)),
                                      pvDst, size_t{*pdwLen} * kUnit);
    if (qnWritten < 0)
        return 0;
    *pdwLen = static_cast<uint32_t>(qnWritten / kUnit);
    return 1;
}

int32_t FromUnicode(const char *szTo, const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                    uint32_t dwDstLen)
{
    uint32_t dwUnits = 0;
    uint16_t wUnit = 1;
    for (; dwUnits < dwSrcLen; ++dwUnits) { // the source need not be aligned
        memcpy(&wUnit, static_cast<const char *>(pvSrc) + size_t{dwUnits} * kUnit, kUnit);
        if (wUnit == 0)
            break;
    }
    const TConversion conversion = {szTo, kUtf16, 1};
    return Convert(conversion, pvSrc, size_t{dwUnits} * kUnit, pvDst, dwDstLen) < 0 ? 0 : 1;
}

} // namespace

extern "C" {

int32_t _AppIpcConvConvertUtf8toUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen)
{
    return ToUnicode(kUtf8, pvSrc, pvDst, pdwLen);
}

int32_t _AppIpcConvConvertGbktoUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen)
{
    return ToUnicode(kGbk, pvSrc, pvDst, pdwLen);
}

int32_t _AppIpcConvConvertUnicodetoUtf8(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                        uint32_t dwDstLen)
{
    return FromUnicode(kUtf8, pvSrc, dwSrcLen, pvDst, dwDstLen);
}

int32_t _AppIpcConvConvertUnicodetoGbk(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                       uint32_t dwDstLen)
{
    return FromUnicode(kGbk, pvSrc, dwSrcLen, pvDst, dwDstLen);
}

} // extern "C"
