// SPDX-License-Identifier: MIT
//
// The XML readers over arbitrary documents: every node of the tree, every reader, and the answers
// checked against each other.
#include "appcore/xml.h"

#include <string.h>
#include <strings.h>

#include "appcore/host.h"
#include "fuzz.h"

APP_FUZZ_SILENT_CONSOLE

static constexpr int kMostNodes = 64; // a search of the whole subtree from each node is quadratic

// What the readers of a narrow type make of what the wider one read.
static void RequireNarrow(uint32_t dwWide, int64_t nWide, uint32_t dwCode, uint32_t dwValue,
                          uint32_t dwMost)
{
    if (dwWide != APP_OK)
        Require(dwCode == dwWide && dwValue == 77);
    else if (nWide >= 0 && nWide <= dwMost)
        Require(dwCode == APP_OK && dwValue == nWide);
    else
        Require(dwCode == APP_BAD_VALUE && dwValue == 77);
}

// A number reader gives the text's failure, or a value, or refuses the text.
static void RequireNumber(uint32_t dwText, uint32_t dwCode, bool bKept)
{
    Require(dwText == APP_OK ? (dwCode == APP_OK || (dwCode == APP_BAD_VALUE && bKept))
                             : (dwCode == dwText && bKept));
}

static void ReadSonTexts(mxml_node_t *ptParent, const char *szName, uint32_t dwText,
                         const char *szText)
{
    char achBuf[16] = "kept";
    const uint32_t dwCopy = AppXmlGetSonNodeValue_Str_Copy(ptParent, szName, achBuf, 16);
    if (dwText != APP_OK)
        Require(dwCopy == dwText && strcmp(achBuf, "kept") == 0);
    else if (strlen(szText) < sizeof(achBuf))
        Require(dwCopy == APP_OK && strcmp(achBuf, szText) == 0);
    else
        Require(dwCopy == APP_BUFFER_TOO_SMALL && strcmp(achBuf, "kept") == 0);

    uint32_t bValue = 77;
    const uint32_t dwBool = AppXmlGetSonNodeValue_Bool(ptParent, szName, &bValue);
    RequireNumber(dwText, dwBool, bValue == 77);
    Require(dwBool != APP_OK || strcasecmp(szText, bValue ? "true" : "false") == 0);
    Require(AppXmlGetSonNodeValue_Bool(ptParent, szName, nullptr) == dwBool);
}

static void ReadSon(mxml_node_t *ptParent, const char *szName)
{
    const char *szText = nullptr;
    const uint32_t dwText = AppXmlGetSonNodeValue_Str(ptParent, szName, &szText);
    Require((dwText == APP_OK) == (szText != nullptr));
    ReadSonTexts(ptParent, szName, dwText, szText);

    int32_t nValue = 77;
    uint8_t byValue = 77;
    uint16_t wValue = 77;
    uint32_t dwValue = 77;
    uint64_t qwValue = 77;
    const uint32_t dwS32 = AppXmlGetSonNodeValue_s32(ptParent, szName, &nValue);
    RequireNumber(dwText, dwS32, nValue == 77);
    uint32_t dwCode = AppXmlGetSonNodeValue_u8(ptParent, szName, &byValue);
    RequireNarrow(dwS32, nValue, dwCode, byValue, UINT8_MAX);
    dwCode = AppXmlGetSonNodeValue_u16(ptParent, szName, &wValue);
    RequireNarrow(dwS32, nValue, dwCode, wValue, UINT16_MAX);
    const uint32_t dwU32 = AppXmlGetSonNodeValue_u32(ptParent, szName, &dwValue);
    RequireNumber(dwText, dwU32, dwValue == 77);
    RequireNumber(dwText, AppXmlGetSonNodeValue_u64(ptParent, szName, &qwValue), qwValue == 77);
    Require(dwU32 != APP_OK || qwValue == dwValue);
}

static void FindBelow(mxml_node_t *ptParent, const char *szName)
{
    mxml_node_t *ptFound = nullptr;
    if (AppXmlGetSonNode(ptParent, szName, &ptFound) == APP_OK)
        Require(strcmp(mxmlGetElement(ptFound), szName) == 0);
    const char *szData = nullptr;
    const uint32_t dwData = AppXmlGetSonNodeValue_CData(ptParent, szName, &szData);
    Require(dwData == (ptFound ? APP_OK : APP_NOT_FOUND) && (szData != nullptr) == !!ptFound);
    Require(!szData || strlen(szData) < SIZE_MAX);

    for (mxml_node_t *pt = AppXmlGetFirstChildWithName(ptParent, szName); pt;
         pt = AppXmlGetNextSiblingWithName(pt, szName))
        Require(mxmlGetParent(pt) == ptParent && strcmp(mxmlGetElement(pt), szName) == 0);
}

static void ReadAttribute(mxml_node_t *ptNode, const char *szName)
{
    const char *szText = nullptr;
    const uint32_t dwText = AppXmlGetAttr_Str(ptNode, szName, &szText);
    Require((dwText == APP_OK) == (szText != nullptr));
    int32_t nValue = 77;
    uint8_t byValue = 77;
    uint16_t wValue = 77;
    uint32_t dwValue = 77, bValue = 77;
    const uint32_t dwS32 = AppXmlGetAttr_s32(ptNode, szName, &nValue);
    RequireNumber(dwText, dwS32, nValue == (dwText == APP_OK ? 0 : 77)); // refused leaves 0
    uint32_t dwCode = AppXmlGetAttr_u8(ptNode, szName, &byValue);
    RequireNarrow(dwS32, nValue, dwCode, byValue, UINT8_MAX);
    dwCode = AppXmlGetAttr_u16(ptNode, szName, &wValue);
    RequireNarrow(dwS32, nValue, dwCode, wValue, UINT16_MAX);
    dwCode = AppXmlGetAttr_u32(ptNode, szName, &dwValue);
    RequireNumber(dwText, dwCode, dwValue == (dwText == APP_OK ? 0 : 77));
    RequireNumber(dwText, AppXmlGetAttr_Bool(ptNode, szName, &bValue), bValue == 77);
}

static void ReadNode(mxml_node_t *ptNode)
{
    const char *szText = nullptr;
    Require(AppXmlGetNodeValue_Str(ptNode, &szText) == APP_OK && szText);
    uint16_t wValue = 77;
    uint32_t dwValue = 77;
    const uint32_t dwU32 = AppXmlGetNodeValue_u32(ptNode, &dwValue);
    RequireNumber(APP_OK, dwU32, dwValue == 77);
    const uint32_t dwU16 = AppXmlGetNodeValue_u16(ptNode, &wValue);
    RequireNarrow(dwU32, dwValue, dwU16, wValue, UINT16_MAX);

    if (mxmlGetType(ptNode) != MXML_ELEMENT)
        return;
    mxml_node_t *ptParent = mxmlGetParent(ptNode);
    const char *szName = mxmlGetElement(ptNode), *szAttr = nullptr;
    ReadSon(ptParent ? ptParent : ptNode, szName);
    FindBelow(ptParent ? ptParent : ptNode, szName);
    for (int i = 0; i < mxmlElementGetAttrCount(ptNode); ++i)
        if (mxmlElementGetAttrByIndex(ptNode, i, &szAttr))
            ReadAttribute(ptNode, szAttr);
}

static std::string Saved(mxml_node_t *ptTree)
{
    char *szText = mxmlSaveAllocString(ptTree, MXML_NO_CALLBACK);
    const std::string text = szText ? szText : "";
    free(szText);
    return text;
}

static void ReadTree(mxml_node_t *ptTop)
{
    for (const char *szAsked : {"a", "*/b", "net/ip"}) {
        ReadSon(ptTop, szAsked);
        FindBelow(ptTop, szAsked);
        ReadAttribute(ptTop, szAsked);
    }
    int nNodes = 0;
    for (mxml_node_t *pt = ptTop; pt && nNodes < kMostNodes;
         pt = mxmlWalkNext(pt, ptTop, MXML_DESCEND), ++nNodes)
        ReadNode(pt);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    mxmlSetErrorCallback([](const char *) {});
    return 0;
}

// What AppXmlLoad() takes, Mini-XML loads as the same tree, and as values of each other kind too.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    const auto szText = reinterpret_cast<const char *>(pbyData);
    AppSetLogLevel(0, nSize % 8 ? APP_LOG_ERROR : APP_LOG_DEBUG);
    mxml_node_t *ptTree = nullptr;
    const uint32_t dwCode = AppXmlLoad(szText, static_cast<uint32_t>(nSize), &ptTree);
    Require(ptTree ? dwCode == APP_OK : dwCode == (pbyData ? APP_BAD_VALUE : APP_INVALID_ARG));
    if (!ptTree)
        return 0;
    Require(!mxmlGetParent(ptTree));
    ReadTree(ptTree);
    const std::string text(szText, nSize), saved = Saved(ptTree);
    mxmlDelete(ptTree);
    ptTree = mxmlLoadString(nullptr, text.c_str(), AppXmlMxmlParseCB);
    Require(Saved(ptTree) == saved);
    mxmlDelete(ptTree);
    const mxml_load_cb_t apfnKind[] = {MXML_TEXT_CALLBACK, MXML_INTEGER_CALLBACK,
                                       MXML_REAL_CALLBACK};
    mxml_node_t *ptTop = mxmlNewElement(nullptr, "top\1"); // as in AppXmlLoad()
    mxmlLoadString(ptTop, text.c_str(), apfnKind[nSize % 3]);
    ReadTree(ptTop);
    mxmlDelete(ptTop);
    return 0;
}
