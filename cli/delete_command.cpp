#include "commands.h"
#include "entries.h"
#include "interrupt.h"
#include "measure.h"
#include "terminal.h"
#include "trash.h"

#include <algorithm>

namespace fs = std::filesystem;

namespace {

/// What nobody deletes on purpose: the home directory, the folders of the trash, the current
/// directory.
std::vector<fs::path> ProtectedPlaces() {
    const TavroTrashFolders trash = TavroFindTrashFolders();
    std::error_code ec;
    return {TavroHomeDirectoryPath(), trash.Root, trash.Files, trash.Info, fs::current_path(ec)};
}

/// Whether the entry is one of the places, or holds one. The root directory holds everything.
bool IsProtected(const TavroOperationEntry& Entry, const std::vector<fs::path>& Places) {
    if (Entry.Path == "/") {
        return true;
    }
    const auto isHeld = [&Entry](const fs::path& place) {
        return !place.empty() && (TavroPathsEquivalentOrSame(Entry.Path, place) ||
                                  TavroPathIsInside(Entry.Path, place));
    };
    return Entry.bDirectory && std::any_of(Places.begin(), Places.end(), isHeld);
}

/// Says which entries are never deleted, before anything is touched.
bool CheckNoneProtected(const std::vector<TavroOperationEntry>& Entries) {
    const std::vector<fs::path> places = ProtectedPlaces();
    bool bNone = true;
    for (const TavroOperationEntry& entry : Entries) {
        if (IsProtected(entry, places)) {
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

/// Deletes one entry for good, the innermost first, so that an interrupt takes effect soon.
/// @return false when it was interrupted, or with a sentence in `ErrorMessage`.
bool DeleteEntry(const TavroOperationEntry& Entry, std::string& ErrorMessage) {
    std::vector<TavroOperationEntry> below;
    std::error_code ec;
    if (Entry.bDirectory) {
        fs::directory_iterator listing(Entry.Path, ec);
        for (const fs::directory_iterator end; !ec && listing != end; listing.increment(ec)) {
            below.push_back(TavroSelectEntry(listing->path().string()));
        }
    }
    for (const TavroOperationEntry& entry : below) {
        if (TavroWasInterrupted() || !DeleteEntry(entry, ErrorMessage)) {
            return false;
        }
    }
    return TavroDeleteEntries({Entry}, false, ErrorMessage);
}

int DeleteAll(const std::vector<TavroOperationEntry>& Entries) {
    for (const TavroOperationEntry& entry : Entries) {
        std::string error;
        if (!TavroWasInterrupted() && DeleteEntry(entry, error)) {
            continue;
        }
        TavroPrintError(error.empty() ? "Interrupted: what is left of '" + entry.Path +
                                            "' and what comes after it stays."
                                      : error);
        return TavroWasInterrupted() ? TavroExitInterrupted : TavroExitFailed;
    }
    return TavroExitDone;
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
    const int exitCode = DeleteAll(selection);
    if (exitCode == TavroExitDone) {
        TavroPrintLine(stdout, "Deleted " + ContentText(measurement));
    }
    return exitCode;
}
