// `tavro trash`.

#include "command.h"
#include "format.h"
#include "measure.h"
#include "progress_bar.h"
#include "record.h"
#include "recording.h"
#include "trash.h"

namespace {

/// Copying into the trash takes time and space, so it is said, with the size, before it begins.
/// @return TavroExitDone; or the exit code to end with, when the person was asked and said no, or
///         interrupted the count.
int AgreeToCopying(const std::vector<TavroOperationEntry>& Others) {
    TavroMeasurement measurement;
    for (const TavroOperationEntry& entry : Others) {
        if (!TavroMeasureEntry(entry.Path, TavroWasInterrupted, measurement)) {
            return TavroInterruptedExitCode();
        }
    }
    const std::string text = TavroCountText(Others.size(), "entry") +
                             " on another file system will be copied to the trash (" +
                             TavroHumanSize(measurement.ByteCount) + ")";
    if (TavroCanAsk()) {
        return TavroConfirm(text + ". Go on?", "Nothing was moved to the trash");
    }
    TavroPrintError(text);
    return TavroExitDone;
}

/// Says why nothing was trashed; what does not exist is named as it was typed.
int PrintRefusal(const TavroTrashReport& Report, const std::vector<std::string>& Texts) {
    std::vector<TavroOperationEntry> entries;
    const bool bRefused = Report.Batch.Failure.Kind == TavroFailureKind::RefuseTrash;
    if (!bRefused || TavroFindEntries(Texts, entries)) {
        TavroPrintError(TavroDescribe(Report));
    }
    return TavroExitCodeOf(Report.Batch.Failure);
}

int RunTrash(const std::vector<std::string>& Texts, bool bQuiet, bool bVerbose,
             TavroKeeping Keeping) {
    // Each entry is looked at once, when it is trashed; before a question all are checked.
    const std::vector<TavroOperationEntry> entries = TavroNameEntries(Texts);
    TavroCatchInterrupts();
    const std::vector<TavroOperationEntry> others =
        bQuiet ? std::vector<TavroOperationEntry>() : TavroEntriesOnOtherDevices(entries);
    if (!others.empty() && TavroCheckTrashable(entries).empty()) {
        if (const int exitCode = AgreeToCopying(others)) {
            return exitCode;
        }
    }
    TavroTrashReport report;
    TavroRecording recording;
    {
        TavroProgressBar bar(bQuiet);
        report = TavroTrashSelection(entries, recording.Bind(bar.Callbacks(), Keeping));
    }
    // Recorded before it is printed: a reader that goes away must not cost the undo.
    const int exitCode = recording.End(TavroOperationOf(report));
    if (!report) {
        return PrintRefusal(report, Texts);
    }
    TavroPrintLost(report.Batch.Lost);
    const bool bEach = TavroTellsEach(report.Entries.size(), bVerbose);
    for (const TavroTrashedEntry& trashed : report.Entries) {
        if (!bQuiet && bEach) {
            TavroPrintLine(stdout,
                           TavroShownStep(trashed.Entry.OriginalPath, trashed.Entry.TrashPath));
        }
    }
    if (!bQuiet && !bEach) {
        TavroPrintLine(stdout,
                       "Moved " + TavroCountText(report.Entries.size(), "entry") + " to the trash");
    }
    return exitCode;
}

} // namespace

void TavroAddTrash(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command =
        TavroAddCommand(App, "trash", "Move entries to the trash, all or nothing", "trash old.iso");
    CLI::Option* names =
        TavroAddNames(*command, "ENTRY", 1, "What is trashed", "an entry to trash");
    CLI::Option* quiet = TavroAddQuiet(*command);
    CLI::Option* verbose = TavroAddVerbose(*command);
    const TavroKeepingOptions keeping = TavroAddKeeping(*command);
    Table[command] = [=] {
        return RunTrash(TavroValues(names), !quiet->empty(), !verbose->empty(), keeping.Keeping());
    };
}
