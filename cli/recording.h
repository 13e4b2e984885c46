/// The undo history from the command's side.

#ifndef TAVRO_CLI_RECORDING_H
#define TAVRO_CLI_RECORDING_H

#include "command.h"
#include "journal.h"

#include <string>

/// Opens the user's history. What has to be said about it is said on standard error, also that
/// another process keeps it, after a second.
TavroFailure TavroOpenHistory(TavroHistory& OutHistory);

/// How an operation is kept.
struct TavroKeeping {
    bool bSync;    ///< It waits for the disk.
    bool bHistory; ///< It stands in the history.
};

/// --no-sync and --no-history.
struct TavroKeepingOptions {
    CLI::Option* NoSync;
    CLI::Option* NoHistory;

    TavroKeeping Keeping() const;
};
/// @param bUndoable  what the command does can be undone; else it can only be resumed.
TavroKeepingOptions TavroAddKeeping(CLI::App& Command, bool bUndoable = true);

/// Keeps one operation in the user's history, before it acts and when it has ended.
class TavroRecording {
public:
    /// The callbacks that the operation gets. What cannot be kept, and could be undone, does not
    /// begin; that a deletion or a restore is not kept is said.
    TavroCallbacks Bind(TavroCallbacks Callbacks, TavroKeeping Keeping);

    /// Says what is wrong with the history: that nothing was done for its sake, or that the end of
    /// what was done could not be kept.
    /// @param Operation  what was done; nothing when it has no steps.
    /// @return an exit code.
    int End(TavroOperation Operation);

    /// As End, of a deletion. @param Failure  what it came to.
    int EndDeletion(const TavroFailure& Failure);

    TavroRecording();

    /// It is left as one that was interrupted, for an undo or a resumption.
    void Leave() {
        m_journal.Leave();
    }

    /// The number of the operation in the history; 0: it is not there.
    std::int64_t Id() const {
        return m_journal.Id();
    }

private:
    TavroJournal m_journal;
};

/// --no-sync, and whether the disk is waited for: not with it, nor with TAVRO_SYNC=no.
CLI::Option* TavroAddNoSync(CLI::App& Command);
bool TavroShouldSync(const CLI::Option* NoSync = nullptr);

/// The name of the command that does such operations.
std::string TavroKindText(TavroOperationKind Kind);

/// The steps that an operation is about: its main steps, or of a move that has merged nothing but
/// empty directories those.
std::vector<const TavroStep*> TavroTellingSteps(const TavroOperation& Operation);

/// "/a -> /b and 3 more": what an operation was about in one line of standard output.
/// @param EntryCount  how many main steps it has.
std::string TavroOperationText(const TavroOperation& Operation, std::uint64_t EntryCount);

/// Prints `Title`, the kind, and a line for each main step; of many on a terminal for the first.
/// @param bVerbose  a line for each, however many there are.
void TavroPrintOperation(const std::string& Title, const TavroOperation& Operation,
                         bool bVerbose = false);

#endif
