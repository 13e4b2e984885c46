/// Where the home trash is, and that it is there.

#ifndef TAVRO_ENGINE_TRASH_FOLDERS_H
#define TAVRO_ENGINE_TRASH_FOLDERS_H

#include "failure.h"
#include "posix.h"

#include <string>

/// The directories of a trash. Empty paths when there is none: `HOME` is unset or empty.
struct TavroTrashFolders {
    std::string Home;
    std::string Root;
    std::string Files;
    std::string Info;
};

TavroTrashFolders TavroFindTrashFolders();

/// Creates the directories of the home trash that are missing, readable by the user alone (mode
/// 0700, whatever the umask). Directories above the trash get the mode that any new directory gets.
/// Those that exist keep their mode.
///
/// @return no failure when they exist; NoHome, TrashNeedsDirectory, CreateTrashDirectory or
///         MakeTrashPrivate, with the path that is in the way or could not be created.
TavroFailure TavroEnsurePrivateTrash();

/// The home trash, open. Nothing is ever created here.
struct TavroOpenTrash {
    TavroTrashFolders Folders;
    TavroDescriptor Files; ///< A directory that does not exist is not open.
    TavroDescriptor Info;

    /// @return no failure, NoHome, or ReadTrash with the path of what cannot be opened.
    TavroFailure Open();
};

#endif
