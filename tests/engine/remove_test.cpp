// Removing an entry with everything below it, and nothing else.

#include "remove.h"

#include "adversary.h"
#include "deep_tree.h"
#include "fault_injector.h"
#include "names.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

using Kind = TavroFailureKind;

class RemoveTree : public testing::Test {
protected:
    std::string at(const std::string& below) const {
        return m_box / below;
    }

    TavroFailure remove(const std::string& below, const TavroRemoveOptions& options = {}) {
        TavroPlace place;
        const TavroFailure failure = TavroPlaces().Find(at(below), place);
        EXPECT_FALSE(failure) << TavroDescribe(failure);
        return TavroRemoveTree(place, options);
    }

    /// The removal fails by this error at this path.
    void expectFails(const std::string& below, int error, const std::string& atPath,
                     const TavroRemoveOptions& options = {}) {
        const TavroFailure failure = remove(below, options);
        EXPECT_EQ(Kind::Remove, failure.Kind);
        EXPECT_EQ(error, failure.Error.value());
        EXPECT_EQ(at(atPath), failure.Path);
    }

    TavroIdentity identityOf(const std::string& below) {
        struct stat status = {};
        EXPECT_EQ(0, TavroStatPath(at(below), status));
        return TavroIdentityOf(status);
    }

    Sandbox m_box{inMemory()};
};

} // namespace

TEST_F(RemoveTree, removes_entries_of_every_kind_and_follows_no_link) {
    writeFile(m_box / "outside/kept", "bytes");
    const Snapshot outside = takeSnapshot(m_box / "outside");
    writeFile(m_box / "tree/sub/a", "a");
    makeDirectory(m_box / "tree/empty");
    fs::create_symlink(m_box / "outside", m_box / "tree/link");
    fs::create_symlink("nowhere", m_box / "tree/sub/dangling");
    fs::create_symlink(m_box / "outside", m_box / "link");
    makeFifo(m_box / "tree/pipe");
    writeFile(m_box / "file");
    for (const char* name : {"tree", "link", "file", "missing"}) {
        EXPECT_FALSE(remove(name)) << name;
        EXPECT_FALSE(isPresent(m_box / name)) << name;
    }
    EXPECT_EQ(outside, takeSnapshot(m_box / "outside"));
}

TEST_F(RemoveTree, removes_the_same_where_listings_have_no_types) {
    writeFile(m_box / "tree/sub/a");
    fs::create_symlink("sub", m_box / "tree/link");
    const FaultInjector injector({{"getdents64", 0, "", 1, true}});
    EXPECT_FALSE(remove("tree"));
    EXPECT_EQ(4, injector.fired()) << "each listing ends with an empty one";
    EXPECT_FALSE(isPresent(m_box / "tree"));
}

TEST_F(RemoveTree, makes_one_call_for_a_file_and_few_for_a_directory) {
    const auto callsFor = [&](int files, int directories) {
        for (int i = 0; i < files; ++i) {
            writeFile(m_box / "tree" / std::to_string(i));
        }
        for (int i = 0; i < directories; ++i) {
            makeDirectory(m_box / "tree" / ("d" + std::to_string(i)));
        }
        const NumberedFaults listener;
        EXPECT_FALSE(remove("tree"));
        return listener.calls().size();
    };
    makeDirectory(m_box / "tree");
    const std::size_t least = callsFor(0, 1);
    EXPECT_EQ(least + 50, callsFor(50, 1));
    EXPECT_LE(callsFor(0, 11), least + 10 * 7) << "open, look, list twice, close, remove";
}

// =================================================================================================
// What cannot be removed
// =================================================================================================

TEST_F(RemoveTree, says_the_first_that_cannot_be_removed_and_removes_the_rest) {
    writeFile(m_box / "tree/a/stays");
    writeFile(m_box / "tree/a/goes");
    writeFile(m_box / "tree/b/goes");
    const FaultInjector injector({{"unlinkat", EIO, "stays"}});
    expectFails("tree", EIO, "tree/a/stays");
    const Snapshot left = takeSnapshot(m_box / "tree");
    EXPECT_EQ(3U, left.size());
    EXPECT_EQ(1U, left.count("a/stays"));
}

TEST_F(RemoveTree, a_directory_that_cannot_be_listed_or_removed_is_named) {
    writeFile(m_box / "tree/sub/file");
    {
        const FaultInjector injector({{"getdents64", EIO, "sub"}});
        expectFails("tree", EIO, "tree/sub");
    }
    {
        const FaultInjector injector({{"unlinkat", EBUSY, "sub", 1, false, true}});
        expectFails("tree", EBUSY, "tree/sub");
    }
    EXPECT_FALSE(remove("tree"));
}

TEST_F(RemoveTree, says_what_cannot_be_looked_at) {
    writeFile(m_box / "tree/file");
    const FaultInjector injector({{"fstatat", EIO, "tree"}});
    expectFails("tree", EIO, "tree");
    EXPECT_TRUE(isPresent(m_box / "tree/file"));
}

TEST_F(RemoveTree, removes_what_lies_in_read_only_and_closed_directories_of_the_user) {
    makeDirectory(m_box / "outside");
    writeFile(m_box / "tree/a/b/c/file", "bytes");
    makeDirectory(m_box / "tree/empty");
    fs::create_symlink(m_box / "outside", m_box / "tree/a/b/link");
    fs::permissions(m_box / "tree/empty", fs::perms::none);
    for (const unsigned mode : {0000U, 0100U, 0200U, 0300U, 0400U, 0500U, 0600U}) {
        const std::string name = "tree/" + std::to_string(mode);
        writeFile(m_box / name / "file");
        fs::permissions(m_box / name, fs::perms(mode));
    }
    fs::permissions(m_box / "outside", fs::perms(0500));
    fs::permissions(m_box / "tree/a/b/c", fs::perms(0500));
    fs::permissions(m_box / "tree/a/b", fs::perms(0555));
    fs::permissions(m_box / "tree", fs::perms(0555));
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(remove("tree"));
        EXPECT_FALSE(isPresent(m_box / "tree"));
    });
    EXPECT_EQ("directory 500", takeSnapshot(m_box / "outside")["."]);
}

TEST_F(RemoveTree, gives_a_directory_that_stays_no_right_but_the_users_own) {
    for (const unsigned mode : {0044U, 0155U, 0444U}) {
        writeFile(m_box / "tree" / std::to_string(mode) / "file");
        fs::permissions(m_box / "tree" / std::to_string(mode), fs::perms(mode));
    }
    runUnprivileged(m_box.path(), [&] {
        const FaultInjector injector({{"unlinkat", EPERM, "file", 1, true}});
        EXPECT_EQ(EPERM, remove("tree").Error.value());
        for (const unsigned mode : {0044U, 0155U, 0444U}) {
            EXPECT_EQ(fs::perms(mode | 0700U),
                      fs::status(m_box / "tree" / std::to_string(mode)).permissions());
        }
    });
}

TEST_F(RemoveTree, opens_no_directory_when_it_is_not_to) {
    writeFile(m_box / "tree/read only/file");
    writeFile(m_box / "tree/closed/file");
    fs::permissions(m_box / "tree/read only", fs::perms(0555));
    fs::permissions(m_box / "tree/closed", fs::perms::none);
    runUnprivileged(m_box.path(), [&] {
        TavroRemoveOptions options;
        options.bOpenReadOnly = false;
        EXPECT_EQ(EACCES, remove("tree/read only", options).Error.value());
        expectFails("tree/closed", EACCES, "tree/closed", options);
        struct stat status = {};
        ASSERT_EQ(0, stat(at("tree/closed").c_str(), &status));
        EXPECT_EQ(0U, status.st_mode & 0777U);
    });
}

TEST_F(RemoveTree, changes_no_mode_where_modes_are_not_what_is_in_the_way) {
    const auto modeOf = [&](const std::string& below) {
        return fs::status(m_box / below).permissions();
    };
    writeFile(m_box / "tree/sub/file");
    {
        const FaultInjector injector({{"openat", EMFILE, "sub", 1, true}});
        expectFails("tree", EMFILE, "tree/sub");
        EXPECT_EQ(fs::perms(0755), modeOf("tree/sub"));
    }
    {
        // What stays closed is not opened for ever: each second call is the one that looks at it.
        std::vector<Fault> faults;
        for (int call = 1; call < 40; call += 2) {
            faults.push_back({"openat", EACCES, "sub", call, false, true});
        }
        const FaultInjector injector(faults);
        expectFails("tree", EACCES, "tree/sub");
        EXPECT_EQ(2, injector.fired());
    }
    fs::permissions(m_box / "tree/sub", fs::perms::none);
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        // Closed when it was opened, and a file when it is looked at.
        if (call == "openat" && path == at("tree/sub") && isPresent(m_box / "once")) {
            fs::rename(m_box / "tree/sub", m_box / "aside");
            writeFile(m_box / "tree/sub");
            fs::permissions(m_box / "tree/sub", fs::perms(0600));
        } else if (path == at("tree/sub")) {
            makeDirectory(m_box / "once");
        }
    });
    const FaultInjector injector({{"openat", EACCES, "sub", 1, false, true}});
    expectFails("tree", EACCES, "tree/sub");
    EXPECT_EQ(fs::perms(0600), modeOf("tree/sub"));
    EXPECT_EQ(fs::perms::none, modeOf("aside"));
}

TEST_F(RemoveTree, of_a_stranger_changes_no_mode_and_says_what_stays) {
    if (!isRoot()) {
        GTEST_SKIP() << "needs root, to give a directory to somebody else";
    }
    writeFile(m_box / "tree/foreign/file");
    makeDirectory(m_box / "tree/empty");
    fs::permissions(m_box / "tree/foreign", fs::perms(0555));
    fs::permissions(m_box / "tree/empty", fs::perms::none);
    runInChild([&] {
        ASSERT_EQ(0, chown(m_box.path().c_str(), 65534, 65534));
        ASSERT_EQ(0, chown(at("tree").c_str(), 65534, 65534));
        ASSERT_TRUE(setgid(65534) == 0 && setuid(65534) == 0);
        expectFails("tree", EACCES, "tree/foreign/file");
        EXPECT_FALSE(isPresent(m_box / "tree/empty")) << "what is empty need not be opened";
    });
    EXPECT_EQ("directory 555", takeSnapshot(m_box / "tree/foreign")["."]);
    EXPECT_TRUE(isPresent(m_box / "tree/foreign/file"));
}

TEST_F(RemoveTree, what_lies_on_another_mount_stays) {
    writeFile(m_box / "other/file", "kept");
    writeFile(m_box / "tree/goes");
    makeDirectory(m_box / "tree/sub/mount");
    writeFile(m_box / "tree/sub/mounted file");
    runInChild([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(at("other").c_str(), at("tree/sub/mount").c_str(), nullptr, MS_BIND, nullptr) !=
                0 ||
            mount(at("other/file").c_str(), at("tree/sub/mounted file").c_str(), nullptr, MS_BIND,
                  nullptr) != 0) {
            GTEST_SKIP() << "mounting needs root";
        }
        const TavroFailure failure = remove("tree");
        EXPECT_EQ(Kind::Remove, failure.Kind);
        EXPECT_EQ(EBUSY, failure.Error.value());
        EXPECT_EQ(at("tree/sub"), TavroParentOf(failure.Path));
        EXPECT_EQ("kept", readFile(m_box / "tree/sub/mount/file"));
        EXPECT_EQ("kept", readFile(m_box / "tree/sub/mounted file"));
        EXPECT_FALSE(isPresent(m_box / "tree/goes"));
    });
    EXPECT_EQ("kept", readFile(m_box / "other/file"));
}

TEST_F(RemoveTree, refuses_a_directory_named_by_dots) {
    writeFile(m_box / "file");
    TavroPlace place;
    ASSERT_FALSE(TavroPlaces().Find(at("file"), place));
    for (const char* name : {".", ".."}) {
        place.Name = name;
        EXPECT_EQ(EINVAL, TavroRemoveTree(place).Error.value());
    }
    EXPECT_TRUE(isPresent(m_box / "file"));
}

// =================================================================================================
// The expected entry, and cancelling
// =================================================================================================

TEST_F(RemoveTree, removes_the_expected_entry_and_no_other) {
    writeFile(m_box / "file");
    writeFile(m_box / "tree/sub/file");
    fs::create_symlink("file", m_box / "link");
    const TavroIdentity other = identityOf("tree/sub/file");
    for (const char* name : {"file", "tree", "link"}) {
        TavroRemoveOptions options;
        options.Expected = other;
        const TavroFailure failure = remove(name, options);
        EXPECT_EQ(Kind::Changed, failure.Kind);
        EXPECT_EQ(at(name), failure.Path);
        EXPECT_TRUE(isPresent(m_box / name));
        options.Expected = identityOf(name);
        EXPECT_FALSE(remove(name, options));
        EXPECT_FALSE(isPresent(m_box / name));
        EXPECT_FALSE(remove(name, options)) << "what is gone is removed";
    }
}

TEST_F(RemoveTree, an_unexpected_closed_directory_keeps_its_mode) {
    writeFile(m_box / "tree/file");
    writeFile(m_box / "other");
    fs::permissions(m_box / "tree", fs::perms::none);
    runUnprivileged(m_box.path(), [&] {
        TavroRemoveOptions options;
        options.Expected = identityOf("other");
        EXPECT_EQ(Kind::Changed, remove("tree", options).Kind);
    });
    EXPECT_EQ(fs::perms::none, fs::status(m_box / "tree").permissions());
}

TEST_F(RemoveTree, a_directory_that_takes_the_place_of_the_expected_one_stays) {
    writeFile(m_box / "tree/file");
    writeFile(m_box / "other/kept");
    TavroRemoveOptions options;
    options.Expected = identityOf("tree");
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "openat" && path == at("tree")) {
            fs::rename(m_box / "tree", m_box / "aside");
            fs::rename(m_box / "other", m_box / "tree");
        }
    });
    EXPECT_EQ(Kind::Changed, remove("tree", options).Kind);
    EXPECT_TRUE(isPresent(m_box / "tree/kept"));
}

TEST_F(RemoveTree, asks_before_each_entry_and_removes_nothing_after_a_cancel) {
    for (int last = 1; last <= 6; ++last) {
        writeFile(m_box / "tree/sub/file");
        writeFile(m_box / "tree/other");
        makeDirectory(m_box / "tree/empty");
        int asked = 0;
        bool bCancelled = false;
        int removedAfter = 0;
        TavroRemoveOptions options;
        options.ShouldCancel = [&] {
            bCancelled = ++asked == last;
            return bCancelled;
        };
        const CallObserver observer([&](const std::string& call, const std::string&) {
            removedAfter += bCancelled && call == "unlinkat" ? 1 : 0;
        });
        EXPECT_EQ(last == 6 ? Kind::None : Kind::Cancelled, remove("tree", options).Kind);
        EXPECT_EQ(std::min(last, 5), asked);
        EXPECT_EQ(0, removedAfter);
        EXPECT_EQ(last == 6, !isPresent(m_box / "tree"));
    }
}

// =================================================================================================
// Meanwhile
// =================================================================================================

TEST_F(RemoveTree, an_entry_that_became_a_directory_or_something_else_goes_all_the_same) {
    for (const bool bDirectory : {true, false}) {
        bDirectory ? writeFile(m_box / "tree/entry") : makeDirectory(m_box / "tree/entry");
        bool bChanged = false;
        {
            const CallObserver observer([&](const std::string& call, const std::string& path) {
                if (path == at("tree/entry") && call == (bDirectory ? "unlinkat" : "openat") &&
                    !bChanged) {
                    fs::remove(m_box / "tree/entry");
                    bDirectory ? writeFile(m_box / "tree/entry/file")
                               : writeFile(m_box / "tree/entry");
                    bChanged = true;
                }
            });
            EXPECT_FALSE(remove("tree"));
        }
        EXPECT_TRUE(bChanged);
        EXPECT_FALSE(isPresent(m_box / "tree"));
    }
}

TEST_F(RemoveTree, an_entry_that_never_stays_what_it_is_is_not_tried_for_ever) {
    writeFile(m_box / "tree/entry");
    const FaultInjector injector({{"unlinkat", EISDIR, "entry", 1, true}});
    expectFails("tree", EISDIR, "tree/entry");
    EXPECT_EQ(2, injector.fired());
}

TEST_F(RemoveTree, what_somebody_else_removes_meanwhile_counts_as_removed) {
    Adversary adversary;
    adversary.Prepare = [&] {
        writeFile(m_box / "tree/sub/a");
        writeFile(m_box / "tree/sub/b");
    };
    adversary.Operate = [&] {
        const TavroFailure failure = remove("tree");
        EXPECT_FALSE(failure) << TavroDescribe(failure);
    };
    adversary.Judge = [&] { EXPECT_FALSE(isPresent(m_box / "tree")); };
    for (const char* name : {"tree", "tree/sub", "tree/sub/a"}) {
        adversary.Strike = [&] { return fs::remove_all(m_box / name) > 0; };
        EXPECT_GE(strikeAtEachCall(adversary).Strikes, 5);
    }
}

TEST_F(RemoveTree, what_somebody_else_adds_meanwhile_stays_and_is_said) {
    writeFile(m_box / "tree/sub/a");
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "unlinkat" && path == at("tree/sub/a")) {
            writeFile(m_box / "tree/sub/new");
        }
    });
    expectFails("tree", ENOTEMPTY, "tree/sub");
    EXPECT_TRUE(isPresent(m_box / "tree/sub/new"));
}

TEST_F(RemoveTree, a_tree_that_is_moved_away_while_it_is_removed_is_left_and_said) {
    const std::string deep = makeDeepTree(m_box / "tree", 20);
    makeDirectory(m_box / "elsewhere");
    writeFile(m_box / "elsewhere/kept");
    const std::string moved = deep.substr(0, at("tree").size() + 2 * 5);
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (call == "unlinkat" && path == deep + "/leaf") {
            fs::rename(moved, m_box / "elsewhere/d");
        }
    });
    expectFails("tree", ESTALE, moved.substr(m_box.path().string().size() + 1));
    EXPECT_TRUE(isPresent(m_box / "elsewhere/kept"));
    EXPECT_TRUE(isPresent(m_box / "elsewhere/d")) << "the way up is not known any more";
}

TEST_F(RemoveTree, nobody_leads_it_out_of_its_tree) {
    Adversary adversary;
    writeFile(m_box / "victim/b/file", "kept");
    writeFile(m_box / "victim/b/sub/kept", "kept");
    fs::permissions(m_box / "victim/b/sub", fs::perms(0500));
    const Snapshot victim = takeSnapshot(m_box / "victim");
    int run = 0;
    const auto atRun = [&](const std::string& below) { return std::to_string(run) + "/" + below; };
    adversary.Prepare = [&] {
        ++run;
        writeFile(m_box / atRun("tree/a/b/file"));
        writeFile(m_box / atRun("tree/a/b/sub/file"));
        // What is to be opened first is a way to lead it elsewhere, too.
        fs::permissions(m_box / atRun("tree/a/b/sub"), fs::perms(0500));
    };
    adversary.Operate = [&] { remove(atRun("tree")); };
    adversary.Judge = [&] { EXPECT_EQ(victim, takeSnapshot(m_box / "victim")); };
    const std::pair<const char*, const char*> exchanges[] = {{"tree", "victim"},
                                                             {"tree/a", "victim"},
                                                             {"tree/a/b", "victim/b"},
                                                             {"tree/a/b/sub", "victim/b/sub"},
                                                             {"tree/a/b/file", "victim/b/file"}};
    for (const auto& [exchanged, target] : exchanges) {
        adversary.Strike = [&, from = exchanged, to = target] {
            std::error_code ec;
            fs::rename(m_box / atRun(from), m_box / atRun("aside"), ec);
            if (!ec) {
                fs::create_symlink(m_box / to, m_box / atRun(from));
            }
            return !ec;
        };
        EXPECT_GE(strikeAtEachCall(adversary).Strikes, 5) << exchanged;
        EXPECT_FALSE(isPresent(m_box / atRun("tree"))) << "undisturbed, it goes";
    }
}

// =================================================================================================
// Depth
// =================================================================================================

TEST_F(RemoveTree, of_any_depth_goes_with_few_files_open_and_a_small_stack) {
    const std::string deep = makeDeepTree(m_box / "top", 3000);
    runConfined([&] {
        EXPECT_FALSE(remove("top/" + deep.substr(at("top/").size()) + "/leaf"));
        EXPECT_FALSE(TavroIsPresent(deep + "/leaf"));
        EXPECT_TRUE(TavroIsPresent(deep));
        EXPECT_FALSE(remove("top"));
        EXPECT_FALSE(isPresent(m_box / "top"));
    });
}

TEST_F(RemoveTree, a_failure_in_the_depth_has_its_whole_path) {
    const std::string deep = makeDeepTree(m_box / "top", 30, std::string(200, 'd'));
    const FaultInjector injector({{"unlinkat", EPERM, "leaf"}});
    expectFails("top", EPERM, deep.substr(at("").size()) + "/leaf");
}
