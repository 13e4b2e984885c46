#include "world.h"

#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
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
}

/// Nine directories, one in the other. Names are listed from the last to the first in memory, so
/// that something comes after the next directory.
void makeChain(fs::path directory) {
    for (int level = 0; level < 9; ++level) {
        writeFile(directory / "file", "bytes");
        writeFile(directory / "inner", "bytes");
        directory /= "d";
        makeDirectory(directory);
    }
    writeFile(directory / "leaf", "bytes");
}

constexpr const char* bystander = "a bystander's bytes";
constexpr const char* bystanders[] = {"file", "inner", "leaf"};

/// Whoever reads a file whose access time is older than its modification gives it another one.
void makeReadingShow(const fs::path& tree) {
    const struct timespec times[2] = {{1000, 1}, {2000, 2}};
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
        utimensat(AT_FDCWD, entry.path().c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
    utimensat(AT_FDCWD, tree.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

/// The first file below `top` that holds a text. Behind a link there is nothing new to see, and a
/// look there would leave its trace.
std::string holderOf(const std::string& text, const fs::path& top) {
    std::error_code ec;
    if (fs::is_symlink(top, ec)) {
        return "";
    }
    const auto options = fs::directory_options::skip_permission_denied;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top, options, ec)) {
        const bool bFile = fs::is_regular_file(entry.symlink_status(ec));
        if (bFile && readFile(entry.path()).find(text) != std::string::npos) {
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

void World::prepareVictim() {
    m_victim = m_near / "victim";
    makeTree(m_victim, secret);
    makeTree(m_victim / "tree", secret);
    fs::permissions(m_victim / "sub/closed", fs::perms(0500));
    fs::permissions(m_victim, fs::perms(0700));
    makeReadingShow(m_victim);
    m_victimBefore = lookAt(m_victim);
}

void World::begin(bool bDeep) {
    ++m_run;
    m_aside = 0;
    m_opened.clear();
    m_opening.clear();
    makeDirectory(home());
    makeDirectory(dest());
    makeDirectory(m_near / std::to_string(m_run) / "aside");
    makeDirectory(dest().parent_path() / "aside");
    m_home = nullptr; // the old one is put back first
    m_home = std::make_unique<ScopedEnvironment>("HOME", home().string());
    makeTree(tree(), "bytes");
    if (bDeep) {
        makeChain(tree() / "sub");
    }
    giveAway(work());
    giveAway(dest());
}

fs::path World::work() const {
    return m_near / std::to_string(m_run) / "work";
}

fs::path World::dest() const {
    return m_far / std::to_string(m_run) / "dest";
}

fs::path World::home() const {
    return m_far / std::to_string(m_run) / "home";
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

bool World::exchangeForPipe(const fs::path& entry) {
    if (!carryOff(entry)) {
        return false;
    }
    makeFifo(entry);
    return true;
}

bool World::carryOff(const fs::path& entry) {
    if (!isPresent(entry)) {
        return false;
    }
    const bool bNear = entry.string().rfind(m_near.path().string(), 0) == 0;
    const fs::path top = (bNear ? m_near : m_far) / std::to_string(m_run) / "aside";
    const fs::path aside = top / std::to_string(++m_aside);
    for (const char* name : bystanders) {
        writeFile(aside / name, bystander);
    }
    std::error_code ec;
    fs::rename(entry, aside / "carried off", ec); // what is closed may not be moved by its owner
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
        for (const fs::directory_entry& aside : fs::directory_iterator(place / "aside")) {
            for (const char* name : bystanders) {
                const fs::path file = aside.path() / name;
                if (!isPresent(file) || readFile(file) != bystander) {
                    return "a bystander was hurt: " + file.string();
                }
            }
        }
        const std::string holder = holderOf(secret, place);
        if (!holder.empty()) {
            return "the secret was copied to " + holder;
        }
    }
    for (const fs::path& place : {work(), dest(), home()}) {
        const std::string holder = holderOf(bystander, place);
        if (!holder.empty()) {
            return "a bystander's bytes were copied to " + holder;
        }
    }
    return "";
}

void runWithTwoDevices(const std::function<void(const fs::path&)>& body) {
    const Sandbox box;
    runInChild([&] {
        const char* const place = box.path().c_str();
        const bool bMounted = unshare(CLONE_NEWNS) == 0 &&
                              mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                              mount("tmpfs", place, "tmpfs", 0, "mode=1777") == 0;
        body(bMounted ? box.path() : fs::temp_directory_path());
    });
}

} // namespace tavro_test
