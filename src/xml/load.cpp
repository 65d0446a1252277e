// SPDX-License-Identifier: MIT
//
// Loading a text from outside.  mxmlLoadString() was not made for what anybody may send:
//
// - A text that breaks off, or goes wrong, inside the tag of its root leaves the root and its
//   attributes behind, and nobody has a pointer to them.  So the text is loaded below a node of
//   ours that is deleted afterwards with all that is still below it.  No text can close that node:
//   its name holds a control character, which Mini-XML takes neither as a byte nor as an entity.
// - The bytes FE FF or FF FE where a character begins, anywhere in the text, make the reader go on
//   in UTF-16.  There it takes two bytes at a time, whatever the second one is, and reads on behind
//   the zero byte that ends the text.  UTF-8 has neither byte: a text with one is refused, a zero
//   byte too, and the copy that is loaded ends with four of them.
// - It takes a text that breaks off in the name of a tag, or at a byte that it cannot read, for a
//   whole one.  So an element of ours stands behind the text, and must have been read as one.
// - An element whose name could not be copied crashes the reader at the next closing tag.  The type
//   callback sees each such element before that and ends the text there.
#include <errno.h>

#include "appcore/mempool.h"
#include "appcore/xml.h"
#include "utils/log.h"

static constexpr char kHolderName[] = "document\1";
static constexpr char kLastName[] = "end";
static constexpr char kEnd[] = "<end/>\0\0\0";
static constexpr uint32_t kEndSize = sizeof(kEnd);  // four zero bytes among them
static constexpr uint32_t kLongest = INT32_MAX / 2; // Mini-XML counts in int

static bool IsForeign(char ch)
{
    const auto by = static_cast<uint8_t>(ch);
    return by == 0 || by >= 0xFE;
}

// The reader has a pointer into the text of its own: the text ends wherever that stands.
static void EndText(mxml_node_t *ptNode)
{
    while (mxml_node_t *ptParent = mxmlGetParent(ptNode))
        ptNode = ptParent;
    auto szText = static_cast<char *>(mxmlGetUserData(ptNode)); // the holder's
    AppMemzero(szText, AppStrlen(szText));
}

static mxml_type_t TypeOfValues(mxml_node_t *ptNode)
{
    if (!mxmlGetElement(ptNode))
        EndText(ptNode);
    return AppXmlMxmlParseCB(ptNode);
}

// Every name and every value could be copied.
static bool IsWhole(mxml_node_t *ptTop)
{
    for (mxml_node_t *pt = ptTop; pt; pt = mxmlWalkNext(pt, ptTop, MXML_DESCEND))
        if (!(mxmlGetType(pt) == MXML_ELEMENT ? mxmlGetElement(pt) : mxmlGetOpaque(pt)))
            return false;
    return true;
}

// A declaration (<?…> or <!…>) is the parent of what follows it.
static bool IsDeclaration(const char *szName)
{
    return szName[0] == '?' || (szName[0] == '!' && AppStrncmp(szName, "!--", 3) != 0 &&
                                AppStrncmp(szName, "![CDATA[", 8) != 0);
}

// Takes away our element behind the text; what text there is before it goes too, as at the end of
// any text.  False when it was not read.
static bool TakeEnd(mxml_node_t *ptHolder)
{
    mxml_node_t *ptEnd = mxmlGetLastChild(ptHolder);
    if (AppStrcmp(mxmlGetElement(ptEnd), kLastName) != 0)
        return false;
    mxml_node_t *ptBefore = mxmlGetPrevSibling(ptEnd);
    mxmlDelete(ptEnd);
    if (!mxmlGetElement(ptBefore) && mxmlGetPrevSibling(ptBefore))
        mxmlDelete(ptBefore);
    return true;
}

// Takes the tree out of the holder as mxmlLoadString() builds one without a top node.  Null when it
// would not: nothing there, a text in front of the root, or something beside it.
static mxml_node_t *TakeRoot(mxml_node_t *ptHolder)
{
    mxml_node_t *ptRoot = mxmlGetFirstChild(ptHolder);
    const char *szName = mxmlGetElement(ptRoot);
    if (!szName)
        return nullptr;
    if (IsDeclaration(szName))
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
    if (!mxmlLoadString(ptHolder, szText, TypeOfValues))
        return errno == ENOMEM ? APP_NO_RESOURCE : APP_BAD_VALUE; // a hint
    if (!IsWhole(ptHolder))
        return APP_NO_RESOURCE;
    *pptTree = TakeEnd(ptHolder) ? TakeRoot(ptHolder) : nullptr;
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
    for (uint32_t i = 0; i < dwLength; ++i)
        if (IsForeign(szText[i])) {
            APP_TRACE(APP_LOG_DEBUG, "[DEBUG] %s: zero byte or UTF-16 mark at %lu of %lu\n",
                      __func__, app::Ul(i), app::Ul(dwLength));
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
