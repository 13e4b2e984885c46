// The undo history: what it keeps from one run to the next, and what undoing and redoing make of
// the disk. Whatever is refused or fails must leave the whole sandbox, history included, as it was.

#include "history.h"

#include "selection.h"
#include "trash.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

/// All of an operation as text, to be compared.
std::string describe(const TavroHistoryOperation& operation) {
    std::ostringstream text;
    text << "kind " << static_cast<int>(operation.Kind) << " time " << operation.Time << '\n';
    for (const TavroHistoryStep& step : operation.Steps) {
        text << "step '" << step.From << "' '" << step.To << "'\n";
    }
    for (const TavroTrashEntry& entry : operation.TrashEntries) {
        text << "entry '" << entry.OriginalPath << "' '" << entry.TrashPath << "' '"
             << entry.InfoPath << "' " << entry.bDirectory << '\n';
    }
    for (const TavroRemovedFolder& folder : operation.RemovedFolders) {
        text << "folder '" << folder.Path.string() << "' " << folder.Mode << '\n';
    }
    return text.str();
}

std::vector<std::string> describe(const std::vector<TavroHistoryOperation>& operations) {
    std::vector<std::string> texts;
    for (const TavroHistoryOperation& operation : operations) {
        texts.push_back(describe(operation));
    }
    return texts;
}

TavroHistoryOperation renameOperation(const std::string& from, const std::string& to) {
    return {TavroHistoryKind::Rename, 1700000000, {{from, to}}, {}};
}

/// What came of an undo or a redo.
struct Outcome {
    bool bDone = false;
    std::string Message;
    TavroHistoryOperation Operation;
};

/// A home with its trash, a state folder and a folder to work in, all in one sandbox. Each step
/// opens the history anew, as one run of a program after the other does.
class History : public testing::Test {
public: // the steps are passed on as pointers to members
    History() {
        makeDirectory(m_sandbox / "home");
        makeDirectory(m_work);
    }

    fs::path file() const {
        return m_sandbox / "state/tavro/history.json";
    }
    std::string work(const std::string& name) const {
        return (m_work / name).string();
    }
    Snapshot everything() const {
        return takeSnapshot(m_sandbox.path());
    }
    Snapshot workTree() const {
        return takeSnapshot(m_work);
    }

    /// The names in the trash's `files` folder.
    std::set<std::string> trashedNames() const {
        std::set<std::string> names;
        const fs::path files = m_sandbox / "home/.local/share/Trash/files";
        if (isPresent(files)) {
            for (const fs::directory_entry& entry : fs::directory_iterator(files)) {
                names.insert(entry.path().filename().string());
            }
        }
        return names;
    }

    void open(TavroHistory& history) const {
        std::string error;
        ASSERT_TRUE(history.Open(file(), error)) << error;
    }

    void record(const TavroHistoryOperation& operation) const {
        TavroHistory history;
        open(history);
        std::string error;
        ASSERT_TRUE(history.Record(operation, error)) << error;
    }

    Outcome undo(const TavroTransferCallbacks& callbacks = {}) const {
        return go(&TavroHistory::Undo, callbacks);
    }
    Outcome redo(const TavroTransferCallbacks& callbacks = {}) const {
        return go(&TavroHistory::Redo, callbacks);
    }

    Outcome drop(const TavroTransferCallbacks& = {}) const {
        TavroHistory history;
        open(history);
        Outcome outcome;
        outcome.bDone = history.DropNewest(outcome.Operation, outcome.Message);
        return outcome;
    }

    std::vector<std::string> undoable() const {
        TavroHistory history;
        open(history);
        return describe(history.Undoable());
    }
    std::vector<std::string> redoable() const {
        TavroHistory history;
        open(history);
        return describe(history.Redoable());
    }

    /// Renames on disk, and records it.
    void renameAndRecord(const std::string& from, const std::string& to) const {
        fs::rename(work(from), work(to));
        record(renameOperation(work(from), work(to)));
    }

    /// Moves on disk, in order, and records it as one operation.
    void moveAndRecord(const std::vector<std::pair<std::string, std::string>>& moves) const {
        TavroHistoryOperation operation = {TavroHistoryKind::Move, 1700000000, {}, {}};
        for (const auto& [from, to] : moves) {
            makeDirectory(fs::path(work(to)).parent_path());
            fs::rename(work(from), work(to));
            operation.Steps.push_back({work(from), work(to)});
        }
        record(operation);
    }

    /// Copies on disk and records it as one operation.
    void copyAndRecord(const std::vector<std::pair<std::string, std::string>>& copies) const {
        TavroHistoryOperation operation = {TavroHistoryKind::Copy, 1700000000, {}, {}};
        for (const auto& [from, to] : copies) {
            fs::copy(work(from), work(to),
                     fs::copy_options::recursive | fs::copy_options::copy_symlinks |
                         fs::copy_options::overwrite_existing);
            operation.Steps.push_back({work(from), work(to)});
        }
        record(operation);
    }

    /// Creates directories, outer ones first, and records it as one operation.
    void createAndRecord(const std::vector<std::string>& names) const {
        TavroHistoryOperation operation = {TavroHistoryKind::CreateDirectory, 1700000000, {}, {}};
        for (const std::string& name : names) {
            fs::create_directory(work(name));
            operation.Steps.push_back({"", work(name)});
        }
        record(operation);
    }

    void trashAndRecord(const std::vector<std::string>& names) const {
        std::vector<TavroOperationEntry> entries;
        for (const std::string& name : names) {
            entries.push_back(TavroSelectEntry(work(name)));
        }
        TavroHistoryOperation operation = {TavroHistoryKind::Trash, 1700000000, {}, {}};
        std::string error;
        ASSERT_TRUE(TavroTrashSelection(TavroKeepLinks(entries), {}, operation.TrashEntries, error))
            << error;
        record(operation);
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
            ASSERT_EQ(redoable(), std::vector<std::string>{describe(undone.Operation)});
            ASSERT_EQ(undoable(), std::vector<std::string>{});
            const Outcome redone = redo();
            ASSERT_TRUE(redone.bDone) << redone.Message;
            ASSERT_EQ(workTree(), after);
            ASSERT_EQ(undoable(), std::vector<std::string>{describe(redone.Operation)});
            ASSERT_EQ(redoable(), std::vector<std::string>{});
        }
    }

    using Going = Outcome (History::*)(const TavroTransferCallbacks&) const;

    /// Undoing (redoing) is refused with this sentence, and not one byte is different then.
    void expectRefused(Going going, const std::string& sentence,
                       const TavroTransferCallbacks& callbacks = {}) const {
        const Snapshot before = everything();
        const Outcome outcome = (this->*going)(callbacks);
        EXPECT_FALSE(outcome.bDone);
        EXPECT_EQ(outcome.Message, sentence);
        EXPECT_EQ(describe(outcome.Operation), describe(TavroHistoryOperation()));
        EXPECT_EQ(everything(), before);
    }

    /// The same where the sentence is another's: it names this path.
    void expectRefusedNaming(Going going, const std::string& path) const {
        const Snapshot before = everything();
        const Outcome outcome = (this->*going)({});
        EXPECT_FALSE(outcome.bDone);
        EXPECT_NE(outcome.Message.find(path), std::string::npos) << outcome.Message;
        EXPECT_EQ(everything(), before);
    }

    Sandbox m_sandbox;
    fs::path m_work = m_sandbox / "work";

private:
    Outcome go(bool (TavroHistory::*going)(const TavroTransferCallbacks&, TavroHistoryOperation&,
                                           std::string&),
               const TavroTransferCallbacks& callbacks) const {
        TavroHistory history;
        open(history);
        Outcome outcome;
        outcome.bDone = (history.*going)(callbacks, outcome.Operation, outcome.Message);
        return outcome;
    }

    ScopedEnvironment m_home{"HOME", (m_sandbox / "home").string()};
    ScopedEnvironment m_state{"XDG_STATE_HOME", (m_sandbox / "state").string()};
};

std::string inTheWay(const std::string& path) {
    return "'" + path + "' is in the way";
}

std::string missing(const std::string& path) {
    return "'" + path + "' is missing";
}

unsigned modeOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

/// Whether someone holds the lock of this history.
bool isLocked(const fs::path& file) {
    const int lock = open((file.string() + ".lock").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_GE(lock, 0);
    const bool bFree = flock(lock, LOCK_EX | LOCK_NB) == 0;
    EXPECT_TRUE(bFree || errno == EWOULDBLOCK);
    close(lock);
    return !bFree;
}

// ---------------------------------------------------------------------------------------------
// Where the file is
// ---------------------------------------------------------------------------------------------

TEST_F(History, the_file_is_in_the_state_folder) {
    EXPECT_EQ(TavroHistoryPath(), file());
}

TEST_F(History, without_a_state_folder_or_with_a_relative_one_the_file_is_below_home) {
    const fs::path belowHome = m_sandbox / "home/.local/state/tavro/history.json";
    for (const auto& state : {std::optional<std::string>(), std::optional<std::string>(""),
                              std::optional<std::string>("state")}) {
        const ScopedEnvironment environment("XDG_STATE_HOME", state);
        EXPECT_EQ(TavroHistoryPath(), belowHome);
    }
}

TEST_F(History, without_home_and_state_folder_there_is_no_file) {
    const ScopedEnvironment state("XDG_STATE_HOME", std::nullopt);
    const ScopedEnvironment home("HOME", std::nullopt);
    EXPECT_EQ(TavroHistoryPath(), fs::path());
    TavroHistory history;
    std::string error;
    EXPECT_FALSE(history.Open(TavroHistoryPath(), error));
    EXPECT_EQ(error, "There is no place for the history: HOME is not set");
}

// ---------------------------------------------------------------------------------------------
// Opening
// ---------------------------------------------------------------------------------------------

TEST_F(History, a_missing_file_is_an_empty_history) {
    TavroHistory history;
    open(history);
    EXPECT_EQ(describe(history.Undoable()), std::vector<std::string>{});
    EXPECT_EQ(describe(history.Redoable()), std::vector<std::string>{});
    EXPECT_EQ(history.Notice(), "");
    EXPECT_FALSE(isPresent(file()));
}

TEST_F(History, folders_and_files_are_for_the_user_alone) {
    const mode_t oldMask = umask(0);
    record(renameOperation("/a", "/b"));
    umask(oldMask);
    EXPECT_EQ(modeOf(m_sandbox / "state"), 0700U);
    EXPECT_EQ(modeOf(m_sandbox / "state/tavro"), 0700U);
    EXPECT_EQ(modeOf(file()), 0600U);
    EXPECT_EQ(modeOf(file().string() + ".lock"), 0600U);
}

TEST_F(History, a_folder_that_exists_keeps_its_mode) {
    makeDirectory(m_sandbox / "state");
    fs::permissions(m_sandbox / "state", fs::perms(0755));
    record(renameOperation("/a", "/b"));
    EXPECT_EQ(modeOf(m_sandbox / "state"), 0755U);
}

TEST_F(History, a_history_that_is_not_open_does_nothing) {
    TavroHistory history;
    TavroHistoryOperation operation = renameOperation("/a", "/b");
    const std::string sentence = "The history is not open";
    std::string error;
    EXPECT_FALSE(history.Record(operation, error));
    EXPECT_EQ(error, sentence);
    error.clear();
    EXPECT_FALSE(history.Undo({}, operation, error));
    EXPECT_EQ(error, sentence);
    error.clear();
    EXPECT_FALSE(history.Redo({}, operation, error));
    EXPECT_EQ(error, sentence);
    error.clear();
    EXPECT_FALSE(history.DropNewest(operation, error));
    EXPECT_EQ(error, sentence);
}

/// Opening fails with this sentence and changes nothing that `file` names.
void expectNoOpening(const fs::path& file, const std::string& sentence) {
    const Snapshot before = takeSnapshot(file);
    TavroHistory history;
    std::string error;
    EXPECT_FALSE(history.Open(file, error));
    EXPECT_EQ(error, sentence);
    EXPECT_EQ(history.Notice(), "");
    EXPECT_EQ(takeSnapshot(file), before);
    EXPECT_FALSE(history.Record(renameOperation("/a", "/b"), error));
    EXPECT_EQ(error, "The history is not open");
}

TEST_F(History, a_directory_in_place_of_the_file_is_an_error) {
    makeDirectory(file());
    expectNoOpening(file(), "Cannot read the history '" + file().string() +
                                "': " + systemText(std::errc::is_a_directory));
}

TEST_F(History, a_fifo_in_place_of_the_file_is_an_error_and_makes_nobody_wait) {
    makeDirectory(file().parent_path());
    makeFifo(file());
    expectNoOpening(file(), "Cannot read the history '" + file().string() +
                                "': " + systemText(std::errc::invalid_argument));
}

TEST_F(History, a_file_that_cannot_be_read_is_an_error) {
    record(renameOperation("/a", "/b"));
    const Snapshot before = everything();
    TavroHistory history;
    std::string error;
    const FaultInjector injector({{"read", EIO, "history.json"}});
    EXPECT_FALSE(history.Open(file(), error));
    EXPECT_TRUE(injector.eachFired());
    EXPECT_EQ(error, "Cannot read the history '" + file().string() +
                         "': " + systemText(std::errc::io_error));
    EXPECT_EQ(everything(), before);
}

TEST_F(History, a_file_without_permission_is_an_error) {
    record(renameOperation("/a", "/b"));
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(file(), fs::perms::none);
        TavroHistory history;
        std::string error;
        EXPECT_FALSE(history.Open(file(), error));
        EXPECT_EQ(error, "Cannot read the history '" + file().string() +
                             "': " + systemText(std::errc::permission_denied));
    });
    EXPECT_FALSE(isPresent(file().string() + ".damaged-1"));
}

TEST_F(History, a_file_in_place_of_a_folder_is_an_error) {
    writeFile(m_sandbox / "state", "bytes");
    expectNoOpening(file(), "Cannot create the folder '" + file().parent_path().string() +
                                "': " + systemText(std::errc::not_a_directory));
    EXPECT_EQ(readFile(m_sandbox / "state"), "bytes");
}

TEST_F(History, a_lock_that_cannot_be_had_is_an_error) {
    const std::string lock = file().string() + ".lock";
    makeDirectory(lock);
    expectNoOpening(file(), "Cannot lock the history '" + lock +
                                "': " + systemText(std::errc::is_a_directory));
}

TEST_F(History, a_relative_path_is_taken_against_the_current_directory_at_the_opening) {
    TavroHistory history;
    std::string error;
    {
        const ScopedCurrentDirectory directory(m_work);
        ASSERT_TRUE(history.Open("here/history.json", error)) << error;
    }
    ASSERT_TRUE(history.Record(renameOperation("/a", "/b"), error)) << error;
    EXPECT_TRUE(isPresent(work("here/history.json")));
}

TEST_F(History, opening_again_closes_what_was_open) {
    TavroHistory history;
    open(history);
    std::string error;
    ASSERT_TRUE(history.Record(renameOperation("/a", "/b"), error)) << error;
    ASSERT_TRUE(history.Open(m_sandbox / "other/history.json", error)) << error;
    EXPECT_EQ(describe(history.Undoable()), std::vector<std::string>{});
    EXPECT_FALSE(isLocked(file()));
}

// ---------------------------------------------------------------------------------------------
// What the file holds
// ---------------------------------------------------------------------------------------------

TEST_F(History, the_file_is_json_of_this_form) {
    record({TavroHistoryKind::Copy, 7, {{"/a b", "/c"}}, {{"/c", "/t/c", "/i/c", true}}});
    EXPECT_EQ(nlohmann::json::parse(readFile(file())), nlohmann::json::parse(R"({
        "version": 1,
        "undoable": [{
            "kind": "copy",
            "time": 7,
            "steps": [{"from": "/a%20b", "to": "/c"}],
            "trash": [{"original": "/c", "trash": "/t/c", "info": "/i/c", "directory": true}]
        }],
        "redoable": []
    })"));
}

TEST_F(History, every_kind_comes_back_as_it_was_recorded) {
    const std::vector<TavroTrashEntry> entries = {{"/o/1", "/t/1", "/i/1", false},
                                                  {"/o/2", "/t/2", "/i/2", true}};
    const std::vector<TavroHistoryStep> steps = {{"/f/1", "/t/1"}, {"/f/2", "/t/2"}};
    const std::vector<TavroHistoryOperation> operations = {
        {TavroHistoryKind::Trash, 0, {}, entries},
        {TavroHistoryKind::Rename, -1, {steps[0]}, {}},
        {TavroHistoryKind::Move, INT64_MAX, steps, {}},
        {TavroHistoryKind::Copy, INT64_MIN, steps, entries},
        {TavroHistoryKind::CreateDirectory, 1, {{"", "/d"}, {"", "/d/e"}}, {}},
    };
    for (const TavroHistoryOperation& operation : operations) {
        record(operation);
    }
    EXPECT_EQ(undoable(), describe(operations));
}

TEST_F(History, names_of_any_bytes_come_back) {
    std::string name;
    for (int byte = 1; byte < 256; ++byte) {
        name += static_cast<char>(byte);
    }
    const TavroHistoryOperation operation = {
        TavroHistoryKind::Copy,
        1,
        {{"/from" + name, "/to" + name}},
        {{"/original" + name, "/trash" + name, "/info" + name, true}}};
    record(operation);
    EXPECT_EQ(undoable(), std::vector<std::string>{describe(operation)});
    for (const char byte : readFile(file())) {
        EXPECT_TRUE(byte == '\n' || (byte >= ' ' && byte <= '~')) << static_cast<int>(byte);
    }
}

TEST_F(History, a_file_with_names_of_any_bytes_is_renamed_back) {
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

TEST_F(History, members_that_are_not_known_are_passed_over) {
    record(renameOperation("/a", "/b"));
    nlohmann::json history = nlohmann::json::parse(readFile(file()));
    history["later"] = {{"deep", {1, 2, 3}}};
    history["undoable"][0]["later"] = nullptr;
    history["undoable"][0]["steps"][0]["later"] = "text";
    writeFile(file(), history.dump(4));
    TavroHistory opened;
    open(opened);
    EXPECT_EQ(opened.Notice(), "");
    EXPECT_EQ(describe(opened.Undoable()),
              std::vector<std::string>{describe(renameOperation("/a", "/b"))});
}

TEST_F(History, the_newest_two_hundred_operations_stay) {
    const auto numbered = [](int number) {
        return renameOperation("/a", "/" + std::to_string(number));
    };
    record(numbered(0));
    nlohmann::json history = nlohmann::json::parse(readFile(file()));
    std::vector<std::string> expected = {describe(numbered(0))};
    for (int number = 1; number < 199; ++number) {
        nlohmann::json operation = history["undoable"][0];
        operation["steps"][0]["to"] = "/" + std::to_string(number);
        history["undoable"].push_back(operation);
        expected.push_back(describe(numbered(number)));
    }
    writeFile(file(), history.dump());
    record(numbered(199));
    expected.push_back(describe(numbered(199)));
    EXPECT_EQ(undoable(), expected);
    record(numbered(200));
    expected.push_back(describe(numbered(200)));
    expected.erase(expected.begin());
    EXPECT_EQ(expected.size(), 200U);
    EXPECT_EQ(undoable(), expected);
}

TEST_F(History, what_cannot_be_undone_is_not_recorded) {
    const std::vector<TavroTrashEntry> entries = {{"/o", "/t", "/i", false}};
    const std::vector<TavroHistoryOperation> operations = {
        {TavroHistoryKind::Trash, 0, {}, {}},
        {TavroHistoryKind::Trash, 0, {{"/a", "/b"}}, entries},
        {TavroHistoryKind::Trash, 0, {}, {{"o", "/t", "/i", false}}},
        {TavroHistoryKind::Trash, 0, {}, {{"/o", "t", "/i", false}}},
        {TavroHistoryKind::Trash, 0, {}, {{"/o", "/t", "", false}}},
        {TavroHistoryKind::Rename, 0, {}, {}},
        {TavroHistoryKind::Rename, 0, {{"a", "/b"}}, {}},
        {TavroHistoryKind::Move, 0, {{"/a", "/b"}, {"/a", "b"}}, {}},
        {TavroHistoryKind::Copy, 0, {{"", "/b"}}, {}},
        {TavroHistoryKind::CreateDirectory, 0, {{"/a", "/b"}}, {}},
        {TavroHistoryKind::Move, 0, {{"/a", std::string("/b\0c", 4)}}, {}},
    };
    TavroHistory history;
    open(history);
    for (const TavroHistoryOperation& operation : operations) {
        std::string error;
        EXPECT_FALSE(history.Record(operation, error)) << describe(operation);
        EXPECT_EQ(error, "Only what has something to undo, at absolute paths, can be recorded");
    }
    EXPECT_FALSE(isPresent(file()));
}

// ---------------------------------------------------------------------------------------------
// Damaged files
// ---------------------------------------------------------------------------------------------

/// A file with one operation of the given text, all else being as it should.
std::string withOperation(const std::string& operation) {
    return R"({"version":1,"redoable":[],"undoable":[)" + operation + "]}";
}

std::string withTrashPath(const std::string& path) {
    return withOperation(R"({"kind":"trash","time":1,"steps":[],"trash":[{"original":")" + path +
                         R"(","trash":"/t","info":"/i","directory":false}]})");
}

std::string withKind(const std::string& kind) {
    return withOperation(R"({"kind":)" + kind + R"(,"time":1,"steps":[],"trash":[
        {"original":"/o","trash":"/t","info":"/i","directory":false}]})");
}

std::string withTime(const std::string& time) {
    return withOperation(R"({"kind":"rename","time":)" + time +
                         R"(,"steps":[{"from":"/a","to":"/b"}],"trash":[]})");
}

const std::vector<std::string>& damagedTexts() {
    static const std::vector<std::string> texts = {
        "",
        "\n",
        "null",
        "[]",
        "7",
        "\"text\"",
        "{}",
        "not json",
        std::string("\x7f"
                    "ELF\0\1\2\xff\xfe",
                    9),
        std::string(100000, '\0'),
        std::string(200000, '['),
        R"({"version":1,"undoable":[],"redoable":)" + std::string(200000, '[') +
            std::string(200000, ']') + "}",
        // the whole
        R"({"undoable":[],"redoable":[]})",
        R"({"version":0,"undoable":[],"redoable":[]})",
        R"({"version":2,"undoable":[],"redoable":[]})",
        R"({"version":1.0,"undoable":[],"redoable":[]})",
        R"({"version":"1","undoable":[],"redoable":[]})",
        R"({"version":18446744073709551617,"undoable":[],"redoable":[]})",
        R"({"version":1,"redoable":[]})",
        R"({"version":1,"undoable":[]})",
        R"({"version":1,"undoable":{},"redoable":[]})",
        R"({"version":1,"undoable":[],"redoable":null})",
        R"({"version":1,"undoable":[],"redoable":[]}})",
        R"({"version":1,"undoable":[],"redoable":[])",
        // an operation
        withOperation("7"),
        withOperation("{}"),
        withOperation(R"({"time":1,"steps":[{"from":"/a","to":"/b"}],"trash":[]})"),
        withKind("\"burn\""),
        withKind("\"Trash\""),
        withKind("1"),
        withOperation(R"({"kind":"rename","steps":[{"from":"/a","to":"/b"}],"trash":[]})"),
        withOperation(R"({"kind":"rename","time":1,"trash":[]})"),
        withOperation(R"({"kind":"rename","time":1,"steps":[{"from":"/a","to":"/b"}]})"),
        withOperation(R"({"kind":"rename","time":1,"steps":[],"trash":[]})"),
        withOperation(R"({"kind":"trash","time":1,"steps":[],"trash":[]})"),
        withOperation(R"({"kind":"rename","time":1,"steps":["/a"],"trash":[]})"),
        withOperation(R"({"kind":"rename","time":1,"steps":[{"to":"/b"}],"trash":[]})"),
        withOperation(R"({"kind":"rename","time":1,"steps":[{"from":"/a"}],"trash":[]})"),
        withOperation(R"({"kind":"rename","time":1,"steps":[{"from":"/a","to":1}],"trash":[]})"),
        withOperation(R"({"kind":"rename","time":1,"steps":[{"from":"a","to":"/b"}],"trash":[]})"),
        withTime("1.5"),
        withTime("true"),
        withTime("1e400"),
        withTime("9223372036854775808"),
        withTime("-9223372036854775809"),
        withTime("123456789012345678901234567890"),
        // an entry in the trash
        withOperation(R"({"kind":"trash","time":1,"steps":[],"trash":[7]})"),
        withOperation(R"({"kind":"trash","time":1,"steps":[],"trash":[
            {"original":"/o","trash":"/t","info":"/i"}]})"),
        withOperation(R"({"kind":"trash","time":1,"steps":[],"trash":[
            {"original":"/o","trash":"/t","info":"/i","directory":1}]})"),
        withOperation(R"({"kind":"trash","time":1,"steps":[],"trash":[
            {"original":"/o","trash":"/t","directory":true}]})"),
        // paths that no encoding gave
        withTrashPath("/%"),
        withTrashPath("/%4"),
        withTrashPath("/%zz"),
        withTrashPath("/%00"),
        withTrashPath("/%41"),
        withTrashPath("/%c3"),
        withTrashPath("/a b"),
        withTrashPath("/\xff"),
        withTrashPath(""),
        withTrashPath("o"),
    };
    return texts;
}

TEST_F(History, a_damaged_file_is_set_aside_and_named) {
    for (const std::string& text : damagedTexts()) {
        SCOPED_TRACE(text.substr(0, 200));
        writeFile(file(), text);
        const std::string aside = file().string() + ".damaged-1";
        TavroHistory history;
        open(history);
        EXPECT_EQ(history.Notice(), "The history '" + file().string() +
                                        "' is damaged and was set aside as '" + aside + "'");
        EXPECT_EQ(describe(history.Undoable()), std::vector<std::string>{});
        EXPECT_EQ(describe(history.Redoable()), std::vector<std::string>{});
        EXPECT_FALSE(isPresent(file()));
        EXPECT_TRUE(readFile(aside) == text);
        fs::remove(aside);
    }
}

TEST_F(History, the_forms_that_the_damaged_ones_are_made_of_are_good) {
    for (const std::string& text :
         {withTrashPath("/o"), withTrashPath("/%FF"), withKind("\"trash\""), withTime("1"),
          withTime("-5"), withTime("9223372036854775807"), withTime("-9223372036854775808")}) {
        SCOPED_TRACE(text);
        writeFile(file(), text);
        TavroHistory history;
        open(history);
        EXPECT_EQ(history.Notice(), "");
        EXPECT_EQ(history.Undoable().size(), 1U);
    }
}

TEST_F(History, every_beginning_of_a_file_is_damaged_but_the_whole) {
    record(renameOperation("/a", "/b"));
    const std::string whole = readFile(file());
    ASSERT_EQ(whole.back(), '\n');
    for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
        writeFile(file(), whole.substr(0, length));
        TavroHistory history;
        open(history);
        ASSERT_NE(history.Notice(), "") << length;
        fs::remove(file().string() + ".damaged-1");
    }
}

TEST_F(History, a_damaged_file_takes_the_first_free_name) {
    writeFile(file().string() + ".damaged-1", "older");
    fs::create_symlink("nowhere", file().string() + ".damaged-2");
    writeFile(file().string() + ".damaged-4", "newer");
    writeFile(file(), "damaged");
    TavroHistory history;
    open(history);
    EXPECT_EQ(readFile(file().string() + ".damaged-1"), "older");
    EXPECT_EQ(fs::read_symlink(file().string() + ".damaged-2"), "nowhere");
    EXPECT_EQ(readFile(file().string() + ".damaged-3"), "damaged");
    EXPECT_EQ(readFile(file().string() + ".damaged-4"), "newer");
}

TEST_F(History, after_a_damaged_file_recording_goes_on) {
    writeFile(file(), "damaged");
    record(renameOperation("/a", "/b"));
    EXPECT_EQ(undoable(), std::vector<std::string>{describe(renameOperation("/a", "/b"))});
    EXPECT_EQ(readFile(file().string() + ".damaged-1"), "damaged");
    TavroHistory history;
    open(history);
    EXPECT_EQ(history.Notice(), "");
}

TEST_F(History, a_damaged_file_that_cannot_be_set_aside_stays) {
    writeFile(file().string() + ".lock");
    writeFile(file(), "damaged");
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(file().parent_path(), fs::perms(0500));
        expectNoOpening(file(), "Cannot set aside the damaged history '" + file().string() +
                                    "': " + systemText(std::errc::permission_denied));
    });
    EXPECT_EQ(readFile(file()), "damaged");
}

// ---------------------------------------------------------------------------------------------
// The lock
// ---------------------------------------------------------------------------------------------

TEST_F(History, the_lock_is_held_from_the_opening_to_the_end) {
    {
        TavroHistory history;
        open(history);
        EXPECT_TRUE(isLocked(file()));
        std::string error;
        ASSERT_TRUE(history.Record(renameOperation("/a", "/b"), error)) << error;
        EXPECT_TRUE(isLocked(file()));
    }
    EXPECT_FALSE(isLocked(file()));
}

TEST_F(History, a_failed_opening_holds_no_lock) {
    makeDirectory(file());
    TavroHistory history;
    std::string error;
    ASSERT_FALSE(history.Open(file(), error));
    EXPECT_FALSE(isLocked(file()));
}

TEST_F(History, a_program_that_is_started_meanwhile_does_not_hold_the_lock) {
    TavroHistory history;
    open(history);
    int found = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        if (fs::read_symlink(entry.path(), ec) == file().string() + ".lock") {
            ++found;
            const int flags = fcntl(std::stoi(entry.path().filename().string()), F_GETFD);
            EXPECT_EQ(flags & FD_CLOEXEC, FD_CLOEXEC);
        }
    }
    EXPECT_EQ(found, 1);
}

TEST_F(History, processes_that_record_at_the_same_time_lose_nothing) {
    constexpr int processes = 4;
    constexpr int each = 40;
    std::vector<pid_t> children;
    for (int process = 0; process < processes; ++process) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int i = 0; i < each; ++i) {
                record(renameOperation("/" + std::to_string(process), "/" + std::to_string(i)));
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
    const std::vector<std::string> all = undoable();
    EXPECT_EQ(all.size(), static_cast<std::size_t>(processes * each));
    for (int process = 0; process < processes; ++process) {
        std::vector<std::string> own;
        std::vector<std::string> expected;
        for (int i = 0; i < each; ++i) {
            expected.push_back(
                describe(renameOperation("/" + std::to_string(process), "/" + std::to_string(i))));
        }
        std::copy_if(all.begin(), all.end(), std::back_inserter(own), [&](const std::string& text) {
            return text.find("step '/" + std::to_string(process) + "'") != std::string::npos;
        });
        EXPECT_EQ(own, expected);
    }
}

TEST_F(History, a_signal_that_is_handled_ends_the_wait_for_the_lock) {
    TavroHistory held;
    open(held);
    runInChild([&] {
        struct sigaction action = {};
        action.sa_handler = [](int /*signal*/) {};
        ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
        const itimerval soonAndAgain = {{0, 20000}, {0, 50000}};
        ASSERT_EQ(setitimer(ITIMER_REAL, &soonAndAgain, nullptr), 0);
        TavroHistory history;
        std::string error;
        EXPECT_FALSE(history.Open(file(), error));
        EXPECT_EQ(error, "Cannot lock the history '" + file().string() +
                             ".lock': " + systemText(std::errc::interrupted));
    });
}

TEST_F(History, with_patience_signals_do_not_end_the_wait_for_the_lock) {
    runInChild([&] {
        struct sigaction action = {};
        action.sa_handler = [](int /*signal*/) {};
        ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
        TavroHistory history;
        std::string error;
        bool bOpen = false;
        std::thread waiting;
        {
            TavroHistory held;
            open(held);
            waiting =
                std::thread([&] { bOpen = history.Open(file(), error, std::chrono::seconds(60)); });
            for (int i = 0; i < 10; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                pthread_kill(waiting.native_handle(), SIGUSR1);
            }
        }
        waiting.join();
        EXPECT_TRUE(bOpen) << error;
        EXPECT_TRUE(history.Record(renameOperation("/a", "/b"), error)) << error;
    });
    EXPECT_EQ(undoable().size(), 1U);
}

TEST_F(History, patience_for_signals_ends) {
    TavroHistory held;
    open(held);
    runInChild([&] {
        struct sigaction action = {};
        action.sa_handler = [](int /*signal*/) {};
        ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
        const itimerval soonAndAgain = {{0, 20000}, {0, 50000}};
        ASSERT_EQ(setitimer(ITIMER_REAL, &soonAndAgain, nullptr), 0);
        TavroHistory history;
        std::string error;
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(history.Open(file(), error, std::chrono::seconds(1)));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    });
}

// ---------------------------------------------------------------------------------------------
// Saving
// ---------------------------------------------------------------------------------------------

std::string notSaved(const fs::path& file, std::errc error) {
    return "Cannot save the history '" + file.string() + "': " + systemText(error);
}

bool canSeeSyncs() {
    bool bSeen = false;
    const CallObserver observer(
        [&](const std::string& call, const std::string& /*path*/) { bSeen |= call == "fsync"; });
    fsync(-1);
    return bSeen;
}

TEST_F(History, a_save_that_fails_leaves_the_old_file_and_nothing_else) {
    record(renameOperation("/a", "/b"));
    const Snapshot before = everything();
    const std::vector<Fault> faults = {{"open", EACCES, "history.json.new"},
                                       {"write", ENOSPC, "history.json.new"},
                                       {"close", EIO, "history.json.new"},
                                       {"rename", EPERM, "history.json.new"}};
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.Call);
        TavroHistory history;
        open(history);
        const FaultInjector injector({fault});
        std::string error;
        EXPECT_FALSE(history.Record(renameOperation("/c", "/d"), error));
        EXPECT_TRUE(injector.eachFired());
        EXPECT_EQ(error, notSaved(file(), static_cast<std::errc>(fault.Errno)));
        EXPECT_EQ(everything(), before);
        EXPECT_EQ(describe(history.Undoable()),
                  std::vector<std::string>{describe(renameOperation("/a", "/b"))});
    }
}

TEST_F(History, a_save_that_does_not_reach_the_disk_has_failed) {
    if (!canSeeSyncs()) {
        GTEST_SKIP() << "the fault injector does not know fsync";
    }
    record(renameOperation("/a", "/b"));
    const Snapshot before = everything();
    TavroHistory history;
    open(history);
    const FaultInjector injector({{"fsync", EIO, "history.json.new"}});
    std::string error;
    EXPECT_FALSE(history.Record(renameOperation("/c", "/d"), error));
    EXPECT_TRUE(injector.eachFired());
    EXPECT_EQ(error, notSaved(file(), std::errc::io_error));
    EXPECT_EQ(everything(), before);
}

TEST_F(History, a_save_is_synced_then_renamed_then_its_folder_is_synced) {
    if (!canSeeSyncs()) {
        GTEST_SKIP() << "the fault injector does not know fsync";
    }
    TavroHistory history;
    open(history);
    std::vector<std::string> calls;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "write" || call == "fsync" || call == "rename") {
            calls.push_back(call + " " + path);
        }
    });
    std::string error;
    ASSERT_TRUE(history.Record(renameOperation("/a", "/b"), error)) << error;
    const std::string newFile = file().string() + ".new";
    EXPECT_EQ(calls,
              (std::vector<std::string>{"write " + newFile, "fsync " + newFile, "rename " + newFile,
                                        "fsync " + file().parent_path().string()}));
}

TEST_F(History, a_folder_that_cannot_be_synced_is_no_failure) {
    TavroHistory history;
    open(history);
    const FaultInjector injector(
        {{"open", EACCES, file().parent_path().string(), 1, false, /*bWholePath=*/true}});
    std::string error;
    EXPECT_TRUE(history.Record(renameOperation("/a", "/b"), error)) << error;
    EXPECT_TRUE(injector.eachFired());
}

TEST_F(History, a_save_in_pieces_is_whole) {
    TavroHistory history;
    open(history);
    std::string error;
    {
        const FaultInjector injector({{"write", 0, "history.json.new"}});
        ASSERT_TRUE(history.Record(renameOperation("/a", "/b"), error)) << error;
        EXPECT_TRUE(injector.eachFired());
    }
    ASSERT_TRUE(history.Open(file(), error)) << error;
    EXPECT_EQ(describe(history.Undoable()),
              std::vector<std::string>{describe(renameOperation("/a", "/b"))});
}

TEST_F(History, at_every_moment_the_file_is_the_old_or_the_new_one) {
    record(renameOperation("/a", "/b"));
    const std::string old = readFile(file());
    std::vector<std::string> seen;
    {
        TavroHistory history;
        open(history);
        const CallObserver observer([&](const std::string& /*call*/, const std::string& /*path*/) {
            seen.push_back(readFile(file()));
        });
        std::string error;
        ASSERT_TRUE(history.Record(renameOperation("/c", "/d"), error)) << error;
    }
    const std::string young = readFile(file());
    EXPECT_NE(old, young);
    ASSERT_GE(seen.size(), 3U);
    for (const std::string& bytes : seen) {
        EXPECT_TRUE(bytes == old || bytes == young) << bytes;
    }
}

TEST_F(History, what_a_killed_process_left_beside_the_file_is_no_obstacle) {
    writeFile(file().string() + ".new", "half of");
    record(renameOperation("/a", "/b"));
    EXPECT_EQ(undoable().size(), 1U);
    EXPECT_FALSE(isPresent(file().string() + ".new"));
}

TEST_F(History, saving_follows_no_link) {
    writeFile(work("precious"), "bytes");
    makeDirectory(file().parent_path());
    fs::create_symlink(work("precious"), file().string() + ".new");
    record(renameOperation("/a", "/b"));
    EXPECT_EQ(readFile(work("precious")), "bytes");
    EXPECT_EQ(undoable().size(), 1U);
}

TEST_F(History, recording_drops_what_could_be_redone) {
    writeFile(work("a"));
    renameAndRecord("a", "b");
    ASSERT_TRUE(undo().bDone);
    ASSERT_EQ(redoable().size(), 1U);
    renameAndRecord("a", "c");
    EXPECT_EQ(redoable(), std::vector<std::string>{});
    EXPECT_EQ(undoable(),
              std::vector<std::string>{describe(renameOperation(work("a"), work("c")))});
}

// ---------------------------------------------------------------------------------------------
// Undo and redo in general
// ---------------------------------------------------------------------------------------------

TEST_F(History, with_nothing_to_undo_or_redo_that_is_said) {
    record(renameOperation("/a", "/b"));
    expectRefused(&History::redo, "Nothing to redo");
    fs::remove(file());
    expectRefused(&History::undo, "Nothing to undo");
}

TEST_F(History, the_newest_is_undone_first_and_redone_last) {
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
    expectRefused(&History::redo, "Nothing to redo");
}

TEST_F(History, one_open_history_undoes_and_redoes_as_several_do) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    renameAndRecord("b", "c");
    TavroHistory history;
    open(history);
    TavroHistoryOperation operation;
    std::string error;
    ASSERT_TRUE(history.Undo({}, operation, error)) << error;
    ASSERT_TRUE(history.Undo({}, operation, error)) << error;
    EXPECT_EQ(readFile(work("a")), "bytes");
    ASSERT_TRUE(history.Redo({}, operation, error)) << error;
    EXPECT_EQ(describe(operation), describe(renameOperation(work("a"), work("b"))));
    EXPECT_EQ(readFile(work("b")), "bytes");
}

TEST_F(History, what_cannot_be_undone_any_more_can_be_dropped) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    const TavroHistoryOperation stuck = renameOperation(work("gone"), work("nowhere"));
    record(stuck);
    const Snapshot before = workTree();
    expectRefused(&History::undo, missing(work("nowhere")));
    const Outcome dropped = drop();
    ASSERT_TRUE(dropped.bDone) << dropped.Message;
    EXPECT_EQ(describe(dropped.Operation), describe(stuck));
    EXPECT_EQ(workTree(), before);
    EXPECT_TRUE(undo().bDone);
    EXPECT_TRUE(isPresent(work("a")));
}

TEST_F(History, dropping_keeps_what_can_be_redone) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    renameAndRecord("b", "c");
    ASSERT_TRUE(undo().bDone);
    ASSERT_TRUE(drop().bDone);
    EXPECT_EQ(undoable(), std::vector<std::string>{});
    EXPECT_TRUE(redo().bDone);
    EXPECT_TRUE(isPresent(work("c")));
}

TEST_F(History, with_nothing_to_drop_that_is_said) {
    record(renameOperation("/a", "/b"));
    ASSERT_TRUE(drop().bDone);
    expectRefused(&History::drop, "Nothing to drop");
}

TEST_F(History, nothing_is_dropped_when_the_history_cannot_be_saved) {
    record(renameOperation("/a", "/b"));
    TavroHistory history;
    open(history);
    const FaultInjector injector({{"fsync", EIO, "history.json.new"}});
    TavroHistoryOperation operation;
    std::string error;
    EXPECT_FALSE(history.DropNewest(operation, error));
    EXPECT_NE(error, "");
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_EQ(describe(operation), describe(TavroHistoryOperation()));
    EXPECT_EQ(describe(history.Undoable()),
              std::vector<std::string>{describe(renameOperation("/a", "/b"))});
}

TEST_F(History, nothing_is_undone_when_the_history_cannot_be_saved) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    const Snapshot before = everything();
    for (const Fault& fault :
         {Fault{"open", EROFS, "history.json.new"}, Fault{"write", ENOSPC, "history.json.new"},
          Fault{"close", EIO, "history.json.new"}}) {
        const FaultInjector injector({fault});
        expectRefused(&History::undo, notSaved(file(), static_cast<std::errc>(fault.Errno)));
        EXPECT_TRUE(injector.eachFired());
    }
    EXPECT_EQ(everything(), before);
}

TEST_F(History, nothing_is_redone_when_the_folder_of_the_history_is_read_only) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    ASSERT_TRUE(undo().bDone);
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(file().parent_path(), fs::perms(0500));
        expectRefused(&History::redo, notSaved(file(), std::errc::permission_denied));
    });
}

TEST_F(History, an_undo_that_could_not_be_saved_afterwards_says_what_holds) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    const std::string oldBytes = readFile(file());
    TavroHistory history;
    open(history);
    TavroHistoryOperation operation;
    std::string error;
    {
        const FaultInjector injector({{"rename", EIO, "history.json.new"}});
        EXPECT_FALSE(history.Undo({}, operation, error));
        EXPECT_TRUE(injector.eachFired());
    }
    EXPECT_EQ(error, "It is undone, but the saved history still has it as done: " +
                         notSaved(file(), std::errc::io_error));
    EXPECT_EQ(readFile(work("a")), "bytes");
    EXPECT_FALSE(isPresent(work("b")));
    EXPECT_EQ(readFile(file()), oldBytes);
    EXPECT_EQ(history.Undoable().size(), 0U);
    EXPECT_EQ(history.Redoable().size(), 1U);
    EXPECT_EQ(describe(operation), describe(renameOperation(work("a"), work("b"))));
    {
        const FaultInjector injector({{"rename", EIO, "history.json.new"}});
        EXPECT_FALSE(history.Redo({}, operation, error));
    }
    EXPECT_EQ(error, "It is redone, but the saved history still has it as undone: " +
                         notSaved(file(), std::errc::io_error));
    EXPECT_EQ(readFile(work("b")), "bytes");
    ASSERT_TRUE(history.Undo({}, operation, error)) << error;
    EXPECT_NE(readFile(file()), oldBytes);
}

// ---------------------------------------------------------------------------------------------
// Renamed and moved entries
// ---------------------------------------------------------------------------------------------

TEST_F(History, a_renamed_file_goes_back_and_forth) {
    writeFile(work("a"), "bytes");
    const Snapshot before = workTree();
    renameAndRecord("a", "b");
    expectRoundTrips(before);
}

TEST_F(History, a_renamed_directory_goes_back_and_forth) {
    writeFile(work("a/deep/file"), "bytes");
    const Snapshot before = workTree();
    renameAndRecord("a", "b");
    expectRoundTrips(before);
}

TEST_F(History, a_renamed_dangling_link_goes_back_and_forth) {
    fs::create_symlink("nowhere", work("a"));
    const Snapshot before = workTree();
    renameAndRecord("a", "b");
    expectRoundTrips(before);
}

TEST_F(History, several_moved_entries_go_back_and_forth) {
    writeFile(work("a"), "a");
    writeFile(work("b/file"), "b");
    fs::create_symlink("b", work("c"));
    makeDirectory(work("target"));
    const Snapshot before = workTree();
    moveAndRecord({{"a", "target/a"}, {"b", "target/b"}, {"c", "target/c"}});
    expectRoundTrips(before);
}

TEST_F(History, an_entry_moved_before_its_folder_goes_back_after_it) {
    writeFile(work("folder/inner"), "inner");
    writeFile(work("folder/other"), "other");
    makeDirectory(work("target"));
    const Snapshot before = workTree();
    moveAndRecord({{"folder/inner", "target/inner"}, {"folder", "target/folder"}});
    expectRoundTrips(before);
}

TEST_F(History, folders_that_are_gone_are_created_again) {
    writeFile(work("one/two/a"), "bytes");
    makeDirectory(work("target"));
    moveAndRecord({{"one/two/a", "target/a"}});
    fs::remove_all(work("one"));
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("one/two/a")), "bytes");
    fs::remove(work("target"));
    ASSERT_TRUE(redo().bDone);
    EXPECT_EQ(readFile(work("target/a")), "bytes");
}

TEST_F(History, folders_of_unknown_modes_are_created_again_for_the_user_alone) {
    writeFile(work("one/two/a"), "bytes");
    makeDirectory(work("target"));
    moveAndRecord({{"one/two/a", "target/a"}});
    fs::remove_all(work("one"));
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(modeOf(work("one")), 0700U);
    EXPECT_EQ(modeOf(work("one/two")), 0700U);
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

/// A folder that a move has merged into another one, and removed.
class MergingMove : public History {
protected:
    MergingMove() {
        writeFile(work("tree/private/a"), "bytes");
        makeDirectory(work("tree/private/empty"));
        makeDirectory(work("target/tree/private/empty"));
        fs::permissions(work("tree/private"), static_cast<fs::perms>(0700));
        fs::permissions(work("tree/private/empty"), static_cast<fs::perms>(0500));
        fs::permissions(work("tree"), static_cast<fs::perms>(02711));
        m_before = workTree();
        TavroTransferPlan plan;
        plan.bMove = true;
        plan.Items.emplace_back();
        plan.Items[0].SourcePath = work("tree");
        plan.Items[0].DestinationPath = work("target/tree");
        TavroTransferReport report;
        EXPECT_TRUE(TavroCarryOutTransfer(plan, {}, report));
        m_operation = {TavroHistoryKind::Move, 7, {}, {}, report.RemovedFolders};
        for (const TavroTransferredEntry& entry : report.Done) {
            m_operation.Steps.push_back({entry.From.string(), entry.To.string()});
        }
        record(m_operation);
    }

    TavroHistoryOperation m_operation;
    Snapshot m_before;
};

TEST_F(MergingMove, goes_back_and_forth_with_the_modes_of_its_folders) {
    EXPECT_EQ(m_operation.RemovedFolders.size(), 3U);
    expectRoundTrips(m_before);
}

TEST_F(MergingMove, is_not_undone_onto_anything) {
    for (const auto& putObstacle : {obstacles()[0], obstacles()[2], obstacles()[3]}) {
        putObstacle(work("tree"));
        expectRefused(&History::undo, inTheWay(work("tree")));
        fs::remove(work("tree"));
    }
    makeDirectory(work("tree/private"));
    writeFile(work("tree/private/empty"), "a file");
    expectRefused(&History::undo, inTheWay(work("tree/private/empty")));
}

TEST_F(MergingMove, an_undo_that_fails_leaves_no_folder_behind) {
    const FaultInjector injector({{"mkdir", ENOSPC, work("tree/private/empty"), 1, false, true}});
    expectRefused(&History::undo, "Cannot create the folder '" + work("tree/private/empty") +
                                      "': " + systemText(std::errc::no_space_on_device));
    EXPECT_TRUE(injector.eachFired());
}

TEST_F(MergingMove, a_folder_that_is_there_again_keeps_its_mode) {
    makeDirectory(work("tree"));
    fs::permissions(work("tree"), static_cast<fs::perms>(0750));
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(modeOf(work("tree")), 0750U);
}

TEST_F(MergingMove, a_redo_keeps_a_folder_that_holds_something) {
    ASSERT_TRUE(undo().bDone);
    writeFile(work("tree/new"), "bytes");
    ASSERT_TRUE(redo().bDone);
    EXPECT_EQ(readFile(work("tree/new")), "bytes");
    EXPECT_FALSE(isPresent(work("tree/private")));
}

TEST_F(MergingMove, its_folders_stand_in_the_file) {
    const auto json = nlohmann::json::parse(readFile(file()));
    EXPECT_EQ(json["undoable"][0]["folders"][1],
              (nlohmann::json{{"path", work("tree/private")}, {"mode", 0700}}));
}

TEST_F(History, a_renaming_is_not_undone_onto_anything) {
    writeFile(work("a"), "bytes");
    const Snapshot before = workTree();
    renameAndRecord("a", "b");
    for (const auto& putObstacle : obstacles()) {
        putObstacle(work("a"));
        expectRefused(&History::undo, inTheWay(work("a")));
        fs::remove(work("a"));
    }
    expectRoundTrips(before); // the refusals were no loss: it can be tried again
}

TEST_F(History, a_renaming_is_not_redone_onto_anything) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    ASSERT_TRUE(undo().bDone);
    for (const auto& putObstacle : obstacles()) {
        putObstacle(work("b"));
        expectRefused(&History::redo, inTheWay(work("b")));
        fs::remove(work("b"));
    }
    EXPECT_TRUE(redo().bDone);
}

TEST_F(History, a_renamed_entry_that_is_gone_is_named) {
    writeFile(work("a"), "bytes");
    renameAndRecord("a", "b");
    fs::rename(work("b"), work("c"));
    expectRefused(&History::undo, missing(work("b")));
    fs::rename(work("c"), work("b"));
    ASSERT_TRUE(undo().bDone);
    fs::rename(work("a"), work("c"));
    expectRefused(&History::redo, missing(work("a")));
}

TEST_F(History, a_file_or_dangling_link_in_place_of_a_folder_is_named) {
    writeFile(work("one/two/a"), "bytes");
    makeDirectory(work("target"));
    moveAndRecord({{"one/two/a", "target/a"}});
    fs::remove_all(work("one"));
    for (const auto& putObstacle : {obstacles()[0], obstacles()[2], obstacles()[3]}) {
        putObstacle(work("one"));
        expectRefused(&History::undo, inTheWay(work("one")));
        fs::remove(work("one"));
    }
}

TEST_F(History, one_obstacle_keeps_all_moved_entries_where_they_are) {
    const std::vector<std::string> names = {"a", "b", "c"};
    makeDirectory(work("target"));
    for (const std::string& name : names) {
        writeFile(work(name), name);
    }
    moveAndRecord({{"a", "target/a"}, {"b", "target/b"}, {"c", "target/c"}});
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        writeFile(work(name), "other");
        expectRefused(&History::undo, inTheWay(work(name)));
        fs::remove(work(name));
        fs::rename(work("target/" + name), work("elsewhere"));
        expectRefused(&History::undo, missing(work("target/" + name)));
        fs::rename(work("elsewhere"), work("target/" + name));
    }
    ASSERT_TRUE(undo().bDone);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        writeFile(work("target/" + name), "other");
        expectRefused(&History::redo, inTheWay(work("target/" + name)));
        fs::remove(work("target/" + name));
    }
    EXPECT_TRUE(redo().bDone);
}

TEST_F(History, a_place_that_cannot_be_looked_at_is_refused) {
    writeFile(work("closed/a"), "a");
    moveAndRecord({{"closed/a", "a"}});
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(work("closed"), fs::perms::none);
        const Outcome outcome = undo();
        EXPECT_FALSE(outcome.bDone);
        EXPECT_EQ(outcome.Message, "Cannot look at '" + work("closed/a") +
                                       "': " + systemText(std::errc::permission_denied));
        EXPECT_EQ(readFile(work("a")), "a");
    });
}

/// Moves of two entries out of folders that are gone since. The last is undone first.
class TwoMoves : public History {
protected:
    TwoMoves() {
        writeFile(work("from/1/a"), "a");
        writeFile(work("from/2/b"), "b");
        moveAndRecord({{"from/1/a", "a"}, {"from/2/b", "b"}});
        fs::remove_all(work("from"));
    }

    /// Cancels as soon as the first step of the undo is done, having called `before`.
    TavroTransferCallbacks cancelInBetween(const std::function<void()>& before) const {
        TavroTransferCallbacks callbacks;
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
    expectRefused(&History::undo, "Cancelled", cancelInBetween([&] { ++calls; }));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("from/1/a")), "a");
    EXPECT_EQ(readFile(work("from/2/b")), "b");
}

TEST_F(TwoMoves, a_step_that_fails_takes_the_others_back) {
    runUnprivileged(m_sandbox.path(), [&] {
        makeDirectory(work("from/1"));
        fs::permissions(work("from/1"), fs::perms(0500));
        expectRefusedNaming(&History::undo, work("a"));
    });
}

TEST_F(TwoMoves, what_cannot_be_moved_back_is_told) {
    const TavroTransferCallbacks callbacks =
        cancelInBetween([&] { writeFile(work("b"), "other"); });
    const Outcome outcome = undo(callbacks);
    EXPECT_FALSE(outcome.bDone);
    const std::string beginning = "Cancelled; moving back failed: ";
    EXPECT_EQ(outcome.Message.substr(0, beginning.size()), beginning);
    EXPECT_NE(outcome.Message.find(work("b")), std::string::npos) << outcome.Message;
    EXPECT_EQ(readFile(work("b")), "other");
    EXPECT_EQ(readFile(work("from/2/b")), "b");
    EXPECT_EQ(readFile(work("a")), "a");
    EXPECT_EQ(undoable().size(), 1U);
}

// ---------------------------------------------------------------------------------------------
// Trashed entries
// ---------------------------------------------------------------------------------------------

TEST_F(History, trashed_entries_go_back_and_forth) {
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
}

TEST_F(History, trashing_again_replaces_the_list) {
    writeFile(work("a"), "first");
    trashAndRecord({"a"});
    ASSERT_TRUE(undo().bDone);
    writeFile(work("other/a"), "second");
    std::vector<TavroTrashEntry> taken;
    std::string error;
    ASSERT_TRUE(TavroTrashSelection({TavroSelectEntry(work("other/a"))}, {}, taken, error));
    const Outcome redone = redo();
    ASSERT_TRUE(redone.bDone) << redone.Message;
    ASSERT_EQ(redone.Operation.TrashEntries.size(), 1U);
    EXPECT_EQ(fs::path(redone.Operation.TrashEntries[0].TrashPath).filename(), "a copy 1");
    EXPECT_EQ(redone.Operation.TrashEntries[0].OriginalPath, work("a"));
    ASSERT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("a")), "first");
}

TEST_F(History, links_are_trashed_again_as_directories_so_that_they_stay_links) {
    writeFile(work("target"), "bytes");
    fs::create_symlink("target", work("link"));
    trashAndRecord({"link"});
    ASSERT_TRUE(undo().bDone);
    const Outcome redone = redo();
    ASSERT_TRUE(redone.bDone) << redone.Message;
    ASSERT_EQ(redone.Operation.TrashEntries.size(), 1U);
    EXPECT_TRUE(redone.Operation.TrashEntries[0].bDirectory);
    EXPECT_EQ(fs::read_symlink(redone.Operation.TrashEntries[0].TrashPath), "target");
    EXPECT_EQ(redone.Operation.TrashEntries[0].OriginalPath, work("link"));
}

TEST_F(History, a_taken_original_place_keeps_everything_in_the_trash) {
    writeFile(work("a"), "a");
    writeFile(work("b"), "b");
    trashAndRecord({"a", "b"});
    writeFile(work("b"), "other");
    expectRefusedNaming(&History::undo, work("b"));
    fs::remove(work("b"));
    EXPECT_TRUE(undo().bDone);
    EXPECT_EQ(readFile(work("b")), "b");
}

TEST_F(History, an_entry_gone_from_the_trash_is_named) {
    writeFile(work("a"), "a");
    writeFile(work("b"), "b");
    trashAndRecord({"a", "b"});
    const fs::path item = m_sandbox / "home/.local/share/Trash/files/b";
    fs::remove(item);
    expectRefusedNaming(&History::undo, item.string());
}

TEST_F(History, trashing_again_is_refused_when_an_entry_is_gone) {
    writeFile(work("a"), "a");
    writeFile(work("b"), "b");
    trashAndRecord({"a", "b"});
    ASSERT_TRUE(undo().bDone);
    fs::remove(work("b"));
    expectRefused(&History::redo, missing(work("b")));
}

// ---------------------------------------------------------------------------------------------
// Copies
// ---------------------------------------------------------------------------------------------

TEST_F(History, copies_go_to_the_trash_and_come_back) {
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

TEST_F(History, what_is_in_the_trash_is_told_while_a_copy_is_undone) {
    writeFile(work("a"), "a");
    copyAndRecord({{"a", "b"}});
    const Outcome undone = undo();
    ASSERT_TRUE(undone.bDone) << undone.Message;
    ASSERT_EQ(undone.Operation.TrashEntries.size(), 1U);
    EXPECT_EQ(undone.Operation.TrashEntries[0].OriginalPath, work("b"));
    EXPECT_EQ(undone.Operation.Steps.size(), 1U);
    const Outcome redone = redo();
    ASSERT_TRUE(redone.bDone) << redone.Message;
    EXPECT_EQ(redone.Operation.TrashEntries.size(), 0U);
}

TEST_F(History, changed_copies_go_to_the_trash_with_their_changes) {
    writeFile(work("a"), "a");
    copyAndRecord({{"a", "b"}});
    writeFile(work("b"), "a and more");
    ASSERT_TRUE(undo().bDone);
    ASSERT_TRUE(redo().bDone);
    EXPECT_EQ(readFile(work("b")), "a and more");
}

TEST_F(History, copies_in_copied_folders_and_copies_told_twice_go_to_the_trash_once) {
    writeFile(work("folder/file"), "file");
    writeFile(work("file"), "other");
    writeFile(work("folder-2"), "another");
    const Snapshot before = workTree();
    makeDirectory(work("new"));
    copyAndRecord({{"folder", "new/folder"},
                   {"file", "new/folder/inner"},
                   {"folder-2", "new/folder-2"},
                   {"file", "new/folder-2"}});
    const Outcome undone = undo();
    ASSERT_TRUE(undone.bDone) << undone.Message;
    EXPECT_EQ(trashedNames(), (std::set<std::string>{"folder", "folder-2"}));
    ASSERT_TRUE(redo().bDone);
    EXPECT_EQ(readFile(work("new/folder/inner")), "other");
    EXPECT_EQ(readFile(work("new/folder-2")), "other");
}

TEST_F(History, a_copy_that_is_gone_is_named_and_the_others_stay) {
    writeFile(work("a"), "a");
    copyAndRecord({{"a", "b"}, {"a", "c"}});
    fs::remove(work("c"));
    expectRefused(&History::undo, missing(work("c")));
}

TEST_F(History, copies_do_not_come_back_onto_anything) {
    writeFile(work("a"), "a");
    copyAndRecord({{"a", "b"}, {"a", "c"}});
    ASSERT_TRUE(undo().bDone);
    writeFile(work("c"), "other");
    expectRefusedNaming(&History::redo, work("c"));
    fs::remove(work("c"));
    EXPECT_TRUE(redo().bDone);
}

// ---------------------------------------------------------------------------------------------
// Created directories
// ---------------------------------------------------------------------------------------------

TEST_F(History, created_directories_go_and_come_back) {
    const Snapshot before = workTree();
    createAndRecord({"one", "one/two", "one/two/three", "other"});
    expectRoundTrips(before);
}

TEST_F(History, a_created_directory_that_is_not_empty_stays_with_all_others) {
    createAndRecord({"one", "one/two", "one/two/three", "other"});
    for (const std::string name : {"one", "one/two", "one/two/three", "other"}) {
        SCOPED_TRACE(name);
        for (const auto& putItem : obstacles()) {
            putItem(work(name + "/item"));
            expectRefused(&History::undo, "The folder '" + work(name) + "' is not empty");
            fs::remove(work(name + "/item"));
        }
    }
    EXPECT_TRUE(undo().bDone);
}

TEST_F(History, a_created_directory_that_is_gone_or_replaced_is_named) {
    createAndRecord({"one", "two"});
    fs::remove(work("one"));
    expectRefused(&History::undo, missing(work("one")));
    writeFile(work("one"), "bytes");
    expectRefused(&History::undo, "'" + work("one") + "' is not a folder any more");
    fs::remove(work("one"));
    makeDirectory(work("elsewhere"));
    fs::create_symlink("elsewhere", work("one"));
    expectRefused(&History::undo, "'" + work("one") + "' is not a folder any more");
}

TEST_F(History, directories_are_not_created_again_onto_anything) {
    createAndRecord({"one", "two"});
    ASSERT_TRUE(undo().bDone);
    for (const std::string name : {"one", "two"}) {
        for (const auto& putObstacle : obstacles()) {
            putObstacle(work(name));
            expectRefused(&History::redo, inTheWay(work(name)));
            fs::remove(work(name));
        }
    }
    EXPECT_TRUE(redo().bDone);
}

TEST_F(History, directories_that_could_not_all_be_created_again_are_removed) {
    createAndRecord({"one", "one/two", "one/two/three"});
    ASSERT_TRUE(undo().bDone);
    const FaultInjector injector({{"mkdir", ENOSPC, work("one/two/three"), 1, false, true}});
    expectRefused(&History::redo, "Cannot create the folder '" + work("one/two/three") +
                                      "': " + systemText(std::errc::no_space_on_device));
    EXPECT_TRUE(injector.eachFired());
}

TEST_F(History, directories_that_could_not_all_be_removed_are_created_again_with_their_modes) {
    makeDirectory(work("closed"));
    createAndRecord({"closed/one", "closed/one/two", "closed/one/two/three"});
    fs::permissions(work("closed/one/two"), fs::perms(0777));
    fs::permissions(work("closed/one/two/three"), fs::perms(0705));
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(work("closed"), fs::perms(0500));
        expectRefused(&History::undo, "Cannot remove the folder '" + work("closed/one") +
                                          "': " + systemText(std::errc::permission_denied));
    });
}

TEST_F(History, a_created_directory_that_cannot_be_read_stays) {
    createAndRecord({"one"});
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(work("one"), fs::perms::none);
        const Outcome outcome = undo();
        EXPECT_FALSE(outcome.bDone);
        EXPECT_EQ(outcome.Message, "Cannot read the folder '" + work("one") +
                                       "': " + systemText(std::errc::permission_denied));
        EXPECT_TRUE(isPresent(work("one")));
    });
}

} // namespace
