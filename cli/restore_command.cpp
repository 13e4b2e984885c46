// `tavro restore`.

#include "command.h"
#include "names.h"
#include "progress_bar.h"
#include "recording.h"
#include "trash_contents.h"

namespace {

/// What is kept from one name to the next.
struct Restoring {
    bool bKeepBoth;
    bool bQuiet;
    bool bSync;
    TavroTrashIndex Index = {};
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
        return TavroConfirm("Something is at '" + taken + "'. Restore as '" + Place + "'?");
    }
    TavroPrintError("Something is at '" + taken + "': with --keep-both it would be restored as '" +
                    Place + "'");
    return TavroExitFailed;
}

/// Restores what a name means.
int Restore(Restoring& Run, const std::string& Name) {
    TavroTrashItem item;
    if (const TavroFailure failure = Run.Index.Find(Name, item)) {
        return TavroPrintFailure(failure);
    }
    TavroTrashedEntry trashed = item.Trashed();
    if (const int exitCode = ChoosePlace(Run, trashed.Entry.OriginalPath)) {
        return exitCode;
    }
    TavroTrashReport report;
    TavroRecording recording;
    {
        TavroProgressBar bar(Run.bQuiet);
        report = TavroRestoreSelection({trashed}, recording.Bind(bar.Callbacks(), Run.bSync));
    }
    recording.End({});
    if (!report) {
        TavroPrintError(TavroDescribe(report));
        return TavroExitCodeOf(report.Batch.Failure);
    }
    Run.Index.Drop(item);
    Run.Lost.AccessLists += report.Batch.Lost.AccessLists;
    Run.Lost.ExtendedAttributes += report.Batch.Lost.ExtendedAttributes;
    if (!Run.bQuiet) {
        TavroPrintLine(stdout, trashed.Entry.TrashPath + " -> " + trashed.Entry.OriginalPath);
    }
    return TavroExitDone;
}

int RunRestore(const std::vector<std::string>& Names, bool bKeepBoth, bool bQuiet, bool bSync) {
    TavroCatchInterrupts();
    Restoring run{bKeepBoth, bQuiet, bSync};
    int exitCode = TavroExitDone;
    for (std::size_t i = 0; i < Names.size() && exitCode <= TavroExitUsage; ++i) {
        const int code =
            TavroWasInterrupted() ? TavroInterruptedExitCode() : Restore(run, Names[i]);
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
        TavroAddNames(*command, "NAME", 1, "A name in the trash, or an original path");
    CLI::Option* keepBoth =
        command->add_flag("--keep-both", "To a free name where the original place is taken");
    CLI::Option* quiet = TavroAddQuiet(*command);
    CLI::Option* noSync = TavroAddNoSync(*command);
    Table[command] = [=] {
        return RunRestore(TavroValues(names), !keepBoth->empty(), !quiet->empty(),
                          TavroShouldSync(noSync));
    };
}
