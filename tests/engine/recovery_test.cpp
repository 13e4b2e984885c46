// What becomes of operations that were killed: at every call that they make, and what the next
// process makes of it.

#include "history_support.h"
#include "recovery.h"

#include "edit.h"
#include "journal.h"
#include "names.h"
#include "record.h"
#include "transfer.h"
#include "trash_contents.h"
#include "trash_folders.h"
#include "undo.h"

#include "stride.h"
#include "trash_fixture.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <set>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_trash_test;

namespace {

using Kind = TavroOperationKind;
using Role = TavroStepRole;
using State = TavroOperationState;
using Act = std::function<TavroFailure()>;

const int stride = callStride();

/// Off where each wait would take the time of a disk.
bool g_bSync = true;

TavroCallbacks callbacksOfAll() {
    TavroCallbacks callbacks;
    callbacks.bSync = g_bSync;
    return callbacks;
}

TavroFailure openHistory(TavroHistory& history) {
    return history.Open(TavroHistoryPath(), std::chrono::milliseconds(0));
}

std::vector<TavroOperation> listed() {
    TavroHistory history;
    EXPECT_EQ(TavroDescribe(openHistory(history)), "");
    std::vector<TavroOperation> operations;
    std::vector<std::uint64_t> counts;
    EXPECT_EQ(TavroDescribe(history.List(true, operations, counts)), "");
    return operations;
}

std::vector<State> statesListed() {
    std::vector<State> states;
    for (const TavroOperation& operation : listed()) {
        states.push_back(operation.State);
    }
    return states;
}

/// Keeps an operation as a command does: before it acts, and when it has ended.
TavroFailure keep(const std::function<TavroOperation(const TavroCallbacks&)>& operate) {
    TavroJournal journal(openHistory);
    TavroOperation operation = operate(journal.Bind(callbacksOfAll()));
    EXPECT_FALSE(journal.Problem());
    TavroCompleteOperation(operation);
    return journal.End(std::move(operation));
}

TavroFailure goOn(TavroUndoReport (*go)(TavroHistory&, const TavroCallbacks&)) {
    TavroHistory history;
    TavroFailure failure = openHistory(history);
    return failure ? failure : go(history, callbacksOfAll()).Failure;
}

TavroUndoReport undoNewest(TavroHistory& history, const TavroCallbacks& callbacks) {
    return TavroUndo(history, callbacks);
}

TavroFailure undo() {
    return goOn(undoNewest);
}

TavroFailure redo() {
    return goOn(TavroRedo);
}

TavroFailure resume() {
    TavroHistory history;
    TavroFailure failure = openHistory(history);
    return failure ? failure : TavroResume(history, {callbacksOfAll(), {}, {}}).Failure;
}

/// What the history says of the newest operation, where that was interrupted.
std::optional<TavroHeadway> headwayListed() {
    const std::vector<TavroOperation> operations = listed();
    const auto found = std::find_if(operations.begin(), operations.end(), TavroIsOnItsWay);
    if (found == operations.end()) {
        return std::nullopt;
    }
    TavroHistory history;
    EXPECT_EQ(TavroDescribe(openHistory(history)), "");
    EXPECT_FALSE(history.IsRunning(*found));
    return TavroFindHeadway(*found);
}

/// Runs an act in a process that is killed before its call of this number.
/// @return whether it was.
bool isKilledBefore(int call, const Act& act) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        for (int i = 0; i < 1000; ++i) {
            (void)TavroStagingName(); // the next process would choose the same names
        }
        int calls = 0;
        const CallObserver observer([&](const std::string&, const std::string&) {
            if (++calls == call) {
                kill(getpid(), SIGKILL);
            }
        });
        _exit(act() || testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << "it failed";
    return WIFSIGNALED(status);
}

/// A home with its trash, in memory, and a directory to work in, there or on another file system.
class Recovery : public testing::TestWithParam<bool> {
protected:
    Recovery() : m_box(inMemory()) {
        g_bSync = !GetParam();
        clear();
    }

    fs::path work(const std::string& name = "") const {
        return (GetParam() ? m_elsewhere / "work" : m_box / "work") / name;
    }
    fs::path trashRoot() const {
        return m_box / "home/.local/share/Trash";
    }

    void clear() const {
        for (const fs::path& path : {m_box / "home", m_box / "state", work()}) {
            fs::remove_all(path);
            makeDirectory(path);
        }
        ASSERT_FALSE(TavroEnsurePrivateTrash());
    }

    /// All but the history; of records what they tell, without the date.
    Snapshot tree() const {
        Snapshot all;
        for (const auto& [name, root] :
             {std::pair("home/", m_box / "home"), std::pair("work/", work())}) {
            for (auto [path, text] : takeSnapshot(root)) {
                if (path.find(".trashinfo") != std::string::npos) {
                    text.resize(std::min(text.size(), text.find("\nDeletionDate")));
                }
                all[name + path] = text;
            }
        }
        return all;
    }

    // --- What is done ---

    Act trash(const std::vector<std::string>& names) const {
        return [this, names] {
            return keep([&](const TavroCallbacks& callbacks) {
                std::vector<fs::path> paths;
                for (const std::string& name : names) {
                    paths.push_back(work(name));
                }
                const TavroTrashReport report = TavroTrashSelection(select(paths), callbacks);
                EXPECT_EQ(TavroDescribe(report), "");
                return TavroOperationOf(report);
            });
        };
    }

    /// Restores what was at these names, under the same names in the trash.
    Act restore(const std::vector<std::string>& names) const {
        return [this, names] {
            return keep([&](const TavroCallbacks& callbacks) {
                std::vector<TavroTrashedEntry> entries;
                for (const std::string& name : names) {
                    const std::string item = TavroNameOf(name);
                    entries.push_back(
                        {{work(name).string(), (trashRoot() / "files" / item).string(),
                          (trashRoot() / "info" / (item + ".trashinfo")).string(), false},
                         {}});
                }
                const TavroTrashReport report = TavroRestoreSelection(entries, callbacks);
                EXPECT_EQ(TavroDescribe(report), "");
                return TavroOperation();
            });
        };
    }

    Act rename(const std::string& from, const std::string& to) const {
        return [this, from, to] {
            return keep([&](const TavroCallbacks& callbacks) {
                const TavroEditReport report =
                    TavroRenameTo(TavroNameEntry(work(from).string()), to, callbacks);
                EXPECT_EQ(TavroDescribe(report.Failure), "");
                return TavroOperationOf(report, work(from).string());
            });
        };
    }

    Act makeDirectories(const std::string& name) const {
        return [this, name] {
            return keep([&](const TavroCallbacks& callbacks) {
                const TavroEditReport report = TavroMakeDirectory(name, work().string(), callbacks);
                EXPECT_EQ(TavroDescribe(report.Failure), "");
                return TavroOperationOf(report);
            });
        };
    }

    Act deleteForGood(const std::vector<std::string>& names) const {
        return [this, names] {
            return keep([&](const TavroCallbacks& callbacks) {
                std::vector<fs::path> paths;
                for (const std::string& name : names) {
                    paths.push_back(work(name));
                }
                EXPECT_EQ(TavroDescribe(TavroDeleteForGood(select(paths), callbacks)), "");
                return TavroOperation();
            });
        };
    }

    /// Removes what is in the trash: all of it unseen, or each item that is listed.
    static Act emptyTrash(bool bUnseen) {
        return [bUnseen] {
            return keep([&](const TavroCallbacks& callbacks) {
                std::vector<TavroTrashItem> items;
                EXPECT_FALSE(TavroListTrash({}, items));
                EXPECT_EQ(TavroDescribe(bUnseen ? TavroEmptyTrash(callbacks)
                                                : TavroRemoveFromTrash(items, callbacks)),
                          "");
                return TavroOperation();
            });
        };
    }

    /// Moves or copies an entry of the documents to where another one is, which it replaces.
    Act replace(bool bMove, const std::string& name, const std::string& target) const {
        return [this, bMove, name, target] {
            return keep([&](const TavroCallbacks& callbacks) {
                TavroTransferPlan plan;
                plan.bMove = bMove;
                plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
                TavroTransferItemPlan item;
                item.Name = TavroNameOf(name);
                item.SourcePath = m_box / "home/docs" / name;
                item.DestinationPath = work(target);
                plan.Items.push_back(item);
                TavroTransferReport report;
                const auto overwrite = [](const TavroTransferConflict&) {
                    return TavroConflictAnswer{TavroConflictChoice::Overwrite, false};
                };
                EXPECT_TRUE(TavroCarryOutTransfer(plan, {callbacks, overwrite, {}}, report));
                return TavroOperationOf(report, bMove);
            });
        };
    }

    /// What was moved or copied, as another room does and records it.
    void record(Kind kind, const std::vector<TavroStep>& steps) const {
        TavroOperation operation;
        operation.Kind = kind;
        operation.Steps = steps;
        TavroCompleteOperation(operation);
        TavroHistory history;
        ASSERT_EQ(TavroDescribe(openHistory(history)), "");
        ASSERT_EQ(TavroDescribe(recordDone(history, operation)), "");
    }

    static void expectDone(const std::vector<Act>& acts) {
        for (const Act& act : acts) {
            ASSERT_EQ(TavroDescribe(act()), "");
        }
    }

    // --- Killing it ---

    struct Plan {
        std::function<void()> Prepare;
        Act Do;
        std::uint64_t Count = 1;  ///< How many main steps it has.
        bool bGoesBack = false;   ///< It is an undo: the next undo goes the same way,
        std::string Present = {}; ///< A name to work with that is there at every moment.
        bool bCounted = true;     ///< How far it has come is known.
    };

    /// Kills an act before its first call, its second … until it is not killed, and lets the next
    /// process undo or resume it.
    void killEverywhere(const Plan& plan) {
        clear();
        plan.Prepare();
        const Snapshot before = tree();
        ASSERT_EQ(TavroDescribe(plan.Do()), "");
        const Snapshot after = tree();
        ASSERT_NE(before, after);
        const Snapshot& undone = plan.bGoesBack ? after : before;
        killEverywhere(plan, undo, undone, after);
        killEverywhere(plan, resume, after, after);
    }

    /// As killEverywhere: no undo can bring anything back, and none takes away more.
    void killDeletion(const Plan& plan) {
        clear();
        plan.Prepare();
        ASSERT_EQ(TavroDescribe(plan.Do()), "");
        const Snapshot after = tree();
        const auto next = [this] {
            const Snapshot cut = tree();
            EXPECT_EQ(undo().Kind, TavroFailureKind::DeletionWasInterrupted);
            EXPECT_EQ(tree(), cut);
            return resume();
        };
        killEverywhere(plan, next, after, after);
    }

    /// Between file systems, what was there twice when it was killed may lie in the trash once
    /// more.
    Snapshot treeBut(const Snapshot& goal) const {
        Snapshot all = tree();
        for (auto row = all.begin(); row != all.end();) {
            const bool bTwice = GetParam() && goal.count(row->first) == 0 &&
                                (row->first.find("/Trash/") != std::string::npos ||
                                 row->first.find("/.tavro-") != std::string::npos);
            row = bTwice ? all.erase(row) : std::next(row);
        }
        return all;
    }

    /// A while has passed since the kill.
    void ageRecords() const {
        for (const auto& entry : fs::directory_iterator(trashRoot() / "info")) {
            if (entry.file_size() == 0) {
                fs::last_write_time(entry, entry.last_write_time() - std::chrono::seconds(2));
            }
        }
        OtherProgram(m_box / "state/tavro/history.db")
            .execute("UPDATE operation SET time = time - 10");
    }

private:
    void killEverywhere(const Plan& plan, const Act& next, const Snapshot& goal,
                        const Snapshot& done) {
        std::set<std::uint64_t> headways;
        int killsAgain = 0; // of the process that goes on with it
        bool bEverInterrupted = false;
        for (int call = 1;; call += stride) {
            clear();
            plan.Prepare();
            const Snapshot before = tree();
            const std::vector<State> states = statesListed();
            if (!isKilledBefore(call, plan.Do)) {
                EXPECT_GT(call, 5);
                break;
            }
            SCOPED_TRACE("killed before call " + std::to_string(call));
            const Snapshot cut = tree();
            EXPECT_TRUE(plan.Present.empty() || isPresent(work(plan.Present)));
            const std::optional<TavroHeadway> headway = headwayListed();
            EXPECT_EQ(tree(), cut) << "who lists changes nothing";
            if (headway) {
                EXPECT_EQ(headway->Count, plan.Count);
                headways.insert(headway->Done);
                bEverInterrupted = true;
                ageRecords();
                const int again = 1 + call * 7 % 37;
                SCOPED_TRACE("and of every fourth the next process before call " +
                             std::to_string(again));
                if (call % 4 == 1 && isKilledBefore(again, next)) {
                    ++killsAgain;
                    ageRecords();
                }
                if (headwayListed()) { // or all of it was done
                    EXPECT_EQ(TavroDescribe(next()), "");
                }
                EXPECT_EQ(treeBut(goal), goal);
                EXPECT_FALSE(headwayListed());
            } else if (cut != done || (stride == 1 && !bEverInterrupted)) { // else done between two
                EXPECT_EQ(cut, before) << "the history tells nothing of this";
                EXPECT_EQ(statesListed(), states);
            }
            expectTidy();
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_TRUE(stride > 1 || killsAgain > 0);
        for (std::uint64_t count = 0; stride == 1 && plan.bCounted && count <= plan.Count;
             ++count) {
            EXPECT_EQ(headways.count(count), 1U) << count << " done was never seen";
        }
    }

    /// No hidden name, and no record without its item or the reverse.
    void expectTidy() const {
        std::set<std::string> items;
        std::set<std::string> records;
        for (const auto& [path, text] : tree()) {
            const std::string name = TavroNameOf(path);
            if (GetParam() && TavroIsStagingName(name)) {
                continue; // a tree that was not whole yet
            }
            EXPECT_FALSE(TavroIsStagingName(name)) << path;
            const fs::path parent = m_box / TavroParentOf(path);
            if (parent == trashRoot() / "files") {
                items.insert(name + ".trashinfo");
            } else if (parent == trashRoot() / "info") {
                records.insert(name);
            }
        }
        EXPECT_EQ(items, records);
    }

protected:
    Sandbox m_box;
    Sandbox m_elsewhere;

private:
    ScopedEnvironment m_home{"HOME", (m_box / "home").string()};
    ScopedEnvironment m_state{"XDG_STATE_HOME", (m_box / "state").string()};
    ScopedEnvironment m_data{"XDG_DATA_HOME", std::nullopt};
};

/// Which of several entries gets which free name can be another one after a kill between file
/// systems.
class RecoveryOfNames : public Recovery {};

INSTANTIATE_TEST_SUITE_P(Within, Recovery, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Within, RecoveryOfNames, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Across, Recovery, testing::Values(true));

TEST_P(Recovery, of_a_trash_of_one_entry) {
    killEverywhere({[this] { writeFile(work("a"), "bytes"); }, trash({"a"})});
}

TEST_P(Recovery, of_a_trash_of_several_entries) {
    const auto prepare = [this] {
        writeFile(work("a"), "1");
        writeFile(work("d/e/f"), "2");
        writeFile(work("d/b"), "3");
        fs::create_symlink("nowhere", work("l"));
    };
    killEverywhere({prepare, trash({"a", "d", "l"}), 3});
}

TEST_P(RecoveryOfNames, of_a_trash_whose_names_are_taken) {
    const auto prepare = [this] {
        writeFile(work("a"), "older");
        expectDone({trash({"a"})});
        writeFile(work("a"), "newer");
        writeFile(work("d/a"), "inner");
    };
    killEverywhere({prepare, trash({"a", "d/a"}), 2});
}

// Whose the record of such an item is cannot be told afterwards: that one may stay.
TEST_P(Recovery, of_a_trash_whose_name_is_taken_by_an_item_without_a_record) {
    writeFile(work("a"), "bytes");
    writeFile(trashRoot() / "files/a", "other");
    const Snapshot before = tree();
    bool bKilled = true;
    int interrupted = 0;
    for (int call = 1; bKilled; call += stride) {
        SCOPED_TRACE(call);
        bKilled = isKilledBefore(call, trash({"a"}));
        interrupted += headwayListed() ? 1 : 0;
        if (!bKilled || !statesListed().empty()) {
            ageRecords();
            expectDone({undo});
        }
        fs::remove(trashRoot() / "info/a.trashinfo");
        ASSERT_EQ(treeBut(before), before);
        fs::remove_all(m_box / "state");
    }
    EXPECT_GT(interrupted, 3);
}

TEST_P(Recovery, of_a_restore_of_one_entry) {
    const auto prepare = [this] {
        writeFile(work("a"), "bytes");
        expectDone({trash({"a"})});
    };
    killEverywhere({prepare, restore({"a"})});
}

TEST_P(Recovery, of_a_restore_of_several_entries_whose_directory_is_gone) {
    const auto prepare = [this] {
        writeFile(work("d/a"), "1");
        // The unfinished copy of a directory would stay in the way.
        writeFile(work(GetParam() ? "d/b" : "d/b/c"), "2");
        expectDone({trash({"d/a", "d/b"})});
        fs::remove(work("d"));
    };
    killEverywhere({prepare, restore({"d/a", "d/b"}), 2});
}

TEST_P(Recovery, of_a_rename_with_new_directories) {
    const auto prepare = [this] { writeFile(work("a"), "bytes"); };
    killEverywhere({prepare, rename("a", "b")});
    killEverywhere({prepare, rename("a", "new/newer/b")});
}

TEST_P(Recovery, of_new_directories) {
    killEverywhere({[] {}, makeDirectories("a")});
    killEverywhere({[] {}, makeDirectories("a/b/c"), 3});
}

TEST_P(Recovery, of_a_deletion) {
    const auto prepare = [&] {
        writeFile(work("tree/deep/a"), "a");
        writeFile(work("tree/b"), "b");
        writeFile(work("file"), "c");
        writeFile(work("kept"), "d");
        expectDone({makeDirectories("undone"), undo});
    };
    killDeletion({prepare, deleteForGood({"tree", "file"}), 2});
    EXPECT_EQ(readFile(work("kept")), "d");
    EXPECT_EQ(TavroDescribe(redo()), "") << "what was undone before";
}

TEST_P(Recovery, of_emptying_the_trash) {
    const auto prepare = [&] {
        for (const char* name : {"tree/deep/a", "tree/b", "file"}) {
            writeFile(work(name), name);
        }
        expectDone({trash({"tree"}), trash({"file"})});
        for (const auto& entry : fs::directory_iterator(trashRoot() / "info")) {
            fs::last_write_time(entry, entry.last_write_time() - std::chrono::seconds(2));
        }
    };
    killDeletion({prepare, emptyTrash(false), 2});
    killDeletion({prepare, emptyTrash(true), 1, false, {}, false});
}

TEST_P(Recovery, of_an_undo_and_a_redo_of_a_trash) {
    const auto prepare = [this] {
        writeFile(work("a"), "1");
        writeFile(work("d/b"), "2");
        expectDone({trash({"a", "d"})});
    };
    killEverywhere({prepare, undo, 2, true});
    const auto prepareRedo = [=] {
        prepare();
        expectDone({undo});
    };
    killEverywhere({prepareRedo, redo, 2});
}

TEST_P(Recovery, of_an_undo_and_a_redo_of_a_rename) {
    const auto prepare = [this] {
        writeFile(work("a"), "bytes");
        expectDone({rename("a", "new/newer/b")});
    };
    killEverywhere({prepare, undo, 1, true});
    const auto prepareRedo = [=] {
        prepare();
        expectDone({undo});
    };
    killEverywhere({prepareRedo, redo});
}

TEST_P(Recovery, of_an_undo_and_a_redo_of_new_directories) {
    const auto prepare = [this] { expectDone({makeDirectories("a/b")}); };
    killEverywhere({prepare, undo, 2, true});
    const auto prepareRedo = [=] {
        prepare();
        expectDone({undo});
    };
    killEverywhere({prepareRedo, redo, 2});
}

TEST_P(Recovery, of_an_undo_and_a_redo_of_a_move) {
    const auto prepare = [this] {
        writeFile(m_box / "home/docs/a", "1");
        writeFile(m_box / "home/docs/d/b", "2");
        for (const std::string name : {"a", "d"}) {
            fs::copy(m_box / "home/docs" / name, work(name), fs::copy_options::recursive);
            fs::remove_all(m_box / "home/docs" / name);
        }
        const auto moved = [this](const std::string& name) {
            return TavroStep{Role::Moved, (m_box / "home/docs" / name).string(),
                             work(name).string()};
        };
        record(Kind::Move, {moved("a"), moved("d")});
    };
    killEverywhere({prepare, undo, 2, true});
    const auto prepareRedo = [=] {
        prepare();
        expectDone({undo});
    };
    killEverywhere({prepareRedo, redo, 2});
}

TEST_P(Recovery, of_an_undo_and_a_redo_of_a_copy) {
    const auto prepare = [this] {
        std::vector<TavroStep> steps;
        for (const std::string name : {"a", "b"}) {
            writeFile(m_box / "home/docs" / name, name);
            writeFile(work(name), name);
            steps.push_back(
                {Role::Copied, (m_box / "home/docs" / name).string(), work(name).string()});
        }
        record(Kind::Copy, steps);
    };
    killEverywhere({prepare, undo, 2, true});
    const auto prepareRedo = [=] {
        prepare();
        expectDone({undo});
    };
    killEverywhere({prepareRedo, redo, 2});
}

/// What replaces and what is replaced.
struct Pair {
    const char* Name;
    bool bMove;
    std::vector<std::pair<std::string, std::string>> Comes; ///< Names and bytes.
    std::vector<std::pair<std::string, std::string>> Goes;
};

class RecoveryOfReplacing : public Recovery {
protected:
    void makeFiles(const Pair& pair) const {
        for (const auto& [name, bytes] : pair.Comes) {
            writeFile(m_box / "home/docs" / name, bytes);
        }
        for (const auto& [name, bytes] : pair.Goes) {
            writeFile(work(name), bytes);
        }
    }

    void killUndoAndRedo(const Pair& pair) {
        SCOPED_TRACE(pair.Name);
        const auto prepare = [=] {
            makeFiles(pair);
            expectDone({replace(pair.bMove, "a", "a")});
        };
        killEverywhere({prepare, undo, 1, true, "a"});
        const auto prepareRedo = [=] {
            prepare();
            expectDone({undo});
        };
        killEverywhere({prepareRedo, redo, 1, false, "a"});
    }
};

INSTANTIATE_TEST_SUITE_P(Within, RecoveryOfReplacing, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Across, RecoveryOfReplacing, testing::Values(true));

const Pair filesCopied{"files", false, {{"a", "new"}}, {{"a", "old"}}};
const Pair filesMoved{"files", true, {{"a", "new"}}, {{"a", "old"}}};

TEST_P(RecoveryOfReplacing, of_an_undo_of_a_merging_move_with_the_modes_of_its_directories) {
    const auto prepare = [this] {
        writeFile(m_box / "home/docs/d/e/a", "bytes");
        for (const char* name : {"home/docs/d", "home/docs/d/e"}) {
            fs::permissions(m_box / name, fs::perms(0750));
        }
        writeFile(work("d/e/b"), "other");
        expectDone({replace(true, "d", "d")});
    };
    killEverywhere({prepare, undo, 1, true, "d/e/b"});
}

/// Whatever call fails, an undo and a redo have done all, or nothing, or can be resumed.
TEST_P(RecoveryOfReplacing, after_any_failure_in_an_undo_and_a_redo) {
    for (int way = 0; way < 4; ++way) {
        const Pair& pair = way % 2 == 0 ? filesCopied : filesMoved;
        const bool bUndo = way < 2;
        bool bFailed = true;
        int failures = 0;
        for (std::size_t call = 0; bFailed; call += static_cast<std::size_t>(stride)) {
            SCOPED_TRACE(std::string(bUndo ? "undo" : "redo") + (pair.bMove ? " move" : " copy") +
                         ", call " + std::to_string(call));
            clear();
            makeFiles(pair);
            expectDone({replace(pair.bMove, "a", "a")});
            if (!bUndo) {
                expectDone({undo});
            }
            const Snapshot before = tree();
            TavroFailure failure;
            {
                const NumberedFaults faults({{call, EIO}});
                failure = bUndo ? undo() : redo();
                bFailed = call < faults.calls().size();
            }
            EXPECT_TRUE(isPresent(work("a")));
            if (headwayListed()) {
                ageRecords();
                expectDone({resume});
                EXPECT_EQ(readFile(work("a")), bUndo ? "old" : "new");
            } else if (failure) {
                EXPECT_EQ(treeBut(before), before);
                ++failures;
            }
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_GT(failures, 5 / stride);
    }
}

TEST_P(RecoveryOfReplacing, finishes_a_move_and_a_copy) {
    for (const Pair& pair : {filesCopied, filesMoved}) {
        int interrupted = 0;
        bool bKilled = true;
        for (int call = 1; bKilled; call += stride) {
            SCOPED_TRACE((pair.bMove ? "move, call " : "copy, call ") + std::to_string(call));
            clear();
            makeFiles(pair);
            bKilled = isKilledBefore(call, replace(pair.bMove, "a", "a"));
            EXPECT_TRUE(isPresent(work("a")));
            if (headwayListed()) {
                ++interrupted;
                ageRecords();
                expectDone({resume});
                EXPECT_EQ(readFile(work("a")), "new");
                EXPECT_EQ(isPresent(m_box / "home/docs/a"), !pair.bMove);
                EXPECT_FALSE(headwayListed());
            }
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_GT(interrupted, 5 / stride);
    }
}

/// Killed as it goes on, and as that is taken back. Then it is taken back, or gone on with, either
/// way.
TEST_P(RecoveryOfReplacing, of_what_is_killed_twice) {
    const auto shown = [this] { // without the trash, where a copy that was there is
        Snapshot all = tree();
        for (auto row = all.begin(); row != all.end();) {
            const bool bTrash = row->first.find("/Trash/") != std::string::npos;
            row = bTrash ? all.erase(row) : std::next(row);
        }
        return all;
    };
    for (const Pair& pair : {filesCopied, filesMoved}) {
        clear();
        makeFiles(pair);
        const Snapshot before = shown();
        expectDone({replace(pair.bMove, "a", "a")});
        const Snapshot after = shown();
        int twice = 0;
        bool bFirst = true;
        for (int first = 1; bFirst; first += 6 * stride) {
            bool bSecond = true;
            for (int second = 1; bFirst && bSecond; second += 7 * stride) {
                SCOPED_TRACE((pair.bMove ? "move, calls " : "copy, calls ") +
                             std::to_string(first) + " and " + std::to_string(second));
                clear();
                makeFiles(pair);
                bFirst = isKilledBefore(first, replace(pair.bMove, "a", "a"));
                if (!headwayListed()) {
                    break;
                }
                ageRecords();
                bSecond = isKilledBefore(second, undo);
                EXPECT_TRUE(isPresent(work("a")));
                const bool bOn = ++twice % 2 == 0;
                if (headwayListed()) {
                    ageRecords();
                    expectDone({bOn ? resume : undo});
                }
                const Snapshot now = shown();
                EXPECT_TRUE(now == before || (bOn && now == after)) << testing::PrintToString(now);
                EXPECT_FALSE(headwayListed());
                ASSERT_FALSE(HasFailure());
            }
        }
        EXPECT_GT(twice, 20 / stride);
    }
}

TEST_P(RecoveryOfReplacing, of_an_undo_and_a_redo_of_a_move) {
    killUndoAndRedo(filesMoved);
    killUndoAndRedo(
        {"a file for a directory", true, {{"a", "new"}}, {{"a/b", "1"}, {"a/c/d", "2"}}});
}

TEST_P(RecoveryOfReplacing, of_an_undo_and_a_redo_of_a_copy) {
    killUndoAndRedo(filesCopied);
    if (!GetParam()) { // else which of two items in the trash has which name can be another one
        killUndoAndRedo(
            {"a directory for a file", false, {{"a/b", "1"}, {"a/c/d", "2"}}, {{"a", "old"}}});
    }
}

TEST_P(Recovery, of_a_restore_whose_item_others_took_out_leaves_no_item_without_a_record) {
    const fs::path item = trashRoot() / "files/a";
    int taken = 0;
    bool bKilled = true;
    for (int call = 1; bKilled; call += stride) {
        for (const Act& next : {Act(undo), Act(resume)}) {
            SCOPED_TRACE("call " + std::to_string(call));
            clear();
            writeFile(work("a/b"), "bytes"); // a directory waits under a hidden name
            expectDone({trash({"a"})});
            bKilled = isKilledBefore(call, restore({"a"}));
            if (!bKilled || !isPresent(item / "b") || listed().size() != 2) {
                continue;
            }
            ++taken;
            fs::rename(item, m_box / "home/kept");
            fs::remove(trashRoot() / "info/a.trashinfo");
            (void)next(); // it may have nothing left to do
            EXPECT_EQ(readFile(m_box / "home/kept/b"), "bytes");
            for (const auto& entry : fs::directory_iterator(trashRoot() / "files")) {
                const std::string name = entry.path().filename().string();
                EXPECT_TRUE(isPresent(trashRoot() / "info" / (name + ".trashinfo"))) << name;
            }
            ASSERT_FALSE(HasFailure());
        }
    }
    EXPECT_GT(taken, 0);
}

TEST_P(Recovery, an_undo_or_a_redo_that_was_taken_back_can_be_done_again) {
    const auto moveOrCopy = [&](Kind kind) {
        std::vector<TavroStep> steps;
        for (const char* name : {"a", "b"}) {
            const fs::path from = m_box / "home/docs" / name;
            writeFile(work(name), name);
            if (kind == Kind::Copy) {
                writeFile(from, name);
            }
            steps.push_back(
                {kind == Kind::Move ? Role::Moved : Role::Copied, from.string(), work(name)});
        }
        record(kind, steps);
    };
    const auto trashBoth = [&] {
        writeFile(work("a"), "a");
        writeFile(work("b"), "b");
        expectDone({trash({"a", "b"})});
    };
    for (const Kind kind : {Kind::Copy, Kind::Move, Kind::Trash}) {
        bool bCancelled = true;
        int cancelled = 0;
        for (int time = 1; bCancelled; ++time) {
            SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + ", asked " +
                         std::to_string(time));
            clear();
            kind == Kind::Trash ? trashBoth() : moveOrCopy(kind);
            bCancelled = false;
            for (const auto& [go, again] :
                 {std::pair(&undoNewest, &undo), std::pair(&TavroRedo, &redo)}) {
                const Snapshot before = tree();
                TavroHistory history;
                ASSERT_FALSE(openHistory(history));
                const TavroCallbacks callbacks = whenAsked(time, [] { return true; });
                if (go(history, callbacks).Failure.Kind != TavroFailureKind::Cancelled) {
                    continue;
                }
                bCancelled = true;
                ++cancelled;
                EXPECT_EQ(tree(), before);
                ASSERT_EQ(TavroDescribe(again()), "");
            }
        }
        EXPECT_GT(cancelled, 2);
    }
}

// ---------------------------------------------------------------------------------------------
// What settling must leave alone
// ---------------------------------------------------------------------------------------------

class Settling : public Recovery {
protected:
    /// Keeps a trashing of this file under this name as one that was interrupted before it moved
    /// anything, ten seconds ago.
    void interruptTrashOf(const std::string& name, const std::string& item) const {
        TavroHistory history;
        ASSERT_FALSE(openHistory(history));
        TavroOperation operation;
        operation.State = State::Doing;
        operation.Time = std::time(nullptr) - 10;
        operation.Steps = {
            {Role::Trashed, work(name).string(), (trashRoot() / "files" / item).string(),
             (trashRoot() / "info" / (item + ".trashinfo")).string(), identityOf(work(name))}};
        ASSERT_FALSE(history.BeginOperation(operation));
    }
};

INSTANTIATE_TEST_SUITE_P(Within, Settling, testing::Values(false));

/// Says that something goes, as a process that is killed before it acts.
void interruptDeletion(Kind kind, const std::function<TavroFailure(const TavroCallbacks&)>& act) {
    const Act begun = [&] {
        TavroJournal journal(openHistory);
        TavroCallbacks callbacks = journal.Bind(callbacksOfAll());
        callbacks.BeforeActs = [tell = callbacks.BeforeActs, kind](TavroOperationKind told,
                                                                   const auto& steps) {
            EXPECT_EQ(told, kind);
            EXPECT_EQ(TavroDescribe(tell(told, steps)), "");
            kill(getpid(), SIGKILL);
            return TavroFailure();
        };
        return act(callbacks);
    };
    ASSERT_TRUE(isKilledBefore(INT_MAX, begun));
}

TEST_P(Settling, of_a_deletion_leaves_what_has_the_name_by_now) {
    writeFile(work("a"), "a");
    writeFile(work("b/inside"), "b");
    interruptDeletion(Kind::Delete, [&](const TavroCallbacks& callbacks) {
        return TavroDeleteForGood(select({work("a"), work("b")}), callbacks);
    });
    fs::rename(work("a"), work("away"));
    writeFile(work("a"), "another");
    ASSERT_EQ(TavroDescribe(resume()), "");
    EXPECT_EQ(readFile(work("a")), "another");
    EXPECT_EQ(readFile(work("away")), "a");
    EXPECT_FALSE(isPresent(work("b")));
}

/// A file system may give the inode of what is gone to the next file.
TEST_P(Settling, of_a_deletion_leaves_a_later_file_of_the_same_inode) {
    writeFile(work("a"), "a");
    interruptDeletion(Kind::Delete, [&](const TavroCallbacks& callbacks) {
        return TavroDeleteForGood(select({work("a")}), callbacks);
    });
    OtherProgram(m_box / "state/tavro/history.db")
        .execute("UPDATE step SET source_changed = source_changed - 1");
    ASSERT_EQ(TavroDescribe(resume()), "");
    EXPECT_EQ(readFile(work("a")), "a");
}

TEST_P(Settling, of_emptying_leaves_what_was_trashed_since) {
    for (const bool bUnseen : {false, true}) {
        clear();
        writeFile(work("a"), "a");
        writeFile(work("b"), "b");
        writeFile(work("c"), "c");
        expectDone({trash({"a"}), trash({"b"})});
        for (const auto& entry : fs::directory_iterator(trashRoot() / "info")) {
            fs::last_write_time(entry, entry.last_write_time() - std::chrono::seconds(2));
        }
        std::vector<TavroTrashItem> items;
        ASSERT_FALSE(TavroListTrash({}, items));
        interruptDeletion(Kind::Empty, [&](const TavroCallbacks& callbacks) {
            return bUnseen ? TavroEmptyTrash(callbacks) : TavroRemoveFromTrash(items, callbacks);
        });
        fs::rename(trashRoot() / "files/a", work("a"));
        fs::remove(trashRoot() / "info/a.trashinfo");
        writeFile(trashRoot() / "files/a", "another");
        writeFile(trashRoot() / "info/a.trashinfo", "[Trash Info]\nPath=/elsewhere\n");
        writeFile(trashRoot() / "files/c", "c");
        writeFile(trashRoot() / "info/c.trashinfo", "[Trash Info]\nPath=/c\n");
        ASSERT_EQ(TavroDescribe(resume()), "");
        EXPECT_EQ(readFile(trashRoot() / "files/a"), "another") << bUnseen;
        EXPECT_TRUE(isPresent(trashRoot() / "info/a.trashinfo")) << bUnseen;
        EXPECT_TRUE(isPresent(trashRoot() / "files/c")) << bUnseen;
        EXPECT_FALSE(isPresent(trashRoot() / "files/b")) << bUnseen;
        EXPECT_FALSE(isPresent(trashRoot() / "info/b.trashinfo")) << bUnseen;
    }
}

TEST_P(Settling, leaves_the_records_of_others) {
    writeFile(work("a"), "bytes");
    interruptTrashOf("a", "a");
    const fs::path info = trashRoot() / "info";
    writeFile(info / "a.trashinfo", "[Trash Info]\nPath=/elsewhere\n");
    writeFile(info / "just now.trashinfo");
    writeFile(info / "long ago.trashinfo");
    fs::last_write_time(info / "long ago.trashinfo",
                        fs::file_time_type::clock::now() - std::chrono::hours(1));
    writeFile(info / "own.trashinfo", "[Trash Info]\nPath=" + work("a").string() + "\n");
    writeFile(info / "other.trashinfo", "[Trash Info]\nPath=" + work("a").string() + "\n");
    writeFile(trashRoot() / "files/other", "trashed before");
    ASSERT_EQ(TavroDescribe(undo()), "");
    EXPECT_TRUE(isPresent(info / "a.trashinfo")) << "of another entry";
    EXPECT_TRUE(isPresent(info / "just now.trashinfo")) << "somebody may be writing it";
    EXPECT_TRUE(isPresent(info / "long ago.trashinfo")) << "from before the operation";
    EXPECT_TRUE(isPresent(info / "other.trashinfo")) << "of an item that is there";
    EXPECT_FALSE(isPresent(info / "own.trashinfo"));
    EXPECT_EQ(readFile(work("a")), "bytes");
}

TEST_P(Settling, leaves_the_records_of_what_another_process_is_about_to_trash) {
    writeFile(work("a"), "bytes");
    const fs::path info = trashRoot() / "info";
    TavroJournal other(openHistory);
    const TavroStep told = {Role::Trashed, work("a").string(), (trashRoot() / "files/a").string(),
                            (info / "a.trashinfo").string(), identityOf(work("a"))};
    ASSERT_FALSE(other.Bind({}).BeforeActs(Kind::Trash, {told}));
    for (const char* name :
         {"a.trashinfo", "a copy 1.trashinfo"}) { // it tells of the next name later
        writeFile(info / name, "[Trash Info]\nPath=" + work("a").string() + "\n");
    }
    interruptTrashOf("a", "a");
    ASSERT_EQ(TavroDescribe(undo()), "");
    EXPECT_TRUE(isPresent(info / "a.trashinfo"));
    EXPECT_TRUE(isPresent(info / "a copy 1.trashinfo"));
    interruptTrashOf("a", "a");
    BeforeCall trashing("openat", "a.trashinfo", [&] {
        fs::rename(work("a"), told.To);
        EXPECT_FALSE(other.End({0, Kind::Trash, State::Done, std::time(nullptr), {told}}));
    });
    EXPECT_EQ(undo().Kind, TavroFailureKind::None);
    EXPECT_TRUE(trashing.bActed());
    EXPECT_TRUE(isPresent(info / "a.trashinfo"));
    EXPECT_FALSE(isPresent(info / "a copy 1.trashinfo")) << "nobody needs it any more";
}

TEST_P(Settling, brings_back_what_had_stepped_aside_where_names_cannot_be_exchanged) {
    const std::string hidden = TavroStagingName();
    const fs::path aside = work(TavroAsideName(hidden));
    for (const bool bPublished : {false, true}) {
        SCOPED_TRACE(bPublished);
        fs::remove_all(work(".").parent_path());
        writeFile(m_box / "home/f", "new");
        writeFile(work(bPublished ? "f" : hidden), "new");
        writeFile(aside, "old");
        TavroOperation operation;
        operation.Kind = Kind::Copy;
        operation.State = State::Doing;
        TavroStep copied = {Role::Copied, (m_box / "home/f").string(), work("f").string()};
        copied.Identity = identityOf(work(bPublished ? "f" : hidden));
        copied.Source = identityOf(m_box / "home/f");
        TavroStep replaced = {Role::Replaced, work("f").string(),
                              (trashRoot() / "files/f").string(),
                              (trashRoot() / "info/f.trashinfo").string(), identityOf(aside)};
        copied.Staged = replaced.Staged = hidden;
        operation.Steps = {copied, replaced};
        {
            TavroHistory history;
            ASSERT_FALSE(openHistory(history));
            ASSERT_FALSE(history.BeginOperation(operation));
        }
        ASSERT_EQ(TavroDescribe(undo()), "");
        EXPECT_EQ(readFile(work("f")), "old");
        EXPECT_FALSE(isPresent(aside));
        EXPECT_FALSE(isPresent(work(hidden)));
    }
}

TEST_P(Settling, removes_hidden_names_of_its_own_alone) {
    writeFile(work("a"), "bytes");
    interruptTrashOf("a", "a");
    const fs::path own = work(TavroStagingName());
    const fs::path aside = work(TavroAsideName(TavroStagingName()));
    std::string other = TavroStagingName();
    other[8] = other[8] == 'x' ? 'y' : 'x'; // as of another process
    for (const fs::path& path : {own, aside, work(other)}) {
        writeFile(path, "waits");
    }
    ASSERT_EQ(TavroDescribe(undo()), "");
    EXPECT_FALSE(isPresent(own));
    EXPECT_TRUE(isPresent(aside)) << "it may be all that there is of a file";
    EXPECT_TRUE(isPresent(work(other)));
}

/// A copy of a file or a directory that waits for its name since it was interrupted.
class SettlingCopies : public Settling {
protected:
    /// @return the file that waits.
    TavroIdentity interruptCopy(const fs::path& from, const std::string& to) const {
        const std::string hidden = TavroStagingName();
        fs::copy(from, work(hidden), fs::copy_options::recursive);
        TavroOperation operation;
        operation.Kind = Kind::Copy;
        operation.State = State::Doing;
        TavroStep copied = {Role::Copied, from.string(), work(to).string()};
        copied.Identity = identityOf(work(hidden));
        copied.Source = identityOf(from);
        copied.SourceTime = TavroNanoseconds(statusOf(from).st_ctim);
        copied.Staged = hidden;
        operation.Steps = {copied};
        TavroHistory history;
        EXPECT_FALSE(openHistory(history));
        EXPECT_FALSE(history.BeginOperation(operation));
        return copied.Identity;
    }
};

INSTANTIATE_TEST_SUITE_P(Within, SettlingCopies, testing::Values(false));

TEST_P(SettlingCopies, gives_a_whole_file_its_name_unless_its_source_has_changed) {
    for (const bool bChanged : {false, true}) {
        const std::string name = bChanged ? "b" : "a";
        const fs::path source = m_box / "home" / name;
        writeFile(source, "bytes");
        const TavroIdentity waits = interruptCopy(source, name);
        if (bChanged) {
            writeFile(source, "other");
        }
        ASSERT_EQ(TavroDescribe(resume()), "");
        EXPECT_EQ(readFile(work(name)), bChanged ? "other" : "bytes");
        EXPECT_EQ(identityOf(work(name)) == waits, !bChanged);
        EXPECT_EQ(std::distance(fs::directory_iterator(work()), {}), bChanged ? 2 : 1);
    }
}

TEST_P(SettlingCopies, replaces_nothing_that_has_the_name_by_now) {
    writeFile(m_box / "home/a", "bytes");
    interruptCopy(m_box / "home/a", "a");
    writeFile(work("a"), "another");
    (void)resume();
    EXPECT_TRUE(headwayListed()) << "nobody was asked";
    EXPECT_EQ(readFile(work("a")), "another");
    EXPECT_EQ(readFile(m_box / "home/a"), "bytes");
}

TEST_P(SettlingCopies, takes_over_files_of_a_directory_unless_the_system_was_started_anew) {
    for (const bool bAnew : {false, true}) {
        const std::string name = bAnew ? "anew" : "same";
        const fs::path source = m_box / "home" / name;
        writeFile(source / "more", "bytes");
        writeFile(source / "file", "bytes");
        const fs::path probe = m_box / "home/probe";
        do { // what is copied was not changed since
            writeFile(probe);
        } while (fs::last_write_time(probe) <= fs::last_write_time(source / "file"));
        interruptCopy(source, name);
        TavroIdentity whole;
        for (const auto& entry : fs::directory_iterator(work())) {
            if (TavroIsStagingName(entry.path().filename().string())) {
                fs::remove(entry.path() / "more");
                fs::last_write_time(entry.path() / "file", fs::last_write_time(source / "file"));
                whole = identityOf(entry.path() / "file");
            }
        }
        if (bAnew) {
            OtherProgram(m_box / "state/tavro/history.db")
                .execute("UPDATE operation SET staging = replace(staging, '@', '@0')");
        }
        ASSERT_EQ(TavroDescribe(resume()), "");
        EXPECT_EQ(takeSnapshot(work(name)), takeSnapshot(source));
        EXPECT_EQ(identityOf(work(name) / "file") == whole, !bAnew);
    }
}

TEST_P(SettlingCopies, removes_a_copy_that_waits_when_it_is_taken_back) {
    writeFile(m_box / "home/a/file", "bytes");
    interruptCopy(m_box / "home/a", "a");
    ASSERT_EQ(TavroDescribe(undo()), "");
    EXPECT_TRUE(fs::is_empty(work()));
    EXPECT_EQ(readFile(m_box / "home/a/file"), "bytes");
}

/// Operations that were interrupted, put together step by step.
class SettlingSteps : public Settling {
protected:
    /// Keeps these steps as those of an operation that was begun.
    static void interrupt(Kind kind, const std::vector<TavroStep>& steps) {
        TavroOperation operation;
        operation.Kind = kind;
        operation.State = State::Doing;
        operation.Steps = steps;
        TavroHistory history;
        ASSERT_FALSE(openHistory(history));
        ASSERT_FALSE(history.BeginOperation(operation));
    }
    TavroStep step(Role role, const std::string& name) const {
        TavroStep made = {role, (m_box / "home" / name).string(), work(name).string()};
        made.Identity = isPresent(made.To) ? identityOf(made.To) : TavroIdentity();
        return made;
    }
    /// What was at a name, and lies in the trash.
    TavroStep replacedStep(const std::string& name) const {
        const fs::path item = trashRoot() / "files" / name;
        return {Role::Replaced, work(name).string(), item.string(),
                (trashRoot() / "info" / (name + ".trashinfo")).string(), identityOf(item)};
    }
};

INSTANTIATE_TEST_SUITE_P(Within, SettlingSteps, testing::Values(false));

TEST_P(SettlingSteps, are_not_taken_back_while_a_moved_file_is_missing) {
    writeFile(work("a"), "a");
    writeFile(work("b"), "b");
    interrupt(Kind::Move, {step(Role::Moved, "a"), step(Role::Moved, "b")});
    fs::rename(work("b"), m_box / "home/elsewhere");
    const Snapshot before = tree();
    TavroFailure failure = undo();
    EXPECT_EQ(failure.Kind, TavroFailureKind::Missing);
    EXPECT_EQ(failure.Path, work("b"));
    EXPECT_EQ(tree(), before);
    fs::rename(m_box / "home/elsewhere", work("b"));
    ASSERT_EQ(TavroDescribe(undo()), "");
    EXPECT_EQ(readFile(m_box / "home/a") + readFile(m_box / "home/b"), "ab");
}

TEST_P(SettlingSteps, are_not_taken_back_while_what_they_replaced_is_missing) {
    const fs::path item = trashRoot() / "files/a";
    for (const bool bOther : {false, true}) {
        clear();
        writeFile(m_box / "home/a", "new");
        writeFile(work("a"), "new");
        writeFile(item, "old");
        writeFile(trashRoot() / "info/a.trashinfo",
                  "[Trash Info]\nPath=" + work("a").string() + "\n");
        interrupt(Kind::Copy, {step(Role::Copied, "a"), replacedStep("a")});
        fs::remove(item);
        if (bOther) { // who has put another file there wants no old one
            fs::rename(work("a"), work("new"));
            writeFile(work("a"), "other");
        }
        TavroFailure failure = undo();
        EXPECT_EQ(failure.Kind, bOther ? TavroFailureKind::None : TavroFailureKind::ItemMissing);
        EXPECT_EQ(failure.Path, bOther ? "" : item.string());
        EXPECT_EQ(readFile(work("a")), bOther ? "other" : "new");
    }
}

TEST_P(SettlingSteps, of_a_move_are_not_taken_back_while_what_they_replaced_is_missing) {
    const fs::path item = trashRoot() / "files/a";
    writeFile(work("a"), "new");
    writeFile(item, "old");
    writeFile(trashRoot() / "info/a.trashinfo", "[Trash Info]\nPath=" + work("a").string() + "\n");
    interrupt(Kind::Move, {step(Role::Moved, "a"), replacedStep("a")});
    fs::remove(item);
    const TavroFailure failure = undo();
    EXPECT_EQ(failure.Kind, TavroFailureKind::ItemMissing);
    EXPECT_EQ(failure.Path, item.string());
    EXPECT_EQ(readFile(work("a")), "new");
}

TEST_P(SettlingSteps, can_be_gone_on_with_when_they_could_not_be_taken_back) {
    writeFile(work("a"), "a");
    const TavroStep moved = step(Role::Moved, "a");
    const TavroStep planned = step(Role::Planned, "b");
    writeFile(m_box / "home/b", "b");
    interrupt(Kind::Move, {moved, planned});
    writeFile(m_box / "home/a", "in the way");
    EXPECT_EQ(undo().Kind, TavroFailureKind::InTheWay);
    EXPECT_EQ(statesListed(), std::vector<State>{State::Doing});
    ASSERT_EQ(TavroDescribe(resume()), "");
    EXPECT_EQ(statesListed(), std::vector<State>{State::Done});
    EXPECT_EQ(readFile(work("a")) + readFile(work("b")), "ab");
    EXPECT_EQ(readFile(m_box / "home/a"), "in the way");
}

TEST_P(SettlingSteps, that_were_only_planned_are_carried_out_by_their_policy) {
    for (const Kind kind : {Kind::Copy, Kind::Move}) {
        clear();
        for (const char* name : {"a", "b", "c"}) {
            writeFile(m_box / "home" / name, "new");
        }
        writeFile(work("b"), "old");
        writeFile(work("c"), "new");
        if (kind == Kind::Move) {
            fs::remove(m_box / "home/c");
        }
        TavroStep planned = step(Role::Planned, "b");
        planned.Mode = static_cast<std::uint32_t>(TavroTransferConflictPolicy::Overwrite);
        const TavroStep done = step(kind == Kind::Copy ? Role::Copied : Role::Moved, "c");
        TavroStep other = step(Role::Planned, "a");
        other.Mode = planned.Mode;
        interrupt(kind, {planned, other, done});
        ASSERT_EQ(TavroDescribe(resume()), "");
        for (const char* name : {"a", "b", "c"}) {
            EXPECT_EQ(readFile(work(name)), "new");
            EXPECT_EQ(isPresent(m_box / "home" / name), kind == Kind::Copy);
        }
        EXPECT_EQ(readFile(trashRoot() / "files/b"), "old");
        EXPECT_EQ(statesListed(), std::vector<State>{State::Done});
        const std::vector<TavroOperation> operations = listed();
        for (const TavroStep& kept : operations.at(0).Steps) {
            EXPECT_NE(kept.Role, Role::Planned);
        }
    }
}

TEST_P(Settling, touches_no_other_file_that_has_a_name_by_now) {
    writeFile(work("a"), "bytes");
    interruptTrashOf("a", "a");
    fs::rename(work("a"), work("kept"));
    writeFile(work("a"), "another file");
    writeFile(trashRoot() / "files/a", "another item");
    const Snapshot before = tree();
    EXPECT_EQ(headwayListed()->Done, 0U);
    ASSERT_EQ(TavroDescribe(undo()), "");
    EXPECT_EQ(tree(), before);
}

TEST_P(Settling, is_not_done_while_a_process_is_at_the_operation) {
    writeFile(work("a"), "bytes");
    TavroJournal journal(openHistory);
    const TavroCallbacks callbacks = journal.Bind({});
    ASSERT_FALSE(callbacks.BeforeActs(
        Kind::Trash, {{Role::Trashed, work("a").string(), (trashRoot() / "files/a").string(),
                       (trashRoot() / "info/a.trashinfo").string(), identityOf(work("a"))}}));
    writeFile(trashRoot() / "info/a.trashinfo", "[Trash Info]\nPath=" + work("a").string() + "\n");
    const Snapshot before = tree();
    EXPECT_EQ(undo().Kind, TavroFailureKind::HistoryRunning);
    EXPECT_EQ(resume().Kind, TavroFailureKind::HistoryRunning);
    EXPECT_EQ(tree(), before);
}

TEST_P(Settling, of_an_undo_that_was_done_does_not_give_its_directories_to_a_redo_that_fails) {
    writeFile(work("from/a"), "a");
    makeDirectory(work("from/empty"));
    {
        TavroHistory history;
        ASSERT_FALSE(openHistory(history));
        TavroOperation operation;
        operation.Kind = Kind::Move;
        operation.State = State::Undoing;
        operation.Steps = {
            {Role::Moved, work("from/a").string(), work("to/a").string(), "",
             identityOf(work("from/a"))},
            {Role::RemovedDirectory, work("from/empty").string(), "", "", {}, 0, 0755}};
        ASSERT_FALSE(history.BeginOperation(operation));
    }
    writeFile(work("to/a"), "in the way");
    EXPECT_EQ(redo().Kind, TavroFailureKind::InTheWay);
    EXPECT_EQ(statesListed(), std::vector<State>{State::Undone});
    EXPECT_TRUE(fs::is_directory(work("from/empty")));
}

TEST_P(Settling, that_does_not_reach_the_disk_tells_what_it_was_about) {
    writeFile(work("a"), "bytes");
    interruptTrashOf("a", "a");
    writeFile(trashRoot() / "info/a.trashinfo", "[Trash Info]\nPath=" + work("a").string() + "\n");
    const FaultInjector injector({{"fsync", EIO, (trashRoot() / "info").string()}});
    EXPECT_EQ(TavroDescribe(undo()),
              "Cannot write " + inQuotes(work("a")) + ": " + systemText(std::errc::io_error));
}

TEST_P(Settling, that_fails_can_be_tried_again) {
    writeFile(work("a"), "bytes");
    expectDone({rename("a", "b")});
    {
        TavroHistory history;
        ASSERT_FALSE(openHistory(history));
        bool bChanged = true;
        ASSERT_FALSE(history.ContinueOperation(listed()[0], State::Undoing, bChanged));
    }
    ASSERT_TRUE(headwayListed());
    writeFile(work("a"), "in the way");
    EXPECT_EQ(undo().Kind, TavroFailureKind::InTheWay);
    ASSERT_TRUE(headwayListed());
    fs::remove(work("a"));
    ASSERT_EQ(TavroDescribe(undo()), "");
    EXPECT_EQ(readFile(work("a")), "bytes");
}

} // namespace
