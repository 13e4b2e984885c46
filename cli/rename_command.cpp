// `tavro rename`.

#include "commands.h"
#include "entries.h"
#include "interrupt.h"
#include "no_replace.h"
#include "record.h"
#include "tavropane.h"
#include "terminal.h"

namespace fs = std::filesystem;

namespace {

/// The module follows links when it looks for something in the way, so a dangling link would be
/// replaced.
bool IsDanglingLink(const fs::path& Path) {
    std::error_code ec;
    return fs::is_symlink(fs::symlink_status(Path, ec)) && !fs::exists(Path, ec);
}

/// Renames in one step that never replaces anything, where nothing has to be created or refused.
bool RenameNoReplace(const TavroOperationEntry& Entry, const fs::path& Target) {
    if (TavroIsCddaPath(Entry.Path) || Target.empty() || TavroIsPresent(Target)) {
        return false;
    }
    std::error_code ec;
    TavroRenameNoReplace(Entry.Path, Target, ec);
    return !ec;
}

/// What the quick way could not do the module does, or says why not.
bool Rename(const TavroOperationEntry& Entry, const std::string& Text,
            const fs::path& BaseDirectory) {
    std::string selectedPath;
    std::string error;
    try {
        if (TavroRenameEntry(Entry, Text, BaseDirectory, selectedPath, error)) {
            return true;
        }
    } catch (const fs::filesystem_error& failure) {
        error = "Cannot examine the rename target '" + failure.path1().string() +
                "': " + failure.code().message();
    }
    TavroPrintError(error);
    return false;
}

} // namespace

int TavroRunRename(const std::string& Entry, const std::string& Text) {
    std::vector<TavroOperationEntry> selection;
    if (!TavroFindEntries({Entry}, selection)) {
        return TavroExitFailed;
    }
    const TavroOperationEntry& entry = selection.front();
    // A bare new name stays beside the entry.
    const fs::path baseDirectory = fs::path(entry.Path).parent_path();
    const fs::path target = TavroResolveUserPath(TavroTrimText(Text), baseDirectory);
    if (IsDanglingLink(target)) {
        TavroPrintError("Rename target already exists, as a link to nothing: '" + target.string() +
                        "'");
        return TavroExitFailed;
    }
    TavroCatchInterrupts();
    if (!RenameNoReplace(entry, target) && !Rename(entry, Text, baseDirectory)) {
        return TavroExitFailed;
    }
    TavroHistoryOperation operation;
    operation.Kind = TavroHistoryKind::Rename;
    operation.Steps = {{entry.Path, target.string()}};
    TavroRecordOperation(std::move(operation));
    // The entry's own path: the module's would name what a renamed link points to.
    TavroPrintLine(stdout, target.string());
    return TavroExitDone;
}
