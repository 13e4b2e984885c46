// What becomes of an entry that is trashed from another file system when its copy goes wrong. The
// other file system is pretended: the first rename of the entry fails as if it crossed devices.

#include "tavroops.h"

#include "fault_injector.h"
#include "home_trash.h"

#include <cerrno>
#include <functional>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

class CopyFaults : public HomeTrash {
protected:
    CopyFaults() {
        makeTrash();
        writeFile(file, "bytes of the file");
        writeFile(tree / "sub/inner", "bytes of the inner file");
        fs::create_symlink("nowhere", tree / "link");
        m_before = takeSnapshot(documents);
    }

    /// Trashes the entry, across devices as far as the module can tell, under these faults.
    bool trashAcross(const fs::path& entry, std::vector<Fault> faults) {
        faults.push_back({"rename", EXDEV, entry.string(), 1, false, true});
        const FaultInjector injector(std::move(faults));
        const bool bTrashed = trash(entry);
        EXPECT_TRUE(injector.eachFired());
        return bTrashed;
    }

    /// The same, with something done to the copy just before it is looked at.
    bool trashAcross(const fs::path& entry, const fs::path& copy,
                     const std::function<void()>& damage) {
        const FaultInjector injector({{"rename", EXDEV, entry.string(), 1, false, true}});
        bool bDamaged = false;
        // The source's size is asked for only to be compared with that of its copy.
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (call == "lstat" && path == copy.string() && !bDamaged) {
                bDamaged = true;
                damage();
            }
        });
        const bool bTrashed = trash(entry);
        EXPECT_TRUE(bDamaged);
        return bTrashed;
    }

    void expectCopyFailed(const fs::path& entry, std::errc reason) const {
        EXPECT_EQ("Failed to copy '" + entry.string() + "': " + systemText(reason), m_error);
        EXPECT_EQ(m_before, takeSnapshot(documents));
        EXPECT_TRUE(m_list.empty());
        EXPECT_TRUE(fs::is_empty(info));
    }

    fs::path file = documents / "file";
    fs::path tree = documents / "tree";
    std::string m_error;

private:
    bool trash(const fs::path& entry) {
        const bool bDirectory = entry == tree;
        return TavroTrashEntries({{entry.filename().string(), entry.string(), bDirectory}}, m_list,
                                 m_error);
    }

    Snapshot m_before;
    std::vector<TavroTrashEntry> m_list;
};

TEST_F(CopyFaults, a_whole_copy_takes_the_place_of_its_source) {
    EXPECT_TRUE(trashAcross(file, {}));
    EXPECT_TRUE(trashAcross(tree, {}));
    EXPECT_TRUE(fs::is_empty(documents));
    EXPECT_EQ("bytes of the inner file", readFile(files / "tree/sub/inner"));
}

TEST_F(CopyFaults, a_file_that_is_cut_short_keeps_its_source) {
    EXPECT_FALSE(trashAcross(file, files / "file", [&] { fs::resize_file(files / "file", 5); }));
    expectCopyFailed(file, std::errc::io_error);
    EXPECT_EQ("bytes", readFile(files / "file"));
}

TEST_F(CopyFaults, a_file_that_is_gone_or_something_else_keeps_its_source) {
    EXPECT_FALSE(trashAcross(file, files / "file", [&] { fs::remove(files / "file"); }));
    expectCopyFailed(file, std::errc::io_error);
    EXPECT_FALSE(trashAcross(file, files / "file", [&] {
        fs::remove(files / "file");
        fs::create_symlink(file, files / "file");
    }));
    expectCopyFailed(file, std::errc::io_error);
}

TEST_F(CopyFaults, a_file_whose_size_cannot_be_had_keeps_its_source) {
    // One of the looks at the source by its path is the one for its size.
    for (int call = 1; call <= 8; ++call) {
        SCOPED_TRACE(call);
        const FaultInjector injector({{"rename", EXDEV, file.string(), 1, false, true},
                                      {"stat", EACCES, file.string(), call, true, true}});
        std::vector<TavroTrashEntry> list;
        if (TavroTrashEntries({{"file", file.string(), false}}, list, m_error)) {
            EXPECT_GT(call, 1) << "no look at the source was ever refused";
            return;
        }
        EXPECT_EQ("bytes of the file", readFile(file));
    }
    FAIL() << "the source is looked at without end";
}

TEST_F(CopyFaults, an_inner_file_that_is_cut_short_keeps_the_whole_tree) {
    const fs::path copy = files / "tree/sub/inner";
    EXPECT_FALSE(trashAcross(
        tree, copy, [&] { EXPECT_EQ(0, truncate(copy.c_str(), 0)) << "as a full disk does it"; }));
    // The library looks at the copy's place before it copies, too: then nothing is there to be cut.
    expectCopyFailed(tree, std::errc::io_error);
}

TEST_F(CopyFaults, a_tree_that_cannot_be_read_to_its_end_is_not_copied) {
    int failures = 0;
    for (int call = 1; call <= 60; ++call) {
        SCOPED_TRACE(call);
        const FaultInjector injector({{"rename", EXDEV, tree.string(), 1, false, true},
                                      {"readdir", EIO, tree.string(), call}});
        std::vector<TavroTrashEntry> list;
        if (TavroTrashEntries({{"tree", tree.string(), true}}, list, m_error)) {
            EXPECT_GT(failures, 5);
            return;
        }
        ++failures;
        const bool bOfCopy =
            m_error == "Failed to copy '" + tree.string() + "': " + systemText(std::errc::io_error);
        const bool bOfRemoval =
            m_error == "Failed to remove original '" + tree.string() +
                           "' after copying: " + systemText(std::errc::io_error);
        EXPECT_TRUE(bOfCopy || bOfRemoval) << m_error;
        if (bOfRemoval) {
            return; // from here on the source itself is being taken apart
        }
        EXPECT_EQ("bytes of the inner file", readFile(tree / "sub/inner"));
        fs::remove_all(files / "tree");
        fs::remove_all(files / "tree copy 1");
    }
    FAIL() << "the tree is read without end";
}

TEST_F(CopyFaults, a_source_that_cannot_be_removed_is_where_it_was_and_nowhere_else) {
    EXPECT_FALSE(trashAcross(file, {{"remove", EACCES, file.string(), 1, false, true}}));
    EXPECT_EQ("Failed to remove original '" + file.string() +
                  "' after copying: " + systemText(std::errc::permission_denied),
              m_error);
    EXPECT_EQ("bytes of the file", readFile(file));
    EXPECT_TRUE(fs::is_empty(files));
}

TEST_F(CopyFaults, a_source_that_is_gone_at_its_removal_is_an_unknown_error) {
    EXPECT_FALSE(trashAcross(file, {{"remove", ENOENT, file.string(), 1, false, true}}));
    EXPECT_EQ("Failed to remove original '" + file.string() + "' after copying: unknown error",
              m_error);
    EXPECT_TRUE(fs::is_empty(files));
}

} // namespace
