// SPDX-License-Identifier: MIT
#include "appcore/share_action.h"

#include <stdlib.h>
#include <string.h>

#include "appcore/host.h"
#include "appcore/platform.h"
#include "appcore/stats.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "utils/lock_guard.h"
#include "utils/share_action_registry.h"

using test::Text;

static std::string Report()
{
    std::string all;
    const PFAppShow append = [](const char *szText, void *pv) {
        static_cast<std::string *>(pv)->append(szText);
    };
    AppShareActionShow(append, &all);
    return all;
}

static uint32_t Add(uint32_t dwArg1, uint32_t dwArg2, uint32_t bAlone)
{
    static unsigned s_nAlone = 0; // guarded by the registry
    EXPECT_TRUE(!bAlone || (++s_nAlone == 1 && --s_nAlone == 0));
    return dwArg1 + dwArg2 + bAlone;
}

static uint32_t Nest(uint32_t dwDepth, uint32_t bBeside, uint32_t)
{
    EXPECT_NE(Report().find(Text(" result %d\n", APP_IN_PROGRESS)), std::string::npos);
    uint32_t dwInner = 0;
    const auto inner = [&] {
        EXPECT_CODE(APP_OK, AppShareActionLock());
        EXPECT_TRUE(dwDepth == 0 || !AppRunShareAction("nest", dwDepth - 1, 0, 0, &dwInner));
        EXPECT_CODE(APP_OK, AppShareActionUnlock());
    };
    bBeside ? std::thread(inner).join() : inner();
    return dwInner + 1;
}

// From the first registration on: one entry a key, whole reports, ordinary actions one at a time.
TEST(ShareAction, ServesManyThreads)
{
    EXPECT_CODE(APP_INVALID_ARG, AppRegisterShareAction(std::string(32, 'k').c_str(), Add));
    std::vector<std::string> keys{"key 20100", "key 413285"}; // of the same hash
    for (unsigned i = 0; i < test::Scaled(2000); ++i)
        keys.push_back(Text("%015u %015u", i, i));
    for (size_t n = 1; n < APP_SHARE_ACTION_KEY_SIZE; ++n)
        keys.push_back(std::string(n, 'k'));
    test::RunThreads(8, [&](unsigned nThread) {
        fault::Fail window(fault::Fn::malloc, 1, 0);
        window.Action([] { std::this_thread::sleep_for(std::chrono::milliseconds(5)); });
        const bool bRuns = nThread % 2; // what others register: no lock of the list in between
        EXPECT_TRUE(!bRuns || test::WaitUntil([] { return Report() != ""; }));
        for (unsigned i = 0; i < keys.size(); ++i) {
            const auto add = i % 2 ? AppRegisterShareAction : AppRegisterBlockShareAction;
            uint32_t dwResult = 0;
            ASSERT_TRUE(bRuns || !add(keys[i].c_str(), Add));
            while (bRuns && AppRunShareAction(keys[i].c_str(), i, 1, i % 2, &dwResult))
                std::this_thread::yield();
            ASSERT_EQ(dwResult, bRuns * (i + 1 + i % 2));
            const std::string last = bRuns && i % 32 == nThread ? Report().substr(20) : "key";
            EXPECT_TRUE(last[0] == 'k' || last.substr(0, 15) == last.substr(16, 15));
        }
    });
    EXPECT_CODE(APP_OK, AppRegisterShareAction(keys[1].c_str(), Nest)); // the first one stays
    EXPECT_CODE(APP_INVALID_ARG, AppRunShareAction(std::string(32, 'k').c_str(), 0, 0, 0, nullptr));
    uint32_t bBlock = 0;
    EXPECT_EQ(_AppFindShareAction(g_hAppShareActionList.load(), keys[2].c_str(), &bBlock), Add);
    EXPECT_EQ(bBlock, 1u);
    EXPECT_EQ(_AppFindShareAction(nullptr, keys[2].c_str(), nullptr), nullptr);
    EXPECT_CODE(APP_OK, AppRunShareAction(keys[1].c_str(), 2, 3, 0, nullptr));
    std::string expected =
        "Last called action: key 413285 result 5\n" + std::string(40, '=') + "\n";
    for (size_t i = 0; i < keys.size(); ++i)
        expected +=
            Text("[%zu/%zu] Hash %u Key %s Addr %p\n", i + 1, keys.size(),
                 AppStringHash(keys[i].c_str()), keys[i].c_str(), reinterpret_cast<void *>(Add));
    EXPECT_EQ(Report(), expected);
}

TEST(ShareAction, NestsAndRunsBesideBlockingOnes)
{
    EXPECT_CODE(APP_OK, AppRegisterShareAction("nest", Nest));
    EXPECT_CODE(APP_OK, AppRegisterBlockShareAction("block", Nest));
    EXPECT_CODE(APP_OK, AppRegisterBlockShareAction("beside", Add));
    uint32_t dwResult = 0;
    EXPECT_CODE(APP_OK, AppRunShareAction("block", 3, 1, 0, &dwResult));
    EXPECT_EQ(dwResult, 4u);
    EXPECT_CODE(APP_OK, AppShareActionLock());
    std::thread([] { // though an ordinary action may hang
        EXPECT_CODE(APP_OK, AppRunShareAction("beside", 1, 2, 0, nullptr));
        EXPECT_CODE(APP_INVALID_ARG, AppRunShareAction("nobody", 0, 0, 0, nullptr));
    })
        .join();
    EXPECT_CODE(APP_OK, AppRunShareAction("block", 0, 0, 0, nullptr));
    std::thread([] { // what the caller holds stays held
        EXPECT_CODE(APP_TIMEOUT, AppLockTakeByTime(g_hAppShareActionRecursiveLock.load(), 10));
    })
        .join();
    EXPECT_CODE(APP_OK, AppShareActionUnlock());
}

static TAppShareActionStats Stats(uint32_t dwSize = sizeof(TAppShareActionStats) + 4)
{
    TAppShareActionStats tStats = {};
    tStats.dwSize = dwSize;
    EXPECT_CODE(dwSize < 4 ? APP_INVALID_ARG : APP_OK, AppShareActionGetStats(&tStats));
    return tStats;
}

static TAppShareActionStats s_tSeen;

static uint32_t Hang(uint32_t bBlock, uint32_t dwDepth, uint32_t)
{
    AppDelay(50);
    if (dwDepth > 0)
        return AppRunShareAction(bBlock ? "slow" : "hung", bBlock, dwDepth - 1, 0, nullptr);
    const app::LockGuard report(g_hAppShareActionList.load());
    std::thread([] { s_tSeen = Stats(); }).join();
    return 0;
}

// An action that hangs, and a report that does, keep nobody from the record.
TEST(ShareAction, TellsWhatRunsAndForHowLong)
{
    EXPECT_CODE(APP_OK, AppRegisterShareAction("hung", Hang));
    EXPECT_CODE(APP_OK, AppRegisterBlockShareAction("slow", Hang));
    AppGetTick();
    const TAppShareActionStats tBefore = Stats();
    EXPECT_EQ(tBefore.dwSize, sizeof(tBefore));
    for (const uint32_t bBlock : {0, 1}) {
        const char *szKey = bBlock ? "slow" : "hung";
        EXPECT_CODE(APP_OK, AppRunShareAction(szKey, bBlock, 1 + 4 * bBlock, 0, nullptr));
        EXPECT_STREQ(s_tSeen.achCurrent, szKey);
        EXPECT_EQ(s_tSeen.dwRunning, 2 - bBlock); // by itself; a blocking one is one, however often
        EXPECT_GE(s_tSeen.dwCurrentMs, 80 + 200 * bBlock);
        EXPECT_EQ(s_tSeen.dwRuns, tBefore.dwRuns + 2 * bBlock);
        EXPECT_STREQ(Stats().achLongest, szKey);
        EXPECT_GE(Stats().dwLongestMs, 80 + 200 * bBlock);
    }
    EXPECT_CODE(APP_INVALID_ARG, AppRunShareAction("nobody", 0, 0, 0, nullptr));
    const TAppShareActionStats tAfter = Stats(), tShort = Stats(8);
    EXPECT_EQ(tAfter.dwRuns, tBefore.dwRuns + 8);
    EXPECT_EQ(tAfter.dwRefused, tBefore.dwRefused + 1);
    EXPECT_EQ(tAfter.dwRunning + tAfter.dwCurrentMs + strlen(tAfter.achCurrent), 0u);
    EXPECT_EQ(tShort.dwActions, tAfter.dwActions);
    EXPECT_EQ(tShort.dwSize, 8u);
    EXPECT_EQ(tShort.dwRuns + Stats(3).dwActions, 0u);
}

TEST(RegCommand, StandInServesAShell)
{
    const PFQorCommand pfnCommand = [](int32_t nArgc, char **ppszArgv) {
        EXPECT_EQ(ppszArgv[nArgc], nullptr); // as in main()
        return nArgc * 100 + atoi(ppszArgv[nArgc - 1]);
    };
    static std::string s_aName[64]; // kept by reference
    std::string all, seen;
    for (std::string &name : s_aName)
        all += (name = Text("c%td", &name - s_aName)) + ": help\n";
    AppRegCommand(nullptr, pfnCommand, "");
    AppRegCommand("none", nullptr, "");
    int32_t nResult = 0;
    test::RunThreads(3, [&](unsigned nThread) { // two register, one runs what is found
        for (const std::string &name : s_aName)
            if (nThread > 0)
                AppRegCommand(name.c_str(), pfnCommand, nullptr);
            else
                while (AppHostRunCommand(name.c_str(), &nResult) == APP_NOT_FOUND)
                    std::this_thread::yield();
    });
    for (const std::string &name : s_aName)
        AppRegCommand(name.c_str(), pfnCommand, "help"); // replaces
    AppRegCommand("none", pfnCommand, "no room");
    const PFAppHostCommand pfnVisit = [](const char *szName, const char *szHelp, void *pv) {
        *static_cast<std::string *>(pv) += Text("%s: %s\n", szName, szHelp);
    };
    AppHostWalkCommands(pfnVisit, &seen);
    EXPECT_EQ(seen, all);
    EXPECT_CODE(APP_NOT_FOUND, AppHostRunCommand("none", nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppHostRunCommand(" \n", nullptr));
    std::string line = " c0 2\t3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n"; // the rest is dropped
    line.resize(255, ' ');
    EXPECT_CODE(APP_OK, AppHostRunCommand(line.c_str(), &nResult));
    EXPECT_EQ(nResult, 1515);
    EXPECT_CODE(APP_INVALID_ARG, AppHostRunCommand((line + " ").c_str(), nullptr));
}
