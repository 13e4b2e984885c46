/// The undo history from the command's side.

#ifndef TAVRO_CLI_RECORDING_H
#define TAVRO_CLI_RECORDING_H

#include "command.h"
#include "journal.h"

#include <string>

/// Opens the user's history. What has to be said about it is said on standard error, also that
/// another process keeps it, after a second.
TavroFailure TavroOpenHistory(TavroHistory& OutHistory);

/// Keeps one operation in the user's history, before it acts and when it has ended. That it cannot
/// be undone is said, and is no failure of the operation.
class TavroRecording {
public:
    /// The callbacks that the operation gets.
    /// @param bSync  whether it waits for the disk.
    TavroCallbacks Bind(TavroCallbacks Callbacks, bool bSync);

    /// @param Operation  what was done; nothing when it has no steps.
    void End(TavroOperation Operation);

    /// It is left as one that was interrupted, for an undo or a resumption.
    void Leave() {
        m_journal.Leave();
    }

    /// The number of the operation in the history; 0: it is not there.
    std::int64_t Id() const {
        return m_journal.Id();
    }

private:
    TavroJournal m_journal{&TavroOpenHistory};
};

/// --no-sync, and whether the disk is waited for: not with it, nor with TAVRO_SYNC=no.
CLI::Option* TavroAddNoSync(CLI::App& Command);
bool TavroShouldSync(const CLI::Option* NoSync = nullptr);

/// The name of the command that does such operations.
std::string TavroKindText(TavroOperationKind Kind);

/// The steps that an operation is about: its main steps, or of a move that has merged nothing but
/// empty directories those.
std::vector<const TavroStep*> TavroTellingSteps(const TavroOperation& Operation);

/// What a step is about in one line of standard output: "a -> b"; what was created or trashed
/// stands alone.
std::string TavroStepText(const TavroStep& Step);

/// Prints `Title`, the kind, and a line for each main step, on a terminal for a
/// few.
void TavroPrintOperation(const std::string& Title, const TavroOperation& Operation);

#endif
