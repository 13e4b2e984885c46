/// What is never trashed, moved, renamed or deleted, for every command: the root directory, the
/// home directory, the trash, mount points, and whatever holds one of them. Decided by device and
/// inode, so that no other path to the same directory (a link, a bind mount) helps.

#ifndef TAVRO_ENGINE_GUARD_H
#define TAVRO_ENGINE_GUARD_H

#include "failure.h"
#include "identity.h"
#include "place.h"

#include <string>
#include <unordered_map>
#include <vector>

/// What is to be done to an entry.
enum class TavroAct {
    Trash,
    Delete, ///< Also refused: the current directory, and what holds it.
    Move,
    Rename,
};

class TavroGuard {
public:
    explicit TavroGuard(TavroAct Act);

    /// @param Status  of the entry, by a look at itself.
    /// @return no failure when the act may go on; else RefuseTrash, RefuseDelete, RefuseMove or
    ///         RefuseRename, with the entry's path, whose reason is one of the guard's own: "it is
    ///         the home directory", "it holds the trash", "it holds the mount point '/mnt/stick'" …
    TavroFailure Check(const TavroPlace& Place, const struct stat& Status);
};

#endif
