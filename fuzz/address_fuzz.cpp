// SPDX-License-Identifier: MIT
//
// The address reader and writer beside inet_pton() and inet_ntop().
#include <arpa/inet.h>
#include <string.h>

#include "appcore/convert.h"
#include "appcore/host.h"
#include "fuzz.h"

APP_FUZZ_SILENT_CONSOLE

static void CheckWriter(const TAppNetAddr &addr, uint32_t dwSize)
{
    const int nFamily = addr.dwType == APP_NET_ADDR_IPV4 ? AF_INET : AF_INET6;
    char achOracle[64];
    char achText[64];
    const char *szOracle = inet_ntop(nFamily, addr.abyIpv6, achOracle, dwSize);
    const uint32_t dwResult = AppConvertNettoStr(&addr, achText, dwSize);
    Require(dwResult == (szOracle ? APP_OK : APP_FAILED));
    Require(!szOracle || strcmp(achText, achOracle) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    const std::string text = AsText(pbyData, nSize);
    const bool bIpv6 = text.find(':') != std::string::npos;
    const bool bIpv4 = !bIpv6 && text.find('.') != std::string::npos;
    uint8_t abyOracle[16] = {};
    const bool bValid =
        (bIpv6 || bIpv4) && inet_pton(bIpv6 ? AF_INET6 : AF_INET, text.c_str(), abyOracle) == 1;

    TAppNetAddr addr;
    memset(&addr, 0xA5, sizeof(addr));
    const uint32_t dwResult = AppConvertStrtoNet(text.c_str(), &addr);
    if (!bIpv4 && !bIpv6) {
        Require(dwResult == APP_INVALID_ARG && addr.dwType == 0xA5A5A5A5);
        return 0;
    }
    Require(addr.dwType == (bIpv6 ? 1u : 0u));
    if (!bValid) {
        Require(dwResult == APP_FAILED && addr.dwIpv4 == 0xA5A5A5A5);
        return 0;
    }
    Require(dwResult == APP_OK && memcmp(addr.abyIpv6, abyOracle, bIpv6 ? 16 : 4) == 0);
    CheckWriter(addr, 64);
    CheckWriter(addr, static_cast<uint32_t>(nSize % 50));
    return 0;
}
