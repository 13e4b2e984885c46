// `tavro undo`, `tavro redo` and `tavro resume`.

#include "command.h"
#include "progress_bar.h"
#include "recording.h"
#include "undo.h"

namespace {

using Act = std::function<TavroUndoReport(TavroHistory&, const TavroCallbacks&)>;

/// Says what became of it, of what failed, and what could not be kept.
int PrintReport(const TavroUndoReport& Report, const std::string& Title, bool bQuiet) {
    TavroPrintFailures(Report.Transfer.Failed);
    if (Report.Failure) {
        TavroPrintError(TavroDescribe(Report));
    } else if (!bQuiet) {
        TavroPrintOperation(Title, Report.Operation);
    }
    const int exitCode = TavroExitCodeOf(Report.Failure);
    return exitCode == TavroExitDone && !Report.Transfer.Failed.empty() ? TavroExitFailed
                                                                        : exitCode;
}

int RunStep(const Act& Run, const std::string& Title, bool bQuiet, bool bSync) {
    TavroCatchInterrupts();
    TavroHistory history;
    if (const TavroFailure failure = TavroOpenHistory(history)) {
        return TavroExitCodeOf(failure);
    }
    TavroUndoReport report;
    {
        TavroProgressBar bar(bQuiet);
        TavroCallbacks callbacks = bar.Callbacks();
        callbacks.bSync = bSync;
        report = Run(history, callbacks);
    }
    return PrintReport(report, Title, bQuiet);
}

void AddStep(CLI::App& App, const std::string& Name, const std::string& Description, const Act& Run,
             const std::string& Title, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, Name, Description, Name);
    CLI::Option* quiet = TavroAddQuiet(*command);
    CLI::Option* noSync = TavroAddNoSync(*command);
    Table[command] = [=] { return RunStep(Run, Title, !quiet->empty(), TavroShouldSync(noSync)); };
}

} // namespace

void TavroAddUndo(CLI::App& App, TavroCommandTable& Table) {
    AddStep(App, "undo", "Undo the newest operation", TavroUndo, "Undone: ", Table);
}

void TavroAddRedo(CLI::App& App, TavroCommandTable& Table) {
    AddStep(App, "redo", "Do again what was undone last", TavroRedo, "Redone: ", Table);
}

void TavroAddResume(CLI::App& App, TavroCommandTable& Table) {
    const auto resume = [](TavroHistory& history, const TavroCallbacks& callbacks) {
        return TavroResume(history, {callbacks, {}, {}});
    };
    AddStep(App, "resume", "Go on with what was interrupted", resume, "Finished: ", Table);
}
