// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "appcore/appcore.h"
#include "cross_linux/cross_linux.h"
#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using fault::Fn;
namespace fs = std::filesystem;

namespace
{

constexpr uint8_t kChannel = 77;
TAppFileLogInfo &s_info = g_atAppFileLogInfo[kChannel];

// A stamp becomes ">".
std::string ReadFile(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return std::regex_replace(text, std::regex(R"(\[[\d/]{10} [\d:]{8} \] )"), ">");
}

void Write(const std::string &text)
{
    AppLogFile(kChannel, APP_LOG_ALWAYS, "%s\n", text.c_str());
}

class FileLog : public testing::Test
{
protected:
    ~FileLog() override
    {
        AppCloseFileLog(kChannel);
        fs::remove_all(m_dir);
    }
    uint32_t Open(uint32_t dwMaxSize)
    {
        uint32_t dwSize = 0;
        _AppFileLogOpen(kChannel, m_path.c_str(), dwMaxSize, &dwSize);
        return dwSize;
    }
    // Opened for two lines or for many, closed, moved, deleted, emptied; all else is a line.
    void Do(char chStep)
    {
        if (chStep == 'o' || chStep == 'O')
            Open(chStep == 'o' ? 50 : 1000);
        else if (chStep == 'c')
            AppCloseFileLog(kChannel);
        else if (chStep == 'm')
            fs::rename(m_path, m_backup);
        else if (chStep == 'd')
            fs::remove(m_path);
        else if (chStep == 'e')
            std::ofstream(m_path).close();
        else
            Write(std::string(1, chStep));
    }
    static std::string Stats()
    {
        TAppLogStats tStats = {};
        tStats.dwSize = sizeof(tStats);
        EXPECT_CODE(APP_OK, AppLogGetStats(kChannel, &tStats));
        EXPECT_EQ(tStats.dwChannel, kChannel);
        return test::Text("%u %u %u; %u lines %u bytes %u lost %u rotations error %d", tStats.bFile,
                          tStats.dwFileSize, tStats.dwFileLimit, tStats.dwFileLines,
                          tStats.dwFileBytes, tStats.dwLost, tStats.dwRotations, tStats.nLastError);
    }
    const fs::path m_dir = mkdtemp(std::string("/tmp/appcore-log-XXXXXX").data());
    fs::path m_path = m_dir / "channel.log", m_backup = m_dir / "channel.log1";
};

struct TStep {
    const char *szDo;
    std::vector<Fn> refused;
    rlim_t nDisk;      // where it ends
    std::string files; // file, backup and count
    std::vector<std::string> said;
};
constexpr rlim_t kAll = 1 << 20;
const std::string kBad = "[ERROR] _AppFileLog: channel 77: ",
                  kFull = kBad + "lines are lost from here on, No space left on device\n",
                  kLost = kBad + "lines are lost from here on, Read-only file system\n",
                  kNoBackup = kBad + "starts anew without a backup, Read-only file system\n",
                  kNoFile = kBad + "no file until it is set again, Read-only file system\n",
                  kAgain2 = "[INFO ] _AppFileLog: channel 77: written again, 2 lines were lost\n",
                  kAgain3 = "[INFO ] _AppFileLog: channel 77: written again, 3 lines were lost\n";
const TStep s_atStep[] = {
    {"oABC", {}, kAll, "|>A\n>B\n>C\n|0", {}},
    {"D", {}, 1, "|>A\n>B\n>C\n|0", {kFull}},
    {"E", {}, kAll, "|>E\n>con\n|0", {kAgain2}},
    {"OF", {Fn::ftruncate}, 1, "[|>E\n>con\n|0", {kFull}},
    {"G", {Fn::ftruncate}, 4, "[\n[2|>E\n>con\n|0", {}},
    {"H", {}, kAll, ">H\n>con\n|>E\n>con\n|52", {kAgain3}},
    {"I", {Fn::ftruncate}, 55, ">H\n>con\n[20|>E\n>con\n|52", {kFull}},
    {"eJ", {}, kAll, "\n>J\n>con\n|>E\n>con\n|108", {kAgain2}},
    {"K", {Fn::write}, kAll, "\n>J\n>con\n|>E\n>con\n|108", {kLost}},
    {"oeLMN", {Fn::rename}, kAll, ">M\n>N\n|>E\n>con\n|50", {kAgain2, kNoBackup}},
    {"AB", {}, kAll, ">B\n|>M\n>N\n>A\n|25", {}},
    {"CDE", {Fn::rename}, kAll, "|>M\n>N\n>A\n|0", {kNoBackup}},
    {"oFGH", {Fn::rename}, kAll, ">con\n|>M\n>N\n>A\n|27", {kNoBackup}},
    {"IJ", {Fn::fopen}, kAll, "|>con\n>I\n|0 shut", {kNoFile}},
    {"oJ", {}, kAll, ">J\n|>con\n>I\n|25", {}},
    {"KL", {Fn::rename, Fn::fopen}, kAll, ">J\n>K\n>L\n|>con\n>I\n|0 shut", {kNoBackup, kNoFile}},
    {"OAcB", {}, kAll, ">J\n>K\n>L\n>A\n|>con\n>I\n|0 shut", {}},
    {"OmeCO", {}, kAll, ">C\n|>J\n>K\n>L\n>A\n|25", {}},
    {"mE", {Fn::fopen}, kAll, "|>C\n>E\n|50", {}},
    {"OABCo", {}, kAll, ">A\n>B\n>C\n|>C\n>E\n|75", {}},
    {"dF", {Fn::fopen}, kAll, "|>C\n>E\n|75", {kLost}},
    {"OG", {}, kAll, ">G\n>con\n|>C\n>E\n|52", {kAgain2}},
    {"o", {Fn::fopen}, kAll, ">G\n>con\n|>C\n>E\n|0 shut", {}},
};

} // namespace

// The console logs on the channel too: "con".
TEST_F(FileLog, LosesNoLineInSilence)
{
    test::LogCapture log;
    log.OnLine([](const std::string &) { Write("con"); });
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit tAll;
    getrlimit(RLIMIT_FSIZE, &tAll);
    const long nDescriptors = fault::OpenDescriptors();
    for (const TStep &tStep : s_atStep) {
        SCOPED_TRACE(tStep.szDo);
        fault::Fail interrupts(Fn::write, 1, EINTR, 2);
        fault::Fail refusals(tStep.refused, 1, EROFS, UINT32_MAX);
        const struct rlimit tDisk = {tStep.nDisk, tAll.rlim_max};
        setrlimit(RLIMIT_FSIZE, &tDisk);
        for (const char *pch = tStep.szDo; *pch; ++pch)
            Do(*pch);
        setrlimit(RLIMIT_FSIZE, &tAll);
        const std::string count = std::to_string(s_info.dwCurSize) + (s_info.ptFile ? "" : " shut");
        EXPECT_EQ(ReadFile(m_path) + "|" + ReadFile(m_backup) + "|" + count, tStep.files);
        log.ExpectLines(tStep.said);
    }
    EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
    EXPECT_EQ(Stats(), "0 0 50; 36 lines 917 bytes 11 lost 10 rotations error 30");
}

// What is changed from outside shows within a second: the zone, and a file that was deleted.
TEST_F(FileLog, StampIsTheLocalTimeAndFollowsTheZone)
{
    EXPECT_EQ(Open(1000000), 0u);
    for (const char *szZone : {"UTC0", "XXX-5:30", "UTC0"}) {
        setenv("TZ", szZone, 1);
        EXPECT_TRUE(test::WaitUntil([&] {
            const time_t nNow = time(nullptr) + (szZone[0] == 'X' ? 19800 : 0);
            struct tm tNow;
            gmtime_r(&nNow, &tNow);
            char achLine[64];
            strftime(achLine, sizeof(achLine), "[%Y/%m/%d %H:%M:%S ] now", &tNow);
            fs::remove(m_path);
            Write("now");
            std::string line;
            std::getline(std::ifstream(m_path), line);
            return line == achLine;
        })) << szZone;
    }
}

TEST_F(FileLog, TakesLevelZeroAndPathsUpTo127Characters)
{
    test::LogCapture log;
    test::StdoutCapture output;
    m_path = m_dir / std::string(127 - m_dir.string().size() - 1, 'p');
    EXPECT_EQ(AppSetFileLog(kChannel, m_path.c_str(), 0), 1u);
    EXPECT_EQ(output.End(), "dwCurSize 0\n");
    AppSetLogLevel(kChannel, 255);
    AppLog(kChannel, APP_LOG_ALWAYS, "both\n"); // its backup's name is longer than a path may be
    AppLogFile(kChannel, APP_LOG_ERROR, "nowhere\n");
    AppLogFile(kChannel, APP_LOG_ALWAYS, nullptr);
    m_path += "1";
    EXPECT_EQ(ReadFile(m_path), ">both\n");
    log.ExpectLines({"both\n"});
    EXPECT_EQ(AppSetFileLog(kChannel, m_path.c_str(), 10), 0u);
    EXPECT_EQ(std::string(s_info.achFilePath).size(), 127u);
}

// A program may have closed its standard input, output or error.
TEST_F(FileLog, DescriptorsAreCloseOnExecAndAboveStandard)
{
    close(STDIN_FILENO);
    const long nDescriptors = fault::OpenDescriptors();
    for (const Fn fn : {Fn::fcntl, Fn::fdopen}) {
        fault::Fail fail(fn, 1, EMFILE);
        EXPECT_EQ(AppSetFileLog(kChannel, m_path.c_str(), 100), 0u);
        EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
    }
    const uint64_t qwSize = sizeof(off_t) < 8 ? 101 : 5ull << 30; // the count ends at 4 GiB
    fs::resize_file(m_path, qwSize);
    EXPECT_EQ(Open(100), qwSize == 101 ? 101 : UINT32_MAX);
    for (int i = 0; i < 2; ++i) {
        EXPECT_GT(fileno(s_info.ptFile), STDERR_FILENO);
        EXPECT_TRUE(fcntl(fileno(s_info.ptFile), F_GETFD) & FD_CLOEXEC);
        Write("rotates");
    }
    EXPECT_GT(fs::file_size(m_backup), qwSize);
}

// Another channel's file at the path of this one's backup, and then one that both write: who finds it
// rotated by the other does not rotate what has just begun.
TEST_F(FileLog, AFloodSparesWhatOthersWrote)
{
    test::LogCapture log;
    constexpr uint8_t kOther = kChannel + 1;
    const auto openOther = [&](const fs::path &path, uint32_t dwMaxSize) {
        uint32_t dwSize = 0;
        EXPECT_EQ(_AppFileLogOpen(kOther, path.c_str(), dwMaxSize, &dwSize), 1u);
    };
    openOther(m_backup, 50);
    AppLogFile(kOther, APP_LOG_ALWAYS, "kept\n");
    Open(50);
    for (const char ch : {'A', 'B', 'C', 'D', 'E', 'F', 'G'})
        Do(ch);
    EXPECT_EQ(ReadFile(m_path) + "|" + ReadFile(m_backup), ">G\n|>kept\n");
    log.ExpectLines({kBad + "starts anew without a backup, File exists\n"});
    openOther(m_path, 50);
    Do('o');
    for (const char ch : {'A', 'b', 'C', 'D', 'e', 'f'})
        if (islower(ch))
            AppLogFile(kOther, APP_LOG_ALWAYS, "%c\n", ch);
        else
            Do(ch);
    std::string all = ReadFile(m_backup) + ReadFile(m_path);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, "\n\n\n\n\n\n\n>>>>>>>ACDGbef");
    for (int i = 0; i < 9; ++i) // the other one holds on to what has become the backup of both
        Do('g');
    // A limit of repeats tells in the file that has them.
    AppSetLogRepeat(kOther, 1);
    openOther(m_dir / "other", 1000);
    for (int i = 0; i < 3; ++i)
        AppLogFile(kOther, APP_LOG_ALWAYS, "more\n");
    AppCloseFileLog(kOther);
    AppSetLogRepeat(kOther, 0);
    EXPECT_EQ(ReadFile(m_dir / "other"),
              ">more\n>[INFO ] AppLog: channel 78: 2 identical lines held back: more\n");
    log.ExpectNone();
}

// Every full file is read right before it becomes the backup: together with the last one they hold
// each thread's lines, whole and in order.  Before, one thread sets and closes the file meanwhile.
TEST_F(FileLog, EightWritersLoseNothingInRotations)
{
    constexpr unsigned kThreads = 8, kLines = test::Scaled(160000) / kThreads;
    test::RunThreads(4, [&](unsigned nThread) {
        for (unsigned i = 0; i < 3000; ++i)
            Do(nThread > 0 ? 'L' : "ooc"[i % 3]);
    });
    fs::remove(m_path);
    Open(20000);
    std::vector<unsigned> next(kThreads, 0);
    const auto CheckFile = [&] {
        unsigned nThread = 0, nLine = 0;
        std::ifstream file(m_path);
        for (std::string line; std::getline(file, line);) {
            ASSERT_EQ(sscanf(line.c_str(), "[%*s %*s ] %u end %u", &nThread, &nLine), 2) << line;
            ASSERT_EQ(nLine, next[nThread % kThreads]++);
        }
    };
    fault::Fail rotation(Fn::rename, 1, 0, UINT32_MAX, fault::kEveryThread);
    rotation.Action(CheckFile); // under the channel's mutex
    test::RunThreads(kThreads, [&](unsigned nThread) {
        for (unsigned i = 0; i < kLines; ++i)
            Write(test::Text("%u end %u", nThread, i) + std::string(i % 64 == 0 ? 600 : 0, ' '));
    });
    CheckFile();
    EXPECT_EQ(next, std::vector<unsigned>(kThreads, kLines));
}
