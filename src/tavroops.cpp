// The file operations of the Tavro pane. The contracts stand in tavroops.h.
//
// In this file, in order:
//
//   Sentences                            how a failure is said
//   Text and paths                       from typed text to a path; comparing paths
//   Free names                           a name that is not taken yet
//   Size                                 how much a directory holds
//   Transfer plans                       a selection and a target become a copy or move plan
//   Create, rename, delete               the operations on single entries
//   Moving                               one entry to another path, across file systems too
//   Trash records                        what the trash remembers of an entry
//   Trashing, restoring, redoing         whole batches, all or nothing
//
// A helper stands right above the first operation that needs it.

#include "tavroops.h"

#include "tavropane.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <system_error>
#include <unordered_set>
#include <utility>

namespace fs = std::filesystem;

// =================================================================================================
// Sentences
// =================================================================================================

namespace {

/// Stores the sentence of a failure and returns false, for an operation to return in turn.
bool Fail(std::string& ErrorMessage, std::string Sentence) {
    ErrorMessage = std::move(Sentence);
    return false;
}

/// "<What> '<Name>': <reason>".
std::string FailureOf(const std::string& What, const std::string& Name, const std::error_code& ec) {
    return What + " '" + Name + "': " + ec.message();
}

/// Adds what could not be undone to the sentence of the failure that was to be undone.
void AppendRollbackFailure(std::string& ErrorMessage, const std::string& RollbackError) {
    ErrorMessage += " Rollback failed: " + RollbackError;
}

} // namespace

// =================================================================================================
// Text and paths
// =================================================================================================

namespace {

bool IsWhiteSpace(char Byte) {
    return std::isspace(static_cast<unsigned char>(Byte)) != 0;
}

} // namespace

std::string TavroTrimText(const std::string& Text) {
    std::size_t start = 0;
    while (start < Text.size() && IsWhiteSpace(Text[start])) {
        ++start;
    }
    std::size_t end = Text.size();
    while (end > start && IsWhiteSpace(Text[end - 1])) {
        --end;
    }
    return Text.substr(start, end - start);
}

namespace {

/// As `weakly_canonical`, which looks at every leading part of a path that does not exist. Mostly
/// only the last name is missing, of a target or of what was just moved away; then its directory is
/// enough. Not of a relative path: one that begins with a zero byte is nothing to the system, but
/// `canonical`, which makes it absolute first, takes it for the current directory.
fs::path WeaklyCanonical(const fs::path& Path, std::error_code& ec) {
    const fs::file_status status = fs::status(Path, ec);
    if (fs::exists(status)) {
        return fs::canonical(Path, ec);
    }
    const std::string name = Path.filename().string();
    const bool bPlainName = !name.empty() && name != "." && name != "..";
    if (Path.is_absolute() && bPlainName && status.type() == fs::file_type::not_found) {
        const fs::path folder = fs::canonical(Path.parent_path(), ec);
        if (!ec) {
            return folder / name;
        }
    }
    return fs::weakly_canonical(Path, ec);
}

/// `Path` with its existing part resolved through the file system; as text alone when that fails.
fs::path ResolveOrNormalize(const fs::path& Path) {
    std::error_code ec;
    fs::path resolved = WeaklyCanonical(Path, ec);
    return ec ? Path.lexically_normal() : resolved;
}

} // namespace

std::string TavroCanonicalizePath(const std::string& Path) {
    if (Path.empty()) {
        return {};
    }
    fs::path path(Path);
    if (!path.has_root_directory()) {
        // Without a current directory the path stays as it is; what can be resolved decides below.
        std::error_code ec;
        path = fs::absolute(path, ec);
    }
    return ResolveOrNormalize(path).string();
}

std::string TavroHomeDirectoryPath() {
    const char* home = std::getenv("HOME");
    if (home == nullptr) {
        return {};
    }
    return TavroCanonicalizePath(home);
}

namespace {

bool IsTypedSeparator(char Byte) {
    return Byte == '/' || Byte == '\\';
}

} // namespace

bool TavroEndsWithPathSeparator(const std::string& Text) {
    return !Text.empty() && IsTypedSeparator(Text.back());
}

namespace {

/// `~`, `~/…` and `~\…` begin with the home directory; the tilde of any other text is a plain byte.
bool BeginsWithHomeTilde(const std::string& Text) {
    return !Text.empty() && Text[0] == '~' && (Text.size() == 1 || IsTypedSeparator(Text[1]));
}

} // namespace

fs::path TavroResolveUserPath(const std::string& Text, const fs::path& BaseDirectory) {
    std::string expanded = Text;
    if (BeginsWithHomeTilde(expanded)) {
        const std::string home = TavroHomeDirectoryPath();
        if (!home.empty()) {
            expanded = home + expanded.substr(1);
        }
    }
    fs::path path(expanded);
    if (path.empty()) {
        return {};
    }
    if (!path.has_root_directory()) {
        path = BaseDirectory / path;
    }
    return ResolveOrNormalize(path);
}

bool TavroPathsEquivalentOrSame(const fs::path& A, const fs::path& B) {
    std::error_code ec;
    if (fs::equivalent(A, B, ec)) {
        return true;
    }
    return TavroCanonicalizePath(A.string()) == TavroCanonicalizePath(B.string());
}

bool TavroPathIsInside(const fs::path& Parent, const fs::path& Child) {
    const std::string parent = TavroCanonicalizePath(Parent.string());
    const std::string child = TavroCanonicalizePath(Child.string());
    if (parent.empty() || child.size() <= parent.size()) {
        return false;
    }
    // Without the byte after the prefix, /ab would lie inside /a. For the root directory that byte
    // is the first of a name, so nothing counts as inside it.
    return child.compare(0, parent.size(), parent) == 0 && child[parent.size()] == '/';
}

// =================================================================================================
// Free names
// =================================================================================================

namespace {

/// Nothing exists at `Path`, as far as can be seen: a dangling link and a path that cannot be
/// examined count as free.
bool IsFree(const fs::path& Path) {
    std::error_code ec;
    return !fs::exists(Path, ec);
}

/// The current local time in the form that `Pattern` gives. A time that cannot be converted reads
/// as all zeros. Not by a stream: when memory runs out it would cut the text short without a word.
std::string LocalTimeText(const char* Pattern) {
    const std::time_t raw = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm tmValue = {};
    localtime_r(&raw, &tmValue);
    std::array<char, 64> text = {};
    const std::size_t length = std::strftime(text.data(), text.size(), Pattern, &tmValue);
    return std::string(text.data(), length);
}

/// The current local time as the fifteen characters YYYYMMDD-HHMMSS.
std::string TimestampSuffix() {
    return LocalTimeText("%Y%m%d-%H%M%S");
}

/// `RequestedPath` when it is free, else the first free of "NAME copy 1.EXT" to "NAME copy
/// 9999.EXT" beside it, else "NAME copy TIME.EXT", free or not. The bound keeps the search finite.
fs::path MakeConflictFreePath(const fs::path& RequestedPath) {
    if (IsFree(RequestedPath)) {
        return RequestedPath;
    }
    const fs::path parent = RequestedPath.parent_path();
    const fs::path stem = RequestedPath.stem();
    const fs::path base = stem.empty() ? RequestedPath.filename() : stem;
    const std::string prefix = base.string() + " copy ";
    const std::string extension = RequestedPath.extension().string();
    for (int i = 1; i <= 9999; ++i) {
        fs::path candidate = parent / (prefix + std::to_string(i) + extension);
        if (IsFree(candidate)) {
            return candidate;
        }
    }
    return parent / (prefix + TimestampSuffix() + extension);
}

} // namespace

// =================================================================================================
// Size
// =================================================================================================

namespace {

/// The size of the file that an entry of a walk is or links to; 0 for anything else, and for what
/// cannot be examined.
std::uintmax_t RegularFileSize(const fs::directory_entry& Entry) {
    std::error_code itemError;
    if (!Entry.is_regular_file(itemError)) {
        return 0;
    }
    const std::uintmax_t size = Entry.file_size(itemError);
    return itemError ? 0 : size;
}

} // namespace

std::uintmax_t TavroCalculateDirectorySize(const fs::path& root,
                                           const std::function<bool()>& shouldCancel) {
    std::uintmax_t total = 0;
    std::error_code error;
    if (root.empty() || !fs::is_directory(root, error)) {
        return 0;
    }
    fs::recursive_directory_iterator walk(root, fs::directory_options::skip_permission_denied,
                                          error);
    for (const fs::recursive_directory_iterator end; walk != end; walk.increment(error)) {
        if (shouldCancel && shouldCancel()) {
            break;
        }
        if (error) { // GCOVR_EXCL_START: here, an advance that fails ends the walk
            error.clear();
            continue;
        } // GCOVR_EXCL_STOP
        total += RegularFileSize(*walk);
    }
    return total;
}

// =================================================================================================
// Transfer plans
// =================================================================================================

namespace {

/// Several entries need a directory to go into, or a target that is still to be made.
bool EnsureTransferTargetDirectoryCompatibility(const std::vector<TavroOperationEntry>& Entries,
                                                const fs::path& TargetPath,
                                                std::string& ErrorMessage) {
    if (Entries.size() <= 1) {
        return true;
    }
    std::error_code ec;
    if (!fs::exists(TargetPath, ec) || fs::is_directory(TargetPath, ec)) {
        return true;
    }
    return Fail(ErrorMessage, "Target must be a directory when multiple items are selected.");
}

/// The file name that an audio track gets on disk.
fs::path CddaCopyDestinationName(const TavroOperationEntry& Entry) {
    fs::path namePath(Entry.Name);
    const fs::path extension = namePath.extension();
    if (extension == ".cdda") {
        namePath.replace_extension(".wav");
    } else if (extension.empty()) {
        namePath += ".wav";
    }
    return namePath;
}

/// Where the items of one plan go.
struct TransferTarget {
    fs::path Path;     ///< The typed target, resolved.
    bool bSingleEntry; ///< One entry is selected: the target may be its new path.
    bool bTypedInto;   ///< The text ends in a separator: the target is a directory to go into.
};

/// The name that `Entry` gets inside a directory.
fs::path DestinationName(const TavroOperationEntry& Entry, bool bCddaSource) {
    if (bCddaSource) {
        return CddaCopyDestinationName(Entry);
    }
    return fs::path(Entry.Path).filename();
}

/// The full new path of `Entry`: inside the target, or the target itself.
fs::path DestinationFor(const TransferTarget& Target, const TavroOperationEntry& Entry,
                        bool bCddaSource) {
    const fs::path sourceFileName = DestinationName(Entry, bCddaSource);
    if (!Target.bSingleEntry || Target.bTypedInto) {
        return Target.Path / sourceFileName;
    }
    std::error_code ec;
    const bool bTargetIsDirectory = fs::is_directory(Target.Path, ec);
    // A single entry onto a directory of its own name means that directory, not one more level.
    const bool bSameName = Target.Path.filename() == sourceFileName;
    return bTargetIsDirectory && !bSameName ? Target.Path / sourceFileName : Target.Path;
}

/// Whether `Entry` can go to `Destination`; something that exists there is no obstacle yet.
bool CheckDestination(const TavroOperationEntry& Entry, const fs::path& Destination,
                      bool bCddaSource, bool bMove, std::string& ErrorMessage) {
    const fs::path source(Entry.Path);
    if (!bCddaSource && TavroPathsEquivalentOrSame(source, Destination)) {
        return Fail(ErrorMessage, std::string(bMove ? "Move" : "Copy") +
                                      " target matches the source path for '" + Entry.Name + "'.");
    }
    if (Entry.bDirectory && TavroPathIsInside(source, Destination)) {
        return Fail(ErrorMessage, std::string("Cannot ") + (bMove ? "move" : "copy") +
                                      " a directory into itself: " + Entry.Name);
    }
    std::error_code ec;
    static_cast<void>(fs::exists(Destination, ec));
    if (ec) {
        return Fail(ErrorMessage,
                    FailureOf("Failed checking destination", Destination.string(), ec));
    }
    return true;
}

/// Adds the item of `Entry` to `OutPlan`, or says why it cannot be planned.
bool PlanItem(const TavroOperationEntry& Entry, const TransferTarget& Target,
              TavroTransferPlan& OutPlan, std::string& ErrorMessage) {
    const bool bCddaSource = TavroIsCddaPath(Entry.Path);
    if (OutPlan.bMove && bCddaSource) {
        return Fail(ErrorMessage, "Audio CD tracks can be copied, but not moved.");
    }
    const fs::path destination = DestinationFor(Target, Entry, bCddaSource);
    if (!CheckDestination(Entry, destination, bCddaSource, OutPlan.bMove, ErrorMessage)) {
        return false;
    }
    TavroTransferItemPlan item;
    item.Name = Entry.Name;
    item.SourcePath = Entry.Path;
    item.DestinationPath = destination;
    item.bDirectory = Entry.bDirectory;
    OutPlan.Items.push_back(std::move(item));
    return true;
}

} // namespace

bool TavroBuildTransferPlan(const std::vector<TavroOperationEntry>& Entries,
                            const std::string& TargetText, const fs::path& BaseDirectory,
                            bool bMove, TavroTransferConflictPolicy ConflictPolicy,
                            TavroTransferPlan& OutPlan, std::string& ErrorMessage) {
    OutPlan = TavroTransferPlan();
    if (Entries.empty()) {
        return Fail(ErrorMessage,
                    bMove ? "Nothing selected to move." : "Nothing selected to copy.");
    }
    const std::string trimmed = TavroTrimText(TargetText);
    if (trimmed.empty()) {
        return Fail(ErrorMessage,
                    bMove ? "Move target cannot be empty." : "Copy target cannot be empty.");
    }
    const TransferTarget target = {TavroResolveUserPath(trimmed, BaseDirectory),
                                   Entries.size() == 1, TavroEndsWithPathSeparator(trimmed)};
    if (!EnsureTransferTargetDirectoryCompatibility(Entries, target.Path, ErrorMessage)) {
        // The capital letter that is left in the middle of this sentence is part of its text.
        ErrorMessage.insert(0, bMove ? "Move " : "Copy ");
        ErrorMessage[0] =
            static_cast<char>(std::toupper(static_cast<unsigned char>(ErrorMessage[0])));
        return false;
    }
    OutPlan.bMove = bMove;
    OutPlan.ConflictPolicy = ConflictPolicy;
    OutPlan.SourceLabel = "Tavro";
    for (const TavroOperationEntry& entry : Entries) {
        if (!PlanItem(entry, target, OutPlan, ErrorMessage)) {
            return false;
        }
    }
    return true;
}

// =================================================================================================
// Create, rename, delete
// =================================================================================================

bool TavroCreateDirectory(const std::string& TargetText, const fs::path& BaseDirectory,
                          std::string& OutSelectedPath, std::string& ErrorMessage) {
    OutSelectedPath.clear();
    const std::string trimmed = TavroTrimText(TargetText);
    if (trimmed.empty()) {
        return Fail(ErrorMessage, "Directory path cannot be empty.");
    }
    const fs::path targetPath = TavroResolveUserPath(trimmed, BaseDirectory);
    std::error_code ec;
    fs::create_directories(targetPath, ec);
    if (ec) {
        return Fail(ErrorMessage, "Failed to create directory: " + ec.message());
    }
    OutSelectedPath = TavroCanonicalizePath(targetPath.string());
    return true;
}

bool TavroRenameEntry(const TavroOperationEntry& Entry, const std::string& TargetText,
                      const fs::path& BaseDirectory, std::string& OutSelectedPath,
                      std::string& ErrorMessage) {
    OutSelectedPath.clear();
    if (Entry.Path.empty()) {
        return Fail(ErrorMessage, "Nothing selected to rename.");
    }
    if (TavroIsCddaPath(Entry.Path)) {
        return Fail(ErrorMessage, "Audio CD tracks cannot be renamed. Copy them to disk first.");
    }
    const std::string trimmed = TavroTrimText(TargetText);
    if (trimmed.empty()) {
        return Fail(ErrorMessage, "Rename target cannot be empty.");
    }
    fs::path targetPath = TavroResolveUserPath(trimmed, BaseDirectory);
    if (!targetPath.has_parent_path()) {
        targetPath = fs::path(Entry.Path).parent_path() / targetPath;
    }
    // Throws when the target cannot be examined. This test precedes the next: a directory renamed
    // to its own path is told that a name is missing.
    if (fs::is_directory(targetPath)) {
        return Fail(ErrorMessage, "Rename target must include a file or directory name.");
    }
    if (TavroPathsEquivalentOrSame(Entry.Path, targetPath)) {
        return Fail(ErrorMessage, "Rename target matches the current path.");
    }
    std::error_code ec;
    if (fs::exists(targetPath, ec)) {
        return Fail(ErrorMessage, "Rename target already exists.");
    }
    if (targetPath.has_parent_path()) {
        fs::create_directories(targetPath.parent_path(), ec);
        if (ec) {
            return Fail(ErrorMessage, "Failed to create rename target directory: " + ec.message());
        }
    }
    fs::rename(Entry.Path, targetPath, ec);
    if (ec) {
        return Fail(ErrorMessage, "Rename failed: " + ec.message());
    }
    OutSelectedPath = TavroCanonicalizePath(targetPath.string());
    return true;
}

bool TavroDeleteEntries(const std::vector<TavroOperationEntry>& Entries, bool bUseTrash,
                        std::string& ErrorMessage) {
    if (Entries.empty()) {
        return Fail(ErrorMessage, "Nothing selected to delete.");
    }
    if (bUseTrash) {
        std::vector<TavroTrashEntry> ignored;
        return TavroTrashEntries(Entries, ignored, ErrorMessage);
    }
    for (const TavroOperationEntry& entry : Entries) {
        // The flag alone decides: a directory flagged as a file is only removed when it is empty.
        std::error_code ec;
        if (entry.bDirectory) {
            fs::remove_all(entry.Path, ec);
        } else {
            fs::remove(entry.Path, ec);
        }
        if (ec) {
            return Fail(ErrorMessage, FailureOf("Delete failed for", entry.Name, ec));
        }
    }
    return true;
}

// =================================================================================================
// Moving
// =================================================================================================

namespace {

/// Copies a directory as a tree with its links kept, anything else as one file; never overwrites.
void CopyPreservingType(const fs::path& Source, const fs::path& Destination, bool bDirectory,
                        std::error_code& ec) {
    if (!bDirectory) {
        fs::copy_file(Source, Destination, ec);
        return;
    }
    try {
        fs::copy(Source, Destination, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
                 ec);
    } catch (const fs::filesystem_error& error) { // GCOVR_EXCL_BR_LINE: bad_alloc goes on
        // Its walk of a directory throws where reading on fails, error code or not.
        ec = error.code();
    }
}

/// Removes a directory with all its contents, anything else as one entry.
/// @return whether anything was removed; not to be asked when `ec` is set.
bool RemovePreservingType(const fs::path& Path, bool bDirectory, std::error_code& ec) {
    return bDirectory ? fs::remove_all(Path, ec) != 0 : fs::remove(Path, ec);
}

/// The regular file at `Destination` has the size of the file at `Source`.
bool FileArrivedWhole(const fs::path& Source, const fs::path& Destination) {
    std::error_code ec;
    const std::uintmax_t size = fs::file_size(Source, ec);
    if (ec || !fs::is_regular_file(fs::symlink_status(Destination, ec))) {
        return false;
    }
    // A size that cannot be had is reported as one that no file has.
    return fs::file_size(Destination, ec) == size;
}

/// Where the library's copy of `Source` to `Destination` lies: a file that meets a directory there
/// goes into it.
fs::path PlaceOfCopy(const fs::path& Source, const fs::path& Destination) {
    std::error_code ec;
    if (fs::is_directory(Destination, ec) && fs::is_regular_file(fs::symlink_status(Source, ec))) {
        return Destination / Source.filename();
    }
    return Destination;
}

/// Every regular file of the tree at `Source`, links not followed, arrived whole at `Destination`.
bool TreeArrivedWhole(const fs::path& Source, const fs::path& Destination) {
    std::error_code ec;
    const fs::file_status status = fs::symlink_status(Source, ec);
    if (fs::is_regular_file(status)) {
        return FileArrivedWhole(Source, Destination);
    }
    if (!fs::is_directory(status)) {
        return !ec;
    }
    fs::directory_iterator listing(Source, ec);
    for (const fs::directory_iterator end; !ec && listing != end; listing.increment(ec)) {
        const fs::path& item = listing->path();
        if (!TreeArrivedWhole(item, PlaceOfCopy(item, Destination / item.filename()))) {
            return false;
        }
    }
    return !ec;
}

/// The standard library's copy can report success on a full disk with a file cut short. The source
/// may be removed only when this says that all of it has arrived.
bool CopyIsWhole(const fs::path& Source, const fs::path& Destination, bool bDirectory) {
    return bDirectory ? TreeArrivedWhole(Source, Destination)
                      : FileArrivedWhole(Source, Destination);
}

/// Copies `Source` to `Destination` on another file system and removes it. A partial copy stays; a
/// whole copy whose source cannot be removed is discarded, so that the entry never exists twice.
bool MoveByCopying(const fs::path& Source, const fs::path& Destination, bool bDirectory,
                   std::string& ErrorMessage) {
    std::error_code ec;
    CopyPreservingType(Source, Destination, bDirectory, ec);
    const fs::path copy = PlaceOfCopy(Source, Destination);
    if (!ec && !CopyIsWhole(Source, copy, bDirectory)) {
        ec = std::make_error_code(std::errc::io_error);
    }
    if (ec) {
        return Fail(ErrorMessage, FailureOf("Failed to copy", Source.string(), ec));
    }
    if (RemovePreservingType(Source, bDirectory, ec) && !ec) {
        return true;
    }
    std::error_code cleanupEc;
    RemovePreservingType(copy, bDirectory, cleanupEc);
    std::string reason = "unknown error";
    if (ec) {
        reason = ec.message();
    }
    return Fail(ErrorMessage,
                "Failed to remove original '" + Source.string() + "' after copying: " + reason);
}

/// Moves one entry to the full path `Destination`, whose missing parents are created and stay.
/// `bDirectory` says what `Source` is; the disk is not asked.
bool MovePathPreservingType(const fs::path& Source, const fs::path& Destination, bool bDirectory,
                            std::string& ErrorMessage) {
    std::error_code ec;
    fs::create_directories(Destination.parent_path(), ec);
    if (ec) {
        return Fail(ErrorMessage, "Failed to create destination directory: " + ec.message());
    }
    fs::rename(Source, Destination, ec);
    if (!ec) {
        return true;
    }
    const bool bCrossDevice = ec.value() == EXDEV;
    if (!bCrossDevice) {
        return Fail(ErrorMessage, FailureOf("Failed to move", Source.string(), ec));
    }
    return MoveByCopying(Source, Destination, bDirectory, ErrorMessage);
}

} // namespace

// =================================================================================================
// Trash records
// =================================================================================================

namespace {

/// Bytes that a record's path keeps as they are, in every locale.
bool IsKeptInTrashInfoPath(char Byte) {
    return (Byte >= 'A' && Byte <= 'Z') || (Byte >= 'a' && Byte <= 'z') ||
           (Byte >= '0' && Byte <= '9') || Byte == '-' || Byte == '.' || Byte == '/' ||
           Byte == '_' || Byte == '~';
}

std::string PercentEncodeTrashInfoPath(const std::string& Path) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(Path.size());
    for (const char byte : Path) {
        if (IsKeptInTrashInfoPath(byte)) {
            encoded += byte;
            continue;
        }
        const auto value = static_cast<unsigned char>(byte);
        encoded += '%';
        encoded += digits[value / 16];
        encoded += digits[value % 16];
    }
    return encoded;
}

std::string TrashDeletionDate() {
    return LocalTimeText("%Y-%m-%dT%H:%M:%S");
}

/// Writes the record of `Entry`, replacing an old one. `ErrorMessage` may be null.
bool WriteTrashInfo(const TavroTrashEntry& Entry, std::string* ErrorMessage) {
    const auto failTo = [&](const char* Step) {
        if (ErrorMessage != nullptr) {
            *ErrorMessage =
                std::string("Failed to ") + Step + " trash metadata '" + Entry.InfoPath + "'.";
        }
        return false;
    };
    std::ofstream record(Entry.InfoPath, std::ios::binary | std::ios::trunc);
    if (!record.is_open()) {
        return failTo("create");
    }
    record << "[Trash Info]\n";
    record << "Path=" << PercentEncodeTrashInfoPath(Entry.OriginalPath) << '\n';
    record << "DeletionDate=" << TrashDeletionDate() << '\n';
    // What fails only when the buffer reaches the disk, at the close, is not seen.
    if (!record) {
        return failTo("write");
    }
    return true;
}

/// Removes the record of `Entry`, if it can be.
void RemoveTrashInfo(const TavroTrashEntry& Entry) {
    std::error_code ec;
    fs::remove(Entry.InfoPath, ec);
}

} // namespace

bool TavroWriteTrashInfoEntries(const std::vector<TavroTrashEntry>& Entries,
                                std::string& ErrorMessage) {
    std::size_t written = 0;
    while (written < Entries.size() && WriteTrashInfo(Entries[written], &ErrorMessage)) {
        ++written;
    }
    if (written == Entries.size()) {
        return true;
    }
    while (written > 0) {
        RemoveTrashInfo(Entries[--written]);
    }
    return false;
}

void TavroRemoveTrashInfoEntries(const std::vector<TavroTrashEntry>& Entries) {
    for (const TavroTrashEntry& entry : Entries) {
        RemoveTrashInfo(entry);
    }
}

// =================================================================================================
// Trashing, restoring, redoing
// =================================================================================================

namespace {

struct TrashFolders {
    fs::path Files; ///< Holds what was trashed.
    fs::path Info;  ///< Holds a record for each of them.
};

/// Finds the home trash and creates what is missing of it.
bool EnsureTrashFolders(TrashFolders& OutFolders, std::string& ErrorMessage) {
    const std::string home = TavroHomeDirectoryPath();
    if (home.empty()) {
        return Fail(ErrorMessage, "Trash is unavailable because HOME is not set.");
    }
    const fs::path trashRoot = fs::path(home) / ".local/share/Trash";
    OutFolders = {trashRoot / "files", trashRoot / "info"};
    std::error_code ec;
    fs::create_directories(OutFolders.Files, ec);
    if (ec) {
        return Fail(ErrorMessage, "Failed to create trash files directory: " + ec.message());
    }
    fs::create_directories(OutFolders.Info, ec);
    if (ec) {
        return Fail(ErrorMessage, "Failed to create trash info directory: " + ec.message());
    }
    return true;
}

/// The record of `Entry` for a place in the trash. `OriginalPath` follows the links that are there
/// at the time of the call.
TavroTrashEntry TrashEntryAt(const TavroOperationEntry& Entry, const fs::path& Destination,
                             const TrashFolders& Folders) {
    const std::string infoName = Destination.filename().string() + ".trashinfo";
    return {TavroCanonicalizePath(Entry.Path), Destination.string(),
            (Folders.Info / infoName).string(), Entry.bDirectory};
}

/// Moves one entry to the trash and writes its record; on failure it is back in its place.
bool MoveEntryToTrash(const TavroOperationEntry& Entry, TavroTrashEntry& OutEntry,
                      std::string& ErrorMessage) {
    TrashFolders folders;
    if (!EnsureTrashFolders(folders, ErrorMessage)) {
        return false;
    }
    const fs::path source(Entry.Path);
    const fs::path destination = MakeConflictFreePath(folders.Files / source.filename());
    // The move comes first and the record second, so no record names an item that is not there.
    if (!MovePathPreservingType(source, destination, Entry.bDirectory, ErrorMessage)) {
        return false;
    }
    OutEntry = TrashEntryAt(Entry, destination, folders);
    if (WriteTrashInfo(OutEntry, &ErrorMessage)) {
        return true;
    }
    RemoveTrashInfo(OutEntry);
    std::string rollbackError;
    if (!MovePathPreservingType(destination, source, Entry.bDirectory, rollbackError)) {
        AppendRollbackFailure(ErrorMessage, rollbackError);
    }
    return false;
}

/// Puts the entries of a batch that failed half-way back, and adds what went wrong with that.
void RestoreAfterFailure(const std::vector<TavroTrashEntry>& Trashed, std::string& ErrorMessage) {
    std::string rollbackError;
    if (!Trashed.empty() && !TavroRestoreTrashEntries(Trashed, rollbackError)) {
        AppendRollbackFailure(ErrorMessage, rollbackError);
    }
}

} // namespace

bool TavroTrashEntries(const std::vector<TavroOperationEntry>& Entries,
                       std::vector<TavroTrashEntry>& OutTrashEntries, std::string& ErrorMessage) {
    if (Entries.empty()) {
        return Fail(ErrorMessage, "Nothing selected to delete.");
    }
    OutTrashEntries.clear();
    OutTrashEntries.reserve(Entries.size());
    for (const TavroOperationEntry& entry : Entries) {
        TavroTrashEntry trashed;
        if (!MoveEntryToTrash(entry, trashed, ErrorMessage)) {
            RestoreAfterFailure(OutTrashEntries, ErrorMessage);
            OutTrashEntries.clear();
            return false;
        }
        OutTrashEntries.push_back(std::move(trashed));
    }
    return true;
}

bool TavroPrepareTrashEntries(const std::vector<TavroOperationEntry>& Entries,
                              std::vector<TavroTrashEntry>& OutTrashEntries,
                              std::string& ErrorMessage) {
    if (Entries.empty()) {
        return Fail(ErrorMessage, "Nothing selected to delete.");
    }
    TrashFolders folders;
    if (!EnsureTrashFolders(folders, ErrorMessage)) {
        return false;
    }
    OutTrashEntries.clear();
    OutTrashEntries.reserve(Entries.size());
    // Nothing is moved yet, so the disk does not show the names given out before in this call.
    std::unordered_set<std::string> claimed;
    for (const TavroOperationEntry& entry : Entries) {
        const fs::path source(entry.Path);
        fs::path destination = MakeConflictFreePath(folders.Files / source.filename());
        while (!claimed.insert(destination.string()).second) {
            destination = MakeConflictFreePath(destination.string() + " copy");
        }
        OutTrashEntries.push_back(TrashEntryAt(entry, destination, folders));
    }
    return true;
}

namespace {

/// Everything that is to be restored is there, and every place that it goes to is free.
bool CheckRestorable(const std::vector<TavroTrashEntry>& Entries, std::string& ErrorMessage) {
    for (const TavroTrashEntry& entry : Entries) {
        std::error_code ec;
        if (!fs::exists(entry.TrashPath, ec)) {
            return Fail(ErrorMessage, "Trash item is missing: " + entry.TrashPath);
        }
        const bool bExists = fs::exists(entry.OriginalPath, ec);
        // A place that cannot be examined is not known to be free.
        if (bExists || ec) {
            return Fail(ErrorMessage, "Restore target already exists: " + entry.OriginalPath);
        }
    }
    return true;
}

/// Moves one entry back to its place and drops its record.
bool RestoreEntry(const TavroTrashEntry& Entry, std::string& ErrorMessage) {
    if (!MovePathPreservingType(Entry.TrashPath, Entry.OriginalPath, Entry.bDirectory,
                                ErrorMessage)) {
        return false;
    }
    RemoveTrashInfo(Entry);
    return true;
}

/// Moves the first `Restored` entries back into the trash, the last of them first.
/// @return the first sentence of an entry that could not be moved; empty when all were.
std::string ReturnToTrash(const std::vector<TavroTrashEntry>& Entries, std::size_t Restored) {
    std::string rollbackError;
    while (Restored > 0) {
        const TavroTrashEntry& entry = Entries[--Restored];
        std::string moveError;
        if (MovePathPreservingType(entry.OriginalPath, entry.TrashPath, entry.bDirectory,
                                   moveError)) {
            WriteTrashInfo(entry, nullptr);
        } else if (rollbackError.empty()) {
            rollbackError = moveError;
        }
    }
    return rollbackError;
}

} // namespace

bool TavroRestoreTrashEntries(const std::vector<TavroTrashEntry>& Entries,
                              std::string& ErrorMessage) {
    if (Entries.empty()) {
        return Fail(ErrorMessage, "No trash entries are available to restore.");
    }
    if (!CheckRestorable(Entries, ErrorMessage)) {
        return false;
    }
    std::size_t restored = 0;
    while (restored < Entries.size() && RestoreEntry(Entries[restored], ErrorMessage)) {
        ++restored;
    }
    if (restored == Entries.size()) {
        return true;
    }
    const std::string rollbackError = ReturnToTrash(Entries, restored);
    if (!rollbackError.empty()) {
        AppendRollbackFailure(ErrorMessage, rollbackError);
    }
    return false;
}

bool TavroReapplyTrashEntries(std::vector<TavroTrashEntry>& Entries, std::string& ErrorMessage) {
    if (Entries.empty()) {
        return Fail(ErrorMessage, "No restored trash entries are available.");
    }
    std::vector<TavroOperationEntry> source;
    source.reserve(Entries.size());
    for (const TavroTrashEntry& entry : Entries) {
        const std::string name = fs::path(entry.OriginalPath).filename().string();
        source.push_back({name, entry.OriginalPath, entry.bDirectory});
    }
    std::vector<TavroTrashEntry> replacement;
    if (!TavroTrashEntries(source, replacement, ErrorMessage)) {
        return false;
    }
    Entries = std::move(replacement);
    return true;
}
