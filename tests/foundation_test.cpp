// SPDX-License-Identifier: MIT
#include "appcore/appcore.h"
#include "appcore/log_fast.h"

#include "mempool/mempool.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/report_writer.h"

using test::LogCapture;
using test::StdoutCapture;
using test::Text;

TEST(Log, ThresholdAndSwitchDecideWhoSeesALine)
{
    LogCapture log;
    for (const uint8_t byChannel : {0, 5})
        for (const uint8_t bySet : {0, 15, 16, 240, 254, 255})
            for (const uint8_t byLevel : {0, 15, 16, 17, 240, 241, 255})
                for (const uint32_t bViaStdout : {0u, 1u, 2u}) {
                    SCOPED_TRACE(Text("channel %d set %d level %d", byChannel, bySet, byLevel));
                    StdoutCapture output;
                    g_byAppLogLevel[byChannel].store(APP_LOG_INFO);
                    AppSetLogLevel(byChannel, bySet);
                    AppSetLogViaStdout(byChannel, bViaStdout);
                    int nArgument = 7; // not even looked at when the line is off
                    AppLog(byChannel, byLevel, "%s-%d", "text", nArgument);
                    APP_LOG_FAST(byChannel, byLevel, "%s-%d", "text", nArgument++);
                    AppLogFile(byChannel, byLevel, "to no file\n");
                    AppLog(byChannel, byLevel, nullptr);
                    const bool bSeen =
                        byLevel <= (byChannel == 0 && bySet < 16 ? int{APP_LOG_INFO} : int{bySet});
                    EXPECT_EQ(nArgument, 7 + bSeen);
                    log.ExpectLines(std::vector<std::string>(2 * bSeen, "text-7"));
                    EXPECT_EQ(output.End(), bSeen && bViaStdout == 1 ? "text-7text-7" : "");
                }
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
}

// One too long for the slots, and no memory for a copy: printed at once.  The others once each, in
// their order, though the console takes the lock for each.
TEST(HeldLines, AreNotLostForWantOfMemoryNorPrintedTwice)
{
    LogCapture log;
    HAppMemPool hPool = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
    {
        app::LockGuard guard(hPool);
        AppLog(0, APP_LOG_ERROR, "1\n");
        AppLog(0, APP_LOG_ERROR, "2\n");
        fault::Fail fail(fault::Fn::malloc);
        AppLog(0, APP_LOG_ERROR, "%s\n", std::string(2000, 'x').c_str());
        EXPECT_EQ(fail.Hits(), 1u);
        EXPECT_EQ(log.Lines().size(), 1u);
        log.Clear();
        log.OnLine([&](const std::string &) { AppMemPoolFree(AppMemPoolMalloc(hPool, 1)); });
    }
    log.ExpectLines({"1\n", "2\n"});
    log.OnLine(nullptr);
    AppMemPoolDestroy(hPool);
}

TEST(Result, HasAName)
{
    std::string names;
    for (uint32_t i = 0; i < 70000; ++i)
        if (AppGetResultName(i) != std::string("UNKNOWN"))
            names += Text("%u %s\n", i, AppGetResultName(i));
    EXPECT_EQ(names, "0 APP_OK\n101 APP_FAILED\n103 APP_INVALID_ARG\n104 APP_NO_RESOURCE\n"
                     "105 APP_INVALID_STATE\n106 APP_TIMEOUT\n107 APP_BUFFER_TOO_SMALL\n"
                     "108 APP_NOT_FOUND\n206 APP_XML_NODE_INVALID\n207 APP_BAD_VALUE\n"
                     "208 APP_IN_PROGRESS\n");
}

TEST(Report, HandsOverAllThatItsBufferHolds)
{
    std::string text;
    const auto add = [](const char *sz, void *pv) { *static_cast<std::string *>(pv) += sz; };
    app::ReportWriter(add, &text).Line("%s", std::string(3071, 'x').c_str());
    EXPECT_EQ(text, std::string(3071, 'x'));
}
