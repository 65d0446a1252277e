// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <random>

#include "appcore/appcore.h"
#include "cross_linux/cross_linux.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using fault::Fn;
using test::LogCapture;
using test::Text;
namespace fs = std::filesystem;

namespace
{

constexpr uint8_t kChannel = 77;
TAppFileLogInfo &s_info = g_atAppFileLogInfo[kChannel];
const std::string kStamp = "[9999/99/99 99:99:99 ] ";

// Every digit becomes 9.
std::string ReadFile(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    std::replace_if(text.begin(), text.end(), isdigit, '9');
    return text;
}

std::string Line(const std::string &text)
{
    return kStamp + text + "\n";
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
        m_away = m_dir / "away";
    }
    ~FileLog() override
    {
        AppCloseFileLog(kChannel);
        fs::remove_all(m_dir);
    }

    // The size printed on standard output when the file was opened, or -1.
    long Open(uint32_t dwMaxSize, int nRefused = 0)
    {
        test::StdoutCapture output;
        fault::Fail fail(Fn::fopen, nRefused ? 1 : 0, nRefused);
        const bool bOpen = AppSetFileLog(kChannel, m_path.c_str(), dwMaxSize);
        unsigned dwSize = 0;
        const bool bSaid = sscanf(output.End().c_str(), "dwCurSize %u\n", &dwSize) == 1;
        EXPECT_EQ(bSaid, bOpen);
        return bOpen ? static_cast<long>(dwSize) : -1;
    }
    static void Write(const std::string &text)
    {
        AppLogFile(kChannel, APP_LOG_ALWAYS, "%s\n", text.c_str());
    }
    fs::path m_dir, m_path, m_backup, m_away;
};

// What the files of a channel hold, and what is said about them.
struct TModel {
    std::string file, backup;
    std::vector<std::string> said;
    bool bOpen = false, bNoBackup = false, bInConsole = false;
    uint32_t dwMax = 0;
    size_t nCount = 0, nLost = 0, nTorn = 0, nDisk = SIZE_MAX; // where the disk ends
    int nGone = 0;
    std::map<Fn, int> refused; // with which error

    void Adopt(bool bOpened)
    {
        bOpen = bOpened;
        nCount = bOpened ? file.size() : 0;
        nTorn = 0;
        nGone = 0;
    }
    void Write(const std::string &text)
    {
        if (!bOpen)
            return;
        const int nError = nGone ? nGone : Append(text);
        const size_t nRecovered = nError ? 0 : std::exchange(nLost, 0);
        const bool bFirst = nError && nLost++ == 0, bRotates = nCount > dwMax && !nGone;
        const bool bNews = bRotates && !std::exchange(bNoBackup, bRotates ? Rotate() : bNoBackup);
        Say(bFirst, "ERROR", Text("lines are lost from here on, %s", strerror(nError)));
        Say(nRecovered, "INFO ", Text("written again, %zu lines were lost", nRecovered));
        Say(bNews && bNoBackup, "ERROR",
            Text("starts anew without a backup, %s", strerror(refused[Fn::rename])));
        Say(bRotates && refused[Fn::fopen], "ERROR",
            Text("no file until it is set again, %s", strerror(refused[Fn::fopen])));
    }

private:
    // Returns why the line is lost, or 0.
    int Append(const std::string &text)
    {
        CutTorn();
        if (refused[Fn::writev])
            return refused[Fn::writev];
        const std::string line = (nTorn ? "\n" : "") + Line(text);
        const size_t nRoom = nDisk > file.size() ? nDisk - file.size() : 0;
        file += line.substr(0, nRoom);
        nTorn += std::min(nRoom, line.size());
        if (nRoom >= line.size()) {
            nCount += std::exchange(nTorn, 0);
            return 0;
        }
        CutTorn();
        return nRoom ? ENOSPC : EFBIG;
    }
    void CutTorn()
    {
        if (!refused[Fn::ftruncate] && file.size() >= nTorn)
            file.resize(file.size() - std::exchange(nTorn, 0));
    }
    // Returns whether there is no backup.
    bool Rotate()
    {
        if (!refused[Fn::rename])
            backup = std::exchange(file, "");
        if (!refused[Fn::fopen])
            file = "";
        Adopt(!refused[Fn::fopen]);
        return refused[Fn::rename];
    }
    void Say(bool bSay, const char *szLevel, const std::string &what)
    {
        if (!bSay)
            return;
        said.push_back(Text("[%s] _AppFileLog: channel %d: %s\n", szLevel, kChannel, what.c_str()));
        if (!std::exchange(bInConsole, true)) {
            Write("by the console");
            bInConsole = false;
        }
    }
};

} // namespace

TEST_F(FileLog, TakesLevelZeroAndPathsUpTo127Characters)
{
    LogCapture log;
    m_path = m_dir / std::string(127 - m_dir.string().size() - 1, 'p');
    const std::string longest = m_path.string();
    ASSERT_EQ(Open(0), 0);
    AppSetLogLevel(kChannel, 255);
    AppLog(kChannel, APP_LOG_ALWAYS, "both\n"); // its backup's name is longer than a path may be
    AppLog(kChannel, APP_LOG_INFO, "console\n");
    AppLogFile(kChannel, APP_LOG_ERROR, "nowhere\n");
    AppLogFile(kChannel, APP_LOG_ALWAYS, nullptr);
    AppSetLogLevel(kChannel, 0);
    m_path += "1";
    EXPECT_EQ(ReadFile(m_path), Line("both"));
    log.ExpectLines({"both\n", "console\n"});
    EXPECT_EQ(Open(10), -1);
    EXPECT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(s_info.achFilePath, longest);
}

// Seeded random lines, openings and accidents beside the model.  The console logs on the channel.
TEST_F(FileLog, IsAsItsModel)
{
    std::mt19937 random(11);
    TModel model;
    LogCapture log;
    bool bInConsole = false;
    log.OnLine([&](const std::string &) {
        if (!std::exchange(bInConsole, true)) {
            Write("by the console");
            bInConsole = false;
        }
    });
    const auto open = [&](uint32_t dwMax) {
        model.dwMax = dwMax;
        model.bNoBackup = false;
        model.Adopt(!model.refused[Fn::fopen]);
        const long nSize = model.bOpen ? static_cast<long>(model.nCount) : -1;
        EXPECT_EQ(Open(dwMax, model.refused[Fn::fopen]), nSize);
    };
    const auto write = [&] {
        std::list<fault::Fail> faults;
        faults.emplace_back(Fn::writev, 1, EINTR, random() % 3);
        for (const auto &[fn, nError] : model.refused)
            faults.emplace_back(fn, nError ? 1 : 0, nError, 1000);
        struct rlimit tOld;
        getrlimit(RLIMIT_FSIZE, &tOld);
        const struct rlimit tDisk = {std::min<rlim_t>(model.nDisk, tOld.rlim_max), tOld.rlim_max};
        const std::string text(random() % 60, static_cast<char>('a' + random() % 26));
        setrlimit(RLIMIT_FSIZE, &tDisk);
        Write(text);
        setrlimit(RLIMIT_FSIZE, &tOld);
        model.Write(text);
    };
    // What the first line after an opening sees.
    const auto vanish = [&](bool bMoved) {
        const int nRefused = std::exchange(model.refused[Fn::fopen], 0);
        open(bMoved ? UINT32_MAX : 0);
        bMoved ? fs::rename(m_path, m_away) : (void)fs::remove(m_path);
        if (random() % 2)
            std::ofstream(m_path).close(); // another in its place
        model.refused[Fn::fopen] = nRefused;
        if (!nRefused) {
            model.file = "";
            model.Adopt(true);
        }
        model.nGone = bMoved ? 0 : nRefused;
        write();
        if (!std::exchange(model.refused[Fn::fopen], 0))
            return;
        EXPECT_EQ(ReadFile(m_away), bMoved ? model.file : ReadFile(m_away));
        model.file = "";
        open(200);
    };
    signal(SIGXFSZ, SIG_IGN);
    const long nDescriptors = fault::OpenDescriptors();
    for (unsigned i = 0; i < test::Scaled(4000); ++i) {
        SCOPED_TRACE(i);
        for (const Fn fn : {Fn::writev, Fn::ftruncate, Fn::rename, Fn::fopen})
            model.refused[fn] = random() % 8 ? 0 : random() % 2 ? EIO : EROFS;
        model.nDisk = random() % 3 ? SIZE_MAX : model.file.size() + random() % 90;
        const unsigned nKind = random() % 40;
        if (nKind < 32) {
            write();
        } else if (nKind < 36) {
            open(random() % 8 * 60);
        } else if (nKind < 38) {
            vanish(nKind % 2);
        } else if (nKind == 38) {
            AppCloseFileLog(kChannel);
            model.Adopt(false);
        } else if (std::ofstream(m_path, std::ios::in | std::ios::trunc)) { // by another program
            model.file = "";
        }
        ASSERT_EQ(ReadFile(m_path), model.file);
        ASSERT_EQ(ReadFile(m_backup), model.backup);
        ASSERT_EQ(s_info.dwCurSize, model.nCount);
        ASSERT_EQ(s_info.ptFile.load() != nullptr, model.bOpen);
        log.ExpectLines(std::exchange(model.said, {}));
        ASSERT_FALSE(HasFailure());
    }
    AppCloseFileLog(kChannel);
    EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
    signal(SIGXFSZ, SIG_DFL);
}

// What is changed from outside shows within a second: the zone, and a file that was deleted.
TEST_F(FileLog, StampIsTheLocalTimeAndFollowsTheZone)
{
    ASSERT_EQ(Open(1000000), 0);
    for (const char *szZone : {"UTC0", "XXX-5:30", "UTC0"}) {
        setenv("TZ", szZone, 1);
        fs::remove(m_path);
        EXPECT_TRUE(test::WaitUntil([&] {
            const time_t nNow = time(nullptr) + (szZone[0] == 'X' ? 19800 : 0);
            struct tm tNow;
            gmtime_r(&nNow, &tNow);
            char achLine[64];
            strftime(achLine, sizeof(achLine), "[%Y/%m/%d %H:%M:%S ] now", &tNow);
            Write("now");
            std::string last, line;
            for (std::ifstream file(m_path); std::getline(file, line);)
                last = line;
            return last == achLine;
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
    for (const Fn fn : {Fn::fcntl, Fn::fdopen}) {
        fault::Fail fail(fn, 1, EMFILE);
        EXPECT_EQ(AppSetFileLog(kChannel, m_path.c_str(), 10), 0u);
        EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
    }
    EXPECT_EQ(AppSetFileLog(kChannel, m_path.c_str(), 10), 1u);
    for (int i = 0; i < 2; ++i) {
        ASSERT_GT(fileno(s_info.ptFile), STDERR_FILENO);
        EXPECT_TRUE(fcntl(fileno(s_info.ptFile), F_GETFD) & FD_CLOEXEC);
        Write("rotates");
    }
    dup2(nStdin, STDIN_FILENO);
    close(nStdin);
}

TEST_F(FileLog, FilesBeyondTheCountRotate)
{
    if (sizeof(off_t) < 8)
        GTEST_SKIP() << "files end at 2 GiB here";
    std::ofstream(m_path).close();
    fs::resize_file(m_path, 5ull << 30);
    EXPECT_EQ(Open(UINT32_MAX - 1), UINT32_MAX);
    Write("last");
    EXPECT_EQ(fs::file_size(m_backup), (5ull << 30) + Line("last").size());
    EXPECT_EQ(fs::file_size(m_path), 0u);
}

// Every full file is read right before it becomes the backup: together with the last one they hold
// each thread's lines, whole and in order.  Then one thread sets and closes the file meanwhile.
TEST_F(FileLog, EightWritersLoseNothingInRotations)
{
    constexpr unsigned kThreads = 8, kLines = test::Scaled(160000) / kThreads;
    unsigned anNext[kThreads] = {};
    const auto CheckFile = [&] {
        unsigned nThread = 0, nLine = 0;
        std::ifstream file(m_path);
        for (std::string line; std::getline(file, line);) {
            ASSERT_EQ(sscanf(line.c_str(), "[%*s %*s ] %u end %u", &nThread, &nLine), 2) << line;
            ASSERT_EQ(nLine, anNext[nThread % kThreads]++);
        }
    };
    ASSERT_EQ(Open(20000), 0);
    {
        fault::Fail rotation(Fn::rename, 1, 0, UINT_MAX, fault::kEveryThread);
        rotation.Action(CheckFile); // under the channel's mutex
        test::RunThreads(kThreads, [&](unsigned nThread) {
            for (unsigned i = 0; i < kLines; ++i)
                Write(Text("%u end %u", nThread, i));
        });
        CheckFile();
        EXPECT_GE(rotation.Hits(), kThreads * kLines * Line("1 1 end").size() / 20040);
    }
    for (const unsigned nNext : anNext)
        EXPECT_EQ(nNext, kLines);
    uint32_t dwSize = 0;
    test::RunThreads(4, [&](unsigned nThread) {
        for (unsigned i = 0; i < 3000; ++i)
            if (nThread != 0)
                Write("line");
            else if (i % 3 == 2)
                AppCloseFileLog(kChannel);
            else
                _AppFileLogOpen(kChannel, m_path.c_str(), 1000, &dwSize);
    });
}
