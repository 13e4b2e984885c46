// `tavro history`.

#include "command.h"
#include "format.h"
#include "json.h"
#include "mounts.h"
#include "recording.h"
#include "recovery.h"
#include "undo.h"

namespace {

/// Whether an operation that is not undone can be, and why not.
struct Prospect {
    TavroFailure Why = {};
    bool bNothingLeft = false;
    bool bSilent = false; ///< Something of it is where nothing answers: that is why.
};

/// Whether something of an operation is where nothing answers.
TavroFailure CheckAnswer(const TavroOperation& Operation, const std::vector<std::string>& Silent) {
    for (const TavroStep& step : Operation.Steps) {
        for (const std::string& path : {step.From, step.To}) {
            if (const std::string mount = TavroFindAbove(Silent, path); !mount.empty()) {
                return TavroFail(TavroFailureKind::LookAt, ETIMEDOUT, mount);
            }
        }
    }
    return {};
}

/// @param Silent  the mounts that are not to be looked at.
Prospect ProspectOf(TavroHistory& History, const TavroOperation& Operation,
                    const std::vector<std::string>& Silent) {
    Prospect prospect;
    std::optional<TavroOperation> whole;
    if (Operation.State != TavroOperationState::Undone) {
        prospect.Why = History.Read(Operation.Id, whole);
    }
    if (whole) {
        prospect.Why = CheckAnswer(*whole, Silent);
        prospect.bSilent = static_cast<bool>(prospect.Why);
    }
    if (whole && !prospect.bSilent) {
        prospect.Why = TavroCheckUndo(*whole, prospect.bNothingLeft);
    }
    return prospect;
}

/// "  (undone)", or why it cannot be; empty for what can be undone.
std::string ProspectText(const TavroOperation& Operation, const Prospect& Ahead) {
    if (Operation.State == TavroOperationState::Undone) {
        return "  (undone)";
    }
    return Ahead.bNothingLeft ? "  (nothing is left to undo)"
           : Ahead.Why
               ? "  (cannot be undone: " + TavroShownSentence(stdout, TavroDescribe(Ahead.Why)) +
                     ")"
               : "";
}

TavroJson OperationJson(const TavroOperation& Operation, const Prospect& Ahead, bool bInterrupted) {
    TavroJson entries = TavroJson::array();
    const auto add = [&](const TavroStep& step, const char* from, const char* to) {
        TavroJson json;
        TavroAddPath(json, from, step.From);
        TavroAddPath(json, to, step.To);
        entries.push_back(json);
    };
    for (const TavroStep* step : TavroTellingSteps(Operation)) {
        const bool bTrashed = step->Role == TavroStepRole::Trashed;
        add(*step, bTrashed ? "original" : "from", bTrashed ? "trash" : "to");
    }
    for (const TavroStep& step : Operation.Steps) { // of a copy that was undone
        if (Operation.Kind == TavroOperationKind::Copy && step.Role == TavroStepRole::Trashed) {
            add(step, "original", "trash");
        }
    }
    const bool bUndone = Operation.State == TavroOperationState::Undone;
    TavroJson json = {{"id", Operation.Id},
                      {"kind", TavroKindText(Operation.Kind)},
                      {"time", TavroTimeText(Operation.Time)},
                      {"undone", bUndone},
                      {"interrupted", bInterrupted},
                      {"undoable", !bUndone && !Ahead.Why},
                      {"entries", entries}};
    if (Ahead.Why) {
        json["reason"] = TavroDescribe(Ahead.Why);
    }
    return json;
}

/// "interrupted, 4,231 of 10,000 done": what an operation that has not ended has come to.
std::string HeadwayText(const TavroOperation& Operation, const Prospect& Ahead, bool bRunning) {
    const std::string state = bRunning ? "  (in progress" : "  (interrupted";
    if (Ahead.bSilent) {
        return state + ": " + TavroShownSentence(stdout, TavroDescribe(Ahead.Why)) + ")";
    }
    const TavroHeadway headway = TavroFindHeadway(Operation);
    const char* deed = Operation.State == TavroOperationState::Undoing ? " undone" : " done";
    return state + ", " + TavroGroupedNumber(headway.Done) + " of " +
           TavroGroupedNumber(headway.Count) + deed + ")";
}

/// @param Mark  how far it has come, or why it cannot be undone.
std::vector<TavroCell> OperationRow(const TavroOperation& Operation, std::uint64_t EntryCount,
                                    const std::string& Mark) {
    const std::string time = TavroTimeText(Operation.Time);
    const bool bOpen = TavroIsOnItsWay(Operation);
    return {{std::to_string(Operation.Id), TavroStyle::Plain, true},
            {TavroIsTerminal(stdout) ? TavroShownTime(Operation.Time)
                                     : time.substr(0, 10) + " " + time.substr(11, 8),
             TavroStyle::Dim},
            {TavroKindText(Operation.Kind)},
            {TavroOperationText(Operation, EntryCount) + Mark, bOpen          ? TavroStyle::Yellow
                                                               : Mark.empty() ? TavroStyle::Plain
                                                                              : TavroStyle::Dim}};
}

int RunHistory(bool bJson, bool bColor) {
    TavroHistory history;
    std::vector<TavroOperation> operations;
    std::vector<std::uint64_t> entryCounts;
    if (TavroOpenHistory(history)) {
        return TavroExitFailed;
    }
    if (const TavroFailure failure = history.List(bJson, operations, entryCounts)) {
        return TavroPrintFailure(failure);
    }
    TavroJson json = TavroJson::array();
    std::vector<std::vector<TavroCell>> rows;
    const std::vector<std::string> silent =
        operations.empty() ? std::vector<std::string>() : TavroFindSilentMounts();
    for (std::size_t i = 0; i < operations.size(); ++i) {
        const TavroOperation& operation = operations[i];
        const bool bOnItsWay = TavroIsOnItsWay(operation);
        const bool bRunning = bOnItsWay && history.IsRunning(operation);
        const Prospect prospect = ProspectOf(history, operation, silent);
        if (bJson) {
            json.push_back(OperationJson(operation, prospect, bOnItsWay && !bRunning));
        } else {
            rows.push_back(OperationRow(operation, entryCounts[i],
                                        bOnItsWay ? HeadwayText(operation, prospect, bRunning)
                                                  : ProspectText(operation, prospect)));
        }
    }
    if (bJson) {
        TavroPrintJson(json);
    } else if (operations.empty() && TavroIsTerminal(stdout)) {
        TavroPrintLine(stdout, "The history is empty: there is nothing to undo");
    }
    TavroPrintColumns(rows, "  ", bColor);
    return TavroExitDone;
}

int RunDrop() {
    TavroHistory history;
    if (TavroOpenHistory(history)) {
        return TavroExitFailed;
    }
    history.WaitForDisk(TavroShouldSync());
    std::optional<TavroOperation> newest;
    TavroFailure failure = history.NextToUndo(newest);
    if (!failure) {
        failure = newest ? history.Drop(newest->Id) : TavroFailure{TavroFailureKind::NothingToDrop};
    }
    if (!failure) {
        TavroPrintOperation("Removed from the history: ", *newest);
    }
    return TavroPrintFailure(failure);
}

} // namespace

void TavroAddHistory(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(
        App, "history", "List what was done, newest first, and whether it can be undone",
        "history --json");
    CLI::Option* json = command->add_flag("--json", "Print as JSON");
    CLI::Option* drop = command->add_flag(
        "--drop", "Remove the newest operation from the history without undoing it");
    drop->excludes(json);
    CLI::Option* color = TavroAddColor(*command);
    Table[command] = [=] {
        return drop->empty() ? RunHistory(!json->empty(), TavroHasColor(color)) : RunDrop();
    };
}
