// What a careful caller does around the module.

#include "examples.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <new>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace tavro_test;

//! [restore]
/// Restores one trash operation, all or nothing. A place that is named twice, or taken by a
/// dangling link, is refused; a link comes back, wherever it leads from the trash.
bool RestoreStep(const std::vector<TavroTrashEntry>& Entries, std::string& ErrorMessage) {
    std::set<std::string> places;
    std::vector<TavroTrashEntry> links, others;
    std::error_code ec;
    for (const TavroTrashEntry& entry : Entries) {
        const bool bTaken = fs::exists(fs::symlink_status(entry.OriginalPath, ec));
        if (bTaken || !places.insert(entry.OriginalPath).second) {
            ErrorMessage = "Restore target already exists: " + entry.OriginalPath;
            return false;
        }
        const bool bLink = fs::is_symlink(fs::symlink_status(entry.TrashPath, ec));
        (bLink ? links : others).push_back(entry);
    }
    std::size_t moved = 0;
    for (ec.clear(); moved < links.size(); ++moved) {
        RenameNoReplace(links[moved].TrashPath, links[moved].OriginalPath, ec);
        if (ec) {
            ErrorMessage = "Cannot restore " + links[moved].OriginalPath + ": " + ec.message();
            break;
        }
    }
    if (!ec && (others.empty() || TavroRestoreTrashEntries(others, ErrorMessage))) {
        TavroRemoveTrashInfoEntries(links);
        return true;
    }
    while (moved > 0) {
        const TavroTrashEntry& link = links[--moved];
        RenameNoReplace(link.OriginalPath, link.TrashPath, ec);
    }
    return false;
}
//! [restore]

namespace {

//! [private-trash]
/// Creates the trash for the user's eyes only. One that exists keeps its mode.
bool MakePrivateTrash() {
    const std::string home = TavroHomeDirectoryPath();
    const fs::path trash = fs::path(home) / ".local/share/Trash";
    std::error_code ec;
    if (home.empty() || fs::exists(trash, ec)) {
        return !home.empty();
    }
    fs::create_directories(trash.parent_path(), ec);
    return mkdir(trash.c_str(), 0700) == 0;
}
//! [private-trash]

//! [device]
/// Whether an entry lies on the file system of the trash, so that trashing it is a rename. A second
/// mount of that file system looks the same here, but a rename between the two fails.
bool IsOnTrashFileSystem(const std::string& Path) {
    const std::string trash = TavroHomeDirectoryPath() + "/.local/share/Trash";
    struct stat ofEntry = {}, ofTrash = {};
    return lstat(Path.c_str(), &ofEntry) == 0 && stat(trash.c_str(), &ofTrash) == 0 &&
           ofEntry.st_dev == ofTrash.st_dev;
}
//! [device]

//! [sync]
/// Whether the record of a trashed entry is whole. A full disk can cut it short silently.
bool RecordIsWhole(const TavroTrashEntry& Entry) {
    std::ifstream record(Entry.InfoPath, std::ios::binary);
    std::string header, path, date;
    std::getline(record, header);
    std::getline(record, path);
    std::getline(record, date);
    return header == "[Trash Info]" && path.rfind("Path=", 0) == 0 &&
           date.size() == std::string("DeletionDate=2024-03-05T14:07:09").size() && record.good();
}

/// Brings what was trashed, and its records, to the disk.
bool SyncTrash(const TavroTrashEntry& Entry) {
    const fs::path files = fs::path(Entry.TrashPath).parent_path();
    const int directory = open(files.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        return false;
    }
    const bool bSynced = syncfs(directory) == 0;
    return close(directory) == 0 && bSynced;
}
//! [sync]

//! [exceptions]
/// Runs an operation and turns what it throws into a sentence.
bool WithoutThrowing(const std::function<bool(std::string&)>& Operation,
                     std::string& ErrorMessage) {
    try {
        return Operation(ErrorMessage);
    } catch (const fs::filesystem_error& error) { // TavroRenameEntry: nothing has changed
        ErrorMessage = error.code().message();
    } catch (const std::bad_alloc&) { // anything may be half done: read both panes anew
        ErrorMessage = "Out of memory.";
    }
    return false;
}
//! [exceptions]

//! [threads]
/// Measures a directory on a thread of its own until someone sets `bCancelled`.
std::future<std::uintmax_t> Measure(const fs::path& Root, const std::atomic<bool>& bCancelled) {
    return std::async(std::launch::async, [Root, &bCancelled] {
        return TavroCalculateDirectorySize(Root, [&bCancelled] { return bCancelled.load(); });
    });
}
//! [threads]

class Safeguards : public testing::Test {
protected:
    std::string path(const std::string& Name) const {
        return (m_sandbox / Name).string();
    }

    void trash(const std::string& Name) {
        std::vector<TavroTrashEntry> entries;
        ASSERT_TRUE(TavroTrashEntries({SelectEntry(path(Name)).value()}, entries, m_error))
            << m_error;
        m_entries.insert(m_entries.end(), entries.begin(), entries.end());
    }

    Sandbox m_sandbox;
    ScopedEnvironment m_home{"HOME", (m_sandbox / "home").string()};
    fs::path m_trash = m_sandbox / "home/.local/share/Trash";
    std::vector<TavroTrashEntry> m_entries;
    std::string m_error;
};

} // namespace

TEST_F(Safeguards, a_relative_link_comes_back) {
    writeFile(m_sandbox / "file", "bytes");
    writeFile(m_sandbox / "other", "bytes of the other");
    fs::create_symlink("file", m_sandbox / "link");
    trash("link");
    trash("other");
    EXPECT_FALSE(TavroRestoreTrashEntries(m_entries, m_error));
    EXPECT_EQ(m_error, "Trash item is missing: " + (m_trash / "files/link").string());
    EXPECT_TRUE(RestoreStep(m_entries, m_error)) << m_error;
    EXPECT_EQ(fs::read_symlink(m_sandbox / "link"), "file");
    EXPECT_EQ(readFile(m_sandbox / "other"), "bytes of the other");
    EXPECT_TRUE(fs::is_empty(m_trash / "files"));
    EXPECT_TRUE(fs::is_empty(m_trash / "info"));
}

TEST_F(Safeguards, a_failed_restore_takes_the_links_back) {
    fs::create_symlink("nowhere", m_sandbox / "link");
    writeFile(m_sandbox / "file", "bytes");
    trash("link");
    trash("file");
    fs::remove(m_trash / "files/file");
    EXPECT_FALSE(RestoreStep(m_entries, m_error));
    EXPECT_EQ(m_error, "Trash item is missing: " + (m_trash / "files/file").string());
    EXPECT_TRUE(fs::is_symlink(m_trash / "files/link"));
    EXPECT_TRUE(isPresent(m_trash / "info/link.trashinfo"));
    EXPECT_FALSE(isPresent(m_sandbox / "link"));
}

TEST_F(Safeguards, a_place_named_twice_is_refused) {
    writeFile(m_sandbox / "file", "first");
    trash("file");
    writeFile(m_sandbox / "file", "second");
    trash("file");
    EXPECT_FALSE(RestoreStep(m_entries, m_error));
    EXPECT_EQ(m_error, "Restore target already exists: " + path("file"));
    EXPECT_EQ(readFile(m_trash / "files/file"), "first");
    EXPECT_EQ(readFile(m_trash / "files/file copy 1"), "second");
}

TEST_F(Safeguards, a_place_taken_by_a_dangling_link_is_refused) {
    writeFile(m_sandbox / "file");
    trash("file");
    fs::create_symlink("nowhere", m_sandbox / "file");
    EXPECT_FALSE(RestoreStep(m_entries, m_error));
    EXPECT_EQ(m_error, "Restore target already exists: " + path("file"));
    EXPECT_TRUE(fs::is_symlink(m_sandbox / "file"));
}

// What the module does in the cases that RestoreStep guards against.
TEST_F(Safeguards, without_them_a_later_entry_replaces_a_link_in_the_trash) {
    fs::create_symlink("nowhere", m_sandbox / "file");
    trash("file");
    writeFile(m_sandbox / "file", "bytes");
    trash("file");
    EXPECT_EQ(m_entries.at(0).TrashPath, m_entries.at(1).TrashPath);
    EXPECT_FALSE(fs::is_symlink(m_trash / "files/file"));
}

TEST_F(Safeguards, without_them_the_second_of_two_entries_replaces_the_first) {
    writeFile(m_sandbox / "file", "first");
    trash("file");
    writeFile(m_sandbox / "file", "second");
    trash("file");
    EXPECT_TRUE(TavroRestoreTrashEntries(m_entries, m_error)) << m_error;
    EXPECT_EQ(readFile(m_sandbox / "file"), "second");
    EXPECT_TRUE(fs::is_empty(m_trash / "files"));
}

TEST_F(Safeguards, a_trash_is_made_private_and_an_old_one_keeps_its_mode) {
    ASSERT_TRUE(MakePrivateTrash());
    EXPECT_EQ(fs::status(m_trash).permissions(), fs::perms::owner_all);
    fs::permissions(m_trash, fs::perms(0750));
    EXPECT_TRUE(MakePrivateTrash());
    EXPECT_EQ(fs::status(m_trash).permissions(), fs::perms(0750));
    const ScopedEnvironment none("HOME", std::nullopt);
    EXPECT_FALSE(MakePrivateTrash());
}

TEST_F(Safeguards, another_file_system_is_told_from_that_of_the_trash) {
    ASSERT_TRUE(MakePrivateTrash());
    writeFile(m_sandbox / "file");
    EXPECT_TRUE(IsOnTrashFileSystem(path("file")));
    EXPECT_FALSE(IsOnTrashFileSystem(path("missing")));
    const Sandbox other(secondFileSystem);
    if (!onDifferentDevices(m_sandbox.path(), other.path())) {
        GTEST_SKIP() << "there is no second file system";
    }
    writeFile(other / "file");
    EXPECT_FALSE(IsOnTrashFileSystem((other / "file").string()));
}

TEST_F(Safeguards, a_link_flagged_as_a_file_is_copied_as_what_it_points_to) {
    const Sandbox other(secondFileSystem);
    if (!onDifferentDevices(m_sandbox.path(), other.path())) {
        GTEST_SKIP() << "there is no second file system";
    }
    writeFile(other / "file", "bytes");
    fs::create_symlink("file", other / "link");
    const std::string link = (other / "link").string();
    ASSERT_TRUE(TavroTrashEntries({{"link", link, false}}, m_entries, m_error)) << m_error;
    EXPECT_FALSE(fs::is_symlink(m_entries.at(0).TrashPath));
    fs::create_symlink("file", other / "link");
    ASSERT_TRUE(TavroTrashEntries({SelectEntry(link).value()}, m_entries, m_error)) << m_error;
    EXPECT_TRUE(fs::is_symlink(m_entries.at(0).TrashPath));
}

TEST_F(Safeguards, a_record_that_was_cut_short_is_seen) {
    writeFile(m_sandbox / "file");
    trash("file");
    const TavroTrashEntry& entry = m_entries.at(0);
    EXPECT_TRUE(RecordIsWhole(entry));
    EXPECT_TRUE(SyncTrash(entry));
    const std::uintmax_t size = fs::file_size(entry.InfoPath);
    for (std::uintmax_t kept = 0; kept < size; ++kept) {
        fs::resize_file(entry.InfoPath, size - kept - 1);
        EXPECT_FALSE(RecordIsWhole(entry)) << size - kept - 1;
    }
    fs::remove_all(m_trash);
    EXPECT_FALSE(SyncTrash(entry));
}

TEST_F(Safeguards, what_is_thrown_becomes_a_sentence) {
    const auto fails = [this](const std::function<bool(std::string&)>& Operation) {
        return WithoutThrowing(Operation, m_error) ? "done" : m_error;
    };
    EXPECT_EQ(fails([](std::string&) { return true; }), "done");
    EXPECT_EQ(fails([](std::string&) -> bool { throw std::bad_alloc(); }), "Out of memory.");
    EXPECT_EQ(fails([this](std::string& ErrorMessage) {
                  std::string selected;
                  return TavroRenameEntry({"file", path("file"), false}, std::string(300, 'n'),
                                          m_sandbox.path(), selected, ErrorMessage);
              }),
              systemText(std::errc::filename_too_long));
}

TEST_F(Safeguards, a_directory_is_measured_on_another_thread_until_cancelled) {
    writeFile(m_sandbox / "folder/file", "12345");
    writeFile(m_sandbox / "folder/below/file", "678");
    std::atomic<bool> bCancelled(false);
    EXPECT_EQ(Measure(m_sandbox / "folder", bCancelled).get(), 8U);
    bCancelled = true;
    EXPECT_EQ(Measure(m_sandbox / "folder", bCancelled).get(), 0U);
}
