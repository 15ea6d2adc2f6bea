// Each row of the table is a pair of benchmarks, "row/ours" and "row/peer", either of which may have arguments.
#ifndef ZOL_BENCH_ADD_H
#define ZOL_BENCH_ADD_H

#include <benchmark/benchmark.h>

/// Adds a benchmark that repeats an operation.
template <class Operation>
void add(const char* name, Operation operation)
{
    benchmark::RegisterBenchmark(name, [operation](benchmark::State& state) mutable {
        for (auto _ : state) {
            operation();
        }
    })->UseRealTime();
}

#endif
