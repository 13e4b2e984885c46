#include "record.h"

#include <ctime>

namespace {

using Role = TavroStepRole;

TavroOperation Begin(TavroOperationKind Kind) {
    TavroOperation operation;
    operation.Kind = Kind;
    operation.Time = std::time(nullptr);
    return operation;
}

void AddCreated(const std::vector<std::string>& Directories, TavroOperation& Operation) {
    for (const std::string& directory : Directories) {
        Operation.Steps.push_back({Role::CreatedDirectory, "", directory, ""});
    }
}

TavroStep StepOf(Role What, const std::string& From, const std::string& To,
                 const TavroFileState& Arrived) {
    return {What, From, To, "", Arrived.Identity, Arrived.ChangeTime, 0, Arrived.IsDirectory()};
}

} // namespace

TavroOperation TavroOperationOf(const TavroTransferReport& Report, bool bMove) {
    TavroOperation operation = Begin(bMove ? TavroOperationKind::Move : TavroOperationKind::Copy);
    for (const TavroTransferredEntry& entry : Report.Done) {
        operation.Steps.push_back(
            StepOf(bMove ? Role::Moved : Role::Copied, entry.From, entry.To, entry.Arrived));
    }
    if (operation.Steps.empty() && Report.RemovedDirectories.empty()) {
        return operation;
    }
    AddCreated(Report.CreatedDirectories, operation);
    operation.Steps.insert(operation.Steps.end(), Report.Replaced.begin(), Report.Replaced.end());
    for (const TavroRemovedDirectory& directory : Report.RemovedDirectories) {
        operation.Steps.push_back({Role::RemovedDirectory,
                                   directory.Path,
                                   "",
                                   "",
                                   {},
                                   0,
                                   directory.Mode,
                                   false,
                                   directory.Attributes});
    }
    return operation;
}

TavroOperation TavroOperationOf(const TavroTrashReport& Report) {
    TavroOperation operation = Begin(TavroOperationKind::Trash);
    for (const TavroTrashedEntry& trashed : Report.Entries) {
        const TavroTrashEntry& entry = trashed.Entry;
        operation.Steps.push_back({Role::Trashed, entry.OriginalPath, entry.TrashPath,
                                   entry.InfoPath, trashed.Item, 0, 0, entry.bDirectory});
    }
    return operation;
}

TavroOperation TavroOperationOf(const TavroEditReport& Report) {
    TavroOperation operation = Begin(TavroOperationKind::CreateDirectory);
    AddCreated(Report.CreatedDirectories, operation);
    return operation;
}

TavroOperation TavroOperationOf(const TavroEditReport& Report, const std::string& From) {
    TavroOperation operation = Begin(TavroOperationKind::Rename);
    operation.Steps.push_back(StepOf(Role::Moved, From, Report.Path, Report.Arrived));
    AddCreated(Report.CreatedDirectories, operation);
    return operation;
}

void TavroCompleteOperation(TavroOperation& Operation) {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    TavroPlaces places;
    for (TavroStep& step : Operation.Steps) {
        TavroPlace place;
        struct stat status = {};
        step.ChangeTime = step.ChangeTime != 0 ? step.ChangeTime : TavroNanoseconds(now);
        if (step.Identity.Inode == 0 && step.Role != Role::RemovedDirectory &&
            places.Look(step.To, place, status) == 0) {
            step.Identity = TavroIdentityOf(status);
            step.Mode = step.Role == Role::CreatedDirectory && step.Mode == 0
                            ? status.st_mode & 07777U
                            : step.Mode; // where it is known it may still be on its way
        }
    }
}
