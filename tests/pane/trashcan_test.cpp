// Looking into the home trash, whoever put something there.

#include "trashcan.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "selection.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace std::string_literals;
using namespace tavro_test;

namespace {

std::string inQuotes(const fs::path& path) {
    return "'" + path.string() + "'";
}

/// The text of a moment, so many seconds from now, as a record has it.
std::string dateFromNow(std::time_t seconds) {
    const std::time_t moment = std::time(nullptr) + seconds;
    std::tm fields = {};
    localtime_r(&moment, &fields);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &fields);
    return text;
}

/// A home directory with the empty folders of a trash.
class TrashCan : public testing::Test {
protected:
    TrashCan() : m_home(m_sandbox / "home"), m_environment("HOME", m_home.string()) {
        makeDirectory(root() / "files");
        makeDirectory(root() / "info");
    }

    const fs::path& sandbox() const {
        return m_sandbox.path();
    }
    const fs::path& home() const {
        return m_home;
    }
    fs::path root() const {
        return m_home / ".local/share/Trash";
    }
    fs::path item(const std::string& name) const {
        return root() / "files" / name;
    }
    fs::path record(const std::string& name) const {
        return root() / "info" / (name + ".trashinfo");
    }

    /// Puts a file with a record into the trash.
    void put(const std::string& name, const std::string& recordBytes) const {
        writeFile(item(name), "bytes");
        writeFile(record(name), recordBytes);
        setRecordTime(name, 0);
    }
    /// Makes a record one that was written so many nanoseconds after a certain moment.
    void setRecordTime(const std::string& name, long nanoseconds) const {
        const struct timespec times[2] = {{0, UTIME_OMIT}, {1700000000, nanoseconds}};
        ASSERT_EQ(utimensat(AT_FDCWD, record(name).c_str(), times, 0), 0);
    }
    void put(const std::string& name, const std::string& path, const std::string& date) const {
        put(name, "[Trash Info]\nPath=" + path + "\nDeletionDate=" + date + "\n");
    }

    static std::vector<TavroTrashItem> list(bool bMeasure = false) {
        std::vector<TavroTrashItem> items(2);
        std::string error = "untouched";
        EXPECT_TRUE(TavroListTrash(bMeasure, {}, items, error)) << error;
        EXPECT_EQ(error, "untouched");
        return items;
    }

    static std::vector<std::string> names(const std::vector<TavroTrashItem>& items) {
        std::vector<std::string> result;
        for (const TavroTrashItem& entry : items) {
            result.push_back(entry.Name);
        }
        return result;
    }

    /// The original path that is read from such a record; "none" when its item is not listed.
    std::string pathOf(const std::string& recordBytes) const {
        put("a", recordBytes);
        const auto items = list();
        return items.empty() ? "none" : items[0].OriginalPath;
    }
    std::string dateOf(const std::string& recordBytes) const {
        put("a", recordBytes);
        const auto items = list();
        return items.empty() ? "none" : items[0].DeletionDate;
    }

    /// @return the sentence; empty after success.
    static std::string remove(const std::vector<TavroTrashItem>& items,
                              const std::function<bool()>& shouldCancel = {}) {
        std::string error;
        return TavroRemoveFromTrash(items, shouldCancel, error) ? std::string() : error;
    }
    static TavroTrashItem named(const std::string& name) {
        TavroTrashItem found;
        found.Name = name;
        return found;
    }

    static std::vector<TavroTrashFinding> examine() {
        std::vector<TavroTrashFinding> findings(2);
        std::string error = "untouched";
        EXPECT_TRUE(TavroExamineTrash(findings, error)) << error;
        EXPECT_EQ(error, "untouched");
        return findings;
    }
    /// @return the sentence; empty after success.
    static std::string mend(TavroTrashFault fault, const fs::path& path) {
        std::string error;
        return TavroMendTrash({fault, path, ""}, error) ? std::string() : error;
    }
    /// Examines a trash with one finding and mends that.
    void mendTheOnly(TavroTrashFault fault, const fs::path& path) const {
        const auto findings = examine();
        ASSERT_EQ(findings.size(), 1U);
        EXPECT_EQ(findings[0].Fault, fault);
        EXPECT_EQ(findings[0].Path, path);
        std::string error = "untouched";
        EXPECT_TRUE(TavroMendTrash(findings[0], error)) << error;
        EXPECT_EQ(error, "untouched");
        EXPECT_TRUE(examine().empty());
    }

private:
    Sandbox m_sandbox;
    fs::path m_home;
    ScopedEnvironment m_environment;
};

using ListTrash = TrashCan;
using ReadRecord = TrashCan;
using FindTrashItem = TrashCan;
using RemoveFromTrash = TrashCan;
using ItemsOlderThan = TrashCan;
using ExamineTrash = TrashCan;
using MendTrash = TrashCan;

using Names = std::vector<std::string>;

} // namespace

// -------------------------------------------------------------------------------------------------
// Listing
// -------------------------------------------------------------------------------------------------

TEST_F(ListTrash, tells_all_of_what_was_trashed_here) {
    makeDirectory(sandbox() / "docs/folder");
    writeFile(sandbox() / "docs/folder/1", "12345");
    writeFile(sandbox() / "docs/folder/2", "123");
    std::vector<TavroTrashEntry> trashed;
    std::string error;
    ASSERT_TRUE(TavroTrashSelection({TavroSelectEntry((sandbox() / "docs/folder").string())}, {},
                                    trashed, error))
        << error;
    const auto items = list(true);
    ASSERT_EQ(items.size(), 1U);
    EXPECT_EQ(items[0].Name, "folder");
    EXPECT_EQ(items[0].OriginalPath, (sandbox() / "docs/folder").string());
    EXPECT_EQ(items[0].DeletionDate.size(), 19U);
    EXPECT_LE(items[0].DeletionDate, dateFromNow(0));
    EXPECT_GE(items[0].DeletionDate, dateFromNow(-60));
    EXPECT_EQ(items[0].ByteCount, 8U);
    EXPECT_TRUE(items[0].bDirectory);
    EXPECT_EQ(items[0].Entry.OriginalPath, trashed[0].OriginalPath);
    EXPECT_EQ(items[0].Entry.TrashPath, trashed[0].TrashPath);
    EXPECT_EQ(items[0].Entry.InfoPath, trashed[0].InfoPath);
    EXPECT_TRUE(items[0].Entry.bDirectory);
    EXPECT_TRUE(TavroRestoreSelection({items[0].Entry}, {}, error)) << error;
    EXPECT_EQ(readFile(sandbox() / "docs/folder/1"), "12345");
}

TEST_F(ListTrash, of_a_trash_that_does_not_exist_is_empty) {
    fs::remove_all(home());
    EXPECT_TRUE(list().empty());
}

TEST_F(ListTrash, needs_a_home_directory) {
    const ScopedEnvironment environment("HOME", std::nullopt);
    std::vector<TavroTrashItem> items(1);
    std::string error;
    EXPECT_FALSE(TavroListTrash(false, {}, items, error));
    EXPECT_EQ(error, "Trash is unavailable because HOME is not set.");
    EXPECT_TRUE(items.empty());
}

TEST_F(ListTrash, says_why_the_trash_cannot_be_read) {
    fs::remove_all(root() / "info");
    writeFile(root() / "info");
    std::vector<TavroTrashItem> items;
    std::string error;
    EXPECT_FALSE(TavroListTrash(false, {}, items, error));
    EXPECT_EQ(error, "Failed to read " + inQuotes(root() / "info") + ": " +
                         systemText(std::errc::not_a_directory));
}

TEST_F(ListTrash, is_newest_first_then_by_name_and_what_has_no_date_is_last) {
    put("old", "/old", "2020-01-01T00:00:00");
    put("z", "/z", "2024-03-05T14:07:09");
    put("a", "/a", "2024-03-05T14:07:09");
    put("new", "/new", "2024-03-05T14:07:10");
    put("b", "/b", "yesterday");
    EXPECT_EQ(names(list()), (Names{"new", "a", "z", "old", "b"}));
}

TEST_F(ListTrash, has_the_last_recorded_of_one_second_first) {
    for (const std::string name : {"a", "b", "c"}) {
        put(name, "/docs/name", "2024-03-05T14:07:09");
    }
    setRecordTime("b", 2);
    setRecordTime("c", 1);
    EXPECT_EQ(names(list()), (Names{"b", "c", "a"}));
    std::string error;
    const auto found = TavroFindTrashItem(list(), "name", error);
    ASSERT_TRUE(found) << error;
    EXPECT_EQ(found->Name, "b");
}

TEST_F(ListTrash, counts_what_it_passes_over) {
    put("whole", "/whole", "2024-03-05T14:07:09");
    EXPECT_EQ(TavroCountUnlistedItems(), 0U);
    writeFile(item("no record"));
    put("unreadable", "garbage");
    writeFile(record("no item"), "garbage");
    EXPECT_EQ(TavroCountUnlistedItems(), 2U);
    const ScopedEnvironment environment("HOME", std::nullopt);
    EXPECT_EQ(TavroCountUnlistedItems(), 0U);
}

TEST_F(ListTrash, passes_over_what_lacks_its_record_or_its_item) {
    put("whole", "/whole", "2024-03-05T14:07:09");
    writeFile(item("no record"));
    writeFile(record("no item"), "[Trash Info]\nPath=/no%20item\n");
    writeFile(root() / "info/whole.txt", "[Trash Info]\nPath=/other\n");
    writeFile(root() / "info/trashinfo", "[Trash Info]\nPath=/other\n");
    EXPECT_EQ(names(list()), Names{"whole"});
}

TEST_F(ListTrash, takes_no_record_for_that_of_a_folder_of_the_trash) {
    for (const std::string name : {"", ".", ".."}) {
        writeFile(record(name), "[Trash Info]\nPath=/x\n");
    }
    EXPECT_TRUE(list().empty());
}

TEST_F(ListTrash, has_entries_of_every_type) {
    const std::string info = "[Trash Info]\nPath=/x\n";
    put("file", info);
    for (const std::string name : {"dangling", "fifo", "folder", "to folder"}) {
        writeFile(record(name), info);
        setRecordTime(name, 0);
    }
    fs::create_symlink("nowhere", item("dangling"));
    makeFifo(item("fifo"));
    makeDirectory(item("folder"));
    fs::create_symlink("folder", item("to folder"));
    const auto items = list(true);
    EXPECT_EQ(names(items), (Names{"dangling", "fifo", "file", "folder", "to folder"}));
    ASSERT_EQ(items.size(), 5U);
    std::vector<bool> directories;
    std::vector<bool> flagged;
    for (const TavroTrashItem& found : items) {
        directories.push_back(found.bDirectory);
        flagged.push_back(found.Entry.bDirectory);
    }
    EXPECT_EQ(directories, (std::vector<bool>{false, false, false, true, false}));
    EXPECT_EQ(flagged, (std::vector<bool>{true, false, false, true, true}));
    EXPECT_EQ(items[2].ByteCount, 5U);
    EXPECT_EQ(items[4].ByteCount, 0U);
}

TEST_F(ListTrash, measures_only_when_it_is_told_to) {
    put("a", "/a", "2024-03-05T14:07:09");
    EXPECT_EQ(list(false)[0].ByteCount, 0U);
    EXPECT_EQ(list(true)[0].ByteCount, 5U);
}

TEST_F(ListTrash, that_is_cancelled_is_returned_as_far_as_it_got) {
    put("a", "/a", "2024-03-05T14:07:09");
    put("b", "/b", "2024-03-05T14:07:09");
    put("c", "/c", "2024-03-05T14:07:09");
    std::vector<std::size_t> sizes;
    for (int limit = 0; limit <= 6; ++limit) {
        int asked = 0;
        std::vector<TavroTrashItem> items;
        std::string error;
        EXPECT_TRUE(TavroListTrash(
            true, [&] { return ++asked > limit; }, items, error));
        for (const TavroTrashItem& found : items) {
            EXPECT_EQ(found.ByteCount, 5U);
        }
        sizes.push_back(items.size());
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{0, 0, 1, 1, 2, 2, 3}));
}

// -------------------------------------------------------------------------------------------------
// Reading a record
// -------------------------------------------------------------------------------------------------

TEST_F(ReadRecord, decodes_the_path_with_digits_of_either_case) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/a%20b%c3%A9\nDeletionDate=2024-03-05T14:07:09\n"),
              "/a b\xC3\xA9");
}

TEST_F(ReadRecord, takes_bytes_that_are_not_escaped_as_they_are) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/\xC3\xA9 100%zz \n"), "/\xC3\xA9 100%zz ");
}

TEST_F(ReadRecord, bears_lines_that_end_in_carriage_returns_or_not_at_all) {
    const std::string crlf = "[Trash Info]\r\nPath=/a\r\nDeletionDate=2024-03-05T14:07:09\r\n";
    EXPECT_EQ(pathOf(crlf), "/a");
    EXPECT_EQ(dateOf(crlf), "2024-03-05T14:07:09");
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/a"), "/a");
}

TEST_F(ReadRecord, bears_keys_in_any_order_other_keys_and_blanks) {
    const std::string other = "# by hand\n\n[Trash Info] \nSize=3\nDeletionDate = "
                              "2024-03-05T14:07:09\nPathology=/x\n  Path = /a\nnonsense\n=\n";
    EXPECT_EQ(pathOf(other), "/a");
    EXPECT_EQ(dateOf(other), "2024-03-05T14:07:09");
}

TEST_F(ReadRecord, heeds_only_the_group_of_the_trash) {
    EXPECT_EQ(pathOf("Path=/0\n[Other]\nPath=/1\n[Trash Info]\nPath=/2\n[Third]\nPath=/3\n"), "/2");
    EXPECT_EQ(pathOf("[Trash Info]\n[Other]\nPath=/1\n"), "none");
    EXPECT_EQ(pathOf("[trash info]\nPath=/1\n"), "none");
}

TEST_F(ReadRecord, takes_the_first_of_several_values) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/1\nPath=/2\n"), "/1");
    EXPECT_EQ(dateOf("[Trash Info]\nPath=/1\nDeletionDate=2024-03-05T14:07:09\n"
                     "DeletionDate=2025-03-05T14:07:09\n"),
              "2024-03-05T14:07:09");
}

TEST_F(ReadRecord, takes_a_relative_path_against_the_home_directory) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=docs/a.txt\n"), (home() / "docs/a.txt").string());
}

TEST_F(ReadRecord, drops_separators_at_the_end_of_the_path) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/folder//\n"), "/folder");
}

TEST_F(ReadRecord, is_none_where_there_is_no_path) {
    for (const std::string bytes :
         {"", "[Trash Info]\n", "[Trash Info]\nPath=\n", "[Trash Info]\nPath\n", "Path=/a\n"}) {
        EXPECT_EQ(pathOf(bytes), "none") << bytes;
    }
}

TEST_F(ReadRecord, is_none_where_the_path_holds_a_zero_byte) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/a%00b\n"), "none");
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/a\0b\n"s), "none");
}

TEST_F(ReadRecord, has_no_date_where_none_can_be_read) {
    const std::string begin = "[Trash Info]\nPath=/a\n";
    EXPECT_EQ(dateOf(begin), "");
    for (const std::string date :
         {"", "yesterday", "2024-03-05", "2024-13-05T14:07:09", "2024-03-32T14:07:09",
          "2024-03-05T24:07:09", "2024-03-05T14:60:09", "2024-03-05T14:07:61",
          "2024-00-05T14:07:09", "2024-03-00T14:07:09", "\x1b[2J-03-05T14:07:09",
          "2024/03/05T14:07:09", "+024-03-05T14:07:09"}) {
        EXPECT_EQ(dateOf(begin + "DeletionDate=" + date + "\n"), "") << date;
    }
}

TEST_F(ReadRecord, drops_fractions_and_zones_after_the_date) {
    const std::string begin = "[Trash Info]\nPath=/a\nDeletionDate=";
    EXPECT_EQ(dateOf(begin + "2024-03-05T14:07:09.123456\n"), "2024-03-05T14:07:09");
    EXPECT_EQ(dateOf(begin + "2024-03-05T14:07:09Z\n"), "2024-03-05T14:07:09");
}

TEST_F(ReadRecord, survives_garbage) {
    std::string garbage;
    for (int i = 0; i < 100000; ++i) {
        garbage += static_cast<char>(i * 7919 >> 3);
    }
    EXPECT_EQ(pathOf(garbage), "none");
    EXPECT_EQ(pathOf(std::string(200000, '\n')), "none");
    EXPECT_EQ(pathOf(std::string(200000, '[')), "none");
    EXPECT_EQ(pathOf(std::string(200000, '=')), "none");
}

TEST_F(ReadRecord, stops_after_64_KiB) {
    const std::string filler(65536 - 30, '#');
    const std::string begin = "[Trash Info]\n" + filler + "\n";
    EXPECT_EQ(pathOf(begin + "Path=/a\n" + std::string(100000, '#')), "/a");
    EXPECT_EQ(pathOf(begin + "Path=/" + std::string(100000, 'a')), "none");
    EXPECT_EQ(pathOf(begin + filler + "\nPath=/a\n"), "none");
}

TEST_F(ReadRecord, of_gigabytes_takes_no_time) {
    put("a", "[Trash Info]\nPath=/a\n");
    fs::resize_file(record("a"), 8ULL << 30U);
    const std::clock_t begin = std::clock();
    EXPECT_EQ(list().size(), 1U);
    EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC);
}

TEST_F(ReadRecord, is_none_where_there_is_no_file) {
    writeFile(item("fifo"));
    writeFile(item("folder"));
    writeFile(item("dangling"));
    makeFifo(record("fifo"));
    makeDirectory(record("folder"));
    fs::create_symlink("nowhere", record("dangling"));
    EXPECT_TRUE(list().empty());
}

TEST_F(ReadRecord, is_not_taken_from_a_fifo) {
    const std::string bytes = "[Trash Info]\nPath=/a\n";
    writeFile(item("a"));
    makeFifo(record("a"));
    const int fifo = open(record("a").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fifo, 0);
    ASSERT_EQ(write(fifo, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_TRUE(list().empty());
    char first = 0;
    EXPECT_EQ(read(fifo, &first, 1), 1);
    EXPECT_EQ(first, '[');
    close(fifo);
}

TEST_F(ReadRecord, is_none_where_reading_fails) {
    put("a", "/a", "2024-03-05T14:07:09");
    // The first call reads all there is, the second would find the end.
    const FaultInjector fault({{"read", EIO, "a.trashinfo", 2}});
    EXPECT_TRUE(list().empty());
    EXPECT_EQ(fault.fired(), 1);
}

// -------------------------------------------------------------------------------------------------
// Finding
// -------------------------------------------------------------------------------------------------

namespace {

/// The name of the item that is found; the sentence when there is none.
std::string foundBy(const std::string& text, const std::vector<TavroTrashItem>& items) {
    std::string error;
    const auto found = TavroFindTrashItem(items, text, error);
    EXPECT_NE(found.has_value(), !error.empty());
    return found ? found->Name : error;
}

} // namespace

TEST_F(FindTrashItem, prefers_the_name_in_the_trash) {
    put("a.txt", "/1/b.txt", "2020-01-01T00:00:00");
    put("b.txt", "/1/a.txt", "2024-01-01T00:00:00");
    EXPECT_EQ(foundBy("a.txt", list()), "a.txt");
    EXPECT_EQ(foundBy("/1/a.txt", list()), "b.txt");
}

TEST_F(FindTrashItem, takes_the_newest_from_an_original_path) {
    put("1", "/x/a.txt", "2024-01-01T00:00:00");
    put("2", "/x/a.txt", "2024-01-03T00:00:00");
    put("3", "/x/a.txt", "2024-01-02T00:00:00");
    EXPECT_EQ(foundBy("/x/a.txt", list()), "2");
    EXPECT_EQ(foundBy("a.txt", list()), "2");
}

TEST_F(FindTrashItem, takes_relative_paths_against_the_current_directory) {
    makeDirectory(sandbox() / "docs");
    fs::create_directory_symlink(sandbox() / "docs", sandbox() / "way");
    put("1", (sandbox() / "docs/a.txt").string(), "2024-01-01T00:00:00");
    put("2", "/elsewhere/a.txt", "2024-01-03T00:00:00");
    const ScopedCurrentDirectory there(sandbox() / "docs");
    EXPECT_EQ(foundBy("a.txt", list()), "1");
    EXPECT_EQ(foundBy("./a.txt", list()), "1");
    EXPECT_EQ(foundBy("../docs/a.txt", list()), "1");
    EXPECT_EQ(foundBy("../way/a.txt", list()), "1");
    EXPECT_EQ(foundBy((sandbox() / "docs/a.txt/").string(), list()), "1");
}

TEST_F(FindTrashItem, finds_the_path_that_a_link_was_recorded_by) {
    makeDirectory(sandbox() / "docs");
    fs::create_directory_symlink(sandbox() / "docs", sandbox() / "way");
    put("1", (sandbox() / "way/a.txt").string(), "2024-01-01T00:00:00");
    put("2", (sandbox() / "docs/b.txt").string(), "2024-01-01T00:00:00");
    EXPECT_EQ(foundBy((sandbox() / "way/a.txt").string(), list()), "1");
    EXPECT_EQ(foundBy((sandbox() / "way/./a.txt").string(), list()), "1");
}

TEST_F(FindTrashItem, takes_an_original_name_that_is_the_only_one) {
    put("1", "/x/folder", "2024-01-01T00:00:00");
    put("2", "/x/other", "2024-01-01T00:00:00");
    EXPECT_EQ(foundBy("folder", list()), "1");
    EXPECT_EQ(foundBy("folder/", list()), "1");
}

TEST_F(FindTrashItem, lists_the_places_when_there_are_several) {
    put("1", "/y/a.txt", "2024-01-01T00:00:00");
    put("2", "/x/a.txt", "2024-01-02T00:00:00");
    put("3", "/x/a.txt", "2024-01-03T00:00:00");
    EXPECT_EQ(foundBy("a.txt", list()),
              "Several entries named 'a.txt' are in the trash, from '/x/a.txt', '/y/a.txt'");
}

TEST_F(FindTrashItem, says_that_there_is_none) {
    put("1", "/y/a.txt", "2024-01-01T00:00:00");
    for (const std::string text :
         {"b.txt", "a", "y", "a.txt/a.txt", "x/a.txt", "/a.txt", "", "/"}) {
        EXPECT_EQ(foundBy(text, list()), "'" + text + "' is not in the trash");
    }
}

// -------------------------------------------------------------------------------------------------
// Removing
// -------------------------------------------------------------------------------------------------

TEST_F(RemoveFromTrash, removes_items_with_their_records_and_nothing_else) {
    put("a", "/a", "2024-01-01T00:00:00");
    put("b", "/b", "2024-01-01T00:00:00");
    writeFile(record("folder"), "[Trash Info]\nPath=/folder\n");
    writeFile(item("folder") / "sub/file");
    EXPECT_EQ(remove({named("a"), named("folder")}), "");
    EXPECT_EQ(names(list()), Names{"b"});
    EXPECT_FALSE(isPresent(item("a")) || isPresent(record("a")) || isPresent(item("folder")) ||
                 isPresent(record("folder")));
}

TEST_F(RemoveFromTrash, follows_no_link) {
    writeFile(sandbox() / "precious/file", "precious");
    const Snapshot before = takeSnapshot(sandbox() / "precious");
    fs::create_symlink(sandbox() / "precious", item("to folder"));
    fs::create_symlink(sandbox() / "precious/file", item("to file"));
    makeDirectory(item("folder"));
    fs::create_symlink(sandbox() / "precious", item("folder") / "link");
    fs::create_symlink(sandbox() / "precious/file", record("to file"));
    EXPECT_EQ(remove({named("to folder"), named("to file"), named("folder")}), "");
    EXPECT_EQ(takeSnapshot(sandbox() / "precious"), before);
    EXPECT_TRUE(fs::is_empty(root() / "files"));
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(RemoveFromTrash, removes_read_only_folders) {
    writeFile(item("folder") / "sub/file");
    runUnprivileged(sandbox(), [&] {
        fs::permissions(item("folder") / "sub", fs::perms(0555));
        fs::permissions(item("folder"), fs::perms(0));
        EXPECT_EQ(remove({named("folder")}), "");
        EXPECT_FALSE(isPresent(item("folder")));
    });
}

TEST_F(RemoveFromTrash, never_leaves_the_trash) {
    put("a", "/a", "2024-01-01T00:00:00");
    writeFile(sandbox() / "home/precious", "precious");
    const Snapshot before = takeSnapshot(sandbox());
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string("../files/a"),
          std::string("a/"), (sandbox() / "home/precious").string(),
          std::string("../../../../precious")}) {
        EXPECT_EQ(remove({named(name)}), "'" + name + "' is no name of an entry in the trash");
        EXPECT_EQ(takeSnapshot(sandbox()), before);
    }
    EXPECT_EQ(remove({named("a\0b"s)}), "'a\0b' is no name of an entry in the trash"s);
    EXPECT_EQ(takeSnapshot(sandbox()), before);
}

TEST_F(RemoveFromTrash, trusts_no_path_but_the_name) {
    put("a", "/a", "2024-01-01T00:00:00");
    writeFile(sandbox() / "precious", "precious");
    TavroTrashItem misled = named("a");
    misled.Entry.TrashPath = misled.Entry.InfoPath = (sandbox() / "precious").string();
    misled.OriginalPath = (sandbox() / "precious").string();
    EXPECT_EQ(remove({misled}), "");
    EXPECT_EQ(readFile(sandbox() / "precious"), "precious");
    EXPECT_FALSE(isPresent(item("a")));
}

TEST_F(RemoveFromTrash, counts_what_is_gone_as_removed) {
    writeFile(record("a"), "[Trash Info]\nPath=/a\n");
    EXPECT_EQ(remove({named("a"), named("b")}), "");
    EXPECT_FALSE(isPresent(record("a")));
}

TEST_F(RemoveFromTrash, stops_between_items_when_it_is_cancelled) {
    put("a", "/a", "2024-01-01T00:00:00");
    put("b", "/b", "2024-01-01T00:00:00");
    int asked = 0;
    EXPECT_EQ(remove({named("a"), named("b")}, [&] { return ++asked == 2; }), "Cancelled");
    EXPECT_EQ(names(list()), Names{"b"});
}

TEST_F(RemoveFromTrash, goes_on_after_a_failure_and_tells_the_first) {
    for (const std::string name : {"a", "b", "c"}) {
        put(name, "/" + name, "2024-01-01T00:00:00");
    }
    // The C library is asked for the bare name, relative to a descriptor.
    const FaultInjector fault({{"unlinkat", EIO, "a", 1, true, true},
                               {"remove", EIO, item("a").string(), 1, true, true},
                               {"unlinkat", EPERM, "b", 1, true, true},
                               {"remove", EPERM, item("b").string(), 1, true, true}});
    EXPECT_EQ(remove({named("a"), named("b"), named("c")}),
              "Failed to remove " + inQuotes(item("a")) + ": " + systemText(std::errc::io_error));
    EXPECT_GT(fault.fired(), 1);
    EXPECT_EQ(names(list()), (Names{"a", "b"}));
}

TEST_F(RemoveFromTrash, says_which_record_could_not_be_removed) {
    put("a", "/a", "2024-01-01T00:00:00");
    const FaultInjector fault({{"remove", EACCES, "a.trashinfo"}});
    EXPECT_EQ(remove({named("a")}), "Failed to remove " + inQuotes(record("a")) + ": " +
                                        systemText(std::errc::permission_denied));
    EXPECT_EQ(fault.fired(), 1);
}

TEST_F(RemoveFromTrash, keeps_what_took_the_name_of_a_listed_item) {
    put("a", "/a", "2024-01-01T00:00:00");
    put("b", "/b", "2024-01-01T00:00:00");
    const auto items = list();
    fs::rename(item("a"), home() / "a"); // its inode stays in use
    put("a", "/a", "2024-01-01T00:00:00");
    const Snapshot before = takeSnapshot(item("a"));
    EXPECT_EQ(remove(items), "'a' changed meanwhile and stays");
    EXPECT_EQ(takeSnapshot(item("a")), before);
    EXPECT_EQ(names(list()), Names{"a"});
}

TEST_F(RemoveFromTrash, keeps_an_item_that_was_restored_changed_and_trashed_again) {
    put("a", "/a", "2024-01-01T00:00:00");
    const auto items = list();
    struct stat status = {};
    do { // until the clock of the file system has moved on
        fs::rename(item("a"), home() / "a");
        fs::rename(home() / "a", item("a"));
        ASSERT_EQ(lstat(item("a").c_str(), &status), 0);
    } while (status.st_ctim.tv_sec * 1000000000LL + status.st_ctim.tv_nsec == items[0].ChangeTime);
    EXPECT_EQ(remove(items), "'a' changed meanwhile and stays");
    EXPECT_EQ(names(list()), Names{"a"});
}

TEST_F(RemoveFromTrash, keeps_an_item_whose_record_tells_something_else_now) {
    put("a", "/a", "2024-01-01T00:00:00");
    const auto items = list();
    for (const std::string changed : {"Path=/b\nDeletionDate=2024-01-01T00:00:00\n",
                                      "Path=/a\nDeletionDate=2024-01-01T00:00:01\n"}) {
        writeFile(record("a"), "[Trash Info]\n" + changed);
        EXPECT_EQ(remove(items), "'a' changed meanwhile and stays");
        EXPECT_EQ(names(list()), Names{"a"});
    }
}

TEST_F(RemoveFromTrash, removes_what_was_listed_and_counts_what_is_gone_since) {
    put("a", "/a", "2024-01-01T00:00:00");
    put("b", "/b", "2024-01-01T00:00:00");
    fs::create_symlink("nowhere", item("link"));
    writeFile(record("link"), "[Trash Info]\nPath=/link\n");
    const auto items = list(true);
    ASSERT_EQ(items.size(), 3U);
    fs::remove(item("b"));
    EXPECT_EQ(remove(items), "");
    EXPECT_TRUE(fs::is_empty(root() / "files"));
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(RemoveFromTrash, takes_the_item_before_its_record) {
    put("a", "/a", "2024-01-01T00:00:00");
    bool bItemFirst = false;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "remove" && path == record("a").string()) {
            bItemFirst = !isPresent(item("a"));
        }
    });
    EXPECT_EQ(remove({named("a")}), "");
    EXPECT_TRUE(bItemFirst);
}

TEST_F(RemoveFromTrash, needs_a_home_directory) {
    const ScopedEnvironment environment("HOME", "");
    const ScopedCurrentDirectory there(root());
    put("a", "/a", "2024-01-01T00:00:00");
    EXPECT_EQ(remove({named("a")}), "Trash is unavailable because HOME is not set.");
    EXPECT_TRUE(isPresent(item("a")));
}

// -------------------------------------------------------------------------------------------------
// The age of items
// -------------------------------------------------------------------------------------------------

TEST_F(ItemsOlderThan, counts_days_of_24_hours_in_local_time) {
    for (const std::string zone : {"UTC", "Pacific/Kiritimati", "America/St_Johns"}) {
        const ScopedTimeZone there(zone);
        put("more", "/1", dateFromNow(-3 * 86400 - 60));
        put("less", "/2", dateFromNow(-3 * 86400 + 60));
        put("none", "/3", "");
        put("future", "/4", dateFromNow(86400));
        EXPECT_EQ(names(TavroItemsOlderThan(list(), 3)), Names{"more"}) << zone;
        EXPECT_EQ(names(TavroItemsOlderThan(list(), 0)), (Names{"less", "more"})) << zone;
        EXPECT_TRUE(TavroItemsOlderThan(list(), 4).empty()) << zone;
    }
}

TEST_F(ItemsOlderThan, never_has_an_item_without_a_readable_date) {
    TavroTrashItem unreadable = named("a");
    unreadable.DeletionDate = "once";
    EXPECT_TRUE(TavroItemsOlderThan({unreadable, named("b")}, 0).empty());
}

TEST_F(ItemsOlderThan, bears_any_number_of_days) {
    put("a", "/a", "1970-01-02T00:00:00");
    EXPECT_TRUE(TavroItemsOlderThan(list(), 2147483647).empty());
}

// -------------------------------------------------------------------------------------------------
// Examining
// -------------------------------------------------------------------------------------------------

TEST_F(ExamineTrash, finds_nothing_in_a_sound_trash) {
    put("a", "/a", "2024-01-01T00:00:00");
    fs::create_symlink("nowhere", item("dangling"));
    writeFile(record("dangling"), "[Trash Info]\nPath=/dangling\n");
    writeFile(root() / "info/notes.txt");
    EXPECT_TRUE(examine().empty());
    fs::remove_all(root());
    EXPECT_TRUE(examine().empty());
}

TEST_F(ExamineTrash, finds_what_lacks_its_record_or_its_item_or_cannot_be_read) {
    put("sound", "/a", "2024-01-01T00:00:00");
    writeFile(item("item"));
    fs::create_symlink("nowhere", item("link"));
    put("empty", "");
    writeFile(record("no item"), "[Trash Info]\nPath=/a\n");
    writeFile(record("neither"), "");
    writeFile(record(".."), "[Trash Info]\nPath=/a\n");
    makeFifo(record("fifo"));
    const Snapshot before = takeSnapshot(root());
    std::vector<std::string> details;
    for (const TavroTrashFinding& finding : examine()) {
        details.push_back(finding.Detail);
    }
    const auto unreadable = [&](const std::string& name) {
        return inQuotes(record(name)) + " does not tell where its entry came from";
    };
    const auto vain = [&](const std::string& name) {
        return inQuotes(record(name)) + " is the record of an entry that is not in the trash";
    };
    EXPECT_EQ(details, (Names{inQuotes(item("item")) + " has no record of where it came from",
                              inQuotes(item("link")) + " has no record of where it came from",
                              vain(".."), unreadable("empty"), unreadable("fifo"),
                              unreadable("neither"), vain("no item")}));
    EXPECT_EQ(takeSnapshot(root()), before);
}

TEST_F(ExamineTrash, finds_a_record_that_cannot_be_opened) {
    put("a", "/a", "2024-01-01T00:00:00");
    const FaultInjector fault({{"open", EACCES, "a.trashinfo"}});
    const auto findings = examine();
    EXPECT_EQ(fault.fired(), 1);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].Fault, TavroTrashFault::UnreadableRecord);
    EXPECT_EQ(findings[0].Path, record("a"));
}

TEST_F(ExamineTrash, says_why_the_trash_cannot_be_read) {
    fs::remove(root() / "files");
    writeFile(root() / "files");
    std::vector<TavroTrashFinding> findings;
    std::string error;
    EXPECT_FALSE(TavroExamineTrash(findings, error));
    EXPECT_EQ(error, "Failed to read " + inQuotes(root() / "files") + ": " +
                         systemText(std::errc::not_a_directory));
    const ScopedEnvironment environment("HOME", std::nullopt);
    EXPECT_FALSE(TavroExamineTrash(findings, error));
    EXPECT_EQ(error, "Trash is unavailable because HOME is not set.");
}

// -------------------------------------------------------------------------------------------------
// Mending
// -------------------------------------------------------------------------------------------------

TEST_F(MendTrash, gives_an_item_without_a_record_one_as_of_the_home_directory) {
    writeFile(item("a b"), "bytes");
    mendTheOnly(TavroTrashFault::ItemWithoutRecord, item("a b"));
    const auto items = list();
    ASSERT_EQ(items.size(), 1U);
    EXPECT_EQ(items[0].OriginalPath, (home() / "a b").string());
    EXPECT_GE(items[0].DeletionDate, dateFromNow(-60));
    EXPECT_EQ(readFile(item("a b")), "bytes");
}

TEST_F(MendTrash, gives_a_dangling_link_a_record) {
    fs::create_symlink("nowhere", item("link"));
    mendTheOnly(TavroTrashFault::ItemWithoutRecord, item("link"));
    EXPECT_EQ(list()[0].OriginalPath, (home() / "link").string());
    EXPECT_EQ(fs::read_symlink(item("link")), "nowhere");
}

TEST_F(MendTrash, shortens_a_name_that_leaves_no_room_for_a_record) {
    const std::string name = std::string(251, 'x') + ".txt";
    const std::string shorter = std::string(241, 'x') + ".txt";
    writeFile(item(name), "bytes");
    mendTheOnly(TavroTrashFault::ItemWithoutRecord, item(name));
    EXPECT_EQ(list()[0].Name, shorter);
    EXPECT_EQ(list()[0].OriginalPath, (home() / name).string());
    EXPECT_EQ(readFile(item(shorter)), "bytes");
}

TEST_F(MendTrash, keeps_the_whole_name_when_the_record_cannot_be_written) {
    const std::string name(250, 'x');
    writeFile(item(name), "bytes");
    const FaultInjector fault({{"fopen64", ENOSPC, ".trashinfo"}});
    EXPECT_EQ(mend(TavroTrashFault::ItemWithoutRecord, item(name)),
              "Failed to create trash metadata " + inQuotes(record(std::string(245, 'x'))) + ".");
    EXPECT_EQ(fault.fired(), 1);
    EXPECT_EQ(readFile(item(name)), "bytes");
}

TEST_F(MendTrash, leaves_no_record_that_could_not_be_written_whole) {
    writeFile(item("a"), "bytes");
    const FaultInjector fault(
        {{"write", ENOSPC, ".trashinfo", 1, true}, {"writev", ENOSPC, ".trashinfo", 1, true}});
    EXPECT_EQ(mend(TavroTrashFault::ItemWithoutRecord, item("a")),
              "Failed to write trash metadata " + inQuotes(record("a")) + ".");
    EXPECT_GT(fault.fired(), 0);
    EXPECT_FALSE(isPresent(record("a")));
}

TEST_F(MendTrash, sets_an_unreadable_record_aside) {
    put("a", "garbage");
    writeFile(root() / "info/unreadable record", "of before");
    mendTheOnly(TavroTrashFault::UnreadableRecord, record("a"));
    EXPECT_EQ(readFile(root() / "info/unreadable record copy 1"), "garbage");
    EXPECT_EQ(readFile(root() / "info/unreadable record"), "of before");
    EXPECT_EQ(list()[0].OriginalPath, (home() / "a").string());
    EXPECT_EQ(readFile(item("a")), "bytes");
}

TEST_F(MendTrash, drops_an_unreadable_record_without_an_item) {
    writeFile(record("a"), "");
    mendTheOnly(TavroTrashFault::UnreadableRecord, record("a"));
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(MendTrash, removes_a_record_without_an_item_and_nothing_else) {
    put("sound", "/sound", "2024-01-01T00:00:00");
    for (const std::string name : {"", ".", "..", "a"}) {
        writeFile(record(name), "[Trash Info]\nPath=/a\n");
        mendTheOnly(TavroTrashFault::RecordWithoutItem, record(name));
        EXPECT_FALSE(isPresent(record(name)));
        EXPECT_EQ(readFile(item("sound")), "bytes");
    }
}

TEST_F(MendTrash, changes_nothing_when_the_finding_no_longer_holds) {
    put("a", "/a", "2024-01-01T00:00:00");
    const Snapshot before = takeSnapshot(root());
    EXPECT_EQ(mend(TavroTrashFault::ItemWithoutRecord, item("a")), "");
    EXPECT_EQ(mend(TavroTrashFault::ItemWithoutRecord, item("gone")), "");
    EXPECT_EQ(mend(TavroTrashFault::RecordWithoutItem, record("a")), "");
    EXPECT_EQ(mend(TavroTrashFault::UnreadableRecord, record("a")), "");
    EXPECT_EQ(mend(TavroTrashFault::UnreadableRecord, record("gone")), "");
    EXPECT_EQ(takeSnapshot(root()), before);
}

TEST_F(MendTrash, refuses_paths_outside_the_trash) {
    writeFile(sandbox() / "x.trashinfo");
    writeFile(root() / "info/notes.txt");
    const Snapshot before = takeSnapshot(sandbox());
    const std::vector<std::pair<TavroTrashFault, fs::path>> wrong = {
        {TavroTrashFault::RecordWithoutItem, sandbox() / "x.trashinfo"},
        {TavroTrashFault::UnreadableRecord, root() / "info/notes.txt"},
        {TavroTrashFault::RecordWithoutItem, root() / "files/../../x.trashinfo"},
        {TavroTrashFault::ItemWithoutRecord, item("..")},
        {TavroTrashFault::ItemWithoutRecord, sandbox() / "x.trashinfo"},
    };
    for (const auto& [fault, path] : wrong) {
        EXPECT_EQ(mend(fault, path), inQuotes(path) + " is not in the trash");
    }
    EXPECT_EQ(takeSnapshot(sandbox()), before);
}

TEST_F(MendTrash, does_nothing_without_a_home_directory) {
    const ScopedEnvironment environment("HOME", std::nullopt);
    const ScopedCurrentDirectory there(sandbox());
    writeFile(sandbox() / ".trashinfo");
    EXPECT_EQ(mend(TavroTrashFault::RecordWithoutItem, ".trashinfo"),
              "'.trashinfo' is not in the trash");
    EXPECT_TRUE(isPresent(sandbox() / ".trashinfo"));
}

TEST_F(MendTrash, keeps_a_record_whose_item_cannot_be_looked_for) {
    put("a", "/a", "2024-01-01T00:00:00");
    runUnprivileged(sandbox(), [&] {
        fs::permissions(root() / "files", fs::perms(0));
        EXPECT_EQ(mend(TavroTrashFault::RecordWithoutItem, record("a")),
                  "Failed checking " + inQuotes(item("a")) + ": " +
                      systemText(std::errc::permission_denied));
        EXPECT_TRUE(isPresent(record("a")));
    });
}

TEST_F(MendTrash, says_why_a_record_cannot_be_mended) {
    put("a", "");
    runUnprivileged(sandbox(), [&] {
        fs::permissions(root() / "info", fs::perms(0555));
        EXPECT_EQ(mend(TavroTrashFault::UnreadableRecord, record("a")),
                  "Failed to set " + inQuotes(record("a")) +
                      " aside: " + systemText(std::errc::permission_denied));
    });
}
