// Plans of random selections to random targets: what holds of every plan, and the very plan that
// the model makes.

#include "byte_source.h"
#include "demand.h"
#include "stage.h"

#include <sstream>
#include <vector>

namespace fs = std::filesystem;

using namespace tavro_fuzz;

namespace {

std::vector<TavroOperationEntry> selectionFrom(ByteSource& source) {
    std::vector<TavroOperationEntry> selection;
    for (int count = source.number(5); count > 0; --count) {
        TavroOperationEntry entry;
        entry.bDirectory = source.flag();
        entry.Path = stage().inRoot(source.line());
        entry.Name = source.flag() ? stage().inRoot(source.line())
                                   : fs::path(entry.Path).filename().string();
        selection.push_back(entry);
    }
    return selection;
}

std::string describe(bool bMade, const TavroTransferPlan& plan, const std::string& error) {
    std::ostringstream text;
    text << bMade << " '" << error << "' " << plan.bMove << static_cast<int>(plan.ConflictPolicy)
         << plan.SourceLabel;
    for (const TavroTransferItemPlan& item : plan.Items) {
        text << "\n    " << item.Name << " | " << item.SourcePath.string() << " | "
             << item.DestinationPath.string() << " | " << item.bDestinationRenamed
             << item.bDirectory << item.ItemCount << item.ByteCount;
    }
    return text.str();
}

void checkItems(const TavroTransferPlan& plan, const std::vector<TavroOperationEntry>& selection) {
    demand(plan.Items.size() <= selection.size(), "no more items than entries");
    for (std::size_t i = 0; i < plan.Items.size(); ++i) {
        const TavroTransferItemPlan& item = plan.Items[i];
        demandEqual(item.Name, selection[i].Name, "name");
        demandEqual(item.SourcePath.string(), selection[i].Path, "source");
        demandEqual(item.bDirectory, selection[i].bDirectory, "kind");
        demand(!item.bDestinationRenamed && item.ItemCount == 0 && item.ByteCount == 0,
               "nothing is measured or renamed yet");
        const bool bTrack = selection[i].Path.rfind("cdda:", 0) == 0;
        demand(bTrack || !TavroPathsEquivalentOrSame(item.SourcePath, item.DestinationPath),
               "no item goes to itself");
        demand(!item.bDirectory || !TavroPathIsInside(item.SourcePath, item.DestinationPath),
               "no folder goes into itself");
        demand(!bTrack || !plan.bMove, "no audio track is moved");
    }
}

void checkPlan(bool bMade, const TavroTransferPlan& plan, const std::string& error,
               const std::vector<TavroOperationEntry>& selection) {
    checkItems(plan, selection);
    demandEqual(bMade, error == "(untouched)", "a sentence on failure alone");
    if (bMade) {
        demandEqual(plan.Items.size(), selection.size(), "number of items");
    }
    const bool bHeader = plan.SourceLabel == "Tavro";
    demand(bHeader || (plan.SourceLabel.empty() && plan.Items.empty() && !plan.bMove),
           "a default plan or one with its header");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const char* const bases[] = {"$/A", "$/B/to folder", "$/B/dangling", "", "folder"};
    const tavro_test::ScopedCurrentDirectory onStage(stage().currentDirectory());
    ByteSource source(bytes, size);
    const bool bMove = source.flag();
    const auto policy = TavroTransferConflictPolicy(source.number(3));
    const std::string base = stage().inRoot(bases[source.number(5)]);
    const std::string target = stage().inRoot(source.line());
    const std::vector<TavroOperationEntry> selection = selectionFrom(source);

    TavroTransferPlan plan;
    plan.SourceLabel = "(old)";
    plan.Items.resize(2);
    std::string error = "(untouched)";
    const bool bMade = TavroBuildTransferPlan(selection, target, base, bMove, policy, plan, error);
    checkPlan(bMade, plan, error, selection);

    TavroTransferPlan expected;
    std::string expectedError = "(untouched)";
    const bool bExpected = stage().model().buildTransferPlan(selection, target, base, bMove, policy,
                                                             expected, expectedError);
    if (stage().stayedInside()) {
        demandEqual(describe(bMade, plan, error), describe(bExpected, expected, expectedError),
                    "the plan to '" + target + "' in '" + base + "'");
    }
    return 0;
}
