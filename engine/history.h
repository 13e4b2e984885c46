/// The undo history: what was done, kept in a database from one run to the next.

#ifndef TAVRO_ENGINE_HISTORY_H
#define TAVRO_ENGINE_HISTORY_H

#include "failure.h"
#include "operation.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The history of this user: `tavro/history.db` below `XDG_STATE_HOME` (when that is set and
/// absolute) or else below `HOME/.local/state`. Empty when there is neither.
std::string TavroHistoryPath();

struct TavroDatabase;

/// An SQLite database, in WAL mode, for the user alone (mode 0600). What it was told is on the disk
/// when it says so.
///
/// An operation stays until 1,000 newer ones are there, or newer ones of more than 400 million
/// bytes (two million steps of usual paths). A damaged file is set aside under
/// `history.db.damaged-N`, and the history starts empty; one that the disk fails to read stays.
/// Nothing that stands in the file is trusted: an operation that was not written here, or not
/// whole, is refused.
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

    /// Whether what is written from now on has reached the disk when a call returns; it has unless
    /// told otherwise.
    void WaitForDisk(bool bSync);

    /// The file system that has the database.
    std::uint64_t Device() const;

    /// After each call: one sentence when a damaged file was set aside, naming it; else empty.
    const std::string& Notice() const;

    /// While a call waits: whether that is for the end of an operation that another process is at,
    /// and not for a writer.
    bool WaitsForOperation() const;

    /// All operations, the newest to undo or redo first: the undone ones, next to be redone last,
    /// then those that can be undone. One that is refused has no steps here.
    /// @param bSteps          false: only the first step of each is read, and all of what is on its
    ///                        way.
    /// @param OutEntryCounts  how many main steps each has.
    TavroFailure List(bool bSteps, std::vector<TavroOperation>& OutOperations,
                      std::vector<std::uint64_t>& OutEntryCounts);

    /// The newest operation that is not undone, and the one that was undone last, with its steps;
    /// nothing when there is none. One that is on its way, or was interrupted, is not undone.
    TavroFailure NextToUndo(std::optional<TavroOperation>& OutOperation);
    TavroFailure NextToRedo(std::optional<TavroOperation>& OutOperation);

    /// The operation of a number, with its steps; nothing when it is not there.
    TavroFailure Read(std::int64_t Id, std::optional<TavroOperation>& OutOperation);

    /// The newest operation that was begun and has not ended.
    TavroFailure NextToResume(std::optional<TavroOperation>& OutOperation);

    /// Keeps new steps and a new state of an operation; on the disk when this returns.
    TavroFailure Update(const TavroOperation& Operation);

    // --- Operations on their way ---

    /// Adds an operation that is about to begin, in the state Doing, with the steps that are known;
    /// on the disk when this returns. What could be redone is dropped, unless it is a deletion.
    /// Until it is ended, or this object goes, other processes see that it is running.
    /// @param Operation  gets its Id; after a failure only when the history has it, and it may not
    ///                   be on the disk.
    TavroFailure BeginOperation(TavroOperation& Operation);

    /// As BeginOperation, for one that is there already and gets another state. Another process
    /// that is at it is waited for, then HistoryRunning.
    /// @param OutChanged  it is no longer in its state, and stays as it is.
    TavroFailure ContinueOperation(const TavroOperation& Operation, TavroOperationState NewState,
                                   bool& OutChanged);

    /// Lets an operation on its way be as it is: any process may go on with it now.
    void LeaveOperation();

    /// Keeps steps of an operation on its way, from a number on; on the disk when this returns.
    TavroFailure KeepSteps(std::int64_t Id, std::size_t First, const std::vector<TavroStep>& Steps);

    /// Keeps the state, and unless they are the same the steps, of what has come to its end;
    /// without main steps it is dropped. This does not wait for the disk: what a power cut takes
    /// away is found out again by looking.
    TavroFailure EndOperation(const TavroOperation& Operation, bool bSameSteps);

    /// Whether a process is at an operation that has not ended.
    bool IsRunning(const TavroOperation& Operation) const;

    /// Takes an operation off the list; NothingToDrop when it is not there, HistoryRunning while
    /// another process is at it.
    TavroFailure Drop(std::int64_t Id);

private:
    std::unique_ptr<TavroDatabase> m_database;
};

#endif
