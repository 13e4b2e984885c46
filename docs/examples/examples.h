// What the examples of the guide share.

#ifndef TAVRO_DOCS_EXAMPLES_H
#define TAVRO_DOCS_EXAMPLES_H

#include "tavroops.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

// selection.cpp
std::optional<TavroOperationEntry> SelectEntry(std::string Path);

// rename.cpp
void RenameNoReplace(const fs::path& From, const fs::path& To, std::error_code& ec);

// safeguards.cpp
bool RestoreStep(const std::vector<TavroTrashEntry>& Entries, std::string& ErrorMessage);

#endif
