/// The undo history from the command's side.

#ifndef TAVRO_CLI_RECORD_H
#define TAVRO_CLI_RECORD_H

#include "history.h"

#include <chrono>

/// Opens the user's history, with what has to be said about it said on standard error.
///
/// @param Patience  for so long an interrupt does not end the wait for another process.
bool TavroOpenHistory(TavroHistory& OutHistory,
                      std::chrono::seconds Patience = std::chrono::seconds(0));

/// Adds an operation that was just done, dated now. One without any effect is not added. That it
/// cannot be undone is said, and is no failure of the operation.
void TavroRecordOperation(TavroHistoryOperation Operation);

#endif
