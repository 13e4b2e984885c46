// Looking into the home trash, whoever put something there.

#include "choice.h"
#include "trash_contents.h"

#include "trash_fixture.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>

using namespace std::string_literals;
using namespace tavro_trash_test;

namespace {

/// The text of a moment, so many seconds from now, as a record has it.
std::string dateFromNow(std::time_t seconds) {
    const std::time_t moment = std::time(nullptr) + seconds;
    std::tm fields = {};
    localtime_r(&moment, &fields);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &fields);
    return text;
}

/// The empty directories of a trash.
class TrashContents : public HomeWithTrash {
protected:
    TrashContents() {
        makeDirectory(root() / "files");
        makeDirectory(root() / "info");
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
        EXPECT_EQ(TavroDescribe(TavroListTrash({}, items)), "");
        EXPECT_FALSE(bMeasure && TavroMeasureItems(items, {}, false));
        return items;
    }
    static std::vector<std::string> names(const std::vector<TavroTrashItem>& items) {
        std::vector<std::string> result;
        for (const TavroTrashItem& entry : items) {
            result.push_back(entry.Name);
        }
        return result;
    }
    static std::vector<TavroTrashItem> olderThan(int days, std::vector<TavroTrashItem> items) {
        TavroChoice choice;
        choice.OlderThanDays = days;
        EXPECT_TRUE(TavroChooseItems(choice, items).empty());
        return items;
    }
    static TavroTrashItem named(const std::string& name) {
        TavroTrashItem found;
        found.Name = name;
        found.Folders = std::make_shared<const TavroTrashFolders>(TavroFindTrashFolders());
        return found;
    }

    /// The name of the item that is found; the sentence when there is none.
    static std::string foundBy(TavroTrashIndex& index, const std::string& text) {
        TavroTrashItem found;
        const TavroFailure failure = index.Find(text, found);
        return failure ? TavroDescribe(failure) : found.Name;
    }
    static std::string foundBy(const std::string& text) {
        TavroTrashIndex index;
        return foundBy(index, text);
    }

    /// @return the sentence; empty after success.
    static std::string remove(const std::vector<TavroTrashItem>& items,
                              const std::function<bool()>& shouldCancel = {}) {
        return TavroDescribe(TavroRemoveFromTrash(items, {{}, shouldCancel}));
    }
    static std::string empty(const std::function<bool()>& shouldCancel = {}) {
        return TavroDescribe(TavroEmptyTrash({{}, shouldCancel}));
    }

    static std::vector<TavroTrashFinding> examine() {
        std::vector<TavroTrashFinding> findings(2);
        EXPECT_EQ(TavroDescribe(TavroExamineTrash(findings)), "");
        return findings;
    }
    static std::string mend(TavroTrashFault fault, const fs::path& path) {
        return TavroDescribe(TavroMendTrash({fault, path.string()}));
    }
    /// Examines a trash with one finding and mends that.
    void mendTheOnly(TavroTrashFault fault, const fs::path& path) const {
        const auto findings = examine();
        ASSERT_EQ(findings.size(), 1U);
        EXPECT_EQ(findings[0].Fault, fault);
        EXPECT_EQ(findings[0].Path, path.string());
        EXPECT_EQ(TavroDescribe(TavroMendTrash(findings[0])), "");
        EXPECT_TRUE(examine().empty());
    }
};

using ListTrash = TrashContents;
using FindTrashItem = TrashContents;
using RemoveFromTrash = TrashContents;
using EmptyTrash = TrashContents;
using ItemsOlderThan = TrashContents;
using ExamineTrash = TrashContents;
using MendTrash = TrashContents;

using Names = std::vector<std::string>;

} // namespace

// -------------------------------------------------------------------------------------------------
// Listing
// -------------------------------------------------------------------------------------------------

TEST_F(ListTrash, tells_all_of_what_was_trashed_here) {
    doc("directory/1", "12345");
    doc("directory/2", "123");
    const auto trashed = trash({docs() / "directory"});
    const auto items = list(true);
    ASSERT_EQ(items.size(), 1U);
    EXPECT_EQ(items[0].Name, "directory");
    EXPECT_EQ(items[0].OriginalPath, (docs() / "directory").string());
    EXPECT_EQ(items[0].DeletionDate.size(), 19U);
    EXPECT_LE(items[0].DeletionDate, dateFromNow(0));
    EXPECT_GE(items[0].DeletionDate, dateFromNow(-60));
    EXPECT_EQ(items[0].ByteCount, 8U);
    EXPECT_TRUE(items[0].bDirectory);
    const TavroTrashedEntry entry = items[0].Trashed();
    EXPECT_EQ(entry.Item, trashed[0].Item);
    EXPECT_EQ(entry.Entry.OriginalPath, trashed[0].Entry.OriginalPath);
    EXPECT_EQ(entry.Entry.TrashPath, trashed[0].Entry.TrashPath);
    EXPECT_EQ(entry.Entry.InfoPath, trashed[0].Entry.InfoPath);
    EXPECT_TRUE(entry.Entry.bDirectory);
    restore({entry});
    EXPECT_EQ(readFile(docs() / "directory/1"), "12345");
}

TEST_F(ListTrash, of_a_trash_that_does_not_exist_is_empty) {
    fs::remove_all(home());
    EXPECT_TRUE(list().empty());
}

TEST_F(ListTrash, needs_a_home_directory) {
    const ScopedEnvironment environment("HOME", std::nullopt);
    std::vector<TavroTrashItem> items(1);
    EXPECT_EQ(TavroDescribe(TavroListTrash({}, items)),
              "There is no trash: HOME is not set to an absolute path");
    EXPECT_TRUE(items.empty());
}

TEST_F(ListTrash, says_why_the_trash_cannot_be_read) {
    std::vector<TavroTrashItem> items;
    const std::string sentence = "Cannot read " + inQuotes(root() / "info") + ": ";
    fs::remove(root() / "info");
    writeFile(root() / "info");
    EXPECT_EQ(TavroDescribe(TavroListTrash({}, items)),
              sentence + systemText(std::errc::not_a_directory));
    fs::remove(root() / "info");
    makeDirectory(root() / "info");
    runUnprivileged(sandbox(), [&] {
        fs::permissions(root() / "info", fs::perms(0300));
        EXPECT_EQ(TavroDescribe(TavroListTrash({}, items)),
                  sentence + systemText(std::errc::permission_denied));
    });
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
    EXPECT_EQ(foundBy("name"), "b");
}

TEST_F(ListTrash, leaves_out_what_can_be_counted) {
    put("whole", "/whole", "2024-03-05T14:07:09");
    EXPECT_EQ(TavroCountUnlistedItems(list()), 0U);
    writeFile(item("no record"));
    put("unreadable", "garbage");
    writeFile(record("no item"), "garbage");
    EXPECT_EQ(TavroCountUnlistedItems(list()), 2U);
    const ScopedEnvironment environment("HOME", std::nullopt);
    EXPECT_EQ(TavroCountUnlistedItems({}), 0U);
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
    for (const std::string name : {"dangling", "fifo", "directory", "to directory"}) {
        writeFile(record(name), info);
        setRecordTime(name, 0);
    }
    fs::create_symlink("nowhere", item("dangling"));
    makeFifo(item("fifo"));
    makeDirectory(item("directory"));
    fs::create_symlink("directory", item("to directory"));
    const auto items = list(true);
    EXPECT_EQ(names(items), (Names{"dangling", "directory", "fifo", "file", "to directory"}));
    ASSERT_EQ(items.size(), 5U);
    std::vector<bool> directories;
    std::vector<bool> flagged;
    for (const TavroTrashItem& found : items) {
        directories.push_back(found.bDirectory);
        flagged.push_back(found.Trashed().Entry.bDirectory);
    }
    EXPECT_EQ(directories, (std::vector<bool>{false, true, false, false, false}));
    EXPECT_EQ(flagged, (std::vector<bool>{true, true, false, false, true}));
    EXPECT_EQ(items[3].ByteCount, 5U);
    EXPECT_EQ(items[4].ByteCount, 0U);
}

TEST_F(ListTrash, that_is_cancelled_is_returned_as_far_as_it_got) {
    for (const std::string name : {"a", "b"}) {
        writeFile(item(name) / "1", "12345");
        writeFile(record(name), "[Trash Info]\nPath=/" + name + "\n");
    }
    std::vector<std::size_t> listed;
    std::vector<std::size_t> measured;
    for (int limit = 0; limit <= 4; ++limit) {
        int asked = 0;
        const auto isEnough = [&] { return ++asked > limit; };
        std::vector<TavroTrashItem> items;
        EXPECT_EQ(TavroListTrash(isEnough, items).Kind == TavroFailureKind::Cancelled, limit < 2);
        listed.push_back(items.size());
        items = list();
        asked = 0;
        EXPECT_EQ(TavroMeasureItems(items, isEnough, false).Kind == TavroFailureKind::Cancelled,
                  limit < 4);
        for (const TavroTrashItem& found : items) {
            EXPECT_EQ(found.ByteCount, 5U);
        }
        measured.push_back(items.size());
    }
    EXPECT_EQ(listed, (std::vector<std::size_t>{0, 1, 2, 2, 2}));
    EXPECT_EQ(measured, (std::vector<std::size_t>{0, 0, 1, 1, 2}));
}

TEST_F(ListTrash, costs_five_calls_an_item) {
    const auto callsFor = [&](int count) {
        for (int i = 0; i < count; ++i) {
            put(std::to_string(i), "/x", "2024-03-05T14:07:09");
        }
        CallCounts counts;
        EXPECT_EQ(list(true).size(), static_cast<std::size_t>(count));
        return counts.all();
    };
    const int few = callsFor(20);
    // The item is looked at; its record is opened, looked at, read and closed.
    EXPECT_EQ(callsFor(120) - few, 100 * 5);
}

// -------------------------------------------------------------------------------------------------
// Finding
// -------------------------------------------------------------------------------------------------

TEST_F(FindTrashItem, prefers_the_name_in_the_trash) {
    put("a.txt", "/1/b.txt", "2020-01-01T00:00:00");
    put("b.txt", "/1/a.txt", "2024-01-01T00:00:00");
    EXPECT_EQ(foundBy("a.txt"), "a.txt");
    EXPECT_EQ(foundBy("/1/a.txt"), "b.txt");
}

TEST_F(FindTrashItem, takes_the_newest_of_several_trashes_that_have_the_name_from_one_place) {
    TavroTrashFolders other = TavroFindTrashFolders();
    put("a", "/docs/a", "2024-01-01T00:00:00");
    fs::rename(root(), home() / "old");
    other.Files = home() / "old/files";
    other.Info = home() / "old/info";
    put("a", "/docs/a", "2024-01-02T00:00:00");
    TavroTrashIndex index({TavroFindTrashFolders(), other});
    TavroTrashItem found;
    ASSERT_FALSE(index.Find("a", found));
    EXPECT_EQ(found.DeletionDate, "2024-01-02T00:00:00");
}

TEST_F(FindTrashItem, takes_the_newest_from_an_original_path) {
    put("1", "/x/a.txt", "2024-01-01T00:00:00");
    put("2", "/x/a.txt", "2024-01-03T00:00:00");
    put("3", "/x/a.txt", "2024-01-02T00:00:00");
    EXPECT_EQ(foundBy("/x/a.txt"), "2");
    EXPECT_EQ(foundBy("a.txt"), "2");
}

TEST_F(FindTrashItem, takes_relative_paths_against_the_current_directory) {
    makeDirectory(sandbox() / "docs");
    fs::create_directory_symlink(sandbox() / "docs", sandbox() / "way");
    put("1", (sandbox() / "docs/a.txt").string(), "2024-01-01T00:00:00");
    put("2", "/elsewhere/a.txt", "2024-01-03T00:00:00");
    const ScopedCurrentDirectory there(sandbox() / "docs");
    EXPECT_EQ(foundBy("a.txt"), "1");
    EXPECT_EQ(foundBy("./a.txt"), "1");
    EXPECT_EQ(foundBy("../docs/a.txt"), "1");
    EXPECT_EQ(foundBy("../way/a.txt"), "1");
    EXPECT_EQ(foundBy((sandbox() / "docs/a.txt/").string()), "1");
}

TEST_F(FindTrashItem, finds_the_path_that_a_link_was_recorded_by) {
    makeDirectory(sandbox() / "docs");
    fs::create_directory_symlink(sandbox() / "docs", sandbox() / "way");
    put("1", (sandbox() / "way/a.txt").string(), "2024-01-01T00:00:00");
    put("2", (sandbox() / "docs/b.txt").string(), "2024-01-01T00:00:00");
    EXPECT_EQ(foundBy((sandbox() / "way/a.txt").string()), "1");
    EXPECT_EQ(foundBy((sandbox() / "way/./a.txt").string()), "1");
}

TEST_F(FindTrashItem, takes_an_original_name_that_is_the_only_one) {
    put("1", "/x/directory", "2024-01-01T00:00:00");
    put("2", "/x/other", "2024-01-01T00:00:00");
    EXPECT_EQ(foundBy("directory"), "1");
    EXPECT_EQ(foundBy("directory/"), "1");
}

TEST_F(FindTrashItem, lists_the_places_when_there_are_several) {
    put("1", "/y/a.txt", "2024-01-01T00:00:00");
    put("2", "/x/a.txt", "2024-01-02T00:00:00");
    put("3", "/x/a.txt", "2024-01-03T00:00:00");
    EXPECT_EQ(foundBy("a.txt"),
              "Several entries named 'a.txt' are in the trash, from '/x/a.txt', '/y/a.txt'");
}

TEST_F(FindTrashItem, says_that_there_is_none) {
    put("1", "/y/a.txt", "2024-01-01T00:00:00");
    for (const std::string text :
         {"b.txt", "a", "y", "a.txt/a.txt", "x/a.txt", "/a.txt", "", "/"}) {
        EXPECT_EQ(foundBy(text), "'" + text + "' is not in the trash");
    }
}

TEST_F(FindTrashItem, says_why_the_trash_cannot_be_read) {
    const ScopedEnvironment environment("HOME", std::nullopt);
    EXPECT_EQ(foundBy("a"), "There is no trash: HOME is not set to an absolute path");
}

TEST_F(FindTrashItem, is_not_misled_by_what_was_there_before) {
    put("1", "/y/a.txt", "2024-01-01T00:00:00");
    put("2", "/x/a.txt", "2024-01-02T00:00:00");
    put("3", "/x/a.txt", "2024-01-03T00:00:00");
    TavroTrashIndex index;
    TavroTrashItem found;
    for (const std::string name : {"3", "2"}) {
        ASSERT_FALSE(index.Find("/x/a.txt", found));
        EXPECT_EQ(found.Name, name);
        EXPECT_EQ(foundBy(index, "a.txt").rfind("Several", 0), 0U);
        fs::remove(item(name));
        index.Drop(found);
    }
    EXPECT_EQ(foundBy(index, "/x/a.txt"), "'/x/a.txt' is not in the trash");
    EXPECT_EQ(foundBy(index, "a.txt"), "1");
    EXPECT_EQ(foundBy(index, "3"), "'3' is not in the trash");
    index.Drop(named("unknown"));
}

TEST_F(FindTrashItem, looks_up_a_name_without_listing_and_lists_once) {
    for (int i = 0; i < 50; ++i) {
        const std::string number = std::to_string(i);
        put("name " + number, "/docs/file " + number, "2024-01-01T00:00:00");
    }
    TavroTrashIndex index;
    CallCounts counts;
    EXPECT_EQ(foundBy(index, "name 7"), "name 7");
    EXPECT_EQ(counts.of("getdents64"), 0);
    const int one = counts.all();
    EXPECT_EQ(foundBy(index, "name 8"), "name 8");
    EXPECT_LE(counts.all() - one, 5);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(foundBy(index, "file " + std::to_string(i)), "name " + std::to_string(i));
    }
    EXPECT_EQ(counts.of("getdents64"), 2); // the names, and the end of them
}

// -------------------------------------------------------------------------------------------------
// Removing
// -------------------------------------------------------------------------------------------------

TEST_F(RemoveFromTrash, removes_items_with_their_records_and_nothing_else) {
    put("a", "/a", "2024-01-01T00:00:00");
    put("b", "/b", "2024-01-01T00:00:00");
    writeFile(record("directory"), "[Trash Info]\nPath=/folder\n");
    writeFile(item("directory") / "sub/file");
    EXPECT_EQ(remove({named("a"), named("directory")}), "");
    EXPECT_EQ(names(list()), Names{"b"});
    EXPECT_FALSE(isPresent(item("a")) || isPresent(record("a")) || isPresent(item("directory")) ||
                 isPresent(record("directory")));
}

TEST_F(RemoveFromTrash, tells_which_files_go_before_any_does) {
    put("a", "/a", "2024-01-01T00:00:00");
    std::vector<TavroStep> told;
    TavroCallbacks callbacks;
    callbacks.BeforeActs = [&](TavroOperationKind, const std::vector<TavroStep>& steps) {
        EXPECT_TRUE(isPresent(item("a")) && isPresent(record("a")));
        told = steps;
        return TavroFailure{TavroFailureKind::HistoryBusy};
    };
    const TavroTrashItem listed = list().at(0);
    TavroTrashItem above = listed;
    above.Name = "..";
    EXPECT_EQ(TavroRemoveFromTrash({listed, named("gone"), above}, callbacks).Kind,
              TavroFailureKind::HistoryBusy);
    EXPECT_TRUE(isPresent(item("a")) && isPresent(record("a")));
    struct stat status = {};
    std::int64_t birth = 0;
    ASSERT_EQ(TavroStatWithBirthAt(AT_FDCWD, item("a").c_str(), status, birth), 0);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].Role, TavroStepRole::Deleted);
    EXPECT_EQ(told[0].From, item("a"));
    EXPECT_EQ(told[0].Identity, TavroIdentityOf(status));
    EXPECT_EQ(told[0].SourceTime, birth);
    ASSERT_EQ(TavroStatPath(record("a"), status), 0);
    EXPECT_EQ(told[0].ChangeTime, TavroNanoseconds(status.st_mtim));
}

TEST_F(RemoveFromTrash, follows_no_link) {
    writeFile(sandbox() / "precious/file", "precious");
    const Snapshot before = takeSnapshot(sandbox() / "precious");
    fs::create_symlink(sandbox() / "precious", item("to directory"));
    fs::create_symlink(sandbox() / "precious/file", item("to file"));
    makeDirectory(item("directory"));
    fs::create_symlink(sandbox() / "precious", item("directory") / "link");
    fs::create_symlink(sandbox() / "precious/file", record("to file"));
    EXPECT_EQ(remove({named("to directory"), named("to file"), named("directory")}), "");
    EXPECT_EQ(takeSnapshot(sandbox() / "precious"), before);
    EXPECT_TRUE(fs::is_empty(root() / "files"));
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(RemoveFromTrash, removes_read_only_folders) {
    writeFile(item("directory") / "sub/file");
    runUnprivileged(sandbox(), [&] {
        fs::permissions(item("directory") / "sub", fs::perms(0555));
        fs::permissions(item("directory"), fs::perms(0));
        EXPECT_EQ(remove({named("directory")}), "");
        EXPECT_FALSE(isPresent(item("directory")));
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
        EXPECT_EQ(remove({named(name)}), "'" + name + "' is not the name of an item in the trash");
        EXPECT_EQ(takeSnapshot(sandbox()), before);
    }
    EXPECT_EQ(remove({named("a\0b"s)}), "'a\0b' is not the name of an item in the trash"s);
    EXPECT_EQ(takeSnapshot(sandbox()), before);
}

TEST_F(RemoveFromTrash, trusts_no_path_but_the_name) {
    put("a", "/a", "2024-01-01T00:00:00");
    writeFile(sandbox() / "precious", "precious");
    TavroTrashItem misled = named("a");
    misled.OriginalPath = (sandbox() / "precious").string();
    EXPECT_EQ(remove({misled}), "");
    EXPECT_EQ(readFile(sandbox() / "precious"), "precious");
    EXPECT_FALSE(isPresent(item("a")));
}

TEST_F(RemoveFromTrash, counts_what_is_gone_as_removed) {
    writeFile(record("a"), "[Trash Info]\nPath=/a\n");
    EXPECT_EQ(remove({named("a"), named("b")}), "");
    EXPECT_FALSE(isPresent(record("a")));
    fs::remove_all(root());
    EXPECT_EQ(remove({named("a")}), "");
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
    const FaultInjector fault(
        {{"unlinkat", EIO, "a", 1, true, true}, {"unlinkat", EPERM, "b", 1, true, true}});
    EXPECT_EQ(remove({named("a"), named("b"), named("c")}),
              "Cannot remove " + inQuotes(item("a")) + ": " + systemText(std::errc::io_error));
    EXPECT_TRUE(fault.eachFired());
    EXPECT_EQ(names(list()), (Names{"a", "b"}));
}

TEST_F(RemoveFromTrash, says_which_record_could_not_be_removed) {
    put("a", "/a", "2024-01-01T00:00:00");
    const FaultInjector fault({{"unlinkat", EACCES, "a.trashinfo"}});
    EXPECT_EQ(remove({named("a")}), "Cannot remove " + inQuotes(record("a")) + ": " +
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
    EXPECT_EQ(remove(items), "'a' changed in the meantime and was left alone");
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
    EXPECT_EQ(remove(items), "'a' changed in the meantime and was left alone");
    EXPECT_EQ(names(list()), Names{"a"});
}

TEST_F(RemoveFromTrash,
       keeps_the_record_that_another_process_has_made_under_the_name_of_a_lost_item) {
    put("a", "/a", "2024-01-01T00:00:00");
    const auto items = list();
    fs::remove(item("a"));
    writeFile(record("a"), "[Trash Info]\nPath=/theirs\n");
    EXPECT_EQ(remove(items), "");
    EXPECT_EQ(pathLine("a"), "Path=/theirs");
}

TEST_F(RemoveFromTrash, keeps_what_holds_a_mount_point) {
    writeFile(item("directory") / "file");
    writeFile(record("directory"), "[Trash Info]\nPath=/directory\n");
    makeDirectory(item("directory") / "mounted");
    put("a", "/a", "2024-01-01T00:00:00");
    const bool bRan = runWithMount(docs(), item("directory") / "mounted", [&] {
        doc("precious");
        EXPECT_EQ(remove(list()), "Refusing to delete " + inQuotes(item("directory")) +
                                      ": it holds the mount point " +
                                      inQuotes(item("directory") / "mounted"));
        EXPECT_EQ(names(list()), Names{"directory"});
        EXPECT_TRUE(isPresent(item("directory") / "file") && isPresent(docs() / "precious"));
    });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

TEST_F(RemoveFromTrash, stops_inside_an_item_when_it_is_cancelled_and_keeps_its_record) {
    for (const std::string name : {"1", "2", "3"}) {
        writeFile(item("directory") / name);
    }
    writeFile(record("directory"), "[Trash Info]\nPath=/directory\n");
    int asked = 0;
    EXPECT_EQ(remove(list(), [&] { return ++asked == 4; }), "Cancelled");
    EXPECT_EQ(names(list()), Names{"directory"});
}

TEST_F(RemoveFromTrash, costs_three_calls_a_file) {
    const auto callsFor = [&](int count) {
        for (int i = 0; i < count; ++i) {
            put(std::to_string(i), "/x", "2024-03-05T14:07:09");
        }
        const auto items = list();
        CallCounts counts;
        EXPECT_EQ(remove(items), "");
        return counts.all();
    };
    const int few = callsFor(20);
    // The item is looked at; it goes, and its record after it.
    EXPECT_EQ(callsFor(120) - few, 100 * 3);
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
        if (call == "unlinkat" && path == record("a").string()) {
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
    EXPECT_EQ(remove({named("a")}), "There is no trash: HOME is not set to an absolute path");
    EXPECT_TRUE(isPresent(item("a")));
}

// -------------------------------------------------------------------------------------------------
// Emptying
// -------------------------------------------------------------------------------------------------

TEST_F(EmptyTrash, removes_items_of_every_type_with_their_records) {
    const fs::path precious = doc("precious");
    put("file", "/file", "2024-01-01T00:00:00");
    fs::create_symlink(docs(), item("link"));
    writeFile(item("directory") / "below/file");
    makeDirectory(item("empty directory"));
    for (const std::string name : {"link", "directory", "empty directory"}) {
        writeFile(record(name), "[Trash Info]\nPath=/x\n");
    }
    EXPECT_EQ(empty(), "");
    expectEmptyTrash();
    EXPECT_TRUE(isPresent(precious));
}

TEST_F(EmptyTrash, keeps_what_a_list_passes_over) {
    writeFile(item("no record"));
    put("unreadable", "garbage");
    writeFile(record("no item"), "[Trash Info]\nPath=/on/its/way\n");
    writeFile(record(".."), "[Trash Info]\nPath=/x\n");
    const Snapshot before = takeSnapshot(root());
    put("a", "/a", "2024-01-01T00:00:00");
    EXPECT_EQ(empty(), "");
    EXPECT_EQ(takeSnapshot(root()), before);
}

TEST_F(EmptyTrash, keeps_what_holds_a_mount_point) {
    writeFile(item("directory") / "file");
    writeFile(record("directory"), "[Trash Info]\nPath=/directory\n");
    makeDirectory(item("directory") / "mounted");
    put("a", "/a", "2024-01-01T00:00:00");
    const bool bRan = runWithMount(docs(), item("directory") / "mounted", [&] {
        doc("precious");
        EXPECT_EQ(empty(), "Refusing to delete " + inQuotes(item("directory")) +
                               ": it holds the mount point " +
                               inQuotes(item("directory") / "mounted"));
        EXPECT_EQ(names(list()), Names{"directory"});
        EXPECT_TRUE(isPresent(item("directory") / "file") && isPresent(docs() / "precious"));
    });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

TEST_F(EmptyTrash, goes_on_after_a_failure_and_keeps_the_record_of_what_stays) {
    put("a", "/a", "2024-01-01T00:00:00");
    put("b", "/b", "2024-01-01T00:00:00");
    const FaultInjector fault({{"unlinkat", EIO, "a", 1, true, true}});
    EXPECT_EQ(empty(),
              "Cannot remove " + inQuotes(item("a")) + ": " + systemText(std::errc::io_error));
    EXPECT_TRUE(fault.eachFired());
    EXPECT_EQ(names(list()), Names{"a"});
}

TEST_F(EmptyTrash, stops_between_items_when_it_is_cancelled) {
    put("a", "/a", "2024-01-01T00:00:00");
    put("b", "/b", "2024-01-01T00:00:00");
    int asked = 0;
    EXPECT_EQ(empty([&] { return ++asked == 2; }), "Cancelled");
    EXPECT_EQ(list().size(), 1U);
}

TEST_F(EmptyTrash, says_why_it_cannot_be_read_and_needs_a_home_directory) {
    put("a", "/a", "2024-01-01T00:00:00");
    {
        const FaultInjector fault({{"getdents64", EIO, "info"}});
        EXPECT_EQ(empty(), "Cannot read " + inQuotes(root() / "info") + ": " +
                               systemText(std::errc::io_error));
        EXPECT_EQ(fault.fired(), 1);
    }
    const ScopedEnvironment environment("HOME", "");
    EXPECT_EQ(empty(), "There is no trash: HOME is not set to an absolute path");
    EXPECT_TRUE(isPresent(item("a")) && isPresent(record("a")));
}

TEST_F(EmptyTrash, is_on_the_disk_when_it_is_done) {
    const auto syncs = [&] {
        Names calls;
        put("a", "/a", "2024-01-01T00:00:00");
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (call == "fsync" || call == "syncfs") {
                EXPECT_FALSE(isPresent(item("a")) || isPresent(record("a")));
                calls.push_back(call + " " + fs::path(path).filename().string());
            }
        });
        EXPECT_EQ(empty(), "");
        return calls;
    };
    TavroDescriptor info;
    ASSERT_EQ(TavroOpenDirectory((root() / "info").string(), info), 0);
    const Names one = {"fsync info"};
    const Names each = {"syncfs files", "fsync info"};
    EXPECT_EQ(syncs(), TavroDiskOf(info.Number()) == TavroDisk::OrderedLog ? one : each);
    const FaultInjector unknown({{"fstatfs", EIO, "", 1, true}});
    EXPECT_EQ(syncs(), each);
    EXPECT_GT(unknown.fired(), 0);
    fs::remove(root() / "files");
    EXPECT_EQ(empty(), "") << "nothing is there to be synced";
    fs::remove(root() / "info");
    EXPECT_EQ(empty(), "");
}

TEST_F(EmptyTrash, that_cannot_be_brought_to_the_disk_is_told) {
    for (const char* call : {"fsync", "syncfs"}) {
        put("a", "/a", "2024-01-01T00:00:00");
        const FaultInjector faults({{"fstatfs", EIO, "", 1, true}, {call, EIO, root().string()}});
        EXPECT_EQ(empty(), "Cannot remove " + inQuotes(root() / "files") + ": " +
                               systemText(std::errc::io_error));
        EXPECT_TRUE(faults.eachFired());
    }
}

TEST_F(EmptyTrash, costs_six_calls_a_file) {
    const auto callsFor = [&](int count) {
        for (int i = 0; i < count; ++i) {
            put(std::to_string(i), "/x", "2024-03-05T14:07:09");
        }
        CallCounts counts;
        EXPECT_EQ(empty(), "");
        return counts.all();
    };
    const int few = callsFor(20);
    // The record is read, which takes four; the item goes, and its record after it.
    EXPECT_EQ(callsFor(120) - few, 100 * 6);
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
        EXPECT_EQ(names(olderThan(3, list())), Names{"more"}) << zone;
        EXPECT_EQ(names(olderThan(2, list())), (Names{"less", "more"})) << zone;
        EXPECT_TRUE(olderThan(4, list()).empty()) << zone;
    }
}

TEST_F(ItemsOlderThan, never_has_an_item_without_a_readable_date) {
    TavroTrashItem unreadable = named("a");
    unreadable.DeletionDate = "once";
    EXPECT_TRUE(olderThan(1, {unreadable, named("b")}).empty());
}

TEST_F(ItemsOlderThan, bears_any_number_of_days) {
    put("a", "/a", "1970-01-02T00:00:00");
    EXPECT_TRUE(olderThan(2147483647, list()).empty());
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
        details.push_back(TavroDescribe(finding));
    }
    const auto unreadable = [&](const std::string& name) {
        return inQuotes(record(name)) + " does not say where its item came from";
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
    const FaultInjector fault({{"openat", EACCES, "a.trashinfo"}});
    const auto findings = examine();
    EXPECT_EQ(fault.fired(), 1);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].Fault, TavroTrashFault::UnreadableRecord);
    EXPECT_EQ(findings[0].Path, record("a").string());
}

TEST_F(ExamineTrash, says_why_the_trash_cannot_be_read) {
    fs::remove(root() / "files");
    writeFile(root() / "files");
    std::vector<TavroTrashFinding> findings;
    EXPECT_EQ(TavroDescribe(TavroExamineTrash(findings)),
              "Cannot read " + inQuotes(root() / "files") + ": " +
                  systemText(std::errc::not_a_directory));
    const ScopedEnvironment environment("HOME", std::nullopt);
    EXPECT_EQ(TavroDescribe(TavroExamineTrash(findings)),
              "There is no trash: HOME is not set to an absolute path");
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
    const FaultInjector fault({{"openat", ENOSPC, ".trashinfo"}});
    EXPECT_EQ(mend(TavroTrashFault::ItemWithoutRecord, item(name)),
              "Cannot create the trash record " + inQuotes(record(std::string(245, 'x'))) + ": " +
                  systemText(std::errc::no_space_on_device));
    EXPECT_EQ(fault.fired(), 1);
    EXPECT_EQ(readFile(item(name)), "bytes");
}

TEST_F(MendTrash, leaves_no_record_that_could_not_be_written_whole) {
    writeFile(item("a"), "bytes");
    const FaultInjector fault({{"pwrite", ENOSPC, ".trashinfo"}});
    EXPECT_EQ(mend(TavroTrashFault::ItemWithoutRecord, item("a")),
              "Cannot write the trash record " + inQuotes(record("a")) + ": " +
                  systemText(std::errc::no_space_on_device));
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
                  "Cannot look at " + inQuotes(item("a")) + ": " +
                      systemText(std::errc::permission_denied));
        EXPECT_TRUE(isPresent(record("a")));
    });
}

TEST_F(MendTrash, says_why_a_record_cannot_be_mended) {
    put("a", "");
    runUnprivileged(sandbox(), [&] {
        fs::permissions(root() / "info", fs::perms(0555));
        EXPECT_EQ(mend(TavroTrashFault::UnreadableRecord, record("a")),
                  "Cannot set " + inQuotes(record("a")) +
                      " aside: " + systemText(std::errc::permission_denied));
    });
}
