// SPDX-License-Identifier: MIT
//
// What the benchmarks share.  Each is named <row>/<implementation>: the table puts the
// implementations of a row side by side.  "appcore" is this library and "naive" the obvious way to
// do the same; names that begin with "limit" are shown, but are no peers.  scripts/bench runs every
// row pinned to one processor and free on two.
#ifndef APPCORE_BENCH_BENCH_H
#define APPCORE_BENCH_BENCH_H

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>

namespace bench
{

// Defined once per program: registers its rows.
void RegisterRows();

// `strAim`: the ratio to the best peer that the row aims at on one processor, for example "1.2", or
// to the best of those named, "1.2 of glibc,naive"; "1.2/1.0" on one and on two, "/1.0" on two only.
// Or a time, "12 ms".
template <typename Run>
benchmark::internal::Benchmark *AddManual(const std::string &strRow, const std::string &strName,
                                          Run run, const std::string &strAim = "")
{
    return benchmark::RegisterBenchmark((strRow + "/" + strName).c_str(),
                                        [run, strAim](benchmark::State &state) {
                                            run(state);
                                            state.SetLabel(strAim);
                                        });
}

template <typename Run>
benchmark::internal::Benchmark *Add(const std::string &strRow, const std::string &strName, Run run,
                                    const std::string &strAim = "")
{
    return AddManual(strRow, strName, run, strAim)->UseRealTime()->MeasureProcessCPUTime();
}

// A set-up step that failed would make every figure after it worthless.
inline void Require(bool bDone)
{
    if (!bDone)
        abort();
}

// Counts jobs done in other threads; the benchmark sleeps until all are.
class Arrivals
{
public:
    explicit Arrivals(long nExpected) : m_nMissing(nExpected) {}

    void Arrive()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (--m_nMissing == 0)
            m_all.notify_one();
    }
    void Wait()
    {
        std::unique_lock<std::mutex> guard(m_mutex);
        m_all.wait(guard, [&] { return m_nMissing <= 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_all;
    long m_nMissing;
};

} // namespace bench

#endif
