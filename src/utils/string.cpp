// SPDX-License-Identifier: MIT
#include <string.h>

#include "appcore/mempool.h"
#include "cross_linux/cross_linux.h"

namespace
{

// The answer of the comparisons when a text is null: null equals empty.
int32_t CompareNull(const char *szFirst, const char *szSecond)
{
    const bool bFirst = szFirst && *szFirst;
    const bool bSecond = szSecond && *szSecond;
    if (bFirst == bSecond)
        return 0;
    return bFirst ? 1 : -1;
}

} // namespace

void AppMemzero(void *pvBuf, uint32_t dwLen)
{
    if (pvBuf)
        memset(pvBuf, 0, dwLen);
}

// With length 0 the pointers may be null, which memcpy() does not allow.
void AppMemcpy(void *pvDst, const void *pvSrc, uint32_t dwLen)
{
    if (dwLen > 0)
        memcpy(pvDst, pvSrc, dwLen);
}

int32_t AppMemcmp(const void *pvFirst, const void *pvSecond, uint32_t dwLen)
{
    return memcmp(pvFirst, pvSecond, dwLen);
}

uint32_t AppStrlen(const char *szText)
{
    return szText ? static_cast<uint32_t>(strlen(szText)) : 0;
}

int32_t AppStrcmp(const char *szFirst, const char *szSecond)
{
    return szFirst && szSecond ? strcmp(szFirst, szSecond) : CompareNull(szFirst, szSecond);
}

int32_t AppStrncmp(const char *szFirst, const char *szSecond, uint32_t dwCount)
{
    return szFirst && szSecond ? strncmp(szFirst, szSecond, dwCount)
                               : CompareNull(szFirst, szSecond);
}

int32_t AppStrcasecmp(const char *szFirst, const char *szSecond)
{
    return szFirst && szSecond ? _AppStrcasecmp(szFirst, szSecond) : CompareNull(szFirst, szSecond);
}

int32_t AppStrncasecmp(const char *szFirst, const char *szSecond, uint32_t dwCount)
{
    return szFirst && szSecond ? _AppStrncasecmp(szFirst, szSecond, dwCount)
                               : CompareNull(szFirst, szSecond);
}

char *AppStrstr(const char *szText, const char *szPattern)
{
    if (!szText)
        return nullptr;
    if (!szPattern || !*szPattern)
        return const_cast<char *>(szText);
    return const_cast<char *>(strstr(szText, szPattern));
}

char *AppStrchr(const char *szText, int32_t nChar)
{
    const char chWanted = static_cast<char>(nChar);
    // strchr() would find the terminator.
    if (!szText || chWanted == '\0')
        return nullptr;
    return const_cast<char *>(strchr(szText, chWanted));
}

char *AppStrncpy(char *szDst, const char *szSrc, uint32_t dwSize)
{
    if (!szDst || !szSrc || dwSize == 0)
        return szDst;
    // strnlen(): a source that fills its field has no terminator.
    const size_t nLen = strnlen(szSrc, dwSize - 1);
    memcpy(szDst, szSrc, nLen);
    memset(szDst + nLen, 0, dwSize - nLen);
    return szDst;
}

[[gnu::cold]] char *AppStrncat(char *szDst, const char *szSrc, uint32_t dwSize)
{
    if (!szDst || !szSrc || dwSize == 0)
        return szDst;
    // Bounded, because the destination may hold no terminator inside its size.
    const size_t nUsed = strnlen(szDst, dwSize - 1);
    const size_t nLen = strnlen(szSrc, dwSize - 1 - nUsed);
    memcpy(szDst + nUsed, szSrc, nLen);
    szDst[nUsed + nLen] = '\0';
    return szDst;
}

[[gnu::cold]] char *AppStrndup(HAppMemPool hMemPool, const char *szSrc, uint32_t dwSize)
{
    if (dwSize == 0 || !szSrc || !*szSrc)
        return nullptr;
    // AppStrncpy fills the rest of the block with zeros.
    return AppStrncpy(static_cast<char *>(AppMemPoolMalloc(hMemPool, dwSize)), szSrc, dwSize);
}

uint32_t AppStringHash(const char *szText)
{
    if (!szText)
        return 0;
    // Each character is added after a multiplication by its factor.  Two at a time, with the product
    // of their factors at hand, so that the hash waits for half as many.
    constexpr uint32_t kFirst = 63689;
    constexpr uint32_t kGrowth = 378551;
    constexpr uint32_t kGrowthOfTwo = kGrowth * kGrowth;
    // Unsigned, so that the hash of a name beyond ASCII is the same on every processor.
    const auto *pbyText = reinterpret_cast<const uint8_t *>(szText);
    uint32_t dwHash = 0;
    uint32_t dwFactor = kFirst;
    uint32_t dwBoth = kFirst * kFirst * kGrowth;
    for (; pbyText[0] && pbyText[1]; pbyText += 2) {
        dwHash = dwHash * dwBoth + (pbyText[0] * (dwFactor * kGrowth) + pbyText[1]);
        dwFactor *= kGrowthOfTwo;
        dwBoth *= kGrowthOfTwo * kGrowthOfTwo;
    }
    if (pbyText[0])
        dwHash = dwHash * dwFactor + pbyText[0];
    return dwHash & 0x7FFFFFFF;
}
