#include "record.h"

#include "terminal.h"

#include <ctime>

bool TavroOpenHistory(TavroHistory& OutHistory, std::chrono::seconds Patience) {
    const std::filesystem::path file = TavroHistoryPath();
    std::string error = "HOME is not set";
    if (file.empty() || !OutHistory.Open(file, error, Patience)) {
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
    // What is done is done: an interrupt while another process holds the history must not cost it.
    if (TavroOpenHistory(history, std::chrono::seconds(10)) &&
        !history.Record(std::move(Operation), error)) {
        TavroPrintError(error);
    }
}
