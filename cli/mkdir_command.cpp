// `tavro mkdir`.

#include "command.h"
#include "record.h"
#include "recording.h"

namespace {

int RunMkdir(const std::string& Text, const std::string& BaseDirectory, bool bSync) {
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
    CLI::Option* text = command->add_option("TEXT");
    text->required()->description("The new folder as a pane takes it: a name, a path, ~/…");
    CLI::Option* in = TavroAddBaseDirectory(*command);
    CLI::Option* noSync = TavroAddNoSync(*command);
    Table[command] = [=] {
        return RunMkdir(TavroValue(text), TavroBaseDirectory(in), TavroShouldSync(noSync));
    };
}
