// SPDX-License-Identifier: MIT
//
// What devices do where builds with checks end the process: the pools' sources without checks.
#include <gtest/gtest.h>

#include "mempool/mempool.h"

// Neither does the account wrap, which would refuse everything for good, nor does one block get two
// owners.
TEST(SecondRelease, HurtsNobody)
{
    HAppMemPool hPool = nullptr;
    ASSERT_EQ(AppMemPoolCreate(1000, 1, 0, &hPool), APP_OK);
    void *pvFirst = AppMemPoolMalloc(hPool, 100), *pvOther = AppMemPoolMalloc(hPool, 100);
    for (int i = 0; i < 5; ++i)
        AppMemPoolFree(pvFirst);
    EXPECT_EQ(hPool->dwCurSize, 0u);
    AppMemPoolFree(pvOther);
    EXPECT_TRUE(app::PoolIsValid(hPool));
    void *pvThird = AppMemPoolMalloc(hPool, 100), *pvFourth = AppMemPoolMalloc(hPool, 100);
    EXPECT_TRUE(pvThird && pvFourth && pvThird != pvFourth);
    EXPECT_EQ(hPool->dwCurSize, 200u);
    EXPECT_TRUE(app::PoolIsValid(hPool));
    AppMemPoolDestroy(hPool);
}
