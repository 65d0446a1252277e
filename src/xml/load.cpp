// SPDX-License-Identifier: MIT
//
// Loading a text from outside.  mxmlLoadString() was not made for what anybody may send; version 4 of
// Mini-XML has ended the first fault and the reading behind the text:
//
// - A text that breaks off, or goes wrong, inside the tag of its root leaves the root and its
//   attributes behind, and nobody has a pointer to them.  So the text is loaded below a node of
//   ours that is deleted afterwards with all that is still below it.  No text can close that node:
//   its name holds a control character, which Mini-XML takes neither as a byte nor as an entity.
// - The bytes FE FF or FF FE where a character begins, anywhere in the text, make the reader go on
//   in UTF-16.  There it takes two bytes at a time, whatever the second one is, and reads on behind
//   the zero byte that ends the text.  Every other byte that it cannot read ends the text for it,
//   and what it has got by then passes for a whole one.  So each character is looked at first, and
//   the copy that is loaded ends with four zero bytes.
// - A character entity may stand for what is no character: the tree is looked at once more.
// - A text that breaks off in the name of a tag passes for a whole one as well.  So an instruction
//   of ours stands behind the text, and must have been read as one: unlike an element it has no end
//   tag in which the rest of a text can hide.
// - An element whose name could not be copied crashes the reader at the next closing tag.  The type
//   callback sees each such element before that and ends the text there.
#include <errno.h>

#include "appcore/mempool.h"
#include "appcore/xml.h"
#include "utils/log.h"
#include "xml/mxml_version.h"

static constexpr char kHolderName[] = "document\1";
static constexpr const char *kLastName = MXML_MAJOR_VERSION >= 4 ? "end" : "?end?";
static constexpr char kEnd[] = "<?end?>\0\0\0";
static constexpr uint32_t kEndSize = sizeof(kEnd);  // four zero bytes among them
static constexpr uint32_t kLongest = INT32_MAX / 2; // Mini-XML counts in int

// The length of the character at `pby`, of which `dwLeft` bytes are there; 0 when it is none that
// XML has.
static uint32_t CharLength(const uint8_t *pby, uint32_t dwLeft)
{
    if (pby[0] < 0x80)
        return pby[0] >= ' ' || pby[0] == '\t' || pby[0] == '\n' || pby[0] == '\r';
    const uint32_t dwLength = pby[0] >= 0xF0 ? 4 : pby[0] >= 0xE0 ? 3 : 2;
    if (pby[0] < 0xC2 || pby[0] > 0xF4 || dwLength > dwLeft)
        return 0;
    // Not in more bytes than it needs, no half of a pair, not behind the last plane.
    if ((pby[0] == 0xE0 && pby[1] < 0xA0) || (pby[0] == 0xED && pby[1] > 0x9F) ||
        (pby[0] == 0xF0 && pby[1] < 0x90) || (pby[0] == 0xF4 && pby[1] > 0x8F))
        return 0;
    for (uint32_t i = 1; i < dwLength; ++i)
        if ((pby[i] & 0xC0) != 0x80)
            return 0;
    return dwLength;
}

// The length of what the text begins with that is characters.
static uint32_t CountReadable(const char *szText, uint32_t dwLength)
{
    const auto pby = reinterpret_cast<const uint8_t *>(szText);
    uint32_t dwRead = 0, dwNext = 1;
    for (; dwRead < dwLength && dwNext != 0; dwRead += dwNext)
        dwNext = CharLength(pby + dwRead, dwLength - dwRead);
    return dwRead;
}

// The reader has a pointer into the text of its own: the text ends wherever that stands.
static void EndText(mxml_node_t *ptNode)
{
    while (mxml_node_t *ptParent = mxmlGetParent(ptNode))
        ptNode = ptParent;
    auto szText = static_cast<char *>(mxmlGetUserData(ptNode)); // the holder's
    AppMemzero(szText, AppStrlen(szText));
}

static mxml_type_t TypeOfValues(APPCORE_MXML_CONTEXT mxml_node_t *ptNode)
{
    if (!app::HeldText(ptNode))
        EndText(ptNode);
    return MXML_OPAQUE;
}

// Every name and every value could be copied.
static bool IsWhole(mxml_node_t *ptTop)
{
    for (mxml_node_t *pt = ptTop; pt; pt = mxmlWalkNext(pt, ptTop, MXML_DESCEND))
        if (!app::HeldText(pt))
            return false;
    return true;
}

static bool IsReadable(const char *szText)
{
    const uint32_t dwLength = AppStrlen(szText);
    return CountReadable(szText, dwLength) == dwLength;
}

// Entities too stood for characters only.
static bool AreCharacters(mxml_node_t *ptHolder)
{
    for (mxml_node_t *pt = ptHolder; (pt = mxmlWalkNext(pt, ptHolder, MXML_DESCEND));) {
        if (!IsReadable(app::HeldText(pt)))
            return false;
        for (auto n = mxmlElementGetAttrCount(pt); n > 0; --n) {
            const char *szAttr = nullptr, *szValue = mxmlElementGetAttrByIndex(pt, n - 1, &szAttr);
            if (!IsReadable(szAttr) || !IsReadable(szValue))
                return false;
        }
    }
    return true;
}

// Takes away our instruction behind the text; what text there is before it goes too, as at the end
// of any text.  False when it was not read.
static bool TakeEnd(mxml_node_t *ptHolder)
{
    mxml_node_t *ptEnd = mxmlGetLastChild(ptHolder);
    if (app::KindOf(ptEnd) != app::kInstruction || AppStrcmp(app::HeldText(ptEnd), kLastName) != 0)
        return false;
    mxml_node_t *ptBefore = mxmlGetPrevSibling(ptEnd);
    mxmlDelete(ptEnd);
    if (app::KindOf(ptBefore) == app::kValue && mxmlGetPrevSibling(ptBefore))
        mxmlDelete(ptBefore);
    return true;
}

// Takes the tree out of the holder as mxmlLoadString() builds one without a top node.  Null when it
// would not: nothing there, a text in front of the root, or something beside it.  A declaration or an
// instruction is the parent of what follows it.
static mxml_node_t *TakeRoot(mxml_node_t *ptHolder)
{
    mxml_node_t *ptRoot = mxmlGetFirstChild(ptHolder);
    const app::ENodeKind eKind = app::KindOf(ptRoot);
    if (eKind == app::kValue)
        return nullptr;
    if (eKind == app::kDeclaration || eKind == app::kInstruction)
        while (mxml_node_t *ptNext = mxmlGetNextSibling(ptRoot))
            mxmlAdd(ptRoot, MXML_ADD_AFTER, MXML_ADD_TO_PARENT, ptNext);
    else if (mxmlGetNextSibling(ptRoot))
        return nullptr;
    mxmlRemove(ptRoot);
    return ptRoot;
}

static uint32_t LoadBelow(mxml_node_t *ptHolder, char *szText, mxml_node_t **pptTree)
{
    mxmlSetUserData(ptHolder, szText);
    errno = 0;
    if (!app::LoadString(ptHolder, szText, TypeOfValues))
        return errno == ENOMEM ? APP_NO_RESOURCE : APP_BAD_VALUE; // a hint
    if (!IsWhole(ptHolder))
        return APP_NO_RESOURCE;
    *pptTree = TakeEnd(ptHolder) && AreCharacters(ptHolder) ? TakeRoot(ptHolder) : nullptr;
    return *pptTree ? APP_OK : APP_BAD_VALUE;
}

static uint32_t LoadCopy(const char *szText, uint32_t dwLength, mxml_node_t **pptTree)
{
    if (dwLength > kLongest)
        return APP_NO_RESOURCE;
    auto szCopy = static_cast<char *>(AppMemPoolMalloc(nullptr, dwLength + kEndSize));
    if (!szCopy)
        return APP_NO_RESOURCE;
    AppMemcpy(szCopy, szText, dwLength);
    AppMemcpy(szCopy + dwLength, kEnd, kEndSize);
    mxml_node_t *ptHolder = mxmlNewElement(nullptr, kHolderName);
    uint32_t dwResult = APP_NO_RESOURCE;
    if (mxmlGetElement(ptHolder))
        dwResult = LoadBelow(ptHolder, szCopy, pptTree);
    mxmlDelete(ptHolder);
    AppMemPoolFree(szCopy);
    return dwResult;
}

uint32_t AppXmlLoad(const char *szText, uint32_t dwLength, mxml_node_t **pptTree)
{
    if (!szText || !pptTree) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: szText %p, pptTree %p\n", __func__, app::Ptr(szText),
               app::Ptr(pptTree));
        return APP_INVALID_ARG;
    }
    *pptTree = nullptr;
    // What is wrong with a text is DEBUG: whoever may send one must not be able to fill the log.
    const uint32_t dwReadable = CountReadable(szText, dwLength);
    if (dwReadable < dwLength) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: no character of XML at %lu of %lu\n", __func__,
                  app::Ul(dwReadable), app::Ul(dwLength));
        return APP_BAD_VALUE;
    }
    const uint32_t dwResult = LoadCopy(szText, dwLength, pptTree);
    if (dwResult == APP_NO_RESOURCE)
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: no memory for a text of %lu bytes\n", __func__,
               app::Ul(dwLength));
    else if (dwResult == APP_BAD_VALUE)
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: not one whole document, %lu bytes\n", __func__,
                  app::Ul(dwLength));
    return dwResult;
}
