// SPDX-License-Identifier: MIT
//
// A full queue beside a slow console: one task whose handler takes a moment, two senders that try
// again as soon as they are refused, and a console that takes 0, 1 and 7 ms a line, as a serial
// port does.  What counts is how many events the task still serves, and how long a sender stands in
// one send.
//     slow_console [SECONDS]     of each row; 5 when not given
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "appcore/appcore.h"
#include "appcore/host.h"

namespace
{

constexpr uint32_t kQueue = 8;
constexpr uint64_t kHandlerUs = 100;
constexpr int kSenders = 2;

struct Round {
    std::atomic<uint64_t> nServed{0}, nAccepted{0}, nRefused{0}, nLongestUs{0};
    std::atomic<bool> bEnd{false};
};

std::atomic<uint32_t> s_dwConsoleMs{0};
std::atomic<uint64_t> s_nLines{0};
std::mutex s_tConsole; // one line at a time, as one wire has it

uint64_t NowUs()
{
    timespec tNow;
    clock_gettime(CLOCK_MONOTONIC, &tNow);
    return static_cast<uint64_t>(tNow.tv_sec) * 1000000 +
           static_cast<uint64_t>(tNow.tv_nsec) / 1000;
}

uint32_t Handle(HAppTask, uint32_t dwEventType, void *pvArg, void *)
{
    if (dwEventType == APP_TASK_EVENT_USER) {
        for (const uint64_t nEnd = NowUs() + kHandlerUs; NowUs() < nEnd;) {
        }
        ++static_cast<Round *>(pvArg)->nServed;
    }
    return 0;
}

void Send(Round &round, HAppTask hTask)
{
    while (!round.bEnd) {
        const uint64_t nStart = NowUs();
        const uint32_t dwResult = AppTaskSendEvent(hTask, &round, nullptr, nullptr);
        const uint64_t nTook = NowUs() - nStart;
        ++(dwResult == APP_OK ? round.nAccepted : round.nRefused);
        uint64_t nLongest = round.nLongestUs;
        while (nTook > nLongest && !round.nLongestUs.compare_exchange_weak(nLongest, nTook)) {
        }
    }
}

bool Measure(uint32_t dwConsoleMs, unsigned nSeconds)
{
    Round round;
    HAppTaskMgr hTaskMgr = nullptr;
    HAppTask hTask = nullptr;
    s_dwConsoleMs = 0;
    if (AppTaskMgrCreate(nullptr, 1, 0, &hTaskMgr) != APP_OK ||
        AppTaskMgrNewTask(hTaskMgr, "served", kQueue, 65536, 0, 0, Handle, nullptr, &hTask) !=
            APP_OK)
        return false;
    s_dwConsoleMs = dwConsoleMs;
    s_nLines = 0;
    std::vector<std::thread> threads;
    const uint64_t nStart = NowUs();
    for (int i = 0; i < kSenders; ++i)
        threads.emplace_back(Send, std::ref(round), hTask);
    std::this_thread::sleep_for(std::chrono::seconds(nSeconds));
    const double dSeconds = static_cast<double>(NowUs() - nStart) / 1e6;
    const uint64_t nServed = round.nServed, nRefused = round.nRefused, nLines = s_nLines;
    round.bEnd = true;
    for (std::thread &thread : threads)
        thread.join();
    const double dLongestMs = static_cast<double>(round.nLongestUs) / 1000;
    s_dwConsoleMs = 0;
    AppTaskMgrDestroy(hTaskMgr); // drops what waits; nothing is served after it
    printf("| %u ms | %.0f | %.0f | %.0f | %.1f ms |\n", dwConsoleMs,
           static_cast<double>(nServed) / dSeconds, static_cast<double>(nRefused) / dSeconds,
           static_cast<double>(nLines) / dSeconds, dLongestMs);
    fflush(stdout);
    return true;
}

} // namespace

extern "C" int32_t QorPrintf(int32_t, int32_t, const char *, ...)
{
    ++s_nLines;
    if (const uint32_t dwMs = s_dwConsoleMs) {
        std::lock_guard<std::mutex> guard(s_tConsole);
        std::this_thread::sleep_for(std::chrono::milliseconds(dwMs));
    }
    return 0;
}

int main(int argc, char **argv)
{
    const unsigned nSeconds = argc > 1 ? static_cast<unsigned>(std::max(1, atoi(argv[1]))) : 5;
    printf(
        "| console, a line | events a second | refused a second | lines a second | longest send |\n"
        "|---|---|---|---|---|\n");
    for (const uint32_t dwMs : {0u, 1u, 7u})
        if (!Measure(dwMs, nSeconds))
            return 1;
    return 0;
}
