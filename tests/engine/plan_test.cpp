// A plan of the engine is the module's plan, whatever is selected and wherever it goes.

#include "plan.h"

#include "place.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <random>

using namespace tavro_test;
namespace fs = std::filesystem;

namespace {

struct Plans {
    bool bOurs;
    bool bModules;
    TavroTransferPlan Ours;
    TavroTransferPlan Modules;
    std::string OurError;
    std::string ModulesError;
};

Plans PlanTwice(const std::vector<TavroOperationEntry>& Entries, const std::string& Text,
                const fs::path& Base, bool bMove) {
    const auto policy = TavroTransferConflictPolicy::Skip;
    Plans plans;
    plans.bOurs =
        TavroPlanTransfer(Entries, Text, Base.string(), bMove, policy, plans.Ours, plans.OurError);
    plans.bModules = TavroBuildTransferPlan(Entries, Text, Base, bMove, policy, plans.Modules,
                                            plans.ModulesError);
    return plans;
}

void ExpectEqual(const Plans& Both) {
    EXPECT_EQ(Both.bOurs, Both.bModules);
    EXPECT_EQ(Both.OurError, Both.ModulesError);
    if (!Both.bModules) {
        return;
    }
    EXPECT_EQ(Both.Ours.bMove, Both.Modules.bMove);
    EXPECT_EQ(Both.Ours.ConflictPolicy, Both.Modules.ConflictPolicy);
    EXPECT_EQ(Both.Ours.SourceLabel, Both.Modules.SourceLabel);
    ASSERT_EQ(Both.Ours.Items.size(), Both.Modules.Items.size());
    for (std::size_t i = 0; i < Both.Ours.Items.size(); ++i) {
        EXPECT_EQ(Both.Ours.Items[i].Name, Both.Modules.Items[i].Name);
        EXPECT_EQ(Both.Ours.Items[i].SourcePath.native(),
                  Both.Modules.Items[i].SourcePath.native());
        EXPECT_EQ(Both.Ours.Items[i].DestinationPath.native(),
                  Both.Modules.Items[i].DestinationPath.native());
        EXPECT_EQ(Both.Ours.Items[i].bDirectory, Both.Modules.Items[i].bDirectory);
    }
}

/// Entries of every sort, and targets that suit them or do not.
class PlanTest : public ::testing::Test {
protected:
    PlanTest() {
        for (const char* file : {"a", "b", "c", "d/a", "d/inner/x", "e/b", "full"}) {
            writeFile(m_box / file);
        }
        makeDirectory(m_box / "empty");
        fs::create_symlink("a", m_box / "link");
        fs::create_symlink("nowhere", m_box / "dangling");
        fs::create_symlink("d", m_box / "door");
        fs::create_hard_link(m_box / "c", m_box / "empty/c");
        fs::create_symlink("nowhere", m_box / "empty/link");
    }

    TavroOperationEntry Entry(const std::string& Name) const {
        std::vector<TavroOperationEntry> entries;
        TavroSelectEntries({Name.find(':') != std::string::npos ? Name : (m_box / Name).string()},
                           entries);
        return entries.front();
    }

    Sandbox m_box;
};

} // namespace

TEST_F(PlanTest, IsTheModulesForRandomSelectionsAndTargets) {
    const std::vector<std::string> sources = {
        "a",    "b",   "c",   "d",       "e",          "link",    "dangling",
        "door", "d/a", "e/b", "d/inner", "door/inner", "empty/c", "cdda:/Track 1.cdda"};
    const std::vector<std::string> targets = {
        "d",      "d/",       "door",      "e",          "empty",
        "empty/", "new",      "new/deep/", "a",          "a/",
        "a/x",    "dangling", "d/inner",   ".",          "..",
        "~/new",  "  ",       "",          "missing/..", std::string(300, 't')};
    const ScopedEnvironment home("HOME", m_box.path().string());
    std::mt19937 random(1);
    const auto pick = [&random](const std::vector<std::string>& from) {
        return from[random() % from.size()];
    };
    int succeeded = 0;
    for (int round = 0; round < 6000 && !HasFailure(); ++round) {
        std::vector<TavroOperationEntry> entries;
        for (std::size_t count = random() % 7; entries.size() < count;) {
            entries.push_back(Entry(pick(sources)));
        }
        const std::string target = pick(targets);
        SCOPED_TRACE("to " + target + ", round " + std::to_string(round));
        const Plans plans = PlanTwice(entries, target, m_box.path(), random() % 2 == 0);
        ExpectEqual(plans);
        succeeded += plans.bModules && entries.size() > 2 ? 1 : 0;
    }
    EXPECT_GT(succeeded, 100);
}

TEST_F(PlanTest, OfAFileInTheWayIsTheModulesToo) {
    const std::vector<TavroOperationEntry> entries = {Entry("a"), Entry("b"), Entry("c"),
                                                      Entry("link")};
    const Plans same = PlanTwice(entries, "empty", m_box.path(), true); // c is there by a hard link
    ExpectEqual(same);
    EXPECT_EQ(same.OurError, "Move target matches the source path for 'c'.");
}

TEST_F(PlanTest, WithoutTheRightToLookIsTheModulesToo) {
    runUnprivileged(m_box.path(), [&] {
        fs::permissions(m_box / "empty", fs::perms::none);
        const Plans plans =
            PlanTwice({Entry("a"), Entry("b"), Entry("c")}, "empty", m_box.path(), false);
        fs::permissions(m_box / "empty", fs::perms::owner_all);
        ExpectEqual(plans);
        EXPECT_NE(plans.OurError.find("Permission denied"), std::string::npos) << plans.OurError;
    });
}
