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

namespace {

constexpr uint32_t kUnset = 0xA5A5A5A5;

// ---- Numbers --------------------------------------------------------------------------------

template <typename Value>
struct TNumberCase {
    const char *szText;
    Value value;
    uint32_t bErr;
};

template <typename Value, size_t N>
void CheckNumbers(Value (*pfnConvert)(const char *, uint32_t *), const TNumberCase<Value> (&cases)[N]) {
    LogCapture log;
    for (const auto &row : cases) {
        SCOPED_TRACE(row.szText ? row.szText : "(null)");
        uint32_t bErr = kUnset;
        errno = ERANGE; // an old error must not count
        EXPECT_EQ(pfnConvert(row.szText, &bErr), row.value);
        EXPECT_EQ(bErr, row.bErr);
        EXPECT_EQ(pfnConvert(row.szText, nullptr), row.value);
    }
    log.ExpectNone();
}

TEST(Number, Signed32) {
    CheckNumbers<int32_t>(AppConvertStrtoS32, {{nullptr, 0, 0},
                                               {"", 0, 0},
                                               {"abc", 0, 0},
                                               {"-", 0, 0},
                                               {"12abc", 12, 0},
                                               {" \t\n\v\f\r-7", -7, 0},
                                               {"+9", 9, 0},
                                               {"+-9", 0, 0},
                                               {"2147483646 ", 2147483646, 0},
                                               {"2147483647", INT32_MAX, 0},
                                               {" 2147483647", 0, 1},
                                               {"+2147483647", 0, 1},
                                               {"2147483647 ", 0, 1},
                                               {"02147483647", 0, 1},
                                               {"2147483648", 0, 1},
                                               {"-2147483647", -2147483647, 0},
                                               {"-2147483648", INT32_MIN, 0},
                                               {" -2147483648", 0, 1},
                                               {"-2147483649", 0, 1},
                                               {"4294967296", 0, 1},
                                               {"99999999999999999999999", 0, 1},
                                               {"-99999999999999999999999", 0, 1}});
}

TEST(Number, Unsigned) {
    CheckNumbers<uint32_t>(AppConvertStrtoU32, {{nullptr, 0, 0},
                                                {"", 0, 0},
                                                {"x", 0, 0},
                                                {" +5V", 5, 0},
                                                {"-0", 0, 1},
                                                {"5-3", 0, 1},
                                                {"1-", 0, 1},
                                                {"4294967294", 4294967294u, 0},
                                                {"4294967295", 4294967295u, 0},
                                                {"04294967295", 0, 1},
                                                {"4294967296", 0, 1},
                                                {"18446744073709551616", 0, 1}});
    CheckNumbers<uint64_t>(AppConvertStrtoU64, {{nullptr, 0, 0},
                                                {"", 0, 0},
                                                {"-1", 0, 1},
                                                {"7-", 0, 1},
                                                {" +12 ", 12, 0},
                                                {"4294967296", 4294967296u, 0},
                                                {"18446744073709551615", UINT64_MAX, 0},
                                                {"018446744073709551615x", UINT64_MAX, 0},
                                                {"18446744073709551616", 0, 1},
                                                {"99999999999999999999", 0, 1}});
}

TEST(Number, Reals) {
    LogCapture log;
    uint32_t bErr = kUnset;
    EXPECT_EQ(AppConvertStrtoFloat("1.5V", &bErr), 1.5f);
    EXPECT_EQ(bErr, 0u);
    EXPECT_EQ(AppConvertStrtoDouble("-2.25e2", &bErr), -225.0);
    EXPECT_EQ(bErr, 0u);
    EXPECT_EQ(AppConvertStrtoDouble(nullptr, &bErr), 0.0);
    EXPECT_EQ(bErr, 0u);
    log.ExpectNone();

    const char *szNothing = "x";
    EXPECT_EQ(AppConvertStrtoDouble(szNothing, &bErr), 0.0);
    EXPECT_EQ(bErr, 1u);
    log.ExpectLines({Text("[ERROR] %s: szStr %p, szEndPtr %p, errno %d, ERANGE %d\n", "AppConvertStrtoDouble",
                          szNothing, szNothing, 0, 34)});
    const char *szLarge = "-1e999";
    EXPECT_EQ(AppConvertStrtoFloat(szLarge, &bErr), -HUGE_VALF);
    EXPECT_EQ(bErr, 1u);
    log.ExpectLines({Text("[ERROR] %s: szStr %p, szEndPtr %p, errno %d, ERANGE %d\n", "AppConvertStrtoFloat", szLarge,
                          szLarge + 6, 34, 34)});
    EXPECT_EQ(AppConvertStrtoDouble("1e-999", nullptr), 0.0);
    EXPECT_EQ(log.Lines().size(), 1u);
}

// ---- Addresses ------------------------------------------------------------------------------

TAppNetAddr Ipv4(const char *szIp) {
    TAppNetAddr addr = {};
    EXPECT_EQ(inet_pton(AF_INET, szIp, &addr.dwIpv4), 1);
    return addr;
}

TEST(NetAddr, Reads) {
    LogCapture log;
    TAppNetAddr addr;
    for (const char *szIp : {"192.168.1.10", "0.0.0.0", "255.255.255.255", "1.20.3.199"}) {
        ASSERT_CODE(APP_OK, AppConvertStrtoNet(szIp, &addr));
        EXPECT_EQ(addr.dwType, 0u);
        EXPECT_EQ(addr.dwIpv4, Ipv4(szIp).dwIpv4) << szIp;
    }
    for (const char *szIp : {"fe80::1", "::", "::ffff:1.2.3.4", "2001:db8:1:2:3:4:5:6"}) {
        uint8_t abyWanted[16];
        ASSERT_EQ(inet_pton(AF_INET6, szIp, abyWanted), 1);
        ASSERT_CODE(APP_OK, AppConvertStrtoNet(szIp, &addr));
        EXPECT_EQ(addr.dwType, 1u);
        EXPECT_EQ(memcmp(addr.abyIpv6, abyWanted, 16), 0) << szIp;
    }
    log.ExpectNone();
}

TEST(NetAddr, RefusesAndKeepsTheBytes) {
    LogCapture log;
    const TAppNetAddr before = {7, {kUnset}};
    for (const char *szIp : {"1.2.3", "1.2.3.", "1.2.3.256", "01.2.3.4", "1.2.3.4 ", " 1.2.3.4", "1.2.3.4.5", "1..3.4",
                             "a.b.c.d", ":", "12345::", "1.2.3.4:80"}) {
        TAppNetAddr addr = before;
        errno = ENOENT;
        EXPECT_CODE(APP_FAILED, AppConvertStrtoNet(szIp, &addr));
        EXPECT_EQ(addr.dwType, strchr(szIp, ':') ? 1u : 0u);
        EXPECT_EQ(addr.dwIpv4, kUnset);
        log.ExpectLines(
            {Text("[ERROR] %s: inet_pton failed %s %d %s\n", "_AppConvertStrtoNet", szIp, ENOENT, strerror(ENOENT))});
    }
    TAppNetAddr addr = before;
    for (const char *szIp : {"localhost", "", static_cast<const char *>(nullptr)})
        EXPECT_CODE(APP_INVALID_ARG, AppConvertStrtoNet(szIp, &addr));
    EXPECT_EQ(addr.dwType, 7u);
    log.ExpectNone();
}

TEST(NetAddr, Writes) {
    LogCapture log;
    char achText[64];
    for (const char *szIp :
         {"10.0.0.1", "255.255.255.255", "0.0.0.0", "100.99.9.1", "2001:db8:1:2:3:4:5:6", "::1", "fe80::"}) {
        TAppNetAddr addr;
        ASSERT_CODE(APP_OK, AppConvertStrtoNet(szIp, &addr));
        const auto dwExact = static_cast<uint32_t>(strlen(szIp) + 1);
        for (const uint32_t dwSize : {uint32_t{sizeof(achText)}, dwExact}) {
            ASSERT_CODE(APP_OK, AppConvertNettoStr(&addr, achText, dwSize));
            EXPECT_STREQ(achText, szIp);
        }
        EXPECT_CODE(APP_FAILED, AppConvertNettoStr(&addr, achText, dwExact - 1));
        log.ExpectLines({Text("[ERROR] %s: inet_ntop %s failed %d %s\n", "_AppConvertNettoStr",
                              addr.dwType ? "AF_INET6" : "AF_INET", ENOSPC, strerror(ENOSPC))});
    }
    TAppNetAddr addr = {2, {0}};
    EXPECT_CODE(APP_INVALID_ARG, AppConvertNettoStr(&addr, achText, sizeof(achText)));
    log.ExpectNone();
}

TEST(NetAddr, Classes) {
    const struct {
        const char *szIp;
        const char *szMask;
        EAppIpv4Class eClass;
    } cases[] = {{"0.0.0.0", nullptr, APP_IPV4_CLASS_NETWORK},
                 {"10.0.0.0", "255.0.0.0", APP_IPV4_CLASS_NETWORK},
                 {"127.0.0.0", "255.0.0.0", APP_IPV4_CLASS_NETWORK},
                 {"9.8.7.6", "255.255.255.255", APP_IPV4_CLASS_NETWORK},
                 {"255.255.255.255", nullptr, APP_IPV4_CLASS_BROADCAST},
                 {"255.255.255.255", "255.255.255.255", APP_IPV4_CLASS_NETWORK},
                 {"10.255.255.255", "255.0.0.0", APP_IPV4_CLASS_BROADCAST},
                 {"10.1.2.3", "255.0.0.0", APP_IPV4_CLASS_A},
                 {"127.0.0.1", nullptr, APP_IPV4_CLASS_LOOPBACK},
                 {"240.0.0.1", nullptr, APP_IPV4_CLASS_E},
                 {"239.255.255.250", nullptr, APP_IPV4_CLASS_D},
                 {"224.0.0.1", nullptr, APP_IPV4_CLASS_D},
                 {"223.1.1.1", nullptr, APP_IPV4_CLASS_C},
                 {"192.0.0.1", nullptr, APP_IPV4_CLASS_C},
                 {"191.0.0.1", nullptr, APP_IPV4_CLASS_B},
                 {"128.0.0.1", nullptr, APP_IPV4_CLASS_B},
                 {"126.0.0.1", nullptr, APP_IPV4_CLASS_A},
                 {"1.0.0.0", nullptr, APP_IPV4_CLASS_A},
                 {"0.1.2.3", nullptr, APP_IPV4_CLASS_INVALID}};
    for (const auto &row : cases) {
        const TAppNetAddr addr = Ipv4(row.szIp);
        const TAppNetAddr mask = Ipv4(row.szMask ? row.szMask : "0.0.0.0");
        EXPECT_EQ(AppCheckIpv4Class(&addr, row.szMask ? &mask : nullptr), row.eClass) << row.szIp;
    }
    const TAppNetAddr ipv4 = Ipv4("1.2.3.4");
    const TAppNetAddr ipv6 = {APP_NET_ADDR_IPV6, {1}};
    EXPECT_EQ(AppCheckIpv4Class(&ipv6, nullptr), APP_IPV4_CLASS_INVALID);
    EXPECT_EQ(AppCheckIpv4Class(&ipv4, &ipv6), APP_IPV4_CLASS_INVALID);
}

TEST(NetAddr, MasksAndPrefixes) {
    for (int32_t nLen = -1; nLen <= 34; ++nLen) {
        TAppNetAddr mask = {APP_NET_ADDR_IPV4, {kUnset}};
        AppConvertPrefixLengthtoSubnetMask(nLen, &mask);
        const int32_t nWanted = nLen < 0 ? 0 : nLen > 32 ? 32 : nLen;
        EXPECT_EQ(AppConvertSubnetMasktoPrefixLength(&mask), nWanted);
        EXPECT_EQ(ntohl(mask.dwIpv4), nWanted == 0 ? 0 : UINT32_MAX << (32 - nWanted));
    }
    for (const char *szMask : {"255.255.0.255", "0.0.0.1", "127.0.0.0", "255.255.255.253"}) {
        const TAppNetAddr mask = Ipv4(szMask);
        EXPECT_EQ(AppConvertSubnetMasktoPrefixLength(&mask), -1) << szMask;
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
uint32_t Oracle(const TAppTime &time) {
    struct tm tTime = {};
    tTime.tm_year = time.wYear - 1900;
    tTime.tm_mon = time.byMonth - 1;
    tTime.tm_mday = time.byDay;
    tTime.tm_hour = time.byHour;
    tTime.tm_min = time.byMinute;
    tTime.tm_sec = time.bySecond;
    const time_t nTime = timegm(&tTime);
    return nTime < INT32_MIN || nTime > INT32_MAX ? UINT32_MAX : static_cast<uint32_t>(nTime);
}

TEST(Time, RecordsCarryOverAsTimegmDoes) {
    const TAppTime cases[] = {{1970, 1, 1, 0, 0, 0, 999},         {1970, 13, 1, 0, 0, 0, 0},
                              {2024, 2, 30, 25, 61, 61, 0},       {2024, 0, 0, 0, 0, 0, 0},
                              {2000, 255, 255, 255, 255, 255, 0}, {1901, 12, 13, 20, 45, 52, 0},
                              {1901, 12, 13, 20, 45, 51, 0},      {2038, 1, 19, 3, 14, 7, 0},
                              {2038, 1, 19, 3, 14, 8, 0},         {0, 1, 1, 0, 0, 0, 0},
                              {65535, 12, 31, 0, 0, 0, 0},        {1969, 12, 31, 23, 59, 59, 0},
                              {1900, 3, 1, 0, 0, 0, 0},           {2100, 3, 1, 0, 0, 0, 0}};
    for (const TAppTime &time : cases)
        EXPECT_EQ(AppConvertTimeToU32(&time), Oracle(time)) << time.wYear << '-' << +time.byMonth;
}

// Number to record to number, and number to text to number, over the whole range.
TEST(Time, RoundTrips) {
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
        ASSERT_CODE(APP_OK, AppConvertXsdDatetime2U32(achText, &dwRead, &bZone, &dwReadMs, &nReadZone));
        ASSERT_EQ(dwRead, dwTime) << achText;
        ASSERT_EQ(dwReadMs, dwMs) << achText;
        ASSERT_EQ(nReadZone, nZone) << achText;
        ASSERT_EQ(bZone, 1u);
    }
    log.ExpectNone();
}

TEST(Time, ReadsDateTime) {
    const struct {
        const char *szText;
        uint32_t dwTime;
        uint32_t bZone;
        uint32_t dwMs;
        int32_t nZone; // 77: untouched
    } cases[] = {{"1970-01-01T00:00:00Z", 0, 1, 0, 77},
                 {"2024-03-05T14:07:09.25+01:00", 1709647629, 1, 250, 60},
                 {"2024-03-05T14:07:09-05:30", 1709647629, 1, 0, -330},
                 {"2024-03-05T14:07:09", 1709647629, 0, 0, 77},
                 {"2024-03-05T14:07:09.5", 1709647629, 0, 500, 77},
                 {"2024-03-05T14:07:09.05Z", 1709647629, 1, 50, 77},
                 {"2024-03-05T14:07:09.1239", 1709647629, 0, 123, 77},
                 {"2024-03-05T14:07:09.", 1709647629, 0, 0, 77},
                 {"2024-03-05T14:07:09.x12", 1709647629, 0, 0, 77},
                 {"2024-3-5T14:7:9", 1709647629, 0, 0, 77},
                 {" 2024- 3- 5T 14:7: 9", 1709647629, 0, 0, 77},
                 {"2024-03-05T14:07:09 12.7 Z-", 1709647629, 1, 700, 77},
                 {"2024-03-05T14:07:09+1:5", 1709647629, 1, 0, 65},
                 {"2024-03-05T14:07:09+99:99", 1709647629, 1, 0, 99 * 60 + 99},
                 {"2024-03-05T14:07:09+-1:-1", 1709647629, 1, 0, 77}, // see below
                 {"2024-03-05T14:07:09+01:00-02:00", 1709647629, 1, 0, -120}};
    for (const auto &row : cases) {
        SCOPED_TRACE(row.szText);
        uint32_t dwTime = kUnset, bZone = kUnset, dwMs = kUnset;
        int32_t nZone = 77;
        const uint32_t dwResult = AppConvertXsdDatetime2U32(row.szText, &dwTime, &bZone, &dwMs, &nZone);
        if (strstr(row.szText, "+-")) { // the '-' wins and "-1:-1" is its offset, in 8 bits
            EXPECT_CODE(APP_OK, dwResult);
            EXPECT_EQ(nZone, -(1 * 60 + 255));
            continue;
        }
        EXPECT_CODE(APP_OK, dwResult);
        EXPECT_EQ(dwTime, row.dwTime);
        EXPECT_EQ(bZone, row.bZone);
        EXPECT_EQ(dwMs, row.dwMs);
        EXPECT_EQ(nZone, row.nZone);
        EXPECT_CODE(APP_OK, AppConvertXsdDatetime2U32(row.szText, nullptr, nullptr, nullptr, nullptr));
    }
    for (const char *szText :
         {static_cast<const char *>(nullptr), "", "2024", "2024-03-05", "2024-03-05 14:07:09", "2024-03-05T14:07",
          "20245-03-05T14:07:09", "2024-03-05T14:07:09+1", "2024-03-05T14:07:09-x", "2024-03-05T14:07:09+01"}) {
        SCOPED_TRACE(szText ? szText : "(null)");
        uint32_t adwOut[3] = {kUnset, kUnset, kUnset};
        int32_t nZone = 77;
        EXPECT_CODE(APP_INVALID_ARG, AppConvertXsdDatetime2U32(szText, &adwOut[0], &adwOut[1], &adwOut[2], &nZone));
        EXPECT_EQ(adwOut[0] & adwOut[1] & adwOut[2], kUnset);
        EXPECT_EQ(nZone, 77);
    }
}

TEST(Time, WritesDateTimeIntoEverySize) {
    const uint32_t dwMs = 7;
    const int32_t nZero = 0, nWest = -330, nEast = 60, nLeast = INT32_MIN;
    const struct {
        uint32_t bHasZone;
        const uint32_t *pdwMs;
        const int32_t *pnZone;
        const char *szText;
    } cases[] = {
        {1, &dwMs, &nZero, "1970-01-01T00:00:00.007Z"},    {1, nullptr, nullptr, "1970-01-01T00:00:00Z"},
        {0, nullptr, &nEast, "1970-01-01T00:00:00"},       {7, &dwMs, &nEast, "1970-01-01T00:00:00.007+01:00"},
        {1, nullptr, &nWest, "1970-01-01T00:00:00-05:30"}, {1, nullptr, &nLeast, "1970-01-01T00:00:00-35791394:08"}};
    for (const auto &row : cases) {
        const std::string wanted = row.szText;
        for (uint32_t dwSize = 0; dwSize <= 40; ++dwSize) {
            char achText[41];
            memset(achText, '#', sizeof(achText));
            const uint32_t dwResult =
                AppConvertU322XsdDatetime(0, row.bHasZone, row.pdwMs, row.pnZone, achText, dwSize);
            EXPECT_EQ(achText[dwSize], '#') << "written beyond " << dwSize;
            if (dwSize == 0) {
                EXPECT_CODE(APP_INVALID_ARG, dwResult);
            } else if (dwSize <= wanted.size()) {
                EXPECT_CODE(APP_BUFFER_TOO_SMALL, dwResult);
            } else {
                EXPECT_CODE(APP_OK, dwResult);
                EXPECT_EQ(wanted, achText);
            }
        }
    }
    char achText[40];
    const uint32_t dwTooMany = 1000;
    EXPECT_CODE(APP_INVALID_ARG, AppConvertU322XsdDatetime(0, 1, &dwTooMany, nullptr, achText, sizeof(achText)));
    EXPECT_CODE(APP_BUFFER_TOO_SMALL, AppConvertU322XsdDatetime(0, 1, &dwTooMany, nullptr, achText, 10));
}

// ---- Encodings ------------------------------------------------------------------------------

// Whether iconv knows an encoding: its tables are files, which an emulated system may lack.
bool Knows(const char *szEncoding) {
    const iconv_t hConv = iconv_open(szEncoding, "UTF-8");
    if (hConv == reinterpret_cast<iconv_t>(-1)) return false;
    iconv_close(hConv);
    return true;
}

TEST(Encoding, StandInsConvertGbkBothWays) {
    if (!Knows("GBK") || !Knows("UTF-16LE")) GTEST_SKIP() << "not run: this system's iconv has no GBK";
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

TEST(Encoding, StandInsConvertBothWays) {
    if (!Knows("UTF-16LE")) GTEST_SKIP() << "not run: this system's iconv has no UTF-16";
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
    dwLen = 8;
    EXPECT_CODE(APP_FAILED, AppConvertGbktoUnicode("\xFF", awText, &dwLen));
    EXPECT_CODE(APP_FAILED, AppConvertUnicodetoUtf8(u"\xD800", 1, achBack, 8));
    EXPECT_CODE(APP_FAILED, AppConvertUnicodetoGbk(u"\x4F60", 1, achBack, 2));
    log.ExpectLines(
        {Text("[ERROR] %s: IpcConvConvertUtf8toUnicode failed %d\n", "_AppUtilsUnicodeConvertUtf8toUnicode", 0),
         Text("[ERROR] %s: IpcConvConvertGbktoUnicode failed %d\n", "_AppUtilsUnicodeConvertGbktoUnicode", 0),
         Text("[ERROR] %s: IpcConvConvertUnicodetoUtf8 failed %d\n", "_AppUtilsUnicodeConvertUnicodetoUtf8", 0),
         Text("[ERROR] %s: IpcConvConvertUnicodetoGbk failed %d\n", "_AppUtilsUnicodeConvertUnicodetoGbk", 0)});
}

TEST(Encoding, RefusesNoRoom) {
    uint16_t awText[4];
    uint32_t dwZero = 0;
    for (auto pfnConvert : {AppConvertUtf8toUnicode, AppConvertGbktoUnicode})
        EXPECT_CODE(APP_INVALID_ARG, pfnConvert("a", awText, &dwZero));
}

} // namespace
