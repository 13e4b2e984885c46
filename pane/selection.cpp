#include "selection.h"

#include "tavropane.h"

namespace fs = std::filesystem;

namespace {

fs::path WithoutDots(const fs::path& Path) {
    fs::path result;
    for (const fs::path& component : Path) {
        if (component != "." && !component.empty()) {
            result /= component;
        }
    }
    return result;
}

} // namespace

TavroOperationEntry TavroSelectEntry(const std::string& Path) {
    if (TavroIsCddaPath(Path)) {
        return {fs::path(Path).filename().string(), Path, false};
    }
    std::error_code ec;
    fs::path path = WithoutDots(fs::absolute(Path, ec));
    const fs::path typedName = fs::path(Path).filename();
    const bool bThroughLink = (typedName.empty() || typedName == ".") &&
                              fs::is_symlink(fs::symlink_status(path, ec)) &&
                              fs::is_directory(path, ec);
    if (bThroughLink || path.filename() == "..") {
        path = fs::canonical(path, ec);
    }
    const bool bDirectory = fs::is_directory(fs::symlink_status(path, ec));
    return {path.filename().string(), path.string(), bDirectory};
}

std::vector<TavroOperationEntry> TavroKeepLinks(std::vector<TavroOperationEntry> Entries) {
    std::error_code ec;
    for (TavroOperationEntry& entry : Entries) {
        entry.bDirectory = entry.bDirectory || fs::is_symlink(fs::symlink_status(entry.Path, ec));
    }
    return Entries;
}

bool TavroIsPresent(const fs::path& Path) {
    std::error_code ec;
    return fs::exists(fs::symlink_status(Path, ec));
}
