// The time of one phase of a process.

#ifndef TAVRO_BENCH_PHASE_H
#define TAVRO_BENCH_PHASE_H

#include <cstdio>
#include <ctime>

namespace tavro_bench {

inline long long microsecondsOf(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

/// Runs `body` and prints its name and the microseconds of processor time and of elapsed time that
/// it took.
template <typename Body> void printPhase(const char* name, const Body& body) {
    const long long cpu = microsecondsOf(CLOCK_PROCESS_CPUTIME_ID);
    const long long elapsed = microsecondsOf(CLOCK_MONOTONIC);
    body();
    std::printf("%s %lld %lld\n", name, microsecondsOf(CLOCK_PROCESS_CPUTIME_ID) - cpu,
                microsecondsOf(CLOCK_MONOTONIC) - elapsed);
}

} // namespace tavro_bench

#endif
