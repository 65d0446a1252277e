// SPDX-License-Identifier: MIT
#include "support/log_capture.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <shared_mutex>

#include "appcore/host.h"
#include "support/exported.h"
#include "utils/log.h"

namespace
{

std::shared_mutex s_mutex; // guards the pointer: a capture may end while another thread logs
test::LogCapture *s_capture = nullptr;

std::string Format(const char *szFormat, va_list args)
{
    va_list again;
    va_copy(again, args);
    std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, szFormat, again)), '\0');
    va_end(again);
    vsnprintf(text.data(), text.size() + 1, szFormat, args);
    return text;
}

} // namespace

int32_t QorPrintf(int32_t nFlag1, int32_t nFlag2, const char *szFormat, ...)
{
    EXPECT_EQ(nFlag1, 1);
    EXPECT_EQ(nFlag2, 0);
    EXPECT_STREQ(szFormat, "%s");
    va_list args;
    va_start(args, szFormat);
    const std::string line = Format(szFormat, args);
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

// Each address by its name, the others by `szOther`, null: stay.
static void Mask(std::string &line, const std::map<std::string, std::string> &names,
                 const char *szOther)
{
    for (size_t n = 0; (n = line.find("0x", n)) != std::string::npos; ++n) {
        const size_t nSize = 2 + strspn(&line[n + 2], "0123456789abcdef");
        const auto name = names.find(line.substr(n, nSize));
        if (nSize > 2 && (name != names.end() || szOther))
            line.replace(n, nSize, name != names.end() ? name->second : szOther);
    }
}

std::string Masked(std::string line)
{
    Mask(line, {}, "P");
    return line;
}

std::string Text(const char *szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    std::string text = Format(szFormat, args);
    va_end(args);
    return text;
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

void LogCapture::Name(const void *pv, const char *szName)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_names[Text("%p", pv)] = szName; // an address may be used again
}

std::vector<std::string> LogCapture::Lines() const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    std::vector<std::string> lines = m_lines;
    for (std::string &line : lines)
        Mask(line, m_names, nullptr);
    return lines;
}

size_t LogCapture::Count(const std::string &line) const
{
    const std::vector<std::string> lines = Lines();
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_lines.clear();
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
