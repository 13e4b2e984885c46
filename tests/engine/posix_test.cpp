// The floor: what each call does, and that interruptions, errors and half-made calls are dealt with
// in one place.

#include "posix.h"

#include "deep_tree.h"
#include "fault_injector.h"
#include "identity.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <sched.h>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

bool isOpen(int number) {
    return fcntl(number, F_GETFD) >= 0;
}

class Posix : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, TavroOpenDirectory(m_box.path(), m_directory));
    }

    int at() const {
        return m_directory.Number();
    }

    TavroDescriptor opened(const char* name, int flags = O_RDONLY, mode_t mode = 0644) const {
        TavroDescriptor file;
        EXPECT_EQ(0, TavroOpenAt(at(), name, flags, file, mode)) << name;
        return file;
    }

    Sandbox m_box;
    TavroDescriptor m_directory;
};

} // namespace

// =================================================================================================
// Descriptors
// =================================================================================================

TEST_F(Posix, a_descriptor_closes_itself_and_can_be_handed_on) {
    int number = -1;
    {
        TavroDescriptor first = opened(".");
        number = first.Number();
        TavroDescriptor second = std::move(first);
        EXPECT_FALSE(first.IsOpen()); // NOLINT(bugprone-use-after-move): that is what is tested
        EXPECT_EQ(number, second.Number());
        EXPECT_TRUE(isOpen(number));
    }
    EXPECT_FALSE(isOpen(number));
}

TEST_F(Posix, a_descriptor_that_gets_another_file_closes_the_first) {
    TavroDescriptor first = opened(".");
    const int number = first.Number();
    first = opened(".");
    EXPECT_NE(number, first.Number());
    EXPECT_FALSE(isOpen(number));
    first = std::move(*&first);
    EXPECT_TRUE(isOpen(first.Number()));
}

TEST_F(Posix, a_close_tells_its_error_and_an_interrupted_one_has_closed) {
    for (const int error : {EIO, EINTR}) {
        TavroDescriptor file = opened("file", O_WRONLY | O_CREAT);
        const int number = file.Number();
        const FaultInjector injector({{"close", error, "file"}});
        EXPECT_EQ(error == EINTR ? 0 : error, file.Close());
        EXPECT_EQ(1, injector.fired());
        EXPECT_FALSE(isOpen(number));
        EXPECT_EQ(0, file.Close()) << "there is nothing to close any more";
    }
}

// =================================================================================================
// Opening
// =================================================================================================

TEST_F(Posix, opening_follows_no_link) {
    writeFile(m_box / "file");
    makeDirectory(m_box / "directory");
    fs::create_symlink("file", m_box / "to file");
    fs::create_symlink("directory", m_box / "to directory");
    TavroDescriptor untouched = opened(".");
    const int number = untouched.Number();
    EXPECT_EQ(ELOOP, TavroOpenAt(at(), "to file", O_RDONLY, untouched));
    EXPECT_EQ(ENOTDIR, TavroOpenDirectoryAt(at(), "to directory", untouched));
    EXPECT_EQ(ENOTDIR, TavroOpenDirectoryAt(at(), "file", untouched));
    EXPECT_EQ(ENOENT, TavroOpenDirectoryAt(at(), "missing", untouched));
    EXPECT_EQ(number, untouched.Number());
    EXPECT_EQ(0, TavroOpenDirectoryAt(at(), "directory", untouched));
}

TEST_F(Posix, a_pipe_is_never_waited_for) {
    makeFifo(m_box / "pipe");
    TavroDescriptor pipe;
    EXPECT_EQ(ENOTDIR, TavroOpenDirectoryAt(at(), "pipe", pipe));
    EXPECT_EQ(0, TavroOpenFile(m_box / "pipe", pipe));
}

TEST_F(Posix, what_is_opened_is_not_handed_to_programs_that_are_started) {
    writeFile(m_box / "file");
    TavroDescriptor file;
    ASSERT_EQ(0, TavroOpenFile(m_box / "file", file));
    TavroDescriptor listing;
    ASSERT_EQ(0, TavroOpenDirectoryAt(at(), ".", listing));
    for (const int number : {at(), file.Number(), listing.Number(), opened("file").Number()}) {
        EXPECT_EQ(FD_CLOEXEC, fcntl(number, F_GETFD) & FD_CLOEXEC);
    }
}

TEST_F(Posix, opens_a_directory_that_may_be_searched_but_not_listed) {
    makeDirectory(m_box / "drop");
    writeFile(m_box / "drop/file");
    fs::permissions(m_box / "drop", fs::perms(0300));
    runUnprivileged(m_box.path(), [&] {
        TavroDescriptor directory;
        ASSERT_EQ(0, TavroOpenDirectory(m_box / "drop", directory));
        struct stat status = {};
        EXPECT_EQ(0, TavroStatAt(directory.Number(), "file", status));
        EXPECT_EQ(0, TavroMakeDirectoryAt(directory.Number(), "new", 0700));
        TavroListing listing;
        EXPECT_EQ(EBADF, TavroListDirectory(directory.Number(), listing));
    });
}

namespace {

/// A path to the directory "here", of exactly so many bytes, below a chain of deep directories.
std::string pathOfLength(const std::string& top, std::size_t length) {
    std::string path = top;
    while (path.size() + 2 * 201 < length) {
        path += "/" + std::string(200, 'd');
    }
    // The rest by separators, which count as one.
    return path + std::string(length - path.size() - 4, '/') + "here";
}

} // namespace

TEST_F(Posix, takes_paths_of_any_length) {
    std::string deep = m_box.path();
    TavroDescriptor last = opened(".");
    while (deep.size() < 10000) {
        for (const char* below : {"here", "link"}) {
            EXPECT_EQ(0, std::string(below) == "here"
                             ? TavroMakeDirectoryAt(last.Number(), below, 0755)
                             : TavroSymlinkAt("here", last.Number(), below));
        }
        const std::string name(200, 'd');
        ASSERT_EQ(0, TavroMakeDirectoryAt(last.Number(), name.c_str(), 0755));
        TavroDescriptor next;
        ASSERT_EQ(0, TavroOpenDirectoryAt(last.Number(), name.c_str(), next));
        last = std::move(next);
        deep += "/" + name;
    }
    const ScopedCurrentDirectory current(m_box.path());
    for (const std::size_t length : {4093U, 4094U, 4095U, 4096U, 4097U, 8190U, 8191U, 9000U}) {
        for (const std::string& top : {m_box.path().string(), std::string(".")}) {
            SCOPED_TRACE(top + " " + std::to_string(length));
            const std::string path = pathOfLength(top, length);
            ASSERT_EQ(length, path.size());
            struct stat status = {};
            ASSERT_EQ(0, TavroStatPath(path, status));
            TavroDescriptor directory;
            struct stat openedStatus = {};
            ASSERT_EQ(0, TavroOpenDirectory(path, directory));
            ASSERT_EQ(0, TavroStat(directory.Number(), openedStatus));
            EXPECT_EQ(TavroIdentityOf(status), TavroIdentityOf(openedStatus));

            const std::string link = path.substr(0, path.size() - 4) + "link";
            EXPECT_EQ(0, TavroStatPath(link, status));
            EXPECT_TRUE(S_ISLNK(status.st_mode)) << "the last component is not followed";
            ASSERT_EQ(0, TavroOpenDirectory(link, directory));
            ASSERT_EQ(0, TavroStat(directory.Number(), status));
            EXPECT_EQ(TavroIdentityOf(status), TavroIdentityOf(openedStatus));
            EXPECT_EQ(ENOENT, TavroStatPath(path + "/missing", status));
            EXPECT_EQ(0, TavroStatPath(path + std::string(5000, '/'), status));
            TavroDescriptor file = std::move(directory);
            EXPECT_EQ(ENOENT, TavroOpenFile(path + "/missing", file));
        }
    }
}

TEST_F(Posix, a_name_that_is_too_long_is_said_in_paths_of_any_length) {
    struct stat status = {};
    for (const std::string& path :
         {m_box.path().string() + "/" + std::string(256, 'n'), "/" + std::string(5000, 'n'),
          std::string(5000, 'n'), "/x/" + std::string(5000, 'n') + "/y"}) {
        const int error = TavroStatPath(path, status);
        EXPECT_TRUE(error == ENAMETOOLONG || (path[1] == 'x' && error == ENOENT)) << error;
    }
}

TEST_F(Posix, a_path_is_not_cut_at_a_zero_byte) {
    writeFile(m_box / "file");
    const std::string path = (m_box / "file").string() + std::string("\0x", 2);
    struct stat status = {};
    TavroDescriptor file;
    EXPECT_EQ(EINVAL, TavroStatPath(path, status));
    EXPECT_EQ(EINVAL, TavroOpenFile(path, file));
    EXPECT_EQ(EINVAL, TavroOpenDirectory(path, file));
}

// =================================================================================================
// Looking
// =================================================================================================

TEST_F(Posix, looks_at_a_link_or_at_its_target) {
    writeFile(m_box / "file", "1234");
    fs::create_symlink("file", m_box / "link");
    struct stat status = {};
    ASSERT_EQ(0, TavroStatAt(at(), "link", status));
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    ASSERT_EQ(0, TavroStatTargetAt(at(), "link", status));
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(4, status.st_size);
    EXPECT_EQ(ENOENT, TavroStatAt(at(), "missing", status));
}

TEST_F(Posix, looks_at_many_paths_in_one_child_process_and_passes_over_what_does_not_answer) {
    using P = TavroPresence;
    writeFile(m_box / "file");
    makeFifo(m_box / "pipe");
    const auto at = [&](const char* name) { return (m_box / name).string(); };
    EXPECT_EQ(TavroLookInTime({at("file"), at("missing"), at("pipe"), at(""), at("file/x")}, 20000),
              (std::vector<P>{P::Present, P::Missing, P::Present, P::Present, P::Missing}));
    makeDirectory(m_box / "silent");
    runInChild([&] {
        const int served = open("/dev/fuse", O_RDWR | O_CLOEXEC);
        const std::string options =
            "rootmode=40000,user_id=0,group_id=0,fd=" + std::to_string(served);
        if (served < 0 || unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("silent", at("silent").c_str(), "fuse", 0, options.c_str()) != 0) {
            return;
        }
        writeFile(m_box / "mounted");
        EXPECT_EQ(TavroLookInTime({at("file"), at("silent/x"), at("missing")}, 100),
                  (std::vector<P>{P::Present, P::Silent, P::Missing}));
    });
    if (!isPresent(m_box / "mounted")) {
        GTEST_SKIP() << "no file system of this process can be mounted here";
    }
}

TEST_F(Posix, the_status_with_the_mount_is_the_same_status) {
    writeFile(m_box / "file", std::string(100000, 'x'));
    fs::create_hard_link(m_box / "file", m_box / "other");
    const struct timespec times[2] = {{5, 600}, {7, 800}};
    ASSERT_EQ(0, utimensat(at(), "file", times, 0));
    const TavroDescriptor file = opened("file");
    struct stat one = {};
    struct stat other = {};
    std::uint64_t mount = 0;
    ASSERT_EQ(0, TavroStat(file.Number(), one));
    ASSERT_EQ(0, TavroStatWithMount(file.Number(), other, mount));
    EXPECT_EQ(TavroIdentityOf(one), TavroIdentityOf(other));
    EXPECT_EQ(one.st_mode, other.st_mode);
    EXPECT_EQ(one.st_nlink, other.st_nlink);
    EXPECT_EQ(one.st_uid, other.st_uid);
    EXPECT_EQ(one.st_gid, other.st_gid);
    EXPECT_EQ(one.st_size, other.st_size);
    EXPECT_EQ(one.st_blocks, other.st_blocks);
    EXPECT_EQ(TavroNanoseconds(one.st_atim), TavroNanoseconds(other.st_atim));
    EXPECT_EQ(TavroNanoseconds(one.st_mtim), TavroNanoseconds(other.st_mtim));
    EXPECT_EQ(TavroNanoseconds(one.st_ctim), TavroNanoseconds(other.st_ctim));
}

TEST_F(Posix, tells_two_mounts_of_one_file_system_apart) {
    makeDirectory(m_box / "directory");
    makeDirectory(m_box / "again");
    runInChild([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount((m_box / "directory").c_str(), (m_box / "again").c_str(), nullptr, MS_BIND,
                  nullptr) != 0) {
            GTEST_SKIP() << "mounting needs root";
        }
        struct stat one = {};
        struct stat other = {};
        std::uint64_t oneMount = 0;
        std::uint64_t otherMount = 0;
        ASSERT_EQ(0, TavroOpenDirectory(m_box.path(), m_directory)) << "among the new mounts";
        ASSERT_EQ(0, TavroStatWithMount(opened("directory").Number(), one, oneMount));
        ASSERT_EQ(0, TavroStatWithMount(opened("again").Number(), other, otherMount));
        EXPECT_EQ(TavroIdentityOf(one), TavroIdentityOf(other));
        EXPECT_NE(oneMount, otherMount);
    });
}

TEST_F(Posix, asks_what_may_be_done_to_an_entry_itself) {
    makeDirectory(m_box / "closed");
    fs::permissions(m_box / "closed", fs::perms(0500));
    fs::create_symlink("closed", m_box / "link");
    fs::create_symlink("nowhere", m_box / "dangling");
    runUnprivileged(m_box.path(), [&] {
        EXPECT_EQ(0, TavroAccessAt(at(), "closed", R_OK | X_OK));
        EXPECT_EQ(EACCES, TavroAccessAt(at(), "closed", W_OK));
        EXPECT_EQ(EACCES, TavroAccessAt(opened("closed").Number(), ".", W_OK));
        EXPECT_EQ(0, TavroAccessAt(at(), "link", W_OK)) << "a link is not followed";
        EXPECT_EQ(0, TavroAccessAt(at(), "dangling", W_OK));
        EXPECT_EQ(ENOENT, TavroAccessAt(at(), "missing", R_OK));
    });
}

TEST_F(Posix, reads_links_of_any_length) {
    for (const std::size_t length : {1U, 255U, 4095U}) {
        const std::string target(length, 't');
        ASSERT_EQ(0, TavroSymlinkAt(target.c_str(), at(), "link"));
        std::string read;
        EXPECT_EQ(0, TavroReadLinkAt(at(), "link", read));
        EXPECT_EQ(target, read);
        ASSERT_EQ(0, TavroUnlinkAt(at(), "link"));
    }
    std::string untouched = "as before";
    EXPECT_EQ(EINVAL, TavroReadLinkAt(at(), ".", untouched));
    EXPECT_EQ("as before", untouched);
}

TEST_F(Posix, knows_the_path_of_an_open_directory) {
    makeDirectory(m_box / "directory");
    fs::create_symlink("directory", m_box / "link");
    TavroDescriptor directory;
    ASSERT_EQ(0, TavroOpenDirectory(m_box / "link", directory));
    std::string path;
    const TavroDescriptor high(fcntl(directory.Number(), F_DUPFD_CLOEXEC, 300));
    for (const int number : {directory.Number(), high.Number()}) {
        EXPECT_EQ(0, TavroPathOf(number, path));
        EXPECT_EQ(m_box / "directory", path);
    }
    fs::rename(m_box / "directory", m_box / "moved");
    EXPECT_EQ(0, TavroPathOf(directory.Number(), path));
    EXPECT_EQ(m_box / "moved", path);
    fs::remove(m_box / "moved");
    EXPECT_EQ(ENOENT, TavroPathOf(directory.Number(), path));

    const std::string deep = makeDeepTree(m_box / "deep", 30, std::string(200, 'd'));
    ASSERT_EQ(0, TavroOpenDirectory(deep, directory));
    EXPECT_EQ(ENAMETOOLONG, TavroPathOf(directory.Number(), path));
}

// =================================================================================================
// Listing
// =================================================================================================

namespace {

std::map<std::string, unsigned char> entriesOf(int directory) {
    TavroListing listing;
    EXPECT_EQ(0, TavroListDirectory(directory, listing));
    std::map<std::string, unsigned char> entries;
    std::size_t count = 0;
    while (const char* name = listing.Next()) {
        entries[name] = listing.Type();
        ++count;
    }
    EXPECT_EQ(entries.size(), count) << "a name came twice";
    EXPECT_EQ(nullptr, listing.Next());
    return entries;
}

} // namespace

TEST_F(Posix, lists_names_of_any_bytes_with_their_types) {
    EXPECT_TRUE(entriesOf(at()).empty());
    std::map<std::string, unsigned char> expected;
    for (int byte = 1; byte < 256; ++byte) {
        const std::string name = std::string("n") + static_cast<char>(byte);
        if (byte != '/') {
            ASSERT_TRUE(opened(name.c_str(), O_WRONLY | O_CREAT).IsOpen());
            expected[name] = DT_REG;
        }
    }
    ASSERT_EQ(0, TavroMakeDirectoryAt(at(), std::string(255, 'd').c_str(), 0755));
    ASSERT_EQ(0, TavroSymlinkAt("nowhere", at(), "..."));
    ASSERT_EQ(0, TavroMakeFifoAt(at(), "..p", 0600));
    ASSERT_EQ(0, TavroMakeFifoAt(at(), ".p", 0600));
    expected[".p"] = DT_FIFO;
    expected[std::string(255, 'd')] = DT_DIR;
    expected["..."] = DT_LNK;
    expected["..p"] = DT_FIFO;
    EXPECT_EQ(expected, entriesOf(at()));
    EXPECT_EQ(expected, entriesOf(at())) << "the second time it begins anew";
}

TEST_F(Posix, lists_thousands_of_entries) {
    const Sandbox box(inMemory());
    TavroDescriptor directory;
    ASSERT_EQ(0, TavroOpenDirectory(box.path(), directory));
    for (int i = 0; i < 5000; ++i) {
        const std::string name = "a name of some length, number " + std::to_string(i);
        ASSERT_EQ(0, TavroSymlinkAt("x", directory.Number(), name.c_str()));
    }
    EXPECT_EQ(5000U, entriesOf(directory.Number()).size());
}

TEST_F(Posix, a_listing_without_types_says_so) {
    writeFile(m_box / "file");
    makeDirectory(m_box / "directory");
    const FaultInjector injector({{"getdents64", 0}});
    const std::map<std::string, unsigned char> expected = {{"file", DT_UNKNOWN},
                                                           {"directory", DT_UNKNOWN}};
    EXPECT_EQ(expected, entriesOf(at()));
    EXPECT_EQ(1, injector.fired());
}

TEST_F(Posix, a_directory_that_was_removed_is_empty_and_one_that_fails_is_not) {
    makeDirectory(m_box / "directory");
    const TavroDescriptor directory = opened("directory");
    writeFile(m_box / "directory/file");
    {
        const FaultInjector injector({{"getdents64", EIO, "directory", 2}});
        TavroListing listing;
        EXPECT_EQ(EIO, TavroListDirectory(directory.Number(), listing));
        EXPECT_EQ(1, injector.fired());
        EXPECT_EQ(nullptr, listing.Next());
    }
    fs::remove_all(m_box / "directory");
    EXPECT_TRUE(entriesOf(directory.Number()).empty());
}

// =================================================================================================
// Changing names
// =================================================================================================

TEST_F(Posix, renames_without_replacing_anything_of_any_kind) {
    makeDirectory(m_box / "directory");
    makeDirectory(m_box / "empty");
    writeFile(m_box / "file", "file");
    fs::create_symlink("nowhere", m_box / "dangling");
    // The second and third time by a file system that has no such call.
    for (const int error : {0, EINVAL, ENOSYS}) {
        std::vector<Fault> faults;
        if (error != 0) {
            faults = {{"renameat2", error, "", 1, true}};
        }
        const FaultInjector injector(faults);
        for (const char* from : {"directory", "file", "dangling"}) {
            for (const char* to : {"empty", "file", "dangling", "directory"}) {
                EXPECT_EQ(EEXIST, TavroRenameNoReplace(at(), from, at(), to))
                    << from << to << error;
            }
            EXPECT_EQ(0, TavroRenameNoReplace(at(), from, at(), "free"));
            EXPECT_EQ(0, TavroRenameNoReplace(at(), "free", at(), from));
        }
        EXPECT_EQ(ENOENT, TavroRenameNoReplace(at(), "missing", at(), "free"));
        EXPECT_EQ(EINVAL,
                  TavroRenameNoReplace(at(), "directory", opened("directory").Number(), "x"));
        EXPECT_EQ(error != 0, injector.fired() > 0);
    }
    EXPECT_EQ("file", readFile(m_box / "file"));
}

TEST_F(Posix, another_name_of_a_file_is_no_other_spelling_of_its_name) {
    writeFile(m_box / "a", "a");
    ASSERT_EQ(0, link((m_box / "a").c_str(), (m_box / "A").c_str()));
    EXPECT_FALSE(TavroIsOtherSpelling(at(), "a", at(), "A"));
    EXPECT_FALSE(TavroIsOtherSpelling(at(), "a", at(), "a"));
    EXPECT_FALSE(TavroIsOtherSpelling(at(), "a", at(), "missing"));
    EXPECT_EQ(EEXIST, TavroRenameNoReplace(at(), "a", at(), "A"));
    EXPECT_EQ(readFile(m_box / "a") + readFile(m_box / "A"), "aa");
}

TEST_F(Posix, without_the_kernels_help_a_name_that_cannot_be_looked_at_is_not_taken_for_free) {
    writeFile(m_box / "file");
    const FaultInjector injector({{"renameat2", EINVAL}, {"fstatat", EACCES, "new"}});
    EXPECT_EQ(EACCES, TavroRenameNoReplace(at(), "file", at(), "new"));
    EXPECT_TRUE(injector.eachFired());
    EXPECT_TRUE(isPresent(m_box / "file"));
    EXPECT_FALSE(isPresent(m_box / "new"));
}

TEST_F(Posix, an_exchange_in_three_steps_that_fails_at_the_last_gives_back_the_names) {
    writeFile(m_box / "a", "a");
    writeFile(m_box / "b", "b");
    const FaultInjector injector({{"renameat2", EINVAL}, {"renameat2", EIO, "a-old"}});
    EXPECT_EQ(EIO, TavroExchange(at(), "a", at(), "b"));
    EXPECT_TRUE(injector.eachFired());
    EXPECT_EQ("a", readFile(m_box / "a"));
    EXPECT_EQ("b", readFile(m_box / "b"));
    EXPECT_FALSE(isPresent(m_box / "a-old"));
}

TEST_F(Posix, renames_replaces_exchanges_and_links) {
    writeFile(m_box / "a", "a");
    writeFile(m_box / "b", "b");
    EXPECT_EQ(0, TavroExchange(at(), "a", at(), "b"));
    EXPECT_EQ("b", readFile(m_box / "a"));
    EXPECT_EQ("a", readFile(m_box / "b"));
    EXPECT_EQ(ENOENT, TavroExchange(at(), "a", at(), "missing"));
    EXPECT_EQ(0, TavroRename(at(), "a", at(), "b"));
    EXPECT_FALSE(isPresent(m_box / "a"));
    EXPECT_EQ("b", readFile(m_box / "b"));

    fs::create_symlink("b", m_box / "link");

    const TavroDescriptor file = opened("b");
    EXPECT_EQ(0, TavroLinkOpenAt(file.Number(), at(), "again"));
    EXPECT_EQ("b", readFile(m_box / "again"));
    EXPECT_EQ(EEXIST, TavroLinkOpenAt(file.Number(), at(), "link"));
}

TEST_F(Posix, an_open_file_gets_a_name_by_older_kernels_too) {
    writeFile(m_box / "file", "bytes");
    const TavroDescriptor file = opened("file");
    const FaultInjector injector({{"linkat", ENOENT, "file"}});
    EXPECT_EQ(0, TavroLinkOpenAt(file.Number(), at(), "again"));
    EXPECT_EQ(1, injector.fired());
    EXPECT_EQ("bytes", readFile(m_box / "again"));
}

TEST_F(Posix, removes_files_and_directories_by_calls_of_their_own) {
    writeFile(m_box / "file");
    makeDirectory(m_box / "directory");
    fs::create_symlink("directory", m_box / "link");
    EXPECT_EQ(ENOTDIR, TavroRemoveDirectoryAt(at(), "file"));
    EXPECT_EQ(ENOTDIR, TavroRemoveDirectoryAt(at(), "link"));
    EXPECT_EQ(EISDIR, TavroUnlinkAt(at(), "directory"));
    EXPECT_EQ(0, TavroUnlinkAt(at(), "link"));
    EXPECT_EQ(0, TavroUnlinkAt(at(), "file"));
    EXPECT_EQ(0, TavroRemoveDirectoryAt(at(), "directory"));
    EXPECT_TRUE(fs::is_empty(m_box.path()));
}

// =================================================================================================
// Bytes
// =================================================================================================

TEST_F(Posix, writes_all_bytes_and_reads_them_at_offsets) {
    const std::string bytes = "0123456789abcdef";
    const TavroDescriptor file = opened("file", O_RDWR | O_CREAT);
    const FaultInjector injector({{"pwrite", 0, "file", 1, true}});
    EXPECT_EQ(0, TavroWriteAt(file.Number(), bytes.data(), bytes.size(), 4));
    EXPECT_EQ(5, injector.fired()) << "each call wrote half of what was left";
    EXPECT_EQ(std::string(4, '\0') + bytes, readFile(m_box / "file"));

    std::string read(8, '?');
    std::size_t count = 0;
    EXPECT_EQ(0, TavroReadAt(file.Number(), read.data(), read.size(), 10, count));
    EXPECT_EQ(8U, count);
    EXPECT_EQ("6789abcd", read);
    EXPECT_EQ(0, TavroReadAt(file.Number(), read.data(), read.size(), 20, count));
    EXPECT_EQ(0U, count);
}

TEST_F(Posix, lets_the_kernel_copy_at_the_same_offset) {
    writeFile(m_box / "from", "0123456789");
    const TavroDescriptor from = opened("from");
    const TavroDescriptor to = opened("to", O_RDWR | O_CREAT);
    std::size_t count = 0;
    const int error = TavroCopyRange(from.Number(), to.Number(), 3, 4, count);
    if (error == EXDEV || error == EOPNOTSUPP || error == ENOSYS) {
        GTEST_SKIP() << "this file system does not copy within the kernel";
    }
    ASSERT_EQ(0, error);
    EXPECT_EQ(4U, count);
    EXPECT_EQ(std::string(3, '\0') + "3456", readFile(m_box / "to"));
    EXPECT_EQ(0, TavroCopyRange(from.Number(), to.Number(), 10, 4, count));
    EXPECT_EQ(0U, count);
}

TEST_F(Posix, shares_blocks_or_says_that_it_cannot) {
    writeFile(m_box / "from", "bytes");
    const TavroDescriptor from = opened("from");
    const TavroDescriptor to = opened("to", O_RDWR | O_CREAT);
    const int error = TavroCloneFile(from.Number(), to.Number());
    EXPECT_EQ(error == 0 ? "bytes" : "", readFile(m_box / "to"));
}

TEST_F(Posix, finds_data_and_holes) {
    const TavroDescriptor file = opened("file", O_RDWR | O_CREAT);
    ASSERT_EQ(0, TavroTruncate(file.Number(), 1 << 20));
    ASSERT_EQ(0, TavroWriteAt(file.Number(), "x", 1, 1 << 19));
    off_t found = -1;
    ASSERT_EQ(0, TavroSeek(file.Number(), 1 << 19, SEEK_HOLE, found));
    EXPECT_GT(found, 1 << 19);
    EXPECT_EQ(ENXIO, TavroSeek(file.Number(), 1 << 20, SEEK_DATA, found));
}

TEST_F(Posix, reads_a_whole_file_that_is_not_too_long) {
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 70000U}) {
        std::string bytes(size, 'b');
        writeFile(m_box / "file", bytes);
        const TavroDescriptor file = opened("file");
        std::string read = "as before";
        EXPECT_EQ(size == 0 ? 0 : EFBIG,
                  TavroReadFile(file.Number(), size == 0 ? 0 : size - 1, read));
        EXPECT_EQ(size == 0 ? "" : "as before", read);
        const FaultInjector injector({{"pread", 0, "file"}});
        EXPECT_EQ(0, TavroReadFile(file.Number(), size, read));
        EXPECT_EQ(bytes, read);
    }
}

// =================================================================================================
// Attributes
// =================================================================================================

TEST_F(Posix, sets_mode_and_times_of_open_files_and_of_what_cannot_be_opened) {
    writeFile(m_box / "file");
    makeFifo(m_box / "pipe");
    fs::create_symlink("file", m_box / "link");
    const struct timespec access = {100, 200};
    const struct timespec changed = {300, 400};
    const TavroDescriptor file = opened("file");
    EXPECT_EQ(0, TavroSetMode(file.Number(), 0604));
    EXPECT_EQ(0, TavroSetOwner(file.Number(), geteuid(), getegid()));
    EXPECT_EQ(0, TavroSetTimes(file.Number(), access, changed));
    const TavroDescriptor pipe = opened("pipe", O_PATH);
    EXPECT_EQ(0, TavroSetPathMode(pipe.Number(), 0604));
    EXPECT_EQ(0, TavroSetOwner(pipe.Number(), geteuid(), getegid()));
    EXPECT_EQ(0, TavroSetPathTimes(pipe.Number(), access, changed));
    const TavroDescriptor link = opened("link", O_PATH);
    EXPECT_EQ(0, TavroSetPathTimes(link.Number(), access, changed));
    for (const char* name : {"file", "pipe", "link"}) {
        struct stat status = {};
        ASSERT_EQ(0, TavroStatAt(at(), name, status));
        EXPECT_EQ(TavroNanoseconds(access), TavroNanoseconds(status.st_atim)) << name;
        EXPECT_EQ(TavroNanoseconds(changed), TavroNanoseconds(status.st_mtim)) << name;
        EXPECT_TRUE(S_ISLNK(status.st_mode) || (status.st_mode & 07777U) == 0604U) << name;
    }
}

TEST_F(Posix, keeps_extended_attributes_of_any_size_by_either_kind_of_descriptor) {
    writeFile(m_box / "file");
    for (const int flags : {O_RDONLY, O_PATH}) {
        const TavroDescriptor file = opened("file", flags);
        std::set<std::string> names;
        for (const std::size_t size : {0U, 1U, 256U, 257U, 1500U}) {
            const std::string name = "user." + std::string(200, 'n') + std::to_string(size);
            const std::string value(size, 'v');
            const int error = TavroSetAttribute(file.Number(), name.c_str(), value);
            if (error == EOPNOTSUPP) {
                GTEST_SKIP() << "this file system holds no extended attributes";
            }
            ASSERT_EQ(0, error) << size;
            std::string read;
            EXPECT_EQ(0, TavroGetAttribute(file.Number(), name.c_str(), read));
            EXPECT_EQ(value, read);
            names.insert(name);
        }
        std::string list;
        ASSERT_EQ(0, TavroListAttributes(file.Number(), list));
        for (std::size_t from = 0; from < list.size(); from = list.find('\0', from) + 1) {
            const std::string name = list.c_str() + from;
            EXPECT_TRUE(names.erase(name) == 1 || name.rfind("user.", 0) != 0) << name;
            EXPECT_TRUE(name.rfind("user.", 0) != 0 ||
                        TavroRemoveAttribute(file.Number(), name.c_str()) == 0);
        }
        EXPECT_TRUE(names.empty()) << *names.begin();
        std::string untouched = "as before";
        EXPECT_EQ(ENODATA, TavroGetAttribute(file.Number(), "user.none", untouched));
        EXPECT_EQ("as before", untouched);
    }
}

// =================================================================================================
// The disk
// =================================================================================================

TEST_F(Posix, a_file_system_that_cannot_sync_is_no_error_and_one_that_fails_is) {
    for (const char* call : {"fsync", "syncfs"}) {
        const auto sync = [&] {
            return call == std::string("fsync") ? TavroSync(at()) : TavroSyncFileSystem(at());
        };
        EXPECT_EQ(0, sync());
        for (const int error : {EINVAL, EIO, ENOSPC, EDQUOT}) {
            const FaultInjector injector({{call, error}});
            EXPECT_EQ(error == EINVAL ? 0 : error, sync());
            EXPECT_EQ(1, injector.fired());
        }
    }
}

TEST_F(Posix, a_directory_that_cannot_be_read_reaches_the_disk_with_its_file_system) {
    makeDirectory(m_box / "drop");
    fs::permissions(m_box / "drop", fs::perms(0300));
    runUnprivileged(m_box.path(), [&] {
        TavroDescriptor directory;
        ASSERT_EQ(0, TavroOpenDirectory(m_box / "drop", directory));
        for (const auto& sync : {TavroSync, TavroSyncFileSystem}) {
            int synced = 0;
            {
                // Once on the directory, in vain, and once on a file without a name.
                const CallObserver observer([&](const std::string& call, const std::string&) {
                    synced += call == "syncfs" ? 1 : 0;
                });
                EXPECT_EQ(0, sync(directory.Number()));
            }
            EXPECT_EQ(2, synced);
            const FaultInjector injector({{"syncfs", EIO, "", 2}});
            EXPECT_EQ(EIO, sync(directory.Number()));
        }
    });
}

// =================================================================================================
// Interruptions and errors of every call
// =================================================================================================

namespace {

struct FloorCall {
    const char* Name;
    std::function<int()> Make;
};

} // namespace

TEST_F(Posix, every_call_is_made_again_when_it_is_interrupted_and_hands_on_its_error) {
    writeFile(m_box / "file", "bytes");
    const TavroDescriptor file = opened("file", O_RDWR);
    const TavroDescriptor path = opened("file", O_PATH);
    TavroDescriptor to;
    struct stat status = {};
    std::uint64_t mount = 0;
    std::string text;
    char byte = 'x';
    std::size_t count = 0;
    off_t offset = 0;
    TavroListing listing;
    const struct timespec time = {};
    const std::string box = m_box.path();
    const int f = file.Number();
    // Each undoes what the one before it did, so that all of them can be made twice.
    const std::vector<FloorCall> calls = {
        {"openat", [&] { return TavroOpenAt(at(), "file", O_RDONLY, to); }},
        {"openat", [&] { return TavroOpenDirectoryAt(at(), ".", to); }},
        {"openat", [&] { return TavroOpenDirectory(box, to); }},
        {"openat", [&] { return TavroOpenFile(box + "/file", to); }},
        {"fstatat", [&] { return TavroStatAt(at(), "file", status); }},
        {"fstatat", [&] { return TavroStatTargetAt(at(), "file", status); }},
        {"fstatat", [&] { return TavroStatPath(box, status); }},
        {"fstat", [&] { return TavroStat(f, status); }},
        {"statx", [&] { return TavroStatWithMount(f, status, mount); }},
        {"faccessat", [&] { return TavroAccessAt(at(), "file", R_OK); }},
        {"readlinkat", [&] { return TavroPathOf(at(), text); }},
        {"fstat", [&] { return TavroPathOf(at(), text); }},
        {"getdents64", [&] { return TavroListDirectory(at(), listing); }},
        {"mkdirat", [&] { return TavroMakeDirectoryAt(at(), "a", 0755); }},
        {"renameat2", [&] { return TavroRenameNoReplace(at(), "a", at(), "b"); }},
        {"renameat", [&] { return TavroRename(at(), "b", at(), "a"); }},
        {"renameat2", [&] { return TavroExchange(at(), "a", at(), "file"); }},
        {"renameat2", [&] { return TavroExchange(at(), "file", at(), "a"); }},
        {"unlinkat", [&] { return TavroRemoveDirectoryAt(at(), "a"); }},
        {"linkat", [&] { return TavroLinkOpenAt(f, at(), "a"); }},
        {"unlinkat", [&] { return TavroUnlinkAt(at(), "a"); }},
        {"symlinkat", [&] { return TavroSymlinkAt("x", at(), "a"); }},
        {"readlinkat", [&] { return TavroReadLinkAt(at(), "a", text); }},
        {"unlinkat", [&] { return TavroUnlinkAt(at(), "a"); }},
        {"mkfifoat", [&] { return TavroMakeFifoAt(at(), "a", 0600); }},
        {"unlinkat", [&] { return TavroUnlinkAt(at(), "a"); }},
        {"pread", [&] { return TavroReadAt(f, &byte, 1, 0, count); }},
        {"pread", [&] { return TavroReadFile(f, 100, text); }},
        {"pwrite", [&] { return TavroWriteAt(f, &byte, 1, 0); }},
        {"lseek", [&] { return TavroSeek(f, 0, SEEK_DATA, offset); }},
        {"ftruncate", [&] { return TavroTruncate(f, 5); }},
        {"fchmod", [&] { return TavroSetMode(f, 0644); }},
        {"fchownat", [&] { return TavroSetOwner(f, geteuid(), getegid()); }},
        {"futimens", [&] { return TavroSetTimes(f, time, time); }},
        {"chmod", [&] { return TavroSetPathMode(path.Number(), 0644); }},
        {"utimensat", [&] { return TavroSetPathTimes(path.Number(), time, time); }},
        {"flistxattr", [&] { return TavroListAttributes(f, text); }},
        {"listxattr", [&] { return TavroListAttributes(path.Number(), text); }},
        {"fsetxattr", [&] { return TavroSetAttribute(f, "user.a", "1"); }},
        {"fgetxattr", [&] { return TavroGetAttribute(f, "user.a", text); }},
        {"fremovexattr", [&] { return TavroRemoveAttribute(f, "user.a"); }},
        {"setxattr", [&] { return TavroSetAttribute(path.Number(), "user.a", "1"); }},
        {"getxattr", [&] { return TavroGetAttribute(path.Number(), "user.a", text); }},
        {"removexattr", [&] { return TavroRemoveAttribute(path.Number(), "user.a"); }},
        {"fsync", [&] { return TavroSync(f); }},
        {"syncfs", [&] { return TavroSyncFileSystem(f); }},
    };
    for (const FloorCall& call : calls) {
        SCOPED_TRACE(call.Name);
        {
            const FaultInjector injector({{call.Name, EIO}});
            EXPECT_EQ(EIO, call.Make());
            EXPECT_EQ(1, injector.fired());
        }
        const bool bCanBeInterrupted = call.Name != std::string("lseek");
        const FaultInjector injector(
            {{call.Name, bCanBeInterrupted ? EINTR : EIO, "", bCanBeInterrupted ? 1 : 2}});
        EXPECT_EQ(0, call.Make());
        EXPECT_EQ(bCanBeInterrupted ? 1 : 0, injector.fired());
    }
}
