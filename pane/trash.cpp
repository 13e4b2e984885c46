// Trashing and restoring with the module's sharp edges guarded. The contracts stand in trash.h.
//
// In this file, in order: the folders of the trash; what must not be trashed; other file systems;
// names and records; the progress of a batch; trashing; restoring.

#include "trash.h"

#include "measure.h"
#include "no_replace.h"
#include "percent.h"
#include "selection.h"
#include "tavropane.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace fs = std::filesystem;

// =================================================================================================
// The folders of the trash
// =================================================================================================

namespace {

bool Fail(std::string& ErrorMessage, std::string Sentence) {
    ErrorMessage = std::move(Sentence);
    return false;
}

std::string TextOf(int Error) {
    return std::generic_category().message(Error);
}

std::string Quoted(const fs::path& Path) {
    return "'" + Path.string() + "'";
}

} // namespace

TavroTrashFolders TavroFindTrashFolders() {
    const std::string home = TavroHomeDirectoryPath();
    if (home.empty()) {
        return {};
    }
    const fs::path root = fs::path(home) / ".local/share/Trash";
    return {root, root / "files", root / "info"};
}

namespace {

/// The canonical paths of folders that were asked for; neighbours in a selection share them.
using FolderMemo = std::unordered_map<std::string, std::string>;

fs::path OwnPath(const std::string& Path, FolderMemo& Memo) {
    fs::path path = TavroSelectEntry(Path).Path;
    if (path == path.root_path()) {
        return path;
    }
    const std::string folder = path.parent_path().string();
    const auto [known, bNew] = Memo.try_emplace(folder);
    if (bNew) {
        known->second = TavroCanonicalizePath(folder);
    }
    return fs::path(known->second) / path.filename();
}

} // namespace

fs::path TavroFindOwnPath(const std::string& Path) {
    FolderMemo memo;
    return OwnPath(Path, memo);
}

namespace {

/// Sees that there is a folder at `Folder`.
/// @param bPrivate  a new folder is the user's alone; else it gets the mode of any new folder.
bool EnsureFolder(const fs::path& Folder, bool bPrivate, std::string& ErrorMessage) {
    if (mkdir(Folder.c_str(), bPrivate ? 0700 : 0777) == 0) {
        // The umask may have taken permissions of the user's own.
        if (!bPrivate || chmod(Folder.c_str(), 0700) == 0) {
            return true;
        }
        return Fail(ErrorMessage,
                    "Failed to make trash folder " + Quoted(Folder) + " private: " + TextOf(errno));
    }
    const int error = errno;
    std::error_code ec;
    if (fs::is_directory(Folder, ec)) {
        return true;
    }
    if (error == EEXIST) {
        return Fail(ErrorMessage, "The trash needs a folder where " + Quoted(Folder) + " is");
    }
    return Fail(ErrorMessage,
                "Failed to create trash folder " + Quoted(Folder) + ": " + TextOf(error));
}

} // namespace

bool TavroEnsurePrivateTrash(std::string& ErrorMessage) {
    const TavroTrashFolders folders = TavroFindTrashFolders();
    if (folders.Root.empty()) {
        return Fail(ErrorMessage, "Trash is unavailable because HOME is not set.");
    }
    const fs::path share = folders.Root.parent_path();
    const fs::path home = share.parent_path().parent_path();
    std::error_code ec;
    fs::create_directories(home, ec); // what fails here fails again one level below
    return EnsureFolder(share.parent_path(), false, ErrorMessage) &&
           EnsureFolder(share, false, ErrorMessage) &&
           EnsureFolder(folders.Root, true, ErrorMessage) &&
           EnsureFolder(folders.Files, true, ErrorMessage) &&
           EnsureFolder(folders.Info, true, ErrorMessage);
}

// =================================================================================================
// What must not be trashed
// =================================================================================================

namespace {

bool IsBelow(const std::string& Parent, const std::string& Child) {
    return Child.size() > Parent.size() && Child[Parent.size()] == '/' &&
           Child.compare(0, Parent.size(), Parent) == 0;
}

/// A place without which there is no home or no trash, by one of its paths.
struct GuardedPlace {
    std::string Path;
    std::string Label;
    bool bTrash = false; ///< What is below it is in the trash.
    struct stat Status = {};
};

/// Adds a place by each path that leads to it: as its text is, where it is itself, and what it
/// comes to when every link on the way is followed.
void AddGuardedPlace(const fs::path& Path, const std::string& Label, bool bTrash,
                     std::vector<GuardedPlace>& OutPlaces) {
    const std::string text = Path.string();
    for (const std::string& path :
         {text, TavroFindOwnPath(text).string(), TavroCanonicalizePath(text)}) {
        GuardedPlace place = {path, Label, bTrash, {}};
        if (lstat(path.c_str(), &place.Status) != 0) {
            place.Status = {};
        }
        OutPlaces.push_back(place);
    }
}

std::vector<GuardedPlace> FindGuardedPlaces() {
    std::vector<GuardedPlace> places;
    const TavroTrashFolders folders = TavroFindTrashFolders();
    const char* home = std::getenv("HOME");
    if (folders.Root.empty() || home == nullptr) {
        return places;
    }
    std::error_code ec;
    fs::path homePath = fs::absolute(home, ec).lexically_normal();
    if (!homePath.has_filename()) {
        homePath = homePath.parent_path();
    }
    AddGuardedPlace(homePath, "the home directory", false, places);
    AddGuardedPlace(folders.Root, "the trash", true, places);
    AddGuardedPlace(folders.Files, "a folder of the trash", true, places);
    AddGuardedPlace(folders.Info, "a folder of the trash", true, places);
    return places;
}

/// A directory can have several paths: by another mount of it, or where case does not count.
bool IsSameDirectory(const struct stat& A, const struct stat& B) {
    return S_ISDIR(A.st_mode) && A.st_dev == B.st_dev && A.st_ino == B.st_ino;
}

/// Why the entry at `Own` must not be trashed; empty when it may.
std::string ReasonAgainst(const std::string& Own, const std::vector<GuardedPlace>& Places) {
    struct stat status = {};
    if (TavroIsCddaPath(Own)) {
        return "it is an audio CD track";
    }
    if (lstat(Own.c_str(), &status) != 0) {
        return TextOf(errno);
    }
    if (Own == "/") {
        return "it is the root directory";
    }
    for (const GuardedPlace& place : Places) {
        if (Own == place.Path || IsSameDirectory(status, place.Status)) {
            return "it is " + place.Label;
        }
        if (IsBelow(Own, place.Path)) {
            return "it holds " + place.Label;
        }
    }
    const bool bInTrash = std::any_of(Places.begin(), Places.end(), [&](const GuardedPlace& place) {
        return place.bTrash && IsBelow(place.Path, Own);
    });
    return bInTrash ? "it is in the trash already" : "";
}

/// The selected folder that an entry lies in; empty when there is none.
std::string SelectedFolderAbove(const std::string& Own,
                                const std::unordered_set<std::string>& Selected) {
    for (fs::path above = fs::path(Own).parent_path(); above != above.root_path();
         above = above.parent_path()) {
        if (Selected.count(above.string()) != 0) {
            return above.string();
        }
    }
    return {};
}

bool RefuseToTrash(const TavroOperationEntry& Entry, const std::string& Reason,
                   std::string& ErrorMessage) {
    return Fail(ErrorMessage, "Cannot move " + Quoted(Entry.Path) + " to the trash: " + Reason);
}

} // namespace

bool TavroCheckTrashable(const std::vector<TavroOperationEntry>& Entries,
                         std::string& ErrorMessage) {
    const std::vector<GuardedPlace> places = FindGuardedPlaces();
    std::vector<std::string> owns;
    std::unordered_set<std::string> selected;
    FolderMemo memo;
    for (const TavroOperationEntry& entry : Entries) {
        owns.push_back(TavroIsCddaPath(entry.Path) ? entry.Path
                                                   : OwnPath(entry.Path, memo).string());
        const std::string reason = ReasonAgainst(owns.back(), places);
        if (!reason.empty()) {
            return RefuseToTrash(entry, reason, ErrorMessage);
        }
        if (!selected.insert(owns.back()).second) {
            return RefuseToTrash(entry, "it is selected twice", ErrorMessage);
        }
    }
    for (std::size_t i = 0; i < Entries.size(); ++i) {
        const std::string above = SelectedFolderAbove(owns[i], selected);
        if (!above.empty()) {
            return RefuseToTrash(Entries[i],
                                 "it is inside " + Quoted(above) + ", which is selected too",
                                 ErrorMessage);
        }
    }
    return true;
}

// =================================================================================================
// Other file systems
// =================================================================================================

namespace {

/// What a rename cannot leave.
struct Mount {
    std::uint64_t Device = 0;
    std::uint64_t Id = 0; ///< Of one file system there can be several mounts.
};

/// The mount of a folder; of one that is still to be made, where it will be.
Mount MountOf(fs::path Folder) {
    struct statx status = {};
    while (statx(AT_FDCWD, Folder.c_str(), 0, STATX_MNT_ID, &status) != 0) {
        if (!Folder.has_relative_path()) {
            return {};
        }
        Folder = Folder.parent_path();
    }
    const auto major = static_cast<std::uint64_t>(status.stx_dev_major);
    return {major << 32U | status.stx_dev_minor, status.stx_mnt_id};
}

bool IsSameMount(const Mount& A, const Mount& B) {
    return A.Device == B.Device && A.Id == B.Id;
}

/// A rename cannot bring what is in the folder `From` to the folder `To`.
bool IsOnOtherDevice(const fs::path& From, const fs::path& To) {
    return !IsSameMount(MountOf(From), MountOf(To));
}

} // namespace

std::vector<TavroOperationEntry>
TavroEntriesOnOtherDevices(const std::vector<TavroOperationEntry>& Entries) {
    std::vector<TavroOperationEntry> others;
    const TavroTrashFolders folders = TavroFindTrashFolders();
    if (folders.Files.empty()) {
        return others;
    }
    const Mount trash = MountOf(folders.Files);
    FolderMemo memo;
    for (const TavroOperationEntry& entry : Entries) {
        // The folder counts: an entry that is a mount itself can be neither renamed nor removed.
        if (!IsSameMount(MountOf(OwnPath(entry.Path, memo).parent_path()), trash)) {
            others.push_back(entry);
        }
    }
    return others;
}

// =================================================================================================
// Names and records
// =================================================================================================

namespace {

constexpr const char* recordSuffix = ".trashinfo";

/// The longest name in the trash that leaves room for its record's: 255 bytes less ".trashinfo".
constexpr std::size_t longestTrashName = 245;

void PlaceRecord(const TavroTrashFolders& Folders, const std::string& Name,
                 TavroTrashEntry& OutRecord) {
    OutRecord.TrashPath = (Folders.Files / Name).string();
    OutRecord.InfoPath = (Folders.Info / (Name + recordSuffix)).string();
}

bool IsTrashNameFree(const TavroTrashFolders& Folders, const std::string& Name) {
    return Name.size() <= longestTrashName && !TavroIsPresent(Folders.Files / Name) &&
           !TavroIsPresent(Folders.Info / (Name + recordSuffix));
}

/// The first `Room` bytes of a text at most, without a part of a UTF-8 sequence at the end.
std::string CutText(const std::string& Text, std::size_t Room) {
    if (Text.size() <= Room) {
        return Text;
    }
    const auto bits = [&](std::size_t at) { return static_cast<unsigned char>(Text[at]) & 0xC0U; };
    std::size_t end = Room;
    while (end > 0 && Room - end < 3 && bits(end) == 0x80U) {
        --end;
    }
    // Without the first byte of a sequence this is no UTF-8, and may be cut anywhere.
    return Text.substr(0, bits(end) == 0x80U || end == 0 ? Room : end);
}

/// A name with a suffix before its extension, cut to what the trash has room for.
std::string FittingName(const std::string& Name, const std::string& Suffix) {
    constexpr std::size_t longestCharacter = 4;
    std::string extension = fs::path(Name).extension().string();
    if (extension.size() + Suffix.size() + longestCharacter > longestTrashName) {
        extension.clear();
    }
    const std::string stem = Name.substr(0, Name.size() - extension.size());
    const std::size_t room = longestTrashName - Suffix.size() - extension.size();
    return CutText(stem, room) + Suffix + extension;
}

} // namespace

std::string TavroChooseTrashName(const TavroTrashFolders& Folders, const std::string& Name,
                                 const std::unordered_set<std::string>& Claimed) {
    std::string candidate = FittingName(Name, "");
    for (int i = 1; Claimed.count(candidate) != 0 || !IsTrashNameFree(Folders, candidate); ++i) {
        candidate = FittingName(Name, " copy " + std::to_string(i));
    }
    return candidate;
}

namespace {

/// The record at an entry's `InfoPath` has the size that the module gives it.
bool IsRecordWhole(const TavroTrashEntry& Entry) {
    static const std::string withoutPath =
        "[Trash Info]\nPath=\nDeletionDate=2024-03-05T14:07:09\n";
    std::error_code ec;
    const std::uintmax_t size = fs::file_size(Entry.InfoPath, ec);
    return !ec && size == withoutPath.size() + TavroPercentEncode(Entry.OriginalPath).size();
}

std::string UnwrittenRecord(const TavroTrashEntry& Entry) {
    return "Failed to write trash metadata '" + Entry.InfoPath + "'.";
}

} // namespace

namespace {

/// Creates an empty record that this process alone writes to.
///
/// @return 0 when it did; else the error, EEXIST when there is a record of that name already.
int ClaimRecord(const TavroTrashEntry& Entry) {
    const int descriptor =
        open(Entry.InfoPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (descriptor < 0) {
        return errno;
    }
    struct stat status = {};
    // The umask may have taken permissions of the user's own.
    if (fstat(descriptor, &status) == 0 && (status.st_mode & 0600U) != 0600U) {
        fchmod(descriptor, (status.st_mode & 07777U) | 0600U);
    }
    close(descriptor);
    return 0;
}

enum class RecordOutcome { Written, Taken, Failed };

/// @param ErrorMessage  set unless the record is written.
RecordOutcome WriteNewRecord(const TavroTrashEntry& Entry, std::string& ErrorMessage) {
    const int error = ClaimRecord(Entry);
    if (error != 0) {
        ErrorMessage = "Failed to create trash metadata '" + Entry.InfoPath + "'.";
        return error == EEXIST ? RecordOutcome::Taken : RecordOutcome::Failed;
    }
    if (TavroWriteTrashInfoEntries({Entry}, ErrorMessage)) {
        if (IsRecordWhole(Entry)) {
            return RecordOutcome::Written;
        }
        ErrorMessage = UnwrittenRecord(Entry);
    }
    TavroRemoveTrashInfoEntries({Entry});
    return RecordOutcome::Failed;
}

} // namespace

bool TavroWriteTrashRecord(const TavroTrashEntry& Entry, std::string& ErrorMessage) {
    return WriteNewRecord(Entry, ErrorMessage) == RecordOutcome::Written;
}

// =================================================================================================
// The progress of a batch
// =================================================================================================

namespace {

bool IsCancelled(const TavroTransferCallbacks& Callbacks) {
    return Callbacks.ShouldCancel && Callbacks.ShouldCancel();
}

/// What a failed move says when something was at its destination, be it since a moment ago.
bool SaysThatItIsTaken(const std::string& Sentence) {
    const std::string end = ": " + TextOf(EEXIST);
    return Sentence.size() >= end.size() &&
           Sentence.compare(Sentence.size() - end.size(), end.size(), end) == 0;
}

/// A move to where nothing is. Cancelling is asked about here too, for a move that is a mere
/// rename.
bool MoveUnlessCancelled(const fs::path& Source, const fs::path& Destination,
                         const TavroTransferCallbacks& Callbacks, std::string& ErrorMessage,
                         bool& OutCopyStays) {
    OutCopyStays = false;
    if (IsCancelled(Callbacks)) {
        return Fail(ErrorMessage, "Cancelled");
    }
    return TavroMoveEntry(Source, Destination, Callbacks, ErrorMessage, &OutCopyStays);
}

/// Makes one progress of that of single moves, in the order in which they were added.
class BatchProgress {
public:
    explicit BatchProgress(const TavroTransferCallbacks& Callbacks) : m_callbacks(Callbacks) {}

    /// Adds a move: a rename is one item of no bytes, a copy is measured.
    /// @return false when the measuring was cancelled.
    bool Add(const fs::path& Source, bool bCopied) {
        Share share = {1, 0};
        if (bCopied && m_callbacks.OnProgress) {
            TavroMeasurement measured;
            if (!TavroMeasureEntry(Source, m_callbacks.ShouldCancel, measured)) {
                return false;
            }
            share = {measured.FileCount + measured.DirectoryCount, measured.ByteCount};
        }
        m_shares.push_back(share);
        m_whole.ItemCount += share.Items;
        m_whole.ByteCount += share.Bytes;
        return true;
    }

    /// The callbacks for the move that comes next.
    TavroTransferCallbacks ForNextMove() {
        TavroTransferCallbacks callbacks;
        if (m_callbacks.ShouldCancel) {
            // The caller's own function, not a copy: it may count how often it is asked.
            callbacks.ShouldCancel = [this] { return m_callbacks.ShouldCancel(); };
        }
        if (m_callbacks.OnProgress) {
            callbacks.OnProgress = [this](const TavroTransferProgress& ofMove) { Tell(ofMove); };
        }
        return callbacks;
    }

    /// The move that came next is done.
    void EndMove() {
        m_whole.ItemsDone += m_shares[m_next].Items;
        m_whole.BytesDone += m_shares[m_next].Bytes;
        ++m_next;
        if (m_callbacks.OnProgress && m_next == m_shares.size()) {
            m_callbacks.OnProgress(m_whole);
        }
    }

private:
    struct Share {
        std::uint64_t Items;
        std::uint64_t Bytes;
    };

    /// Every single move tells its end; of a batch of thousands that is too often.
    void Tell(const TavroTransferProgress& OfMove) {
        const auto now = std::chrono::steady_clock::now();
        if (now - m_lastTold < std::chrono::milliseconds(50)) {
            return;
        }
        m_lastTold = now;
        TavroTransferProgress progress = m_whole;
        progress.ItemsDone += std::min(OfMove.ItemsDone, m_shares[m_next].Items);
        progress.BytesDone += std::min(OfMove.BytesDone, m_shares[m_next].Bytes);
        progress.CurrentPath = OfMove.CurrentPath;
        m_callbacks.OnProgress(progress);
    }

    const TavroTransferCallbacks& m_callbacks;
    std::vector<Share> m_shares;
    std::size_t m_next = 0;
    TavroTransferProgress m_whole; ///< With what the finished moves have done.
    std::chrono::steady_clock::time_point m_lastTold;
};

// =================================================================================================
// Trashing
// =================================================================================================

/// The selection by the entries' own places, with links kept as links.
std::vector<TavroOperationEntry> AtOwnPaths(const std::vector<TavroOperationEntry>& Entries) {
    std::vector<TavroOperationEntry> entries = TavroKeepLinks(Entries);
    FolderMemo memo;
    for (TavroOperationEntry& entry : entries) {
        const fs::path own = OwnPath(entry.Path, memo);
        entry.Name = own.filename().string();
        entry.Path = own.string();
    }
    return entries;
}

/// One entry on its way to the trash, and what this operation did with it so far: at the same path
/// in the trash there can be something of another process at any time.
struct Trashing {
    TavroTrashEntry Record;
    bool bInTrash = false; ///< It lies in the trash, whole or in part, and was brought by us.
    bool bRecorded = false;
};

/// Moves an entry back from the trash.
void PutBack(Trashing& Item, std::string& ErrorMessage) {
    std::string error;
    if (!TavroMoveEntry(Item.Record.TrashPath, Item.Record.OriginalPath, {}, error)) {
        ErrorMessage += " Rollback failed: " + error;
        return;
    }
    if (Item.bRecorded) {
        TavroRemoveTrashInfoEntries({Item.Record});
    }
    Item.bInTrash = Item.bRecorded = false;
}

/// Moves the first `Count` entries back from the trash, the last of them first.
void PutBack(std::vector<Trashing>& Items, std::size_t Count, std::string& ErrorMessage) {
    while (Count > 0) {
        PutBack(Items[--Count], ErrorMessage);
    }
}

/// Says of everything that was brought to the trash and is there after a failure where it is, and
/// sees that it has a record there.
void TellWhatIsLeftInTrash(const std::vector<Trashing>& Items, std::string& ErrorMessage) {
    for (const Trashing& item : Items) {
        const TavroTrashEntry& record = item.Record;
        if (!item.bInTrash || !TavroIsPresent(record.TrashPath)) {
            continue;
        }
        const bool bAlsoThere = TavroIsPresent(record.OriginalPath);
        ErrorMessage += (bAlsoThere ? "; of " : "; ") + Quoted(record.OriginalPath) +
                        (bAlsoThere ? " there is also " : " is now ") + Quoted(record.TrashPath);
        std::string ignored;
        TavroWriteTrashRecord(record, ignored);
    }
}

/// Gives the records that the module prepared what it does not: the links' own paths, and names
/// that are free for what is looked at itself and that leave room.
void CorrectPrepared(const std::vector<TavroOperationEntry>& Entries,
                     const TavroTrashFolders& Folders, std::vector<TavroTrashEntry>& Records) {
    std::unordered_set<std::string> claimed;
    for (std::size_t i = 0; i < Records.size(); ++i) {
        Records[i].OriginalPath = Entries[i].Path;
        std::string name = fs::path(Records[i].TrashPath).filename().string();
        if (claimed.count(name) != 0 || !IsTrashNameFree(Folders, name)) {
            name = TavroChooseTrashName(Folders, Entries[i].Name, claimed);
        }
        PlaceRecord(Folders, name, Records[i]);
        claimed.insert(std::move(name));
    }
}

/// How often another name is tried when other processes trash things of the same name.
constexpr int nameTries = 100;

/// The names that the entries of one selection are to have.
std::unordered_set<std::string> NamesOf(const std::vector<Trashing>& Items) {
    std::unordered_set<std::string> names;
    for (const Trashing& item : Items) {
        names.insert(fs::path(item.Record.TrashPath).filename().string());
    }
    return names;
}

/// Brings a selection to the trash, entry by entry.
class TrashOperation {
public:
    TrashOperation(const TavroTrashFolders& Folders, std::vector<Trashing>& Items,
                   const TavroTransferCallbacks& Callbacks)
        : m_folders(Folders), m_items(Items), m_progress(Callbacks), m_claimed(NamesOf(Items)) {}

    bool Run(std::string& ErrorMessage) {
        for (const Trashing& item : m_items) {
            const fs::path original = item.Record.OriginalPath;
            if (!m_progress.Add(original,
                                IsOnOtherDevice(original.parent_path(), m_folders.Files))) {
                return Fail(ErrorMessage, "Cancelled");
            }
        }
        for (std::size_t i = 0; i < m_items.size(); ++i) {
            if (!Bring(m_items[i], ErrorMessage) || !WriteRecord(m_items[i], ErrorMessage)) {
                PutBack(m_items, i, ErrorMessage);
                return false;
            }
            m_progress.EndMove();
        }
        return true;
    }

private:
    /// Another process took the name since it was chosen.
    void ChooseAnotherName(TavroTrashEntry& Record) {
        const std::string wanted = fs::path(Record.OriginalPath).filename().string();
        const std::string name = TavroChooseTrashName(m_folders, wanted, m_claimed);
        PlaceRecord(m_folders, name, Record);
        m_claimed.insert(name);
    }

    /// Moves one entry to a free place in the trash.
    bool Bring(Trashing& Item, std::string& ErrorMessage) {
        std::string error;
        bool bCopyStays = false;
        for (int i = 0; i < nameTries; ++i) {
            if (TavroIsPresent(Item.Record.InfoPath)) {
                ChooseAnotherName(Item.Record);
            }
            if (MoveUnlessCancelled(Item.Record.OriginalPath, Item.Record.TrashPath,
                                    m_progress.ForNextMove(), error, bCopyStays)) {
                Item.bInTrash = true;
                return true;
            }
            Item.bInTrash = bCopyStays;
            if (!SaysThatItIsTaken(error)) {
                break;
            }
            ChooseAnotherName(Item.Record);
        }
        return Fail(ErrorMessage, error);
    }

    /// Writes the record of an entry that is in the trash; on failure the entry is moved back.
    ///
    /// The record follows at once, and not after the whole batch, so that an interruption leaves
    /// one item at most without the path that it came from.
    bool WriteRecord(Trashing& Item, std::string& ErrorMessage) {
        std::string error;
        for (int i = 0; i < nameTries; ++i) {
            const RecordOutcome outcome = WriteNewRecord(Item.Record, error);
            Item.bRecorded = outcome == RecordOutcome::Written;
            if (Item.bRecorded) {
                return true;
            }
            if (outcome == RecordOutcome::Failed) {
                break;
            }
            const TavroTrashEntry old = Item.Record;
            std::error_code ec;
            ChooseAnotherName(Item.Record);
            TavroRenameNoReplace(old.TrashPath, Item.Record.TrashPath, ec);
            if (ec) {
                // It is where it was; when the new name was taken too, the next one is tried.
                PlaceRecord(m_folders, fs::path(old.TrashPath).filename().string(), Item.Record);
            }
        }
        ErrorMessage = error;
        PutBack(Item, ErrorMessage);
        return false;
    }

    const TavroTrashFolders& m_folders;
    std::vector<Trashing>& m_items;
    BatchProgress m_progress;
    std::unordered_set<std::string> m_claimed;
};

} // namespace

bool TavroTrashSelection(const std::vector<TavroOperationEntry>& Entries,
                         const TavroTransferCallbacks& Callbacks,
                         std::vector<TavroTrashEntry>& OutTrashEntries, std::string& ErrorMessage) {
    OutTrashEntries.clear();
    if (Entries.empty()) {
        return Fail(ErrorMessage, "Nothing selected to delete.");
    }
    if (!TavroCheckTrashable(Entries, ErrorMessage) || !TavroEnsurePrivateTrash(ErrorMessage)) {
        return false;
    }
    const TavroTrashFolders folders = TavroFindTrashFolders();
    const std::vector<TavroOperationEntry> entries = AtOwnPaths(Entries);
    std::vector<TavroTrashEntry> records;
    if (!TavroPrepareTrashEntries(entries, records, ErrorMessage)) {
        return false;
    }
    CorrectPrepared(entries, folders, records);
    std::vector<Trashing> items;
    items.reserve(records.size());
    for (TavroTrashEntry& record : records) {
        items.push_back({std::move(record)});
    }
    if (!TrashOperation(folders, items, Callbacks).Run(ErrorMessage)) {
        TellWhatIsLeftInTrash(items, ErrorMessage);
        return false;
    }
    for (Trashing& item : items) {
        OutTrashEntries.push_back(std::move(item.Record));
    }
    return true;
}

// =================================================================================================
// Restoring
// =================================================================================================

namespace {

/// An item that is there is to go to a place that is known and free.
bool CheckRestorable(const TavroTrashEntry& Entry, std::string& ErrorMessage) {
    if (!TavroIsPresent(Entry.TrashPath)) {
        return Fail(ErrorMessage, "Trash item is missing: " + Entry.TrashPath);
    }
    if (!fs::path(Entry.OriginalPath).is_absolute()) {
        return Fail(ErrorMessage,
                    "It is not known where " + Quoted(Entry.TrashPath) + " came from");
    }
    struct stat status = {};
    if (lstat(Entry.OriginalPath.c_str(), &status) == 0) {
        return Fail(ErrorMessage, "Restore target already exists: " + Entry.OriginalPath);
    }
    if (errno != ENOENT && errno != ENOTDIR) {
        return Fail(ErrorMessage, "Failed checking restore target " + Quoted(Entry.OriginalPath) +
                                      ": " + TextOf(errno));
    }
    return true;
}

/// An entry and its own path once it is back, which `OriginalPath` may spell otherwise.
struct Restoration {
    TavroTrashEntry Entry;
    std::string Place;
    bool bRestored = false; ///< This operation moved it to its original place, and it is there.
    bool bReturned = false; ///< It was restored, and is in the trash again, without its record.
    bool bInPart = false;   ///< It is in the trash and, in part at least, at its original place.
};

/// Checks every entry, and that no two of them are one or go to one place.
bool CheckRestoreList(const std::vector<TavroTrashEntry>& Entries,
                      std::vector<Restoration>& OutRestorations, std::string& ErrorMessage) {
    std::unordered_set<std::string> items;
    std::unordered_set<std::string> places;
    FolderMemo memo;
    for (const TavroTrashEntry& entry : Entries) {
        if (!CheckRestorable(entry, ErrorMessage)) {
            return false;
        }
        if (!items.insert(entry.TrashPath).second) {
            return Fail(ErrorMessage, "Trash item is listed twice: " + entry.TrashPath);
        }
        OutRestorations.push_back({});
        OutRestorations.back().Entry = entry;
        OutRestorations.back().Place = OwnPath(entry.OriginalPath, memo).string();
        if (!places.insert(OutRestorations.back().Place).second) {
            return Fail(ErrorMessage,
                        "Cannot restore two entries to one place: " + entry.OriginalPath);
        }
    }
    return true;
}

bool IsCopiedBack(const TavroTrashEntry& Entry) {
    return IsOnOtherDevice(fs::path(Entry.TrashPath).parent_path(),
                           fs::path(Entry.OriginalPath).parent_path());
}

/// Sorts folders before what goes into them.
void PutFoldersFirst(std::vector<Restoration>& Restorations) {
    std::stable_sort(Restorations.begin(), Restorations.end(),
                     [](const Restoration& a, const Restoration& b) { return a.Place < b.Place; });
}

/// Moves the first `Count` entries into the trash again, the last of them first.
void ReturnToTrash(std::vector<Restoration>& Restorations, std::size_t Count,
                   std::string& ErrorMessage) {
    while (Count > 0) {
        Restoration& restoration = Restorations[--Count];
        std::string error;
        if (TavroMoveEntry(restoration.Entry.OriginalPath, restoration.Entry.TrashPath, {},
                           error)) {
            restoration.bRestored = false;
            restoration.bReturned = true;
        } else {
            ErrorMessage += " Rollback failed: " + error;
        }
    }
}

bool Restore(std::vector<Restoration>& Restorations, const TavroTransferCallbacks& Callbacks,
             std::string& ErrorMessage) {
    BatchProgress progress(Callbacks);
    for (const Restoration& restoration : Restorations) {
        if (!progress.Add(restoration.Entry.TrashPath, IsCopiedBack(restoration.Entry))) {
            return Fail(ErrorMessage, "Cancelled");
        }
    }
    for (std::size_t i = 0; i < Restorations.size(); ++i) {
        const TavroTrashEntry& entry = Restorations[i].Entry;
        if (!MoveUnlessCancelled(entry.TrashPath, entry.OriginalPath, progress.ForNextMove(),
                                 ErrorMessage, Restorations[i].bInPart)) {
            ReturnToTrash(Restorations, i, ErrorMessage);
            return false;
        }
        Restorations[i].bRestored = true;
        TavroRemoveTrashInfoEntries({entry});
        progress.EndMove();
    }
    return true;
}

/// Says after a failure what is not in the trash as it was, and sees that what went back there has
/// a record.
void TellWhatIsLeftRestored(const std::vector<Restoration>& Restorations,
                            std::string& ErrorMessage) {
    for (const Restoration& restoration : Restorations) {
        const TavroTrashEntry& entry = restoration.Entry;
        if (restoration.bRestored && TavroIsPresent(entry.OriginalPath)) {
            ErrorMessage += "; " + Quoted(entry.OriginalPath) + " stays restored";
        }
        if (restoration.bInPart) {
            ErrorMessage +=
                "; of " + Quoted(entry.TrashPath) + " there is also " + Quoted(entry.OriginalPath);
        }
        std::string ignored;
        if (restoration.bReturned && !TavroWriteTrashRecord(entry, ignored)) {
            ErrorMessage += "; " + Quoted(entry.TrashPath) + " has no record now and came from " +
                            Quoted(entry.OriginalPath);
        }
    }
}

} // namespace

bool TavroRestoreSelection(const std::vector<TavroTrashEntry>& Entries,
                           const TavroTransferCallbacks& Callbacks, std::string& ErrorMessage) {
    if (Entries.empty()) {
        return Fail(ErrorMessage, "No trash entries are available to restore.");
    }
    std::vector<Restoration> restorations;
    if (!CheckRestoreList(Entries, restorations, ErrorMessage)) {
        return false;
    }
    PutFoldersFirst(restorations);
    if (!Restore(restorations, Callbacks, ErrorMessage)) {
        TellWhatIsLeftRestored(restorations, ErrorMessage);
        return false;
    }
    return true;
}
