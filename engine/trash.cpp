#include "trash.h"

#include "directory_sizes.h"
#include "guard.h"
#include "names.h"
#include "tavropane.h"
#include "trash_destinations.h"
#include "trash_folders.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

// =================================================================================================
// What may be trashed
// =================================================================================================

namespace {

/// Looks once at each entry of a selection, and says why it must not go.
class SelectionCheck {
public:
    explicit SelectionCheck(const std::vector<TavroOperationEntry>& Entries) : m_entries(Entries) {}

    /// The reason against the first entry that must not go.
    TavroFailure Run();

    /// One an entry, in order, from its own path to nowhere; complete when there was no reason.
    std::vector<TavroBatchStep> Steps;
    std::vector<TavroVolume> Volumes; ///< Those on which they are.

private:
    TavroFailure Look(const TavroOperationEntry& Entry);
    bool IsSelectedTwice(std::size_t Index);
    TavroFailure LookInside(const std::string& OwnPath);

    const std::vector<TavroOperationEntry>& m_entries;
    TavroGuard m_guard{TavroAct::Trash};
    TavroPlaces m_places;
    std::unordered_map<TavroIdentity, std::size_t> m_first; ///< The first entry of each file.
    std::unordered_set<std::string> m_again;                ///< Own paths of files met again.
    std::unordered_set<std::string> m_directories;          ///< Own paths of directories.
    std::string m_parent;                                   ///< Asked about last by LookInside,
    std::string m_above;                                    ///< and what was found.
};

TavroFailure SelectionCheck::Run() {
    std::vector<TavroFailure> reasons;
    Steps.reserve(m_entries.size());
    for (const TavroOperationEntry& entry : m_entries) {
        Steps.push_back({});
        Volumes.push_back({});
        reasons.push_back(Look(entry));
    }
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        TavroFailure reason = reasons[i] ? reasons[i] : LookInside(Steps[i].From);
        if (reason) {
            reason.Path = m_entries[i].Path;
            return reason;
        }
    }
    return {};
}

TavroFailure SelectionCheck::Look(const TavroOperationEntry& Entry) {
    if (TavroIsCddaPath(Entry.Path)) {
        return {TavroFailureKind::RefuseTrash, TavroRefusal::AudioTrack};
    }
    TavroPlace place;
    struct stat status = {};
    if (const int error = m_places.Look(Entry.Path, place, status)) {
        return TavroFail(TavroFailureKind::RefuseTrash, error, "");
    }
    TavroBatchStep& step = Steps.back();
    step.From = place.OwnPath();
    step.Seen = {place.Directory->Identity, TavroStateOf(status)};
    Volumes.back() = TavroVolumeOf(*place.Directory);
    if (S_ISDIR(status.st_mode)) {
        m_directories.insert(step.From);
    }
    TavroFailure failure = m_guard.Check(place, status);
    if (!failure && IsSelectedTwice(Steps.size() - 1)) {
        failure = {TavroFailureKind::RefuseTrash, TavroRefusal::SelectedTwice};
    }
    return failure;
}

/// A file with several names may be selected by each of them once.
bool SelectionCheck::IsSelectedTwice(std::size_t Index) {
    const TavroBatchStep& step = Steps[Index];
    const auto [first, bNew] = m_first.try_emplace(step.Seen->State.Identity, Index);
    return !bNew && (Steps[first->second].From == step.From || !m_again.insert(step.From).second);
}

/// The entries of one directory are inside the same.
TavroFailure SelectionCheck::LookInside(const std::string& OwnPath) {
    std::string parent = TavroParentOf(OwnPath);
    if (m_directories.empty() || OwnPath.empty()) {
        return {};
    }
    if (parent != m_parent) {
        m_parent = parent;
        while (parent != "/" && m_directories.count(parent) == 0) {
            parent = TavroParentOf(parent);
        }
        m_above = parent == "/" ? "" : parent;
    }
    return m_above.empty() ? TavroFailure()
                           : TavroFailure{TavroFailureKind::SelectedInside, {}, {}, m_above};
}

} // namespace

std::vector<TavroOperationEntry> TavroEntriesToCopy(const std::vector<TavroOperationEntry>& Entries,
                                                    const TavroTrashOptions& Options, bool bSync) {
    TavroTrashDestinations destinations(Options.bHome, bSync);
    std::vector<TavroOperationEntry> copied;
    TavroPlaces places;
    std::string parent;
    const auto isElsewhere = [&](const TavroOperationEntry& entry) {
        const bool bSame = parent == TavroParentOf(entry.Path); // as that before
        parent = TavroParentOf(entry.Path);
        return !bSame && !destinations.IsOfHome(TavroVolumeOf(places, entry.Path));
    };
    if (TavroFindTrashFolders().Root.empty() ||
        std::none_of(Entries.begin(), Entries.end(), isElsewhere)) {
        return copied;
    }
    SelectionCheck check(Entries);
    const bool bMayGo = !check.Run();
    for (std::size_t i = 0; i < Entries.size() && bMayGo; ++i) {
        if (destinations.IsCopied(check.Volumes[i])) {
            copied.push_back(Entries[i]);
        }
    }
    return copied;
}

// =================================================================================================
// Trashing
// =================================================================================================

namespace {

TavroTrashReport Failed(TavroFailure Failure) {
    TavroTrashReport report;
    report.Batch.Failure = std::move(Failure);
    return report;
}

/// Tells what is not where it was. `EntryOf` gives the entry of a step.
template <typename EntryOf>
void TellWhatIsLeft(const std::vector<TavroBatchStep>& Steps, EntryOf GiveEntry,
                    TavroTrashReport& OutReport) {
    for (std::size_t i = 0; i < Steps.size(); ++i) {
        if (Steps[i].bCopyStays) {
            OutReport.InBoth.push_back(GiveEntry(i));
        } else if (Steps[i].Arrived.Identity.Inode != 0) {
            OutReport.Left.push_back(GiveEntry(i));
        }
    }
}

/// An entry as it lies in the trash.
TavroTrashedEntry InTrash(const TavroBatchStep& Step) {
    const mode_t mode = Step.Seen->State.Mode;
    return {{Step.KnownAs(), Step.To, TavroRecordPath(Step.To), S_ISDIR(mode) || S_ISLNK(mode)},
            Step.Arrived.Identity};
}

/// What is trashed, as the history keeps it.
std::vector<TavroStep> StepsOf(const std::vector<TavroBatchStep>& Steps) {
    std::vector<TavroStep> steps;
    steps.reserve(Steps.size());
    for (const TavroBatchStep& step : Steps) {
        TavroTrashEntry entry = InTrash(step).Entry;
        steps.push_back({TavroStepRole::Trashed, std::move(entry.OriginalPath),
                         std::move(entry.TrashPath), std::move(entry.InfoPath),
                         step.Seen->State.Identity, 0, 0, entry.bDirectory});
    }
    return steps;
}

/// Entries on their way into the trash, each under a name that its record holds.
class Trashing {
public:
    Trashing(std::vector<TavroBatchStep>& Steps, bool bHome, const TavroCallbacks& Callbacks)
        : m_all(bHome, Callbacks.bSync), m_steps(Steps), m_callbacks(Callbacks) {}

    TavroFailure ChooseTrash(const std::vector<TavroVolume>& Volumes);
    TavroFailure Prepare();
    TavroFailure Retry(std::size_t Index);
    TavroFailure AnnounceCopy(std::size_t Index, const TavroFileState& Made,
                              const std::string& Staged) const;
    void Drop(std::size_t Index);

private:
    std::string Guess(std::size_t Index) const;
    TavroFailure Claim(std::size_t Index);
    TavroFailure Announce(const std::vector<TavroBatchStep>& Steps) const;

    TavroTrashDestinations m_all;
    std::vector<TavroTrashDestination*> m_trashes; ///< One a step.
    std::vector<TavroBatchStep>& m_steps;
    const TavroCallbacks& m_callbacks;
};

TavroFailure Trashing::ChooseTrash(const std::vector<TavroVolume>& Volumes) {
    m_trashes.resize(m_steps.size());
    for (std::size_t i = 0; i < m_steps.size(); ++i) {
        TavroBatchStep& step = m_steps[i];
        if (TavroFailure failure = m_all.Find(Volumes[i], m_trashes[i])) {
            return failure;
        }
        const TavroTrashFolders& folders = m_trashes[i]->Trash.Folders;
        step.To = TavroJoin(folders.Files, TavroNameOf(step.KnownAs()));
        if (folders.bVolume) {
            step.Holder = folders.Files;
        }
    }
    return {};
}

/// The name that an entry gets unless that is taken. For a single one it is looked up, so that
/// nothing has to be told twice.
std::string Trashing::Guess(std::size_t Index) const {
    constexpr std::uint64_t enough = 100;
    const TavroOpenTrash& trash = m_trashes[Index]->Trash;
    const std::string name = TavroNameOf(m_steps[Index].KnownAs());
    struct stat status = {};
    std::string item;
    std::uint64_t number = 0;
    do {
        item = TavroNumberedName(name, number++, TavroLongestTrashName);
    } while (m_steps.size() == 1 && number < enough &&
             TavroStatAt(trash.Info.Number(), TavroRecordName(item).c_str(), status) == 0);
    return TavroJoin(trash.Folders.Files, item);
}

TavroFailure Trashing::Announce(const std::vector<TavroBatchStep>& Steps) const {
    return m_callbacks.BeforeActs && !Steps.empty()
               ? m_callbacks.BeforeActs(TavroOperationKind::Trash, StepsOf(Steps))
               : TavroFailure();
}

/// Tells of an entry that was copied into the trash and waits there under a hidden name.
TavroFailure Trashing::AnnounceCopy(std::size_t Index, const TavroFileState& Made,
                                    const std::string& Staged) const {
    std::vector<TavroStep> steps = StepsOf({m_steps[Index]});
    steps[0].Source = std::exchange(steps[0].Identity, Made.Identity);
    steps[0].Staged = Staged;
    return m_callbacks.Announce(TavroOperationKind::Trash, steps);
}

TavroFailure Trashing::Claim(std::size_t Index) {
    TavroBatchStep& step = m_steps[Index];
    std::string item;
    TavroFailure failure = m_trashes[Index]->Claim(step.KnownAs(), item);
    step.To = failure ? "" : m_trashes[Index]->ItemPath(item);
    return failure;
}

/// Tells what is going to be done, and claims a name for each entry. The records are on the disk
/// before anything is moved.
TavroFailure Trashing::Prepare() {
    std::vector<std::string> guesses;
    for (std::size_t i = 0; i < m_steps.size(); ++i) {
        guesses.push_back(Guess(i));
        m_steps[i].To = guesses.back();
    }
    TavroFailure failure = Announce(m_steps);
    std::vector<TavroBatchStep> others;
    for (TavroBatchStep& step : m_steps) {
        step.To.clear();
    }
    for (std::size_t i = 0; i < m_steps.size() && !failure; ++i) {
        failure = Claim(i);
        if (m_steps[i].To != guesses[i]) {
            others.push_back(m_steps[i]);
        }
    }
    failure = failure ? failure : m_all.Sync();
    return failure ? failure : Announce(others);
}

/// The next name, because there was an item of the last one.
TavroFailure Trashing::Retry(std::size_t Index) {
    Drop(Index);
    TavroFailure failure = Claim(Index);
    failure = failure ? failure : m_all.Sync();
    return failure ? failure : Announce({m_steps[Index]});
}

void Trashing::Drop(std::size_t Index) {
    if (!m_steps[Index].To.empty()) {
        m_trashes[Index]->Claims.Drop(TavroNameOf(m_steps[Index].KnownAs()),
                                      TavroNameOf(m_steps[Index].To));
    }
}

} // namespace

TavroTrashReport TavroTrashSelection(const std::vector<TavroOperationEntry>& Entries,
                                     const TavroCallbacks& Callbacks,
                                     const std::vector<TavroIdentity>& Expected,
                                     const std::vector<std::string>& Origins,
                                     const TavroTrashOptions& Options) {
    if (Entries.empty()) {
        return Failed({TavroFailureKind::NothingSelected});
    }
    SelectionCheck check(Entries);
    TavroFailure reason = check.Run();
    if (reason || TavroFindTrashFolders().Root.empty()) {
        return Failed(reason ? std::move(reason) : TavroFailure{TavroFailureKind::NoHome});
    }
    std::vector<TavroBatchStep>& steps = check.Steps;
    for (std::size_t i = 0; i < Origins.size(); ++i) {
        steps[i].Origin = Origins[i];
    }
    for (std::size_t i = 0; i < Expected.size(); ++i) {
        steps[i].Expected = Expected[i];
    }
    Trashing trashing(steps, Options.bHome, Callbacks);
    if (TavroFailure failure = trashing.ChooseTrash(check.Volumes)) {
        return Failed(std::move(failure));
    }
    TavroBatchHooks hooks;
    hooks.bNeverCopy = Options.bNeverCopy;
    hooks.Prepare = [&] { return trashing.Prepare(); };
    hooks.Retry = [&](std::size_t i) { return trashing.Retry(i); };
    hooks.Undone = [&](std::size_t i) { trashing.Drop(i); };
    hooks.BeforePublish = [&](std::size_t i, const TavroFileState& made, const std::string& name) {
        return trashing.AnnounceCopy(i, made, name);
    };
    TavroTrashReport report;
    report.Batch = TavroRunBatch(steps, hooks, Callbacks);
    if (report.Batch.Failure) {
        TellWhatIsLeft(
            steps, [&](std::size_t i) { return InTrash(steps[i]); }, report);
        return report;
    }
    report.Entries.reserve(steps.size());
    for (const TavroBatchStep& step : steps) {
        report.Entries.push_back(InTrash(step));
    }
    return report;
}

// =================================================================================================
// Restoring
// =================================================================================================

namespace {

/// An entry, and its own path once it is back, which `OriginalPath` may spell otherwise.
struct Restoration {
    TavroTrashedEntry* Trashed;
    std::string Place;
};

/// Whether a place is on a volume. What is too long for links to be resolved in it leads through
/// none.
bool IsOnVolume(const std::string& Volume, const std::string& Place) {
    std::size_t end = Place.size() < PATH_MAX ? std::string::npos : Volume.size() + 1;
    struct stat status = {};
    while ((end = Place.find('/', end)) != std::string::npos) {
        if (TavroStatPath(Place.substr(0, end++), status) == 0 && S_ISLNK(status.st_mode)) {
            return false;
        }
    }
    return TavroIsBelow(Volume, Place);
}

/// Checks what the list itself can tell: each entry once, to a place of its own.
TavroFailure CheckRestoreList(std::vector<TavroTrashedEntry>& Entries,
                              std::vector<Restoration>& OutRestorations) {
    std::unordered_set<std::string_view> items;
    std::unordered_set<std::string_view> ownPlaces;
    TavroPlaces places;
    OutRestorations.reserve(Entries.size()); // the places are referred to
    for (TavroTrashedEntry& trashed : Entries) {
        const TavroTrashEntry& entry = trashed.Entry;
        if (entry.OriginalPath.rfind('/', 0) != 0) {
            return {TavroFailureKind::OriginUnknown, {}, entry.TrashPath};
        }
        if (!items.insert(entry.TrashPath).second) {
            return {TavroFailureKind::ListedTwice, {}, entry.TrashPath};
        }
        TavroPlace place;
        const bool bFound = !places.Find(entry.OriginalPath, place);
        OutRestorations.push_back(
            {&trashed, bFound ? place.OwnPath() : TavroFindOwnPath(entry.OriginalPath)});
        const std::string& own = OutRestorations.back().Place;
        if (!trashed.Volume.empty() && !IsOnVolume(trashed.Volume, own)) {
            return {TavroFailureKind::LeavesVolume, {}, entry.OriginalPath, trashed.Volume};
        }
        if (!ownPlaces.insert(own).second) {
            return {TavroFailureKind::RestoreToOnePlace, {}, entry.OriginalPath};
        }
    }
    return {};
}

/// What a batch refuses, in the words of the trash.
TavroFailure AsOfTrash(TavroFailure Failure) {
    if (Failure.Kind == TavroFailureKind::Missing) {
        Failure.Kind = TavroFailureKind::ItemMissing;
    } else if (Failure.Kind == TavroFailureKind::InTheWay ||
               Failure.Kind == TavroFailureKind::Taken) {
        Failure.Kind = TavroFailureKind::RestoreTargetTaken;
    }
    return Failure;
}

/// Removes the records of what has left the trash, each beside its item, whatever else the entry
/// says; and forgets the sizes of the directories.
void RemoveRecords(const std::vector<TavroBatchStep>& Steps, TavroChanges& Changes) {
    TavroPlaces places;
    std::set<std::string> held; // items of trashes that held directories: one of each
    for (const TavroBatchStep& step : Steps) {
        TavroPlace record;
        const std::string path = TavroRecordPath(step.From);
        if (step.Arrived.Identity.Inode != 0 && !step.bCopyStays && !places.Find(path, record) &&
            !TavroIsLedAway(record, path)) {
            TavroUnlinkAt(record.Number(), record.Name.c_str());
            Changes.Add(record.Directory);
            if (step.Seen->State.IsDirectory()) {
                held.insert(TavroJoin(TavroParentOf(step.From), "item"));
            }
        }
    }
    for (const std::string& item : held) {
        TavroOpenTrash trash;
        if (!trash.Open(TavroTrashFoldersOf(item))) {
            TavroKeepDirectorySizes(trash);
        }
    }
}

/// What is restored, as the history keeps it, which has it as a trashing to be undone: directories
/// that are missing are those that it had removed.
std::vector<TavroStep> StepsToRestore(const std::vector<TavroBatchStep>& Steps) {
    std::vector<TavroStep> steps;
    steps.reserve(Steps.size());
    std::set<std::string, std::greater<>> missing; // inner ones first
    std::string present; // the directory that was there last: neighbours have the same
    for (const TavroBatchStep& step : Steps) {
        steps.push_back({TavroStepRole::Trashed, step.To, step.From, TavroRecordPath(step.From),
                         step.Seen->State.Identity, 0, 0, step.Seen->State.IsDirectory()});
        std::string parent = TavroParentOf(step.To);
        while (parent != present && missing.count(parent) == 0 && !TavroIsPresent(parent)) {
            missing.insert(parent);
            parent = TavroParentOf(parent);
        }
        present = missing.count(parent) == 0 ? parent : present;
    }
    for (const std::string& directory : missing) {
        steps.push_back({TavroStepRole::RemovedDirectory, directory, "", "", {}, 0, 0700});
    }
    return steps;
}

} // namespace

TavroTrashReport TavroRestoreSelection(std::vector<TavroTrashedEntry> Entries,
                                       const TavroCallbacks& Callbacks, bool bTold) {
    std::vector<Restoration> restorations;
    TavroFailure failure = Entries.empty() ? TavroFailure{TavroFailureKind::NothingToRestore}
                                           : CheckRestoreList(Entries, restorations);
    if (failure) {
        return Failed(std::move(failure));
    }
    // Directories before what goes into them.
    std::stable_sort(restorations.begin(), restorations.end(),
                     [](const Restoration& a, const Restoration& b) { return a.Place < b.Place; });
    std::vector<TavroBatchStep> steps;
    steps.reserve(restorations.size());
    for (const Restoration& restoration : restorations) {
        const TavroTrashedEntry& trashed = *restoration.Trashed;
        steps.push_back({trashed.Entry.TrashPath, trashed.Entry.OriginalPath});
        steps.back().Holder = TavroParentOf(restoration.Place);
        if (trashed.Item.Inode != 0) {
            steps.back().Expected = trashed.Item;
        }
        steps.back().Seen = trashed.Seen;
    }
    TavroBatchHooks hooks;
    hooks.Prepare = [&] {
        return Callbacks.BeforeActs && !bTold
                   ? Callbacks.BeforeActs(TavroOperationKind::Restore, StepsToRestore(steps))
                   : TavroFailure();
    };
    hooks.BeforePublish = [&](std::size_t i, const TavroFileState& made, const std::string& name) {
        std::vector<TavroStep> step = StepsToRestore({steps[i]});
        step[0].Source = made.Identity; // it goes back
        step[0].Staged = name;
        return Callbacks.Announce(TavroOperationKind::Restore, step);
    };
    hooks.Finish = [&](TavroChanges& changes) { RemoveRecords(steps, changes); };
    TavroTrashReport report;
    report.bRestoring = true;
    report.Batch = TavroRunBatch(steps, hooks, Callbacks);
    if (report.Batch.Failure) {
        report.Batch.Failure = AsOfTrash(std::move(report.Batch.Failure));
        const auto entryOf = [&](std::size_t i) { return *restorations[i].Trashed; };
        TavroChanges changes(Callbacks.bSync);
        TellWhatIsLeft(steps, entryOf, report);
        RemoveRecords(steps, changes); // of what could not be moved back
        changes.Flush();
    } else {
        for (std::size_t i = 0; i < steps.size(); ++i) {
            restorations[i].Trashed->Item = steps[i].Arrived.Identity;
        }
        report.Entries = std::move(Entries);
    }
    return report;
}

std::string TavroDescribe(const TavroTrashReport& Report) {
    std::string text = TavroDescribe(Report.Batch);
    const auto quoted = [](const std::string& path) { return "'" + path + "'"; };
    for (const TavroTrashedEntry& left : Report.Left) {
        const TavroTrashEntry& entry = left.Entry;
        text += "; " + quoted(entry.OriginalPath) +
                (Report.bRestoring ? " stays restored" : " is now " + quoted(entry.TrashPath));
    }
    for (const TavroTrashedEntry& both : Report.InBoth) {
        const TavroTrashEntry& entry = both.Entry;
        const bool bBack = Report.bRestoring;
        text += "; " + quoted(bBack ? entry.TrashPath : entry.OriginalPath) + " is also at " +
                quoted(bBack ? entry.OriginalPath : entry.TrashPath);
    }
    return text;
}
