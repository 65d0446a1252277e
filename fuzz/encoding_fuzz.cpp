// SPDX-License-Identifier: MIT
//
// The text encodings beside iconv called here: the whole text when it converts and fits, else a
// failure with a terminated beginning of it; and back again.  Sources stand at any address.
#include <iconv.h>

#include <algorithm>

#include "appcore/convert.h"
#include "fuzz.h"

namespace
{

const char *const kUtf16 = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? "UTF-16BE" : "UTF-16LE";

Fence s_source, s_result;

// A descriptor that stays open; iconv's tables are files, which an emulated system may lack.
class Oracle
{
public:
    Oracle(const char *szTo, const char *szFrom) : m_hConv(iconv_open(szTo, szFrom))
    {
        if (!Knows())
            printf("not run: this system's iconv has no %s to %s\n", szFrom, szTo);
    }
    bool Knows() const { return m_hConv != reinterpret_cast<iconv_t>(-1); }
    // As much as converts.
    std::string Convert(const std::string &bytes, bool *pbWhole) const
    {
        char achOut[4096];
        char *pchIn = const_cast<char *>(bytes.data()), *pchOut = achOut;
        size_t nIn = bytes.size(), nOut = sizeof(achOut);
        iconv(m_hConv, nullptr, nullptr, nullptr, nullptr);
        *pbWhole = iconv(m_hConv, &pchIn, &nIn, &pchOut, &nOut) != static_cast<size_t>(-1);
        return std::string(achOut, sizeof(achOut) - nOut);
    }

private:
    iconv_t m_hConv;
};

struct TCodec {
    Oracle to, from;
    uint32_t (*pfnTo)(const void *, void *, uint32_t *);
    uint32_t (*pfnFrom)(const void *, uint32_t, void *, uint32_t);
    int32_t (*pfnHost)(const void *, void *, uint32_t *); // behind pfnTo
};

// What is left behind: the whole text or a beginning, with a terminator.
void RequireText(const char *pch, size_t nRoom, size_t nUnit, const std::string &wanted,
                 bool bWhole)
{
    size_t nEnd = 0;
    while (nEnd < nRoom && std::string(pch + nEnd, nUnit) != std::string(nUnit, '\0'))
        nEnd += nUnit;
    Require(nEnd < nRoom);
    const std::string text(pch, nEnd);
    Require(text == wanted.substr(0, nEnd) && (!bWhole || text == wanted));
}

void CheckToUnicode(const TCodec &codec, const std::string &text, uint32_t dwUnits)
{
    bool bWhole;
    const std::string wanted = codec.to.Convert(text, &bWhole);
    const bool bOk = bWhole && wanted.size() / 2 < dwUnits;
    char *pchDst = s_result.Place(size_t{dwUnits} * 2);
    uint32_t dwLen = dwUnits;
    const uint32_t dwResult =
        codec.pfnTo(s_source.Place(std::string(text.c_str(), text.size() + 1)), pchDst, &dwLen);
    if (dwUnits == 0) {
        Require(dwResult == APP_INVALID_ARG && TakeLines() == 0);
        Require(codec.pfnHost(text.c_str(), pchDst, &dwLen) == 0 && dwLen == 0);
        return;
    }
    Require(dwResult == (bOk ? APP_OK : APP_FAILED) && TakeLines() == (bOk ? 0u : 1u));
    Require(dwLen == (bOk ? wanted.size() / 2 : dwUnits));
    RequireText(pchDst, size_t{dwUnits} * 2, 2, wanted, bOk);
}

// The source ends at its length or at a zero unit.
void CheckFromUnicode(const TCodec &codec, const std::string &units, uint32_t dwRoom)
{
    size_t nEnd = 0;
    while (nEnd < units.size() && (units[nEnd] != 0 || units[nEnd + 1] != 0))
        nEnd += 2;
    bool bWhole;
    const std::string wanted = codec.from.Convert(units.substr(0, nEnd), &bWhole);
    const bool bOk = bWhole && wanted.size() < dwRoom;
    const char *pchSrc = s_source.Place(units);
    char *pchDst = s_result.Place(dwRoom);
    const uint32_t dwResult =
        codec.pfnFrom(pchSrc, static_cast<uint32_t>(units.size() / 2), pchDst, dwRoom);
    Require(dwResult == (bOk ? APP_OK : APP_FAILED) && TakeLines() == (bOk ? 0u : 1u));
    if (dwRoom > 0)
        RequireText(pchDst, dwRoom, 1, wanted, bOk);
    std::string shifted = units + "##"; // an odd address, and no terminator
    pchSrc = s_source.Place(shifted.insert(0, 1, '#')) + 1;
    Require(codec.pfnFrom(pchSrc, static_cast<uint32_t>(units.size() / 2), pchDst, dwRoom) ==
            dwResult);
    TakeLines();
}

void CheckCodec(const TCodec &codec, const std::string &text, const std::string &units,
                uint32_t dwRoom)
{
    if (!codec.to.Knows() || !codec.from.Knows())
        return;
    bool bWhole;
    const std::string wide = codec.to.Convert(text, &bWhole);
    CheckToUnicode(codec, text, dwRoom);
    CheckToUnicode(codec, text, static_cast<uint32_t>(wide.size() / 2)); // a unit too small
    CheckToUnicode(codec, text, static_cast<uint32_t>(wide.size() / 2 + 1));
    CheckFromUnicode(codec, units, dwRoom);
    CheckFromUnicode(codec, wide, static_cast<uint32_t>(text.size()));
    CheckFromUnicode(codec, wide, static_cast<uint32_t>(text.size() + 1));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    static const TCodec s_utf8 = {{kUtf16, "UTF-8"},
                                  {"UTF-8", kUtf16},
                                  AppConvertUtf8toUnicode,
                                  AppConvertUnicodetoUtf8,
                                  IpcConvConvertUtf8toUnicode};
    static const TCodec s_gbk = {{kUtf16, "GBK"},
                                 {"GBK", kUtf16},
                                 AppConvertGbktoUnicode,
                                 AppConvertUnicodetoGbk,
                                 IpcConvConvertGbktoUnicode};
    Parts parts(pbyData, nSize);
    const uint32_t dwRoom = parts.Byte() % 24;
    std::string text = parts.Text(), units;
    while (parts.Left() > 1)
        for (int i = 0; i < 2; ++i)
            units += static_cast<char>(parts.Byte());
    units.resize(std::min<size_t>(units.size(), 64));
    CheckCodec(s_utf8, text, units, dwRoom);
    CheckCodec(s_gbk, text, units, dwRoom);
    return 0;
}
