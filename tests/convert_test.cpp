// SPDX-License-Identifier: MIT
//
// What the oracles of number_fuzz, address_fuzz, datetime_fuzz and encoding_fuzz do not show: what
// is named when the system fails, and the form that the stand-ins of the encodings agree on.
#include "appcore/convert.h"

#include <errno.h>
#include <iconv.h>
#include <string.h>

#include <functional>

#include "appcore/host.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using test::LogCapture;
using test::Text;

TEST(NetAddr, NamesTheCause)
{
    LogCapture log;
    TAppNetAddr addr = {};
    char achText[8];
    errno = ENOENT;
    EXPECT_CODE(APP_FAILED, AppConvertStrtoNet("1.2.3.256", &addr));
    addr.dwIpv4 = UINT32_MAX;
    for (addr.dwType = 0; addr.dwType < 2; ++addr.dwType)
        EXPECT_CODE(APP_FAILED, AppConvertNettoStr(&addr, achText, 8));
    log.ExpectLines({Text("[ERROR] _AppConvertStrtoNet: inet_pton failed 1.2.3.256 %d %s\n", ENOENT,
                          strerror(ENOENT)),
                     Text("[ERROR] _AppConvertNettoStr: inet_ntop AF_INET failed %d %s\n", ENOSPC,
                          strerror(ENOSPC)),
                     Text("[ERROR] _AppConvertNettoStr: inet_ntop AF_INET6 failed %d %s\n", ENOSPC,
                          strerror(ENOSPC))});
}

// Whether iconv knows an encoding: its tables are files, which an emulated system may lack.
static bool Knows(const char *szEncoding)
{
    const iconv_t hConv = iconv_open(szEncoding, "UTF-8");
    if (hConv == reinterpret_cast<iconv_t>(-1))
        return false;
    iconv_close(hConv);
    return true;
}

TEST(Encoding, StandInsConvertBothWays)
{
    if (!Knows("GBK") || !Knows("UTF-16LE"))
        GTEST_SKIP() << "not run: this system's iconv has no GBK";
    LogCapture log;
    const uint16_t awText[] = {'A', 0x4F60, 0}, awNone[] = {0};
    uint16_t awRead[3];
    char achRead[5];
    const struct {
        const char *szText;
        decltype(AppConvertUtf8toUnicode) *pfnTo;
        decltype(AppConvertUnicodetoUtf8) *pfnFrom;
    } rows[] = {{"A\xE4\xBD\xA0", AppConvertUtf8toUnicode, AppConvertUnicodetoUtf8},
                {"A\xC4\xE3", AppConvertGbktoUnicode, AppConvertUnicodetoGbk}};
    for (const auto &row : rows) {
        uint32_t dwLen = 3; // with the terminator
        ASSERT_CODE(APP_OK, row.pfnTo(row.szText, awRead, &dwLen));
        EXPECT_EQ(dwLen, 2u);
        EXPECT_EQ(memcmp(awText, awRead, sizeof(awText)), 0);
        ASSERT_CODE(APP_OK, row.pfnFrom(awText, 3, achRead, sizeof(achRead)));
        EXPECT_STREQ(achRead, row.szText);
        dwLen = 1; // the empty text
        EXPECT_CODE(APP_OK, row.pfnTo("", awRead, &dwLen));
        EXPECT_CODE(APP_OK, row.pfnFrom(awNone, 0, achRead, 1));
        EXPECT_TRUE(dwLen == 0 && awRead[0] == 0 && achRead[0] == 0);
    }
    log.ExpectNone();
}

TEST(Encoding, WhatFailsIsTerminated)
{
    uint16_t awRead[2];
    char achRead[2];
    uint32_t dwLen = 2;
    const std::pair<const char *, std::function<uint32_t()>> rows[] = {
        {"Utf8toUnicode", [&] { return AppConvertUtf8toUnicode("A", awRead, &dwLen); }},
        {"GbktoUnicode", [&] { return AppConvertGbktoUnicode("A", awRead, &dwLen); }},
        {"UnicodetoUtf8", [&] { return AppConvertUnicodetoUtf8(u"A", 1, achRead, 2); }},
        {"UnicodetoGbk", [&] { return AppConvertUnicodetoGbk(u"A", 1, achRead, 2); }}};
    for (const auto &[szName, convert] : rows) {
        LogCapture log;
        fault::Fail fail(fault::Fn::iconv_open, 1, EINVAL); // as where the tables are missing
        awRead[0] = 1;
        achRead[0] = 'x';
        EXPECT_CODE(APP_FAILED, convert());
        EXPECT_TRUE(awRead[0] == 0 || achRead[0] == 0);
        log.ExpectLines({Text("[ERROR] _AppUtilsUnicodeConvert%s: IpcConvConvert%s failed 0\n",
                              szName, szName)});
    }
}
