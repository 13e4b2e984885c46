#include "no_replace.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

namespace fs = std::filesystem;

void TavroRenameNoReplace(const fs::path& From, const fs::path& To, std::error_code& ec) {
    ec.clear();
    if (renameat2(AT_FDCWD, From.c_str(), AT_FDCWD, To.c_str(), RENAME_NOREPLACE) == 0) {
        return;
    }
    ec.assign(errno, std::generic_category());
    const bool bUnknownHere =
        ec == std::errc::invalid_argument || ec == std::errc::function_not_supported;
    if (!bUnknownHere) {
        return;
    }
    // The same error can mean a directory moved into itself; the plain rename then says so again.
    if (fs::exists(fs::symlink_status(To, ec))) {
        ec = std::make_error_code(std::errc::file_exists);
        return;
    }
    fs::rename(From, To, ec);
}
