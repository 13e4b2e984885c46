#include "recording.h"

#include "format.h"
#include "interrupt.h"
#include "record.h"
#include "terminal.h"

#include <array>
#include <chrono>
#include <cstdlib>

namespace {

/// Says after a second that something is waited for, and for what.
bool TellOfWaiting(const TavroHistory& History) {
    using Clock = std::chrono::steady_clock;
    static Clock::time_point since;
    static Clock::time_point last;
    static bool bTold = false;
    const Clock::time_point now = Clock::now();
    if (now - last > std::chrono::milliseconds(200)) { // this wait is another one
        since = now;
        bTold = false;
    }
    last = now;
    if (!bTold && now - since >= std::chrono::seconds(1)) {
        TavroPrintError(History.WaitsForOperation()
                            ? "Waiting for another process to finish the newest operation"
                            : "Waiting for another process that is writing to the history");
        bTold = true;
    }
    return TavroWasInterrupted();
}

/// Opens the history. @return its failure, which is not said.
TavroFailure Open(TavroHistory& OutHistory) {
    TavroFailure failure = OutHistory.Open(TavroHistoryPath(), std::chrono::seconds(10),
                                           [&OutHistory] { return TellOfWaiting(OutHistory); });
    if (!failure && !OutHistory.Notice().empty()) {
        TavroPrintError(OutHistory.Notice());
    }
    return failure;
}

/// @param Failure  of what the history was to be told at last.
int SayWhatIsNotKept(const TavroFailure& Failure, bool bDone) {
    if (Failure) {
        TavroPrintError((bDone ? "It is done, but the history still shows it as interrupted: "
                               : "The history still shows it as interrupted: ") +
                        TavroDescribe(Failure));
    }
    return Failure ? TavroExitFailed : TavroExitDone;
}

} // namespace

TavroFailure TavroOpenHistory(TavroHistory& OutHistory) {
    TavroFailure failure = Open(OutHistory);
    if (failure) {
        TavroPrintError("The undo history cannot be used: " + TavroDescribe(failure));
    }
    return failure;
}

TavroRecording::TavroRecording()
    : m_journal(Open, [](const TavroFailure& failure) {
          TavroPrintError("This will not be in the history: " + TavroDescribe(failure));
      }) {}

TavroCallbacks TavroRecording::Bind(TavroCallbacks Callbacks, TavroKeeping Keeping) {
    Callbacks.bSync = Keeping.bSync;
    return Keeping.bHistory ? m_journal.Bind(std::move(Callbacks)) : Callbacks;
}

int TavroRecording::End(TavroOperation Operation) {
    const bool bNothing = Operation.Steps.empty();
    TavroCompleteOperation(Operation);
    const int exitCode = SayWhatIsNotKept(m_journal.End(std::move(Operation)), !bNothing);
    if (m_journal.Problem() && bNothing) {
        TavroPrintError(
            "Nothing was done, because it could not be undone; --no-history does it anyway");
    }
    return exitCode;
}

int TavroRecording::EndDeletion(const TavroFailure& Failure) {
    return SayWhatIsNotKept(m_journal.EndDeletion(static_cast<bool>(Failure)), !Failure);
}

TavroKeepingOptions TavroAddKeeping(CLI::App& Command, bool bUndoable) {
    CLI::Option* noSync = TavroAddNoSync(Command);
    CLI::Option* noHistory = Command.add_flag("--no-history");
    noHistory->description(
        bUndoable ? "Do not record this in the history; you can neither undo nor resume it"
                  : "Do not record this in the history; you cannot resume it");
    return {noSync, noHistory};
}

TavroKeeping TavroKeepingOptions::Keeping() const {
    return {TavroShouldSync(NoSync), NoHistory->empty()};
}

CLI::Option* TavroAddNoSync(CLI::App& Command) {
    return Command.add_flag("--no-sync", "Do not wait until everything is on the disk");
}

bool TavroShouldSync(const CLI::Option* NoSync) {
    const char* sync = std::getenv("TAVRO_SYNC");
    return (NoSync == nullptr || NoSync->empty()) && (sync == nullptr || std::string(sync) != "no");
}

std::string TavroKindText(TavroOperationKind Kind) {
    static constexpr std::array<const char*, 8> names = {"trash", "rename",  "move",   "copy",
                                                         "mkdir", "restore", "delete", "empty"};
    return names.at(static_cast<std::size_t>(Kind));
}

namespace {

/// What a step is about: "a -> b"; what was created or trashed stands alone.
std::string StepText(const TavroStep& Step) {
    if (Step.Role == TavroStepRole::Trashed || Step.To.empty()) {
        return TavroShownPath(stdout, Step.From);
    }
    return Step.From.empty() ? TavroShownPath(stdout, Step.To) : TavroShownStep(Step.From, Step.To);
}

} // namespace

std::string TavroOperationText(const TavroOperation& Operation, std::uint64_t EntryCount) {
    const std::string first = Operation.Steps.empty() ? "" : StepText(Operation.Steps.front());
    return first + (EntryCount > 1 ? " and " + TavroGroupedNumber(EntryCount - 1) + " more" : "");
}

std::vector<const TavroStep*> TavroTellingSteps(const TavroOperation& Operation) {
    std::vector<const TavroStep*> main;
    std::vector<const TavroStep*> removed;
    for (const TavroStep& step : Operation.Steps) {
        if (TavroIsMainStep(step, Operation.Kind)) {
            main.push_back(&step);
        } else if (step.Role == TavroStepRole::RemovedDirectory) {
            removed.push_back(&step);
        }
    }
    return main.empty() ? removed : main;
}

void TavroPrintOperation(const std::string& Title, const TavroOperation& Operation, bool bVerbose) {
    TavroPrintLine(stdout, Title + TavroKindText(Operation.Kind));
    const std::vector<const TavroStep*> steps = TavroTellingSteps(Operation);
    if (!TavroTellsEach(steps.size(), bVerbose)) {
        TavroPrintLine(stdout, "  " + StepText(*steps.front()) + " and " +
                                   TavroGroupedNumber(steps.size() - 1) + " more");
        return;
    }
    for (const TavroStep* step : steps) {
        TavroPrintLine(stdout, "  " + StepText(*step));
    }
}
