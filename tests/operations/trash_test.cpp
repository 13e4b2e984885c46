// Entries go to the home trash, all or nothing.

#include "home_trash.h"
#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

class TrashEntries : public HomeTrash {
protected:
    bool trash(const std::vector<TavroOperationEntry>& entries) {
        return TavroTrashEntries(entries, trashed, error);
    }

    /// One document, by its name, goes to the trash under another.
    void expectTrashedAs(const std::string& document, const std::string& name) {
        ASSERT_TRUE(trash({file(documents / document)})) << error;
        EXPECT_EQ(texts(trashed), texts({inTrash(name, documents / document)}));
        EXPECT_EQ(everything().count("home/.local/share/Trash/files/" + name), 1U);
    }

    /// The selection is refused with this sentence, and apart from the trash's directories nothing
    /// has changed.
    void expectRefused(const std::vector<TavroOperationEntry>& entries,
                       const std::string& sentence) {
        Snapshot expected = everything();
        addTrashFolders(expected);
        trashed = {inTrash("old", "/old")};
        EXPECT_FALSE(trash(entries));
        EXPECT_EQ(error, sentence);
        EXPECT_EQ(texts(trashed), texts({}));
        EXPECT_EQ(everything(), expected);
    }
};

} // namespace

// -------------------------------------------------------------------------------------------------
// What success looks like
// -------------------------------------------------------------------------------------------------

TEST_F(TrashEntries, a_file_lies_in_the_trash_with_its_record) {
    writeFile(documents / "a.txt", "text");
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "a.txt", "a.txt");

    EXPECT_TRUE(trash({file(documents / "a.txt")}));
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(texts(trashed), texts({inTrash("a.txt", documents / "a.txt")}));
    EXPECT_EQ(error, "untouched");
}

TEST_F(TrashEntries, a_tree_arrives_with_all_that_is_in_it) {
    makeTree(documents / "tree");
    makeFifo(documents / "tree/deep/fifo");
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "tree", "tree");

    EXPECT_TRUE(trash({directory(documents / "tree")}));
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(texts(trashed), texts({inTrash("tree", documents / "tree", true)}));
}

TEST_F(TrashEntries, the_records_of_a_batch_come_in_the_order_of_the_selection) {
    writeFile(documents / "z.txt", "z");
    makeTree(documents / "m");
    makeFifo(documents / "fifo");
    fs::create_symlink("z.txt", documents / "a-link");
    Snapshot expected = everything();
    addTrashFolders(expected);
    for (const char* name : {"z.txt", "m", "fifo", "a-link"}) {
        addTrashed(expected, name, name);
    }
    trashed = {inTrash("old", "/old"), inTrash("older", "/older")};

    EXPECT_TRUE(trash({file(documents / "z.txt"), directory(documents / "m"),
                       file(documents / "fifo"), file(documents / "a-link")}));
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(
        texts(trashed),
        texts({inTrash("z.txt", documents / "z.txt"), inTrash("m", documents / "m", true),
               inTrash("fifo", documents / "fifo"), inTrash("a-link", documents / "a-link")}));
    EXPECT_EQ(error, "untouched");
}

TEST_F(TrashEntries, a_link_goes_itself_and_is_remembered_by_its_own_path) {
    writeFile(documents / "target.txt", "stays");
    makeDirectory(documents / "folder");
    fs::create_symlink(documents / "target.txt", documents / "to-file");
    fs::create_symlink("folder", documents / "to-directory");
    fs::create_symlink("nowhere", documents / "dangling");
    Snapshot expected = everything();
    addTrashFolders(expected);
    for (const char* name : {"to-file", "to-directory", "dangling"}) {
        addTrashed(expected, name, name);
    }

    EXPECT_TRUE(trash({file(documents / "to-file"), directory(documents / "to-directory"),
                       file(documents / "dangling")}));
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(texts(trashed), texts({inTrash("to-file", documents / "to-file"),
                                     inTrash("to-directory", documents / "to-directory", true),
                                     inTrash("dangling", documents / "dangling")}));
}

TEST_F(TrashEntries, the_flag_of_the_selection_is_recorded_and_not_checked) {
    makeTree(documents / "tree");
    writeFile(documents / "a.txt");
    EXPECT_TRUE(trash({file(documents / "tree"), directory(documents / "a.txt")}));
    EXPECT_EQ(texts(trashed), texts({inTrash("tree", documents / "tree", false),
                                     inTrash("a.txt", documents / "a.txt", true)}));
}

TEST_F(TrashEntries, the_name_of_a_selected_entry_plays_no_part) {
    writeFile(documents / "a.txt");
    TavroOperationEntry entry = file(documents / "a.txt");
    entry.Name = "shown as/something else";
    EXPECT_TRUE(trash({entry}));
    EXPECT_EQ(texts(trashed), texts({inTrash("a.txt", documents / "a.txt")}));
}

TEST_F(TrashEntries, one_name_of_a_file_goes_and_its_other_name_stays) {
    writeFile(documents / "a.txt", "shared");
    fs::create_hard_link(documents / "a.txt", documents / "b.txt");
    EXPECT_TRUE(trash({file(documents / "a.txt")}));
    EXPECT_TRUE(fs::equivalent(documents / "b.txt", files / "a.txt"));
}

TEST_F(TrashEntries, every_byte_that_a_name_may_hold_is_kept) {
    std::vector<TavroOperationEntry> entries;
    std::vector<TavroTrashEntry> expectedList;
    Snapshot expected = everything();
    addTrashFolders(expected);
    for (int byte = 1; byte <= 255; ++byte) {
        if (byte == '/') {
            continue;
        }
        const std::string name = std::string("x") + static_cast<char>(byte);
        writeFile(documents / name, std::to_string(byte));
        entries.push_back(file(documents / name));
        expectedList.push_back(inTrash(name, documents / name));
        expected["documents/" + name] = "file 644 " + std::to_string(byte);
        addTrashed(expected, name, name);
    }

    EXPECT_TRUE(trash(entries)) << error;
    EXPECT_EQ(texts(trashed), texts(expectedList));
    EXPECT_EQ(everything(), expected);
}

// -------------------------------------------------------------------------------------------------
// Names in the trash
// -------------------------------------------------------------------------------------------------

TEST_F(TrashEntries, entries_of_one_name_from_many_folders_are_numbered) {
    std::vector<TavroOperationEntry> entries;
    std::vector<TavroTrashEntry> expectedList;
    Snapshot expected = everything();
    addTrashFolders(expected);
    for (int i = 0; i < 12; ++i) {
        const std::string name = "d" + std::to_string(i) + "/x.txt";
        writeFile(documents / name, std::to_string(i));
        entries.push_back(file(documents / name));
        const std::string inFiles = i == 0 ? "x.txt" : "x copy " + std::to_string(i) + ".txt";
        expectedList.push_back(inTrash(inFiles, documents / name));
        expected["documents/d" + std::to_string(i)] = "directory 755";
        expected["documents/" + name] = "file 644 " + std::to_string(i);
        addTrashed(expected, name, inFiles);
    }

    EXPECT_TRUE(trash(entries)) << error;
    EXPECT_EQ(texts(trashed), texts(expectedList));
    EXPECT_EQ(everything(), expected);
}

TEST_F(TrashEntries, the_number_stands_before_the_extension) {
    const std::vector<std::pair<std::string, std::string>> names = {
        {"report.txt", "report copy 1.txt"},
        {"archive.tar.gz", "archive.tar copy 1.gz"},
        {".profile", ".profile copy 1"},
        {".a.conf", ".a copy 1.conf"},
        {"Music", "Music copy 1"},
        {"photos.2020", "photos copy 1.2020"},
        {"ends.", "ends copy 1."},
        {"a copy 1.txt", "a copy 1 copy 1.txt"},
        {"..a", ". copy 1.a"},
        {"...", ".. copy 1."},
        {". ", ".  copy 1"},
        {" .x", "  copy 1.x"},
        {"back\\slash.t", "back\\slash copy 1.t"},
        {"line\nfeed.\n", "line\nfeed copy 1.\n"},
        {"\xC3\xA9\xFF.\xFE", "\xC3\xA9\xFF copy 1.\xFE"},
        {"two  blanks .x y", "two  blanks  copy 1.x y"},
    };
    for (const auto& [name, numbered] : names) {
        writeFile(files / name);
        writeFile(documents / name);
        expectTrashedAs(name, numbered);
    }
}

TEST_F(TrashEntries, a_directory_is_numbered_as_a_file_is) {
    makeDirectory(files / "photos.2020");
    makeTree(documents / "photos.2020");
    ASSERT_TRUE(trash({directory(documents / "photos.2020")})) << error;
    EXPECT_EQ(texts(trashed),
              texts({inTrash("photos copy 1.2020", documents / "photos.2020", true)}));
}

TEST_F(TrashEntries, the_first_gap_in_the_numbers_is_taken) {
    for (const char* taken : {"a.txt", "a copy 1.txt", "a copy 3.txt"}) {
        writeFile(files / taken, taken);
    }
    writeFile(documents / "a.txt");
    expectTrashedAs("a.txt", "a copy 2.txt");
    writeFile(documents / "a.txt");
    expectTrashedAs("a.txt", "a copy 4.txt");
    EXPECT_EQ(readFile(files / "a copy 3.txt"), "a copy 3.txt");
}

TEST_F(TrashEntries, a_dangling_link_in_the_trash_counts_as_free_and_is_replaced_by_a_file) {
    makeTrash();
    fs::create_symlink("/nowhere", files / "a.txt");
    fs::create_symlink("loop", files / "loop");
    writeFile(documents / "a.txt", "new");
    writeFile(documents / "loop", "new");
    expectTrashedAs("a.txt", "a.txt");
    expectTrashedAs("loop", "loop");
    EXPECT_EQ(readFile(files / "a.txt"), "new");
    EXPECT_EQ(readFile(files / "loop"), "new");
}

TEST_F(TrashEntries, a_dangling_link_in_the_trash_is_in_the_way_of_a_directory) {
    makeTrash();
    fs::create_symlink("/nowhere", files / "tree");
    makeTree(documents / "tree");
    expectRefused({directory(documents / "tree")},
                  failed("move", documents / "tree", std::errc::not_a_directory));
}

TEST_F(TrashEntries, a_record_left_over_from_something_else_is_replaced) {
    makeTrash();
    writeFile(info / "a.txt.trashinfo", "left over, and longer than the record that is to come "
                                        "would ever be, because it goes on and on and on and on");
    writeFile(documents / "a.txt", "text");
    Snapshot expected = everything();
    addTrashed(expected, "a.txt", "a.txt");
    EXPECT_TRUE(trash({file(documents / "a.txt")}));
    EXPECT_EQ(everything(), expected);
}

TEST_F(TrashEntries, after_9999_numbers_comes_the_time_free_or_not) {
    const ScopedTimeZone zone("AAA-3:21");
    for (int i = 1; i <= 9998; ++i) {
        writeFile(files / ("a copy " + std::to_string(i) + ".txt"));
    }
    writeFile(files / "a.txt");
    writeFile(documents / "a.txt");
    expectTrashedAs("a.txt", "a copy 9999.txt");

    const auto nameAt = [](std::time_t time) {
        std::tm local = {};
        localtime_r(&time, &local);
        char text[32];
        std::strftime(text, sizeof text, "a copy %Y%m%d-%H%M%S.txt", &local);
        return std::string(text);
    };
    const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::vector<std::string> possible;
    for (std::time_t time = now; time <= now + 60; ++time) {
        possible.push_back((files / nameAt(time)).string());
        writeFile(possible.back(), "taken");
    }
    writeFile(documents / "a.txt", "new");

    ASSERT_TRUE(trash({file(documents / "a.txt")})) << error;
    EXPECT_NE(std::find(possible.begin(), possible.end(), trashed[0].TrashPath), possible.end())
        << trashed[0].TrashPath;
    EXPECT_EQ(readFile(trashed[0].TrashPath), "new");
    EXPECT_EQ(trashed[0].InfoPath,
              (info / fs::path(trashed[0].TrashPath).filename()).string() + ".trashinfo");
    EXPECT_TRUE(isPresent(trashed[0].InfoPath));
}

// -------------------------------------------------------------------------------------------------
// Paths of the selection
// -------------------------------------------------------------------------------------------------

TEST_F(TrashEntries, the_original_path_is_canonical_and_the_name_as_given) {
    writeFile(documents / "sub/a.txt", "a");
    writeFile(documents / "b.txt", "b");
    writeFile(documents / "c.txt", "c");
    fs::create_symlink("sub", documents / "link");
    const ScopedCurrentDirectory here(documents);
    EXPECT_TRUE(trash(
        {file(documents / "link/a.txt"), file(documents / "sub/.././b.txt"), file("sub/../c.txt")}))
        << error;
    EXPECT_EQ(texts(trashed), texts({inTrash("a.txt", documents / "sub/a.txt"),
                                     inTrash("b.txt", documents / "b.txt"),
                                     inTrash("c.txt", documents / "c.txt")}));
    const Snapshot after = everything();
    EXPECT_EQ(after.at("home/.local/share/Trash/info/a.txt.trashinfo"),
              recordOf(documents / "sub/a.txt"));
    EXPECT_EQ(after.at("home/.local/share/Trash/info/c.txt.trashinfo"),
              recordOf(documents / "c.txt"));
}

TEST_F(TrashEntries, a_directory_with_a_separator_at_the_end_has_an_empty_name) {
    makeTree(documents / "tree");
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "tree", " copy 1");
    expected["home/.local/share/Trash/info/ copy 1.trashinfo"] = recordOf(documents / "tree/");

    EXPECT_TRUE(trash({directory(documents / "tree/")})) << error;
    EXPECT_EQ(texts(trashed), texts({inTrash(" copy 1", documents / "tree/", true)}));
    EXPECT_EQ(everything(), expected);
}

TEST_F(TrashEntries, paths_without_a_name_that_can_be_moved_are_refused_as_given) {
    makeTree(documents / "tree");
    writeFile(documents / "a.txt");
    expectRefused({file(documents / "a.txt/")},
                  failed("move", documents / "a.txt/", std::errc::not_a_directory));
    expectRefused({directory(documents / "tree/..")},
                  failed("move", documents / "tree/..", std::errc::device_or_resource_busy));
    expectRefused({directory(documents / "tree/.")},
                  failed("move", documents / "tree/.", std::errc::device_or_resource_busy));
    expectRefused({file("")}, failed("move", "", std::errc::no_such_file_or_directory));
}

// -------------------------------------------------------------------------------------------------
// The home and the trash's directories
// -------------------------------------------------------------------------------------------------

TEST_F(TrashEntries, an_empty_selection_is_the_first_thing_refused) {
    const ScopedEnvironment unset("HOME", std::nullopt);
    const Snapshot before = everything();
    trashed = {inTrash("old", "/old")};
    EXPECT_FALSE(trash({}));
    EXPECT_EQ(error, "Nothing selected to delete.");
    EXPECT_EQ(texts(trashed), texts({inTrash("old", "/old")}));
    EXPECT_EQ(everything(), before);
}

TEST_F(TrashEntries, without_a_home_nothing_moves) {
    writeFile(documents / "a.txt");
    const Snapshot before = everything();
    for (const auto& value : {std::optional<std::string>(), std::optional<std::string>("")}) {
        const ScopedEnvironment without("HOME", value);
        trashed = {inTrash("old", "/old")};
        EXPECT_FALSE(trash({file(documents / "a.txt")}));
        EXPECT_EQ(error, "Trash is unavailable because HOME is not set.");
        EXPECT_EQ(texts(trashed), texts({}));
        EXPECT_EQ(everything(), before);
    }
}

TEST_F(TrashEntries, the_home_is_taken_by_its_canonical_path) {
    fs::create_directory_symlink(home, documents / "link-to-home");
    const ScopedCurrentDirectory here(sandbox.path());
    int number = 0;
    for (const std::string& value :
         {std::string("home"), home.string() + "/", (documents / "link-to-home").string(),
          (home / "../home/.").string(), std::string("documents/../home")}) {
        const ScopedEnvironment environment("HOME", value);
        const std::string name = std::to_string(++number);
        writeFile(documents / name);
        ASSERT_TRUE(trash({file(documents / name)})) << error;
        EXPECT_EQ(texts(trashed), texts({inTrash(name, documents / name)})) << value;
    }
}

TEST_F(TrashEntries, a_home_that_does_not_exist_is_created) {
    fs::remove(home);
    writeFile(documents / "a.txt");
    EXPECT_TRUE(trash({file(documents / "a.txt")})) << error;
    EXPECT_EQ(everything().at("home"), "directory 755");
    EXPECT_TRUE(isPresent(files / "a.txt"));
}

TEST_F(TrashEntries, new_trash_folders_get_the_default_mode) {
    writeFile(documents / "a.txt");
    umask(027);
    EXPECT_TRUE(trash({file(documents / "a.txt")}));
    const Snapshot after = everything();
    for (const char* name :
         {"", "/share", "/share/Trash", "/share/Trash/files", "/share/Trash/info"}) {
        EXPECT_EQ(after.at(std::string("home/.local") + name), "directory 750") << name;
    }
}

TEST_F(TrashEntries, existing_trash_folders_and_their_contents_stay_as_they_are) {
    writeFile(files / "other.txt", "other");
    writeFile(info / "other.txt.trashinfo", "[Trash Info]\nPath=/other\n");
    writeFile(files.parent_path() / "directorysizes", "sizes");
    for (const fs::path& folder : {files, info, files.parent_path()}) {
        fs::permissions(folder, fs::perms::owner_all);
    }
    writeFile(documents / "a.txt");
    Snapshot expected = everything();
    addTrashed(expected, "a.txt", "a.txt");
    EXPECT_TRUE(trash({file(documents / "a.txt")}));
    EXPECT_EQ(everything(), expected);
}

TEST_F(TrashEntries, a_file_in_the_place_of_a_folder_above_the_files_is_a_failure) {
    writeFile(documents / "a.txt");
    for (const fs::path& place :
         {home / ".local", home / ".local/share", home / ".local/share/Trash", files}) {
        writeFile(place, "in the way");
        const Snapshot before = everything();
        trashed = {inTrash("old", "/old")};
        EXPECT_FALSE(trash({file(documents / "a.txt")}));
        EXPECT_EQ(error, "Failed to create trash files directory: " +
                             systemText(std::errc::not_a_directory))
            << place;
        EXPECT_EQ(texts(trashed), texts({}));
        EXPECT_EQ(everything(), before);
        fs::remove(place);
    }
}

TEST_F(TrashEntries, a_file_in_the_place_of_the_info_folder_is_a_failure) {
    writeFile(documents / "a.txt");
    writeFile(info, "in the way");
    Snapshot expected = everything();
    expected["home/.local/share/Trash/files"] = "directory 755";
    EXPECT_FALSE(trash({file(documents / "a.txt")}));
    EXPECT_EQ(error,
              "Failed to create trash info directory: " + systemText(std::errc::not_a_directory));
    EXPECT_EQ(everything(), expected);
}

TEST_F(TrashEntries, a_home_without_permission_is_a_failure) {
    writeFile(documents / "a.txt");
    fs::permissions(home, fs::perms::owner_read | fs::perms::owner_exec);
    runUnprivileged(sandbox.path(), [&] {
        const Snapshot before = everything();
        EXPECT_FALSE(trash({file(documents / "a.txt")}));
        EXPECT_EQ(error, "Failed to create trash files directory: " +
                             systemText(std::errc::permission_denied));
        EXPECT_EQ(everything(), before);
    });
}

TEST_F(TrashEntries, trash_folders_that_are_links_are_used_by_their_names) {
    makeTrash();
    fs::remove(files);
    makeDirectory(documents / "elsewhere");
    fs::create_directory_symlink(documents / "elsewhere", files);
    writeFile(documents / "a.txt", "text");
    EXPECT_TRUE(trash({file(documents / "a.txt")})) << error;
    EXPECT_EQ(texts(trashed), texts({inTrash("a.txt", documents / "a.txt")}));
    EXPECT_EQ(readFile(documents / "elsewhere/a.txt"), "text");
}

// -------------------------------------------------------------------------------------------------
// All or nothing
// -------------------------------------------------------------------------------------------------

TEST_F(TrashEntries, the_first_the_middle_or_the_last_of_three_puts_everything_back) {
    const fs::path gone = documents / "gone";
    writeFile(documents / "a.txt", "a");
    makeTree(documents / "sub/tree");
    const TavroOperationEntry a = file(documents / "a.txt");
    const TavroOperationEntry tree = directory(documents / "sub/tree");
    const std::string sentence = failed("move", gone, std::errc::no_such_file_or_directory);
    expectRefused({file(gone), a, tree}, sentence);
    expectRefused({a, file(gone), tree}, sentence);
    expectRefused({a, tree, directory(gone)}, sentence);
}

TEST_F(TrashEntries, one_entry_selected_twice_stays_in_its_place) {
    writeFile(documents / "a.txt", "a");
    expectRefused({file(documents / "a.txt"), file(documents / "a.txt")},
                  failed("move", documents / "a.txt", std::errc::no_such_file_or_directory));
}

TEST_F(TrashEntries, a_folder_selected_before_what_is_in_it_comes_back_whole) {
    makeTree(documents / "tree");
    expectRefused({directory(documents / "tree"), file(documents / "tree/nothing")},
                  failed("move", documents / "tree/nothing", std::errc::no_such_file_or_directory));
}

TEST_F(TrashEntries, what_is_in_a_folder_may_be_selected_before_the_folder) {
    makeTree(documents / "tree");
    EXPECT_TRUE(trash({file(documents / "tree/nothing"), directory(documents / "tree")})) << error;
    EXPECT_EQ(texts(trashed), texts({inTrash("nothing", documents / "tree/nothing"),
                                     inTrash("tree", documents / "tree", true)}));
}

TEST_F(TrashEntries, entries_in_a_folder_without_permission_are_refused) {
    writeFile(documents / "a.txt");
    writeFile(documents / "locked/b.txt");
    fs::permissions(documents / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    runUnprivileged(sandbox.path(), [&] {
        expectRefused({file(documents / "a.txt"), file(documents / "locked/b.txt")},
                      failed("move", documents / "locked/b.txt", std::errc::permission_denied));
    });
}

TEST_F(TrashEntries, a_record_that_cannot_be_created_brings_its_entry_and_those_before_it_back) {
    makeTree(documents / "tree");
    writeFile(documents / "b.txt", "b");
    writeFile(documents / "c.txt", "c");
    writeFile(info / "b.txt.trashinfo/kept.txt", "in the way");
    makeTrash();
    expectRefused(
        {directory(documents / "tree"), file(documents / "b.txt"), file(documents / "c.txt")},
        noRecord("b.txt"));
}

TEST_F(TrashEntries, an_empty_directory_in_the_place_of_a_record_is_cleaned_away) {
    makeTrash();
    writeFile(documents / "a.txt", "a");
    const Snapshot before = everything();
    makeDirectory(info / "a.txt.trashinfo");
    EXPECT_FALSE(trash({file(documents / "a.txt")}));
    EXPECT_EQ(error, noRecord("a.txt"));
    EXPECT_EQ(everything(), before);
    EXPECT_TRUE(trash({file(documents / "a.txt")}));
}

TEST_F(TrashEntries, an_info_folder_without_permission_brings_everything_back) {
    makeTrash();
    writeFile(documents / "a.txt", "a");
    fs::permissions(info, fs::perms::owner_read | fs::perms::owner_exec);
    runUnprivileged(sandbox.path(), [&] {
        const Snapshot before = everything();
        EXPECT_FALSE(trash({file(documents / "a.txt")}));
        EXPECT_EQ(error, noRecord("a.txt"));
        EXPECT_EQ(everything(), before);
    });
}

TEST_F(TrashEntries, a_link_that_leads_nowhere_from_the_trash_cannot_be_put_back) {
    writeFile(documents / "a.txt", "a");
    writeFile(documents / "b.txt", "b");
    fs::create_symlink("b.txt", documents / "link");
    const fs::path gone = documents / "gone";
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "a.txt", "a.txt");
    addTrashed(expected, "link", "link");

    EXPECT_FALSE(trash({file(documents / "a.txt"), file(documents / "link"), file(gone)}));
    EXPECT_EQ(error, failed("move", gone, std::errc::no_such_file_or_directory) +
                         " Rollback failed: Trash item is missing: " + (files / "link").string());
    EXPECT_EQ(texts(trashed), texts({}));
    EXPECT_EQ(everything(), expected);
}

// -------------------------------------------------------------------------------------------------
// Long names
// -------------------------------------------------------------------------------------------------

TEST_F(TrashEntries, a_name_is_trashed_as_long_as_its_record_has_a_name) {
    // ".trashinfo" takes 10 of the 255 bytes that a name may have.
    const std::string longest(245, 'x');
    writeFile(documents / longest, "text");
    expectTrashedAs(longest, longest);
    for (std::size_t length = 246; length <= 255; ++length) {
        const std::string name(length, 'y');
        writeFile(documents / name, "text");
        expectRefused({file(documents / name)}, noRecord(name));
    }
}

TEST_F(TrashEntries, a_long_name_that_is_taken_leaves_no_room_for_a_number) {
    makeTrash();
    writeFile(documents / "before.txt", "before");
    for (const std::size_t length : {239U, 248U}) {
        const std::string name(length, 'x');
        writeFile(files / name, "taken");
        writeFile(documents / name, "text");
        expectRefused({file(documents / "before.txt"), file(documents / name)},
                      noRecord(name + " copy 1"));
    }
    const std::string name(249, 'x');
    writeFile(files / name, "taken");
    writeFile(documents / name, "text");
    expectRefused({file(documents / "before.txt"), file(documents / name)},
                  failed("move", documents / name, std::errc::filename_too_long));
}

TEST_F(TrashEntries, a_long_name_is_refused_with_the_entries_before_it_back) {
    makeTree(documents / "tree");
    const std::string name(246, 'z');
    makeTree(documents / name);
    expectRefused({directory(documents / "tree"), directory(documents / name)}, noRecord(name));
}

// -------------------------------------------------------------------------------------------------
// The trash itself
// -------------------------------------------------------------------------------------------------

TEST_F(TrashEntries, an_entry_of_the_trash_can_be_trashed_again) {
    writeFile(documents / "a.txt", "text");
    ASSERT_TRUE(trash({file(documents / "a.txt")}));
    Snapshot expected = everything();
    moveRows(expected, "home/.local/share/Trash/files/a.txt",
             "home/.local/share/Trash/files/a copy 1.txt");
    expected["home/.local/share/Trash/info/a copy 1.txt.trashinfo"] = recordOf(files / "a.txt");

    EXPECT_TRUE(trash({file(files / "a.txt")})) << error;
    EXPECT_EQ(texts(trashed), texts({inTrash("a copy 1.txt", files / "a.txt")}));
    EXPECT_EQ(everything(), expected);
}

TEST_F(TrashEntries, the_trash_and_what_holds_it_cannot_be_trashed) {
    makeTrash();
    writeFile(files / "other.txt", "other");
    for (const fs::path& folder : {home, home / ".local", home / ".local/share/Trash", files}) {
        expectRefused({directory(folder)}, failed("move", folder, std::errc::invalid_argument));
    }
    expectRefused({directory(info)}, noRecord("info"));
}

// -------------------------------------------------------------------------------------------------
// Across file systems
// -------------------------------------------------------------------------------------------------

namespace {

class TrashEntriesAcrossDevices : public AcrossDevices {
protected:
    bool trash(const std::vector<TavroOperationEntry>& entries) {
        return TavroTrashEntries(entries, trashed, error);
    }

    /// The move fails with this sentence. The documents are as before, and in the trash's
    /// directories lies nothing but these rows.
    void expectFailed(const TavroOperationEntry& entry, const std::string& sentence,
                      const Snapshot& left = {}) {
        Snapshot expected = everything();
        addTrashFolders(expected);
        expected.insert(left.begin(), left.end());
        EXPECT_FALSE(trash({entry}));
        EXPECT_EQ(error, sentence);
        EXPECT_EQ(texts(trashed), texts({}));
        EXPECT_EQ(everything(), expected);
    }
};

} // namespace

TEST_P(TrashEntriesAcrossDevices, a_file_arrives_with_its_bytes_and_its_mode) {
    writeFile(documents / "a.bin", std::string(300000, '\xFF') + std::string(5, '\0'));
    writeFile(documents / "nothing");
    fs::permissions(documents / "a.bin", fs::perms(0640));
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "a.bin", "a.bin");
    addTrashed(expected, "nothing", "nothing");

    EXPECT_TRUE(trash({file(documents / "a.bin"), file(documents / "nothing")})) << error;
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(texts(trashed), texts({inTrash("a.bin", documents / "a.bin"),
                                     inTrash("nothing", documents / "nothing")}));
    EXPECT_EQ(error, "untouched");
}

TEST_P(TrashEntriesAcrossDevices, a_tree_arrives_with_its_links_and_its_empty_folders) {
    makeTree(documents / "tree");
    makeDirectory(documents / "empty");
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "tree", "tree");
    addTrashed(expected, "empty", "empty");

    EXPECT_TRUE(trash({directory(documents / "tree"), directory(documents / "empty")})) << error;
    EXPECT_EQ(everything(), expected);
}

TEST_P(TrashEntriesAcrossDevices, a_copy_loses_owners_times_and_hard_links) {
    const fs::path tree = documents / "tree";
    writeFile(tree / "one", "text");
    fs::create_hard_link(tree / "one", tree / "two");
    const fs::file_time_type old = fs::last_write_time(tree / "one") - std::chrono::hours(24);
    fs::last_write_time(tree / "one", old);
    fs::last_write_time(tree, old);
    if (isRoot()) {
        ASSERT_EQ(chown((tree / "one").c_str(), 65534, 65534), 0);
    }
    fs::permissions(tree, fs::perms(02777));
    fs::permissions(tree / "one", fs::perms(04776));

    ASSERT_TRUE(trash({directory(tree)})) << error;
    struct stat directory = {};
    struct stat one = {};
    ASSERT_EQ(stat((files / "tree").c_str(), &directory), 0);
    ASSERT_EQ(stat((files / "tree/one").c_str(), &one), 0);
    EXPECT_EQ(directory.st_mode & 07777U, 0755U) << "less the umask and the set-group-ID bit";
    EXPECT_EQ(one.st_mode & 07777U, isRoot() ? 04776U : 0776U);
    EXPECT_EQ(one.st_uid, geteuid());
    EXPECT_EQ(one.st_nlink, 1U);
    EXPECT_GT(fs::last_write_time(files / "tree/one"), old);
    EXPECT_GT(fs::last_write_time(files / "tree"), old);
}

TEST_P(TrashEntriesAcrossDevices, a_link_flagged_as_a_directory_stays_a_link) {
    makeDirectory(documents / "folder");
    fs::create_symlink("folder", documents / "to-directory");
    fs::create_symlink("/nowhere", documents / "dangling");
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "to-directory", "to-directory");
    addTrashed(expected, "dangling", "dangling");

    EXPECT_TRUE(trash({directory(documents / "to-directory"), directory(documents / "dangling")}))
        << error;
    EXPECT_EQ(everything(), expected);
}

TEST_P(TrashEntriesAcrossDevices, a_link_flagged_as_a_file_becomes_what_it_points_to) {
    writeFile(documents / "target.txt", "text");
    fs::create_symlink("target.txt", documents / "link");
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "link", "link");
    expected["home/.local/share/Trash/files/link"] = "file 644 text";

    EXPECT_TRUE(trash({file(documents / "link")})) << error;
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(texts(trashed), texts({inTrash("link", documents / "link")}));
}

TEST_P(TrashEntriesAcrossDevices, a_file_flagged_as_a_directory_arrives) {
    writeFile(documents / "a.txt", "text");
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "a.txt", "a.txt");
    EXPECT_TRUE(trash({directory(documents / "a.txt")})) << error;
    EXPECT_EQ(everything(), expected);
}

TEST_P(TrashEntriesAcrossDevices, what_cannot_be_copied_as_one_file_stays) {
    makeTree(documents / "tree");
    makeFifo(documents / "fifo");
    fs::create_symlink("tree", documents / "to-directory");
    fs::create_symlink("/nowhere", documents / "dangling");
    for (const char* name : {"tree", "fifo", "to-directory"}) {
        expectFailed(file(documents / name),
                     failed("copy", documents / name, std::errc::invalid_argument));
    }
    for (const char* name : {"dangling", "gone"}) {
        expectFailed(file(documents / name),
                     failed("copy", documents / name, std::errc::no_such_file_or_directory));
    }
}

TEST_P(TrashEntriesAcrossDevices, a_partial_copy_of_a_tree_stays_in_the_trash) {
    makeDirectory(documents / "tree");
    makeFifo(documents / "tree/fifo");
    expectFailed(directory(documents / "tree"),
                 failed("copy", documents / "tree", std::errc::invalid_argument),
                 {{"home/.local/share/Trash/files/tree", "directory 755"}});
}

TEST_P(TrashEntriesAcrossDevices, a_dangling_link_in_the_trash_is_in_the_way) {
    makeTrash();
    fs::create_symlink("/nowhere", files / "a.txt");
    writeFile(documents / "a.txt", "text");
    expectFailed(file(documents / "a.txt"),
                 failed("copy", documents / "a.txt", std::errc::file_exists));
}

TEST_P(TrashEntriesAcrossDevices, a_file_that_cannot_be_read_stays) {
    writeFile(documents / "tree/secret");
    fs::permissions(documents / "tree/secret", fs::perms::none);
    fs::permissions(home, fs::perms::all);
    runUnprivileged(documents, [&] {
        fs::permissions(documents / "tree/secret", fs::perms::owner_read);
        Snapshot expected = everything();
        fs::permissions(documents / "tree/secret", fs::perms::none);
        EXPECT_FALSE(trash({directory(documents / "tree")}));
        EXPECT_EQ(error, failed("copy", documents / "tree", std::errc::permission_denied));
        fs::permissions(documents / "tree/secret", fs::perms::owner_read);
        addTrashFolders(expected);
        expected["home/.local/share/Trash/files/tree"] = "directory 755";
        EXPECT_EQ(everything(), expected);
    });
}

TEST_P(TrashEntriesAcrossDevices, a_copy_whose_file_cannot_be_removed_is_discarded) {
    writeFile(documents / "locked/a.txt", "text");
    fs::permissions(documents / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    fs::permissions(home, fs::perms::all);
    runUnprivileged(documents, [&] {
        const fs::path path = documents / "locked/a.txt";
        expectFailed(file(path),
                     "Failed to remove original '" + path.string() +
                         "' after copying: " + systemText(std::errc::permission_denied));
    });
}

TEST_P(TrashEntriesAcrossDevices, a_tree_that_is_removed_in_part_is_not_kept_twice) {
    makeTree(documents / "locked/tree");
    fs::permissions(documents / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    fs::permissions(home, fs::perms::all);
    runUnprivileged(documents, [&] {
        const fs::path path = documents / "locked/tree";
        EXPECT_FALSE(trash({directory(path)}));
        EXPECT_EQ(error, "Failed to remove original '" + path.string() +
                             "' after copying: " + systemText(std::errc::permission_denied));
        Snapshot expected = {{"home", "directory 777"},
                             {"documents", "directory 755"},
                             {"documents/locked", "directory 500"},
                             {"documents/locked/tree", "directory 755"}};
        addTrashFolders(expected);
        EXPECT_EQ(everything(), expected);
    });
}

TEST_P(TrashEntriesAcrossDevices, the_first_two_of_three_come_back_when_the_third_is_missing) {
    writeFile(documents / "a.txt", "a");
    makeTree(documents / "tree");
    Snapshot expected = everything();
    addTrashFolders(expected);
    EXPECT_FALSE(trash(
        {file(documents / "a.txt"), directory(documents / "tree"), file(documents / "gone")}));
    EXPECT_EQ(error, failed("copy", documents / "gone", std::errc::no_such_file_or_directory));
    EXPECT_EQ(texts(trashed), texts({}));
    EXPECT_EQ(everything(), expected);
}

TEST_P(TrashEntriesAcrossDevices, an_entry_without_room_for_its_record_comes_back) {
    const std::string name(250, 'x');
    makeTree(documents / name);
    expectFailed(directory(documents / name), noRecord(name));
}

INSTANTIATE_TEST_SUITE_P(BothWays, TrashEntriesAcrossDevices, testing::Bool(), sideOfTheHome);
