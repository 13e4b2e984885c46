// What becomes of the disk, the list and the sentence when a step of trashing, restoring or redoing
// fails. After every outcome the whole sandbox, home trash included, is compared.

#include "tavroops.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <regex>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

const std::string trash = "home/.local/share/Trash";

/// Three entries in a directory of the sandbox: the files "a" and "c", and the directory "b". The
/// home trash is in the sandbox too and has its directories.
class TrashFaults : public testing::Test {
protected:
    TrashFaults() : m_oldMask(umask(022)) {
        makeDirectory(m_files);
        makeDirectory(m_info);
        writeFile(m_work / "a", "bytes of a");
        writeFile(m_work / "b/sub/file", "bytes of b");
        fs::create_symlink("nowhere", m_work / "b/link");
        writeFile(m_work / "c", "bytes of c");
        m_before = snapshot();
    }

    ~TrashFaults() override {
        umask(m_oldMask);
    }

    // The names of things.

    std::string original(const std::string& name) const {
        return (m_work / name).string();
    }
    std::string trashed(const std::string& name) const {
        return (m_files / name).string();
    }
    std::string record(const std::string& name) const {
        return (m_info / (name + ".trashinfo")).string();
    }
    std::vector<TavroOperationEntry> selection() const {
        return {
            {"a", original("a"), false}, {"b", original("b"), true}, {"c", original("c"), false}};
    }

    // Rules for calls to fail by.

    static Fault whole(const char* call, int error, const std::string& path, int when = 1) {
        return {call, error, path, when, false, true};
    }
    Fault noTrashing(const std::string& name, int error = EIO) const {
        return whole("rename", error, original(name));
    }
    /// Both for a restore and for a move back.
    Fault noReturn(const std::string& name, int error = EACCES) const {
        return whole("rename", error, trashed(name));
    }
    /// The record cannot be opened the how-manyeth time.
    Fault noRecord(const std::string& name, int when = 1) const {
        return whole("fopen64", ENOSPC, record(name), when);
    }

    // Sentences.

    static std::string moveFailure(const std::string& path, std::errc reason) {
        return "Failed to move '" + path + "': " + systemText(reason);
    }
    std::string trashingFailure(const std::string& name) const {
        return moveFailure(original(name), std::errc::io_error);
    }
    std::string returnFailure(const std::string& name) const {
        return moveFailure(trashed(name), std::errc::permission_denied);
    }
    std::string recordFailure(const std::string& name) const {
        return "Failed to create trash metadata '" + record(name) + "'.";
    }
    static std::string rollback(const std::string& sentence) {
        return " Rollback failed: " + sentence;
    }

    // States of the disk.

    /// The whole sandbox, with the dates of all records made equal.
    Snapshot snapshot() const {
        static const std::regex date("DeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n");
        Snapshot rows = takeSnapshot(m_box.path());
        for (auto& [name, row] : rows) {
            if (name.rfind(trash + "/info/", 0) == 0 && row.rfind("file", 0) == 0) {
                row = std::regex_replace(row, date, "DeletionDate=SOME TIME\n");
            }
        }
        return rows;
    }

    static void moveRows(Snapshot& rows, const std::string& from, const std::string& to) {
        Snapshot moved;
        for (const auto& [name, row] : rows) {
            const bool bBelow = name == from || name.rfind(from + "/", 0) == 0;
            moved[bBelow ? to + name.substr(from.size()) : name] = row;
        }
        rows = moved;
    }

    /// A state with this entry in the trash.
    Snapshot withTrashed(Snapshot rows, const std::string& name, bool bRecord = true) const {
        moveRows(rows, "work/" + name, trash + "/files/" + name);
        if (bRecord) {
            rows[recordRow(name)] =
                "file 644 [Trash Info]\nPath=" + original(name) + "\nDeletionDate=SOME TIME\n";
        }
        return rows;
    }
    Snapshot withAllTrashed() const {
        return withTrashed(withTrashed(withTrashed(m_before, "a"), "b"), "c");
    }
    static std::string recordRow(const std::string& name) {
        return trash + "/info/" + name + ".trashinfo";
    }

    // Operations.

    /// Trashing the three fails with this sentence and leaves this state.
    void expectTrashingFails(std::vector<Fault> faults, const std::string& sentence,
                             const Snapshot& state) {
        std::vector<TavroTrashEntry> list = {{"old", "old", "old", true}};
        std::string message = "earlier text";
        {
            const FaultInjector injector(std::move(faults));
            EXPECT_FALSE(TavroTrashEntries(selection(), list, message));
            EXPECT_TRUE(injector.eachFired());
        }
        EXPECT_EQ(message, sentence);
        EXPECT_TRUE(list.empty());
        EXPECT_EQ(snapshot(), state);
    }

    /// Trashing one entry fails with this sentence.
    static void expectTrashingOneFails(const std::string& name, const fs::path& path,
                                       std::vector<Fault> faults, const std::string& sentence) {
        std::vector<TavroTrashEntry> list = {{"old", "old", "old", true}};
        std::string message = "earlier text";
        const FaultInjector injector(std::move(faults));
        EXPECT_FALSE(TavroTrashEntries({{name, path.string(), false}}, list, message));
        EXPECT_TRUE(injector.eachFired());
        EXPECT_EQ(message, sentence);
        EXPECT_TRUE(list.empty());
    }

    /// All three are in the trash now; returns their list.
    std::vector<TavroTrashEntry> trashAll() {
        std::vector<TavroTrashEntry> list;
        std::string message = "as before";
        EXPECT_TRUE(TavroTrashEntries(selection(), list, message)) << message;
        EXPECT_EQ(message, "as before");
        EXPECT_EQ(snapshot(), withAllTrashed());
        return list;
    }

    void expectRestoreFails(const std::vector<TavroTrashEntry>& list, std::vector<Fault> faults,
                            const std::string& sentence, const Snapshot& state) {
        std::string message = "earlier text";
        {
            const FaultInjector injector(std::move(faults));
            EXPECT_FALSE(TavroRestoreTrashEntries(list, message));
            EXPECT_TRUE(injector.eachFired());
        }
        EXPECT_EQ(message, sentence);
        EXPECT_EQ(snapshot(), state);
    }

    const std::vector<std::string> m_names = {"a", "b", "c"};
    Sandbox m_box;
    const fs::path m_work = m_box / "work";
    const fs::path m_files = m_box / (trash + "/files");
    const fs::path m_info = m_box / (trash + "/info");
    const ScopedEnvironment m_home{"HOME", (m_box / "home").string()};
    Snapshot m_before;

private:
    mode_t m_oldMask;
};

// -------------------------------------------------------------------------------------------------
// Trashing
// -------------------------------------------------------------------------------------------------

using TrashEntries = TrashFaults;

TEST_F(TrashEntries, an_entry_that_cannot_be_moved_leaves_everything_as_it_was) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        expectTrashingFails({noTrashing(name)}, trashingFailure(name), m_before);
    }
}

TEST_F(TrashEntries, an_entry_that_is_missing_leaves_everything_as_it_was) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        fs::rename(original(name), m_box / "aside");
        expectTrashingFails({}, moveFailure(original(name), std::errc::no_such_file_or_directory),
                            snapshot());
        fs::rename(m_box / "aside", original(name));
    }
}

TEST_F(TrashEntries, a_record_that_cannot_be_created_leaves_everything_as_it_was) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        expectTrashingFails({noRecord(name)}, recordFailure(name), m_before);
    }
}

TEST_F(TrashEntries, a_directory_with_contents_in_the_place_of_a_record_stays) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        writeFile(fs::path(record(name)) / "contents");
        expectTrashingFails({}, recordFailure(name), snapshot());
        fs::remove_all(record(name));
    }
}

TEST_F(TrashEntries, an_empty_directory_in_the_place_of_a_record_is_cleared_away) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        makeDirectory(record(name));
        expectTrashingFails({}, recordFailure(name), m_before);
    }
}

TEST_F(TrashEntries, a_stale_record_is_lost_with_an_entry_that_cannot_get_its_own) {
    writeFile(record("b"), "stale");
    expectTrashingFails({noRecord("b")}, recordFailure("b"), m_before);
}

TEST_F(TrashEntries, a_part_of_a_record_that_cannot_be_removed_stays_without_a_word) {
    writeFile(record("b"), "stale");
    expectTrashingFails({noRecord("b"), whole("remove", EPERM, record("b"))}, recordFailure("b"),
                        snapshot());
}

TEST_F(TrashEntries, an_entry_that_cannot_be_moved_back_stays_in_the_trash) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        expectTrashingFails({noRecord(name), noReturn(name)},
                            recordFailure(name) + rollback(returnFailure(name)),
                            withTrashed(m_before, name, false));
        fs::rename(trashed(name), original(name));
    }
}

TEST_F(TrashEntries, the_folder_of_an_entry_that_moves_back_is_made_again) {
    writeFile(m_box / "other/d", "bytes");
    const Snapshot before = snapshot();
    bool bRemoved = false;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "fopen64" && path == record("d")) {
            bRemoved = fs::remove(m_box / "other"); // by someone else, now that it is empty
        }
    });
    expectTrashingOneFails("d", m_box / "other/d", {noRecord("d")}, recordFailure("d"));
    EXPECT_TRUE(bRemoved);
    EXPECT_EQ(snapshot(), before);
}

TEST_F(TrashEntries, a_folder_that_cannot_be_made_again_is_told_as_the_rollback) {
    // The only look at the directory itself is that of the move back.
    expectTrashingOneFails("a", m_work / "a", {noRecord("a"), whole("stat", EACCES, m_work)},
                           recordFailure("a") +
                               rollback("Failed to create destination directory: " +
                                        systemText(std::errc::permission_denied)));
    EXPECT_EQ(snapshot(), withTrashed(m_before, "a", false));
}

// The restore of the entries before the failing one goes wrong.

TEST_F(TrashEntries, when_the_first_cannot_be_restored_the_others_stay_with_it) {
    expectTrashingFails({noTrashing("c"), noReturn("a")},
                        trashingFailure("c") + rollback(returnFailure("a")),
                        withTrashed(withTrashed(m_before, "a"), "b"));
}

TEST_F(TrashEntries, when_the_second_cannot_be_restored_the_first_goes_back_to_the_trash) {
    expectTrashingFails({noTrashing("c"), noReturn("b")},
                        trashingFailure("c") + rollback(returnFailure("b")),
                        withTrashed(withTrashed(m_before, "a"), "b"));
}

TEST_F(TrashEntries, a_restored_entry_that_cannot_go_back_to_the_trash_is_a_second_clause) {
    expectTrashingFails({noTrashing("c"), noReturn("b"), whole("rename", EIO, original("a"), 2)},
                        trashingFailure("c") + rollback(returnFailure("b")) +
                            rollback(trashingFailure("a")),
                        withTrashed(m_before, "b"));
}

TEST_F(TrashEntries, both_rollbacks_are_told_when_both_fail) {
    expectTrashingFails({noRecord("c"), noReturn("c"), noReturn("a")},
                        recordFailure("c") + rollback(returnFailure("c")) +
                            rollback(returnFailure("a")),
                        withTrashed(withTrashed(withTrashed(m_before, "a"), "b"), "c", false));
}

TEST_F(TrashEntries, the_rollback_of_a_rollback_is_a_third_clause) {
    expectTrashingFails(
        {noRecord("c"), noReturn("c"), noReturn("b"), whole("rename", EIO, original("a"), 2)},
        recordFailure("c") + rollback(returnFailure("c")) + rollback(returnFailure("b")) +
            rollback(trashingFailure("a")),
        withTrashed(withTrashed(m_before, "b"), "c", false));
}

TEST_F(TrashEntries, one_entry_before_the_failing_one_that_cannot_be_restored) {
    expectTrashingFails({noTrashing("b"), noReturn("a")},
                        trashingFailure("b") + rollback(returnFailure("a")),
                        withTrashed(m_before, "a"));
}

TEST_F(TrashEntries, an_item_that_vanished_from_the_trash_stops_the_whole_restore) {
    bool bDone = false;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (!bDone && call == "rename" && path == original("c")) {
            bDone = fs::remove(trashed("a"));
        }
    });
    Snapshot state = withTrashed(withTrashed(m_before, "a"), "b");
    state.erase(trash + "/files/a");
    expectTrashingFails({noTrashing("c")},
                        trashingFailure("c") + rollback("Trash item is missing: " + trashed("a")),
                        state);
    EXPECT_TRUE(bDone);
}

TEST_F(TrashEntries, a_place_that_was_taken_meanwhile_stops_the_whole_restore) {
    bool bDone = false;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (!bDone && call == "rename" && path == original("c")) {
            writeFile(original("b"), "in the way");
            bDone = true;
        }
    });
    Snapshot state = withTrashed(withTrashed(m_before, "a"), "b");
    state["work/b"] = "file 644 in the way";
    expectTrashingFails(
        {noTrashing("c")},
        trashingFailure("c") + rollback("Restore target already exists: " + original("b")), state);
    EXPECT_TRUE(bDone);
}

TEST_F(TrashEntries, a_dangling_link_cannot_be_restored_by_the_rollback) {
    fs::create_symlink("nowhere", m_work / "link");
    const Snapshot before = snapshot();
    const FaultInjector injector({noTrashing("a")});
    std::vector<TavroTrashEntry> list;
    std::string message;
    EXPECT_FALSE(
        TavroTrashEntries({{"link", original("link"), false}, selection()[0]}, list, message));
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_EQ(message,
              trashingFailure("a") + rollback("Trash item is missing: " + trashed("link")));
    EXPECT_EQ(snapshot(), withTrashed(before, "link"));
    EXPECT_TRUE(list.empty());
}

// Records that fail while they are written.

/// A directory so deep, and of such bytes, that the record of an entry in it is longer than what a
/// stream keeps back until it is closed.
fs::path makeDeepFolder(const fs::path& parent) {
    fs::path folder = parent;
    while (folder.native().size() < 3500) {
        folder /= std::string(200, '\xE9');
    }
    makeDirectory(folder);
    return folder;
}

TEST_F(TrashEntries, a_record_that_cannot_be_written_leaves_everything_as_it_was) {
    const fs::path deep = makeDeepFolder(m_work);
    std::vector<TavroOperationEntry> entries;
    for (const char* name : {"d", "e", "f"}) {
        writeFile(deep / name, name);
        entries.push_back({name, (deep / name).string(), false});
    }
    const Snapshot before = snapshot();
    for (const TavroOperationEntry& failing : entries) {
        SCOPED_TRACE(failing.Name);
        std::vector<TavroTrashEntry> list;
        std::string message;
        {
            const FaultInjector injector({whole("writev", ENOSPC, record(failing.Name))});
            EXPECT_FALSE(TavroTrashEntries(entries, list, message));
            EXPECT_EQ(injector.fired(), 1);
        }
        EXPECT_EQ(message, "Failed to write trash metadata '" + record(failing.Name) + "'.");
        EXPECT_EQ(snapshot(), before);
        EXPECT_TRUE(list.empty());
    }
}

TEST_F(TrashEntries, a_record_that_fails_only_at_its_close_is_taken_for_written) {
    std::vector<TavroTrashEntry> list;
    std::string message = "as before";
    {
        const FaultInjector injector({whole("write", ENOSPC, record("b"))});
        EXPECT_TRUE(TavroTrashEntries(selection(), list, message));
        EXPECT_EQ(injector.fired(), 1);
    }
    EXPECT_EQ(message, "as before");
    Snapshot state = withAllTrashed();
    state[recordRow("b")] = "file 644 ";
    EXPECT_EQ(snapshot(), state);
    EXPECT_EQ(list.size(), 3U);
}

TEST_F(TrashEntries, there_is_no_record_before_its_entry_has_moved) {
    bool bNoRecord = false;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        bNoRecord =
            bNoRecord || (call == "rename" && path == original("a") && fs::is_empty(m_info));
    });
    trashAll();
    EXPECT_TRUE(bNoRecord);
}

// The directories of the trash.

TEST_F(TrashEntries, the_folders_are_ensured_for_each_entry) {
    const std::string reason = systemText(std::errc::permission_denied);
    for (int entry = 1; entry <= 3; ++entry) {
        SCOPED_TRACE(entry);
        // Each entry asks for a directory once, and once more for its parent when it moves there.
        expectTrashingFails({whole("stat", EACCES, m_info.string(), entry)},
                            "Failed to create trash info directory: " + reason, m_before);
    }
    expectTrashingFails({whole("stat", EACCES, m_files.string())},
                        "Failed to create trash files directory: " + reason, m_before);
    expectTrashingFails({whole("stat", EACCES, m_files.string(), 2)},
                        "Failed to create destination directory: " + reason, m_before);
    expectTrashingFails({whole("stat", EACCES, m_files.string(), 3)},
                        "Failed to create trash files directory: " + reason, m_before);
}

TEST_F(TrashEntries, a_folder_that_cannot_be_made_is_told_and_its_parents_stay) {
    const std::string reason = systemText(std::errc::no_space_on_device);
    fs::remove(m_files);
    fs::remove(m_info);
    Snapshot state = snapshot();
    expectTrashingFails({whole("mkdir", ENOSPC, m_files.string())},
                        "Failed to create trash files directory: " + reason, state);
    state[trash + "/files"] = "directory 755";
    expectTrashingFails({whole("mkdir", ENOSPC, m_info.string())},
                        "Failed to create trash info directory: " + reason, state);
}

TEST_F(TrashEntries, a_file_in_the_place_of_a_folder_is_told) {
    const std::string reason = systemText(std::errc::not_a_directory);
    for (const auto& [folder, word] : {std::pair(m_info, "info"), std::pair(m_files, "files")}) {
        fs::remove(folder);
        writeFile(folder, "in the way");
        expectTrashingFails({},
                            std::string("Failed to create trash ") + word + " directory: " + reason,
                            snapshot());
    }
}

TEST_F(TrashEntries, without_a_home_nothing_happens) {
    for (const auto& home : {std::optional<std::string>(), std::optional<std::string>("")}) {
        const ScopedEnvironment noHome("HOME", home);
        expectTrashingFails({}, "Trash is unavailable because HOME is not set.", m_before);
    }
}

// Across file systems.

TEST_F(TrashEntries, a_batch_that_fails_across_file_systems_comes_back_across_them) {
    const Sandbox far(fs::is_directory(secondFileSystem) ? fs::path(secondFileSystem)
                                                         : fs::temp_directory_path());
    if (!onDifferentDevices(far.path(), m_box.path())) {
        GTEST_SKIP() << secondFileSystem << " is on the file system of the temporary directory";
    }
    const ScopedEnvironment home("HOME", far.path().string());
    makeDirectory(far / ".local/share/Trash/files");
    makeDirectory(far / ".local/share/Trash/info");
    const Snapshot farBefore = takeSnapshot(far.path());
    makeFifo(m_work / "fifo");
    const Snapshot before = snapshot();
    std::vector<TavroOperationEntry> entries = selection();
    entries.push_back({"fifo", original("fifo"), false});
    std::vector<TavroTrashEntry> list;
    std::string message;
    EXPECT_FALSE(TavroTrashEntries(entries, list, message));
    std::error_code ec;
    fs::copy_file(original("fifo"), m_box / "never made", ec);
    EXPECT_EQ(message, "Failed to copy '" + original("fifo") + "': " + ec.message());
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(takeSnapshot(far.path()), farBefore);
    EXPECT_TRUE(list.empty());
}

TEST_F(TrashEntries, a_partial_copy_stays_in_the_trash_without_a_record) {
    Snapshot state = m_before;
    state[trash + "/files/c"] = "file 644 ";
    expectTrashingFails({noTrashing("c", EXDEV), {"sendfile", ENOSPC, trashed("c")}},
                        "Failed to copy '" + original("c") +
                            "': " + systemText(std::errc::no_space_on_device),
                        state);
}

TEST_F(TrashEntries, a_copied_entry_that_cannot_be_removed_is_not_in_the_trash) {
    expectTrashingFails({noTrashing("c", EXDEV), whole("remove", EROFS, original("c"))},
                        "Failed to remove original '" + original("c") +
                            "' after copying: " + systemText(std::errc::read_only_file_system),
                        m_before);
}

// Conditions of nature.

TEST_F(TrashEntries, a_folder_of_records_without_write_permission) {
    runUnprivileged(m_box.path(), [&] {
        fs::permissions(m_info, fs::perms::owner_read | fs::perms::owner_exec);
        expectTrashingFails({}, recordFailure("a"), snapshot());
    });
}

TEST_F(TrashEntries, a_folder_of_the_trash_without_write_permission) {
    runUnprivileged(m_box.path(), [&] {
        fs::permissions(m_files, fs::perms::owner_read | fs::perms::owner_exec);
        expectTrashingFails({}, moveFailure(original("a"), std::errc::permission_denied),
                            snapshot());
    });
}

TEST_F(TrashEntries, an_entry_in_a_folder_without_write_permission) {
    writeFile(m_box / "locked/d", "bytes of d");
    runUnprivileged(m_box.path(), [&] {
        fs::permissions(m_box / "locked", fs::perms::owner_read | fs::perms::owner_exec);
        const Snapshot before = snapshot();
        const std::string path = (m_box / "locked/d").string();
        std::vector<TavroOperationEntry> entries = selection();
        entries.push_back({"d", path, false});
        std::vector<TavroTrashEntry> list;
        std::string message;
        EXPECT_FALSE(TavroTrashEntries(entries, list, message));
        EXPECT_EQ(message, moveFailure(path, std::errc::permission_denied));
        EXPECT_EQ(snapshot(), before);
        EXPECT_TRUE(list.empty());
    });
}

/// Makes a file or directory immutable while it lives, where the user and the file system allow it.
class Immutable {
public:
    explicit Immutable(fs::path path) : m_path(std::move(path)), m_bSet(setFlag(true)) {}
    ~Immutable() {
        setFlag(false);
    }
    Immutable(const Immutable&) = delete;
    Immutable& operator=(const Immutable&) = delete;

    bool isSet() const {
        return m_bSet;
    }

private:
    bool setFlag(bool bOn) const {
        const int descriptor = open(m_path.c_str(), O_RDONLY | O_NONBLOCK);
        int flags = 0;
        bool bDone = descriptor >= 0 && ioctl(descriptor, FS_IOC_GETFLAGS, &flags) == 0;
        flags = bOn ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
        bDone = bDone && ioctl(descriptor, FS_IOC_SETFLAGS, &flags) == 0;
        close(descriptor);
        return bDone;
    }

    const fs::path m_path;
    const bool m_bSet;
};

#define SKIP_UNLESS_IMMUTABLE(immutable)                                                           \
    if (!(immutable).isSet()) {                                                                    \
        GTEST_SKIP() << "this user cannot make a file of this file system immutable";              \
    }

TEST_F(TrashEntries, an_immutable_entry_stays_and_brings_the_others_back) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        const Immutable immutable(original(name));
        SKIP_UNLESS_IMMUTABLE(immutable)
        expectTrashingFails({}, moveFailure(original(name), std::errc::operation_not_permitted),
                            m_before);
    }
}

TEST_F(TrashEntries, an_immutable_stale_record_stays_and_the_entry_comes_back) {
    writeFile(record("b"), "stale");
    const Immutable immutable(record("b"));
    SKIP_UNLESS_IMMUTABLE(immutable)
    expectTrashingFails({}, recordFailure("b"), snapshot());
}

TEST_F(TrashEntries, an_immutable_folder_of_records_lets_nothing_in) {
    const Immutable immutable(m_info);
    SKIP_UNLESS_IMMUTABLE(immutable)
    expectTrashingFails({}, recordFailure("a"), m_before);
}

/// Mounts `folder` onto itself read-only, seen by this process alone. To be called in a child.
bool mountReadOnly(const fs::path& folder) {
    const char* path = folder.c_str();
    return unshare(CLONE_NEWNS) == 0 &&
           mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(path, path, nullptr, MS_BIND, nullptr) == 0 &&
           mount("", path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

/// Runs `body` in a child that sees `folder` read-only; false where that cannot be done.
bool runWithReadOnly(const fs::path& folder, const std::function<void()>& body) {
    const Sandbox signs;
    runInChild([&] {
        if (mountReadOnly(folder)) {
            writeFile(signs / "mounted");
            body();
        }
    });
    return isPresent(signs / "mounted");
}

#define SKIP_UNLESS_MOUNTED(bMounted)                                                              \
    if (!(bMounted)) {                                                                             \
        GTEST_SKIP() << "this process cannot mount in a namespace of its own";                     \
    }

TEST_F(TrashEntries, an_entry_on_a_read_only_mount_is_copied_and_its_copy_goes) {
    writeFile(m_box / "fixed/d", "bytes of d");
    const bool bMounted = runWithReadOnly(m_box / "fixed", [&] {
        const Snapshot before = snapshot();
        const std::string path = (m_box / "fixed/d").string();
        std::vector<TavroOperationEntry> entries = selection();
        entries.push_back({"d", path, false});
        std::vector<TavroTrashEntry> list;
        std::string message;
        EXPECT_FALSE(TavroTrashEntries(entries, list, message));
        EXPECT_EQ(message, "Failed to remove original '" + path +
                               "' after copying: " + systemText(std::errc::read_only_file_system));
        EXPECT_EQ(snapshot(), before);
        EXPECT_TRUE(list.empty());
    });
    SKIP_UNLESS_MOUNTED(bMounted)
}

TEST_F(TrashEntries, a_read_only_home_refuses_the_copies) {
    const bool bMounted = runWithReadOnly(m_box / "home", [&] {
        expectTrashingFails({},
                            "Failed to copy '" + original("a") +
                                "': " + systemText(std::errc::read_only_file_system),
                            m_before);
    });
    SKIP_UNLESS_MOUNTED(bMounted)
}

TEST_F(TrashEntries, read_only_folders_of_the_trash_cannot_be_made) {
    fs::remove_all(m_box / "home/.local");
    const Snapshot before = snapshot();
    const bool bMounted = runWithReadOnly(m_box / "home", [&] {
        expectTrashingFails({},
                            "Failed to create trash files directory: " +
                                systemText(std::errc::read_only_file_system),
                            before);
    });
    SKIP_UNLESS_MOUNTED(bMounted)
}

// Through the delete operation.

TEST_F(TrashEntries, deleting_into_the_trash_fails_with_the_same_sentence_and_state) {
    std::string message = "earlier text";
    const FaultInjector injector({noRecord("c"), noReturn("c"), noReturn("a")});
    EXPECT_FALSE(TavroDeleteEntries(selection(), true, message));
    EXPECT_TRUE(injector.eachFired());
    EXPECT_EQ(message,
              recordFailure("c") + rollback(returnFailure("c")) + rollback(returnFailure("a")));
    EXPECT_EQ(snapshot(), withTrashed(withTrashed(withTrashed(m_before, "a"), "b"), "c", false));
}

// -------------------------------------------------------------------------------------------------
// Restoring
// -------------------------------------------------------------------------------------------------

using RestoreTrashEntries = TrashFaults;

TEST_F(RestoreTrashEntries, an_entry_that_cannot_be_moved_leaves_everything_in_the_trash) {
    const std::vector<TavroTrashEntry> list = trashAll();
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        expectRestoreFails(list, {noReturn(name)}, returnFailure(name), withAllTrashed());
    }
}

TEST_F(RestoreTrashEntries, the_records_of_returned_entries_carry_the_time_of_their_return) {
    const std::vector<TavroTrashEntry> list = trashAll();
    const std::string old = "[Trash Info]\nPath=/x\nDeletionDate=1999-12-31T23:59:59\n";
    for (const std::string& name : m_names) {
        writeFile(record(name), old);
    }
    const FaultInjector injector({noReturn("c")});
    std::string message;
    EXPECT_FALSE(TavroRestoreTrashEntries(list, message));
    EXPECT_EQ(injector.fired(), 1);
    for (const char* name : {"a", "b"}) {
        EXPECT_EQ(readFile(record(name)).find("1999"), std::string::npos);
        EXPECT_NE(readFile(record(name)).find(original(name)), std::string::npos);
    }
    EXPECT_EQ(readFile(record("c")), old);
}

TEST_F(RestoreTrashEntries, entries_that_cannot_return_to_the_trash_stay_restored) {
    const std::vector<TavroTrashEntry> list = trashAll();
    expectRestoreFails(list, {noReturn("c"), noTrashing("b"), noTrashing("a", EBUSY)},
                       returnFailure("c") + rollback(trashingFailure("b")),
                       withTrashed(m_before, "c"));
}

TEST_F(RestoreTrashEntries, the_return_goes_on_after_one_that_fails) {
    const std::vector<TavroTrashEntry> list = trashAll();
    expectRestoreFails(list, {noReturn("c"), noTrashing("b")},
                       returnFailure("c") + rollback(trashingFailure("b")),
                       withTrashed(withTrashed(m_before, "c"), "a"));
}

TEST_F(RestoreTrashEntries, a_first_entry_that_cannot_return_is_told_when_no_later_one_failed) {
    const std::vector<TavroTrashEntry> list = trashAll();
    expectRestoreFails(list, {noReturn("c"), noTrashing("a")},
                       returnFailure("c") + rollback(trashingFailure("a")),
                       withTrashed(withTrashed(m_before, "c"), "b"));
}

TEST_F(RestoreTrashEntries, the_last_restored_returns_first) {
    const std::vector<TavroTrashEntry> list = trashAll();
    std::vector<std::string> order;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "rename") {
            order.push_back(path);
        }
    });
    expectRestoreFails(list, {noReturn("c")}, returnFailure("c"), withAllTrashed());
    EXPECT_EQ(order, (std::vector<std::string>{trashed("a"), trashed("b"), trashed("c"),
                                               original("b"), original("a")}));
}

TEST_F(RestoreTrashEntries, a_record_that_cannot_be_written_again_is_missed_without_a_word) {
    const std::vector<TavroTrashEntry> list = trashAll();
    Snapshot state = withAllTrashed();
    state.erase(recordRow("a"));
    expectRestoreFails(list, {noReturn("c"), noRecord("a")}, returnFailure("c"), state);
}

TEST_F(RestoreTrashEntries, a_record_that_cannot_be_removed_stays_without_a_word) {
    const std::vector<TavroTrashEntry> list = trashAll();
    Snapshot state = m_before;
    state[recordRow("b")] = withAllTrashed().at(recordRow("b"));
    std::string message = "as before";
    {
        const FaultInjector injector({whole("remove", EPERM, record("b"))});
        EXPECT_TRUE(TavroRestoreTrashEntries(list, message));
        EXPECT_EQ(injector.fired(), 1);
    }
    EXPECT_EQ(message, "as before");
    EXPECT_EQ(snapshot(), state);
}

TEST_F(RestoreTrashEntries, a_directory_with_contents_in_the_place_of_a_record_stays) {
    const std::vector<TavroTrashEntry> list = trashAll();
    fs::remove(record("b"));
    writeFile(fs::path(record("b")) / "contents");
    std::string message = "as before";
    EXPECT_TRUE(TavroRestoreTrashEntries(list, message));
    EXPECT_EQ(message, "as before");
    Snapshot state = m_before;
    state[recordRow("b")] = "directory 755";
    state[recordRow("b") + "/contents"] = "file 644 ";
    EXPECT_EQ(snapshot(), state);
}

TEST_F(RestoreTrashEntries, a_missing_record_is_no_failure) {
    const std::vector<TavroTrashEntry> list = trashAll();
    fs::remove(record("a"));
    std::string message = "as before";
    EXPECT_TRUE(TavroRestoreTrashEntries(list, message));
    EXPECT_EQ(message, "as before");
    EXPECT_EQ(snapshot(), m_before);
}

TEST_F(RestoreTrashEntries, nothing_moves_when_an_item_is_missing_or_cannot_be_examined) {
    const std::vector<TavroTrashEntry> list = trashAll();
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        const std::string sentence = "Trash item is missing: " + trashed(name);
        expectRestoreFails(list, {whole("stat", EACCES, trashed(name))}, sentence,
                           withAllTrashed());
        fs::rename(trashed(name), m_box / "aside");
        expectRestoreFails(list, {}, sentence, snapshot());
        fs::rename(m_box / "aside", trashed(name));
    }
}

TEST_F(RestoreTrashEntries, nothing_moves_when_a_place_is_taken_or_cannot_be_examined) {
    const std::vector<TavroTrashEntry> list = trashAll();
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        const std::string sentence = "Restore target already exists: " + original(name);
        expectRestoreFails(list, {whole("stat", EACCES, original(name))}, sentence,
                           withAllTrashed());
        writeFile(original(name), "in the way");
        expectRestoreFails(list, {}, sentence, snapshot());
        fs::remove(original(name));
    }
}

TEST_F(RestoreTrashEntries, entry_by_entry_the_item_is_checked_before_the_place) {
    const std::vector<TavroTrashEntry> list = trashAll();
    writeFile(original("a"), "in the way");
    expectRestoreFails(list, {whole("stat", EACCES, trashed("a"))},
                       "Trash item is missing: " + trashed("a"), snapshot());
    fs::remove_all(trashed("b"));
    expectRestoreFails(list, {}, "Restore target already exists: " + original("a"), snapshot());
}

TEST_F(RestoreTrashEntries, a_dangling_link_in_the_place_is_replaced) {
    const std::vector<TavroTrashEntry> list = trashAll();
    fs::create_symlink("nowhere", original("a"));
    std::string message;
    EXPECT_TRUE(TavroRestoreTrashEntries(list, message)) << message;
    EXPECT_EQ(snapshot(), m_before);
}

TEST_F(RestoreTrashEntries, folders_that_were_made_again_stay_after_a_failure) {
    const std::vector<TavroTrashEntry> list = trashAll();
    fs::remove(m_work);
    expectRestoreFails(list, {noReturn("b")}, returnFailure("b"), withAllTrashed());
}

TEST_F(RestoreTrashEntries, a_folder_that_cannot_be_made_again_leaves_everything_in_the_trash) {
    const std::vector<TavroTrashEntry> list = trashAll();
    fs::remove(m_work);
    expectRestoreFails(list, {whole("mkdir", EDQUOT, m_work.string())},
                       "Failed to create destination directory: " +
                           std::error_code(EDQUOT, std::generic_category()).message(),
                       snapshot());
}

TEST_F(RestoreTrashEntries, what_comes_back_across_file_systems_can_fail_and_return) {
    const std::vector<TavroTrashEntry> list = trashAll();
    Snapshot state = withAllTrashed();
    state["work/c"] = "file 644 ";
    expectRestoreFails(
        list, {noReturn("c", EXDEV), {"sendfile", EFBIG, original("c")}},
        "Failed to copy '" + trashed("c") + "': " + systemText(std::errc::file_too_large), state);
    fs::remove(original("c"));
    expectRestoreFails(list, {noReturn("c", EXDEV), whole("remove", EBUSY, trashed("c"))},
                       "Failed to remove original '" + trashed("c") +
                           "' after copying: " + systemText(std::errc::device_or_resource_busy),
                       withAllTrashed());
}

TEST_F(RestoreTrashEntries, two_entries_of_one_place_pass_the_checks) {
    writeFile(trashed("first"), "first");
    writeFile(trashed("second"), "second");
    const std::string place = original("place");
    std::string message;
    EXPECT_TRUE(TavroRestoreTrashEntries({{place, trashed("first"), record("first"), false},
                                          {place, trashed("second"), record("second"), false}},
                                         message));
    Snapshot state = m_before;
    state["work/place"] = "file 644 second";
    EXPECT_EQ(snapshot(), state);
}

TEST_F(RestoreTrashEntries, a_folder_without_write_permission_gets_nothing_back) {
    const std::vector<TavroTrashEntry> list = trashAll();
    runUnprivileged(m_box.path(), [&] {
        fs::permissions(m_work, fs::perms::owner_read | fs::perms::owner_exec);
        expectRestoreFails(list, {}, returnFailure("a"), snapshot());
    });
}

TEST_F(RestoreTrashEntries, a_place_in_a_folder_without_search_permission_counts_as_taken) {
    const std::vector<TavroTrashEntry> list = trashAll();
    runUnprivileged(m_box.path(), [&] {
        fs::permissions(m_work, fs::perms::owner_read);
        expectRestoreFails(list, {}, "Restore target already exists: " + original("a"), snapshot());
    });
}

TEST_F(RestoreTrashEntries, an_immutable_item_keeps_the_others_in_the_trash) {
    const std::vector<TavroTrashEntry> list = trashAll();
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        const Immutable immutable(trashed(name));
        SKIP_UNLESS_IMMUTABLE(immutable)
        expectRestoreFails(list, {}, moveFailure(trashed(name), std::errc::operation_not_permitted),
                           withAllTrashed());
    }
}

TEST_F(RestoreTrashEntries, a_read_only_folder_gets_nothing_back) {
    const std::vector<TavroTrashEntry> list = trashAll();
    const bool bMounted = runWithReadOnly(m_work, [&] {
        expectRestoreFails(list, {},
                           "Failed to copy '" + trashed("a") +
                               "': " + systemText(std::errc::read_only_file_system),
                           withAllTrashed());
    });
    SKIP_UNLESS_MOUNTED(bMounted)
}

// -------------------------------------------------------------------------------------------------
// Redoing
// -------------------------------------------------------------------------------------------------

class ReapplyTrashEntries : public TrashFaults {
protected:
    /// All three were trashed under other names than they would get now, and are back.
    std::vector<TavroTrashEntry> undoneList() {
        std::vector<TavroTrashEntry> list = trashAll();
        std::string message;
        EXPECT_TRUE(TavroRestoreTrashEntries(list, message)) << message;
        for (TavroTrashEntry& entry : list) {
            entry.TrashPath += " of old";
            entry.InfoPath += " of old";
        }
        return list;
    }

    static std::vector<std::string> textsOf(const std::vector<TavroTrashEntry>& list) {
        std::vector<std::string> texts;
        for (const TavroTrashEntry& entry : list) {
            texts.push_back(entry.OriginalPath + "\n" + entry.TrashPath + "\n" + entry.InfoPath +
                            (entry.bDirectory ? "\ndirectory" : "\nfile"));
        }
        return texts;
    }

    void expectReapplyFails(std::vector<Fault> faults, const std::string& sentence,
                            const Snapshot& state) {
        const std::vector<std::string> before = textsOf(m_list);
        std::string message = "earlier text";
        {
            const FaultInjector injector(std::move(faults));
            EXPECT_FALSE(TavroReapplyTrashEntries(m_list, message));
            EXPECT_TRUE(injector.eachFired());
        }
        EXPECT_EQ(message, sentence);
        EXPECT_EQ(textsOf(m_list), before);
        EXPECT_EQ(snapshot(), state);
    }

    std::vector<TavroTrashEntry> m_list = undoneList();
};

TEST_F(ReapplyTrashEntries, a_failure_leaves_the_list_and_the_disk_as_they_were) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        expectReapplyFails({noTrashing(name)}, trashingFailure(name), m_before);
        expectReapplyFails({noRecord(name)}, recordFailure(name), m_before);
    }
}

TEST_F(ReapplyTrashEntries, an_entry_that_was_deleted_meanwhile_brings_the_others_back) {
    fs::remove(original("c"));
    expectReapplyFails({}, moveFailure(original("c"), std::errc::no_such_file_or_directory),
                       snapshot());
}

TEST_F(ReapplyTrashEntries, rollbacks_that_fail_are_told) {
    expectReapplyFails({noRecord("c"), noReturn("c"), noReturn("a")},
                       recordFailure("c") + rollback(returnFailure("c")) +
                           rollback(returnFailure("a")),
                       withTrashed(withTrashed(withTrashed(m_before, "a"), "b"), "c", false));
}

TEST_F(ReapplyTrashEntries, without_a_home_the_list_stays) {
    const ScopedEnvironment noHome("HOME", std::nullopt);
    expectReapplyFails({}, "Trash is unavailable because HOME is not set.", m_before);
}

// -------------------------------------------------------------------------------------------------
// Records of a batch
// -------------------------------------------------------------------------------------------------

class TrashInfoEntries : public TrashFaults {
protected:
    std::vector<TavroTrashEntry> m_list = {{original("a"), trashed("a"), record("a"), false},
                                           {original("b"), trashed("b"), record("b"), true},
                                           {original("c"), trashed("c"), record("c"), false}};

    Snapshot withRecords(const std::vector<std::string>& names) const {
        Snapshot state = m_before;
        for (const std::string& name : names) {
            state[recordRow(name)] = withAllTrashed().at(recordRow(name));
        }
        return state;
    }

    void expectWriteFails(std::vector<Fault> faults, const std::string& sentence,
                          const Snapshot& state) {
        std::string message = "earlier text";
        {
            const FaultInjector injector(std::move(faults));
            EXPECT_FALSE(TavroWriteTrashInfoEntries(m_list, message));
            EXPECT_TRUE(injector.eachFired());
        }
        EXPECT_EQ(message, sentence);
        EXPECT_EQ(snapshot(), state);
    }
};

TEST_F(TrashInfoEntries, a_record_that_cannot_be_created_takes_the_earlier_ones_away) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        expectWriteFails({noRecord(name)}, recordFailure(name), m_before);
    }
}

TEST_F(TrashInfoEntries, a_directory_in_the_place_of_a_record_stays) {
    for (const std::string& name : m_names) {
        SCOPED_TRACE(name);
        makeDirectory(record(name));
        expectWriteFails({}, recordFailure(name), snapshot());
        fs::remove(record(name));
    }
}

TEST_F(TrashInfoEntries, the_part_of_a_record_that_was_written_stays) {
    m_list[1].OriginalPath = std::string(9000, 'x'); // more than a stream keeps back
    std::string message;
    {
        const FaultInjector injector({whole("writev", ENOSPC, record("b"))});
        EXPECT_FALSE(TavroWriteTrashInfoEntries(m_list, message));
        EXPECT_EQ(injector.fired(), 1);
    }
    EXPECT_EQ(message, "Failed to write trash metadata '" + record("b") + "'.");
    Snapshot state = snapshot();
    EXPECT_EQ(state[recordRow("b")].find("DeletionDate"), std::string::npos);
    EXPECT_EQ(state.erase(recordRow("b")), 1U);
    EXPECT_EQ(state, m_before);
}

TEST_F(TrashInfoEntries, a_time_that_cannot_be_converted_reads_as_zeros) {
    std::string message;
    const FaultInjector injector({{"localtime_r", EOVERFLOW, "", 1, true}});
    EXPECT_TRUE(TavroWriteTrashInfoEntries(m_list, message));
    EXPECT_EQ(injector.fired(), 3);
    EXPECT_EQ(readFile(record("a")),
              "[Trash Info]\nPath=" + original("a") + "\nDeletionDate=1900-01-00T00:00:00\n");
}

TEST_F(TrashInfoEntries, an_earlier_record_that_cannot_be_removed_stays_and_the_others_go) {
    expectWriteFails({noRecord("c"), whole("remove", EPERM, record("b"))}, recordFailure("c"),
                     withRecords({"b"}));
}

TEST_F(TrashInfoEntries, earlier_records_go_from_the_last_to_the_first) {
    std::vector<std::string> order;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "remove") {
            order.push_back(path);
        }
    });
    expectWriteFails({noRecord("c")}, recordFailure("c"), m_before);
    EXPECT_EQ(order, (std::vector<std::string>{record("b"), record("a")}));
}

TEST_F(TrashInfoEntries, later_records_are_not_written_after_a_failure) {
    bool bWritten = false;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        bWritten = bWritten || (call == "fopen64" && path == record("c"));
    });
    expectWriteFails({noRecord("b")}, recordFailure("b"), m_before);
    EXPECT_FALSE(bWritten);
}

TEST_F(TrashInfoEntries, removing_goes_on_after_one_that_fails) {
    std::string message = "as before";
    EXPECT_TRUE(TavroWriteTrashInfoEntries(m_list, message));
    EXPECT_EQ(message, "as before");
    EXPECT_EQ(snapshot(), withRecords(m_names));
    const FaultInjector injector({whole("remove", EPERM, record("a"))});
    TavroRemoveTrashInfoEntries(m_list);
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_EQ(snapshot(), withRecords({"a"}));
}

} // namespace
