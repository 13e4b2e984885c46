/// Copying what one entry is made of: the bytes of a file, and the attributes of anything.

#ifndef TAVRO_ENGINE_COPY_FILE_H
#define TAVRO_ENGINE_COPY_FILE_H

#include "failure.h"
#include "identity.h"
#include "posix.h"
#include "progress.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

/// How many entries lost something that the target could not hold.
struct TavroAttributesLost {
    std::uint64_t AccessLists = 0;        ///< Access control lists.
    std::uint64_t ExtendedAttributes = 0; ///< Extended attributes other than these.

    void operator+=(const TavroAttributesLost& More) {
        AccessLists += More.AccessLists;
        ExtendedAttributes += More.ExtendedAttributes;
    }
};

/// What is true of all new entries in one directory, so that it is found out once.
struct TavroNewEntryTraits {
    bool bInheritLists = false; ///< They get access control lists from the directory.
    bool bUnnamed = true;       ///< A file can be made there that has no name yet.
    bool bOwnerKnown = false;   ///< They belong to `User` and `Group`.
    uid_t User = 0;
    gid_t Group = 0;
    mode_t Allowed = 0; ///< Permissions that a new file keeps, of those that it is created with.
};

/// Asks a directory whether it gives access control lists to what is new in it; what else is true
/// of new entries shows at the first of them.
TavroNewEntryTraits TavroTraitsOfNewEntriesIn(int Directory);

/// One extended attribute; without a value when it cannot be read.
struct TavroAttribute {
    std::string Name;
    std::optional<std::string> Value;
};

/// The extended attributes of an open entry, access control lists among them; none where none can
/// be had.
std::vector<TavroAttribute> TavroReadAttributes(int From);

/// Removes the access control lists that a new entry got from its directory: they could let in
/// others than the original does.
/// @return 0, or the error number.
int TavroRemoveLists(int Entry, mode_t Mode);

/// Gives a new entry what another one has: owner where that is permitted, extended attributes and
/// access control lists where they can be held, mode (without set-user and set-group when the owner
/// could not be kept; without what a lost list had denied to somebody), times.
///
/// @param To       open; links and FIFOs with O_PATH.
/// @param Status   of the other one, and its `Attributes`.
/// @param Traits   of the directory that `To` lies in; learnt from.
/// @param OutLost  added to.
/// @param CreatedWith  the mode that `To` was created with, if it can be right already.
/// @return 0, or the error number when mode or times could not be set, or a list that the entry got
///         from its directory could not be removed.
int TavroGiveAttributes(int To, const struct stat& Status,
                        const std::vector<TavroAttribute>& Attributes, TavroNewEntryTraits& Traits,
                        TavroAttributesLost& OutLost, mode_t CreatedWith = 0);

/// Owner, mode, times and extended attributes of an entry, as bytes that can be kept.
std::string TavroPackAttributes(const struct stat& Status,
                                const std::vector<TavroAttribute>& Attributes);

/// @param OutStatus  has these fields alone.
/// @return false for other bytes; then the out-parameters hold nothing of use.
bool TavroUnpackAttributes(const std::string& Bytes, struct stat& OutStatus,
                           std::vector<TavroAttribute>& OutAttributes);

/// How a file is copied.
struct TavroCopyOptions {
    bool bSync = false;    ///< The bytes have reached the disk when it is done.
    bool bUnnamed = false; ///< The copy may be made without a name, for the caller to link it.

    /// Asked before such a copy gets a name all the same; if not, that is Cancelled. May be empty.
    std::function<bool()> MayName = {};
};

/// A finished copy of a file.
struct TavroFileCopy {
    TavroFileState State;    ///< As it was when it was complete, unless it has no name yet.
    TavroDescriptor Unnamed; ///< Open when the copy has no name yet.
};

/// Opens a regular file for copying.
/// @return 0; EIO for what is no regular file, ELOOP for a link; or the error number.
int TavroOpenSource(int Directory, const char* Name, TavroDescriptor& OutFile,
                    struct stat& OutStatus);

/// Copies a regular file, with its attributes, to a name at which nothing is. Shares blocks where
/// the file system can, keeps holes, and lets the kernel do the copying where it does. What is
/// appended to the source meanwhile is not copied.
///
/// @param From    open, and `Source` its status then.
/// @param Traits  of `ToDirectory`.
/// @return no failure; else one without paths (the caller knows them), and nothing is left of the
///         copy: Read, BecameShorter, Copy and CopyNotWhole are about the source; Create,
///         SetAttributes and Write about the target; Cancelled.
///
/// A file that says its size is 0 is read to its end all the same: those of /proc have contents.
/// Another size is believed only when the file ends there: BecameShorter when it ends before,
/// CopyNotWhole when more can be read and the size still does not tell.
TavroFailure TavroCopyFile(int From, const struct stat& Source, int ToDirectory, const char* To,
                           const TavroCopyOptions& Options, TavroNewEntryTraits& Traits,
                           TavroProgressTeller& Progress, TavroFileCopy& OutCopy,
                           TavroAttributesLost& OutLost);

#endif
