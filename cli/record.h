/// The undo history from the command's side.

#ifndef TAVRO_CLI_RECORD_H
#define TAVRO_CLI_RECORD_H

#include "history.h"

/// Opens the user's history, with what has to be said about it said on standard error.
bool TavroOpenHistory(TavroHistory& OutHistory);

/// Adds an operation that was just done, dated now. One without any effect is not added. That it
/// cannot be undone is said, and is no failure of the operation.
void TavroRecordOperation(TavroHistoryOperation Operation);

#endif
