// Everything that can be seen of a tree, in a form that two moments can be compared by.

#ifndef TAVRO_TESTS_SNAPSHOT_H
#define TAVRO_TESTS_SNAPSHOT_H

#include <filesystem>
#include <map>
#include <string>

namespace tavro_test {

/// From the path below the root ("." is the root itself) to what is there: "directory 755",
/// "file 644 BYTES", "link -> TARGET", "fifo 600" and so on. A root that is missing has no rows.
using Snapshot = std::map<std::string, std::string>;

/// Links are not followed; a file's bytes are part of its row.
Snapshot takeSnapshot(const std::filesystem::path& root);

} // namespace tavro_test

#endif
