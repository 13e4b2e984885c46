// `tavro doctor`.

#include "command.h"
#include "names.h"
#include "trash_contents.h"

#include <set>

namespace {

/// Reports a finding, or mends it.
bool Deal(const TavroTrashFinding& Finding, bool bMend) {
    if (bMend && TavroPrintFailure(TavroMendTrash(Finding)) != TavroExitDone) {
        return false;
    }
    TavroPrintLine(stdout, (bMend ? "Mended: " : "") + TavroDescribe(Finding));
    return bMend;
}

/// @param Mend  the names of the findings that are mended.
int RunDoctor(const std::vector<std::string>& Mend, bool bMendAll) {
    std::vector<TavroTrashFinding> findings;
    if (const TavroFailure failure = TavroExamineTrash(findings)) {
        return TavroPrintFailure(failure);
    }
    bool bAll = true;
    const std::set<std::string> named(Mend.begin(), Mend.end());
    std::set<std::string> sound = named;
    for (const TavroTrashFinding& finding : findings) {
        const std::string name = TavroNameOf(finding.Path);
        bAll = Deal(finding, bMendAll || named.count(name) != 0) && bAll;
        sound.erase(name);
    }
    for (const std::string& name : sound) {
        TavroPrintError("Nothing is wrong with '" + name + "'");
    }
    if (findings.empty()) {
        TavroPrintLine(stdout, "The trash is in order.");
    }
    return bAll && sound.empty() ? TavroExitDone : TavroExitFailed;
}

} // namespace

void TavroAddDoctor(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(
        App, "doctor", "Look for items and records that do not match", "doctor --mend old.iso");
    CLI::Option* mend = TavroAddNames(*command, "--mend", 1, "Mend the findings with these names");
    mend->required(false)->type_name("NAME...");
    CLI::Option* all = command->add_flag("--mend-all", "Mend every finding");
    Table[command] = [=] { return RunDoctor(TavroValues(mend), !all->empty()); };
}
