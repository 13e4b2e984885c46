// The helpers that no caller sees. This file compiles the module's own source, whose unnamed
// namespace is in reach here.

#include "../../src/tavroops.cpp"

#include "fault_injector.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

using namespace tavro_test;

namespace {

/// Several expectations of one kind, each named in the output when it fails.
struct NamePair {
    std::string Given;
    std::string Expected;
};

ino_t inodeOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

// -------------------------------------------------------------------------------------------------
// Free names
// -------------------------------------------------------------------------------------------------

class FreeNames : public testing::Test {
protected:
    Sandbox m_box;

    /// The free name for a requested one, both below the sandbox.
    std::string freeNameFor(const std::string& name) const {
        const fs::path free = MakeConflictFreePath(m_box / name);
        EXPECT_EQ(free.parent_path(), m_box.path());
        return free.filename().string();
    }
};

TEST_F(FreeNames, a_free_path_is_returned_byte_for_byte) {
    makeDirectory(m_box / "d");
    const ScopedCurrentDirectory there(m_box.path());
    const std::string absolute = m_box.path().string();
    for (const std::string& path :
         {absolute + "/a.txt", absolute + "/./d/..//d/b", std::string("relative"),
          std::string("d//../x"), std::string("missing/folder/"), std::string()}) {
        EXPECT_EQ(MakeConflictFreePath(path).native(), path);
    }
}

TEST_F(FreeNames, the_number_comes_before_the_extension) {
    const std::vector<NamePair> rows = {
        {"report.txt", "report copy 1.txt"},
        {"archive.tar.gz", "archive.tar copy 1.gz"},
        {"README", "README copy 1"},
        {"ends with a dot.", "ends with a dot copy 1."},
        {"a b.c d", "a b copy 1.c d"},
        {" .x", "  copy 1.x"},
        {"a copy 1.txt", "a copy 1 copy 1.txt"},
        {"back\\slash.t", "back\\slash copy 1.t"},
        {"line\nfeed.\n", "line\nfeed copy 1.\n"},
        {"\xC3\xA9\xFF.\xFE", "\xC3\xA9\xFF copy 1.\xFE"},
    };
    for (const NamePair& row : rows) {
        writeFile(m_box / row.Given);
        EXPECT_EQ(freeNameFor(row.Given), row.Expected);
    }
}

TEST_F(FreeNames, a_dot_in_front_begins_no_extension) {
    const std::vector<NamePair> rows = {
        {".profile", ".profile copy 1"},
        {".bashrc.bak", ".bashrc copy 1.bak"},
        {"..a", ". copy 1.a"},
        {"...", ".. copy 1."},
        {". ", ".  copy 1"},
    };
    for (const NamePair& row : rows) {
        writeFile(m_box / row.Given);
        EXPECT_EQ(freeNameFor(row.Given), row.Expected);
    }
}

TEST_F(FreeNames, a_directory_is_split_like_a_file) {
    const std::vector<NamePair> rows = {
        {"Music", "Music copy 1"}, {"photos.2020", "photos copy 1.2020"}, {".git", ".git copy 1"}};
    for (const NamePair& row : rows) {
        makeDirectory(m_box / row.Given);
        EXPECT_EQ(freeNameFor(row.Given), row.Expected);
    }
}

TEST_F(FreeNames, the_dot_names_have_no_extension) {
    makeDirectory(m_box / "d");
    EXPECT_EQ(MakeConflictFreePath(m_box / "d/..").native(), (m_box / "d/.. copy 1").native());
    EXPECT_EQ(MakeConflictFreePath(m_box / "d/.").native(), (m_box / "d/. copy 1").native());
}

TEST_F(FreeNames, a_path_that_ends_in_a_separator_has_an_empty_base) {
    makeDirectory(m_box / "d");
    EXPECT_EQ(MakeConflictFreePath(m_box / "d/").native(), (m_box / "d/ copy 1").native());
}

TEST_F(FreeNames, a_bare_taken_name_gets_a_bare_name) {
    writeFile(m_box / "a.txt");
    const ScopedCurrentDirectory there(m_box.path());
    EXPECT_EQ(MakeConflictFreePath("a.txt").native(), "a copy 1.txt");
}

TEST_F(FreeNames, a_taken_path_is_not_normalised_either) {
    writeFile(m_box / "d/a.txt");
    const std::string untidy = m_box.path().string() + "/./d/..//d";
    EXPECT_EQ(MakeConflictFreePath(untidy + "/a.txt").native(), untidy + "/a copy 1.txt");
}

TEST_F(FreeNames, the_first_gap_wins) {
    writeFile(m_box / "a.txt");
    writeFile(m_box / "a copy 2.txt");
    EXPECT_EQ(freeNameFor("a.txt"), "a copy 1.txt");
    EXPECT_EQ(freeNameFor("a.txt"), "a copy 1.txt") << "nothing is remembered between calls";
    writeFile(m_box / "a copy 1.txt");
    EXPECT_EQ(freeNameFor("a.txt"), "a copy 3.txt");
}

TEST_F(FreeNames, everything_that_can_be_followed_is_taken) {
    writeFile(m_box / "file");
    makeDirectory(m_box / "directory");
    makeFifo(m_box / "fifo");
    fs::create_symlink("file", m_box / "link to file");
    fs::create_directory_symlink("directory", m_box / "link to directory");
    for (const char* name : {"file", "directory", "fifo", "link to file", "link to directory"}) {
        EXPECT_EQ(freeNameFor(name), std::string(name) + " copy 1");
    }
}

TEST_F(FreeNames, dangling_and_looping_links_are_free) {
    fs::create_symlink("nowhere", m_box / "dangling");
    fs::create_symlink("loop", m_box / "loop");
    EXPECT_EQ(freeNameFor("dangling"), "dangling");
    EXPECT_EQ(freeNameFor("loop"), "loop");
    writeFile(m_box / "a.txt");
    fs::create_symlink("nowhere", m_box / "a copy 1.txt");
    EXPECT_EQ(freeNameFor("a.txt"), "a copy 1.txt");
}

TEST_F(FreeNames, what_cannot_be_examined_counts_as_free) {
    const std::string tooLong(256, 'x');
    EXPECT_EQ(freeNameFor(tooLong), tooLong);

    const std::string longest(255, 'y');
    writeFile(m_box / longest);
    EXPECT_EQ(freeNameFor(longest), longest + " copy 1");

    writeFile(m_box / "file");
    EXPECT_EQ(MakeConflictFreePath(m_box / "file/below").native(), (m_box / "file/below").native());
}

TEST_F(FreeNames, a_failing_query_counts_as_free) {
    writeFile(m_box / "a.txt");
    writeFile(m_box / "a copy 1.txt");
    {
        const FaultInjector injector({{"stat", EIO, "a copy 1.txt"}});
        EXPECT_EQ(freeNameFor("a.txt"), "a copy 1.txt");
        EXPECT_EQ(injector.fired(), 1);
    }
    const FaultInjector injector({{"stat", EACCES, "a.txt"}});
    EXPECT_EQ(freeNameFor("a.txt"), "a.txt");
    EXPECT_EQ(injector.fired(), 1);
}

TEST_F(FreeNames, a_name_in_a_folder_without_search_permission_counts_as_free) {
    writeFile(m_box / "closed/a.txt");
    runUnprivileged(m_box.path(), [&] {
        fs::permissions(m_box / "closed", fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_EQ(MakeConflictFreePath(m_box / "closed/a.txt"), m_box / "closed/a.txt");
    });
}

// -------------------------------------------------------------------------------------------------
// Local time
// -------------------------------------------------------------------------------------------------

std::time_t secondsNow() {
    std::timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

std::string formatted(const std::tm& fields, const char* pattern) {
    std::array<char, 64> text = {};
    EXPECT_NE(std::strftime(text.data(), text.size(), pattern, &fields), 0U);
    return text.data();
}

/// The text of a moment in a zone that is so many seconds ahead of UTC, without the C library's
/// idea of zones.
std::string textAhead(std::time_t moment, long secondsAhead, const char* pattern) {
    const std::time_t shifted = moment + secondsAhead;
    std::tm fields = {};
    gmtime_r(&shifted, &fields);
    return formatted(fields, pattern);
}

std::string localText(std::time_t moment, const char* pattern) {
    std::tm fields = {};
    localtime_r(&moment, &fields);
    return formatted(fields, pattern);
}

constexpr const char* stampPattern = "%Y%m%d-%H%M%S";
constexpr const char* datePattern = "%Y-%m-%dT%H:%M:%S";

/// What `call` returns is what `expected` gives for a second between before and after the call.
template <typename Call, typename Expected>
void expectTextOfNow(const Call& call, const Expected& expected) {
    const std::time_t before = secondsNow();
    const std::string text = call();
    const std::time_t after = secondsNow();
    bool bFound = false;
    for (std::time_t moment = before; moment <= after; ++moment) {
        bFound = bFound || text == expected(moment);
    }
    EXPECT_TRUE(bFound) << '"' << text << "\" is not \"" << expected(before) << "\" or a later one";
}

/// Both texts of the current time agree with a zone that is so many seconds ahead of UTC.
void expectClockAhead(long secondsAhead) {
    expectTextOfNow(TimestampSuffix,
                    [&](std::time_t now) { return textAhead(now, secondsAhead, stampPattern); });
    expectTextOfNow(TrashDeletionDate,
                    [&](std::time_t now) { return textAhead(now, secondsAhead, datePattern); });
}

/// "45/13:07:09"-like: a moment of the year as rules of zones name it, by local standard time,
/// which is UTC in the zones of these tests.
std::string ruleFor(std::time_t moment) {
    std::tm fields = {};
    gmtime_r(&moment, &fields);
    return std::to_string(fields.tm_yday) + formatted(fields, "/%H:%M:%S");
}

TEST(LocalTime, both_texts_have_their_form) {
    const ScopedTimeZone zone("UTC0");
    const auto shapeOf = [](std::string text) {
        std::replace_if(
            text.begin(), text.end(), [](char byte) { return byte >= '0' && byte <= '9'; }, '9');
        return text;
    };
    EXPECT_EQ(shapeOf(TimestampSuffix()), "99999999-999999");
    EXPECT_EQ(shapeOf(TrashDeletionDate()), "9999-99-99T99:99:99");
}

TEST(LocalTime, both_texts_follow_the_zone) {
    struct Zone {
        const char* Rule;
        long SecondsAhead;
    };
    const Zone zones[] = {{"UTC0", 0},           {"AAA-14", 14 * 3600},
                          {"BBB12", -12 * 3600}, {"CCC-5:45", 5 * 3600 + 45 * 60},
                          {"DDD3:30", -12600},   {"EEE-0:00:07", 7}};
    for (const Zone& zone : zones) {
        SCOPED_TRACE(zone.Rule);
        const ScopedTimeZone scoped(zone.Rule);
        expectClockAhead(zone.SecondsAhead);
    }
}

TEST(LocalTime, both_texts_agree_with_the_named_zones) {
    for (const char* name : {"America/New_York", "Asia/Kathmandu", "Australia/Lord_Howe",
                             "Pacific/Kiritimati", "Europe/Berlin", "No/Such_Zone"}) {
        SCOPED_TRACE(name);
        const ScopedTimeZone scoped(name);
        expectTextOfNow(TimestampSuffix,
                        [](std::time_t now) { return localText(now, stampPattern); });
        expectTextOfNow(TrashDeletionDate,
                        [](std::time_t now) { return localText(now, datePattern); });
    }
}

TEST(LocalTime, daylight_saving_that_began_a_minute_ago_counts) {
    const std::time_t now = secondsNow();
    const ScopedTimeZone zone("STD0DST," + ruleFor(now - 60) + "," + ruleFor(now + 30 * 86400));
    expectClockAhead(3600);
}

TEST(LocalTime, daylight_saving_that_begins_in_a_minute_does_not_count_yet) {
    const std::time_t now = secondsNow();
    const ScopedTimeZone zone("STD0DST," + ruleFor(now + 60) + "," + ruleFor(now + 30 * 86400));
    expectClockAhead(0);
}

TEST(LocalTime, daylight_saving_that_ended_a_minute_ago_counts_no_more) {
    const std::time_t now = secondsNow();
    // The end is told by the clock of that moment, here a minute ahead.
    const ScopedTimeZone zone("STD0DST-0:01," + ruleFor(now - 30 * 86400) + "," + ruleFor(now));
    expectClockAhead(0);
}

TEST(LocalTime, a_time_that_cannot_be_converted_reads_as_zeros) {
    const FaultInjector injector({{"localtime_r", EOVERFLOW, "", 1, true}});
    EXPECT_EQ(TimestampSuffix(), "19000100-000000");
    EXPECT_EQ(TrashDeletionDate(), "1900-01-00T00:00:00");
    EXPECT_EQ(injector.fired(), 2);
}

TEST(CrowdedFolder, after_9999_taken_names_comes_the_time_free_or_not) {
    // Ten thousand files are made and removed fastest in memory.
    const Sandbox box(fs::is_directory(secondFileSystem) ? fs::path(secondFileSystem)
                                                         : fs::temp_directory_path());
    const auto freeName = [&] { return MakeConflictFreePath(box / "a.txt").string(); };
    const auto copyName = [&](const std::string& number) {
        return (box / ("a copy " + number + ".txt")).string();
    };
    const auto stampedName = [&](std::time_t moment) {
        return copyName(localText(moment, stampPattern));
    };
    writeFile(box / "a.txt");
    for (int i = 1; i <= 9998; ++i) {
        writeFile(copyName(std::to_string(i)));
    }
    EXPECT_EQ(freeName(), copyName("9999"));

    writeFile(copyName("9999"));
    expectTextOfNow(freeName, stampedName);

    const std::time_t now = secondsNow();
    for (std::time_t moment = now; moment <= now + 60; ++moment) {
        writeFile(stampedName(moment));
    }
    expectTextOfNow(freeName, stampedName);
    EXPECT_TRUE(isPresent(freeName()));
}

// -------------------------------------------------------------------------------------------------
// Transfer plans
// -------------------------------------------------------------------------------------------------

TEST(CddaCopyDestinationName, only_a_track_without_another_extension_becomes_a_wav_file) {
    const std::vector<NamePair> rows = {
        {"Track 01.cdda", "Track 01.wav"},
        {"Track 01", "Track 01.wav"},
        {"Track 01.flac", "Track 01.flac"},
        {"Track 01.CDDA", "Track 01.CDDA"},
        {"Track 01.wav", "Track 01.wav"},
        {"Track 01.", "Track 01."},
        {"a.b.cdda", "a.b.wav"},
        {"a.cdda.b", "a.cdda.b"},
        {".cdda", ".cdda.wav"},
        {".hidden.cdda", ".hidden.wav"},
        {"01. Intro", "01. Intro"},
        {"sub/Track 02.cdda", "sub/Track 02.wav"},
        {"", ".wav"},
    };
    for (const NamePair& row : rows) {
        // The name counts, never the path.
        const TavroOperationEntry track = {row.Given, "cdda:/1/Other.cdda", true};
        EXPECT_EQ(CddaCopyDestinationName(track).native(), row.Expected);
    }
}

class TargetCompatibility : public testing::Test {
protected:
    Sandbox m_box;
    const std::vector<TavroOperationEntry> m_two = {{"a", "/x/a", false}, {"b", "/x/b", true}};

    void expectAccepted(const std::vector<TavroOperationEntry>& entries, const fs::path& target) {
        std::string message = "as before";
        EXPECT_TRUE(EnsureTransferTargetDirectoryCompatibility(entries, target, message)) << target;
        EXPECT_EQ(message, "as before");
    }

    void expectRefused(const fs::path& target) {
        std::string message = "as before";
        EXPECT_FALSE(EnsureTransferTargetDirectoryCompatibility(m_two, target, message)) << target;
        EXPECT_EQ(message, "Target must be a directory when multiple items are selected.");
    }
};

TEST_F(TargetCompatibility, up_to_one_entry_goes_anywhere) {
    writeFile(m_box / "file");
    expectAccepted({}, m_box / "file");
    expectAccepted({m_two[0]}, m_box / "file");
}

TEST_F(TargetCompatibility, several_entries_go_into_a_directory_or_nothing_yet) {
    makeDirectory(m_box / "directory");
    fs::create_directory_symlink("directory", m_box / "link");
    fs::create_symlink("nowhere", m_box / "dangling");
    for (const char* name : {"directory", "link", "dangling", "missing", "missing/deeper"}) {
        expectAccepted(m_two, m_box / name);
    }
}

TEST_F(TargetCompatibility, several_entries_do_not_go_onto_anything_else) {
    writeFile(m_box / "file");
    makeFifo(m_box / "fifo");
    fs::create_symlink("file", m_box / "link");
    for (const char* name : {"file", "fifo", "link"}) {
        expectRefused(m_box / name);
    }
}

TEST_F(TargetCompatibility, a_target_that_cannot_be_examined_counts_as_nothing_yet) {
    expectAccepted(m_two, m_box / std::string(256, 'x'));
    writeFile(m_box / "file");
    const FaultInjector injector({{"stat", EACCES, "file"}});
    expectAccepted(m_two, m_box / "file");
    EXPECT_EQ(injector.fired(), 1);
}

TEST_F(TargetCompatibility, an_existing_target_that_cannot_be_told_a_directory_is_none) {
    makeDirectory(m_box / "directory");
    const FaultInjector injector({{"stat", EIO, "directory", 2}});
    expectRefused(m_box / "directory");
    EXPECT_EQ(injector.fired(), 1);
}

// -------------------------------------------------------------------------------------------------
// Moving within a file system
// -------------------------------------------------------------------------------------------------

/// A tree with a bit of everything that a move has to keep: an empty directory, an empty file, odd
/// names and modes, and links of all kinds.
void makeTree(const fs::path& root) {
    writeFile(root / "a.txt", "first");
    writeFile(root / "empty.txt");
    writeFile(root / "sub/deep/b.bin", std::string("\0\xFF\n", 3) + std::string(20000, 'b'));
    writeFile(root / "sub/odd \xFF\n name", "odd");
    makeDirectory(root / "sub/empty");
    fs::permissions(root / "a.txt", fs::perms::owner_all | fs::perms::others_read);
    fs::permissions(root / "sub/deep", fs::perms::owner_all);
    fs::create_symlink("nowhere/at/all", root / "dangling");
    fs::create_symlink("../a.txt", root / "sub/relative");
    fs::create_symlink("/proc/self", root / "sub/absolute");
    fs::create_directory_symlink("deep", root / "sub/to directory");
    fs::create_symlink(".", root / "sub/to itself");
}

std::string failure(const std::string& what, const fs::path& source, const std::string& tail) {
    return what + " '" + source.string() + "'" + tail;
}

std::string moveFailure(const fs::path& source, std::errc reason) {
    return failure("Failed to move", source, ": " + systemText(reason));
}

std::string copyFailure(const fs::path& source, const std::string& reason) {
    return failure("Failed to copy", source, ": " + reason);
}

std::string removeFailure(const fs::path& source, const std::string& reason) {
    return failure("Failed to remove original", source, " after copying: " + reason);
}

class MoveWithinFileSystem : public testing::Test {
protected:
    Sandbox m_box;
    const fs::path m_source = m_box / "from/entry";
    const fs::path m_destination = m_box / "to/entry";

    /// The move fails with this sentence and changes nothing.
    void expectRefused(const fs::path& source, const fs::path& destination,
                       const std::string& sentence) {
        const Snapshot before = takeSnapshot(m_box.path());
        for (const bool bDirectory : {false, true}) {
            std::string message = "earlier text";
            EXPECT_FALSE(MovePathPreservingType(source, destination, bDirectory, message));
            EXPECT_EQ(message, sentence);
            EXPECT_EQ(takeSnapshot(m_box.path()), before);
        }
    }
};

TEST_F(MoveWithinFileSystem, the_entry_itself_moves_whatever_the_flag_says) {
    makeDirectory(m_box / "to");
    makeTree(m_box / "tree");
    writeFile(m_box / "file", "bytes");
    makeFifo(m_box / "fifo");
    fs::create_symlink("file", m_box / "link");
    fs::create_symlink("nowhere", m_box / "dangling");
    for (const char* name : {"tree", "file", "fifo", "link", "dangling"}) {
        for (const bool bDirectory : {true, false}) {
            SCOPED_TRACE(name);
            const fs::path source = bDirectory ? m_box / name : m_destination;
            const fs::path destination = bDirectory ? m_destination : m_box / name;
            const Snapshot before = takeSnapshot(source);
            const ino_t inode = inodeOf(source);
            std::string message = "as before";
            EXPECT_TRUE(MovePathPreservingType(source, destination, bDirectory, message));
            EXPECT_EQ(message, "as before");
            EXPECT_FALSE(isPresent(source));
            EXPECT_EQ(takeSnapshot(destination), before);
            EXPECT_EQ(inodeOf(destination), inode);
        }
    }
}

TEST_F(MoveWithinFileSystem, missing_parents_are_created) {
    writeFile(m_source, "bytes");
    std::string message;
    EXPECT_TRUE(MovePathPreservingType(m_source, m_box / "a/b/c/entry", false, message));
    EXPECT_EQ(readFile(m_box / "a/b/c/entry"), "bytes");
    EXPECT_FALSE(isPresent(m_source));
}

TEST_F(MoveWithinFileSystem, created_parents_stay_when_the_move_fails) {
    makeDirectory(m_box / "from");
    std::string message;
    EXPECT_FALSE(MovePathPreservingType(m_source, m_box / "a/b/entry", false, message));
    EXPECT_EQ(message, moveFailure(m_source, std::errc::no_such_file_or_directory));
    EXPECT_EQ(takeSnapshot(m_box / "a/b").size(), 1U);
}

TEST_F(MoveWithinFileSystem, a_bare_destination_has_no_parent_to_create) {
    writeFile(m_source);
    const ScopedCurrentDirectory there(m_box.path());
    expectRefused(m_source, "bare",
                  "Failed to create destination directory: " +
                      systemText(std::errc::invalid_argument));
}

TEST_F(MoveWithinFileSystem, a_file_in_the_way_of_the_parents_is_told_without_a_path) {
    writeFile(m_source);
    writeFile(m_box / "to", "in the way");
    expectRefused(m_source, m_destination,
                  "Failed to create destination directory: " +
                      systemText(std::errc::not_a_directory));
}

TEST_F(MoveWithinFileSystem, the_part_of_the_parents_that_was_created_stays) {
    writeFile(m_source, "bytes");
    const Snapshot source = takeSnapshot(m_box / "from");
    std::string message;
    const FaultInjector injector({{"mkdir", ENOSPC, "/a/b/c"}});
    EXPECT_FALSE(MovePathPreservingType(m_source, m_box / "a/b/c/d/entry", false, message));
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_EQ(message, "Failed to create destination directory: " +
                           systemText(std::errc::no_space_on_device));
    EXPECT_EQ(takeSnapshot(m_box / "from"), source);
    EXPECT_EQ(takeSnapshot(m_box / "a/b").size(), 1U);
}

TEST_F(MoveWithinFileSystem, a_missing_source_is_refused) {
    makeDirectory(m_box / "from");
    makeDirectory(m_box / "to");
    expectRefused(m_source, m_destination,
                  moveFailure(m_source, std::errc::no_such_file_or_directory));
}

TEST_F(MoveWithinFileSystem, a_directory_with_contents_in_the_place_is_refused) {
    writeFile(m_source / "file");
    writeFile(m_destination / "other");
    expectRefused(m_source, m_destination, moveFailure(m_source, std::errc::directory_not_empty));
}

TEST_F(MoveWithinFileSystem, an_entry_of_the_other_type_in_the_place_is_refused) {
    writeFile(m_source);
    makeDirectory(m_destination);
    expectRefused(m_source, m_destination, moveFailure(m_source, std::errc::is_a_directory));
    expectRefused(m_destination, m_source, moveFailure(m_destination, std::errc::not_a_directory));
}

TEST_F(MoveWithinFileSystem, a_directory_into_itself_is_refused) {
    makeDirectory(m_source);
    expectRefused(m_source, m_source / "inside",
                  moveFailure(m_source, std::errc::invalid_argument));
}

TEST_F(MoveWithinFileSystem, the_source_is_named_as_it_was_given) {
    makeDirectory(m_box / "to");
    const fs::path odd = m_box / "it's \"odd\" \xFF\n/../gone";
    expectRefused(odd, m_destination, moveFailure(odd, std::errc::no_such_file_or_directory));
}

TEST_F(MoveWithinFileSystem, a_file_in_the_place_is_replaced) {
    writeFile(m_source, "new");
    writeFile(m_destination, "old");
    std::string message;
    EXPECT_TRUE(MovePathPreservingType(m_source, m_destination, false, message));
    EXPECT_EQ(readFile(m_destination), "new");
    EXPECT_FALSE(isPresent(m_source));
}

TEST_F(MoveWithinFileSystem, without_permission_nothing_moves_and_nothing_is_copied) {
    writeFile(m_source, "bytes");
    makeDirectory(m_box / "to");
    runUnprivileged(m_box.path(), [&] {
        fs::permissions(m_box / "from", fs::perms::owner_read | fs::perms::owner_exec);
        expectRefused(m_source, m_destination, moveFailure(m_source, std::errc::permission_denied));
        fs::permissions(m_box / "from", fs::perms::owner_all);
        fs::permissions(m_box / "to", fs::perms::owner_read | fs::perms::owner_exec);
        expectRefused(m_source, m_destination, moveFailure(m_source, std::errc::permission_denied));
        expectRefused(m_source, m_box / "to/missing/entry",
                      "Failed to create destination directory: " +
                          systemText(std::errc::permission_denied));
    });
}

TEST_F(MoveWithinFileSystem, no_other_error_than_the_cross_device_one_leads_to_a_copy) {
    writeFile(m_source, "bytes");
    makeDirectory(m_box / "to");
    for (int error = 1; error <= 133; ++error) {
        if (error == EXDEV) {
            continue;
        }
        const FaultInjector injector({{"rename", error, "", 1, true}});
        expectRefused(m_source, m_destination,
                      moveFailure(m_source, static_cast<std::errc>(error)));
        EXPECT_EQ(injector.fired(), 2);
    }
}

// -------------------------------------------------------------------------------------------------
// Moving across file systems
// -------------------------------------------------------------------------------------------------

enum class Crossing {
    ToSecond,   ///< From the temporary directory to the second file system.
    FromSecond, ///< The other way round.
    Pretended,  ///< Within the temporary directory, with a rename that fails as if across.
};

class MoveAcrossFileSystems : public testing::TestWithParam<Crossing> {
protected:
    void SetUp() override {
        if (GetParam() != Crossing::Pretended && !onDifferentDevices(m_from.path(), m_to.path())) {
            GTEST_SKIP() << secondFileSystem << " is on the file system of the temporary directory";
        }
        m_message = "earlier text";
    }

    bool move(bool bDirectory, std::vector<Fault> faults = {}) {
        if (GetParam() == Crossing::Pretended) {
            faults.push_back({"rename", EXDEV, m_source.string(), 1, true});
        }
        const FaultInjector injector(faults);
        const bool bMoved = MovePathPreservingType(m_source, m_destination, bDirectory, m_message);
        EXPECT_TRUE(injector.eachFired());
        return bMoved;
    }

    /// The whole entry is at the destination, and there only.
    void expectMoved(const Snapshot& before) {
        EXPECT_EQ(m_message, "earlier text");
        EXPECT_FALSE(isPresent(m_source));
        EXPECT_EQ(takeSnapshot(m_destination), before);
    }

    /// Nothing of the entry is left at the destination but the folders that were made for it.
    void expectOnlyParentsAtDestination() {
        const Snapshot made = takeSnapshot(m_to.path());
        EXPECT_EQ(made.size(), 3U);
        EXPECT_EQ(made.count("made/for it"), 1U);
    }

    static void expectPartOf(const Snapshot& whole, const Snapshot& part) {
        EXPECT_LT(part.size(), whole.size());
        for (const auto& [name, row] : part) {
            EXPECT_EQ(row, whole.at(name)) << name;
        }
    }

    /// Whatever one failing call does to a move: the whole entry is at one of its two places, or
    /// its removal was interrupted. Returns whether the call was made at all.
    bool moveWithOneFault(bool bDirectory, const Fault& fault) {
        SCOPED_TRACE(fault.Call + " number " + std::to_string(fault.When));
        fs::remove_all(m_source);
        fs::remove_all(m_to / "made");
        bDirectory ? makeSmallTree(m_source) : writeFile(m_source, "bytes");
        const Snapshot before = takeSnapshot(m_source);
        std::vector<Fault> faults = {fault};
        if (GetParam() == Crossing::Pretended) {
            faults.push_back({"rename", EXDEV, m_source.string(), 1, true});
        }
        std::string message;
        bool bMoved = false;
        bool bFired = false;
        {
            const FaultInjector injector(faults);
            EXPECT_NO_THROW(
                bMoved = MovePathPreservingType(m_source, m_destination, bDirectory, message));
            bFired = injector.fired(0) > 0;
        }
        const std::string reason = systemText(std::errc::io_error);
        if (bMoved) {
            EXPECT_FALSE(isPresent(m_source));
            EXPECT_EQ(takeSnapshot(m_destination), before);
        } else if (message == removeFailure(m_source, reason)) {
            EXPECT_FALSE(isPresent(m_destination));
        } else {
            EXPECT_EQ(takeSnapshot(m_source), before);
            const bool bCopying = message == copyFailure(m_source, reason);
            EXPECT_TRUE(bCopying ||
                        message.rfind("Failed to create destination directory: ", 0) == 0)
                << message;
        }
        EXPECT_TRUE(bMoved || bFired) << message;
        return bFired;
    }

    static void makeSmallTree(const fs::path& root) {
        writeFile(root / "a", "bytes");
        writeFile(root / "sub/b", "more bytes");
        fs::create_symlink("a", root / "link");
    }

    /// Something that happens to a copy between its making and the look at it.
    struct Damage {
        const char* Name;
        std::function<void()> Do;
    };

    /// What can be wrong with the copy of a file.
    static std::vector<Damage> damagesTo(const fs::path& copy, const fs::path& original) {
        const std::uintmax_t size = fs::file_size(original);
        const auto replaceBy = [copy](const std::function<void()>& make) {
            return [=] {
                fs::remove(copy);
                make();
            };
        };
        std::vector<Damage> damages = {
            {"longer", [=] { fs::resize_file(copy, size + 1); }},
            {"missing", replaceBy([] {})},
            {"a directory", replaceBy([=] { makeDirectory(copy); })},
            {"a fifo", replaceBy([=] { makeFifo(copy); })},
            {"a link to the original", replaceBy([=] { fs::create_symlink(original, copy); })},
            {"a dangling link", replaceBy([=] { fs::create_symlink("nowhere", copy); })},
        };
        if (size > 0) {
            damages.push_back({"shorter", [=] { fs::resize_file(copy, size - 1); }});
            damages.push_back({"empty", [=] { fs::resize_file(copy, 0); }});
        }
        return damages;
    }

    /// A move whose copy is damaged just before `victim`, a part of it, is first looked at.
    /// The move must say so and leave the damaged copy where it is.
    bool moveDamaged(bool bDirectory, const fs::path& victim, const Damage& damage) {
        fs::remove_all(m_destination);
        m_message = "earlier text";
        Snapshot damaged;
        bool bMoved = false;
        {
            const CallObserver observer([&](const std::string& call, const std::string& path) {
                if (damaged.empty() && call == "lstat" && path == victim) {
                    damage.Do();
                    damaged = takeSnapshot(m_destination.parent_path());
                }
            });
            bMoved = move(bDirectory);
        }
        EXPECT_FALSE(damaged.empty()) << "the copy was not looked at";
        EXPECT_EQ(m_message, copyFailure(m_source, systemText(std::errc::io_error)));
        EXPECT_EQ(takeSnapshot(m_destination.parent_path()), damaged);
        return bMoved;
    }

    Sandbox m_from{parentFor(Crossing::FromSecond)};
    Sandbox m_to{parentFor(Crossing::ToSecond)};
    const fs::path m_source = m_from / "entry";
    const fs::path m_destination = m_to / "made/for it/entry";
    std::string m_message;

private:
    static fs::path parentFor(Crossing crossing) {
        return GetParam() == crossing && fs::is_directory(secondFileSystem)
                   ? fs::path(secondFileSystem)
                   : fs::temp_directory_path();
    }
};

INSTANTIATE_TEST_SUITE_P(, MoveAcrossFileSystems,
                         testing::Values(Crossing::ToSecond, Crossing::FromSecond,
                                         Crossing::Pretended),
                         [](const auto& crossing) {
                             switch (crossing.param) {
                             case Crossing::ToSecond:
                                 return "to_second";
                             case Crossing::FromSecond:
                                 return "from_second";
                             default:
                                 return "pretended";
                             }
                         });

TEST_P(MoveAcrossFileSystems, a_file_arrives_with_its_bytes_and_mode) {
    writeFile(m_source, std::string(300000, 'x') + "end");
    fs::permissions(m_source, fs::perms::owner_all | fs::perms::group_read);
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_TRUE(move(false));
    expectMoved(before);
}

TEST_P(MoveAcrossFileSystems, an_empty_file_arrives) {
    writeFile(m_source);
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_TRUE(move(false));
    expectMoved(before);
}

TEST_P(MoveAcrossFileSystems, a_tree_arrives_with_its_links_as_links) {
    makeTree(m_source);
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_TRUE(move(true));
    expectMoved(before);
}

TEST_P(MoveAcrossFileSystems, an_empty_directory_arrives) {
    makeDirectory(m_source);
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_TRUE(move(true));
    expectMoved(before);
}

TEST_P(MoveAcrossFileSystems, a_link_flagged_as_a_file_arrives_as_what_it_points_to) {
    writeFile(m_from / "target", "of the link");
    const Snapshot target = takeSnapshot(m_from / "target");
    fs::create_symlink("target", m_source);
    EXPECT_TRUE(move(false));
    expectMoved(target);
    EXPECT_EQ(takeSnapshot(m_from / "target"), target);
}

TEST_P(MoveAcrossFileSystems, a_link_flagged_as_a_directory_arrives_as_a_link) {
    writeFile(m_from / "target/file", "of the link");
    const Snapshot target = takeSnapshot(m_from / "target");
    for (const char* text : {"target", "/proc/self", "target/file", "nowhere", "entry"}) {
        SCOPED_TRACE(text);
        fs::create_symlink(text, m_source);
        EXPECT_TRUE(move(true));
        expectMoved({{".", "link -> " + std::string(text)}});
        EXPECT_EQ(takeSnapshot(m_from / "target"), target);
        fs::remove(m_destination);
    }
}

TEST_P(MoveAcrossFileSystems, a_file_flagged_as_a_directory_arrives_all_the_same) {
    writeFile(m_source, "bytes");
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_TRUE(move(true));
    expectMoved(before);
}

/// The reason that the standard library itself gives for not copying `source`.
std::string reasonAgainstCopying(const fs::path& source, bool bDirectory) {
    const fs::path elsewhere = source.parent_path() / "never made";
    const auto options = fs::copy_options::recursive | fs::copy_options::copy_symlinks;
    std::error_code ec;
    if (bDirectory) {
        fs::copy(source, elsewhere, options, ec);
    } else {
        fs::copy_file(source, elsewhere, ec);
    }
    EXPECT_TRUE(ec) << source;
    EXPECT_FALSE(isPresent(elsewhere));
    return ec.message();
}

TEST_P(MoveAcrossFileSystems, a_directory_flagged_as_a_file_is_not_copied) {
    makeTree(m_source);
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_FALSE(move(false));
    EXPECT_EQ(m_message, copyFailure(m_source, reasonAgainstCopying(m_source, false)));
    EXPECT_EQ(takeSnapshot(m_source), before);
    EXPECT_FALSE(isPresent(m_destination));
}

TEST_P(MoveAcrossFileSystems, a_dangling_link_flagged_as_a_file_is_not_copied) {
    fs::create_symlink("nowhere", m_source);
    EXPECT_FALSE(move(false));
    EXPECT_EQ(m_message, copyFailure(m_source, systemText(std::errc::no_such_file_or_directory)));
    EXPECT_EQ(fs::read_symlink(m_source), "nowhere");
    EXPECT_FALSE(isPresent(m_destination));
}

TEST_P(MoveAcrossFileSystems, a_fifo_is_not_copied) {
    makeFifo(m_source);
    for (const bool bDirectory : {false, true}) {
        EXPECT_FALSE(move(bDirectory));
        EXPECT_EQ(m_message, copyFailure(m_source, reasonAgainstCopying(m_source, bDirectory)));
        EXPECT_TRUE(fs::is_fifo(m_source));
        EXPECT_FALSE(isPresent(m_destination));
    }
}

TEST_P(MoveAcrossFileSystems, a_fifo_in_a_tree_stops_the_copy_whose_part_stays) {
    makeDirectory(m_source / "sub");
    makeFifo(m_source / "sub/fifo");
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_FALSE(move(true));
    EXPECT_EQ(m_message, copyFailure(m_source, reasonAgainstCopying(m_source / "sub/fifo", true)));
    EXPECT_EQ(takeSnapshot(m_source), before);
    Snapshot part = before;
    part.erase("sub/fifo");
    EXPECT_EQ(takeSnapshot(m_destination), part);
}

TEST_P(MoveAcrossFileSystems, an_unreadable_file_in_a_tree_stops_the_copy_whose_part_stays) {
    writeFile(m_source / "sub/secret", "bytes");
    fs::permissions(m_to.path(), fs::perms::all);
    runUnprivileged(m_from.path(), [&] {
        fs::permissions(m_source / "sub/secret", fs::perms::none);
        EXPECT_FALSE(move(true));
        EXPECT_EQ(m_message, copyFailure(m_source, systemText(std::errc::permission_denied)));
        EXPECT_TRUE(fs::is_directory(m_destination / "sub"));
        EXPECT_FALSE(isPresent(m_destination / "sub/secret"));
        fs::permissions(m_source / "sub/secret", fs::perms::owner_read);
        EXPECT_EQ(readFile(m_source / "sub/secret"), "bytes");
    });
}

TEST_P(MoveAcrossFileSystems, an_existing_destination_is_kept) {
    writeFile(m_source, "new");
    writeFile(m_destination, "old");
    for (const bool bDirectory : {false, true}) {
        EXPECT_FALSE(move(bDirectory));
        EXPECT_EQ(m_message, copyFailure(m_source, systemText(std::errc::file_exists)));
        EXPECT_EQ(readFile(m_source), "new");
        EXPECT_EQ(readFile(m_destination), "old");
    }
}

TEST_P(MoveAcrossFileSystems, the_place_for_the_copy_is_gone_from_below_it) {
    writeFile(m_source, "bytes");
    EXPECT_FALSE(move(false, {{"open", EROFS, m_destination.string()}}));
    EXPECT_EQ(m_message, copyFailure(m_source, systemText(std::errc::read_only_file_system)));
    EXPECT_EQ(readFile(m_source), "bytes");
}

TEST_P(MoveAcrossFileSystems, a_file_in_a_locked_folder_stays_and_its_copy_goes) {
    writeFile(m_source, "bytes");
    fs::permissions(m_to.path(), fs::perms::all);
    runUnprivileged(m_from.path(), [&] {
        const Snapshot before = takeSnapshot(m_source);
        fs::permissions(m_from.path(), fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_FALSE(move(false));
        EXPECT_EQ(m_message, removeFailure(m_source, systemText(std::errc::permission_denied)));
        EXPECT_EQ(takeSnapshot(m_source), before);
        expectOnlyParentsAtDestination();
    });
}

TEST_P(MoveAcrossFileSystems, a_tree_in_a_locked_folder_is_emptied_and_its_copy_goes) {
    makeTree(m_source);
    fs::permissions(m_to.path(), fs::perms::all);
    runUnprivileged(m_from.path(), [&] {
        const Snapshot before = takeSnapshot(m_source);
        fs::permissions(m_from.path(), fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_FALSE(move(true));
        EXPECT_EQ(m_message, removeFailure(m_source, systemText(std::errc::permission_denied)));
        EXPECT_EQ(takeSnapshot(m_source), (Snapshot{{".", before.at(".")}}));
        expectOnlyParentsAtDestination();
    });
}

TEST_P(MoveAcrossFileSystems, a_tree_that_can_be_removed_in_part_only_loses_that_part) {
    makeTree(m_source);
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_FALSE(move(true, {{"unlinkat", EBUSY, "b.bin"}}));
    EXPECT_EQ(m_message, removeFailure(m_source, systemText(std::errc::device_or_resource_busy)));
    expectPartOf(before, takeSnapshot(m_source));
    EXPECT_EQ(takeSnapshot(m_source).at("sub/deep/b.bin"), before.at("sub/deep/b.bin"));
    expectOnlyParentsAtDestination();
}

TEST_P(MoveAcrossFileSystems, a_source_that_is_gone_at_its_removal_is_an_unknown_error) {
    writeFile(m_source, "bytes");
    {
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (call == "remove" && path == m_source) {
                fs::remove(m_source);
            }
        });
        EXPECT_FALSE(move(false));
    }
    EXPECT_EQ(m_message, removeFailure(m_source, "unknown error"));
    EXPECT_FALSE(isPresent(m_source));
    expectOnlyParentsAtDestination();
}

TEST_P(MoveAcrossFileSystems, a_source_that_seems_gone_at_its_removal_keeps_only_the_source) {
    for (const bool bDirectory : {false, true}) {
        bDirectory ? makeTree(m_source) : writeFile(m_source, "bytes");
        const Snapshot before = takeSnapshot(m_source);
        // A tree is opened three times: for the copy, for the check of it and for the removal.
        const Fault gone = bDirectory ? Fault{"openat", ENOENT, m_source.string(), 3, false, true}
                                      : Fault{"remove", ENOENT, m_source.string()};
        EXPECT_FALSE(move(bDirectory, {gone}));
        EXPECT_EQ(m_message, removeFailure(m_source, "unknown error"));
        EXPECT_EQ(takeSnapshot(m_source), before);
        expectOnlyParentsAtDestination();
        fs::remove_all(m_source);
    }
}

TEST_P(MoveAcrossFileSystems, a_copy_that_cannot_be_discarded_stays_without_a_word) {
    writeFile(m_source, "bytes");
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_FALSE(move(
        false, {{"remove", EBUSY, m_source.string()}, {"remove", EACCES, m_destination.string()}}));
    EXPECT_EQ(m_message, removeFailure(m_source, systemText(std::errc::device_or_resource_busy)));
    EXPECT_EQ(takeSnapshot(m_source), before);
    EXPECT_EQ(takeSnapshot(m_destination), before);
}

TEST_P(MoveAcrossFileSystems, a_tree_that_cannot_be_read_to_its_end_is_not_copied) {
    makeTree(m_source);
    const Snapshot before = takeSnapshot(m_source);
    const std::string sub = (m_source / "sub").string();
    // It is read five times: both dot names, two entries and the end.
    for (const int when : {1, 2, 3, 4, 5}) {
        SCOPED_TRACE(when);
        EXPECT_NO_THROW(EXPECT_FALSE(move(true, {{"readdir", EBADF, sub, when, false, true}})));
        EXPECT_EQ(m_message, copyFailure(m_source, systemText(std::errc::bad_file_descriptor)));
        EXPECT_EQ(takeSnapshot(m_source), before);
        EXPECT_TRUE(fs::is_directory(m_destination / "sub")) << "the part stays";
        fs::remove_all(m_destination);
    }
}

TEST_P(MoveAcrossFileSystems, one_failing_call_never_costs_the_only_copy) {
    const std::vector<const char*> calls = {
        "stat",   "lstat",   "mkdir",     "open",    "fchmod",   "sendfile", "close",
        "openat", "readdir", "fdopendir", "symlink", "readlink", "unlinkat", "remove"};
    for (const bool bDirectory : {false, true}) {
        int failedCalls = 0;
        for (const char* call : calls) {
            int when = 1; // until a move goes by without a call left to fail
            while (moveWithOneFault(bDirectory, {call, EIO, "", when})) {
                ++when;
            }
            failedCalls += when - 1;
        }
        EXPECT_GT(failedCalls, 10);
    }
}

// The check that a copy is whole.

TEST_P(MoveAcrossFileSystems, a_file_that_did_not_arrive_whole_is_not_moved) {
    writeFile(m_source, "all of the bytes");
    const Snapshot before = takeSnapshot(m_source);
    for (const Damage& damage : damagesTo(m_destination, m_source)) {
        SCOPED_TRACE(damage.Name);
        EXPECT_FALSE(moveDamaged(false, m_destination, damage));
        EXPECT_EQ(takeSnapshot(m_source), before);
    }
}

TEST_P(MoveAcrossFileSystems, a_tree_with_a_file_that_did_not_arrive_whole_is_not_moved) {
    makeTree(m_source);
    const Snapshot before = takeSnapshot(m_source);
    for (const char* file : {"a.txt", "empty.txt", "sub/deep/b.bin", "sub/odd \xFF\n name"}) {
        for (const Damage& damage : damagesTo(m_destination / file, m_source / file)) {
            SCOPED_TRACE(std::string(damage.Name) + ": " + file);
            EXPECT_FALSE(moveDamaged(true, m_destination / file, damage));
            EXPECT_EQ(takeSnapshot(m_source), before);
        }
    }
}

TEST_P(MoveAcrossFileSystems, a_tree_without_a_folder_of_files_is_not_moved) {
    makeTree(m_source);
    const Snapshot before = takeSnapshot(m_source);
    const Damage damage = {"folder gone", [&] { fs::remove_all(m_destination / "sub/deep"); }};
    EXPECT_FALSE(moveDamaged(true, m_destination / "sub/deep/b.bin", damage));
    EXPECT_EQ(takeSnapshot(m_source), before);
}

TEST_P(MoveAcrossFileSystems, a_file_flagged_as_a_directory_is_checked_too) {
    writeFile(m_source, "all of the bytes");
    const Damage damage = {"shorter", [&] { fs::resize_file(m_destination, 3); }};
    EXPECT_FALSE(moveDamaged(true, m_destination, damage));
    EXPECT_EQ(readFile(m_source), "all of the bytes");
}

TEST_P(MoveAcrossFileSystems, a_source_that_cannot_be_examined_for_the_check_is_not_moved) {
    writeFile(m_source, "bytes");
    // The copy asks once before it, and the check once after it.
    EXPECT_FALSE(move(false, {{"stat", EIO, m_source.string(), 2, false, true}}));
    EXPECT_EQ(m_message, copyFailure(m_source, systemText(std::errc::io_error)));
    EXPECT_EQ(readFile(m_source), "bytes");
    EXPECT_EQ(readFile(m_destination), "bytes");
}

TEST(FileArrivedWhole, two_sizes_that_cannot_be_had_are_not_the_same) {
    const Sandbox box;
    writeFile(box / "source", "bytes");
    writeFile(box / "copy", "bytes");
    EXPECT_TRUE(FileArrivedWhole(box / "source", box / "copy"));
    const FaultInjector injector({{"stat", EIO, box.path().string(), 1, true}});
    EXPECT_FALSE(FileArrivedWhole(box / "source", box / "copy"));
    EXPECT_GT(injector.fired(), 0);
}

TEST(RemovePreservingType, the_flag_decides_and_all_that_went_is_counted) {
    const Sandbox box;
    writeFile(box / "file");
    writeFile(box / "tree/file");
    std::error_code ec;
    EXPECT_EQ(RemovePreservingType(box / "tree", false, ec), 0U);
    EXPECT_EQ(ec, std::errc::directory_not_empty);
    EXPECT_TRUE(isPresent(box / "tree/file"));
    EXPECT_EQ(RemovePreservingType(box / "file", false, ec), 1U);
    EXPECT_EQ(RemovePreservingType(box / "tree", true, ec), 2U);
    EXPECT_FALSE(ec);
    EXPECT_EQ(RemovePreservingType(box / "tree", true, ec), 0U);
    EXPECT_EQ(RemovePreservingType(box / "file", false, ec), 0U);
    EXPECT_FALSE(ec) << "what is gone is no failure";
}

TEST_P(MoveAcrossFileSystems, a_source_tree_that_cannot_be_examined_for_the_check_is_not_moved) {
    writeFile(m_source / "file", "bytes");
    const Snapshot before = takeSnapshot(m_source);
    const std::string file = (m_source / "file").string();
    std::vector<Fault> faults = {{"lstat", EACCES, m_source.string(), 2, false, true},
                                 {"lstat", EACCES, file, 2, false, true},
                                 {"stat", EACCES, file, 1, false, true},
                                 {"openat", EACCES, m_source.string(), 2, false, true}};
    // The copy reads four times: both dot names, the file and the end.
    for (const int when : {5, 6, 7, 8}) {
        faults.push_back({"readdir", EACCES, m_source.string(), when, false, true});
    }
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.Call + " number " + std::to_string(fault.When));
        EXPECT_FALSE(move(true, {fault}));
        EXPECT_EQ(m_message, copyFailure(m_source, systemText(std::errc::io_error)));
        EXPECT_EQ(takeSnapshot(m_source), before);
        EXPECT_EQ(takeSnapshot(m_destination), before);
        fs::remove_all(m_destination);
    }
}

TEST_P(MoveAcrossFileSystems, a_copy_that_is_cut_short_by_a_full_disk_is_not_moved) {
    for (const bool bDirectory : {false, true}) {
        const fs::path file = bDirectory ? m_source / "sub/file" : m_source;
        writeFile(file, std::string(100000, 'x'));
        const Snapshot before = takeSnapshot(m_source);
        // The disk is full after the first block of the copy.
        const std::vector<Fault> fullDisk = {{"sendfile", EINVAL}, {"writev", ENOSPC, "", 2, true}};
        {
            const FaultInjector injector(fullDisk);
            std::error_code ec;
            fs::copy_file(file, m_to / "alone", ec);
            if (ec || !injector.eachFired()) {
                GTEST_SKIP() << "this standard library tells that its copy is cut short";
            }
            EXPECT_LT(fs::file_size(m_to / "alone"), fs::file_size(file));
            fs::remove(m_to / "alone");
        }
        EXPECT_FALSE(move(bDirectory, fullDisk));
        EXPECT_EQ(m_message, copyFailure(m_source, systemText(std::errc::io_error)));
        EXPECT_EQ(takeSnapshot(m_source), before);
        EXPECT_TRUE(isPresent(m_destination)) << "the part stays";
        fs::remove_all(m_source);
        fs::remove_all(m_destination);
    }
}

TEST_P(MoveAcrossFileSystems, a_copy_that_needs_several_writes_is_whole) {
    writeFile(m_source, std::string(300000, 'x'));
    const Snapshot before = takeSnapshot(m_source);
    EXPECT_TRUE(move(false, {{"sendfile", 0}}));
    expectMoved(before);
}

// -------------------------------------------------------------------------------------------------
// Trash records
// -------------------------------------------------------------------------------------------------

TEST(PercentEncodeTrashInfoPath, each_byte_is_kept_or_written_in_hexadecimal) {
    const std::string kept = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-./_~";
    std::string all;
    std::string allEncoded;
    for (int value = 0; value <= 255; ++value) {
        const std::string byte(1, static_cast<char>(value));
        std::array<char, 4> escape = {};
        std::snprintf(escape.data(), escape.size(), "%%%02X", static_cast<unsigned>(value) & 0xFFU);
        const std::string encoded =
            kept.find(byte) == std::string::npos ? std::string(escape.data()) : byte;
        EXPECT_EQ(PercentEncodeTrashInfoPath(byte), encoded);
        all += byte;
        allEncoded += encoded;
    }
    EXPECT_EQ(PercentEncodeTrashInfoPath(all), allEncoded);
}

TEST(PercentEncodeTrashInfoPath, whole_paths) {
    const std::vector<NamePair> rows = {
        {"", ""},
        {"/home/u/My File+1%.txt", "/home/u/My%20File%2B1%25.txt"},
        {"/tmp/a-b_c.d~", "/tmp/a-b_c.d~"},
        {"/\xC3\xA9/\n", "/%C3%A9/%0A"},
        {"a//./../b/", "a//./../b/"},
        {"%41", "%2541"},
    };
    for (const NamePair& row : rows) {
        EXPECT_EQ(PercentEncodeTrashInfoPath(row.Given), row.Expected);
    }
}

class TrashInfo : public testing::Test {
protected:
    Sandbox m_box;
    const std::string m_infoPath = (m_box / "a.trashinfo").string();
    std::string m_message = "as before";

    bool write(const std::string& originalPath) {
        return writeTo(m_infoPath, originalPath);
    }

    bool writeTo(const std::string& infoPath, const std::string& originalPath) {
        const TavroTrashEntry entry = {originalPath, "", infoPath, false};
        return WriteTrashInfo(entry, &m_message);
    }

    static std::string record(const std::string& encodedPath, std::time_t moment) {
        return "[Trash Info]\nPath=" + encodedPath +
               "\nDeletionDate=" + localText(moment, datePattern) + "\n";
    }

    /// The record that a write of `originalPath` leaves, byte for byte.
    void expectRecord(const std::string& originalPath, const std::string& encodedPath) {
        expectTextOfNow(
            [&] {
                EXPECT_TRUE(write(originalPath));
                return readFile(m_infoPath);
            },
            [&](std::time_t moment) { return record(encodedPath, moment); });
        EXPECT_EQ(m_message, "as before");
    }

    /// Longer than what the stream keeps back, so that it writes before it is closed.
    static std::string longPath() {
        return std::string(9000, 'x');
    }
};

TEST_F(TrashInfo, a_record_is_three_lines) {
    expectRecord("/home/u/My File+1%.txt", "/home/u/My%20File%2B1%25.txt");
}

TEST_F(TrashInfo, the_path_is_written_as_it_is_stored) {
    expectRecord("", "");
    expectRecord("relative//./../b/", "relative//./../b/");
    expectRecord("/line\nfeed\r", "/line%0Afeed%0D");
    expectRecord(longPath(), longPath());
}

TEST_F(TrashInfo, an_old_longer_record_is_replaced) {
    writeFile(m_infoPath, std::string(5000, 'o'));
    expectRecord("/a", "/a");
}

TEST_F(TrashInfo, the_message_may_be_null) {
    const TavroTrashEntry good = {"/a", "", m_infoPath, false};
    EXPECT_TRUE(WriteTrashInfo(good, nullptr));
    const Snapshot before = takeSnapshot(m_box.path());
    const TavroTrashEntry missingFolder = {"/a", "", (m_box / "none/a").string(), false};
    EXPECT_FALSE(WriteTrashInfo(missingFolder, nullptr));
    const TavroTrashEntry fullDevice = {longPath(), "", "/dev/full", false};
    EXPECT_FALSE(WriteTrashInfo(fullDevice, nullptr));
    EXPECT_EQ(takeSnapshot(m_box.path()), before);
}

TEST_F(TrashInfo, a_record_that_cannot_be_opened_is_named) {
    makeDirectory(m_box / "directory");
    const Snapshot before = takeSnapshot(m_box.path());
    for (const fs::path& path : {m_box / "directory", m_box / "no folder/a", fs::path(),
                                 m_box / (std::string(246, 'x') + ".trashinfo")}) {
        EXPECT_FALSE(writeTo(path.string(), "/a"));
        EXPECT_EQ(m_message, "Failed to create trash metadata '" + path.string() + "'.");
        EXPECT_EQ(takeSnapshot(m_box.path()), before);
    }
}

TEST_F(TrashInfo, on_a_full_device_only_a_long_record_is_seen_to_fail) {
    EXPECT_TRUE(writeTo("/dev/full", "/a"));
    EXPECT_EQ(m_message, "as before");
    EXPECT_FALSE(writeTo("/dev/full", longPath()));
    EXPECT_EQ(m_message, "Failed to write trash metadata '/dev/full'.");
}

TEST_F(TrashInfo, a_failure_at_the_close_is_not_seen) {
    const FaultInjector injector({{"write", ENOSPC, m_infoPath}});
    EXPECT_TRUE(write("/a"));
    EXPECT_EQ(m_message, "as before");
    EXPECT_EQ(injector.fired(), 1);
    EXPECT_EQ(readFile(m_infoPath), "");
}

TEST_F(TrashInfo, the_part_of_a_record_that_was_written_stays) {
    const FaultInjector injector(
        {{"writev", 0, m_infoPath}, {"writev", ENOSPC, m_infoPath, 2, true}});
    EXPECT_FALSE(write(longPath()));
    EXPECT_TRUE(injector.eachFired());
    EXPECT_EQ(m_message, "Failed to write trash metadata '" + m_infoPath + "'.");
    EXPECT_EQ(readFile(m_infoPath).find("[Trash"), 0U);
    EXPECT_LT(readFile(m_infoPath).size(), longPath().size());
}

// -------------------------------------------------------------------------------------------------
// Trashing one entry
// -------------------------------------------------------------------------------------------------

class TrashOneEntry : public testing::Test {
protected:
    Sandbox m_box;
    const ScopedEnvironment m_home{"HOME", (m_box / "home").string()};
    const fs::path m_files = m_box / "home/.local/share/Trash/files";
    const fs::path m_info = m_box / "home/.local/share/Trash/info";
    std::string m_message = "as before";

    TavroTrashEntry trash(const fs::path& path, bool bDirectory = false) {
        TavroTrashEntry trashed;
        EXPECT_TRUE(MoveEntryToTrash({"not read", path.string(), bDirectory}, trashed, m_message))
            << m_message;
        EXPECT_EQ(m_message, "as before");
        EXPECT_FALSE(isPresent(path));
        EXPECT_TRUE(isPresent(trashed.TrashPath));
        return trashed;
    }

    /// `entry` tells that what was at `originalPath` lies in the trash as `trashName`.
    void expectPlace(const TavroTrashEntry& entry, const fs::path& originalPath,
                     const std::string& trashName) {
        EXPECT_EQ(entry.OriginalPath, originalPath.string());
        EXPECT_EQ(entry.TrashPath, (m_files / trashName).string());
        EXPECT_EQ(entry.InfoPath, (m_info / (trashName + ".trashinfo")).string());
        const std::string line = "\nPath=" + PercentEncodeTrashInfoPath(entry.OriginalPath) + "\n";
        EXPECT_NE(readFile(entry.InfoPath).find(line), std::string::npos);
    }

    void expectRefused(const fs::path& path, const std::string& sentence) {
        TavroTrashEntry trashed;
        EXPECT_FALSE(MoveEntryToTrash({"", path.string(), false}, trashed, m_message));
        EXPECT_EQ(m_message, sentence);
    }
};

TEST_F(TrashOneEntry, the_entry_says_where_it_was_and_where_it_is) {
    writeFile(m_box / "work/a.txt", "bytes");
    const TavroTrashEntry file = trash(m_box / "work/a.txt");
    expectPlace(file, m_box / "work/a.txt", "a.txt");
    EXPECT_FALSE(file.bDirectory);
    EXPECT_EQ(readFile(file.TrashPath), "bytes");

    makeDirectory(m_box / "work/d");
    const TavroTrashEntry directory = trash(m_box / "work/d", true);
    expectPlace(directory, m_box / "work/d", "d");
    EXPECT_TRUE(directory.bDirectory);
}

TEST_F(TrashOneEntry, the_record_is_named_after_the_chosen_name) {
    for (const char* name : {"a.txt", "a copy 1.txt", "a copy 2.txt"}) {
        writeFile(m_box / "work/a.txt");
        expectPlace(trash(m_box / "work/a.txt"), m_box / "work/a.txt", name);
    }
}

TEST_F(TrashOneEntry, a_stale_record_is_replaced) {
    writeFile(m_info / "a.trashinfo", std::string(1000, 's'));
    writeFile(m_box / "work/a");
    const TavroTrashEntry entry = trash(m_box / "work/a");
    expectPlace(entry, m_box / "work/a", "a");
    EXPECT_LT(readFile(entry.InfoPath).size(), 1000U);
}

TEST_F(TrashOneEntry, the_links_in_front_of_the_entry_are_resolved) {
    writeFile(m_box / "work/a");
    fs::create_directory_symlink("work", m_box / "link");
    expectPlace(trash(m_box / "link/../link/./a"), m_box / "work/a", "a");
}

TEST_F(TrashOneEntry, a_trashed_link_is_known_by_its_own_path) {
    writeFile(m_box / "target", "stays");
    fs::create_symlink("target", m_box / "link");
    const TavroTrashEntry entry = trash(m_box / "link");
    expectPlace(entry, m_box / "link", "link");
    EXPECT_EQ(fs::read_symlink(entry.TrashPath), "target");
    EXPECT_EQ(readFile(m_box / "target"), "stays");
}

TEST_F(TrashOneEntry, a_path_that_ends_in_a_separator_has_no_name_in_the_trash) {
    makeDirectory(m_box / "work/d");
    const TavroTrashEntry entry = trash((m_box / "work/d/"), true);
    EXPECT_EQ(entry.TrashPath, (m_files / " copy 1").string());
    EXPECT_EQ(entry.InfoPath, (m_info / " copy 1.trashinfo").string());
}

TEST_F(TrashOneEntry, the_longest_name_leaves_room_for_the_ending_of_the_record) {
    const std::string fits(245, 'f');
    writeFile(m_box / "work" / fits);
    expectPlace(trash(m_box / "work" / fits), m_box / "work" / fits, fits);

    for (const std::size_t length : {246U, 250U, 255U}) {
        const std::string name(length, 'x');
        writeFile(m_box / "work" / name, "bytes");
        const Snapshot before = takeSnapshot(m_box.path());
        expectRefused(m_box / "work" / name, "Failed to create trash metadata '" +
                                                 (m_info / name).string() + ".trashinfo'.");
        EXPECT_EQ(takeSnapshot(m_box.path()), before);
    }
}

TEST_F(TrashOneEntry, there_is_no_record_before_the_entry_has_moved) {
    writeFile(m_box / "work/a");
    bool bSeen = false;
    const CallObserver observer([&](const std::string& call, const std::string&) {
        if (call == "rename") {
            bSeen = fs::is_directory(m_info) && fs::is_empty(m_info);
        }
    });
    trash(m_box / "work/a");
    EXPECT_TRUE(bSeen);
}

TEST_F(TrashOneEntry, without_a_home_there_is_no_trash) {
    writeFile(m_box / "work/a");
    const Snapshot before = takeSnapshot(m_box.path());
    for (const std::optional<std::string>& home : {std::optional<std::string>(), {""}}) {
        const ScopedEnvironment noHome("HOME", home);
        expectRefused(m_box / "work/a", "Trash is unavailable because HOME is not set.");
        EXPECT_EQ(takeSnapshot(m_box.path()), before);
    }
}

TEST_F(TrashOneEntry, nothing_is_left_of_an_entry_that_was_not_there) {
    makeDirectory(m_files);
    makeDirectory(m_info);
    const Snapshot before = takeSnapshot(m_box.path());
    expectRefused(m_box / "gone", "Failed to move '" + (m_box / "gone").string() +
                                      "': " + systemText(std::errc::no_such_file_or_directory));
    EXPECT_EQ(takeSnapshot(m_box.path()), before);
}

} // namespace
