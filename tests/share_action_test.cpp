// SPDX-License-Identifier: MIT
#include "utils/share_action.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "appcore/host.h"
#include "support/expect.h"
#include "support/log_capture.h"

using test::Text;
using test::WaitUntil;

namespace
{

void Collect(const char *szText, void *pvContext)
{
    static_cast<std::vector<std::string> *>(pvContext)->push_back(szText);
}

std::vector<std::string> Report()
{
    std::vector<std::string> texts;
    AppShareActionShow(Collect, &texts);
    return texts;
}

std::string LastCalled()
{
    const std::string text = Report().at(0), tag = "Last called action: ";
    EXPECT_EQ(text.substr(0, tag.size()), tag);
    return text.substr(tag.size(), text.find('\n') - tag.size());
}

uint32_t Add(uint32_t dwArg1, uint32_t dwArg2, uint32_t dwArg3)
{
    return dwArg1 + dwArg2 + dwArg3;
}

uint32_t Five(uint32_t, uint32_t, uint32_t)
{
    return 5;
}

std::string s_seen;
uint32_t Nest(uint32_t dwDepth, uint32_t, uint32_t)
{
    s_seen = LastCalled();
    EXPECT_CODE(APP_OK, AppRegisterShareAction("made inside", Five));
    uint32_t dwResult = 0;
    if (dwDepth > 0) {
        EXPECT_CODE(APP_OK, AppRunShareAction("nest", dwDepth - 1, 0, 0, &dwResult));
    }
    return dwResult + 1;
}

// Each case is a process of its own under CTest: there the first one meets no registry.
TEST(ShareAction, BeginsWithTheFirstRegistration)
{
    if (g_hAppShareActionList.load())
        GTEST_SKIP() << "not run: the registry exists already in this process";
    uint32_t dwResult = 77;
    EXPECT_CODE(APP_FAILED, AppRunShareAction("add", 1, 2, 3, &dwResult));
    EXPECT_CODE(APP_INVALID_ARG, AppShareActionLock());
    EXPECT_CODE(APP_INVALID_ARG, AppShareActionUnlock());
    EXPECT_CODE(APP_INVALID_ARG, AppRegisterShareAction("12345678901234567890123456789012", Add));
    EXPECT_TRUE(Report().empty());
    EXPECT_EQ(g_hAppShareActionList.load(), nullptr);

    ASSERT_CODE(APP_OK, AppRegisterShareAction("add", Add));
    EXPECT_EQ(LastCalled(), " result 0");
}

TEST(ShareAction, RunsByKeyAndReports)
{
    const std::string longest(31, 'k');
    ASSERT_CODE(APP_OK, AppRegisterShareAction("five", Five));
    ASSERT_CODE(APP_OK, AppRegisterShareAction("five", Add)); // the first one stays
    ASSERT_CODE(APP_OK, AppRegisterBlockShareAction(longest.c_str(), Add));
    uint32_t dwResult = 77;
    ASSERT_CODE(APP_OK, AppRunShareAction("five", 1, 1, 1, &dwResult));
    EXPECT_EQ(dwResult, 5u);
    EXPECT_CODE(APP_INVALID_ARG, AppRunShareAction("Five", 0, 0, 0, &dwResult));
    EXPECT_EQ(LastCalled(), "five result 5");
    EXPECT_CODE(APP_OK, AppRunShareAction(longest.c_str(), 7, 0, 0, nullptr));
    EXPECT_EQ(LastCalled(), longest + " result 7");
    const auto nKeys = static_cast<int>(g_hAppShareActionList.load()->dwCurSize);
    const std::string text = Report().at(0), line = std::string(40, '=') + "\n";
    EXPECT_NE(text.find("\n" + line + "[1/" + std::to_string(nKeys) + "] Hash "),
              std::string::npos);
    EXPECT_NE(text.find(Text("/%d] Hash %u Key five Addr %p\n", nKeys, AppStringHash("five"),
                             (void *)Five)),
              std::string::npos);
    EXPECT_NE(text.find(Text("[%d/%d] Hash ", nKeys, nKeys)), std::string::npos);
    AppShareActionShow(nullptr, nullptr);
}

TEST(ShareAction, NestsAndShowsTheActionThatRuns)
{
    ASSERT_CODE(APP_OK, AppRegisterShareAction("nest", Nest));
    uint32_t dwResult = 0;
    ASSERT_CODE(APP_OK, AppShareActionLock());
    ASSERT_CODE(APP_OK, AppRunShareAction("nest", 3, 0, 0, &dwResult));
    EXPECT_EQ(dwResult, 4u);
    EXPECT_EQ(s_seen, Text("nest result %d", APP_IN_PROGRESS));
    ASSERT_CODE(APP_OK, AppRunShareAction("made inside", 0, 0, 0, nullptr));
    ASSERT_CODE(APP_OK, AppShareActionUnlock());
}

std::atomic<bool> s_bLet{false};
std::atomic<int> s_nRunning{0};
uint32_t WaitForOther(uint32_t, uint32_t, uint32_t)
{
    ++s_nRunning;
    return WaitUntil([] { return s_bLet.load(); });
}
uint32_t LetOther(uint32_t, uint32_t, uint32_t)
{
    s_bLet = true;
    return 1;
}

TEST(ShareAction, BlockingActionsLetOrdinaryOnesRun)
{
    ASSERT_CODE(APP_OK, AppRegisterBlockShareAction("wait", WaitForOther));
    ASSERT_CODE(APP_OK, AppRegisterShareAction("let", LetOther));
    uint32_t adwResult[2] = {};
    std::thread first([&] { AppRunShareAction("wait", 0, 0, 0, &adwResult[0]); });
    std::thread second([&] { AppRunShareAction("wait", 0, 0, 0, &adwResult[1]); });
    EXPECT_TRUE(WaitUntil([] { return s_nRunning == 2; }));
    EXPECT_CODE(APP_OK, AppRunShareAction("let", 0, 0, 0, nullptr));
    first.join();
    second.join();
    EXPECT_EQ(adwResult[0] + adwResult[1], 2u);
}

std::atomic<int> s_nInside{0};
uint32_t Exclusive(uint32_t, uint32_t, uint32_t)
{
    EXPECT_EQ(++s_nInside, 1);
    std::this_thread::yield();
    --s_nInside;
    return 1;
}

// One registry, one entry a key, ordinary actions one at a time, and no torn key in a report.
TEST(ShareAction, ServesManyThreads)
{
    const std::string keys[] = {std::string(31, 'a'), std::string(31, 'b'), std::string(31, 'c')};
    std::atomic<uint32_t> dwRuns{0};
    constexpr uint32_t kRounds = 2000;
    test::RunThreads(8, [&](unsigned nThread) {
        for (uint32_t i = 0; i < test::Scaled(kRounds); ++i) {
            const char *szKey = keys[(nThread + i) % 3].c_str();
            EXPECT_CODE(APP_OK, AppRegisterShareAction(szKey, Exclusive));
            uint32_t dwResult = 0;
            EXPECT_CODE(APP_OK, AppRunShareAction(szKey, 0, 0, 0, &dwResult));
            dwRuns += dwResult;
            const std::string key = i % 16 ? "aa" : LastCalled();
            EXPECT_EQ(key.find_first_not_of(key[0]), i % 16 ? std::string::npos : 31);
        }
    });
    EXPECT_EQ(dwRuns, 8 * test::Scaled(kRounds));
    const std::string report = Report()[0];
    for (const std::string &key : keys) {
        EXPECT_NE(report.find("Key " + key), std::string::npos);
        EXPECT_EQ(report.find("Key " + key), report.rfind("Key " + key)) << "one entry";
    }
}

TEST(ShareAction, FindsEveryKeyOfMany)
{
    for (uint32_t i = 0; i < 1000; ++i)
        ASSERT_CODE(APP_OK, AppRegisterShareAction(Text("key %u", i).c_str(), i % 2 ? Add : Five));
    for (uint32_t i = 0; i < 1000; ++i) {
        uint32_t dwResult = 0;
        ASSERT_CODE(APP_OK, AppRunShareAction(Text("key %u", i).c_str(), i, 1, 1, &dwResult));
        EXPECT_EQ(dwResult, i % 2 ? i + 2 : 5);
    }
    const auto texts = Report(); // in pieces, each line once
    size_t nLines = 0;
    for (const std::string &text : texts) {
        EXPECT_LE(text.size(), 3071u);
        nLines += static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }
    EXPECT_EQ(nLines, 2u + g_hAppShareActionList.load()->dwCurSize);
}

// ---- Debug-shell commands -------------------------------------------------------------------

int32_t s_nArgc;
std::string s_lastWord;
int32_t Command(int32_t nArgc, char **ppszArgv)
{
    s_nArgc = nArgc;
    s_lastWord = ppszArgv[nArgc - 1];
    return 42;
}

TEST(RegCommand, StandInServesAShell)
{
    AppRegCommand("motion", Command, "raise motion");
    AppRegCommand("motion", Command, "raise motion n times"); // replaces
    AppRegCommand(nullptr, Command, "");
    AppRegCommand("none", nullptr, "");
    int32_t nResult = 0;
    EXPECT_CODE(APP_OK, AppHostRunCommand("  motion 3\tlast\n", &nResult));
    EXPECT_EQ(nResult, 42);
    EXPECT_EQ(s_nArgc, 3);
    EXPECT_EQ(s_lastWord, "last");
    EXPECT_CODE(APP_NOT_FOUND, AppHostRunCommand("none", nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppHostRunCommand(" \n", nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppHostRunCommand(std::string(256, 'x').c_str(), nullptr));
    std::vector<std::string> seen;
    AppHostWalkCommands(
        [](const char *szName, const char *szHelp, void *pv) {
            Collect((std::string(szName) + ": " + szHelp).c_str(), pv);
        },
        &seen);
    EXPECT_EQ(seen, std::vector<std::string>{"motion: raise motion n times"});
}

} // namespace
