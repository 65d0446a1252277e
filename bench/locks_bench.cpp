// SPDX-License-Identifier: MIT
#include <glib.h>
#include <pthread.h>
#include <semaphore.h>
#include <time.h>

#include <thread>

#include "appcore/platform.h"
#include "bench.h"

namespace
{

struct timespec InOneSecond()
{
    struct timespec tEnd;
    clock_gettime(CLOCK_REALTIME, &tEnd);
    ++tEnd.tv_sec;
    return tEnd;
}

struct AppcoreLock {
    explicit AppcoreLock(uint32_t dwInitCount = 1, uint32_t dwType = APP_LOCK_TYPE_SEM)
    {
        bench::Require(AppLockCreate(nullptr, 1, dwInitCount, dwType, &hLock) == APP_OK);
    }
    ~AppcoreLock() { AppLockDestroy(hLock); }
    void Take() { AppLockTakeByTime(hLock, 0); }
    void TakeTimed() { AppLockTakeByTime(hLock, 1000); }
    void Give() { AppLockGive(hLock); }
    HAppLock hLock = nullptr;
};

struct AppcoreRecursive : AppcoreLock {
    AppcoreRecursive() : AppcoreLock(1, APP_LOCK_TYPE_RECURSIVE) {}
};

struct PthreadMutex {
    void Take() { pthread_mutex_lock(&tMutex); }
    void TakeTimed()
    {
        const struct timespec tEnd = InOneSecond();
        pthread_mutex_timedlock(&tMutex, &tEnd);
    }
    void Give() { pthread_mutex_unlock(&tMutex); }
    pthread_mutex_t tMutex = PTHREAD_MUTEX_INITIALIZER;
};

struct PthreadRecursive : PthreadMutex {
    PthreadRecursive() { tMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP; }
};

struct PosixSem {
    explicit PosixSem(unsigned dwInitCount = 1) { sem_init(&tSem, 0, dwInitCount); }
    ~PosixSem() { sem_destroy(&tSem); }
    void Take() { sem_wait(&tSem); }
    void TakeTimed()
    {
        const struct timespec tEnd = InOneSecond();
        sem_timedwait(&tSem, &tEnd);
    }
    void Give() { sem_post(&tSem); }
    sem_t tSem;
};

struct GlibMutex {
    GlibMutex() { g_mutex_init(&tMutex); }
    ~GlibMutex() { g_mutex_clear(&tMutex); }
    void Take() { g_mutex_lock(&tMutex); }
    void Give() { g_mutex_unlock(&tMutex); }
    GMutex tMutex;
};

struct GlibRecursive {
    GlibRecursive() { g_rec_mutex_init(&tMutex); }
    ~GlibRecursive() { g_rec_mutex_clear(&tMutex); }
    void Take() { g_rec_mutex_lock(&tMutex); }
    void Give() { g_rec_mutex_unlock(&tMutex); }
    GRecMutex tMutex;
};

// The plainest semaphore of a mutex and a condition variable, signalled after the unlock: nobody
// may destroy it while it is in use.
struct NaiveSem {
    explicit NaiveSem(unsigned dwInitCount = 1) : dwCount(dwInitCount) {}
    void Take()
    {
        pthread_mutex_lock(&tMutex);
        while (dwCount == 0)
            pthread_cond_wait(&tCond, &tMutex);
        --dwCount;
        pthread_mutex_unlock(&tMutex);
    }
    void TakeTimed()
    {
        const struct timespec tEnd = InOneSecond();
        pthread_mutex_lock(&tMutex);
        while (dwCount == 0 && pthread_cond_timedwait(&tCond, &tMutex, &tEnd) == 0) {
        }
        --dwCount;
        pthread_mutex_unlock(&tMutex);
    }
    void Give()
    {
        pthread_mutex_lock(&tMutex);
        ++dwCount;
        pthread_mutex_unlock(&tMutex);
        pthread_cond_signal(&tCond);
    }
    pthread_mutex_t tMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t tCond = PTHREAD_COND_INITIALIZER;
    unsigned dwCount;
};

// One lock for all threads of the row.
template <typename Lock>
void TakeGive(benchmark::State &state)
{
    static Lock lock;
    for (auto _ : state) {
        lock.Take();
        lock.Give();
    }
}

template <typename Lock>
void TakeTimedGive(benchmark::State &state)
{
    Lock lock;
    for (auto _ : state) {
        lock.TakeTimed();
        lock.Give();
    }
}

// There and back between two threads.
template <typename Semaphore>
void PingPong(benchmark::State &state)
{
    Semaphore ping(0);
    Semaphore pong(0);
    bool bStop = false; // handed over with ping
    std::thread partner([&] {
        for (;;) {
            ping.Take();
            if (bStop)
                return;
            pong.Give();
        }
    });
    for (auto _ : state) {
        ping.Give();
        pong.Take();
    }
    bStop = true;
    ping.Give();
    partner.join();
}

template <typename Lock>
void AddHammer(const std::string &strName, const std::string &strAim = "")
{
    for (int nThreads : {2, 4}) {
        const std::string strRow = "lock_hammer threads:" + std::to_string(nThreads);
        bench::Add(strRow, strName, TakeGive<Lock>, strAim)->Threads(nThreads);
    }
}

} // namespace

void bench::RegisterRows()
{
    Add("lock_uncontended", "appcore", TakeGive<AppcoreLock>, "1.1");
    Add("lock_uncontended", "pthread_mutex", TakeGive<PthreadMutex>);
    Add("lock_uncontended", "posix_sem", TakeGive<PosixSem>);
    Add("lock_uncontended", "glib", TakeGive<GlibMutex>);
    Add("lock_uncontended", "naive", TakeGive<NaiveSem>);

    Add("lock_timed", "appcore", TakeTimedGive<AppcoreLock>, "0.3");
    Add("lock_timed", "pthread_mutex", TakeTimedGive<PthreadMutex>);
    Add("lock_timed", "posix_sem", TakeTimedGive<PosixSem>);
    Add("lock_timed", "naive", TakeTimedGive<NaiveSem>);

    AddHammer<AppcoreLock>("appcore", "1.0");
    AddHammer<PthreadMutex>("pthread_mutex");
    AddHammer<PosixSem>("posix_sem");
    AddHammer<GlibMutex>("glib");
    AddHammer<NaiveSem>("naive");

    Add("lock_pingpong", "appcore", PingPong<AppcoreLock>, "1.15");
    Add("lock_pingpong", "posix_sem", PingPong<PosixSem>);
    Add("lock_pingpong", "naive", PingPong<NaiveSem>);

    Add("rlock_uncontended", "appcore", TakeGive<AppcoreRecursive>, "1.2");
    Add("rlock_uncontended", "pthread_mutex", TakeGive<PthreadRecursive>);
    Add("rlock_uncontended", "glib", TakeGive<GlibRecursive>);
}
