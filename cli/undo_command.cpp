// `tavro undo`, `tavro redo` and `tavro history`.

#include "commands.h"
#include "interrupt.h"
#include "json.h"
#include "progress_bar.h"
#include "record.h"
#include "terminal.h"

#include <array>
#include <ctime>

namespace {

const char* KindText(TavroHistoryKind Kind) {
    switch (Kind) {
    case TavroHistoryKind::Trash:
        return "trash";
    case TavroHistoryKind::Rename:
        return "rename";
    case TavroHistoryKind::Move:
        return "move";
    case TavroHistoryKind::Copy:
        return "copy";
    case TavroHistoryKind::CreateDirectory:
        break;
    }
    return "mkdir";
}

/// One line an entry: "a -> b"; a created directory stands alone.
std::vector<std::string> EntryLines(const TavroHistoryOperation& Operation) {
    std::vector<std::string> lines;
    if (Operation.Kind == TavroHistoryKind::Trash) {
        for (const TavroTrashEntry& entry : Operation.TrashEntries) {
            lines.push_back(entry.OriginalPath);
        }
        return lines;
    }
    for (const TavroHistoryStep& step : Operation.Steps) {
        lines.push_back(step.From.empty() ? step.To : step.From + " -> " + step.To);
    }
    return lines;
}

std::string LocalTimeText(std::int64_t Time) {
    const auto seconds = static_cast<std::time_t>(Time);
    std::tm local = {};
    std::array<char, 32> text = {};
    localtime_r(&seconds, &local);
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
    return text.data();
}

void PrintWhole(const std::string& Title, const TavroHistoryOperation& Operation) {
    TavroPrintLine(stdout, Title + KindText(Operation.Kind));
    for (const std::string& line : EntryLines(Operation)) {
        TavroPrintLine(stdout, "  " + line);
    }
}

int RunStep(bool bUndo, bool bQuiet) {
    TavroCatchInterrupts();
    TavroHistory history;
    if (!TavroOpenHistory(history)) {
        return TavroExitFailed;
    }
    TavroHistoryOperation operation;
    std::string error;
    bool bDone = false;
    {
        TavroProgressBar bar(bQuiet);
        TavroTransferCallbacks callbacks = TavroMakeCallbacks(bar);
        bDone = bUndo ? history.Undo(callbacks, operation, error)
                      : history.Redo(callbacks, operation, error);
    }
    if (!bDone) {
        TavroPrintError(error);
        return TavroWasInterrupted() ? TavroExitInterrupted : TavroExitFailed;
    }
    if (!bQuiet) {
        PrintWhole(bUndo ? "Undone: " : "Redone: ", operation);
    }
    return TavroExitDone;
}

TavroJson OperationJson(const TavroHistoryOperation& Operation, bool bUndone) {
    TavroJson entries = TavroJson::array();
    for (const TavroTrashEntry& entry : Operation.TrashEntries) {
        TavroJson json;
        TavroAddPath(json, "original", entry.OriginalPath);
        TavroAddPath(json, "trash", entry.TrashPath);
        entries.push_back(json);
    }
    for (const TavroHistoryStep& step : Operation.Steps) {
        TavroJson json;
        TavroAddPath(json, "from", step.From);
        TavroAddPath(json, "to", step.To);
        entries.push_back(json);
    }
    return {{"kind", KindText(Operation.Kind)},
            {"time", Operation.Time},
            {"undone", bUndone},
            {"entries", entries}};
}

void PrintOperation(const TavroHistoryOperation& Operation, bool bUndone) {
    const std::vector<std::string> lines = EntryLines(Operation);
    const std::string first = lines.empty() ? "" : "  " + lines.front();
    const std::string more =
        lines.size() > 1 ? " and " + TavroGroupedNumber(lines.size() - 1) + " more" : "";
    TavroPrintLine(stdout, LocalTimeText(Operation.Time) + "  " + KindText(Operation.Kind) + first +
                               more + (bUndone ? "  (undone)" : ""));
}

} // namespace

int TavroRunUndo(bool bQuiet) {
    return RunStep(true, bQuiet);
}

int TavroRunRedo(bool bQuiet) {
    return RunStep(false, bQuiet);
}

int TavroRunHistory(bool bJson) {
    TavroHistory history;
    if (!TavroOpenHistory(history)) {
        return TavroExitFailed;
    }
    // Newest first: what is undone is newer than what can be undone, and its next to come is
    // oldest.
    TavroJson json = TavroJson::array();
    for (const TavroHistoryOperation& operation : history.Redoable()) {
        bJson ? json.push_back(OperationJson(operation, true)) : PrintOperation(operation, true);
    }
    for (auto operation = history.Undoable().rbegin(); operation != history.Undoable().rend();
         ++operation) {
        bJson ? json.push_back(OperationJson(*operation, false))
              : PrintOperation(*operation, false);
    }
    if (bJson) {
        TavroPrintJson(json);
    }
    return TavroExitDone;
}

int TavroRunHistoryDrop() {
    TavroHistory history;
    if (!TavroOpenHistory(history)) {
        return TavroExitFailed;
    }
    TavroHistoryOperation operation;
    std::string error;
    if (!history.DropNewest(operation, error)) {
        TavroPrintError(error);
        return TavroExitFailed;
    }
    PrintWhole("No longer to be undone: ", operation);
    return TavroExitDone;
}
