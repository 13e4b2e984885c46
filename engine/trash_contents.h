/// Looking into the trash, whoever put something there: the home trash unless other ones are given.

#ifndef TAVRO_ENGINE_TRASH_CONTENTS_H
#define TAVRO_ENGINE_TRASH_CONTENTS_H

#include "trash.h"
#include "trash_folders.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

/// One entry in the trash that has a record which can be read.
struct TavroTrashItem {
    std::string Name; ///< Its name in the trash's `files` directory.

    /// Where it was: the record's path, decoded. Absolute: a relative one is taken against the home
    /// directory, or the mount point of the volume.
    std::string OriginalPath;

    /// Local time, 2024-03-05T14:07:09. Empty when the record has no date that can be read.
    std::string DeletionDate;

    std::uint64_t ByteCount = 0; ///< Bytes in it; of a directory as TavroMeasureItems counts them.
    bool bDirectory = false;     ///< A real directory; a link to one is none.

    bool bLink = false;
    TavroIdentity Identity;      ///< An inode of 0: the item was not listed, and is not known.
    std::int64_t ChangeTime = 0; ///< In nanoseconds since 1970, as is the next.
    std::int64_t RecordTime = 0; ///< When its record was written.

    std::shared_ptr<const TavroTrashFolders> Folders; ///< Of its trash.

    std::string TrashPath() const;
    TavroTrashedEntry Trashed() const; ///< For TavroRestoreSelection.
};

/// Which trashes are meant.
using TavroWhichTrashes = std::vector<TavroTrashFolders>;

/// Lists the trash, newest first; of entries of the same second the one whose record was written
/// last is the first, then they go by name. Those without a date are last.
///
/// @param ShouldCancel  asked before each item; a cancelled list is returned as far as it got.
/// @param OutItems      cleared first. A trash that does not exist is empty.
/// @return no failure, NoHome, Read with the others in the list, or Cancelled.
TavroFailure TavroListTrash(const std::function<bool()>& ShouldCancel,
                            std::vector<TavroTrashItem>& OutItems,
                            const TavroWhichTrashes& Trashes = {TavroFindTrashFolders()});

/// How many items are in the trash that are not among these: those that a list passes over, because
/// they have no record that can be read. 0 when the trash cannot be read.
std::uint64_t TavroCountUnlistedItems(const std::vector<TavroTrashItem>& Listed,
                                      const TavroWhichTrashes& Trashes = {TavroFindTrashFolders()});

/// What a word names must be from one of these original paths: else SeveralNamed, with the paths as
/// `Other`.
TavroFailure TavroCheckOnePath(const std::string& Word, const std::set<std::string>& Paths);

/// Finds items by what a person types. Names in the trash are looked up; the trash is listed once,
/// for the first text that is none.
class TavroTrashIndex {
public:
    explicit TavroTrashIndex(TavroWhichTrashes Trashes = {TavroFindTrashFolders()})
        : m_trashes(std::move(Trashes)) {}

    /// Finds the item of that name in the trash; or the newest one whose original path that is
    /// (absolute, or relative to the current directory); or the only one whose original name that
    /// is. Of several of that name from one place, it is the newest.
    ///
    /// @param OutItem  set after success only.
    /// @return no failure; NotInTrash; OriginUnknown, for one without a record that can be read;
    ///         SeveralNamed, when items of that original name, or of that
    ///         name in several trashes, came from different places, with these as `Other`; or as
    ///         TavroListTrash.
    TavroFailure Find(const std::string& Text, TavroTrashItem& OutItem);

    /// An item is no longer in the trash.
    void Drop(const TavroTrashItem& Item);

private:
    TavroFailure List();
    TavroFailure FindByName(const std::string& Name, std::optional<TavroTrashItem>& OutItem);
    const TavroTrashItem* FindByPath(const std::string& Text) const;

    TavroWhichTrashes m_trashes;
    std::vector<TavroOpenTrash> m_open;
    bool m_bListed = false;
    std::vector<TavroTrashItem> m_items; ///< Newest first.
    std::unordered_map<std::string, std::size_t> m_byTrashPath;
    std::unordered_map<std::string, std::set<std::size_t>> m_byPath;
    std::unordered_map<std::string, std::set<std::string>> m_pathsByName; ///< By original names.
};

/// Removes items, and their records, for good. The item goes first and the record after it, so that
/// what an interruption leaves can still be listed.
///
/// `Name` alone says what is removed, and never leads out of the trash: one that is no plain name
/// is refused (NoItemName). A listed item of which another has taken the name since, or that
/// changed itself, stays with its record: ItemChanged. What holds a mount point stays.
///
/// Links are not followed. An item that is gone already counts as removed. Directories in an item
/// that do not let their entries be removed are made writable first.
///
/// @return no failure when all are gone; else the first; the others are removed all the same.
///         Cancelled: the rest stays. What BeforeActs returned: nothing was removed.
TavroFailure TavroRemoveFromTrash(const std::vector<TavroTrashItem>& Items,
                                  const TavroCallbacks& Callbacks);

/// Removes every item that TavroListTrash would list, as TavroRemoveFromTrash does, but looks at
/// none before: what takes the name of an item meanwhile goes in its place.
/// @return as TavroRemoveFromTrash, or as TavroListTrash.
TavroFailure TavroEmptyTrash(const TavroCallbacks& Callbacks,
                             const TavroWhichTrashes& Trashes = {TavroFindTrashFolders()});

/// Goes on with either of these after an interruption, by the steps that BeforeActs was told. What
/// was trashed since stays.
/// @return as TavroRemoveFromTrash, NoHome or Read; NotInTrash when that was another trash.
TavroFailure TavroFinishEmptying(const std::vector<TavroStep>& Steps,
                                 const TavroCallbacks& Callbacks);

/// What is wrong with the trash.
enum class TavroTrashFault {
    ItemWithoutRecord,
    RecordWithoutItem,
    UnreadableRecord, ///< Without a path, or with `..` in it, or not to be opened; its item may
                      ///< exist.
};

struct TavroTrashFinding {
    TavroTrashFault Fault;
    std::string Path; ///< The item without a record, or the record.
};

/// Compares items and records. Changes nothing.
///
/// @param OutFindings  cleared first; of each trash items before records, in the order of their
///                     names.
/// @return no failure, NoHome, or Read.
TavroFailure TavroExamineTrash(std::vector<TavroTrashFinding>& OutFindings,
                               const TavroWhichTrashes& Trashes = {TavroFindTrashFolders()});

/// The sentence of a finding.
std::string TavroDescribe(const TavroTrashFinding& Finding);

/// Mends one finding without losing a byte of an item: an item without a record (or with an
/// unreadable one) gets a record whose original path is NAME in the home directory, or at the mount
/// point of the volume; a record without an item is removed.
///
/// An unreadable record that holds anything is set aside in the `info` directory under a name that
/// no program reads. An item whose name leaves no room for a record's gets a shorter one, while the
/// record has its whole name. A finding that no longer holds changes nothing.
///
/// @return no failure when it is mended; NotInTrash for a finding about something else, or what
///         could not be done.
TavroFailure TavroMendTrash(const TavroTrashFinding& Finding);

#endif
