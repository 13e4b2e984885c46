// The scenarios of the fault programme: every operation in every setting that matters to it.

#ifndef TAVRO_TESTS_SCENARIOS_H
#define TAVRO_TESTS_SCENARIOS_H

#include "failure.h"
#include "tavroops.h"

#include "sandbox.h"
#include "snapshot.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavro_test {

enum class Operation {
    Trash,
    DeleteToTrash,
    Restore,
    Reapply,
    Prepare,
    WriteRecords,
    RemoveRecords,
    DeleteForGood,
    Rename,
    CreateDirectory,
    Plan,
    Size,
};

/// How a call of the operation ended, with all that it gave back.
struct Outcome {
    enum Ending { True, False, FilesystemError, OutOfMemory };
    Ending Ended = False;
    std::string Message;
    std::vector<TavroTrashEntry> List; ///< the list of an operation that fills or replaces one
    std::string Text;                  ///< the selected path, the plan or the size, as text

    // What the engine tells. `Message` says the same for a person; nothing is decided by it.
    std::vector<TavroFailure> Failures;
    std::vector<TavroFailure> RollBack; ///< why something could not be undone
    std::vector<std::string> Left;      ///< original paths of what lies at its destination
    std::vector<std::string> InBoth;    ///< original paths of what is in part in both places
};

/// What `Message` and `List` hold before the call.
extern const std::string untouchedMessage;
extern const std::vector<TavroTrashEntry> untouchedList;

/// One selected entry and the places that concern it.
struct Item {
    std::string Name;
    bool bDirectory = false;
    std::filesystem::path Original;
    /// Where the operation brings it: in the trash, or (for a rename) the new path.
    std::filesystem::path Destination;
    std::filesystem::path Record;
    /// The name that it would have had, had that been free. Empty when it is.
    std::filesystem::path TakenDestination;
    /// The item alone, as a snapshot: where it was, and as it may arrive. They differ for a link
    /// that is flagged as a file.
    Snapshot AtOriginal;
    Snapshot AtDestination;
    /// What it points to, when it is a link.
    std::filesystem::path LinkTarget;

    TavroTrashEntry entry() const {
        return {Original.string(), Destination.string(), Record.string(), bDirectory};
    }
    /// The record of an item of this name in the trash.
    static std::filesystem::path recordOf(const std::filesystem::path& trashed);
};

struct Setting;

/// One operation in one setting, with the disk that belongs to it.
class Scenario {
public:
    Scenario(Operation operation, const Setting& setting);
    ~Scenario();
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    std::string name() const;
    Operation operation() const {
        return m_operation;
    }
    bool crossesDevices() const;
    /// Something in the setting itself, not a fault, makes the clean run fail.
    bool isHindered() const;
    /// Something lies where this record is to be written or this entry is to be restored.
    bool isBlocked(const std::filesystem::path& place) const;
    /// No file can grow as large as some of the items are.
    bool hasSizeLimit() const;

    /// Makes the setting anew, up to the moment before the operation.
    void prepare();

    /// Runs the operation. `mark` is called right before it (with true) and right after it.
    Outcome act(const std::function<void(bool)>& mark = {}) const;

    /// All that is on the disk now, by absolute path; the dates of well-formed records are equal.
    Snapshot snapshot() const;

    const std::vector<Item>& items() const {
        return m_items;
    }
    /// Directories that the operation may create on its way.
    const std::vector<std::filesystem::path>& foldersOnTheWay() const {
        return m_foldersOnTheWay;
    }
    /// The list that Restore, Reapply, WriteRecords and RemoveRecords are given.
    std::vector<TavroTrashEntry> list() const;

    /// The directory that CreateDirectory creates.
    std::string createdDirectory() const;
    /// Where a plan leads.
    std::filesystem::path planTarget() const;
    /// The plan when its target is not seen to be a directory: onto the target itself, or none.
    std::string planWithoutTarget(bool bMade) const;

private:
    void makeItems();
    void makeSurroundings() const;
    void bringToTrash() const;
    std::vector<TavroOperationEntry> selection() const;

    Operation m_operation;
    const Setting& m_world;
    Sandbox m_workBox;
    Sandbox m_homeBox;
    std::filesystem::path m_work;
    std::filesystem::path m_home;
    std::filesystem::path m_files;
    std::filesystem::path m_info;
    ScopedEnvironment m_environment;
    std::vector<Item> m_items;
    std::vector<std::filesystem::path> m_foldersOnTheWay;
};

/// A scenario that can be made when its turn comes.
struct Chosen {
    Operation What;
    const Setting* Where;
    /// Part of the short form.
    bool bShort;

    std::string name() const;
    std::unique_ptr<Scenario> make() const;
    bool crossesDevices() const;
};

/// All scenarios. Those across devices need `secondFileSystem` to be one.
std::vector<Chosen> allScenarios();

/// A date in a record becomes this in snapshots.
extern const std::string someDate;

/// The bytes of the record of an entry, with `someDate`.
std::string recordText(const std::string& originalPath);

/// The row of a well-formed record with `someDate` for its date; any other row as it is.
std::string withoutDate(const std::string& row);

/// The rows of `place` and below it, under their absolute paths.
void addRows(const std::filesystem::path& place, Snapshot& rows);

} // namespace tavro_test

#endif
