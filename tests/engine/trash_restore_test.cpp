// Bringing back what lies in the trash.

#include "trash.h"

#include "trash_fixture.h"

#include <algorithm>
#include <cerrno>

using namespace tavro_trash_test;

namespace {

using RestoreSelection = HomeWithTrash;

} // namespace

TEST_F(RestoreSelection, brings_everything_back_and_drops_the_records) {
    makeDirectory(docs() / "directory");
    doc("a.txt");
    const Snapshot before = takeSnapshot(docs());
    restore(trash({docs() / "a.txt", docs() / "directory"}));
    EXPECT_EQ(takeSnapshot(docs()), before);
    expectEmptyTrash();
}

TEST_F(RestoreSelection, tells_what_comes_back_before_anything_does) {
    const auto list = trash({doc("new/a.txt")});
    fs::remove(docs() / "new");
    int asked = 0;
    TavroCallbacks callbacks;
    callbacks.BeforeActs = [&](TavroOperationKind kind, const std::vector<TavroStep>& steps) {
        ++asked;
        EXPECT_EQ(kind, TavroOperationKind::Restore);
        EXPECT_EQ(steps.size(), 2U);
        EXPECT_EQ(steps.at(0).From, docs() / "new/a.txt");
        EXPECT_EQ(steps.at(0).To, item("a.txt"));
        EXPECT_EQ(steps.at(1).Role, TavroStepRole::RemovedDirectory);
        EXPECT_EQ(steps.at(1).From, docs() / "new");
        return TavroFailure{TavroFailureKind::HistoryBusy};
    };
    EXPECT_EQ(restoreInVain(list, callbacks).Batch.Failure.Kind, TavroFailureKind::HistoryBusy);
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(isPresent(item("a.txt")) && isPresent(record("a.txt")));
    EXPECT_FALSE(isPresent(docs() / "new"));
    EXPECT_EQ(TavroDescribe(TavroRestoreSelection(list, callbacks, true)), "");
    EXPECT_EQ(asked, 1) << "it is known";
}

TEST_F(RestoreSelection, is_on_the_disk_with_its_records_when_it_is_done) {
    const auto list = trash({doc("a.txt")});
    bool bOnDisk = false;
    const CallObserver observer([&](const std::string& call, const std::string&) {
        const bool bSyncs = call == "fsync" || call == "syncfs";
        bOnDisk = (bOnDisk || bSyncs) && !isPresent(record("a.txt"));
    });
    restore(list);
    EXPECT_TRUE(bOnDisk);
}

TEST_F(RestoreSelection, refuses_an_empty_list) {
    EXPECT_EQ(TavroDescribe(restoreInVain({})), "Nothing to restore");
}

TEST_F(RestoreSelection, refuses_two_entries_for_one_place_however_it_is_spelt) {
    auto list = trash({doc("a.txt", "old")});
    list.push_back(trash({doc("a.txt", "new")})[0]);
    const Snapshot before = takeSnapshot(sandbox());
    EXPECT_EQ(TavroDescribe(restoreInVain(list)),
              "Cannot restore two entries to " + inQuotes(docs() / "a.txt"));
    fs::create_directory_symlink(docs(), home() / "way");
    list[1].Entry.OriginalPath = (home() / "way/a.txt").string();
    EXPECT_EQ(TavroDescribe(restoreInVain(list)),
              "Cannot restore two entries to " + inQuotes(list[1].Entry.OriginalPath));
    fs::remove(home() / "way");
    EXPECT_EQ(takeSnapshot(sandbox()), before);
}

TEST_F(RestoreSelection, refuses_one_entry_twice) {
    auto list = trash({doc("a.txt")});
    list.push_back(list[0]);
    list[1].Entry.OriginalPath += " again";
    EXPECT_EQ(TavroDescribe(restoreInVain(list)), inQuotes(item("a.txt")) + " is listed twice");
    EXPECT_TRUE(isPresent(item("a.txt")));
}

TEST_F(RestoreSelection, refuses_a_place_that_is_taken_be_it_by_a_dangling_link) {
    const auto list = trash({doc("a.txt"), doc("b.txt")});
    const std::string sentence =
        "Cannot restore " + inQuotes(docs() / "b.txt") + ": something is there";
    const std::vector<std::function<void()>> takings = {[&] { doc("b.txt", "other"); },
                                                        [&] { makeDirectory(docs() / "b.txt"); },
                                                        [&] { link("b.txt", "nowhere"); }};
    for (const std::function<void()>& take : takings) {
        take();
        const Snapshot before = takeSnapshot(sandbox());
        EXPECT_EQ(TavroDescribe(restoreInVain(list)), sentence);
        EXPECT_EQ(takeSnapshot(sandbox()), before);
        fs::remove(docs() / "b.txt");
    }
}

TEST_F(RestoreSelection, refuses_an_item_that_is_missing) {
    const auto list = trash({doc("a.txt"), doc("b.txt")});
    fs::remove(item("b.txt"));
    EXPECT_EQ(TavroDescribe(restoreInVain(list)),
              inQuotes(item("b.txt")) + " is no longer in the trash");
    EXPECT_TRUE(isPresent(item("a.txt")));
}

TEST_F(RestoreSelection, refuses_what_took_the_name_of_an_item) {
    auto list = trash({doc("a.txt"), doc("b.txt")});
    fs::rename(item("b.txt"), sandbox() / "kept"); // its inode stays in use
    writeFile(item("b.txt"), "theirs");
    const Snapshot before = takeSnapshot(sandbox());
    EXPECT_EQ(TavroDescribe(restoreInVain(list)),
              inQuotes(item("b.txt")) + " changed in the meantime and was left alone");
    EXPECT_EQ(takeSnapshot(sandbox()), before);
    list[1].Item = {}; // which file it was is not known
    restore(list);
    EXPECT_EQ(readFile(docs() / "b.txt"), "theirs");
}

TEST_F(RestoreSelection, refuses_to_leave_the_volume_of_the_item_by_a_link) {
    auto list = trash({doc("a.txt")});
    makeDirectory(docs() / "volume");
    list[0].Volume = (docs() / "volume").string();
    link("volume/out", home());
    const Snapshot before = takeSnapshot(sandbox());
    for (const char* place : {"volume/out/a.txt", "volumes.txt"}) {
        list[0].Entry.OriginalPath = (docs() / place).string();
        EXPECT_EQ(TavroDescribe(restoreInVain(list)), "Cannot restore " + inQuotes(docs() / place) +
                                                          ": a link in its path leads out of " +
                                                          inQuotes(docs() / "volume"));
        EXPECT_EQ(takeSnapshot(sandbox()), before);
    }
    list[0].Entry.OriginalPath = (docs() / "volume/new/a.txt").string();
    restore(list);
    EXPECT_EQ(readFile(docs() / "volume/new/a.txt"), "bytes");
}

TEST_F(RestoreSelection, refuses_a_place_that_is_not_known) {
    const ScopedCurrentDirectory there(docs());
    for (const std::string place : {"", "a.txt"}) {
        auto list = trash({doc("a.txt")});
        list[0].Entry.OriginalPath = place;
        EXPECT_EQ(TavroDescribe(restoreInVain(list)),
                  "Cannot tell where " + inQuotes(list[0].Entry.TrashPath) + " came from");
        EXPECT_TRUE(isPresent(list[0].Entry.TrashPath));
    }
}

TEST_F(RestoreSelection, says_why_a_place_cannot_be_examined) {
    doc("locked/a.txt");
    runUnprivileged(sandbox(), [&] {
        const auto list = trash({docs() / "locked/a.txt"});
        fs::permissions(docs() / "locked", fs::perms(0));
        EXPECT_EQ(TavroDescribe(restoreInVain(list)), "Cannot look at " +
                                                          inQuotes(docs() / "locked/a.txt") + ": " +
                                                          systemText(std::errc::permission_denied));
        EXPECT_TRUE(isPresent(item("a.txt")));
    });
}

TEST_F(RestoreSelection, creates_missing_parents_for_the_user_alone) {
    const auto list = trash({doc("one/two/a.txt")});
    fs::remove_all(docs() / "one");
    const ScopedUmask open(0);
    restore(list);
    EXPECT_EQ(modeOf(docs() / "one"), 0700U);
    EXPECT_EQ(modeOf(docs() / "one/two"), 0700U);
}

TEST_F(RestoreSelection, brings_links_back_as_links_dangling_or_not) {
    doc("a.txt");
    link("live", docs() / "a.txt");
    link("relative", "a.txt");
    link("dangling", "nowhere");
    const Snapshot before = takeSnapshot(docs());
    restore(trash({docs() / "live", docs() / "dangling", docs() / "relative", docs() / "a.txt"}));
    EXPECT_EQ(takeSnapshot(docs()), before);
    expectEmptyTrash();
}

TEST_F(RestoreSelection, brings_a_directory_back_before_what_was_in_it) {
    doc("directory/a.txt");
    auto list = trash({docs() / "directory/a.txt"});
    list.push_back(trash({docs() / "directory"})[0]);
    restore(list);
    EXPECT_EQ(readFile(docs() / "directory/a.txt"), "bytes");
    expectEmptyTrash();
}

TEST_F(RestoreSelection, does_not_replace_what_came_back_with_a_directory) {
    doc("directory/a.txt", "old");
    auto list = trash({docs() / "directory/a.txt"});
    doc("directory/a.txt", "new");
    list.insert(list.begin(), trash({docs() / "directory"})[0]);
    const Snapshot before = takeSnapshot(sandbox());
    const TavroTrashReport report = restoreInVain(list);
    EXPECT_EQ(report.Batch.Failure.Path, (docs() / "directory/a.txt").string());
    EXPECT_EQ(takeSnapshot(sandbox()), before);
}

TEST_F(RestoreSelection, that_is_cancelled_at_once_changes_nothing) {
    const auto list = trash({doc("a.txt")});
    const Snapshot before = takeSnapshot(sandbox());
    EXPECT_EQ(TavroDescribe(restoreInVain(list, whenAsked(1, [] { return true; }))), "Cancelled");
    EXPECT_EQ(takeSnapshot(sandbox()), before);
}

TEST_F(RestoreSelection, that_is_cancelled_between_two_moves_leaves_the_trash_as_it_was) {
    const auto list = trash({link("1", "nowhere"), doc("new/2")});
    fs::remove(docs() / "new");
    const Snapshot before = takeSnapshot(sandbox());
    bool bHalfWay = false;
    const auto callbacks = whenAsked(2, [&] {
        bHalfWay = isPresent(docs() / "1") && isPresent(record("1")) && isPresent(item("2"));
        return true;
    });
    EXPECT_EQ(TavroDescribe(restoreInVain(list, callbacks)), "Cancelled");
    EXPECT_TRUE(bHalfWay);
    EXPECT_EQ(takeSnapshot(sandbox()), before);
}

TEST_F(RestoreSelection, writes_no_record_when_it_is_taken_back) {
    const auto list = trash({doc("1"), doc("2")});
    bool bWritten = false;
    const CallObserver observer([&](const std::string& call, const std::string&) {
        bWritten = bWritten || call == "pwrite" || call == "unlinkat";
    });
    restoreInVain(list, whenAsked(2, [] { return true; }));
    EXPECT_FALSE(bWritten);
}

TEST_F(RestoreSelection, keeps_all_records_until_all_is_back) {
    const auto list = trash({doc("1"), doc("2")});
    bool bAllBack = false;
    BeforeCall look("unlinkat", ".trashinfo", [&] {
        bAllBack = isPresent(docs() / "1") && isPresent(docs() / "2") && isPresent(record("1")) &&
                   isPresent(record("2"));
    });
    restore(list);
    EXPECT_TRUE(bAllBack);
    expectEmptyTrash();
}

TEST_F(RestoreSelection, says_what_stays_restored_and_drops_its_record) {
    const auto list = trash({link("1", "nowhere"), doc("2")});
    const auto callbacks = whenAsked(2, [&] {
        writeFile(item("1"), "theirs");
        return true;
    });
    const TavroTrashReport report = restoreInVain(list, callbacks);
    const std::string text = TavroDescribe(report);
    const std::string end = "; " + inQuotes(docs() / "1") + " stays restored";
    EXPECT_EQ(text.rfind("Cancelled; moving back failed: ", 0), 0U) << text;
    EXPECT_EQ(text.substr(text.size() - std::min(text.size(), end.size())), end) << text;
    EXPECT_EQ(fs::read_symlink(docs() / "1"), "nowhere");
    EXPECT_EQ(readFile(item("1")), "theirs");
    EXPECT_FALSE(isPresent(record("1")));
    EXPECT_TRUE(isPresent(item("2")) && isPresent(record("2")));
}

TEST_F(RestoreSelection, neither_replaces_nor_claims_what_came_to_an_original_place_meanwhile) {
    const auto list = trash({doc("1"), link("2", "nowhere")});
    const auto callbacks = whenAsked(2, [&] {
        writeFile(docs() / "2", "theirs");
        return false;
    });
    const TavroTrashReport report = restoreInVain(list, callbacks);
    EXPECT_EQ(report.Batch.Failure.Kind, TavroFailureKind::RestoreTargetTaken);
    EXPECT_EQ(TavroDescribe(report),
              "Cannot restore " + inQuotes(docs() / "2") + ": something is there");
    EXPECT_EQ(readFile(docs() / "2"), "theirs");
    EXPECT_EQ(fs::read_symlink(item("2")), "nowhere");
    EXPECT_FALSE(isPresent(docs() / "1"));
    EXPECT_EQ(pathLine("1"), "Path=" + (docs() / "1").string());
}

TEST_F(RestoreSelection, follows_no_link_that_took_the_place_of_a_directory) {
    std::vector<fs::path> paths;
    for (int i = 0; i < 20; ++i) { // more than are kept open
        paths.push_back(doc(std::to_string(i) + "/a"));
    }
    makeDirectory(sandbox() / "elsewhere");
    const auto list = trash(paths);
    const Snapshot before = takeSnapshot(root());
    const auto callbacks = whenAsked(1, [&] {
        fs::remove(docs() / "7");
        fs::create_directory_symlink(sandbox() / "elsewhere", docs() / "7");
        return false;
    });
    const TavroTrashReport report = restoreInVain(list, callbacks);
    EXPECT_EQ(report.Batch.Failure.Error.value(), ESTALE) << TavroDescribe(report);
    EXPECT_TRUE(report.Batch.RollBack.empty());
    EXPECT_TRUE(fs::is_empty(sandbox() / "elsewhere"));
    EXPECT_EQ(takeSnapshot(root()), before);
}

TEST_F(RestoreSelection, brings_back_through_links_that_were_there_before) {
    auto list = trash({doc("a.txt")});
    fs::create_directory_symlink(docs(), sandbox() / "way");
    list[0].Entry.OriginalPath = (sandbox() / "way/new/a.txt").string();
    restore(list);
    EXPECT_TRUE(isPresent(docs() / "new/a.txt"));
}

TEST_F(RestoreSelection, moves_no_stranger_back_into_the_trash) {
    const auto list = trash({doc("1", "ours"), doc("2")});
    const auto callbacks = whenAsked(2, [&] {
        fs::rename(docs() / "1", docs() / "renamed");
        writeFile(docs() / "1", "theirs");
        return true;
    });
    const TavroTrashReport report = restoreInVain(list, callbacks);
    EXPECT_EQ(report.Batch.RollBack.size(), 1U);
    EXPECT_EQ(readFile(docs() / "1"), "theirs");
    EXPECT_EQ(readFile(docs() / "renamed"), "ours");
    EXPECT_FALSE(isPresent(item("1")));
}

TEST_F(RestoreSelection, removes_no_file_but_the_record_beside_the_item) {
    auto list = trash({doc("a.txt")});
    writeFile(sandbox() / "precious");
    list[0].Entry.InfoPath = (sandbox() / "precious").string();
    restore(list);
    EXPECT_TRUE(isPresent(sandbox() / "precious"));
    EXPECT_FALSE(isPresent(record("a.txt")));
}

TEST_F(RestoreSelection, costs_an_entry_the_same_however_many_there_are) {
    const auto callsFor = [&](int count) {
        std::vector<fs::path> paths;
        for (int i = 0; i < count; ++i) {
            paths.push_back(doc(std::to_string(i)));
        }
        const auto list = trash(paths);
        CallCounts counts;
        restore(list);
        return counts.all();
    };
    // Item and place are looked at; a rename, a look at what arrived, and the record goes.
    const int few = callsFor(20);
    EXPECT_EQ(callsFor(40) - few, 20 * 5);
    // Of many the names at the original place are read at once.
    const int many = callsFor(100);
    EXPECT_EQ(callsFor(200) - many, 100 * 4);
}
