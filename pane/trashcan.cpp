// Looking into the home trash. The contracts stand in trashcan.h.
//
// In this file, in order: reading a record; listing; finding; removing; examining and mending.

#include "trashcan.h"

#include "measure.h"
#include "no_replace.h"
#include "percent.h"
#include "remove_tree.h"
#include "selection.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <system_error>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

// =================================================================================================
// Reading a record
// =================================================================================================

namespace {

bool Fail(std::string& ErrorMessage, std::string Sentence) {
    ErrorMessage = std::move(Sentence);
    return false;
}

std::string Quoted(const fs::path& Path) {
    return "'" + Path.string() + "'";
}

/// The beginning of a file, of 64 KiB at most; nothing when it is no regular file or cannot be
/// read. A FIFO is not waited for.
std::optional<std::string> ReadBeginning(const fs::path& File) {
    const int descriptor = open(File.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return std::nullopt;
    }
    struct stat status = {};
    std::string bytes(64U * 1024U, '\0');
    std::size_t length = 0;
    ssize_t count = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) ? 1 : -1;
    while (count > 0 && length < bytes.size()) {
        count = read(descriptor, &bytes[length], bytes.size() - length);
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    close(descriptor);
    if (count < 0) {
        return std::nullopt;
    }
    // Of a longer file the last line may be only a part of itself.
    bytes.resize(length < bytes.size() ? length : bytes.rfind('\n') + 1);
    return bytes;
}

std::string WithoutBlanksBefore(const std::string& Text) {
    return Text.substr(std::min(Text.find_first_not_of(" \t"), Text.size()));
}

std::string WithoutBlanksAfter(const std::string& Text) {
    return Text.substr(0, Text.find_last_not_of(" \t") + 1);
}

/// The line that begins at `Begin`, without its end.
std::string LineAt(const std::string& Bytes, std::size_t Begin) {
    std::string line = Bytes.substr(Begin, Bytes.find('\n', Begin) - Begin);
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return WithoutBlanksBefore(line);
}

/// The first 19 bytes of a date, when they are one; what follows (a fraction, a zone) is dropped.
/// @param OutTime  its fields, for mktime.
std::string ReadableDate(const std::string& Text, std::tm& OutTime) {
    static const std::string shape = "dddd-dd-ddTdd:dd:dd";
    const std::string date = Text.substr(0, shape.size());
    const auto fits = [](char byte, char wanted) {
        return wanted == 'd' ? byte >= '0' && byte <= '9' : byte == wanted;
    };
    if (date.size() != shape.size() || !std::equal(date.begin(), date.end(), shape.begin(), fits)) {
        return {};
    }
    const auto number = [&](std::size_t at, std::size_t count) {
        return std::stoi(date.substr(at, count));
    };
    OutTime = {};
    OutTime.tm_year = number(0, 4) - 1900;
    OutTime.tm_mon = number(5, 2) - 1;
    OutTime.tm_mday = number(8, 2);
    OutTime.tm_hour = number(11, 2);
    OutTime.tm_min = number(14, 2);
    OutTime.tm_sec = number(17, 2);
    OutTime.tm_isdst = -1;
    const bool bInRange = OutTime.tm_mon >= 0 && OutTime.tm_mon < 12 && OutTime.tm_mday >= 1 &&
                          OutTime.tm_mday <= 31 && OutTime.tm_hour < 24 && OutTime.tm_min < 60 &&
                          OutTime.tm_sec <= 60;
    return bInRange ? date : std::string();
}

struct Record {
    std::string Path; ///< Absolute.
    std::string Date; ///< Empty when it cannot be read.
};

/// The values of the first `Path` and the first `DeletionDate` in the group [Trash Info].
struct RawRecord {
    std::optional<std::string> Path;
    std::optional<std::string> Date;
};

RawRecord SplitRecord(const std::string& Bytes) {
    RawRecord raw;
    bool bInGroup = false;
    std::size_t next = 0;
    for (std::size_t begin = 0; begin < Bytes.size(); begin = next) {
        next = std::min(Bytes.find('\n', begin), Bytes.size()) + 1;
        const std::string line = LineAt(Bytes, begin);
        if (!line.empty() && line[0] == '[') {
            bInGroup = WithoutBlanksAfter(line) == "[Trash Info]";
            continue;
        }
        const std::size_t sign = line.find('=');
        if (!bInGroup || sign == std::string::npos) {
            continue;
        }
        const std::string key = WithoutBlanksAfter(line.substr(0, sign));
        std::optional<std::string>& value = key == "Path" ? raw.Path : raw.Date;
        if (!value && (key == "Path" || key == "DeletionDate")) {
            value = WithoutBlanksBefore(line.substr(sign + 1));
        }
    }
    return raw;
}

/// Nothing when the file cannot be read or tells no path.
std::optional<Record> ReadRecord(const fs::path& File) {
    const std::optional<std::string> bytes = ReadBeginning(File);
    if (!bytes) {
        return std::nullopt;
    }
    const RawRecord raw = SplitRecord(*bytes);
    std::string path = TavroPercentDecode(raw.Path.value_or(""));
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    // No path holds a zero byte; what is before it would name another entry.
    if (path.empty() || path.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    std::tm ignored = {};
    return Record{(fs::path(TavroHomeDirectoryPath()) / path).string(),
                  ReadableDate(raw.Date.value_or(""), ignored)};
}

// =================================================================================================
// Listing
// =================================================================================================

fs::path RecordPath(const TavroTrashFolders& Folders, const std::string& Name) {
    return Folders.Info / (Name + ".trashinfo");
}

/// The name of the item that a file in the `info` folder is the record of; nothing when the file is
/// no record.
std::optional<std::string> NameOfRecord(const std::string& File) {
    static const std::string suffix = ".trashinfo";
    if (File.size() < suffix.size() || File.substr(File.size() - suffix.size()) != suffix) {
        return std::nullopt;
    }
    return File.substr(0, File.size() - suffix.size());
}

/// Anything else, joined to a folder, would name another entry than one in that folder.
bool IsPlainName(const std::string& Name) {
    return !Name.empty() && Name != "." && Name != ".." && Name.find('/') == std::string::npos &&
           Name.find('\0') == std::string::npos;
}

/// Whether an item of that name is in the trash.
bool HasItem(const TavroTrashFolders& Folders, const std::string& Name) {
    return IsPlainName(Name) && TavroIsPresent(Folders.Files / Name);
}

/// The names in a folder, in their order. A folder that does not exist has none.
bool ListNames(const fs::path& Folder, std::set<std::string>& OutNames, std::string& ErrorMessage) {
    std::error_code ec;
    fs::directory_iterator listing(Folder, ec);
    for (const fs::directory_iterator end; !ec && listing != end; listing.increment(ec)) {
        OutNames.insert(listing->path().filename().string());
    }
    if (ec && ec != std::errc::no_such_file_or_directory) {
        return Fail(ErrorMessage, "Failed to read " + Quoted(Folder) + ": " + ec.message());
    }
    return true;
}

/// Lists the names of what has a record, readable or not.
bool ListRecords(const TavroTrashFolders& Folders, std::set<std::string>& OutNames,
                 std::string& ErrorMessage) {
    if (Folders.Root.empty()) {
        return Fail(ErrorMessage, "Trash is unavailable because HOME is not set.");
    }
    std::set<std::string> files;
    if (!ListNames(Folders.Info, files, ErrorMessage)) {
        return false;
    }
    for (const std::string& file : files) {
        if (const std::optional<std::string> name = NameOfRecord(file)) {
            OutNames.insert(*name);
        }
    }
    return true;
}

std::int64_t InNanoseconds(const struct timespec& Time) {
    return static_cast<std::int64_t>(Time.tv_sec) * 1000000000 + Time.tv_nsec;
}

/// Nothing when there is no such item, or no record of it that can be read.
std::optional<TavroTrashItem> ReadItem(const TavroTrashFolders& Folders, const std::string& Name) {
    const fs::path path = Folders.Files / Name;
    const fs::path info = RecordPath(Folders, Name);
    if (!HasItem(Folders, Name)) {
        return std::nullopt;
    }
    // The item is looked at before its record: whatever takes both names after that is another.
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    const std::optional<Record> record = ReadRecord(info);
    if (!record) {
        return std::nullopt;
    }
    TavroTrashItem item;
    item.Name = Name;
    item.OriginalPath = record->Path;
    item.DeletionDate = record->Date;
    item.bDirectory = S_ISDIR(status.st_mode);
    item.Device = status.st_dev;
    item.Inode = status.st_ino;
    item.ChangeTime = InNanoseconds(status.st_ctim);
    item.Entry = {record->Path, path.string(), info.string(),
                  item.bDirectory || S_ISLNK(status.st_mode)};
    struct stat recordStatus = {};
    if (stat(info.c_str(), &recordStatus) == 0) {
        item.RecordTime = InNanoseconds(recordStatus.st_mtim);
    }
    return item;
}

bool IsListedBefore(const TavroTrashItem& A, const TavroTrashItem& B) {
    return std::tie(B.DeletionDate, B.RecordTime, A.Name) <
           std::tie(A.DeletionDate, A.RecordTime, B.Name);
}

} // namespace

bool TavroListTrash(bool bMeasure, const std::function<bool()>& ShouldCancel,
                    std::vector<TavroTrashItem>& OutItems, std::string& ErrorMessage) {
    OutItems.clear();
    const TavroTrashFolders folders = TavroFindTrashFolders();
    std::set<std::string> names;
    if (!ListRecords(folders, names, ErrorMessage)) {
        return false;
    }
    for (const std::string& name : names) {
        if (ShouldCancel && ShouldCancel()) {
            break;
        }
        std::optional<TavroTrashItem> item = ReadItem(folders, name);
        if (!item) {
            continue;
        }
        TavroMeasurement measured;
        if (bMeasure && !TavroMeasureEntry(item->Entry.TrashPath, ShouldCancel, measured)) {
            break;
        }
        item->ByteCount = measured.ByteCount;
        OutItems.push_back(std::move(*item));
    }
    std::sort(OutItems.begin(), OutItems.end(), IsListedBefore);
    return true;
}

std::uint64_t TavroCountUnlistedItems() {
    const TavroTrashFolders folders = TavroFindTrashFolders();
    std::set<std::string> names;
    std::string ignored;
    if (folders.Root.empty() || !ListNames(folders.Files, names, ignored)) {
        return 0;
    }
    return static_cast<std::uint64_t>(
        std::count_if(names.begin(), names.end(), [&](const std::string& name) {
            return !ReadRecord(RecordPath(folders, name));
        }));
}

// =================================================================================================
// Finding
// =================================================================================================

namespace {

using ItemTest = std::function<bool(const TavroTrashItem&)>;

std::vector<TavroTrashItem> ItemsThat(const std::vector<TavroTrashItem>& Items,
                                      const ItemTest& Fits) {
    std::vector<TavroTrashItem> found;
    std::copy_if(Items.begin(), Items.end(), std::back_inserter(found), Fits);
    return found;
}

/// The newest of the items when all came from one place; else nothing, and all places are told.
std::optional<TavroTrashItem> OnlyPlace(const std::vector<TavroTrashItem>& Found,
                                        const std::string& Text, std::string& ErrorMessage) {
    std::set<std::string> places;
    for (const TavroTrashItem& item : Found) {
        places.insert(item.OriginalPath);
    }
    if (places.size() == 1) {
        return Found.front();
    }
    ErrorMessage = "Several entries named " + Quoted(Text) + " are in the trash, from ";
    for (const std::string& place : places) {
        ErrorMessage += (place == *places.begin() ? "" : ", ") + Quoted(place);
    }
    return std::nullopt;
}

} // namespace

std::optional<TavroTrashItem> TavroFindTrashItem(const std::vector<TavroTrashItem>& Items,
                                                 const std::string& Text,
                                                 std::string& ErrorMessage) {
    const fs::path asTyped = TavroSelectEntry(Text).Path;
    const std::string own = TavroFindOwnPath(Text).string();
    const std::string name = Text.substr(0, Text.find_last_not_of('/') + 1);
    const ItemTest tests[] = {
        [&](const TavroTrashItem& item) { return item.Name == Text; },
        [&](const TavroTrashItem& item) {
            return item.OriginalPath == Text || item.OriginalPath == asTyped.string() ||
                   item.OriginalPath == own;
        },
    };
    for (const ItemTest& test : tests) {
        const auto found = std::find_if(Items.begin(), Items.end(), test);
        if (found != Items.end()) {
            return *found;
        }
    }
    const std::vector<TavroTrashItem> named = ItemsThat(Items, [&](const TavroTrashItem& item) {
        return fs::path(item.OriginalPath).filename() == name;
    });
    if (named.empty()) {
        ErrorMessage = Quoted(Text) + " is not in the trash";
        return std::nullopt;
    }
    return OnlyPlace(named, Text, ErrorMessage);
}

// =================================================================================================
// Removing
// =================================================================================================

namespace {

/// Removes what `TavroRemoveTree` can, and says what it could not.
bool RemoveForGood(const fs::path& Path, std::string& ErrorMessage) {
    std::error_code ec;
    TavroRemoveTree(Path, ec);
    return !ec || Fail(ErrorMessage, "Failed to remove " + Quoted(Path) + ": " + ec.message());
}

/// Removes one file, be it a link. One that is gone already counts as removed.
bool RemoveRecord(const fs::path& Record, std::string& ErrorMessage) {
    std::error_code ec;
    fs::remove(Record, ec);
    return !ec || Fail(ErrorMessage, "Failed to remove " + Quoted(Record) + ": " + ec.message());
}

/// Whether something else has the name of a listed item by now. What is gone is no other; an item
/// that was not listed is taken by its name alone.
bool IsAnotherNow(const TavroTrashFolders& Folders, const TavroTrashItem& Item) {
    if (Item.Inode == 0) {
        return false;
    }
    struct stat status = {};
    if (lstat((Folders.Files / Item.Name).c_str(), &status) == 0 &&
        std::make_tuple(Item.Device, Item.Inode, Item.ChangeTime) !=
            std::make_tuple(std::uint64_t{status.st_dev}, std::uint64_t{status.st_ino},
                            InNanoseconds(status.st_ctim))) {
        return true;
    }
    const std::optional<Record> record = ReadRecord(RecordPath(Folders, Item.Name));
    return record && (record->Path != Item.OriginalPath || record->Date != Item.DeletionDate);
}

} // namespace

bool TavroRemoveFromTrash(const std::vector<TavroTrashItem>& Items,
                          const std::function<bool()>& ShouldCancel, std::string& ErrorMessage) {
    const TavroTrashFolders folders = TavroFindTrashFolders();
    if (folders.Root.empty()) {
        return Fail(ErrorMessage, "Trash is unavailable because HOME is not set.");
    }
    std::string firstError;
    for (const TavroTrashItem& item : Items) {
        if (ShouldCancel && ShouldCancel()) {
            return Fail(ErrorMessage, "Cancelled");
        }
        std::string error;
        if (!IsPlainName(item.Name)) {
            error = Quoted(item.Name) + " is no name of an entry in the trash";
        } else if (IsAnotherNow(folders, item)) {
            error = Quoted(item.Name) + " changed meanwhile and stays";
        } else if (RemoveForGood(folders.Files / item.Name, error)) {
            RemoveRecord(RecordPath(folders, item.Name), error);
        }
        if (firstError.empty()) {
            firstError = error;
        }
    }
    return firstError.empty() || Fail(ErrorMessage, firstError);
}

std::vector<TavroTrashItem> TavroItemsOlderThan(const std::vector<TavroTrashItem>& Items,
                                                int Days) {
    const double limit = 86400.0 * Days;
    const std::time_t now = std::time(nullptr);
    return ItemsThat(Items, [&](const TavroTrashItem& item) {
        std::tm fields = {};
        if (ReadableDate(item.DeletionDate, fields).empty()) {
            return false;
        }
        return std::difftime(now, std::mktime(&fields)) > limit;
    });
}

// =================================================================================================
// Examining and mending
// =================================================================================================

namespace {

TavroTrashFinding FindingAt(TavroTrashFault Fault, const fs::path& Path) {
    switch (Fault) {
    case TavroTrashFault::ItemWithoutRecord:
        return {Fault, Path, Quoted(Path) + " has no record of where it came from"};
    case TavroTrashFault::RecordWithoutItem:
        return {Fault, Path, Quoted(Path) + " is the record of an entry that is not in the trash"};
    case TavroTrashFault::UnreadableRecord:
        return {Fault, Path, Quoted(Path) + " does not tell where its entry came from"};
    }
    return {};
}

} // namespace

bool TavroExamineTrash(std::vector<TavroTrashFinding>& OutFindings, std::string& ErrorMessage) {
    OutFindings.clear();
    const TavroTrashFolders folders = TavroFindTrashFolders();
    std::set<std::string> records;
    std::set<std::string> items;
    if (!ListRecords(folders, records, ErrorMessage) ||
        !ListNames(folders.Files, items, ErrorMessage)) {
        return false;
    }
    for (const std::string& name : items) {
        if (records.count(name) == 0) {
            OutFindings.push_back(
                FindingAt(TavroTrashFault::ItemWithoutRecord, folders.Files / name));
        }
    }
    for (const std::string& name : records) {
        const fs::path file = RecordPath(folders, name);
        if (!ReadRecord(file)) {
            OutFindings.push_back(FindingAt(TavroTrashFault::UnreadableRecord, file));
        } else if (items.count(name) == 0) {
            OutFindings.push_back(FindingAt(TavroTrashFault::RecordWithoutItem, file));
        }
    }
    return true;
}

namespace {

/// The name of the item that a finding is about; nothing when the finding is not about the trash.
std::optional<std::string> ItemNameOf(const TavroTrashFinding& Finding,
                                      const TavroTrashFolders& Folders) {
    const std::string file = Finding.Path.filename().string();
    const fs::path folder = Finding.Path.parent_path();
    if (Folders.Root.empty()) {
        return std::nullopt;
    }
    if (Finding.Fault != TavroTrashFault::ItemWithoutRecord) {
        return folder == Folders.Info ? NameOfRecord(file) : std::nullopt;
    }
    return folder == Folders.Files && IsPlainName(file) ? std::optional<std::string>(file)
                                                        : std::nullopt;
}

/// The record of an item of which nothing is known but its name: that it was in the home directory.
bool RecordAsOfHome(const TavroTrashFolders& Folders, const std::string& OldName,
                    const std::string& Name, std::string& ErrorMessage) {
    TavroTrashEntry entry;
    entry.OriginalPath = (fs::path(TavroHomeDirectoryPath()) / OldName).string();
    entry.TrashPath = (Folders.Files / Name).string();
    entry.InfoPath = RecordPath(Folders, Name).string();
    return TavroWriteTrashRecord(entry, ErrorMessage);
}

/// Gives an item a record, and before that, if need be, a name that leaves room for the record's.
bool RecordAnew(const TavroTrashFolders& Folders, const std::string& Name,
                std::string& ErrorMessage) {
    if (RecordPath(Folders, Name).filename().string().size() <= 255) {
        return RecordAsOfHome(Folders, Name, Name, ErrorMessage);
    }
    const std::string shorter = TavroChooseTrashName(Folders, Name, {});
    std::error_code ec;
    TavroRenameNoReplace(Folders.Files / Name, Folders.Files / shorter, ec);
    if (ec) {
        return Fail(ErrorMessage, "Failed to shorten the name of " + Quoted(Folders.Files / Name) +
                                      ": " + ec.message());
    }
    if (RecordAsOfHome(Folders, Name, shorter, ErrorMessage)) {
        return true;
    }
    TavroRenameNoReplace(Folders.Files / shorter, Folders.Files / Name, ec);
    ErrorMessage += ec ? "; the entry is now " + Quoted(Folders.Files / shorter) : "";
    return false;
}

/// Sets an unreadable record aside, since it may still tell a person something.
bool SetAside(const fs::path& Record, std::string& ErrorMessage) {
    std::error_code ec;
    const fs::path aside = TavroFreePathBeside(Record.parent_path() / "unreadable record");
    TavroRenameNoReplace(Record, aside, ec);
    return !ec || Fail(ErrorMessage, "Failed to set " + Quoted(Record) + " aside: " + ec.message());
}

/// Removes a record when it is sure that there is no item of it.
bool RemoveVainRecord(const TavroTrashFolders& Folders, const std::string& Name,
                      std::string& ErrorMessage) {
    struct stat status = {};
    const fs::path item = Folders.Files / Name;
    if (IsPlainName(Name) && lstat(item.c_str(), &status) != 0 && errno != ENOENT) {
        const std::string reason = std::generic_category().message(errno);
        return Fail(ErrorMessage, "Failed checking " + Quoted(item) + ": " + reason);
    }
    return RemoveRecord(RecordPath(Folders, Name), ErrorMessage);
}

} // namespace

bool TavroMendTrash(const TavroTrashFinding& Finding, std::string& ErrorMessage) {
    const TavroTrashFolders folders = TavroFindTrashFolders();
    const std::optional<std::string> name = ItemNameOf(Finding, folders);
    if (!name) {
        return Fail(ErrorMessage, Quoted(Finding.Path) + " is not in the trash");
    }
    const fs::path record = RecordPath(folders, *name);
    const bool bHasItem = HasItem(folders, *name);
    if (Finding.Fault == TavroTrashFault::ItemWithoutRecord) {
        return !bHasItem || TavroIsPresent(record) || RecordAnew(folders, *name, ErrorMessage);
    }
    if (!TavroIsPresent(record) || (bHasItem && ReadRecord(record))) {
        return true;
    }
    if (!bHasItem) {
        return RemoveVainRecord(folders, *name, ErrorMessage);
    }
    return SetAside(record, ErrorMessage) && RecordAnew(folders, *name, ErrorMessage);
}
