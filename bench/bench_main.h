// What the Google Benchmark programs share.
#pragma once

#include <benchmark/benchmark.h>

#include <string>

/// Registers the pair "<name>:baseline" and "<name>:project", which bench/run sets side by side.
///
/// Processor time of the whole process is measured, not time on the clock: with everything on one processor it is the
/// same on an idle machine, and on a busy one it stays the same.
template <class Function>
void add_pair(const std::string& name, Function baseline, Function project) {
    benchmark::RegisterBenchmark((name + ":baseline").c_str(), baseline)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark((name + ":project").c_str(), project)->MeasureProcessCPUTime();
}

/// Runs what has been registered. @return The exit status.
inline int run_benchmarks(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
