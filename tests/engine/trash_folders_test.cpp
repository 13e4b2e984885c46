// The directories of the home trash.

#include "trash_folders.h"

#include "trash_fixture.h"

using namespace tavro_trash_test;

namespace {

class TrashFolders : public HomeWithTrash {
protected:
    std::vector<fs::path> folders() const {
        return {root(), root() / "files", root() / "info"};
    }
    static std::string ensure() {
        return TavroDescribe(TavroEnsurePrivateTrash());
    }
};

} // namespace

TEST_F(TrashFolders, are_three_below_the_home_directory) {
    const TavroTrashFolders found = TavroFindTrashFolders();
    EXPECT_EQ(found.Base, home());
    EXPECT_EQ(found.Root, root());
    EXPECT_EQ(found.Files, root() / "files");
    EXPECT_EQ(found.Info, root() / "info");
}

TEST_F(TrashFolders, are_in_the_data_directory_of_the_user_when_it_is_absolute) {
    for (const auto& [data, wanted] :
         {std::pair{sandbox() / "data", sandbox() / "data/Trash"},
          std::pair{fs::path("data"), root()}, std::pair{fs::path(""), root()}}) {
        const ScopedEnvironment environment("XDG_DATA_HOME", data.string());
        EXPECT_EQ(TavroFindTrashFolders().Root, wanted);
        ASSERT_EQ(ensure(), "");
        EXPECT_TRUE(fs::is_directory(wanted / "info"));
    }
}

TEST_F(TrashFolders, are_none_without_a_home_directory) {
    for (const std::optional<std::string>& none :
         {std::optional<std::string>(), {""}, {"home"}, {"."}}) {
        const ScopedEnvironment environment("HOME", none);
        EXPECT_TRUE(TavroFindTrashFolders().Root.empty());
        EXPECT_TRUE(TavroFindTrashFolders().Files.empty());
        EXPECT_EQ(TavroEnsurePrivateTrash().Kind, TavroFailureKind::NoHome);
        EXPECT_EQ(ensure(), "There is no trash: HOME is not set to an absolute path");
    }
}

TEST_F(TrashFolders, are_made_private_under_an_open_umask_and_so_are_their_parents) {
    const ScopedUmask open(0);
    ASSERT_EQ(ensure(), "");
    for (const fs::path& folder : folders()) {
        EXPECT_EQ(modeOf(folder), 0700U) << folder;
    }
    EXPECT_EQ(modeOf(home() / ".local"), 0700U);
    EXPECT_EQ(modeOf(home() / ".local/share"), 0700U);
}

TEST_F(TrashFolders, can_be_used_by_their_owner_under_a_closed_umask) {
    makeDirectory(home() / ".local/share");
    runUnprivileged(sandbox(), [&] {
        const ScopedUmask closed(0777);
        ASSERT_EQ(ensure(), "");
        for (const fs::path& folder : folders()) {
            EXPECT_EQ(modeOf(folder), 0700U) << folder;
        }
    });
}

TEST_F(TrashFolders, that_exist_keep_their_mode) {
    makeDirectory(root() / "files");
    fs::permissions(root(), fs::perms(0755));
    fs::permissions(root() / "files", fs::perms(0750));
    ASSERT_EQ(ensure(), "");
    EXPECT_EQ(modeOf(root()), 0755U);
    EXPECT_EQ(modeOf(root() / "files"), 0750U);
    EXPECT_EQ(modeOf(root() / "info"), 0700U);
}

TEST_F(TrashFolders, may_be_links_to_directories) {
    makeDirectory(sandbox() / "elsewhere");
    makeDirectory(root().parent_path());
    fs::create_symlink(sandbox() / "elsewhere", root());
    ASSERT_EQ(ensure(), "");
    EXPECT_TRUE(fs::is_directory(sandbox() / "elsewhere/info"));
}

TEST_F(TrashFolders, come_with_a_home_directory_that_is_missing) {
    const ScopedEnvironment environment("HOME", (sandbox() / "new/home").string());
    ASSERT_EQ(ensure(), "");
    EXPECT_TRUE(fs::is_directory(sandbox() / "new/home/.local/share/Trash/info"));
}

TEST_F(TrashFolders, name_what_is_in_their_way) {
    for (const fs::path& inTheWay :
         {home() / ".local", home() / ".local/share", root(), root() / "files", root() / "info"}) {
        fs::remove_all(home() / ".local");
        writeFile(inTheWay, "a file");
        EXPECT_EQ(ensure(),
                  inQuotes(inTheWay) + " is in the way: the trash needs a directory there");
        EXPECT_EQ(readFile(inTheWay), "a file");
    }
}

TEST_F(TrashFolders, take_a_dangling_link_for_being_in_their_way) {
    makeDirectory(root().parent_path());
    fs::create_symlink("nowhere", root());
    EXPECT_EQ(ensure(), inQuotes(root()) + " is in the way: the trash needs a directory there");
}

TEST_F(TrashFolders, name_the_directory_that_cannot_be_made) {
    runUnprivileged(sandbox(), [&] {
        fs::permissions(home(), fs::perms(0500));
        EXPECT_EQ(ensure(), "Cannot create the trash directory " + inQuotes(home() / ".local") +
                                ": " + systemText(std::errc::permission_denied));
    });
}

TEST_F(TrashFolders, say_when_they_cannot_be_made_private) {
    const FaultInjector fault({{"chmod", EPERM, ""}});
    EXPECT_EQ(ensure(), "") << "they are already";
    fs::remove_all(root());
    const ScopedUmask mask(0777);
    EXPECT_EQ(ensure(), "Cannot make the trash directory " + inQuotes(root()) +
                            " private: " + systemText(std::errc::operation_not_permitted));
    EXPECT_EQ(fault.fired(), 1);
}

TEST_F(TrashFolders, are_opened_as_far_as_they_are_there) {
    TavroOpenTrash none;
    ASSERT_FALSE(none.Open());
    EXPECT_FALSE(none.Files.IsOpen() || none.Info.IsOpen());
    makeDirectory(root() / "files");
    writeFile(root() / "info");
    TavroOpenTrash broken;
    EXPECT_EQ(TavroDescribe(broken.Open()), "Cannot read " + inQuotes(root() / "info") + ": " +
                                                systemText(std::errc::not_a_directory));
    EXPECT_TRUE(broken.Files.IsOpen());
}
