// `tavro undo`, `tavro redo` and `tavro resume`.

#include "command.h"
#include "measure.h"
#include "progress_bar.h"
#include "recording.h"
#include "undo.h"

#include <climits>
#include <set>
#include <utility>

namespace {

using Act = std::function<TavroUndoReport(TavroHistory&, const TavroTransferCallbacks&)>;

/// How much entries in the trash hold: " (3 MB)". Nothing where a count would take long: nobody
/// waits for what is only told.
std::string SizeText(const std::vector<const TavroStep*>& Trashed) {
    constexpr int mostEntries = 10000;
    int count = 0;
    TavroMeasurement measured;
    const auto isEnough = [&] { return ++count > mostEntries || TavroWasInterrupted(); };
    for (const TavroStep* step : Trashed) {
        if (!TavroMeasureEntry(step->To, isEnough, measured)) {
            return "";
        }
    }
    return " (" + TavroHumanSize(measured.ByteCount) + ")";
}

/// Says what was undone, of a copy where it is now.
void PrintDone(const TavroUndoReport& Report, const std::string& Title, bool bVerbose) {
    std::vector<const TavroStep*> trashed;
    for (const TavroStep& step : Report.Operation.Steps) {
        if (step.Role == TavroStepRole::Trashed) {
            trashed.push_back(&step);
        }
    }
    if (bVerbose || !Report.bUndone || Report.Operation.Kind != TavroOperationKind::Copy ||
        trashed.empty()) {
        TavroPrintOperation(Title, Report.Operation, bVerbose);
        return;
    }
    const std::string what = trashed.size() == 1 ? TavroShownPath(stdout, trashed[0]->From)
                                                 : TavroCountText(trashed.size(), "entry");
    TavroPrintLine(stdout, "Undid copy: moved " + what + " to the trash" + SizeText(trashed));
}

/// How the command was told to work.
struct Manner {
    bool bQuiet;
    bool bVerbose;
    bool bSync;
};

/// Adds -q, -v and --no-sync to a command.
/// @return what reads them.
std::function<Manner()> AddManner(CLI::App& Command) {
    CLI::Option* quiet = TavroAddQuiet(Command);
    CLI::Option* verbose = TavroAddVerbose(Command);
    CLI::Option* noSync = TavroAddNoSync(Command);
    return [=] { return Manner{!quiet->empty(), !verbose->empty(), TavroShouldSync(noSync)}; };
}

/// Says what became of it, of what failed, and what could not be kept.
int PrintReport(const TavroUndoReport& Report, const std::string& Title, const Manner& How) {
    if (!Report.Rests.empty()) {
        const std::size_t more = Report.Rests.size() - 1;
        TavroPrintError("What was left at '" + Report.Rests.front() + "'" +
                        (more == 0 ? "" : " and " + TavroGroupedNumber(more) + " more") +
                        " is in the trash");
    }
    TavroPrintSkipped(Report.Transfer.Skipped, How.bVerbose);
    TavroPrintFailures(Report.Transfer.Failed);
    const bool bUnsettled = Report.Transfer.bUnsettled;
    if (Report.Failure) {
        TavroPrintError(TavroDescribe(Report));
    }
    if (bUnsettled || (Report.Failure && Report.bPartly && !Report.bDoneButNotSaved)) {
        TavroPrintError("Not finished: 'tavro resume' continues, 'tavro undo' takes it back");
    } else if (!Report.Failure && !How.bQuiet) {
        PrintDone(Report, Title, How.bVerbose);
    }
    const int exitCode = TavroExitCodeOf(Report.Failure);
    return exitCode == TavroExitDone && (bUnsettled || !Report.Transfer.Failed.empty())
               ? TavroExitFailed
               : exitCode;
}

/// Runs one step with a progress line.
TavroUndoReport RunShown(const Act& Run, TavroHistory& History, const Manner& How) {
    TavroProgressBar bar(How.bQuiet);
    bool bStopped = false; // which is told as any other cancel
    TavroTransferCallbacks callbacks{bar.Callbacks(), TavroConflictQuestion(bar, bStopped)};
    callbacks.bSync = How.bSync;
    return Run(History, callbacks);
}

int RunStep(const Act& Run, const std::string& Title, const Manner& How) {
    TavroCatchInterrupts();
    TavroHistory history;
    if (const TavroFailure failure = TavroOpenHistory(history)) {
        return TavroExitCodeOf(failure);
    }
    return PrintReport(RunShown(Run, history, How), Title, How);
}

/// What cannot be undone now, and what can be instead.
struct Detour {
    std::vector<std::string> PassedOver;
    bool bAgreed = true; ///< Nothing is left of what is passed over: nobody need be asked.
    std::int64_t Id = 0; ///< The newest operation that can be undone; 0: there is none.
    std::string Text;    ///< What that was.
};

/// Looks for the newest operation that can be undone, and changes nothing.
/// @param Newest  why the newest one cannot.
TavroFailure FindDetour(TavroHistory& History, TavroFailure Newest, Detour& Out) {
    std::vector<TavroOperation> operations;
    std::vector<std::uint64_t> counts;
    TavroFailure failure = History.List(false, operations, counts);
    for (std::size_t i = 0; i < operations.size() && !failure && Out.Id == 0; ++i) {
        std::optional<TavroOperation> operation;
        bool bNothingLeft = false;
        if (operations[i].State == TavroOperationState::Undone) {
            continue;
        }
        TavroFailure why = History.Read(operations[i].Id, operation);
        why = why || !operation ? why : TavroCheckUndo(*operation, bNothingLeft);
        if (Newest.Kind == TavroFailureKind::HistoryInvalid && why.Kind != Newest.Kind) {
            Out.PassedOver.push_back(TavroDescribe(std::exchange(Newest, {}))); // it is not listed
            Out.bAgreed = false;
        }
        why = Out.PassedOver.empty() ? std::exchange(Newest, {}) : why;
        const std::string what = TavroOperationText(operations[i], counts[i]);
        Out.Text = std::to_string(operations[i].Id) + " " + TavroKindText(operations[i].Kind) +
                   (what.empty() ? "" : " ") + what;
        if (why) {
            Out.bAgreed = Out.bAgreed && bNothingLeft;
            Out.PassedOver.push_back(Out.Text + ": " + TavroDescribe(why));
        } else {
            Out.Id = operations[i].Id;
        }
    }
    if (Newest) { // nothing is listed
        Out.PassedOver.push_back(TavroDescribe(Newest));
    }
    return failure;
}

/// Whether what stands in the way of the next undo is to be passed over. It is said what that is.
/// @return TavroExitDone, or the exit code to end with.
int AgreeTo(const Detour& What, bool bSkip) {
    for (const std::string& text : What.PassedOver) {
        TavroPrintError("Cannot be undone: " + text);
    }
    if (What.Id == 0) {
        TavroPrintError("Nothing else can be undone");
        return TavroExitFailed;
    }
    if (bSkip || What.bAgreed) {
        return TavroExitDone;
    }
    if (TavroCanAsk()) {
        return TavroConfirm("Undo " + TavroPrintableText(What.Text) + " instead?",
                            "Nothing was undone");
    }
    TavroPrintError("With --skip this is undone instead: " + What.Text);
    return TavroExitFailed;
}

/// Whether a failure tells that an operation cannot be undone as things are now, and not that the
/// undo went wrong.
bool StandsInTheWay(const TavroUndoReport& Report) {
    using Kind = TavroFailureKind;
    static const std::set<Kind> kinds = {Kind::Missing,         Kind::ItemMissing,
                                         Kind::Replaced,        Kind::InTheWay,
                                         Kind::NotDirectory,    Kind::NotEmpty,
                                         Kind::LeavesVolume,    Kind::RestoreTargetTaken,
                                         Kind::LookAt,          Kind::ReadForUndo,
                                         Kind::RefuseMove,      Kind::RefuseTrash,
                                         Kind::DeletionIsFinal, Kind::DeletionWasInterrupted,
                                         Kind::HistoryInvalid};
    const bool bAsItWas = !Report.bPartly && Report.Moves.RollBack.empty() &&
                          Report.Trash.Batch.RollBack.empty() && Report.Trash.Left.empty() &&
                          Report.Trash.InBoth.empty();
    return bAsItWas && kinds.count(Report.Failure.Kind) != 0;
}

/// @param Id  of the operation to undo; 0: the newest that can be undone.
int RunUndo(std::int64_t Id, bool bSkip, const Manner& How) {
    TavroCatchInterrupts();
    TavroHistory history;
    if (const TavroFailure failure = TavroOpenHistory(history)) {
        return TavroExitCodeOf(failure);
    }
    const auto undo = [&](std::int64_t id) {
        const Act only = [id](TavroHistory& all, const TavroTransferCallbacks& callbacks) {
            return TavroUndo(all, callbacks, id);
        };
        return RunShown(only, history, How);
    };
    TavroUndoReport report = undo(Id);
    Detour detour;
    if (Id == 0 && StandsInTheWay(report) && !FindDetour(history, report.Failure, detour)) {
        if (const int exitCode = AgreeTo(detour, bSkip)) {
            return exitCode;
        }
        report = undo(detour.Id);
    }
    return PrintReport(report, "Undone: ", How);
}

void AddStep(CLI::App& App, const std::string& Name, const std::string& Description, const Act& Run,
             const std::string& Title, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, Name, Description, Name);
    const std::function<Manner()> readManner = AddManner(*command);
    Table[command] = [=] { return RunStep(Run, Title, readManner()); };
}

} // namespace

void TavroAddUndo(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command =
        TavroAddCommand(App, "undo", "Undo the newest operation, or another one", "undo");
    CLI::Option* id = command->add_option("ID")->type_name("");
    id->description("The number of the operation, as 'tavro history' shows it");
    TavroCheckNumber(*id, 1, INT_MAX, "the number of an operation");
    CLI::Option* skip = command->add_flag("--skip", "Skip what cannot be undone, without asking");
    skip->excludes(id);
    const std::function<Manner()> readManner = AddManner(*command);
    Table[command] = [=] {
        return RunUndo(id->empty() ? 0 : id->as<std::int64_t>(), !skip->empty(), readManner());
    };
}

void TavroAddRedo(CLI::App& App, TavroCommandTable& Table) {
    AddStep(App, "redo", "Do again what was undone last", TavroRedo, "Redone: ", Table);
}

void TavroAddResume(CLI::App& App, TavroCommandTable& Table) {
    AddStep(App, "resume", "Continue what was interrupted", TavroResume, "Finished: ", Table);
}
