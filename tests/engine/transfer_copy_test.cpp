// What a transfer brings to its destinations.

#include "transfer_fixture.h"

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_transfer_test;

namespace {

TEST_F(CarryOutTransfer, copies_a_tree_with_links_and_pipes_as_what_they_are) {
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source());
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, takeSnapshot(target()));
    EXPECT_EQ(before, takeSnapshot(source()));
    EXPECT_EQ("done /source/tree -> /target/tree\n", report());
}

TEST_F(CarryOutTransfer, moves_a_tree_by_one_rename_where_it_can) {
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source("tree"));
    const ino_t number = statusOf(source("tree/a")).st_ino;
    EXPECT_TRUE(move({"tree"}));
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    EXPECT_EQ(number, statusOf(target("tree/a")).st_ino);
    EXPECT_FALSE(isPresent(source("tree")));
    EXPECT_EQ("done /source/tree -> /target/tree\n", report());
}

/// As between two mounts of one file system.
TEST_F(CarryOutTransfer, moves_by_copying_what_turns_out_not_to_be_renamed) {
    makeSmallTree(source("tree"));
    writeFile(source("file"), "new");
    writeFile(target("file"), "old");
    const Snapshot before = takeSnapshot(source("tree"));
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    const FaultInjector faults({{"renameat2", EXDEV, source().string(), 1, true}});
    EXPECT_TRUE(move({"tree", "file"})) << report();
    EXPECT_EQ(2, faults.fired());
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    EXPECT_EQ("new", readFile(target("file")));
    EXPECT_FALSE(isPresent(source("tree")) || isPresent(source("file")));
    EXPECT_EQ("", debris());
}

TEST_F(CarryOutTransfer, moves_a_tree_between_file_systems) {
    TARGET_ELSEWHERE();
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source("tree"));
    EXPECT_TRUE(move({"tree"}));
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    EXPECT_FALSE(isPresent(source("tree")));
    EXPECT_EQ("done /source/tree -> /target/tree\n", report());
    EXPECT_EQ("", debris());
}

TEST_F(CarryOutTransfer, moves_what_is_named_twice_or_by_itself_and_with_its_directory_once) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/a"), "1");
    writeFile(source("tree/b"), "2");
    writeFile(source("file"), "3");
    add("tree/a", "a");
    add("file", "file");
    add("file", "file again");
    add("tree", "tree");
    EXPECT_FALSE(move());
    EXPECT_EQ("done /source/tree/a -> /target/a\ndone /source/file -> /target/file\n"
              "done /source/tree -> /target/tree\nfailed: Cannot move '/source/file' to "
              "'/target/file again': " +
                  systemText(std::errc::no_such_file_or_directory) + "\n",
              report());
    EXPECT_TRUE(fs::is_empty(source()));
    EXPECT_FALSE(isPresent(target("tree/a")));
    EXPECT_EQ("2", readFile(target("tree/b")));
    makeDirectory(source("tree"));
    fs::rename(target("a"), target("tree/other"));
    writeFile(source("tree/a"), "4");
    m_report = {};
    add("tree/a", "a");
    add("tree", "tree"); // which is merged
    EXPECT_TRUE(move()) << report();
    EXPECT_EQ("4", readFile(target("a")));
    EXPECT_FALSE(isPresent(target("tree/a")));
    EXPECT_TRUE(fs::is_empty(source()));
}

TEST_F(CarryOutTransfer, copies_single_links_and_pipes_without_following_them) {
    makeDirectory(source("directory"));
    fs::create_symlink("nowhere", source("dangling"));
    fs::create_symlink("directory", source("to directory"));
    makeFifo(source("pipe"));
    const Snapshot before = takeSnapshot(source());
    EXPECT_TRUE(copy({"dangling", "directory", "pipe", "to directory"}));
    EXPECT_EQ(before, takeSnapshot(target()));
}

TEST_F(CarryOutTransfer, moves_single_links_and_pipes_between_file_systems) {
    TARGET_ELSEWHERE();
    fs::create_symlink("nowhere", source("dangling"));
    fs::create_symlink("/tmp", source("to directory"));
    makeFifo(source("pipe"));
    const Snapshot before = takeSnapshot(source());
    EXPECT_TRUE(move({"dangling", "pipe", "to directory"}));
    EXPECT_EQ(before, takeSnapshot(target()));
    EXPECT_TRUE(fs::is_empty(source()));
}

TEST_F(CarryOutTransfer, refuses_a_socket_by_name_and_goes_on) {
    bindSocket(source("socket"));
    writeFile(source("file"), "bytes");
    EXPECT_FALSE(copy({"socket", "file"}));
    EXPECT_EQ("done /source/file -> /target/file\n"
              "failed: Cannot copy the socket '/source/socket'\n",
              report());
    EXPECT_FALSE(isPresent(target("socket")));
    EXPECT_EQ("", debris());
}

TEST_F(CarryOutTransfer, a_move_between_file_systems_refuses_a_tree_with_a_socket_as_a_whole) {
    TARGET_ELSEWHERE();
    makeSmallTree(source("tree"));
    bindSocket(source("tree/sub/socket"));
    const Snapshot before = takeSnapshot(source());
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("failed: Cannot copy the socket '/source/tree/sub/socket'\n", report());
    EXPECT_EQ(before, takeSnapshot(source()));
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(CarryOutTransfer, a_move_that_is_a_rename_takes_a_socket_along) {
    bindSocket(source("socket"));
    EXPECT_TRUE(move({"socket"}));
    EXPECT_TRUE(fs::is_socket(target("socket")));
}

TEST_F(CarryOutTransfer, refuses_a_device_by_name) {
    if (mknod(source("null").c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) {
        GTEST_SKIP() << "devices can be created by root only";
    }
    EXPECT_FALSE(copy({"null"}));
    EXPECT_EQ("failed: Cannot copy the device '/source/null'\n", report());
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(CarryOutTransfer, refuses_audio_tracks_by_one_sentence) {
    TavroTransferItemPlan item;
    item.SourcePath = "cdda://1/Track 01.cdda";
    item.DestinationPath = target("Track 01.wav");
    m_plan.Items = {item};
    EXPECT_FALSE(copy());
    EXPECT_EQ("failed: Cannot read audio CD track "
              "'cdda://1/Track 01.cdda': this build cannot read discs\n",
              report());
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(CarryOutTransfer, names_of_all_bytes_arrive) {
    std::string name;
    for (int byte = 1; byte < 256; ++byte) {
        name += byte == '/' ? '_' : static_cast<char>(byte);
    }
    writeFile(source("t") / name, "bytes");
    writeFile(source("t") / "-rf *", "bytes");
    writeFile(source("t") / "\n", "bytes");
    const Snapshot before = takeSnapshot(source());
    EXPECT_TRUE(copy({"t"}));
    EXPECT_EQ(before, takeSnapshot(target()));
}

TEST_F(CarryOutTransfer, a_name_without_room_for_any_addition_arrives) {
    const std::string name(255, 'n');
    writeFile(source(name), "bytes");
    writeFile(target(name), "old");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(copy({name}));
    EXPECT_EQ("bytes", readFile(target(name)));
}

TEST_F(CarryOutTransfer, creates_missing_parents) {
    writeFile(source("file"), "bytes");
    add("file", "new/newer/file");
    EXPECT_TRUE(copy());
    EXPECT_EQ("bytes", readFile(target("new/newer/file")));
}

TEST_F(CarryOutTransfer, says_when_a_parent_cannot_be_created) {
    writeFile(source("file"), "bytes");
    writeFile(target("taken"), "in the way");
    add("file", "taken/file");
    EXPECT_FALSE(copy());
    EXPECT_EQ("failed: Cannot create the directory '/target/taken': " +
                  systemText(std::errc::not_a_directory) + "\n",
              report());
    EXPECT_EQ("in the way", readFile(target("taken")));
}

TEST_F(CarryOutTransfer, takes_relative_paths) {
    const ScopedCurrentDirectory directory(m_box.path());
    writeFile("./file", "bytes");
    TavroTransferItemPlan item;
    item.SourcePath = "file";
    item.DestinationPath = "copy of file";
    m_plan.Items = {item};
    EXPECT_TRUE(copy());
    EXPECT_EQ("bytes", readFile("copy of file"));
    EXPECT_EQ("done /file -> /copy of file\n", report());
}

TEST_F(CarryOutTransfer, one_bad_item_does_not_stop_the_others) {
    writeFile(source("a"), "1");
    writeFile(source("c"), "3");
    for (const bool bMove : {false, true}) {
        EXPECT_FALSE(run(bMove, {"a", "b", "c"}));
        EXPECT_EQ("done /source/a -> /target/a\ndone /source/c -> /target/c\n"
                  "failed: Cannot " +
                      std::string(bMove ? "move '/source/b' to '/target/b'" : "read '/source/b'") +
                      ": " + systemText(std::errc::no_such_file_or_directory) + "\n",
                  report());
        fs::remove_all(target());
    }
}

TEST_F(CarryOutTransfer,
       what_the_guard_protects_is_copied_but_not_moved_and_nothing_else_is_begun) {
    writeFile(source("file"), "bytes");
    writeFile(source("users/somebody/inside"), "of somebody");
    const ScopedEnvironment home("HOME", source("users/somebody").string());
    const Snapshot before = takeSnapshot(m_box.path());
    m_callbacks.ShouldCancel = [] { return false; };
    EXPECT_FALSE(move({"file", "users"}));
    ASSERT_EQ(1U, m_report.Failed.size()) << report();
    EXPECT_EQ(TavroFailureKind::RefuseMove, m_report.Failed[0].Kind);
    EXPECT_EQ(source("users"), m_report.Failed[0].Path);
    EXPECT_EQ(before, takeSnapshot(m_box.path()));
    EXPECT_TRUE(copy({"file", "users"}));
    EXPECT_EQ("of somebody", readFile(target("users/somebody/inside")));
}

/// On a file system in memory, which has room for many directories at once.
class DeepTransfer : public TransferTest {
protected:
    DeepTransfer() : TransferTest(inMemory()) {}
};

TEST_F(DeepTransfer, a_deep_tree_needs_few_open_files_and_a_small_stack) {
    constexpr int levels = 3000;
    makeDeepTree(source("tree"), levels);
    runInChild([&] {
        limitFilesAndStack(64);
        EXPECT_TRUE(copy({"tree"}));
        EXPECT_EQ("done /source/tree -> /target/tree\n", report());
    });
    EXPECT_EQ(levels, depthOf(target("tree")));
    EXPECT_EQ(levels, depthOf(source("tree")));
    removeDeepTree(source());
    removeDeepTree(target());
}

// =================================================================================================
// File systems that cannot rename without replacing
// =================================================================================================

class RenameWithoutTheKernelsHelp : public TransferTest, public testing::WithParamInterface<int> {};

TEST_P(RenameWithoutTheKernelsHelp, copies_and_moves_all_the_same) {
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source("tree"));
    const FaultInjector faults({{"renameat2", GetParam(), "", 1, true}});
    EXPECT_TRUE(copy({"tree"})) << report();
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    fs::remove_all(target("tree"));
    EXPECT_TRUE(move({"tree"})) << report();
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    EXPECT_FALSE(isPresent(source("tree")));
    EXPECT_LE(2, faults.fired());
}

INSTANTIATE_TEST_SUITE_P(Errors, RenameWithoutTheKernelsHelp, testing::Values(EINVAL, ENOSYS));

} // namespace
