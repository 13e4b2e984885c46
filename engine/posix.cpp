#include "posix.h"

#include "identity.h"
#include "names.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

/// Makes a call until no signal interrupts it.
/// @return what it returned; -1 with errno set when it failed.
template <typename Call> auto Uninterrupted(Call Make) {
    decltype(Make()) result = 0;
    do {
        result = Make();
    } while (result < 0 && errno == EINTR);
    return result;
}

/// @return 0, or the error number of a call that returned a number below 0.
template <typename Call> int ErrorOf(Call Make) {
    return Uninterrupted(Make) < 0 ? errno : 0;
}

/// As ErrorOf, for a call that returns how many bytes it has dealt with.
template <typename Call> int Count(Call Make, std::size_t& OutCount) {
    const ssize_t count = Uninterrupted(Make);
    if (count < 0) {
        return errno;
    }
    OutCount = static_cast<std::size_t>(count);
    return 0;
}

template <typename Call> int Open(Call Make, TavroDescriptor& OutDescriptor) {
    const int number = Uninterrupted(Make);
    if (number < 0) {
        return errno;
    }
    OutDescriptor = TavroDescriptor(number);
    return 0;
}

/// The path by which the kernel reaches an open file, whatever became of its names.
std::array<char, 32> ProcPath(int Descriptor) {
    std::array<char, 32> path = {};
    std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", Descriptor);
    return path;
}

} // namespace

TavroDescriptor& TavroDescriptor::operator=(TavroDescriptor&& Other) noexcept {
    if (this != &Other) {
        Close();
        m_number = std::exchange(Other.m_number, -1);
    }
    return *this;
}

TavroDescriptor::~TavroDescriptor() {
    Close();
}

int TavroDescriptor::Close() {
    const int number = std::exchange(m_number, -1);
    // An interrupted close has closed the descriptor all the same.
    return number >= 0 && close(number) != 0 && errno != EINTR ? errno : 0;
}

// =================================================================================================
// Opening
// =================================================================================================

int TavroOpenAt(int Directory, const char* Name, int Flags, TavroDescriptor& OutDescriptor,
                mode_t Mode) {
    return Open([&] { return openat(Directory, Name, Flags | O_NOFOLLOW | O_CLOEXEC, Mode); },
                OutDescriptor);
}

int TavroOpenDirectoryAt(int Directory, const char* Name, TavroDescriptor& OutDescriptor) {
    return TavroOpenAt(Directory, Name, O_RDONLY | O_DIRECTORY, OutDescriptor);
}

namespace {

int OpenListable(int Directory, const char* Path, TavroDescriptor& OutDescriptor) {
    const int error = Open(
        [&] { return openat(Directory, Path, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }, OutDescriptor);
    if (error != EACCES) {
        return error;
    }
    return Open([&] { return openat(Directory, Path, O_PATH | O_DIRECTORY | O_CLOEXEC); },
                OutDescriptor);
}

/// Opens the directory above the last part of a path that one call takes, and leaves that part.
int OpenInParts(const std::string& Path, TavroDescriptor& OutBase, std::string& OutRest) {
    OutRest = Path;
    while (OutRest.size() >= PATH_MAX) {
        const std::size_t slash = OutRest.rfind('/', PATH_MAX - 2);
        if (slash == std::string::npos || slash == 0) {
            return ENAMETOOLONG;
        }
        const std::string part = OutRest.substr(0, slash);
        const int base = OutBase.IsOpen() ? OutBase.Number() : AT_FDCWD;
        TavroDescriptor next;
        const int error = Open(
            [&] { return openat(base, part.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }, next);
        if (error != 0) {
            return error;
        }
        OutBase = std::move(next);
        OutRest.erase(0, OutRest.find_first_not_of('/', slash));
        OutRest = OutRest.empty() ? "." : OutRest;
    }
    return 0;
}

/// Makes a call with a directory and a path that is short enough for it.
template <typename Call> int WithShortPath(const std::string& Path, Call Make) {
    TavroDescriptor base;
    std::string rest;
    if (Path.find('\0') != std::string::npos) {
        return EINVAL;
    }
    if (Path.size() < PATH_MAX) {
        return Make(AT_FDCWD, Path.c_str());
    }
    const int error = OpenInParts(Path, base, rest);
    return error != 0 ? error : Make(base.IsOpen() ? base.Number() : AT_FDCWD, rest.c_str());
}

} // namespace

int TavroOpenDirectory(const std::string& Path, TavroDescriptor& OutDescriptor) {
    return WithShortPath(Path, [&](int directory, const char* path) {
        return OpenListable(directory, path, OutDescriptor);
    });
}

int TavroOpenFile(const std::string& Path, TavroDescriptor& OutDescriptor) {
    return WithShortPath(Path, [&](int directory, const char* path) {
        return TavroOpenFileAt(directory, path, OutDescriptor);
    });
}

int TavroOpenFileAt(int Directory, const char* Name, TavroDescriptor& OutDescriptor) {
    return Open([&] { return openat(Directory, Name, O_RDONLY | O_NONBLOCK | O_CLOEXEC); },
                OutDescriptor);
}

// =================================================================================================
// Looking
// =================================================================================================

int TavroStatAt(int Directory, const char* Name, struct stat& OutStatus) {
    return ErrorOf([&] { return fstatat(Directory, Name, &OutStatus, AT_SYMLINK_NOFOLLOW); });
}

int TavroStat(int Descriptor, struct stat& OutStatus) {
    return ErrorOf([&] { return fstat(Descriptor, &OutStatus); });
}

int TavroStatTargetAt(int Directory, const char* Name, struct stat& OutStatus) {
    return ErrorOf([&] { return fstatat(Directory, Name, &OutStatus, 0); });
}

int TavroStatPath(const std::string& Path, struct stat& OutStatus) {
    return WithShortPath(Path, [&](int directory, const char* path) {
        return TavroStatAt(directory, path, OutStatus);
    });
}

namespace {

struct timespec TimeOf(const struct statx_timestamp& Time) {
    return {Time.tv_sec, Time.tv_nsec};
}

/// Looks at a file with what the usual status does not tell, of which `Mask` says what.
int StatWith(unsigned Mask, int Directory, const char* Name, int Flags, struct stat& OutStatus,
             struct statx& OutMore) {
    const int error =
        ErrorOf([&] { return statx(Directory, Name, Flags, STATX_BASIC_STATS | Mask, &OutMore); });
    if (error != 0) {
        return error;
    }
    OutStatus = {};
    OutStatus.st_dev = makedev(OutMore.stx_dev_major, OutMore.stx_dev_minor);
    OutStatus.st_ino = OutMore.stx_ino;
    OutStatus.st_mode = OutMore.stx_mode;
    OutStatus.st_nlink = OutMore.stx_nlink;
    OutStatus.st_uid = OutMore.stx_uid;
    OutStatus.st_gid = OutMore.stx_gid;
    OutStatus.st_size = static_cast<off_t>(OutMore.stx_size);
    OutStatus.st_blocks = static_cast<blkcnt_t>(OutMore.stx_blocks);
    OutStatus.st_atim = TimeOf(OutMore.stx_atime);
    OutStatus.st_mtim = TimeOf(OutMore.stx_mtime);
    OutStatus.st_ctim = TimeOf(OutMore.stx_ctime);
    return 0;
}

} // namespace

int TavroStatWithMount(int Descriptor, struct stat& OutStatus, std::uint64_t& OutMount) {
    struct statx more = {};
    const int error = StatWith(STATX_MNT_ID, Descriptor, "", AT_EMPTY_PATH, OutStatus, more);
    if (error == 0) {
        const bool bKnown = (more.stx_mask & STATX_MNT_ID) != 0;
        OutMount = bKnown ? more.stx_mnt_id : OutStatus.st_dev;
    }
    return error;
}

int TavroStatWithBirthAt(int Directory, const char* Name, struct stat& OutStatus,
                         std::int64_t& OutBirth) {
    struct statx more = {};
    const int error = StatWith(STATX_BTIME, Directory, Name, AT_SYMLINK_NOFOLLOW, OutStatus, more);
    if (error == 0) {
        const bool bKnown = (more.stx_mask & STATX_BTIME) != 0;
        OutBirth = bKnown ? TavroNanoseconds(TimeOf(more.stx_btime)) : 0;
    }
    return error;
}

namespace {

/// By opening it: what is only looked at may be answered from memory.
TavroPresence Look(const std::string& Path) {
    const int opened = open(Path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened >= 0) {
        close(opened);
    }
    return opened >= 0 || !TavroIsMissing(errno) || access(Path.c_str(), F_OK) == 0
               ? TavroPresence::Present
               : TavroPresence::Missing;
}

/// The child's work. It may outlive this process, so it keeps nothing open, no pipe to a reader and
/// no lock.
[[noreturn]] void LookAtEach(const std::vector<std::string>& Paths, std::size_t First,
                             int Answers) {
    dup2(Answers, 0);
    close_range(1, ~0U, 0);
    for (std::size_t i = First; i < Paths.size(); ++i) {
        const TavroPresence found = Look(Paths[i]);
        if (write(0, &found, sizeof found) != sizeof found) {
            break;
        }
    }
    _exit(0);
}

/// Reads answers until there are enough of them, or none comes in time.
void ReadAnswers(int Answers, int Milliseconds, std::size_t Count,
                 std::vector<TavroPresence>& OutFound) {
    struct pollfd poll = {Answers, POLLIN, 0};
    TavroPresence found = TavroPresence::Missing;
    while (OutFound.size() < Count &&
           Uninterrupted([&] { return ::poll(&poll, 1, Milliseconds); }) > 0 &&
           Uninterrupted([&] { return read(Answers, &found, sizeof found); }) == sizeof found) {
        OutFound.push_back(found);
    }
}

} // namespace

std::vector<TavroPresence> TavroLookInTime(const std::vector<std::string>& Paths,
                                           int Milliseconds) {
    std::vector<TavroPresence> found;
    while (found.size() < Paths.size()) {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) != 0) {
            found.push_back(Look(Paths[found.size()]));
            continue;
        }
        TavroDescriptor answers(ends[0]);
        TavroDescriptor child(ends[1]);
        const pid_t process = fork();
        if (process == 0) {
            LookAtEach(Paths, found.size(), ends[1]);
        }
        child.Close();
        if (process < 0) {
            found.push_back(Look(Paths[found.size()]));
            continue;
        }
        ReadAnswers(answers.Number(), Milliseconds, Paths.size(), found);
        const bool bSilent = found.size() < Paths.size();
        if (bSilent) {
            kill(process, SIGKILL);
            found.push_back(TavroPresence::Silent);
        }
        waitpid(process, nullptr, bSilent ? WNOHANG : 0);
    }
    return found;
}

int TavroAccessAt(int Directory, const char* Name, int Mode) {
    return ErrorOf(
        [&] { return faccessat(Directory, Name, Mode, AT_EACCESS | AT_SYMLINK_NOFOLLOW); });
}

int TavroReadLinkAt(int Directory, const char* Name, std::string& OutTarget) {
    std::string target(PATH_MAX, '\0');
    const ssize_t size =
        Uninterrupted([&] { return readlinkat(Directory, Name, &target[0], target.size()); });
    if (size < 0) {
        return errno;
    }
    target.resize(static_cast<std::size_t>(size));
    OutTarget = std::move(target);
    return 0;
}

int TavroPathOf(int Descriptor, std::string& OutPath) {
    struct stat status = {};
    const int error = TavroStat(Descriptor, status);
    if (error != 0 || status.st_nlink == 0) {
        return error != 0 ? error : ENOENT;
    }
    return TavroReadLinkAt(AT_FDCWD, ProcPath(Descriptor).data(), OutPath);
}

const char* TavroListing::Next() {
    if (m_next >= m_bytes.size()) {
        return nullptr;
    }
    m_typeAt = m_next;
    const char* name = &m_bytes[m_next + 1];
    m_next += 1 + std::strlen(name) + 1;
    return name;
}

namespace {

bool IsDots(const char* Name) {
    return Name[0] == '.' && (Name[1] == '\0' || (Name[1] == '.' && Name[2] == '\0'));
}

} // namespace

int TavroListDirectory(int Directory, TavroListing& OutListing) {
    TavroListing listing;
    alignas(struct dirent64) std::array<char, 32768> block;
    if (Uninterrupted([&] { return lseek(Directory, 0, SEEK_SET); }) < 0) {
        return errno;
    }
    for (;;) {
        const ssize_t size =
            Uninterrupted([&] { return getdents64(Directory, block.data(), block.size()); });
        if (size < 0 && errno != ENOENT) {
            return errno;
        }
        if (size <= 0) {
            OutListing = std::move(listing);
            return 0;
        }
        for (ssize_t at = 0; at < size;) {
            const auto* entry =
                reinterpret_cast<const struct dirent64*>(&block[static_cast<std::size_t>(at)]);
            at += entry->d_reclen;
            if (!IsDots(entry->d_name)) {
                listing.m_bytes.push_back(static_cast<char>(entry->d_type));
                listing.m_bytes.insert(listing.m_bytes.end(), entry->d_name,
                                       entry->d_name + std::strlen(entry->d_name) + 1);
            }
        }
    }
}

// =================================================================================================
// Changing names
// =================================================================================================

bool TavroIsOtherSpelling(int FromDirectory, const char* From, int ToDirectory, const char* To) {
    struct stat from = {};
    struct stat to = {};
    TavroListing listing;
    const auto isSame = [&] { return TavroIdentityOf(from) == TavroIdentityOf(to); };
    if (TavroStatAt(FromDirectory, From, from) != 0 || TavroStatAt(ToDirectory, To, to) != 0 ||
        !isSame() || TavroStat(FromDirectory, from) != 0 || TavroStat(ToDirectory, to) != 0 ||
        !isSame() || TavroListDirectory(ToDirectory, listing) != 0) {
        return false;
    }
    bool bFromListed = false;
    bool bToListed = false;
    while (const char* name = listing.Next()) {
        bFromListed = bFromListed || std::strcmp(name, From) == 0;
        bToListed = bToListed || std::strcmp(name, To) == 0;
    }
    return bFromListed && !bToListed;
}

namespace {

int RenameToFree(int FromDirectory, const char* From, int ToDirectory, const char* To) {
    const int error =
        ErrorOf([&] { return renameat2(FromDirectory, From, ToDirectory, To, RENAME_NOREPLACE); });
    if (error != EINVAL && error != ENOSYS) {
        return error;
    }
    // The same error can mean a directory moved into itself; the plain rename then says so again.
    struct stat status = {};
    const int lookError = TavroStatAt(ToDirectory, To, status);
    if (lookError != ENOENT) {
        return lookError == 0 ? EEXIST : lookError;
    }
    return TavroRename(FromDirectory, From, ToDirectory, To);
}

} // namespace

int TavroRenameNoReplace(int FromDirectory, const char* From, int ToDirectory, const char* To,
                         const std::string& Staged) {
    int error = RenameToFree(FromDirectory, From, ToDirectory, To);
    if (error != EEXIST || !TavroIsOtherSpelling(FromDirectory, From, ToDirectory, To)) {
        return error;
    }
    const std::string aside = TavroAsideName(Staged.empty() ? TavroStagingName() : Staged);
    error = RenameToFree(FromDirectory, From, ToDirectory, aside.c_str());
    if (error != 0) {
        return error;
    }
    error = RenameToFree(ToDirectory, aside.c_str(), ToDirectory, To);
    if (error != 0) {
        RenameToFree(ToDirectory, aside.c_str(), FromDirectory, From);
    }
    return error;
}

int TavroRename(int FromDirectory, const char* From, int ToDirectory, const char* To) {
    return ErrorOf([&] { return renameat(FromDirectory, From, ToDirectory, To); });
}

int TavroExchange(int FromDirectory, const char* From, int ToDirectory, const char* To) {
    int error =
        ErrorOf([&] { return renameat2(FromDirectory, From, ToDirectory, To, RENAME_EXCHANGE); });
    if (error != EINVAL && error != ENOSYS) {
        return error;
    }
    // The file system cannot: one steps aside, next to the other, for a moment.
    const std::string aside = TavroAsideName(From);
    error = TavroRenameNoReplace(ToDirectory, To, FromDirectory, aside.c_str());
    if (error != 0) {
        return error;
    }
    error = TavroRenameNoReplace(FromDirectory, From, ToDirectory, To);
    if (error != 0) {
        TavroRenameNoReplace(FromDirectory, aside.c_str(), ToDirectory, To);
        return error;
    }
    error = TavroRenameNoReplace(FromDirectory, aside.c_str(), FromDirectory, From);
    if (error != 0 && TavroRenameNoReplace(ToDirectory, To, FromDirectory, From) == 0) {
        TavroRenameNoReplace(FromDirectory, aside.c_str(), ToDirectory, To);
    }
    return error;
}

int TavroLinkOpenAt(int Descriptor, int ToDirectory, const char* To) {
    const int error =
        ErrorOf([&] { return linkat(Descriptor, "", ToDirectory, To, AT_EMPTY_PATH); });
    // Older kernels let only privileged processes do that, and say that nothing is there.
    return error != ENOENT ? error : ErrorOf([&] {
        return linkat(AT_FDCWD, ProcPath(Descriptor).data(), ToDirectory, To, AT_SYMLINK_FOLLOW);
    });
}

int TavroUnlinkAt(int Directory, const char* Name) {
    return ErrorOf([&] { return unlinkat(Directory, Name, 0); });
}

int TavroRemoveDirectoryAt(int Directory, const char* Name) {
    return ErrorOf([&] { return unlinkat(Directory, Name, AT_REMOVEDIR); });
}

int TavroMakeDirectoryAt(int Directory, const char* Name, mode_t Mode) {
    return ErrorOf([&] { return mkdirat(Directory, Name, Mode); });
}

int TavroSymlinkAt(const char* Target, int Directory, const char* Name) {
    return ErrorOf([&] { return symlinkat(Target, Directory, Name); });
}

int TavroMakeFifoAt(int Directory, const char* Name, mode_t Mode) {
    return ErrorOf([&] { return mkfifoat(Directory, Name, Mode); });
}

// =================================================================================================
// Bytes
// =================================================================================================

int TavroReadAt(int Descriptor, char* Bytes, std::size_t Size, off_t Offset,
                std::size_t& OutCount) {
    return Count([&] { return pread(Descriptor, Bytes, Size, Offset); }, OutCount);
}

int TavroWriteAt(int Descriptor, const char* Bytes, std::size_t Size, off_t Offset) {
    for (std::size_t written = 0; written < Size;) {
        const ssize_t count = Uninterrupted([&] {
            return pwrite(Descriptor, Bytes + written, Size - written,
                          Offset + static_cast<off_t>(written));
        });
        if (count <= 0) {
            return count < 0 ? errno : EIO;
        }
        written += static_cast<std::size_t>(count);
    }
    return 0;
}

int TavroCopyRange(int From, int To, off_t Offset, std::size_t Size, std::size_t& OutCount) {
    off_t from = Offset;
    off_t to = Offset;
    return Count([&] { return copy_file_range(From, &from, To, &to, Size, 0); }, OutCount);
}

int TavroCloneFile(int From, int To) {
    return ErrorOf([&] { return ioctl(To, FICLONE, From); });
}

int TavroSeek(int Descriptor, off_t Offset, int Whence, off_t& OutOffset) {
    const off_t found = Uninterrupted([&] { return lseek(Descriptor, Offset, Whence); });
    if (found < 0) {
        return errno;
    }
    OutOffset = found;
    return 0;
}

int TavroTruncate(int Descriptor, off_t Size) {
    return ErrorOf([&] { return ftruncate(Descriptor, Size); });
}

int TavroReadFile(int Descriptor, std::size_t Limit, std::string& OutBytes) {
    std::string bytes;
    std::array<char, 4096> block;
    for (;;) {
        std::size_t count = 0;
        const int error = TavroReadAt(Descriptor, block.data(), block.size(),
                                      static_cast<off_t>(bytes.size()), count);
        if (error != 0) {
            return error;
        }
        if (bytes.size() + count > Limit) {
            return EFBIG;
        }
        bytes.append(block.data(), count);
        if (count == 0) {
            OutBytes = std::move(bytes);
            return 0;
        }
    }
}

// =================================================================================================
// Attributes
// =================================================================================================

int TavroSetMode(int Descriptor, mode_t Mode) {
    return ErrorOf([&] { return fchmod(Descriptor, Mode); });
}

int TavroSetOwner(int Descriptor, uid_t User, gid_t Group) {
    return ErrorOf([&] { return fchownat(Descriptor, "", User, Group, AT_EMPTY_PATH); });
}

int TavroSetTimes(int Descriptor, const struct timespec& Access, const struct timespec& Changed) {
    const struct timespec times[2] = {Access, Changed};
    return ErrorOf([&] { return futimens(Descriptor, times); });
}

int TavroSetPathMode(int PathDescriptor, mode_t Mode) {
    return ErrorOf([&] { return chmod(ProcPath(PathDescriptor).data(), Mode); });
}

int TavroSetPathTimes(int PathDescriptor, const struct timespec& Access,
                      const struct timespec& Changed) {
    const struct timespec times[2] = {Access, Changed};
    return ErrorOf([&] { return utimensat(PathDescriptor, "", times, AT_EMPTY_PATH); });
}

namespace {

/// Grows a text until a call that fills it has room. The call gets the text's bytes and its size,
/// and returns how many it wrote.
template <typename Call> int Fill(std::string& OutText, Call Make) {
    std::string text(256, '\0');
    for (;;) {
        const ssize_t size = Uninterrupted([&] { return Make(&text[0], text.size()); });
        if (size >= 0) {
            text.resize(static_cast<std::size_t>(size));
            OutText = std::move(text);
            return 0;
        }
        if (errno != ERANGE || text.size() > (std::size_t{1} << 20U)) {
            return errno;
        }
        text.resize(text.size() * 16);
    }
}

} // namespace

int TavroListAttributes(int Descriptor, std::string& OutNames) {
    const int error = Fill(OutNames, [&](char* names, std::size_t size) {
        return flistxattr(Descriptor, names, size);
    });
    return error != EBADF ? error : Fill(OutNames, [&](char* names, std::size_t size) {
        return listxattr(ProcPath(Descriptor).data(), names, size);
    });
}

int TavroGetAttribute(int Descriptor, const char* Name, std::string& OutValue) {
    const int error = Fill(OutValue, [&](char* value, std::size_t size) {
        return fgetxattr(Descriptor, Name, value, size);
    });
    return error != EBADF ? error : Fill(OutValue, [&](char* value, std::size_t size) {
        return getxattr(ProcPath(Descriptor).data(), Name, value, size);
    });
}

int TavroSetAttribute(int Descriptor, const char* Name, const std::string& Value) {
    const int error =
        ErrorOf([&] { return fsetxattr(Descriptor, Name, Value.data(), Value.size(), 0); });
    return error != EBADF ? error : ErrorOf([&] {
        return setxattr(ProcPath(Descriptor).data(), Name, Value.data(), Value.size(), 0);
    });
}

int TavroRemoveAttribute(int Descriptor, const char* Name) {
    const int error = ErrorOf([&] { return fremovexattr(Descriptor, Name); });
    return error != EBADF ? error
                          : ErrorOf([&] { return removexattr(ProcPath(Descriptor).data(), Name); });
}

// =================================================================================================
// The disk
// =================================================================================================

int TavroSync(int Descriptor) {
    const int error = ErrorOf([&] { return fsync(Descriptor); });
    return error == EBADF ? TavroSyncFileSystem(Descriptor) : error == EINVAL ? 0 : error;
}

int TavroSyncFileSystem(int Descriptor) {
    int error = ErrorOf([&] { return syncfs(Descriptor); });
    TavroDescriptor file;
    // A file without a name can be created where names can, whether they can be read or not.
    if (error == EBADF && TavroOpenAt(Descriptor, ".", O_TMPFILE | O_WRONLY, file, 0600) == 0) {
        error = ErrorOf([&] { return syncfs(file.Number()); });
    }
    return error == EINVAL ? 0 : error;
}

namespace {

/// What the kernel calls the type of a file system; 0 when that is not known.
long TypeOfFileSystem(int Descriptor) {
    struct statfs status = {};
    return ErrorOf([&] { return fstatfs(Descriptor, &status); }) == 0 ? status.f_type : 0;
}

} // namespace

bool TavroKeepsInodes(int Descriptor) {
    constexpr long exfat = 0x2011BAB0;
    const long type = TypeOfFileSystem(Descriptor);
    return type != MSDOS_SUPER_MAGIC && type != exfat && type != FUSE_SUPER_MAGIC;
}

TavroDisk TavroDiskOf(int Descriptor) {
    switch (TypeOfFileSystem(Descriptor)) {
    case EXT4_SUPER_MAGIC:
    case XFS_SUPER_MAGIC:
    case TMPFS_MAGIC: // which has no disk, so that this costs nothing
        return TavroDisk::OrderedLog;
    default:
        return TavroDisk::Independent;
    }
}

const std::string& TavroBootMark() {
    static const std::string mark = [] {
        std::string text;
        TavroDescriptor file;
        const bool bRead = TavroOpenFile("/proc/sys/kernel/random/boot_id", file) == 0 &&
                           TavroReadFile(file.Number(), 100, text) == 0;
        return bRead ? '@' + text.substr(0, text.find('\n')) : std::string();
    }();
    return mark;
}

// =================================================================================================
// Locks
// =================================================================================================

namespace {

struct flock LockOf(short Type, off_t At) {
    struct flock lock = {};
    lock.l_type = Type;
    lock.l_whence = SEEK_SET;
    lock.l_start = At;
    lock.l_len = 1;
    return lock;
}

} // namespace

int TavroLockByte(int Descriptor, off_t At) {
    struct flock lock = LockOf(F_WRLCK, At);
    return ErrorOf([&] { return fcntl(Descriptor, F_OFD_SETLK, &lock); });
}

bool TavroIsByteLocked(int Descriptor, off_t At) {
    struct flock lock = LockOf(F_RDLCK, At);
    const int error = ErrorOf([&] { return fcntl(Descriptor, F_OFD_GETLK, &lock); });
    return error == 0 && lock.l_type != F_UNLCK;
}
