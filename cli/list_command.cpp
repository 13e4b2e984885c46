// `tavro list`.

#include "choosing.h"
#include "format.h"
#include "json.h"
#include "trash_record.h"

#include <ctime>
#include <optional>

namespace {

TavroJson ItemJson(const TavroTrashItem& Item) {
    TavroJson json;
    TavroAddPath(json, "trash", Item.TrashPath());
    TavroAddPath(json, "original", Item.OriginalPath);
    const std::optional<std::time_t> time = TavroTimeOfDate(Item.DeletionDate);
    json["deletionDate"] = time ? TavroJson(TavroTimeText(*time)) : TavroJson();
    json["byteCount"] = Item.ByteCount;
    json["directory"] = Item.bDirectory;
    return json;
}

std::vector<TavroCell> ItemRow(const TavroTrashItem& Item) {
    if (!TavroIsTerminal(stdout)) {
        return {{Item.DeletionDate, TavroStyle::Dim},
                {std::to_string(Item.ByteCount)},
                {Item.Name},
                {Item.OriginalPath}};
    }
    const std::optional<std::time_t> time = TavroTimeOfDate(Item.DeletionDate);
    return {{time ? TavroShownTime(*time) : "-", TavroStyle::Dim},
            {TavroHumanSize(Item.ByteCount), TavroStyle::Plain, true},
            {Item.Name, Item.bDirectory ? TavroStyle::Bold : TavroStyle::Plain},
            {"from " + TavroShownPath(stdout, Item.OriginalPath)}};
}

void PrintItems(const std::vector<TavroTrashItem>& Items, bool bColor) {
    std::vector<std::vector<TavroCell>> rows;
    rows.reserve(Items.size());
    for (const TavroTrashItem& item : Items) {
        rows.push_back(ItemRow(item));
    }
    TavroPrintColumns(rows, "\t", bColor);
}

void PrintNames(const std::vector<TavroTrashItem>& Items) {
    for (const TavroTrashItem& item : Items) {
        std::fwrite(item.Name.c_str(), 1, item.Name.size() + 1, stdout);
    }
}

void PrintJson(const std::vector<TavroTrashItem>& Items) {
    TavroJson json = TavroJson::array();
    for (const TavroTrashItem& item : Items) {
        json.push_back(ItemJson(item));
    }
    TavroPrintJson(json);
}

/// What a person wants to know at the end of a list.
void PrintTotal(const std::vector<TavroTrashItem>& Items, bool bEverything) {
    const bool bEmpty = Items.empty() && bEverything;
    TavroPrintLine(stdout, bEmpty ? "The trash is empty" : TavroContentText(Items));
}

int RunList(const TavroChoice& Choice, const std::string& Volume, bool bJson, bool bZero,
            bool bColor) {
    TavroCatchInterrupts();
    TavroWhichTrashes trashes;
    std::vector<TavroTrashItem> items;
    TavroFailure failure = TavroSeeTrashes(Volume, trashes);
    failure = failure ? failure : TavroListTrash(TavroWasInterrupted, items, trashes);
    if (failure && failure.Kind != TavroFailureKind::Cancelled) {
        return TavroPrintFailure(failure);
    }
    const bool bEverything = Choice.IsEverything();
    const std::uint64_t unlisted =
        bEverything && !failure ? TavroCountUnlistedItems(items, trashes) : std::uint64_t{0};
    const std::vector<TavroFailure> missed = TavroChooseItems(Choice, items);
    if (!failure && !bZero) {
        failure = TavroMeasureItems(items, TavroWasInterrupted, true);
    }
    if (bJson) {
        PrintJson(items);
    } else {
        bZero ? PrintNames(items) : PrintItems(items, bColor);
    }
    if (!bJson && !bZero && !failure && missed.empty() && TavroIsTerminal(stdout) &&
        (!items.empty() || unlisted == 0)) {
        PrintTotal(items, bEverything);
    }
    TavroPrintUnlisted(unlisted);
    return TavroPrintFailures(missed) ? TavroPrintFailure(failure) : TavroExitFailed;
}

} // namespace

void TavroAddList(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "list", "List the trash, newest first",
                                        "list -0 | xargs -0 tavro restore --keep-both --");
    const TavroChoiceOptions choice = TavroAddChoice(*command);
    CLI::Option* json = command->add_flag("--json", "Print as JSON");
    CLI::Option* zero =
        command->add_flag("-0,--null", "Print only names, each ended by a zero byte");
    zero->excludes(json);
    CLI::Option* color = TavroAddColor(*command);
    CLI::Option* volume = TavroAddVolume(*command);
    Table[command] = [=] {
        return RunList(TavroReadChoice(choice), TavroValue(volume), !json->empty(), !zero->empty(),
                       TavroHasColor(color));
    };
}
