// The size of a large tree, and the shortest loop of the standard library that adds one up.
//
// compare.sh makes the tree and names it in TAVRO_BENCH_TREE.

#include "tavroops.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

namespace fs = std::filesystem;

std::uintmax_t bareSize(const fs::path& root) {
    std::uintmax_t total = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            total += entry.file_size();
        }
    }
    return total;
}

/// Measures the tree with `size` once an iteration.
template <typename Size> void measureTree(benchmark::State& state, const Size& size) {
    const char* tree = std::getenv("TAVRO_BENCH_TREE");
    if (tree == nullptr) {
        state.SkipWithError("TAVRO_BENCH_TREE names no tree");
        return;
    }
    for (auto _ : state) {
        if (size(tree) == 0) {
            state.SkipWithError("The tree is empty");
            break;
        }
    }
}

void size_of_tree(benchmark::State& state) {
    measureTree(state, [](const fs::path& root) { return TavroCalculateDirectorySize(root, {}); });
}
BENCHMARK(size_of_tree)->Iterations(1)->Unit(benchmark::kMillisecond);

void size_of_tree_with_hook(benchmark::State& state) {
    measureTree(state, [](const fs::path& root) {
        return TavroCalculateDirectorySize(root, [] { return false; });
    });
}
BENCHMARK(size_of_tree_with_hook)->Iterations(1)->Unit(benchmark::kMillisecond);

void size_of_tree_bare_loop(benchmark::State& state) {
    measureTree(state, bareSize);
}
BENCHMARK(size_of_tree_bare_loop)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
