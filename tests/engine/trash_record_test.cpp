// The records of what is in the trash: written whole, read whoever wrote them.

#include "trash_record.h"

#include "posix.h"
#include "trash_fixture.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

using namespace std::string_literals;
using namespace tavro_trash_test;

namespace {

/// A directory of records.
class TrashRecord : public testing::Test {
protected:
    TrashRecord() {
        makeDirectory(info());
        makeDirectory(m_sandbox / "files");
        EXPECT_EQ(TavroOpenDirectory(info().string(), m_trash.Info), 0);
        EXPECT_EQ(TavroOpenDirectory((m_sandbox / "files").string(), m_trash.Files), 0);
        m_trash.Folders.Info = info().string();
    }

    fs::path info() const {
        return m_sandbox / "info";
    }
    fs::path record(const std::string& name) const {
        return info() / (name + ".trashinfo");
    }
    std::optional<TavroTrashRecord> read(const std::string& name) const {
        return TavroReadRecord(m_trash.Info.Number(), name, "/home/me");
    }
    /// The path, or the date, that is read from such a record; "none" when nothing can be read.
    std::string pathOf(const std::string& bytes) const {
        writeFile(record("a"), bytes);
        const auto found = read("a");
        return found ? found->Path : "none";
    }
    std::string dateOf(const std::string& bytes) const {
        writeFile(record("a"), bytes);
        const auto found = read("a");
        return found ? found->Date : "none";
    }
    TavroFailure create(const std::string& name, const std::string& text = "text") const {
        mode_t mode = 0;
        return TavroCreateRecord(m_trash, name, text, mode);
    }
    TavroTrashClaims claims() const {
        return TavroTrashClaims(m_trash);
    }
    /// The name that is claimed.
    static std::string claim(TavroTrashClaims& claims, const std::string& wanted) {
        std::string name;
        EXPECT_EQ(TavroDescribe(claims.Claim(wanted, "/from/" + wanted, name)), "");
        return name;
    }
    std::string claim(const std::string& wanted) const {
        TavroTrashClaims own = claims();
        return claim(own, wanted);
    }

    Sandbox m_sandbox;
    TavroOpenTrash m_trash;
};

using WriteRecord = TrashRecord;
using ClaimName = TrashRecord;
using ReadRecord = TrashRecord;

} // namespace

// -------------------------------------------------------------------------------------------------
// Writing
// -------------------------------------------------------------------------------------------------

TEST_F(WriteRecord, has_the_text_that_the_module_writes) {
    for (const std::string zone : {"UTC", "Pacific/Kiritimati", "America/St_Johns"}) {
        const ScopedTimeZone there(zone);
        TavroTrashEntry entry;
        entry.OriginalPath = "/a b/\xFF\n%\x01~.txt";
        entry.InfoPath = record("module").string();
        std::string error;
        const std::time_t before = std::time(nullptr);
        ASSERT_TRUE(TavroWriteTrashInfoEntries({entry}, error)) << error;
        const std::string theirs = readFile(entry.InfoPath);
        std::time_t written = before;
        while (written < std::time(nullptr) &&
               theirs != TavroRecordText(entry.OriginalPath, written)) {
            ++written;
        }
        EXPECT_EQ(TavroRecordText(entry.OriginalPath, written), theirs);
    }
    const ScopedTimeZone there("UTC");
    EXPECT_EQ(TavroRecordText("/\xC3\xA9", 1709647629),
              "[Trash Info]\nPath=/%C3%A9\nDeletionDate=2024-03-05T14:07:09\n");
}

TEST_F(WriteRecord, names_the_record_after_the_item) {
    EXPECT_EQ(TavroRecordName("a"), "a.trashinfo");
    EXPECT_EQ(TavroRecordPath("/t/files/a"), "/t/info/a.trashinfo");
    EXPECT_EQ(TavroRecordPath("/files/a"), "/info/a.trashinfo");
    EXPECT_EQ(TavroItemOfRecord("a.trashinfo"), "a");
    EXPECT_EQ(TavroItemOfRecord(".trashinfo"), "");
    EXPECT_EQ(TavroItemOfRecord("trashinfo"), std::nullopt);
    EXPECT_EQ(TavroItemOfRecord("a.txt"), std::nullopt);
}

TEST_F(WriteRecord, replaces_none_that_is_there_be_it_a_dangling_link) {
    writeFile(record("a"), "precious");
    fs::create_symlink("nowhere", record("b"));
    for (const std::string name : {"a", "b"}) {
        const TavroFailure failure = create(name);
        EXPECT_EQ(failure.Kind, TavroFailureKind::CreateRecord);
        EXPECT_EQ(failure.Error, std::errc::file_exists);
        EXPECT_EQ(failure.Path, record(name).string());
    }
    EXPECT_EQ(readFile(record("a")), "precious");
    EXPECT_EQ(fs::read_symlink(record("b")), "nowhere");
}

TEST_F(WriteRecord, leaves_none_that_is_not_whole) {
    for (const Fault& fault :
         {Fault{"pwrite", ENOSPC, "a.trashinfo"}, Fault{"close", EDQUOT, "a.trashinfo"}}) {
        const FaultInjector injector({fault});
        EXPECT_EQ(create("a").Kind, TavroFailureKind::WriteRecord) << fault.Call;
        EXPECT_EQ(injector.fired(), 1);
        EXPECT_TRUE(fs::is_empty(info()));
    }
}

TEST_F(WriteRecord, goes_on_after_half_a_write) {
    const FaultInjector injector({{"pwrite", 0, "a.trashinfo"}});
    EXPECT_EQ(TavroDescribe(create("a", "[Trash Info]\n")), "");
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_EQ(readFile(record("a")), "[Trash Info]\n");
}

TEST_F(WriteRecord, can_be_read_by_the_user_under_a_closed_umask) {
    const ScopedUmask closed(0777);
    mode_t mode = 0;
    for (const std::string name : {"a", "b"}) {
        EXPECT_FALSE(TavroCreateRecord(m_trash, name, "text", mode));
        EXPECT_EQ(modeOf(record(name)), 0600U);
    }
}

TEST_F(WriteRecord, costs_three_calls_after_the_first) {
    mode_t mode = 0;
    ASSERT_FALSE(TavroCreateRecord(m_trash, "a", "text", mode));
    CallCounts counts;
    ASSERT_FALSE(TavroCreateRecord(m_trash, "b", "text", mode));
    EXPECT_EQ(counts.all(), 3);
    EXPECT_EQ(counts.of("openat") + counts.of("pwrite") + counts.of("close"), 3);
}

// -------------------------------------------------------------------------------------------------
// Claiming a name
// -------------------------------------------------------------------------------------------------

TEST_F(ClaimName, writes_the_record_of_it) {
    EXPECT_EQ(claim("a b.txt"), "a b.txt");
    EXPECT_EQ(readFile(record("a b.txt")).rfind("[Trash Info]\nPath=/from/a%20b.txt\n", 0), 0U);
    EXPECT_EQ(readFile(record("a b.txt")).back(), '\n');
}

TEST_F(ClaimName, keeps_one_that_fits_and_cuts_one_that_does_not) {
    EXPECT_EQ(claim(std::string(245, 'x')), std::string(245, 'x'));
    EXPECT_EQ(claim(std::string(246, 'y')), std::string(245, 'y'));
    EXPECT_EQ(claim(std::string(251, 'x') + ".txt"), std::string(241, 'x') + ".txt");
    EXPECT_EQ(claim(std::string(252, 'x') + ".txt"), std::string(234, 'x') + " copy 1.txt");
    EXPECT_EQ(claim("." + std::string(250, 'x')), "." + std::string(244, 'x'));
}

TEST_F(ClaimName, passes_over_records_and_dangling_links_of_records) {
    writeFile(record("a.txt"));
    fs::create_symlink("nowhere", record("a copy 1.txt"));
    EXPECT_EQ(claim("a.txt"), "a copy 2.txt");
}

TEST_F(ClaimName, gives_the_next_one_after_a_drop) {
    TavroTrashClaims own = claims();
    EXPECT_EQ(claim(own, "a"), "a");
    own.Drop("a", "a");
    EXPECT_TRUE(fs::is_empty(info()));
    EXPECT_EQ(claim(own, "a"), "a copy 1");
    EXPECT_EQ(claim(own, "b"), "b");
}

TEST_F(ClaimName, gives_one_name_to_one_entry_alone) {
    TavroTrashClaims own = claims();
    EXPECT_EQ(claim(own, "a"), "a");
    EXPECT_EQ(claim(own, "a copy 1"), "a copy 1");
    EXPECT_EQ(claim(own, "a"), "a copy 2");
}

TEST_F(ClaimName, tries_few_names_where_many_are_taken) {
    for (int i = 0; i < 300; ++i) {
        writeFile(record(i == 0 ? "a" : "a copy " + std::to_string(i)));
        writeFile(m_sandbox / "files" / ("a copy " + std::to_string(300 + i)));
    }
    TavroTrashClaims own = claims();
    CallCounts counts;
    EXPECT_EQ(claim(own, "a"), "a copy 600");
    EXPECT_LT(counts.of("openat"), 20);
}

TEST_F(ClaimName, gives_up_when_others_take_every_name) {
    const FaultInjector injector({{"openat", EEXIST, ".trashinfo", 1, true}});
    std::string name;
    EXPECT_EQ(claims().Claim("a", "/a", name).Error, std::errc::file_exists);
    EXPECT_EQ(injector.fired(), 100);
}

TEST_F(ClaimName, says_why_there_is_no_record) {
    const FaultInjector injector({{"openat", EROFS, ".trashinfo", 1, true}});
    std::string name;
    const TavroFailure failure = claims().Claim("a", "/a", name);
    EXPECT_EQ(failure.Kind, TavroFailureKind::CreateRecord);
    EXPECT_EQ(failure.Error, std::errc::read_only_file_system);
    EXPECT_EQ(injector.fired(), 1);
}

// -------------------------------------------------------------------------------------------------
// Reading
// -------------------------------------------------------------------------------------------------

TEST_F(ReadRecord, decodes_the_path_with_digits_of_either_case) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/a%20b%c3%A9\nDeletionDate=2024-03-05T14:07:09\n"),
              "/a b\xC3\xA9");
}

TEST_F(ReadRecord, takes_bytes_that_are_not_escaped_as_they_are) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/\xC3\xA9 100%zz \n"), "/\xC3\xA9 100%zz ");
}

TEST_F(ReadRecord, bears_lines_that_end_in_carriage_returns_or_not_at_all) {
    const std::string crlf = "[Trash Info]\r\nPath=/a\r\nDeletionDate=2024-03-05T14:07:09\r\n";
    EXPECT_EQ(pathOf(crlf), "/a");
    EXPECT_EQ(dateOf(crlf), "2024-03-05T14:07:09");
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/a"), "/a");
}

TEST_F(ReadRecord, bears_keys_in_any_order_other_keys_and_blanks) {
    const std::string other = "# by hand\n\n[Trash Info] \nSize=3\nDeletionDate = "
                              "2024-03-05T14:07:09\nPathology=/x\n  Path = /a\nnonsense\n=\n";
    EXPECT_EQ(pathOf(other), "/a");
    EXPECT_EQ(dateOf(other), "2024-03-05T14:07:09");
}

TEST_F(ReadRecord, heeds_only_the_group_of_the_trash) {
    EXPECT_EQ(pathOf("Path=/0\n[Other]\nPath=/1\n[Trash Info]\nPath=/2\n[Third]\nPath=/3\n"), "/2");
    EXPECT_EQ(pathOf("[Trash Info]\n[Other]\nPath=/1\n"), "none");
    EXPECT_EQ(pathOf("[trash info]\nPath=/1\n"), "none");
}

TEST_F(ReadRecord, refuses_a_path_that_leads_upwards) {
    for (const std::string path : {"..", "../a", "/a/../b", "a/%2E%2e", "/a/%2E./"}) {
        EXPECT_EQ(pathOf("[Trash Info]\nPath=" + path + "\n"), "none") << path;
    }
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/..a/b../.../..c\n"), "/..a/b../.../..c");
}

TEST_F(ReadRecord, takes_the_first_of_several_values) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/1\nPath=/2\n"), "/1");
    EXPECT_EQ(dateOf("[Trash Info]\nPath=/1\nDeletionDate=2024-03-05T14:07:09\n"
                     "DeletionDate=2025-03-05T14:07:09\n"),
              "2024-03-05T14:07:09");
}

TEST_F(ReadRecord, takes_a_relative_path_against_the_home_directory) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=docs/a.txt\n"), "/home/me/docs/a.txt");
}

TEST_F(ReadRecord, drops_separators_at_the_end_of_the_path) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/folder//\n"), "/folder");
}

TEST_F(ReadRecord, is_none_where_there_is_no_path) {
    for (const std::string bytes :
         {"", "[Trash Info]\n", "[Trash Info]\nPath=\n", "[Trash Info]\nPath\n", "Path=/a\n"}) {
        EXPECT_EQ(pathOf(bytes), "none") << bytes;
    }
}

TEST_F(ReadRecord, is_none_where_the_path_holds_a_zero_byte) {
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/a%00b\n"), "none");
    EXPECT_EQ(pathOf("[Trash Info]\nPath=/a\0b\n"s), "none");
}

TEST_F(ReadRecord, has_no_date_where_none_can_be_read) {
    const std::string begin = "[Trash Info]\nPath=/a\n";
    EXPECT_EQ(dateOf(begin), "");
    for (const std::string date :
         {"", "yesterday", "2024-03-05", "2024-13-05T14:07:09", "2024-03-32T14:07:09",
          "2024-03-05T24:07:09", "2024-03-05T14:60:09", "2024-03-05T14:07:61",
          "2024-00-05T14:07:09", "2024-03-00T14:07:09", "\x1b[2J-03-05T14:07:09",
          "2024/03/05T14:07:09", "+024-03-05T14:07:09", "2024-03- 5T14:07:09"}) {
        EXPECT_EQ(dateOf(begin + "DeletionDate=" + date + "\n"), "") << date;
        EXPECT_EQ(TavroTimeOfDate(date), std::nullopt) << date;
    }
}

TEST_F(ReadRecord, drops_fractions_and_zones_after_the_date) {
    const std::string begin = "[Trash Info]\nPath=/a\nDeletionDate=";
    EXPECT_EQ(dateOf(begin + "2024-03-05T14:07:09.123456\n"), "2024-03-05T14:07:09");
    EXPECT_EQ(dateOf(begin + "2024-03-05T14:07:09Z\n"), "2024-03-05T14:07:09");
}

TEST_F(ReadRecord, tells_the_moment_that_a_date_means_in_local_time) {
    const ScopedTimeZone there("America/St_Johns");
    EXPECT_EQ(TavroTimeOfDate("2024-03-05T10:37:09"), std::time_t{1709647629});
    EXPECT_EQ(TavroTimeOfDate("2024-07-05T11:37:09"), std::time_t{1720188429});
}

TEST_F(ReadRecord, tells_when_it_was_written) {
    writeFile(record("a"), "[Trash Info]\nPath=/a\n");
    const struct timespec times[2] = {{0, UTIME_OMIT}, {1700000000, 5}};
    ASSERT_EQ(utimensat(AT_FDCWD, record("a").c_str(), times, 0), 0);
    EXPECT_EQ(read("a")->WrittenAt, 1700000000000000005);
}

TEST_F(ReadRecord, survives_garbage) {
    std::string garbage;
    for (int i = 0; i < 100000; ++i) {
        garbage += static_cast<char>(i * 7919 >> 3);
    }
    EXPECT_EQ(pathOf(garbage), "none");
    EXPECT_EQ(pathOf(std::string(200000, '\n')), "none");
    EXPECT_EQ(pathOf(std::string(200000, '[')), "none");
    EXPECT_EQ(pathOf(std::string(200000, '=')), "none");
}

TEST_F(ReadRecord, stops_after_64_KiB) {
    const std::string filler(65536 - 30, '#');
    const std::string begin = "[Trash Info]\n" + filler + "\n";
    EXPECT_EQ(pathOf(begin + "Path=/a\n" + std::string(100000, '#')), "/a");
    EXPECT_EQ(pathOf(begin + "Path=/" + std::string(100000, 'a')), "none");
    EXPECT_EQ(pathOf(begin + filler + "\nPath=/a\n"), "none");
}

TEST_F(ReadRecord, of_gigabytes_reads_no_more_than_its_beginning) {
    writeFile(record("a"), "[Trash Info]\nPath=/a\n");
    fs::resize_file(record("a"), 8ULL << 30U);
    CallCounts counts;
    EXPECT_EQ(read("a")->Path, "/a");
    EXPECT_EQ(counts.of("pread"), 1);
}

TEST_F(ReadRecord, follows_a_link) {
    writeFile(m_sandbox / "elsewhere", "[Trash Info]\nPath=/a\n");
    fs::create_symlink(m_sandbox / "elsewhere", record("link"));
    EXPECT_EQ(read("link")->Path, "/a");
}

TEST_F(ReadRecord, is_none_where_there_is_no_file) {
    makeFifo(record("fifo"));
    makeDirectory(record("directory"));
    fs::create_symlink("nowhere", record("dangling"));
    for (const std::string name : {"fifo", "directory", "dangling", "missing"}) {
        EXPECT_FALSE(read(name)) << name;
    }
}

TEST_F(ReadRecord, is_not_taken_from_a_fifo) {
    const std::string bytes = "[Trash Info]\nPath=/a\n";
    makeFifo(record("a"));
    const int fifo = open(record("a").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fifo, 0);
    ASSERT_EQ(write(fifo, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_FALSE(read("a"));
    char first = 0;
    EXPECT_EQ(::read(fifo, &first, 1), 1);
    EXPECT_EQ(first, '[');
    close(fifo);
}

TEST_F(ReadRecord, is_none_where_reading_fails) {
    writeFile(record("a"), "[Trash Info]\nPath=/a\n");
    for (const std::string call : {"openat", "fstat", "pread"}) {
        const FaultInjector fault({{call, EIO, "a.trashinfo"}});
        EXPECT_FALSE(read("a")) << call;
        EXPECT_EQ(fault.fired(), 1) << call;
    }
}

TEST_F(ReadRecord, goes_on_after_half_a_read) {
    writeFile(record("a"), "[Trash Info]\nPath=/a\n");
    const FaultInjector fault({{"pread", 0, "a.trashinfo"}});
    EXPECT_EQ(read("a")->Path, "/a");
    EXPECT_EQ(fault.fired(), 1);
}
