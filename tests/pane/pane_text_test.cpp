// The pane's small tools: percent encoding, selections, measuring, renaming without replacing, and
// removing whole trees.

#include "measure.h"
#include "no_replace.h"
#include "percent.h"
#include "remove_tree.h"
#include "selection.h"
#include "tavropane.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

// =================================================================================================
// Percent encoding
// =================================================================================================

TEST(PercentEncode, keeps_letters_digits_and_five_marks) {
    const std::string kept = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-./_~";
    EXPECT_EQ(kept, TavroPercentEncode(kept));
}

TEST(PercentEncode, turns_every_other_byte_into_two_upper_case_digits) {
    EXPECT_EQ("%00%01%09%0A%20%25%2B%3A%7F%80%C3%A4%FF",
              TavroPercentEncode(std::string("\0\1\t\n %+:\177\200\xC3\xA4\xFF", 13)));
}

TEST(PercentEncode, of_nothing_is_nothing) {
    EXPECT_EQ("", TavroPercentEncode(""));
    EXPECT_EQ("", TavroPercentDecode(""));
}

TEST(PercentDecode, brings_every_byte_back) {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    const std::string text = TavroPercentEncode(bytes);
    for (const char c : text) {
        EXPECT_TRUE(c > ' ' && c < '\177') << text;
    }
    EXPECT_EQ(bytes, TavroPercentDecode(text));
}

TEST(PercentDecode, takes_digits_of_either_case) {
    EXPECT_EQ("\xAB\xCD\xEF/", TavroPercentDecode("%aB%Cd%ef%2f"));
}

TEST(PercentDecode, a_percent_sign_without_two_digits_stands_for_itself) {
    for (const std::string text : {"%", "%4", "%G0", "%0G", "100%", "%%", "%-1", "% 1", "a%2"}) {
        EXPECT_EQ(text, TavroPercentDecode(text));
    }
    EXPECT_EQ("%A", TavroPercentDecode("%%41"));
}

TEST(PercentDecode, decodes_once_only) {
    EXPECT_EQ("%41", TavroPercentDecode("%2541"));
}

// =================================================================================================
// Audio CDs
// =================================================================================================

TEST(IsCddaPath, knows_its_scheme_only) {
    EXPECT_TRUE(TavroIsCddaPath("cdda:"));
    EXPECT_TRUE(TavroIsCddaPath("cdda://1/Track 01.cdda"));
    for (const std::string path : {"", "cdda", "CDDA:", "/cdda:", " cdda:", "/a/cdda:/b"}) {
        EXPECT_FALSE(TavroIsCddaPath(path)) << path;
    }
}

// =================================================================================================
// Selections
// =================================================================================================

class SelectEntry : public testing::Test {
protected:
    SelectEntry() {
        writeFile(m_box / "folder/file", "bytes");
        fs::create_symlink("folder", m_box / "link");
        fs::create_symlink("nowhere", m_box / "dangling");
        fs::create_symlink("folder/file", m_box / "link to file");
    }

    /// Expects what is selected by a path below the sandbox.
    void expect(const std::string& path, const std::string& selected, bool bDirectory) const {
        for (const std::string& text : {path, (m_box / "").string() + path}) {
            const TavroOperationEntry entry = TavroSelectEntry(text);
            const fs::path expected = selected.empty() ? m_box.path() : m_box / selected;
            EXPECT_EQ(expected.string(), entry.Path) << text;
            EXPECT_EQ(expected.filename().string(), entry.Name) << text;
            EXPECT_EQ(bDirectory, entry.bDirectory) << text;
        }
    }

    Sandbox m_box;
    ScopedCurrentDirectory m_directory{m_box.path()};
};

TEST_F(SelectEntry, drops_dots_and_separators_at_the_end) {
    expect("folder", "folder", true);
    expect("folder/", "folder", true);
    expect("folder//", "folder", true);
    expect("./folder/./file", "folder/file", false);
    expect("folder/.", "folder", true);
    expect("missing", "missing", false);
    expect("missing/", "missing", false);
}

TEST_F(SelectEntry, takes_a_link_as_itself) {
    expect("link", "link", false);
    expect("link to file", "link to file", false);
    expect("dangling", "dangling", false);
}

TEST_F(SelectEntry, a_separator_behind_a_link_means_the_directory_behind_it) {
    expect("link/", "folder", true);
    expect("link//", "folder", true);
    expect("dangling/", "dangling", false);
}

TEST_F(SelectEntry, a_path_through_a_link_stays_as_it_is) {
    expect("link/file", "link/file", false);
}

TEST_F(SelectEntry, two_dots_at_the_end_are_resolved) {
    expect("folder/..", "", true);
    expect("folder/../folder/..", "", true);
}

TEST(SelectEntryAnywhere, knows_the_root_and_audio_tracks) {
    const TavroOperationEntry root = TavroSelectEntry("/");
    EXPECT_EQ("/", root.Path);
    EXPECT_TRUE(root.bDirectory);
    const TavroOperationEntry track = TavroSelectEntry("cdda://1/./Track 01.cdda");
    EXPECT_EQ("cdda://1/./Track 01.cdda", track.Path);
    EXPECT_EQ("Track 01.cdda", track.Name);
    EXPECT_FALSE(track.bDirectory);
}

TEST_F(SelectEntry, keeping_links_flags_them_and_nothing_else) {
    std::vector<TavroOperationEntry> entries;
    for (const char* name : {"folder", "link", "dangling", "link to file", "folder/file", "none"}) {
        entries.push_back(TavroSelectEntry(name));
    }
    std::string flags;
    for (const TavroOperationEntry& entry : TavroKeepLinks(entries)) {
        flags += entry.Name + (entry.bDirectory ? " yes\n" : " no\n");
    }
    EXPECT_EQ("folder yes\nlink yes\ndangling yes\nlink to file yes\nfile no\nnone no\n", flags);
}

TEST_F(SelectEntry, a_dangling_link_is_present) {
    EXPECT_TRUE(TavroIsPresent(m_box / "folder"));
    EXPECT_TRUE(TavroIsPresent(m_box / "dangling"));
    EXPECT_FALSE(TavroIsPresent(m_box / "missing"));
    EXPECT_FALSE(TavroIsPresent(m_box / "folder/file/below a file"));
}

// =================================================================================================
// Measuring
// =================================================================================================

class MeasureEntry : public testing::Test {
protected:
    MeasureEntry() {
        writeFile(m_box / "tree/a", "12345");
        writeFile(m_box / "tree/sub/b", "123");
        makeDirectory(m_box / "tree/empty");
        fs::create_symlink(m_box / "tree/a", m_box / "tree/link");
        fs::create_symlink(m_box.path(), m_box / "tree/link to all");
        makeFifo(m_box / "tree/pipe");
    }

    std::string measure(const std::string& name) {
        EXPECT_TRUE(TavroMeasureEntry(m_box / name, {}, m_measurement));
        return std::to_string(m_measurement.FileCount) + " files, " +
               std::to_string(m_measurement.DirectoryCount) + " directories, " +
               std::to_string(m_measurement.ByteCount) + " bytes";
    }

    Sandbox m_box;
    TavroMeasurement m_measurement;
};

TEST_F(MeasureEntry, counts_a_tree_with_itself_and_follows_no_link) {
    EXPECT_EQ("5 files, 3 directories, 8 bytes", measure("tree"));
}

TEST_F(MeasureEntry, adds_to_what_was_measured) {
    EXPECT_EQ("1 files, 0 directories, 5 bytes", measure("tree/a"));
    EXPECT_EQ("2 files, 0 directories, 5 bytes", measure("tree/link"));
    EXPECT_EQ("3 files, 0 directories, 5 bytes", measure("tree/pipe"));
    EXPECT_EQ("3 files, 1 directories, 5 bytes", measure("tree/empty"));
    EXPECT_EQ("3 files, 1 directories, 5 bytes", measure("missing"));
}

TEST_F(MeasureEntry, counts_by_the_apparent_size) {
    fs::resize_file(m_box / "tree/a", 1000000000000);
    EXPECT_EQ("1 files, 0 directories, 1000000000000 bytes", measure("tree/a"));
}

TEST_F(MeasureEntry, what_cannot_be_read_counts_as_one_directory) {
    fs::permissions(m_box / "tree/sub", fs::perms::none);
    runUnprivileged(m_box.path(),
                    [&] { EXPECT_EQ("4 files, 3 directories, 5 bytes", measure("tree")); });
}

TEST_F(MeasureEntry, asks_before_each_item_and_stops_when_told) {
    int calls = 0;
    EXPECT_TRUE(TavroMeasureEntry(
        m_box / "tree",
        [&] {
            ++calls;
            return false;
        },
        m_measurement));
    EXPECT_EQ(8, calls);
    for (int k = 1; k <= 8; ++k) {
        calls = 0;
        EXPECT_FALSE(TavroMeasureEntry(
            m_box / "tree", [&] { return ++calls == k; }, m_measurement));
        EXPECT_EQ(k, calls);
    }
}

// =================================================================================================
// Renaming without replacing
// =================================================================================================

class RenameNoReplace : public testing::Test {
protected:
    RenameNoReplace() {
        writeFile(m_box / "from", "new");
    }

    std::error_code rename(const std::string& from, const std::string& to) {
        std::error_code ec = std::make_error_code(std::errc::io_error);
        TavroRenameNoReplace(m_box / from, m_box / to, ec);
        return ec;
    }

    Sandbox m_box;
};

TEST_F(RenameNoReplace, renames_to_a_free_place) {
    EXPECT_FALSE(rename("from", "to"));
    EXPECT_EQ("new", readFile(m_box / "to"));
    EXPECT_FALSE(isPresent(m_box / "from"));
}

TEST_F(RenameNoReplace, renames_a_link_itself) {
    fs::create_symlink("from", m_box / "link");
    EXPECT_FALSE(rename("link", "to"));
    EXPECT_EQ("from", fs::read_symlink(m_box / "to"));
    EXPECT_EQ("new", readFile(m_box / "from"));
}

TEST_F(RenameNoReplace, replaces_nothing_of_any_kind) {
    writeFile(m_box / "file", "old");
    makeDirectory(m_box / "folder");
    makeDirectory(m_box / "other folder");
    fs::create_symlink("nowhere", m_box / "dangling");
    fs::create_hard_link(m_box / "from", m_box / "same");
    const Snapshot before = takeSnapshot(m_box.path());
    for (const char* to : {"file", "folder", "dangling", "same", "from"}) {
        EXPECT_EQ(std::errc::file_exists, rename("from", to)) << to;
    }
    EXPECT_EQ(std::errc::file_exists, rename("other folder", "folder"));
    EXPECT_EQ(before, takeSnapshot(m_box.path()));
}

TEST_F(RenameNoReplace, hands_on_other_errors) {
    EXPECT_EQ(std::errc::no_such_file_or_directory, rename("missing", "to"));
    EXPECT_EQ(std::errc::no_such_file_or_directory, rename("from", "missing/to"));
    EXPECT_EQ(std::errc::not_a_directory, rename("from", "from/to"));
    makeDirectory(m_box / "folder");
    EXPECT_EQ(std::errc::invalid_argument, rename("folder", "folder/inside"));
    EXPECT_TRUE(isPresent(m_box / "folder"));
}

TEST_F(RenameNoReplace, tells_another_file_system_apart) {
    if (!fs::is_directory(secondFileSystem) ||
        !onDifferentDevices(secondFileSystem, m_box.path())) {
        GTEST_SKIP() << "there is no second file system at " << secondFileSystem;
    }
    const Sandbox other(secondFileSystem);
    std::error_code ec;
    TavroRenameNoReplace(m_box / "from", other / "to", ec);
    EXPECT_EQ(std::errc::cross_device_link, ec);
}

// =================================================================================================
// Removing trees
// =================================================================================================

class RemoveTree : public testing::Test {
protected:
    std::error_code remove(const std::string& name) const {
        std::error_code ec = std::make_error_code(std::errc::io_error);
        TavroRemoveTree(m_box / name, ec);
        return ec;
    }

    Sandbox m_box;
};

TEST_F(RemoveTree, removes_entries_of_every_kind_and_follows_no_link) {
    writeFile(m_box / "outside/kept", "bytes");
    const Snapshot outside = takeSnapshot(m_box / "outside");
    writeFile(m_box / "tree/sub/a", "a");
    fs::create_symlink(m_box / "outside", m_box / "tree/link");
    fs::create_symlink(m_box / "outside", m_box / "link");
    makeFifo(m_box / "tree/pipe");
    writeFile(m_box / "file");
    for (const char* name : {"tree", "link", "file", "missing"}) {
        EXPECT_FALSE(remove(name)) << name;
        EXPECT_FALSE(isPresent(m_box / name)) << name;
    }
    EXPECT_EQ(outside, takeSnapshot(m_box / "outside"));
}

TEST_F(RemoveTree, removes_what_lies_in_read_only_and_closed_folders) {
    makeDirectory(m_box / "outside");
    writeFile(m_box / "tree/a/b/c/file", "bytes");
    writeFile(m_box / "tree/closed/file", "bytes");
    fs::create_symlink(m_box / "outside", m_box / "tree/a/b/link");
    fs::permissions(m_box / "outside", static_cast<fs::perms>(0500));
    fs::permissions(m_box / "tree/a/b/c", static_cast<fs::perms>(0500));
    fs::permissions(m_box / "tree/a/b", static_cast<fs::perms>(0555));
    fs::permissions(m_box / "tree/closed", fs::perms::none);
    fs::permissions(m_box / "tree", static_cast<fs::perms>(0555));
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(remove("tree"));
        EXPECT_FALSE(isPresent(m_box / "tree"));
    });
    EXPECT_EQ("directory 500", takeSnapshot(m_box / "outside")["."]);
}

TEST_F(RemoveTree, says_what_cannot_be_removed) {
    writeFile(m_box / "holder/tree/file", "bytes");
    fs::permissions(m_box / "holder", static_cast<fs::perms>(0555));
    runUnprivileged(m_box.path(), [&] {
        EXPECT_EQ(std::errc::permission_denied, remove("holder/tree"));
        EXPECT_TRUE(isPresent(m_box / "holder/tree"));
    });
}

TEST_F(RemoveTree, an_error_that_is_no_matter_of_modes_is_handed_on) {
    writeFile(m_box / "tree/file", "bytes");
    const FaultInjector faults({{"unlinkat", EIO, "file", 1, true}});
    EXPECT_EQ(std::errc::io_error, remove("tree"));
    EXPECT_LT(0, faults.fired());
    EXPECT_EQ("bytes", readFile(m_box / "tree/file"));
}

} // namespace
