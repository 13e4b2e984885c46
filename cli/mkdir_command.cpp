// `tavro mkdir`.

#include "commands.h"
#include "interrupt.h"
#include "record.h"
#include "selection.h"
#include "terminal.h"

namespace fs = std::filesystem;

namespace {

/// The directories that have to be created for `Path` to exist, outer ones first.
std::vector<TavroHistoryStep> MissingDirectories(fs::path Path) {
    std::vector<TavroHistoryStep> steps;
    for (; Path.has_relative_path() && !TavroIsPresent(Path); Path = Path.parent_path()) {
        steps.insert(steps.begin(), {"", Path.string()});
    }
    return steps;
}

} // namespace

int TavroRunMkdir(const std::string& Text, const std::string& BaseDirectory) {
    TavroCatchInterrupts();
    const fs::path target = TavroResolveUserPath(TavroTrimText(Text), BaseDirectory);
    TavroHistoryOperation operation;
    operation.Kind = TavroHistoryKind::CreateDirectory;
    operation.Steps = MissingDirectories(target);
    std::string selectedPath;
    std::string error;
    if (!TavroCreateDirectory(Text, BaseDirectory, selectedPath, error)) {
        TavroPrintError(error);
        return TavroExitFailed;
    }
    TavroRecordOperation(std::move(operation));
    TavroPrintLine(stdout, selectedPath);
    return TavroExitDone;
}
