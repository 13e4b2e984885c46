// `tavro trash`.

#include "commands.h"
#include "entries.h"
#include "interrupt.h"
#include "measure.h"
#include "progress_bar.h"
#include "record.h"
#include "terminal.h"
#include "trash.h"

namespace {

/// Copying into the trash takes time and space, so it is said, with the size, before it begins.
/// @return false when the person was asked and said no, or interrupted the count.
bool AgreeToCopying(const std::vector<TavroOperationEntry>& Entries, bool bQuiet) {
    const std::vector<TavroOperationEntry> others = TavroEntriesOnOtherDevices(Entries);
    if (others.empty()) {
        return true;
    }
    TavroMeasurement measurement;
    for (const TavroOperationEntry& entry : others) {
        if (!TavroMeasureEntry(entry.Path, TavroWasInterrupted, measurement)) {
            return false;
        }
    }
    const std::string text = TavroCountText(others.size(), "entry") +
                             " on another file system will be copied to the trash (" +
                             TavroHumanSize(measurement.ByteCount) + ")";
    if (TavroCanAsk() && !bQuiet) {
        return TavroConfirm(text + ". Go on?");
    }
    if (!bQuiet) {
        TavroPrintError(text);
    }
    return true;
}

} // namespace

int TavroRunTrash(const std::vector<std::string>& Entries, bool bQuiet) {
    std::vector<TavroOperationEntry> selection;
    std::string error;
    if (!TavroFindEntries(Entries, selection)) {
        return TavroExitFailed;
    }
    if (!TavroCheckTrashable(selection, error)) {
        TavroPrintError(error);
        return TavroExitFailed;
    }
    TavroCatchInterrupts();
    if (!AgreeToCopying(selection, bQuiet)) {
        TavroPrintError("Nothing was moved to the trash.");
        return TavroWasInterrupted() ? TavroExitInterrupted : TavroExitFailed;
    }
    TavroHistoryOperation operation;
    bool bTrashed = false;
    {
        TavroProgressBar bar(bQuiet);
        TavroTransferCallbacks callbacks = TavroMakeCallbacks(bar);
        bTrashed = TavroTrashSelection(selection, callbacks, operation.TrashEntries, error);
    }
    if (!bTrashed) {
        TavroPrintError(error);
        return TavroWasInterrupted() ? TavroExitInterrupted : TavroExitFailed;
    }
    // Recorded before it is printed: a reader that goes away must not cost the undo.
    operation.Kind = TavroHistoryKind::Trash;
    TavroRecordOperation(operation);
    if (!bQuiet) {
        for (const TavroTrashEntry& entry : operation.TrashEntries) {
            TavroPrintLine(stdout, entry.OriginalPath + " -> " + entry.TrashPath);
        }
    }
    return TavroExitDone;
}
