// SPDX-License-Identifier: MIT
#include "utils/share_action_registry.h"

#include <string.h>

#include "appcore/host.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using test::Text;
using test::WaitUntil;

namespace
{

void Append(const char *szText, void *pv)
{
    EXPECT_LE(strlen(szText), 3071u);
    static_cast<std::string *>(pv)->append(szText);
}

std::string Report()
{
    std::string all;
    AppShareActionShow(Append, &all);
    return all;
}

uint32_t Add(uint32_t dwArg1, uint32_t dwArg2, uint32_t dwArg3)
{
    return dwArg1 + dwArg2 + dwArg3;
}

// Each case is a process of its own under CTest: there the first one meets no registry.
TEST(ShareAction, BeginsWithTheFirstRegistration)
{
    if (g_hAppShareActionList.load())
        GTEST_SKIP() << "not run: the registry exists already in this process";
    EXPECT_CODE(APP_INVALID_ARG, AppShareActionLock());
    EXPECT_CODE(APP_INVALID_ARG, AppShareActionUnlock());
    EXPECT_CODE(APP_INVALID_ARG, AppRegisterShareAction(std::string(32, 'k').c_str(), Add));
    EXPECT_CODE(APP_FAILED, AppRunShareAction("1", 1, 2, 3, nullptr));
    EXPECT_EQ(Report(), "");
    std::atomic<bool> bCreating{false};
    test::RunThreads(4, [&](unsigned nThread) {
        fault::Fail window(fault::Fn::malloc, nThread == 0, 0);
        window.Action([&] { // somebody else may want to create it, too
            bCreating = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        });
        EXPECT_TRUE(WaitUntil([&] { return nThread != 1 || bCreating; }));
        if (nThread < 2)
            EXPECT_CODE(APP_OK, AppRegisterShareAction(nThread ? "1" : "0", Add));
        else // the others see nothing, or all of it
            EXPECT_TRUE(WaitUntil([&] {
                return nThread == 2 ? Report() != "" : !AppRunShareAction("1", 0, 0, 0, nullptr);
            }));
    });
    EXPECT_EQ(g_hAppShareActionList.load()->dwCurSize, 2u);
}

unsigned s_nInside = 0; // guarded by the registry
uint32_t Exclusive(uint32_t, uint32_t, uint32_t)
{
    EXPECT_EQ(++s_nInside, 1u);
    std::this_thread::yield();
    --s_nInside;
    return 5;
}

// Registrations beside runs and reports: one entry a key, ordinary actions one at a time.
TEST(ShareAction, ServesManyThreads)
{
    std::vector<std::string> keys{"key 20100", "key 413285"}; // of the same hash
    for (unsigned i = 0; i < test::Scaled(2000); ++i)
        keys.push_back(Text("%015u %015u", i, i));
    const auto nKeys = static_cast<unsigned>(keys.size());
    test::RunThreads(8, [&](unsigned nThread) {
        for (unsigned i = 0; i < nKeys; ++i) {
            const char *szKey = keys[i].c_str();
            EXPECT_CODE(APP_OK, i % 2 ? AppRegisterShareAction(szKey, Exclusive)
                                      : AppRegisterBlockShareAction(szKey, Add));
            uint32_t dwResult = 0;
            EXPECT_CODE(APP_OK, AppRunShareAction(szKey, i, 1, 1, &dwResult));
            ASSERT_EQ(dwResult, i % 2 ? 5 : i + 2);
            const std::string text = i % 32 == nThread ? Report() : "";
            EXPECT_TRUE(text == "" || text[20] == 'k' ||
                        text.substr(20, 15) == text.substr(36, 15));
        }
    });
    EXPECT_CODE(APP_OK, AppRegisterShareAction(keys[1].c_str(), Add)); // the first one stays
    EXPECT_CODE(APP_OK, AppRunShareAction(keys[1].c_str(), 0, 0, 0, nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppRunShareAction("Key 20100", 0, 0, 0, nullptr));
    const uint32_t dwAll = g_hAppShareActionList.load()->dwCurSize;
    std::string lines;
    for (unsigned i = 0; i < nKeys; ++i)
        lines += Text("[%u/%u] Hash %u Key %s Addr %p\n", dwAll - nKeys + i + 1, dwAll,
                      AppStringHash(keys[i].c_str()), keys[i].c_str(),
                      reinterpret_cast<void *>(i % 2 ? Exclusive : Add));
    const std::string report = Report(), head = "Last called action: key 413285 result 5\n";
    EXPECT_EQ(report.find(head + std::string(40, '=') + Text("\n[1/%u] Hash ", dwAll)), 0u);
    EXPECT_EQ(report.substr(report.size() - lines.size()), lines);
    AppShareActionShow(nullptr, nullptr);
}

std::atomic<int> s_nWaiting{0};
uint32_t Wait(uint32_t, uint32_t, uint32_t)
{
    ++s_nWaiting;
    return WaitUntil([] { return s_nWaiting == 3; });
}

uint32_t Nest(uint32_t dwDepth, uint32_t, uint32_t)
{
    EXPECT_NE(Report().find(Text("nest result %d\n", APP_IN_PROGRESS)), std::string::npos);
    EXPECT_CODE(APP_OK, AppRegisterShareAction("made inside", Add));
    uint32_t dwResult = 0;
    return dwDepth == 0 ? 1
                        : AppRunShareAction("nest", dwDepth - 1, 0, 0, &dwResult) + dwResult + 1;
}

TEST(ShareAction, NestsAndRunsBesideBlockingOnes)
{
    EXPECT_CODE(APP_OK, AppRegisterShareAction("nest", Nest));
    EXPECT_CODE(APP_OK, AppRegisterBlockShareAction("wait", Wait));
    test::RunThreads(3, [](unsigned nThread) {
        EXPECT_TRUE(WaitUntil([&] { return nThread > 0 || s_nWaiting == 2; }));
        EXPECT_TRUE(nThread > 0 || AppShareActionLock() == APP_OK);
        uint32_t dwResult = 0;
        EXPECT_CODE(APP_OK, AppRunShareAction(nThread ? "wait" : "nest", 3, 0, 0, &dwResult));
        EXPECT_EQ(dwResult, nThread ? 1u : 4u);
        EXPECT_TRUE(nThread > 0 || AppShareActionUnlock() == APP_OK);
        s_nWaiting += nThread == 0;
    });
}

// Registered by two threads, and run by a third as soon as it is found.
TEST(RegCommand, StandInServesAShell)
{
    static std::string s_words;
    const PFQorCommand pfnCommand = [](int32_t nArgc, char **ppszArgv) {
        s_words = Text("%d %s", nArgc, ppszArgv[nArgc - 1]);
        return 42;
    };
    static char s_aachName[64][4]; // kept by reference
    std::string all, seen;
    for (int i = 0; i < 64; ++i)
        all += Text("%s: help\n", strcpy(s_aachName[i], Text("c%d", i).c_str()));
    AppRegCommand(nullptr, pfnCommand, "");
    AppRegCommand("none", nullptr, "");
    int32_t nResult = 0;
    test::RunThreads(3, [&](unsigned nThread) {
        for (const char *szName : s_aachName)
            if (nThread > 0)
                AppRegCommand(szName, pfnCommand, nullptr);
            else
                while (AppHostRunCommand(szName, &nResult) == APP_NOT_FOUND)
                    std::this_thread::yield();
    });
    EXPECT_EQ(nResult, 42);
    for (const char *szName : s_aachName)
        AppRegCommand(szName, pfnCommand, "help"); // replaces
    AppRegCommand("none", pfnCommand, "no room");
    AppHostWalkCommands([](const char *szName, const char *szHelp,
                           void *pv) { Append(Text("%s: %s\n", szName, szHelp).c_str(), pv); },
                        &seen);
    EXPECT_EQ(seen, all);
    EXPECT_CODE(APP_NOT_FOUND, AppHostRunCommand("none", nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppHostRunCommand(" \n", nullptr));
    std::string line = " c0 2\t3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n"; // the rest is dropped
    line.resize(255, ' ');
    EXPECT_CODE(APP_OK, AppHostRunCommand(line.c_str(), nullptr));
    EXPECT_EQ(s_words, "15 15");
    EXPECT_CODE(APP_INVALID_ARG, AppHostRunCommand((line + " ").c_str(), nullptr));
}

} // namespace
