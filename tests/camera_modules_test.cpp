// SPDX-License-Identifier: MIT
//
// The camera's modules without memory, and the budget of its answers.
#include <random>

#include "camera/budget.h"
#include "camera/camera.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using fault::Fn;

namespace camera
{
HAppMemPool g_hPool;
HAppTaskMgr g_hTaskMgr;
uint8_t g_byLog;
} // namespace camera

namespace
{

using namespace camera;

std::atomic<uint32_t> s_dwBeats, s_dwSettings, s_dwTaken;
std::atomic<bool> s_bBusy{false}; // takes nothing, as when a receiver is away
TMailbox s_tMailbox;

void Work(TModule *ptModule, EWork eWork, void *)
{
    if (eWork == kBeat)
        ModuleBeat(ptModule, 20);
    s_dwBeats += eWork == kBeat;
    s_dwSettings += eWork == kSettings;
    for (void *pv; eWork == kEvent && !s_bBusy && (pv = MailboxTake(&s_tMailbox)); ++s_dwTaken)
        AppMemPoolFree(pv);
}

std::string Status()
{
    char achText[100];
    ModulesStatus(achText, sizeof(achText));
    return achText;
}

bool Grows(const std::atomic<uint32_t> &dwCount)
{
    const uint32_t dwBefore = dwCount;
    return test::WaitUntil([&] { return dwCount > dwBefore; });
}

} // namespace

TEST(CameraModules, GoOnWhenThereIsMemoryAgain)
{
    test::LogCapture log;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &g_hPool));
    ASSERT_CODE(APP_OK, AppTaskMgrCreate(g_hPool, 2, 1000, &g_hTaskMgr));
    TModule tModule = {"worker", Work};
    ASSERT_TRUE(MailboxOpen(&s_tMailbox, &tModule, 1000) && ModuleStart(&tModule));
    EXPECT_TRUE(Grows(s_dwBeats) && Grows(s_dwBeats));
    EXPECT_EQ(Status(), "modules: all on time\n");
    {
        fault::Fail fail({Fn::AppMemPoolMalloc, Fn::AppTaskSetTimer}, 1, ENOMEM, 1u << 30,
                         fault::kEveryThread);
        const auto IsLate = [] { // whatever is tried meanwhile
            ModulesTick();
            return Status().find("worker has not run for 2 s") != std::string::npos;
        };
        EXPECT_TRUE(test::WaitUntil(IsLate));
        ModulesTellSettings();
    }
    ModulesTick();
    EXPECT_TRUE(Grows(s_dwBeats) && Grows(s_dwBeats));
    EXPECT_TRUE(test::WaitUntil([] { return s_dwSettings == 1; }));
    ModulesTellSettings();
    EXPECT_TRUE(test::WaitUntil([] { return s_dwSettings == 2; }));
    EXPECT_EQ(Status(), "modules: all on time\n");
    uint32_t dwPut = 0;
    for (unsigned nNth = 1, nHits = 1; nHits > 0;
         ++nNth) { // whichever of a put's allocations fails
        void *pvBlock = AppMemPoolMalloc(g_hPool, 8);
        fault::Fail fail(Fn::AppMemPoolMalloc, nNth);
        dwPut += MailboxPut(&s_tMailbox, pvBlock, kRoutine);
        nHits = fail.Hits();
        ModulesTick();
        EXPECT_TRUE(test::WaitUntil([&] { return s_dwTaken == dwPut; }));
    }
    EXPECT_GT(dwPut, 1u);
    s_bBusy = true; // a nudge that was served is none that waits
    EXPECT_TRUE(MailboxPut(&s_tMailbox, AppMemPoolMalloc(g_hPool, 8), kRoutine));
    EXPECT_TRUE(test::WaitUntil([] { return !s_tMailbox.bNudged; }));
    ModuleStop(&tModule);
    MailboxClose(&s_tMailbox);
    AppTaskMgrDestroy(g_hTaskMgr);
    AppMemPoolDestroy(g_hPool);
}

// However many addresses ask: in no span of time more than its share and two seconds' store; and
// who asks seldom is answered as long as the others leave something.
TEST(CameraBudget, HoldsForEachAddressAndForAll)
{
    constexpr uint32_t kEach = 5, kAll = 40, kTicks = 3000;
    constexpr uint32_t kTicksPerSecond = 100;
    std::minstd_rand random(7);
    TBudget tBudget = {};
    uint32_t dwTick = ~0u - kTicks / 2, adwTaken[200] = {}, dwAll = 0, dwQuiet = 0, dwGreedy = 0;
    for (uint32_t i = 0; i < kTicks; ++i, ++dwTick) {
        const uint32_t dwSources = i < kTicks / 2 ? 5 : 199; // five cannot use up what there is
        if (i == kTicks / 2) { // nobody asks for a while: no more is stored than two seconds'
            dwAll = kAll * i / kTicksPerSecond;
            dwGreedy = kEach * i / kTicksPerSecond;
            dwTick += 60 * kTicksPerSecond;
        }
        for (uint32_t n = random() % 20; n > 0; --n) {
            const uint32_t dwSource = random() % dwSources;
            const bool bTaken = BudgetTake(&tBudget, dwSource, dwTick, 1, kEach, kAll);
            adwTaken[dwSource] += bTaken;
            dwAll += bTaken;
        }
        dwGreedy += BudgetTake(&tBudget, 200, dwTick, 1, kEach, kAll); // however many come between
        EXPECT_LE(dwGreedy, kEach * 2 + kEach * (i + 1) / kTicksPerSecond);
        EXPECT_LE(dwAll, kAll * 2 + kAll * (i + 1) / kTicksPerSecond + dwQuiet);
        for (uint32_t dwSource = 0; i == kTicks / 2 - 1 && dwSource < 5; ++dwSource)
            EXPECT_NEAR(adwTaken[dwSource], kEach * (2 + i / kTicksPerSecond), 5);
        if (i < kTicks / 2 && i % kTicksPerSecond == 0) {
            EXPECT_TRUE(BudgetTake(&tBudget, 199, dwTick, 1, kEach, kAll));
            ++dwQuiet;
        }
    }
    EXPECT_GT(dwAll, kAll * kTicks / 2 / kTicksPerSecond);
}
