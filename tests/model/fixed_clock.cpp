#include "fixed_clock.h"

#include <atomic>
#include <sys/syscall.h>
#include <unistd.h>

namespace tavro_model {

namespace {

std::atomic<std::time_t> g_now = -1; // -1: the clock goes

} // namespace

FixedClock::FixedClock(std::time_t now) {
    sigset_t timer = {};
    sigemptyset(&timer);
    sigaddset(&timer, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &timer, &m_oldSignals);
    g_now = now;
}

FixedClock::~FixedClock() {
    g_now = -1;
    pthread_sigmask(SIG_SETMASK, &m_oldSignals, nullptr);
}

} // namespace tavro_model

// Overrides the C library's for this executable and the standard library in it.
extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
    if (clock == CLOCK_REALTIME && tavro_model::g_now != -1) {
        *time = {tavro_model::g_now, 0};
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}
