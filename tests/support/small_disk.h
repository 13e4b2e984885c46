// Small file systems of a test's own, filled to the last byte or inode.

#ifndef TAVRO_TESTS_SMALL_DISK_H
#define TAVRO_TESTS_SMALL_DISK_H

#include "sandbox.h"

#include <cstdint>
#include <filesystem>
#include <string>

namespace tavro_test {

/// A file system that this process and its children alone see. Mounting it gives this process
/// mounts of its own for good.
class SmallDisk {
public:
    enum Type { Ext4, Tmpfs };

    /// Why it could not be mounted is told by `obstacle`.
    SmallDisk(Type type, std::uintmax_t bytes, unsigned inodes);
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    /// Empty when the disk is mounted.
    const std::string& obstacle() const {
        return m_obstacle;
    }
    const std::filesystem::path& path() const {
        return m_folder;
    }

    /// Removes everything from the disk.
    void clear() const;

    /// Fills the disk until it refuses to take more, and then makes room for so many bytes.
    /// @return how many bytes one new file can take in fact.
    std::uintmax_t leaveBytes(std::uintmax_t bytes) const;

    /// The same for inodes: how many new files there can be.
    void leaveInodes(unsigned inodes) const;

    /// How many bytes a new file can take: it is written until the disk is full.
    std::uintmax_t measureRoom() const;

    static constexpr std::uintmax_t blockSize = 4096;

private:
    std::string mountIt(Type type, std::uintmax_t bytes, unsigned inodes) const;

    Sandbox m_box;
    std::filesystem::path m_folder;
    std::string m_obstacle;
};

} // namespace tavro_test

#endif
