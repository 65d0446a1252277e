// SPDX-License-Identifier: MIT
//
// What a conversion does is the host's affair; whatever it answers but success is a failure, logged
// with the answer.
#include "utils_unicode/unicode.h"

#include "appcore/convert.h"
#include "host/call.h"
#include "utils/log.h"

static constexpr int32_t kHostSuccess = 1;

uint32_t _AppUtilsUnicodeConvertUtf8toUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen)
{
    const int32_t nAnswer = APP_HOST(IpcConvConvertUtf8toUnicode)(pvSrc, pvDst, pdwLen);
    if (nAnswer == kHostSuccess)
        return APP_OK;
    APP_LOG_RESULT(nAnswer, "[ERROR] %s: IpcConvConvertUtf8toUnicode failed %d\n", __func__);
    return APP_FAILED;
}

uint32_t _AppUtilsUnicodeConvertUnicodetoUtf8(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                              uint32_t dwDstLen)
{
    const int32_t nAnswer = APP_HOST(IpcConvConvertUnicodetoUtf8)(pvSrc, dwSrcLen, pvDst, dwDstLen);
    if (nAnswer == kHostSuccess)
        return APP_OK;
    APP_LOG_RESULT(nAnswer, "[ERROR] %s: IpcConvConvertUnicodetoUtf8 failed %d\n", __func__);
    return APP_FAILED;
}

uint32_t _AppUtilsUnicodeConvertGbktoUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen)
{
    const int32_t nAnswer = APP_HOST(IpcConvConvertGbktoUnicode)(pvSrc, pvDst, pdwLen);
    if (nAnswer == kHostSuccess)
        return APP_OK;
    APP_LOG_RESULT(nAnswer, "[ERROR] %s: IpcConvConvertGbktoUnicode failed %d\n", __func__);
    return APP_FAILED;
}

uint32_t _AppUtilsUnicodeConvertUnicodetoGbk(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                             uint32_t dwDstLen)
{
    const int32_t nAnswer = APP_HOST(IpcConvConvertUnicodetoGbk)(pvSrc, dwSrcLen, pvDst, dwDstLen);
    if (nAnswer == kHostSuccess)
        return APP_OK;
    APP_LOG_RESULT(nAnswer, "[ERROR] %s: IpcConvConvertUnicodetoGbk failed %d\n", __func__);
    return APP_FAILED;
}

uint32_t AppConvertUtf8toUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen)
{
    if (!pvSrc || !pvDst || !pdwLen || *pdwLen == 0)
        return APP_INVALID_ARG;
    return _AppUtilsUnicodeConvertUtf8toUnicode(pvSrc, pvDst, pdwLen);
}

uint32_t AppConvertGbktoUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen)
{
    if (!pvSrc || !pvDst || !pdwLen || *pdwLen == 0)
        return APP_INVALID_ARG;
    return _AppUtilsUnicodeConvertGbktoUnicode(pvSrc, pvDst, pdwLen);
}

uint32_t AppConvertUnicodetoUtf8(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                 uint32_t dwDstLen)
{
    if (!pvSrc || !pvDst)
        return APP_INVALID_ARG;
    return _AppUtilsUnicodeConvertUnicodetoUtf8(pvSrc, dwSrcLen, pvDst, dwDstLen);
}

uint32_t AppConvertUnicodetoGbk(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                uint32_t dwDstLen)
{
    if (!pvSrc || !pvDst)
        return APP_INVALID_ARG;
    return _AppUtilsUnicodeConvertUnicodetoGbk(pvSrc, dwSrcLen, pvDst, dwDstLen);
}
