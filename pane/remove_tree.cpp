#include "remove_tree.h"

namespace fs = std::filesystem;

namespace {

void MakeFoldersWritable(const fs::path& Directory) {
    std::error_code ec;
    fs::permissions(Directory, fs::perms::owner_all, fs::perm_options::add, ec);
    fs::directory_iterator listing(Directory, ec);
    for (const fs::directory_iterator end; listing != end; listing.increment(ec)) {
        if (fs::is_directory(listing->symlink_status(ec))) {
            MakeFoldersWritable(listing->path());
        }
    }
}

} // namespace

void TavroRemoveTree(const fs::path& Path, std::error_code& ec) {
    fs::remove_all(Path, ec);
    std::error_code statusEc;
    if (ec && fs::is_directory(fs::symlink_status(Path, statusEc))) {
        MakeFoldersWritable(Path);
        fs::remove_all(Path, ec);
    }
}
