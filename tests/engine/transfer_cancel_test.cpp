// Cancelling a transfer, and how far it says to have come.

#include "transfer_fixture.h"

#include <chrono>

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_transfer_test;

namespace {

TEST_F(CarryOutTransfer, a_file_that_is_overwritten_keeps_its_bytes_until_the_new_ones_are_whole) {
    writeFile(source("big"), bytesOf(9 * mebibyte));
    writeFile(target("big"), "old");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    std::string meanwhile;
    inTheMiddle([&] {
        meanwhile = readFile(target("big"));
        return true;
    });
    EXPECT_FALSE(copy({"big"}));
    EXPECT_EQ("old", meanwhile);
    EXPECT_EQ("old", readFile(target("big")));
    EXPECT_EQ("cancelled\n", report());
    EXPECT_EQ("", debris());
    m_callbacks = {};
    EXPECT_TRUE(copy({"big"}));
    EXPECT_EQ(bytesOf(9 * mebibyte), readFile(target("big")));
}

TEST_F(CarryOutTransfer, a_cancel_takes_effect_within_one_block) {
    writeFile(source("big"), bytesOf(32 * mebibyte));
    std::uint64_t told = 0;
    m_callbacks.OnProgress = [&](const TavroProgress& progress) { told = progress.BytesDone; };
    inTheMiddle([] { return true; });
    EXPECT_FALSE(copy({"big"}));
    EXPECT_LE(told, 4 * mebibyte);
    EXPECT_GT(told, 0U);
}

/// Cancels at every possible moment, one after another, until a transfer was not cancelled.
class CancelledTransfer : public TransferTest {
protected:
    void cancelEverywhere(bool bMove) {
        bool bRanThrough = false;
        int cancels = 0;
        for (int k = 1; !bRanThrough; ++k) {
            ASSERT_LT(k, 1000);
            rebuild();
            int calls = 0;
            m_callbacks.ShouldCancel = [&] { return ++calls == k; };
            bRanThrough = run(bMove, {"tree", "z"});
            cancels += m_report.bCancelled ? 1 : 0;
            EXPECT_EQ(!bRanThrough, m_report.bCancelled) << report();
            expectWholeInOnePlace("tree", bMove);
            expectWholeInOnePlace("z", bMove);
            EXPECT_EQ("", debris());
            ASSERT_FALSE(HasFailure()) << "cancelled at call " << k << "\n" << report();
        }
        EXPECT_GT(cancels, 15);
    }

    void rebuild() {
        fs::remove_all(source());
        fs::remove_all(target());
        makeDirectory(target());
        makeSmallTree(source("tree"));
        writeFile(source("z"), "last");
        fs::create_hard_link(source("z"), source("tree/z"));
        m_tree = takeSnapshot(source("tree"));
        m_last = takeSnapshot(source("z"));
    }

    void expectWholeInOnePlace(const std::string& name, bool bMove) {
        const Snapshot& whole = name == "tree" ? m_tree : m_last;
        const bool bArrived = isPresent(target(name));
        EXPECT_EQ(bArrived ? whole : Snapshot(), takeSnapshot(target(name)));
        EXPECT_EQ(bArrived && bMove ? Snapshot() : whole, takeSnapshot(source(name)));
        const bool bReported =
            std::any_of(m_report.Done.begin(), m_report.Done.end(),
                        [&](const TavroTransferredEntry& e) { return e.To == target(name); });
        EXPECT_EQ(bArrived, bReported);
    }

    Snapshot m_tree;
    Snapshot m_last;
};

TEST_F(CancelledTransfer, a_copy_leaves_each_item_whole_or_absent) {
    cancelEverywhere(false);
}

TEST_F(CancelledTransfer, a_move_between_file_systems_leaves_each_item_whole_in_one_place) {
    TARGET_ELSEWHERE();
    cancelEverywhere(true);
}

TEST_F(CarryOutTransfer, an_incomplete_copy_that_cannot_be_removed_is_named) {
    writeFile(source("tree/a"), bytesOf(100));
    writeFile(source("tree/b"), bytesOf(100));
    inTheMiddle([] { return true; });
    const FaultInjector faults({{"unlinkat", EIO, "", 1, true}});
    EXPECT_FALSE(copy({"tree"}));
    EXPECT_EQ("failed: Cannot remove the incomplete copy "
              "'/target/.tavro-XXXXXX': " +
                  systemText(std::errc::io_error) + "\ncancelled\n",
              report());
    EXPECT_LT(0, faults.fired());
}

TEST_F(CarryOutTransfer, a_transfer_cancelled_while_it_is_measured_does_nothing) {
    makeSmallTree(source("tree"));
    m_callbacks.ShouldCancel = [] { return true; };
    int told = 0;
    m_callbacks.OnProgress = [&](const TavroProgress&) { ++told; };
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("cancelled\n", report());
    EXPECT_EQ(1, told);
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(CarryOutTransfer, fills_in_the_counts_of_each_item_when_somebody_listens) {
    makeSmallTree(source("tree"));
    writeFile(source("file"), std::string(1000, 'x'));
    add("tree", "tree");
    add("file", "file");
    EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
    EXPECT_EQ(0U, m_plan.Items[0].ItemCount);
    fs::remove_all(target());
    m_callbacks.OnProgress = [](const TavroProgress&) {};
    EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
    EXPECT_EQ(12U, m_plan.Items[0].ItemCount);
    EXPECT_EQ(11U, m_plan.Items[0].ByteCount);
    EXPECT_EQ(1U, m_plan.Items[1].ItemCount);
    EXPECT_EQ(1000U, m_plan.Items[1].ByteCount);
}

TEST_F(CarryOutTransfer, tells_at_most_20_times_a_second_and_ends_at_the_totals) {
    for (int i = 0; i < 60; ++i) {
        writeFile(source("tree/" + std::to_string(i)), "12345");
    }
    writeFile(source("file"), "12345");
    using Clock = std::chrono::steady_clock;
    std::vector<TavroProgress> told;
    m_callbacks.OnProgress = [&](const TavroProgress& progress) { told.push_back(progress); };
    const Clock::time_point begin = Clock::now();
    m_callbacks.ShouldCancel = [asked = begin]() mutable {
        asked += std::chrono::milliseconds(2);
        while (Clock::now() < asked) {
        } // each entry takes so long
        return false;
    };
    EXPECT_TRUE(copy({"tree", "file"}));
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    EXPECT_GE(told.size(), 3U);
    EXPECT_LE(static_cast<double>(told.size()), seconds * 20 + 1);
    for (std::size_t i = 1; i < told.size(); ++i) {
        EXPECT_GE(told[i].ItemsDone, told[i - 1].ItemsDone);
        EXPECT_GE(told[i].BytesDone, told[i - 1].BytesDone);
        EXPECT_LE(told[i].ItemsDone, told[i].ItemCount);
    }
    const fs::path current = told[told.size() / 2].CurrentPath;
    EXPECT_EQ(source("tree"), current.parent_path());
    EXPECT_EQ(62U, told.back().ItemsDone);
    EXPECT_EQ(62U, told.back().ItemCount);
    EXPECT_EQ(61U * 5, told.back().BytesDone);
    EXPECT_EQ(61U * 5, told.back().ByteCount);
}

TEST_F(CarryOutTransfer, what_found_its_place_taken_when_it_was_cancelled_leaves_nothing_hidden) {
    writeFile(source("a"), "a");
    writeFile(source("b"), "b");
    bool bTaken = false;
    const CallObserver observer = beforeNaming(target("a"), [&] {
        writeFile(target("a"), "another process");
        bTaken = true;
    });
    m_callbacks.ShouldCancel = [&] { return bTaken; };
    EXPECT_FALSE(copy({"a", "b"}));
    EXPECT_TRUE(bTaken);
    EXPECT_EQ("cancelled\n", report());
    EXPECT_EQ("", debris());
}

TEST_F(CarryOutTransfer, what_is_kept_after_a_cancel_replaces_what_goes_to_another_file_system) {
    TARGET_ELSEWHERE();
    for (const std::string name : {"a", "b"}) {
        writeFile(source(name), "new");
        writeFile(target(name), "old");
    }
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    int asked = 0;
    m_callbacks.ShouldCancel = [&] { return ++asked > 2; };
    m_callbacks.ShouldKeep = [] { return true; };
    m_callbacks.BeforeActs = [](auto, const auto&) { return TavroFailure(); };
    EXPECT_FALSE(copy({"a", "b"}));
    EXPECT_EQ("done /source/a -> /target/a replaced\ncancelled\n", report());
    EXPECT_EQ("new", readFile(target("a")));
    EXPECT_EQ("old", readFile(trashed("a")));
    EXPECT_EQ("", debris());
}

TEST_F(CarryOutTransfer, the_counts_end_at_the_totals_whatever_became_of_the_items) {
    makeSmallTree(source("renamed"));
    writeFile(source("skipped"), "12345");
    writeFile(target("skipped"), "12345");
    writeFile(source("refused"), "12345");
    writeFile(target("in the way"));
    add("refused", "in the way/refused");
    TavroProgress last;
    m_callbacks.OnProgress = [&](const TavroProgress& progress) { last = progress; };
    EXPECT_FALSE(move({"renamed", "skipped"}));
    EXPECT_EQ(14U, last.ItemsDone);
    EXPECT_EQ(14U, last.ItemCount);
    EXPECT_EQ(21U, last.BytesDone);
    EXPECT_EQ(21U, last.ByteCount);
}

TEST_F(CarryOutTransfer, what_was_cancelled_is_not_counted_as_done) {
    writeFile(source("big"), bytesOf(9 * mebibyte));
    TavroProgress last;
    m_callbacks.OnProgress = [&](const TavroProgress& progress) { last = progress; };
    inTheMiddle([] { return true; });
    EXPECT_FALSE(copy({"big"}));
    EXPECT_EQ(0U, last.ItemsDone);
    EXPECT_LT(last.BytesDone, last.ByteCount);
}

} // namespace
