// A hostile file system: serves the files of one directory and misbehaves as it is told to. Each
// misbehaviour is one that file systems show which people really mount: network shares, sticks,
// disks that fail. Only while the first number of the control file is not 0 does it misbehave, so
// that a test can prepare its files in peace. README.md lists the misbehaviours.

#define FUSE_USE_VERSION 35

#include <fuse.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace {

/// Shared with the test.
struct Control {
    std::int64_t Enabled;
    std::int64_t Countdown; ///< The call of the kind that fails is the one at which it gets to 0.
    std::int64_t Met;       ///< How often there was an occasion to misbehave.
    std::int64_t Late;      ///< How often written data was said to be lost: at a sync or a close.
};

Control* g_control = nullptr;
std::string g_misbehaviour;
uid_t g_user = 0;
int g_directory = -1;

bool is(const char* misbehaviour) {
    const bool bIs = g_control->Enabled != 0 && g_misbehaviour == misbehaviour;
    g_control->Met += bIs ? 1 : 0;
    return bIs;
}

/// Whether the call at hand is the one that fails; of reads it and all later ones: the kernel
/// reads again what it could not read ahead.
bool strikes(const char* misbehaviour) {
    return is(misbehaviour) && (--g_control->Countdown == 0 ||
                                (g_control->Countdown < 0 && g_misbehaviour == "read-fails"));
}

int answer(ssize_t result) {
    return result < 0 ? -errno : static_cast<int>(result);
}

/// An operation that finds its file stale when it is the one that fails.
template <auto Operation> struct Guarded;
template <typename... Arguments, int (*Operation)(Arguments...)> struct Guarded<Operation> {
    static int Call(Arguments... arguments) {
        return strikes("stale") ? -ESTALE : Operation(arguments...);
    }
};

std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    DIR* const stream = opendir(directory.c_str());
    while (const dirent* entry = stream != nullptr ? readdir(stream) : nullptr) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    if (stream != nullptr) {
        closedir(stream);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool isThere(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

/// The path below the directory served, which is the current one.
std::string pathOf(const char* path) {
    const std::string wanted = path + 1;
    std::string found = wanted.empty() ? "." : wanted;
    if (!is("folds-case") || isThere(found)) {
        return found;
    }
    found = ".";
    for (std::size_t at = 0; at < wanted.size();) {
        const std::size_t end = std::min(wanted.find('/', at), wanted.size());
        std::string name = wanted.substr(at, end - at);
        if (!isThere(found + "/" + name)) {
            for (const std::string& other : namesIn(found)) {
                name = strcasecmp(other.c_str(), name.c_str()) == 0 ? other : name;
            }
        }
        found += "/" + name;
        at = end + 1;
    }
    return found;
}

/// A path whose last name is as it was given: one that is to be there afterwards.
std::string newPathOf(const char* path) {
    const std::string whole = path;
    const std::size_t slash = whole.rfind('/');
    return pathOf(slash == 0 ? "/" : whole.substr(0, slash).c_str()) + whole.substr(slash);
}

struct Open {
    int File;
    bool bWritten;
};

Open* opened(fuse_file_info* info) {
    return info != nullptr ? reinterpret_cast<Open*>(info->fh) : nullptr;
}

int getAttributes(const char* path, struct stat* status, fuse_file_info* info) {
    const Open* const open = opened(info);
    if ((open != nullptr ? fstat(open->File, status) : lstat(pathOf(path).c_str(), status)) != 0) {
        return -errno;
    }
    if (is("coarse-times")) {
        for (struct timespec* time : {&status->st_atim, &status->st_mtim, &status->st_ctim}) {
            *time = {time->tv_sec & ~time_t{1}, 0};
        }
    }
    if (is("drifting-inodes")) {
        static ino_t last = 1000000;
        status->st_ino = ++last;
    }
    if (S_ISREG(status->st_mode)) {
        status->st_size += is("size-large") ? 5000 : 0;
        status->st_size /= is("size-small") ? 2 : 1;
        status->st_size *= is("size-zero") ? 0 : 1;
    }
    return 0;
}

int readLink(const char* path, char* target, std::size_t size) {
    const ssize_t length = readlink(pathOf(path).c_str(), target, size - 1);
    target[std::max<ssize_t>(length, 0)] = '\0';
    return length < 0 ? -errno : 0;
}

int list(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
         fuse_readdir_flags) {
    const std::string directory = pathOf(path);
    std::vector<std::string> names = namesIn(directory);
    if (names.size() > 1 && (is("skips-entry") || is("ends-early"))) {
        names.erase(names.begin() + 1, is("skips-entry") ? names.begin() + 2 : names.end());
    }
    for (const std::string& name : names) {
        struct stat status = {};
        if (lstat((directory + "/" + name).c_str(), &status) == 0) {
            status.st_mode = is("no-types") ? 0 : status.st_mode;
            fill(buffer, name.c_str(), &status, 0, fuse_fill_dir_flags{});
        }
    }
    return 0;
}

int makeDirectory(const char* path, mode_t mode) {
    return isThere(pathOf(path)) ? -EEXIST : answer(mkdir(newPathOf(path).c_str(), mode));
}

int removeFile(const char* path) {
    return answer(unlink(pathOf(path).c_str()));
}

int removeDirectory(const char* path) {
    return answer(rmdir(pathOf(path).c_str()));
}

int makeLink(const char* target, const char* path) {
    return answer(symlink(target, newPathOf(path).c_str()));
}

int linkFile(const char* from, const char* to) {
    return is("no-links") ? -EPERM : answer(link(pathOf(from).c_str(), newPathOf(to).c_str()));
}

int renameEntry(const char* from, const char* to, unsigned flags) {
    if (flags != 0 && is("no-rename-flags")) {
        return -EINVAL;
    }
    const std::string source = pathOf(from);
    const std::string there = pathOf(to); // under whatever case
    const std::string target = isThere(there) && there != source ? there : newPathOf(to);
    return answer(renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), flags));
}

int setMode(const char* path, mode_t mode, fuse_file_info*) {
    return is("no-modes") ? -EPERM : answer(chmod(pathOf(path).c_str(), mode));
}

int setOwner(const char* path, uid_t user, gid_t group, fuse_file_info*) {
    return is("no-modes") ? -EPERM : answer(lchown(pathOf(path).c_str(), user, group));
}

int setTimes(const char* path, const struct timespec* times, fuse_file_info*) {
    return answer(utimensat(AT_FDCWD, pathOf(path).c_str(), times, AT_SYMLINK_NOFOLLOW));
}

int truncateFile(const char* path, off_t size, fuse_file_info*) {
    return answer(truncate(pathOf(path).c_str(), size));
}

int setAttribute(const char* path, const char* name, const char* value, std::size_t size,
                 int flags) {
    return is("no-attributes") ? -ENOTSUP
                               : answer(lsetxattr(pathOf(path).c_str(), name, value, size, flags));
}

int getAttribute(const char* path, const char* name, char* value, std::size_t size) {
    return is("no-attributes") ? -ENOTSUP
                               : answer(lgetxattr(pathOf(path).c_str(), name, value, size));
}

int listAttributes(const char* path, char* names, std::size_t size) {
    return is("no-attributes") ? -ENOTSUP : answer(llistxattr(pathOf(path).c_str(), names, size));
}

int removeAttribute(const char* path, const char* name) {
    return is("no-attributes") ? -ENOTSUP : answer(lremovexattr(pathOf(path).c_str(), name));
}

int keepOpen(int file, fuse_file_info* info) {
    // What lies about sizes is not believed by the kernel either: programs get what is read.
    info->direct_io = is("size-large") || is("size-small") || is("size-zero");
    info->fh = file < 0 ? 0 : reinterpret_cast<std::uint64_t>(new Open{file, false});
    return file < 0 ? -errno : 0;
}

int openFile(const char* path, fuse_file_info* info) {
    return keepOpen(open(pathOf(path).c_str(), info->flags | O_CLOEXEC | O_NOFOLLOW), info);
}

int createFile(const char* path, mode_t mode, fuse_file_info* info) {
    const std::string there = isThere(pathOf(path)) ? pathOf(path) : newPathOf(path);
    return keepOpen(open(there.c_str(), info->flags | O_CREAT | O_CLOEXEC | O_NOFOLLOW, mode),
                    info);
}

int readFile(const char*, char* bytes, std::size_t size, off_t offset, fuse_file_info* info) {
    return strikes("read-fails") ? -EIO : answer(pread(opened(info)->File, bytes, size, offset));
}

int writeFile(const char*, const char* bytes, std::size_t size, off_t offset,
              fuse_file_info* info) {
    opened(info)->bWritten = true;
    return strikes("write-fails") ? -EIO : answer(pwrite(opened(info)->File, bytes, size, offset));
}

off_t seek(const char*, off_t offset, int whence, fuse_file_info* info) {
    const off_t found = lseek(opened(info)->File, offset, whence);
    return found < 0 ? -errno : found;
}

int late(bool bFails) {
    g_control->Late += bFails ? 1 : 0;
    return bFails ? -EIO : 0;
}

int flushFile(const char*, fuse_file_info* info) {
    return late(is("close-fails") && opened(info)->bWritten);
}

int syncFile(const char*, int, fuse_file_info*) {
    return late(is("fsync-fails"));
}

int syncDirectory(const char*, int, fuse_file_info*) {
    return late(is("dirsync-fails"));
}

int releaseFile(const char*, fuse_file_info* info) {
    close(opened(info)->File);
    delete opened(info);
    return 0;
}

/// Nothing is cached, so that every look of the kernel comes here; from now on with the rights of
/// the user only.
void* start(fuse_conn_info* connection, fuse_config* configuration) {
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_READDIRPLUS);
    configuration->use_ino = g_misbehaviour != "forgotten-inodes";
    configuration->entry_timeout = configuration->attr_timeout = 0;
    configuration->negative_timeout = 0;
    if (fchdir(g_directory) != 0 || setresgid(g_user, g_user, g_user) != 0 ||
        setresuid(g_user, g_user, g_user) != 0) {
        std::perror("hostile_fs");
        _exit(1);
    }
    return nullptr;
}

fuse_operations operations() {
    fuse_operations table = {};
    table.init = start;
    table.getattr = Guarded<getAttributes>::Call;
    table.readlink = Guarded<readLink>::Call;
    table.readdir = Guarded<list>::Call;
    table.mkdir = Guarded<makeDirectory>::Call;
    table.unlink = Guarded<removeFile>::Call;
    table.rmdir = Guarded<removeDirectory>::Call;
    table.symlink = Guarded<makeLink>::Call;
    table.link = Guarded<linkFile>::Call;
    table.rename = Guarded<renameEntry>::Call;
    table.chmod = Guarded<setMode>::Call;
    table.chown = Guarded<setOwner>::Call;
    table.utimens = Guarded<setTimes>::Call;
    table.truncate = Guarded<truncateFile>::Call;
    table.setxattr = Guarded<setAttribute>::Call;
    table.getxattr = Guarded<getAttribute>::Call;
    table.listxattr = Guarded<listAttributes>::Call;
    table.removexattr = Guarded<removeAttribute>::Call;
    table.open = Guarded<openFile>::Call;
    table.create = Guarded<createFile>::Call;
    table.read = Guarded<readFile>::Call;
    table.write = Guarded<writeFile>::Call;
    table.lseek = seek;
    table.flush = Guarded<flushFile>::Call;
    table.fsync = Guarded<syncFile>::Call;
    table.fsyncdir = Guarded<syncDirectory>::Call;
    table.release = releaseFile;
    return table;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: hostile_fs DIRECTORY MOUNTPOINT CONTROL USER MISBEHAVIOUR\n");
        return 2;
    }
    g_misbehaviour = argv[5];
    g_user = static_cast<uid_t>(std::stoul(argv[4]));
    g_directory = open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int control = open(argv[3], O_RDWR | O_CLOEXEC);
    void* const shared =
        mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, control, 0);
    if (shared == MAP_FAILED || g_directory < 0) {
        std::perror("hostile_fs");
        return 1;
    }
    g_control = static_cast<Control*>(shared);
    umask(0);
    // One thread, in the foreground: the calls have one order.
    std::string name = argv[0], first = "-f", second = "-s", third = "-oallow_other",
                mountPoint = argv[2];
    char* arguments[] = {name.data(), first.data(), second.data(), third.data(), mountPoint.data()};
    const fuse_operations table = operations();
    return fuse_main(5, arguments, &table, nullptr);
}
