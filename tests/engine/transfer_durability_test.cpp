// Nothing is lost: sources that change or cannot be removed, and full disks.

#include "transfer_fixture.h"

#include <sched.h>
#include <sys/mount.h>

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_transfer_test;

namespace {

TEST_F(CarryOutTransfer, a_source_that_shrinks_is_named_and_nothing_arrives) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        writeFile(source("big"), bytesOf(9 * mebibyte));
        inTheMiddle([&] {
            fs::resize_file(source("big"), 5);
            return false;
        });
        EXPECT_FALSE(run(bElsewhere, {"big"}));
        EXPECT_EQ("failed: '/source/big' became shorter while it was being copied\n", report());
        EXPECT_EQ(bytesOf(9 * mebibyte).substr(0, 5), readFile(source("big")));
        EXPECT_TRUE(fs::is_empty(target()));
    }
}

TEST_F(CarryOutTransfer, a_sparse_source_that_shrinks_does_not_arrive_with_zeros) {
    writeFile(source("big"), bytesOf(9 * mebibyte));
    fs::resize_file(source("big"), 50 * mebibyte);
    inTheMiddle([&] {
        fs::resize_file(source("big"), 5 * mebibyte);
        return false;
    });
    EXPECT_FALSE(copy({"big"}));
    EXPECT_EQ("failed: '/source/big' became shorter while it was being copied\n", report());
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(CarryOutTransfer, a_source_that_grows_is_copied_as_long_as_it_was) {
    writeFile(source("log"), bytesOf(9 * mebibyte));
    inTheMiddle([&] {
        fs::resize_file(source("log"), 10 * mebibyte);
        return false;
    });
    EXPECT_TRUE(copy({"log"}));
    EXPECT_EQ(bytesOf(9 * mebibyte), readFile(target("log")));
}

TEST_F(CarryOutTransfer, a_source_that_changes_is_not_moved_between_file_systems) {
    TARGET_ELSEWHERE();
    const std::string changed = bytesOf(9 * mebibyte, 2);
    for (const bool bGrows : {false, true}) {
        writeFile(source("big"), bytesOf(9 * mebibyte));
        setTimes(source("big"), 1000000000, 0);
        m_bMiddleSeen = false;
        const std::string now = changed + (bGrows ? "more" : "");
        inTheMiddle([&] {
            writeFile(source("big"), now);
            return false;
        });
        EXPECT_FALSE(move({"big"}));
        EXPECT_EQ("failed: '/source/big' changed while it was being moved\n", report());
        EXPECT_EQ(now, readFile(source("big")));
        EXPECT_TRUE(fs::is_empty(target()));
    }
}

TEST_F(CarryOutTransfer, an_entry_that_appears_in_a_directory_on_the_move_stays_where_it_is) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/sub/a"), "a");
    writeFile(source("tree/z"), "z");
    const CallObserver observer([&](const std::string& call, const std::string&) {
        if (call == "syncfs") {
            writeFile(source("tree/sub/late"), "late");
        }
    });
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("done /source/tree -> /target/tree\n"
              "failed: Cannot remove '/source/tree/sub' after copying: " +
                  systemText(std::errc::directory_not_empty) +
                  "\nfailed: Cannot remove '/source/tree' after copying: " +
                  systemText(std::errc::directory_not_empty) + "\n",
              report());
    EXPECT_EQ("late", readFile(source("tree/sub/late")));
    EXPECT_EQ("z", readFile(target("tree/z")));
    EXPECT_FALSE(isPresent(source("tree/z")));
}

TEST_F(CarryOutTransfer, what_did_not_reach_the_disk_under_its_name_is_not_moved_yet) {
    TARGET_ELSEWHERE();
    writeFile(source("a"), "a");
    writeFile(source("b"), "b");
    bool bNamed = false;
    std::optional<FaultInjector> faults;
    const auto observer = beforeNaming(target("a"), [&] {
        faults.emplace(std::vector<Fault>{{"fsync", EIO, target(), 1, true},
                                          {"syncfs", EIO, target(), 1, true}});
        bNamed = true;
    });
    EXPECT_FALSE(move({"a", "b"}));
    ASSERT_TRUE(bNamed);
    EXPECT_GT(faults->fired(), 0);
    const std::string error = systemText(std::errc::io_error);
    EXPECT_EQ("failed: Cannot write '/target/a': " + error +
                  "\nfailed: Cannot write '/target/b': " + error + "\n",
              report());
    EXPECT_TRUE(m_report.bUnsettled) << "what is where has to be looked at";
    EXPECT_EQ("ab", readFile(source("a")) + readFile(source("b")));
}

TEST_F(CarryOutTransfer, a_copy_that_did_not_reach_the_disk_under_its_name_is_a_failure) {
    writeFile(source("a"), "a");
    std::optional<FaultInjector> faults;
    const auto observer = beforeNaming(target("a"), [&] {
        faults.emplace(std::vector<Fault>{{"fsync", EIO, target(), 1, true},
                                          {"syncfs", EIO, target(), 1, true}});
    });
    EXPECT_FALSE(copy({"a"}));
    ASSERT_TRUE(faults);
    EXPECT_GT(faults->fired(), 0);
    EXPECT_NE(std::string::npos, report().find("failed: Cannot write '/target/a': " +
                                               systemText(std::errc::io_error) + "\n"))
        << report();
}

TEST_F(CarryOutTransfer, nothing_is_replaced_where_there_can_be_no_trash) {
    writeFile(m_home / ".local", "in the way");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    for (const bool bMove : {false, true}) {
        writeFile(source("file"), "new");
        writeFile(source("free"), "free");
        writeFile(target("file"), "old");
        EXPECT_FALSE(run(bMove, {"file", "free"}));
        EXPECT_EQ(TavroFailureKind::TrashNeedsDirectory, m_report.Failed.at(0).Kind);
        const std::string error = systemText(std::errc::not_a_directory) + "\n";
        EXPECT_NE(std::string::npos,
                  report().find("failed: Cannot replace '/target/file': " + error))
            << report();
        EXPECT_NE(std::string::npos, report().find("failed: Cannot write '/target/free': " + error))
            << report();
        EXPECT_EQ("old", readFile(target("file")));
        EXPECT_EQ("new", readFile(source("file")));
        EXPECT_EQ("free", readFile(source("free")));
        EXPECT_EQ("", debris());
    }
}

TEST_F(CarryOutTransfer, a_directory_that_cannot_be_renamed_is_told_with_the_reason) {
    makeDirectory(source("tree"));
    const FaultInjector faults({{"renameat2", EIO}});
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("failed: Cannot move '/source/tree' to '/target/tree': " +
                  systemText(std::errc::io_error) + "\n",
              report());
}

TEST_F(CarryOutTransfer, a_rename_that_may_not_replace_what_is_there_is_taken_back) {
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    writeFile(source("file"), "new");
    writeFile(target("file"), "old");
    for (const std::string& from : {source("file").string(), target(".tavro-").string()}) {
        const FaultInjector faults({{"renameat2", EPERM, from}});
        EXPECT_FALSE(move({"file"}));
        EXPECT_EQ(1, faults.fired());
        EXPECT_EQ("failed: Cannot replace '/target/file': " +
                      systemText(std::errc::operation_not_permitted) + "\n",
                  report());
        EXPECT_EQ("", debris());
        EXPECT_EQ("old", readFile(target("file")));
        EXPECT_EQ("new", readFile(source("file")));
    }
}

TEST_F(CarryOutTransfer, what_cannot_go_to_the_trash_is_not_replaced) {
    answer(TavroConflictChoice::Overwrite);
    for (const bool bMove : {false, true}) {
        for (const char* name : {"file", "tree/inner"}) {
            const std::string top = fs::path(name).begin()->string();
            writeFile(source(name), "new");
            writeFile(target(top), "old");
            const FaultInjector faults({{"renameat2", EIO, "", 1, true, false, "Trash/files"}});
            EXPECT_FALSE(run(bMove, {top}));
            EXPECT_EQ(1, faults.fired());
            EXPECT_EQ("failed: Cannot replace '/target/" + top +
                          "': " + systemText(std::errc::io_error) + "\n",
                      report());
            EXPECT_EQ("", debris());
            EXPECT_EQ("old", readFile(target(top)));
            EXPECT_EQ("new", readFile(source(name)));
            EXPECT_TRUE(fs::is_empty(m_home / ".local/share/Trash/info"));
            EXPECT_TRUE(m_report.Replaced.empty());
        }
    }
}

TEST_F(CarryOutTransfer, what_can_neither_go_to_the_trash_nor_back_is_told) {
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    writeFile(source("file"), "new");
    writeFile(target("file"), "old");
    const FaultInjector faults({{"renameat2", EIO, "", 1, true, false, "Trash/files"},
                                {"renameat2", EPERM, target(".tavro-"), 3, true}});
    EXPECT_FALSE(copy({"file"}));
    EXPECT_TRUE(faults.eachFired());
    EXPECT_NE(std::string::npos, report().find("'/target/.tavro-XXXXXX'")) << report();
    EXPECT_EQ("new", readFile(target("file")));
    EXPECT_EQ("old", readFile(debris().substr(0, debris().find('\n'))));
}

TEST_F(CarryOutTransfer, what_the_history_refuses_leaves_nothing) {
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    m_callbacks.BeforeActs = [](auto, const std::vector<TavroStep>& steps) {
        const bool bReplaces = std::any_of(steps.begin(), steps.end(), [](const TavroStep& step) {
            return step.Role == TavroStepRole::Replaced;
        });
        return bReplaces ? TavroFailure{TavroFailureKind::HistoryBusy} : TavroFailure();
    };
    for (const bool bMove : {false, true}) {
        writeFile(source("file"), "new");
        writeFile(target("file"), "old");
        writeFile(source("other"), "other");
        add("other", "fresh/fresher/other");
        add("file", "file");
        EXPECT_FALSE(run(bMove));
        EXPECT_EQ(TavroFailureKind::HistoryBusy, m_report.Failed.at(0).Kind);
        EXPECT_EQ("", debris());
        EXPECT_FALSE(isPresent(target("fresh")));
        EXPECT_TRUE(m_report.CreatedDirectories.empty());
        EXPECT_EQ("old", readFile(target("file")));
        EXPECT_EQ("new", readFile(source("file")));
        EXPECT_TRUE(fs::is_empty(m_home / ".local/share/Trash/info"));
    }
}

/// As of two mounts of one file system.
TEST_F(CarryOutTransfer, a_rename_that_has_to_be_a_copy_is_one_which_the_history_can_refuse) {
    writeFile(source("tree/a"), "a");
    for (const bool bRefused : {true, false}) {
        bool bAsked = false;
        m_callbacks.BeforeActs = [&](auto, const std::vector<TavroStep>& steps) {
            const bool bCopy = steps.at(0).Source.Inode != 0;
            bAsked = bAsked || bCopy;
            EXPECT_FALSE(isPresent(target("tree")));
            return bCopy && bRefused ? TavroFailure{TavroFailureKind::HistoryBusy} : TavroFailure();
        };
        const FaultInjector faults({{"renameat2", EXDEV, source("tree")}});
        EXPECT_EQ(!bRefused, move({"tree"})) << report();
        EXPECT_EQ(1, faults.fired());
        EXPECT_TRUE(bAsked);
        EXPECT_EQ("", debris());
        EXPECT_EQ(bRefused, isPresent(source("tree/a")));
        EXPECT_EQ(!bRefused, isPresent(target("tree/a")));
    }
}

/// Where a file system does not keep changes in order.
TEST_F(CarryOutTransfer, what_is_replaced_goes_for_good_when_the_new_entry_is_on_the_disk) {
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    m_callbacks.bKeepReplaced = false;
    for (const bool bMove : {false, true}) {
        writeFile(source("file"), "new");
        writeFile(target("file"), "old");
        bool bSynced = false;
        bool bGone = false;
        const FaultInjector unknown({{"fstatfs", EIO, "", 1, true}});
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            const bool bNew = readFile(target("file")) == "new";
            bSynced = bSynced || (bNew && (call == "fsync" || call == "syncfs"));
            if (call == "unlinkat" && bNew && path.rfind(target().string(), 0) == 0) {
                bGone = true;
                EXPECT_TRUE(bSynced);
            }
        });
        EXPECT_TRUE(run(bMove, {"file"})) << report();
        EXPECT_TRUE(bGone);
        EXPECT_LT(0, unknown.fired());
    }
}

TEST_F(CarryOutTransfer, it_is_told_when_what_was_copied_is_brought_to_the_disk) {
    for (const bool bSync : {true, false}) {
        for (const char* name : {"file", "tree"}) {
            writeFile(source("file"), "a");
            writeFile(source("tree/a"), "a");
            int told = 0;
            m_callbacks.bSync = bSync;
            m_callbacks.OnProgress = [&](const TavroProgress& progress) {
                told += progress.bToDisk ? 1 : 0;
                EXPECT_FALSE(progress.bToDisk && isPresent(target(name)));
            };
            EXPECT_TRUE(copy({name}));
            EXPECT_EQ(told > 0, bSync) << name;
            fs::remove_all(target(name));
        }
    }
}

TEST_F(CarryOutTransfer, a_name_claimed_in_the_trash_is_given_up_when_nothing_is_replaced) {
    const int count = 100; // more directories than are held open
    for (int i = 0; i < count; ++i) {
        const std::string name = std::to_string(i);
        writeFile(source(name), "new");
        writeFile(target(name + "/file"), "old");
        add(name, name + "/file");
    }
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    m_callbacks.BeforeActs = [&](auto, const std::vector<TavroStep>& steps) {
        if (steps.back().Role == TavroStepRole::Replaced) {
            fs::rename(target("0"), target("elsewhere"));
        }
        return TavroFailure();
    };
    EXPECT_FALSE(copy());
    EXPECT_EQ("old", readFile(target("elsewhere/file")));
    const auto countIn = [&](const std::string& name) {
        return std::distance(fs::directory_iterator(m_home / ".local/share/Trash" / name), {});
    };
    EXPECT_EQ(count - 1, countIn("files"));
    EXPECT_EQ(count - 1, countIn("info"));
}

TEST_F(CarryOutTransfer, a_copy_that_may_not_replace_what_is_there_leaves_nothing) {
    TARGET_ELSEWHERE();
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    writeFile(target("file"), "old");
    for (const bool bKeep : {true, false}) {
        for (const bool bMove : {false, true}) {
            writeFile(source("file"), "new");
            m_callbacks.bKeepReplaced = bKeep;
            // As where somebody else's file is, in a directory with the sticky bit.
            const FaultInjector faults({{"renameat2", EPERM, "", 1, true}});
            EXPECT_FALSE(run(bMove, {"file"}));
            EXPECT_LT(0, faults.fired());
            EXPECT_EQ("", debris());
            EXPECT_EQ("old", readFile(target("file")));
            EXPECT_EQ("new", readFile(source("file")));
            m_report = {};
        }
    }
}

TEST_F(CarryOutTransfer, what_cannot_wait_without_a_name_is_told_before_it_gets_a_hidden_one) {
    writeFile(source("file"), "bytes");
    fs::create_symlink("nowhere", source("link"));
    makeFifo(source("pipe"));
    bool bFails = false;
    std::vector<TavroStep> told;
    m_callbacks.BeforeActs = [](auto, const auto&) { return TavroFailure(); };
    m_callbacks.BeforeSync = [&](auto, const std::vector<TavroStep>& steps, auto&) {
        EXPECT_TRUE(fs::is_empty(target()));
        told.insert(told.end(), steps.begin(), steps.end());
        return bFails ? TavroFailure{TavroFailureKind::HistoryBusy} : TavroFailure();
    };
    for (const std::string name : {"file", "link", "pipe"}) {
        const FaultInjector faults({{"openat", EOPNOTSUPP, ".", 1, true, true}});
        for (const bool bNow : {true, false}) {
            told.clear();
            bFails = bNow;
            EXPECT_EQ(!bFails, copy({name})) << report();
            ASSERT_EQ(1U, told.size()) << name;
            EXPECT_EQ(TavroStepRole::Planned, told[0].Role);
            EXPECT_EQ(target(name), told[0].To);
            EXPECT_EQ(!bFails, isPresent(target(name)));
            EXPECT_EQ(bFails, !m_report.Failed.empty() &&
                                  m_report.Failed[0].Kind == TavroFailureKind::HistoryBusy);
            EXPECT_EQ("", debris());
            m_report = {};
        }
        fs::remove(target(name));
    }
}

/// Sources that change when their copies are whole already.
class LastMoment : public TransferTest {
protected:
    /// Calls `action` once, before the staged copy of "file" takes its name.
    CallObserver beforePublishing(const std::function<void()>& action) {
        return CallObserver([this, action](const std::string& call, const std::string& path) {
            const bool bStaged = path.rfind(target().string(), 0) == 0;
            const bool bNames = call == "renameat2" || call == "linkat";
            if (!m_bSeen && bStaged && bNames && otherPathOfCall() == target("file")) {
                m_bSeen = true;
                action();
            }
        });
    }
    bool m_bSeen = false;
};

TEST_F(LastMoment, a_source_that_changes_at_the_last_moment_stays) {
    TARGET_ELSEWHERE();
    writeFile(source("file"), "old");
    const auto observer = beforePublishing([&] { writeFile(source("file"), "newer"); });
    EXPECT_FALSE(move({"file"}));
    EXPECT_EQ("newer", readFile(source("file")));
    EXPECT_EQ("old", readFile(target("file")));
    EXPECT_EQ("failed: A copy of '/source/file' is left at '/target/file'\n"
              "failed: '/source/file' changed while it was being moved\n",
              report());
}

TEST_F(LastMoment, a_source_that_cannot_be_examined_at_the_last_moment_stays) {
    TARGET_ELSEWHERE();
    writeFile(source("file"), "bytes");
    std::optional<FaultInjector> faults;
    const auto observer = beforePublishing([&] {
        faults.emplace(std::vector<Fault>{{"fstatat", EIO, source("file"), 1, true, true}});
    });
    EXPECT_FALSE(move({"file"}));
    ASSERT_TRUE(faults.has_value());
    EXPECT_GT(faults->fired(), 0);
    faults.reset();
    EXPECT_EQ("bytes", readFile(source("file")));
    EXPECT_EQ("bytes", readFile(target("file")));
    EXPECT_EQ("failed: A copy of '/source/file' is left at '/target/file'\n"
              "failed: Cannot read '/source/file': " +
                  systemText(std::errc::io_error) + "\n",
              report());
}

TEST_F(LastMoment, a_source_that_vanishes_at_the_last_moment_does_not_take_its_copy_along) {
    TARGET_ELSEWHERE();
    writeFile(source("file"), "the only bytes");
    const auto observer = beforePublishing([&] { fs::remove(source("file")); });
    EXPECT_FALSE(move({"file"}));
    EXPECT_EQ("the only bytes", readFile(target("file")));
}

TEST_F(CarryOutTransfer, when_no_source_can_be_removed_the_copy_goes_instead) {
    TARGET_ELSEWHERE();
    makeSmallTree(source("tree"));
    writeFile(source("file"), "bytes");
    fs::remove_all(source("tree/empty"));
    const Snapshot before = takeSnapshot(source());
    const FaultInjector faults({{"unlinkat", EPERM, source(), 1, true}});
    EXPECT_FALSE(move({"file", "tree"}));
    EXPECT_EQ(before, takeSnapshot(source()));
    EXPECT_TRUE(fs::is_empty(target())) << report();
    EXPECT_EQ("Cannot remove '/source/file' after copying: " +
                  systemText(std::errc::operation_not_permitted),
              shortened(TavroDescribe(m_report.Failed.front())));
    EXPECT_TRUE(m_report.Done.empty());
}

TEST_F(CarryOutTransfer, a_copy_that_is_taken_back_leaves_what_others_have_put_there) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/a"), "a");
    const FaultInjector faults({{"unlinkat", EPERM, source("tree/a"), 1, true, true}});
    const auto observer = beforeCall("unlinkat", source("tree/a"),
                                     [&] { writeFile(target("tree/of somebody else"), "bytes"); });
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("a", readFile(source("tree/a")));
    EXPECT_EQ((Snapshot{{".", "directory 755"}, {"of somebody else", "file 644 bytes"}}),
              takeSnapshot(target("tree")));
}

TEST_F(CarryOutTransfer, one_source_that_cannot_be_removed_is_in_both_places_and_named) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/a"), "a");
    writeFile(source("tree/b"), "b");
    const Snapshot before = takeSnapshot(source("tree"));
    const FaultInjector faults({{"unlinkat", EPERM, source("tree/a"), 1, true, true}});
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    EXPECT_EQ("a", readFile(source("tree/a")));
    EXPECT_FALSE(isPresent(source("tree/b")));
    EXPECT_EQ("done /source/tree -> /target/tree\n"
              "failed: Cannot remove '/source/tree/a' after copying: " +
                  systemText(std::errc::operation_not_permitted) +
                  "\nfailed: Cannot remove '/source/tree' after copying: " +
                  systemText(std::errc::directory_not_empty) + "\n",
              report());
}

TEST_F(CarryOutTransfer, no_source_is_removed_before_its_copy_has_reached_the_disk) {
    TARGET_ELSEWHERE();
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source());
    const FaultInjector faults({{"syncfs", EIO, "", 1, true}});
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("failed: Cannot write '/target/tree': " + systemText(std::errc::io_error) + "\n",
              report());
    EXPECT_EQ(before, takeSnapshot(source()));
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(CarryOutTransfer, a_move_is_done_when_its_source_is_gone_from_the_disk_too) {
    TARGET_ELSEWHERE();
    writeFile(source("a"), "a");
    bool bRemoved = false;
    bool bOnDisk = false;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        bRemoved = bRemoved || (call == "unlinkat" && path == source("a"));
        const bool bSync = call == "fsync" || call == "syncfs";
        bOnDisk = bOnDisk || (bRemoved && bSync && path == source());
    });
    EXPECT_TRUE(move({"a"})) << report();
    EXPECT_TRUE(bRemoved);
    EXPECT_TRUE(bOnDisk);
}

TEST_F(CarryOutTransfer, a_copy_goes_on_past_what_it_cannot_read) {
    makeSmallTree(source("tree"));
    writeFile(source("tree/secret"), "bytes");
    makeDirectory(source("tree/closed"));
    fs::permissions(source("tree/secret"), fs::perms::none);
    fs::permissions(source("tree/closed"), fs::perms::none);
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(copy({"tree"}));
        const std::string denied = systemText(std::errc::permission_denied);
        const std::string done = "done /source/tree -> /target/tree\n";
        const std::string closed = "failed: Cannot read '/source/tree/closed': " + denied + "\n";
        const std::string secret = "failed: Cannot read '/source/tree/secret': " + denied + "\n";
        EXPECT_TRUE(report() == done + closed + secret || report() == done + secret + closed)
            << report();
        EXPECT_EQ("second", readFile(target("tree/sub/b")));
        EXPECT_FALSE(isPresent(target("tree/secret")));
        EXPECT_FALSE(isPresent(target("tree/closed")));
        EXPECT_EQ("", debris());
    });
}

TEST_F(CarryOutTransfer, an_item_that_cannot_be_read_leaves_nothing) {
    writeFile(source("secret"), "bytes");
    makeDirectory(source("closed"));
    fs::permissions(source("secret"), fs::perms::none);
    fs::permissions(source("closed"), fs::perms::none);
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(copy({"closed", "secret"}));
        const std::string denied = systemText(std::errc::permission_denied);
        EXPECT_EQ("failed: Cannot read '/source/closed': " + denied +
                      "\nfailed: Cannot read '/source/secret': " + denied + "\n",
                  report());
        EXPECT_TRUE(fs::is_empty(target()));
    });
}

/// Moves between file systems by a user to whom permissions apply.
class UnprivilegedMove : public TransferTest {
protected:
    /// Expects that the move of "tree" is refused with `reason` and that all is as it was.
    void expectRefused(const std::string& reason) {
        if (isRoot()) {
            ASSERT_EQ(0, chown(target().c_str(), 65534, 65534));
        }
        runUnprivileged(m_box.path(), [&] {
            EXPECT_FALSE(move({"tree"}));
            EXPECT_EQ(reason + systemText(std::errc::permission_denied) + "\n", report());
            EXPECT_TRUE(fs::is_empty(target()));
        });
    }
};

TEST_F(UnprivilegedMove, refuses_a_tree_with_a_file_it_cannot_read) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/secret"), "bytes");
    fs::permissions(source("tree/secret"), fs::perms::none);
    expectRefused("failed: Cannot read '/source/tree/secret': ");
    EXPECT_TRUE(isPresent(source("tree/secret")));
}

TEST_F(UnprivilegedMove, refuses_to_move_out_of_a_read_only_directory) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/a"), "bytes");
    fs::permissions(source(), static_cast<fs::perms>(0555));
    expectRefused("failed: Cannot move '/source/tree': ");
    EXPECT_EQ("bytes", readFile(source("tree/a")));
}

TEST_F(UnprivilegedMove, refuses_a_tree_with_a_read_only_directory) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/closed/a"), "bytes");
    fs::permissions(source("tree/closed"), static_cast<fs::perms>(0555));
    expectRefused("failed: Cannot move out of '/source/tree/closed': ");
    EXPECT_EQ("bytes", readFile(source("tree/closed/a")));
}

TEST_F(CarryOutTransfer, an_emptied_directory_that_cannot_be_removed_is_named) {
    writeFile(source("outer/tree/a"), "bytes");
    writeFile(target("tree/b"));
    fs::permissions(source("outer"), static_cast<fs::perms>(0555));
    add("outer/tree", "tree");
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(move());
        EXPECT_EQ("done /source/outer/tree/a -> /target/tree/a\n"
                  "failed: Cannot remove the emptied directory "
                  "'/source/outer/tree': " +
                      systemText(std::errc::permission_denied) + "\n",
                  report());
    });
}

TEST_F(CarryOutTransfer, a_copy_of_read_only_directories_can_be_cancelled_without_debris) {
    writeFile(source("tree/closed/a"), "bytes");
    writeFile(source("tree/open/b"), "bytes");
    fs::permissions(source("tree/closed"), static_cast<fs::perms>(0555));
    runUnprivileged(m_box.path(), [&] {
        bool bDone = false;
        for (int k = 1; !bDone && k < 100; ++k) {
            int calls = 0;
            m_callbacks.ShouldCancel = [&] { return ++calls == k; };
            bDone = copy({"tree"});
            EXPECT_EQ(bDone, isPresent(target("tree")));
            EXPECT_EQ("", debris());
        }
        EXPECT_TRUE(bDone);
    });
}

TEST_F(CarryOutTransfer, a_read_only_target_is_named) {
    writeFile(source("file"), "bytes");
    fs::permissions(target(), static_cast<fs::perms>(0555));
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(copy({"file"}));
        EXPECT_EQ("failed: Cannot create '/target/file': " +
                      systemText(std::errc::permission_denied) + "\n",
                  report());
        EXPECT_FALSE(move({"file"}));
        EXPECT_EQ("failed: Cannot move '/source/file' to '/target/file': " +
                      systemText(std::errc::permission_denied) + "\n",
                  report());
        EXPECT_EQ("bytes", readFile(source("file")));
    });
}

/// A target on a small file system of its own, mounted where only a child process sees it.
class FullTarget : public TransferTest, public testing::WithParamInterface<const char*> {
protected:
    void runWithFullTarget(const std::function<void()>& body) {
        const fs::path reason = m_box / "reason to skip";
        runInChild([&] {
            const std::string obstacle = mountTarget();
            if (obstacle.empty()) {
                body();
            } else {
                writeFile(reason, obstacle);
            }
        });
        if (isPresent(reason)) {
            GTEST_SKIP() << readFile(reason);
        }
    }

    std::string mountTarget() const {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return "this process cannot mount in a namespace of its own";
        }
        if (GetParam() == std::string("tmpfs")) {
            return mount("none", target().c_str(), "tmpfs", 0, "size=3m") == 0
                       ? ""
                       : "a tmpfs cannot be mounted here";
        }
        const std::string image = (m_box / "image").string();
        writeFile(image);
        fs::resize_file(image, 4 * mebibyte);
        const std::string command = "mkfs.ext4 -q -F -m 0 '" + image + "' && mount -o loop '" +
                                    image + "' '" + target().string() + "' && rmdir '" +
                                    target("lost+found").string() + "'";
        return std::system(("(" + command + ") >/dev/null 2>&1").c_str()) == 0
                   ? ""
                   : "images of ext4 cannot be mounted here";
    }
};

TEST_P(FullTarget, ends_in_a_clear_error_and_a_smaller_item_still_arrives) {
    writeFile(source("big"), bytesOf(5 * mebibyte));
    writeFile(source("small"), "small");
    writeFile(source("tree/a"), "a");
    writeFile(source("tree/big"), bytesOf(5 * mebibyte, 2));
    const Snapshot before = takeSnapshot(source());
    runWithFullTarget([&] {
        for (const bool bMove : {false, true}) {
            EXPECT_FALSE(run(bMove, {"big", "tree", "small"}));
            const std::string full = systemText(std::errc::no_space_on_device);
            EXPECT_EQ("done /source/small -> /target/small\n"
                      "failed: Cannot copy '/source/big': " +
                          full + "\nfailed: Cannot copy '/source/tree/big': " + full + "\n",
                      report());
            EXPECT_EQ((Snapshot{{".", takeSnapshot(target())["."]}, {"small", "file 644 small"}}),
                      takeSnapshot(target()));
            EXPECT_EQ(!bMove, isPresent(source("small")));
            fs::remove(target("small"));
        }
        EXPECT_EQ(before.at("big"), takeSnapshot(source())["big"]);
        EXPECT_EQ(before.at("tree/big"), takeSnapshot(source())["tree/big"]);
        EXPECT_EQ("a", readFile(source("tree/a")));
    });
}

TEST_P(FullTarget, keeps_the_bytes_that_were_to_be_overwritten) {
    writeFile(source("file"), bytesOf(2 * mebibyte));
    runWithFullTarget([&] {
        writeFile(target("file"), bytesOf(2 * mebibyte, 2));
        m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
        for (const bool bMove : {false, true}) {
            EXPECT_FALSE(run(bMove, {"file"}));
            EXPECT_EQ("failed: Cannot copy '/source/file': " +
                          systemText(std::errc::no_space_on_device) + "\n",
                      report());
            EXPECT_EQ(bytesOf(2 * mebibyte, 2), readFile(target("file")));
            EXPECT_EQ(bytesOf(2 * mebibyte), readFile(source("file")));
            EXPECT_EQ("", debris());
        }
    });
}

INSTANTIATE_TEST_SUITE_P(OnEach, FullTarget, testing::Values("tmpfs", "ext4"),
                         [](const auto& which) { return std::string(which.param); });

} // namespace
