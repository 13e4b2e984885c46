// Bringing one entry within a file system: by a rename, or by a copy that nobody sees before it is
// whole.

#include "move_fixture.h"

#include "deep_tree.h"

#include <sys/fsuid.h>

using namespace tavro_move_test;

namespace {

// =================================================================================================
// Renaming
// =================================================================================================

TEST_F(MoveTest, renames_where_it_can_and_tells_what_arrived) {
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source("tree"));
    const struct stat status = statusOf(source("tree"));
    EXPECT_TRUE(moveEntry("tree"));
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    EXPECT_FALSE(isPresent(source("tree")));
    EXPECT_EQ(TavroIdentityOf(status), m_moved.Arrived.Identity);
    EXPECT_TRUE(TavroIsUnchanged(TavroStateOf(statusOf(target("tree"))), m_moved.Arrived));
    EXPECT_EQ("tree", m_moved.Name);
}

TEST_F(MoveTest, a_rename_of_what_is_not_known_takes_two_calls) {
    writeFile(source("file"), "bytes");
    TavroPlaces places;
    TavroPlace from;
    TavroPlace to;
    ASSERT_FALSE(places.Find(source("file").string(), from));
    ASSERT_FALSE(places.Find(target("file").string(), to));
    TavroProgressTeller progress(m_callbacks);
    std::string calls;
    {
        const CallObserver observer(
            [&](const std::string& call, const std::string&) { calls += call + " "; });
        m_moved = TavroBringEntry(from, to, m_options, m_links, progress);
    }
    EXPECT_FALSE(m_moved.Failure);
    EXPECT_EQ("renameat2 fstatat ", calls);
}

TEST_F(MoveTest, names_what_is_missing) {
    const std::string error = systemText(std::errc::no_such_file_or_directory);
    EXPECT_FALSE(moveEntry("file"));
    EXPECT_EQ("Cannot move '/source/file' to '/target/file': " + error + "\n", failures());
    EXPECT_FALSE(copyEntry("file"));
    EXPECT_EQ("Cannot read '/source/file': " + error + "\n", failures());
    m_options.Expected = TavroIdentity{1, 1};
    EXPECT_FALSE(moveEntry("file"));
    EXPECT_EQ("Cannot move '/source/file' to '/target/file': " + error + "\n", failures());
}

TEST_F(MoveTest, says_when_the_target_cannot_take_it) {
    writeFile(source("file"), "bytes");
    const FaultInjector faults({{"renameat2", EDQUOT}});
    EXPECT_FALSE(moveEntry("file"));
    EXPECT_EQ("Cannot move '/source/file' to '/target/file': " +
                  std::error_code(EDQUOT, std::generic_category()).message() + "\n",
              failures());
}

TEST_F(MoveTest, only_a_directory_can_be_moved_into_itself) {
    writeFile(source("tree/in/a"), "bytes");
    EXPECT_FALSE(bring(false, source("tree"), source("tree/in/tree")));
    EXPECT_EQ("Cannot move the directory '/source/tree' into itself\n", failures());
    const FaultInjector faults({{"renameat2", EINVAL}, {"renameat", EINVAL}});
    EXPECT_FALSE(bring(false, source("tree/in/a"), target("a")));
    EXPECT_EQ(Kind::MoveTo, m_moved.Failure.Kind);
    EXPECT_TRUE(faults.eachFired());
}

// =================================================================================================
// The expected file
// =================================================================================================

TEST_F(MoveTest, touches_nothing_when_the_source_is_not_the_expected_file) {
    writeFile(source("file"), "bytes");
    writeFile(source("other"), "other");
    m_options.Expected = TavroIdentityOf(statusOf(source("other")));
    const auto before = attributesOfTree(m_box.path());
    const struct stat status = statusOf(source("file"));
    for (const bool bCopy : {false, true}) {
        EXPECT_FALSE(bring(bCopy, source("file"), target("file")));
        EXPECT_EQ("'/source/file' changed while it was being moved\n", failures());
        EXPECT_EQ(before, attributesOfTree(m_box.path()));
        EXPECT_TRUE(TavroIsUnchanged(TavroStateOf(status), TavroStateOf(statusOf(source("file")))));
    }
    m_options.Expected = TavroIdentityOf(status);
    EXPECT_TRUE(copyEntry("file"));
    EXPECT_EQ("other", (fs::remove(target("file")), readFile(source("other"))));
    EXPECT_TRUE(moveEntry("file"));
}

TEST_F(MoveTest, what_took_the_name_of_the_expected_file_at_the_last_moment_goes_back) {
    writeFile(source("file"), "bytes");
    writeFile(source("other"), "other");
    m_options.Expected = TavroIdentityOf(statusOf(source("file")));
    const Before observer("renameat2", "source/file", [&] {
        fs::rename(source("file"), source("taken away"));
        fs::rename(source("other"), source("file"));
    });
    EXPECT_FALSE(moveEntry("file"));
    EXPECT_EQ(Kind::Changed, m_moved.Failure.Kind);
    EXPECT_EQ("other", readFile(source("file")));
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(MoveTest, what_took_the_name_of_the_expected_file_is_not_copied) {
    for (const char* name : {"file", "tree"}) {
        writeFile(source("tree/a"), "bytes");
        writeFile(source("file"), "bytes");
        writeFile(source("other/a"), "other");
        m_options.Expected = TavroIdentityOf(statusOf(source(name)));
        const Before observer("openat", source(name).string(), [&] {
            fs::rename(source(name), source("taken away"));
            fs::rename(source(name == std::string("file") ? "other/a" : "other"), source(name));
        });
        EXPECT_FALSE(copyEntry(name));
        EXPECT_TRUE(observer.isDone());
        EXPECT_EQ(Kind::Read, m_moved.Failure.Kind);
        EXPECT_TRUE(fs::is_empty(target()));
        fs::remove_all(source("taken away"));
    }
}

// =================================================================================================
// Names that are taken
// =================================================================================================

TEST_F(MoveTest, replaces_nothing_and_says_what_is_taken) {
    makeSmallTree(source("tree"));
    writeFile(source("file"), "new");
    writeFile(source("big"), bytesOf(mebibyte));
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        fs::create_symlink("nowhere", target("tree"));
        writeFile(target("file"), "old");
        makeDirectory(target("big"));
        const Snapshot before = takeSnapshot(target());
        for (const bool bCopy : {false, true}) {
            for (const char* name : {"tree", "file", "big"}) {
                EXPECT_FALSE(bring(bCopy, source(name), target(name)));
                EXPECT_EQ(Kind::Taken, m_moved.Failure.Kind);
                EXPECT_EQ(target(name), m_moved.Failure.Path);
                EXPECT_EQ(source(name), m_moved.Failure.Other);
                EXPECT_EQ(before, takeSnapshot(target()));
                EXPECT_TRUE(isPresent(source(name)));
            }
        }
    }
}

TEST_F(MoveTest, nothing_large_is_copied_to_a_name_that_is_taken) {
    makeSmallTree(source("tree"));
    writeFile(source("big"), bytesOf(mebibyte));
    for (const char* name : {"tree", "big"}) {
        writeFile(target(name), "old");
        const CallObserver observer([&](const std::string& call, const std::string&) {
            EXPECT_NE("mkdirat", call);
            EXPECT_NE("copy_file_range", call);
        });
        EXPECT_FALSE(copyEntry(name));
        EXPECT_EQ(Kind::Taken, m_moved.Failure.Kind);
    }
}

TEST_F(MoveTest, takes_the_next_name_as_often_as_one_is_taken) {
    makeSmallTree(source("tree"));
    writeFile(source("file"), "new");
    const Snapshot tree = takeSnapshot(source("tree"));
    for (const bool bCopy : {true, false}) {
        for (const std::string name : {"tree", "file"}) {
            int number = 0;
            m_options.NextName = [&] { return name + std::to_string(++number); };
            for (const std::string& taken : {name, name + "1", name + "2"}) {
                writeFile(target(taken), "old");
            }
            EXPECT_TRUE(bring(bCopy, source(name), target(name))) << failures();
            EXPECT_EQ(name + "3", m_moved.Name);
            EXPECT_EQ(takeSnapshot(source(name)),
                      bCopy ? takeSnapshot(target(name + "3")) : Snapshot());
            EXPECT_EQ("old", readFile(target(name + "2")));
            fs::remove_all(target());
            makeDirectory(target());
        }
    }
    EXPECT_EQ("", debris());
}

TEST_F(MoveTest, does_not_look_for_a_free_name_for_ever) {
    writeFile(source("file"), "new");
    writeFile(target("file"), "old");
    int asked = 0;
    m_options.NextName = [&] {
        ++asked;
        return "file";
    };
    for (const bool bCopy : {false, true}) {
        EXPECT_FALSE(bring(bCopy, source("file"), target("file")));
        EXPECT_EQ(Kind::Taken, m_moved.Failure.Kind);
    }
    EXPECT_EQ(200, asked);
    EXPECT_EQ("old", readFile(target("file")));
}

// =================================================================================================
// What a copy costs, and how it is made
// =================================================================================================

/// The calls that one more file costs.
class CallsOfACopy : public MoveTest {
protected:
    std::map<std::string, int> countCalls(const std::string& name) {
        TavroPlace from;
        TavroPlace to;
        EXPECT_FALSE(m_places.Find(source(name).string(), from));
        EXPECT_FALSE(m_places.Find(target(name).string(), to));
        TavroProgressTeller progress(m_callbacks);
        m_options.bCopy = true;
        const NumberedFaults counter;
        EXPECT_FALSE(TavroBringEntry(from, to, m_options, m_links, progress).Failure);
        std::map<std::string, int> calls;
        for (const CountedCall& call : counter.calls()) {
            ++calls[call.Call];
            ++calls["all"];
        }
        return calls;
    }
    TavroPlaces m_places;
};

TEST_F(CallsOfACopy, a_single_small_file_takes_12_and_a_sync) {
    writeFile(source("1"), "bytes");
    writeFile(source("2"), "bytes");
    countCalls("1");
    EXPECT_GE(13, countCalls("2")["all"]);
}

TEST_F(CallsOfACopy, a_small_file_in_a_tree_takes_11) {
    writeFile(source("10/0"), "bytes");
    for (int i = 0; i < 20; ++i) {
        writeFile(source("20/" + std::to_string(i)), "bytes");
    }
    const int one = countCalls("10")["all"];
    EXPECT_GE(one + 19 * 11, countCalls("20")["all"]);
}

TEST_F(CallsOfACopy, the_target_is_asked_once_what_new_entries_inherit) {
    for (int i = 0; i < 5; ++i) {
        writeFile(source("tree/" + std::to_string(i)), "bytes");
        writeFile(source(std::to_string(i)), "bytes");
    }
    EXPECT_EQ(1, countCalls("tree")["fgetxattr"]);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(0, countCalls(std::to_string(i))["fgetxattr"]);
    }
}

TEST_F(MoveTest, copies_where_files_cannot_be_made_without_a_name) {
    writeFile(source("file"), bytesOf(100000));
    const FaultInjector faults({{"openat", EOPNOTSUPP, ".", 1, true, true}});
    EXPECT_TRUE(copyEntry("file"));
    EXPECT_EQ(1, faults.fired());
    EXPECT_EQ(attributesOfTree(source("file")), attributesOfTree(target("file")));
    EXPECT_EQ("", debris());
}

TEST_F(MoveTest, copies_where_a_file_without_a_name_cannot_get_one) {
    writeFile(source("file"), bytesOf(100000));
    writeFile(source("next"), "next");
    const FaultInjector faults({{"linkat", ENOENT, "", 1, true}});
    EXPECT_TRUE(copyEntry("file")) << failures();
    EXPECT_EQ(2, faults.fired()); // by the kernel's two ways
    EXPECT_EQ(attributesOfTree(source("file")), attributesOfTree(target("file")));
    EXPECT_TRUE(copyEntry("next"));
    EXPECT_EQ(2, faults.fired());
    EXPECT_EQ("", debris());
}

TEST_F(MoveTest, nothing_shows_before_it_is_whole) {
    makeSmallTree(source("tree"));
    fs::permissions(source("tree"), static_cast<fs::perms>(0777));
    writeFile(source("file"), bytesOf(9 * mebibyte));
    for (const char* name : {"file", "tree"}) {
        int hidden = 0;
        m_callbacks.ShouldCancel = [&] {
            for (const auto& entry : fs::directory_iterator(target())) {
                EXPECT_TRUE(TavroIsStagingName(entry.path().filename().string()));
                EXPECT_EQ(S_IFDIR | mode_t{0700}, statusOf(entry.path()).st_mode);
                ++hidden;
            }
            return false;
        };
        EXPECT_TRUE(copyEntry(name));
        EXPECT_EQ(name == std::string("tree"), hidden > 0);
        fs::remove_all(target(name));
    }
}

TEST_F(MoveTest, an_incomplete_copy_that_cannot_be_removed_is_named) {
    writeFile(source("tree/a"), "bytes");
    const FaultInjector faults({{"pwrite", ENOSPC}, {"unlinkat", EIO, ".tavro-", 1, true}});
    EXPECT_FALSE(copyEntry("tree"));
    EXPECT_TRUE(faults.eachFired());
    EXPECT_EQ("Cannot copy '/source/tree/a': " + systemText(std::errc::no_space_on_device) +
                  "\nCannot remove the incomplete copy '/target/.tavro-XXXXXX': " +
                  systemText(std::errc::io_error) + "\n",
              failures());
}

TEST_F(MoveTest, a_copy_that_cannot_go_back_up_in_itself_leaves_nothing) {
    makeDeepTree(source("tree"), 12);
    const FaultInjector faults(
        {{"openat", EMFILE, "..", 2, false, true}}); // the first is the source's
    EXPECT_FALSE(copyEntry("tree"));
    EXPECT_TRUE(faults.eachFired());
    EXPECT_EQ(Kind::Write, m_moved.Failure.Kind);
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(MoveTest, a_copy_that_does_not_get_its_name_leaves_nothing) {
    makeSmallTree(source("tree"));
    const FaultInjector faults({{"renameat2", EIO}});
    EXPECT_FALSE(copyEntry("tree"));
    EXPECT_EQ("Cannot put the copy of '/source/tree' at '/target/tree': " +
                  systemText(std::errc::io_error) + "\n",
              failures());
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(MoveTest, a_file_whose_close_fails_after_it_got_its_name_loses_it) {
    writeFile(source("file"), "bytes");
    const FaultInjector faults({{"close", EIO, target("#").string()}}); // as it is told by then
    EXPECT_FALSE(copyEntry("file"));
    EXPECT_EQ(1, faults.fired());
    EXPECT_EQ(Kind::Publish, m_moved.Failure.Kind);
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(MoveTest, a_directory_that_holds_the_destination_is_not_copied) {
    writeFile(source("tree/in/a"), "bytes");
    writeFile(source("tree/z"), "bytes");
    const Snapshot before = takeSnapshot(source());
    EXPECT_FALSE(bring(true, source("tree"), source("tree/in/copy")));
    EXPECT_EQ("Cannot copy the directory '/source/tree' into itself\n", failures());
    EXPECT_EQ(before, takeSnapshot(source()));
}

TEST_F(MoveTest, a_copy_tells_what_did_not_arrive) {
    writeFile(source("tree/a"), "a");
    bindSocket(source("tree/socket"));
    makeDirectory(source("tree/unlisted"));
    const FaultInjector faults({{"getdents64", EIO, "unlisted"}});
    EXPECT_FALSE(copyEntry("tree"));
    EXPECT_FALSE(m_moved.Failure);
    ASSERT_EQ(2U, m_moved.Below.size());
    for (const TavroFailure& failure : m_moved.Below) {
        EXPECT_TRUE((failure.Kind == Kind::Socket && failure.Path == source("tree/socket")) ||
                    (failure.Kind == Kind::Read && failure.Path == source("tree/unlisted")));
    }
    EXPECT_EQ("a", readFile(target("tree/a")));
}

TEST_F(MoveTest, an_interrupt_between_two_entries_leaves_nothing) {
    writeFile(source("tree/a"), "a");
    writeFile(source("tree/b"), "b");
    int asked = 0;
    m_callbacks.ShouldCancel = [&] { return ++asked == 3; };
    EXPECT_FALSE(copyEntry("tree"));
    EXPECT_EQ(Kind::Cancelled, m_moved.Failure.Kind);
    EXPECT_TRUE(m_moved.Below.empty());
    EXPECT_TRUE(fs::is_empty(target()));
}

// =================================================================================================
// Progress
// =================================================================================================

TEST_F(MoveTest, a_rename_counts_nothing_and_a_copy_what_it_copies) {
    makeSmallTree(source("tree"));
    TavroProgress last;
    m_callbacks.OnProgress = [&](const TavroProgress& progress) { last = progress; };
    EXPECT_TRUE(copyEntry("tree"));
    EXPECT_EQ(12U, last.ItemsDone);
    EXPECT_EQ(11U, last.BytesDone);
    fs::remove_all(target("tree"));
    EXPECT_TRUE(moveEntry("tree"));
    EXPECT_EQ(0U, last.ItemsDone);
    EXPECT_EQ(0U, last.BytesDone);
}

TEST_F(MoveTest, the_bytes_of_a_large_file_are_told_under_its_name) {
    writeFile(source("tree/big"), bytesOf(9 * mebibyte));
    std::set<std::string> paths;
    m_callbacks.OnProgress = [&](const TavroProgress& progress) {
        paths.insert(progress.BytesDone == 0 ? "" : progress.CurrentPath);
    };
    EXPECT_TRUE(copyEntry("tree"));
    EXPECT_EQ(1U, paths.count(source("tree/big")));
}

// =================================================================================================
// Who owns what is new
// =================================================================================================

TEST_F(MoveTest, the_group_of_a_directory_that_hands_it_on_is_not_kept) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root may give directories to any group";
    }
    ASSERT_EQ(0, chown(target().c_str(), 0, 4321));
    fs::permissions(target(), static_cast<fs::perms>(02775));
    makeSmallTree(source("tree"));
    for (const char* name : {"1", "2"}) {
        writeFile(source(name), "bytes");
        EXPECT_TRUE(copyEntry(name));
        EXPECT_EQ(0U, statusOf(target(name)).st_gid);
    }
    EXPECT_TRUE(copyEntry("tree"));
    EXPECT_EQ(attributesOfTree(source("tree")), attributesOfTree(target("tree")));
}

TEST_F(MoveTest, copies_where_what_is_new_belongs_to_somebody_else) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can act on files as somebody else";
    }
    makeSmallTree(source("tree"));
    fs::create_symlink("nowhere", source("link"));
    ASSERT_EQ(0, chown(target().c_str(), 4321, 4321));
    fs::permissions(m_box.path(), static_cast<fs::perms>(0777));
    runInChild([&] {
        setfsuid(4321);
        for (const char* name : {"tree", "link"}) {
            EXPECT_TRUE(copyEntry(name)) << failures();
            EXPECT_EQ(takeSnapshot(source(name)), takeSnapshot(target(name)));
        }
    });
    EXPECT_EQ("", debris());
}

TEST_F(MoveTest, takes_over_from_a_copy_that_was_cut_off_only_what_is_whole_there) {
    const std::map<std::string, std::string> files = {
        {"whole", "bytes"},     {"whole too", "bytes"},
        {"sub/whole", "bytes"}, {"sub/deeper/whole", "bytes"},
        {"shorter", "bytes"},   {"older", "bytes"},
        {"linked", "bytes"},    {"link", "bytes"}};
    for (const auto& [name, bytes] : files) {
        writeFile(source("tree") / name, bytes);
        setTimes(source("tree") / name, 1000, 5);
    }
    waitUntilYounger(source());
    m_options.Earlier.Name = TavroStagingName();
    const fs::path earlier = target(m_options.Earlier.Name);
    for (const auto& [name, bytes] : files) {
        writeFile(earlier / name, name == "shorter" ? "old" : "taken");
        setTimes(earlier / name, name == "older" ? 999 : 1000, 5);
    }
    fs::create_hard_link(earlier / "linked", earlier / "other name");
    fs::remove(earlier / "link");
    fs::create_symlink("whole", earlier / "link");
    setTimes(earlier / "link", 1000, 5);
    m_options.Earlier.Made = TavroIdentityOf(statusOf(earlier));
    m_options.Earlier.Source = TavroIdentityOf(statusOf(source("tree")));
    EXPECT_TRUE(copyEntry("tree")) << failures();
    for (const auto& [name, bytes] : files) {
        const bool bTaken = name.find("whole") != std::string::npos;
        EXPECT_EQ(bTaken ? "taken" : bytes, readFile(target("tree") / name)) << name;
        EXPECT_EQ(bTaken, !isPresent(earlier / name)) << name;
    }
}

TEST_F(MoveTest, takes_nothing_over_from_another_directory_than_the_one_that_was_cut_off) {
    prepareEarlier();
    const TavroIdentity made = m_options.Earlier.Made;
    const TavroIdentity of = m_options.Earlier.Source;
    const TavroIdentity other = TavroIdentityOf(statusOf(source()));
    for (const auto& [copy, original] : {std::pair(other, of), std::pair(made, other)}) {
        m_options.Earlier.Made = copy;
        m_options.Earlier.Source = original;
        EXPECT_TRUE(copyEntry("tree")) << failures();
        EXPECT_EQ("bytes", readFile(target("tree/file")));
        fs::remove_all(target("tree"));
    }
    for (const char* changed : {"tree", "tree/file"}) { // since the copy was begun
        prepareEarlier();
        setTimes(source(changed), 1000, 5);
        EXPECT_TRUE(copyEntry("tree")) << failures();
        EXPECT_EQ("bytes", readFile(target("tree/file"))) << changed;
        fs::remove_all(target("tree"));
    }
}

TEST_F(MoveTest, takes_over_nothing_that_somebody_put_there_at_the_last_moment) {
    prepareEarlier();
    Before swap("renameat2", "/file", [&] {
        writeFile(target("other"), "other");
        setTimes(target("other"), 1000, 5);
        fs::rename(target("other"), target(m_options.Earlier.Name) / "file");
    });
    EXPECT_FALSE(copyEntry("tree")) << "that is told";
    EXPECT_TRUE(swap.isDone());
    EXPECT_NE(std::string::npos, failures().find("tree/file"));
    EXPECT_EQ("bytes", readFile(source("tree/file")));
}

TEST_F(MoveTest, a_link_or_pipe_of_somebody_else_is_not_taken_for_the_new_one) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root may give files away";
    }
    fs::create_symlink("nowhere", source("link"));
    makeFifo(source("pipe"));
    m_bUndisturbed = false;
    for (const char* name : {"link", "pipe"}) {
        fs::path theirs;
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            const bool bStaged = TavroIsStagingName(fs::path(path).filename().string());
            if (m_bWorking && theirs.empty() && call == "openat" && bStaged && isPresent(path)) {
                theirs = path;
                fs::remove(path);
                if (name == std::string("link")) {
                    fs::create_symlink("theirs", path);
                } else {
                    makeFifo(path);
                    fs::permissions(path, fs::perms(0600));
                }
                EXPECT_EQ(0, lchown(path.c_str(), 4321, 4321));
            }
        });
        EXPECT_FALSE(copyEntry(name));
        ASSERT_FALSE(theirs.empty()) << name;
        EXPECT_FALSE(isPresent(target(name)));
        EXPECT_EQ(4321U, statusOf(theirs).st_uid) << "nothing is given to it";
        fs::remove(theirs);
    }
}

TEST_F(MoveTest, directories_that_the_owner_himself_may_not_search_arrive_with_their_modes) {
    makeDirectory(source("tree"));
    fs::path deepest = source("tree");
    for (int i = 0; i < 12; ++i) {
        deepest /= "d";
        makeDirectory(deepest);
        fs::permissions(deepest, static_cast<fs::perms>(0777));
    }
    if (isRoot()) {
        ASSERT_EQ(0, chown(target().c_str(), 65534, 65534));
        for (int i = 0; i < 12; ++i) {
            fs::permissions(deepest, static_cast<fs::perms>(i % 2 == 0 ? 0077 : 0777));
            deepest = deepest.parent_path();
        }
    }
    const auto before = takeSnapshot(source("tree"));
    fs::permissions(m_box.path(), static_cast<fs::perms>(0755));
    runUnprivileged(target(), [&] { EXPECT_TRUE(copyEntry("tree")) << failures(); });
    EXPECT_EQ(before, takeSnapshot(target("tree")));
}

} // namespace
