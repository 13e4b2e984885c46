/// The undo history: what was done, kept in a database from one run to the next.

#ifndef TAVRO_ENGINE_HISTORY_H
#define TAVRO_ENGINE_HISTORY_H

#include "failure.h"
#include "identity.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

enum class TavroOperationKind {
    Trash,           ///< Undone by a restore, redone by trashing again.
    Rename,          ///< Undone by renaming back.
    Move,            ///< Undone by moving back.
    Copy,            ///< Undone by trashing what was copied, redone by restoring that.
    CreateDirectory, ///< Undone by removing the directories, only when they are empty.
};

enum class TavroOperationState {
    Done,   ///< Can be undone.
    Undone, ///< Can be redone.
};

/// What one step of an operation did.
enum class TavroStepRole {
    Moved,            ///< `From` went to `To`.
    Copied,           ///< `From` was copied to `To`.
    Trashed,          ///< `From` lies in the trash at `To`, with its record at `Record`.
    CreatedDirectory, ///< `To` was created.
    RemovedDirectory, ///< `From` was emptied by a merging move and removed; it had the mode `Mode`.
};

/// One thing that an operation did. Paths are absolute, of any bytes but zero.
struct TavroStep {
    TavroStepRole Role = TavroStepRole::Moved;
    std::string From;
    std::string To;
    std::string Record;
    TavroIdentity Identity;      ///< The file at `To`. An inode of 0: not known.
    std::int64_t ChangeTime = 0; ///< Of that file when the operation ended, in nanoseconds.
    std::uint32_t Mode = 0;
    bool bDirectory = false; ///< As the trash record of a Trashed step has it.
};

/// One operation.
struct TavroOperation {
    std::int64_t Id = 0; ///< Given by the history; grows with time.
    TavroOperationKind Kind = TavroOperationKind::Trash;
    TavroOperationState State = TavroOperationState::Done;
    std::int64_t Time = 0; ///< In seconds since 1970.

    /// In the order in which they were done; outer directories before inner ones, except that
    /// RemovedDirectory steps come at the end, inner ones first. What lies in the trash because a
    /// copy was undone stands as Trashed steps beside the Copied ones.
    std::vector<TavroStep> Steps;
};

/// The history of this user: `tavro/history.db` below `XDG_STATE_HOME` (when that is set and
/// absolute) or else below `HOME/.local/state`. Empty when there is neither.
std::string TavroHistoryPath();

/// An SQLite database, in WAL mode and with full synchronisation, for the user alone (mode 0600).
/// It holds the newest 1,000 operations. A file that is damaged is set aside under
/// `history.db.damaged-N` and the history starts empty. A file of another owner, a link, a FIFO are
/// refused. Not to be used from several threads at once.
class TavroHistory {
public:
    TavroHistory();
    ~TavroHistory();
    TavroHistory(const TavroHistory&) = delete;
    TavroHistory& operator=(const TavroHistory&) = delete;

    /// Opens or creates the database; missing directories are created (mode 0700).
    ///
    /// @param Patience      how long a writer waits for another one.
    /// @param ShouldCancel  ends the wait with Cancelled. May be empty.
    TavroFailure Open(const std::string& File, std::chrono::milliseconds Patience,
                      std::function<bool()> ShouldCancel = {});

    /// After Open: one sentence when a damaged file was set aside, naming it; else empty.
    const std::string& Notice() const;

    /// Adds what was just done. What could be redone is dropped, and so is the oldest beyond 1,000.
    /// @param Operation  gets its Id.
    TavroFailure Record(TavroOperation& Operation);

    /// All operations, the newest to undo or redo first: the undone ones, next to be redone last,
    /// then those that can be undone. With `bSteps` false only the first step of each is read.
    TavroFailure List(bool bSteps, std::vector<TavroOperation>& OutOperations,
                      std::vector<std::uint64_t>& OutStepCounts);

    /// The operation that is undone (redone) next, with its steps; nothing when there is none.
    TavroFailure NextToUndo(std::optional<TavroOperation>& OutOperation);
    TavroFailure NextToRedo(std::optional<TavroOperation>& OutOperation);

    /// Keeps new steps and a new state of an operation.
    TavroFailure Update(const TavroOperation& Operation);

    /// Takes an operation off the list.
    TavroFailure Drop(std::int64_t Id);

    /// A transaction that keeps other writers out until Commit or Rollback: begun before an undo
    /// acts, so that two processes never undo the same operation.
    TavroFailure Begin();
    TavroFailure Commit();
    void Rollback();

private:
    struct Database;
    std::unique_ptr<Database> m_database;
};

#endif
