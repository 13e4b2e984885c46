#include "trash_record.h"

#include "identity.h"
#include "names.h"
#include "posix.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <string_view>

namespace {

constexpr std::string_view suffix = ".trashinfo";

} // namespace

std::string TavroRecordName(const std::string& Item) {
    return Item + std::string(suffix);
}

std::string TavroRecordPath(const std::string& ItemPath) {
    const std::size_t name = std::min(ItemPath.rfind('/'), ItemPath.size());
    const std::size_t files = name == 0 ? std::string::npos : ItemPath.rfind('/', name - 1);
    std::string path;
    path.reserve(ItemPath.size() + suffix.size());
    path.append(ItemPath, 0, files + 1).append("info");
    return path.append(ItemPath, name).append(suffix);
}

std::optional<std::string> TavroItemOfRecord(const std::string& File) {
    if (File.size() < suffix.size() ||
        File.compare(File.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return std::nullopt;
    }
    return File.substr(0, File.size() - suffix.size());
}

// =================================================================================================
// Writing
// =================================================================================================

std::string TavroRecordedPath(const TavroTrashFolders& Trash, const std::string& Path) {
    const bool bRelative = Trash.bVolume && TavroIsBelow(Trash.Base, Path);
    return bRelative ? Path.substr(TavroJoin(Trash.Base, "").size()) : Path;
}

std::string TavroRecordText(const std::string& OriginalPath, std::time_t Time) {
    std::tm fields = {};
    std::array<char, 32> date = {};
    localtime_r(&Time, &fields);
    const std::size_t size = std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &fields);
    return "[Trash Info]\nPath=" + TavroPercentEncode(OriginalPath) +
           "\nDeletionDate=" + std::string(date.data(), size) + "\n";
}

namespace {

/// The umask may have taken permissions of the user's own.
int LetUserReadAndWrite(int Record, mode_t& IoMode) {
    constexpr mode_t needed = S_IRUSR | S_IWUSR;
    struct stat status = {};
    if (IoMode == 0) {
        const int error = TavroStat(Record, status);
        if (error != 0) {
            return error;
        }
        IoMode = status.st_mode;
    }
    return (IoMode & needed) == needed ? 0 : TavroSetMode(Record, (IoMode & 07777U) | needed);
}

} // namespace

TavroFailure TavroCreateRecord(const TavroOpenTrash& Trash, const std::string& Item,
                               const std::string& Text, mode_t& IoMode) {
    const std::string name = TavroRecordName(Item);
    const int info = Trash.Info.Number();
    TavroDescriptor record;
    int error = TavroOpenAt(info, name.c_str(), O_WRONLY | O_CREAT | O_EXCL, record, 0666);
    if (error != 0) {
        return TavroFail(TavroFailureKind::CreateRecord, error,
                         TavroJoin(Trash.Folders.Info, name));
    }
    error = LetUserReadAndWrite(record.Number(), IoMode);
    error = error != 0 ? error : TavroWriteAt(record.Number(), Text.data(), Text.size(), 0);
    const int closing = record.Close();
    error = error != 0 ? error : closing;
    if (error == 0) {
        return {};
    }
    TavroUnlinkAt(info, name.c_str());
    return TavroFail(TavroFailureKind::WriteRecord, error, TavroJoin(Trash.Folders.Info, name));
}

int TavroSyncRecords(const TavroOpenTrash& Trash, std::size_t Count, const std::string& Item) {
    const int info = Trash.Info.Number();
    TavroDescriptor record;
    if (Count > 1 || TavroOpenAt(info, TavroRecordName(Item).c_str(), O_RDONLY, record) != 0) {
        return TavroSyncFileSystem(info);
    }
    return TavroSync(record.Number());
}

namespace {

/// Where so many names are taken, one listing costs less than to try them all.
constexpr int manyCollisions = 8;

/// How often a name is tried when others take each one first.
constexpr int tries = 100;

} // namespace

TavroFailure TavroTrashClaims::Claim(const std::string& Wanted, const std::string& OriginalPath,
                                     std::string& OutItem) {
    const std::string text =
        TavroRecordText(TavroRecordedPath(m_trash.Folders, OriginalPath), std::time(nullptr));
    TavroFailure failure;
    for (int i = 0; i < tries; ++i) {
        const auto next = m_next.find(Wanted);
        do {
            const std::uint64_t number = next == m_next.end() ? 0 : next->second++;
            OutItem = TavroNumberedName(Wanted, number, TavroLongestTrashName);
        } while (next != m_next.end() && m_taken.count(OutItem) != 0);
        failure = TavroCreateRecord(m_trash, OutItem, text, m_mode);
        if (failure.Error != std::errc::file_exists) {
            break;
        }
        NoteCollision(Wanted);
    }
    return failure;
}

void TavroTrashClaims::Drop(const std::string& Wanted, const std::string& Item) {
    TavroUnlinkAt(m_trash.Info.Number(), TavroRecordName(Item).c_str());
    NoteCollision(Wanted);
}

void TavroTrashClaims::NoteCollision(const std::string& Wanted) {
    m_next.try_emplace(Wanted, 1);
    if (++m_collisions != manyCollisions) {
        return;
    }
    TavroListing items;
    TavroListing records;
    TavroListDirectory(m_trash.Files.Number(), items);
    TavroListDirectory(m_trash.Info.Number(), records);
    while (const char* name = items.Next()) {
        m_taken.insert(name);
    }
    while (const char* name = records.Next()) {
        m_taken.insert(TavroItemOfRecord(name).value_or(""));
    }
}

// =================================================================================================
// Reading
// =================================================================================================

namespace {

std::string_view WithoutBlanksBefore(std::string_view Text) {
    return Text.substr(std::min(Text.find_first_not_of(" \t"), Text.size()));
}

std::string_view WithoutBlanksAfter(std::string_view Text) {
    return Text.substr(0, Text.find_last_not_of(" \t") + 1);
}

/// The line that begins at `Begin`, without its end.
std::string_view LineAt(std::string_view Bytes, std::size_t Begin) {
    std::string_view line = Bytes.substr(Begin, Bytes.find('\n', Begin) - Begin);
    line.remove_suffix(!line.empty() && line.back() == '\r' ? 1 : 0);
    return WithoutBlanksBefore(line);
}

/// The fields of a date in the first 19 bytes of a text; what follows (a fraction, a zone) is
/// dropped.
std::optional<std::tm> FieldsOfDate(const std::string& Text) {
    constexpr std::string_view shape = "dddd-dd-ddTdd:dd:dd";
    const auto fits = [](char wanted, char byte) {
        return wanted == 'd' ? byte >= '0' && byte <= '9' : byte == wanted;
    };
    std::tm fields = {};
    fields.tm_isdst = -1;
    const bool bDate =
        Text.size() >= shape.size() && std::equal(shape.begin(), shape.end(), Text.begin(), fits) &&
        strptime(Text.c_str(), "%Y-%m-%dT%H:%M:%S", &fields) != nullptr && fields.tm_sec <= 60;
    return bDate ? std::optional<std::tm>(fields) : std::nullopt;
}

/// The values of the first `Path` and the first `DeletionDate` in the group [Trash Info].
struct RawRecord {
    std::optional<std::string> Path;
    std::optional<std::string> Date;
};

RawRecord SplitRecord(std::string_view Bytes) {
    RawRecord raw;
    bool bInGroup = false;
    std::size_t next = 0;
    for (std::size_t begin = 0; begin < Bytes.size(); begin = next) {
        next = std::min(Bytes.find('\n', begin), Bytes.size()) + 1;
        const std::string_view line = LineAt(Bytes, begin);
        if (!line.empty() && line[0] == '[') {
            bInGroup = WithoutBlanksAfter(line) == "[Trash Info]";
            continue;
        }
        const std::size_t sign = line.find('=');
        if (!bInGroup || sign == std::string::npos) {
            continue;
        }
        const std::string_view key = WithoutBlanksAfter(line.substr(0, sign));
        std::optional<std::string>& value = key == "Path" ? raw.Path : raw.Date;
        if (!value && (key == "Path" || key == "DeletionDate")) {
            value = WithoutBlanksBefore(line.substr(sign + 1));
        }
    }
    return raw;
}

std::optional<TavroTrashRecord> ParseRecord(const std::string& Bytes, const std::string& Base) {
    const RawRecord raw = SplitRecord(Bytes);
    std::string path = TavroPercentDecode(raw.Path.value_or(""));
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    // No path holds a zero byte; what is before it would name another entry.
    const bool bUp = ('/' + path + '/').find("/../") != std::string::npos;
    if (path.empty() || bUp || path.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    const std::string date = raw.Date.value_or("");
    path = path.front() == '/' ? path : TavroJoin(Base, path);
    return TavroTrashRecord{path, FieldsOfDate(date) ? date.substr(0, 19) : std::string()};
}

} // namespace

std::optional<TavroTrashRecord> TavroReadRecord(int Info, const std::string& Item,
                                                const std::string& Base) {
    constexpr std::size_t limit = std::size_t{64} << 10U;
    TavroDescriptor file;
    struct stat status = {};
    if (TavroOpenFileAt(Info, TavroRecordName(Item).c_str(), file) != 0 ||
        TavroStat(file.Number(), status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    std::string bytes(std::min(static_cast<std::size_t>(status.st_size), limit), '\0');
    for (std::size_t length = 0, count = 1; length < bytes.size(); length += count) {
        if (TavroReadAt(file.Number(), &bytes[length], bytes.size() - length,
                        static_cast<off_t>(length), count) != 0) {
            return std::nullopt;
        }
        bytes.resize(count == 0 ? length : bytes.size());
    }
    // Of a longer file the last line may be only a part of itself.
    bytes.resize(bytes.size() < limit ? bytes.size() : bytes.rfind('\n') + 1);
    std::optional<TavroTrashRecord> record = ParseRecord(bytes, Base);
    if (record) {
        record->WrittenAt = TavroNanoseconds(status.st_mtim);
    }
    return record;
}

std::optional<TavroTrashRecord> TavroReadRecord(const TavroOpenTrash& Trash,
                                                const std::string& Item) {
    const TavroTrashFolders& folders = Trash.Folders;
    auto record = TavroReadRecord(Trash.Info.Number(), Item, folders.Base);
    const bool bElsewhere = record && folders.bVolume && !TavroIsBelow(folders.Base, record->Path);
    return bElsewhere ? std::nullopt : std::move(record);
}

std::optional<std::time_t> TavroTimeOfDate(const std::string& Date) {
    std::optional<std::tm> fields = FieldsOfDate(Date);
    return fields ? std::optional<std::time_t>(std::mktime(&*fields)) : std::nullopt;
}
