#include "guard.h"

#include "names.h"
#include "trash_folders.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <limits>

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
    if (home != nullptr && !trash.Root.empty()) {
        Protect(home, Why::IsHome, Why::HoldsHome);
        Protect(trash.Root, Why::IsTrash, Why::HoldsTrash);
        Protect(trash.Files, Why::IsTrashDirectory, Why::HoldsTrashDirectory);
        Protect(trash.Info, Why::IsTrashDirectory, Why::HoldsTrashDirectory);
        for (const std::string& path : {trash.Root, trash.Files, trash.Info}) {
            m_trash.push_back(TavroCanonicalizePath(path));
        }
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

namespace {

/// The mount point of a line of /proc/self/mountinfo: its fifth field, where blanks and the like
/// are a backslash and three octal digits.
std::string MountPointOf(const std::string& Line) {
    std::size_t at = 0;
    for (int field = 1; field < 5; ++field) {
        at = std::min(Line.find(' ', at), Line.size() - 1) + 1;
    }
    std::string path;
    for (; at < Line.size() && Line[at] != ' '; ++at) {
        if (Line[at] != '\\' || at + 3 >= Line.size()) {
            path += Line[at];
            continue;
        }
        const int value = (Line[at + 1] - '0') * 64 + (Line[at + 2] - '0') * 8 + Line[at + 3] - '0';
        path += static_cast<char>(value);
        at += 3;
    }
    return path;
}

} // namespace

void TavroGuard::ReadMountPoints() {
    TavroDescriptor file;
    std::string lines;
    m_bMountPointsRead = true;
    if (TavroOpenFile("/proc/self/mountinfo", file) != 0 ||
        TavroReadFile(file.Number(), std::numeric_limits<std::size_t>::max(), lines) != 0) {
        return;
    }
    for (std::size_t at = 0, end = 0; at < lines.size(); at = end + 1) {
        end = std::min(lines.find('\n', at), lines.size());
        m_mountPoints.push_back(MountPointOf(lines.substr(at, end - at)));
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

TavroFailure TavroGuard::Check(const TavroPlace& Place, const struct stat& Status) {
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
    if (!bDirectory) {
        return {};
    }
    if (!m_bMountPointsRead) {
        ReadMountPoints();
    }
    const std::string own = Place.OwnPath();
    const std::string* const mounted = MountPointIn(own);
    if (mounted == nullptr) {
        return {};
    }
    return *mounted == own ? Refuse(Place, TavroRefusal::IsMountPoint)
                           : Refuse(Place, TavroRefusal::HoldsMountPoint, *mounted);
}
