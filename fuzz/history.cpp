// A history file of any bytes: it is read, or set aside as it is; and what is read stays the same.

#include "byte_source.h"
#include "demand.h"
#include "history_file.h"
#include "sandbox.h"
#include "world.h"

#include <nlohmann/json.hpp>

namespace fs = std::filesystem;

using namespace tavro_fuzz;

namespace {

void checkSetAside(const TavroHistory& history, const fs::path& file, const std::string& bytes) {
    const fs::path aside = file.string() + ".damaged-1";
    demandEqual(history.Notice(),
                "The history '" + file.string() + "' is damaged and was set aside as '" +
                    aside.string() + "'",
                "the notice");
    demand(history.Undoable().empty() && history.Redoable().empty(), "it starts empty");
    demand(!tavro_test::isPresent(file), "the file is out of the way");
    demandEqual(tavro_test::readFile(aside), bytes, "the bytes that were set aside");
}

/// What was taken for a history is one, with as many operations as the text has.
void checkTaken(const TavroHistoryLists& lists, const std::string& text) {
    const auto json = nlohmann::json::parse(text, nullptr, false);
    demand(json.is_object() && json.value("version", 0) == 1, "an object of version 1");
    demandEqual(lists.Undoable.size(), json.at("undoable").size(), "operations to undo");
    demandEqual(lists.Redoable.size(), json.at("redoable").size(), "operations to redo");
}

void checkRecordable(const std::vector<TavroHistoryOperation>& operations) {
    for (const TavroHistoryOperation& operation : operations) {
        demand(TavroIsRecordable(operation), "an operation that can be recorded");
    }
}

/// Writing what was read gives a file that is read as the same, and written as the same bytes.
void checkRoundTrip(const TavroHistoryLists& lists, const fs::path& file) {
    std::string error;
    std::string notice;
    demand(TavroWriteHistory(file, lists, error), error);
    const std::string written = tavro_test::readFile(file);
    TavroHistoryLists again;
    demand(TavroReadHistory(file, again, notice, error), error);
    demandEqual(notice, "", "the notice about a file of one's own");
    demandEqual(again.Undoable.size(), lists.Undoable.size(), "operations to undo");
    demandEqual(again.Redoable.size(), lists.Redoable.size(), "operations to redo");
    demand(TavroWriteHistory(file, again, error), error);
    demandEqual(tavro_test::readFile(file), written, "the bytes written again");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const tavro_test::Sandbox sandbox(tavro_model::fastFolder());
    static const tavro_test::ScopedEnvironment home("HOME", sandbox.path().string());
    const fs::path folder = sandbox / "state";
    const fs::path file = folder / "history.json";
    const std::string text = ByteSource(bytes, size).rest();
    fs::remove_all(folder);
    tavro_test::writeFile(file, text);
    TavroHistoryLists lists;
    {
        TavroHistory history;
        std::string error = "(untouched)";
        demand(history.Open(file, error), error);
        demandEqual(error, "(untouched)", "the sentence after success");
        if (!history.Notice().empty()) {
            checkSetAside(history, file, text);
            return 0;
        }
        demandEqual(tavro_test::readFile(file), text, "the file after reading");
        lists = {history.Undoable(), history.Redoable()};
    }
    checkTaken(lists, text);
    checkRecordable(lists.Undoable);
    checkRecordable(lists.Redoable);
    checkRoundTrip(lists, file);
    return 0;
}
