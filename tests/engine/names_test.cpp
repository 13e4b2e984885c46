// Names: numbered ones, hidden ones, parts of paths, and any bytes as plain ASCII.

#include "names.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <set>
#include <thread>

// =================================================================================================
// Numbered names
// =================================================================================================

TEST(NumberedName, puts_the_number_before_the_extension) {
    EXPECT_EQ("a.txt", TavroNumberedName("a.txt", 0));
    EXPECT_EQ("a copy 1.txt", TavroNumberedName("a.txt", 1));
    EXPECT_EQ("a.tar copy 12.gz", TavroNumberedName("a.tar.gz", 12));
    EXPECT_EQ("a copy 18446744073709551615", TavroNumberedName("a", ~std::uint64_t{0}));
    EXPECT_EQ(".profile copy 1", TavroNumberedName(".profile", 1)) << "a hidden file has none";
    EXPECT_EQ(".a copy 1.b", TavroNumberedName(".a.b", 1));
    EXPECT_EQ("a copy 1.", TavroNumberedName("a.", 1));
    EXPECT_EQ(".. copy 1", TavroNumberedName("..", 1));
}

TEST(NumberedName, is_cut_before_its_extension_where_there_is_no_room) {
    const std::string longest(255, 'n');
    EXPECT_EQ(longest, TavroNumberedName(longest, 0));
    EXPECT_EQ(std::string(248, 'n') + " copy 1", TavroNumberedName(longest, 1));
    EXPECT_EQ(std::string(244, 'n') + " copy 1.txt", TavroNumberedName(longest + ".txt", 1));
    EXPECT_EQ(std::string(241, 'n') + ".txt", TavroNumberedName(longest + ".txt", 0, 245));
    for (const std::uint64_t number : {0U, 1U, 9999U}) {
        for (std::size_t size = 200; size < 300; ++size) {
            EXPECT_LE(TavroNumberedName(std::string(size, 'n') + ".e", number, 245).size(), 245U);
        }
    }
}

TEST(NumberedName, an_extension_that_leaves_no_room_counts_as_a_part_of_the_name) {
    const std::string name = "a." + std::string(300, 'e');
    EXPECT_EQ(name.substr(0, 248) + " copy 1", TavroNumberedName(name, 1));
    EXPECT_EQ(name.substr(0, 255), TavroNumberedName(name, 0));
    // The last extension that leaves four bytes to the name, and the first that does not.
    const std::string stem(100, 'n');
    EXPECT_EQ("nnnn." + std::string(250, 'e'),
              TavroNumberedName(stem + "." + std::string(250, 'e'), 0));
    const std::string room = std::string(243, 'e');
    EXPECT_EQ("nnnn copy 1." + room, TavroNumberedName(stem + "." + room, 1));
    EXPECT_EQ((stem + ".e" + room).substr(0, 248) + " copy 1",
              TavroNumberedName(stem + ".e" + room, 1));
    EXPECT_EQ((stem + "." + std::string(251, 'e')).substr(0, 255),
              TavroNumberedName(stem + "." + std::string(251, 'e'), 0));
}

TEST(NumberedName, is_cut_between_characters) {
    // Of two, three and four bytes, beginning at each place before the cut.
    for (const std::string& character :
         {std::string("\xC3\xA4"), std::string("\xE2\x82\xAC"), std::string("\xF0\x9F\x98\x80")}) {
        for (std::size_t before = 251; before <= 255; ++before) {
            const std::string name = std::string(before, 'n') + character + "tail";
            const bool bFits = before + character.size() <= 255;
            const std::string kept = bFits ? name.substr(0, 255) : std::string(before, 'n');
            EXPECT_EQ(kept, TavroNumberedName(name, 0)) << before;
        }
    }
}

TEST(NumberedName, that_is_no_text_is_cut_anywhere) {
    EXPECT_EQ(std::string(255, '\x80'), TavroNumberedName(std::string(300, '\x80'), 0));
    const std::string fourInARow = std::string(251, 'n') + std::string(4, '\x80');
    EXPECT_EQ(fourInARow, TavroNumberedName(fourInARow + "\x80\x80", 0));
    EXPECT_EQ(std::string(248, '\xFF') + " copy 1", TavroNumberedName(std::string(300, '\xFF'), 1));
}

// =================================================================================================
// Free names
// =================================================================================================

TEST(FreeNames, are_the_first_that_are_not_taken) {
    const std::set<std::string> taken = {"a.txt", "a copy 1.txt", "a copy 3.txt"};
    const auto isTaken = [&](const std::string& name) { return taken.count(name) > 0; };
    TavroFreeNames names;
    EXPECT_EQ("b", names.Choose("/x", "b", isTaken));
    EXPECT_EQ("a copy 2.txt", names.Choose("/x", "a.txt", isTaken));
    EXPECT_EQ("a copy 4.txt", names.Choose("/x", "a.txt", isTaken));
    EXPECT_EQ("a copy 2.txt", names.Choose("/y", "a.txt", isTaken))
        << "places count for themselves";
    EXPECT_EQ("a copy 5.txt", names.Choose("/x", "a.txt", isTaken));
    EXPECT_EQ("c", names.Choose("/x", "c", isTaken)) << "and so does each wanted name";
    EXPECT_EQ("c", names.Choose("/", "c", isTaken));
    EXPECT_EQ("xc", names.Choose("/", "xc", isTaken));
}

TEST(FreeNames, of_thousands_of_one_name_ask_about_each_once) {
    TavroFreeNames names;
    std::set<std::string> taken;
    std::size_t asked = 0;
    for (int i = 0; i < 5000; ++i) {
        taken.insert(names.Choose("", "a", [&](const std::string& name) {
            ++asked;
            return taken.count(name) > 0;
        }));
    }
    EXPECT_EQ(5000U, taken.size());
    EXPECT_EQ(5000U, asked);
}

TEST(FreeNames, that_are_cut_alike_stay_apart) {
    TavroFreeNames names;
    std::set<std::string> taken;
    for (const char* ending : {"1", "2", "1", "2"}) {
        const std::string name = names.Choose(
            "", std::string(250, 'n') + ending,
            [&](const std::string& one) { return taken.count(one) > 0; }, 245);
        EXPECT_TRUE(taken.insert(name).second) << name;
        EXPECT_LE(name.size(), 245U);
    }
}

TEST(StagingName, is_hidden_known_and_never_the_same) {
    std::set<std::string> names;
    std::set<char> letters;
    for (int i = 0; i < 1000; ++i) {
        const std::string name = TavroStagingName();
        letters.insert(name.begin() + 7, name.end());
        EXPECT_EQ('.', name.front());
        EXPECT_TRUE(TavroIsStagingName(name)) << name;
        names.insert(name);
    }
    EXPECT_GE(names.size(), 999U);
    EXPECT_EQ(36U, letters.size());
    for (const char* name :
         {"", "-old", ".tavro-", ".tavro-abcdefghijk", ".tavro-abcdefghijklm",
          ".tavro-ABCDEFGHIJKL", ".tavro-abcdefghijk!", "tavro-abcdefghijkl", ".tavra-abcdefghijkl",
          "x.tavro-abcdefghijkl", ".tavro-abcdefghijkl-new"}) {
        EXPECT_FALSE(TavroIsStagingName(name)) << name;
        EXPECT_FALSE(TavroIsAsideName(name)) << name;
    }
    EXPECT_TRUE(TavroIsStagingName(".tavro-az09bcdefghi"));
}

TEST(StagingName, tells_the_thread_that_gave_it) {
    const std::string& prefix = TavroStagingPrefix();
    EXPECT_EQ(prefix.size(), 13U);
    EXPECT_EQ(TavroStagingName().substr(0, prefix.size()), prefix);
    std::string other;
    std::thread([&] { other = TavroStagingPrefix(); }).join();
    EXPECT_NE(other, prefix);
}

TEST(StagingName, of_what_steps_aside_is_known_too) {
    const std::string aside = TavroAsideName(TavroStagingName());
    EXPECT_TRUE(TavroIsAsideName(aside));
    EXPECT_TRUE(TavroIsStagingName(aside));
    EXPECT_FALSE(TavroIsAsideName(TavroStagingName()));
    EXPECT_FALSE(TavroIsStagingName(TavroAsideName(aside)));
}

// =================================================================================================
// Parts of paths
// =================================================================================================

TEST(PathText, has_a_last_component_and_what_holds_it) {
    const struct {
        const char* Path;
        const char* Name;
        const char* Parent;
    } cases[] = {{"/a/b", "b", "/a"},   {"/a", "a", "/"},       {"/", "", "/"},  {"//a", "a", "/"},
                 {"/a//b", "b", "/a"},  {"a/b", "b", "a"},      {"a", "a", "."}, {"", "", "."},
                 {"/a/b/", "", "/a/b"}, {"/a b/c", "c", "/a b"}};
    for (const auto& one : cases) {
        EXPECT_EQ(one.Name, TavroNameOf(one.Path)) << one.Path;
        EXPECT_EQ(one.Parent, TavroParentOf(one.Path)) << one.Path;
    }
}

TEST(PathText, is_joined_by_one_separator) {
    EXPECT_EQ("/a/b", TavroJoin("/a", "b"));
    EXPECT_EQ("/a/b", TavroJoin("/a/", "b"));
    EXPECT_EQ("/b", TavroJoin("/", "b"));
    EXPECT_EQ("b", TavroJoin("", "b"));
}

TEST(PathText, lies_below_a_directory_by_whole_components) {
    EXPECT_TRUE(TavroIsBelow("/a", "/a/b"));
    EXPECT_TRUE(TavroIsBelow("/a", "/a/b/c"));
    EXPECT_TRUE(TavroIsBelow("/", "/a"));
    EXPECT_FALSE(TavroIsBelow("/", "/"));
    EXPECT_FALSE(TavroIsBelow("/a", "/a"));
    EXPECT_FALSE(TavroIsBelow("/a", "/a/"));
    EXPECT_FALSE(TavroIsBelow("/a", "/ab"));
    EXPECT_FALSE(TavroIsBelow("/a", "/ab/c"));
    EXPECT_FALSE(TavroIsBelow("/a/b", "/a"));
    EXPECT_FALSE(TavroIsBelow("/b", "/a/b"));
}

// =================================================================================================
// Escapes
// =================================================================================================

TEST(Percent, every_byte_is_escaped_but_letters_digits_and_five_marks) {
    const std::string kept = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-./_~";
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
        const std::string one(1, static_cast<char>(byte));
        char escape[4];
        std::snprintf(escape, sizeof escape, "%%%02X", byte);
        EXPECT_EQ(kept.find(one) != std::string::npos ? one : escape, TavroPercentEncode(one));
    }
    EXPECT_EQ(all, TavroPercentDecode(TavroPercentEncode(all)));
    EXPECT_EQ("", TavroPercentEncode(""));
}

TEST(Percent, is_decoded_once_where_two_digits_of_either_case_follow) {
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string text = {'%', static_cast<char>(first), static_cast<char>(second)};
            const bool bDigits = std::isxdigit(first) != 0 && std::isxdigit(second) != 0;
            const long value = std::strtol(text.c_str() + 1, nullptr, 16);
            EXPECT_EQ(bDigits ? std::string(1, static_cast<char>(value)) : text,
                      TavroPercentDecode(text));
        }
    }
    EXPECT_EQ("%41", TavroPercentDecode("%2541"));
    EXPECT_EQ("%A", TavroPercentDecode("%%41"));
    for (const char* text : {"%", "%4", "a%", "100%", ""}) {
        EXPECT_EQ(text, TavroPercentDecode(text));
    }
}
