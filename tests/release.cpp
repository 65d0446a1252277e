// SPDX-License-Identifier: MIT
//
// What devices do where builds with checks end the process: the pools' sources without checks.
#include "mempool/mempool.h"
#include "support/expect.h"

static int s_nLines;

extern "C" int32_t QorPrintf(int32_t, int32_t, const char *, ...)
{
    return ++s_nLines;
}

// No account wraps, which would refuse everything for good, no block gets two owners, and a listed
// block whose size fits no class is kept: the pool's destruction releases it, once.
TEST(Release, SurvivesSecondReleasesAndDamage)
{
    HAppMemPool hPool = nullptr;
    ASSERT_CODE(APP_OK, AppMemPoolCreate(1000, 1, 0, &hPool));
    void *pvFirst = AppMemPoolMalloc(hPool, 100), *pvOther = AppMemPoolMalloc(hPool, 100);
    for (int i = 0; i < 5; ++i)
        AppMemPoolFree(pvFirst);
    EXPECT_EQ(hPool->dwCurSize, 0u);
    EXPECT_EQ(app::ReadEngine(hPool->ptImpl).dwOnWorkCount, 1u); // the other one
    AppMemPoolFree(pvOther);
    void *pvThird = AppMemPoolMalloc(hPool, 100), *pvFourth = AppMemPoolMalloc(hPool, 100);
    EXPECT_TRUE(pvThird && pvFourth && pvThird != pvFourth);
    EXPECT_EQ(hPool->dwCurSize, 200u);

    const auto ptHead = static_cast<TAppMemPoolHead *>(pvThird) - 1;
    reinterpret_cast<TAppMemBlockHead *>(ptHead)[-1].dwBlockSize = 5000001; // odd, as if idle
    const int nBefore = s_nLines;
    AppMemPoolFree(pvThird);
    EXPECT_EQ(s_nLines - nBefore, 2); // more than is in use, and of no class
    const app::EngineFigures figures = app::ReadEngine(hPool->ptImpl);
    EXPECT_EQ(figures.dwOnWorkCount, 1u);
    EXPECT_EQ(figures.dwOnWorkSize + figures.dwTotalSize, 0u);
    AppMemPoolDestroy(hPool);
}
