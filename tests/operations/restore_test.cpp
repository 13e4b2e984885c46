// Trashed entries come back, and go again, on one list.

#include "home_trash.h"
#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

const std::string oldDate = "2001-02-03T04:05:06";

class RestoreTrashEntries : public HomeTrash {
protected:
    RestoreTrashEntries() {
        makeTrash();
    }

    bool restore(const std::vector<TavroTrashEntry>& entries) {
        return TavroRestoreTrashEntries(entries, error);
    }

    /// A file that was trashed long ago. Its bytes are its name in the trash.
    TavroTrashEntry trashedFile(const std::string& name, const fs::path& original) const {
        const TavroTrashEntry entry = inTrash(name, original);
        writeFile(entry.TrashPath, name);
        addRecord(entry);
        return entry;
    }

    /// A directory that was trashed long ago, with one file in it.
    TavroTrashEntry trashedDirectory(const std::string& name, const fs::path& original) const {
        const TavroTrashEntry entry = inTrash(name, original, true);
        writeFile(fs::path(entry.TrashPath) / "inside.txt", name);
        addRecord(entry);
        return entry;
    }

    static void addRecord(const TavroTrashEntry& entry) {
        writeFile(entry.InfoPath, "[Trash Info]\nPath=" + encoded(entry.OriginalPath) +
                                      "\nDeletionDate=" + oldDate + "\n");
    }

    static bool hasOldDate(const TavroTrashEntry& entry) {
        return readFile(entry.InfoPath).find(oldDate) != std::string::npos;
    }

    /// An entry that passes the checks and then cannot be moved: a parent of its original place is
    /// a file.
    TavroTrashEntry stuckFile(const std::string& name) const {
        writeFile(documents / "blocked");
        return trashedFile(name, documents / "blocked" / name);
    }
    static std::string stuckSentence() {
        return "Failed to create destination directory: " + systemText(std::errc::not_a_directory);
    }

    /// In `tree`: an entry of the trash back in its place among the documents, its record gone.
    static void takeBack(Snapshot& tree, const std::string& name, const std::string& document) {
        moveRows(tree, "home/.local/share/Trash/files/" + name, "documents/" + document);
        tree.erase("home/.local/share/Trash/info/" + name + ".trashinfo");
    }

    /// The list is refused with this sentence, and apart from the times of the records nothing has
    /// changed.
    void expectRefused(const std::vector<TavroTrashEntry>& entries, const std::string& sentence) {
        const Snapshot before = everything();
        EXPECT_FALSE(restore(entries));
        EXPECT_EQ(error, sentence);
        EXPECT_EQ(everything(), before);
    }

    static std::string missing(const TavroTrashEntry& entry) {
        return "Trash item is missing: " + entry.TrashPath;
    }
    static std::string occupied(const TavroTrashEntry& entry) {
        return "Restore target already exists: " + entry.OriginalPath;
    }
};

class ReapplyTrashEntries : public HomeTrash {
protected:
    /// Trashes these documents and restores them, so that `trashed` can be reapplied.
    void undo(const std::vector<TavroOperationEntry>& entries) {
        ASSERT_TRUE(TavroTrashEntries(entries, trashed, error)) << error;
        ASSERT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
    }

    bool reapply() {
        return TavroReapplyTrashEntries(trashed, error);
    }

    /// Reapplying fails with this sentence; the list and all that is on the disk stay as they are.
    void expectRefused(const std::string& sentence) {
        const std::vector<std::string> list = texts(trashed);
        const Snapshot before = everything();
        EXPECT_FALSE(reapply());
        EXPECT_EQ(error, sentence);
        EXPECT_EQ(texts(trashed), list);
        EXPECT_EQ(everything(), before);
    }
};

} // namespace

// -------------------------------------------------------------------------------------------------
// What success looks like
// -------------------------------------------------------------------------------------------------

TEST_F(RestoreTrashEntries, every_entry_is_back_and_every_record_gone) {
    const std::vector<TavroTrashEntry> entries = {
        trashedFile("a.txt", documents / "a.txt"),
        trashedFile("a copy 1.txt", documents / "sub/a.txt"),
        trashedDirectory("tree", documents / "tree"),
    };
    trashedFile("other", documents / "other");
    makeDirectory(documents / "sub");
    Snapshot expected = everything();
    takeBack(expected, "a.txt", "a.txt");
    takeBack(expected, "a copy 1.txt", "sub/a.txt");
    takeBack(expected, "tree", "tree");

    EXPECT_TRUE(restore(entries)) << error;
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(error, "untouched");
}

TEST_F(RestoreTrashEntries, what_was_trashed_comes_back_as_it_was) {
    makeTree(documents / "tree");
    makeFifo(documents / "fifo");
    writeFile(documents / "odd \n\xFF*%41.txt", "odd");
    fs::create_symlink(documents / "tree", documents / "link");
    Snapshot expected = everything();
    ASSERT_TRUE(
        TavroTrashEntries({directory(documents / "tree"), file(documents / "fifo"),
                           file(documents / "odd \n\xFF*%41.txt"), directory(documents / "link")},
                          trashed, error))
        << error;
    // The target of the link is in the trash at first, so the link can follow only then.
    const std::vector<TavroTrashEntry> link = {trashed.back()};
    trashed.pop_back();
    EXPECT_TRUE(restore(trashed)) << error;
    EXPECT_TRUE(restore(link)) << error;
    EXPECT_EQ(everything(), expected);
}

TEST_F(RestoreTrashEntries, missing_parents_are_created_with_the_default_mode) {
    const TavroTrashEntry entry = trashedFile("a.txt", documents / "gone/since/a.txt");
    Snapshot expected = everything();
    takeBack(expected, "a.txt", "gone/since/a.txt");
    expected["documents/gone"] = "directory 755";
    expected["documents/gone/since"] = "directory 755";
    EXPECT_TRUE(restore({entry})) << error;
    EXPECT_EQ(everything(), expected);
}

TEST_F(RestoreTrashEntries, an_entry_may_go_below_one_that_comes_back_before_it) {
    const TavroTrashEntry tree = trashedDirectory("tree", documents / "tree");
    const TavroTrashEntry inner = trashedFile("a.txt", documents / "tree/sub/a.txt");
    EXPECT_TRUE(restore({tree, inner})) << error;
    EXPECT_EQ(readFile(documents / "tree/inside.txt"), "tree");
    EXPECT_EQ(readFile(documents / "tree/sub/a.txt"), "a.txt");
}

TEST_F(RestoreTrashEntries, no_home_is_needed) {
    const TavroTrashEntry entry = trashedFile("a.txt", documents / "a.txt");
    const ScopedEnvironment unset("HOME", std::nullopt);
    EXPECT_TRUE(restore({entry})) << error;
    EXPECT_EQ(readFile(documents / "a.txt"), "a.txt");
}

TEST_F(RestoreTrashEntries, a_dangling_link_at_the_original_place_is_replaced_by_a_file) {
    fs::create_symlink("/nowhere", documents / "a.txt");
    const TavroTrashEntry entry = trashedFile("a.txt", documents / "a.txt");
    EXPECT_TRUE(restore({entry})) << error;
    EXPECT_EQ(everything().at("documents/a.txt"), "file 644 a.txt");
}

TEST_F(RestoreTrashEntries, a_dangling_link_at_the_original_place_is_in_the_way_of_a_directory) {
    fs::create_symlink("/nowhere", documents / "tree");
    const TavroTrashEntry entry = trashedDirectory("tree", documents / "tree");
    expectRefused({entry}, failed("move", entry.TrashPath, std::errc::not_a_directory));
}

TEST_F(RestoreTrashEntries, an_original_path_with_a_separator_at_the_end_takes_a_directory_back) {
    makeTree(documents / "tree");
    const Snapshot before = takeSnapshot(documents);
    ASSERT_TRUE(TavroTrashEntries({directory(documents / "tree/")}, trashed, error)) << error;
    EXPECT_TRUE(restore(trashed)) << error;
    EXPECT_EQ(takeSnapshot(documents), before);
}

TEST_F(RestoreTrashEntries, an_original_path_with_a_separator_at_the_end_takes_no_file_back) {
    const TavroTrashEntry entry = trashedFile("a.txt", documents / "a.txt/");
    Snapshot expected = everything();
    expected["documents/a.txt"] = "directory 755";
    EXPECT_FALSE(restore({entry}));
    EXPECT_EQ(error, failed("move", entry.TrashPath, std::errc::not_a_directory));
    EXPECT_EQ(everything(), expected);
}

// -------------------------------------------------------------------------------------------------
// Records that are not as they should be
// -------------------------------------------------------------------------------------------------

TEST_F(RestoreTrashEntries, a_record_that_cannot_be_removed_stays_and_is_no_failure) {
    const TavroTrashEntry a = inTrash("a.txt", documents / "a.txt");
    const TavroTrashEntry b = trashedFile("b.txt", documents / "b.txt");
    writeFile(a.TrashPath, "a.txt");
    writeFile(fs::path(a.InfoPath) / "kept.txt", "kept");
    Snapshot expected = everything();
    moveRows(expected, "home/.local/share/Trash/files/a.txt", "documents/a.txt");
    takeBack(expected, "b.txt", "b.txt");

    EXPECT_TRUE(restore({a, b}));
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(error, "untouched");
}

TEST_F(RestoreTrashEntries, a_record_without_permission_to_remove_it_stays_and_is_no_failure) {
    const TavroTrashEntry entry = trashedFile("a.txt", documents / "a.txt");
    fs::permissions(info, fs::perms::owner_read | fs::perms::owner_exec);
    runUnprivileged(sandbox.path(), [&] {
        EXPECT_TRUE(restore({entry})) << error;
        EXPECT_EQ(readFile(documents / "a.txt"), "a.txt");
        EXPECT_TRUE(hasOldDate(entry));
        EXPECT_EQ(error, "untouched");
    });
}

TEST_F(RestoreTrashEntries, a_missing_record_is_no_failure) {
    const TavroTrashEntry entry = trashedFile("a.txt", documents / "a.txt");
    fs::remove(entry.InfoPath);
    EXPECT_TRUE(restore({entry})) << error;
    EXPECT_EQ(readFile(documents / "a.txt"), "a.txt");
}

// -------------------------------------------------------------------------------------------------
// What is checked before anything moves
// -------------------------------------------------------------------------------------------------

TEST_F(RestoreTrashEntries, an_empty_list_is_refused) {
    trashedFile("a.txt", documents / "a.txt");
    expectRefused({}, "No trash entries are available to restore.");
}

TEST_F(RestoreTrashEntries, a_missing_item_or_an_occupied_place_anywhere_stops_everything) {
    const TavroTrashEntry a = trashedFile("a.txt", documents / "a.txt");
    const TavroTrashEntry b = trashedFile("b.txt", documents / "b.txt");
    const TavroTrashEntry taken = trashedFile("taken.txt", documents / "taken.txt");
    const TavroTrashEntry gone = inTrash("gone.txt", documents / "gone.txt");
    addRecord(gone);
    writeFile(documents / "taken.txt", "in the way");
    expectRefused({a, b, taken}, occupied(taken));
    expectRefused({taken, a, b}, occupied(taken));
    expectRefused({a, b, gone}, missing(gone));
    expectRefused({gone, a, b}, missing(gone));
    for (const TavroTrashEntry& entry : {a, b, taken, gone}) {
        EXPECT_TRUE(hasOldDate(entry));
    }
}

TEST_F(RestoreTrashEntries, entries_are_checked_one_after_the_other_and_the_item_first) {
    const TavroTrashEntry taken = trashedFile("taken.txt", documents / "taken.txt");
    const TavroTrashEntry gone = inTrash("gone.txt", documents / "gone.txt");
    const TavroTrashEntry both = inTrash("both.txt", documents / "taken.txt");
    writeFile(documents / "taken.txt", "in the way");
    expectRefused({taken, gone}, occupied(taken));
    expectRefused({gone, taken}, missing(gone));
    expectRefused({both}, missing(both));
}

TEST_F(RestoreTrashEntries, anything_at_the_original_place_is_in_the_way) {
    makeDirectory(documents / "empty");
    makeFifo(documents / "fifo");
    fs::create_symlink("empty", documents / "link");
    for (const char* name : {"empty", "fifo", "link"}) {
        const TavroTrashEntry entry = trashedFile(name, documents / name);
        expectRefused({entry}, occupied(entry));
    }
}

TEST_F(RestoreTrashEntries, a_link_in_the_trash_that_leads_nowhere_counts_as_missing) {
    const TavroTrashEntry entry = inTrash("link", documents / "link");
    fs::create_symlink("/nowhere", entry.TrashPath);
    addRecord(entry);
    expectRefused({entry}, missing(entry));
}

TEST_F(RestoreTrashEntries, an_item_that_cannot_be_examined_counts_as_missing) {
    const TavroTrashEntry loop = inTrash("loop", documents / "loop");
    fs::create_symlink("loop", loop.TrashPath);
    expectRefused({loop}, missing(loop));

    const TavroTrashEntry entry = trashedFile("a.txt", documents / "a.txt");
    fs::permissions(files, fs::perms::none);
    runUnprivileged(sandbox.path(), [&] {
        EXPECT_FALSE(restore({entry}));
        EXPECT_EQ(error, missing(entry));
        EXPECT_FALSE(isPresent(entry.OriginalPath));
        EXPECT_TRUE(hasOldDate(entry));
    });
}

TEST_F(RestoreTrashEntries, a_place_that_cannot_be_examined_counts_as_occupied) {
    fs::create_symlink("loop", documents / "loop");
    const TavroTrashEntry loop = trashedFile("loop", documents / "loop");
    const TavroTrashEntry tooLong = trashedFile("long", documents / std::string(256, 'x'));
    expectRefused({loop}, occupied(loop));
    expectRefused({tooLong}, occupied(tooLong));

    const TavroTrashEntry hidden = trashedFile("a.txt", documents / "closed/a.txt");
    makeDirectory(documents / "closed");
    fs::permissions(documents / "closed", fs::perms::none);
    runUnprivileged(sandbox.path(), [&] {
        EXPECT_FALSE(restore({hidden}));
        EXPECT_EQ(error, occupied(hidden));
        EXPECT_TRUE(isPresent(hidden.TrashPath));
        EXPECT_TRUE(hasOldDate(hidden));
    });
}

TEST_F(RestoreTrashEntries, an_original_path_without_a_parent_is_refused_by_the_move) {
    const ScopedCurrentDirectory here(documents);
    const std::string sentence =
        "Failed to create destination directory: " + systemText(std::errc::invalid_argument);
    expectRefused({trashedFile("a.txt", "")}, sentence);
    expectRefused({trashedFile("b.txt", "bare-name")}, sentence);
}

// -------------------------------------------------------------------------------------------------
// All or nothing
// -------------------------------------------------------------------------------------------------

TEST_F(RestoreTrashEntries, a_failed_restore_puts_the_first_entry_back_with_the_new_time) {
    const TavroTrashEntry first = trashedFile("a.txt", documents / "a.txt");
    const TavroTrashEntry second = stuckFile("b.txt");
    const TavroTrashEntry third = trashedFile("c.txt", documents / "c.txt");
    writeFile(first.InfoPath,
              "[Trash Info]\nPath=/another/path\nDeletionDate=" + oldDate + "\nAnother=key\n");
    Snapshot expected = everything();
    expected["home/.local/share/Trash/info/a.txt.trashinfo"] = recordOf(documents / "a.txt");

    EXPECT_FALSE(restore({first, second, third}));
    EXPECT_EQ(error, stuckSentence());
    EXPECT_EQ(everything(), expected);
    EXPECT_FALSE(hasOldDate(first));
    EXPECT_TRUE(hasOldDate(second));
    EXPECT_TRUE(hasOldDate(third));
}

TEST_F(RestoreTrashEntries, a_failure_of_the_first_entry_touches_nothing) {
    const TavroTrashEntry first = stuckFile("a.txt");
    const TavroTrashEntry second = trashedFile("b.txt", documents / "b.txt");
    expectRefused({first, second}, stuckSentence());
    EXPECT_TRUE(hasOldDate(first));
    EXPECT_TRUE(hasOldDate(second));
}

TEST_F(RestoreTrashEntries, a_failure_of_the_last_entry_puts_all_others_back_below_their_names) {
    makeTree(files / "deep");
    const TavroTrashEntry deep = inTrash("deep", documents / "deep", true);
    addRecord(deep);
    expectRefused({trashedFile("a copy 7.txt", documents / "a.txt"), deep, stuckFile("c.txt")},
                  stuckSentence());
}

TEST_F(RestoreTrashEntries, parents_that_were_created_stay_after_a_failure) {
    const TavroTrashEntry first = trashedFile("a.txt", documents / "new/a.txt");
    const TavroTrashEntry second = stuckFile("b.txt");
    Snapshot expected = everything();
    expected["documents/new"] = "directory 755";
    EXPECT_FALSE(restore({first, second}));
    EXPECT_EQ(everything(), expected);
}

TEST_F(RestoreTrashEntries, the_same_list_can_be_tried_again) {
    const std::vector<TavroTrashEntry> entries = {trashedFile("a.txt", documents / "a.txt"),
                                                  stuckFile("b.txt"),
                                                  trashedFile("c.txt", documents / "c.txt")};
    expectRefused(entries, stuckSentence());
    expectRefused(entries, stuckSentence());
    fs::remove(documents / "blocked");
    EXPECT_TRUE(restore(entries)) << error;
    EXPECT_EQ(readFile(documents / "blocked/b.txt"), "b.txt");
    EXPECT_EQ(takeSnapshot(info).size(), 1U);
    expectRefused(entries, missing(entries[0]));
}

TEST_F(RestoreTrashEntries, a_parent_without_permission_is_a_failure) {
    makeDirectory(documents / "locked");
    fs::permissions(documents / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    const TavroTrashEntry first = trashedFile("a.txt", documents / "a.txt");
    const TavroTrashEntry second = trashedFile("b.txt", documents / "locked/b.txt");
    runUnprivileged(sandbox.path(), [&] {
        expectRefused({first, second},
                      failed("move", second.TrashPath, std::errc::permission_denied));
    });
}

// -------------------------------------------------------------------------------------------------
// Two entries with one place
// -------------------------------------------------------------------------------------------------

TEST_F(RestoreTrashEntries, of_two_files_for_one_place_the_second_replaces_the_first) {
    const TavroTrashEntry first = trashedFile("a.txt", documents / "a.txt");
    const TavroTrashEntry second = trashedFile("a copy 1.txt", documents / "a.txt");
    Snapshot expected = everything();
    takeBack(expected, "a.txt", "a.txt");
    takeBack(expected, "a copy 1.txt", "a.txt");
    EXPECT_TRUE(restore({first, second})) << error;
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(readFile(documents / "a.txt"), "a copy 1.txt");
}

TEST_F(RestoreTrashEntries, of_two_directories_for_one_place_the_second_fails) {
    const TavroTrashEntry first = trashedDirectory("d", documents / "d");
    const TavroTrashEntry second = trashedDirectory("d copy 1", documents / "d");
    expectRefused({first, second},
                  failed("move", second.TrashPath, std::errc::directory_not_empty));
}

TEST_F(RestoreTrashEntries, an_empty_directory_gives_its_place_to_the_second) {
    const TavroTrashEntry first = trashedDirectory("d", documents / "d");
    const TavroTrashEntry second = trashedDirectory("d copy 1", documents / "d");
    fs::remove(fs::path(first.TrashPath) / "inside.txt");
    EXPECT_TRUE(restore({first, second})) << error;
    EXPECT_EQ(readFile(documents / "d/inside.txt"), "d copy 1");
}

TEST_F(RestoreTrashEntries, a_file_and_a_directory_for_one_place_fail) {
    const TavroTrashEntry someFile = trashedFile("f", documents / "place");
    const TavroTrashEntry someDirectory = trashedDirectory("d", documents / "place");
    expectRefused({someFile, someDirectory},
                  failed("move", someDirectory.TrashPath, std::errc::not_a_directory));
    expectRefused({someDirectory, someFile},
                  failed("move", someFile.TrashPath, std::errc::is_a_directory));
}

TEST_F(RestoreTrashEntries, the_first_entry_that_cannot_go_back_to_the_trash_is_told) {
    const std::vector<TavroTrashEntry> entries = {
        trashedFile("x", documents / "x"), trashedFile("x copy 1", documents / "x"),
        trashedFile("y", documents / "y"), trashedFile("y copy 1", documents / "y"),
        stuckFile("z")};
    Snapshot expected = everything();
    for (const char* lost : {"x", "y"}) {
        expected.erase(std::string("home/.local/share/Trash/files/") + lost);
        expected.erase(std::string("home/.local/share/Trash/info/") + lost + ".trashinfo");
    }

    // The second of each two replaced the first, so only one of the two can go back.
    EXPECT_FALSE(restore(entries));
    EXPECT_EQ(error, stuckSentence() + " Rollback failed: " +
                         failed("move", documents / "y", std::errc::no_such_file_or_directory));
    EXPECT_EQ(everything(), expected);
}

// -------------------------------------------------------------------------------------------------
// Redo
// -------------------------------------------------------------------------------------------------

TEST_F(ReapplyTrashEntries, an_empty_list_is_refused) {
    writeFile(documents / "a.txt");
    expectRefused("No restored trash entries are available.");
}

TEST_F(ReapplyTrashEntries, one_list_serves_undo_and_redo_again_and_again) {
    writeFile(documents / "a.txt", "a");
    writeFile(documents / "sub/a.txt", "another");
    makeTree(documents / "tree");
    const Snapshot before = takeSnapshot(documents);
    ASSERT_TRUE(TavroTrashEntries(
        {file(documents / "a.txt"), file(documents / "sub/a.txt"), directory(documents / "tree")},
        trashed, error));
    const std::vector<std::string> list = texts(trashed);
    const Snapshot inTheTrash = everything();
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
        ASSERT_EQ(takeSnapshot(documents), before);
        ASSERT_EQ(takeSnapshot(info).size(), 1U);
        ASSERT_TRUE(reapply()) << error;
        ASSERT_EQ(texts(trashed), list);
        ASSERT_EQ(everything(), inTheTrash);
    }
    EXPECT_EQ(error, "untouched");
}

TEST_F(ReapplyTrashEntries, the_records_are_new_ones) {
    writeFile(documents / "a.txt", "a");
    makeTree(documents / "tree");
    undo({file(documents / "a.txt"), directory(documents / "tree")});
    // Meanwhile something else of the first name went to the trash.
    writeFile(files / "a.txt", "other");
    Snapshot expected = everything();
    addTrashed(expected, "a.txt", "a copy 1.txt");
    addTrashed(expected, "tree", "tree");

    EXPECT_TRUE(reapply()) << error;
    EXPECT_EQ(texts(trashed), texts({inTrash("a copy 1.txt", documents / "a.txt"),
                                     inTrash("tree", documents / "tree", true)}));
    EXPECT_EQ(everything(), expected);
    EXPECT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
    EXPECT_EQ(readFile(documents / "a.txt"), "a");
    EXPECT_EQ(readFile(files / "a.txt"), "other");
}

TEST_F(ReapplyTrashEntries, only_the_original_path_and_the_flag_are_read) {
    writeFile(documents / "a.txt");
    makeTree(documents / "tree");
    TavroTrashEntry a;
    a.OriginalPath = (documents / "a.txt").string();
    TavroTrashEntry tree;
    tree.OriginalPath = (documents / "tree").string();
    tree.bDirectory = true;
    tree.TrashPath = tree.InfoPath = "/nowhere/at/all";
    trashed = {tree, a};
    EXPECT_TRUE(reapply()) << error;
    EXPECT_EQ(texts(trashed), texts({inTrash("tree", documents / "tree", true),
                                     inTrash("a.txt", documents / "a.txt")}));
}

TEST_F(ReapplyTrashEntries, a_failure_keeps_the_list_and_puts_back_what_had_gone) {
    writeFile(documents / "a.txt", "a");
    makeTree(documents / "tree");
    writeFile(documents / "c.txt", "c");
    undo({file(documents / "a.txt"), directory(documents / "tree"), file(documents / "c.txt")});
    for (const char* name : {"c.txt", "a.txt"}) {
        fs::remove(documents / name);
        expectRefused(failed("move", documents / name, std::errc::no_such_file_or_directory));
    }
    writeFile(documents / "a.txt", "a");
    writeFile(documents / "c.txt", "c");
    EXPECT_TRUE(reapply()) << error;
}

TEST_F(ReapplyTrashEntries, a_failure_to_put_back_is_told_and_keeps_the_list) {
    makeDirectory(documents / "folder");
    writeFile(documents / "c.txt", "c");
    fs::create_symlink("folder", documents / "link");
    trashed = {inTrash("old", documents / "link", true), inTrash("gone", documents / "gone")};
    const std::vector<std::string> list = texts(trashed);
    EXPECT_FALSE(reapply());
    EXPECT_EQ(error, failed("move", documents / "gone", std::errc::no_such_file_or_directory) +
                         " Rollback failed: Trash item is missing: " + (files / "link").string());
    EXPECT_EQ(texts(trashed), list);
}

TEST_F(ReapplyTrashEntries, without_a_home_the_list_stays) {
    writeFile(documents / "a.txt");
    undo({file(documents / "a.txt")});
    const ScopedEnvironment unset("HOME", std::nullopt);
    expectRefused("Trash is unavailable because HOME is not set.");
}

TEST_F(ReapplyTrashEntries, the_trash_is_the_one_of_the_home_at_the_time) {
    writeFile(documents / "a.txt");
    undo({file(documents / "a.txt")});
    settle(sandbox / "elsewhere", sandbox.path());
    EXPECT_TRUE(reapply()) << error;
    EXPECT_EQ(texts(trashed), texts({inTrash("a.txt", documents / "a.txt")}));
    EXPECT_TRUE(isPresent(sandbox / "elsewhere/home/.local/share/Trash/files/a.txt"));
}

TEST_F(ReapplyTrashEntries, the_original_path_is_made_canonical_again) {
    writeFile(documents / "sub/a.txt");
    undo({file(documents / "sub/a.txt")});
    fs::rename(documents / "sub", documents / "moved");
    fs::create_directory_symlink("moved", documents / "sub");
    EXPECT_TRUE(reapply()) << error;
    EXPECT_EQ(texts(trashed), texts({inTrash("a.txt", documents / "moved/a.txt")}));
}

TEST_F(ReapplyTrashEntries, an_original_path_with_a_separator_at_the_end_goes_again) {
    makeTree(documents / "tree");
    const Snapshot before = takeSnapshot(documents);
    undo({directory(documents / "tree/")});
    EXPECT_TRUE(reapply()) << error;
    EXPECT_EQ(texts(trashed), texts({inTrash(" copy 1", documents / "tree/", true)}));
    EXPECT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
    EXPECT_EQ(takeSnapshot(documents), before);
}

// -------------------------------------------------------------------------------------------------
// Across file systems
// -------------------------------------------------------------------------------------------------

namespace {

class RestoreTrashEntriesAcrossDevices : public AcrossDevices {
protected:
    /// Two files of one name from two directories, and a tree, all in the trash.
    void trashThree() {
        makeTree(documents / "tree");
        writeFile(documents / "one/a.txt", "1");
        writeFile(documents / "two/a.txt", "2");
        ASSERT_TRUE(TavroTrashEntries({directory(documents / "tree"), file(documents / "one/a.txt"),
                                       file(documents / "two/a.txt")},
                                      trashed, error))
            << error;
    }

    void expectRefused(const std::string& sentence) {
        const Snapshot before = everything();
        EXPECT_FALSE(TavroRestoreTrashEntries(trashed, error));
        EXPECT_EQ(error, sentence);
        EXPECT_EQ(everything(), before);
    }
};

} // namespace

TEST_P(RestoreTrashEntriesAcrossDevices, undo_and_redo_keep_every_byte_mode_and_link) {
    ASSERT_NO_FATAL_FAILURE(trashThree());
    ASSERT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
    const Snapshot restored = everything();
    makeTree(documents / "again/tree");
    EXPECT_EQ(takeSnapshot(documents / "tree"), takeSnapshot(documents / "again/tree"));
    fs::remove_all(documents / "again");
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(TavroReapplyTrashEntries(trashed, error)) << error;
        EXPECT_EQ(takeSnapshot(files).count("a copy 1.txt"), 1U);
        ASSERT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
        EXPECT_EQ(everything(), restored);
    }
    EXPECT_EQ(error, "untouched");
}

TEST_P(RestoreTrashEntriesAcrossDevices, a_failed_restore_copies_the_entries_before_it_back) {
    ASSERT_NO_FATAL_FAILURE(trashThree());
    fs::remove(documents / "two");
    writeFile(documents / "two", "in the way of the folder");
    expectRefused("Failed to create destination directory: " +
                  systemText(std::errc::not_a_directory));
}

TEST_P(RestoreTrashEntriesAcrossDevices, of_two_files_for_one_place_the_second_fails) {
    ASSERT_NO_FATAL_FAILURE(trashThree());
    trashed[2].OriginalPath = trashed[1].OriginalPath;
    const std::string sentence = failed("copy", trashed[2].TrashPath, std::errc::file_exists);
    EXPECT_FALSE(TavroRestoreTrashEntries(trashed, error));
    EXPECT_EQ(error, sentence);
    EXPECT_EQ(readFile(trashed[1].TrashPath), "1");
    EXPECT_EQ(readFile(trashed[2].TrashPath), "2");
    EXPECT_FALSE(isPresent(documents / "one/a.txt"));
}

TEST_P(RestoreTrashEntriesAcrossDevices, a_dangling_link_at_the_original_place_is_in_the_way) {
    ASSERT_NO_FATAL_FAILURE(trashThree());
    fs::create_symlink("/nowhere", documents / "two/a.txt");
    expectRefused(failed("copy", trashed[2].TrashPath, std::errc::file_exists));
}

TEST_P(RestoreTrashEntriesAcrossDevices, a_file_flagged_as_a_directory_goes_into_one_in_its_place) {
    ASSERT_NO_FATAL_FAILURE(trashThree());
    trashed[2].OriginalPath = trashed[0].OriginalPath;
    trashed[2].bDirectory = true;
    EXPECT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
    EXPECT_EQ(readFile(documents / "tree/a copy 1.txt"), "2");
    EXPECT_EQ(readFile(documents / "one/a.txt"), "1");
    EXPECT_TRUE(fs::is_directory(documents / "tree/deep/er")) << "what was there stays";
    EXPECT_TRUE(fs::is_empty(files));
    EXPECT_TRUE(fs::is_empty(info));
}

TEST_P(RestoreTrashEntriesAcrossDevices, two_directories_for_one_place_are_merged) {
    writeFile(documents / "one/a/file", "1");
    writeFile(documents / "two/a", "2");
    ASSERT_TRUE(TavroTrashEntries({directory(documents / "one"), directory(documents / "two")},
                                  trashed, error))
        << error;
    trashed[1].OriginalPath = trashed[0].OriginalPath;
    EXPECT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
    EXPECT_EQ(readFile(documents / "one/a/file"), "1");
    EXPECT_EQ(readFile(documents / "one/a/a"), "2") << "a file that meets a directory goes into it";
    EXPECT_TRUE(fs::is_empty(files));
}

INSTANTIATE_TEST_SUITE_P(BothWays, RestoreTrashEntriesAcrossDevices, testing::Bool(),
                         sideOfTheHome);
