// `tavro restore`.

#include "command.h"
#include "names.h"
#include "progress_bar.h"
#include "recording.h"
#include "trash_contents.h"

#include <algorithm>
#include <set>

namespace {

/// What is kept from one name to the next.
struct Restoring {
    bool bKeepBoth;
    bool bQuiet;
    bool bSync;
    TavroTrashIndex Index;
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
        return TavroConfirm("Something is at '" + taken + "'. Restore as '" + Place + "'?",
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
        report = TavroRestoreSelection(Entries, recording.Bind(bar.Callbacks(), Run.bSync));
    }
    recording.End({});
    if (!report) {
        TavroPrintError(TavroDescribe(report));
        return TavroExitCodeOf(report.Batch.Failure);
    }
    for (std::size_t i = 0; i < Entries.size(); ++i) {
        Run.Index.Drop(Items[i]);
        if (!Run.bQuiet) {
            TavroPrintLine(stdout,
                           Entries[i].Entry.TrashPath + " -> " + Entries[i].Entry.OriginalPath);
        }
    }
    Run.Lost.AccessLists += report.Batch.Lost.AccessLists;
    Run.Lost.ExtendedAttributes += report.Batch.Lost.ExtendedAttributes;
    return TavroExitDone;
}

/// Finds what a name means, and where it goes.
int Find(Restoring& Run, const std::string& Name, TavroTrashItem& OutItem,
         TavroTrashedEntry& OutEntry) {
    if (const TavroFailure failure = Run.Index.Find(Name, OutItem)) {
        return TavroPrintFailure(failure);
    }
    OutEntry = OutItem.Trashed();
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

/// Names that do not stand in each other's way are one operation; else each is one.
int RunRestore(const std::vector<std::string>& Names, const std::string& Volume, bool bKeepBoth,
               bool bQuiet, bool bSync) {
    TavroCatchInterrupts();
    TavroWhichTrashes trashes;
    if (const TavroFailure failure = TavroSeeTrashes(Volume, trashes)) {
        return TavroPrintFailure(failure);
    }
    Restoring run{bKeepBoth, bQuiet, bSync, TavroTrashIndex(std::move(trashes))};
    std::vector<TavroTrashItem> items(Names.size());
    std::vector<TavroTrashedEntry> entries(Names.size());
    bool bTogether = Names.size() > 1 && !TavroCanAsk();
    for (std::size_t i = 0; i < Names.size() && bTogether; ++i) {
        bTogether = !run.Index.Find(Names[i], items[i]);
        entries[i] = items[i].Folders ? items[i].Trashed() : entries[i];
        bTogether = bTogether && !TavroIsPresent(entries[i].Entry.OriginalPath);
    }
    if (bTogether && AreApart(entries)) {
        const int exitCode = Restore(run, items, entries);
        TavroPrintLost(run.Lost);
        return exitCode;
    }
    int exitCode = TavroExitDone;
    for (std::size_t i = 0; i < Names.size() && exitCode <= TavroExitUsage; ++i) {
        int code = TavroWasInterrupted() ? TavroInterruptedExitCode()
                                         : Find(run, Names[i], items[i], entries[i]);
        code = code == TavroExitDone ? Restore(run, {items[i]}, {entries[i]}) : code;
        exitCode = std::max(exitCode, code);
    }
    TavroPrintLost(run.Lost);
    return exitCode;
}

} // namespace

void TavroAddRestore(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command =
        TavroAddCommand(App, "restore", "Put trashed entries back", "restore old.iso");
    CLI::Option* names =
        TavroAddNames(*command, "NAME", 1, "A name in the trash, or an original path",
                      "the name of something in the trash");
    CLI::Option* keepBoth =
        command->add_flag("--keep-both", "To a free name where the original place is taken");
    CLI::Option* quiet = TavroAddQuiet(*command);
    CLI::Option* noSync = TavroAddNoSync(*command);
    CLI::Option* volume = TavroAddVolume(*command);
    Table[command] = [=] {
        return RunRestore(TavroValues(names), TavroValue(volume), !keepBoth->empty(),
                          !quiet->empty(), TavroShouldSync(noSync));
    };
}
