#include "judge.h"

#include "fates.h"
#include "remains.h"
#include "sentences.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <optional>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

/// As liesIn. A path that is only a name may lie anywhere.
bool mayLieIn(const std::string& path, const fs::path& place) {
    return liesIn(path, place) || (!path.empty() && path.front() != '/');
}

class Judgement {
public:
    Judgement(const Scenario& scenario, const Reference& reference, const Run& run)
        : m_scenario(scenario), m_reference(reference), m_run(run), m_items(scenario.items()) {}

    Verdict decide();

private:
    bool check(bool held, const std::string& complaint);
    bool failedOn(const fs::path& path) const;
    bool failedOnTheWayTo(const fs::path& folder) const;
    bool failedIn(const fs::path& place) const;
    bool failedToExamine(const fs::path& path) const;
    bool anyFailed(const std::function<bool(const CountedCall&)>& fits) const;
    int errnoOf(const CountedCall& call) const;
    bool isOfItemAt(const std::string& path, const std::string& place) const;
    bool concerns(const Clause& clause, const CountedCall& call) const;
    bool isPossible(const Item& item, const Fate& its, const MoveRow& row) const;
    bool isFounded(const Clause& clause) const;
    Verdict decideOutOfMemory() const;
    bool checkEscape();
    bool checkSentence();
    bool checkState();
    bool takeNames(unsigned taken);
    bool fits(const Hypothesis& hypothesis, std::set<Exception>& used) const;
    bool fitsOne(const Item& item, const Fate& its, std::set<Exception>& used) const;
    bool becameFile(const Item& item) const;
    bool fitsRecord(const Item& item, const Fate& its, std::set<Exception>& used) const;
    bool restFits(std::set<Exception>& used) const;
    bool checkBytes();
    bool isGivenUp(const std::string& path) const;
    bool checkResults();
    TavroTrashEntry preparedEntry(const Item& item, const TavroTrashEntry& told);
    bool checkList();
    bool checkText();

    const Scenario& m_scenario;
    const Reference& m_reference;
    const Run& m_run;
    std::vector<Item> m_items; ///< with the names that were chosen in this run
    Clauses m_clauses;
    Verdict m_verdict;
};

bool Judgement::check(bool held, const std::string& complaint) {
    if (!held && m_verdict.Complaint.empty()) {
        m_verdict.Complaint = complaint;
    }
    return held;
}

bool Judgement::failedOn(const fs::path& path) const {
    return std::any_of(m_run.Failed.begin(), m_run.Failed.end(),
                       [&](const CountedCall& call) { return call.Path == path; });
}

bool Judgement::anyFailed(const std::function<bool(const CountedCall&)>& fits) const {
    return std::any_of(m_run.Failed.begin(), m_run.Failed.end(), fits);
}

bool Judgement::failedIn(const fs::path& place) const {
    return anyFailed([&](const CountedCall& call) { return mayLieIn(call.Path, place); });
}

bool Judgement::failedToExamine(const fs::path& path) const {
    return anyFailed([&](const CountedCall& call) {
        return canLeadTo(Says::PlanTarget, call.Call) && call.Path == path;
    });
}

/// What the call failed with. Where only one call can fail, the run alone knows it.
int Judgement::errnoOf(const CountedCall& call) const {
    const bool bOfRun = call.Errno == CountedCall::unknown && m_run.Errnos.size() == 1;
    return bOfRun ? *m_run.Errnos.begin() : call.Errno;
}

bool Judgement::failedOnTheWayTo(const fs::path& folder) const {
    return anyFailed([&](const CountedCall& call) { return liesIn(folder.string(), call.Path); });
}

/// The path belongs to the item that has one of its places at `place`.
bool Judgement::isOfItemAt(const std::string& path, const std::string& place) const {
    return std::any_of(m_items.begin(), m_items.end(), [&](const Item& item) {
        const std::vector<fs::path> all = {item.Original, item.Destination, item.TakenDestination};
        const bool bItsPlace = std::find(all.begin(), all.end(), place) != all.end();
        return bItsPlace && (path == item.LinkTarget ||
                             std::any_of(all.begin(), all.end(), [&](const fs::path& one) {
                                 return !one.empty() && mayLieIn(path, one);
                             }));
    });
}

/// The clause tells of something that the call does.
bool Judgement::concerns(const Clause& clause, const CountedCall& call) const {
    const auto leadsTo = [&](const fs::path& folder) { return liesIn(folder.string(), call.Path); };
    const Item& first = m_items[0];
    switch (clause.What) {
    case Says::FilesFolder:
        return leadsTo(first.Destination.parent_path());
    case Says::InfoFolder:
        return leadsTo(first.Record.parent_path());
    case Says::DestinationFolder:
        return leadsTo(first.Original.parent_path()) || leadsTo(first.Destination.parent_path());
    case Says::RenameFolder:
        return leadsTo(first.Destination.parent_path());
    case Says::MakeDirectory:
        return leadsTo(m_scenario.createdDirectory());
    case Says::Rename:
        return call.Path == first.Original;
    case Says::Move:
        return call.Call == "rename" ? call.Path == clause.Path
                                     : isOfItemAt(call.Path, clause.Path);
    case Says::Copy:
        return isOfItemAt(call.Path, clause.Path);
    case Says::RemoveOriginal:
        return mayLieIn(call.Path, clause.Path);
    case Says::Delete:
        return mayLieIn(call.Path, first.Original.parent_path() / clause.Path);
    case Says::PlanTarget:
        return call.Path == m_scenario.planTarget();
    default:
        return call.Path == clause.Path;
    }
}

/// A fault, or the world itself, gave cause for what the clause tells.
bool Judgement::isFounded(const Clause& clause) const {
    const auto is = [&](int error) { return clause.Reason == textOf(error); };
    const bool bByWorld =
        (clause.What == Says::RenameExists && m_scenario.isHindered()) ||
        ((clause.What == Says::CreateRecord || clause.What == Says::TargetExists) &&
         m_scenario.isBlocked(clause.Path)) ||
        (clause.What == Says::Copy && m_scenario.hasSizeLimit() && (is(EFBIG) || is(EIO)));
    const bool bByMemory = m_run.bMemoryFailed && (is(ENOMEM) || isConsequence(clause));
    return bByWorld || bByMemory || anyFailed([&](const CountedCall& call) {
               const bool bSame = clause.Reason.empty() || is(errnoOf(call));
               const bool bLeads = (canLeadTo(clause.What, call.Call) && bSame) ||
                                   isConsequenceOf(clause, call.Call, errnoOf(call));
               return bLeads && concerns(clause, call);
           });
}

/// An error that escaped as an exception: only from a rename, with nothing changed.
bool Judgement::checkEscape() {
    m_verdict.Used.insert(Exception::QueryThrows);
    return check(m_scenario.operation() == Operation::Rename, "an exception escaped") &&
           check(m_run.bMemoryFailed || failedToExamine(m_items[0].Destination),
                 "an exception escaped without cause") &&
           check(m_run.Result.Message == untouchedMessage, "the message was touched") &&
           check(m_run.Result.Text.empty(), "the selected path is not empty") &&
           check(m_run.After == m_reference.Before, "an exception escaped after a change");
}

bool Judgement::checkSentence() {
    if (m_run.Result.Ended == Outcome::True) {
        const bool bRenameFailed = anyFailed([&](const CountedCall& call) {
            return call.Call == "rename" && errnoOf(call) != EXDEV;
        });
        return check(m_run.Result.Message == untouchedMessage, "the message was touched") &&
               check(!bRenameFailed, "true, though a rename failed");
    }
    m_clauses = parse(m_run.Result.Message);
    return check(!m_clauses.empty(), "the sentence is unknown") &&
           check(std::all_of(m_clauses.begin(), m_clauses.end(),
                             [&](const Clause& clause) { return isFounded(clause); }),
                 "the sentence tells of something for which nothing gave cause");
}

bool Judgement::fitsRecord(const Item& item, const Fate& its, std::set<Exception>& used) const {
    char state = recordState(item, m_reference.Before, m_run.After);
    const bool bNoTime =
        std::any_of(m_run.Failed.begin(), m_run.Failed.end(),
                    [](const CountedCall& call) { return call.Call == "localtime_r"; });
    if (state == '0' && bNoTime) {
        used.insert(Exception::RecordWithoutTime);
        state = 'R';
    }
    for (const RecordRow& row : recordRows()) {
        if (row.ItsRecord == its.ItsRecord && row.State == state &&
            (!row.GivenUp || failedOn(item.Record))) {
            if (row.GivenUp) {
                used.insert(*row.GivenUp);
            }
            return true;
        }
    }
    return false;
}

/// A link that was flagged as a file went across devices and is a file now, where it was or where
/// a rename would have brought it as a link.
bool Judgement::becameFile(const Item& item) const {
    const auto isFileAt = [&](const fs::path& place) {
        return rowsAt(m_run.After, place) == item.AtDestination;
    };
    return item.AtOriginal != item.AtDestination &&
           (isFileAt(item.Original) ||
            (isFileAt(item.Destination) && !m_scenario.crossesDevices()));
}

/// The call works on something that was not there before it was created right before.
bool worksOnNew(const CountedCall& call) {
    const bool bCreates = call.Call == "mkdir" || call.Call == "symlink";
    const bool bFills = call.Call == "fchmod" || call.Call == "sendfile" || call.Call == "write" ||
                        call.Call == "writev";
    return bFills || (bCreates && !call.bFailed);
}

/// Calls were made and failed where the row needs them.
bool Judgement::isPossible(const Item& item, const Fate& its, const MoveRow& row) const {
    const fs::path& from = its.bBack ? item.Destination : item.Original;
    const fs::path& to = its.bBack ? item.Original : item.Destination;
    const bool bCreated =
        std::any_of(m_run.Made.begin(), m_run.Made.end(),
                    [&](const CountedCall& call) { return call.Path == to && worksOnNew(call); });
    if (row.LastMove == Move::CopyFailed && !row.GivenUp && bCreated) {
        return false; // what was created must be there
    }
    if (row.GivenUp == Exception::CopyNotDiscarded && !failedIn(to)) {
        return false;
    }
    if (row.GivenUp == Exception::SourcePartlyRemoved && !m_run.bMemoryFailed && !failedIn(from)) {
        return false;
    }
    return !its.bSilent || failedIn(from) || failedIn(to) || failedOnTheWayTo(from.parent_path()) ||
           failedOnTheWayTo(to.parent_path());
}

bool Judgement::fitsOne(const Item& item, const Fate& its, std::set<Exception>& used) const {
    std::string places = {
        placeState(item, item.Original, m_reference.Before, m_run.After),
        placeState(item, item.Destination, m_reference.Before, m_run.After),
    };
    if (its.bBack) {
        std::swap(places[0], places[1]);
    }
    const bool bBecameFile = becameFile(item);
    if (bBecameFile && !m_scenario.crossesDevices() && m_run.Errnos.count(EXDEV) == 0) {
        return false;
    }
    for (const MoveRow& row : moveRows()) {
        if (row.LastMove != its.LastMove || row.Places != places || !isPossible(item, its, row) ||
            !fitsRecord(item, its, used)) {
            continue;
        }
        if (bBecameFile) {
            used.insert(Exception::LinkBecomesFile);
        }
        for (const std::optional<Exception>& one : {row.GivenUp, its.Told}) {
            if (one) {
                used.insert(*one);
            }
        }
        return true;
    }
    return false;
}

bool Judgement::fits(const Hypothesis& hypothesis, std::set<Exception>& used) const {
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        const bool bOne =
            std::any_of(hypothesis[i].begin(), hypothesis[i].end(), [&](const Fate& its) {
                std::set<Exception> ofItem;
                const bool bFits = fitsOne(m_items[i], its, ofItem);
                if (bFits) {
                    used.insert(ofItem.begin(), ofItem.end());
                }
                return bFits;
            });
        if (!bOne) {
            return false;
        }
    }
    return true;
}

/// Nothing else is changed, but for directories on the way.
bool Judgement::restFits(std::set<Exception>& used) const {
    // The names that the items got in a clean run, and those that they got in this one.
    std::vector<Item> items = m_scenario.items();
    items.insert(items.end(), m_items.begin(), m_items.end());
    const Snapshot rest = restOf(m_run.After, items);
    bool bFoldersStay = false;
    if (!isRestKept(m_scenario, restOf(m_reference.Before, items), rest, bFoldersStay)) {
        return false;
    }
    if (m_run.Result.Ended == Outcome::False && bFoldersStay) {
        used.insert(Exception::FoldersStay);
    }
    const bool bComparable =
        m_run.Result.Ended == Outcome::True && m_reference.Clean.Result.Ended == Outcome::True;
    return !bComparable || rest == restOf(m_reference.Clean.After, items);
}

/// Gives the items of the set bits the names that were taken; false when they cannot have got them.
bool Judgement::takeNames(unsigned taken) {
    m_items = m_scenario.items();
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        Item& item = m_items[i];
        if ((taken >> i & 1U) == 0) {
            continue;
        }
        if (item.TakenDestination.empty() || !failedOn(item.TakenDestination)) {
            return false;
        }
        item.Destination = item.TakenDestination;
        item.Record = Item::recordOf(item.Destination);
    }
    return true;
}

/// The disk is in a state that the outcome leaves by its sentence.
bool Judgement::checkState() {
    const Operation what = m_scenario.operation();
    // A name that could not be examined counts as free: each set of such names is tried.
    for (unsigned taken = 0; taken < (1U << m_scenario.items().size()); ++taken) {
        if (!takeNames(taken)) {
            continue;
        }
        const Hypotheses all = m_run.Result.Ended == Outcome::False
                                   ? afterFalse(what, m_items, m_clauses)
                                   : Hypotheses{afterTrue(what, m_items.size())};
        for (const Hypothesis& hypothesis : all) {
            std::set<Exception> used;
            if (!fits(hypothesis, used) || !restFits(used)) {
                continue;
            }
            const bool bReplaced = what == Operation::Rename && m_scenario.isHindered() &&
                                   m_run.Result.Ended == Outcome::True;
            if (taken != 0 || bReplaced) {
                used.insert(Exception::UnseenNameReplaced);
            }
            m_verdict.Used = used;
            return true;
        }
    }
    takeNames(0);
    std::string states;
    for (const Item& item : m_items) {
        states += {' ', placeState(item, item.Original, m_reference.Before, m_run.After),
                   placeState(item, item.Destination, m_reference.Before, m_run.After),
                   recordState(item, m_reference.Before, m_run.After)};
    }
    return check(false, "the items' states" + states +
                            " or their surroundings are not what the sentence says");
}

/// The contract gives the bytes of this file up, in the row that was found.
bool Judgement::isGivenUp(const std::string& path) const {
    const auto used = [&](Exception one) { return m_verdict.Used.count(one) == 1; };
    return std::any_of(m_items.begin(), m_items.end(), [&](const Item& item) {
        const bool bOfItem = liesIn(path, item.Original) || liesIn(path, item.Destination);
        const bool bReplaced = path == item.TakenDestination ||
                               (m_scenario.operation() == Operation::Rename &&
                                path == item.Destination && failedOn(item.Destination));
        if (bReplaced) {
            // A rename replaces it; a copy refuses to.
            return used(Exception::UnseenNameReplaced) && !m_scenario.crossesDevices();
        }
        if (m_scenario.operation() == Operation::DeleteForGood) {
            return bOfItem;
        }
        return bOfItem && item.bDirectory &&
               (used(Exception::SourcePartlyRemoved) || used(Exception::CopyNotDiscarded));
    });
}

bool Judgement::checkBytes() {
    const bool bDelete = m_scenario.operation() == Operation::DeleteForGood;
    for (const auto& [path, size] : lostFiles(m_reference.Before, m_run.After)) {
        if (!check(isGivenUp(path), "lost: " + path)) {
            m_verdict.BytesLost += size;
        } else if (!bDelete) {
            m_verdict.BytesGivenUp += size;
        }
    }
    return m_verdict.BytesLost == 0;
}

/// What a preparation may say of an item: a link is told by what it points to, unless the disk
/// cannot resolve it, and a name that cannot be examined counts as free.
TavroTrashEntry Judgement::preparedEntry(const Item& item, const TavroTrashEntry& told) {
    TavroTrashEntry wanted = item.entry();
    wanted.OriginalPath = fs::canonical(item.Original).string();
    if (told.OriginalPath != wanted.OriginalPath && !m_run.Failed.empty()) {
        wanted.OriginalPath = item.Original.string();
        m_verdict.Used.insert(Exception::PathAsText);
    }
    if (told.TrashPath != wanted.TrashPath && failedOn(item.TakenDestination)) {
        wanted.TrashPath = item.TakenDestination.string();
        wanted.InfoPath = Item::recordOf(wanted.TrashPath).string();
        m_verdict.Used.insert(Exception::UnseenNameReplaced);
    }
    return wanted;
}

/// The list that an operation hands back.
bool Judgement::checkList() {
    const std::vector<TavroTrashEntry>& list = m_run.Result.List;
    const Operation what = m_scenario.operation();
    const bool bTrue = m_run.Result.Ended == Outcome::True;
    const bool bFills = what == Operation::Trash || what == Operation::Prepare;
    std::vector<TavroTrashEntry> expected = untouchedList;
    if (bTrue && (bFills || what == Operation::Reapply)) {
        expected.clear();
        for (const Item& item : m_items) {
            const bool bTold = what == Operation::Prepare && expected.size() < list.size();
            expected.push_back(bTold ? preparedEntry(item, list[expected.size()]) : item.entry());
        }
    } else if (what == Operation::Trash) {
        expected.clear();
    } else if (what == Operation::Reapply) {
        expected = m_scenario.list();
    }
    const auto isSame = [](const TavroTrashEntry& a, const TavroTrashEntry& b) {
        return a.OriginalPath == b.OriginalPath && a.TrashPath == b.TrashPath &&
               a.InfoPath == b.InfoPath && a.bDirectory == b.bDirectory;
    };
    return check(std::equal(list.begin(), list.end(), expected.begin(), expected.end(), isSame),
                 "the list is not the one that belongs to the outcome");
}

/// The selected path, the plan or the size.
bool Judgement::checkText() {
    const std::string& text = m_run.Result.Text;
    const std::string& clean = m_reference.Clean.Result.Text;
    const bool bTrue = m_run.Result.Ended == Outcome::True;
    const auto allow = [&](bool held, Exception exception) {
        const bool bAllowed = held && !m_run.Failed.empty();
        if (bAllowed) {
            m_verdict.Used.insert(exception);
        }
        return check(bAllowed, "the result is not the one that belongs to the outcome: " + text);
    };
    switch (m_scenario.operation()) {
    case Operation::Rename:
    case Operation::CreateDirectory:
        if (!bTrue) {
            return check(text.empty(), "the selected path is not empty");
        }
        return text == clean || allow(text == (m_scenario.operation() == Operation::Rename
                                                   ? m_items[0].Destination.string()
                                                   : m_scenario.createdDirectory()),
                                      Exception::PathAsText);
    case Operation::Plan:
        if (text == clean) {
            return true;
        }
        if (bTrue || m_clauses[0].What == Says::PlanTarget) {
            return allow(failedToExamine(m_scenario.planTarget()) &&
                             text == m_scenario.planWithoutTarget(bTrue),
                         Exception::TargetNotSeen);
        }
        return check(clean.rfind(text, 0) == 0, "the plan is no part of the clean one");
    case Operation::Size:
        return text == clean ||
               allow(std::stoull(text) < std::stoull(clean), Exception::SizeIncomplete);
    default:
        return true;
    }
}

bool Judgement::checkResults() {
    return checkList() && checkText();
}

/// What was done half stays half done, but nothing may be lost or left open.
Verdict Judgement::decideOutOfMemory() const {
    Verdict verdict = judgeDebris(m_scenario, m_reference.Before, m_run.After);
    if (!m_run.bMemoryFailed || m_run.DescriptorsLeaked != 0) {
        verdict.Decided = Verdict::Wrong;
        verdict.Complaint =
            m_run.bMemoryFailed ? "a descriptor is left open" : "bad_alloc without cause";
    }
    verdict.Decided = verdict.Decided == Verdict::Wrong ? Verdict::Wrong : Verdict::Escaped;
    return verdict;
}

Verdict Judgement::decide() {
    const Outcome::Ending ended = m_run.Result.Ended;
    if (ended == Outcome::OutOfMemory) {
        return decideOutOfMemory();
    }
    bool bGood =
        check(m_run.DescriptorsLeaked == 0, "a descriptor is left open") &&
        (ended == Outcome::FilesystemError ? checkEscape()
                                           : checkSentence() && checkState() && checkResults());
    bGood = checkBytes() && bGood;
    if (bGood && m_verdict.Used.empty()) {
        bGood = ended == Outcome::True
                    ? check(m_run.After == m_reference.Clean.After, "not the state after")
                    : check(m_run.After == m_reference.Before, "not the state before");
    }
    if (!bGood) {
        m_verdict.Decided = Verdict::Wrong;
    } else if (!m_verdict.Used.empty()) {
        m_verdict.Decided = Verdict::Row;
    } else {
        m_verdict.Decided = ended == Outcome::True ? Verdict::After : Verdict::Before;
    }
    return m_verdict;
}

bool movesToTrash(Operation what) {
    return what == Operation::Trash || what == Operation::DeleteToTrash ||
           what == Operation::Reapply;
}

} // namespace

Verdict judge(const Scenario& scenario, const Reference& reference, const Run& run) {
    return Judgement(scenario, reference, run).decide();
}

Verdict judgeDebris(const Scenario& scenario, const Snapshot& before, const Snapshot& after) {
    Verdict verdict;
    verdict.Decided = Verdict::Row;
    const auto wrong = [&](const std::string& complaint) {
        verdict.Decided = Verdict::Wrong;
        verdict.Complaint = complaint;
    };
    bool bFoldersStay = false;
    if (!isRestKept(scenario, restOf(before, scenario.items()), restOf(after, scenario.items()),
                    bFoldersStay)) {
        wrong("something else was changed");
    }
    for (const Item& item : scenario.items()) {
        const char original = placeState(item, item.Original, before, after);
        const char destination = placeState(item, item.Destination, before, after);
        const char record = recordState(item, before, after);
        if (original == '?' || destination == '?' || record == '?') {
            wrong("something else lies in the place of " + item.Name);
        }
        // Only a roll-back drops a record after the move, as a restore does.
        const bool bRolledBack = scenario.isHindered() && original == 'W';
        if (movesToTrash(scenario.operation()) && record != '-' && destination != 'W' &&
            !bRolledBack) {
            wrong("a record names an item that is not in the trash: " + item.Name);
        }
        const bool bWhole = original == 'W' || destination == 'W';
        if (scenario.operation() != Operation::DeleteForGood && !bWhole) {
            wrong("neither here nor there: " + item.Name);
        }
        if (scenario.operation() == Operation::Restore && record == '-' && original == '-') {
            wrong("the record is gone, and nothing is restored: " + item.Name);
        }
    }
    if (scenario.operation() != Operation::DeleteForGood) {
        for (const auto& [path, size] : lostFiles(before, after)) {
            verdict.BytesLost += size;
            wrong("lost: " + path);
        }
    }
    return verdict;
}

bool bytesSurvive(const Snapshot& before, const Snapshot& after) {
    return lostFiles(before, after).empty();
}

bool isKnownSentence(const std::string& message) {
    return !parse(message).empty();
}

} // namespace tavro_test
