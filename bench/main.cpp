// SPDX-License-Identifier: MIT
#include "appcore/host.h"
#include "bench.h"

// The console costs nothing here: the rows measure the library, not a terminal.
extern "C" int32_t QorPrintf(int32_t, int32_t, const char *, ...)
{
    return 0;
}

int main(int argc, char **argv)
{
    bench::RegisterRows();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
