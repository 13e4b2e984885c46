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

enum Misbehaviour : unsigned {
    FsyncFails,
    DirsyncFails,
    CloseFails,
    NoRenameFlags,
    NoLinks,
    NoAttributes,
    NoModes,
    FoldsCase,
    CoarseTimes,
    DriftingInodes,
    ForgottenInodes,
    SkipsEntry,
    EndsEarly,
    NoTypes,
    Stale,
    ReadFails,
    WriteFails,
    SizeLarge,
    SizeSmall,
    SizeZero,
    None
};

constexpr const char* misbehaviourNames[] = {"fsync-fails",     "dirsync-fails",    "close-fails",
                                             "no-rename-flags", "no-links",         "no-attributes",
                                             "no-modes",        "folds-case",       "coarse-times",
                                             "drifting-inodes", "forgotten-inodes", "skips-entry",
                                             "ends-early",      "no-types",         "stale",
                                             "read-fails",      "write-fails",      "size-large",
                                             "size-small",      "size-zero",        "none"};
static_assert(std::size(misbehaviourNames) == None + 1);

/// Shared with the test.
struct Control {
    std::int64_t Enabled;
    std::int64_t Countdown; ///< The call of the kind that fails is the one at which it gets to 0.
    std::int64_t Calls;     ///< How many calls of that kind there were.
    std::int64_t Late;      ///< How often written data was said to be lost: at a sync or a close.
};

Control* g_control = nullptr;
unsigned g_misbehaviour = None;
uid_t g_user = 0;
int g_directory = -1;

bool is(Misbehaviour what) {
    return g_misbehaviour == what && g_control->Enabled != 0;
}

/// Whether the call at hand is the one that fails.
bool strikes(Misbehaviour what) {
    if (!is(what)) {
        return false;
    }
    ++g_control->Calls;
    --g_control->Countdown;
    // The kernel reads again what it could not read ahead; a bad sector stays bad.
    return g_control->Countdown == 0 || (what == ReadFails && g_control->Countdown < 0);
}

int answer(ssize_t result) {
    return result < 0 ? -errno : static_cast<int>(result);
}

/// An operation that finds its file stale when it is the one that fails.
template <auto Operation> struct Guarded;
template <typename... Arguments, int (*Operation)(Arguments...)> struct Guarded<Operation> {
    static int Call(Arguments... arguments) {
        return strikes(Stale) ? -ESTALE : Operation(arguments...);
    }
};

// --- Names ---

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
    if (!is(FoldsCase) || isThere(found)) {
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

// --- Looking ---

struct Open {
    int File;
    bool bWritten;
};

Open* opened(fuse_file_info* info) {
    return info != nullptr ? reinterpret_cast<Open*>(info->fh) : nullptr;
}

void makeCoarse(struct timespec& time) {
    time = {time.tv_sec & ~time_t{1}, 0};
}

int getAttributes(const char* path, struct stat* status, fuse_file_info* info) {
    const Open* const open = opened(info);
    if ((open != nullptr ? fstat(open->File, status) : lstat(pathOf(path).c_str(), status)) != 0) {
        return -errno;
    }
    if (is(CoarseTimes)) {
        makeCoarse(status->st_atim);
        makeCoarse(status->st_mtim);
        makeCoarse(status->st_ctim);
    }
    if (is(DriftingInodes)) {
        static ino_t last = 1000000;
        status->st_ino = ++last;
    }
    if (S_ISREG(status->st_mode)) {
        const off_t size = status->st_size;
        status->st_size = is(SizeLarge) ? size + 5000 : is(SizeSmall) ? size / 2 : size;
        status->st_size = is(SizeZero) ? 0 : status->st_size;
    }
    return 0;
}

int mayAccess(const char* path, int mode) {
    return answer(faccessat(AT_FDCWD, pathOf(path).c_str(), mode, AT_SYMLINK_NOFOLLOW));
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
    if (names.size() > 1 && (is(SkipsEntry) || is(EndsEarly))) {
        names.erase(names.begin() + 1, is(SkipsEntry) ? names.begin() + 2 : names.end());
    }
    for (const std::string& name : names) {
        struct stat status = {};
        if (lstat((directory + "/" + name).c_str(), &status) == 0) {
            status.st_mode = is(NoTypes) ? 0 : status.st_mode;
            fill(buffer, name.c_str(), &status, 0, fuse_fill_dir_flags{});
        }
    }
    return 0;
}

// --- Names that change ---

int makeNode(const char* path, mode_t mode, dev_t device) {
    return answer(mknod(newPathOf(path).c_str(), mode, device));
}

int makeDirectory(const char* path, mode_t mode) {
    return answer(isThere(pathOf(path)) ? (errno = EEXIST, -1)
                                        : mkdir(newPathOf(path).c_str(), mode));
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
    return is(NoLinks) ? -EPERM : answer(link(pathOf(from).c_str(), newPathOf(to).c_str()));
}

int renameEntry(const char* from, const char* to, unsigned flags) {
    if (flags != 0 && is(NoRenameFlags)) {
        return -EINVAL;
    }
    const std::string source = pathOf(from);
    const std::string there = pathOf(to); // under whatever case
    const bool bSame = source == there;
    if (!bSame && there != newPathOf(to) && isThere(there)) {
        return answer(renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, there.c_str(), flags));
    }
    return answer(renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, newPathOf(to).c_str(), flags));
}

// --- Attributes ---

int setMode(const char* path, mode_t mode, fuse_file_info*) {
    return is(NoModes) ? -EPERM : answer(chmod(pathOf(path).c_str(), mode));
}

int setOwner(const char* path, uid_t user, gid_t group, fuse_file_info*) {
    return is(NoModes) ? -EPERM : answer(lchown(pathOf(path).c_str(), user, group));
}

int setTimes(const char* path, const struct timespec* times, fuse_file_info*) {
    return answer(utimensat(AT_FDCWD, pathOf(path).c_str(), times, AT_SYMLINK_NOFOLLOW));
}

int truncateFile(const char* path, off_t size, fuse_file_info*) {
    return answer(truncate(pathOf(path).c_str(), size));
}

int setAttribute(const char* path, const char* name, const char* value, std::size_t size,
                 int flags) {
    return is(NoAttributes) ? -ENOTSUP
                            : answer(lsetxattr(pathOf(path).c_str(), name, value, size, flags));
}

int getAttribute(const char* path, const char* name, char* value, std::size_t size) {
    return is(NoAttributes) ? -ENOTSUP : answer(lgetxattr(pathOf(path).c_str(), name, value, size));
}

int listAttributes(const char* path, char* names, std::size_t size) {
    return is(NoAttributes) ? -ENOTSUP : answer(llistxattr(pathOf(path).c_str(), names, size));
}

int removeAttribute(const char* path, const char* name) {
    return is(NoAttributes) ? -ENOTSUP : answer(lremovexattr(pathOf(path).c_str(), name));
}

// --- Bytes ---

int keepOpen(int file, fuse_file_info* info) {
    // What lies about sizes is not believed by the kernel either: programs get what is read.
    info->direct_io = is(SizeLarge) || is(SizeSmall) || is(SizeZero);
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
    return strikes(ReadFails) ? -EIO : answer(pread(opened(info)->File, bytes, size, offset));
}

int writeFile(const char*, const char* bytes, std::size_t size, off_t offset,
              fuse_file_info* info) {
    opened(info)->bWritten = true;
    return strikes(WriteFails) ? -EIO : answer(pwrite(opened(info)->File, bytes, size, offset));
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
    return late(is(CloseFails) && opened(info)->bWritten);
}

int syncFile(const char*, int, fuse_file_info*) {
    return late(is(FsyncFails));
}

int syncDirectory(const char*, int, fuse_file_info*) {
    return late(is(DirsyncFails));
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
    configuration->use_ino = g_misbehaviour != ForgottenInodes;
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
    table.access = Guarded<mayAccess>::Call;
    table.readlink = Guarded<readLink>::Call;
    table.readdir = Guarded<list>::Call;
    table.mknod = Guarded<makeNode>::Call;
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
    const auto* const end = std::end(misbehaviourNames);
    const auto* const found = std::find_if(std::begin(misbehaviourNames), end, [&](const char* n) {
        return std::strcmp(n, argv[5]) == 0;
    });
    g_misbehaviour = static_cast<unsigned>(found - std::begin(misbehaviourNames));
    g_user = static_cast<uid_t>(std::stoul(argv[4]));
    g_directory = open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int control = open(argv[3], O_RDWR | O_CLOEXEC);
    void* const shared =
        mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, control, 0);
    if (found == end || shared == MAP_FAILED || g_directory < 0) {
        std::fprintf(stderr, "hostile_fs: unknown misbehaviour, or %s\n", std::strerror(errno));
        return 2;
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
