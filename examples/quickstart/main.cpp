// SPDX-License-Identifier: MIT
//
// A tour in two seconds: logging into a rotating file, a pool with a limit, a priority queue
// between threads, a task with a periodic timer, and the reports.  Link with -lappcore.
#include <appcore/appcore.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <thread>

namespace
{

uint8_t s_byChannel; // this program's log channel; the library itself logs on channel 0

// Every failure has been logged by the library before a code comes back.
void Require(bool bHolds, const char *szWhat)
{
    if (bHolds)
        return;
    AppLog(s_byChannel, APP_LOG_ERROR, "[ERROR] %s: %s failed\n", __func__, szWhat);
    exit(EXIT_FAILURE);
}

void Print(const char *szText, void *pvFile)
{
    fputs(szText, static_cast<FILE *>(pvFile));
}

// ---- A queue: larger priorities come out first ------------------------------------------------

struct Message {
    char achText[48];
};

enum { kRoutine = 0, kAlarm = 10, kEnd = -1 }; // the end comes out when nothing else is left

void Produce(HAppMemPool hPool, HAppQueue hQueue, int nProducer)
{
    for (int i = 1; i <= 3; ++i) {
        auto ptMessage = static_cast<Message *>(AppMemPoolMalloc(hPool, sizeof(Message)));
        Require(ptMessage, "AppMemPoolMalloc");
        AppSnprintf(ptMessage->achText, sizeof(ptMessage->achText), "%s %d of producer %d",
                    i == 3 ? "ALARM" : "frame", i, nProducer);
        Require(AppQueueIn(hQueue, ptMessage, i == 3 ? kAlarm : kRoutine) == APP_OK, "AppQueueIn");
    }
}

void Consume(HAppQueue hQueue, int nConsumer)
{
    void *pvMessage = nullptr;
    while (AppQueueOut(hQueue, 0, &pvMessage) == APP_OK && pvMessage) {
        AppLog(s_byChannel, APP_LOG_ALWAYS, "consumer %d: %s\n", nConsumer,
               static_cast<Message *>(pvMessage)->achText);
        AppMemPoolFree(pvMessage); // the block knows its pool
    }
}

void ShowQueue(HAppMemPool hPool)
{
    HAppQueue hQueue;
    Require(AppQueueCreate(hPool, 64, 1, &hQueue) == APP_OK, "AppQueueCreate");
    std::thread first(Produce, hPool, hQueue, 1), second(Produce, hPool, hQueue, 2);
    first.join();
    second.join();
    AppQueueIn(hQueue, nullptr, kEnd); // one for each consumer
    AppQueueIn(hQueue, nullptr, kEnd);
    std::thread third(Consume, hQueue, 1), fourth(Consume, hQueue, 2);
    third.join();
    fourth.join();
    AppQueueDestroy(hQueue, nullptr, nullptr);
}

// ---- A task: events and timers, one after the other, in a thread of its own --------------------

struct Heartbeat {
    int nBeats = 0;
    HAppLock hDone = nullptr; // given after the last beat
};

constexpr uint32_t kBeatMs = 150;
constexpr int kBeats = 10;

uint32_t HandleHeartbeat(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvContext)
{
    auto ptHeartbeat = static_cast<Heartbeat *>(pvContext);
    switch (dwEventType) {
    case APP_TASK_EVENT_USER:
        AppLog(s_byChannel, APP_LOG_ALWAYS, "heartbeat: %s\n", static_cast<const char *>(pvArg));
        AppTaskSetTimer(hTask, kBeatMs, nullptr, nullptr); // told to this handler too
        break;
    case APP_TASK_EVENT_TIMEOUT: // timers are one-shot: a periodic one is set again
        AppLog(s_byChannel, APP_LOG_ALWAYS, "heartbeat: beat %d\n", ++ptHeartbeat->nBeats);
        AppTaskSetTimer(hTask, kBeatMs, nullptr, nullptr);
        if (ptHeartbeat->nBeats == kBeats)
            AppLockGive(ptHeartbeat->hDone);
        break;
    case APP_TASK_EVENT_TIMER_CANCEL:
        AppLog(s_byChannel, APP_LOG_ALWAYS, "heartbeat: timer cancelled\n");
        break;
    }
    return 0;
}

void ShowTask(HAppMemPool hPool)
{
    Heartbeat heartbeat;
    HAppTaskMgr hTaskMgr;
    HAppTask hTask;
    Require(AppLockCreate(hPool, 1, 0, APP_LOCK_TYPE_SEM, &heartbeat.hDone) == APP_OK,
            "AppLockCreate");
    Require(AppTaskMgrCreate(hPool, 4, 30000, &hTaskMgr) == APP_OK, "AppTaskMgrCreate");
    Require(AppTaskMgrNewTask(hTaskMgr, "heartbeat", 16, 64 * 1024, 0, 0, HandleHeartbeat,
                              &heartbeat, &hTask) == APP_OK,
            "AppTaskMgrNewTask");
    AppTaskSendEvent(hTask, const_cast<char *>("start"), nullptr, nullptr);
    AppLockTakeByTime(heartbeat.hDone, 0);
    puts("\nThe manager's report, with its pool's:");
    AppTaskMgrShow(hTaskMgr, Print, stdout);
    AppTaskMgrDestroy(hTaskMgr); // waits for the thread; the timer left is cancelled
    AppLockDestroy(heartbeat.hDone);
}

} // namespace

int main()
{
    char achFolder[] = "/tmp/quickstart-XXXXXX";
    Require(mkdtemp(achFolder), "mkdtemp");
    char achLog[64], achBackup[64];
    AppSnprintf(achLog, sizeof(achLog), "%s/log", achFolder);
    AppSnprintf(achBackup, sizeof(achBackup), "%s1", achLog); // the full file moves here

    s_byChannel = AppGenerateLogChannel();
    AppSetLogViaStdout(s_byChannel, 0); // the console, standard error here, shows the lines already
    Require(AppSetFileLog(s_byChannel, achLog, 512) == 1, "AppSetFileLog");

    HAppMemPool hPool;
    Require(AppMemPoolCreate(64 * 1024, 1, 0, &hPool) == APP_OK, "AppMemPoolCreate");
    ShowQueue(hPool);

    const char szBytes[] = "Sixteen bytes in each row, as hex and as text.";
    char achDump[512];
    AppDumpMem(reinterpret_cast<const uint8_t *>(szBytes), sizeof(szBytes), achDump,
               sizeof(achDump));
    fputs(achDump, stdout);

    ShowTask(hPool);
    puts("\nThe pool's report, with everything given back:");
    AppMemPoolShow(hPool, Print, stdout);
    AppMemPoolDestroy(hPool);

    AppCloseFileLog(s_byChannel);
    const bool bRotated = access(achBackup, F_OK) == 0;
    printf("\nThe log was %s.\n", bRotated ? "rotated" : "not rotated");
    unlink(achLog);
    unlink(achBackup);
    rmdir(achFolder);
    return bRotated ? EXIT_SUCCESS : EXIT_FAILURE;
}
