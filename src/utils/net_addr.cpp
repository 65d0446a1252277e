// SPDX-License-Identifier: MIT
#include "appcore/convert.h"
#include "cross_linux/cross_linux.h"

static_assert(sizeof(TAppNetAddr) == 20, "fixed layout");

namespace
{

constexpr int32_t kBits = 32;

// The mask of `nPrefixLen` (1 to 32) leading bits in network order.
uint32_t MaskOf(int32_t nPrefixLen)
{
    return AppConvertHtonl(UINT32_MAX << (kBits - nPrefixLen));
}

bool HasPrefix(uint32_t dwAddr, int32_t nPrefixLen, uint32_t dwBits)
{
    return (dwAddr & MaskOf(nPrefixLen)) == AppConvertHtonl(dwBits);
}

EAppIpv4Class ClassOf(uint32_t dwAddr)
{
    // From the longest prefix to the shortest: loopback lies within class A, D and E above C.
    if (HasPrefix(dwAddr, 8, 0x7F000000))
        return APP_IPV4_CLASS_LOOPBACK;
    if (HasPrefix(dwAddr, 4, 0xF0000000))
        return APP_IPV4_CLASS_E;
    if (HasPrefix(dwAddr, 4, 0xE0000000))
        return APP_IPV4_CLASS_D;
    if (HasPrefix(dwAddr, 3, 0xC0000000))
        return APP_IPV4_CLASS_C;
    if (HasPrefix(dwAddr, 2, 0x80000000))
        return APP_IPV4_CLASS_B;
    return HasPrefix(dwAddr, 8, 0) ? APP_IPV4_CLASS_INVALID : APP_IPV4_CLASS_A;
}

} // namespace

uint32_t AppConvertStrtoNet(const char *szIp, TAppNetAddr *ptAddr)
{
    if (!szIp || !*szIp || !ptAddr)
        return APP_INVALID_ARG;
    return _AppConvertStrtoNet(szIp, ptAddr);
}

uint32_t AppConvertNettoStr(const TAppNetAddr *ptAddr, char *szBuf, uint32_t dwBufSize)
{
    if (!ptAddr || !szBuf)
        return APP_INVALID_ARG;
    return _AppConvertNettoStr(ptAddr, szBuf, dwBufSize);
}

EAppIpv4Class AppCheckIpv4Class(const TAppNetAddr *ptAddr, const TAppNetAddr *ptMask)
{
    if (!ptAddr || ptAddr->dwType != APP_NET_ADDR_IPV4 ||
        (ptMask && ptMask->dwType != APP_NET_ADDR_IPV4))
        return APP_IPV4_CLASS_INVALID;
    const uint32_t dwAddr = ptAddr->dwIpv4;
    const uint32_t dwHostBits = ptMask ? ~ptMask->dwIpv4 : 0;
    // The host's bits come before the classes, whatever the first octet.
    if (dwAddr == 0 || (ptMask && (dwAddr & dwHostBits) == 0))
        return APP_IPV4_CLASS_NETWORK;
    if (dwAddr == UINT32_MAX || (ptMask && (dwAddr & dwHostBits) == dwHostBits))
        return APP_IPV4_CLASS_BROADCAST;
    return ClassOf(dwAddr);
}

int32_t AppConvertSubnetMasktoPrefixLength(const TAppNetAddr *ptMask)
{
    if (!ptMask || ptMask->dwType != APP_NET_ADDR_IPV4)
        return -1;
    const uint32_t dwMask = AppConvertNtohl(ptMask->dwIpv4);
    // The count of leading zeros is undefined for 0.
    const int32_t nLen = dwMask == UINT32_MAX ? kBits : __builtin_clz(~dwMask);
    const bool bContiguous = nLen == kBits || dwMask << nLen == 0;
    return bContiguous ? nLen : -1;
}

void AppConvertPrefixLengthtoSubnetMask(int32_t nPrefixLen, TAppNetAddr *ptMask)
{
    if (!ptMask || ptMask->dwType != APP_NET_ADDR_IPV4)
        return;
    if (nPrefixLen <= 0)
        ptMask->dwIpv4 = 0;
    else
        ptMask->dwIpv4 = MaskOf(nPrefixLen < kBits ? nPrefixLen : kBits);
}

uint32_t AppConvertHtonl(uint32_t dwValue)
{
    return _AppConvertHtonl(dwValue);
}

uint32_t AppConvertNtohl(uint32_t dwValue)
{
    return _AppConvertNtohl(dwValue);
}

uint16_t AppConvertHtons(uint16_t wValue)
{
    return _AppConvertHtons(wValue);
}

uint16_t AppConvertNtohs(uint16_t wValue)
{
    return _AppConvertNtohs(wValue);
}
