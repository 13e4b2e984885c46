// `tavro undo` and `tavro redo`.

#include "command.h"
#include "progress_bar.h"
#include "recording.h"
#include "undo.h"

namespace {

using Act = TavroUndoReport (*)(TavroHistory&, const TavroCallbacks&);

int RunStep(Act Run, const std::string& Title, bool bQuiet) {
    TavroCatchInterrupts();
    TavroHistory history;
    if (const TavroFailure failure = TavroOpenHistory(history, false)) {
        return TavroExitCodeOf(failure);
    }
    TavroUndoReport report;
    {
        TavroProgressBar bar(bQuiet);
        report = Run(history, bar.Callbacks());
    }
    if (report.Failure) {
        TavroPrintError(TavroDescribe(report));
    } else if (!bQuiet) {
        TavroPrintOperation(Title, report.Operation);
    }
    return TavroExitCodeOf(report.Failure);
}

void AddStep(CLI::App& App, const std::string& Name, const std::string& Description, Act Run,
             const std::string& Title, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, Name, Description, Name);
    CLI::Option* quiet = TavroAddQuiet(*command);
    Table[command] = [=] { return RunStep(Run, Title, !quiet->empty()); };
}

} // namespace

void TavroAddUndo(CLI::App& App, TavroCommandTable& Table) {
    AddStep(App, "undo", "Undo the newest operation", TavroUndo, "Undone: ", Table);
}

void TavroAddRedo(CLI::App& App, TavroCommandTable& Table) {
    AddStep(App, "redo", "Do again what was undone last", TavroRedo, "Redone: ", Table);
}
