// Copying the bytes and the attributes of one file, by whatever way the kernel offers, and when its
// calls fail.

#include "file_copy.h"

#include "fault_injector.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

// =================================================================================================
// Calls that a test can watch or change
// =================================================================================================

namespace {

/// What becomes of a call that moves bytes: a number of them to ask the kernel for, or an errno as
/// a negative number.
using ByteHook = std::function<ssize_t(std::size_t count, off_t offset)>;
ByteHook g_onCopyFileRange;
ByteHook g_onPRead;
ByteHook g_onPWrite;
std::function<int(int to, int from)> g_onShareBlocks; ///< An errno, or 0: shared.
std::function<int(int descriptor)> g_onFStat;         ///< An errno, or 0: as it is.

/// While it lives, a hook is set.
template <typename Hook> class Scoped {
public:
    Scoped(Hook& place, Hook hook) : m_place(place) {
        m_place = std::move(hook);
    }
    ~Scoped() {
        m_place = nullptr;
    }
    Scoped(const Scoped&) = delete;
    Scoped& operator=(const Scoped&) = delete;

private:
    Hook& m_place;
};
using ScopedBytes = Scoped<ByteHook>;

/// How many bytes the real call is made for; below 0 when it fails, with errno set.
ssize_t allowed(const ByteHook& hook, std::size_t count, off_t offset) {
    const ssize_t bytes = hook ? hook(count, offset) : static_cast<ssize_t>(count);
    if (bytes < 0) {
        errno = static_cast<int>(-bytes);
    }
    return bytes;
}

template <typename Function> Function* original(Function* /*like*/, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// NOLINTBEGIN: the C library's own names and signatures
extern "C" {

ssize_t copy_file_range(int from, off_t* fromOffset, int to, off_t* toOffset, std::size_t count,
                        unsigned flags) {
    const ssize_t bytes = allowed(g_onCopyFileRange, count, *fromOffset);
    static const auto real = original(&copy_file_range, "copy_file_range");
    return bytes <= 0
               ? bytes
               : real(from, fromOffset, to, toOffset, static_cast<std::size_t>(bytes), flags);
}

ssize_t pread(int descriptor, void* bytes, std::size_t count, off_t offset) {
    const ssize_t some = allowed(g_onPRead, count, offset);
    static const auto real = original(&pread, "pread");
    return some <= 0 ? some : real(descriptor, bytes, static_cast<std::size_t>(some), offset);
}

ssize_t pwrite(int descriptor, const void* bytes, std::size_t count, off_t offset) {
    const ssize_t some = allowed(g_onPWrite, count, offset);
    static const auto real = original(&pwrite, "pwrite");
    return some <= 0 ? some : real(descriptor, bytes, static_cast<std::size_t>(some), offset);
}

int fstat(int descriptor, struct stat* status) noexcept {
    const int error = g_onFStat ? g_onFStat(descriptor) : 0;
    if (error != 0) {
        errno = error;
        return -1;
    }
    static const auto real = reinterpret_cast<decltype(&fstat)>(dlsym(RTLD_NEXT, "fstat"));
    return real(descriptor, status);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == FICLONE && g_onShareBlocks) {
        errno = g_onShareBlocks(descriptor, static_cast<int>(reinterpret_cast<long>(argument)));
        return errno == 0 ? 0 : -1;
    }
    using Ioctl = int (*)(int, unsigned long, ...);
    static const auto real = reinterpret_cast<Ioctl>(dlsym(RTLD_NEXT, "ioctl"));
    return real(descriptor, request, argument);
}

} // extern "C"
// NOLINTEND

namespace {

// =================================================================================================
// One copy in a sandbox
// =================================================================================================

constexpr std::size_t kibibyte = std::size_t{1} << 10U;
constexpr std::size_t mebibyte = std::size_t{1} << 20U;

std::string bytesOf(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>('a' + (i / 7 + i / 4096) % 26);
    }
    return bytes;
}

class FileCopyTest : public testing::Test {
protected:
    bool copy(bool bSync = false) {
        m_told = 0;
        m_monitor.OnBytes = [this](std::uint64_t bytes) { m_told += bytes; };
        m_failure = TavroCopyRegularFile(m_from, m_to, bSync, m_monitor, m_status, m_ec);
        EXPECT_EQ(m_failure.empty(), !m_ec);
        return !m_ec;
    }

    /// The sentence of the last copy, with paths below the sandbox.
    std::string failure() const {
        std::string text = m_failure;
        const std::string box = m_box.path().string();
        for (std::size_t at = text.find(box); at != std::string::npos; at = text.find(box)) {
            text.erase(at, box.size());
        }
        return text;
    }

    /// Expects a failed copy that leaves nothing behind and the source alone.
    void expectFailure(const std::string& sentence, std::errc error) {
        const Snapshot before = takeSnapshot(m_from);
        EXPECT_FALSE(copy());
        EXPECT_EQ(sentence, failure());
        EXPECT_EQ(std::make_error_code(error).value(), m_ec.value());
        EXPECT_FALSE(isPresent(m_to));
        EXPECT_EQ(before, takeSnapshot(m_from));
    }

    void expectWhole(const std::string& bytes) {
        ASSERT_TRUE(copy()) << failure();
        EXPECT_TRUE(bytes == readFile(m_to)) << "the bytes differ";
        EXPECT_EQ(bytes.size(), m_told);
        fs::remove(m_to);
    }

    Sandbox m_box;
    fs::path m_from = m_box / "from";
    fs::path m_to = m_box / "to";
    TavroCopyMonitor m_monitor;
    struct stat m_status = {};
    std::uint64_t m_told = 0;
    std::string m_failure;
    std::error_code m_ec;
};

using CopyRegularFile = FileCopyTest;

// =================================================================================================
// Contents
// =================================================================================================

TEST_F(CopyRegularFile, copies_every_size_by_every_way) {
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, std::size_t{4096}, 64 * kibibyte - 1, 64 * kibibyte,
          64 * kibibyte + 1, 4 * mebibyte - 1, 4 * mebibyte, 4 * mebibyte + 1, 9 * mebibyte}) {
        SCOPED_TRACE(std::to_string(size) + " bytes");
        const std::string bytes = bytesOf(size);
        writeFile(m_from, bytes);
        expectWhole(bytes);
        for (const ssize_t answer : {-EXDEV, -ENOSYS, -EINVAL, -EINTR, 0}) {
            const ScopedBytes hook(g_onCopyFileRange,
                                   [=](std::size_t, off_t) { return ssize_t{answer}; });
            expectWhole(bytes);
        }
    }
}

TEST_F(CopyRegularFile, copies_to_another_file_system) {
    if (!fs::is_directory(secondFileSystem) ||
        !onDifferentDevices(secondFileSystem, m_box.path())) {
        GTEST_SKIP() << "there is no second file system at " << secondFileSystem;
    }
    const Sandbox other(secondFileSystem);
    m_to = other / "to";
    const std::string bytes = bytesOf(5 * mebibyte + 3);
    writeFile(m_from, bytes);
    expectWhole(bytes);
}

TEST_F(CopyRegularFile, goes_on_where_the_kernel_stopped_half_way) {
    const std::string bytes = bytesOf(9 * mebibyte);
    writeFile(m_from, bytes);
    int calls = 0;
    const ScopedBytes hook(g_onCopyFileRange, [&](std::size_t count, off_t) {
        ++calls;
        return calls < 4 ? static_cast<ssize_t>(count / 3) : ssize_t{-EXDEV};
    });
    expectWhole(bytes);
    EXPECT_EQ(4, calls);
}

TEST_F(CopyRegularFile, goes_on_after_interrupted_and_partial_reads_and_writes) {
    const std::string bytes = bytesOf(50000);
    writeFile(m_from, bytes);
    int calls = 0;
    const auto flaky = [&](std::size_t count, off_t) {
        ++calls;
        return calls % 2 == 0 ? ssize_t{-EINTR} : static_cast<ssize_t>(count / 2 + 1);
    };
    const ScopedBytes reads(g_onPRead, flaky);
    const ScopedBytes writes(g_onPWrite, flaky);
    expectWhole(bytes);
    EXPECT_GT(calls, 20);
}

TEST_F(CopyRegularFile, reads_files_of_the_kernel_to_their_end) {
    m_from = "/proc/version";
    if (!isPresent(m_from)) {
        GTEST_SKIP() << "there is no /proc here";
    }
    ASSERT_EQ(0U, fs::file_size(m_from));
    EXPECT_TRUE(copy()) << failure();
    EXPECT_EQ(readFile(m_from), readFile(m_to));
    EXPECT_NE("", readFile(m_to));
}

TEST_F(CopyRegularFile, shares_blocks_where_the_file_system_can) {
    const std::string bytes = bytesOf(100000);
    writeFile(m_from, bytes);
    const Scoped<decltype(g_onShareBlocks)> hook(g_onShareBlocks, [&](int to, int) {
        return write(to, bytes.data(), bytes.size()) == 100000 ? 0 : EIO;
    });
    const ScopedBytes noReading(g_onPRead, [](std::size_t, off_t) { return ssize_t{-EIO}; });
    const ScopedBytes noCopying(g_onCopyFileRange,
                                [](std::size_t, off_t) { return ssize_t{-EIO}; });
    expectWhole(bytes);
}

TEST_F(CopyRegularFile, shares_no_more_than_what_was_there_when_the_copy_began) {
    const std::string bytes = bytesOf(100000);
    writeFile(m_from, bytes);
    const Scoped<decltype(g_onShareBlocks)> hook(g_onShareBlocks, [&](int to, int) {
        const std::string grown = bytes + "appended meanwhile";
        return write(to, grown.data(), grown.size()) == 100018 ? 0 : EIO;
    });
    expectWhole(bytes);
}

// =================================================================================================
// Holes
// =================================================================================================

/// A file with these pieces of data, each 64 KiB long, and holes between them.
void makeSparse(const fs::path& file, const std::vector<off_t>& data, off_t size) {
    writeFile(file);
    const int number = open(file.c_str(), O_WRONLY | O_CLOEXEC);
    const std::string bytes = bytesOf(64 * kibibyte);
    for (const off_t offset : data) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
                  pwrite(number, bytes.data(), bytes.size(), offset));
    }
    ASSERT_EQ(0, ftruncate(number, size));
    ASSERT_EQ(0, close(number));
}

/// Where data begins and ends, as the file system tells it.
std::vector<off_t> layoutOf(const fs::path& file) {
    std::vector<off_t> layout;
    const int number = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    for (off_t at = lseek(number, 0, SEEK_DATA); at >= 0; at = lseek(number, at, SEEK_DATA)) {
        layout.push_back(at);
        at = lseek(number, at, SEEK_HOLE);
        layout.push_back(at);
    }
    close(number);
    return layout;
}

TEST_F(CopyRegularFile, keeps_holes_wherever_they_are) {
    constexpr off_t piece = 64 << 10;
    const std::vector<std::pair<std::vector<off_t>, off_t>> files = {
        {{}, 10 * piece},
        {{}, 5},
        {{0}, 100 * piece},
        {{99 * piece}, 100 * piece},
        {{0, 50 * piece, 99 * piece}, 100 * piece},
        {{20 * piece, 21 * piece, 60 * piece}, 100 * piece + 17},
        {{1 * piece}, 2 * piece},
    };
    for (const auto& [data, size] : files) {
        for (const bool bInKernel : {true, false}) {
            fs::remove(m_from);
            makeSparse(m_from, data, size);
            const ScopedBytes hook(g_onCopyFileRange, [=](std::size_t count, off_t) {
                return bInKernel ? static_cast<ssize_t>(count) : ssize_t{-EXDEV};
            });
            ASSERT_TRUE(copy()) << failure();
            EXPECT_EQ(static_cast<std::uint64_t>(size), m_told);
            EXPECT_EQ(layoutOf(m_from), layoutOf(m_to));
            EXPECT_TRUE(readFile(m_from) == readFile(m_to)) << "the bytes differ";
            struct stat arrived = {};
            ASSERT_EQ(0, stat(m_to.c_str(), &arrived));
            EXPECT_LE(arrived.st_blocks, m_status.st_blocks + 8);
            fs::remove(m_to);
        }
    }
}

TEST_F(CopyRegularFile, copies_files_beyond_4_gibibytes) {
    constexpr off_t place = 4500000000;
    makeSparse(m_from, {0, place}, 5000000000);
    ASSERT_TRUE(copy()) << failure();
    EXPECT_EQ(5000000000U, fs::file_size(m_to));
    EXPECT_EQ(5000000000U, m_told);
    EXPECT_EQ(layoutOf(m_from), layoutOf(m_to));
    std::string bytes(64 * kibibyte, '\0');
    const int number = open(m_to.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(65536, pread(number, bytes.data(), bytes.size(), place));
    close(number);
    EXPECT_EQ(bytesOf(64 * kibibyte), bytes);
}

// =================================================================================================
// Failures
// =================================================================================================

TEST_F(CopyRegularFile, says_when_there_is_no_source) {
    expectFailure("Cannot read '/from': " + systemText(std::errc::no_such_file_or_directory),
                  std::errc::no_such_file_or_directory);
}

TEST_F(CopyRegularFile, follows_no_link) {
    writeFile(m_box / "real", "bytes");
    fs::create_symlink("real", m_from);
    expectFailure("Cannot read '/from': " + systemText(std::errc::too_many_symbolic_link_levels),
                  std::errc::too_many_symbolic_link_levels);
}

TEST_F(CopyRegularFile, does_not_wait_for_what_is_a_pipe_by_now) {
    makeFifo(m_from);
    expectFailure("Cannot read '/from': " + systemText(std::errc::io_error), std::errc::io_error);
}

TEST_F(CopyRegularFile, replaces_nothing) {
    writeFile(m_from, "new");
    writeFile(m_box / "real", "real");
    for (const bool bLink : {false, true}) {
        fs::remove(m_to);
        bLink ? fs::create_symlink("real", m_to) : writeFile(m_to, "old");
        const Snapshot before = takeSnapshot(m_box.path());
        EXPECT_FALSE(copy());
        EXPECT_EQ("Cannot create '/to': " + systemText(std::errc::file_exists), failure());
        EXPECT_EQ(before, takeSnapshot(m_box.path()));
    }
}

TEST_F(CopyRegularFile, names_a_full_disk_whichever_call_meets_it) {
    const std::string sentence =
        "Cannot copy '/from': " + systemText(std::errc::no_space_on_device);
    writeFile(m_from, bytesOf(9 * mebibyte));
    const auto fullLater = [](std::size_t count, off_t offset) {
        return offset > 4000000 ? ssize_t{-ENOSPC} : static_cast<ssize_t>(count);
    };
    {
        const ScopedBytes hook(g_onCopyFileRange, fullLater);
        const ScopedBytes writes(g_onPWrite, [](std::size_t, off_t) { return ssize_t{-EIO}; });
        expectFailure(sentence, std::errc::no_space_on_device);
    }
    const ScopedBytes hook(g_onCopyFileRange, [](std::size_t, off_t) { return ssize_t{-EXDEV}; });
    const ScopedBytes writes(g_onPWrite, fullLater);
    expectFailure(sentence, std::errc::no_space_on_device);
}

TEST_F(CopyRegularFile, names_a_source_that_cannot_be_read_to_its_end) {
    writeFile(m_from, bytesOf(50000));
    const ScopedBytes hook(g_onPRead, [](std::size_t, off_t) { return ssize_t{-EIO}; });
    expectFailure("Cannot copy '/from': " + systemText(std::errc::io_error), std::errc::io_error);
}

TEST_F(CopyRegularFile, a_write_of_no_bytes_is_a_failure) {
    writeFile(m_from, "bytes");
    const ScopedBytes hook(g_onPWrite, [](std::size_t, off_t) { return ssize_t{0}; });
    expectFailure("Cannot copy '/from': " + systemText(std::errc::io_error), std::errc::io_error);
}

TEST_F(CopyRegularFile, an_error_that_the_close_brings_is_a_failure) {
    writeFile(m_from, "bytes");
    const FaultInjector faults({{"close", EDQUOT, m_to.string()}});
    EXPECT_FALSE(copy());
    EXPECT_EQ("Cannot write '/to': " + std::error_code(EDQUOT, std::generic_category()).message(),
              failure());
    EXPECT_EQ(1, faults.fired());
    EXPECT_FALSE(isPresent(m_to));
}

TEST_F(CopyRegularFile, syncs_when_it_is_to_and_an_error_of_that_is_a_failure) {
    writeFile(m_from, "bytes");
    const FaultInjector faults({{"fsync", ENOSPC, m_to.string()}});
    EXPECT_TRUE(copy(false));
    EXPECT_EQ(0, faults.fired());
    fs::remove(m_to);
    EXPECT_FALSE(copy(true));
    EXPECT_EQ(1, faults.fired());
    EXPECT_EQ("Cannot write '/to': " + systemText(std::errc::no_space_on_device), failure());
    EXPECT_FALSE(isPresent(m_to));
    EXPECT_TRUE(copy(true));
}

TEST_F(CopyRegularFile, a_cancel_removes_what_was_written) {
    writeFile(m_from, bytesOf(9 * mebibyte));
    for (int k = 1; k <= 3; ++k) {
        int calls = 0;
        m_monitor.ShouldCancel = [&] { return ++calls == k; };
        expectFailure("Cannot copy '/from': " + systemText(std::errc::operation_canceled),
                      std::errc::operation_canceled);
        EXPECT_EQ(k, calls);
    }
    m_monitor.ShouldCancel = [] { return false; };
    expectWhole(bytesOf(9 * mebibyte));
}

TEST_F(CopyRegularFile, a_source_that_shrinks_before_its_end_is_named) {
    writeFile(m_from, bytesOf(9 * mebibyte));
    m_monitor.ShouldCancel = [&] {
        fs::resize_file(m_from, mebibyte);
        return false;
    };
    EXPECT_FALSE(copy());
    EXPECT_EQ("'/from' became shorter while it was copied", failure());
    EXPECT_FALSE(isPresent(m_to));
}

TEST_F(CopyRegularFile, a_source_that_cannot_be_examined_after_its_copy_did_not_shrink) {
    writeFile(m_from, bytesOf(5));
    int calls = 0;
    const Scoped hook(g_onFStat,
                      std::function<int(int)>([&](int) { return ++calls == 2 ? ENOMEM : 0; }));
    EXPECT_FALSE(copy());
    EXPECT_EQ("Cannot read '/from': " + systemText(std::errc::not_enough_memory), failure());
    EXPECT_FALSE(isPresent(m_to));
}

// =================================================================================================
// Attributes
// =================================================================================================

TEST_F(CopyRegularFile, hands_out_the_state_of_the_source_and_gives_it_to_the_copy) {
    writeFile(m_from, "bytes");
    fs::permissions(m_from, static_cast<fs::perms>(04751));
    const struct timespec times[2] = {{1000000000, 111}, {1100000000, 222}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, m_from.c_str(), times, 0));
    ASSERT_TRUE(copy());
    struct stat from = {};
    struct stat to = {};
    ASSERT_EQ(0, stat(m_from.c_str(), &from));
    ASSERT_EQ(0, stat(m_to.c_str(), &to));
    EXPECT_EQ(from.st_ino, m_status.st_ino);
    EXPECT_EQ(5, m_status.st_size);
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 04751), to.st_mode);
    EXPECT_EQ(1100000000, to.st_mtim.tv_sec);
    EXPECT_EQ(222, to.st_mtim.tv_nsec);
    EXPECT_EQ(1000000000, to.st_atim.tv_sec);
    EXPECT_EQ(111, to.st_atim.tv_nsec);
}

TEST_F(CopyRegularFile, nobody_else_can_read_the_copy_before_it_is_whole) {
    writeFile(m_from, bytesOf(100000));
    fs::permissions(m_from, static_cast<fs::perms>(0666));
    mode_t meanwhile = 0;
    m_monitor.ShouldCancel = [&] {
        struct stat status = {};
        EXPECT_EQ(0, stat(m_to.c_str(), &status));
        meanwhile = status.st_mode & 07777U;
        return false;
    };
    EXPECT_TRUE(copy());
    EXPECT_EQ(0600U, meanwhile);
}

TEST_F(CopyRegularFile, keeps_many_and_large_extended_attributes) {
    writeFile(m_from, "bytes");
    const std::string large(3000, 'v');
    if (setxattr(m_from.c_str(), "user.0", large.data(), large.size(), 0) != 0) {
        GTEST_SKIP() << "this file system holds no extended attributes";
    }
    // The list of the names alone takes more than 1 KiB.
    const std::string longName = "user." + std::string(200, 'n');
    int count = 0;
    while (count < 12 &&
           setxattr(m_from.c_str(), (longName + std::to_string(count)).c_str(), "", 0, 0) == 0) {
        ++count;
    }
    const auto sizeOfNames = listxattr(m_from.c_str(), nullptr, 0);
    if (sizeOfNames <= 1024 && count < 4) {
        GTEST_SKIP() << "this file system holds few extended attributes only";
    }
    ASSERT_TRUE(copy());
    EXPECT_EQ(sizeOfNames, listxattr(m_to.c_str(), nullptr, 0));
    std::string value(4000, '\0');
    EXPECT_EQ(3000, getxattr(m_to.c_str(), "user.0", value.data(), value.size()));
    EXPECT_EQ(large, value.substr(0, 3000));
}

TEST(CopyAttributes, of_a_link_go_to_the_link) {
    const Sandbox box;
    writeFile(box / "real", "bytes");
    const Snapshot before = takeSnapshot(box / "real");
    fs::create_symlink("real", box / "from");
    fs::create_symlink("real", box / "to");
    const auto realTime = fs::last_write_time(box / "real");
    const struct timespec times[2] = {{1000000000, 111}, {1100000000, 222}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, (box / "from").c_str(), times, AT_SYMLINK_NOFOLLOW));
    struct stat status = {};
    ASSERT_EQ(0, lstat((box / "from").c_str(), &status));
    std::error_code ec = std::make_error_code(std::errc::io_error);
    TavroCopyAttributes(box / "from", box / "to", status, ec);
    EXPECT_FALSE(ec);
    ASSERT_EQ(0, lstat((box / "to").c_str(), &status));
    EXPECT_EQ(1100000000, status.st_mtim.tv_sec);
    EXPECT_EQ(222, status.st_mtim.tv_nsec);
    EXPECT_EQ(realTime, fs::last_write_time(box / "real"));
    EXPECT_EQ(before, takeSnapshot(box / "real"));
}

TEST(CopyAttributes, says_when_times_cannot_be_set_unless_they_cannot_be_held) {
    const Sandbox box;
    writeFile(box / "from");
    writeFile(box / "to");
    struct stat status = {};
    ASSERT_EQ(0, lstat((box / "from").c_str(), &status));
    for (const int error : {EIO, EPERM, ENOTSUP}) {
        const FaultInjector faults({{"utimensat", error}});
        std::error_code ec;
        TavroCopyAttributes(box / "from", box / "to", status, ec);
        EXPECT_EQ(error == EIO ? EIO : 0, ec.value());
        EXPECT_EQ(1, faults.fired());
    }
}

} // namespace
