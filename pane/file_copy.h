/// Copying what one entry is made of: the bytes of a file, and the attributes of anything.

#ifndef TAVRO_PANE_FILE_COPY_H
#define TAVRO_PANE_FILE_COPY_H

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <system_error>

/// Whom a copy asks and tells while it works.
struct TavroCopyMonitor {
    /// Asked before each block; true ends the copy with `std::errc::operation_canceled`.
    std::function<bool()> ShouldCancel;

    /// Told how many bytes of the file were dealt with since the last call, holes included.
    std::function<void(std::uint64_t)> OnBytes;
};

/// Copies a regular file, with its attributes, to a path where nothing is. Shares the blocks where
/// the file system can, keeps holes, and lets the kernel do the copying where it does.
///
/// @param From       a regular file; a link is refused.
/// @param To         created. Removed again when the copy fails.
/// @param bSync      the bytes have reached the disk when this returns.
/// @param OutStatus  after success, the source as it was when the copy began. What is appended to
///                   it meanwhile is not copied.
/// @return the empty text after success; else a sentence without a full stop, and `ec` set:
///         `operation_canceled` when it was cancelled, `no_space_on_device` and its kin as they
///         came, `io_error` when the source became shorter under the copy.
///
/// A file that says its size is 0 is read to its end all the same: those of /proc have contents.
std::string TavroCopyRegularFile(const std::filesystem::path& From, const std::filesystem::path& To,
                                 bool bSync, const TavroCopyMonitor& Monitor,
                                 struct stat& OutStatus, std::error_code& ec);

/// Gives `To` what `From` has: owner where that is permitted, extended attributes and access
/// control lists where they can be held, mode (without set-user and set-group when the owner could
/// not be kept), times. Links are not followed. Access control lists that `To` inherited from its
/// folder, and `From` has not, are removed.
///
/// @param Status  that of `From`, by lstat.
/// @param ec      set when mode or times could not be set.
void TavroCopyAttributes(const std::filesystem::path& From, const std::filesystem::path& To,
                         const struct stat& Status, std::error_code& ec);

#endif
