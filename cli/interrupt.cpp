#include "interrupt.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int noted[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t g_signal = 0;

/// A terminal that closes sends SIGHUP more than once, and only a person who repeats a Ctrl-C is in
/// a hurry.
void Note(int Signal) {
    if (g_signal == 0) {
        g_signal = Signal;
    } else if (Signal == SIGINT) {
        std::signal(Signal, SIG_DFL);
        std::raise(Signal);
    }
}

} // namespace

void TavroCatchInterrupts() {
    for (const int signal : noted) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_IGN) {
            action.sa_handler = Note;
            action.sa_flags = SA_RESTART; // output is not cut by a signal
            sigaction(signal, &action, nullptr);
        }
    }
}

bool TavroWasInterrupted() {
    return g_signal != 0;
}

int TavroForgetInterrupt() {
    const int signal = g_signal;
    g_signal = 0;
    return signal;
}

void TavroRememberInterrupt(int Signal) {
    g_signal = Signal;
}

int TavroInterruptedExitCode() {
    return 128 + (g_signal != 0 ? g_signal : SIGINT);
}

bool TavroAwaitInput() {
    sigset_t held;
    sigset_t before;
    sigemptyset(&held);
    for (const int signal : noted) {
        sigaddset(&held, signal);
    }
    // Held until the wait itself lets them in, no signal comes unseen between the look and the
    // wait.
    sigprocmask(SIG_BLOCK, &held, &before);
    struct pollfd input = {STDIN_FILENO, POLLIN, 0};
    while (g_signal == 0 && ppoll(&input, 1, nullptr, &before) < 0 && errno == EINTR) {
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return g_signal == 0;
}
