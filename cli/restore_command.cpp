// `tavro restore`.

#include "choosing.h"
#include "format.h"
#include "names.h"
#include "posix.h"
#include "progress_bar.h"
#include "recording.h"
#include "usage.h"

#include <algorithm>
#include <set>

namespace {

/// What is kept from one name to the next.
struct Restoring {
    std::string To; ///< Where all go; empty: each to its place.
    bool bKeepBoth;
    bool bQuiet;
    bool bVerbose;
    TavroKeeping Keeping;
    TavroWhichTrashes Trashes = {};
    TavroTrashIndex Index = TavroTrashIndex(TavroWhichTrashes());
    TavroFreeNames FreeNames = {};
    TavroAttributesLost Lost = {};
};

/// Where an item goes back to: its place, or a free name beside it when that is taken and wanted.
/// @return TavroExitDone, or what it comes to that the item stays.
int ChoosePlace(Restoring& Run, std::string& Place) {
    if (!TavroIsPresent(Place)) {
        return TavroExitDone;
    }
    const std::string taken = Place;
    const std::string parent = TavroParentOf(taken);
    const auto isTaken = [&](const std::string& name) {
        return TavroIsPresent(TavroJoin(parent, name));
    };
    Place = TavroJoin(parent, Run.FreeNames.Choose(parent, TavroNameOf(taken), isTaken));
    if (Run.bKeepBoth) {
        return TavroExitDone;
    }
    if (TavroCanAsk()) {
        return TavroConfirm("Something is at '" + TavroShownPath(stderr, taken) +
                                "'. Restore as '" + TavroShownPath(stderr, Place) + "'?",
                            "Nothing was restored to '" + taken + "'");
    }
    TavroPrintError("Something is at '" + taken + "': with --keep-both it would be restored as '" +
                    Place + "'");
    return TavroExitFailed;
}

/// Restores entries, all or nothing.
int Restore(Restoring& Run, const std::vector<TavroTrashItem>& Items,
            const std::vector<TavroTrashedEntry>& Entries) {
    TavroTrashReport report;
    TavroRecording recording;
    {
        TavroProgressBar bar(Run.bQuiet);
        report = TavroRestoreSelection(Entries, recording.Bind(bar.Callbacks(), Run.Keeping));
    }
    const int exitCode = recording.End({});
    if (report.Batch.Failure) {
        TavroPrintError(TavroDescribe(report));
        return TavroExitCodeOf(report.Batch.Failure);
    }
    const bool bEach = TavroTellsEach(Entries.size(), Run.bVerbose);
    for (std::size_t i = 0; i < Entries.size(); ++i) {
        Run.Index.Drop(Items[i]);
        if (!Run.bQuiet && bEach) {
            TavroPrintLine(
                stdout, TavroShownStep(Entries[i].Entry.TrashPath, Entries[i].Entry.OriginalPath));
        }
    }
    if (!Run.bQuiet && !bEach) {
        TavroPrintLine(stdout, "Restored " + TavroCountText(Entries.size(), "entry"));
    }
    Run.Lost += report.Batch.Lost;
    return exitCode;
}

/// A word that is still to be looked up, or an item.
struct Wanted {
    std::string Word;
    bool bWord;
    TavroTrashItem Item = {};
};

/// The entry of an item, with where it goes unless that is taken.
TavroTrashedEntry EntryOf(const Restoring& Run, const TavroTrashItem& Item) {
    TavroTrashedEntry entry = Item.Trashed();
    if (!Run.To.empty()) {
        const std::string name = TavroNameOf(Item.OriginalPath);
        entry.Entry.OriginalPath = TavroJoin(Run.To, TavroIsPlainName(name) ? name : Item.Name);
        entry.Volume.clear();
    }
    return entry;
}

/// Puts items in the place of patterns, and of all words where there are limits. Other words stay
/// words, which are looked up one by one.
int ChooseItems(Restoring& Run, TavroChoice Choice, std::vector<Wanted>& OutWanted) {
    if (!Choice.IsLimited()) {
        const auto isName = [&](const std::string& word) {
            TavroTrashItem item;
            return !TavroIsPattern(word) ||
                   Run.Index.Find(word, item).Kind != TavroFailureKind::NotInTrash;
        };
        const auto patterns =
            std::stable_partition(Choice.Words.begin(), Choice.Words.end(), isName);
        for (auto word = Choice.Words.begin(); word != patterns; ++word) {
            OutWanted.push_back({*word, true});
        }
        Choice.Words.erase(Choice.Words.begin(), patterns);
        if (Choice.Words.empty()) {
            return TavroExitDone;
        }
    }
    std::vector<TavroTrashItem> items;
    if (const TavroFailure failure = TavroListTrash(TavroWasInterrupted, items, Run.Trashes)) {
        return TavroPrintFailure(failure);
    }
    Choice.bNewestAlone = true;
    const bool bAll = TavroPrintFailures(TavroChooseItems(Choice, items));
    std::set<std::string> named;
    for (const Wanted& wanted : OutWanted) {
        TavroTrashItem item;
        named.insert(Run.Index.Find(wanted.Word, item) ? "" : item.TrashPath());
    }
    for (TavroTrashItem& item : items) {
        if (named.count(item.TrashPath()) == 0) {
            OutWanted.push_back({"", false, std::move(item)});
        }
    }
    return bAll ? TavroExitDone : TavroExitFailed;
}

/// Finds what a word means, unless that is known, and where it goes.
int Find(Restoring& Run, Wanted& Wanted, TavroTrashedEntry& OutEntry) {
    const TavroFailure failure =
        Wanted.bWord ? Run.Index.Find(Wanted.Word, Wanted.Item) : TavroFailure();
    if (failure) {
        return TavroPrintFailure(failure);
    }
    OutEntry = EntryOf(Run, Wanted.Item);
    return ChoosePlace(Run, OutEntry.Entry.OriginalPath);
}

/// Whether entries can go back together: each is another one, to a place of its own.
bool AreApart(const std::vector<TavroTrashedEntry>& Entries) {
    std::set<std::string> paths;
    return std::all_of(Entries.begin(), Entries.end(), [&](const TavroTrashedEntry& entry) {
        return paths.insert(entry.Entry.TrashPath).second &&
               paths.insert(entry.Entry.OriginalPath).second;
    });
}

/// Restores all that is wanted as one operation.
/// @return nothing, and nothing is done, when they stand in each other's way or anything else does.
std::optional<int> RestoreTogether(Restoring& Run, const std::vector<Wanted>& All) {
    std::vector<TavroTrashItem> items;
    std::vector<TavroTrashedEntry> entries;
    for (const Wanted& wanted : All) {
        items.push_back(wanted.Item);
        if (wanted.bWord && Run.Index.Find(wanted.Word, items.back())) {
            return std::nullopt;
        }
        entries.push_back(EntryOf(Run, items.back()));
        if (TavroIsPresent(entries.back().Entry.OriginalPath)) {
            return std::nullopt;
        }
    }
    return AreApart(entries) ? std::optional(Restore(Run, items, entries)) : std::nullopt;
}

/// Restores one after the other.
int RestoreEach(Restoring& Run, std::vector<Wanted>& All) {
    int exitCode = TavroExitDone;
    for (std::size_t i = 0; i < All.size() && exitCode <= TavroExitUsage; ++i) {
        TavroTrashedEntry entry;
        int code = TavroWasInterrupted() ? TavroInterruptedExitCode() : Find(Run, All[i], entry);
        code = code == TavroExitDone ? Restore(Run, {All[i].Item}, {entry}) : code;
        exitCode = std::max(exitCode, code);
    }
    return exitCode;
}

/// What does not stand in each other's way is one operation; else each is one.
int RunRestore(const TavroChoice& Choice, const std::string& Volume, Restoring Run) {
    TavroCatchInterrupts();
    if (const TavroFailure failure = TavroSeeTrashes(Volume, Run.Trashes)) {
        return TavroPrintFailure(failure);
    }
    Run.Index = TavroTrashIndex(Run.Trashes);
    for (const TavroTrashFolders& folders : Run.Trashes) {
        const std::string own = TavroFindOwnPath(TavroJoin(Run.To, "x"));
        if (!Run.To.empty() && TavroIsBelow(TavroFindOwnPath(folders.Root), own)) {
            TavroPrintError("'" + Run.To + "' is in the trash");
            return TavroExitFailed;
        }
    }
    TavroDescriptor directory;
    const int error = Run.To.empty() ? 0 : TavroOpenDirectory(Run.To, directory);
    if (error != 0) {
        return TavroPrintFailure(TavroFail(TavroFailureKind::LookAt, error, Run.To));
    }
    std::vector<Wanted> wanted;
    const int chosen = ChooseItems(Run, Choice, wanted);
    if (wanted.empty()) {
        return chosen != TavroExitDone ? chosen
                                       : TavroPrintFailure({TavroFailureKind::NothingToRestore});
    }
    const std::optional<int> together =
        wanted.size() > 1 ? RestoreTogether(Run, wanted) : std::nullopt;
    const int exitCode = together ? *together : RestoreEach(Run, wanted);
    TavroPrintLost(Run.Lost);
    return std::max(exitCode, chosen);
}

} // namespace

void TavroAddRestore(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "restore", "Put trashed entries back",
                                        "restore old.iso '*.log' --to ~/again");
    const TavroChoiceOptions choice = TavroAddChoice(*command);
    CLI::Option* to = command->add_option("--to")->type_name("DIRECTORY");
    to->description("Restore into this directory instead of the original places");
    TavroCheckNotEmpty(*to);
    CLI::Option* keepBoth =
        command->add_flag("--keep-both", "Use a free name if the original is taken");
    CLI::Option* quiet = TavroAddQuiet(*command);
    CLI::Option* verbose = TavroAddVerbose(*command);
    const TavroKeepingOptions keeping = TavroAddKeeping(*command, false);
    CLI::Option* volume = TavroAddVolume(*command);
    Table[command] = [=] {
        const TavroChoice chosen = TavroReadChoice(choice);
        if (chosen.IsEverything()) {
            return TavroRefuseUsage(*command, "'" + TavroCommandPath(*command) + "' needs " +
                                                  "a name, a pattern or a limit");
        }
        return RunRestore(chosen, TavroValue(volume),
                          {to->empty() ? "" : TavroNameEntry(TavroValue(to)).Path,
                           !keepBoth->empty(), !quiet->empty(), !verbose->empty(),
                           keeping.Keeping()});
    };
}
