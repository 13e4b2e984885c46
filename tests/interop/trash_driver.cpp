// The module's trash for shell scripts.
//
//   trash_driver trash ENTRY…   trashes the entries in one batch
//   trash_driver restore        restores everything that the records in the home trash name, in one
//                               batch, whoever wrote them
//
// Prints the sentence of a failure and exits with 1.

#include "tavroops.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

/// A link to a directory counts as one, so that it is moved as a link.
bool isDirectory(const fs::path& path) {
    std::error_code ec;
    return fs::is_directory(path, ec);
}

int digitValue(char digit) {
    const std::string digits = "0123456789abcdef";
    const auto lower = static_cast<char>(digit >= 'A' && digit <= 'F' ? digit + 32 : digit);
    const std::size_t value = digits.find(lower);
    if (value == std::string::npos) {
        throw std::runtime_error(std::string("No hexadecimal digit: ") + digit);
    }
    return static_cast<int>(value);
}

/// The bytes that a record's path stands for.
std::string decode(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            bytes += text[i];
            continue;
        }
        if (i + 2 >= text.size()) {
            throw std::runtime_error("Cut short: " + text);
        }
        bytes += static_cast<char>(digitValue(text[i + 1]) * 16 + digitValue(text[i + 2]));
        i += 2;
    }
    return bytes;
}

std::string originalPath(const fs::path& record) {
    const std::string key = "Path=";
    std::ifstream lines(record);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            return decode(line.substr(key.size()));
        }
    }
    throw std::runtime_error("No path in " + record.string());
}

/// The entries of the home trash, in the order of their records' names.
std::vector<TavroTrashEntry> readTrash() {
    const fs::path trash = fs::path(TavroHomeDirectoryPath()) / ".local/share/Trash";
    std::vector<TavroTrashEntry> entries;
    for (const fs::directory_entry& record : fs::directory_iterator(trash / "info")) {
        if (record.path().extension() != ".trashinfo") {
            continue;
        }
        const fs::path item = trash / "files" / record.path().stem();
        entries.push_back({originalPath(record.path()), item.string(), record.path().string(),
                           isDirectory(item)});
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.InfoPath < b.InfoPath; });
    return entries;
}

bool trash(const std::vector<std::string>& paths, std::string& error) {
    std::vector<TavroOperationEntry> entries;
    for (const std::string& path : paths) {
        entries.push_back({fs::path(path).filename().string(), path, isDirectory(path)});
    }
    std::vector<TavroTrashEntry> trashed;
    return TavroTrashEntries(entries, trashed, error);
}

} // namespace

int main(int argc, char** argv) try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string what = arguments.empty() ? "" : arguments[0];
    std::string error = "usage: trash_driver trash ENTRY… | restore";
    bool bDone = false;
    if (what == "trash") {
        bDone = trash({arguments.begin() + 1, arguments.end()}, error);
    } else if (what == "restore") {
        bDone = TavroRestoreTrashEntries(readTrash(), error);
    }
    if (!bDone) {
        std::cerr << error << '\n';
    }
    return bDone ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
