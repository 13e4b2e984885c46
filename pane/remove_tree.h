/// Removing a tree of one's own, read-only folders in it included.

#ifndef TAVRO_PANE_REMOVE_TREE_H
#define TAVRO_PANE_REMOVE_TREE_H

#include <filesystem>
#include <system_error>

/// Removes an entry with everything below it; links are removed, not followed. Folders in it that
/// do not let their entries be removed are made writable first, as far as the user may.
///
/// @param ec  cleared when nothing is left at `Path`, also when nothing was; else the error of what
///            could not be removed. What was removed before that is gone.
void TavroRemoveTree(const std::filesystem::path& Path, std::error_code& ec);

#endif
