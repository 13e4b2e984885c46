/// How much an entry holds, counted before it is copied, moved or deleted.

#ifndef TAVRO_ENGINE_MEASURE_H
#define TAVRO_ENGINE_MEASURE_H

#include <cstdint>
#include <functional>
#include <string>

/// What was counted.
struct TavroMeasurement {
    std::uint64_t FileCount = 0;      ///< Everything that is not a directory.
    std::uint64_t DirectoryCount = 0; ///< Directories, the measured one included.
    std::uint64_t ByteCount = 0;      ///< Bytes in regular files, by their apparent size.

    /// What all of it takes on the disk; a file with several names counts once an entry measured.
    std::uint64_t DiskBytes = 0;
};

/// Adds an entry, with everything below it when it is a directory, to a measurement. Links are
/// counted themselves, as items of no bytes.
///
/// @param Directory       open directory that holds the entry.
/// @param ShouldCancel    asked before each item; true stops the counting. May be empty.
/// @param OutMeasurement  added to. What cannot be read adds no bytes.
/// @return true when everything was counted; false when it was stopped.
bool TavroMeasureEntry(int Directory, const std::string& Name,
                       const std::function<bool()>& ShouldCancel, TavroMeasurement& OutMeasurement);

/// As above, for the entry at a path of any length.
bool TavroMeasureEntry(const std::string& Path, const std::function<bool()>& ShouldCancel,
                       TavroMeasurement& OutMeasurement);

/// The same sum as TavroCalculateDirectorySize, in less time, and for paths of any length and trees
/// of any depth: links to regular files count with the size of their targets.
///
/// @param Directory  open directory to measure.
/// @param bComplete  set to whether it was not stopped.
std::uint64_t TavroMeasureDirectorySize(int Directory, const std::function<bool()>& ShouldCancel,
                                        bool& bComplete);

#endif
