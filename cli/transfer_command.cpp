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
    bool bOverwriteOlder = false;
};

const std::map<std::string, OnConflict> onConflicts = {
    {"ask", {}},
    {"overwrite", {TavroTransferConflictPolicy::Overwrite}},
    {"skip", {TavroTransferConflictPolicy::Skip}},
    {"keep-both", {TavroTransferConflictPolicy::Ask, true}},
    {"newer", {TavroTransferConflictPolicy::Ask, false, true}},
};

/// "  there  1.2 MB     3 days ago"
std::string SideText(const std::string& Side, const TavroFileState& State, bool bNewer) {
    const std::string size =
        State.IsDirectory() ? "directory" : TavroHumanSize(static_cast<std::uint64_t>(State.Size));
    return "  " + Side + "  " + size + std::string(size.size() < 9 ? 9 - size.size() : 0, ' ') +
           "  " + TavroShownTime(State.ModificationTime / TavroSecond) + (bNewer ? "  newer" : "");
}

/// Says what is in the way of what.
void ShowConflict(const TavroTransferConflict& Conflict) {
    const std::int64_t there = Conflict.Destination.ModificationTime;
    const std::int64_t coming = Conflict.Source.ModificationTime;
    TavroPrintLine(stderr, "'" + TavroShownPath(stderr, Conflict.DestinationPath) +
                               "' already exists; '" + TavroShownPath(stderr, Conflict.SourcePath) +
                               "' cannot go there");
    TavroPrintLine(stderr, SideText("there", Conflict.Destination, there > coming));
    TavroPrintLine(stderr, SideText("new  ", Conflict.Source, coming > there));
}

/// @return empty when nothing was typed; nothing after an interrupt.
std::optional<std::string> AskName() {
    for (;;) {
        std::optional<std::string> name = TavroAsk("New name: ");
        const bool bOdd =
            name && (*name == "." || *name == ".." || name->find('/') != std::string::npos);
        if (!bOdd) {
            return name;
        }
        TavroPrintError("Type a name, not a path: '" + *name + "'");
    }
}

/// The answer that a letter stands for. A capital letter answers all later conflicts too, but a new
/// name is for one.
std::optional<TavroConflictAnswer> AnswerOf(const std::string& Letter) {
    constexpr std::array<TavroConflictChoice, 7> choices = {
        TavroConflictChoice::Overwrite, TavroConflictChoice::OverwriteOlder,
        TavroConflictChoice::Skip,      TavroConflictChoice::KeepBoth,
        TavroConflictChoice::Later,     TavroConflictChoice::Stop,
        TavroConflictChoice::Rename};
    const std::size_t index = std::string("onsblqrONSBLQ").find(Letter.empty() ? "q" : Letter);
    if (index == std::string::npos || Letter.size() > 1) {
        return std::nullopt;
    }
    return {{choices.at(index % choices.size()), index >= choices.size()}};
}

/// Asks what is done about a conflict. @return nothing after an interrupt.
std::optional<TavroConflictAnswer> AskAbout(const TavroTransferConflict& Conflict) {
    ShowConflict(Conflict);
    const std::string question = "[o]verwrite, overwrite if [n]ewer, [s]kip, keep [b]oth as '" +
                                 TavroPrintableText(Conflict.FreeName()) + "', [r]ename, " +
                                 (Conflict.bCanWait ? "ask [l]ater, " : "") +
                                 "[q]uit; a capital letter answers for all ";
    for (;;) {
        const std::optional<std::string> letter = TavroAsk(question);
        if (!letter) {
            return std::nullopt;
        }
        std::optional<TavroConflictAnswer> answer = AnswerOf(*letter);
        if (answer && answer->Choice == TavroConflictChoice::Later && !Conflict.bCanWait) {
            answer.reset();
        }
        if (answer && answer->Choice == TavroConflictChoice::Rename) {
            const std::optional<std::string> name = AskName();
            if (!name) {
                return std::nullopt;
            }
            answer->NewName = *name;
        }
        if (!answer) {
            TavroPrintError("Type one of the letters in brackets, not '" + *letter + "'");
        } else if (answer->Choice != TavroConflictChoice::Rename || !answer->NewName.empty()) {
            return answer;
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
    TavroKeeping Keeping;
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

/// ", 60 entries (180 MB)": what is in a directory that arrived, where somebody has added it up.
std::string ContentText(const TavroTransferPlan& Plan, const TavroTransferredEntry& Entry) {
    for (const TavroTransferItemPlan& item : Plan.Items) {
        if (item.ItemCount > 1 && item.SourcePath == Entry.From) {
            return ", " + TavroCountText(item.ItemCount - 1, "entry") + " (" +
                   TavroHumanSize(item.ByteCount) + ")";
        }
    }
    return "";
}

void PrintReport(const TavroTransferReport& Report, const TavroTransferPlan& Plan,
                 const Manner& How) {
    const std::string deed = Plan.bMove ? "Moved " : "Copied ";
    TavroPrintSkipped(Report.Skipped, How.bVerbose);
    TavroPrintFailures(Report.Failed);
    TavroPrintLost(Report.Lost);
    const bool bEach = TavroTellsEach(Report.Done.size(), How.bVerbose || Report.bCancelled);
    const bool bFew = TavroIsTerminal(stdout) && TavroTellsEach(Report.Done.size(), false);
    for (const TavroTransferredEntry& entry : Report.Done) {
        if (!How.bQuiet && bEach) {
            const bool bTold = bFew && Report.Failed.empty() && entry.Arrived.IsDirectory();
            TavroPrintLine(stdout, deed + TavroShownStep(entry.From, entry.To) +
                                       (bTold ? ContentText(Plan, entry) : ""));
        }
    }
    if (!How.bQuiet && !bEach) {
        TavroPrintLine(stdout, SummaryOf(Report, Plan.bMove, How));
    }
    if (!How.bQuiet && HasDeleted(Report)) {
        TavroPrintLine(stdout, "What was replaced is deleted; this cannot be undone");
    }
}

/// @param bOpen  something was skipped because nobody could be asked.
/// @param bUnsettled  the history has it as what can be gone on with.
int ExitCodeOf(const TavroTransferReport& Report, bool bStopped, bool bOpen, bool bUnsettled) {
    if (Report.bCancelled && !bStopped) {
        TavroPrintError(Report.bUnsettled ? "Interrupted: what is listed is done; 'tavro resume' "
                                            "continues, 'tavro undo' takes it back"
                        : Report.Done.empty() ? "Interrupted: everything is as it was"
                                              : "Interrupted: what is listed is done");
        return TavroInterruptedExitCode();
    }
    if (Report.bCancelled) {
        TavroPrintError(Report.Done.empty() ? "Stopped: nothing was done"
                                            : "Stopped: what is listed is done, and nothing else");
    } else if (bUnsettled) {
        TavroPrintError("Not finished: 'tavro resume' continues, 'tavro undo' takes it back");
    }
    return Report.Failed.empty() && !Report.bCancelled && !bOpen ? TavroExitDone : TavroExitFailed;
}

/// Undoes what was done of a transfer before it was interrupted, and nothing else: another process
/// may have done something since. @return whether that is done.
bool TakeBack(std::int64_t Id) {
    TavroHistory history;
    if (Id == 0 || TavroOpenHistory(history)) {
        return false;
    }
    const TavroFailure failure = TavroUndo(history, {}, Id).Failure;
    return failure.Kind != TavroFailureKind::NoSuchOperation &&
           TavroPrintFailure(failure) == TavroExitDone;
}

/// An empty answer keeps, none removes.
bool AskToKeep() {
    for (;;) {
        const auto answer =
            TavroAsk("Interrupted. [K]eep what is done, so that 'tavro resume' can continue, or "
                     "[r]emove it? ");
        if (!answer || *answer == "r" || *answer == "R") {
            return false;
        }
        if (answer->empty() || *answer == "k" || *answer == "K") {
            return true;
        }
        TavroPrintError("Type one of the letters in brackets, not '" + *answer + "'");
    }
}

/// Whether what an interrupted transfer has done is kept. Only a person at the keyboard is asked; a
/// second Ctrl-C is an answer, too.
bool ShouldKeep() {
    const int signal = TavroForgetInterrupt();
    bool bKeep = signal != SIGINT;
    if (signal == SIGINT && TavroCanAsk()) {
        bKeep = AskToKeep();
    }
    TavroRememberInterrupt(signal);
    return bKeep;
}

int RunTransfer(TavroTransferPlan& Plan, const OnConflict& What, const Manner& How) {
    TavroCatchInterrupts();
    TavroTransferReport report;
    bool bStopped = false;
    bool bOpen = false;
    TavroRecording recording;
    {
        TavroProgressBar bar(How.bQuiet);
        TavroTransferCallbacks callbacks{recording.Bind(bar.Callbacks(), How.Keeping),
                                         TavroConflictQuestion(bar, bStopped)};
        if (!callbacks.OnConflict) {
            callbacks.OnConflict = [&](const TavroTransferConflict&) {
                bOpen = true;
                return TavroConflictAnswer{TavroConflictChoice::Skip};
            };
        }
        callbacks.bKeepBoth = What.bKeepBoth;
        callbacks.bOverwriteOlder = What.bOverwriteOlder;
        callbacks.bKeepReplaced = How.bKeep;
        callbacks.ShouldKeep = [&] {
            bar.Clear();
            return recording.Id() != 0 && Clock::now() - How.Begin > std::chrono::seconds(1) &&
                   ShouldKeep();
        };
        TavroCarryOutTransfer(Plan, callbacks, report);
    }
    int exitCode = TavroExitDone;
    // Recorded before it is printed: a reader that goes away must not cost the undo.
    if (report.bUnsettled) {
        recording.Leave();
    } else {
        exitCode = recording.End(TavroOperationOf(report, Plan.bMove));
    }
    // To take a new entry away where the old one is deleted would leave nothing.
    if (report.bCancelled && !bStopped && !report.bUnsettled && !report.Done.empty() &&
        !HasDeleted(report) && TakeBack(recording.Id())) {
        report.Done.clear();
    }
    PrintReport(report, Plan, How);
    return std::max(exitCode,
                    ExitCodeOf(report, bStopped, bOpen, report.bUnsettled && recording.Id() != 0));
}

void AddTransfer(CLI::App& App, bool bMove, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, bMove ? "move" : "copy",
                                        bMove ? "Move entries to a directory or a new path"
                                              : "Copy entries to a directory or a new path",
                                        bMove ? "move *.log ~/Logs/" : "copy photos /media/stick/");
    CLI::Option* names = TavroAddTransferNames(*command);
    CLI::Option* in = TavroAddBaseDirectory(*command);
    CLI::Option* onConflict = command->add_option("--on-conflict");
    onConflict->type_name("ask|overwrite|newer|skip|keep-both")
        ->description("What to do about something in the way; without a terminal, ask skips");
    TavroCheckValue(*onConflict, "ask, overwrite, newer, skip or keep-both",
                    [](const std::string& value) { return onConflicts.count(value) != 0; });
    CLI::Option* noKeep = command->add_flag(
        "--no-keep", "Delete what is replaced instead of trashing it; this cannot be undone");
    CLI::Option* dryRun = command->add_flag("-n,--dry-run", "Show the plan and do nothing");
    CLI::Option* quiet = TavroAddQuiet(*command);
    CLI::Option* verbose = TavroAddVerbose(*command);
    const TavroKeepingOptions keeping = TavroAddKeeping(*command);
    Table[command] = [=]() -> int {
        const OnConflict what =
            onConflict->empty() ? OnConflict() : onConflicts.at(TavroValue(onConflict));
        TavroTransferPlan plan;
        if (!TavroPlanNames(names, in, bMove, what.Policy, plan, what.bKeepBoth)) {
            return TavroExitFailed;
        }
        if (dryRun->empty()) {
            return RunTransfer(
                plan, what,
                {!quiet->empty(), !verbose->empty(), keeping.Keeping(), noKeep->empty()});
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
