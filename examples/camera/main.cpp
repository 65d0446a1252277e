// SPDX-License-Identifier: MIT
//
// A small camera application on appcore:  camera [camera.xml]
// It can be found by WS-Discovery, watches for motion, tells an alarm receiver, and has a prompt.
#include "camera.h"

#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace camera
{

HAppMemPool g_hPool;
HAppTaskMgr g_hTaskMgr;
uint8_t g_byLog, g_byAlarmLog, g_byNetLog;

namespace
{

constexpr uint32_t kMaxTasks = 16;
constexpr int kSoonMs = 100; // between two looks at a line that runs

int s_nWake = -1;

// Stopped in the reverse order of their start: whoever sends is stopped before whom it sends to.
struct TStep {
    bool (*pfnStart)();
    void (*pfnStop)();
};
constexpr TStep s_atStep[] = {
    {ConfigStart, ConfigStop}, {DiscoveryStart, DiscoveryStop},
    {PushStart, PushStop},     {AlarmStart, AlarmStop},
    {MotionStart, MotionStop}, {HousekeepingStart, HousekeepingStop},
    {SearchStart, nullptr},    {ShellStart, ShellStop},
};
constexpr uint32_t kSteps = sizeof(s_atStep) / sizeof(s_atStep[0]);

// Stops what was started.  A step that failed half-way is among it.
void StopFrom(uint32_t dwStep)
{
    while (dwStep-- > 0)
        if (s_atStep[dwStep].pfnStop)
            s_atStep[dwStep].pfnStop();
}

uint8_t NewChannel()
{
    const uint8_t byChannel = AppGenerateLogChannel();
    AppSetLogViaStdout(byChannel, 0); // standard output is the prompt's; the console has the lines
    return byChannel;
}

void OpenLogFile(uint8_t byChannel, const char *szFile, uint32_t dwLimit)
{
    if (AppSetFileLog(byChannel, szFile, dwLimit) != 1)
        AppLog(g_byLog, APP_LOG_ERROR, "[ERROR] %s: no log file %s\n", __func__, szFile);
}

// What has been read of standard input, and how much of that the prompt has taken.
struct TInput {
    uint32_t dwLen;
    uint32_t dwTaken;
    bool bEnded;
    char achRead[512];
};

bool IsTaken(const TInput *ptInput)
{
    return ptInput->dwTaken == ptInput->dwLen;
}

// Waits for input, or until there is something to look at.
void Wait(TInput *ptInput)
{
    const bool bRead = !ptInput->bEnded && IsTaken(ptInput);
    pollfd atPoll[] = {{s_nWake, POLLIN, 0}, {bRead ? STDIN_FILENO : -1, POLLIN, 0}};
    if (poll(atPoll, 2, ShellIsReady() ? kTickMs : kSoonMs) <= 0)
        return;
    eventfd_t qwTimes;
    if (atPoll[0].revents != 0)
        eventfd_read(s_nWake, &qwTimes);
    if (atPoll[1].revents == 0)
        return;
    const ssize_t nRead = read(STDIN_FILENO, ptInput->achRead, sizeof(ptInput->achRead));
    ptInput->bEnded = nRead <= 0;
    ptInput->dwLen = ptInput->bEnded ? 0 : static_cast<uint32_t>(nRead);
    ptInput->dwTaken = 0;
}

// Serves standard input until its end, "quit", Ctrl-C or the wish of another program, and looks after
// the modules.  Nothing here waits for a line to run, let alone for a module.
void Serve()
{
    TInput tInput = {};
    TPrompt tPrompt = {};
    tPrompt.bEcho = !isatty(STDIN_FILENO);
    for (;;) {
        tInput.dwTaken +=
            PromptTake(&tPrompt, tInput.achRead + tInput.dwTaken, tInput.dwLen - tInput.dwTaken);
        const bool bEnded = tInput.bEnded && IsTaken(&tInput) && PromptIsIdle(&tPrompt);
        if (tPrompt.bQuit || bEnded || WatchIsTold())
            break;
        ModulesTick();
        WatchLook();
        Wait(&tInput);
    }
    PrintText("\n");
}

bool RunTasks()
{
    const TConfig tConfig = ConfigGet();
    LogFilesOpen(tConfig);
    if (AppTaskMgrCreate(g_hPool, kMaxTasks, tConfig.dwTaskIdle, &g_hTaskMgr) != APP_OK)
        return false;
    uint32_t dwStarted = 0;
    bool bGood = true;
    while (bGood && dwStarted < kSteps)
        bGood = s_atStep[dwStarted++].pfnStart();
    if (bGood) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "camera: \"%s\" started\n", tConfig.achName);
        Serve();
        AppLog(g_byLog, APP_LOG_ALWAYS, "camera: ending\n");
    }
    StopFrom(dwStarted);
    AppTaskMgrDestroy(g_hTaskMgr);
    return bGood;
}

int Run(const char *szFile)
{
    bool bGood = false;
    AppSocketStartUp();
    g_byLog = NewChannel();
    g_byAlarmLog = NewChannel();
    g_byNetLog = NewChannel();
    if (AppMemPoolCreate(kPoolLimit, 1, 0, &g_hPool) == APP_OK) {
        AppMemPoolSetName(g_hPool, "camera");
        bGood = ConfigLoad(szFile) && RunTasks();
        ConfigStop();
        AppMemPoolDestroy(g_hPool);
    }
    AppLog(g_byLog, APP_LOG_ALWAYS, bGood ? "camera: ended\n" : "camera: could not start\n");
    AppCloseFileLog(g_byAlarmLog);
    AppCloseFileLog(g_byLog);
    AppSocketClearUp();
    return bGood ? 0 : 1;
}

} // namespace

void LogFilesOpen(const TConfig &tConfig)
{
    OpenLogFile(g_byLog, tConfig.achLogFile, tConfig.dwLogLimit);
    OpenLogFile(g_byAlarmLog, tConfig.achAlarmFile, tConfig.dwAlarmLimit);
}

void MainWake()
{
    eventfd_write(s_nWake, 1);
}

} // namespace camera

int main(int argc, char **argv)
{
#ifdef M_ARENA_MAX // the GNU C library's
    // A heap for each thread would keep what its worst datagram took; what is large goes back at once.
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 16 * 1024);
#endif
    // Blocked before the first thread is made, so that every thread leaves them to our descriptor.
    sigset_t tSignals;
    sigemptyset(&tSignals);
    sigaddset(&tSignals, SIGINT);
    sigaddset(&tSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &tSignals, nullptr);
    if (!camera::ConsoleOpen()) {
        perror("camera: no console");
        return 1;
    }
    camera::s_nWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (camera::s_nWake < 0 || !camera::WatchStart(signalfd(-1, &tSignals, SFD_CLOEXEC))) {
        perror("camera: cannot take signals");
        return 1;
    }
    const int nResult = camera::Run(argc > 1 ? argv[1] : "camera.xml");
    camera::ConsoleClose();
    return nResult;
}
