// The process is killed before each of its system calls. What is left is judged, and then restored
// and trashed again as a user would try to.

#include "suites.h"

#include "child.h"
#include "tracer.h"

#include <csignal>
#include <sys/wait.h>

namespace tavro_test {

namespace {

class Kills {
public:
    Kills(Report& report, Tally& tally, Scenario& scenario, const Reference& reference)
        : m_report(report), m_tally(tally), m_scenario(scenario), m_reference(reference) {}

    void sweep();

private:
    int runUntil(std::size_t number, std::vector<bool>& changes);
    void killBefore(std::size_t number);
    std::string nameOf(std::size_t number) const;
    void tryDebris(const std::string& identifier);
    bool tried(const std::string& identifier, const std::string& what, bool bDone,
               const std::string& message);

    Report& m_report;
    Tally& m_tally;
    Scenario& m_scenario;
    const Reference& m_reference;
    Board m_board;
};

bool handlesTrash(Operation what) {
    return what == Operation::Trash || what == Operation::DeleteToTrash ||
           what == Operation::Restore || what == Operation::Reapply;
}

/// After a restore or a reapply of the debris: a sane result, or a clear refusal.
bool Kills::tried(const std::string& identifier, const std::string& what, bool bDone,
                  const std::string& message) {
    ++m_tally.Debris;
    const Snapshot after = m_scenario.snapshot();
    const bool bClear = bDone ? message.empty() : isKnownSentence(message);
    const bool bKept = bytesSurvive(m_reference.Before, after);
    if (!bClear || !bKept) {
        m_report.complain(identifier, what + " of the debris ended with \"" + message + "\"" +
                                          (bKept ? "\n" : " and lost bytes\n") +
                                          difference(m_reference.Before, after));
    }
    return bClear && bKept;
}

/// The list as a whole, then each entry by itself.
void Kills::tryDebris(const std::string& identifier) {
    std::vector<std::vector<TavroTrashEntry>> lists = {m_scenario.list()};
    for (const TavroTrashEntry& entry : m_scenario.list()) {
        lists.push_back({entry});
    }
    for (const bool bRestore : {true, false}) {
        for (std::vector<TavroTrashEntry> list : lists) {
            std::string message;
            const bool bDone = bRestore ? TavroRestoreTrashEntries(list, message)
                                        : TavroReapplyTrashEntries(list, message);
            if (!tried(identifier, bRestore ? "a restore" : "a reapply", bDone, message)) {
                return;
            }
        }
    }
}

std::string Kills::nameOf(std::size_t number) const {
    return "kills:" + m_scenario.name() + ":" + std::to_string(number);
}

/// Runs the operation in a child that is killed before the call of this number, and notes of each
/// call until then whether it changes the disk. Returns the wait status of the child.
int Kills::runUntil(std::size_t number, std::vector<bool>& changes) {
    m_scenario.prepare();
    m_board.clear();
    const pid_t child = startChild([&] {
        beginTraced();
        const Outcome outcome = m_scenario.act(markTraced);
        m_board.put(outcome);
    });
    return trace(child, [&](const SystemCall& call) {
        const bool bNow = changes.size() == number;
        changes.push_back(call.changesDisk());
        return bNow ? Deed{Deed::Kill, 0} : Deed();
    });
}

void Kills::killBefore(std::size_t number) {
    std::vector<bool> changes;
    const int status = runUntil(number, changes);
    const std::string identifier = nameOf(number);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL || m_board.notes().bReturned) {
        m_report.complain(identifier, "the child was not killed");
        return;
    }
    ++m_tally.Kills;
    Run run;
    run.After = m_scenario.snapshot();
    run.Result.Message = "killed";
    const Verdict verdict = judgeDebris(m_scenario, m_reference.Before, run.After);
    m_report.add(m_tally, identifier, verdict, tell(m_reference, run));
    if (handlesTrash(m_scenario.operation())) {
        tryDebris(identifier);
    }
}

/// Between two changes of the disk every moment is the same; the short form takes one of them.
void Kills::sweep() {
    std::vector<bool> changes;
    const int status = runUntil(~std::size_t{0}, changes);
    if (status != 0 || !m_board.notes().bReturned) {
        m_report.complain("kills:" + m_scenario.name(),
                          "a child that nobody killed came to no end");
        return;
    }
    m_tally.Calls += changes.size();
    for (std::size_t number = 0; number < changes.size() && !m_report.isOver(); ++number) {
        if (m_report.wants(nameOf(number)) && (changes[number] || m_report.isThorough())) {
            killBefore(number);
        }
    }
}

} // namespace

void runKills(Report& report) {
    const std::string obstacle = obstacleToTracing();
    if (!obstacle.empty()) {
        report.skip("kills", obstacle);
        return;
    }
    Tally& tally = report.suite("kills");
    forEachScenario(report, tally, "kills", [&](Scenario& scenario, const Reference& reference) {
        Kills(report, tally, scenario, reference).sweep();
    });
}

} // namespace tavro_test
