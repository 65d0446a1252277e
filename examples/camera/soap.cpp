// SPDX-License-Identifier: MIT
#include "soap.h"

#include "camera.h"
#include "document.h"
#include "text.h"

namespace camera
{

// ---- Reading ------------------------------------------------------------------------------------

// More would keep a processor busy, as much as a tenth of a second.
constexpr uint32_t kMostElements = 512; // tags, in fact
constexpr uint32_t kMostAttributes = 256;
constexpr char kNextRole[] = "http://www.w3.org/2003/05/soap-envelope/role/next";
constexpr char kLastRole[] = "http://www.w3.org/2003/05/soap-envelope/role/ultimateReceiver";

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

// To each attribute of an element Mini-XML compares all that it has already, and whoever looks for a
// name looks at each element, and for its namespace at each attribute of those around it.
static bool IsModest(const char *szText, uint32_t dwLength)
{
    uint32_t dwElements = 0, dwAttributes = 0;
    for (uint32_t i = 0; i < dwLength; ++i) {
        dwElements += szText[i] == '<';
        dwAttributes += szText[i] == '=';
    }
    return dwElements <= kMostElements && dwAttributes <= kMostAttributes;
}

bool SoapParse(const char *szText, uint32_t dwLength, TSoapMessage *ptMessage)
{
    *ptMessage = {};
    if (IsModest(szText, dwLength))
        ptMessage->ptTree = DocumentLoad(szText, dwLength, ReportXmlError);
    if (!ptMessage->ptTree)
        return false;
    // An XML declaration is the parent of the envelope to Mini-XML.
    mxml_node_t *ptEnvelope = IsXmlDeclaration(ptMessage->ptTree)
                                  ? SoapChild(ptMessage->ptTree, kSoapNs, "Envelope")
                                  : FirstOf(ptMessage->ptTree, kSoapNs, "Envelope");
    mxml_node_t *ptHeader = SoapChild(ptEnvelope, kSoapNs, "Header");
    ptMessage->ptHeader = ptHeader;
    ptMessage->ptBody = SoapChild(ptEnvelope, kSoapNs, "Body");
    ptMessage->szAction = SoapText(SoapChild(ptHeader, kAddressingNs, "Action"));
    ptMessage->szMessageId = SoapText(SoapChild(ptHeader, kAddressingNs, "MessageID"));
    ptMessage->szRelatesTo = SoapText(SoapChild(ptHeader, kAddressingNs, "RelatesTo"));
    return true;
}

bool SoapHasDocumentType(const TSoapMessage &tMessage)
{
    mxml_node_t *ptTree = tMessage.ptTree;
    while (ptTree && !IsDocumentType(ptTree))
        ptTree = DocumentNext(tMessage.ptTree, ptTree);
    return ptTree;
}

// An attribute of SOAP's, whatever its prefix; one without a prefix has no namespace.
static const char *SoapAttribute(mxml_node_t *ptNode, const char *szLocal)
{
    auto nAttributes = mxmlElementGetAttrCount(ptNode);
    for (decltype(nAttributes) i = 0; i < nAttributes; ++i) {
        const char *szName = nullptr;
        const char *szValue = mxmlElementGetAttrByIndex(ptNode, i, &szName);
        if (AppStrchr(szName, ':') &&
            SoapNameIs(ptNode, szName, AppStrlen(szName), kSoapNs, szLocal))
            return szValue;
    }
    return nullptr;
}

// A block for nobody in particular is for the last that receives it, and that is who reads it here.
static bool IsForUs(mxml_node_t *ptBlock)
{
    const char *szRole = SoapAttribute(ptBlock, "role"), *szRest = szRole;
    uint32_t dwLength = 0;
    return !szRole || !NextWord(&szRest, &dwLength) || SoapEqual(szRole, kNextRole) ||
           SoapEqual(szRole, kLastRole);
}

static bool IsKnownBlock(mxml_node_t *ptBlock)
{
    static constexpr const char *s_aszAddressing[] = {"Action",  "MessageID", "To",       "From",
                                                      "ReplyTo", "FaultTo",   "RelatesTo"};
    for (const char *szLocal : s_aszAddressing)
        if (IsElement(ptBlock, kAddressingNs, szLocal))
            return true;
    return IsElement(ptBlock, kDiscoveryNs, "AppSequence");
}

bool SoapIsUnderstood(const TSoapMessage &tMessage)
{
    for (mxml_node_t *pt = mxmlGetFirstChild(tMessage.ptHeader); pt; pt = mxmlGetNextSibling(pt)) {
        const char *szMust = SoapAttribute(pt, "mustUnderstand");
        if ((SoapEqual(szMust, "1") || SoapEqual(szMust, "true")) && IsForUs(pt) &&
            !IsKnownBlock(pt))
            return false;
    }
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

// Mini-XML does not tell that it had no memory for an attribute.
static void SetNamespaces(TSoapWriter *ptWriter, mxml_node_t *ptEnvelope)
{
    static constexpr struct {
        const char *szName;
        const char *szUri;
    } s_atNamespace[] = {{"xmlns:s", kSoapNs},
                         {"xmlns:a", kAddressingNs},
                         {"xmlns:d", kDiscoveryNs},
                         {"xmlns:dn", kNetworkNs},
                         {"xmlns:tds", kDeviceNs}};
    for (const auto &ns : s_atNamespace) {
        mxmlElementSetAttr(ptEnvelope, ns.szName, ns.szUri);
        ptWriter->bFailed |= !mxmlElementGetAttr(ptEnvelope, ns.szName);
    }
}

void SoapBegin(TSoapWriter *ptWriter, const char *szAction, const char *szTo,
               const char *szRelatesTo)
{
    char achUuid[kUuidSize];
    MakeUuid(achUuid);
    *ptWriter = {};
    AppSnprintf(ptWriter->achMessageId, sizeof(ptWriter->achMessageId), "urn:uuid:%s", achUuid);
    ptWriter->ptTree = DocumentNew();
    ptWriter->bFailed = !ptWriter->ptTree;
    mxml_node_t *ptEnvelope = SoapAdd(ptWriter, ptWriter->ptTree, "s:Envelope", nullptr);
    SetNamespaces(ptWriter, ptEnvelope);
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
    const uint32_t dwLength =
        ptWriter->bFailed ? 0 : DocumentSave(ptWriter->ptTree, szBuf, dwSize, nullptr);
    mxmlDelete(ptWriter->ptTree);
    *ptWriter = {};
    return dwLength;
}

} // namespace camera
