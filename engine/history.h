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
    std::string Record; ///< Of a Trashed step: `ROOT/info/NAME.trashinfo` for `ROOT/files/NAME`.

    /// The file at `To`; while the operation is undone, the one at `From`. An inode of 0: not
    /// known, or of a directory that the operation found there.
    TavroIdentity Identity = {};
    std::int64_t ChangeTime = 0; ///< Of that file when the operation ended, or that moment.
    std::uint32_t Mode = 0;      ///< Of a created or removed directory.
    bool bDirectory = false;     ///< As the trash record of a Trashed step has it.

    bool operator==(const TavroStep& Other) const;
};

/// One operation.
struct TavroOperation {
    std::int64_t Id = 0; ///< Given by the history; grows with time.
    TavroOperationKind Kind = TavroOperationKind::Trash;
    TavroOperationState State = TavroOperationState::Done;
    std::int64_t Time = 0; ///< In seconds since 1970.

    /// First the main steps, in the order in which they were done, so that the first one tells what
    /// the operation is about; then created directories, outer ones before inner ones; then removed
    /// ones, inner ones first. What lies in the trash because a
    /// copy was undone stands as Trashed steps beside the Copied ones.
    std::vector<TavroStep> Steps;
};

/// Whether a step is what an operation of that kind is about, and no circumstance of it.
bool TavroIsMainStep(const TavroStep& Step, TavroOperationKind What);

/// The history of this user: `tavro/history.db` below `XDG_STATE_HOME` (when that is set and
/// absolute) or else below `HOME/.local/state`. Empty when there is neither.
std::string TavroHistoryPath();

struct TavroDatabase;

/// An SQLite database, in WAL mode and with full synchronisation, for the user alone (mode 0600).
///
/// An operation stays until 1,000 newer ones are there, or newer ones of more than 400 million
/// bytes (two million steps of usual paths). A damaged file is set aside under
/// `history.db.damaged-N`, and the history starts empty. Nothing that stands in the file is
/// trusted: an operation that was not written here, or not whole, is refused.
///
/// Readers never wait. A writer waits for another one and then fails with HistoryBusy or Cancelled.
/// Other failures are HistoryOpen, HistoryRead, HistorySave with the system's reason,
/// HistorySetAside and HistoryInvalid. Not to be used from several threads at once.
class TavroHistory {
public:
    TavroHistory();
    ~TavroHistory();
    TavroHistory(const TavroHistory&) = delete;
    TavroHistory& operator=(const TavroHistory&) = delete;

    /// Opens or creates the database; missing directories are created (mode 0700). What was open
    /// before is closed. A directory, a link, a FIFO, or a file of another owner is HistoryOpen.
    ///
    /// @param Patience      how long a writer waits for another one.
    /// @param ShouldCancel  ends the wait. May be empty.
    TavroFailure Open(const std::string& File, std::chrono::milliseconds Patience,
                      std::function<bool()> ShouldCancel = {});

    /// After each call: one sentence when a damaged file was set aside, naming it; else empty.
    const std::string& Notice() const;

    /// Adds what was just done. What could be redone is dropped, and so is the oldest that is too
    /// much.
    /// @param Operation  gets its Id.
    /// @return HistoryUnrecordable for one that could not be undone.
    TavroFailure Record(TavroOperation& Operation);

    /// All operations, the newest to undo or redo first: the undone ones, next to be redone last,
    /// then those that can be undone. One that is refused has no steps here.
    /// @param bSteps          false: only the first step of each is read.
    /// @param OutEntryCounts  how many main steps each has.
    TavroFailure List(bool bSteps, std::vector<TavroOperation>& OutOperations,
                      std::vector<std::uint64_t>& OutEntryCounts);

    /// The operation that is undone (redone) next, with its steps; nothing when there is none.
    TavroFailure NextToUndo(std::optional<TavroOperation>& OutOperation);
    TavroFailure NextToRedo(std::optional<TavroOperation>& OutOperation);

    /// Keeps new steps and a new state of an operation. In a transaction the bytes are written at
    /// once, so that a full disk shows here, and count from Commit on.
    TavroFailure Update(const TavroOperation& Operation);

    /// Takes an operation off the list; NothingToDrop when it is not there.
    TavroFailure Drop(std::int64_t Id);

    /// A transaction that keeps other writers out until Commit or Rollback: begun before an undo
    /// acts, so that two processes never undo the same operation.
    TavroFailure Begin();
    TavroFailure Commit();
    void Rollback();

private:
    std::unique_ptr<TavroDatabase> m_database;
};

#endif
