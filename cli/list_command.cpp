// `tavro list`.

#include "command.h"
#include "json.h"
#include "trash_contents.h"

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

int RunList(const std::string& Volume, bool bJson, bool bZero) {
    TavroCatchInterrupts();
    TavroWhichTrashes trashes;
    std::vector<TavroTrashItem> items;
    TavroFailure failure = TavroSeeTrashes(Volume, trashes);
    failure = failure ? failure : TavroListTrash(!bZero, TavroWasInterrupted, items, trashes);
    if (failure && failure.Kind != TavroFailureKind::Cancelled) {
        return TavroPrintFailure(failure);
    }
    TavroJson json = TavroJson::array();
    for (const TavroTrashItem& item : items) {
        bJson ? json.push_back(ItemJson(item)) : PrintItem(item, bZero);
    }
    if (bJson) {
        TavroPrintJson(json);
    }
    if (!failure) {
        const std::uint64_t unlisted = TavroCountUnlistedItems(items, trashes);
        if (items.empty() && unlisted == 0 && !bJson && !bZero && TavroIsTerminal(stdout)) {
            TavroPrintLine(stdout, "The trash is empty");
        }
        TavroPrintUnlisted(unlisted);
    }
    return TavroPrintFailure(failure);
}

} // namespace

void TavroAddList(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "list", "List the trash, newest first",
                                        "list -0 | xargs -0 tavro restore --keep-both --");
    CLI::Option* json = command->add_flag("--json", "As JSON");
    CLI::Option* zero = command->add_flag("-0,--null", "Names alone, each ended by a zero byte");
    zero->excludes(json);
    CLI::Option* volume = TavroAddVolume(*command);
    Table[command] = [=] { return RunList(TavroValue(volume), !json->empty(), !zero->empty()); };
}
