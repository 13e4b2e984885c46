// Carrying out copies and moves: what arrives, what is kept, what is asked, and that nothing is
// lost when it is cancelled, fails, or the world changes meanwhile.

#include "transfer.h"

#include "no_replace.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <map>
#include <optional>
#include <random>
#include <sched.h>
#include <set>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

// =================================================================================================
// Calls that a test can watch or fail
// =================================================================================================

namespace {

/// Called before the real call; a number other than 0 fails it with that errno instead.
using Hook = std::function<int(const std::string& path)>;
Hook g_onRenameAt2;
Hook g_onSyncFs;
Hook g_onUnlink;

bool isFailedBy(const Hook& hook, const char* path) {
    const int error = hook ? hook(path) : 0;
    errno = error != 0 ? error : errno;
    return error != 0;
}

/// While it lives, a hook is set.
class ScopedHook {
public:
    ScopedHook(Hook& place, Hook hook) : m_place(place) {
        m_place = std::move(hook);
    }
    ~ScopedHook() {
        m_place = nullptr;
    }
    ScopedHook(const ScopedHook&) = delete;
    ScopedHook& operator=(const ScopedHook&) = delete;

private:
    Hook& m_place;
};

} // namespace

// NOLINTBEGIN: the C library's own names and signatures
extern "C" {

int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
              unsigned flags) noexcept {
    if (isFailedBy(g_onRenameAt2, to)) {
        return -1;
    }
    static const auto real = reinterpret_cast<decltype(&renameat2)>(dlsym(RTLD_NEXT, "renameat2"));
    return real(fromDirectory, from, toDirectory, to, flags);
}

int syncfs(int descriptor) noexcept {
    if (isFailedBy(g_onSyncFs, "")) {
        return -1;
    }
    static const auto real = reinterpret_cast<decltype(&syncfs)>(dlsym(RTLD_NEXT, "syncfs"));
    return real(descriptor);
}

int unlink(const char* path) noexcept {
    if (isFailedBy(g_onUnlink, path)) {
        return -1;
    }
    static const auto real = reinterpret_cast<decltype(&unlink)>(dlsym(RTLD_NEXT, "unlink"));
    return real(path);
}

} // extern "C"
// NOLINTEND

namespace {

// =================================================================================================
// Making and describing entries
// =================================================================================================

constexpr std::size_t mebibyte = std::size_t{1} << 20U;

/// Bytes that differ from place to place, so that a block in the wrong place shows.
std::string bytesOf(std::size_t size, unsigned seed = 1) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; i += 64) {
        const std::string word = std::to_string(random());
        bytes.replace(i, std::min(word.size(), size - i), word, 0, std::min(word.size(), size - i));
    }
    return bytes;
}

struct stat statusOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
    return status;
}

void setTimes(const fs::path& path, long seconds, long nanoseconds) {
    const struct timespec times[2] = {{seconds + 7, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
}

std::string timesOf(const struct stat& status) {
    return std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

std::string hexOf(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += {"0123456789abcdef"[value >> 4U], "0123456789abcdef"[value & 15U]};
    }
    return text;
}

/// The extended attributes of an entry, access control lists among them.
std::string extendedAttributesOf(const fs::path& path) {
    std::vector<char> names(65536);
    const ssize_t size = llistxattr(path.c_str(), names.data(), names.size());
    std::set<std::string> rows;
    for (ssize_t i = 0; i < size;) {
        const std::string name = names.data() + i;
        std::string value(65536, '\0');
        const ssize_t length = lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
        value.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        rows.insert(" " + name + "=" + hexOf(value));
        i += static_cast<ssize_t>(name.size()) + 1;
    }
    std::string text;
    for (const std::string& row : rows) {
        text += row;
    }
    return text;
}

/// Mode, owner, times and extended attributes of every entry of a tree, and which of its names are
/// the same file.
std::map<std::string, std::string> attributesOfTree(const fs::path& root) {
    std::map<std::string, std::string> rows;
    std::map<ino_t, std::string> firstNames;
    for (const auto& [name, what] : takeSnapshot(root)) {
        const fs::path path = name == "." ? root : root / name;
        const struct stat status = statusOf(path);
        const std::string first =
            S_ISDIR(status.st_mode) ? name : firstNames.emplace(status.st_ino, name).first->second;
        rows[name] = what + " owner " + std::to_string(status.st_uid) + ":" +
                     std::to_string(status.st_gid) + " time " + timesOf(status) + " file " + first +
                     extendedAttributesOf(path);
    }
    return rows;
}

bool setAttribute(const fs::path& path, const std::string& name, const std::string& value) {
    return lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) == 0;
}

/// An access control list that lets in one more user, in the kernel's own form.
std::string listLettingIn(std::uint32_t user) {
    struct Row {
        std::uint16_t tag;
        std::uint16_t permissions;
        std::uint32_t id;
    };
    constexpr auto nobody = static_cast<std::uint32_t>(-1);
    const Row rows[] = {{0x01, 6, nobody},
                        {0x02, 6, user},
                        {0x04, 4, nobody},
                        {0x10, 6, nobody},
                        {0x20, 4, nobody}};
    std::string bytes("\2\0\0\0", 4);
    return bytes.append(reinterpret_cast<const char*>(rows), sizeof rows);
}

void bindSocket(const fs::path& path) {
    const ScopedCurrentDirectory directory(path.parent_path()); // the address is short
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.filename().c_str());
    const int number = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(0, bind(number, reinterpret_cast<struct sockaddr*>(&address), sizeof address));
    close(number);
}

std::string withoutPrefix(std::string text, const std::string& prefix) {
    for (std::size_t at = text.find(prefix); at != std::string::npos; at = text.find(prefix)) {
        text.erase(at, prefix.size());
    }
    return text;
}

/// The hidden names of six characters, which differ from run to run, as one.
std::string withoutHiddenName(std::string text) {
    for (std::size_t at = text.find(".tavro-"); at != std::string::npos;
         at = text.find(".tavro-", at + 1)) {
        text.replace(at, 13, ".tavro-XXXXXX");
    }
    return text;
}

// =================================================================================================
// Transfers in a sandbox
// =================================================================================================

class TransferTest : public testing::Test {
protected:
    TransferTest() {
        makeDirectory(source());
        makeDirectory(target());
    }

    fs::path source(const std::string& name = "") const {
        return name.empty() ? m_box / "source" : m_box / "source" / name;
    }
    fs::path target(const std::string& name = "") const {
        return name.empty() ? m_target : m_target / name;
    }

    /// From now on the target is on another file system.
    bool targetElsewhere() {
        if (!fs::is_directory(secondFileSystem) ||
            !onDifferentDevices(secondFileSystem, m_box.path())) {
            return false;
        }
        m_other.emplace(secondFileSystem);
        m_target = *m_other / "target";
        makeDirectory(m_target);
        return true;
    }

    void add(const std::string& from, const std::string& to) {
        TavroTransferItemPlan item;
        item.Name = fs::path(from).filename().string();
        item.SourcePath = source(from);
        item.DestinationPath = target(to);
        m_plan.Items.push_back(item);
    }

    /// Carries out what was added; each name goes to the same name of the target.
    bool run(bool bMove, const std::vector<std::string>& names = {}) {
        for (const std::string& name : names) {
            add(name, name);
        }
        m_plan.bMove = bMove;
        const bool bDone = TavroCarryOutTransfer(m_plan, m_callbacks, m_report);
        EXPECT_EQ(m_report.Failed.empty() && !m_report.bCancelled, bDone);
        m_plan.Items.clear();
        return bDone;
    }
    bool copy(const std::vector<std::string>& names = {}) {
        return run(false, names);
    }
    bool move(const std::vector<std::string>& names = {}) {
        return run(true, names);
    }

    /// The whole report as text, with paths below the sandboxes only.
    std::string report() const {
        std::string text;
        for (const TavroTransferredEntry& entry : m_report.Done) {
            text += "done " + entry.From.string() + " -> " + entry.To.string() +
                    (entry.bReplaced ? " replaced\n" : "\n");
        }
        for (const fs::path& path : m_report.Skipped) {
            text += "skipped " + path.string() + "\n";
        }
        for (const TavroTransferFailure& failure : m_report.Failed) {
            text += "failed " + failure.Path.string() + ": " + failure.Reason + "\n";
        }
        text += m_report.bCancelled ? "cancelled\n" : "";
        return shortened(text);
    }
    std::string shortened(std::string text) const {
        text = withoutPrefix(text, m_box.path().string());
        return withoutHiddenName(m_other ? withoutPrefix(text, m_other->path().string()) : text);
    }

    /// What a transfer has left behind under a hidden name.
    std::string debris() const {
        std::string text;
        for (const fs::path& root : {m_box.path(), m_target}) {
            constexpr auto skip = fs::directory_options::skip_permission_denied;
            for (const auto& entry : fs::recursive_directory_iterator(root, skip)) {
                const std::string name = entry.path().filename().string();
                text += name.rfind(".tavro-", 0) == 0 ? entry.path().string() + "\n" : "";
            }
        }
        return text;
    }

    void answer(TavroConflictChoice choice, bool bForAll = false) {
        m_callbacks.OnConflict = [=](const TavroTransferConflict& conflict) {
            m_asked += shortened(conflict.SourcePath.string() + " -> " +
                                 conflict.DestinationPath.string()) +
                       (conflict.bSourceDirectory ? " directory" : "") +
                       (conflict.bDestinationDirectory ? " onto directory\n" : "\n");
            return TavroConflictAnswer{choice, bForAll};
        };
    }

    /// Calls `action` once in the middle of the copying of a file that is larger than one block;
    /// true cancels.
    void inTheMiddle(const std::function<bool()>& action) {
        m_callbacks.ShouldCancel = [this, action] {
            if (m_bMiddleSeen || !isHalfWritten()) {
                return false;
            }
            m_bMiddleSeen = true;
            return action();
        };
    }
    bool isHalfWritten() const {
        for (const fs::directory_entry& entry : fs::directory_iterator(m_target)) {
            const bool bHidden = entry.path().filename().string().rfind(".tavro-", 0) == 0;
            if (bHidden && entry.is_regular_file() && entry.file_size() > 0) {
                return true;
            }
        }
        return false;
    }

    Sandbox m_box;
    std::optional<Sandbox> m_other;
    fs::path m_target = m_box / "target";
    TavroTransferPlan m_plan;
    TavroTransferCallbacks m_callbacks;
    TavroTransferReport m_report;
    std::string m_asked;
    bool m_bMiddleSeen = false;
};

#define TARGET_ELSEWHERE()                                                                         \
    if (!targetElsewhere())                                                                        \
    GTEST_SKIP() << "there is no second file system at " << secondFileSystem

void makeSmallTree(const fs::path& tree) {
    writeFile(tree / "a", "first");
    writeFile(tree / "sub/b", "second");
    writeFile(tree / "sub/deeper/c");
    makeDirectory(tree / "empty");
    fs::create_symlink("sub/b", tree / "link");
    fs::create_symlink("nowhere", tree / "dangling");
    fs::create_symlink("sub", tree / "to directory");
    fs::create_symlink("/proc/self", tree / "absolute");
    makeFifo(tree / "pipe");
}

// =================================================================================================
// What arrives
// =================================================================================================

using CarryOutTransfer = TransferTest;

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

TEST_F(CarryOutTransfer, copies_single_links_and_pipes_without_following_them) {
    makeDirectory(source("folder"));
    fs::create_symlink("nowhere", source("dangling"));
    fs::create_symlink("folder", source("to directory"));
    makeFifo(source("pipe"));
    const Snapshot before = takeSnapshot(source());
    EXPECT_TRUE(copy({"dangling", "folder", "pipe", "to directory"}));
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
              "failed /source/socket: A socket is not copied: '/source/socket'\n",
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
    EXPECT_EQ("failed /source/tree/sub/socket: A socket is not copied: '/source/tree/sub/socket'\n",
              report());
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
    EXPECT_EQ("failed /source/null: A device is not copied: '/source/null'\n", report());
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(CarryOutTransfer, refuses_audio_tracks_by_one_sentence) {
    TavroTransferItemPlan item;
    item.SourcePath = "cdda://1/Track 01.cdda";
    item.DestinationPath = target("Track 01.wav");
    m_plan.Items = {item};
    EXPECT_FALSE(copy());
    EXPECT_EQ("failed cdda://1/Track 01.cdda: Cannot read audio CD track "
              "'cdda://1/Track 01.cdda': this build reads no discs\n",
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
    EXPECT_EQ("failed /source/file: Cannot create the folder '/target/taken': " +
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
    EXPECT_EQ("done file -> copy of file\n", report());
}

TEST_F(CarryOutTransfer, one_bad_item_does_not_stop_the_others) {
    writeFile(source("a"), "1");
    writeFile(source("c"), "3");
    for (const bool bMove : {false, true}) {
        EXPECT_FALSE(run(bMove, {"a", "b", "c"}));
        EXPECT_EQ("done /source/a -> /target/a\ndone /source/c -> /target/c\n"
                  "failed /source/b: Cannot read '/source/b': " +
                      systemText(std::errc::no_such_file_or_directory) + "\n",
                  report());
        fs::remove_all(target());
    }
}

TEST_F(CarryOutTransfer, a_deep_tree_needs_few_open_files) {
    fs::path deepest = source("tree");
    for (int i = 0; i < 60; ++i) {
        deepest /= "d";
    }
    writeFile(deepest / "file", "bytes");
    runInChild([&] {
        const struct rlimit few = {40, 40};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
        EXPECT_TRUE(copy({"tree"}));
        EXPECT_EQ("done /source/tree -> /target/tree\n", report());
    });
    const Snapshot arrived = takeSnapshot(target());
    EXPECT_EQ(takeSnapshot(source()), arrived);
}

// =================================================================================================
// What is kept
// =================================================================================================

TEST_F(CarryOutTransfer, keeps_modes_and_times_of_files_folders_and_links) {
    makeSmallTree(source("tree"));
    fs::permissions(source("tree/a"), static_cast<fs::perms>(06751));
    fs::permissions(source("tree/sub/b"), static_cast<fs::perms>(0400));
    fs::permissions(source("tree/empty"), static_cast<fs::perms>(03775));
    fs::permissions(source("tree/pipe"), static_cast<fs::perms>(0622));
    fs::permissions(source("tree/sub/deeper"), static_cast<fs::perms>(0555));
    long seconds = 1000000000;
    for (const char* name : {"a", "sub/b", "sub/deeper/c", "sub/deeper", "sub", "empty", "link",
                             "dangling", "pipe", "."}) {
        ++seconds;
        setTimes(source("tree") / name, seconds, 123456789 + seconds % 1000);
    }
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
    EXPECT_EQ(before, attributesOfTree(source("tree")));
    if (targetElsewhere()) {
        fs::permissions(source("tree/sub/deeper"), static_cast<fs::perms>(0755));
        setTimes(source("tree/sub/deeper"), 5, 5);
        const auto now = attributesOfTree(source("tree"));
        EXPECT_TRUE(move({"tree"})) << report();
        EXPECT_EQ(now, attributesOfTree(target("tree")));
    }
}

TEST_F(CarryOutTransfer, the_umask_does_not_matter) {
    makeSmallTree(source("tree"));
    runUnprivileged(m_box.path(), [&] {
        const auto before = attributesOfTree(source("tree"));
        umask(0777);
        EXPECT_TRUE(copy({"tree"})) << report();
        EXPECT_EQ(before, attributesOfTree(target("tree")));
    });
}

TEST_F(CarryOutTransfer, keeps_times_before_1970) {
    writeFile(source("old"), "bytes");
    setTimes(source("old"), -86400, 999999999);
    EXPECT_TRUE(copy({"old"}));
    EXPECT_EQ("-86400.999999999", timesOf(statusOf(target("old"))));
}

TEST_F(CarryOutTransfer, keeps_the_access_time) {
    writeFile(source("file"), "bytes");
    setTimes(source("file"), 1000000000, 42);
    EXPECT_TRUE(copy({"file"}));
    EXPECT_EQ(1000000007, statusOf(target("file")).st_atim.tv_sec);
    EXPECT_EQ(42, statusOf(target("file")).st_atim.tv_nsec);
}

TEST_F(CarryOutTransfer, keeps_extended_attributes) {
    makeSmallTree(source("tree"));
    const std::string allBytes("\0\1\377=\n", 5);
    if (!setAttribute(source("tree/a"), "user.tavro", allBytes) ||
        !setAttribute(source("tree/sub"), "user.other", std::string(1000, 'v'))) {
        GTEST_SKIP() << "this file system holds no extended attributes";
    }
    ASSERT_TRUE(setAttribute(source("tree/a"), "user.empty", ""));
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
}

TEST_F(CarryOutTransfer, keeps_access_control_lists) {
    makeSmallTree(source("tree"));
    if (!setAttribute(source("tree/a"), "system.posix_acl_access", listLettingIn(12345)) ||
        !setAttribute(source("tree/sub"), "system.posix_acl_default", listLettingIn(23456))) {
        GTEST_SKIP() << "this file system holds no access control lists";
    }
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
}

TEST_F(CarryOutTransfer, what_has_no_access_control_list_takes_none_over_from_the_target) {
    makeSmallTree(source("tree"));
    if (!setAttribute(target(), "system.posix_acl_default", listLettingIn(12345))) {
        GTEST_SKIP() << "this file system holds no access control lists";
    }
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
}

TEST_F(CarryOutTransfer, keeps_the_owner_for_root) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root may give files away";
    }
    makeSmallTree(source("tree"));
    ASSERT_EQ(0, lchown(source("tree/a").c_str(), 1234, 2345));
    ASSERT_EQ(0, lchown(source("tree/sub").c_str(), 3456, 4567));
    ASSERT_EQ(0, lchown(source("tree/link").c_str(), 5678, 6789));
    ASSERT_EQ(0, chmod(source("tree/a").c_str(), 06755));
    const auto before = attributesOfTree(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
}

TEST_F(CarryOutTransfer, keeps_the_capabilities_of_a_program_of_somebody_else) {
    writeFile(source("program"), "bytes");
    // The kernel's own form, version 2: may bind to low ports.
    const std::string capability("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
    if (lchown(source("program").c_str(), 1234, 1234) != 0 ||
        !setAttribute(source("program"), "security.capability", capability)) {
        GTEST_SKIP() << "only root may give files away and set capabilities";
    }
    const auto before = attributesOfTree(source("program"));
    EXPECT_TRUE(copy({"program"}));
    EXPECT_EQ(before, attributesOfTree(target("program")));
}

TEST_F(CarryOutTransfer, drops_set_user_and_set_group_when_the_owner_cannot_be_kept) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can make a file of somebody else";
    }
    writeFile(source("program"), "bytes");
    runUnprivileged(target(), [&] {});
    fs::permissions(source("program"), static_cast<fs::perms>(06755));
    runUnprivileged(target(), [&] {
        EXPECT_TRUE(copy({"program"}));
        EXPECT_EQ("done /source/program -> /target/program\n", report());
    });
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0755), statusOf(target("program")).st_mode);
}

TEST_F(CarryOutTransfer, keeps_hard_links_within_and_across_items) {
    makeSmallTree(source("tree"));
    fs::create_hard_link(source("tree/a"), source("tree/sub/a again"));
    fs::create_hard_link(source("tree/a"), source("z"));
    const auto before = attributesOfTree(source());
    EXPECT_TRUE(copy({"tree", "z"}));
    EXPECT_EQ(3U, statusOf(target("z")).st_nlink);
    auto after = attributesOfTree(target());
    after["."] = before.at(".");
    EXPECT_EQ(before, after);
}

TEST_F(CarryOutTransfer, keeps_hard_links_of_links_and_pipes) {
    makeDirectory(source("t"));
    fs::create_symlink("nowhere", source("t/link"));
    makeFifo(source("t/pipe"));
    ASSERT_EQ(0, link(source("t/link").c_str(), source("t/link again").c_str()));
    ASSERT_EQ(0, link(source("t/pipe").c_str(), source("t/pipe again").c_str()));
    EXPECT_TRUE(copy({"t"}));
    EXPECT_EQ(attributesOfTree(source("t")), attributesOfTree(target("t")));
}

TEST_F(CarryOutTransfer, keeps_hard_links_across_items_of_a_move_between_file_systems) {
    TARGET_ELSEWHERE();
    writeFile(source("a"), bytesOf(100000));
    fs::create_hard_link(source("a"), source("b"));
    fs::create_hard_link(source("a"), source("c"));
    EXPECT_TRUE(move({"a", "b", "c"}));
    EXPECT_EQ(3U, statusOf(target("a")).st_nlink);
    EXPECT_EQ(bytesOf(100000), readFile(target("c")));
    EXPECT_TRUE(fs::is_empty(source()));
}

TEST_F(CarryOutTransfer, links_to_no_copy_that_somebody_replaced) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        fs::remove(source("other name of a"));
        writeFile(source("a"), "of a");
        fs::create_hard_link(source("a"), source("other name of a"));
        writeFile(target("x"), "of x");
        add("a", "place");
        add("other name of a", "second");
        m_callbacks.ShouldCancel = [&] {
            if (isPresent(target("place")) && isPresent(target("x"))) {
                fs::rename(target("x"), target("place"));
            }
            return false;
        };
        EXPECT_TRUE(run(bElsewhere));
        EXPECT_EQ("of x", readFile(target("place")));
        EXPECT_EQ("of a", readFile(target("second")));
    }
}

TEST_F(CarryOutTransfer, links_to_no_copy_that_somebody_changed) {
    writeFile(source("a"), "of a");
    fs::create_hard_link(source("a"), source("b"));
    m_callbacks.ShouldCancel = [&] {
        if (isPresent(target("a")) && fs::file_size(target("a")) == 4) {
            writeFile(target("a"), "changed");
        }
        return false;
    };
    EXPECT_TRUE(copy({"a", "b"}));
    EXPECT_EQ("changed", readFile(target("a")));
    EXPECT_EQ("of a", readFile(target("b")));
}

TEST_F(CarryOutTransfer, links_no_name_to_a_copy_that_was_given_up) {
    writeFile(source("tree/a"), "bytes");
    fs::create_hard_link(source("tree/a"), source("z"));
    TARGET_ELSEWHERE();
    bindSocket(source("tree/socket"));
    EXPECT_FALSE(move({"tree", "z"}));
    EXPECT_EQ("bytes", readFile(target("z")));
    EXPECT_EQ(1U, statusOf(target("z")).st_nlink);
    EXPECT_EQ("bytes", readFile(source("tree/a")));
    EXPECT_EQ("", debris());
}

// =================================================================================================
// Conflicts
// =================================================================================================

/// A file and a folder on both sides.
class TransferConflicts : public TransferTest {
protected:
    TransferConflicts() {
        writeFile(source("file"), "new");
        writeFile(target("file"), "old");
        writeFile(source("tree/both"), "new in tree");
        writeFile(target("tree/both"), "old in tree");
        writeFile(source("tree/only here"), "1");
        writeFile(target("tree/only there"), "2");
        writeFile(source("kind"), "a file");
        writeFile(target("kind/inside"), "of a folder");
        makeDirectory(source("other kind"));
        writeFile(source("other kind/inside"), "of the new folder");
        writeFile(target("other kind"), "an old file");
    }
};

TEST_F(TransferConflicts, without_anybody_to_ask_conflicts_are_skipped) {
    const Snapshot there = takeSnapshot(target("file"));
    for (const bool bMove : {false, true}) {
        EXPECT_TRUE(run(bMove, {"file", "kind", "other kind"}));
        EXPECT_EQ("skipped /source/file\nskipped /source/kind\nskipped /source/other kind\n",
                  report());
        EXPECT_EQ("new", readFile(source("file")));
    }
    EXPECT_EQ(there, takeSnapshot(target("file")));
}

TEST_F(TransferConflicts, under_skip_nobody_is_asked) {
    answer(TavroConflictChoice::Overwrite);
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Skip;
    EXPECT_TRUE(copy({"file", "kind", "tree"}));
    EXPECT_EQ("", m_asked);
    EXPECT_EQ("done /source/tree/only here -> /target/tree/only here\n"
              "skipped /source/file\nskipped /source/kind\nskipped /source/tree/both\n",
              report());
}

TEST_F(TransferConflicts, overwrite_replaces_files_and_merges_folders) {
    answer(TavroConflictChoice::Stop);
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(copy({"file", "tree"}));
    EXPECT_EQ("", m_asked);
    EXPECT_EQ("new", readFile(target("file")));
    EXPECT_EQ("new in tree", readFile(target("tree/both")));
    EXPECT_EQ("1", readFile(target("tree/only here")));
    EXPECT_EQ("2", readFile(target("tree/only there")));
    EXPECT_EQ("new", readFile(source("file")));
}

TEST_F(TransferConflicts, overwrite_asks_before_a_folder_and_something_else_replace_each_other) {
    answer(TavroConflictChoice::Skip);
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(copy({"kind", "other kind"}));
    EXPECT_EQ("/source/kind -> /target/kind onto directory\n"
              "/source/other kind -> /target/other kind directory\n",
              m_asked);
    EXPECT_EQ("of a folder", readFile(target("kind/inside")));
    EXPECT_EQ("an old file", readFile(target("other kind")));
}

TEST_F(TransferConflicts, a_folder_and_something_else_replace_each_other_when_so_answered) {
    for (const bool bMove : {false, true}) {
        fs::remove_all(target());
        writeFile(target("kind/inside"), "of a folder");
        writeFile(target("other kind"), "an old file");
        answer(TavroConflictChoice::Overwrite);
        EXPECT_TRUE(run(bMove, {"kind", "other kind"}));
        EXPECT_EQ("done /source/kind -> /target/kind replaced\n"
                  "done /source/other kind -> /target/other kind replaced\n",
                  report());
        EXPECT_EQ("a file", readFile(target("kind")));
        EXPECT_EQ("of the new folder", readFile(target("other kind/inside")));
        EXPECT_EQ(!bMove, isPresent(source("kind")));
        EXPECT_EQ(!bMove, isPresent(source("other kind")));
        EXPECT_EQ("", debris());
    }
}

TEST_F(TransferConflicts, a_folder_and_something_else_replace_each_other_between_file_systems) {
    TARGET_ELSEWHERE();
    writeFile(target("kind/inside"), "of a folder");
    writeFile(target("other kind"), "an old file");
    answer(TavroConflictChoice::Overwrite);
    EXPECT_TRUE(move({"kind", "other kind"}));
    EXPECT_EQ("a file", readFile(target("kind")));
    EXPECT_EQ("of the new folder", readFile(target("other kind/inside")));
    EXPECT_FALSE(isPresent(source("kind")));
    EXPECT_FALSE(isPresent(source("other kind")));
    EXPECT_EQ("", debris());
}

TEST_F(TransferConflicts, what_could_not_be_replaced_is_back_in_its_place) {
    makeDirectory(source("other kind"));
    bindSocket(source("other kind/socket"));
    TARGET_ELSEWHERE();
    writeFile(target("other kind"), "an old file");
    answer(TavroConflictChoice::Overwrite);
    EXPECT_FALSE(move({"other kind"}));
    EXPECT_EQ("an old file", readFile(target("other kind")));
    EXPECT_EQ("of the new folder", readFile(source("other kind/inside")));
    EXPECT_EQ("", debris());
}

TEST_F(TransferConflicts, what_could_not_be_put_back_is_named) {
    answer(TavroConflictChoice::Overwrite);
    const ScopedHook hook(g_onRenameAt2, [&](const std::string& to) {
        return to == target("other kind").string() ? EIO : 0;
    });
    EXPECT_FALSE(move({"other kind"}));
    const std::string error = systemText(std::errc::io_error);
    EXPECT_EQ("failed /source/other kind: Cannot move '/source/other kind' to "
              "'/target/other kind': " +
                  error +
                  "\nfailed /target/other kind: What was at '/target/other kind' lies at "
                  "'/target/.tavro-XXXXXX': " +
                  error + "\n",
              report());
    EXPECT_EQ("of the new folder", readFile(source("other kind/inside")));
}

TEST_F(TransferConflicts, what_was_replaced_stays_aside_until_the_new_has_reached_the_disk) {
    answer(TavroConflictChoice::Overwrite);
    const ScopedHook hook(g_onSyncFs, [](const std::string&) { return EIO; });
    EXPECT_FALSE(copy({"other kind"}));
    EXPECT_EQ("done /source/other kind -> /target/other kind replaced\n"
              "failed /target/other kind: What was at '/target/other kind' was replaced, but "
              "cannot be removed; it lies at '/target/.tavro-XXXXXX': " +
                  systemText(std::errc::io_error) + "\n",
              report());
    EXPECT_NE("", debris());
}

TEST_F(TransferConflicts, each_answer_to_each_conflict) {
    answer(TavroConflictChoice::Overwrite);
    EXPECT_TRUE(copy({"file"}));
    EXPECT_EQ("/source/file -> /target/file\n", m_asked);
    EXPECT_EQ("done /source/file -> /target/file replaced\n", report());
    EXPECT_EQ("new", readFile(target("file")));

    writeFile(target("file"), "old");
    answer(TavroConflictChoice::Skip);
    EXPECT_TRUE(copy({"file"}));
    EXPECT_EQ("skipped /source/file\n", report());
    EXPECT_EQ("old", readFile(target("file")));

    answer(TavroConflictChoice::Stop);
    EXPECT_FALSE(copy({"file", "tree"}));
    EXPECT_EQ("cancelled\n", report());
    EXPECT_EQ("old", readFile(target("file")));
    EXPECT_FALSE(isPresent(target("tree/only here")));
}

TEST_F(TransferConflicts, keeping_both_goes_to_a_free_name_and_says_so_in_the_plan) {
    writeFile(source("a.txt"), "new");
    writeFile(target("a.txt"), "old");
    writeFile(target("a copy 1.txt"), "older");
    fs::create_symlink("nowhere", target("a copy 2.txt"));
    add("a.txt", "a.txt");
    answer(TavroConflictChoice::KeepBoth);
    for (const bool bMove : {false, true}) {
        m_plan.bMove = bMove;
        m_plan.Items.front().DestinationPath = target("a.txt");
        EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
        const fs::path free = target(bMove ? "a copy 4.txt" : "a copy 3.txt");
        EXPECT_EQ(free, m_plan.Items.front().DestinationPath);
        EXPECT_TRUE(m_plan.Items.front().bDestinationRenamed);
        EXPECT_EQ("new", readFile(free));
    }
    EXPECT_EQ("old", readFile(target("a.txt")));
    EXPECT_FALSE(isPresent(source("a.txt")));
    EXPECT_EQ("done /source/a.txt -> /target/a copy 4.txt\n", report());
}

TEST_F(TransferConflicts, keeping_both_inside_a_merge_does_not_rename_the_item) {
    add("tree", "tree");
    answer(TavroConflictChoice::KeepBoth);
    EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
    EXPECT_EQ(target("tree"), m_plan.Items.front().DestinationPath);
    EXPECT_FALSE(m_plan.Items.front().bDestinationRenamed);
    EXPECT_EQ("old in tree", readFile(target("tree/both")));
    EXPECT_EQ("new in tree", readFile(target("tree/both copy 1")));
}

TEST_F(TransferConflicts, what_a_transfer_has_put_somewhere_is_not_replaced_by_it) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        for (const bool bMove : {false, true}) {
            for (const bool bAsk : {false, true}) {
                fs::remove_all(target("x"));
                fs::remove_all(target("folder"));
                writeFile(source("1/x"), "x of 1");
                writeFile(source("2/x"), "x of 2");
                writeFile(source("1/folder/in/y"), "y of 1");
                writeFile(source("2/folder/in/y"), "y of 2");
                for (const char* name : {"x", "folder"}) {
                    add(std::string("1/") + name, name);
                    add(std::string("2/") + name, name);
                }
                m_plan.ConflictPolicy = bAsk ? TavroTransferConflictPolicy::Ask
                                             : TavroTransferConflictPolicy::Overwrite;
                answer(TavroConflictChoice::Overwrite);
                EXPECT_FALSE(run(bMove));
                EXPECT_EQ("done /source/1/x -> /target/x\n"
                          "done /source/1/folder -> /target/folder\n"
                          "failed /source/2/x: Cannot replace '/target/x': it was put there by "
                          "this transfer\n"
                          "failed /source/2/folder/in/y: Cannot replace '/target/folder/in/y': it "
                          "was put there by this transfer\n",
                          report());
                EXPECT_EQ("x of 1", readFile(target("x")));
                EXPECT_EQ("x of 2", readFile(source("2/x")));
                EXPECT_EQ("y of 1", readFile(target("folder/in/y")));
                EXPECT_EQ("y of 2", readFile(source("2/folder/in/y")));
            }
        }
    }
}

TEST_F(TransferConflicts, a_folder_is_not_replaced_once_the_transfer_has_put_something_into_it) {
    writeFile(source("1/kind/new"), "moved");
    add("1/kind", "kind");
    add("kind", "kind");
    answer(TavroConflictChoice::Overwrite);
    EXPECT_FALSE(move());
    EXPECT_EQ("done /source/1/kind/new -> /target/kind/new\n"
              "failed /source/kind: Cannot replace '/target/kind': it holds what this transfer put "
              "there\n",
              report());
    EXPECT_EQ("moved", readFile(target("kind/new")));
    EXPECT_EQ("a file", readFile(source("kind")));
}

TEST_F(TransferConflicts, keeping_both_is_possible_where_the_transfer_has_put_something) {
    writeFile(source("1/x"), "x of 1");
    writeFile(source("2/x"), "x of 2");
    add("1/x", "x");
    add("2/x", "x");
    answer(TavroConflictChoice::KeepBoth);
    EXPECT_TRUE(move());
    EXPECT_EQ("x of 1", readFile(target("x")));
    EXPECT_EQ("x of 2", readFile(target("x copy 1")));
}

TEST_F(TransferConflicts, keeping_both_takes_the_next_name_when_another_process_was_quicker) {
    answer(TavroConflictChoice::KeepBoth);
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        for (const bool bMove : {false, true}) {
            writeFile(source("file"), "new");
            writeFile(target("file"), "old");
            fs::remove(target("file copy 1"));
            fs::remove(target("file copy 2"));
            add("file", "file");
            m_plan.bMove = bMove;
            const ScopedHook hook(g_onRenameAt2, [&](const std::string& to) {
                if (to == target("file copy 1").string()) {
                    writeFile(to, "of another process");
                }
                return 0;
            });
            EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report)) << report();
            EXPECT_EQ(target("file copy 2"), m_plan.Items.front().DestinationPath);
            EXPECT_EQ("done /source/file -> /target/file copy 2\n", report());
            EXPECT_EQ("of another process", readFile(target("file copy 1")));
            EXPECT_EQ("new", readFile(target("file copy 2")));
            EXPECT_EQ(!bMove, isPresent(source("file")));
            EXPECT_EQ("", debris());
            m_plan.Items.clear();
        }
    }
}

TEST_F(TransferConflicts, keeping_both_does_not_try_for_ever) {
    answer(TavroConflictChoice::KeepBoth);
    int tries = 0;
    const ScopedHook hook(g_onRenameAt2, [&](const std::string&) {
        ++tries;
        return EEXIST;
    });
    EXPECT_FALSE(copy({"file"}));
    EXPECT_EQ(101, tries);
    EXPECT_EQ("failed /source/file: Cannot put the copy of '/source/file' at "
              "'/target/file copy 1': " +
                  systemText(std::errc::file_exists) + "\n",
              report());
    EXPECT_EQ("", debris());
}

TEST_F(TransferConflicts, a_merging_move_tells_which_folders_it_has_removed) {
    writeFile(source("1/in/x"), "x");
    writeFile(source("1/stays/both"), "new");
    makeDirectory(target("1/in"));
    writeFile(target("1/stays/both"), "old");
    fs::permissions(source("1/in"), static_cast<fs::perms>(02750));
    EXPECT_TRUE(move({"1"}));
    ASSERT_EQ(1U, m_report.RemovedFolders.size());
    EXPECT_EQ(source("1/in"), m_report.RemovedFolders[0].Path);
    EXPECT_EQ(02750U, m_report.RemovedFolders[0].Mode);
    EXPECT_FALSE(isPresent(source("1/in")));
}

TEST_F(TransferConflicts, an_answer_for_all_is_asked_once_for_each_kind) {
    answer(TavroConflictChoice::Overwrite, true);
    writeFile(source("tree/kind 2"), "a file");
    makeDirectory(target("tree/kind 2"));
    EXPECT_TRUE(copy({"file", "kind", "tree"}));
    EXPECT_EQ("/source/file -> /target/file\n/source/kind -> /target/kind onto directory\n",
              m_asked);
    EXPECT_EQ("new in tree", readFile(target("tree/both")));
    EXPECT_EQ("a file", readFile(target("tree/kind 2")));
    EXPECT_EQ("a file", readFile(target("kind")));
}

TEST_F(TransferConflicts, an_answer_without_for_all_is_asked_each_time) {
    answer(TavroConflictChoice::Skip);
    EXPECT_TRUE(copy({"file", "tree"}));
    EXPECT_EQ("/source/file -> /target/file\n/source/tree/both -> /target/tree/both\n", m_asked);
}

TEST_F(TransferConflicts, a_merging_move_leaves_only_what_was_skipped) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        fs::remove_all(source("tree"));
        writeFile(source("tree/both"), "new in tree");
        writeFile(source("tree/only here"), "1");
        writeFile(source("tree/sub/x"), "x");
        writeFile(source("tree/gone/y"), "y");
        writeFile(target("tree/both"), "old in tree");
        makeDirectory(target("tree/gone"));
        fs::remove_all(target("tree/sub"));
        fs::remove(target("tree/gone/y"));
        fs::remove(target("tree/only here"));
        EXPECT_TRUE(move({"tree"})) << report();
        EXPECT_EQ((Snapshot{{".", "directory 755"}, {"both", "file 644 new in tree"}}),
                  takeSnapshot(source("tree")));
        EXPECT_EQ("x", readFile(target("tree/sub/x")));
        EXPECT_EQ("y", readFile(target("tree/gone/y")));
        EXPECT_EQ("old in tree", readFile(target("tree/both")));
    }
}

TEST_F(TransferConflicts, a_merging_move_removes_the_emptied_folder) {
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(move({"tree"}));
    EXPECT_FALSE(isPresent(source("tree")));
    EXPECT_EQ("2", readFile(target("tree/only there")));
    EXPECT_EQ("new in tree", readFile(target("tree/both")));
}

TEST_F(TransferConflicts, a_dangling_link_at_the_destination_is_in_the_way) {
    fs::create_symlink("nowhere", target("dangling"));
    writeFile(source("dangling"), "bytes");
    for (const bool bMove : {false, true}) {
        EXPECT_TRUE(run(bMove, {"dangling"}));
        EXPECT_EQ("skipped /source/dangling\n", report());
    }
    EXPECT_TRUE(fs::is_symlink(target("dangling")));
    answer(TavroConflictChoice::Overwrite);
    EXPECT_TRUE(copy({"dangling"}));
    EXPECT_EQ("bytes", readFile(target("dangling")));
    EXPECT_FALSE(isPresent(target("nowhere")));
}

TEST_F(TransferConflicts, a_link_to_a_folder_at_the_destination_is_replaced_not_followed) {
    makeDirectory(target("real"));
    fs::create_symlink("real", target("link"));
    writeFile(source("link"), "bytes");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(copy({"link"}));
    EXPECT_TRUE(fs::is_empty(target("real")));
    EXPECT_EQ("bytes", readFile(target("link")));
}

TEST_F(TransferConflicts, a_link_may_be_replaced_by_what_lies_behind_it) {
    fs::create_symlink(source(), target("link"));
    add("file", "link");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    EXPECT_TRUE(copy());
    EXPECT_EQ("new", readFile(target("link")));
    EXPECT_EQ("new", readFile(source("file")));
}

TEST_F(TransferConflicts, an_entry_under_another_of_its_names_is_left_alone) {
    fs::create_hard_link(source("file"), target("same"));
    add("file", "same");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    for (const bool bMove : {false, true}) {
        m_plan.bMove = bMove;
        EXPECT_FALSE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
        EXPECT_EQ("failed /source/file: '/source/file' and '/target/same' are the same\n",
                  report());
    }
    EXPECT_EQ("new", readFile(source("file")));
    EXPECT_EQ("new", readFile(target("same")));
}

TEST_F(TransferConflicts, a_folder_that_holds_the_source_is_not_replaced_by_it) {
    writeFile(target("kind/kind"), "inside");
    fs::create_symlink("/proc/self", target("kind/link"));
    answer(TavroConflictChoice::Overwrite);
    for (const std::string name : {"kind", "link"}) {
        TavroTransferItemPlan item;
        item.SourcePath = target("kind") / name;
        item.DestinationPath = target("kind");
        m_plan.Items = {item};
        for (const bool bMove : {false, true}) {
            m_plan.bMove = bMove;
            EXPECT_FALSE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
            EXPECT_EQ("failed /target/kind/" + name +
                          ": Cannot replace '/target/kind': it holds '/target/kind/" + name + "'\n",
                      report());
        }
    }
    EXPECT_EQ("inside", readFile(target("kind/kind")));
}

TEST_F(TransferConflicts, nothing_goes_into_itself) {
    for (const std::string to : {"tree/inside", "tree/new/inside", "tree/only here"}) {
        for (const bool bMove : {false, true}) {
            const Snapshot before = takeSnapshot(source());
            TavroTransferItemPlan item;
            item.SourcePath = source("tree");
            item.DestinationPath = source(to);
            m_plan.Items = {item};
            answer(TavroConflictChoice::Overwrite);
            EXPECT_FALSE(run(bMove));
            EXPECT_EQ(std::string("failed /source/tree: Cannot ") + (bMove ? "move" : "copy") +
                          " a directory into itself: '/source/tree'\n",
                      report());
            EXPECT_EQ(before, takeSnapshot(source()));
        }
    }
}

TEST_F(TransferConflicts, what_appears_at_the_destination_meanwhile_is_not_replaced) {
    writeFile(source("big"), bytesOf(9 * mebibyte));
    inTheMiddle([&] {
        writeFile(target("big"), "of somebody else");
        return false;
    });
    EXPECT_FALSE(copy({"big"}));
    EXPECT_EQ("failed /source/big: Cannot put the copy of '/source/big' at '/target/big': " +
                  systemText(std::errc::file_exists) + "\n",
              report());
    EXPECT_EQ("of somebody else", readFile(target("big")));
    EXPECT_EQ("", debris());
}

TEST_F(TransferConflicts, what_appears_at_the_destination_of_a_rename_is_not_replaced) {
    writeFile(source("moved"), "bytes");
    const ScopedHook hook(g_onRenameAt2, [&](const std::string&) {
        writeFile(target("moved"), "of somebody else");
        return 0;
    });
    EXPECT_FALSE(move({"moved"}));
    EXPECT_EQ("failed /source/moved: Cannot move '/source/moved' to '/target/moved': " +
                  systemText(std::errc::file_exists) + "\n",
              report());
    EXPECT_EQ("of somebody else", readFile(target("moved")));
    EXPECT_EQ("bytes", readFile(source("moved")));
}

// =================================================================================================
// Cancelling
// =================================================================================================

TEST_F(CarryOutTransfer, a_file_that_is_overwritten_keeps_its_bytes_until_the_new_ones_are_whole) {
    writeFile(source("big"), bytesOf(9 * mebibyte));
    writeFile(target("big"), "old");
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    std::string meanwhile;
    inTheMiddle([&] {
        meanwhile = readFile(target("big"));
        return true;
    });
    EXPECT_FALSE(copy({"big"}));
    EXPECT_EQ("old", meanwhile);
    EXPECT_EQ("old", readFile(target("big")));
    EXPECT_EQ("cancelled\n", report());
    EXPECT_EQ("", debris());
    m_callbacks = {};
    EXPECT_TRUE(copy({"big"}));
    EXPECT_EQ(bytesOf(9 * mebibyte), readFile(target("big")));
}

TEST_F(CarryOutTransfer, a_cancel_takes_effect_within_one_block) {
    writeFile(source("big"), bytesOf(32 * mebibyte));
    std::uint64_t told = 0;
    m_callbacks.OnProgress = [&](const TavroTransferProgress& progress) {
        told = progress.BytesDone;
    };
    inTheMiddle([] { return true; });
    EXPECT_FALSE(copy({"big"}));
    EXPECT_LE(told, 4 * mebibyte);
    EXPECT_GT(told, 0U);
}

/// Cancels at every possible moment, one after another, until a transfer was not cancelled.
class CancelledTransfer : public TransferTest {
protected:
    void cancelEverywhere(bool bMove) {
        bool bRanThrough = false;
        int cancels = 0;
        for (int k = 1; !bRanThrough; ++k) {
            ASSERT_LT(k, 1000);
            rebuild();
            int calls = 0;
            m_callbacks.ShouldCancel = [&] { return ++calls == k; };
            bRanThrough = run(bMove, {"tree", "z"});
            cancels += m_report.bCancelled ? 1 : 0;
            EXPECT_EQ(!bRanThrough, m_report.bCancelled) << report();
            expectWholeInOnePlace("tree", bMove);
            expectWholeInOnePlace("z", bMove);
            EXPECT_EQ("", debris());
            ASSERT_FALSE(HasFailure()) << "cancelled at call " << k << "\n" << report();
        }
        EXPECT_GT(cancels, 20);
    }

    void rebuild() {
        fs::remove_all(source());
        fs::remove_all(target());
        makeDirectory(target());
        makeSmallTree(source("tree"));
        writeFile(source("z"), "last");
        fs::create_hard_link(source("z"), source("tree/z"));
        m_tree = takeSnapshot(source("tree"));
        m_last = takeSnapshot(source("z"));
    }

    void expectWholeInOnePlace(const std::string& name, bool bMove) {
        const Snapshot& whole = name == "tree" ? m_tree : m_last;
        const bool bArrived = isPresent(target(name));
        EXPECT_EQ(bArrived ? whole : Snapshot(), takeSnapshot(target(name)));
        EXPECT_EQ(bArrived && bMove ? Snapshot() : whole, takeSnapshot(source(name)));
        const bool bReported =
            std::any_of(m_report.Done.begin(), m_report.Done.end(),
                        [&](const TavroTransferredEntry& e) { return e.To == target(name); });
        EXPECT_EQ(bArrived, bReported);
    }

    Snapshot m_tree;
    Snapshot m_last;
};

TEST_F(CancelledTransfer, a_copy_leaves_each_item_whole_or_absent) {
    cancelEverywhere(false);
}

TEST_F(CancelledTransfer, a_move_between_file_systems_leaves_each_item_whole_in_one_place) {
    TARGET_ELSEWHERE();
    cancelEverywhere(true);
}

TEST_F(CarryOutTransfer, an_incomplete_copy_that_cannot_be_removed_is_named) {
    writeFile(source("tree/a"), bytesOf(100));
    writeFile(source("tree/b"), bytesOf(100));
    int calls = 0;
    m_callbacks.ShouldCancel = [&] { return ++calls == 9; }; // when the second file begins
    const FaultInjector faults({{"unlinkat", EIO, "", 1, true}});
    EXPECT_FALSE(copy({"tree"}));
    EXPECT_EQ("failed /target/.tavro-XXXXXX: Cannot remove the incomplete copy "
              "'/target/.tavro-XXXXXX': " +
                  systemText(std::errc::io_error) + "\ncancelled\n",
              report());
    EXPECT_LT(0, faults.fired());
}

TEST_F(CarryOutTransfer, a_transfer_cancelled_while_it_is_measured_does_nothing) {
    makeSmallTree(source("tree"));
    m_callbacks.ShouldCancel = [] { return true; };
    int told = 0;
    m_callbacks.OnProgress = [&](const TavroTransferProgress&) { ++told; };
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("cancelled\n", report());
    EXPECT_EQ(1, told);
    EXPECT_TRUE(fs::is_empty(target()));
}

// =================================================================================================
// Progress
// =================================================================================================

TEST_F(CarryOutTransfer, fills_in_the_counts_of_each_item) {
    makeSmallTree(source("tree"));
    writeFile(source("file"), std::string(1000, 'x'));
    add("tree", "tree");
    add("file", "file");
    EXPECT_TRUE(TavroCarryOutTransfer(m_plan, m_callbacks, m_report));
    EXPECT_EQ(12U, m_plan.Items[0].ItemCount);
    EXPECT_EQ(11U, m_plan.Items[0].ByteCount);
    EXPECT_EQ(1U, m_plan.Items[1].ItemCount);
    EXPECT_EQ(1000U, m_plan.Items[1].ByteCount);
}

TEST_F(CarryOutTransfer, tells_at_most_20_times_a_second_and_ends_at_the_totals) {
    for (int i = 0; i < 60; ++i) {
        writeFile(source("tree/" + std::to_string(i)), "12345");
    }
    writeFile(source("file"), "12345");
    using Clock = std::chrono::steady_clock;
    std::vector<TavroTransferProgress> told;
    m_callbacks.OnProgress = [&](const TavroTransferProgress& progress) {
        told.push_back(progress);
    };
    m_callbacks.ShouldCancel = [] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return false;
    };
    const Clock::time_point begin = Clock::now();
    EXPECT_TRUE(copy({"tree", "file"}));
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    EXPECT_GE(told.size(), 3U);
    EXPECT_LE(static_cast<double>(told.size()), seconds * 20 + 1);
    for (std::size_t i = 1; i < told.size(); ++i) {
        EXPECT_GE(told[i].ItemsDone, told[i - 1].ItemsDone);
        EXPECT_GE(told[i].BytesDone, told[i - 1].BytesDone);
        EXPECT_LE(told[i].ItemsDone, told[i].ItemCount);
    }
    const fs::path current = told[told.size() / 2].CurrentPath;
    EXPECT_EQ(source("tree"), current.parent_path());
    EXPECT_EQ(62U, told.back().ItemsDone);
    EXPECT_EQ(62U, told.back().ItemCount);
    EXPECT_EQ(61U * 5, told.back().BytesDone);
    EXPECT_EQ(61U * 5, told.back().ByteCount);
}

TEST_F(CarryOutTransfer, the_counts_end_at_the_totals_whatever_became_of_the_items) {
    makeSmallTree(source("renamed"));
    writeFile(source("skipped"), "12345");
    writeFile(target("skipped"), "12345");
    writeFile(source("refused"), "12345");
    writeFile(target("in the way"));
    add("refused", "in the way/refused");
    TavroTransferProgress last;
    m_callbacks.OnProgress = [&](const TavroTransferProgress& progress) { last = progress; };
    EXPECT_FALSE(move({"renamed", "skipped"}));
    EXPECT_EQ(14U, last.ItemsDone);
    EXPECT_EQ(14U, last.ItemCount);
    EXPECT_EQ(21U, last.BytesDone);
    EXPECT_EQ(21U, last.ByteCount);
}

TEST_F(CarryOutTransfer, what_was_cancelled_is_not_counted_as_done) {
    writeFile(source("big"), bytesOf(9 * mebibyte));
    TavroTransferProgress last;
    m_callbacks.OnProgress = [&](const TavroTransferProgress& progress) { last = progress; };
    inTheMiddle([] { return true; });
    EXPECT_FALSE(copy({"big"}));
    EXPECT_EQ(0U, last.ItemsDone);
    EXPECT_LT(last.BytesDone, last.ByteCount);
}

// =================================================================================================
// Sources that change, cannot be read, or cannot be removed
// =================================================================================================

TEST_F(CarryOutTransfer, a_source_that_shrinks_is_named_and_nothing_arrives) {
    for (const bool bElsewhere : {false, true}) {
        if (bElsewhere && !targetElsewhere()) {
            continue;
        }
        writeFile(source("big"), bytesOf(9 * mebibyte));
        m_bMiddleSeen = false;
        inTheMiddle([&] {
            fs::resize_file(source("big"), 5);
            return false;
        });
        EXPECT_FALSE(run(bElsewhere, {"big"}));
        EXPECT_EQ("failed /source/big: '/source/big' became shorter while it was copied\n",
                  report());
        EXPECT_EQ(bytesOf(9 * mebibyte).substr(0, 5), readFile(source("big")));
        EXPECT_TRUE(fs::is_empty(target()));
    }
}

TEST_F(CarryOutTransfer, a_sparse_source_that_shrinks_does_not_arrive_with_zeros) {
    writeFile(source("big"), bytesOf(9 * mebibyte));
    fs::resize_file(source("big"), 50 * mebibyte);
    inTheMiddle([&] {
        fs::resize_file(source("big"), 5 * mebibyte);
        return false;
    });
    EXPECT_FALSE(copy({"big"}));
    EXPECT_EQ("failed /source/big: '/source/big' became shorter while it was copied\n", report());
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(CarryOutTransfer, a_source_that_grows_is_copied_as_long_as_it_was) {
    writeFile(source("log"), bytesOf(9 * mebibyte));
    inTheMiddle([&] {
        fs::resize_file(source("log"), 10 * mebibyte);
        return false;
    });
    EXPECT_TRUE(copy({"log"}));
    EXPECT_EQ(bytesOf(9 * mebibyte), readFile(target("log")));
}

TEST_F(CarryOutTransfer, a_source_that_changes_is_not_moved_between_file_systems) {
    TARGET_ELSEWHERE();
    const std::string changed = bytesOf(9 * mebibyte, 2);
    for (const bool bGrows : {false, true}) {
        writeFile(source("big"), bytesOf(9 * mebibyte));
        setTimes(source("big"), 1000000000, 0);
        m_bMiddleSeen = false;
        const std::string now = changed + (bGrows ? "more" : "");
        inTheMiddle([&] {
            writeFile(source("big"), now);
            return false;
        });
        EXPECT_FALSE(move({"big"}));
        EXPECT_EQ("failed /source/big: '/source/big' changed while it was moved\n", report());
        EXPECT_EQ(now, readFile(source("big")));
        EXPECT_TRUE(fs::is_empty(target()));
    }
}

TEST_F(CarryOutTransfer, an_entry_that_appears_in_a_folder_on_the_move_stays_where_it_is) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/sub/a"), "a");
    writeFile(source("tree/z"), "z");
    const ScopedHook hook(g_onSyncFs, [&](const std::string&) {
        writeFile(source("tree/sub/late"), "late");
        return 0;
    });
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("done /source/tree -> /target/tree\n"
              "failed /source/tree/sub: Cannot remove '/source/tree/sub' after copying: " +
                  systemText(std::errc::directory_not_empty) +
                  "\nfailed /source/tree: Cannot remove '/source/tree' after copying: " +
                  systemText(std::errc::directory_not_empty) + "\n",
              report());
    EXPECT_EQ("late", readFile(source("tree/sub/late")));
    EXPECT_EQ("z", readFile(target("tree/z")));
    EXPECT_FALSE(isPresent(source("tree/z")));
}

TEST_F(CarryOutTransfer, a_source_that_changes_at_the_last_moment_stays) {
    TARGET_ELSEWHERE();
    writeFile(source("file"), "old");
    const ScopedHook hook(g_onRenameAt2, [&](const std::string& to) {
        if (to == target("file").string() && readFile(source("file")) == "old" &&
            !fs::is_empty(target())) {
            writeFile(source("file"), "newer");
        }
        return 0;
    });
    EXPECT_FALSE(move({"file"}));
    EXPECT_EQ("newer", readFile(source("file")));
    EXPECT_EQ("old", readFile(target("file")));
    EXPECT_EQ("failed /source/file: A copy of '/source/file' stays at '/target/file'\n"
              "failed /source/file: '/source/file' changed while it was moved\n",
              report());
}

TEST_F(CarryOutTransfer, a_source_that_cannot_be_examined_at_the_last_moment_stays) {
    TARGET_ELSEWHERE();
    writeFile(source("file"), "bytes");
    std::optional<FaultInjector> faults;
    const ScopedHook hook(g_onRenameAt2, [&](const std::string& to) {
        if (to == target("file").string() && !fs::is_empty(target())) {
            faults.emplace(
                std::vector<Fault>{{"lstat", EIO, source("file").string(), 1, true, true}});
        }
        return 0;
    });
    EXPECT_FALSE(move({"file"}));
    ASSERT_TRUE(faults.has_value());
    EXPECT_GT(faults->fired(), 0);
    faults.reset();
    EXPECT_EQ("bytes", readFile(source("file")));
    EXPECT_EQ("bytes", readFile(target("file")));
    EXPECT_EQ("failed /source/file: A copy of '/source/file' stays at '/target/file'\n"
              "failed /source/file: Cannot read '/source/file': " +
                  systemText(std::errc::io_error) + "\n",
              report());
}

TEST_F(CarryOutTransfer, a_source_that_vanishes_at_the_last_moment_does_not_take_its_copy_along) {
    TARGET_ELSEWHERE();
    writeFile(source("file"), "the only bytes");
    const ScopedHook hook(g_onRenameAt2, [&](const std::string& to) {
        if (to == target("file").string() && !fs::is_empty(target())) {
            fs::remove(source("file"));
        }
        return 0;
    });
    EXPECT_FALSE(move({"file"}));
    EXPECT_EQ("the only bytes", readFile(target("file")));
}

TEST_F(CarryOutTransfer, when_no_source_can_be_removed_the_copy_goes_instead) {
    TARGET_ELSEWHERE();
    makeSmallTree(source("tree"));
    writeFile(source("file"), "bytes");
    fs::remove_all(source("tree/empty"));
    const Snapshot before = takeSnapshot(source());
    const std::string below = source().string();
    const ScopedHook hook(
        g_onUnlink, [&](const std::string& path) { return path.rfind(below, 0) == 0 ? EPERM : 0; });
    EXPECT_FALSE(move({"file", "tree"}));
    EXPECT_EQ(before, takeSnapshot(source()));
    EXPECT_TRUE(fs::is_empty(target())) << report();
    EXPECT_EQ(source("file"), m_report.Failed.front().Path);
    EXPECT_EQ("Cannot remove '/source/file' after copying: " +
                  systemText(std::errc::operation_not_permitted),
              shortened(m_report.Failed.front().Reason));
    EXPECT_TRUE(m_report.Done.empty());
}

TEST_F(CarryOutTransfer, a_copy_that_is_taken_back_leaves_what_others_have_put_there) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/a"), "a");
    const ScopedHook hook(g_onUnlink, [&](const std::string& path) {
        if (path != source("tree/a").string()) {
            return 0;
        }
        writeFile(target("tree/of somebody else"), "bytes");
        return EPERM;
    });
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("a", readFile(source("tree/a")));
    EXPECT_EQ((Snapshot{{".", "directory 755"}, {"of somebody else", "file 644 bytes"}}),
              takeSnapshot(target("tree")));
}

TEST_F(CarryOutTransfer, one_source_that_cannot_be_removed_is_in_both_places_and_named) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/a"), "a");
    writeFile(source("tree/b"), "b");
    const Snapshot before = takeSnapshot(source("tree"));
    const ScopedHook hook(g_onUnlink, [&](const std::string& path) {
        return path == source("tree/a").string() ? EPERM : 0;
    });
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    EXPECT_EQ("a", readFile(source("tree/a")));
    EXPECT_FALSE(isPresent(source("tree/b")));
    EXPECT_EQ("done /source/tree -> /target/tree\n"
              "failed /source/tree/a: Cannot remove '/source/tree/a' after copying: " +
                  systemText(std::errc::operation_not_permitted) +
                  "\nfailed /source/tree: Cannot remove '/source/tree' after copying: " +
                  systemText(std::errc::directory_not_empty) + "\n",
              report());
}

TEST_F(CarryOutTransfer, no_source_is_removed_before_its_copy_has_reached_the_disk) {
    TARGET_ELSEWHERE();
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source());
    const ScopedHook hook(g_onSyncFs, [](const std::string&) { return EIO; });
    EXPECT_FALSE(move({"tree"}));
    EXPECT_EQ("failed /source/tree: Cannot write '/target/tree': " +
                  systemText(std::errc::io_error) + "\n",
              report());
    EXPECT_EQ(before, takeSnapshot(source()));
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST_F(CarryOutTransfer, a_copy_goes_on_past_what_it_cannot_read) {
    makeSmallTree(source("tree"));
    writeFile(source("tree/secret"), "bytes");
    makeDirectory(source("tree/closed"));
    fs::permissions(source("tree/secret"), fs::perms::none);
    fs::permissions(source("tree/closed"), fs::perms::none);
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(copy({"tree"}));
        const std::string denied = systemText(std::errc::permission_denied);
        const std::string done = "done /source/tree -> /target/tree\n";
        const std::string closed =
            "failed /source/tree/closed: Cannot read '/source/tree/closed': " + denied + "\n";
        const std::string secret =
            "failed /source/tree/secret: Cannot read '/source/tree/secret': " + denied + "\n";
        EXPECT_TRUE(report() == done + closed + secret || report() == done + secret + closed)
            << report();
        EXPECT_EQ("second", readFile(target("tree/sub/b")));
        EXPECT_FALSE(isPresent(target("tree/secret")));
        EXPECT_FALSE(isPresent(target("tree/closed")));
        EXPECT_EQ("", debris());
    });
}

TEST_F(CarryOutTransfer, an_item_that_cannot_be_read_leaves_nothing) {
    writeFile(source("secret"), "bytes");
    makeDirectory(source("closed"));
    fs::permissions(source("secret"), fs::perms::none);
    fs::permissions(source("closed"), fs::perms::none);
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(copy({"closed", "secret"}));
        const std::string denied = systemText(std::errc::permission_denied);
        EXPECT_EQ("failed /source/closed: Cannot read '/source/closed': " + denied +
                      "\nfailed /source/secret: Cannot read '/source/secret': " + denied + "\n",
                  report());
        EXPECT_TRUE(fs::is_empty(target()));
    });
}

/// Moves between file systems by a user to whom permissions apply.
class UnprivilegedMove : public TransferTest {
protected:
    /// Expects that the move of "tree" is refused with `reason` and that all is as it was.
    void expectRefused(const std::string& reason) {
        if (isRoot()) {
            ASSERT_EQ(0, chown(target().c_str(), 65534, 65534));
        }
        runUnprivileged(m_box.path(), [&] {
            EXPECT_FALSE(move({"tree"}));
            EXPECT_EQ(reason + systemText(std::errc::permission_denied) + "\n", report());
            EXPECT_TRUE(fs::is_empty(target()));
        });
    }
};

TEST_F(UnprivilegedMove, refuses_a_tree_with_a_file_it_cannot_read) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/secret"), "bytes");
    fs::permissions(source("tree/secret"), fs::perms::none);
    expectRefused("failed /source/tree/secret: Cannot read '/source/tree/secret': ");
    EXPECT_TRUE(isPresent(source("tree/secret")));
}

TEST_F(UnprivilegedMove, refuses_to_move_out_of_a_read_only_folder) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/a"), "bytes");
    fs::permissions(source(), static_cast<fs::perms>(0555));
    expectRefused("failed /source/tree: Cannot move '/source/tree': ");
    EXPECT_EQ("bytes", readFile(source("tree/a")));
}

TEST_F(UnprivilegedMove, refuses_a_tree_with_a_read_only_folder) {
    TARGET_ELSEWHERE();
    writeFile(source("tree/closed/a"), "bytes");
    fs::permissions(source("tree/closed"), static_cast<fs::perms>(0555));
    expectRefused("failed /source/tree/closed: Cannot move out of '/source/tree/closed': ");
    EXPECT_EQ("bytes", readFile(source("tree/closed/a")));
}

TEST_F(CarryOutTransfer, an_emptied_folder_that_cannot_be_removed_is_named) {
    writeFile(source("outer/tree/a"), "bytes");
    writeFile(target("tree/b"));
    fs::permissions(source("outer"), static_cast<fs::perms>(0555));
    add("outer/tree", "tree");
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(move());
        EXPECT_EQ("done /source/outer/tree/a -> /target/tree/a\n"
                  "failed /source/outer/tree: Cannot remove the emptied folder "
                  "'/source/outer/tree': " +
                      systemText(std::errc::permission_denied) + "\n",
                  report());
    });
}

TEST_F(CarryOutTransfer, a_copy_of_read_only_folders_can_be_cancelled_without_debris) {
    writeFile(source("tree/closed/a"), "bytes");
    writeFile(source("tree/open/b"), "bytes");
    fs::permissions(source("tree/closed"), static_cast<fs::perms>(0555));
    runUnprivileged(m_box.path(), [&] {
        bool bDone = false;
        for (int k = 1; !bDone && k < 100; ++k) {
            int calls = 0;
            m_callbacks.ShouldCancel = [&] { return ++calls == k; };
            bDone = copy({"tree"});
            EXPECT_EQ(bDone, isPresent(target("tree")));
            EXPECT_EQ("", debris());
        }
        EXPECT_TRUE(bDone);
    });
}

TEST_F(CarryOutTransfer, a_read_only_target_is_named) {
    writeFile(source("file"), "bytes");
    fs::permissions(target(), static_cast<fs::perms>(0555));
    runUnprivileged(m_box.path(), [&] {
        EXPECT_FALSE(copy({"file"}));
        EXPECT_EQ("failed /source/file: Cannot create '/target/file': " +
                      systemText(std::errc::permission_denied) + "\n",
                  report());
        EXPECT_FALSE(move({"file"}));
        EXPECT_EQ("failed /source/file: Cannot move '/source/file' to '/target/file': " +
                      systemText(std::errc::permission_denied) + "\n",
                  report());
        EXPECT_EQ("bytes", readFile(source("file")));
    });
}

// =================================================================================================
// Full disks
// =================================================================================================

/// A target on a small file system of its own, mounted where only a child process sees it.
class FullTarget : public TransferTest, public testing::WithParamInterface<const char*> {
protected:
    void runWithFullTarget(const std::function<void()>& body) {
        const fs::path reason = m_box / "reason to skip";
        runInChild([&] {
            const std::string obstacle = mountTarget();
            if (obstacle.empty()) {
                body();
            } else {
                writeFile(reason, obstacle);
            }
        });
        if (isPresent(reason)) {
            GTEST_SKIP() << readFile(reason);
        }
    }

    std::string mountTarget() const {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return "this process cannot mount in a namespace of its own";
        }
        if (GetParam() == std::string("tmpfs")) {
            return mount("none", target().c_str(), "tmpfs", 0, "size=3m") == 0
                       ? ""
                       : "a tmpfs cannot be mounted here";
        }
        const std::string image = (m_box / "image").string();
        writeFile(image);
        fs::resize_file(image, 4 * mebibyte);
        const std::string command = "mkfs.ext4 -q -F -m 0 '" + image + "' && mount -o loop '" +
                                    image + "' '" + target().string() + "' && rmdir '" +
                                    target("lost+found").string() + "'";
        return std::system(("(" + command + ") >/dev/null 2>&1").c_str()) == 0
                   ? ""
                   : "images of ext4 cannot be mounted here";
    }
};

TEST_P(FullTarget, ends_in_a_clear_error_and_a_smaller_item_still_arrives) {
    writeFile(source("big"), bytesOf(5 * mebibyte));
    writeFile(source("small"), "small");
    writeFile(source("tree/a"), "a");
    writeFile(source("tree/big"), bytesOf(5 * mebibyte, 2));
    const Snapshot before = takeSnapshot(source());
    runWithFullTarget([&] {
        for (const bool bMove : {false, true}) {
            EXPECT_FALSE(run(bMove, {"big", "tree", "small"}));
            const std::string full = systemText(std::errc::no_space_on_device);
            EXPECT_EQ("done /source/small -> /target/small\n"
                      "failed /source/big: Cannot copy '/source/big': " +
                          full + "\nfailed /source/tree/big: Cannot copy '/source/tree/big': " +
                          full + "\n",
                      report());
            EXPECT_EQ((Snapshot{{".", takeSnapshot(target())["."]}, {"small", "file 644 small"}}),
                      takeSnapshot(target()));
            EXPECT_EQ(!bMove, isPresent(source("small")));
            fs::remove(target("small"));
        }
        EXPECT_EQ(before.at("big"), takeSnapshot(source())["big"]);
        EXPECT_EQ(before.at("tree/big"), takeSnapshot(source())["tree/big"]);
        EXPECT_EQ("a", readFile(source("tree/a")));
    });
}

TEST_P(FullTarget, keeps_the_bytes_that_were_to_be_overwritten) {
    writeFile(source("file"), bytesOf(2 * mebibyte));
    runWithFullTarget([&] {
        writeFile(target("file"), bytesOf(2 * mebibyte, 2));
        m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
        for (const bool bMove : {false, true}) {
            EXPECT_FALSE(run(bMove, {"file"}));
            EXPECT_EQ("failed /source/file: Cannot copy '/source/file': " +
                          systemText(std::errc::no_space_on_device) + "\n",
                      report());
            EXPECT_EQ(bytesOf(2 * mebibyte, 2), readFile(target("file")));
            EXPECT_EQ(bytesOf(2 * mebibyte), readFile(source("file")));
            EXPECT_EQ("", debris());
        }
    });
}

INSTANTIATE_TEST_SUITE_P(OnEach, FullTarget, testing::Values("tmpfs", "ext4"),
                         [](const auto& which) { return std::string(which.param); });

// =================================================================================================
// Single moves and free names
// =================================================================================================

class MoveEntry : public TransferTest {
protected:
    bool moveEntry(const std::string& from, const std::string& to) {
        m_error = "untouched";
        return TavroMoveEntry(source(from), target(to), m_callbacks, m_error);
    }
    std::string m_error;
};

TEST_F(MoveEntry, moves_with_missing_parents_and_leaves_the_message_alone) {
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source("tree"));
    EXPECT_TRUE(moveEntry("tree", "new/place"));
    EXPECT_EQ("untouched", m_error);
    EXPECT_EQ(before, takeSnapshot(target("new/place")));
    EXPECT_FALSE(isPresent(source("tree")));
}

TEST_F(MoveEntry, moves_between_file_systems_and_counts_what_it_copies) {
    TARGET_ELSEWHERE();
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source("tree"));
    TavroTransferProgress last;
    m_callbacks.OnProgress = [&](const TavroTransferProgress& progress) { last = progress; };
    EXPECT_TRUE(moveEntry("tree", "tree"));
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    EXPECT_FALSE(isPresent(source("tree")));
    EXPECT_EQ(12U, last.ItemsDone);
    EXPECT_EQ(11U, last.BytesDone);
    EXPECT_EQ(0U, last.ItemCount);
}

TEST_F(MoveEntry, refuses_a_place_that_is_taken) {
    writeFile(source("file"), "new");
    writeFile(target("file"), "old");
    fs::create_symlink("nowhere", target("dangling"));
    for (const std::string to : {"file", "dangling"}) {
        EXPECT_FALSE(moveEntry("file", to));
        EXPECT_EQ("Cannot move '/source/file' to '/target/" + to +
                      "': " + systemText(std::errc::file_exists),
                  shortened(m_error));
    }
    EXPECT_EQ("old", readFile(target("file")));
    EXPECT_TRUE(fs::is_symlink(target("dangling")));
}

TEST_F(MoveEntry, refuses_a_place_that_is_taken_on_another_file_system) {
    TARGET_ELSEWHERE();
    writeFile(source("file"), "new");
    writeFile(target("file"), "old");
    EXPECT_FALSE(moveEntry("file", "file"));
    EXPECT_EQ("old", readFile(target("file")));
    EXPECT_EQ("new", readFile(source("file")));
    EXPECT_EQ("", debris());
}

TEST_F(MoveEntry, says_what_is_missing) {
    EXPECT_FALSE(moveEntry("missing", "file"));
    EXPECT_EQ("Cannot move '/source/missing' to '/target/file': " +
                  systemText(std::errc::no_such_file_or_directory),
              shortened(m_error));
}

TEST_F(MoveEntry, refuses_to_move_a_folder_into_itself) {
    writeFile(source("tree/a"), "bytes");
    EXPECT_FALSE(TavroMoveEntry(source("tree"), source("tree/new/place"), m_callbacks, m_error));
    EXPECT_EQ("Cannot move a directory into itself: '/source/tree'", shortened(m_error));
    EXPECT_FALSE(isPresent(source("tree/new")));
}

TEST_F(MoveEntry, says_that_it_was_cancelled) {
    TARGET_ELSEWHERE();
    writeFile(source("big"), bytesOf(5 * mebibyte));
    inTheMiddle([] { return true; });
    EXPECT_FALSE(moveEntry("big", "big"));
    EXPECT_EQ("Cancelled", m_error);
    EXPECT_EQ(bytesOf(5 * mebibyte), readFile(source("big")));
    EXPECT_TRUE(fs::is_empty(target()));
}

TEST(FreePathBeside, is_the_first_name_at_which_nothing_is) {
    const Sandbox box;
    EXPECT_EQ(box / "a.tar.gz", TavroFreePathBeside(box / "a.tar.gz"));
    writeFile(box / "a.tar.gz");
    EXPECT_EQ(box / "a.tar copy 1.gz", TavroFreePathBeside(box / "a.tar.gz"));
    fs::create_symlink("nowhere", box / "a.tar copy 1.gz");
    EXPECT_EQ(box / "a.tar copy 2.gz", TavroFreePathBeside(box / "a.tar.gz"));
    writeFile(box / ".hidden");
    EXPECT_EQ(box / ".hidden copy 1", TavroFreePathBeside(box / ".hidden"));
}

TEST(FreePathBeside, is_not_longer_than_a_name_can_be) {
    const Sandbox box;
    const auto expect = [&](const std::string& wanted, const std::string& free) {
        writeFile(box / wanted);
        EXPECT_EQ(box / free, TavroFreePathBeside(box / wanted));
        writeFile(box / free); // which is possible
    };
    const std::string x(244, 'x');
    expect(x + ".txt", x + " copy 1.txt");
    expect(x + "xxxx.txt", x + " copy 2.txt");
    expect(x + "1234567.txt", x + " copy 3.txt");
    // Of a character with several bytes, all or none stay.
    const std::string y(245, 'y');
    expect(y + "\u00e9\u00e9\u00e9", y + "\u00e9 copy 1");
    expect(y + "y\u20ac\u20ac\u20ac", y + "y copy 1");
    expect(y + "\U0001f600\U0001f600", y + " copy 1");
    // Bytes that are no text at all.
    const std::string bytes(255, '\x80');
    expect(bytes, std::string(245, '\x80') + " copy 1");
    // An extension may be longer than what is before it.
    const std::string z(250, 'z');
    expect("a." + z, "a." + z.substr(0, 246) + " copy 1");
}

// =================================================================================================
// File systems that cannot rename without replacing
// =================================================================================================

class RenameWithoutTheKernelsHelp : public TransferTest, public testing::WithParamInterface<int> {
protected:
    ScopedHook m_hook{g_onRenameAt2, [](const std::string&) { return GetParam(); }};
};

TEST_P(RenameWithoutTheKernelsHelp, looks_first_and_replaces_nothing) {
    writeFile(source("file"), "new");
    makeDirectory(source("folder"));
    writeFile(target("file"), "old");
    fs::create_symlink("nowhere", target("dangling"));
    const Snapshot before = takeSnapshot(m_box.path());
    std::error_code ec;
    for (const char* to : {"file", "dangling"}) {
        TavroRenameNoReplace(source("file"), target(to), ec);
        EXPECT_EQ(std::errc::file_exists, ec);
    }
    TavroRenameNoReplace(source("folder"), source("folder/inside"), ec);
    EXPECT_EQ(std::errc::invalid_argument, ec);
    EXPECT_EQ(before, takeSnapshot(m_box.path()));
    TavroRenameNoReplace(source("file"), target("free"), ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ("new", readFile(target("free")));
    EXPECT_FALSE(isPresent(source("file")));
}

TEST_P(RenameWithoutTheKernelsHelp, copies_and_moves_all_the_same) {
    makeSmallTree(source("tree"));
    const Snapshot before = takeSnapshot(source("tree"));
    EXPECT_TRUE(copy({"tree"}));
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    fs::remove_all(target("tree"));
    EXPECT_TRUE(move({"tree"}));
    EXPECT_EQ(before, takeSnapshot(target("tree")));
    EXPECT_FALSE(isPresent(source("tree")));
}

INSTANTIATE_TEST_SUITE_P(Errors, RenameWithoutTheKernelsHelp, testing::Values(EINVAL, ENOSYS));

// =================================================================================================
// Random trees
// =================================================================================================

/// Builds trees of everything that a tree can hold.
class TreeMaker {
public:
    explicit TreeMaker(unsigned seed) : m_random(seed) {}

    void make(const fs::path& tree, int depth = 3) {
        makeDirectory(tree);
        const int count = below(7) + (depth == 3 ? 3 : 0);
        for (int i = 0; i < count; ++i) {
            makeEntry(tree / name(), depth);
        }
        finish(tree, static_cast<mode_t>(0700 | below(0100) | below(2) * 02000));
    }

private:
    int below(int bound) {
        return std::uniform_int_distribution<int>(0, bound - 1)(m_random);
    }

    std::string name() {
        std::string text = std::to_string(++m_count) + "-";
        const int length = below(20) == 0 ? 240 : below(12);
        for (int i = 0; i < length; ++i) {
            const char byte = static_cast<char>(1 + below(255));
            text += byte == '/' ? '_' : byte;
        }
        return text;
    }

    void makeEntry(const fs::path& path, int depth) {
        const int kind = below(12);
        if (kind < 3 && depth > 0) {
            make(path, depth - 1);
        } else if (kind == 3) {
            fs::create_symlink(below(2) == 0 ? "nowhere\n" : "../" + name(), path);
            finish(path, 0777);
        } else if (kind == 4) {
            makeFifo(path);
            finish(path, static_cast<mode_t>(below(01000)));
        } else if (kind < 7 && !m_files.empty()) {
            const auto which = static_cast<std::size_t>(below(static_cast<int>(m_files.size())));
            ASSERT_EQ(0, link(m_files[which].c_str(), path.c_str()));
        } else {
            makeFile(path);
        }
    }

    void makeFile(const fs::path& path) {
        static constexpr std::size_t sizes[] = {0, 1, 4096, 65535, 65536, 65537, 300000, 4194305};
        const std::size_t size = sizes[below(7) + (below(12) == 0 ? 1 : 0)];
        writeFile(path, bytesOf(size, static_cast<unsigned>(below(1000))));
        if (below(3) == 0) {
            fs::resize_file(path, size + static_cast<std::size_t>(below(3000000)));
        }
        m_files.push_back(path);
        // The owner may read everything, so that an ordinary user can compare it.
        finish(path, static_cast<mode_t>(0400 | below(010000)));
    }

    void finish(const fs::path& path, mode_t mode) {
        if (isRoot() && below(2) == 0) {
            ASSERT_EQ(0, lchown(path.c_str(), static_cast<uid_t>(below(5000)),
                                static_cast<gid_t>(below(5000))));
        }
        if (below(3) == 0) {
            setAttribute(path, "user.a" + std::to_string(below(9)), name());
        }
        const struct stat status = statusOf(path);
        if (!S_ISLNK(status.st_mode)) {
            ASSERT_EQ(0, chmod(path.c_str(), mode));
        }
        setTimes(path, 946684800 + below(900000000), below(1000000000));
    }

    std::mt19937 m_random;
    int m_count = 0;
    std::vector<fs::path> m_files;
};

/// How much of the disk each file of a tree takes, in blocks.
std::map<std::string, long> blocksOfTree(const fs::path& root) {
    std::map<std::string, long> blocks;
    for (const auto& row : takeSnapshot(root)) {
        const struct stat status = statusOf(root / row.first);
        if (S_ISREG(status.st_mode)) {
            blocks[row.first] = static_cast<long>(status.st_blocks);
        }
    }
    return blocks;
}

class RandomTree : public TransferTest, public testing::WithParamInterface<unsigned> {};

TEST_P(RandomTree, is_copied_as_cp_does_and_is_the_same_after_a_journey) {
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    TreeMaker(GetParam()).make(source("tree"));
    const auto before = attributesOfTree(source("tree"));
    const fs::path reference = m_box / "reference";
    ASSERT_EQ(
        0, std::system(
               ("cp -a '" + source("tree").string() + "' '" + reference.string() + "'").c_str()));
    ASSERT_TRUE(copy({"tree"})) << report();
    EXPECT_EQ(attributesOfTree(reference), attributesOfTree(target("tree")));
    EXPECT_EQ(before, attributesOfTree(target("tree")));
    EXPECT_EQ(before, attributesOfTree(source("tree")));
    const auto expected = blocksOfTree(reference);
    for (const auto& [name, blocks] : blocksOfTree(target("tree"))) {
        EXPECT_LE(blocks, expected.at(name) + 16) << name;
    }
    if (!targetElsewhere()) {
        GTEST_SKIP() << "there is no second file system at " << secondFileSystem
                     << " for the journey";
    }
    ASSERT_TRUE(move({"tree"})) << report();
    EXPECT_FALSE(isPresent(source("tree")));
    const auto there = attributesOfTree(target("tree"));
    std::string error;
    ASSERT_TRUE(TavroMoveEntry(target("tree"), source("tree"), {}, error)) << error;
    EXPECT_FALSE(isPresent(target("tree")));
    EXPECT_EQ(there, attributesOfTree(source("tree")));
    // The second file system may hold fewer extended attributes, and holds all else.
    writeFile(target("probe"));
    if (setAttribute(target("probe"), "user.probe", "")) {
        EXPECT_EQ(before, there);
    } else {
        EXPECT_EQ(takeSnapshot(reference), takeSnapshot(source("tree")));
    }
    EXPECT_EQ("", debris());
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomTree, testing::Range(1U, 13U));

} // namespace
