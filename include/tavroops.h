/// @file
/// The file operations of the Tavro pane. A pane is a listing of a directory in the application.
///
/// Typed text becomes a path, copies and moves are planned, entries are renamed, created, deleted,
/// moved to the home trash and back, and directories are measured. Every operation is a free
/// function that does its work on the calling thread and has finished when it returns.
///
/// What holds for all of them:
///
/// - Paths are byte strings with `/` between components. No encoding is assumed, so a name may hold
///   any byte that the file system allows.
/// - An operation that can fail returns `bool`. False means that one English sentence was stored in
///   `ErrorMessage`, replacing what was there; true means that `ErrorMessage` was not touched.
///   Where a sentence below ends in REASON, the operating system's text for the error stands there
///   (`std::error_code::message()`), for example "Permission denied".
/// - Failures of the file system are reported by the return value and never thrown. The one
///   exception is told at TavroRenameEntry. `std::bad_alloc` may leave any operation; where the
///   standard library walks, copies or removes a tree, it can end the process (`std::terminate`)
///   instead when memory runs out.
/// - An out-parameter is the caller's. Use it only when the operation returned true. It must be no
///   part of an input, as it may be reset before that is read.
/// - Tests whether something exists follow symbolic links: a dangling link counts as nothing. What
///   then moves to its place replaces it if it is no directory and comes from the same file system;
///   else the move fails.
/// - The module holds no state, starts no threads and takes no locks. Operations may be called from
///   several threads at once, each with out-parameters of its own; they then share only the file
///   system, whose changes between a check and the act that follows are not excluded. What belongs
///   to the whole process must not change while an operation runs: the environment (`setenv`), the
///   locale (`setlocale`), the current directory (`chdir`) and the mask of new files (`umask`).
/// - The home directory is the one that the environment variable `HOME` names at the time of the
///   call.
///
/// The home trash is the one that Linux desktops share, laid out as the Trash convention of
/// freedesktop.org describes: below `HOME/.local/share/Trash`, trashed entries lie in `files`, and
/// `info` holds for each a record with the name of the entry in `files` followed by `.trashinfo`.

#ifndef TAVROOPS_H
#define TAVROOPS_H

#include "tavrotransfer.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

// ---------------------------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------------------------

/// One entry of the user's selection. The caller fills it.
struct TavroOperationEntry {
    /// The name as the pane lists it: the last component of the path.
    std::string Name;

    /// The full path.
    std::string Path;

    /// The entry is a directory. Operations believe this flag and do not look at the disk for it.
    ///
    /// Flag every symbolic link true, whatever it points to: it then moves between file systems as
    /// a link, and is removed as a link. The price: such a link to a directory cannot be planned
    /// into that directory. Flagged false, it is copied between file systems as the file that it
    /// points to, and a dangling link cannot be copied.
    bool bDirectory = false;
};

/// One entry that lies in the home trash, or is about to. TavroTrashEntries and
/// TavroPrepareTrashEntries fill it; the caller keeps it to undo and redo.
struct TavroTrashEntry {
    /// Where the entry was, and where a restore puts it back.
    std::string OriginalPath;

    /// Where the entry lies in the trash's `files` directory.
    std::string TrashPath;

    /// Where the entry's record lies in the trash's `info` directory.
    std::string InfoPath;

    /// The entry is a directory, as the selection said.
    bool bDirectory = false;
};

// ---------------------------------------------------------------------------------------------
// Text and paths
//
// None of these reports an error: each has a result to fall back to.
// ---------------------------------------------------------------------------------------------

/// Removes white space from both ends of a typed text.
///
/// @param Text  any bytes.
/// @return `Text` without leading and trailing white space; empty when there is nothing else. White
///         space inside is kept. White space is what `isspace` says of each byte under the locale
///         of the process; in the "C" locale: blank, tab, line feed, vertical tab, form feed,
///         carriage return.
std::string TavroTrimText(const std::string& Text);

/// Makes a path text absolute and canonical, as far as the file system allows.
///
/// The leading part that exists is resolved through the file system (symbolic links, `.`, `..`);
/// what follows it is appended and normalised as text. Relative text is taken against the current
/// directory of the process.
///
/// @param Path  the path text. A leading `~` is a plain name here.
/// @return the canonical text, relative only when there is no current directory; empty for empty
///         input, without looking at the file system; the path normalised as text alone when the
///         file system cannot resolve it (a directory in it cannot be searched, a link loops, a
///         name is too long).
std::string TavroCanonicalizePath(const std::string& Path);

/// The home directory of the user.
///
/// @return the canonical text of what the environment variable `HOME` holds; empty when it is unset
///         or empty. Read anew on each call. Whether the directory exists is not checked.
std::string TavroHomeDirectoryPath();

/// Whether a typed text ends in a separator, by which the user means "into this directory".
///
/// @param Text  any bytes.
/// @return true exactly when the last byte is `/` or `\`; false for empty text.
bool TavroEndsWithPathSeparator(const std::string& Text);

/// The path that a user means by a text typed in a pane.
///
/// `~`, `~/…` and `~\…` begin with the home directory, when `HOME` gives one; every other tilde is
/// a plain character. The backslash of `~\x` stays: the result's last component then ends in `\x`.
/// Text that is relative after that is taken below `BaseDirectory`. The result is made canonical as
/// TavroCanonicalizePath does it.
///
/// @param Text           the typed text. It is not trimmed here.
/// @param BaseDirectory  the pane's current directory. When it is empty or relative itself, the
///                       file system resolves the path against the current directory of the
///                       process, as far as the path exists.
/// @return the resolved path; the empty path for empty text; the path normalised as text alone when
///         the file system cannot resolve it. It is relative only when `BaseDirectory` is empty or
///         relative and nothing of the path exists or can be resolved.
std::filesystem::path TavroResolveUserPath(const std::string& Text,
                                           const std::filesystem::path& BaseDirectory);

/// Whether two paths name the same thing.
///
/// @param A  a path; it need not exist.
/// @param B  the other one.
/// @return true when both exist and are the same file or directory (the same device and inode, so
///         hard links and a link and its target are the same), or when their canonical texts are
///         equal byte for byte. Two empty paths are the same. An error of the file system counts as
///         "not the same file"; the texts decide then.
bool TavroPathsEquivalentOrSame(const std::filesystem::path& A, const std::filesystem::path& B);

/// Whether `Child` lies strictly below `Parent`, by their canonical texts.
///
/// @param Parent  the outer path; it need not exist, nor be a directory.
/// @param Child   the path that may lie below it.
/// @return true when the canonical text of `Child` begins with that of `Parent` and a `/` after it.
///         False for equal texts, for an empty `Parent`, and whenever `Parent` is the root
///         directory: nothing counts as inside `/`.
bool TavroPathIsInside(const std::filesystem::path& Parent, const std::filesystem::path& Child);

// ---------------------------------------------------------------------------------------------
// Copy and move
// ---------------------------------------------------------------------------------------------

/// Plans the copy or move of a selection to a typed target. Nothing on disk changes.
///
/// An entry goes into the target, under its own name, when several entries are selected, when the
/// typed text ends in a separator, or when the target is an existing directory. Otherwise the
/// target is the entry's new path. One entry onto an existing directory that bears the entry's own
/// name means that directory itself, unless the text ends in a separator. An audio track goes in
/// under its name with `.cdda` replaced by `.wav`, or `.wav` added where it has no extension.
///
/// An existing destination is no error: what becomes of it is decided when the plan is carried out,
/// under the plan's policy. No sizes are measured.
///
/// @param Entries         the selection, in the pane's order.
/// @param TargetText      the target as typed: trimmed, then resolved as TavroResolveUserPath does.
/// @param BaseDirectory   the directory that a relative target is taken against.
/// @param bMove           true for a move, false for a copy; it also chooses the wording.
/// @param ConflictPolicy  copied into the plan.
/// @param OutPlan         reset to a default plan first, whatever happens. After success: `bMove`
///                        and `ConflictPolicy` as given, `SourceLabel` "Tavro", and an item for
///                        each entry with `Name`, `SourcePath`, `DestinationPath` and `bDirectory`
///                        set and everything else at zero or false. After one of the last four
///                        failures below: that header and the items before the failing one. After
///                        an earlier failure: a default plan.
/// @param ErrorMessage    set on failure only.
/// @return true when the whole selection is planned; false with the first sentence that applies, in
///         this order (for a move; a copy says "copy" and "Copy" in the same places):
///         - "Nothing selected to move."
///         - "Move target cannot be empty."
///         - "Move Target must be a directory when multiple items are selected."
///
///         and then, entry by entry:
///         - "Audio CD tracks can be copied, but not moved." (moves only)
///         - "Move target matches the source path for 'NAME'." (not for audio tracks)
///         - "Cannot move a directory into itself: NAME" (no full stop)
///         - "Failed checking destination 'DESTINATION': REASON"
bool TavroBuildTransferPlan(const std::vector<TavroOperationEntry>& Entries,
                            const std::string& TargetText,
                            const std::filesystem::path& BaseDirectory, bool bMove,
                            TavroTransferConflictPolicy ConflictPolicy, TavroTransferPlan& OutPlan,
                            std::string& ErrorMessage);

// ---------------------------------------------------------------------------------------------
// One entry
// ---------------------------------------------------------------------------------------------

/// Renames one entry, or moves it within its file system, to a typed path.
///
/// Missing parents of the target are created first; they stay when the rename then fails. An
/// existing target is refused, but the check and the rename are two steps: what another process
/// creates in between may be replaced. A dangling link counts as free: anything but a directory
/// replaces it.
///
/// @param Entry            only `Path` is read.
/// @param TargetText       the full new name or path as typed, never just the directory to move
///                         into.
/// @param BaseDirectory    the directory that relative text is taken against: for a bare new name,
///                         the directory that holds the entry. When it is empty, a bare name that
///                         is not in the current directory goes beside the entry.
/// @param OutSelectedPath  cleared first, whatever happens. After success: the canonical text of
///                         the new path (for a symbolic link: of what it points to).
/// @param ErrorMessage     set on failure only.
/// @return true when the entry was renamed; false with the first sentence that applies, in order:
///         - "Nothing selected to rename."
///         - "Audio CD tracks cannot be renamed. Copy them to disk first."
///         - "Rename target cannot be empty."
///         - "Rename target must include a file or directory name." (the target is an existing
///           directory, the entry itself included)
///         - "Rename target matches the current path." (by another hard link, or a link to it, too)
///         - "Rename target already exists."
///         - "Failed to create rename target directory: REASON"
///         - "Rename failed: REASON" (across file systems too: nothing is copied)
/// @throws std::filesystem::filesystem_error when the target cannot be examined for another reason
///         than that it or its parent is missing (no search permission, a name too long);
///         `OutSelectedPath` is empty then, `ErrorMessage` untouched, and nothing on disk has
///         changed.
bool TavroRenameEntry(const TavroOperationEntry& Entry, const std::string& TargetText,
                      const std::filesystem::path& BaseDirectory, std::string& OutSelectedPath,
                      std::string& ErrorMessage);

/// Creates a directory at a typed path, with every missing parent.
///
/// @param TargetText       the path as typed: trimmed, then resolved as TavroResolveUserPath does.
/// @param BaseDirectory    the directory that relative text is taken against.
/// @param OutSelectedPath  cleared first, whatever happens. After success: the canonical text of
///                         the directory.
/// @param ErrorMessage     set on failure only.
/// @return true when the directory exists now, also when it existed before; false with
///         - "Directory path cannot be empty.": the text is empty or white space; the disk is not
///           touched;
///         - "Failed to create directory: REASON": also when a file is in the way. Parents created
///           before the failure stay.
///
///         New directories get all permission bits less those of the process's umask.
bool TavroCreateDirectory(const std::string& TargetText, const std::filesystem::path& BaseDirectory,
                          std::string& OutSelectedPath, std::string& ErrorMessage);

// ---------------------------------------------------------------------------------------------
// The trash
// ---------------------------------------------------------------------------------------------

/// Moves a selection to the home trash, all or nothing.
///
/// Each entry is renamed to a free name in the trash, or copied and removed when the trash is on
/// another file system; its record is written after the move. The wanted name is the last component
/// of `Path`, empty when that ends in `/`. A taken name gets " copy 1" to " copy 9999" before its
/// extension, and after those " copy " and the local time, taken or not. A dangling link in the
/// trash counts as free: an entry that gets its name replaces it, or fails to move, as told above.
/// When an entry fails, the entries before it are restored. Parents created on the way stay.
///
/// A copy keeps the bytes, the names, the targets of links and the modes (of directories: less the
/// umask and the set-group-ID bit). It loses the times, access control lists and extended
/// attributes; hard links become files of their own, and holes are filled. Owner and group become
/// the caller's. A file that root copies keeps its set-user-ID bit all the same, and so becomes a
/// program that runs as root.
///
/// Nothing is synced to the disk, and on a full disk a record can be cut short without a failure,
/// as told at TavroWriteTrashInfoEntries. Between the move and the write of its record an entry
/// lies in the trash without one; another program that empties the trash at that moment removes it.
///
/// @param Entries          the selection. `Path` is used as given and `bDirectory` is believed:
///                         across file systems an entry flagged as a file is copied as one file (of
///                         a symbolic link, what it points to), one flagged as a directory as a
///                         tree with its links kept.
/// @param OutTrashEntries  cleared first, unless `Entries` is empty. After success: one record an
///                         entry, in order, with the canonical `OriginalPath` that it has after the
///                         move (a link's own path); hand it to TavroRestoreTrashEntries to undo.
///                         After failure: empty (as it was, when `Entries` is empty).
/// @param ErrorMessage     set on failure only.
/// @return true when every entry lies in the trash with its record; false with
///         - "Nothing selected to delete."
///         - "Trash is unavailable because HOME is not set."
///         - "Failed to create trash files directory: REASON"
///         - "Failed to create trash info directory: REASON"
///         - the move's sentence, one of
///           "Failed to create destination directory: REASON",
///           "Failed to move 'PATH': REASON",
///           "Failed to copy 'PATH': REASON" (a partial copy stays in the trash; the entry is
///           untouched. A copy whose files do not have the sizes of their originals has failed,
///           with the text of `std::errc::io_error`: a full disk has cut it short, or a file has
///           changed since. A change that keeps the size is not seen),
///           "Failed to remove original 'PATH' after copying: REASON" (the copy is removed again; a
///           directory may have lost what the removal reached. REASON is "unknown error" when the
///           entry was gone);
///         - "Failed to create trash metadata 'INFOPATH'." or
///           "Failed to write trash metadata 'INFOPATH'.": the entry was moved back.
///
///         Any of these may be followed by " Rollback failed: " and the sentence of what could not
///         be undone: once when the failing entry itself could not be moved back, once more when
///         the entries before it could not be restored.
bool TavroTrashEntries(const std::vector<TavroOperationEntry>& Entries,
                       std::vector<TavroTrashEntry>& OutTrashEntries, std::string& ErrorMessage);

/// Decides where a selection will go in the home trash, for a caller that moves the entries itself.
///
/// The directories of the trash are created; nothing is moved and no record is written. The caller
/// then moves each entry to its `TrashPath` and calls TavroWriteTrashInfoEntries. Whether the
/// entries exist is not checked, and the names are not held on disk: a second call before the moves
/// gives the same. Entries of the same name get different trash names, the second with " copy"
/// after its whole name.
///
/// `OriginalPath` is canonical, taken before the move: for a symbolic link it names what the link
/// points to. A caller that trashes links corrects it to the link's own path.
///
/// @param Entries          the selection; `Path` and `bDirectory` are used.
/// @param OutTrashEntries  after success: one record an entry, in order. After failure: untouched.
/// @param ErrorMessage     set on failure only.
/// @return true when every entry has its place; false with the first that applies, in order:
///         - "Nothing selected to delete."
///         - "Trash is unavailable because HOME is not set."
///         - "Failed to create trash files directory: REASON"
///         - "Failed to create trash info directory: REASON"
bool TavroPrepareTrashEntries(const std::vector<TavroOperationEntry>& Entries,
                              std::vector<TavroTrashEntry>& OutTrashEntries,
                              std::string& ErrorMessage);

/// Writes the trash records of all entries, or of none.
///
/// A record is three lines, each ended by a line feed: "[Trash Info]"; "Path=" and `OriginalPath`
/// with every byte but A-Z a-z 0-9 - . / _ ~ as % and two upper-case hexadecimal digits;
/// "DeletionDate=" and the local time of writing as 2024-03-05T14:07:09. An existing file at
/// `InfoPath` is cut to nothing and written anew in its place; a symbolic link there is followed.
/// The directory of `InfoPath` must exist.
///
/// @param Entries       `OriginalPath` and `InfoPath` are used. May be empty.
/// @param ErrorMessage  set on failure only.
/// @return true when all records are written; false with the sentence of the first that was not,
///         - "Failed to create trash metadata 'INFOPATH'."
///         - "Failed to write trash metadata 'INFOPATH'." (its incomplete file stays)
///
///         and the records written before it in this call are removed again. A failure that shows
///         only when the file is closed (a full disk) is not seen.
bool TavroWriteTrashInfoEntries(const std::vector<TavroTrashEntry>& Entries,
                                std::string& ErrorMessage);

/// Removes the trash records of entries. The entries in the trash are not touched.
///
/// @param Entries  `InfoPath` is used. A record that is missing or cannot be removed is passed over
///                 silently.
void TavroRemoveTrashInfoEntries(const std::vector<TavroTrashEntry>& Entries);

/// Puts trashed entries back where they were, all or nothing.
///
/// Everything is checked before anything is moved. Each record is removed after its entry came
/// back; one that cannot be removed stays and is no failure. Missing parents of an original
/// place are created, and stay. When a move fails, the entries before it go back to the trash under
/// the same names, from the last restored back to the first, with records that carry the new time
/// where they can be written.
///
/// @param Entries       what TavroTrashEntries returned. Never changed, so the same list can be
///                      tried again and, after success, handed to TavroReapplyTrashEntries. After
///                      "Failed to copy" a partial copy stays at `OriginalPath`; it is to be
///                      removed before the next try.
/// @param ErrorMessage  set on failure only.
/// @return true when every entry is back; false with
///         - "No trash entries are available to restore."
///         - "Trash item is missing: TRASHPATH": also when it cannot be examined, and for a link
///           that leads nowhere from there, as a relative one usually does. Nothing was moved.
///         - "Restore target already exists: ORIGINALPATH": also when it cannot be examined.
///           Nothing was moved.
///         - the move's sentence, as told at TavroTrashEntries. When an entry then cannot go back
///           to the trash, " Rollback failed: " and the first such sentence follow; that entry
///           stays restored, without a record.
///
///         Two entries of one list with the same `OriginalPath` pass the checks; the second may
///         replace the first, or go into it when that is a directory. A caller refuses such a list.
bool TavroRestoreTrashEntries(const std::vector<TavroTrashEntry>& Entries,
                              std::string& ErrorMessage);

/// Trashes again what TavroRestoreTrashEntries put back, so that one list serves undo and redo.
///
/// @param Entries       in: `OriginalPath` and `bDirectory` are used. After success: the new
///                      records, which may carry other trash names. After failure: unchanged.
/// @param ErrorMessage  set on failure only.
/// @return true when every entry is in the trash again; false with
///         - "No restored trash entries are available."
///         - the sentence of TavroTrashEntries, which has put back what it had moved.
bool TavroReapplyTrashEntries(std::vector<TavroTrashEntry>& Entries, std::string& ErrorMessage);

/// Deletes a selection, to the home trash or for good.
///
/// @param Entries       the selection. For good, `bDirectory` alone decides: true removes the path
///                      with all its contents, false removes a single file or empty directory. An
///                      entry that is gone already counts as deleted. A link is removed itself,
///                      unless its path ends in `/`: then true removes what is in the directory
///                      that it points to, and fails.
/// @param bUseTrash     true: as TavroTrashEntries, with the records dropped, so that this delete
///                      cannot be undone through the module. False: for good.
/// @param ErrorMessage  set on failure only.
/// @return true when every entry is trashed or removed; false with
///         - "Nothing selected to delete."
///         - the sentence of TavroTrashEntries
///         - "Delete failed for 'NAME': REASON", for good only: the entries before this one are
///           gone, a directory may be partly removed, and those after it are untouched.
bool TavroDeleteEntries(const std::vector<TavroOperationEntry>& Entries, bool bUseTrash,
                        std::string& ErrorMessage);

// ---------------------------------------------------------------------------------------------
// Measuring
// ---------------------------------------------------------------------------------------------

/// Adds up the sizes of the regular files below a directory.
///
/// A symbolic link to a file counts with the size of its target; a link to a directory is not
/// entered (`root` itself may be one). A file counts once for each name, and a sparse file with its
/// apparent size. A directory that cannot be listed is passed over, what is in one that cannot be
/// searched counts nothing, and any other error in reading a directory ends the walk.
///
/// @param root          the directory to measure.
/// @param shouldCancel  called on this thread before each entry is looked at; true stops the walk.
///                      May be empty. An exception that it throws leaves this function.
/// @return the sum in bytes; what was counted so far when the walk was stopped (the result does not
///         tell a stopped walk from a whole one); 0 for an empty path and for anything that is not
///         a directory that can be listed, a regular file included.
std::uintmax_t TavroCalculateDirectorySize(const std::filesystem::path& root,
                                           const std::function<bool()>& shouldCancel);

#endif
