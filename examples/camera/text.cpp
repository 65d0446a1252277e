// SPDX-License-Identifier: MIT
#include "text.h"

#include <appcore/appcore.h>

#include <sys/random.h>
#include <time.h>

namespace camera
{

bool IsBlank(char ch)
{
    return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n';
}

static bool IsDigit(char ch)
{
    return ch >= '0' && ch <= '9';
}

static bool IsHexDigit(char ch)
{
    return IsDigit(ch) || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F');
}

const char *NextWord(const char **pszRest, uint32_t *pdwLen)
{
    const char *szWord = *pszRest;
    while (IsBlank(*szWord))
        ++szWord;
    const char *szEnd = szWord;
    while (*szEnd && !IsBlank(*szEnd))
        ++szEnd;
    *pszRest = szEnd;
    *pdwLen = static_cast<uint32_t>(szEnd - szWord);
    return *pdwLen > 0 ? szWord : nullptr;
}

bool ParseNumber(const char *szText, uint32_t dwMin, uint32_t dwMax, uint32_t *pdwValue)
{
    uint32_t dwLen = 0, bError = 0;
    const char *szRest = szText;
    const char *szWord = NextWord(&szRest, &dwLen);
    char achWord[11];
    if (!szWord || dwLen >= sizeof(achWord))
        return false;
    for (uint32_t i = 0; i < dwLen; ++i)
        if (!IsDigit(szWord[i]))
            return false;
    AppStrncpy(achWord, szWord, dwLen + 1);
    const uint32_t dwValue = AppConvertStrtoU32(achWord, &bError);
    if (bError || dwValue < dwMin || dwValue > dwMax || NextWord(&szRest, &dwLen))
        return false;
    *pdwValue = dwValue;
    return true;
}

char *EscapeForLog(const char *szSrc, char *szDst, uint32_t dwSize)
{
    uint32_t dwUsed = 0;
    for (; szSrc && *szSrc && dwUsed + 5 < dwSize; ++szSrc) {
        const bool bPlain = *szSrc >= ' ' && *szSrc <= '~' && *szSrc != '\\';
        const int32_t nLen =
            AppSnprintf(szDst + dwUsed, dwSize - dwUsed, bPlain ? "%c" : "\\x%02x",
                        bPlain ? *szSrc : static_cast<unsigned>(static_cast<uint8_t>(*szSrc)));
        dwUsed += static_cast<uint32_t>(nLen);
    }
    szDst[dwUsed] = '\0';
    return szDst;
}

char *EncodeUri(const char *szSrc, char *szDst, uint32_t dwSize)
{
    uint32_t dwUsed = 0;
    for (; *szSrc && dwUsed + 4 < dwSize; ++szSrc) {
        const bool bPlain = IsDigit(*szSrc) || (*szSrc >= 'A' && *szSrc <= 'Z') ||
                            (*szSrc >= 'a' && *szSrc <= 'z') || AppStrchr("-._~", *szSrc);
        if (bPlain)
            szDst[dwUsed++] = *szSrc;
        else
            dwUsed += static_cast<uint32_t>(AppSnprintf(
                szDst + dwUsed, 4, "%%%02X", static_cast<unsigned>(static_cast<uint8_t>(*szSrc))));
    }
    szDst[dwUsed] = '\0';
    return szDst;
}

char *DecodeUri(const char *szSrc, uint32_t dwLen, char *szDst, uint32_t dwSize)
{
    uint32_t dwUsed = 0;
    for (uint32_t i = 0; i < dwLen && dwUsed + 1 < dwSize; ++i) {
        unsigned nCode = static_cast<uint8_t>(szSrc[i]);
        if (nCode == '%' && i + 2 < dwLen && IsHexDigit(szSrc[i + 1]) && IsHexDigit(szSrc[i + 2])) {
            AppSscanf(szSrc + i + 1, "%2x", &nCode);
            i += 2;
        }
        szDst[dwUsed++] = static_cast<char>(nCode);
    }
    szDst[dwUsed] = '\0';
    return szDst;
}

void MakeUuid(char *szDst)
{
    uint8_t aby[16] = {};
    if (getrandom(aby, sizeof(aby), 0) != static_cast<ssize_t>(sizeof(aby))) {
        // Without a random source a counter still keeps the numbers of this run apart.
        static uint32_t s_dwCounter;
        s_dwCounter += AppGetTick() + 1;
        AppMemcpy(aby, &s_dwCounter, sizeof(s_dwCounter));
    }
    aby[6] = static_cast<uint8_t>((aby[6] & 0x0f) | 0x40); // version 4, RFC 4122
    aby[8] = static_cast<uint8_t>((aby[8] & 0x3f) | 0x80);
    AppSnprintf(szDst, kUuidSize,
                "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", aby[0],
                aby[1], aby[2], aby[3], aby[4], aby[5], aby[6], aby[7], aby[8], aby[9], aby[10],
                aby[11], aby[12], aby[13], aby[14], aby[15]);
}

bool IsUuid(const char *szText)
{
    if (AppStrlen(szText) != kUuidSize - 1)
        return false;
    for (uint32_t i = 0; i < kUuidSize - 1; ++i) {
        const bool bHyphen = i == 8 || i == 13 || i == 18 || i == 23;
        if (bHyphen ? szText[i] != '-' : !IsHexDigit(szText[i]))
            return false;
    }
    return true;
}

bool HasControlChars(const char *szText)
{
    for (; *szText; ++szText)
        if (static_cast<uint8_t>(*szText) < ' ' && !IsBlank(*szText))
            return true;
    return false;
}

uint32_t ReadChar(const char *szText, uint32_t dwLeft, uint32_t *pdwCode)
{
    static constexpr uint32_t adwLeast[] = {0, 0, 0x80, 0x800, 0x10000}; // by length
    const auto pby = reinterpret_cast<const uint8_t *>(szText);
    const uint32_t dwLength = pby[0] < 0x80 ? 1 : pby[0] < 0xE0 ? 2 : pby[0] < 0xF0 ? 3 : 4;
    if (dwLength > dwLeft || (pby[0] >= 0x80 && pby[0] < 0xC2) || pby[0] > 0xF4)
        return 0;
    *pdwCode = dwLength == 1 ? pby[0] : pby[0] & (0x7Fu >> dwLength);
    for (uint32_t i = 1; i < dwLength; ++i) {
        if ((pby[i] & 0xC0) != 0x80)
            return 0;
        *pdwCode = *pdwCode << 6 | (pby[i] & 0x3F);
    }
    const bool bHalf = *pdwCode >= 0xD800 && *pdwCode <= 0xDFFF; // of a pair in UTF-16
    return *pdwCode >= adwLeast[dwLength] && *pdwCode <= 0x10FFFF && !bHalf ? dwLength : 0;
}

static bool IsPlainChar(uint32_t dwCode)
{
    const bool bEndsLine = dwCode == 0x2028 || dwCode == 0x2029;
    const bool bLost = dwCode == 0xFEFF || dwCode == 0xFFFE || dwCode == 0xFFFF; // in a document
    return dwCode >= ' ' && (dwCode < 0x7F || dwCode > 0x9F) && !bEndsLine && !bLost;
}

bool IsPlainText(const char *szText)
{
    uint32_t dwLeft = AppStrlen(szText), dwCode = 0;
    while (dwLeft > 0) {
        const uint32_t dwLength = ReadChar(szText, dwLeft, &dwCode);
        if (dwLength == 0 || !IsPlainChar(dwCode))
            return false;
        szText += dwLength;
        dwLeft -= dwLength;
    }
    return true;
}

bool WriteTime(uint64_t qwTime, uint32_t dwMs, char *szDst, uint32_t dwSize)
{
    static_assert(sizeof(time_t) == 8, "a 32-bit machine needs _TIME_BITS=64 for times after 2038");
    constexpr uint64_t qwYear10000 = 253402300800;
    tm tTime;
    const auto nTime = static_cast<time_t>(qwTime);
    return qwTime < qwYear10000 && gmtime_r(&nTime, &tTime) &&
           AppSnprintf(szDst, dwSize, "%04d-%02d-%02dT%02d:%02d:%02d.%03luZ", tTime.tm_year + 1900,
                       tTime.tm_mon + 1, tTime.tm_mday, tTime.tm_hour, tTime.tm_min, tTime.tm_sec,
                       static_cast<unsigned long>(dwMs)) > 0;
}

} // namespace camera
