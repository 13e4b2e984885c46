#include "record.h"

#include "terminal.h"

#include <ctime>

bool TavroOpenHistory(TavroHistory& OutHistory) {
    const std::filesystem::path file = TavroHistoryPath();
    std::string error = "HOME is not set";
    if (file.empty() || !OutHistory.Open(file, error)) {
        TavroPrintError("The undo history cannot be used: " + error);
        return false;
    }
    if (!OutHistory.Notice().empty()) {
        TavroPrintError(OutHistory.Notice());
    }
    return true;
}

void TavroRecordOperation(TavroHistoryOperation Operation) {
    if (Operation.Steps.empty() && Operation.TrashEntries.empty()) {
        return;
    }
    Operation.Time = std::time(nullptr);
    TavroHistory history;
    std::string error;
    if (TavroOpenHistory(history) && !history.Record(std::move(Operation), error)) {
        TavroPrintError(error);
    }
}
