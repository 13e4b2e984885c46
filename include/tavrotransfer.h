/// @file
/// The plan of a copy or a move, as TavroBuildTransferPlan makes it and the pane carries it out.
///
/// Plain records: public fields, no invariants, no ownership beyond the values themselves.
/// A record may be used from one thread at a time.

#ifndef TAVROTRANSFER_H
#define TAVROTRANSFER_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// What whoever carries out a plan does with an item whose destination exists by then. The numbers
/// are fixed, so a caller may store the policy as an `int`.
enum class TavroTransferConflictPolicy : int {
    Ask = 0,       ///< Leave each conflict to the user.
    Overwrite = 1, ///< Replace what is at the destination.
    Skip = 2,      ///< Leave the item, and what is at the destination, as they are.
};

/// One planned copy or move.
struct TavroTransferItemPlan {
    /// The name of the selected entry, as the pane lists it.
    std::string Name;

    /// What is copied or moved.
    std::filesystem::path SourcePath;

    /// The full path that the item will have afterwards, not the directory that it goes into.
    std::filesystem::path DestinationPath;

    /// The item goes to another name than its own. Never set by the module; whoever carries the
    /// plan out sets it when a conflict is solved by a free name.
    bool bDestinationRenamed = false;

    /// The source is a directory, or a symbolic link: as the selection said.
    bool bDirectory = false;

    /// How many files and directories the item covers, for progress. Planning leaves it 0; whoever
    /// carries the plan out measures.
    std::uint64_t ItemCount = 0;

    /// How many bytes the item covers, for progress. Planning leaves it 0 as well.
    std::uint64_t ByteCount = 0;
};

/// A whole copy or move request.
struct TavroTransferPlan {
    /// True for a move, false for a copy.
    bool bMove = false;

    /// The caller's choice, as it was given to TavroBuildTransferPlan.
    TavroTransferConflictPolicy ConflictPolicy = TavroTransferConflictPolicy::Ask;

    /// Which side the items come from. TavroBuildTransferPlan sets "Tavro".
    std::string SourceLabel;

    /// One item for each selected entry, in the order of the selection.
    std::vector<TavroTransferItemPlan> Items;
};

#endif
