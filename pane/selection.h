/// From the text that names an entry to the record that the module's operations take.

#ifndef TAVRO_PANE_SELECTION_H
#define TAVRO_PANE_SELECTION_H

#include "tavroops.h"

/// The record of the entry at a path, as a pane that lists it would fill it.
///
/// @param Path  absolute, or relative to the current directory of the process. Links are not
///              resolved; `.` components and separators at the end are dropped, unless the path is
///              a link whose separator at the end (or `/.`) means the directory behind it. An audio
///              track's path stays as it is.
/// @return the record with an absolute `Path`, its last component as `Name`, and `bDirectory` true
///         exactly for a directory that is not a symbolic link. Whether anything exists there is
///         not reported: `bDirectory` is false then.
TavroOperationEntry TavroSelectEntry(const std::string& Path);

/// The same selection with every symbolic link flagged as a directory, which makes the module move
/// and remove it as the link that it is, between file systems too, and never as what it points to.
std::vector<TavroOperationEntry> TavroKeepLinks(std::vector<TavroOperationEntry> Entries);

/// Whether there is something at `Path`. A dangling link is something.
bool TavroIsPresent(const std::filesystem::path& Path);

#endif
