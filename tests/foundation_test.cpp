// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <optional>

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

TEST(Log, OnceWhereTheConsoleIsStandardOutput)
{
    LogCapture log;
    AppSetLogViaStdout(9, 1);
    const int nStderr = dup(STDERR_FILENO);
    for (const bool bSame : {false, true})
        for (const uint32_t bOnce : {1u, 0u, 2u}) {
            StdoutCapture output;
            dup2(bSame ? STDOUT_FILENO : nStderr, STDERR_FILENO);
            AppSetLogOnce(bOnce);
            AppLog(9, APP_LOG_ALWAYS, "line\n");
            EXPECT_EQ(output.End(), bSame && bOnce == 1 ? "" : "line\n");
            log.ExpectLines({"line\n"});
        }
    dup2(nStderr, STDERR_FILENO);
    close(nStderr);
    AppSetLogViaStdout(9, 0);
}

// The ticks wrap meanwhile.
TEST(LogRepeat, TellsWhatItHeldBackAfterTheSecondOrBeforeItForgets)
{
    LogCapture log;
    std::optional<fault::Fail> clock;
    const auto at = [&, dwStart = UINT32_MAX - 50](uint32_t dwTick) {
        clock.emplace(fault::Fn::clock_gettime, 1, static_cast<int>(~(dwStart + dwTick)), 1u << 30);
    };
    const auto say = [](const std::string &text, unsigned nTimes = 1, uint8_t byChannel = 9) {
        while (nTimes-- > 0)
            AppLog(byChannel, APP_LOG_ALWAYS, "%s\n", text.c_str());
    };
    const auto told = [](unsigned nLines, const std::string &text) {
        return Text("[INFO ] AppLog: channel 9: %u identical lines held back: %s\n", nLines,
                    text.c_str());
    };
    at(0);
    AppSetLogLevel(9, APP_LOG_INFO);
    AppSetLogRepeat(9, 2);
    say("same", 5);
    AppLog(9, APP_LOG_INFO, "same\n");
    say("same", 3, 8);
    log.ExpectLines(std::vector<std::string>(6, "same\n"));
    at(99);
    say("same");
    say("other");
    log.ExpectLines({"other\n"});
    at(100);
    say("other", 2); // the second one is the third in its own second
    log.ExpectLines({told(4, "same"), "other\n"});
    say("same", 3);
    at(1000);
    say("same");
    log.ExpectLines({"same\n", "same\n", told(1, "same"), told(1, "other"), "same\n"});
    const std::string text(5000, 'x'), begin(127, 'x');
    say(text, 4);
    say(text + "y", 2);
    say(text + "z", 2);
    log.Clear();
    for (unsigned i = 0; i < 17; ++i)
        say(std::to_string(i));
    EXPECT_EQ(log.Lines().size(), 18u);
    EXPECT_EQ(log.Count(told(2, begin)), 1u);
    say("0", 3);
    log.Clear();
    log.OnLine([&](const std::string &) { say("0", 2); }); // what is told is not locked meanwhile
    AppSetLogRepeat(9, 0);
    EXPECT_EQ(log.Lines()[0], told(1, "0"));
    log.OnLine(nullptr);
    log.Clear();
    say("0", 9);
    EXPECT_EQ(log.Lines().size(), 9u);
}

// Of many threads, more texts than it can keep, and a limit that comes and goes.
TEST(LogRepeat, LosesNoLineUncounted)
{
    LogCapture log;
    constexpr unsigned kTexts = 20, kLines = test::Scaled(32000);
    TAppLogStats tBefore = {}, tAfter = {};
    tBefore.dwSize = tAfter.dwSize = sizeof(tAfter);
    AppLogGetStats(9, &tBefore);
    AppSetLogRepeat(9, 3);
    for (unsigned i = 0; i < 100; ++i) // some are held back, whatever the threads do
        AppLog(9, APP_LOG_ALWAYS, "0\n");
    test::RunThreads(5, [](unsigned nThread) {
        for (unsigned i = 0; i < kLines; ++i)
            if (nThread > 0)
                AppLog(9, APP_LOG_ALWAYS, "%u\n", i / 4 % kTexts);
            else if (i % 64 == 0)
                AppSetLogRepeat(9, i / 64 % 2 * 3);
    });
    AppSetLogRepeat(9, 0);
    AppLogGetStats(9, &tAfter);
    std::vector<unsigned> counts(kTexts, 0);
    unsigned nTold = 0;
    for (const std::string &line : log.Lines()) {
        unsigned nLines = 1, nText = 0;
        const char *szTold = "[INFO ] AppLog: channel 9: %u identical lines held back: %u\n";
        if (sscanf(line.c_str(), szTold, &nLines, &nText) == 2)
            nTold += nLines;
        else
            ASSERT_EQ(sscanf(line.c_str(), "%u\n", &nText), 1) << line;
        counts.at(nText) += nLines;
    }
    counts[0] -= 100;
    EXPECT_EQ(counts, std::vector<unsigned>(kTexts, 4 * kLines / kTexts));
    EXPECT_GT(nTold, 0u);
    EXPECT_EQ(tAfter.dwRepeated - tBefore.dwRepeated, nTold);
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
