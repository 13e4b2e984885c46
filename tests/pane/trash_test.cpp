// Trashing and restoring with the module's sharp edges guarded.

#include "trash.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "selection.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

/// A umask of its own for a while.
class ScopedUmask {
public:
    explicit ScopedUmask(mode_t mask) : m_old(umask(mask)) {}
    ~ScopedUmask() {
        umask(m_old);
    }
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

private:
    mode_t m_old;
};

unsigned modeOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

std::string inQuotes(const fs::path& path) {
    return "'" + path.string() + "'";
}

/// Mounts `from` at `to` too, for a child process alone, and runs `body` there.
/// @return false when nothing can be mounted here.
bool runWithMount(const fs::path& from, const fs::path& to, const std::function<void()>& body) {
    const fs::path ran = to.parent_path() / "ran";
    runInChild([&] {
        if (unshare(CLONE_NEWNS) == 0 &&
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0) {
            writeFile(ran);
            body();
        }
    });
    return isPresent(ran);
}

std::vector<TavroOperationEntry> select(const std::vector<fs::path>& paths) {
    std::vector<TavroOperationEntry> entries;
    for (const fs::path& path : paths) {
        entries.push_back(TavroSelectEntry(path.string()));
    }
    return entries;
}

/// A home directory with nothing in it, beside a folder of things to be trashed.
class PaneTrash : public testing::Test {
protected:
    PaneTrash() : m_home(m_sandbox / "home"), m_environment("HOME", m_home.string()) {
        makeDirectory(m_home);
        makeDirectory(docs());
    }

    const fs::path& home() const {
        return m_home;
    }
    fs::path docs() const {
        return m_sandbox / "docs";
    }
    fs::path root() const {
        return m_home / ".local/share/Trash";
    }
    fs::path item(const std::string& name) const {
        return root() / "files" / name;
    }
    fs::path record(const std::string& name) const {
        return root() / "info" / (name + ".trashinfo");
    }
    const fs::path& sandbox() const {
        return m_sandbox.path();
    }

    /// The line of a record that tells where its item came from.
    std::string pathLine(const std::string& name) const {
        const std::string bytes = readFile(record(name));
        const std::size_t begin = bytes.find('\n') + 1;
        return bytes.substr(begin, bytes.find('\n', begin) - begin);
    }

    /// A new file in the folder.
    fs::path doc(const std::string& name, const std::string& bytes = "bytes") const {
        writeFile(docs() / name, bytes);
        return docs() / name;
    }

    /// A new link in the folder.
    fs::path link(const std::string& name, const fs::path& target) const {
        fs::create_symlink(target, docs() / name);
        return docs() / name;
    }

    /// Trashes with success.
    std::vector<TavroTrashEntry> trash(const std::vector<fs::path>& paths,
                                       const TavroTransferCallbacks& callbacks = {}) const {
        std::vector<TavroTrashEntry> trashed;
        std::string error = "untouched";
        EXPECT_TRUE(TavroTrashSelection(select(paths), callbacks, trashed, error)) << error;
        EXPECT_EQ(error, "untouched");
        if (trashed.size() != paths.size()) {
            throw std::runtime_error("not every entry was trashed");
        }
        return trashed;
    }

    /// Trashes in vain.
    /// @return the sentence.
    std::string trashInVain(const std::vector<fs::path>& paths,
                            const TavroTransferCallbacks& callbacks = {}) const {
        std::vector<TavroTrashEntry> trashed(3);
        std::string error;
        EXPECT_FALSE(TavroTrashSelection(select(paths), callbacks, trashed, error));
        EXPECT_TRUE(trashed.empty());
        return error;
    }

    static void restore(const std::vector<TavroTrashEntry>& entries,
                        const TavroTransferCallbacks& callbacks = {}) {
        std::string error = "untouched";
        EXPECT_TRUE(TavroRestoreSelection(entries, callbacks, error)) << error;
        EXPECT_EQ(error, "untouched");
    }

    static std::string restoreInVain(const std::vector<TavroTrashEntry>& entries,
                                     const TavroTransferCallbacks& callbacks = {}) {
        std::string error;
        EXPECT_FALSE(TavroRestoreSelection(entries, callbacks, error));
        return error;
    }

    /// What holds for a moment between two moves: `act` is called the how-manyeth time that
    /// cancelling is asked about. Its result is the answer.
    static TavroTransferCallbacks whenAsked(int time, const std::function<bool()>& act) {
        TavroTransferCallbacks callbacks;
        callbacks.ShouldCancel = [time, act, asked = 0]() mutable {
            return ++asked == time && act();
        };
        return callbacks;
    }

private:
    Sandbox m_sandbox;
    fs::path m_home;
    ScopedEnvironment m_environment;
};

using TrashFolders = PaneTrash;
using OwnPath = PaneTrash;
using CheckTrashable = PaneTrash;
using OtherDevices = PaneTrash;
using TrashName = PaneTrash;
using TrashSelection = PaneTrash;
using RestoreSelection = PaneTrash;

} // namespace

// -------------------------------------------------------------------------------------------------
// The folders of the trash
// -------------------------------------------------------------------------------------------------

TEST_F(TrashFolders, are_three_below_the_home_directory) {
    const TavroTrashFolders folders = TavroFindTrashFolders();
    EXPECT_EQ(folders.Root, root());
    EXPECT_EQ(folders.Files, root() / "files");
    EXPECT_EQ(folders.Info, root() / "info");
}

TEST_F(TrashFolders, are_none_without_a_home_directory) {
    const ScopedEnvironment environment("HOME", std::nullopt);
    std::string error;
    EXPECT_TRUE(TavroFindTrashFolders().Root.empty());
    EXPECT_TRUE(TavroFindTrashFolders().Files.empty());
    EXPECT_FALSE(TavroEnsurePrivateTrash(error));
    EXPECT_EQ(error, "Trash is unavailable because HOME is not set.");
}

TEST_F(TrashFolders, are_made_private_under_an_open_umask_and_their_parents_are_not) {
    const ScopedUmask open(0);
    std::string error;
    ASSERT_TRUE(TavroEnsurePrivateTrash(error)) << error;
    for (const fs::path& folder : {root(), root() / "files", root() / "info"}) {
        EXPECT_EQ(modeOf(folder), 0700U) << folder;
    }
    EXPECT_EQ(modeOf(home() / ".local"), 0777U);
    EXPECT_EQ(modeOf(home() / ".local/share"), 0777U);
}

TEST_F(TrashFolders, can_be_used_by_their_owner_under_a_closed_umask) {
    makeDirectory(home() / ".local/share");
    const ScopedUmask closed(0777);
    std::string error;
    ASSERT_TRUE(TavroEnsurePrivateTrash(error)) << error;
    for (const fs::path& folder : {root(), root() / "files", root() / "info"}) {
        EXPECT_EQ(modeOf(folder), 0700U) << folder;
    }
}

TEST_F(TrashFolders, that_exist_keep_their_mode) {
    makeDirectory(root() / "files");
    fs::permissions(root(), fs::perms(0755));
    fs::permissions(root() / "files", fs::perms(0750));
    std::string error;
    ASSERT_TRUE(TavroEnsurePrivateTrash(error)) << error;
    EXPECT_EQ(modeOf(root()), 0755U);
    EXPECT_EQ(modeOf(root() / "files"), 0750U);
    EXPECT_EQ(modeOf(root() / "info"), 0700U);
}

TEST_F(TrashFolders, may_be_links_to_folders) {
    makeDirectory(sandbox() / "elsewhere");
    makeDirectory(root().parent_path());
    fs::create_symlink(sandbox() / "elsewhere", root());
    std::string error;
    ASSERT_TRUE(TavroEnsurePrivateTrash(error)) << error;
    EXPECT_TRUE(fs::is_directory(sandbox() / "elsewhere/info"));
}

TEST_F(TrashFolders, name_what_is_in_their_way) {
    for (const fs::path& inTheWay :
         {home() / ".local", home() / ".local/share", root(), root() / "files", root() / "info"}) {
        fs::remove_all(home() / ".local");
        writeFile(inTheWay, "a file");
        std::string error;
        EXPECT_FALSE(TavroEnsurePrivateTrash(error));
        EXPECT_EQ(error, "The trash needs a folder where " + inQuotes(inTheWay) + " is");
        EXPECT_EQ(readFile(inTheWay), "a file");
    }
}

TEST_F(TrashFolders, take_a_dangling_link_for_being_in_their_way) {
    makeDirectory(root().parent_path());
    fs::create_symlink("nowhere", root());
    std::string error;
    EXPECT_FALSE(TavroEnsurePrivateTrash(error));
    EXPECT_EQ(error, "The trash needs a folder where " + inQuotes(root()) + " is");
}

TEST_F(TrashFolders, name_the_folder_that_cannot_be_made) {
    runUnprivileged(sandbox(), [&] {
        fs::permissions(home(), fs::perms(0500));
        std::string error;
        EXPECT_FALSE(TavroEnsurePrivateTrash(error));
        EXPECT_EQ(error, "Failed to create trash folder " + inQuotes(home() / ".local") + ": " +
                             systemText(std::errc::permission_denied));
    });
}

TEST_F(TrashFolders, are_private_when_the_first_selection_is_trashed) {
    const ScopedUmask open(0);
    trash({doc("a.txt")});
    EXPECT_EQ(modeOf(root()), 0700U);
    EXPECT_EQ(modeOf(root() / "files"), 0700U);
    EXPECT_EQ(modeOf(root() / "info"), 0700U);
}

// -------------------------------------------------------------------------------------------------
// An entry's own path
// -------------------------------------------------------------------------------------------------

TEST_F(OwnPath, of_a_link_is_where_the_link_is) {
    const fs::path path = link("link", doc("a.txt"));
    EXPECT_EQ(TavroFindOwnPath(path.string()), docs() / "link");
}

TEST_F(OwnPath, follows_the_links_on_the_way) {
    fs::create_directory_symlink(docs(), sandbox() / "way");
    EXPECT_EQ(TavroFindOwnPath((sandbox() / "way/a.txt").string()), docs() / "a.txt");
    EXPECT_EQ(TavroFindOwnPath((sandbox() / "way/").string()), docs());
    EXPECT_EQ(TavroFindOwnPath((sandbox() / "way/../docs/a.txt").string()), docs() / "a.txt");
}

TEST_F(OwnPath, of_relative_text_is_below_the_current_directory) {
    const ScopedCurrentDirectory there(docs());
    EXPECT_EQ(TavroFindOwnPath("a.txt"), docs() / "a.txt");
    EXPECT_EQ(TavroFindOwnPath(".."), sandbox());
    EXPECT_EQ(TavroFindOwnPath("/"), "/");
}

// -------------------------------------------------------------------------------------------------
// What must not be trashed
// -------------------------------------------------------------------------------------------------

namespace {

/// @return the sentence; empty when the paths may be trashed.
std::string reasonAgainst(const std::vector<TavroOperationEntry>& entries) {
    std::string error;
    return TavroCheckTrashable(entries, error) ? std::string() : error;
}

std::string refusal(const fs::path& path, const std::string& reason) {
    return "Cannot move " + inQuotes(path) + " to the trash: " + reason;
}

} // namespace

TEST_F(CheckTrashable, lets_plain_entries_go) {
    makeDirectory(docs() / "folder");
    EXPECT_EQ(reasonAgainst(select({doc("a.txt"), docs() / "folder", link("dangling", "nowhere")})),
              "");
}

TEST_F(CheckTrashable, refuses_the_home_directory_the_trash_and_what_holds_them) {
    std::string error;
    ASSERT_TRUE(TavroEnsurePrivateTrash(error)) << error;
    writeFile(item("a.txt"));
    writeFile(record("a.txt"));
    const std::vector<std::pair<fs::path, std::string>> refused = {
        {"/", "it is the root directory"},
        {sandbox(), "it holds the home directory"},
        {home(), "it is the home directory"},
        {home() / ".local", "it holds the trash"},
        {root().parent_path(), "it holds the trash"},
        {root(), "it is the trash"},
        {root() / "files", "it is a folder of the trash"},
        {root() / "info", "it is a folder of the trash"},
        {item("a.txt"), "it is in the trash already"},
        {record("a.txt"), "it is in the trash already"},
    };
    for (const auto& [path, reason] : refused) {
        EXPECT_EQ(reasonAgainst(select({path})), refusal(path, reason));
    }
}

TEST_F(CheckTrashable, refuses_what_would_hold_the_trash_before_there_is_one) {
    makeDirectory(home() / ".local");
    EXPECT_EQ(reasonAgainst(select({home() / ".local"})),
              refusal(home() / ".local", "it holds the trash"));
}

TEST_F(CheckTrashable, is_not_misled_by_names_that_begin_alike) {
    makeDirectory(sandbox() / "hom");
    makeDirectory(home() / ".local/share/Tras");
    EXPECT_EQ(reasonAgainst(select({sandbox() / "hom", home() / ".local/share/Tras"})), "");
}

TEST_F(CheckTrashable, lets_a_link_to_the_home_directory_go) {
    EXPECT_EQ(reasonAgainst(select({link("to home", home())})), "");
}

TEST_F(CheckTrashable, refuses_a_link_on_the_way_to_the_home_directory) {
    fs::create_directory_symlink(sandbox(), sandbox() / "users");
    fs::create_directory_symlink(home(), sandbox() / "me");
    const ScopedEnvironment throughFolder("HOME", (sandbox() / "users/home").string());
    EXPECT_EQ(reasonAgainst(select({sandbox() / "users"})),
              refusal(sandbox() / "users", "it holds the home directory"));
    for (const std::string text : {"me", "me/", "users/me"}) {
        const ScopedEnvironment throughLink("HOME", (sandbox() / text).string());
        EXPECT_EQ(reasonAgainst(select({sandbox() / "me"})),
                  refusal(sandbox() / "me", "it is the home directory"));
    }
}

TEST_F(CheckTrashable, lets_another_name_of_such_a_link_go) {
    makeDirectory(sandbox() / "elsewhere");
    makeDirectory(root().parent_path());
    fs::create_directory_symlink(sandbox() / "elsewhere", root());
    fs::create_hard_link(root(), docs() / "link");
    ASSERT_TRUE(fs::is_symlink(docs() / "link"));
    EXPECT_EQ(reasonAgainst(select({docs() / "link"})), "");
}

TEST_F(CheckTrashable, refuses_a_trash_elsewhere_and_the_links_that_lead_to_it) {
    makeDirectory(sandbox() / "big disk/can/files");
    writeFile(sandbox() / "big disk/can/files/a.txt");
    makeDirectory(root().parent_path());
    fs::create_directory_symlink(sandbox() / "big disk/can", root());
    const std::vector<std::pair<fs::path, std::string>> refused = {
        {root(), "it is the trash"},
        {sandbox() / "big disk", "it holds the trash"},
        {sandbox() / "big disk/can", "it is the trash"},
        {sandbox() / "big disk/can/files/a.txt", "it is in the trash already"},
    };
    for (const auto& [path, reason] : refused) {
        EXPECT_EQ(reasonAgainst(select({path})), refusal(path, reason));
    }
}

TEST_F(CheckTrashable, knows_the_home_directory_by_another_mount_of_it) {
    const fs::path mounted = docs() / "mounted";
    makeDirectory(mounted);
    const bool bRan = runWithMount(home(), mounted, [&] {
        EXPECT_EQ(reasonAgainst(select({mounted})), refusal(mounted, "it is the home directory"));
    });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

TEST_F(CheckTrashable, refuses_one_entry_twice_however_it_is_spelt) {
    fs::create_directory_symlink(docs(), sandbox() / "way");
    const fs::path other = sandbox() / "way/a.txt";
    EXPECT_EQ(reasonAgainst(select({doc("a.txt"), doc("b.txt"), other})),
              refusal(other, "it is selected twice"));
}

TEST_F(CheckTrashable, lets_two_names_of_one_file_go) {
    fs::create_hard_link(doc("a.txt"), docs() / "b.txt");
    EXPECT_EQ(reasonAgainst(select({docs() / "a.txt", docs() / "b.txt"})), "");
}

TEST_F(CheckTrashable, refuses_an_entry_inside_another_of_the_selection) {
    const fs::path inner = docs() / "outer/between/inner";
    makeDirectory(inner);
    EXPECT_EQ(
        reasonAgainst(select({inner, docs() / "outer"})),
        refusal(inner, "it is inside " + inQuotes(docs() / "outer") + ", which is selected too"));
}

TEST_F(CheckTrashable, refuses_what_does_not_exist_or_cannot_be_examined) {
    EXPECT_EQ(reasonAgainst(select({docs() / "missing"})),
              refusal(docs() / "missing", systemText(std::errc::no_such_file_or_directory)));
    const fs::path below = doc("a.txt") / "b";
    EXPECT_EQ(reasonAgainst(select({below})),
              refusal(below, systemText(std::errc::not_a_directory)));
    EXPECT_EQ(reasonAgainst({TavroOperationEntry{"", "", false}}),
              refusal("", systemText(std::errc::no_such_file_or_directory)));
}

TEST_F(CheckTrashable, refuses_an_audio_track_even_where_a_file_has_its_name) {
    const ScopedCurrentDirectory there(docs());
    doc("cdda:1.cdda");
    for (const std::string track : {"cdda:1.cdda", "cdda:/dev/sr0/1.cdda"}) {
        EXPECT_EQ(reasonAgainst(select({track})), refusal(track, "it is an audio CD track"));
    }
}

// -------------------------------------------------------------------------------------------------
// Other file systems
// -------------------------------------------------------------------------------------------------

TEST_F(OtherDevices, are_told_by_the_folder_of_the_entry_itself) {
    const Sandbox other(secondFileSystem);
    if (!onDifferentDevices(other.path(), sandbox())) {
        GTEST_SKIP() << secondFileSystem << " is no other file system";
    }
    writeFile(other / "far.txt");
    const fs::path here = link("link to far", other / "far.txt");
    const auto others =
        TavroEntriesOnOtherDevices(select({doc("near.txt"), other / "far.txt", here}));
    ASSERT_EQ(others.size(), 1U);
    EXPECT_EQ(others[0].Path, (other / "far.txt").string());
}

TEST_F(OtherDevices, are_none_without_a_home_directory) {
    const ScopedEnvironment environment("HOME", std::nullopt);
    EXPECT_TRUE(TavroEntriesOnOtherDevices(select({doc("a.txt")})).empty());
}

TEST_F(OtherDevices, include_other_mounts_of_the_same_file_system) {
    const fs::path mounted = sandbox() / "mounted";
    makeDirectory(mounted);
    doc("a.txt");
    const bool bRan = runWithMount(docs(), mounted, [&] {
        EXPECT_EQ(TavroEntriesOnOtherDevices(select({mounted / "a.txt"})).size(), 1U);
        EXPECT_EQ(TavroEntriesOnOtherDevices(select({docs() / "a.txt"})).size(), 0U);
    });
    if (!bRan) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
}

// -------------------------------------------------------------------------------------------------
// Names in the trash
// -------------------------------------------------------------------------------------------------

namespace {

std::string chosen(const std::string& name, const std::unordered_set<std::string>& claimed = {}) {
    return TavroChooseTrashName(TavroFindTrashFolders(), name, claimed);
}

std::string repeated(const std::string& text, std::size_t count) {
    std::string result;
    for (std::size_t i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

} // namespace

TEST_F(TrashName, stays_when_it_is_free_and_fits) {
    EXPECT_EQ(chosen("a.txt"), "a.txt");
    EXPECT_EQ(chosen(std::string(245, 'x')), std::string(245, 'x'));
}

TEST_F(TrashName, is_cut_before_its_extension) {
    EXPECT_EQ(chosen(std::string(246, 'x')), std::string(245, 'x'));
    EXPECT_EQ(chosen(std::string(251, 'x') + ".txt"), std::string(241, 'x') + ".txt");
}

TEST_F(TrashName, loses_an_extension_that_leaves_no_room) {
    const std::string name = "a." + std::string(250, 'x');
    EXPECT_EQ(chosen(name), name.substr(0, 245));
    EXPECT_EQ(chosen("." + std::string(250, 'x')), "." + std::string(244, 'x'));
}

TEST_F(TrashName, is_cut_between_characters) {
    for (const std::string character : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x97\x91"}) {
        for (std::size_t shift = 0; shift < 4; ++shift) {
            const std::string before(shift, 'x');
            const std::string name = before + repeated(character, 250 / character.size());
            const std::size_t whole = (245 - shift) / character.size();
            EXPECT_EQ(chosen(name), before + repeated(character, whole));
        }
    }
}

TEST_F(TrashName, that_is_no_text_is_cut_anywhere) {
    EXPECT_EQ(chosen(std::string(250, '\x80')), std::string(245, '\x80'));
    EXPECT_EQ(chosen(std::string(250, '\xFF')), std::string(245, '\xFF'));
}

TEST_F(TrashName, passes_over_items_records_dangling_links_and_claims) {
    writeFile(item("a.txt"));
    writeFile(record("a copy 1.txt"));
    fs::create_symlink("nowhere", item("a copy 2.txt"));
    EXPECT_EQ(chosen("a.txt", {"a copy 3.txt"}), "a copy 4.txt");
}

TEST_F(TrashName, that_is_cut_still_gets_a_number) {
    const std::string name = std::string(251, 'x') + ".txt";
    const std::string first = chosen(name);
    EXPECT_EQ(chosen(name, {first}), std::string(234, 'x') + " copy 1.txt");
}

// -------------------------------------------------------------------------------------------------
// Trashing
// -------------------------------------------------------------------------------------------------

TEST_F(TrashSelection, moves_files_and_folders_and_records_where_they_were) {
    makeDirectory(docs() / "folder");
    writeFile(docs() / "folder/inner.txt", "inner");
    const auto trashed = trash({doc("a b.txt", "bytes"), docs() / "folder"});
    EXPECT_EQ(trashed[0].OriginalPath, (docs() / "a b.txt").string());
    EXPECT_EQ(trashed[0].TrashPath, item("a b.txt").string());
    EXPECT_EQ(trashed[0].InfoPath, record("a b.txt").string());
    EXPECT_FALSE(trashed[0].bDirectory);
    EXPECT_TRUE(trashed[1].bDirectory);
    EXPECT_EQ(readFile(item("a b.txt")), "bytes");
    EXPECT_EQ(readFile(item("folder") / "inner.txt"), "inner");
    EXPECT_EQ(pathLine("folder"), "Path=" + (docs() / "folder").string());
    EXPECT_TRUE(fs::is_empty(docs()));
}

TEST_F(TrashSelection, refuses_an_empty_selection) {
    EXPECT_EQ(trashInVain({}), "Nothing selected to delete.");
}

TEST_F(TrashSelection, says_that_there_is_no_home_directory) {
    const ScopedEnvironment environment("HOME", "");
    EXPECT_EQ(trashInVain({doc("a.txt")}), "Trash is unavailable because HOME is not set.");
    EXPECT_TRUE(isPresent(docs() / "a.txt"));
}

TEST_F(TrashSelection, makes_no_folders_for_what_it_refuses) {
    EXPECT_EQ(trashInVain({home()}), refusal(home(), "it is the home directory"));
    EXPECT_TRUE(fs::is_empty(home()));
}

TEST_F(TrashSelection, takes_the_name_of_a_path_that_ends_in_a_separator) {
    makeDirectory(docs() / "folder");
    std::vector<TavroTrashEntry> trashed;
    std::string error;
    const std::string typed = (docs() / "folder/").string();
    ASSERT_TRUE(TavroTrashSelection({{"folder", typed, true}}, {}, trashed, error)) << error;
    EXPECT_EQ(trashed[0].TrashPath, item("folder").string());
    EXPECT_EQ(trashed[0].OriginalPath, (docs() / "folder").string());
}

TEST_F(TrashSelection, keeps_names_of_any_bytes) {
    const std::string name = "\xFF\n%\x01.txt";
    const auto trashed = trash({doc(name)});
    EXPECT_EQ(trashed[0].TrashPath, item(name).string());
    EXPECT_EQ(pathLine(name), "Path=" + docs().string() + "/%FF%0A%25%01.txt");
    restore(trashed);
    EXPECT_EQ(readFile(docs() / name), "bytes");
}

TEST_F(TrashSelection, records_a_link_by_its_own_path) {
    const auto trashed = trash({link("link", doc("a.txt")), link("dangling", "nowhere")});
    EXPECT_EQ(trashed[0].OriginalPath, (docs() / "link").string());
    EXPECT_EQ(trashed[1].OriginalPath, (docs() / "dangling").string());
    EXPECT_TRUE(trashed[0].bDirectory);
    EXPECT_EQ(pathLine("link"), "Path=" + (docs() / "link").string());
    EXPECT_EQ(fs::read_symlink(item("link")), docs() / "a.txt");
    EXPECT_EQ(fs::read_symlink(item("dangling")), "nowhere");
    EXPECT_EQ(readFile(docs() / "a.txt"), "bytes");
}

TEST_F(TrashSelection, puts_a_dangling_link_back_when_a_later_entry_fails) {
    link("dangling", "nowhere");
    doc("a.txt");
    const Snapshot before = takeSnapshot(docs());
    const FaultInjector fault({{"fopen64", EACCES, "a.txt.trashinfo"}});
    EXPECT_EQ(trashInVain({docs() / "dangling", docs() / "a.txt"}),
              "Failed to create trash metadata " + inQuotes(record("a.txt")) + ".");
    EXPECT_EQ(fault.fired(), 1);
    EXPECT_EQ(takeSnapshot(docs()), before);
    EXPECT_TRUE(fs::is_empty(root() / "files"));
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(TrashSelection, shortens_a_name_that_leaves_no_room_for_its_record) {
    const std::string name = std::string(251, 'x') + ".txt";
    const std::string shorter = std::string(241, 'x') + ".txt";
    const auto trashed = trash({doc(name), doc("a.txt")});
    EXPECT_EQ(trashed[0].TrashPath, item(shorter).string());
    EXPECT_EQ(pathLine(shorter), "Path=" + (docs() / name).string());
    restore(trashed);
    EXPECT_EQ(readFile(docs() / name), "bytes");
}

TEST_F(TrashSelection, gives_long_names_that_begin_alike_different_names) {
    const std::string begin(250, 'x');
    const auto trashed = trash({doc(begin + "1", "one"), doc(begin + "2", "two")});
    EXPECT_EQ(readFile(trashed[0].TrashPath), "one");
    EXPECT_EQ(readFile(trashed[1].TrashPath), "two");
    EXPECT_EQ(trashed[1].TrashPath, item(std::string(238, 'x') + " copy 1").string());
}

TEST_F(TrashSelection, does_not_replace_a_dangling_link_in_the_trash) {
    makeDirectory(root() / "files");
    fs::create_symlink("nowhere", item("a.txt"));
    const auto trashed = trash({doc("a.txt")});
    EXPECT_EQ(fs::read_symlink(item("a.txt")), "nowhere");
    EXPECT_EQ(trashed[0].TrashPath, item("a copy 1.txt").string());
    EXPECT_EQ(readFile(item("a copy 1.txt")), "bytes");
}

TEST_F(TrashSelection, does_not_replace_a_record_of_another_program) {
    writeFile(record("a.txt"), "[Trash Info]\nPath=/precious\n");
    const auto trashed = trash({doc("a.txt")});
    EXPECT_EQ(readFile(record("a.txt")), "[Trash Info]\nPath=/precious\n");
    EXPECT_EQ(trashed[0].InfoPath, record("a copy 1.txt").string());
}

TEST_F(TrashSelection, does_not_replace_what_only_its_second_choice_would_meet) {
    writeFile(item("a.txt"), "old");
    fs::create_symlink("nowhere", item("a copy 1.txt"));
    writeFile(record("a copy 2.txt"), "precious");
    const auto trashed = trash({doc("a.txt", "new")});
    EXPECT_EQ(readFile(item("a.txt")), "old");
    EXPECT_EQ(fs::read_symlink(item("a copy 1.txt")), "nowhere");
    EXPECT_EQ(readFile(record("a copy 2.txt")), "precious");
    EXPECT_EQ(trashed[0].TrashPath, item("a copy 3.txt").string());
}

TEST_F(TrashSelection, does_not_replace_what_the_second_entry_of_one_name_would_meet) {
    writeFile(docs() / "1/a.txt", "one");
    writeFile(docs() / "2/a.txt", "two");
    makeDirectory(root() / "files");
    fs::create_symlink("nowhere", item("a copy 1.txt"));
    const auto trashed = trash({docs() / "1/a.txt", docs() / "2/a.txt"});
    EXPECT_EQ(fs::read_symlink(item("a copy 1.txt")), "nowhere");
    EXPECT_EQ(readFile(trashed[0].TrashPath), "one");
    EXPECT_EQ(readFile(trashed[1].TrashPath), "two");
}

TEST_F(TrashSelection, gives_a_name_that_it_chose_to_no_other_entry) {
    makeDirectory(root() / "files");
    fs::create_symlink("nowhere", item("a.txt"));
    const auto trashed = trash({doc("a.txt", "one"), doc("a copy 1.txt", "two")});
    EXPECT_EQ(trashed[0].TrashPath, item("a copy 1.txt").string());
    EXPECT_EQ(readFile(trashed[0].TrashPath), "one");
    EXPECT_EQ(readFile(trashed[1].TrashPath), "two");
}

TEST_F(TrashSelection, keeps_entries_of_one_name_from_several_folders_apart) {
    writeFile(docs() / "1/a.txt", "one");
    writeFile(docs() / "2/a.txt", "two");
    writeFile(docs() / "3/a copy 1.txt", "three");
    writeFile(item("a.txt"), "old");
    const auto trashed = trash({docs() / "1/a.txt", docs() / "2/a.txt", docs() / "3/a copy 1.txt"});
    EXPECT_EQ(readFile(trashed[0].TrashPath), "one");
    EXPECT_EQ(readFile(trashed[1].TrashPath), "two");
    EXPECT_EQ(readFile(trashed[2].TrashPath), "three");
    restore(trashed);
    EXPECT_EQ(readFile(docs() / "2/a.txt"), "two");
    EXPECT_EQ(readFile(item("a.txt")), "old");
}

TEST_F(TrashSelection, that_is_cancelled_at_once_changes_nothing) {
    doc("a.txt");
    EXPECT_EQ(trashInVain({docs() / "a.txt"}, whenAsked(1, [] { return true; })), "Cancelled");
    EXPECT_TRUE(isPresent(docs() / "a.txt"));
    EXPECT_TRUE(fs::is_empty(root() / "files"));
}

TEST_F(TrashSelection, that_is_cancelled_between_two_moves_is_undone) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("2"), doc("3")};
    const Snapshot before = takeSnapshot(docs());
    bool bHalfWay = false;
    const auto callbacks = whenAsked(2, [&] {
        bHalfWay = isPresent(item("1")) && isPresent(record("1")) && isPresent(paths[1]);
        return true;
    });
    EXPECT_EQ(trashInVain(paths, callbacks), "Cancelled");
    EXPECT_TRUE(bHalfWay);
    EXPECT_EQ(takeSnapshot(docs()), before);
    EXPECT_TRUE(fs::is_empty(root() / "files"));
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(TrashSelection, whose_second_move_fails_puts_the_first_entry_back) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("2")};
    const auto callbacks = whenAsked(2, [&] {
        fs::remove(paths[1]);
        return false;
    });
    const std::string error = trashInVain(paths, callbacks);
    EXPECT_NE(error.find(inQuotes(paths[1])), std::string::npos) << error;
    EXPECT_EQ(error.find("Rollback"), std::string::npos) << error;
    EXPECT_EQ(fs::read_symlink(paths[0]), "nowhere");
    EXPECT_TRUE(fs::is_empty(root() / "files"));
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(TrashSelection, says_where_that_is_which_cannot_be_put_back) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("2")};
    const auto callbacks = whenAsked(2, [&] {
        writeFile(paths[0], "in the way");
        return true;
    });
    const std::string error = trashInVain(paths, callbacks);
    EXPECT_EQ(error.rfind("Cancelled Rollback failed: ", 0), 0U) << error;
    EXPECT_NE(error.find(inQuotes(item("1"))), std::string::npos) << error;
    EXPECT_EQ(readFile(paths[0]), "in the way");
    EXPECT_EQ(fs::read_symlink(item("1")), "nowhere");
    EXPECT_EQ(pathLine("1"), "Path=" + paths[0].string());
}

TEST_F(TrashSelection, records_anew_what_lies_in_the_trash_after_a_failed_rollback) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("sub/2")};
    const auto callbacks = whenAsked(2, [&] {
        fs::remove(record("1"));
        fs::rename(docs(), sandbox() / "gone");
        writeFile(docs(), "a file in the way of the folder");
        return true;
    });
    const std::string error = trashInVain(paths, callbacks);
    EXPECT_NE(error.find("; " + inQuotes(paths[0]) + " is now " + inQuotes(item("1"))),
              std::string::npos)
        << error;
    EXPECT_EQ(pathLine("1"), "Path=" + paths[0].string());
}

TEST_F(TrashSelection, whose_record_cannot_be_written_is_undone) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("2")};
    const Snapshot before = takeSnapshot(docs());
    const FaultInjector fault({{"fopen64", ENOSPC, "2.trashinfo"}});
    EXPECT_EQ(trashInVain(paths), "Failed to create trash metadata " + inQuotes(record("2")) + ".");
    EXPECT_EQ(fault.fired(), 1);
    EXPECT_EQ(takeSnapshot(docs()), before);
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(TrashSelection, whose_record_does_not_fit_on_the_disk_is_undone) {
    for (const std::vector<fs::path>& paths :
         {std::vector<fs::path>{doc("1"), doc("2")}, {doc("2"), link("link", "nowhere")}}) {
        const Snapshot before = takeSnapshot(docs());
        const FaultInjector fault({{"write", ENOSPC, "2.trashinfo", 1, true},
                                   {"writev", ENOSPC, "2.trashinfo", 1, true}});
        EXPECT_EQ(trashInVain(paths),
                  "Failed to write trash metadata " + inQuotes(record("2")) + ".");
        EXPECT_GT(fault.fired(), 0);
        EXPECT_EQ(takeSnapshot(docs()), before);
        EXPECT_TRUE(fs::is_empty(root() / "files"));
        EXPECT_TRUE(fs::is_empty(root() / "info"));
    }
}

TEST_F(TrashSelection, from_a_folder_that_keeps_its_entries_changes_nothing) {
    doc("locked/a.txt");
    runUnprivileged(sandbox(), [&] {
        fs::permissions(docs() / "locked", fs::perms(0555));
        const Snapshot before = takeSnapshot(docs());
        EXPECT_EQ(trashInVain({docs() / "locked/a.txt"}),
                  "Cannot move " + inQuotes(docs() / "locked/a.txt") + " to " +
                      inQuotes(item("a.txt")) + ": " + systemText(std::errc::permission_denied));
        EXPECT_EQ(takeSnapshot(docs()), before);
        EXPECT_TRUE(fs::is_empty(root() / "files"));
    });
}

TEST_F(TrashSelection, renames_nothing_in_a_way_that_replaces) {
    const std::vector<fs::path> paths = {doc("1"), doc("2")};
    int renames = 0;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        renames += call == "rename" && path.find("docs/") != std::string::npos ? 1 : 0;
    });
    trash(paths);
    EXPECT_EQ(renames, 0);
}

TEST_F(TrashSelection, takes_the_next_name_when_its_own_is_taken_meanwhile) {
    const auto callbacks = whenAsked(2, [&] {
        writeFile(item("2"), "theirs");
        writeFile(item("2 copy 1"), "theirs too");
        return false;
    });
    const auto trashed = trash({link("1", "nowhere"), doc("2", "ours")}, callbacks);
    EXPECT_EQ(readFile(item("2")), "theirs");
    EXPECT_EQ(readFile(item("2 copy 1")), "theirs too");
    EXPECT_FALSE(isPresent(record("2")));
    EXPECT_EQ(trashed[1].TrashPath, item("2 copy 2").string());
    EXPECT_EQ(trashed[1].InfoPath, record("2 copy 2").string());
    EXPECT_EQ(readFile(item("2 copy 2")), "ours");
    EXPECT_EQ(pathLine("2 copy 2"), "Path=" + (docs() / "2").string());
}

TEST_F(TrashSelection, gives_up_when_every_name_is_taken_meanwhile) {
    const fs::path path = doc("a", "ours");
    TavroTransferCallbacks callbacks;
    callbacks.ShouldCancel = [&] {
        writeFile(TavroFreePathBeside(item("a")), "theirs");
        return false;
    };
    EXPECT_EQ(trashInVain({path}, callbacks), "Cannot move " + inQuotes(path) + " to " +
                                                  inQuotes(item("a copy 99")) + ": " +
                                                  systemText(std::errc::file_exists));
    EXPECT_EQ(readFile(path), "ours");
    EXPECT_EQ(readFile(item("a copy 99")), "theirs");
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(TrashSelection, does_not_replace_a_record_that_came_before_the_move) {
    const fs::path path = doc("a");
    const auto callbacks = whenAsked(1, [&] {
        writeFile(record("a"), "theirs");
        return false;
    });
    const auto trashed = trash({path}, callbacks);
    EXPECT_EQ(readFile(record("a")), "theirs");
    EXPECT_FALSE(isPresent(item("a")));
    EXPECT_EQ(trashed[0].TrashPath, item("a copy 1").string());
    EXPECT_EQ(pathLine("a copy 1"), "Path=" + path.string());
}

TEST_F(TrashSelection, does_not_replace_a_record_that_came_after_the_move) {
    const fs::path path = doc("a", "ours");
    bool bCame = false;
    const CallObserver observer([&](const std::string& call, const std::string& of) {
        const bool bCreates = call == "open" || call == "fopen64";
        if (!bCame && bCreates && of == record("a").string()) {
            bCame = true;
            writeFile(record("a"), "theirs");
            writeFile(item("a copy 1"), "theirs too");
        }
    });
    const auto trashed = trash({path});
    EXPECT_TRUE(bCame);
    EXPECT_EQ(readFile(record("a")), "theirs");
    EXPECT_EQ(readFile(item("a copy 1")), "theirs too");
    EXPECT_EQ(trashed[0].TrashPath, item("a copy 2").string());
    EXPECT_EQ(readFile(item("a copy 2")), "ours");
    EXPECT_EQ(pathLine("a copy 2"), "Path=" + path.string());
}

TEST_F(TrashSelection, does_not_claim_what_another_process_trashed_under_the_name) {
    const std::vector<fs::path> paths = {link("1", "nowhere"), doc("2", "ours")};
    const auto callbacks = whenAsked(2, [&] {
        writeFile(item("2"), "theirs");
        return true;
    });
    EXPECT_EQ(trashInVain(paths, callbacks), "Cancelled");
    EXPECT_EQ(readFile(item("2")), "theirs");
    EXPECT_TRUE(fs::is_empty(root() / "info"));
    EXPECT_EQ(readFile(paths[1]), "ours");
}

TEST_F(TrashSelection, writes_records_under_a_closed_umask) {
    runUnprivileged(sandbox(), [&] {
        const fs::path path = doc("a");
        makeDirectory(root().parent_path());
        const ScopedUmask closed(0777);
        trash({path});
        EXPECT_EQ(pathLine("a"), "Path=" + path.string());
    });
}

TEST_F(TrashSelection, tells_its_end_where_nothing_is_copied) {
    std::vector<TavroTransferProgress> told;
    TavroTransferCallbacks callbacks;
    callbacks.OnProgress = [&](const TavroTransferProgress& progress) { told.push_back(progress); };
    trash({doc("1"), doc("2")}, callbacks);
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back().ItemsDone, 2U);
    EXPECT_EQ(told.back().ItemCount, 2U);
    trash({link("3", "nowhere"), doc("4"), doc("5")}, callbacks);
    EXPECT_EQ(told.back().ItemsDone, 3U);
    EXPECT_EQ(told.back().ItemCount, 3U);
}

// -------------------------------------------------------------------------------------------------
// Trashing from another file system
// -------------------------------------------------------------------------------------------------

namespace {

/// A folder on another file system, with a file of 3 MB, a folder and a link in it.
class FarTrash : public PaneTrash {
protected:
    void SetUp() override {
        if (!onDifferentDevices(m_far.path(), sandbox())) {
            GTEST_SKIP() << secondFileSystem << " is no other file system";
        }
        writeFile(far("big.bin"), std::string(3000000, 'b'));
        writeFile(far("folder/inner.txt"), "inner");
        fs::create_symlink("nowhere", far("link"));
    }

    fs::path far(const std::string& name) const {
        return m_far / name;
    }
    const fs::path& farFolder() const {
        return m_far.path();
    }
    std::vector<fs::path> all() const {
        return {far("folder"), far("link"), far("big.bin")};
    }

    /// Collects what is told.
    static TavroTransferCallbacks watch(std::vector<TavroTransferProgress>& told) {
        TavroTransferCallbacks callbacks;
        callbacks.OnProgress = [&told](const TavroTransferProgress& progress) {
            told.push_back(progress);
        };
        return callbacks;
    }

    static void expectOneWhole(const std::vector<TavroTransferProgress>& told) {
        ASSERT_FALSE(told.empty());
        for (std::size_t i = 1; i < told.size(); ++i) {
            EXPECT_GE(told[i].ItemsDone, told[i - 1].ItemsDone);
            EXPECT_GE(told[i].BytesDone, told[i - 1].BytesDone);
            EXPECT_EQ(told[i].ItemCount, told[0].ItemCount);
        }
        EXPECT_EQ(told.back().ItemsDone, 4U);
        EXPECT_EQ(told.back().ItemCount, 4U);
        EXPECT_EQ(told.back().BytesDone, 3000005U);
        EXPECT_EQ(told.back().ByteCount, 3000005U);
    }

private:
    Sandbox m_far{secondFileSystem};
};

using TrashFromAfar = FarTrash;
using RestoreToAfar = FarTrash;

} // namespace

TEST_F(TrashFromAfar, copies_everything_as_it_is_and_removes_it) {
    const auto trashed = trash(all());
    EXPECT_EQ(readFile(item("big.bin")), std::string(3000000, 'b'));
    EXPECT_EQ(readFile(item("folder") / "inner.txt"), "inner");
    EXPECT_EQ(fs::read_symlink(item("link")), "nowhere");
    EXPECT_EQ(pathLine("link"), "Path=" + far("link").string());
    EXPECT_EQ(trashed[1].OriginalPath, far("link").string());
    EXPECT_TRUE(fs::is_empty(farFolder()));
}

TEST_F(TrashFromAfar, counts_the_selection_as_one_whole) {
    std::vector<TavroTransferProgress> told;
    trash(all(), watch(told));
    expectOneWhole(told);
}

TEST_F(TrashFromAfar, that_is_cancelled_is_undone_wherever_that_happens) {
    const Snapshot before = takeSnapshot(farFolder());
    int cancelled = 0;
    for (int time = 1;; ++time) {
        std::vector<TavroTrashEntry> trashed;
        std::string error;
        if (TavroTrashSelection(select(all()), whenAsked(time, [] { return true; }), trashed,
                                error)) {
            break;
        }
        ++cancelled;
        ASSERT_EQ(error, "Cancelled");
        ASSERT_EQ(takeSnapshot(farFolder()), before);
        ASSERT_TRUE(fs::is_empty(root() / "files"));
        ASSERT_TRUE(fs::is_empty(root() / "info"));
    }
    EXPECT_GT(cancelled, 3);
}

TEST_F(TrashFromAfar, that_is_cancelled_while_it_is_measured_changes_nothing) {
    const Snapshot before = takeSnapshot(farFolder());
    bool bNothingYet = false;
    // Cancelling is asked about for each of the four items before the first of them is copied.
    TavroTransferCallbacks callbacks = whenAsked(4, [&] {
        bNothingYet = fs::is_empty(root() / "files");
        return true;
    });
    callbacks.OnProgress = [](const TavroTransferProgress&) { ADD_FAILURE() << "nothing began"; };
    EXPECT_EQ(trashInVain(all(), callbacks), "Cancelled");
    EXPECT_TRUE(bNothingYet);
    EXPECT_EQ(takeSnapshot(farFolder()), before);
}

TEST_F(TrashFromAfar, of_a_folder_that_comes_in_part_can_be_found_in_both_places) {
    fs::permissions(home(), fs::perms(0777));
    runUnprivileged(farFolder(), [&] {
        writeFile(far("folder/secret.txt"), "secret");
        fs::permissions(far("folder/secret.txt"), fs::perms(0));
        const std::string error = trashInVain({far("folder")});
        fs::permissions(far("folder/secret.txt"), fs::perms(0600));
        EXPECT_EQ(readFile(far("folder/secret.txt")), "secret");
        const bool bInTrash = isPresent(item("folder"));
        EXPECT_EQ(bInTrash, isPresent(record("folder")));
        const fs::path inner = bInTrash ? item("folder") / "inner.txt" : far("folder/inner.txt");
        EXPECT_EQ(readFile(inner), "inner");
        const std::string both =
            "; of " + inQuotes(far("folder")) + " there is also " + inQuotes(item("folder"));
        EXPECT_EQ(error.find(both) != std::string::npos, bInTrash) << error;
    });
}

// -------------------------------------------------------------------------------------------------
// Restoring
// -------------------------------------------------------------------------------------------------

TEST_F(RestoreSelection, brings_everything_back_and_drops_the_records) {
    makeDirectory(docs() / "folder");
    doc("a.txt");
    const Snapshot before = takeSnapshot(docs());
    restore(trash({docs() / "a.txt", docs() / "folder"}));
    EXPECT_EQ(takeSnapshot(docs()), before);
    EXPECT_TRUE(fs::is_empty(root() / "files"));
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(RestoreSelection, refuses_an_empty_list) {
    EXPECT_EQ(restoreInVain({}), "No trash entries are available to restore.");
}

TEST_F(RestoreSelection, refuses_two_entries_for_one_place_however_it_is_spelt) {
    auto list = trash({doc("a.txt", "old")});
    list.push_back(trash({doc("a.txt", "new")})[0]);
    const Snapshot before = takeSnapshot(sandbox());
    EXPECT_EQ(restoreInVain(list),
              "Cannot restore two entries to one place: " + (docs() / "a.txt").string());
    fs::create_directory_symlink(docs(), home() / "way");
    list[1].OriginalPath = (home() / "way/a.txt").string();
    EXPECT_EQ(restoreInVain(list),
              "Cannot restore two entries to one place: " + list[1].OriginalPath);
    fs::remove(home() / "way");
    EXPECT_EQ(takeSnapshot(sandbox()), before);
}

TEST_F(RestoreSelection, refuses_one_entry_twice) {
    auto list = trash({doc("a.txt")});
    list.push_back(list[0]);
    list[1].OriginalPath += " again";
    EXPECT_EQ(restoreInVain(list), "Trash item is listed twice: " + item("a.txt").string());
    EXPECT_TRUE(isPresent(item("a.txt")));
}

TEST_F(RestoreSelection, refuses_a_place_that_is_taken_be_it_by_a_dangling_link) {
    const auto list = trash({doc("a.txt"), doc("b.txt")});
    const std::string sentence = "Restore target already exists: " + (docs() / "b.txt").string();
    const std::vector<std::function<void()>> takings = {[&] { doc("b.txt", "other"); },
                                                        [&] { makeDirectory(docs() / "b.txt"); },
                                                        [&] { link("b.txt", "nowhere"); }};
    for (const std::function<void()>& take : takings) {
        take();
        const Snapshot before = takeSnapshot(sandbox());
        EXPECT_EQ(restoreInVain(list), sentence);
        EXPECT_EQ(takeSnapshot(sandbox()), before);
        fs::remove(docs() / "b.txt");
    }
}

TEST_F(RestoreSelection, refuses_an_item_that_is_missing) {
    const auto list = trash({doc("a.txt"), doc("b.txt")});
    fs::remove(item("b.txt"));
    EXPECT_EQ(restoreInVain(list), "Trash item is missing: " + item("b.txt").string());
    EXPECT_TRUE(isPresent(item("a.txt")));
}

TEST_F(RestoreSelection, refuses_a_place_that_is_not_known) {
    const ScopedCurrentDirectory there(docs());
    for (const std::string place : {"", "a.txt"}) {
        auto list = trash({doc("a.txt")});
        list[0].OriginalPath = place;
        EXPECT_EQ(restoreInVain(list),
                  "It is not known where " + inQuotes(list[0].TrashPath) + " came from");
        EXPECT_TRUE(isPresent(list[0].TrashPath));
    }
}

TEST_F(RestoreSelection, says_why_a_place_cannot_be_examined) {
    doc("locked/a.txt");
    runUnprivileged(sandbox(), [&] {
        const auto list = trash({docs() / "locked/a.txt"});
        fs::permissions(docs() / "locked", fs::perms(0));
        EXPECT_EQ(restoreInVain(list), "Failed checking restore target " +
                                           inQuotes(docs() / "locked/a.txt") + ": " +
                                           systemText(std::errc::permission_denied));
        EXPECT_TRUE(isPresent(item("a.txt")));
    });
}

TEST_F(RestoreSelection, brings_links_back_as_links_dangling_or_not) {
    doc("a.txt");
    link("live", docs() / "a.txt");
    link("relative", "a.txt");
    link("dangling", "nowhere");
    const Snapshot before = takeSnapshot(docs());
    restore(trash({docs() / "live", docs() / "dangling", docs() / "relative", docs() / "a.txt"}));
    EXPECT_EQ(takeSnapshot(docs()), before);
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(RestoreSelection, brings_a_folder_back_before_what_was_in_it) {
    doc("folder/a.txt");
    auto list = trash({docs() / "folder/a.txt"});
    list.push_back(trash({docs() / "folder"})[0]);
    restore(list);
    EXPECT_EQ(readFile(docs() / "folder/a.txt"), "bytes");
    EXPECT_TRUE(fs::is_empty(root() / "info"));
}

TEST_F(RestoreSelection, does_not_replace_what_came_back_with_a_folder) {
    doc("folder/a.txt", "old");
    auto list = trash({docs() / "folder/a.txt"});
    doc("folder/a.txt", "new");
    list.insert(list.begin(), trash({docs() / "folder"})[0]);
    const std::string error = restoreInVain(list);
    EXPECT_NE(error.find(inQuotes(docs() / "folder/a.txt")), std::string::npos) << error;
    EXPECT_EQ(readFile(item("a.txt")), "old");
    EXPECT_EQ(readFile(item("folder") / "a.txt"), "new");
    EXPECT_EQ(pathLine("folder"), "Path=" + (docs() / "folder").string());
    EXPECT_EQ(pathLine("a.txt"), "Path=" + (docs() / "folder/a.txt").string());
}

TEST_F(RestoreSelection, that_is_cancelled_at_once_changes_nothing) {
    const auto list = trash({doc("a.txt")});
    const Snapshot before = takeSnapshot(sandbox());
    EXPECT_EQ(restoreInVain(list, whenAsked(1, [] { return true; })), "Cancelled");
    EXPECT_EQ(takeSnapshot(sandbox()), before);
}

TEST_F(RestoreSelection, that_is_cancelled_between_two_moves_goes_back_to_the_trash) {
    const auto list = trash({link("1", "nowhere"), doc("2")});
    bool bHalfWay = false;
    const auto callbacks = whenAsked(2, [&] {
        bHalfWay = isPresent(docs() / "1") && !isPresent(record("1")) && isPresent(item("2"));
        return true;
    });
    EXPECT_EQ(restoreInVain(list, callbacks), "Cancelled");
    EXPECT_TRUE(bHalfWay);
    EXPECT_TRUE(fs::is_empty(docs()));
    EXPECT_EQ(fs::read_symlink(item("1")), "nowhere");
    EXPECT_EQ(pathLine("1"), "Path=" + (docs() / "1").string());
    EXPECT_EQ(pathLine("2"), "Path=" + (docs() / "2").string());
}

TEST_F(RestoreSelection, says_what_stays_restored) {
    const auto list = trash({link("1", "nowhere"), doc("2")});
    const auto callbacks = whenAsked(2, [&] {
        fs::remove_all(root() / "files");
        writeFile(root() / "files", "a file in the way");
        return true;
    });
    const std::string error = restoreInVain(list, callbacks);
    const std::string end = "; " + inQuotes(docs() / "1") + " stays restored";
    EXPECT_EQ(error.rfind("Cancelled Rollback failed: ", 0), 0U) << error;
    ASSERT_GE(error.size(), end.size());
    EXPECT_EQ(error.substr(error.size() - end.size()), end);
    EXPECT_EQ(fs::read_symlink(docs() / "1"), "nowhere");
}

TEST_F(RestoreSelection, says_where_that_came_from_which_lost_its_record) {
    const auto list = trash({link("1", "nowhere"), doc("2")});
    const FaultInjector fault({{"fopen64", ENOSPC, "1.trashinfo", 1, true}});
    const auto callbacks = whenAsked(2, [] { return true; });
    EXPECT_EQ(restoreInVain(list, callbacks), "Cancelled; " + inQuotes(item("1")) +
                                                  " has no record now and came from " +
                                                  inQuotes(docs() / "1"));
    EXPECT_GT(fault.fired(), 0);
    EXPECT_TRUE(isPresent(item("1")));
}

TEST_F(RestoreSelection, renames_nothing_in_a_way_that_replaces) {
    const auto list = trash({doc("1"), doc("2")});
    int renames = 0;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        renames += call == "rename" && path.find("files/") != std::string::npos ? 1 : 0;
    });
    restore(list);
    EXPECT_EQ(renames, 0);
}

TEST_F(RestoreSelection, neither_replaces_nor_claims_what_came_to_an_original_place_meanwhile) {
    const auto list = trash({doc("1"), link("2", "nowhere")});
    const auto callbacks = whenAsked(2, [&] {
        writeFile(docs() / "2", "theirs");
        return false;
    });
    EXPECT_EQ(restoreInVain(list, callbacks), "Cannot move " + inQuotes(item("2")) + " to " +
                                                  inQuotes(docs() / "2") + ": " +
                                                  systemText(std::errc::file_exists));
    EXPECT_EQ(readFile(docs() / "2"), "theirs");
    EXPECT_EQ(fs::read_symlink(item("2")), "nowhere");
    EXPECT_FALSE(isPresent(docs() / "1"));
    EXPECT_EQ(pathLine("1"), "Path=" + (docs() / "1").string());
}

TEST_F(RestoreToAfar, brings_everything_back_with_one_progress) {
    const Snapshot before = takeSnapshot(farFolder());
    const auto list = trash(all());
    std::vector<TavroTransferProgress> told;
    restore(list, watch(told));
    EXPECT_EQ(takeSnapshot(farFolder()), before);
    EXPECT_TRUE(fs::is_empty(root() / "files"));
    EXPECT_TRUE(fs::is_empty(root() / "info"));
    expectOneWhole(told);
}

TEST_F(RestoreToAfar, tells_the_progress_of_a_single_file) {
    const auto list = trash({far("big.bin")});
    std::vector<TavroTransferProgress> told;
    restore(list, watch(told));
    EXPECT_EQ(readFile(far("big.bin")), std::string(3000000, 'b'));
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back().BytesDone, 3000000U);
    EXPECT_EQ(told.back().ByteCount, 3000000U);
}

TEST_F(RestoreToAfar, brings_a_link_that_was_taken_for_a_file_back_as_a_link) {
    writeFile(far("target"), "target");
    fs::create_symlink(far("target"), far("live"));
    auto list = trash({far("live")});
    list[0].bDirectory = false;
    restore(list);
    EXPECT_EQ(fs::read_symlink(far("live")), far("target"));
    EXPECT_FALSE(isPresent(item("live")));
}

TEST_F(RestoreToAfar, that_is_cancelled_leaves_everything_in_the_trash) {
    const auto list = trash(all());
    const Snapshot before = takeSnapshot(root() / "files");
    int cancelled = 0;
    for (int time = 1;; ++time) {
        std::string error;
        if (TavroRestoreSelection(list, whenAsked(time, [] { return true; }), error)) {
            break;
        }
        ++cancelled;
        ASSERT_EQ(error, "Cancelled");
        ASSERT_EQ(takeSnapshot(root() / "files"), before);
        ASSERT_TRUE(fs::is_empty(farFolder()));
        ASSERT_EQ(pathLine("folder"), "Path=" + far("folder").string());
    }
    EXPECT_GT(cancelled, 3);
}
