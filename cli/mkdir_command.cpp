// `tavro mkdir`.

#include "command.h"
#include "record.h"
#include "recording.h"

#include <algorithm>

namespace {

int MakeDirectory(const std::string& Text, const std::string& BaseDirectory, TavroKeeping Keeping) {
    if (!TavroCanResolve(Text)) {
        return TavroExitFailed;
    }
    TavroRecording recording;
    const TavroEditReport report =
        TavroMakeDirectory(Text, BaseDirectory, recording.Bind({}, Keeping));
    const int exitCode = recording.End(TavroOperationOf(report));
    if (!report.Failure) {
        TavroPrintLine(stdout, TavroShownPath(stdout, report.Path));
    }
    return std::max(exitCode, TavroPrintFailure(report.Failure));
}

/// Each is an operation of its own; one that fails keeps no other from being created.
int RunMkdir(const std::vector<std::string>& Texts, const std::string& BaseDirectory,
             TavroKeeping Keeping) {
    TavroCatchInterrupts();
    int exitCode = TavroExitDone;
    for (const std::string& text : Texts) {
        const int code = TavroWasInterrupted() ? TavroInterruptedExitCode()
                                               : MakeDirectory(text, BaseDirectory, Keeping);
        exitCode = std::max(exitCode, code);
    }
    return exitCode;
}

} // namespace

void TavroAddMkdir(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command =
        TavroAddCommand(App, "mkdir", "Create directories, with their missing parents",
                        "mkdir Letters/2026 Photos");
    CLI::Option* texts = TavroAddNames(*command, "TEXT", 1, "A new directory: a name, a path, ~/…",
                                       "a name for the new directory");
    CLI::Option* in = TavroAddBaseDirectory(*command);
    const TavroKeepingOptions keeping = TavroAddKeeping(*command);
    Table[command] = [=] {
        return RunMkdir(TavroValues(texts), TavroBaseDirectory(in), keeping.Keeping());
    };
}
