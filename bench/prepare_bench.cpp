// Choosing places in the trash. The time of one entry must not depend on their number.

#include "scratch.h"

#include <benchmark/benchmark.h>

namespace {

using namespace tavro_bench;

/// Whether all entries got a place.
bool prepareAll(const std::vector<TavroOperationEntry>& entries) {
    std::vector<TavroTrashEntry> prepared;
    std::string error;
    const bool bDone = TavroPrepareTrashEntries(entries, prepared, error);
    benchmark::DoNotOptimize(prepared.data());
    return bDone;
}

void prepare(benchmark::State& state) {
    const Scratch scratch;
    const auto entries = selectFiles(scratch.path(), static_cast<std::size_t>(state.range(0)));
    // The kernel remembers names that it did not find. Many iterations over few entries would meet
    // only remembered names, one iteration over many only new ones.
    bool bDone = prepareAll(entries);
    for (auto _ : state) {
        bDone = prepareAll(entries) && bDone;
    }
    if (!bDone) {
        state.SkipWithError("The entries could not be prepared");
    }
}
BENCHMARK(prepare)->Arg(1000)->Arg(10000)->Arg(100000);

} // namespace
