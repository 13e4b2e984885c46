/// Choosing among what is in the trash: by names, paths, patterns, place, age and size.

#ifndef TAVRO_ENGINE_CHOICE_H
#define TAVRO_ENGINE_CHOICE_H

#include "trash_contents.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// What is chosen: everything, unless a member narrows it.
struct TavroChoice {
    /// Names in the trash, original paths or names, and patterns; none: whatever they are.
    std::vector<std::string> Words = {};

    std::string Below = {}; ///< Was in this directory, which has no link in its path, or below it.
    int SinceDays = 0;      ///< Was trashed at most so many days ago (of 24 hours, local time).
    int OlderThanDays = 0;  ///< Was trashed longer ago. Without a readable date it is of no age.

    /// Only the newest of several items from one path: of those that a word means, or of all.
    bool bNewestAlone = false;

    /// Whether not all items qualify that the words mean.
    bool IsLimited() const {
        return !Below.empty() || SinceDays > 0 || OlderThanDays > 0;
    }
    bool IsEverything() const {
        return Words.empty() && !IsLimited();
    }
};

/// Whether a word has `*`, `?` or `[`, so that it is a pattern unless something bears it as a name.
bool TavroIsPattern(const std::string& Word);

/// Leaves the items that are chosen, in their order.
///
/// A word means the item of that name in the trash; else those from that original path (absolute,
/// or relative to the current directory); else those of that original name, which must be from one
/// path; else those that it matches as a pattern of the shell. A pattern with a slash is held
/// against the original path, any other one against the original name and the name in the trash. As
/// in the shell, no `*` matches a slash or the dot that begins a name; characters are those of the
/// process's locale. Items that are beyond the limits are not there for a word.
///
/// @param IoItems  as TavroListTrash gives them.
/// @return a failure for each word that means nothing, in order: NotInTrash, NothingMatches or
///         NothingWithin; or SeveralNamed, with the paths as `Other`.
std::vector<TavroFailure> TavroChooseItems(const TavroChoice& Choice,
                                           std::vector<TavroTrashItem>& IoItems);

/// Fills in `ByteCount` of directories, all files in them together.
/// @param bRemember  other programs are told what they take on the disk.
/// @return no failure; or Cancelled: what was not measured whole, and all after it, is taken away.
TavroFailure TavroMeasureItems(std::vector<TavroTrashItem>& IoItems,
                               const std::function<bool()>& ShouldCancel, bool bRemember);

/// The bytes of all together.
std::uint64_t TavroCountBytes(const std::vector<TavroTrashItem>& Items);

/// The oldest items, so many that they hold `Bytes` at least, or all. Those without a date, whose
/// age nobody knows, come last.
/// @param Items  measured, and in the order of TavroListTrash.
std::vector<TavroTrashItem> TavroOldestItems(std::vector<TavroTrashItem> Items,
                                             std::uint64_t Bytes);

#endif
