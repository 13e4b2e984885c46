// `tavro delete`.

#include "command.h"
#include "edit.h"
#include "measure.h"
#include "recording.h"

#include <algorithm>

namespace {

/// "2 files and 1 directory (1.5 kB)"
std::string ContentText(const TavroMeasurement& Measurement) {
    const std::string files = TavroCountText(Measurement.FileCount, "file");
    const std::string directories = TavroCountText(Measurement.DirectoryCount, "directory");
    const std::string size = " (" + TavroHumanSize(Measurement.ByteCount) + ")";
    if (Measurement.DirectoryCount == 0) {
        return files + size;
    }
    return (Measurement.FileCount == 0 ? directories : files + " and " + directories) + size;
}

/// Asks whether all this is to be deleted.
/// @param OutContent  what it is.
/// @return TavroExitDone for a yes; else the exit code to end with.
int AgreeToDeleting(const std::vector<TavroOperationEntry>& Entries, std::string& OutContent) {
    TavroMeasurement measurement;
    for (const TavroOperationEntry& entry : Entries) {
        if (!TavroMeasureEntry(entry.Path, TavroWasInterrupted, measurement)) {
            return TavroInterruptedExitCode();
        }
    }
    OutContent = ContentText(measurement);
    for (const TavroOperationEntry& entry : Entries) {
        TavroPrintLine(stderr, TavroShownPath(stderr, entry.Path));
    }
    return TavroConfirm("Delete " + OutContent + " for good?", "Nothing was deleted");
}

int RunDelete(const std::vector<std::string>& Texts, bool bForce, TavroKeeping Keeping) {
    std::vector<TavroOperationEntry> entries;
    if (!TavroFindEntries(Texts, entries) || !TavroPrintFailures(TavroCheckDeletable(entries))) {
        return TavroExitFailed;
    }
    if (!bForce && !TavroCanAsk()) {
        TavroPrintError("Refusing to delete for good without asking: use -f, or a terminal");
        return TavroExitUsage;
    }
    TavroCatchInterrupts();
    // Without a question nobody waits for a count, which would take longer than the deletion.
    std::string content = TavroCountText(entries.size(), "entry");
    if (!bForce) {
        if (const int exitCode = AgreeToDeleting(entries, content)) {
            return exitCode;
        }
    }
    TavroRecording recording;
    const TavroFailure failure =
        TavroDeleteForGood(entries, recording.Bind({{}, TavroWasInterrupted}, Keeping));
    const int exitCode = recording.EndDeletion(failure);
    if (failure.Kind == TavroFailureKind::Cancelled) {
        TavroPrintError("Interrupted: what is left of '" + failure.Path +
                        "' was kept, and so was every entry after it");
        return TavroExitCodeOf(failure);
    }
    if (!failure) {
        TavroPrintLine(stdout, "Deleted " + content);
    }
    return std::max(exitCode, TavroPrintFailure(failure));
}

} // namespace

void TavroAddDelete(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "delete", "Delete entries for good, after a question",
                                        "delete old.iso");
    CLI::Option* names =
        TavroAddNames(*command, "ENTRY", 1, "The entries to delete", "an entry to delete");
    CLI::Option* force = command->add_flag("-f,--force", "Do not ask");
    const TavroKeepingOptions keeping = TavroAddKeeping(*command, false);
    Table[command] = [=] {
        return RunDelete(TavroValues(names), !force->empty(), keeping.Keeping());
    };
}
