/* SPDX-License-Identifier: MIT */
/**
 * @file xml.h
 * Typed readers and writers over the documents of Mini-XML 3 or 4, whichever the library was built
 * with: `pkg-config --print-requires appcore` names it, `mxml` or `mxml4`.
 *
 * AppXmlLoad() loads a document, whoever wrote it; saving and deleting it is Mini-XML's work.  The
 * other operations find, read and add single elements and attributes.  A text that the application
 * made itself may be loaded by Mini-XML's own functions with AppXmlMxmlParseCB(), which keeps each
 * element's content as one text with its blanks.
 *
 * Rules common to this header:
 * - Every operation that does not return a node or a type returns a code of ::EAppResult.  A null
 *   argument is ::APP_INVALID_ARG unless it is said that it may be null.
 * - A missing element or attribute is ordinary and logged at ::APP_LOG_DEBUG only, with the two
 *   exceptions named below.  Null arguments, unusable nodes and refused values are logged at
 *   ::APP_LOG_ERROR.
 * - Texts handed out point into the document, or to a constant.  They are not to be freed or
 *   changed and are valid until their node is changed or deleted.
 * - Nothing blocks, locks or keeps a state.  A document may be read by several threads at once, but
 *   while one thread changes it no other may use it.
 *
 * Numbers are read as by AppConvertStrtoS32(), AppConvertStrtoU32() and AppConvertStrtoU64():
 * decimal, leading blanks skipped, text behind the number ignored.  A text without digits, the
 * empty one included, is 0; an unsigned value of 32 or 64 bits must not hold a '-'.  Booleans are
 * the words "true" and "false" in any mix of upper and lower case and become 1 and 0; "1" and "0"
 * are no booleans.  What does not convert or does not fit its type is ::APP_BAD_VALUE.  Readers
 * write their out-parameter on success only, except AppXmlGetAttr_s32() and AppXmlGetAttr_u32().
 *
 * @warning A value behind a comment, as in `<port><!-- HTTP -->80</port>`, is not the element's first
 * child any more and reads as the empty text: 0 for numbers, refused for booleans.  So does one behind
 * a CDATA section or an instruction.  (Mini-XML 3 keeps all these as elements; with version 4 they
 * read alike.)  A comment behind the value, or between elements, does no harm.
 */
#ifndef APPCORE_XML_H
#define APPCORE_XML_H

#include <mxml.h>

#include "appcore/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

/** @name Loading
 * @{ */

/**
 * Loads a document that comes from outside: a datagram, a file that people edit.  The load
 * functions of Mini-XML 3 are not safe for such texts: for each text that breaks off inside its
 * root's tag they leak the root, and from the bytes FE FF or FF FE on, anywhere in the text, they
 * read behind its end; those of version 4 take a text that breaks off for a whole one.  Here a
 * broken text leaves nothing behind, and nothing but the text is read.  Any depth of elements is
 * loaded, and deleted by `mxmlDelete()`, without recursion.
 *
 * The tree is the one that `mxmlLoadString(NULL, …, AppXmlMxmlParseCB)` gives for a whole document,
 * and what that refuses is refused, but for a root with nothing in it, which version 4 refuses by
 * itself: the text begins with '<' (a UTF-8 mark before it is skipped).
 * An XML declaration `<?xml …?>` or a `<!DOCTYPE …>` there is the root, and the element is below
 * it; without one, no second root and no comment may stand beside the root.  Text behind the root
 * is dropped.  Refused as well, though Mini-XML lets them pass, are texts that end before their
 * root's end tag does, and texts that hold anywhere, a character entity included, what is not a
 * character of UTF-8 (half of a surrogate pair, a code above 10FFFF), a zero byte or another
 * control character.
 *
 * What is wrong with a text, parts of the text included, Mini-XML 4 has logged at ::APP_LOG_DEBUG.
 * Version 3 tells it to the thread's error callback, or else prints it to standard error: set one
 * with `mxmlSetErrorCallback()`.  A thread best does so when it starts: Mini-XML's first call in a
 * thread allocates a block and crashes when there is none.  With version 4 that call may be
 * `mxmlSetStringCallbacks(NULL, NULL, NULL)`.
 * @param szText   the text in UTF-8; needs no terminator.  It is copied to the heap, and the copy
 *                 freed before the call returns
 * @param dwLength its bytes
 * @param pptTree  receives the tree, to be deleted with `mxmlDelete()`; null on failure but
 *                 ::APP_INVALID_ARG
 * @retval APP_OK          loaded
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_BAD_VALUE   not one whole document, or not UTF-8 throughout.
 *                         Logged at ::APP_LOG_DEBUG, so that nobody outside can fill the log
 * @retval APP_NO_RESOURCE no memory for the copy, an element or a value, or longer than
 *                         1073741823 bytes.  But an attribute that Mini-XML has no memory for is
 *                         missing in a tree that is given all the same; only the error callback
 *                         is told
 */
APP_API uint32_t AppXmlLoad(const char *szText, uint32_t dwLength, mxml_node_t **pptTree);

/**
 * The type callback for Mini-XML's load functions: `mxmlLoadFile(NULL, ptFile, AppXmlMxmlParseCB)`
 * with version 3, `mxmlOptionsSetTypeCallback(ptOptions, AppXmlMxmlParseCB, NULL)` with version 4,
 * which hands its callbacks a context first.  For texts that the application made itself; see
 * AppXmlLoad() for those from outside.
 * @param ptNode not looked at; nor is the context
 * @return always `MXML_OPAQUE`, which version 4 calls `MXML_TYPE_OPAQUE`
 */
APP_API mxml_type_t AppXmlMxmlParseCB(
#if MXML_MAJOR_VERSION >= 4
    void *pvContext,
#endif
    mxml_node_t *ptNode);

/** @} */

/** @name Finding elements
 * @{ */

/**
 * Finds the first direct child element of a name.  With AppXmlGetNextSiblingWithName() it makes the
 * loop over repeated elements.
 * @param ptParent the parent
 * @param szName   the exact name, upper and lower case told apart
 * @return the element, or null: none has the name (not logged), or a null argument
 */
APP_API mxml_node_t *AppXmlGetFirstChildWithName(mxml_node_t *ptParent, const char *szName);

/**
 * Finds the next sibling element of a name.
 * @param ptNode the search begins behind this node, which may be of any kind and name
 * @param szName the exact name, upper and lower case told apart
 * @return the element, or null: none has the name (not logged), or a null argument
 */
APP_API mxml_node_t *AppXmlGetNextSiblingWithName(mxml_node_t *ptNode, const char *szName);

/**
 * Finds an element anywhere below a node: the first of its name in the order of the document, at
 * any depth.
 * @param ptParent   the top of the search; itself never found
 * @param szNodeName the exact name, not a path
 * @param pptSonNode receives the element; untouched on failure
 * @retval APP_OK          found
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_NOT_FOUND   no such element
 */
APP_API uint32_t AppXmlGetSonNode(mxml_node_t *ptParent, const char *szNodeName,
                                  mxml_node_t **pptSonNode);

/** @} */

/** @name Values of an element
 * These read the element given, loaded with AppXmlMxmlParseCB().
 * @{ */

/**
 * Reads an element's text.
 * @param ptNode the element, or its opaque value node
 * @param pszStr receives the text; the empty text for a node without opaque text
 * @retval APP_OK          read
 * @retval APP_INVALID_ARG a null argument
 */
APP_API uint32_t AppXmlGetNodeValue_Str(mxml_node_t *ptNode, const char **pszStr);

/**
 * Reads an element's number, 0 to 65535.
 * @param ptNode  as for AppXmlGetNodeValue_Str()
 * @param pwValue receives the number
 * @retval APP_OK          read
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_BAD_VALUE   negative, or too large
 */
APP_API uint32_t AppXmlGetNodeValue_u16(mxml_node_t *ptNode, uint16_t *pwValue);

/** Reads an element's number, 0 to 4294967295.  Otherwise as AppXmlGetNodeValue_u16(). */
APP_API uint32_t AppXmlGetNodeValue_u32(mxml_node_t *ptNode, uint32_t *pdwValue);

/** @} */

/** @name Attributes
 * @{ */

/**
 * Reads an attribute's text.  Meant for attributes that must be there: a missing one is logged at
 * ::APP_LOG_ERROR.
 * @param ptNode     the element
 * @param szAttrName the attribute's name, upper and lower case told apart
 * @param pszValue   receives the text
 * @retval APP_OK          read
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_NOT_FOUND   no such attribute, or the node is no element
 */
APP_API uint32_t AppXmlGetAttr_Str(mxml_node_t *ptNode, const char *szAttrName,
                                   const char **pszValue);

/**
 * Reads an attribute's number, -2147483648 to 2147483647.
 * @param ptNode     the element
 * @param szAttrName the attribute's name
 * @param pnValue    receives the number; 0 with ::APP_BAD_VALUE
 * @retval APP_OK          read
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_NOT_FOUND   no such attribute, or the node is no element
 * @retval APP_BAD_VALUE   out of range
 */
APP_API uint32_t AppXmlGetAttr_s32(mxml_node_t *ptNode, const char *szAttrName, int32_t *pnValue);

/** Reads an attribute's number, 0 to 255.  Otherwise as AppXmlGetAttr_s32(), in whose name a
 * missing attribute and a number beyond 32 bits are logged; but the out-parameter is untouched by
 *  ::APP_BAD_VALUE. */
APP_API uint32_t AppXmlGetAttr_u8(mxml_node_t *ptNode, const char *szAttrName, uint8_t *pbyValue);

/** Reads an attribute's number, 0 to 65535.  Otherwise as AppXmlGetAttr_u8(). */
APP_API uint32_t AppXmlGetAttr_u16(mxml_node_t *ptNode, const char *szAttrName, uint16_t *pwValue);

/** Reads an attribute's number, 0 to 4294967295; a text with a '-' is refused.  Otherwise as
 *  AppXmlGetAttr_s32(), the 0 with ::APP_BAD_VALUE included. */
APP_API uint32_t AppXmlGetAttr_u32(mxml_node_t *ptNode, const char *szAttrName, uint32_t *pdwValue);

/**
 * Reads an attribute's boolean.
 * @param ptNode     the element
 * @param szAttrName the attribute's name
 * @param pbValue    receives 1 or 0
 * @retval APP_OK          read
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_NOT_FOUND   no such attribute, or the node is no element
 * @retval APP_BAD_VALUE   neither "true" nor "false"
 */
APP_API uint32_t AppXmlGetAttr_Bool(mxml_node_t *ptNode, const char *szAttrName, uint32_t *pbValue);

/** @} */

/** @name Values of an element below a node
 * `szNodeName` is the name of a direct child of `ptParent`, or a path of names from there, parted
 * by '/': "net/ip".  A step that is a lone asterisk lets the name behind it lie at any depth.  Only
 * AppXmlGetSonNodeValue_CData() takes a single name, and searches at any depth itself.
 * @{ */

/**
 * Reads the text of an element below a node.
 * @param ptParent   where the path begins
 * @param szNodeName name or path
 * @param szText     receives the text.  It is empty for an element without content and for one that
 *                   begins with an element or a comment; of an element loaded as separate words
 *                   (without AppXmlMxmlParseCB()) it is the first word.
 * @retval APP_OK               read
 * @retval APP_INVALID_ARG      a null argument
 * @retval APP_NOT_FOUND        no element at the path
 * @retval APP_XML_NODE_INVALID the element holds an integer, real or custom node, or a value
 * without a text
 */
APP_API uint32_t AppXmlGetSonNodeValue_Str(mxml_node_t *ptParent, const char *szNodeName,
                                           const char **szText);

/**
 * Copies the text of an element below a node.  Meant for elements that must be there: a missing one
 * is logged at ::APP_LOG_ERROR too.
 * @param ptParent   where the path begins
 * @param szNodeName name or path
 * @param szBuf      receives the text; the rest of the buffer is filled with zero bytes.  Untouched
 *                   on failure.
 * @param dwBufSize  its size in bytes, terminator included
 * @retval APP_OK               copied
 * @retval APP_INVALID_ARG      a null argument, or size 0
 * @retval APP_BUFFER_TOO_SMALL the text with its terminator is longer than the buffer
 * @return otherwise as AppXmlGetSonNodeValue_Str()
 */
APP_API uint32_t AppXmlGetSonNodeValue_Str_Copy(mxml_node_t *ptParent, const char *szNodeName,
                                                char *szBuf, uint32_t dwBufSize);

/**
 * Reads the first CDATA section of an element anywhere below a node.
 * @param ptParent   the top of the search
 * @param szNodeName the exact name of the element, not a path; found as by AppXmlGetSonNode()
 * @param pszText    receives the section's text as Mini-XML holds it; the constant "]]" when the
 *                   element has no CDATA section among its children
 * @retval APP_OK               read
 * @retval APP_INVALID_ARG      a null argument
 * @retval APP_NOT_FOUND        no such element
 * @retval APP_XML_NODE_INVALID Mini-XML gives no text for the section
 */
APP_API uint32_t AppXmlGetSonNodeValue_CData(mxml_node_t *ptParent, const char *szNodeName,
                                             const char **pszText);

/**
 * Reads the number of an element below a node, -2147483648 to 2147483647.
 * @param ptParent   where the path begins
 * @param szNodeName name or path
 * @param pnValue    receives the number; untouched on failure
 * @retval APP_BAD_VALUE out of range
 * @return otherwise as AppXmlGetSonNodeValue_Str(), in whose name those failures are logged
 */
APP_API uint32_t AppXmlGetSonNodeValue_s32(mxml_node_t *ptParent, const char *szNodeName,
                                           int32_t *pnValue);

/** Reads the number of an element below a node, 0 to 255.  Otherwise as
 *  AppXmlGetSonNodeValue_s32(), in whose name a number beyond 32 bits and the null arguments other
 *  than `pbyValue` are logged. */
APP_API uint32_t AppXmlGetSonNodeValue_u8(mxml_node_t *ptParent, const char *szNodeName,
                                          uint8_t *pbyValue);

/** Reads the number of an element below a node, 0 to 65535.  Otherwise as
 *  AppXmlGetSonNodeValue_u8(). */
APP_API uint32_t AppXmlGetSonNodeValue_u16(mxml_node_t *ptParent, const char *szNodeName,
                                           uint16_t *pwValue);

/** Reads the number of an element below a node, 0 to 4294967295; a text with a '-' is refused.
 *  Otherwise as AppXmlGetSonNodeValue_s32(). */
APP_API uint32_t AppXmlGetSonNodeValue_u32(mxml_node_t *ptParent, const char *szNodeName,
                                           uint32_t *pdwValue);

/** Reads the number of an element below a node, 0 to 18446744073709551615; a text with a '-' is
 *  refused.  Otherwise as AppXmlGetSonNodeValue_s32(). */
APP_API uint32_t AppXmlGetSonNodeValue_u64(mxml_node_t *ptParent, const char *szNodeName,
                                           uint64_t *pqwValue);

/**
 * Reads the boolean of an element below a node.
 * @param ptParent   where the path begins
 * @param szNodeName name or path
 * @param pbValue    receives 1 or 0; null only checks the text
 * @retval APP_BAD_VALUE neither "true" nor "false"
 * @return otherwise as AppXmlGetSonNodeValue_Str(), in whose name those failures are logged
 */
APP_API uint32_t AppXmlGetSonNodeValue_Bool(mxml_node_t *ptParent, const char *szNodeName,
                                            uint32_t *pbValue);

/** @} */

/** @name Writers
 * A new element becomes the last child of its parent and belongs to the document.  The
 * out-parameter is untouched by ::APP_INVALID_ARG and null after every other failure.
 *
 * When the value of a new element cannot be made (::APP_NO_RESOURCE) the empty element stays in the
 * document: a caller who must not keep it deletes the parent's last child.  Whatever fails, the
 * document holds nothing that Mini-XML could not copy, and can be saved.
 * @{ */

/**
 * Adds an empty element.
 * @param ptFather   the parent
 * @param szNodeName its name
 * @param pptNewNode receives the element; must be given
 * @retval APP_OK          added
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_NO_RESOURCE Mini-XML made no element
 */
APP_API uint32_t AppXmlAddSonNode(mxml_node_t *ptFather, const char *szNodeName,
                                  mxml_node_t **pptNewNode);

/**
 * Adds an element with a text.
 * @param ptFather   the parent
 * @param szNodeName its name
 * @param szValue    the text, kept whole with its blanks; copied
 * @param pptNewNode receives the element; may be null
 * @retval APP_OK          added
 * @retval APP_INVALID_ARG a null argument other than `pptNewNode`
 * @retval APP_NO_RESOURCE Mini-XML made no element or no text
 */
APP_API uint32_t AppXmlAddSonNode_Str(mxml_node_t *ptFather, const char *szNodeName,
                                      const char *szValue, mxml_node_t **pptNewNode);

/** Adds an element with a signed number.  Otherwise as AppXmlAddSonNode_Str(), in whose name
 *  failures are logged. */
APP_API uint32_t AppXmlAddSonNode_s32(mxml_node_t *ptFather, const char *szNodeName, int32_t nValue,
                                      mxml_node_t **pptNewNode);

/** Adds an element with an unsigned number.  Otherwise as AppXmlAddSonNode_s32(). */
APP_API uint32_t AppXmlAddSonNode_u32(mxml_node_t *ptFather, const char *szNodeName,
                                      uint32_t dwValue, mxml_node_t **pptNewNode);

/** Adds an element with an unsigned 64-bit number.  Otherwise as AppXmlAddSonNode_s32(). */
APP_API uint32_t AppXmlAddSonNode_u64(mxml_node_t *ptFather, const char *szNodeName,
                                      uint64_t qwValue, mxml_node_t **pptNewNode);

/**
 * Adds an element with a number in fixed point, six digits behind the point: 0.1 is "0.100000".
 * The point is that of the process's locale; what is no number is "nan" or "inf".
 * @param ptFather   the parent
 * @param szNodeName its name
 * @param dValue     the number; its text has room for 63 characters, so it must lie between -1e55
 *                   and 1e56, both excluded
 * @param pptNewNode receives the element; may be null
 * @retval APP_FAILED the text is longer; nothing is added
 * @return otherwise as AppXmlAddSonNode_Str()
 */
APP_API uint32_t AppXmlAddSonNode_Double(mxml_node_t *ptFather, const char *szNodeName,
                                         double dValue, mxml_node_t **pptNewNode);

/** Adds an element with "true" for any value but 0, else "false".  Otherwise as
 *  AppXmlAddSonNode_s32(). */
APP_API uint32_t AppXmlAddSonNode_Bool(mxml_node_t *ptFather, const char *szNodeName,
                                       uint32_t bValue, mxml_node_t **pptNewNode);

/**
 * Adds an element with a CDATA section.
 * @param ptFather   the parent
 * @param szNodeName its name
 * @param szData     the section's text; copied.  It must not hold "]]>", which would end the
 * section in the saved document.
 * @param pptElem    receives the element (not the section); must be given
 * @retval APP_OK          added
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_NO_RESOURCE Mini-XML made no element or no section
 */
APP_API uint32_t AppXmlAddSonNode_CDATA(mxml_node_t *ptFather, const char *szNodeName,
                                        const char *szData, mxml_node_t **pptElem);

/**
 * Sets an attribute to a signed number, in place of the value that it may have.
 * @param ptNode     the element
 * @param szAttrName the attribute's name
 * @param nValue     the number
 * @retval APP_OK          set; or the node is no element, which has no attributes
 * @retval APP_INVALID_ARG a null argument
 * @retval APP_NO_RESOURCE Mini-XML had no memory for it: the attribute is as it was.  It then
 *                         loses two words of memory when the attribute would have been the first
 */
APP_API uint32_t AppXmlSetAttr_s32(mxml_node_t *ptNode, const char *szAttrName, int32_t nValue);

/** Sets an attribute to an unsigned number.  Otherwise as AppXmlSetAttr_s32(). */
APP_API uint32_t AppXmlSetAttr_u32(mxml_node_t *ptNode, const char *szAttrName, uint32_t dwValue);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
