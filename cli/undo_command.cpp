// `tavro undo`, `tavro redo` and `tavro resume`.

#include "command.h"
#include "progress_bar.h"
#include "recording.h"
#include "undo.h"

namespace {

using Act = std::function<TavroUndoReport(TavroHistory&, const TavroTransferCallbacks&)>;

/// Says what became of it, of what failed, and what could not be kept.
int PrintReport(const TavroUndoReport& Report, const std::string& Title, bool bQuiet) {
    TavroPrintSkipped(Report.Transfer.Skipped);
    TavroPrintFailures(Report.Transfer.Failed);
    const bool bUnsettled = Report.Transfer.bUnsettled;
    if (Report.Failure) {
        TavroPrintError(TavroDescribe(Report));
    } else if (bUnsettled) {
        TavroPrintError("Not finished: 'tavro resume' goes on, 'tavro undo' takes it back");
    } else if (!bQuiet) {
        TavroPrintOperation(Title, Report.Operation);
    }
    const int exitCode = TavroExitCodeOf(Report.Failure);
    return exitCode == TavroExitDone && (bUnsettled || !Report.Transfer.Failed.empty())
               ? TavroExitFailed
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
        bool bStopped = false; // which is told as any other cancel
        TavroTransferCallbacks callbacks{bar.Callbacks(), TavroConflictQuestion(bar, bStopped)};
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
    AddStep(App, "resume", "Go on with what was interrupted", TavroResume, "Finished: ", Table);
}
