// Moving one entry between file systems: what is copied, when it is on the disk, which sources are
// removed, and what is taken back.

#include "move_fixture.h"

#include "deep_tree.h"

using namespace tavro_move_test;

namespace {

class MoveAcross : public MoveTest {
protected:
    void SetUp() override {
        TARGET_ELSEWHERE();
    }

    /// Makes each removal of a source fail.
    std::vector<Fault> keepSources(int error = EPERM) const {
        return {{"unlinkat", error, source().string(), 1, true}};
    }
};

// =================================================================================================
// What arrives
// =================================================================================================

TEST_F(MoveAcross, moves_everything_and_tells_what_arrived) {
    makeSmallTree(source("tree"));
    writeFile(source("file"), "bytes");
    fs::create_symlink("nowhere", source("link"));
    makeFifo(source("pipe"));
    for (const char* name : {"tree", "file", "link", "pipe"}) {
        const auto before = attributesOfTree(source(name));
        const TavroIdentity old = TavroIdentityOf(statusOf(source(name)));
        EXPECT_TRUE(moveEntry(name)) << failures();
        EXPECT_EQ(before, attributesOfTree(target(name)));
        EXPECT_FALSE(isPresent(source(name)));
        EXPECT_NE(old, m_moved.Arrived.Identity);
        EXPECT_TRUE(TavroIsUnchanged(TavroStateOf(statusOf(target(name))), m_moved.Arrived));
    }
    EXPECT_EQ("", debris());
}

TEST_F(MoveAcross, moves_3000_levels_with_few_open_files_and_a_small_stack) {
    tavro_test::makeDeepTree(source("tree"), 3000);
    runConfined([this] { EXPECT_TRUE(moveEntry("tree")) << failures(); });
    EXPECT_FALSE(isPresent(source("tree")));
    removeDeepTree(target("tree"));
}

TEST_F(MoveAcross, takes_back_a_deep_tree) {
    tavro_test::makeDeepTree(source("tree"), 400);
    runConfined([this] {
        const FaultInjector faults({{"fsync", EIO}});
        EXPECT_FALSE(moveEntry("tree"));
        EXPECT_EQ("Cannot write '/target/tree': " + systemText(std::errc::io_error) + "\n",
                  failures());
        EXPECT_FALSE(m_moved.bCopyStays);
    });
    EXPECT_TRUE(isPresent(source("tree")));
    EXPECT_FALSE(isPresent(target("tree")));
    removeDeepTree(source("tree"));
}

// =================================================================================================
// What could not be removed afterwards is not copied
// =================================================================================================

TEST_F(MoveAcross, takes_over_what_is_whole_of_a_copy_that_was_cut_off) {
    prepareEarlier();
    EXPECT_TRUE(moveEntry("tree")) << failures();
    EXPECT_EQ("taken", readFile(target("tree/file")));
    EXPECT_FALSE(isPresent(source("tree")));
    EXPECT_FALSE(isPresent(target(m_options.Earlier.Name) / "file"));
}

TEST_F(MoveAcross, copies_nothing_out_of_a_directory_that_cannot_be_changed) {
    writeFile(source("tree/closed/a"), "bytes");
    const CallObserver observer([&](const std::string& call, const std::string&) {
        EXPECT_NE("pwrite", call);
        EXPECT_NE("linkat", call);
    });
    const std::string denied = systemText(std::errc::permission_denied) + "\n";
    {
        const FaultInjector faults({{"faccessat", EACCES, source().string() + "/."}});
        EXPECT_FALSE(moveEntry("tree"));
        EXPECT_EQ("Cannot move '/source/tree': " + denied, failures());
        EXPECT_EQ(1, faults.fired());
    }
    const FaultInjector faults({{"faccessat", EACCES, source("tree/closed").string()}});
    EXPECT_FALSE(moveEntry("tree"));
    EXPECT_EQ("Cannot move out of '/source/tree/closed': " + denied, failures());
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(MoveAcross, a_tree_of_which_something_cannot_be_copied_stays_whole) {
    makeSmallTree(source("tree"));
    bindSocket(source("tree/sub/socket"));
    const Snapshot before = takeSnapshot(source());
    EXPECT_FALSE(moveEntry("tree"));
    EXPECT_EQ("Cannot copy the socket '/source/tree/sub/socket'\n", failures());
    EXPECT_EQ(before, takeSnapshot(source()));
    EXPECT_TRUE(fs::is_empty(target()));
}

// =================================================================================================
// On the disk
// =================================================================================================

TEST_F(MoveAcross, a_file_is_on_the_disk_before_it_has_a_name_and_its_name_before_the_source_goes) {
    makeSmallTree(source("tree"));
    writeFile(source("file"), "bytes");
    const std::map<std::string, std::string> order = {{"file", "fsync linkat fsync unlinkat "},
                                                      {"tree", "syncfs renameat2 fsync unlinkat "}};
    for (const auto& one : order) {
        const std::string& name = one.first;
        std::string calls;
        const CallObserver observer(
            [&, last = std::string()](const std::string& call, const std::string& path) mutable {
                const bool bCounts = call == "fsync" || call == "syncfs" || call == "linkat" ||
                                     call == "unlinkat" || call == "renameat2";
                const bool bFirstTry = call == "renameat2" && path == source(name);
                if (bCounts && !bFirstTry && call != last) {
                    calls += call + " ";
                    last = call;
                }
            });
        EXPECT_TRUE(moveEntry(name)) << failures();
        EXPECT_EQ(one.second, calls);
    }
}

TEST_F(MoveAcross, what_cannot_reach_the_disk_does_not_arrive) {
    makeSmallTree(source("tree"));
    writeFile(source("file"), "bytes");
    const Snapshot before = takeSnapshot(source());
    const std::vector<std::pair<std::string, Fault>> faultsOf = {
        {"tree", {"syncfs", EIO}},
        {"tree", {"fsync", EIO}},
        {"file", {"fsync", EIO}},
        {"file", {"fsync", EIO, "", 2}},
    };
    for (const auto& [name, fault] : faultsOf) {
        const FaultInjector faults({fault});
        EXPECT_FALSE(moveEntry(name));
        EXPECT_EQ(1, faults.fired());
        EXPECT_EQ("Cannot write '/target/" + name + "': " + systemText(std::errc::io_error) + "\n",
                  failures());
        EXPECT_EQ(before, takeSnapshot(source()));
        EXPECT_TRUE(fs::is_empty(target()));
    }
}

TEST_F(MoveAcross, what_waits_is_told_before_it_gets_its_name_which_can_be_denied) {
    writeFile(source("tree/a"), "a");
    writeFile(source("file"), "bytes");
    for (const std::string name : {"file", "tree"}) {
        for (const bool bDenied : {true, false}) {
            TavroIdentity told;
            m_options.BeforePublish = [&](const TavroFileState& made, const std::string& hidden) {
                told = made.Identity;
                EXPECT_FALSE(isPresent(target(name)));
                if (name == "tree") {
                    EXPECT_EQ(told, TavroIdentityOf(statusOf(target(hidden))));
                }
                return bDenied ? TavroFailure{Kind::HistoryBusy} : TavroFailure();
            };
            EXPECT_EQ(!bDenied, moveEntry(name));
            EXPECT_NE(0U, told.Inode);
            if (bDenied) {
                EXPECT_EQ(Kind::HistoryBusy, m_moved.Failure.Kind);
                EXPECT_TRUE(isPresent(source(name)) && debris().empty());
            } else {
                EXPECT_EQ(told, TavroIdentityOf(statusOf(target(name))));
            }
        }
    }
}

TEST_F(MoveAcross, nothing_waits_any_more_where_the_name_was_taken_at_the_last_moment) {
    writeFile(source("tree/a"), "a");
    writeFile(source("file"), "bytes");
    for (const std::string name : {"file", "tree"}) {
        const CallObserver observer([&](const std::string&, const std::string& path) {
            const bool bWaits = path.rfind(target().string(), 0) == 0;
            if (bWaits && otherPathOfCall() == target(name) && !isPresent(target(name))) {
                writeFile(target(name), "other");
            }
        });
        EXPECT_FALSE(moveEntry(name));
        EXPECT_EQ(Kind::Taken, m_moved.Failure.Kind);
        EXPECT_EQ("other", readFile(target(name)));
        EXPECT_EQ("", debris());
        EXPECT_TRUE(isPresent(source(name)));
    }
}

// =================================================================================================
// Sources that change
// =================================================================================================

TEST_F(MoveAcross, a_source_that_changes_unseen_before_its_copy_has_a_name_stays) {
    writeFile(source("tree/in/a"), "bytes");
    writeFile(source("file"), "bytes");
    const std::map<std::string, std::string> changed = {{"file", "file"}, {"tree", "tree/in/a"}};
    m_options.BeforePublish = [](const TavroFileState&, const std::string&) {
        ADD_FAILURE() << "it gets no name";
        return TavroFailure();
    };
    for (const auto& [name, what] : changed) {
        const Before observer(name == "file" ? "fsync" : "syncfs", "",
                              [&, path = source(what)] { changeUnseen(path); });
        EXPECT_FALSE(moveEntry(name));
        EXPECT_TRUE(observer.isDone());
        EXPECT_EQ(Kind::Changed, m_moved.Failure.Kind);
        EXPECT_EQ("'/source/" + what + "' changed while it was being moved\n", failures());
        EXPECT_EQ("Xytes", readFile(source(what)));
        EXPECT_TRUE(fs::is_empty(target()));
    }
}

TEST_F(MoveAcross, a_source_that_changes_unseen_after_its_copy_has_a_name_stays_and_is_told) {
    writeFile(source("tree/a"), "bytes");
    writeFile(source("file"), "bytes");
    const std::map<std::string, std::string> changed = {{"file", "file"}, {"tree", "tree/a"}};
    for (const auto& [name, what] : changed) {
        const Before observer("fsync", target().string(),
                              [&, path = source(what)] { changeUnseen(path); });
        m_options = {};
        EXPECT_FALSE(moveEntry(name));
        EXPECT_TRUE(observer.isDone());
        EXPECT_EQ("Xytes", readFile(source(what)));
        if (name == "file") { // whose own bytes are synced first
            EXPECT_EQ("'/source/file' changed while it was being moved\n", failures());
            EXPECT_FALSE(isPresent(target("file")));
            continue;
        }
        EXPECT_EQ("A copy of '/source/tree' is left at '/target/tree'\n"
                  "'/source/tree/a' changed while it was being moved\n"
                  "Cannot remove '/source/tree' after copying: " +
                      systemText(std::errc::directory_not_empty) + "\n",
                  failures());
        EXPECT_EQ("bytes", readFile(target("tree/a")));
        EXPECT_TRUE(m_moved.bCopyStays);
        EXPECT_FALSE(m_moved.bPartlyMoved);
    }
}

TEST_F(MoveAcross, a_source_that_is_replaced_or_vanishes_does_not_take_its_copy_along) {
    for (const bool bReplaced : {false, true}) {
        writeFile(source("file"), "bytes");
        const Before observer("linkat", "", [&] {
            fs::remove(source("file"));
            if (bReplaced) {
                writeFile(source("file"), "other");
            }
        });
        EXPECT_FALSE(moveEntry("file"));
        EXPECT_EQ("A copy of '/source/file' is left at '/target/file'\n"
                  "'/source/file' changed while it was being moved\n",
                  failures());
        EXPECT_EQ("bytes", readFile(target("file")));
        EXPECT_EQ(bReplaced, isPresent(source("file")));
        fs::remove(target("file"));
    }
}

TEST_F(MoveAcross, what_appears_in_the_source_stays_and_the_rest_goes) {
    writeFile(source("tree/sub/a"), "a");
    writeFile(source("tree/z"), "z");
    const Before observer("fsync", "", [&] { writeFile(source("tree/sub/late"), "late"); });
    EXPECT_FALSE(moveEntry("tree"));
    const std::string notEmpty = systemText(std::errc::directory_not_empty) + "\n";
    EXPECT_EQ("Cannot remove '/source/tree/sub' after copying: " + notEmpty +
                  "Cannot remove '/source/tree' after copying: " + notEmpty,
              failures());
    EXPECT_TRUE(m_moved.bPartlyMoved);
    EXPECT_TRUE(m_moved.bCopyStays);
    EXPECT_EQ("late", readFile(source("tree/sub/late")));
    EXPECT_FALSE(isPresent(source("tree/z")));
    EXPECT_EQ("z", readFile(target("tree/z")));
}

TEST_F(MoveAcross, a_directory_that_is_exchanged_for_another_is_not_emptied) {
    writeFile(source("tree/sub/a"), "a");
    writeFile(source("other/a"), "of somebody else");
    const Before observer("fsync", "", [&] {
        fs::rename(source("tree/sub"), source("taken away"));
        fs::rename(source("other"), source("tree/sub"));
    });
    EXPECT_FALSE(moveEntry("tree"));
    EXPECT_EQ("of somebody else", readFile(source("tree/sub/a")));
    EXPECT_EQ("a", readFile(target("tree/sub/a")));
    EXPECT_EQ(source("tree/sub"), m_moved.Below.at(0).Path);
    EXPECT_EQ(Kind::Changed, m_moved.Below.at(0).Kind);
}

// =================================================================================================
// Several names of one file
// =================================================================================================

TEST_F(MoveAcross, all_names_of_a_file_go_though_each_that_goes_changes_the_others) {
    makeDirectory(source("tree"));
    writeFile(source("tree/a"), "bytes");
    fs::create_hard_link(source("tree/a"), source("tree/b"));
    fs::create_hard_link(source("tree/a"), source("tree/c"));
    fs::create_hard_link(source("tree/a"), source("d"));
    fs::create_hard_link(source("tree/a"), source("e"));
    for (const char* name : {"tree", "d", "e"}) {
        EXPECT_TRUE(moveEntry(name)) << failures();
        EXPECT_TRUE(TavroIsUnchanged(TavroStateOf(statusOf(target(name))), m_moved.Arrived));
    }
    EXPECT_TRUE(fs::is_empty(source()));
    EXPECT_EQ(5U, statusOf(target("e")).st_nlink);
    EXPECT_EQ("bytes", readFile(target("tree/b")));
}

TEST_F(MoveAcross, a_name_of_a_file_that_changes_after_another_name_went_stays) {
    writeFile(source("a"), "bytes");
    fs::create_hard_link(source("a"), source("b"));
    EXPECT_TRUE(moveEntry("a")) << failures();
    const Before observer("linkat", target("b").string(), [] {});
    changeUnseen(source("b"));
    EXPECT_TRUE(moveEntry("b")) << failures();
    EXPECT_EQ("bytes", readFile(target("a")));
    EXPECT_EQ("Xytes", readFile(target("b"))); // a copy of its own
    EXPECT_EQ(1U, statusOf(target("b")).st_nlink);

    for (const char* name : {"tree/a", "tree/b"}) {
        writeFile(source(name), "bytes");
    }
    fs::remove(source("tree/b"));
    fs::create_hard_link(source("tree/a"), source("tree/b"));
    std::string stays;
    const Before change("fstat", source("tree").string() + "/", [] {});
    int unlinks = 0;
    const CallObserver second([&](const std::string& call, const std::string& path) {
        if (call == "unlinkat" && path.rfind(source("tree").string() + "/", 0) == 0) {
            ++unlinks;
        } else if (unlinks == 1 && call == "fstatat" && stays.empty()) {
            stays = path;
            changeUnseen(path);
        }
    });
    EXPECT_FALSE(moveEntry("tree"));
    EXPECT_EQ(1, unlinks);
    ASSERT_TRUE(stays == source("tree/a") || stays == source("tree/b"));
    EXPECT_EQ("Xytes", readFile(stays));
    EXPECT_TRUE(m_moved.bPartlyMoved);
    EXPECT_EQ(Kind::Changed, m_moved.Failure.Kind);
    EXPECT_EQ(stays, m_moved.Failure.Path);
}

TEST_F(MoveAcross, links_to_no_copy_that_was_changed_unseen) {
    writeFile(source("a"), "bytes");
    fs::create_hard_link(source("a"), source("b"));
    EXPECT_TRUE(copyEntry("a"));
    changeUnseen(target("a"));
    EXPECT_TRUE(copyEntry("b"));
    EXPECT_EQ("Xytes", readFile(target("a")));
    EXPECT_EQ("bytes", readFile(target("b")));
}

TEST_F(MoveAcross, links_to_no_copy_whose_path_leads_to_another_file) {
    writeFile(source("a"), "bytes");
    fs::create_hard_link(source("a"), source("b"));
    makeDirectory(target("in"));
    EXPECT_TRUE(bring(true, source("a"), target("in/a")));
    fs::rename(target("in"), target("away"));
    writeFile(target("elsewhere/a"), "bytes");
    fs::create_symlink("elsewhere", target("in"));
    EXPECT_TRUE(copyEntry("b"));
    EXPECT_EQ(1U, statusOf(target("b")).st_nlink);
    EXPECT_EQ(1U, statusOf(target("elsewhere/a")).st_nlink);
}

TEST_F(MoveAcross, all_names_of_a_copy_are_taken_back_but_none_of_an_earlier_one) {
    writeFile(source("tree/a"), "bytes");
    fs::create_hard_link(source("tree/a"), source("tree/b"));
    fs::create_hard_link(source("tree/a"), source("c"));
    EXPECT_TRUE(copyEntry("c"));
    const FaultInjector faults(keepSources());
    EXPECT_FALSE(moveEntry("tree"));
    EXPECT_FALSE(m_moved.bCopyStays) << failures();
    EXPECT_FALSE(isPresent(target("tree")));
    EXPECT_EQ("bytes", readFile(target("c")));
    EXPECT_EQ(1U, statusOf(target("c")).st_nlink);
    EXPECT_EQ(3U, statusOf(source("c")).st_nlink);
}

// =================================================================================================
// Taking back
// =================================================================================================

TEST_F(MoveAcross, when_no_source_can_be_removed_the_copy_goes_instead) {
    makeSmallTree(source("tree"));
    writeFile(source("file"), "bytes");
    const Snapshot before = takeSnapshot(source());
    const FaultInjector faults(keepSources());
    for (const char* name : {"file", "tree"}) {
        EXPECT_FALSE(moveEntry(name));
        EXPECT_EQ(Kind::RemoveAfterCopy, m_moved.Failure.Kind);
        EXPECT_FALSE(m_moved.bCopyStays);
        EXPECT_TRUE(fs::is_empty(target()));
    }
    EXPECT_EQ(before, takeSnapshot(source()));
}

TEST_F(MoveAcross, what_others_have_changed_or_put_into_a_copy_is_not_taken_back) {
    writeFile(source("tree/a"), "bytes");
    writeFile(source("tree/sub/b"), "bytes");
    writeFile(source("tree/sub/c"), "bytes");
    const FaultInjector faults(keepSources());
    const Before observer("unlinkat", source().string(), [&] {
        changeUnseen(target("tree/a"));
        writeFile(target("tree/new"), "of somebody else");
        fs::remove(target("tree/sub/b"));
        writeFile(target("tree/sub/b"), "bytes");
    });
    EXPECT_FALSE(moveEntry("tree"));
    EXPECT_EQ(Kind::CopyStays, m_moved.Failure.Kind);
    EXPECT_TRUE(m_moved.bCopyStays);
    EXPECT_FALSE(m_moved.bPartlyMoved);
    EXPECT_EQ((Snapshot{{".", "directory 755"},
                        {"a", "file 644 Xytes"},
                        {"new", "file 644 of somebody else"},
                        {"sub", "directory 755"},
                        {"sub/b", "file 644 bytes"}}),
              takeSnapshot(target("tree")));
    EXPECT_EQ("bytes", readFile(source("tree/sub/c")));
}

TEST_F(MoveAcross, no_source_is_removed_when_its_published_copy_is_not_what_was_made) {
    const std::vector<std::function<void(const fs::path&)>> damages = {
        [](const fs::path& copy) { fs::resize_file(copy, 2); },
        [](const fs::path& copy) { fs::remove(copy); },
        [](const fs::path& copy) {
            fs::remove(copy);
            writeFile(copy, "other");
        },
    };
    for (const auto& damage : damages) {
        writeFile(source("tree/in/a"), "bytes");
        writeFile(source("tree/b"), "bytes");
        const Before observer("fsync", "", [&] { damage(target("tree/in/a")); });
        EXPECT_FALSE(moveEntry("tree"));
        EXPECT_TRUE(observer.isDone());
        EXPECT_EQ("A copy of '/source/tree' is left at '/target/tree'\n"
                  "The copy of '/source/tree/in/a' is incomplete\n",
                  failures());
        EXPECT_EQ("bytes", readFile(source("tree/in/a")));
        EXPECT_EQ("bytes", readFile(source("tree/b")));
        fs::remove_all(target("tree"));
    }
}

TEST_F(MoveAcross, what_is_found_under_the_hidden_name_is_not_published_unless_it_is_the_copy) {
    writeFile(source("tree/a"), "bytes");
    writeFile(target("other/a"), "of somebody else");
    fs::path hidden;
    const Before observer("syncfs", "", [&] {
        for (const auto& entry : fs::directory_iterator(target())) {
            hidden = entry.path().filename() == "other" ? hidden : entry.path();
        }
        fs::rename(hidden, target("taken away"));
        fs::rename(target("other"), hidden);
    });
    EXPECT_FALSE(moveEntry("tree"));
    EXPECT_EQ(Kind::Publish, m_moved.Failure.Kind);
    EXPECT_FALSE(isPresent(target("tree")));
    EXPECT_EQ("of somebody else", readFile(hidden / "a"));
    EXPECT_EQ("bytes", readFile(source("tree/a")));
}

TEST_F(MoveAcross, what_takes_the_place_of_the_published_copy_is_noticed) {
    writeFile(source("tree/a"), "bytes");
    writeFile(target("other/a"), "of somebody else");
    const Before observer("fstatat", target("tree").string(), [] {});
    bool bExchanged = false;
    const CallObserver exchange([&](const std::string& call, const std::string&) {
        if (call == "fstatat" && !bExchanged && isPresent(target("tree"))) {
            bExchanged = true;
            fs::rename(target("tree"), target("taken away"));
            fs::rename(target("other"), target("tree"));
        }
    });
    EXPECT_FALSE(moveEntry("tree"));
    EXPECT_TRUE(bExchanged);
    EXPECT_EQ(Kind::Publish, m_moved.Failure.Kind);
    EXPECT_FALSE(isPresent(target("tree"))) << "it gets the hidden name";
    EXPECT_EQ("bytes", readFile(source("tree/a")));
}

// =================================================================================================
// What is lost
// =================================================================================================

TEST_F(MoveAcross, counts_the_entries_that_lost_something) {
    makeSmallTree(source("tree"));
    const bool bHolds =
        setAttribute(source("tree/a"), "user.a", "1") &&
        setAttribute(source("tree/sub"), "user.a", "1") &&
        setAttribute(source("tree/sub"), "user.b", "2") &&
        setAttribute(source("tree/a"), "system.posix_acl_access", listLettingIn(12345)) &&
        setAttribute(source("tree/empty"), "system.posix_acl_access", listLettingIn(12345)) &&
        setAttribute(source("tree/empty"), "system.posix_acl_default", listLettingIn(12345));
    if (!bHolds) {
        GTEST_SKIP() << "this file system holds no extended attributes or lists";
    }
    const FaultInjector faults({{"fsetxattr", ENOTSUP, "", 1, true}});
    EXPECT_TRUE(moveEntry("tree")) << failures();
    EXPECT_EQ(6, faults.fired());
    EXPECT_EQ(2U, m_moved.Lost.AccessLists);
    EXPECT_EQ(2U, m_moved.Lost.ExtendedAttributes);
    EXPECT_EQ(S_IFREG | mode_t{0644}, statusOf(target("tree/a")).st_mode);
    EXPECT_EQ(S_IFDIR | mode_t{0644}, statusOf(target("tree/empty")).st_mode);
}

} // namespace
