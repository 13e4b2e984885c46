// Plans of copies and moves: what goes where, what is refused, and with which sentence.

#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

using Entries = std::vector<TavroOperationEntry>;

constexpr bool bCopies = false;
constexpr bool bMoves = true;

/// Longer than any file system takes.
const std::string tooLongName(300, 'n');

/// Every field of a plan, one line an item.
std::string textOf(const TavroTransferPlan& plan) {
    std::ostringstream text;
    text << (plan.bMove ? "move" : "copy") << ", policy " << static_cast<int>(plan.ConflictPolicy)
         << ", source '" << plan.SourceLabel << "'\n";
    for (const TavroTransferItemPlan& item : plan.Items) {
        text << "'" << item.Name << "': '" << item.SourcePath.string() << "' -> '"
             << item.DestinationPath.string() << "'" << (item.bDirectory ? ", directory" : "")
             << (item.bDestinationRenamed ? ", renamed" : "") << ", " << item.ItemCount
             << " items, " << item.ByteCount << " bytes\n";
    }
    return text.str();
}

/// Everything that comes back from one call.
std::string outcomeText(bool bPlanned, const std::string& message, const TavroTransferPlan& plan) {
    return std::string(bPlanned ? "planned" : "refused") + ", message '" + message + "'\n" +
           textOf(plan);
}

/// A plan as an earlier call may have left it.
TavroTransferPlan usedPlan() {
    TavroTransferPlan plan;
    plan.bMove = true;
    plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    plan.SourceLabel = "an earlier plan";
    plan.Items.resize(3);
    return plan;
}

/// An entry and where it is expected to go.
struct Row {
    TavroOperationEntry Entry;
    std::string Destination;
};

TavroTransferPlan planOf(bool bMove, const std::vector<Row>& rows) {
    TavroTransferPlan plan;
    plan.bMove = bMove;
    plan.ConflictPolicy = TavroTransferConflictPolicy::Skip;
    plan.SourceLabel = "Tavro";
    for (const Row& row : rows) {
        TavroTransferItemPlan item;
        item.Name = row.Entry.Name;
        item.SourcePath = row.Entry.Path;
        item.DestinationPath = row.Destination;
        item.bDirectory = row.Entry.bDirectory;
        plan.Items.push_back(item);
    }
    return plan;
}

const char* const messageBefore = "what was there before";

std::string planned(bool bMove, const std::vector<Row>& rows) {
    return outcomeText(true, messageBefore, planOf(bMove, rows));
}

/// A failure before the first entry is looked at.
std::string refused(const std::string& sentence) {
    return outcomeText(false, sentence, TavroTransferPlan());
}

/// A failure at an entry, after those of `rows` had been planned.
std::string refusedAfter(bool bMove, const std::vector<Row>& rows, const std::string& sentence) {
    return outcomeText(false, sentence, planOf(bMove, rows));
}

TavroOperationEntry entryAt(const fs::path& path, bool bDirectory) {
    return {path.filename().string(), path.string(), bDirectory};
}

TavroOperationEntry trackNamed(const std::string& name) {
    return {name, "cdda:/dev/cdrom/1", false};
}

class BuildTransferPlan : public testing::Test {
protected:
    /// Plans with the sandbox as the directory that relative targets are taken against.
    std::string planning(bool bMove, const Entries& entries, const std::string& targetText) const {
        TavroTransferPlan plan = usedPlan();
        std::string message = messageBefore;
        const bool bPlanned =
            TavroBuildTransferPlan(entries, targetText, box.path(), bMove,
                                   TavroTransferConflictPolicy::Skip, plan, message);
        return outcomeText(bPlanned, message, plan);
    }

    std::string copying(const Entries& entries, const std::string& targetText) const {
        return planning(bCopies, entries, targetText);
    }

    std::string moving(const Entries& entries, const std::string& targetText) const {
        return planning(bMoves, entries, targetText);
    }

    std::string at(const std::string& name) const {
        return (box / name).string();
    }

    TavroOperationEntry file(const std::string& name) const {
        writeFile(box / name, "bytes of " + name);
        return entryAt(box / name, false);
    }

    TavroOperationEntry directory(const std::string& name) const {
        makeDirectory(box / name);
        return entryAt(box / name, true);
    }

    Sandbox box;
};

} // namespace

// ---------------------------------------------------------------------------------------------
// The sentences, in the order of the checks
// ---------------------------------------------------------------------------------------------

TEST_F(BuildTransferPlan, an_empty_selection_is_refused) {
    EXPECT_EQ(copying({}, "d"), refused("Nothing selected to copy."));
    EXPECT_EQ(moving({}, "d"), refused("Nothing selected to move."));
}

TEST_F(BuildTransferPlan, an_empty_selection_is_told_before_a_blank_target) {
    EXPECT_EQ(copying({}, "   "), refused("Nothing selected to copy."));
    EXPECT_EQ(moving({}, ""), refused("Nothing selected to move."));
}

TEST_F(BuildTransferPlan, a_blank_target_is_refused) {
    for (const std::string blank : {"", " ", " \t\r\n\v\f"}) {
        EXPECT_EQ(copying({file("a.txt")}, blank), refused("Copy target cannot be empty."));
        EXPECT_EQ(moving({file("a.txt")}, blank), refused("Move target cannot be empty."));
    }
}

TEST_F(BuildTransferPlan, a_blank_target_is_told_before_a_target_that_is_no_directory) {
    file("   "); // What the blanks would name.
    const Entries both = {file("a.txt"), file("b.txt")};
    EXPECT_EQ(copying(both, "   "), refused("Copy target cannot be empty."));
    EXPECT_EQ(moving(both, "   "), refused("Move target cannot be empty."));
}

TEST_F(BuildTransferPlan, several_entries_do_not_go_into_a_file) {
    file("taken");
    const Entries both = {file("a.txt"), directory("b")};
    EXPECT_EQ(copying(both, "taken"),
              refused("Copy Target must be a directory when multiple items are selected."));
    EXPECT_EQ(moving(both, "taken"),
              refused("Move Target must be a directory when multiple items are selected."));
}

TEST_F(BuildTransferPlan, several_entries_do_not_go_into_a_special_file_or_a_link_to_a_file) {
    file("real");
    fs::create_symlink("real", box / "link");
    makeFifo(box / "pipe");
    const Entries both = {file("a.txt"), file("b.txt")};
    for (const std::string target : {"link", "pipe"}) {
        EXPECT_EQ(copying(both, target),
                  refused("Copy Target must be a directory when multiple items are selected."));
    }
}

TEST_F(BuildTransferPlan, a_target_that_is_no_directory_is_told_before_a_track_that_is_moved) {
    file("taken");
    EXPECT_EQ(moving({trackNamed("Track 01.cdda"), file("a.txt")}, "taken"),
              refused("Move Target must be a directory when multiple items are selected."));
}

TEST_F(BuildTransferPlan, a_track_is_not_moved) {
    EXPECT_EQ(moving({trackNamed("Track 01.cdda")}, "d"),
              refusedAfter(bMoves, {}, "Audio CD tracks can be copied, but not moved."));
}

TEST_F(BuildTransferPlan, a_track_that_is_moved_is_told_before_a_destination_that_is_the_source) {
    const ScopedCurrentDirectory inside(box.path());
    file("cdda:1");
    EXPECT_EQ(moving({{"Track 01", "cdda:1", false}}, "cdda:1"),
              refusedAfter(bMoves, {}, "Audio CD tracks can be copied, but not moved."));
}

TEST_F(BuildTransferPlan, a_destination_that_is_the_source_is_refused) {
    const TavroOperationEntry notes = file("p/notes.txt");
    for (const std::string target : {"p", "p/", "p/notes.txt", "p/x/../notes.txt"}) {
        EXPECT_EQ(copying({notes}, target),
                  refusedAfter(bCopies, {}, "Copy target matches the source path for 'notes.txt'."))
            << target;
        EXPECT_EQ(moving({notes}, target),
                  refusedAfter(bMoves, {}, "Move target matches the source path for 'notes.txt'."))
            << target;
    }
}

TEST_F(BuildTransferPlan, the_sentences_name_the_entry_as_the_pane_lists_it) {
    TavroOperationEntry entry = directory("p/src");
    entry.Name = "shown";
    EXPECT_EQ(copying({entry}, "p/"),
              refusedAfter(bCopies, {}, "Copy target matches the source path for 'shown'."));
    EXPECT_EQ(copying({entry}, "p/src/sub"),
              refusedAfter(bCopies, {}, "Cannot copy a directory into itself: shown"));
}

// Only a directory that is mounted below itself is both its own destination and below itself.
TEST_F(BuildTransferPlan, a_destination_that_is_the_source_is_told_before_one_below_the_source) {
    const TavroOperationEntry source = directory("src");
    makeDirectory(box / "src/src");
    runInChild([&] {
        const int spaces = CLONE_NEWNS | (isRoot() ? 0 : CLONE_NEWUSER);
        if (unshare(spaces) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(source.Path.c_str(), at("src/src").c_str(), nullptr, MS_BIND, nullptr) != 0) {
            writeFile(box / "no mounts");
            return;
        }
        EXPECT_EQ(copying({source}, "src/"),
                  refusedAfter(bCopies, {}, "Copy target matches the source path for 'src'."));
    });
    if (isPresent(box / "no mounts")) {
        GTEST_SKIP() << "a directory cannot be mounted below itself here";
    }
}

TEST_F(BuildTransferPlan, a_directory_does_not_go_below_itself) {
    makeDirectory(box / "p/src/sub");
    const TavroOperationEntry source = directory("p/src");
    for (const std::string target : {"p/src/", "p/src/sub", "p/src/sub/", "p/src/new",
                                     "p/src/new/deeper/", "p/other/../src/new"}) {
        EXPECT_EQ(copying({source}, target),
                  refusedAfter(bCopies, {}, "Cannot copy a directory into itself: src"))
            << target;
        EXPECT_EQ(moving({source}, target),
                  refusedAfter(bMoves, {}, "Cannot move a directory into itself: src"))
            << target;
    }
}

TEST_F(BuildTransferPlan, one_below_the_source_is_told_before_one_that_cannot_be_examined) {
    EXPECT_EQ(copying({directory("src")}, "src/" + tooLongName),
              refusedAfter(bCopies, {}, "Cannot copy a directory into itself: src"));
}

TEST_F(BuildTransferPlan, the_source_as_destination_is_told_before_one_that_cannot_be_examined) {
    EXPECT_EQ(copying({{"long", at(tooLongName), false}}, tooLongName),
              refusedAfter(bCopies, {}, "Copy target matches the source path for 'long'."));
}

TEST_F(BuildTransferPlan, a_destination_that_cannot_be_examined_is_refused) {
    const std::string sentence = "Failed checking destination '" + at(tooLongName) +
                                 "': " + systemText(std::errc::filename_too_long);
    EXPECT_EQ(copying({file("a.txt")}, tooLongName), refusedAfter(bCopies, {}, sentence));
    EXPECT_EQ(moving({file("a.txt")}, tooLongName), refusedAfter(bMoves, {}, sentence));
    EXPECT_EQ(copying({trackNamed("Track 01")}, tooLongName), refusedAfter(bCopies, {}, sentence));
}

TEST_F(BuildTransferPlan, a_target_that_cannot_be_examined_counts_as_one_that_is_still_to_be_made) {
    EXPECT_EQ(copying({file("a.txt"), file("b.txt")}, tooLongName + "/d"),
              refusedAfter(bCopies, {},
                           "Failed checking destination '" + at(tooLongName + "/d/a.txt") +
                               "': " + systemText(std::errc::filename_too_long)));
}

TEST_F(BuildTransferPlan, a_destination_below_an_unreadable_directory_is_refused) {
    const TavroOperationEntry a = file("a.txt");
    const TavroOperationEntry b = file("b.txt");
    makeDirectory(box / "closed/d");
    runUnprivileged(box.path(), [&] {
        fs::permissions(box / "closed", fs::perms::none);
        const auto sentence = [&](const std::string& destination) {
            return "Failed checking destination '" + at(destination) +
                   "': " + systemText(std::errc::permission_denied);
        };
        EXPECT_EQ(copying({a}, "closed"), refusedAfter(bCopies, {}, sentence("closed/a.txt")));
        // Nobody can tell that this one is a directory.
        EXPECT_EQ(copying({a}, "closed/d"), refusedAfter(bCopies, {}, sentence("closed/d")));
        EXPECT_EQ(moving({a}, "closed/d/"), refusedAfter(bMoves, {}, sentence("closed/d/a.txt")));
        EXPECT_EQ(moving({a, b}, "closed/d"), refusedAfter(bMoves, {}, sentence("closed/d/a.txt")));
    });
}

// ---------------------------------------------------------------------------------------------
// What the plan holds
// ---------------------------------------------------------------------------------------------

TEST_F(BuildTransferPlan, a_failure_at_an_entry_leaves_the_items_before_it) {
    const TavroOperationEntry a = file("a.txt");
    const TavroOperationEntry b = file("b.txt");
    EXPECT_EQ(moving({a, trackNamed("Track 01"), b}, "d"),
              refusedAfter(bMoves, {{a, at("d/a.txt")}},
                           "Audio CD tracks can be copied, but not moved."));
    makeDirectory(box / "d");
    const TavroOperationEntry inside = file("d/c.txt");
    EXPECT_EQ(copying({a, b, inside}, "d"),
              refusedAfter(bCopies, {{a, at("d/a.txt")}, {b, at("d/b.txt")}},
                           "Copy target matches the source path for 'c.txt'."));
}

TEST_F(BuildTransferPlan, the_first_entry_that_fails_decides_the_sentence) {
    const TavroOperationEntry inside = file("d/c.txt");
    EXPECT_EQ(moving({inside, trackNamed("Track 01")}, "d"),
              refusedAfter(bMoves, {}, "Move target matches the source path for 'c.txt'."));
}

TEST_F(BuildTransferPlan, the_policy_is_copied_into_the_plan_and_changes_nothing_else) {
    const TavroOperationEntry a = file("a.txt");
    file("d/a.txt");
    for (const auto policy :
         {TavroTransferConflictPolicy::Ask, TavroTransferConflictPolicy::Overwrite,
          TavroTransferConflictPolicy::Skip}) {
        TavroTransferPlan plan = usedPlan();
        std::string message = messageBefore;
        EXPECT_TRUE(TavroBuildTransferPlan({a}, "d", box.path(), bMoves, policy, plan, message));
        TavroTransferPlan expected = planOf(bMoves, {{a, at("d/a.txt")}});
        expected.ConflictPolicy = policy;
        EXPECT_EQ(textOf(plan), textOf(expected));
    }
}

TEST_F(BuildTransferPlan, several_entries_keep_the_order_of_the_selection) {
    const TavroOperationEntry b = file("p/b");
    const TavroOperationEntry a = directory("p/a");
    const TavroOperationEntry sameName = file("q/b");
    makeDirectory(box / "d");
    const std::vector<Row> rows = {{b, at("d/b")}, {a, at("d/a")}, {sameName, at("d/b")}};
    EXPECT_EQ(copying({b, a, sameName}, "d"), planned(bCopies, rows));
    EXPECT_EQ(moving({b, a, sameName}, "d"), planned(bMoves, rows));
}

TEST_F(BuildTransferPlan, nothing_on_disk_changes) {
    const Entries selection = {file("a.txt"), directory("b")};
    file("taken/a.txt");
    const Snapshot before = takeSnapshot(box.path());
    moving(selection, "taken");
    copying(selection, "new/deeper");
    copying({selection[1]}, "b/inside");
    EXPECT_EQ(takeSnapshot(box.path()), before);
}

TEST_F(BuildTransferPlan, an_entry_that_is_missing_is_planned) {
    const TavroOperationEntry gone = entryAt(box / "gone", false);
    EXPECT_EQ(copying({gone}, "d"), planned(bCopies, {{gone, at("d")}}));
}

// ---------------------------------------------------------------------------------------------
// Into the target, or to the target
// ---------------------------------------------------------------------------------------------

TEST_F(BuildTransferPlan, one_entry_goes_into_a_directory) {
    const TavroOperationEntry a = file("a.txt");
    makeDirectory(box / "d");
    for (const std::string& target :
         {at("d"), at("d/"), std::string("d"), std::string(" d/\t\n")}) {
        EXPECT_EQ(copying({a}, target), planned(bCopies, {{a, at("d/a.txt")}})) << target;
    }
}

TEST_F(BuildTransferPlan, one_entry_goes_to_a_path_that_is_free) {
    const TavroOperationEntry a = file("a.txt");
    EXPECT_EQ(moving({a}, "d/b.txt"), planned(bMoves, {{a, at("d/b.txt")}}));
}

TEST_F(BuildTransferPlan, one_entry_goes_to_the_path_of_an_existing_file) {
    const TavroOperationEntry a = file("a.txt");
    file("d/b.txt");
    EXPECT_EQ(copying({a}, "d/b.txt"), planned(bCopies, {{a, at("d/b.txt")}}));
}

TEST_F(BuildTransferPlan, a_separator_at_the_end_means_into) {
    const TavroOperationEntry a = file("a.txt");
    file("taken");
    EXPECT_EQ(copying({a}, "new/"), planned(bCopies, {{a, at("new/a.txt")}}));
    EXPECT_EQ(copying({a}, " new// "), planned(bCopies, {{a, at("new/a.txt")}}));
    EXPECT_EQ(copying({a}, "taken/"), planned(bCopies, {{a, at("taken/a.txt")}}));
}

TEST_F(BuildTransferPlan, a_backslash_at_the_end_means_into_and_stays_in_the_name) {
    const TavroOperationEntry a = file("a.txt");
    makeDirectory(box / "d");
    EXPECT_EQ(copying({a}, "new\\"), planned(bCopies, {{a, at("new\\/a.txt")}}));
    EXPECT_EQ(copying({a}, "d\\"), planned(bCopies, {{a, at("d\\/a.txt")}}));
}

TEST_F(BuildTransferPlan, one_entry_onto_a_directory_of_its_own_name_means_that_directory) {
    makeDirectory(box / "backup/photos");
    const TavroOperationEntry photos = directory("photos");
    EXPECT_EQ(copying({photos}, "backup/photos"),
              planned(bCopies, {{photos, at("backup/photos")}}));
    EXPECT_EQ(copying({photos}, "backup/photos/"),
              planned(bCopies, {{photos, at("backup/photos/photos")}}));
    EXPECT_EQ(copying({photos}, "backup"), planned(bCopies, {{photos, at("backup/photos")}}));
    // The name is compared with its case.
    makeDirectory(box / "backup/Photos");
    EXPECT_EQ(copying({photos}, "backup/Photos"),
              planned(bCopies, {{photos, at("backup/Photos/photos")}}));
}

TEST_F(BuildTransferPlan, the_name_that_counts_is_the_one_of_the_path) {
    makeDirectory(box / "backup/photos");
    makeDirectory(box / "backup/shown");
    TavroOperationEntry photos = directory("photos");
    photos.Name = "shown";
    EXPECT_EQ(moving({photos}, "backup/photos"), planned(bMoves, {{photos, at("backup/photos")}}));
    EXPECT_EQ(moving({photos}, "backup/shown"),
              planned(bMoves, {{photos, at("backup/shown/photos")}}));
}

TEST_F(BuildTransferPlan, several_entries_onto_a_directory_of_one_of_their_names_go_inside) {
    makeDirectory(box / "backup/photos");
    const TavroOperationEntry photos = directory("photos");
    const TavroOperationEntry a = file("a.txt");
    EXPECT_EQ(
        copying({photos, a}, "backup/photos"),
        planned(bCopies, {{photos, at("backup/photos/photos")}, {a, at("backup/photos/a.txt")}}));
}

TEST_F(BuildTransferPlan, several_entries_go_below_a_path_that_is_free) {
    const TavroOperationEntry a = file("a.txt");
    const TavroOperationEntry b = directory("b");
    const std::vector<Row> rows = {{a, at("new/a.txt")}, {b, at("new/b")}};
    EXPECT_EQ(copying({a, b}, "new"), planned(bCopies, rows));
    EXPECT_EQ(copying({a, b}, "new/"), planned(bCopies, rows));
}

TEST_F(BuildTransferPlan, entries_go_into_the_directory_that_a_link_points_to) {
    makeDirectory(box / "real");
    fs::create_symlink("real", box / "link");
    const TavroOperationEntry a = file("a.txt");
    const TavroOperationEntry b = file("b.txt");
    EXPECT_EQ(copying({a, b}, "link"),
              planned(bCopies, {{a, at("real/a.txt")}, {b, at("real/b.txt")}}));
    EXPECT_EQ(copying({a}, "link"), planned(bCopies, {{a, at("real/a.txt")}}));
}

TEST_F(BuildTransferPlan, a_dangling_link_counts_as_a_path_that_is_free) {
    fs::create_symlink("nowhere", box / "link");
    const TavroOperationEntry a = file("a.txt");
    const TavroOperationEntry b = file("b.txt");
    EXPECT_EQ(copying({a}, "link"), planned(bCopies, {{a, at("link")}}));
    EXPECT_EQ(copying({a, b}, "link"),
              planned(bCopies, {{a, at("link/a.txt")}, {b, at("link/b.txt")}}));
}

TEST_F(BuildTransferPlan, a_path_that_ends_in_a_separator_has_no_name_to_go_under) {
    const TavroOperationEntry source = {"src", directory("src").Path + "/", true};
    makeDirectory(box / "d");
    EXPECT_EQ(copying({source}, "d"), planned(bCopies, {{source, at("d/")}}));
    EXPECT_EQ(copying({source}, "new"), planned(bCopies, {{source, at("new")}}));
    EXPECT_EQ(copying({source}, "src"),
              refusedAfter(bCopies, {}, "Copy target matches the source path for 'src'."));
}

TEST_F(BuildTransferPlan, the_target_may_begin_with_the_home_directory) {
    const ScopedEnvironment home("HOME", at("home"));
    const TavroOperationEntry a = file("a.txt");
    makeDirectory(box / "home");
    EXPECT_EQ(copying({a}, " ~ "), planned(bCopies, {{a, at("home/a.txt")}}));
    EXPECT_EQ(copying({a}, "~/b.txt"), planned(bCopies, {{a, at("home/b.txt")}}));
}

TEST_F(BuildTransferPlan, names_are_bytes) {
    const std::string name = "\xff\xfe new\nline '\\";
    const TavroOperationEntry odd = file(name);
    makeDirectory(box / "d");
    EXPECT_EQ(copying({odd}, "d"), planned(bCopies, {{odd, at("d/" + name)}}));
}

// ---------------------------------------------------------------------------------------------
// The same file, and below the source
// ---------------------------------------------------------------------------------------------

TEST_F(BuildTransferPlan, a_hard_link_is_the_source) {
    const TavroOperationEntry a = file("a.txt");
    fs::create_hard_link(box / "a.txt", box / "other name");
    EXPECT_EQ(moving({a}, "other name"),
              refusedAfter(bMoves, {}, "Move target matches the source path for 'a.txt'."));
}

TEST_F(BuildTransferPlan, a_symbolic_link_to_the_source_is_the_source) {
    const TavroOperationEntry a = file("a.txt");
    fs::create_symlink("a.txt", box / "link");
    makeDirectory(box / "d");
    fs::create_symlink(box / "a.txt", box / "d/a.txt");
    for (const std::string target : {"link", "d", "d/a.txt"}) {
        EXPECT_EQ(copying({a}, target),
                  refusedAfter(bCopies, {}, "Copy target matches the source path for 'a.txt'."))
            << target;
    }
    EXPECT_EQ(copying({entryAt(box / "link", false)}, "a.txt"),
              refusedAfter(bCopies, {}, "Copy target matches the source path for 'link'."));
}

TEST_F(BuildTransferPlan, paths_of_the_same_text_are_the_same_when_nothing_exists) {
    const TavroOperationEntry gone = {"gone", at("x/../gone"), false};
    EXPECT_EQ(copying({gone}, "gone"),
              refusedAfter(bCopies, {}, "Copy target matches the source path for 'gone'."));
}

TEST_F(BuildTransferPlan, a_directory_onto_its_own_path_is_the_source) {
    const TavroOperationEntry source = directory("p/src");
    EXPECT_EQ(moving({source}, "p/src"),
              refusedAfter(bMoves, {}, "Move target matches the source path for 'src'."));
}

TEST_F(BuildTransferPlan, a_directory_may_go_beside_itself_under_a_longer_name) {
    const TavroOperationEntry source = directory("p/src");
    EXPECT_EQ(copying({source}, "p/src2"), planned(bCopies, {{source, at("p/src2")}}));
    EXPECT_EQ(copying({source}, "p/src2/"), planned(bCopies, {{source, at("p/src2/src")}}));
}

TEST_F(BuildTransferPlan, a_directory_does_not_go_below_itself_through_links) {
    makeDirectory(box / "src/sub");
    makeDirectory(box / "d");
    fs::create_directory_symlink(box / "src", box / "link");
    fs::create_directory_symlink(box / "src/sub", box / "d/src");
    const TavroOperationEntry source = directory("src");
    // Through the target, through the destination inside it, and through the entry's own path.
    for (const std::string target : {"link/new", "link/sub", "d"}) {
        EXPECT_EQ(copying({source}, target),
                  refusedAfter(bCopies, {}, "Cannot copy a directory into itself: src"))
            << target;
    }
    EXPECT_EQ(copying({entryAt(box / "link", true)}, "src/new"),
              refusedAfter(bCopies, {}, "Cannot copy a directory into itself: link"));
}

TEST_F(BuildTransferPlan, the_flag_decides_what_is_a_directory) {
    TavroOperationEntry flaggedFile = directory("src");
    flaggedFile.bDirectory = false;
    EXPECT_EQ(copying({flaggedFile}, "src/new"), planned(bCopies, {{flaggedFile, at("src/new")}}));
    TavroOperationEntry flaggedDirectory = file("a.txt");
    flaggedDirectory.bDirectory = true;
    EXPECT_EQ(copying({flaggedDirectory}, "a.txt/new"),
              refusedAfter(bCopies, {}, "Cannot copy a directory into itself: a.txt"));
}

// ---------------------------------------------------------------------------------------------
// Audio tracks
// ---------------------------------------------------------------------------------------------

TEST_F(BuildTransferPlan, a_track_gets_a_name_for_the_disk) {
    const std::vector<std::pair<std::string, std::string>> names = {
        {"Track 01.cdda", "Track 01.wav"},
        {"Track 01", "Track 01.wav"},
        {"Track 01.flac", "Track 01.flac"},
        {"Track 01.CDDA", "Track 01.CDDA"},
        {"Track 01.wav", "Track 01.wav"},
        {".cdda", ".cdda.wav"},
        {".hidden", ".hidden.wav"},
        {"1.cdda.cdda", "1.cdda.wav"},
        {"No. 5 in C", "No. 5 in C"},
        {"Track 01.", "Track 01."},
        {"Track 01.cddax", "Track 01.cddax"},
        {"a.b.cdda", "a.b.wav"},
        {"a.cdda.b", "a.cdda.b"},
        {".hidden.cdda", ".hidden.wav"},
        {"1/Track 02.cdda", "1/Track 02.wav"},
        {"", ".wav"}};
    for (const auto& [name, nameOnDisk] : names) {
        const TavroOperationEntry track = trackNamed(name);
        EXPECT_EQ(copying({track}, "music/"),
                  planned(bCopies, {{track, at("music/" + nameOnDisk)}}));
    }
}

TEST_F(BuildTransferPlan, a_track_is_told_by_its_path_and_named_by_its_name) {
    const TavroOperationEntry track = {"cover.jpg", "cdda:/dev/cdrom/7.cdda", false};
    EXPECT_EQ(copying({track}, "music/"), planned(bCopies, {{track, at("music/cover.jpg")}}));
    // The name alone makes no track.
    TavroOperationEntry plain = file("a.cdda");
    plain.Name = "cdda:1";
    EXPECT_EQ(moving({plain}, "music/"), planned(bMoves, {{plain, at("music/a.cdda")}}));
}

TEST_F(BuildTransferPlan, one_track_goes_to_a_path_that_is_free_as_it_is_typed) {
    const TavroOperationEntry track = trackNamed("Track 01.cdda");
    EXPECT_EQ(copying({track}, "music/x"), planned(bCopies, {{track, at("music/x")}}));
}

TEST_F(BuildTransferPlan, tracks_and_files_are_copied_together) {
    makeDirectory(box / "music");
    const TavroOperationEntry track = trackNamed("Track 01.cdda");
    const TavroOperationEntry a = file("a.cdda");
    EXPECT_EQ(copying({track, a}, "music"),
              planned(bCopies, {{track, at("music/Track 01.wav")}, {a, at("music/a.cdda")}}));
}

TEST_F(BuildTransferPlan, the_name_on_disk_is_compared_with_the_name_of_the_target_directory) {
    makeDirectory(box / "Track 01.wav");
    makeDirectory(box / "Track 01.cdda");
    const TavroOperationEntry track = trackNamed("Track 01.cdda");
    EXPECT_EQ(copying({track}, "Track 01.wav"), planned(bCopies, {{track, at("Track 01.wav")}}));
    EXPECT_EQ(copying({track}, "Track 01.cdda"),
              planned(bCopies, {{track, at("Track 01.cdda/Track 01.wav")}}));
}

TEST_F(BuildTransferPlan, a_track_may_be_copied_onto_its_own_path) {
    const ScopedCurrentDirectory inside(box.path());
    file("cdda:1");
    const TavroOperationEntry track = {"Track 01", "cdda:1", false};
    EXPECT_EQ(copying({track}, "cdda:1"), planned(bCopies, {{track, at("cdda:1")}}));
}

TEST_F(BuildTransferPlan, a_track_that_is_a_directory_does_not_go_below_itself) {
    const ScopedCurrentDirectory inside(box.path());
    makeDirectory(box / "cdda:1");
    const TavroOperationEntry disc = {"Disc", "cdda:1", true};
    EXPECT_EQ(copying({disc}, "cdda:1/new"),
              refusedAfter(bCopies, {}, "Cannot copy a directory into itself: Disc"));
}
