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

bool TavroPlanRequest(const TavroTransferRequest& Request, TavroTransferConflictPolicy Policy,
                      TavroTransferPlan& OutPlan) {
    std::vector<TavroOperationEntry> selection;
    if (!TavroFindEntries(Request.Entries, selection)) {
        return false;
    }
    std::string error;
    if (TavroBuildTransferPlan(selection, Request.TargetText, Request.BaseDirectory, Request.bMove,
                               Policy, OutPlan, error)) {
        return true;
    }
    TavroPrintError(error);
    return false;
}

int TavroRunPlan(const TavroTransferRequest& Request, bool bJson) {
    TavroTransferPlan plan;
    if (!TavroPlanRequest(Request, TavroTransferConflictPolicy::Ask, plan)) {
        return TavroExitFailed;
    }
    if (bJson) {
        TavroPrintJson(PlanJson(plan));
    } else {
        TavroPrintPlan(plan);
    }
    return TavroExitDone;
}
