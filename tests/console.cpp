// SPDX-License-Identifier: MIT
//
// The stand-in console, whose place the other tests take with their own; and tasks with no more
// stack than the headers promise to be enough.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "appcore/appcore.h"
#include "appcore/host.h"
#include "support/expect.h"

namespace
{

std::atomic<int> s_nSteps{0}; // signals, or what a task has behind it

uint32_t LogSendAndSet(HAppTask hTask, uint32_t dwEventType, void *, void *pvTaskMgr)
{
    s_nSteps += dwEventType == APP_TASK_EVENT_TIMEOUT;
    if (dwEventType != APP_TASK_EVENT_USER || s_nSteps > 0)
        return 0;
    AppTaskMgrShow(
        static_cast<HAppTaskMgr>(pvTaskMgr), // null reports nothing
        [](const char *szText, void *) { AppLog(9, APP_LOG_ALWAYS, "%s", szText); }, nullptr);
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: %s %d %lu\n", __func__, "logged", 7, 8ul);
    s_nSteps += AppTaskSendEvent(hTask, nullptr, nullptr, nullptr) == APP_OK;
    s_nSteps += AppTaskSendEvent(hTask, nullptr, nullptr, nullptr) == APP_NO_RESOURCE;
    return s_nSteps += AppTaskSetTimer(hTask, 0, LogSendAndSet, nullptr) != nullptr;
}

} // namespace

TEST(Console, LinesAreWholeInSpiteOfSignalsAndCutAtTheRoom)
{
    struct sigaction tAction = {};
    tAction.sa_handler = [](int) { ++s_nSteps; };
    sigaction(SIGUSR1, &tAction, nullptr); // no SA_RESTART: write() is cut short, or fails
    const std::string line = std::string(5000, 'x') + "\n";
    const int nStderr = dup(STDERR_FILENO);
    int anEnd[2];
    ASSERT_EQ(pipe(anEnd), 0);
    dup2(anEnd[1], STDERR_FILENO);
    std::string text(static_cast<size_t>(fcntl(anEnd[1], F_GETPIPE_SZ)) - 4096, '.');
    EXPECT_GT(write(anEnd[1], text.data(), text.size()), 0); // leaves room for one page
    fcntl(anEnd[1], F_SETFL, O_NONBLOCK);
    EXPECT_EQ(QorPrintf(1, 0, "%s", line.c_str()), -1);
    fcntl(anEnd[1], F_SETFL, 0);
    EXPECT_EQ(read(anEnd[0], text.data(), 4096), 4096);
    std::thread writer([&] { AppLog(0, APP_LOG_ERROR, "%s", line.c_str()); });
    for (int i = 1; i <= 20; ++i) {
        pthread_kill(writer.native_handle(), SIGUSR1);
        EXPECT_TRUE(test::WaitUntil([&] { return s_nSteps >= i; }, std::chrono::seconds(2)));
    }
    const std::string whole = text.substr(4096) + line.substr(0, 4096) + line;
    text.resize(whole.size());
    for (size_t nRead = 0; nRead < text.size();)
        nRead += static_cast<size_t>(read(anEnd[0], &text[nRead], text.size() - nRead));
    EXPECT_EQ(text, whole);
    writer.join();
    dup2(nStderr, STDERR_FILENO);

    testing::internal::CaptureStderr();
    const char *volatile szNull = nullptr;
    EXPECT_EQ(QorPrintf(1, 0, "%s", szNull), 6);
    EXPECT_EQ(QorPrintf(1, 0, "%s %d\n", "other", 7), 8);
    EXPECT_EQ(QorPrintf(1, 0, "%d %510s", 7, "x"), 511); // cut, with an end
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "(null)other 7\n7 " + std::string(508, ' ') + "\n");
}

TEST(Stack, StatedSizesAreEnough)
{
    AppSetLogViaStdout(0, 1);
    EXPECT_EQ(AppSetFileLog(9, "/dev/full", 1000), 1u); // and the loss is told, within the report
    for (uint32_t dwStack : {16 * 1024, 24 * 1024}) {
        const bool bReport = dwStack > 16 * 1024;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        dwStack *= 4; // larger frames
#endif
        HAppTaskMgr hTaskMgr = nullptr;
        HAppTask hTask = nullptr;
        s_nSteps = 0;
        testing::internal::CaptureStderr();
        AppTaskMgrCreate(nullptr, 1, 0, &hTaskMgr);
        AppTaskMgrNewTask(hTaskMgr, "small", 1, dwStack, 0, 0, LogSendAndSet,
                          bReport ? hTaskMgr : nullptr, &hTask);
        AppTaskSendEvent(hTask, nullptr, nullptr, nullptr);
        EXPECT_TRUE(test::WaitUntil([] { return s_nSteps == 4; }));
        AppTaskMgrDestroy(hTaskMgr);
        const std::string text = testing::internal::GetCapturedStderr();
        EXPECT_NE(text.find("Queue full"), std::string::npos);
        const bool bTold = text.find("channel 9: lines are lost from here on, No space left",
                                     text.find("TaskMgr(")) != std::string::npos;
        EXPECT_EQ(bTold, bReport);
    }
}
