// A history whose file was changed: it is read, refused or set aside, and what is read can be kept.
//
// The first byte of an input chooses: 0, the rest is the whole file; else the rest is written into
// the file of a real history, at the place that the next two bytes tell.

#include "history.h"
#include "byte_source.h"
#include "demand.h"
#include "sandbox.h"
#include "world.h"

#include <algorithm>

namespace fs = std::filesystem;

using namespace tavro_fuzz;

namespace {

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
            demandEqual(TavroDescribe(history.Record(move)), "", "the first operation");
            demandEqual(TavroDescribe(history.Record(trash)), "", "the second operation");
        }
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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const tavro_test::Sandbox sandbox(tavro_model::fastFolder());
    static const tavro_test::ScopedEnvironment home("HOME", sandbox.path().string());
    const fs::path folder = sandbox / "state";
    const fs::path file = folder / "history.db";
    fs::remove_all(folder);
    tavro_test::writeFile(file, fileOf(ByteSource(bytes, size).rest()));
    TavroHistory history;
    if (history.Open(file.string(), {})) {
        return 0;
    }
    std::vector<TavroOperation> operations;
    std::vector<std::uint64_t> counts;
    if (!history.List(true, operations, counts)) {
        demandEqual(counts.size(), operations.size(), "counts");
    }
    std::optional<TavroOperation> next;
    if (!history.NextToUndo(next) && next) {
        checkOperation(*next);
    }
    next.reset();
    if (!history.NextToRedo(next) && next) {
        checkOperation(*next);
    }
    return 0;
}
