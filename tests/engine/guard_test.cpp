// What is never trashed, moved, renamed or deleted. Nothing here is acted upon: the guard only says
// no.

#include "guard.h"

#include "trash_fixture.h"
#include "trash_folders.h"

#include <set>

using namespace tavro_trash_test;

namespace {

constexpr TavroAct allActs[] = {TavroAct::Trash, TavroAct::Delete, TavroAct::Move,
                                TavroAct::Rename};

class Guard : public HomeWithTrash {
protected:
    static TavroFailure check(TavroAct act, const fs::path& path) {
        TavroPlaces places;
        TavroPlace place;
        struct stat status = {};
        EXPECT_EQ(TavroDescribe(places.Find(path.string(), place)), "");
        EXPECT_EQ(TavroStatAt(place.Number(), place.Name.c_str(), status), 0) << path;
        return TavroGuard(act).Check(place, status);
    }
    /// Why all acts refuse the path; empty when all let it go.
    static std::string reason(const fs::path& path) {
        std::set<std::string> reasons;
        for (const TavroAct act : allActs) {
            const TavroFailure failure = check(act, path);
            reasons.insert(failure ? failure.Error.message() + failure.Other : "");
        }
        EXPECT_EQ(reasons.size(), 1U) << "not all acts are refused alike";
        return *reasons.begin();
    }
    void makeTrash() const {
        makeDirectory(root() / "files");
        makeDirectory(root() / "info");
    }
};

} // namespace

TEST_F(Guard, lets_plain_entries_go) {
    makeDirectory(docs() / "directory");
    for (const fs::path& path :
         {doc("a.txt"), docs() / "directory", link("dangling", "nowhere"), link("to root", "/")}) {
        EXPECT_EQ(reason(path), "") << path;
    }
}

TEST_F(Guard, refuses_the_home_directory_the_trash_and_what_holds_them) {
    makeTrash();
    const std::vector<std::pair<fs::path, std::string>> refused = {
        {"/", "it is the root directory"},
        {"/..", "it is the root directory"},
        {sandbox(), "it holds the home directory"},
        {home(), "it is the home directory"},
        {home() / ".local", "it holds the trash"},
        {root().parent_path(), "it holds the trash"},
        {root(), "it is the trash"},
        {root() / "files", "it is a directory of the trash"},
        {root() / "info", "it is a directory of the trash"},
    };
    for (const auto& [path, why] : refused) {
        EXPECT_EQ(reason(path), why) << path;
    }
}

TEST_F(Guard, refuses_the_history_and_what_holds_it) {
    const ScopedEnvironment environment("XDG_STATE_HOME", (sandbox() / "a/state").string());
    makeDirectory(sandbox() / "a/state/tavro/below");
    for (const char* name : {"tavro/history.db-wal", "tavro/history.db.damaged-1", "history.db"}) {
        writeFile(sandbox() / "a/state" / name, "");
    }
    for (const auto& [path, why] : {std::pair{"a", "it holds the history"},
                                    {"a/state", "it holds the history"},
                                    {"a/state/tavro", "it is the directory of the history"},
                                    {"a/state/tavro/history.db-wal", "it is a file of the history"},
                                    {"a/state/tavro/history.db.damaged-1", ""},
                                    {"a/state/history.db", ""},
                                    {"a/state/tavro/below", ""}}) {
        for (const TavroAct act :
             {TavroAct::Trash, TavroAct::Delete, TavroAct::Move, TavroAct::Rename}) {
            const TavroFailure failure = check(act, sandbox() / path);
            EXPECT_EQ(failure ? failure.Error.message() : "", why) << path;
        }
    }
}

TEST_F(Guard, says_the_act_and_the_path) {
    const std::string why = inQuotes(home()) + ": it is the home directory";
    const std::vector<std::pair<TavroAct, std::string>> sentences = {
        {TavroAct::Trash,
         "Cannot move " + inQuotes(home()) + " to the trash: it is the home directory"},
        {TavroAct::Delete, "Refusing to delete " + why},
        {TavroAct::Move, "Cannot move " + why},
        {TavroAct::Rename, "Cannot rename " + why},
    };
    for (const auto& [act, sentence] : sentences) {
        const TavroFailure failure = check(act, home());
        EXPECT_EQ(TavroDescribe(failure), sentence);
        EXPECT_EQ(failure.Error, TavroRefusal::IsHome);
    }
}

TEST_F(Guard, knows_what_would_hold_the_trash_before_there_is_one) {
    makeDirectory(home() / ".local");
    EXPECT_EQ(reason(home() / ".local"), "it holds the trash");
}

TEST_F(Guard, knows_the_root_without_a_home_directory) {
    const ScopedEnvironment environment("HOME", std::nullopt);
    EXPECT_EQ(reason("/"), "it is the root directory");
    EXPECT_EQ(reason(home()), "");
}

TEST_F(Guard, is_not_misled_by_names_that_begin_alike) {
    makeDirectory(sandbox() / "hom");
    makeDirectory(home() / ".local/share/Tras");
    EXPECT_EQ(reason(sandbox() / "hom"), "");
    EXPECT_EQ(reason(home() / ".local/share/Tras"), "");
}

TEST_F(Guard, lets_a_link_to_the_home_directory_go) {
    EXPECT_EQ(reason(link("to home", home())), "");
}

TEST_F(Guard, refuses_each_link_on_the_way_to_the_home_directory) {
    fs::create_directory_symlink(sandbox(), sandbox() / "users");
    fs::create_directory_symlink("between", sandbox() / "me");
    fs::create_directory_symlink("users/home", sandbox() / "between");
    {
        const ScopedEnvironment throughDirectory("HOME", (sandbox() / "users/home").string());
        EXPECT_EQ(reason(sandbox() / "users"), "it holds the home directory");
    }
    for (const std::string text : {"me", "me/", "users/me"}) {
        const ScopedEnvironment throughLink("HOME", (sandbox() / text).string());
        EXPECT_EQ(reason(sandbox() / "me"), "it is the home directory") << text;
        EXPECT_EQ(reason(sandbox() / "between"), "it is the home directory") << text;
        EXPECT_EQ(reason(sandbox() / "users"), "it holds the home directory") << text;
        EXPECT_EQ(reason(home()), "it is the home directory") << text;
    }
}

TEST_F(Guard, bears_links_that_go_in_circles) {
    fs::create_symlink("b", sandbox() / "a");
    fs::create_symlink("a", sandbox() / "b");
    const ScopedEnvironment lost("HOME", (sandbox() / "a").string());
    EXPECT_EQ(reason(sandbox() / "b"), "it is the home directory");
    EXPECT_EQ(reason(docs()), "");
}

TEST_F(Guard, lets_another_name_of_such_a_link_go) {
    makeDirectory(sandbox() / "elsewhere");
    makeDirectory(root().parent_path());
    fs::create_directory_symlink(sandbox() / "elsewhere", root());
    fs::create_hard_link(root(), docs() / "link");
    ASSERT_TRUE(fs::is_symlink(docs() / "link"));
    EXPECT_EQ(reason(docs() / "link"), "");
    EXPECT_EQ(reason(root()), "it is the trash");
}

TEST_F(Guard, refuses_a_trash_elsewhere_and_what_leads_to_it) {
    makeDirectory(sandbox() / "big disk/can/files");
    makeDirectory(sandbox() / "more/info");
    makeDirectory(root().parent_path());
    fs::create_directory_symlink(sandbox() / "big disk/can", root());
    fs::create_directory_symlink(sandbox() / "more/info", root() / "info");
    EXPECT_EQ(reason(root()), "it is the trash");
    EXPECT_EQ(reason(sandbox() / "big disk"), "it holds the trash");
    EXPECT_EQ(reason(sandbox() / "big disk/can"), "it is the trash");
    EXPECT_EQ(reason(sandbox() / "more"), "it holds a directory of the trash");
    writeFile(sandbox() / "big disk/can/files/a");
    writeFile(sandbox() / "more/info/a.trashinfo");
    for (const char* path : {"big disk/can/files/a", "more/info/a.trashinfo"}) {
        EXPECT_EQ(check(TavroAct::Trash, sandbox() / path).Error, TavroRefusal::InTrash) << path;
    }
}

TEST_F(Guard, keeps_what_is_in_the_trash_from_the_trash_alone) {
    makeTrash();
    writeFile(item("a.txt"));
    writeFile(record("a.txt"));
    makeDirectory(item("directory") / "below");
    for (const fs::path& path :
         {item("a.txt"), record("a.txt"), item("directory"), item("directory") / "below"}) {
        EXPECT_EQ(check(TavroAct::Trash, path).Error, TavroRefusal::InTrash) << path;
        for (const TavroAct act : {TavroAct::Delete, TavroAct::Move, TavroAct::Rename}) {
            EXPECT_FALSE(check(act, path)) << path;
        }
    }
}

TEST_F(Guard, deletes_neither_the_current_directory_nor_what_holds_it) {
    makeDirectory(docs() / "current/below");
    const ScopedCurrentDirectory there(docs() / "current");
    EXPECT_EQ(check(TavroAct::Delete, docs() / "current").Error, TavroRefusal::IsCurrent);
    EXPECT_EQ(check(TavroAct::Delete, docs()).Error, TavroRefusal::HoldsCurrent);
    EXPECT_FALSE(check(TavroAct::Delete, docs() / "current/below"));
    for (const TavroAct act : {TavroAct::Trash, TavroAct::Move, TavroAct::Rename}) {
        EXPECT_FALSE(check(act, docs()));
    }
}

TEST_F(Guard, knows_home_and_trash_by_another_mount_of_what_holds_them) {
    makeTrash();
    writeFile(item("a.txt"));
    const fs::path mounted = docs() / "mounted";
    makeDirectory(mounted);
    const bool bRan = runWithMount(sandbox(), mounted, [&] {
        EXPECT_EQ(reason(mounted), "it holds the home directory");
        EXPECT_EQ(reason(mounted / "home"), "it is the home directory");
        EXPECT_EQ(reason(mounted / "home/.local"), "it holds the trash");
        const fs::path files = mounted / "home/.local/share/Trash/files";
        EXPECT_EQ(reason(files), "it is a directory of the trash");
        EXPECT_EQ(check(TavroAct::Trash, files / "a.txt").Error, TavroRefusal::InTrash);
    });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

TEST_F(Guard, knows_the_root_directory_by_another_mount_of_it) {
    const fs::path mounted = docs() / "mounted";
    makeDirectory(mounted);
    const bool bRan =
        runWithMount("/", mounted, [&] { EXPECT_EQ(reason(mounted), "it is the root directory"); });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

TEST_F(Guard, refuses_a_mount_point_and_what_holds_one_but_not_what_is_mounted) {
    const fs::path mounted = docs() / "outer/a b\\\n/inner";
    makeDirectory(mounted / "below");
    makeDirectory(docs() / "outer/a b");
    makeDirectory(docs() / "source/below");
    const bool bRan = runWithMount(docs() / "source", mounted, [&] {
        EXPECT_EQ(reason(mounted), "it is a mount point");
        EXPECT_EQ(reason(docs() / "outer"), "it holds the mount point" + mounted.string());
        EXPECT_EQ(reason(mounted.parent_path()), "it holds the mount point" + mounted.string());
        EXPECT_EQ(TavroDescribe(check(TavroAct::Delete, docs() / "outer")),
                  "Refusing to delete " + inQuotes(docs() / "outer") +
                      ": it holds the mount point " + inQuotes(mounted));
        EXPECT_EQ(reason(mounted / "below"), "");
        EXPECT_EQ(reason(docs() / "outer/a b"), "");
        EXPECT_EQ(reason(docs() / "source"), "");
    });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

TEST_F(Guard, refuses_the_trash_of_a_volume_and_keeps_what_is_in_it_from_the_trash_alone) {
    makeDirectory(docs() / "source");
    makeDirectory(docs() / "volume");
    const bool bRan = runOnVolume(docs() / "source", docs() / "volume", [&](const fs::path& top) {
        const std::string user = std::to_string(geteuid());
        EXPECT_EQ(reason(top), "it is a mount point");
        EXPECT_EQ(reason(top.parent_path()), "it holds the mount point" + top.string());
        makeDirectory(top / "one");
        EXPECT_EQ(reason(top / "one"), "");
        makeDirectory(top / ".Trash/4321");
        EXPECT_EQ(reason(top / ".Trash"), "") << "it is not this user's";
        for (const fs::path& trash : {top / ".Trash" / user, top / (".Trash-" + user)}) {
            writeFile(trash / "files/a");
            writeFile(trash / "info/a.trashinfo");
            makeDirectory(trash / "files/directory/below");
            EXPECT_EQ(reason(trash), "it is the trash");
            EXPECT_EQ(reason(trash / "files"), "it is a directory of the trash");
            EXPECT_EQ(reason(trash / "info"), "it is a directory of the trash");
            for (const char* path :
                 {"files/a", "info/a.trashinfo", "files/directory", "files/directory/below"}) {
                EXPECT_EQ(check(TavroAct::Trash, trash / path).Error, TavroRefusal::InTrash);
                for (const TavroAct act : {TavroAct::Delete, TavroAct::Move, TavroAct::Rename}) {
                    EXPECT_FALSE(check(act, trash / path)) << path;
                }
            }
        }
        EXPECT_EQ(reason(top / ".Trash"), "it holds the trash");
        writeFile(top / ("sub/.Trash-" + user) / "files/a");
        writeFile(top / ".Trash-file");
        for (const fs::path& path :
             {fs::path(".Trash/4321"), fs::path(".Trash-file"),
              fs::path("sub") / (".Trash-" + user), fs::path("sub") / (".Trash-" + user) / "files",
              fs::path("sub") / (".Trash-" + user) / "files/a"}) {
            EXPECT_EQ(reason(top / path), "") << path;
        }
    });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

TEST_F(Guard, finds_each_of_several_mount_points_in_whatever_order_they_were_mounted) {
    const std::vector<std::string> names = {"d", "c", "b b", "b", "a"};
    for (const std::string& name : names) {
        makeDirectory(docs() / name / "mounted");
    }
    makeDirectory(docs() / "e");
    const bool bRan = runWithMount(home(), docs() / "e", [&] {
        for (const std::string& name : names) {
            const fs::path point = docs() / name / "mounted";
            ASSERT_EQ(mount(docs().c_str(), point.c_str(), nullptr, MS_BIND, nullptr), 0);
        }
        for (const std::string& name : names) {
            EXPECT_EQ(check(TavroAct::Move, docs() / name).Other, docs() / name / "mounted");
        }
    });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

TEST_F(Guard, lets_a_file_with_the_name_of_the_history_go) {
    EXPECT_EQ(reason(doc("history.db")), "");
}

TEST_F(Guard, asks_no_call_for_an_entry_and_reads_mounts_once_for_directories_alone) {
    makeDirectory(docs() / "directory");
    doc("file");
    TavroPlaces places;
    TavroPlace file;
    ASSERT_FALSE(places.Find((docs() / "file").string(), file));
    TavroPlace directory = file;
    directory.Name = "directory";
    const struct stat ofFile = statusOf(docs() / "file");
    const struct stat ofDirectory = statusOf(docs() / "directory");
    TavroGuard guard(TavroAct::Trash);
    CallCounts counts;
    EXPECT_FALSE(guard.Check(file, ofFile));
    EXPECT_EQ(counts.all(), 0);
    EXPECT_FALSE(guard.Check(directory, ofDirectory));
    const int reading = counts.all();
    EXPECT_GT(reading, 0);
    EXPECT_FALSE(guard.Check(directory, ofDirectory));
    EXPECT_FALSE(guard.Check(file, ofFile));
    EXPECT_EQ(counts.all(), reading);
}
