/* SPDX-License-Identifier: MIT */
/**
 * @file enum_str.h
 * Tables of enumeration values and their names, and capability strings.
 *
 * A table belongs to the application and is only read: rows in any order, values may repeat, the
 * first match wins.  A table whose row i holds the value i is looked up by value in one step.  All
 * operations may be called from any thread.
 */
#ifndef APPCORE_ENUM_STR_H
#define APPCORE_ENUM_STR_H

#include "appcore/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One row of a table. */
typedef struct TAppS32StrPair {
    int32_t nEnum;     /**< the value */
    const char *szStr; /**< its name */
} TAppS32StrPair;

/** @return the first row with a value, or null (also for a null table).
 *  @param ptPairArr table  @param dwArrSize rows  @param nEnum value */
APP_API const TAppS32StrPair *AppFindS32StrPair_S32(const TAppS32StrPair *ptPairArr,
                                                    uint32_t dwArrSize, int32_t nEnum);
/** @return the first row with a name, or null (also for a null table); null equals the empty text.
 *  @param ptPairArr table  @param dwArrSize rows  @param szStr name, case-sensitive */
APP_API const TAppS32StrPair *AppFindS32StrPair_Str(const TAppS32StrPair *ptPairArr,
                                                    uint32_t dwArrSize, const char *szStr);

/** Value to name.
 *  @return the table's own text, or the constant "unknown_enum", logged, for a value without a row
 *          or a row without a name; never null, not to be freed
 *  @param ptPairArr table  @param dwArrSize rows  @param nEnum value */
APP_API const char *AppConvEnum2Str(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                                    int32_t nEnum);

/**
 * Name to value.
 * @param ptPairArr table
 * @param dwArrSize rows
 * @param szStr     name, case-sensitive
 * @param pnEnum    receives the value; may be null; untouched on failure
 * @retval APP_OK        found
 * @retval APP_BAD_VALUE no such name; logged
 */
APP_API uint32_t AppConvStr2Enum(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                                 const char *szStr, int32_t *pnEnum);

/**
 * Writes the names of the supported values, in increasing order of value, with commas between them.
 * What does not fit is cut off.
 * @param ptPairArr    table
 * @param dwArrSize    rows, not 0
 * @param abyCapArr    flags: element i not 0 means that the value i is supported
 * @param nCapArrLen   number of flags, not 0; a negative one writes the empty text
 * @param szDstBuf     receives the text
 * @param dwDstBufSize its size in bytes, not 0
 * @retval APP_OK          written
 * @retval APP_INVALID_ARG a null pointer or a size of 0; logged
 */
APP_API uint32_t AppMakeCapStr_u8(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                                  const uint8_t *abyCapArr, int32_t nCapArrLen, char *szDstBuf,
                                  uint32_t dwDstBufSize);
/** AppMakeCapStr_u8() with words as flags. */
APP_API uint32_t AppMakeCapStr_u32(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                                   const uint32_t *adwCapArr, int32_t nCapArrLen, char *szDstBuf,
                                   uint32_t dwDstBufSize);
/** AppMakeCapStr_u8() with 32-bit booleans as flags. */
APP_API uint32_t AppMakeCapStr_Bool(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                                    const uint32_t *abCapArr, int32_t nCapArrLen, char *szDstBuf,
                                    uint32_t dwDstBufSize);

#ifdef __cplusplus
}
#endif

#endif
