#include "changes.h"

#include <algorithm>
#include <cerrno>

namespace {

/// From so many directories on the whole file system is synced.
constexpr std::size_t many = 4;

} // namespace

TavroChanges::Volume& TavroChanges::VolumeOf(const TavroDirectory& Directory) {
    const std::uint64_t device = Directory.Identity.Device;
    for (Volume& volume : m_volumes) {
        if (volume.Device == device) {
            return volume;
        }
    }
    m_volumes.push_back({device, TavroDiskOf(Directory.Descriptor.Number())});
    return m_volumes.back();
}

void TavroChanges::Add(const std::shared_ptr<const TavroDirectory>& Directory) {
    if (!m_bSync) {
        return;
    }
    Volume& volume = VolumeOf(*Directory);
    auto& known = volume.Directories;
    const bool bLast = !known.empty() && known.back()->Identity == Directory->Identity;
    if (bLast) {
        return;
    }
    if (volume.Disk == TavroDisk::OrderedLog || volume.bAll) {
        known.clear(); // the last one is enough
    }
    const auto isIt = [&](const auto& one) { return one->Identity == Directory->Identity; };
    known.erase(std::remove_if(known.begin(), known.end(), isIt), known.end());
    known.push_back(Directory);
    volume.bAll = volume.bAll || known.size() == many;
}

void TavroChanges::AddBytes(const std::shared_ptr<const TavroDirectory>& Directory) {
    if (m_bSync) {
        VolumeOf(*Directory).bAll = true;
        Add(Directory);
    }
}

bool TavroChanges::Covers(std::uint64_t Device) const {
    return std::any_of(m_volumes.begin(), m_volumes.end(), [&](const Volume& volume) {
        return volume.Device == Device && volume.bAll;
    });
}

bool TavroChanges::KeepsOrder() const {
    return m_volumes.size() == 1 && m_volumes[0].Disk == TavroDisk::OrderedLog;
}

int TavroChanges::Flush() {
    int error = 0;
    for (Volume& volume : m_volumes) {
        if (volume.bAll) {
            volume.Directories.erase(volume.Directories.begin(), volume.Directories.end() - 1);
        }
        for (const auto& directory : volume.Directories) {
            const int number = directory->Descriptor.Number();
            const int now = volume.bAll ? TavroSyncFileSystem(number) : TavroSync(number);
            // FUSE file systems that go by paths do not find a directory that was removed.
            error = error != 0 || now == ENOENT ? error : now;
        }
    }
    m_volumes.clear();
    return error;
}
