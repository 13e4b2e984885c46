// The second injector: the same faults below the C library, where nothing can be overlooked. It
// checks that the first one sees every call that changes the disk.

#include "suites.h"

#include "child.h"
#include "tracer.h"

#include <cerrno>
#include <sys/wait.h>

namespace tavro_test {

namespace {

/// A system call that was made.
struct Made {
    std::string Name;
    std::string Path; ///< of the one that was made to fail
    bool bChangesDisk;
};

class SystemCallFaults {
public:
    SystemCallFaults(Report& report, Tally& tally, Scenario& scenario, const Reference& reference)
        : m_report(report), m_tally(tally), m_scenario(scenario), m_reference(reference) {}

    void sweep();

private:
    std::vector<Made> run(std::size_t number, int error);
    void compareWithCalls(const std::vector<Made>& made);

    Report& m_report;
    Tally& m_tally;
    Scenario& m_scenario;
    const Reference& m_reference;
    Board m_board;
};

constexpr std::size_t none = ~std::size_t{0};

/// Runs the operation; its call of this number fails with `error`.
std::vector<Made> SystemCallFaults::run(std::size_t number, int error) {
    m_scenario.prepare();
    m_board.clear();
    const int before = openDescriptors();
    const pid_t child = startChild([&] {
        beginTraced();
        const Outcome outcome = m_scenario.act(markTraced);
        m_board.notes().DescriptorsLeaked = openDescriptors() - before;
        m_board.put(outcome);
    });
    std::vector<Made> made;
    const int status = trace(child, [&](const SystemCall& call) {
        if (call.name().empty()) {
            return Deed();
        }
        const bool bFail = made.size() == number;
        made.push_back({call.name(), bFail ? call.path() : "", call.changesDisk()});
        return bFail ? Deed{Deed::Fail, error} : Deed();
    });
    if (number == none) {
        return made;
    }
    const std::string identifier =
        "system-calls:" + m_scenario.name() + ":" + std::to_string(number) + ":" + errnoName(error);
    if (status != 0 || !m_board.notes().bReturned || made.size() <= number) {
        m_report.complain(identifier, "the child came to no end, or the fault did not fire");
        return made;
    }
    ++m_tally.Faults;
    Run run;
    run.Result = m_board.outcome();
    run.DescriptorsLeaked = m_board.notes().DescriptorsLeaked;
    run.After = m_scenario.snapshot();
    run.Failed = {{made[number].Name, made[number].Path, true}};
    run.Errnos = {error};
    m_report.add(m_tally, identifier, judge(m_scenario, m_reference, run), tell(m_reference, run));
    return made;
}

/// The system call that a call of the C library makes to change the disk; empty for the others.
std::string systemCallOf(const std::string& call) {
    static const std::map<std::string, std::string> changing = {
        {"rename", "rename"},     {"remove", "unlink"},     {"unlinkat", "unlinkat"},
        {"mkdir", "mkdir"},       {"symlink", "symlink"},   {"write", "write"},
        {"writev", "writev"},     {"sendfile", "sendfile"}, {"fchmod", "fchmod"},
        {"fchmodat", "fchmodat"}, {"truncate", "truncate"}, {"utimensat", "utimensat"},
        {"fopen64", "openat"},
    };
    const auto found = changing.find(call);
    return found == changing.end() ? "" : found->second;
}

/// Every system call that changes the disk was seen by the first injector, as a call that makes it.
void SystemCallFaults::compareWithCalls(const std::vector<Made>& made) {
    std::map<std::string, long> difference;
    for (const Made& call : made) {
        // An empty directory in the place of a record: remove tries one call after the other.
        const bool bSecondTry = call.Name == "rmdir";
        difference[call.Name] += call.bChangesDisk && !bSecondTry ? 1 : 0;
    }
    m_scenario.prepare();
    const NumberedFaults listener;
    m_scenario.act();
    for (const CountedCall& call : listener.calls()) {
        difference[systemCallOf(call.Call)] -= call.bFailed ? 0 : 1;
        // The copy of a file creates it by `open`; other opens only read.
        const bool bCopies = call.Call == "sendfile";
        difference["openat"] -= bCopies ? 1 : 0;
    }
    difference.erase("");
    for (const auto& [name, count] : difference) {
        if (count != 0) {
            m_report.complain("system-calls:" + m_scenario.name(),
                              "the two injectors differ by " + std::to_string(count) + " " + name);
        }
    }
}

void SystemCallFaults::sweep() {
    const std::vector<Made> made = run(none, 0);
    m_tally.Calls += made.size();
    compareWithCalls(made);
    for (std::size_t number = 0; number < made.size() && !m_report.isOver(); ++number) {
        const std::vector<int>& errnos = plausibleErrnos(made[number].Name);
        if (errnos.empty()) {
            m_report.complain("system-calls:" + m_scenario.name() + ":" + std::to_string(number),
                              "nobody knows how this call may fail: " + made[number].Name);
        }
        std::size_t tried = 0;
        for (const int error : errnos) {
            const std::string identifier = "system-calls:" + m_scenario.name() + ":" +
                                           std::to_string(number) + ":" + errnoName(error);
            const std::size_t wanted = m_report.isThorough() ? 2 : 1;
            // A short write cannot be made of a failure.
            if (error != 0 && tried < wanted && m_report.wants(identifier)) {
                run(number, error);
                ++tried;
            }
        }
    }
}

} // namespace

void runSystemCallFaults(Report& report) {
    const std::string obstacle = obstacleToFailing();
    if (!obstacle.empty()) {
        report.skip("system-calls", obstacle);
        return;
    }
    Tally& tally = report.suite("system-calls");
    forEachScenario(report, tally, "system-calls",
                    [&](Scenario& scenario, const Reference& reference) {
                        SystemCallFaults(report, tally, scenario, reference).sweep();
                    });
}

} // namespace tavro_test
