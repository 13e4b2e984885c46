// The records of the trash, read back by a decoder that shares nothing with the writer.

#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

// ---------------------------------------------------------------------------------------------
// Reading a record
// ---------------------------------------------------------------------------------------------

const std::string upperHexadecimal = "0123456789ABCDEF";
const std::string keptBytes = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-./_~";

/// What `value` stands for. Empty optional: it is not written the one way it may be written.
std::optional<std::string> decoded(const std::string& value) {
    std::string bytes;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '%') {
            if (keptBytes.find(value[i]) == std::string::npos) {
                return std::nullopt;
            }
            bytes += value[i];
            continue;
        }
        if (i + 2 >= value.size()) {
            return std::nullopt;
        }
        const std::size_t high = upperHexadecimal.find(value[++i]);
        const std::size_t low = upperHexadecimal.find(value[++i]);
        if (high == std::string::npos || low == std::string::npos) {
            return std::nullopt;
        }
        bytes += static_cast<char>(high * 16 + low);
        if (keptBytes.find(bytes.back()) != std::string::npos) {
            return std::nullopt;
        }
    }
    return bytes;
}

struct Record {
    std::string PathValue;
    std::string Date;
};

/// The parts of a record of exactly three lines; empty optional for anything else.
std::optional<Record> parsed(const std::string& bytes) {
    const std::string first = "[Trash Info]\nPath=";
    const std::string second = "\nDeletionDate=";
    const std::size_t end = bytes.find(second);
    const std::size_t dateLength = std::string("2024-03-05T14:07:09").size();
    if (bytes.rfind(first, 0) != 0 || end == std::string::npos ||
        bytes.size() != end + second.size() + dateLength + 1 || bytes.back() != '\n') {
        return std::nullopt;
    }
    return Record{bytes.substr(first.size(), end - first.size()),
                  bytes.substr(end + second.size(), dateLength)};
}

// ---------------------------------------------------------------------------------------------
// Times
// ---------------------------------------------------------------------------------------------

std::time_t now() {
    return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

std::tm utc(std::time_t time) {
    std::tm fields = {};
    gmtime_r(&time, &fields);
    return fields;
}

/// The date text of a moment at a place that is so many seconds ahead of UTC.
std::string dateText(std::time_t time, long secondsAhead) {
    const std::tm fields = utc(time + secondsAhead);
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", fields.tm_year + 1900,
                  fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    return text;
}

/// The moment as a rule of a zone ("DAY/TIME") has it, when the clocks there show UTC until then.
std::string changeAt(std::time_t time) {
    const std::tm fields = utc(time);
    char rule[80];
    std::snprintf(rule, sizeof rule, "%d/%02d:%02d:%02d", fields.tm_yday, fields.tm_hour,
                  fields.tm_min, fields.tm_sec);
    return rule;
}

/// A rule counts its days from the first of January, whose night it cannot tell.
bool isYearTurning() {
    return utc(now() - 3 * 3600).tm_year != utc(now() + 3 * 3600).tm_year;
}

/// 01:00 UTC on the last Sunday of March or October (31 days each) of the year of `time`.
std::time_t europeanChange(std::time_t time, int month) {
    std::tm last = {};
    last.tm_year = utc(time).tm_year;
    last.tm_mon = month - 1;
    last.tm_mday = 31;
    last.tm_hour = 1;
    const std::time_t lastDay = timegm(&last);
    return lastDay - static_cast<std::time_t>(utc(lastDay).tm_wday) * 24 * 3600;
}

// ---------------------------------------------------------------------------------------------
// Fixtures
// ---------------------------------------------------------------------------------------------

/// No file grows beyond so many bytes for a while; writing on fails.
class ScopedFileSizeLimit {
public:
    explicit ScopedFileSizeLimit(rlim_t bytes) : m_oldHandler(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &m_old);
        const rlimit limit = {bytes, m_old.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~ScopedFileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, m_oldHandler);
    }
    ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
    ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

private:
    rlimit m_old = {};
    void (*m_oldHandler)(int);
};

/// A directory `info` for the records, and a directory beside it that the operations have no
/// business in.
class TrashRecords : public testing::Test {
protected:
    TrashRecords() {
        makeDirectory(sandbox / "info");
        writeFile(sandbox / "files/a.txt", "trashed");
    }

    fs::path infoPath(const std::string& name) const {
        return sandbox / "info" / (name + ".trashinfo");
    }

    TavroTrashEntry entry(const std::string& name, const std::string& originalPath = "/home/u/x") {
        return {originalPath, (sandbox / "files" / name).string(), infoPath(name).string(), false};
    }

    /// An entry whose record cannot be created, because its directory is missing.
    TavroTrashEntry unwritable() {
        return entry("missing/c");
    }

    bool write(const std::vector<TavroTrashEntry>& entries) {
        return TavroWriteTrashInfoEntries(entries, error);
    }

    /// The path's value in the record of this name.
    std::string pathIn(const std::string& name) const {
        return parsed(readFile(infoPath(name))).value_or(Record{"no record", ""}).PathValue;
    }

    /// The record of one entry that was just written. The moments around the write are kept.
    Record written(const std::string& originalPath) {
        m_before = now();
        EXPECT_TRUE(write({entry("a", originalPath)})) << error;
        m_after = now();
        const std::optional<Record> record = parsed(readFile(infoPath("a")));
        EXPECT_TRUE(record.has_value()) << readFile(infoPath("a"));
        return record.value_or(Record{});
    }

    /// A record written now carries the time of a place that is so many seconds ahead of UTC.
    void expectTimeAhead(const std::string& zone, long secondsAhead) {
        SCOPED_TRACE("zone " + zone);
        const ScopedTimeZone scope(zone);
        const std::string date = written("/x").Date;
        bool bFound = false;
        for (std::time_t time = m_before; time <= m_after; ++time) {
            bFound = bFound || date == dateText(time, secondsAhead);
        }
        EXPECT_TRUE(bFound) << date << " is not between " << dateText(m_before, secondsAhead)
                            << " and " << dateText(m_after, secondsAhead);
    }

    std::string cannotCreate(const TavroTrashEntry& trashEntry) const {
        return "Failed to create trash metadata '" + trashEntry.InfoPath + "'.";
    }

    Sandbox sandbox;
    std::string error = "untouched";

private:
    std::time_t m_before = 0;
    std::time_t m_after = 0;
};

using WriteTrashInfoEntries = TrashRecords;
using RemoveTrashInfoEntries = TrashRecords;

} // namespace

// -------------------------------------------------------------------------------------------------
// The bytes of a record
// -------------------------------------------------------------------------------------------------

TEST_F(TrashRecords, a_record_is_three_lines_to_the_byte) {
    const Record record = written("/home/u/notes.txt");
    EXPECT_EQ(readFile(infoPath("a")),
              "[Trash Info]\nPath=/home/u/notes.txt\nDeletionDate=" + record.Date + "\n");
    EXPECT_EQ(error, "untouched");
}

TEST_F(TrashRecords, the_bytes_of_a_path_that_are_not_plain_are_escaped) {
    EXPECT_EQ(written("/home/u/My File+1%.txt").PathValue, "/home/u/My%20File%2B1%25.txt");
    EXPECT_EQ(written("/tmp/a-b_c.d~").PathValue, "/tmp/a-b_c.d~");
    EXPECT_EQ(written("/caf\xC3\xA9").PathValue, "/caf%C3%A9");
    EXPECT_EQ(written("/line\nfeed").PathValue, "/line%0Afeed");
    EXPECT_EQ(written("/a:b@c").PathValue, "/a%3Ab%40c");
    EXPECT_EQ(written("/AZ[az{09:").PathValue, "/AZ%5Baz%7B09%3A");
}

TEST_F(TrashRecords, every_byte_of_a_path_comes_back) {
    for (int byte = 0; byte <= 255; ++byte) {
        const std::string path = std::string("/x") + static_cast<char>(byte) + "y";
        EXPECT_EQ(decoded(written(path).PathValue), path) << "byte " << byte;
    }
}

TEST_F(TrashRecords, an_empty_path_is_an_empty_value) {
    EXPECT_EQ(written("").PathValue, "");
}

TEST_F(TrashRecords, a_path_is_written_as_it_is_stored) {
    EXPECT_EQ(written("rel//a/../b/./c/").PathValue, "rel//a/../b/./c/");
}

TEST_F(TrashRecords, a_path_longer_than_any_buffer_is_written_whole) {
    const std::string path = "/" + std::string(100000, ' ') + std::string(100000, 'x');
    EXPECT_EQ(decoded(written(path).PathValue), path);
}

// -------------------------------------------------------------------------------------------------
// The time in a record
// -------------------------------------------------------------------------------------------------

TEST_F(TrashRecords, the_date_is_the_local_time) {
    expectTimeAhead("UTC0", 0);
    expectTimeAhead("AAA-5:30", 5 * 3600 + 30 * 60);
    expectTimeAhead("<+1345>-13:45", 13 * 3600 + 45 * 60);
    expectTimeAhead("AAA3:30", -(3 * 3600 + 30 * 60));
    expectTimeAhead("AAA12", -12 * 3600);
}

TEST_F(TrashRecords, the_date_follows_the_summer_time_of_the_zone) {
    const std::time_t time = now();
    const bool bSummer = time >= europeanChange(time, 3) && time < europeanChange(time, 10);
    expectTimeAhead("CET-1CEST,M3.5.0,M10.5.0/3", bSummer ? 2 * 3600 : 3600);
    // A zone whose summer lies in the winter of the other one, with the changes at the same
    // moments.
    expectTimeAhead("AAA-1BBB,M10.5.0,M3.5.0/3", bSummer ? 3600 : 2 * 3600);
}

TEST_F(TrashRecords, the_date_jumps_when_summer_time_begins) {
    if (isYearTurning()) {
        GTEST_SKIP() << "a change of the clocks around New Year cannot be told by a rule";
    }
    const std::time_t time = now();
    const std::string end = changeAt(time + 150 * 24 * 3600);
    expectTimeAhead("AAA0BBB-1," + changeAt(time - 1800) + "," + end, 3600);
    expectTimeAhead("AAA0BBB-1," + changeAt(time + 1800) + "," + end, 0);
}

TEST_F(TrashRecords, the_date_jumps_back_when_summer_time_ends) {
    if (isYearTurning()) {
        GTEST_SKIP() << "a change of the clocks around New Year cannot be told by a rule";
    }
    // The end of a summer time is told in summer time.
    const std::time_t time = now();
    const std::string start = changeAt(time - 150 * 24 * 3600);
    expectTimeAhead("AAA0BBB-1," + start + "," + changeAt(time + 3600 - 1800), 0);
    expectTimeAhead("AAA0BBB-1," + start + "," + changeAt(time + 3600 + 1800), 3600);
}

// -------------------------------------------------------------------------------------------------
// All records or none
// -------------------------------------------------------------------------------------------------

TEST_F(WriteTrashInfoEntries, an_empty_batch_writes_nothing_and_succeeds) {
    const Snapshot before = takeSnapshot(sandbox.path());
    EXPECT_TRUE(write({}));
    EXPECT_EQ(takeSnapshot(sandbox.path()), before);
    EXPECT_EQ(error, "untouched");
}

TEST_F(WriteTrashInfoEntries, a_batch_writes_a_record_for_each_and_touches_no_trashed_entry) {
    const Snapshot filesBefore = takeSnapshot(sandbox / "files");
    EXPECT_TRUE(write({entry("a.txt", "/home/1"), entry("b", "/home/2"), entry("c", "/home/3")}));
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(takeSnapshot(sandbox / "info").size(), 4U);
    EXPECT_EQ(pathIn("a.txt"), "/home/1");
    EXPECT_EQ(pathIn("b"), "/home/2");
    EXPECT_EQ(pathIn("c"), "/home/3");
    EXPECT_EQ(takeSnapshot(sandbox / "files"), filesBefore);
}

TEST_F(WriteTrashInfoEntries, an_existing_record_is_replaced_whole) {
    writeFile(infoPath("a"), std::string(500, 'z'));
    EXPECT_EQ(written("/second").PathValue, "/second");
    EXPECT_EQ(written("/2").PathValue, "/2");
}

TEST_F(WriteTrashInfoEntries, a_record_is_written_in_place_and_through_a_link) {
    writeFile(infoPath("a"), std::string(5000, 'o'));
    fs::create_hard_link(infoPath("a"), sandbox / "other name of a");
    fs::create_symlink(sandbox / "behind the link", infoPath("b"));
    EXPECT_TRUE(write({entry("a", "/a"), entry("b", "/b")})) << error;
    EXPECT_EQ(readFile(sandbox / "other name of a"), readFile(infoPath("a")));
    EXPECT_EQ(pathIn("a"), "/a");
    EXPECT_TRUE(fs::is_symlink(infoPath("b")));
    EXPECT_EQ(readFile(sandbox / "behind the link"), readFile(infoPath("b")));
    EXPECT_EQ(pathIn("b"), "/b");
}

TEST_F(WriteTrashInfoEntries, of_two_entries_with_one_record_the_second_stays) {
    EXPECT_TRUE(write({entry("a", "/a/longer/first"), entry("a", "/second")}));
    EXPECT_EQ(pathIn("a"), "/second");
}

TEST_F(WriteTrashInfoEntries, the_third_of_three_takes_the_first_two_with_it) {
    const Snapshot before = takeSnapshot(sandbox.path());
    EXPECT_FALSE(write({entry("a"), entry("b"), unwritable()}));
    EXPECT_EQ(error, cannotCreate(unwritable()));
    EXPECT_EQ(takeSnapshot(sandbox.path()), before);
}

TEST_F(WriteTrashInfoEntries, nothing_is_written_after_the_first_failure) {
    const Snapshot before = takeSnapshot(sandbox.path());
    TavroTrashEntry nameless = entry("b");
    nameless.InfoPath.clear();
    EXPECT_FALSE(write({unwritable(), nameless, entry("a")}));
    EXPECT_EQ(error, cannotCreate(unwritable()));
    EXPECT_FALSE(write({entry("a"), nameless, entry("b")}));
    EXPECT_EQ(error, "Failed to create trash metadata ''.");
    EXPECT_EQ(takeSnapshot(sandbox.path()), before);
}

TEST_F(WriteTrashInfoEntries, a_record_that_replaced_another_is_gone_after_a_failure_too) {
    writeFile(infoPath("a"), "an older record");
    writeFile(infoPath("b"), "not reached");
    EXPECT_FALSE(write({entry("a"), unwritable(), entry("b")}));
    EXPECT_FALSE(isPresent(infoPath("a")));
    EXPECT_EQ(readFile(infoPath("b")), "not reached");
}

TEST_F(WriteTrashInfoEntries, a_directory_in_the_place_of_a_record_is_a_failure_and_stays) {
    makeDirectory(infoPath("b"));
    const Snapshot before = takeSnapshot(sandbox.path());
    EXPECT_FALSE(write({entry("a"), entry("b"), entry("c")}));
    EXPECT_EQ(error, cannotCreate(entry("b")));
    EXPECT_EQ(takeSnapshot(sandbox.path()), before);
}

TEST_F(WriteTrashInfoEntries, a_folder_without_permission_to_write_is_a_failure) {
    fs::permissions(sandbox / "info", fs::perms::owner_read | fs::perms::owner_exec);
    runUnprivileged(sandbox.path(), [&] {
        EXPECT_FALSE(write({entry("a")}));
        EXPECT_EQ(error, cannotCreate(entry("a")));
        EXPECT_FALSE(isPresent(infoPath("a")));
    });
}

TEST_F(WriteTrashInfoEntries, a_record_that_failed_half_way_stays_and_those_before_it_go) {
    const TavroTrashEntry tooLong = entry("b", "/" + std::string(20000, 'x'));
    bool bWritten = true;
    {
        const ScopedFileSizeLimit limit(1000);
        bWritten = write({entry("a"), tooLong, entry("c")});
    }
    EXPECT_FALSE(bWritten);
    EXPECT_EQ(error, "Failed to write trash metadata '" + tooLong.InfoPath + "'.");
    EXPECT_EQ(readFile(infoPath("b")), "[Trash Info]\nPath=/" + std::string(981, 'x'));
    EXPECT_EQ(takeSnapshot(sandbox / "info").size(), 2U);
}

TEST_F(WriteTrashInfoEntries, a_failure_that_shows_only_at_the_close_is_not_seen) {
    bool bWritten = false;
    {
        const ScopedFileSizeLimit limit(10);
        bWritten = write({entry("a")});
    }
    EXPECT_TRUE(bWritten);
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(readFile(infoPath("a")), "[Trash Inf");
}

// -------------------------------------------------------------------------------------------------
// Removing records
// -------------------------------------------------------------------------------------------------

TEST_F(RemoveTrashInfoEntries, records_go_and_trashed_entries_stay) {
    const Snapshot before = takeSnapshot(sandbox.path());
    const std::vector<TavroTrashEntry> entries = {entry("a.txt"), entry("b")};
    ASSERT_TRUE(write(entries));
    ASSERT_NE(takeSnapshot(sandbox.path()), before);
    TavroRemoveTrashInfoEntries(entries);
    EXPECT_EQ(takeSnapshot(sandbox.path()), before);
}

TEST_F(RemoveTrashInfoEntries, an_empty_list_removes_nothing) {
    ASSERT_TRUE(write({entry("a")}));
    const Snapshot before = takeSnapshot(sandbox.path());
    TavroRemoveTrashInfoEntries({});
    EXPECT_EQ(takeSnapshot(sandbox.path()), before);
}

TEST_F(RemoveTrashInfoEntries, missing_records_are_passed_over) {
    ASSERT_TRUE(write({entry("c")}));
    TavroTrashEntry nameless = entry("b");
    nameless.InfoPath.clear();
    TavroRemoveTrashInfoEntries({entry("a"), unwritable(), nameless, entry("c")});
    EXPECT_FALSE(isPresent(infoPath("c")));
}

TEST_F(RemoveTrashInfoEntries, a_directory_with_something_in_it_stays_and_an_empty_one_goes) {
    writeFile(infoPath("full") / "kept.txt", "kept");
    makeDirectory(infoPath("empty"));
    ASSERT_TRUE(write({entry("a")}));
    TavroRemoveTrashInfoEntries({entry("full"), entry("empty"), entry("a")});
    EXPECT_EQ(readFile(infoPath("full") / "kept.txt"), "kept");
    EXPECT_FALSE(isPresent(infoPath("empty")));
    EXPECT_FALSE(isPresent(infoPath("a")));
}

TEST_F(RemoveTrashInfoEntries, of_a_link_in_the_place_of_a_record_only_the_link_goes) {
    fs::create_symlink(sandbox / "files/a.txt", infoPath("a"));
    TavroRemoveTrashInfoEntries({entry("a")});
    EXPECT_FALSE(isPresent(infoPath("a")));
    EXPECT_EQ(readFile(sandbox / "files/a.txt"), "trashed");
}

TEST_F(RemoveTrashInfoEntries, a_record_that_cannot_be_removed_stays_and_the_next_one_goes) {
    makeDirectory(sandbox / "locked");
    TavroTrashEntry locked = entry("b");
    locked.InfoPath = (sandbox / "locked/b.trashinfo").string();
    ASSERT_TRUE(write({locked, entry("a")}));
    fs::permissions(sandbox / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    runUnprivileged(sandbox.path(), [&] {
        TavroRemoveTrashInfoEntries({locked, entry("a")});
        EXPECT_TRUE(isPresent(locked.InfoPath));
        EXPECT_FALSE(isPresent(infoPath("a")));
    });
}
