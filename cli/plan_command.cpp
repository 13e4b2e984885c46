#include "commands.h"
#include "entries.h"
#include "percent.h"
#include "terminal.h"

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

const char* PolicyText(TavroTransferConflictPolicy Policy) {
    switch (Policy) {
    case TavroTransferConflictPolicy::Overwrite:
        return "overwrite";
    case TavroTransferConflictPolicy::Skip:
        return "skip";
    case TavroTransferConflictPolicy::Ask:
        break;
    }
    return "ask";
}

/// JSON holds Unicode only, so each path stands there twice: to be read, and, exact to the byte, as
/// a URI.
Json ItemJson(const TavroTransferItemPlan& Item) {
    return {{"name", Item.Name},
            {"sourcePath", Item.SourcePath.string()},
            {"sourceUri", "file://" + TavroPercentEncode(Item.SourcePath.string())},
            {"destinationPath", Item.DestinationPath.string()},
            {"destinationUri", "file://" + TavroPercentEncode(Item.DestinationPath.string())},
            {"directory", Item.bDirectory}};
}

std::string PlanJson(const TavroTransferPlan& Plan) {
    Json json = {{"move", Plan.bMove},
                 {"conflictPolicy", PolicyText(Plan.ConflictPolicy)},
                 {"sourceLabel", Plan.SourceLabel},
                 {"items", Json::array()}};
    for (const TavroTransferItemPlan& item : Plan.Items) {
        json["items"].push_back(ItemJson(item));
    }
    return json.dump(2, ' ', true, Json::error_handler_t::replace);
}

} // namespace

int TavroRunPlan(const TavroPlanArguments& Arguments) {
    std::vector<TavroOperationEntry> selection;
    if (!TavroFindEntries(Arguments.Entries, selection)) {
        return TavroExitFailed;
    }
    TavroTransferPlan plan;
    std::string error;
    if (!TavroBuildTransferPlan(selection, Arguments.TargetText, Arguments.BaseDirectory,
                                Arguments.bMove, Arguments.ConflictPolicy, plan, error)) {
        TavroPrintError(error);
        return TavroExitFailed;
    }
    if (Arguments.bJson) {
        std::fputs((PlanJson(plan) + '\n').c_str(), stdout);
        return TavroExitDone;
    }
    for (const TavroTransferItemPlan& item : plan.Items) {
        TavroPrintLine(stdout, item.SourcePath.string() + " -> " + item.DestinationPath.string());
    }
    return TavroExitDone;
}
