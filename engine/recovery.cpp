#include "recovery.h"

#include "changes.h"
#include "names.h"
#include "remove.h"
#include "trash.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

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
    return Step.Staged.empty() ? "" : TavroJoin(TavroParentOf(Step.To), Step.Staged);
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
    explicit Settlement(const TavroCallbacks& Callbacks)
        : m_callbacks(Callbacks), m_changes(Callbacks.bSync) {
        m_callbacks.BeforeActs = nullptr;
    }

    TavroFailure Settle(const TavroStep& Step, TavroWhereabouts& OutWhere);

    TavroFailure Finish() {
        const int error = m_changes.Flush();
        return error == 0 ? TavroFailure() : TavroFail(TavroFailureKind::Write, error, "");
    }

private:
    TavroFailure RemoveStaged(const TavroStep& Step);
    void RemoveRecord(const TavroStep& Step);

    TavroCallbacks m_callbacks;
    TavroPlaces m_places;
    TavroChanges m_changes;
};

TavroFailure Settlement::Settle(const TavroStep& Step, TavroWhereabouts& OutWhere) {
    TavroFailure failure = RemoveStaged(Step);
    OutWhere = TavroFindStep(Step, m_places);
    if (!failure && OutWhere == TavroWhereabouts::InBoth) {
        failure = TavroTrashSelection({TavroNameEntry(Step.From)}, m_callbacks, {}).Batch.Failure;
        OutWhere = failure ? OutWhere : TavroWhereabouts::AtTo;
    }
    if (!failure && IsTrashed(Step) && OutWhere != TavroWhereabouts::AtTo) {
        RemoveRecord(Step);
    }
    return failure;
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

/// The record of what is not in the trash.
void Settlement::RemoveRecord(const TavroStep& Step) {
    TavroPlace record;
    if (InodeAt(m_places, Step.To) == 0 && !m_places.Find(Step.Record, record)) {
        TavroUnlinkAt(record.Number(), record.Name.c_str());
        m_changes.Add(record.Directory);
    }
}

} // namespace

TavroFailure TavroSettle(const TavroOperation& Operation, const TavroCallbacks& Callbacks,
                         std::vector<TavroStep>& OutDone, std::vector<TavroStep>& OutNotDone) {
    Settlement settlement(Callbacks);
    for (TavroStep& step : LatestOf(Operation.Steps)) {
        TavroWhereabouts where = TavroWhereabouts::Nowhere;
        if (TavroFailure failure = settlement.Settle(step, where)) {
            return failure;
        }
        const bool bDone = where == TavroWhereabouts::AtTo;
        (bDone ? OutDone : OutNotDone).push_back(std::move(step));
    }
    return settlement.Finish();
}
