// SPDX-License-Identifier: MIT
//
// Finding elements, their texts, and the typed readers made of both.
#include "appcore/xml.h"

#include "appcore/convert.h"
#include "utils/log.h"
#include "xml/typed.h"

using app::NarrowNumber;
using app::ParseNumber;
using app::Ptr;
using app::ReadTyped;

// ---- Nodes ----------------------------------------------------------------------------------

static bool IsElementNamed(mxml_node_t *ptNode, const char *szName)
{
    return mxmlGetType(ptNode) == MXML_ELEMENT && AppStrcmp(mxmlGetElement(ptNode), szName) == 0;
}

mxml_type_t AppXmlMxmlParseCB(mxml_node_t *)
{
    return MXML_OPAQUE;
}

mxml_node_t *AppXmlGetFirstChildWithName(mxml_node_t *ptParent, const char *szName)
{
    if (!ptParent || !szName) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptParent %p, szName %p\n", __func__, Ptr(ptParent),
               Ptr(szName));
        return nullptr;
    }
    mxml_node_t *ptChild = mxmlGetFirstChild(ptParent);
    if (!ptChild || IsElementNamed(ptChild, szName))
        return ptChild;
    return AppXmlGetNextSiblingWithName(ptChild, szName);
}

mxml_node_t *AppXmlGetNextSiblingWithName(mxml_node_t *ptNode, const char *szName)
{
    if (!ptNode || !szName) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, szName %p\n", __func__, Ptr(ptNode),
               Ptr(szName));
        return nullptr;
    }
    do
        ptNode = mxmlGetNextSibling(ptNode);
    while (ptNode && !IsElementNamed(ptNode, szName));
    return ptNode;
}

static mxml_node_t *FindBelow(mxml_node_t *ptTop, const char *szName)
{
    return mxmlFindElement(ptTop, ptTop, szName, nullptr, nullptr, MXML_DESCEND);
}

uint32_t AppXmlGetSonNode(mxml_node_t *ptParent, const char *szNodeName, mxml_node_t **pptSonNode)
{
    if (!ptParent || !szNodeName || !pptSonNode) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptParent %p, szNodeName %p, pptSonNode %p\n",
               __func__, Ptr(ptParent), Ptr(szNodeName), Ptr(pptSonNode));
        return APP_INVALID_ARG;
    }
    mxml_node_t *ptFound = FindBelow(ptParent, szNodeName);
    if (!ptFound) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: mxmlFindElement() failed, name{%s}\n", __func__,
                  szNodeName);
        return APP_NOT_FOUND;
    }
    *pptSonNode = ptFound;
    return APP_OK;
}

// ---- Texts ----------------------------------------------------------------------------------

uint32_t AppXmlGetNodeValue_Str(mxml_node_t *ptNode, const char **pszStr)
{
    if (!ptNode || !pszStr) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, pszStr %p\n", __func__, Ptr(ptNode),
               Ptr(pszStr));
        return APP_INVALID_ARG;
    }
    const char *szOpaque = mxmlGetOpaque(ptNode);
    *pszStr = szOpaque ? szOpaque : "";
    return APP_OK;
}

uint32_t AppXmlGetAttr_Str(mxml_node_t *ptNode, const char *szAttrName, const char **pszValue)
{
    if (!ptNode || !szAttrName || !pszValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, szAttrName %p, pszValue %p\n", __func__,
               Ptr(ptNode), Ptr(szAttrName), Ptr(pszValue));
        return APP_INVALID_ARG;
    }
    const char *szValue = mxmlElementGetAttr(ptNode, szAttrName);
    if (!szValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: can NOT find attr{%s}\n", __func__, szAttrName);
        return APP_NOT_FOUND;
    }
    *pszValue = szValue;
    return APP_OK;
}

uint32_t AppXmlGetSonNodeValue_Str(mxml_node_t *ptParent, const char *szNodeName,
                                   const char **szText)
{
    if (!ptParent || !szNodeName || !szText) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptParent %p, szNodeName %p, szText %p\n", __func__,
               Ptr(ptParent), Ptr(szNodeName), Ptr(szText));
        return APP_INVALID_ARG;
    }
    mxml_node_t *ptNode = mxmlFindPath(ptParent, szNodeName);
    if (!ptNode) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: mxmlFindPath() failed, {%s}\n", __func__, szNodeName);
        return APP_NOT_FOUND;
    }
    const char *szValue;
    switch (mxmlGetType(ptNode)) {
    case MXML_ELEMENT: // no content, or it begins with another element
        szValue = "";
        break;
    case MXML_OPAQUE:
        szValue = mxmlGetOpaque(ptNode);
        break;
    case MXML_TEXT:
        szValue = mxmlGetText(ptNode, nullptr);
        break;
    default:
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: node{%s} is NOT MXML_OPAQUE, or MXML_TEXT\n",
               __func__, szNodeName);
        return APP_XML_NODE_INVALID;
    }
    if (!szValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: node{%s} value is NULL\n", __func__, szNodeName);
        return APP_XML_NODE_INVALID;
    }
    *szText = szValue;
    return APP_OK;
}

uint32_t AppXmlGetSonNodeValue_Str_Copy(mxml_node_t *ptParent, const char *szNodeName, char *szBuf,
                                        uint32_t dwBufSize)
{
    if (!ptParent || !szNodeName || !szBuf) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptParent %p, szNodeName %p, szBuf %p\n", __func__,
               Ptr(ptParent), Ptr(szNodeName), Ptr(szBuf));
        return APP_INVALID_ARG;
    }
    if (dwBufSize == 0) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: dwBufSize zero\n", __func__);
        return APP_INVALID_ARG;
    }
    const char *szText;
    const uint32_t dwResult = AppXmlGetSonNodeValue_Str(ptParent, szNodeName, &szText);
    if (dwResult != APP_OK) {
        AppLog(0, APP_LOG_ERROR,
               "[ERROR] %s: AppXmlGetSonNodeValue_Str() failed %d, szSonNodeName{%s}\n", __func__,
               static_cast<int>(dwResult), szNodeName);
        return dwResult;
    }
    const uint32_t dwLen = AppStrlen(szText);
    if (dwLen >= dwBufSize) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: buffer too small, len %d, dwBufSize %lu\n", __func__,
               static_cast<int>(dwLen), app::Ul(dwBufSize));
        return APP_BUFFER_TOO_SMALL;
    }
    AppStrncpy(szBuf, szText, dwBufSize);
    return APP_OK;
}

// Mini-XML keeps a CDATA section as an element whose name is the section, opening mark included.
static bool IsCData(mxml_node_t *ptNode)
{
    return mxmlGetType(ptNode) == MXML_ELEMENT &&
           AppStrncmp(mxmlGetElement(ptNode), "![CDATA[", 8) == 0;
}

uint32_t AppXmlGetSonNodeValue_CData(mxml_node_t *ptParent, const char *szNodeName,
                                     const char **pszText)
{
    if (!ptParent || !szNodeName || !pszText) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptParent %p, szNodeName %p, pszText %p\n", __func__,
               Ptr(ptParent), Ptr(szNodeName), Ptr(pszText));
        return APP_INVALID_ARG;
    }
    mxml_node_t *ptElement = FindBelow(ptParent, szNodeName);
    if (!ptElement) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: do not find element. {%s}\n", __func__, szNodeName);
        return APP_NOT_FOUND;
    }
    mxml_node_t *ptSection = mxmlGetFirstChild(ptElement);
    while (ptSection && !IsCData(ptSection))
        ptSection = mxmlGetNextSibling(ptSection);
    const char *szText = ptSection ? mxmlGetCDATA(ptSection) : "]]";
    if (!szText) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: mxmlGetCDATA() failed, szNodeName{%s}\n", __func__,
               szNodeName);
        return APP_XML_NODE_INVALID;
    }
    *pszText = szText;
    return APP_OK;
}

// ---- What the typed readers share -----------------------------------------------------------

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
                      static_cast<int>(dwResult));
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
                      static_cast<int>(dwResult));
        return dwResult;
    };
    uint32_t bUnwanted;
    return ReadTyped<const char *>(pbValue ? pbValue : &bUnwanted, Source, ParseBool,
                                   [szNodeName, szOp = __func__](const char *szText) {
                                       AppLog(0, APP_LOG_ERROR,
                                              "[ERROR] %s: unknown text{%s}, node{%s}\n", szOp,
                                              szText, szNodeName);
                                   });
}
