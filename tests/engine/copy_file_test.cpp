// Copying the bytes and the attributes of one file, by whatever way the kernel offers, and when its
// calls fail.

#include "copy_file.h"

#include "transfer_fixture.h"

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_transfer_test;

namespace {

constexpr std::size_t kibibyte = std::size_t{1} << 10U;

class CopyFile : public testing::Test {
protected:
    bool copy() {
        m_told = 0;
        m_callbacks.OnProgress = [this](const TavroProgress& told) { m_told = told.BytesDone; };
        TavroProgressTeller progress(m_callbacks);
        TavroDescriptor source;
        const int error = TavroOpenSource(AT_FDCWD, m_from.c_str(), source, m_status);
        m_failure = error != 0 ? TavroFail(TavroFailureKind::Read, error, "")
                               : TavroCopyFile(source.Number(), m_status, m_directory, m_to.c_str(),
                                               m_options, m_traits, progress, m_copy, m_lost);
        progress.Tell();
        return !m_failure;
    }

    /// Expects a failed copy that leaves nothing behind and the source alone.
    void expectFailure(TavroFailureKind kind, int error = 0) {
        const Snapshot before = takeSnapshot(m_from);
        EXPECT_FALSE(copy());
        EXPECT_EQ(kind, m_failure.Kind) << TavroDescribe(m_failure);
        EXPECT_EQ(error, m_failure.Error.value());
        EXPECT_EQ("", m_failure.Path);
        EXPECT_FALSE(isPresent(m_to));
        EXPECT_EQ(before, takeSnapshot(m_from));
    }

    void expectWhole(const std::string& bytes) {
        ASSERT_TRUE(copy()) << TavroDescribe(m_failure);
        EXPECT_TRUE(bytes == readFile(m_to)) << "the bytes differ";
        EXPECT_EQ(bytes.size(), m_told);
        EXPECT_TRUE(TavroIsUnchanged(TavroStateOf(statusOf(m_to)), m_copy.State));
        fs::remove(m_to);
    }

    void cancelAtCall(int number) {
        m_asked = 0;
        m_callbacks.ShouldCancel = [this, number] { return ++m_asked == number; };
    }

    Sandbox m_box;
    fs::path m_from = m_box / "from";
    fs::path m_to = m_box / "to";
    int m_directory = AT_FDCWD;
    TavroCallbacks m_callbacks;
    TavroCopyOptions m_options;
    TavroNewEntryTraits m_traits;
    TavroAttributesLost m_lost;
    TavroFileCopy m_copy;
    struct stat m_status = {};
    std::uint64_t m_told = 0;
    int m_asked = 0;
    TavroFailure m_failure;
};

// =================================================================================================
// Contents
// =================================================================================================

TEST_F(CopyFile, copies_every_size_by_every_way) {
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, std::size_t{4096}, 64 * kibibyte - 1, 64 * kibibyte,
          64 * kibibyte + 1, 4 * mebibyte - 1, 4 * mebibyte, 4 * mebibyte + 1, 9 * mebibyte}) {
        SCOPED_TRACE(std::to_string(size) + " bytes");
        const std::string bytes = bytesOf(size);
        writeFile(m_from, bytes);
        expectWhole(bytes);
        for (const int error : {EXDEV, ENOSYS, EINVAL, EINTR, EOPNOTSUPP, 0}) {
            const FaultInjector faults({{"copy_file_range", error, "", 1, error != EINTR}});
            expectWhole(bytes);
            EXPECT_EQ(size > 64 * kibibyte, faults.fired() > 0);
        }
    }
}

TEST_F(CopyFile, copies_to_another_file_system) {
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

TEST_F(CopyFile, goes_on_where_the_kernel_stopped_half_way) {
    const std::string bytes = bytesOf(9 * mebibyte);
    writeFile(m_from, bytes);
    const FaultInjector faults(
        {{"copy_file_range", 0, "", 1}, {"copy_file_range", EXDEV, "", 3, true}});
    expectWhole(bytes);
    EXPECT_TRUE(faults.eachFired());
}

TEST_F(CopyFile, goes_on_after_interrupted_and_partial_reads_and_writes) {
    for (const std::size_t size : {std::size_t{50000}, 5 * mebibyte}) {
        const std::string bytes = bytesOf(size);
        writeFile(m_from, bytes);
        const FaultInjector faults({{"copy_file_range", EXDEV, "", 1, true},
                                    {"pread", EINTR},
                                    {"pread", 0, "", 2},
                                    {"pwrite", 0, "", 1},
                                    {"pwrite", EINTR, "", 2}});
        expectWhole(bytes);
        EXPECT_EQ(size > 64 * kibibyte ? 5 : 4, faults.fired());
    }
}

TEST_F(CopyFile, reads_files_of_the_kernel_to_their_end) {
    m_from = "/proc/version";
    if (!isPresent(m_from)) {
        GTEST_SKIP() << "there is no /proc here";
    }
    ASSERT_EQ(0U, fs::file_size(m_from));
    EXPECT_TRUE(copy()) << TavroDescribe(m_failure);
    EXPECT_EQ(readFile(m_from), readFile(m_to));
    EXPECT_NE("", readFile(m_to));
}

TEST_F(CopyFile, shares_blocks_where_the_file_system_can_but_no_more_than_there_were_at_first) {
    const std::string bytes = bytesOf(100000);
    writeFile(m_from, bytes);
    for (const std::string grown : {"", "appended meanwhile"}) {
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (call == "ioctl") {
                writeFile(path, bytes + grown);
            }
        });
        const FaultInjector faults(
            {{"ioctl", 0}, {"pread", EIO, "", 1, true}, {"copy_file_range", EIO, "", 1, true}});
        expectWhole(bytes);
        EXPECT_EQ(1, faults.fired());
    }
}

TEST_F(CopyFile, does_not_believe_that_blocks_are_shared_when_the_copy_is_too_short) {
    const std::string bytes = bytesOf(100000);
    writeFile(m_from, bytes);
    const FaultInjector faults({{"ioctl", 0}});
    expectWhole(bytes);
    EXPECT_EQ(1, faults.fired());
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

TEST_F(CopyFile, keeps_holes_wherever_they_are) {
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
            const std::vector<Fault> no = {{"copy_file_range", EXDEV, "", 1, true}};
            const FaultInjector faults(bInKernel ? std::vector<Fault>() : no);
            ASSERT_TRUE(copy()) << TavroDescribe(m_failure);
            EXPECT_EQ(static_cast<std::uint64_t>(size), m_told);
            EXPECT_EQ(layoutOf(m_from), layoutOf(m_to));
            EXPECT_TRUE(readFile(m_from) == readFile(m_to)) << "the bytes differ";
            EXPECT_LE(statusOf(m_to).st_blocks, m_status.st_blocks + 8);
            fs::remove(m_to);
        }
    }
}

TEST_F(CopyFile, copies_a_sparse_file_whole_where_holes_cannot_be_told) {
    makeSparse(m_from, {0, 300000}, 500000);
    const FaultInjector faults({{"lseek", EINVAL, "", 1, true}});
    ASSERT_TRUE(copy()) << TavroDescribe(m_failure);
    EXPECT_LT(0, faults.fired());
    EXPECT_TRUE(readFile(m_from) == readFile(m_to)) << "the bytes differ";
}

TEST_F(CopyFile, copies_files_beyond_4_gibibytes) {
    constexpr off_t place = 4500000000;
    makeSparse(m_from, {0, place}, 5000000000);
    ASSERT_TRUE(copy()) << TavroDescribe(m_failure);
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

TEST_F(CopyFile, says_when_there_is_no_source_that_can_be_copied) {
    expectFailure(TavroFailureKind::Read, ENOENT);
    writeFile(m_box / "real", "bytes");
    fs::create_symlink("real", m_from);
    expectFailure(TavroFailureKind::Read, ELOOP);
    fs::remove(m_from);
    makeFifo(m_from); // which is not waited for
    expectFailure(TavroFailureKind::Read, EIO);
}

TEST_F(CopyFile, replaces_nothing) {
    writeFile(m_from, "new");
    writeFile(m_box / "real", "real");
    for (const bool bLink : {false, true}) {
        fs::remove(m_to);
        bLink ? fs::create_symlink("real", m_to) : writeFile(m_to, "old");
        const Snapshot before = takeSnapshot(m_box.path());
        EXPECT_FALSE(copy());
        EXPECT_EQ(TavroFailureKind::Create, m_failure.Kind);
        EXPECT_EQ(EEXIST, m_failure.Error.value());
        EXPECT_EQ(before, takeSnapshot(m_box.path()));
    }
}

TEST_F(CopyFile, names_a_full_disk_whichever_call_meets_it) {
    for (const int error : {ENOSPC, EDQUOT, EFBIG}) {
        writeFile(m_from, bytesOf(9 * mebibyte));
        {
            const FaultInjector faults(
                {{"copy_file_range", error, "", 2, true}, {"pwrite", EIO, "", 1, true}});
            expectFailure(TavroFailureKind::Copy, error);
            EXPECT_EQ(1, faults.fired());
        }
        {
            const FaultInjector faults(
                {{"copy_file_range", EXDEV, "", 1, true}, {"pwrite", error, "", 4, true}});
            expectFailure(TavroFailureKind::Copy, error);
            EXPECT_TRUE(faults.eachFired());
        }
        writeFile(m_from, "small");
        const FaultInjector faults({{"pwrite", error}});
        expectFailure(TavroFailureKind::Copy, error);
    }
}

TEST_F(CopyFile, ends_in_a_clear_failure_at_the_limit_of_file_sizes) {
    writeFile(m_from, bytesOf(mebibyte));
    runInChild([this] {
        signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit = {100000, 100000};
        ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
        expectFailure(TavroFailureKind::Copy, EFBIG);
    });
}

TEST_F(CopyFile, names_a_source_that_cannot_be_read_to_its_end) {
    writeFile(m_from, bytesOf(50000));
    const FaultInjector faults({{"pread", EIO, "", 1, true}});
    expectFailure(TavroFailureKind::Copy, EIO);
}

TEST_F(CopyFile, an_error_that_the_close_brings_is_a_failure) {
    writeFile(m_from, "bytes");
    const FaultInjector faults({{"close", EDQUOT, m_to.string()}});
    expectFailure(TavroFailureKind::Write, EDQUOT);
    EXPECT_EQ(1, faults.fired());
}

TEST_F(CopyFile, syncs_when_it_is_to_and_an_error_of_that_is_a_failure) {
    writeFile(m_from, "bytes");
    const FaultInjector faults({{"fsync", ENOSPC, m_to.string()}});
    EXPECT_TRUE(copy());
    EXPECT_EQ(0, faults.fired());
    fs::remove(m_to);
    m_options.bSync = true;
    expectFailure(TavroFailureKind::Write, ENOSPC);
    EXPECT_EQ(1, faults.fired());
    EXPECT_TRUE(copy());
}

TEST_F(CopyFile, a_copy_that_cannot_be_looked_at_in_the_end_is_removed) {
    writeFile(m_from, "bytes");
    m_traits.bOwnerKnown = true;
    const FaultInjector faults({{"fstat", EIO, m_to.string()}});
    expectFailure(TavroFailureKind::Write, EIO);
    EXPECT_EQ(1, faults.fired());
}

TEST_F(CopyFile, what_was_put_in_the_place_of_a_failed_copy_is_not_removed) {
    writeFile(m_from, "bytes");
    writeFile(m_box / "of somebody else", "precious");
    const CallObserver observer([&](const std::string& call, const std::string&) {
        if (call == "pwrite") {
            fs::rename(m_box / "of somebody else", m_to);
        }
    });
    const FaultInjector faults({{"pwrite", ENOSPC}});
    EXPECT_FALSE(copy());
    EXPECT_EQ("precious", readFile(m_to));
}

TEST_F(CopyFile, a_cancel_removes_what_was_written) {
    writeFile(m_from, bytesOf(9 * mebibyte));
    for (int k = 1; k <= 3; ++k) {
        cancelAtCall(k);
        expectFailure(TavroFailureKind::Cancelled);
        EXPECT_EQ(k, m_asked);
    }
    cancelAtCall(4);
    expectWhole(bytesOf(9 * mebibyte));
}

TEST_F(CopyFile, a_source_that_shrinks_before_its_end_is_named) {
    for (const off_t size : {off_t{100000}, off_t{9} << 20U, off_t{50} << 20U}) {
        SCOPED_TRACE(size);
        writeFile(m_from, bytesOf(std::min(static_cast<std::size_t>(size), 9 * mebibyte)));
        fs::resize_file(m_from, static_cast<std::uintmax_t>(size)); // the last one has a hole
        m_callbacks.ShouldCancel = [&] {
            fs::resize_file(m_from, 5);
            return false;
        };
        EXPECT_FALSE(copy());
        EXPECT_EQ(TavroFailureKind::BecameShorter, m_failure.Kind) << TavroDescribe(m_failure);
        EXPECT_FALSE(isPresent(m_to));
    }
}

TEST_F(CopyFile, a_small_source_that_shrinks_before_it_is_read_is_named) {
    writeFile(m_from, bytesOf(100));
    const CallObserver observer([&](const std::string& call, const std::string&) {
        if (call == "pread") {
            fs::resize_file(m_from, 5);
        }
    });
    EXPECT_FALSE(copy());
    EXPECT_EQ(TavroFailureKind::BecameShorter, m_failure.Kind);
    EXPECT_FALSE(isPresent(m_to));
}

TEST_F(CopyFile, a_large_source_that_cannot_be_examined_after_its_copy_did_not_shrink) {
    writeFile(m_from, bytesOf(100000));
    const FaultInjector faults({{"fstat", ENOMEM, m_from.string(), 2}});
    expectFailure(TavroFailureKind::Read, ENOMEM);
    EXPECT_EQ(1, faults.fired());
}

TEST_F(CopyFile, a_large_copy_that_is_shorter_than_its_source_is_not_whole) {
    writeFile(m_from, bytesOf(100000));
    bool bCopied = false;
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        bCopied = bCopied || call == "copy_file_range" || call == "pwrite";
        if (bCopied && call == "fstat" && path == m_from) {
            fs::resize_file(m_to, 99999);
        }
    });
    expectFailure(TavroFailureKind::CopyNotWhole);
}

TEST_F(CopyFile, believes_no_size_that_is_smaller_than_what_can_be_read) {
    for (const std::size_t size : {std::size_t{100}, 64 * kibibyte, 100 * kibibyte}) {
        SCOPED_TRACE(std::to_string(size) + " bytes");
        writeFile(m_from, bytesOf(size));
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (path == m_from && (call == "pread" || call == "fstat")) {
                fs::resize_file(m_from, call == "pread" ? size + 10 : size);
            }
        });
        EXPECT_FALSE(copy());
        EXPECT_EQ(TavroFailureKind::CopyNotWhole, m_failure.Kind) << TavroDescribe(m_failure);
        EXPECT_FALSE(isPresent(m_to));
    }
}

TEST_F(CopyFile, believes_no_size_that_is_larger_than_what_can_be_read) {
    writeFile(m_from, bytesOf(100));
    const CallObserver observer([&](const std::string& call, const std::string& path) {
        if (path == m_from) { // it looks like a file that ends with a hole
            fs::resize_file(m_from, call == "fstat" ? 200000 : 100);
        }
    });
    EXPECT_FALSE(copy());
    EXPECT_EQ(TavroFailureKind::BecameShorter, m_failure.Kind) << TavroDescribe(m_failure);
    EXPECT_FALSE(isPresent(m_to));
}

TEST_F(CopyFile, does_not_copy_what_is_appended_meanwhile) {
    for (const std::size_t size : {std::size_t{100}, 64 * kibibyte, 100 * kibibyte}) {
        SCOPED_TRACE(std::to_string(size) + " bytes");
        const std::string bytes = bytesOf(size);
        writeFile(m_from, bytes);
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (path == m_from && call == "pread") {
                fs::resize_file(m_from, size + 10);
            }
        });
        expectWhole(bytes);
        EXPECT_EQ(size + 10, fs::file_size(m_from));
    }
}

TEST_F(CopyFile, a_source_whose_end_cannot_be_read_or_examined_is_named) {
    writeFile(m_from, bytesOf(100000));
    {
        const FaultInjector faults({{"pread", EIO, m_from.string()}});
        expectFailure(TavroFailureKind::Copy, EIO);
        EXPECT_EQ(1, faults.fired());
    }
    writeFile(m_from, bytesOf(100));
    const CallObserver observer([&](const std::string& call, const std::string&) {
        if (call == "pread") {
            fs::resize_file(m_from, 110);
        }
    });
    const FaultInjector faults({{"fstat", ENOMEM, m_from.string(), 2}});
    EXPECT_FALSE(copy());
    EXPECT_EQ(TavroFailureKind::Read, m_failure.Kind);
    EXPECT_EQ(1, faults.fired());
    EXPECT_FALSE(isPresent(m_to));
}

// =================================================================================================
// Files without a name
// =================================================================================================

TEST_F(CopyFile, can_be_made_without_a_name) {
    m_options.bUnnamed = true;
    const TavroDescriptor directory(open(m_box.path().c_str(), O_RDONLY | O_DIRECTORY));
    m_directory = directory.Number();
    for (const mode_t mode : {0644U, 0600U, 0777U, 0000U, 06755U, 0644U}) {
        writeFile(m_from, "bytes");
        fs::permissions(m_from, static_cast<fs::perms>(mode));
        const Snapshot before = takeSnapshot(m_box.path());
        ASSERT_TRUE(copy()) << TavroDescribe(m_failure);
        ASSERT_TRUE(m_copy.Unnamed.IsOpen());
        EXPECT_EQ(before, takeSnapshot(m_box.path()));
        ASSERT_EQ(0, TavroLinkOpenAt(m_copy.Unnamed.Number(), m_directory, "to"));
        EXPECT_EQ(S_IFREG | mode, statusOf(m_to).st_mode);
        EXPECT_EQ(fs::last_write_time(m_from), fs::last_write_time(m_to));
        fs::permissions(m_from, static_cast<fs::perms>(0600));
        fs::remove(m_to);
    }
}

TEST_F(CopyFile, gets_a_name_where_none_without_can_be_made_and_that_is_tried_once) {
    m_options.bUnnamed = true;
    writeFile(m_from, "bytes");
    const FaultInjector faults({{"openat", EOPNOTSUPP, ".", 1, true, true}});
    for (int i = 0; i < 2; ++i) {
        expectWhole("bytes");
        EXPECT_FALSE(m_copy.Unnamed.IsOpen());
    }
    EXPECT_EQ(1, faults.fired());
}

TEST_F(CopyFile, without_a_name_leaves_nothing_when_it_fails) {
    m_options.bUnnamed = true;
    m_to = "to";
    const TavroDescriptor directory(open(m_box.path().c_str(), O_RDONLY | O_DIRECTORY));
    m_directory = directory.Number();
    writeFile(m_from, "bytes");
    const Snapshot before = takeSnapshot(m_box.path());
    const FaultInjector faults({{"pwrite", ENOSPC}});
    EXPECT_FALSE(copy());
    EXPECT_FALSE(m_copy.Unnamed.IsOpen());
    EXPECT_EQ(before, takeSnapshot(m_box.path()));
}

// =================================================================================================
// Attributes
// =================================================================================================

TEST_F(CopyFile, gives_the_copy_mode_and_times) {
    writeFile(m_from, "bytes");
    for (const mode_t mode : {04751U, 0000U, 0644U}) {
        fs::permissions(m_from, static_cast<fs::perms>(mode));
        setTimes(m_from, 1100000000, 222);
        ASSERT_TRUE(copy());
        EXPECT_EQ(m_status.st_ino, statusOf(m_from).st_ino);
        EXPECT_EQ(S_IFREG | mode, statusOf(m_to).st_mode);
        EXPECT_EQ("1100000000.222", timesOf(statusOf(m_to)));
        EXPECT_EQ(1100000007, statusOf(m_to).st_atim.tv_sec);
        EXPECT_EQ(222, statusOf(m_to).st_atim.tv_nsec);
        fs::permissions(m_from, static_cast<fs::perms>(0600));
        fs::remove(m_to);
    }
}

TEST_F(CopyFile, nobody_else_can_read_the_copy_before_it_is_whole) {
    writeFile(m_from, bytesOf(100000));
    fs::permissions(m_from, static_cast<fs::perms>(0666));
    mode_t meanwhile = 0;
    m_callbacks.ShouldCancel = [&] {
        meanwhile = statusOf(m_to).st_mode & 07777U;
        return false;
    };
    EXPECT_TRUE(copy());
    EXPECT_EQ(0600U, meanwhile);
}

TEST_F(CopyFile, asks_for_the_owner_of_new_files_once_unless_the_copy_runs_with_his_rights) {
    writeFile(m_from, "bytes");
    for (const mode_t mode : {0644U, 0644U, 04755U}) {
        fs::permissions(m_from, static_cast<fs::perms>(mode));
        int looks = 0;
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            looks += call == "fstat" && path == m_to ? 1 : 0;
            EXPECT_NE("fchownat", call);
        });
        const bool bKnown = m_traits.bOwnerKnown;
        ASSERT_TRUE(copy());
        EXPECT_EQ(bKnown && mode == 0644U ? 1 : 2, looks);
        fs::remove(m_to);
    }
}

TEST_F(CopyFile, keeps_many_and_large_extended_attributes) {
    writeFile(m_from, "bytes");
    const std::string large(3000, 'v');
    if (!setAttribute(m_from, "user.0", large)) {
        GTEST_SKIP() << "this file system holds no extended attributes";
    }
    // The list of the names alone takes more than 1 KiB.
    const std::string longName = "user." + std::string(200, 'n');
    int count = 0;
    while (count < 12 && setAttribute(m_from, longName + std::to_string(count), "")) {
        ++count;
    }
    if (count < 4) {
        GTEST_SKIP() << "this file system holds few extended attributes only";
    }
    ASSERT_TRUE(copy());
    EXPECT_EQ(extendedAttributesOf(m_from), extendedAttributesOf(m_to));
    EXPECT_EQ(0U, m_lost.ExtendedAttributes);
}

/// An access control list in the kernel's own form: tag and permissions, the named by user 12345.
std::string listOf(const std::vector<std::pair<std::uint16_t, std::uint16_t>>& rows) {
    std::string bytes("\2\0\0\0", 4);
    for (const auto& [tag, permissions] : rows) {
        const bool bNamed = tag == 0x02 || tag == 0x08;
        const std::uint32_t who = bNamed ? 12345 : static_cast<std::uint32_t>(-1);
        bytes.append(reinterpret_cast<const char*>(&tag), 2);
        bytes.append(reinterpret_cast<const char*>(&permissions), 2);
        bytes.append(reinterpret_cast<const char*>(&who), 4);
    }
    return bytes;
}

constexpr std::uint16_t owner = 0x01;
constexpr std::uint16_t namedUser = 0x02;
constexpr std::uint16_t owningGroup = 0x04;
constexpr std::uint16_t namedGroup = 0x08;
constexpr std::uint16_t limit = 0x10;
constexpr std::uint16_t others = 0x20;

TEST_F(CopyFile, a_lost_access_control_list_lets_in_nobody_whom_it_kept_out) {
    struct Case {
        std::vector<std::pair<std::uint16_t, std::uint16_t>> List;
        mode_t Mode; ///< Of the copy.
    };
    const std::vector<Case> cases = {
        // The group bits were the limit of all who are named: the group itself had less.
        {{{owner, 6}, {namedUser, 6}, {owningGroup, 4}, {limit, 6}, {others, 4}}, 0644},
        {{{owner, 6}, {namedUser, 6}, {owningGroup, 0}, {limit, 6}, {others, 0}}, 0600},
        {{{owner, 7}, {owningGroup, 7}, {namedGroup, 7}, {limit, 5}, {others, 0}}, 0750},
        // Who was named and kept out has the rights of the group or of everybody now.
        {{{owner, 6}, {namedUser, 0}, {owningGroup, 6}, {limit, 6}, {others, 4}}, 0600},
        {{{owner, 6}, {owningGroup, 6}, {namedGroup, 0}, {limit, 6}, {others, 4}}, 0660},
        {{{owner, 7}, {namedUser, 7}, {owningGroup, 7}, {limit, 4}, {others, 7}}, 0744},
    };
    for (const Case& each : cases) {
        fs::remove(m_to);
        writeFile(m_from, "bytes");
        if (!setAttribute(m_from, "system.posix_acl_access", listOf(each.List))) {
            GTEST_SKIP() << "this file system holds no access control lists";
        }
        m_lost = {};
        {
            const FaultInjector faults({{"fsetxattr", ENOTSUP}});
            ASSERT_TRUE(copy());
            EXPECT_EQ(1, faults.fired());
        }
        EXPECT_EQ(S_IFREG | each.Mode, statusOf(m_to).st_mode);
        EXPECT_EQ(1U, m_lost.AccessLists);
        EXPECT_EQ(0U, m_lost.ExtendedAttributes);
        fs::remove(m_to);
        ASSERT_TRUE(copy()); // where it can be held nothing is lost
        EXPECT_EQ(1U, m_lost.AccessLists);
        EXPECT_EQ(statusOf(m_from).st_mode, statusOf(m_to).st_mode);
        EXPECT_EQ(extendedAttributesOf(m_from), extendedAttributesOf(m_to));
    }
}

TEST_F(CopyFile, a_list_that_cannot_be_read_leaves_the_copy_to_its_owner) {
    writeFile(m_from, "bytes");
    const auto list =
        listOf({{owner, 6}, {namedUser, 6}, {owningGroup, 4}, {limit, 6}, {others, 4}});
    if (!setAttribute(m_from, "system.posix_acl_access", list)) {
        GTEST_SKIP() << "this file system holds no access control lists";
    }
    const FaultInjector faults({{"fgetxattr", EIO}});
    ASSERT_TRUE(copy());
    EXPECT_EQ(1, faults.fired());
    EXPECT_EQ(S_IFREG | mode_t{0600}, statusOf(m_to).st_mode);
    EXPECT_EQ(1U, m_lost.AccessLists);
}

TEST_F(CopyFile, counts_each_file_once_however_many_attributes_it_lost) {
    writeFile(m_from, "bytes");
    if (!setAttribute(m_from, "user.a", "1") || !setAttribute(m_from, "user.b", "2")) {
        GTEST_SKIP() << "this file system holds no extended attributes";
    }
    for (const std::string call : {"fsetxattr", "fgetxattr"}) {
        const FaultInjector faults({{call, EPERM, "", 1, true}});
        m_lost = {};
        ASSERT_TRUE(copy());
        EXPECT_EQ(2, faults.fired());
        EXPECT_EQ(1U, m_lost.ExtendedAttributes);
        EXPECT_EQ(0U, m_lost.AccessLists);
        fs::remove(m_to);
    }
}

TEST_F(CopyFile, what_the_directory_gave_to_a_copy_and_cannot_be_taken_from_it_is_a_failure) {
    const Sandbox inheriting;
    writeFile(m_from, "bytes");
    m_to = inheriting / "to";
    if (!setAttribute(
            inheriting.path(), "system.posix_acl_default",
            listOf({{owner, 6}, {namedUser, 6}, {owningGroup, 4}, {limit, 6}, {others, 0}}))) {
        GTEST_SKIP() << "this file system holds no access control lists";
    }
    const TavroDescriptor directory(open(inheriting.path().c_str(), O_RDONLY | O_DIRECTORY));
    m_traits = TavroTraitsOfNewEntriesIn(directory.Number());
    EXPECT_TRUE(m_traits.bInheritLists);
    {
        const FaultInjector faults({{"fremovexattr", EIO}});
        expectFailure(TavroFailureKind::SetAttributes, EIO);
        EXPECT_EQ(1, faults.fired());
    }
    EXPECT_TRUE(copy());
    EXPECT_EQ(extendedAttributesOf(m_from), extendedAttributesOf(m_to));
    EXPECT_EQ(statusOf(m_from).st_mode, statusOf(m_to).st_mode);
}

TEST_F(CopyFile, says_when_mode_or_times_cannot_be_set_unless_they_cannot_be_held) {
    writeFile(m_from, "bytes");
    for (const std::string call : {"fchmod", "futimens"}) {
        for (const int error : {EIO, EPERM, ENOTSUP}) {
            const FaultInjector faults({{call, error}});
            EXPECT_EQ(error != EIO, copy());
            EXPECT_EQ(error == EIO ? TavroFailureKind::SetAttributes : TavroFailureKind::None,
                      m_failure.Kind);
            EXPECT_EQ(1, faults.fired());
            EXPECT_EQ(error != EIO, isPresent(m_to));
            fs::remove(m_to);
        }
    }
}

TEST(PackedAttributes, come_back_as_they_were) {
    struct stat status = {};
    status.st_uid = 4000000000;
    status.st_gid = 7;
    status.st_mode = S_IFDIR | 02751;
    status.st_atim = {1, 2};
    status.st_mtim = {-5, 999999999};
    const std::vector<TavroAttribute> all = {{"user.a", std::string("\0 12 x", 7)}, {"user.b", ""}};
    const std::string packed = TavroPackAttributes(status, all);
    struct stat back = {};
    std::vector<TavroAttribute> attributes;
    ASSERT_TRUE(TavroUnpackAttributes(packed, back, attributes));
    EXPECT_EQ(TavroPackAttributes(back, attributes), packed);
    EXPECT_EQ(back.st_uid, status.st_uid);
    EXPECT_EQ(back.st_mode, status.st_mode);
    EXPECT_EQ(back.st_mtim.tv_sec, -5);
    ASSERT_EQ(attributes.size(), 2U);
    EXPECT_EQ(attributes[0].Value, all[0].Value);
}

TEST(PackedAttributes, that_are_cut_short_or_strange_are_refused) {
    const std::string packed = TavroPackAttributes({}, {{"user.a", "value"}});
    const std::size_t bare = TavroPackAttributes({}, {}).size();
    struct stat status = {};
    std::vector<TavroAttribute> attributes;
    for (std::size_t size = 0; size < packed.size(); ++size) {
        EXPECT_EQ(TavroUnpackAttributes(packed.substr(0, size), status, attributes), size == bare)
            << size;
    }
    for (const char* wrong :
         {"x", "1 2 3 4 5 6 7", "1 2 3 4 5 6 7 -1 ", "1 2 3 4 5 6 7 9 user.a",
          "1 2 3 4 5 6 7 9223372036854775807 a", "1  2 3 4 5 6 7 ", "1 2 3 4 5 6 7x"}) {
        EXPECT_FALSE(TavroUnpackAttributes(wrong, status, attributes)) << wrong;
    }
}

} // namespace
