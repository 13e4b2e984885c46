// Renaming, and what a plain rename would replace.

#include "examples.h"
#include "sandbox.h"

#include <gtest/gtest.h>

using namespace tavro_test;

//! [no-replace]
#include <cerrno>
#include <fcntl.h> // AT_FDCWD
#include <stdio.h> // renameat2

/// Renames unless something is at `To`: `ec` is file_exists then. The kernel checks and renames in
/// one step; a file system that cannot says invalid_argument.
void RenameNoReplace(const fs::path& From, const fs::path& To, std::error_code& ec) {
    ec.clear();
    if (renameat2(AT_FDCWD, From.c_str(), AT_FDCWD, To.c_str(), RENAME_NOREPLACE) != 0) {
        ec.assign(errno, std::generic_category());
    }
}
//! [no-replace]

namespace {

//! [rename]
/// TavroRenameEntry, with no dangling link replaced and nothing thrown but std::bad_alloc.
bool RenameSafely(const TavroOperationEntry& Entry, const std::string& Typed,
                  const fs::path& PaneDirectory, std::string& OutSelectedPath,
                  std::string& ErrorMessage) {
    try {
        if (fs::is_symlink(TavroResolveUserPath(TavroTrimText(Typed), PaneDirectory))) {
            OutSelectedPath.clear();
            ErrorMessage = "Rename target already exists.";
            return false;
        }
        return TavroRenameEntry(Entry, Typed, PaneDirectory, OutSelectedPath, ErrorMessage);
    } catch (const fs::filesystem_error& error) {
        OutSelectedPath.clear();
        ErrorMessage = "Rename failed: " + error.code().message();
        return false;
    }
}
//! [rename]

} // namespace

TEST(RenameNoReplace, keeps_what_is_there) {
    const Sandbox sandbox;
    writeFile(sandbox / "from", "new");
    writeFile(sandbox / "to", "old");
    std::error_code ec;
    RenameNoReplace(sandbox / "from", sandbox / "to", ec);
    EXPECT_EQ(ec, std::errc::file_exists);
    EXPECT_EQ(readFile(sandbox / "from") + readFile(sandbox / "to"), "newold");
    RenameNoReplace(sandbox / "from", sandbox / "free", ec);
    EXPECT_FALSE(ec) << ec.message();
    EXPECT_EQ(readFile(sandbox / "free"), "new");
}

TEST(RenameSafely, renames) {
    const Sandbox sandbox;
    writeFile(sandbox / "old", "bytes");
    std::string selected, error;
    EXPECT_TRUE(RenameSafely({"old", (sandbox / "old").string(), false}, " new ", sandbox.path(),
                             selected, error))
        << error;
    EXPECT_EQ(selected, (sandbox / "new").string());
    EXPECT_EQ(readFile(sandbox / "new"), "bytes");
}

// What the module does without the guard, and what the guard says.
TEST(RenameSafely, replaces_no_dangling_link) {
    const Sandbox sandbox;
    writeFile(sandbox / "file");
    fs::create_symlink("nowhere", sandbox / "link");
    const TavroOperationEntry file = {"file", (sandbox / "file").string(), false};
    std::string selected, error;
    EXPECT_FALSE(RenameSafely(file, "link", sandbox.path(), selected, error));
    EXPECT_EQ(error, "Rename target already exists.");
    EXPECT_TRUE(fs::is_symlink(sandbox / "link"));
    EXPECT_TRUE(TavroRenameEntry(file, "link", sandbox.path(), selected, error)) << error;
    EXPECT_FALSE(fs::is_symlink(sandbox / "link"));
}

TEST(RenameSafely, turns_what_is_thrown_into_a_sentence) {
    const Sandbox sandbox;
    writeFile(sandbox / "file");
    const TavroOperationEntry file = {"file", (sandbox / "file").string(), false};
    const std::string tooLong(300, 'n');
    std::string selected = "before", error;
    EXPECT_FALSE(RenameSafely(file, tooLong, sandbox.path(), selected, error));
    EXPECT_EQ(error, "Rename failed: " + systemText(std::errc::filename_too_long));
    EXPECT_EQ(selected, "");
    EXPECT_THROW(TavroRenameEntry(file, tooLong, sandbox.path(), selected, error),
                 fs::filesystem_error);
    EXPECT_TRUE(isPresent(sandbox / "file"));
}
