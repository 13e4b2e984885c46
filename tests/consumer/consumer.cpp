// An application with the module in it: it trashes a file and puts it back, and has audio tracks of
// its own. Exits with 1 and a sentence when the module does not do its part.
//
// Works in the current directory and in the trash of HOME.

#include "tavroops.h"
#include "tavropane.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

bool TavroIsCddaPath(const std::string& Path) {
    return Path.find("/disc/track") != std::string::npos;
}

namespace {

void Expect(bool bHolds, const std::string& What) {
    if (!bHolds) {
        std::cerr << "the consumer expected: " << What << '\n';
        std::exit(1);
    }
}

bool Holds(const std::string& Path, const std::string& Text) {
    std::ifstream file(Path);
    std::string line;
    return std::getline(file, line) && line == Text;
}

TavroOperationEntry EntryOf(const std::string& Name) {
    return {Name, (std::filesystem::current_path() / Name).string(), false};
}

void TrashAndRestore() {
    const TavroOperationEntry letter = EntryOf("letter.txt");
    std::ofstream(letter.Path) << "Dear reader\n";
    std::vector<TavroTrashEntry> trashed;
    std::string error;
    Expect(TavroTrashEntries({letter}, trashed, error), "a letter in the trash, but " + error);
    Expect(!std::filesystem::exists(letter.Path), "no letter outside of the trash");
    Expect(Holds(TavroHomeDirectoryPath() + "/.local/share/Trash/files/letter.txt", "Dear reader"),
           "the letter in the trash of HOME");
    Expect(TavroRestoreTrashEntries(trashed, error), "the letter back, but " + error);
    Expect(Holds(letter.Path, "Dear reader"), "the letter where it was");
}

/// The module asks this application, not some other, what an audio track is.
void RefuseToMoveTracks() {
    TavroTransferPlan plan;
    std::string error;
    const TavroOperationEntry track = {"track 1", "/disc/track 1", false};
    Expect(!TavroBuildTransferPlan({track}, "songs/", std::filesystem::current_path(), true,
                                   TavroTransferConflictPolicy::Ask, plan, error),
           "no plan to move an audio track");
    Expect(error == "Audio CD tracks can be copied, but not moved.", "its reason, not: " + error);
}

} // namespace

int main() {
    TrashAndRestore();
    RefuseToMoveTracks();
    std::cout << "The consumer is content.\n";
}
