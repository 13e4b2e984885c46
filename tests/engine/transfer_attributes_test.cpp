// What copies and moves keep of the entries.

#include "transfer_fixture.h"

#include <random>

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_transfer_test;

namespace {

TEST_F(CarryOutTransfer, keeps_modes_and_times_of_files_directories_and_links) {
    makeSmallTree(source("tree"));
    fs::permissions(source("tree/a"), static_cast<fs::perms>(06751));
    fs::permissions(source("tree/sub/b"), static_cast<fs::perms>(0400));
    fs::permissions(source("tree/empty"), static_cast<fs::perms>(03775));
    fs::permissions(source("tree/pipe"), static_cast<fs::perms>(0622));
    fs::permissions(source("tree/sub/deeper"), static_cast<fs::perms>(0555));
    long seconds = 1000000000;
    for (const char* name : {"a", "sub/b", "sub/deeper/c", "sub/deeper", "sub", "empty", "link",
                             "dangling", "pipe", "."}) {
        ++seconds;
        setTimes(source("tree") / name, seconds, 123456789 + seconds % 1000);
    }
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
    EXPECT_EQ(before, attributesOfTree(source("tree")));
    if (targetElsewhere()) {
        fs::permissions(source("tree/sub/deeper"), static_cast<fs::perms>(0755));
        setTimes(source("tree/sub/deeper"), 5, 5);
        const auto now = attributesOfTree(source("tree"));
        EXPECT_TRUE(move({"tree"})) << report();
        EXPECT_EQ(now, attributesOfTree(target("tree")));
    }
}

TEST_F(CarryOutTransfer, the_umask_does_not_matter) {
    makeSmallTree(source("tree"));
    runUnprivileged(m_box.path(), [&] {
        const auto before = attributesOfTree(source("tree"));
        umask(0777);
        EXPECT_TRUE(copy({"tree"})) << report();
        EXPECT_EQ(before, attributesOfTree(target("tree")));
    });
}

TEST_F(CarryOutTransfer, a_directory_that_is_merged_into_keeps_its_mode_and_new_ones_get_theirs) {
    writeFile(source("tree/new/file"));
    writeFile(target("tree/old"));
    fs::permissions(source("tree"), static_cast<fs::perms>(0700));
    fs::permissions(source("tree/new"), static_cast<fs::perms>(0750));
    fs::permissions(target("tree"), static_cast<fs::perms>(0775));
    const auto modeAt = [&](const char* name) { return statusOf(target(name)).st_mode & 07777U; };
    EXPECT_TRUE(copy({"tree"})) << report();
    EXPECT_EQ(0775U, modeAt("tree"));
    EXPECT_EQ(0750U, modeAt("tree/new"));
    writeFile(source("tree/another"));
    EXPECT_TRUE(move({"tree"})) << report();
    EXPECT_EQ(0775U, modeAt("tree"));
}

TEST_F(CarryOutTransfer, keeps_times_before_1970) {
    writeFile(source("old"), "bytes");
    setTimes(source("old"), -86400, 999999999);
    EXPECT_TRUE(copy({"old"}));
    EXPECT_EQ("-86400.999999999", timesOf(statusOf(target("old"))));
}

TEST_F(CarryOutTransfer, keeps_the_access_time) {
    writeFile(source("file"), "bytes");
    setTimes(source("file"), 1000000000, 42);
    EXPECT_TRUE(copy({"file"}));
    EXPECT_EQ(1000000007, statusOf(target("file")).st_atim.tv_sec);
    EXPECT_EQ(42, statusOf(target("file")).st_atim.tv_nsec);
}

TEST_F(CarryOutTransfer, keeps_extended_attributes) {
    makeSmallTree(source("tree"));
    const std::string allBytes("\0\1\377=\n", 5);
    if (!setAttribute(source("tree/a"), "user.tavro", allBytes) ||
        !setAttribute(source("tree/sub"), "user.other", std::string(1000, 'v'))) {
        GTEST_SKIP() << "this file system holds no extended attributes";
    }
    ASSERT_TRUE(setAttribute(source("tree/a"), "user.empty", ""));
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
}

TEST_F(CarryOutTransfer, keeps_access_control_lists) {
    makeSmallTree(source("tree"));
    if (!setAttribute(source("tree/a"), "system.posix_acl_access", listLettingIn(12345)) ||
        !setAttribute(source("tree/sub"), "system.posix_acl_default", listLettingIn(23456))) {
        GTEST_SKIP() << "this file system holds no access control lists";
    }
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
}

TEST_F(CarryOutTransfer, what_the_target_cannot_hold_is_counted) {
    for (const char* name : {"1", "2", "tree/3", "tree/4"}) {
        writeFile(source(name), "bytes");
        if (!setAttribute(source(name), "user.tavro", "value") ||
            (name[0] != '1' &&
             !setAttribute(source(name), "system.posix_acl_access", listLettingIn(12345)))) {
            GTEST_SKIP() << "this file system holds no extended attributes";
        }
    }
    makeDirectory(target("tree"));
    const FaultInjector faults({{"fsetxattr", EOPNOTSUPP, "", 1, true}});
    EXPECT_TRUE(copy({"1", "2", "tree"})) << report();
    EXPECT_LT(0, faults.fired());
    EXPECT_EQ(4U, m_report.Lost.ExtendedAttributes);
    EXPECT_EQ(3U, m_report.Lost.AccessLists);
}

TEST_F(CarryOutTransfer, what_has_no_access_control_list_takes_none_over_from_the_target) {
    makeSmallTree(source("tree"));
    if (!setAttribute(target(), "system.posix_acl_default", listLettingIn(12345))) {
        GTEST_SKIP() << "this file system holds no access control lists";
    }
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
}

TEST_F(CarryOutTransfer, keeps_the_owner_for_root) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root may give files away";
    }
    makeSmallTree(source("tree"));
    ASSERT_EQ(0, lchown(source("tree/a").c_str(), 1234, 2345));
    ASSERT_EQ(0, lchown(source("tree/sub").c_str(), 3456, 4567));
    ASSERT_EQ(0, lchown(source("tree/link").c_str(), 5678, 6789));
    ASSERT_EQ(0, chmod(source("tree/a").c_str(), 06755));
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
}

TEST_F(CarryOutTransfer, keeps_the_capabilities_of_a_program_of_somebody_else) {
    writeFile(source("program"), "bytes");
    // The kernel's own form, version 2: may bind to low ports.
    const std::string capability("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
    if (lchown(source("program").c_str(), 1234, 1234) != 0 ||
        !setAttribute(source("program"), "security.capability", capability)) {
        GTEST_SKIP() << "only root may give files away and set capabilities";
    }
    const auto before = attributesOfTree(source("program"));
    EXPECT_TRUE(copy({"program"}));
    EXPECT_EQ(before, attributesOfTree(target("program")));
}

TEST_F(CarryOutTransfer, drops_set_user_and_set_group_when_the_owner_cannot_be_kept) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can make a file of somebody else";
    }
    writeFile(source("program"), "bytes");
    runUnprivileged(target(), [&] {});
    fs::permissions(source("program"), static_cast<fs::perms>(06755));
    runUnprivileged(target(), [&] {
        EXPECT_TRUE(copy({"program"}));
        EXPECT_EQ("done /source/program -> /target/program\n", report());
    });
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0755), statusOf(target("program")).st_mode);
}

TEST_F(CarryOutTransfer, keeps_hard_links_within_and_across_items) {
    makeSmallTree(source("tree"));
    fs::create_hard_link(source("tree/a"), source("tree/sub/a again"));
    fs::create_hard_link(source("tree/a"), source("z"));
    const auto before = attributesOfTree(source());
    EXPECT_TRUE(copy({"tree", "z"}));
    EXPECT_EQ(3U, statusOf(target("z")).st_nlink);
    auto after = attributesOfTree(target());
    after["."] = before.at(".");
    EXPECT_EQ(before, after);
}

TEST_F(CarryOutTransfer, keeps_hard_links_of_links_and_pipes) {
    makeDirectory(source("t"));
    fs::create_symlink("nowhere", source("t/link"));
    makeFifo(source("t/pipe"));
    ASSERT_EQ(0, link(source("t/link").c_str(), source("t/link again").c_str()));
    ASSERT_EQ(0, link(source("t/pipe").c_str(), source("t/pipe again").c_str()));
    EXPECT_TRUE(copy({"t"}));
    EXPECT_EQ(attributesOfTree(source("t")), attributesOfTree(target("t")));
}

TEST_F(CarryOutTransfer, keeps_hard_links_across_items_of_a_move_between_file_systems) {
    TARGET_ELSEWHERE();
    writeFile(source("a"), bytesOf(100000));
    fs::create_hard_link(source("a"), source("b"));
    fs::create_hard_link(source("a"), source("c"));
    EXPECT_TRUE(move({"a", "b", "c"}));
    EXPECT_EQ(3U, statusOf(target("a")).st_nlink);
    EXPECT_EQ(bytesOf(100000), readFile(target("c")));
    EXPECT_TRUE(fs::is_empty(source()));
}

TEST_F(CarryOutTransfer, links_to_no_copy_that_somebody_replaced) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        fs::remove(source("other name of a"));
        writeFile(source("a"), "of a");
        fs::create_hard_link(source("a"), source("other name of a"));
        writeFile(target("x"), "of x");
        add("a", "place");
        add("other name of a", "second");
        m_callbacks.ShouldCancel = [&] {
            const std::string staged = debris();
            if (!staged.empty() && isPresent(target("x"))) {
                fs::rename(target("x"), staged.substr(0, staged.find('\n')));
            }
            return false;
        };
        run(bElsewhere);
        EXPECT_EQ(!bElsewhere, isPresent(target("place"))) << "a move looks at what it published";
        fs::remove(target("place"));
        EXPECT_EQ("of a", readFile(target("second")));
    }
}

TEST_F(CarryOutTransfer, links_to_no_copy_that_somebody_changed) {
    writeFile(source("a"), "of a");
    fs::create_hard_link(source("a"), source("b"));
    m_callbacks.ShouldCancel = [&] {
        const std::string staged = debris();
        if (!staged.empty() && !isPresent(source("done"))) {
            writeFile(staged.substr(0, staged.find('\n')), "changed");
            writeFile(source("done"), "");
        }
        return false;
    };
    EXPECT_TRUE(copy({"a", "b"}));
    EXPECT_EQ("changed", readFile(target("a")));
    EXPECT_EQ("of a", readFile(target("b")));
}

TEST_F(CarryOutTransfer, links_no_name_to_a_copy_that_was_given_up) {
    writeFile(source("tree/a"), "bytes");
    fs::create_hard_link(source("tree/a"), source("z"));
    TARGET_ELSEWHERE();
    bindSocket(source("tree/socket"));
    EXPECT_FALSE(move({"tree", "z"}));
    EXPECT_EQ("bytes", readFile(target("z")));
    EXPECT_EQ(1U, statusOf(target("z")).st_nlink);
    EXPECT_EQ("bytes", readFile(source("tree/a")));
    EXPECT_EQ("", debris());
}

// =================================================================================================
// Random trees
// =================================================================================================

/// Builds trees of everything that a tree can hold.
class TreeMaker {
public:
    explicit TreeMaker(unsigned seed) : m_random(seed) {}

    void make(const fs::path& tree, int depth = 3) {
        makeDirectory(tree);
        const int count = below(7) + (depth == 3 ? 3 : 0);
        for (int i = 0; i < count; ++i) {
            makeEntry(tree / name(), depth);
        }
        finish(tree, static_cast<mode_t>(0700 | below(0100) | below(2) * 02000));
    }

private:
    int below(int bound) {
        return std::uniform_int_distribution<int>(0, bound - 1)(m_random);
    }

    std::string name() {
        std::string text = std::to_string(++m_count) + "-";
        const int length = below(20) == 0 ? 240 : below(12);
        for (int i = 0; i < length; ++i) {
            const char byte = static_cast<char>(1 + below(255));
            text += byte == '/' ? '_' : byte;
        }
        return text;
    }

    void makeEntry(const fs::path& path, int depth) {
        const int kind = below(12);
        if (kind < 3 && depth > 0) {
            make(path, depth - 1);
        } else if (kind == 3) {
            fs::create_symlink(below(2) == 0 ? "nowhere\n" : "../" + name(), path);
            finish(path, 0777);
        } else if (kind == 4) {
            makeFifo(path);
            finish(path, static_cast<mode_t>(below(01000)));
        } else if (kind < 7 && !m_files.empty()) {
            const auto which = static_cast<std::size_t>(below(static_cast<int>(m_files.size())));
            ASSERT_EQ(0, link(m_files[which].c_str(), path.c_str()));
        } else {
            makeFile(path);
        }
    }

    void makeFile(const fs::path& path) {
        static constexpr std::size_t sizes[] = {0, 1, 4096, 65535, 65536, 65537, 300000, 4194305};
        const std::size_t size = sizes[below(7) + (below(12) == 0 ? 1 : 0)];
        writeFile(path, bytesOf(size, static_cast<unsigned>(below(1000))));
        if (below(3) == 0) {
            fs::resize_file(path, size + static_cast<std::size_t>(below(3000000)));
        }
        m_files.push_back(path);
        // The owner may read everything, so that an ordinary user can compare it.
        finish(path, static_cast<mode_t>(0400 | below(010000)));
    }

    void finish(const fs::path& path, mode_t mode) {
        if (isRoot() && below(2) == 0) {
            ASSERT_EQ(0, lchown(path.c_str(), static_cast<uid_t>(below(5000)),
                                static_cast<gid_t>(below(5000))));
        }
        if (below(3) == 0) {
            setAttribute(path, "user.a" + std::to_string(below(9)), name());
        }
        const struct stat status = statusOf(path);
        if (!S_ISLNK(status.st_mode)) {
            ASSERT_EQ(0, chmod(path.c_str(), mode));
        }
        setTimes(path, 946684800 + below(900000000), below(1000000000));
    }

    std::mt19937 m_random;
    int m_count = 0;
    std::vector<fs::path> m_files;
};

/// How much of the disk each file of a tree takes, in blocks.
std::map<std::string, long> blocksOfTree(const fs::path& root) {
    std::map<std::string, long> blocks;
    for (const auto& row : takeSnapshot(root)) {
        const struct stat status = statusOf(root / row.first);
        if (S_ISREG(status.st_mode)) {
            blocks[row.first] = static_cast<long>(status.st_blocks);
        }
    }
    return blocks;
}

class RandomTree : public TransferTest, public testing::WithParamInterface<unsigned> {};

TEST_P(RandomTree, is_copied_as_cp_does_and_is_the_same_after_a_journey) {
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    TreeMaker(GetParam()).make(source("tree"));
    const auto before = attributesOfTree(source("tree"));
    const fs::path reference = m_box / "reference";
    ASSERT_EQ(
        0, std::system(
               ("cp -a '" + source("tree").string() + "' '" + reference.string() + "'").c_str()));
    ASSERT_TRUE(copy({"tree"})) << report();
    EXPECT_EQ(attributesOfTree(reference), attributesOfTree(target("tree")));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
    EXPECT_EQ(before, attributesOfTree(source("tree")));
    const auto expected = blocksOfTree(reference);
    for (const auto& [name, blocks] : blocksOfTree(target("tree"))) {
        EXPECT_LE(blocks, expected.at(name) + 16) << name;
    }
    if (!targetElsewhere()) {
        GTEST_SKIP() << "there is no second file system at " << secondFileSystem
                     << " for the journey";
    }
    ASSERT_TRUE(move({"tree"})) << report();
    EXPECT_FALSE(isPresent(source("tree")));
    const auto there = attributesOfTree(target("tree"));
    m_plan.Items.resize(1);
    m_plan.Items[0].SourcePath = target("tree");
    m_plan.Items[0].DestinationPath = source("tree");
    ASSERT_TRUE(move()) << report();
    EXPECT_FALSE(isPresent(target("tree")));
    EXPECT_EQ(there, attributesOfTree(source("tree")));
    // The second file system may hold fewer extended attributes, and holds all else.
    writeFile(target("probe"));
    if (setAttribute(target("probe"), "user.probe", "")) {
        EXPECT_EQ(before, there);
    } else {
        EXPECT_EQ(takeSnapshot(reference), takeSnapshot(source("tree")));
    }
    EXPECT_EQ("", debris());
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomTree, testing::Range(1U, 13U));

} // namespace
