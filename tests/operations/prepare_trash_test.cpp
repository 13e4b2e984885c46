// Places in the trash are given out before anything moves.

#include "home_trash.h"
#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

class PrepareTrashEntries : public HomeTrash {
protected:
    bool prepare(const std::vector<TavroOperationEntry>& entries) {
        return TavroPrepareTrashEntries(entries, trashed, error);
    }

    /// Files with these names, each in a directory of its own, none of which is on the disk.
    std::vector<TavroOperationEntry> selection(const std::vector<std::string>& names) const {
        std::vector<TavroOperationEntry> entries;
        for (const std::string& name : names) {
            entries.push_back(file(folder(entries.size()) / name));
        }
        return entries;
    }

    fs::path folder(std::size_t index) const {
        return documents / std::to_string(index);
    }

    /// A selection of these names gets these places in the trash, in this order, and the disk stays
    /// as it is.
    void expectPlaces(const std::vector<std::string>& names,
                      const std::vector<std::string>& places) {
        std::vector<TavroTrashEntry> expectedList;
        for (std::size_t i = 0; i < places.size(); ++i) {
            expectedList.push_back(inTrash(places[i], folder(i) / names[i]));
        }
        Snapshot expected = everything();
        addTrashFolders(expected);
        EXPECT_TRUE(prepare(selection(names))) << error;
        EXPECT_EQ(texts(trashed), texts(expectedList));
        EXPECT_EQ(everything(), expected);
    }

    /// Refused with this sentence; the list is as it was.
    void expectRefused(const std::vector<TavroOperationEntry>& entries,
                       const std::string& sentence) {
        trashed = {inTrash("old", "/old")};
        EXPECT_FALSE(prepare(entries));
        EXPECT_EQ(error, sentence);
        EXPECT_EQ(texts(trashed), texts({inTrash("old", "/old")}));
    }
};

} // namespace

// -------------------------------------------------------------------------------------------------
// Places
// -------------------------------------------------------------------------------------------------

TEST_F(PrepareTrashEntries, every_entry_gets_its_place_and_nothing_moves) {
    writeFile(documents / "a.txt", "a");
    makeTree(documents / "tree");
    Snapshot expected = everything();
    addTrashFolders(expected);
    trashed = {inTrash("old", "/old"), inTrash("older", "/older"), inTrash("oldest", "/oldest")};

    EXPECT_TRUE(prepare({directory(documents / "tree"), file(documents / "a.txt")}));
    EXPECT_EQ(texts(trashed), texts({inTrash("tree", documents / "tree", true),
                                     inTrash("a.txt", documents / "a.txt")}));
    EXPECT_EQ(everything(), expected);
    EXPECT_EQ(error, "untouched");
}

TEST_F(PrepareTrashEntries, entries_of_one_name_get_copy_after_the_whole_name) {
    expectPlaces({"x.txt", "x.txt"}, {"x.txt", "x.txt copy"});
    expectPlaces({"x.txt", "x.txt", "x.txt", "x.txt"},
                 {"x.txt", "x.txt copy", "x.txt copy copy", "x.txt copy copy copy"});
    expectPlaces({".profile", ".profile", "d", "d"}, {".profile", ".profile copy", "d", "d copy"});
}

TEST_F(PrepareTrashEntries, a_name_claimed_for_another_is_not_given_again) {
    expectPlaces({"x.txt", "x.txt", "x.txt copy", "x.txt copy copy"},
                 {"x.txt", "x.txt copy", "x.txt copy copy", "x.txt copy copy copy"});
    expectPlaces({"x.txt copy", "x.txt", "x.txt"}, {"x.txt copy", "x.txt", "x.txt copy copy"});
}

TEST_F(PrepareTrashEntries, names_on_the_disk_are_numbered_before_the_extension) {
    writeFile(files / "x.txt");
    writeFile(files / "x copy 1.txt");
    writeFile(files / "x copy 3.txt");
    expectPlaces({"x.txt"}, {"x copy 2.txt"});
    expectPlaces({"x.txt", "x.txt", "x.txt"},
                 {"x copy 2.txt", "x copy 2.txt copy", "x copy 2.txt copy copy"});
    expectPlaces({"x copy 2.txt", "x.txt"}, {"x copy 2.txt", "x copy 2.txt copy"});
}

TEST_F(PrepareTrashEntries, a_claimed_name_with_copy_may_be_taken_on_the_disk_too) {
    writeFile(files / "x.txt copy");
    expectPlaces({"x.txt", "x.txt", "x.txt"},
                 {"x.txt", "x copy 1.txt copy", "x copy 1.txt copy copy"});
    writeFile(files / "x copy 1.txt copy");
    expectPlaces({"x.txt", "x.txt"}, {"x.txt", "x copy 2.txt copy"});
}

TEST_F(PrepareTrashEntries, a_link_in_the_trash_that_leads_nowhere_counts_as_free) {
    makeTrash();
    fs::create_symlink("/nowhere", files / "x.txt");
    fs::create_symlink("loop", files / "loop");
    expectPlaces({"x.txt", "loop"}, {"x.txt", "loop"});
    writeFile(files / "y.txt");
    fs::create_symlink("/nowhere", files / "y copy 1.txt");
    expectPlaces({"y.txt"}, {"y copy 1.txt"});
}

TEST_F(PrepareTrashEntries, everything_else_in_the_trash_takes_its_name) {
    makeTrash();
    makeDirectory(files / "directory");
    makeFifo(files / "fifo");
    fs::create_symlink("fifo", files / "link");
    fs::create_directory_symlink("directory", files / "link to directory");
    expectPlaces({"directory", "fifo", "link", "link to directory"},
                 {"directory copy 1", "fifo copy 1", "link copy 1", "link to directory copy 1"});
}

TEST_F(PrepareTrashEntries, a_name_that_cannot_be_examined_counts_as_free) {
    writeFile(files / "x.txt");
    runUnprivileged(sandbox.path(), [&] {
        fs::permissions(files, fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_TRUE(prepare(selection({"x.txt"}))) << error;
        EXPECT_EQ(trashed.at(0).TrashPath, (files / "x.txt").string());
    });
}

TEST_F(PrepareTrashEntries, every_byte_that_a_name_may_hold_is_kept) {
    std::vector<std::string> names;
    for (int byte = 1; byte <= 255; ++byte) {
        if (byte != '/') {
            names.push_back(std::string("x") + static_cast<char>(byte));
        }
    }
    expectPlaces(names, names);
}

TEST_F(PrepareTrashEntries, a_record_on_the_disk_does_not_take_a_name) {
    makeTrash();
    writeFile(info / "x.txt.trashinfo", "left over");
    expectPlaces({"x.txt"}, {"x.txt"});
}

TEST_F(PrepareTrashEntries, twice_without_a_move_between_gives_the_same) {
    writeFile(files / "x.txt");
    const std::vector<TavroOperationEntry> entries = selection({"x.txt", "x.txt", "y", "x.txt"});
    ASSERT_TRUE(prepare(entries));
    const std::vector<std::string> first = texts(trashed);
    ASSERT_TRUE(prepare(entries));
    EXPECT_EQ(texts(trashed), first);
}

TEST_F(PrepareTrashEntries, the_original_path_is_canonical_and_the_name_as_given) {
    writeFile(documents / "sub/a.txt");
    writeFile(documents / "b.txt");
    fs::create_directory_symlink("sub", documents / "link");
    fs::create_symlink("b.txt", documents / "to-b");
    const ScopedCurrentDirectory here(documents);
    ASSERT_TRUE(prepare({file(documents / "link/a.txt"), file("sub/../b.txt"),
                         file(documents / "gone/../new.txt"), file(documents / "to-b"),
                         directory(documents / "sub/.."), directory(documents / "sub/."),
                         directory(documents / "sub/"), directory(documents / "sub/")}));
    EXPECT_EQ(
        texts(trashed),
        texts({inTrash("a.txt", documents / "sub/a.txt"), inTrash("b.txt", documents / "b.txt"),
               inTrash("new.txt", documents / "new.txt"), inTrash("to-b", documents / "b.txt"),
               inTrash(".. copy 1", documents, true), inTrash(". copy 1", documents / "sub", true),
               inTrash(" copy 1", documents / "sub", true),
               inTrash(" copy 1 copy", documents / "sub", true)}));
}

TEST_F(PrepareTrashEntries, the_name_of_a_selected_entry_plays_no_part) {
    TavroOperationEntry entry = file(documents / "a.txt");
    entry.Name = "something else";
    EXPECT_TRUE(prepare({entry}));
    EXPECT_EQ(texts(trashed), texts({inTrash("a.txt", documents / "a.txt")}));
}

// -------------------------------------------------------------------------------------------------
// The same by a search through the list
// -------------------------------------------------------------------------------------------------

namespace {

/// The free name for a wanted one, told by the rule for names in the trash alone.
std::string freeName(const fs::path& files, const std::string& name) {
    std::error_code ec;
    if (!fs::exists(files / name, ec)) {
        return name;
    }
    std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0 || name == "..") {
        dot = name.size();
    }
    for (int i = 1;; ++i) {
        const std::string numbered =
            name.substr(0, dot) + " copy " + std::to_string(i) + name.substr(dot);
        if (!fs::exists(files / numbered, ec)) {
            return numbered;
        }
    }
}

bool contains(const std::vector<std::string>& names, const std::string& wanted) {
    for (const std::string& name : names) {
        if (name == wanted) {
            return true;
        }
    }
    return false;
}

/// The names that a selection gets: each is searched for among all that were given out before.
std::vector<std::string> placesBySearch(const fs::path& files,
                                        const std::vector<std::string>& selected) {
    std::vector<std::string> places;
    for (const std::string& name : selected) {
        std::string place = freeName(files, name);
        while (contains(places, place)) {
            place = freeName(files, place + " copy");
        }
        places.push_back(place);
    }
    return places;
}

/// Some of the names, any number of times each.
template <typename Random>
std::vector<std::string> drawn(Random& random, const std::vector<std::string>& names,
                               std::size_t count) {
    std::vector<std::string> result;
    for (std::size_t i = 0; i < count; ++i) {
        result.push_back(names[random() % names.size()]);
    }
    return result;
}

} // namespace

TEST_F(PrepareTrashEntries, random_selections_get_what_a_search_through_the_list_gives) {
    constexpr std::mt19937::result_type seed = 20240305;
    RecordProperty("seed", std::to_string(seed));
    std::mt19937 random(seed);
    const std::vector<std::string> names = {"x.txt",
                                            "x.txt copy",
                                            "x copy 1.txt",
                                            "x copy 1.txt copy",
                                            "x.txt copy copy",
                                            "x copy 2.txt",
                                            "x.txt copy 1",
                                            "x copy 1.txt copy copy",
                                            "a",
                                            "a copy",
                                            "a copy 1",
                                            ".profile",
                                            ".profile copy",
                                            ".profile copy 1",
                                            "b.tar.gz",
                                            "..",
                                            "b.tar copy 1.gz",
                                            "\xFF.\xFE",
                                            "e.",
                                            "e copy 1."};
    makeTrash();
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
        for (const std::string& name : drawn(random, names, random() % 12)) {
            if (name != "..") {
                writeFile(files / name);
            }
        }
        const std::vector<std::string> selected = drawn(random, names, 1 + random() % 30);
        std::vector<TavroOperationEntry> entries;
        for (const std::string& name : selected) {
            entries.push_back({name, (documents / name).string(), random() % 2 == 0});
        }
        const std::vector<std::string> places = placesBySearch(files, selected);
        std::vector<TavroTrashEntry> expected;
        for (std::size_t i = 0; i < selected.size(); ++i) {
            const fs::path original =
                selected[i] == ".." ? documents.parent_path() : documents / selected[i];
            expected.push_back(inTrash(places[i], original, entries[i].bDirectory));
        }

        ASSERT_TRUE(prepare(entries)) << error;
        ASSERT_EQ(texts(trashed), texts(expected));
        fs::remove_all(files);
        makeDirectory(files);
    }
}

// -------------------------------------------------------------------------------------------------
// What is refused
// -------------------------------------------------------------------------------------------------

TEST_F(PrepareTrashEntries, an_empty_selection_is_the_first_thing_refused) {
    const ScopedEnvironment unset("HOME", std::nullopt);
    const Snapshot before = everything();
    expectRefused({}, "Nothing selected to delete.");
    EXPECT_EQ(everything(), before);
}

TEST_F(PrepareTrashEntries, without_a_home_there_is_no_place) {
    const Snapshot before = everything();
    for (const auto& value : {std::optional<std::string>(), std::optional<std::string>("")}) {
        const ScopedEnvironment without("HOME", value);
        expectRefused({file("/x")}, "Trash is unavailable because HOME is not set.");
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(PrepareTrashEntries, a_file_in_the_place_of_a_folder_above_the_files_is_a_failure) {
    for (const fs::path& place :
         {home / ".local", home / ".local/share", home / ".local/share/Trash", files}) {
        writeFile(place, "in the way");
        const Snapshot before = everything();
        expectRefused({file("/x")}, "Failed to create trash files directory: " +
                                        systemText(std::errc::not_a_directory));
        EXPECT_EQ(everything(), before);
        fs::remove(place);
    }
}

TEST_F(PrepareTrashEntries, a_files_folder_that_was_created_stays_when_the_info_folder_fails) {
    writeFile(info, "in the way");
    Snapshot expected = everything();
    expected["home/.local/share/Trash/files"] = "directory 755";
    expectRefused({file("/x")}, "Failed to create trash info directory: " +
                                    systemText(std::errc::not_a_directory));
    EXPECT_EQ(everything(), expected);
}

// -------------------------------------------------------------------------------------------------
// Both phases
// -------------------------------------------------------------------------------------------------

TEST_F(PrepareTrashEntries, prepared_moved_recorded_and_restored) {
    writeFile(documents / "1/x.txt", "1");
    writeFile(documents / "2/x.txt", "2");
    writeFile(documents / "3/x.txt", "3");
    makeTree(documents / "tree");
    const Snapshot before = takeSnapshot(documents);
    Snapshot expected = everything();
    addTrashFolders(expected);
    addTrashed(expected, "1/x.txt", "x.txt");
    addTrashed(expected, "tree", "tree");
    addTrashed(expected, "2/x.txt", "x.txt copy");
    addTrashed(expected, "3/x.txt", "x.txt copy copy");

    ASSERT_TRUE(prepare({file(documents / "1/x.txt"), directory(documents / "tree"),
                         file(documents / "2/x.txt"), file(documents / "3/x.txt")}))
        << error;
    for (const TavroTrashEntry& entry : trashed) {
        fs::rename(entry.OriginalPath, entry.TrashPath);
    }
    ASSERT_TRUE(TavroWriteTrashInfoEntries(trashed, error)) << error;
    EXPECT_EQ(everything(), expected);

    ASSERT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
    EXPECT_EQ(takeSnapshot(documents), before);
    EXPECT_EQ(takeSnapshot(info).size(), 1U);
    ASSERT_TRUE(TavroReapplyTrashEntries(trashed, error)) << error;
    EXPECT_EQ(trashed[2].TrashPath, (files / "x copy 1.txt").string());
}

TEST_F(PrepareTrashEntries, prepared_and_dropped_leaves_only_the_trash_folders) {
    writeFile(documents / "a.txt", "a");
    writeFile(documents / "b.txt", "b");
    Snapshot expected = everything();
    addTrashFolders(expected);
    ASSERT_TRUE(prepare({file(documents / "a.txt"), file(documents / "b.txt")}));
    for (const TavroTrashEntry& entry : trashed) {
        fs::rename(entry.OriginalPath, entry.TrashPath);
    }
    ASSERT_TRUE(TavroWriteTrashInfoEntries(trashed, error)) << error;
    for (const TavroTrashEntry& entry : trashed) {
        fs::rename(entry.TrashPath, entry.OriginalPath);
    }
    TavroRemoveTrashInfoEntries(trashed);
    EXPECT_EQ(everything(), expected);
    TavroRemoveTrashInfoEntries(trashed);
    EXPECT_EQ(everything(), expected);
}
