// SPDX-License-Identifier: MIT
#include "soap.h"

#include "camera.h"
#include "text.h"

namespace camera
{

// ---- Reading ------------------------------------------------------------------------------------

// The namespace that a prefix stands for at a node: declarations of outer elements hold for inner
// ones.  Null for a prefix that was never declared.
static const char *FindNamespace(mxml_node_t *ptNode, const char *szPrefix, uint32_t dwLen)
{
    char achAttr[64];
    if (dwLen >= sizeof(achAttr) - 6)
        return nullptr;
    AppSnprintf(achAttr, sizeof(achAttr), dwLen > 0 ? "xmlns:%.*s" : "xmlns",
                static_cast<int>(dwLen), szPrefix);
    for (; ptNode; ptNode = mxmlGetParent(ptNode))
        if (const char *szNamespace = mxmlElementGetAttr(ptNode, achAttr))
            return szNamespace;
    return nullptr;
}

bool SoapNameIs(mxml_node_t *ptNode, const char *szName, uint32_t dwLen, const char *szNamespace,
                const char *szLocal)
{
    uint32_t dwPrefix = 0;
    while (dwPrefix < dwLen && szName[dwPrefix] != ':')
        ++dwPrefix;
    const bool bPrefix = dwPrefix < dwLen;
    const char *szRest = bPrefix ? szName + dwPrefix + 1 : szName;
    const uint32_t dwRest = static_cast<uint32_t>(szName + dwLen - szRest);
    return dwRest == AppStrlen(szLocal) && AppStrncmp(szRest, szLocal, dwRest) == 0 &&
           AppStrcmp(FindNamespace(ptNode, szName, bPrefix ? dwPrefix : 0), szNamespace) == 0;
}

static bool IsElement(mxml_node_t *ptNode, const char *szNamespace, const char *szLocal)
{
    const char *szName = mxmlGetElement(ptNode);
    return szName && SoapNameIs(ptNode, szName, AppStrlen(szName), szNamespace, szLocal);
}

static mxml_node_t *FirstOf(mxml_node_t *ptNode, const char *szNamespace, const char *szLocal)
{
    while (ptNode && !IsElement(ptNode, szNamespace, szLocal))
        ptNode = mxmlGetNextSibling(ptNode);
    return ptNode;
}

mxml_node_t *SoapChild(mxml_node_t *ptParent, const char *szNamespace, const char *szLocal)
{
    return FirstOf(mxmlGetFirstChild(ptParent), szNamespace, szLocal);
}

mxml_node_t *SoapNext(mxml_node_t *ptNode, const char *szNamespace, const char *szLocal)
{
    return FirstOf(mxmlGetNextSibling(ptNode), szNamespace, szLocal);
}

const char *SoapText(mxml_node_t *ptNode)
{
    const char *szText = nullptr;
    if (ptNode)
        AppXmlGetNodeValue_Str(ptNode, &szText);
    return szText;
}

bool SoapEqual(const char *szText, const char *szWanted)
{
    uint32_t dwLen = 0;
    const char *szWord = szText ? NextWord(&szText, &dwLen) : nullptr;
    return szWord && dwLen == AppStrlen(szWanted) && AppStrncmp(szWord, szWanted, dwLen) == 0 &&
           !NextWord(&szText, &dwLen);
}

static void ReportXmlError(const char *szText)
{
    char achText[200];
    AppLog(g_byNetLog, APP_LOG_DEBUG, "[DEBUG] %s: %s\n", __func__,
           EscapeForLog(szText, achText, sizeof(achText)));
}

bool SoapParse(const char *szText, uint32_t dwLength, TSoapMessage *ptMessage)
{
    *ptMessage = {};
    mxmlSetErrorCallback(ReportXmlError); // for this thread
    if (AppXmlLoad(szText, dwLength, &ptMessage->ptTree) != APP_OK)
        return false;
    // An XML declaration is the parent of the envelope to Mini-XML.
    const char *szRoot = mxmlGetElement(ptMessage->ptTree);
    mxml_node_t *ptEnvelope = szRoot && szRoot[0] == '?'
                                  ? SoapChild(ptMessage->ptTree, kSoapNs, "Envelope")
                                  : FirstOf(ptMessage->ptTree, kSoapNs, "Envelope");
    mxml_node_t *ptHeader = SoapChild(ptEnvelope, kSoapNs, "Header");
    ptMessage->ptBody = SoapChild(ptEnvelope, kSoapNs, "Body");
    ptMessage->szAction = SoapText(SoapChild(ptHeader, kAddressingNs, "Action"));
    ptMessage->szMessageId = SoapText(SoapChild(ptHeader, kAddressingNs, "MessageID"));
    ptMessage->szRelatesTo = SoapText(SoapChild(ptHeader, kAddressingNs, "RelatesTo"));
    return true;
}

void SoapFree(TSoapMessage *ptMessage)
{
    mxmlDelete(ptMessage->ptTree);
    *ptMessage = {};
}

// ---- Writing ------------------------------------------------------------------------------------

mxml_node_t *SoapAdd(TSoapWriter *ptWriter, mxml_node_t *ptParent, const char *szName,
                     const char *szText)
{
    mxml_node_t *ptNode = nullptr;
    if (!ptWriter->bFailed) {
        const uint32_t dwResult = szText ? AppXmlAddSonNode_Str(ptParent, szName, szText, &ptNode)
                                         : AppXmlAddSonNode(ptParent, szName, &ptNode);
        ptWriter->bFailed = dwResult != APP_OK;
    }
    return ptNode;
}

void SoapBegin(TSoapWriter *ptWriter, const char *szAction, const char *szTo,
               const char *szRelatesTo)
{
    char achUuid[kUuidSize];
    MakeUuid(achUuid);
    *ptWriter = {};
    AppSnprintf(ptWriter->achMessageId, sizeof(ptWriter->achMessageId), "urn:uuid:%s", achUuid);
    ptWriter->ptTree = mxmlNewXML("1.0");
    ptWriter->bFailed = !ptWriter->ptTree;
    mxml_node_t *ptEnvelope = SoapAdd(ptWriter, ptWriter->ptTree, "s:Envelope", nullptr);
    if (ptEnvelope) {
        mxmlElementSetAttr(ptEnvelope, "xmlns:s", kSoapNs);
        mxmlElementSetAttr(ptEnvelope, "xmlns:a", kAddressingNs);
        mxmlElementSetAttr(ptEnvelope, "xmlns:d", kDiscoveryNs);
        mxmlElementSetAttr(ptEnvelope, "xmlns:dn", kNetworkNs);
    }
    ptWriter->ptHeader = SoapAdd(ptWriter, ptEnvelope, "s:Header", nullptr);
    ptWriter->ptBody = SoapAdd(ptWriter, ptEnvelope, "s:Body", nullptr);
    SoapAdd(ptWriter, ptWriter->ptHeader, "a:Action", szAction);
    SoapAdd(ptWriter, ptWriter->ptHeader, "a:MessageID", ptWriter->achMessageId);
    if (szRelatesTo)
        SoapAdd(ptWriter, ptWriter->ptHeader, "a:RelatesTo", szRelatesTo);
    SoapAdd(ptWriter, ptWriter->ptHeader, "a:To", szTo);
}

uint32_t SoapEnd(TSoapWriter *ptWriter, char *szBuf, uint32_t dwSize)
{
    const int nSize = static_cast<int>(dwSize);
    mxmlSetWrapMargin(0);
    const int nLength =
        ptWriter->bFailed ? 0 : mxmlSaveString(ptWriter->ptTree, szBuf, nSize, nullptr);
    mxmlDelete(ptWriter->ptTree);
    *ptWriter = {};
    return nLength > 0 && nLength < nSize ? static_cast<uint32_t>(nLength) : 0;
}

} // namespace camera
