// What undoing and redoing make of the disk. Whatever is refused or fails must leave the whole
// sandbox, history included, as it was.

#include "history_support.h"
#include "undo.h"

#include "record.h"
#include "transfer.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "snapshot.h"
#include "trash_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

using Kind = TavroOperationKind;
using Role = TavroStepRole;

TavroStep movedStep(const std::string& from, const std::string& to) {
    return {Role::Moved, from, to, ""};
}

/// What came of an undo or a redo.
struct Outcome {
    TavroUndoReport Report;
    std::string Message;
    bool bDone = false;
};

/// A home with its trash, a state directory and a directory to work in, all in one sandbox. Each
/// step opens the history anew, as one run of a program after the other does.
class Undo : public testing::Test {
public: // the steps are passed on as pointers to members
    Undo() {
        makeDirectory(m_sandbox / "home");
        makeDirectory(m_work);
    }

    std::string work(const std::string& name) const {
        return (m_work / name).string();
    }
    fs::path trash() const {
        return m_sandbox / "home/.local/share/Trash";
    }
    Snapshot workTree() const {
        return takeSnapshot(m_work);
    }

    /// All but the bytes of the database, and what it has recorded.
    std::pair<Snapshot, std::vector<std::string>> everything() const {
        Snapshot snapshot = takeSnapshot(m_sandbox.path());
        for (auto row = snapshot.begin(); row != snapshot.end();) {
            row = row->first.rfind("state", 0) == 0 ? snapshot.erase(row) : std::next(row);
        }
        std::vector<std::string> texts;
        for (const TavroOperation& operation : listed()) {
            texts.push_back(std::to_string(static_cast<int>(operation.State)));
            for (const TavroStep& step : operation.Steps) {
                texts.back() +=
                    " " + step.From + " " + step.To + " " + std::to_string(step.Identity.Inode);
            }
        }
        return {snapshot, texts};
    }

    /// The names in the trash's `files` directory.
    std::set<std::string> trashedNames() const {
        std::set<std::string> names;
        if (isPresent(trash() / "files")) {
            for (const fs::directory_entry& entry : fs::directory_iterator(trash() / "files")) {
                names.insert(entry.path().filename().string());
            }
        }
        return names;
    }

    static void open(TavroHistory& history) {
        ASSERT_EQ(TavroDescribe(history.Open(TavroHistoryPath(), std::chrono::milliseconds(0))),
                  "");
    }

    std::vector<TavroOperation> listed() const {
        TavroHistory history;
        open(history);
        std::vector<TavroOperation> operations;
        std::vector<std::uint64_t> counts;
        EXPECT_EQ(TavroDescribe(history.List(true, operations, counts)), "");
        return operations;
    }

    /// Records what was done on the disk, with the files that are there now.
    void record(Kind kind, const std::vector<TavroStep>& steps) const {
        TavroOperation operation;
        operation.Kind = kind;
        operation.Steps = steps;
        TavroCompleteOperation(operation);
        TavroHistory history;
        open(history);
        ASSERT_EQ(TavroDescribe(recordDone(history, operation)), "");
    }

    Outcome undo(const TavroCallbacks& callbacks = {}) const {
        const auto undoNewest = [](TavroHistory& history, const TavroCallbacks& all) {
            return TavroUndo(history, all);
        };
        return go(undoNewest, callbacks);
    }
    Outcome redo(const TavroCallbacks& callbacks = {}) const {
        return go(TavroRedo, callbacks);
    }

    void renameAndRecord(const std::string& from, const std::string& to) const {
        fs::rename(work(from), work(to));
        record(Kind::Rename, {movedStep(work(from), work(to))});
    }

    /// Moves a directory into another one, and records nothing.
    TavroTransferReport merge(const std::string& from, const std::string& to) const {
        TavroTransferPlan plan;
        plan.bMove = true;
        plan.Items.emplace_back();
        plan.Items[0].SourcePath = work(from);
        plan.Items[0].DestinationPath = work(to);
        TavroTransferReport report;
        EXPECT_TRUE(TavroCarryOutTransfer(plan, {}, report));
        return report;
    }

    /// Moves on disk, in order, and records it as one operation.
    void moveAndRecord(const std::vector<std::pair<std::string, std::string>>& moves) const {
        std::vector<TavroStep> steps;
        for (const auto& [from, to] : moves) {
            makeDirectory(fs::path(work(to)).parent_path());
            fs::rename(work(from), work(to));
            steps.push_back(movedStep(work(from), work(to)));
        }
        record(Kind::Move, steps);
    }

    /// Copies on disk and records it as one operation.
    void copyAndRecord(const std::vector<std::pair<std::string, std::string>>& copies) const {
        std::vector<TavroStep> steps;
        for (const auto& [from, to] : copies) {
            fs::copy(work(from), work(to),
                     fs::copy_options::recursive | fs::copy_options::copy_symlinks |
                         fs::copy_options::overwrite_existing);
            steps.push_back({Role::Copied, work(from), work(to), ""});
        }
        record(Kind::Copy, steps);
    }

    /// Creates directories, outer ones first, and records it as one operation.
    void createAndRecord(const std::vector<std::string>& names) const {
        std::vector<TavroStep> steps;
        for (const std::string& name : names) {
            fs::create_directory(work(name));
            steps.push_back({Role::CreatedDirectory, "", work(name), ""});
        }
        record(Kind::CreateDirectory, steps);
    }

    void trashAndRecord(const std::vector<std::string>& names,
                        const TavroTrashOptions& options = {}) const {
        std::vector<TavroOperationEntry> entries;
        for (const std::string& name : names) {
            entries.push_back(TavroNameEntry(work(name)));
        }
        const TavroTrashReport report = TavroTrashSelection(entries, {}, {}, {}, options);
        ASSERT_EQ(TavroDescribe(report), "");
        std::vector<TavroStep> steps;
        for (const TavroTrashedEntry& trashed : report.Entries) {
            const TavroTrashEntry& entry = trashed.Entry;
            steps.push_back({Role::Trashed, entry.OriginalPath, entry.TrashPath, entry.InfoPath,
                             trashed.Item, 0, 0, entry.bDirectory});
        }
        record(Kind::Trash, steps);
    }

    /// Undoes and redoes what was done last, again and again.
    void expectRoundTrips(const Snapshot& before) const {
        const Snapshot after = workTree();
        EXPECT_NE(before, after);
        for (int round = 0; round < 4; ++round) {
            SCOPED_TRACE(round);
            const Outcome undone = undo();
            ASSERT_TRUE(undone.bDone) << undone.Message;
            ASSERT_EQ(workTree(), before);
            EXPECT_EQ(undone.Report.Operation.State, TavroOperationState::Undone);
            EXPECT_EQ(listed().at(0).State, TavroOperationState::Undone);
            const Outcome redone = redo();
            ASSERT_TRUE(redone.bDone) << redone.Message;
            ASSERT_EQ(workTree(), after);
            EXPECT_EQ(listed().at(0).State, TavroOperationState::Done);
        }
    }

    using Going = Outcome (Undo::*)(const TavroCallbacks&) const;

    /// Undoing (redoing) is refused with this sentence, and nothing is different then.
    void expectRefused(Going going, const std::string& sentence,
                       const TavroCallbacks& callbacks = {}) const {
        const auto before = everything();
        const Outcome outcome = (this->*going)(callbacks);
        EXPECT_FALSE(outcome.bDone);
        EXPECT_EQ(outcome.Message, sentence);
        EXPECT_EQ(everything(), before);
    }

    /// The same where the sentence is another room's: it names this path.
    void expectRefusedNaming(Going going, const std::string& path) const {
        const auto before = everything();
        const Outcome outcome = (this->*going)({});
        EXPECT_FALSE(outcome.bDone);
        EXPECT_NE(outcome.Message.find(path), std::string::npos) << outcome.Message;
        EXPECT_EQ(everything(), before);
    }

    Sandbox m_sandbox;
    fs::path m_work = m_sandbox / "work";

private:
    static Outcome go(TavroUndoReport (*act)(TavroHistory&, const TavroCallbacks&),
                      const TavroCallbacks& callbacks) {
        TavroHistory history;
        open(history);
        Outcome outcome;
        outcome.Report = act(history, callbacks);
        outcome.Message = TavroDescribe(outcome.Report);
        outcome.bDone = !outcome.Report.Failure;
        EXPECT_EQ(outcome.bDone, outcome.Message.empty());
        return outcome;
    }

    ScopedEnvironment m_home{"HOME", (m_sandbox / "home").string()};
    ScopedEnvironment m_state{"XDG_STATE_HOME", (m_sandbox / "state").string()};
    ScopedEnvironment m_data{"XDG_DATA_HOME", std::nullopt};
};

std::string inTheWay(const std::string& path) {
    return "'" + path + "' is in the way";
}

std::string missing(const std::string& path) {
    return "'" + path + "' is missing";
}

std::string replaced(const std::string& path, const std::string& what = "another file") {
    return "'" + path + "' is not what it was: " + what + " is there now";
}

unsigned modeOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

/// Puts another file in the place of one, while the first exists still, so that it is another.
void exchangeFor(const std::string& path, const std::function<void(const fs::path&)>& put) {
    fs::rename(path, path + ".old");
    put(path);
    fs::remove_all(path + ".old");
}

/// The obstacles that a place may be taken by.
const std::vector<std::function<void(const fs::path&)>>& obstacles() {
    static const std::vector<std::function<void(const fs::path&)>> all = {
        [](const fs::path& path) { writeFile(path, "other"); },
        [](const fs::path& path) { makeDirectory(path); },
        [](const fs::path& path) { fs::create_symlink("nowhere", path); },
        [](const fs::path& path) { makeFifo(path); },
    };
    return all;
}

// ---------------------------------------------------------------------------------------------
// In general
// ---------------------------------------------------------------------------------------------

TEST_F(Undo, with_nothing_to_undo_or_redo_that_is_said) {
    expectRefused(&Undo::undo, "Nothing to undo");
    writeFile(work("a"));
    renameAndRecord("a", "b");
    expectRefused(&Undo::redo, "Nothing to redo");
}

TEST_F(Undo, the_newest_is_undone_first_and_redone_last) {
    writeFile(work("a"), "bytes");
    std::vector<Snapshot> states = {workTree()};
    for (const auto& [from, to] : {std::pair("a", "b"), std::pair("b", "c"), std::pair("c", "d")}) {
        renameAndRecord(from, to);
        states.push_back(workTree());
    }
    for (std::size_t i = states.size() - 1; i > 0; --i) {
        ASSERT_TRUE(undo().bDone);
        EXPECT_EQ(workTree(), states[i - 1]);
    }
    for (std::size_t i = 1; i < states.size(); ++i) {
        ASSERT_TRUE(redo().bDone);
        EXPECT_EQ(workTree(), states[i]);
    }
    expectRefused(&Undo::redo, "Nothing to redo");
}

TEST_F(Undo, one_open_history_undoes_and_redoes_as_several_do) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    renameAndRecord("b", "c");
    TavroHistory history;
    open(history);
    EXPECT_EQ(TavroDescribe(TavroUndo(history, {})), "");
    EXPECT_EQ(TavroDescribe(TavroUndo(history, {})), "");
    EXPECT_EQ(readFile(work("a")), "bytes");
    EXPECT_EQ(TavroDescribe(TavroRedo(history, {})), "");
    EXPECT_EQ(readFile(work("b")), "bytes");
}

TEST_F(Undo, what_is_in_the_way_of_older_ones_can_be_dropped) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    record(Kind::Rename, {movedStep(work("gone"), work("nowhere"))});
    expectRefused(&Undo::undo, missing(work("nowhere")));
    {
        TavroHistory history;
        open(history);
        ASSERT_FALSE(history.Drop(listed()[0].Id));
    }
    EXPECT_TRUE(undo().bDone);
    EXPECT_TRUE(isPresent(work("a")));
}

TEST_F(Undo, two_processes_never_undo_the_same_operation) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    int tried = 0;
    TavroCallbacks callbacks;
    callbacks.ShouldCancel = [&] {
        ++tried;
        const Outcome second = undo();
        EXPECT_EQ(second.Message, "Another process is still working on the newest operation");
        EXPECT_EQ(listed().size(), 1U) << "who only reads does not wait";
        return false;
    };
    EXPECT_TRUE(undo(callbacks).bDone);
    EXPECT_GE(tried, 1);
    EXPECT_EQ(readFile(work("a")), "bytes");
    expectRefused(&Undo::undo, "Nothing to undo");
}

TEST_F(Undo, who_undoes_while_another_process_does_waits_and_takes_the_next_one) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    renameAndRecord("b", "c");
    TavroHistory other;
    open(other);
    std::optional<TavroOperation> taken;
    bool bChanged = false;
    ASSERT_FALSE(other.NextToUndo(taken));
    ASSERT_FALSE(other.ContinueOperation(*taken, TavroOperationState::Undoing, bChanged));
    ASSERT_FALSE(bChanged);
    TavroHistory history;
    int waits = 0;
    ASSERT_FALSE(history.Open(TavroHistoryPath(), std::chrono::hours(1), [&] {
        if (++waits == 3) {
            fs::rename(work("c"), work("b"));
            taken->State = TavroOperationState::Undone;
            EXPECT_FALSE(other.EndOperation(*taken, true));
        }
        return false;
    }));
    EXPECT_EQ(TavroDescribe(TavroUndo(history, {})), "");
    EXPECT_EQ(waits, 3);
    EXPECT_EQ(readFile(work("a")), "bytes");
    EXPECT_EQ(listed().at(0).State, TavroOperationState::Undone);
    EXPECT_EQ(listed().at(1).State, TavroOperationState::Undone);
}

TEST_F(Undo, a_wait_for_another_process_can_be_cancelled) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    TavroHistory other;
    open(other);
    std::optional<TavroOperation> taken;
    bool bChanged = false;
    ASSERT_FALSE(other.NextToUndo(taken));
    ASSERT_FALSE(other.ContinueOperation(*taken, TavroOperationState::Undoing, bChanged));
    TavroHistory history;
    ASSERT_FALSE(history.Open(TavroHistoryPath(), std::chrono::hours(1), [] { return true; }));
    EXPECT_EQ(TavroUndo(history, {}).Failure.Kind, TavroFailureKind::Cancelled);
    EXPECT_EQ(readFile(work("b")), "bytes");
}

TEST_F(Undo, nothing_is_undone_or_redone_when_the_history_cannot_be_saved) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    const std::string sentence = "Cannot save the history '" + TavroHistoryPath() +
                                 "': " + systemText(std::errc::no_space_on_device);
    {
        const FailingWrites failing([] { return ENOSPC; });
        expectRefused(&Undo::undo, sentence);
    }
    ASSERT_TRUE(undo().bDone);
    const FailingWrites failing([] { return ENOSPC; });
    expectRefused(&Undo::redo, sentence);
}

TEST_F(Undo, one_that_could_not_be_saved_afterwards_says_what_holds) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    const std::string notSaved = "Cannot save the history '" + TavroHistoryPath() +
                                 "': " + systemText(std::errc::no_space_on_device);
    {
        const FailingWrites failing([this] { return isPresent(work("a")) ? ENOSPC : 0; });
        const Outcome outcome = undo();
        EXPECT_EQ(outcome.Message,
                  "It is undone, but the history still shows it as interrupted: " + notSaved);
        EXPECT_TRUE(outcome.Report.bDoneButNotSaved);
    }
    EXPECT_EQ(readFile(work("a")), "bytes");
    EXPECT_EQ(listed()[0].State, TavroOperationState::Undoing);
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("a")), "bytes");
    EXPECT_EQ(listed()[0].State, TavroOperationState::Undone);
    const FailingWrites failing([this] { return isPresent(work("b")) ? ENOSPC : 0; });
    EXPECT_EQ(redo().Message,
              "It is redone, but the history still shows it as interrupted: " + notSaved);
}

TEST_F(Undo, what_the_guard_protects_stays_whatever_the_history_says) {
    const std::string home = (m_sandbox / "home").string();
    writeFile(home + "/file", "bytes");
    record(Kind::Move, {movedStep(work("away"), home)});
    expectRefusedNaming(&Undo::undo, home);
    record(Kind::Copy, {{Role::Copied, work("a"), home, ""}});
    expectRefusedNaming(&Undo::undo, home);
}

// ---------------------------------------------------------------------------------------------
// Renamed and moved entries
// ---------------------------------------------------------------------------------------------

TEST_F(Undo, what_was_renamed_goes_back_and_forth) {
    writeFile(work("file"), "bytes");
    writeFile(work("directory/deep/file"), "bytes");
    fs::create_symlink("nowhere", work("link"));
    makeFifo(work("fifo"));
    for (const std::string name : {"file", "directory", "link", "fifo"}) {
        SCOPED_TRACE(name);
        const Snapshot before = workTree();
        renameAndRecord(name, name + " renamed");
        expectRoundTrips(before);
    }
}

TEST_F(Undo, names_of_any_bytes_go_back_and_forth) {
    std::string name = "a";
    for (int byte = 1; byte < 256; ++byte) {
        name += byte == '/' ? '_' : static_cast<char>(byte);
    }
    const std::string half = name.substr(0, 128);
    writeFile(work(half), "bytes");
    const Snapshot before = workTree();
    renameAndRecord(half, name.substr(128));
    expectRoundTrips(before);
}

TEST_F(Undo, several_moved_entries_go_back_and_forth) {
    writeFile(work("a"), "a");
    writeFile(work("b/file"), "b");
    fs::create_symlink("b", work("c"));
    makeDirectory(work("target"));
    const Snapshot before = workTree();
    moveAndRecord({{"a", "target/a"}, {"b", "target/b"}, {"c", "target/c"}});
    expectRoundTrips(before);
}

TEST_F(Undo, entries_moved_to_another_file_system_go_back_and_forth) {
    const Sandbox other(secondFileSystem);
    if (!onDifferentDevices(other.path(), m_work)) {
        GTEST_SKIP() << secondFileSystem << " is no other file system";
    }
    writeFile(work("tree/file"), "bytes");
    writeFile(work("file"), "more");
    const Snapshot before = workTree();
    std::vector<TavroStep> steps;
    for (const char* name : {"tree", "file"}) {
        fs::copy(work(name), other / name, fs::copy_options::recursive);
        fs::remove_all(work(name));
        steps.push_back(movedStep(work(name), (other / name).string()));
    }
    record(Kind::Move, steps);
    expectRoundTrips(before);
    EXPECT_EQ(readFile(other / "tree/file"), "bytes");
}

TEST_F(Undo, an_entry_moved_before_its_directory_goes_back_after_it) {
    writeFile(work("directory/inner"), "inner");
    writeFile(work("directory/other"), "other");
    makeDirectory(work("target"));
    const Snapshot before = workTree();
    moveAndRecord({{"directory/inner", "target/inner"}, {"directory", "target/directory"}});
    expectRoundTrips(before);
}

TEST_F(Undo, directories_that_are_gone_are_created_again_for_the_user_alone) {
    writeFile(work("one/two/a"), "bytes");
    makeDirectory(work("target"));
    moveAndRecord({{"one/two/a", "target/a"}});
    fs::remove_all(work("one"));
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("one/two/a")), "bytes");
    EXPECT_EQ(modeOf(work("one")), 0700U);
    EXPECT_EQ(modeOf(work("one/two")), 0700U);
    fs::remove(work("target"));
    ASSERT_TRUE(redo().bDone);
    EXPECT_EQ(readFile(work("target/a")), "bytes");
}

TEST_F(Undo, nothing_is_renamed_onto_anything) {
    writeFile(work("a"), "bytes");
    const Snapshot before = workTree();
    renameAndRecord("a", "b");
    for (const auto& putObstacle : obstacles()) {
        putObstacle(work("a"));
        expectRefused(&Undo::undo, inTheWay(work("a")));
        fs::remove(work("a"));
    }
    ASSERT_TRUE(undo().bDone);
    for (const auto& putObstacle : obstacles()) {
        putObstacle(work("b"));
        expectRefused(&Undo::redo, inTheWay(work("b")));
        fs::remove(work("b"));
    }
    ASSERT_TRUE(redo().bDone);
    expectRoundTrips(before); // the refusals were no loss: it can be tried again
}

TEST_F(Undo, a_renamed_entry_that_is_gone_is_named) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    fs::rename(work("b"), work("c"));
    expectRefused(&Undo::undo, missing(work("b")));
    fs::rename(work("c"), work("b"));
    ASSERT_TRUE(undo().bDone);
    fs::rename(work("a"), work("c"));
    expectRefused(&Undo::redo, missing(work("a")));
}

TEST_F(Undo, what_bears_the_name_of_a_renamed_entry_by_now_is_not_touched) {
    const std::vector<std::string> names = {"another file", "another directory",
                                            "another symbolic link", "another entry"};
    for (std::size_t i = 0; i < names.size(); ++i) {
        SCOPED_TRACE(names[i]);
        writeFile(work("a"), "bytes");
        renameAndRecord("a", "b");
        ASSERT_TRUE(undo().bDone);
        ASSERT_TRUE(redo().bDone);
        exchangeFor(work("b"), obstacles()[i]);
        expectRefused(&Undo::undo, replaced(work("b"), names[i]));
        fs::remove(work("b"));
    }
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    ASSERT_TRUE(undo().bDone);
    exchangeFor(work("a"), obstacles()[0]);
    expectRefused(&Undo::redo, replaced(work("a")));
}

TEST_F(Undo, an_older_file_that_bears_the_name_of_a_renamed_one_or_of_a_copy_is_not_touched) {
    for (const char* older : {"older", "old"}) {
        writeFile(work(older), "other");
    }
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    fs::rename(work("older"), work("b"));
    expectRefused(&Undo::undo, replaced(work("b")));
    writeFile(work("c"), "bytes");
    copyAndRecord({{"c", "d"}});
    fs::rename(work("old"), work("d"));
    expectRefused(&Undo::undo, replaced(work("d")));
}

/// After a restart another device may have the number, or the same one another number.
TEST_F(Undo, a_file_on_another_device_that_was_there_before_is_not_taken_for_the_renamed_one) {
    writeFile(work("b"), "bytes");
    for (const bool bLater : {false, true}) {
        TavroOperation operation;
        operation.Kind = Kind::Rename;
        operation.Steps = {movedStep(work("a"), work("b"))};
        TavroCompleteOperation(operation);
        operation.Steps[0].Identity.Device += 1;
        struct stat status = {};
        ASSERT_EQ(0, lstat(work("b").c_str(), &status));
        const std::int64_t changed = TavroNanoseconds(status.st_ctim);
        operation.Steps[0].ChangeTime = changed + (bLater ? 1 : 0);
        TavroHistory history;
        open(history);
        ASSERT_EQ(TavroDescribe(recordDone(history, operation)), "");
        if (bLater) {
            expectRefused(&Undo::undo, replaced(work("b")));
        } else {
            const Outcome outcome = undo();
            ASSERT_TRUE(outcome.bDone) << outcome.Message;
            fs::rename(work("a"), work("b"));
        }
    }
}

TEST_F(Undo, a_renamed_file_that_was_changed_since_goes_back_with_its_changes) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    writeFile(work("b"), "more bytes");
    fs::permissions(work("b"), fs::perms(0600));
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("a")), "more bytes");
}

TEST_F(Undo, a_file_or_dangling_link_in_place_of_a_directory_is_named) {
    writeFile(work("one/two/a"), "bytes");
    makeDirectory(work("target"));
    moveAndRecord({{"one/two/a", "target/a"}});
    fs::remove_all(work("one"));
    for (const auto& putObstacle : {obstacles()[0], obstacles()[2], obstacles()[3]}) {
        putObstacle(work("one"));
        expectRefused(&Undo::undo, inTheWay(work("one")));
        fs::remove(work("one"));
    }
}

TEST_F(Undo, one_obstacle_keeps_all_moved_entries_where_they_are) {
    const std::vector<std::string> names = {"a", "b", "c"};
    makeDirectory(work("target"));
    for (const std::string& name : names) {
        writeFile(work(name), name);
    }
    moveAndRecord({{"a", "target/a"}, {"b", "target/b"}, {"c", "target/c"}});
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        writeFile(work(name), "other");
        expectRefused(&Undo::undo, inTheWay(work(name)));
        fs::remove(work(name));
        fs::rename(work("target/" + name), work("elsewhere"));
        expectRefused(&Undo::undo, missing(work("target/" + name)));
        fs::rename(work("elsewhere"), work("target/" + name));
    }
    ASSERT_TRUE(undo().bDone);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        writeFile(work("target/" + name), "other");
        expectRefused(&Undo::redo, inTheWay(work("target/" + name)));
        fs::remove(work("target/" + name));
    }
    EXPECT_TRUE(redo().bDone);
}

TEST_F(Undo, a_place_that_cannot_be_looked_at_is_refused) {
    writeFile(work("closed/a"), "a");
    moveAndRecord({{"closed/a", "a"}});
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(work("closed"), fs::perms::none);
        EXPECT_EQ(undo().Message, "Cannot look at '" + work("closed/a") +
                                      "': " + systemText(std::errc::permission_denied));
        EXPECT_EQ(readFile(work("a")), "a");
    });
}

TEST_F(Undo, directories_that_a_move_created_go_when_they_are_empty_and_come_with_their_modes) {
    writeFile(work("a"), "a");
    makeDirectory(work("new/deep"));
    fs::permissions(work("new"), fs::perms(0751));
    const Snapshot before = [&] {
        Snapshot snapshot = workTree();
        snapshot.erase("new");
        snapshot.erase("new/deep");
        return snapshot;
    }();
    fs::rename(work("a"), work("new/deep/a"));
    record(Kind::Rename, {{Role::CreatedDirectory, "", work("new"), ""},
                          {Role::CreatedDirectory, "", work("new/deep"), ""},
                          movedStep(work("a"), work("new/deep/a"))});
    expectRoundTrips(before);

    writeFile(work("new/mine"), "mine");
    ASSERT_TRUE(undo().bDone);
    EXPECT_FALSE(isPresent(work("new/deep")));
    EXPECT_EQ(readFile(work("new/mine")), "mine");
    ASSERT_TRUE(redo().bDone);
    fs::remove(work("new/mine"));
    ASSERT_TRUE(undo().bDone);
    EXPECT_TRUE(isPresent(work("new"))) << "the operation found it there when it was redone";
}

TEST_F(Undo, a_directory_that_bears_the_name_of_a_created_one_stays) {
    writeFile(work("a"), "a");
    makeDirectory(work("new"));
    fs::rename(work("a"), work("new/a"));
    record(Kind::Rename,
           {{Role::CreatedDirectory, "", work("new"), ""}, movedStep(work("a"), work("new/a"))});
    fs::rename(work("new"), work("other"));
    makeDirectory(work("new"));
    fs::rename(work("other/a"), work("new/a"));
    ASSERT_TRUE(undo().bDone);
    EXPECT_TRUE(isPresent(work("new")));
    EXPECT_TRUE(isPresent(work("other")));
}

/// Moves of two entries out of directories that are gone since. The last is undone first.
class TwoMoves : public Undo {
protected:
    TwoMoves() {
        writeFile(work("from/1/a"), "a");
        writeFile(work("from/2/b"), "b");
        moveAndRecord({{"from/1/a", "a"}, {"from/2/b", "b"}});
        fs::remove_all(work("from"));
    }

    /// Cancels as soon as the first step of the undo is done, having called `before`.
    TavroCallbacks cancelInBetween(const std::function<void()>& before) const {
        TavroCallbacks callbacks;
        callbacks.ShouldCancel = [this, before, bNow = false]() mutable {
            if (!bNow && isPresent(work("from/2/b"))) {
                bNow = true;
                before();
            }
            return bNow;
        };
        return callbacks;
    }
};

TEST_F(TwoMoves, a_cancelled_undo_moves_everything_to_where_it_was) {
    int calls = 0;
    expectRefused(&Undo::undo, "Cancelled", cancelInBetween([&] { ++calls; }));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("from/1/a")), "a");
    EXPECT_EQ(readFile(work("from/2/b")), "b");
}

TEST_F(TwoMoves, a_step_that_fails_takes_the_others_back) {
    runUnprivileged(m_sandbox.path(), [&] {
        makeDirectory(work("from/1"));
        fs::permissions(work("from/1"), fs::perms(0500));
        expectRefusedNaming(&Undo::undo, work("a"));
    });
}

TEST_F(TwoMoves, what_cannot_be_moved_back_is_told) {
    const TavroCallbacks callbacks = cancelInBetween([&] { writeFile(work("b"), "other"); });
    const Outcome outcome = undo(callbacks);
    EXPECT_FALSE(outcome.bDone);
    const std::string beginning = "Cancelled; moving back failed: ";
    EXPECT_EQ(outcome.Message.substr(0, beginning.size()), beginning);
    EXPECT_NE(outcome.Message.find(work("b")), std::string::npos) << outcome.Message;
    EXPECT_EQ(readFile(work("b")), "other");
    EXPECT_EQ(readFile(work("from/2/b")), "b");
    EXPECT_EQ(readFile(work("a")), "a");
    EXPECT_EQ(listed()[0].State, TavroOperationState::Undoing);
    const Outcome again = undo(); // which goes on from there
    EXPECT_TRUE(again.bDone) << again.Message;
    EXPECT_EQ(readFile(work("b")), "other");
    EXPECT_EQ(readFile(work("from/2/b")), "b");
    EXPECT_EQ(readFile(work("from/1/a")), "a");
}

// ---------------------------------------------------------------------------------------------
// Merging moves
// ---------------------------------------------------------------------------------------------

/// A directory that a move has merged into another one, and removed.
class MergingMove : public Undo {
protected:
    MergingMove() {
        writeFile(work("tree/private/a"), "bytes");
        makeDirectory(work("tree/private/empty"));
        makeDirectory(work("target/tree/private/empty"));
        fs::permissions(work("tree/private"), static_cast<fs::perms>(0700));
        fs::permissions(work("tree/private/empty"), static_cast<fs::perms>(0500));
        fs::permissions(work("tree"), static_cast<fs::perms>(02711));
        m_before = workTree();
        const TavroTransferReport report = merge("tree", "target/tree");
        std::vector<TavroStep> steps;
        for (const TavroTransferredEntry& entry : report.Done) {
            steps.push_back(movedStep(entry.From, entry.To));
        }
        for (const TavroRemovedDirectory& removed : report.RemovedDirectories) {
            steps.push_back(
                {Role::RemovedDirectory, removed.Path, "", "", {}, 0, removed.Mode, false});
        }
        EXPECT_EQ(report.RemovedDirectories.size(), 3U);
        record(Kind::Move, steps);
    }

    Snapshot m_before;
};

TEST_F(MergingMove, goes_back_and_forth_with_the_modes_of_its_directories) {
    expectRoundTrips(m_before);
}

TEST_F(MergingMove, is_not_undone_onto_anything) {
    for (const auto& putObstacle : {obstacles()[0], obstacles()[2], obstacles()[3]}) {
        putObstacle(work("tree"));
        expectRefused(&Undo::undo, inTheWay(work("tree")));
        fs::remove(work("tree"));
    }
    makeDirectory(work("tree/private"));
    writeFile(work("tree/private/empty"), "a file");
    expectRefused(&Undo::undo, inTheWay(work("tree/private/empty")));
}

TEST_F(MergingMove, an_undo_that_fails_leaves_no_directory_behind) {
    const FaultInjector injector({{"mkdirat", ENOSPC, work("tree/private/empty"), 1, false, true}});
    expectRefused(&Undo::undo, "Cannot create the directory '" + work("tree/private/empty") +
                                   "': " + systemText(std::errc::no_space_on_device));
    EXPECT_TRUE(injector.eachFired());
}

TEST_F(MergingMove, a_directory_that_is_there_again_keeps_its_mode_and_stays_with_a_redo) {
    makeDirectory(work("tree"));
    fs::permissions(work("tree"), static_cast<fs::perms>(0750));
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(modeOf(work("tree")), 0750U);
    ASSERT_TRUE(redo().bDone);
    EXPECT_TRUE(isPresent(work("tree")));
    EXPECT_FALSE(isPresent(work("tree/private")));
}

TEST_F(MergingMove, a_redo_keeps_a_directory_that_holds_something) {
    ASSERT_TRUE(undo().bDone);
    writeFile(work("tree/new"), "bytes");
    ASSERT_TRUE(redo().bDone);
    EXPECT_EQ(readFile(work("tree/new")), "bytes");
    EXPECT_FALSE(isPresent(work("tree/private")));
}

TEST_F(Undo, directories_that_a_merging_move_removed_have_their_times_again_where_these_are_known) {
    for (const bool bKnown : {true, false}) {
        writeFile(work("tree/a"), "a");
        makeDirectory(work("target/tree"));
        fs::permissions(work("tree"), static_cast<fs::perms>(02710));
        const auto old = fs::file_time_type::clock::now() - std::chrono::hours(10000);
        fs::last_write_time(work("tree"), old);
        const TavroTransferReport report = merge("tree", "target/tree");
        ASSERT_EQ(report.RemovedDirectories.size(), 1U);
        const TavroRemovedDirectory& removed = report.RemovedDirectories[0];
        record(Kind::Move, {movedStep(work("tree/a"), work("target/tree/a")),
                            {Role::RemovedDirectory,
                             removed.Path,
                             "",
                             "",
                             {},
                             0,
                             removed.Mode,
                             false,
                             bKnown ? removed.Attributes : ""}});
        ASSERT_TRUE(undo().bDone);
        EXPECT_EQ(modeOf(work("tree")), 02710U);
        const auto now = fs::last_write_time(work("tree"));
        EXPECT_TRUE(bKnown ? now == old : now > old + std::chrono::hours(9000));
        fs::remove_all(work("tree"));
        fs::remove_all(work("target"));
    }
}

// ---------------------------------------------------------------------------------------------
// Trashed entries
// ---------------------------------------------------------------------------------------------

/// Entries on a volume, which has a trash of its own; `work` names them.
class UndoOnVolume : public Undo {
protected:
    void onVolume(const std::function<void()>& body) {
        makeDirectory(m_sandbox / "source");
        makeDirectory(m_sandbox / "volume");
        const bool bRan = tavro_trash_test::runOnVolume(
            m_sandbox / "source", m_sandbox / "volume", [&](const fs::path& top) {
                const ScopedEnvironment any("TAVRO_TRASH", std::nullopt);
                m_work = top;
                body();
            });
        if (!bRan) {
            GTEST_SKIP() << "nothing can be mounted here";
        }
    }
    std::string item() const {
        return work(".Trash-" + std::to_string(geteuid()) + "/files/a");
    }
};

TEST_F(UndoOnVolume, what_was_trashed_is_trashed_again_where_it_was) {
    onVolume([&] {
        for (const bool bHome : {false, true}) {
            writeFile(work("a"), "bytes");
            TavroTrashOptions options;
            options.bHome = bHome;
            trashAndRecord({"a"}, options);
            for (int round = 0; round < 2; ++round) {
                EXPECT_EQ(isPresent(item()), !bHome);
                EXPECT_EQ(isPresent(trash() / "files/a"), bHome);
                ASSERT_TRUE(undo().bDone);
                EXPECT_EQ(readFile(work("a")), "bytes");
                EXPECT_FALSE(isPresent(item()) || isPresent(trash() / "files/a"));
                ASSERT_TRUE(redo().bDone);
            }
            ASSERT_TRUE(undo().bDone);
        }
    });
}

TEST_F(UndoOnVolume, what_was_copied_there_goes_to_its_trash) {
    onVolume([&] {
        writeFile(work("source"), "bytes");
        copyAndRecord({{"source", "a"}});
        ASSERT_TRUE(undo().bDone);
        EXPECT_EQ(readFile(item()), "bytes");
        ASSERT_TRUE(redo().bDone);
        EXPECT_EQ(readFile(work("a")), "bytes");
        EXPECT_FALSE(isPresent(item()));
    });
}

TEST_F(UndoOnVolume, nothing_is_restored_to_another_volume_through_a_link) {
    onVolume([&] {
        writeFile(work("d/a"), "bytes");
        trashAndRecord({"d/a"});
        fs::remove(work("d"));
        fs::create_directory_symlink(m_sandbox / "home", work("d"));
        const Outcome outcome = undo();
        EXPECT_EQ(outcome.Report.Failure.Kind, TavroFailureKind::LeavesVolume);
        EXPECT_EQ(readFile(item()), "bytes");
        EXPECT_FALSE(isPresent(m_sandbox / "home/a"));
    });
}

TEST_F(Undo, trashed_entries_go_back_and_forth) {
    writeFile(work("a"), "a");
    writeFile(work("b/file"), "b");
    fs::create_symlink("elsewhere", work("link"));
    writeFile(work("elsewhere/file"), "target");
    const Snapshot before = workTree();
    trashAndRecord({"a", "b", "link"});
    expectRoundTrips(before);
    EXPECT_EQ(trashedNames(), (std::set<std::string>{"a", "b", "link"}));
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(trashedNames(), std::set<std::string>{});
    EXPECT_TRUE(fs::is_empty(trash() / "info"));
}

TEST_F(Undo, trashing_again_takes_another_name_and_is_undone_by_that) {
    writeFile(work("a"), "first");
    trashAndRecord({"a"});
    ASSERT_TRUE(undo().bDone);
    writeFile(work("other/a"), "second");
    ASSERT_EQ(TavroDescribe(TavroTrashSelection({TavroNameEntry(work("other/a"))}, {})), "");
    const Outcome redone = redo();
    ASSERT_TRUE(redone.bDone) << redone.Message;
    ASSERT_EQ(redone.Report.Operation.Steps.size(), 1U);
    EXPECT_EQ(redone.Report.Operation.Steps[0].To, (trash() / "files/a copy 1").string());
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("a")), "first");
    EXPECT_EQ(trashedNames(), std::set<std::string>{"a"});
}

TEST_F(Undo, a_taken_original_place_keeps_everything_in_the_trash) {
    writeFile(work("a"), "a");
    writeFile(work("b"), "b");
    trashAndRecord({"a", "b"});
    writeFile(work("b"), "other");
    expectRefused(&Undo::undo, "Cannot restore '" + work("b") + "': something is there");
    fs::remove(work("b"));
    EXPECT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("b")), "b");
}

TEST_F(Undo, an_entry_gone_from_the_trash_is_named) {
    writeFile(work("a"), "a");
    writeFile(work("b"), "b");
    trashAndRecord({"a", "b"});
    const fs::path item = trash() / "files/b";
    fs::remove(item);
    expectRefused(&Undo::undo, "'" + item.string() + "' is no longer in the trash");
}

TEST_F(Undo, an_item_that_another_program_put_there_meanwhile_stays_there) {
    writeFile(work("a/x"), "first");
    writeFile(work("b/x"), "second");
    trashAndRecord({"a/x"});
    exchangeFor((trash() / "files/x").string(), obstacles()[0]);
    expectRefused(&Undo::undo, replaced((trash() / "files/x").string()));
}

TEST_F(Undo, an_item_that_changed_and_whose_record_tells_of_another_place_stays) {
    writeFile(work("a/x"), "first");
    trashAndRecord({"a/x"});
    const fs::path record = trash() / "info/x.trashinfo";
    const std::string text = readFile(record);
    fs::permissions(trash() / "files/x", fs::perms(0600)); // a new change time: an inode used again
    writeFile(record, "[Trash Info]\nPath=/b/x\nDeletionDate=2024-03-05T14:07:09\n");
    expectRefused(&Undo::undo, replaced((trash() / "files/x").string(), "what was at '/b/x'"));
    writeFile(record, text);
    ASSERT_TRUE(undo().bDone);
    ASSERT_TRUE(redo().bDone);
    fs::permissions(trash() / "files/x", fs::perms(0644));
    fs::remove(record);
    EXPECT_TRUE(undo().bDone) << "a record that is lost is no reason to keep the item";
    EXPECT_EQ(readFile(work("a/x")), "first");
}

TEST_F(Undo, trashing_again_is_refused_when_an_entry_is_gone_or_another_one) {
    writeFile(work("a"), "a");
    writeFile(work("b"), "b");
    trashAndRecord({"a", "b"});
    ASSERT_TRUE(undo().bDone);
    exchangeFor(work("b"), obstacles()[1]);
    expectRefused(&Undo::redo, replaced(work("b"), "another directory"));
    fs::remove(work("b"));
    expectRefused(&Undo::redo, missing(work("b")));
}

// ---------------------------------------------------------------------------------------------
// Copies
// ---------------------------------------------------------------------------------------------

TEST_F(Undo, copies_go_to_the_trash_and_come_back) {
    writeFile(work("a"), "a");
    writeFile(work("b/file"), "b");
    fs::create_symlink("../a", work("link"));
    makeDirectory(work("target"));
    const Snapshot before = workTree();
    copyAndRecord({{"a", "target/a"}, {"b", "target/b"}, {"link", "target/link"}});
    expectRoundTrips(before);
    EXPECT_EQ(trashedNames(), std::set<std::string>{});
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(trashedNames(), (std::set<std::string>{"a", "b", "link"}));
}

TEST_F(Undo, what_is_in_the_trash_is_told_while_a_copy_is_undone) {
    writeFile(work("a"), "a");
    copyAndRecord({{"a", "b"}});
    ASSERT_TRUE(undo().bDone);
    const std::vector<TavroStep> steps = listed()[0].Steps;
    ASSERT_EQ(steps.size(), 2U);
    EXPECT_EQ(steps[1].Role, Role::Trashed);
    EXPECT_EQ(steps[1].From, work("b"));
    ASSERT_TRUE(redo().bDone);
    EXPECT_EQ(listed()[0].Steps.size(), 1U);
}

TEST_F(Undo, changed_copies_go_to_the_trash_with_their_changes) {
    writeFile(work("a"), "a");
    copyAndRecord({{"a", "b"}});
    writeFile(work("b"), "a and more");
    ASSERT_TRUE(undo().bDone);
    ASSERT_TRUE(redo().bDone);
    EXPECT_EQ(readFile(work("b")), "a and more");
}

TEST_F(Undo, what_bears_the_name_of_a_copy_by_now_is_not_touched) {
    writeFile(work("a"), "a");
    copyAndRecord({{"a", "b"}, {"a", "c"}});
    exchangeFor(work("c"), obstacles()[0]);
    expectRefused(&Undo::undo, replaced(work("c")));
}

TEST_F(Undo, copies_in_copied_directories_and_copies_told_twice_go_to_the_trash_once) {
    writeFile(work("folder/file"), "file");
    writeFile(work("file"), "other");
    writeFile(work("folder-2"), "another");
    makeDirectory(work("new"));
    const Snapshot before = workTree();
    copyAndRecord({{"folder", "new/folder"},
                   {"file", "new/folder/inner"},
                   {"folder-2", "new/folder-2"},
                   {"file", "new/folder-2"}});
    expectRoundTrips(before);
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(trashedNames(), (std::set<std::string>{"folder", "folder-2"}));
}

TEST_F(Undo, a_copy_that_is_gone_is_named_and_the_others_stay) {
    writeFile(work("a"), "a");
    copyAndRecord({{"a", "b"}, {"a", "c"}});
    fs::remove(work("c"));
    expectRefused(&Undo::undo, missing(work("c")));
}

TEST_F(Undo, copies_do_not_come_back_onto_anything) {
    writeFile(work("a"), "a");
    copyAndRecord({{"a", "b"}, {"a", "c"}});
    ASSERT_TRUE(undo().bDone);
    writeFile(work("c"), "other");
    expectRefusedNaming(&Undo::redo, work("c"));
    fs::remove(work("c"));
    EXPECT_TRUE(redo().bDone);
}

TEST_F(Undo, directories_that_a_copy_created_go_when_they_are_empty_and_come_with_their_modes) {
    writeFile(work("a"), "a");
    const Snapshot before = workTree();
    makeDirectory(work("new"));
    fs::permissions(work("new"), fs::perms(0751));
    fs::copy(work("a"), work("new/a"));
    record(Kind::Copy, {{Role::CreatedDirectory, "", work("new"), ""},
                        {Role::Copied, work("a"), work("new/a"), ""}});
    expectRoundTrips(before);
    ASSERT_TRUE(undo().bDone);
    writeFile(work("new"), "a file");
    expectRefused(&Undo::redo, inTheWay(work("new")));
    fs::remove(work("new"));
    fs::remove(trash() / "files/a");
    expectRefused(&Undo::redo,
                  "'" + (trash() / "files/a").string() + "' is no longer in the trash");
}

// ---------------------------------------------------------------------------------------------
// Created directories
// ---------------------------------------------------------------------------------------------

TEST_F(Undo, created_directories_go_and_come_back) {
    const Snapshot before = workTree();
    createAndRecord({"one", "one/two", "one/two/three", "other"});
    fs::permissions(work("one/two"), fs::perms(0711));
    expectRoundTrips(before);
}

TEST_F(Undo, a_created_directory_that_is_not_empty_stays_with_all_others) {
    createAndRecord({"one", "one/two", "one/two/three", "other"});
    for (const std::string name : {"one", "one/two", "one/two/three", "other"}) {
        SCOPED_TRACE(name);
        for (const auto& putItem : obstacles()) {
            putItem(work(name + "/item"));
            expectRefused(&Undo::undo, "The directory '" + work(name) + "' is not empty");
            fs::remove(work(name + "/item"));
        }
    }
    EXPECT_TRUE(undo().bDone);
}

TEST_F(Undo, a_look_tells_whether_an_operation_can_be_undone_and_whether_anything_is_left) {
    using Failure = TavroFailureKind;
    using Seen = std::pair<Failure, bool>;
    const auto operationOf = [](Kind kind, const std::vector<TavroStep>& steps) {
        TavroOperation operation;
        operation.Kind = kind;
        operation.Steps = steps;
        TavroCompleteOperation(operation);
        return operation;
    };
    const auto look = [](const TavroOperation& operation) {
        bool bNothingLeft = true;
        const Failure why = TavroCheckUndo(operation, bNothingLeft).Kind;
        return Seen(why, bNothingLeft);
    };
    writeFile(work("a"), "a");
    writeFile(work("b"), "b");
    makeDirectory(work("dir"));
    TavroOperation moved = operationOf(
        Kind::Move, {movedStep(work("from/a"), work("a")), movedStep(work("from/b"), work("b"))});
    const TavroOperation copied =
        operationOf(Kind::Copy, {{Role::Copied, work("from/a"), work("a")},
                                 {Role::CreatedDirectory, "", work("dir")}});
    TavroOperation deleted = operationOf(Kind::Delete, {{Role::Deleted, work("gone"), ""}});
    EXPECT_EQ(look(moved), Seen(Failure::None, false));
    EXPECT_EQ(look(copied), Seen(Failure::None, false));
    EXPECT_EQ(look(deleted), Seen(Failure::DeletionIsFinal, false));
    deleted.State = TavroOperationState::Doing;
    EXPECT_EQ(look(deleted), Seen(Failure::DeletionWasInterrupted, false));
    fs::remove(work("a"));
    EXPECT_EQ(look(moved), Seen(Failure::Missing, false)) << "the other one is left";
    EXPECT_EQ(look(copied), Seen(Failure::Missing, true)) << "the directory is not what was copied";
    fs::remove(work("b"));
    EXPECT_EQ(look(moved), Seen(Failure::Missing, true));
    moved.State = TavroOperationState::Doing;
    EXPECT_EQ(look(moved), Seen(Failure::None, false)) << "which is found out when it is settled";
}

TEST_F(Undo, a_created_directory_that_is_gone_or_replaced_is_named) {
    createAndRecord({"one", "two"});
    exchangeFor(work("one"), obstacles()[1]);
    expectRefused(&Undo::undo, replaced(work("one"), "another directory"));
    fs::remove(work("one"));
    expectRefused(&Undo::undo, missing(work("one")));
    writeFile(work("one"), "bytes");
    expectRefused(&Undo::undo, "'" + work("one") + "' is no longer a directory");
    fs::remove(work("one"));
    makeDirectory(work("elsewhere"));
    fs::create_symlink("elsewhere", work("one"));
    expectRefused(&Undo::undo, "'" + work("one") + "' is no longer a directory");
}

TEST_F(Undo, directories_are_not_created_again_onto_anything) {
    createAndRecord({"one", "two"});
    ASSERT_TRUE(undo().bDone);
    for (const std::string name : {"one", "two"}) {
        for (const auto& putObstacle : obstacles()) {
            putObstacle(work(name));
            expectRefused(&Undo::redo, inTheWay(work(name)));
            fs::remove(work(name));
        }
    }
    EXPECT_TRUE(redo().bDone);
}

TEST_F(Undo, directories_that_could_not_all_be_created_again_are_removed) {
    createAndRecord({"one", "one/two", "one/two/three"});
    ASSERT_TRUE(undo().bDone);
    const FaultInjector injector({{"mkdirat", ENOSPC, work("one/two/three"), 1, false, true}});
    expectRefused(&Undo::redo, "Cannot create the directory '" + work("one/two/three") +
                                   "': " + systemText(std::errc::no_space_on_device));
    EXPECT_TRUE(injector.eachFired());
}

TEST_F(Undo, directories_that_could_not_all_be_removed_are_created_again_with_their_modes) {
    makeDirectory(work("closed"));
    createAndRecord({"closed/one", "closed/one/two", "closed/one/two/three"});
    fs::permissions(work("closed/one/two"), fs::perms(0777));
    fs::permissions(work("closed/one/two/three"), fs::perms(0705));
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(work("closed"), fs::perms(0500));
        const Snapshot before = workTree();
        const Outcome refused = undo();
        EXPECT_FALSE(refused.bDone);
        EXPECT_EQ(refused.Message, "Cannot remove the directory '" + work("closed/one") +
                                       "': " + systemText(std::errc::permission_denied));
        EXPECT_EQ(workTree(), before);
        fs::permissions(work("closed"), fs::perms(0700));
        const Outcome again = undo(); // which knows the directories that are there now
        EXPECT_TRUE(again.bDone) << again.Message;
        EXPECT_TRUE(fs::is_empty(work("closed")));
    });
}

TEST_F(Undo, a_created_directory_that_cannot_be_read_stays) {
    createAndRecord({"one"});
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(work("one"), fs::perms::none);
        EXPECT_EQ(undo().Message, "Cannot read the directory '" + work("one") +
                                      "': " + systemText(std::errc::permission_denied));
        EXPECT_TRUE(isPresent(work("one")));
    });
}

// ---------------------------------------------------------------------------------------------
// Nobody leads it astray
// ---------------------------------------------------------------------------------------------

/// At one call of an undo after the other, a directory is exchanged for a link that leads out of
/// the tree. Wherever that is, nothing behind the link may be different afterwards.
void expectNotLedAstray(const std::function<void(Undo&)>& prepare, const std::string& directory) {
    bool bOver = false;
    int exchanges = 0;
    for (int number = 1; !bOver; ++number) {
        class Case : public Undo {
            void TestBody() override {}
        } test;
        prepare(test);
        const fs::path outside = test.m_sandbox / "outside";
        makeDirectory(outside / "private");
        writeFile(outside / "a", "not ours");
        const Snapshot before = takeSnapshot(outside);
        const fs::path path = test.work(directory);
        int calls = 0;
        {
            // What is there when it is opened first is what the path means.
            const CallObserver observer([&](const std::string& call, const std::string& about) {
                const bool bOpens = call == "openat" && about.rfind(path.string(), 0) == 0;
                if ((calls > 0 || bOpens) && call != "close" && ++calls == number + 1) {
                    ++exchanges;
                    std::error_code ec;
                    fs::rename(path, path.string() + ".away", ec);
                    fs::create_symlink(outside, path, ec);
                }
            });
            test.undo();
        }
        bOver = calls <= number;
        ASSERT_EQ(takeSnapshot(outside), before) << "exchanged at call " << number;
    }
    EXPECT_GT(exchanges, 5);
}

TEST(UndoAstray, moves_stay_in_the_directories_that_were_checked) {
    const auto prepare = [](Undo& test) {
        writeFile(test.work("from/a"), "a");
        makeDirectory(test.work("to"));
        test.moveAndRecord({{"from/a", "to/a"}});
    };
    expectNotLedAstray(prepare, "from");
    expectNotLedAstray(prepare, "to");
}

TEST(UndoAstray, directories_are_made_again_where_they_were) {
    const auto prepare = [](Undo& test) {
        writeFile(test.work("target/a"), "a");
        makeDirectory(test.work("top"));
        test.record(Kind::Move,
                    {movedStep(test.work("top/tree/a"), test.work("target/a")),
                     {Role::RemovedDirectory, test.work("top/tree/private"), "", "", {}, 0, 0777},
                     {Role::RemovedDirectory, test.work("top/tree"), "", "", {}, 0, 0777}});
    };
    expectNotLedAstray(prepare, "top");
    expectNotLedAstray(prepare, "top/tree");
}

TEST(UndoAstray, only_created_directories_are_removed) {
    const auto prepare = [](Undo& test) { test.createAndRecord({"top", "top/private"}); };
    expectNotLedAstray(prepare, "top");
}

TEST(UndoAstray, copies_are_trashed_from_where_they_were_put) {
    const auto prepare = [](Undo& test) {
        writeFile(test.work("a"), "a");
        makeDirectory(test.work("to"));
        test.copyAndRecord({{"a", "to/a"}});
    };
    expectNotLedAstray(prepare, "to");
}

} // namespace
