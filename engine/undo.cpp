#include "undo.h"

#include "guard.h"
#include "names.h"
#include "record.h"
#include "trash_record.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <set>
#include <unordered_map>

namespace {

using Kind = TavroFailureKind;
using Role = TavroStepRole;

/// One undo or redo on the disk.
class Reversal {
public:
    Reversal(bool bUndo, const TavroCallbacks& Callbacks, TavroUndoReport& Report)
        : m_bUndo(bUndo), m_callbacks(Callbacks), m_report(Report),
          m_steps(Report.Operation.Steps) {}

    TavroFailure Run();

private:
    int Look(const std::string& Path, TavroPlace& OutPlace, struct stat& OutStatus);
    TavroFailure CheckFile(const TavroStep& Step, const std::string& Path, TavroSeenEntry& OutSeen);
    TavroFailure CheckFree(const std::string& Path);
    TavroFailure CheckHolder(const std::string& Path);
    TavroFailure CheckRecord(const TavroStep& Step, const TavroFileState& State);
    TavroFailure CheckEmpty(const TavroStep& Step, const std::set<std::string>& Created);

    TavroFailure Act();
    TavroFailure MoveAll();
    TavroFailure RunMoves(std::vector<TavroBatchStep>& Moves);
    TavroFailure Trash(const std::vector<TavroStep*>& Steps);
    TavroFailure TrashAgain();
    TavroFailure TrashCopies();
    TavroFailure Restore();
    TavroFailure RestoreCopies();
    TavroFailure RemoveCreated();
    TavroFailure CreateAgain();
    TavroFailure CheckDirectories();
    TavroFailure MakeDirectory(const std::string& Path, mode_t Mode);
    TavroFailure MakeDirectories();
    void Remember(const std::vector<std::string>& Made);
    void SetModes();
    int RemoveDirectory(const std::string& Path, const TavroIdentity& Identity, mode_t& OutMode);
    TavroFailure RemoveDirectories();
    void RemoveMade();
    std::vector<TavroStep*> StepsOf(Role What);

    /// The directory of a step is missing where this leads from; it is there where it leads to.
    bool IsToMake(const TavroStep& Step) const {
        return Step.Role == (m_bUndo ? Role::RemovedDirectory : Role::CreatedDirectory);
    }
    bool HasMode(const TavroStep& Step) const {
        return Step.Role == Role::RemovedDirectory || Step.Mode != 0;
    }
    bool IsToRemove(const TavroStep& Step) const {
        return Step.Role == (m_bUndo ? Role::CreatedDirectory : Role::RemovedDirectory);
    }

    const bool m_bUndo;
    const TavroCallbacks& m_callbacks;
    TavroUndoReport& m_report;
    std::vector<TavroStep>& m_steps;
    TavroPlaces m_places;
    TavroGuard m_guard{TavroAct::Move};
    const std::string m_home = TavroHomeDirectoryPath();
    std::map<std::string, TavroIdentity> m_made; ///< Directories; outer ones first.

    /// Of directories that something goes to: where they were when all was checked.
    std::unordered_map<std::string, std::string> m_ownPaths;
};

/// The path of a directory that a step tells of.
const std::string& DirectoryOf(const TavroStep& Step) {
    return Step.Role == Role::CreatedDirectory ? Step.To : Step.From;
}

std::vector<TavroStep*> Reversal::StepsOf(Role What) {
    std::vector<TavroStep*> steps;
    for (TavroStep& step : m_steps) {
        if (step.Role == What) {
            steps.push_back(&step);
        }
    }
    return steps;
}

// =================================================================================================
// Checking
// =================================================================================================

/// @return the error number of looking at an entry.
int Reversal::Look(const std::string& Path, TavroPlace& OutPlace, struct stat& OutStatus) {
    const TavroFailure failure = m_places.Find(Path, OutPlace);
    return failure ? failure.Error.value()
                   : TavroStatAt(OutPlace.Number(), OutPlace.Name.c_str(), OutStatus);
}

bool IsMissing(int Error) {
    return Error == ENOENT || Error == ENOTDIR;
}

const char* OtherOf(mode_t Mode) {
    switch (Mode & S_IFMT) {
    case S_IFREG:
        return "another file";
    case S_IFDIR:
        return "another directory";
    case S_IFLNK:
        return "another symbolic link";
    default:
        return "another entry";
    }
}

/// The very file of a step must be at a path. Its times do not count: who goes on working with what
/// was renamed or copied can still undo that.
TavroFailure Reversal::CheckFile(const TavroStep& Step, const std::string& Path,
                                 TavroSeenEntry& OutSeen) {
    TavroPlace place;
    struct stat status = {};
    const int error = Look(Path, place, status);
    if (error != 0) {
        return TavroFail(IsMissing(error) ? Kind::Missing : Kind::LookAt, error, Path);
    }
    if (Step.Role == Role::CreatedDirectory && !S_ISDIR(status.st_mode)) {
        return {Kind::NotDirectory, {}, Path};
    }
    if (Step.Identity.Inode != 0 && Step.Identity != TavroIdentityOf(status)) {
        return {Kind::Replaced, {}, Path, OtherOf(status.st_mode)};
    }
    OutSeen = {place.Directory->Identity, TavroStateOf(status)};
    return m_guard.Check(place, status);
}

/// Nothing may be at a path, and its directory must be there, or be one that can be created.
TavroFailure Reversal::CheckFree(const std::string& Path) {
    TavroPlace place;
    struct stat status = {};
    const int error = Look(Path, place, status);
    if (error == 0) {
        return {Kind::InTheWay, {}, Path};
    }
    return IsMissing(error) ? CheckHolder(TavroParentOf(Path))
                            : TavroFail(Kind::LookAt, error, Path);
}

/// The innermost of a directory and those above it that is there must be a directory.
TavroFailure Reversal::CheckHolder(const std::string& Path) {
    const auto [own, bNew] = m_ownPaths.try_emplace(Path);
    std::string there = Path;
    TavroPlace inside;
    while (bNew && !TavroIsPresent(there) && there != "/") {
        there = TavroParentOf(there);
    }
    if (bNew && m_places.Find(TavroJoin(there, "x"), inside)) {
        return {Kind::InTheWay, {}, there};
    }
    if (bNew) {
        own->second = inside.Directory->OwnPath + Path.substr(there.size());
    }
    return {};
}

/// An item that changed since may be another one with the same inode. It is not when its record
/// tells of the same place, or is lost.
TavroFailure Reversal::CheckRecord(const TavroStep& Step, const TavroFileState& State) {
    if (State.ChangeTime <= Step.ChangeTime) {
        return {};
    }
    TavroPlace record;
    if (m_places.Find(Step.Record, record)) {
        return {};
    }
    const auto read = TavroReadRecord(record.Number(), TavroNameOf(Step.To), m_home);
    return !read || read->Path == Step.From
               ? TavroFailure()
               : TavroFailure{Kind::Replaced, {}, Step.To, "what was at '" + read->Path + "'"};
}

/// Nothing may be in a created directory but other created ones.
TavroFailure Reversal::CheckEmpty(const TavroStep& Step, const std::set<std::string>& Created) {
    TavroPlace place;
    TavroDescriptor directory;
    TavroListing listing;
    TavroFailure failure = m_places.Find(Step.To, place);
    if (failure) {
        return failure;
    }
    int error = TavroOpenDirectoryAt(place.Number(), place.Name.c_str(), directory);
    error = error != 0 ? error : TavroListDirectory(directory.Number(), listing);
    if (error != 0) {
        return TavroFail(Kind::ReadForUndo, error, Step.To);
    }
    while (const char* name = listing.Next()) {
        if (Created.count(TavroJoin(Step.To, name)) == 0) {
            return {Kind::NotEmpty, {}, Step.To};
        }
    }
    return {};
}

// =================================================================================================
// Directories
// =================================================================================================

/// Remembers what was made, to give it its mode, or to take it back.
void Reversal::Remember(const std::vector<std::string>& Made) {
    for (const std::string& path : Made) {
        TavroPlace place;
        struct stat status = {};
        if (Look(path, place, status) == 0) {
            m_made[path] = TavroIdentityOf(status);
        }
    }
}

/// Creates a directory that is missing, and those above it, at the place that was checked.
TavroFailure Reversal::MakeDirectory(const std::string& Path, mode_t Mode) {
    m_places = {}; // what was found before may have gone elsewhere
    TavroPlace inside;
    std::vector<std::string> made;
    TavroFailure failure = m_places.FindOrCreate(TavroJoin(Path, "x"), Mode, made, inside);
    Remember(made);
    const bool bElsewhere = !failure && inside.Directory->OwnPath != m_ownPaths[Path];
    return bElsewhere ? TavroFail(Kind::LookAt, ESTALE, Path) : failure;
}

/// Directories that are to be made: each must be there, or be one that can be created.
TavroFailure Reversal::CheckDirectories() {
    TavroFailure failure;
    for (const TavroStep& step : m_steps) {
        if (!failure && IsToMake(step)) {
            failure = CheckHolder(DirectoryOf(step));
        }
    }
    return failure;
}

TavroFailure Reversal::MakeDirectories() {
    // Inner ones were removed first.
    std::vector<TavroStep*> steps =
        StepsOf(m_bUndo ? Role::RemovedDirectory : Role::CreatedDirectory);
    if (m_bUndo) {
        std::reverse(steps.begin(), steps.end());
    }
    TavroFailure failure;
    for (const TavroStep* step : steps) {
        failure =
            failure ? failure : MakeDirectory(DirectoryOf(*step), HasMode(*step) ? 0700 : 0777);
    }
    return failure;
}

/// Gives the made directories the modes that they had: only now, for these may forbid to put
/// anything into them. What was there already is not of the operation any more.
void Reversal::SetModes() {
    for (TavroStep& step : m_steps) {
        if (!IsToMake(step)) {
            continue;
        }
        const auto made = m_made.find(DirectoryOf(step));
        step.Identity = made == m_made.end() ? TavroIdentity() : made->second;
        TavroPlace place;
        TavroDescriptor directory;
        struct stat status = {};
        if (step.Identity.Inode != 0 && HasMode(step) && !m_places.Find(made->first, place) &&
            TavroOpenDirectoryAt(place.Number(), place.Name.c_str(), directory) == 0 &&
            TavroStat(directory.Number(), status) == 0 &&
            TavroIdentityOf(status) == step.Identity) {
            TavroSetMode(directory.Number(), step.Mode);
        }
    }
}

/// Removes a directory if it is this one, and empty. @return 0, or the error number.
int Reversal::RemoveDirectory(const std::string& Path, const TavroIdentity& Identity,
                              mode_t& OutMode) {
    TavroPlace place;
    struct stat status = {};
    int error = Look(Path, place, status);
    error = error == 0 && TavroIdentityOf(status) != Identity ? ESTALE : error;
    OutMode = status.st_mode & 07777U;
    return error != 0 ? error : TavroRemoveDirectoryAt(place.Number(), place.Name.c_str());
}

/// Takes back what was made before a failure.
void Reversal::RemoveMade() {
    for (auto made = m_made.rbegin(); made != m_made.rend(); ++made) {
        mode_t mode = 0;
        RemoveDirectory(made->first, made->second, mode);
    }
}

/// Removes what is empty of the directories that the operation or its undo made, inner ones first.
/// @return the failure of the first that stays.
TavroFailure Reversal::RemoveDirectories() {
    TavroFailure failure;
    const auto remove = [&](TavroStep& step) {
        mode_t mode = 0;
        const std::string& path = DirectoryOf(step);
        if (!IsToRemove(step) || step.Identity.Inode == 0) {
            return;
        }
        const int error = RemoveDirectory(path, step.Identity, mode);
        if (error == 0) {
            step.Mode = mode;
        } else if (!failure) {
            failure = TavroFail(Kind::RemoveForUndo, error, path);
        }
    };
    m_places = {};
    if (m_bUndo) {
        std::for_each(m_steps.rbegin(), m_steps.rend(), remove);
    } else {
        std::for_each(m_steps.begin(), m_steps.end(), remove);
    }
    return failure;
}

/// All directories of an operation that created nothing else, or none.
TavroFailure Reversal::RemoveCreated() {
    std::set<std::string> created;
    for (const TavroStep& step : m_steps) {
        created.insert(step.To);
    }
    for (TavroStep& step : m_steps) {
        TavroSeenEntry seen;
        TavroFailure failure = CheckFile(step, step.To, seen);
        failure = failure ? failure : CheckEmpty(step, created);
        if (failure) {
            return failure;
        }
        step.Identity = seen.State.Identity;
    }
    TavroFailure failure = RemoveDirectories();
    if (failure) {
        Reversal again(false, m_callbacks, m_report);
        again.CheckDirectories();
        again.MakeDirectories();
        again.SetModes();
    }
    return failure;
}

/// All directories of an operation that created nothing else, or none.
TavroFailure Reversal::CreateAgain() {
    for (const TavroStep& step : m_steps) {
        TavroFailure failure = CheckFree(step.To);
        if (failure) {
            return failure;
        }
    }
    TavroFailure failure = CheckDirectories();
    return failure ? failure : MakeDirectories();
}

// =================================================================================================
// Renamed and moved entries
// =================================================================================================

TavroFailure Reversal::MoveAll() {
    std::vector<TavroStep*> steps = StepsOf(Role::Moved);
    if (m_bUndo) {
        std::reverse(steps.begin(), steps.end());
    }
    TavroFailure failure;
    std::vector<TavroBatchStep> moves;
    for (const TavroStep* step : steps) {
        TavroSeenEntry seen;
        moves.push_back(m_bUndo ? TavroBatchStep{step->To, step->From}
                                : TavroBatchStep{step->From, step->To});
        failure = failure ? failure : CheckFile(*step, moves.back().From, seen);
        const std::string holder = TavroParentOf(moves.back().To);
        failure = failure ? failure : CheckHolder(holder);
        moves.back().Holder = m_ownPaths[holder];
        moves.back().Expected = seen.State.Identity;
        moves.back().Seen = seen;
    }
    failure = failure ? failure : CheckDirectories();
    failure = failure || m_bUndo ? failure : MakeDirectories();
    failure = failure ? failure : RunMoves(moves);
    if (!failure) {
        for (std::size_t i = 0; i < steps.size(); ++i) {
            steps[i]->Identity = moves[i].Arrived.Identity;
        }
    }
    return failure;
}

/// Moves, and makes the directories again that a merging move has removed.
TavroFailure Reversal::RunMoves(std::vector<TavroBatchStep>& Moves) {
    m_report.Moves = TavroRunBatch(Moves, {}, m_callbacks);
    Remember(m_report.Moves.CreatedDirectories);
    TavroFailure failure = m_report.Moves.Failure;
    if (failure || !m_bUndo || !(failure = MakeDirectories())) {
        return failure;
    }
    std::vector<TavroBatchStep> back;
    for (auto move = Moves.rbegin(); move != Moves.rend(); ++move) {
        back.push_back({move->To, move->From, move->Arrived.Identity});
    }
    const TavroFailure left = TavroRunBatch(back, {}, {}).Failure;
    if (left) {
        m_report.Moves.RollBack.push_back(left);
    }
    return failure;
}

// =================================================================================================
// Trashed entries and copies
// =================================================================================================

TavroFailure Reversal::Trash(const std::vector<TavroStep*>& Steps) {
    std::vector<TavroOperationEntry> entries;
    std::vector<TavroIdentity> expected;
    for (const TavroStep* step : Steps) {
        const std::string& path = m_bUndo ? step->To : step->From;
        TavroSeenEntry seen;
        TavroFailure failure = CheckFile(*step, path, seen);
        if (failure) {
            return failure;
        }
        entries.push_back({TavroNameOf(path), path, false});
        expected.push_back(seen.State.Identity);
    }
    m_report.Trash = TavroTrashSelection(entries, m_callbacks, expected);
    return m_report.Trash.Batch.Failure;
}

TavroFailure Reversal::TrashAgain() {
    TavroFailure failure = Trash(StepsOf(Role::Trashed));
    if (!failure) {
        TavroOperation again = TavroOperationOf(m_report.Trash);
        TavroCompleteOperation(again);
        m_steps = std::move(again.Steps);
    }
    return failure;
}

/// Orders paths so that what is in a directory follows it at once.
struct ByComponents {
    bool operator()(const std::string& A, const std::string& B) const {
        const auto rank = [](char byte) {
            return byte == '/' ? 0 : static_cast<unsigned char>(byte);
        };
        return std::lexicographical_compare(A.begin(), A.end(), B.begin(), B.end(),
                                            [&](char a, char b) { return rank(a) < rank(b); });
    }
};

/// What was copied into a copied directory goes to the trash with that one. Of what was copied to
/// one place again and again, the last is there.
TavroFailure Reversal::TrashCopies() {
    std::map<std::string, TavroStep*, ByComponents> copies;
    for (TavroStep* step : StepsOf(Role::Copied)) {
        copies[step->To] = step;
    }
    std::vector<TavroStep*> outermost;
    for (const auto& [path, step] : copies) {
        if (outermost.empty() || !TavroIsBelow(outermost.back()->To, path)) {
            outermost.push_back(step);
        }
    }
    TavroFailure failure = Trash(outermost);
    TavroOperation trashed = TavroOperationOf(m_report.Trash);
    TavroCompleteOperation(trashed);
    m_steps.insert(m_steps.end(), trashed.Steps.begin(), trashed.Steps.end());
    return failure;
}

/// Restores what lies in the trash for the operation.
TavroFailure Reversal::Restore() {
    const std::vector<TavroStep*> steps = StepsOf(Role::Trashed);
    std::vector<TavroTrashedEntry> entries;
    for (const TavroStep* step : steps) {
        TavroSeenEntry seen;
        TavroFailure failure = CheckFile(*step, step->To, seen);
        failure = failure ? failure : CheckRecord(*step, seen.State);
        if (failure) {
            failure.Kind = failure.Kind == Kind::Missing ? Kind::ItemMissing : failure.Kind;
            return failure;
        }
        entries.push_back(
            {{step->From, step->To, step->Record, step->bDirectory}, seen.State.Identity, seen});
    }
    m_report.Trash = TavroRestoreSelection(entries, m_callbacks);
    for (std::size_t i = 0; i < m_report.Trash.Entries.size(); ++i) {
        steps[i]->Identity = m_report.Trash.Entries[i].Item;
    }
    return m_report.Trash.Batch.Failure;
}

TavroFailure Reversal::RestoreCopies() {
    TavroFailure failure = CheckDirectories();
    failure = failure ? failure : MakeDirectories();
    failure = failure ? failure : Restore();
    if (failure) {
        return failure;
    }
    const auto isTrashed = [](const TavroStep& step) { return step.Role == Role::Trashed; };
    m_steps.erase(std::remove_if(m_steps.begin(), m_steps.end(), isTrashed), m_steps.end());
    for (TavroStep* step : StepsOf(Role::Copied)) {
        step->Identity = {}; // it may have gone to another file system and back
    }
    TavroCompleteOperation(m_report.Operation);
    return {};
}

// =================================================================================================
// The whole
// =================================================================================================

TavroFailure Reversal::Act() {
    switch (m_report.Operation.Kind) {
    case TavroOperationKind::Trash:
        return m_bUndo ? Restore() : TrashAgain();
    case TavroOperationKind::Rename:
    case TavroOperationKind::Move:
        return MoveAll();
    case TavroOperationKind::Copy:
        return m_bUndo ? TrashCopies() : RestoreCopies();
    case TavroOperationKind::CreateDirectory:
        break;
    }
    return m_bUndo ? RemoveCreated() : CreateAgain();
}

TavroFailure Reversal::Run() {
    TavroFailure failure = Act();
    if (failure) {
        RemoveMade();
    } else {
        SetModes();
        RemoveDirectories(); // one that holds something stays
    }
    return failure;
}

TavroUndoReport Go(bool bUndo, TavroHistory& History, const TavroCallbacks& Callbacks) {
    TavroUndoReport report;
    std::optional<TavroOperation> next;
    TavroFailure& failure = report.Failure;
    failure = History.Begin();
    failure = failure ? failure : bUndo ? History.NextToUndo(next) : History.NextToRedo(next);
    if (!failure && !next) {
        failure = {bUndo ? Kind::NothingToUndo : Kind::NothingToRedo};
    }
    if (!failure) {
        report.Operation = std::move(*next);
        report.Operation.State = bUndo ? TavroOperationState::Undone : TavroOperationState::Done;
        failure = History.Update(report.Operation); // what makes saving impossible shows now
        const std::vector<TavroStep> steps = report.Operation.Steps;
        failure = failure ? failure : Reversal(bUndo, Callbacks, report).Run();
        if (!failure) {
            failure = steps == report.Operation.Steps ? failure : History.Update(report.Operation);
            failure = failure ? failure : History.Commit();
            report.bDoneButNotSaved = static_cast<bool>(failure);
        }
    }
    if (failure) {
        History.Rollback();
    }
    return report;
}

} // namespace

TavroUndoReport TavroUndo(TavroHistory& History, const TavroCallbacks& Callbacks) {
    return Go(true, History, Callbacks);
}

TavroUndoReport TavroRedo(TavroHistory& History, const TavroCallbacks& Callbacks) {
    return Go(false, History, Callbacks);
}

void TavroCompleteOperation(TavroOperation& Operation) {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    TavroPlaces places;
    for (TavroStep& step : Operation.Steps) {
        TavroPlace place;
        struct stat status = {};
        step.ChangeTime = step.ChangeTime != 0 ? step.ChangeTime : TavroNanoseconds(now);
        if (step.Identity.Inode == 0 && step.Role != Role::RemovedDirectory &&
            !places.Find(step.To, place) &&
            TavroStatAt(place.Number(), place.Name.c_str(), status) == 0) {
            step.Identity = TavroIdentityOf(status);
            step.Mode = step.Role == Role::CreatedDirectory ? status.st_mode & 07777U : step.Mode;
        }
    }
}

std::string TavroDescribe(const TavroUndoReport& Report) {
    std::string text = TavroDescribe(Report.Failure);
    if (Report.bDoneButNotSaved) {
        const bool bUndone = Report.Operation.State == TavroOperationState::Undone;
        return (bUndone ? "It is undone, but the saved history still has it as done: "
                        : "It is redone, but the saved history still has it as undone: ") +
               text;
    }
    if (Report.Trash.Batch.Failure) {
        return TavroDescribe(Report.Trash);
    }
    text += Report.Moves.Why ? "; " + TavroDescribe(Report.Moves.Why) : "";
    for (const TavroFailure& failure : Report.Moves.RollBack) {
        text += "; moving back failed: " + TavroDescribe(failure);
    }
    return text;
}
