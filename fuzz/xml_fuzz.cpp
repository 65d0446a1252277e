// SPDX-License-Identifier: MIT
//
// The XML loader and readers over arbitrary documents.  What loads is the tree that Mini-XML itself
// makes; each reader, asked at every node, finds what a walk over the tree finds, and makes of a
// text what the number parsers' oracle makes of it.
#include "appcore/xml.h"

#include <string.h>
#include <strings.h>

#include <vector>

#include "fuzz.h"
#include "number_oracle.h"
#include "xml/mxml_version.h"

namespace
{

constexpr int kMostNodes = 64; // a search of the whole subtree from each node is quadratic

bool s_bDebug;
Fence s_document, s_copy;

// The lines since the last call: so many errors, and so many traces where they are wanted.
void RequireLines(unsigned nErrors, unsigned nTraces)
{
    Require(TakeLines() == nErrors + (s_bDebug ? nTraces : 0));
}

struct TText {
    uint32_t dwCode;
    std::string text;
};

// ---- Typed values ---------------------------------------------------------------------------

template <typename T, typename Wide>
std::optional<T> Narrow(std::optional<Wide> wide)
{
    if (wide && *wide >= 0 && *wide <= static_cast<Wide>(static_cast<T>(-1)))
        return static_cast<T>(*wide);
    return std::nullopt;
}

std::optional<uint32_t> OracleBool(const std::string &text)
{
    for (const uint32_t bValue : {0u, 1u})
        if (strcasecmp(text.c_str(), bValue ? "true" : "false") == 0)
            return bValue;
    return std::nullopt;
}

// A reader gives the text's failure, or what the oracle makes of the text, or refuses the text;
// `kept` is what a refusal leaves.
template <typename T, typename Read>
void CheckTyped(Read read, const TText &found, std::optional<T> wanted, T kept = 77,
                unsigned nTraces = 1)
{
    T value = 77;
    const uint32_t dwCode = read(&value);
    const bool bNone = found.dwCode == APP_NOT_FOUND;
    RequireLines(dwCode != APP_OK && !bNone, bNone                    ? nTraces
                                             : found.dwCode != APP_OK ? nTraces - 1
                                                                      : 0);
    if (found.dwCode != APP_OK)
        Require(dwCode == found.dwCode && value == 77);
    else if (wanted)
        Require(dwCode == APP_OK && value == *wanted);
    else
        Require(dwCode == APP_BAD_VALUE && value == kept);
}

// ---- Values below a node --------------------------------------------------------------------

TText TextAt(mxml_node_t *ptParent, const char *szPath)
{
    mxml_node_t *ptNode = mxmlFindPath(ptParent, szPath);
    if (!ptNode)
        return {APP_NOT_FOUND, ""};
    if (app::KindOf(ptNode) != app::kValue)
        return {APP_OK, ""};
    switch (mxmlGetType(ptNode)) {
    case MXML_OPAQUE:
        return {APP_OK, mxmlGetOpaque(ptNode)};
    case MXML_TEXT:
        return {APP_OK, mxmlGetText(ptNode, nullptr)};
    default:
        return {APP_XML_NODE_INVALID, ""};
    }
}

void CheckCopy(mxml_node_t *ptParent, const char *szPath, const TText &found, uint32_t dwSize)
{
    char *szBuf = s_copy.Place(dwSize);
    const uint32_t dwCode = AppXmlGetSonNodeValue_Str_Copy(ptParent, szPath, szBuf, dwSize);
    std::string left(dwSize, '#');
    if (dwSize == 0) {
        Require(dwCode == APP_INVALID_ARG);
    } else if (found.dwCode != APP_OK) {
        Require(dwCode == found.dwCode);
    } else if (found.text.size() < dwSize) {
        Require(dwCode == APP_OK);
        left = found.text;
        left.resize(dwSize);
    } else {
        Require(dwCode == APP_BUFFER_TOO_SMALL);
    }
    Require(std::string(szBuf, dwSize) == left);
    const bool bOwnLine = dwCode == APP_XML_NODE_INVALID; // beside that of the inner reader
    RequireLines((dwCode != APP_OK) + bOwnLine, dwCode == APP_NOT_FOUND);
}

void CheckSon(mxml_node_t *ptParent, const char *szPath)
{
    const TText found = TextAt(ptParent, szPath);
    const char *szText = nullptr;
    Require(AppXmlGetSonNodeValue_Str(ptParent, szPath, &szText) == found.dwCode);
    Require(found.dwCode == APP_OK ? szText == found.text : !szText);
    RequireLines(found.dwCode == APP_XML_NODE_INVALID, found.dwCode == APP_NOT_FOUND);
    for (const uint32_t dwSize : {0u, 16u, static_cast<uint32_t>(found.text.size()),
                                  static_cast<uint32_t>(found.text.size() + 1)})
        CheckCopy(ptParent, szPath, found, dwSize);

    const auto With = [=](auto pfnRead) {
        return [=](auto *ptValue) { return pfnRead(ptParent, szPath, ptValue); };
    };
    const auto nS32 = OracleS32(found.text);
    CheckTyped(With(AppXmlGetSonNodeValue_s32), found, nS32);
    CheckTyped(With(AppXmlGetSonNodeValue_u8), found, Narrow<uint8_t>(nS32));
    CheckTyped(With(AppXmlGetSonNodeValue_u16), found, Narrow<uint16_t>(nS32));
    CheckTyped(With(AppXmlGetSonNodeValue_u32), found, OracleU32(found.text));
    CheckTyped(With(AppXmlGetSonNodeValue_u64), found, OracleU64(found.text));
    CheckTyped(With(AppXmlGetSonNodeValue_Bool), found, OracleBool(found.text), 77u, 2);
    uint32_t bValue;
    Require(AppXmlGetSonNodeValue_Bool(ptParent, szPath, nullptr) ==
            AppXmlGetSonNodeValue_Bool(ptParent, szPath, &bValue));
    TakeLines();
}

bool IsNamed(mxml_node_t *ptNode, const char *szName)
{
    return mxmlGetType(ptNode) == MXML_ELEMENT && strcmp(mxmlGetElement(ptNode), szName) == 0;
}

// The first element of the name below, in the document's order, and its first section.
void CheckSearches(mxml_node_t *ptTop, const char *szName)
{
    mxml_node_t *ptWanted = mxmlWalkNext(ptTop, ptTop, MXML_DESCEND), *ptFound = nullptr;
    while (ptWanted && !IsNamed(ptWanted, szName))
        ptWanted = mxmlWalkNext(ptWanted, ptTop, MXML_DESCEND);
    const uint32_t dwWanted = ptWanted ? APP_OK : APP_NOT_FOUND;
    Require(AppXmlGetSonNode(ptTop, szName, &ptFound) == dwWanted && ptFound == ptWanted);
    RequireLines(0, !ptWanted);
    std::string section = "]]";
    for (mxml_node_t *pt = mxmlGetLastChild(ptWanted); pt; pt = mxmlGetPrevSibling(pt))
        if (app::KindOf(pt) == app::kCData)
            section = app::HeldText(pt) + (MXML_MAJOR_VERSION >= 4 ? 0 : 8);
    const char *szData = nullptr;
    Require(AppXmlGetSonNodeValue_CData(ptTop, szName, &szData) == dwWanted);
    Require(ptWanted ? szData == section : !szData);
    RequireLines(0, !ptWanted);
}

void CheckSiblings(mxml_node_t *ptParent, const char *szName)
{
    std::vector<mxml_node_t *> wanted, found;
    for (mxml_node_t *pt = mxmlGetFirstChild(ptParent); pt; pt = mxmlGetNextSibling(pt))
        if (IsNamed(pt, szName))
            wanted.push_back(pt);
    for (mxml_node_t *pt = AppXmlGetFirstChildWithName(ptParent, szName); pt;
         pt = AppXmlGetNextSiblingWithName(pt, szName))
        found.push_back(pt);
    Require(found == wanted && TakeLines() == 0);
}

// ---- Attributes and the node itself ---------------------------------------------------------

void CheckAttribute(mxml_node_t *ptNode, const char *szName)
{
    const char *szWanted = mxmlElementGetAttr(ptNode, szName), *szText = nullptr;
    const TText found = {szWanted ? APP_OK : APP_NOT_FOUND, szWanted ? szWanted : ""};
    Require(AppXmlGetAttr_Str(ptNode, szName, &szText) == found.dwCode && szText == szWanted);
    RequireLines(!szWanted, 0); // unlike that of the other readers
    const auto With = [=](auto pfnRead) {
        return [=](auto *ptValue) { return pfnRead(ptNode, szName, ptValue); };
    };
    const auto nS32 = OracleS32(found.text);
    CheckTyped(With(AppXmlGetAttr_s32), found, nS32, 0);
    CheckTyped(With(AppXmlGetAttr_u8), found, Narrow<uint8_t>(nS32));
    CheckTyped(With(AppXmlGetAttr_u16), found, Narrow<uint16_t>(nS32));
    CheckTyped(With(AppXmlGetAttr_u32), found, OracleU32(found.text), 0u);
    CheckTyped(With(AppXmlGetAttr_Bool), found, OracleBool(found.text));
}

void CheckValue(mxml_node_t *ptNode)
{
    const char *szOpaque = mxmlGetOpaque(ptNode), *szText = nullptr;
    const TText found = {APP_OK, szOpaque ? szOpaque : ""};
    Require(AppXmlGetNodeValue_Str(ptNode, &szText) == APP_OK && szText == found.text);
    const auto dwU32 = OracleU32(found.text);
    CheckTyped([=](uint32_t *pdw) { return AppXmlGetNodeValue_u32(ptNode, pdw); }, found, dwU32);
    CheckTyped([=](uint16_t *pw) { return AppXmlGetNodeValue_u16(ptNode, pw); }, found,
               Narrow<uint16_t>(dwU32));
}

void CheckNode(mxml_node_t *ptNode)
{
    CheckValue(ptNode);
    if (mxmlGetType(ptNode) != MXML_ELEMENT)
        return;
    mxml_node_t *ptParent = mxmlGetParent(ptNode) ? mxmlGetParent(ptNode) : ptNode;
    const char *szName = mxmlGetElement(ptNode), *szAttr = nullptr;
    CheckSon(ptParent, szName);
    CheckSearches(ptParent, szName);
    CheckSiblings(ptParent, szName);
    for (auto n = mxmlElementGetAttrCount(ptNode); n > 0; --n)
        if (mxmlElementGetAttrByIndex(ptNode, n - 1, &szAttr))
            CheckAttribute(ptNode, szAttr);
}

void CheckTree(mxml_node_t *ptTop)
{
    for (const char *szAsked : {"a", "*/b", "net/ip", ""}) {
        CheckSon(ptTop, szAsked);
        CheckSearches(ptTop, szAsked);
        CheckSiblings(ptTop, szAsked);
        CheckAttribute(ptTop, szAsked);
    }
    int nNodes = 0;
    for (mxml_node_t *pt = ptTop; pt && nNodes < kMostNodes;
         pt = mxmlWalkNext(pt, ptTop, MXML_DESCEND), ++nNodes)
        CheckNode(pt);
}

#if MXML_MAJOR_VERSION >= 4
void NewCustom(mxml_node_t *ptParent)
{
    mxmlNewCustom(ptParent, ptParent, nullptr, nullptr);
}
template <mxml_type_t eType>
mxml_type_t KindOfValues(void *, mxml_node_t *)
{
    return eType;
}
constexpr mxml_type_cb_t kLoaders[] = {
    KindOfValues<MXML_TYPE_TEXT>, KindOfValues<MXML_TYPE_INTEGER>, KindOfValues<MXML_TYPE_REAL>};
#else
void NewCustom(mxml_node_t *ptParent)
{
    mxmlNewCustom(ptParent, ptParent, nullptr);
}
const mxml_load_cb_t kLoaders[] = {MXML_TEXT_CALLBACK, MXML_INTEGER_CALLBACK, MXML_REAL_CALLBACK};
#endif

// The input as the value of an element and of an attribute; beside it a value that no reader can use.
void CheckAsValue(const char *szText)
{
    mxml_node_t *ptTop = mxmlNewElement(nullptr, "top"), *ptNode = mxmlNewElement(ptTop, "v");
    mxmlNewOpaque(ptNode, szText);
    mxmlElementSetAttr(ptNode, "v", szText);
    NewCustom(mxmlNewElement(ptTop, "custom"));
    CheckSon(ptTop, "v");
    CheckSon(ptTop, "custom");
    CheckAttribute(ptNode, "v");
    CheckValue(ptNode);
    mxmlDelete(ptTop);
}

// ---- Loading --------------------------------------------------------------------------------

std::string Encode(uint32_t dwChar)
{
    const auto Tail = [=](unsigned nShift) { return char(0x80 | (dwChar >> nShift & 0x3F)); };
    if (dwChar < 0x80)
        return {char(dwChar)};
    if (dwChar < 0x800)
        return {char(0xC0 | dwChar >> 6), Tail(0)};
    if (dwChar < 0x10000)
        return {char(0xE0 | dwChar >> 12), Tail(6), Tail(0)};
    return {char(0xF0 | dwChar >> 18), Tail(12), Tail(6), Tail(0)};
}

// What the text begins with that is characters: those whose bytes are their code in UTF-8.
size_t CountCharacters(const std::string &text)
{
    for (size_t nAt = 0; nAt < text.size();) {
        const auto byLead = static_cast<uint8_t>(text[nAt]);
        const size_t nLength = byLead < 0x80 ? 1 : byLead < 0xE0 ? 2 : byLead < 0xF0 ? 3 : 4;
        uint32_t dwChar = nLength == 1 ? byLead : byLead & (0x7Fu >> nLength);
        for (size_t i = 1; i < nLength && nAt + i < text.size(); ++i)
            dwChar = dwChar << 6 | (static_cast<uint8_t>(text[nAt + i]) & 0x3F);
        const bool bControl = dwChar < ' ' && !strchr("\t\n\r", static_cast<int>(dwChar));
        const bool bHalf = dwChar >= 0xD800 && dwChar <= 0xDFFF; // of a pair
        if (dwChar == 0 || bControl || bHalf || byLead > 0xF4 || dwChar > 0x10FFFF ||
            text.compare(nAt, nLength, Encode(dwChar)) != 0)
            return nAt;
        nAt += nLength;
    }
    return text.size();
}

std::string Saved(mxml_node_t *ptTree)
{
    char *szText = mxmlSaveAllocString(ptTree, MXML_NO_CALLBACK);
    const std::string text = szText ? szText : "";
    free(szText);
    return text;
}

// A text that is refused leaves no tree, and a trace that says where and why.
mxml_node_t *Load(const std::string &text)
{
    const size_t nReadable = CountCharacters(text);
    auto ptTree = reinterpret_cast<mxml_node_t *>(16);
    const uint32_t dwCode =
        AppXmlLoad(s_document.Place(text), static_cast<uint32_t>(text.size()), &ptTree);
    const unsigned nLines = TakeLines(), nMost = MXML_MAJOR_VERSION >= 4 ? 2 : 1; // and Mini-XML's
    Require(ptTree || !s_bDebug ? nLines == 0 : nLines >= 1 && nLines <= nMost);
    Require(ptTree ? dwCode == APP_OK && nReadable == text.size() : dwCode == APP_BAD_VALUE);
    const std::string line =
        nReadable < text.size()
            ? Printed("[DEBUG] AppXmlLoad: no character of XML at %zu of %zu\n", nReadable,
                      text.size())
            : Printed("[DEBUG] AppXmlLoad: not one whole document, %zu bytes\n", text.size());
    Require(ptTree || !s_bDebug || g_line == line);
    return ptTree;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    mxmlSetErrorCallback([](const char *) {});
    return 0;
}

// What AppXmlLoad() takes, Mini-XML loads as the same tree, and as values of each other kind too.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    const std::string text(reinterpret_cast<const char *>(pbyData), nSize);
    s_bDebug = nSize % 4 != 0;
    AppSetLogLevel(0, s_bDebug ? APP_LOG_DEBUG : APP_LOG_ERROR);
    CheckAsValue(text.c_str());
    mxml_node_t *ptTree = Load(text);
    if (!ptTree)
        return 0;
    Require(!mxmlGetParent(ptTree));
    CheckTree(ptTree);
    const std::string saved = Saved(ptTree);
    Require(CountCharacters(saved) == saved.size()); // what entities stand for too
    // Version 4 refuses some roots with nothing in them.
    const bool bEmpty = MXML_MAJOR_VERSION >= 4 && !mxmlGetFirstChild(ptTree);
    mxmlDelete(ptTree);
    ptTree = app::LoadString(nullptr, text.c_str(), AppXmlMxmlParseCB);
    Require(ptTree ? Saved(ptTree) == saved : bEmpty);
    mxmlDelete(ptTree);
    mxml_node_t *ptTop = mxmlNewElement(nullptr, "top\1"); // as in AppXmlLoad()
    app::LoadString(ptTop, text.c_str(), kLoaders[nSize % 3]);
    TakeLines();
    CheckTree(ptTop);
    mxmlDelete(ptTop);
    return 0;
}
