#include "history_file.h"

#include "no_replace.h"
#include "percent.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

using Json = nlohmann::json;

namespace {

bool IsAbsolute(const std::string& Path) {
    return !Path.empty() && Path.front() == '/' && Path.find('\0') == std::string::npos;
}

bool IsRecordableStep(const TavroHistoryStep& Step, TavroHistoryKind Kind) {
    const bool bFromFits =
        Kind == TavroHistoryKind::CreateDirectory ? Step.From.empty() : IsAbsolute(Step.From);
    return bFromFits && IsAbsolute(Step.To);
}

bool IsRecordableEntry(const TavroTrashEntry& Entry) {
    return IsAbsolute(Entry.OriginalPath) && IsAbsolute(Entry.TrashPath) &&
           IsAbsolute(Entry.InfoPath);
}

bool IsRecordableFolder(const TavroRemovedFolder& Folder) {
    return IsAbsolute(Folder.Path.string()) && Folder.Mode <= 07777U;
}

} // namespace

bool TavroIsRecordable(const TavroHistoryOperation& Operation) {
    const bool bTrash = Operation.Kind == TavroHistoryKind::Trash;
    const bool bNamesWhatItDid = bTrash ? Operation.Steps.empty() && !Operation.TrashEntries.empty()
                                        : !Operation.Steps.empty();
    return bNamesWhatItDid &&
           std::all_of(Operation.Steps.begin(), Operation.Steps.end(),
                       [&](const TavroHistoryStep& Step) {
                           return IsRecordableStep(Step, Operation.Kind);
                       }) &&
           std::all_of(Operation.TrashEntries.begin(), Operation.TrashEntries.end(),
                       IsRecordableEntry) &&
           std::all_of(Operation.RemovedFolders.begin(), Operation.RemovedFolders.end(),
                       IsRecordableFolder);
}

// ---------------------------------------------------------------------------------------------
// The lock
// ---------------------------------------------------------------------------------------------

namespace {

/// A sentence from an act, what it was done to, and the text of an error number.
std::string Sentence(const char* Act, const fs::path& Path, int Error) {
    return std::string(Act) + " '" + Path.string() +
           "': " + std::error_code(Error, std::generic_category()).message();
}

/// Another process may create the same folder at the same time, so one that is there is no error;
/// whether it is a folder shows when something is put into it.
bool CreatePrivateFolders(const fs::path& Folder, std::string& ErrorMessage) {
    std::error_code ec;
    if (fs::is_directory(Folder, ec)) {
        return true;
    }
    if (Folder.has_relative_path() && !CreatePrivateFolders(Folder.parent_path(), ErrorMessage)) {
        return false;
    }
    if (mkdir(Folder.c_str(), S_IRWXU) == 0 || errno == EEXIST) {
        return true;
    }
    ErrorMessage = Sentence("Cannot create the folder", Folder, errno);
    return false;
}

bool WaitForLock(int Descriptor, std::chrono::seconds Patience) {
    const auto end = std::chrono::steady_clock::now() + Patience;
    bool bLocked = false;
    do {
        bLocked = flock(Descriptor, LOCK_EX) == 0;
    } while (!bLocked && errno == EINTR && std::chrono::steady_clock::now() < end);
    return bLocked;
}

} // namespace

bool TavroLockHistory(const fs::path& File, std::chrono::seconds Patience, int& OutLock,
                      std::string& ErrorMessage) {
    if (!CreatePrivateFolders(File.parent_path(), ErrorMessage)) {
        return false;
    }
    // The history itself is replaced by a rename, so a lock on it would be one on a file that is
    // gone. This one stays for ever.
    const fs::path lockFile = File.string() + ".lock";
    const int lock = open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (lock >= 0 && WaitForLock(lock, Patience)) {
        OutLock = lock;
        return true;
    }
    ErrorMessage = Sentence("Cannot lock the history", lockFile, errno);
    if (lock >= 0) {
        close(lock);
    }
    return false;
}

// ---------------------------------------------------------------------------------------------
// From the file
// ---------------------------------------------------------------------------------------------

namespace {

constexpr int formatVersion = 1;

struct KindName {
    TavroHistoryKind Kind;
    const char* Name;
};

constexpr std::array<KindName, 5> kindNames = {{
    {TavroHistoryKind::Trash, "trash"},
    {TavroHistoryKind::Rename, "rename"},
    {TavroHistoryKind::Move, "move"},
    {TavroHistoryKind::Copy, "copy"},
    {TavroHistoryKind::CreateDirectory, "create-directory"},
}};

/// A member of an object; a null value when there is no such member, or no object.
const Json& Member(const Json& Object, const char* Key) {
    static const Json none;
    const auto found = Object.find(Key);
    return found == Object.end() ? none : *found;
}

/// Only what the encoding gives for some bytes is taken: anything else was not written here.
bool ParsePath(const Json& Value, std::string& OutPath) {
    if (!Value.is_string()) {
        return false;
    }
    const auto& text = Value.get_ref<const std::string&>();
    OutPath = TavroPercentDecode(text);
    return TavroPercentEncode(OutPath) == text;
}

bool ParseStep(const Json& Value, TavroHistoryStep& OutStep) {
    return ParsePath(Member(Value, "from"), OutStep.From) &&
           ParsePath(Member(Value, "to"), OutStep.To);
}

bool ParseEntry(const Json& Value, TavroTrashEntry& OutEntry) {
    const Json& directory = Member(Value, "directory");
    if (!directory.is_boolean()) {
        return false;
    }
    OutEntry.bDirectory = directory.get<bool>();
    return ParsePath(Member(Value, "original"), OutEntry.OriginalPath) &&
           ParsePath(Member(Value, "trash"), OutEntry.TrashPath) &&
           ParsePath(Member(Value, "info"), OutEntry.InfoPath);
}

bool ParseFolder(const Json& Value, TavroRemovedFolder& OutFolder) {
    const Json& mode = Member(Value, "mode");
    std::string path;
    if (!mode.is_number_unsigned() || mode.get<std::uint64_t>() > 07777U ||
        !ParsePath(Member(Value, "path"), path)) {
        return false;
    }
    OutFolder = {path, mode.get<std::uint32_t>()};
    return true;
}

bool ParseKind(const Json& Value, TavroHistoryKind& OutKind) {
    const auto* found =
        std::find_if(kindNames.begin(), kindNames.end(),
                     [&](const KindName& Candidate) { return Value == Candidate.Name; });
    if (found == kindNames.end()) {
        return false;
    }
    OutKind = found->Kind;
    return true;
}

/// A whole number that fits; one too large for its type would come out as another.
bool ParseTime(const Json& Value, std::int64_t& OutTime) {
    constexpr std::uint64_t largest = INT64_MAX;
    const bool bTooLarge = Value.is_number_unsigned() && Value.get<std::uint64_t>() > largest;
    if (!Value.is_number_integer() || bTooLarge) {
        return false;
    }
    OutTime = Value.get<std::int64_t>();
    return true;
}

template <typename Item>
bool ParseList(const Json& Value, bool (*ParseItem)(const Json&, Item&),
               std::vector<Item>& OutItems) {
    if (!Value.is_array()) {
        return false;
    }
    OutItems.resize(Value.size());
    for (std::size_t i = 0; i < Value.size(); ++i) {
        if (!ParseItem(Value[i], OutItems[i])) {
            return false;
        }
    }
    return true;
}

/// Most operations have none, and then the member is missing.
bool ParseFolders(const Json& Value, std::vector<TavroRemovedFolder>& OutFolders) {
    return Value.is_null() || ParseList(Value, ParseFolder, OutFolders);
}

bool ParseOperation(const Json& Value, TavroHistoryOperation& OutOperation) {
    return ParseKind(Member(Value, "kind"), OutOperation.Kind) &&
           ParseTime(Member(Value, "time"), OutOperation.Time) &&
           ParseList(Member(Value, "steps"), ParseStep, OutOperation.Steps) &&
           ParseList(Member(Value, "trash"), ParseEntry, OutOperation.TrashEntries) &&
           ParseFolders(Member(Value, "folders"), OutOperation.RemovedFolders) &&
           TavroIsRecordable(OutOperation);
}

bool ParseHistory(const std::string& Text, TavroHistoryLists& OutLists) {
    const Json history = Json::parse(Text, nullptr, /*allow_exceptions=*/false);
    const Json& version = Member(history, "version");
    return version.is_number_integer() && version == formatVersion &&
           ParseList(Member(history, "undoable"), ParseOperation, OutLists.Undoable) &&
           ParseList(Member(history, "redoable"), ParseOperation, OutLists.Redoable);
}

/// @return 0, or the number of the error.
int ReadAll(int Descriptor, std::string& OutBytes) {
    struct stat status = {};
    if (fstat(Descriptor, &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    std::array<char, 65536> block = {};
    for (;;) {
        const ssize_t count = read(Descriptor, block.data(), block.size());
        if (count <= 0) {
            return count == 0 ? 0 : errno;
        }
        OutBytes.append(block.data(), static_cast<std::size_t>(count));
    }
}

bool SetAside(const fs::path& File, std::string& OutNotice, std::string& ErrorMessage) {
    std::error_code ec;
    fs::path aside;
    for (int number = 1; number == 1 || ec == std::errc::file_exists; ++number) {
        aside = File.string() + ".damaged-" + std::to_string(number);
        TavroRenameNoReplace(File, aside, ec);
    }
    if (ec) {
        ErrorMessage = Sentence("Cannot set aside the damaged history", File, ec.value());
        return false;
    }
    OutNotice = "The history '" + File.string() + "' is damaged and was set aside as '" +
                aside.string() + "'";
    return true;
}

} // namespace

bool TavroReadHistory(const fs::path& File, TavroHistoryLists& OutLists, std::string& OutNotice,
                      std::string& ErrorMessage) {
    OutLists = {};
    OutNotice.clear();
    // A FIFO in its place must not make this wait.
    const int descriptor = open(File.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0 && errno == ENOENT) {
        return true;
    }
    std::string text;
    const int error = descriptor < 0 ? errno : ReadAll(descriptor, text);
    if (descriptor >= 0) {
        close(descriptor);
    }
    if (error != 0) {
        ErrorMessage = Sentence("Cannot read the history", File, error);
        return false;
    }
    if (ParseHistory(text, OutLists)) {
        return true;
    }
    OutLists = {};
    return SetAside(File, OutNotice, ErrorMessage);
}

// ---------------------------------------------------------------------------------------------
// To the file
// ---------------------------------------------------------------------------------------------

namespace {

Json Format(const TavroHistoryStep& Step) {
    return {{"from", TavroPercentEncode(Step.From)}, {"to", TavroPercentEncode(Step.To)}};
}

Json Format(const TavroTrashEntry& Entry) {
    return {{"original", TavroPercentEncode(Entry.OriginalPath)},
            {"trash", TavroPercentEncode(Entry.TrashPath)},
            {"info", TavroPercentEncode(Entry.InfoPath)},
            {"directory", Entry.bDirectory}};
}

Json Format(const TavroRemovedFolder& Folder) {
    return {{"path", TavroPercentEncode(Folder.Path.string())}, {"mode", Folder.Mode}};
}

Json Format(const TavroHistoryOperation& Operation);

template <typename Item> Json FormatList(const std::vector<Item>& Items) {
    Json list = Json::array();
    for (const Item& item : Items) {
        list.push_back(Format(item));
    }
    return list;
}

Json Format(const TavroHistoryOperation& Operation) {
    const auto* kind =
        std::find_if(kindNames.begin(), kindNames.end(),
                     [&](const KindName& Candidate) { return Candidate.Kind == Operation.Kind; });
    Json json = {{"kind", kind->Name},
                 {"time", Operation.Time},
                 {"steps", FormatList(Operation.Steps)},
                 {"trash", FormatList(Operation.TrashEntries)}};
    if (!Operation.RemovedFolders.empty()) {
        json["folders"] = FormatList(Operation.RemovedFolders);
    }
    return json;
}

std::string FormatHistory(const TavroHistoryLists& Lists) {
    const Json history = {{"version", formatVersion},
                          {"undoable", FormatList(Lists.Undoable)},
                          {"redoable", FormatList(Lists.Redoable)}};
    return history.dump() + '\n';
}

/// @return 0, or the number of the error.
int WriteAll(int Descriptor, const std::string& Bytes) {
    std::size_t written = 0;
    while (written < Bytes.size()) {
        const ssize_t count = write(Descriptor, Bytes.data() + written, Bytes.size() - written);
        if (count < 0) {
            return errno;
        }
        written += static_cast<std::size_t>(count);
    }
    return fsync(Descriptor) == 0 ? 0 : errno;
}

/// The name is always the same, so that what a killed process left is gone with the next save.
fs::path NewFileBeside(const fs::path& File) {
    return File.string() + ".new";
}

/// @return 0 when all is on the disk; else the number of the error, and no such file is left.
int WriteNewFile(const fs::path& NewFile, const std::string& Bytes) {
    unlink(NewFile.c_str());
    const int descriptor =
        open(NewFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor < 0) {
        return errno;
    }
    int error = WriteAll(descriptor, Bytes);
    if (close(descriptor) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(NewFile.c_str());
    }
    return error;
}

/// Makes a rename in a folder last. Not every file system can, and by then the file is replaced
/// anyway, so nothing is said of a failure.
void SyncFolder(const fs::path& Folder) {
    const int descriptor = open(Folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        fsync(descriptor);
        close(descriptor);
    }
}

bool ReportSaving(const fs::path& File, int Error, std::string& ErrorMessage) {
    if (Error != 0) {
        ErrorMessage = Sentence("Cannot save the history", File, Error);
    }
    return Error == 0;
}

} // namespace

bool TavroWriteHistory(const fs::path& File, const TavroHistoryLists& Lists,
                       std::string& ErrorMessage) {
    const fs::path newFile = NewFileBeside(File);
    int error = WriteNewFile(newFile, FormatHistory(Lists));
    if (error == 0 && rename(newFile.c_str(), File.c_str()) != 0) {
        error = errno;
        unlink(newFile.c_str());
    }
    if (error == 0) {
        SyncFolder(File.parent_path());
    }
    return ReportSaving(File, error, ErrorMessage);
}

bool TavroTryWritingHistory(const fs::path& File, const TavroHistoryLists& Lists,
                            std::string& ErrorMessage) {
    const fs::path newFile = NewFileBeside(File);
    const int error = WriteNewFile(newFile, FormatHistory(Lists));
    if (error == 0) {
        unlink(newFile.c_str());
    }
    return ReportSaving(File, error, ErrorMessage);
}
