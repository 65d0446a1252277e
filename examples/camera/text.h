// SPDX-License-Identifier: MIT
//
// Texts that come from people and from the network.
#ifndef CAMERA_TEXT_H
#define CAMERA_TEXT_H

#include <stdint.h>

namespace camera
{

// A decimal number from dwMin to dwMax and nothing else, blanks around it aside.
bool ParseNumber(const char *szText, uint32_t dwMin, uint32_t dwMax, uint32_t *pdwValue);

// Makes a text of unknown origin fit for a log line: what is not printable ASCII becomes \xNN.
// Writes at most dwSize - 1 characters; returns szDst.
char *EscapeForLog(const char *szSrc, char *szDst, uint32_t dwSize);

// Percent-encodes a text for use in a URI, and back; the result is cut to dwSize - 1 characters.
char *EncodeUri(const char *szSrc, char *szDst, uint32_t dwSize);
char *DecodeUri(const char *szSrc, uint32_t dwLen, char *szDst, uint32_t dwSize);

constexpr uint32_t kUuidSize = 37;
void MakeUuid(char *szDst); // a random one, of kUuidSize bytes
bool IsUuid(const char *szText);

// Control characters; blanks of all kinds are none.
bool HasControlChars(const char *szText);
// One line of UTF-8 that every document can hold: no control characters, DEL and those behind it
// among them, no line breaks of any kind, nothing that is no character.
bool IsPlainText(const char *szText);
// The length of the character in UTF-8 at szText, of which dwLeft bytes are there, and its code; 0
// where there is none.
uint32_t ReadChar(const char *szText, uint32_t dwLeft, uint32_t *pdwCode);

// "2024-02-29T12:00:00.123Z".  False for a time that has no year of four digits.
constexpr uint32_t kTimeSize = 25;
bool WriteTime(uint64_t qwTime, uint32_t dwMs, char *szDst, uint32_t dwSize);

bool IsBlank(char ch);
// The first word of *pszRest, with its length; moves *pszRest behind it.  Null at the end.
const char *NextWord(const char **pszRest, uint32_t *pdwLen);

} // namespace camera

#endif
