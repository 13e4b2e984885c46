/// Moving entries to the trash and back, all or nothing, by one batch.

#ifndef TAVRO_ENGINE_TRASH_H
#define TAVRO_ENGINE_TRASH_H

#include "batch.h"
#include "tavroops.h"

#include <string>
#include <vector>

/// One entry that lies in the trash, and which file it is there.
struct TavroTrashedEntry {
    TavroTrashEntry Entry; ///< Links are flagged as directories, so that they are kept as links.
    TavroIdentity Item;    ///< An inode of 0: not known.
    std::optional<TavroSeenEntry> Seen = {}; ///< When given, a restore looks at it no more before.

    /// When not empty, the volume that its record is relative to: it goes to nowhere else, whatever
    /// links somebody has prepared there.
    std::string Volume = {};
};

/// What became of a trashing or a restoring.
struct TavroTrashReport {
    TavroBatchReport Batch = {};

    // After a failure, what is not where it was before:

    std::vector<TavroTrashedEntry> Left = {};   ///< It is where it was to go.
    std::vector<TavroTrashedEntry> InBoth = {}; ///< It is there, and in part where it was.

    /// After success: one an entry, in order. `Item` is the file that arrived.
    std::vector<TavroTrashedEntry> Entries = {};

    bool bRestoring = false; ///< The report is of a restore, not of a trashing.
};

/// Which trash takes what is on another mount than the home trash. That of its own volume, unless
/// there can be none.
struct TavroTrashOptions {
    bool bHome = false;      ///< The home trash in any case.
    bool bNeverCopy = false; ///< What cannot be renamed into the trash is the failure MustCopy.
};

/// The entries of a selection that no rename brings to a trash, so that trashing copies them to the
/// home trash. Creates the trashes of volumes that the others go to. None when there is no home
/// directory, or the selection may not go.
/// @param bSync  as in TavroCallbacks.
std::vector<TavroOperationEntry> TavroEntriesToCopy(const std::vector<TavroOperationEntry>& Entries,
                                                    const TavroTrashOptions& Options = {},
                                                    bool bSync = true);

/// Moves a selection to the trash, all or nothing: what is on the home trash's mount to that, and
/// the rest each to the trash of its own volume, where there can be one.
///
/// For each entry the record is created first, whole, and so holds its name for every program that
/// keeps to the convention; then the entry is renamed into the trash without replacing anything. A
/// failure or a cancel moves back what was moved and removes the records; what cannot be moved back
/// keeps its record. Links are trashed as links, by their own paths.
///
/// Refused before anything is moved, with the reason against the first entry that must not go: what
/// the guard protects, what is selected twice, lies inside another one that is selected, is in the
/// trash already, is an audio CD track, or does not exist.
///
/// @param Entries   `Path` alone is used.
/// @param Expected  when given, the files that the entries must be, in order; else ItemChanged.
/// @param Origins   when given, the paths to which they are to be restored, in order: an entry that
///                  has made way for another one has a hidden name.
TavroTrashReport TavroTrashSelection(const std::vector<TavroOperationEntry>& Entries,
                                     const TavroCallbacks& Callbacks,
                                     const std::vector<TavroIdentity>& Expected = {},
                                     const std::vector<std::string>& Origins = {},
                                     const TavroTrashOptions& Options = {});

/// Puts trashed entries back, all or nothing, and removes their records when all are back.
///
/// Refused before anything is moved: two entries with the same original path, one entry twice, an
/// original path that is not absolute, or leads out of the volume, an original place that is taken,
/// be it by a dangling link, and an item that is not the known file any more. Directories come back
/// before what goes into them.
///
/// @param bTold  the history knows what is restored.
TavroTrashReport TavroRestoreSelection(std::vector<TavroTrashedEntry> Entries,
                                       const TavroCallbacks& Callbacks, bool bTold = false);

/// The sentence of a report: of the failure, of what could not be rolled back, and where each thing
/// is now ("; 'ORIGINALPATH' is now 'TRASHPATH'" and the like). Empty after success.
std::string TavroDescribe(const TavroTrashReport& Report);

#endif
