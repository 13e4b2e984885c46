// Deleting a selection for good; and to the trash, where the trash's own operation does the work.

#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

using Entries = std::vector<TavroOperationEntry>;

constexpr bool bForGood = false;
constexpr bool bToTrash = true;
constexpr bool bAsFile = false;
constexpr bool bAsDirectory = true;

const char* const messageBefore = "what was there before";

/// What comes back from one call.
struct Outcome {
    bool bDeleted = false;
    std::string Message = messageBefore;
};

bool operator==(const Outcome& a, const Outcome& b) {
    return a.bDeleted == b.bDeleted && a.Message == b.Message;
}

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << (outcome.bDeleted ? "deleted" : "refused") << ", message '" << outcome.Message
            << "'";
}

const Outcome deleted = {true, messageBefore};

Outcome refused(const std::string& sentence) {
    return {false, sentence};
}

Outcome refused(const std::string& name, std::errc error) {
    return refused("Delete failed for '" + name + "': " + systemText(error));
}

Outcome deleteEntries(const Entries& entries, bool bUseTrash) {
    Outcome outcome;
    outcome.bDeleted = TavroDeleteEntries(entries, bUseTrash, outcome.Message);
    return outcome;
}

Outcome deleteForGood(const Entries& entries) {
    return deleteEntries(entries, bForGood);
}

/// A tree with a home of its own, and in it files that must survive.
class DeleteEntries : public testing::Test {
protected:
    DeleteEntries() : m_home("HOME", (box / "home").string()) {
        makeDirectory(box / "home");
    }

    /// The entry at `name`, whose display name differs from that of its path.
    TavroOperationEntry entry(const std::string& name, bool bDirectory) const {
        return {"shown " + name, (box / name).string(), bDirectory};
    }

    TavroOperationEntry file(const std::string& name) const {
        writeFile(box / name, "bytes of " + name);
        return entry(name, bAsFile);
    }

    Snapshot now() const {
        return takeSnapshot(box.path());
    }

    /// The tree as it is, without `names`.
    Snapshot nowWithout(const std::vector<std::string>& names) const {
        Snapshot rest = now();
        for (const std::string& name : names) {
            EXPECT_EQ(rest.erase(name), 1U) << name;
        }
        return rest;
    }

    Sandbox box;

private:
    ScopedEnvironment m_home;
};

class DeleteForGood : public DeleteEntries {};
class DeleteToTrash : public DeleteEntries {};

} // namespace

TEST_F(DeleteEntries, an_empty_selection_is_refused) {
    const Snapshot before = now();
    EXPECT_EQ(deleteEntries({}, bForGood), refused("Nothing selected to delete."));
    EXPECT_EQ(deleteEntries({}, bToTrash), refused("Nothing selected to delete."));
    EXPECT_EQ(now(), before);
}

TEST_F(DeleteEntries, an_empty_selection_is_told_before_a_trash_that_is_unavailable) {
    const ScopedEnvironment noHome("HOME", std::nullopt);
    EXPECT_EQ(deleteEntries({}, bToTrash), refused("Nothing selected to delete."));
}

// ---------------------------------------------------------------------------------------------
// For good
// ---------------------------------------------------------------------------------------------

TEST_F(DeleteForGood, files_and_directories_are_removed_and_nothing_else) {
    const TavroOperationEntry a = file("a.txt");
    file("kept/a.txt");
    file("d/e/b.txt");
    file("d/c.txt");
    const Snapshot expected = nowWithout({"a.txt", "d", "d/e", "d/e/b.txt", "d/c.txt"});
    EXPECT_EQ(deleteForGood({a, entry("d", bAsDirectory)}), deleted);
    EXPECT_EQ(now(), expected);
}

TEST_F(DeleteForGood, the_trash_is_not_touched) {
    EXPECT_EQ(deleteForGood({file("a.txt")}), deleted);
    EXPECT_TRUE(fs::is_empty(box / "home"));
}

TEST_F(DeleteForGood, no_home_is_needed) {
    const ScopedEnvironment noHome("HOME", std::nullopt);
    EXPECT_EQ(deleteForGood({file("a.txt")}), deleted);
    EXPECT_FALSE(isPresent(box / "a.txt"));
}

TEST_F(DeleteForGood, a_directory_flagged_as_a_file_is_removed_only_when_it_is_empty) {
    file("full/a.txt");
    makeDirectory(box / "empty");
    const Snapshot expected = nowWithout({"empty"});
    EXPECT_EQ(deleteForGood({entry("empty", bAsFile), entry("full", bAsFile)}),
              refused("shown full", std::errc::directory_not_empty));
    EXPECT_EQ(now(), expected);
}

TEST_F(DeleteForGood, a_file_flagged_as_a_directory_is_removed) {
    file("a.txt");
    const Snapshot expected = nowWithout({"a.txt"});
    EXPECT_EQ(deleteForGood({entry("a.txt", bAsDirectory)}), deleted);
    EXPECT_EQ(now(), expected);
}

TEST_F(DeleteForGood, links_are_removed_as_links_whatever_their_flag) {
    file("target/a.txt");
    for (const bool bDirectory : {bAsFile, bAsDirectory}) {
        const Snapshot expected = now();
        fs::create_directory_symlink("target", box / "link to directory");
        fs::create_symlink("target/a.txt", box / "link to file");
        fs::create_symlink("nowhere", box / "dangling");
        EXPECT_EQ(deleteForGood({entry("link to directory", bDirectory),
                                 entry("link to file", bDirectory), entry("dangling", bDirectory)}),
                  deleted);
        EXPECT_EQ(now(), expected);
    }
}

TEST_F(DeleteForGood, links_inside_a_directory_are_not_followed) {
    file("target/a.txt");
    const Snapshot expected = now();
    makeDirectory(box / "d");
    fs::create_directory_symlink(box / "target", box / "d/link to directory");
    fs::create_symlink(box / "target/a.txt", box / "d/link to file");
    EXPECT_EQ(deleteForGood({entry("d", bAsDirectory)}), deleted);
    EXPECT_EQ(now(), expected);
}

TEST_F(DeleteForGood, special_files_are_removed) {
    const Snapshot expected = now();
    makeFifo(box / "pipe");
    EXPECT_EQ(deleteForGood({entry("pipe", bAsFile)}), deleted);
    EXPECT_EQ(now(), expected);
}

TEST_F(DeleteForGood, entries_that_are_gone_already_count_as_deleted) {
    const TavroOperationEntry last = file("last");
    EXPECT_EQ(deleteForGood({entry("gone", bAsFile), entry("gone", bAsDirectory),
                             entry("gone too/a.txt", bAsFile), last, last}),
              deleted);
    EXPECT_FALSE(isPresent(box / "last"));
}

TEST_F(DeleteForGood, it_stops_at_the_first_failure) {
    const TavroOperationEntry first = file("first");
    file("full/a.txt");
    const TavroOperationEntry last = file("last");
    const Snapshot expected = nowWithout({"first"});
    EXPECT_EQ(deleteForGood({first, entry("full", bAsFile), last, entry("full", bAsDirectory)}),
              refused("shown full", std::errc::directory_not_empty));
    EXPECT_EQ(now(), expected);
}

TEST_F(DeleteForGood, an_entry_of_a_directory_without_write_permission_stays) {
    const TavroOperationEntry first = file("first");
    const TavroOperationEntry guarded = file("closed/a.txt");
    const TavroOperationEntry last = file("last");
    runUnprivileged(box.path(), [&] {
        fs::permissions(box / "closed", fs::perms::owner_read | fs::perms::owner_exec);
        const Snapshot expected = nowWithout({"first"});
        EXPECT_EQ(deleteForGood({first, guarded, last}),
                  refused("shown closed/a.txt", std::errc::permission_denied));
        EXPECT_EQ(now(), expected);
    });
}

TEST_F(DeleteForGood, a_directory_may_be_partly_removed) {
    file("d/closed/a.txt");
    const TavroOperationEntry last = file("last");
    runUnprivileged(box.path(), [&] {
        fs::permissions(box / "d/closed", fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_EQ(deleteForGood({entry("d", bAsDirectory), last}),
                  refused("shown d", std::errc::permission_denied));
        EXPECT_EQ(readFile(box / "d/closed/a.txt"), "bytes of d/closed/a.txt");
        EXPECT_TRUE(isPresent(box / "last"));
    });
}

// ---------------------------------------------------------------------------------------------
// To the trash
// ---------------------------------------------------------------------------------------------

namespace {

/// What the trash's own operation says of the same entries; it undoes what it did.
Outcome trashThenUndo(const Entries& entries) {
    std::vector<TavroTrashEntry> trashed;
    Outcome outcome;
    outcome.bDeleted = TavroTrashEntries(entries, trashed, outcome.Message);
    if (outcome.bDeleted) {
        std::string message;
        EXPECT_TRUE(TavroRestoreTrashEntries(trashed, message)) << message;
    }
    return outcome;
}

} // namespace

TEST_F(DeleteToTrash, entries_go_to_the_trash_with_their_records) {
    const Entries selection = {file("a.txt"), entry("d", bAsDirectory)};
    file("d/b.txt");
    EXPECT_EQ(trashThenUndo(selection), deleted);
    EXPECT_EQ(deleteEntries(selection, bToTrash), deleted);
    EXPECT_FALSE(isPresent(box / "a.txt"));
    EXPECT_FALSE(isPresent(box / "d"));
    const fs::path trash = box / "home/.local/share/Trash";
    EXPECT_EQ(readFile(trash / "files/a.txt"), "bytes of a.txt");
    EXPECT_EQ(readFile(trash / "files/d/b.txt"), "bytes of d/b.txt");
    EXPECT_TRUE(isPresent(trash / "info/a.txt.trashinfo"));
    EXPECT_TRUE(isPresent(trash / "info/d.trashinfo"));
}

TEST_F(DeleteToTrash, an_unavailable_trash_is_told_as_the_trash_tells_it) {
    const ScopedEnvironment noHome("HOME", std::nullopt);
    const Entries selection = {file("a.txt")};
    const Snapshot before = now();
    const Outcome outcome = deleteEntries(selection, bToTrash);
    EXPECT_EQ(outcome, refused("Trash is unavailable because HOME is not set."));
    EXPECT_EQ(outcome, trashThenUndo(selection));
    EXPECT_EQ(now(), before);
}

TEST_F(DeleteToTrash, a_trash_that_cannot_be_made_is_told_as_the_trash_tells_it) {
    writeFile(box / "home/.local", "in the way");
    const Entries selection = {file("a.txt")};
    const Snapshot before = now();
    const Outcome outcome = deleteEntries(selection, bToTrash);
    EXPECT_EQ(outcome, refused("Failed to create trash files directory: " +
                               systemText(std::errc::not_a_directory)));
    EXPECT_EQ(outcome, trashThenUndo(selection));
    EXPECT_EQ(now(), before);
}

TEST_F(DeleteToTrash, a_failure_puts_the_entries_before_it_back) {
    const Entries selection = {file("a.txt"), entry("gone", bAsFile), file("b.txt")};
    const Outcome outcome = deleteEntries(selection, bToTrash);
    EXPECT_EQ(outcome, refused("Failed to move '" + (box / "gone").string() +
                               "': " + systemText(std::errc::no_such_file_or_directory)));
    EXPECT_EQ(outcome, trashThenUndo(selection));
    EXPECT_EQ(readFile(box / "a.txt"), "bytes of a.txt");
    EXPECT_EQ(readFile(box / "b.txt"), "bytes of b.txt");
    EXPECT_TRUE(fs::is_empty(box / "home/.local/share/Trash/files"));
    EXPECT_TRUE(fs::is_empty(box / "home/.local/share/Trash/info"));
}
