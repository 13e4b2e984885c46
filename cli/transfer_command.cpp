// `tavro copy` and `tavro move`.

#include "commands.h"
#include "history.h"
#include "interrupt.h"
#include "progress_bar.h"
#include "record.h"
#include "terminal.h"
#include "transfer.h"

namespace {

/// Asks what is done about a conflict. A capital letter answers all later ones too.
TavroConflictAnswer AskAbout(const TavroTransferConflict& Conflict) {
    const std::string what = Conflict.bDestinationDirectory ? "Folder" : "File";
    const std::string by = Conflict.bSourceDirectory ? "the folder" : "the file";
    for (;;) {
        const std::string answer = TavroAsk(
            what + " exists: " + TavroPrintableText(Conflict.DestinationPath.string()) +
            "\nReplace it by " + by + " " + TavroPrintableText(Conflict.SourcePath.string()) +
            "? [o]verwrite, [s]kip, keep [b]oth, [q]uit; a capital letter: for all ");
        if (answer == "o" || answer == "O") {
            return {TavroConflictChoice::Overwrite, answer == "O"};
        }
        if (answer == "s" || answer == "S") {
            return {TavroConflictChoice::Skip, answer == "S"};
        }
        if (answer == "b" || answer == "B") {
            return {TavroConflictChoice::KeepBoth, answer == "B"};
        }
        if (answer == "q" || answer == "Q" || answer.empty()) {
            return {TavroConflictChoice::Stop, true};
        }
    }
}

std::function<TavroConflictAnswer(const TavroTransferConflict&)>
ConflictHandler(TavroOnConflict OnConflict, TavroProgressBar& Bar) {
    if (OnConflict == TavroOnConflict::KeepBoth) {
        return [](const TavroTransferConflict&) {
            return TavroConflictAnswer{TavroConflictChoice::KeepBoth, true};
        };
    }
    if (OnConflict == TavroOnConflict::Skip || !TavroCanAsk()) {
        return {}; // nobody to ask: what is in the way stays, and is reported
    }
    return [&Bar](const TavroTransferConflict& conflict) {
        Bar.Clear();
        return AskAbout(conflict);
    };
}

TavroTransferConflictPolicy PolicyOf(TavroOnConflict OnConflict) {
    switch (OnConflict) {
    case TavroOnConflict::Overwrite:
        return TavroTransferConflictPolicy::Overwrite;
    case TavroOnConflict::Skip:
        return TavroTransferConflictPolicy::Skip;
    case TavroOnConflict::Ask:
    case TavroOnConflict::KeepBoth:
        break;
    }
    return TavroTransferConflictPolicy::Ask;
}

/// What replaced something cannot be undone by moving it away: the old entry would not come back.
TavroHistoryOperation OperationOf(const TavroTransferReport& Report, bool bMove) {
    TavroHistoryOperation operation;
    operation.Kind = bMove ? TavroHistoryKind::Move : TavroHistoryKind::Copy;
    operation.RemovedFolders = Report.RemovedFolders;
    for (const TavroTransferredEntry& entry : Report.Done) {
        if (bMove || !entry.bReplaced) {
            operation.Steps.push_back({entry.From.string(), entry.To.string()});
        }
    }
    return operation;
}

void PrintReport(const TavroTransferReport& Report, bool bMove, bool bQuiet) {
    for (const std::filesystem::path& path : Report.Skipped) {
        TavroPrintError("Skipped, as something is in its place: '" + path.string() + "'");
    }
    for (const TavroTransferFailure& failure : Report.Failed) {
        TavroPrintError(failure.Reason);
    }
    if (bQuiet) {
        return;
    }
    for (const TavroTransferredEntry& entry : Report.Done) {
        TavroPrintLine(stdout, std::string(bMove ? "Moved " : "Copied ") + entry.From.string() +
                                   " -> " + entry.To.string());
    }
}

int ExitCodeOf(const TavroTransferReport& Report, TavroOnConflict OnConflict) {
    if (Report.bCancelled && TavroWasInterrupted()) {
        TavroPrintError("Interrupted: what was begun last is undone, what is listed is done.");
        return TavroExitInterrupted;
    }
    if (Report.bCancelled) {
        TavroPrintError("Stopped: what is listed is done, nothing else was touched.");
    }
    const bool bSkippedUnasked = !Report.Skipped.empty() && OnConflict != TavroOnConflict::Skip;
    return Report.Failed.empty() && !Report.bCancelled && !(bSkippedUnasked && !TavroCanAsk())
               ? TavroExitDone
               : TavroExitFailed;
}

} // namespace

int TavroRunTransfer(const TavroTransferArguments& Arguments) {
    TavroTransferPlan plan;
    if (!TavroPlanRequest(Arguments.Request, PolicyOf(Arguments.OnConflict), plan)) {
        return TavroExitFailed;
    }
    if (Arguments.bDryRun) {
        TavroPrintPlan(plan);
        return TavroExitDone;
    }
    TavroCatchInterrupts();
    TavroTransferReport report;
    {
        TavroProgressBar bar(Arguments.bQuiet);
        TavroTransferCallbacks callbacks = TavroMakeCallbacks(bar);
        callbacks.OnConflict = ConflictHandler(Arguments.OnConflict, bar);
        TavroCarryOutTransfer(plan, callbacks, report);
    }
    TavroRecordOperation(OperationOf(report, plan.bMove));
    PrintReport(report, plan.bMove, Arguments.bQuiet);
    return ExitCodeOf(report, Arguments.OnConflict);
}
