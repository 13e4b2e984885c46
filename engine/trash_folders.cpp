#include "trash_folders.h"

#include "names.h"
#include "place.h"
#include "tavroops.h"

#include <cerrno>
#include <fcntl.h>

TavroTrashFolders TavroFindTrashFolders() {
    const std::string home = TavroHomeDirectoryPath();
    if (home.empty()) {
        return {};
    }
    const std::string root = TavroJoin(home, ".local/share/Trash");
    return {home, root, TavroJoin(root, "files"), TavroJoin(root, "info")};
}

namespace {

/// Gives a new directory its mode: the umask may have taken permissions of the user's own.
int MakePrivate(const TavroPlace& Place) {
    TavroDescriptor directory;
    struct stat status = {};
    int error = TavroOpenAt(Place.Number(), Place.Name.c_str(), O_PATH | O_DIRECTORY, directory);
    error = error != 0 ? error : TavroStat(directory.Number(), status);
    return error != 0 || (status.st_mode & 07777U) == 0700U
               ? error
               : TavroSetPathMode(directory.Number(), 0700);
}

/// Sees that there is a directory at a path.
/// @param bPrivate  a new one is the user's alone; else it gets the mode of any new directory.
TavroFailure EnsureDirectory(TavroPlaces& Places, const std::string& Path, bool bPrivate) {
    TavroPlace place;
    if (TavroFailure failure = Places.Find(Path, place)) {
        return TavroFail(TavroFailureKind::CreateTrashDirectory, failure.Error.value(), Path);
    }
    const char* const name = place.Name.c_str();
    struct stat status = {};
    const int look = TavroStatTargetAt(place.Number(), name, status);
    if (look == 0 && S_ISDIR(status.st_mode)) {
        return {};
    }
    int error = TavroMakeDirectoryAt(place.Number(), name, bPrivate ? 0700 : 0777);
    if (error == EEXIST && (look == 0 || look == ENOENT)) {
        return {TavroFailureKind::TrashNeedsDirectory, {}, Path};
    }
    error = error == EEXIST ? look : error;
    if (error != 0) {
        return TavroFail(TavroFailureKind::CreateTrashDirectory, error, Path);
    }
    error = bPrivate ? MakePrivate(place) : 0;
    return error == 0 ? TavroFailure() : TavroFail(TavroFailureKind::MakeTrashPrivate, error, Path);
}

} // namespace

TavroFailure TavroEnsurePrivateTrash() {
    const TavroTrashFolders folders = TavroFindTrashFolders();
    if (folders.Root.empty()) {
        return {TavroFailureKind::NoHome};
    }
    TavroDescriptor files;
    TavroDescriptor info;
    if (TavroOpenDirectory(folders.Files, files) == 0 &&
        TavroOpenDirectory(folders.Info, info) == 0) {
        return {}; // and so is what is above them
    }
    const std::string share = TavroParentOf(folders.Root);
    TavroPlaces places;
    TavroPlace ignored;
    std::vector<std::string> created;
    // What fails here fails again one level below.
    places.FindOrCreate(TavroParentOf(share), 0777, created, ignored);
    for (const std::string& path :
         {TavroParentOf(share), share, folders.Root, folders.Files, folders.Info}) {
        const bool bPrivate = path.size() >= folders.Root.size();
        if (TavroFailure failure = EnsureDirectory(places, path, bPrivate)) {
            return failure;
        }
    }
    return {};
}

TavroFailure TavroOpenTrash::Open() {
    Folders = TavroFindTrashFolders();
    if (Folders.Root.empty()) {
        return {TavroFailureKind::NoHome};
    }
    for (const auto& [path, descriptor] :
         {std::make_pair(&Folders.Files, &Files), std::make_pair(&Folders.Info, &Info)}) {
        const int error = TavroOpenDirectory(*path, *descriptor);
        if (error != 0 && error != ENOENT) {
            return TavroFail(TavroFailureKind::ReadTrash, error, *path);
        }
    }
    return {};
}
