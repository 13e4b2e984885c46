/// @file
/// What the file operations require of the pane that uses them.

#ifndef TAVROPANE_H
#define TAVROPANE_H

#include <string>

/// Whether the pane lists the entry at `Path` as a track of an audio CD.
///
/// The module declares this function and leaves it to the application: every program that links
/// `tavroops` defines it once. One that knows no audio CDs returns false always.
///
/// @param Path  the full path text of a selected entry, byte for byte as the selection holds it.
/// @return true exactly for an audio track. Such an entry may be copied to disk (under a `.wav`
///         name) but neither moved nor renamed.
///
/// Called once for each entry by TavroBuildTransferPlan and TavroRenameEntry, on the thread of that
/// call. It must not throw. It must be safe to call from several threads when the operations are
/// called from several threads.
bool TavroIsCddaPath(const std::string& Path);

#endif
