#include "entries.h"

#include "tavropane.h"
#include "terminal.h"

bool TavroFindEntries(const std::vector<std::string>& Texts,
                      std::vector<TavroOperationEntry>& OutEntries) {
    OutEntries.clear();
    bool bAll = true;
    for (const std::string& text : Texts) {
        OutEntries.push_back(TavroSelectEntry(text));
        const std::string& path = OutEntries.back().Path;
        if (!TavroIsCddaPath(path) && !TavroIsPresent(path)) {
            std::error_code ec;
            static_cast<void>(std::filesystem::symlink_status(path, ec));
            const bool bMissing = !ec || ec == std::errc::no_such_file_or_directory ||
                                  ec == std::errc::not_a_directory;
            TavroPrintError(bMissing ? "No such entry: '" + text + "'"
                                     : "Cannot look at '" + text + "': " + ec.message());
            bAll = false;
        }
    }
    return bAll;
}
