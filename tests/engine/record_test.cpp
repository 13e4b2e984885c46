// What the history is told of a report.

#include "record.h"

#include <gtest/gtest.h>

namespace {

using Role = TavroStepRole;

TavroFileState Arrived(std::uint64_t Inode, mode_t Mode) {
    TavroFileState state;
    state.Identity = {7, Inode};
    state.Mode = Mode;
    state.ChangeTime = 1000 + static_cast<std::int64_t>(Inode);
    return state;
}

TavroTransferReport TransferReport() {
    TavroTransferReport report;
    report.Done = {{"/s/a", "/new/deep/a", false, Arrived(1, S_IFREG)},
                   {"/s/b", "/new/b", true, Arrived(2, S_IFREG)},
                   {"/s/d", "/new/d", false, Arrived(3, S_IFDIR)}};
    report.CreatedDirectories = {"/new", "/new/deep"};
    report.RemovedDirectories = {{"/s/old", 0750}};
    return report;
}

std::vector<Role> RolesOf(const TavroOperation& Operation) {
    std::vector<Role> roles;
    for (const TavroStep& step : Operation.Steps) {
        roles.push_back(step.Role);
    }
    return roles;
}

} // namespace

TEST(Record, OfAMoveHasWhatArrivedThenWhatWasCreatedThenWhatWasRemoved) {
    const TavroOperation operation = TavroOperationOf(TransferReport(), true);
    EXPECT_EQ(operation.Kind, TavroOperationKind::Move);
    EXPECT_GT(operation.Time, 1700000000);
    ASSERT_EQ(RolesOf(operation),
              (std::vector<Role>{Role::Moved, Role::Moved, Role::Moved, Role::CreatedDirectory,
                                 Role::CreatedDirectory, Role::RemovedDirectory}));
    const TavroStep& first = operation.Steps[0];
    EXPECT_EQ(first.From, "/s/a");
    EXPECT_EQ(first.To, "/new/deep/a");
    EXPECT_EQ(first.Identity, (TavroIdentity{7, 1}));
    EXPECT_EQ(first.ChangeTime, 1001);
    EXPECT_FALSE(first.bDirectory);
    EXPECT_TRUE(operation.Steps[2].bDirectory);
    EXPECT_EQ(operation.Steps[3].To, "/new");
    EXPECT_EQ(operation.Steps[3].From, "");
    EXPECT_EQ(operation.Steps[5].From, "/s/old");
    EXPECT_EQ(operation.Steps[5].To, "");
    EXPECT_EQ(operation.Steps[5].Mode, 0750U);
}

TEST(Record, OfACopyHasAllThatArrivedAlsoWhatReplacedSomethingForGood) {
    TavroTransferReport report = TransferReport();
    report.RemovedDirectories.clear();
    const TavroOperation operation = TavroOperationOf(report, false);
    EXPECT_EQ(operation.Kind, TavroOperationKind::Copy);
    ASSERT_EQ(RolesOf(operation),
              (std::vector<Role>{Role::Copied, Role::Copied, Role::Copied, Role::CreatedDirectory,
                                 Role::CreatedDirectory}));
    EXPECT_EQ(operation.Steps[1].To, "/new/b");
}

TEST(Record, OfATransferThatBroughtNothingIsEmpty) {
    TavroTransferReport report = TransferReport();
    report.Done.clear();
    report.RemovedDirectories.clear();
    EXPECT_TRUE(TavroOperationOf(report, false).Steps.empty());
    EXPECT_TRUE(TavroOperationOf(report, true).Steps.empty());
}

TEST(Record, OfAMoveThatMergedEmptyDirectoriesHasThese) {
    TavroTransferReport report = TransferReport();
    report.Done.clear();
    report.CreatedDirectories.clear();
    EXPECT_EQ(RolesOf(TavroOperationOf(report, true)), std::vector<Role>{Role::RemovedDirectory});
}

TEST(Record, OfTheTrashHasWhereEachItemLiesAndItsRecord) {
    TavroTrashReport report;
    report.Entries = {{{"/home/a", "/t/files/a", "/t/info/a.trashinfo", true}, {7, 9}}};
    const TavroOperation operation = TavroOperationOf(report);
    EXPECT_EQ(operation.Kind, TavroOperationKind::Trash);
    ASSERT_EQ(RolesOf(operation), std::vector<Role>{Role::Trashed});
    const TavroStep& step = operation.Steps[0];
    EXPECT_EQ(step.From, "/home/a");
    EXPECT_EQ(step.To, "/t/files/a");
    EXPECT_EQ(step.Record, "/t/info/a.trashinfo");
    EXPECT_EQ(step.Identity, (TavroIdentity{7, 9}));
    EXPECT_TRUE(step.bDirectory);
}

TEST(Record, OfANewDirectoryHasItsParentsAndOfARenameTheEntryFirst) {
    TavroEditReport report;
    report.Path = "/n/m";
    report.Arrived = Arrived(5, S_IFREG);
    report.CreatedDirectories = {"/n", "/n/m"};
    const TavroOperation created = TavroOperationOf(report);
    EXPECT_EQ(created.Kind, TavroOperationKind::CreateDirectory);
    ASSERT_EQ(RolesOf(created),
              (std::vector<Role>{Role::CreatedDirectory, Role::CreatedDirectory}));
    EXPECT_EQ(created.Steps[1].To, "/n/m");
    report.CreatedDirectories = {"/n"};
    const TavroOperation renamed = TavroOperationOf(report, "/old");
    EXPECT_EQ(renamed.Kind, TavroOperationKind::Rename);
    ASSERT_EQ(RolesOf(renamed), (std::vector<Role>{Role::Moved, Role::CreatedDirectory}));
    EXPECT_EQ(renamed.Steps[0].From, "/old");
    EXPECT_EQ(renamed.Steps[0].To, "/n/m");
    EXPECT_EQ(renamed.Steps[0].Identity, (TavroIdentity{7, 5}));
}
