/// The floor of the engine: every system call that names a file or works on an open one is made
/// here. Names are relative to an open directory and are never followed when they are links; an
/// interrupted call is made again.
///
/// Each function returns 0 after success and the error number otherwise. Out-parameters are set
/// after success only.

#ifndef TAVRO_ENGINE_POSIX_H
#define TAVRO_ENGINE_POSIX_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

/// An open file descriptor that closes itself.
class TavroDescriptor {
public:
    TavroDescriptor() = default;
    explicit TavroDescriptor(int Number) : m_number(Number) {}
    TavroDescriptor(TavroDescriptor&& Other) noexcept
        : m_number(std::exchange(Other.m_number, -1)) {}
    TavroDescriptor& operator=(TavroDescriptor&& Other) noexcept;
    TavroDescriptor(const TavroDescriptor&) = delete;
    TavroDescriptor& operator=(const TavroDescriptor&) = delete;
    ~TavroDescriptor();

    int Number() const {
        return m_number;
    }
    bool IsOpen() const {
        return m_number >= 0;
    }

    /// Closes it now. @return the error that a close can bring; 0 when it was not open.
    int Close();

private:
    int m_number = -1;
};

// --- Opening ---

/// Opens a name below a directory. O_NOFOLLOW and O_CLOEXEC are added to `Flags`.
int TavroOpenAt(int Directory, const char* Name, int Flags, TavroDescriptor& OutDescriptor,
                mode_t Mode = 0);

/// Opens a name below a directory for listing; ENOTDIR for anything else, be it a link to one.
int TavroOpenDirectoryAt(int Directory, const char* Name, TavroDescriptor& OutDescriptor);

/// Opens a directory by a path of any length, absolute or relative to the current directory. Links
/// on the way are followed. One that may be searched but not listed is opened with O_PATH. A path
/// with a zero byte in it is EINVAL, here and wherever a whole path is taken.
int TavroOpenDirectory(const std::string& Path, TavroDescriptor& OutDescriptor);

/// Opens a file for reading by its path, links followed; a FIFO is not waited for.
int TavroOpenFile(const std::string& Path, TavroDescriptor& OutDescriptor);

/// As TavroOpenFile, for a name below a directory.
int TavroOpenFileAt(int Directory, const char* Name, TavroDescriptor& OutDescriptor);

// --- Looking ---

/// Whether a look failed because there is nothing.
inline bool TavroIsMissing(int Error) {
    return Error == ENOENT || Error == ENOTDIR;
}

int TavroStatAt(int Directory, const char* Name, struct stat& OutStatus);
int TavroStat(int Descriptor, struct stat& OutStatus);

/// As TavroStatAt, but a link is followed.
int TavroStatTargetAt(int Directory, const char* Name, struct stat& OutStatus);

/// By a path of any length; the last component is not followed.
int TavroStatPath(const std::string& Path, struct stat& OutStatus);

/// The status of an open file, and the number of the mount that it lies on; that of the device
/// where the kernel does not tell mounts apart.
int TavroStatWithMount(int Descriptor, struct stat& OutStatus, std::uint64_t& OutMount);

/// As TavroStatAt, with the moment at which the file was created, in nanoseconds since 1970; 0
/// where the file system does not tell.
int TavroStatWithBirthAt(int Directory, const char* Name, struct stat& OutStatus,
                         std::int64_t& OutBirth);

/// What a look at a path told in time.
enum class TavroPresence { Missing, Present, Silent };

constexpr int TavroPatience = 1000; ///< How many milliseconds a file system has for its answer.

/// Looks whether there is something at each path, by a child process, which is left to itself when
/// a file system does not answer it: nothing waits for it, not even the end of this process. A path
/// after such a one has its own time.
std::vector<TavroPresence> TavroLookInTime(const std::vector<std::string>& Paths, int Milliseconds);

/// Whether this process may do so with a name: `Mode` is of R_OK, W_OK, X_OK. "." is the directory.
/// A link is asked itself, and always says yes.
int TavroAccessAt(int Directory, const char* Name, int Mode);

int TavroReadLinkAt(int Directory, const char* Name, std::string& OutTarget);

/// The path by which the kernel knows an open directory now, links resolved; ENAMETOOLONG when it
/// is longer than the kernel tells, ENOENT when the directory has been removed.
int TavroPathOf(int Descriptor, std::string& OutPath);

/// The names in a directory with their types, read at once, so that nothing that happens to the
/// directory meanwhile disturbs the reader. Without "." and "..".
class TavroListing {
public:
    /// Goes on to the next name.
    /// @return the name, valid as long as the listing is; null at the end.
    const char* Next();

    /// The type of the name that Next returned last: DT_REG, DT_DIR …; DT_UNKNOWN when the file
    /// system does not tell.
    unsigned char Type() const {
        return static_cast<unsigned char>(m_bytes[m_typeAt]);
    }

private:
    friend int TavroListDirectory(int Directory, TavroListing& OutListing);
    std::vector<char> m_bytes; ///< For each name its type, its bytes and a zero byte.
    std::size_t m_typeAt = 0;
    std::size_t m_next = 0;
};

/// Lists an open directory from its beginning. One that was removed meanwhile is empty.
int TavroListDirectory(int Directory, TavroListing& OutListing);

// --- Changing names ---

/// Whether two names lead to one file because the directory takes them for the same, as one that
/// does not tell small letters from capitals: only the first is listed.
bool TavroIsOtherSpelling(int FromDirectory, const char* From, int ToDirectory, const char* To);

/// Renames without replacing anything: EEXIST when something is at the new name. Where the file
/// system has no such call, the name is looked at first. To another spelling of its name a file
/// goes in two steps, by TavroAsideName of a hidden name.
/// @param Staged  the hidden name; empty: a new one.
int TavroRenameNoReplace(int FromDirectory, const char* From, int ToDirectory, const char* To,
                         const std::string& Staged = {});

/// Renames; what is at the new name is replaced.
int TavroRename(int FromDirectory, const char* From, int ToDirectory, const char* To);

/// Exchanges two names, in one step where the file system can; else in three, by a name that is
/// `From` and "-old". After an error each has its own name.
int TavroExchange(int FromDirectory, const char* From, int ToDirectory, const char* To);

/// Gives an open file one more name, or its first: what becomes of its other names does not matter.
int TavroLinkOpenAt(int Descriptor, int ToDirectory, const char* To);

int TavroUnlinkAt(int Directory, const char* Name);
int TavroRemoveDirectoryAt(int Directory, const char* Name);
int TavroMakeDirectoryAt(int Directory, const char* Name, mode_t Mode);
int TavroSymlinkAt(const char* Target, int Directory, const char* Name);
int TavroMakeFifoAt(int Directory, const char* Name, mode_t Mode);

// --- Bytes ---

/// Reads at an offset. @param OutCount  0 at the end of the file.
int TavroReadAt(int Descriptor, char* Bytes, std::size_t Size, off_t Offset, std::size_t& OutCount);

/// Writes all bytes at an offset.
int TavroWriteAt(int Descriptor, const char* Bytes, std::size_t Size, off_t Offset);

/// Lets the kernel copy bytes between two files at the same offset in both.
int TavroCopyRange(int From, int To, off_t Offset, std::size_t Size, std::size_t& OutCount);

/// Lets both files share the same blocks; an error where the file system cannot.
int TavroCloneFile(int From, int To);

/// The next data (SEEK_DATA) or hole (SEEK_HOLE) from an offset; ENXIO when there is none.
int TavroSeek(int Descriptor, off_t Offset, int Whence, off_t& OutOffset);

int TavroTruncate(int Descriptor, off_t Size);

/// Reads a whole file of `Limit` bytes at most; EFBIG for a longer one.
int TavroReadFile(int Descriptor, std::size_t Limit, std::string& OutBytes);

// --- Attributes ---
//
// On open files. The extended attributes of what was opened with O_PATH (a link, a FIFO) are
// reached through /proc; its mode and times have functions of their own.

int TavroSetMode(int Descriptor, mode_t Mode);
int TavroSetOwner(int Descriptor, uid_t User, gid_t Group);
int TavroSetTimes(int Descriptor, const struct timespec& Access, const struct timespec& Changed);
int TavroSetPathMode(int PathDescriptor, mode_t Mode);
int TavroSetPathTimes(int PathDescriptor, const struct timespec& Access,
                      const struct timespec& Changed);

/// The names of the extended attributes, each ended by a zero byte.
int TavroListAttributes(int Descriptor, std::string& OutNames);
int TavroGetAttribute(int Descriptor, const char* Name, std::string& OutValue);
int TavroSetAttribute(int Descriptor, const char* Name, const std::string& Value);
int TavroRemoveAttribute(int Descriptor, const char* Name);

// --- The disk ---

// A file system that cannot sync is no error. A directory that was opened with O_PATH, because it
// cannot be read, reaches the disk with its whole file system.

/// Lets an open file or directory reach the disk.
int TavroSync(int Descriptor);

/// Lets everything written to the file system of an open file or directory reach the disk.
int TavroSyncFileSystem(int Descriptor);

/// What a file system has to do before a change of names is on its disk.
enum class TavroDisk {
    OrderedLog,  ///< One log has all changes in order: syncing the last syncs all.
    Independent, ///< Each directory for itself.
};

/// That of an open file or directory; Independent when it is not known.
TavroDisk TavroDiskOf(int Descriptor);

/// Whether the files beside an open one keep their inodes when their file system is mounted anew.
/// FAT has none, and of FUSE it is not known.
bool TavroKeepsInodes(int Descriptor);

/// Tells one start of the system from another one: "@" and the kernel's text for it; empty where
/// the kernel has none. What was written since the start is read as it was written, on the disk or
/// not.
const std::string& TavroBootMark();

// --- Locks ---

/// Locks one byte of a file against all other descriptors, until this one is closed; EAGAIN when
/// another one holds it. It does not wait.
int TavroLockByte(int Descriptor, off_t At);

/// Whether another descriptor holds such a lock.
bool TavroIsByteLocked(int Descriptor, off_t At);

#endif
