/// How much an entry holds, counted before it is copied, moved or deleted.

#ifndef TAVRO_PANE_MEASURE_H
#define TAVRO_PANE_MEASURE_H

#include <cstdint>
#include <filesystem>
#include <functional>

/// What was counted. Symbolic links count as items of 0 bytes.
struct TavroMeasurement {
    std::uint64_t FileCount = 0;      ///< Everything that is not a directory.
    std::uint64_t DirectoryCount = 0; ///< Directories, the measured one included.
    std::uint64_t ByteCount = 0;      ///< Bytes in regular files, by their apparent size.
};

/// Adds an entry, with everything below it when it is a directory, to a measurement.
///
/// @param Path             the entry. A symbolic link is counted itself and not followed.
/// @param ShouldCancel     called before each item; true stops the counting. May be empty.
/// @param OutMeasurement   added to. What cannot be read counts nothing.
/// @return true when everything was counted; false when it was stopped.
bool TavroMeasureEntry(const std::filesystem::path& Path, const std::function<bool()>& ShouldCancel,
                       TavroMeasurement& OutMeasurement);

#endif
