#include "model.h"

#include <set>

namespace fs = std::filesystem;

namespace tavro_model {

namespace {

constexpr std::errc success = std::errc();

std::string parentOf(const std::string& path) {
    return fs::path(path).parent_path().string();
}

} // namespace

// =================================================================================================
// Text and paths
// =================================================================================================

namespace {

std::string textOf(std::errc error) {
    return std::make_error_code(error).message();
}

bool isAudioTrack(const std::string& path) {
    return path.rfind("cdda:", 0) == 0;
}

bool refuse(std::string& error, const std::string& sentence) {
    error = sentence;
    return false;
}

} // namespace

std::string Model::trimText(const std::string& text) {
    const char* blanks = " \t\n\v\f\r";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool Model::endsWithPathSeparator(const std::string& text) {
    return !text.empty() && (text.back() == '/' || text.back() == '\\');
}

std::string Model::canonicalizePath(const std::string& path) const {
    if (path.empty()) {
        return "";
    }
    const fs::path absolute =
        path[0] == '/' ? fs::path(path) : fs::path(Disk.CurrentDirectory) / path;
    std::errc error = success;
    const fs::path canonical = Disk.weaklyCanonical(absolute, error);
    return (error == success ? canonical : absolute.lexically_normal()).string();
}

std::string Model::homeDirectoryPath() const {
    return canonicalizePath(Home.value_or(""));
}

fs::path Model::resolveUserPath(const std::string& text, const fs::path& base) const {
    std::string expanded = text;
    const bool bTilde = text == "~" || text.rfind("~/", 0) == 0 || text.rfind("~\\", 0) == 0;
    if (bTilde && !homeDirectoryPath().empty()) {
        expanded.replace(0, 1, homeDirectoryPath());
    }
    if (expanded.empty()) {
        return {};
    }
    const fs::path path = expanded[0] == '/' ? fs::path(expanded) : base / expanded;
    std::errc error = success;
    const fs::path canonical = Disk.weaklyCanonical(path, error);
    return error == success ? canonical : path.lexically_normal();
}

bool Model::pathsEquivalentOrSame(const fs::path& a, const fs::path& b) const {
    const bool bBothThere = Disk.isThere(a.string()) && Disk.isThere(b.string());
    if (bBothThere && Disk.locate(a.string(), true).Path == Disk.locate(b.string(), true).Path) {
        return true;
    }
    return canonicalizePath(a.string()) == canonicalizePath(b.string());
}

bool Model::pathIsInside(const fs::path& parent, const fs::path& inner) const {
    const std::string outerText = canonicalizePath(parent.string());
    const std::string innerText = canonicalizePath(inner.string());
    return !outerText.empty() && innerText.size() > outerText.size() &&
           innerText.substr(0, outerText.size() + 1) == outerText + "/";
}

// =================================================================================================
// Plans and single entries
// =================================================================================================

bool Model::buildTransferPlan(const std::vector<TavroOperationEntry>& entries,
                              const std::string& text, const fs::path& base, bool bMove,
                              TavroTransferConflictPolicy policy, TavroTransferPlan& outPlan,
                              std::string& error) const {
    const std::string verb = bMove ? "move" : "copy";
    const std::string Verb = bMove ? "Move" : "Copy";
    outPlan = TavroTransferPlan();
    if (entries.empty()) {
        return refuse(error, "Nothing selected to " + verb + ".");
    }
    const std::string target = trimText(text);
    if (target.empty()) {
        return refuse(error, Verb + " target cannot be empty.");
    }
    const fs::path path = resolveUserPath(target, base);
    const bool bTargetIsDirectory = Disk.isDirectory(path.string());
    if (entries.size() > 1 && Disk.isThere(path.string()) && !bTargetIsDirectory) {
        return refuse(error,
                      Verb + " Target must be a directory when multiple items are selected.");
    }
    outPlan.bMove = bMove;
    outPlan.ConflictPolicy = policy;
    outPlan.SourceLabel = "Tavro";
    for (const TavroOperationEntry& entry : entries) {
        const bool bTrack = isAudioTrack(entry.Path);
        if (bTrack && bMove) {
            return refuse(error, "Audio CD tracks can be copied, but not moved.");
        }
        fs::path name = fs::path(entry.Path).filename();
        if (bTrack) {
            const std::string extension = fs::path(entry.Name).extension().string();
            const std::size_t kept = entry.Name.size() - (extension == ".cdda" ? 5 : 0);
            name = entry.Name.substr(0, kept);
            name += extension == ".cdda" || extension.empty() ? ".wav" : "";
        }
        const bool bItself = entries.size() == 1 && bTargetIsDirectory &&
                             !endsWithPathSeparator(target) && path.filename() == name;
        const bool bInto =
            entries.size() > 1 || endsWithPathSeparator(target) || (bTargetIsDirectory && !bItself);
        const fs::path destination = bInto ? path / name : path;
        if (!bTrack && pathsEquivalentOrSame(entry.Path, destination)) {
            return refuse(error,
                          Verb + " target matches the source path for '" + entry.Name + "'.");
        }
        if (entry.bDirectory && pathIsInside(entry.Path, destination)) {
            return refuse(error, "Cannot " + verb + " a directory into itself: " + entry.Name);
        }
        const std::errc reason = Disk.examine(destination.string());
        if (reason != success) {
            return refuse(error, "Failed checking destination '" + destination.string() +
                                     "': " + textOf(reason));
        }
        outPlan.Items.push_back(
            {entry.Name, entry.Path, destination, false, entry.bDirectory, 0, 0});
    }
    return true;
}

bool Model::renameEntry(const TavroOperationEntry& entry, const std::string& text,
                        const fs::path& base, std::string& outPath, std::string& error) {
    outPath.clear();
    if (entry.Path.empty()) {
        return refuse(error, "Nothing selected to rename.");
    }
    if (isAudioTrack(entry.Path)) {
        return refuse(error, "Audio CD tracks cannot be renamed. Copy them to disk first.");
    }
    if (trimText(text).empty()) {
        return refuse(error, "Rename target cannot be empty.");
    }
    fs::path target = resolveUserPath(trimText(text), base);
    if (target.parent_path().empty()) {
        target = fs::path(entry.Path).parent_path() / target;
    }
    const std::errc reason = Disk.examine(target.string());
    if (reason != success) {
        throw fs::filesystem_error("status", target, std::make_error_code(reason));
    }
    if (Disk.isDirectory(target.string())) {
        return refuse(error, "Rename target must include a file or directory name.");
    }
    if (pathsEquivalentOrSame(entry.Path, target)) {
        return refuse(error, "Rename target matches the current path.");
    }
    if (Disk.isThere(target.string())) {
        return refuse(error, "Rename target already exists.");
    }
    const fs::path parent = target.parent_path();
    if (!parent.empty()) {
        const std::errc made = Disk.makeDirectories(parent.string());
        if (made != success) {
            return refuse(error, "Failed to create rename target directory: " + textOf(made));
        }
    }
    const std::errc renamed = Disk.rename(entry.Path, target.string());
    if (renamed != success) {
        return refuse(error, "Rename failed: " + textOf(renamed));
    }
    outPath = canonicalizePath(target.string());
    return true;
}

bool Model::createDirectory(const std::string& text, const fs::path& base, std::string& outPath,
                            std::string& error) {
    outPath.clear();
    if (trimText(text).empty()) {
        return refuse(error, "Directory path cannot be empty.");
    }
    const std::string path = resolveUserPath(trimText(text), base).string();
    const std::errc made = Disk.makeDirectories(path);
    if (made != success) {
        return refuse(error, "Failed to create directory: " + textOf(made));
    }
    outPath = canonicalizePath(path);
    return true;
}

bool Model::deleteEntries(const std::vector<TavroOperationEntry>& entries, bool bUseTrash,
                          std::string& error) {
    if (entries.empty()) {
        return refuse(error, "Nothing selected to delete.");
    }
    if (bUseTrash) {
        std::vector<TavroTrashEntry> dropped;
        return trashEntries(entries, dropped, error);
    }
    for (const TavroOperationEntry& entry : entries) {
        const std::errc removed =
            entry.bDirectory ? Disk.removeAll(entry.Path) : Disk.remove(entry.Path);
        if (removed != success) {
            return refuse(error, "Delete failed for '" + entry.Name + "': " + textOf(removed));
        }
    }
    return true;
}

std::uintmax_t Model::calculateDirectorySize(const std::string& root, int& outEntryCount) const {
    outEntryCount = 0;
    if (!Disk.isDirectory(root)) {
        return 0;
    }
    std::uintmax_t total = 0;
    for (const std::string& place : Disk.listing(Disk.locate(root, true).Path)) {
        int inner = 0;
        if (Disk.at(place).EntryKind == Kind::Directory) {
            total += calculateDirectorySize(place, inner);
        } else if (Disk.isFile(place)) {
            total += Disk.at(Disk.locate(place, true).Path).Text.size();
        }
        outEntryCount += 1 + inner;
    }
    return total;
}

// =================================================================================================
// The trash
// =================================================================================================

fs::path Model::freePath(const fs::path& wanted) const {
    const std::string stem = wanted.stem().empty() ? wanted.filename() : wanted.stem();
    fs::path candidate = wanted;
    for (int number = 1; Disk.isThere(candidate.string()); ++number) {
        candidate = wanted.parent_path() /
                    (stem + " copy " + std::to_string(number) + wanted.extension().string());
    }
    return candidate;
}

bool Model::move(const std::string& from, const std::string& to, bool bDirectory,
                 std::string& error) {
    const std::errc made = Disk.makeDirectories(parentOf(to));
    if (made != success) {
        return refuse(error, "Failed to create destination directory: " + textOf(made));
    }
    const std::errc renamed = Disk.rename(from, to);
    if (renamed == success) {
        return true;
    }
    if (renamed != std::errc::cross_device_link) {
        return refuse(error, "Failed to move '" + from + "': " + textOf(renamed));
    }
    const std::errc copied = bDirectory ? Disk.copyTree(from, to) : Disk.copyFile(from, to);
    if (copied != success) {
        return refuse(error, "Failed to copy '" + from + "': " + textOf(copied));
    }
    const std::errc removed = bDirectory ? Disk.removeAll(from) : Disk.remove(from);
    if (removed == success) {
        return true;
    }
    static_cast<void>(bDirectory ? Disk.removeAll(to) : Disk.remove(to));
    return refuse(error,
                  "Failed to remove original '" + from + "' after copying: " + textOf(removed));
}

bool Model::writeRecord(const TavroTrashEntry& entry, std::string& error) {
    static const std::string kept =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-./_~";
    std::string encoded;
    for (const char byte : entry.OriginalPath) {
        const auto value = static_cast<unsigned char>(byte);
        if (kept.find(byte) != std::string::npos) {
            encoded += byte;
        } else {
            encoded += {'%', "0123456789ABCDEF"[value / 16], "0123456789ABCDEF"[value % 16]};
        }
    }
    if (Disk.fails(Call::OpenRecord) || Disk.writeFile(entry.InfoPath, "") != success) {
        return refuse(error, "Failed to create trash metadata '" + entry.InfoPath + "'.");
    }
    if (!Disk.fails(Call::WriteRecord)) {
        Disk.writeFile(entry.InfoPath,
                       "[Trash Info]\nPath=" + encoded + "\nDeletionDate=" + Date + "\n");
    }
    return true;
}

fs::path Model::trashFolder(const char* name) const {
    return fs::path(homeDirectoryPath()) / ".local/share/Trash" / name;
}

bool Model::ensureTrash(std::string& error) {
    if (homeDirectoryPath().empty()) {
        return refuse(error, "Trash is unavailable because HOME is not set.");
    }
    for (const char* name : {"files", "info"}) {
        const std::errc made = Disk.makeDirectories(trashFolder(name).string());
        if (made != success) {
            return refuse(error, std::string("Failed to create trash ") + name +
                                     " directory: " + textOf(made));
        }
    }
    return true;
}

TavroTrashEntry Model::entryAt(const TavroOperationEntry& entry, const fs::path& place) const {
    const fs::path record = trashFolder("info") / (place.filename().string() + ".trashinfo");
    return {canonicalizePath(entry.Path), place.string(), record.string(), entry.bDirectory};
}

bool Model::trashEntry(const TavroOperationEntry& entry, TavroTrashEntry& outEntry,
                       std::string& error) {
    if (!ensureTrash(error)) {
        return false;
    }
    const fs::path place = freePath(trashFolder("files") / fs::path(entry.Path).filename());
    if (!move(entry.Path, place.string(), entry.bDirectory, error)) {
        return false;
    }
    outEntry = entryAt(entry, place);
    if (writeRecord(outEntry, error)) {
        return true;
    }
    Disk.remove(outEntry.InfoPath);
    std::string rollback;
    if (!move(place.string(), entry.Path, entry.bDirectory, rollback)) {
        error += " Rollback failed: " + rollback;
    }
    return false;
}

bool Model::trashEntries(const std::vector<TavroOperationEntry>& entries,
                         std::vector<TavroTrashEntry>& outEntries, std::string& error) {
    if (entries.empty()) {
        return refuse(error, "Nothing selected to delete.");
    }
    outEntries.clear();
    for (const TavroOperationEntry& entry : entries) {
        TavroTrashEntry trashed;
        if (trashEntry(entry, trashed, error)) {
            outEntries.push_back(trashed);
            continue;
        }
        std::string rollback;
        if (!outEntries.empty() && !restoreTrashEntries(outEntries, rollback)) {
            error += " Rollback failed: " + rollback;
        }
        outEntries.clear();
        return false;
    }
    return true;
}

bool Model::prepareTrashEntries(const std::vector<TavroOperationEntry>& entries,
                                std::vector<TavroTrashEntry>& outEntries, std::string& error) {
    if (entries.empty()) {
        return refuse(error, "Nothing selected to delete.");
    }
    if (!ensureTrash(error)) {
        return false;
    }
    outEntries.clear();
    std::set<std::string> claimed;
    for (const TavroOperationEntry& entry : entries) {
        fs::path place = freePath(trashFolder("files") / fs::path(entry.Path).filename());
        while (claimed.count(place.string()) > 0) {
            place = freePath(place.string() + " copy");
        }
        claimed.insert(place.string());
        outEntries.push_back(entryAt(entry, place));
    }
    return true;
}

bool Model::writeTrashInfoEntries(const std::vector<TavroTrashEntry>& entries, std::string& error) {
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (writeRecord(entries[i], error)) {
            continue;
        }
        while (i > 0) {
            Disk.remove(entries[--i].InfoPath);
        }
        return false;
    }
    return true;
}

void Model::removeTrashInfoEntries(const std::vector<TavroTrashEntry>& entries) {
    for (const TavroTrashEntry& entry : entries) {
        Disk.remove(entry.InfoPath);
    }
}

bool Model::restoreTrashEntries(const std::vector<TavroTrashEntry>& entries, std::string& error) {
    if (entries.empty()) {
        return refuse(error, "No trash entries are available to restore.");
    }
    for (const TavroTrashEntry& entry : entries) {
        if (!Disk.isThere(entry.TrashPath)) {
            return refuse(error, "Trash item is missing: " + entry.TrashPath);
        }
        if (Disk.isThere(entry.OriginalPath) || Disk.examine(entry.OriginalPath) != success) {
            return refuse(error, "Restore target already exists: " + entry.OriginalPath);
        }
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (move(entries[i].TrashPath, entries[i].OriginalPath, entries[i].bDirectory, error)) {
            Disk.remove(entries[i].InfoPath);
            continue;
        }
        std::string firstRollback;
        while (i > 0) {
            const TavroTrashEntry& entry = entries[--i];
            std::string rollback;
            if (move(entry.OriginalPath, entry.TrashPath, entry.bDirectory, rollback)) {
                writeRecord(entry, rollback);
            } else if (firstRollback.empty()) {
                firstRollback = rollback;
            }
        }
        if (!firstRollback.empty()) {
            error += " Rollback failed: " + firstRollback;
        }
        return false;
    }
    return true;
}

bool Model::reapplyTrashEntries(std::vector<TavroTrashEntry>& entries, std::string& error) {
    if (entries.empty()) {
        return refuse(error, "No restored trash entries are available.");
    }
    std::vector<TavroOperationEntry> selection;
    for (const TavroTrashEntry& entry : entries) {
        selection.push_back({"", entry.OriginalPath, entry.bDirectory});
    }
    std::vector<TavroTrashEntry> trashed;
    if (!trashEntries(selection, trashed, error)) {
        return false;
    }
    entries = trashed;
    return true;
}

} // namespace tavro_model
