#include "measure.h"

namespace fs = std::filesystem;

namespace {

void CountItem(const fs::directory_entry& Item, TavroMeasurement& OutMeasurement) {
    std::error_code ec;
    const fs::file_status status = Item.symlink_status(ec);
    if (fs::is_directory(status)) {
        ++OutMeasurement.DirectoryCount;
        return;
    }
    ++OutMeasurement.FileCount;
    if (fs::is_regular_file(status)) {
        const std::uintmax_t size = Item.file_size(ec);
        OutMeasurement.ByteCount += ec ? 0 : size;
    }
}

} // namespace

bool TavroMeasureEntry(const fs::path& Path, const std::function<bool()>& ShouldCancel,
                       TavroMeasurement& OutMeasurement) {
    if (ShouldCancel && ShouldCancel()) {
        return false;
    }
    std::error_code ec;
    const fs::file_status status = fs::symlink_status(Path, ec);
    if (!fs::exists(status)) {
        return true;
    }
    CountItem(fs::directory_entry(Path, ec), OutMeasurement);
    if (!fs::is_directory(status)) {
        return true;
    }
    fs::recursive_directory_iterator walk(Path, fs::directory_options::skip_permission_denied, ec);
    for (const fs::recursive_directory_iterator end; walk != end; walk.increment(ec)) {
        if (ShouldCancel && ShouldCancel()) {
            return false;
        }
        CountItem(*walk, OutMeasurement);
    }
    return true;
}
