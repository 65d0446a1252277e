// SPDX-License-Identifier: MIT
//
// Versions 3 and 4 of Mini-XML.  Version 3 keeps comments, declarations, instructions and CDATA
// sections as elements, their marks in the name; version 4 has a type of node for each.  What the
// library and its tests ask is asked here; where only the words differ, those of version 3 are used.
#ifndef APPCORE_XML_MXML_VERSION_H
#define APPCORE_XML_MXML_VERSION_H

#include <mxml.h>

#include "utils/log.h"

#if MXML_MAJOR_VERSION >= 4
constexpr mxml_type_t MXML_ELEMENT = MXML_TYPE_ELEMENT;
constexpr mxml_type_t MXML_OPAQUE = MXML_TYPE_OPAQUE;
constexpr mxml_type_t MXML_TEXT = MXML_TYPE_TEXT;
constexpr mxml_descend_t MXML_DESCEND = MXML_DESCEND_ALL;
constexpr mxml_node_t *MXML_ADD_TO_PARENT = nullptr;
constexpr mxml_options_t *MXML_NO_CALLBACK = nullptr;
// Of a thread; here each load has its own.  What Mini-XML keeps for a thread is made by either.
inline void mxmlSetErrorCallback(void (*)(const char *))
{
    mxmlSetStringCallbacks(nullptr, nullptr, nullptr);
}
// The head of a type callback's parameters.
#define APPCORE_MXML_CONTEXT void *,
#else
#define APPCORE_MXML_CONTEXT
#endif

namespace app
{

enum ENodeKind {
    kElement,
    kCData,       // <![CDATA[…]]>
    kComment,     // <!--…-->
    kDeclaration, // <!…>
    kInstruction, // <?…?>
    kValue        // every other node, and none
};

#if MXML_MAJOR_VERSION >= 4

inline ENodeKind KindOf(mxml_node_t *ptNode)
{
    switch (mxmlGetType(ptNode)) {
    case MXML_TYPE_ELEMENT:
        return kElement;
    case MXML_TYPE_CDATA:
        return kCData;
    case MXML_TYPE_COMMENT:
        return kComment;
    case MXML_TYPE_DECLARATION:
        return kDeclaration;
    case MXML_TYPE_DIRECTIVE:
        return kInstruction;
    default:
        return kValue;
    }
}

// An element's name, what stands between other marks, or an opaque value; null when Mini-XML had no
// memory for it.
inline const char *HeldText(mxml_node_t *ptNode)
{
    switch (KindOf(ptNode)) {
    case kElement:
        return mxmlGetElement(ptNode);
    case kCData:
        return mxmlGetCDATA(ptNode);
    case kComment:
        return mxmlGetComment(ptNode);
    case kDeclaration:
        return mxmlGetDeclaration(ptNode);
    case kInstruction:
        return mxmlGetDirective(ptNode);
    default:
        return mxmlGetOpaque(ptNode);
    }
}

// Loads a text, below a node when one is given.
inline mxml_node_t *LoadString(mxml_node_t *ptTop, const char *szText, mxml_type_cb_t pfnType)
{
    mxml_options_t *ptOptions = mxmlOptionsNew();
    if (!ptOptions)
        return nullptr;
    mxmlOptionsSetTypeCallback(ptOptions, pfnType, nullptr);
    // What version 3 tells the thread's callback.
    const auto Tell = [](void *, const char *szFault) {
        APP_TRACE(APP_LOG_DEBUG, "[DEBUG] AppXmlLoad: %s\n", szFault);
    };
    mxmlOptionsSetErrorCallback(ptOptions, Tell, nullptr);
    mxml_node_t *ptLoaded = mxmlLoadString(ptTop, ptOptions, szText);
    mxmlOptionsDelete(ptOptions);
    return ptLoaded;
}

#else

inline ENodeKind KindOf(mxml_node_t *ptNode)
{
    const char *szName = mxmlGetElement(ptNode);
    if (mxmlGetType(ptNode) != MXML_ELEMENT)
        return kValue;
    if (!szName || (szName[0] != '?' && szName[0] != '!'))
        return kElement;
    if (szName[0] == '?')
        return kInstruction;
    return AppStrncmp(szName, "![CDATA[", 8) == 0 ? kCData
           : AppStrncmp(szName, "!--", 3) == 0    ? kComment
                                                  : kDeclaration;
}

// An element's name, with the marks of what is none, or an opaque value; null when Mini-XML had no
// memory for it.
inline const char *HeldText(mxml_node_t *ptNode)
{
    return mxmlGetType(ptNode) == MXML_ELEMENT ? mxmlGetElement(ptNode) : mxmlGetOpaque(ptNode);
}

inline mxml_node_t *LoadString(mxml_node_t *ptTop, const char *szText, mxml_load_cb_t pfnType)
{
    return mxmlLoadString(ptTop, szText, pfnType);
}

#endif

} // namespace app

#endif
