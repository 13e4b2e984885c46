#include "interrupt.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t g_bInterrupted = 0;

void NoteInterrupt(int Signal) {
    g_bInterrupted = 1;
    std::signal(Signal, SIG_DFL);
}

} // namespace

void TavroCatchInterrupts() {
    std::signal(SIGINT, NoteInterrupt);
    std::signal(SIGTERM, NoteInterrupt);
}

bool TavroWasInterrupted() {
    return g_bInterrupted != 0;
}
