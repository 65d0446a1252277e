// SPDX-License-Identifier: MIT
//
// Addresses from text and back.  The usual ones, dotted quads, are read and written here: the C
// library goes by tables and formatted printing for them.
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include "cross_linux/cross_linux.h"
#include "cross_linux/error_text.h"

namespace
{

constexpr uint32_t kOctets = 4;

// More than 9 for what is no digit.
uint32_t DigitOf(char chText)
{
    return static_cast<uint32_t>(chText) - '0';
}

// One octet as inet_pton() takes it: 1 to 3 digits, no leading zero, at most 255.  Returns where it
// ends; a fourth digit is for the caller to refuse, like whatever else is no dot.
const char *ReadOctet(const char *szText, uint8_t *pbyOctet)
{
    uint32_t dwValue = DigitOf(szText[0]);
    if (dwValue > 9)
        return nullptr;
    uint32_t dwDigit = DigitOf(*++szText);
    if (dwDigit <= 9) {
        if (dwValue == 0)
            return nullptr;
        dwValue = dwValue * 10 + dwDigit;
        dwDigit = DigitOf(*++szText);
        if (dwDigit <= 9) {
            dwValue = dwValue * 10 + dwDigit;
            if (dwValue > 255)
                return nullptr;
            ++szText;
        }
    }
    *pbyOctet = static_cast<uint8_t>(dwValue);
    return szText;
}

// A dotted quad.  What it does not take is left to inet_pton(), which has the last word.
bool ReadQuad(const char *szIp, uint32_t *pdwIpv4)
{
    uint8_t abyOctet[kOctets];
    for (uint32_t i = 0; i < kOctets; ++i) {
        szIp = ReadOctet(szIp, &abyOctet[i]);
        if (!szIp || *szIp != (i + 1 < kOctets ? '.' : '\0'))
            return false;
        ++szIp;
    }
    memcpy(pdwIpv4, abyOctet, kOctets);
    return true;
}

char *WriteOctet(char *szEnd, uint8_t byOctet)
{
    if (byOctet >= 100)
        *szEnd++ = static_cast<char>('0' + byOctet / 100);
    if (byOctet >= 10)
        *szEnd++ = static_cast<char>('0' + byOctet / 10 % 10);
    *szEnd++ = static_cast<char>('0' + byOctet % 10);
    return szEnd;
}

// Needs INET_ADDRSTRLEN bytes.
void WriteQuad(uint32_t dwIpv4, char *szBuf)
{
    uint8_t abyOctet[kOctets];
    memcpy(abyOctet, &dwIpv4, kOctets);
    for (const uint8_t byOctet : abyOctet) {
        szBuf = WriteOctet(szBuf, byOctet);
        *szBuf++ = '.';
    }
    szBuf[-1] = '\0';
}

// inet_pton() sets no errno for a text that is no address: the line then tells whatever failed last
// in this thread.
[[gnu::cold]] uint32_t ReadFailed(const char *szIp, const char *szOp)
{
    APP_LOG_ERRNO(errno, "[ERROR] %s: inet_pton failed %s %d %s\n", szOp, szIp);
    return APP_FAILED;
}

} // namespace

uint32_t _AppConvertStrtoNet(const char *szIp, TAppNetAddr *ptAddr)
{
    uint32_t dwIpv4 = 0;
    if (ReadQuad(szIp, &dwIpv4)) {
        ptAddr->dwType = APP_NET_ADDR_IPV4;
        ptAddr->dwIpv4 = dwIpv4;
        return APP_OK;
    }
    if (strchr(szIp, ':')) {
        ptAddr->dwType = APP_NET_ADDR_IPV6;
        // Read aside: of a text that is no address only the kind gets into the record.
        uint8_t abyIpv6[sizeof(ptAddr->abyIpv6)];
        if (inet_pton(AF_INET6, szIp, abyIpv6) != 1)
            return ReadFailed(szIp, __func__);
        memcpy(ptAddr->abyIpv6, abyIpv6, sizeof(abyIpv6));
        return APP_OK;
    }
    if (!strchr(szIp, '.'))
        return APP_INVALID_ARG;
    ptAddr->dwType = APP_NET_ADDR_IPV4;
    if (inet_pton(AF_INET, szIp, &dwIpv4) != 1)
        return ReadFailed(szIp, __func__);
    ptAddr->dwIpv4 = dwIpv4;
    return APP_OK;
}

uint32_t _AppConvertNettoStr(const TAppNetAddr *ptAddr, char *szBuf, uint32_t dwBufSize)
{
    if (ptAddr->dwType == APP_NET_ADDR_IPV4) {
        // A smaller buffer may still hold a short address: inet_ntop() knows.
        if (dwBufSize >= INET_ADDRSTRLEN) {
            WriteQuad(ptAddr->dwIpv4, szBuf);
            return APP_OK;
        }
        if (inet_ntop(AF_INET, &ptAddr->dwIpv4, szBuf, dwBufSize))
            return APP_OK;
        APP_LOG_ERRNO(errno, "[ERROR] %s: inet_ntop AF_INET failed %d %s\n", __func__);
        return APP_FAILED;
    }
    if (ptAddr->dwType != APP_NET_ADDR_IPV6)
        return APP_INVALID_ARG;
    if (inet_ntop(AF_INET6, ptAddr->abyIpv6, szBuf, dwBufSize))
        return APP_OK;
    APP_LOG_ERRNO(errno, "[ERROR] %s: inet_ntop AF_INET6 failed %d %s\n", __func__);
    return APP_FAILED;
}

uint32_t _AppConvertHtonl(uint32_t dwValue)
{
    return htonl(dwValue);
}

uint32_t _AppConvertNtohl(uint32_t dwValue)
{
    return ntohl(dwValue);
}

uint16_t _AppConvertHtons(uint16_t wValue)
{
    return htons(wValue);
}

uint16_t _AppConvertNtohs(uint16_t wValue)
{
    return ntohs(wValue);
}
