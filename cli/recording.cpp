#include "recording.h"

#include "interrupt.h"
#include "terminal.h"
#include "undo.h"

#include <array>

TavroFailure TavroOpenHistory(TavroHistory& OutHistory, bool bPatient) {
    TavroFailure failure = OutHistory.Open(TavroHistoryPath(), std::chrono::seconds(10),
                                           bPatient ? nullptr : &TavroWasInterrupted);
    if (failure) {
        TavroPrintError("The undo history cannot be used: " + TavroDescribe(failure));
    } else if (!OutHistory.Notice().empty()) {
        TavroPrintError(OutHistory.Notice());
    }
    return failure;
}

void TavroRecord(TavroOperation Operation) {
    TavroHistory history;
    TavroCompleteOperation(Operation);
    // What is done is done: an interrupt while another process holds the history must not cost it.
    if (!Operation.Steps.empty() && !TavroOpenHistory(history, true)) {
        TavroPrintFailure(history.Record(Operation));
    }
}

std::string TavroKindText(TavroOperationKind Kind) {
    static constexpr std::array<const char*, 5> names = {"trash", "rename", "move", "copy",
                                                         "mkdir"};
    return names.at(static_cast<std::size_t>(Kind));
}

std::string TavroStepText(const TavroStep& Step) {
    if (Step.Role == TavroStepRole::Trashed) {
        return Step.From;
    }
    return Step.From.empty() ? Step.To : Step.From + " -> " + Step.To;
}

void TavroPrintOperation(const std::string& Title, const TavroOperation& Operation) {
    TavroPrintLine(stdout, Title + TavroKindText(Operation.Kind));
    for (const TavroStep& step : Operation.Steps) {
        if (TavroIsMainStep(step, Operation.Kind)) {
            TavroPrintLine(stdout, "  " + TavroStepText(step));
        }
    }
}
