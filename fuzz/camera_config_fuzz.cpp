// SPDX-License-Identifier: MIT
//
// The configuration from any text, the values that "set" takes from people, and the time's text.
#include <time.h>

#include <algorithm>

#include "config.h"
#include "fuzz.h"
#include "text.h"

namespace camera
{

uint8_t g_byLog = 1; // what it logs comes to the console

} // namespace camera

using namespace camera;

namespace
{

size_t s_nLines; // of the text at hand

// Fit for a terminal, and about a line that there is.
void CheckLine(const std::string &line)
{
    size_t nLine = 1;
    Require(!line.empty() && line.back() == '\n');
    Require(
        std::all_of(line.begin(), line.end() - 1, [](char ch) { return ch >= ' ' && ch <= '~'; }));
    sscanf(line.c_str(), "config: line %zu:", &nLine);
    Require(nLine >= 1 && nLine <= s_nLines);
}

// Fields without gaps, and zeros behind each text.
bool IsSame(const TConfig &tOne, const TConfig &tOther)
{
    return memcmp(&tOne, &tOther, sizeof(tOne)) == 0;
}

// A text of one line; python's and the browsers' idea of what ends one included.
bool IsOneLine(const std::string &text)
{
    for (const char *szEnd : {"\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9"})
        if (text.find(szEnd) != std::string::npos)
            return false;
    for (const char ch : text)
        if (static_cast<unsigned char>(ch) < ' ' || ch == 0x7F)
            return false;
    return true;
}

void CheckBounds(const TConfig &tConfig)
{
    char achNumber[kNumberSize];
    for (uint32_t i = 0; const TSetting *ptSetting = SettingAt(i); ++i) {
        const std::string value = SettingText(&tConfig, ptSetting, achNumber);
        const unsigned long dwOf =
            ptSetting->bText ? value.size() + 1 : strtoul(value.c_str(), nullptr, 10);
        Require(dwOf >= ptSetting->dwMin + ptSetting->bText && dwOf <= ptSetting->dwMax);
        Require(IsOneLine(value));
    }
}

// What is written is read again as the same, without a word.
void CheckAgain(const TConfig &tConfig)
{
    static Fence s_fence;
    char achText[kConfigSize];
    const uint32_t dwLength = ConfigWrite(&tConfig, achText, sizeof(achText));
    Require(dwLength > 0);
    TConfig tAgain = {};
    TakeLines();
    Require(ConfigRead(&tAgain, "again", s_fence.Place(std::string(achText, dwLength)), dwLength));
    Require(TakeLines() == 0 && IsSame(tAgain, tConfig));
    if (dwLength % 4 == 0) // the room may be just too small
        Require(ConfigWrite(&tConfig, s_fence.Place(dwLength), dwLength) == 0);
    else if (dwLength % 4 == 1)
        Require(ConfigWrite(&tConfig, s_fence.Place(dwLength + 1), dwLength + 1) == dwLength);
}

void CheckText(const std::string &text)
{
    static Fence s_fence;
    TConfig tConfig = {};
    s_nLines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    TakeLines();
    if (ConfigRead(&tConfig, "text", s_fence.Place(text), static_cast<uint32_t>(text.size()))) {
        CheckBounds(tConfig);
        CheckAgain(tConfig);
    } else {
        Require(TakeLines() > 0);
    }
}

// The text as what people type behind each key; longer ones are none.
void CheckSet(const std::string &value)
{
    TConfig tConfig = {};
    if (value.size() > sizeof(tConfig.achLogFile))
        return;
    for (uint32_t i = 0; const TSetting *ptSetting = SettingAt(i); ++i)
        SettingAssume(&tConfig, ptSetting);
    for (uint32_t i = 0; const TSetting *ptSetting = SettingAt(i); ++i) {
        const TConfig tBefore = tConfig;
        if (!SettingTake(&tConfig, ptSetting, value.c_str()))
            Require(IsSame(tConfig, tBefore));
    }
    CheckBounds(tConfig);
    CheckAgain(tConfig);
}

void CheckTime(uint64_t qwTime, uint32_t dwMs)
{
    constexpr uint64_t kEnd = 253402300800; // the year 10000
    char achTime[kTimeSize];
    tm tTime = {};
    unsigned dwMsRead;
    Require(WriteTime(qwTime, dwMs, achTime, sizeof(achTime)) == (qwTime < kEnd));
    if (qwTime >= kEnd)
        return;
    Require(sscanf(achTime, "%4d-%2d-%2dT%2d:%2d:%2d.%3uZ", &tTime.tm_year, &tTime.tm_mon,
                   &tTime.tm_mday, &tTime.tm_hour, &tTime.tm_min, &tTime.tm_sec, &dwMsRead) == 7);
    tTime.tm_year -= 1900;
    tTime.tm_mon -= 1;
    Require(timegm(&tTime) == static_cast<time_t>(qwTime) && dwMsRead == dwMs &&
            strlen(achTime) == kTimeSize - 1 && achTime[kTimeSize - 2] == 'Z');
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_pfnLine = CheckLine;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    const std::string text(reinterpret_cast<const char *>(pbyData), nSize);
    Parts parts(pbyData, nSize);
    const uint64_t qwTime = uint64_t{parts.Word() & 0x7F} << 32 | parts.Word();
    CheckTime(qwTime, parts.Word() % 1000);
    CheckSet(text.c_str());
    CheckText(text);
    return 0;
}
