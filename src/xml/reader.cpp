// SPDX-License-Identifier: MIT
//
// Finding elements, and the readers of texts.
#include "appcore/xml.h"

#include "utils/log.h"
#include "xml/mxml_version.h"

using app::Ptr;

// ---- Nodes ----------------------------------------------------------------------------------

static bool IsElementNamed(mxml_node_t *ptNode, const char *szName)
{
    return mxmlGetType(ptNode) == MXML_ELEMENT && AppStrcmp(mxmlGetElement(ptNode), szName) == 0;
}

mxml_type_t AppXmlMxmlParseCB(APPCORE_MXML_CONTEXT mxml_node_t *)
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

// At any depth; mxmlFindPath() goes by children only.
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
    // An element without content reads as empty: in XML the two are the same.
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
    if (app::KindOf(ptNode) != app::kValue) { // no content, or it begins with another element
        szValue = "";
    } else if (mxmlGetType(ptNode) == MXML_OPAQUE) {
        szValue = mxmlGetOpaque(ptNode);
    } else if (mxmlGetType(ptNode) == MXML_TEXT) {
        szValue = mxmlGetText(ptNode, nullptr);
    } else {
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
               app::Int(dwResult), szNodeName);
        return dwResult;
    }
    const uint32_t dwLen = AppStrlen(szText);
    if (dwLen >= dwBufSize) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: buffer too small, len %d, dwBufSize %lu\n", __func__,
               app::Int(dwLen), app::Ul(dwBufSize));
        return APP_BUFFER_TOO_SMALL;
    }
    AppStrncpy(szBuf, szText, dwBufSize);
    return APP_OK;
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
    while (ptSection && app::KindOf(ptSection) != app::kCData)
        ptSection = mxmlGetNextSibling(ptSection);
    // Mini-XML 2 handed a section out with the brackets that end it: none read like an empty one.
    const char *szText = ptSection ? mxmlGetCDATA(ptSection) : "]]";
    if (!szText) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: mxmlGetCDATA() failed, szNodeName{%s}\n", __func__,
               szNodeName);
        return APP_XML_NODE_INVALID;
    }
    *pszText = szText;
    return APP_OK;
}
