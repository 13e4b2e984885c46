#include "engine_acts.h"

namespace tavro_test {

namespace {

Outcome outcomeOf(const TavroTrashReport& report) {
    Outcome outcome = tavro_test::outcomeOf(report.Batch.Failure);
    if (report.Batch.Failure) {
        outcome.Message = TavroDescribe(report);
    }
    if (report.Batch.Why) {
        outcome.Failures.push_back(report.Batch.Why);
    }
    outcome.RollBack = report.Batch.RollBack;
    for (const TavroTrashedEntry& entry :
         report.bRestoring ? std::vector<TavroTrashedEntry>() : report.Entries) {
        outcome.List.push_back(entry.Entry);
    }
    for (const TavroTrashedEntry& entry : report.Left) {
        outcome.Left.push_back(entry.Entry.OriginalPath);
    }
    for (const TavroTrashedEntry& entry : report.InBoth) {
        outcome.InBoth.push_back(entry.Entry.OriginalPath);
    }
    return outcome;
}

} // namespace

Outcome outcomeOf(const TavroFailure& failure) {
    Outcome outcome;
    outcome.Ended = failure ? Outcome::False : Outcome::True;
    outcome.Message = failure ? TavroDescribe(failure) : untouchedMessage;
    if (failure) {
        outcome.Failures.push_back(failure);
    }
    return outcome;
}

Outcome trashByEngine(const std::vector<TavroOperationEntry>& entries) {
    return outcomeOf(TavroTrashSelection(entries, {}));
}

Outcome restoreByEngine(const std::vector<TavroTrashedEntry>& entries) {
    return outcomeOf(TavroRestoreSelection(entries, {}));
}

Outcome restoreByEngine(const std::vector<TavroTrashEntry>& entries) {
    std::vector<TavroTrashedEntry> trashed;
    for (const TavroTrashEntry& entry : entries) {
        trashed.push_back({entry, {}});
    }
    return restoreByEngine(trashed);
}

} // namespace tavro_test
