// Where an entry is: the path that a text means, the directory that holds it, and what stays so
// whatever becomes of the path.

#include "place.h"

#include "adversary.h"
#include "deep_tree.h"
#include "fault_injector.h"
#include "names.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

// =================================================================================================
// From a text to an entry
// =================================================================================================

namespace {

TavroOperationEntry selectEntry(const std::string& path) {
    std::vector<TavroOperationEntry> entries;
    TavroSelectEntries({path}, entries);
    return entries.front();
}

class SelectEntry : public testing::Test {
protected:
    SelectEntry() : m_current(m_box.path()) {
        writeFile(m_box / "folder/file");
        fs::create_symlink("folder", m_box / "link");
        fs::create_symlink("folder/file", m_box / "link to file");
        fs::create_symlink("nowhere", m_box / "dangling");
    }

    /// `expected` is below the sandbox; the text is tried relative and absolute.
    void expect(const std::string& text, const std::string& expected, bool bDirectory) {
        const std::string path =
            expected.empty() ? m_box.path().string() : (m_box / expected).string();
        for (const std::string& one : {text, m_box.path().string() + "/" + text}) {
            SCOPED_TRACE(one);
            const TavroOperationEntry entry = selectEntry(one);
            EXPECT_EQ(path, entry.Path);
            EXPECT_EQ(TavroNameOf(path), entry.Name);
            EXPECT_EQ(bDirectory, entry.bDirectory);
            EXPECT_EQ(path, TavroNameEntry(one).Path);
            EXPECT_FALSE(TavroNameEntry(one).bDirectory) << "nobody has looked";
        }
    }

    Sandbox m_box;
    ScopedCurrentDirectory m_current;
};

} // namespace

TEST_F(SelectEntry, drops_dots_and_separators) {
    expect("folder", "folder", true);
    expect("folder/", "folder", true);
    expect("folder//", "folder", true);
    expect("./folder//./file", "folder/file", false);
    expect("folder/.", "folder", true);
    expect("missing", "missing", false);
    expect("missing/", "missing", false);
    expect(".", "", true);
}

TEST_F(SelectEntry, takes_a_link_as_itself) {
    expect("link", "link", false);
    expect("link to file", "link to file", false);
    expect("dangling", "dangling", false);
    expect("link/file", "link/file", false);
    makeDirectory(m_box / "folder/sub");
    expect("link/sub/", "link/sub", true);
}

TEST_F(SelectEntry, a_separator_behind_a_link_means_the_directory_behind_it) {
    expect("link/", "folder", true);
    expect("link//", "folder", true);
    expect("link/.", "folder", true);
    expect("dangling/", "dangling", false);
    expect("link to file/", "link to file", false);
}

TEST_F(SelectEntry, two_dots_at_the_end_are_resolved_where_they_exist) {
    makeDirectory(m_box / "elsewhere/inner");
    fs::create_symlink("elsewhere/inner", m_box / "far");
    expect("folder/..", "", true);
    expect("folder/../folder/..", "", true);
    expect("far/..", "elsewhere", true);
    expect("missing/..", "missing/..", false);
    expect("folder/file/..", "folder/file/..", false);
}

TEST_F(SelectEntry, dots_at_the_end_are_no_names_in_a_directory_that_is_open) {
    makeDirectory(m_box / "folder/sub");
    TavroPlaces places;
    TavroPlace place;
    ASSERT_FALSE(places.Find(m_box / "folder/sub/file", place));
    for (const auto& [text, name] :
         {std::pair("folder/sub/.", "folder/sub"), std::pair("folder/sub/", "folder/sub"),
          std::pair("folder/sub/..", "folder")}) {
        ASSERT_FALSE(places.Find(m_box / text, place)) << text;
        EXPECT_EQ(m_box / name, place.Path());
    }
}

TEST_F(SelectEntry, two_dots_on_the_way_stay) {
    expect("link/../folder", "link/../folder", true);
}

TEST(SelectEntryAnywhere, knows_the_root_and_audio_tracks) {
    for (const char* text : {"/", "//", "/.", "/..", "/../."}) {
        EXPECT_EQ("/", selectEntry(text).Path) << text;
        EXPECT_TRUE(selectEntry(text).bDirectory) << text;
    }
    const TavroOperationEntry track = selectEntry("cdda://1/./Track 01.cdda");
    EXPECT_EQ("cdda://1/./Track 01.cdda", track.Path);
    EXPECT_EQ("Track 01.cdda", track.Name);
    EXPECT_FALSE(track.bDirectory);
}

TEST_F(SelectEntry, an_empty_text_is_not_the_current_directory) {
    EXPECT_EQ("", selectEntry("").Path);
    std::vector<TavroOperationEntry> entries;
    const std::vector<TavroFailure> failures = TavroSelectEntries({""}, entries);
    ASSERT_EQ(1U, failures.size());
    EXPECT_EQ(TavroFailureKind::NoSuchEntry, failures[0].Kind);
    TavroPlace place;
    EXPECT_EQ(ENOENT, TavroPlaces().Find("", place).Error.value());
    std::vector<std::string> created;
    EXPECT_EQ(ENOENT, TavroPlaces().FindOrCreate("", 0700, created, place).Error.value());
}

TEST_F(SelectEntry, without_a_current_directory_a_name_is_not_one_of_the_root) {
    makeDirectory(m_box / "gone");
    const ScopedCurrentDirectory current(m_box / "gone");
    fs::remove(m_box / "gone");
    // These exist in the root directory.
    const std::pair<const char*, const char*> texts[] = {
        {"etc", "etc"}, {"./etc//passwd", "etc/passwd"}, {"etc/", "etc"}, {".", "."}};
    for (const auto& [text, path] : texts) {
        EXPECT_EQ(path, selectEntry(text).Path);
        TavroPlace place;
        const TavroFailure failure = TavroPlaces().Find(text, place);
        struct stat status = {};
        EXPECT_TRUE(failure || TavroStatAt(place.Number(), place.Name.c_str(), status) == ENOENT);
    }
    EXPECT_FALSE(TavroIsPresent("etc"));
    EXPECT_TRUE(TavroIsPresent("/etc"));
}

TEST_F(SelectEntry, is_relative_to_the_root_directory_too) {
    const ScopedCurrentDirectory current("/");
    EXPECT_EQ("/etc", selectEntry("etc").Path);
    EXPECT_EQ("/", selectEntry(".").Path);
}

TEST_F(SelectEntry, many_are_named_in_order_and_failures_tell_the_text) {
    std::vector<TavroOperationEntry> entries;
    const std::vector<TavroFailure> failures =
        TavroSelectEntries({"folder", "missing", "cdda:x", "folder/file/x", std::string(300, 'n'),
                            "dangling", m_box / "folder"},
                           entries);
    ASSERT_EQ(7U, entries.size());
    EXPECT_EQ(m_box / "folder", entries[6].Path);
    EXPECT_TRUE(entries[0].bDirectory);
    EXPECT_EQ("cdda:x", entries[2].Path);
    EXPECT_EQ(m_box / "dangling", entries[5].Path);
    ASSERT_EQ(3U, failures.size());
    EXPECT_EQ(TavroFailureKind::NoSuchEntry, failures[0].Kind);
    EXPECT_EQ("missing", failures[0].Path);
    EXPECT_EQ(TavroFailureKind::NoSuchEntry, failures[1].Kind);
    EXPECT_EQ(TavroFailureKind::LookAt, failures[2].Kind);
    EXPECT_EQ(ENAMETOOLONG, failures[2].Error.value());
}

TEST_F(SelectEntry, an_own_path_has_the_links_on_the_way_resolved) {
    EXPECT_EQ(m_box / "folder/file", TavroFindOwnPath("link/file"));
    EXPECT_EQ(m_box / "folder/missing", TavroFindOwnPath("link/missing"));
    EXPECT_EQ(m_box / "link", TavroFindOwnPath("link"));
    EXPECT_EQ(m_box / "missing/x", TavroFindOwnPath("missing/x"));
    EXPECT_EQ("/", TavroFindOwnPath("/"));
}

TEST_F(SelectEntry, a_dangling_link_is_present) {
    EXPECT_TRUE(TavroIsPresent("dangling"));
    EXPECT_TRUE(TavroIsPresent("folder"));
    EXPECT_FALSE(TavroIsPresent("missing"));
    EXPECT_FALSE(TavroIsPresent("folder/file/x"));
}

// =================================================================================================
// Places
// =================================================================================================

namespace {

class Places : public testing::Test {
protected:
    TavroPlace find(const std::string& path) {
        TavroPlace place;
        const TavroFailure failure = m_places.Find(path, place);
        EXPECT_FALSE(failure) << TavroDescribe(failure);
        return place;
    }

    /// @return the failure; without one, the place must lead to the path.
    TavroFailure findOrCreate(const std::string& below, mode_t mode = 0755) {
        TavroPlace place;
        const std::string path = m_box / below;
        const TavroFailure failure = m_places.FindOrCreate(path, mode, m_created, place);
        EXPECT_EQ(!failure, place.Directory != nullptr);
        if (!failure) {
            EXPECT_EQ(path, place.Path());
            EXPECT_EQ(0, TavroMakeDirectoryAt(place.Number(), place.Name.c_str(), 0700));
            EXPECT_TRUE(selectEntry(path).bDirectory);
        }
        return failure;
    }

    std::string at(const std::string& below) const {
        return m_box / below;
    }

    Sandbox m_box;
    TavroPlaces m_places;
    std::vector<std::string> m_created;
};

} // namespace

TEST_F(Places, have_the_path_that_was_asked_for_and_their_own) {
    makeDirectory(m_box / "folder");
    fs::create_directory_symlink("folder", m_box / "link");
    const TavroPlace place = find(at("link/./new"));
    EXPECT_EQ("new", place.Name);
    EXPECT_EQ(at("link/new"), place.Path());
    EXPECT_EQ(at("folder/new"), place.OwnPath());
    struct stat status = {};
    ASSERT_EQ(0, TavroStatPath(at("folder"), status));
    EXPECT_EQ(TavroIdentityOf(status), place.Directory->Identity);

    const TavroPlace root = find("/");
    EXPECT_EQ(".", root.Name);
    EXPECT_EQ("/", root.Path());
    EXPECT_EQ("/", root.OwnPath());
    EXPECT_EQ("/x", find("/x").OwnPath());
}

TEST_F(Places, are_found_by_relative_paths) {
    makeDirectory(m_box / "folder");
    const ScopedCurrentDirectory current(m_box.path());
    const TavroPlace place = find("folder/x");
    EXPECT_EQ(at("folder/x"), place.Path());
    int opens = 0;
    const CallObserver observer(
        [&](const std::string& call, const std::string&) { opens += call == "openat" ? 1 : 0; });
    EXPECT_EQ(place.Directory, find("folder/./y").Directory);
    EXPECT_EQ(0, opens);
}

TEST_F(Places, know_the_path_of_what_was_opened_and_not_of_what_has_its_name_since) {
    makeDirectory(m_box / "folder");
    makeDirectory(m_box / "victim");
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "statx" && path == at("folder")) {
            fs::rename(m_box / "folder", m_box / "moved");
            fs::create_directory_symlink("victim", m_box / "folder");
        }
    });
    EXPECT_EQ(at("moved/x"), find(at("folder/x")).OwnPath());
}

TEST_F(Places, an_open_directory_makes_no_name_of_what_is_none) {
    makeDirectory(m_box / "folder/sub");
    find(at("folder/x"));
    EXPECT_EQ(at("folder"), find(at("folder/.")).Path());
    EXPECT_EQ(at("folder"), find(at("folder/")).Path());
    EXPECT_EQ(m_box.path(), find(at("folder/..")).Path());
    EXPECT_EQ(at("folder/..."), find(at("folder/...")).Path());
    TavroPlace place;
    EXPECT_EQ(EINVAL, m_places.Find(at(std::string("folder/x\0y", 10)), place).Error.value());
}

TEST_F(Places, a_directory_that_cannot_be_looked_at_is_no_place) {
    const FaultInjector injector({{"statx", EIO, "", 1, true}});
    TavroPlace place;
    EXPECT_EQ(EIO, m_places.Find(at("x"), place).Error.value());
}

TEST_F(Places, stay_where_they_are_whatever_becomes_of_their_paths) {
    writeFile(m_box / "folder/file", "right");
    writeFile(m_box / "victim/file", "wrong");
    const TavroPlace place = find(at("folder/file"));
    fs::rename(m_box / "folder", m_box / "moved");
    fs::create_directory_symlink("victim", m_box / "folder");
    EXPECT_EQ(0, TavroUnlinkAt(place.Number(), place.Name.c_str()));
    EXPECT_FALSE(isPresent(m_box / "moved/file"));
    EXPECT_EQ("wrong", readFile(m_box / "victim/file"));
    // Neighbours are found in the same directory, until it is forgotten.
    EXPECT_EQ(place.Directory, find(at("folder/other")).Directory);
    m_places.Forget(at("folder"));
    EXPECT_EQ(at("victim/other"), find(at("folder/other")).OwnPath());
}

TEST_F(Places, forget_a_directory_with_what_is_below_it_and_nothing_else) {
    for (const char* name : {"a/b", "ab", "c"}) {
        makeDirectory(m_box / name);
    }
    std::vector<TavroPlace> before;
    for (const char* name : {"a/x", "a/b/x", "ab/x", "c/x"}) {
        before.push_back(find(at(name)));
    }
    m_places.Forget(at("a"));
    EXPECT_NE(before[0].Directory, find(at("a/x")).Directory);
    EXPECT_NE(before[1].Directory, find(at("a/b/x")).Directory);
    EXPECT_EQ(before[2].Directory, find(at("ab/x")).Directory);
    EXPECT_EQ(before[3].Directory, find(at("c/x")).Directory);
}

TEST_F(Places, keep_the_directories_that_were_used_last_and_few_of_them) {
    const auto opensFor = [&](const std::string& path) {
        int opens = 0;
        const CallObserver observer([&](const std::string& call, const std::string&) {
            opens += call == "openat" ? 1 : 0;
        });
        find(path);
        return opens;
    };
    makeDirectory(m_box / "often");
    for (int i = 0; i < 40; ++i) {
        const std::string name = "d" + std::to_string(i);
        makeDirectory(m_box / name);
        EXPECT_EQ(1, opensFor(at(name + "/x")));
        EXPECT_EQ(i == 0 ? 1 : 0, opensFor(at("often/x")));
        EXPECT_EQ(0, opensFor(at(name + "/y")));
    }
    EXPECT_EQ(1, opensFor(at("d0/x"))) << "it was closed meanwhile";
    std::size_t descriptors = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        descriptors +=
            fs::read_symlink(entry.path(), ec).string().rfind(m_box.path().string(), 0) == 0;
    }
    EXPECT_LE(descriptors, 8U);
}

TEST_F(Places, are_not_found_where_the_directory_cannot_be_opened) {
    writeFile(m_box / "file");
    fs::create_symlink("nowhere", m_box / "dangling");
    fs::create_symlink("loop", m_box / "loop");
    const std::pair<std::string, int> cases[] = {{"missing/x", ENOENT},  {"file/x", ENOTDIR},
                                                 {"dangling/x", ENOENT}, {"loop/x", ELOOP},
                                                 {"missing/..", ENOENT}, {"file/..", ENOTDIR}};
    for (const auto& [below, error] : cases) {
        TavroPlace place;
        const TavroFailure failure = m_places.Find(at(below), place);
        EXPECT_EQ(TavroFailureKind::LookAt, failure.Kind);
        EXPECT_EQ(error, failure.Error.value()) << below;
        EXPECT_EQ(at(below), failure.Path);
        EXPECT_EQ(nullptr, place.Directory);
    }
}

TEST_F(Places, a_path_is_not_cut_at_a_zero_byte) {
    writeFile(m_box / "file");
    TavroPlace place;
    for (const std::string& path :
         {at("file") + std::string("\0x", 2), at(std::string("\0x/file", 7))}) {
        EXPECT_EQ(EINVAL, m_places.Find(path, place).Error.value());
        EXPECT_EQ(EINVAL, m_places.FindOrCreate(path, 0700, m_created, place).Error.value());
    }
    EXPECT_TRUE(m_created.empty());
}

TEST_F(Places, are_found_by_paths_beyond_what_the_kernel_takes) {
    const std::string deep = makeDeepTree(m_box / "deep", 45, std::string(200, 'd'));
    ASSERT_GT(deep.size(), 9000U);
    const TavroPlace place = find(deep + "/leaf");
    EXPECT_EQ(deep + "/leaf", place.Path());
    EXPECT_EQ(deep + "/leaf", place.OwnPath());
    EXPECT_EQ(deep + "/leaf", TavroFindOwnPath(deep + "/./leaf"));
    EXPECT_TRUE(TavroIsPresent(deep + "/leaf"));
    EXPECT_FALSE(TavroIsPresent(deep + "/none"));
    EXPECT_EQ(0, TavroUnlinkAt(place.Number(), place.Name.c_str()));
    const std::string below = deep.substr(m_box.path().string().size() + 1);
    EXPECT_FALSE(findOrCreate(below + "/" + std::string(255, 'n') + "/x"));
    EXPECT_EQ(1U, m_created.size());
    TavroPlace above;
    EXPECT_EQ(ENAMETOOLONG, m_places.Find(deep + "/..", above).Error.value())
        << "two dots could not be resolved, and are no name";
}

TEST_F(Places, missing_directories_are_created_and_told_outer_ones_first) {
    makeDirectory(m_box / "a");
    EXPECT_FALSE(findOrCreate("a/b/c/d", 0750));
    EXPECT_EQ((std::vector<std::string>{at("a/b"), at("a/b/c")}), m_created);
    EXPECT_EQ(fs::perms(0750), fs::status(m_box / "a/b/c").permissions());
    EXPECT_FALSE(findOrCreate("a/b/e"));
    EXPECT_EQ(2U, m_created.size()) << "nothing was missing";
    EXPECT_FALSE(findOrCreate("new/../also new/x"));
    EXPECT_EQ((std::vector<std::string>{at("new"), at("new/../also new")}),
              std::vector<std::string>(m_created.begin() + 2, m_created.end()));
}

TEST_F(Places, what_is_in_the_way_of_a_missing_directory_is_named) {
    writeFile(m_box / "file");
    fs::create_symlink("nowhere", m_box / "dangling");
    TavroFailure failure = findOrCreate("dangling/a/x");
    EXPECT_EQ(TavroFailureKind::CreateDirectory, failure.Kind);
    EXPECT_EQ(EEXIST, failure.Error.value());
    EXPECT_EQ(at("dangling"), failure.Path);
    failure = findOrCreate("file/a/x");
    EXPECT_EQ(TavroFailureKind::LookAt, failure.Kind);
    EXPECT_EQ(ENOTDIR, failure.Error.value());
    EXPECT_EQ(at("file/a/x"), failure.Path);
    EXPECT_EQ(TavroFailureKind::LookAt, findOrCreate("missing/..").Kind);
    EXPECT_TRUE(m_created.empty());
    const FaultInjector injector({{"mkdirat", ENOSPC, "", 2}});
    failure = findOrCreate("a/b/x");
    EXPECT_EQ(TavroFailureKind::CreateDirectory, failure.Kind);
    EXPECT_EQ(ENOSPC, failure.Error.value());
    EXPECT_EQ(at("a/b"), failure.Path);
    EXPECT_EQ(std::vector<std::string>{at("a")}, m_created) << "what was created is told";
}

TEST_F(Places, a_failure_above_what_is_missing_tells_the_path_that_was_asked_for) {
    const FaultInjector injector({{"openat", EIO, "", 3}});
    const TavroFailure failure = findOrCreate("a/b/x");
    EXPECT_EQ(TavroFailureKind::LookAt, failure.Kind);
    EXPECT_EQ(EIO, failure.Error.value());
    EXPECT_EQ(at("a/b/x"), failure.Path);
}

TEST_F(Places, a_created_directory_that_cannot_be_entered_is_told_with_the_reason) {
    for (const bool bByOther : {false, true}) {
        const std::string name = bByOther ? "b" : "a";
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (call == "mkdirat" && bByOther) {
                makeDirectory(path);
            }
            if (call == "openat" && path == at("a") && isPresent(path)) {
                fs::remove(path);
                writeFile(path);
            }
        });
        const FaultInjector injector({{"openat", EACCES, at("b"), 2, false, true}});
        const TavroFailure failure = findOrCreate(name + "/x");
        EXPECT_EQ(TavroFailureKind::CreateDirectory, failure.Kind);
        EXPECT_EQ(bByOther ? EACCES : ENOTDIR, failure.Error.value());
        EXPECT_EQ(at(name), failure.Path);
    }
}

TEST_F(Places, a_directory_that_somebody_else_creates_meanwhile_is_shared) {
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "mkdirat" && path == at("a")) {
            makeDirectory(m_box / "a");
        }
    });
    EXPECT_FALSE(findOrCreate("a/b/x"));
    EXPECT_EQ(std::vector<std::string>{at("a/b")}, m_created);
}

TEST_F(Places, nobody_leads_a_created_directory_elsewhere_by_a_link) {
    Adversary adversary;
    adversary.Prepare = [&] {
        fs::remove_all(m_box / "a");
        makeDirectory(m_box / "victim");
        m_places = {};
    };
    adversary.Operate = [&] {
        TavroPlace place;
        if (!m_places.FindOrCreate(at("a/b/x"), 0700, m_created, place)) {
            TavroMakeDirectoryAt(place.Number(), place.Name.c_str(), 0700);
        }
    };
    adversary.Strike = [&] {
        // Neither exists before it is created; a link before that is followed as any other.
        std::error_code ec;
        fs::remove_all(m_box / "a", ec);
        const bool bCreated = !m_created.empty();
        fs::create_directory_symlink(bCreated ? "victim" : "nowhere", m_box / "a");
        return bCreated;
    };
    adversary.Judge = [&] {
        EXPECT_TRUE(fs::is_empty(m_box / "victim"));
        m_created.clear();
    };
    const AdversaryTally tally = strikeAtEachCall(adversary);
    EXPECT_GE(tally.Strikes, 5);
    EXPECT_TRUE(fs::is_directory(m_box / "a/b/x")) << "undisturbed, it is created";
}

// =================================================================================================
// Many looks into one directory
// =================================================================================================

TEST(NameSearch, finds_what_is_there_and_nothing_else_however_often_it_looks) {
    const Sandbox box;
    TavroPlaces places;
    TavroNameSearch search;
    writeFile(box / "a/there");
    writeFile(box / "b/also");
    for (int i = 0; i < 200; ++i) {
        TavroPlace place;
        struct stat status = {};
        const std::string name = std::to_string(i);
        ASSERT_FALSE(places.Find(box / "a" / name, place));
        EXPECT_EQ(search.Look(place, status), ENOENT) << i;
        place.Name = "there";
        EXPECT_EQ(search.Look(place, status), 0) << i;
        EXPECT_TRUE(S_ISREG(status.st_mode));
        place.Name = ".";
        EXPECT_EQ(search.Look(place, status), 0) << i;
    }
    TavroPlace other;
    struct stat status = {};
    ASSERT_FALSE(places.Find(box / "b/also", other));
    EXPECT_EQ(search.Look(other, status), 0) << "another directory has other names";
}

TEST(NameSearch, finds_what_is_in_a_directory_that_cannot_be_listed) {
    const Sandbox box;
    TavroPlaces places;
    TavroNameSearch search;
    TavroPlace place;
    struct stat status = {};
    writeFile(box / "there");
    ASSERT_FALSE(places.Find(box / "there", place));
    const FaultInjector fault({{"getdents64", EIO, box.path().string(), 1, true}});
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(search.Look(place, status), 0) << i;
    }
    EXPECT_GT(fault.fired(), 0);
}

TEST(NameSearch, sees_what_came_later_once_it_was_told_to_forget) {
    const Sandbox box;
    TavroPlaces places;
    TavroNameSearch search;
    TavroPlace place;
    struct stat status = {};
    ASSERT_FALSE(places.Find(box / "late", place));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(search.Look(place, status), ENOENT);
    }
    writeFile(box / "late");
    search.Forget();
    EXPECT_EQ(search.Look(place, status), 0);
}

// =================================================================================================
// Devices
// =================================================================================================

TEST(BelowDevice, is_what_a_link_leads_to_and_not_the_link_itself) {
    const Sandbox box;
    const Sandbox other(secondFileSystem);
    struct stat status = {};
    if (!onDifferentDevices(box.path(), other.path())) {
        GTEST_SKIP() << secondFileSystem << " is no other file system";
    }
    ASSERT_EQ(TavroStatPath(other.path(), status), 0);
    fs::create_directory_symlink(other.path(), box / "link");
    EXPECT_TRUE(TavroIsBelowDevice(box / "link/missing", status.st_dev));
    EXPECT_TRUE(TavroIsBelowDevice(box / "link/missing/too", status.st_dev));
    fs::remove_all(other.path());
    EXPECT_FALSE(TavroIsBelowDevice(box / "link/missing", status.st_dev)) << "it is not there";
}
