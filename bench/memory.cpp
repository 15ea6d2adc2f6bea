// What the library takes from the heap, over a platform that does nothing. This program has one thread and counts all
// that it and its libraries allocate, by the bytes that malloc really gives.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>

#include "VconfCallbackGenerator.h"
#include "ZOLVconfKeys.h"
#include "applist.h"
#include "capi-zol-tv.h"
#include "null_platform.h"

namespace {

struct Heap {
    std::int64_t allocations;
    std::int64_t live;  // bytes
    std::int64_t peak;  // the most live bytes that there have been
};
Heap heap{};

void* counted(void* block)
{
    if (block != nullptr) {
        ++heap.allocations;
        heap.live += static_cast<std::int64_t>(malloc_usable_size(block));
        heap.peak = std::max(heap.peak, heap.live);
    }
    return block;
}
void* uncounted(void* block)
{
    heap.live -= static_cast<std::int64_t>(malloc_usable_size(block));
    return block;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): these are their names
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);

void* malloc(size_t size) noexcept { return counted(__libc_malloc(size)); }
void* calloc(size_t count, size_t size) noexcept { return counted(__libc_calloc(count, size)); }
void* realloc(void* block, size_t size) noexcept { return counted(__libc_realloc(uncounted(block), size)); }
void free(void* block) noexcept { __libc_free(uncounted(block)); }
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

void add(const std::string& name, const std::function<std::int64_t()>& count)
{
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
        for (auto _ : state) {
            state.counters["count"] = static_cast<double>(count());
        }
    })->Iterations(1);
}

std::int64_t allocationsOf(void (*use)(std::string))
{
    const std::string text(100, 'x');
    const std::int64_t before = heap.allocations;
    use(text);
    return heap.allocations - before;
}

void keep(std::string value) { benchmark::DoNotOptimize(value); }
void set(std::string value) { ZOLSystemDataSetOSDLanguage(std::move(value)); }

std::int64_t peakOf(const ListOperation& operation, std::int64_t apps)
{
    const std::string text = appList(apps);
    const std::string last = appid(apps);
    platformText = text.c_str();
    const std::int64_t before = heap.peak = heap.live;
    operation.run(last);
    return heap.peak - before;
}

std::int64_t heapOfWatcher()
{
    // cppcheck-suppress passedByValue ; callbacks have this type
    const ZOLStringCallback callback = [](std::string /*value*/, void* /*userData*/) {};
    const std::int64_t before = heap.live;
    auto* watcher = new VconfCallbackGenerator(DATA_TYPE_STRING, ZOLVconfKey::ZOLLanguage);
    watcher->RegisterCallback(reinterpret_cast<void*>(callback), nullptr);
    const std::int64_t after = heap.live;
    delete watcher;
    return after - before;
}

}  // namespace

int main(int argc, char** argv)
{
    add("heap allocations of a setter, 100 bytes/peer", [] { return allocationsOf(keep); });
    add("heap allocations of a setter, 100 bytes/ours", [] { return allocationsOf(set); });
    for (const ListOperation& operation : listOperations) {
        for (const int apps : {10, 1000, 100000}) {
            add("peak heap bytes of " + std::string(operation.name) + '/' + std::to_string(apps),
                [&operation, apps] { return peakOf(operation, apps); });
        }
    }
    add("bytes of a watcher/ours", [] { return sizeof(VconfCallbackGenerator); });
    add("bytes of a watcher with a callback, in all/ours", heapOfWatcher);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
