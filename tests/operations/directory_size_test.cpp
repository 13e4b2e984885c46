// How much a tree holds, and how the walk is stopped.

#include "sandbox.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

constexpr std::size_t never = std::numeric_limits<std::size_t>::max();

/// A hook that counts its calls and says stop at one of them.
class CountingHook {
public:
    explicit CountingHook(std::size_t stopAt = never) : m_stopAt(stopAt) {}

    std::function<bool()> hook() {
        return [this] { return ++m_calls == m_stopAt; };
    }
    std::size_t calls() const {
        return m_calls;
    }

private:
    std::size_t m_stopAt;
    std::size_t m_calls = 0;
};

/// The size of the whole tree.
std::uintmax_t sizeOf(const fs::path& root) {
    return TavroCalculateDirectorySize(root, nullptr);
}

/// What a walk that is stopped at its call `stopAt` of the hook has counted.
std::uintmax_t sizeUntil(const fs::path& root, std::size_t stopAt) {
    CountingHook counting(stopAt);
    return TavroCalculateDirectorySize(root, counting.hook());
}

/// How often the hook of a whole walk is called.
std::size_t callsFor(const fs::path& root) {
    CountingHook counting;
    TavroCalculateDirectorySize(root, counting.hook());
    return counting.calls();
}

/// A hook that runs `act` at its first call and never stops the walk.
std::function<bool()> atFirstCall(const std::function<void()>& act) {
    return [act, bActed = false]() mutable {
        if (!bActed) {
            bActed = true;
            act();
        }
        return false;
    };
}

/// A descriptor that is closed at the end.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : m_descriptor(descriptor) {
        if (m_descriptor < 0) {
            throw std::runtime_error("the test cannot be set up: " +
                                     std::string(std::strerror(errno)));
        }
    }
    ~Descriptor() {
        close(m_descriptor);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const {
        return m_descriptor;
    }
    void enter(const std::string& name) {
        const int inside = openat(m_descriptor, name.c_str(), O_DIRECTORY | O_CLOEXEC);
        Descriptor next(inside);
        std::swap(m_descriptor, next.m_descriptor);
    }

private:
    int m_descriptor;
};

/// A socket that lies in the current directory under `name`.
void makeSocket(const std::string& name) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);
}

class DirectorySize : public testing::Test {
protected:
    /// A file of this many bytes.
    void file(const std::string& name, std::size_t size) const {
        writeFile(box / name, std::string(size, 'x'));
    }

    /// Eight entries that hold 1 + 20 + 300 + 4000 bytes.
    void makeTree() const {
        file("tree/a", 1);
        file("tree/d/b", 20);
        file("tree/d/e/c", 300);
        file("tree/f/d", 4000);
        makeDirectory(box / "tree/empty");
    }

    static constexpr std::size_t treeEntries = 8;
    static constexpr std::uintmax_t treeSize = 4321;

    Sandbox box;
};

} // namespace

// ---------------------------------------------------------------------------------------------
// What counts
// ---------------------------------------------------------------------------------------------

TEST_F(DirectorySize, is_the_sum_of_the_files_on_all_levels) {
    makeTree();
    EXPECT_EQ(sizeOf(box / "tree"), treeSize);
    EXPECT_EQ(sizeOf(box.path()), treeSize);
}

TEST_F(DirectorySize, of_an_empty_directory_is_zero) {
    makeDirectory(box / "empty");
    EXPECT_EQ(sizeOf(box / "empty"), 0U);
    EXPECT_EQ(callsFor(box / "empty"), 0U);
}

TEST_F(DirectorySize, of_what_is_no_directory_is_zero_and_asks_nothing) {
    file("a.txt", 10);
    makeFifo(box / "pipe");
    fs::create_symlink("a.txt", box / "link to file");
    fs::create_symlink("nowhere", box / "dangling");
    fs::create_symlink("loop", box / "loop");
    const std::string tooLongName(300, 'n');
    for (const std::string name : {"a.txt", "a.txt/below", "pipe", "link to file", "dangling",
                                   "loop", "missing", tooLongName.c_str()}) {
        EXPECT_EQ(sizeOf(box / name), 0U) << name;
        EXPECT_EQ(callsFor(box / name), 0U) << name;
    }
}

TEST_F(DirectorySize, of_an_empty_path_is_zero) {
    makeTree();
    const ScopedCurrentDirectory inside(box / "tree");
    EXPECT_EQ(sizeOf(""), 0U);
    EXPECT_EQ(callsFor(""), 0U);
    EXPECT_EQ(sizeOf("."), treeSize);
}

TEST_F(DirectorySize, of_a_link_to_a_directory_is_that_of_the_directory) {
    makeTree();
    fs::create_directory_symlink("tree", box / "link");
    EXPECT_EQ(sizeOf(box / "link"), treeSize);
    EXPECT_EQ(sizeOf(box / "link/"), treeSize);
    EXPECT_EQ(callsFor(box / "link"), treeEntries);
}

TEST_F(DirectorySize, counts_a_link_to_a_file_with_the_size_of_its_target) {
    file("tree/a", 10);
    fs::create_symlink("a", box / "tree/link");
    EXPECT_EQ(sizeOf(box / "tree"), 20U);
    file("outside", 300);
    fs::create_symlink(box / "outside", box / "tree/link outside");
    fs::create_symlink("link outside", box / "tree/link to link");
    EXPECT_EQ(sizeOf(box / "tree"), 620U);
}

TEST_F(DirectorySize, does_not_enter_links_to_directories) {
    makeTree();
    file("tree/d/more", 5);
    const std::uintmax_t size = treeSize + 5;
    EXPECT_EQ(sizeOf(box / "tree"), size);
    file("outside/a", 100);
    fs::create_directory_symlink(box / "outside", box / "tree/link outside");
    fs::create_directory_symlink("f", box / "tree/link inside");
    fs::create_directory_symlink("..", box / "tree/d/link back");
    EXPECT_EQ(sizeOf(box / "tree"), size);
    // A link is an entry all the same.
    EXPECT_EQ(callsFor(box / "tree"), treeEntries + 4);
}

TEST_F(DirectorySize, counts_nothing_for_links_that_lead_nowhere) {
    file("tree/a", 10);
    fs::create_symlink("nowhere", box / "tree/dangling");
    fs::create_symlink("loop", box / "tree/loop");
    fs::create_symlink("a/below", box / "tree/below a file");
    EXPECT_EQ(sizeOf(box / "tree"), 10U);
    EXPECT_EQ(callsFor(box / "tree"), 4U);
}

TEST_F(DirectorySize, counts_a_file_once_for_each_of_its_names) {
    file("tree/a", 10);
    fs::create_hard_link(box / "tree/a", box / "tree/b");
    makeDirectory(box / "tree/d");
    fs::create_hard_link(box / "tree/a", box / "tree/d/c");
    EXPECT_EQ(sizeOf(box / "tree"), 30U);
}

TEST_F(DirectorySize, counts_a_sparse_file_with_its_apparent_size) {
    constexpr std::uintmax_t fiveGiB = 5ULL << 30;
    file("tree/sparse", 0);
    fs::resize_file(box / "tree/sparse", fiveGiB);
    file("tree/a", 10);
    EXPECT_EQ(sizeOf(box / "tree"), fiveGiB + 10);
}

TEST_F(DirectorySize, counts_nothing_for_special_files) {
    file("tree/a", 10);
    makeFifo(box / "tree/pipe");
    fs::create_symlink("pipe", box / "tree/link to pipe");
    fs::create_symlink("/dev/zero", box / "tree/link to device");
    const ScopedCurrentDirectory inside(box / "tree");
    makeSocket("socket");
    EXPECT_EQ(sizeOf(box / "tree"), 10U);
    EXPECT_EQ(callsFor(box / "tree"), 5U);
}

TEST_F(DirectorySize, counts_files_whose_names_are_any_bytes) {
    file("tree/\xff new\nline", 10);
    file("tree/.hidden", 3);
    file("tree/\xfe/\\", 200);
    EXPECT_EQ(sizeOf(box / "tree"), 213U);
}

// ---------------------------------------------------------------------------------------------
// What cannot be read
// ---------------------------------------------------------------------------------------------

TEST_F(DirectorySize, passes_over_folders_that_may_not_be_read) {
    // Several of each, so that some readable directory follows an unreadable one in any order.
    for (const std::string number : {"1", "2", "3", "4"}) {
        file("tree/closed " + number + "/a", 1000);
        file("tree/open " + number + "/a", 10);
        file("tree/open " + number + "/closed/a", 1000);
        file("tree/open " + number + "/z", 1);
    }
    runUnprivileged(box.path(), [&] {
        for (const std::string number : {"1", "2", "3", "4"}) {
            fs::permissions(box / ("tree/closed " + number), fs::perms::none);
            fs::permissions(box / ("tree/open " + number + "/closed"), fs::perms::owner_exec);
        }
        EXPECT_EQ(sizeOf(box / "tree"), 44U);
        EXPECT_EQ(callsFor(box / "tree"), 20U);
    });
}

TEST_F(DirectorySize, of_a_root_that_may_not_be_read_is_zero) {
    file("tree/a", 10);
    file("above/tree/a", 10);
    runUnprivileged(box.path(), [&] {
        fs::permissions(box / "tree", fs::perms::none);
        fs::permissions(box / "above", fs::perms::none);
        for (const std::string root : {"tree", "above/tree"}) {
            EXPECT_EQ(sizeOf(box / root), 0U) << root;
            EXPECT_EQ(callsFor(box / root), 0U) << root;
        }
    });
}

TEST_F(DirectorySize, counts_nothing_for_files_that_can_be_listed_but_not_examined) {
    file("tree/listed/a", 1000);
    file("tree/listed/b", 1000);
    file("tree/c", 10);
    runUnprivileged(box.path(), [&] {
        fs::permissions(box / "tree/listed", fs::perms::owner_read);
        EXPECT_EQ(sizeOf(box / "tree"), 10U);
        EXPECT_EQ(callsFor(box / "tree"), 4U);
    });
}

// Directories are opened one from the other, so their depth has no limit; files are examined by
// their whole path, which the system takes up to PATH_MAX with the byte that ends it.
TEST_F(DirectorySize, walks_folders_that_are_too_deep_for_a_path_and_counts_no_files_there) {
    constexpr std::size_t levels = 40;
    const std::string name(200, 'd');
    Descriptor folder(open(box.path().c_str(), O_DIRECTORY | O_CLOEXEC));
    std::size_t folderLength = box.path().native().size();
    std::uintmax_t expected = 0;
    for (std::size_t level = 0; level < levels; ++level) {
        ASSERT_EQ(mkdirat(folder.get(), name.c_str(), 0755), 0);
        folder.enter(name);
        const Descriptor file(openat(folder.get(), "f", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        ASSERT_EQ(write(file.get(), "0123456789", 10), 10);
        folderLength += 1 + name.size();
        const std::size_t fileLength = folderLength + 2;
        expected += fileLength < PATH_MAX ? 10U : 0U;
    }
    ASSERT_LT(expected, 10 * levels);
    EXPECT_EQ(sizeOf(box.path()), expected);
    EXPECT_EQ(callsFor(box.path()), 2 * levels);
}

// ---------------------------------------------------------------------------------------------
// The hook
// ---------------------------------------------------------------------------------------------

TEST_F(DirectorySize, asks_the_hook_once_for_each_entry_on_the_calling_thread) {
    makeTree();
    EXPECT_EQ(callsFor(box / "tree"), treeEntries);
    bool bAlwaysHere = true;
    TavroCalculateDirectorySize(box / "tree", [&, here = std::this_thread::get_id()] {
        bAlwaysHere = bAlwaysHere && std::this_thread::get_id() == here;
        return false;
    });
    EXPECT_TRUE(bAlwaysHere);
}

TEST_F(DirectorySize, does_without_a_hook) {
    makeTree();
    EXPECT_EQ(TavroCalculateDirectorySize(box / "tree", std::function<bool()>()), treeSize);
}

TEST_F(DirectorySize, stopped_at_any_entry_is_the_sum_of_the_entries_before_it) {
    constexpr std::size_t count = 50;
    for (std::size_t i = 0; i < count; ++i) {
        file("flat/" + std::to_string(i), 10);
    }
    for (std::size_t stopAt = 1; stopAt <= count + 1; ++stopAt) {
        CountingHook counting(stopAt);
        EXPECT_EQ(TavroCalculateDirectorySize(box / "flat", counting.hook()), 10 * (stopAt - 1));
        EXPECT_EQ(counting.calls(), std::min(stopAt, count));
    }
}

TEST_F(DirectorySize, stopped_within_a_tree_is_the_sum_of_the_entries_before_it) {
    makeTree();
    // Each file has a digit of its own, so a sum tells which files are in it: those that the walk
    // met before, one more or none with each call.
    std::uintmax_t before = 0;
    std::size_t added = 0;
    for (std::size_t stopAt = 1; stopAt <= treeEntries + 1; ++stopAt) {
        const std::uintmax_t sum = sizeUntil(box / "tree", stopAt);
        const std::uintmax_t step = sum - before;
        EXPECT_TRUE(step == 0 || step == 1 || step == 20 || step == 300 || step == 4000) << step;
        added += step == 0 ? 0 : 1;
        before = sum;
    }
    EXPECT_EQ(sizeUntil(box / "tree", 1), 0U);
    EXPECT_EQ(before, treeSize);
    EXPECT_EQ(added, 4U);
}

TEST_F(DirectorySize, asks_the_hook_before_the_entry_is_looked_at) {
    file("tree/a", 10);
    EXPECT_EQ(TavroCalculateDirectorySize(box / "tree", atFirstCall([&] { file("tree/a", 70); })),
              70U);
    EXPECT_EQ(
        TavroCalculateDirectorySize(box / "tree", atFirstCall([&] { fs::remove(box / "tree/a"); })),
        0U);
}

TEST_F(DirectorySize, lets_an_exception_of_the_hook_out) {
    makeTree();
    std::size_t calls = 0;
    EXPECT_THROW(TavroCalculateDirectorySize(box / "tree",
                                             [&]() -> bool {
                                                 if (++calls == 3) {
                                                     throw std::domain_error("of the hook");
                                                 }
                                                 return false;
                                             }),
                 std::domain_error);
    EXPECT_EQ(calls, 3U);
    EXPECT_EQ(sizeOf(box / "tree"), treeSize);
}

// ---------------------------------------------------------------------------------------------
// A tree that changes
// ---------------------------------------------------------------------------------------------

TEST_F(DirectorySize, counts_nothing_for_files_that_vanished) {
    for (int i = 0; i < 20; ++i) {
        file("tree/" + std::to_string(i), 10);
    }
    const auto removeAll = [&] {
        for (const auto& entry : fs::directory_iterator(box / "tree")) {
            fs::remove(entry.path());
        }
    };
    EXPECT_EQ(TavroCalculateDirectorySize(box / "tree", atFirstCall(removeAll)), 0U);
}

TEST_F(DirectorySize, counts_each_file_once_while_others_appear_and_go) {
    for (int i = 0; i < 100; ++i) {
        file("tree/old " + std::to_string(i), 10);
    }
    int calls = 0;
    const std::uintmax_t size = TavroCalculateDirectorySize(box / "tree", [&] {
        if (++calls <= 100) {
            file("tree/new " + std::to_string(calls), 1);
            file("tree/folder/brief", 1);
            fs::remove_all(box / "tree/folder");
        }
        return false;
    });
    // All old files are counted; how many of the new ones is up to the file system.
    EXPECT_GE(size, 1000U);
    EXPECT_LE(size, 1100U);
}

TEST_F(DirectorySize, ends_where_a_folder_vanished_before_it_could_be_read) {
    for (const std::string name : {"1", "2", "3", "4"}) {
        file("tree/" + name + "/a", 10);
    }
    CountingHook counting;
    const std::uintmax_t size =
        TavroCalculateDirectorySize(box / "tree", [&, hook = counting.hook()] {
            fs::remove_all(box / "tree");
            return hook();
        });
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(counting.calls(), 1U);
}

TEST_F(DirectorySize, does_not_enter_a_link_that_took_the_place_of_a_folder) {
    file("outside/a", 1000);
    file("tree/folder/a", 10);
    const auto replace = [&] {
        fs::remove_all(box / "tree/folder");
        fs::create_directory_symlink(box / "outside", box / "tree/folder");
    };
    EXPECT_EQ(TavroCalculateDirectorySize(box / "tree", atFirstCall(replace)), 0U);
}
