// `tavro doctor`.

#include "command.h"
#include "names.h"
#include "recording.h"
#include "recovery.h"
#include "trash.h"
#include "trash_contents.h"

#include <set>

namespace {

/// What is not in order, and what mends it.
struct Finding {
    std::string Path;
    std::string Sentence;
    std::function<TavroFailure()> Mend;
};

TavroFailure FindInTrash(const std::string& Volume, std::vector<Finding>& OutFindings) {
    std::vector<TavroTrashFinding> findings;
    TavroWhichTrashes trashes;
    TavroFailure failure = TavroSeeTrashes(Volume, trashes);
    failure = failure ? failure : TavroExamineTrash(findings, trashes);
    for (const TavroTrashFinding& finding : findings) {
        OutFindings.push_back(
            {finding.Path, TavroDescribe(finding), [=] { return TavroMendTrash(finding); }});
    }
    return failure;
}

/// What a command that was cut off left under a hidden name may be the only one of its kind.
/// @return whether the history could be asked.
bool FindLeftovers(std::vector<Finding>& OutFindings) {
    TavroHistory history;
    std::vector<TavroOperation> operations;
    std::vector<std::uint64_t> counts;
    if (TavroOpenHistory(history) ||
        TavroPrintFailure(history.List(true, operations, counts)) != TavroExitDone) {
        return false;
    }
    for (const std::string& path : TavroFindOrphans(operations)) {
        const auto mend = [=] {
            return TavroTrashSelection({{TavroNameOf(path), path, false}}, {}).Batch.Failure;
        };
        OutFindings.push_back(
            {path, "Left over from an interrupted command: '" + path + "'", mend});
    }
    return true;
}

/// Reports a finding, or mends it.
bool Deal(const Finding& What, bool bMend) {
    if (bMend && TavroPrintFailure(What.Mend()) != TavroExitDone) {
        return false;
    }
    const std::string sentence = TavroShownSentence(stdout, What.Sentence);
    TavroPrintLine(stdout, bMend ? "Mended: " + sentence
                                 : sentence + "; --mend takes '" + TavroNameOf(What.Path) + "'");
    return bMend;
}

/// @param Mend  the names of the findings that are mended.
int RunDoctor(const std::vector<std::string>& Mend, const std::string& Volume, bool bMendAll) {
    std::vector<Finding> findings;
    if (const TavroFailure failure = FindInTrash(Volume, findings)) {
        return TavroPrintFailure(failure);
    }
    bool bAll = FindLeftovers(findings);
    const std::set<std::string> named(Mend.begin(), Mend.end());
    std::set<std::string> sound = named;
    for (const Finding& finding : findings) {
        const std::string name = TavroNameOf(finding.Path);
        bAll = Deal(finding, bMendAll || named.count(name) != 0) && bAll;
        sound.erase(name);
    }
    if (!bAll && !bMendAll && !findings.empty() && TavroIsTerminal(stdout)) {
        TavroPrintLine(stdout, "'tavro doctor --mend-all' mends all that was found");
    }
    for (const std::string& name : sound) {
        TavroPrintError("There is no finding named '" + name + "'");
    }
    if (findings.empty()) {
        TavroPrintLine(stdout, "The trash is in order");
    }
    return bAll && sound.empty() ? TavroExitDone : TavroExitFailed;
}

} // namespace

void TavroAddDoctor(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(
        App, "doctor", "Look for items and records that do not match, and for leftovers",
        "doctor --mend old.iso");
    CLI::Option* mend =
        TavroAddNames(*command, "--mend", 1, "Mend the findings with these names", "NAME...");
    mend->required(false);
    CLI::Option* all = command->add_flag("--mend-all", "Mend every finding");
    CLI::Option* volume = TavroAddVolume(*command);
    Table[command] = [=] {
        return RunDoctor(TavroValues(mend), TavroValue(volume), !all->empty());
    };
}
