// SPDX-License-Identifier: MIT
//
// The string and memory helpers beside the C library and std::string: any texts, null ones too, in
// blocks that end at a fence, so that no helper reads or writes a byte too far.
#include "appcore/foundation.h"

#include <ctype.h>
#include <limits.h>
#include <strings.h>

#include <algorithm>
#include <vector>

#include "appcore/mempool.h"
#include "fuzz.h"

namespace
{

using MaybeText = std::optional<std::string>;

Fence s_first, s_second, s_result;

// The text with its terminator, at a fence; null for none.
const char *Placed(Fence &fence, const MaybeText &text)
{
    return text ? fence.Place(std::string(text->c_str(), text->size() + 1)) : nullptr;
}

int Sign(int nValue)
{
    return (nValue > 0) - (nValue < 0);
}

void CheckComparisons(const MaybeText &first, const MaybeText &second, uint32_t dwCount)
{
    const std::string left = first.value_or(""), right = second.value_or("");
    const char *szFirst = Placed(s_first, first), *szSecond = Placed(s_second, second);
    // Beside one null the count is not looked at.
    const size_t nCount = !first != !second ? SIZE_MAX : dwCount;
    const std::string leftPart = left.substr(0, nCount), rightPart = right.substr(0, nCount);
    Require(Sign(AppStrcmp(szFirst, szSecond)) == Sign(left.compare(right)));
    Require(Sign(AppStrncmp(szFirst, szSecond, dwCount)) == Sign(leftPart.compare(rightPart)));
    Require(Sign(AppStrcasecmp(szFirst, szSecond)) ==
            Sign(strcasecmp(left.c_str(), right.c_str())));
    Require(Sign(AppStrncasecmp(szFirst, szSecond, dwCount)) ==
            Sign(strcasecmp(leftPart.c_str(), rightPart.c_str())));
}

void CheckSearches(const MaybeText &text, const MaybeText &pattern, uint32_t dwChar)
{
    const char *szText = Placed(s_first, text), *szPattern = Placed(s_second, pattern);
    const auto At = [&](size_t nAt) { return nAt == std::string::npos ? nullptr : szText + nAt; };
    Require(AppStrlen(szText) == text.value_or("").size());
    Require(AppStrstr(szText, szPattern) ==
            (text ? At(text->find(pattern.value_or(""))) : nullptr));
    const char ch = static_cast<char>(dwChar); // one byte of it counts
    Require(AppStrchr(szText, static_cast<int32_t>(dwChar)) ==
            (text && ch ? At(text->find(ch)) : nullptr));
}

void CheckCopies(const MaybeText &text, uint32_t dwSize)
{
    const char *szText = Placed(s_first, text);
    std::string wanted(dwSize, '#');
    if (text && dwSize > 0) {
        wanted = text->substr(0, dwSize - 1);
        wanted.resize(dwSize); // all behind it is zero
    }
    char *szBuf = s_result.Place(dwSize);
    Require(AppStrncpy(szBuf, szText, dwSize) == szBuf);
    Require(std::string(szBuf, dwSize) == wanted);
    Require(AppStrncpy(nullptr, szText, dwSize) == nullptr);
    char *szCopy = AppStrndup(nullptr, szText, dwSize);
    Require((szCopy != nullptr) == (dwSize > 0 && text && !text->empty()));
    Require(!szCopy || std::string(szCopy, dwSize) == wanted);
    AppMemPoolFree(szCopy);
}

// The destination need not be terminated.
void CheckAppending(const std::string &held, const MaybeText &text, uint32_t dwSize)
{
    const std::string used = held.substr(0, dwSize);
    std::string before = used;
    before.resize(dwSize);
    char *szBuf = s_result.Place(before);
    Require(AppStrncat(szBuf, Placed(s_first, text), dwSize) == szBuf);
    if (!text || dwSize == 0)
        Require(std::string(szBuf, dwSize) == before);
    else
        Require(szBuf == (used + *text).substr(0, dwSize - 1));
    Require(AppStrncat(nullptr, "", dwSize) == nullptr);
}

void CheckMemory(const std::string &bytes, const std::string &others)
{
    const uint32_t dwLength = static_cast<uint32_t>(std::min(bytes.size(), others.size()));
    const std::string part = bytes.substr(0, dwLength), other = others.substr(0, dwLength);
    char *pchFirst = s_first.Place(part), *pchSecond = s_second.Place(other);
    Require(Sign(AppMemcmp(pchFirst, pchSecond, dwLength)) == Sign(part.compare(other)));
    AppMemcpy(dwLength ? pchFirst : nullptr, pchSecond, dwLength);
    Require(std::string(pchFirst, dwLength) == other);
    AppMemzero(pchFirst, dwLength);
    Require(std::string(pchFirst, dwLength) == std::string(dwLength, '\0'));
    AppMemzero(nullptr, dwLength);
}

// The definition, in wider numbers.
void CheckHash(const MaybeText &text)
{
    uint64_t qwHash = 0, qwFactor = 63689;
    for (const char ch : text.value_or("")) {
        qwHash = (qwHash * qwFactor + static_cast<unsigned char>(ch)) % (1ull << 32);
        qwFactor = qwFactor * 378551 % (1ull << 32);
    }
    Require(AppStringHash(Placed(s_first, text)) == qwHash % (1ull << 31));
}

template <typename... Args>
void CheckOneFormat(uint32_t dwSize, const char *szFormat, Args... args)
{
    char achWhole[256];
    const int nWhole = snprintf(achWhole, sizeof(achWhole), szFormat, args...);
    char *szBuf = s_result.Place(dwSize);
    Require(AppSnprintf(szBuf, dwSize, szFormat, args...) ==
            (static_cast<uint32_t>(nWhole) < dwSize ? nWhole : -1));
    Require(dwSize == 0 || szBuf == std::string(achWhole).substr(0, dwSize - 1));
}

void CheckFormats(const std::string &text, uint32_t dwNumber, uint32_t dwSize)
{
    const unsigned long long qwNumber = dwNumber * 0x100000001ull;
    CheckOneFormat(dwSize, "%s|%.3s|%c", text.c_str(), text.c_str(), 'x');
    CheckOneFormat(dwSize, "%d %08x %lu", static_cast<int>(dwNumber), dwNumber,
                   static_cast<unsigned long>(dwNumber));
    CheckOneFormat(dwSize, "%llu %.2f%%", qwNumber, static_cast<double>(dwNumber) / 7);
    Require(AppSnprintf(nullptr, dwSize, "%s", text.c_str()) == -1);
    Require(AppSnprintf(s_result.Place(dwSize), dwSize, nullptr) == -1);

    int nRead = INT_MIN, nWanted = INT_MIN;
    char achRead[4] = "", achWanted[4] = "";
    const int nOracle = sscanf(text.c_str(), "%3d %3s", &nWanted, achWanted);
    Require(AppSscanf(Placed(s_first, text), "%3d %3s", &nRead, achRead) == nOracle);
    Require(nRead == nWanted && strcmp(achRead, achWanted) == 0);
    Require(AppSscanf(nullptr, "%d", &nRead) == 0 && AppSscanf(text.c_str(), nullptr) == 0);
}

// What a dump may end with: the text up to each of its pieces.
std::vector<std::string> DumpPieces(const char *pch, uint32_t dwLength)
{
    std::vector<std::string> whole{""};
    const auto Add = [&](const std::string &piece) { whole.push_back(whole.back() + piece); };
    Add(Printed("ADDR:%p SIZE:%u(%xh)\n", static_cast<const void *>(pch), dwLength, dwLength));
    for (uint32_t dwRow = 0; dwRow < dwLength; dwRow += 16) {
        Add(Printed("%8xh: ", dwRow));
        for (uint32_t i = dwRow; i < dwRow + 16; ++i)
            Add(i < dwLength ? Printed("%02X ", static_cast<unsigned char>(pch[i])) : "   ");
        Add(" | ");
        for (uint32_t i = dwRow; i < dwRow + 16 && i < dwLength; ++i)
            Add(pch[i] > ' ' && pch[i] <= '~' ? std::string(1, pch[i]) : ".");
        Add("\n");
    }
    return whole;
}

void CheckDump(const std::string &bytes, uint32_t dwSize)
{
    const auto dwLength = static_cast<uint32_t>(bytes.size());
    const char *pch = s_first.Place(bytes);
    char *szBuf = s_result.Place(dwSize);
    const auto pby = reinterpret_cast<const uint8_t *>(pch);
    const int32_t nWritten = AppDumpMem(pby, dwLength, szBuf, dwSize);
    if (dwLength == 0 || dwSize == 0) {
        Require(nWritten == 0 && (dwSize == 0 || szBuf[0] == '#'));
        return;
    }
    std::string wanted;
    for (const std::string &text : DumpPieces(pch, dwLength))
        wanted = text.size() < dwSize ? text : wanted;
    Require(szBuf == wanted && nWritten == static_cast<int32_t>(wanted.size()));
    Require(AppDumpMem(nullptr, dwLength, szBuf, dwSize) == 0 && szBuf == wanted);
    Require(AppDumpMem(pby, dwLength, nullptr, dwSize) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    Parts parts(pbyData, nSize);
    const MaybeText first = parts.MaybeText(), second = parts.MaybeText();
    const uint32_t dwSize = parts.Byte() % 20, dwNumber = parts.Number();
    CheckComparisons(first, second, dwSize);
    CheckComparisons(first, second, dwNumber);
    CheckSearches(first, second, dwNumber);
    CheckSearches(first, second, dwSize > 0 ? first.value_or("b")[0] + 256u : 0u);
    CheckCopies(first, dwSize);
    CheckAppending(first.value_or(""), second, dwSize);
    CheckMemory(first.value_or("") + '\0', second.value_or("") + '\0');
    CheckHash(first);
    CheckHash(first.value_or("") + second.value_or("") + first.value_or("") + second.value_or(""));
    CheckFormats(first.value_or(""), dwNumber, dwSize);
    CheckDump(std::string(pbyData, pbyData + std::min<size_t>(nSize, 40)),
              parts.Byte() + parts.Byte() % 2 * 256u);
    return 0;
}
