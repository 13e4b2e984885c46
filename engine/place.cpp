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

/// A path without `.` components and doubled separators, made absolute.
std::string AbsoluteText(const std::string& Path) {
    std::error_code ec;
    const bool bAbsolute = !Path.empty() && Path.front() == '/';
    std::string result = bAbsolute ? "" : fs::current_path(ec).string();
    result = result == "/" ? "" : result;
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
std::string EntryPath(const std::string& Text) {
    std::string path = AbsoluteText(Text);
    struct stat status = {};
    const bool bThroughLink =
        MeansDirectoryBehind(Text) && TavroStatPath(path, status) == 0 && S_ISLNK(status.st_mode) &&
        TavroStatTargetAt(AT_FDCWD, path.c_str(), status) == 0 && S_ISDIR(status.st_mode);
    if (bThroughLink || TavroNameOf(path) == "..") {
        path = TavroCanonicalizePath(path);
    }
    return path;
}

} // namespace

TavroOperationEntry TavroNameEntry(const std::string& Path) {
    if (TavroIsCddaPath(Path)) {
        return {TavroNameOf(Path), Path, false};
    }
    std::string path = EntryPath(Path);
    return {TavroNameOf(path), std::move(path), false};
}

TavroOperationEntry TavroSelectEntry(const std::string& Path) {
    TavroOperationEntry entry = TavroNameEntry(Path);
    struct stat status = {};
    entry.bDirectory =
        !TavroIsCddaPath(Path) && TavroStatPath(entry.Path, status) == 0 && S_ISDIR(status.st_mode);
    return entry;
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
