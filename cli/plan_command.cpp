// `tavro plan`.

#include "commands.h"
#include "entries.h"
#include "json.h"
#include "terminal.h"

namespace {

TavroJson PlanJson(const TavroTransferPlan& Plan) {
    TavroJson json = {
        {"move", Plan.bMove}, {"sourceLabel", Plan.SourceLabel}, {"items", TavroJson::array()}};
    for (const TavroTransferItemPlan& item : Plan.Items) {
        TavroJson itemJson;
        TavroAddPath(itemJson, "source", item.SourcePath.string());
        TavroAddPath(itemJson, "destination", item.DestinationPath.string());
        itemJson["directory"] = item.bDirectory;
        json["items"].push_back(itemJson);
    }
    return json;
}

} // namespace

void TavroPrintPlan(const TavroTransferPlan& Plan) {
    for (const TavroTransferItemPlan& item : Plan.Items) {
        TavroPrintLine(stdout, item.SourcePath.string() + " -> " + item.DestinationPath.string());
    }
}

int TavroRunPlan(const TavroPlanArguments& Arguments) {
    std::vector<TavroOperationEntry> selection;
    if (!TavroFindEntries(Arguments.Entries, selection)) {
        return TavroExitFailed;
    }
    TavroTransferPlan plan;
    std::string error;
    if (!TavroBuildTransferPlan(selection, Arguments.TargetText, Arguments.BaseDirectory,
                                Arguments.bMove, TavroTransferConflictPolicy::Ask, plan, error)) {
        TavroPrintError(error);
        return TavroExitFailed;
    }
    if (Arguments.bJson) {
        TavroPrintJson(PlanJson(plan));
    } else {
        TavroPrintPlan(plan);
    }
    return TavroExitDone;
}
