#include "guard.h"

#include "history.h"
#include "mounts.h"
#include "names.h"
#include "trash_folders.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>

namespace {

class RefusalCategory : public std::error_category {
public:
    const char* name() const noexcept override {
        return "refusal";
    }
    std::string message(int Value) const override {
        static constexpr const char* sentences[] = {
            "",
            "it is the root directory",
            "it is the home directory",
            "it holds the home directory",
            "it is the trash",
            "it holds the trash",
            "it is a directory of the trash",
            "it holds a directory of the trash",
            "it is the directory of the history",
            "it holds the history",
            "it is a file of the history",
            "it is the current directory",
            "it holds the current directory",
            "it is a mount point",
            "it holds the mount point",
            "it is in the trash already",
            "it is an audio CD track",
            "it is selected twice",
        };
        return sentences[Value];
    }
};

} // namespace

std::error_code make_error_code(TavroRefusal Refusal) {
    static const RefusalCategory category;
    return {static_cast<int>(Refusal), category};
}

// =================================================================================================
// What is protected
// =================================================================================================

TavroGuard::TavroGuard(TavroAct Act) : m_act(Act) {
    using Why = TavroRefusal;
    Protect("/", Why::IsRoot, Why::IsRoot);
    const TavroTrashFolders trash = TavroFindTrashFolders();
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') {
        Protect(home, Why::IsHome, Why::HoldsHome);
    }
    if (!trash.Root.empty()) {
        Protect(trash.Root, Why::IsTrash, Why::HoldsTrash);
        Protect(trash.Files, Why::IsTrashDirectory, Why::HoldsTrashDirectory);
        Protect(trash.Info, Why::IsTrashDirectory, Why::HoldsTrashDirectory);
        for (const std::string& path : {trash.Root, trash.Files, trash.Info}) {
            m_trash.push_back(TavroCanonicalizePath(path));
        }
    }
    const std::string history = TavroHistoryPath();
    if (!history.empty()) {
        Protect(TavroParentOf(history), Why::IsHistory, Why::HoldsHistory);
    }
    std::error_code ec;
    const std::string current = std::filesystem::current_path(ec).string();
    if (m_act == TavroAct::Delete && !ec) {
        Protect(current, Why::IsCurrent, Why::HoldsCurrent);
    }
}

/// Protects all that a path leads through: directories, links, and where these lead.
void TavroGuard::Protect(std::string Path, TavroRefusal Is, TavroRefusal Holds) {
    constexpr int linksAtMost = 40;
    // A separator at the end would hide a link.
    Path.erase(std::min(Path.find_last_not_of('/'), Path.size() - 1) + 1);
    Path = TavroNameEntry(Path).Path;
    for (int links = 0; links <= linksAtMost && !Path.empty(); ++links) {
        Path = ProtectWay(Path, Is, Holds);
    }
}

/// Goes along a path as far as there is something, or to the first link.
/// @return where that link leads; empty when there was none.
std::string TavroGuard::ProtectWay(const std::string& Path, TavroRefusal Is, TavroRefusal Holds) {
    for (std::size_t end = 0; end < Path.size();) {
        end = end == 0 ? 1 : std::min(Path.find('/', end + 1), Path.size());
        const std::string way = Path.substr(0, end);
        struct stat status = {};
        std::string target;
        if (TavroStatPath(way, status) != 0) {
            return {};
        }
        const bool bLink =
            S_ISLNK(status.st_mode) && TavroReadLinkAt(AT_FDCWD, way.c_str(), target) == 0;
        m_protected.try_emplace(TavroIdentityOf(status),
                                Protection{end == Path.size() ? Is : Holds,
                                           bLink ? TavroFindOwnPath(way) : std::string()});
        if (bLink) {
            const bool bAbsolute = target.rfind('/', 0) == 0;
            return (bAbsolute ? target : TavroJoin(TavroParentOf(way), target)) + Path.substr(end);
        }
    }
    return {};
}

void TavroGuard::ReadMountPoints() {
    m_bMountPointsRead = true;
    for (TavroMount& mount : TavroReadMounts()) {
        m_mountPoints.push_back(std::move(mount.Point));
    }
    std::sort(m_mountPoints.begin(), m_mountPoints.end());
}

/// A mount point at a path or, if there is none, one below it; null when there is none either.
const std::string* TavroGuard::MountPointIn(const std::string& Path) const {
    for (const std::string& first : {Path, TavroJoin(Path, "")}) {
        const auto found = std::lower_bound(m_mountPoints.begin(), m_mountPoints.end(), first);
        if (found != m_mountPoints.end() && (*found == Path || TavroIsBelow(Path, *found))) {
            return &*found;
        }
    }
    return nullptr;
}

// =================================================================================================
// Checking
// =================================================================================================

bool TavroGuard::IsInTrash(const TavroDirectory& Directory) const {
    const auto found = m_protected.find(Directory.Identity);
    const bool bOfTrash =
        found != m_protected.end() && (found->second.Why == TavroRefusal::IsTrash ||
                                       found->second.Why == TavroRefusal::IsTrashDirectory);
    return bOfTrash || std::any_of(m_trash.begin(), m_trash.end(), [&](const std::string& trash) {
               return TavroIsBelow(trash, Directory.OwnPath);
           });
}

TavroFailure TavroGuard::Refuse(const TavroPlace& Place, TavroRefusal Why,
                                std::string Other) const {
    constexpr TavroFailureKind kinds[] = {
        TavroFailureKind::RefuseTrash, TavroFailureKind::RefuseDelete, TavroFailureKind::RefuseMove,
        TavroFailureKind::RefuseRename};
    return {kinds[static_cast<int>(m_act)], Why, Place.Path(), std::move(Other)};
}

/// The trash of a volume is at its mount point.
TavroFailure TavroGuard::CheckVolumeTrash(const TavroPlace& Place, bool bDirectory) {
    static const std::string name = "/.Trash";
    const std::string own = Place.OwnPath();
    for (std::size_t at = own.find(name); at != std::string::npos; at = own.find(name, at + 1)) {
        const std::string top = at == 0 ? "/" : own.substr(0, at);
        if (!std::binary_search(m_mountPoints.begin(), m_mountPoints.end(), top)) {
            continue;
        }
        for (const TavroTrashFolders& folders : TavroTrashFoldersOnVolume(top)) {
            if (m_act == TavroAct::Trash && TavroIsBelow(folders.Root, own) &&
                own != folders.Files && own != folders.Info) {
                return Refuse(Place, TavroRefusal::InTrash);
            }
            if (bDirectory && (own == folders.Files || own == folders.Info)) {
                return Refuse(Place, TavroRefusal::IsTrashDirectory);
            }
            if (bDirectory && (own == folders.Root || (own == TavroParentOf(folders.Root) &&
                                                       TavroIsPresent(folders.Root)))) {
                return Refuse(Place, own == folders.Root ? TavroRefusal::IsTrash
                                                         : TavroRefusal::HoldsTrash);
            }
        }
    }
    return {};
}

/// Whether the history keeps what is at a place. One that was set aside is nobody's any more.
bool TavroGuard::IsOfHistory(const TavroPlace& Place) const {
    if (Place.Name.rfind("history.db", 0) != 0 ||
        Place.Name.find(".damaged-") != std::string::npos) {
        return false;
    }
    const auto found = m_protected.find(Place.Directory->Identity);
    return found != m_protected.end() && found->second.Why == TavroRefusal::IsHistory;
}

TavroFailure TavroGuard::Check(const TavroPlace& Place, const struct stat& Status) {
    if (IsOfHistory(Place)) {
        return Refuse(Place, TavroRefusal::IsOfHistory);
    }
    const bool bDirectory = S_ISDIR(Status.st_mode);
    const auto found = bDirectory || S_ISLNK(Status.st_mode)
                           ? m_protected.find(TavroIdentityOf(Status))
                           : m_protected.end();
    if (found != m_protected.end() && (bDirectory || found->second.Link == Place.OwnPath())) {
        return Refuse(Place, found->second.Why);
    }
    if (m_act == TavroAct::Trash && IsInTrash(*Place.Directory)) {
        return Refuse(Place, TavroRefusal::InTrash);
    }
    const bool bMaybeTrash = Place.Name.rfind(".Trash", 0) == 0 ||
                             Place.Directory->OwnPath.find("/.Trash") != std::string::npos;
    if (!bDirectory && !bMaybeTrash) {
        return {};
    }
    if (!m_bMountPointsRead) {
        ReadMountPoints();
    }
    TavroFailure failure = bMaybeTrash ? CheckVolumeTrash(Place, bDirectory) : TavroFailure();
    if (failure || !bDirectory) {
        return failure;
    }
    const std::string own = Place.OwnPath();
    const std::string* const mounted = MountPointIn(own);
    if (mounted == nullptr) {
        return {};
    }
    return *mounted == own ? Refuse(Place, TavroRefusal::IsMountPoint)
                           : Refuse(Place, TavroRefusal::HoldsMountPoint, *mounted);
}
