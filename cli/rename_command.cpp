// `tavro rename`.

#include "command.h"
#include "record.h"
#include "recording.h"

#include <algorithm>

namespace {

int RunRename(const std::string& Entry, const std::string& Text, TavroKeeping Keeping) {
    std::vector<TavroOperationEntry> entries;
    if (!TavroFindEntries({Entry}, entries) || !TavroCanResolve(Text)) {
        return TavroExitFailed;
    }
    TavroCatchInterrupts();
    TavroRecording recording;
    const TavroEditReport report =
        TavroRenameTo(entries.front(), Text, recording.Bind({}, Keeping));
    const int exitCode = recording.End(
        report.Failure ? TavroOperation() : TavroOperationOf(report, entries.front().Path));
    if (!report.Failure) {
        TavroPrintLine(stdout, TavroShownPath(stdout, report.Path));
    }
    return std::max(exitCode, TavroPrintFailure(report.Failure));
}

} // namespace

void TavroAddRename(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "rename", "Rename an entry, or move it to a new path",
                                        "rename report.txt final.txt");
    CLI::Option* entry =
        TavroAddName(*command, "ENTRY", "The entry to rename", "an entry to rename");
    CLI::Option* text =
        TavroAddName(*command, "TEXT", "The new name, or the full new path; relative to the entry",
                     "a new name");
    const TavroKeepingOptions keeping = TavroAddKeeping(*command);
    Table[command] = [=] {
        return RunRename(TavroValue(entry), TavroValue(text), keeping.Keeping());
    };
}
