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

namespace {

// A pipe in the place of standard error.
class Pipe {
public:
    Pipe() : m_nStderr(dup(STDERR_FILENO)) {
        EXPECT_EQ(pipe(m_anEnd), 0);
        dup2(m_anEnd[1], STDERR_FILENO);
        close(m_anEnd[1]);
    }
    ~Pipe() {
        close(m_anEnd[0]);
        dup2(m_nStderr, STDERR_FILENO);
        close(m_nStderr);
    }
    // As much as is there, or `nWanted` bytes.
    std::string Read(size_t nWanted = 0) {
        std::string text;
        fcntl(m_anEnd[0], F_SETFL, nWanted ? 0 : O_NONBLOCK);
        char achText[4096];
        ssize_t nRead;
        while ((nRead = read(m_anEnd[0], achText, sizeof(achText))) > 0) {
            text.append(achText, static_cast<size_t>(nRead));
            if (nWanted && text.size() >= nWanted) break;
        }
        return text;
    }
    // Leaves room for one page.
    size_t Fill() {
        const size_t nSize = static_cast<size_t>(fcntl(STDERR_FILENO, F_GETPIPE_SZ)) - 4096;
        EXPECT_EQ(write(STDERR_FILENO, std::string(nSize, '.').data(), nSize), static_cast<ssize_t>(nSize));
        return nSize;
    }

private:
    int m_nStderr, m_anEnd[2];
};

const std::string kLong = std::string(5000, 'x') + "\n"; // more than a page

} // namespace

TEST(Console, SignalsLeaveALineWhole) {
    struct sigaction tAction = {}, tOld;
    static std::atomic<int> s_nSignals{0};
    tAction.sa_handler = [](int) { ++s_nSignals; };
    sigaction(SIGUSR1, &tAction, &tOld); // no SA_RESTART: write() is cut short, or fails
    Pipe console;
    const size_t nFilled = console.Fill();
    std::atomic<bool> bDone{false};
    std::thread writer([&] {
        AppLog(0, APP_LOG_ERROR, "%s", kLong.c_str());
        bDone = true;
    });
    for (int i = 1; i <= 20 && !bDone; ++i) {
        pthread_kill(writer.native_handle(), SIGUSR1);
        EXPECT_TRUE(test::WaitUntil([&] { return s_nSignals >= i; }, std::chrono::seconds(2)));
    }
    EXPECT_FALSE(bDone);
    EXPECT_EQ(console.Read(nFilled + kLong.size()).substr(nFilled), kLong);
    writer.join();
    sigaction(SIGUSR1, &tOld, nullptr);
}

TEST(Console, FullOneThatDoesNotBlockLosesTheRest) {
    Pipe console;
    const size_t nFilled = console.Fill();
    fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(QorPrintf(1, 0, "%s", kLong.c_str()), -1);
    EXPECT_EQ(console.Read().substr(nFilled), kLong.substr(0, 4096));
    EXPECT_EQ(QorPrintf(1, 0, "%s", kLong.c_str()), 5001);
    console.Read();
    const char *volatile szNull = nullptr;
    EXPECT_EQ(QorPrintf(1, 0, "%s", szNull), 6);
    EXPECT_EQ(QorPrintf(1, 0, "%s %d\n", "other", 7), 8);
    EXPECT_EQ(console.Read(), "(null)other 7\n");
    EXPECT_EQ(QorPrintf(1, 0, "%d %s", 7, kLong.c_str()), 511); // cut, with an end
    EXPECT_EQ(console.Read(), "7 " + std::string(508, 'x') + "\n");
}

// ---- Stack ------------------------------------------------------------------------------------

namespace {

constexpr uint8_t kChannel = 9;
std::atomic<int> s_nSteps{0}; // what the task has behind it

void LogPiece(const char *szText, void *) { AppLog(kChannel, APP_LOG_ALWAYS, "%s", szText); }

uint32_t Expire(HAppTask, uint32_t dwEventType, void *, void *) {
    s_nSteps += dwEventType == APP_TASK_EVENT_TIMEOUT;
    return 0;
}

uint32_t LogSendAndSet(HAppTask hTask, uint32_t dwEventType, void *, void *pvTaskMgr) {
    if (dwEventType != APP_TASK_EVENT_USER || s_nSteps > 0) return 0;
    if (pvTaskMgr) AppTaskMgrShow(static_cast<HAppTaskMgr>(pvTaskMgr), LogPiece, nullptr);
    AppLog(0, APP_LOG_ERROR, "[ERROR] %s: %s %d %lu\n", __func__, "logged", 7, 8ul);
    s_nSteps += AppTaskSendEvent(hTask, nullptr, nullptr, nullptr) == APP_OK;
    s_nSteps += AppTaskSendEvent(hTask, nullptr, nullptr, nullptr) == APP_NO_RESOURCE; // with its lines
    s_nSteps += AppTaskSetTimer(hTask, 0, Expire, nullptr) != nullptr;
    return 0;
}

// What the task printed.  The sanitizers' frames are several times as large.
std::string RunTask(uint32_t dwStack, bool bAll) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    dwStack *= 4;
#endif
    s_nSteps = 0;
    HAppTaskMgr hTaskMgr = nullptr;
    HAppTask hTask = nullptr;
    Pipe console;
    testing::internal::CaptureStdout();
    AppSetLogViaStdout(0, 1);
    AppTaskMgrCreate(nullptr, 1, 0, &hTaskMgr);
    EXPECT_CODE(APP_OK, AppTaskMgrNewTask(hTaskMgr, "small", 1, dwStack, 0, 0, LogSendAndSet, bAll ? hTaskMgr : nullptr,
                                          &hTask));
    AppTaskSendEvent(hTask, nullptr, nullptr, nullptr);
    EXPECT_TRUE(test::WaitUntil([] { return s_nSteps == 4; }));
    AppTaskMgrDestroy(hTaskMgr);
    AppSetLogViaStdout(0, 0);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_NE(output.find("Queue full"), std::string::npos);
    return console.Read();
}

} // namespace

TEST(Stack, SystemsLeastIsEnoughToLogSendAndSetTimers) {
    const std::string text = RunTask(16 * 1024, false);
    EXPECT_NE(text.find("[ERROR] LogSendAndSet: logged 7 8\n"), std::string::npos);
    EXPECT_NE(text.find("Queue full"), std::string::npos);
}

TEST(Stack, TwentyFourKibAreEnoughForAll) {
    EXPECT_EQ(AppSetFileLog(kChannel, "/dev/full", 1000), 1u); // and the loss is told
    const std::string text = RunTask(24 * 1024, true);
    AppCloseFileLog(kChannel);
    EXPECT_NE(text.find("Name(small)"), std::string::npos);
    EXPECT_NE(text.find("channel 9: lines are lost from here on, No space left"), std::string::npos);
    EXPECT_NE(text.find("Queue full"), std::string::npos);
}
