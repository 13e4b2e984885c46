/// What an interrupted operation has done, found out by looking.

#ifndef TAVRO_ENGINE_RECOVERY_H
#define TAVRO_ENGINE_RECOVERY_H

#include "history.h"
#include "place.h"

#include <cstdint>
#include <string>
#include <vector>

/// Whether a step moves something to the trash.
bool TavroIsTrashed(const TavroStep& Step);

/// Where the file of a step shows to the user, and where it is when it does not: in the trash, or
/// where it is moved or copied from.
const std::string& TavroPlaceOf(const TavroStep& Step);
const std::string& TavroHomeOf(const TavroStep& Step);

/// The path of the directory that a step creates or removes.
const std::string& TavroDirectoryOf(const TavroStep& Step);

/// Whether an operation was begun and has not ended.
bool TavroIsOnItsWay(const TavroOperation& Operation);

/// What is at a path; an inode of 0 when nothing is there.
TavroIdentity TavroIdentityAt(TavroPlaces& Places, const std::string& Path);

/// Whether an operation leads from `To` to `From`.
bool TavroGoesBack(const TavroOperation& Operation);

/// Of steps that were kept several times the last, in the place of the first.
std::vector<TavroStep> TavroLatestOf(const std::vector<TavroStep>& Steps);

/// Where the file of a step is now. Files are known by their inodes: the number of a device can be
/// another one after a restart.
enum class TavroWhereabouts {
    Nowhere, ///< Neither here nor there; it may wait under its hidden name.
    AtFrom,
    AtTo,
    InBoth, ///< It was copied, and the source is still there, in part at least.
};

/// Finds where the entry of a step is now. A directory that was created or removed is at its path
/// or nowhere. What was to be deleted is at `From`; once it is gone, it counts as arrived.
TavroWhereabouts TavroFindStep(const TavroStep& Step, TavroPlaces& Places);

/// How far an operation on its way has come.
struct TavroHeadway {
    std::uint64_t Done = 0;
    std::uint64_t Count = 0; ///< Of main steps, and what is still planned.
};

/// Looks at each step; changes nothing. Going back counts down.
TavroHeadway TavroFindHeadway(const TavroOperation& Operation);

/// Hidden names, left by an operation on its way, with their full paths.
std::vector<std::string> TavroFindLeftovers(const TavroOperation& Operation);

/// Finds hidden names beside the paths of operations, outside the trash, that belong to no
/// interrupted operation and that nobody has written to for a minute.
std::vector<std::string> TavroFindOrphans(const std::vector<TavroOperation>& Operations);

#endif
