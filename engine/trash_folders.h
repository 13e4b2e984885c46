/// Where the trashes of this user are, at home and on other volumes, and that they are there. With
/// TAVRO_TRASH=home those on other volumes are neither used nor looked for.

#ifndef TAVRO_ENGINE_TRASH_FOLDERS_H
#define TAVRO_ENGINE_TRASH_FOLDERS_H

#include "failure.h"
#include "place.h"
#include "posix.h"

#include <string>
#include <vector>

/// `HOME`, with links resolved. Empty when it is unset, or not absolute: it would be another place
/// in each directory.
std::string TavroFindHome();

/// The directories of a trash. Empty paths when there is none: TavroFindHome finds nothing.
struct TavroTrashFolders {
    std::string Base; ///< What relative paths in its records begin at: the home directory, or the
                      ///< mount point of its volume.
    std::string Root;
    std::string Files;
    std::string Info;
    bool bVolume = false; ///< Its records tell relative paths, and no link leads to it.
};

/// The home trash: `Trash` below `XDG_DATA_HOME` (when that is set and absolute) or else below
/// `HOME/.local/share`.
TavroTrashFolders TavroFindTrashFolders();

/// The trashes that this user may have on the volume with a mount point, the one to be used first.
std::vector<TavroTrashFolders> TavroTrashFoldersOnVolume(const std::string& Top);

/// Whether a link on a volume leads to another place than the path of an item or a record says.
bool TavroIsLedAway(const TavroPlace& Found, const std::string& Path);

/// The trash that has a file at `ROOT/files/NAME` or `ROOT/info/NAME`, by the path alone: the one
/// of a volume, or else the home trash.
TavroTrashFolders TavroTrashFoldersOf(const std::string& Path);

/// Creates the directories of the home trash that are missing, and those above them, for the user
/// alone (mode 0700, the trash itself whatever the umask). Those that exist keep their mode.
///
/// @return no failure when they exist; NoHome, TrashNeedsDirectory, CreateTrashDirectory or
///         MakeTrashPrivate, with the path that is in the way or could not be created.
TavroFailure TavroEnsurePrivateTrash();

/// What is done about directories of a trash that are missing.
enum class TavroCreating { Nothing, InMemory, OnDisk };

/// A trash, open.
struct TavroOpenTrash {
    TavroTrashFolders Folders;
    TavroDescriptor Files; ///< A directory that does not exist is not open.
    TavroDescriptor Info;

    /// Creates nothing. The directories of a volume's trash are opened when they are the user's
    /// own and no links: anybody can have prepared a volume.
    ///
    /// @return no failure, NoHome, or Read with the path of what cannot be opened.
    TavroFailure Open(TavroTrashFolders Which = TavroFindTrashFolders());

    /// Opens the trash for what is on a mount other than the home trash's, and creates what is
    /// missing of it: `.Trash/UID` at the mount point, where `.Trash` is a real directory with the
    /// sticky bit, else `.Trash-UID`.
    ///
    /// @param Of     of what is to be renamed into it: a mount can show several devices.
    /// @param bSync  whether what is new is brought to the disk.
    /// @return false when there can be none.
    bool OpenOnVolume(const TavroVolume& Of, bool bSync);

private:
    TavroFailure OpenOwn(TavroCreating Creating);
};

/// The trashes that a person sees.
struct TavroTrashes {
    std::vector<TavroTrashFolders> Folders; ///< The home trash first, each trash once.
    std::vector<std::string> Silent;        ///< Mount points that did not answer within a second.
};

/// Finds the home trash, there or not, and those of all other volumes that can be reached.
///
/// @param OnVolume  a path: only those on its mount. Empty: all.
/// @return no failure, NoHome, NoSuchEntry when there is nothing at that path, or LookAt when it
///         cannot be looked at, or does not answer within a second.
TavroFailure TavroFindTrashes(const std::string& OnVolume, TavroTrashes& OutTrashes);

#endif
