#include "undo.h"

#include "changes.h"
#include "copy_file.h"
#include "edit.h"
#include "guard.h"
#include "journal.h"
#include "names.h"
#include "record.h"
#include "recovery.h"
#include "remove.h"
#include "trash_contents.h"
#include "trash_record.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

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

/// A file that comes to a path from which another one goes. It waits beside that one, and both
/// exchange their names.
struct Swap {
    TavroStep* Step;                       ///< Of what comes; not to be used when steps were added.
    std::unique_ptr<TavroStagedCopy> Copy; ///< Knows the places, also where nothing is copied.
    std::string Hidden;
    TavroIdentity Comes;
    std::string Record; ///< In the trash, of what comes from there.
    bool bRename = false;
    bool bDone = false;

    /// Of what goes, when a rename brings it to the trash: as it will lie there.
    TavroStep Goes = {};
    bool bGoesToTrash = false;
    bool bTrashed = false;
};

/// One undo or redo on the disk.
class Reversal {
public:
    using Directories = std::map<std::string, TavroIdentity>; ///< Outer ones first.

    /// @param Made  directories that it has made before it was interrupted.
    Reversal(bool bUndo, const TavroCallbacks& Callbacks, TavroUndoReport& Report,
             Directories Made = {})
        : m_bUndo(bUndo), m_callbacks(Callbacks), m_report(Report), m_steps(Report.Operation.Steps),
          m_made(std::move(Made)), m_changes(Callbacks.bSync), m_progress(Callbacks) {}

    TavroFailure Run();

    /// Whether the steps of an undo find what they need.
    TavroFailure Check();

private:
    Steps StepsOf(Role What, bool bReversed = false);
    Steps ToMake();
    Steps ToRemove();

    int Look(const std::string& Path, TavroPlace& OutPlace, struct stat& OutStatus);
    static bool IsNamesake(const TavroStep& Step, const TavroPlace& Place,
                           const struct stat& Status);
    TavroFailure CheckFile(const TavroStep& Step, const std::string& Path, TavroSeenEntry& OutSeen);
    TavroFailure CheckHolder(const std::string& Path);
    TavroFailure CheckFree(const std::string& Path);
    TavroFailure CheckRecord(const TavroStep& Step, const TavroFileState& State);
    TavroFailure CheckItem(const TavroStep& Step, TavroSeenEntry& OutSeen);
    TavroFailure CheckEmpty(const TavroStep& Step, const std::set<std::string>& Created);
    TavroFailure CheckCreated();

    TavroFailure CheckToMake();
    TavroFailure MakeDirectories();
    void Remember(const std::vector<std::string>& Made);
    void SetModes();
    static void Dress(int Directory, const TavroStep& Step);
    int RemoveDirectory(const std::string& Path, const TavroIdentity& Identity, mode_t& OutMode);
    TavroFailure RemoveDirectories();
    TavroFailure RemoveCreated();
    TavroFailure CreateAgain();

    Steps OutermostCopies();
    Steps WhatComes(Steps& OutGoes);
    TavroFailure CheckSwap(const TavroStep& Comes, const TavroStep& Goes, TavroSeenEntry& OutComes,
                           TavroSeenEntry& OutGoes);
    TavroFailure Stage(TavroStep& Comes, const TavroStep& Goes);
    TavroFailure TellThatItBegins();
    bool GoesToTrash(const TavroPlace& Place);
    TavroFailure Claim();
    TavroFailure TellOfExchange();
    int RenameIn(const Swap& What);
    int TrashOut(Swap& IoSwap);
    int TakeOut(const Swap& What);
    void DropClaim(Swap& IoSwap);
    TavroFailure Exchange(Swap& IoSwap);
    TavroFailure ExchangeAll();
    void TakeExchangesBack();
    TavroFailure FinishExchanges();

    /// Where the file is that is to leave a path.
    const std::string& Leaving(const std::string& Path) const {
        const auto hidden = m_hidden.find(Path);
        return hidden == m_hidden.end() ? Path : hidden->second;
    }

    void DropExchanged(Steps& IoSteps) const;
    TavroFailure MoveAll();
    TavroFailure RunMoves(const Steps& Of, std::vector<TavroBatchStep>& Moves);
    TavroFailure Trash(const Steps& Entries, std::vector<TavroStep>& OutTrashed,
                       Role As = Role::Trashed);
    TavroFailure TrashAgain();
    void DropTrashed();
    TavroFailure TrashCopies();
    TavroFailure Restore(Role What);
    TavroFailure RestoreCopies();
    TavroFailure TrashReplaced();
    TavroFailure ActOnMain();
    TavroFailure Act();

    const bool m_bUndo;
    const TavroCallbacks& m_callbacks;
    TavroUndoReport& m_report;
    std::vector<TavroStep>& m_steps;
    TavroPlaces m_places;
    TavroGuard m_guard{TavroAct::Move};
    Directories m_made;
    TavroChanges m_changes;
    TavroProgressTeller m_progress;
    TavroHardLinks m_links;
    bool m_bTold = false; ///< What the history was told is on the disk.
    std::vector<Swap> m_swaps;
    std::unordered_map<std::string, std::string> m_hidden; ///< What has left a path, and is to go.
    TavroOpenTrash m_trash; ///< Once something goes to it for what comes.
    TavroTrashClaims m_claims{m_trash};
    std::unordered_map<std::string, TavroStep> m_trashed; ///< By paths, what went there so.

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

/// Whether a file that has the number of the one that the operation left is another one all the
/// same: it was created when the operation had ended, or is of another volume at the same place,
/// where nobody has touched it since. After a restart a device can have another number.
bool Reversal::IsNamesake(const TavroStep& Step, const TavroPlace& Place,
                          const struct stat& Status) {
    struct stat status = {};
    std::int64_t birth = 0;
    const std::int64_t changed = TavroNanoseconds(Status.st_ctim);
    if (Step.ChangeTime == 0 || Step.ChangeTime == INT64_MAX || Step.Identity.Inode == 0) {
        return false; // nothing is known of it
    }
    // Of what was moved its own time is known, of all else the end of the operation.
    constexpr std::int64_t hour = 3'600'000'000'000;
    const std::int64_t earliest = Step.ChangeTime - (Step.Role == Role::Moved ? 0 : hour);
    if (Step.Identity.Device != Status.st_dev && changed < earliest) {
        return true;
    }
    return !TavroIsTrashed(Step) && changed > Step.ChangeTime &&
           TavroStatWithBirthAt(Place.Number(), Place.Name.c_str(), status, birth) == 0 &&
           birth > Step.ChangeTime;
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
    const bool bOther = Step.Identity.Inode != 0 && Step.Identity.Inode != status.st_ino;
    if (bOther || IsNamesake(Step, place, status)) {
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
    const auto read = TavroReadRecord(record.Number(), TavroNameOf(Step.To),
                                      TavroTrashFoldersOf(Step.Record).Base);
    return !read || read->Path == Step.From
               ? TavroFailure()
               : TavroFailure{Kind::Replaced, {}, Step.To, "what was at '" + read->Path + "'"};
}

/// What lies in the trash for the operation must be the very file.
TavroFailure Reversal::CheckItem(const TavroStep& Step, TavroSeenEntry& OutSeen) {
    TavroFailure failure = CheckFile(Step, Step.To, OutSeen);
    failure = failure ? failure : CheckRecord(Step, OutSeen.State);
    failure.Kind = failure.Kind == Kind::Missing ? Kind::ItemMissing : failure.Kind;
    return failure;
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
            m_changes.Add(place.Directory);
        }
    }
}

/// What was there already is not of the operation any more: it keeps its mode, and will stay.
void Reversal::SetModes() {
    for (TavroStep* step : ToMake()) {
        TavroPlace inside;
        step->Identity = m_made[DirectoryOf(*step)];
        step->ChangeTime = 0; // not known
        if ((step->Mode != 0 || m_bUndo) &&
            !m_places.Find(TavroJoin(DirectoryOf(*step), "x"), inside) &&
            inside.Directory->Identity == step->Identity) {
            Dress(inside.Number(), *step);
            m_changes.Add(inside.Directory);
        }
    }
}

/// Gives a directory that was made again what it had.
void Reversal::Dress(int Directory, const TavroStep& Step) {
    struct stat status = {};
    std::vector<TavroAttribute> attributes;
    if (!TavroUnpackAttributes(Step.Attributes, status, attributes)) {
        TavroSetMode(Directory, Step.Mode);
        return;
    }
    TavroNewEntryTraits traits = TavroTraitsOfNewEntriesIn(Directory); // its lists come from above
    TavroAttributesLost lost;
    status.st_mode = S_IFDIR | Step.Mode;
    TavroGiveAttributes(Directory, status, attributes, traits, lost);
}

/// Removes a directory if it is this one, and empty. @return 0, or the error number.
int Reversal::RemoveDirectory(const std::string& Path, const TavroIdentity& Identity,
                              mode_t& OutMode) {
    TavroPlace place;
    struct stat status = {};
    int error = Look(Path, place, status);
    error = error == 0 && status.st_ino != Identity.Inode ? ESTALE : error;
    error = error != 0 ? error : TavroRemoveDirectoryAt(place.Number(), place.Name.c_str());
    if (error == 0) {
        OutMode = status.st_mode & 07777U;
        m_changes.Add(place.Directory);
    }
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

/// Of an operation that created nothing but directories, the very one must be there, and empty.
TavroFailure Reversal::CheckCreated() {
    std::set<std::string> created;
    for (const TavroStep& step : m_steps) {
        created.insert(step.To);
    }
    return Each(ToRemove(), [&](TavroStep& step) {
        TavroSeenEntry seen;
        TavroFailure wrong = CheckFile(step, step.To, seen);
        step.Identity = seen.State.Identity;
        return wrong ? wrong : CheckEmpty(step, created);
    });
}

/// Removes all directories of an operation that created nothing else, or none.
TavroFailure Reversal::RemoveCreated() {
    TavroFailure failure = CheckCreated();
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
    TavroFailure failure = Each(ToMake(), [&](const TavroStep& step) {
        return m_made.count(step.To) != 0 ? TavroFailure() : CheckFree(step.To);
    });
    failure = failure ? failure : CheckToMake();
    return failure ? failure : MakeDirectories();
}

// =================================================================================================
// Renamed and moved entries
// =================================================================================================

TavroFailure Reversal::MoveAll() {
    Steps steps = StepsOf(Role::Moved, m_bUndo);
    if (!m_bUndo) {
        DropExchanged(steps);
    }
    std::vector<TavroBatchStep> moves;
    TavroFailure failure = Each(steps, [&](const TavroStep& step) {
        TavroSeenEntry seen;
        const std::string& from = m_bUndo ? Leaving(step.To) : step.From;
        const std::string& to = m_bUndo ? step.From : step.To;
        TavroFailure wrong = CheckFile(step, from, seen);
        wrong = wrong ? wrong : CheckHolder(TavroParentOf(to));
        moves.push_back({from, to, seen.State.Identity, seen, m_ownPaths[TavroParentOf(to)]});
        return wrong;
    });
    failure = failure ? failure : CheckToMake();
    failure = failure || m_bUndo ? failure : MakeDirectories();
    failure = failure ? failure : RunMoves(steps, moves);
    for (std::size_t i = 0; i < steps.size() && !failure; ++i) {
        steps[i]->Identity = moves[i].Arrived.Identity;
        steps[i]->ChangeTime = std::max(steps[i]->ChangeTime, moves[i].Arrived.ChangeTime);
    }
    return failure;
}

/// Moves, and makes the directories again that a merging move has removed.
TavroFailure Reversal::RunMoves(const Steps& Of, std::vector<TavroBatchStep>& Moves) {
    TavroBatchHooks hooks;
    hooks.BeforePublish = [&](std::size_t i, const TavroFileState& made, const std::string& name) {
        TavroStep step = *Of[i];
        step.Source = m_bUndo ? made.Identity : Moves[i].Seen->State.Identity;
        step.Identity = m_bUndo ? Moves[i].Seen->State.Identity : made.Identity;
        step.Staged = name;
        return m_callbacks.BeforeActs ? m_callbacks.BeforeActs(TavroOperationKind::Move, {step})
                                      : TavroFailure();
    };
    m_report.Moves = TavroRunBatch(Moves, hooks, m_callbacks);
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
    for (std::size_t i = 0; i < back.size() && !returned.Failure; ++i) {
        const TavroBatchStep& move = Moves[back.size() - 1 - i];
        m_report.Moves.Renewed.emplace_back(move.Seen->State.Identity, back[i].Arrived.Identity);
    }
    return failure;
}

// =================================================================================================
// Trashed entries and copies
// =================================================================================================

/// @param OutTrashed  gets a step for each that lies in the trash now.
TavroFailure Reversal::Trash(const Steps& Entries, std::vector<TavroStep>& OutTrashed, Role As) {
    TavroOperation trashed;
    std::vector<TavroOperationEntry> entries;
    std::vector<TavroIdentity> expected;
    std::vector<std::string> origins;
    TavroFailure failure = Each(Entries, [&](const TavroStep& step) {
        const std::string& origin = m_bUndo ? step.To : step.From;
        const auto there = m_trashed.find(origin);
        if (there != m_trashed.end()) {
            trashed.Steps.push_back(there->second);
            return TavroFailure();
        }
        origins.push_back(origin);
        const std::string& path = Leaving(origin);
        TavroSeenEntry seen;
        TavroFailure wrong = CheckFile(step, path, seen);
        entries.push_back({TavroNameOf(path), path, false});
        expected.push_back(seen.State.Identity);
        return wrong;
    });
    TavroCallbacks callbacks = m_callbacks;
    callbacks.BeforeActs = [&](TavroOperationKind kind, std::vector<TavroStep> told) {
        for (TavroStep& step : told) {
            step.Role = As;
        }
        return m_callbacks.BeforeActs ? m_callbacks.BeforeActs(kind, told) : TavroFailure();
    };
    if (!failure && !entries.empty()) {
        m_report.Trash = TavroTrashSelection(entries, callbacks, expected, origins);
        failure = m_report.Trash.Batch.Failure;
        const TavroOperation more = TavroOperationOf(m_report.Trash);
        trashed.Steps.insert(trashed.Steps.end(), more.Steps.begin(), more.Steps.end());
    }
    TavroCompleteOperation(trashed);
    OutTrashed = std::move(trashed.Steps);
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
Steps Reversal::OutermostCopies() {
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
    return outermost;
}

TavroFailure Reversal::TrashCopies() {
    std::vector<TavroStep> trashed;
    TavroFailure failure = Trash(OutermostCopies(), trashed);
    m_steps.insert(m_steps.end(), trashed.begin(), trashed.end());
    return failure;
}

/// Trashes what was restored.
TavroFailure Reversal::TrashAgain() {
    std::vector<TavroStep> trashed;
    TavroFailure failure = Trash(StepsOf(Role::Trashed), trashed);
    if (!failure) {
        DropTrashed();
        m_steps.insert(m_steps.begin(), trashed.begin(), trashed.end());
    }
    return failure;
}

void Reversal::DropTrashed() {
    const auto isTrashed = [](const TavroStep& step) { return step.Role == Role::Trashed; };
    m_steps.erase(std::remove_if(m_steps.begin(), m_steps.end(), isTrashed), m_steps.end());
}

/// Restores what lies in the trash for the operation.
TavroFailure Reversal::Restore(Role What) {
    Steps steps = StepsOf(What);
    DropExchanged(steps);
    std::vector<TavroTrashedEntry> entries;
    TavroFailure failure = Each(steps, [&](const TavroStep& step) {
        TavroSeenEntry seen;
        TavroFailure wrong = CheckItem(step, seen);
        entries.push_back(
            {{step.From, step.To, step.Record, step.bDirectory}, seen.State.Identity, seen});
        return wrong;
    });
    if (failure || entries.empty()) {
        return failure;
    }
    TavroCallbacks callbacks = m_callbacks;
    bool bKept = true; // the steps themselves are
    callbacks.BeforeActs = [&](TavroOperationKind kind, const std::vector<TavroStep>& told) {
        if (std::exchange(bKept, false) || !m_callbacks.BeforeActs) {
            return TavroFailure();
        }
        std::vector<TavroStep> more = told;
        for (TavroStep& step : more) {
            step.Role = What;
        }
        return m_callbacks.BeforeActs(kind, more);
    };
    m_report.Trash = TavroRestoreSelection(entries, callbacks);
    for (std::size_t i = 0; i < m_report.Trash.Entries.size(); ++i) {
        steps[i]->Identity = m_report.Trash.Entries[i].Item;
    }
    return m_report.Trash.Batch.Failure;
}

TavroFailure Reversal::RestoreCopies() {
    TavroFailure failure = CheckToMake();
    failure = failure ? failure : MakeDirectories();
    failure = failure ? failure : Restore(Role::Trashed);
    if (failure) {
        return failure;
    }
    DropTrashed();
    for (TavroStep* step : StepsOf(Role::Copied)) {
        step->Identity = {}; // it may have gone to another file system and back
        step->ChangeTime = 0;
    }
    TavroCompleteOperation(m_report.Operation);
    return {};
}

// =================================================================================================
// What takes the place of something else
// =================================================================================================

/// The steps of what comes to a place from which something goes, and in order the steps of that.
Steps Reversal::WhatComes(Steps& OutGoes) {
    const bool bCopy = m_report.Operation.Kind == TavroOperationKind::Copy;
    const Steps mains = !bCopy    ? StepsOf(Role::Moved)
                        : m_bUndo ? OutermostCopies()
                                  : StepsOf(Role::Trashed);
    std::unordered_map<std::string, TavroStep*> replaced;
    for (TavroStep* step : StepsOf(Role::Replaced)) {
        replaced[step->From] = step;
    }
    Steps comes;
    for (TavroStep* main : mains) {
        const auto found = replaced.find(TavroPlaceOf(*main));
        if (found != replaced.end()) {
            comes.push_back(m_bUndo ? found->second : main);
            OutGoes.push_back(m_bUndo ? main : found->second);
        }
    }
    return comes;
}

/// Takes out what an exchange has brought.
void Reversal::DropExchanged(Steps& IoSteps) const {
    const auto isExchanged = [&](const TavroStep* step) {
        return m_hidden.count(TavroPlaceOf(*step)) != 0;
    };
    IoSteps.erase(std::remove_if(IoSteps.begin(), IoSteps.end(), isExchanged), IoSteps.end());
}

/// Whether a rename can lead from one place to the other.
bool IsOneMount(const TavroPlace& A, const TavroPlace& B) {
    struct stat status = {};
    std::uint64_t a = 0;
    std::uint64_t b = 0;
    return A.Directory->Identity.Device == B.Directory->Identity.Device &&
           TavroStatWithMount(A.Number(), status, a) == 0 &&
           TavroStatWithMount(B.Number(), status, b) == 0 && a == b;
}

/// Both files must be those of their steps.
TavroFailure Reversal::CheckSwap(const TavroStep& Comes, const TavroStep& Goes,
                                 TavroSeenEntry& OutComes, TavroSeenEntry& OutGoes) {
    TavroFailure failure = CheckFile(Goes, TavroPlaceOf(Comes), OutGoes);
    if (failure) {
        return failure;
    }
    return TavroIsTrashed(Comes) ? CheckItem(Comes, OutComes)
                                 : CheckFile(Comes, TavroHomeOf(Comes), OutComes);
}

/// Of what has replaced something the history was told that it begins, but that may not be on the
/// disk: what it is told next brings it there.
TavroFailure Reversal::TellThatItBegins() {
    const bool bTold = std::exchange(m_bTold, true) || !m_callbacks.BeforeActs;
    return bTold ? TavroFailure()
                 : m_callbacks.BeforeActs(m_report.Operation.Kind, {m_steps.front()});
}

/// Whether a rename brings to the trash what something else takes the place of. What was moved
/// there is moved back.
bool Reversal::GoesToTrash(const TavroPlace& Place) {
    TavroPlace item;
    return (m_report.Operation.Kind == TavroOperationKind::Copy || !m_bUndo) &&
           (m_trash.Files.IsOpen() || (!TavroEnsurePrivateTrash() && !m_trash.Open())) &&
           !m_places.Find(TavroJoin(m_trash.Folders.Files, "x"), item) && IsOneMount(Place, item);
}

/// Checks both files, and copies what comes from another mount.
TavroFailure Reversal::Stage(TavroStep& Comes, const TavroStep& Goes) {
    TavroSeenEntry seen;
    TavroSeenEntry old;
    TavroPlace from;
    TavroPlace to;
    TavroFailure failure = CheckSwap(Comes, Goes, seen, old);
    failure = failure ? failure : m_places.Find(TavroHomeOf(Comes), from);
    failure = failure ? failure : m_places.Find(TavroPlaceOf(Comes), to);
    if (failure) {
        return failure;
    }
    struct stat status = {};
    const int error = TavroStatAt(from.Number(), from.Name.c_str(), status);
    if (error != 0 || TavroIdentityOf(status) != seen.State.Identity) {
        return TavroFail(Kind::LookAt, error != 0 ? error : ESTALE, TavroHomeOf(Comes));
    }
    Swap swap{&Comes, nullptr, TavroStagingName(), seen.State.Identity, Comes.Record};
    swap.bRename = IsOneMount(from, to);
    swap.bGoesToTrash = GoesToTrash(to);
    swap.Goes = {m_bUndo ? Role::Trashed : Role::Replaced, TavroPlaceOf(Comes)};
    swap.Goes.Identity = old.State.Identity;
    swap.Goes.bDirectory = S_ISDIR(old.State.Mode) || S_ISLNK(old.State.Mode);
    TavroMoveOptions options;
    options.bNamed = true;
    options.bSync = false; // all reach the disk together
    swap.Copy = std::make_unique<TavroStagedCopy>(from, to, options, m_links, m_progress);
    if (!swap.bRename && (failure = TellThatItBegins())) {
        return failure;
    }
    if (!swap.bRename && !swap.Copy->Stage(status)) {
        return swap.Copy->Report().Failure;
    }
    if (!swap.bRename) {
        swap.Hidden = swap.Copy->StagedName();
        swap.Comes = swap.Copy->Staged().Identity;
        m_changes.AddBytes(to.Directory);
    }
    swap.Copy->Rest();
    m_swaps.push_back(std::move(swap));
    return {};
}

/// Claims names in the trash for what goes there. The records reach the disk by themselves, or with
/// what is brought there next.
TavroFailure Reversal::Claim() {
    std::size_t claimed = 0;
    std::string item;
    TavroFailure failure;
    for (Swap& swap : m_swaps) {
        if (!swap.bGoesToTrash || failure) {
            continue;
        }
        failure = m_claims.Claim(TavroNameOf(swap.Goes.From), swap.Goes.From, item);
        if (!failure) {
            swap.Goes.To = TavroJoin(m_trash.Folders.Files, item);
            swap.Goes.Record = TavroJoin(m_trash.Folders.Info, TavroRecordName(item));
            ++claimed;
        }
    }
    struct stat info = {};
    const bool bLater =
        claimed == 0 || failure || !m_callbacks.bSync ||
        (TavroStat(m_trash.Info.Number(), info) == 0 && m_changes.Covers(info.st_dev));
    const int error = bLater ? 0 : TavroSyncRecords(m_trash, claimed, item);
    return error == 0 ? failure : TavroFail(Kind::WriteRecord, error, m_trash.Folders.Info);
}

void Reversal::DropClaim(Swap& IoSwap) {
    if (!IoSwap.Goes.To.empty()) {
        m_claims.Drop(TavroNameOf(IoSwap.Goes.From), TavroNameOf(IoSwap.Goes.To));
        IoSwap.Goes.To.clear();
    }
}

/// Tells the history under which names files will wait, and where what goes will lie.
TavroFailure Reversal::TellOfExchange() {
    std::vector<TavroStep> told;
    for (const Swap& swap : m_swaps) {
        told.push_back(*swap.Step);
        told.back().Staged = swap.Hidden;
        if (!swap.bRename) {
            TavroIdentity& made =
                TavroIsTrashed(*swap.Step) ? told.back().Source : told.back().Identity;
            TavroIdentity& old =
                TavroIsTrashed(*swap.Step) ? told.back().Identity : told.back().Source;
            old = swap.Copy->Source().Identity;
            made = swap.Comes;
        }
        if (!swap.Goes.To.empty()) {
            told.push_back(swap.Goes);
            told.back().Staged = swap.Hidden;
        }
    }
    return m_callbacks.BeforeActs ? m_callbacks.BeforeActs(m_report.Operation.Kind, told)
                                  : TavroFailure();
}

/// Moves beside its place what is on the same mount, and exchanges the names.
int Reversal::RenameIn(const Swap& What) {
    const TavroPlace& from = What.Copy->From();
    const TavroPlace& to = What.Copy->To();
    const char* hidden = What.Hidden.c_str();
    int error = TavroRenameNoReplace(from.Number(), from.Name.c_str(), to.Number(), hidden);
    if (error != 0) {
        return error;
    }
    struct stat status = {};
    error = TavroStatAt(to.Number(), hidden, status);
    error = error == 0 && TavroIdentityOf(status) != What.Comes ? ESTALE : error;
    error = error != 0 ? error : TavroExchange(to.Number(), hidden, to.Number(), to.Name.c_str());
    if (error != 0) {
        TavroRenameNoReplace(to.Number(), hidden, from.Number(), from.Name.c_str());
    }
    m_changes.Add(from.Directory);
    return error;
}

/// Brings what went to the trash, when it is the file that was to go. Where that cannot be done, it
/// goes there as any other entry does.
int Reversal::TrashOut(Swap& IoSwap) {
    const TavroPlace& to = IoSwap.Copy->To();
    const char* hidden = IoSwap.Hidden.c_str();
    TavroPlace item;
    struct stat status = {};
    if (IoSwap.Goes.To.empty()) {
        return 0;
    }
    int error = m_places.Find(IoSwap.Goes.To, item).Error.value();
    error = error != 0 ? error : TavroStatAt(to.Number(), hidden, status);
    if (error == 0 && TavroIdentityOf(status) != IoSwap.Goes.Identity) {
        return ESTALE;
    }
    error = error != 0
                ? error
                : TavroRenameNoReplace(to.Number(), hidden, item.Number(), item.Name.c_str());
    if (error != 0) {
        DropClaim(IoSwap);
        return 0;
    }
    IoSwap.bTrashed = true;
    m_trashed[IoSwap.Goes.From] = IoSwap.Goes;
    m_changes.Add(item.Directory);
    return 0;
}

TavroFailure Reversal::Exchange(Swap& IoSwap) {
    TavroFailure failure = IoSwap.Copy->Wake(m_places);
    if (failure) {
        return failure;
    }
    const TavroPlace& to = IoSwap.Copy->To();
    if (IoSwap.bRename) {
        const int error = RenameIn(IoSwap);
        IoSwap.bDone = error == 0;
        failure = error == 0
                      ? failure
                      : TavroFail(Kind::Replace, error, to.Path(), IoSwap.Copy->From().Path());
    } else {
        IoSwap.bDone = IoSwap.Copy->Publish(true);
        failure = IoSwap.Copy->Report().Failure;
    }
    m_changes.Add(to.Directory); // was changed last
    if (IoSwap.bDone) {
        m_hidden[to.OwnPath()] = TavroJoin(to.Directory->OwnPath, IoSwap.Hidden);
        IoSwap.Step->Identity = IoSwap.Comes;
        IoSwap.Step->ChangeTime = 0; // not known
        const int error = TrashOut(IoSwap);
        failure = error == 0 ? failure : TavroFail(Kind::LookAt, error, IoSwap.Goes.From);
    }
    IoSwap.Copy->Rest();
    return failure;
}

/// Neither of two files that one path is to have in turn is missing for a moment: what comes gets
/// its name in the moment in which the other one loses it, which goes then.
TavroFailure Reversal::ExchangeAll() {
    Steps goes;
    const Steps comes = WhatComes(goes);
    TavroFailure failure;
    for (std::size_t i = 0; i < comes.size() && !failure; ++i) {
        failure = Stage(*comes[i], *goes[i]);
    }
    if (comes.empty()) {
        return failure || StepsOf(Role::Replaced).empty() ? failure : TellThatItBegins();
    }
    failure = failure ? failure : Claim();
    int error = failure ? 0 : m_changes.Flush();
    failure =
        failure || error == 0 ? failure : TavroFail(Kind::Write, error, TavroPlaceOf(*comes[0]));
    failure = failure ? failure : TellOfExchange();
    for (Swap& swap : m_swaps) {
        failure = failure ? failure : Exchange(swap);
    }
    error = failure || m_changes.KeepsOrder() ? 0 : m_changes.Flush();
    failure =
        failure || error == 0 ? failure : TavroFail(Kind::Write, error, TavroPlaceOf(*comes[0]));
    if (failure) {
        TakeExchangesBack();
    }
    return failure;
}

/// Takes out of the trash what went there.
int Reversal::TakeOut(const Swap& What) {
    const TavroPlace& to = What.Copy->To();
    TavroPlace item;
    const int error = m_places.Find(What.Goes.To, item).Error.value();
    return error != 0 ? error
                      : TavroRenameNoReplace(item.Number(), item.Name.c_str(), to.Number(),
                                             What.Hidden.c_str());
}

void Reversal::TakeExchangesBack() {
    for (Swap& swap : m_swaps) {
        TavroFailure failure = swap.Copy->Wake(m_places);
        const TavroPlace& from = swap.Copy->From();
        const TavroPlace& to = swap.Copy->To();
        int error = failure || !swap.bTrashed ? 0 : TakeOut(swap);
        error = failure || error != 0 || !swap.bDone
                    ? error
                    : TavroExchange(to.Number(), swap.Hidden.c_str(), to.Number(), to.Name.c_str());
        if (!failure && error == 0 && !swap.bRename) {
            swap.bDone ? swap.Copy->Withdraw(swap.Hidden) : swap.Copy->GiveUp();
        } else if (!failure && error == 0 && swap.bDone) {
            error = TavroRenameNoReplace(to.Number(), swap.Hidden.c_str(), from.Number(),
                                         from.Name.c_str());
        }
        if (failure || error != 0) {
            m_report.bPartly = true; // it can be settled
            m_report.Moves.RollBack.push_back(
                failure ? failure : TavroFail(Kind::MoveTo, error, to.Path(), from.Path()));
        } else {
            m_changes.Add(swap.bRename ? from.Directory : to.Directory);
            DropClaim(swap);
        }
    }
    m_swaps.clear();
    m_hidden.clear();
    m_trashed.clear();
    m_changes.Flush();
}

/// What was copied goes where it was; what was in the trash has no record any more.
TavroFailure Reversal::FinishExchanges() {
    TavroFailure failure;
    for (Swap& swap : m_swaps) {
        TavroPlace record;
        if (!swap.bRename && !(failure = swap.Copy->Wake(m_places))) {
            swap.Copy->RemoveSource();
            failure = swap.Copy->Report().Failure;
            m_changes.Add(swap.Copy->From().Directory);
        }
        if (failure) {
            return failure;
        }
        if (!swap.Record.empty() && !m_places.Find(swap.Record, record)) {
            TavroUnlinkAt(record.Number(), record.Name.c_str());
            m_changes.Add(record.Directory);
        }
        swap.Copy->Rest();
    }
    return failure;
}

// =================================================================================================
// The whole
// =================================================================================================

/// What the operation had replaced, and its undo brought back, goes to the trash again.
TavroFailure Reversal::TrashReplaced() {
    const Steps replaced = StepsOf(Role::Replaced);
    std::vector<TavroStep> trashed;
    TavroFailure failure =
        replaced.empty() ? TavroFailure() : Trash(replaced, trashed, Role::Replaced);
    std::unordered_map<std::string, const TavroStep*> byPath;
    for (const TavroStep& step : trashed) {
        byPath[step.From] = &step;
    }
    for (TavroStep* step : replaced) {
        const auto found = byPath.find(step->From);
        if (found != byPath.end()) {
            step->To = found->second->To;
            step->Record = found->second->Record;
            step->Identity = found->second->Identity;
        }
    }
    return failure;
}

TavroFailure Reversal::Act() {
    const bool bReplaced = !StepsOf(Role::Replaced).empty();
    TavroFailure failure = ExchangeAll();
    failure = failure || m_bUndo ? failure : TrashReplaced();
    m_report.bPartly = bReplaced && !failure && !m_bUndo;
    failure = failure ? failure : ActOnMain();
    if (failure && !m_report.bPartly) {
        TakeExchangesBack();
    }
    if (failure || !bReplaced) {
        return failure;
    }
    m_report.bPartly = true;
    failure = m_bUndo ? Restore(Role::Replaced) : failure;
    return failure ? failure : FinishExchanges();
}

TavroFailure Reversal::ActOnMain() {
    switch (m_report.Operation.Kind) {
    case TavroOperationKind::Trash:
    case TavroOperationKind::Restore:
        return m_bUndo ? Restore(Role::Trashed) : TrashAgain();
    case TavroOperationKind::Rename:
    case TavroOperationKind::Move:
        return MoveAll();
    case TavroOperationKind::Copy:
        return m_bUndo ? TrashCopies() : RestoreCopies();
    default:
        return m_bUndo ? RemoveCreated() : CreateAgain();
    }
}

TavroFailure Reversal::Run() {
    TavroFailure failure = Act();
    m_places = {};
    if (!failure) {
        SetModes();
        RemoveDirectories(); // one that holds something stays
        const int error = m_changes.Flush();
        return error == 0 ? failure : TavroFail(Kind::Write, error, DirectoryOf(m_steps.front()));
    }
    for (auto made = m_made.rbegin(); made != m_made.rend(); ++made) {
        mode_t ignored = 0;
        RemoveDirectory(made->first, made->second, ignored);
    }
    return failure;
}

TavroFailure Reversal::Check() {
    const TavroOperationKind what = m_report.Operation.Kind;
    const Role main = what == TavroOperationKind::Trash ? Role::Trashed : Role::Moved;
    TavroSeenEntry seen;
    const auto isThere = [&](const TavroStep& step) {
        return TavroIsTrashed(step) ? CheckItem(step, seen) : CheckFile(step, step.To, seen);
    };
    const auto comesBack = [&](const TavroStep& step) {
        TavroFailure wrong = isThere(step);
        return wrong ? wrong : CheckFree(step.From);
    };
    if (what == TavroOperationKind::CreateDirectory) {
        return CheckCreated();
    }
    TavroFailure failure = Each(StepsOf(Role::Replaced), isThere);
    failure = failure ? failure : CheckToMake();
    return failure                            ? failure
           : what == TavroOperationKind::Copy ? Each(OutermostCopies(), isThere)
                                              : Each(StepsOf(main), comesBack);
}

/// One undo, redo or resumption, with what the history has to know of it.
class Going {
public:
    /// @param Only  the number of the operation; 0: the next one.
    Going(TavroHistory& History, const TavroTransferCallbacks& Callbacks, std::int64_t Only = 0)
        : m_history(History), m_callbacks(Callbacks), m_only(Only) {}

    using FindNext = TavroFailure (TavroHistory::*)(std::optional<TavroOperation>&);
    TavroUndoReport Run(FindNext Find, TavroFailureKind Nothing, bool bUndo, bool bResume);

private:
    TavroFailure Settle(bool& IoUndo, bool bResume);
    static TavroFailure CheckReplaced(const std::vector<TavroStep>& Done,
                                      const std::vector<TavroStep>& NotDone);
    void Sort(std::vector<TavroStep> Done, std::vector<TavroStep> NotDone, bool bUndo);
    TavroFailure Transfer(TavroTransferCallbacks Callbacks);
    TavroFailure Take(FindNext Find, TavroFailureKind Nothing, bool bUndo);
    void Renew(const TavroBatchReport& TakenBack);
    void AddSettled(std::vector<TavroStep>& IoSteps) const;
    TavroFailure TurnBack();
    TavroFailure End(bool bUndo);
    TavroUndoReport FinishDeletion(bool bUndo);
    void EndWhatIsUndone();

    TavroHistory& m_history;
    const TavroTransferCallbacks& m_callbacks;
    const std::int64_t m_only;
    TavroUndoReport m_report;
    TavroOperation m_before;
    std::vector<TavroStep> m_settled; ///< Of an interrupted operation: what is where it is to be.
    Reversal::Directories m_made;     ///< What it has made of those that are to be there.
    std::optional<TavroOperation> m_turned; ///< What it was before it was turned back.
    bool m_bForget = false;                 ///< It does not stay in the history.
    bool m_bTransfer = false;               ///< The rest is to be copied or moved.
};

/// What was replaced must be somewhere, as long as the new entry, or nothing, is in its place.
TavroFailure Going::CheckReplaced(const std::vector<TavroStep>& Done,
                                  const std::vector<TavroStep>& NotDone) {
    TavroPlaces places;
    std::set<std::string> filled;
    for (const TavroStep& step : Done) {
        filled.insert(step.Role == Role::Moved || step.Role == Role::Copied ? step.To : "");
    }
    for (const TavroStep& step : NotDone) {
        const bool bOther = filled.count(step.From) == 0 && TavroIsPresent(step.From);
        if (step.Role == Role::Replaced && !bOther &&
            TavroFindStep(step, places) == TavroWhereabouts::Nowhere) {
            return {Kind::ItemMissing, {}, step.To};
        }
    }
    return {};
}

/// Finds out what is left to be done, and in which direction.
TavroFailure Going::Settle(bool& IoUndo, bool bResume) {
    TavroOperation& operation = m_report.Operation;
    std::vector<TavroStep> done;
    std::vector<TavroStep> notDone;
    const TavroOperationState state = operation.State;
    const bool bDoing = state == TavroOperationState::Doing;
    TavroFailure failure =
        TavroSettle(m_history, operation, bDoing && bResume, m_callbacks, done, notDone);
    m_before.Steps = operation.Steps;
    if (operation.Kind == TavroOperationKind::Restore) {
        // Its records need not tell of the places that were chosen.
        for (TavroStep& step : done) {
            step.ChangeTime = INT64_MAX;
        }
        operation.Kind = TavroOperationKind::Trash;
        IoUndo = bResume;
        m_bForget = true;
    } else {
        IoUndo = bResume ? state == TavroOperationState::Undoing : true;
    }
    failure = failure || !IoUndo ? failure : CheckReplaced(done, notDone);
    m_bTransfer =
        bDoing && bResume &&
        (operation.Kind == TavroOperationKind::Move || operation.Kind == TavroOperationKind::Copy);
    Sort(std::move(done), std::move(notDone), IoUndo);
    if (bDoing && IoUndo && !m_bForget) {
        m_settled.clear(); // what was never done
    }
    return failure;
}

/// Sorts the steps by whether something is left to be done. Copies that were undone lie in the
/// trash as long as they are not back. Directories that were made already may still lack their
/// modes.
void Going::Sort(std::vector<TavroStep> Done, std::vector<TavroStep> NotDone, bool bUndo) {
    TavroOperation& operation = m_report.Operation;
    const bool bCopy = operation.Kind == TavroOperationKind::Copy;
    std::vector<TavroStep> left;
    const Role made = bUndo ? Role::RemovedDirectory : Role::CreatedDirectory;
    const auto add = [&](TavroStep& step, bool bDone) {
        const bool bTrashedCopy = bCopy && step.Role == Role::Trashed;
        if (bTrashedCopy && !bDone) {
            return;
        }
        bool bLeft = bTrashedCopy ? !bUndo : bDone == bUndo;
        if (step.Role == made && !bLeft && step.Identity.Inode != 0) {
            m_made[DirectoryOf(step)] = step.Identity;
            bLeft = !m_bTransfer;
        }
        (bLeft ? left : m_settled).push_back(std::move(step));
    };
    for (TavroStep& step : Done) {
        add(step, true);
    }
    for (TavroStep& step : NotDone) {
        add(step, false);
    }
    operation.Steps = std::move(left);
}

/// Goes on with what was not copied or moved.
TavroFailure Going::Transfer(TavroTransferCallbacks Callbacks) {
    TavroTransferPlan plan;
    TavroOperation& operation = m_report.Operation;
    plan.bMove = operation.Kind == TavroOperationKind::Move;
    std::set<std::string> done;
    for (const TavroStep& step : m_settled) {
        done.insert(step.From);
    }
    std::set<std::string> replaced;
    const bool bPlanned =
        std::any_of(operation.Steps.begin(), operation.Steps.end(),
                    [](const TavroStep& step) { return step.Role == Role::Planned; });
    for (const TavroStep& step : operation.Steps) {
        if (step.Role == Role::Replaced) {
            replaced.insert(step.From);
        }
        if (step.Role == Role::Planned && step.Mode <= 2) {
            plan.ConflictPolicy = static_cast<TavroTransferConflictPolicy>(step.Mode);
        }
        Callbacks.bKeepBoth =
            Callbacks.bKeepBoth || (step.Role == Role::Planned && step.Mode == TavroKeepBothMode);
        Callbacks.bOverwriteOlder =
            Callbacks.bOverwriteOlder ||
            (step.Role == Role::Planned && step.Mode == TavroOverwriteOlderMode);
        // What was planned leads to all that it consists of.
        if ((bPlanned ? step.Role == Role::Planned : TavroIsMainStep(step, operation.Kind)) &&
            done.count(step.From) == 0) {
            TavroTransferItemPlan item;
            item.Name = TavroNameOf(step.From);
            item.SourcePath = step.From;
            item.DestinationPath = step.To;
            plan.Items.push_back(std::move(item));
        }
    }
    // What was about to be replaced was decided upon.
    bool bOpen = false; // something else was not, and nobody could be asked
    Callbacks.OnConflict = [&, ask = Callbacks.OnConflict](const TavroTransferConflict& conflict) {
        if (replaced.count(conflict.DestinationPath) != 0) {
            return TavroConflictAnswer{TavroConflictChoice::Overwrite, false};
        }
        bOpen = bOpen || !ask;
        return ask ? ask(conflict) : TavroConflictAnswer{TavroConflictChoice::Skip, false};
    };
    Callbacks.IsDone = [&](const std::string& path) { return done.count(path) != 0; };
    std::unordered_map<std::string, TavroEarlierCopy> earlier;
    for (const TavroStep& step : operation.Steps) {
        if (!step.Staged.empty()) {
            earlier[step.To] = {step.Staged, step.Source, step.Identity};
        }
    }
    Callbacks.FindEarlier = [&](const std::string& to) {
        const auto found = earlier.find(to);
        return found == earlier.end() ? TavroEarlierCopy() : found->second;
    };
    TavroCarryOutTransfer(plan, Callbacks, m_report.Transfer);
    for (const auto& [to, copy] : earlier) { // what was not taken over
        TavroPlaces places;
        TavroPlace place;
        if (!places.Find(TavroJoin(TavroParentOf(to), copy.Name), place)) {
            const std::uint64_t device = place.Directory->Identity.Device;
            TavroRemoveTree(place, {TavroIdentity{device, copy.Made.Inode}});
        }
    }
    m_report.Transfer.bUnsettled = m_report.Transfer.bUnsettled || bOpen;
    operation.Steps = TavroOperationOf(m_report.Transfer, plan.bMove).Steps;
    TavroCompleteOperation(operation);
    return m_report.Transfer.bCancelled ? TavroFailure{Kind::Cancelled} : TavroFailure();
}

/// What was moved, and moved back between file systems, is another file.
void Going::Renew(const TavroBatchReport& TakenBack) {
    const std::unordered_map<TavroIdentity, TavroIdentity> files(TakenBack.Renewed.begin(),
                                                                 TakenBack.Renewed.end());
    for (TavroStep& step : m_before.Steps) { // once each: a number may have been given again
        const auto renewed = files.find(step.Identity);
        if (renewed != files.end()) {
            step.Identity = renewed->second;
            step.ChangeTime = 0; // not known
        }
    }
}

/// Makes steps those of the whole operation, without what was only planned.
void Going::AddSettled(std::vector<TavroStep>& IoSteps) const {
    const auto isPlanned = [](const TavroStep& step) { return step.Role == Role::Planned; };
    IoSteps.insert(IoSteps.begin(), m_settled.begin(), m_settled.end());
    IoSteps.erase(std::remove_if(IoSteps.begin(), IoSteps.end(), isPlanned), IoSteps.end());
}

/// Tells the history that what was interrupted goes back from now on, and what of it there is: were
/// this interrupted, too, it would be looked at as if it went on.
TavroFailure Going::TurnBack() {
    TavroOperation back = m_report.Operation;
    back.State = TavroOperationState::Undoing;
    AddSettled(back.Steps);
    const bool bNothing =
        std::none_of(back.Steps.begin(), back.Steps.end(),
                     [&](const TavroStep& step) { return TavroIsMainStep(step, back.Kind); });
    if (bNothing || m_before.State == TavroOperationState::Undoing || m_bForget) {
        return {};
    }
    TavroFailure failure = m_history.Update(back);
    m_turned = failure ? std::optional<TavroOperation>() : std::exchange(m_before, back);
    return failure;
}

/// Keeps what the operation has come to.
TavroFailure Going::End(bool bUndo) {
    TavroOperation& operation = m_report.Operation;
    operation.State = bUndo ? TavroOperationState::Undone : TavroOperationState::Done;
    AddSettled(operation.Steps);
    std::stable_partition(
        operation.Steps.begin(), operation.Steps.end(),
        [&](const TavroStep& step) { return TavroIsMainStep(step, operation.Kind); });
    if (!m_bForget) {
        return m_history.EndOperation(operation, operation.Steps == m_before.Steps);
    }
    TavroOperation forgotten = operation;
    forgotten.Steps.clear();
    return m_history.EndOperation(forgotten, false);
}

/// An undo that was done, and whose end a power cut took away, is one.
void Going::EndWhatIsUndone() {
    std::optional<TavroOperation> next;
    bool bChanged = true;
    if (m_history.NextToResume(next) || !next || next->State != TavroOperationState::Undoing ||
        m_history.IsRunning(*next)) {
        return;
    }
    const TavroHeadway headway = TavroFindHeadway(*next);
    if (headway.Done != headway.Count ||
        m_history.ContinueOperation(*next, next->State, bChanged) || bChanged) {
        return;
    }
    bool bUndo = true;
    m_before = *next;
    m_report.Operation = std::move(*next);
    TavroFailure failure = Settle(bUndo, true);
    const std::vector<TavroStep>& left = m_report.Operation.Steps;
    const bool bMore = std::any_of(left.begin(), left.end(), [](const TavroStep& step) {
        return step.Role != Role::RemovedDirectory && step.Role != Role::CreatedDirectory;
    });
    if (!failure && !bMore && !left.empty()) { // directories may still lack their modes
        failure = Reversal(bUndo, m_callbacks, m_report, m_made).Run();
    }
    if (failure || bMore) {
        m_history.LeaveOperation();
    } else {
        End(bUndo);
    }
    m_report = {};
    m_settled.clear();
}

/// Takes on the next operation: from now on the history says so, and no other process does.
TavroFailure Going::Take(FindNext Find, TavroFailureKind Nothing, bool bUndo) {
    std::optional<TavroOperation> next;
    TavroFailure failure;
    for (bool bChanged = true; !failure && bChanged;) {
        failure = m_only != 0 ? m_history.Read(m_only, next) : (m_history.*Find)(next);
        if (!failure && (!next || (m_only != 0 && next->State == TavroOperationState::Undone))) {
            return {m_only != 0 ? Kind::NoSuchOperation : Nothing, {}, "", std::to_string(m_only)};
        }
        if (!failure && TavroIsDeletion(next->Kind) && !TavroIsOnItsWay(*next)) {
            return {Kind::DeletionIsFinal, {}, next->Steps.front().From};
        }
        if (!failure) {
            const auto state = TavroIsOnItsWay(*next) ? next->State
                               : bUndo                ? TavroOperationState::Undoing
                                                      : TavroOperationState::Redoing;
            // What goes to the trash, or is exchanged, is told before: that brings this to the
            // disk, too.
            const bool bTellsMore =
                next->Kind == (bUndo ? TavroOperationKind::Copy : TavroOperationKind::Trash) ||
                std::any_of(next->Steps.begin(), next->Steps.end(),
                            [](const TavroStep& step) { return step.Role == Role::Replaced; });
            m_history.WaitForDisk(m_callbacks.bSync && !bTellsMore);
            failure = m_history.ContinueOperation(*next, state, bChanged);
            m_history.WaitForDisk(m_callbacks.bSync);
        }
    }
    if (!failure) {
        m_before = *next;
        m_report.Operation = std::move(*next);
    }
    return failure;
}

/// What was to be deleted is, and nothing of it can be undone.
TavroUndoReport Going::FinishDeletion(bool bUndo) {
    const std::vector<TavroStep>& steps = m_before.Steps;
    m_report.Failure = bUndo ? TavroFailure{Kind::DeletionWasInterrupted, {}, steps.front().From}
                       : m_before.Kind == TavroOperationKind::Delete
                           ? TavroFinishDeleting(steps, m_callbacks)
                           : TavroFinishEmptying(steps, m_callbacks);
    if (m_report.Failure) {
        m_history.LeaveOperation();
        return std::move(m_report);
    }
    TavroOperation ended = m_before;
    ended.State = TavroOperationState::Done;
    m_report.Failure = m_history.EndOperation(ended, true);
    m_report.bDoneButNotSaved = static_cast<bool>(m_report.Failure);
    return std::move(m_report);
}

TavroUndoReport Going::Run(FindNext Find, TavroFailureKind Nothing, bool bUndo, bool bResume) {
    TavroFailure& failure = m_report.Failure;
    if (!bUndo && !bResume) {
        EndWhatIsUndone();
    }
    failure = Take(Find, Nothing, bUndo);
    if (failure) {
        return std::move(m_report);
    }
    if (TavroIsDeletion(m_before.Kind)) {
        return FinishDeletion(bUndo);
    }
    const bool bInterrupted = TavroIsOnItsWay(m_before);
    failure = bInterrupted ? Settle(bUndo, bResume) : failure;
    failure = failure || !bInterrupted || !bUndo ? failure : TurnBack();
    m_report.bUndone = bUndo;
    TavroJournal journal(m_history, m_before);
    TavroTransferCallbacks callbacks = m_callbacks;
    static_cast<TavroCallbacks&>(callbacks) =
        journal.Bind(static_cast<const TavroCallbacks&>(m_callbacks));
    if (!failure && m_bTransfer) {
        failure = Transfer(callbacks);
    } else if (!failure && !m_report.Operation.Steps.empty()) {
        failure = Reversal(bUndo, callbacks, m_report, m_made).Run();
    }
    const bool bOpen = failure && (bInterrupted || m_report.bPartly);
    if (bOpen || m_report.Transfer.bUnsettled) {
        if (m_turned && !m_report.bPartly && m_report.Moves.RollBack.empty()) {
            m_history.Update(*m_turned); // it can go either way again
        }
        m_history.LeaveOperation();
    } else if (!failure) {
        failure = End(bUndo);
        m_report.bDoneButNotSaved = static_cast<bool>(failure);
    } else {
        Renew(m_report.Trash.Batch);
        Renew(m_report.Moves);
        m_history.EndOperation(m_before, false);
    }
    return std::move(m_report);
}

} // namespace

TavroUndoReport TavroUndo(TavroHistory& History, const TavroCallbacks& Callbacks) {
    return TavroUndoOnly(History, 0, Callbacks);
}

TavroUndoReport TavroUndoOnly(TavroHistory& History, std::int64_t Id,
                              const TavroCallbacks& Callbacks) {
    const TavroTransferCallbacks callbacks{Callbacks, {}, {}};
    return Going(History, callbacks, Id)
        .Run(&TavroHistory::NextToUndo, Kind::NothingToUndo, true, false);
}

TavroFailure TavroCheckUndo(const TavroOperation& Operation, bool& bOutNothingLeft) {
    bOutNothingLeft = false;
    const bool bOnItsWay = TavroIsOnItsWay(Operation);
    if (TavroIsDeletion(Operation.Kind)) {
        return {bOnItsWay ? Kind::DeletionWasInterrupted : Kind::DeletionIsFinal,
                {},
                Operation.Steps.front().From};
    }
    if (bOnItsWay) {
        return {};
    }
    TavroUndoReport report;
    report.Operation = Operation;
    const TavroCallbacks callbacks;
    TavroFailure failure = Reversal(true, callbacks, report).Check();
    TavroPlaces places;
    const auto isThere = [&](const TavroStep& step) {
        const TavroWhereabouts where = TavroFindStep(step, places);
        return TavroIsMainStep(step, Operation.Kind) &&
               (where == TavroWhereabouts::AtTo || where == TavroWhereabouts::InBoth ||
                !TavroIsBelowDevice(step.To, step.Identity.Device));
    };
    bOutNothingLeft =
        failure && std::none_of(Operation.Steps.begin(), Operation.Steps.end(), isThere);
    return failure;
}

TavroUndoReport TavroRedo(TavroHistory& History, const TavroCallbacks& Callbacks) {
    const TavroTransferCallbacks callbacks{Callbacks, {}, {}};
    return Going(History, callbacks)
        .Run(&TavroHistory::NextToRedo, Kind::NothingToRedo, false, false);
}

TavroUndoReport TavroResume(TavroHistory& History, const TavroTransferCallbacks& Callbacks) {
    return Going(History, Callbacks)
        .Run(&TavroHistory::NextToResume, Kind::NothingToResume, false, true);
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
        const bool bUndone = Report.bUndone;
        return (bUndone ? "It is undone, but the history has it as interrupted: "
                        : "It is redone, but the history has it as interrupted: ") +
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
