#include "file_copy.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

// =================================================================================================
// Bytes
// =================================================================================================

namespace {

/// The most that one call copies: a cancel takes effect within this many bytes.
constexpr std::size_t g_blockSize = std::size_t{4} << 20U;

/// Files up to this size are read and written at once: for them that is the fastest way.
constexpr std::size_t g_smallSize = std::size_t{64} << 10U;

std::error_code LastError() {
    return {errno, std::generic_category()};
}

/// A file descriptor that closes itself.
class Descriptor {
public:
    explicit Descriptor(int Number) : m_number(Number) {}
    ~Descriptor() {
        if (m_number >= 0) {
            close(m_number);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Number() const {
        return m_number;
    }

    /// Closes it now, to see the error that a close can bring.
    bool Close() {
        const int number = m_number;
        m_number = -1;
        return close(number) == 0;
    }

private:
    int m_number;
};

/// The bytes of one file on their way into another. Offsets are the same in both.
class ByteCopy {
public:
    ByteCopy(int From, int To, const TavroCopyMonitor& Monitor)
        : m_from(From), m_to(To), m_monitor(Monitor) {}

    /// Copies `Size` bytes, those in holes as holes when `bSparse`.
    bool Run(off_t Size, bool bSparse, std::error_code& ec);

private:
    bool CopyToEnd(std::error_code& ec);
    bool ShareBlocks(off_t Size);
    bool CopyDataBetweenHoles(off_t Size, std::error_code& ec);
    bool CopyRange(off_t Begin, off_t End, std::error_code& ec);
    ssize_t CopyBlock(off_t Offset, std::size_t Count);
    ssize_t ReadAndWrite(off_t Offset, std::size_t Count);
    void Tell(off_t Bytes) const;

    int m_from;
    int m_to;
    const TavroCopyMonitor& m_monitor;
    bool m_bInKernel = true;
    std::vector<char> m_buffer;
};

void ByteCopy::Tell(off_t Bytes) const {
    if (m_monitor.OnBytes) {
        m_monitor.OnBytes(static_cast<std::uint64_t>(Bytes));
    }
}

bool ByteCopy::Run(off_t Size, bool bSparse, std::error_code& ec) {
    const bool bSmall = Size <= static_cast<off_t>(g_smallSize);
    m_bInKernel = !bSmall;
    if (Size == 0) {
        return CopyToEnd(ec);
    }
    if (!bSmall && ShareBlocks(Size)) {
        Tell(Size);
        return true;
    }
    return bSparse ? CopyDataBetweenHoles(Size, ec) : CopyRange(0, Size, ec);
}

/// A file without a size: mostly an empty one, but the kernel's own files have contents.
bool ByteCopy::CopyToEnd(std::error_code& ec) {
    constexpr std::size_t count = std::size_t{64} << 10U;
    ssize_t copied = 0;
    off_t offset = 0;
    while ((copied = ReadAndWrite(offset, count)) > 0) {
        offset += copied;
        if (m_monitor.ShouldCancel && m_monitor.ShouldCancel()) {
            ec = std::make_error_code(std::errc::operation_canceled);
            return false;
        }
    }
    if (copied < 0) {
        ec = LastError();
    }
    return copied == 0;
}

/// Both files share the same blocks until one is changed; few file systems can. What was appended
/// meanwhile is cut off again.
bool ByteCopy::ShareBlocks(off_t Size) {
    struct stat status = {};
    return ioctl(m_to, FICLONE, m_from) == 0 && fstat(m_to, &status) == 0 &&
           status.st_size >= Size && ftruncate(m_to, Size) == 0;
}

bool ByteCopy::CopyDataBetweenHoles(off_t Size, std::error_code& ec) {
    off_t position = 0;
    while (position < Size) {
        off_t data = lseek(m_from, position, SEEK_DATA);
        if (data < 0 && errno == ENXIO) {
            data = Size; // nothing but a hole from here on
        } else if (data < 0) {
            return CopyRange(position, Size, ec); // holes cannot be told here
        }
        data = std::min(data, Size);
        off_t hole = data < Size ? lseek(m_from, data, SEEK_HOLE) : Size;
        hole = hole < 0 ? Size : std::min(hole, Size);
        Tell(data - position);
        if (!CopyRange(data, hole, ec)) {
            return false;
        }
        position = hole;
    }
    if (ftruncate(m_to, Size) != 0) {
        ec = LastError();
        return false;
    }
    return true;
}

bool ByteCopy::CopyRange(off_t Begin, off_t End, std::error_code& ec) {
    for (off_t offset = Begin; offset < End;) {
        if (m_monitor.ShouldCancel && m_monitor.ShouldCancel()) {
            ec = std::make_error_code(std::errc::operation_canceled);
            return false;
        }
        const ssize_t copied =
            CopyBlock(offset, std::min(g_blockSize, static_cast<std::size_t>(End - offset)));
        if (copied < 0) {
            ec = LastError();
            return false;
        }
        if (copied == 0) {
            ec = std::make_error_code(std::errc::io_error); // the source ends too early
            return false;
        }
        offset += copied;
        Tell(copied);
    }
    return true;
}

ssize_t ByteCopy::CopyBlock(off_t Offset, std::size_t Count) {
    if (m_bInKernel) {
        off_t from = Offset;
        off_t to = Offset;
        const ssize_t copied = copy_file_range(m_from, &from, m_to, &to, Count, 0);
        if (copied > 0 || (copied < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EIO))) {
            return copied;
        }
        // Not between these two file systems, or none of its business: plain reading decides.
        m_bInKernel = false;
    }
    return ReadAndWrite(Offset, Count);
}

ssize_t ByteCopy::ReadAndWrite(off_t Offset, std::size_t Count) {
    m_buffer.resize(std::min(Count, std::size_t{1} << 20U));
    ssize_t count = 0;
    do {
        count = pread(m_from, m_buffer.data(), m_buffer.size(), Offset);
    } while (count < 0 && errno == EINTR);
    for (ssize_t written = 0; written < count;) {
        const ssize_t more = pwrite(m_to, m_buffer.data() + written,
                                    static_cast<std::size_t>(count - written), Offset + written);
        if (more < 0 && errno == EINTR) {
            continue;
        }
        if (more <= 0) {
            errno = more == 0 ? EIO : errno;
            return -1;
        }
        written += more;
    }
    return count;
}

} // namespace

// =================================================================================================
// Attributes
// =================================================================================================

namespace {

/// An entry whose attributes are read or set: one that is open by its descriptor, which saves
/// looking its path up for each call, anything else by its path. Links are not followed.
struct Place {
    const fs::path& Path;
    int Descriptor = -1;

    bool IsOpen() const {
        return Descriptor >= 0;
    }
    ssize_t ListAttributes(char* Names, std::size_t Size) const {
        return IsOpen() ? flistxattr(Descriptor, Names, Size)
                        : llistxattr(Path.c_str(), Names, Size);
    }
    ssize_t GetAttribute(const char* Name, char* Value, std::size_t Size) const {
        return IsOpen() ? fgetxattr(Descriptor, Name, Value, Size)
                        : lgetxattr(Path.c_str(), Name, Value, Size);
    }
    int SetAttribute(const char* Name, const char* Value, std::size_t Size) const {
        return IsOpen() ? fsetxattr(Descriptor, Name, Value, Size, 0)
                        : lsetxattr(Path.c_str(), Name, Value, Size, 0);
    }
    int RemoveAttribute(const char* Name) const {
        return IsOpen() ? fremovexattr(Descriptor, Name) : lremovexattr(Path.c_str(), Name);
    }
    int GetStatus(struct stat& OutStatus) const {
        return IsOpen() ? fstat(Descriptor, &OutStatus) : lstat(Path.c_str(), &OutStatus);
    }
    int SetOwner(uid_t User, gid_t Group) const {
        return IsOpen() ? fchown(Descriptor, User, Group) : lchown(Path.c_str(), User, Group);
    }
    int SetMode(mode_t Mode) const {
        return IsOpen() ? fchmod(Descriptor, Mode) : chmod(Path.c_str(), Mode);
    }
    int SetTimes(const struct timespec Times[2]) const {
        return IsOpen() ? futimens(Descriptor, Times)
                        : utimensat(AT_FDCWD, Path.c_str(), Times, AT_SYMLINK_NOFOLLOW);
    }
};

/// The names of the extended attributes of an entry, each ended by a zero byte; empty when there
/// are none or none can be had.
std::vector<char> AttributeNames(const Place& From) {
    std::vector<char> names(1024);
    for (;;) {
        const ssize_t size = From.ListAttributes(names.data(), names.size());
        if (size >= 0) {
            names.resize(static_cast<std::size_t>(size));
            return names;
        }
        if (errno != ERANGE || names.size() > (std::size_t{1} << 20U)) {
            return {};
        }
        names.resize(names.size() * 4);
    }
}

bool HasName(const std::vector<char>& Names, const std::string& Name) {
    const std::string ended = Name + '\0';
    return std::search(Names.begin(), Names.end(), ended.begin(), ended.end()) != Names.end();
}

/// A new entry takes over lists from its folder. They could let in others than the original does.
void RemoveInheritedLists(const Place& To, mode_t Mode, const std::vector<char>& Names) {
    if (!S_ISLNK(Mode) && !HasName(Names, "system.posix_acl_access")) {
        To.RemoveAttribute("system.posix_acl_access");
    }
    if (S_ISDIR(Mode) && !HasName(Names, "system.posix_acl_default")) {
        To.RemoveAttribute("system.posix_acl_default");
    }
}

/// Access control lists are extended attributes too. One that the target cannot hold is left out.
void CopyExtendedAttributes(const Place& From, const Place& To, mode_t Mode) {
    const std::vector<char> names = AttributeNames(From);
    RemoveInheritedLists(To, Mode, names);
    std::vector<char> value;
    for (auto name = names.begin(); name != names.end();) {
        value.resize(std::size_t{64} << 10U); // the kernel's limit for a value
        const ssize_t size = From.GetAttribute(&*name, value.data(), value.size());
        if (size >= 0) {
            To.SetAttribute(&*name, value.data(), static_cast<std::size_t>(size));
        }
        name = std::find(name, names.end(), '\0') + 1;
    }
}

/// The last call failed because the file system has no such attribute, which is no failure.
bool CannotHold() {
    return errno == EPERM || errno == ENOTSUP || errno == ENOSYS;
}

/// @return whether `To` belongs to the owner and group of `From` now.
bool CopyOwner(const Place& To, const struct stat& Status) {
    struct stat now = {};
    if (To.GetStatus(now) == 0 && now.st_uid == Status.st_uid && now.st_gid == Status.st_gid) {
        return true;
    }
    if (To.SetOwner(Status.st_uid, Status.st_gid) == 0) {
        return true;
    }
    // An ordinary user may still choose among his own groups.
    To.SetOwner(static_cast<uid_t>(-1), Status.st_gid);
    return false;
}

void CopyAttributes(const Place& From, const Place& To, const struct stat& Status,
                    std::error_code& ec) {
    ec.clear();
    const bool bOwnerKept = CopyOwner(To, Status);
    CopyExtendedAttributes(From, To, Status.st_mode);
    const mode_t kept = bOwnerKept ? 07777 : 01777;
    if (!S_ISLNK(Status.st_mode) && To.SetMode(Status.st_mode & kept) != 0 && !CannotHold()) {
        ec = LastError();
        return;
    }
    const struct timespec times[2] = {Status.st_atim, Status.st_mtim};
    if (To.SetTimes(times) != 0 && !CannotHold()) {
        ec = LastError();
    }
}

} // namespace

void TavroCopyAttributes(const fs::path& From, const fs::path& To, const struct stat& Status,
                         std::error_code& ec) {
    CopyAttributes({From}, {To}, Status, ec);
}

// =================================================================================================
// Whole files
// =================================================================================================

namespace {

std::string Sentence(const std::string& What, const fs::path& Path, const std::error_code& ec) {
    return What + " '" + Path.string() + "': " + ec.message();
}

/// Opens a file that was a regular file a moment ago; what is a FIFO by now does not block.
int OpenSource(const fs::path& From, struct stat& OutStatus, std::error_code& ec) {
    const int number = open(From.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (number < 0 || fstat(number, &OutStatus) != 0) {
        ec = LastError();
    } else if (!S_ISREG(OutStatus.st_mode)) {
        ec = std::make_error_code(std::errc::io_error);
    }
    return number;
}

/// Everything of a copy that happens while both files are open.
std::string CopyOpened(Descriptor& Source, Descriptor& Target, const fs::path& From,
                       const fs::path& To, bool bSync, const TavroCopyMonitor& Monitor,
                       const struct stat& Status, std::error_code& ec) {
    const bool bSparse = Status.st_blocks * 512 < Status.st_size; // blocks of 512 bytes
    const bool bCopied =
        ByteCopy(Source.Number(), Target.Number(), Monitor).Run(Status.st_size, bSparse, ec);
    // The copy of a file that became shorter meanwhile is not what the file was at any moment.
    struct stat now = {};
    const std::error_code nowEc =
        fstat(Source.Number(), &now) == 0 ? std::error_code() : LastError();
    if ((bCopied || ec == std::errc::io_error) && !nowEc && now.st_size < Status.st_size) {
        ec = std::make_error_code(std::errc::io_error);
        return "'" + From.string() + "' became shorter while it was copied";
    }
    if (!bCopied) {
        return Sentence("Cannot copy", From, ec);
    }
    if (nowEc) {
        ec = nowEc;
        return Sentence("Cannot read", From, ec);
    }
    CopyAttributes({From, Source.Number()}, {To, Target.Number()}, Status, ec);
    if (ec) {
        return Sentence("Cannot set the attributes of", To, ec);
    }
    struct stat arrived = {};
    if ((bSync && fsync(Target.Number()) != 0) || fstat(Target.Number(), &arrived) != 0 ||
        !Target.Close()) {
        ec = LastError();
        return Sentence("Cannot write", To, ec);
    }
    if (Status.st_size != 0 && arrived.st_size != Status.st_size) {
        ec = std::make_error_code(std::errc::io_error);
        return "The copy of '" + From.string() + "' is not whole";
    }
    return {};
}

} // namespace

std::string TavroCopyRegularFile(const fs::path& From, const fs::path& To, bool bSync,
                                 const TavroCopyMonitor& Monitor, struct stat& OutStatus,
                                 std::error_code& ec) {
    ec.clear();
    Descriptor source(OpenSource(From, OutStatus, ec));
    if (ec) {
        return Sentence("Cannot read", From, ec);
    }
    Descriptor target(open(To.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (target.Number() < 0) {
        ec = LastError();
        return Sentence("Cannot create", To, ec);
    }
    std::string failure = CopyOpened(source, target, From, To, bSync, Monitor, OutStatus, ec);
    if (ec) {
        unlink(To.c_str());
    }
    return failure;
}
