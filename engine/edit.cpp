#include "edit.h"

#include "changes.h"
#include "guard.h"
#include "names.h"
#include "remove.h"
#include "tavropane.h"

#include <cerrno>
#include <functional>

namespace {

using Kind = TavroFailureKind;

/// Looks at an entry that must be there.
/// @param OutBirth  when given, the moment at which it was created.
TavroFailure Look(TavroPlaces& Places, const std::string& Path, TavroPlace& OutPlace,
                  struct stat& OutStatus, std::int64_t* OutBirth = nullptr) {
    int error = Places.Find(Path, OutPlace).Error.value();
    if (error == 0) {
        error = OutBirth == nullptr ? TavroLookAt(OutPlace, OutStatus)
                                    : TavroStatWithBirthAt(OutPlace.Number(), OutPlace.Name.c_str(),
                                                           OutStatus, *OutBirth);
    }
    const Kind kind = TavroIsMissing(error) ? Kind::NoSuchEntry : Kind::LookAt;
    return error == 0 ? TavroFailure() : TavroFail(kind, error, Path);
}

/// What must not stay when the edit fails goes, the innermost first.
TavroEditReport Failed(TavroFailure Failure, const std::vector<std::string>& Created) {
    TavroPlaces places;
    TavroPlace place;
    for (auto path = Created.rbegin(); path != Created.rend(); ++path) {
        if (!places.Find(*path, place)) {
            TavroRemoveDirectoryAt(place.Number(), place.Name.c_str());
        }
    }
    TavroEditReport report;
    report.Failure = std::move(Failure);
    return report;
}

std::vector<TavroStep> StepsToCreate(const std::string& Path) {
    std::vector<TavroStep> steps;
    for (const std::string& missing : TavroFindMissing(Path)) {
        steps.push_back({TavroStepRole::CreatedDirectory, "", missing});
    }
    return steps;
}

/// Brings what was created to the disk, with other changes. @return 0, or the error number.
int Sync(TavroPlaces& Places, const std::vector<std::string>& Created, TavroChanges& IoChanges) {
    TavroPlace place;
    for (const std::string& path : Created) {
        if (!Places.Find(path, place)) {
            IoChanges.Add(place.Directory);
        }
    }
    return IoChanges.Flush();
}

// =================================================================================================
// Renaming
// =================================================================================================

/// Why nothing can be renamed to where something is already.
TavroFailure Taken(const TavroPlace& From, const TavroPlace& To) {
    struct stat source = {};
    struct stat target = {};
    if (TavroStatTargetAt(To.Number(), To.Name.c_str(), target) != 0) {
        return {Kind::RenameTakenByLink, {}, To.Path()};
    }
    if (S_ISDIR(target.st_mode)) {
        return {Kind::RenameTargetNoName, {}, To.Path()};
    }
    const bool bSame = TavroStatTargetAt(From.Number(), From.Name.c_str(), source) == 0 &&
                       TavroIdentityOf(source) == TavroIdentityOf(target);
    return bSame ? TavroFailure{Kind::SameEntry, {}, From.Path(), To.Path()}
                 : TavroFailure{Kind::Taken, {}, To.Path()};
}

/// Finds the place to which an entry is to go, and creates what is missing above it.
TavroFailure FindTarget(TavroPlaces& Places, const std::string& Target, const TavroPlace& From,
                        bool bDirectory, const std::function<TavroFailure()>& BeforeActs,
                        std::vector<std::string>& OutCreated, TavroPlace& OutTo) {
    struct stat status = {};
    TavroFailure failure = Look(Places, Target, OutTo, status);
    if (!failure) {
        return TavroIsOtherSpelling(From.Number(), From.Name.c_str(), OutTo.Number(),
                                    OutTo.Name.c_str())
                   ? BeforeActs()
                   : Taken(From, OutTo);
    }
    if (failure.Kind == Kind::LookAt) {
        return failure;
    }
    if (!bDirectory && TavroNameOf(Target).empty()) {
        return TavroFail(Kind::Rename, ENOTDIR, From.Path(), Target);
    }
    if ((failure = BeforeActs())) {
        return failure;
    }
    failure = Places.FindOrCreate(Target, 0777, OutCreated, OutTo);
    if (failure) {
        failure.Path = failure.Kind == Kind::LookAt ? TavroParentOf(Target) : failure.Path;
        failure.Kind = Kind::CreateDirectory;
    }
    return failure;
}

/// Renames, and brings it to the disk. When that fails it is renamed back.
/// @param Staged  what its name may be begun with on the way to another spelling.
TavroFailure Rename(const TavroPlace& From, const TavroPlace& To, const std::string& Staged,
                    bool bSync, TavroPlaces& Places, const std::vector<std::string>& Created) {
    int error = TavroRenameNoReplace(From.Number(), From.Name.c_str(), To.Number(), To.Name.c_str(),
                                     Staged);
    if (error != 0) {
        return error == EEXIST ? TavroFail(Kind::Taken, error, To.Path())
                               : TavroFail(Kind::Rename, error, From.Path(), To.Path());
    }
    TavroChanges changes(bSync);
    changes.Add(To.Directory);
    changes.Add(From.Directory);
    error = Sync(Places, Created, changes);
    if (error != 0) {
        TavroRenameNoReplace(To.Number(), To.Name.c_str(), From.Number(), From.Name.c_str());
    }
    return error == 0 ? TavroFailure() : TavroFail(Kind::Write, error, To.Path());
}

} // namespace

TavroEditReport TavroRenameTo(const TavroOperationEntry& Entry, const std::string& Text,
                              const TavroCallbacks& Callbacks) {
    const std::string text = TavroTrimText(Text);
    if (TavroIsCddaPath(Entry.Path) || text.empty()) {
        return {{text.empty() ? Kind::RenameTargetEmpty : Kind::RenameAudioTrack, {}, Entry.Path}};
    }
    TavroEditReport report;
    TavroPlaces places;
    TavroPlace from;
    TavroPlace to;
    std::string staged;
    struct stat status = {};
    TavroFailure failure = Look(places, Entry.Path, from, status);
    failure = failure ? failure : TavroGuard(TavroAct::Rename).Check(from, status);
    if (!failure) {
        const std::string target = TavroResolveUserPath(text, TavroParentOf(Entry.Path)).string();
        std::vector<TavroStep> steps = StepsToCreate(TavroParentOf(target));
        steps.insert(steps.begin(), {TavroStepRole::Moved, Entry.Path, TavroFindOwnPath(target), "",
                                     TavroIdentityOf(status)});
        const bool bSpelling =
            !places.Find(target, to) &&
            TavroIsOtherSpelling(from.Number(), from.Name.c_str(), to.Number(), to.Name.c_str());
        staged = steps[0].Staged = bSpelling ? TavroStagingName() : "";
        const auto announce = [&] { return Callbacks.Announce(TavroOperationKind::Rename, steps); };
        failure = FindTarget(places, target, from, S_ISDIR(status.st_mode), announce,
                             report.CreatedDirectories, to);
    }
    if (!failure) {
        failure = Rename(from, to, staged, Callbacks.bSync, places, report.CreatedDirectories);
    }
    if (failure) {
        return Failed(std::move(failure), report.CreatedDirectories);
    }
    TavroLookAt(to, status);
    report.Path = to.OwnPath();
    report.Arrived = TavroStateOf(status);
    return report;
}

// =================================================================================================
// Creating
// =================================================================================================

TavroEditReport TavroMakeDirectory(const std::string& Text, const std::string& BaseDirectory,
                                   const TavroCallbacks& Callbacks) {
    const std::string text = TavroTrimText(Text);
    if (text.empty()) {
        return {{Kind::DirectoryPathEmpty}};
    }
    TavroEditReport report;
    TavroPlaces places;
    TavroPlace place;
    struct stat status = {};
    const std::string target = TavroResolveUserPath(text, BaseDirectory).string();
    TavroFailure failure =
        Callbacks.Announce(TavroOperationKind::CreateDirectory, StepsToCreate(target));
    if (failure) {
        return {std::move(failure)};
    }
    failure = places.FindOrCreate(target, 0777, report.CreatedDirectories, place);
    int error = failure ? failure.Error.value()
                        : TavroMakeDirectoryAt(place.Number(), place.Name.c_str(), 0777);
    if (error == 0) {
        report.CreatedDirectories.push_back(place.Path());
    }
    if (!failure && (error == 0 || error == EEXIST)) {
        const int look = TavroStatTargetAt(place.Number(), place.Name.c_str(), status);
        error = look == 0        ? (S_ISDIR(status.st_mode) ? 0 : ENOTDIR)
                : look == ENOENT ? EEXIST
                                 : look;
    }
    TavroChanges changes(Callbacks.bSync);
    const int unsynced = error != 0 ? 0 : Sync(places, report.CreatedDirectories, changes);
    if (error != 0 || unsynced != 0) {
        return Failed(error != 0 ? TavroFail(Kind::CreateDirectory, error, target)
                                 : TavroFail(Kind::Write, unsynced, target),
                      report.CreatedDirectories);
    }
    report.Path = TavroCanonicalizePath(target);
    report.Arrived = TavroStateOf(status);
    return report;
}

// =================================================================================================
// Deleting
// =================================================================================================

namespace {

/// @param OutSteps  what is to be deleted, in order.
std::vector<TavroFailure> Check(const std::vector<TavroOperationEntry>& Entries,
                                std::vector<TavroStep>& OutSteps) {
    std::vector<TavroFailure> failures;
    if (Entries.empty()) {
        failures.push_back({Kind::NothingSelected});
    }
    TavroPlaces places;
    TavroGuard guard(TavroAct::Delete);
    for (const TavroOperationEntry& entry : Entries) {
        TavroPlace place;
        struct stat status = {};
        TavroStep step{TavroStepRole::Deleted};
        TavroFailure failure = Look(places, entry.Path, place, status, &step.SourceTime);
        failure = failure ? failure : guard.Check(place, status);
        if (failure) {
            failures.push_back(std::move(failure));
            continue;
        }
        step.From = place.OwnPath();
        step.Identity = TavroIdentityOf(status);
        step.Source = place.Directory->Identity;
        if (!S_ISDIR(status.st_mode) && status.st_nlink == 1) { // else it changes as others go
            step.ChangeTime = TavroNanoseconds(status.st_ctim);
        }
        OutSteps.push_back(std::move(step));
    }
    return failures;
}

/// Deletes what is checked.
TavroFailure Delete(const std::vector<TavroStep>& Steps, const TavroCallbacks& Callbacks) {
    TavroFailure failure;
    TavroProgressTeller progress(Callbacks);
    TavroPlaces places;
    TavroChanges changes(Callbacks.bSync);
    for (std::size_t i = 0; i < Steps.size() && !failure; ++i) {
        const TavroStep& step = Steps[i];
        TavroPlace place;
        failure = places.Find(step.From, place);
        if (!failure) {
            changes.Add(place.Directory);
            const auto count = [&] {
                progress.Begin([&] { return step.From; });
                progress.AddItems();
                return progress.ShouldCancel();
            };
            failure = TavroRemoveTree(place, {step.Identity, count, /*bOpenReadOnly=*/false});
        }
        if (failure.Kind == TavroFailureKind::Cancelled) {
            failure.Path = step.From;
        }
    }
    const int error = changes.Flush();
    progress.Tell();
    return failure || error == 0 ? failure
                                 : TavroFail(Kind::Write, error, TavroParentOf(Steps.front().From));
}

} // namespace

std::vector<TavroFailure> TavroCheckDeletable(const std::vector<TavroOperationEntry>& Entries) {
    std::vector<TavroStep> steps;
    return Check(Entries, steps);
}

TavroFailure TavroDeleteForGood(const std::vector<TavroOperationEntry>& Entries,
                                const TavroCallbacks& Callbacks) {
    std::vector<TavroStep> steps;
    const std::vector<TavroFailure> failures = Check(Entries, steps);
    TavroFailure failure =
        failures.empty() ? Callbacks.Announce(TavroOperationKind::Delete, steps) : failures.front();
    return failure ? failure : Delete(steps, Callbacks);
}

namespace {

/// Whether an entry that is missing is gone indeed, as its directory, or else the file system is
/// there. The number of a device can be another one after a restart.
bool IsGone(const TavroStep& Step, const TavroPlace& Place) {
    return (Place.Directory && Place.Directory->Identity.Inode == Step.Source.Inode) ||
           TavroIsBelowDevice(Step.From, Step.Identity.Device);
}

} // namespace

TavroFailure TavroFinishDeleting(const std::vector<TavroStep>& Steps,
                                 const TavroCallbacks& Callbacks) {
    std::vector<TavroStep> left;
    TavroPlaces places;
    TavroGuard guard(TavroAct::Delete);
    for (TavroStep step : Steps) {
        TavroPlace place;
        struct stat status = {};
        std::int64_t birth = 0;
        TavroFailure failure = Look(places, step.From, place, status, &birth);
        const bool bOther =
            !failure && (step.Identity.Inode != status.st_ino || birth != step.SourceTime);
        if (bOther || (failure.Kind == Kind::NoSuchEntry && IsGone(step, place))) {
            continue;
        }
        const bool bChanged =
            step.ChangeTime != 0 && step.ChangeTime != TavroNanoseconds(status.st_ctim);
        if (failure.Kind == Kind::NoSuchEntry || (!failure && (birth == 0 || bChanged))) {
            failure = {Kind::MaybeOther, {}, step.From};
        }
        failure = failure ? failure : guard.Check(place, status);
        if (failure) {
            return failure;
        }
        step.Identity = TavroIdentityOf(status);
        left.push_back(std::move(step));
    }
    return left.empty() ? TavroFailure() : Delete(left, Callbacks);
}
