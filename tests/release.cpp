// SPDX-License-Identifier: MIT
//
// What devices do where builds with checks end the process: the pools' sources without checks.
#include "mempool/mempool.h"
#include "support/expect.h"
#include "support/log_capture.h"

namespace
{

class Release : public testing::Test
{
protected:
    Release()
    {
        EXPECT_CODE(APP_OK, AppMemPoolCreate(1000, 1, 0, &hPool));
        log.Name(hPool->ptImpl, "ENGINE");
    }
    ~Release() override { AppMemPoolDestroy(hPool); }

    test::LogCapture log;
    HAppMemPool hPool = nullptr;
};

} // namespace

// Neither does the account wrap, which would refuse everything for good, nor does one block get two
// owners.
TEST_F(Release, SecondReleaseHurtsNobody)
{
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
}

// A listed block whose size fits no class is kept: the pool's destruction releases it, once.  Less
// in use than is released now leaves the accounts at zero.
TEST_F(Release, DamageIsReportedAndSurvived)
{
    void *pvData = AppMemPoolMalloc(hPool, 100);
    TAppMemBlockHead *ptHead = reinterpret_cast<TAppMemBlockHead *>(static_cast<char *>(pvData) -
                                                                    sizeof(TAppMemPoolHead)) -
                               1;
    log.Name(ptHead + 1, "HEAD");
    ptHead->dwBlockSize = 5000000;
    AppMemPoolFree(pvData);
    log.ExpectLines(
        {"[ERROR] _AppFree: WARING!!!! MEMPOOL ENGINE(OnWorkSize=" +
             std::to_string(128u << (sizeof(void *) / 8)) +
             ") is less than HEAD(size=5000000), MEM LEAK may occured!!!!\n",
         "[ERROR] _AppFree: WARING!!!!  HEAD(size=5000000) use MP ENGINE, SHOULD NOT BE IN THE ON "
         "LIST!!!!\n"});
    EXPECT_EQ(hPool->ptImpl->dwOnWorkCount + hPool->ptImpl->dwOnWorkSize, 0u);
    EXPECT_EQ(hPool->ptImpl->dwTotalSize, 0u);
    EXPECT_FALSE(app::PoolIsValid(hPool));
}
