#include "settlement.h"

#include "batch.h"
#include "changes.h"
#include "mounts.h"
#include "names.h"
#include "recovery.h"
#include "remove.h"
#include "trash.h"
#include "trash_record.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <unordered_set>

namespace {

using Role = TavroStepRole;

/// The path of a hidden name beside another path.
std::string Beside(const std::string& Path, const std::string& Staged) {
    return Staged.empty() || Path.empty() ? "" : TavroJoin(TavroParentOf(Path), Staged);
}

/// The file of a step that is at these.
TavroIdentity AtPlace(const TavroStep& Step) {
    return TavroIsTrashed(Step) && Step.Source.Inode != 0 ? Step.Source : Step.Identity;
}
TavroIdentity AtHome(const TavroStep& Step) {
    return TavroIsTrashed(Step) || Step.Source.Inode == 0 ? Step.Identity : Step.Source;
}

std::uint64_t InodeAt(TavroPlaces& Places, const std::string& Path) {
    return TavroIdentityAt(Places, Path).Inode;
}

/// Settles the steps one by one.
class Settlement {
public:
    Settlement(TavroHistory& History, TavroOperation& IoOperation, bool bGoOn,
               const TavroCallbacks& Callbacks, std::vector<std::string>& OutTrashed)
        : m_history(History), m_operation(IoOperation), m_bGoOn(bGoOn), m_callbacks(Callbacks),
          m_changes(Callbacks.bSync), m_trashed(OutTrashed) {
        m_callbacks.BeforeActs = nullptr;
        std::set<std::string> starts;
        std::istringstream words(IoOperation.Staging);
        for (std::string word; words >> word;) {
            if (word[0] == '@') {
                starts.insert(word);
            }
        }
        m_bSameStart = starts == std::set<std::string>{TavroBootMark()};
    }

    /// What has stepped aside for an exchange that takes several renames comes back.
    void TakeAsideBack(const TavroStep& Step);

    /// An undo or a redo whose files had exchanged their names is as it was before that.
    TavroFailure TakeExchangesBack(const std::vector<TavroStep>& Steps);

    /// What was to be deleted for a step's file, and waits for that under its hidden name, goes to
    /// the trash instead.
    /// @param OutSteps  gets the step of that.
    TavroFailure KeepReplaced(const TavroStep& Step, const std::vector<TavroStep>& Steps,
                              std::vector<TavroStep>& OutSteps);

    TavroFailure Settle(TavroStep& IoStep, TavroWhereabouts& OutWhere);
    bool IsEarlier(const TavroStep& Step);

    /// @param NotDone  the steps that are not done.
    TavroFailure Finish(const std::vector<TavroStep>& NotDone) {
        RemoveRecords(NotDone);
        RemoveLeftovers();
        const int error = m_changes.Flush();
        return error == 0 ? TavroFailure()
                          : TavroFail(TavroFailureKind::Write, error,
                                      TavroPlaceOf(m_operation.Steps.front()));
    }

private:
    TavroFailure ExchangeBack(const TavroStep& Comes, const std::vector<TavroStep>& Steps);
    TavroFailure SettlePlace(TavroStep& IoStep);
    TavroFailure SettleBoth(const TavroStep& Step, TavroWhereabouts& OutWhere);
    TavroFailure RemoveCopy(const TavroStep& Step);
    TavroFailure Trash(const std::string& Path);
    TavroFailure TrashAgain(TavroStep& IoStep, const std::string& Hidden);
    bool Publish(const TavroStep& Step);
    TavroFailure SettleHome(const TavroStep& Step);
    TavroFailure Remove(const std::string& Path, TavroIdentity Identity);
    TavroFailure Bring(const std::string& From, const std::string& To, TavroIdentity& IoIdentity,
                       const TavroBatchHooks& Hooks = {});
    TavroFailure BringHome(const std::string& Hidden, TavroStep& IoStep);
    void TakeOwnDirectory(TavroStep& IoStep);
    void RemoveLeftovers();
    bool IsOwnCopy(const std::string& Name) const;
    void RemoveRecords(const std::vector<TavroStep>& NotDone);
    void RemoveRecordsIn(const std::string& Directory, const std::set<std::string>& Origins,
                         const std::set<std::string>& Items);
    std::map<std::string, std::string> FindRecords(const TavroPlace& Info, int Files,
                                                   const std::set<std::string>& Origins,
                                                   const std::set<std::string>& Items) const;
    bool IsBegun(const TavroPlace& Record) const;
    bool ToldByOthers(std::set<std::string>& OutPaths);

    TavroHistory& m_history;
    TavroOperation& m_operation;
    const bool m_bGoOn;
    bool m_bSameStart = false; ///< The system was not started anew since the operation was begun.
    TavroCallbacks m_callbacks;
    TavroPlaces m_places;
    TavroChanges m_changes;
    std::vector<std::string>& m_trashed;
};

TavroFailure Settlement::Settle(TavroStep& IoStep, TavroWhereabouts& OutWhere) {
    TavroFailure failure = SettlePlace(IoStep);
    failure = failure ? failure : SettleHome(IoStep);
    TakeOwnDirectory(IoStep);
    OutWhere = TavroFindStep(IoStep, m_places);
    return failure || OutWhere != TavroWhereabouts::InBoth ? failure : SettleBoth(IoStep, OutWhere);
}

/// One of the two is whole, and of the other one a part at least. What was copied goes to the trash
/// when that is undone.
TavroFailure Settlement::SettleBoth(const TavroStep& Step, TavroWhereabouts& OutWhere) {
    const bool bUndoneCopy =
        m_operation.Kind == TavroOperationKind::Copy && Step.Role == Role::Trashed;
    OutWhere = TavroWhereabouts::AtFrom;
    if (TavroGoesBack(m_operation) != bUndoneCopy) {
        return RemoveCopy(Step);
    }
    struct stat source = {};
    TavroPlace place;
    const bool bFile =
        m_places.Look(Step.From, place, source) == 0 && !S_ISDIR(source.st_mode); // which is whole
    if (bFile && Step.SourceTime != 0 && TavroNanoseconds(source.st_ctim) != Step.SourceTime) {
        return RemoveCopy(Step); // somebody has gone on working with it
    }
    TavroFailure failure = Trash(Step.From);
    if (failure && bFile) {
        return RemoveCopy(Step);
    }
    OutWhere = TavroWhereabouts::AtTo;
    return failure;
}

/// Of a file that is at both of its paths, and stays at `From`.
TavroFailure Settlement::RemoveCopy(const TavroStep& Step) {
    return TavroIsTrashed(Step) ? Remove(Step.To, Step.Identity) : Trash(Step.To);
}

TavroFailure Settlement::Trash(const std::string& Path) {
    TavroFailure failure =
        TavroTrashSelection({TavroNameEntry(Path)}, m_callbacks, {}).Batch.Failure;
    if (!failure) {
        m_trashed.push_back(Path);
    }
    return failure;
}

/// A directory that was missing before, and is there, is the one that the operation has made.
void Settlement::TakeOwnDirectory(TavroStep& IoStep) {
    const TavroOperationState state = m_operation.State;
    const bool bRestore = m_operation.Kind == TavroOperationKind::Restore;
    if (IoStep.Role == Role::CreatedDirectory &&
        (state == TavroOperationState::Doing ||
         (state == TavroOperationState::Redoing && IoStep.Identity.Inode != 0))) {
        IoStep.Identity = TavroIdentityAt(m_places, IoStep.To);
    } else if (IoStep.Role == Role::RemovedDirectory &&
               (bRestore || state == TavroOperationState::Undoing)) {
        IoStep.Identity = TavroIdentityAt(m_places, IoStep.From);
    }
}

/// What waits beside its place for its name goes back to where it was; a copy, when that is there,
/// goes for good.
TavroFailure Settlement::SettlePlace(TavroStep& IoStep) {
    const std::string hidden = Beside(TavroPlaceOf(IoStep), IoStep.Staged);
    const TavroIdentity comes = AtPlace(IoStep);
    if (hidden.empty() || comes.Inode == 0 || InodeAt(m_places, hidden) != comes.Inode) {
        return {};
    }
    TavroPlace place;
    if (TavroIdentityAt(m_places, TavroHomeOf(IoStep)) == TavroIdentityAt(m_places, hidden) &&
        !m_places.Find(hidden, place)) {
        TavroUnlinkAt(place.Number(), place.Name.c_str()); // of a rename one half reached the disk
        m_changes.Add(place.Directory);
        return {};
    }
    const bool bCopy = IoStep.Source.Inode != 0 && InodeAt(m_places, TavroHomeOf(IoStep)) != 0;
    if (bCopy || IoStep.Role == Role::Copied) {
        const bool bStays = m_bGoOn && (IsEarlier(IoStep) || Publish(IoStep));
        return bStays ? TavroFailure() : Remove(hidden, comes);
    }
    if (TavroIsTrashed(IoStep) && InodeAt(m_places, IoStep.Record) == 0) {
        return TrashAgain(IoStep, hidden);
    }
    return BringHome(hidden, IoStep);
}

/// Brings what is hidden to where it is when it does not show. Where it is copied to there, the
/// history is told which file it is then: who looks after the next kill would know neither of both.
TavroFailure Settlement::BringHome(const std::string& Hidden, TavroStep& IoStep) {
    const bool bTrashed = TavroIsTrashed(IoStep);
    TavroIdentity& home = IoStep.Source.Inode == 0 || bTrashed ? IoStep.Identity : IoStep.Source;
    const TavroIdentity hidden = AtPlace(IoStep);
    home = hidden;
    TavroBatchHooks hooks;
    hooks.BeforePublish = [&](std::size_t, const TavroFileState& made, const std::string&) {
        TavroStep step = IoStep;
        (bTrashed ? step.Source : step.Identity) = hidden;
        (bTrashed ? step.Identity : step.Source) = made.Identity;
        TavroFailure failure =
            m_history.KeepSteps(m_operation.Id, m_operation.Steps.size(), {step});
        if (!failure) {
            m_operation.Steps.push_back(std::move(step));
        }
        return failure;
    };
    return Bring(Hidden, TavroHomeOf(IoStep), home, hooks);
}

/// Whether what waits is a directory that was copied in part, of which what is whole can be taken
/// over. After a power cut files could look whole that are not.
bool Settlement::IsEarlier(const TavroStep& Step) {
    const std::string hidden = TavroIsTrashed(Step) ? "" : Beside(Step.To, Step.Staged);
    TavroPlace place;
    struct stat status = {};
    return m_bGoOn && m_bSameStart && !hidden.empty() &&
           m_places.Look(hidden, place, status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_ino == Step.Identity.Inode;
}

/// Its item and its record were taken out by others meanwhile: it becomes an item with a record.
TavroFailure Settlement::TrashAgain(TavroStep& IoStep, const std::string& Hidden) {
    const TavroTrashReport report =
        TavroTrashSelection({TavroNameEntry(Hidden)}, m_callbacks, {}, {IoStep.From});
    if (!report.Batch.Failure) {
        IoStep.To = report.Entries[0].Entry.TrashPath;
        IoStep.Record = report.Entries[0].Entry.InfoPath;
        IoStep.Identity = report.Entries[0].Item;
    }
    return report.Batch.Failure;
}

TavroFailure Settlement::KeepReplaced(const TavroStep& Step, const std::vector<TavroStep>& Steps,
                                      std::vector<TavroStep>& OutSteps) {
    const bool bMain = Step.Role == Role::Moved || Step.Role == Role::Copied;
    const std::string hidden = bMain ? Beside(Step.To, Step.Staged) : "";
    if (m_operation.State != TavroOperationState::Doing || hidden.empty()) {
        return {};
    }
    const std::uint64_t there = InodeAt(m_places, hidden);
    if (there == 0 || there == Step.Identity.Inode ||
        InodeAt(m_places, Step.To) != Step.Identity.Inode) {
        return {};
    }
    const auto isOfTrash = [&](const TavroStep& step) {
        return step.Role == Role::Replaced && step.From == Step.To;
    };
    if (std::any_of(Steps.begin(), Steps.end(), isOfTrash)) {
        return {};
    }
    TavroStep old = {Role::Replaced, Step.To};
    TavroPlace place;
    struct stat status = {};
    const bool bWhole = m_places.Look(hidden, place, status) == 0 && !S_ISDIR(status.st_mode);
    TavroFailure failure = TrashAgain(old, hidden);
    if (!failure && bWhole) { // of a directory a part may be gone: it does not come back
        OutSteps.push_back(std::move(old));
    }
    return failure;
}

/// Gives the copy of a file its name, unless its source changed, or something has the name. It is
/// on the disk: it was before the history was told of it.
bool Settlement::Publish(const TavroStep& Step) {
    TavroPlace from;
    TavroPlace to;
    struct stat status = {};
    if (TavroIsTrashed(Step) || m_places.Find(Step.From, from) || m_places.Find(Step.To, to) ||
        TavroLookAt(from, status) != 0 || S_ISDIR(status.st_mode) ||
        status.st_ino != Step.Source.Inode || TavroNanoseconds(status.st_ctim) != Step.SourceTime) {
        return false;
    }
    m_changes.Add(to.Directory);
    return TavroRenameNoReplace(to.Number(), Step.Staged.c_str(), to.Number(), to.Name.c_str()) ==
           0;
}

/// What waits where a file goes to from its place is a copy. Of what was replaced it may be all
/// that a name is known of.
TavroFailure Settlement::SettleHome(const TavroStep& Step) {
    const std::string hidden = Beside(TavroHomeOf(Step), Step.Staged);
    TavroIdentity copy = AtHome(Step);
    if (Step.Source.Inode == 0) {
        return {};
    }
    return Step.Role == Role::Replaced && InodeAt(m_places, Step.From) != Step.Source.Inode
               ? Bring(hidden, Step.To, copy)
               : Remove(hidden, copy);
}

void Settlement::TakeAsideBack(const TavroStep& Step) {
    const std::string& path = TavroPlaceOf(Step);
    const std::string hidden = Beside(path, Step.Staged);
    const std::string aside = TavroAsideName(hidden);
    TavroPlace place;
    if (hidden.empty() || InodeAt(m_places, aside) == 0 || m_places.Find(aside, place)) {
        return;
    }
    const std::string& free = InodeAt(m_places, path) == 0 ? path : hidden;
    TavroRenameNoReplace(place.Number(), place.Name.c_str(), place.Number(),
                         TavroNameOf(free).c_str());
    m_changes.Add(place.Directory);
}

TavroFailure Settlement::TakeExchangesBack(const std::vector<TavroStep>& Steps) {
    const bool bUndoing = m_operation.State == TavroOperationState::Undoing;
    TavroFailure failure;
    for (const TavroStep& step : Steps) {
        if ((bUndoing || m_operation.State == TavroOperationState::Redoing) && !failure &&
            !step.Staged.empty() && (step.Role == Role::Replaced) == bUndoing) {
            failure = ExchangeBack(step, Steps);
        }
    }
    return failure;
}

/// @param Comes  the step whose file may have got its name from another one, which is hidden then.
TavroFailure Settlement::ExchangeBack(const TavroStep& Comes, const std::vector<TavroStep>& Steps) {
    const std::string& path = TavroPlaceOf(Comes);
    const std::string hidden = Beside(path, Comes.Staged);
    const std::uint64_t there = InodeAt(m_places, hidden);
    TavroPlace place;
    TavroIdentity goes;
    bool bGone = false;
    for (const TavroStep& step : Steps) {
        if (there != 0 && AtPlace(step).Inode == there && &step != &Comes &&
            TavroPlaceOf(step) == path) {
            goes = AtPlace(step);
            bGone = bGone || (step.Source.Inode != 0 && step.Role != Role::Copied &&
                              InodeAt(m_places, TavroHomeOf(step)) == AtHome(step).Inode);
        }
    }
    if (goes.Inode == 0 || InodeAt(m_places, path) != AtPlace(Comes).Inode ||
        m_places.Find(path, place)) {
        return {};
    }
    if (bGone) {
        return Remove(hidden, goes);
    }
    m_changes.Add(place.Directory);
    const int error =
        TavroExchange(place.Number(), Comes.Staged.c_str(), place.Number(), place.Name.c_str());
    return error == 0 ? TavroFailure() : TavroFail(TavroFailureKind::Write, error, path);
}

TavroFailure Settlement::Remove(const std::string& Path, TavroIdentity Identity) {
    TavroPlace place;
    if (Path.empty() || InodeAt(m_places, Path) != Identity.Inode || m_places.Find(Path, place)) {
        return {};
    }
    Identity.Device = place.Directory->Identity.Device;
    m_changes.Add(place.Directory);
    return TavroRemoveTree(place, {Identity});
}

/// Brings a file from one path to another one, at which nothing is. It may be copied.
TavroFailure Settlement::Bring(const std::string& From, const std::string& To,
                               TavroIdentity& IoIdentity, const TavroBatchHooks& Hooks) {
    if (From.empty() || InodeAt(m_places, From) != IoIdentity.Inode) {
        return {};
    }
    std::vector<TavroBatchStep> steps = {{From, To}};
    TavroFailure failure = TavroRunBatch(steps, Hooks, m_callbacks).Failure;
    IoIdentity = failure ? IoIdentity : steps[0].Arrived.Identity;
    return failure;
}

/// What was staged and not told of yet is a copy. What a step tells of under a hidden name, and is
/// there still, may be the only one of its kind.
void Settlement::RemoveLeftovers() {
    std::set<std::string> told;
    const auto tell = [&](const TavroStep& step) {
        told.insert(Beside(step.From, step.Staged));
        told.insert(Beside(step.To, step.Staged));
    };
    for (const TavroStep& step : m_operation.Steps) {
        // Of what is copied a resumption may have made another copy.
        if (step.Role != Role::Copied && (step.Source.Inode == 0 || TavroIsTrashed(step))) {
            tell(step);
        }
    }
    for (const TavroStep& step : TavroLatestOf(m_operation.Steps)) {
        tell(step);
    }
    for (const std::string& path : TavroFindLeftovers(m_operation)) {
        if (IsOwnCopy(TavroNameOf(path)) && told.count(path) == 0) {
            Remove(path, TavroIdentityAt(m_places, path));
        }
    }
}

/// Whether the operation has given a hidden name, and to no file that it found.
bool Settlement::IsOwnCopy(const std::string& Name) const {
    const std::string prefix = ' ' + Name.substr(0, TavroStagingPrefix().size());
    return !TavroIsAsideName(Name) &&
           (m_operation.Staging + ' ').find(prefix + ' ') != std::string::npos;
}

/// Whether a path, or one above it, is among others.
bool IsAmong(const std::set<std::string>& Others, std::string Path) {
    while (Others.count(Path) == 0 && Path.size() > 1) {
        Path = TavroParentOf(Path);
    }
    return Others.count(Path) != 0;
}

/// Records of which the items are not there, of what was to be trashed and was not, or was
/// restored. What was to take the place of something may have got a record for that, of which the
/// history was not told yet.
void Settlement::RemoveRecords(const std::vector<TavroStep>& NotDone) {
    std::set<std::string> directories;
    std::set<std::string> origins;
    std::set<std::string> items;
    for (const TavroStep& step : NotDone) {
        if (TavroIsTrashed(step)) {
            directories.insert(TavroParentOf(step.Record));
            origins.insert(step.From);
            if (m_operation.Kind == TavroOperationKind::Restore) {
                items.insert(TavroNameOf(step.To));
            }
        }
    }
    const bool bMayReplace = m_operation.Kind == TavroOperationKind::Copy ||
                             m_operation.Kind == TavroOperationKind::Move;
    std::set<std::uint64_t> mounts;
    for (const TavroStep& step : m_operation.Steps) {
        if (bMayReplace && step.Role != Role::CreatedDirectory &&
            step.Role != Role::RemovedDirectory) {
            directories.insert(TavroFindTrashFolders().Info);
            origins.insert(TavroPlaceOf(step));
            mounts.insert(TavroVolumeOf(m_places, TavroPlaceOf(step)).Mount);
        }
    }
    for (const TavroMount& mount : mounts.empty() ? std::vector<TavroMount>() : TavroReadMounts()) {
        for (const TavroTrashFolders& folders : TavroTrashFoldersOnVolume(mount.Point)) {
            directories.insert(mounts.count(mount.Number) != 0 ? folders.Info : "");
        }
    }
    directories.erase("");
    for (const std::string& directory : directories) {
        RemoveRecordsIn(directory, origins, items);
    }
}

/// Others are asked about what was found, and its items looked for, after that: who trashes
/// something tells of it, writes the record, moves the item, and ends, in this order.
void Settlement::RemoveRecordsIn(const std::string& Directory, const std::set<std::string>& Origins,
                                 const std::set<std::string>& Items) {
    TavroPlace info;
    TavroDescriptor files;
    const std::string inside = TavroJoin(Directory, "x");
    if (m_places.Find(inside, info) || TavroIsLedAway(info, inside) ||
        TavroOpenDirectoryAt(info.Number(), "../files", files) != 0) {
        return;
    }
    const auto records = FindRecords(info, files.Number(), Origins, Items);
    std::set<std::string> others;
    if (records.empty() || !ToldByOthers(others)) {
        return;
    }
    for (const auto& [item, path] : records) {
        const std::string name = TavroRecordName(item);
        struct stat status = {};
        if (!IsAmong(others, path) && others.count(TavroJoin(Directory, name)) == 0 &&
            TavroStatAt(files.Number(), item.c_str(), status) == ENOENT) {
            TavroUnlinkAt(info.Number(), name.c_str());
            m_changes.Add(info.Directory);
        }
    }
}

/// Finds records whose items are not there.
/// @param Origins  a record goes that tells one of these, or, when the operation has begun it, is
///                 in one of them.
/// @param Items    theirs go whatever they tell.
/// @return the items, and the paths that the records tell.
std::map<std::string, std::string>
Settlement::FindRecords(const TavroPlace& Info, int Files, const std::set<std::string>& Origins,
                        const std::set<std::string>& Items) const {
    std::map<std::string, std::string> found;
    TavroListing listing;
    std::unordered_set<std::string> there;
    if (TavroListDirectory(Files, listing) != 0) {
        return found;
    }
    while (const char* name = listing.Next()) {
        there.insert(name);
    }
    TavroListing records;
    TavroListDirectory(Info.Number(), records);
    const std::string base = TavroTrashFoldersOf(Info.Path()).Base;
    while (const char* name = records.Next()) {
        const std::optional<std::string> item = TavroItemOfRecord(name);
        if (!item || there.count(*item) != 0) {
            continue;
        }
        const auto told = TavroReadRecord(Info.Number(), *item, base);
        if (Items.count(*item) != 0 || (told && Origins.count(told->Path) != 0) ||
            ((!told || IsAmong(Origins, told->Path)) && IsBegun({Info.Directory, name}))) {
            found[*item] = told ? told->Path : "";
        }
    }
    return found;
}

/// What other operations on their way tell of. @return whether all could be read.
bool Settlement::ToldByOthers(std::set<std::string>& OutPaths) {
    std::vector<TavroOperation> operations;
    std::vector<std::uint64_t> counts;
    if (m_history.List(false, operations, counts)) {
        return false;
    }
    for (const TavroOperation& operation : operations) {
        for (const TavroStep& step : operation.Steps) {
            if (TavroIsOnItsWay(operation) && operation.Id != m_operation.Id) {
                OutPaths.insert({step.From, step.To, step.Record});
            }
        }
    }
    OutPaths.erase("");
    return true;
}

/// Whether a record can have been begun by the operation, and by nobody who is about to use it:
/// another program needs no second for that.
bool Settlement::IsBegun(const TavroPlace& Record) const {
    struct stat status = {};
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return TavroLookAt(Record, status) == 0 && status.st_mtim.tv_sec >= m_operation.Time &&
           TavroNanoseconds(status.st_mtim) + TavroSecond < TavroNanoseconds(now);
}

} // namespace

TavroFailure TavroSettle(TavroHistory& History, TavroOperation& IoOperation, bool bGoOn,
                         const TavroCallbacks& Callbacks, std::vector<TavroStep>& OutDone,
                         std::vector<TavroStep>& OutNotDone, std::vector<std::string>& OutTrashed) {
    Settlement settlement(History, IoOperation, bGoOn, Callbacks, OutTrashed);
    std::vector<TavroStep> steps = TavroLatestOf(IoOperation.Steps);
    for (const TavroStep& step : steps) {
        settlement.TakeAsideBack(step);
    }
    if (TavroFailure failure = settlement.TakeExchangesBack(steps)) {
        return failure;
    }
    for (const TavroStep& step : steps) {
        if (TavroFailure failure = settlement.KeepReplaced(step, steps, OutDone)) {
            return failure;
        }
    }
    for (TavroStep& step : steps) {
        TavroWhereabouts where = TavroWhereabouts::Nowhere;
        if (TavroFailure failure = settlement.Settle(step, where)) {
            return failure;
        }
        const bool bDone = where == TavroWhereabouts::AtTo;
        const bool bEarlier = !bDone && settlement.IsEarlier(step);
        const TavroIdentity made = step.Identity;
        step.Identity = !bDone && step.Source.Inode != 0 ? step.Source : step.Identity;
        step.Source = bEarlier ? made : TavroIdentity();
        step.SourceTime = 0;
        // Otherwise it may be another file.
        step.ChangeTime = bDone && TavroIsTrashed(step) ? step.ChangeTime : 0;
        step.Staged = bEarlier ? step.Staged : "";
        (bDone ? OutDone : OutNotDone).push_back(std::move(step));
    }
    // The rest of a source that went to the trash may have been a step's own file.
    TavroPlaces places;
    const auto isThere = [&](const TavroStep& step) {
        return step.Role != Role::Copied || TavroFindStep(step, places) == TavroWhereabouts::AtTo;
    };
    const auto gone = std::stable_partition(OutDone.begin(), OutDone.end(), isThere);
    std::move(gone, OutDone.end(), std::back_inserter(OutNotDone));
    OutDone.erase(gone, OutDone.end());
    return settlement.Finish(OutNotDone);
}
