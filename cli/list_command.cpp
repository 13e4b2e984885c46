// `tavro list`.

#include "choosing.h"
#include "json.h"

#include <algorithm>

namespace {

TavroJson ItemJson(const TavroTrashItem& Item) {
    TavroJson json;
    TavroAddPath(json, "trash", Item.TrashPath());
    TavroAddPath(json, "original", Item.OriginalPath);
    json["deletionDate"] = Item.DeletionDate;
    json["byteCount"] = Item.ByteCount;
    json["directory"] = Item.bDirectory;
    return json;
}

std::string ItemLine(const TavroTrashItem& Item) {
    std::string date = Item.DeletionDate.empty() ? std::string(19, '-') : Item.DeletionDate;
    std::replace(date.begin(), date.end(), 'T', ' ');
    const std::string size = TavroHumanSize(Item.ByteCount);
    const std::string padding(size.size() < 10 ? 10 - size.size() : 0, ' ');
    return date + "  " + padding + size + "  " + Item.Name + "  from " + Item.OriginalPath;
}

void PrintItem(const TavroTrashItem& Item, bool bZero) {
    if (bZero) {
        std::fwrite(Item.Name.c_str(), 1, Item.Name.size() + 1, stdout);
    } else if (TavroIsTerminal(stdout)) {
        TavroPrintLine(stdout, ItemLine(Item));
    } else {
        TavroPrintLine(stdout, Item.DeletionDate + "\t" + std::to_string(Item.ByteCount) + "\t" +
                                   Item.Name + "\t" + Item.OriginalPath);
    }
}

/// What a person wants to know at the end of a list.
void PrintTotal(const std::vector<TavroTrashItem>& Items, bool bEverything) {
    const bool bEmpty = Items.empty() && bEverything;
    TavroPrintLine(stdout, bEmpty ? "The trash is empty" : TavroContentText(Items));
}

int RunList(const TavroChoice& Choice, bool bJson, bool bZero) {
    TavroCatchInterrupts();
    std::vector<TavroTrashItem> items;
    TavroFailure failure = TavroListTrash(false, TavroWasInterrupted, items);
    if (failure && failure.Kind != TavroFailureKind::Cancelled) {
        return TavroPrintFailure(failure);
    }
    const bool bEverything = Choice.IsEverything();
    const std::uint64_t unlisted =
        bEverything && !failure ? TavroCountUnlistedItems(items) : std::uint64_t{0};
    const std::vector<TavroFailure> missed = TavroChooseItems(Choice, items);
    if (!failure && !bZero) {
        failure = TavroMeasureItems(items, TavroWasInterrupted);
    }
    TavroJson json = TavroJson::array();
    for (const TavroTrashItem& item : items) {
        bJson ? json.push_back(ItemJson(item)) : PrintItem(item, bZero);
    }
    if (bJson) {
        TavroPrintJson(json);
    } else if (!bZero && !failure && missed.empty() && TavroIsTerminal(stdout) &&
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
    const TavroChoiceOptions choice = TavroAddChoice(*command, "");
    CLI::Option* json = command->add_flag("--json", "As JSON");
    CLI::Option* zero = command->add_flag("-0,--null", "Names alone, each ended by a zero byte");
    zero->excludes(json);
    Table[command] = [=] {
        return RunList(TavroReadChoice(choice), !json->empty(), !zero->empty());
    };
}
