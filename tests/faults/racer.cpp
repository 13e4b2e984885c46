#include "racer.h"

#include "suites.h"
#include "tracer.h"

#include <csignal>
#include <stdexcept>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace tavro_test {

namespace {

constexpr int systemCallStop = SIGTRAP | 0x80;

} // namespace

Racer::Racer(const std::function<Outcome()>& act) {
    m_child = startChild([&] {
        const int descriptors = openDescriptors();
        beginTraced();
        markTraced(true);
        const Outcome outcome = act();
        markTraced(false);
        m_board.notes().DescriptorsLeaked = openDescriptors() - descriptors;
        m_board.put(outcome);
    });
    waitForEnd(m_child); // for its first stop
    ptrace(PTRACE_SETOPTIONS, m_child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    step();
}

Racer::~Racer() {
    if (!m_bEnded) {
        kill(m_child, SIGKILL);
        waitForEnd(m_child);
    }
}

void Racer::step() {
    while (!m_bEnded && !comeToCall()) {
    }
}

/// Lets the process run to its next stop; true when that is before a call on files.
bool Racer::comeToCall() {
    // After its act nothing of the process is of interest any more.
    ptrace(m_bActed ? PTRACE_CONT : PTRACE_SYSCALL, m_child, nullptr, nullptr);
    const int status = waitForEnd(m_child);
    m_bEnded = !WIFSTOPPED(status);
    if (m_bEnded || WSTOPSIG(status) != systemCallStop) {
        return false;
    }
    __ptrace_syscall_info info = {};
    ptrace(PTRACE_GET_SYSCALL_INFO, m_child, sizeof info, &info);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) {
        return false;
    }
    if (info.entry.nr == SYS_getppid) { // a mark
        m_bActed = m_bActing;
        m_bActing = !m_bActing;
        return false;
    }
    const SystemCall call(m_child, info.entry.nr, &info.entry.args[0]);
    m_next = {call.name(), call.path(), call.target(), call.changesDisk()};
    return m_bActing && !m_next.Name.empty();
}

Outcome Racer::outcome() const {
    if (hasFallen()) {
        throw std::runtime_error("a racer has no outcome");
    }
    return m_board.outcome();
}

} // namespace tavro_test
