// SPDX-License-Identifier: MIT
#include "appcore/convert.h"

#include <arpa/inet.h>
#include <cmath>
#include <errno.h>
#include <iconv.h>
#include <string.h>
#include <time.h>

#include "appcore/host.h"
#include "support/expect.h"
#include "support/log_capture.h"

using test::LogCapture;
using test::Text;

namespace
{

constexpr uint32_t kUnset = 0xA5A5A5A5;

// ---- Numbers --------------------------------------------------------------------------------

constexpr int64_t kErr = 77777777777; // the flag, and 0

TEST(Number, Integers)
{
    LogCapture log;
    struct {
        const char *szText;
        int64_t s32, u32;
        uint64_t u64;
    } const rows[] = {{nullptr, 0, 0, 0},
                      {"", 0, 0, 0},
                      {"-", 0, kErr, kErr},
                      {"12abc", 12, 12, 12},
                      {" \t\n\v\f\r-7", -7, kErr, kErr},
                      {"\r+9 ", 9, 9, 9},
                      {"+-9", 0, kErr, kErr},
                      {"5-3", 5, kErr, kErr},
                      {"2147483646 ", 2147483646, 2147483646, 2147483646},
                      {"2147483647", INT32_MAX, 2147483647, 2147483647},
                      {"+2147483647", kErr, 2147483647, 2147483647},
                      {"2147483647 ", kErr, 2147483647, 2147483647},
                      {"-2147483647", -2147483647, kErr, kErr},
                      {"-2147483648", INT32_MIN, kErr, kErr},
                      {" -2147483648", kErr, kErr, kErr},
                      {"4294967294", kErr, 4294967294, 4294967294},
                      {"4294967295", kErr, 4294967295, 4294967295},
                      {"04294967295", kErr, kErr, 4294967295},
                      {"4294967296", kErr, kErr, 4294967296},
                      {"018446744073709551615x", kErr, kErr, UINT64_MAX},
                      {"18446744073709551616", kErr, kErr, kErr},
                      {"-99999999999999999999999", kErr, kErr, kErr}};
    const auto check = [](const char *szText, auto pfnConvert, auto wanted) {
        uint32_t bErr = kUnset;
        EXPECT_EQ(pfnConvert(szText, &bErr), wanted == kErr ? 0 : wanted);
        EXPECT_EQ(bErr, wanted == kErr);
        EXPECT_EQ(pfnConvert(szText, nullptr), wanted == kErr ? 0 : wanted);
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.szText ? row.szText : "(null)");
        check(row.szText, AppConvertStrtoS32, row.s32);
        check(row.szText, AppConvertStrtoU32, row.u32);
        check(row.szText, AppConvertStrtoU64, row.u64);
    }
    log.ExpectNone();
}

TEST(Number, Reals)
{
    const char *szNothing = "x", *szLarge = "-1e999";
    struct {
        const char *szText;
        double fValue;
        int nError;
    } const rows[] = {
        {"-2.25e2V", -225, 0}, {nullptr, 0, 0}, {szNothing, 0, 0}, {szLarge, -HUGE_VAL, ERANGE}};
    for (const auto &row : rows)
        for (const bool bFloat : {true, false}) {
            LogCapture log;
            const bool bBad = row.szText == szNothing || row.nError != 0;
            uint32_t bErr = kUnset;
            errno = ERANGE; // an old error must not count
            EXPECT_EQ(bFloat ? AppConvertStrtoFloat(row.szText, &bErr)
                             : AppConvertStrtoDouble(row.szText, &bErr),
                      row.fValue);
            EXPECT_EQ(bErr, bBad);
            log.ExpectLines(std::vector<std::string>(
                bBad,
                Text("[ERROR] AppConvertStrto%s: szStr %p, szEndPtr %p, errno %d, ERANGE 34\n",
                     bFloat ? "Float" : "Double", row.szText, row.szText + (row.nError ? 6 : 0),
                     row.nError)));
        }
}

// ---- Addresses ------------------------------------------------------------------------------

TAppNetAddr Ipv4(const char *szIp)
{
    TAppNetAddr addr = {};
    EXPECT_EQ(inet_pton(AF_INET, szIp, &addr.dwIpv4), 1);
    return addr;
}

TEST(NetAddr, ReadsAndWritesIntoEverySize)
{
    LogCapture log;
    std::vector<std::string> texts = {"fe80::1", "::", "::ffff:1.2.3.4", "2001:db8:1:2:3:4:5:6"};
    for (int i = 0; i < 256; ++i)
        texts.push_back(Text("%d.%d.0.%d", i, 255 - i, i));
    texts.push_back("255.255.255.255");
    for (const std::string &text : texts) {
        const bool bIpv6 = text.find(':') != std::string::npos;
        TAppNetAddr wanted = {bIpv6, {0}}, addr = {};
        ASSERT_EQ(inet_pton(bIpv6 ? AF_INET6 : AF_INET, text.c_str(), &wanted.dwIpv4), 1);
        addr.dwType = !bIpv6;
        ASSERT_CODE(APP_OK, AppConvertStrtoNet(text.c_str(), &addr));
        EXPECT_EQ(memcmp(&addr, &wanted, sizeof(addr)), 0) << text;
        for (const size_t nRoom : {size_t{64}, text.size() + 1, text.size()}) {
            char achText[65];
            achText[nRoom] = '#';
            const bool bFits = nRoom > text.size();
            EXPECT_CODE(bFits ? APP_OK : APP_FAILED,
                        AppConvertNettoStr(&addr, achText, static_cast<uint32_t>(nRoom)));
            if (bFits) {
                EXPECT_EQ(achText, text);
            }
            EXPECT_EQ(achText[nRoom], '#');
        }
        log.ExpectLines({Text("[ERROR] %s: inet_ntop %s failed %d %s\n", "_AppConvertNettoStr",
                              bIpv6 ? "AF_INET6" : "AF_INET", ENOSPC, strerror(ENOSPC))});
    }
}

TEST(NetAddr, RefusesAndKeepsTheBytes)
{
    LogCapture log;
    const TAppNetAddr before = {7, {kUnset}};
    for (const char *szIp : {"1.2.3", "1.2.3.", "1.2.3.256", "01.2.3.4", "1.2.3.4 ", " 1.2.3.4",
                             "1.2.3.4.5", "1..3.4", "a.b.c.d", "1:2::z", "12345::", "1.2.3.4:80"}) {
        TAppNetAddr addr = before;
        errno = ENOENT;
        EXPECT_CODE(APP_FAILED, AppConvertStrtoNet(szIp, &addr));
        EXPECT_EQ(addr.dwType, strchr(szIp, ':') ? 1u : 0u);
        EXPECT_EQ(addr.dwIpv4, kUnset);
        log.ExpectLines({Text("[ERROR] %s: inet_pton failed %s %d %s\n", "_AppConvertStrtoNet",
                              szIp, ENOENT, strerror(ENOENT))});
    }
    TAppNetAddr addr = before;
    for (const char *szIp : {"localhost", ""})
        EXPECT_CODE(APP_INVALID_ARG, AppConvertStrtoNet(szIp, &addr));
    EXPECT_EQ(addr.dwType, 7u);
    char achText[64];
    EXPECT_CODE(APP_INVALID_ARG, AppConvertNettoStr(&addr, achText, sizeof(achText)));
    log.ExpectNone();
}

TEST(NetAddr, Classes)
{
    for (unsigned i = 0; i < 256; ++i) {
        const EAppIpv4Class eWanted = i == 0     ? APP_IPV4_CLASS_INVALID
                                      : i == 127 ? APP_IPV4_CLASS_LOOPBACK
                                      : i < 128  ? APP_IPV4_CLASS_A
                                      : i < 192  ? APP_IPV4_CLASS_B
                                      : i < 224  ? APP_IPV4_CLASS_C
                                      : i < 240  ? APP_IPV4_CLASS_D
                                                 : APP_IPV4_CLASS_E;
        const TAppNetAddr addr = Ipv4(Text("%u.200.2.3", i).c_str()), mask = Ipv4("255.0.0.0");
        EXPECT_EQ(AppCheckIpv4Class(&addr, nullptr), eWanted) << i;
        EXPECT_EQ(AppCheckIpv4Class(&addr, &mask), eWanted) << i;
    }
    const TAppNetAddr none = Ipv4("0.0.0.0"), all = Ipv4("255.255.255.255"),
                      mask = Ipv4("255.0.0.0");
    const TAppNetAddr network = Ipv4("127.0.0.0"), host = Ipv4("9.8.7.6"),
                      broadcast = Ipv4("10.255.255.255");
    const TAppNetAddr ipv6 = {APP_NET_ADDR_IPV6, {1}};
    EXPECT_EQ(AppCheckIpv4Class(&none, nullptr), APP_IPV4_CLASS_NETWORK);
    EXPECT_EQ(AppCheckIpv4Class(&network, &mask), APP_IPV4_CLASS_NETWORK);
    EXPECT_EQ(AppCheckIpv4Class(&host, &all), APP_IPV4_CLASS_NETWORK);
    EXPECT_EQ(AppCheckIpv4Class(&all, &all), APP_IPV4_CLASS_NETWORK);
    EXPECT_EQ(AppCheckIpv4Class(&all, nullptr), APP_IPV4_CLASS_BROADCAST);
    EXPECT_EQ(AppCheckIpv4Class(&broadcast, &mask), APP_IPV4_CLASS_BROADCAST);
    EXPECT_EQ(AppCheckIpv4Class(&ipv6, nullptr), APP_IPV4_CLASS_INVALID);
    EXPECT_EQ(AppCheckIpv4Class(&host, &ipv6), APP_IPV4_CLASS_INVALID);
}

TEST(NetAddr, MasksAndPrefixes)
{
    for (int32_t nLen = -1; nLen <= 34; ++nLen) {
        TAppNetAddr mask = {APP_NET_ADDR_IPV4, {kUnset}};
        AppConvertPrefixLengthtoSubnetMask(nLen, &mask);
        const int32_t nWanted = nLen < 0 ? 0 : nLen > 32 ? 32 : nLen;
        EXPECT_EQ(AppConvertSubnetMasktoPrefixLength(&mask), nWanted);
        EXPECT_EQ(ntohl(mask.dwIpv4), nWanted == 0 ? 0 : UINT32_MAX << (32 - nWanted));
        mask.dwIpv4 ^= htonl(nWanted < 31 ? 1 : 4); // a hole or a bit behind
        EXPECT_EQ(AppConvertSubnetMasktoPrefixLength(&mask), -1) << nLen;
    }
    TAppNetAddr ipv6 = {APP_NET_ADDR_IPV6, {kUnset}};
    AppConvertPrefixLengthtoSubnetMask(24, &ipv6);
    EXPECT_EQ(ipv6.dwIpv4, kUnset);
    EXPECT_EQ(AppConvertSubnetMasktoPrefixLength(&ipv6), -1);
    EXPECT_EQ(AppConvertHtonl(0x01020304), htonl(0x01020304));
    EXPECT_EQ(AppConvertNtohl(AppConvertHtonl(5)), 5u);
    EXPECT_EQ(AppConvertNtohs(AppConvertHtons(5690)), 5690);
    EXPECT_EQ(AppConvertHtons(1), htons(1));
}

// ---- Time -----------------------------------------------------------------------------------

// timegm() on any word size, with the results beyond 32 bits marked as the library marks them.
uint32_t Oracle(const TAppTime &time)
{
    struct tm tTime = {time.bySecond,
                       time.byMinute,
                       time.byHour,
                       time.byDay,
                       time.byMonth - 1,
                       time.wYear - 1900,
                       0,
                       0,
                       0,
                       0,
                       nullptr};
    const time_t nTime = timegm(&tTime);
    return nTime < INT32_MIN || nTime > INT32_MAX ? UINT32_MAX : static_cast<uint32_t>(nTime);
}

TEST(Time, RecordsCarryOverAsTimegmDoes)
{
    const TAppTime cases[] = {{1970, 13, 1, 0, 0, 0, 999},   {2024, 2, 30, 25, 61, 61, 0},
                              {2024, 0, 0, 0, 0, 0, 0},      {2000, 255, 255, 255, 255, 255, 0},
                              {1901, 12, 13, 20, 45, 52, 0}, {1901, 12, 13, 20, 45, 51, 0},
                              {2038, 1, 19, 3, 14, 7, 0},    {2038, 1, 19, 3, 14, 8, 0},
                              {0, 1, 1, 0, 0, 0, 0},         {65535, 12, 31, 23, 59, 59, 0}};
    for (const TAppTime &time : cases)
        EXPECT_EQ(AppConvertTimeToU32(&time), Oracle(time)) << time.wYear << '-' << +time.byMonth;
}

// Number to record to number, and number to text to number, over the whole range.
TEST(Time, RoundTrips)
{
    LogCapture log;
    const uint64_t qwStride = test::Scaled(60) > 3 ? 99991 : 1999993;
    for (uint64_t qwTime = 0; qwTime <= UINT32_MAX; qwTime += qwStride) {
        const auto dwTime = static_cast<uint32_t>(qwTime);
        TAppTime time;
        ASSERT_CODE(APP_OK, AppConvertU32ToTime(dwTime, &time));
        ASSERT_EQ(AppConvertTimeToU32(&time), dwTime);
        const uint32_t dwMs = dwTime % 1000;
        const int32_t nZone = static_cast<int32_t>(dwTime % 2880) - 1440;
        char achText[32];
        uint32_t dwRead, bZone, dwReadMs;
        int32_t nReadZone = 0;
        ASSERT_CODE(APP_OK, AppConvertU322XsdDatetime(dwTime, 1, &dwMs, &nZone, achText, 30));
        ASSERT_CODE(APP_OK,
                    AppConvertXsdDatetime2U32(achText, &dwRead, &bZone, &dwReadMs, &nReadZone));
        ASSERT_EQ(dwRead, dwTime) << achText;
        ASSERT_EQ(dwReadMs, dwMs) << achText;
        ASSERT_EQ(nReadZone, nZone) << achText;
        ASSERT_EQ(bZone, 1u);
    }
    log.ExpectNone();
}

TEST(Time, ReadsDateTime)
{
    struct {
        const char *szRest;
        uint32_t bZone, dwMs;
        int32_t nZone; // 77: untouched
    } const rows[] = {
        {"T14:07:09", 0, 0, 77},
        {"T14:07:09Z", 1, 0, 77},
        {"T14:07:09.25+01:00", 1, 250, 60},
        {"T14:07:09-05:30", 1, 0, -330},
        {"T14:07:09.05Z", 1, 50, 77},
        {"T14:07:09.1239", 0, 123, 77},
        {"T14:07:09.x12", 0, 0, 77},
        {"T 14:7: 9", 0, 0, 77},
        {"T14:07:09 12.7 Z-", 1, 700, 77},
        {"T14:07:09+1:5", 1, 0, 65},
        {"T14:07:09+99:99", 1, 0, 99 * 60 + 99},
        {"T14:07:09+01:00-02:00", 1, 0, -120},
        {"T14:07:09+-1:-1", 1, 0, -(60 + 255)}}; // the '-' wins; its offset has 8 bits
    for (const auto &row : rows)
        for (const char *szDate : {"2024-03-05", " 2024- 3-5"}) {
            const std::string text = std::string(szDate) + row.szRest;
            SCOPED_TRACE(text);
            uint32_t dwTime = kUnset, bZone = kUnset, dwMs = kUnset;
            int32_t nZone = 77;
            EXPECT_CODE(APP_OK,
                        AppConvertXsdDatetime2U32(text.c_str(), &dwTime, &bZone, &dwMs, &nZone));
            EXPECT_EQ(dwTime, 1709647629u);
            EXPECT_EQ(bZone, row.bZone);
            EXPECT_EQ(dwMs, row.dwMs);
            EXPECT_EQ(nZone, row.nZone);
            EXPECT_CODE(APP_OK, AppConvertXsdDatetime2U32(text.c_str(), nullptr, nullptr, nullptr,
                                                          nullptr));
        }
    for (const char *szText :
         {"", "2024", "2024-03-05", "2024-03-05 14:07:09", "2024-03-05T14:07",
          "20245-03-05T14:07:09", "2024-03-05T14:07:09+1", "2024-03-05T14:07:09-x"}) {
        uint32_t dwOut = kUnset;
        int32_t nZone = 77;
        EXPECT_CODE(APP_INVALID_ARG,
                    AppConvertXsdDatetime2U32(szText, &dwOut, &dwOut, &dwOut, &nZone))
            << szText;
        EXPECT_TRUE(dwOut == kUnset && nZone == 77);
    }
}

TEST(Time, WritesDateTimeIntoEverySize)
{
    const uint32_t dwMs = 7, dwTooMany = 1000;
    const int32_t nZero = 0, nWest = -330, nEast = 60, nLeast = INT32_MIN;
    struct {
        uint32_t bHasZone;
        const uint32_t *pdwMs;
        const int32_t *pnZone;
        const char *szRest;
    } const rows[] = {{1, &dwMs, &nZero, ".007Z"},      {1, nullptr, nullptr, "Z"},
                      {0, nullptr, &nEast, ""},         {7, &dwMs, &nEast, ".007+01:00"},
                      {1, nullptr, &nWest, "-05:30"},   {1, nullptr, &nLeast, "-35791394:08"},
                      {1, &dwTooMany, nullptr, nullptr}};
    for (const auto &row : rows)
        for (uint32_t dwSize = 0; dwSize <= 40; ++dwSize) {
            const std::string wanted =
                std::string("1970-01-01T00:00:00") + (row.szRest ? row.szRest : "");
            char achText[41];
            memset(achText, '#', sizeof(achText));
            const uint32_t dwWanted = dwSize == 0               ? APP_INVALID_ARG
                                      : dwSize <= wanted.size() ? APP_BUFFER_TOO_SMALL
                                      : row.szRest              ? APP_OK
                                                                : APP_INVALID_ARG;
            EXPECT_CODE(dwWanted, AppConvertU322XsdDatetime(0, row.bHasZone, row.pdwMs, row.pnZone,
                                                            achText, dwSize));
            EXPECT_EQ(achText[dwSize], '#') << "written beyond " << dwSize;
            if (dwWanted == APP_OK) {
                EXPECT_EQ(wanted, achText);
            }
        }
}

// ---- Encodings ------------------------------------------------------------------------------

// Whether iconv knows an encoding: its tables are files, which an emulated system may lack.
bool Knows(const char *szEncoding)
{
    const iconv_t hConv = iconv_open(szEncoding, "UTF-8");
    if (hConv == reinterpret_cast<iconv_t>(-1))
        return false;
    iconv_close(hConv);
    return true;
}

TEST(Encoding, StandInsConvertGbkBothWays)
{
    if (!Knows("GBK") || !Knows("UTF-16LE"))
        GTEST_SKIP() << "not run: this system's iconv has no GBK";
    const uint16_t awText[] = {'A', 0x4F60, 0};
    char achBack[4];
    ASSERT_CODE(APP_OK, AppConvertUnicodetoGbk(awText, 2, achBack, 4));
    EXPECT_STREQ(achBack, "A\xC4\xE3");
    uint16_t awBack[3];
    uint32_t dwLen = 3;
    ASSERT_CODE(APP_OK, AppConvertGbktoUnicode("A\xC4\xE3", awBack, &dwLen));
    EXPECT_EQ(dwLen, 2u);
    EXPECT_EQ(memcmp(awText, awBack, sizeof(awText)), 0);
}

TEST(Encoding, StandInsConvertBothWays)
{
    if (!Knows("UTF-16LE"))
        GTEST_SKIP() << "not run: this system's iconv has no UTF-16";
    LogCapture log;
    const char *szUtf8 = "A\xE4\xBD\xA0\xF0\x9F\x93\xB7"; // 'A', one GBK character, one outside GBK
    uint16_t awText[8];
    uint32_t dwLen = 5; // 1 + 1 + 2 units and the terminator
    ASSERT_CODE(APP_OK, AppConvertUtf8toUnicode(szUtf8, awText, &dwLen));
    ASSERT_EQ(dwLen, 4u);
    EXPECT_EQ(awText[1], 0x4F60);
    EXPECT_EQ(awText[4], 0);
    char achBack[16];
    ASSERT_CODE(APP_OK, AppConvertUnicodetoUtf8(awText, 8, achBack, 9));
    EXPECT_STREQ(achBack, szUtf8);
    log.ExpectNone();

    dwLen = 4; // cut at a whole character, terminated, and a failure
    memset(awText, 0xFF, sizeof(awText));
    EXPECT_CODE(APP_FAILED, AppConvertUtf8toUnicode(szUtf8, awText, &dwLen));
    EXPECT_EQ(awText[2], 0);
    EXPECT_CODE(APP_FAILED, AppConvertGbktoUnicode("\xFF", awText, &dwLen));
    EXPECT_CODE(APP_FAILED, AppConvertUnicodetoUtf8(u"\xD800", 1, achBack, 8));
    EXPECT_CODE(APP_FAILED, AppConvertUnicodetoGbk(u"\x4F60", 1, achBack, 2));
    std::vector<std::string> lines;
    for (const char *szName : {"Utf8toUnicode", "GbktoUnicode", "UnicodetoUtf8", "UnicodetoGbk"})
        lines.push_back(
            Text("[ERROR] _AppUtilsUnicodeConvert%s: IpcConvConvert%s failed 0\n", szName, szName));
    log.ExpectLines(lines);
    dwLen = 0;
    for (auto pfnConvert : {AppConvertUtf8toUnicode, AppConvertGbktoUnicode})
        EXPECT_CODE(APP_INVALID_ARG, pfnConvert("a", awText, &dwLen));
}

} // namespace
