// SPDX-License-Identifier: MIT
//
// The host application's text converters, with their answers turned into result codes.
#ifndef APPCORE_UTILS_UNICODE_UNICODE_H
#define APPCORE_UTILS_UNICODE_UNICODE_H

#include <stdint.h>

extern "C" {
uint32_t _AppUtilsUnicodeConvertUtf8toUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen);
uint32_t _AppUtilsUnicodeConvertUnicodetoUtf8(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                              uint32_t dwDstLen);
uint32_t _AppUtilsUnicodeConvertGbktoUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen);
uint32_t _AppUtilsUnicodeConvertUnicodetoGbk(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                             uint32_t dwDstLen);
}

#endif
