#include "in_memory_file_system.h"

#include <algorithm>
#include <deque>

namespace fs = std::filesystem;

namespace tavro_model {

namespace {

constexpr std::errc success = std::errc();

std::string child(const std::string& directory, const std::string& name) {
    return directory == "/" ? "/" + name : directory + "/" + name;
}

std::string parentOf(const std::string& place) {
    return fs::path(place).parent_path().string();
}

/// `inner` is a path below `outer`.
bool isBelow(const std::string& outer, const std::string& inner) {
    return outer == "/" ? inner != "/" : inner.rfind(outer + "/", 0) == 0;
}

std::deque<std::string> componentsOf(const std::string& path) {
    std::deque<std::string> components = {""};
    for (const char byte : path) {
        if (byte == '/') {
            components.emplace_back();
        } else {
            components.back() += byte;
        }
    }
    components.erase(std::remove(components.begin(), components.end(), ""), components.end());
    return components;
}

std::string withoutSeparatorAtEnd(const std::string& path) {
    const std::size_t end = path.find_last_not_of('/');
    return end == std::string::npos ? path.substr(0, 1) : path.substr(0, end + 1);
}

bool isMissing(std::errc error) {
    return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

} // namespace

// =================================================================================================
// Looking
// =================================================================================================

InMemoryFileSystem::InMemoryFileSystem(const std::string& root)
    : CurrentDirectory(root), m_root(root) {
    for (std::string place = root; place != "/"; place = parentOf(place)) {
        m_entries[place] = {Kind::Directory, ""};
    }
    m_entries["/"] = {Kind::Directory, ""};
}

const Entry* InMemoryFileSystem::find(const std::string& place) const {
    const auto found = m_entries.find(place);
    return found == m_entries.end() ? nullptr : &found->second;
}

const Entry& InMemoryFileSystem::at(const std::string& place) const {
    return m_entries.at(place);
}

InMemoryFileSystem::Place InMemoryFileSystem::locate(const std::string& path,
                                                     bool bFollowLastLink) const {
    constexpr std::size_t longestPath = 4095;
    constexpr std::size_t longestName = 255;
    constexpr int mostLinks = 40;
    if (path.empty()) {
        return {"", std::errc::no_such_file_or_directory};
    }
    if (path.size() > longestPath) {
        return {"", std::errc::filename_too_long};
    }
    const bool bEndsInSeparator = path.back() == '/';
    std::string place = path[0] == '/' ? "/" : CurrentDirectory;
    std::deque<std::string> pending = componentsOf(path);
    int links = 0;
    while (!pending.empty()) {
        const std::string name = pending.front();
        pending.pop_front();
        if (find(place)->EntryKind != Kind::Directory) {
            return {"", std::errc::not_a_directory};
        }
        if (name == "." || name == "..") {
            place = name == "." ? place : parentOf(place);
            continue;
        }
        if (name.size() > longestName) {
            return {"", std::errc::filename_too_long};
        }
        const std::string next = child(place, name);
        const Entry* entry = find(next);
        if (entry == nullptr) {
            noteOutside(next);
            return {pending.empty() ? next : "", std::errc::no_such_file_or_directory};
        }
        if (entry->EntryKind == Kind::Link &&
            (!pending.empty() || bFollowLastLink || bEndsInSeparator)) {
            if (++links > mostLinks) {
                return {"", std::errc::too_many_symbolic_link_levels};
            }
            const std::deque<std::string> target = componentsOf(entry->Text);
            pending.insert(pending.begin(), target.begin(), target.end());
            place = entry->Text[0] == '/' ? "/" : place;
            continue;
        }
        place = next;
    }
    if (bEndsInSeparator && find(place)->EntryKind != Kind::Directory) {
        return {"", std::errc::not_a_directory};
    }
    return {place, success};
}

/// For calls that change an entry: a separator at the end does not lead through a link.
InMemoryFileSystem::Place InMemoryFileSystem::locateItself(const std::string& path) const {
    const std::string bare = withoutSeparatorAtEnd(path);
    const Place place = locate(bare, false);
    const bool bFits =
        bare == path || place.Error != success || find(place.Path)->EntryKind == Kind::Directory;
    return bFits ? place : Place{"", std::errc::not_a_directory};
}

void InMemoryFileSystem::noteOutside(const std::string& place) const {
    m_bLeftRoot = m_bLeftRoot || !isBelow(m_root, place);
}

bool InMemoryFileSystem::leftRoot() const {
    const bool bLeft = m_bLeftRoot;
    m_bLeftRoot = false;
    return bLeft;
}

bool InMemoryFileSystem::isThere(const std::string& path) const {
    return locate(path, true).Error == success;
}

bool InMemoryFileSystem::isDirectory(const std::string& path) const {
    const Place place = locate(path, true);
    return place.Error == success && at(place.Path).EntryKind == Kind::Directory;
}

bool InMemoryFileSystem::isFile(const std::string& path) const {
    const Place place = locate(path, true);
    return place.Error == success && at(place.Path).EntryKind == Kind::File;
}

std::errc InMemoryFileSystem::examine(const std::string& path) const {
    const std::errc error = locate(path, true).Error;
    return isMissing(error) ? success : error;
}

fs::path InMemoryFileSystem::weaklyCanonical(const fs::path& path, std::errc& error) const {
    error = examine(path.string());
    if (error != success) {
        return {};
    }
    if (isThere(path.string())) {
        return locate(path.string(), true).Path;
    }
    fs::path existing;
    auto component = path.begin();
    for (; component != path.end(); ++component) {
        const fs::path longer = existing / *component;
        error = examine(longer.string());
        if (error != success) {
            return {};
        }
        if (!isThere(longer.string())) {
            break;
        }
        existing = longer;
    }
    fs::path result;
    if (!existing.empty()) {
        result = locate(existing.string(), true).Path;
    }
    for (; component != path.end(); ++component) {
        result /= *component;
    }
    return result.lexically_normal();
}

std::vector<std::string> InMemoryFileSystem::listing(const std::string& directory) const {
    std::vector<std::string> places;
    for (const auto& [place, entry] : m_entries) {
        if (place != "/" && parentOf(place) == directory) {
            places.push_back(place);
        }
    }
    return places;
}

tavro_test::Snapshot InMemoryFileSystem::snapshot() const {
    tavro_test::Snapshot rows = {{".", "directory 755"}};
    for (const auto& [place, entry] : m_entries) {
        if (!isBelow(m_root, place)) {
            continue;
        }
        std::string& row = rows[place.substr(m_root.size() + 1)];
        switch (entry.EntryKind) {
        case Kind::File:
            row = "file 644 " + entry.Text;
            break;
        case Kind::Directory:
            row = "directory 755";
            break;
        case Kind::Link:
            row = "link -> " + entry.Text;
            break;
        }
    }
    return rows;
}

// =================================================================================================
// Failing
// =================================================================================================

void InMemoryFileSystem::fail(const Failure& failure, bool bOtherDevice) {
    m_failure = failure;
    m_bOtherDevice = bOtherDevice;
    m_seen = 0;
    m_failed = 0;
}

bool InMemoryFileSystem::fails(Call call) {
    if (call != m_failure.FailingCall) {
        return false;
    }
    ++m_seen;
    const bool bFails =
        m_seen == m_failure.When || (m_failure.bFromThenOn && m_seen > m_failure.When);
    m_failed += bFails ? 1 : 0;
    return bFails;
}

// =================================================================================================
// Changing
// =================================================================================================

std::errc InMemoryFileSystem::makeDirectory(const std::string& path) {
    if (fails(Call::MakeDirectory)) {
        return std::errc::permission_denied;
    }
    const Place place = locateItself(path);
    if (place.Error == success) {
        return std::errc::file_exists;
    }
    if (place.Path.empty()) {
        return place.Error;
    }
    m_entries[place.Path] = {Kind::Directory, ""};
    return success;
}

std::errc InMemoryFileSystem::makeDirectories(const std::string& path) {
    if (path.empty()) {
        return std::errc::invalid_argument;
    }
    const std::errc error = examine(path);
    if (error != success || isDirectory(path)) {
        return error;
    }
    if (isThere(path)) {
        return std::errc::not_a_directory;
    }
    const std::string bare = withoutSeparatorAtEnd(path);
    const std::string parent = parentOf(bare);
    if (!parent.empty()) {
        const std::errc parentError = makeDirectories(parent);
        if (parentError != success) {
            return parentError;
        }
    }
    const std::string name = fs::path(bare).filename().string();
    if (name == "." || name == "..") {
        return success;
    }
    const std::errc made = makeDirectory(bare);
    return made == std::errc::file_exists && isDirectory(bare) ? success : made;
}

std::errc InMemoryFileSystem::makeLink(const std::string& path, const std::string& target) {
    const Place place = locateItself(path);
    if (place.Error != success && !place.Path.empty()) {
        m_entries[place.Path] = {Kind::Link, target};
        return success;
    }
    return place.Error == success ? std::errc::file_exists : place.Error;
}

std::errc InMemoryFileSystem::writeFile(const std::string& path, const std::string& bytes) {
    const Place place = locate(path, true);
    if (place.Path.empty()) {
        return place.Error;
    }
    if (place.Error == success && at(place.Path).EntryKind == Kind::Directory) {
        return std::errc::is_a_directory;
    }
    m_entries[place.Path] = {Kind::File, bytes};
    return success;
}

std::errc InMemoryFileSystem::rename(const std::string& from, const std::string& to) {
    if (fails(Call::Rename)) {
        return std::errc::permission_denied;
    }
    if (m_bOtherDevice) {
        return std::errc::cross_device_link;
    }
    const Place source = locate(withoutSeparatorAtEnd(from), false);
    const Place target = locate(withoutSeparatorAtEnd(to), false);
    if (source.Path.empty()) {
        return source.Error;
    }
    // Directories are looked up before names.
    const bool bNameTooLong = target.Error == std::errc::filename_too_long;
    if (target.Path.empty() && !bNameTooLong) {
        return target.Error;
    }
    if (source.Error != success || bNameTooLong) {
        return source.Error != success ? source.Error : target.Error;
    }
    const bool bDirectory = at(source.Path).EntryKind == Kind::Directory;
    if (!bDirectory && (from.back() == '/' || to.back() == '/')) {
        return std::errc::not_a_directory;
    }
    if (source.Path == target.Path) {
        return success;
    }
    if (isBelow(source.Path, target.Path)) {
        return std::errc::invalid_argument;
    }
    if (isBelow(target.Path, source.Path)) {
        return std::errc::directory_not_empty;
    }
    if (target.Error == success) {
        const bool bTargetIsDirectory = at(target.Path).EntryKind == Kind::Directory;
        if (bDirectory != bTargetIsDirectory) {
            return bDirectory ? std::errc::not_a_directory : std::errc::is_a_directory;
        }
        if (bDirectory && !listing(target.Path).empty()) {
            return std::errc::directory_not_empty;
        }
    }
    std::map<std::string, Entry> entries;
    m_entries.erase(target.Path);
    for (const auto& [place, entry] : m_entries) {
        const bool bMoves = place == source.Path || isBelow(source.Path, place);
        entries[bMoves ? target.Path + place.substr(source.Path.size()) : place] = entry;
    }
    m_entries = entries;
    return success;
}

std::errc InMemoryFileSystem::remove(const std::string& path) {
    if (fails(Call::Remove)) {
        return std::errc::permission_denied;
    }
    const Place place = locateItself(path);
    if (place.Error != success) {
        return place.Error == std::errc::no_such_file_or_directory ? success : place.Error;
    }
    if (!listing(place.Path).empty()) {
        return std::errc::directory_not_empty;
    }
    m_entries.erase(place.Path);
    return success;
}

std::errc InMemoryFileSystem::removeAll(const std::string& path) {
    // A separator at the end leads through a link here, so what it points to is emptied.
    const Place place = locate(path, false);
    if (place.Error == std::errc::no_such_file_or_directory) {
        return success;
    }
    if (place.Error == success) {
        for (auto next = m_entries.begin(); next != m_entries.end();) {
            next = isBelow(place.Path, next->first) ? m_entries.erase(next) : std::next(next);
        }
    }
    return remove(path);
}

std::errc InMemoryFileSystem::copyFile(const std::string& from, const std::string& to) {
    if (const std::errc error = examine(to); error != success) {
        return error;
    }
    const Place source = locate(from, true);
    if (source.Error != success) {
        return source.Error;
    }
    const Entry file = at(source.Path);
    if (file.EntryKind != Kind::File || isDirectory(to)) {
        return std::errc::invalid_argument;
    }
    const Place target = locate(to, false);
    if (target.Error == success) { // a dangling link included
        return std::errc::file_exists;
    }
    return writeFile(to, file.Text);
}

std::errc InMemoryFileSystem::copyTree(const std::string& from, const std::string& to) {
    const Place source = locate(from, false);
    if (source.Error != success) {
        return source.Error;
    }
    if (const std::errc error = examine(to); error != success) {
        return error;
    }
    const Entry entry = at(source.Path);
    if (entry.EntryKind == Kind::File && isDirectory(to)) {
        // It goes into the directory of its name, so the tree does not arrive as it was.
        const std::errc error = copyFile(from, child(to, fs::path(from).filename().string()));
        return error == success ? std::errc::io_error : error;
    }
    if (entry.EntryKind == Kind::File) {
        return copyFile(from, to);
    }
    if (entry.EntryKind == Kind::Link) {
        return isThere(to) ? std::errc::invalid_argument : makeLink(to, entry.Text);
    }
    if (isFile(to)) {
        return std::errc::is_a_directory;
    }
    if (!isThere(to)) {
        if (const std::errc error = makeDirectory(to); error != success) {
            return error;
        }
    }
    const std::vector<std::string> items = listing(source.Path);
    for (const std::string& item : items) {
        const std::string name = item.substr(source.Path.size());
        if (const std::errc error = copyTree(item, to + name); error != success) {
            m_bUncertain = m_bUncertain || items.size() > 1;
            return error;
        }
    }
    return success;
}

} // namespace tavro_model
