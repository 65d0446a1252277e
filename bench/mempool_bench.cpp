// SPDX-License-Identifier: MIT
#include <dlfcn.h>

#include <array>
#include <memory_resource>

#include "appcore/mempool.h"
#include "bench.h"

namespace
{

constexpr size_t kBlocks = 1000; // live blocks of the mix
constexpr size_t kScript = 4096; // its steps, repeated

template <uint32_t bLock>
struct AppcorePool {
    AppcorePool() { bench::Require(AppMemPoolCreate(0, bLock, 0, &hPool) == APP_OK); }
    ~AppcorePool() { AppMemPoolDestroy(hPool); }
    void *Allocate(uint32_t dwSize) { return AppMemPoolMalloc(hPool, dwSize); }
    void Release(void *pvBlock, uint32_t) { AppMemPoolFree(pvBlock); }
    HAppMemPool hPool = nullptr;
};

struct AppcoreHeap {
    void *Allocate(uint32_t dwSize) { return AppMemPoolMalloc(nullptr, dwSize); }
    void Release(void *pvBlock, uint32_t) { AppMemPoolFree(pvBlock); }
};

struct Glibc {
    void *Allocate(uint32_t dwSize) { return malloc(dwSize); }
    void Release(void *pvBlock, uint32_t) { free(pvBlock); }
};

// Loaded instead of linked: a linked mimalloc would replace malloc for everybody.
struct Mimalloc {
    Mimalloc()
    {
        void *pvLibrary = dlopen("libmimalloc.so.2", RTLD_NOW | RTLD_LOCAL);
        bench::Require(pvLibrary != nullptr);
        pfnMalloc = reinterpret_cast<void *(*)(size_t)>(dlsym(pvLibrary, "mi_malloc"));
        pfnFree = reinterpret_cast<void (*)(void *)>(dlsym(pvLibrary, "mi_free"));
        bench::Require(pfnMalloc && pfnFree);
    }
    void *Allocate(uint32_t dwSize) { return pfnMalloc(dwSize); }
    void Release(void *pvBlock, uint32_t) { pfnFree(pvBlock); }
    void *(*pfnMalloc)(size_t);
    void (*pfnFree)(void *);
};

template <typename Resource>
struct Pmr {
    void *Allocate(uint32_t dwSize) { return resource.allocate(dwSize); }
    void Release(void *pvBlock, uint32_t dwSize) { resource.deallocate(pvBlock, dwSize); }
    Resource resource{std::pmr::pool_options{0, 8192}};
};

// A list of free blocks for each power of two.
template <typename Mutex>
struct NaivePool {
    struct Block {
        Block *ptNext;
    };
    static unsigned ClassOf(uint32_t dwSize) { return 32u - __builtin_clz(dwSize - 1); }
    void *Allocate(uint32_t dwSize)
    {
        const unsigned nClass = ClassOf(dwSize);
        std::lock_guard<Mutex> guard(mutex);
        Block *ptBlock = aptFree[nClass];
        if (!ptBlock)
            return malloc(size_t{1} << nClass);
        aptFree[nClass] = ptBlock->ptNext;
        return ptBlock;
    }
    void Release(void *pvBlock, uint32_t dwSize)
    {
        const auto ptBlock = static_cast<Block *>(pvBlock);
        std::lock_guard<Mutex> guard(mutex);
        ptBlock->ptNext = aptFree[ClassOf(dwSize)];
        aptFree[ClassOf(dwSize)] = ptBlock;
    }
    Mutex mutex;
    Block *aptFree[33] = {};
};

struct NoMutex {
    void lock() {}
    void unlock() {}
};

using PmrLocked = Pmr<std::pmr::synchronized_pool_resource>;
using PmrUnlocked = Pmr<std::pmr::unsynchronized_pool_resource>;

template <typename Pool>
void AllocateRelease(benchmark::State &state)
{
    static Pool pool;
    for (auto _ : state) {
        void *pvBlock = pool.Allocate(100);
        benchmark::DoNotOptimize(pvBlock);
        pool.Release(pvBlock, 100);
    }
}

struct Step {
    uint32_t dwSlot;
    uint32_t dwSize;
};

std::array<Step, kScript> MakeScript(uint32_t dwSeed)
{
    std::array<Step, kScript> script;
    uint32_t dwRandom = dwSeed;
    const auto next = [&dwRandom] {
        dwRandom = dwRandom * 1664525 + 1013904223;
        return dwRandom >> 8;
    };
    for (Step &step : script)
        step = {next() % static_cast<uint32_t>(kBlocks), 16 + next() % 4081};
    return script;
}

// Each step replaces one of the live blocks.  Threads share the pool, not the blocks.
template <typename Pool>
void Mix(benchmark::State &state)
{
    static Pool pool;
    const auto script = MakeScript(static_cast<uint32_t>(state.thread_index()) + 1);
    struct Live {
        void *pvBlock;
        uint32_t dwSize;
    };
    std::array<Live, kBlocks> live;
    for (size_t i = 0; i < kBlocks; ++i)
        live[i] = {pool.Allocate(script[i].dwSize), script[i].dwSize};
    size_t i = 0;
    for (auto _ : state) {
        const Step &step = script[i++ % kScript];
        Live &block = live[step.dwSlot];
        pool.Release(block.pvBlock, block.dwSize);
        block = {pool.Allocate(step.dwSize), step.dwSize};
        *static_cast<volatile char *>(block.pvBlock) = 1;
    }
    for (const Live &block : live)
        pool.Release(block.pvBlock, block.dwSize);
}

// For one thread at a time the unlocked pools, else the locked ones.
template <typename Pool>
void AddUnlocked(const std::string &strName, const char *szAim100 = "")
{
    bench::Add("pool_100 unlocked", strName, AllocateRelease<Pool>, szAim100);
    bench::Add("pool_mix unlocked", strName, Mix<Pool>);
}

template <typename Pool>
void AddLocked(const std::string &strName, bool bOurs = false)
{
    for (int nThreads : {1, 2}) {
        const std::string strRow = " locked threads:" + std::to_string(nThreads);
        const bool bAlone = nThreads == 1;
        bench::Add("pool_100" + strRow, strName, AllocateRelease<Pool>,
                   !bOurs   ? ""
                   : bAlone ? "1.5 of glibc"
                            : "/0.9 of naive")
            ->Threads(nThreads);
        bench::Add("pool_mix" + strRow, strName, Mix<Pool>,
                   !bOurs   ? ""
                   : bAlone ? "0.6 of glibc"
                            : "/1.5 of glibc")
            ->Threads(nThreads);
    }
}

} // namespace

void bench::RegisterRows()
{
    AddUnlocked<AppcorePool<0>>("appcore", "1.2 of glibc");
    AddUnlocked<Glibc>("glibc");
    AddUnlocked<Mimalloc>("mimalloc");
    AddUnlocked<PmrUnlocked>("pmr_unlocked");

    AddLocked<AppcorePool<1>>("appcore", true);
    AddLocked<Glibc>("glibc");
    AddLocked<Mimalloc>("mimalloc");
    AddLocked<PmrLocked>("pmr");
    AddUnlocked<NaivePool<NoMutex>>("naive");
    AddLocked<NaivePool<std::mutex>>("naive");

    Add("pool_100 heap", "appcore", AllocateRelease<AppcoreHeap>);
    Add("pool_100 heap", "glibc", AllocateRelease<Glibc>);
    Add("pool_100 heap", "mimalloc", AllocateRelease<Mimalloc>);
}
