/// What an operation has changed, to be brought to the disk at once.

#ifndef TAVRO_ENGINE_CHANGES_H
#define TAVRO_ENGINE_CHANGES_H

#include "place.h"

#include <memory>
#include <vector>

/// Directories in which names were changed. As few calls as can be bring them to the disk: one for
/// one with an ordered log, and else one a directory, or one for the whole file system where there
/// are many.
class TavroChanges {
public:
    /// @param bSync  false: nothing is ever waited for.
    explicit TavroChanges(bool bSync) : m_bSync(bSync) {}

    /// Names in a directory were changed, in this order.
    void Add(const std::shared_ptr<const TavroDirectory>& Directory);

    /// Files below a directory were written, whose bytes are to reach the disk, too.
    void AddBytes(const std::shared_ptr<const TavroDirectory>& Directory);

    /// Whether the whole file system of a device is to be brought to the disk.
    bool Covers(std::uint64_t Device) const;

    /// Whether all that was changed is in one ordered log: what is changed there later is not on
    /// the disk before it.
    bool KeepsOrder() const;

    /// Brings all of it to the disk, and forgets it.
    /// @return 0, or the first error number.
    int Flush();

private:
    struct Volume {
        std::uint64_t Device;
        TavroDisk Disk;
        bool bAll = false; ///< All of it is to be synced.
        std::vector<std::shared_ptr<const TavroDirectory>> Directories = {};
    };

    Volume& VolumeOf(const TavroDirectory& Directory);

    const bool m_bSync;
    std::vector<Volume> m_volumes;
};

#endif
