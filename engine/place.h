/// Where an entry is: the directory that holds it, opened once, and its name there. Whatever
/// becomes of the path meanwhile, what follows stays in that directory.

#ifndef TAVRO_ENGINE_PLACE_H
#define TAVRO_ENGINE_PLACE_H

#include "failure.h"
#include "identity.h"
#include "posix.h"
#include "tavroops.h"

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

/// An open directory.
struct TavroDirectory {
    TavroDescriptor Descriptor;
    TavroIdentity Identity;
    std::uint64_t Mount = 0; ///< The number of the mount on which it was opened.
    std::string Path;        ///< As it was asked for, for messages.
    std::string OwnPath;     ///< Absolute, with links resolved as far as they could be.

    /// The same, closed, for whoever knew it; TavroClosed makes it.
    mutable std::shared_ptr<const TavroDirectory> Closed = {};
};

/// What is known of a directory that is not held open: one for all that were in it.
std::shared_ptr<const TavroDirectory>
TavroClosed(const std::shared_ptr<const TavroDirectory>& Directory);

/// As long as a place is kept, its directory is open: not to be kept for thousands of entries.
struct TavroPlace {
    std::shared_ptr<const TavroDirectory> Directory;
    std::string Name;

    int Number() const {
        return Directory->Descriptor.Number();
    }

    /// For messages, and what is printed: as the path was asked for.
    std::string Path() const;

    /// The path of the entry itself: links on the way resolved, the last component not.
    std::string OwnPath() const;
};

/// Opens directories, and keeps the last few open: neighbours in a selection share them.
class TavroPlaces {
public:
    /// The place of the entry that a path means, as told at TavroNameEntry. Links on the way are
    /// followed, here and only here; the entry itself need not exist. The place of `/` is "." in
    /// itself; no other place has the name ".".
    ///
    /// @param OutPlace  set after success only.
    /// @return a failure of the kind LookAt, with the path as it was given, when the directory
    ///         cannot be opened, and for what is no path: an empty one (ENOENT), one with a zero
    ///         byte (EINVAL), one that ends in `..` and cannot be resolved.
    TavroFailure Find(const std::string& Path, TavroPlace& OutPlace);

    /// Finds the place of an entry, and looks at it, and at no target of a link.
    /// @param OutPlace  as Find sets it, whether something is there or not.
    /// @return 0, or the error number of either.
    int Look(const std::string& Path, TavroPlace& OutPlace, struct stat& OutStatus);

    /// As Find; directories that are missing above the entry are created, and entered without
    /// following a link that somebody has put in their place meanwhile.
    ///
    /// @param Mode        that of new directories, less the umask.
    /// @param OutCreated  gets the paths of the created ones added, outer ones first, also before a
    ///                    failure.
    /// @return as Find; or of the kind CreateDirectory, with the directory's path.
    TavroFailure FindOrCreate(const std::string& Path, mode_t Mode,
                              std::vector<std::string>& OutCreated, TavroPlace& OutPlace);

    /// As Find, for the directory of a place: the one that it was, or ESTALE.
    TavroFailure FindAgain(TavroPlace& IoPlace);

    /// Closes a directory and what is below it, because it has gone from its path. The next search
    /// for that path finds what is there then.
    void Forget(const std::string& OwnPath);

private:
    std::shared_ptr<const TavroDirectory> FindOpen(const std::string& Path, std::size_t Size);

    /// @return 0, or the error number.
    int Open(const std::string& Directory, std::shared_ptr<const TavroDirectory>& OutDirectory);
    int Keep(TavroDescriptor Opened, const std::string& Path,
             std::shared_ptr<const TavroDirectory>& OutDirectory);
    TavroFailure EnterCreated(const std::string& Path, mode_t Mode,
                              std::vector<std::string>& OutCreated, TavroPlace& Place);

    std::deque<std::shared_ptr<const TavroDirectory>> m_open; ///< The last used first.
};

/// Looks for names in one directory after the other. From many looks into the same one on, its
/// names are read at once: what comes there later is not seen.
class TavroNameSearch {
public:
    /// @param OutStatus  of what is there.
    /// @return 0; ENOENT when nothing of that name is there; or the error number of looking.
    int Look(const TavroPlace& Place, struct stat& OutStatus);

    /// Begins anew: the directory was changed.
    void Forget() {
        m_directory = {};
    }

private:
    bool IsMissing(const TavroPlace& Place);

    TavroIdentity m_directory; ///< That was looked into last.
    int m_looks = 0;
    TavroListing m_listing;
    std::unordered_set<std::string_view> m_names; ///< Once it was listed.
};

/// Looks at an entry, and at no target of a link. @return 0, or the error number.
int TavroLookAt(const TavroPlace& Place, struct stat& OutStatus);

/// The record of the entry at a path, without a look at the entry where the path alone tells
/// enough.
///
/// @param Path  absolute, or relative to the current directory of the process. Links are not
///              resolved; `.` components and separators at the end are dropped, unless the path is
///              a link whose separator at the end (or `/.`) means the directory behind it. A path
///              that ends in `..` is resolved where it exists. An audio track's path stays as it
///              is, and so does an empty one.
/// @return the record with an absolute `Path` (relative only when there is no current directory any
///         more), its last component as `Name`, and a `bDirectory` that is false.
TavroOperationEntry TavroNameEntry(const std::string& Path);

/// TavroNameEntry for many paths: the current directory is asked for once.
std::vector<TavroOperationEntry> TavroNameEntries(const std::vector<std::string>& Paths);

/// TavroNameEntries with a look at each.
///
/// @param OutEntries  one for each path, in order; `bDirectory` is true exactly for a directory,
///                    and not for a link to one.
/// @return why entries cannot be selected, in order: NoSuchEntry or LookAt, with the path as it was
///         given. An audio track always can.
std::vector<TavroFailure> TavroSelectEntries(const std::vector<std::string>& Paths,
                                             std::vector<TavroOperationEntry>& OutEntries);

/// The path of an entry itself: the canonical path of its directory, and its name. What it names
/// need not exist.
std::string TavroFindOwnPath(const std::string& Path);

/// The directories at a path and above it that are missing, outer ones first.
std::vector<std::string> TavroFindMissing(std::string Path);

/// Whether there is something at a path. A dangling link is something.
bool TavroIsPresent(const std::string& Path);

/// What a rename cannot leave: a device, and one of the mounts of it.
struct TavroVolume {
    std::uint64_t Device = 0;
    std::uint64_t Mount = 0;

    bool operator==(const TavroVolume& Other) const {
        return Device == Other.Device && Mount == Other.Mount;
    }
};

/// That of what is in a directory.
TavroVolume TavroVolumeOf(const TavroDirectory& Directory);

/// The volume of the directory that holds an entry, or will hold it when those that are missing are
/// created.
TavroVolume TavroVolumeOf(TavroPlaces& Places, std::string Path);

/// Whether the innermost directory above a path that is there is on a device: if not, what is
/// missing at the path may be on a file system that is.
bool TavroIsBelowDevice(const std::string& Path, std::uint64_t Device);

#endif
