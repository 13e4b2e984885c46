// A plan is carried out.

#include "examples.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <set>

using namespace tavro_test;

namespace {

//! [place]
/// Every file below `From` has its whole size at `To`; links are not followed.
bool ArrivedWhole(const fs::path& From, const fs::path& To) {
    const fs::file_status status = fs::symlink_status(From);
    if (fs::is_regular_file(status)) {
        return fs::is_regular_file(fs::symlink_status(To)) &&
               fs::file_size(From) == fs::file_size(To);
    }
    if (fs::is_directory(status)) {
        for (const fs::directory_entry& entry : fs::directory_iterator(From)) {
            if (!ArrivedWhole(entry, To / entry.path().filename())) {
                return false;
            }
        }
    }
    return fs::symlink_status(To).type() == status.type();
}

/// Copies or moves one item to its destination, at which nothing is. Throws filesystem_error.
void PlaceItem(const TavroTransferItemPlan& Item, bool bMove) {
    const fs::path& to = Item.DestinationPath;
    fs::create_directories(to.parent_path());
    std::error_code ec;
    if (bMove) {
        RenameNoReplace(Item.SourcePath, to, ec);
        if (!ec) {
            return;
        }
        if (ec != std::errc::cross_device_link) {
            throw fs::filesystem_error("move", Item.SourcePath, to, ec);
        }
    }
    // A copy gets its name when it is whole.
    const fs::path unfinished = to.string() + ".unfinished";
    if (fs::exists(fs::symlink_status(unfinished))) {
        ec = std::make_error_code(std::errc::file_exists);
        throw fs::filesystem_error("copy", Item.SourcePath, unfinished, ec);
    }
    fs::copy(Item.SourcePath, unfinished,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    if (!ArrivedWhole(Item.SourcePath, unfinished)) {
        ec = std::make_error_code(std::errc::io_error);
        throw fs::filesystem_error("copy", Item.SourcePath, unfinished, ec);
    }
    RenameNoReplace(unfinished, to, ec);
    if (ec) {
        throw fs::filesystem_error("copy", unfinished, to, ec);
    }
    if (bMove) {
        fs::remove_all(Item.SourcePath);
    }
}
//! [place]

//! [carry-out]
/// Carries out a plan under its policy; what is replaced goes to the trash. Stops at the first
/// failure; what is done stays done.
bool CarryOut(const TavroTransferPlan& Plan,
              const std::function<bool(const TavroTransferItemPlan&)>& AskReplace,
              std::string& ErrorMessage) {
    std::set<fs::path> destinations;
    for (const TavroTransferItemPlan& item : Plan.Items) {
        if (!destinations.insert(item.DestinationPath).second) {
            ErrorMessage = "Two entries would become " + item.DestinationPath.string();
            return false;
        }
    }
    for (const TavroTransferItemPlan& item : Plan.Items) {
        const fs::path& to = item.DestinationPath;
        std::vector<TavroTrashEntry> replaced;
        try {
            if (fs::exists(fs::symlink_status(to))) { // a dangling link is something, too
                if (Plan.ConflictPolicy == TavroTransferConflictPolicy::Skip ||
                    (Plan.ConflictPolicy == TavroTransferConflictPolicy::Ask &&
                     !AskReplace(item))) {
                    continue;
                }
                if (TavroPathIsInside(to, item.SourcePath)) {
                    ErrorMessage = "To replace " + to.string() + " would remove " + item.Name;
                    return false;
                }
                const std::optional<TavroOperationEntry> old = SelectEntry(to.string());
                if (!old || !TavroTrashEntries({*old}, replaced, ErrorMessage)) {
                    return false;
                }
            }
            PlaceItem(item, Plan.bMove);
        } catch (const fs::filesystem_error& error) {
            ErrorMessage = item.Name + ": " + error.code().message();
            std::string restoreError;
            if (!replaced.empty() && !RestoreStep(replaced, restoreError)) {
                ErrorMessage += " What was replaced is in the trash: " + restoreError;
            }
            return false;
        }
    }
    return true;
}
//! [carry-out]

bool planned(const std::vector<std::string>& Paths, const std::string& Typed,
             const fs::path& PaneDirectory, bool bMove, TavroTransferConflictPolicy Policy,
             TavroTransferPlan& OutPlan) {
    std::vector<TavroOperationEntry> selection;
    for (const std::string& path : Paths) {
        selection.push_back(SelectEntry(path).value());
    }
    std::string error;
    return TavroBuildTransferPlan(selection, Typed, PaneDirectory, bMove, Policy, OutPlan, error);
}

class CarryOutPlan : public testing::Test {
protected:
    void plan(const std::vector<std::string>& Names, const std::string& Typed, bool bMove,
              TavroTransferConflictPolicy Policy = TavroTransferConflictPolicy::Ask) {
        std::vector<std::string> paths;
        for (const std::string& name : Names) {
            paths.push_back((m_sandbox / name).string());
        }
        ASSERT_TRUE(planned(paths, Typed, m_sandbox.path(), bMove, Policy, m_plan));
    }

    bool carryOut() {
        return CarryOut(
            m_plan, [this](const TavroTransferItemPlan&) { return ++m_asked > 0 && m_bReplace; },
            m_error);
    }

    std::string path(const std::string& name) const {
        return (m_sandbox / name).string();
    }

    Sandbox m_sandbox;
    ScopedEnvironment m_home{"HOME", (m_sandbox / "home").string()};
    TavroTransferPlan m_plan;
    std::string m_error;
    int m_asked = 0;
    bool m_bReplace = false;
};

} // namespace

TEST_F(CarryOutPlan, copies_a_tree_with_its_links) {
    writeFile(m_sandbox / "folder/file", "bytes");
    fs::create_symlink("nowhere", m_sandbox / "folder/link");
    plan({"folder"}, "new/", false);
    EXPECT_TRUE(carryOut()) << m_error;
    EXPECT_EQ(readFile(m_sandbox / "new/folder/file"), "bytes");
    EXPECT_EQ(fs::read_symlink(m_sandbox / "new/folder/link"), "nowhere");
    EXPECT_EQ(readFile(m_sandbox / "folder/file"), "bytes");
    EXPECT_FALSE(isPresent(m_sandbox / "new/folder.unfinished"));
}

TEST_F(CarryOutPlan, moves_within_a_file_system) {
    writeFile(m_sandbox / "a", "A");
    writeFile(m_sandbox / "b", "B");
    plan({"a", "b"}, "new", true);
    EXPECT_TRUE(carryOut()) << m_error;
    EXPECT_EQ(readFile(m_sandbox / "new/a") + readFile(m_sandbox / "new/b"), "AB");
    EXPECT_FALSE(isPresent(m_sandbox / "a"));
}

TEST_F(CarryOutPlan, moves_between_file_systems) {
    const Sandbox other(secondFileSystem);
    if (!onDifferentDevices(m_sandbox.path(), other.path())) {
        GTEST_SKIP() << "there is no second file system";
    }
    writeFile(m_sandbox / "folder/file", "bytes");
    plan({"folder"}, other.path().string() + "/", true);
    EXPECT_TRUE(carryOut()) << m_error;
    EXPECT_EQ(readFile(other / "folder/file"), "bytes");
    EXPECT_FALSE(isPresent(m_sandbox / "folder"));
}

TEST_F(CarryOutPlan, asks_before_it_replaces_and_a_no_keeps_both) {
    writeFile(m_sandbox / "file", "new");
    writeFile(m_sandbox / "folder/file", "old");
    plan({"file"}, "folder", false);
    EXPECT_TRUE(carryOut()) << m_error;
    EXPECT_EQ(m_asked, 1);
    EXPECT_EQ(readFile(m_sandbox / "folder/file"), "old");
}

TEST_F(CarryOutPlan, what_is_replaced_goes_to_the_trash) {
    writeFile(m_sandbox / "file", "new");
    writeFile(m_sandbox / "folder/file", "old");
    plan({"file"}, "folder", true);
    m_bReplace = true;
    EXPECT_TRUE(carryOut()) << m_error;
    EXPECT_EQ(readFile(m_sandbox / "folder/file"), "new");
    EXPECT_EQ(readFile(m_sandbox / "home/.local/share/Trash/files/file"), "old");
}

TEST_F(CarryOutPlan, a_dangling_link_at_the_destination_is_asked_about) {
    writeFile(m_sandbox / "file", "new");
    makeDirectory(m_sandbox / "folder");
    fs::create_symlink("nowhere", m_sandbox / "folder/file");
    plan({"file"}, "folder", true);
    EXPECT_TRUE(carryOut()) << m_error;
    EXPECT_EQ(m_asked, 1);
    EXPECT_TRUE(fs::is_symlink(m_sandbox / "folder/file"));
}

TEST_F(CarryOutPlan, the_policies_answer_without_asking) {
    writeFile(m_sandbox / "file", "new");
    writeFile(m_sandbox / "folder/file", "old");
    plan({"file"}, "folder", false, TavroTransferConflictPolicy::Skip);
    EXPECT_TRUE(carryOut()) << m_error;
    EXPECT_EQ(readFile(m_sandbox / "folder/file"), "old");
    plan({"file"}, "folder", false, TavroTransferConflictPolicy::Overwrite);
    EXPECT_TRUE(carryOut()) << m_error;
    EXPECT_EQ(readFile(m_sandbox / "folder/file"), "new");
    EXPECT_EQ(m_asked, 0);
}

TEST_F(CarryOutPlan, does_not_replace_the_directory_that_holds_the_source) {
    writeFile(m_sandbox / "name/name", "bytes");
    plan({"name/name"}, path("name"), true, TavroTransferConflictPolicy::Overwrite);
    ASSERT_EQ(m_plan.Items.at(0).DestinationPath, m_sandbox / "name");
    EXPECT_FALSE(carryOut());
    EXPECT_EQ(m_error, "To replace " + path("name") + " would remove name");
    EXPECT_EQ(readFile(m_sandbox / "name/name"), "bytes");
}

TEST_F(CarryOutPlan, does_nothing_when_two_entries_have_one_destination) {
    writeFile(m_sandbox / "one/file", "one");
    writeFile(m_sandbox / "two/file", "two");
    plan({"one/file", "two/file"}, "new", true, TavroTransferConflictPolicy::Overwrite);
    EXPECT_FALSE(carryOut());
    EXPECT_EQ(m_error, "Two entries would become " + path("new/file"));
    EXPECT_EQ(readFile(m_sandbox / "one/file") + readFile(m_sandbox / "two/file"), "onetwo");
}

TEST_F(CarryOutPlan, a_failure_brings_back_what_was_to_be_replaced) {
    writeFile(m_sandbox / "file", "new");
    writeFile(m_sandbox / "folder/file", "old");
    plan({"file"}, "folder", true, TavroTransferConflictPolicy::Overwrite);
    fs::remove(m_sandbox / "file");
    EXPECT_FALSE(carryOut());
    EXPECT_EQ(m_error, "file: " + systemText(std::errc::no_such_file_or_directory));
    EXPECT_EQ(readFile(m_sandbox / "folder/file"), "old");
}
