// Choosing among what is in the trash.

#include "choice.h"

#include "sandbox.h"

#include <ctime>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

using Names = std::vector<std::string>;

TavroTrashItem made(const std::string& name, const std::string& path,
                    const std::string& date = "2024-01-01T00:00:00", std::uint64_t bytes = 0) {
    TavroTrashItem item;
    item.Name = name;
    item.OriginalPath = path;
    item.DeletionDate = date;
    item.ByteCount = bytes;
    return item;
}

/// The text of a moment so many seconds ago.
std::string ago(double seconds) {
    const std::time_t moment = std::time(nullptr) - static_cast<std::time_t>(seconds);
    std::tm fields = {};
    localtime_r(&moment, &fields);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &fields);
    return text;
}

Names namesOf(const std::vector<TavroTrashItem>& items) {
    Names names;
    for (const TavroTrashItem& item : items) {
        names.push_back(item.Name);
    }
    return names;
}

/// The names of what is chosen, and the sentences of what is not.
Names chosen(const TavroChoice& choice, std::vector<TavroTrashItem> items) {
    const auto failures = TavroChooseItems(choice, items);
    Names result = namesOf(items);
    for (const TavroFailure& failure : failures) {
        result.push_back(TavroDescribe(failure));
    }
    return result;
}

Names chosen(const Names& words, const std::vector<TavroTrashItem>& items) {
    TavroChoice choice;
    choice.Words = words;
    return chosen(choice, items);
}

const std::vector<TavroTrashItem> some = {
    made("a.log", "/x/a.log"),        made("b 1.txt", "/x/b.txt"), made("b.txt", "/x/b.txt"),
    made("c copy 1.log", "/y/c.log"), made("[c].log", "/z/c.log"), made(".d.log", "/x/.d.log"),
};

} // namespace

TEST(ChooseItems, leaves_everything_where_nothing_is_said) {
    EXPECT_EQ(chosen(TavroChoice(), some).size(), some.size());
    EXPECT_TRUE(TavroChoice().IsEverything());
}

TEST(ChooseItems, takes_the_name_in_the_trash_before_paths_and_original_names) {
    EXPECT_EQ(chosen({"b.txt"}, some), Names{"b.txt"});
    EXPECT_EQ(chosen({"/x/b.txt"}, some), (Names{"b 1.txt", "b.txt"}));
    EXPECT_EQ(chosen({"b 1.txt", "a.log"}, some), (Names{"a.log", "b 1.txt"}));
}

TEST(ChooseItems, refuses_a_name_that_several_trashes_have) {
    EXPECT_EQ(chosen({"a"}, {made("a", "/home/a"), made("a", "/stick/b"), made("c", "/c")}),
              (Names{"Several entries named 'a' are in the trash, from '/home/a', '/stick/b'"}));
}

TEST(ChooseItems, takes_an_original_name_from_one_path_alone) {
    EXPECT_EQ(chosen({"c.log"}, some),
              Names{"Several entries named 'c.log' are in the trash, from '/y/c.log', '/z/c.log'"});
    EXPECT_EQ(chosen({"d"}, {made("d 1", "/x/d"), made("d 2", "/x/d")}), (Names{"d 1", "d 2"}));
}

TEST(ChooseItems, takes_a_name_before_it_is_read_as_a_pattern) {
    EXPECT_EQ(chosen({"[c].log"}, some), Names{"[c].log"});
    EXPECT_EQ(chosen({"[c]*.log"}, some), (Names{"c copy 1.log", "[c].log"}));
}

TEST(ChooseItems, matches_names_as_the_shell_does) {
    EXPECT_EQ(chosen({"*.log"}, some), (Names{"a.log", "c copy 1.log", "[c].log"}));
    EXPECT_EQ(chosen({".*"}, some), Names{".d.log"});
    EXPECT_EQ(chosen({"*/"}, some), chosen({"*"}, some));
    EXPECT_EQ(chosen({"*copy*"}, some), Names{"c copy 1.log"});
}

TEST(ChooseItems, matches_paths_where_a_pattern_has_a_slash) {
    EXPECT_EQ(chosen({"/[yz]/*"}, some), (Names{"c copy 1.log", "[c].log"}));
    EXPECT_EQ(chosen({"/*.log"}, some), Names{"Nothing in the trash matches '/*.log'"});
    EXPECT_EQ(chosen({"/x/*.log"}, some), Names{"a.log"});
}

TEST(ChooseItems, takes_relative_patterns_below_a_directory_of_any_name) {
    const Sandbox sandbox;
    const fs::path here = sandbox.path() / "[h]*e\\";
    fs::create_directories(here / "d");
    const ScopedCurrentDirectory there(here / "d");
    const std::vector<TavroTrashItem> items = {made("1", (here / "a").string()),
                                               made("2", (here / "d/a").string()),
                                               made("3", (here / "d/e/a").string())};
    EXPECT_EQ(chosen({"./*"}, items), Names{"2"});
    EXPECT_EQ(chosen({".//./?"}, items), Names{"2"});
    EXPECT_EQ(chosen({"../*"}, items), Names{"1"});
    EXPECT_EQ(chosen({"*/*"}, items), Names{"3"});
}

TEST(ChooseItems, names_each_word_that_means_nothing) {
    EXPECT_EQ(chosen({"x", "a.log", "y*", ""}, some),
              (Names{"a.log", "'x' is not in the trash", "Nothing in the trash matches 'y*'",
                     "'' is not in the trash"}));
}

TEST(ChooseItems, takes_the_newest_from_each_path_when_that_is_wanted) {
    TavroChoice choice;
    choice.bNewestAlone = true;
    EXPECT_EQ(chosen(choice, some).size(), 5U);
    choice.Words = {"/x/b.txt"};
    EXPECT_EQ(chosen(choice, some), Names{"b 1.txt"});
    choice.Words = {"b*"};
    EXPECT_EQ(chosen(choice, some), Names{"b 1.txt"});
    choice.Words = {"b*", "b.txt"};
    EXPECT_EQ(chosen(choice, some), (Names{"b 1.txt", "b.txt"}));
}

TEST(ChooseItems, counts_days_of_24_hours) {
    const std::vector<TavroTrashItem> items = {
        made("young", "/1", ago(3 * 86400 - 60)), made("old", "/2", ago(3 * 86400 + 60)),
        made("none", "/3", ""), made("unreadable", "/4", "once")};
    TavroChoice choice;
    choice.SinceDays = 3;
    EXPECT_EQ(chosen(choice, items), Names{"young"});
    choice.OlderThanDays = 2;
    EXPECT_EQ(chosen(choice, items), Names{"young"});
    choice.SinceDays = 0;
    EXPECT_EQ(chosen(choice, items), (Names{"young", "old"}));
}

TEST(ChooseItems, knows_what_was_below_a_directory_by_the_directory_itself) {
    const Sandbox sandbox;
    const std::string root = sandbox.path().string();
    fs::create_directories(root + "/d/e");
    fs::create_directory_symlink("d", root + "/way");
    TavroChoice choice;
    choice.Below = root + "/d";
    const std::vector<TavroTrashItem> items = {
        made("1", root + "/d/a"),    made("2", root + "/d/e/a"),
        made("3", root + "/da"),     made("4", root + "/way/a"),
        made("5", root + "/d/../a"), made("6", root + "/d"),
        made("7", root + "/d/no/a"), made("8", "/a")};
    EXPECT_EQ(chosen(choice, items), (Names{"1", "2", "4", "7"}));
    choice.Below = "/";
    EXPECT_EQ(chosen(choice, items).size(), items.size());
}

TEST(ChooseItems, finds_words_among_what_is_within_the_limits) {
    TavroChoice choice;
    choice.Words = {"a"};
    choice.OlderThanDays = 3;
    EXPECT_EQ(chosen(choice, {made("b", "/a", ago(60)), made("c", "/a")}), Names{"c"});
    EXPECT_EQ(chosen(choice, {made("a", "/a", ago(60))}),
              Names{"Nothing in the trash matches 'a' within these limits"});
}

TEST(OldestItems, are_as_many_as_hold_so_much) {
    const std::vector<TavroTrashItem> items = {
        made("new", "/1", "2024-01-03T00:00:00", 10), made("old", "/2", "2024-01-02T00:00:00", 10),
        made("oldest", "/3", "2024-01-01T00:00:00", 10), made("undated", "/4", "", 10)};
    EXPECT_EQ(namesOf(TavroOldestItems(items, 0)), Names{});
    EXPECT_EQ(namesOf(TavroOldestItems(items, 10)), Names{"oldest"});
    EXPECT_EQ(namesOf(TavroOldestItems(items, 11)), (Names{"oldest", "old"}));
    EXPECT_EQ(namesOf(TavroOldestItems(items, 99)), (Names{"oldest", "old", "new", "undated"}));
}
