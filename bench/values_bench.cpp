// bench/values_bench.cpp: the cost of the everyday value operations: copying, list appends,
// map inserts and look-ups, display.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tala/tala.hpp"

namespace {

constexpr std::int64_t kMillion = 1'000'000;

// Not a timing: reports the size of a value as the counter "sizeof_Any".
void BM_SizeofAny(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(sizeof(tala::Any));
    state.counters["sizeof_Any"] = static_cast<double>(sizeof(tala::Any));
}
BENCHMARK(BM_SizeofAny)->Iterations(1);

// Copying a scalar touches no shared counter.
void BM_CopyDropInteger(benchmark::State& state) {
    const tala::Any source = tala::Integer(42);
    for (auto _ : state) {
        tala::Any copy(source);
        benchmark::DoNotOptimize(copy);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CopyDropInteger);

// Copying a heap value is one atomic increment, dropping it one atomic decrement.
void BM_CopyDropString(benchmark::State& state) {
    const tala::Any source = tala::String("a string that lives on the heap");
    for (auto _ : state) {
        tala::Any copy(source);
        benchmark::DoNotOptimize(copy);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CopyDropString);

// One iteration appends a million integers to a fresh list (no reserve).
void BM_ListAppendMillionIntegers(benchmark::State& state) {
    for (auto _ : state) {
        tala::List<tala::Integer> list;
        for (std::int64_t i = 0; i < kMillion; ++i) list.append(tala::Integer(i));
        benchmark::DoNotOptimize(list.size());
        state.PauseTiming();  // freeing the list is not part of appending
        list = tala::List<tala::Integer>();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kMillion);
}
BENCHMARK(BM_ListAppendMillionIntegers)->Unit(benchmark::kMillisecond);

std::vector<tala::String> makeKeys(std::int64_t count) {
    std::vector<tala::String> keys;
    keys.reserve(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i) keys.emplace_back("key-" + std::to_string(i));
    return keys;
}

// One iteration inserts a million distinct string keys into a fresh map, then looks every one
// of them up. The key strings are made beforehand; their hashes are cached in the strings after
// the first iteration, as they are for keys a program reuses.
void BM_HashMapInsertThenLookupMillionStrings(benchmark::State& state) {
    const std::vector<tala::String> keys = makeKeys(kMillion);
    std::int64_t found = 0;
    for (auto _ : state) {
        tala::HashMap<tala::String, tala::Integer> map;
        std::int64_t value = 0;
        for (const tala::String& key : keys) map.set(key, tala::Integer(value++));
        for (const tala::String& key : keys) found += map.contains(key) ? 1 : 0;
        benchmark::DoNotOptimize(found);
        state.PauseTiming();
        map = tala::HashMap<tala::String, tala::Integer>();
        state.ResumeTiming();
    }
    if (found != state.iterations() * kMillion) state.SkipWithError("a key was not found");
    state.SetItemsProcessed(state.iterations() * kMillion);  // items: keys inserted and looked up
}
BENCHMARK(BM_HashMapInsertThenLookupMillionStrings)->Unit(benchmark::kMillisecond);

// The two halves of the above, timed apart.
void BM_HashMapInsertMillionStrings(benchmark::State& state) {
    const std::vector<tala::String> keys = makeKeys(kMillion);
    for (auto _ : state) {
        tala::HashMap<tala::String, tala::Integer> map;
        std::int64_t value = 0;
        for (const tala::String& key : keys) map.set(key, tala::Integer(value++));
        benchmark::DoNotOptimize(map.size());
        state.PauseTiming();
        map = tala::HashMap<tala::String, tala::Integer>();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kMillion);
}
BENCHMARK(BM_HashMapInsertMillionStrings)->Unit(benchmark::kMillisecond);

void BM_HashMapLookupMillionStrings(benchmark::State& state) {
    const std::vector<tala::String> keys = makeKeys(kMillion);
    const tala::HashMap<tala::String, tala::Integer> map;
    std::int64_t value = 0;
    for (const tala::String& key : keys) map.set(key, tala::Integer(value++));
    // Separate strings with the same texts: equal keys, not the same cells.
    const std::vector<tala::String> probes = makeKeys(kMillion);
    std::int64_t found = 0;
    for (auto _ : state) {
        for (const tala::String& key : probes) found += map.contains(key) ? 1 : 0;
        benchmark::DoNotOptimize(found);
    }
    if (found != state.iterations() * kMillion) state.SkipWithError("a key was not found");
    state.SetItemsProcessed(state.iterations() * kMillion);
}
BENCHMARK(BM_HashMapLookupMillionStrings)->Unit(benchmark::kMillisecond);

// The display text of a list of a thousand integers.
void BM_DisplayListOfThousandIntegers(benchmark::State& state) {
    tala::List<tala::Integer> list;
    for (std::int64_t i = 0; i < 1000; ++i) list.append(tala::Integer(i * 7919));
    std::size_t bytes = 0;
    for (auto _ : state) {
        const tala::String text = tala::display(list);
        bytes += text.size();
        benchmark::DoNotOptimize(text);
    }
    state.SetItemsProcessed(state.iterations() * 1000);
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_DisplayListOfThousandIntegers)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
