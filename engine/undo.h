/// Undoing and redoing what stands in the history.

#ifndef TAVRO_ENGINE_UNDO_H
#define TAVRO_ENGINE_UNDO_H

#include "batch.h"
#include "history.h"
#include "progress.h"

/// What became of an undo or a redo.
struct TavroUndoReport {
    TavroFailure Failure;               ///< None when it is done and saved.
    std::vector<TavroFailure> RollBack; ///< After a failure: what could not be moved back, and why.
    bool bDoneButNotSaved = false;      ///< The disk is changed; the history still says otherwise.
    TavroOperation Operation;           ///< What was undone (redone), as it is kept now.
};

/// Undoes (redoes) the newest operation and saves the history. All is checked before anything is
/// moved, by identity: what bears a file's name by now but is another file is refused. What was
/// changed is changed back when a later step fails or `Callbacks` cancels. Directories that are
/// missing are created, with the modes of those that the operation has removed, otherwise for the
/// user alone.
TavroUndoReport TavroUndo(TavroHistory& History, const TavroCallbacks& Callbacks);
TavroUndoReport TavroRedo(TavroHistory& History, const TavroCallbacks& Callbacks);

/// The sentence of a report; empty after success.
std::string TavroDescribe(const TavroUndoReport& Report);

#endif
