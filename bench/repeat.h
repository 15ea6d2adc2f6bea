// Each row of the table is a pair of benchmarks, "row/ours" and "row/peer", either of which may have arguments.
#ifndef ZOL_BENCH_REPEAT_H
#define ZOL_BENCH_REPEAT_H

#include <benchmark/benchmark.h>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(label)
#endif

#include <array>
#include <string>

#include "ZOLVconfKeys.h"

/// Repeats an operation. When callgrind runs the program, it writes down the instructions of just this, under the name
/// and the number of repetitions.
template <class Operation>
void repeat(benchmark::State& state, const std::string& name, Operation operation)
{
    [[maybe_unused]] const std::string label = name + '/' + std::to_string(state.max_iterations);
    CALLGRIND_ZERO_STATS;
    for (auto _ : state) {
        operation();
    }
    CALLGRIND_DUMP_STATS_AT(label.c_str());
}

/// Adds a benchmark that repeats an operation.
template <class Operation>
void add(const char* name, Operation operation)
{
    benchmark::RegisterBenchmark(name, [=](benchmark::State& state) { repeat(state, name, operation); })->UseRealTime();
}

/// Adds a benchmark on 1, 2, 4 ... threads, each of which repeats the operation that `make` makes of its own element.
template <class Elements, class Make>
void addOnThreads(const char* name, const Elements& elements, Make make)
{
    benchmark::RegisterBenchmark(name,
                                 [=](benchmark::State& state) {
                                     auto operation = make(elements.at(static_cast<std::size_t>(state.thread_index())));
                                     for (auto _ : state) {
                                         operation();
                                     }
                                 })
        ->ThreadRange(1, static_cast<int>(elements.size()))
        ->UseRealTime();
}

/// Keys for addOnThreads.
constexpr std::array<const char*, 8> kThreadKeys = {
    ZOLVconfKey::OSDLanguage, ZOLVconfKey::ZOLLanguage,   ZOLVconfKey::AssistantFarField, ZOLVconfKey::TVName,
    ZOLVconfKey::OSDCountry,  ZOLVconfKey::AovModeSetter, ZOLVconfKey::MultiViewMode,     ZOLVconfKey::ModelId};

#endif
