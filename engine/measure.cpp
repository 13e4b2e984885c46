#include "measure.h"

#include "place.h"
#include "walk.h"

#include <dirent.h>

namespace {

std::uint64_t SizeAt(const TavroTreeWalk& Walk, bool bFollow) {
    struct stat status = {};
    const int error = bFollow ? TavroStatTargetAt(Walk.Directory(), Walk.Name().c_str(), status)
                              : TavroStatAt(Walk.Directory(), Walk.Name().c_str(), status);
    return error == 0 && S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
}

bool Measure(TavroTreeWalk& Walk, bool bFollowLinks, const std::function<bool()>& ShouldCancel,
             TavroMeasurement& OutMeasurement) {
    if (ShouldCancel && ShouldCancel()) {
        return false;
    }
    for (TavroWalkEvent event = Walk.Next(); event != TavroWalkEvent::End; event = Walk.Next()) {
        if (event == TavroWalkEvent::Leave || event == TavroWalkEvent::CannotLook ||
            event == TavroWalkEvent::CannotList || event == TavroWalkEvent::LostWay) {
            continue;
        }
        if (!Walk.IsFirst() && ShouldCancel && ShouldCancel()) {
            return false;
        }
        if (event != TavroWalkEvent::Leaf) {
            ++OutMeasurement.DirectoryCount;
            continue;
        }
        ++OutMeasurement.FileCount;
        if (Walk.Type() == DT_REG || (bFollowLinks && Walk.Type() == DT_LNK)) {
            OutMeasurement.ByteCount += SizeAt(Walk, bFollowLinks);
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
