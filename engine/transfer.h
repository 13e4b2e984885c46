/// Carries out the copies and moves that the module plans, losing nothing.
///
/// At every moment each file is whole in one place at least. Kept are: contents, holes, mode, times
/// to the nanosecond, symbolic links as links, extended attributes and access control lists where
/// the target can hold them, the owner where that is permitted, and hard links among the items of
/// one transfer.

#ifndef TAVRO_ENGINE_TRANSFER_H
#define TAVRO_ENGINE_TRANSFER_H

#include "conflicts.h"
#include "copy_tree.h"
#include "failure.h"
#include "identity.h"
#include "operation.h"
#include "progress.h"
#include "tavrotransfer.h"

#include <functional>
#include <string>
#include <vector>

/// Something that went from one path to another.
struct TavroTransferredEntry {
    std::string From;
    std::string To;
    bool bReplaced = false; ///< Something that was at `To` before is gone.
    TavroFileState Arrived; ///< What is at `To` now.
};

/// A directory that was emptied by a move into one that was there already, and removed then.
struct TavroRemovedDirectory {
    std::string Path;
    std::uint32_t Mode = 0; ///< Its permission bits, with set-user, set-group and sticky.
    std::string Attributes =
        {}; ///< All that it had before it was emptied: see TavroPackAttributes.
};

/// What became of a transfer.
struct TavroTransferReport {
    /// What arrived, as whole as it could: a directory that is new at its destination is one entry;
    /// of one that was merged into another, each entry that is new there is one.
    std::vector<TavroTransferredEntry> Done;

    /// What was replaced and lies in the trash now, as steps of the operation.
    std::vector<TavroStep> Replaced;

    /// What was left alone because something was at its destination.
    std::vector<std::string> Skipped;

    /// What failed. An entry of a directory that otherwise arrived is listed here by itself.
    std::vector<TavroFailure> Failed;

    /// What a merging move has emptied and removed, inner directories before outer ones.
    std::vector<TavroRemovedDirectory> RemovedDirectories;

    /// Directories that were missing above a destination and were created, outer ones first.
    std::vector<std::string> CreatedDirectories;

    TavroAttributesLost Lost; ///< What the targets could not hold.

    /// Something is left for a resumption or an undo, which settle the operation first: what could
    /// be brought neither to its place nor back, or all that was cancelled and is kept.
    bool bUnsettled = false;

    /// The transfer was cancelled, or stopped by the answer to a conflict. What is done by then is
    /// in `Done`, and can be undone; of the rest nothing is left.
    bool bCancelled = false;
};

/// What planned steps keep as their mode, beside the policies, where both are kept.
constexpr std::uint32_t TavroKeepBothMode = 3;

/// As above, where what is older is overwritten.
constexpr std::uint32_t TavroOverwriteOlderMode = 4;

/// What a transfer tells and asks, beside what every operation does.
struct TavroTransferCallbacks : TavroCallbacks {
    /// Asked for each conflict under the policy `Ask`, and whenever a directory is to replace
    /// something else or the reverse. Empty: such an item is skipped.
    std::function<TavroConflictAnswer(const TavroTransferConflict&)> OnConflict;

    /// Whether all that finds something in its way goes to a free name, and nobody is asked.
    bool bKeepBoth = false;

    /// Whether what is older is overwritten and the rest skipped, and nobody is asked, except
    /// whenever a directory is to replace something else or the reverse.
    bool bOverwriteOlder = false;

    /// Asked for each source; what is done already is passed over.
    std::function<bool(const std::string& From)> IsDone = {};

    /// Asked for each entry that would be replaced, by its path: what this operation has put there
    /// before it was interrupted is refused.
    std::function<bool(std::string To)> IsOwnWork = {};

    /// Asked for each directory that is copied: a copy of it that was cut off, of which what is
    /// whole is taken over.
    std::function<TavroEarlierCopy(const std::string& To)> FindEarlier = {};

    /// Asked after a cancel, when something is done or waits to be: whether that is kept, for a
    /// resumption; else what waits goes.
    std::function<bool()> ShouldKeep = {};

    /// Whether what is replaced goes to the trash; else it is deleted for good.
    bool bKeepReplaced = true;
};

/// Carries out a plan, item by item. One item that fails does not stop the others; a full target
/// ends the item that it was full for, and a smaller one may still find room. What one item has put
/// somewhere is never replaced by a later one. Nothing that the guard protects is moved: such a
/// plan is refused before anything begins.
///
/// @param Plan       when progress is told, `ItemCount` and `ByteCount` of each item are filled in
///                   first, by measuring; `DestinationPath` and `bDestinationRenamed` change where
///                   an item goes to a free name.
/// @param OutReport  cleared first; tells what was done, also when the transfer was cancelled.
/// @return true when all items arrived or were skipped by the policy or an answer; false when
///         something failed or the transfer was cancelled.
///
/// Sockets and devices are refused by name, except where a move is a plain rename. Several
/// transfers may run at once, on different threads and in different processes: directories that two
/// of them create at the same time are merged.
bool TavroCarryOutTransfer(TavroTransferPlan& Plan, const TavroTransferCallbacks& Callbacks,
                           TavroTransferReport& OutReport);

/// The first of NAME, "NAME copy 1.EXT", "NAME copy 2.EXT" … at which nothing is, a dangling link
/// included.
std::string TavroFreePathBeside(const std::string& Wanted);

#endif
