// A home of the test's own and the trash in it, as the operations on the trash should leave them.

#ifndef TAVRO_TESTS_HOME_TRASH_H
#define TAVRO_TESTS_HOME_TRASH_H

#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace tavro_test {

namespace fs = std::filesystem;

/// A home that has no trash yet, and a directory of documents.
class HomeTrash : public testing::Test {
protected:
    HomeTrash() : m_oldMask(umask(022)) {
        settle(sandbox.path(), sandbox.path());
    }

    ~HomeTrash() override {
        umask(m_oldMask);
    }

    /// Where the home and the documents are from now on.
    void settle(const fs::path& homeParent, const fs::path& documentsParent) {
        home = homeParent / "home";
        files = home / ".local/share/Trash/files";
        info = home / ".local/share/Trash/info";
        documents = documentsParent / "documents";
        makeDirectory(home);
        makeDirectory(documents);
        m_homeVariable.emplace("HOME", home.string());
    }

    void makeTrash() const {
        makeDirectory(files);
        makeDirectory(info);
    }

    /// A directory that holds one of everything that may lie in a directory.
    static void makeTree(const fs::path& root) {
        makeDirectory(root / "empty");
        makeDirectory(root / "deep/er");
        writeFile(root / "deep/er/program", std::string("\0\n\xFF", 3));
        writeFile(root / "nothing");
        fs::create_symlink("deep/er/program", root / "to-file");
        fs::create_symlink("deep", root / "to-directory");
        fs::create_symlink("/nowhere/at all", root / "dangling");
        fs::permissions(root / "deep/er/program", fs::perms(0751));
        fs::permissions(root / "deep", fs::perms(0710));
        fs::permissions(root / "nothing", fs::perms(0400));
    }

    static TavroOperationEntry file(const fs::path& path) {
        return {path.filename().string(), path.string(), false};
    }
    static TavroOperationEntry directory(const fs::path& path) {
        return {path.filename().string(), path.string(), true};
    }

    /// What the operations tell of an entry that lies in the trash under this name.
    TavroTrashEntry inTrash(const std::string& name, const fs::path& original,
                            bool bDirectory = false) const {
        return {original.string(), (files / name).string(), (info / (name + ".trashinfo")).string(),
                bDirectory};
    }

    /// Lists of records in a form that can be compared and printed.
    static std::vector<std::string> texts(const std::vector<TavroTrashEntry>& entries) {
        std::vector<std::string> result;
        for (const TavroTrashEntry& entry : entries) {
            result.push_back(entry.OriginalPath + " | " + entry.TrashPath + " | " + entry.InfoPath +
                             (entry.bDirectory ? " | directory" : " | file"));
        }
        return result;
    }

    /// All that is below the home and the documents, with DATE for the times of the records.
    Snapshot everything() const {
        Snapshot all;
        for (const fs::path& root : {home, documents}) {
            for (const auto& [name, row] : takeSnapshot(root)) {
                const std::string path = root.filename().string();
                all[name == "." ? path : path + "/" + name] = withoutDate(row);
            }
        }
        return all;
    }

    /// In `tree`: the trash's directories, as they are made on demand.
    static void addTrashFolders(Snapshot& tree) {
        for (const char* name :
             {"", "/share", "/share/Trash", "/share/Trash/files", "/share/Trash/info"}) {
            tree[std::string("home/.local") + name] = "directory 755";
        }
    }

    /// In `tree`: the entry, with what is below it, moved from one name to another.
    static void moveRows(Snapshot& tree, const std::string& from, const std::string& to) {
        const Snapshot old = tree;
        for (const auto& [name, row] : old) {
            if (name == from || name.rfind(from + "/", 0) == 0) {
                tree.erase(name);
                tree[to + name.substr(from.size())] = row;
            }
        }
    }

    /// In `tree`: the document moved to the trash under this name, and its record.
    void addTrashed(Snapshot& tree, const std::string& document, const std::string& name) const {
        moveRows(tree, "documents/" + document, "home/.local/share/Trash/files/" + name);
        tree["home/.local/share/Trash/info/" + name + ".trashinfo"] =
            recordOf(documents / document);
    }

    /// The row of a record.
    static std::string recordOf(const fs::path& original) {
        return "file 644 [Trash Info]\nPath=" + encoded(original.string()) +
               "\nDeletionDate=DATE\n";
    }

    static std::string encoded(const std::string& path) {
        static const std::string kept =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-./_~";
        std::string result;
        for (const char byte : path) {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned char>(byte));
            result += kept.find(byte) == std::string::npos ? escaped : std::string(1, byte);
        }
        return result;
    }

    /// The sentence of a move, with the system's text for the error.
    static std::string failed(const std::string& what, const fs::path& path, std::errc error) {
        return "Failed to " + what + " '" + path.string() + "': " + systemText(error);
    }

    std::string noRecord(const std::string& trashName) const {
        return "Failed to create trash metadata '" + (info / (trashName + ".trashinfo")).string() +
               "'.";
    }

    Sandbox sandbox;
    fs::path home;
    fs::path files;
    fs::path info;
    fs::path documents;
    std::vector<TavroTrashEntry> trashed;
    std::string error = "untouched";

private:
    /// A row of a record that ends in a time of the right shape, with DATE in its place.
    static std::string withoutDate(const std::string& row) {
        const std::string key = "\nDeletionDate=";
        const std::string shape = "0000-00-00T00:00:00\n";
        const std::size_t end = row.find(key);
        if (row.find("[Trash Info]\nPath=") == std::string::npos || end == std::string::npos) {
            return row;
        }
        std::string time = row.substr(end + key.size());
        for (char& byte : time) {
            byte = byte >= '0' && byte <= '9' ? '0' : byte;
        }
        return time == shape ? row.substr(0, end) + key + "DATE\n" : row;
    }

    mode_t m_oldMask;
    std::optional<ScopedEnvironment> m_homeVariable;
};

/// The documents lie on another file system than the trash, one way round and the other.
class AcrossDevices : public HomeTrash, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        if (!fs::is_directory(secondFileSystem) ||
            !onDifferentDevices(sandbox.path(), secondFileSystem)) {
            GTEST_SKIP() << "there is no second file system at " << secondFileSystem;
        }
        m_other.emplace(secondFileSystem);
        if (GetParam()) {
            settle(m_other->path(), sandbox.path());
        } else {
            settle(sandbox.path(), m_other->path());
        }
    }

private:
    std::optional<Sandbox> m_other;
};

/// How the two ways round are called in the names of the tests.
inline std::string sideOfTheHome(const testing::TestParamInfo<bool>& way) {
    return way.param ? "home_on_the_second_file_system" : "documents_on_the_second_file_system";
}

} // namespace tavro_test

#endif
