#include "sandbox.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <vector>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

constexpr std::size_t megabyte = std::size_t{1} << 20U;

/// A name for each byte that a name can hold.
std::vector<std::string> namesOfEveryByte() {
    std::vector<std::string> names;
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '/') {
            names.push_back(std::string("a") + static_cast<char>(byte) + "z");
        }
    }
    return names;
}

/// Components of 250 bytes that add up to more than a path may have.
std::string tooLongPath() {
    std::string path;
    while (path.size() < 5000) {
        path += std::string(250, 'p') + "/";
    }
    return path + "end";
}

/// A current directory with something of every kind in it:
///
///     dir/  dir/sub/  dir/file  home/
///     link -> dir    deep -> dir/sub    dangling -> gone    loop -> loop
class PathText : public testing::Test {
protected:
    PathText() {
        makeDirectory(m_sandbox / "dir/sub");
        makeDirectory(m_sandbox / "home");
        writeFile(m_sandbox / "dir/file");
        fs::create_symlink("dir", m_sandbox / "link");
        fs::create_symlink(m_sandbox / "dir/sub", m_sandbox / "deep");
        fs::create_symlink("gone", m_sandbox / "dangling");
        fs::create_symlink("loop", m_sandbox / "loop");
    }

    /// The text of a path in the sandbox.
    std::string at(const std::string& name) const {
        return (m_sandbox / name).string();
    }

    /// Runs `body` in a child whose current directory has been removed.
    void runWithoutCurrentDirectory(const std::function<void()>& body) const {
        runInChild([&] {
            makeDirectory(m_sandbox / "removed");
            fs::current_path(m_sandbox / "removed");
            fs::remove(m_sandbox / "removed");
            body();
        });
    }

    /// Runs `body` in a child that may not search the directory `dir/closed`, which holds a
    /// directory `inside`.
    void runBesideClosedFolder(const std::function<void()>& body) const {
        makeDirectory(m_sandbox / "dir/closed/inside");
        fs::permissions(m_sandbox / "dir/closed", fs::perms::none);
        runUnprivileged(m_sandbox.path(), body);
    }

    const Sandbox m_sandbox;
    const ScopedEnvironment m_home{"HOME", at("home")};
    const ScopedCurrentDirectory m_current{m_sandbox.path()};
};

class CanonicalizePath : public PathText {};
class HomeDirectoryPath : public PathText {};
class ResolveUserPath : public PathText {
protected:
    /// The text of what the user means in the pane of `base`, by default the sandbox's.
    std::string resolved(const std::string& text) const {
        return TavroResolveUserPath(text, m_sandbox.path()).string();
    }
    static std::string resolved(const std::string& text, const fs::path& base) {
        return TavroResolveUserPath(text, base).string();
    }
};
class PathsEquivalentOrSame : public PathText {};
class PathIsInside : public PathText {};

// --- TavroTrimText ---

TEST(TrimText, white_space_goes_from_both_ends_and_stays_inside) {
    EXPECT_EQ(TavroTrimText("  a b \t\n"), "a b");
    EXPECT_EQ(TavroTrimText(" a"), "a");
    EXPECT_EQ(TavroTrimText("a "), "a");
    EXPECT_EQ(TavroTrimText("\v\f\r a \t b \r\f\v"), "a \t b");
}

TEST(TrimText, text_without_outer_white_space_stays_as_it_is) {
    EXPECT_EQ(TavroTrimText("a"), "a");
    EXPECT_EQ(TavroTrimText("a  b"), "a  b");
}

TEST(TrimText, nothing_is_left_of_white_space_alone) {
    EXPECT_EQ(TavroTrimText(""), "");
    EXPECT_EQ(TavroTrimText(" "), "");
    EXPECT_EQ(TavroTrimText(" \t\n\v\f\r"), "");
}

TEST(TrimText, exactly_six_of_all_bytes_are_white_space_in_the_c_locale) {
    for (int value = 0; value < 256; ++value) {
        const std::string byte(1, static_cast<char>(value));
        const std::string text = byte + "x" + byte;
        const bool bWhiteSpace = std::string(" \t\n\v\f\r").find(byte) != std::string::npos;
        EXPECT_EQ(TavroTrimText(text), bWhiteSpace ? "x" : text) << "byte " << value;
    }
}

TEST(TrimText, text_of_megabytes_is_trimmed) {
    const std::string blanks(4 * megabyte, ' ');
    const std::string letters(4 * megabyte, 'x');
    EXPECT_EQ(TavroTrimText(blanks), "");
    EXPECT_TRUE(TavroTrimText(blanks + letters + blanks) == letters);
    EXPECT_TRUE(TavroTrimText(letters + blanks + letters) == letters + blanks + letters);
}

/// Makes a locale below `folder` in which the byte A0 is white space too, unlike in the 8-bit
/// locales that come with the system. False: there is no tool to make it with.
bool makeLocaleWithAnotherSpace(const fs::path& folder) {
    writeFile(folder / "bytes", "<code_set_name> BYTES\n"
                                "<mb_cur_max> 1\n"
                                "<escape_char> /\n"
                                "CHARMAP\n"
                                "<U0000>..<U007F> /x00\n"
                                "<U0080>..<U00FF> /x80\n"
                                "END CHARMAP\n");
    writeFile(folder / "source", "escape_char /\n"
                                 "LC_CTYPE\n"
                                 "upper <U0041>..<U005A>\n"
                                 "lower <U0061>..<U007A>\n"
                                 "space <U0009>..<U000D>;<U0020>;<U00A0>\n"
                                 "END LC_CTYPE\n");
    if (std::system("command -v localedef >/dev/null 2>&1") != 0) {
        return false;
    }
    // The other categories are missing on purpose; localedef is told to go on and still exits 1.
    const std::string command = "cd '" + folder.string() +
                                "' && localedef -c --no-archive -i ./source -f ./bytes ./tavro-test"
                                " >output 2>&1";
    const int status = std::system(command.c_str());
    EXPECT_TRUE(isPresent(folder / "tavro-test/LC_CTYPE"))
        << "localedef ended with status " << status << ": " << readFile(folder / "output");
    return true;
}

TEST(TrimText, the_locale_of_the_process_decides_what_white_space_is) {
    const Sandbox sandbox;
    if (!makeLocaleWithAnotherSpace(sandbox.path())) {
        GTEST_SKIP() << "localedef is not installed, so there is no locale to test with";
    }
    const ScopedEnvironment path("LOCPATH", sandbox.path().string());
    EXPECT_EQ(TavroTrimText("\xA0 a\xA0z \xA0"), "\xA0 a\xA0z \xA0");
    runInChild([] {
        ASSERT_NE(std::setlocale(LC_CTYPE, "tavro-test"), nullptr);
        EXPECT_EQ(TavroTrimText("\xA0 a\xA0z \xA0"), "a\xA0z");
        EXPECT_EQ(TavroTrimText("\xA0"), "");
    });
}

TEST(TrimText, a_utf8_locale_does_not_cut_letters_apart) {
    runInChild([] {
        ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
        // The letters end in the bytes A0 and 85, the spaces are no-break space and ideographic.
        for (const char* text : {"\xC3\xA0", "\xC3\x85", "\xC2\xA0", "\xE3\x80\x80"}) {
            EXPECT_EQ(TavroTrimText(std::string(" ") + text + " "), text);
        }
    });
}

// --- TavroCanonicalizePath ---

TEST_F(CanonicalizePath, empty_text_stays_empty) {
    EXPECT_EQ(TavroCanonicalizePath(""), "");
}

TEST_F(CanonicalizePath, relative_text_is_taken_against_the_current_directory) {
    EXPECT_EQ(TavroCanonicalizePath("dir"), at("dir"));
    EXPECT_EQ(TavroCanonicalizePath("new"), at("new"));
    EXPECT_EQ(TavroCanonicalizePath("."), m_sandbox.path().string());
    EXPECT_EQ(TavroCanonicalizePath(".."), m_sandbox.path().parent_path().string());
    const ScopedCurrentDirectory inside(m_sandbox / "dir");
    EXPECT_EQ(TavroCanonicalizePath("sub"), at("dir/sub"));
    EXPECT_EQ(TavroCanonicalizePath("../new"), at("new"));
}

TEST_F(CanonicalizePath, links_are_resolved_wherever_they_stand) {
    EXPECT_EQ(TavroCanonicalizePath("link"), at("dir"));
    EXPECT_EQ(TavroCanonicalizePath("link/file"), at("dir/file"));
    EXPECT_EQ(TavroCanonicalizePath(at("deep")), at("dir/sub"));
    fs::create_symlink("link/file", m_sandbox / "chain");
    EXPECT_EQ(TavroCanonicalizePath("chain"), at("dir/file"));
    EXPECT_EQ(TavroCanonicalizePath("link/new/newer"), at("dir/new/newer"));
}

TEST_F(CanonicalizePath, dots_in_the_existing_part_are_resolved_on_disk) {
    EXPECT_EQ(TavroCanonicalizePath("dir/./sub/."), at("dir/sub"));
    EXPECT_EQ(TavroCanonicalizePath("dir/sub/.."), at("dir"));
    EXPECT_EQ(TavroCanonicalizePath("deep/.."), at("dir"));
    EXPECT_EQ(TavroCanonicalizePath("deep/../new"), at("dir/new"));
}

TEST_F(CanonicalizePath, dots_in_the_missing_part_are_removed_as_text) {
    EXPECT_EQ(TavroCanonicalizePath("./new/./a//b/../c"), at("new/a/c"));
    EXPECT_EQ(TavroCanonicalizePath("deep/new/../../file"), at("dir/file"));
    EXPECT_EQ(TavroCanonicalizePath("new/../dir/sub"), at("dir/sub"));
}

TEST_F(CanonicalizePath, a_link_after_a_missing_part_is_a_plain_name) {
    EXPECT_EQ(TavroCanonicalizePath("new/../link/file"), at("link/file"));
}

TEST_F(CanonicalizePath, what_lies_below_a_file_counts_as_missing) {
    EXPECT_EQ(TavroCanonicalizePath("link/file/x"), at("dir/file/x"));
    EXPECT_EQ(TavroCanonicalizePath("link/file/x/../y"), at("dir/file/y"));
    EXPECT_EQ(TavroCanonicalizePath("link/file/."), at("dir/file/"));
    EXPECT_EQ(TavroCanonicalizePath("link/file/.."), at("dir/"));
}

TEST_F(CanonicalizePath, a_dangling_link_counts_as_missing) {
    EXPECT_EQ(TavroCanonicalizePath("dangling"), at("dangling"));
    EXPECT_EQ(TavroCanonicalizePath("dangling/x"), at("dangling/x"));
    fs::create_symlink("gone", m_sandbox / "dir/dangling");
    EXPECT_EQ(TavroCanonicalizePath("link/dangling/../x"), at("dir/x"));
}

TEST_F(CanonicalizePath, a_path_through_a_loop_is_normalised_as_text_alone) {
    fs::create_symlink("loop", m_sandbox / "dir/loop");
    EXPECT_EQ(TavroCanonicalizePath("loop"), at("loop"));
    EXPECT_EQ(TavroCanonicalizePath("link/./loop//x"), at("link/loop/x"));
    EXPECT_EQ(TavroCanonicalizePath(at("deep/../loop")), at("loop"));
    fs::create_symlink("two", m_sandbox / "one");
    fs::create_symlink("one", m_sandbox / "two");
    EXPECT_EQ(TavroCanonicalizePath("one/../x"), at("x"));
}

TEST_F(CanonicalizePath, a_separator_at_the_end_goes_from_what_exists_and_stays_on_what_does_not) {
    EXPECT_EQ(TavroCanonicalizePath("dir/"), at("dir"));
    EXPECT_EQ(TavroCanonicalizePath("link//"), at("dir"));
    EXPECT_EQ(TavroCanonicalizePath("new/"), at("new/"));
    EXPECT_EQ(TavroCanonicalizePath("link/new//"), at("dir/new/"));
    EXPECT_EQ(TavroCanonicalizePath("dir/file/"), at("dir/file/"));
}

TEST_F(CanonicalizePath, the_root_directory_is_one_slash) {
    for (const char* text : {"/", "//", "/.", "/..", "/../.."}) {
        EXPECT_EQ(TavroCanonicalizePath(text), "/") << text;
    }
    EXPECT_EQ(TavroCanonicalizePath("/" + at("link")), at("dir"));
}

TEST_F(CanonicalizePath, a_tilde_is_a_plain_name) {
    EXPECT_EQ(TavroCanonicalizePath("~"), at("~"));
    EXPECT_EQ(TavroCanonicalizePath("~/x"), at("~/x"));
}

TEST_F(CanonicalizePath, white_space_and_backslashes_are_plain_bytes) {
    EXPECT_EQ(TavroCanonicalizePath(" new "), at(" new "));
    EXPECT_EQ(TavroCanonicalizePath("a\\..\\b"), at("a\\..\\b"));
    EXPECT_EQ(TavroCanonicalizePath("\\"), at("\\"));
}

TEST_F(CanonicalizePath, names_may_hold_every_byte) {
    for (const std::string& name : namesOfEveryByte()) {
        EXPECT_EQ(TavroCanonicalizePath("link/" + name), at("dir/" + name)) << "missing";
        makeDirectory(m_sandbox / "dir" / name);
        EXPECT_EQ(TavroCanonicalizePath("link/" + name + "/."), at("dir/" + name)) << "existing";
    }
}

TEST_F(CanonicalizePath, a_name_of_255_bytes_is_resolved_and_one_of_256_is_text_alone) {
    const std::string longest(255, 'n');
    EXPECT_EQ(TavroCanonicalizePath("link/" + longest), at("dir/" + longest));
    makeDirectory(m_sandbox / "dir" / longest);
    EXPECT_EQ(TavroCanonicalizePath("link/./" + longest), at("dir/" + longest));
    EXPECT_EQ(TavroCanonicalizePath("link/./" + longest + "n"), at("link/" + longest + "n"));
}

TEST_F(CanonicalizePath, a_path_beyond_the_limit_is_normalised_as_text_alone) {
    EXPECT_EQ(TavroCanonicalizePath("link/./" + tooLongPath()), at("link/" + tooLongPath()));
}

TEST_F(CanonicalizePath, a_path_beyond_the_limit_is_text_alone_even_where_it_exists) {
    const std::string level(250, 'p');
    std::string path = "link";
    fs::current_path(m_sandbox / "link");
    while (path.size() < 5000) {
        fs::create_directory(level);
        fs::current_path(level);
        path += "/" + level;
    }
    EXPECT_EQ(TavroCanonicalizePath(at(path + "/.")), at(path + "/"));
    EXPECT_EQ(TavroCanonicalizePath("x/../y"), at("dir" + path.substr(4) + "/y"));
}

TEST_F(CanonicalizePath, text_of_megabytes_is_normalised) {
    const std::string name(2 * megabyte, 'n');
    EXPECT_TRUE(TavroCanonicalizePath("link/./" + name) == at("link/" + name));
    std::string typed;
    std::string normal;
    while (typed.size() < megabyte) {
        typed += "new/./";
        normal += "new/";
    }
    EXPECT_TRUE(TavroCanonicalizePath("link/" + typed + "end") == at("link/" + normal + "end"));
}

TEST_F(CanonicalizePath, a_path_through_an_unreadable_folder_is_normalised_as_text_alone) {
    runBesideClosedFolder([&] {
        EXPECT_EQ(TavroCanonicalizePath("link/closed"), at("dir/closed"));
        EXPECT_EQ(TavroCanonicalizePath("link/./closed/inside"), at("link/closed/inside"));
        EXPECT_EQ(TavroCanonicalizePath("link/closed/../x"), at("link/x"));
    });
}

TEST_F(CanonicalizePath, without_a_current_directory_relative_text_stays_relative) {
    runWithoutCurrentDirectory([&] {
        EXPECT_EQ(TavroCanonicalizePath(""), "");
        EXPECT_EQ(TavroCanonicalizePath("x"), "x");
        EXPECT_EQ(TavroCanonicalizePath("x/"), "x/");
        EXPECT_EQ(TavroCanonicalizePath("a/./b/../c"), "a/c");
        EXPECT_EQ(TavroCanonicalizePath("../x"), "../x");
        EXPECT_EQ(TavroCanonicalizePath("."), ".");
    });
}

TEST_F(CanonicalizePath, absolute_text_needs_no_current_directory) {
    runWithoutCurrentDirectory([&] {
        EXPECT_EQ(TavroCanonicalizePath(at("link/file")), at("dir/file"));
        EXPECT_EQ(TavroCanonicalizePath(at("link/new/../x")), at("dir/x"));
    });
}

// --- TavroHomeDirectoryPath ---

TEST_F(HomeDirectoryPath, it_is_what_home_names) {
    EXPECT_EQ(TavroHomeDirectoryPath(), at("home"));
}

TEST_F(HomeDirectoryPath, it_is_empty_when_home_is_unset_or_empty) {
    {
        const ScopedEnvironment home("HOME", std::nullopt);
        EXPECT_EQ(TavroHomeDirectoryPath(), "");
    }
    const ScopedEnvironment home("HOME", "");
    EXPECT_EQ(TavroHomeDirectoryPath(), "");
}

TEST_F(HomeDirectoryPath, it_is_read_anew_on_each_call) {
    EXPECT_EQ(TavroHomeDirectoryPath(), at("home"));
    const ScopedEnvironment home("HOME", at("dir"));
    EXPECT_EQ(TavroHomeDirectoryPath(), at("dir"));
}

TEST_F(HomeDirectoryPath, it_need_not_exist) {
    const ScopedEnvironment home("HOME", at("gone/./home"));
    EXPECT_EQ(TavroHomeDirectoryPath(), at("gone/home"));
}

TEST_F(HomeDirectoryPath, a_relative_one_is_made_absolute) {
    const ScopedEnvironment home("HOME", "home");
    EXPECT_EQ(TavroHomeDirectoryPath(), at("home"));
}

TEST_F(HomeDirectoryPath, a_separator_at_the_end_of_an_existing_one_goes) {
    const ScopedEnvironment home("HOME", at("home/"));
    EXPECT_EQ(TavroHomeDirectoryPath(), at("home"));
}

TEST_F(HomeDirectoryPath, links_in_it_are_resolved) {
    const ScopedEnvironment home("HOME", at("link/sub"));
    EXPECT_EQ(TavroHomeDirectoryPath(), at("dir/sub"));
}

TEST_F(HomeDirectoryPath, a_tilde_in_it_is_a_plain_name) {
    const ScopedEnvironment home("HOME", "~");
    EXPECT_EQ(TavroHomeDirectoryPath(), at("~"));
}

TEST_F(HomeDirectoryPath, white_space_in_it_stays) {
    const ScopedEnvironment home("HOME", at(" home "));
    EXPECT_EQ(TavroHomeDirectoryPath(), at(" home "));
}

// --- TavroEndsWithPathSeparator ---

TEST(EndsWithPathSeparator, only_a_slash_or_a_backslash_at_the_end_counts) {
    for (int value = 0; value < 256; ++value) {
        const std::string byte(1, static_cast<char>(value));
        const bool bSeparator = byte == "/" || byte == "\\";
        EXPECT_EQ(TavroEndsWithPathSeparator(byte), bSeparator) << "byte " << value;
        EXPECT_EQ(TavroEndsWithPathSeparator("dir" + byte), bSeparator) << "byte " << value;
        EXPECT_FALSE(TavroEndsWithPathSeparator(byte + "x")) << "byte " << value;
    }
}

TEST(EndsWithPathSeparator, empty_text_has_none) {
    EXPECT_FALSE(TavroEndsWithPathSeparator(""));
}

TEST(EndsWithPathSeparator, the_text_is_not_trimmed) {
    EXPECT_FALSE(TavroEndsWithPathSeparator("dir/ "));
    EXPECT_TRUE(TavroEndsWithPathSeparator("dir /"));
}

TEST(EndsWithPathSeparator, text_of_megabytes_is_judged_by_its_last_byte) {
    const std::string separators(2 * megabyte, '/');
    EXPECT_TRUE(TavroEndsWithPathSeparator(separators));
    EXPECT_FALSE(TavroEndsWithPathSeparator(separators + "x"));
}

// --- TavroResolveUserPath ---

TEST_F(ResolveUserPath, empty_text_is_the_empty_path_in_any_pane) {
    EXPECT_EQ(resolved("", "/base"), "");
    EXPECT_EQ(resolved(""), "");
    EXPECT_EQ(resolved("", ""), "");
}

TEST_F(ResolveUserPath, relative_text_is_taken_below_the_base_directory) {
    EXPECT_EQ(resolved("x", "/base"), "/base/x");
    EXPECT_EQ(resolved("../x", "/base/pane"), "/base/x");
    EXPECT_EQ(resolved("x", m_sandbox / "dir"), at("dir/x"));
    EXPECT_EQ(resolved("sub/../file", m_sandbox / "dir/"), at("dir/file"));
    EXPECT_EQ(resolved(".", m_sandbox / "dir"), at("dir"));
}

TEST_F(ResolveUserPath, absolute_text_ignores_the_base_directory) {
    for (const fs::path& base : {fs::path("/base"), fs::path("base"), fs::path()}) {
        EXPECT_EQ(resolved(at("dir/../new"), base), at("new")) << base;
    }
    EXPECT_EQ(resolved("/", "/base"), "/");
}

TEST_F(ResolveUserPath, links_are_resolved_in_the_text_and_in_the_base_directory) {
    EXPECT_EQ(resolved("link/file"), at("dir/file"));
    EXPECT_EQ(resolved("deep/../new"), at("dir/new"));
    EXPECT_EQ(resolved("file", m_sandbox / "link"), at("dir/file"));
    EXPECT_EQ(resolved("../new", m_sandbox / "deep"), at("dir/new"));
}

TEST_F(ResolveUserPath, a_dangling_link_counts_as_missing) {
    EXPECT_EQ(resolved("dangling"), at("dangling"));
    EXPECT_EQ(resolved("link/../dangling/x"), at("dangling/x"));
}

TEST_F(ResolveUserPath, a_path_through_a_loop_is_normalised_as_text_alone) {
    fs::create_symlink("loop", m_sandbox / "dir/loop");
    EXPECT_EQ(resolved("loop"), at("loop"));
    EXPECT_EQ(resolved("link/./loop/x"), at("link/loop/x"));
}

TEST_F(ResolveUserPath, the_three_forms_of_a_leading_tilde_begin_with_the_home_directory) {
    EXPECT_EQ(resolved("~", "/base"), at("home"));
    EXPECT_EQ(resolved("~/", "/base"), at("home"));
    EXPECT_EQ(resolved("~/x", "/base"), at("home/x"));
    EXPECT_EQ(resolved("~//x/../y", "/base"), at("home/y"));
    EXPECT_EQ(resolved("~/../dir", "/base"), at("dir"));
    EXPECT_EQ(resolved("~\\x", "/base"), at("home\\x"));
    EXPECT_EQ(resolved("~\\", "/base"), at("home\\"));
    EXPECT_EQ(resolved("~\\x/y", "/base"), at("home\\x/y"));
}

TEST_F(ResolveUserPath, every_other_tilde_is_a_plain_character) {
    for (const char* text : {"~user", "~user/x", "~~", "~ ", "~.", "x/~", "x~", " ~", "./~"}) {
        EXPECT_EQ(resolved(text, "/base"), fs::path("/base") / fs::path(text).lexically_normal())
            << text;
    }
    EXPECT_EQ(resolved("/~/x", "/base"), "/~/x");
    EXPECT_EQ(resolved("~~/x", "/base"), "/base/~~/x");
}

TEST_F(ResolveUserPath, without_a_home_directory_a_leading_tilde_is_a_plain_character) {
    const std::vector<std::optional<std::string>> noHomes = {std::nullopt, std::string()};
    for (const std::optional<std::string>& value : noHomes) {
        const ScopedEnvironment home("HOME", value);
        EXPECT_EQ(resolved("~", "/base"), "/base/~");
        EXPECT_EQ(resolved("~/x", "/base"), "/base/~/x");
        EXPECT_EQ(resolved("~\\x", "/base"), "/base/~\\x");
    }
}

TEST_F(ResolveUserPath, the_home_directory_may_be_relative) {
    const ScopedEnvironment home("HOME", "home");
    EXPECT_EQ(resolved("~", "/base"), at("home"));
    EXPECT_EQ(resolved("~/x", "/base"), at("home/x"));
    EXPECT_EQ(resolved("~\\x", "/base"), at("home\\x"));
}

TEST_F(ResolveUserPath, the_home_directory_may_end_in_a_separator) {
    const ScopedEnvironment home("HOME", at("home/"));
    EXPECT_EQ(resolved("~", "/base"), at("home"));
    EXPECT_EQ(resolved("~/x", "/base"), at("home/x"));
    EXPECT_EQ(resolved("~\\x", "/base"), at("home\\x"));
}

TEST_F(ResolveUserPath, the_home_directory_may_be_missing) {
    const ScopedEnvironment home("HOME", at("gone"));
    EXPECT_EQ(resolved("~", "/base"), at("gone"));
    EXPECT_EQ(resolved("~/x", "/base"), at("gone/x"));
    EXPECT_EQ(resolved("~\\x", "/base"), at("gone\\x"));
}

TEST_F(ResolveUserPath, the_home_directory_may_be_reached_through_a_link) {
    const ScopedEnvironment home("HOME", at("deep"));
    EXPECT_EQ(resolved("~", "/base"), at("dir/sub"));
    EXPECT_EQ(resolved("~/x", "/base"), at("dir/sub/x"));
    EXPECT_EQ(resolved("~/../x", "/base"), at("dir/x"));
    EXPECT_EQ(resolved("~\\x", "/base"), at("dir/sub\\x"));
}

TEST_F(ResolveUserPath, the_home_directory_may_be_the_root) {
    const ScopedEnvironment home("HOME", "/");
    EXPECT_EQ(resolved("~", "/base"), "/");
    EXPECT_EQ(resolved("~" + at("link/x"), "/base"), at("dir/x"));
    EXPECT_EQ(resolved("~\\x", "/base"), "/\\x");
}

TEST_F(ResolveUserPath, a_relative_or_empty_base_directory_is_resolved_as_far_as_the_path_exists) {
    EXPECT_EQ(resolved("x", "link"), at("dir/x"));
    EXPECT_EQ(resolved("file", "link"), at("dir/file"));
    EXPECT_EQ(resolved("link/x", ""), at("dir/x"));
    EXPECT_EQ(resolved("dir", ""), at("dir"));
    EXPECT_EQ(resolved(".", ""), m_sandbox.path().string());
}

TEST_F(ResolveUserPath, a_relative_path_of_which_nothing_exists_stays_relative) {
    EXPECT_EQ(resolved("x", ""), "x");
    EXPECT_EQ(resolved("./x/../y", "gone"), "gone/y");
    EXPECT_EQ(resolved("loop", ""), "loop");
}

TEST_F(ResolveUserPath, without_a_current_directory_only_absolute_paths_are_resolved) {
    const ScopedEnvironment home("HOME", "home");
    runWithoutCurrentDirectory([&] {
        EXPECT_EQ(resolved("x", m_sandbox / "link"), at("dir/x"));
        EXPECT_EQ(resolved(at("link/x"), ""), at("dir/x"));
        EXPECT_EQ(resolved("a/../x", ""), "x");
        EXPECT_EQ(resolved("x", "link"), "link/x");
        EXPECT_EQ(resolved("~/x", m_sandbox / "link"), at("dir/home/x"));
    });
}

TEST_F(ResolveUserPath, the_text_is_not_trimmed) {
    EXPECT_EQ(resolved(" x ", "/base"), "/base/ x ");
    EXPECT_EQ(resolved(" ", "/base"), "/base/ ");
    EXPECT_EQ(resolved(" /x", "/base"), "/base/ /x");
}

TEST_F(ResolveUserPath, a_backslash_separates_nothing) {
    EXPECT_EQ(resolved("a\\b", "/base"), "/base/a\\b");
    EXPECT_EQ(resolved("\\a", "/base"), "/base/\\a");
    EXPECT_EQ(resolved("a\\..\\b", "/base"), "/base/a\\..\\b");
}

TEST_F(ResolveUserPath, a_separator_at_the_end_goes_from_what_exists_and_stays_on_what_does_not) {
    EXPECT_EQ(resolved("link/"), at("dir"));
    EXPECT_EQ(resolved("new/"), at("new/"));
    EXPECT_EQ(resolved("dir/new//"), at("dir/new/"));
}

TEST_F(ResolveUserPath, names_may_hold_every_byte) {
    for (const std::string& name : namesOfEveryByte()) {
        EXPECT_EQ(resolved("link/" + name), at("dir/" + name)) << "missing";
        EXPECT_EQ(resolved("~/" + name), at("home/" + name)) << "missing";
        makeDirectory(m_sandbox / "dir" / name);
        EXPECT_EQ(resolved(name + "/x", m_sandbox / "link"), at("dir/" + name + "/x"))
            << "existing";
    }
}

TEST_F(ResolveUserPath, a_name_of_255_bytes_is_resolved_and_one_of_256_is_text_alone) {
    const std::string longest(255, 'n');
    EXPECT_EQ(resolved("link/" + longest), at("dir/" + longest));
    EXPECT_EQ(resolved("link/./" + longest + "n"), at("link/" + longest + "n"));
}

TEST_F(ResolveUserPath, a_path_beyond_the_limit_is_normalised_as_text_alone) {
    EXPECT_EQ(resolved("link/./" + tooLongPath()), at("link/" + tooLongPath()));
    EXPECT_EQ(resolved("~/" + tooLongPath()), at("home/" + tooLongPath()));
}

TEST_F(ResolveUserPath, text_of_megabytes_is_resolved) {
    const std::string name(2 * megabyte, 'n');
    EXPECT_TRUE(resolved("link/./" + name) == at("link/" + name));
    EXPECT_TRUE(resolved("~" + name) == at("~" + name));
    EXPECT_TRUE(resolved("~/" + std::string(megabyte, '/') + "x") == at("home/x"));
}

TEST_F(ResolveUserPath, a_path_through_an_unreadable_folder_is_normalised_as_text_alone) {
    runBesideClosedFolder([&] {
        EXPECT_EQ(resolved("link/closed"), at("dir/closed"));
        EXPECT_EQ(resolved("link/./closed/inside"), at("link/closed/inside"));
        EXPECT_EQ(resolved("inside", m_sandbox / "link/closed"), at("link/closed/inside"));
    });
}

/// The path as the library resolves it; normalised as text alone where the library gives up.
fs::path byTheLibrary(const fs::path& path) {
    std::error_code ec;
    const fs::path resolved = fs::weakly_canonical(path, ec);
    return ec ? path.lexically_normal() : resolved;
}

/// A directory in which every component is at home, and again in the directories that `a`, `link`
/// and `closed` lead to.
class EveryPath : public testing::Test {
protected:
    EveryPath() {
        for (const char* folder : {"", "a", "closed"}) {
            makeDirectory(m_sandbox / folder / "a");
            makeDirectory(m_sandbox / folder / "closed");
            writeFile(m_sandbox / folder / "file");
            fs::create_directory_symlink(m_sandbox.path(), m_sandbox / folder / "link");
            fs::create_symlink("gone/b", m_sandbox / folder / "dangling");
            fs::create_symlink("loop", m_sandbox / folder / "loop");
        }
        for (const char* folder : {"closed", "a/closed"}) {
            fs::permissions(m_sandbox / folder, fs::perms::none);
        }
    }

    /// The module and the library agree on `start` with one to `length` of these components.
    static void compare(const std::string& start, const std::vector<std::string>& components,
                        int length) {
        for (const std::string& component : components) {
            if (HasFailure()) {
                return; // one difference is enough
            }
            const std::string text = start + component;
            EXPECT_EQ(TavroResolveUserPath(text, "").native(), byTheLibrary(text).native()) << text;
            if (length > 1) {
                compare(text + "/", components, length - 1);
            }
        }
    }

    /// Absolute texts and relative ones.
    void compareAll() const {
        const std::vector<std::string> components = {"a",        "b",    ".",    "..",    "link",
                                                     "dangling", "loop", "file", "closed"};
        std::vector<std::string> withOdd = components;
        withOdd.insert(withOdd.end(), {"", std::string("\0a", 2), std::string("a\0", 2)});
        compare(m_sandbox.path().string() + "/", components, 5);
        compare(m_sandbox.path().string() + "/", withOdd, 3);
        compare("", withOdd, 3);
    }

    const Sandbox m_sandbox;
    const ScopedCurrentDirectory m_current{m_sandbox.path()};
};

TEST_F(EveryPath, is_resolved_by_root_as_by_the_library) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root enters every folder";
    }
    compareAll();
}

TEST_F(EveryPath, is_resolved_by_an_ordinary_user_as_by_the_library) {
    runUnprivileged(m_sandbox.path(), [&] { compareAll(); });
}

// --- TavroPathsEquivalentOrSame ---

TEST_F(PathsEquivalentOrSame, a_hard_link_and_its_file_are_the_same) {
    fs::create_hard_link(m_sandbox / "dir/file", m_sandbox / "other");
    EXPECT_TRUE(TavroPathsEquivalentOrSame(at("other"), at("dir/file")));
    EXPECT_TRUE(TavroPathsEquivalentOrSame("other", at("link/file")));
}

TEST_F(PathsEquivalentOrSame, a_link_and_its_target_are_the_same) {
    EXPECT_TRUE(TavroPathsEquivalentOrSame(at("link"), at("dir")));
    EXPECT_TRUE(TavroPathsEquivalentOrSame(at("deep"), at("link/sub")));
}

TEST_F(PathsEquivalentOrSame, an_existing_path_is_the_same_in_any_spelling) {
    EXPECT_TRUE(TavroPathsEquivalentOrSame(at("dir"), at("dir/")));
    EXPECT_TRUE(TavroPathsEquivalentOrSame("dir", at("dir")));
    EXPECT_TRUE(TavroPathsEquivalentOrSame("dir/sub/../file", at("dir//file")));
}

TEST_F(PathsEquivalentOrSame, different_files_are_not_the_same_even_with_equal_contents) {
    writeFile(m_sandbox / "dir/twin");
    EXPECT_FALSE(TavroPathsEquivalentOrSame(at("dir/file"), at("dir/twin")));
    EXPECT_FALSE(TavroPathsEquivalentOrSame(at("dir"), at("dir/sub")));
    EXPECT_FALSE(TavroPathsEquivalentOrSame(at("dir/file"), at("dir")));
}

TEST_F(PathsEquivalentOrSame, missing_paths_are_the_same_when_their_canonical_texts_are) {
    EXPECT_TRUE(TavroPathsEquivalentOrSame("/a/./b", "/a/b"));
    EXPECT_TRUE(TavroPathsEquivalentOrSame("/a/c/../b", "/a//b"));
    EXPECT_TRUE(TavroPathsEquivalentOrSame("new", at("new")));
    EXPECT_TRUE(TavroPathsEquivalentOrSame(at("link/new"), at("dir/new")));
    EXPECT_FALSE(TavroPathsEquivalentOrSame("/a/b", "/a/B"));
    EXPECT_FALSE(TavroPathsEquivalentOrSame("/a/b", "/a/b/"));
    EXPECT_FALSE(TavroPathsEquivalentOrSame("/a/b", "/a/bc"));
}

TEST_F(PathsEquivalentOrSame, a_missing_and_an_existing_path_differ) {
    EXPECT_FALSE(TavroPathsEquivalentOrSame(at("dir"), at("new")));
    EXPECT_FALSE(TavroPathsEquivalentOrSame(at("new"), at("dir")));
}

TEST_F(PathsEquivalentOrSame, two_empty_paths_are_the_same_and_one_is_like_no_other) {
    EXPECT_TRUE(TavroPathsEquivalentOrSame("", ""));
    EXPECT_FALSE(TavroPathsEquivalentOrSame("", "."));
    EXPECT_FALSE(TavroPathsEquivalentOrSame(at("dir"), ""));
}

TEST_F(PathsEquivalentOrSame, a_dangling_link_is_the_same_only_as_itself) {
    fs::create_symlink("gone", m_sandbox / "dangling2");
    EXPECT_TRUE(TavroPathsEquivalentOrSame("dangling", at("dangling")));
    EXPECT_FALSE(TavroPathsEquivalentOrSame("dangling", "gone"));
    EXPECT_FALSE(TavroPathsEquivalentOrSame("dangling", "dangling2"));
}

TEST_F(PathsEquivalentOrSame, a_link_to_itself_is_compared_by_text) {
    EXPECT_TRUE(TavroPathsEquivalentOrSame("./loop", at("loop")));
    EXPECT_FALSE(TavroPathsEquivalentOrSame("loop", "loop/x"));
}

TEST_F(PathsEquivalentOrSame, a_fifo_is_the_same_as_itself) {
    makeFifo(m_sandbox / "dir/fifo");
    EXPECT_TRUE(TavroPathsEquivalentOrSame("link/fifo", at("dir/fifo")));
    EXPECT_FALSE(TavroPathsEquivalentOrSame("dir/fifo", "dir/file"));
}

TEST_F(PathsEquivalentOrSame, what_cannot_be_examined_is_compared_by_text) {
    runBesideClosedFolder([&] {
        EXPECT_TRUE(TavroPathsEquivalentOrSame("dir/closed/./inside", at("dir/closed/inside")));
        EXPECT_FALSE(TavroPathsEquivalentOrSame("link/closed/inside", "dir/closed/inside"));
        EXPECT_FALSE(TavroPathsEquivalentOrSame("dir/closed/inside", "dir/closed/x"));
    });
    const std::string name(256, 'n');
    EXPECT_TRUE(TavroPathsEquivalentOrSame("./" + name, at(name)));
    EXPECT_FALSE(TavroPathsEquivalentOrSame(name, name + "n"));
}

TEST_F(PathsEquivalentOrSame, without_a_current_directory_relative_paths_are_compared_by_text) {
    runWithoutCurrentDirectory([] {
        EXPECT_TRUE(TavroPathsEquivalentOrSame("x", "./x"));
        EXPECT_FALSE(TavroPathsEquivalentOrSame("x", "y"));
    });
}

TEST_F(PathsEquivalentOrSame, names_that_differ_in_one_byte_differ) {
    const std::vector<std::string> names = namesOfEveryByte();
    for (std::size_t k = 0; k < names.size(); ++k) {
        const std::string& next = names[(k + 1) % names.size()];
        EXPECT_TRUE(TavroPathsEquivalentOrSame("link/" + names[k], "dir/" + names[k]));
        EXPECT_FALSE(TavroPathsEquivalentOrSame("dir/" + names[k], "dir/" + next));
    }
}

// --- TavroPathIsInside ---

TEST_F(PathIsInside, what_lies_below_is_inside_at_any_depth) {
    EXPECT_TRUE(TavroPathIsInside("/a", "/a/b"));
    EXPECT_TRUE(TavroPathIsInside("/a", "/a/b/c/d"));
    EXPECT_TRUE(TavroPathIsInside(at("dir"), at("dir/sub")));
    EXPECT_TRUE(TavroPathIsInside(at("dir"), at("dir/new/x")));
}

TEST_F(PathIsInside, a_path_is_not_inside_itself) {
    EXPECT_FALSE(TavroPathIsInside("/a", "/a"));
    EXPECT_FALSE(TavroPathIsInside(at("dir"), at("dir")));
    EXPECT_FALSE(TavroPathIsInside(at("dir"), at("dir/")));
    EXPECT_FALSE(TavroPathIsInside(at("dir"), at("dir/sub/..")));
    EXPECT_FALSE(TavroPathIsInside(at("dir"), at("link")));
}

TEST_F(PathIsInside, a_common_beginning_of_the_name_is_not_enough) {
    EXPECT_FALSE(TavroPathIsInside("/a", "/ab"));
    EXPECT_FALSE(TavroPathIsInside("/a", "/ab/c"));
    EXPECT_FALSE(TavroPathIsInside("/a", "/a\\b"));
    EXPECT_FALSE(TavroPathIsInside(at("dir"), at("dir2/sub")));
}

TEST_F(PathIsInside, the_other_way_round_is_not_inside) {
    EXPECT_FALSE(TavroPathIsInside("/a/b", "/a"));
    EXPECT_FALSE(TavroPathIsInside("/a/b", "/c/b/d"));
    EXPECT_FALSE(TavroPathIsInside("/b", "/a/b"));
    EXPECT_FALSE(TavroPathIsInside("/b", "/a/b/c"));
}

TEST_F(PathIsInside, nothing_is_inside_the_root_directory) {
    EXPECT_FALSE(TavroPathIsInside("/", "/a"));
    EXPECT_FALSE(TavroPathIsInside("/", "/home"));
    EXPECT_FALSE(TavroPathIsInside("/", "/a/b"));
    EXPECT_FALSE(TavroPathIsInside("//", at("dir")));
    EXPECT_FALSE(TavroPathIsInside("/", "/"));
}

TEST_F(PathIsInside, nothing_is_inside_the_empty_path_which_is_inside_nothing) {
    EXPECT_FALSE(TavroPathIsInside("", "/a"));
    EXPECT_FALSE(TavroPathIsInside("", "a"));
    EXPECT_FALSE(TavroPathIsInside("", ""));
    EXPECT_FALSE(TavroPathIsInside(at("dir"), ""));
}

TEST_F(PathIsInside, relative_paths_are_taken_against_the_current_directory) {
    EXPECT_TRUE(TavroPathIsInside(".", "dir"));
    EXPECT_TRUE(TavroPathIsInside("dir", at("dir/sub")));
    EXPECT_TRUE(TavroPathIsInside("new", "new/x"));
    EXPECT_FALSE(TavroPathIsInside("dir", "dir/.."));
}

TEST_F(PathIsInside, links_are_resolved_on_both_sides) {
    EXPECT_TRUE(TavroPathIsInside(at("link"), at("dir/sub")));
    EXPECT_TRUE(TavroPathIsInside(at("dir"), at("deep")));
    EXPECT_TRUE(TavroPathIsInside(at("link"), at("deep/x")));
    fs::create_symlink("..", m_sandbox / "dir/up");
    EXPECT_FALSE(TavroPathIsInside(at("dir"), at("dir/up")));
    EXPECT_FALSE(TavroPathIsInside(at("dir"), at("dir/up/new")));
}

TEST_F(PathIsInside, a_dangling_link_lies_where_it_stands) {
    fs::create_symlink("/gone", m_sandbox / "dir/dangling");
    EXPECT_TRUE(TavroPathIsInside(at("dir"), at("link/dangling")));
    EXPECT_TRUE(TavroPathIsInside(at("dir/dangling"), at("dir/dangling/x")));
}

TEST_F(PathIsInside, a_separator_at_the_end_of_an_existing_parent_changes_nothing) {
    EXPECT_TRUE(TavroPathIsInside(at("dir/"), at("dir/sub")));
    EXPECT_TRUE(TavroPathIsInside(at("dir/"), at("dir/new")));
}

// A missing directory keeps its separator in the canonical text, and texts are what is compared.
TEST_F(PathIsInside, a_separator_at_the_end_of_a_missing_path_counts_as_text) {
    EXPECT_FALSE(TavroPathIsInside("/gone/", "/gone/x"));
    EXPECT_TRUE(TavroPathIsInside("/gone", "/gone/"));
}

TEST_F(PathIsInside, names_may_hold_every_byte) {
    for (const std::string& name : namesOfEveryByte()) {
        EXPECT_TRUE(TavroPathIsInside("link", "dir/" + name));
        EXPECT_TRUE(TavroPathIsInside("dir/" + name, "link/" + name + "/x"));
        EXPECT_FALSE(TavroPathIsInside("dir/a", "dir/" + name));
    }
}

TEST_F(PathIsInside, what_cannot_be_examined_is_compared_by_text) {
    runBesideClosedFolder([&] {
        EXPECT_TRUE(TavroPathIsInside(at("dir/closed"), at("dir/closed/inside")));
        EXPECT_FALSE(TavroPathIsInside(at("dir/closed"), at("link/closed/inside")));
    });
    EXPECT_TRUE(TavroPathIsInside("dir", "dir/" + std::string(256, 'n')));
    EXPECT_TRUE(TavroPathIsInside("dir", "dir/" + tooLongPath()));
    EXPECT_TRUE(TavroPathIsInside("loop", "loop/x"));
}

TEST_F(PathIsInside, without_a_current_directory_relative_paths_are_compared_by_text) {
    runWithoutCurrentDirectory([] {
        EXPECT_TRUE(TavroPathIsInside("x", "./x/y"));
        EXPECT_FALSE(TavroPathIsInside("x", "xy"));
    });
}

} // namespace
