// What the engine does: each system call of a copy, a move, a trashing, a restoring, a deletion and
// an emptying fails, once and from then on, and the process is killed before each. The engine has
// to keep more than the module's operations do, so it has a judge of its own, which reads the
// failures by their kinds, reasons and paths.

#include "suites.h"

#include "child.h"
#include "engine_acts.h"
#include "tracer.h"

#include "edit.h"
#include "journal.h"
#include "record.h"
#include "transfer.h"
#include "trash_contents.h"
#include "undo.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

enum class Work { Copy, Move, Trash, Restore, Delete, Empty };

/// What is at the destination before: nothing, a file of that name, a directory of that name. A
/// restore to `Missing` leads to where the directory is gone too.
enum class There { Free, File, Directory, Missing };

struct Way {
    Work What;
    bool bAcross;
    There Before;

    std::string name() const;
};

std::string Way::name() const {
    static const char* const works[] = {"copy", "move", "trash", "restore", "delete", "empty"};
    static const char* const states[] = {"free", "file", "directory", "missing"};
    return std::string(works[static_cast<int>(What)]) + (bAcross ? "-across/" : "-same/") +
           states[static_cast<int>(Before)];
}

/// What is done to the calls of a run, beginning with the one of this number.
struct Blow {
    enum Kind { None, Once, FromThenOn, Everything, Kill };
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
    default:
        break;
    }
    const char* const reach = What == Once ? "" : What == FromThenOn ? ":on" : ":everything";
    return std::to_string(Number) + ":" + errnoName(Errno) + reach;
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

bool hasKind(const std::vector<TavroFailure>& failures, TavroFailureKind kind) {
    return std::any_of(failures.begin(), failures.end(),
                       [&](const TavroFailure& failure) { return failure.Kind == kind; });
}

/// Failures that are seen without a system's reason, or with one of the engine's own.
bool isSeen(TavroFailureKind kind) {
    using Kind = TavroFailureKind;
    static const std::set<Kind> seen = {Kind::BecameShorter, Kind::CopyNotWhole, Kind::Changed,
                                        Kind::CopyStays};
    return seen.count(kind) == 1;
}

/// One piece of work of the engine on a few entries.
class EngineFaults {
public:
    EngineFaults(Report& report, Tally& tally, const Way& way)
        : m_report(report), m_tally(tally), m_way(way),
          m_other(way.bAcross ? fs::path(secondFileSystem) : fs::temp_directory_path()),
          m_state(obstacleToCrossing().empty() ? fs::path(secondFileSystem)
                                               : fs::temp_directory_path()),
          m_environment("HOME", home().string()), m_from(bFromTrash() ? files() : source()),
          m_to(isTransfer()                ? target()
               : way.What == Work::Trash   ? files()
               : way.What == Work::Restore ? source()
                                           : fs::path()) {}

    void sweep();

private:
    void prepare() const;
    void makeItems() const;
    void makeDestination() const;
    Snapshot snapshot() const;
    Outcome act() const;
    Outcome transfer() const;
    TavroFailure open(TavroHistory& own) const;
    bool resume() const;
    static TavroTransferCallbacks unsynced();
    std::size_t run(const Blow& blow);
    void take(const Blow& blow, int status, std::size_t count);
    void failAt(std::size_t number);
    void runIfWanted(const Blow& blow);

    Verdict judgeRun(const Blow& blow, const Run& run, const Snapshot& visible) const;
    std::string complaintAboutBytes(const Snapshot& visible, Verdict& verdict) const;
    std::string complaintAboutSource(const Snapshot& visible) const;
    std::string complaintAboutDestination(const Run& run, const Snapshot& visible) const;
    std::string complaintAboutRecords(const Snapshot& visible) const;
    std::string complaintAfterTrue(const Snapshot& visible, Verdict& verdict) const;
    std::string complaintAfterFalse(const Blow& blow, const Run& run,
                                    const Snapshot& visible) const;
    std::string complaintAboutFailures(const Blow& blow, const Outcome& outcome) const;
    std::string complaintAboutBatch(const Blow& blow, const Outcome& outcome,
                                    const Snapshot& visible) const;
    bool isAsBefore(const std::string& name, const Snapshot& visible) const;
    bool isAsAfter(const std::string& name, const Snapshot& visible) const;
    bool isAsInCleanRun(const std::string& path, const std::string& row) const;
    bool isRecord(const std::string& path) const;
    /// What is in the trash, and leads there. A transfer that another process goes on with may have
    /// put more into it: the rest of a source, and what was replaced under another name.
    bool isOfTrash(const std::string& path) const {
        return liesIn(path, home() / ".local");
    }

    std::vector<std::string> names() const;
    std::string arrivalOf(const std::string& path) const;
    std::string recordOf(const std::string& name) const;
    bool isTransfer() const {
        return m_way.What == Work::Copy || m_way.What == Work::Move;
    }
    bool isBatch() const {
        return m_way.What == Work::Trash || m_way.What == Work::Restore;
    }
    bool removes() const {
        return m_way.What == Work::Delete || m_way.What == Work::Empty;
    }
    bool bFromTrash() const {
        return m_way.What == Work::Restore || m_way.What == Work::Empty;
    }
    std::string nameOf(const Blow& blow) const {
        return "engine:" + m_way.name() + ":" + blow.name();
    }
    fs::path history() const {
        return m_state / "tavro/history.db";
    }
    fs::path source() const {
        return m_box / "source";
    }
    fs::path target() const {
        return m_other / "target";
    }
    fs::path home() const {
        return m_other / "target/home";
    }
    fs::path trash() const {
        return home() / ".local/share/Trash";
    }
    fs::path files() const {
        return trash() / "files";
    }

    Report& m_report;
    Tally& m_tally;
    const Way m_way;
    Sandbox m_box;
    Sandbox m_other;
    Sandbox m_state; ///< In memory, where that can be.
    ScopedEnvironment m_environment;
    fs::path m_from; ///< What holds the entries,
    fs::path m_to;   ///< and where they go; empty: nowhere.
    Board m_board;
    Reference m_reference;
    std::vector<Made> m_calls;        ///< of the clean run
    std::optional<std::string> m_hit; ///< the call of the last run that was hit first
    std::string m_hitPath;
    bool m_bResumed = false;  ///< The last run was interrupted, and another process went on.
    bool m_bModesHeld = true; ///< In the last run, the destination could hold permissions.
};

// -------------------------------------------------------------------------------------------------
// The world
// -------------------------------------------------------------------------------------------------

/// The entries that are worked on. What is not merged is there in each way, a tree in most.
std::vector<std::string> EngineFaults::names() const {
    switch (m_way.Before) {
    case There::File:
        return {"file", "sparse"};
    case There::Directory:
        return {"tree", "sparse"};
    default:
        return {"file", "sparse", "tree"};
    }
}

/// A small and a large file, one with a hole, a link and directories.
void EngineFaults::makeItems() const {
    for (const std::string& name : names()) {
        if (name == "tree") {
            writeFile(m_from / "tree/large", bytesOf("large", 100000));
            writeFile(m_from / "tree/sub/small", bytesOf("small", 100));
            fs::create_symlink("nowhere", m_from / "tree/link");
        } else if (name == "file") {
            writeFile(m_from / "file", bytesOf("file", 300));
        } else {
            writeFile(m_from / "sparse", bytesOf("sparse", 3000));
            fs::resize_file(m_from / "sparse", 20000);
        }
        if (bFromTrash()) {
            std::string record = recordText((source() / name).string());
            record.replace(record.find(someDate), someDate.size(), "2024-03-05T14:07:09");
            writeFile(recordOf(name), record);
        }
    }
}

void EngineFaults::makeDestination() const {
    writeFile(target() / "bystander", bytesOf("bystander", 50));
    makeDirectory(home());
    if (m_way.Before == There::File) {
        writeFile(m_to / "file", bytesOf("old file", 500));
    }
    if (m_way.Before == There::File && m_way.What == Work::Trash) {
        // One name is taken by an item with its record, another by a record alone.
        writeFile(recordOf("file"), recordText("/old/file"));
        writeFile(recordOf("sparse"), recordText("/old/sparse"));
    }
    if (m_way.Before == There::Directory) {
        writeFile(m_to / "tree/large", bytesOf("old large", 500));
        writeFile(m_to / "tree/own", bytesOf("own", 500));
    }
    if (m_way.Before != There::Missing) {
        makeDirectory(source());
        writeFile(source() / "neighbour", bytesOf("neighbour", 50));
    }
}

void EngineFaults::prepare() const {
    for (const fs::path& directory : {source(), target(), history().parent_path()}) {
        std::error_code ec;
        fs::remove_all(directory, ec);
    }
    makeDestination();
    makeItems();
}

Snapshot EngineFaults::snapshot() const {
    Snapshot all;
    addRows(source(), all);
    addRows(target(), all);
    for (auto& [path, row] : all) {
        row = isRecord(path) ? withoutDate(row) : row;
    }
    return all;
}

/// Where an entry, or what is below one, goes; empty: nowhere. In the trash a name that is taken is
/// numbered.
std::string EngineFaults::arrivalOf(const std::string& path) const {
    std::string below = path.substr(m_from.string().size() + 1);
    if (m_way.What == Work::Trash && m_way.Before == There::File) {
        below += " copy 1";
    }
    return m_to.empty() ? "" : m_to.string() + "/" + below;
}

std::string EngineFaults::recordOf(const std::string& name) const {
    return Item::recordOf(files() / name).string();
}

bool EngineFaults::isRecord(const std::string& path) const {
    return fs::path(path).extension() == ".trashinfo";
}

Outcome EngineFaults::transfer() const {
    TavroTransferPlan plan;
    plan.bMove = m_way.What == Work::Move;
    plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    for (const std::string& name : names()) {
        TavroTransferItemPlan item;
        item.Name = name;
        item.SourcePath = source() / name;
        item.DestinationPath = target() / name;
        item.bDirectory = name == "tree";
        plan.Items.push_back(item);
    }
    TavroTransferReport report;
    TavroJournal journal([&](TavroHistory& own) { return open(own); });
    TavroTransferCallbacks callbacks{
        journal.Bind(static_cast<const TavroCallbacks&>(unsynced())), {}, {}};
    callbacks.bSync = true;
    callbacks.BeforeActs = [keep = callbacks.BeforeActs](auto kind, const auto& steps) {
        markTraced(false); // the history has tests of its own
        TavroFailure failure = keep(kind, steps);
        markTraced(true);
        return failure;
    };
    markTraced(true);
    const bool bDone = TavroCarryOutTransfer(plan, callbacks, report);
    markTraced(false);
    const TavroFailure unkept =
        report.bUnsettled ? TavroFailure() : journal.End(TavroOperationOf(report, plan.bMove));
    if (unkept || journal.Problem()) {
        throw std::runtime_error("the history cannot be kept");
    }
    Outcome outcome;
    outcome.Ended = bDone ? Outcome::True : Outcome::False;
    outcome.Failures = report.Failed;
    for (const TavroFailure& failure : report.Failed) {
        outcome.Message += TavroDescribe(failure) + "\n";
    }
    return outcome;
}

TavroFailure EngineFaults::open(TavroHistory& own) const {
    fs::create_directories(history().parent_path());
    return own.Open(history().string(), std::chrono::seconds(10));
}

/// No power cut comes.
TavroTransferCallbacks EngineFaults::unsynced() {
    TavroTransferCallbacks callbacks;
    callbacks.bSync = false;
    return callbacks;
}

/// What the next process does about a transfer that has not come to its end. @return whether there
/// is one; the child says so by its end.
bool EngineFaults::resume() const {
    if (!isTransfer() || !fs::exists(history())) {
        return false;
    }
    constexpr int none = 3;
    const int status = waitForEnd(startChild([&] {
        TavroHistory own;
        const TavroFailure failure = open(own);
        const TavroUndoReport report =
            failure ? TavroUndoReport{failure} : TavroResume(own, unsynced());
        if (report.Failure.Kind == TavroFailureKind::NothingToResume) {
            _exit(none);
        }
        if (report.Failure || !report.Transfer.Failed.empty()) {
            throw std::runtime_error("it cannot be resumed: " + TavroDescribe(report));
        }
    }));
    if (status != 0 && !(WIFEXITED(status) && WEXITSTATUS(status) == none)) {
        throw std::runtime_error("a transfer cannot be resumed");
    }
    return status == 0;
}

Outcome EngineFaults::act() const {
    if (isTransfer()) {
        return transfer();
    }
    std::vector<TavroOperationEntry> entries;
    std::vector<TavroTrashedEntry> trashed;
    std::vector<TavroTrashItem> listed;
    for (const std::string& name : names()) {
        entries.push_back({name, (source() / name).string(), name == "tree"});
    }
    if (bFromTrash() && TavroListTrash({}, listed)) {
        throw std::runtime_error("the trash cannot be listed");
    }
    for (const TavroTrashItem& item : listed) {
        trashed.push_back(item.Trashed());
    }
    markTraced(true);
    const Outcome outcome = m_way.What == Work::Trash     ? trashByEngine(entries)
                            : m_way.What == Work::Restore ? restoreByEngine(trashed)
                            : m_way.What == Work::Delete
                                ? outcomeOf(TavroDeleteForGood(entries, {}))
                                : outcomeOf(TavroRemoveFromTrash(listed, {}));
    markTraced(false);
    return outcome;
}

// -------------------------------------------------------------------------------------------------
// The judge
// -------------------------------------------------------------------------------------------------

/// Every file is whole in one place at least, but for those that a clean run removes too.
std::string EngineFaults::complaintAboutBytes(const Snapshot& visible, Verdict& verdict) const {
    const auto removed = lostFiles(m_reference.Before, m_reference.Clean.After);
    std::string complaint;
    for (const auto& [path, size] : lostFiles(m_reference.Before, visible)) {
        if (removed.count(path) == 0) {
            verdict.BytesLost += size;
            complaint += path + " is lost; ";
        }
    }
    return complaint;
}

/// Of a destination that cannot hold permissions, only the bytes are asked.
bool EngineFaults::isAsInCleanRun(const std::string& path, const std::string& row) const {
    const std::string wanted = rowOf(m_reference.Clean.After, path);
    return row == wanted || (!m_bModesHeld && withoutMode(row) == withoutMode(wanted));
}

/// A copy leaves its source alone. What else has gone lies at its destination, if there is one.
std::string EngineFaults::complaintAboutSource(const Snapshot& visible) const {
    for (const auto& [path, row] : m_reference.Before) {
        if (!liesIn(path, m_from) || path == m_from || rowOf(visible, path) == row) {
            continue;
        }
        const bool bToGo = rowOf(m_reference.Clean.After, path).empty();
        const std::string there = removes() ? "" : rowOf(visible, arrivalOf(path));
        const bool bArrived = !there.empty() && isAsInCleanRun(arrivalOf(path), there);
        if (!rowOf(visible, path).empty() || !bToGo || !(removes() || bArrived)) {
            return path + " is neither where it was nor where it goes; ";
        }
    }
    for (const auto& [path, row] : visible) {
        if (liesIn(path, m_from) && rowOf(m_reference.Before, path) != row) {
            return path + " is new or changed; ";
        }
    }
    return "";
}

/// Everywhere else each entry is as before or as after a clean run, never something between. The
/// record of an item that is not in the trash may be any part of itself.
std::string EngineFaults::complaintAboutDestination(const Run& run, const Snapshot& visible) const {
    const bool bAttributesFailed = hasKind(run.Result.Failures, TavroFailureKind::SetAttributes);
    for (const auto& [path, row] : m_reference.Before) {
        const bool bToGo = bFromTrash() && isRecord(path);
        if (!liesIn(path, m_from) && !bToGo && rowOf(visible, path).empty()) {
            return path + " is gone; ";
        }
    }
    for (const auto& [path, row] : visible) {
        if (isOfTrash(path) && m_bResumed) {
            continue;
        }
        const std::string after = rowOf(m_reference.Clean.After, path);
        const bool bSameBytes = bAttributesFailed && withoutMode(row) == withoutMode(after);
        const std::string item = (files() / fs::path(path).stem()).string();
        const bool bClaim = isRecord(path) && rowOf(visible, item).empty() &&
                            after.rfind(row.substr(0, row.find(someDate)), 0) == 0;
        if (!liesIn(path, m_from) && row != rowOf(m_reference.Before, path) &&
            !isAsInCleanRun(path, row) && !bSameBytes && !bClaim) {
            return path + " is neither as before nor as it should become; ";
        }
    }
    return "";
}

/// At no moment is an item in the trash without its whole record.
std::string EngineFaults::complaintAboutRecords(const Snapshot& visible) const {
    for (const auto& [path, row] : visible) {
        if (fs::path(path).parent_path() == files()) {
            const std::string record = recordOf(fs::path(path).filename().string());
            const std::string its = rowOf(visible, record);
            const bool bAsExpected = m_bResumed || its == rowOf(m_reference.Before, record) ||
                                     its == rowOf(m_reference.Clean.After, record);
            if (its.empty() || !bAsExpected) {
                return path + " is without its record; ";
            }
        }
    }
    return "";
}

/// Exactly the state after; records that could not be removed may stay without their items.
std::string EngineFaults::complaintAfterTrue(const Snapshot& visible, Verdict& verdict) const {
    const auto isFree = [&](const std::string& path) { return m_bResumed && isOfTrash(path); };
    for (const auto& [path, row] : m_reference.Clean.After) {
        if (!isFree(path) && !isAsInCleanRun(path, rowOf(visible, path))) {
            return "true, but " + path + " is not as after; ";
        }
    }
    for (const auto& [path, row] : visible) {
        if (!isFree(path) && rowOf(m_reference.Clean.After, path).empty()) {
            if (m_way.What != Work::Restore || !isRecord(path)) {
                return "true, but " + path + " is there; ";
            }
            verdict.Used.insert(Exception::RecordLeftBehind);
        }
    }
    return "";
}

/// Each failure names an entry, and what was made to fail is among the reasons.
std::string EngineFaults::complaintAboutFailures(const Blow& blow, const Outcome& outcome) const {
    std::vector<TavroFailure> all = outcome.Failures;
    all.insert(all.end(), outcome.RollBack.begin(), outcome.RollBack.end());
    const auto isOurs = [&](const std::string& path) {
        return liesIn(path, source()) || liesIn(path, target());
    };
    const auto isFounded = [&](const TavroFailure& failure) {
        return failure.Error.value() == blow.Errno || isSeen(failure.Kind);
    };
    for (const TavroFailure& failure : all) {
        if (!failure || !(isOurs(failure.Path) || isOurs(failure.Other))) {
            return "a failure without its path: " + TavroDescribe(failure) + "; ";
        }
    }
    if (outcome.Failures.empty()) {
        return "false without a failure; ";
    }
    return std::any_of(all.begin(), all.end(), isFounded) ? "" : "an unfounded failure; ";
}

/// All of an entry is where it was, and nothing of it where it goes. What is merged into what is
/// there is not asked here.
bool EngineFaults::isAsBefore(const std::string& name, const Snapshot& visible) const {
    const std::string from = (m_from / name).string();
    const std::string to = arrivalOf(from);
    const std::string record = recordOf(fs::path(to).filename().string());
    return rowsAt(visible, from) == rowsAt(m_reference.Before, from) &&
           rowsAt(visible, to) == rowsAt(m_reference.Before, to) &&
           (m_way.What != Work::Trash ||
            rowOf(visible, record) == rowOf(m_reference.Before, record));
}

/// All of an entry is where it goes.
bool EngineFaults::isAsAfter(const std::string& name, const Snapshot& visible) const {
    const std::string to = arrivalOf((m_from / name).string());
    const Snapshot rows = rowsAt(visible, to);
    return rows.size() == rowsAt(m_reference.Clean.After, to).size() &&
           std::all_of(rows.begin(), rows.end(), [&](const auto& one) {
               return isAsInCleanRun(one.first == "." ? to : to + "/" + one.first, one.second);
           });
}

/// All or nothing, but for what is told to be elsewhere by now. A single fault leaves nothing to
/// be told but the entry that it hit.
std::string EngineFaults::complaintAboutBatch(const Blow& blow, const Outcome& outcome,
                                              const Snapshot& visible) const {
    const auto isIn = [](const std::vector<std::string>& list, const std::string& text) {
        return std::count(list.begin(), list.end(), text) != 0;
    };
    std::string complaint;
    for (const std::string& name : names()) {
        const std::string original = (source() / name).string();
        const bool bLeft = isIn(outcome.Left, original);
        const bool bBoth = isIn(outcome.InBoth, original);
        const std::string from = (m_from / name).string();
        const bool bGone = rowsAt(visible, from).empty();
        if (bLeft || bBoth) {
            complaint += isAsAfter(name, visible) && bGone == bLeft
                             ? ""
                             : name + " is not where it is told to be; ";
        } else if (!isAsBefore(name, visible)) {
            // Who may not remove anything any more leaves a claim of its name.
            const bool bClaim = blow.What != Blow::Once && !bGone;
            complaint += bClaim ? "" : name + " is not as before, and not told of; ";
        }
    }
    if (blow.What == Blow::Once && !(outcome.RollBack.empty() && outcome.Left.empty())) {
        complaint += "a roll-back failed without a second fault; ";
    }
    return complaint;
}

std::string EngineFaults::complaintAfterFalse(const Blow& blow, const Run& run,
                                              const Snapshot& visible) const {
    const Outcome& outcome = run.Result;
    std::string complaint = complaintAboutFailures(blow, outcome);
    if (isBatch()) {
        return complaint + complaintAboutBatch(blow, outcome, visible);
    }
    for (const TavroFailure& failure : outcome.Failures) {
        if (removes() && rowOf(run.After, failure.Path).empty()) {
            complaint += failure.Path + " is not there, though it is told to stay; ";
        }
    }
    // What no failure tells of has arrived.
    for (const std::string& name : isTransfer() ? names() : std::vector<std::string>()) {
        const bool bTold = std::any_of(
            outcome.Failures.begin(), outcome.Failures.end(), [&](const TavroFailure& failure) {
                const fs::path there = m_to / name;
                return liesIn(failure.Path, m_from / name) || liesIn(failure.Path, there) ||
                       liesIn(there.string(), failure.Path);
            });
        complaint += bTold || isAsAfter(name, visible) ? "" : name + " is not told of; ";
    }
    return complaint;
}

Verdict EngineFaults::judgeRun(const Blow& blow, const Run& run, const Snapshot& visible) const {
    Verdict verdict;
    const bool bKilled = blow.What == Blow::Kill;
    const bool bTrue = run.Result.Ended == Outcome::True;
    verdict.Complaint = complaintAboutBytes(visible, verdict) + complaintAboutSource(visible) +
                        complaintAboutDestination(run, visible) + complaintAboutRecords(visible);
    if (m_bResumed) {
        verdict.Complaint += complaintAfterTrue(visible, verdict);
    } else if (!bKilled) {
        verdict.Complaint +=
            bTrue ? complaintAfterTrue(visible, verdict) : complaintAfterFalse(blow, run, visible);
    }
    if (run.DescriptorsLeaked != 0) {
        verdict.Complaint += std::to_string(run.DescriptorsLeaked) + " descriptors left open; ";
    }
    // Who is killed cannot clean up, nor who may not remove anything any more.
    if (visible != run.After && blow.What <= Blow::Once) {
        verdict.Complaint += "a hidden entry is left; ";
    }
    if (blow.Errno == EINTR && !bTrue) {
        verdict.Complaint += "an interrupted call was not made again; ";
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

/// Runs the work in a child and returns how many calls it made. The clean run notes them.
std::size_t EngineFaults::run(const Blow& blow) {
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
        const bool bAgain = (blow.What == Blow::FromThenOn && m_hit == name) ||
                            (blow.What == Blow::Everything && m_hit);
        return bFirst || bAgain ? Deed{Deed::Fail, blow.Errno} : Deed();
    });
    take(blow, status, count);
    return count;
}

/// Judges the run that has just ended.
void EngineFaults::take(const Blow& blow, int status, std::size_t count) {
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
    m_bResumed =
        (bKill || blow.What == Blow::Everything || blow.What == Blow::FromThenOn) && resume();
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
    m_tally.Faults += blow.What == Blow::None || bKill ? 0 : 1;
    m_tally.Kills += bKill ? 1 : 0;
    m_tally.Remains += visible == run.After ? 0 : 1;
    m_report.add(m_tally, nameOf(blow), judgeRun(blow, run, visible), tell(m_reference, run));
}

void EngineFaults::runIfWanted(const Blow& blow) {
    if (m_report.wants(nameOf(blow)) && !m_report.isOver()) {
        run(blow);
    }
}

/// The short form tries the most telling error once, lets each kind of call fail for ever from its
/// first one on, interrupts that one, and where the disk is about to change lets everything fail
/// from then on, and kills.
void EngineFaults::failAt(std::size_t number) {
    const Made& call = m_calls[number];
    std::vector<int> errnos = plausibleErrnos(call.Name);
    if (errnos.empty()) {
        m_report.complain("engine:" + m_way.name() + ":" + std::to_string(number),
                          "nobody knows how this call may fail: " + call.Name);
    }
    // Who asks for a world gets the choice that the short form makes in it.
    const std::size_t world = ("engine:" + m_way.name() + ":").size();
    const bool bThorough = m_report.options().bLong || m_report.options().Only.size() > world;
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
        if (error == errnos.front() && (bThorough || call.bChangesDisk)) {
            runIfWanted({Blow::Everything, number, error});
        }
    }
    if (bThorough || call.bFirst) {
        runIfWanted({Blow::Once, number, EINTR});
    }
    if (bThorough || call.bChangesDisk) {
        runIfWanted({Blow::Kill, number});
    }
}

void EngineFaults::sweep() {
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
    for (const bool bAcross : {false, true}) {
        for (const Work what : {Work::Copy, Work::Move}) {
            for (const There before : {There::Free, There::File, There::Directory}) {
                all.push_back({what, bAcross, before});
            }
        }
        all.push_back({Work::Trash, bAcross, There::Free});
        all.push_back({Work::Trash, bAcross, There::File});
        all.push_back({Work::Restore, bAcross, There::Free});
        all.push_back({Work::Restore, bAcross, There::Missing});
    }
    all.push_back({Work::Delete, false, There::Free});
    all.push_back({Work::Empty, false, There::Free});
    return all;
}

} // namespace

void runEngineFaults(Report& report) {
    const std::string obstacle = obstacleToFailing();
    if (!obstacle.empty()) {
        report.skip("engine", obstacle);
        return;
    }
    Tally& tally = report.suite("engine");
    const std::string crossing = obstacleToCrossing();
    for (const Way& way : allWays()) {
        if (!report.wantsSome("engine:" + way.name() + ":") || report.isOver()) {
            continue;
        }
        if (way.bAcross && !crossing.empty()) {
            report.skip("engine across devices", crossing);
            continue;
        }
        EngineFaults(report, tally, way).sweep();
    }
}

} // namespace tavro_test
