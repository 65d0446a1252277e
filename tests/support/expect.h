// SPDX-License-Identifier: MIT
//
// The tests' common words: result codes by name, waiting for a condition, threads that start
// together, and how much work a stress test does.
#ifndef APPCORE_TESTS_SUPPORT_EXPECT_H
#define APPCORE_TESTS_SUPPORT_EXPECT_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "appcore/foundation.h"

// Compare result codes; a difference is shown with the codes' names.
#define EXPECT_CODE(expected, actual) EXPECT_EQ(test::Code(expected), test::Code(actual))
#define ASSERT_CODE(expected, actual) ASSERT_EQ(test::Code(expected), test::Code(actual))

namespace test
{

inline std::string Code(uint32_t dwCode)
{
    return AppGetResultName(dwCode) + std::string(" ") + std::to_string(dwCode);
}

// Polls until the condition holds; false after a time that only a hang reaches.
template <typename Condition>
[[nodiscard]] bool WaitUntil(Condition condition,
                             std::chrono::milliseconds limit = std::chrono::seconds(60))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Milliseconds since an instant, for "not earlier than".
inline int64_t ElapsedMs(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

// Runs `work(index)` in `nThreads` threads that start together, and waits for all.
template <typename Work>
void RunThreads(unsigned nThreads, Work work)
{
    std::atomic<unsigned> nReady{0};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < nThreads; ++i)
        threads.emplace_back([&, i] {
            for (++nReady; nReady.load() < nThreads;)
                std::this_thread::yield();
            work(i);
        });
    for (std::thread &thread : threads)
        thread.join();
}

// A number of operations: all of them natively, fewer where each costs many times more.
constexpr unsigned Scaled(unsigned nOperations)
{
#if defined(__SANITIZE_THREAD__) || defined(__arm__)
    return nOperations / 20;
#else
    return nOperations;
#endif
}

} // namespace test

#endif
