// A disk that remembers: serves the files of one directory and appends every write and every flush
// of them, with the data and in the order of their arrival, to a log. A loop device on such a file
// hands on what a file system writes; any prefix of the log is then what a disk held at that
// moment.
//
// A record is a head of 16 bytes (kind, image, two bytes of zero, length, offset; in the machine's
// order) and, for a write or a mark, `length` bytes. The image is the first letter of the file's
// name. What is written to the file `mark` moves nothing: it stands in the log as a mark.

#define FUSE_USE_VERSION 35

#include <fuse.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

enum class Kind : std::uint8_t { Write = 'w', Flush = 'f', Mark = 'm' };

struct Head {
    Kind What;
    char Image;
    std::uint16_t Zero;
    std::uint32_t Length;
    std::uint64_t Offset;
};
static_assert(sizeof(Head) == 16, "the reader of the log counts on it");

const char* const markName = "/mark";
int g_directory = -1;
int g_log = -1;

/// Appends one record whole. A log with a hole would let a wrong state pass for a right one, so the
/// disk fails for good when the log cannot be written.
void record(Kind what, const char* path, const char* data, std::size_t length, off_t offset) {
    Head head{what, path[1], 0, static_cast<std::uint32_t>(length),
              static_cast<std::uint64_t>(offset)};
    const iovec parts[] = {{&head, sizeof head}, {const_cast<char*>(data), length}};
    if (writev(g_log, parts, 2) != static_cast<ssize_t>(sizeof head + length)) {
        std::perror("powercut_recorder: log");
        _exit(1);
    }
}

int answer(ssize_t result) {
    return result < 0 ? -errno : static_cast<int>(result);
}

bool isMark(const char* path) {
    return std::strcmp(path, markName) == 0;
}

int getAttributes(const char* path, struct stat* status, fuse_file_info*) {
    *status = {};
    if (isMark(path)) {
        status->st_mode = S_IFREG | 0600;
        status->st_nlink = 1;
        return 0;
    }
    const char* name = path[1] == '\0' ? "." : path + 1;
    return answer(fstatat(g_directory, name, status, AT_SYMLINK_NOFOLLOW));
}

int openImage(const char* path, fuse_file_info* info) {
    info->direct_io = 1; // what is written arrives now, as it is
    if (isMark(path)) {
        return 0;
    }
    const int descriptor = openat(g_directory, path + 1, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    info->fh = static_cast<std::uint64_t>(descriptor);
    return descriptor < 0 ? -errno : 0;
}

int releaseImage(const char* path, fuse_file_info* info) {
    return isMark(path) ? 0 : answer(close(static_cast<int>(info->fh)));
}

int readImage(const char* path, char* data, std::size_t length, off_t offset,
              fuse_file_info* info) {
    return isMark(path) ? 0 : answer(pread(static_cast<int>(info->fh), data, length, offset));
}

int writeImage(const char* path, const char* data, std::size_t length, off_t offset,
               fuse_file_info* info) {
    if (isMark(path)) {
        record(Kind::Mark, path, data, length, 0);
        return static_cast<int>(length);
    }
    const ssize_t written = pwrite(static_cast<int>(info->fh), data, length, offset);
    if (written > 0) {
        record(Kind::Write, path, data, static_cast<std::size_t>(written), offset);
    }
    return answer(written);
}

int flushImage(const char* path, int, fuse_file_info*) {
    record(Kind::Flush, path, nullptr, 0, 0);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: powercut_recorder DIRECTORY LOG MOUNTPOINT\n");
        return 2;
    }
    g_directory = open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    g_log = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    if (g_directory < 0 || g_log < 0) {
        std::perror("powercut_recorder");
        return 1;
    }
    fuse_operations operations{};
    operations.getattr = getAttributes;
    operations.open = openImage;
    operations.release = releaseImage;
    operations.read = readImage;
    operations.write = writeImage;
    operations.fsync = flushImage;
    // One thread, in the foreground: the order of the log is the order in which calls were
    // answered.
    std::string name = argv[0], single = "-s", foreground = "-f", mountPoint = argv[3];
    char* arguments[] = {name.data(), single.data(), foreground.data(), mountPoint.data()};
    return fuse_main(4, arguments, &operations, nullptr);
}
