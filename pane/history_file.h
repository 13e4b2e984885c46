/// The file behind the undo history: its lock, its text, and how it is read and replaced.

#ifndef TAVRO_PANE_HISTORY_FILE_H
#define TAVRO_PANE_HISTORY_FILE_H

#include "history.h"

/// Whether an operation can stand in the file: it names what it did, and by absolute paths.
bool TavroIsRecordable(const TavroHistoryOperation& Operation);

/// Waits for the lock that goes with a history file (the file of that name followed by ".lock",
/// which stays) and takes it. Missing folders are created, for the user alone.
///
/// @param OutLock  after success: a descriptor that holds the lock until it is closed.
/// @param Patience  so long no signal ends the wait; after that, the next one does.
/// @return true when it is held; false with a sentence, also when a signal ended the wait.
bool TavroLockHistory(const std::filesystem::path& File, std::chrono::seconds Patience,
                      int& OutLock, std::string& ErrorMessage);

/// Reads a history. A missing file is an empty history. A file that is not exactly of the form that
/// TavroWriteHistory gives it (members that it does not know are passed over) is renamed out of the
/// way and counts as missing then.
///
/// @param OutNotice  cleared first; a sentence when the file was renamed.
/// @return true when `OutLists` is the history; false with a sentence when the file cannot be read,
///         or not be renamed.
bool TavroReadHistory(const std::filesystem::path& File, TavroHistoryLists& OutLists,
                      std::string& OutNotice, std::string& ErrorMessage);

/// Replaces a history file in one step, after the new one has reached the disk. Requires the lock.
///
/// @return true when it is replaced; false with a sentence: the old file is as it was, and nothing
///         is left beside it.
bool TavroWriteHistory(const std::filesystem::path& File, const TavroHistoryLists& Lists,
                       std::string& ErrorMessage);

/// Does all that TavroWriteHistory does but the replacing, and leaves nothing behind: what makes
/// saving impossible (no permission, no room) shows before anything that must be saved is done.
bool TavroTryWritingHistory(const std::filesystem::path& File, const TavroHistoryLists& Lists,
                            std::string& ErrorMessage);

#endif
