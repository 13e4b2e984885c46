#include "history.h"

#include "history_file.h"
#include "selection.h"
#include "trash.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

fs::path TavroHistoryPath() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') {
        return fs::path(state) / "tavro/history.json";
    }
    const std::string home = TavroHomeDirectoryPath();
    return home.empty() ? fs::path() : fs::path(home) / ".local/state/tavro/history.json";
}

// ---------------------------------------------------------------------------------------------
// Opening and recording
// ---------------------------------------------------------------------------------------------

TavroHistory::~TavroHistory() {
    Close();
}

void TavroHistory::Close() {
    if (m_lock >= 0) {
        close(m_lock);
    }
    m_lock = -1;
    m_notice.clear();
    m_lists = {};
}

bool TavroHistory::Open(const fs::path& File, std::string& ErrorMessage,
                        std::chrono::seconds Patience) {
    Close();
    if (File.empty()) {
        ErrorMessage = "There is no place for the history: HOME is not set";
        return false;
    }
    std::error_code ec;
    m_file = fs::absolute(File, ec); // the current directory may change before the next save
    if (TavroLockHistory(m_file, Patience, m_lock, ErrorMessage) &&
        TavroReadHistory(m_file, m_lists, m_notice, ErrorMessage)) {
        return true;
    }
    Close();
    return false;
}

const std::string& TavroHistory::Notice() const {
    return m_notice;
}

const std::vector<TavroHistoryOperation>& TavroHistory::Undoable() const {
    return m_lists.Undoable;
}

const std::vector<TavroHistoryOperation>& TavroHistory::Redoable() const {
    return m_lists.Redoable;
}

bool TavroHistory::CheckOpen(std::string& ErrorMessage) const {
    if (m_lock < 0) {
        ErrorMessage = "The history is not open";
    }
    return m_lock >= 0;
}

bool TavroHistory::Record(TavroHistoryOperation Operation, std::string& ErrorMessage) {
    constexpr std::size_t maximumCount = 200;
    if (!CheckOpen(ErrorMessage)) {
        return false;
    }
    if (!TavroIsRecordable(Operation)) {
        ErrorMessage = "Only what has something to undo, at absolute paths, can be recorded";
        return false;
    }
    TavroHistoryLists lists = {m_lists.Undoable, {}};
    lists.Undoable.push_back(std::move(Operation));
    if (lists.Undoable.size() > maximumCount) {
        lists.Undoable.erase(lists.Undoable.begin(), lists.Undoable.end() - maximumCount);
    }
    if (!TavroWriteHistory(m_file, lists, ErrorMessage)) {
        return false;
    }
    m_lists = std::move(lists);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Places
// ---------------------------------------------------------------------------------------------

namespace {

/// Refuses unless something is at `Path`, or unless nothing is. A dangling link is something. A
/// place that cannot be looked at is refused either way.
bool CheckPlace(const fs::path& Path, bool bTaken, std::string& ErrorMessage) {
    std::error_code ec;
    const fs::file_status status = fs::symlink_status(Path, ec);
    if (!fs::status_known(status)) {
        ErrorMessage = "Cannot look at '" + Path.string() + "': " + ec.message();
        return false;
    }
    if (fs::exists(status) != bTaken) {
        ErrorMessage = "'" + Path.string() + (bTaken ? "' is missing" : "' is in the way");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Renamed and moved entries
// ---------------------------------------------------------------------------------------------

/// Folders; a parent comes before what is in it.
using FolderSet = std::set<fs::path>;

std::string FolderSentence(const char* Act, const fs::path& Path, const std::string& Reason) {
    return std::string(Act) + " the folder '" + Path.string() + "': " + Reason;
}

/// Refuses unless a folder is there, or can be created.
bool CheckFolder(fs::path Folder, std::string& ErrorMessage) {
    while (!TavroIsPresent(Folder) && Folder.has_relative_path()) {
        Folder = Folder.parent_path();
    }
    std::error_code ec;
    if (!fs::is_directory(Folder, ec)) {
        ErrorMessage = "'" + Folder.string() + "' is in the way";
        return false;
    }
    return true;
}

/// Creates a folder that is missing, and those above it, for the user alone.
bool CreateMissing(const fs::path& Path, FolderSet& Created, std::string& ErrorMessage) {
    if (TavroIsPresent(Path) || !Path.has_relative_path()) {
        return true;
    }
    if (!CreateMissing(Path.parent_path(), Created, ErrorMessage)) {
        return false;
    }
    if (mkdir(Path.c_str(), S_IRWXU) != 0) {
        const std::error_code ec(errno, std::generic_category());
        ErrorMessage = FolderSentence("Cannot create", Path, ec.message());
        return false;
    }
    Created.insert(Path);
    return true;
}

bool CheckSteps(const std::vector<TavroHistoryStep>& Steps, std::string& ErrorMessage) {
    for (const TavroHistoryStep& step : Steps) {
        if (!CheckPlace(step.From, true, ErrorMessage) ||
            !CheckPlace(step.To, false, ErrorMessage) ||
            !CheckFolder(fs::path(step.To).parent_path(), ErrorMessage)) {
            return false;
        }
    }
    return true;
}

/// Moves the first `Count` steps back, the last first, even when the user cancels: that may be why.
bool MoveStepsBack(const std::vector<TavroHistoryStep>& Steps, std::size_t Count,
                   std::string& ErrorMessage) {
    std::string firstError;
    for (std::size_t i = Count; i > 0; --i) {
        std::string error;
        if (!TavroMoveEntry(Steps[i - 1].To, Steps[i - 1].From, {}, error) && firstError.empty()) {
            firstError = error;
        }
    }
    if (!firstError.empty()) {
        ErrorMessage += "; moving back failed: " + firstError;
    }
    return firstError.empty();
}

/// Asks before what may be a plain rename too: there can be many of them.
bool MoveStep(const TavroHistoryStep& Step, const TavroTransferCallbacks& Callbacks,
              FolderSet& Created, std::string& ErrorMessage) {
    if (Callbacks.ShouldCancel && Callbacks.ShouldCancel()) {
        ErrorMessage = "Cancelled";
        return false;
    }
    return CreateMissing(fs::path(Step.To).parent_path(), Created, ErrorMessage) &&
           TavroMoveEntry(Step.From, Step.To, Callbacks, ErrorMessage);
}

using RemovedFolders = std::vector<TavroRemovedFolder>;

/// All steps, after which all of `Folders` are there again; or none.
bool MoveSteps(const std::vector<TavroHistoryStep>& Steps, const RemovedFolders& Folders,
               const TavroTransferCallbacks& Callbacks, std::string& ErrorMessage) {
    const auto check = [&](const TavroRemovedFolder& Folder) {
        return CheckFolder(Folder.Path, ErrorMessage);
    };
    if (!CheckSteps(Steps, ErrorMessage) || !std::all_of(Folders.begin(), Folders.end(), check)) {
        return false;
    }
    FolderSet created;
    std::size_t moved = 0;
    while (moved < Steps.size() && MoveStep(Steps[moved], Callbacks, created, ErrorMessage)) {
        ++moved;
    }
    const auto create = [&](const TavroRemovedFolder& Folder) {
        return CreateMissing(Folder.Path, created, ErrorMessage);
    };
    if (moved == Steps.size() && std::all_of(Folders.begin(), Folders.end(), create)) {
        // Only now: their modes may forbid to put anything into them.
        for (const TavroRemovedFolder& folder : Folders) {
            if (created.count(folder.Path) != 0) {
                chmod(folder.Path.c_str(), folder.Mode);
            }
        }
        return true;
    }
    if (MoveStepsBack(Steps, moved, ErrorMessage)) {
        for (auto folder = created.rbegin(); folder != created.rend(); ++folder) {
            rmdir(folder->c_str());
        }
    }
    return false;
}

/// Moves again, and removes again what that has emptied.
bool MoveAgain(const TavroHistoryOperation& Operation, const TavroTransferCallbacks& Callbacks,
               std::string& ErrorMessage) {
    if (!MoveSteps(Operation.Steps, {}, Callbacks, ErrorMessage)) {
        return false;
    }
    for (const TavroRemovedFolder& folder : Operation.RemovedFolders) {
        rmdir(folder.Path.c_str()); // one that holds something stays
    }
    return true;
}

std::vector<TavroHistoryStep> Reversed(const std::vector<TavroHistoryStep>& Steps) {
    std::vector<TavroHistoryStep> reversed;
    for (auto step = Steps.rbegin(); step != Steps.rend(); ++step) {
        reversed.push_back({step->To, step->From});
    }
    return reversed;
}

// ---------------------------------------------------------------------------------------------
// Trashed entries and copies
// ---------------------------------------------------------------------------------------------

bool TrashPaths(const std::vector<std::string>& Paths, const TavroTransferCallbacks& Callbacks,
                std::vector<TavroTrashEntry>& OutTrashEntries, std::string& ErrorMessage) {
    std::vector<TavroOperationEntry> entries;
    for (const std::string& path : Paths) {
        if (!CheckPlace(path, true, ErrorMessage)) {
            return false;
        }
        entries.push_back(TavroSelectEntry(path));
    }
    std::vector<TavroTrashEntry> trashed;
    if (!TavroTrashSelection(entries, Callbacks, trashed, ErrorMessage)) {
        return false;
    }
    OutTrashEntries = std::move(trashed);
    return true;
}

bool TrashAgain(TavroHistoryOperation& Operation, const TavroTransferCallbacks& Callbacks,
                std::string& ErrorMessage) {
    std::vector<std::string> paths;
    for (const TavroTrashEntry& entry : Operation.TrashEntries) {
        paths.push_back(entry.OriginalPath);
    }
    return TrashPaths(paths, Callbacks, Operation.TrashEntries, ErrorMessage);
}

/// Whether one of `Paths` is a folder above `Path`.
bool IsBelowAny(const fs::path& Path, const FolderSet& Paths) {
    for (fs::path parent = Path.parent_path(); parent.has_relative_path();
         parent = parent.parent_path()) {
        if (Paths.count(parent) != 0) {
            return true;
        }
    }
    return false;
}

/// What was copied into a copied folder goes to the trash with that folder.
std::vector<std::string> OutermostTargets(const std::vector<TavroHistoryStep>& Steps) {
    FolderSet targets;
    for (const TavroHistoryStep& step : Steps) {
        targets.insert(step.To);
    }
    std::vector<std::string> outermost;
    for (const fs::path& target : targets) {
        if (!IsBelowAny(target, targets)) {
            outermost.push_back(target.string());
        }
    }
    return outermost;
}

bool RestoreCopies(TavroHistoryOperation& Operation, const TavroTransferCallbacks& Callbacks,
                   std::string& ErrorMessage) {
    if (!TavroRestoreSelection(Operation.TrashEntries, Callbacks, ErrorMessage)) {
        return false;
    }
    Operation.TrashEntries.clear();
    return true;
}

// ---------------------------------------------------------------------------------------------
// Created directories
// ---------------------------------------------------------------------------------------------

/// A directory, and the mode to create it with.
struct Folder {
    fs::path Path;
    mode_t Mode = 0777;
};

/// All folders, in order, or none.
bool CreateFolders(const std::vector<Folder>& Folders, std::string& ErrorMessage) {
    std::size_t created = 0;
    while (created < Folders.size() &&
           mkdir(Folders[created].Path.c_str(), Folders[created].Mode) == 0) {
        ++created;
    }
    if (created == Folders.size()) {
        return true;
    }
    const std::error_code ec(errno, std::generic_category());
    ErrorMessage = FolderSentence("Cannot create", Folders[created].Path, ec.message());
    while (created > 0) {
        rmdir(Folders[--created].Path.c_str());
    }
    return false;
}

/// All folders, the last first, or none. Never anything in them.
bool RemoveFolders(const std::vector<Folder>& Folders, std::string& ErrorMessage) {
    std::size_t kept = Folders.size();
    while (kept > 0 && rmdir(Folders[kept - 1].Path.c_str()) == 0) {
        --kept;
    }
    if (kept == 0) {
        return true;
    }
    const std::error_code ec(errno, std::generic_category());
    ErrorMessage = FolderSentence("Cannot remove", Folders[kept - 1].Path, ec.message());
    for (; kept < Folders.size(); ++kept) {
        mkdir(Folders[kept].Path.c_str(), Folders[kept].Mode);
        chmod(Folders[kept].Path.c_str(), Folders[kept].Mode); // whatever the umask is by now
    }
    return false;
}

bool CheckEmptyBut(const FolderSet& Expected, const fs::path& Path, std::string& ErrorMessage) {
    std::error_code ec;
    fs::directory_iterator item(Path, ec);
    for (const fs::directory_iterator end; item != end; item.increment(ec)) {
        if (Expected.count(item->path()) == 0) {
            ErrorMessage = "The folder '" + Path.string() + "' is not empty";
            return false;
        }
    }
    if (ec) {
        ErrorMessage = FolderSentence("Cannot read", Path, ec.message());
    }
    return !ec;
}

bool RemoveCreated(const std::vector<TavroHistoryStep>& Steps, std::string& ErrorMessage) {
    FolderSet created;
    for (const TavroHistoryStep& step : Steps) {
        created.insert(step.To);
    }
    std::vector<Folder> folders;
    for (const TavroHistoryStep& step : Steps) {
        struct stat status = {};
        if (!CheckPlace(step.To, true, ErrorMessage)) {
            return false;
        }
        if (lstat(step.To.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            ErrorMessage = "'" + step.To + "' is not a folder any more";
            return false;
        }
        if (!CheckEmptyBut(created, step.To, ErrorMessage)) {
            return false;
        }
        folders.push_back({step.To, status.st_mode & 07777U});
    }
    return RemoveFolders(folders, ErrorMessage);
}

bool CreateAgain(const std::vector<TavroHistoryStep>& Steps, std::string& ErrorMessage) {
    std::vector<Folder> folders;
    for (const TavroHistoryStep& step : Steps) {
        if (!CheckPlace(step.To, false, ErrorMessage)) {
            return false;
        }
        folders.push_back({step.To});
    }
    return CreateFolders(folders, ErrorMessage);
}

// ---------------------------------------------------------------------------------------------
// Undo and redo
// ---------------------------------------------------------------------------------------------

/// Undoes on disk, and lets the operation tell what is in the trash for it now.
bool UndoOperation(TavroHistoryOperation& Operation, const TavroTransferCallbacks& Callbacks,
                   std::string& ErrorMessage) {
    switch (Operation.Kind) {
    case TavroHistoryKind::Trash:
        return TavroRestoreSelection(Operation.TrashEntries, Callbacks, ErrorMessage);
    case TavroHistoryKind::Rename:
    case TavroHistoryKind::Move:
        return MoveSteps(Reversed(Operation.Steps), Operation.RemovedFolders, Callbacks,
                         ErrorMessage);
    case TavroHistoryKind::Copy:
        return TrashPaths(OutermostTargets(Operation.Steps), Callbacks, Operation.TrashEntries,
                          ErrorMessage);
    case TavroHistoryKind::CreateDirectory:
        return RemoveCreated(Operation.Steps, ErrorMessage);
    }
    return false;
}

bool RedoOperation(TavroHistoryOperation& Operation, const TavroTransferCallbacks& Callbacks,
                   std::string& ErrorMessage) {
    switch (Operation.Kind) {
    case TavroHistoryKind::Trash:
        return TrashAgain(Operation, Callbacks, ErrorMessage);
    case TavroHistoryKind::Rename:
    case TavroHistoryKind::Move:
        return MoveAgain(Operation, Callbacks, ErrorMessage);
    case TavroHistoryKind::Copy:
        return RestoreCopies(Operation, Callbacks, ErrorMessage);
    case TavroHistoryKind::CreateDirectory:
        return CreateAgain(Operation.Steps, ErrorMessage);
    }
    return false;
}

struct Direction {
    std::vector<TavroHistoryOperation> TavroHistoryLists::*From;
    std::vector<TavroHistoryOperation> TavroHistoryLists::*To;
    bool (*CarryOut)(TavroHistoryOperation&, const TavroTransferCallbacks&, std::string&);
    const char* NothingThere;
    const char* NotSaved;
};

constexpr Direction undo = {&TavroHistoryLists::Undoable, &TavroHistoryLists::Redoable,
                            UndoOperation, "Nothing to undo",
                            "It is undone, but the saved history still has it as done: "};
constexpr Direction redo = {&TavroHistoryLists::Redoable, &TavroHistoryLists::Undoable,
                            RedoOperation, "Nothing to redo",
                            "It is redone, but the saved history still has it as undone: "};

bool Go(const Direction& Way, const fs::path& File, TavroHistoryLists& Lists,
        const TavroTransferCallbacks& Callbacks, TavroHistoryOperation& OutOperation,
        std::string& ErrorMessage) {
    std::vector<TavroHistoryOperation>& from = Lists.*Way.From;
    if (from.empty()) {
        ErrorMessage = Way.NothingThere;
        return false;
    }
    TavroHistoryOperation operation = from.back();
    if (!TavroTryWritingHistory(File, Lists, ErrorMessage) ||
        !Way.CarryOut(operation, Callbacks, ErrorMessage)) {
        return false;
    }
    OutOperation = operation;
    from.pop_back();
    (Lists.*Way.To).push_back(std::move(operation));
    std::string saveError;
    if (!TavroWriteHistory(File, Lists, saveError)) {
        ErrorMessage = Way.NotSaved + saveError;
        return false;
    }
    return true;
}

} // namespace

bool TavroHistory::Undo(const TavroTransferCallbacks& Callbacks,
                        TavroHistoryOperation& OutOperation, std::string& ErrorMessage) {
    return CheckOpen(ErrorMessage) &&
           Go(undo, m_file, m_lists, Callbacks, OutOperation, ErrorMessage);
}

bool TavroHistory::Redo(const TavroTransferCallbacks& Callbacks,
                        TavroHistoryOperation& OutOperation, std::string& ErrorMessage) {
    return CheckOpen(ErrorMessage) &&
           Go(redo, m_file, m_lists, Callbacks, OutOperation, ErrorMessage);
}

bool TavroHistory::DropNewest(TavroHistoryOperation& OutOperation, std::string& ErrorMessage) {
    if (!CheckOpen(ErrorMessage)) {
        return false;
    }
    if (m_lists.Undoable.empty()) {
        ErrorMessage = "Nothing to drop";
        return false;
    }
    TavroHistoryLists lists = m_lists;
    lists.Undoable.pop_back();
    if (!TavroWriteHistory(m_file, lists, ErrorMessage)) {
        return false;
    }
    OutOperation = m_lists.Undoable.back();
    m_lists = std::move(lists);
    return true;
}
