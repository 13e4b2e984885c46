/// What was done, as the history keeps it, dated now, with what the reports tell.

#ifndef TAVRO_ENGINE_RECORD_H
#define TAVRO_ENGINE_RECORD_H

#include "edit.h"
#include "history.h"
#include "transfer.h"
#include "trash.h"

/// What a transfer has brought somewhere, with what it replaced and lies in the trash, and which
/// directories it created and removed; without steps when it has done nothing.
TavroOperation TavroOperationOf(const TavroTransferReport& Report, bool bMove);

/// What was trashed.
TavroOperation TavroOperationOf(const TavroTrashReport& Report);

/// A directory that was created, with its parents; or, with the path that it had, an entry that was
/// renamed.
TavroOperation TavroOperationOf(const TavroEditReport& Report);
TavroOperation TavroOperationOf(const TavroEditReport& Report, const std::string& From);

/// Looks up, for an operation that is to be recorded, what its steps leave open: which file is at
/// `To`, and the mode of a created directory.
void TavroCompleteOperation(TavroOperation& Operation);

#endif
