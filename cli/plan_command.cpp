// `tavro plan copy` and `tavro plan move`.

#include "command.h"
#include "format.h"
#include "json.h"
#include "names.h"
#include "plan.h"
#include "transfer.h"

CLI::Option* TavroAddTransferNames(CLI::App& Command) {
    return TavroAddNames(Command, "ENTRY... TEXT", 2,
                         "The entries, then the target: a directory, a new path, ~/…",
                         "at least one entry and a target");
}

namespace {

/// What the module says, with the path named and in quotes.
std::string InOwnWords(const std::string& Sentence, const std::string& Target) {
    const std::string itself = " a directory into itself: ";
    const std::size_t verbEnd = Sentence.find(itself);
    if (verbEnd != std::string::npos) {
        return Sentence.substr(0, verbEnd) + " the directory '" +
               Sentence.substr(verbEnd + itself.size()) + "' into itself";
    }
    const std::string checking = "Failed checking destination ";
    if (Sentence.compare(0, checking.size(), checking) == 0) {
        return "Cannot look at " + Sentence.substr(checking.size());
    }
    if (Sentence.find("must be a directory when") != std::string::npos) {
        return "'" + Target + "' is not a directory, and several entries are to go there";
    }
    const std::string same = " target matches the source path for ";
    const std::size_t matches = Sentence.find(same);
    if (matches != std::string::npos) {
        return "The source and the target are the same: " + Sentence.substr(matches + same.size());
    }
    const bool bEmpty = Sentence.find("target cannot be empty") != std::string::npos;
    return bEmpty ? "No target was given" : Sentence;
}

/// Takes out of the entries those that would be copied onto themselves, and plans free names for
/// them.
std::vector<TavroTransferItemPlan> TakeDuplicates(std::vector<TavroOperationEntry>& IoEntries,
                                                  const std::string& Text,
                                                  const std::string& BaseDirectory) {
    const std::string target = TavroResolveUserPath(Text, BaseDirectory).string();
    const std::string ownTarget = TavroFindOwnPath(target);
    // Several entries, or a slash, mean a directory.
    const bool bInto = IoEntries.size() > 1 || (!Text.empty() && Text.back() == '/');
    std::vector<TavroTransferItemPlan> duplicates;
    std::vector<TavroOperationEntry> others;
    for (TavroOperationEntry& entry : IoEntries) {
        const std::string own = TavroFindOwnPath(entry.Path);
        const std::string inside = TavroFindOwnPath(TavroJoin(target, TavroNameOf(own)));
        if (own != inside && (bInto || own != ownTarget)) {
            others.push_back(std::move(entry));
            continue;
        }
        TavroTransferItemPlan item;
        item.Name = entry.Name;
        item.SourcePath = entry.Path;
        item.DestinationPath = TavroFreePathBeside(own);
        item.bDestinationRenamed = true;
        item.bDirectory = entry.bDirectory;
        duplicates.push_back(std::move(item));
    }
    IoEntries = std::move(others);
    return duplicates;
}

} // namespace

bool TavroPlanNames(const CLI::Option* Names, const CLI::Option* In, bool bMove,
                    TavroTransferConflictPolicy Policy, TavroTransferPlan& OutPlan,
                    bool bKeepBoth) {
    std::vector<std::string> names = TavroValues(Names);
    const std::string target = std::move(names.back());
    names.pop_back();
    std::vector<TavroOperationEntry> entries;
    if (!TavroFindEntries(names, entries) || !TavroCanResolve(target)) {
        return false;
    }
    const std::string base = TavroBaseDirectory(In);
    std::vector<TavroTransferItemPlan> duplicates;
    if (bKeepBoth && !bMove) {
        duplicates = TakeDuplicates(entries, TavroTrimText(target), base);
    }
    std::string error;
    OutPlan.SourceLabel = "Tavro";
    const bool bAll = entries.empty() && !duplicates.empty();
    if (!bAll && !TavroPlanTransfer(entries, target, base, bMove, Policy, OutPlan, error)) {
        TavroPrintError(InOwnWords(error, target));
        return false;
    }
    OutPlan.Items.insert(OutPlan.Items.end(), duplicates.begin(), duplicates.end());
    return true;
}

void TavroPrintPlan(const TavroTransferPlan& Plan) {
    for (const TavroTransferItemPlan& item : Plan.Items) {
        const std::string to = item.DestinationPath.string();
        TavroPrintLine(stdout, TavroShownStep(item.SourcePath.string(), to) +
                                   (TavroIsPresent(to) ? " (exists)" : ""));
    }
}

namespace {

void PrintPlanJson(const TavroTransferPlan& Plan) {
    TavroJson json = {
        {"move", Plan.bMove}, {"sourceLabel", Plan.SourceLabel}, {"items", TavroJson::array()}};
    for (const TavroTransferItemPlan& item : Plan.Items) {
        TavroJson itemJson;
        TavroAddPath(itemJson, "source", item.SourcePath.string());
        TavroAddPath(itemJson, "destination", item.DestinationPath.string());
        itemJson["directory"] = item.bDirectory;
        itemJson["exists"] = TavroIsPresent(item.DestinationPath.string());
        json["items"].push_back(itemJson);
    }
    TavroPrintJson(json);
}

void AddVerb(CLI::App& Plan, bool bMove, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(
        Plan, bMove ? "move" : "copy", bMove ? "Plan a move" : "Plan a copy",
        bMove ? "plan move a.txt b.txt ~/done/" : "plan copy a.txt b.txt ~/backup/");
    CLI::Option* names = TavroAddTransferNames(*command);
    CLI::Option* in = TavroAddBaseDirectory(*command);
    CLI::Option* json = command->add_flag("--json", "Print the plan as JSON");
    Table[command] = [=]() -> int {
        TavroTransferPlan plan;
        if (!TavroPlanNames(names, in, bMove, TavroTransferConflictPolicy::Ask, plan)) {
            return TavroExitFailed;
        }
        json->empty() ? TavroPrintPlan(plan) : PrintPlanJson(plan);
        return TavroExitDone;
    };
}

} // namespace

void TavroAddPlan(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "plan", "Show what a copy or a move would do",
                                        "plan copy photos /media/stick/");
    command->require_subcommand(1);
    AddVerb(*command, false, Table);
    AddVerb(*command, true, Table);
}
