// A move into a trash that lies on a full disk. The standard library's copy can report success
// there with a file cut short; the entry must not be lost with it.

#include "tavroops.h"

#include "sandbox.h"
#include "small_disk.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <functional>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

constexpr std::uintmax_t diskSize = 1 << 20;
constexpr unsigned inodes = 64;
constexpr std::size_t fileSize = 3000000;

// The standard library copies in pieces of sixteen blocks. Where the disk takes only a part of one,
// it goes on with smaller ones and may not tell that these end, too. The directories of a tree take
// two or three blocks of this room; what they leave still ends within a piece.
constexpr std::uintmax_t room = 24 * SmallDisk::blockSize;

/// A home on a small disk that is full. It is mounted where only a child process sees it, so it is
/// gone with that child.
class FullDisk : public testing::Test {
protected:
    FullDisk() {
        writeFile(m_box / "work/file", std::string(fileSize, 'x'));
        writeFile(m_box / "work/tree/sub/file", std::string(fileSize, 'y'));
        writeFile(m_box / "work/tree/small", "small");
        fs::create_symlink("small", m_box / "work/tree/link");
    }

    /// Runs `body` with the disk as the home and so full that less than the file fits. Skips the
    /// test where that cannot be done.
    void runWithFullHome(const std::function<void()>& body) {
        const fs::path reason = m_box / "reason to skip";
        runInChild([&] {
            const SmallDisk disk(SmallDisk::Ext4, diskSize, inodes);
            m_home = disk.path();
            std::string obstacle = disk.obstacle();
            if (obstacle.empty()) {
                makeDirectory(m_home / ".local/share/Trash/files");
                makeDirectory(m_home / ".local/share/Trash/info");
                disk.leaveBytes(room);
                obstacle = probeCopy();
            }
            if (obstacle.empty()) {
                body();
            } else {
                writeFile(reason, obstacle);
            }
        });
        if (isPresent(reason)) {
            GTEST_SKIP() << readFile(reason);
        }
    }

    /// Why this disk does not show what these tests are about; empty when it does: the standard
    /// library reports success for a copy that it has cut short.
    std::string probeCopy() const {
        const fs::path copy = m_home / "probe";
        std::error_code ec;
        fs::copy_file(m_box / "work/file", copy, ec);
        const std::uintmax_t size = fs::file_size(copy);
        fs::remove(copy);
        if (ec) {
            return "the standard library tells here that its copy failed: " + ec.message();
        }
        EXPECT_LT(size, fileSize) << "the disk was not full";
        return {};
    }

    /// Trashing the entry fails for its copy, and the entry is untouched.
    void expectNotTrashed(const fs::path& path, bool bDirectory) const {
        const ScopedEnvironment home("HOME", m_home.string());
        const Snapshot before = takeSnapshot(path);
        std::vector<TavroTrashEntry> list;
        std::string message;
        EXPECT_FALSE(TavroTrashEntries({{"", path.string(), bDirectory}}, list, message));
        EXPECT_EQ(message,
                  "Failed to copy '" + path.string() + "': " + systemText(std::errc::io_error));
        EXPECT_TRUE(list.empty());
        // Not compared as text: a difference would print three megabytes.
        EXPECT_TRUE(takeSnapshot(path) == before) << "the entry is damaged or lost";
        EXPECT_TRUE(isPresent(m_home / ".local/share/Trash/files" / path.filename()))
            << "the part stays";
        EXPECT_TRUE(fs::is_empty(m_home / ".local/share/Trash/info"));
    }

    Sandbox m_box;
    fs::path m_home;
};

TEST_F(FullDisk, a_file_whose_copy_is_cut_short_stays_where_it_is) {
    runWithFullHome([&] { expectNotTrashed(m_box / "work/file", false); });
}

TEST_F(FullDisk, a_tree_with_a_file_whose_copy_is_cut_short_stays_where_it_is) {
    runWithFullHome([&] { expectNotTrashed(m_box / "work/tree", true); });
}

} // namespace
