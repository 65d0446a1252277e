// SPDX-License-Identifier: MIT
#include "document.h"

namespace camera
{

#if MXML_MAJOR_VERSION >= 4

namespace
{

struct TSource {
    const char *szText;
    size_t nLeft;
    PFTellFault pfnTell;
};

size_t Read(void *pvSource, void *pvBuf, size_t nSize)
{
    auto ptSource = static_cast<TSource *>(pvSource);
    nSize = nSize < ptSource->nLeft ? nSize : ptSource->nLeft;
    AppMemcpy(pvBuf, ptSource->szText, static_cast<uint32_t>(nSize));
    ptSource->szText += nSize;
    ptSource->nLeft -= nSize;
    return nSize;
}

void Tell(void *pvSource, const char *szText)
{
    static_cast<TSource *>(pvSource)->pfnTell(szText);
}

const char *AskIndent(void *pvIndent, mxml_node_t *ptNode, mxml_ws_t eWhere)
{
    return (*static_cast<PFIndent *>(pvIndent))(ptNode, eWhere);
}

} // namespace

// Mini-XML tells the options of a load, and those are the library's.  So a refused text is loaded
// once more.
mxml_node_t *DocumentLoad(const char *szText, uint32_t dwLength, PFTellFault pfnTell)
{
    mxml_node_t *ptTree = nullptr;
    if (AppXmlLoad(szText, dwLength, &ptTree) == APP_OK)
        return ptTree;
    TSource tSource = {szText, dwLength, pfnTell};
    mxml_options_t *ptOptions = mxmlOptionsNew();
    if (ptOptions) {
        mxmlOptionsSetTypeCallback(ptOptions, AppXmlMxmlParseCB, nullptr);
        mxmlOptionsSetErrorCallback(ptOptions, Tell, &tSource);
        mxmlDelete(mxmlLoadIO(nullptr, ptOptions, Read, &tSource));
        mxmlOptionsDelete(ptOptions);
    }
    return nullptr;
}

static const char *TextOfDeclaration(mxml_node_t *ptTree)
{
    return mxmlGetDirective(ptTree);
}

uint32_t DocumentSave(mxml_node_t *ptTree, char *szBuf, uint32_t dwSize, PFIndent pfnIndent)
{
    mxml_options_t *ptOptions = mxmlOptionsNew();
    size_t nLength = 0;
    if (ptTree && ptOptions) {
        mxmlOptionsSetWrapMargin(ptOptions, 0);
        if (pfnIndent)
            mxmlOptionsSetWhitespaceCallback(ptOptions, AskIndent, &pfnIndent);
        nLength = mxmlSaveString(ptTree, ptOptions, szBuf, dwSize);
    }
    mxmlOptionsDelete(ptOptions);
    return nLength < dwSize ? static_cast<uint32_t>(nLength) : 0;
}

mxml_node_t *DocumentNext(mxml_node_t *ptTree, mxml_node_t *ptNode)
{
    return mxmlWalkNext(ptNode, ptTree, MXML_DESCEND_ALL);
}

bool IsXmlDeclaration(mxml_node_t *ptNode)
{
    return mxmlGetType(ptNode) == MXML_TYPE_DIRECTIVE;
}

bool IsDocumentType(mxml_node_t *ptNode)
{
    return mxmlGetType(ptNode) == MXML_TYPE_DECLARATION;
}

#else

mxml_node_t *DocumentLoad(const char *szText, uint32_t dwLength, PFTellFault pfnTell)
{
    mxml_node_t *ptTree = nullptr;
    mxmlSetErrorCallback(pfnTell); // for this thread
    AppXmlLoad(szText, dwLength, &ptTree);
    return ptTree;
}

static const char *TextOfDeclaration(mxml_node_t *ptTree)
{
    return mxmlGetElement(ptTree);
}

uint32_t DocumentSave(mxml_node_t *ptTree, char *szBuf, uint32_t dwSize, PFIndent pfnIndent)
{
    const int nSize = static_cast<int>(dwSize);
    mxmlSetWrapMargin(0);
    const int nLength = ptTree ? mxmlSaveString(ptTree, szBuf, nSize, pfnIndent) : 0;
    return nLength > 0 && nLength < nSize ? static_cast<uint32_t>(nLength) : 0;
}

mxml_node_t *DocumentNext(mxml_node_t *ptTree, mxml_node_t *ptNode)
{
    return mxmlWalkNext(ptNode, ptTree, MXML_DESCEND);
}

bool IsXmlDeclaration(mxml_node_t *ptNode)
{
    const char *szName = mxmlGetElement(ptNode);
    return szName && szName[0] == '?';
}

bool IsDocumentType(mxml_node_t *ptNode)
{
    const char *szName = mxmlGetElement(ptNode);
    return szName && szName[0] == '!' && AppStrncmp(szName, "!--", 3) != 0 &&
           AppStrncmp(szName, "![CDATA[", 8) != 0;
}

#endif

// Mini-XML may hand out a node although it had no memory for its text.
mxml_node_t *DocumentNew()
{
    mxml_node_t *ptTree = mxmlNewXML("1.0");
    if (TextOfDeclaration(ptTree))
        return ptTree;
    mxmlDelete(ptTree);
    return nullptr;
}

} // namespace camera
