// Typed text and paths, one call each.

// Not only the module's interface: the encoding of a trash record's path stands in its source.
#include "../src/tavroops.cpp"

#include "scratch.h"

#include <benchmark/benchmark.h>

namespace {

using tavro_bench::Scratch;

const char* const g_deep = "one/two/three/four/file.txt";

/// The path of a file five levels below the scratch directory.
std::string makeDeepFile(const Scratch& scratch) {
    const fs::path file = scratch.path() / g_deep;
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "x";
    return file.string();
}

void trim(benchmark::State& state) {
    const std::string text = "  \t Letters/2026/to the editor.txt \n ";
    for (auto _ : state) {
        benchmark::DoNotOptimize(TavroTrimText(text));
    }
}
BENCHMARK(trim);

void resolve_relative_text(benchmark::State& state) {
    const Scratch scratch;
    makeDeepFile(scratch);
    for (auto _ : state) {
        benchmark::DoNotOptimize(TavroResolveUserPath(g_deep, scratch.path()));
    }
}
BENCHMARK(resolve_relative_text);

void resolve_text_with_tilde(benchmark::State& state) {
    const Scratch scratch;
    makeDeepFile(scratch);
    const std::string text = std::string("~/") + g_deep;
    for (auto _ : state) {
        benchmark::DoNotOptimize(TavroResolveUserPath(text, scratch.path()));
    }
}
BENCHMARK(resolve_text_with_tilde);

void canonicalize_existing_path(benchmark::State& state) {
    const Scratch scratch;
    const std::string path = makeDeepFile(scratch);
    for (auto _ : state) {
        benchmark::DoNotOptimize(TavroCanonicalizePath(path));
    }
}
BENCHMARK(canonicalize_existing_path);

void canonicalize_missing_path(benchmark::State& state) {
    const Scratch scratch;
    const std::string path = (scratch.path() / g_deep).string();
    for (auto _ : state) {
        benchmark::DoNotOptimize(TavroCanonicalizePath(path));
    }
}
BENCHMARK(canonicalize_missing_path);

void percent_encode_plain_path(benchmark::State& state) {
    const std::string path = "/home/user/Documents/Letters/2026/to-the-editor.txt";
    for (auto _ : state) {
        benchmark::DoNotOptimize(PercentEncodeTrashInfoPath(path));
    }
}
BENCHMARK(percent_encode_plain_path);

void percent_encode_every_byte(benchmark::State& state) {
    const std::string path(50, '\xc3');
    for (auto _ : state) {
        benchmark::DoNotOptimize(PercentEncodeTrashInfoPath(path));
    }
}
BENCHMARK(percent_encode_every_byte);

} // namespace
