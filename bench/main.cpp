// SPDX-License-Identifier: MIT
#include <thread>

#include "appcore/host.h"
#include "bench.h"

// The console costs nothing here: the rows measure the library, not a terminal.
extern "C" int32_t QorPrintf(int32_t, int32_t, const char *, ...)
{
    return 0;
}

int main(int argc, char **argv)
{
    // The C library leaves atomic operations out until the first thread starts.
    std::thread([] {}).join();
    bench::RegisterRows();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
