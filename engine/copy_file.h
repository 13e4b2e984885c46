/// Copying what one entry is made of: the bytes of a file, and the attributes of anything.

#ifndef TAVRO_ENGINE_COPY_FILE_H
#define TAVRO_ENGINE_COPY_FILE_H

#include "failure.h"
#include "identity.h"
#include "progress.h"

#include <cstdint>
#include <sys/stat.h>

/// How many entries lost something that the target could not hold.
struct TavroAttributesLost {
    std::uint64_t AccessLists = 0;        ///< Access control lists.
    std::uint64_t ExtendedAttributes = 0; ///< Extended attributes other than these.
};

/// How a file is copied.
struct TavroCopyOptions {
    bool bSync = false; ///< The bytes have reached the disk when it is done.
    bool bClearInherited =
        true; ///< The target's directory may give access control lists to new files.
};

/// Copies a regular file, with its attributes, to a name at which nothing is. Shares blocks where
/// the file system can, keeps holes, and lets the kernel do the copying where it does.
///
/// @param OutSource  the source as it was when the copy began. What is appended meanwhile is not
///                   copied.
/// @param OutCopy    the copy when it was complete.
/// @param OutLost    added to.
/// @return no failure; else one without paths (the caller knows them), and nothing is left at `To`:
///         Read, BecameShorter and Copy are about the source, Create, SetAttributes, Write and
///         CopyNotWhole about the target; Cancelled.
///
/// A file that says its size is 0 is read to its end all the same: those of /proc have contents.
TavroFailure TavroCopyFile(int FromDirectory, const char* From, int ToDirectory, const char* To,
                           const TavroCopyOptions& Options, TavroProgressTeller& Progress,
                           TavroFileState& OutSource, struct stat& OutSourceStatus,
                           TavroFileState& OutCopy, TavroAttributesLost& OutLost);

/// Gives an open entry what another one has: owner where that is permitted, extended attributes and
/// access control lists where they can be held, mode (without set-user and set-group when the owner
/// could not be kept; without what a lost list had denied), times. Either may be open by O_PATH.
///
/// @param Status  that of `From`.
/// @return 0, or the error number when mode or times could not be set.
int TavroCopyAttributes(int From, int To, const struct stat& Status, bool bClearInherited,
                        TavroAttributesLost& OutLost);

#endif
