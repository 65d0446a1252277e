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

// A pipe in the place of standard error, at first with room for one page.
class Pipe
{
public:
    Pipe() : m_nStderr(dup(STDERR_FILENO))
    {
        EXPECT_EQ(pipe(m_anEnd), 0);
        dup2(m_anEnd[1], STDERR_FILENO);
        close(m_anEnd[1]);
        nFilled = static_cast<size_t>(fcntl(STDERR_FILENO, F_GETPIPE_SZ)) - 4096;
        EXPECT_GT(write(STDERR_FILENO, std::string(nFilled, '.').data(), nFilled), 0);
    }
    ~Pipe()
    {
        Restore();
        close(m_anEnd[0]);
        close(m_nStderr);
    }
    void Restore() { dup2(m_nStderr, STDERR_FILENO); }
    // Fewer bytes only when nobody writes any more.
    std::string Read(size_t nWanted)
    {
        std::string text(nWanted, '\0');
        size_t nRead = 0;
        for (ssize_t n; (n = read(m_anEnd[0], &text[nRead], nWanted - nRead)) > 0;)
            nRead += static_cast<size_t>(n);
        return text.substr(0, nRead);
    }
    size_t nFilled;

private:
    int m_nStderr, m_anEnd[2];
};

const std::string kLong = std::string(5000, 'x') + "\n"; // more than a page
std::atomic<int> s_nSteps{0};                            // signals, or what a task has behind it

uint32_t Expire(HAppTask, uint32_t dwEventType, void *, void *)
{
    return s_nSteps += dwEventType == APP_TASK_EVENT_TIMEOUT;
}

uint32_t LogSendAndSet(HAppTask hTask, uint32_t dwEventType, void *, void *pvTaskMgr)
{
    if (dwEventType != APP_TASK_EVENT_USER || s_nSteps > 0)
        return 0;
    AppTaskMgrShow(
        static_cast<HAppTaskMgr>(pvTaskMgr), // null reports nothing
        [](const char *szText, void *) { AppLog(9, APP_LOG_ALWAYS, "%s", szText); }, nullptr);
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: %s %d %lu\n", __func__, "logged", 7, 8ul);
    s_nSteps += AppTaskSendEvent(hTask, nullptr, nullptr, nullptr) == APP_OK;
    s_nSteps +=
        AppTaskSendEvent(hTask, nullptr, nullptr, nullptr) == APP_NO_RESOURCE; // with its lines
    return s_nSteps += AppTaskSetTimer(hTask, 0, Expire, nullptr) != nullptr;
}

// The console's text.  The sanitizers' frames are several times as large.
std::string RunTask(uint32_t dwStack, bool bAll)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    dwStack *= 4;
#endif
    HAppTaskMgr hTaskMgr = nullptr;
    HAppTask hTask = nullptr;
    Pipe console;
    console.Read(console.nFilled);
    s_nSteps = 0;
    AppSetLogViaStdout(0, 1);
    AppTaskMgrCreate(nullptr, 1, 0, &hTaskMgr);
    EXPECT_CODE(APP_OK, AppTaskMgrNewTask(hTaskMgr, "small", 1, dwStack, 0, 0, LogSendAndSet,
                                          bAll ? hTaskMgr : nullptr, &hTask));
    AppTaskSendEvent(hTask, nullptr, nullptr, nullptr);
    EXPECT_TRUE(test::WaitUntil([] { return s_nSteps == 4; }));
    AppTaskMgrDestroy(hTaskMgr);
    AppSetLogViaStdout(0, 0);
    console.Restore();
    return console.Read(65536);
}

} // namespace

TEST(Console, SignalsLeaveALineWhole)
{
    struct sigaction tAction = {}, tOld;
    tAction.sa_handler = [](int) { ++s_nSteps; };
    sigaction(SIGUSR1, &tAction, &tOld); // no SA_RESTART: write() is cut short, or fails
    Pipe console;
    s_nSteps = 0;
    std::thread writer([] { AppLog(0, APP_LOG_ERROR, "%s", kLong.c_str()); });
    for (int i = 1; i <= 20; ++i) {
        pthread_kill(writer.native_handle(), SIGUSR1);
        EXPECT_TRUE(test::WaitUntil([&] { return s_nSteps >= i; }, std::chrono::seconds(2)));
    }
    EXPECT_EQ(console.Read(console.nFilled + kLong.size()).substr(console.nFilled), kLong);
    writer.join();
    sigaction(SIGUSR1, &tOld, nullptr);
}

TEST(Console, FullOneThatDoesNotBlockLosesTheRest)
{
    Pipe console;
    fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(QorPrintf(1, 0, "%s", kLong.c_str()), -1);
    EXPECT_EQ(console.Read(console.nFilled + 4096).substr(console.nFilled), kLong.substr(0, 4096));
    const char *volatile szNull = nullptr;
    EXPECT_EQ(QorPrintf(1, 0, "%s", szNull), 6);
    EXPECT_EQ(QorPrintf(1, 0, "%s %d\n", "other", 7), 8);
    EXPECT_EQ(QorPrintf(1, 0, "%d %s", 7, kLong.c_str()), 511); // cut, with an end
    console.Restore();
    EXPECT_EQ(console.Read(1000), "(null)other 7\n7 " + std::string(508, 'x') + "\n");
}

TEST(Stack, StatedSizesAreEnough)
{
    std::string text = RunTask(16 * 1024, false);
    EXPECT_NE(text.find("[ERROR] LogSendAndSet: logged 7 8\n"), std::string::npos);
    EXPECT_NE(text.find("Queue full"), std::string::npos);
    EXPECT_EQ(AppSetFileLog(9, "/dev/full", 1000), 1u); // and the loss is told, within the report
    text = RunTask(24 * 1024, true);
    AppCloseFileLog(9);
    EXPECT_LT(text.find("TaskMgr("),
              text.find("channel 9: lines are lost from here on, No space left"));
    EXPECT_NE(text.find("Queue full"), std::string::npos);
}
