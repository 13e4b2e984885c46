// Records of any bytes in the trash: the list, the search, the examination and the mending.

#include "byte_source.h"
#include "choice.h"
#include "demand.h"
#include "sandbox.h"
#include "trash_contents.h"
#include "world.h"

namespace fs = std::filesystem;

using namespace tavro_fuzz;

namespace {

/// A trash with one item, `item`, and its record.
class Trash {
public:
    explicit Trash(const fs::path& home) : m_trash(home / ".local/share/Trash") {
        fs::remove_all(m_trash);
        tavro_test::writeFile(m_trash / "files/item", "item");
        tavro_test::makeDirectory(m_trash / "info");
    }

    fs::path item() const {
        return m_trash / "files/item";
    }
    fs::path record() const {
        return m_trash / "info/item.trashinfo";
    }

    /// Some file in the `info` directory has these bytes.
    bool hasRecordOf(const std::string& bytes) const {
        for (const fs::directory_entry& file : fs::directory_iterator(m_trash / "info")) {
            if (tavro_test::readFile(file.path()) == bytes) {
                return true;
            }
        }
        return false;
    }

private:
    fs::path m_trash;
};

std::vector<TavroTrashItem> listed() {
    std::vector<TavroTrashItem> items;
    demandEqual(TavroDescribe(TavroListTrash({}, items)), "", "the listing");
    return items;
}

std::vector<TavroTrashFinding> findings() {
    std::vector<TavroTrashFinding> all;
    demandEqual(TavroDescribe(TavroExamineTrash(all)), "", "the examination");
    return all;
}

/// The two digits there are a number of this range.
bool isWithin(const std::string& date, std::size_t at, int lowest, int highest) {
    const int number = (date[at] - '0') * 10 + date[at + 1] - '0';
    return number >= lowest && number <= highest;
}

void checkDate(const std::string& date) {
    std::string zeroed = date;
    for (char& byte : zeroed) {
        byte = byte >= '0' && byte <= '9' ? '0' : byte;
    }
    const bool bWhole = zeroed == "0000-00-00T00:00:00" && isWithin(date, 5, 1, 12) &&
                        isWithin(date, 8, 1, 31) && isWithin(date, 11, 0, 23) &&
                        isWithin(date, 14, 0, 59) && isWithin(date, 17, 0, 60);
    demand(date.empty() || bWhole, "no date or a whole one");
}

void checkItem(const TavroTrashItem& item, const Trash& trash) {
    demandEqual(item.Name, "item", "name");
    demandEqual(item.ByteCount, 4U, "bytes");
    const TavroTrashEntry entry = item.Trashed().Entry;
    demandEqual(entry.TrashPath, trash.item().string(), "the item's place");
    demandEqual(entry.InfoPath, trash.record().string(), "the record's place");
    demandEqual(entry.OriginalPath, item.OriginalPath, "the original place");
    demand(!item.bDirectory && !entry.bDirectory, "a file");
    demand(!item.OriginalPath.empty() && item.OriginalPath[0] == '/', "an absolute path");
    demand(item.OriginalPath.find('\0') == std::string::npos, "a path without zero bytes");
    checkDate(item.DeletionDate);
    TavroChoice choice;
    std::vector<TavroTrashItem> old = {item};
    choice.OlderThanDays = 1;
    demand(TavroChooseItems(choice, old).empty() && old.size() <= 1, "old or not");
}

/// Any text finds the one item or nothing, and says so then.
void checkSearch(const std::vector<TavroTrashItem>& items, const std::string& text) {
    TavroTrashIndex index;
    TavroTrashItem found;
    const TavroFailure failure = index.Find(text, found);
    demandEqual(failure ? "" : found.Name, failure ? "" : "item", "found, or a failure");
    demand(failure || !items.empty(), "nothing is found in nothing");
    for (const TavroTrashItem& item : items) {
        demandEqual(TavroDescribe(index.Find(item.Name, found)), "", "found by its name");
    }
}

void checkMending(const Trash& trash, const std::string& bytes, const fs::path& home) {
    const std::vector<TavroTrashFinding> found = findings();
    demandEqual(found.size(), 1U, "findings");
    demand(found[0].Fault == TavroTrashFault::UnreadableRecord, "the record is at fault");
    demandEqual(TavroDescribe(TavroMendTrash(found[0])), "", "the mending");
    demand(findings().empty(), "nothing is wrong any more");
    demand(bytes.empty() || trash.hasRecordOf(bytes), "the record's bytes are kept");
    const std::vector<TavroTrashItem> items = listed();
    demandEqual(items.size(), 1U, "items after mending");
    demandEqual(items[0].OriginalPath, (home / "item").string(), "its place after mending");
}

/// A record that the module writes is read as it was meant.
void checkRoundTrip(const Trash& trash, const std::string& path) {
    TavroTrashEntry entry;
    entry.OriginalPath = path;
    entry.InfoPath = trash.record().string();
    std::string error;
    demand(TavroWriteTrashInfoEntries({entry}, error), error);
    const std::vector<TavroTrashItem> items = listed();
    demandEqual(items.size(), 1U, "items");
    demandEqual(items[0].OriginalPath, path, "the path that was written");
    demand(!items[0].DeletionDate.empty(), "a date");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const tavro_test::Sandbox sandbox(tavro_model::fastFolder());
    static const tavro_test::ScopedEnvironment home("HOME", sandbox.path().string());
    ByteSource source(bytes, size);
    const std::string text = source.line();
    const std::string record = source.rest();
    const Trash trash(sandbox.path());
    tavro_test::writeFile(trash.record(), record);

    const std::vector<TavroTrashItem> items = listed();
    checkSearch(items, text);
    demandEqual(TavroCountUnlistedItems(items), items.empty() ? 1U : 0U,
                "items that are passed over");
    demandEqual(tavro_test::readFile(trash.record()), record, "the record after reading");
    if (items.empty()) {
        checkMending(trash, record, sandbox.path());
    } else {
        demandEqual(items.size(), 1U, "items");
        checkItem(items[0], trash);
        demand(findings().empty(), "nothing is wrong with a record that can be read");
    }
    demandEqual(tavro_test::readFile(trash.item()), "item", "the item's bytes");

    const bool bPlain = text.find('\0') == std::string::npos && !text.empty() &&
                        text.back() != '/' && ("/" + text + "/").find("/../") == std::string::npos;
    if (bPlain) {
        checkRoundTrip(Trash(sandbox.path()), "/" + text);
    }
    return 0;
}
