/// Brings an interrupted operation into a state from which it can be undone or gone on with.

#ifndef TAVRO_ENGINE_SETTLEMENT_H
#define TAVRO_ENGINE_SETTLEMENT_H

#include "history.h"
#include "progress.h"

#include <string>
#include <vector>

/// Settles an interrupted operation: removes copies that were not published, and records of what
/// was not trashed; what is left of a source whose copy is in its place goes to the trash. Then
/// each step is done or not. Records that another operation on its way may need stay.
///
/// @param History      holds the other operations.
/// @param IoOperation  gets the steps that are written to the history on the way.
/// @param bGoOn        it is resumed as it was begun: copies of files that wait get their names
///                     instead, when their sources are unchanged; those of directories stay for the
///                     resumption, as `Staged` and `Source` of their steps.
/// @param OutDone      the steps whose files are at `To`. What was kept of one step several times
///                     counts once.
/// @param OutNotDone   the others.
/// @param OutTrashed   where something was that is elsewhere, too, and has gone from here to the
///                     trash.
/// @return no failure, or why something could not be settled; all can be tried again.
TavroFailure TavroSettle(TavroHistory& History, TavroOperation& IoOperation, bool bGoOn,
                         const TavroCallbacks& Callbacks, std::vector<TavroStep>& OutDone,
                         std::vector<TavroStep>& OutNotDone, std::vector<std::string>& OutTrashed);

#endif
