// `tavro mkdir`.

#include "command.h"
#include "record.h"
#include "recording.h"

namespace {

int RunMkdir(const std::string& Text, const std::string& BaseDirectory, bool bSync) {
    if (!TavroCanResolve(Text)) {
        return TavroExitFailed;
    }
    TavroCatchInterrupts();
    TavroRecording recording;
    const TavroEditReport report =
        TavroMakeDirectory(Text, BaseDirectory, recording.Bind({}, bSync));
    recording.End(TavroOperationOf(report));
    if (!report.Failure) {
        TavroPrintLine(stdout, report.Path);
    }
    return TavroPrintFailure(report.Failure);
}

} // namespace

void TavroAddMkdir(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "mkdir", "Create a folder, with its missing parents",
                                        "mkdir 'Letters/2026'");
    CLI::Option* text =
        TavroAddName(*command, "TEXT", "The new folder as a pane takes it: a name, a path, ~/…",
                     "a name for the new directory");
    CLI::Option* in = TavroAddBaseDirectory(*command);
    CLI::Option* noSync = TavroAddNoSync(*command);
    Table[command] = [=] {
        return RunMkdir(TavroValue(text), TavroBaseDirectory(in), TavroShouldSync(noSync));
    };
}
