/// The undo history: what was done, kept in a file from one run to the next.

#ifndef TAVRO_PANE_HISTORY_H
#define TAVRO_PANE_HISTORY_H

#include "tavroops.h"
#include "transfer.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

enum class TavroHistoryKind {
    Trash,           ///< Undone by a restore, redone by trashing again.
    Rename,          ///< Undone by renaming back.
    Move,            ///< Undone by moving back.
    Copy,            ///< Undone by trashing what was copied, redone by restoring that.
    CreateDirectory, ///< Undone by removing the directories, only when they are empty.
};

/// From here to there. For a created directory, `To` alone. Paths are absolute.
struct TavroHistoryStep {
    std::string From;
    std::string To;
};

/// One operation that can be undone.
struct TavroHistoryOperation {
    TavroHistoryKind Kind = TavroHistoryKind::Trash;

    /// When it was done, in seconds since 1970.
    std::int64_t Time = 0;

    /// What was renamed, moved, copied or created, in the order in which it was done; outer
    /// directories before inner ones, whose paths begin with theirs. Empty for Trash.
    std::vector<TavroHistoryStep> Steps;

    /// What is in the trash because of it: the entries of Trash while it is done, the copies of
    /// Copy while it is undone.
    std::vector<TavroTrashEntry> TrashEntries;

    /// What a merging move has emptied and removed, inner folders before outer ones: an undo
    /// creates them again, a redo removes them again when they are empty.
    std::vector<TavroRemovedFolder> RemovedFolders = {};
};

/// What can be undone, and what can be redone; in both, the next to come last.
struct TavroHistoryLists {
    std::vector<TavroHistoryOperation> Undoable;
    std::vector<TavroHistoryOperation> Redoable;
};

/// The history file of this user: `tavro/history.json` below `XDG_STATE_HOME` (when that is set and
/// absolute) or else below `HOME/.local/state`. Empty when there is neither.
std::filesystem::path TavroHistoryPath();

/// The history, opened and locked.
///
/// The file is JSON. Paths stand in it percent-encoded, so names of any bytes survive. It holds the
/// newest 200 operations. It is replaced as a whole, by a rename, after it was written and synced,
/// so it can be read at every moment. From Open to its destruction other processes that open the
/// same history wait, and so would this one.
///
/// Sentences are without a full stop. Not to be used from several threads at once.
class TavroHistory {
public:
    TavroHistory() = default;
    ~TavroHistory();
    TavroHistory(const TavroHistory&) = delete;
    TavroHistory& operator=(const TavroHistory&) = delete;

    /// Locks and reads the file; a missing one is an empty history, and missing folders are created
    /// (mode 0700). A file that cannot be understood is set aside under the name
    /// `history.json.damaged-N` (the first free N from 1) and the history starts empty. What was
    /// open before is closed first.
    ///
    /// @param File      where the history is kept; usually TavroHistoryPath().
    /// @param Patience  so long no signal ends the wait for the lock: what is done already wants to
    ///                  be recorded. With none, the first signal does.
    /// @return true when the history can be used; false with a sentence: the path is empty, a
    ///         folder cannot be created, the file cannot be locked, read or set aside, or a signal
    ///         whose handler does not restart calls ended the wait for the lock.
    bool Open(const std::filesystem::path& File, std::string& ErrorMessage,
              std::chrono::seconds Patience = std::chrono::seconds(0));

    /// After Open: one sentence when a damaged file was set aside, naming it; else empty.
    const std::string& Notice() const;

    /// What can be undone, and redone, the next to come last.
    const std::vector<TavroHistoryOperation>& Undoable() const;
    const std::vector<TavroHistoryOperation>& Redoable() const;

    /// Adds what was just done, and saves. What could be redone is dropped.
    ///
    /// @param Operation  with something to undo, all paths absolute. Steps whose `To` is taken by a
    ///                   later step do not belong in it: such an operation cannot be undone.
    /// @return true when it is saved; false with a sentence: the history is unchanged.
    bool Record(TavroHistoryOperation Operation, std::string& ErrorMessage);

    /// Undoes (redoes) the newest operation and saves the history. All is checked before anything
    /// is moved, that the history can be saved included, and what was changed is changed back when
    /// a later step fails. Folders that are missing are created, with the modes of those that the
    /// operation has removed, and otherwise for the user alone: they may have been private.
    ///
    /// @param Callbacks     progress and cancel for what goes between file systems. A cancelled
    ///                      undo is changed back as well.
    /// @param OutOperation  the operation that was undone (redone), as it is kept now. Untouched
    ///                      when nothing was done.
    /// @param ErrorMessage  set on failure only: a sentence that names what is in the way;
    ///                      "Nothing to undo", "Nothing to redo"; "Cancelled".
    /// @return true when it was undone; false when not: disk and history are unchanged then, so
    ///         that it can be tried again. Two failures are different. What could not be moved back
    ///         is told at the end of the sentence, after "; moving back failed: ". And when all
    ///         went well but the save that followed, the sentence begins with "It is undone" ("It
    ///         is redone"): the file still has the history from before, while Undoable and Redoable
    ///         tell what holds, and the next success saves it.
    bool Undo(const TavroTransferCallbacks& Callbacks, TavroHistoryOperation& OutOperation,
              std::string& ErrorMessage);
    bool Redo(const TavroTransferCallbacks& Callbacks, TavroHistoryOperation& OutOperation,
              std::string& ErrorMessage);

    /// Takes the newest operation that can be undone off the history, and saves; no file of the
    /// user is touched. For one that cannot be undone any more and is in the way of older ones.
    ///
    /// @param OutOperation  the operation that was dropped. Untouched after a failure.
    /// @return true when it is saved; false with a sentence, "Nothing to drop" among them: the
    ///         history is unchanged.
    bool DropNewest(TavroHistoryOperation& OutOperation, std::string& ErrorMessage);

private:
    bool CheckOpen(std::string& ErrorMessage) const;
    void Close();

    std::filesystem::path m_file;
    int m_lock = -1; // while it is not -1, the history is open
    std::string m_notice;
    TavroHistoryLists m_lists;
};

#endif
