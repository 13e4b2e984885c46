// Trees deeper than paths are long and descriptors are many, and processes with little of both.

#ifndef TAVRO_TESTS_DEEP_TREE_H
#define TAVRO_TESTS_DEEP_TREE_H

#include <filesystem>
#include <functional>
#include <string>

namespace tavro_test {

/// Creates a chain of directories, each named `name`, below `top`, which is created too, and a file
/// "leaf" with the bytes "leaf" in the last one.
/// @return the path of the last directory, however long.
std::string makeDeepTree(const std::filesystem::path& top, unsigned levels,
                         const std::string& name = "d");

/// Runs `body` in a child process that may have 64 files open, on a stack of 256 KiB. Failed
/// assertions of the child are printed and fail the test.
void runConfined(const std::function<void()>& body);

} // namespace tavro_test

#endif
