// `tavro copy` and `tavro move`.

#include "command.h"
#include "format.h"
#include "interrupt.h"
#include "progress_bar.h"
#include "record.h"
#include "recording.h"
#include "transfer.h"
#include "undo.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>

namespace {

/// What is done about something that is in the way.
struct OnConflict {
    TavroTransferConflictPolicy Policy = TavroTransferConflictPolicy::Ask;
    bool bKeepBoth = false;
};

const std::map<std::string, OnConflict> onConflicts = {
    {"ask", {}},
    {"overwrite", {TavroTransferConflictPolicy::Overwrite}},
    {"skip", {TavroTransferConflictPolicy::Skip}},
    {"keep-both", {TavroTransferConflictPolicy::Ask, true}},
};

/// Asks what is done about a conflict. A capital letter answers all later ones too.
/// @return nothing after an interrupt.
std::optional<TavroConflictAnswer> AskAbout(const TavroTransferConflict& Conflict) {
    const std::string what = Conflict.bDestinationDirectory ? "Folder" : "File";
    const std::string by = Conflict.bSourceDirectory ? "the folder" : "the file";
    const std::string question =
        what + " exists: " + TavroPrintableText(Conflict.DestinationPath) + "\nReplace it by " +
        by + " " + TavroPrintableText(Conflict.SourcePath) +
        "? [o]verwrite, [s]kip, keep [b]oth, [q]uit; a capital letter: for all ";
    for (;;) {
        const std::optional<std::string> answer = TavroAsk(question);
        if (!answer) {
            return std::nullopt;
        }
        constexpr std::array<TavroConflictChoice, 4> choices = {
            TavroConflictChoice::Overwrite, TavroConflictChoice::Skip,
            TavroConflictChoice::KeepBoth, TavroConflictChoice::Stop};
        const std::size_t letter = std::string("osbqOSBQ").find(answer->empty() ? "q" : *answer);
        if (letter != std::string::npos && answer->size() < 2) {
            return {{choices.at(letter % 4), letter >= 4}};
        }
    }
}

} // namespace

TavroConflictJudge::Ask TavroConflictQuestion(TavroProgressBar& Bar, bool& bOutStopped) {
    if (!TavroCanAsk()) {
        return {};
    }
    return [&Bar, &bOutStopped](const TavroTransferConflict& conflict) {
        Bar.Clear();
        const std::optional<TavroConflictAnswer> answer = AskAbout(conflict);
        bOutStopped = answer && answer->Choice == TavroConflictChoice::Stop;
        return answer.value_or(TavroConflictAnswer{TavroConflictChoice::Stop, true});
    };
}

namespace {

/// Whether something was replaced and is not in the trash.
bool HasDeleted(const TavroTransferReport& Report) {
    const auto isReplaced = [](const TavroTransferredEntry& entry) { return entry.bReplaced; };
    return Report.Replaced.empty() &&
           std::any_of(Report.Done.begin(), Report.Done.end(), isReplaced);
}

using Clock = std::chrono::steady_clock;

/// How the command was told to work.
struct Manner {
    bool bQuiet;
    bool bVerbose;
    bool bSync;
    bool bKeep; ///< What is replaced goes to the trash.
    Clock::time_point Begin = Clock::now();
};

/// "Copied 60 files (180 MB) in 2 s". Of directories no size is told: nobody has added them up.
std::string SummaryOf(const TavroTransferReport& Report, bool bMove, const Manner& How) {
    std::uint64_t bytes = 0;
    bool bFiles = true;
    for (const TavroTransferredEntry& entry : Report.Done) {
        bFiles = bFiles && !entry.Arrived.IsDirectory();
        bytes += S_ISREG(entry.Arrived.Mode) ? static_cast<std::uint64_t>(entry.Arrived.Size) : 0;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - How.Begin);
    return TavroSummary(bMove ? "Moved" : "Copied",
                        TavroCountText(Report.Done.size(), bFiles ? "file" : "entry"),
                        bFiles ? bytes : 0, static_cast<std::uint64_t>(seconds.count()));
}

void PrintReport(const TavroTransferReport& Report, bool bMove, const Manner& How) {
    TavroPrintSkipped(Report.Skipped, How.bVerbose);
    TavroPrintFailures(Report.Failed);
    TavroPrintLost(Report.Lost);
    const bool bEach = TavroTellsEach(Report.Done.size(), How.bVerbose || Report.bCancelled);
    for (const TavroTransferredEntry& entry : Report.Done) {
        if (!How.bQuiet && bEach) {
            TavroPrintLine(stdout,
                           (bMove ? "Moved " : "Copied ") + TavroShownStep(entry.From, entry.To));
        }
    }
    if (!How.bQuiet && !bEach) {
        TavroPrintLine(stdout, SummaryOf(Report, bMove, How));
    }
    if (!How.bQuiet && HasDeleted(Report)) {
        TavroPrintLine(stdout, "What was replaced is deleted; that cannot be undone");
    }
}

int ExitCodeOf(const TavroTransferReport& Report, const OnConflict& What, bool bStopped) {
    if (Report.bCancelled && !bStopped) {
        TavroPrintError(Report.bUnsettled
                            ? "Interrupted: what is listed is done; 'tavro resume' goes "
                              "on, 'tavro undo' takes it back"
                        : Report.Done.empty() ? "Interrupted: everything is as it was"
                                              : "Interrupted: what is listed is done");
        return TavroInterruptedExitCode();
    }
    if (Report.bCancelled) {
        TavroPrintError(Report.Done.empty() ? "Stopped: nothing was done"
                                            : "Stopped: what is listed is done, and nothing else");
    }
    const bool bSkippedUnasked = !Report.Skipped.empty() &&
                                 What.Policy != TavroTransferConflictPolicy::Skip && !TavroCanAsk();
    return Report.Failed.empty() && !Report.bCancelled && !bSkippedUnasked ? TavroExitDone
                                                                           : TavroExitFailed;
}

/// Undoes what was done of a transfer before it was interrupted, and nothing else: another process
/// may have done something since. @return whether that is done.
bool TakeBack(std::int64_t Id) {
    TavroHistory history;
    if (Id == 0 || TavroOpenHistory(history)) {
        return false;
    }
    const TavroFailure failure = TavroUndoOnly(history, Id, {}).Failure;
    return failure.Kind != TavroFailureKind::NothingToUndo &&
           TavroPrintFailure(failure) == TavroExitDone;
}

/// Whether what an interrupted transfer has done is kept. Only a person at the keyboard is asked; a
/// second Ctrl-C is an answer, too.
bool ShouldKeep() {
    const int signal = TavroForgetInterrupt();
    bool bKeep = signal != SIGINT;
    if (signal == SIGINT && TavroCanAsk()) {
        const auto answer =
            TavroAsk("Interrupted. [K]eep what is done, so that 'tavro resume' can go "
                     "on, or [r]emove it? ");
        bKeep = answer && *answer != "r" && *answer != "R";
    }
    TavroRememberInterrupt(signal);
    return bKeep;
}

int RunTransfer(TavroTransferPlan& Plan, const OnConflict& What, const Manner& How) {
    TavroCatchInterrupts();
    TavroTransferReport report;
    bool bStopped = false;
    TavroRecording recording;
    {
        TavroProgressBar bar(How.bQuiet);
        TavroTransferCallbacks callbacks{recording.Bind(bar.Callbacks(), How.bSync),
                                         TavroConflictQuestion(bar, bStopped)};
        callbacks.bKeepBoth = What.bKeepBoth;
        callbacks.bKeepReplaced = How.bKeep;
        callbacks.ShouldKeep = [&bar, &How] {
            bar.Clear();
            return Clock::now() - How.Begin > std::chrono::seconds(1) && ShouldKeep();
        };
        TavroCarryOutTransfer(Plan, callbacks, report);
    }
    // Recorded before it is printed: a reader that goes away must not cost the undo.
    if (report.bUnsettled) {
        recording.Leave();
    } else {
        recording.End(TavroOperationOf(report, Plan.bMove));
    }
    // To take a new entry away where the old one is deleted would leave nothing.
    if (report.bCancelled && !bStopped && !report.bUnsettled && !report.Done.empty() &&
        !HasDeleted(report) && TakeBack(recording.Id())) {
        report.Done.clear();
    }
    PrintReport(report, Plan.bMove, How);
    return ExitCodeOf(report, What, bStopped);
}

void AddTransfer(CLI::App& App, bool bMove, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, bMove ? "move" : "copy",
                                        bMove ? "Move entries to a folder or a new path"
                                              : "Copy entries to a folder or a new path",
                                        bMove ? "move *.log ~/Logs/" : "copy photos /media/stick/");
    CLI::Option* names = TavroAddTransferNames(*command);
    CLI::Option* in = TavroAddBaseDirectory(*command);
    CLI::Option* onConflict = command->add_option("--on-conflict");
    onConflict->type_name("ask|overwrite|skip|keep-both")
        ->description("What is done about something in the way; without a terminal, ask skips")
        ->check([](const std::string& value) {
            return onConflicts.count(value) != 0
                       ? ""
                       : "takes ask, overwrite, skip or keep-both, not '" + value + "'";
        });
    CLI::Option* noKeep = command->add_flag(
        "--no-keep", "Delete what is replaced, instead of trashing it; that cannot be undone");
    CLI::Option* dryRun = command->add_flag("-n,--dry-run", "Show the plan and do nothing");
    CLI::Option* quiet = TavroAddQuiet(*command);
    CLI::Option* verbose = TavroAddVerbose(*command);
    CLI::Option* noSync = TavroAddNoSync(*command);
    Table[command] = [=]() -> int {
        const OnConflict what =
            onConflict->empty() ? OnConflict() : onConflicts.at(TavroValue(onConflict));
        TavroTransferPlan plan;
        if (!TavroPlanNames(names, in, bMove, what.Policy, plan)) {
            return TavroExitFailed;
        }
        if (dryRun->empty()) {
            return RunTransfer(
                plan, what,
                {!quiet->empty(), !verbose->empty(), TavroShouldSync(noSync), noKeep->empty()});
        }
        TavroPrintPlan(plan);
        return TavroExitDone;
    };
}

} // namespace

void TavroAddCopy(CLI::App& App, TavroCommandTable& Table) {
    AddTransfer(App, false, Table);
}

void TavroAddMove(CLI::App& App, TavroCommandTable& Table) {
    AddTransfer(App, true, Table);
}
