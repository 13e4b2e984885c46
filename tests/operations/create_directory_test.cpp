#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

constexpr std::size_t megabyte = std::size_t{1} << 20U;

/// A pane whose current directory is the sandbox's `pane`.
class CreateDirectory : public testing::Test {
protected:
    CreateDirectory() {
        makeDirectory(m_pane);
        makeDirectory(m_sandbox / "home");
    }

    std::string inPane(const std::string& name) const {
        return (m_pane / name).string();
    }

    /// Creates what `text` says; expects success, the selected path, and an old message untouched.
    static void expectSelected(const std::string& text, const fs::path& base,
                               const std::string& selectedPath) {
        SCOPED_TRACE("typed: " + text.substr(0, 80));
        std::string selected = "an older path";
        std::string error = "an older message";
        EXPECT_TRUE(TavroCreateDirectory(text, base, selected, error)) << error;
        EXPECT_EQ(selected, selectedPath);
        EXPECT_EQ(error, "an older message");
        EXPECT_TRUE(fs::is_directory(selectedPath)) << selectedPath;
    }
    void expectCreated(const std::string& text, const std::string& name) const {
        EXPECT_FALSE(isPresent(m_pane / name)) << name;
        expectSelected(text, m_pane, inPane(name));
    }

    /// Tries to create what `text` says; expects this message and an empty selected path.
    static void expectFailure(const std::string& text, const fs::path& base,
                              const std::string& message) {
        SCOPED_TRACE("typed: " + text.substr(0, 80));
        std::string selected = "an older path";
        std::string error = "an older message";
        EXPECT_FALSE(TavroCreateDirectory(text, base, selected, error));
        EXPECT_EQ(selected, "");
        EXPECT_EQ(error, message);
    }
    void expectFailure(const std::string& text, std::errc reason) const {
        expectFailure(text, m_pane, "Failed to create directory: " + systemText(reason));
    }

    const Sandbox m_sandbox;
    const fs::path m_pane = m_sandbox / "pane";
    const ScopedEnvironment m_home{"HOME", (m_sandbox / "home").string()};
};

// --- What is created, and what is selected then ---

TEST_F(CreateDirectory, a_bare_name_is_created_below_the_base_directory) {
    expectCreated("new", "new");
}

TEST_F(CreateDirectory, blanks_around_the_text_are_trimmed) {
    expectCreated(" new ", "new");
    expectCreated("\t\n other \r", "other");
    EXPECT_EQ(takeSnapshot(m_pane).size(), 3U);
}

TEST_F(CreateDirectory, every_missing_parent_is_created) {
    expectCreated("a/b/c", "a/b/c");
    expectCreated("a/b/d/e", "a/b/d/e");
}

TEST_F(CreateDirectory, an_absolute_path_ignores_the_base_directory) {
    expectSelected((m_sandbox / "other/new").string(), m_pane, (m_sandbox / "other/new").string());
    EXPECT_TRUE(fs::is_empty(m_pane));
}

TEST_F(CreateDirectory, a_missing_base_directory_is_created_too) {
    expectSelected("new", m_sandbox / "gone", (m_sandbox / "gone/new").string());
}

TEST_F(CreateDirectory, a_relative_or_empty_base_directory_lies_below_the_current_directory) {
    const ScopedCurrentDirectory current(m_sandbox.path());
    expectSelected("new", "pane", inPane("new"));
    expectSelected("new", "", (m_sandbox / "new").string());
    expectSelected("new", "gone", (m_sandbox / "gone/new").string());
}

TEST_F(CreateDirectory, a_relative_path_that_begins_with_a_zero_byte_creates_nothing) {
    const ScopedCurrentDirectory current(m_pane);
    expectFailure(std::string("\0a/x", 4), "",
                  "Failed to create directory: " +
                      systemText(std::errc::no_such_file_or_directory));
    EXPECT_TRUE(fs::is_empty(m_pane));
}

TEST_F(CreateDirectory, a_directory_below_the_home_directory_is_typed_with_a_tilde) {
    expectSelected("~/made", m_pane, (m_sandbox / "home/made").string());
    expectSelected(" ~\\x ", m_pane, (m_sandbox / "home\\x").string());
    EXPECT_TRUE(fs::is_empty(m_pane));
}

TEST_F(CreateDirectory, without_a_home_directory_the_tilde_is_a_name) {
    const ScopedEnvironment home("HOME", std::nullopt);
    expectCreated("~/made", "~/made");
}

TEST_F(CreateDirectory, separators_at_the_end_of_the_text_make_no_difference) {
    expectCreated("new/", "new");
    expectCreated("a//b//", "a/b");
}

TEST_F(CreateDirectory, parents_that_the_text_leaves_again_are_not_created) {
    expectCreated("left/../new", "new");
    EXPECT_FALSE(isPresent(m_pane / "left"));
}

TEST_F(CreateDirectory, links_to_directories_are_followed_on_the_way) {
    makeDirectory(m_pane / "dir/sub");
    fs::create_symlink("dir/sub", m_pane / "link");
    expectSelected("link/new", m_pane, inPane("dir/sub/new"));
    expectSelected("link/../other", m_pane, inPane("dir/other"));
    expectSelected("pane", m_pane / "link", inPane("dir/sub/pane"));
}

TEST_F(CreateDirectory, an_existing_directory_is_selected_and_left_as_it_is) {
    writeFile(m_pane / "dir/file", "bytes");
    const Snapshot before = takeSnapshot(m_sandbox.path());
    expectSelected("dir", m_pane, inPane("dir"));
    expectSelected("dir/", m_pane, inPane("dir"));
    expectSelected(".", m_pane, m_pane.string());
    expectSelected("..", m_pane, m_sandbox.path().string());
    expectSelected("/", m_pane, "/");
    expectSelected("~", m_pane, (m_sandbox / "home").string());
    EXPECT_EQ(takeSnapshot(m_sandbox.path()), before);
}

TEST_F(CreateDirectory, an_existing_link_to_a_directory_is_selected_as_that_directory) {
    makeDirectory(m_pane / "dir");
    fs::create_symlink("dir", m_pane / "link");
    const Snapshot before = takeSnapshot(m_pane);
    expectSelected("link", m_pane, inPane("dir"));
    EXPECT_EQ(takeSnapshot(m_pane), before);
}

TEST_F(CreateDirectory, any_name_that_the_file_system_accepts_is_accepted) {
    for (const char* name : {"two words", ".hidden", "...", "a\\b", "new\\", "~user", "-rf", "*"}) {
        expectCreated(name, name);
    }
}

TEST_F(CreateDirectory, names_may_hold_every_byte) {
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '/') {
            const std::string name = std::string("a") + static_cast<char>(byte) + "z";
            expectCreated(name, name);
        }
    }
}

TEST_F(CreateDirectory, a_name_may_have_255_bytes) {
    expectCreated(std::string(255, 'n'), std::string(255, 'n'));
}

TEST_F(CreateDirectory, the_text_may_hold_megabytes_of_blanks) {
    const std::string blanks(2 * megabyte, ' ');
    expectCreated(blanks + "new" + blanks, "new");
}

TEST_F(CreateDirectory, new_directories_get_all_permissions_less_the_umask) {
    makeDirectory(m_pane / "old");
    fs::permissions(m_pane, fs::perms(0755));
    fs::permissions(m_pane / "old", fs::perms(0711));
    runInChild([&] {
        umask(0);
        expectCreated("open/inner", "open/inner");
        umask(027);
        expectCreated("old/group/inner", "old/group/inner");
        expectSelected("open", m_pane, inPane("open"));
    });
    EXPECT_EQ(takeSnapshot(m_pane), (Snapshot{{".", "directory 755"},
                                              {"old", "directory 711"},
                                              {"old/group", "directory 750"},
                                              {"old/group/inner", "directory 750"},
                                              {"open", "directory 777"},
                                              {"open/inner", "directory 777"}}));
}

// --- Failures ---

TEST_F(CreateDirectory, text_of_white_space_alone_fails_and_touches_nothing) {
    const Snapshot before = takeSnapshot(m_sandbox.path());
    for (const std::string& text : {std::string(), std::string(" "), std::string(" \t\n\v\f\r"),
                                    std::string(megabyte, ' ')}) {
        expectFailure(text, m_pane, "Directory path cannot be empty.");
        expectFailure(text, m_sandbox / "gone", "Directory path cannot be empty.");
    }
    EXPECT_EQ(takeSnapshot(m_sandbox.path()), before);
}

TEST_F(CreateDirectory, a_file_in_the_way_is_a_failure) {
    writeFile(m_pane / "file", "bytes");
    fs::create_symlink("file", m_pane / "link");
    const Snapshot before = takeSnapshot(m_pane);
    for (const char* text : {"file", "file/new", "link", "link/new/newer"}) {
        expectFailure(text, std::errc::not_a_directory);
    }
    expectFailure("file/", std::errc::file_exists);
    EXPECT_EQ(takeSnapshot(m_pane), before);
}

TEST_F(CreateDirectory, a_dangling_link_in_the_way_is_a_failure) {
    fs::create_symlink("gone", m_pane / "dangling");
    const Snapshot before = takeSnapshot(m_pane);
    expectFailure("dangling", std::errc::file_exists);
    expectFailure("dangling/new", std::errc::file_exists);
    EXPECT_EQ(takeSnapshot(m_pane), before);
}

TEST_F(CreateDirectory, a_link_to_itself_in_the_way_is_a_failure) {
    fs::create_symlink("loop", m_pane / "loop");
    const Snapshot before = takeSnapshot(m_pane);
    expectFailure("loop", std::errc::too_many_symbolic_link_levels);
    expectFailure("loop/new", std::errc::too_many_symbolic_link_levels);
    EXPECT_EQ(takeSnapshot(m_pane), before);
}

TEST_F(CreateDirectory, a_read_only_parent_is_a_failure) {
    makeDirectory(m_pane / "locked");
    fs::permissions(m_pane / "locked", fs::perms(0555));
    runUnprivileged(m_sandbox.path(), [&] {
        expectFailure("locked/new", std::errc::permission_denied);
        expectFailure("locked/new/newer", std::errc::permission_denied);
        expectSelected("locked", m_pane, inPane("locked"));
    });
    EXPECT_TRUE(fs::is_empty(m_pane / "locked"));
}

TEST_F(CreateDirectory, an_unreadable_parent_is_a_failure) {
    makeDirectory(m_pane / "closed/inside");
    fs::permissions(m_pane / "closed", fs::perms::none);
    runUnprivileged(m_sandbox.path(), [&] {
        expectFailure("closed/inside", std::errc::permission_denied);
        expectFailure("closed/new", std::errc::permission_denied);
        expectSelected("closed", m_pane, inPane("closed"));
    });
}

TEST_F(CreateDirectory, a_name_of_256_bytes_is_a_failure) {
    expectFailure(std::string(256, 'n'), std::errc::filename_too_long);
    expectFailure(std::string(2 * megabyte, 'n'), std::errc::filename_too_long);
    EXPECT_TRUE(fs::is_empty(m_pane));
}

TEST_F(CreateDirectory, parents_created_before_the_failure_stay) {
    expectFailure("a/b/" + std::string(256, 'n'), std::errc::filename_too_long);
    EXPECT_TRUE(fs::is_empty(m_pane / "a/b"));
    EXPECT_EQ(takeSnapshot(m_pane).size(), 3U);
}

TEST_F(CreateDirectory, a_path_beyond_the_limit_is_a_failure) {
    std::string path;
    while (path.size() < 5000) {
        path += std::string(250, 'p') + "/";
    }
    expectFailure(path + "end", std::errc::filename_too_long);
}

TEST_F(CreateDirectory, without_a_current_directory_only_absolute_paths_can_be_created) {
    runInChild([&] {
        makeDirectory(m_sandbox / "removed");
        fs::current_path(m_sandbox / "removed");
        fs::remove(m_sandbox / "removed");
        expectCreated("new", "new");
        expectFailure("new", "",
                      "Failed to create directory: " +
                          systemText(std::errc::no_such_file_or_directory));
    });
}

TEST_F(CreateDirectory, a_failed_try_does_not_hinder_the_next_one) {
    writeFile(m_pane / "new");
    std::string selected;
    std::string error;
    EXPECT_FALSE(TavroCreateDirectory("new", m_pane, selected, error));
    const std::string firstError = error;
    fs::remove(m_pane / "new");
    EXPECT_TRUE(TavroCreateDirectory("new", m_pane, selected, error));
    EXPECT_EQ(selected, inPane("new"));
    EXPECT_EQ(error, firstError);
}

} // namespace
