#include "world.h"

#include <cstdio>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

constexpr const char* secret = "the victim's secret";
constexpr unsigned adversary = 65534;

std::string describe(const fs::path& path, const struct stat& status) {
    char row[300];
    std::snprintf(row, sizeof row,
                  "%o %u:%u %lld bytes %llu names %lld.%09ld %lld.%09ld %lld.%09ld", status.st_mode,
                  status.st_uid, status.st_gid, static_cast<long long>(status.st_size),
                  static_cast<unsigned long long>(status.st_nlink),
                  static_cast<long long>(status.st_atim.tv_sec), status.st_atim.tv_nsec,
                  static_cast<long long>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec,
                  static_cast<long long>(status.st_ctim.tv_sec), status.st_ctim.tv_nsec);
    char names[1000];
    const ssize_t size = llistxattr(path.c_str(), names, sizeof names);
    return path.string() + " " + row + " " +
           std::string(names, size < 0 ? 0 : static_cast<std::size_t>(size));
}

/// The tree of the adversary, and that of the victim, which bears the same names.
void makeTree(const fs::path& top, const std::string& bytes) {
    writeFile(top / "file", bytes + " in file");
    writeFile(top / "sub/inner", bytes + " in inner");
    writeFile(top / "sub/deep/leaf", bytes + " in deep/leaf");
    writeFile(top / "sub/closed/leaf", bytes + " in closed/leaf");
    fs::create_symlink("file", top / "link");
    fs::permissions(top / "sub/closed", fs::perms(0500));
}

/// Whoever reads a file whose access time is older than its modification gives it another one.
void makeReadingShow(const fs::path& tree) {
    const struct timespec times[2] = {{1000, 1}, {2000, 2}};
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
        utimensat(AT_FDCWD, entry.path().c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
    utimensat(AT_FDCWD, tree.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

/// The first file below `top` that holds the secret.
std::string holderOfSecret(const fs::path& top) {
    std::error_code ec;
    const auto options = fs::directory_options::skip_permission_denied;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top, options, ec)) {
        const bool bFile = fs::is_regular_file(entry.symlink_status(ec));
        if (bFile && readFile(entry.path()).find(secret) != std::string::npos) {
            return entry.path();
        }
    }
    return "";
}

} // namespace

std::vector<std::string> lookAt(const fs::path& tree) {
    struct stat status = {};
    std::vector<std::string> rows;
    if (lstat(tree.c_str(), &status) == 0) {
        rows.push_back(describe(tree, status));
    }
    // The names are known, so that no directory has to be read.
    if (S_ISDIR(status.st_mode)) {
        for (const char* name :
             {"file", "link", "sub", "inner", "deep", "closed", "leaf", "tree"}) {
            const std::vector<std::string> below = lookAt(tree / name);
            rows.insert(rows.end(), below.begin(), below.end());
        }
    }
    return rows;
}

World::World(bool bFar) : m_victim(m_near / "victim") {
    if (bFar) {
        m_far = std::make_unique<Sandbox>();
    }
    makeTree(m_victim, secret);
    makeTree(m_victim / "tree", secret);
    fs::permissions(m_victim, fs::perms(0700));
    makeReadingShow(m_victim);
    m_victimBefore = lookAt(m_victim);
}

void World::begin() {
    ++m_run;
    m_opened.clear();
    m_opening.clear();
    makeDirectory(home());
    makeDirectory(dest());
    makeDirectory(m_near / std::to_string(m_run) / "aside");
    makeDirectory(dest().parent_path() / "aside");
    m_home = nullptr; // the old one is put back first
    m_home = std::make_unique<ScopedEnvironment>("HOME", home().string());
    makeTree(tree(), "bytes");
    giveAway(work());
    giveAway(dest());
}

fs::path World::work() const {
    return m_near / std::to_string(m_run) / "work";
}

fs::path World::dest() const {
    return (m_far ? *m_far : m_near) / std::to_string(m_run) / "dest";
}

fs::path World::home() const {
    return (m_far ? *m_far : m_near) / std::to_string(m_run) / "home";
}

void World::giveAway(const fs::path& tree) const {
    if (!isRoot()) {
        return;
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
        if (lchown(entry.path().c_str(), adversary, adversary) != 0) {
            throw std::runtime_error("the test cannot be set up: lchown " + entry.path().string());
        }
    }
    if (lchown(tree.c_str(), adversary, adversary) != 0) {
        throw std::runtime_error("the test cannot be set up: lchown");
    }
}

bool World::exchange(const fs::path& entry, const fs::path& target) {
    if (!carryOff(entry)) {
        return false;
    }
    fs::create_symlink(target, entry);
    return true;
}

bool World::carryOff(const fs::path& entry) {
    // A closed directory has to be opened to be moved to another one.
    std::error_code ec;
    const bool bNear = entry.string().rfind(m_near.path().string(), 0) == 0;
    const fs::path top = (bNear ? m_near.path() : m_far->path()) / std::to_string(m_run) / "aside";
    const fs::path aside = top / std::to_string(++m_aside);
    fs::rename(entry, aside, ec);
    return !ec;
}

bool World::notice(const std::string& call, const std::string& path) {
    m_opened.insert(m_opening);
    m_opening = call == "openat" ? path : "";
    const auto isBelow = [&](const fs::path& place) {
        return path.rfind(place.parent_path().string() + "/", 0) == 0;
    };
    return (isBelow(work()) || isBelow(dest())) && path.find("/tavro/history") == std::string::npos;
}

std::string World::damage() const {
    const std::vector<std::string> now = lookAt(m_victim);
    for (std::size_t i = 0; i < m_victimBefore.size(); ++i) {
        if (i >= now.size() || now[i] != m_victimBefore[i]) {
            return "the victim is not what it was: " + m_victimBefore[i] + "\nis now " +
                   (i < now.size() ? now[i] : std::string("gone"));
        }
    }
    if (now.size() != m_victimBefore.size()) {
        return "something is new at the victim: " + now.back();
    }
    for (const fs::path& place : {work().parent_path(), dest().parent_path()}) {
        const std::string holder = holderOfSecret(place);
        if (!holder.empty()) {
            return "the secret was copied to " + holder;
        }
    }
    return "";
}

} // namespace tavro_test
