#include "interrupt.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t g_bInterrupted = 0;

void NoteInterrupt(int /*Signal*/) {
    g_bInterrupted = 1;
}

} // namespace

void TavroCatchInterrupts() {
    struct sigaction action = {};
    action.sa_handler = NoteInterrupt;
    // A question that waits for its answer ends with the first one; the second is not caught.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool TavroWasInterrupted() {
    return g_bInterrupted != 0;
}
