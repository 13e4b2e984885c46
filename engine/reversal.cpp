#include "reversal.h"

#include "names.h"
#include "trash.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

namespace {

using Kind = TavroFailureKind;
using Role = TavroStepRole;
using Steps = TavroReversal::Steps;

const char* OtherOf(mode_t Mode) {
    return S_ISREG(Mode)   ? "another file"
           : S_ISDIR(Mode) ? "another directory"
           : S_ISLNK(Mode) ? "another symbolic link"
                           : "another entry";
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

} // namespace

Steps TavroReversal::StepsOf(Role What, bool bReversed) {
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
Steps TavroReversal::ToMake() {
    return StepsOf(m_bUndo ? Role::RemovedDirectory : Role::CreatedDirectory, m_bUndo);
}

/// The steps whose directories are there only where this leads from, inner ones first.
Steps TavroReversal::ToRemove() {
    return StepsOf(m_bUndo ? Role::CreatedDirectory : Role::RemovedDirectory, m_bUndo);
}

// =================================================================================================
// Checking
// =================================================================================================

/// Whether a file that has the number of the one that the operation left is another one all the
/// same: it was created when the operation had ended, or is of another volume at the same place,
/// where nobody has touched it since. After a restart a device can have another number.
bool TavroReversal::IsNamesake(const TavroStep& Step, const TavroPlace& Place,
                               const struct stat& Status) {
    struct stat status = {};
    std::int64_t birth = 0;
    const std::int64_t changed = TavroNanoseconds(Status.st_ctim);
    if (Step.ChangeTime == 0 || Step.ChangeTime == INT64_MAX || Step.Identity.Inode == 0) {
        return false; // nothing is known of it
    }
    // Of what was moved its own time is known, of all else the end of the operation.
    const std::int64_t earliest =
        Step.ChangeTime - (Step.Role == Role::Moved ? 0 : 3600 * TavroSecond);
    if (Step.Identity.Device != Status.st_dev && !TavroIsTrashed(Step) && changed < earliest) {
        return true; // of what is trashed the record tells
    }
    return changed > Step.ChangeTime &&
           TavroStatWithBirthAt(Place.Number(), Place.Name.c_str(), status, birth) == 0 &&
           birth > Step.ChangeTime;
}

/// The very file of a step must be at a path. Its times do not count: who goes on working with what
/// was renamed or copied can still undo that.
TavroFailure TavroReversal::CheckFile(const TavroStep& Step, const std::string& Path,
                                      TavroSeenEntry& OutSeen) {
    TavroPlace place;
    struct stat status = {};
    const int error = m_places.Look(Path, place, status);
    if (error != 0) {
        return TavroFail(TavroIsMissing(error) ? Kind::Missing : Kind::LookAt, error, Path);
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
TavroFailure TavroReversal::CheckHolder(const std::string& Path) {
    std::string& own = m_ownPaths[Path];
    std::string there = Path;
    TavroPlace inside;
    if (!own.empty()) {
        return {};
    }
    while (!TavroIsPresent(there) && there != "/") {
        there = TavroParentOf(there);
    }
    if (const TavroFailure failure = m_places.Find(TavroJoin(there, "x"), inside)) {
        const int error = failure.Error.value();
        const bool bOther = error == ENOTDIR || error == ENOENT || error == ELOOP;
        return TavroFail(bOther ? Kind::InTheWay : Kind::LookAt, bOther ? 0 : error, there);
    }
    own = inside.Directory->OwnPath + Path.substr(there.size());
    return {};
}

/// Nothing may be at a path, and its directory must be there, or be one that can be created.
TavroFailure TavroReversal::CheckFree(const std::string& Path) {
    TavroPlace place;
    struct stat status = {};
    const int error = m_places.Look(Path, place, status);
    if (TavroIsMissing(error)) {
        return CheckHolder(TavroParentOf(Path));
    }
    return TavroFail(error == 0 ? Kind::InTheWay : Kind::LookAt, error, Path);
}

/// The trash in which the item of a step lies. Neighbours have the same.
const TavroTrashFolders& TavroReversal::TrashOf(const TavroStep& Step) {
    const std::size_t name = Step.To.rfind('/');
    if (Step.To.compare(0, name, m_trashFiles) != 0) {
        m_trashFiles = Step.To.substr(0, name);
        m_trashFolders = TavroTrashFoldersOf(Step.To);
    }
    return m_trashFolders;
}

/// An item that changed since, or is on a device of another number, may be another one with the
/// same inode. It is not when its record tells of the same place and time, or is lost. It counts as
/// another time only when both the date in the record and the time of the record's file say so: the
/// date depends on the time zone, and a record that was copied has another time.
TavroFailure TavroReversal::CheckRecord(const TavroStep& Step, const TavroFileState& State) {
    TavroPlace record;
    const bool bElsewhere =
        State.Identity.Device != Step.Identity.Device && Step.ChangeTime != INT64_MAX;
    if ((State.ChangeTime <= Step.ChangeTime && !bElsewhere) ||
        m_places.Find(Step.Record, record)) {
        return {};
    }
    const auto read = TavroReadRecord(record.Number(), TavroNameOf(Step.To), TrashOf(Step).Base);
    if (!read) {
        return {};
    }
    const std::time_t written = read->WrittenAt / TavroSecond;
    const std::time_t date = TavroTimeOfDate(read->Date).value_or(written);
    const std::time_t earliest = m_report.Operation.Time - 3600;
    const bool bLater = Step.ChangeTime != 0 && read->WrittenAt > Step.ChangeTime &&
                        date > Step.ChangeTime / TavroSecond;
    const bool bEarlier = bElsewhere && std::max(written, date) < earliest;
    const std::string when = bLater || bEarlier ? " at another time" : "";
    return read->Path == Step.From && when.empty()
               ? TavroFailure()
               : TavroFailure{
                     Kind::Replaced, {}, Step.To, "what was at '" + read->Path + "'" + when};
}

/// What came from a volume goes back to it, whatever link is in its path now.
TavroFailure TavroReversal::CheckWithin(const TavroStep& Step) {
    const TavroTrashFolders& trash = TrashOf(Step);
    const bool bLeaves = trash.bVolume && TavroIsBelow(trash.Base, Step.From) &&
                         !TavroIsBelow(trash.Base, TavroJoin(m_ownPaths[TavroParentOf(Step.From)],
                                                             TavroNameOf(Step.From)));
    return bLeaves ? TavroFailure{Kind::LeavesVolume, {}, Step.From, trash.Base} : TavroFailure();
}

/// What lies in the trash for the operation must be the very file.
TavroFailure TavroReversal::CheckItem(const TavroStep& Step, TavroSeenEntry& OutSeen) {
    TavroFailure failure = CheckFile(Step, Step.To, OutSeen);
    failure = failure ? failure : CheckRecord(Step, OutSeen.State);
    failure.Kind = failure.Kind == Kind::Missing ? Kind::ItemMissing : failure.Kind;
    return failure;
}

/// Nothing may be in a created directory but other created ones.
TavroFailure TavroReversal::CheckEmpty(const TavroStep& Step,
                                       const std::set<std::string>& Created) {
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

TavroFailure TavroReversal::CheckToMake() {
    return Each(ToMake(),
                [&](const TavroStep& step) { return CheckHolder(TavroDirectoryOf(step)); });
}

/// Creates directories that are missing, and those above them, where they were checked. Those whose
/// modes are known get them at the end: they may forbid to put anything into them.
TavroFailure TavroReversal::MakeDirectories() {
    return Each(ToMake(), [&](const TavroStep& step) {
        const std::string& path = TavroDirectoryOf(step);
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
void TavroReversal::Remember(const std::vector<std::string>& Made) {
    for (const std::string& path : Made) {
        TavroPlace place;
        struct stat status = {};
        if (m_places.Look(path, place, status) == 0) {
            m_made[path] = TavroIdentityOf(status);
            m_changes.Add(place.Directory);
        }
    }
}

/// What was there already is not of the operation any more: it keeps its mode, and will stay.
void TavroReversal::SetModes() {
    for (TavroStep* step : ToMake()) {
        TavroPlace inside;
        step->Identity = m_made[TavroDirectoryOf(*step)];
        step->ChangeTime = 0; // not known
        if ((step->Mode != 0 || m_bUndo) &&
            !m_places.Find(TavroJoin(TavroDirectoryOf(*step), "x"), inside) &&
            inside.Directory->Identity == step->Identity) {
            Dress(inside.Number(), *step);
            m_changes.Add(inside.Directory);
        }
    }
}

/// Gives a directory that was made again what it had.
void TavroReversal::Dress(int Directory, const TavroStep& Step) {
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
int TavroReversal::RemoveDirectory(const std::string& Path, const TavroIdentity& Identity,
                                   mode_t& OutMode) {
    TavroPlace place;
    struct stat status = {};
    int error = m_places.Look(Path, place, status);
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
TavroFailure TavroReversal::RemoveDirectories() {
    TavroFailure failure;
    m_places = {};
    for (TavroStep* step : ToRemove()) {
        const std::string& path = TavroDirectoryOf(*step);
        const int error = RemoveDirectory(path, step->Identity, step->Mode);
        if (error != 0 && !failure) {
            failure = TavroFail(Kind::RemoveForUndo, error, path);
        }
    }
    return failure;
}

/// Of an operation that created nothing but directories, the very one must be there, and empty.
TavroFailure TavroReversal::CheckCreated() {
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

/// Removes all directories of an operation that created nothing else, or none. What is created
/// again after a failure is another directory, and the report tells which.
TavroFailure TavroReversal::RemoveCreated() {
    TavroFailure failure = CheckCreated();
    const std::vector<TavroStep> before = failure ? std::vector<TavroStep>() : m_steps;
    if (failure || !(failure = RemoveDirectories())) {
        return failure;
    }
    TavroReversal again(false, m_callbacks, m_report);
    again.CheckToMake();
    again.MakeDirectories();
    again.SetModes();
    again.m_changes.Flush(); // that nothing was done must hold, too
    m_steps = before;
    for (const TavroStep& step : m_steps) {
        const auto made = again.m_made.find(TavroDirectoryOf(step));
        if (made != again.m_made.end() && made->second.Inode != 0) {
            m_report.Moves.Renewed.push_back({made->first, step.Identity, made->second});
        }
    }
    return failure;
}

TavroFailure TavroReversal::CreateAgain() {
    TavroFailure failure = Each(ToMake(), [&](const TavroStep& step) {
        return m_made.count(step.To) != 0 ? TavroFailure() : CheckFree(step.To);
    });
    failure = failure ? failure : CheckToMake();
    return failure ? failure : MakeDirectories();
}

// =================================================================================================
// Renamed and moved entries
// =================================================================================================

TavroFailure TavroReversal::MoveAll() {
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
TavroFailure TavroReversal::RunMoves(const Steps& Of, std::vector<TavroBatchStep>& Moves) {
    TavroBatchHooks hooks;
    hooks.BeforePublish = [&](std::size_t i, const TavroFileState& made, const std::string& name) {
        TavroStep step = *Of[i];
        step.Source = m_bUndo ? made.Identity : Moves[i].Seen->State.Identity;
        step.Identity = m_bUndo ? Moves[i].Seen->State.Identity : made.Identity;
        step.Staged = name;
        return m_callbacks.Announce(TavroOperationKind::Move, {step});
    };
    m_report.Moves = TavroRunBatch(Moves, hooks, m_callbacks);
    Remember(m_report.Moves.CreatedDirectories);
    TavroFailure failure = m_report.Moves.Failure;
    const auto isInBoth = [](const TavroBatchStep& move) { return move.bCopyStays; };
    m_report.bPartly =
        m_report.bPartly || (failure && std::any_of(Moves.begin(), Moves.end(), isInBoth));
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
        m_report.Moves.Renewed.push_back(
            {move.From, move.Seen->State.Identity, back[i].Arrived.Identity});
    }
    return failure;
}

// =================================================================================================
// Trashed entries and copies
// =================================================================================================

/// @param OutTrashed  gets a step for each that lies in the trash now.
TavroFailure TavroReversal::Trash(const Steps& Entries, std::vector<TavroStep>& OutTrashed,
                                  Role As) {
    TavroOperation trashed;
    std::vector<TavroOperationEntry> entries;
    std::vector<TavroIdentity> expected;
    std::vector<std::string> origins;
    TavroTrashOptions options;
    options.bHome = !Entries.empty(); // where all of it was
    TavroFailure failure = Each(Entries, [&](const TavroStep& step) {
        const std::string& origin = m_bUndo ? step.To : step.From;
        const auto there = m_trashed.find(origin);
        if (there != m_trashed.end()) {
            trashed.Steps.push_back(there->second);
            return TavroFailure();
        }
        origins.push_back(origin);
        options.bHome = options.bHome && TavroIsTrashed(step) && !TrashOf(step).bVolume;
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
        return m_callbacks.Announce(kind, told);
    };
    if (!failure && !entries.empty()) {
        m_report.Trash = TavroTrashSelection(entries, callbacks, expected, origins, options);
        failure = m_report.Trash.Batch.Failure;
        const TavroOperation more = TavroOperationOf(m_report.Trash);
        trashed.Steps.insert(trashed.Steps.end(), more.Steps.begin(), more.Steps.end());
    }
    TavroCompleteOperation(trashed);
    OutTrashed = std::move(trashed.Steps);
    return failure;
}

/// What was copied into a copied directory goes to the trash with that one. Of what was copied to
/// one place again and again, the last is there.
Steps TavroReversal::OutermostCopies() {
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

TavroFailure TavroReversal::TrashCopies() {
    std::vector<TavroStep> trashed;
    TavroFailure failure = Trash(OutermostCopies(), trashed);
    m_steps.insert(m_steps.end(), trashed.begin(), trashed.end());
    return failure;
}

/// Trashes what was restored.
TavroFailure TavroReversal::TrashAgain() {
    std::vector<TavroStep> trashed;
    TavroFailure failure = Trash(StepsOf(Role::Trashed), trashed);
    if (!failure) {
        DropTrashed();
        m_steps.insert(m_steps.begin(), trashed.begin(), trashed.end());
    }
    return failure;
}

void TavroReversal::DropTrashed() {
    const auto isTrashed = [](const TavroStep& step) { return step.Role == Role::Trashed; };
    m_steps.erase(std::remove_if(m_steps.begin(), m_steps.end(), isTrashed), m_steps.end());
}

/// Restores what lies in the trash for the operation.
TavroFailure TavroReversal::Restore(Role What) {
    Steps steps = StepsOf(What);
    DropExchanged(steps);
    std::vector<TavroTrashedEntry> entries;
    TavroFailure failure = Each(steps, [&](const TavroStep& step) {
        TavroSeenEntry seen;
        TavroFailure wrong = CheckItem(step, seen);
        const TavroTrashFolders& folders = TrashOf(step);
        const bool bWithin = folders.bVolume && TavroIsBelow(folders.Base, step.From);
        entries.push_back({{step.From, step.To, step.Record, step.bDirectory},
                           seen.State.Identity,
                           seen,
                           bWithin ? folders.Base : ""});
        return wrong;
    });
    if (failure || entries.empty()) {
        return failure;
    }
    TavroCallbacks callbacks = m_callbacks;
    callbacks.BeforeActs = [&](TavroOperationKind kind, const std::vector<TavroStep>& told) {
        std::vector<TavroStep> more = told;
        for (TavroStep& step : more) {
            step.Role = What;
        }
        return m_callbacks.Announce(kind, more);
    };
    m_report.Trash = TavroRestoreSelection(std::move(entries), callbacks, true);
    struct timespec now = {}; // until when files may have come from other file systems
    clock_gettime(CLOCK_REALTIME, &now);
    for (std::size_t i = 0; i < m_report.Trash.Entries.size(); ++i) {
        const TavroIdentity& item = m_report.Trash.Entries[i].Item;
        const bool bSame = steps[i]->Identity == item;
        steps[i]->ChangeTime = bSame ? steps[i]->ChangeTime : TavroNanoseconds(now);
        steps[i]->Identity = item;
    }
    return m_report.Trash.Batch.Failure;
}

TavroFailure TavroReversal::RestoreCopies() {
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
// The whole
// =================================================================================================

/// What the operation had replaced, and its undo brought back, goes to the trash again.
TavroFailure TavroReversal::TrashReplaced() {
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
            step->ChangeTime = found->second->ChangeTime;
        }
    }
    return failure;
}

TavroFailure TavroReversal::Act() {
    const bool bReplaced = !StepsOf(Role::Replaced).empty();
    TavroFailure failure = ExchangeAll();
    failure = failure || m_bUndo ? failure : TrashReplaced();
    m_report.bPartly = m_report.bPartly || (bReplaced && !failure && !m_bUndo);
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

TavroFailure TavroReversal::ActOnMain() {
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

TavroFailure TavroReversal::Run() {
    TavroFailure failure = Act();
    m_places = {};
    if (!failure) {
        SetModes();
        RemoveDirectories(); // one that holds something stays
        const int error = m_changes.Flush();
        m_report.bPartly = m_report.bPartly || error != 0; // it is done, though
        return error == 0 ? failure
                          : TavroFail(Kind::Write, error, TavroDirectoryOf(m_steps.front()));
    }
    // What is neither done nor as it was can be settled.
    m_report.bPartly = m_report.bPartly || !m_report.Moves.RollBack.empty() ||
                       !m_report.Trash.Batch.RollBack.empty() || !m_report.Trash.InBoth.empty();
    for (auto made = m_made.rbegin(); made != m_made.rend(); ++made) {
        mode_t ignored = 0;
        RemoveDirectory(made->first, made->second, ignored);
    }
    return failure;
}

TavroFailure TavroReversal::Check() {
    const TavroOperationKind what = m_report.Operation.Kind;
    const Role main = what == TavroOperationKind::Trash ? Role::Trashed : Role::Moved;
    TavroSeenEntry seen;
    const auto isThere = [&](const TavroStep& step) {
        return TavroIsTrashed(step) ? CheckItem(step, seen) : CheckFile(step, step.To, seen);
    };
    const auto comesBack = [&](const TavroStep& step) {
        TavroFailure wrong = isThere(step);
        wrong = wrong ? wrong : CheckFree(step.From);
        return wrong || !TavroIsTrashed(step) ? wrong : CheckWithin(step);
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
