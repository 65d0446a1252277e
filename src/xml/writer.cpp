// SPDX-License-Identifier: MIT
//
// The writers of elements and attributes.
#include "appcore/xml.h"

#include "utils/log.h"
#include "xml/mxml_version.h"
#include "xml/typed.h"

using app::Ptr;
using app::WriteTyped;

// ---- What Mini-XML made ---------------------------------------------------------------------

// Mini-XML hands a node out although it had no memory for its copy of the name or the text; the
// next save of such a document crashes.  So what was made is looked at: null instead, and the
// half-made node is gone.
static mxml_node_t *Whole(mxml_node_t *ptNode, const char *szCopy)
{
    if (szCopy)
        return ptNode;
    mxmlDelete(ptNode);
    return nullptr;
}

static mxml_node_t *NewElement(mxml_node_t *ptFather, const char *szName)
{
    mxml_node_t *ptElement = mxmlNewElement(ptFather, szName);
    return Whole(ptElement, mxmlGetElement(ptElement));
}

static mxml_node_t *NewText(mxml_node_t *ptElement, const char *szText)
{
    mxml_node_t *ptText = mxmlNewText(ptElement, 0, szText);
    return Whole(ptText, mxmlGetText(ptText, nullptr));
}

static mxml_node_t *NewCData(mxml_node_t *ptElement, const char *szData)
{
    mxml_node_t *ptSection = mxmlNewCDATA(ptElement, szData);
    return Whole(ptSection,
                 app::HeldText(ptSection)); // mxmlGetCDATA() would read a null name of version 3
}

// ---- Elements -------------------------------------------------------------------------------

uint32_t AppXmlAddSonNode(mxml_node_t *ptFather, const char *szNodeName, mxml_node_t **pptNewNode)
{
    if (!ptFather || !szNodeName || !pptNewNode) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptFather %p, szNodeName %p, pptNewNode %p\n",
               __func__, Ptr(ptFather), Ptr(szNodeName), Ptr(pptNewNode));
        return APP_INVALID_ARG;
    }
    *pptNewNode = NewElement(ptFather, szNodeName);
    if (!*pptNewNode) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: mxmlNewElement() failed, {%s}\n", __func__,
               szNodeName);
        return APP_NO_RESOURCE;
    }
    return APP_OK;
}

static void Give(mxml_node_t **pptNewNode, mxml_node_t *ptNode)
{
    if (pptNewNode)
        *pptNewNode = ptNode;
}

uint32_t AppXmlAddSonNode_Str(mxml_node_t *ptFather, const char *szNodeName, const char *szValue,
                              mxml_node_t **pptNewNode)
{
    if (!ptFather || !szNodeName || !szValue) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptFather %p, szNodeName %p, szValue %p\n", __func__,
               Ptr(ptFather), Ptr(szNodeName), Ptr(szValue));
        return APP_INVALID_ARG;
    }
    Give(pptNewNode, nullptr);
    mxml_node_t *ptElement = NewElement(ptFather, szNodeName);
    if (!ptElement) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: mxmlNewElement() failed, {%s}\n", __func__,
               szNodeName);
        return APP_NO_RESOURCE;
    }
    if (!NewText(ptElement, szValue)) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: mxmlNewText() failed, Elem{%s}, value{%s}\n",
               __func__, szNodeName, szValue);
        return APP_NO_RESOURCE;
    }
    Give(pptNewNode, ptElement);
    return APP_OK;
}

uint32_t AppXmlAddSonNode_CDATA(mxml_node_t *ptFather, const char *szNodeName, const char *szData,
                                mxml_node_t **pptElem)
{
    if (!ptFather || !szNodeName || !szData) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptFather %p, szNodeName %p, szData %p\n", __func__,
               Ptr(ptFather), Ptr(szNodeName), Ptr(szData));
        return APP_INVALID_ARG;
    }
    if (!pptElem) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: pptElem NULL\n", __func__);
        return APP_INVALID_ARG;
    }
    *pptElem = nullptr;
    mxml_node_t *ptElement = NewElement(ptFather, szNodeName);
    if (!ptElement) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: mxmlNewElement() failed\n", __func__);
        return APP_NO_RESOURCE;
    }
    if (!NewCData(ptElement, szData)) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: mxmlNewCDATA() failed\n", __func__);
        return APP_NO_RESOURCE;
    }
    *pptElem = ptElement;
    return APP_OK;
}

// ---- Typed elements -------------------------------------------------------------------------

// Formats by WriteTyped() and adds the text as an element.
template <typename Format, typename Refuse>
static uint32_t AddTyped(mxml_node_t *ptFather, const char *szNodeName, mxml_node_t **pptNewNode,
                         Format format, Refuse refuse)
{
    const auto RefuseWithNull = [&] {
        refuse();
        Give(pptNewNode, nullptr);
    };
    return WriteTyped(format, RefuseWithNull, [&](const char *szText) {
        return AppXmlAddSonNode_Str(ptFather, szNodeName, szText, pptNewNode);
    });
}

uint32_t AppXmlAddSonNode_s32(mxml_node_t *ptFather, const char *szNodeName, int32_t nValue,
                              mxml_node_t **pptNewNode)
{
    return AddTyped(
        ptFather, szNodeName, pptNewNode,
        [=](char *szBuf, uint32_t dwSize) { return AppSnprintf(szBuf, dwSize, "%d", nValue); },
        [=, szOp = __func__] {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppSnprintf() failed, value %d\n", szOp, nValue);
        });
}

uint32_t AppXmlAddSonNode_u32(mxml_node_t *ptFather, const char *szNodeName, uint32_t dwValue,
                              mxml_node_t **pptNewNode)
{
    return AddTyped(
        ptFather, szNodeName, pptNewNode,
        [=](char *szBuf, uint32_t dwSize) {
            return AppSnprintf(szBuf, dwSize, "%lu", app::Ul(dwValue));
        },
        [=, szOp = __func__] {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppSnprintf() failed, %lu\n", szOp,
                   app::Ul(dwValue));
        });
}

uint32_t AppXmlAddSonNode_u64(mxml_node_t *ptFather, const char *szNodeName, uint64_t qwValue,
                              mxml_node_t **pptNewNode)
{
    return AddTyped(
        ptFather, szNodeName, pptNewNode,
        [=](char *szBuf, uint32_t dwSize) {
            return AppSnprintf(szBuf, dwSize, "%llu", app::Ull(qwValue));
        },
        [=, szOp = __func__] {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppSnprintf() failed, %llu\n", szOp,
                   app::Ull(qwValue));
        });
}

uint32_t AppXmlAddSonNode_Double(mxml_node_t *ptFather, const char *szNodeName, double dValue,
                                 mxml_node_t **pptNewNode)
{
    return AddTyped(
        ptFather, szNodeName, pptNewNode,
        // Never with an exponent: from 1e56 on the text does not fit.
        [=](char *szBuf, uint32_t dwSize) { return AppSnprintf(szBuf, dwSize, "%lf", dValue); },
        [=, szOp = __func__] {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppSnprintf() failed, %lf\n", szOp, dValue);
        });
}

uint32_t AppXmlAddSonNode_Bool(mxml_node_t *ptFather, const char *szNodeName, uint32_t bValue,
                               mxml_node_t **pptNewNode)
{
    return AppXmlAddSonNode_Str(ptFather, szNodeName, bValue ? "true" : "false", pptNewNode);
}

// ---- Attributes -----------------------------------------------------------------------------

// Mini-XML does not tell whether it had memory for the attribute: only that it is there does.
static auto SetAttr(mxml_node_t *ptNode, const char *szAttrName, const char *szOp)
{
    return [=](const char *szText) -> uint32_t {
        mxmlElementSetAttr(ptNode, szAttrName, szText);
        if (mxmlGetType(ptNode) != MXML_ELEMENT ||
            AppStrcmp(mxmlElementGetAttr(ptNode, szAttrName), szText) == 0)
            return APP_OK;
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: mxmlElementSetAttr() failed, attr{%s}, value{%s}\n",
               szOp, szAttrName, szText);
        return APP_NO_RESOURCE;
    };
}

uint32_t AppXmlSetAttr_s32(mxml_node_t *ptNode, const char *szAttrName, int32_t nValue)
{
    if (!ptNode || !szAttrName) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, szAttrName %p\n", __func__, Ptr(ptNode),
               Ptr(szAttrName));
        return APP_INVALID_ARG;
    }
    return WriteTyped(
        [=](char *szBuf, uint32_t dwSize) { return AppSnprintf(szBuf, dwSize, "%d", nValue); },
        [=, szOp = __func__] {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppSnprintf() failed, value %d\n", szOp, nValue);
        },
        SetAttr(ptNode, szAttrName, __func__));
}

uint32_t AppXmlSetAttr_u32(mxml_node_t *ptNode, const char *szAttrName, uint32_t dwValue)
{
    if (!ptNode || !szAttrName) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: ptNode %p, szAttrName %p\n", __func__, Ptr(ptNode),
               Ptr(szAttrName));
        return APP_INVALID_ARG;
    }
    return WriteTyped(
        [=](char *szBuf, uint32_t dwSize) {
            return AppSnprintf(szBuf, dwSize, "%lu", app::Ul(dwValue));
        },
        [=, szOp = __func__] {
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: AppSnprintf() failed, value %lu\n", szOp,
                   app::Ul(dwValue));
        },
        SetAttr(ptNode, szAttrName, __func__));
}
