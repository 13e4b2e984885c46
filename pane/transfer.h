/// Carries out the copies and moves that the module plans, losing nothing.
///
/// What is copied is first written under a hidden name beside its destination (".tavro-" and six
/// characters) and takes its own name, in one step, when it is whole. What is moved between file
/// systems is removed at its source only after its copy was checked and has reached the disk. So at
/// every moment each file is whole in one place at least.
///
/// Kept are: contents, holes, mode, times to the nanosecond, symbolic links as links, extended
/// attributes and access control lists where the target can hold them, the owner where that is
/// permitted, and hard links among the items of one transfer.

#ifndef TAVRO_PANE_TRANSFER_H
#define TAVRO_PANE_TRANSFER_H

#include "tavrotransfer.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

/// How far a transfer has come.
struct TavroTransferProgress {
    std::uint64_t ItemsDone = 0; ///< Files, folders and links finished, of `ItemCount`.
    std::uint64_t ItemCount = 0;
    std::uint64_t BytesDone = 0; ///< Bytes written or moved, of `ByteCount`.
    std::uint64_t ByteCount = 0;
    std::string CurrentPath; ///< What is being read.
};

/// Something is where an item is to go.
struct TavroTransferConflict {
    std::filesystem::path SourcePath;
    std::filesystem::path DestinationPath;
    bool bSourceDirectory = false;
    bool bDestinationDirectory = false; ///< A link to a directory is no directory here.
};

enum class TavroConflictChoice {
    Overwrite, ///< Replace what is there.
    Skip,      ///< Leave both as they are.
    KeepBoth,  ///< Go to a free name beside it: "NAME copy 1.EXT" and so on.
    Stop,      ///< End the transfer here; what is done stays done.
};

struct TavroConflictAnswer {
    TavroConflictChoice Choice = TavroConflictChoice::Stop;

    /// Answers all later conflicts of the same kind too: those between directories and other
    /// entries are one kind, all others the other.
    bool bForAll = false;
};

/// What a transfer tells and asks. All are called on the thread of the transfer; each may be empty.
struct TavroTransferCallbacks {
    /// At most 20 times a second, and once at the end.
    std::function<void(const TavroTransferProgress&)> OnProgress;

    /// Asked at least once for each entry and each block of a file; true cancels. An item that is
    /// cancelled leaves nothing at its destination.
    std::function<bool()> ShouldCancel;

    /// Asked for each conflict under the policy `Ask`, and whenever a directory is to replace
    /// something else or the reverse. Empty: such an item is skipped.
    std::function<TavroConflictAnswer(const TavroTransferConflict&)> OnConflict;
};

/// Something that went from one path to another.
struct TavroTransferredEntry {
    std::filesystem::path From;
    std::filesystem::path To;
    bool bReplaced = false; ///< Something that was at `To` before is gone.
};

/// Something that was not transferred, and why: a sentence without a full stop, with the path.
struct TavroTransferFailure {
    std::filesystem::path Path;
    std::string Reason;
};

/// A folder that was emptied by a move into one that was there already, and removed then.
struct TavroRemovedFolder {
    std::filesystem::path Path;
    std::uint32_t Mode = 0; ///< Its permission bits, with set-user, set-group and sticky.
};

/// What became of a transfer.
struct TavroTransferReport {
    /// What arrived, as whole as it could: a directory that is new at its destination is one entry;
    /// of one that was merged into another, each entry that is new there is one.
    std::vector<TavroTransferredEntry> Done;

    /// What was left alone because something was at its destination.
    std::vector<std::filesystem::path> Skipped;

    /// What failed. An entry of a directory that otherwise arrived is listed here by itself.
    std::vector<TavroTransferFailure> Failed;

    /// What a merging move has emptied and removed, inner folders before outer ones.
    std::vector<TavroRemovedFolder> RemovedFolders = {};

    /// The transfer was cancelled, or stopped by the answer to a conflict.
    bool bCancelled = false;
};

/// Carries out a plan, item by item. One item that fails does not stop the others; a full target
/// ends the item that it was full for, and a smaller one may still find room. What one item has put
/// somewhere is never replaced by a later one: "Cannot replace 'PATH': it was put there by this
/// transfer".
///
/// @param Plan       `ItemCount` and `ByteCount` of each item are filled in first, by measuring;
///                   `DestinationPath` and `bDestinationRenamed` change where an item goes to a
///                   free name.
/// @param Callbacks  see there.
/// @param OutReport  cleared first; tells what was done, also when the transfer was cancelled.
/// @return true when all items arrived or were skipped by the policy or an answer; false when
///         something failed or the transfer was cancelled.
///
/// Audio tracks are refused: "Cannot read audio CD track 'PATH': this build reads no discs".
/// Sockets and devices are refused by name, except where a move is a plain rename. Several
/// transfers may run at once on different threads.
bool TavroCarryOutTransfer(TavroTransferPlan& Plan, const TavroTransferCallbacks& Callbacks,
                           TavroTransferReport& OutReport);

/// Moves one entry to a full new path at which nothing may be, with the care of a transfer. Missing
/// parents of the destination are created.
///
/// @param ErrorMessage  set on failure only.
/// @param OutCopyStays  unless null: after a failure, whether a copy that this call made lies at
///                      `Destination` all the same; after success false.
/// @return true when the entry is at `Destination` and nowhere else; false with a sentence without
///         a full stop when it is whole where it was (of a directory that was moved between file
///         systems, entries that could not be removed at the source may be in both places), or
///         "Cancelled" when `Callbacks.ShouldCancel` said so. `OnConflict` is not used.
///
/// Nothing is measured: the progress counts up from 0 with `ItemCount` and `ByteCount` 0, and is
/// told once at the end at least. A mere rename counts nothing.
bool TavroMoveEntry(const std::filesystem::path& Source, const std::filesystem::path& Destination,
                    const TavroTransferCallbacks& Callbacks, std::string& ErrorMessage,
                    bool* OutCopyStays = nullptr);

/// The first of NAME, "NAME copy 1.EXT", "NAME copy 2.EXT" … at which nothing is, a dangling link
/// included. Where such a name would be longer than 255 bytes, NAME is shortened in it, between
/// characters.
std::filesystem::path TavroFreePathBeside(const std::filesystem::path& Wanted);

#endif
