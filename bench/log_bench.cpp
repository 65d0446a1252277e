// SPDX-License-Identifier: MIT
#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include "appcore/log_fast.h"
#include "bench.h"

namespace
{

constexpr uint32_t kFileLimit = 16u << 20;
constexpr uint8_t kChannel = 7;

// Memory-backed, so that the rows measure the path to the file and not a disk.
std::string TemporaryPath(const char *szName)
{
    const char *szFolder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    return std::string(szFolder) + "/appcore-bench-" + std::to_string(getpid()) + "-" + szName;
}

void RemoveWithBackup(const std::string &strPath, const std::string &strBackup)
{
    unlink(strPath.c_str());
    unlink(strBackup.c_str());
}

void AppcoreDisabled(benchmark::State &state)
{
    unsigned dwValue = 0;
    for (auto _ : state) {
        AppLog(0, APP_LOG_DEBUG, "[DEBUG] %s: value %u of %s\n", __func__, dwValue++, "camera");
        benchmark::ClobberMemory();
    }
}

void AppcoreDisabledMacro(benchmark::State &state)
{
    unsigned dwValue = 0;
    for (auto _ : state) {
        APP_LOG_FAST(0, APP_LOG_DEBUG, "[DEBUG] %s: value %u of %s\n", __func__, dwValue++,
                     "camera");
        benchmark::ClobberMemory();
    }
}

void AppcoreFormatted(benchmark::State &state)
{
    unsigned dwValue = 0;
    for (auto _ : state)
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: value %u of %s\n", __func__, dwValue++, "camera");
}

// The C library's formatting and nothing else: no threshold, no console.
void NaiveFormatted(benchmark::State &state)
{
    char achText[256];
    unsigned dwValue = 0;
    for (auto _ : state) {
        snprintf(achText, sizeof achText, "[ERROR] %s: value %u of %s\n", __func__, dwValue++,
                 "camera");
        benchmark::ClobberMemory();
    }
}

void AppcoreFile(benchmark::State &state)
{
    static const std::string s_strPath = TemporaryPath("appcore.log");
    if (state.thread_index() == 0)
        bench::Require(AppSetFileLog(kChannel, s_strPath.c_str(), kFileLimit) == 1);
    unsigned dwValue = 0;
    for (auto _ : state)
        AppLogFile(kChannel, APP_LOG_ALWAYS, "[INFO ] %s: value %u of %s\n", __func__, dwValue++,
                   "camera");
    if (state.thread_index() == 0) {
        AppCloseFileLog(kChannel);
        RemoveWithBackup(s_strPath, s_strPath + "1");
    }
}

std::shared_ptr<spdlog::logger> NullLogger()
{
    return std::make_shared<spdlog::logger>("null",
                                            std::make_shared<spdlog::sinks::null_sink_mt>());
}

void SpdlogDisabled(benchmark::State &state)
{
    const auto logger = NullLogger();
    unsigned dwValue = 0;
    for (auto _ : state) {
        logger->debug("[DEBUG] {}: value {} of {}", __func__, dwValue++, "camera");
        benchmark::ClobberMemory();
    }
}

void SpdlogFormatted(benchmark::State &state)
{
    const auto logger = NullLogger();
    unsigned dwValue = 0;
    for (auto _ : state)
        logger->error("[ERROR] {}: value {} of {}", __func__, dwValue++, "camera");
}

void SpdlogFile(benchmark::State &state)
{
    static const std::string s_strPath = TemporaryPath("spdlog.log");
    static std::shared_ptr<spdlog::logger> s_logger;
    if (state.thread_index() == 0) {
        s_logger = std::make_shared<spdlog::logger>(
            "file",
            std::make_shared<spdlog::sinks::rotating_file_sink_mt>(s_strPath, kFileLimit, 1));
        s_logger->set_pattern("[%Y/%m/%d %H:%M:%S ] %v");
        s_logger->flush_on(spdlog::level::trace);
    }
    unsigned dwValue = 0;
    for (auto _ : state)
        s_logger->info("[INFO ] {}: value {} of {}", __func__, dwValue++, "camera");
    if (state.thread_index() == 0) {
        s_logger.reset();
        std::string strBackup = s_strPath;
        RemoveWithBackup(s_strPath, strBackup.replace(strBackup.size() - 4, 4, ".1.log"));
    }
}

int g_nNaiveLevel = APP_LOG_ERROR;

void NaiveDisabled(benchmark::State &state)
{
    unsigned dwValue = 0;
    for (auto _ : state) {
        if (APP_LOG_DEBUG <= g_nNaiveLevel)
            printf("[DEBUG] %s: value %u of %s\n", __func__, dwValue++, "camera");
        benchmark::ClobberMemory();
    }
}

void NaiveFile(benchmark::State &state)
{
    static const std::string s_strPath = TemporaryPath("naive.log");
    static FILE *s_ptFile;
    static std::mutex s_mutex;
    if (state.thread_index() == 0)
        bench::Require((s_ptFile = fopen(s_strPath.c_str(), "w")) != nullptr);
    unsigned dwValue = 0;
    for (auto _ : state) {
        const time_t tNow = time(nullptr);
        tm tBroken;
        char achStamp[32];
        strftime(achStamp, sizeof achStamp, "%Y/%m/%d %H:%M:%S", localtime_r(&tNow, &tBroken));
        std::lock_guard<std::mutex> guard(s_mutex);
        if (ftell(s_ptFile) > static_cast<long>(kFileLimit))
            rewind(s_ptFile); // stands for the rotation
        fprintf(s_ptFile, "[%s ] [INFO ] %s: value %u of %s\n", achStamp, __func__, dwValue++,
                "camera");
        fflush(s_ptFile);
    }
    if (state.thread_index() == 0) {
        fclose(s_ptFile);
        unlink(s_strPath.c_str());
    }
}

} // namespace

void bench::RegisterRows()
{
    Add("log_disabled", "appcore", AppcoreDisabled, "0.2");
    Add("log_disabled", "spdlog", SpdlogDisabled);
    Add("log_disabled", "naive", NaiveDisabled);
    Add("log_disabled macro", "appcore", AppcoreDisabledMacro);
    Add("log_disabled macro", "spdlog", SpdlogDisabled);
    Add("log_formatted", "appcore", AppcoreFormatted, "1.0");
    Add("log_formatted", "spdlog", SpdlogFormatted);
    Add("log_formatted", "naive", NaiveFormatted);
    for (int nThreads : {1, 2}) {
        const std::string strRow = "log_file threads:" + std::to_string(nThreads);
        Add(strRow, "appcore", AppcoreFile, "0.85")->Threads(nThreads);
        Add(strRow, "spdlog", SpdlogFile)->Threads(nThreads);
        Add(strRow, "naive", NaiveFile)->Threads(nThreads);
    }
}
