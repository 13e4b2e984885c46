// A move into a trash that lies on a full disk. The standard library's copy can report success
// there with a file cut short; the entry must not be lost with it.

#include "tavroops.h"

#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <sched.h>
#include <sys/mount.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

constexpr std::uintmax_t imageSize = 4 << 20;
constexpr std::size_t fileSize = 3000000;

bool run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/// A home on a small disk of its own. The disk is mounted where only a child process sees it, so it
/// is gone with that child.
class FullDisk : public testing::Test {
protected:
    FullDisk() {
        writeFile(m_box / "work/file", std::string(fileSize, 'x'));
        writeFile(m_box / "work/tree/sub/file", std::string(fileSize, 'y'));
        writeFile(m_box / "work/tree/small", "small");
        fs::create_symlink("small", m_box / "work/tree/link");
        makeDirectory(m_home);
    }

    /// Runs `body` with the disk mounted as the home and so full that less than the file fits.
    /// Skips the test where that cannot be done.
    void runWithFullHome(const std::function<void()>& body) {
        const fs::path reason = m_box / "reason to skip";
        runInChild([&] {
            std::string obstacle = mountHome();
            if (obstacle.empty()) {
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

    /// Why the disk could not be mounted; empty when it is.
    std::string mountHome() const {
        const std::string image = (m_box / "image").string();
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return "this process cannot mount in a namespace of its own";
        }
        writeFile(image);
        fs::resize_file(image, imageSize);
        if (!run("mkfs.ext4 -q -F -m 0 '" + image + "'")) {
            return "mkfs.ext4 is not available";
        }
        if (!run("mount -o loop '" + image + "' '" + m_home.string() + "'")) {
            return "images cannot be mounted here";
        }
        // The structures of the file system leave less room on it than the file needs.
        return fs::space(m_home).available < fileSize ? "" : "the disk has room for the file";
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
    const fs::path m_home = m_box / "home";
};

TEST_F(FullDisk, a_file_whose_copy_is_cut_short_stays_where_it_is) {
    runWithFullHome([&] { expectNotTrashed(m_box / "work/file", false); });
}

TEST_F(FullDisk, a_tree_with_a_file_whose_copy_is_cut_short_stays_where_it_is) {
    runWithFullHome([&] { expectNotTrashed(m_box / "work/tree", true); });
}

} // namespace
