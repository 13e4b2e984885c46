#include "tavroops.h"
#include "tavropane.h"
#include "tavrotransfer.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

namespace fs = std::filesystem;

namespace {

// --- What the compiler can hold against the headers. ---

template <typename Record>
constexpr bool isPlainRecord =
    std::is_aggregate_v<Record> && !std::is_polymorphic_v<Record> &&
    std::is_default_constructible_v<Record> && std::is_copy_constructible_v<Record> &&
    std::is_copy_assignable_v<Record> && std::is_nothrow_move_constructible_v<Record> &&
    std::is_move_assignable_v<Record>;

static_assert(isPlainRecord<TavroOperationEntry>);
static_assert(isPlainRecord<TavroTrashEntry>);
static_assert(isPlainRecord<TavroTransferItemPlan>);
static_assert(isPlainRecord<TavroTransferPlan>);

static_assert(std::is_same_v<decltype(TavroOperationEntry::Name), std::string>);
static_assert(std::is_same_v<decltype(TavroOperationEntry::Path), std::string>);
static_assert(std::is_same_v<decltype(TavroOperationEntry::bDirectory), bool>);

static_assert(std::is_same_v<decltype(TavroTrashEntry::OriginalPath), std::string>);
static_assert(std::is_same_v<decltype(TavroTrashEntry::TrashPath), std::string>);
static_assert(std::is_same_v<decltype(TavroTrashEntry::InfoPath), std::string>);
static_assert(std::is_same_v<decltype(TavroTrashEntry::bDirectory), bool>);

static_assert(std::is_same_v<decltype(TavroTransferItemPlan::Name), std::string>);
static_assert(std::is_same_v<decltype(TavroTransferItemPlan::SourcePath), fs::path>);
static_assert(std::is_same_v<decltype(TavroTransferItemPlan::DestinationPath), fs::path>);
static_assert(std::is_same_v<decltype(TavroTransferItemPlan::bDestinationRenamed), bool>);
static_assert(std::is_same_v<decltype(TavroTransferItemPlan::bDirectory), bool>);
static_assert(std::is_same_v<decltype(TavroTransferItemPlan::ItemCount), std::uint64_t>);
static_assert(std::is_same_v<decltype(TavroTransferItemPlan::ByteCount), std::uint64_t>);

static_assert(std::is_same_v<decltype(TavroTransferPlan::bMove), bool>);
static_assert(
    std::is_same_v<decltype(TavroTransferPlan::ConflictPolicy), TavroTransferConflictPolicy>);
static_assert(std::is_same_v<decltype(TavroTransferPlan::SourceLabel), std::string>);
static_assert(
    std::is_same_v<decltype(TavroTransferPlan::Items), std::vector<TavroTransferItemPlan>>);

static_assert(std::is_enum_v<TavroTransferConflictPolicy>);
static_assert(!std::is_convertible_v<TavroTransferConflictPolicy, int>, "a scoped enumeration");
static_assert(std::is_same_v<std::underlying_type_t<TavroTransferConflictPolicy>, int>);
static_assert(static_cast<int>(TavroTransferConflictPolicy::Ask) == 0);
static_assert(static_cast<int>(TavroTransferConflictPolicy::Overwrite) == 1);
static_assert(static_cast<int>(TavroTransferConflictPolicy::Skip) == 2);

using Text = const std::string&;
using Path = const fs::path&;
using Selection = const std::vector<TavroOperationEntry>&;
using Trashed = const std::vector<TavroTrashEntry>&;
using OutTrashed = std::vector<TavroTrashEntry>&;
using OutText = std::string&;
using Policy = TavroTransferConflictPolicy;

static_assert(std::is_same_v<decltype(&TavroTrimText), std::string (*)(Text)>);
static_assert(std::is_same_v<decltype(&TavroCanonicalizePath), std::string (*)(Text)>);
static_assert(std::is_same_v<decltype(&TavroHomeDirectoryPath), std::string (*)()>);
static_assert(std::is_same_v<decltype(&TavroEndsWithPathSeparator), bool (*)(Text)>);
static_assert(std::is_same_v<decltype(&TavroResolveUserPath), fs::path (*)(Text, Path)>);
static_assert(std::is_same_v<decltype(&TavroPathsEquivalentOrSame), bool (*)(Path, Path)>);
static_assert(std::is_same_v<decltype(&TavroPathIsInside), bool (*)(Path, Path)>);
static_assert(
    std::is_same_v<decltype(&TavroBuildTransferPlan),
                   bool (*)(Selection, Text, Path, bool, Policy, TavroTransferPlan&, OutText)>);
static_assert(std::is_same_v<decltype(&TavroRenameEntry),
                             bool (*)(const TavroOperationEntry&, Text, Path, OutText, OutText)>);
static_assert(
    std::is_same_v<decltype(&TavroCreateDirectory), bool (*)(Text, Path, OutText, OutText)>);
static_assert(
    std::is_same_v<decltype(&TavroTrashEntries), bool (*)(Selection, OutTrashed, OutText)>);
static_assert(
    std::is_same_v<decltype(&TavroPrepareTrashEntries), bool (*)(Selection, OutTrashed, OutText)>);
static_assert(std::is_same_v<decltype(&TavroWriteTrashInfoEntries), bool (*)(Trashed, OutText)>);
static_assert(std::is_same_v<decltype(&TavroRemoveTrashInfoEntries), void (*)(Trashed)>);
static_assert(std::is_same_v<decltype(&TavroRestoreTrashEntries), bool (*)(Trashed, OutText)>);
static_assert(std::is_same_v<decltype(&TavroReapplyTrashEntries), bool (*)(OutTrashed, OutText)>);
static_assert(std::is_same_v<decltype(&TavroDeleteEntries), bool (*)(Selection, bool, OutText)>);
static_assert(std::is_same_v<decltype(&TavroCalculateDirectorySize),
                             std::uintmax_t (*)(Path, const std::function<bool()>&)>);
static_assert(std::is_same_v<decltype(&TavroIsCddaPath), bool (*)(Text)>);

// --- What shows at run time. The bindings also fail to compile when a record gains a field. ---

TEST(OperationRecords, a_default_selection_entry_is_an_unnamed_file) {
    const auto& [name, path, bDirectory] = TavroOperationEntry();
    EXPECT_EQ(name, "");
    EXPECT_EQ(path, "");
    EXPECT_FALSE(bDirectory);
}

TEST(OperationRecords, a_default_trash_entry_has_no_paths_and_is_no_directory) {
    const auto& [originalPath, trashPath, infoPath, bDirectory] = TavroTrashEntry();
    EXPECT_EQ(originalPath, "");
    EXPECT_EQ(trashPath, "");
    EXPECT_EQ(infoPath, "");
    EXPECT_FALSE(bDirectory);
}

TEST(OperationRecords, a_default_item_has_empty_paths_both_flags_false_and_both_counts_zero) {
    const auto& [name, source, destination, bRenamed, bDirectory, items, bytes] =
        TavroTransferItemPlan();
    EXPECT_EQ(name, "");
    EXPECT_EQ(source, fs::path());
    EXPECT_EQ(destination, fs::path());
    EXPECT_FALSE(bRenamed);
    EXPECT_FALSE(bDirectory);
    EXPECT_EQ(items, 0U);
    EXPECT_EQ(bytes, 0U);
}

TEST(OperationRecords, a_default_plan_is_a_copy_that_asks_and_holds_nothing) {
    const auto& [bMove, policy, label, items] = TavroTransferPlan();
    EXPECT_FALSE(bMove);
    EXPECT_EQ(policy, TavroTransferConflictPolicy::Ask);
    EXPECT_EQ(label, "");
    EXPECT_TRUE(items.empty());
}

TEST(OperationRecords, fields_stand_in_the_order_of_their_meaning) {
    const TavroOperationEntry entry{"name", "/path/name", true};
    EXPECT_EQ(entry.Name, "name");
    EXPECT_EQ(entry.Path, "/path/name");
    EXPECT_TRUE(entry.bDirectory);

    const TavroTrashEntry trashed{"/original", "/trash", "/info", true};
    EXPECT_EQ(trashed.OriginalPath, "/original");
    EXPECT_EQ(trashed.TrashPath, "/trash");
    EXPECT_EQ(trashed.InfoPath, "/info");
    EXPECT_TRUE(trashed.bDirectory);

    const TavroTransferItemPlan item{"name", "/from", "/to", false, true, 3, 4};
    EXPECT_EQ(item.Name, "name");
    EXPECT_EQ(item.SourcePath, "/from");
    EXPECT_EQ(item.DestinationPath, "/to");
    EXPECT_FALSE(item.bDestinationRenamed);
    EXPECT_TRUE(item.bDirectory);
    EXPECT_EQ(item.ItemCount, 3U);
    EXPECT_EQ(item.ByteCount, 4U);

    const TavroTransferPlan plan{true, TavroTransferConflictPolicy::Skip, "label", {item}};
    EXPECT_TRUE(plan.bMove);
    EXPECT_EQ(plan.ConflictPolicy, TavroTransferConflictPolicy::Skip);
    EXPECT_EQ(plan.SourceLabel, "label");
    ASSERT_EQ(plan.Items.size(), 1U);
    EXPECT_EQ(plan.Items[0].SourcePath, "/from");
}

TEST(OperationRecords, moving_a_default_plan_over_a_used_one_resets_it) {
    TavroTransferPlan plan{
        true, TavroTransferConflictPolicy::Overwrite, "label", {TavroTransferItemPlan()}};
    plan = TavroTransferPlan();
    EXPECT_FALSE(plan.bMove);
    EXPECT_EQ(plan.ConflictPolicy, TavroTransferConflictPolicy::Ask);
    EXPECT_EQ(plan.SourceLabel, "");
    EXPECT_TRUE(plan.Items.empty());
}

TEST(OperationRecords, a_copy_of_a_plan_shares_nothing_with_it) {
    TavroTransferPlan plan;
    plan.Items.emplace_back().SourcePath = "/from";
    TavroTransferPlan copy = plan;
    copy.Items[0].SourcePath = "/elsewhere";
    EXPECT_EQ(plan.Items[0].SourcePath, "/from");
}

TEST(OperationRecords, the_policy_can_be_stored_as_a_number) {
    for (const TavroTransferConflictPolicy policy :
         {TavroTransferConflictPolicy::Ask, TavroTransferConflictPolicy::Overwrite,
          TavroTransferConflictPolicy::Skip}) {
        const int stored = static_cast<int>(policy);
        EXPECT_EQ(static_cast<TavroTransferConflictPolicy>(stored), policy);
    }
}

} // namespace
