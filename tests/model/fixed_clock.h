// A clock that stands still, for the dates that the module writes.

#ifndef TAVRO_TESTS_FIXED_CLOCK_H
#define TAVRO_TESTS_FIXED_CLOCK_H

#include <csignal>
#include <ctime>

namespace tavro_model {

/// While it lives, the time of day is `now`, for every thread. A timer's signal waits until the
/// end, since its handler may look at the clock, as a fuzzer's does.
class FixedClock {
public:
    explicit FixedClock(std::time_t now);
    ~FixedClock();
    FixedClock(const FixedClock&) = delete;
    FixedClock& operator=(const FixedClock&) = delete;

private:
    sigset_t m_oldSignals = {};
};

} // namespace tavro_model

#endif
