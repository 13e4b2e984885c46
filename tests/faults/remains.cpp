#include "remains.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

const std::string zeroDate = "1900-01-00T00:00:00";

bool isFile(const std::string& row) {
    return row.rfind("file ", 0) == 0;
}

/// The bytes in the row of a file: "file MODE BYTES".
std::string bytesIn(const std::string& row) {
    return row.substr(row.find(' ', 5) + 1);
}

bool isPartOf(const Snapshot& rows, const Snapshot& whole) {
    return std::all_of(rows.begin(), rows.end(), [&](const auto& one) {
        const auto match = whole.find(one.first);
        if (match == whole.end()) {
            return false;
        }
        if (isFile(one.second)) {
            return isFile(match->second) &&
                   bytesIn(match->second).rfind(bytesIn(one.second), 0) == 0;
        }
        const bool bDirectory = one.second.rfind("directory", 0) == 0;
        return bDirectory ? match->second.rfind("directory", 0) == 0 : one.second == match->second;
    });
}

} // namespace

bool liesIn(const std::string& path, const fs::path& place) {
    return path.rfind(place.string(), 0) == 0 &&
           (path.size() == place.string().size() || path[place.string().size()] == '/');
}

Snapshot rowsAt(const Snapshot& all, const fs::path& place) {
    Snapshot rows;
    for (const auto& [path, row] : all) {
        if (liesIn(path, place)) {
            const std::size_t length = place.string().size();
            rows[path.size() == length ? "." : path.substr(length + 1)] = row;
        }
    }
    return rows;
}

char placeState(const Item& item, const fs::path& place, const Snapshot& before,
                const Snapshot& after) {
    const Snapshot rows = rowsAt(after, place);
    if (rows == item.AtOriginal || rows == item.AtDestination) {
        return 'W';
    }
    if (rows.empty() || rows == rowsAt(before, place)) {
        return '-'; // or what was there before and is not the item
    }
    return isPartOf(rows, item.AtOriginal) || isPartOf(rows, item.AtDestination) ? 'p' : '?';
}

char recordState(const Item& item, const Snapshot& before, const Snapshot& after) {
    const auto found = after.find(item.Record.string());
    if (found == after.end()) {
        return '-';
    }
    const std::string whole = recordText(item.Original.string());
    const std::string head = whole.substr(0, whole.find(someDate));
    const std::string& row = found->second;
    if (row == "file 644 " + whole) {
        return 'R';
    }
    if (rowsAt(before, item.Record) == rowsAt(after, item.Record)) {
        return '-'; // what was there before and is no record of the item
    }
    if (!isFile(row)) {
        return '?';
    }
    const std::string bytes = bytesIn(row);
    if (bytes == head + zeroDate + "\n") {
        return '0';
    }
    const bool bInHead = head.rfind(bytes, 0) == 0;
    const bool bInDate = bytes.rfind(head, 0) == 0 &&
                         bytes.find_first_not_of("0123456789-:T", head.size()) == std::string::npos;
    return bInHead || bInDate ? 'r' : '?';
}

Snapshot restOf(const Snapshot& all, const std::vector<Item>& items) {
    Snapshot rest = all;
    for (const Item& item : items) {
        for (const fs::path& place : {item.Original, item.Destination, item.Record}) {
            for (auto row = rest.begin(); row != rest.end();) {
                row = liesIn(row->first, place) ? rest.erase(row) : ++row;
            }
        }
    }
    return rest;
}

bool isRestKept(const Scenario& scenario, const Snapshot& before, const Snapshot& after,
                bool& bFoldersStay) {
    for (const auto& [path, row] : after) {
        const auto old = before.find(path);
        if (old != before.end() && old->second == row) {
            continue;
        }
        const auto& folders = scenario.foldersOnTheWay();
        if (old != before.end() || row != "directory 755" ||
            std::find(folders.begin(), folders.end(), path) == folders.end()) {
            return false;
        }
        bFoldersStay = true;
    }
    return std::all_of(before.begin(), before.end(),
                       [&](const auto& one) { return after.count(one.first) == 1; });
}

std::map<std::string, std::uintmax_t> lostFiles(const Snapshot& before, const Snapshot& after) {
    std::set<std::string> present;
    for (const auto& [path, row] : after) {
        if (isFile(row)) {
            present.insert(bytesIn(row));
        }
    }
    std::map<std::string, std::uintmax_t> lost;
    for (const auto& [path, row] : before) {
        const bool bRecord = fs::path(path).extension() == ".trashinfo";
        if (isFile(row) && !bRecord && present.count(bytesIn(row)) == 0) {
            lost[path] = bytesIn(row).size();
        }
    }
    return lost;
}

std::string difference(const Snapshot& before, const Snapshot& after) {
    std::ostringstream text;
    const auto print = [&](char sign, const std::string& path, std::string row) {
        std::replace(row.begin(), row.end(), '\n', ' ');
        text << "  " << sign << ' ' << path << "  " << row.substr(0, 100)
             << (row.size() > 100 ? "… (" + std::to_string(row.size()) + ")" : "") << '\n';
    };
    for (const auto& [path, row] : before) {
        const auto other = after.find(path);
        if (other == after.end() || other->second != row) {
            print('-', path, row);
        }
    }
    for (const auto& [path, row] : after) {
        const auto other = before.find(path);
        if (other == before.end() || other->second != row) {
            print('+', path, row);
        }
    }
    return text.str();
}

} // namespace tavro_test
