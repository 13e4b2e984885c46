#include "trash_folders.h"

#include "identity.h"
#include "mounts.h"
#include "names.h"
#include "place.h"
#include "tavroops.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <unordered_set>

namespace {

TavroTrashFolders FoldersAt(std::string Base, const std::string& Root, bool bVolume) {
    return {std::move(Base), Root, TavroJoin(Root, "files"), TavroJoin(Root, "info"), bVolume};
}

} // namespace

std::vector<TavroTrashFolders> TavroTrashFoldersOnVolume(const std::string& Top) {
    const std::string user = std::to_string(geteuid());
    return {FoldersAt(Top, TavroJoin(Top, ".Trash/" + user), true),
            FoldersAt(Top, TavroJoin(Top, ".Trash-" + user), true)};
}

std::string TavroFindHome() {
    const char* home = std::getenv("HOME");
    return home != nullptr && *home == '/' ? TavroHomeDirectoryPath() : std::string();
}

TavroTrashFolders TavroFindTrashFolders() {
    const std::string home = TavroFindHome();
    const char* data = std::getenv("XDG_DATA_HOME");
    if (home.empty()) {
        return {};
    }
    const bool bData = data != nullptr && *data == '/';
    return FoldersAt(home, TavroJoin(bData ? data : TavroJoin(home, ".local/share"), "Trash"),
                     false);
}

TavroTrashFolders TavroTrashFoldersOf(const std::string& Path) {
    const std::string root = TavroParentOf(TavroParentOf(Path));
    const std::string above = TavroParentOf(root);
    for (const std::string& top : {above, TavroParentOf(above)}) {
        for (const TavroTrashFolders& folders : TavroTrashFoldersOnVolume(top)) {
            if (folders.Root == root) {
                return folders;
            }
        }
    }
    return TavroFindTrashFolders();
}

bool TavroIsLedAway(const TavroPlace& Found, const std::string& Path) {
    return Found.Directory->OwnPath != TavroParentOf(Path) && TavroTrashFoldersOf(Path).bVolume;
}

namespace {

/// Gives a new directory its mode: the umask may have taken permissions of the user's own.
int MakePrivate(int Holder, const char* Name) {
    TavroDescriptor directory;
    struct stat status = {};
    int error = TavroOpenAt(Holder, Name, O_PATH | O_DIRECTORY, directory);
    error = error != 0 ? error : TavroStat(directory.Number(), status);
    return error != 0 || (status.st_mode & 07777U) == 0700U
               ? error
               : TavroSetPathMode(directory.Number(), 0700);
}

/// Sees that there is a directory at a path.
/// @param bPrivate  a new one is the user's alone whatever the umask.
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
    int error = TavroMakeDirectoryAt(place.Number(), name, 0700);
    if (error == EEXIST && (look == 0 || look == ENOENT)) {
        return {TavroFailureKind::TrashNeedsDirectory, {}, Path};
    }
    error = error == EEXIST ? look : error;
    if (error != 0) {
        return TavroFail(TavroFailureKind::CreateTrashDirectory, error, Path);
    }
    error = bPrivate ? MakePrivate(place.Number(), name) : 0;
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
    places.FindOrCreate(TavroParentOf(share), 0700, created, ignored);
    for (const std::string& path :
         {TavroParentOf(share), share, folders.Root, folders.Files, folders.Info}) {
        const bool bPrivate = path.size() >= folders.Root.size();
        if (TavroFailure failure = EnsureDirectory(places, path, bPrivate)) {
            return failure;
        }
    }
    return {};
}

namespace {

/// Whether the home trash is to be the only one.
bool IsHomeOnly() {
    const char* wanted = std::getenv("TAVRO_TRASH");
    return wanted != nullptr && std::string(wanted) == "home";
}

} // namespace

TavroFailure TavroOpenTrash::Open(TavroTrashFolders Which) {
    Folders = std::move(Which);
    if (Folders.Root.empty()) {
        return {TavroFailureKind::NoHome};
    }
    if (Folders.bVolume) {
        return OpenOwn(TavroCreating::Nothing);
    }
    for (const auto& [path, descriptor] :
         {std::make_pair(&Folders.Files, &Files), std::make_pair(&Folders.Info, &Info)}) {
        const int error = TavroOpenDirectory(*path, *descriptor);
        if (error != 0 && error != ENOENT) {
            return TavroFail(TavroFailureKind::Read, error, *path);
        }
    }
    return {};
}

namespace {

/// Opens a directory of a trash on a volume, or creates it: a real one, of the user's own, on the
/// device of the volume. A new one is on the disk before anything goes there: what is trashed on a
/// stick that is pulled out would be nowhere.
int EnterOwn(int Holder, const std::string& Name, TavroCreating Creating, std::uint64_t Device,
             TavroDescriptor& OutDirectory) {
    struct stat status = {};
    const bool bMade =
        Creating != TavroCreating::Nothing && TavroMakeDirectoryAt(Holder, Name.c_str(), 0700) == 0;
    if (bMade) {
        MakePrivate(Holder, Name.c_str()); // where the file system has modes
    }
    int error = TavroOpenDirectoryAt(Holder, Name.c_str(), OutDirectory);
    error = error != 0 ? error : TavroStat(OutDirectory.Number(), status);
    const bool bOwn = error == 0 && status.st_uid == geteuid() && status.st_dev == Device;
    error = bOwn && bMade && Creating == TavroCreating::OnDisk ? TavroSync(Holder) : error;
    if (bOwn && error == 0) {
        return 0;
    }
    OutDirectory.Close();
    if (bMade) {
        TavroRemoveDirectoryAt(Holder, Name.c_str());
    }
    return error != 0 ? error : EPERM;
}

/// Enters a directory that all users share: each can remove in it but what is his own.
int EnterShared(TavroDescriptor& IoDirectory, const std::string& Name) {
    TavroDescriptor shared;
    struct stat status = {};
    int error = TavroOpenDirectoryAt(IoDirectory.Number(), Name.c_str(), shared);
    error = error != 0 ? error : TavroStat(shared.Number(), status);
    error = error == 0 && (status.st_mode & S_ISVTX) == 0 ? EPERM : error;
    IoDirectory = std::move(shared);
    return error;
}

} // namespace

/// From the mount point on by names that are no links.
TavroFailure TavroOpenTrash::OpenOwn(TavroCreating Creating) {
    TavroDescriptor directory;
    TavroDescriptor root;
    struct stat top = {};
    int error = TavroOpenDirectory(Folders.Base, directory);
    error = error != 0 ? error : TavroStat(directory.Number(), top);
    if (error == 0 && TavroParentOf(Folders.Root) != Folders.Base) {
        error = EnterShared(directory, TavroNameOf(TavroParentOf(Folders.Root)));
    }
    if (error == 0) {
        error = EnterOwn(directory.Number(), TavroNameOf(Folders.Root), Creating, top.st_dev, root);
    }
    if (error == ENOENT) {
        return {};
    }
    for (const auto& [name, descriptor] :
         {std::make_pair("files", &Files), std::make_pair("info", &Info)}) {
        const int opened = EnterOwn(root.Number(), name, Creating, top.st_dev, *descriptor);
        error = error != 0 || opened == ENOENT ? error : opened;
    }
    return error == 0 ? TavroFailure() : TavroFail(TavroFailureKind::Read, error, Folders.Root);
}

bool TavroOpenTrash::OpenOnVolume(const TavroVolume& Of, bool bSync) {
    for (const TavroMount& mount : IsHomeOnly() ? std::vector<TavroMount>() : TavroReadMounts()) {
        TavroDescriptor top;
        struct stat status = {};
        std::uint64_t number = 0;
        if (mount.Number != Of.Mount || !mount.HoldsFiles() ||
            TavroOpenDirectory(mount.Point, top) != 0 ||
            TavroStatWithMount(top.Number(), status, number) != 0 ||
            !(TavroVolume{status.st_dev, number} == Of)) {
            continue;
        }
        for (TavroTrashFolders& folders : TavroTrashFoldersOnVolume(mount.Point)) {
            Folders = std::move(folders);
            if (!OpenOwn(bSync ? TavroCreating::OnDisk : TavroCreating::InMemory) &&
                Files.IsOpen() && Info.IsOpen()) {
                return true;
            }
        }
    }
    return false;
}

// =================================================================================================
// All that can be reached
// =================================================================================================

namespace {

/// The mount on which a path is; of what is missing or no directory, that of what holds it.
int FindMount(std::string Path, std::uint64_t& OutMount) {
    TavroDescriptor directory;
    struct stat status = {};
    int error = TavroOpenDirectory(Path, directory);
    while (TavroIsMissing(error) && Path != TavroParentOf(Path)) {
        Path = TavroParentOf(Path);
        error = TavroOpenDirectory(Path, directory);
    }
    return error != 0 ? error : TavroStatWithMount(directory.Number(), status, OutMount);
}

/// Which directory has the records of a trash; an inode of 0: none.
TavroIdentity IdentityOfRecords(const TavroTrashFolders& Folders) {
    TavroOpenTrash trash;
    struct stat status = {};
    const bool bThere =
        !trash.Open(Folders) && trash.Info.IsOpen() && TavroStat(trash.Info.Number(), status) == 0;
    return bThere ? TavroIdentityOf(status) : TavroIdentity();
}

} // namespace

TavroFailure TavroFindTrashes(const std::string& OnVolume, TavroTrashes& OutTrashes) {
    const TavroTrashFolders home = TavroFindTrashFolders();
    OutTrashes = {};
    if (home.Root.empty()) {
        return {TavroFailureKind::NoHome};
    }
    const TavroPresence asked = OnVolume.empty()
                                    ? TavroPresence::Present
                                    : TavroLookInTime({OnVolume}, TavroPatience).front();
    std::uint64_t wanted = 0;
    std::uint64_t ofHome = 0;
    if (asked == TavroPresence::Missing) {
        return {TavroFailureKind::NoSuchEntry, {}, OnVolume};
    }
    const int error = asked == TavroPresence::Silent ? ETIMEDOUT
                      : OnVolume.empty()             ? 0
                                                     : FindMount(OnVolume, wanted);
    if (error != 0) {
        return TavroFail(TavroFailureKind::LookAt, error, OnVolume);
    }
    if (OnVolume.empty() || (FindMount(home.Root, ofHome) == 0 && ofHome == wanted)) {
        OutTrashes.Folders.push_back(home);
    }
    std::vector<std::string> tops;
    std::vector<std::string> probes;
    for (TavroMount& mount : TavroReadMounts()) {
        const bool bMeant = OnVolume.empty() || mount.Number == wanted;
        const bool bTwice = std::find(tops.begin(), tops.end(), mount.Point) != tops.end();
        if (!IsHomeOnly() && mount.HoldsFiles() && bMeant && !bTwice) {
            probes.push_back(TavroTrashFoldersOnVolume(mount.Point).back().Root);
            tops.push_back(std::move(mount.Point));
        }
    }
    const std::vector<TavroPresence> answers = TavroLookInTime(probes, TavroPatience);
    std::unordered_set<TavroIdentity> known = {IdentityOfRecords(home)};
    for (std::size_t i = 0; i < tops.size(); ++i) {
        if (answers[i] == TavroPresence::Silent) {
            OutTrashes.Silent.push_back(tops[i]);
            continue;
        }
        for (const TavroTrashFolders& folders : TavroTrashFoldersOnVolume(tops[i])) {
            const TavroIdentity identity = IdentityOfRecords(folders);
            if (identity.Inode != 0 && known.insert(identity).second) {
                OutTrashes.Folders.push_back(folders);
            }
        }
    }
    return {};
}
