#include "measure.h"

namespace fs = std::filesystem;

namespace {

/// Asks for no more than the listing has not told already: mostly the size of a file.
void CountItem(const fs::directory_entry& Item, TavroMeasurement& OutMeasurement) {
    std::error_code ec;
    const bool bLink = Item.is_symlink(ec);
    if (!bLink && Item.is_directory(ec)) {
        ++OutMeasurement.DirectoryCount;
        return;
    }
    ++OutMeasurement.FileCount;
    if (!bLink && Item.is_regular_file(ec)) {
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
