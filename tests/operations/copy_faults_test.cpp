// What becomes of an entry that is moved to the trash or back from another file system when the
// copy goes wrong. The other file system is pretended: the first rename of the entry fails as if it
// crossed devices.

#include "tavroops.h"

#include "fault_injector.h"
#include "home_trash.h"

#include <cerrno>
#include <functional>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

class CopyFaults : public HomeTrash {
protected:
    /// Something that happens to a copy between its making and the look at it.
    struct Damage {
        const char* Name;
        std::function<void()> Do;
    };

    CopyFaults() {
        makeTrash();
        writeFile(m_file, "bytes of the file");
        makeTree(m_tree);
        m_before = takeSnapshot(documents);
    }

    static Fault whole(const char* call, int error, const fs::path& path, int when = 1,
                       bool bFromThenOn = false) {
        return {call, error, path.string(), when, bFromThenOn, true};
    }

    /// Trashes the entry, across devices as far as the module can tell, under these faults.
    bool trashAcross(const TavroOperationEntry& entry, std::vector<Fault> faults = {}) {
        faults.push_back(whole("rename", EXDEV, entry.Path));
        const FaultInjector injector(std::move(faults));
        const bool bTrashed = TavroTrashEntries({entry}, trashed, error);
        EXPECT_TRUE(injector.eachFired());
        return bTrashed;
    }

    /// The entry stays when this happens just before its copy, or this part of it, is looked at.
    void expectKept(const TavroOperationEntry& entry, const fs::path& part, const Damage& damage) {
        SCOPED_TRACE(std::string(damage.Name) + ": " + part.string());
        Snapshot damaged;
        {
            const CallObserver observer([&](const std::string& call, const std::string& path) {
                if (damaged.empty() && call == "lstat" && path == part) {
                    damage.Do();
                    damaged = takeSnapshot(files);
                }
            });
            EXPECT_FALSE(trashAcross(entry));
        }
        EXPECT_EQ(takeSnapshot(files), damaged) << "what was copied stays";
        expectCopyFailed(entry, std::errc::io_error);
    }

    /// The documents are as they were; the trash is emptied for the next try.
    void expectCopyFailed(const TavroOperationEntry& entry, std::errc reason) {
        EXPECT_EQ(error, failed("copy", entry.Path, reason));
        EXPECT_EQ(takeSnapshot(documents), m_before);
        EXPECT_TRUE(trashed.empty());
        EXPECT_TRUE(fs::is_empty(info));
        fs::remove_all(files);
        makeTrash();
    }

    /// The copy is gone, and the entry could not be removed for this reason.
    void expectRemovalFailed(const TavroOperationEntry& entry, const std::string& reason) const {
        EXPECT_EQ(error, "Failed to remove original '" + entry.Path + "' after copying: " + reason);
        EXPECT_TRUE(fs::is_empty(files));
        EXPECT_TRUE(fs::is_empty(info));
    }

    /// What can be wrong with the copy of a file.
    static std::vector<Damage> damagesTo(const fs::path& copy, const fs::path& original) {
        const auto replaceBy = [copy](const std::function<void()>& make) {
            return [=] {
                fs::remove(copy);
                make();
            };
        };
        const auto resizeTo = [copy](std::uintmax_t size) {
            return [=] {
                fs::permissions(copy, fs::perms::owner_all);
                fs::resize_file(copy, size);
            };
        };
        const std::uintmax_t size = fs::file_size(original);
        std::vector<Damage> damages = {
            {"longer", resizeTo(size + 1)},
            {"missing", replaceBy([] {})},
            {"a directory", replaceBy([=] { makeDirectory(copy); })},
            {"a fifo", replaceBy([=] { makeFifo(copy); })},
            {"a link to the original", replaceBy([=] { fs::create_symlink(original, copy); })},
            {"a dangling link", replaceBy([=] { fs::create_symlink("nowhere", copy); })},
        };
        if (size > 0) {
            damages.push_back({"shorter", resizeTo(size - 1)});
        }
        return damages;
    }

    /// Restores a directory and a file that is flagged as one to the same place, the file across
    /// devices, under these faults.
    bool restoreBothToOnePlace(std::vector<Fault> faults = {}) {
        writeFile(documents / "other/file", "bytes of the other");
        EXPECT_TRUE(TavroTrashEntries({directory(m_tree), directory(documents / "other/file")},
                                      trashed, error));
        trashed[1].OriginalPath = m_tree.string();
        faults.push_back(whole("rename", EXDEV, trashed[1].TrashPath));
        const FaultInjector injector(std::move(faults));
        const bool bRestored = TavroRestoreTrashEntries(trashed, error);
        EXPECT_TRUE(injector.eachFired());
        return bRestored;
    }

    const fs::path m_file = documents / "file";
    const fs::path m_tree = documents / "tree";
    Snapshot m_before;
};

TEST_F(CopyFaults, a_whole_copy_takes_the_place_of_its_source) {
    const Snapshot tree = takeSnapshot(m_tree);
    EXPECT_TRUE(trashAcross(file(m_file)));
    EXPECT_TRUE(trashAcross(directory(m_tree)));
    EXPECT_EQ(error, "untouched");
    EXPECT_TRUE(fs::is_empty(documents));
    EXPECT_EQ(readFile(files / "file"), "bytes of the file");
    EXPECT_EQ(takeSnapshot(files / "tree"), tree);
}

TEST_F(CopyFaults, a_copy_that_needs_several_writes_is_whole) {
    writeFile(m_file, std::string(300000, 'x'));
    EXPECT_TRUE(trashAcross(file(m_file), {{"sendfile", 0}}));
    EXPECT_EQ(readFile(files / "file"), std::string(300000, 'x'));
}

TEST_F(CopyFaults, no_other_error_than_the_cross_device_one_leads_to_a_copy) {
    for (int reason = 1; reason <= 133; ++reason) {
        if (reason != EXDEV) {
            const FaultInjector injector({whole("rename", reason, m_file)});
            EXPECT_FALSE(TavroTrashEntries({file(m_file)}, trashed, error));
            EXPECT_EQ(error, failed("move", m_file, static_cast<std::errc>(reason)));
            EXPECT_EQ(takeSnapshot(documents), m_before);
            EXPECT_TRUE(fs::is_empty(files));
        }
    }
}

// The copy.

TEST_F(CopyFaults, a_file_whose_copy_is_not_whole_stays) {
    for (const Damage& damage : damagesTo(files / "file", m_file)) {
        expectKept(file(m_file), files / "file", damage);
    }
    const auto cut = [&] { fs::resize_file(files / "file", 3); };
    expectKept(directory(m_file), files / "file", {"flagged as a directory", cut});
}

TEST_F(CopyFaults, a_tree_with_a_file_whose_copy_is_not_whole_stays) {
    for (const char* name : {"deep/er/program", "nothing"}) {
        const fs::path copy = files / "tree" / name;
        for (const Damage& damage : damagesTo(copy, m_tree / name)) {
            expectKept(directory(m_tree), copy, damage);
        }
    }
    const auto removeFolder = [&] { fs::remove_all(files / "tree/deep"); };
    expectKept(directory(m_tree), files / "tree/deep/er/program", {"folder gone", removeFolder});
}

TEST_F(CopyFaults, a_copy_that_is_cut_short_by_a_full_disk_keeps_its_source) {
    writeFile(m_file, std::string(100000, 'x'));
    writeFile(m_tree / "deep/large", std::string(100000, 'x'));
    m_before = takeSnapshot(documents);
    // The disk is full after the first block of the copy.
    const std::vector<Fault> fullDisk = {{"sendfile", EINVAL, "large"},
                                         {"writev", ENOSPC, "large", 2, true}};
    const std::string large = (files / "large").string();
    {
        const FaultInjector injector(fullDisk);
        std::error_code ec;
        fs::copy_file(m_tree / "deep/large", large, ec);
        if (ec || !injector.eachFired()) {
            GTEST_SKIP() << "this standard library tells that its copy is cut short";
        }
    }
    fs::remove(large);
    EXPECT_FALSE(trashAcross(directory(m_tree), fullDisk));
    EXPECT_TRUE(isPresent(files / "tree/deep/large")) << "the part stays";
    expectCopyFailed(directory(m_tree), std::errc::io_error);
}

TEST_F(CopyFaults, a_place_that_cannot_be_written_is_told_with_its_reason) {
    EXPECT_FALSE(trashAcross(file(m_file), {whole("open", EROFS, files / "file")}));
    expectCopyFailed(file(m_file), std::errc::read_only_file_system);
}

TEST_F(CopyFaults, a_tree_that_cannot_be_read_to_its_end_is_not_copied) {
    // The directory is read four times: both dot names, one entry and the end.
    for (const int when : {1, 2, 3, 4}) {
        EXPECT_FALSE(
            trashAcross(directory(m_tree), {whole("readdir", EBADF, m_tree / "deep", when)}));
        EXPECT_TRUE(fs::is_directory(files / "tree/deep")) << "the part stays";
        expectCopyFailed(directory(m_tree), std::errc::bad_file_descriptor);
    }
}

TEST_F(CopyFaults, a_source_that_cannot_be_examined_for_the_check_stays) {
    // The copy has asked once before the check does.
    EXPECT_FALSE(trashAcross(file(m_file), {whole("stat", EACCES, m_file, 2)}));
    expectCopyFailed(file(m_file), std::errc::io_error);
    // Two sizes that cannot be had are not the same.
    EXPECT_FALSE(trashAcross(file(m_file), {whole("stat", EACCES, m_file, 2, true),
                                            whole("stat", EACCES, files / "file", 3, true)}));
    expectCopyFailed(file(m_file), std::errc::io_error);

    const fs::path program = m_tree / "deep/er/program";
    const fs::path folder = program.parent_path();
    std::vector<Fault> faults = {
        whole("lstat", EACCES, m_tree, 2, true), whole("lstat", EACCES, folder, 2, true),
        whole("lstat", EACCES, program, 2),      whole("stat", EACCES, program),
        whole("openat", EACCES, m_tree, 2),
    };
    // The copy reads four times: both dot names, the file and the end.
    for (const int when : {5, 6, 7, 8}) {
        faults.push_back(whole("readdir", EACCES, folder, when));
    }
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.Call + " number " + std::to_string(fault.When));
        EXPECT_FALSE(trashAcross(directory(m_tree), {fault}));
        expectCopyFailed(directory(m_tree), std::errc::io_error);
    }
}

// The removal of the source.

TEST_F(CopyFaults, a_source_that_cannot_be_removed_is_where_it_was_and_nowhere_else) {
    EXPECT_FALSE(trashAcross(file(m_file), {whole("remove", EACCES, m_file)}));
    expectRemovalFailed(file(m_file), systemText(std::errc::permission_denied));
    EXPECT_EQ(takeSnapshot(documents), m_before);
}

TEST_F(CopyFaults, a_tree_that_can_be_removed_in_part_loses_that_part) {
    EXPECT_FALSE(trashAcross(directory(m_tree), {{"unlinkat", EBUSY, "program"}}));
    expectRemovalFailed(directory(m_tree), systemText(std::errc::device_or_resource_busy));
    EXPECT_EQ(readFile(m_tree / "deep/er/program"), std::string("\0\n\xFF", 3));
}

TEST_F(CopyFaults, a_source_that_is_gone_at_its_removal_is_an_unknown_error) {
    EXPECT_FALSE(trashAcross(file(m_file), {whole("remove", ENOENT, m_file)}));
    expectRemovalFailed(file(m_file), "unknown error");
    // A tree is opened three times: for the copy, for the check of it and for the removal.
    EXPECT_FALSE(trashAcross(directory(m_tree), {whole("openat", ENOENT, m_tree, 3)}));
    expectRemovalFailed(directory(m_tree), "unknown error");
    EXPECT_EQ(takeSnapshot(documents), m_before);
}

TEST_F(CopyFaults, a_directory_that_took_the_place_of_the_file_is_not_removed) {
    bool bTaken = false;
    {
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (!bTaken && call == "lstat" && path == files / "file") {
                bTaken = fs::remove(m_file);
                writeFile(m_file / "new", "new");
            }
        });
        EXPECT_FALSE(trashAcross(file(m_file)));
    }
    EXPECT_TRUE(bTaken);
    expectRemovalFailed(file(m_file), systemText(std::errc::directory_not_empty));
    EXPECT_EQ(readFile(m_file / "new"), "new");
}

TEST_F(CopyFaults, a_copy_that_cannot_be_discarded_stays_without_a_word) {
    EXPECT_FALSE(trashAcross(
        file(m_file), {whole("remove", EBUSY, m_file), whole("remove", EACCES, files / "file")}));
    EXPECT_EQ(error, "Failed to remove original '" + m_file.string() +
                         "' after copying: " + systemText(std::errc::device_or_resource_busy));
    EXPECT_EQ(takeSnapshot(documents), m_before);
    EXPECT_EQ(readFile(files / "file"), "bytes of the file");
}

// A file that is flagged as a directory and meets a directory: the library copies it into that.

TEST_F(CopyFaults, a_file_that_did_not_arrive_whole_in_a_directory_stays) {
    bool bCut = false;
    {
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (call == "lstat" && path == m_tree / "file") {
                bCut = true;
                fs::resize_file(m_tree / "file", 3);
            }
        });
        EXPECT_FALSE(restoreBothToOnePlace());
    }
    EXPECT_TRUE(bCut);
    EXPECT_EQ(error, failed("copy", files / "file", std::errc::io_error));
    EXPECT_EQ(readFile(files / "file"), "bytes of the other");
}

TEST_F(CopyFaults, only_the_copy_in_a_directory_is_discarded) {
    const Snapshot tree = takeSnapshot(m_tree);
    for (const int reason : {EACCES, ENOENT}) {
        EXPECT_FALSE(restoreBothToOnePlace({whole("remove", reason, files / "file")}));
        EXPECT_EQ(
            error,
            "Failed to remove original '" + (files / "file").string() + "' after copying: " +
                (reason == ENOENT ? "unknown error" : systemText(std::errc::permission_denied)));
        EXPECT_EQ(readFile(files / "file"), "bytes of the other");
        EXPECT_EQ(takeSnapshot(files / "tree"), tree) << "it went back to the trash before";
        fs::remove_all(files);
        makeTrash();
        makeTree(m_tree);
    }
}

} // namespace
