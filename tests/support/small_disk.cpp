#include "small_disk.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

bool run(const std::string& command) {
    // NOLINTNEXTLINE(cert-env33-c): the commands are this file's own
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/// The error must be the one of a full disk: anything else would make the tests say something else.
void expectFull(const std::string& what) {
    if (errno != ENOSPC) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// Writes to a new file until the disk takes no more byte.
/// @return how many bytes it took.
std::uintmax_t writeUntilFull(const fs::path& file) {
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        expectFull("open " + file.string());
        return 0;
    }
    std::uintmax_t taken = 0;
    for (std::size_t chunk : {SmallDisk::blockSize * 16, SmallDisk::blockSize, std::uintmax_t{1}}) {
        const std::string bytes(chunk, 'b');
        ssize_t count = 0;
        while ((count = write(descriptor, bytes.data(), chunk)) > 0) {
            taken += static_cast<std::uintmax_t>(count);
        }
        expectFull("write " + file.string());
    }
    if (close(descriptor) != 0) {
        throw std::system_error(errno, std::generic_category(), "close");
    }
    return taken;
}

} // namespace

SmallDisk::SmallDisk(Type type, std::uintmax_t bytes, unsigned inodes)
    : m_folder(m_box / "disk"), m_obstacle(mountIt(type, bytes, inodes)) {}

SmallDisk::~SmallDisk() {
    if (m_obstacle.empty()) {
        umount2(m_folder.c_str(), MNT_DETACH);
    }
}

std::string SmallDisk::mountIt(Type type, std::uintmax_t bytes, unsigned inodes) const {
    if (!isRoot() || unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return "this process cannot mount in a namespace of its own";
    }
    makeDirectory(m_folder);
    if (type == Tmpfs) {
        const std::string options =
            "size=" + std::to_string(bytes) + ",nr_inodes=" + std::to_string(inodes);
        const bool bMounted =
            mount("tavro-test", m_folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
        return bMounted ? "" : "a tmpfs cannot be mounted here";
    }
    const std::string image = (m_box / "image").string();
    writeFile(image);
    fs::resize_file(image, bytes);
    // Without a journal, what is removed is free again at once.
    if (!run("mkfs.ext4 -q -F -m 0 -b " + std::to_string(blockSize) + " -O ^has_journal -N " +
             std::to_string(inodes) + " '" + image + "'")) {
        return "mkfs.ext4 is not available";
    }
    const bool bMounted = run("mount -o loop '" + image + "' '" + m_folder.string() + "'");
    return bMounted ? "" : "images cannot be mounted here";
}

void SmallDisk::clear() const {
    for (const fs::directory_entry& entry : fs::directory_iterator(m_folder)) {
        fs::remove_all(entry.path());
    }
}

std::uintmax_t SmallDisk::measureRoom() const {
    const fs::path probe = m_folder / "probe";
    const std::uintmax_t room = writeUntilFull(probe);
    fs::remove(probe);
    return room;
}

std::uintmax_t SmallDisk::leaveBytes(std::uintmax_t bytes) const {
    const fs::path ballast = m_folder / "ballast";
    fs::remove(ballast);
    const std::uintmax_t taken = writeUntilFull(ballast);
    fs::resize_file(ballast, taken > bytes ? taken - bytes : 0);
    return measureRoom();
}

void SmallDisk::leaveInodes(unsigned inodes) const {
    const fs::path ballast = m_folder / "ballast";
    fs::remove_all(ballast);
    makeDirectory(ballast);
    unsigned count = 0;
    for (;; ++count) {
        const int descriptor = open((ballast / std::to_string(count)).c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (descriptor < 0) {
            expectFull("open");
            break;
        }
        close(descriptor);
    }
    if (count < inodes) {
        throw std::runtime_error("the disk is too small for this test");
    }
    for (unsigned i = 0; i < inodes; ++i) {
        fs::remove(ballast / std::to_string(i));
    }
}

} // namespace tavro_test
