// SPDX-License-Identifier: MIT
//
// The readers of numbers and booleans.
#include "appcore/convert.h"
#include "appcore/xml.h"
#include "utils/log.h"
#include "xml/typed.h"

using app::NarrowNumber;
using app::ParseNumber;
using app::Ptr;
using app::ReadTyped;

static bool ParseBool(const char *szText, uint32_t *pbValue)
{
    *pbValue = AppStrcasecmp(szText, "true") == 0;
    return *pbValue == 1 || AppStrcasecmp(szText, "false") == 0;
}

static auto SonText(mxml_node_t *ptParent, const char *szNodeName)
{
    return [=](const char **pszText) {
        return AppXmlGetSonNodeValue_Str(ptParent, szNodeName, pszText);
    };
}

// The wider reader tells what is missing or no number, in its own name.
static auto SonNumber(mxml_node_t *ptParent, const char *szNodeName)
{
    return
        [=](int32_t *pnValue) { return AppXmlGetSonNodeValue_s32(ptParent, szNodeName, pnValue); };
}

static auto AttrNumber(mxml_node_t *ptNode, const char *szAttrName)
{
    return [=](int32_t *pnValue) { return AppXmlGetAttr_s32(ptNode, szAttrName, pnValue); };
}

// An optional attribute, missed in the name of the reader.
static auto AttrText(mxml_node_t *ptNode, const char *szAttrName, const char *szOp)
{
    return [=](const char **pszText) -> uint32_t {
        *pszText = mxmlElementGetAttr(ptNode, szAttrName);
        if (*pszText)
            return APP_OK;
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: get attr failed, name {%s}\n", szOp, szAttrName);
        return APP_NOT_FOUND;
    };
}

static uint32_t ReadNodeNumber(mxml_node_t *ptNode, uint32_t *pdwValue, const char *szOp)
{
    const auto Source = [=](const char **pszText) {
        const uint32_t dwResult = AppXmlGetNodeValue_Str(ptNode, pszText);
        if (dwResult != APP_OK)
            APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: AppXmlGetNodeValue_Str() failed %d\n", szOp,
                      app::Int(dwResult));
        return dwResult;
    };
    return ReadTyped<const char *>(
        pdwValue, Source, ParseNumber<uint32_t, AppConvertStrtoU32>, [szOp](const char *szText) {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: overflow, {%s}\n", szOp, szText);
        });
}

// ---- Typed values of an element -------------------------------------------------------------

uint32_t AppXmlGetNodeValue_u16(mxml_node_t *ptNode, uint16_t *pwValue)
{
    if (!ptNode || !pwValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, pwValue %p\n", __func__, Ptr(ptNode),
               Ptr(pwValue));
        return APP_INVALID_ARG;
    }
    const auto Source = [=, szOp = __func__](uint32_t *pdwValue) {
        return ReadNodeNumber(ptNode, pdwValue, szOp);
    };
    return ReadTyped<uint32_t>(
        pwValue, Source, NarrowNumber<uint32_t, uint16_t>, [szOp = __func__](uint32_t dwNum) {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: node value too large for u16, dwNum %lu\n", szOp,
                   app::Ul(dwNum));
        });
}

uint32_t AppXmlGetNodeValue_u32(mxml_node_t *ptNode, uint32_t *pdwValue)
{
    if (!ptNode || !pdwValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, pdwValue %p\n", __func__, Ptr(ptNode),
               Ptr(pdwValue));
        return APP_INVALID_ARG;
    }
    return ReadNodeNumber(ptNode, pdwValue, __func__);
}

// ---- Typed attributes -----------------------------------------------------------------------

uint32_t AppXmlGetAttr_s32(mxml_node_t *ptNode, const char *szAttrName, int32_t *pnValue)
{
    if (!ptNode || !szAttrName || !pnValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, szAttrName %p, pnValue %p\n", __func__,
               Ptr(ptNode), Ptr(szAttrName), Ptr(pnValue));
        return APP_INVALID_ARG;
    }
    return ReadTyped<const char *>(
        pnValue, AttrText(ptNode, szAttrName, __func__), ParseNumber<int32_t, AppConvertStrtoS32>,
        [pnValue, szOp = __func__](const char *szText) {
            *pnValue = 0; // callers rely on it, unlike that of the other readers
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: conv str to s32 failed, {%s}\n", szOp, szText);
        });
}

uint32_t AppXmlGetAttr_u8(mxml_node_t *ptNode, const char *szAttrName, uint8_t *pbyValue)
{
    if (!ptNode || !szAttrName || !pbyValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, szAttrName %p, pbyValue %p\n", __func__,
               Ptr(ptNode), Ptr(szAttrName), Ptr(pbyValue));
        return APP_INVALID_ARG;
    }
    return ReadTyped<int32_t>(
        pbyValue, AttrNumber(ptNode, szAttrName), NarrowNumber<int32_t, uint8_t>,
        [szOp = __func__](int32_t nValue) {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: value %d, is not in [0, 0xFF]\n", szOp, nValue);
        });
}

uint32_t AppXmlGetAttr_u16(mxml_node_t *ptNode, const char *szAttrName, uint16_t *pwValue)
{
    if (!ptNode || !szAttrName || !pwValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, szAttrName %p, pwValue %p\n", __func__,
               Ptr(ptNode), Ptr(szAttrName), Ptr(pwValue));
        return APP_INVALID_ARG;
    }
    return ReadTyped<int32_t>(
        pwValue, AttrNumber(ptNode, szAttrName), NarrowNumber<int32_t, uint16_t>,
        [szOp = __func__](int32_t nValue) {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: value %d, is not in [0, 0xFFFF]\n", szOp, nValue);
        });
}

uint32_t AppXmlGetAttr_u32(mxml_node_t *ptNode, const char *szAttrName, uint32_t *pdwValue)
{
    if (!ptNode || !szAttrName || !pdwValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, szAttrName %p, pdwValue %p\n", __func__,
               Ptr(ptNode), Ptr(szAttrName), Ptr(pdwValue));
        return APP_INVALID_ARG;
    }
    return ReadTyped<const char *>(
        pdwValue, AttrText(ptNode, szAttrName, __func__), ParseNumber<uint32_t, AppConvertStrtoU32>,
        [pdwValue, szOp = __func__](const char *szText) {
            *pdwValue = 0; // as in AppXmlGetAttr_s32()
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: conv str to u32 failed, {%s}\n", szOp, szText);
        });
}

uint32_t AppXmlGetAttr_Bool(mxml_node_t *ptNode, const char *szAttrName, uint32_t *pbValue)
{
    if (!ptNode || !szAttrName || !pbValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, szAttrName %p, pbValue %p\n", __func__,
               Ptr(ptNode), Ptr(szAttrName), Ptr(pbValue));
        return APP_INVALID_ARG;
    }
    return ReadTyped<const char *>(pbValue, AttrText(ptNode, szAttrName, __func__), ParseBool,
                                   [szAttrName, szOp = __func__](const char *szText) {
                                       AppLog(0, APP_LOG_ERROR,
                                              "[ERROR] %s: unknown value {%s}, attr {%s}\n", szOp,
                                              szText, szAttrName);
                                   });
}

// ---- Typed values of an element below a node ------------------------------------------------

uint32_t AppXmlGetSonNodeValue_s32(mxml_node_t *ptParent, const char *szNodeName, int32_t *pnValue)
{
    if (!ptParent || !szNodeName || !pnValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptParent %p, szNodeName %p, pnValue %p\n", __func__,
               Ptr(ptParent), Ptr(szNodeName), Ptr(pnValue));
        return APP_INVALID_ARG;
    }
    return ReadTyped<const char *>(
        pnValue, SonText(ptParent, szNodeName), ParseNumber<int32_t, AppConvertStrtoS32>,
        [szOp = __func__](const char *szText) {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppConvertStrtoS32() failed, {%s}\n", szOp,
                   szText);
        });
}

uint32_t AppXmlGetSonNodeValue_u8(mxml_node_t *ptParent, const char *szNodeName, uint8_t *pbyValue)
{
    if (!pbyValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: pbyValue NULL\n", __func__);
        return APP_INVALID_ARG;
    }
    return ReadTyped<int32_t>(pbyValue, SonNumber(ptParent, szNodeName),
                              NarrowNumber<int32_t, uint8_t>, [szOp = __func__](int32_t nValue) {
                                  AppLog(0, APP_LOG_ERROR, "[ERROR] %s: invalid value: %d\n", szOp,
                                         nValue);
                              });
}

uint32_t AppXmlGetSonNodeValue_u16(mxml_node_t *ptParent, const char *szNodeName, uint16_t *pwValue)
{
    if (!pwValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: pwValue NULL\n", __func__);
        return APP_INVALID_ARG;
    }
    return ReadTyped<int32_t>(pwValue, SonNumber(ptParent, szNodeName),
                              NarrowNumber<int32_t, uint16_t>, [szOp = __func__](int32_t nValue) {
                                  AppLog(0, APP_LOG_ERROR, "[ERROR] %s: invalid value: %d\n", szOp,
                                         nValue);
                              });
}

uint32_t AppXmlGetSonNodeValue_u32(mxml_node_t *ptParent, const char *szNodeName,
                                   uint32_t *pdwValue)
{
    if (!ptParent || !szNodeName || !pdwValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptParent %p, szNodeName %p, pdwValue %p\n", __func__,
               Ptr(ptParent), Ptr(szNodeName), Ptr(pdwValue));
        return APP_INVALID_ARG;
    }
    return ReadTyped<const char *>(
        pdwValue, SonText(ptParent, szNodeName), ParseNumber<uint32_t, AppConvertStrtoU32>,
        [szOp = __func__](const char *szText) {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppConvertStrtoU32() overflow, {%s}\n", szOp,
                   szText);
        });
}

uint32_t AppXmlGetSonNodeValue_u64(mxml_node_t *ptParent, const char *szNodeName,
                                   uint64_t *pqwValue)
{
    if (!ptParent || !szNodeName || !pqwValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptParent %p, szNodeName %p, pqwValue %p\n", __func__,
               Ptr(ptParent), Ptr(szNodeName), Ptr(pqwValue));
        return APP_INVALID_ARG;
    }
    return ReadTyped<const char *>(
        pqwValue, SonText(ptParent, szNodeName), ParseNumber<uint64_t, AppConvertStrtoU64>,
        [szOp = __func__](const char *szText) {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppConvertStrtoU64() overflow, {%s}\n", szOp,
                   szText);
        });
}

uint32_t AppXmlGetSonNodeValue_Bool(mxml_node_t *ptParent, const char *szNodeName,
                                    uint32_t *pbValue)
{
    const auto Source = [=, szOp = __func__](const char **pszText) {
        const uint32_t dwResult = AppXmlGetSonNodeValue_Str(ptParent, szNodeName, pszText);
        if (dwResult != APP_OK)
            APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: AppXmlGetSonNodeValue_Str() failed %d\n", szOp,
                      app::Int(dwResult));
        return dwResult;
    };
    // Also for a caller that wants to know only whether the text is one.
    uint32_t bUnwanted;
    return ReadTyped<const char *>(pbValue ? pbValue : &bUnwanted, Source, ParseBool,
                                   [szNodeName, szOp = __func__](const char *szText) {
                                       AppLog(0, APP_LOG_ERROR,
                                              "[ERROR] %s: unknown text{%s}, node{%s}\n", szOp,
                                              szText, szNodeName);
                                   });
}
