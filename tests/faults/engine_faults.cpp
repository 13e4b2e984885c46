// The pane's copies and moves: each system call of a transfer fails, once and from then on, and the
// process is killed before each. A transfer has to keep more than the module's operations do, so it
// has a judge of its own.

#include "engines.h"

#include "child.h"
#include "tracer.h"
#include "transfer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

/// What is at the destination before.
enum class Target { Free, File, Folder };

struct Way {
    bool bMove;
    bool bAcross;
    Target What;

    std::string name() const;
};

std::string Way::name() const {
    static const char* const targets[] = {"free", "file", "folder"};
    return std::string(bMove ? "move" : "copy") + (bAcross ? "-across/" : "-same/") +
           targets[static_cast<int>(What)];
}

/// What is done to the calls of a run, beginning with the one of this number.
struct Blow {
    enum Kind { None, Once, FromThenOn, Kill };
    Kind What = None;
    std::size_t Number = 0;
    int Errno = 0;

    std::string name() const;
};

std::string Blow::name() const {
    switch (What) {
    case None:
        return "clean";
    case Kill:
        return std::to_string(Number) + ":kill";
    case Once:
    case FromThenOn:
        break;
    }
    return std::to_string(Number) + ":" + errnoName(Errno) + (What == FromThenOn ? ":on" : "");
}

/// A system call of the clean run.
struct Made {
    std::string Name;
    bool bChangesDisk;
    bool bFirst; ///< of its name
};

/// Text that no other file holds.
std::string bytesOf(const std::string& name, std::size_t size) {
    std::string bytes;
    for (unsigned line = 0; bytes.size() < size; ++line) {
        bytes += name + " " + std::to_string(line) + "\n";
    }
    bytes.resize(size);
    return bytes;
}

/// What a hidden name holds is no entry of the user's.
bool isHidden(const std::string& path) {
    return path.find("/.tavro-") != std::string::npos;
}

/// "file" and the bytes, "directory": the row without its permissions.
std::string withoutMode(const std::string& row) {
    const std::size_t begin = row.find(' ');
    const std::size_t end = row.find(' ', begin + 1);
    return row.substr(0, begin) + (end == std::string::npos ? "" : row.substr(end));
}

std::string rowOf(const Snapshot& all, const std::string& path) {
    const auto found = all.find(path);
    return found == all.end() ? "" : found->second;
}

bool beginsWith(const std::string& text, const std::string& beginning) {
    return text.rfind(beginning, 0) == 0;
}

/// One transfer of a few entries from one folder to another.
class TransferFaults {
public:
    TransferFaults(Report& report, Tally& tally, const Way& way)
        : m_report(report), m_tally(tally), m_way(way),
          m_other(way.bAcross ? fs::path(secondFileSystem) : fs::temp_directory_path()) {}

    void sweep();

private:
    void prepare() const;
    void makeTarget() const;
    Snapshot snapshot() const;
    Outcome act() const;
    std::size_t run(const Blow& blow);
    void take(const Blow& blow, int status, std::size_t count);
    void failAt(std::size_t number);
    void runIfWanted(const Blow& blow);
    Verdict judgeRun(const Blow& blow, const Run& run, const Snapshot& visible) const;
    std::string complaintAboutBytes(const Snapshot& visible, Verdict& verdict) const;
    std::string complaintAboutSource(const Snapshot& visible) const;
    std::string complaintAboutTarget(const Snapshot& visible, bool bAttributesFailed) const;
    std::string complaintAboutEnd(const Run& run, const Snapshot& visible) const;
    bool isAsInCleanRun(const std::string& path, const std::string& row) const;

    std::string nameOf(const Blow& blow) const {
        return "transfers:" + m_way.name() + ":" + blow.name();
    }
    fs::path source() const {
        return m_box / "source";
    }
    fs::path target() const {
        return m_other / "target";
    }

    Report& m_report;
    Tally& m_tally;
    const Way m_way;
    Sandbox m_box;
    Sandbox m_other;
    Board m_board;
    Reference m_reference;
    std::vector<Made> m_calls;        ///< of the clean run
    std::optional<std::string> m_hit; ///< the call of the last run that was hit first
    std::string m_hitPath;
    bool m_bModesHeld = true; ///< In the last run, the target could hold permissions.
};

/// A small and a large file, one with a hole, a link and folders; and the target.
void TransferFaults::prepare() const {
    for (const fs::path& folder : {source(), target()}) {
        std::error_code ec;
        fs::remove_all(folder, ec);
    }
    if (m_way.What != Target::Folder) {
        writeFile(source() / "file", bytesOf("file", 300));
    }
    if (m_way.What != Target::File) {
        writeFile(source() / "tree/large", bytesOf("large", 100000));
        writeFile(source() / "tree/sub/small", bytesOf("small", 100));
        fs::create_symlink("nowhere", source() / "tree/link");
    }
    writeFile(source() / "sparse", bytesOf("sparse", 3000));
    fs::resize_file(source() / "sparse", 20000);
    makeTarget();
}

void TransferFaults::makeTarget() const {
    writeFile(target() / "bystander", bytesOf("bystander", 50));
    if (m_way.What == Target::File) {
        writeFile(target() / "file", bytesOf("old file", 500));
    }
    if (m_way.What == Target::Folder) {
        writeFile(target() / "tree/large", bytesOf("old large", 500));
        writeFile(target() / "tree/own", bytesOf("own", 500));
    }
}

Snapshot TransferFaults::snapshot() const {
    Snapshot all;
    for (const auto& [folder, name] : {std::pair(source(), "source/"), {target(), "target/"}}) {
        for (const auto& [path, row] : takeSnapshot(folder)) {
            all[name + path] = row;
        }
    }
    return all;
}

/// Each failure becomes a line "PATH: REASON".
Outcome TransferFaults::act() const {
    TavroTransferPlan plan;
    plan.bMove = m_way.bMove;
    plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    for (const char* const name : {"file", "tree", "sparse"}) {
        if (isPresent(source() / name)) {
            TavroTransferItemPlan item;
            item.Name = name;
            item.SourcePath = source() / name;
            item.DestinationPath = target() / name;
            item.bDirectory = item.Name == "tree";
            plan.Items.push_back(item);
        }
    }
    TavroTransferReport report;
    markTraced(true);
    const bool bDone = TavroCarryOutTransfer(plan, {}, report);
    markTraced(false);
    Outcome outcome;
    outcome.Ended = bDone ? Outcome::True : Outcome::False;
    for (const TavroTransferFailure& failure : report.Failed) {
        outcome.Message += failure.Path.string() + ": " + failure.Reason + "\n";
    }
    return outcome;
}

// -------------------------------------------------------------------------------------------------
// The judge
// -------------------------------------------------------------------------------------------------

/// Every file is whole in one place at least, but for those that a clean run replaces too.
std::string TransferFaults::complaintAboutBytes(const Snapshot& visible, Verdict& verdict) const {
    const auto replaced = lostFiles(m_reference.Before, m_reference.Clean.After);
    std::string complaint;
    for (const auto& [path, size] : lostFiles(m_reference.Before, visible)) {
        if (replaced.count(path) == 0) {
            verdict.BytesLost += size;
            complaint += path + " is lost; ";
        }
    }
    return complaint;
}

/// Of a target that cannot hold permissions, only the bytes are asked.
bool TransferFaults::isAsInCleanRun(const std::string& path, const std::string& row) const {
    const std::string wanted = rowOf(m_reference.Clean.After, path);
    return row == wanted || (!m_bModesHeld && withoutMode(row) == withoutMode(wanted));
}

/// A copy leaves its source alone. What a move has taken away lies at its destination.
std::string TransferFaults::complaintAboutSource(const Snapshot& visible) const {
    const std::string beginning = "source/";
    for (const auto& [path, row] : m_reference.Before) {
        const std::string arrived = "target/" + path.substr(beginning.size());
        const std::string now = rowOf(visible, path);
        const bool bMoved = m_way.bMove && now.empty() && !rowOf(visible, arrived).empty() &&
                            isAsInCleanRun(arrived, rowOf(visible, arrived));
        if (beginsWith(path, beginning) && now != row && !bMoved) {
            return path + " is neither where it was nor where it goes; ";
        }
    }
    for (const auto& [path, row] : visible) {
        if (beginsWith(path, beginning) && rowOf(m_reference.Before, path) != row) {
            return path + " is new or changed; ";
        }
    }
    return "";
}

/// At the destination each entry is as before or as after a clean run, never something between.
std::string TransferFaults::complaintAboutTarget(const Snapshot& visible,
                                                 bool bAttributesFailed) const {
    const std::string beginning = "target/";
    for (const auto& [path, row] : m_reference.Before) {
        if (beginsWith(path, beginning) && rowOf(visible, path).empty()) {
            return path + " is gone; ";
        }
    }
    for (const auto& [path, row] : visible) {
        const std::string after = rowOf(m_reference.Clean.After, path);
        const bool bSameBytes = bAttributesFailed && withoutMode(row) == withoutMode(after);
        if (beginsWith(path, beginning) && row != rowOf(m_reference.Before, path) &&
            !isAsInCleanRun(path, row) && !bSameBytes) {
            return path + " is neither as before nor as it should become; ";
        }
    }
    return "";
}

/// True: exactly the state after. False: each failure names an entry and tells of it.
std::string TransferFaults::complaintAboutEnd(const Run& run, const Snapshot& visible) const {
    if (run.Result.Ended == Outcome::True) {
        const bool bAfter = visible.size() == m_reference.Clean.After.size() &&
                            std::all_of(visible.begin(), visible.end(), [&](const auto& one) {
                                return isAsInCleanRun(one.first, one.second);
                            });
        return bAfter ? "" : "true without the state after; ";
    }
    std::string complaint = run.Result.Message.empty() ? "false without a failure; " : "";
    for (std::size_t begin = 0; begin < run.Result.Message.size();) {
        const std::size_t end = run.Result.Message.find('\n', begin);
        const std::string line = run.Result.Message.substr(begin, end - begin);
        const std::size_t colon = line.find(": ");
        const std::string path = line.substr(0, colon);
        const bool bOurs = liesIn(path, source()) || liesIn(path, target());
        const bool bTold = line.find("'" + source().string(), colon) != std::string::npos ||
                           line.find("'" + target().string(), colon) != std::string::npos;
        if (!bOurs || !bTold) {
            complaint += "a failure without its path: " + line + "; ";
        }
        begin = end + 1;
    }
    return complaint;
}

Verdict TransferFaults::judgeRun(const Blow& blow, const Run& run, const Snapshot& visible) const {
    Verdict verdict;
    const bool bKilled = blow.What == Blow::Kill;
    const bool bAttributesFailed = run.Result.Message.find("attributes") != std::string::npos;
    verdict.Complaint = complaintAboutBytes(visible, verdict) + complaintAboutSource(visible) +
                        complaintAboutTarget(visible, bAttributesFailed) +
                        (bKilled ? "" : complaintAboutEnd(run, visible));
    if (run.DescriptorsLeaked != 0) {
        verdict.Complaint += std::to_string(run.DescriptorsLeaked) + " descriptors left open; ";
    }
    // Who is killed cannot clean up, nor who may not remove anything any more.
    const bool bRemains = visible != run.After;
    if (bRemains && !bKilled && blow.What != Blow::FromThenOn) {
        verdict.Complaint += "a hidden entry is left; ";
    }
    if (blow.Errno == EINTR && run.Result.Ended != Outcome::True &&
        (*m_hit == "read" || *m_hit == "write")) {
        verdict.Complaint += "an interrupted call was not tried again; ";
    }
    if (verdict.Complaint.empty()) {
        verdict.Decided = visible == m_reference.Before        ? Verdict::Before
                          : visible == m_reference.Clean.After ? Verdict::After
                                                               : Verdict::Row;
    }
    return verdict;
}

// -------------------------------------------------------------------------------------------------
// The runs
// -------------------------------------------------------------------------------------------------

/// Runs the transfer in a child and returns how many calls it made. The clean run notes them.
std::size_t TransferFaults::run(const Blow& blow) {
    prepare();
    m_board.clear();
    m_hit.reset();
    const pid_t child = startChild([&] {
        const int before = openDescriptors();
        beginTraced();
        const Outcome outcome = act();
        m_board.notes().DescriptorsLeaked = openDescriptors() - before;
        m_board.put(outcome);
    });
    constexpr std::size_t endless = 20000;
    std::size_t count = 0;
    const int status = trace(child, [&](const SystemCall& call) {
        const std::string name = call.name();
        if (name.empty()) {
            return Deed();
        }
        const std::size_t number = count++;
        if (blow.What == Blow::None) {
            const bool bKnown = std::any_of(m_calls.begin(), m_calls.end(),
                                            [&](const Made& made) { return made.Name == name; });
            m_calls.push_back({name, call.changesDisk(), !bKnown});
            return Deed();
        }
        const bool bFirst = number == blow.Number;
        if (bFirst) {
            m_hit = name;
            m_hitPath = call.path();
        }
        if ((bFirst && blow.What == Blow::Kill) || number > endless) {
            return Deed{Deed::Kill, 0};
        }
        const bool bAgain = blow.What == Blow::FromThenOn && m_hit == name;
        return bFirst || bAgain ? Deed{Deed::Fail, blow.Errno} : Deed();
    });
    take(blow, status, count);
    return count;
}

/// Judges the run that has just ended.
void TransferFaults::take(const Blow& blow, int status, std::size_t count) {
    const bool bKill = blow.What == Blow::Kill;
    const bool bKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    const bool bEnded =
        bKill ? bKilled && !m_board.notes().bReturned : status == 0 && m_board.notes().bReturned;
    if (!bEnded || (blow.What != Blow::None && !m_hit)) {
        m_report.complain(nameOf(blow), "the child came to no end of its own, or the fault did "
                                        "not fire; it made " +
                                            std::to_string(count) + " calls");
        return;
    }
    Run run;
    run.After = snapshot();
    run.Result.Message = "killed";
    if (!bKill) {
        run.Result = m_board.outcome();
        run.DescriptorsLeaked = m_board.notes().DescriptorsLeaked;
    }
    // That is how a file system without permissions answers.
    m_bModesHeld = blow.Errno != EPERM || m_hit->find("chmod") == std::string::npos;
    if (m_hit) {
        run.Failed = {{*m_hit, m_hitPath, true}};
    }
    if (blow.What == Blow::None) {
        m_reference.Clean = run;
    }
    Snapshot visible;
    for (const auto& [path, row] : run.After) {
        if (!isHidden(path)) {
            visible[path] = row;
        }
    }
    m_tally.Faults += blow.What == Blow::Once || blow.What == Blow::FromThenOn ? 1 : 0;
    m_tally.Kills += bKill ? 1 : 0;
    m_tally.Remains += visible == run.After ? 0 : 1;
    m_report.add(m_tally, nameOf(blow), judgeRun(blow, run, visible), tell(m_reference, run));
}

void TransferFaults::runIfWanted(const Blow& blow) {
    if (m_report.wants(nameOf(blow)) && !m_report.isOver()) {
        run(blow);
    }
}

/// The short form tries the most telling error once, lets each kind of call fail for ever from its
/// first one on, and kills where the disk is about to change.
void TransferFaults::failAt(std::size_t number) {
    const Made& call = m_calls[number];
    std::vector<int> errnos = plausibleErrnos(call.Name);
    if (errnos.empty()) {
        m_report.complain("transfers:" + m_way.name() + ":" + std::to_string(number),
                          "nobody knows how this call may fail: " + call.Name);
    }
    const bool bThorough = m_report.isThorough();
    const bool bInterruptible = std::count(errnos.begin(), errnos.end(), EINTR) != 0;
    // A short write cannot be made of a failure, and no signal comes for ever.
    errnos.erase(std::remove_if(errnos.begin(), errnos.end(),
                                [](int error) { return error == 0 || error == EINTR; }),
                 errnos.end());
    errnos.resize(std::min(errnos.size(), std::size_t{bThorough ? 3U : 1U}));
    for (const int error : errnos) {
        runIfWanted({Blow::Once, number, error});
        if (bThorough || call.bFirst) {
            runIfWanted({Blow::FromThenOn, number, error});
        }
    }
    if (bInterruptible && (bThorough || call.bFirst)) {
        runIfWanted({Blow::Once, number, EINTR});
    }
    if (bThorough || call.bChangesDisk) {
        runIfWanted({Blow::Kill, number});
    }
}

void TransferFaults::sweep() {
    ++m_tally.Scenarios;
    prepare();
    m_reference.Before = snapshot();
    m_tally.Calls += run({});
    if (m_reference.Clean.Result.Ended != Outcome::True ||
        m_reference.Clean.After == m_reference.Before) {
        m_report.complain(nameOf({}), "the clean run does not end as it should\n" +
                                          tell(m_reference, m_reference.Clean));
        return;
    }
    for (std::size_t number = 0; number < m_calls.size() && !m_report.isOver(); ++number) {
        failAt(number);
    }
}

std::vector<Way> allWays() {
    std::vector<Way> all;
    for (const bool bMove : {false, true}) {
        for (const bool bAcross : {false, true}) {
            for (const Target what : {Target::Free, Target::File, Target::Folder}) {
                all.push_back({bMove, bAcross, what});
            }
        }
    }
    return all;
}

} // namespace

void runTransferFaults(Report& report) {
    const std::string obstacle = obstacleToFailing();
    if (!obstacle.empty()) {
        report.skip("transfers", obstacle);
        return;
    }
    Tally& tally = report.suite("transfers");
    const std::string crossing = obstacleToCrossing();
    for (const Way& way : allWays()) {
        if (!report.wantsSome("transfers:" + way.name() + ":") || report.isOver()) {
            continue;
        }
        if (way.bAcross && !crossing.empty()) {
            report.skip("transfers across devices", crossing);
            continue;
        }
        TransferFaults(report, tally, way).sweep();
    }
}

} // namespace tavro_test
