// SPDX-License-Identifier: MIT
#include "appcore/enum_str.h"

#include <string.h>

#include "support/expect.h"
#include "support/log_capture.h"

using test::LogCapture;
using test::Text;

namespace {

const TAppS32StrPair kDense[] = {{0, "NTSC"}, {1, "PAL"}};
const TAppS32StrPair kSparse[] = {{5, "a"}, {3, "b"}, {5, "c"}, {-2, "d"}, {9, nullptr}};

TEST(EnumStr, LooksUpBothWays) {
    LogCapture log;
    EXPECT_STREQ(AppConvEnum2Str(kDense, 2, 1), "PAL");
    EXPECT_STREQ(AppConvEnum2Str(kSparse, 5, 5), "a");
    EXPECT_STREQ(AppConvEnum2Str(kSparse, 5, -2), "d");
    EXPECT_EQ(AppFindS32StrPair_S32(kSparse, 5, 3), &kSparse[1]);
    EXPECT_EQ(AppFindS32StrPair_S32(kSparse, 5, 0), nullptr);
    EXPECT_EQ(AppFindS32StrPair_S32(kSparse, 3, -2), nullptr) << "beyond the rows given";
    EXPECT_EQ(AppFindS32StrPair_S32(nullptr, 2, 0), nullptr);
    EXPECT_EQ(AppFindS32StrPair_Str(kSparse, 5, "c"), &kSparse[2]);
    EXPECT_EQ(AppFindS32StrPair_Str(kSparse, 5, ""), &kSparse[4]) << "null equals the empty text";
    EXPECT_EQ(AppFindS32StrPair_Str(kSparse, 5, nullptr), &kSparse[4]);
    EXPECT_EQ(AppFindS32StrPair_Str(nullptr, 2, "a"), nullptr);
    int32_t nEnum = 77;
    EXPECT_CODE(APP_OK, AppConvStr2Enum(kSparse, 5, "b", &nEnum));
    EXPECT_EQ(nEnum, 3);
    EXPECT_CODE(APP_OK, AppConvStr2Enum(kSparse, 5, "b", nullptr));
    log.ExpectNone();

    EXPECT_STREQ(AppConvEnum2Str(kDense, 2, 2), "unknown_enum");
    EXPECT_STREQ(AppConvEnum2Str(kSparse, 5, 9), "unknown_enum");
    EXPECT_CODE(APP_BAD_VALUE, AppConvStr2Enum(kDense, 2, "pal", &nEnum));
    EXPECT_EQ(nEnum, 3);
    log.ExpectLines({Text("[ERROR] %s: AppFindS32StrPair_S32() failed, {%d}\n", "AppConvEnum2Str", 2),
                     Text("[ERROR] %s: AppFindS32StrPair_S32() failed, {%d}\n", "AppConvEnum2Str", 9),
                     Text("[ERROR] %s: _CgiAppFindS32StrPair_Str() failed, {%s}\n", "AppConvStr2Enum", "pal")});
}

// The three builders differ in the flags' type and one DEBUG line.
template <typename Flag>
void CheckBuilder(uint32_t (*pfnMake)(const TAppS32StrPair *, uint32_t, const Flag *, int32_t, char *, uint32_t),
                  const char *szOp) {
    LogCapture log;
    const Flag both[] = {1, 2, 0};
    const Flag beyond[] = {0, 0, 1};
    char achText[16];
    const struct {
        const Flag *ptFlags;
        int32_t nLen;
        uint32_t dwSize;
        const char *szText;
    } cases[] = {{both, 3, 16, "NTSC,PAL"}, {both, 3, 9, "NTSC,PAL"}, {both, 3, 8, "NTSC,PA"}, {both, 3, 6, "NTSC,"},
                 {both, 3, 5, "NTSC"},      {both, 3, 1, ""},         {beyond, 2, 16, ""},     {both, -1, 16, ""}};
    for (const auto &row : cases) {
        memset(achText, '#', sizeof(achText));
        EXPECT_CODE(APP_OK, pfnMake(kDense, 2, row.ptFlags, row.nLen, achText, row.dwSize));
        EXPECT_STREQ(achText, row.szText);
        for (uint32_t i = row.dwSize; i < sizeof(achText); ++i) EXPECT_EQ(achText[i], '#');
    }
    log.ExpectNone();
    EXPECT_CODE(APP_OK, pfnMake(kDense, 2, beyond, 3, achText, 16));
    EXPECT_STREQ(achText, "unknown_enum");
    log.ExpectLines({Text("[ERROR] %s: AppFindS32StrPair_S32() failed, {%d}\n", "AppConvEnum2Str", 2)});

    achText[0] = '#';
    EXPECT_CODE(APP_INVALID_ARG, pfnMake(kDense, 0, both, 0, achText, 0));
    EXPECT_CODE(APP_INVALID_ARG, pfnMake(kDense, 2, both, 0, achText, 0));
    EXPECT_CODE(APP_INVALID_ARG, pfnMake(kDense, 2, both, 3, achText, 0));
    EXPECT_EQ(achText[0], '#');
    log.ExpectLines({Text("[ERROR] %s: dwArrSize zero\n", szOp), Text("[ERROR] %s: nCapArrLen zero\n", szOp),
                     Text("[ERROR] %s: dwDstBufSize zero\n", szOp)});
}

TEST(EnumStr, BuildsCapabilityStrings) {
    CheckBuilder<uint8_t>(AppMakeCapStr_u8, "AppMakeCapStr_u8");
    CheckBuilder<uint32_t>(AppMakeCapStr_u32, "AppMakeCapStr_u32");
    CheckBuilder<uint32_t>(AppMakeCapStr_Bool, "AppMakeCapStr_Bool");
    LogCapture log(APP_LOG_DEBUG);
    const uint32_t adwFlags[] = {1, 1};
    char achText[16];
    EXPECT_CODE(APP_OK, AppMakeCapStr_u32(kDense, 2, adwFlags, 2, achText, 16));
    log.ExpectLines(
        {Text("[DEBUG] %s: szDstBuf{%s}, szStr %p, size %lu\n", "AppMakeCapStr_u32", "", kDense[0].szStr, 16ul),
         Text("[DEBUG] %s: szDstBuf{%s}, szStr %p, size %lu\n", "AppMakeCapStr_u32", "NTSC,", kDense[1].szStr, 16ul)});
}

} // namespace
