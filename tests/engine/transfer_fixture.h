// Transfers in directories of a test's own, and what can be seen of them.

#ifndef TAVRO_TESTS_TRANSFER_FIXTURE_H
#define TAVRO_TESTS_TRANSFER_FIXTURE_H

#include "transfer.h"

#include "fault_injector.h"
#include "names.h"
#include "sandbox.h"
#include "snapshot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavro_transfer_test {

namespace fs = std::filesystem;
using namespace tavro_test;

inline constexpr std::size_t mebibyte = std::size_t{1} << 20U;

/// Bytes that differ from place to place, so that a block in the wrong place shows.
inline std::string bytesOf(std::size_t size, unsigned seed = 1) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; i += 64) {
        const std::string word = std::to_string(random());
        bytes.replace(i, std::min(word.size(), size - i), word, 0, std::min(word.size(), size - i));
    }
    return bytes;
}

inline struct stat statusOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
    return status;
}

inline void setTimes(const fs::path& path, long seconds, long nanoseconds) {
    const struct timespec times[2] = {{seconds + 7, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
}

inline std::string timesOf(const struct stat& status) {
    return std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

inline std::string hexOf(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += {"0123456789abcdef"[value >> 4U], "0123456789abcdef"[value & 15U]};
    }
    return text;
}

/// The extended attributes of an entry, access control lists among them.
inline std::string extendedAttributesOf(const fs::path& path) {
    std::vector<char> names(65536);
    const ssize_t size = llistxattr(path.c_str(), names.data(), names.size());
    std::set<std::string> rows;
    for (ssize_t i = 0; i < size;) {
        const std::string name = names.data() + i;
        std::string value(65536, '\0');
        const ssize_t length = lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
        value.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        rows.insert(" " + name + "=" + hexOf(value));
        i += static_cast<ssize_t>(name.size()) + 1;
    }
    std::string text;
    for (const std::string& row : rows) {
        text += row;
    }
    return text;
}

/// Mode, owner, times and extended attributes of every entry of a tree, and which of its names are
/// the same file.
inline std::map<std::string, std::string> attributesOfTree(const fs::path& root) {
    std::map<std::string, std::string> rows;
    std::map<ino_t, std::string> firstNames;
    for (const auto& [name, what] : takeSnapshot(root)) {
        const fs::path path = name == "." ? root : root / name;
        const struct stat status = statusOf(path);
        const std::string first =
            S_ISDIR(status.st_mode) ? name : firstNames.emplace(status.st_ino, name).first->second;
        rows[name] = what + " owner " + std::to_string(status.st_uid) + ":" +
                     std::to_string(status.st_gid) + " time " + timesOf(status) + " file " + first +
                     extendedAttributesOf(path);
    }
    return rows;
}

inline bool setAttribute(const fs::path& path, const std::string& name, const std::string& value) {
    return lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) == 0;
}

/// An access control list that lets in one more user, in the kernel's own form.
inline std::string listLettingIn(std::uint32_t user) {
    struct Row {
        std::uint16_t tag;
        std::uint16_t permissions;
        std::uint32_t id;
    };
    constexpr auto nobody = static_cast<std::uint32_t>(-1);
    const Row rows[] = {{0x01, 6, nobody},
                        {0x02, 6, user},
                        {0x04, 4, nobody},
                        {0x10, 6, nobody},
                        {0x20, 4, nobody}};
    std::string bytes("\2\0\0\0", 4);
    return bytes.append(reinterpret_cast<const char*>(rows), sizeof rows);
}

/// Directories in one another, more than a path can name, each with a file of its level's number.
inline void makeDeepTree(const fs::path& tree, int levels, bool bFiles = true) {
    makeDirectory(tree);
    int directory = open(tree.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < levels; ++i) {
        if (bFiles) {
            const std::string bytes = std::to_string(i);
            const int file = openat(directory, "f", O_WRONLY | O_CREAT, 0644);
            ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(file, bytes.data(), bytes.size()));
            close(file);
        }
        ASSERT_EQ(0, mkdirat(directory, "d", 0755));
        const int next = openat(directory, "d", O_RDONLY | O_DIRECTORY);
        close(directory);
        directory = next;
    }
    close(directory);
}

/// How many levels of such a tree hold what they should.
inline int depthOf(const fs::path& tree) {
    int directory = open(tree.c_str(), O_RDONLY | O_DIRECTORY);
    int level = 0;
    for (;; ++level) {
        char bytes[16] = {};
        const int file = openat(directory, "f", O_RDONLY);
        const bool bRead = file >= 0 && read(file, bytes, sizeof bytes - 1) >= 0;
        const int next = openat(directory, "d", O_RDONLY | O_DIRECTORY);
        for (const int number : {file, directory}) {
            if (number >= 0) {
                close(number);
            }
        }
        directory = next;
        if (!bRead || std::to_string(level) != bytes) {
            break;
        }
    }
    if (directory >= 0) {
        close(directory);
    }
    return level;
}

inline void removeDeepTree(const fs::path& tree) {
    ASSERT_EQ(0, std::system(("rm -rf '" + tree.string() + "'").c_str()));
}

/// Calls `action` before each call of a name whose path is the given one.
inline CallObserver beforeCall(const std::string& name, const fs::path& path,
                               const std::function<void()>& action) {
    return CallObserver([=](const std::string& call, const std::string& first) {
        if (call == name && first == path) {
            action();
        }
    });
}

/// Calls `action` before each call that would give an entry this path.
inline CallObserver beforeNaming(const fs::path& path, const std::function<void()>& action) {
    return CallObserver([=](const std::string& call, const std::string&) {
        if ((call == "renameat2" || call == "linkat") && otherPathOfCall() == path) {
            action();
        }
    });
}

/// All calls that would give an entry a path that contains `to` fail.
inline std::vector<Fault> failNaming(int error, const std::string& to, int when = 1) {
    return {{"renameat2", error, "", when, true, false, to},
            {"linkat", error, "", when, true, false, to}};
}

/// To run in a child: as much as an ordinary process may be short of.
inline void limitFilesAndStack(rlim_t files) {
    const struct rlimit few = {files, files};
    const struct rlimit small = {256 * 1024, 256 * 1024};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    ASSERT_EQ(0, setrlimit(RLIMIT_STACK, &small));
}

inline void bindSocket(const fs::path& path) {
    const ScopedCurrentDirectory directory(path.parent_path()); // the address is short
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.filename().c_str());
    const int number = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(0, bind(number, reinterpret_cast<struct sockaddr*>(&address), sizeof address));
    close(number);
}

inline std::string withoutPrefix(std::string text, const std::string& prefix) {
    for (std::size_t at = text.find(prefix); at != std::string::npos; at = text.find(prefix)) {
        text.erase(at, prefix.size());
    }
    return text;
}

/// The hidden names of twelve characters, which differ from run to run, as one.
inline std::string withoutHiddenName(std::string text) {
    for (std::size_t at = text.find(".tavro-"); at != std::string::npos;
         at = text.find(".tavro-", at + 1)) {
        text.replace(at, 19, ".tavro-XXXXXX");
    }
    return text;
}

// =================================================================================================
// Transfers in a sandbox
// =================================================================================================

class TransferTest : public testing::Test {
protected:
    /// @param where  the directory for the source, and for the target unless it is elsewhere.
    explicit TransferTest(const fs::path& where = fs::temp_directory_path()) : m_box(where) {
        makeDirectory(source());
        makeDirectory(target());
        fs::permissions(m_home.path(), fs::perms::all); // also for who is not root
    }

    /// Where what was replaced lies now; of several of one name the first.
    fs::path trashed(const std::string& name) const {
        return m_home / ".local/share/Trash/files" / name;
    }

    fs::path source(const std::string& name = "") const {
        return name.empty() ? m_box / "source" : m_box / "source" / name;
    }
    fs::path target(const std::string& name = "") const {
        return name.empty() ? m_target : m_target / name;
    }

    /// From now on the target is on another file system.
    bool targetElsewhere() {
        if (!fs::is_directory(secondFileSystem) ||
            !onDifferentDevices(secondFileSystem, m_box.path())) {
            return false;
        }
        m_other.emplace(secondFileSystem);
        m_target = *m_other / "target";
        makeDirectory(m_target);
        return true;
    }

    /// For tests with many entries: a file system in memory, where there is one.
    static fs::path inMemory() {
        return fs::is_directory(secondFileSystem) ? fs::path(secondFileSystem)
                                                  : fs::temp_directory_path();
    }

    void add(const std::string& from, const std::string& to) {
        TavroTransferItemPlan item;
        item.Name = fs::path(from).filename().string();
        item.SourcePath = source(from);
        item.DestinationPath = target(to);
        m_plan.Items.push_back(item);
    }

    /// Carries out what was added; each name goes to the same name of the target.
    bool run(bool bMove, const std::vector<std::string>& names = {}) {
        for (const std::string& name : names) {
            add(name, name);
        }
        m_plan.bMove = bMove;
        const bool bDone = TavroCarryOutTransfer(m_plan, m_callbacks, m_report);
        EXPECT_EQ(m_report.Failed.empty() && !m_report.bCancelled, bDone);
        m_plan.Items.clear();
        return bDone;
    }
    bool copy(const std::vector<std::string>& names = {}) {
        return run(false, names);
    }
    bool move(const std::vector<std::string>& names = {}) {
        return run(true, names);
    }

    /// The whole report as text, with paths below the sandboxes only.
    std::string report() const {
        std::string text;
        for (const TavroTransferredEntry& entry : m_report.Done) {
            text +=
                "done " + entry.From + " -> " + entry.To + (entry.bReplaced ? " replaced\n" : "\n");
        }
        for (const std::string& path : m_report.Skipped) {
            text += "skipped " + path + "\n";
        }
        for (const TavroFailure& failure : m_report.Failed) {
            text += "failed: " + TavroDescribe(failure) + "\n";
        }
        text += m_report.bCancelled ? "cancelled\n" : "";
        return shortened(text);
    }
    std::string shortened(std::string text) const {
        text = withoutPrefix(text, m_box.path().string());
        return withoutHiddenName(m_other ? withoutPrefix(text, m_other->path().string()) : text);
    }

    /// What a transfer has left behind under a hidden name.
    std::string debris() const {
        std::string text;
        for (const fs::path& root : {m_box.path(), m_target}) {
            constexpr auto skip = fs::directory_options::skip_permission_denied;
            for (const auto& entry : fs::recursive_directory_iterator(root, skip)) {
                const std::string name = entry.path().filename().string();
                text += TavroIsStagingName(name) ? entry.path().string() + "\n" : "";
            }
        }
        return text;
    }

    void answer(TavroConflictChoice choice, bool bForAll = false) {
        m_callbacks.OnConflict = [=](const TavroTransferConflict& conflict) {
            m_asked += shortened(conflict.SourcePath + " -> " + conflict.DestinationPath) +
                       (conflict.Source.IsDirectory() ? " directory" : "") +
                       (conflict.Destination.IsDirectory() ? " onto directory\n" : "\n");
            return TavroConflictAnswer{choice, bForAll};
        };
    }

    /// Calls `action` once, after the first bytes of a file that is larger than one block were
    /// copied; true cancels.
    void inTheMiddle(const std::function<bool()>& action) {
        m_bCopying = false;
        m_bMiddleSeen = false;
        m_copying.reset();
        m_copying = std::make_unique<CallObserver>([this](const std::string& call, const auto&) {
            m_bCopying = m_bCopying || call == "copy_file_range" || call == "pwrite";
        });
        m_callbacks.ShouldCancel = [this, action] {
            if (m_bMiddleSeen || !m_bCopying) {
                return false;
            }
            m_bMiddleSeen = true;
            return action();
        };
    }

    Sandbox m_home;
    ScopedEnvironment m_homeVariable{"HOME", m_home.path().string()};
    Sandbox m_box;
    std::optional<Sandbox> m_other;
    fs::path m_target = m_box / "target";
    TavroTransferPlan m_plan;
    TavroTransferCallbacks m_callbacks;
    TavroTransferReport m_report;
    std::string m_asked;
    std::unique_ptr<CallObserver> m_copying;
    bool m_bCopying = false;
    bool m_bMiddleSeen = false;
};

using CarryOutTransfer = TransferTest;

#define TARGET_ELSEWHERE()                                                                         \
    if (!targetElsewhere())                                                                        \
    GTEST_SKIP() << "there is no second file system at " << secondFileSystem

inline void makeSmallTree(const fs::path& tree) {
    writeFile(tree / "a", "first");
    writeFile(tree / "sub/b", "second");
    writeFile(tree / "sub/deeper/c");
    makeDirectory(tree / "empty");
    fs::create_symlink("sub/b", tree / "link");
    fs::create_symlink("nowhere", tree / "dangling");
    fs::create_symlink("sub", tree / "to directory");
    fs::create_symlink("/proc/self", tree / "absolute");
    makeFifo(tree / "pipe");
}

} // namespace tavro_transfer_test

#endif
