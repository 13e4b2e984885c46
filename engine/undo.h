/// Undoing and redoing what stands in the history.

#ifndef TAVRO_ENGINE_UNDO_H
#define TAVRO_ENGINE_UNDO_H

#include "history.h"
#include "progress.h"
#include "transfer.h"
#include "trash.h"

/// What became of an undo or a redo.
struct TavroUndoReport {
    TavroFailure Failure = {};           ///< None when it is done and saved.
    TavroTrashReport Trash = {};         ///< Of what went to the trash, or came back from it.
    TavroBatchReport Moves = {};         ///< Of what was moved.
    TavroTransferReport Transfer = {};   ///< Of what a resumption copied or moved.
    std::vector<std::string> Rests = {}; ///< Were in two places, and went from these to the trash.
    bool bDoneButNotSaved = false; ///< The disk is changed; the history has it as interrupted.
    bool bPartly = false;          ///< After a failure: it is interrupted, and can be resumed.
    bool bUndone = false;          ///< It went back: of an interrupted operation it may.
    TavroOperation Operation = {}; ///< What was undone (redone), as it is kept now.
};

/// Undoes (redoes) the newest operation and saves the history; NothingToUndo (NothingToRedo) when
/// there is none. All is checked before anything is moved, that the history can be saved included.
/// What was changed is changed back when a later step fails or `Callbacks` cancels. What was
/// replaced comes back in the moment in which what replaced it goes, and the reverse.
///
/// Only the very files that the operation left are touched: Missing, Replaced (another file has the
/// name by now, or another program's item the place in the trash), InTheWay, and what the guard
/// refuses. A copy goes to the trash with what became of it since. Directories that are missing are
/// created, for the user alone or with the modes that the operation knows. Those that the operation
/// created go when they are empty; those that an undo created because they were missing stay.
///
/// @param Id  0: the newest. Else the operation of that number, whatever came after it;
///            NoSuchOperation when it is not there, or undone.
TavroUndoReport TavroUndo(TavroHistory& History, const TavroCallbacks& Callbacks,
                          std::int64_t Id = 0);
TavroUndoReport TavroRedo(TavroHistory& History, const TavroCallbacks& Callbacks);

/// Looks whether an operation could be undone now, and changes nothing. One that was interrupted
/// can, but for a deletion.
/// @param bOutNothingLeft  whether nothing is left to be undone: what it did was taken back
///                         already, or is gone, on file systems that are there.
/// @return no failure, or why it cannot.
TavroFailure TavroCheckUndo(const TavroOperation& Operation, bool& bOutNothingLeft);

/// Goes on with the newest operation that was interrupted, in the direction that it had;
/// NothingToResume when there is none. Files that were copied whole are not copied again, when
/// their sources are unchanged; in directories, unless the system was started anew since. A
/// deletion goes on. That is all that can be done with one: undone it is DeletionWasInterrupted, or
/// DeletionIsFinal when it has ended.
TavroUndoReport TavroResume(TavroHistory& History, const TavroTransferCallbacks& Callbacks);

/// The sentence of a report; empty after success.
std::string TavroDescribe(const TavroUndoReport& Report);

#endif
