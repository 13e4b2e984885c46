/// The record of an entry in the trash: `info/NAME.trashinfo`.

#ifndef TAVRO_ENGINE_TRASH_RECORD_H
#define TAVRO_ENGINE_TRASH_RECORD_H

#include "failure.h"

#include <ctime>
#include <optional>
#include <string>

/// The longest name in the trash that leaves room for its record's.
constexpr std::size_t TavroLongestTrashName = 245;

constexpr const char* TavroRecordSuffix = ".trashinfo";

/// What a record tells.
struct TavroTrashRecord {
    std::string Path; ///< Where the entry was. Absolute.
    std::string Date; ///< Local time, 2024-03-05T14:07:09. Empty when it cannot be read.
};

/// The text of a record: byte for byte what the module writes.
std::string TavroRecordText(const std::string& OriginalPath, std::time_t Time);

/// Creates a record whole, for the user to read and write whatever the umask. One that is there is
/// never replaced.
///
/// @param Info  the open `info` directory.
/// @param Name  the name of the item; `.trashinfo` is added.
/// @return 0; EEXIST when there is a record of that name; else the error number, and no record is
/// left.
int TavroCreateRecord(int Info, const std::string& Name, const std::string& Text);

/// Reads what a record's bytes tell: the first `Path` and `DeletionDate` in the group [Trash Info].
///
/// @param Home  what a relative path is taken against.
/// @return nothing when they tell no path.
std::optional<TavroTrashRecord> TavroParseRecord(const std::string& Bytes, const std::string& Home);

/// Reads a record, of which only the first 64 KiB count. A link is followed; a FIFO is not waited
/// for.
/// @return nothing when it cannot be read or tells no path.
std::optional<TavroTrashRecord> TavroReadRecord(int Info, const std::string& Name,
                                                const std::string& Home);

/// The time that a record's date means, in the local time zone; -1 when it is none.
std::time_t TavroTimeOfDate(const std::string& Date);

#endif
