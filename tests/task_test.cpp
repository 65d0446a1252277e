// SPDX-License-Identifier: MIT
#include <stdio.h>

#include <string.h>

#include <algorithm>

#include "cross_linux/cross_linux.h"
#include "mempool/mempool.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/tasks.h"
#include "utils/double_list.h"
#include "utils/lock_guard.h"
#include "utils/log.h"
#include "utils/queue.h"

using app::Ptr;
using fault::Fn;
using test::Arg;
using test::Diary;
using test::Door;
using test::LogCapture;
using test::Manager;
using test::Text;
using test::Wanted;

namespace {

std::string ThreadName(int32_t nThreadId) {
    std::string path = "/proc/self/task/" + std::to_string(nThreadId) + "/comm";
    char achName[32] = "";
    if (FILE *ptFile = fopen(path.c_str(), "r")) {
        if (!fgets(achName, sizeof(achName), ptFile)) achName[0] = '\0';
        fclose(ptFile);
    }
    achName[strcspn(achName, "\n")] = '\0';
    return achName;
}

uint32_t StateOf(HAppTask hTask) { return app::Peek(hTask->dwState); }

std::string Line(const char *szOp, const char *szFormat, HAppTask hTask, const char *szState) {
    return Text(szFormat, szOp, Ptr(hTask), szState);
}

constexpr char kRefused[] = "[ERROR] %s: Invalid Task State. Task %p state %s\n";
// Timers say it the other way round.
std::string TimerLine(const char *szOp, HAppTask hTask, const char *szState) {
    return Text("[ERROR] %s: Invalid state %s of task %p\n", szOp, szState, Ptr(hTask));
}

void Send(HAppTask hTask, uintptr_t nArg) { EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(nArg), nullptr, nullptr)); }

// A task whose thread stands in a handler, so that its queue and timers stay as they are.
class Busy {
public:
    Busy(Manager &manager, Diary &diary, Wanted wanted = {})
        : m_diary([this](const Diary::Call &) { m_door.Pass(); }), hTask(manager.New(diary, wanted)) {
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, Diary::Handle, &m_diary));
        m_door.AwaitVisitor();
    }
    void Go() { m_door.Open(); }

private:
    Diary m_diary;
    Door m_door;

public:
    HAppTask hTask;
};

// ---- Manager ----------------------------------------------------------------------------------

TEST(TaskManager, RefusesAndLimits) {
    LogCapture log;
    HAppTask hTask = nullptr;
    __AppFreeTaskCB(nullptr, nullptr);
    log.ExpectLines({"[ERROR] __AppFreeTaskCB: NULL Task Found.\n"});

    Diary diary;
    for (const uint32_t dwMax : {0u, 2u}) {
        Manager manager(dwMax);
        for (uint32_t i = 0; i < dwMax; ++i) manager.New(diary);
        log.Clear();
        EXPECT_CODE(APP_NO_RESOURCE, AppTaskMgrNewTask(manager.Get(), "a", 1, 0, 0, 0, nullptr, nullptr, &hTask));
        EXPECT_EQ(hTask, nullptr);
        log.ExpectLines({Text("[ERROR] AppTaskMgrNewTask: Task Max Num %u reach: 104\n", dwMax)});
    }
}

TEST(TaskManager, ReusesTheTaskThatWasParkedLast) {
    LogCapture log;
    Diary first, second, third;
    Manager manager(2);
    HAppTask hFirst = manager.New(first, {"first"});
    HAppTask hSecond = manager.New(second, {"second", 0});
    log.ExpectLines({Text("[INFO ] AppTaskMgrNewTask: _AppTaskCreate: first %p\n", Ptr(hFirst)),
                     "[ERROR] AppQueueCreate: change dwMaxSize(0) ==> 1048576\n",
                     Text("[INFO ] AppTaskMgrNewTask: _AppTaskCreate: second %p\n", Ptr(hSecond))});
    EXPECT_EQ(_AppQueueGetMaxSize(hSecond->hEventQueue), APP_QUEUE_DEFAULT_MAX);
    HAppMemPool hPool = AppTaskGetMemPool(hSecond);
    EXPECT_NE(hPool, nullptr);
    manager.Park(hFirst);
    manager.Park(hSecond);
    EXPECT_EQ(hSecond->hListNode, manager.Get()->hIdleTaskList->ptTail);
    const int32_t nThreadId = hSecond->nThreadId;
    EXPECT_EQ(second.Text(), "stop");
    log.Clear();

    EXPECT_EQ(manager.New(third, {"a name longer than a thread's", 0, 0, 1}), hSecond);
    EXPECT_EQ(manager.New(third, {nullptr}), hFirst);
    log.ExpectLines({Text("[INFO ] AppTaskMgrNewTask: Reuse Task: %p\n", Ptr(hSecond)),
                     Text("[INFO ] AppTaskMgrNewTask: Reuse Task: %p\n", Ptr(hFirst))});
    Send(hSecond, 7); // after the refresh
    third.Await("user 7");
    EXPECT_EQ(second.Text() + first.Text(), "stopstop");
    EXPECT_EQ(third.Calls()[0].nThreadId, nThreadId);
    EXPECT_EQ(hSecond->nThreadId, nThreadId);
    EXPECT_EQ(ThreadName(nThreadId), "a name longer t");
    EXPECT_EQ(AppTaskGetMemPool(hSecond), hPool);
    EXPECT_EQ(_AppQueueGetMaxSize(hSecond->hEventQueue), 0u);
    EXPECT_LE(_AppQueueGetTopSize(hSecond->hEventQueue), 2u);
    EXPECT_EQ(hFirst->szTaskName, nullptr);
    EXPECT_TRUE(app::ListIsValid(manager.Get()->hTaskList));
}

TEST(TaskManager, TakesNameStackAndPool) {
    Diary diary;
    LogCapture log;
    Manager manager;
    HAppTask hTask = manager.New(diary, {"", 5, 0, 1000});
    EXPECT_EQ(hTask->szTaskName, nullptr);
    EXPECT_EQ(_AppQueueGetMaxSize(hTask->hEventQueue), 5u);
    EXPECT_EQ(AppMemPoolMalloc(AppTaskGetMemPool(hTask), 1000), nullptr);
    void *pvBlock = AppMemPoolMalloc(AppTaskGetMemPool(hTask), 999);
    EXPECT_NE(pvBlock, nullptr);
    AppMemPoolFree(pvBlock);
    for (const char *szEmpty : {"", static_cast<const char *>(nullptr)}) {
        manager.Park(hTask);
        EXPECT_EQ(manager.New(diary, {szEmpty}), hTask);
        EXPECT_EQ(hTask->szTaskName, nullptr);
    }
}

TEST(TaskManager, SkipsAnIdleTaskThatHasChosenToEnd) {
    LogCapture log;
    Diary diary;
    Door door;
    HAppTask hEnding = nullptr;
    // The thread has decided to end, but has not come to carry it out.
    const std::function<void()> stall = [&] {
        if (StateOf(hEnding) == APP_TASK_STATE_TERMINATE) door.Pass();
    };
    Diary last([&](const Diary::Call &call) { test::LookOften(call.hTask, &stall); });
    Manager manager(8, 10);
    HAppTask hParked = manager.New(diary);
    hEnding = manager.New(last);
    manager.Park(hParked);
    manager.Park(hEnding);
    door.AwaitVisitor();
    EXPECT_EQ(hEnding->hListNode, manager.Get()->hIdleTaskList->ptTail);
    EXPECT_EQ(manager.New(diary), hParked);
    EXPECT_NE(manager.New(diary), hEnding);
    EXPECT_EQ(manager.Idle(), 1u);
    door.Open();
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 0; }));
}

TEST(TaskManager, EndsIdleTasksWhenNobodyTakesThem) {
    LogCapture log(APP_LOG_DEBUG);
    Diary diary([](const Diary::Call &call) { test::LookOften(call.hTask); });
    Manager manager(4, 10);
    std::vector<HAppTask> tasks;
    for (int i = 0; i < 4; ++i) tasks.push_back(manager.New(diary, {"t", 10, 1})); // first wait: 300 ms
    diary.Await("stop, stop, stop, stop");
    const std::string ended = "[DEBUG] _AppTaskGoForTerminateHandler: go for uninit\n";
    EXPECT_TRUE(test::WaitUntil([&] { return log.Count(ended) == 4; }));
    EXPECT_EQ(manager.Idle(), 0u);
    EXPECT_EQ(log.Count("[DEBUG] _AppTaskGoForIdleHandler: go for idle\n"), 4u);
    EXPECT_EQ(
        log.Count(Text("[DEBUG] _AppTaskGoForIdleHandler: task %p go on state IDLE\n", static_cast<void *>(tasks[0]))),
        1u);
}

TEST(TaskManager, NamesItsStates) {
    const char *const names[] = {"INIT", "RUNNING", "PROCESSING", "IDLE", "TERMINATE", "UNINIT", "UNKNOWN"};
    for (uint32_t dwState = 0; dwState < 7; ++dwState) EXPECT_STREQ(_AppGetTaskStateString(dwState), names[dwState]);
}

// ---- Events -----------------------------------------------------------------------------------

TEST(TaskEvents, ReachTheirHandlersInOrder) {
    LogCapture log;
    Diary own, tasks;
    Manager manager;
    HAppTask hTask = manager.New(tasks);
    for (uintptr_t i = 1; i <= 3; ++i) EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(i), nullptr, &own));
    EXPECT_CODE(APP_OK, AppTaskAssignEvent(hTask, Arg(4), Diary::Handle, &own));
    own.Await("user 4");
    EXPECT_EQ(tasks.Text(), "user 1, user 2, user 3");
    EXPECT_EQ(own.Calls()[0].nThreadId, tasks.Calls()[0].nThreadId);
    EXPECT_EQ(ThreadName(own.Calls()[0].nThreadId), "task");

    uint32_t dwType = 99;
    void *pvArg = nullptr, *pvContext = nullptr;
    PFAppTaskHandler pfnHandler = nullptr;
    EXPECT_CODE(APP_OK, AppTaskGetLastEvent(hTask, &dwType, &pvArg, &pfnHandler, &pvContext));
    EXPECT_EQ(dwType, APP_TASK_EVENT_USER);
    EXPECT_EQ(pvArg, Arg(4));
    EXPECT_EQ(pfnHandler, Diary::Handle);
    EXPECT_EQ(pvContext, &own);
}

TEST(TaskEvents, AFullQueueRefusesOnlySends) {
    LogCapture log;
    Diary diary;
    Manager manager;
    Busy busy(manager, diary, {"task", 2});
    Send(busy.hTask, 1);
    Send(busy.hTask, 2);
    log.Clear();
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskSendEvent(busy.hTask, Arg(3), nullptr, nullptr));
    log.ExpectLines({"[ERROR] _AppQueueIn: Queue full. cur size: 2 max size: 2\n",
                     "[ERROR] _AppTaskSendEvent: AppQueueIn failed 104\n"});
    EXPECT_CODE(APP_OK, AppTaskAssignEvent(busy.hTask, Arg(4), nullptr, nullptr));
    EXPECT_EQ(_AppQueueGetTopSize(busy.hTask->hEventQueue), 3u);
    busy.Go();
    diary.Await("user 1, user 2, user 4");
}

TEST(TaskEvents, ATerminatedTaskTellsAllAndForgets) {
    LogCapture log;
    Diary own, diary;
    Manager manager;
    Busy busy(manager, diary);
    HAppTask hTask = busy.hTask;
    HAppTimer hTimer = AppTaskSetTimer(hTask, 100000, nullptr, nullptr);
    AppTaskSetTimer(hTask, 100000, Diary::Handle, &own);
    Send(hTask, 1);
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(2), Diary::Handle, &own));
    EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
    EXPECT_CODE(APP_OK, AppTaskTerminate(hTask)); // met by the drain of the first
    Send(hTask, 3);
    log.Clear();
    busy.Go();
    diary.Await("cancel, drop 1, drop 3, stop");
    EXPECT_EQ(own.Text(), "cancel, drop 2");
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
    log.ExpectLines(
        {Line("_AppTaskGoForIdleHandler", "[ERROR] %s: Invalid call. task %p state %s event type 2\n", hTask, "IDLE")});

    EXPECT_CODE(APP_INVALID_ARG, AppTaskSendEvent(hTask, nullptr, nullptr, nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppTaskAssignEvent(hTask, nullptr, nullptr, nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppTaskTerminate(hTask));
    EXPECT_EQ(AppTaskSetTimer(hTask, 1, nullptr, nullptr), nullptr);
    EXPECT_CODE(APP_INVALID_STATE, AppTaskResetTimer(hTimer));
    AppTaskCancelTimer(hTimer);
    EXPECT_EQ(AppTaskTimerGetRemainTime(hTimer), 0u);
    log.ExpectLines({Line("AppTaskSendEvent", kRefused, hTask, "IDLE"),
                     Line("AppTaskAssignEvent", kRefused, hTask, "IDLE"),
                     Line("AppTaskTerminate", kRefused, hTask, "IDLE"), TimerLine("AppTaskSetTimer", hTask, "IDLE"),
                     TimerLine("AppTaskResetTimer", hTask, "IDLE"), TimerLine("AppTaskCancelTimer", hTask, "IDLE"),
                     TimerLine("AppTaskTimerGetRemainTime", hTask, "IDLE")});
}

// Everything that a handler may do to its own task and its manager.
TEST(TaskEvents, HandlersMayDoAnything) {
    LogCapture log(APP_LOG_ALWAYS);
    Diary helper;
    std::vector<uint32_t> codes;
    HAppTaskMgr hTaskMgr = nullptr;
    HAppTimer hVictim = nullptr;
    Diary diary([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_TIMER_CANCEL) { // sets whatever it is told anew
            codes.push_back(AppTaskSetTimer(call.hTask, 0, nullptr, nullptr) != nullptr);
        } else if (call.pvArg == Arg(1)) {
            codes.push_back(AppTaskSendEvent(call.hTask, Arg(2), nullptr, nullptr));
            codes.push_back(AppTaskSendEvent(call.hTask, Arg(3), nullptr, nullptr)); // full
            codes.push_back(AppTaskAssignEvent(call.hTask, Arg(4), nullptr, nullptr));
            HAppTask hOther = nullptr;
            codes.push_back(AppTaskMgrNewTask(hTaskMgr, "other", 9, 65536, 0, 0, Diary::Handle, &helper, &hOther));
            codes.push_back(AppTaskSendEvent(hOther, Arg(5), nullptr, nullptr));
            hVictim = AppTaskSetTimer(hOther, 100000, Diary::Handle, &helper);
            AppTaskCancelTimer(hVictim);
            AppTaskSetTimer(call.hTask, 100000, nullptr, nullptr);
            codes.push_back(AppTaskTerminate(call.hTask));
            AppTaskMgrShow(hTaskMgr, nullptr, nullptr);
        } else { // the notices: nothing is admitted, and a task is handed out, but not this one
            codes.push_back(AppTaskSendEvent(call.hTask, Arg(6), nullptr, nullptr));
        }
    });
    Manager manager;
    hTaskMgr = manager.Get();
    HAppTask hTask = manager.New(diary, {"task", 1});
    Send(hTask, 1);
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
    EXPECT_EQ(diary.Text(), "user 1, cancel, drop 2, drop 4, stop");
    EXPECT_EQ(codes, (std::vector<uint32_t>{APP_OK, APP_NO_RESOURCE, APP_OK, APP_OK, APP_OK, APP_OK, 0, APP_INVALID_ARG,
                                            APP_INVALID_ARG, APP_INVALID_ARG}));
    EXPECT_TRUE(test::WaitUntil([&] { return helper.Calls().size() == 2; }));
    EXPECT_EQ(hTask->ptTimerMgr->hTimerList->dwCurSize, 0u);
}

TEST(TaskEvents, InternalRequestsRefuseWhatIsNotTheirs) {
    LogCapture log;
    Diary diary;
    Manager manager;
    HAppTask hTask = manager.New(diary);
    EXPECT_TRUE(test::WaitUntil([&] { return StateOf(hTask) == APP_TASK_STATE_RUNNING; }));
    log.Clear();
    _AppTaskGoForIdleHandler(hTask, APP_TASK_EVENT_STOP, nullptr, nullptr);
    _AppTaskGoForTerminateHandler(hTask, APP_TASK_EVENT_STOP, nullptr, nullptr);
    _AppTaskGoForTerminateHandler(hTask, APP_TASK_EVENT_DROP, nullptr, nullptr);
    log.ExpectLines({Line("_AppTaskGoForIdleHandler", "[ERROR] %s: Invalid call. task %p state %s event type 3\n",
                          hTask, "RUNNING"),
                     "[ERROR] _AppTaskGoForTerminateHandler: Invalid call. task state RUNNING event type 3\n",
                     "[ERROR] _AppTaskGoForTerminateHandler: Invalid call. task state RUNNING event type 2\n"});
    _AppTaskRefreshHandler(nullptr, 0, nullptr, nullptr);
    manager.Park(hTask); // nothing revives it but a new owner
    _AppTaskRefreshHandler(hTask, 0, nullptr, nullptr);
    EXPECT_EQ(StateOf(hTask), APP_TASK_STATE_IDLE);
    _AppTaskDropEventCB(nullptr, hTask);
    _AppTaskDropEventCB(&diary, nullptr);
    _AppTaskDestroy(nullptr);
    EXPECT_EQ(AppTask(nullptr), nullptr);
    log.ExpectNone();
    EXPECT_EQ(diary.Text(), "stop");
}

// The wait has expired, and an event comes before the thread looks at the time-out.
TEST(TaskEvents, AnEventBeatsTheIdleTimeOut) {
    LogCapture log;
    Diary diary;
    Manager manager;
    HAppTask hTask = manager.New(diary, {"task", 9, 100});
    EXPECT_TRUE(test::WaitUntil([&] { return StateOf(hTask) == APP_TASK_STATE_RUNNING; }));
    {
        app::LockGuard guard(hTask->hLock);
        AppDelay(500); // the first wait takes 300 ms
        const TAppTaskEvent event = {APP_TASK_EVENT_USER, Arg(1), nullptr, nullptr};
        EXPECT_CODE(APP_OK, _AppTaskSendEvent(hTask, &event, 0, 0));
    }
    EXPECT_TRUE(test::WaitUntil([&] { return diary.Calls().size() > 0; }));
    EXPECT_EQ(diary.Text().substr(0, 6), "user 1");
}

// A console may be slow, and may call the library: no line is printed while a lock is held.  This one
// takes every lock of the manager at each line, allocates from the full pool and sends to the full queue.
TEST(TaskEvents, LinesArePrintedAfterTheLocks) {
    test::Watchdog watchdog;
    LogCapture log(APP_LOG_DEBUG);
    Diary diary([](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_STOP) AppLog(0, APP_LOG_DEBUG, "[DEBUG] %s: its own line\n", "AppTask");
    });
    Manager manager(3, 0, 1 << 20);
    Busy busy(manager, diary, {"busy", 1});
    HAppTask hParked = manager.New(diary);
    manager.Park(hParked);
    const std::vector<std::string> lines = log.Lines(); // a handler's line follows those before its call
    const auto at = [&](const std::string &line) { return std::find(lines.begin(), lines.end(), line); };
    EXPECT_LT(at(Text("[DEBUG] _AppTaskGoForIdleHandler: task %p go on state IDLE\n", Ptr(hParked))),
              at("[DEBUG] AppTask: its own line\n"));
    std::atomic<int> nLines{0};
    log.OnLine([&](const std::string &line) {
        ++nLines;
        for (HAppLock hLock : {manager.Get()->hLock, busy.hTask->hLock, busy.hTask->hEventQueue->hLock, hParked->hLock,
                               manager.Pool()->hLock}) {
            const bool bTaken = AppLockTakeByTime(hLock, 10000) == APP_OK;
            EXPECT_TRUE(bTaken) << line;
            if (bTaken) AppLockGive(hLock);
        }
        EXPECT_EQ(AppMemPoolMalloc(manager.Pool(), 1 << 20), nullptr);
        if (AppQueueGetSize(busy.hTask->hEventQueue) != 0) { // full
            EXPECT_CODE(APP_NO_RESOURCE, AppTaskSendEvent(busy.hTask, Arg(9), nullptr, nullptr));
        }
    });
    Send(busy.hTask, 1);
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskSendEvent(busy.hTask, Arg(2), nullptr, nullptr));
    EXPECT_CODE(APP_INVALID_ARG, AppTaskSendEvent(hParked, Arg(3), nullptr, nullptr));
    EXPECT_EQ(AppTaskSetTimer(hParked, 1, nullptr, nullptr), nullptr);
    _AppTaskGoForIdleHandler(hParked, APP_TASK_EVENT_DROP, nullptr, nullptr);
    _AppTaskGoForTerminateHandler(busy.hTask, APP_TASK_EVENT_DROP, nullptr, nullptr);
    EXPECT_EQ(manager.New(diary), hParked);
    manager.New(diary, {std::string(300, 'n').c_str()}); // a long line
    for (uint32_t dwSize = 1024; dwSize != 0; dwSize /= 2)
        while (AppMemPoolMalloc(manager.Pool(), dwSize)) {}
    HAppTask hNone = nullptr;
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskMgrNewTask(manager.Get(), "x", 1, 0, 0, 0, nullptr, nullptr, &hNone));
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskAssignEvent(busy.hTask, Arg(4), nullptr, nullptr));
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskTerminate(busy.hTask));
    EXPECT_EQ(AppTaskSetTimer(busy.hTask, 1, nullptr, nullptr), nullptr);
    EXPECT_GE(log.Count("[ERROR] _AppTaskSendEvent: AppMemPoolMalloc failed\n"), 2u);
    busy.Go();
    diary.Await("stop, user 1");
    EXPECT_GT(nLines.load(), 20);
    log.OnLine(nullptr);
}

// A sender that cannot have the task's lock neither looks at the state nor queues.
TEST(TaskEvents, ASendGivesUpAfterASecond) {
    Diary diary;
    LogCapture log;
    Manager manager;
    HAppTask hTask = manager.New(diary);
    {
        app::LockGuard guard(hTask->hLock);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_CODE(APP_TIMEOUT, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
        EXPECT_GE(test::ElapsedMs(start), 990);
    }
    Send(hTask, 2);
    diary.Await("user 2");
}

// A wait expires just before an idle task is taken: for the new owner the idle time-out runs from
// its taking.
TEST(TaskEvents, ReuseBeatsAWaitThatHasExpired) {
    LogCapture log;
    std::atomic<int> nLooks{0};
    const std::function<void()> count = [&] { ++nLooks; };
    Diary diary([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_STOP) test::LookOften(call.hTask, &count);
    });
    Manager manager;
    HAppTask hTask = manager.New(diary);
    manager.Park(hTask);
    {
        app::LockGuard guard(hTask->hLock);
        hTask->dwLastEventTick = AppGetTick() - 10000; // parked 100 s ago
    }
    HAppTask hAgain = nullptr;
    ASSERT_CODE(APP_OK, AppTaskMgrNewTask(manager.Get(), "t", 9, 0, 0, 50000, Diary::Handle, &diary, &hAgain));
    EXPECT_EQ(hAgain, hTask);
    const int nBefore = nLooks.load();
    EXPECT_TRUE(test::WaitUntil([&] { return nLooks.load() > nBefore + 3; }));
    Send(hTask, 1);
    diary.Await("stop, user 1");
}

// ---- Timers -----------------------------------------------------------------------------------

TEST(TaskTimers, ExpireInTheTasksThread) {
    Diary own, diary;
    LogCapture log(APP_LOG_DEBUG);
    Manager manager;
    HAppTask hTask = manager.New(diary);
    const auto start = std::chrono::steady_clock::now();
    HAppTimer hTimer = AppTaskSetTimer(hTask, 100, Diary::Handle, &own);
    ASSERT_NE(hTimer, nullptr);
    Send(hTask, 1); // looks at its timers
    own.Await("timeout");
    EXPECT_GE(test::ElapsedMs(start), 80); // ticks of 10 ms
    EXPECT_EQ(own.Calls()[0].pvArg, hTimer);
    EXPECT_EQ(own.Calls()[0].nThreadId, hTask->nThreadId);
    uint32_t dwType = 0;
    void *pvArg = nullptr, *pvContext = nullptr;
    PFAppTaskHandler pfnHandler = nullptr;
    EXPECT_CODE(APP_OK, AppTaskGetLastEvent(hTask, &dwType, &pvArg, &pfnHandler, &pvContext));
    EXPECT_TRUE(dwType == APP_TASK_EVENT_TIMEOUT && pvArg == hTimer && pvContext == &own);
    EXPECT_EQ(pfnHandler, Diary::Handle);
    EXPECT_CODE(APP_NOT_FOUND, AppTaskResetTimer(hTimer));

    // The record serves again; without a handler the task's is told, with the task's context.
    EXPECT_TRUE(test::WaitUntil([&] { return app::Peek(hTask->ptTimerMgr->hIdleTimerList->dwCurSize) == 1; }));
    EXPECT_EQ(AppTaskSetTimer(hTask, 0, nullptr, &own), hTimer);
    EXPECT_EQ(log.Count(Text("[DEBUG] _AppTimerMgrNewTimer: Reuse Timer: %p\n", Ptr(hTimer))), 1u);
    Send(hTask, 2);
    diary.Await("user 1, user 2, timeout");
    EXPECT_EQ(own.Text(), "timeout");
}

TEST(TaskTimers, CancelResetAndRemainingTime) {
    Diary own, diary;
    LogCapture log;
    Manager manager;
    Busy busy(manager, diary);
    HAppTimer hLong = AppTaskSetTimer(busy.hTask, 1000, Diary::Handle, &own);
    HAppTimer hShort = AppTaskSetTimer(busy.hTask, 30, nullptr, nullptr);
    EXPECT_LE(AppTaskTimerGetRemainTime(hLong), 1000u);
    EXPECT_TRUE(test::WaitUntil([&] { return AppTaskTimerGetRemainTime(hShort) == 0; }));
    EXPECT_LE(AppTaskTimerGetRemainTime(hLong), 970u);
    EXPECT_TRUE(test::WaitUntil([&] { // not told meanwhile: the thread is busy
        return AppTaskResetTimer(hShort) == APP_OK && AppTaskTimerGetRemainTime(hShort) > 0;
    }));
    AppTaskCancelTimer(hLong);
    EXPECT_EQ(own.Text(), "cancel");
    EXPECT_EQ(own.Calls()[0].nThreadId, _AppThreadGetTID());
    AppTaskCancelTimer(hLong);
    EXPECT_CODE(APP_NOT_FOUND, AppTaskResetTimer(hLong));
    busy.Go();
    diary.Await("timeout");
    EXPECT_EQ(own.Text(), "cancel");

    TAppTimerMgr lonely = {};
    TAppTimer noManager = {}, noTask = {};
    noTask.ptTimerMgr = &lonely;
    log.ExpectLines({Text("[INFO ] AppTaskMgrNewTask: _AppTaskCreate: task %p\n", Ptr(busy.hTask))});
    for (HAppTimer hInvalid : {static_cast<HAppTimer>(nullptr), &noManager, &noTask}) {
        EXPECT_CODE(APP_INVALID_ARG, AppTaskResetTimer(hInvalid));
        EXPECT_EQ(AppTaskTimerGetRemainTime(hInvalid), 0u);
        AppTaskCancelTimer(hInvalid);
        std::vector<std::string> lines = {"[ERROR] AppTaskResetTimer: Invalid Arg\n",
                                          "[ERROR] AppTaskTimerGetRemainTime: Invalid Arg\n"};
        if (hInvalid) lines.push_back("[ERROR] AppTaskCancelTimer: Invalid Arg\n");
        log.ExpectLines(lines);
    }
}

// A cancel that comes late reads the record of a timer that is being reused.
TEST(TaskTimers, ALateCancelIsNoRace) {
    LogCapture log;
    Diary diary;
    Manager manager;
    Busy busy(manager, diary);
    HAppTimer hTimer = AppTaskSetTimer(busy.hTask, 99999, nullptr, nullptr);
    AppTaskCancelTimer(hTimer);
    test::RunThreads(2, [&](unsigned nThread) {
        for (int i = 0; i < 300; ++i)
            if (nThread == 0)
                AppTaskSetTimer(busy.hTask, 99999, nullptr, nullptr);
            else
                AppTaskCancelTimer(hTimer);
    });
    busy.Go();
}

// Five timers, A to E, whose expiries a string collects in upper case and whose cancellations in
// lower case.  One of them acts in its handler.
struct Timers {
    struct Named {
        Timers *pAll;
        char chName;
        HAppTimer hTimer;
    };
    Named names[5] = {};
    HAppTask hTask;
    char chActor;
    std::string acts; // upper case: set with 0 ms; lower case: cancel; '+': 60 ms pass
    std::string order;

    void Set(char chName, uint32_t dwTimeout) {
        Named &named = names[chName - 'A'];
        named = {this, chName, AppTaskSetTimer(hTask, dwTimeout, Handle, &named)};
    }
    static uint32_t Handle(HAppTask, uint32_t dwType, void *, void *pvNamed) {
        const Named named = *static_cast<Named *>(pvNamed);
        const bool bExpired = dwType == APP_TASK_EVENT_TIMEOUT;
        named.pAll->order += static_cast<char>(bExpired ? named.chName : named.chName + 32);
        if (bExpired && named.chName == named.pAll->chActor) named.pAll->Act();
        return 0;
    }
    void Act() {
        for (const char ch : std::exchange(acts, ""))
            if (ch == '+')
                AppDelay(60);
            else if (ch >= 'a')
                AppTaskCancelTimer(names[ch - 'a'].hTimer);
            else
                Set(ch, 0);
    }
};

// The walk of one run: list order, counted again from the head after each expiry, whatever the
// handlers do to the timers.
TEST(TaskTimers, ARunFollowsTheList) {
    LogCapture log(APP_LOG_ALWAYS);
    const struct {
        const char *szWhat;
        std::vector<uint32_t> timeouts; // of A, B, ...
        char chActor;
        const char *szActs;
        const char *szOrder;
    } rows[] = {
        {"due ones in order", {0, 99999, 0}, ' ', "", "AC"},
        {"a new one is seen in the same run", {0, 0}, 'A', "D", "ABD"},
        {"a new one set by the last", {0, 0}, 'B', "D", "ABD"},
        {"the next is cancelled", {0, 0, 0}, 'A', "b", "AbC"},
        {"the next two are cancelled, one comes back", {0, 0, 0, 0}, 'A', "bcB", "AbcDB"},
        {"one passed over becomes due meanwhile", {20, 0, 0}, 'B', "+", "BAC"},
        {"the expired one is cancelled", {0, 0}, 'A', "a", "AB"},
        {"the only other one is cancelled", {99999, 0}, 'B', "a", "Ba"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.szWhat);
        Diary diary;
        Manager manager;
        Busy busy(manager, diary);
        Timers timers = {{}, busy.hTask, row.chActor, row.szActs, ""};
        for (size_t i = 0; i < row.timeouts.size(); ++i) timers.Set(static_cast<char>('A' + i), row.timeouts[i]);
        Send(busy.hTask, 1);
        busy.Go();
        diary.Await("user 1"); // the event after the run
        EXPECT_EQ(timers.order, row.szOrder);
        EXPECT_TRUE(app::ListIsValid(busy.hTask->ptTimerMgr->hTimerList));
        EXPECT_TRUE(app::ListIsValid(busy.hTask->ptTimerMgr->hIdleTimerList));
        manager.Destroy(); // tells the timers left
    }
}

// A handler that sets its timer of 0 ms again and again: the timers set before it all expire, and
// the task's events get their turns.
TEST(TaskTimers, AnEndlessTimerDoesNotStarveTheEvents) {
    test::Watchdog watchdog;
    LogCapture log(APP_LOG_ALWAYS);
    std::atomic<uint64_t> qwExpiries{0};
    const PFAppTaskHandler again = [](HAppTask hTask, uint32_t dwType, void *, void *pvCount) -> uint32_t {
        if (dwType == APP_TASK_EVENT_TIMEOUT) {
            ++*static_cast<std::atomic<uint64_t> *>(pvCount);
            AppTaskSetTimer(hTask, 0, nullptr, nullptr); // the task's handler, the same
        }
        return 0;
    };
    Diary diary;
    Manager manager;
    HAppTask hTask = nullptr;
    ASSERT_CODE(APP_OK, AppTaskMgrNewTask(manager.Get(), "again", 100, 0, 0, 0, again, &qwExpiries, &hTask));
    AppTaskSetTimer(hTask, 0, nullptr, nullptr);
    for (int i = 0; i < 1500; ++i) // more than one run may expire of those set during it
        AppTaskSetTimer(hTask, 0, Diary::Handle, &diary);
    EXPECT_CODE(APP_OK, AppTaskAssignEvent(hTask, Arg(1), Diary::Handle, &diary));
    EXPECT_TRUE(test::WaitUntil([&] { return diary.Calls().size() == 1501; }));
    EXPECT_GT(qwExpiries.load(), 0u);
    Diary later;
    for (uintptr_t i = 1; i <= 3; ++i) EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(i), Diary::Handle, &later));
    later.Await("user 1, user 2, user 3");
    EXPECT_CODE(APP_OK, AppTaskTerminate(hTask));
    EXPECT_TRUE(test::WaitUntil([&] { return manager.Idle() == 1; }));
}

// ---- Report -----------------------------------------------------------------------------------

void Collect(const char *szText, void *pvPieces) {
    static_cast<std::vector<std::string> *>(pvPieces)->push_back(szText);
}

std::vector<std::string> Report(HAppTaskMgr hTaskMgr) {
    std::vector<std::string> pieces;
    AppTaskMgrShow(hTaskMgr, Collect, &pieces);
    return pieces;
}

std::string Join(const std::vector<std::string> &pieces) {
    std::string text;
    for (const std::string &piece : pieces) {
        EXPECT_LE(piece.size(), 3071u);
        text += piece;
    }
    return text;
}

constexpr char kRule[] = "============================================\n";

TEST(TaskReport, ShowsAnEmptyManager) {
    LogCapture log;
    Manager manager(8, 250);
    void *pvMgr = manager.Get();
    AppTaskMgrShow(manager.Get(), nullptr, nullptr);
    EXPECT_EQ(Report(manager.Get()),
              (std::vector<std::string>{Text("\n%sTaskMgr(%p) MemPool(%p)", kRule, pvMgr, nullptr),
                                        Text("\n\n\n%sTaskMgr(%p) Tasks(0/8) MemPool(%p) Timeout(250ms)\n"
                                             "--- 0 ACTIVE TASKS ------------------------\n"
                                             "--- 0 INACTIVE TASKS ------------------------\n",
                                             kRule, pvMgr, nullptr)}));
    // Nobody may walk the lists without the lock.
    app::LockGuard guard(manager.Get()->hLock);
    EXPECT_EQ(Report(manager.Get()),
              (std::vector<std::string>{Text("\n%sTaskMgr(%p) MemPool(%p)", kRule, pvMgr, nullptr),
                                        Text("\nTaskMgr(%p) is busy, no details\n", pvMgr)}));
}

TEST(TaskReport, ShowsTasksTimersAndPools) {
    LogCapture log;
    Diary diary;
    Manager manager(8, 0, 1 << 20);
    Busy busy(manager, diary, {"busy", 7, 5000});
    HAppTask hIdle = manager.New(diary, {"idle"});
    manager.Park(hIdle);
    HAppTimer hFirst = AppTaskSetTimer(busy.hTask, 50, nullptr, nullptr);
    HAppTimer hSecond = AppTaskSetTimer(busy.hTask, 100000000, Diary::Handle, &diary);
    Send(busy.hTask, 1);
    EXPECT_TRUE(test::WaitUntil([&] {
        return AppTickDiff(hFirst->dwStartTick, AppGetTick()) > 6; // overdue by more than 10 ms
    }));
    const std::vector<std::string> pieces = Report(manager.Get());
    const int nBusy = busy.hTask->nThreadId, nIdle = hIdle->nThreadId;
    void *pvBusy = busy.hTask, *pvIdle = hIdle, *pvMgr = manager.Get();
    // Each header is followed by its pool's two pieces.
    ASSERT_EQ(pieces.size(), 10u);
    EXPECT_EQ(pieces[3], Text("\nTask(%p) Name(busy) Thread(%d 0x%x) MemPool(%p)", pvBusy, nBusy,
                              static_cast<unsigned>(nBusy), Ptr(busy.hTask->hMemPool)));
    EXPECT_EQ(pieces[6], Text("\nTask(%p) Name(idle) Thread(%d 0x%x) MemPool(%p)", pvIdle, nIdle,
                              static_cast<unsigned>(nIdle), Ptr(hIdle->hMemPool)));
    for (const size_t nPool : {1u, 4u, 7u}) EXPECT_EQ(pieces[nPool].rfind(kRule, 0), 0u);
    const std::string tables = pieces[9];
    void *pvLast = nullptr, *pvContext = nullptr;
    uint32_t dwType = 0;
    PFAppTaskHandler pfnLast = nullptr;
    AppTaskGetLastEvent(busy.hTask, &dwType, &pvLast, &pfnLast, &pvContext);
    for (const std::string &part : {Text("\n\n\n%sTaskMgr(%p) Tasks(2/8) MemPool(%p) Timeout(0ms)\n"
                                         "--- 1 ACTIVE TASKS ------------------------\n",
                                         kRule, pvMgr, static_cast<void *>(manager.Pool())),
                                    Text("Task(%p) Name(busy) Thread(%d 0x%x) PROCESSING Timeout(5000ms) "
                                         "EventListSize(1/ MAX 7/ TOP 1) Timer(2) LastHandler(%p Type:1 Arg:%p "
                                         "Context:%p)\nTask(%p) Timer(%p)  Handler(%p) Timeout(50ms) RemainTime(-",
                                         pvBusy, nBusy, static_cast<unsigned>(nBusy), reinterpret_cast<void *>(pfnLast),
                                         nullptr, pvContext, pvBusy, Ptr(hFirst), nullptr),
                                    Text("Task(%p) Timer(%p)  Handler(%p) Timeout(100000000ms) RemainTime(9999", pvBusy,
                                         Ptr(hSecond), reinterpret_cast<void *>(Diary::Handle)),
                                    Text("--- 1 INACTIVE TASKS ------------------------\nTask(%p) Name(idle) "
                                         "Thread(%d 0x%x) IDLE Timeout(0ms) EventListSize(0/ MAX 100/ TOP 1)\n",
                                         pvIdle, nIdle, static_cast<unsigned>(nIdle))})
        EXPECT_NE(tables.find(part), std::string::npos) << part << "\nis not in\n" << tables;
    busy.Go();
}

// A slow callback holds up nobody who sends to the task whose timers it shows, nor who cancels them.
TEST(TaskReport, ItsCallbackRunsWithoutATasksLock) {
    LogCapture log;
    Diary diary;
    Manager manager;
    Busy busy(manager, diary);
    struct Reader {
        HAppTask hTask;
        std::vector<HAppTimer> timers;
        LogCapture &log;
        std::string text = "";
        size_t nCalls = 0;
    } reader = {busy.hTask, {}, log};
    log.Clear();
    for (int i = 0; i < 100; ++i) reader.timers.push_back(AppTaskSetTimer(busy.hTask, 99999, nullptr, nullptr));
    AppTaskMgrShow(
        manager.Get(),
        [](const char *szText, void *pvReader) {
            auto ptReader = static_cast<Reader *>(pvReader);
            EXPECT_CODE(APP_OK, AppTaskSendEvent(ptReader->hTask, nullptr, nullptr, nullptr));
            AppLog(0, APP_LOG_ERROR, "[ERROR] %s: %s\n", "AppTask", "its own line"); // printed at once
            EXPECT_EQ(ptReader->log.Lines().size(), ++ptReader->nCalls);
            if (ptReader->text.find("Timer(") == std::string::npos && strstr(szText, "Timer("))
                for (size_t i = 30; i < 100; ++i) AppTaskCancelTimer(ptReader->timers[i]); // where it goes on, too
            ptReader->text += szText;
        },
        &reader);
    for (size_t i : {0u, 29u}) EXPECT_NE(reader.text.find(Text("Timer(%p)", Ptr(reader.timers[i]))), std::string::npos);
    EXPECT_EQ(reader.text.find(Text("Timer(%p)", Ptr(reader.timers[40]))), std::string::npos);
    busy.Go();
}

TEST(TaskReport, ComesInPieces) {
    LogCapture log(APP_LOG_ALWAYS);
    Diary diary;
    Manager manager(40);
    const std::string name(300, 'n');
    for (int i = 0; i < 40; ++i) manager.New(diary, {name.c_str()});
    const std::string text = Join(Report(manager.Get()));
    size_t nFound = 0;
    for (size_t nAt = text.find(name); nAt != std::string::npos; nAt = text.find(name, nAt + 1)) ++nFound;
    EXPECT_EQ(nFound, 80u); // a header and a row each
}

// ---- Faults -----------------------------------------------------------------------------------

// A reused task whose queue still holds more than the new owner allows is ended, not handed out.
TEST(TaskFaults, RefusedRefresh) {
    LogCapture log;
    Diary diary, owner;
    Door door;
    Diary stopper([&](const Diary::Call &call) {
        if (call.dwType == APP_TASK_EVENT_USER) door.Pass();
    });
    Manager manager;
    HAppTask hTask = manager.New(owner);
    manager.Park(hTask);
    const TAppTaskEvent hold = {APP_TASK_EVENT_USER, nullptr, Diary::Handle, &stopper};
    for (int i = 0; i < 3; ++i) // one keeps the thread, two stay in the queue
        EXPECT_CODE(APP_OK, _AppTaskSendEvent(hTask, &hold, 0, 1));
    door.AwaitVisitor();
    std::thread opener([&] { // the caller waits until the thread has ended
        EXPECT_TRUE(test::WaitUntil([&] { return app::MustEnd(hTask); }));
        door.Open();
    });
    log.Clear();
    HAppTask hNew = hTask;
    EXPECT_CODE(APP_INVALID_ARG, AppTaskMgrNewTask(manager.Get(), "t", 1, 0, 0, 0, Diary::Handle, &diary, &hNew));
    opener.join();
    EXPECT_EQ(hNew, nullptr);
    void *pvTask = hTask;
    const std::vector<std::string> lines = log.Lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], Text("[INFO ] AppTaskMgrNewTask: Reuse Task: %p\n", pvTask));
    EXPECT_EQ(lines[1], "[ERROR] _AppTaskRefreshArg: new size 1 is Invalid\n");
    EXPECT_EQ(lines[2], Text("[ERROR] AppTaskMgrNewTask: _AppTaskRefreshArg failed: 103 %p "
                             "destroyed\n",
                             pvTask));
    EXPECT_EQ(stopper.Text(), "user 0, drop 0, drop 0");
    EXPECT_EQ(owner.Text() + diary.Text(), "stop");
    EXPECT_EQ(manager.Get()->hTaskList->dwCurSize + manager.Idle(), 0u);
}

// A handed-out task that cannot be listed, and that has meanwhile gone idle by itself.
TEST(TaskFaults, AnUnlistedTaskThatGoesIdleIsEndedToo) {
    test::Watchdog watchdog;
    LogCapture log(APP_LOG_DEBUG);
    Diary diary;
    Manager manager;
    fault::Fail count(Fn::malloc, 0);
    manager.New(diary);
    const unsigned nLast = count.Calls(); // the list's node
    fault::Fail fail(Fn::malloc, nLast);
    fail.Action([&] { // until the thread waits for the manager's lock
        EXPECT_TRUE(test::WaitUntil([&] { return diary.Text() == "stop"; }));
    });
    HAppTask hTask = nullptr;
    EXPECT_CODE(APP_NO_RESOURCE, AppTaskMgrNewTask(manager.Get(), "t", 1, 0, 0, 1, Diary::Handle, &diary, &hTask));
    EXPECT_EQ(fail.Hits(), 1u);
    EXPECT_EQ(diary.Text(), "stop");
    EXPECT_EQ(manager.Get()->hTaskList->dwCurSize, 1u);
    EXPECT_EQ(manager.Idle(), 0u);
}

} // namespace
