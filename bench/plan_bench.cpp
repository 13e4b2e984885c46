// A plan for few and for many entries. The time of one entry must not depend on their number.

#include "scratch.h"

#include <benchmark/benchmark.h>

#include <fstream>

namespace {

using namespace tavro_bench;

/// Files to copy and a directory to copy them to, made once.
struct Folders {
    Folders() {
        std::filesystem::create_directory(Source);
        std::filesystem::create_directory(Target);
        for (const TavroOperationEntry& entry : selectFiles(Source, 10000)) {
            std::ofstream(entry.Path) << "x";
        }
    }

    const Scratch Root;
    const std::filesystem::path Source = Root.path() / "source";
    const std::filesystem::path Target = Root.path() / "target";
};

/// Plans the copy of as many files as the argument says, always from the same directory.
void plan(benchmark::State& state) {
    static const Folders folders;
    const auto entries = selectFiles(folders.Source, static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        TavroTransferPlan result;
        std::string error;
        if (!TavroBuildTransferPlan(entries, folders.Target.string(), "/", false,
                                    TavroTransferConflictPolicy::Ask, result, error)) {
            state.SkipWithError(error.c_str());
            break;
        }
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(plan)->Arg(100)->Arg(10000);

} // namespace
