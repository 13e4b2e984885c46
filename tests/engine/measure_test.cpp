// How much an entry holds: by the engine's walk, equal to the module's sum.

#include "measure.h"

#include "deep_tree.h"
#include "fault_injector.h"
#include "posix.h"
#include "sandbox.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <random>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

class Measure : public testing::Test {
protected:
    /// "FILES DIRECTORIES BYTES".
    std::string measure(const std::string& path) {
        TavroMeasurement measurement;
        EXPECT_TRUE(TavroMeasureEntry(path, {}, measurement));
        return std::to_string(measurement.FileCount) + " " +
               std::to_string(measurement.DirectoryCount) + " " +
               std::to_string(measurement.ByteCount);
    }

    std::uint64_t size(const std::string& path) {
        TavroDescriptor directory;
        EXPECT_EQ(0, TavroOpenDirectory(path, directory));
        bool bComplete = false;
        const std::uint64_t bytes = TavroMeasureDirectorySize(directory.Number(), {}, bComplete);
        EXPECT_TRUE(bComplete);
        return bytes;
    }

    Sandbox m_box{inMemory()};
};

} // namespace

TEST_F(Measure, counts_a_tree_with_itself_and_follows_no_link) {
    writeFile(m_box / "tree/a", "12345");
    writeFile(m_box / "tree/sub/b", "123");
    makeDirectory(m_box / "tree/empty");
    fs::create_symlink("a", m_box / "tree/link");
    fs::create_directory_symlink("..", m_box / "tree/up");
    fs::create_hard_link(m_box / "tree/a", m_box / "tree/again");
    makeFifo(m_box / "tree/pipe");
    EXPECT_EQ("6 3 13", measure(m_box / "tree"));
    EXPECT_EQ("1 0 5", measure(m_box / "tree/a"));
    EXPECT_EQ("1 0 0", measure(m_box / "tree/up"));
    EXPECT_EQ("0 0 0", measure(m_box / "missing"));
    EXPECT_EQ("0 0 0", measure(m_box / "missing/x"));
}

TEST_F(Measure, adds_to_what_was_measured) {
    writeFile(m_box / "a", "12345");
    TavroMeasurement measurement = {1, 2, 3};
    EXPECT_TRUE(TavroMeasureEntry(m_box / "a", {}, measurement));
    EXPECT_EQ(2U, measurement.FileCount);
    EXPECT_EQ(2U, measurement.DirectoryCount);
    EXPECT_EQ(8U, measurement.ByteCount);
}

TEST_F(Measure, counts_by_the_apparent_size) {
    writeFile(m_box / "tree/sparse");
    fs::resize_file(m_box / "tree/sparse", std::uintmax_t{1} << 40U);
    EXPECT_EQ("1 1 1099511627776", measure(m_box / "tree"));
    EXPECT_EQ(std::uint64_t{1} << 40U, size(m_box / "tree"));
}

TEST_F(Measure, what_cannot_be_read_counts_as_one_directory) {
    writeFile(m_box / "tree/closed/file", "12345");
    writeFile(m_box / "tree/open", "123");
    writeFile(m_box / "tree/unsearchable/file", "12345");
    fs::permissions(m_box / "tree/closed", fs::perms(0));
    fs::permissions(m_box / "tree/unsearchable", fs::perms(0444));
    runUnprivileged(m_box.path(), [&] {
        EXPECT_EQ("2 3 3", measure(m_box / "tree"));
        EXPECT_EQ(3U, size(m_box / "tree"));
    });
}

TEST_F(Measure, what_cannot_be_listed_or_looked_at_counts_nothing_more) {
    writeFile(m_box / "tree/sub/file", "12345");
    writeFile(m_box / "tree/other", "123");
    {
        const FaultInjector injector({{"getdents64", EIO, "sub"}});
        EXPECT_EQ("1 2 3", measure(m_box / "tree"));
        EXPECT_EQ(1, injector.fired());
    }
    const FaultInjector injector({{"fstatat", EIO, "other"}});
    EXPECT_EQ("2 2 5", measure(m_box / "tree"));
    EXPECT_EQ(1, injector.fired());
}

TEST_F(Measure, asks_before_each_item_and_stops_when_told) {
    writeFile(m_box / "tree/sub/file");
    writeFile(m_box / "tree/other");
    for (int last = 1; last <= 5; ++last) {
        int asked = 0;
        const auto shouldCancel = [&] { return ++asked == last; };
        TavroMeasurement measurement;
        EXPECT_EQ(last == 5, TavroMeasureEntry(m_box / "tree", shouldCancel, measurement));
        EXPECT_EQ(std::min(last, 4), asked);
        EXPECT_EQ(unsigned(std::min(last, 5) - 1),
                  measurement.FileCount + measurement.DirectoryCount);
        asked = 0;
        TavroDescriptor directory;
        ASSERT_EQ(0, TavroOpenDirectory(m_box / "tree", directory));
        bool bComplete = false;
        TavroMeasureDirectorySize(directory.Number(), shouldCancel, bComplete);
        EXPECT_EQ(last == 5, bComplete);
    }
}

TEST_F(Measure, a_tree_of_any_depth_is_counted_whole) {
    const std::string deep = makeDeepTree(m_box / "top", 3000);
    runConfined([&] {
        EXPECT_EQ("1 3001 4", measure(m_box / "top"));
        EXPECT_EQ(4U, size(m_box / "top"));
        EXPECT_EQ("1 1 4", measure(deep));
        EXPECT_EQ(4U, size(deep));
    });
}

// =================================================================================================
// Next to the module
// =================================================================================================

namespace {

/// A tree of files, links, hard links, pipes and directories, some of them closed.
class RandomTree {
public:
    RandomTree(const fs::path& top, unsigned seed) : m_random(seed) {
        makeDirectory(top);
        m_directories.push_back(top);
        for (int i = 0; i < 60; ++i) {
            add(fs::path(m_directories[below(m_directories.size())]) / name(i));
        }
        // Closed at the end, inner ones first, so that something is in them.
        for (std::size_t i = m_directories.size() - 1; i > 0; --i) {
            if (below(5) == 0) {
                const unsigned modes[] = {0000, 0444, 0111, 0333, 0500};
                fs::permissions(m_directories[i], fs::perms(modes[below(5)]));
            }
        }
    }

private:
    std::size_t below(std::size_t limit) {
        return m_random() % limit;
    }

    std::string name(int number) {
        return std::string(1 + below(30), static_cast<char>(1 + below(45))) +
               std::to_string(number);
    }

    void add(const fs::path& path) {
        switch (below(8)) {
        case 0:
        case 1:
            makeDirectory(path);
            m_directories.push_back(path);
            break;
        case 2:
            fs::create_symlink(entry(), path);
            break;
        case 3:
            fs::create_symlink(below(2) == 0 ? "nowhere" : path.filename(), path);
            break;
        case 4:
            makeFifo(path);
            break;
        case 5:
            if (!m_files.empty()) {
                fs::create_hard_link(m_files[below(m_files.size())], path);
                break;
            }
            [[fallthrough]];
        default:
            writeFile(path, std::string(below(3000), 'x'));
            m_files.push_back(path);
        }
    }

    /// What a link may point to.
    fs::path entry() {
        const std::size_t chosen = below(m_directories.size() + m_files.size());
        return chosen < m_directories.size() ? m_directories[chosen]
                                             : m_files[chosen - m_directories.size()];
    }

    std::mt19937 m_random;
    std::vector<fs::path> m_directories;
    std::vector<fs::path> m_files;
};

} // namespace

TEST_F(Measure, sums_up_random_trees_as_the_module_does) {
    std::uint64_t total = 0;
    for (unsigned seed = 0; seed < 60; ++seed) {
        RandomTree(m_box / std::to_string(seed), seed);
    }
    const auto compare = [&] {
        for (unsigned seed = 0; seed < 60; ++seed) {
            SCOPED_TRACE(seed);
            const fs::path tree = m_box / std::to_string(seed);
            const std::uintmax_t expected = TavroCalculateDirectorySize(tree, {});
            EXPECT_EQ(expected, size(tree));
            total += expected;
        }
    };
    compare();
    EXPECT_GT(total, 100000U);
    runUnprivileged(m_box.path(), compare);
}
