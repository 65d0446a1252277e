// SPDX-License-Identifier: MIT
#include "appcore/stats.h"

#include "support/log_capture.h"
#include "support/tasks.h"

namespace
{

template <typename Stats, typename Handle>
Stats Read(uint32_t (*pfnGet)(Handle, Stats *), Handle hObject)
{
    Stats stats = {};
    stats.dwSize = sizeof(stats);
    EXPECT_CODE(APP_OK, pfnGet(hObject, &stats));
    EXPECT_EQ(stats.dwSize, sizeof(stats));
    return stats;
}

TEST(Stats, PoolsAndQueuesTellPeaksRefusalsAndWaits)
{
    test::LogCapture log; // refusals have their lines
    HAppMemPool hPool = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(20000, 1, 0, &hPool));
    AppMemPoolSetName(hPool, "a pool whose name is longer than there is room for");
    void *pvFirst = AppMemPoolMalloc(hPool, 100);
    AppMemPoolFree(AppMemPoolMalloc(hPool, 3000));
    EXPECT_EQ(AppMemPoolMalloc(hPool, 30000), nullptr);
    auto pool = Read(AppMemPoolGetStats, hPool);
    EXPECT_STREQ(pool.achName, "a pool whose name is longer tha");
    EXPECT_EQ(pool.dwUsed, 100u);
    EXPECT_EQ(pool.dwPeak, 3100u);
    EXPECT_EQ(pool.dwLimit, 20000u);
    EXPECT_EQ(pool.dwRefused, 1u);
    EXPECT_EQ(pool.dwBlocks, 1u);
    EXPECT_EQ(pool.adwBlocksIdle[7], 1u); // of 4096 bytes
    EXPECT_EQ(pool.dwIdle, 4096u);
    AppMemPoolFree(pvFirst);

    HAppQueue hQueue = nullptr;
    ASSERT_CODE(APP_OK, AppQueueCreate(hPool, 2, 1, &hQueue));
    AppQueueSetName(hQueue, "queue");
    AppQueueIn(hQueue, nullptr, 0);
    AppQueueIn(hQueue, nullptr, 9); // passes the first, which is watched
    EXPECT_CODE(APP_NO_RESOURCE, AppQueueIn(hQueue, nullptr, 0));
    AppDelay(50);
    EXPECT_GE(Read(AppQueueGetStats, hQueue).dwOldestMs, 40u);
    AppGetTick();
    AppQueueOut(hQueue, 0, nullptr);
    EXPECT_EQ(Read(AppQueueGetStats, hQueue).dwLongestMs, 0u);
    AppQueueOut(hQueue, 0, nullptr);
    const auto queue = Read(AppQueueGetStats, hQueue);
    EXPECT_STREQ(queue.achName, "queue");
    EXPECT_EQ(queue.dwCount, 0u);
    EXPECT_EQ(queue.dwPeak, 2u);
    EXPECT_EQ(queue.dwLimit, 2u);
    EXPECT_EQ(queue.dwRefused, 1u);
    EXPECT_EQ(queue.dwOldestMs, 0u);
    EXPECT_GE(queue.dwLongestMs, 40u);
    // A reader that knows less of the record gets that much, and no byte behind it is touched.
    pool.dwSize = offsetof(TAppMemPoolStats, dwPeak);
    pool.dwPeak = 12345;
    EXPECT_CODE(APP_OK, AppMemPoolGetStats(hPool, &pool));
    EXPECT_EQ(pool.dwSize, offsetof(TAppMemPoolStats, dwPeak));
    EXPECT_EQ(pool.dwPeak, 12345u);
    pool.dwSize = 3;
    EXPECT_CODE(APP_INVALID_ARG, AppMemPoolGetStats(hPool, &pool));
    AppQueueDestroy(hQueue, nullptr, nullptr);
    AppMemPoolDestroy(hPool);
}

void Collect(const TAppTaskStats *ptTask, void *pvTold)
{
    static_cast<std::vector<TAppTaskStats> *>(pvTold)->push_back(*ptTask);
}

// Handlers of events and of timers, of the manager that is asked only, once for each run.
TEST(Stats, AHandlerThatDoesNotReturnIsToldOnce)
{
    test::LogCapture log;
    test::Door event, timer;
    test::Diary diary([&](const test::Diary::Call &call) {
        if (call.pvArg == test::Arg(1))
            event.Pass();
        if (call.dwType == APP_TASK_EVENT_TIMEOUT)
            timer.Pass();
    });
    test::Manager manager, other;
    HAppTask hTask = manager.New(diary, {"hangs", 2});
    manager.New(diary, {"well"});
    std::vector<TAppTaskStats> told;
    const auto check = [&](uint32_t dwMs) {
        return AppTaskMgrCheck(manager.Get(), dwMs, Collect, &told);
    };
    AppTaskSendEvent(hTask, test::Arg(1), nullptr, nullptr);
    event.AwaitVisitor();
    AppTaskSetTimer(hTask, 0, nullptr, nullptr);
    AppDelay(40);
    EXPECT_EQ(check(1000), 0u);
    EXPECT_EQ(AppTaskMgrCheck(other.Get(), 20, Collect, &told), 0u);
    EXPECT_EQ(AppTaskMgrCheck(manager.Get(), 20, nullptr, nullptr), 1u);
    EXPECT_TRUE(told.empty());
    EXPECT_EQ(check(20), 1u);
    EXPECT_EQ(check(20), 1u);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_STREQ(told[0].achName, "hangs");
    EXPECT_EQ(told[0].pfnHandler, test::Diary::Handle);
    EXPECT_EQ(told[0].pvArg, test::Arg(1));
    EXPECT_EQ(told[0].bInHandler, 1u);
    EXPECT_GE(told[0].dwSinceMs, 30u);
    event.Open();
    timer.AwaitVisitor();
    EXPECT_TRUE(test::WaitUntil([&] { return check(20) == 1 && told.size() == 2; }));
    EXPECT_EQ(told[1].dwEventType, uint32_t{APP_TASK_EVENT_TIMEOUT});
    EXPECT_GE(told[1].dwLongestMs, 30u);
    EXPECT_EQ(told[1].pfnLongest, test::Diary::Handle);
    // What is sent to it meanwhile.
    for (uint32_t i = 0; i < 3; ++i)
        AppTaskSendEvent(hTask, nullptr, nullptr, nullptr);
    timer.Open();
    diary.Await("user 1, timeout, user 0, user 0");
    manager.Park(hTask);
    const auto read = [&] { return Read(AppTaskGetStats, hTask); };
    // The request to go idle included.
    EXPECT_TRUE(test::WaitUntil([&] { return read().dwServed == 5; }));
    const auto task = read();
    EXPECT_EQ(task.dwRefused, 1u);
    EXPECT_EQ(task.dwTimersSet, 1u);
    EXPECT_EQ(task.dwTimersExpired, 1u);
    EXPECT_GE(task.dwTimerLateMs, 30u);
    EXPECT_EQ(manager.New(diary), hTask);
    const auto mgr = Read(AppTaskMgrGetStats, manager.Get());
    EXPECT_EQ(std::tie(mgr.dwActive, mgr.dwCreated, mgr.dwReused), std::make_tuple(2u, 2u, 1u));
}

// Everything comes and goes while others look at it: with freed memory the sanitizers would tell, and
// what stays is found in every walk, once and in its order.
TEST(Stats, AWalkMeetsWhatComesAndGoes)
{
    test::LogCapture log;
    test::Watchdog watchdog;
    HAppMemPool ahPool[2] = {};
    std::atomic<bool> bEnd{false};
    AppMemPoolCreate(0, 0, 0, &ahPool[0]);
    std::thread maker([&] {
        for (unsigned i = 0; i < test::Scaled(2000); ++i) {
            test::Manager manager(2, 0, 1 << 16);
            test::Diary diary;
            manager.New(diary, {"passes"});
        }
        bEnd = true;
    });
    AppMemPoolCreate(0, 0, 0, &ahPool[1]);
    const auto look = [](uint32_t dwKind, const void *pvStats, void *pvFound) {
        if (dwKind == APP_STATS_POOLS)
            static_cast<std::vector<HAppMemPool> *>(pvFound)->push_back(
                static_cast<const TAppMemPoolStats *>(pvStats)->hMemPool);
    };
    while (!bEnd) {
        std::vector<HAppMemPool> found;
        EXPECT_GE(AppStatsWalk(APP_STATS_ALL, look, &found), found.size());
        const auto first = std::find(found.begin(), found.end(), ahPool[0]);
        EXPECT_NE(std::find(first, found.end(), ahPool[1]), found.end());
        EXPECT_EQ(std::count(found.begin(), found.end(), ahPool[0]), 1);
    }
    maker.join();
    for (HAppMemPool hPool : ahPool)
        AppMemPoolDestroy(hPool);
}

TEST(Stats, JsonEscapesNamesAndHasWhatIsWanted)
{
    HAppMemPool hPool = nullptr;
    AppMemPoolCreate(7, 0, 0, &hPool);
    AppMemPoolSetName(hPool, "\"a\\\n");
    std::string text;
    const auto append = [](const char *szText, void *pvText) {
        *static_cast<std::string *>(pvText) += szText;
    };
    AppStatsJson(APP_STATS_POOLS | APP_STATS_TASKS, append, &text);
    EXPECT_EQ(text,
              "{\n\"pools\":[\n{\"pool\":\"" + test::Text("0x%zx", size_t(hPool)) +
                  "\",\"name\":\"\\u0022a\\u005c\\u000a\",\"used\":0,\"peak\":0,\"limit\":7,"
                  "\"refused\":0,\"blocks\":0,\"held\":0,\"idle\":0,"
                  "\"blocksInUse\":[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0],"
                  "\"blocksIdle\":[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]}],\n\"tasks\":[]\n}\n");
    AppMemPoolDestroy(hPool);
    text.clear();
    AppStatsJson(0, append, &text);
    EXPECT_EQ(text, "{}\n");
}

} // namespace
