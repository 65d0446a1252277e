// SPDX-License-Identifier: MIT
#include "appcore/appcore.h"

#include <stdlib.h>

#include <memory>

#include "support/expect.h"
#include "support/log_capture.h"
#include "utils/log.h"

using test::LogCapture;
using test::StdoutCapture;
using test::Text;

// ---- Logging --------------------------------------------------------------------------------

TEST(Log, ThresholdsDecideWhoSeesALine)
{
    LogCapture log;
    for (const uint8_t byChannel : {0, 5})
        for (const uint8_t bySet : {0, 15, 16, 240, 254, 255})
            for (const uint8_t byLevel : {0, 15, 16, 17, 240, 241, 255}) {
                SCOPED_TRACE(Text("channel %d set %d level %d", byChannel, bySet, byLevel));
                g_byAppLogLevel[byChannel].store(APP_LOG_INFO);
                AppSetLogLevel(byChannel, bySet);
                AppLog(byChannel, byLevel, "%s-%d", "text", 7);
                const int nThreshold =
                    byChannel == 0 && bySet < 16 ? int{APP_LOG_INFO} : int{bySet};
                log.ExpectLines(std::vector<std::string>(byLevel <= nThreshold, "text-7"));
            }
    AppLog(0, APP_LOG_ALWAYS, nullptr);
    log.ExpectNone();
}

TEST(Log, StandardOutputOnlyForExactlyOne)
{
    LogCapture log;
    StdoutCapture output;
    for (const uint32_t bViaStdout : {0u, 1u, 2u}) {
        AppSetLogViaStdout(9, bViaStdout);
        EXPECT_EQ(g_bAppLogViaStdout[9].load(), bViaStdout);
        AppLog(9, APP_LOG_ALWAYS, "switch %u\n", bViaStdout);
        AppLogFile(9, APP_LOG_ALWAYS, "to no file\n");
    }
    EXPECT_EQ(output.End(), "switch 1\n");
    log.ExpectLines({"switch 0\n", "switch 1\n", "switch 2\n"});
}

TEST(Log, LongMessagesAreCutButKeepTheirNewline)
{
    LogCapture log;
    for (const size_t nLen : {5118u, 5119u, 5120u, 5121u, 9000u}) {
        const std::string text(nLen, 'x');
        AppLog(0, APP_LOG_ERROR, "%s", text.c_str());
        log.ExpectLines({nLen <= 5119 ? text : std::string(5118, 'x') + "\n"});
    }
}

TEST(Log, GeneratedChannelsStartFresh)
{
    g_byAppLogNextChannel.store(1);
    for (int i = 1; i <= 255; ++i) {
        EXPECT_EQ(AppGenerateLogChannel(), i);
        AppSetLogLevel(static_cast<uint8_t>(i), 3);
        AppSetLogViaStdout(static_cast<uint8_t>(i), 0);
    }
    EXPECT_EQ(AppGenerateLogChannel(), 1);
    EXPECT_EQ(g_byAppLogLevel[1].load(), APP_LOG_ERROR);
    EXPECT_EQ(g_bAppLogViaStdout[1].load(), 1u);
    EXPECT_EQ(g_byAppLogLevel[2].load(), 3);

    g_byAppLogNextChannel.store(1);
    std::atomic<unsigned> anTimes[256] = {};
    constexpr unsigned kRounds = test::Scaled(200);
    test::RunThreads(8, [&](unsigned) {
        for (unsigned i = 0; i < 255 * kRounds; ++i)
            ++anTimes[AppGenerateLogChannel()];
    });
    for (int i = 0; i < 256; ++i)
        EXPECT_EQ(anTimes[i].load(), i == 0 ? 0 : 8 * kRounds) << "channel " << i;
}

TEST(Format, EveryTruncationIsMinusOne)
{
    char achText[8] = "####";
    for (uint32_t dwSize = 0; dwSize <= 5; ++dwSize) {
        EXPECT_EQ(AppSnprintf(achText, dwSize, "%s%c", "ab", 'c'), dwSize > 3 ? 3 : -1) << dwSize;
        EXPECT_EQ(achText, dwSize == 0 ? "####" : std::string("abc").substr(0, dwSize - 1));
    }
    EXPECT_EQ(AppSnprintf(nullptr, 8, "x"), -1);
    EXPECT_EQ(AppSnprintf(achText, 8, nullptr), -1);
    EXPECT_EQ(AppSnprintf(achText, 8, "%ls", L"\x7FFFFFFF"), -1) << "the formatter's own error";
    int nFirst = 0, nSecond = 0;
    EXPECT_EQ(AppSscanf("12 34", "%d %d", &nFirst, &nSecond), 2);
    EXPECT_EQ(nFirst * 100 + nSecond, 1234);
    EXPECT_EQ(AppSscanf(nullptr, "%d", &nFirst), 0);
    EXPECT_EQ(AppSscanf("1", nullptr), 0);
}

// ---- Strings --------------------------------------------------------------------------------

static int Sign(int32_t nValue)
{
    return (nValue > 0) - (nValue < 0);
}

TEST(String, ComparisonsTakeNullForEmpty)
{
    const char *const aszText[] = {nullptr, "", "x", "abc", "abd", "ABc", "AB", "ab", "b", "\xFF"};
    for (const char *szFirst : aszText)
        for (const char *szSecond : aszText)
            for (const uint32_t dwCount : {0u, 1u, 2u, 9u}) {
                const char *szLeft = szFirst ? szFirst : "", *szRight = szSecond ? szSecond : "";
                const size_t nCount =
                    !szFirst != !szSecond ? 9 : dwCount; // not looked at beside one null
                SCOPED_TRACE(Text("'%s' '%s' %u", szLeft, szRight, dwCount));
                EXPECT_EQ(Sign(AppStrcmp(szFirst, szSecond)), Sign(strcmp(szLeft, szRight)));
                EXPECT_EQ(Sign(AppStrncmp(szFirst, szSecond, dwCount)),
                          Sign(strncmp(szLeft, szRight, nCount)));
                EXPECT_EQ(Sign(AppStrcasecmp(szFirst, szSecond)),
                          Sign(strcasecmp(szLeft, szRight)));
                EXPECT_EQ(Sign(AppStrncasecmp(szFirst, szSecond, dwCount)),
                          Sign(strncasecmp(szLeft, szRight, nCount)));
            }
}

TEST(String, WrappersTakeNullAndZero)
{
    const char *szText = "abc\xE9";
    EXPECT_EQ(AppStrlen(nullptr), 0u);
    EXPECT_EQ(AppStrlen(szText), 4u);
    EXPECT_EQ(AppStrstr(szText, "bc"), szText + 1);
    EXPECT_EQ(AppStrstr(szText, ""), szText);
    EXPECT_EQ(AppStrstr(szText, nullptr), szText);
    EXPECT_EQ(AppStrstr(nullptr, nullptr), nullptr);
    EXPECT_EQ(AppStrchr(szText, 'c' + 256), szText + 2);
    EXPECT_EQ(AppStrchr(szText, 0xE9), szText + 3);
    EXPECT_EQ(AppStrchr(szText, 256), nullptr);
    EXPECT_EQ(AppStrchr(nullptr, 'a'), nullptr);
    char achBuf[4] = "abc";
    AppMemzero(nullptr, 4);
    AppMemcpy(nullptr, nullptr, 0);
    AppMemzero(achBuf, 2);
    EXPECT_EQ(AppMemcmp(achBuf, "\0\0c", 4), 0);
    AppMemcpy(achBuf, "xy", 2);
    EXPECT_STREQ(achBuf, "xyc");
}

TEST(String, CopiesAlwaysTerminateAndFill)
{
    for (const char *szSrc : {"", "ab", "1234567", "12345678", static_cast<const char *>(nullptr)})
        for (uint32_t dwSize = 0; dwSize <= 8; ++dwSize) {
            char achBuf[9] = "########";
            std::string left = achBuf;
            if (szSrc && dwSize > 0) {
                const std::string kept = std::string(szSrc).substr(0, dwSize - 1);
                left.replace(0, dwSize, kept + std::string(dwSize - kept.size(), '\0'));
            }
            EXPECT_EQ(AppStrncpy(achBuf, szSrc, dwSize), achBuf);
            EXPECT_EQ(std::string(achBuf, 8), left) << "size " << dwSize;
        }
    EXPECT_EQ(AppStrncpy(nullptr, "x", 4), nullptr);
}

// The destination ends where its allocation ends, so that the address sanitizer sees a step too
// far, reading or writing; a text as long as the size has no terminator inside it.
TEST(String, AppendingNeverLeavesTheBuffer)
{
    const std::string digits = "12345678";
    for (uint32_t dwSize = 1; dwSize <= 8; ++dwSize)
        for (uint32_t dwLen = 0; dwLen <= dwSize; ++dwLen)
            for (const char *szSrc : {"", "x", "abcdefg"}) {
                std::unique_ptr<char[]> buffer(new char[dwSize]);
                memcpy(buffer.get(), (digits.substr(0, dwLen) + std::string(8, '\0')).data(),
                       dwSize);
                EXPECT_EQ(AppStrncat(buffer.get(), szSrc, dwSize), buffer.get());
                EXPECT_EQ(buffer.get(), (digits.substr(0, dwLen) + szSrc).substr(0, dwSize - 1));
            }
    char achText[4] = "a";
    AppStrncat(achText, "b", 0);
    AppStrncat(achText, nullptr, 4);
    EXPECT_STREQ(achText, "a");
    EXPECT_EQ(AppStrncat(nullptr, "b", 4), nullptr);
}

TEST(String, HashIsTheAgreedOne)
{
    EXPECT_EQ(AppStringHash(nullptr), 0u);
    EXPECT_EQ(AppStringHash(""), 0u);
    EXPECT_EQ(AppStringHash("Hello"), 360269938u);
    EXPECT_EQ(AppStringHash("\x80\xC3"),
              (128u * (63689u * 378551u) + 0xC3) & 0x7FFFFFFF); // bytes are unsigned
}

// ---- Dump -----------------------------------------------------------------------------------

TEST(Dump, EndsAfterItsLastWholePieceAtEverySize)
{
    static const char s_achData[] = "0123456789ABCDEF \x7F!~\t"
                                    "abcdefghijklmnop";
    const auto pbyData = reinterpret_cast<const uint8_t *>(s_achData);
    for (const uint32_t dwLen : {1u, 15u, 16u, 17u, 32u, 38u}) {
        std::vector<std::string> whole{""}; // what a dump may end with
        const auto Add = [&](const std::string &piece) { whole.push_back(whole.back() + piece); };
        Add(Text("ADDR:%p SIZE:%u(%xh)\n", static_cast<const void *>(pbyData), dwLen, dwLen));
        for (uint32_t dwRow = 0; dwRow < dwLen; dwRow += 16) {
            Add(Text("%8xh: ", dwRow));
            for (uint32_t i = dwRow; i < dwRow + 16; ++i)
                Add(i < dwLen ? Text("%02X ", pbyData[i]) : "   ");
            Add(" | ");
            for (uint32_t i = dwRow; i < dwRow + 16 && i < dwLen; ++i)
                Add(isgraph(pbyData[i]) ? std::string(1, s_achData[i]) : ".");
            Add("\n");
        }
        size_t nFits = 0;
        for (uint32_t dwSize = 1; dwSize < whole.back().size() + 5; ++dwSize) {
            while (nFits + 1 < whole.size() && whole[nFits + 1].size() < dwSize)
                ++nFits;
            std::unique_ptr<char[]> buffer(new char[dwSize]); // guarded by the address sanitizer
            ASSERT_EQ(AppDumpMem(pbyData, dwLen, buffer.get(), dwSize),
                      static_cast<int32_t>(whole[nFits].size()));
            ASSERT_EQ(buffer.get(), whole[nFits]) << "size " << dwSize;
        }
    }
    char achText[4] = "###";
    EXPECT_EQ(AppDumpMem(pbyData, 0, achText, 4), 0);
    EXPECT_EQ(AppDumpMem(pbyData, 1, achText, 0), 0);
    EXPECT_STREQ(achText, "###");
}
