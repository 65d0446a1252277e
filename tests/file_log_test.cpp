// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "appcore/appcore.h"
#include "cross_linux/cross_linux.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using test::LogCapture;
using test::StdoutCapture;
using test::Text;
namespace fs = std::filesystem;

namespace
{

constexpr uint8_t kChannel = 77;
constexpr size_t kStampLen = sizeof("[2026/03/05 07:08:09 ] ") - 1;

std::string ReadFile(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The lines without their stamps; a torn line or a wrong stamp is an error.
std::vector<std::string> ReadLines(const fs::path &path)
{
    std::vector<std::string> lines;
    std::ifstream file(path, std::ios::binary);
    bool bWhole = true;
    for (std::string line; std::getline(file, line);) {
        std::string shape = line.substr(0, kStampLen);
        std::replace_if(shape.begin(), shape.end(), isdigit, '9');
        bWhole = bWhole && !file.eof() && shape == "[9999/99/99 99:99:99 ] ";
        lines.push_back(line.size() < kStampLen ? "" : line.substr(kStampLen));
    }
    EXPECT_TRUE(bWhole) << path;
    return lines;
}

class FileLog : public testing::Test
{
protected:
    FileLog()
    {
        char achDir[] = "/tmp/appcore-log-XXXXXX";
        m_dir = mkdtemp(achDir);
        m_path = m_dir / "channel.log";
        m_backup = m_dir / "channel.log1";
    }
    ~FileLog() override
    {
        AppCloseFileLog(kChannel);
        fs::remove_all(m_dir);
    }

    // The size printed on standard output when the file was opened, or -1.
    long Open(uint32_t dwMaxSize)
    {
        StdoutCapture output;
        const uint32_t bOpen = AppSetFileLog(kChannel, m_path.c_str(), dwMaxSize);
        unsigned dwSize = 0;
        const int nItems = sscanf(output.End().c_str(), "dwCurSize %u\n", &dwSize);
        EXPECT_EQ(output.End(), bOpen ? Text("dwCurSize %u\n", dwSize) : "");
        return bOpen && nItems == 1 ? static_cast<long>(dwSize) : -1;
    }
    static void Write(const std::string &text)
    {
        AppLogFile(kChannel, APP_LOG_ALWAYS, "%s\n", text.c_str());
    }
    static FILE *Stream() { return g_atAppFileLogInfo[kChannel].ptFile.load(); }

    fs::path m_dir, m_path, m_backup;
};

using Lines = std::vector<std::string>;

std::string Lost(const char *szWhy)
{
    return Text("[ERROR] _AppFileLog: channel %d: lines are lost from here on, %s\n", kChannel,
                szWhy);
}
std::string Again(size_t nLost)
{
    return Text("[INFO ] _AppFileLog: channel %d: written again, %zu lines were lost\n", kChannel,
                nLost);
}

} // namespace

TEST_F(FileLog, OnlyLevelZeroReachesTheFile)
{
    LogCapture log;
    AppSetLogLevel(kChannel, 255);
    EXPECT_EQ(Open(1000), 0);
    AppLog(kChannel, APP_LOG_ALWAYS, "both\n");
    AppLog(kChannel, APP_LOG_INFO, "console\n");
    AppLogFile(kChannel, APP_LOG_ALWAYS, "file\n");
    AppLogFile(kChannel, APP_LOG_ERROR, "nowhere\n");
    AppCloseFileLog(kChannel);
    AppLog(kChannel, APP_LOG_ALWAYS, "closed\n");
    EXPECT_EQ(ReadLines(m_path), (Lines{"both", "file"}));
    log.ExpectLines({"both\n", "console\n", "closed\n"});
    AppSetLogLevel(kChannel, 0);
}

TEST_F(FileLog, PathsUpTo127CharactersAreTaken)
{
    LogCapture log;
    m_path = m_dir / std::string(127 - m_dir.string().size() - 1, 'p');
    const std::string longest = m_path.string();
    ASSERT_EQ(longest.size(), 127u);
    EXPECT_EQ(Open(0), 0);
    Write("x"); // the backup's name is one longer than a path may be
    EXPECT_EQ(ReadLines(longest + "1"), Lines{"x"});
    m_path += "1";
    EXPECT_EQ(Open(10), -1);
    log.ExpectLines({"[ERROR] AppSetFileLog: Filepath is limited under 128 digits.\n"});
    EXPECT_EQ(g_atAppFileLogInfo[kChannel].achFilePath, longest);
}

TEST_F(FileLog, RotatesOnceTheLimitIsPassed)
{
    std::ofstream(m_path) << std::string(999, '-') << '\n';
    std::ofstream(m_backup) << "older backup\n";
    EXPECT_EQ(Open(1000 + 2 * 40), 1000);
    const std::string text(40 - kStampLen - 1, 'x');
    Write(text);
    Write(text);
    EXPECT_EQ(fs::file_size(m_path), 1080u); // at its limit, not beyond
    Write(text);
    EXPECT_EQ(fs::file_size(m_path), 0u);
    EXPECT_EQ(fs::file_size(m_backup), 1120u);
    EXPECT_EQ(g_atAppFileLogInfo[kChannel].dwCurSize, 0u);
    Write("next");
    EXPECT_EQ(ReadLines(m_path), Lines{"next"});
    fs::resize_file(m_path, 0); // by another program
    Write("whole");
    EXPECT_EQ(ReadLines(m_path), Lines{"whole"});

    EXPECT_EQ(Open(0), static_cast<long>(kStampLen + 6)); // the same path again: every line rotates
    Write("first");
    Write("second");
    EXPECT_EQ(ReadLines(m_backup), Lines{"second"});
    EXPECT_EQ(ReadFile(m_path), "");
}

TEST_F(FileLog, StampIsTheLocalTimeAndFollowsTheZone)
{
    ASSERT_EQ(Open(1000000), 0);
    for (const char *szZone : {"UTC0", "XXX-5:30", "UTC0"}) {
        setenv("TZ", szZone, 1);
        // The zone shows within a second.
        EXPECT_TRUE(test::WaitUntil([&] {
            const time_t nNow = time(nullptr) + (szZone[0] == 'X' ? 19800 : 0);
            struct tm tNow;
            gmtime_r(&nNow, &tNow);
            char achStamp[32];
            strftime(achStamp, sizeof(achStamp), "[%Y/%m/%d %H:%M:%S ] ", &tNow);
            Write("now");
            const std::string content = ReadFile(m_path);
            return content.substr(content.size() - kStampLen - 4) ==
                   std::string(achStamp) + "now\n";
        })) << szZone;
    }
    unsetenv("TZ");
    tzset();
}

// A program may have closed its standard input, output or error.
TEST_F(FileLog, DescriptorsAreCloseOnExecAndAboveStandard)
{
    const int nStdin = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    const long nDescriptors = fault::OpenDescriptors();
    {
        fault::Fail fail(fault::Fn::fcntl, 1, EMFILE);
        EXPECT_EQ(AppSetFileLog(kChannel, m_path.c_str(), 10), 0u);
    }
    EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
    EXPECT_EQ(AppSetFileLog(kChannel, m_path.c_str(), 10), 1u);
    for (const char *szLine : {"rotates", "again"}) {
        ASSERT_GT(fileno(Stream()), STDERR_FILENO);
        EXPECT_TRUE(fcntl(fileno(Stream()), F_GETFD) & FD_CLOEXEC);
        Write(szLine);
    }
    EXPECT_EQ(ReadLines(m_backup), Lines{"again"});
    dup2(nStdin, STDIN_FILENO);
    close(nStdin);
}

TEST_F(FileLog, DeletedFileIsOpenedAnew)
{
    LogCapture log;
    const long nDescriptors = fault::OpenDescriptors();
    ASSERT_EQ(Open(1000000), 0);
    Write("before");
    fs::remove(m_path);
    std::ofstream(m_path).close(); // another in its place
    unsigned nWritten = 0;
    const auto Attempt = [&] { Write(std::to_string(nWritten++)); };
    EXPECT_TRUE(test::WaitUntil([&] { return Attempt(), fs::file_size(m_path) > 0; }));
    EXPECT_EQ(ReadLines(m_path), Lines{std::to_string(nWritten - 1)});
    EXPECT_EQ(g_atAppFileLogInfo[kChannel].dwCurSize, fs::file_size(m_path));
    log.ExpectNone();

    ASSERT_GT(Open(1), 1); // due to rotate, but cannot be opened anew until the directory is back
    fs::remove_all(m_dir);
    nWritten = 0;
    Attempt();
    fs::create_directory(m_dir);
    EXPECT_TRUE(test::WaitUntil([&] { return Attempt(), fs::exists(m_backup); }));
    log.ExpectLines({Lost("No such file or directory"), Again(nWritten - 1)});
    EXPECT_EQ(ReadLines(m_backup), Lines{std::to_string(nWritten - 1)});
    ASSERT_EQ(Open(1000000), 0);
    fs::remove_all(m_dir);
    Attempt();
    fs::create_directory(m_dir);
    ASSERT_EQ(Open(1000000), 0); // at once
    Attempt();
    log.ExpectLines({Lost("No such file or directory"), Again(1)});

    fs::rename(m_path, m_backup); // moved away, and none may be made in its place: written on
    fault::Fail refused(fault::Fn::fopen, 1, EACCES);
    EXPECT_TRUE(test::WaitUntil([&] { return Attempt(), refused.Hits() == 1; }));
    EXPECT_EQ(ReadLines(m_backup).back(), std::to_string(nWritten - 1));
    log.ExpectNone();
    AppCloseFileLog(kChannel);
    EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
}

TEST_F(FileLog, RefusedRotationSaysSoOnce)
{
    LogCapture log;
    const std::string noBackup =
        "[ERROR] _AppFileLog: channel 77: starts anew without a backup, Read-only file system\n";
    ASSERT_EQ(Open(0), 0);
    for (int i = 0; i < 3; ++i) {
        {
            fault::Fail refused(fault::Fn::rename, 1, EROFS, 2);
            Write("one");
            Write("two");
        }
        log.ExpectLines({noBackup});
        EXPECT_EQ(ReadFile(m_path), "");
        if (i == 0) // from here on, or from another opening on, it is news again
            Write("three");
        else
            EXPECT_EQ(Open(0), 0);
        EXPECT_EQ(ReadLines(m_backup), Lines{"three"});
    }
    fault::Fail stop(fault::Fn::fopen, 1, ENOSPC);
    Write("four");
    EXPECT_EQ(Stream(), nullptr);
    Write("goes nowhere");
    log.ExpectLines({"[ERROR] _AppFileLog: channel 77: no file until it is set again, No space "
                     "left on device\n"});
    EXPECT_EQ(ReadLines(m_backup), Lines{"four"});
    ASSERT_EQ(Open(1000), 0);
    m_path = m_dir / "missing" / "file"; // silently, and the old file is closed
    EXPECT_EQ(Open(10), -1);
    EXPECT_EQ(Stream(), nullptr);
    log.ExpectNone();
}

TEST_F(FileLog, FilesBeyondTheCountRotate)
{
    if (sizeof(off_t) < 8)
        GTEST_SKIP() << "files end at 2 GiB here";
    std::ofstream(m_path).close();
    fs::resize_file(m_path, 5ull << 30);
    EXPECT_EQ(Open(UINT32_MAX - 1), UINT32_MAX);
    Write("last");
    EXPECT_EQ(fs::file_size(m_backup), (5ull << 30) + kStampLen + 5);
    EXPECT_EQ(fs::file_size(m_path), 0u);
}

// The disk is full in the middle of a line, and the piece may not be taken back at once, or never.
TEST_F(FileLog, FullDiskLeavesWholeLinesAndTellsOnce)
{
    const std::string line = "a line that does not fit any more, soon";
    signal(SIGXFSZ, SIG_IGN);
    for (const unsigned nUncut : {0u, 1u, 99u}) {
        SCOPED_TRACE(nUncut);
        fs::remove(m_path);
        LogCapture log;
        ASSERT_EQ(Open(100000), 0);
        Write("before");
        {
            fault::Fail uncut(fault::Fn::ftruncate, 1, EIO, nUncut);
            struct rlimit tOld;
            getrlimit(RLIMIT_FSIZE, &tOld);
            struct rlimit tSmall = tOld;
            tSmall.rlim_cur = 200; // after 30 bytes and twice 63
            setrlimit(RLIMIT_FSIZE, &tSmall);
            for (int i = 0; i < 9; ++i)
                Write(line);
            setrlimit(RLIMIT_FSIZE, &tOld);
            Write("after");
        }
        log.ExpectLines({Lost("No space left on device"), Again(7)});
        EXPECT_EQ(g_atAppFileLogInfo[kChannel].dwCurSize, fs::file_size(m_path));
        std::string content = ReadFile(m_path);
        if (nUncut == 99) { // the piece has an end of its own
            EXPECT_EQ(content[200], '\n');
            std::ofstream(m_path) << content.erase(156, 45);
        }
        EXPECT_EQ(ReadLines(m_path), (Lines{"before", line, line, "after"}));
    }
    signal(SIGXFSZ, SIG_DFL);
}

TEST_F(FileLog, EveryLineIsOneWriteThatGoesOnAfterASignal)
{
    LogCapture log;
    ASSERT_EQ(Open(1000), 0);
    fault::Fail fail(fault::Fn::writev, 2, EINTR, 2);
    Write("one");
    Write("two");
    EXPECT_EQ(fail.Calls(), 4u);
    fault::Fail full(fault::Fn::writev, 1, EIO);
    fault::Fail console(fault::Fn::_AppVsnprintf, 2, 0); // the second text is what the loss says
    console.Action([] { Write("from the console"); });   // which may log on the same channel
    Write("lost");
    Write("three");
    EXPECT_EQ(ReadLines(m_path), (Lines{"one", "two", "from the console", "three"}));
    log.ExpectLines({Again(1), Lost("Input/output error")});
    EXPECT_EQ(g_atAppFileLogInfo[kChannel].dwCurSize, fs::file_size(m_path));
}

// In a file system of 64 KiB, mounted where only a child sees it.
TEST_F(FileLog, FillsARealDisk)
{
    const pid_t nChild = fork();
    if (nChild == 0) {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", m_dir.c_str(), "tmpfs", 0, "size=64k") != 0)
            _exit(77);
        LogCapture log;
        Open(1000000);
        for (int i = 0; i < 4000; ++i)
            Write(std::to_string(i));
        const Lines lines = ReadLines(m_path);
        for (size_t i = 0; i < lines.size(); ++i)
            EXPECT_EQ(lines[i], std::to_string(i));
        fs::resize_file(m_path, 0); // somebody makes room
        Write("room");
        EXPECT_EQ(ReadLines(m_path), Lines{"room"});
        log.ExpectLines({Lost("No space left on device"), Again(4000 - lines.size())});
        fflush(nullptr);
        _exit(HasFailure());
    }
    int nStatus = 0;
    waitpid(nChild, &nStatus, 0);
    if (WEXITSTATUS(nStatus) == 77)
        GTEST_SKIP() << "only who may mount can fill a file system of his own";
    EXPECT_EQ(nStatus, 0);
}

// Every full file is read right before it becomes the backup: together with the last one they hold
// each thread's lines, whole and in order.
TEST_F(FileLog, EightWritersLoseNothingInRotations)
{
    constexpr unsigned kThreads = 8;
    constexpr unsigned kLines = test::Scaled(1000000) / kThreads;
    constexpr uint32_t kLimit = 20000;
    unsigned anNext[kThreads] = {};
    const auto CheckFile = [&] {
        for (const std::string &line : ReadLines(m_path)) {
            unsigned nThread = kThreads, nLine = 0;
            ASSERT_EQ(sscanf(line.c_str(), "%u %u", &nThread, &nLine), 2) << line;
            ASSERT_LT(nThread, kThreads);
            ASSERT_EQ(nLine, anNext[nThread]++);
            ASSERT_EQ(line, std::to_string(nThread) + " " + std::to_string(nLine) + " end");
        }
    };
    ASSERT_EQ(Open(kLimit), 0);
    fault::Fail rotation(fault::Fn::rename, 1, 0, UINT_MAX, fault::kEveryThread);
    rotation.Action(CheckFile); // under the channel's mutex
    test::RunThreads(kThreads, [&](unsigned nThread) {
        for (unsigned i = 0; i < kLines; ++i)
            AppLogFile(kChannel, APP_LOG_ALWAYS, "%u %u end\n", nThread, i);
    });
    CheckFile();
    for (const unsigned nNext : anNext)
        EXPECT_EQ(nNext, kLines);
    EXPECT_GE(rotation.Hits(), kThreads * kLines * (kStampLen + 8) / (kLimit + 40));
    EXPECT_EQ(g_atAppFileLogInfo[kChannel].dwCurSize, fs::file_size(m_path));
}

TEST_F(FileLog, MayBeSetAndClosedWhileOthersWrite)
{
    StdoutCapture output;
    test::RunThreads(4, [&](unsigned nThread) {
        for (unsigned i = 0; i < 3000; ++i)
            if (nThread != 0)
                Write("line");
            else if (i % 3 == 2)
                AppCloseFileLog(kChannel);
            else
                AppSetFileLog(kChannel, m_path.c_str(), 1000);
    });
    for (const fs::path &path : {m_path, m_backup})
        for (const std::string &line : ReadLines(path))
            EXPECT_EQ(line, "line");
}
