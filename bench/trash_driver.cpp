// The trash operations as a whole process, to be timed next to other programs.
//
//   tavro_trash_driver files FILE…      trashes files in one batch
//   tavro_trash_driver folders FOLDER…  trashes folders in one batch
//   tavro_trash_driver cycle FILE…      trashes, restores and reapplies one list, and prints the
//                                       times of the last two

#include "phase.h"
#include "tavroops.h"

#include <iostream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

using tavro_bench::printPhase;

/// The flag is the caller's knowledge: the disk is not asked for it here.
std::vector<TavroOperationEntry> select(const std::vector<std::string>& paths, bool bDirectories) {
    std::vector<TavroOperationEntry> entries;
    entries.reserve(paths.size());
    for (const std::string& path : paths) {
        entries.push_back({fs::path(path).filename().string(), path, bDirectories});
    }
    return entries;
}

/// An operation that fails ends the process: its time would be worth nothing.
void check(bool bDone, const std::string& error) {
    if (!bDone) {
        throw std::runtime_error(error);
    }
}

std::vector<TavroTrashEntry> trash(const std::vector<TavroOperationEntry>& entries) {
    std::vector<TavroTrashEntry> trashed;
    std::string error;
    check(TavroTrashEntries(entries, trashed, error), error);
    return trashed;
}

void cycle(const std::vector<TavroOperationEntry>& entries) {
    std::vector<TavroTrashEntry> list = trash(entries);
    std::string error;
    printPhase("restore", [&] { check(TavroRestoreTrashEntries(list, error), error); });
    printPhase("reapply", [&] { check(TavroReapplyTrashEntries(list, error), error); });
}

} // namespace

int main(int argc, char** argv) try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() < 2) {
        throw std::runtime_error("usage: tavro_trash_driver files|folders|cycle ENTRY…");
    }
    const std::string& what = arguments[0];
    const auto entries = select({arguments.begin() + 1, arguments.end()}, what == "folders");
    if (what == "cycle") {
        cycle(entries);
    } else {
        trash(entries);
    }
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
