#include "recovery.h"

#include "names.h"
#include "walk.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <utility>

namespace {

using Role = TavroStepRole;

/// A copy that comes back from the trash of another file system is another file.
void RenewCopies(std::vector<TavroStep>& IoSteps) {
    std::map<std::string, TavroIdentity> files;
    for (const TavroStep& step : IoSteps) {
        if (step.Role == Role::Trashed && step.Source.Inode != 0) {
            files[step.From] = step.Source;
        }
    }
    for (TavroStep& step : IoSteps) {
        const auto found = step.Role == Role::Copied ? files.find(step.To) : files.end();
        step.Identity = found == files.end() ? step.Identity : found->second;
    }
}

} // namespace

TavroIdentity TavroIdentityAt(TavroPlaces& Places, const std::string& Path) {
    TavroPlace place;
    struct stat status = {};
    return !Path.empty() && Places.Look(Path, place, status) == 0 ? TavroIdentityOf(status)
                                                                  : TavroIdentity();
}

bool TavroGoesBack(const TavroOperation& Operation) {
    return Operation.State == TavroOperationState::Undoing ||
           Operation.Kind == TavroOperationKind::Restore;
}

std::vector<TavroStep> TavroLatestOf(const std::vector<TavroStep>& Steps) {
    std::map<std::tuple<Role, std::string, std::string>, const TavroStep*> latest;
    const auto latestLike = [&](const TavroStep& step) -> const TavroStep*& {
        return latest[{step.Role, step.From, TavroIsTrashed(step) ? "" : step.To}];
    };
    for (const TavroStep& step : Steps) {
        latestLike(step) = &step;
    }
    std::vector<TavroStep> steps;
    for (const TavroStep& step : Steps) {
        if (const TavroStep* last = std::exchange(latestLike(step), nullptr)) {
            steps.push_back(*last);
        }
    }
    RenewCopies(steps);
    return steps;
}

bool TavroIsTrashed(const TavroStep& Step) {
    return Step.Role == Role::Trashed || Step.Role == Role::Replaced;
}

const std::string& TavroPlaceOf(const TavroStep& Step) {
    return TavroIsTrashed(Step) ? Step.From : Step.To;
}

const std::string& TavroHomeOf(const TavroStep& Step) {
    return TavroIsTrashed(Step) ? Step.To : Step.From;
}

const std::string& TavroDirectoryOf(const TavroStep& Step) {
    return Step.Role == Role::CreatedDirectory ? Step.To : Step.From;
}

bool TavroIsOnItsWay(const TavroOperation& Operation) {
    return Operation.State != TavroOperationState::Done &&
           Operation.State != TavroOperationState::Undone;
}

TavroWhereabouts TavroFindStep(const TavroStep& Step, TavroPlaces& Places) {
    const TavroIdentity atTo = TavroIdentityAt(Places, Step.To);
    const TavroIdentity atFrom = TavroIdentityAt(Places, Step.From);
    const std::uint64_t there = atTo.Inode;
    const std::uint64_t here = atFrom.Inode;
    switch (Step.Role) {
    case Role::CreatedDirectory:
        return there != 0 ? TavroWhereabouts::AtTo : TavroWhereabouts::Nowhere;
    case Role::RemovedDirectory:
        return here != 0 ? TavroWhereabouts::AtFrom : TavroWhereabouts::AtTo;
    case Role::Planned:
        return TavroWhereabouts::AtFrom;
    case Role::Deleted:
        return here == Step.Identity.Inode ? TavroWhereabouts::AtFrom : TavroWhereabouts::AtTo;
    default:
        break;
    }
    const TavroIdentity& source = Step.Source.Inode != 0 ? Step.Source : Step.Identity;
    bool bThere = there != 0 && there == Step.Identity.Inode;
    bool bHere = here != 0 && here == source.Inode;
    if (bThere && bHere && Step.Source.Inode == 0 && atTo.Device != atFrom.Device) {
        // Two file systems may give one number; without a copy the file is on one of them.
        bHere = atFrom.Device == Step.Identity.Device;
        bThere = !bHere;
    }
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
    const bool bBack = TavroGoesBack(Operation);
    const std::vector<TavroStep> steps = TavroLatestOf(Operation.Steps);
    std::set<std::string> begun;
    for (const TavroStep& step : steps) {
        if (TavroIsMainStep(step, Operation.Kind)) {
            begun.insert(step.From);
        }
    }
    for (const TavroStep& step : steps) {
        const bool bPlanned = step.Role == Role::Planned && begun.count(step.From) == 0;
        if (bPlanned || TavroIsMainStep(step, Operation.Kind)) {
            const TavroWhereabouts where = TavroFindStep(step, places);
            ++headway.Count;
            headway.Done +=
                (bBack ? where != TavroWhereabouts::AtTo : where == TavroWhereabouts::AtTo);
        }
    }
    return headway;
}

namespace {

void AddLeftoversIn(const std::string& Directory, std::set<std::string>& OutPaths) {
    TavroDescriptor open;
    TavroListing listing;
    if (TavroOpenDirectory(Directory, open) != 0 ||
        TavroListDirectory(open.Number(), listing) != 0) {
        return;
    }
    while (const char* name = listing.Next()) {
        if (TavroIsStagingName(name)) {
            OutPaths.insert(TavroJoin(Directory, name));
        }
    }
}

/// In a directory that others were to be merged into.
void AddLeftoversBelow(const std::string& Directory, std::set<std::string>& OutPaths) {
    TavroPlaces places;
    TavroPlace place;
    struct stat status = {};
    if (places.Look(Directory, place, status) != 0 || !S_ISDIR(status.st_mode)) {
        return;
    }
    TavroTreeWalk walk(place.Number(), place.Name);
    for (TavroWalkEvent event = walk.Next();
         event != TavroWalkEvent::End && event != TavroWalkEvent::LostWay; event = walk.Next()) {
        const std::string below = walk.Below();
        if ((event == TavroWalkEvent::Leaf || event == TavroWalkEvent::Enter) && !below.empty() &&
            TavroIsStagingName(TavroNameOf(below))) {
            OutPaths.insert(TavroJoin(Directory, below));
            if (event == TavroWalkEvent::Enter) {
                walk.Skip();
            }
        }
    }
}

} // namespace

std::vector<std::string> TavroFindLeftovers(const TavroOperation& Operation) {
    std::set<std::string> leftovers;
    std::set<std::string> directories;
    for (const TavroStep& step : Operation.Steps) {
        directories.insert(TavroParentOf(step.To.empty() ? step.From : step.To));
        directories.insert(TavroParentOf(step.From.empty() ? step.To : step.From));
    }
    for (const std::string& directory : directories) {
        AddLeftoversIn(directory, leftovers);
    }
    for (const TavroStep& step : Operation.Steps) {
        if (step.Role == Role::Planned) {
            AddLeftoversBelow(step.To, leftovers);
        }
    }
    return {leftovers.begin(), leftovers.end()};
}

std::vector<std::string> TavroFindOrphans(const std::vector<TavroOperation>& Operations) {
    std::set<std::string> orphans;
    std::set<std::string> owned;
    std::set<std::string> trashes; // where they are items, or have no record
    for (const TavroOperation& operation : Operations) {
        for (const TavroStep& step : operation.Steps) {
            trashes.insert(TavroIsTrashed(step) ? TavroParentOf(step.To) : "");
        }
        for (std::string& path : TavroFindLeftovers(operation)) {
            (TavroIsOnItsWay(operation) ? owned : orphans).insert(std::move(path));
        }
    }
    const auto isOrphan = [&](const std::string& path) {
        struct stat status = {};
        return owned.count(path) == 0 && trashes.count(TavroParentOf(path)) == 0 &&
               TavroStatPath(path, status) == 0 && status.st_mtim.tv_sec + 60 < std::time(nullptr);
    };
    std::vector<std::string> found;
    std::copy_if(orphans.begin(), orphans.end(), std::back_inserter(found), isOrphan);
    return found;
}
