#include "place.h"

#include "names.h"
#include "tavropane.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// How many directories are kept open.
constexpr std::size_t keptOpen = 8;

std::string CurrentDirectory() {
    std::error_code ec;
    return fs::current_path(ec).string();
}

/// A path without `.` components and doubled separators, made absolute.
std::string AbsoluteText(const std::string& Path, const std::string& Current) {
    const bool bAbsolute = !Path.empty() && Path.front() == '/';
    std::string result = bAbsolute || Current == "/" ? "" : Current;
    for (std::size_t at = 0; at < Path.size();) {
        const std::size_t end = std::min(Path.find('/', at), Path.size());
        const std::string component = Path.substr(at, end - at);
        if (!component.empty() && component != ".") {
            result += '/' + component;
        }
        at = end + 1;
    }
    return result.empty() ? "/" : result;
}

/// A separator, or `/.`, at the end means the directory behind a link.
bool MeansDirectoryBehind(const std::string& Path) {
    const std::string name = TavroNameOf(Path);
    return name.empty() || name == ".";
}

/// The path of the entry that a text means, as told at TavroSelectEntry.
std::string EntryPath(const std::string& Text, const std::string& Current) {
    std::string path = AbsoluteText(Text, Current);
    struct stat status = {};
    const bool bThroughLink =
        MeansDirectoryBehind(Text) && TavroStatPath(path, status) == 0 && S_ISLNK(status.st_mode) &&
        TavroStatTargetAt(AT_FDCWD, path.c_str(), status) == 0 && S_ISDIR(status.st_mode);
    if (bThroughLink || TavroNameOf(path) == "..") {
        path = TavroCanonicalizePath(path);
    }
    return path;
}

bool IsRelative(const std::string& Text) {
    return Text.empty() || Text.front() != '/';
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
            const bool bMissing = error == ENOENT || error == ENOTDIR;
            failures.push_back(
                TavroFail(bMissing ? TavroFailureKind::NoSuchEntry : TavroFailureKind::LookAt,
                          error, Paths[i]));
        }
    }
    return failures;
}

TavroOperationEntry TavroNameEntry(const std::string& Path) {
    return TavroNameEntries({Path}).front();
}

TavroOperationEntry TavroSelectEntry(const std::string& Path) {
    std::vector<TavroOperationEntry> entries;
    TavroSelectEntries({Path}, entries);
    return entries.front();
}

std::string TavroFindOwnPath(const std::string& Path) {
    const std::string path = TavroNameEntry(Path).Path;
    return path == "/" ? path
                       : TavroJoin(TavroCanonicalizePath(TavroParentOf(path)), TavroNameOf(path));
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

int TavroPlaces::Open(const std::string& Directory,
                      std::shared_ptr<const TavroDirectory>& OutDirectory) {
    const auto found = std::find_if(m_open.begin(), m_open.end(), [&](const auto& candidate) {
        return candidate->Path == Directory;
    });
    if (found != m_open.end()) {
        OutDirectory = *found;
        return 0;
    }
    auto opened = std::make_shared<TavroDirectory>();
    struct stat status = {};
    int error = TavroOpenDirectory(Directory, opened->Descriptor);
    error = error != 0 ? error : TavroStat(opened->Descriptor.Number(), status);
    if (error != 0) {
        return error;
    }
    opened->Identity = TavroIdentityOf(status);
    opened->Path = Directory;
    opened->OwnPath = TavroCanonicalizePath(Directory);
    OutDirectory = opened;
    m_open.push_front(std::move(opened));
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

TavroFailure TavroPlaces::Find(const std::string& Path, TavroPlace& OutPlace) {
    const std::string path = EntryPath(Path);
    const std::string directory = TavroParentOf(path);
    std::shared_ptr<const TavroDirectory> opened;
    const int error = Open(directory, opened);
    if (error != 0) {
        return TavroFail(TavroFailureKind::LookAt, error, Path);
    }
    OutPlace = {std::move(opened), path == "/" ? "." : TavroNameOf(path)};
    return {};
}

TavroFailure TavroPlaces::FindOrCreate(const std::string& Path, mode_t Mode,
                                       std::vector<std::string>& OutCreated, TavroPlace& OutPlace) {
    std::vector<std::string> missing;
    std::string path = Path;
    TavroPlace place;
    TavroFailure failure = Find(path, place);
    while (failure && failure.Error == std::errc::no_such_file_or_directory && path != "/") {
        path = TavroParentOf(EntryPath(path));
        missing.push_back(path);
        failure = Find(path, place);
    }
    for (; !failure && !missing.empty(); missing.pop_back()) {
        const int error = TavroMakeDirectoryAt(place.Number(), place.Name.c_str(), Mode);
        if (error == 0) {
            OutCreated.push_back(missing.back());
        } else if (error != EEXIST) {
            return TavroFail(TavroFailureKind::CreateDirectory, error, missing.back());
        }
        const bool bLast = missing.size() == 1;
        failure = Find(bLast ? Path : missing[missing.size() - 2], place);
    }
    if (!failure) {
        OutPlace = std::move(place);
    }
    return failure;
}
