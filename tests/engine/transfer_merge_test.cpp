// Directories that are merged: how deep they may be, and that nobody leads the merging astray.

#include "stride.h"
#include "transfer_fixture.h"

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_transfer_test;

namespace {

/// Trees that are on a file system in memory, unless they are to be moved to another one.
class TransferInMemory : public TransferTest {
protected:
    TransferInMemory() : TransferTest(inMemory()) {}
};

TEST_F(TransferInMemory, deep_trees_are_merged_with_few_open_files_and_a_small_stack) {
    constexpr int levels = 3000;
    for (const bool bMove : {false, true}) {
        makeDeepTree(source("tree"), levels);
        makeDeepTree(target("tree"), levels, false);
        runInChild([&] {
            limitFilesAndStack(64);
            EXPECT_TRUE(run(bMove, {"tree"}));
            EXPECT_EQ(static_cast<std::size_t>(levels), m_report.Done.size());
            EXPECT_EQ(bMove ? levels + 1U : 0U, m_report.RemovedDirectories.size());
        });
        EXPECT_EQ(levels, depthOf(target("tree")));
        EXPECT_EQ(!bMove, isPresent(source("tree")));
        removeDeepTree(source());
        removeDeepTree(target());
        makeDirectory(source());
        makeDirectory(target());
    }
}

TEST_F(CarryOutTransfer, merges_into_a_directory_that_cannot_be_listed) {
    for (const bool bMove : {false, true}) {
        writeFile(source("tree/a"), "a");
        writeFile(source("tree/sub/b"), "b");
        makeDirectory(target("tree/sub"));
        runUnprivileged(m_box.path(), [&] {
            fs::permissions(target("tree/sub"), static_cast<fs::perms>(0300));
            fs::permissions(target("tree"), static_cast<fs::perms>(0300));
            EXPECT_TRUE(run(bMove, {"tree"})) << report();
            fs::permissions(target("tree"), static_cast<fs::perms>(0700));
            fs::permissions(target("tree/sub"), static_cast<fs::perms>(0700));
        });
        EXPECT_EQ("a", readFile(target("tree/a")));
        EXPECT_EQ("b", readFile(target("tree/sub/b")));
        fs::remove_all(target("tree"));
    }
}

TEST_F(CarryOutTransfer, a_failure_in_a_merged_directory_is_told_by_itself_and_stops_nothing) {
    for (const bool bMove : {false, true}) {
        fs::remove_all(source());
        fs::remove_all(target());
        for (const std::string name : {"tree/1", "tree/in/2", "tree/in/3", "tree/z"}) {
            writeFile(source(name), name);
        }
        makeDirectory(target("tree/in"));
        const FaultInjector faults(failNaming(EIO, target("tree/in/2")));
        EXPECT_FALSE(run(bMove, {"tree"}));
        ASSERT_EQ(1U, m_report.Failed.size()) << report();
        EXPECT_NE(std::string::npos, TavroDescribe(m_report.Failed[0]).find(source("tree/in/2")));
        EXPECT_EQ(3U, m_report.Done.size());
        EXPECT_TRUE(isPresent(source("tree/in/2")));
        EXPECT_EQ(!bMove, isPresent(source("tree/in/3")));
        EXPECT_EQ("", debris());
    }
}

TEST_F(CarryOutTransfer, an_entry_that_cannot_be_listed_stays_and_the_others_go) {
    writeFile(source("tree/closed/a"), "a");
    writeFile(source("tree/open/b"), "b");
    makeDirectory(target("tree/closed"));
    makeDirectory(target("tree/open"));
    fs::permissions(source("tree/closed"), static_cast<fs::perms>(0300));
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(move({"tree"}));
        EXPECT_EQ("done /source/tree/open/b -> /target/tree/open/b\n"
                  "failed: Cannot read '/source/tree/closed': " +
                      systemText(std::errc::permission_denied) + "\n",
                  report());
    });
}

TEST_F(CarryOutTransfer, arrivals_are_told_by_identity) {
    makeSmallTree(source("tree"));
    writeFile(source("both/file"), "new");
    writeFile(target("both/file"), "old");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    for (const bool bMove : {false, true}) {
        EXPECT_TRUE(run(bMove, {"tree", "both"}));
        ASSERT_EQ(2U, m_report.Done.size());
        for (const TavroTransferredEntry& entry : m_report.Done) {
            EXPECT_EQ(entry.Arrived.Identity, TavroIdentityOf(statusOf(entry.To)));
        }
        fs::remove_all(target("tree"));
    }
}

/// What is told of an entry before it gets its name.
class ToldBefore : public TransferTest {
protected:
    /// The steps of this role that lead to a new file, or to one that it replaces.
    std::vector<TavroStep> toldOf(bool bMove, TavroStepRole role, bool bReplaces) {
        fs::remove_all(target("file"));
        writeFile(source("file"), "new");
        if (bReplaces) {
            writeFile(target("file"), "old");
        }
        m_source = statusOf(source("file"));
        m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
        std::vector<TavroStep> told;
        m_callbacks.BeforeActs = [&](TavroOperationKind kind, const std::vector<TavroStep>& steps) {
            EXPECT_EQ(bMove ? TavroOperationKind::Move : TavroOperationKind::Copy, kind);
            if (told.empty()) {
                EXPECT_EQ(bReplaces, isPresent(target("file")));
                EXPECT_TRUE(!bReplaces || readFile(target("file")) == "old");
                m_old = bReplaces ? TavroIdentityOf(statusOf(target("file"))) : TavroIdentity();
            }
            for (const TavroStep& step : steps) {
                if (step.Role == role) {
                    told.push_back(step);
                }
            }
            return TavroFailure();
        };
        EXPECT_TRUE(run(bMove, {"file"})) << report();
        return told;
    }

    void expectCopyTold(bool bMove, bool bReplaces) {
        const auto told =
            toldOf(bMove, bMove ? TavroStepRole::Moved : TavroStepRole::Copied, bReplaces);
        ASSERT_EQ(1U, told.size());
        EXPECT_EQ(source("file"), told[0].From);
        EXPECT_EQ(target("file"), told[0].To);
        EXPECT_EQ(TavroIdentityOf(statusOf(target("file"))), told[0].Identity);
        EXPECT_EQ(TavroIdentityOf(m_source), told[0].Source);
        EXPECT_EQ(TavroNanoseconds(m_source.st_ctim), told[0].SourceTime);
        EXPECT_TRUE(TavroIsStagingName(told[0].Staged));
    }

    struct stat m_source = {};
    TavroIdentity m_old;
};

TEST_F(ToldBefore, a_copy_is_told_with_both_files_and_its_hidden_name) {
    expectCopyTold(false, false);
    expectCopyTold(false, true);
}

TEST_F(ToldBefore, a_move_between_file_systems_is_told_as_a_copy_is) {
    TARGET_ELSEWHERE();
    expectCopyTold(true, false);
    expectCopyTold(true, true);
}

TEST_F(ToldBefore, a_rename_is_told_with_its_file_and_the_hidden_name_by_which_it_replaces) {
    for (const bool bReplaces : {false, true}) {
        const auto told = toldOf(true, TavroStepRole::Moved, bReplaces);
        ASSERT_EQ(1U, told.size());
        EXPECT_EQ(source("file"), told[0].From);
        EXPECT_EQ(target("file"), told[0].To);
        EXPECT_EQ(TavroIdentityOf(m_source), told[0].Identity);
        EXPECT_EQ(0U, told[0].Source.Inode);
        EXPECT_EQ(bReplaces, TavroIsStagingName(told[0].Staged));
    }
}

TEST_F(ToldBefore, what_is_replaced_is_told_with_its_place_in_the_trash) {
    for (const bool bMove : {false, true}) {
        const auto told = toldOf(bMove, TavroStepRole::Replaced, true);
        ASSERT_EQ(1U, told.size());
        EXPECT_EQ(target("file"), told[0].From);
        EXPECT_EQ("old", readFile(told[0].To));
        EXPECT_EQ(m_old, TavroIdentityOf(statusOf(told[0].To)));
        EXPECT_EQ(m_old, told[0].Identity);
        EXPECT_TRUE(isPresent(told[0].Record));
        EXPECT_TRUE(TavroIsStagingName(told[0].Staged));
    }
}

TEST_F(ToldBefore, what_is_copied_into_the_trash_is_told_with_both_files) {
    TARGET_ELSEWHERE();
    const auto told = toldOf(false, TavroStepRole::Replaced, true);
    ASSERT_EQ(2U, told.size());
    EXPECT_EQ(m_old, told[0].Identity);
    EXPECT_EQ(m_old, told[1].Source);
    EXPECT_EQ(TavroIdentityOf(statusOf(told[1].To)), told[1].Identity);
    EXPECT_EQ(told[0].Staged, told[1].Staged);
}

TEST_F(ToldBefore, each_directory_that_is_created_is_told) {
    writeFile(source("1"), "1");
    writeFile(source("2"), "2");
    add("1", "new/newer/1");
    add("2", "new/other/2");
    std::set<std::string> told;
    m_callbacks.BeforeActs = [&](TavroOperationKind, const std::vector<TavroStep>& steps) {
        for (const TavroStep& step : steps) {
            if (step.Role == TavroStepRole::CreatedDirectory) {
                EXPECT_EQ("", step.From);
                told.insert(step.To);
            }
        }
        return TavroFailure();
    };
    EXPECT_TRUE(copy());
    EXPECT_EQ((std::set<std::string>{target("new"), target("new/newer"), target("new/other")}),
              told);
}

TEST_F(ToldBefore, a_directory_that_a_merge_empties_is_told_with_what_it_had) {
    writeFile(source("tree/a"), "a");
    makeDirectory(target("tree"));
    fs::permissions(source("tree"), fs::perms(0750));
    setTimes(source("tree"), 1000000000, 7);
    std::vector<TavroStep> told;
    m_callbacks.BeforeActs = [&](TavroOperationKind, const std::vector<TavroStep>& steps) {
        std::copy_if(steps.begin(), steps.end(), std::back_inserter(told),
                     [](const auto& step) { return step.Role == TavroStepRole::RemovedDirectory; });
        return TavroFailure();
    };
    EXPECT_TRUE(move({"tree"}));
    ASSERT_EQ(1U, told.size());
    EXPECT_EQ(source("tree"), told[0].From);
    EXPECT_EQ(0750U, told[0].Mode);
    struct stat had = {};
    std::vector<TavroAttribute> attributes;
    ASSERT_TRUE(TavroUnpackAttributes(told[0].Attributes, had, attributes));
    EXPECT_EQ("1000000000.7", timesOf(had));
    EXPECT_EQ(told[0].Attributes, m_report.RemovedDirectories.at(0).Attributes);
}

TEST_F(CarryOutTransfer, a_directory_whose_counterpart_has_just_gone_is_copied_whole) {
    makeSmallTree(source("tree"));
    makeDirectory(target("tree"));
    const auto observer = beforeCall("openat", target("tree"), [&, bOnce = true]() mutable {
        if (std::exchange(bOnce, false)) {
            fs::remove(target("tree"));
        }
    });
    EXPECT_TRUE(copy({"tree"})) << report();
    EXPECT_EQ("done /source/tree -> /target/tree\n", report());
    EXPECT_EQ(takeSnapshot(source("tree")), takeSnapshot(target("tree")));
}

TEST_F(CarryOutTransfer, tells_which_directories_it_has_created) {
    writeFile(source("file"), "bytes");
    add("file", "new/newer/file");
    add("file", "new/other/file");
    EXPECT_TRUE(copy());
    const std::vector<std::string> expected = {target("new"), target("new/newer"),
                                               target("new/other")};
    EXPECT_EQ(expected, m_report.CreatedDirectories);
}

TEST_F(CarryOutTransfer, an_item_goes_to_its_path_also_when_an_earlier_one_moved_what_was_there) {
    writeFile(source("1"), "1");
    writeFile(source("2"), "2");
    makeDirectory(target("here"));
    add("1", "here/1");
    add("2", "here/2");
    TavroTransferItemPlan between;
    between.SourcePath = target("here");
    between.DestinationPath = target("there");
    m_plan.Items.insert(m_plan.Items.begin() + 1, between);
    EXPECT_TRUE(move()) << report();
    EXPECT_EQ("1", readFile(target("there/1")));
    EXPECT_EQ("2", readFile(target("here/2")));
    EXPECT_FALSE(isPresent(target("there/2")));
}

// =================================================================================================
// An adversary
// =================================================================================================

/// Somebody who exchanges a directory of a merge for a link to another one, at every call.
class LedAstray : public TransferTest {
protected:
    explicit LedAstray(const fs::path& where = inMemory()) : TransferTest(where) {}

    void rebuild() {
        fs::remove_all(source());
        fs::remove_all(target());
        fs::remove_all(m_box / "outside");
        for (const std::string name : {"tree/in/a", "tree/in/deep/b", "tree/new/c", "tree/z"}) {
            writeFile(source(name), "of the source");
        }
        writeFile(target("tree/in/deep/old"), "of the target");
        writeFile(target("tree/in/a"), "of the target");
        for (const std::string name :
             {"a", "deep/b", "in/a", "in/deep/b", "new/c", "secret", "z"}) {
            writeFile(m_box / "outside" / name, "secret");
        }
    }

    /// A place on the same file system.
    fs::path awayFrom(const fs::path& victim) const {
        const bool bBelow = victim.string().rfind(m_box.path().string(), 0) == 0;
        return (bBelow ? m_box.path() : m_other->path()) / "taken away";
    }

    void exchangeAtEveryCall(bool bMove, const std::function<fs::path()>& victim) {
        m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
        bool bRanThrough = false;
        int calls = 0;
        for (int k = 1; !bRanThrough; k += callStride()) {
            rebuild();
            const auto before = attributesOfTree(m_box / "outside");
            calls = 0;
            {
                const CallObserver adversary([&](const std::string&, const std::string&) {
                    if (++calls == k && isPresent(victim())) {
                        fs::rename(victim(), awayFrom(victim()));
                        fs::create_symlink(m_box / "outside", victim());
                    }
                });
                run(bMove, {"tree"});
            }
            bRanThrough = calls < k;
            EXPECT_EQ(before, attributesOfTree(m_box / "outside"));
            for (const auto& [name, what] : takeSnapshot(target())) {
                EXPECT_EQ(std::string::npos, what.find("secret")) << name << ": " << what;
            }
            fs::remove_all(awayFrom(source()));
            fs::remove_all(awayFrom(target()));
            ASSERT_FALSE(HasFailure()) << "at call " << k << "\n" << report();
        }
        EXPECT_LT(30, calls);
    }

    std::vector<std::string> m_victims = {"tree", "tree/in", "tree/in/deep"};

    void exchangeEach(bool bMove) {
        for (const std::string& name : m_victims) {
            exchangeAtEveryCall(bMove, [&] { return source(name); });
            exchangeAtEveryCall(bMove, [&] { return target(name); });
        }
    }
};

TEST_F(LedAstray, a_merging_copy_stays_in_its_trees) {
    exchangeEach(false);
}

TEST_F(LedAstray, a_merging_move_stays_in_its_trees) {
    exchangeEach(true);
}

TEST_F(LedAstray, what_others_take_as_soon_as_it_has_its_name_is_not_said_to_lie_there) {
    writeFile(source("f"), "bytes");
    makeDirectory(target());
    bool bTaken = false;
    {
        const CallObserver other([&](const std::string&, const std::string&) {
            if (!bTaken && isPresent(target("f"))) {
                fs::rename(target("f"), m_box / "taken");
                bTaken = true;
            }
        });
        run(true, {"f"});
    }
    EXPECT_TRUE(bTaken);
    EXPECT_EQ("bytes", readFile(m_box / "taken"));
    EXPECT_NE(std::string::npos, report().find("changed while it was being moved")) << report();
    EXPECT_EQ(std::string::npos, report().find("is now at")) << report();
}

/// A directory deep in a merge is moved away when the first entry gets its name there.
TEST_F(LedAstray, the_way_up_is_the_way_that_led_down) {
    for (const bool bSource : {true, false}) {
        for (const bool bMove : {false, true}) {
            rebuild();
            // One of each pair comes after the directory beside it, whatever the order.
            std::string deep = "tree";
            for (int level = 0; level < 8; ++level) {
                writeFile(source(deep) / "a", "of the source");
                makeDirectory(source(deep) / "d");
                writeFile(source(deep) / "z", "of the source");
                deep += "/d";
            }
            writeFile(source(deep) / "f", "bytes");
            makeDirectory(target(deep));
            const fs::path moved = (bSource ? source() : target()) / "tree/d/d/d/d/d";
            const auto before = takeSnapshot(m_box / "outside");
            {
                bool bMoved = false;
                const auto adversary = beforeNaming(target(deep) / "f", [&] {
                    if (!bMoved) {
                        fs::rename(moved, m_box / "outside/d");
                        bMoved = true;
                    }
                });
                run(bMove, {"tree"});
                EXPECT_TRUE(bMoved);
            }
            fs::remove_all(m_box / "outside/d");
            EXPECT_EQ(before, takeSnapshot(m_box / "outside"));
            for (const auto& [name, what] : takeSnapshot(target())) {
                EXPECT_EQ(std::string::npos, what.find("secret")) << name << ": " << what;
            }
        }
    }
}

class LedAstrayElsewhere : public LedAstray {
protected:
    LedAstrayElsewhere() : LedAstray(fs::temp_directory_path()) {
        m_victims = {"tree/in"}; // on a disk, each takes its time
    }
};

TEST_F(LedAstrayElsewhere, a_merging_move_between_file_systems_stays_in_its_trees) {
    TARGET_ELSEWHERE();
    exchangeEach(true);
}

} // namespace
