// A history whose file was changed: it is read, refused or set aside, and recording goes on.
//
// The first byte of an input chooses: 0, the rest is the whole file; else the rest is written into
// the file of a real history, at the place that the next two bytes tell.

#include "history.h"
#include "byte_source.h"
#include "demand.h"
#include "sandbox.h"
#include "world.h"

#include <sqlite3.h>

namespace fs = std::filesystem;

using namespace tavro_fuzz;

namespace {

/// Adds what was just done.
TavroFailure record(TavroHistory& history, TavroOperation& operation) {
    TavroFailure failure = history.BeginOperation(operation);
    return failure ? failure : history.EndOperation(operation, true);
}

/// The bytes of a history of two operations.
const std::string& realHistory() {
    static const std::string bytes = [] {
        const tavro_test::Sandbox sandbox(tavro_model::fastFolder());
        const fs::path file = sandbox / "history.db";
        {
            TavroHistory history;
            TavroOperation move;
            move.Kind = TavroOperationKind::Move;
            move.Steps = {{TavroStepRole::Moved, "/from/a", "/to/a", "", {1, 2}}};
            TavroOperation trash;
            trash.Steps = {
                {TavroStepRole::Trashed, "/x/b", "/h/files/b", "/h/info/b.trashinfo", {1, 3}}};
            demandEqual(TavroDescribe(history.Open(file.string(), {})), "", "the opening");
            demandEqual(TavroDescribe(record(history, move)), "", "the first operation");
            demandEqual(TavroDescribe(record(history, trash)), "", "the second operation");
        }
        // All of it is to be in the file itself, not in the log beside it.
        sqlite3* connection = nullptr;
        demand(sqlite3_open(file.c_str(), &connection) == SQLITE_OK, "the file can be opened");
        demand(sqlite3_wal_checkpoint_v2(connection, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr,
                                         nullptr) == SQLITE_OK,
               "the log can be emptied");
        sqlite3_close(connection);
        return tavro_test::readFile(file);
    }();
    return bytes;
}

std::string fileOf(const std::string& input) {
    if (input.size() < 3 || input[0] == 0) {
        return input.empty() ? input : input.substr(1);
    }
    std::string bytes = realHistory();
    const std::size_t at =
        static_cast<unsigned char>(input[1]) * 256U + static_cast<unsigned char>(input[2]);
    for (std::size_t i = 3; i < input.size() && at + i - 3 < bytes.size(); ++i) {
        bytes[at + i - 3] = input[i];
    }
    return bytes;
}

/// What is read is what could have been recorded: by whole paths, without zero bytes.
void checkOperation(const TavroOperation& operation) {
    demand(!operation.Steps.empty(), "an operation has steps");
    for (const TavroStep& step : operation.Steps) {
        for (const std::string& path : {step.From, step.To, step.Record}) {
            demand(path.empty() || path[0] == '/', "an absolute path");
            demand(path.find('\0') == std::string::npos, "a path without zero bytes");
        }
    }
}

/// A failure leaves nothing; what is there can be kept again as it was read.
void checkNext(TavroHistory& history, const TavroFailure& failure,
               const std::optional<TavroOperation>& next) {
    demand(!failure || !next, "nothing is read after a failure");
    if (next) {
        checkOperation(*next);
        demandEqual(TavroDescribe(history.Update(*next)), "", "keeping what was read");
    }
}

void checkRecording(TavroHistory& history) {
    TavroOperation operation;
    operation.Kind = TavroOperationKind::Rename;
    operation.Steps = {{TavroStepRole::Moved, "/new", "/newer", "", {1, 4}}};
    demandEqual(TavroDescribe(record(history, operation)), "", "recording");
    std::optional<TavroOperation> next;
    demandEqual(TavroDescribe(history.NextToUndo(next)), "", "what was recorded is read");
    demand(next && next->Id == operation.Id && next->Steps == operation.Steps,
           "what was recorded comes first");
    demandEqual(TavroDescribe(history.Drop(operation.Id)), "", "dropping");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const tavro_test::Sandbox sandbox(tavro_model::fastFolder());
    static const tavro_test::ScopedEnvironment home("HOME", sandbox.path().string());
    const fs::path folder = sandbox / "state";
    const fs::path file = folder / "history.db";
    fs::remove_all(folder);
    tavro_test::writeFile(file, fileOf(ByteSource(bytes, size).rest()));
    TavroHistory history;
    demandEqual(TavroDescribe(history.Open(file.string(), {})), "", "the opening");
    std::vector<TavroOperation> operations;
    std::vector<std::uint64_t> counts;
    demandEqual(TavroDescribe(history.List(true, operations, counts)), "", "the list");
    demandEqual(counts.size(), operations.size(), "counts");
    std::optional<TavroOperation> next;
    checkNext(history, history.NextToUndo(next), next);
    checkNext(history, history.NextToRedo(next), next);
    checkRecording(history);
    if (!history.Notice().empty()) {
        demand(tavro_test::isPresent(file.string() + ".damaged-1"), "it was set aside");
    }
    return 0;
}
