// Renaming one entry by a typed text.

#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

const char* const messageBefore = "what was there before";
const char* const nameRequired = "Rename target must include a file or directory name.";
const char* const sameAsEntry = "Rename target matches the current path.";
const char* const targetExists = "Rename target already exists.";
const std::string cannotMakeParents = "Failed to create rename target directory: ";
const std::string cannotRename = "Rename failed: ";

/// Longer than any file system takes.
const std::string tooLongName(300, 'n');

/// Everything that comes back from one call.
struct Outcome {
    bool bRenamed = false;
    std::string SelectedPath;
    std::string Message;
};

bool operator==(const Outcome& a, const Outcome& b) {
    return a.bRenamed == b.bRenamed && a.SelectedPath == b.SelectedPath && a.Message == b.Message;
}

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << (outcome.bRenamed ? "renamed" : "refused") << ", select '" << outcome.SelectedPath
            << "', message '" << outcome.Message << "'";
}

Outcome renamed(const fs::path& selectedPath) {
    return {true, selectedPath.string(), messageBefore};
}

Outcome refused(const std::string& sentence) {
    return {false, "", sentence};
}

/// Only the path counts, so everything else of the entry is wrong.
TavroOperationEntry entryAt(const fs::path& path) {
    return {"another name", path.string(), !fs::is_directory(path)};
}

Outcome renameTo(const TavroOperationEntry& entry, const std::string& targetText,
                 const fs::path& baseDirectory) {
    Outcome outcome = {false, "selected before", messageBefore};
    outcome.bRenamed =
        TavroRenameEntry(entry, targetText, baseDirectory, outcome.SelectedPath, outcome.Message);
    return outcome;
}

/// The call throws the file system's error `expected` and leaves its out-parameters as promised.
void expectThrown(const TavroOperationEntry& entry, const std::string& targetText,
                  const fs::path& baseDirectory, std::errc expected) {
    std::string selectedPath = "selected before";
    std::string message = messageBefore;
    try {
        TavroRenameEntry(entry, targetText, baseDirectory, selectedPath, message);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.code(), std::make_error_code(expected));
    }
    EXPECT_EQ(selectedPath, "");
    EXPECT_EQ(message, messageBefore);
}

class RenameEntry : public testing::Test {
protected:
    /// Renames an entry of the sandbox, with the sandbox as base directory.
    Outcome rename(const std::string& name, const std::string& targetText) const {
        return renameTo(entryAt(box / name), targetText, box.path());
    }

    /// As `rename`, for a call that must be refused and change nothing.
    Outcome refusedRename(const std::string& name, const std::string& targetText) const {
        const Snapshot before = takeSnapshot(box.path());
        const Outcome outcome = rename(name, targetText);
        EXPECT_EQ(takeSnapshot(box.path()), before);
        return outcome;
    }

    void file(const std::string& name) const {
        writeFile(box / name, "bytes of " + name);
    }

    void expectMoved(const std::string& from, const std::string& to) const {
        EXPECT_FALSE(isPresent(box / from));
        EXPECT_EQ(readFile(box / to), "bytes of " + from);
    }

    Sandbox box;
};

} // namespace

// ---------------------------------------------------------------------------------------------
// The sentences, in the order of the checks
// ---------------------------------------------------------------------------------------------

TEST_F(RenameEntry, an_entry_without_a_path_is_no_selection) {
    EXPECT_EQ(renameTo({"a.txt", "", false}, "b.txt", box.path()),
              refused("Nothing selected to rename."));
}

TEST_F(RenameEntry, a_missing_selection_is_told_before_a_blank_target) {
    EXPECT_EQ(renameTo({"cdda:1", "", false}, "  ", box.path()),
              refused("Nothing selected to rename."));
}

TEST_F(RenameEntry, a_track_is_not_renamed) {
    const ScopedCurrentDirectory inside(box.path());
    file("cdda:1");
    EXPECT_EQ(renameTo({"Track 01", "cdda:1", false}, "b.wav", box.path()),
              refused("Audio CD tracks cannot be renamed. Copy them to disk first."));
    EXPECT_TRUE(isPresent(box / "cdda:1"));
}

TEST_F(RenameEntry, a_track_is_told_before_a_blank_target) {
    EXPECT_EQ(renameTo({"Track 01", "cdda:/dev/cdrom/1", false}, " ", box.path()),
              refused("Audio CD tracks cannot be renamed. Copy them to disk first."));
}

TEST_F(RenameEntry, a_track_is_told_by_its_path_and_not_by_its_name) {
    file("a.txt");
    EXPECT_EQ(renameTo({"cdda:1", (box / "a.txt").string(), false}, "b.txt", box.path()),
              renamed(box / "b.txt"));
}

TEST_F(RenameEntry, a_blank_target_is_refused) {
    file("a.txt");
    for (const std::string blank : {"", " ", " \t\r\n\v\f"}) {
        EXPECT_EQ(refusedRename("a.txt", blank), refused("Rename target cannot be empty."));
    }
}

TEST_F(RenameEntry, a_blank_target_is_told_before_a_directory_of_that_name) {
    file("a.txt");
    makeDirectory(box / "   ");
    EXPECT_EQ(refusedRename("a.txt", "   "), refused("Rename target cannot be empty."));
}

TEST_F(RenameEntry, a_directory_is_no_name_to_rename_to) {
    file("p/a.txt");
    makeDirectory(box / "d");
    fs::create_directory_symlink("d", box / "link");
    for (const std::string target : {"d", "d/", "link", ".", "..", "p", "/", "p/.."}) {
        EXPECT_EQ(refusedRename("p/a.txt", target), refused(nameRequired)) << target;
    }
}

TEST_F(RenameEntry, a_directory_as_target_is_told_before_the_entry_itself) {
    file("d/a.txt");
    EXPECT_EQ(refusedRename("d", "d"), refused(nameRequired));
    EXPECT_EQ(refusedRename("d", "x/../d/"), refused(nameRequired));
}

TEST_F(RenameEntry, the_entry_itself_is_no_target) {
    file("a.txt");
    makeDirectory(box / "p");
    fs::create_directory_symlink(box.path(), box / "back");
    for (const std::string target : {"a.txt", " a.txt ", "p/../a.txt", "./a.txt", "back/a.txt"}) {
        EXPECT_EQ(refusedRename("a.txt", target), refused(sameAsEntry)) << target;
    }
}

TEST_F(RenameEntry, links_to_the_entry_are_the_entry) {
    file("a.txt");
    fs::create_hard_link(box / "a.txt", box / "hard");
    fs::create_symlink("a.txt", box / "link");
    EXPECT_EQ(refusedRename("a.txt", "hard"), refused(sameAsEntry));
    EXPECT_EQ(refusedRename("a.txt", "link"), refused(sameAsEntry));
    EXPECT_EQ(refusedRename("link", "a.txt"), refused(sameAsEntry));
}

// The entry exists, so its own path is a target that exists as well.
TEST_F(RenameEntry, the_entry_itself_is_told_before_a_target_that_exists) {
    file("a.txt");
    EXPECT_EQ(refusedRename("a.txt", (box / "a.txt").string()), refused(sameAsEntry));
}

TEST_F(RenameEntry, a_missing_entry_onto_its_own_path_is_the_entry_itself) {
    EXPECT_EQ(refusedRename("gone", "gone"), refused(sameAsEntry));
}

TEST_F(RenameEntry, a_target_that_exists_is_refused) {
    file("a.txt");
    file("b.txt");
    makeFifo(box / "pipe");
    fs::create_symlink("b.txt", box / "link");
    for (const std::string target : {"b.txt", "pipe", "link"}) {
        EXPECT_EQ(refusedRename("a.txt", target), refused(targetExists)) << target;
    }
}

TEST_F(RenameEntry, a_target_that_exists_is_told_before_a_rename_that_would_fail) {
    file("b.txt");
    EXPECT_EQ(refusedRename("gone", "b.txt"), refused(targetExists));
}

TEST_F(RenameEntry, a_file_among_the_parents_is_refused) {
    file("a.txt");
    file("b.txt");
    const Outcome outcome = refused(cannotMakeParents + systemText(std::errc::not_a_directory));
    EXPECT_EQ(refusedRename("a.txt", "b.txt/c.txt"), outcome);
    EXPECT_EQ(refusedRename("a.txt", "b.txt/d/c.txt"), outcome);
}

TEST_F(RenameEntry, parents_that_cannot_be_made_are_told_before_a_rename_that_would_fail) {
    file("b.txt");
    EXPECT_EQ(refusedRename("gone", "b.txt/c.txt"),
              refused(cannotMakeParents + systemText(std::errc::not_a_directory)));
}

TEST_F(RenameEntry, parents_that_may_not_be_made_are_refused) {
    file("a.txt");
    makeDirectory(box / "closed");
    runUnprivileged(box.path(), [&] {
        fs::permissions(box / "closed", fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_EQ(refusedRename("a.txt", "closed/d/b.txt"),
                  refused(cannotMakeParents + systemText(std::errc::permission_denied)));
        EXPECT_EQ(refusedRename("a.txt", "closed/b.txt"),
                  refused(cannotRename + systemText(std::errc::permission_denied)));
    });
}

TEST_F(RenameEntry, a_missing_entry_is_refused) {
    EXPECT_EQ(refusedRename("gone", "b.txt"),
              refused(cannotRename + systemText(std::errc::no_such_file_or_directory)));
}

TEST_F(RenameEntry, directories_made_for_a_rename_that_fails_stay) {
    const Outcome outcome = rename("gone", "new/deeper/b.txt");
    EXPECT_EQ(outcome, refused(cannotRename + systemText(std::errc::no_such_file_or_directory)));
    EXPECT_TRUE(fs::is_empty(box / "new/deeper"));
}

TEST_F(RenameEntry, a_directory_does_not_go_below_itself) {
    file("d/a.txt");
    EXPECT_EQ(refusedRename("d", "d/e"),
              refused(cannotRename + systemText(std::errc::invalid_argument)));
}

TEST_F(RenameEntry, nothing_is_copied_to_another_file_system) {
    if (!fs::is_directory(secondFileSystem) || !onDifferentDevices(box.path(), secondFileSystem)) {
        GTEST_SKIP() << "there is no second file system at " << secondFileSystem;
    }
    const Sandbox other(secondFileSystem);
    file("a.txt");
    EXPECT_EQ(refusedRename("a.txt", (other / "new/b.txt").string()),
              refused(cannotRename + systemText(std::errc::cross_device_link)));
    EXPECT_TRUE(fs::is_empty(other / "new"));
}

// ---------------------------------------------------------------------------------------------
// The one exception
// ---------------------------------------------------------------------------------------------

TEST_F(RenameEntry, a_name_that_is_too_long_is_thrown) {
    file("a.txt");
    const Snapshot before = takeSnapshot(box.path());
    expectThrown(entryAt(box / "a.txt"), tooLongName, box.path(), std::errc::filename_too_long);
    EXPECT_EQ(takeSnapshot(box.path()), before);
}

// Below a missing directory nothing is examined, so there the name fails only at the rename.
TEST_F(RenameEntry, a_name_that_is_too_long_below_a_missing_directory_is_refused) {
    file("a.txt");
    EXPECT_EQ(rename("a.txt", "new/" + tooLongName),
              refused(cannotRename + systemText(std::errc::filename_too_long)));
    EXPECT_TRUE(fs::is_empty(box / "new"));
    EXPECT_TRUE(isPresent(box / "a.txt"));
}

TEST_F(RenameEntry, a_target_below_an_unreadable_directory_is_thrown) {
    file("a.txt");
    makeDirectory(box / "closed");
    runUnprivileged(box.path(), [&] {
        fs::permissions(box / "closed", fs::perms::none);
        expectThrown(entryAt(box / "a.txt"), "closed/b.txt", box.path(),
                     std::errc::permission_denied);
        fs::permissions(box / "closed", fs::perms::owner_all);
        EXPECT_TRUE(fs::is_empty(box / "closed"));
    });
    EXPECT_EQ(readFile(box / "a.txt"), "bytes of a.txt");
}

TEST_F(RenameEntry, what_is_checked_before_the_target_does_not_throw) {
    EXPECT_EQ(renameTo({"", "", false}, tooLongName, box.path()),
              refused("Nothing selected to rename."));
    EXPECT_EQ(renameTo({"", "cdda:1", false}, tooLongName, box.path()),
              refused("Audio CD tracks cannot be renamed. Copy them to disk first."));
}

// ---------------------------------------------------------------------------------------------
// What is renamed, and where to
// ---------------------------------------------------------------------------------------------

TEST_F(RenameEntry, a_bare_name_is_taken_against_the_base_directory) {
    file("a.txt");
    EXPECT_EQ(rename("a.txt", " b.txt\n"), renamed(box / "b.txt"));
    expectMoved("a.txt", "b.txt");
}

TEST_F(RenameEntry, the_base_directory_need_not_hold_the_entry) {
    file("p/a.txt");
    makeDirectory(box / "q");
    EXPECT_EQ(renameTo(entryAt(box / "p/a.txt"), "b.txt", box / "q"), renamed(box / "q/b.txt"));
    expectMoved("p/a.txt", "q/b.txt");
}

TEST_F(RenameEntry, missing_parents_are_made) {
    file("a.txt");
    EXPECT_EQ(rename("a.txt", "sub/deeper/b.txt"), renamed(box / "sub/deeper/b.txt"));
    expectMoved("a.txt", "sub/deeper/b.txt");
}

TEST_F(RenameEntry, a_directory_is_renamed_with_its_contents) {
    file("d/e/a.txt");
    EXPECT_EQ(rename("d", "f"), renamed(box / "f"));
    expectMoved("d/e/a.txt", "f/e/a.txt");
}

TEST_F(RenameEntry, a_typed_path_may_be_absolute_or_begin_with_the_home_directory) {
    const ScopedEnvironment home("HOME", (box / "home").string());
    file("a.txt");
    file("b.txt");
    EXPECT_EQ(rename("a.txt", (box / "x/../c.txt").string()), renamed(box / "c.txt"));
    EXPECT_EQ(rename("b.txt", "~/b.txt"), renamed(box / "home/b.txt"));
    expectMoved("a.txt", "c.txt");
    expectMoved("b.txt", "home/b.txt");
}

TEST_F(RenameEntry, names_are_bytes) {
    file("a.txt");
    const std::string name = "\xff new\nline '\\";
    EXPECT_EQ(rename("a.txt", name), renamed(box / name));
    expectMoved("a.txt", name);
}

TEST_F(RenameEntry, a_bare_name_without_a_base_directory_goes_beside_the_entry) {
    file("p/a.txt");
    makeDirectory(box / "elsewhere");
    const ScopedCurrentDirectory inside(box / "elsewhere");
    EXPECT_EQ(renameTo(entryAt(box / "p/a.txt"), "b.txt", ""), renamed(box / "p/b.txt"));
    expectMoved("p/a.txt", "p/b.txt");
}

TEST_F(RenameEntry, without_a_base_directory_what_the_current_directory_holds_is_the_target) {
    file("p/a.txt");
    file("elsewhere/b.txt");
    const ScopedCurrentDirectory inside(box / "elsewhere");
    EXPECT_EQ(renameTo(entryAt(box / "p/a.txt"), "b.txt", ""), refused(targetExists));
}

TEST_F(RenameEntry, a_relative_path_without_a_base_directory_begins_in_the_current_one) {
    file("p/a.txt");
    makeDirectory(box / "elsewhere");
    const ScopedCurrentDirectory inside(box / "elsewhere");
    EXPECT_EQ(renameTo(entryAt(box / "p/a.txt"), "new/b.txt", ""),
              renamed(box / "elsewhere/new/b.txt"));
    expectMoved("p/a.txt", "elsewhere/new/b.txt");
}

TEST_F(RenameEntry, a_bare_name_for_an_entry_of_the_current_directory_stays_there) {
    file("a.txt");
    const ScopedCurrentDirectory inside(box.path());
    EXPECT_EQ(renameTo(entryAt("a.txt"), "b.txt", ""), renamed(box / "b.txt"));
    expectMoved("a.txt", "b.txt");
}

TEST_F(RenameEntry, a_link_is_renamed_as_a_link_and_selected_by_what_it_points_to) {
    file("a.txt");
    fs::create_symlink("a.txt", box / "link");
    EXPECT_EQ(rename("link", "other"), renamed(box / "a.txt"));
    EXPECT_EQ(takeSnapshot(box.path()).at("other"), "link -> a.txt");
    EXPECT_FALSE(isPresent(box / "link"));
}

TEST_F(RenameEntry, a_dangling_link_counts_as_free_and_is_replaced) {
    file("a.txt");
    fs::create_symlink("nowhere", box / "link");
    EXPECT_EQ(rename("a.txt", "link"), renamed(box / "link"));
    EXPECT_FALSE(fs::is_symlink(box / "link"));
    expectMoved("a.txt", "link");
    EXPECT_FALSE(isPresent(box / "nowhere"));
}

TEST_F(RenameEntry, a_separator_at_the_end_makes_a_directory_that_only_a_directory_can_replace) {
    file("d/a.txt");
    file("b.txt");
    EXPECT_EQ(rename("d", "e/"), renamed(box / "e"));
    expectMoved("d/a.txt", "e/a.txt");
    EXPECT_EQ(rename("b.txt", "f/"),
              refused(cannotRename + systemText(std::errc::not_a_directory)));
    EXPECT_TRUE(fs::is_empty(box / "f"));
}
