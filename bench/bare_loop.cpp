// What an operation costs at the least: the system calls alone, without a check, a second look or a
// way back. The trash directories exist.
//
//   tavro_bare_loop files FILE…   stat, rename, open, write and close for each file
//   tavro_bare_loop cycle FILE…   that, then back (two stats, rename, unlink), then that again; it
//                                 prints the times of the last two
//   tavro_bare_loop undo FILE…    brings back what was trashed: looks at each, renames it, looks
//                                 again, and unlinks its record
//   tavro_bare_loop copy FILE… DIRECTORY
//                                 copies each file under a hidden name, writes all to the disk,
//                                 gives them their names, and writes these to the disk

#include "phase.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace {

struct Item {
    std::string Original;
    std::string Trashed;
    std::string Record;
};

std::vector<Item> select(const std::vector<std::string>& files) {
    const std::string trash = std::string(std::getenv("HOME")) + "/.local/share/Trash/";
    std::vector<Item> items;
    items.reserve(files.size());
    for (const std::string& file : files) {
        const std::string name = file.substr(file.rfind('/') + 1);
        items.push_back({file, trash + "files/" + name, trash + "info/" + name + ".trashinfo"});
    }
    return items;
}

void check(bool bDone, const std::string& path) {
    if (!bDone) {
        throw std::runtime_error("failed at " + path);
    }
}

bool exists(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

void trash(const std::vector<Item>& items) {
    for (const Item& item : items) {
        check(!exists(item.Trashed), item.Trashed);
        check(std::rename(item.Original.c_str(), item.Trashed.c_str()) == 0, item.Original);
        const std::string record =
            "[Trash Info]\nPath=" + item.Original + "\nDeletionDate=2024-03-05T14:07:09\n";
        const int file = open(item.Record.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        check(file >= 0, item.Record);
        const ssize_t written = write(file, record.data(), record.size());
        check(close(file) == 0 && written == static_cast<ssize_t>(record.size()), item.Record);
    }
}

void restore(const std::vector<Item>& items) {
    for (const Item& item : items) {
        check(exists(item.Trashed) && !exists(item.Original), item.Original);
    }
    for (const Item& item : items) {
        check(std::rename(item.Trashed.c_str(), item.Original.c_str()) == 0, item.Trashed);
        check(unlink(item.Record.c_str()) == 0, item.Record);
    }
}

// Relative to the directories, as fast as it can be.
void undo(const std::vector<Item>& items) {
    const auto open = [](const std::string& path) {
        const int directory =
            ::open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        check(directory >= 0, path);
        return directory;
    };
    const auto nameOf = [](const std::string& path) { return path.c_str() + path.rfind('/') + 1; };
    const int home = open(items.front().Original);
    const int trash = open(items.front().Trashed);
    const int info = open(items.front().Record);
    struct stat status = {};
    for (const Item& item : items) {
        check(fstatat(trash, nameOf(item.Trashed), &status, AT_SYMLINK_NOFOLLOW) == 0,
              item.Trashed);
    }
    for (const Item& item : items) {
        const char* name = nameOf(item.Original);
        check(renameat2(trash, nameOf(item.Trashed), home, name, RENAME_NOREPLACE) == 0 &&
                  fstatat(home, name, &status, AT_SYMLINK_NOFOLLOW) == 0,
              item.Original);
    }
    check(fsync(home) == 0, items.front().Original);
    for (const Item& item : items) {
        check(unlinkat(info, nameOf(item.Record), 0) == 0, item.Record);
    }
    check(fsync(info) == 0 && close(home) == 0 && close(trash) == 0 && close(info) == 0,
          items.front().Record);
}

std::string stagedName(const std::string& name) {
    return ".staged-" + name;
}

void stage(const std::string& path, int target) {
    static char buffer[1 << 17];
    const int from = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    struct stat status = {};
    check(from >= 0 && fstat(from, &status) == 0, path);
    const std::string name = stagedName(path.substr(path.rfind('/') + 1));
    const int to = openat(target, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    check(to >= 0, name);
    for (ssize_t count = 1; count > 0;) {
        count = read(from, buffer, sizeof buffer);
        check(count >= 0 && write(to, buffer, static_cast<std::size_t>(count)) == count, path);
    }
    const timespec times[] = {status.st_atim, status.st_mtim};
    check(flistxattr(from, nullptr, 0) >= 0 && fchmod(to, status.st_mode & 07777U) == 0 &&
              futimens(to, times) == 0 && fstat(to, &status) == 0,
          name);
    check(close(to) == 0 && close(from) == 0, name);
}

void copy(const std::vector<std::string>& files, const std::string& directory) {
    const int target = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    check(target >= 0, directory);
    for (const std::string& file : files) {
        stage(file, target);
    }
    check(syncfs(target) == 0, directory);
    for (const std::string& file : files) {
        const std::string name = file.substr(file.rfind('/') + 1);
        check(renameat2(target, stagedName(name).c_str(), target, name.c_str(), RENAME_NOREPLACE) ==
                  0,
              file);
    }
    check(fsync(target) == 0 && close(target) == 0, directory);
}

} // namespace

int main(int argc, char** argv) try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() < 2) {
        throw std::runtime_error("usage: tavro_bare_loop files|cycle|undo|copy FILE…");
    }
    if (arguments[0] == "copy") {
        copy({arguments.begin() + 1, arguments.end() - 1}, arguments.back());
        return 0;
    }
    const std::vector<Item> items = select({arguments.begin() + 1, arguments.end()});
    if (arguments[0] == "undo") {
        undo(items);
        return 0;
    }
    trash(items);
    if (arguments[0] == "cycle") {
        tavro_bench::printPhase("restore", [&] { restore(items); });
        tavro_bench::printPhase("reapply", [&] { trash(items); });
    }
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
