// SPDX-License-Identifier: MIT
//
// The address reader and writer beside inet_pton() and inet_ntop(); an address's class and a mask's
// length beside a look at each octet and each bit.
#include <arpa/inet.h>
#include <string.h>

#include "appcore/convert.h"
#include "fuzz.h"

namespace
{

Fence s_text;

void CheckWriter(TAppNetAddr addr, uint32_t dwSize)
{
    const int nFamily = addr.dwType == APP_NET_ADDR_IPV4 ? AF_INET : AF_INET6;
    char achOracle[64];
    const char *szOracle = inet_ntop(nFamily, addr.abyIpv6, achOracle, dwSize);
    char *szText = s_text.Place(dwSize);
    const uint32_t dwResult = AppConvertNettoStr(&addr, szText, dwSize);
    Require(dwResult == (szOracle ? APP_OK : APP_FAILED));
    Require(TakeLines() == (szOracle ? 0u : 1u));
    Require(!szOracle || strcmp(szText, achOracle) == 0);
    addr.dwType += 2;
    Require(AppConvertNettoStr(&addr, szText, dwSize) == APP_INVALID_ARG && TakeLines() == 0);
}

void CheckReader(const std::string &text, uint32_t dwSize)
{
    const bool bIpv6 = text.find(':') != std::string::npos;
    const bool bIpv4 = !bIpv6 && text.find('.') != std::string::npos;
    uint8_t abyOracle[16] = {};
    const bool bValid =
        (bIpv6 || bIpv4) && inet_pton(bIpv6 ? AF_INET6 : AF_INET, text.c_str(), abyOracle) == 1;

    TAppNetAddr addr;
    memset(&addr, 0xA5, sizeof(addr));
    Require(AppConvertStrtoNet(text.c_str(), nullptr) == APP_INVALID_ARG);
    const uint32_t dwResult = AppConvertStrtoNet(text.c_str(), &addr);
    Require(TakeLines() == (dwResult == APP_FAILED ? 1u : 0u));
    if (!bIpv4 && !bIpv6) {
        Require(dwResult == APP_INVALID_ARG && addr.dwType == 0xA5A5A5A5);
        return;
    }
    Require(addr.dwType == (bIpv6 ? 1u : 0u));
    if (!bValid) {
        Require(dwResult == APP_FAILED && addr.dwIpv4 == 0xA5A5A5A5);
        return;
    }
    Require(dwResult == APP_OK && memcmp(addr.abyIpv6, abyOracle, bIpv6 ? 16 : 4) == 0);
    CheckWriter(addr, 64);
    CheckWriter(addr, dwSize);
}

EAppIpv4Class OracleClass(uint32_t dwAddr, const uint32_t *pdwMask)
{
    const uint32_t dwHost = pdwMask ? ~*pdwMask : 0;
    if (dwAddr == 0 || (pdwMask && (dwAddr & dwHost) == 0))
        return APP_IPV4_CLASS_NETWORK;
    if (dwAddr == UINT32_MAX || (pdwMask && (dwAddr | *pdwMask) == UINT32_MAX))
        return APP_IPV4_CLASS_BROADCAST;
    uint8_t byFirst;
    memcpy(&byFirst, &dwAddr, 1);
    if (byFirst == 0 || byFirst == 127)
        return byFirst ? APP_IPV4_CLASS_LOOPBACK : APP_IPV4_CLASS_INVALID;
    return byFirst < 128   ? APP_IPV4_CLASS_A
           : byFirst < 192 ? APP_IPV4_CLASS_B
           : byFirst < 224 ? APP_IPV4_CLASS_C
           : byFirst < 240 ? APP_IPV4_CLASS_D
                           : APP_IPV4_CLASS_E;
}

void CheckClass(TAppNetAddr addr, TAppNetAddr mask)
{
    Require(AppCheckIpv4Class(&addr, nullptr) == OracleClass(addr.dwIpv4, nullptr));
    Require(AppCheckIpv4Class(&addr, &mask) == OracleClass(addr.dwIpv4, &mask.dwIpv4));
    mask.dwType = APP_NET_ADDR_IPV6;
    Require(AppCheckIpv4Class(&addr, &mask) == APP_IPV4_CLASS_INVALID);
    Require(AppCheckIpv4Class(&mask, nullptr) == APP_IPV4_CLASS_INVALID);
    Require(AppCheckIpv4Class(nullptr, &addr) == APP_IPV4_CLASS_INVALID);
}

// The mask of a length as its bits in a row.
uint32_t OracleMask(int32_t nLength)
{
    uint8_t aby[4] = {};
    for (int32_t i = 0; i < nLength && i < 32; ++i)
        aby[i / 8] = static_cast<uint8_t>(aby[i / 8] | 0x80 >> i % 8);
    uint32_t dwMask;
    memcpy(&dwMask, aby, 4);
    return dwMask;
}

void CheckMask(TAppNetAddr mask, int32_t nLength)
{
    int32_t nWanted = -1;
    for (int32_t i = 0; i <= 32; ++i)
        nWanted = OracleMask(i) == mask.dwIpv4 ? i : nWanted;
    Require(AppConvertSubnetMasktoPrefixLength(&mask) == nWanted);
    Require(AppConvertSubnetMasktoPrefixLength(nullptr) == -1);
    AppConvertPrefixLengthtoSubnetMask(nLength, &mask);
    Require(mask.dwIpv4 == OracleMask(nLength) && mask.dwType == APP_NET_ADDR_IPV4);
    mask.dwType = APP_NET_ADDR_IPV6;
    Require(AppConvertSubnetMasktoPrefixLength(&mask) == -1);
    AppConvertPrefixLengthtoSubnetMask(nLength + 1, &mask);
    Require(mask.dwIpv4 == OracleMask(nLength));
}

void CheckOrder(uint32_t dwValue)
{
    const auto wValue = static_cast<uint16_t>(dwValue);
    const uint8_t aby[4] = {static_cast<uint8_t>(dwValue >> 24),
                            static_cast<uint8_t>(dwValue >> 16), static_cast<uint8_t>(dwValue >> 8),
                            static_cast<uint8_t>(dwValue)};
    const uint32_t dwNet = AppConvertHtonl(dwValue);
    const uint16_t wNet = AppConvertHtons(wValue);
    Require(memcmp(&dwNet, aby, 4) == 0 && memcmp(&wNet, aby + 2, 2) == 0);
    Require(AppConvertNtohl(dwNet) == dwValue && AppConvertNtohs(wNet) == wValue);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    CheckReader(AsText(pbyData, nSize), static_cast<uint32_t>(nSize % 50));
    Parts parts(pbyData, nSize);
    TAppNetAddr addr = {APP_NET_ADDR_IPV4, {parts.Word()}}, mask = addr;
    const uint32_t dwKind = parts.Byte();
    const auto nLength = static_cast<int32_t>(dwKind % 36) - 1; // past both ends
    // A mask or nearly one, and now and then an address that is next to its network's ends.
    mask.dwIpv4 = dwKind < 0x80 ? OracleMask(nLength) : parts.Word();
    mask.dwIpv4 ^= parts.Byte() % 4 == 0 ? OracleMask(nLength) ^ OracleMask(nLength + 1) : 0;
    addr.dwIpv4 |= dwKind % 5 == 0 ? ~mask.dwIpv4 : 0;
    addr.dwIpv4 &= dwKind % 5 == 1 ? mask.dwIpv4 : UINT32_MAX;
    CheckClass(addr, mask);
    CheckMask(mask, nLength);
    CheckOrder(addr.dwIpv4);
    CheckWriter(addr, parts.Byte() % 20);
    for (uint8_t &by : addr.abyIpv6)
        by = parts.Byte();
    addr.dwType = APP_NET_ADDR_IPV6;
    CheckWriter(addr, parts.Byte() % 50);
    return 0;
}
