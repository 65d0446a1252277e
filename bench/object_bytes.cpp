// SPDX-License-Identifier: MIT
//
// How many bytes each object takes: of the limit of the pool that it comes from, and of the process's
// heap, what malloc keeps for itself included; the latter for objects out of a pool and out of the
// null pool.  One line each, name and three figures parted by tabs, "-" where there is none.  For glibc, whose
// malloc() is counted here.
//     object_bytes FOLDER      for log files
#include <malloc.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>

#include "appcore/containers.h"
#include "appcore/foundation.h"
#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "appcore/share_action.h"
#include "appcore/socket.h"
#include "appcore/task.h"

// ---- The heap -----------------------------------------------------------------------------------

static std::atomic<long> s_nHeap; // bytes in use

static void *Count(void *pv, long nSign)
{
    // malloc keeps the size of each block in front of it.
    if (pv)
        s_nHeap += nSign * static_cast<long>(malloc_usable_size(pv) + sizeof(size_t));
    return pv;
}

extern "C" {
void *__libc_malloc(size_t nSize);
void *__libc_calloc(size_t nCount, size_t nSize);
void *__libc_realloc(void *pv, size_t nSize);
void __libc_free(void *pv);

void *malloc(size_t nSize)
{
    return Count(__libc_malloc(nSize), 1);
}
void *calloc(size_t nCount, size_t nSize)
{
    return Count(__libc_calloc(nCount, nSize), 1);
}
void *realloc(void *pv, size_t nSize)
{
    Count(pv, -1);
    void *pvNew = __libc_realloc(pv, nSize);
    Count(pvNew || nSize == 0 ? pvNew : pv, 1);
    return pvNew;
}
void free(void *pv)
{
    Count(pv, -1);
    __libc_free(pv);
}
}

namespace
{

// ---- Measuring ----------------------------------------------------------------------------------

constexpr long kNone = -1;

void TakeAccount(void *pvAccount, const char *szText)
{
    const char *szSize = strstr(szText, "CurSize(");
    if (szSize)
        *static_cast<long *>(pvAccount) = atol(szSize + strlen("CurSize("));
}

// What counts to the limit.
long Account(HAppMemPool hPool)
{
    long nAccount = 0;
    AppMemPoolShow(
        hPool, [](const char *szText, void *pvContext) { TakeAccount(pvContext, szText); },
        &nAccount);
    return nAccount;
}

struct TUse {
    long nAccount, nHeap;
};

// Of one of `nCount` objects, after the first, which may bring what all share.
template <typename Make>
TUse UseOf(HAppMemPool hPool, int nCount, Make make)
{
    make(hPool, 0);
    const TUse before = {Account(hPool), s_nHeap};
    for (int i = 1; i <= nCount; ++i)
        make(hPool, i);
    return {(Account(hPool) - before.nAccount) / nCount, (s_nHeap - before.nHeap) / nCount};
}

void Print(const char *szName, long nAccount, long nPool, long nHeap)
{
    printf("%s", szName);
    for (const long n : {nAccount, nPool, nHeap})
        n == kNone ? printf("\t-") : printf("\t%ld", n);
    printf("\n");
}

HAppMemPool NewPool()
{
    HAppMemPool hPool = nullptr;
    if (AppMemPoolCreate(0, 1, 0, &hPool) != APP_OK)
        abort();
    return hPool;
}

// An object whose creator chooses the pool.
template <typename Make>
void Show(const char *szName, int nCount, Make make)
{
    const TUse pool = UseOf(NewPool(), nCount, make);
    Print(szName, pool.nAccount, pool.nHeap, UseOf(nullptr, nCount, make).nHeap);
}

// One that is always on the heap.
template <typename Make>
void ShowHeap(const char *szName, Make make)
{
    Print(szName, kNone, kNone, UseOf(nullptr, 16, make).nHeap);
}

// ---- Objects ------------------------------------------------------------------------------------

void ShowBlocks()
{
    for (const uint32_t dwSize : {1u, 16u, 32u, 64u, 256u, 1024u, 4096u, 65536u, 5000000u}) {
        char achName[32];
        snprintf(achName, sizeof(achName), "block of %u", dwSize);
        Show(achName, 64, [=](HAppMemPool hPool, int) { AppMemPoolMalloc(hPool, dwSize); });
    }
}

void ShowContainers()
{
    Show("semaphore", 256, [](HAppMemPool hPool, int) {
        HAppLock hLock;
        AppLockCreate(hPool, 1, 1, APP_LOCK_TYPE_SEM, &hLock);
    });
    Show("recursive lock", 256, [](HAppMemPool hPool, int) {
        HAppLock hLock;
        AppLockCreate(hPool, 1, 1, APP_LOCK_TYPE_RECURSIVE, &hLock);
    });
    static HAppDoubleList s_hList;
    Show("list without lock", 256,
         [](HAppMemPool hPool, int) { AppDoubleListCreate(hPool, 0, 0, &s_hList); });
    Show("its node", 256, [](HAppMemPool hPool, int i) {
        HAppDoubleListNode hNode;
        if (i == 0)
            AppDoubleListCreate(hPool, 0, 0, &s_hList);
        AppDoubleListInsertAfter(s_hList, nullptr, &s_hList, &hNode);
    });
    static HAppQueue s_hQueue;
    Show("queue with lock", 256,
         [](HAppMemPool hPool, int) { AppQueueCreate(hPool, 1000, 1, &s_hQueue); });
    Show("its element", 256, [](HAppMemPool hPool, int i) {
        if (i == 0)
            AppQueueCreate(hPool, 1000, 1, &s_hQueue);
        AppQueueIn(s_hQueue, &s_hQueue, 0);
    });
}

HAppLock s_hStarted, s_hBusy;
std::atomic<long> s_nTouched; // bytes of the last task's stack

void MeasureStack()
{
    pthread_attr_t tAttr;
    void *pvLowest = nullptr;
    size_t nSize = 0, nPages = 0;
    pthread_getattr_np(pthread_self(), &tAttr);
    pthread_attr_getstack(&tAttr, &pvLowest, &nSize);
    pthread_attr_destroy(&tAttr);
    const auto nPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    unsigned char abyPage[256] = {};
    if (nSize / nPage <= sizeof(abyPage) && mincore(pvLowest, nSize, abyPage) == 0)
        for (const unsigned char by : abyPage)
            nPages += by & 1;
    s_nTouched = static_cast<long>(nPages * nPage);
}

uint32_t Handle(HAppTask, uint32_t dwType, void *, void *)
{
    if (dwType != APP_TASK_EVENT_USER)
        return 0;
    MeasureStack();
    AppLockGive(s_hStarted);
    AppLockTakeByTime(s_hBusy, 0); // until the process ends
    return 0;
}

HAppTask NewTask(HAppTaskMgr hTaskMgr)
{
    HAppTask hTask = nullptr;
    if (AppTaskMgrNewTask(hTaskMgr, "task", 1000, 65536, 0, 0, Handle, nullptr, &hTask) != APP_OK)
        abort();
    return hTask;
}

void ShowTasks()
{
    static HAppTaskMgr s_hTaskMgr;
    static HAppTask s_hTask;
    const auto Manager = [](HAppMemPool hPool, int) {
        AppTaskMgrCreate(hPool, 100, 0, &s_hTaskMgr);
    };
    // A task whose thread is in a handler: what is sent or set stays.
    const auto Task = [=](HAppMemPool hPool, int i) {
        if (i == 0)
            Manager(hPool, 0);
        s_hTask = NewTask(s_hTaskMgr);
    };
    AppLockCreate(nullptr, 100, 0, APP_LOCK_TYPE_SEM, &s_hStarted);
    AppLockCreate(nullptr, 1, 0, APP_LOCK_TYPE_SEM, &s_hBusy);
    const auto Busy = [=](HAppMemPool hPool) {
        Task(hPool, 0);
        AppTaskSendEvent(s_hTask, nullptr, nullptr, nullptr);
        AppLockTakeByTime(s_hStarted, 0);
    };
    Show("task manager", 16, Manager);
    Show("task, but for its stack", 16, Task);
    Show("event that waits", 256, [=](HAppMemPool hPool, int i) {
        if (i == 0)
            Busy(hPool);
        AppTaskSendEvent(s_hTask, nullptr, nullptr, nullptr);
    });
    Show("timer", 256, [=](HAppMemPool hPool, int i) {
        if (i == 0)
            Busy(hPool);
        AppTaskSetTimer(s_hTask, 1000000, nullptr, nullptr);
    });
    Print("stack of 64 KiB, what its thread touches", kNone, kNone, s_nTouched);
}

void ShowRest(const char *szFolder)
{
    ShowHeap("pool without lock", [](HAppMemPool, int) {
        HAppMemPool hPool;
        AppMemPoolCreate(0, 0, 0, &hPool);
    });
    ShowHeap("pool with lock", [](HAppMemPool, int) { NewPool(); });
    Show("socket", 16,
         [](HAppMemPool hPool, int) { AppSocketCreate(hPool, APP_SOCKET_UDP, APP_NET_ADDR_IPV4); });
    ShowHeap("action", [](HAppMemPool, int i) {
        char achKey[16];
        snprintf(achKey, sizeof(achKey), "action%03d", i);
        AppRegisterShareAction(achKey, [](uint32_t, uint32_t, uint32_t) { return 0u; });
    });
    ShowHeap("log channel with a file", [=](HAppMemPool, int i) {
        char achPath[128];
        snprintf(achPath, sizeof(achPath), "%s/log%d", szFolder, i);
        AppSetFileLog(static_cast<uint8_t>(10 + i), achPath, 65536);
        AppLogFile(static_cast<uint8_t>(10 + i), APP_LOG_ALWAYS, "line\n");
    });
}

// The limit counts what is asked for, and nothing else.
void ShowFilledPool()
{
    HAppMemPool hPool = nullptr;
    AppMemPoolCreate(65536, 0, 0, &hPool);
    static void *s_apv[65536];
    const long nBefore = s_nHeap;
    long nCount = 0;
    while ((s_apv[nCount] = AppMemPoolMalloc(hPool, 1)))
        ++nCount;
    Print("pool of 64 KiB full of blocks of 1", nCount, s_nHeap - nBefore, kNone);
    for (long i = 0; i < nCount; ++i)
        AppMemPoolFree(s_apv[i]);
    Print("the same, every block freed", Account(hPool), s_nHeap - nBefore, kNone);
}

} // namespace

int main(int nArgs, char **aszArg)
{
    setvbuf(stdout, nullptr, _IOLBF, 4096);
    ShowBlocks();
    ShowContainers();
    ShowTasks();
    ShowRest(nArgs > 1 ? aszArg[1] : "/tmp");
    ShowFilledPool();
    fflush(stdout);
    _exit(0);
}
