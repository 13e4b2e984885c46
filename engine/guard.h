/// What is never trashed, moved, renamed or deleted, for every command: the root directory, the
/// home directory, the trash, the history, mount points, and whatever holds one of them.
/// Directories are known by device and inode, so that no other path to them (a link, a bind mount)
/// helps; mount points, and the trashes at them, by their paths, as the kernel knows them.

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
    Trash,  ///< Also refused: what is in the trash already.
    Delete, ///< Also refused: the current directory, and what holds it.
    Move,
    Rename,
};

/// Why an entry is refused, as a TavroFailure has it in `Error`. Their sentences begin with "it".
enum class TavroRefusal {
    IsRoot = 1,
    IsHome,
    HoldsHome,
    IsTrash,
    HoldsTrash,
    IsTrashDirectory,
    HoldsTrashDirectory,
    IsHistory,
    HoldsHistory,
    IsOfHistory,
    IsCurrent,
    HoldsCurrent,
    IsMountPoint,
    HoldsMountPoint, ///< `Other` of the failure is its path.
    InTrash,
    AudioTrack,
    SelectedTwice,
};

std::error_code make_error_code(TavroRefusal Refusal);

template <> struct std::is_error_code_enum<TavroRefusal> : std::true_type {};

/// Decides for the entries of one operation. Mount points are read when the first directory is
/// among them, and what is protected is looked up at the beginning; an entry costs no call.
class TavroGuard {
public:
    explicit TavroGuard(TavroAct Act);

    /// A symbolic link may go whatever it points to, unless it is on the way to the home directory
    /// or the trash.
    ///
    /// @param Status  of the entry, by a look at itself.
    /// @return no failure when the act may go on; else RefuseTrash, RefuseDelete, RefuseMove or
    ///         RefuseRename, with the entry's path and a TavroRefusal.
    TavroFailure Check(const TavroPlace& Place, const struct stat& Status);

private:
    struct Protection {
        TavroRefusal Why;
        std::string Link; ///< Of a link its own path: another name of it may go.
    };

    void Protect(std::string Path, TavroRefusal Is, TavroRefusal Holds);
    std::string ProtectWay(const std::string& Path, TavroRefusal Is, TavroRefusal Holds);
    void ReadMountPoints();
    const std::string* MountPointIn(const std::string& Path) const;
    bool IsInTrash(const TavroDirectory& Directory) const;
    bool IsOfHistory(const TavroPlace& Place) const;
    TavroFailure CheckVolumeTrash(const TavroPlace& Place, bool bDirectory);
    TavroFailure Refuse(const TavroPlace& Place, TavroRefusal Why, std::string Other = "") const;

    TavroAct m_act;
    std::unordered_map<TavroIdentity, Protection> m_protected;
    std::vector<std::string> m_trash;       ///< The canonical paths of its directories.
    std::vector<std::string> m_mountPoints; ///< In order.
    bool m_bMountPointsRead = false;
};

#endif
