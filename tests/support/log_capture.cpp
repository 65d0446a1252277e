// SPDX-License-Identifier: MIT
#include "support/log_capture.h"

#include <stdarg.h>
#include <stdio.h>

#include <shared_mutex>

#include "appcore/host.h"
#include "support/exported.h"
#include "utils/log.h"

static std::shared_mutex s_mutex; // guards the pointer: a capture may end while another thread logs
static test::LogCapture *s_capture = nullptr;

int32_t QorPrintf(int32_t nFlag1, int32_t nFlag2, const char *szFormat, ...)
{
    EXPECT_EQ(nFlag1, 1);
    EXPECT_EQ(nFlag2, 0);
    EXPECT_STREQ(szFormat, "%s");
    va_list args;
    va_start(args, szFormat);
    const std::string line = va_arg(args, const char *);
    va_end(args);
    std::shared_lock<std::shared_mutex> guard(s_mutex); // shared: what the console does may log
    if (s_capture)
        s_capture->Add(line);
    else
        fputs(line.c_str(), stderr);
    return 0;
}

namespace test
{

// A known tag, the name of one of the library's functions, one newline.
static bool IsWellFormed(const std::string &line)
{
    const size_t nName = line.find("] ") + 2, nEnd = line.find(": ", nName);
    static const std::string tags = "[INFO [ERROR[DEBUG[MEMDBG-1[MEMDBG-2";
    return line[0] == '[' && nEnd != std::string::npos &&
           tags.find(line.substr(0, nName - 2)) != std::string::npos &&
           IsFunction(line.substr(nName, nEnd - nName)) && line.find('\n') == line.size() - 1;
}

std::string Text(const char *szFormat, ...)
{
    char achText[8192];
    va_list args;
    va_start(args, szFormat);
    EXPECT_LT(static_cast<size_t>(vsnprintf(achText, sizeof(achText), szFormat, args)),
              sizeof(achText));
    va_end(args);
    return achText;
}

LogCapture::LogCapture(uint8_t byThreshold) : m_byThreshold(g_byAppLogLevel[0].load())
{
    std::lock_guard<std::shared_mutex> guard(s_mutex);
    EXPECT_EQ(s_capture, nullptr) << "one capture at a time";
    s_capture = this;
    g_byAppLogLevel[0].store(byThreshold);
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::shared_mutex> guard(s_mutex);
    s_capture = nullptr;
    g_byAppLogLevel[0].store(m_byThreshold);
}

void LogCapture::OnLine(std::function<void(const std::string &line)> console)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_console = std::move(console);
}

void LogCapture::Add(const std::string &line)
{
    EXPECT_TRUE(line[0] != '[' || IsWellFormed(line)) << line;
    std::unique_lock<std::mutex> guard(m_mutex);
    m_lines.push_back(line);
    const auto console = m_console;
    guard.unlock();
    if (console)
        console(line);
}

} // namespace test
