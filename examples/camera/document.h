// SPDX-License-Identifier: MIT
//
// Whole documents, with version 3 or 4 of Mini-XML.
#ifndef CAMERA_DOCUMENT_H
#define CAMERA_DOCUMENT_H

#include <appcore/appcore.h>

namespace camera
{

using PFTellFault = void (*)(const char *szText);

// By AppXmlLoad(); null for a text that it refuses.  Mini-XML says why, as far as it knows.
mxml_node_t *DocumentLoad(const char *szText, uint32_t dwLength, PFTellFault pfnTell);

// A new one, of an XML declaration; null without memory.
mxml_node_t *DocumentNew();

// Without line breaks other than those of `pfnIndent`, which is asked for what belongs around each
// tag and may be null.  The length of the text, 0 when there is no document or no room for it.
using PFIndent = const char *(*)(mxml_node_t *ptNode, int nWhere);
uint32_t DocumentSave(mxml_node_t *ptTree, char *szBuf, uint32_t dwSize, PFIndent pfnIndent);

// The node behind another one in the document; null at the end.
mxml_node_t *DocumentNext(mxml_node_t *ptTree, mxml_node_t *ptNode);

// Version 3 keeps as elements what version 4 has types of nodes for.
bool IsXmlDeclaration(mxml_node_t *ptNode); // or another <?…?>
bool IsDocumentType(mxml_node_t *ptNode);   // or another <!…>, comments and character data aside

} // namespace camera

#endif
