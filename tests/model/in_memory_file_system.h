// A file system in memory, small enough to be believed at sight.

#ifndef TAVRO_TESTS_IN_MEMORY_FILE_SYSTEM_H
#define TAVRO_TESTS_IN_MEMORY_FILE_SYSTEM_H

#include "snapshot.h"

#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <vector>

namespace tavro_model {

enum class Kind { File, Directory, Link };

/// `Text` is the bytes of a file, or what a link says.
struct Entry {
    Kind EntryKind;
    std::string Text;
};

/// Calls that a test makes fail.
enum class Call { None, Rename, MakeDirectory, Remove, OpenRecord, WriteRecord };

/// The `When`th call of this kind fails, counted from 1; `bFromThenOn`: those after it too. A
/// record that cannot be written is cut short to nothing without a word; the others fail with
/// "Permission denied".
struct Failure {
    Call FailingCall = Call::None;
    int When = 1;
    bool bFromThenOn = false;
};

/// Files, directories and symbolic links, with the rules that POSIX has for them. A file has one
/// name; there are no hard links. There is one user, who may do everything. Results are error
/// numbers; 0 stands for success.
class InMemoryFileSystem {
public:
    std::string CurrentDirectory; ///< At first the root.

    /// Nothing but the directory `root` and those that it lies in.
    explicit InMemoryFileSystem(const std::string& root);

    // Looking.

    struct Place {
        std::string Path; ///< Without links, `.` and `..`. Empty when there can be nothing.
        std::errc Error;  ///< 0 when something is there.
    };

    /// Where the entry at `path` is; when only the last component is missing, where it would be.
    Place locate(const std::string& path, bool bFollowLastLink) const;

    /// Links followed: something is there; it is a directory; it is a file.
    bool isThere(const std::string& path) const;
    bool isDirectory(const std::string& path) const;
    bool isFile(const std::string& path) const;

    /// Why it cannot be told whether something is at `path` (links in a circle, a name too long).
    std::errc examine(const std::string& path) const;

    /// The part that exists without links, the rest as text.
    std::filesystem::path weaklyCanonical(const std::filesystem::path& path,
                                          std::errc& error) const;

    /// The entry at a path that `locate` gave.
    const Entry& at(const std::string& place) const;

    /// The paths of what is directly in a directory.
    std::vector<std::string> listing(const std::string& directory) const;

    /// What takeSnapshot would see.
    tavro_test::Snapshot snapshot() const;

    // Changing.

    std::errc makeDirectory(const std::string& path);
    std::errc makeDirectories(const std::string& path);
    std::errc makeLink(const std::string& path, const std::string& target);
    std::errc writeFile(const std::string& path, const std::string& bytes);
    std::errc rename(const std::string& from, const std::string& to);
    std::errc remove(const std::string& path);    ///< An entry that is missing is no error.
    std::errc removeAll(const std::string& path); ///< Likewise.
    std::errc copyFile(const std::string& from, const std::string& to);
    std::errc copyTree(const std::string& from, const std::string& to);

    // Failing.

    /// From now on calls are counted anew and fail as told. With `bOtherDevice` no rename ever
    /// reaches its target, as if it were on another file system.
    void fail(const Failure& failure, bool bOtherDevice);

    /// The next call of this kind is one that is to fail.
    bool fails(Call call);

    /// How many calls have failed since `fail`.
    int failed() const {
        return m_failed;
    }

    /// A name outside of `root` was looked up since the last call of this. What is there is not
    /// known here.
    bool leftRoot() const;

    /// A copy failed in a directory of several entries: which of the others were copied before
    /// depends on the order in which a disk lists them, so what is here now may not be what is
    /// there.
    bool isUncertain() const {
        return m_bUncertain;
    }

private:
    const Entry* find(const std::string& place) const;
    Place locateItself(const std::string& path) const;
    void noteOutside(const std::string& place) const;

    std::string m_root;
    std::map<std::string, Entry> m_entries; // by paths without links
    Failure m_failure;
    bool m_bOtherDevice = false;
    int m_seen = 0;
    int m_failed = 0;
    bool m_bUncertain = false;
    mutable bool m_bLeftRoot = false;
};

} // namespace tavro_model

#endif
