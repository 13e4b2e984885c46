/// Trashing and restoring with the module's sharp edges guarded.
///
/// The module trusts its caller with some cases: links are canonicalised too early in the two-phase
/// way, existence tests follow links, a list may name one place twice, a long name leaves no room
/// for its record. Each is found here before anything is moved.
///
/// When something cannot be undone, the sentence says where each thing is now.

#ifndef TAVRO_PANE_TRASH_H
#define TAVRO_PANE_TRASH_H

#include "tavroops.h"
#include "transfer.h"

#include <filesystem>
#include <string>
#include <unordered_set>
#include <vector>

/// The folders of the home trash. Empty paths when `HOME` is unset or empty.
struct TavroTrashFolders {
    std::filesystem::path Root;
    std::filesystem::path Files;
    std::filesystem::path Info;
};

TavroTrashFolders TavroFindTrashFolders();

/// The place of an entry itself: the canonical path of its folder, and its name. Of a link it is
/// where the link is, not what it points to.
///
/// @param Path  as for TavroSelectEntry. What it names need not exist.
std::filesystem::path TavroFindOwnPath(const std::string& Path);

/// Creates the folders of the home trash that are missing, readable by the user alone (mode 0700,
/// whatever the umask). Folders above the trash get the mode that any new folder gets. Folders that
/// exist keep their mode.
///
/// @return true when they exist; false with a sentence in `ErrorMessage`, which names the path that
///         is in the way or could not be created.
bool TavroEnsurePrivateTrash(std::string& ErrorMessage);

/// Says why a selection must not go to the trash: it names `/`, the home directory, the trash or
/// something inside it, a folder that holds one of these, one entry twice, an entry inside another
/// entry of the selection, an audio CD track, or something that does not exist. A link may go
/// whatever it points to, unless it is on the way to the home directory or the trash.
///
/// @return true when it may go; false with one sentence, without a full stop, that names the entry.
bool TavroCheckTrashable(const std::vector<TavroOperationEntry>& Entries,
                         std::string& ErrorMessage);

/// The entries of a selection that a rename cannot bring to the home trash, because they lie on
/// another file system or another mount, so that trashing copies them. None when there is no home
/// directory.
std::vector<TavroOperationEntry>
TavroEntriesOnOtherDevices(const std::vector<TavroOperationEntry>& Entries);

/// A name for an entry in the trash: neither an item nor a record of that name is there, be it a
/// dangling link, and there is room for the record's name.
///
/// @param Name     the name that is wanted. When it is longer than 245 bytes, it is cut before its
///                 extension, where that leaves at least a character, and between characters of
///                 UTF-8. When it is taken, " copy 1" and so on stands before the extension.
/// @param Claimed  names that are taken too.
std::string TavroChooseTrashName(const TavroTrashFolders& Folders, const std::string& Name,
                                 const std::unordered_set<std::string>& Claimed);

/// Writes the record of one entry and sees that it reached its file system whole, which the module
/// does not when the disk is full. A record that is there is never replaced: that is a failure.
///
/// @return true when the record is written; false with a sentence, and no new record is left.
bool TavroWriteTrashRecord(const TavroTrashEntry& Entry, std::string& ErrorMessage);

/// Moves a selection to the home trash, all or nothing.
///
/// Each entry is moved (with progress and cancel) and gets its record at once. When that is
/// cancelled or fails, what was moved is moved back. Nothing in the trash is ever replaced, neither
/// an item nor a record, also when several processes trash things of one name at once: an entry
/// whose name is taken by then gets the next free one. What others put there meanwhile is left
/// alone.
///
/// Links are trashed as links, with their own paths as `OriginalPath`, and flagged as directories.
///
/// @param Callbacks        `OnProgress` counts the selection as one whole; what is only renamed is
///                         one item of no bytes. `OnConflict` is not used.
/// @param OutTrashEntries  cleared first; after success one record an entry, in order.
/// @param ErrorMessage     set on failure only: a sentence; "Cancelled" when
///                         `Callbacks.ShouldCancel` said so. When something could not be moved
///                         back, it is left in the trash with its record, and " Rollback failed: "
///                         and why, and "; 'ORIGINALPATH' is now 'TRASHPATH'" are appended.
/// @return true when every entry lies in the trash with its record.
bool TavroTrashSelection(const std::vector<TavroOperationEntry>& Entries,
                         const TavroTransferCallbacks& Callbacks,
                         std::vector<TavroTrashEntry>& OutTrashEntries, std::string& ErrorMessage);

/// Puts trashed entries back, all or nothing, and removes their records.
///
/// Refused before anything is moved: two entries with the same original path, one entry twice, an
/// original path that is not absolute, and an original place that is taken, be it by a dangling
/// link. Folders come back before what goes into them. Nothing is replaced, also when it came to an
/// original place only after that check. When the restoring fails or is cancelled, what was
/// restored goes back to the trash, with records that carry the new time.
///
/// @param Callbacks     as for TavroTrashSelection.
/// @param ErrorMessage  set on failure only: a sentence; "Cancelled" when `Callbacks.ShouldCancel`
///                      said so. For what could not go back to the trash " Rollback failed: " and
///                      why, and "; 'ORIGINALPATH' stays restored" are appended.
/// @return true when every entry is back and the records are gone; false with a sentence.
bool TavroRestoreSelection(const std::vector<TavroTrashEntry>& Entries,
                           const TavroTransferCallbacks& Callbacks, std::string& ErrorMessage);

#endif
