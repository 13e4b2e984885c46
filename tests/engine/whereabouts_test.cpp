// Where the files of an operation are, and what it has left under hidden names.

#include "names.h"
#include "recovery.h"
#include "trash_fixture.h"

using namespace tavro_trash_test;

namespace {

using Role = TavroStepRole;
using Where = TavroWhereabouts;

class Whereabouts : public testing::Test {
protected:
    std::string at(const std::string& name) const {
        return (m_box / name).string();
    }
    TavroStep step(Role role, const std::string& from = "", const std::string& to = "") const {
        return {role, from.empty() ? "" : at(from), to.empty() ? "" : at(to)};
    }
    static Where find(const TavroStep& step) {
        TavroPlaces places;
        return TavroFindStep(step, places);
    }
    /// A file under a hidden name in a directory, which nobody has written to for two minutes.
    std::string leave(const std::string& directory) const {
        const fs::path path = m_box / directory / TavroStagingName();
        writeFile(path);
        fs::last_write_time(path, fs::last_write_time(path) - std::chrono::seconds(120));
        return path.string();
    }

    Sandbox m_box;
};

using Leftovers = Whereabouts;
using Names = std::vector<std::string>;

} // namespace

TEST_F(Whereabouts, of_a_moved_file_are_told_by_its_identity) {
    writeFile(at("a"), "a");
    TavroStep moved = step(Role::Moved, "a", "b");
    moved.Identity = identityOf(at("a"));
    EXPECT_EQ(find(moved), Where::AtFrom);
    fs::rename(at("a"), at("b"));
    EXPECT_EQ(find(moved), Where::AtTo);
    writeFile(at("a"), "another");
    EXPECT_EQ(find(moved), Where::AtTo);
    fs::rename(at("b"), at("c"));
    EXPECT_EQ(find(moved), Where::Nowhere);
    fs::remove(at("a"));
    EXPECT_EQ(find(moved), Where::Nowhere);
}

TEST_F(Whereabouts, of_what_is_copied_count_both_of_its_files) {
    writeFile(at("a"), "a");
    writeFile(at("b"), "a");
    for (const Role role : {Role::Moved, Role::Trashed, Role::Replaced, Role::Copied}) {
        TavroStep both = step(role, "a", "b");
        both.Source = identityOf(at("a"));
        both.Identity = identityOf(at("b"));
        EXPECT_EQ(find(both), role == Role::Copied ? Where::AtTo : Where::InBoth);
        both.To = at("gone");
        EXPECT_EQ(find(both), Where::AtFrom);
        both.From = at("gone");
        EXPECT_EQ(find(both), Where::Nowhere);
        both.To = at("b");
        EXPECT_EQ(find(both), Where::AtTo);
    }
}

TEST_F(Whereabouts, of_a_file_that_has_both_names_are_both) {
    writeFile(at("a"), "a");
    fs::create_hard_link(at("a"), at("b"));
    TavroStep moved = step(Role::Moved, "a", "b");
    moved.Identity = identityOf(at("a"));
    EXPECT_EQ(find(moved), Where::InBoth);
}

TEST_F(Whereabouts, of_what_was_told_again_are_those_told_last) {
    TavroStep copied = step(Role::Copied, "a", "b");
    TavroStep trashed = step(Role::Trashed, "b", "files/b");
    TavroStep again = copied;
    TavroStep trashedAgain = step(Role::Trashed, "b", "files/b copy 1");
    copied.Identity = {1, 1};
    again.Identity = {1, 2};
    const auto latest =
        TavroLatestOf({copied, trashed, step(Role::Moved, "a", "b"), again, trashedAgain});
    ASSERT_EQ(latest.size(), 3U);
    EXPECT_EQ(latest[0].Role, Role::Copied);
    EXPECT_EQ(latest[0].Identity, again.Identity);
    EXPECT_EQ(latest[1].To, trashedAgain.To);
    EXPECT_EQ(latest[2].Role, Role::Moved);
    trashed.Source = {1, 3}; // it comes back from another file system as this file
    EXPECT_EQ(TavroLatestOf({copied, trashed, again}).at(0).Identity, trashed.Source);
    trashed.Role = Role::Replaced; // which is not the copy
    EXPECT_EQ(TavroLatestOf({copied, trashed, again}).at(0).Identity, again.Identity);
}

TEST_F(Whereabouts, of_directories_and_of_what_is_to_go_or_to_come) {
    makeDirectory(at("there"));
    EXPECT_EQ(find(step(Role::CreatedDirectory, "", "there")), Where::AtTo);
    EXPECT_EQ(find(step(Role::CreatedDirectory, "", "gone")), Where::Nowhere);
    EXPECT_EQ(find(step(Role::RemovedDirectory, "there")), Where::AtFrom);
    EXPECT_EQ(find(step(Role::RemovedDirectory, "gone")), Where::AtTo);
    EXPECT_EQ(find(step(Role::Planned, "there", "gone")), Where::AtFrom);
    TavroStep deleted = step(Role::Deleted, "there");
    deleted.Identity = identityOf(at("there"));
    EXPECT_EQ(find(deleted), Where::AtFrom);
    ++deleted.Identity.Inode;
    EXPECT_EQ(find(deleted), Where::AtTo);
}

TEST_F(Whereabouts, tell_how_far_an_operation_has_come) {
    for (const char* name : {"a", "c", "f"}) {
        writeFile(at(name), name);
    }
    TavroOperation operation;
    operation.Kind = TavroOperationKind::Move;
    operation.State = TavroOperationState::Doing;
    operation.Steps = {step(Role::Planned, "a", "b"), step(Role::Planned, "c", "d"),
                       step(Role::Planned, "f", "g"), step(Role::CreatedDirectory, "", "e"),
                       step(Role::Moved, "a", "b")};
    operation.Steps.back().Identity = identityOf(at("a"));
    EXPECT_EQ(TavroFindHeadway(operation).Count, 3U);
    EXPECT_EQ(TavroFindHeadway(operation).Done, 0U);
    fs::rename(at("a"), at("b"));
    EXPECT_EQ(TavroFindHeadway(operation).Done, 1U);
    operation.State = TavroOperationState::Undoing;
    EXPECT_EQ(TavroFindHeadway(operation).Done, 2U) << "what never went counts as back";
    EXPECT_EQ(TavroFindHeadway(operation).Count, 3U);
}

TEST_F(Leftovers, are_beside_what_was_done_and_below_what_was_planned) {
    for (const char* name : {"from/a", "planned/p/deep/deeper/file", "elsewhere/file"}) {
        writeFile(at(name));
    }
    leave("elsewhere");
    leave("to/b dir");
    const std::string inFrom = leave("from");
    const std::string inTo = leave("to");
    const std::string hidden = at("planned/p/deep/" + TavroStagingName());
    makeDirectory(hidden);
    writeFile(hidden + "/" + TavroStagingName());
    const std::string deeper = leave("planned/p/deep/deeper");
    TavroOperation operation;
    operation.Steps = {step(Role::Moved, "from/a", "to/b dir"),
                       step(Role::Planned, "", "planned/p")};
    Names expected = {inFrom, inTo, hidden, deeper};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(TavroFindLeftovers(operation), expected);
}

TEST_F(Leftovers, are_orphans_when_nobody_works_on_them) {
    const std::string orphan = leave("done");
    writeFile(at("done/" + TavroStagingName())); // just now
    leave("doing");
    leave("Trash/files");
    const auto operation = [&](TavroOperationState state, TavroStep of) {
        TavroOperation made;
        made.State = state;
        made.Steps = {std::move(of)};
        return made;
    };
    const std::vector<TavroOperation> operations = {
        operation(TavroOperationState::Done, step(Role::Moved, "done/a", "doing/b")),
        operation(TavroOperationState::Undone, step(Role::Trashed, "done/a", "Trash/files/a")),
        operation(TavroOperationState::Doing, step(Role::Moved, "doing/a", "doing/b"))};
    EXPECT_EQ(TavroFindOrphans(operations), Names{orphan});
    EXPECT_EQ(TavroFindOrphans({}), Names{});
}
