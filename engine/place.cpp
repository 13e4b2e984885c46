#include "place.h"

#include "names.h"
#include "tavropane.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// How many directories are kept open.
constexpr std::size_t keptOpen = 8;

bool IsRelative(const std::string& Path) {
    return Path.empty() || Path.front() != '/';
}

/// Empty when there is none any more.
std::string CurrentDirectory() {
    std::error_code ec;
    return fs::current_path(ec).string();
}

/// A path without `.` components and doubled separators, made absolute. Without a current directory
/// a relative path stays one: it must not become one of the root directory.
std::string AbsoluteText(const std::string& Path, const std::string& Current) {
    const bool bRelative = IsRelative(Path);
    const bool bStaysRelative = bRelative && Current.empty();
    std::string result = bRelative && Current != "/" ? Current : "";
    for (std::size_t at = 0; at < Path.size();) {
        const std::size_t end = std::min(Path.find('/', at), Path.size());
        if (end != at && Path.compare(at, end - at, ".") != 0) {
            result.append(bStaysRelative && result.empty() ? "" : "/").append(Path, at, end - at);
        }
        at = end + 1;
    }
    return !result.empty() ? result : bStaysRelative ? "." : "/";
}

/// A path with its links resolved; one that is too long for the kernel stays as it is.
std::string ResolvedText(const std::string& Path) {
    return Path.size() < PATH_MAX ? TavroCanonicalizePath(Path) : Path;
}

/// A separator, or `/.`, at the end means the directory behind a link.
bool MeansDirectoryBehind(const std::string& Path) {
    const std::string name = TavroNameOf(Path);
    return name.empty() || name == ".";
}

/// The path of the entry that a text means, as told at TavroNameEntry.
std::string EntryPath(const std::string& Text, const std::string& Current) {
    if (Text.empty()) {
        return Text;
    }
    std::string path = AbsoluteText(Text, Current);
    struct stat status = {};
    const bool bThroughLink = MeansDirectoryBehind(Text) && TavroStatPath(path, status) == 0 &&
                              S_ISLNK(status.st_mode) && TavroStatPath(path + "/.", status) == 0;
    const bool bUp = TavroNameOf(path) == ".." && TavroStatPath(path, status) == 0;
    return bThroughLink || bUp ? ResolvedText(path) : path;
}

std::string EntryPath(const std::string& Text) {
    return EntryPath(Text, IsRelative(Text) ? CurrentDirectory() : "");
}

} // namespace

std::vector<TavroOperationEntry> TavroNameEntries(const std::vector<std::string>& Paths) {
    const bool bRelative = std::any_of(Paths.begin(), Paths.end(), IsRelative);
    const std::string current = bRelative ? CurrentDirectory() : "";
    std::vector<TavroOperationEntry> entries;
    entries.reserve(Paths.size());
    for (const std::string& path : Paths) {
        std::string own = TavroIsCddaPath(path) ? path : EntryPath(path, current);
        entries.push_back({TavroNameOf(own), std::move(own), false});
    }
    return entries;
}

std::vector<TavroFailure> TavroSelectEntries(const std::vector<std::string>& Paths,
                                             std::vector<TavroOperationEntry>& OutEntries) {
    std::vector<TavroFailure> failures;
    OutEntries = TavroNameEntries(Paths);
    for (std::size_t i = 0; i < Paths.size(); ++i) {
        struct stat status = {};
        TavroOperationEntry& entry = OutEntries[i];
        const int error = TavroIsCddaPath(entry.Path) ? 0 : TavroStatPath(entry.Path, status);
        entry.bDirectory = S_ISDIR(status.st_mode);
        if (error != 0) {
            failures.push_back(TavroFail(TavroIsMissing(error) ? TavroFailureKind::NoSuchEntry
                                                               : TavroFailureKind::LookAt,
                                         error, Paths[i]));
        }
    }
    return failures;
}

TavroOperationEntry TavroNameEntry(const std::string& Path) {
    return TavroNameEntries({Path}).front();
}

int TavroLookAt(const TavroPlace& Place, struct stat& OutStatus) {
    return TavroStatAt(Place.Number(), Place.Name.c_str(), OutStatus);
}

std::string TavroFindOwnPath(const std::string& Path) {
    const std::string path = TavroNameEntry(Path).Path;
    return TavroJoin(ResolvedText(TavroParentOf(path)), TavroNameOf(path));
}

bool TavroIsPresent(const std::string& Path) {
    struct stat status = {};
    return TavroStatPath(Path, status) == 0;
}

std::string TavroPlace::Path() const {
    return Name == "." ? Directory->Path : TavroJoin(Directory->Path, Name);
}

std::string TavroPlace::OwnPath() const {
    return Name == "." ? Directory->OwnPath : TavroJoin(Directory->OwnPath, Name);
}

std::shared_ptr<const TavroDirectory>
TavroClosed(const std::shared_ptr<const TavroDirectory>& Directory) {
    if (!Directory->Descriptor.IsOpen()) {
        return Directory;
    }
    if (!Directory->Closed) {
        auto closed = std::make_shared<TavroDirectory>();
        closed->Identity = Directory->Identity;
        closed->Mount = Directory->Mount;
        closed->Path = Directory->Path;
        closed->OwnPath = Directory->OwnPath;
        Directory->Closed = std::move(closed);
    }
    return Directory->Closed;
}

/// The directory that is open by the first `Size` bytes of a path, if there is one.
std::shared_ptr<const TavroDirectory> TavroPlaces::FindOpen(const std::string& Path,
                                                            std::size_t Size) {
    const auto found = std::find_if(m_open.begin(), m_open.end(), [&](const auto& candidate) {
        return Path.compare(0, Size, candidate->Path) == 0;
    });
    if (found == m_open.end()) {
        return nullptr;
    }
    std::rotate(m_open.begin(), found, found + 1);
    return m_open.front();
}

int TavroPlaces::Open(const std::string& Directory,
                      std::shared_ptr<const TavroDirectory>& OutDirectory) {
    OutDirectory = FindOpen(Directory, Directory.size());
    if (OutDirectory != nullptr) {
        return 0;
    }
    TavroDescriptor opened;
    const int error = TavroOpenDirectory(Directory, opened);
    return error != 0 ? error : Keep(std::move(opened), Directory, OutDirectory);
}

int TavroPlaces::Keep(TavroDescriptor Opened, const std::string& Path,
                      std::shared_ptr<const TavroDirectory>& OutDirectory) {
    auto directory = std::make_shared<TavroDirectory>();
    struct stat status = {};
    const int error = TavroStatWithMount(Opened.Number(), status, directory->Mount);
    if (error != 0) {
        return error;
    }
    if (TavroPathOf(Opened.Number(), directory->OwnPath) != 0) {
        directory->OwnPath = ResolvedText(Path);
    }
    directory->Identity = TavroIdentityOf(status);
    directory->Path = Path;
    directory->Descriptor = std::move(Opened);
    OutDirectory = directory;
    m_open.push_front(std::move(directory));
    if (m_open.size() > keptOpen) {
        m_open.pop_back();
    }
    return 0;
}

void TavroPlaces::Forget(const std::string& OwnPath) {
    const auto isGone = [&](const auto& open) {
        return open->OwnPath == OwnPath || TavroIsBelow(OwnPath, open->OwnPath);
    };
    m_open.erase(std::remove_if(m_open.begin(), m_open.end(), isGone), m_open.end());
}

namespace {

/// @return 0 for the path of an entry; else why it is none: the error number.
int FindFaultOf(const std::string& Path) {
    struct stat status = {};
    if (Path.empty() || Path == ".") {
        return ENOENT;
    }
    if (Path.find('\0') != std::string::npos) {
        return EINVAL;
    }
    if (TavroNameOf(Path) != "..") {
        return 0;
    }
    // It could not be resolved: it is missing, or too long.
    const int error = TavroStatPath(Path, status);
    return error != 0 ? error : ENAMETOOLONG;
}

/// What follows the last separator of a path is a name, and nothing else.
bool IsPlainName(const std::string& Path, std::size_t Begin) {
    if (Begin >= Path.size()) {
        return false;
    }
    const bool bDots = Path[Begin] == '.' && (Path.compare(Begin, std::string::npos, ".") == 0 ||
                                              Path.compare(Begin, std::string::npos, "..") == 0);
    return !bDots && Path.find('\0', Begin) == std::string::npos;
}

} // namespace

TavroFailure TavroPlaces::Find(const std::string& Path, TavroPlace& OutPlace) {
    // Most paths are a name in a directory that is open.
    const std::size_t slash = Path.rfind('/');
    if (slash != std::string::npos && IsPlainName(Path, slash + 1)) {
        std::shared_ptr<const TavroDirectory> open = FindOpen(Path, slash);
        if (open != nullptr) {
            OutPlace = {std::move(open), Path.substr(slash + 1)};
            return {};
        }
    }
    const std::string path = EntryPath(Path);
    std::shared_ptr<const TavroDirectory> directory;
    int error = FindFaultOf(path);
    error = error != 0 ? error : Open(TavroParentOf(path), directory);
    if (error != 0) {
        return TavroFail(TavroFailureKind::LookAt, error, Path);
    }
    OutPlace = {std::move(directory), path == "/" ? "." : TavroNameOf(path)};
    return {};
}

int TavroPlaces::Look(const std::string& Path, TavroPlace& OutPlace, struct stat& OutStatus) {
    const TavroFailure failure = Find(Path, OutPlace);
    return failure ? failure.Error.value() : TavroLookAt(OutPlace, OutStatus);
}

TavroFailure TavroPlaces::FindAgain(TavroPlace& IoPlace) {
    const TavroDirectory& was = *IoPlace.Directory;
    TavroPlace place = {FindOpen(was.Path, was.Path.size()), IoPlace.Name};
    TavroFailure failure = place.Directory ? TavroFailure() : Find(IoPlace.Path(), place);
    if (!failure && place.Directory->Identity != was.Identity) {
        failure = TavroFail(TavroFailureKind::LookAt, ESTALE, IoPlace.Path());
    }
    IoPlace.Directory = failure ? IoPlace.Directory : std::move(place.Directory);
    return failure;
}

TavroFailure TavroPlaces::FindOrCreate(const std::string& Path, mode_t Mode,
                                       std::vector<std::string>& OutCreated, TavroPlace& OutPlace) {
    TavroFailure failure = Find(Path, OutPlace);
    const std::string path = failure ? EntryPath(Path) : "";
    if (!failure || FindFaultOf(path) != 0) {
        return failure;
    }
    std::vector<std::string> missing; // inner ones first
    std::string above = path;
    TavroPlace place;
    while (failure && failure.Error.value() == ENOENT && above != TavroParentOf(above)) {
        above = TavroParentOf(above);
        missing.push_back(above);
        failure = Find(above, place);
    }
    if (failure) {
        failure.Path = Path;
        return failure;
    }
    for (; !missing.empty(); missing.pop_back()) {
        failure = EnterCreated(missing.back(), Mode, OutCreated, place);
        if (failure) {
            return failure;
        }
        place.Name = TavroNameOf(missing.size() == 1 ? path : missing[missing.size() - 2]);
    }
    OutPlace = std::move(place);
    return {};
}

/// Creates the directory that a place names, and goes into it.
TavroFailure TavroPlaces::EnterCreated(const std::string& Path, mode_t Mode,
                                       std::vector<std::string>& OutCreated, TavroPlace& Place) {
    const int error = TavroMakeDirectoryAt(Place.Number(), Place.Name.c_str(), Mode);
    if (error == 0) {
        OutCreated.push_back(Path);
    } else if (error != EEXIST) {
        return TavroFail(TavroFailureKind::CreateDirectory, error, Path);
    }
    // What was missing a moment ago is no link by which somebody leads it elsewhere.
    TavroDescriptor opened;
    int openError = TavroOpenDirectoryAt(Place.Number(), Place.Name.c_str(), opened);
    openError = openError != 0 ? openError : Keep(std::move(opened), Path, Place.Directory);
    if (openError == 0) {
        return {};
    }
    const bool bInTheWay = error == EEXIST && openError == ENOTDIR;
    return TavroFail(TavroFailureKind::CreateDirectory, bInTheWay ? EEXIST : openError, Path);
}

/// Whether the names that were read tell that there is nothing.
bool TavroNameSearch::IsMissing(const TavroPlace& Place) {
    constexpr int manyLooks = 64;
    if (m_directory != Place.Directory->Identity) {
        m_directory = Place.Directory->Identity;
        m_looks = 0;
    }
    m_looks += m_looks < manyLooks ? 1 : 0;
    if (m_looks == manyLooks && TavroListDirectory(Place.Number(), m_listing) == 0) {
        ++m_looks;
        m_names.clear();
        while (const char* name = m_listing.Next()) {
            m_names.insert(name);
        }
    }
    return m_looks > manyLooks && Place.Name != "." && m_names.count(Place.Name) == 0;
}

int TavroNameSearch::Look(const TavroPlace& Place, struct stat& OutStatus) {
    return IsMissing(Place) ? ENOENT : TavroLookAt(Place, OutStatus);
}

std::vector<std::string> TavroFindMissing(std::string Path) {
    std::vector<std::string> missing;
    struct stat status = {};
    for (; TavroIsMissing(TavroStatPath(Path, status)); Path = TavroParentOf(Path)) {
        missing.insert(missing.begin(), Path);
    }
    return missing;
}

TavroVolume TavroVolumeOf(const TavroDirectory& Directory) {
    return {Directory.Identity.Device, Directory.Mount};
}

TavroVolume TavroVolumeOf(TavroPlaces& Places, std::string Path) {
    TavroPlace place;
    while (Places.Find(Path, place) && Path != TavroParentOf(Path)) {
        Path = TavroParentOf(Path);
    }
    return place.Directory ? TavroVolumeOf(*place.Directory) : TavroVolume();
}

bool TavroIsBelowDevice(const std::string& Path, std::uint64_t Device) {
    TavroPlaces places;
    return TavroVolumeOf(places, Path).Device == Device;
}
