// What the operations on paths and single entries do when a call to the file system fails.

#include "tavroops.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

class OperationFaults : public testing::Test {
protected:
    Sandbox m_box;
    std::string m_selected = "an earlier selection";
    std::string m_message = "earlier text";

    std::string at(const std::string& name) const {
        return (m_box / name).string();
    }

    /// The how-manyeth call on exactly this path fails.
    Fault failing(const char* call, int error, const std::string& name, int when = 1) const {
        return {call, error, at(name), when, false, true};
    }
};

// -------------------------------------------------------------------------------------------------
// Text and paths
// -------------------------------------------------------------------------------------------------

using PathFaults = OperationFaults;

TEST_F(PathFaults, a_path_that_cannot_be_resolved_is_normalised_as_text) {
    makeDirectory(m_box / "d");
    fs::create_directory_symlink("d", m_box / "link");
    const std::string path = at("link/./x/../y");
    EXPECT_EQ(TavroCanonicalizePath(path), at("d/y"));
    for (const char* call : {"realpath", "stat"}) {
        SCOPED_TRACE(call);
        const FaultInjector injector({{call, EIO, "", 1, true}});
        EXPECT_EQ(TavroCanonicalizePath(path), at("link/y"));
        EXPECT_EQ(TavroResolveUserPath("link/./x/../y", m_box.path()), m_box / "link/y");
        EXPECT_EQ(TavroResolveUserPath(path, "/elsewhere"), m_box / "link/y");
        EXPECT_GE(injector.fired(), 3);
    }
}

TEST_F(PathFaults, the_disk_is_asked_no_more_often_than_needed) {
    makeDirectory(m_box / "many/folders/deep");
    const auto callsFor = [](const std::string& path) {
        const NumberedFaults none;
        TavroCanonicalizePath(path);
        std::vector<std::string> names;
        for (const CountedCall& call : none.calls()) {
            names.push_back(call.Call);
        }
        return names;
    };
    EXPECT_EQ(callsFor(""), std::vector<std::string>());
    const std::vector<std::string> inOneStep = {"stat", "realpath"};
    EXPECT_EQ(callsFor(at("many/folders/deep")), inOneStep);
    EXPECT_EQ(callsFor(at("many/folders/deep/new")), inOneStep);
}

TEST_F(PathFaults, the_home_is_normalised_as_text_when_it_cannot_be_resolved) {
    makeDirectory(m_box / "d");
    fs::create_directory_symlink("d", m_box / "link");
    const ScopedEnvironment home("HOME", at("link/."));
    const FaultInjector injector({{"realpath", EACCES, "", 1, true}});
    EXPECT_EQ(TavroHomeDirectoryPath(), at("link/"));
    EXPECT_GT(injector.fired(), 0);
}

TEST_F(PathFaults, without_a_current_directory_relative_text_is_normalised_as_text) {
    const ScopedCurrentDirectory there(m_box.path());
    writeFile(m_box / "file");
    const FaultInjector injector({{"getcwd", ENOENT, "", 1, true}});
    EXPECT_EQ(TavroCanonicalizePath("a/../missing"), "missing");
    EXPECT_GT(injector.fired(), 0);
}

TEST_F(PathFaults, in_a_current_directory_that_was_removed_text_stays_relative) {
    makeDirectory(m_box / "gone");
    const ScopedCurrentDirectory there(m_box / "gone");
    fs::remove(m_box / "gone");
    EXPECT_EQ(TavroCanonicalizePath("x/./y"), "x/y");
}

TEST_F(PathFaults, files_that_cannot_be_compared_are_compared_by_their_paths) {
    writeFile(m_box / "a");
    fs::create_hard_link(m_box / "a", m_box / "b");
    EXPECT_TRUE(TavroPathsEquivalentOrSame(m_box / "a", m_box / "b"));
    const FaultInjector injector({failing("stat", EIO, "b")});
    EXPECT_FALSE(TavroPathsEquivalentOrSame(m_box / "a", m_box / "b"));
    EXPECT_EQ(injector.fired(), 1);
}

TEST_F(PathFaults, paths_that_cannot_be_resolved_are_compared_as_text) {
    makeDirectory(m_box / "d");
    fs::create_directory_symlink("d", m_box / "link");
    EXPECT_TRUE(TavroPathIsInside(m_box / "d", m_box / "link/x"));
    const FaultInjector injector({{"realpath", EIO, "", 1, true}, {"stat", EIO, "", 1, true}});
    EXPECT_FALSE(TavroPathIsInside(m_box / "d", m_box / "link/x"));
    EXPECT_TRUE(TavroPathIsInside(m_box / "link", m_box / "link/x"));
    EXPECT_FALSE(TavroPathsEquivalentOrSame(m_box / "d", m_box / "link"));
    EXPECT_TRUE(TavroPathsEquivalentOrSame(m_box / "d", m_box / "x/../d"));
    EXPECT_GT(injector.fired(), 0);
}

// -------------------------------------------------------------------------------------------------
// Size
// -------------------------------------------------------------------------------------------------

class SizeFaults : public OperationFaults {
protected:
    SizeFaults() {
        writeFile(m_box / "tree/a", std::string(1, 'x'));
        writeFile(m_box / "tree/sub/b", std::string(10, 'x'));
        writeFile(m_box / "tree/sub/c", std::string(100, 'x'));
        fs::create_symlink("sub/c", m_box / "tree/link");
    }

    std::uintmax_t size() const {
        return TavroCalculateDirectorySize(m_box / "tree", {});
    }

    /// The size while a call fails, which it does.
    std::uintmax_t sizeWith(const Fault& fault) const {
        const FaultInjector injector({fault});
        const std::uintmax_t measured = size();
        EXPECT_GT(injector.fired(), 0);
        return measured;
    }
};

TEST_F(SizeFaults, a_root_that_cannot_be_examined_or_opened_measures_nothing) {
    EXPECT_EQ(size(), 211U);
    EXPECT_EQ(sizeWith(failing("stat", EIO, "tree")), 0U);
    for (const int error : {EACCES, EIO, EMFILE}) {
        EXPECT_EQ(sizeWith(failing("openat", error, "tree")), 0U);
    }
    EXPECT_EQ(sizeWith(failing("fdopendir", ENOMEM, "tree")), 0U);
    EXPECT_EQ(sizeWith(failing("readdir", EIO, "tree")), 0U);
}

TEST_F(SizeFaults, a_file_that_cannot_be_examined_counts_nothing) {
    EXPECT_EQ(sizeWith(failing("stat", EIO, "tree/sub/b")), 201U);
    EXPECT_EQ(sizeWith(failing("stat", EACCES, "tree/a")), 210U);
}

TEST_F(SizeFaults, a_link_whose_target_cannot_be_examined_counts_nothing) {
    for (const int when : {1, 2}) {
        EXPECT_EQ(sizeWith(failing("stat", EIO, "tree/link", when)), 111U);
    }
}

TEST_F(SizeFaults, a_folder_without_permission_is_passed_over) {
    EXPECT_EQ(sizeWith({"openat", EACCES, "sub", 1, false, true}), 101U);
}

TEST_F(SizeFaults, an_error_of_the_walk_ends_it_with_what_was_counted) {
    // Entries come in the order of the file system, so what was counted is known by the files that
    // were asked for their size.
    const std::vector<Fault> faults = {
        {"openat", EIO, "sub", 1, false, true}, failing("fdopendir", EIO, "tree/sub"),
        failing("readdir", EIO, "tree/sub"),    failing("readdir", EIO, "tree/sub", 2),
        failing("readdir", EIO, "tree/sub", 4), failing("readdir", EIO, "tree", 2),
        failing("readdir", EIO, "tree", 3),     failing("readdir", EIO, "tree", 4),
        failing("readdir", EIO, "tree", 5)};
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.Call + " number " + std::to_string(fault.When));
        std::uintmax_t counted = 0;
        std::string last;
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            const bool bEntry = path.rfind(at("tree") + "/", 0) == 0 && path != last;
            if (call == "stat" && bEntry) {
                counted += fs::file_size(path);
                last = path; // a link is asked for its type first
            }
        });
        EXPECT_EQ(sizeWith(fault), counted);
        EXPECT_LT(counted, 211U);
    }
}

TEST_F(SizeFaults, entries_without_a_type_are_measured_all_the_same) {
    EXPECT_EQ(sizeWith({"readdir", 0, at("tree"), 1, true}), 211U);
}

TEST_F(SizeFaults, a_folder_that_the_walk_cannot_examine_is_not_walked) {
    // Where the file system does not tell types, the walk itself has to ask whether to descend.
    const FaultInjector injector(
        {{"readdir", 0, at("tree"), 1, true}, failing("lstat", EIO, "tree/sub")});
    EXPECT_EQ(size(), 101U);
    EXPECT_TRUE(injector.eachFired());
}

TEST_F(SizeFaults, the_hook_is_not_asked_again_after_the_walk_has_ended) {
    int asked = 0;
    const FaultInjector injector({failing("readdir", EIO, "tree", 4)});
    TavroCalculateDirectorySize(m_box / "tree", [&] {
        ++asked;
        return false;
    });
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_GE(asked, 1);
    EXPECT_LT(asked, 5);
}

// -------------------------------------------------------------------------------------------------
// Transfer plans
// -------------------------------------------------------------------------------------------------

class PlanFaults : public OperationFaults {
protected:
    TavroTransferPlan m_plan;

    bool plan(const std::string& target, bool bMove = false) {
        return TavroBuildTransferPlan({{"a", at("a"), false}, {"b", at("b"), false}}, target,
                                      m_box.path(), bMove, TavroTransferConflictPolicy::Skip,
                                      m_plan, m_message);
    }
};

TEST_F(PlanFaults, a_destination_that_cannot_be_examined_is_named) {
    makeDirectory(m_box / "d");
    for (const char* name : {"a", "b"}) {
        writeFile(m_box / name);
        const std::string destination = std::string("d/") + name;
        for (const int error : {EACCES, EIO}) {
            // The look that counts is the last one of those at the destination.
            const FaultInjector injector({{"stat", error, at(destination), 1, true, true}});
            EXPECT_FALSE(plan("d"));
            EXPECT_GT(injector.fired(), 0);
            EXPECT_EQ(m_message, "Failed checking destination '" + at(destination) + "': " +
                                     std::error_code(error, std::generic_category()).message());
            EXPECT_EQ(m_plan.SourceLabel, "Tavro");
            EXPECT_EQ(m_plan.Items.size(), destination == "d/b" ? 1U : 0U);
        }
    }
}

TEST_F(PlanFaults, a_target_that_cannot_be_examined_counts_as_one_to_be_made) {
    writeFile(m_box / "file");
    {
        const FaultInjector injector({{"stat", EACCES, at("file"), 1, true, true}});
        EXPECT_TRUE(plan("file", true));
        EXPECT_GT(injector.fired(), 0);
    }
    EXPECT_EQ(m_message, "earlier text");
    EXPECT_EQ(m_plan.Items.size(), 2U);
    EXPECT_FALSE(plan("file", true));
    EXPECT_EQ(m_message, "Move Target must be a directory when multiple items are selected.");
    EXPECT_TRUE(m_plan.Items.empty());
}

TEST_F(PlanFaults, a_target_that_cannot_be_told_a_directory_is_the_new_path) {
    makeDirectory(m_box / "d");
    const std::vector<TavroOperationEntry> one = {{"a", at("a"), false}};
    int looks = 0;
    {
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            looks += call == "stat" && path == at("d") ? 1 : 0;
        });
        EXPECT_TRUE(TavroBuildTransferPlan(one, "d", m_box.path(), false,
                                           TavroTransferConflictPolicy::Ask, m_plan, m_message));
        EXPECT_EQ(m_plan.Items.at(0).DestinationPath, m_box / "d/a");
    }
    // One of the looks decides about going into the directory.
    int taken = 0;
    int refused = 0;
    for (int when = 1; when <= looks; ++when) {
        const FaultInjector injector({failing("stat", EIO, "d", when)});
        EXPECT_TRUE(TavroBuildTransferPlan(one, "d", m_box.path(), false,
                                           TavroTransferConflictPolicy::Ask, m_plan, m_message));
        EXPECT_EQ(injector.fired(), 1);
        taken += m_plan.Items.at(0).DestinationPath == m_box / "d" ? 1 : 0;
    }
    EXPECT_EQ(taken, 1);
    EXPECT_EQ(m_message, "earlier text");
    for (int when = 1; when <= looks + 1; ++when) { // for several entries it is looked at once more
        const FaultInjector injector({failing("stat", EIO, "d", when)});
        refused += plan("d") ? 0 : 1;
        EXPECT_EQ(injector.fired(), 1);
    }
    EXPECT_EQ(refused, 1) << "several entries need a directory, or a target that is not there yet";
    EXPECT_EQ(m_message, "Copy Target must be a directory when multiple items are selected.");
}

// -------------------------------------------------------------------------------------------------
// Create directory
// -------------------------------------------------------------------------------------------------

using CreateDirectoryFaults = OperationFaults;

TEST_F(CreateDirectoryFaults, the_reason_is_told_and_what_was_created_stays) {
    for (const int error : {ENOSPC, EROFS, EACCES, EMLINK, EIO}) {
        m_selected = "an earlier selection";
        {
            const FaultInjector injector({failing("mkdir", error, "x/y")});
            EXPECT_FALSE(TavroCreateDirectory("x/y/z", m_box.path(), m_selected, m_message));
            EXPECT_EQ(injector.fired(), 1);
        }
        EXPECT_EQ(m_message, "Failed to create directory: " +
                                 std::error_code(error, std::generic_category()).message());
        EXPECT_EQ(m_selected, "");
        EXPECT_EQ(takeSnapshot(m_box / "x").size(), 1U);
    }
}

TEST_F(CreateDirectoryFaults, a_target_that_cannot_be_examined_is_not_created) {
    const FaultInjector injector({{"stat", EACCES, at("x"), 1, true, true}});
    EXPECT_FALSE(TavroCreateDirectory("x", m_box.path(), m_selected, m_message));
    EXPECT_GT(injector.fired(), 0);
    EXPECT_EQ(m_message, "Failed to create directory: " + systemText(std::errc::permission_denied));
    EXPECT_FALSE(isPresent(m_box / "x"));
}

TEST_F(CreateDirectoryFaults, a_directory_that_someone_else_just_made_is_no_failure) {
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "mkdir" && path == at("x")) {
            makeDirectory(m_box / "x");
        }
    });
    EXPECT_TRUE(TavroCreateDirectory("x", m_box.path(), m_selected, m_message));
    EXPECT_EQ(m_selected, at("x"));
    EXPECT_EQ(m_message, "earlier text");
}

TEST_F(CreateDirectoryFaults, a_result_that_cannot_be_resolved_is_selected_by_its_text) {
    const FaultInjector injector({failing("realpath", EIO, "x")});
    EXPECT_TRUE(TavroCreateDirectory("x", m_box.path(), m_selected, m_message));
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_EQ(m_selected, at("x"));
    EXPECT_TRUE(fs::is_directory(m_box / "x"));
}

// -------------------------------------------------------------------------------------------------
// Rename
// -------------------------------------------------------------------------------------------------

class RenameFaults : public OperationFaults {
protected:
    RenameFaults() {
        writeFile(m_box / "a", "bytes");
    }

    bool rename(const std::string& target) {
        return TavroRenameEntry({"a", at("a"), false}, target, m_box.path(), m_selected, m_message);
    }

    void expectRefused(const std::vector<Fault>& faults, const std::string& target,
                       const std::string& sentence) {
        const FaultInjector injector(faults);
        EXPECT_FALSE(rename(target));
        EXPECT_TRUE(injector.eachFired());
        EXPECT_EQ(m_message, sentence);
        EXPECT_EQ(m_selected, "");
        EXPECT_TRUE(isPresent(m_box / "a"));
    }
};

TEST_F(RenameFaults, a_target_that_cannot_be_examined_throws_and_nothing_has_changed) {
    const Snapshot before = takeSnapshot(m_box.path());
    for (const int error : {EACCES, EIO, ENAMETOOLONG}) {
        m_selected = "an earlier selection";
        {
            const FaultInjector injector({{"stat", error, at("b"), 1, true, true}});
            EXPECT_THROW(rename("b"), fs::filesystem_error);
            EXPECT_GT(injector.fired(), 0);
        }
        EXPECT_EQ(m_selected, "");
        EXPECT_EQ(m_message, "earlier text");
        EXPECT_EQ(takeSnapshot(m_box.path()), before);
    }
}

TEST_F(RenameFaults, a_target_without_search_permission_throws) {
    makeDirectory(m_box / "closed");
    runUnprivileged(m_box.path(), [&] {
        fs::permissions(m_box / "closed", fs::perms::owner_read);
        EXPECT_THROW(rename("closed/b"), fs::filesystem_error);
        EXPECT_EQ(m_selected, "");
        EXPECT_EQ(m_message, "earlier text");
        EXPECT_EQ(readFile(m_box / "a"), "bytes");
    });
}

TEST_F(RenameFaults, a_target_that_could_be_examined_before_is_just_tried) {
    writeFile(m_box / "b", "replaced");
    int looks = 0;
    {
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            looks += call == "stat" && path == at("b") ? 1 : 0;
        });
        EXPECT_FALSE(rename("b"));
        EXPECT_EQ(m_message, "Rename target already exists.");
    }
    // The last look is the one whose failure counts as a missing target.
    m_message = "earlier text";
    const FaultInjector injector({failing("stat", EIO, "b", looks)});
    EXPECT_TRUE(rename("b"));
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_EQ(m_message, "earlier text");
    EXPECT_EQ(readFile(m_box / "b"), "bytes");
}

TEST_F(RenameFaults, folders_that_cannot_be_created_are_told) {
    for (const int error : {ENOSPC, EROFS, EDQUOT}) {
        expectRefused({failing("mkdir", error, "x/y")}, "x/y/b",
                      "Failed to create rename target directory: " +
                          std::error_code(error, std::generic_category()).message());
        EXPECT_TRUE(fs::is_directory(m_box / "x")) << "what was created stays";
    }
}

TEST_F(RenameFaults, a_rename_that_fails_is_told_and_copies_nothing) {
    for (const int error : {EXDEV, EACCES, EBUSY, EIO, ENOSPC}) {
        expectRefused({failing("rename", error, "a")}, "x/b",
                      "Rename failed: " +
                          std::error_code(error, std::generic_category()).message());
        EXPECT_TRUE(fs::is_empty(m_box / "x")) << "the folder stays";
    }
}

TEST_F(RenameFaults, a_result_that_cannot_be_resolved_is_selected_by_its_text) {
    const FaultInjector injector({failing("realpath", EIO, "b")});
    EXPECT_TRUE(rename("b"));
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_EQ(m_selected, at("b"));
    EXPECT_EQ(m_message, "earlier text");
}

// -------------------------------------------------------------------------------------------------
// Delete
// -------------------------------------------------------------------------------------------------

class DeleteFaults : public OperationFaults {
protected:
    DeleteFaults() {
        writeFile(m_box / "a");
        writeFile(m_box / "b/sub/file", "bytes");
        writeFile(m_box / "c");
    }

    void expectDeleteFails(const Fault& fault, const std::string& name) {
        const std::vector<TavroOperationEntry> entries = {
            {"A", at("a"), false}, {"B", at("b"), true}, {"C", at("c"), false}};
        const FaultInjector injector({fault});
        EXPECT_FALSE(TavroDeleteEntries(entries, false, m_message));
        EXPECT_EQ(injector.fired(), 1);
        EXPECT_EQ(m_message, "Delete failed for '" + name + "': " +
                                 std::error_code(fault.Errno, std::generic_category()).message());
    }
};

TEST_F(DeleteFaults, a_first_entry_that_cannot_be_removed_leaves_all) {
    const Snapshot before = takeSnapshot(m_box.path());
    for (const int error : {EACCES, EPERM, EROFS, EBUSY, EIO}) {
        expectDeleteFails(failing("remove", error, "a"), "A");
        EXPECT_EQ(takeSnapshot(m_box.path()), before);
    }
}

TEST_F(DeleteFaults, a_tree_that_can_be_removed_in_part_only_stops_the_deletion) {
    Snapshot state = takeSnapshot(m_box.path());
    state.erase("a");
    expectDeleteFails({"unlinkat", EBUSY, "file"}, "B");
    EXPECT_EQ(takeSnapshot(m_box.path()), state);

    state.erase("b/sub/file");
    state.erase("b/sub");
    expectDeleteFails(failing("remove", EBUSY, "b"), "B");
    EXPECT_EQ(takeSnapshot(m_box.path()), state);
}

TEST_F(DeleteFaults, a_tree_that_cannot_be_read_stops_the_deletion) {
    Snapshot state = takeSnapshot(m_box.path());
    state.erase("a");
    expectDeleteFails(failing("openat", EMFILE, "b"), "B");
    expectDeleteFails(failing("readdir", EIO, "b"), "B");
    EXPECT_EQ(takeSnapshot(m_box.path()), state);
}

TEST_F(DeleteFaults, a_last_entry_that_cannot_be_removed_stays_alone) {
    expectDeleteFails(failing("remove", EPERM, "c"), "C");
    EXPECT_FALSE(isPresent(m_box / "a"));
    EXPECT_FALSE(isPresent(m_box / "b"));
    EXPECT_TRUE(isPresent(m_box / "c"));
}

TEST_F(DeleteFaults, an_entry_that_vanishes_meanwhile_counts_as_deleted) {
    for (const bool bDirectory : {false, true}) {
        const std::string path = bDirectory ? at("b") : at("a");
        const char* call = bDirectory ? "openat" : "remove";
        const FaultInjector injector({{call, ENOENT, path, 1, false, true}});
        EXPECT_TRUE(TavroDeleteEntries({{"X", path, bDirectory}}, false, m_message));
        EXPECT_EQ(injector.fired(), 1);
        EXPECT_EQ(m_message, "earlier text");
    }
}

} // namespace
