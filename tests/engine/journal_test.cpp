// How an operation is kept in the history, before it acts and when it has ended.

#include "history_support.h"
#include "journal.h"

#include "fault_injector.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <sys/stat.h>

using namespace tavro_test;

namespace {

using Kind = TavroOperationKind;
using Role = TavroStepRole;
using State = TavroOperationState;

TavroStep step(const std::string& name) {
    return {Role::Moved, "/from/" + name, "/to/" + name};
}

class Journal : public testing::Test {
protected:
    std::string file() const {
        return (m_sandbox / "state/tavro/history.db").string();
    }
    TavroFailure open(TavroHistory& history) const {
        ++m_opened;
        return history.Open(file(), std::chrono::milliseconds(0));
    }
    TavroJournal journal() const {
        return TavroJournal([this](TavroHistory& history) { return open(history); });
    }
    std::vector<TavroOperation> listed() const {
        TavroHistory history;
        EXPECT_EQ(TavroDescribe(open(history)), "");
        std::vector<TavroOperation> operations;
        std::vector<std::uint64_t> counts;
        EXPECT_EQ(TavroDescribe(history.List(true, operations, counts)), "");
        return operations;
    }
    bool isRunning(const TavroOperation& operation) const {
        TavroHistory history;
        EXPECT_EQ(TavroDescribe(open(history)), "");
        return history.IsRunning(operation);
    }
    static TavroOperation done(std::vector<TavroStep> steps) {
        return {0, Kind::Move, State::Done, 1, std::move(steps)};
    }

    Sandbox m_sandbox;
    mutable int m_opened = 0;
};

TEST_F(Journal, keeps_an_operation_before_it_acts_and_when_it_has_ended) {
    TavroJournal journal = this->journal();
    const TavroCallbacks callbacks = journal.Bind({});
    EXPECT_EQ(m_opened, 0) << "an operation that does nothing needs no history";
    ASSERT_FALSE(callbacks.BeforeActs(Kind::Move, {step("a")}));
    ASSERT_EQ(listed().size(), 1U);
    EXPECT_EQ(listed()[0].State, State::Doing);
    EXPECT_EQ(listed()[0].Kind, Kind::Move);
    EXPECT_EQ(listed()[0].Steps, std::vector<TavroStep>{step("a")});
    EXPECT_TRUE(isRunning(listed()[0]));
    ASSERT_FALSE(callbacks.BeforeActs(Kind::Move, {step("b"), step("c")}));
    EXPECT_EQ(listed()[0].Steps, (std::vector<TavroStep>{step("a"), step("b"), step("c")}));
    ASSERT_FALSE(journal.End(done({step("a"), step("c")})));
    ASSERT_EQ(listed().size(), 1U);
    EXPECT_EQ(listed()[0].State, State::Done);
    EXPECT_EQ(listed()[0].Steps, (std::vector<TavroStep>{step("a"), step("c")}));
    EXPECT_FALSE(isRunning(listed()[0]));
    EXPECT_FALSE(journal.Problem());
}

TEST_F(Journal, keeps_nothing_of_what_has_done_nothing) {
    TavroJournal journal = this->journal();
    const TavroCallbacks callbacks = journal.Bind({});
    ASSERT_FALSE(callbacks.BeforeActs(Kind::Move, {step("a")}));
    ASSERT_FALSE(journal.End(done({})));
    EXPECT_EQ(listed().size(), 0U);
    TavroJournal silent = this->journal();
    ASSERT_FALSE(silent.End(done({step("a")})));
    EXPECT_EQ(listed().size(), 0U) << "what was not told of before it acted";
}

TEST_F(Journal, passes_the_other_callbacks_on) {
    TavroJournal journal = this->journal();
    TavroCallbacks own;
    own.bSync = false;
    own.ShouldCancel = [] { return true; };
    const TavroCallbacks callbacks = journal.Bind(own);
    EXPECT_FALSE(callbacks.bSync);
    EXPECT_TRUE(callbacks.ShouldCancel());
}

TEST_F(Journal, what_could_be_undone_does_not_begin_without_a_history_that_can_be_used) {
    makeDirectory(file());
    TavroJournal journal = this->journal();
    const TavroCallbacks callbacks = journal.Bind({});
    EXPECT_EQ(callbacks.BeforeActs(Kind::Move, {step("a")}).Kind, TavroFailureKind::HistoryOpen);
    EXPECT_EQ(journal.Problem().Kind, TavroFailureKind::HistoryOpen);
    EXPECT_EQ(callbacks.BeforeActs(Kind::Move, {step("b")}).Kind, TavroFailureKind::HistoryOpen);
    EXPECT_EQ(m_opened, 1) << "it is not tried again and again";
    EXPECT_FALSE(journal.End(done({})));
}

TEST_F(Journal, what_could_not_be_undone_anyway_goes_on_without_a_history) {
    makeDirectory(file());
    for (const Kind kind : {Kind::Restore, Kind::Delete, Kind::Empty}) {
        std::vector<TavroFailureKind> told;
        TavroJournal journal([this](TavroHistory& history) { return open(history); },
                             [&](const TavroFailure& why) { told.push_back(why.Kind); });
        const TavroCallbacks callbacks = journal.Bind({});
        EXPECT_FALSE(callbacks.BeforeActs(kind, {{Role::Deleted, "/a"}}));
        EXPECT_FALSE(callbacks.BeforeActs(kind, {{Role::Deleted, "/b"}}));
        EXPECT_EQ(told, std::vector<TavroFailureKind>{TavroFailureKind::HistoryOpen});
        EXPECT_FALSE(journal.Problem());
        EXPECT_FALSE(journal.EndDeletion(false));
    }
}

TEST_F(Journal, a_deletion_that_failed_stays_only_where_something_can_be_gone) {
    writeFile(m_sandbox / "file", "bytes");
    makeDirectory(m_sandbox / "directory");
    for (const auto& [name, expected] :
         {std::pair("file", 0U), std::pair("directory", 1U), std::pair("gone", 2U)}) {
        TavroStep step{Role::Deleted, (m_sandbox / name).string()};
        struct stat status = {};
        lstat(step.From.c_str(), &status);
        step.Identity = TavroIdentityOf(status);
        TavroJournal journal = this->journal();
        ASSERT_FALSE(journal.Bind({}).BeforeActs(Kind::Delete, {step}));
        ASSERT_FALSE(journal.EndDeletion(true));
        EXPECT_EQ(listed().size(), expected) << name;
    }
}

TEST_F(Journal, a_deletion_stays_in_the_history) {
    TavroJournal journal = this->journal();
    ASSERT_FALSE(journal.Bind({}).BeforeActs(Kind::Delete, {{Role::Deleted, "/a"}}));
    ASSERT_FALSE(journal.EndDeletion(false));
    ASSERT_EQ(listed().size(), 1U);
    EXPECT_EQ(listed()[0].Kind, Kind::Delete);
    EXPECT_EQ(listed()[0].State, State::Done);
    EXPECT_EQ(listed()[0].Steps[0].From, "/a");
}

TEST_F(Journal, an_operation_that_did_not_reach_the_disk_is_not_left_in_the_history) {
    listed();
    TavroJournal journal = this->journal();
    const TavroCallbacks callbacks = journal.Bind({});
    const FaultInjector faults({{"fsync", EIO, "history.db-wal"}});
    EXPECT_EQ(callbacks.BeforeActs(Kind::Move, {step("a")}).Kind, TavroFailureKind::HistorySave);
    EXPECT_EQ(faults.fired(), 1);
    EXPECT_EQ(journal.Problem().Kind, TavroFailureKind::HistorySave);
    EXPECT_EQ(listed().size(), 0U) << "it was not begun";
    EXPECT_FALSE(journal.End(done({})));
    EXPECT_EQ(listed().size(), 0U);
}

TEST_F(Journal, an_operation_does_not_begin_when_it_cannot_be_taken_out_of_the_history_again) {
    listed();
    TavroJournal journal = this->journal();
    const TavroCallbacks callbacks = journal.Bind({});
    std::optional<OtherProgram> other; // begins to write just after the operation was kept
    std::optional<FaultInjector> faults;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "fsync" && path.find("history.db-wal") != std::string::npos && !other) {
            other.emplace(file()).execute("BEGIN IMMEDIATE");
        }
    });
    faults.emplace(std::vector<Fault>{{"fsync", EIO, "history.db-wal"}});
    EXPECT_EQ(callbacks.BeforeActs(Kind::Move, {step("a")}).Kind, TavroFailureKind::HistorySave);
    EXPECT_EQ(faults->fired(), 1);
    ASSERT_TRUE(other);
    other->execute("ROLLBACK");
    EXPECT_FALSE(journal.End(done({})));
    EXPECT_EQ(listed().size(), 0U);
}

TEST_F(Journal, an_operation_in_the_history_does_not_go_on_with_what_cannot_be_kept) {
    TavroJournal journal = this->journal();
    const TavroCallbacks callbacks = journal.Bind({});
    ASSERT_FALSE(callbacks.BeforeActs(Kind::Move, {step("a")}));
    {
        const FaultInjector faults({{"fsync", EIO, "history.db-wal"}});
        EXPECT_EQ(callbacks.BeforeActs(Kind::Move, {step("b")}).Kind,
                  TavroFailureKind::HistorySave);
        EXPECT_EQ(faults.fired(), 1);
    }
    EXPECT_FALSE(journal.Problem());
    ASSERT_FALSE(journal.End(done({step("a")})));
    ASSERT_EQ(listed().size(), 1U);
    EXPECT_EQ(listed()[0].State, State::Done);
    EXPECT_EQ(listed()[0].Steps, std::vector<TavroStep>{step("a")});
}

TEST_F(Journal, an_operation_does_not_begin_while_another_process_keeps_the_history) {
    listed();
    OtherProgram other(file());
    other.execute("BEGIN IMMEDIATE");
    TavroJournal journal = this->journal();
    const TavroCallbacks callbacks = journal.Bind({});
    EXPECT_EQ(callbacks.BeforeActs(Kind::Move, {step("a")}).Kind, TavroFailureKind::HistoryBusy);
    EXPECT_FALSE(journal.Problem());
    other.execute("ROLLBACK");
    EXPECT_FALSE(callbacks.BeforeActs(Kind::Move, {step("a")}));
    EXPECT_EQ(listed().size(), 1U);
}

TEST_F(Journal, an_operation_does_not_begin_when_the_wait_is_cancelled) {
    listed();
    OtherProgram other(file());
    other.execute("BEGIN IMMEDIATE");
    TavroJournal journal([this](TavroHistory& history) {
        return history.Open(file(), std::chrono::hours(1), [] { return true; });
    });
    const TavroCallbacks callbacks = journal.Bind({});
    EXPECT_EQ(callbacks.BeforeActs(Kind::Move, {step("a")}).Kind, TavroFailureKind::Cancelled);
}

TEST_F(Journal, goes_on_with_an_operation_of_an_open_history) {
    TavroHistory history;
    ASSERT_FALSE(open(history));
    TavroOperation operation = done({step("a")});
    ASSERT_FALSE(recordDone(history, operation));
    bool bChanged = true;
    ASSERT_FALSE(history.ContinueOperation(operation, State::Undoing, bChanged));
    EXPECT_FALSE(bChanged);
    EXPECT_TRUE(isRunning(operation));
    TavroJournal journal(history, operation);
    ASSERT_FALSE(journal.Bind({}).BeforeActs(Kind::Trash, {step("b")}));
    EXPECT_EQ(listed()[0].State, State::Undoing);
    EXPECT_EQ(listed()[0].Steps, (std::vector<TavroStep>{step("a"), step("b")}));
    operation.State = State::Undone;
    ASSERT_FALSE(journal.End(operation));
    EXPECT_EQ(listed()[0].State, State::Undone);
    EXPECT_EQ(listed()[0].Steps, std::vector<TavroStep>{step("a")});
}

/// How often files with such a text in their paths are synced while something is done.
int syncsOf(const std::string& text, const std::function<void()>& act) {
    int count = 0;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        count += (call == "fsync" || call == "fdatasync" || call == "syncfs") &&
                 path.find(text) != std::string::npos;
    });
    act();
    return count;
}

TEST_F(Journal, waits_for_the_disk_before_each_act_and_not_at_the_end) {
    listed();
    for (const bool bSync : {true, false}) {
        TavroJournal journal = this->journal();
        TavroCallbacks own;
        own.bSync = bSync;
        const TavroCallbacks callbacks = journal.Bind(own);
        const auto begin = [&] { callbacks.BeforeActs(Kind::Move, {step("a")}); };
        const auto goOn = [&] { callbacks.BeforeActs(Kind::Move, {step("b")}); };
        const auto end = [&] { journal.End(done({step("a")})); };
        EXPECT_EQ(syncsOf("history.db", begin), bSync ? 1 : 0);
        EXPECT_EQ(syncsOf("history.db", goOn), bSync ? 1 : 0);
        EXPECT_EQ(syncsOf("", end), 0);
    }
}

} // namespace
