#include "measure.h"

#include "place.h"
#include "walk.h"

#include <unordered_set>

namespace {

/// Counts an entry itself.
class Sizes {
public:
    explicit Sizes(TavroMeasurement& Sum) : m_sum(Sum) {}

    void AddDirectory(const struct stat& Status) {
        ++m_sum.DirectoryCount;
        AddBlocks(Status);
    }
    void AddLeaf(const TavroTreeWalk& Walk, bool bFollow);

private:
    void AddBlocks(const struct stat& Status) {
        m_sum.DiskBytes += static_cast<std::uint64_t>(Status.st_blocks) * 512;
    }

    TavroMeasurement& m_sum;
    std::unordered_set<TavroIdentity> m_linked; ///< Files with several names.
};

void Sizes::AddLeaf(const TavroTreeWalk& Walk, bool bFollow) {
    struct stat status = {};
    const int error = bFollow ? TavroStatTargetAt(Walk.Directory(), Walk.Name().c_str(), status)
                              : TavroStatAt(Walk.Directory(), Walk.Name().c_str(), status);
    ++m_sum.FileCount;
    if (error != 0) {
        return;
    }
    m_sum.ByteCount += S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
    if (status.st_nlink < 2 || m_linked.insert(TavroIdentityOf(status)).second) {
        AddBlocks(status);
    }
}

bool Measure(TavroTreeWalk& Walk, bool bFollowLinks, const std::function<bool()>& ShouldCancel,
             TavroMeasurement& OutMeasurement) {
    if (ShouldCancel && ShouldCancel()) {
        return false;
    }
    Sizes sizes(OutMeasurement);
    const struct stat unknown = {};
    for (TavroWalkEvent event = Walk.Next(); event != TavroWalkEvent::End; event = Walk.Next()) {
        if (event == TavroWalkEvent::Leave || event == TavroWalkEvent::CannotLook ||
            event == TavroWalkEvent::CannotList || event == TavroWalkEvent::LostWay) {
            continue;
        }
        if (!Walk.IsFirst() && ShouldCancel && ShouldCancel()) {
            return false;
        }
        if (event == TavroWalkEvent::Leaf) {
            sizes.AddLeaf(Walk, bFollowLinks);
        } else {
            sizes.AddDirectory(event == TavroWalkEvent::Enter ? Walk.Status() : unknown);
        }
    }
    return true;
}

} // namespace

bool TavroMeasureEntry(int Directory, const std::string& Name,
                       const std::function<bool()>& ShouldCancel,
                       TavroMeasurement& OutMeasurement) {
    TavroTreeWalk walk(Directory, Name);
    return Measure(walk, false, ShouldCancel, OutMeasurement);
}

bool TavroMeasureEntry(const std::string& Path, const std::function<bool()>& ShouldCancel,
                       TavroMeasurement& OutMeasurement) {
    TavroPlaces places;
    TavroPlace place;
    if (places.Find(Path, place)) {
        return !ShouldCancel || !ShouldCancel();
    }
    return TavroMeasureEntry(place.Number(), place.Name, ShouldCancel, OutMeasurement);
}

std::uint64_t TavroMeasureDirectorySize(int Directory, const std::function<bool()>& ShouldCancel,
                                        bool& bComplete) {
    TavroMeasurement measurement;
    TavroTreeWalk walk(Directory, ".");
    bComplete = Measure(walk, true, ShouldCancel, measurement);
    return measurement.ByteCount;
}
