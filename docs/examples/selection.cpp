// From what is on the disk to the record of a selection, and what a typed text means.

#include "examples.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

using namespace tavro_test;

//! [cdda]
#include "tavropane.h"

bool TavroIsCddaPath(const std::string&) {
    return false; // this application knows no audio CDs
}
//! [cdda]

//! [select]
/// The record of what is at `Path`; nothing for a path that no operation should be given.
std::optional<TavroOperationEntry> SelectEntry(std::string Path) {
    while (!Path.empty() && Path.back() == '/') {
        Path.pop_back(); // "link/" is not the link, and "photos/" has no last component
    }
    const std::string name = fs::path(Path).filename().string();
    if (name.empty() || name == "." || name == "..") {
        return std::nullopt;
    }
    std::error_code ec;
    const fs::file_status status = fs::symlink_status(Path, ec);
    if (!fs::exists(status)) {
        return std::nullopt;
    }
    // A link is flagged as a directory, whatever it points to: so it stays a link.
    return TavroOperationEntry{name, Path, fs::is_directory(status) || fs::is_symlink(status)};
}
//! [select]

namespace {

std::string pathOf(const std::optional<TavroOperationEntry>& Entry) {
    return Entry ? Entry->Path : "nothing";
}

//! [resolve]
/// What `TavroCreateDirectory`, `TavroRenameEntry` and `TavroBuildTransferPlan` do to a typed text.
fs::path MeantBy(const std::string& Typed, const fs::path& PaneDirectory) {
    return TavroResolveUserPath(TavroTrimText(Typed), PaneDirectory);
}
//! [resolve]

//! [plan]
/// Shows what a copy would do, and does nothing.
bool ShowPlan(const std::vector<TavroOperationEntry>& Selection, const std::string& Typed,
              const fs::path& PaneDirectory, std::ostream& Out) {
    TavroTransferPlan plan;
    std::string error;
    if (!TavroBuildTransferPlan(Selection, Typed, PaneDirectory, false,
                                TavroTransferConflictPolicy::Ask, plan, error)) {
        Out << error << '\n';
        return false;
    }
    for (const TavroTransferItemPlan& item : plan.Items) {
        Out << item.SourcePath.string() << " -> " << item.DestinationPath.string() << '\n';
    }
    return true;
}
//! [plan]

} // namespace

TEST(Selection, a_link_is_selected_without_its_trailing_separators_and_as_a_directory) {
    const Sandbox sandbox;
    writeFile(sandbox / "folder/file");
    fs::create_directory_symlink("folder", sandbox / "link");
    const std::optional<TavroOperationEntry> entry =
        SelectEntry((sandbox / "link").string() + "//");
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->Name, "link");
    EXPECT_EQ(entry->Path, (sandbox / "link").string());
    EXPECT_TRUE(entry->bDirectory);
}

TEST(Selection, what_is_no_entry_is_not_selected) {
    const Sandbox sandbox;
    for (const std::string& path : {std::string(), std::string("/"), (sandbox / ".").string(),
                                    (sandbox / "..").string(), (sandbox / "missing").string()}) {
        EXPECT_EQ(pathOf(SelectEntry(path)), "nothing") << path;
    }
}

TEST(Selection, a_directory_is_flagged_and_a_file_is_not) {
    const Sandbox sandbox;
    writeFile(sandbox / "folder/file");
    EXPECT_TRUE(SelectEntry((sandbox / "folder/").string()).value().bDirectory);
    EXPECT_FALSE(SelectEntry((sandbox / "folder/file").string()).value().bDirectory);
}

// The sharp edge that SelectEntry guards against, shown in a sandbox.
TEST(Selection, a_link_with_a_separator_loses_what_is_in_its_target_when_deleted_for_good) {
    const Sandbox sandbox;
    writeFile(sandbox / "folder/file");
    fs::create_directory_symlink("folder", sandbox / "link");
    std::string error;
    EXPECT_FALSE(
        TavroDeleteEntries({{"link", (sandbox / "link").string() + "/", true}}, false, error));
    EXPECT_EQ(error, "Delete failed for 'link': " + systemText(std::errc::not_a_directory));
    EXPECT_TRUE(isPresent(sandbox / "link"));
    EXPECT_FALSE(isPresent(sandbox / "folder/file"));
}

TEST(Selection, a_directory_with_a_separator_loses_its_name_in_the_trash) {
    const Sandbox sandbox;
    const ScopedEnvironment home("HOME", (sandbox / "home").string());
    writeFile(sandbox / "folder/file");
    std::vector<TavroTrashEntry> trashed;
    std::string error;
    EXPECT_TRUE(
        TavroTrashEntries({{"folder", (sandbox / "folder/").string(), true}}, trashed, error))
        << error;
    EXPECT_EQ(fs::path(trashed.at(0).TrashPath).filename(), " copy 1");
}

TEST(Selection, a_link_to_a_directory_cannot_be_planned_into_it) {
    const Sandbox sandbox;
    makeDirectory(sandbox / "folder");
    fs::create_directory_symlink("folder", sandbox / "link");
    TavroTransferPlan plan;
    std::string error;
    EXPECT_FALSE(TavroBuildTransferPlan({SelectEntry((sandbox / "link").string()).value()},
                                        "folder/", sandbox.path(), false,
                                        TavroTransferConflictPolicy::Ask, plan, error));
    EXPECT_EQ(error, "Cannot copy a directory into itself: link");
}

TEST(Request, typed_text_is_trimmed_and_resolved) {
    const Sandbox sandbox;
    makeDirectory(sandbox / "home");
    makeDirectory(sandbox / "pane/folder");
    const ScopedEnvironment home("HOME", (sandbox / "home").string());
    const fs::path pane = sandbox / "pane";
    EXPECT_EQ(MeantBy(" ~/Backup ", pane), sandbox / "home/Backup");
    EXPECT_EQ(MeantBy("~user", pane), pane / "~user");
    EXPECT_EQ(MeantBy("folder/../new/./name", pane), pane / "new/name");
    EXPECT_EQ(MeantBy((sandbox / "home").string(), pane), sandbox / "home");
    EXPECT_EQ(MeantBy(" \t ", pane), fs::path());
}

TEST(Request, a_selection_and_a_typed_target_become_a_plan) {
    const Sandbox sandbox;
    makeDirectory(sandbox / "home");
    writeFile(sandbox / "pane/a.txt");
    writeFile(sandbox / "pane/b.txt");
    const ScopedEnvironment home("HOME", (sandbox / "home").string());
    const std::vector<TavroOperationEntry> selection = {
        SelectEntry((sandbox / "pane/a.txt").string()).value(),
        SelectEntry((sandbox / "pane/b.txt").string()).value()};
    std::ostringstream shown;
    EXPECT_TRUE(ShowPlan(selection, " ~/Backup/ ", sandbox / "pane", shown));
    const std::string from = (sandbox / "pane").string();
    const std::string to = (sandbox / "home/Backup").string();
    EXPECT_EQ(shown.str(),
              from + "/a.txt -> " + to + "/a.txt\n" + from + "/b.txt -> " + to + "/b.txt\n");
    EXPECT_FALSE(isPresent(sandbox / "home/Backup"));
}

TEST(Request, a_refused_plan_is_told_in_one_sentence) {
    const Sandbox sandbox;
    writeFile(sandbox / "a.txt");
    std::ostringstream shown;
    EXPECT_FALSE(
        ShowPlan({{"a.txt", (sandbox / "a.txt").string(), false}}, "a.txt", sandbox.path(), shown));
    EXPECT_EQ(shown.str(), "Copy target matches the source path for 'a.txt'.\n");
}

TEST(Request, one_entry_goes_into_a_directory_or_becomes_the_target) {
    const Sandbox sandbox;
    writeFile(sandbox / "name/name");
    writeFile(sandbox / "file");
    makeDirectory(sandbox / "folder");
    const auto destination = [&](const char* Source, const char* Typed) {
        TavroTransferPlan plan;
        std::string error;
        const std::vector<TavroOperationEntry> selection = {
            SelectEntry((sandbox / Source).string()).value()};
        EXPECT_TRUE(TavroBuildTransferPlan(selection, Typed, sandbox.path(), false,
                                           TavroTransferConflictPolicy::Ask, plan, error))
            << error;
        return plan.Items.at(0).DestinationPath.lexically_relative(sandbox.path()).string();
    };
    EXPECT_EQ(destination("file", "folder"), "folder/file");
    EXPECT_EQ(destination("file", "new"), "new");
    EXPECT_EQ(destination("file", "new/"), "new/file");
    EXPECT_EQ(destination("name/name", "folder/.."), "name");
    EXPECT_EQ(destination("name/name", "name"), "name");
}
