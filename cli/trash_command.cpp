// `tavro trash`.

#include "command.h"
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

int RunTrash(const std::vector<std::string>& Texts, const TavroTrashOptions& Options, bool bQuiet,
             bool bSync) {
    // Each entry is looked at once, when it is trashed; before a question all are checked.
    const std::vector<TavroOperationEntry> entries = TavroNameEntries(Texts);
    TavroCatchInterrupts();
    const std::vector<TavroOperationEntry> copied = bQuiet || Options.bNeverCopy
                                                        ? std::vector<TavroOperationEntry>()
                                                        : TavroEntriesToCopy(entries, Options);
    if (!copied.empty()) {
        if (const int exitCode = AgreeToCopying(copied)) {
            return exitCode;
        }
    }
    TavroTrashReport report;
    TavroRecording recording;
    {
        TavroProgressBar bar(bQuiet);
        report =
            TavroTrashSelection(entries, recording.Bind(bar.Callbacks(), bSync), {}, {}, Options);
    }
    // Recorded before it is printed: a reader that goes away must not cost the undo.
    recording.End(TavroOperationOf(report));
    if (!report) {
        return PrintRefusal(report, Texts);
    }
    TavroPrintLost(report.Batch.Lost);
    for (const TavroTrashedEntry& trashed : report.Entries) {
        if (!bQuiet) {
            TavroPrintLine(stdout, trashed.Entry.OriginalPath + " -> " + trashed.Entry.TrashPath);
        }
    }
    return TavroExitDone;
}

} // namespace

void TavroAddTrash(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command =
        TavroAddCommand(App, "trash", "Move entries to the trash, all or nothing", "trash old.iso");
    CLI::Option* names =
        TavroAddNames(*command, "ENTRY", 1, "What is trashed", "an entry to trash");
    CLI::Option* home = command->add_flag("--home", "To the home trash from other volumes too");
    CLI::Option* noCopy = command->add_flag("--no-copy", "Fail instead of copying to the trash");
    CLI::Option* quiet = TavroAddQuiet(*command);
    CLI::Option* noSync = TavroAddNoSync(*command);
    Table[command] = [=] {
        return RunTrash(TavroValues(names), {!home->empty(), !noCopy->empty()}, !quiet->empty(),
                        TavroShouldSync(noSync));
    };
}
