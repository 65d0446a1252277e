// SPDX-License-Identifier: MIT
#include "appcore/appcore.h"

#include "support/expect.h"
#include "support/log_capture.h"
#include "utils/log.h"

using test::LogCapture;
using test::StdoutCapture;
using test::Text;

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
    for (int i = 1; i <= 255; ++i)
        EXPECT_EQ(AppGenerateLogChannel(), i);
    AppSetLogLevel(1, 3);
    AppSetLogViaStdout(1, 0);
    EXPECT_EQ(AppGenerateLogChannel(), 1);
    EXPECT_EQ(g_byAppLogLevel[1].load(), APP_LOG_ERROR);
    EXPECT_EQ(g_bAppLogViaStdout[1].load(), 1u);

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
