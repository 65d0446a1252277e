// SPDX-License-Identifier: MIT
//
// The console of the tests.  A strong QorPrintf() collects the library's lines while a LogCapture
// lives; without one they go to standard error.
//
//   test::LogCapture log;
//   … operation …
//   log.ExpectLines({test::Text("[ERROR] %s: AppLockCreate failed %d\n", "AppQueueCreate", 104)});
#ifndef APPCORE_TESTS_SUPPORT_LOG_CAPTURE_H
#define APPCORE_TESTS_SUPPORT_LOG_CAPTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "appcore/foundation.h"

namespace test
{

// printf into a string.
std::string Text(const char *szFormat, ...) APP_PRINTF(1, 2);

// One at a time.  Checks that each line with a tag has one that is known, the name of a function
// and one newline.  Collects from every thread.
class LogCapture
{
public:
    // `byThreshold` becomes channel 0's threshold for the capture's life.
    explicit LogCapture(uint8_t byThreshold = APP_LOG_ERROR);
    ~LogCapture();

    std::vector<std::string> Lines() const
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    size_t Count(const std::string &line) const
    {
        const std::vector<std::string> lines = Lines();
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
    }
    void Clear()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.clear();
    }
    // Exactly these lines came, in this order; then starts again, so that one capture serves a row
    // of steps.
    void ExpectLines(const std::vector<std::string> &lines)
    {
        EXPECT_EQ(Lines(), lines);
        Clear();
    }
    void ExpectNone() { ExpectLines({}); }

    // A console that does something of its own: runs in front of each line, in the thread that logs.
    void OnLine(std::function<void(const std::string &line)> console);

    void Add(const std::string &line);

private:
    std::function<void(const std::string &line)> m_console;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
    uint8_t m_byThreshold;
};

// Takes the process's standard output over from its construction to End() or its end.
class StdoutCapture
{
public:
    StdoutCapture() { testing::internal::CaptureStdout(); }
    ~StdoutCapture() { End(); }
    // What was printed; a second call gives it again.
    const std::string &End()
    {
        if (std::exchange(m_bActive, false))
            m_text = testing::internal::GetCapturedStdout();
        return m_text;
    }

private:
    bool m_bActive = true;
    std::string m_text;
};

} // namespace test

#endif
