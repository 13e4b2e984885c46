// Moving entries to the trash.

#include "trash.h"

#include "guard.h"
#include "trash_fixture.h"
#include "trash_folders.h"

#include <cerrno>
#include <ctime>

using namespace tavro_trash_test;

namespace {

using Selection = HomeWithTrash;
using OtherDevices = HomeWithTrash;
using TrashSelection = HomeWithTrash;

/// The sentence against a selection; empty when it was trashed.
std::string reasonAgainst(const std::vector<TavroOperationEntry>& entries) {
    return TavroDescribe(TavroTrashSelection(entries, {}));
}

std::string refusal(const fs::path& path, const std::string& reason) {
    return "Cannot move " + inQuotes(path) + " to the trash: " + reason;
}

} // namespace

// -------------------------------------------------------------------------------------------------
// What must not be trashed
// -------------------------------------------------------------------------------------------------

TEST_F(Selection, lets_plain_entries_go) {
    makeDirectory(docs() / "directory");
    EXPECT_EQ(
        reasonAgainst(select({doc("a.txt"), docs() / "directory", link("dangling", "nowhere")})),
        "");
}

TEST_F(Selection, is_refused_for_the_first_entry_that_must_not_go) {
    ASSERT_FALSE(TavroEnsurePrivateTrash());
    writeFile(item("a.txt"));
    const std::pair<fs::path, std::string> refused[] = {
        {home(), "it is the home directory"},
        {item("a.txt"), "it is in the trash already"},
        {docs() / "missing", systemText(std::errc::no_such_file_or_directory)}};
    for (std::size_t i = 0; i < std::size(refused); ++i) {
        const auto& [path, reason] = refused[i];
        EXPECT_EQ(reasonAgainst(select({doc("b.txt"), path, refused[(i + 1) % 3].first})),
                  refusal(path, reason));
    }
}

TEST_F(Selection, refuses_one_entry_twice_however_it_is_spelt) {
    fs::create_directory_symlink(docs(), sandbox() / "way");
    const fs::path other = sandbox() / "way/a.txt";
    EXPECT_EQ(reasonAgainst(select({doc("a.txt"), doc("b.txt"), other})),
              refusal(other, "it is selected twice"));
}

TEST_F(Selection, lets_two_names_of_one_file_go) {
    fs::create_hard_link(doc("a.txt"), docs() / "b.txt");
    EXPECT_EQ(reasonAgainst(select({docs() / "a.txt", docs() / "b.txt"})), "");
}

TEST_F(Selection, refuses_entries_inside_another_of_the_selection) {
    const fs::path outer = docs() / "outer";
    for (const char* name : {"outer/1", "outer/between/2", "outer/between/3", "out"}) {
        doc(name);
    }
    const std::string reason = "it is inside " + inQuotes(outer) + ", which is selected too";
    for (const char* inner : {"between/2", "between/3", "1"}) {
        EXPECT_EQ(reasonAgainst(select({docs() / "out", outer / inner, outer, docs() / "missing"})),
                  refusal(outer / inner, reason));
    }
}

TEST_F(Selection, refuses_what_does_not_exist_or_cannot_be_examined) {
    EXPECT_EQ(reasonAgainst(select({docs() / "missing"})),
              refusal(docs() / "missing", systemText(std::errc::no_such_file_or_directory)));
    const fs::path below = doc("a.txt") / "b";
    EXPECT_EQ(reasonAgainst(select({below})),
              refusal(below, systemText(std::errc::not_a_directory)));
    EXPECT_EQ(reasonAgainst({TavroOperationEntry{"", "", false}}),
              refusal("", systemText(std::errc::no_such_file_or_directory)));
}

TEST_F(Selection, refuses_an_audio_track_even_where_a_file_has_its_name) {
    const ScopedCurrentDirectory there(docs());
    doc("cdda:1.cdda");
    for (const std::string track : {"cdda:1.cdda", "cdda:/dev/sr0/1.cdda"}) {
        EXPECT_EQ(reasonAgainst(select({track})), refusal(track, "it is an audio CD track"));
    }
}

// -------------------------------------------------------------------------------------------------
// Other file systems
// -------------------------------------------------------------------------------------------------

TEST_F(OtherDevices, are_told_by_the_directory_of_the_entry_itself) {
    const Sandbox other(secondFileSystem);
    if (!onDifferentDevices(other.path(), sandbox())) {
        GTEST_SKIP() << secondFileSystem << " is no other file system";
    }
    writeFile(other / "far.txt");
    const fs::path here = link("link to far", other / "far.txt");
    const auto others = TavroEntriesToCopy(select({doc("near.txt"), other / "far.txt", here}));
    ASSERT_EQ(others.size(), 1U);
    EXPECT_EQ(others[0].Path, (other / "far.txt").string());
}

TEST_F(OtherDevices, are_none_without_a_home_directory) {
    const ScopedEnvironment environment("HOME", std::nullopt);
    EXPECT_TRUE(TavroEntriesToCopy(select({doc("a.txt")})).empty());
}

TEST_F(OtherDevices, include_other_mounts_of_the_same_file_system) {
    const fs::path mounted = sandbox() / "mounted";
    makeDirectory(mounted);
    doc("a.txt");
    const bool bRan = runWithMount(docs(), mounted, [&] {
        EXPECT_EQ(TavroEntriesToCopy(select({mounted / "a.txt"})).size(), 1U);
        EXPECT_EQ(TavroEntriesToCopy(select({docs() / "a.txt"})).size(), 0U);
    });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

TEST_F(OtherDevices, cost_no_call_for_an_entry_beside_another) {
    const auto callsFor = [&](int count) {
        std::vector<fs::path> paths;
        for (int i = 0; i < count; ++i) {
            paths.push_back(doc(std::to_string(i)));
        }
        const auto entries = select(paths);
        CallCounts counts;
        EXPECT_TRUE(TavroEntriesToCopy(entries).empty());
        return counts.all();
    };
    EXPECT_EQ(callsFor(1), callsFor(50));
}

// -------------------------------------------------------------------------------------------------
// Trashing
// -------------------------------------------------------------------------------------------------

TEST_F(TrashSelection, moves_files_and_directories_and_records_where_they_were) {
    makeDirectory(docs() / "directory");
    writeFile(docs() / "directory/inner.txt", "inner");
    const auto trashed = trash({doc("a b.txt", "bytes"), docs() / "directory"});
    EXPECT_EQ(trashed[0].Entry.OriginalPath, (docs() / "a b.txt").string());
    EXPECT_EQ(trashed[0].Entry.TrashPath, item("a b.txt").string());
    EXPECT_EQ(trashed[0].Entry.InfoPath, record("a b.txt").string());
    EXPECT_EQ(trashed[0].Item, identityOf(item("a b.txt")));
    EXPECT_FALSE(trashed[0].Entry.bDirectory);
    EXPECT_TRUE(trashed[1].Entry.bDirectory);
    EXPECT_EQ(trashed[1].Item, identityOf(item("directory")));
    EXPECT_EQ(readFile(item("a b.txt")), "bytes");
    EXPECT_EQ(readFile(item("directory") / "inner.txt"), "inner");
    EXPECT_EQ(pathLine("a b.txt"), "Path=" + docs().string() + "/a%20b.txt");
    EXPECT_TRUE(fs::is_empty(docs()));
}

TEST_F(TrashSelection, makes_the_trash_private) {
    const ScopedUmask open(0);
    trash({doc("a.txt")});
    for (const fs::path& folder : {root(), root() / "files", root() / "info"}) {
        EXPECT_EQ(modeOf(folder), 0700U);
    }
}

TEST_F(TrashSelection, refuses_an_empty_selection) {
    EXPECT_EQ(TavroDescribe(trashInVain({})), "Nothing is selected");
}

TEST_F(TrashSelection, says_that_there_is_no_home_directory) {
    const ScopedEnvironment environment("HOME", "");
    EXPECT_EQ(TavroDescribe(trashInVain({doc("a.txt")})),
              "There is no trash: HOME is not set to an absolute path");
    EXPECT_TRUE(isPresent(docs() / "a.txt"));
}

TEST_F(TrashSelection, says_what_is_in_the_way_of_the_trash) {
    makeDirectory(root().parent_path());
    writeFile(root(), "a file");
    EXPECT_EQ(TavroDescribe(trashInVain({doc("a.txt")})),
              inQuotes(root()) + " is in the way: the trash needs a directory there");
    EXPECT_TRUE(isPresent(docs() / "a.txt"));
}

TEST_F(TrashSelection, goes_to_a_trash_that_is_a_link) {
    makeDirectory(sandbox() / "elsewhere");
    makeDirectory(root().parent_path());
    fs::create_directory_symlink(sandbox() / "elsewhere", root());
    trash({doc("a.txt")});
    EXPECT_TRUE(isPresent(sandbox() / "elsewhere/files/a.txt"));
}

TEST_F(TrashSelection, counts_a_directory_that_is_renamed_as_one_item) {
    doc("directory/1");
    doc("directory/2");
    std::vector<TavroProgress> told;
    TavroCallbacks callbacks;
    callbacks.OnProgress = [&](const TavroProgress& progress) { told.push_back(progress); };
    trash({docs() / "directory"}, callbacks);
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back().ItemCount, 1U);
    EXPECT_EQ(told.back().ByteCount, 0U);
}

TEST_F(TrashSelection, changes_nothing_when_one_entry_is_refused) {
    EXPECT_EQ(TavroDescribe(trashInVain({doc("a.txt"), home()})),
              refusal(home(), "it is the home directory"));
    EXPECT_TRUE(fs::is_empty(home()));
    EXPECT_TRUE(isPresent(docs() / "a.txt"));
}

TEST_F(TrashSelection, takes_the_name_of_a_path_that_ends_in_a_separator) {
    makeDirectory(docs() / "directory");
    const TavroTrashReport report =
        TavroTrashSelection({{"directory", (docs() / "directory/").string(), true}}, {});
    ASSERT_EQ(TavroDescribe(report), "");
    EXPECT_EQ(report.Entries[0].Entry.TrashPath, item("directory").string());
    EXPECT_EQ(report.Entries[0].Entry.OriginalPath, (docs() / "directory").string());
}

TEST_F(TrashSelection, keeps_names_of_any_bytes) {
    const std::string name = "\xFF\n%\x01.txt";
    const auto trashed = trash({doc(name)});
    EXPECT_EQ(trashed[0].Entry.TrashPath, item(name).string());
    EXPECT_EQ(pathLine(name), "Path=" + docs().string() + "/%FF%0A%25%01.txt");
    restore(trashed);
    EXPECT_EQ(readFile(docs() / name), "bytes");
}

TEST_F(TrashSelection, records_a_link_by_its_own_path) {
    const auto trashed = trash({link("link", doc("a.txt")), link("dangling", "nowhere")});
    EXPECT_EQ(trashed[0].Entry.OriginalPath, (docs() / "link").string());
    EXPECT_EQ(trashed[1].Entry.OriginalPath, (docs() / "dangling").string());
    EXPECT_TRUE(trashed[0].Entry.bDirectory);
    EXPECT_EQ(pathLine("link"), "Path=" + (docs() / "link").string());
    EXPECT_EQ(fs::read_symlink(item("link")), docs() / "a.txt");
    EXPECT_EQ(fs::read_symlink(item("dangling")), "nowhere");
    EXPECT_EQ(readFile(docs() / "a.txt"), "bytes");
}

TEST_F(TrashSelection, records_the_own_path_of_what_is_reached_through_a_link) {
    fs::create_directory_symlink(docs(), sandbox() / "way");
    doc("a.txt");
    EXPECT_EQ(trash({sandbox() / "way/a.txt"})[0].Entry.OriginalPath, (docs() / "a.txt").string());
}

TEST_F(TrashSelection, shortens_a_name_that_leaves_no_room_for_its_record) {
    const std::string name = std::string(251, 'x') + ".txt";
    const std::string shorter = std::string(241, 'x') + ".txt";
    const auto trashed = trash({doc(name), doc("a.txt")});
    EXPECT_EQ(trashed[0].Entry.TrashPath, item(shorter).string());
    EXPECT_EQ(pathLine(shorter), "Path=" + (docs() / name).string());
    restore(trashed);
    EXPECT_EQ(readFile(docs() / name), "bytes");
}

TEST_F(TrashSelection, gives_long_names_that_begin_alike_different_names) {
    const std::string begin(250, 'x');
    const auto trashed = trash({doc(begin + "1", "one"), doc(begin + "2", "two")});
    EXPECT_EQ(readFile(trashed[0].Entry.TrashPath), "one");
    EXPECT_EQ(readFile(trashed[1].Entry.TrashPath), "two");
    EXPECT_EQ(trashed[1].Entry.TrashPath, item(std::string(238, 'x') + " copy 1").string());
}

TEST_F(TrashSelection, replaces_neither_items_nor_records_nor_dangling_links) {
    writeFile(item("a.txt"), "old");
    fs::create_symlink("nowhere", item("a copy 1.txt"));
    writeFile(record("a copy 2.txt"), "[Trash Info]\nPath=/precious\n");
    const auto trashed = trash({doc("a.txt", "new")});
    EXPECT_EQ(readFile(item("a.txt")), "old");
    EXPECT_EQ(fs::read_symlink(item("a copy 1.txt")), "nowhere");
    EXPECT_EQ(readFile(record("a copy 2.txt")), "[Trash Info]\nPath=/precious\n");
    EXPECT_EQ(trashed[0].Entry.TrashPath, item("a copy 3.txt").string());
    EXPECT_EQ(trashed[0].Entry.InfoPath, record("a copy 3.txt").string());
    EXPECT_EQ(readFile(item("a copy 3.txt")), "new");
    EXPECT_FALSE(isPresent(record("a.txt")) || isPresent(record("a copy 1.txt")));
}

TEST_F(TrashSelection, keeps_entries_of_one_name_from_several_directories_apart) {
    writeFile(docs() / "1/a.txt", "one");
    writeFile(docs() / "2/a.txt", "two");
    writeFile(docs() / "3/a copy 1.txt", "three");
    writeFile(item("a.txt"), "old");
    const auto trashed = trash({docs() / "1/a.txt", docs() / "2/a.txt", docs() / "3/a copy 1.txt"});
    EXPECT_EQ(readFile(trashed[0].Entry.TrashPath), "one");
    EXPECT_EQ(readFile(trashed[1].Entry.TrashPath), "two");
    EXPECT_EQ(readFile(trashed[2].Entry.TrashPath), "three");
    restore(trashed);
    EXPECT_EQ(readFile(docs() / "2/a.txt"), "two");
    EXPECT_EQ(readFile(item("a.txt")), "old");
}

TEST_F(TrashSelection, has_the_record_whole_before_the_item_is_there) {
    doc("a");
    bool bWhole = false;
    BeforeCall look("renameat2", "docs/a", [&] {
        const std::string bytes = readFile(record("a"));
        bWhole = bytes.rfind("[Trash Info]\nPath=" + (docs() / "a").string() + "\nDel", 0) == 0 &&
                 bytes.back() == '\n' && !isPresent(item("a"));
    });
    trash({docs() / "a"});
    EXPECT_TRUE(bWhole);
}

TEST_F(TrashSelection, that_is_cancelled_at_once_changes_nothing) {
    doc("a.txt");
    EXPECT_EQ(TavroDescribe(trashInVain({docs() / "a.txt"}, whenAsked(1, [] { return true; }))),
              "Cancelled");
    EXPECT_TRUE(isPresent(docs() / "a.txt"));
    expectEmptyTrash();
}

TEST_F(TrashSelection, that_is_cancelled_between_two_moves_is_undone) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("2"), doc("3")};
    const Snapshot before = takeSnapshot(docs());
    bool bHalfWay = false;
    const auto callbacks = whenAsked(2, [&] {
        bHalfWay = isPresent(item("1")) && isPresent(record("1")) && isPresent(paths[1]) &&
                   isPresent(record("3"));
        return true;
    });
    EXPECT_EQ(TavroDescribe(trashInVain(paths, callbacks)), "Cancelled");
    EXPECT_TRUE(bHalfWay);
    EXPECT_EQ(takeSnapshot(docs()), before);
    expectEmptyTrash();
}

TEST_F(TrashSelection, whose_second_move_fails_puts_the_first_entry_back) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("2")};
    const auto callbacks = whenAsked(2, [&] {
        fs::remove(paths[1]);
        return false;
    });
    const TavroTrashReport report = trashInVain(paths, callbacks);
    EXPECT_EQ(report.Batch.Failure.Path, paths[1].string());
    EXPECT_TRUE(report.Batch.RollBack.empty() && report.Left.empty() && report.InBoth.empty());
    EXPECT_EQ(fs::read_symlink(paths[0]), "nowhere");
    expectEmptyTrash();
}

TEST_F(TrashSelection, says_where_that_is_which_cannot_be_put_back_and_keeps_its_record) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("2")};
    const auto callbacks = whenAsked(2, [&] {
        writeFile(paths[0], "in the way");
        return true;
    });
    const TavroTrashReport report = trashInVain(paths, callbacks);
    const std::string text = TavroDescribe(report);
    const std::string end = "; " + inQuotes(paths[0]) + " is now " + inQuotes(item("1"));
    EXPECT_EQ(text.rfind("Cancelled; moving back failed: ", 0), 0U) << text;
    EXPECT_EQ(text.substr(text.size() - std::min(text.size(), end.size())), end) << text;
    ASSERT_EQ(report.Left.size(), 1U);
    EXPECT_EQ(report.Left[0].Item, identityOf(item("1")));
    EXPECT_EQ(readFile(paths[0]), "in the way");
    EXPECT_EQ(fs::read_symlink(item("1")), "nowhere");
    EXPECT_EQ(pathLine("1"), "Path=" + paths[0].string());
}

TEST_F(TrashSelection, whose_record_cannot_be_written_is_undone) {
    const std::vector<std::pair<Fault, std::string>> faults = {
        {{"openat", ENOSPC, "2.trashinfo"}, "create"},
        {{"pwrite", ENOSPC, "2.trashinfo"}, "write"},
        {{"close", EDQUOT, "2.trashinfo"}, "write"},
    };
    for (const auto& [fault, act] : faults) {
        for (const std::vector<fs::path>& names : {std::vector<fs::path>{"1", "2"}, {"2", "1"}}) {
            const std::vector<fs::path> paths = {doc(names[0].string()), doc(names[1].string())};
            const Snapshot before = takeSnapshot(docs());
            const FaultInjector injector({fault});
            EXPECT_EQ(TavroDescribe(trashInVain(paths)),
                      "Cannot " + act + " the trash record " + inQuotes(record("2")) + ": " +
                          std::generic_category().message(fault.Errno));
            EXPECT_EQ(injector.fired(), 1);
            EXPECT_EQ(takeSnapshot(docs()), before);
            expectEmptyTrash();
        }
    }
}

TEST_F(TrashSelection, from_a_directory_that_keeps_its_entries_changes_nothing) {
    doc("locked/a.txt");
    runUnprivileged(sandbox(), [&] {
        fs::permissions(docs() / "locked", fs::perms(0555));
        const Snapshot before = takeSnapshot(docs());
        EXPECT_EQ(TavroDescribe(trashInVain({docs() / "locked/a.txt"})),
                  "Cannot move " + inQuotes(docs() / "locked/a.txt") + " to " +
                      inQuotes(item("a.txt")) + ": " + systemText(std::errc::permission_denied));
        EXPECT_EQ(takeSnapshot(docs()), before);
        expectEmptyTrash();
    });
}

TEST_F(TrashSelection, takes_the_next_name_when_an_item_came_under_its_own) {
    const fs::path path = doc("a", "ours");
    BeforeCall theirs("renameat2", "docs/a", [&] {
        writeFile(item("a"), "theirs");
        writeFile(item("a copy 1"), "theirs too");
    });
    const auto trashed = trash({path});
    EXPECT_TRUE(theirs.bActed());
    EXPECT_EQ(readFile(item("a")), "theirs");
    EXPECT_EQ(readFile(item("a copy 1")), "theirs too");
    EXPECT_EQ(trashed[0].Entry.TrashPath, item("a copy 2").string());
    EXPECT_EQ(readFile(item("a copy 2")), "ours");
    EXPECT_EQ(pathLine("a copy 2"), "Path=" + path.string());
    EXPECT_FALSE(isPresent(record("a")) || isPresent(record("a copy 1")));
}

TEST_F(TrashSelection, takes_the_next_name_when_a_record_came_under_its_own) {
    const fs::path path = doc("a");
    BeforeCall theirs("openat", "a.trashinfo", [&] { writeFile(record("a"), "theirs"); });
    const auto trashed = trash({path});
    EXPECT_TRUE(theirs.bActed());
    EXPECT_EQ(readFile(record("a")), "theirs");
    EXPECT_FALSE(isPresent(item("a")));
    EXPECT_EQ(trashed[0].Entry.TrashPath, item("a copy 1").string());
    EXPECT_EQ(pathLine("a copy 1"), "Path=" + path.string());
}

TEST_F(TrashSelection, gives_up_when_every_name_is_taken_meanwhile) {
    const fs::path path = doc("a", "ours");
    int number = 0;
    const CallObserver observer([&](const std::string& call, const std::string&) {
        const std::string& to = otherPathOfCall();
        if (call == "renameat2" && to.find("files/a") != std::string::npos && !isPresent(to)) {
            writeFile(to, "theirs");
            ++number;
        }
    });
    const TavroTrashReport report = trashInVain({path});
    EXPECT_EQ(report.Batch.Failure.Kind, TavroFailureKind::Taken) << TavroDescribe(report);
    EXPECT_EQ(number, 100);
    EXPECT_EQ(readFile(path), "ours");
    EXPECT_EQ(readFile(item("a copy 99")), "theirs");
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(TrashSelection, does_not_claim_what_another_process_trashed_under_the_name) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("2", "ours")};
    const auto callbacks = whenAsked(2, [&] {
        writeFile(item("2"), "theirs");
        return true;
    });
    EXPECT_EQ(TavroDescribe(trashInVain(paths, callbacks)), "Cancelled");
    EXPECT_EQ(readFile(item("2")), "theirs");
    EXPECT_TRUE(fs::is_empty(root() / "info"));
    EXPECT_EQ(readFile(paths[1]), "ours");
}

TEST_F(TrashSelection, follows_no_link_that_took_the_place_of_a_directory) {
    std::vector<fs::path> paths;
    for (int i = 0; i < 20; ++i) { // more than are kept open
        paths.push_back(doc(std::to_string(i) + "/a", "ours"));
    }
    writeFile(sandbox() / "elsewhere/a", "theirs");
    const Snapshot before = takeSnapshot(docs());
    const auto callbacks = whenAsked(1, [&] {
        fs::rename(docs() / "7", sandbox() / "kept");
        fs::create_directory_symlink(sandbox() / "elsewhere", docs() / "7");
        return false;
    });
    const TavroTrashReport report = trashInVain(paths, callbacks);
    EXPECT_TRUE(report.Batch.RollBack.empty()) << TavroDescribe(report);
    EXPECT_EQ(readFile(sandbox() / "elsewhere/a"), "theirs");
    fs::remove(docs() / "7");
    fs::rename(sandbox() / "kept", docs() / "7");
    EXPECT_EQ(takeSnapshot(docs()), before);
    expectEmptyTrash();
}

TEST_F(TrashSelection, writes_records_under_a_closed_umask) {
    runUnprivileged(sandbox(), [&] {
        const std::vector<fs::path> paths = {doc("a"), doc("b")};
        makeDirectory(root().parent_path());
        const ScopedUmask closed(0777);
        trash(paths);
        EXPECT_EQ(pathLine("a"), "Path=" + paths[0].string());
        EXPECT_EQ(pathLine("b"), "Path=" + paths[1].string());
    });
}

TEST_F(TrashSelection, tells_its_end_where_nothing_is_copied) {
    std::vector<TavroProgress> told;
    TavroCallbacks callbacks;
    callbacks.OnProgress = [&](const TavroProgress& progress) { told.push_back(progress); };
    trash({link("3", "nowhere"), doc("4"), doc("5")}, callbacks);
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back().ItemsDone, 3U);
    EXPECT_EQ(told.back().ItemCount, 3U);
}

// -------------------------------------------------------------------------------------------------
// What it costs
// -------------------------------------------------------------------------------------------------

namespace {

/// The calls that trashing so many files of one directory makes, by their names.
std::map<std::string, int> callsForFiles(const fs::path& directory, int count) {
    std::vector<fs::path> paths;
    for (int i = 0; i < count; ++i) {
        const std::string name = directory.filename().string() + std::to_string(i);
        paths.push_back(directory / name);
        writeFile(paths.back());
    }
    const auto entries = select(paths);
    std::map<std::string, int> calls;
    const CallObserver observer(
        [&](const std::string& call, const std::string&) { ++calls[call]; });
    EXPECT_EQ(reasonAgainst(entries), "");
    return calls;
}

} // namespace

TEST_F(TrashSelection, costs_a_file_five_calls) {
    trash({doc("x")});
    const auto few = callsForFiles(docs() / "few", 20);
    std::map<std::string, int> each = callsForFiles(docs() / "many", 120);
    for (const auto& [call, count] : few) {
        each[call] -= count;
        each[call] == 0 ? each.erase(call) : 0;
    }
    const std::map<std::string, int> expected = {
        {"fstatat", 100}, {"openat", 100}, {"pwrite", 100}, {"close", 100}, {"renameat2", 100}};
    each.erase("localtime_r"); // overridden too, but no system call
    EXPECT_EQ(each, expected);
}

TEST_F(TrashSelection, costs_the_same_for_each_of_many_files_of_one_name) {
    const auto callsFor = [&](int count) {
        std::vector<fs::path> paths;
        for (int i = 0; i < count; ++i) {
            paths.push_back(doc(std::to_string(count) + "/" + std::to_string(i) + "/a"));
        }
        const auto entries = select(paths);
        CallCounts counts;
        EXPECT_EQ(reasonAgainst(entries), "");
        return counts.all();
    };
    const double few = callsFor(20);
    const double many = callsFor(400);
    EXPECT_LT(many / 400, few / 20);
    EXPECT_TRUE(isPresent(item("a copy 419")));
}

// -------------------------------------------------------------------------------------------------
// From another file system
// -------------------------------------------------------------------------------------------------

namespace {

/// A directory on another file system, with a file of 3 MB, a directory and a link in it.
class TrashFromAfar : public HomeWithTrash {
protected:
    void SetUp() override {
        if (!onDifferentDevices(m_far.path(), sandbox())) {
            GTEST_SKIP() << secondFileSystem << " is no other file system";
        }
        writeFile(far("big.bin"), std::string(3000000, 'b'));
        writeFile(far("directory/inner.txt"), "inner");
        fs::create_symlink("nowhere", far("link"));
    }

    fs::path far(const std::string& name) const {
        return m_far / name;
    }
    const fs::path& farDirectory() const {
        return m_far.path();
    }
    std::vector<fs::path> all() const {
        return {far("directory"), far("link"), far("big.bin")};
    }

    /// Collects what is told.
    static TavroCallbacks watch(std::vector<TavroProgress>& told) {
        TavroCallbacks callbacks;
        callbacks.OnProgress = [&told](const TavroProgress& progress) { told.push_back(progress); };
        return callbacks;
    }

    static void expectOneWhole(const std::vector<TavroProgress>& told) {
        ASSERT_FALSE(told.empty());
        for (std::size_t i = 1; i < told.size(); ++i) {
            EXPECT_GE(told[i].ItemsDone, told[i - 1].ItemsDone);
            EXPECT_GE(told[i].BytesDone, told[i - 1].BytesDone);
            EXPECT_EQ(told[i].ItemCount, told[0].ItemCount);
        }
        EXPECT_EQ(told.back().ItemsDone, 4U);
        EXPECT_EQ(told.back().ItemCount, 4U);
        EXPECT_EQ(told.back().BytesDone, 3000005U);
        EXPECT_EQ(told.back().ByteCount, 3000005U);
    }

private:
    Sandbox m_far{secondFileSystem};
};

using RestoreToAfar = TrashFromAfar;

} // namespace

TEST_F(TrashFromAfar, copies_everything_as_it_is_and_removes_it) {
    const auto trashed = trash(all());
    EXPECT_EQ(readFile(item("big.bin")), std::string(3000000, 'b'));
    EXPECT_EQ(readFile(item("directory") / "inner.txt"), "inner");
    EXPECT_EQ(fs::read_symlink(item("link")), "nowhere");
    EXPECT_EQ(pathLine("link"), "Path=" + far("link").string());
    EXPECT_EQ(trashed[1].Entry.OriginalPath, far("link").string());
    for (std::size_t i = 0; i < trashed.size(); ++i) {
        EXPECT_EQ(trashed[i].Item, identityOf(trashed[i].Entry.TrashPath));
    }
    EXPECT_TRUE(fs::is_empty(farDirectory()));
}

TEST_F(TrashFromAfar, is_refused_where_it_must_not_be_copied_and_nothing_stays_moved) {
    const TavroTrashReport report = TavroTrashSelection(select({doc("near.txt"), far("big.bin")}),
                                                        {}, {}, {}, TavroTrashOptions{false, true});
    EXPECT_EQ(TavroDescribe(report), "Cannot move " + inQuotes(far("big.bin")) +
                                         " to the trash without copying it: its volume cannot "
                                         "hold a trash");
    EXPECT_EQ(readFile(docs() / "near.txt"), "bytes");
    EXPECT_TRUE(isPresent(far("big.bin")));
    expectEmptyTrash();
}

TEST_F(TrashFromAfar, has_the_record_before_the_copy) {
    std::vector<bool> recorded;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        const bool bWrites = call == "copy_file_range" || call == "pwrite";
        if (bWrites && path.find(".trashinfo") == std::string::npos) {
            recorded.push_back(isPresent(record("big.bin")));
        }
    });
    trash({far("big.bin")});
    ASSERT_FALSE(recorded.empty());
    EXPECT_TRUE(recorded.front());
}

TEST_F(TrashFromAfar, counts_the_selection_as_one_whole) {
    std::vector<TavroProgress> told;
    trash(all(), watch(told));
    expectOneWhole(told);
}

TEST_F(TrashFromAfar, that_is_cancelled_is_undone_wherever_that_happens) {
    const Snapshot before = takeSnapshot(farDirectory());
    int cancelled = 0;
    for (int time = 1;; ++time) {
        const TavroTrashReport report =
            TavroTrashSelection(select(all()), whenAsked(time, [] { return true; }));
        if (!report.Batch.Failure) {
            break;
        }
        ++cancelled;
        ASSERT_EQ(TavroDescribe(report), "Cancelled");
        ASSERT_EQ(takeSnapshot(farDirectory()), before);
        ASSERT_TRUE(fs::is_empty(root() / "files"));
        ASSERT_TRUE(fs::is_empty(root() / "info"));
    }
    EXPECT_GT(cancelled, 3);
}

TEST_F(TrashFromAfar, that_is_cancelled_while_it_is_measured_changes_nothing) {
    const Snapshot before = takeSnapshot(farDirectory());
    bool bNothingYet = false;
    // Cancelling is asked about for each of the four items before the first of them is copied.
    TavroCallbacks callbacks = whenAsked(4, [&] {
        bNothingYet = fs::is_empty(root() / "files");
        return true;
    });
    callbacks.OnProgress = [](const TavroProgress&) { ADD_FAILURE() << "nothing began"; };
    EXPECT_EQ(TavroDescribe(trashInVain(all(), callbacks)), "Cancelled");
    EXPECT_TRUE(bNothingYet);
    EXPECT_EQ(takeSnapshot(farDirectory()), before);
    expectEmptyTrash();
}

TEST_F(TrashFromAfar, of_what_cannot_be_removed_there_says_so_and_keeps_the_record_of_a_copy) {
    fs::permissions(home(), fs::perms(0777));
    runUnprivileged(farDirectory(), [&] {
        writeFile(far("directory/kept/file"), "file");
        fs::permissions(far("directory/kept"), fs::perms(0555));
        const TavroTrashReport report = trashInVain({far("directory")});
        EXPECT_EQ(readFile(far("directory/kept/file")), "file");
        const bool bInTrash = isPresent(item("directory"));
        EXPECT_EQ(bInTrash, isPresent(record("directory")));
        EXPECT_EQ(bInTrash, report.InBoth.size() == 1);
        const fs::path inner =
            bInTrash ? item("directory") / "inner.txt" : far("directory/inner.txt");
        EXPECT_EQ(readFile(inner), "inner");
        const std::string both =
            "; " + inQuotes(far("directory")) + " is also at " + inQuotes(item("directory"));
        EXPECT_EQ(TavroDescribe(report).find(both) != std::string::npos, bInTrash)
            << TavroDescribe(report);
    });
}

TEST_F(TrashFromAfar, of_what_cannot_be_read_changes_nothing) {
    fs::permissions(home(), fs::perms(0777));
    runUnprivileged(farDirectory(), [&] {
        writeFile(far("directory/secret.txt"), "secret");
        fs::permissions(far("directory/secret.txt"), fs::perms(0));
        trashInVain({far("directory")});
        EXPECT_EQ(readFile(far("directory/inner.txt")), "inner");
        EXPECT_TRUE(isPresent(far("directory/secret.txt")));
        expectEmptyTrash();
    });
}

TEST_F(RestoreToAfar, brings_everything_back_with_one_progress) {
    const Snapshot before = takeSnapshot(farDirectory());
    const auto list = trash(all());
    std::vector<TavroProgress> told;
    restore(list, watch(told));
    EXPECT_EQ(takeSnapshot(farDirectory()), before);
    expectEmptyTrash();
    expectOneWhole(told);
}

TEST_F(RestoreToAfar, tells_of_each_copy_that_waits_for_its_name) {
    const auto list = trash({far("directory")});
    std::vector<TavroStep> told;
    TavroCallbacks callbacks;
    callbacks.BeforeActs = [&](TavroOperationKind kind, const std::vector<TavroStep>& steps) {
        EXPECT_EQ(kind, TavroOperationKind::Restore);
        if (!steps.at(0).Staged.empty()) {
            EXPECT_EQ(steps[0].Source, identityOf(farDirectory() / steps[0].Staged));
        }
        told.insert(told.end(), steps.begin(), steps.end());
        return TavroFailure();
    };
    restore(list, callbacks);
    ASSERT_EQ(told.size(), 2U);
    for (const TavroStep& step : told) {
        EXPECT_EQ(step.Role, TavroStepRole::Trashed);
        EXPECT_EQ(step.From, far("directory"));
        EXPECT_EQ(step.To, item("directory"));
        EXPECT_EQ(step.Record, record("directory"));
        EXPECT_EQ(step.Identity, list[0].Item);
    }
    EXPECT_EQ(told[0].Staged, "");
    EXPECT_NE(told[1].Staged, "");
}

TEST_F(RestoreToAfar, of_what_cannot_leave_the_trash_says_why_and_changes_nothing) {
    const auto list = trash({far("directory")});
    const FaultInjector faults({{"unlinkat", EIO, item("directory").string(), 1, true}});
    const std::string why = "Cannot remove " + inQuotes(item("directory"));
    EXPECT_NE(TavroDescribe(restoreInVain(list)).find("; " + why), std::string::npos);
    EXPECT_TRUE(faults.eachFired());
    EXPECT_EQ(readFile(item("directory") / "inner.txt"), "inner");
    EXPECT_TRUE(isPresent(record("directory")));
    EXPECT_FALSE(isPresent(far("directory")));
}

TEST_F(RestoreToAfar, of_what_stays_in_the_trash_keeps_its_record) {
    const auto list = trash({far("directory")});
    const FaultInjector faults({{"unlinkat", EIO, item("directory").string(), 2, true}});
    const TavroTrashReport report = restoreInVain(list);
    EXPECT_TRUE(faults.eachFired());
    EXPECT_EQ(report.InBoth.size(), 1U) << TavroDescribe(report);
    EXPECT_TRUE(isPresent(item("directory")) && isPresent(record("directory")));
    EXPECT_EQ(readFile(far("directory/inner.txt")), "inner");
}

TEST_F(RestoreToAfar, measures_what_goes_into_directories_that_are_still_missing) {
    auto list = trash({far("big.bin")});
    list[0].Entry.OriginalPath = far("new/newer/big.bin").string();
    std::vector<TavroProgress> told;
    restore(list, watch(told));
    EXPECT_EQ(readFile(far("new/newer/big.bin")), std::string(3000000, 'b'));
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back().BytesDone, 3000000U);
    EXPECT_EQ(told.back().ByteCount, 3000000U);
}

TEST_F(RestoreToAfar, brings_a_link_that_was_taken_for_a_file_back_as_a_link) {
    writeFile(far("target"), "target");
    fs::create_symlink(far("target"), far("live"));
    auto list = trash({far("live")});
    list[0].Entry.bDirectory = false;
    restore(list);
    EXPECT_EQ(fs::read_symlink(far("live")), far("target"));
    EXPECT_FALSE(isPresent(item("live")));
}

TEST_F(RestoreToAfar, that_is_cancelled_leaves_everything_in_the_trash) {
    const auto list = trash(all());
    const Snapshot before = takeSnapshot(root());
    auto again = list;
    int cancelled = 0;
    for (int time = 1;; ++time) {
        const TavroTrashReport report =
            TavroRestoreSelection(again, whenAsked(time, [] { return true; }));
        if (!report.Batch.Failure) {
            break;
        }
        ++cancelled;
        ASSERT_EQ(TavroDescribe(report), "Cancelled");
        ASSERT_EQ(takeSnapshot(root()), before);
        ASSERT_TRUE(fs::is_empty(farDirectory()));
        for (TavroTrashedEntry& entry : again) { // a copy that went back is another file
            entry.Item = identityOf(entry.Entry.TrashPath);
        }
    }
    EXPECT_GT(cancelled, 3);
}
