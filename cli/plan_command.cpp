// `tavro plan copy` and `tavro plan move`.

#include "command.h"
#include "format.h"
#include "json.h"
#include "plan.h"

CLI::Option* TavroAddTransferNames(CLI::App& Command) {
    return TavroAddNames(Command, "ENTRY... TEXT", 2,
                         "The entries, and last the target as a pane takes it",
                         "at least one entry and a target");
}

namespace {

/// What the module says, with the path named and in quotes.
std::string InOwnWords(const std::string& Sentence, const std::string& Target) {
    const std::size_t colon = Sentence.find(" into itself: ");
    if (colon != std::string::npos) {
        const std::size_t path = colon + std::string(" into itself: ").size();
        return Sentence.substr(0, path) + "'" + Sentence.substr(path) + "'";
    }
    if (Sentence.find("must be a directory when") != std::string::npos) {
        return "'" + Target + "' is not a directory, and several entries are to go there";
    }
    const bool bEmpty = Sentence.find("target cannot be empty") != std::string::npos;
    return bEmpty ? "The target is empty" : Sentence;
}

} // namespace

bool TavroPlanNames(const CLI::Option* Names, const CLI::Option* In, bool bMove,
                    TavroTransferConflictPolicy Policy, TavroTransferPlan& OutPlan) {
    std::vector<std::string> names = TavroValues(Names);
    const std::string target = std::move(names.back());
    names.pop_back();
    std::vector<TavroOperationEntry> entries;
    if (!TavroFindEntries(names, entries)) {
        return false;
    }
    if (!TavroCanResolve(target)) {
        return false;
    }
    std::string error;
    if (TavroPlanTransfer(entries, target, TavroBaseDirectory(In), bMove, Policy, OutPlan, error)) {
        return true;
    }
    TavroPrintError(InOwnWords(error, target));
    return false;
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
