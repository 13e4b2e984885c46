#include "commands.h"
#include "selection.h"
#include "terminal.h"

namespace fs = std::filesystem;

int TavroRunRename(const std::string& Entry, const std::string& Text) {
    const TavroOperationEntry entry = TavroSelectEntry(Entry);
    // A bare new name stays beside the entry.
    const fs::path baseDirectory = fs::path(entry.Path).parent_path();
    std::string selectedPath;
    std::string error;
    try {
        if (!TavroRenameEntry(entry, Text, baseDirectory, selectedPath, error)) {
            TavroPrintError(error);
            return TavroExitFailed;
        }
    } catch (const fs::filesystem_error& failure) {
        TavroPrintError("Cannot examine the rename target '" + failure.path1().string() +
                        "': " + failure.code().message());
        return TavroExitFailed;
    }
    TavroPrintLine(stdout, selectedPath);
    return TavroExitDone;
}
