// `tavro rename`.

#include "command.h"
#include "record.h"
#include "recording.h"

namespace {

int RunRename(const std::string& Entry, const std::string& Text, bool bSync) {
    std::vector<TavroOperationEntry> entries;
    if (!TavroFindEntries({Entry}, entries)) {
        return TavroExitFailed;
    }
    TavroCatchInterrupts();
    TavroRecording recording;
    const TavroEditReport report = TavroRenameTo(entries.front(), Text, recording.Bind({}, bSync));
    recording.End(report.Failure ? TavroOperation()
                                 : TavroOperationOf(report, entries.front().Path));
    if (!report.Failure) {
        TavroPrintLine(stdout, report.Path);
    }
    return TavroPrintFailure(report.Failure);
}

} // namespace

void TavroAddRename(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "rename", "Rename an entry, or move it to a new path",
                                        "rename report.txt final.txt");
    CLI::Option* entry = command->add_option("ENTRY");
    entry->required()->description("What is renamed");
    CLI::Option* text = command->add_option("TEXT");
    text->required()->description("The new name, or the full new path; relative to the entry");
    CLI::Option* noSync = TavroAddNoSync(*command);
    Table[command] = [=] {
        return RunRename(TavroValue(entry), TavroValue(text), TavroShouldSync(noSync));
    };
}
