// What becomes of an entry whose place is taken.

#include "transfer_fixture.h"

#include <thread>

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_transfer_test;

namespace {

/// A file and a directory on both sides.
class TransferConflicts : public TransferTest {
protected:
    TransferConflicts() {
        writeFile(source("file"), "new");
        writeFile(target("file"), "old");
        writeFile(source("tree/both"), "new in tree");
        writeFile(target("tree/both"), "old in tree");
        writeFile(source("tree/only here"), "1");
        writeFile(target("tree/only there"), "2");
        writeFile(source("kind"), "a file");
        writeFile(target("kind/inside"), "of a directory");
        makeDirectory(source("other kind"));
        writeFile(source("other kind/inside"), "of the new directory");
        writeFile(target("other kind"), "an old file");
    }
};

TEST_F(TransferConflicts, without_anybody_to_ask_conflicts_are_skipped) {
    const Snapshot there = takeSnapshot(target("file"));
    for (const bool bMove : {false, true}) {
        EXPECT_TRUE(run(bMove, {"file", "kind", "other kind"}));
        EXPECT_EQ("skipped /source/file\nskipped /source/kind\nskipped /source/other kind\n",
                  report());
        EXPECT_EQ("new", readFile(source("file")));
    }
    EXPECT_EQ(there, takeSnapshot(target("file")));
}

TEST_F(TransferConflicts, under_skip_nobody_is_asked) {
    answer(TavroConflictChoice::Overwrite);
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Skip;
    EXPECT_TRUE(copy({"file", "kind", "tree"}));
    EXPECT_EQ("", m_asked);
    EXPECT_EQ("done /source/tree/only here -> /target/tree/only here\n"
              "skipped /source/file\nskipped /source/kind\nskipped /source/tree/both\n",
              report());
}

TEST_F(TransferConflicts, what_is_in_the_way_comes_before_what_cannot_be_read) {
    fs::permissions(source("file"), fs::perms::none);
    bindSocket(source("socket"));
    writeFile(target("socket"), "old");
    runUnprivileged(m_box.path(), [&] {
        EXPECT_TRUE(copy({"file"}));
        EXPECT_EQ("skipped /source/file\n", report());
        EXPECT_TRUE(copy({"socket"}));
        EXPECT_EQ("skipped /source/socket\n", report());
    });
}

TEST_F(TransferConflicts, overwrite_replaces_files_and_merges_directories) {
    answer(TavroConflictChoice::Stop);
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(copy({"file", "tree"}));
    EXPECT_EQ("", m_asked);
    EXPECT_EQ("new", readFile(target("file")));
    EXPECT_EQ("new in tree", readFile(target("tree/both")));
    EXPECT_EQ("1", readFile(target("tree/only here")));
    EXPECT_EQ("2", readFile(target("tree/only there")));
    EXPECT_EQ("new", readFile(source("file")));
}

TEST_F(TransferConflicts, overwrite_asks_before_a_directory_and_something_else_replace_each_other) {
    answer(TavroConflictChoice::Skip);
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(copy({"kind", "other kind"}));
    EXPECT_EQ("/source/kind -> /target/kind onto directory\n"
              "/source/other kind -> /target/other kind directory\n",
              m_asked);
    EXPECT_EQ("of a directory", readFile(target("kind/inside")));
    EXPECT_EQ("an old file", readFile(target("other kind")));
}

TEST_F(TransferConflicts, a_directory_and_something_else_replace_each_other_when_so_answered) {
    for (const bool bMove : {false, true}) {
        fs::remove_all(target());
        writeFile(target("kind/inside"), "of a directory");
        writeFile(target("other kind"), "an old file");
        answer(TavroConflictChoice::Overwrite);
        EXPECT_TRUE(run(bMove, {"kind", "other kind"}));
        EXPECT_EQ("done /source/kind -> /target/kind replaced\n"
                  "done /source/other kind -> /target/other kind replaced\n",
                  report());
        EXPECT_EQ("a file", readFile(target("kind")));
        EXPECT_EQ("of the new directory", readFile(target("other kind/inside")));
        EXPECT_EQ(!bMove, isPresent(source("kind")));
        EXPECT_EQ(!bMove, isPresent(source("other kind")));
        EXPECT_EQ("", debris());
    }
}

TEST_F(TransferConflicts, a_directory_and_something_else_replace_each_other_between_file_systems) {
    TARGET_ELSEWHERE();
    writeFile(target("kind/inside"), "of a directory");
    writeFile(target("other kind"), "an old file");
    answer(TavroConflictChoice::Overwrite);
    EXPECT_TRUE(move({"kind", "other kind"}));
    EXPECT_EQ("a file", readFile(target("kind")));
    EXPECT_EQ("of the new directory", readFile(target("other kind/inside")));
    EXPECT_FALSE(isPresent(source("kind")));
    EXPECT_FALSE(isPresent(source("other kind")));
    EXPECT_EQ("", debris());
}

TEST_F(TransferConflicts, what_could_not_be_replaced_is_back_in_its_place) {
    makeDirectory(source("other kind"));
    bindSocket(source("other kind/socket"));
    TARGET_ELSEWHERE();
    writeFile(target("other kind"), "an old file");
    answer(TavroConflictChoice::Overwrite);
    EXPECT_FALSE(move({"other kind"}));
    EXPECT_EQ("an old file", readFile(target("other kind")));
    EXPECT_EQ("of the new directory", readFile(source("other kind/inside")));
    EXPECT_EQ("", debris());
}

TEST_F(TransferConflicts, what_is_replaced_lies_in_the_trash) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        for (const bool bMove : {false, true}) {
            fs::remove_all(trashed(""));
            fs::remove_all(target());
            writeFile(source("file"), "new");
            writeFile(source("kind"), "a file");
            writeFile(source("other kind/inside"), "of the new directory");
            writeFile(target("file"), "old");
            writeFile(target("kind/inside"), "of a directory");
            writeFile(target("other kind"), "an old file");
            answer(TavroConflictChoice::Overwrite);
            EXPECT_TRUE(run(bMove, {"file", "kind", "other kind"})) << report();
            EXPECT_EQ("new", readFile(target("file")));
            EXPECT_EQ("old", readFile(trashed("file")));
            EXPECT_EQ("of a directory", readFile(trashed("kind/inside")));
            EXPECT_EQ("an old file", readFile(trashed("other kind")));
            ASSERT_EQ(3U, m_report.Replaced.size());
            EXPECT_EQ(target("file").string(), m_report.Replaced[0].From);
            EXPECT_EQ(trashed("file").string(), m_report.Replaced[0].To);
            EXPECT_NE(std::string::npos,
                      readFile(m_report.Replaced[0].Record).find(target("file").string()));
            EXPECT_EQ("", debris());
            fs::remove_all(m_home / ".local/share/Trash");
        }
    }
}

TEST_F(TransferConflicts, what_is_replaced_is_deleted_when_it_is_not_to_be_kept) {
    m_callbacks.bKeepReplaced = false;
    answer(TavroConflictChoice::Overwrite);
    for (const bool bMove : {false, true}) {
        writeFile(source("file"), "new");
        EXPECT_TRUE(run(bMove, {"file", "kind"})) << report();
        EXPECT_EQ("new", readFile(target("file")));
        EXPECT_EQ("a file", readFile(target("kind")));
        EXPECT_TRUE(m_report.Replaced.empty());
        EXPECT_FALSE(isPresent(trashed("")));
        EXPECT_EQ("", debris());
    }
}

TEST_F(TransferConflicts, what_cannot_be_exchanged_steps_aside) {
    for (const int error : {EINVAL, ENOSYS}) {
        for (const bool bMove : {false, true}) {
            fs::remove_all(target());
            writeFile(source("kind"), "a file");
            writeFile(source("other kind/inside"), "of the new directory");
            writeFile(target("kind/inside"), "of a directory");
            writeFile(target("other kind"), "an old file");
            answer(TavroConflictChoice::Overwrite);
            {
                const FaultInjector faults(
                    {{"renameat2", error, "/.tavro-", 1, true, false, target("kind")},
                     {"renameat2", error, "/.tavro-", 1, true, false, target("other kind")}});
                EXPECT_TRUE(run(bMove, {"kind", "other kind"})) << report();
            }
            EXPECT_EQ("a file", readFile(target("kind")));
            EXPECT_EQ("of the new directory", readFile(target("other kind/inside")));
            EXPECT_EQ(2, std::distance(fs::directory_iterator(target()), {}));
            EXPECT_EQ("of a directory", readFile(trashed("kind/inside")));
            fs::remove_all(m_home / ".local/share/Trash");
        }
    }
}

TEST_F(TransferConflicts, at_every_call_of_a_replacing_the_name_is_there_and_nothing_is_lost) {
    answer(TavroConflictChoice::Overwrite);
    for (const bool bMove : {false, true}) {
        fs::remove_all(target());
        writeFile(source("other kind/inside"), "of the new directory");
        writeFile(target("other kind"), "an old file");
        int calls = 0;
        {
            const CallObserver observer([&](const std::string&, const std::string&) {
                ++calls;
                EXPECT_TRUE(isPresent(target("other kind")));
            });
            EXPECT_TRUE(run(bMove, {"other kind"}));
        }
        EXPECT_LT(10, calls);
    }
}

TEST_F(TransferConflicts, what_is_exchanged_at_the_last_moment_is_kept_too) {
    answer(TavroConflictChoice::Overwrite);
    const auto observer = beforeNaming(target("other kind"), [&] {
        if (readFile(target("other kind")) == "an old file") {
            fs::rename(target("other kind"), target("old"));
            writeFile(target("other kind"), "of somebody else");
        }
    });
    EXPECT_TRUE(copy({"other kind"}));
    EXPECT_EQ("of the new directory", readFile(target("other kind/inside")));
    EXPECT_EQ("of somebody else", readFile(trashed("other kind")));
    EXPECT_EQ("an old file", readFile(target("old")));
}

TEST_F(TransferConflicts, nothing_is_replaced_before_the_new_has_reached_the_disk) {
    answer(TavroConflictChoice::Overwrite);
    const Snapshot before = takeSnapshot(m_box.path());
    const FaultInjector faults({{"syncfs", EIO, "", 1}});
    EXPECT_FALSE(copy({"other kind"}));
    EXPECT_EQ("failed: Cannot write '/target/other kind': " + systemText(std::errc::io_error) +
                  "\n",
              report());
    EXPECT_EQ(before, takeSnapshot(m_box.path()));
}

TEST_F(TransferConflicts, what_follows_something_that_was_skipped_is_copied_as_itself) {
    fs::create_symlink("nowhere", source("link"));
    bindSocket(source("socket"));
    answer(TavroConflictChoice::Skip);
    EXPECT_TRUE(copy({"file", "link"})) << report();
    EXPECT_EQ("old", readFile(target("file")));
    EXPECT_EQ("nowhere", fs::read_symlink(target("link")));
    EXPECT_FALSE(copy({"file", "socket"}));
    EXPECT_FALSE(isPresent(target("socket")));
}

TEST_F(TransferConflicts, each_answer_to_each_conflict) {
    answer(TavroConflictChoice::Overwrite);
    EXPECT_TRUE(copy({"file"}));
    EXPECT_EQ("/source/file -> /target/file\n", m_asked);
    EXPECT_EQ("done /source/file -> /target/file replaced\n", report());
    EXPECT_EQ("new", readFile(target("file")));

    writeFile(target("file"), "old");
    answer(TavroConflictChoice::Skip);
    EXPECT_TRUE(copy({"file"}));
    EXPECT_EQ("skipped /source/file\n", report());
    EXPECT_EQ("old", readFile(target("file")));

    answer(TavroConflictChoice::Stop);
    EXPECT_FALSE(copy({"file", "tree"}));
    EXPECT_EQ("cancelled\n", report());
    EXPECT_EQ("old", readFile(target("file")));
    EXPECT_FALSE(isPresent(target("tree/only here")));
}

TEST_F(TransferConflicts, keeping_both_goes_to_a_free_name_and_says_so_in_the_plan) {
    writeFile(source("a.txt"), "new");
    writeFile(target("a.txt"), "old");
    writeFile(target("a copy 1.txt"), "older");
    fs::create_symlink("nowhere", target("a copy 2.txt"));
    add("a.txt", "a.txt");
    answer(TavroConflictChoice::KeepBoth);
    for (const bool bMove : {false, true}) {
        m_plan.bMove = bMove;
        m_plan.Items.front().DestinationPath = target("a.txt");
        EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
        const fs::path free = target(bMove ? "a copy 4.txt" : "a copy 3.txt");
        EXPECT_EQ(free, m_plan.Items.front().DestinationPath);
        EXPECT_TRUE(m_plan.Items.front().bDestinationRenamed);
        EXPECT_EQ("new", readFile(free));
    }
    EXPECT_EQ("old", readFile(target("a.txt")));
    EXPECT_FALSE(isPresent(source("a.txt")));
    EXPECT_EQ("done /source/a.txt -> /target/a copy 4.txt\n", report());
}

TEST_F(TransferConflicts, a_new_name_is_taken_and_asked_about_again_when_that_is_taken) {
    writeFile(target("taken"), "older");
    add("file", "file");
    m_callbacks.OnConflict = [this](const TavroTransferConflict& conflict) {
        m_asked += shortened(conflict.DestinationPath + "\n");
        const bool bFirst = conflict.DestinationPath == target("file");
        return TavroConflictAnswer{TavroConflictChoice::Rename, false, bFirst ? "taken" : "fresh"};
    };
    EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
    EXPECT_EQ("/target/file\n/target/taken\n", m_asked);
    EXPECT_EQ("done /source/file -> /target/fresh\n", report());
    EXPECT_EQ(target("fresh"), m_plan.Items.front().DestinationPath);
    EXPECT_TRUE(m_plan.Items.front().bDestinationRenamed);
    EXPECT_EQ("new", readFile(target("fresh")));
    EXPECT_EQ("older", readFile(target("taken")));
}

TEST_F(TransferConflicts, what_is_older_is_overwritten_alone) {
    writeFile(source("late"), "new");
    writeFile(target("late"), "newer");
    const auto now = fs::last_write_time(source("late"));
    fs::last_write_time(target("late"), now); // no older
    fs::last_write_time(target("file"), now - std::chrono::hours(1));
    fs::last_write_time(source("file"), now);
    for (const bool bAnswered : {false, true}) {
        writeFile(target("file"), "old");
        fs::last_write_time(target("file"), now - std::chrono::hours(1));
        m_callbacks.bOverwriteOlder = !bAnswered;
        answer(bAnswered ? TavroConflictChoice::OverwriteOlder : TavroConflictChoice::Skip, true);
        EXPECT_TRUE(copy({"file", "late", "kind"}));
        EXPECT_EQ("done /source/file -> /target/file replaced\n"
                  "skipped /source/late\nskipped /source/kind\n",
                  report());
        EXPECT_EQ("newer", readFile(target("late")));
    }
    EXPECT_EQ("/source/kind -> /target/kind onto directory\n"
              "/source/file -> /target/file\n"
              "/source/kind -> /target/kind onto directory\n",
              m_asked);
}

TEST_F(TransferConflicts, what_is_put_off_is_asked_about_when_everything_else_is_ready) {
    writeFile(source("last"), "no conflict");
    for (const bool bForAll : {false, true}) {
        for (const bool bMove : {false, true}) {
            fs::remove_all(target());
            writeFile(source("file"), "new");
            writeFile(target("file"), "old");
            writeFile(source("tree/deep/both"), "new in tree");
            writeFile(target("tree/deep/both"), "old in tree");
            writeFile(source("last"), "no conflict");
            m_asked.clear();
            m_callbacks.OnConflict = [&](const TavroTransferConflict& conflict) {
                m_asked += shortened(conflict.DestinationPath) + (conflict.bCanWait ? "" : " now") +
                           (debris().find("target") == std::string::npos ? "\n" : ", rest ready\n");
                return TavroConflictAnswer{conflict.bCanWait ? TavroConflictChoice::Later
                                                             : TavroConflictChoice::Overwrite,
                                           conflict.bCanWait && bForAll};
            };
            EXPECT_TRUE(run(bMove, {"file", "tree/deep", "last"})) << report();
            const std::string ready = bMove ? "" : ", rest ready";
            EXPECT_EQ(std::string("/target/file\n") + (bForAll ? "" : "/target/tree/deep/both\n") +
                          "/target/file now" + ready + "\n/target/tree/deep/both now" + ready +
                          "\n",
                      m_asked);
            EXPECT_EQ("done /source/last -> /target/last\n"
                      "done /source/file -> /target/file replaced\n"
                      "done /source/tree/deep/both -> /target/tree/deep/both replaced\n",
                      report());
            EXPECT_EQ("new", readFile(target("file")));
            EXPECT_EQ("new in tree", readFile(target("tree/deep/both")));
            EXPECT_EQ(!bMove, isPresent(source("tree/deep"))); // which a move has emptied at last
            EXPECT_EQ("", debris());
        }
    }
}

TEST_F(TransferConflicts,
       a_directory_that_is_emptied_by_what_was_put_off_is_removed_and_told_once) {
    writeFile(source("late/file"), "is where the file was");
    add("tree", "tree");
    add("file", "new name");
    add("late/file", "new name"); // which brings what waits to its place first
    std::vector<TavroStep> steps;
    m_callbacks.BeforeActs = [&](TavroOperationKind, const std::vector<TavroStep>& more) {
        steps.insert(steps.end(), more.begin(), more.end());
        return TavroFailure();
    };
    m_callbacks.OnConflict = [](const TavroTransferConflict& conflict) {
        return TavroConflictAnswer{conflict.bCanWait ? TavroConflictChoice::Later
                                                     : TavroConflictChoice::KeepBoth};
    };
    EXPECT_TRUE(move()) << report();
    EXPECT_FALSE(isPresent(source("tree")));
    ASSERT_EQ(1U, m_report.RemovedDirectories.size());
    EXPECT_EQ(source("tree"), m_report.RemovedDirectories[0].Path);
    EXPECT_EQ(1, std::count_if(steps.begin(), steps.end(), [](const TavroStep& step) {
                  return step.Role == TavroStepRole::RemovedDirectory;
              }));
    EXPECT_EQ("new in tree", readFile(target("tree/both copy 1")));
    EXPECT_EQ("is where the file was", readFile(target("new name copy 1")));
}

TEST_F(TransferConflicts, nothing_is_put_off_twice_nor_where_nothing_else_is_left) {
    answer(TavroConflictChoice::Later, true);
    EXPECT_TRUE(copy({"file"}));
    EXPECT_EQ("skipped /source/file\n", report());
    EXPECT_EQ("/source/file -> /target/file\n", std::exchange(m_asked, ""));
    EXPECT_TRUE(copy({"file", "kind"}));
    EXPECT_EQ("skipped /source/file\nskipped /source/kind\n", report());
    EXPECT_EQ("/source/file -> /target/file\n/source/kind -> /target/kind onto directory\n"
              "/source/file -> /target/file\n/source/kind -> /target/kind onto directory\n",
              m_asked);
}

TEST_F(TransferConflicts, a_cancel_at_what_was_put_off_leaves_everything_as_it_was) {
    const Snapshot before = takeSnapshot(m_box.path());
    bool bCancel = false;
    m_callbacks.ShouldCancel = [&] { return bCancel; };
    m_callbacks.OnConflict = [&](const TavroTransferConflict& conflict) {
        bCancel = !conflict.bCanWait;
        return TavroConflictAnswer{bCancel ? TavroConflictChoice::Stop
                                           : TavroConflictChoice::Later};
    };
    for (const bool bMove : {false, true}) {
        bCancel = false;
        EXPECT_FALSE(run(bMove, {"file", "tree"}));
        EXPECT_TRUE(bCancel);
        EXPECT_EQ("cancelled\n", report());
        EXPECT_EQ(before, takeSnapshot(m_box.path()));
    }
}

TEST_F(TransferConflicts, what_is_put_off_goes_nowhere_else_when_its_directory_is_swapped) {
    makeDirectory(m_box / "elsewhere");
    fs::remove(source("tree/only here"));
    m_callbacks.OnConflict = [&](const TavroTransferConflict& conflict) {
        if (conflict.bCanWait) {
            fs::rename(target("tree"), m_box / "away");
            fs::create_directory_symlink(m_box / "elsewhere", target("tree"));
        }
        return TavroConflictAnswer{conflict.bCanWait ? TavroConflictChoice::Later
                                                     : TavroConflictChoice::Overwrite};
    };
    EXPECT_FALSE(copy({"tree"}));
    EXPECT_TRUE(fs::is_empty(m_box / "elsewhere"));
    EXPECT_EQ("old in tree", readFile(m_box / "away/both"));
    EXPECT_NE(std::string::npos, report().find("failed: Cannot read '/target/tree/both'"))
        << report();
    EXPECT_EQ("", debris());
}

TEST_F(TransferConflicts, a_merge_that_begins_late_leaves_no_emptied_directory) {
    fs::remove_all(source("tree"));
    writeFile(source("tree/sub/d/inner"), "new");
    writeFile(target("tree/sub/d"), "a file");
    makeDirectory(target("tree/sub/other"));
    m_callbacks.OnConflict = [](const TavroTransferConflict& conflict) {
        return conflict.bCanWait ? TavroConflictAnswer{TavroConflictChoice::Later}
                                 : TavroConflictAnswer{TavroConflictChoice::Rename, false, "other"};
    };
    EXPECT_TRUE(run(true, {"tree"})) << report();
    EXPECT_EQ("new", readFile(target("tree/sub/other/inner")));
    EXPECT_EQ("a file", readFile(target("tree/sub/d")));
    EXPECT_FALSE(isPresent(source("tree")));
}

TEST_F(TransferConflicts, what_was_not_shown_is_asked_about_before_it_is_replaced) {
    m_callbacks.OnConflict = [this](const TavroTransferConflict& conflict) {
        m_asked += conflict.Destination.IsDirectory() ? "directory\n" : "file\n";
        if (!conflict.Destination.IsDirectory()) {
            fs::remove(target("file"));
            writeFile(target("file/precious"), "of somebody else");
        }
        return TavroConflictAnswer{conflict.Destination.IsDirectory()
                                       ? TavroConflictChoice::Skip
                                       : TavroConflictChoice::Overwrite};
    };
    EXPECT_TRUE(copy({"file"})) << report();
    EXPECT_EQ("file\ndirectory\n", m_asked);
    EXPECT_EQ("skipped /source/file\n", report());
    EXPECT_EQ("of somebody else", readFile(target("file/precious")));
}

TEST_F(TransferConflicts, what_changes_while_it_is_asked_about_is_asked_about_again) {
    m_callbacks.OnConflict = [this](const TavroTransferConflict& conflict) {
        const std::string contents = readFile(target("file"));
        m_asked += std::to_string(conflict.Destination.Size) + " bytes\n";
        writeFile(target("file"), "saved meanwhile");
        return TavroConflictAnswer{contents == "old" ? TavroConflictChoice::Overwrite
                                                     : TavroConflictChoice::Skip};
    };
    EXPECT_TRUE(copy({"file"})) << report();
    EXPECT_EQ("3 bytes\n15 bytes\n", m_asked);
    EXPECT_EQ("saved meanwhile", readFile(target("file")));
}

TEST_F(TransferConflicts, keeping_both_inside_a_merge_does_not_rename_the_item) {
    add("tree", "tree");
    answer(TavroConflictChoice::KeepBoth);
    EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
    EXPECT_EQ(target("tree"), m_plan.Items.front().DestinationPath);
    EXPECT_FALSE(m_plan.Items.front().bDestinationRenamed);
    EXPECT_EQ("old in tree", readFile(target("tree/both")));
    EXPECT_EQ("new in tree", readFile(target("tree/both copy 1")));
}

TEST_F(TransferConflicts, what_a_transfer_has_put_somewhere_is_not_replaced_by_it) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        for (const bool bMove : {false, true}) {
            for (const bool bAsk : {false, true}) {
                fs::remove_all(target("x"));
                fs::remove_all(target("directory"));
                writeFile(source("1/x"), "x of 1");
                writeFile(source("2/x"), "x of 2");
                writeFile(source("1/directory/in/y"), "y of 1");
                writeFile(source("2/directory/in/y"), "y of 2");
                for (const char* name : {"x", "directory"}) {
                    add(std::string("1/") + name, name);
                    add(std::string("2/") + name, name);
                }
                m_plan.ConflictPolicy = bAsk ? TavroTransferConflictPolicy::Ask
                                             : TavroTransferConflictPolicy::Overwrite;
                answer(TavroConflictChoice::Overwrite);
                EXPECT_FALSE(run(bMove));
                EXPECT_EQ("done /source/1/x -> /target/x\n"
                          "done /source/1/directory -> /target/directory\n"
                          "failed: Cannot replace '/target/x': this command has just put it there\n"
                          "failed: Cannot replace '/target/directory/in/y': this "
                          "command has just put it there\n",
                          report());
                EXPECT_EQ("x of 1", readFile(target("x")));
                EXPECT_EQ("x of 2", readFile(source("2/x")));
                EXPECT_EQ("y of 1", readFile(target("directory/in/y")));
                EXPECT_EQ("y of 2", readFile(source("2/directory/in/y")));
            }
        }
    }
}

TEST_F(TransferConflicts, a_directory_is_not_replaced_once_the_transfer_has_put_something_into_it) {
    writeFile(source("1/kind/new"), "moved");
    add("1/kind", "kind");
    add("kind", "kind");
    answer(TavroConflictChoice::Overwrite);
    EXPECT_FALSE(move());
    EXPECT_EQ("done /source/1/kind/new -> /target/kind/new\n"
              "failed: Cannot replace '/target/kind': it holds what this command has just put "
              "there\n",
              report());
    EXPECT_EQ("moved", readFile(target("kind/new")));
    EXPECT_EQ("a file", readFile(source("kind")));
}

TEST_F(TransferConflicts, keeping_both_is_possible_where_the_transfer_has_put_something) {
    writeFile(source("1/x"), "x of 1");
    writeFile(source("2/x"), "x of 2");
    add("1/x", "x");
    add("2/x", "x");
    answer(TavroConflictChoice::KeepBoth);
    EXPECT_TRUE(move());
    EXPECT_EQ("x of 1", readFile(target("x")));
    EXPECT_EQ("x of 2", readFile(target("x copy 1")));
}

TEST_F(TransferConflicts, keeping_both_takes_the_next_name_when_another_process_was_quicker) {
    answer(TavroConflictChoice::KeepBoth);
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        for (const bool bMove : {false, true}) {
            writeFile(source("file"), "new");
            writeFile(target("file"), "old");
            fs::remove(target("file copy 1"));
            fs::remove(target("file copy 2"));
            add("file", "file");
            m_plan.bMove = bMove;
            const auto observer = beforeNaming(target("file copy 1"), [&] {
                writeFile(target("file copy 1"), "of another process");
            });
            EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report)) << report();
            EXPECT_EQ(target("file copy 2"), m_plan.Items.front().DestinationPath);
            EXPECT_EQ("done /source/file -> /target/file copy 2\n", report());
            EXPECT_EQ("of another process", readFile(target("file copy 1")));
            EXPECT_EQ("new", readFile(target("file copy 2")));
            EXPECT_EQ(!bMove, isPresent(source("file")));
            EXPECT_EQ("", debris());
            m_plan.Items.clear();
        }
    }
}

TEST_F(TransferConflicts, keeping_both_does_not_try_for_ever) {
    answer(TavroConflictChoice::KeepBoth);
    const FaultInjector faults(failNaming(EEXIST, target()));
    for (const bool bMove : {false, true}) {
        EXPECT_FALSE(run(bMove, {"file"}));
        ASSERT_EQ(1U, m_report.Failed.size()) << report();
        EXPECT_EQ(TavroFailureKind::Taken, m_report.Failed[0].Kind);
        EXPECT_EQ("new", readFile(source("file")));
        EXPECT_EQ("", debris());
    }
    EXPECT_LE(20, faults.fired());
    EXPECT_GE(1000, faults.fired());
}

TEST_F(TransferConflicts, a_merging_move_tells_which_directories_it_has_removed) {
    writeFile(source("1/in/x"), "x");
    writeFile(source("1/stays/both"), "new");
    makeDirectory(target("1/in"));
    writeFile(target("1/stays/both"), "old");
    fs::permissions(source("1/in"), static_cast<fs::perms>(02750));
    EXPECT_TRUE(move({"1"}));
    ASSERT_EQ(1U, m_report.RemovedDirectories.size());
    EXPECT_EQ(source("1/in"), m_report.RemovedDirectories[0].Path);
    EXPECT_EQ(02750U, m_report.RemovedDirectories[0].Mode);
    EXPECT_FALSE(isPresent(source("1/in")));
}

TEST_F(TransferConflicts, an_answer_for_all_is_asked_once_for_each_kind) {
    answer(TavroConflictChoice::Overwrite, true);
    writeFile(source("tree/kind 2"), "a file");
    makeDirectory(target("tree/kind 2"));
    EXPECT_TRUE(copy({"file", "kind", "tree"}));
    EXPECT_EQ("/source/file -> /target/file\n/source/kind -> /target/kind onto directory\n",
              m_asked);
    EXPECT_EQ("new in tree", readFile(target("tree/both")));
    EXPECT_EQ("a file", readFile(target("tree/kind 2")));
    EXPECT_EQ("a file", readFile(target("kind")));
}

TEST_F(TransferConflicts, an_answer_without_for_all_is_asked_each_time) {
    answer(TavroConflictChoice::Skip);
    EXPECT_TRUE(copy({"file", "tree"}));
    EXPECT_EQ("/source/file -> /target/file\n/source/tree/both -> /target/tree/both\n", m_asked);
}

TEST_F(TransferConflicts, a_merging_move_leaves_only_what_was_skipped) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        fs::remove_all(source("tree"));
        writeFile(source("tree/both"), "new in tree");
        writeFile(source("tree/only here"), "1");
        writeFile(source("tree/sub/x"), "x");
        writeFile(source("tree/gone/y"), "y");
        writeFile(target("tree/both"), "old in tree");
        makeDirectory(target("tree/gone"));
        fs::remove_all(target("tree/sub"));
        fs::remove(target("tree/gone/y"));
        fs::remove(target("tree/only here"));
        EXPECT_TRUE(move({"tree"})) << report();
        EXPECT_EQ((Snapshot{{".", "directory 755"}, {"both", "file 644 new in tree"}}),
                  takeSnapshot(source("tree")));
        EXPECT_EQ("x", readFile(target("tree/sub/x")));
        EXPECT_EQ("y", readFile(target("tree/gone/y")));
        EXPECT_EQ("old in tree", readFile(target("tree/both")));
    }
}

TEST_F(TransferConflicts, a_merging_move_removes_the_emptied_directory) {
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(move({"tree"}));
    EXPECT_FALSE(isPresent(source("tree")));
    EXPECT_EQ("2", readFile(target("tree/only there")));
    EXPECT_EQ("new in tree", readFile(target("tree/both")));
}

TEST_F(TransferConflicts, a_dangling_link_at_the_destination_is_in_the_way) {
    fs::create_symlink("nowhere", target("dangling"));
    writeFile(source("dangling"), "bytes");
    for (const bool bMove : {false, true}) {
        EXPECT_TRUE(run(bMove, {"dangling"}));
        EXPECT_EQ("skipped /source/dangling\n", report());
    }
    EXPECT_TRUE(fs::is_symlink(target("dangling")));
    answer(TavroConflictChoice::Overwrite);
    EXPECT_TRUE(copy({"dangling"}));
    EXPECT_EQ("bytes", readFile(target("dangling")));
    EXPECT_FALSE(isPresent(target("nowhere")));
}

TEST_F(TransferConflicts, a_link_to_a_directory_at_the_destination_is_replaced_not_followed) {
    makeDirectory(target("real"));
    fs::create_symlink("real", target("link"));
    writeFile(source("link"), "bytes");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(copy({"link"}));
    EXPECT_TRUE(fs::is_empty(target("real")));
    EXPECT_EQ("bytes", readFile(target("link")));
}

TEST_F(TransferConflicts, a_link_may_be_replaced_by_what_lies_behind_it) {
    fs::create_symlink(source(), target("link"));
    add("file", "link");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(copy());
    EXPECT_EQ("new", readFile(target("link")));
    EXPECT_EQ("new", readFile(source("file")));
}

TEST_F(TransferConflicts, an_entry_under_another_of_its_names_is_left_alone) {
    fs::create_hard_link(source("file"), target("same"));
    add("file", "same");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    for (const bool bMove : {false, true}) {
        m_plan.bMove = bMove;
        EXPECT_FALSE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
        EXPECT_EQ("failed: '/source/file' and '/target/same' are the same\n", report());
    }
    EXPECT_EQ("new", readFile(source("file")));
    EXPECT_EQ("new", readFile(target("same")));
}

TEST_F(TransferConflicts, a_directory_that_holds_the_source_is_not_replaced_by_it) {
    writeFile(target("kind/kind"), "inside");
    fs::create_symlink("/proc/self", target("kind/link"));
    answer(TavroConflictChoice::Overwrite);
    for (const std::string name : {"kind", "link"}) {
        TavroTransferItemPlan item;
        item.SourcePath = target("kind") / name;
        item.DestinationPath = target("kind");
        m_plan.Items = {item};
        for (const bool bMove : {false, true}) {
            m_plan.bMove = bMove;
            EXPECT_FALSE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
            EXPECT_EQ("failed: Cannot replace '/target/kind': it holds '/target/kind/" + name +
                          "'\n",
                      report());
        }
    }
    EXPECT_EQ("inside", readFile(target("kind/kind")));
}

TEST_F(TransferConflicts, a_directory_that_the_guard_protects_is_not_replaced) {
    const ScopedEnvironment home("HOME", target("kind").string());
    answer(TavroConflictChoice::Overwrite);
    for (const bool bMove : {false, true}) {
        EXPECT_FALSE(run(bMove, {"kind"}));
        ASSERT_EQ(1U, m_report.Failed.size());
        EXPECT_EQ(TavroFailureKind::RefuseDelete, m_report.Failed[0].Kind);
        EXPECT_EQ("of a directory", readFile(target("kind/inside")));
        EXPECT_EQ("a file", readFile(source("kind")));
    }
}

TEST_F(TransferConflicts, nothing_goes_into_itself) {
    for (const std::string to : {"tree/inside", "tree/new/inside", "tree/only here"}) {
        for (const bool bMove : {false, true}) {
            const Snapshot before = takeSnapshot(source());
            TavroTransferItemPlan item;
            item.SourcePath = source("tree");
            item.DestinationPath = source(to);
            m_plan.Items = {item};
            answer(TavroConflictChoice::Overwrite);
            EXPECT_FALSE(run(bMove));
            EXPECT_EQ(std::string("failed: Cannot ") + (bMove ? "move" : "copy") +
                          " the directory '/source/tree' into itself\n",
                      report());
            EXPECT_EQ(before, takeSnapshot(source()));
        }
    }
}

/// What somebody else puts at a destination after it was looked at.
class TransferRaces : public TransferTest {
protected:
    /// Calls `action` before the first attempt to give an entry the name of a destination.
    CallObserver whenTaking(const std::string& name, const std::function<void()>& action) {
        return beforeNaming(target(name), [this, name, action] {
            if (!m_bTaken) {
                m_bTaken = true;
                action();
            }
        });
    }

    bool m_bTaken = false;
};

TEST_F(TransferRaces, a_file_that_appears_meanwhile_is_a_conflict_like_any_other) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        for (const bool bMove : {false, true}) {
            for (const auto choice : {TavroConflictChoice::Skip, TavroConflictChoice::Overwrite,
                                      TavroConflictChoice::KeepBoth}) {
                fs::remove_all(target());
                makeDirectory(target());
                writeFile(source("file"), "new");
                m_asked = "";
                m_bTaken = false;
                answer(choice);
                const auto race =
                    whenTaking("file", [&] { writeFile(target("file"), "of somebody else"); });
                EXPECT_TRUE(run(bMove, {"file"})) << report();
                EXPECT_EQ("/source/file -> /target/file\n", m_asked);
                EXPECT_EQ(choice == TavroConflictChoice::Overwrite ? "new" : "of somebody else",
                          readFile(target("file")));
                EXPECT_EQ(choice == TavroConflictChoice::KeepBoth,
                          isPresent(target("file copy 1")));
                EXPECT_EQ(!bMove || choice == TavroConflictChoice::Skip, isPresent(source("file")));
                EXPECT_EQ("", debris());
            }
        }
    }
}

TEST_F(TransferRaces, without_anybody_to_ask_a_file_that_appears_meanwhile_stays) {
    for (const bool bMove : {false, true}) {
        writeFile(source("file"), "new");
        fs::remove(target("file"));
        m_bTaken = false;
        const auto race =
            whenTaking("file", [&] { writeFile(target("file"), "of somebody else"); });
        EXPECT_TRUE(run(bMove, {"file"}));
        EXPECT_EQ("skipped /source/file\n", report());
        EXPECT_EQ("of somebody else", readFile(target("file")));
        EXPECT_EQ("new", readFile(source("file")));
        EXPECT_EQ("", debris());
    }
}

TEST_F(TransferRaces, a_directory_that_appears_meanwhile_is_merged) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        for (const bool bMove : {false, true}) {
            fs::remove_all(source());
            fs::remove_all(target());
            writeFile(source("tree/mine"), "mine");
            writeFile(source("tree/in/mine"), "mine");
            makeDirectory(target());
            m_bTaken = false;
            const auto race =
                whenTaking("tree", [&] { writeFile(target("tree/in/yours"), "yours"); });
            EXPECT_TRUE(run(bMove, {"tree"})) << report();
            EXPECT_EQ((Snapshot{{".", "directory 755"},
                                {"in", "directory 755"},
                                {"in/mine", "file 644 mine"},
                                {"in/yours", "file 644 yours"},
                                {"mine", "file 644 mine"}}),
                      takeSnapshot(target("tree")));
            EXPECT_EQ(!bMove, isPresent(source("tree")));
            EXPECT_EQ("", debris());
        }
    }
}

TEST_F(TransferRaces, two_copies_of_one_new_directory_at_the_same_time_both_succeed) {
    for (int round = 0; round < 40; ++round) {
        fs::remove_all(target());
        bool bDone[2] = {};
        TavroTransferReport reports[2];
        std::vector<std::thread> threads;
        for (const int who : {0, 1}) {
            const std::string mine = std::to_string(who);
            fs::remove_all(source(mine));
            for (const std::string& name : {"tree/" + mine, "tree/sub/" + mine}) {
                writeFile(source(mine) / name, mine);
            }
            threads.emplace_back([this, who, mine, &bDone, &reports] {
                TavroTransferPlan plan;
                plan.bMove = who == 1;
                plan.Items.resize(1);
                plan.Items[0].SourcePath = source(mine) / "tree";
                plan.Items[0].DestinationPath = target("new/tree");
                bDone[who] = TavroCarryOutTransfer(plan, {}, reports[who]);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_TRUE(bDone[0]);
        EXPECT_TRUE(bDone[1]);
        EXPECT_EQ((Snapshot{{".", "directory 755"},
                            {"0", "file 644 0"},
                            {"1", "file 644 1"},
                            {"sub", "directory 755"},
                            {"sub/0", "file 644 0"},
                            {"sub/1", "file 644 1"}}),
                  takeSnapshot(target("new/tree")));
        EXPECT_EQ("", debris());
    }
}

TEST_F(TransferRaces, what_appears_and_vanishes_all_the_time_ends_in_a_failure) {
    writeFile(source("file"), "new");
    int times = 0;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if ((call == "renameat2" || call == "linkat") && otherPathOfCall() == target("file")) {
            writeFile(target("file"), "of somebody else");
            ++times;
        } else if (call == "fstatat" && path == target("file")) {
            fs::remove(target("file"));
        }
    });
    EXPECT_FALSE(copy({"file"}));
    EXPECT_EQ("failed: '/target/file' already exists\n", report());
    EXPECT_LT(1, times);
    EXPECT_GT(100, times);
    EXPECT_EQ("", debris());
}

// =================================================================================================
// Free names
// =================================================================================================

TEST(FreePathBeside, is_the_first_name_at_which_nothing_is) {
    const Sandbox box;
    EXPECT_EQ(box / "a.tar.gz", TavroFreePathBeside(box / "a.tar.gz"));
    writeFile(box / "a.tar.gz");
    EXPECT_EQ(box / "a.tar copy 1.gz", TavroFreePathBeside(box / "a.tar.gz"));
    fs::create_symlink("nowhere", box / "a.tar copy 1.gz");
    EXPECT_EQ(box / "a.tar copy 2.gz", TavroFreePathBeside(box / "a.tar.gz"));
    writeFile(box / ".hidden");
    EXPECT_EQ(box / ".hidden copy 1", TavroFreePathBeside(box / ".hidden"));
}

TEST(FreePathBeside, is_not_longer_than_a_name_can_be) {
    const Sandbox box;
    const auto expect = [&](const std::string& wanted, const std::string& free) {
        writeFile(box / wanted);
        EXPECT_EQ(box / free, TavroFreePathBeside(box / wanted));
        writeFile(box / free); // which is possible
    };
    const std::string x(244, 'x');
    expect(x + ".txt", x + " copy 1.txt");
    expect(x + "xxxx.txt", x + " copy 2.txt");
    expect(x + "1234567.txt", x + " copy 3.txt");
    // Of a character with several bytes, all or none stay.
    const std::string y(245, 'y');
    expect(y + "\u00e9\u00e9\u00e9", y + "\u00e9 copy 1");
    expect(y + "y\u20ac\u20ac\u20ac", y + "y copy 1");
    expect(y + "\U0001f600\U0001f600", y + " copy 1");
    // Bytes that are no text at all.
    const std::string bytes(255, '\x80');
    expect(bytes, std::string(248, '\x80') + " copy 1");
    // An extension may be longer than what is before it.
    const std::string z(250, 'z');
    expect("a." + z, "a." + z.substr(0, 246) + " copy 1");
}

} // namespace
