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
    std::set<std::string> found;
    for (const TavroTrashFinding& finding : findings) {
        found.insert(TavroNameOf(finding.Path));
    }
    bool bAll = true;
    for (const std::string& name : Mend) {
        if (found.count(name) == 0) {
            TavroPrintError("Nothing is wrong with '" + name + "'");
            bAll = false;
        }
    }
    const std::set<std::string> mended(Mend.begin(), Mend.end());
    for (const TavroTrashFinding& finding : findings) {
        bAll = Deal(finding, bMendAll || mended.count(TavroNameOf(finding.Path)) != 0) && bAll;
    }
    if (findings.empty()) {
        TavroPrintLine(stdout, "The trash is in order.");
    }
    return bAll ? TavroExitDone : TavroExitFailed;
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
