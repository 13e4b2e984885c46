// The module by itself, without the command. It makes the directory `Notes` in the current one and
// trashes to the home trash of `HOME`. `./dev run` ends with it, in a scratch home.

#include "tavroops.h"
#include "tavropane.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

// What the module asks of its application. This one knows no audio CDs.
bool TavroIsCddaPath(const std::string&) {
    return false;
}

namespace {

void Tell(const std::string& Call, bool bDone, const std::string& ErrorMessage) {
    std::cout << Call << ": " << (bDone ? "true" : "false, \"" + ErrorMessage + '"') << '\n';
}

void ShowPlan(const std::vector<TavroOperationEntry>& Selection, const fs::path& Directory) {
    TavroTransferPlan plan;
    std::string error;
    const bool bPlanned = TavroBuildTransferPlan(Selection, " ~/Archive/ ", Directory, false,
                                                 TavroTransferConflictPolicy::Ask, plan, error);
    Tell("TavroBuildTransferPlan, to copy into ~/Archive/", bPlanned, error);
    for (const TavroTransferItemPlan& item : plan.Items) {
        std::cout << "  " << item.SourcePath.string() << " -> " << item.DestinationPath.string()
                  << (fs::exists(item.DestinationPath) ? " (taken)" : " (free)") << '\n';
    }
}

void ShowPlaces(const std::vector<TavroTrashEntry>& List) {
    for (const TavroTrashEntry& entry : List) {
        const bool bTrashed = fs::exists(entry.TrashPath);
        std::cout << "  now at " << (bTrashed ? entry.TrashPath : entry.OriginalPath) << '\n';
    }
}

void ShowTrash(const std::vector<TavroOperationEntry>& Selection) {
    std::vector<TavroTrashEntry> list; // all that undo and redo need
    std::string error;
    Tell("TavroTrashEntries", TavroTrashEntries(Selection, list, error), error);
    ShowPlaces(list);
    Tell("TavroRestoreTrashEntries, to undo", TavroRestoreTrashEntries(list, error), error);
    ShowPlaces(list);
    Tell("TavroReapplyTrashEntries, to redo", TavroReapplyTrashEntries(list, error), error);
    ShowPlaces(list);
    Tell("TavroRestoreTrashEntries, to undo", TavroRestoreTrashEntries(list, error), error);
    Tell("TavroRestoreTrashEntries, once too often", TavroRestoreTrashEntries(list, error), error);
}

void ShowSize(const fs::path& Directory) {
    int looks = 0;
    const auto afterTwo = [&looks] { return ++looks > 2; };
    std::cout << "TavroCalculateDirectorySize: " << TavroCalculateDirectorySize(Directory, {})
              << "\nTavroCalculateDirectorySize, cancelled after two entries: "
              << TavroCalculateDirectorySize(Directory, afterTwo) << '\n';
}

} // namespace

int main() {
    const fs::path notes = fs::current_path() / "Notes";
    fs::create_directories(notes / "Drafts");
    for (const char* name : {"ideas.txt", "plans.txt", "Drafts/first.txt", "Drafts/second.txt"}) {
        std::ofstream(notes / name) << "Dear reader\n";
    }
    const std::vector<TavroOperationEntry> selection = {
        {"ideas.txt", (notes / "ideas.txt").string(), false},
        {"Drafts", (notes / "Drafts").string(), true},
    };
    ShowPlan(selection, notes);
    ShowTrash(selection);
    ShowSize(notes);
}
