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
            TavroPrintError("No such entry: '" + text + "'");
            bAll = false;
        }
    }
    return bAll;
}
