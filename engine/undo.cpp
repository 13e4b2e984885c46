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
using Steps = std::vector<TavroStep*>;

bool IsMissing(int Error) {
    return Error == ENOENT || Error == ENOTDIR;
}

const char* OtherOf(mode_t Mode) {
    return S_ISREG(Mode)   ? "another file"
           : S_ISDIR(Mode) ? "another directory"
           : S_ISLNK(Mode) ? "another symbolic link"
                           : "another entry";
}

/// The path of a directory that a step tells of.
const std::string& DirectoryOf(const TavroStep& Step) {
    return Step.Role == Role::CreatedDirectory ? Step.To : Step.From;
}

/// @return the failure of the first item that fails.
template <typename Items, typename Act> TavroFailure Each(const Items& All, Act Do) {
    for (const auto& item : All) {
        if (TavroFailure failure = Do(*item)) {
            return failure;
        }
    }
    return {};
}

/// One undo or redo on the disk.
class Reversal {
public:
    Reversal(bool bUndo, const TavroCallbacks& Callbacks, TavroUndoReport& Report)
        : m_bUndo(bUndo), m_callbacks(Callbacks), m_report(Report),
          m_steps(Report.Operation.Steps) {}

    TavroFailure Run();

private:
    Steps StepsOf(Role What, bool bReversed = false);
    Steps ToMake();
    Steps ToRemove();

    int Look(const std::string& Path, TavroPlace& OutPlace, struct stat& OutStatus);
    TavroFailure CheckFile(const TavroStep& Step, const std::string& Path, TavroSeenEntry& OutSeen);
    TavroFailure CheckHolder(const std::string& Path);
    TavroFailure CheckFree(const std::string& Path);
    TavroFailure CheckRecord(const TavroStep& Step, const TavroFileState& State);
    TavroFailure CheckEmpty(const TavroStep& Step, const std::set<std::string>& Created);

    TavroFailure CheckToMake();
    TavroFailure MakeDirectories();
    void Remember(const std::vector<std::string>& Made);
    void SetModes();
    int RemoveDirectory(const std::string& Path, const TavroIdentity& Identity, mode_t& OutMode);
    TavroFailure RemoveDirectories();
    TavroFailure RemoveCreated();
    TavroFailure CreateAgain();

    TavroFailure MoveAll();
    TavroFailure RunMoves(std::vector<TavroBatchStep>& Moves);
    TavroFailure Trash(const Steps& Entries, std::vector<TavroStep>& OutTrashed);
    TavroFailure TrashCopies();
    TavroFailure Restore();
    TavroFailure RestoreCopies();
    TavroFailure Act();

    const bool m_bUndo;
    const TavroCallbacks& m_callbacks;
    TavroUndoReport& m_report;
    std::vector<TavroStep>& m_steps;
    TavroPlaces m_places;
    TavroGuard m_guard{TavroAct::Move};
    std::map<std::string, TavroIdentity> m_made; ///< Directories; outer ones first.

    /// Of directories that something goes to: where they were when all was checked.
    std::unordered_map<std::string, std::string> m_ownPaths;
};

Steps Reversal::StepsOf(Role What, bool bReversed) {
    Steps steps;
    for (TavroStep& step : m_steps) {
        if (step.Role == What) {
            steps.push_back(&step);
        }
    }
    if (bReversed) {
        std::reverse(steps.begin(), steps.end());
    }
    return steps;
}

/// The steps whose directories are there only where this leads to, outer ones first.
Steps Reversal::ToMake() {
    return StepsOf(m_bUndo ? Role::RemovedDirectory : Role::CreatedDirectory, m_bUndo);
}

/// The steps whose directories are there only where this leads from, inner ones first.
Steps Reversal::ToRemove() {
    return StepsOf(m_bUndo ? Role::CreatedDirectory : Role::RemovedDirectory, m_bUndo);
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

/// The innermost of a directory and those above it that is there must be a directory.
TavroFailure Reversal::CheckHolder(const std::string& Path) {
    std::string& own = m_ownPaths[Path];
    std::string there = Path;
    TavroPlace inside;
    if (!own.empty()) {
        return {};
    }
    while (!TavroIsPresent(there) && there != "/") {
        there = TavroParentOf(there);
    }
    if (m_places.Find(TavroJoin(there, "x"), inside)) {
        return {Kind::InTheWay, {}, there};
    }
    own = inside.Directory->OwnPath + Path.substr(there.size());
    return {};
}

/// Nothing may be at a path, and its directory must be there, or be one that can be created.
TavroFailure Reversal::CheckFree(const std::string& Path) {
    TavroPlace place;
    struct stat status = {};
    const int error = Look(Path, place, status);
    if (IsMissing(error)) {
        return CheckHolder(TavroParentOf(Path));
    }
    return TavroFail(error == 0 ? Kind::InTheWay : Kind::LookAt, error, Path);
}

/// An item that changed since may be another one with the same inode. It is not when its record
/// tells of the same place, or is lost.
TavroFailure Reversal::CheckRecord(const TavroStep& Step, const TavroFileState& State) {
    TavroPlace record;
    if (State.ChangeTime <= Step.ChangeTime || m_places.Find(Step.Record, record)) {
        return {};
    }
    const auto read =
        TavroReadRecord(record.Number(), TavroNameOf(Step.To), TavroHomeDirectoryPath());
    return !read || read->Path == Step.From
               ? TavroFailure()
               : TavroFailure{Kind::Replaced, {}, Step.To, "what was at '" + read->Path + "'"};
}

/// Nothing may be in a created directory but other created ones.
TavroFailure Reversal::CheckEmpty(const TavroStep& Step, const std::set<std::string>& Created) {
    TavroPlace place;
    TavroDescriptor directory;
    TavroListing listing;
    int error = m_places.Find(Step.To, place).Error.value();
    error =
        error != 0 ? error : TavroOpenDirectoryAt(place.Number(), place.Name.c_str(), directory);
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

TavroFailure Reversal::CheckToMake() {
    return Each(ToMake(), [&](const TavroStep& step) { return CheckHolder(DirectoryOf(step)); });
}

/// Creates directories that are missing, and those above them, where they were checked. Those whose
/// modes are known get them at the end: they may forbid to put anything into them.
TavroFailure Reversal::MakeDirectories() {
    return Each(ToMake(), [&](const TavroStep& step) {
        const std::string& path = DirectoryOf(step);
        const bool bKnown = step.Mode != 0 || m_bUndo;
        TavroPlace inside;
        std::vector<std::string> made;
        m_places = {}; // what was found before may have gone elsewhere
        TavroFailure failure =
            m_places.FindOrCreate(TavroJoin(path, "x"), bKnown ? 0700 : 0777, made, inside);
        Remember(made);
        const bool bElsewhere = !failure && inside.Directory->OwnPath != m_ownPaths[path];
        return bElsewhere ? TavroFail(Kind::LookAt, ESTALE, path) : failure;
    });
}

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

/// What was there already is not of the operation any more: it keeps its mode, and will stay.
void Reversal::SetModes() {
    for (TavroStep* step : ToMake()) {
        TavroPlace place;
        TavroDescriptor directory;
        struct stat status = {};
        step->Identity = m_made[DirectoryOf(*step)];
        if ((step->Mode != 0 || m_bUndo) && !m_places.Find(DirectoryOf(*step), place) &&
            TavroOpenDirectoryAt(place.Number(), place.Name.c_str(), directory) == 0 &&
            TavroStat(directory.Number(), status) == 0 &&
            TavroIdentityOf(status) == step->Identity) {
            TavroSetMode(directory.Number(), step->Mode);
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
    error = error != 0 ? error : TavroRemoveDirectoryAt(place.Number(), place.Name.c_str());
    OutMode = error == 0 ? status.st_mode & 07777U : OutMode;
    return error;
}

/// Removes what is empty of the directories that the operation or its undo made.
/// @return the failure of the first that stays.
TavroFailure Reversal::RemoveDirectories() {
    TavroFailure failure;
    m_places = {};
    for (TavroStep* step : ToRemove()) {
        const std::string& path = DirectoryOf(*step);
        const int error = RemoveDirectory(path, step->Identity, step->Mode);
        if (error != 0 && !failure) {
            failure = TavroFail(Kind::RemoveForUndo, error, path);
        }
    }
    return failure;
}

/// Removes all directories of an operation that created nothing else, or none.
TavroFailure Reversal::RemoveCreated() {
    std::set<std::string> created;
    for (const TavroStep& step : m_steps) {
        created.insert(step.To);
    }
    TavroFailure failure = Each(ToRemove(), [&](TavroStep& step) {
        TavroSeenEntry seen;
        TavroFailure wrong = CheckFile(step, step.To, seen);
        step.Identity = seen.State.Identity;
        return wrong ? wrong : CheckEmpty(step, created);
    });
    if (failure || !(failure = RemoveDirectories())) {
        return failure;
    }
    Reversal again(false, m_callbacks, m_report);
    again.CheckToMake();
    again.MakeDirectories();
    again.SetModes();
    return failure;
}

TavroFailure Reversal::CreateAgain() {
    TavroFailure failure =
        Each(ToMake(), [&](const TavroStep& step) { return CheckFree(step.To); });
    failure = failure ? failure : CheckToMake();
    return failure ? failure : MakeDirectories();
}

// =================================================================================================
// Renamed and moved entries
// =================================================================================================

TavroFailure Reversal::MoveAll() {
    const Steps steps = StepsOf(Role::Moved, m_bUndo);
    std::vector<TavroBatchStep> moves;
    TavroFailure failure = Each(steps, [&](const TavroStep& step) {
        TavroSeenEntry seen;
        const std::string& from = m_bUndo ? step.To : step.From;
        const std::string& to = m_bUndo ? step.From : step.To;
        TavroFailure wrong = CheckFile(step, from, seen);
        wrong = wrong ? wrong : CheckHolder(TavroParentOf(to));
        moves.push_back({from, to, seen.State.Identity, seen, m_ownPaths[TavroParentOf(to)]});
        return wrong;
    });
    failure = failure ? failure : CheckToMake();
    failure = failure || m_bUndo ? failure : MakeDirectories();
    failure = failure ? failure : RunMoves(moves);
    for (std::size_t i = 0; i < steps.size() && !failure; ++i) {
        steps[i]->Identity = moves[i].Arrived.Identity;
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
    const TavroBatchReport returned = TavroRunBatch(back, {}, {});
    if (returned.Failure) {
        m_report.Moves.RollBack.push_back(returned.Failure);
    }
    return failure;
}

// =================================================================================================
// Trashed entries and copies
// =================================================================================================

/// @param OutTrashed  gets a step for each that lies in the trash now.
TavroFailure Reversal::Trash(const Steps& Entries, std::vector<TavroStep>& OutTrashed) {
    std::vector<TavroOperationEntry> entries;
    std::vector<TavroIdentity> expected;
    TavroFailure failure = Each(Entries, [&](const TavroStep& step) {
        const std::string& path = m_bUndo ? step.To : step.From;
        TavroSeenEntry seen;
        TavroFailure wrong = CheckFile(step, path, seen);
        entries.push_back({TavroNameOf(path), path, false});
        expected.push_back(seen.State.Identity);
        return wrong;
    });
    if (failure) {
        return failure;
    }
    m_report.Trash = TavroTrashSelection(entries, m_callbacks, expected);
    TavroOperation trashed = TavroOperationOf(m_report.Trash);
    TavroCompleteOperation(trashed);
    OutTrashed = std::move(trashed.Steps);
    return m_report.Trash.Batch.Failure;
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
    Steps outermost;
    for (const auto& [path, step] : copies) {
        if (outermost.empty() || !TavroIsBelow(outermost.back()->To, path)) {
            outermost.push_back(step);
        }
    }
    std::vector<TavroStep> trashed;
    TavroFailure failure = Trash(outermost, trashed);
    m_steps.insert(m_steps.end(), trashed.begin(), trashed.end());
    return failure;
}

/// Restores what lies in the trash for the operation.
TavroFailure Reversal::Restore() {
    const Steps steps = StepsOf(Role::Trashed);
    std::vector<TavroTrashedEntry> entries;
    TavroFailure failure = Each(steps, [&](const TavroStep& step) {
        TavroSeenEntry seen;
        TavroFailure wrong = CheckFile(step, step.To, seen);
        wrong = wrong ? wrong : CheckRecord(step, seen.State);
        wrong.Kind = wrong.Kind == Kind::Missing ? Kind::ItemMissing : wrong.Kind;
        entries.push_back(
            {{step.From, step.To, step.Record, step.bDirectory}, seen.State.Identity, seen});
        return wrong;
    });
    if (failure) {
        return failure;
    }
    m_report.Trash = TavroRestoreSelection(entries, m_callbacks);
    for (std::size_t i = 0; i < m_report.Trash.Entries.size(); ++i) {
        steps[i]->Identity = m_report.Trash.Entries[i].Item;
    }
    return m_report.Trash.Batch.Failure;
}

TavroFailure Reversal::RestoreCopies() {
    TavroFailure failure = CheckToMake();
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
        return m_bUndo ? Restore() : Trash(StepsOf(Role::Trashed), m_steps);
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
    m_places = {};
    if (!failure) {
        SetModes();
        RemoveDirectories(); // one that holds something stays
        return {};
    }
    for (auto made = m_made.rbegin(); made != m_made.rend(); ++made) {
        mode_t ignored = 0;
        RemoveDirectory(made->first, made->second, ignored);
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
        const std::vector<TavroStep> steps = report.Operation.Steps;
        failure = History.Update(report.Operation); // what makes saving impossible shows now
        failure = failure ? failure : Reversal(bUndo, Callbacks, report).Run();
        if (!failure) {
            const bool bSame = steps == report.Operation.Steps;
            failure = bSame ? failure : History.Update(report.Operation);
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
