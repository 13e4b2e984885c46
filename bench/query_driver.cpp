// Makes one operation do a number of entries, so that compare.sh can count the system calls.
//
//   tavro_query_driver WHAT COUNT FOLDER
//
// WHAT is `plan-files`, `plan-folders`, or one of the path comparisons that a plan is made of,
// `equivalent` and `inside`. The entries FOLDER/source/N exist, and the target FOLDER/target is an
// empty directory.

#include "tavroops.h"

#include <iostream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

struct Selection {
    std::vector<TavroOperationEntry> Entries;
    fs::path Target;
};

Selection select(std::size_t count, const fs::path& folder, bool bDirectory) {
    Selection selection;
    selection.Target = folder / "target";
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = std::to_string(i);
        selection.Entries.push_back({name, (folder / "source" / name).string(), bDirectory});
    }
    return selection;
}

void plan(const Selection& selection) {
    TavroTransferPlan result;
    std::string error;
    if (!TavroBuildTransferPlan(selection.Entries, selection.Target.string(), "/", false,
                                TavroTransferConflictPolicy::Ask, result, error)) {
        throw std::runtime_error(error);
    }
}

/// Calls `compare` with each entry and the path that a plan would give it.
template <typename Compare> void compareAll(const Selection& selection, const Compare& compare) {
    for (const TavroOperationEntry& entry : selection.Entries) {
        if (compare(entry.Path, selection.Target / entry.Name)) {
            throw std::runtime_error("A source and its destination are not apart");
        }
    }
}

} // namespace

int main(int argc, char** argv) try {
    if (argc != 4) {
        throw std::runtime_error("usage: tavro_query_driver WHAT COUNT FOLDER");
    }
    const std::string what = argv[1];
    const Selection selection = select(std::stoul(argv[2]), argv[3], what == "plan-folders");
    if (what == "equivalent") {
        compareAll(selection, TavroPathsEquivalentOrSame);
    } else if (what == "inside") {
        compareAll(selection, TavroPathIsInside);
    } else {
        plan(selection);
    }
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
