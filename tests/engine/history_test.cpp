// The undo history: what it keeps from one run to the next, whatever the file holds and whoever
// else uses it. What undoing makes of the disk is told in undo_test.cpp.

#include "fault_injector.h"
#include "history.h"
#include "history_support.h"

#include "names.h"
#include "posix.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <sqlite3.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

using Kind = TavroOperationKind;
using Role = TavroStepRole;

std::string describe(const TavroOperation& operation) {
    std::ostringstream text;
    text << "kind " << static_cast<int>(operation.Kind) << " state "
         << static_cast<int>(operation.State) << " time " << operation.Time << '\n';
    for (const TavroStep& step : operation.Steps) {
        text << static_cast<int>(step.Role) << " '" << step.From << "' '" << step.To << "' '"
             << step.Record << "' " << step.Identity.Device << ' ' << step.Identity.Inode << ' '
             << step.ChangeTime << ' ' << step.Mode << ' ' << step.bDirectory << '\n';
    }
    return text.str();
}

std::vector<std::string> describe(const std::vector<TavroOperation>& operations) {
    std::vector<std::string> texts;
    for (const TavroOperation& operation : operations) {
        texts.push_back(describe(operation));
    }
    return texts;
}

TavroOperation operationOf(Kind kind, std::vector<TavroStep> steps) {
    TavroOperation operation;
    operation.Kind = kind;
    operation.Time = 1700000000;
    operation.Steps = std::move(steps);
    return operation;
}

TavroOperation renameOf(const std::string& from, const std::string& to) {
    return operationOf(Kind::Rename, {{Role::Moved, from, to, ""}});
}

TavroStep trashedStep(const std::string& from, const std::string& root, const std::string& name) {
    return {Role::Trashed, from, root + "/files/" + name, root + "/info/" + name + ".trashinfo"};
}

unsigned modeOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

class History : public testing::Test {
protected:
    fs::path file() const {
        return m_sandbox / "state/tavro/history.db";
    }
    fs::path aside(int number) const {
        return file().string() + ".damaged-" + std::to_string(number);
    }

    TavroFailure tryOpening(TavroHistory& history) const {
        return history.Open(file().string(), std::chrono::milliseconds(0));
    }
    void open(TavroHistory& history) const {
        ASSERT_EQ(TavroDescribe(tryOpening(history)), "");
    }
    void record(TavroOperation operation) const {
        TavroHistory history;
        open(history);
        ASSERT_EQ(TavroDescribe(recordDone(history, operation)), "");
    }

    /// Two that have the history open, and the operation that the first of them is about to undo.
    std::optional<TavroOperation> readByOneOf(TavroHistory& one, TavroHistory& other) {
        record(renameOf("/a", "/b"));
        open(one);
        open(other);
        std::optional<TavroOperation> taken;
        EXPECT_FALSE(one.NextToUndo(taken));
        return taken;
    }
    std::vector<TavroOperation> listed(bool bSteps = true) const {
        TavroHistory history;
        open(history);
        std::vector<TavroOperation> operations;
        std::vector<std::uint64_t> counts;
        EXPECT_EQ(TavroDescribe(history.List(bSteps, operations, counts)), "");
        EXPECT_EQ(counts.size(), operations.size());
        return operations;
    }

    /// Opening is refused with this error, and nothing below the sandbox is different then.
    void expectNoOpening(std::errc error) const {
        const Snapshot before = takeSnapshot(m_sandbox.path());
        TavroHistory history;
        EXPECT_EQ(TavroDescribe(tryOpening(history)),
                  "Cannot open the history '" + file().string() + "': " + systemText(error));
        EXPECT_EQ(history.Notice(), "");
        EXPECT_EQ(takeSnapshot(m_sandbox.path()), before);
        TavroOperation operation = renameOf("/a", "/b");
        EXPECT_TRUE(recordDone(history, operation));
    }

    Sandbox m_sandbox;

private:
    ScopedEnvironment m_home{"HOME", (m_sandbox / "home").string()};
    ScopedEnvironment m_state{"XDG_STATE_HOME", (m_sandbox / "state").string()};
};

// ---------------------------------------------------------------------------------------------
// Where the file is
// ---------------------------------------------------------------------------------------------

TEST_F(History, the_file_is_in_the_state_directory) {
    EXPECT_EQ(TavroHistoryPath(), file());
}

TEST_F(History, without_a_state_directory_or_with_a_relative_one_the_file_is_below_home) {
    for (const auto& state : {std::optional<std::string>(), std::optional<std::string>(""),
                              std::optional<std::string>("state")}) {
        const ScopedEnvironment environment("XDG_STATE_HOME", state);
        EXPECT_EQ(TavroHistoryPath(), m_sandbox / "home/.local/state/tavro/history.db");
    }
}

TEST_F(History, without_home_and_state_directory_there_is_no_file) {
    const ScopedEnvironment state("XDG_STATE_HOME", std::nullopt);
    const ScopedEnvironment home("HOME", std::nullopt);
    EXPECT_EQ(TavroHistoryPath(), "");
    TavroHistory history;
    EXPECT_EQ(TavroDescribe(history.Open("", std::chrono::milliseconds(0))),
              "There is no place for the history: HOME is not set to an absolute path");
}

// ---------------------------------------------------------------------------------------------
// Opening
// ---------------------------------------------------------------------------------------------

TEST_F(History, a_missing_file_is_an_empty_history) {
    EXPECT_EQ(describe(listed()), std::vector<std::string>{});
    TavroHistory history;
    open(history);
    EXPECT_EQ(history.Notice(), "");
    std::optional<TavroOperation> next = renameOf("/a", "/b");
    EXPECT_FALSE(history.NextToUndo(next));
    EXPECT_FALSE(next);
}

TEST_F(History, directories_and_files_are_for_the_user_alone_whatever_the_umask) {
    for (const mode_t mask : {0U, 0277U}) {
        fs::remove_all(m_sandbox / "state");
        runUnprivileged(m_sandbox.path(), [&] {
            umask(mask);
            record(renameOf("/a", "/b"));
        });
        EXPECT_EQ(modeOf(m_sandbox / "state"), 0700U);
        EXPECT_EQ(modeOf(m_sandbox / "state/tavro"), 0700U);
        for (const fs::directory_entry& entry : fs::directory_iterator(file().parent_path())) {
            EXPECT_EQ(modeOf(entry.path()), 0600U) << entry.path();
        }
        EXPECT_TRUE(isPresent(file()));
    }
}

TEST_F(History, a_directory_that_exists_keeps_its_mode) {
    makeDirectory(m_sandbox / "state");
    fs::permissions(m_sandbox / "state", fs::perms(0755));
    record(renameOf("/a", "/b"));
    EXPECT_EQ(modeOf(m_sandbox / "state"), 0755U);
}

TEST_F(History, a_history_that_is_not_open_does_nothing) {
    TavroHistory history;
    TavroOperation operation = renameOf("/a", "/b");
    std::optional<TavroOperation> next;
    std::vector<TavroOperation> all;
    std::vector<std::uint64_t> counts;
    EXPECT_TRUE(recordDone(history, operation));
    EXPECT_TRUE(history.Update(operation));
    EXPECT_TRUE(history.List(true, all, counts));
    EXPECT_TRUE(history.NextToUndo(next));
    EXPECT_TRUE(history.NextToRedo(next));
    EXPECT_TRUE(history.Drop(1));
}

TEST_F(History, what_is_no_file_in_its_place_is_refused_and_makes_nobody_wait) {
    makeDirectory(file());
    expectNoOpening(std::errc::is_a_directory);
    fs::remove(file());
    makeFifo(file());
    expectNoOpening(std::errc::invalid_argument);
}

TEST_F(History, a_link_in_its_place_is_refused_whatever_it_points_to) {
    record(renameOf("/a", "/b"));
    fs::rename(file(), m_sandbox / "elsewhere");
    for (const fs::path& target : {m_sandbox / "elsewhere", fs::path("nowhere")}) {
        fs::create_symlink(target, file());
        expectNoOpening(std::errc::too_many_symbolic_link_levels);
        fs::remove(file());
    }
}

TEST_F(History, a_file_of_another_owner_is_refused) {
    if (!isRoot()) {
        GTEST_SKIP() << "an ordinary user cannot give a file away";
    }
    record(renameOf("/a", "/b"));
    ASSERT_EQ(chown(file().c_str(), 65534, 65534), 0);
    expectNoOpening(std::errc::operation_not_permitted);
}

TEST_F(History, a_file_without_permission_is_refused_and_not_set_aside) {
    record(renameOf("/a", "/b"));
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(file(), fs::perms::none);
        TavroHistory history;
        EXPECT_EQ(TavroDescribe(tryOpening(history)),
                  "Cannot open the history '" + file().string() +
                      "': " + systemText(std::errc::permission_denied));
    });
    EXPECT_FALSE(isPresent(aside(1)));
}

TEST_F(History, a_file_in_place_of_a_directory_is_an_error) {
    writeFile(m_sandbox / "state", "bytes");
    TavroHistory history;
    EXPECT_TRUE(tryOpening(history));
    EXPECT_EQ(readFile(m_sandbox / "state"), "bytes");
}

TEST_F(History, a_directory_may_be_reached_by_a_link) {
    makeDirectory(m_sandbox / "real");
    fs::create_symlink("real", m_sandbox / "state");
    record(renameOf("/a", "/b"));
    EXPECT_TRUE(isPresent(m_sandbox / "real/tavro/history.db"));
    EXPECT_EQ(listed().size(), 1U);
}

TEST_F(History, a_relative_path_is_taken_against_the_current_directory_at_the_opening) {
    TavroHistory history;
    {
        const ScopedCurrentDirectory directory(m_sandbox.path());
        ASSERT_FALSE(history.Open("here/history.db", std::chrono::milliseconds(0)));
    }
    TavroOperation operation = renameOf("/a", "/b");
    ASSERT_FALSE(recordDone(history, operation));
    EXPECT_TRUE(isPresent(m_sandbox / "here/history.db"));
}

TEST_F(History, opening_another_file_closes_what_was_open) {
    TavroHistory history;
    open(history);
    TavroOperation begun = renameOf("/c", "/d");
    ASSERT_FALSE(history.BeginOperation(begun));
    ASSERT_FALSE(
        history.Open((m_sandbox / "other/history.db").string(), std::chrono::milliseconds(0)));
    record(renameOf("/a", "/b"));
    std::optional<TavroOperation> next;
    EXPECT_FALSE(history.NextToUndo(next));
    EXPECT_FALSE(next);
}

TEST_F(History, the_log_of_a_file_that_was_removed_is_not_taken_for_that_of_a_new_one) {
    record(renameOf("/a", "/b"));
    ASSERT_TRUE(isPresent(file().string() + "-wal"));
    fs::remove(file());
    EXPECT_EQ(describe(listed()), std::vector<std::string>{});
    record(renameOf("/c", "/d"));
    EXPECT_EQ(describe(listed()), std::vector<std::string>{describe(renameOf("/c", "/d"))});
}

// ---------------------------------------------------------------------------------------------
// What the file holds
// ---------------------------------------------------------------------------------------------

std::vector<TavroOperation> oneOfEachKind() {
    const TavroStep moved = {Role::Moved, "/f/1", "/t/1", "", {UINT64_MAX, 2}, INT64_MIN, 0};
    const TavroStep copied = {Role::Copied, "/f/1", "/t/2", "", {1, UINT64_MAX}, INT64_MAX, 0};
    const TavroStep created = {Role::CreatedDirectory, "", "/d", "", {1, 3}, 5, 07777};
    const TavroStep removed = {Role::RemovedDirectory, "/r", "", "", {}, 0, 0700};
    TavroStep trashed = trashedStep("/o/1", "/trash", "1");
    trashed.bDirectory = true;
    std::vector<TavroOperation> operations = {
        operationOf(Kind::Trash, {trashed, trashedStep("/o/2", "", "2")}),
        operationOf(Kind::Rename, {created, moved}),
        operationOf(Kind::Move, {created, moved, moved, removed}),
        operationOf(Kind::Copy, {copied, created, trashed}),
        operationOf(Kind::CreateDirectory, {created, created})};
    operations[0].Time = -1;
    operations[1].Time = INT64_MAX;
    operations[2].Time = INT64_MIN;
    return operations;
}

TEST_F(History, every_kind_comes_back_as_it_was_recorded_the_newest_first) {
    std::vector<std::string> expected;
    for (const TavroOperation& operation : oneOfEachKind()) {
        record(operation);
        expected.insert(expected.begin(), describe(operation));
    }
    EXPECT_EQ(describe(listed()), expected);
}

TEST_F(History, a_list_without_steps_has_the_first_ones_and_the_counts) {
    for (const TavroOperation& operation : oneOfEachKind()) {
        record(operation);
    }
    TavroHistory history;
    open(history);
    std::vector<TavroOperation> operations;
    std::vector<std::uint64_t> counts;
    ASSERT_FALSE(history.List(false, operations, counts));
    EXPECT_EQ(counts, (std::vector<std::uint64_t>{2, 1, 2, 1, 2})); // of main steps
    ASSERT_EQ(operations.size(), 5U);
    for (const TavroOperation& operation : operations) {
        EXPECT_EQ(operation.Steps.size(), 1U);
    }
    EXPECT_EQ(operations[4].Steps[0].To, "/trash/files/1");
}

TEST_F(History, names_of_any_bytes_come_back) {
    std::string name;
    for (int byte = 1; byte < 256; ++byte) {
        name += static_cast<char>(byte);
    }
    const std::string plain = name.substr(0, 46) + name.substr(47);
    const TavroOperation operation =
        operationOf(Kind::Copy, {{Role::Copied, "/from" + name, "/to" + name, ""},
                                 trashedStep("/original" + name, "/trash" + name, plain)});
    record(operation);
    EXPECT_EQ(describe(listed()), std::vector<std::string>{describe(operation)});
}

TEST_F(History, what_cannot_be_undone_is_not_recorded) {
    const TavroStep created = {Role::CreatedDirectory, "", "/d", ""};
    const std::vector<TavroOperation> operations = {
        operationOf(Kind::Trash, {}),
        operationOf(Kind::Trash, {trashedStep("/o", "/t", "x"), {Role::Moved, "/a", "/b", ""}}),
        operationOf(Kind::Trash, {trashedStep("o", "/t", "x")}),
        operationOf(Kind::Trash, {{Role::Trashed, "/o", "/t/files/x", ""}}),
        operationOf(Kind::Trash, {{Role::Trashed, "/o", "/t/files/x", "/t/info/y.trashinfo"}}),
        operationOf(Kind::Trash, {{Role::Trashed, "/o", "/t/files/x", "/u/info/x.trashinfo"}}),
        operationOf(Kind::Trash, {{Role::Trashed, "/o", "/t/files/x", "/t/info/x"}}),
        operationOf(Kind::Trash, {{Role::Trashed, "/o", "/t/x", "/t/x.trashinfo"}}),
        operationOf(Kind::Trash, {{Role::Trashed, "/o", "/t/other/x", "/t/info/x.trashinfo"}}),
        operationOf(Kind::Trash, {{Role::Trashed, "/o", "/tfiles/x", "/info/x.trashinfo"}}),
        operationOf(Kind::Trash, {{Role::Trashed, "/o", "/x", "info/x.trashinfo"}}),
        operationOf(Kind::Rename, {}),
        operationOf(Kind::Rename, {created}),
        operationOf(Kind::Rename, {{Role::Moved, "a", "/b", ""}}),
        operationOf(Kind::Rename, {{Role::Moved, "/a", "/b", "/c"}}),
        operationOf(Kind::Move, {{Role::Moved, "/a", "/b", ""}, {Role::Moved, "/a", "b", ""}}),
        operationOf(Kind::Move, {{Role::Moved, "/a", std::string("/b\0c", 4), ""}}),
        operationOf(Kind::Move,
                    {{Role::Moved, "/a", "/b", ""}, {Role::RemovedDirectory, "/a", "/b", ""}}),
        operationOf(Kind::Move, {{Role::Moved, "/a", "/b", ""},
                                 {Role::RemovedDirectory, "/a", "", "", {}, 0, 010000}}),
        operationOf(Kind::Copy, {{Role::Copied, "", "/b", ""}}),
        operationOf(Kind::Copy, {trashedStep("/o", "/t", "x")}),
        operationOf(Kind::CreateDirectory, {{Role::CreatedDirectory, "/a", "/b", ""}}),
        operationOf(Kind::CreateDirectory, {created, {Role::Moved, "/a", "/b", ""}}),
    };
    TavroHistory history;
    open(history);
    for (TavroOperation operation : operations) {
        EXPECT_EQ(TavroDescribe(recordDone(history, operation)),
                  "Cannot record an operation without anything to undo, or with relative paths")
            << describe(operation);
    }
    EXPECT_EQ(OtherProgram(file()).query("SELECT count(*) FROM operation"), 0);
}

TEST_F(History, the_newest_thousand_operations_stay) {
    TavroHistory history;
    open(history);
    for (int number = 0; number < 1003; ++number) {
        TavroOperation operation = renameOf("/a", "/" + std::to_string(number));
        ASSERT_FALSE(recordDone(history, operation));
    }
    const std::vector<TavroOperation> all = listed();
    ASSERT_EQ(all.size(), 1000U);
    EXPECT_EQ(all.front().Steps[0].To, "/1002");
    EXPECT_EQ(all.back().Steps[0].To, "/3");
    EXPECT_EQ(OtherProgram(file()).query("SELECT count(*) FROM step"), 1000);
}

TEST_F(History, what_was_interrupted_is_listed_however_much_was_done_since) {
    TavroOperation interrupted = renameOf("/a", "/interrupted");
    interrupted.State = TavroOperationState::Doing;
    TavroHistory history;
    open(history);
    ASSERT_FALSE(history.BeginOperation(interrupted));
    history.LeaveOperation();
    for (int number = 0; number < 1000; ++number) {
        TavroOperation operation = renameOf("/a", "/b");
        ASSERT_FALSE(recordDone(history, operation));
    }
    EXPECT_EQ(listed().back().Steps[0].To, "/interrupted");
}

TEST_F(History, an_operation_stays_until_the_newer_ones_are_too_large) {
    for (const char* to : {"/1", "/2", "/3"}) {
        record(renameOf("/a", to));
    }
    OtherProgram(file()).execute("UPDATE operation SET bytes = 200000000");
    record(renameOf("/a", "/4"));
    EXPECT_EQ(listed().size(), 3U);
    EXPECT_EQ(listed().back().Steps[0].To, "/2");
    OtherProgram(file()).execute("UPDATE operation SET bytes = 9223372036854775807");
    record(renameOf("/a", "/5"));
    EXPECT_EQ(listed().size(), 2U);
    OtherProgram(file()).execute("UPDATE operation SET bytes = -9223372036854775807");
    record(renameOf("/a", "/6"));
    EXPECT_EQ(listed().size(), 3U);
}

TEST_F(History, what_is_dropped_goes_bit_by_bit) {
    std::vector<TavroStep> steps(5000, {Role::Moved, "/a", "/b", ""});
    record(operationOf(Kind::Move, steps));
    TavroHistory history;
    open(history);
    ASSERT_FALSE(history.Drop(1));
    EXPECT_EQ(listed().size(), 0U);
    std::vector<std::int64_t> left;
    for (int i = 0; i < 6; ++i) {
        record(renameOf("/a", "/b"));
        left.push_back(OtherProgram(file()).query("SELECT count(*) FROM step WHERE operation = 1"));
    }
    EXPECT_EQ(left, (std::vector<std::int64_t>{3999, 2998, 1997, 996, 0, 0}));
    EXPECT_EQ(OtherProgram(file()).query("SELECT count(*) FROM operation WHERE state = 2"), 0);
}

TEST_F(History, no_number_is_given_twice) {
    TavroHistory history;
    open(history);
    std::int64_t last = 0;
    for (int i = 0; i < 5; ++i) {
        TavroOperation operation = renameOf("/a", "/b");
        ASSERT_FALSE(recordDone(history, operation));
        EXPECT_GT(operation.Id, last);
        last = operation.Id;
        ASSERT_FALSE(history.Drop(operation.Id));
    }
    EXPECT_EQ(TavroDescribe(history.Drop(last)), "Nothing to drop");
}

TEST_F(History, what_is_undone_comes_first_and_is_dropped_with_the_next_record) {
    for (const char* to : {"/1", "/2", "/3"}) {
        record(renameOf("/a", to));
    }
    TavroHistory history;
    open(history);
    for (int i = 0; i < 2; ++i) {
        std::optional<TavroOperation> next;
        ASSERT_FALSE(history.NextToUndo(next));
        ASSERT_TRUE(next);
        next->State = TavroOperationState::Undone;
        next->Steps[0].From = "/undone";
        ASSERT_FALSE(history.EndOperation(*next, false));
    }
    std::vector<std::string> targets;
    for (const TavroOperation& operation : listed()) {
        targets.push_back(operation.Steps[0].From + operation.Steps[0].To);
    }
    EXPECT_EQ(targets, (std::vector<std::string>{"/undone/3", "/undone/2", "/a/1"}));
    std::optional<TavroOperation> next;
    ASSERT_FALSE(history.NextToRedo(next));
    EXPECT_EQ(next->Steps[0].To, "/2");
    record(renameOf("/a", "/4"));
    EXPECT_EQ(listed().size(), 2U);
    ASSERT_FALSE(history.NextToRedo(next));
    EXPECT_FALSE(next);
}

TEST_F(History, any_number_of_steps_comes_back_in_order) {
    for (const std::size_t count : {1U, 63U, 64U, 65U, 128U, 131U}) {
        TavroOperation operation = operationOf(Kind::Trash, {});
        for (std::size_t i = 0; i < count; ++i) {
            const std::string name = "file " + std::to_string(i);
            operation.Steps.push_back(trashedStep("/from/" + name, "/trash", name));
        }
        record(operation);
        EXPECT_EQ(describe(listed().front()), describe(operation)) << count;
    }
}

TEST_F(History, the_log_of_an_operation_is_emptied_when_it_has_ended_and_not_before) {
    const fs::path log = file().string() + "-wal";
    TavroHistory history;
    open(history);
    TavroOperation operation = operationOf(Kind::Trash, {});
    for (std::size_t i = 0; i < 5000; ++i) {
        const std::string name = "file " + std::to_string(i);
        operation.Steps.push_back(trashedStep("/from/" + name, "/trash", name));
    }
    ASSERT_EQ(TavroDescribe(history.BeginOperation(operation)), "");
    EXPECT_GT(fs::file_size(log), 100U * 4096U);
    ASSERT_EQ(TavroDescribe(history.EndOperation(operation, true)), "");
    EXPECT_EQ(fs::file_size(log), 0U);
}

TEST_F(History, an_update_keeps_more_and_fewer_steps) {
    TavroHistory history;
    open(history);
    TavroOperation operation = renameOf("/a", "/b");
    ASSERT_FALSE(recordDone(history, operation));
    operation.Steps.resize(3, operation.Steps[0]);
    ASSERT_FALSE(history.Update(operation));
    EXPECT_EQ(describe(listed()), std::vector<std::string>{describe(operation)});
    operation.Steps.resize(1);
    ASSERT_FALSE(history.Update(operation));
    EXPECT_EQ(describe(listed()), std::vector<std::string>{describe(operation)});
    operation.Id = 7;
    EXPECT_EQ(TavroDescribe(history.Update(operation)),
              "Cannot save the history '" + file().string() +
                  "': " + systemText(std::errc::no_such_file_or_directory));
    operation.Id = 1;
    operation.Steps.clear();
    EXPECT_EQ(history.Update(operation).Kind, TavroFailureKind::HistoryUnrecordable);
}

/// What this process has read so far, in bytes.
std::uint64_t bytesRead() {
    std::ifstream io("/proc/self/io");
    std::string word;
    std::uint64_t bytes = 0;
    io >> word >> bytes;
    EXPECT_EQ(word, "rchar:");
    return bytes;
}

TEST_F(History, a_command_costs_as_much_as_its_own_operation_however_large_the_others_are) {
    std::vector<TavroStep> steps(50000, {Role::Moved, "/a/long/name", "/another/long/name", ""});
    record(operationOf(Kind::Move, steps));
    record(renameOf("/a", "/b"));
    ASSERT_GT(fs::file_size(file()), 2000000U);
    const std::uint64_t before = bytesRead();
    {
        record(renameOf("/c", "/d"));
        EXPECT_EQ(listed(false).size(), 3U);
        TavroHistory history;
        open(history);
        std::optional<TavroOperation> next;
        ASSERT_FALSE(history.NextToUndo(next));
        EXPECT_EQ(next->Steps.size(), 1U);
    }
    EXPECT_LT(bytesRead() - before, 1000000U);
}

// ---------------------------------------------------------------------------------------------
// Damaged files
// ---------------------------------------------------------------------------------------------

class DamagedHistory : public History {
protected:
    void expectSetAside(const std::string& bytes) const {
        TavroHistory history;
        open(history);
        EXPECT_EQ(history.Notice(), "The history '" + file().string() +
                                        "' is damaged and was set aside as '" + aside(1).string() +
                                        "'");
        EXPECT_TRUE(readFile(aside(1)) == bytes);
        TavroOperation operation = renameOf("/new", "/newer");
        EXPECT_EQ(TavroDescribe(recordDone(history, operation)), "");
        EXPECT_EQ(describe(listed()), std::vector<std::string>{describe(operation)});
        clear();
    }

    void clear() const {
        for (const fs::directory_entry& entry : fs::directory_iterator(file().parent_path())) {
            fs::remove(entry.path());
        }
    }

    /// One recorded operation, all of it in the file itself.
    void makeFile(const std::string& sql = "") const {
        record(renameOf("/a", "/b"));
        OtherProgram(file()).execute(sql + ";PRAGMA wal_checkpoint(TRUNCATE)");
    }
};

TEST_F(DamagedHistory, what_is_no_database_is_set_aside_and_named) {
    for (const std::string& text :
         {std::string("not a database"), std::string(100000, '\0'), std::string("\n"),
          std::string("SQLite format 3"), "SQLite format 3" + std::string(5000, '\0')}) {
        SCOPED_TRACE(text.substr(0, 20));
        writeFile(file(), text);
        expectSetAside(text);
    }
}

TEST_F(DamagedHistory, a_file_cut_short_is_set_aside) {
    makeFile();
    const std::string whole = readFile(file());
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{511}, std::size_t{512}, std::size_t{4095}}) {
        SCOPED_TRACE(size);
        clear();
        writeFile(file(), whole.substr(0, size));
        expectSetAside(whole.substr(0, size));
        makeDirectory(file().parent_path());
    }
}

TEST_F(DamagedHistory, an_empty_file_is_an_empty_history) {
    writeFile(file(), "");
    EXPECT_EQ(listed().size(), 0U);
    EXPECT_FALSE(isPresent(aside(1)));
}

TEST_F(DamagedHistory, a_database_of_another_form_is_set_aside) {
    for (const char* sql :
         {"PRAGMA application_id=1", "PRAGMA user_version=0", "PRAGMA user_version=3",
          "DROP INDEX operation_of_state", "ALTER TABLE step ADD COLUMN more",
          "CREATE TABLE more(a)", "CREATE VIEW more AS SELECT 1",
          "CREATE TRIGGER t AFTER INSERT ON operation BEGIN DELETE FROM step; END",
          "DROP TABLE step; CREATE VIEW step AS SELECT 1",
          "PRAGMA writable_schema=1; UPDATE sqlite_schema SET sql = replace(sql, 'kind', "
          "'kin_')"}) {
        SCOPED_TRACE(sql);
        makeFile(sql);
        const std::string bytes = readFile(file());
        expectSetAside(bytes);
    }
}

TEST_F(DamagedHistory, its_log_goes_with_it) {
    record(renameOf("/a", "/b"));
    const std::string log = readFile(file().string() + "-wal");
    ASSERT_FALSE(log.empty());
    writeFile(file(), "damaged");
    TavroHistory history;
    open(history);
    EXPECT_EQ(readFile(aside(1).string() + "-wal"), log);
    EXPECT_EQ(listed().size(), 0U);
}

TEST_F(DamagedHistory, the_first_free_name_is_taken) {
    writeFile(aside(1), "older");
    fs::create_symlink("nowhere", aside(2));
    writeFile(aside(4), "newer");
    writeFile(file(), "damaged");
    TavroHistory history;
    open(history);
    EXPECT_EQ(readFile(aside(1)), "older");
    EXPECT_EQ(fs::read_symlink(aside(2)), "nowhere");
    EXPECT_EQ(readFile(aside(3)), "damaged");
    EXPECT_EQ(readFile(aside(4)), "newer");
}

TEST_F(DamagedHistory, one_that_cannot_be_set_aside_stays) {
    writeFile(file(), "damaged");
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(file().parent_path(), fs::perms(0500));
        TavroHistory history;
        EXPECT_EQ(TavroDescribe(tryOpening(history)),
                  "Cannot set aside the damaged history '" + file().string() +
                      "': " + systemText(std::errc::permission_denied));
    });
    EXPECT_EQ(readFile(file()), "damaged");
}

/// Overwrites every page of a table with bytes that make no page.
void damageTable(const fs::path& file, const std::string& table) {
    const std::int64_t page =
        OtherProgram(file).query("SELECT rootpage FROM sqlite_schema WHERE name = '" + table + "'");
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp((page - 1) * 4096);
    stream << std::string(4096, '\x77');
}

TEST_F(DamagedHistory, damage_that_shows_later_is_set_aside_then_and_recording_goes_on) {
    makeFile();
    damageTable(file(), "step");
    TavroHistory history;
    open(history);
    EXPECT_EQ(history.Notice(), "");
    TavroOperation operation = renameOf("/c", "/d");
    EXPECT_EQ(TavroDescribe(recordDone(history, operation)), "");
    EXPECT_NE(history.Notice().find(aside(1).string()), std::string::npos);
    EXPECT_EQ(describe(listed()), std::vector<std::string>{describe(operation)});
}

TEST_F(DamagedHistory, a_disk_that_fails_to_read_once_hides_nothing) {
    makeFile();
    const std::vector<std::string> before = describe(listed());
    bool bFired = true;
    for (int number = 1; bFired; ++number) {
        SCOPED_TRACE(number);
        int left = number;
        const FailingReads failing([&] { return --left == 0 ? EIO : 0; });
        TavroHistory history;
        std::vector<TavroOperation> all;
        std::vector<std::uint64_t> counts;
        TavroFailure failure = history.Open(file().string(), std::chrono::seconds(1));
        failure = failure ? failure : history.List(true, all, counts);
        if (failure) {
            EXPECT_EQ(failure.Error.value(), EIO);
        } else {
            EXPECT_EQ(describe(all), before);
        }
        EXPECT_EQ(history.Notice(), "");
        EXPECT_FALSE(exists(aside(1)));
        bFired = left <= 0;
    }
}

TEST_F(DamagedHistory, a_disk_that_cannot_read_it_is_told_of_and_nothing_is_set_aside) {
    makeFile();
    const std::vector<std::string> before = describe(listed());
    int fired = 0;
    for (int number = 1; number == 1 || fired > 0; ++number) {
        SCOPED_TRACE(number);
        int left = number;
        fired = 0;
        const auto fails = [&] { return --left <= 0 ? EIO : 0; };
        const FailingReads failing([&] { return fails() != 0 ? (++fired, EIO) : 0; });
        const FaultInjector toTheEnd({{"pread", EIO, "history.db", 1, true}});
        TavroHistory history;
        TavroFailure failure = history.Open(file().string(), std::chrono::seconds(1));
        std::optional<TavroOperation> next;
        failure = failure ? failure : history.NextToUndo(next);
        EXPECT_EQ(static_cast<bool>(failure), fired > 0);
        EXPECT_EQ(failure.Error.value(), fired > 0 ? EIO : 0);
        EXPECT_EQ(history.Notice(), "");
        EXPECT_FALSE(exists(aside(1)));
    }
    EXPECT_EQ(describe(listed()), before);
}

TEST_F(DamagedHistory, damage_that_shows_to_a_reader_leaves_an_empty_history) {
    for (const char* table : {"step", "operation", "operation_of_state"}) {
        for (const bool bList : {false, true}) {
            SCOPED_TRACE(table);
            if (bList && std::string(table) == "operation_of_state") {
                continue; // a list has no use for the index
            }
            makeFile();
            damageTable(file(), table);
            TavroHistory history;
            open(history);
            ASSERT_EQ(history.Notice(), "");
            std::optional<TavroOperation> next;
            std::vector<TavroOperation> all;
            std::vector<std::uint64_t> counts;
            EXPECT_EQ(
                TavroDescribe(bList ? history.List(true, all, counts) : history.NextToUndo(next)),
                "");
            EXPECT_FALSE(next);
            EXPECT_EQ(all.size(), 0U);
            EXPECT_NE(history.Notice(), "");
            clear();
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Crafted files
// ---------------------------------------------------------------------------------------------

TEST_F(History, an_operation_that_was_not_written_here_is_refused_and_can_be_dropped) {
    for (const char* sql :
         {"UPDATE step SET source = x'61'",
          "UPDATE step SET target = x'2f610062'",
          "UPDATE step SET target = x''",
          "UPDATE step SET target = 7",
          "UPDATE step SET record = x'2f'",
          "UPDATE step SET role = 5",
          "UPDATE step SET role = -1",
          "UPDATE step SET role = 2",
          "UPDATE step SET role = 4294967296",
          "UPDATE step SET mode = 4096",
          "UPDATE step SET mode = 4294967296",
          "UPDATE step SET mode = -1",
          "UPDATE step SET number = 1",
          "INSERT INTO step SELECT operation, 1, role, source, target, record, device, inode, "
          "changed, mode, directory, attributes, staged, source_device, source_inode, "
          "source_changed FROM step "
          "WHERE "
          "operation = 2",
          "UPDATE step SET staged = x'612f62'",
          "UPDATE step SET role = 7",
          "UPDATE operation SET steps = 2",
          "UPDATE operation SET steps = 9223372036854775806",
          "UPDATE operation SET kind = 0",
          "DELETE FROM step"}) {
        SCOPED_TRACE(sql);
        record(renameOf("/a", "/b"));
        record(renameOf("/c", "/d"));
        OtherProgram(file()).execute(std::string(sql) +
                                     (std::string(sql).find("INSERT") == 0 ? ""
                                      : std::string(sql).find("step S") != std::string::npos ||
                                              std::string(sql).find("DELETE") == 0
                                          ? " WHERE operation = 2"
                                          : " WHERE id = 2"));
        TavroHistory history;
        open(history);
        EXPECT_EQ(history.Notice(), "");
        std::optional<TavroOperation> next = renameOf("/untouched", "/untouched");
        EXPECT_EQ(TavroDescribe(history.NextToUndo(next)),
                  "The history '" + file().string() + "' contains an invalid operation");
        EXPECT_FALSE(next);
        std::vector<TavroOperation> all;
        std::vector<std::uint64_t> counts;
        ASSERT_FALSE(history.List(false, all, counts));
        ASSERT_EQ(all.size(), 2U);
        ASSERT_FALSE(history.Drop(all[0].Id));
        ASSERT_FALSE(history.NextToUndo(next));
        EXPECT_EQ(describe(*next), describe(renameOf("/a", "/b")));
        fs::remove_all(m_sandbox / "state");
    }
}

TEST_F(History, a_file_of_the_first_version_is_brought_up_to_date) {
    record(renameOf("/a", "/b"));
    record(renameOf("/c", "/d"));
    OtherProgram(file()).execute(
        "UPDATE operation SET state = 1; ALTER TABLE operation DROP COLUMN undone; "
        "PRAGMA user_version=1");
    TavroHistory history;
    open(history);
    EXPECT_EQ(history.Notice(), "");
    std::optional<TavroOperation> next;
    ASSERT_FALSE(history.NextToRedo(next));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->Steps[0].From, "/a") << "it was undone last";
    EXPECT_EQ(listed().size(), 2U);
}

TEST_F(History, what_was_undone_last_is_redone_first_whatever_its_number) {
    record(renameOf("/a", "/b"));
    record(renameOf("/c", "/d"));
    record(renameOf("/e", "/f"));
    TavroHistory history;
    open(history);
    for (const std::int64_t id : {2, 3, 1}) {
        std::optional<TavroOperation> operation;
        ASSERT_FALSE(history.Read(id, operation));
        ASSERT_TRUE(operation);
        operation->State = TavroOperationState::Undone;
        ASSERT_FALSE(history.EndOperation(*operation, true));
    }
    std::vector<std::int64_t> order;
    for (const TavroOperation& operation : listed()) {
        order.push_back(operation.Id);
    }
    EXPECT_EQ(order, (std::vector<std::int64_t>{2, 3, 1}));
    std::optional<TavroOperation> next;
    ASSERT_FALSE(history.NextToRedo(next));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->Id, 1);
    ASSERT_FALSE(history.Read(4, next));
    EXPECT_FALSE(next);
}

TEST_F(History, an_operation_of_an_unknown_kind_or_count_is_refused_and_not_listed) {
    for (const char* change :
         {"kind = 5", "kind = 8", "kind = -1", "kind = 4294967296", "steps = -1",
          "steps = 9223372036854775807", "entries = -1", "entries = 2"}) {
        SCOPED_TRACE(change);
        record(renameOf("/a", "/b"));
        OtherProgram(file()).execute(std::string("UPDATE operation SET ") + change);
        TavroHistory history;
        open(history);
        std::optional<TavroOperation> next;
        EXPECT_EQ(history.NextToUndo(next).Kind, TavroFailureKind::HistoryInvalid);
        EXPECT_EQ(listed().size(), 0U);
        fs::remove_all(m_sandbox / "state");
    }
}

TEST_F(History, an_operation_of_an_unknown_state_is_neither_undone_nor_listed) {
    for (const char* state : {"6", "-1", "4294967299"}) {
        SCOPED_TRACE(state);
        record(renameOf("/a", "/b"));
        OtherProgram(file()).execute(std::string("UPDATE operation SET state = ") + state);
        TavroHistory history;
        open(history);
        std::optional<TavroOperation> next;
        EXPECT_FALSE(history.NextToUndo(next));
        EXPECT_FALSE(next);
        history.NextToResume(next);
        EXPECT_FALSE(next);
        EXPECT_EQ(listed().size(), 0U);
        fs::remove_all(m_sandbox / "state");
    }
}

TEST_F(History, a_restore_is_kept_only_while_it_is_on_its_way) {
    TavroHistory history;
    open(history);
    TavroOperation restore = operationOf(Kind::Restore, {trashedStep("/a", "/t", "a")});
    restore.State = TavroOperationState::Doing;
    ASSERT_FALSE(history.BeginOperation(restore));
    EXPECT_EQ(listed().size(), 1U);
    OtherProgram(file()).execute("UPDATE operation SET state = 0");
    std::optional<TavroOperation> next;
    EXPECT_EQ(history.NextToUndo(next).Kind, TavroFailureKind::HistoryInvalid);
    EXPECT_EQ(listed().size(), 0U);
}

TEST_F(History, steps_that_wait_for_the_next_operation_are_not_taken_for_its_own) {
    record(renameOf("/a", "/b"));
    OtherProgram(file()).execute(
        "INSERT INTO step SELECT 2, column1, 0, x'2f78', x'2f79', x'', 1, 1, 1, 0, 0, "
        "x'', x'', 0, 0, 0 FROM (VALUES (0), (1))");
    record(renameOf("/c", "/d"));
    EXPECT_EQ(describe(listed()), (std::vector<std::string>{describe(renameOf("/c", "/d")),
                                                            describe(renameOf("/a", "/b"))}));
}

// ---------------------------------------------------------------------------------------------
// Several at once
// ---------------------------------------------------------------------------------------------

TEST_F(History, readers_never_wait_for_a_writer_and_see_what_was_before) {
    record(renameOf("/a", "/b"));
    OtherProgram writer(file());
    writer.execute("BEGIN IMMEDIATE; UPDATE operation SET state = 1");
    EXPECT_EQ(listed()[0].State, TavroOperationState::Done);
    writer.execute("COMMIT");
    EXPECT_EQ(listed()[0].State, TavroOperationState::Undone);
}

TEST_F(History, no_number_is_given_twice_not_even_that_of_what_has_done_nothing) {
    TavroHistory history;
    open(history);
    std::int64_t before = 0;
    for (int i = 0; i < 3; ++i) {
        TavroOperation operation = renameOf("/a", "/b");
        operation.State = TavroOperationState::Doing;
        ASSERT_FALSE(history.BeginOperation(operation));
        EXPECT_GT(operation.Id, before);
        before = operation.Id;
        operation.Steps.clear();
        ASSERT_FALSE(history.EndOperation(operation, false));
        EXPECT_EQ(listed().size(), 0U);
    }
    EXPECT_EQ(OtherProgram(file()).query("SELECT count(*) FROM operation"), 1);
}

TEST_F(History, what_was_undone_and_redone_meanwhile_is_read_again) {
    TavroHistory one;
    TavroHistory other;
    std::optional<TavroOperation> taken = readByOneOf(one, other);
    ASSERT_TRUE(taken);
    TavroOperation redone = *taken;
    redone.Steps[0].Identity = {7, 8};
    bool bChanged = true;
    ASSERT_FALSE(other.ContinueOperation(*taken, TavroOperationState::Redoing, bChanged));
    EXPECT_FALSE(bChanged);
    ASSERT_FALSE(other.EndOperation(redone, false));
    ASSERT_FALSE(one.ContinueOperation(*taken, TavroOperationState::Undoing, bChanged));
    EXPECT_TRUE(bChanged);
    EXPECT_EQ(listed()[0].State, TavroOperationState::Done);
    ASSERT_FALSE(one.NextToUndo(taken));
    record(renameOf("/c", "/d")); // another one does not count
    ASSERT_FALSE(one.ContinueOperation(*taken, TavroOperationState::Undoing, bChanged));
    EXPECT_FALSE(bChanged);
    EXPECT_EQ(listed()[1].State, TavroOperationState::Undoing);
}

TEST_F(History, who_is_refused_an_operation_hides_nothing_in_its_name) {
    TavroHistory one;
    TavroHistory other;
    std::optional<TavroOperation> taken = readByOneOf(one, other);
    ASSERT_TRUE(taken);
    bool bChanged = true;
    std::string hides; // what the hidden names of the one that gets it begin with
    std::thread([&] {
        EXPECT_FALSE(other.ContinueOperation(*taken, TavroOperationState::Undoing, bChanged));
        hides = ' ' + TavroStagingPrefix() + ' ' + TavroBootMark();
    }).join();
    ASSERT_FALSE(bChanged);
    ASSERT_EQ(hides.find(TavroStagingPrefix()), std::string::npos);
    EXPECT_EQ(listed()[0].Staging, taken->Staging + hides);
    const TavroFailure running =
        one.ContinueOperation(*taken, TavroOperationState::Undoing, bChanged);
    EXPECT_EQ(running.Kind, TavroFailureKind::HistoryRunning);
    EXPECT_EQ(listed()[0].Staging, taken->Staging + hides);
    TavroOperation undone = *taken;
    undone.State = TavroOperationState::Undone;
    ASSERT_FALSE(other.EndOperation(undone, true));
    ASSERT_FALSE(one.ContinueOperation(*taken, TavroOperationState::Undoing, bChanged));
    EXPECT_TRUE(bChanged);
    EXPECT_EQ(listed()[0].Staging, taken->Staging + hides);
}

TEST_F(History, what_several_create_at_once_is_never_taken_for_damaged) {
    for (int round = 0; round < 100; ++round) {
        fs::remove_all(m_sandbox / "state");
        std::vector<pid_t> children;
        for (int i = 0; i < 8; ++i) {
            children.push_back(fork());
            if (children.back() == 0) {
                TavroHistory history;
                const auto patience = std::chrono::seconds(20);
                const bool bOpen = !history.Open(file().string(), patience);
                _exit(bOpen && history.Notice().empty() ? 0 : 1);
            }
        }
        for (const pid_t child : children) {
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0) << "in round " << round;
        }
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(History, a_writer_waits_for_another_one_as_long_as_it_is_told) {
    listed();
    OtherProgram held(file());
    held.execute("BEGIN IMMEDIATE");
    TavroHistory history;
    TavroOperation operation = renameOf("/a", "/b");
    ASSERT_FALSE(history.Open(file().string(), std::chrono::milliseconds(50)));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(TavroDescribe(recordDone(history, operation)),
              "The history '" + file().string() + "' is in use by another process");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));

    int asked = 0;
    ASSERT_FALSE(history.Open(file().string(), std::chrono::hours(1), [&] {
        if (++asked == 3) {
            held.execute("COMMIT");
        }
        return false;
    }));
    EXPECT_EQ(TavroDescribe(recordDone(history, operation)), "");
    EXPECT_EQ(asked, 3);
}

TEST_F(History, a_wait_can_be_cancelled) {
    listed();
    OtherProgram held(file());
    held.execute("BEGIN IMMEDIATE");
    TavroHistory history;
    bool bCancel = true;
    ASSERT_FALSE(history.Open(file().string(), std::chrono::hours(1), [&] { return bCancel; }));
    TavroOperation operation = renameOf("/a", "/b");
    EXPECT_EQ(recordDone(history, operation).Kind, TavroFailureKind::Cancelled);
    held.execute("COMMIT");
    bCancel = false;
    EXPECT_EQ(TavroDescribe(recordDone(history, operation)), "");
}

TEST_F(History, a_reader_does_not_keep_a_long_log_from_being_written) {
    TavroHistory reader;
    open(reader);
    sqlite3* connection = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &connection), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(connection, "BEGIN; SELECT * FROM step", nullptr, nullptr, nullptr),
              SQLITE_OK);
    std::vector<TavroStep> steps(10000, {Role::Moved, "/a/long/name", "/another/long/name", ""});
    TavroHistory history;
    bool bAsked = false;
    ASSERT_FALSE(history.Open(file().string(), std::chrono::hours(1), [&] {
        bAsked = true;
        return true;
    }));
    TavroOperation operation = operationOf(Kind::Move, steps);
    EXPECT_FALSE(recordDone(history, operation));
    EXPECT_FALSE(bAsked) << "it was waited for";
    sqlite3_close(connection);
    EXPECT_EQ(listed().size(), 1U);
    ASSERT_FALSE(history.Drop(1)); // the next commit tries again
    EXPECT_EQ(fs::file_size(file().string() + "-wal"), 0U);
}

TEST_F(History, processes_that_create_and_record_at_the_same_time_lose_nothing) {
    constexpr int processes = 4;
    constexpr int each = 40;
    std::vector<pid_t> children;
    for (int process = 0; process < processes; ++process) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int i = 0; i < each; ++i) {
                TavroHistory history;
                TavroOperation operation =
                    renameOf("/" + std::to_string(process), "/" + std::to_string(i));
                EXPECT_EQ(TavroDescribe(history.Open(file().string(), std::chrono::minutes(1))),
                          "");
                EXPECT_EQ(TavroDescribe(recordDone(history, operation)), "");
            }
            _exit(HasFailure() ? 1 : 0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    std::vector<int> next(processes, each);
    for (const TavroOperation& operation : listed()) {
        const auto process = static_cast<std::size_t>(std::stoi(operation.Steps[0].From.substr(1)));
        EXPECT_EQ(operation.Steps[0].To, "/" + std::to_string(--next.at(process)));
    }
    EXPECT_EQ(next, std::vector<int>(processes, 0));
    EXPECT_FALSE(isPresent(aside(1)));
}

// ---------------------------------------------------------------------------------------------
// Saving
// ---------------------------------------------------------------------------------------------

TEST_F(History, a_save_that_fails_leaves_the_history_as_it_was) {
    record(renameOf("/a", "/b"));
    TavroHistory history;
    open(history);
    TavroOperation operation = renameOf("/c", "/d");
    for (const auto& [error, text] :
         {std::pair(ENOSPC, std::errc::no_space_on_device), std::pair(EIO, std::errc::io_error)}) {
        const FailingWrites failing([number = error] { return number; });
        EXPECT_EQ(TavroDescribe(recordDone(history, operation)),
                  "Cannot save the history '" + file().string() + "': " + systemText(text));
    }
    EXPECT_EQ(describe(listed()), std::vector<std::string>{describe(renameOf("/a", "/b"))});
    EXPECT_EQ(TavroDescribe(recordDone(history, operation)), "");
    EXPECT_EQ(listed().size(), 2U);
}

TEST_F(History, a_file_that_is_read_only_can_be_read_and_not_be_written) {
    record(renameOf("/a", "/b"));
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(file(), fs::perms(0400));
        EXPECT_EQ(listed().size(), 1U);
        TavroHistory history;
        open(history);
        TavroOperation operation = renameOf("/c", "/d");
        EXPECT_EQ(TavroDescribe(recordDone(history, operation)),
                  "Cannot save the history '" + file().string() +
                      "': " + systemText(std::errc::permission_denied));
    });
}

} // namespace
