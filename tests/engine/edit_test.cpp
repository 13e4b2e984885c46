// Renaming, creating and deleting by typed text. The sentences are those of the module, which is
// asked beside each case.

#include "edit.h"

#include "place.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

class Edit : public testing::Test {
protected:
    Edit() {
        makeDirectory(m_home);
        makeDirectory(m_work);
    }

    std::string work(const std::string& name) const {
        return (m_work / name).string();
    }
    TavroOperationEntry entry(const std::string& name) const {
        return {name, work(name), false};
    }
    TavroEditReport rename(const std::string& name, const std::string& text) const {
        return TavroRenameTo(entry(name), text);
    }

    /// What is refused changes nothing.
    void expectRefused(const std::string& name, const std::string& text,
                       const std::string& sentence) const {
        SCOPED_TRACE(name + " to " + text);
        const Snapshot before = takeSnapshot(m_sandbox.path());
        const TavroEditReport report = rename(name, text);
        EXPECT_EQ(TavroDescribe(report.Failure), sentence);
        EXPECT_EQ(report.Path, "");
        EXPECT_EQ(report.CreatedDirectories, std::vector<std::string>{});
        EXPECT_EQ(takeSnapshot(m_sandbox.path()), before);
    }

    Sandbox m_sandbox;
    fs::path m_home = m_sandbox / "home";
    fs::path m_work = m_sandbox / "work";

private:
    ScopedEnvironment m_homeVariable{"HOME", m_home.string()};
    ScopedEnvironment m_data{"XDG_DATA_HOME", std::nullopt};
};

/// What the module says, in the engine's words, which name the paths.
std::string inOwnWords(const std::string& sentence, const std::string& from,
                       const std::string& to) {
    const std::map<std::string, std::string> words = {
        {"Rename target cannot be empty.", "The new name is empty"},
        {"Rename target must include a file or directory name.",
         "'" + to + "' already exists, as a directory"},
        {"Rename target matches the current path.", "'" + from + "' and '" + to + "' are the same"},
        {"Rename target already exists.", "'" + to + "' already exists"}};
    const auto found = words.find(sentence);
    const std::size_t colon = sentence.rfind(": ");
    if (found != words.end() || colon == std::string::npos) {
        return found != words.end() ? found->second : sentence;
    }
    const std::string why = sentence.substr(colon);
    return sentence.rfind("Rename failed", 0) == 0
               ? "Cannot rename '" + from + "' to '" + to + "'" + why
               : "Cannot create the directory '" + fs::path(to).parent_path().string() + "'" + why;
}

std::string moduleRename(const std::string& path, const std::string& text) {
    std::string selected;
    std::string sentence;
    try {
        TavroRenameEntry({"", path, false}, text, fs::path(path).parent_path(), selected, sentence);
    } catch (const fs::filesystem_error& error) {
        return "Cannot look at '" + error.path1().string() + "': " + error.code().message();
    }
    return inOwnWords(sentence, path,
                      TavroResolveUserPath(text, fs::path(path).parent_path()).string());
}

std::string renameFailed(const std::string& from, const std::string& to, std::errc why) {
    return "Cannot rename '" + from + "' to '" + to + "': " + systemText(why);
}

std::uint64_t inodeOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

// ---------------------------------------------------------------------------------------------
// Renaming
// ---------------------------------------------------------------------------------------------

TEST_F(Edit, a_bare_name_stays_beside_the_entry) {
    writeFile(work("sub/a"), "bytes");
    const std::uint64_t inode = inodeOf(work("sub/a"));
    const TavroEditReport report = rename("sub/a", "  b ");
    EXPECT_EQ(TavroDescribe(report.Failure), "");
    EXPECT_EQ(report.Path, work("sub/b"));
    EXPECT_EQ(report.Arrived.Identity.Inode, inode);
    EXPECT_EQ(readFile(work("sub/b")), "bytes");
    EXPECT_FALSE(isPresent(work("sub/a")));
}

TEST_F(Edit, missing_parents_are_created_and_told_outer_ones_first) {
    writeFile(work("a"), "bytes");
    const TavroEditReport report = rename("a", "new/deep/b");
    EXPECT_EQ(TavroDescribe(report.Failure), "");
    EXPECT_EQ(report.Path, work("new/deep/b"));
    EXPECT_EQ(report.CreatedDirectories, (std::vector<std::string>{work("new"), work("new/deep")}));
}

TEST_F(Edit, a_path_and_a_tilde_lead_elsewhere_on_the_file_system) {
    makeDirectory(work("a/below"));
    EXPECT_EQ(rename("a", "~/b").Path, (m_home / "b").string());
    EXPECT_TRUE(isPresent(m_home / "b/below"));
}

TEST_F(Edit, a_link_is_renamed_itself) {
    makeDirectory(work("target"));
    fs::create_symlink("target", work("link"));
    fs::create_symlink("nowhere", work("dangling"));
    EXPECT_EQ(rename("link", "other").Path, work("other"));
    EXPECT_EQ(fs::read_symlink(work("other")), "target");
    EXPECT_EQ(rename("dangling", "still").Path, work("still"));
    EXPECT_EQ(fs::read_symlink(work("still")), "nowhere");
}

TEST_F(Edit, names_of_any_bytes_are_renamed) {
    const std::string name = "a\nb\xff[1]\\";
    writeFile(work(name), "bytes");
    EXPECT_EQ(rename(name, name + " 2").Path, work(name + " 2"));
}

TEST_F(Edit, what_cannot_be_renamed_is_refused_as_the_module_refuses_it) {
    writeFile(work("a"), "a");
    writeFile(work("b"), "b");
    fs::create_hard_link(work("a"), work("again"));
    fs::create_symlink("a", work("to a"));
    fs::create_symlink("b", work("to b"));
    fs::create_symlink("loop", work("loop"));
    makeDirectory(work("directory/inner"));
    fs::create_symlink("directory", work("to directory"));
    const std::string longName(300, 'x');
    const std::vector<std::string> targets = {"",
                                              "  ",
                                              "b",
                                              "a",
                                              "again",
                                              "to a",
                                              "to b",
                                              "directory",
                                              "directory/",
                                              "to directory",
                                              ".",
                                              "..",
                                              "directory/..",
                                              "/",
                                              "~",
                                              "b/x",
                                              "loop/x",
                                              longName,
                                              longName + "/x",
                                              "directory/" + longName};
    for (const std::string& target : targets) {
        expectRefused("a", target, moduleRename(work("a"), target));
    }
    for (const char* target : {"directory", "directory/inner", "directory/inner/below"}) {
        const std::string sentence =
            std::string(target) == "directory/inner/below"
                ? renameFailed(work("directory"), work(target), std::errc::invalid_argument)
                : moduleRename(work("directory"), target);
        expectRefused("directory", target, sentence);
    }
}

TEST_F(Edit, what_the_module_would_replace_or_leave_behind_is_refused) {
    writeFile(work("a"), "a");
    fs::create_symlink("nowhere", work("dangling"));
    fs::create_symlink("loop", work("loop"));
    expectRefused("a", "dangling",
                  "'" + work("dangling") + "' already exists, as a link to nothing");
    expectRefused("a", "loop", "'" + work("loop") + "' already exists, as a link to nothing");
    expectRefused("a", "dangling/x", moduleRename(work("a"), "dangling/x"));
    for (const char* target : {"new/", "new/deep/"}) {
        expectRefused("a", target,
                      renameFailed(work("a"), work(target), std::errc::not_a_directory));
    }
}

TEST_F(Edit, a_directory_may_be_named_with_a_separator_at_the_end) {
    makeDirectory(work("a"));
    EXPECT_EQ(rename("a", "new/b/").Path, work("new/b"));
    EXPECT_TRUE(isPresent(work("new/b")));
}

TEST_F(Edit, what_is_not_there_is_named) {
    expectRefused("nothing", "b", "No such entry: '" + work("nothing") + "'");
    expectRefused("nothing/below", "b", "No such entry: '" + work("nothing/below") + "'");
}

TEST_F(Edit, audio_tracks_are_not_renamed) {
    EXPECT_EQ(TavroDescribe(TavroRenameTo({"1", "cdda:/1", false}, "b").Failure),
              "Cannot rename an audio CD track: 'cdda:/1'");
}

TEST_F(Edit, what_the_guard_protects_is_not_renamed) {
    makeDirectory(m_home / ".local/share/Trash/files");
    const Snapshot before = takeSnapshot(m_sandbox.path());
    for (const fs::path& path : {m_home, m_sandbox.path(), m_home / ".local/share/Trash",
                                 m_home / ".local/share/Trash/files"}) {
        const TavroEditReport report =
            TavroRenameTo({path.filename().string(), path.string(), true}, "other");
        EXPECT_EQ(report.Failure.Kind, TavroFailureKind::RefuseRename) << path;
    }
    EXPECT_EQ(takeSnapshot(m_sandbox.path()), before);
}

TEST_F(Edit, a_target_on_another_file_system_is_refused_and_nothing_is_left_there) {
    const Sandbox other(secondFileSystem);
    if (!onDifferentDevices(other.path(), m_work)) {
        GTEST_SKIP() << secondFileSystem << " is no other file system";
    }
    writeFile(work("a"), "a");
    expectRefused("a", (other / "new/b").string(),
                  renameFailed(work("a"), other / "new/b", std::errc::cross_device_link));
    EXPECT_TRUE(fs::is_empty(other.path()));
}

TEST_F(Edit, what_appears_at_the_target_in_the_last_moment_is_not_replaced) {
    writeFile(work("a"), "a");
    TavroEditReport report;
    {
        const CallObserver observer([&](const std::string& call, const std::string&) {
            if (call == "renameat2") {
                writeFile(work("b"), "other");
            }
        });
        report = rename("a", "b");
    }
    EXPECT_EQ(TavroDescribe(report.Failure), "'" + work("b") + "' already exists");
    EXPECT_EQ(readFile(work("a")), "a");
    EXPECT_EQ(readFile(work("b")), "other");
}

TEST_F(Edit, a_directory_without_permission_is_told) {
    writeFile(work("a"), "a");
    makeDirectory(work("closed"));
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(work("closed"), fs::perms(0500));
        EXPECT_EQ(TavroDescribe(rename("a", "closed/new/b").Failure),
                  "Cannot create the directory '" + work("closed/new") +
                      "': " + systemText(std::errc::permission_denied));
        EXPECT_EQ(TavroDescribe(rename("a", "closed/b").Failure),
                  renameFailed(work("a"), work("closed/b"), std::errc::permission_denied));
        fs::permissions(work("closed"), fs::perms(0));
        EXPECT_EQ(TavroDescribe(rename("a", "closed/b").Failure),
                  "Cannot look at '" + work("closed/b") +
                      "': " + systemText(std::errc::permission_denied));
    });
}

// ---------------------------------------------------------------------------------------------
// Creating
// ---------------------------------------------------------------------------------------------

TEST_F(Edit, a_directory_is_created_with_its_parents_and_told) {
    makeDirectory(work("there"));
    const TavroEditReport report = TavroMakeDirectory(" there/new/deep/ ", m_work.string());
    EXPECT_EQ(TavroDescribe(report.Failure), "");
    EXPECT_EQ(report.Path, work("there/new/deep"));
    EXPECT_EQ(report.CreatedDirectories,
              (std::vector<std::string>{work("there/new"), work("there/new/deep")}));
    EXPECT_EQ(report.Arrived.Identity.Inode, inodeOf(work("there/new/deep")));
}

TEST_F(Edit, a_directory_that_is_there_is_no_failure_and_was_not_created) {
    makeDirectory(work("there"));
    fs::create_symlink("there", work("link"));
    for (const std::string name : {"there", "link", ".", "/"}) {
        const TavroEditReport report = TavroMakeDirectory(name, m_work.string());
        EXPECT_EQ(TavroDescribe(report.Failure), "");
        EXPECT_EQ(report.CreatedDirectories, std::vector<std::string>{});
        EXPECT_EQ(report.Path, name == "/" ? name : name == "." ? m_work.string() : work("there"));
    }
}

TEST_F(Edit, new_directories_have_the_mode_that_any_has) {
    const mode_t old = umask(027);
    TavroMakeDirectory("one/two", m_work.string());
    umask(old);
    for (const char* name : {"one", "one/two"}) {
        EXPECT_EQ(fs::status(work(name)).permissions(), fs::perms(0750)) << name;
    }
}

TEST_F(Edit, what_cannot_be_created_is_refused_as_the_module_refuses_it_and_leaves_nothing) {
    writeFile(work("file"), "bytes");
    fs::create_symlink("file", work("link"));
    fs::create_symlink("nowhere", work("dangling"));
    fs::create_symlink("loop", work("loop"));
    const std::string longName(300, 'x');
    for (const std::string& text :
         {std::string(), std::string("  "), std::string("file"), std::string("file/below"),
          std::string("link"), std::string("dangling"), std::string("dangling/below"),
          std::string("loop"), longName, "new/" + longName, "new/deep/" + longName + "/below"}) {
        SCOPED_TRACE(text);
        const Snapshot before = takeSnapshot(m_sandbox.path());
        const TavroEditReport report = TavroMakeDirectory(text, m_work.string());
        EXPECT_EQ(takeSnapshot(m_sandbox.path()), before);
        EXPECT_EQ(report.CreatedDirectories, std::vector<std::string>{});
        std::string selected;
        std::string sentence;
        EXPECT_FALSE(TavroCreateDirectory(text, m_work, selected, sentence));
        const std::string own = TavroDescribe(report.Failure);
        if (sentence == "Directory path cannot be empty.") {
            EXPECT_EQ(own, "The name of the new directory is empty");
        } else {
            EXPECT_EQ(own.rfind("Cannot create the directory '" + work(""), 0), 0U) << own;
            EXPECT_EQ(own.substr(own.rfind(": ")), sentence.substr(sentence.rfind(": ")));
        }
        fs::remove_all(work("new"));
    }
}

TEST_F(Edit, two_that_create_the_same_directory_at_once_both_succeed) {
    TavroEditReport report;
    {
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (call == "mkdirat") {
                makeDirectory(path);
            }
        });
        report = TavroMakeDirectory("new/deep", m_work.string());
    }
    EXPECT_EQ(TavroDescribe(report.Failure), "");
    EXPECT_EQ(report.CreatedDirectories, std::vector<std::string>{});
}

// ---------------------------------------------------------------------------------------------
// Deleting
// ---------------------------------------------------------------------------------------------

TEST_F(Edit, what_is_named_is_deleted_and_links_are_not_followed) {
    writeFile(work("tree/deep/a"), "a");
    writeFile(work("kept/a"), "a");
    fs::create_directory_symlink(work("kept"), work("tree/link"));
    fs::create_directory_symlink(work("kept"), work("link"));
    fs::create_symlink("nowhere", work("dangling"));
    makeFifo(work("fifo"));
    EXPECT_EQ(TavroDescribe(TavroDeleteForGood(
                  {entry("tree"), entry("link"), entry("dangling"), entry("fifo")}, {})),
              "");
    EXPECT_EQ(takeSnapshot(m_work).size(), 3U);
    EXPECT_EQ(readFile(work("kept/a")), "a");
}

TEST_F(Edit, an_entry_named_twice_or_inside_another_one_is_no_failure) {
    writeFile(work("tree/a"), "a");
    EXPECT_EQ(
        TavroDescribe(TavroDeleteForGood({entry("tree/a"), entry("tree"), entry("tree")}, {})), "");
    EXPECT_FALSE(isPresent(work("tree")));
}

TEST_F(Edit, nothing_is_deleted_when_one_entry_must_not_be) {
    writeFile(work("a"), "a");
    makeDirectory(m_home / ".local/share/Trash/info");
    const Snapshot before = takeSnapshot(m_sandbox.path());
    const ScopedCurrentDirectory current(m_work);
    for (const fs::path& path :
         {m_home, m_home / ".local", m_home / ".local/share/Trash/info", m_work, m_sandbox.path(),
          m_work / "missing", m_work / "a/below"}) {
        SCOPED_TRACE(path);
        const std::vector<TavroOperationEntry> entries = {entry("a"), {"", path.string(), true}};
        const std::vector<TavroFailure> reasons = TavroCheckDeletable(entries);
        ASSERT_EQ(reasons.size(), 1U);
        const bool bMissing = !isPresent(path);
        EXPECT_EQ(reasons[0].Kind,
                  bMissing ? TavroFailureKind::NoSuchEntry : TavroFailureKind::RefuseDelete);
        EXPECT_EQ(reasons[0].Path, path);
        EXPECT_EQ(TavroDeleteForGood(entries, {}).Kind, reasons[0].Kind);
        EXPECT_EQ(takeSnapshot(m_sandbox.path()), before);
    }
    EXPECT_EQ(TavroCheckDeletable({entry("x"), entry("a"), entry("y")}).size(), 2U);
    EXPECT_EQ(TavroCheckDeletable({}).at(0).Kind, TavroFailureKind::NothingSelected);
    EXPECT_EQ(TavroDeleteForGood({}, {}).Kind, TavroFailureKind::NothingSelected);
}

TEST_F(Edit, a_read_only_directory_keeps_its_entries_and_ends_it) {
    writeFile(work("tree/a"), "a");
    writeFile(work("later"), "later");
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(work("tree"), fs::perms(0500));
        const TavroFailure failure = TavroDeleteForGood({entry("tree"), entry("later")}, {});
        EXPECT_EQ(TavroDescribe(failure), "Cannot remove '" + work("tree/a") +
                                              "': " + systemText(std::errc::permission_denied));
        EXPECT_EQ(readFile(work("tree/a")), "a");
        EXPECT_EQ(readFile(work("later")), "later");
        EXPECT_EQ(fs::status(work("tree")).permissions(), fs::perms(0500));
    });
}

TEST_F(Edit, a_cancel_ends_it_and_names_the_entry) {
    for (int i = 0; i < 10; ++i) {
        writeFile(work("tree/" + std::to_string(i)));
    }
    writeFile(work("later"));
    TavroCallbacks callbacks;
    callbacks.ShouldCancel = [&, asked = 0]() mutable { return ++asked == 4; };
    const TavroFailure failure = TavroDeleteForGood({entry("tree"), entry("later")}, callbacks);
    EXPECT_EQ(failure.Kind, TavroFailureKind::Cancelled);
    EXPECT_EQ(failure.Path, work("tree"));
    EXPECT_GT(takeSnapshot(work("tree")).size(), 2U);
    EXPECT_TRUE(isPresent(work("later")));
}

TEST_F(Edit, deleting_tells_how_far_it_is) {
    writeFile(work("a"));
    std::vector<TavroProgress> told;
    TavroCallbacks callbacks;
    callbacks.OnProgress = [&](const TavroProgress& progress) { told.push_back(progress); };
    ASSERT_FALSE(TavroDeleteForGood({entry("a")}, callbacks));
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back().ItemsDone, 1U);
}

TEST_F(Edit, entries_of_many_directories_are_deleted_with_few_descriptors) {
    std::vector<TavroOperationEntry> entries;
    for (int i = 0; i < 100; ++i) {
        entries.push_back(entry(std::to_string(i) + "/a"));
        writeFile(entries.back().Path);
    }
    std::string deep = work("deep");
    for (int i = 0; i < 300; ++i) {
        deep += "/d";
    }
    makeDirectory(deep);
    entries.push_back(entry("deep"));
    runInChild([&] {
        const struct rlimit limit = {64, 64};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(TavroDescribe(TavroDeleteForGood(entries, {})), "");
    });
    EXPECT_FALSE(isPresent(work("deep")));
    EXPECT_FALSE(isPresent(work("99/a")));
}

/// At one call of a deletion after the other, a directory in the tree is exchanged for a link that
/// leads out of it, or the tree itself is.
TEST_F(Edit, nobody_leads_a_deletion_out_of_the_tree) {
    for (const char* name : {"tree", "tree/sub"}) {
        int exchanges = 0;
        bool bOver = false;
        for (int number = 2; !bOver; ++number) {
            const fs::path path = work(name);
            const fs::path outside = work("outside");
            writeFile(work("tree/sub/a"), "a");
            writeFile(work("tree/sub/deep/a"), "a");
            writeFile(outside / "a", "not ours");
            writeFile(outside / "deep/a", "not ours");
            const Snapshot before = takeSnapshot(outside);
            int calls = 0;
            {
                const CallObserver observer([&](const std::string& call, const std::string&) {
                    if (call != "close" && ++calls == number) {
                        ++exchanges;
                        std::error_code ec;
                        fs::rename(path, work("away"), ec);
                        fs::create_symlink(outside, path, ec);
                    }
                });
                TavroDeleteForGood({entry("tree")}, {});
            }
            bOver = calls < number;
            ASSERT_EQ(takeSnapshot(outside), before) << name << " exchanged at call " << number;
            fs::remove_all(work("tree"));
            fs::remove_all(work("away"));
        }
        EXPECT_GT(exchanges, 10);
    }
}

/// Of the files of /proc nobody tells when they were created, and nobody can remove them.
TEST_F(Edit, a_deletion_is_not_gone_on_with_where_nobody_can_tell_entries_apart) {
    const std::string path = fs::canonical("/proc/self/comm").string();
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    TavroStep step{TavroStepRole::Deleted, path};
    step.Identity = TavroIdentityOf(status);
    const TavroFailure failure = TavroFinishDeleting({step}, {});
    EXPECT_EQ(failure.Kind, TavroFailureKind::MaybeOther);
    EXPECT_EQ(failure.Path, path);
    step.Identity.Inode += 1;
    EXPECT_EQ(TavroDescribe(TavroFinishDeleting({step}, {})), "") << "it is gone";
}

TEST_F(Edit, what_takes_the_name_of_a_checked_entry_is_not_deleted) {
    writeFile(work("tree/a"), "a");
    writeFile(work("other/b"), "b");
    int looks = 0;
    TavroFailure failure;
    {
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            const bool bLook = call == "fstatat" || call == "statx";
            if (bLook && path == work("tree") && ++looks == 2) {
                fs::rename(work("tree"), work("away"));
                fs::rename(work("other"), work("tree"));
            }
        });
        failure = TavroDeleteForGood({entry("tree")}, {});
    }
    EXPECT_EQ(failure.Kind, TavroFailureKind::Changed);
    EXPECT_EQ(readFile(work("tree/b")), "b");
    EXPECT_EQ(readFile(work("away/a")), "a");
}

} // namespace
