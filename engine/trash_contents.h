/// Looking into the home trash, whoever put something there.

#ifndef TAVRO_ENGINE_TRASH_CONTENTS_H
#define TAVRO_ENGINE_TRASH_CONTENTS_H

#include "trash.h"

#include <cstdint>
#include <functional>
#include <optional>

/// One entry in the trash that has a record which can be read.
struct TavroTrashItem {
    std::string Name; ///< Its name in the trash's `files` folder.

    /// Where it was: the record's path, decoded. Absolute: a relative one is taken against the home
    /// directory.
    std::string OriginalPath;

    /// Local time, 2024-03-05T14:07:09. Empty when the record has no date that can be read.
    std::string DeletionDate;

    std::uint64_t ByteCount = 0; ///< Bytes in it; of a directory, of all files in it.
    bool bDirectory = false;     ///< A real directory; a link to one is none.

    /// What tells the item from another that takes its name later: its device, inode and the time
    /// of its last change in nanoseconds. An inode of 0: it was not listed, and is not known.
    std::uint64_t Device = 0;
    std::uint64_t Inode = 0;
    std::int64_t ChangeTime = 0;

    std::int64_t RecordTime = 0; ///< When its record was written, in nanoseconds since 1970.
    TavroTrashEntry Entry;       ///< For TavroRestoreSelection. Links are flagged as directories.
};

/// Lists the trash, newest first; of entries of the same second the one whose record was written
/// last is the first, then they go by name. Those without a date are last.
///
/// Only the first 64 KiB of a record are read.
///
/// @param bMeasure      whether `ByteCount` is filled in, which walks every trashed folder.
/// @param ShouldCancel  as for TavroMeasureEntry; a cancelled list is returned as far as it got,
///                      without an item that is measured in part.
/// @param OutItems      cleared first. A trash that does not exist is empty.
/// @return true when the trash could be read; false with a sentence.
bool TavroListTrash(bool bMeasure, const std::function<bool()>& ShouldCancel,
                    std::vector<TavroTrashItem>& OutItems, std::string& ErrorMessage);

/// How many items TavroListTrash passes over, because they have no record that can be read. 0 when
/// the trash cannot be read.
std::uint64_t TavroCountUnlistedItems();

/// Finds what a person means by a text: the item of that name in the trash; or the newest one whose
/// original path that is (absolute, or relative to the current directory); or the only one whose
/// original name that is. Of several of that name from one place, it is the newest.
///
/// @param Items  newest first, as TavroListTrash gives them.
/// @return the item; nothing, with a sentence in `ErrorMessage`, when there is none, or when
///         several items of that original name came from different places (the sentence lists
///         them).
std::optional<TavroTrashItem> TavroFindTrashItem(const std::vector<TavroTrashItem>& Items,
                                                 const std::string& Text,
                                                 std::string& ErrorMessage);

/// Removes items, and their records, for good. The item goes first and the record after it, so that
/// what an interruption leaves can still be listed.
///
/// `Name` alone says what is removed, and never leads out of the trash: one that is no plain name
/// is refused. A listed item of which another has taken the name since, or that changed itself, or
/// whose record tells something else now, stays with its record: "'NAME' changed meanwhile and
/// stays".
///
/// Links are not followed. An item that is gone already counts as removed. Folders in an item that
/// do not let their entries be removed are made writable first.
///
/// @param ShouldCancel  asked before each item. May be empty.
/// @return true when all are gone; false with the sentence of the first that could not be removed;
///         the others are removed all the same. Cancelled: false with "Cancelled".
bool TavroRemoveFromTrash(const std::vector<TavroTrashItem>& Items,
                          const std::function<bool()>& ShouldCancel, std::string& ErrorMessage);

/// The items that were trashed more than so many days ago (of 24 hours, local time). An item
/// without a readable date is never among them.
std::vector<TavroTrashItem> TavroItemsOlderThan(const std::vector<TavroTrashItem>& Items, int Days);

/// What is wrong with the trash.
enum class TavroTrashFault {
    ItemWithoutRecord,
    RecordWithoutItem,
    UnreadableRecord, ///< Empty, without a path, or not to be opened; its item may exist.
};

struct TavroTrashFinding {
    TavroTrashFault Fault;
    std::filesystem::path Path; ///< The item without a record, or the record.
    std::string Detail;         ///< One sentence for people.
};

/// Compares items and records. Changes nothing.
///
/// @param OutFindings  cleared first; in the order of their paths.
/// @return true when the trash could be read; false with a sentence.
bool TavroExamineTrash(std::vector<TavroTrashFinding>& OutFindings, std::string& ErrorMessage);

/// Mends one finding without losing a byte of an item: an item without a record (or with an
/// unreadable one) gets a record whose original path is NAME in the home directory; a record
/// without an item is removed.
///
/// An unreadable record that holds anything is set aside in the `info` folder under a name that no
/// program reads. An item whose name leaves no room for a record's gets a shorter one, while the
/// record has its whole name. A finding that no longer holds changes nothing.
///
/// @return true when it is mended; false with a sentence.
bool TavroMendTrash(const TavroTrashFinding& Finding, std::string& ErrorMessage);

#endif
