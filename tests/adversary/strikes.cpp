#include "strikes.h"

#include <set>

namespace fs = std::filesystem;

namespace tavro_test {

namespace {

/// Where the entries of the tree may be: where they were, where they went, in the trash.
std::vector<fs::path> treesOf(const World& world) {
    std::vector<fs::path> trees = {world.tree(), world.dest() / "tree",
                                   world.home() / ".local/share/Trash/files/tree"};
    // And where a copy of it is being made.
    for (const fs::path& place : {world.work(), world.dest()}) {
        std::error_code ec;
        if (fs::is_symlink(place, ec)) {
            continue;
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(place, ec)) {
            if (entry.path().filename().string().rfind(".tavro-", 0) == 0) {
                trees.push_back(entry.path());
            }
        }
    }
    return trees;
}

/// Exchanges an entry of each of the trees for a link to the victim's entry of that name.
bool exchangeBelow(World& world, const std::string& below) {
    bool bStruck = false;
    const std::vector<fs::path> trees = treesOf(world);
    for (const fs::path& tree : trees) {
        // The home directory and what lies in it under the user's eyes is not the adversary's.
        const bool bTop = below.empty();
        const bool bHome = tree.string().rfind(world.home().string(), 0) == 0;
        bStruck = (!(bTop && bHome) &&
                   world.exchange(bTop ? tree : tree / below, world.victim() / below)) ||
                  bStruck;
    }
    return bStruck;
}

/// Does something to an entry of each of the trees.
bool strikeBelow(World& world, const std::string& below, bool (World::*act)(const fs::path&)) {
    bool bStruck = false;
    for (const fs::path& tree : treesOf(world)) {
        bStruck = (world.*act)(tree / below) || bStruck;
    }
    return bStruck;
}

} // namespace

const std::vector<Strike>& allStrikes() {
    static const std::vector<Strike> strikes = {
        {"the tree for a link", [](World& world) { return exchangeBelow(world, ""); }},
        {"a directory for a link", [](World& world) { return exchangeBelow(world, "sub"); }},
        {"a deep directory for a link",
         [](World& world) { return exchangeBelow(world, "sub/deep"); }},
        {"a closed directory for a link",
         [](World& world) { return exchangeBelow(world, "sub/closed"); }},
        {"a file for a link", [](World& world) { return exchangeBelow(world, "file"); }},
        {"a deep file for a link",
         [](World& world) { return exchangeBelow(world, "sub/deep/leaf"); }},
        {"a directory carried off",
         [](World& world) { return strikeBelow(world, "sub", &World::carryOff); }},
        {"a middle directory carried off",
         [](World& world) { return strikeBelow(world, "sub/d/d", &World::carryOff); }, true},
        {"a file for a pipe",
         [](World& world) { return strikeBelow(world, "sub/inner", &World::exchangeForPipe); },
         false, true},
        {"the directory that holds the tree for a link",
         [](World& world) {
             return world.isOpen(world.work()) && world.exchange(world.work(), world.victim());
         }},
        {"the directory of the destination for a link",
         [](World& world) {
             return world.isOpen(world.dest()) && world.exchange(world.dest(), world.victim());
         }},
    };
    return strikes;
}

bool seesNames(const std::string& call) {
    static const std::set<std::string> blind = {
        "close",    "fstat",      "fstat64",    "lseek",     "pread",        "pwrite",
        "read",     "write",      "fsync",      "syncfs",    "ftruncate",    "fchmod",
        "futimens", "flistxattr", "fgetxattr",  "fsetxattr", "fremovexattr", "copy_file_range",
        "sendfile", "ioctl",      "localtime_r"};
    return blind.count(call) == 0;
}

} // namespace tavro_test
