// Somebody who owns what an operation works on tries to lead it elsewhere: at each of its calls
// directories and files are exchanged for links to a victim, and entries are carried off.

#include "strikes.h"
#include "world.h"

#include "adversary.h"
#include "edit.h"
#include "history.h"
#include "history_support.h"
#include "place.h"
#include "record.h"
#include "stride.h"
#include "transfer.h"
#include "trash.h"
#include "trash_contents.h"
#include "undo.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

// =================================================================================================
// The operations
// =================================================================================================

/// What is done between two calls of the adversary.
struct Scenario {
    const char* Name;
    bool bFar; ///< To another device, and from there.
    std::function<void(World&)> Before;
    std::function<bool(World&)> Act; ///< Whether it was done.
};

std::vector<TavroOperationEntry> treeOf(const World& world) {
    return {TavroNameEntry(world.tree())};
}

TavroTransferReport transfer(World& world, bool bMove, bool& bOutDone) {
    TavroTransferPlan plan;
    plan.bMove = bMove;
    plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    plan.Items.resize(1);
    plan.Items[0].Name = "tree";
    plan.Items[0].SourcePath = world.tree();
    plan.Items[0].DestinationPath = world.dest() / "tree";
    plan.Items[0].bDirectory = true;
    TavroTransferReport report;
    bOutDone = TavroCarryOutTransfer(plan, {}, report);
    return report;
}

bool copy(World& world) {
    bool bDone = false;
    transfer(world, false, bDone);
    return bDone;
}

bool move(World& world) {
    bool bDone = false;
    transfer(world, true, bDone);
    return bDone;
}

TavroTrashReport trash(World& world) {
    return TavroTrashSelection(treeOf(world), {});
}

bool isTrashed(World& world) {
    return !trash(world).Batch.Failure;
}

/// What is in the trash, listed before the adversary comes.
std::vector<TavroTrashItem> g_items;

void trashAndList(World& world) {
    EXPECT_TRUE(isTrashed(world));
    EXPECT_FALSE(TavroListTrash({}, g_items));
}

bool empty(World&) {
    return !TavroRemoveFromTrash(g_items, {});
}

bool restore(World&) {
    return !TavroRestoreSelection({g_items.at(0).Trashed()}, {}).Batch.Failure;
}

/// Records an operation, to be undone.
void record(TavroOperation operation) {
    TavroCompleteOperation(operation);
    TavroHistory history;
    EXPECT_FALSE(history.Open(TavroHistoryPath(), std::chrono::seconds(5)));
    EXPECT_FALSE(recordDone(history, operation));
}

void transferAndRecord(World& world, bool bMove) {
    bool bDone = false;
    const TavroTransferReport report = transfer(world, bMove, bDone);
    EXPECT_TRUE(bDone);
    record(TavroOperationOf(report, bMove));
}

bool undo(World&) {
    TavroHistory history;
    const TavroFailure failure = history.Open(TavroHistoryPath(), std::chrono::seconds(5));
    return !failure && !TavroUndo(history, {}).Failure;
}

bool redo(World&) {
    TavroHistory history;
    const TavroFailure failure = history.Open(TavroHistoryPath(), std::chrono::seconds(5));
    return !failure && !TavroRedo(history, {}).Failure;
}

void nothing(World&) {}

/// One directory does not let its entries be removed.
void close(World& world) {
    fs::permissions(world.tree() / "sub/closed", fs::perms(0500));
}

/// A directory of the same name is at the destination, with some of the same names in it.
void makeDestination(World& world) {
    writeFile(world.dest() / "tree/sub/inner", "older");
    writeFile(world.dest() / "tree/sub/deep/other", "older");
    world.giveAway(world.dest());
}

const Scenario scenarios[] = {
    {"delete", false, nothing, [](World& world) { return !TavroDeleteForGood(treeOf(world), {}); }},
    {"empty", false,
     [](World& world) {
         close(world);
         trashAndList(world);
     },
     empty},
    {"copy", false, close, copy},
    {"copy across devices", true, close, copy},
    {"copy into a directory", false, makeDestination, copy},
    {"move", false, nothing, move},
    {"move across devices", true, nothing, move},
    {"move into a directory", false, makeDestination, move},
    {"trash", false, nothing, isTrashed},
    {"trash across devices", true, nothing, isTrashed},
    {"restore", false, trashAndList, restore},
    {"restore across devices", true, trashAndList, restore},
    {"undo a copy", false, [](World& world) { transferAndRecord(world, false); }, undo},
    {"undo a move across devices", true, [](World& world) { transferAndRecord(world, true); },
     undo},
    {"undo trashing across devices", true,
     [](World& world) { record(TavroOperationOf(trash(world))); }, undo},
    {"redo a move across devices", true,
     [](World& world) {
         transferAndRecord(world, true);
         EXPECT_TRUE(undo(world));
     },
     redo},
};

// =================================================================================================
// The adversary
// =================================================================================================

void tryToLeadAstray(const Scenario& scenario, const fs::path& far) {
    World world(scenario.bFar ? far : inMemory());
    AdversaryTally all;
    for (const Strike& strike : allStrikes()) {
        SCOPED_TRACE(std::string(scenario.Name) + ", exchanged: " + strike.Name);
        bool bDone = false;
        Adversary adversary;
        adversary.Stride = callStride();
        adversary.Prepare = [&] {
            alarm(120); // nobody waits for a pipe
            world.begin(strike.bDeep);
            scenario.Before(world);
        };
        adversary.Operate = [&] { bDone = scenario.Act(world); };
        adversary.Strike = [&] { return strike.Act(world); };
        adversary.Judge = [&] { EXPECT_EQ("", world.damage()); };
        adversary.Counts = [&](const std::string& call, const std::string& path) {
            return world.notice(call, path) && seesNames(call);
        };
        const AdversaryTally tally = strikeAtEachCall(adversary);
        EXPECT_TRUE(bDone) << "undisturbed, it is done";
        all.Runs += tally.Runs;
        all.Strikes += tally.Strikes;
        if (testing::Test::HasFailure()) {
            break;
        }
    }
    std::printf("%-32s %5d runs, struck in %d\n", scenario.Name, all.Runs, all.Strikes);
    EXPECT_GT(all.Strikes, 0);
}

class LeadAstray : public testing::TestWithParam<Scenario> {};

} // namespace

TEST_P(LeadAstray, what_belongs_to_somebody_else) {
    if (!isRoot()) {
        GTEST_SKIP() << "needs root, to work on what another user owns";
    }
    runWithTwoDevices([](const fs::path& far) { tryToLeadAstray(GetParam(), far); });
}

TEST_P(LeadAstray, as_an_ordinary_user) {
    runWithTwoDevices([](const fs::path& far) {
        const Sandbox none;
        runUnprivileged(none.path(), [&] { tryToLeadAstray(GetParam(), far); });
    });
}

INSTANTIATE_TEST_SUITE_P(Operations, LeadAstray, testing::ValuesIn(scenarios),
                         [](const testing::TestParamInfo<Scenario>& given) {
                             std::string name = given.param.Name;
                             for (char& byte : name) {
                                 byte = byte == ' ' ? '_' : byte;
                             }
                             return name;
                         });
