// The module's operations on a file system in memory. What a test does on disk it does here too;
// then both must look the same.

#ifndef TAVRO_TESTS_MODEL_H
#define TAVRO_TESTS_MODEL_H

#include "in_memory_file_system.h"
#include "tavroops.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tavro_model {

/// The module's operations, with the parameters and results of tavroops.h. An operation that must
/// throw throws the same here.
class Model {
public:
    explicit Model(const std::string& root) : Disk(root) {}

    InMemoryFileSystem Disk;
    std::optional<std::string> Home; ///< The environment variable.
    std::string Date;                ///< What records say of the time.

    static std::string trimText(const std::string& text);
    static bool endsWithPathSeparator(const std::string& text);
    std::string canonicalizePath(const std::string& path) const;
    std::string homeDirectoryPath() const;
    std::filesystem::path resolveUserPath(const std::string& text,
                                          const std::filesystem::path& base) const;
    bool pathsEquivalentOrSame(const std::filesystem::path& a,
                               const std::filesystem::path& b) const;
    bool pathIsInside(const std::filesystem::path& parent,
                      const std::filesystem::path& child) const;
    bool buildTransferPlan(const std::vector<TavroOperationEntry>& entries, const std::string& text,
                           const std::filesystem::path& base, bool bMove,
                           TavroTransferConflictPolicy policy, TavroTransferPlan& outPlan,
                           std::string& error) const;
    bool renameEntry(const TavroOperationEntry& entry, const std::string& text,
                     const std::filesystem::path& base, std::string& outPath, std::string& error);
    bool createDirectory(const std::string& text, const std::filesystem::path& base,
                         std::string& outPath, std::string& error);
    bool deleteEntries(const std::vector<TavroOperationEntry>& entries, bool bUseTrash,
                       std::string& error);
    bool trashEntries(const std::vector<TavroOperationEntry>& entries,
                      std::vector<TavroTrashEntry>& outEntries, std::string& error);
    bool prepareTrashEntries(const std::vector<TavroOperationEntry>& entries,
                             std::vector<TavroTrashEntry>& outEntries, std::string& error);
    bool writeTrashInfoEntries(const std::vector<TavroTrashEntry>& entries, std::string& error);
    void removeTrashInfoEntries(const std::vector<TavroTrashEntry>& entries);
    bool restoreTrashEntries(const std::vector<TavroTrashEntry>& entries, std::string& error);
    bool reapplyTrashEntries(std::vector<TavroTrashEntry>& entries, std::string& error);

    /// @param outEntryCount  how many entries the walk meets.
    std::uintmax_t calculateDirectorySize(const std::string& root, int& outEntryCount) const;

private:
    std::filesystem::path freePath(const std::filesystem::path& wanted) const;
    bool move(const std::string& from, const std::string& to, bool bDirectory, std::string& error);
    bool writeRecord(const TavroTrashEntry& entry, std::string& error);
    bool ensureTrash(std::string& error);
    bool trashEntry(const TavroOperationEntry& entry, TavroTrashEntry& outEntry,
                    std::string& error);
    std::filesystem::path trashFolder(const char* name) const;
    TavroTrashEntry entryAt(const TavroOperationEntry& entry,
                            const std::filesystem::path& place) const;
};

} // namespace tavro_model

#endif
