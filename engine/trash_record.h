/// The record of an entry in the trash: `info/NAME.trashinfo`.

#ifndef TAVRO_ENGINE_TRASH_RECORD_H
#define TAVRO_ENGINE_TRASH_RECORD_H

#include "failure.h"
#include "trash_folders.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <unordered_set>

/// The longest name in the trash that leaves room for its record's.
constexpr std::size_t TavroLongestTrashName = 245;

/// The name of the record of an item; and its path, `ROOT/info/NAME.trashinfo`, for an item at
/// `ROOT/files/NAME`.
std::string TavroRecordName(const std::string& Item);
std::string TavroRecordPath(const std::string& ItemPath);

/// The name of the item that a file is the record of, by its name; nothing when it is no record.
std::optional<std::string> TavroItemOfRecord(const std::string& File);

/// What a record tells.
struct TavroTrashRecord {
    std::string Path;           ///< Where the entry was. Absolute, without `..`.
    std::string Date;           ///< Local time, 2024-03-05T14:07:09. Empty when it cannot be read.
    std::int64_t WrittenAt = 0; ///< In nanoseconds since 1970.
};

/// The path of an entry as a record in a trash tells it: on a volume relative to that.
std::string TavroRecordedPath(const TavroTrashFolders& Trash, const std::string& Path);

/// The text of a record: byte for byte what the module writes.
std::string TavroRecordText(const std::string& OriginalPath, std::time_t Time);

/// Creates a record whole, for the user to read and write whatever the umask. One that is there is
/// never replaced.
///
/// @param IoMode  0 for the first record of an operation; the mode that new records get is looked
///                up then, and kept here for the others.
/// @return CreateRecord, with EEXIST when there is a record of that name, or WriteRecord; no new
///         record is left then.
TavroFailure TavroCreateRecord(const TavroOpenTrash& Trash, const std::string& Item,
                               const std::string& Text, mode_t& IoMode);

/// Brings new records to the disk: a single one by itself, others with their file system.
/// @param Item  the item of one of them.
/// @return 0, or the error number.
int TavroSyncRecords(const TavroOpenTrash& Trash, std::size_t Count, const std::string& Item);

/// Claims names for what goes to the trash. A record that was created whole holds its name, for
/// every program that keeps to the convention. Thousands of entries of one name cost no more than
/// as many of different names.
class TavroTrashClaims {
public:
    /// @param Trash  kept by reference.
    explicit TavroTrashClaims(const TavroOpenTrash& Trash) : m_trash(Trash) {}

    /// Creates the record of an entry under the first free of NAME, `NAME copy 1.EXT` … that leaves
    /// room for the record's name. Whether there is an item of that name shows when the entry is
    /// renamed to it: then Drop, and Claim again, go on to the next name.
    TavroFailure Claim(const std::string& Wanted, const std::string& OriginalPath,
                       std::string& OutItem);

    /// Removes a record that was claimed.
    void Drop(const std::string& Wanted, const std::string& Item);

private:
    void NoteCollision(const std::string& Wanted);

    const TavroOpenTrash& m_trash;
    mode_t m_mode = 0;
    int m_collisions = 0;
    std::unordered_map<std::string, std::uint64_t> m_next; ///< For wanted names that were taken.
    std::unordered_set<std::string> m_taken; ///< Once collisions were many: the names in the trash.
};

/// Reads a record: the first `Path` and `DeletionDate` in the group [Trash Info], of the first 64
/// KiB. A link is followed; a FIFO is not waited for.
///
/// @param Base  what a relative path is taken against.
/// @return nothing when it cannot be read, or tells no path, or one with `..` in it, which could
///         lead anywhere.
std::optional<TavroTrashRecord> TavroReadRecord(int Info, const std::string& Item,
                                                const std::string& Base);

/// As above; nothing either when a record on a volume tells a path that is not on it.
std::optional<TavroTrashRecord> TavroReadRecord(const TavroOpenTrash& Trash,
                                                const std::string& Item);

/// The time that a record's date means, in the local time zone; nothing when it is none.
std::optional<std::time_t> TavroTimeOfDate(const std::string& Date);

#endif
