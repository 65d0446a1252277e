// SPDX-License-Identifier: MIT
//
// What the oracles of number_fuzz, address_fuzz, datetime_fuzz and encoding_fuzz do not show: what
// is named when the system fails, and that what fails is a text all the same.
#include "appcore/convert.h"

#include <errno.h>
#include <string.h>

#include <functional>

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
