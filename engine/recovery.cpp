#include "recovery.h"

#include "batch.h"
#include "changes.h"
#include "names.h"
#include "remove.h"
#include "trash.h"
#include "trash_record.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <set>
#include <tuple>
#include <unordered_set>

namespace {

using Role = TavroStepRole;

bool IsTrashed(const TavroStep& Step) {
    return Step.Role == Role::Trashed || Step.Role == Role::Replaced;
}

/// The inode at a path; 0 when nothing is there.
std::uint64_t InodeAt(TavroPlaces& Places, const std::string& Path) {
    TavroPlace place;
    struct stat status = {};
    return !Path.empty() && !Places.Find(Path, place) &&
                   TavroStatAt(place.Number(), place.Name.c_str(), status) == 0
               ? status.st_ino
               : 0;
}

std::string StagedPath(const TavroStep& Step) {
    const std::string& beside = Step.Role == Role::Replaced ? Step.From : Step.To;
    return Step.Staged.empty() ? "" : TavroJoin(TavroParentOf(beside), Step.Staged);
}

/// Of steps that were kept several times, the last.
std::vector<TavroStep> LatestOf(const std::vector<TavroStep>& Steps) {
    std::map<std::tuple<Role, std::string, std::string>, std::size_t> latest;
    for (std::size_t i = 0; i < Steps.size(); ++i) {
        latest[{Steps[i].Role, Steps[i].From, IsTrashed(Steps[i]) ? "" : Steps[i].To}] = i;
    }
    std::vector<TavroStep> steps;
    for (std::size_t i = 0; i < Steps.size(); ++i) {
        if (latest[{Steps[i].Role, Steps[i].From, IsTrashed(Steps[i]) ? "" : Steps[i].To}] == i) {
            steps.push_back(Steps[i]);
        }
    }
    return steps;
}

} // namespace

bool TavroIsOnItsWay(const TavroOperation& Operation) {
    return Operation.State != TavroOperationState::Done &&
           Operation.State != TavroOperationState::Undone;
}

TavroWhereabouts TavroFindStep(const TavroStep& Step, TavroPlaces& Places) {
    const std::uint64_t there = InodeAt(Places, Step.To);
    const std::uint64_t here = InodeAt(Places, Step.From);
    switch (Step.Role) {
    case Role::CreatedDirectory:
        return there != 0 ? TavroWhereabouts::AtTo : TavroWhereabouts::Nowhere;
    case Role::RemovedDirectory:
        return here != 0 ? TavroWhereabouts::AtFrom : TavroWhereabouts::AtTo;
    case Role::Planned:
        return TavroWhereabouts::AtFrom;
    default:
        break;
    }
    const std::uint64_t source = Step.Source.Inode != 0 ? Step.Source.Inode : Step.Identity.Inode;
    const bool bThere = there != 0 && there == Step.Identity.Inode;
    const bool bHere = here != 0 && here == source;
    if (Step.Role == Role::Copied || !(bThere && bHere)) {
        return bThere  ? TavroWhereabouts::AtTo
               : bHere ? TavroWhereabouts::AtFrom
                       : TavroWhereabouts::Nowhere;
    }
    return TavroWhereabouts::InBoth;
}

TavroHeadway TavroFindHeadway(const TavroOperation& Operation) {
    TavroHeadway headway;
    TavroPlaces places;
    const bool bBack = Operation.State == TavroOperationState::Undoing ||
                       Operation.Kind == TavroOperationKind::Restore;
    for (const TavroStep& step : LatestOf(Operation.Steps)) {
        if (step.Role == Role::Planned || TavroIsMainStep(step, Operation.Kind)) {
            const TavroWhereabouts where = TavroFindStep(step, places);
            ++headway.Count;
            headway.Done +=
                (bBack ? where != TavroWhereabouts::AtTo : where == TavroWhereabouts::AtTo);
        }
    }
    return headway;
}

std::vector<std::string> TavroFindLeftovers(const TavroOperation& Operation) {
    std::set<std::string> leftovers;
    std::set<std::string> directories;
    TavroPlaces places;
    for (const TavroStep& step : Operation.Steps) {
        if (!step.Staged.empty() && InodeAt(places, StagedPath(step)) != 0) {
            leftovers.insert(StagedPath(step));
        }
        directories.insert(TavroParentOf(step.To.empty() ? step.From : step.To));
        directories.insert(TavroParentOf(step.From.empty() ? step.To : step.From));
    }
    for (const std::string& directory : directories) {
        TavroDescriptor open;
        TavroListing listing;
        if (TavroOpenDirectory(directory, open) == 0 &&
            TavroListDirectory(open.Number(), listing) == 0) {
            while (const char* name = listing.Next()) {
                if (TavroIsStagingName(name)) {
                    leftovers.insert(TavroJoin(directory, name));
                }
            }
        }
    }
    return {leftovers.begin(), leftovers.end()};
}

namespace {

/// Settles the steps one by one.
class Settlement {
public:
    Settlement(const TavroOperation& Operation, const TavroCallbacks& Callbacks)
        : m_operation(Operation), m_callbacks(Callbacks), m_changes(Callbacks.bSync) {
        m_callbacks.BeforeActs = nullptr;
    }

    TavroFailure Settle(TavroStep& IoStep, TavroWhereabouts& OutWhere);

    /// @param NotDone  the steps that are not done.
    TavroFailure Finish(const std::vector<TavroStep>& NotDone) {
        RemoveRecords(NotDone);
        const int error = m_changes.Flush();
        return error == 0 ? TavroFailure() : TavroFail(TavroFailureKind::Write, error, "");
    }

private:
    TavroFailure RemoveStaged(const TavroStep& Step);
    TavroFailure MoveStagedBack(const TavroStep& Step);
    TavroFailure TrashStaged(const TavroStep& Step);
    TavroFailure Bring(const std::string& From, const std::string& To, std::uint64_t Inode);
    void TakeOwnDirectory(TavroStep& IoStep);
    void RemoveRecords(const std::vector<TavroStep>& NotDone);
    void RemoveRecordsIn(const TavroPlace& Info, const std::set<std::string>& Origins,
                         const std::set<std::string>& Items);
    bool IsCutShort(const TavroPlace& Record) const;

    const TavroOperation& m_operation;
    TavroCallbacks m_callbacks;
    TavroPlaces m_places;
    TavroChanges m_changes;
};

TavroFailure Settlement::Settle(TavroStep& IoStep, TavroWhereabouts& OutWhere) {
    TavroFailure failure = IoStep.Role == Role::Replaced ? TrashStaged(IoStep)
                           : IoStep.Source.Inode == 0    ? MoveStagedBack(IoStep)
                                                         : RemoveStaged(IoStep);
    TakeOwnDirectory(IoStep);
    OutWhere = TavroFindStep(IoStep, m_places);
    if (!failure && OutWhere == TavroWhereabouts::InBoth) {
        failure = TavroTrashSelection({TavroNameEntry(IoStep.From)}, m_callbacks, {}).Batch.Failure;
        OutWhere = failure ? OutWhere : TavroWhereabouts::AtTo;
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
        IoStep.Identity.Inode = InodeAt(m_places, IoStep.To);
    } else if (IoStep.Role == Role::RemovedDirectory &&
               (bRestore || state == TavroOperationState::Undoing)) {
        IoStep.Identity.Inode = InodeAt(m_places, IoStep.From);
    }
}

/// Only the very file or directory that was made as the copy goes.
TavroFailure Settlement::RemoveStaged(const TavroStep& Step) {
    TavroPlace place;
    const std::string path = StagedPath(Step);
    if (InodeAt(m_places, path) != Step.Identity.Inode || path.empty() ||
        m_places.Find(path, place)) {
        return {};
    }
    TavroIdentity identity = Step.Identity;
    identity.Device = place.Directory->Identity.Device;
    m_changes.Add(place.Directory);
    return TavroRemoveTree(place, {identity});
}

/// Brings the file of a step from one path to another one, at which nothing is.
TavroFailure Settlement::Bring(const std::string& From, const std::string& To,
                               std::uint64_t Inode) {
    if (From.empty() || InodeAt(m_places, From) != Inode) {
        return {};
    }
    std::vector<TavroBatchStep> steps = {{From, To}};
    return TavroRunBatch(steps, {}, m_callbacks).Failure;
}

/// What was renamed, to replace something, and has not done so, is the only one of its kind.
TavroFailure Settlement::MoveStagedBack(const TavroStep& Step) {
    return Step.Role == Role::Moved ? Bring(StagedPath(Step), Step.From, Step.Identity.Inode)
                                    : TavroFailure();
}

/// What was replaced, and has the hidden name, is on its way to the trash.
TavroFailure Settlement::TrashStaged(const TavroStep& Step) {
    return Bring(StagedPath(Step), Step.To, Step.Identity.Inode);
}

/// Records of which the items are not there, of what was to be trashed and was not, or was
/// restored.
void Settlement::RemoveRecords(const std::vector<TavroStep>& NotDone) {
    std::set<std::string> directories;
    std::set<std::string> origins;
    std::set<std::string> items;
    for (const TavroStep& step : NotDone) {
        if (IsTrashed(step)) {
            directories.insert(TavroParentOf(step.Record));
            origins.insert(step.From);
            if (m_operation.Kind == TavroOperationKind::Restore) {
                items.insert(TavroNameOf(step.To));
            }
        }
    }
    for (const std::string& directory : directories) {
        TavroPlace inside;
        if (!m_places.Find(TavroJoin(directory, "x"), inside)) {
            RemoveRecordsIn(inside, origins, items);
        }
    }
}

/// @param Info     a place in the directory of records.
/// @param Origins  what a record tells that goes; in Items, which goes whatever it tells.
void Settlement::RemoveRecordsIn(const TavroPlace& Info, const std::set<std::string>& Origins,
                                 const std::set<std::string>& Items) {
    TavroDescriptor files;
    TavroListing listing;
    std::unordered_set<std::string> there;
    if (TavroOpenDirectoryAt(Info.Number(), "../files", files) != 0 ||
        TavroListDirectory(files.Number(), listing) != 0) {
        return;
    }
    while (const char* name = listing.Next()) {
        there.insert(name);
    }
    TavroListing records;
    TavroListDirectory(Info.Number(), records);
    while (const char* name = records.Next()) {
        const std::optional<std::string> item = TavroItemOfRecord(name);
        if (!item || there.count(*item) != 0) {
            continue;
        }
        const auto told = TavroReadRecord(Info.Number(), *item, TavroHomeDirectoryPath());
        if (Items.count(*item) != 0 ||
            (told ? Origins.count(told->Path) != 0 : IsCutShort({Info.Directory, name}))) {
            TavroUnlinkAt(Info.Number(), name);
            m_changes.Add(Info.Directory);
        }
    }
}

/// Whether a record that tells nothing was begun by the operation. Another program that is about to
/// write one needs no second for it.
bool Settlement::IsCutShort(const TavroPlace& Record) const {
    struct stat status = {};
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    constexpr std::int64_t second = 1'000'000'000;
    return TavroStatAt(Record.Number(), Record.Name.c_str(), status) == 0 &&
           status.st_mtim.tv_sec >= m_operation.Time &&
           TavroNanoseconds(status.st_mtim) + second < TavroNanoseconds(now);
}

} // namespace

TavroFailure TavroSettle(const TavroOperation& Operation, const TavroCallbacks& Callbacks,
                         std::vector<TavroStep>& OutDone, std::vector<TavroStep>& OutNotDone) {
    Settlement settlement(Operation, Callbacks);
    for (TavroStep& step : LatestOf(Operation.Steps)) {
        TavroWhereabouts where = TavroWhereabouts::Nowhere;
        if (TavroFailure failure = settlement.Settle(step, where)) {
            return failure;
        }
        const bool bDone = where == TavroWhereabouts::AtTo;
        (bDone ? OutDone : OutNotDone).push_back(std::move(step));
    }
    return settlement.Finish(OutNotDone);
}
