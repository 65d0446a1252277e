// SPDX-License-Identifier: MIT
//
// What the fuzz targets share: the judgement, the parts of an input, and memory with a fence.
#ifndef APPCORE_FUZZ_FUZZ_H
#define APPCORE_FUZZ_FUZZ_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>

#include "appcore/host.h"

// Ends the run, with a report, when an answer is wrong.
inline void Require(bool bHolds, const char *szFile = __builtin_FILE(),
                    int nLine = __builtin_LINE())
{
    if (bHolds)
        return;
    fprintf(stderr, "%s:%d: wrong answer\n", szFile, nLine);
    abort();
}

// printf() into a string.
APP_PRINTF(1, 2) inline std::string Printed(const char *szFormat, ...)
{
    char achText[400]; // any double
    va_list args;
    va_start(args, szFormat);
    const int nLength = vsnprintf(achText, sizeof(achText), szFormat, args);
    va_end(args);
    return {achText, static_cast<size_t>(nLength)};
}

// The input as a text; a NUL inside ends it, as it would in a document.
inline std::string AsText(const uint8_t *pbyData, size_t nSize)
{
    return std::string(reinterpret_cast<const char *>(pbyData), nSize).c_str();
}

// An input in parts; zeros behind its end.
class Parts
{
public:
    Parts(const uint8_t *pbyData, size_t nSize) : m_pby(pbyData), m_nLeft(nSize) {}

    uint8_t Byte() { return m_nLeft == 0 ? uint8_t{0} : (--m_nLeft, *m_pby++); }
    uint32_t Word()
    {
        uint32_t dwWord = 0;
        for (int i = 0; i < 4; ++i)
            dwWord = dwWord << 8 | Byte();
        return dwWord;
    }
    // A word that is often at a boundary: a small number, or one next to a power of two.
    uint32_t Number()
    {
        const uint8_t byKind = Byte();
        if (byKind >= 0xC0)
            return Word();
        return byKind < 0x40 ? byKind : (1u << byKind % 32) - 1 + byKind / 32 % 3;
    }
    // At most 15 bytes that are not NUL.
    std::string Text()
    {
        std::string text;
        for (size_t nLength = Byte() % 16; text.size() < nLength && m_nLeft > 0;)
            text += static_cast<char>(Byte());
        return text.c_str();
    }
    // Now and then none at all.
    std::optional<std::string> MaybeText()
    {
        if (Byte() % 8 == 0)
            return std::nullopt;
        return Text();
    }
    size_t Left() const { return m_nLeft; }

private:
    const uint8_t *m_pby;
    size_t m_nLeft;
};

inline const char *Pointer(const std::optional<std::string> &text)
{
    return text ? text->c_str() : nullptr;
}

// Memory that ends at a page nobody may touch, with every compiler and sanitizer.
class Fence
{
public:
    Fence()
    {
        const auto nPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        m_nRoom = (kLeastRoom + nPage - 1) / nPage * nPage;
        void *pv = mmap(nullptr, m_nRoom + nPage, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        Require(pv != MAP_FAILED);
        m_pch = static_cast<char *>(pv);
        Require(mprotect(m_pch + m_nRoom, nPage, PROT_NONE) == 0);
    }
    // The last bytes in front of the fence, filled; those before them too.
    char *Place(size_t nSize)
    {
        Require(nSize + kMargin <= m_nRoom);
        char *pch = m_pch + m_nRoom - nSize;
        memset(pch - kMargin, '#', nSize + kMargin);
        return pch;
    }
    char *Place(const std::string &bytes)
    {
        char *pch = Place(bytes.size());
        memcpy(pch, bytes.data(), bytes.size());
        return pch;
    }

private:
    static constexpr size_t kLeastRoom = 65536, kMargin = 64;
    char *m_pch;
    size_t m_nRoom;
};

// The console of a target: refused inputs are the rule, so it keeps the last line only; a target
// that wants them all is given each.
inline std::string g_line;
inline unsigned g_nLines = 0;
inline void (*g_pfnLine)(const std::string &line) = nullptr;

extern "C" int32_t QorPrintf(int32_t, int32_t, const char *szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    g_line = va_arg(args, const char *); // the format is "%s"
    va_end(args);
    ++g_nLines;
    if (g_pfnLine)
        g_pfnLine(g_line);
    return 0;
}

// The lines logged since the last call.
inline unsigned TakeLines()
{
    return std::exchange(g_nLines, 0u);
}

#endif
