/// Renaming that never replaces anything.

#ifndef TAVRO_PANE_NO_REPLACE_H
#define TAVRO_PANE_NO_REPLACE_H

#include <filesystem>
#include <system_error>

/// Renames `From` to `To` unless something is at `To`; a dangling link is something.
///
/// Where the kernel and the file system know how, the check and the rename are one step. Elsewhere
/// a look at `To` comes first, and what another process creates in between may be replaced.
///
/// @param ec  cleared after success; `std::errc::file_exists` when something is at `To`, also when
///            that is `From` itself under another name; else the error of the rename
///            (`std::errc::cross_device_link` between file systems).
void TavroRenameNoReplace(const std::filesystem::path& From, const std::filesystem::path& To,
                          std::error_code& ec);

#endif
