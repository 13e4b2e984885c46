/// Renaming one entry, creating a directory and deleting for good, by typed text as a pane has it.

#ifndef TAVRO_ENGINE_EDIT_H
#define TAVRO_ENGINE_EDIT_H

#include "failure.h"
#include "identity.h"
#include "operation.h"
#include "progress.h"
#include "tavroops.h"

#include <string>
#include <vector>

/// What a rename or a creation did, with what the history has to know.
struct TavroEditReport {
    TavroFailure Failure = {};
    std::string Path = {};       ///< The entry's own path, or the directory's, now.
    TavroFileState Arrived = {}; ///< What is there.
    std::vector<std::string> CreatedDirectories = {}; ///< Outer ones first.
};

/// Renames one entry to a typed name or path, without ever replacing anything; within its file
/// system. Missing parents of the target are created. What the guard protects is refused.
///
/// @param Text  trimmed, then resolved as TavroResolveUserPath does against the directory that
///              holds the entry.
/// @return `Failure` is one of NoSuchEntry, LookAt, RefuseRename, RenameAudioTrack,
///         RenameTargetEmpty, RenameTargetNoName (an existing directory), SameEntry, Taken,
///         RenameTakenByLink, CreateDirectory, Rename; or what BeforeActs returned, or Write when
///         it cannot be brought to the disk. After a failure nothing is left of what was created.
TavroEditReport TavroRenameTo(const TavroOperationEntry& Entry, const std::string& Text,
                              const TavroCallbacks& Callbacks = {});

/// Creates a directory at a typed path, with every missing parent, as TavroCreateDirectory does.
/// `CreatedDirectories` tells what was missing, the directory included; `Path` its canonical path.
/// After a failure (DirectoryPathEmpty, CreateDirectory) nothing is left of what was created.
TavroEditReport TavroMakeDirectory(const std::string& Text, const std::string& BaseDirectory,
                                   const TavroCallbacks& Callbacks = {});

/// Why a selection must not be deleted: NothingSelected, and entries that do not exist or that the
/// guard protects.
std::vector<TavroFailure> TavroCheckDeletable(const std::vector<TavroOperationEntry>& Entries);

/// Deletes entries for good, one after the other; the first that cannot be removed whole ends it.
/// Links are removed, not followed, and nothing outside the named trees is touched whatever happens
/// to them meanwhile. Checked again here as TavroCheckDeletable does, before anything is removed.
/// @return Cancelled with the path of the entry that may be there in part; or what BeforeActs
///         returned, when nothing was removed.
TavroFailure TavroDeleteForGood(const std::vector<TavroOperationEntry>& Entries,
                                const TavroCallbacks& Callbacks);

/// Goes on with a deletion that was interrupted. What is still there of its steps, as BeforeActs
/// was told them, is removed, with what has come into its directories since. Something else that
/// has the name of an entry by now stays.
///
/// @return as TavroDeleteForGood; MaybeOther for an entry that may be another one or gone, and for
///         a file that was changed since: then nothing more is removed.
TavroFailure TavroFinishDeleting(const std::vector<TavroStep>& Steps,
                                 const TavroCallbacks& Callbacks);

#endif
