/// Bringing one entry from one place to another: by a rename where that can be, else by a copy that
/// is whole before it gets its name, and the removal of what was copied.

#ifndef TAVRO_ENGINE_MOVE_H
#define TAVRO_ENGINE_MOVE_H

#include "copy_tree.h"
#include "failure.h"
#include "identity.h"
#include "place.h"
#include "progress.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// How one entry is brought.
struct TavroMoveOptions {
    bool bCopy = false;    ///< The source stays.
    bool bReplace = false; ///< What is at the destination, no directory, is replaced in one step.

    /// When given, the source must be this file; otherwise nothing is touched.
    std::optional<TavroIdentity> Expected = {};

    /// Gives another name when the destination's is taken. Empty: that is the failure Taken.
    std::function<std::string()> NextName = {};
};

/// What became of it. What is where follows from it:
///
///     Failure  bCopyStays  bPartlyMoved
///     none     no          no            It is at the destination. Of a copied directory `Below`
///                                        names the entries that are not.
///     set      no          no            It is whole where it was, and nowhere else.
///     set      yes         no            It is in both places.
///     set      yes         yes           It is at the destination. What `Failure` and `Below` name
///                                        is at the source too.
struct TavroMoveReport {
    /// Taken: something was at the destination. CopyStays: `Below` tells why the source was not
    /// removed. All that is to be told is this, and then `Below`.
    TavroFailure Failure = {};
    std::vector<TavroFailure> Below = {};

    std::string Name;       ///< The name that it has at its destination.
    TavroFileState Arrived; ///< What is there now. An inode of 0: nothing of it.
    bool bCopied = false;   ///< Its bytes were copied.
    bool bCopyStays = false;
    bool bPartlyMoved = false;
    TavroAttributesLost Lost; ///< What the destination could not hold.
};

/// Brings an entry to a place at which nothing is.
///
/// What is copied is written where nobody sees it, in the destination's directory, and gets its
/// name when it is whole; of a move it has reached the disk before, and each source is removed only
/// when it is the file that was copied, unchanged. When nothing of the source can be removed the
/// copy is taken back: just what this call created and nobody changed since.
///
/// @param Links     hard links among the entries of one operation; one serves the whole operation.
/// @param Progress  told and asked; a cancel is the failure Cancelled and leaves nothing behind. A
///                  rename counts nothing.
TavroMoveReport TavroBringEntry(const TavroPlace& From, const TavroPlace& To,
                                const TavroMoveOptions& Options, TavroHardLinks& Links,
                                TavroProgressTeller& Progress);

#endif
