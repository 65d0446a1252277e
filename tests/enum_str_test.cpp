// SPDX-License-Identifier: MIT
#include "appcore/enum_str.h"

#include "support/expect.h"
#include "support/log_capture.h"

using test::LogCapture;
using test::Text;

namespace
{

const TAppS32StrPair kDense[] = {{0, "NTSC"}, {1, "PAL"}};
const TAppS32StrPair kSparse[] = {{5, "a"}, {3, "b"}, {5, "c"}, {-2, "d"}, {9, nullptr}};

TEST(EnumStr, LooksUpBothWays)
{
    LogCapture log;
    EXPECT_STREQ(AppConvEnum2Str(kDense, 2, 1), "PAL");
    EXPECT_STREQ(AppConvEnum2Str(kSparse, 5, 5), "a");
    EXPECT_EQ(AppFindS32StrPair_S32(kSparse, 5, 0), nullptr);
    EXPECT_EQ(AppFindS32StrPair_S32(kSparse, 4, -2), &kSparse[3]);
    EXPECT_EQ(AppFindS32StrPair_S32(kSparse, 3, -2), nullptr) << "beyond the rows given";
    EXPECT_EQ(AppFindS32StrPair_S32(nullptr, 2, 0), nullptr);
    EXPECT_EQ(AppFindS32StrPair_Str(kSparse, 3, "c"), &kSparse[2]);
    EXPECT_EQ(AppFindS32StrPair_Str(kSparse, 5, ""), &kSparse[4]) << "null equals the empty text";
    EXPECT_EQ(AppFindS32StrPair_Str(nullptr, 2, "a"), nullptr);
    int32_t nEnum = 77;
    EXPECT_CODE(APP_OK, AppConvStr2Enum(kSparse, 5, "b", &nEnum));
    EXPECT_CODE(APP_OK, AppConvStr2Enum(kSparse, 5, nullptr, nullptr));
    log.ExpectNone();

    EXPECT_STREQ(AppConvEnum2Str(kSparse, 5, 9), "unknown_enum");
    EXPECT_CODE(APP_BAD_VALUE, AppConvStr2Enum(kDense, 2, "pal", &nEnum));
    EXPECT_EQ(nEnum, 3);
    log.ExpectLines({"[ERROR] AppConvEnum2Str: AppFindS32StrPair_S32() failed, {9}\n",
                     "[ERROR] AppConvStr2Enum: _CgiAppFindS32StrPair_Str() failed, {pal}\n"});
}

// The three builders differ in the flags' type and one DEBUG line.
template <typename Flag>
void CheckBuilder(uint32_t (*pfnMake)(const TAppS32StrPair *, uint32_t, const Flag *, int32_t,
                                      char *, uint32_t),
                  const char *szOp)
{
    LogCapture log;
    const Flag aFlags[] = {1, 2, 0, 0}, aBeyond[] = {0, 0, 1};
    char achText[17];
    for (uint32_t dwSize = 1; dwSize <= 16; ++dwSize)
        for (const int32_t nLen : {-1, 1, 4}) {
            achText[dwSize] = '#';
            EXPECT_CODE(APP_OK, pfnMake(kDense, 2, aFlags, nLen, achText, dwSize));
            EXPECT_EQ(achText, std::string(nLen < 0    ? ""
                                           : nLen == 1 ? "NTSC"
                                                       : "NTSC,PAL")
                                   .substr(0, dwSize - 1));
            EXPECT_EQ(achText[dwSize], '#');
        }
    EXPECT_CODE(APP_OK, pfnMake(kDense, 2, aBeyond, 2, achText, 16));
    EXPECT_STREQ(achText, "");
    log.ExpectNone();
    EXPECT_CODE(APP_OK, pfnMake(kDense, 2, aBeyond, 3, achText, 16));
    EXPECT_STREQ(achText, "unknown_enum");
    log.Clear();

    EXPECT_CODE(APP_INVALID_ARG, pfnMake(kDense, 0, aFlags, 0, achText, 0));
    EXPECT_CODE(APP_INVALID_ARG, pfnMake(kDense, 2, aFlags, 0, achText, 0));
    EXPECT_CODE(APP_INVALID_ARG, pfnMake(kDense, 2, aFlags, 3, achText, 0));
    EXPECT_EQ(achText[0], 'u');
    log.ExpectLines({Text("[ERROR] %s: dwArrSize zero\n", szOp),
                     Text("[ERROR] %s: nCapArrLen zero\n", szOp),
                     Text("[ERROR] %s: dwDstBufSize zero\n", szOp)});
}

TEST(EnumStr, BuildsCapabilityStrings)
{
    CheckBuilder<uint8_t>(AppMakeCapStr_u8, "AppMakeCapStr_u8");
    CheckBuilder<uint32_t>(AppMakeCapStr_u32, "AppMakeCapStr_u32");
    CheckBuilder<uint32_t>(AppMakeCapStr_Bool, "AppMakeCapStr_Bool");
    LogCapture log(APP_LOG_DEBUG);
    const uint32_t adwFlags[] = {0, 1};
    char achText[16];
    EXPECT_CODE(APP_OK, AppMakeCapStr_u32(kDense, 2, adwFlags, 2, achText, 16));
    log.ExpectLines(
        {Text("[DEBUG] AppMakeCapStr_u32: szDstBuf{}, szStr %p, size 16\n", kDense[1].szStr)});
}

} // namespace
