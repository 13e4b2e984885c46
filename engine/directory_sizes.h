/// `directorysizes` of a trash: a cache in which trash programs tell each other how much room the
/// trashed directories take on the disk, as `du` counts.
///
/// Trashing writes nothing there: it is a rename, and a walk through the directory would make it
/// wait. Who measures directories for another reason remembers what they take, and who removes or
/// restores some forgets them. Nothing here is read for its sizes: they are of another kind than
/// those that Tavro shows, and of an earlier time.

#ifndef TAVRO_ENGINE_DIRECTORY_SIZES_H
#define TAVRO_ENGINE_DIRECTORY_SIZES_H

#include "trash_folders.h"

#include <cstdint>
#include <string>
#include <vector>

/// A directory in the trash.
struct TavroDirectorySize {
    std::string Name;            ///< In `files`.
    std::uint64_t DiskBytes = 0; ///< With all that is in it.
    std::int64_t RecordTime = 0; ///< When its record was written, in seconds since 1970.
};

/// Remembers sizes, and forgets those of directories that are not in `files` any more. Lines that
/// make no sense go, too. The file is replaced as a whole, and only when it changes. What fails is
/// not told: any program can fill the cache again.
void TavroKeepDirectorySizes(const TavroOpenTrash& Trash,
                             const std::vector<TavroDirectorySize>& Measured = {});

#endif
