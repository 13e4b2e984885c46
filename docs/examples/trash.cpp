// Trashing in one step and in two phases; undo and redo.

#include "examples.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

using namespace tavro_test;

namespace {

//! [undo]
/// One trash operation in the pane's list of what can be undone.
class TrashStep {
public:
    bool Do(const std::vector<TavroOperationEntry>& Selection, std::string& ErrorMessage) {
        return TavroTrashEntries(Selection, m_entries, ErrorMessage);
    }
    bool Undo(std::string& ErrorMessage) const {
        return TavroRestoreTrashEntries(m_entries, ErrorMessage);
    }
    bool Redo(std::string& ErrorMessage) {
        return TavroReapplyTrashEntries(m_entries, ErrorMessage);
    }

private:
    std::vector<TavroTrashEntry> m_entries;
};
//! [undo]

//! [claim]
/// Makes a trash name this process's own, by creating its record where none was. A name that others
/// took meanwhile gets a number.
bool ClaimTrashName(TavroTrashEntry& Entry) {
    const std::string wanted = Entry.TrashPath;
    const fs::path info = fs::path(Entry.InfoPath).parent_path();
    for (int number = 2; number < 1000; ++number) {
        std::error_code ec;
        if (!fs::exists(fs::symlink_status(Entry.TrashPath, ec))) {
            const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
            const int record = open(Entry.InfoPath.c_str(), flags, 0600);
            if (record >= 0) {
                close(record);
                return true;
            }
            if (errno != EEXIST) {
                return false;
            }
        }
        Entry.TrashPath = wanted + " " + std::to_string(number);
        const std::string name = fs::path(Entry.TrashPath).filename().string();
        Entry.InfoPath = (info / (name + ".trashinfo")).string();
    }
    return false;
}
//! [claim]

//! [two-phase]
/// Trashes a selection, all or nothing: records first, nothing replaced, links with their own
/// paths.
bool TrashInTwoPhases(const std::vector<TavroOperationEntry>& Selection,
                      std::vector<TavroTrashEntry>& OutEntries, std::string& ErrorMessage) {
    std::vector<TavroTrashEntry> entries;
    if (!TavroPrepareTrashEntries(Selection, entries, ErrorMessage)) {
        return false;
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const fs::path path(Selection[i].Path);
        const fs::path parent = TavroCanonicalizePath(path.parent_path().string());
        entries[i].OriginalPath = (parent / path.filename()).string();
        if (!ClaimTrashName(entries[i])) {
            ErrorMessage = "Cannot write " + entries[i].InfoPath;
            entries.resize(i);
            TavroRemoveTrashInfoEntries(entries);
            return false;
        }
    }
    if (!TavroWriteTrashInfoEntries(entries, ErrorMessage)) {
        TavroRemoveTrashInfoEntries(entries);
        return false;
    }
    std::error_code ec;
    std::size_t moved = 0;
    while (moved < entries.size()) {
        RenameNoReplace(entries[moved].OriginalPath, entries[moved].TrashPath, ec);
        if (ec) {
            break;
        }
        ++moved; // show the progress here
    }
    if (!ec) {
        OutEntries = std::move(entries);
        return true;
    }
    ErrorMessage = "Cannot move " + entries[moved].OriginalPath + ": " + ec.message();
    std::vector<TavroTrashEntry> untrashed(entries.begin() + static_cast<std::ptrdiff_t>(moved),
                                           entries.end());
    while (moved > 0) {
        const TavroTrashEntry& entry = entries[--moved];
        RenameNoReplace(entry.TrashPath, entry.OriginalPath, ec);
        if (ec) {
            ErrorMessage += "; " + entry.OriginalPath + " is in the trash: " + ec.message();
        } else {
            untrashed.push_back(entry);
        }
    }
    TavroRemoveTrashInfoEntries(untrashed); // what stayed in the trash keeps its record
    return false;
}
//! [two-phase]

class Trashing : public testing::Test {
protected:
    void SetUp() override {
        writeFile(m_sandbox / "a.txt", "A");
        writeFile(m_sandbox / "folder/b.txt", "B");
        select({"a.txt", "folder"});
    }

    void select(const std::vector<std::string>& names) {
        m_selection.clear();
        for (const std::string& name : names) {
            m_selection.push_back(SelectEntry((m_sandbox / name).string()).value());
        }
    }

    std::vector<std::string> trashed(const char* Folder) const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_trash / Folder)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    using Names = std::vector<std::string>;

    Sandbox m_sandbox;
    ScopedEnvironment m_home{"HOME", (m_sandbox / "home").string()};
    fs::path m_trash = m_sandbox / "home/.local/share/Trash";
    std::vector<TavroOperationEntry> m_selection;
    std::vector<TavroTrashEntry> m_entries;
    std::string m_error;
};

} // namespace

TEST_F(Trashing, one_list_serves_undo_and_redo) {
    TrashStep step;
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(round == 0 ? step.Do(m_selection, m_error) : step.Redo(m_error)) << m_error;
        EXPECT_EQ(trashed("files"), (Names{"a.txt", "folder"}));
        EXPECT_EQ(trashed("info"), (Names{"a.txt.trashinfo", "folder.trashinfo"}));
        ASSERT_TRUE(step.Undo(m_error)) << m_error;
        EXPECT_EQ(readFile(m_sandbox / "a.txt") + readFile(m_sandbox / "folder/b.txt"), "AB");
        EXPECT_EQ(trashed("info"), Names());
    }
}

TEST_F(Trashing, an_undo_that_fails_can_be_tried_again) {
    TrashStep step;
    ASSERT_TRUE(step.Do(m_selection, m_error)) << m_error;
    writeFile(m_sandbox / "folder", "in the way");
    EXPECT_FALSE(step.Undo(m_error));
    EXPECT_EQ(m_error, "Restore target already exists: " + (m_sandbox / "folder").string());
    EXPECT_EQ(trashed("files"), (Names{"a.txt", "folder"}));
    fs::remove(m_sandbox / "folder");
    EXPECT_TRUE(step.Undo(m_error)) << m_error;
    EXPECT_EQ(readFile(m_sandbox / "folder/b.txt"), "B");
}

TEST_F(Trashing, two_phases_do_what_one_step_does) {
    ASSERT_TRUE(TrashInTwoPhases(m_selection, m_entries, m_error)) << m_error;
    EXPECT_EQ(trashed("files"), (Names{"a.txt", "folder"}));
    EXPECT_EQ(trashed("info"), (Names{"a.txt.trashinfo", "folder.trashinfo"}));
    EXPECT_TRUE(TavroRestoreTrashEntries(m_entries, m_error)) << m_error;
    EXPECT_EQ(readFile(m_sandbox / "a.txt") + readFile(m_sandbox / "folder/b.txt"), "AB");
    EXPECT_EQ(trashed("info"), Names());
}

TEST_F(Trashing, two_phases_give_a_link_its_own_path) {
    fs::create_symlink("a.txt", m_sandbox / "link");
    select({"link"});
    ASSERT_TRUE(TrashInTwoPhases(m_selection, m_entries, m_error)) << m_error;
    EXPECT_EQ(m_entries.at(0).OriginalPath, (m_sandbox / "link").string());
    EXPECT_EQ(fs::read_symlink(m_trash / "files/link"), "a.txt");
}

TEST_F(Trashing, two_phases_replace_neither_an_item_nor_a_record) {
    writeFile(m_trash / "info/a.txt.trashinfo", "of another program");
    fs::create_directories(m_trash / "files");
    fs::create_symlink("nowhere", m_trash / "files/folder");
    ASSERT_TRUE(TrashInTwoPhases(m_selection, m_entries, m_error)) << m_error;
    EXPECT_EQ(trashed("files"), (Names{"a.txt 2", "folder", "folder 2"}));
    EXPECT_EQ(readFile(m_trash / "info/a.txt.trashinfo"), "of another program");
    EXPECT_TRUE(fs::is_symlink(m_trash / "files/folder"));
}

TEST_F(Trashing, two_phases_put_everything_back_when_one_entry_fails) {
    fs::remove_all(m_sandbox / "folder");
    EXPECT_FALSE(TrashInTwoPhases(m_selection, m_entries, m_error));
    EXPECT_EQ(m_error, "Cannot move " + (m_sandbox / "folder").string() + ": " +
                           systemText(std::errc::no_such_file_or_directory));
    EXPECT_EQ(readFile(m_sandbox / "a.txt"), "A");
    EXPECT_EQ(trashed("files"), Names());
    EXPECT_EQ(trashed("info"), Names());
}

TEST_F(Trashing, two_phases_leave_no_record_when_one_cannot_be_claimed) {
    writeFile(m_sandbox / std::string(250, 'n'));
    select({"a.txt", std::string(250, 'n')});
    EXPECT_FALSE(TrashInTwoPhases(m_selection, m_entries, m_error));
    EXPECT_EQ(m_error,
              "Cannot write " + (m_trash / "info" / std::string(250, 'n')).string() + ".trashinfo");
    EXPECT_EQ(trashed("info"), Names());
    EXPECT_TRUE(isPresent(m_sandbox / "a.txt"));
}
