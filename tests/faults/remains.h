// What is left on the disk, told in terms of the items of a scenario.

#ifndef TAVRO_TESTS_REMAINS_H
#define TAVRO_TESTS_REMAINS_H

#include "scenarios.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tavro_test {

/// `path` is `place` or lies below it.
bool liesIn(const std::string& path, const std::filesystem::path& place);

/// The rows of `place` and below it, as a snapshot of the place alone.
Snapshot rowsAt(const Snapshot& all, const std::filesystem::path& place);

/// "W" the whole item, "p" a part of it, "-" nothing of it, "?" something else.
char placeState(const Item& item, const std::filesystem::path& place, const Snapshot& before,
                const Snapshot& after);

/// "R" the item's record, "0" one without a time, "r" a part of it, "-" none, "?" something else.
char recordState(const Item& item, const Snapshot& before, const Snapshot& after);

/// Everything that belongs to no item.
Snapshot restOf(const Snapshot& all, const std::vector<Item>& items);

/// The rest is as before, but for directories on the way.
bool isRestKept(const Scenario& scenario, const Snapshot& before, const Snapshot& after,
                bool& bFoldersStay);

/// The user's files of `before` whose bytes are nowhere in `after`, with their sizes.
std::map<std::string, std::uintmax_t> lostFiles(const Snapshot& before, const Snapshot& after);

/// The rows in which two snapshots differ, shortened for reading.
std::string difference(const Snapshot& before, const Snapshot& after);

} // namespace tavro_test

#endif
