#include "commands.h"
#include "entries.h"
#include "interrupt.h"
#include "measure.h"
#include "terminal.h"

namespace {

/// What nobody deletes on purpose: the root directory, the home directory, what holds them.
bool IsProtected(const TavroOperationEntry& Entry) {
    if (Entry.Path == "/") {
        return true;
    }
    const std::string home = TavroHomeDirectoryPath();
    return Entry.bDirectory && !home.empty() &&
           (TavroPathsEquivalentOrSame(Entry.Path, home) || TavroPathIsInside(Entry.Path, home));
}

/// Says which entries are never deleted, before anything is touched.
bool CheckNoneProtected(const std::vector<TavroOperationEntry>& Entries) {
    bool bNone = true;
    for (const TavroOperationEntry& entry : Entries) {
        if (IsProtected(entry)) {
            TavroPrintError("Refusing to delete '" + entry.Path + "'");
            bNone = false;
        }
    }
    return bNone;
}

/// "2 files and 1 folder (1.5 kB)"
std::string ContentText(const TavroMeasurement& Measurement) {
    const std::string files = TavroCountText(Measurement.FileCount, "file");
    const std::string folders = TavroCountText(Measurement.DirectoryCount, "folder");
    const std::string size = " (" + TavroHumanSize(Measurement.ByteCount) + ")";
    if (Measurement.DirectoryCount == 0) {
        return files + size;
    }
    return (Measurement.FileCount == 0 ? folders : files + " and " + folders) + size;
}

} // namespace

int TavroRunDelete(const std::vector<std::string>& Entries, bool bForce) {
    std::vector<TavroOperationEntry> selection;
    if (!TavroFindEntries(Entries, selection) || !CheckNoneProtected(selection)) {
        return TavroExitFailed;
    }
    if (!bForce && !TavroCanAsk()) {
        TavroPrintError("Refusing to delete for good without asking: use -f, or a terminal");
        return TavroExitUsage;
    }
    TavroCatchInterrupts();
    TavroMeasurement measurement;
    for (const TavroOperationEntry& entry : selection) {
        if (!TavroMeasureEntry(entry.Path, TavroWasInterrupted, measurement)) {
            return TavroExitInterrupted;
        }
    }
    if (!bForce) {
        for (const TavroOperationEntry& entry : selection) {
            TavroPrintLine(stderr, entry.Path);
        }
        if (!TavroConfirm("Delete " + ContentText(measurement) + " for good?")) {
            TavroPrintError("Nothing was deleted.");
            return TavroWasInterrupted() ? TavroExitInterrupted : TavroExitFailed;
        }
    }
    std::string error;
    if (!TavroDeleteEntries(TavroKeepLinks(selection), false, error)) {
        TavroPrintError(error);
        return TavroExitFailed;
    }
    TavroPrintLine(stdout, "Deleted " + ContentText(measurement));
    return TavroExitDone;
}
