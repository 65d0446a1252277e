// SPDX-License-Identifier: MIT
#include "appcore/enum_str.h"
#include "utils/log.h"

static_assert(sizeof(TAppS32StrPair) == 2 * sizeof(void *), "fixed layout");

namespace
{

constexpr char kUnknown[] = "unknown_enum";

bool CheckSizes(uint32_t dwArrSize, int32_t nCapArrLen, uint32_t dwDstBufSize, const char *szOp)
{
    if (dwArrSize == 0) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: dwArrSize zero\n", szOp);
        return false;
    }
    if (nCapArrLen == 0) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: nCapArrLen zero\n", szOp);
        return false;
    }
    if (dwDstBufSize == 0) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: dwDstBufSize zero\n", szOp);
        return false;
    }
    return true;
}

// The builders' common part; `trace` sees each name before it is appended.
template <typename Flag, typename Trace>
uint32_t MakeCapStr(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize, const Flag *ptCapArr,
                    int32_t nCapArrLen, char *szDstBuf, uint32_t dwDstBufSize, const char *szOp,
                    Trace trace)
{
    if (!CheckSizes(dwArrSize, nCapArrLen, dwDstBufSize, szOp))
        return APP_INVALID_ARG;
    szDstBuf[0] = '\0';
    for (int32_t i = 0; i < nCapArrLen; ++i) {
        if (ptCapArr[i] == 0)
            continue;
        const char *szName = AppConvEnum2Str(ptPairArr, dwArrSize, i);
        if (szDstBuf[0] != '\0')
            AppStrncat(szDstBuf, ",", dwDstBufSize);
        trace(szName);
        AppStrncat(szDstBuf, szName, dwDstBufSize);
    }
    return APP_OK;
}

} // namespace

const TAppS32StrPair *AppFindS32StrPair_S32(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                                            int32_t nEnum)
{
    if (!ptPairArr)
        return nullptr;
    // Most tables are dense and sorted: one look then.
    const auto dwIndex = static_cast<uint32_t>(nEnum); // a negative value is beyond every table
    if (nEnum >= 0 && dwIndex < dwArrSize && ptPairArr[dwIndex].nEnum == nEnum)
        return &ptPairArr[dwIndex];
    for (uint32_t i = 0; i < dwArrSize; ++i)
        if (ptPairArr[i].nEnum == nEnum)
            return &ptPairArr[i];
    return nullptr;
}

const TAppS32StrPair *AppFindS32StrPair_Str(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                                            const char *szStr)
{
    for (uint32_t i = 0; ptPairArr && i < dwArrSize; ++i)
        if (AppStrcmp(ptPairArr[i].szStr, szStr) == 0)
            return &ptPairArr[i];
    return nullptr;
}

const char *AppConvEnum2Str(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize, int32_t nEnum)
{
    const TAppS32StrPair *ptPair = AppFindS32StrPair_S32(ptPairArr, dwArrSize, nEnum);
    // Never null, so that a caller may print what it gets.
    if (ptPair && ptPair->szStr)
        return ptPair->szStr;
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppFindS32StrPair_S32() failed, {%d}\n", __func__, nEnum);
    return kUnknown;
}

uint32_t AppConvStr2Enum(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize, const char *szStr,
                         int32_t *pnEnum)
{
    const TAppS32StrPair *ptPair = AppFindS32StrPair_Str(ptPairArr, dwArrSize, szStr);
    if (!ptPair) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: _CgiAppFindS32StrPair_Str() failed, {%s}\n", __func__,
               szStr ? szStr : "");
        return APP_BAD_VALUE;
    }
    if (pnEnum)
        *pnEnum = ptPair->nEnum;
    return APP_OK;
}

uint32_t AppMakeCapStr_u8(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                          const uint8_t *abyCapArr, int32_t nCapArrLen, char *szDstBuf,
                          uint32_t dwDstBufSize)
{
    if (!ptPairArr || !abyCapArr || !szDstBuf) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptPairArr %p, abyCapArr %p, szDstBuf %p\n", __func__,
               app::Ptr(ptPairArr), app::Ptr(abyCapArr), app::Ptr(szDstBuf));
        return APP_INVALID_ARG;
    }
    return MakeCapStr(ptPairArr, dwArrSize, abyCapArr, nCapArrLen, szDstBuf, dwDstBufSize, __func__,
                      [](const char *) {});
}

uint32_t AppMakeCapStr_u32(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                           const uint32_t *adwCapArr, int32_t nCapArrLen, char *szDstBuf,
                           uint32_t dwDstBufSize)
{
    if (!ptPairArr || !adwCapArr || !szDstBuf) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptPairArr %p, adwCapArr %p, szDstBuf %p\n", __func__,
               app::Ptr(ptPairArr), app::Ptr(adwCapArr), app::Ptr(szDstBuf));
        return APP_INVALID_ARG;
    }
    return MakeCapStr(ptPairArr, dwArrSize, adwCapArr, nCapArrLen, szDstBuf, dwDstBufSize, __func__,
                      [&, szOp = __func__](const char *szName) {
                          APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: szDstBuf{%s}, szStr %p, size %lu\n",
                                    szOp, szDstBuf, app::Ptr(szName), app::Ul(dwDstBufSize));
                      });
}

uint32_t AppMakeCapStr_Bool(const TAppS32StrPair *ptPairArr, uint32_t dwArrSize,
                            const uint32_t *abCapArr, int32_t nCapArrLen, char *szDstBuf,
                            uint32_t dwDstBufSize)
{
    if (!ptPairArr || !abCapArr || !szDstBuf) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptPairArr %p, abCapArr %p, szDstBuf %p\n", __func__,
               app::Ptr(ptPairArr), app::Ptr(abCapArr), app::Ptr(szDstBuf));
        return APP_INVALID_ARG;
    }
    return MakeCapStr(ptPairArr, dwArrSize, abCapArr, nCapArrLen, szDstBuf, dwDstBufSize, __func__,
                      [](const char *) {});
}
