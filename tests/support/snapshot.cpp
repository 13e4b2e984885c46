#include "snapshot.h"

#include "sandbox.h"

#include <sstream>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

std::string describe(const fs::path& path, const struct stat& status) {
    std::ostringstream row;
    switch (status.st_mode & S_IFMT) {
    case S_IFLNK:
        return "link -> " + fs::read_symlink(path).string();
    case S_IFDIR:
        row << "directory ";
        break;
    case S_IFREG:
        row << "file ";
        break;
    case S_IFIFO:
        row << "fifo ";
        break;
    case S_IFSOCK:
        row << "socket ";
        break;
    default:
        row << "device ";
        break;
    }
    row << std::oct << (status.st_mode & 07777U);
    if (S_ISREG(status.st_mode)) {
        row << ' ' << readFile(path);
    }
    return row.str();
}

void addTree(const fs::path& path, const std::string& name, Snapshot& snapshot) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        return;
    }
    snapshot[name] = describe(path, status);
    if (!S_ISDIR(status.st_mode)) {
        return;
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
        const std::string child = entry.path().filename().string();
        addTree(entry.path(), name == "." ? child : name + "/" + child, snapshot);
    }
}

} // namespace

Snapshot takeSnapshot(const fs::path& root) {
    Snapshot snapshot;
    addTree(root, ".", snapshot);
    return snapshot;
}

} // namespace tavro_test
