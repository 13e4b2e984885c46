/// The undo history from the command's side.

#ifndef TAVRO_CLI_RECORDING_H
#define TAVRO_CLI_RECORDING_H

#include "history.h"

#include <string>

/// Opens the user's history. What has to be said about it is said on standard error.
/// @param bPatient  an interrupt does not end the wait for another process.
TavroFailure TavroOpenHistory(TavroHistory& OutHistory, bool bPatient);

/// Adds an operation that was just done; one without steps is not added. That it cannot be undone
/// is said, and is no failure of the operation.
void TavroRecord(TavroOperation Operation);

/// The name of the command that does such operations.
std::string TavroKindText(TavroOperationKind Kind);

/// What a main step is about in one line: "a -> b"; what was created or trashed stands alone.
std::string TavroStepText(const TavroStep& Step);

/// Prints `Title`, the kind, and a line for each main step.
void TavroPrintOperation(const std::string& Title, const TavroOperation& Operation);

#endif
