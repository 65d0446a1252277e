// SPDX-License-Identifier: MIT
//
// How much of its stack a task needs, from the top of the stack: what the C library keeps there,
// the task's loop, a handler that needs next to nothing, and one operation.  The handler paints
// what lies below itself, and the next handler looks how far the paint has gone.
//     stack_use [FOLDER]     for the log file; /tmp when not given
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "appcore/appcore.h"

namespace
{

constexpr uint32_t kStack = 256 * 1024;
constexpr uint8_t kChannel = 9;
constexpr unsigned char kPaint = 0xA5;

struct Row {
    const char *szName;
    void (*pfnRun)(HAppTask hTask);
};

HAppLock s_hDone;
HAppMemPool s_hPool;
HAppTaskMgr s_hTaskMgr;
HAppTask s_hFull; // a task whose queue is full
size_t s_nUsed;
size_t s_nAbove; // of it, what lies above the handler

unsigned char *s_pbyLowest;
size_t s_nSize;

[[gnu::noinline]] void Paint()
{
    pthread_attr_t tAttr;
    void *pvLowest = nullptr;
    pthread_getattr_np(pthread_self(), &tAttr);
    pthread_attr_getstack(&tAttr, &pvLowest, &s_nSize);
    pthread_attr_destroy(&tAttr);
    s_pbyLowest = static_cast<unsigned char *>(pvLowest);
    s_nAbove = static_cast<size_t>(s_pbyLowest + s_nSize -
                                   static_cast<unsigned char *>(__builtin_frame_address(0)));
    const auto pbyEnd = static_cast<unsigned char *>(__builtin_frame_address(0)) - 256;
    for (volatile unsigned char *pby = s_pbyLowest; pby < pbyEnd; ++pby)
        *pby = kPaint;
}

// The bytes from the lowest one that is not painted any more to the top.
[[gnu::noinline]] size_t Used()
{
    size_t nUnused = 0;
    while (s_pbyLowest[nUnused] == kPaint)
        ++nUnused;
    return s_nSize - nUnused;
}

uint32_t Nothing(HAppTask, uint32_t, void *, void *)
{
    return 0;
}

void Console(HAppTask)
{
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: %s %d %lu %p\n", __func__, "text", 7, 8ul,
           static_cast<void *>(&s_nUsed));
}

void Stdout(HAppTask)
{
    AppSetLogViaStdout(0, 1);
    Console(nullptr);
    AppSetLogViaStdout(0, 0);
}

void StdoutUnbuffered(HAppTask)
{
    setvbuf(stdout, nullptr, _IONBF, 0);
    Stdout(nullptr);
}

void Double(HAppTask)
{
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: %f %g %.17Lg\n", __func__, 1e300, 1.5, 3.25L);
}

void File(HAppTask)
{
    for (int i = 0; i < 3; ++i)
        AppLog(kChannel, APP_LOG_ALWAYS, "a line of %s %d\n", "text", i);
}

// The disk is full and the loss is told.
void FileLost(HAppTask)
{
    struct rlimit tOld;
    getrlimit(RLIMIT_FSIZE, &tOld);
    struct rlimit tSmall = tOld;
    tSmall.rlim_cur = 1;
    setrlimit(RLIMIT_FSIZE, &tSmall);
    File(nullptr);
    setrlimit(RLIMIT_FSIZE, &tOld);
    File(nullptr);
}

void Refused(HAppTask)
{
    AppTaskSendEvent(s_hFull, nullptr, nullptr, nullptr);
}

void Timer(HAppTask hTask)
{
    AppTaskSetTimer(hTask, 0, Nothing, nullptr);
}

void Pool(HAppTask)
{
    AppMemPoolShow(
        s_hPool, [](const char *, void *) {}, nullptr);
}

void Tasks(HAppTask)
{
    AppTaskMgrShow(
        s_hTaskMgr, [](const char *, void *) {}, nullptr);
}

void TasksPrinted(HAppTask)
{
    AppTaskMgrShow(
        s_hTaskMgr, [](const char *szText, void *) { AppLog(0, APP_LOG_ERROR, "%s", szText); },
        nullptr);
}

// A timer that is set by the handler runs between the painting and the look at it.
uint32_t Handle(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *)
{
    if (dwEventType != APP_TASK_EVENT_USER)
        return 0;
    if (auto ptRow = static_cast<const Row *>(pvArg)) {
        Paint();
        ptRow->pfnRun(hTask);
    } else {
        s_nUsed = Used();
        AppLockGive(s_hDone);
    }
    return 0;
}

constexpr Row kRows[] = {
    {"nothing", [](HAppTask) {}},
    {"AppLog, console", Console},
    {"AppLog, floating point", Double},
    {"AppLog, standard output too", Stdout},
    {"AppLog, file too", File},
    {"AppLog, file on a full disk", FileLost},
    {"AppTaskSendEvent, refused", Refused},
    {"AppTaskSetTimer and expiry", Timer},
    {"AppMemPoolShow", Pool},
    {"AppTaskMgrShow", Tasks},
    {"AppTaskMgrShow, logged", TasksPrinted},
    {"AppLog, standard output too, unbuffered", StdoutUnbuffered},
};

uint32_t Stand(HAppTask, uint32_t dwEventType, void *pvLock, void *)
{
    return dwEventType == APP_TASK_EVENT_USER ? AppLockTakeByTime(static_cast<HAppLock>(pvLock), 0)
                                              : 0;
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGXFSZ, SIG_IGN);
    const std::string strFile = std::string(argc > 1 ? argv[1] : "/tmp") + "/stack_use.log";
    HAppLock hStand = nullptr;
    AppLockCreate(nullptr, 1, 0, APP_LOCK_TYPE_SEM, &s_hDone);
    AppLockCreate(nullptr, 1, 0, APP_LOCK_TYPE_SEM, &hStand);
    AppMemPoolCreate(1 << 20, 1, 1, &s_hPool);
    AppMemPoolFree(AppMemPoolMalloc(s_hPool, 100));
    AppTaskMgrCreate(s_hPool, 20, 0, &s_hTaskMgr);
    AppTaskMgrNewTask(s_hTaskMgr, "full", 1, kStack, 0, 0, Nothing, nullptr, &s_hFull);
    AppTaskSendEvent(s_hFull, hStand, Stand, hStand);
    AppSetFileLog(kChannel, strFile.c_str(), 100);
    AppDelay(100);
    AppTaskSendEvent(s_hFull, nullptr, nullptr, nullptr);
    std::string strTable = "| in a task | stack, bytes | below the handler |\n|---|---|---|\n";
    for (const Row &row : kRows) {
        HAppTask hTask = nullptr;
        AppTaskMgrNewTask(s_hTaskMgr, "measured", 8, kStack, 0, 0, Handle, nullptr, &hTask);
        AppTaskSendEvent(hTask, const_cast<Row *>(&row), nullptr, nullptr);
        AppDelay(100);
        AppTaskSendEvent(hTask, nullptr, nullptr, nullptr);
        AppLockTakeByTime(s_hDone, 0);
        strTable += std::string("| ") + row.szName + " | " + std::to_string(s_nUsed) + " | " +
                    std::to_string(s_nUsed - s_nAbove) + " |\n";
    }
    AppLockGive(hStand);
    AppTaskMgrDestroy(s_hTaskMgr);
    AppCloseFileLog(kChannel);
    unlink(strFile.c_str());
    unlink((strFile + "1").c_str());
    AppMemPoolDestroy(s_hPool);
    AppLockDestroy(hStand);
    AppLockDestroy(s_hDone);
    fputs(strTable.c_str(), stdout);
    return 0;
}
