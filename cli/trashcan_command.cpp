// `tavro list`, `tavro restore`, `tavro empty` and `tavro doctor`.

#include "commands.h"
#include "interrupt.h"
#include "json.h"
#include "progress_bar.h"
#include "selection.h"
#include "terminal.h"
#include "trashcan.h"

#include <algorithm>

namespace {

bool ReadTrash(bool bMeasure, std::vector<TavroTrashItem>& OutItems) {
    std::string error;
    if (TavroListTrash(bMeasure, TavroWasInterrupted, OutItems, error)) {
        return true;
    }
    TavroPrintError(error);
    return false;
}

/// Says how much a list does not tell of, so that nobody takes it for the whole trash.
void NoteUnlistedItems() {
    const std::uint64_t count = TavroCountUnlistedItems();
    if (count > 0) {
        TavroPrintError(TavroCountText(count, "item") + " in the trash " +
                        (count == 1 ? "has" : "have") +
                        " no record that can be read: see 'tavro doctor'");
    }
}

TavroJson ItemJson(const TavroTrashItem& Item) {
    TavroJson json;
    TavroAddPath(json, "trash", Item.Entry.TrashPath);
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

/// Where an item goes back to: its place, or a free name beside it when that is taken and wanted.
bool ChoosePlace(TavroTrashItem& Item, bool bKeepBoth) {
    if (!TavroIsPresent(Item.OriginalPath)) {
        return true;
    }
    const std::string free = TavroFreePathBeside(Item.OriginalPath).string();
    if (!bKeepBoth && !TavroCanAsk()) {
        TavroPrintError("Something is at '" + Item.OriginalPath +
                        "': with --keep-both it would be restored as '" + free + "'");
        return false;
    }
    if (!bKeepBoth &&
        !TavroConfirm("Something is at '" + Item.OriginalPath + "'. Restore as '" + free + "'?")) {
        return false;
    }
    Item.Entry.OriginalPath = free;
    return true;
}

bool RestoreItem(TavroTrashItem Item, bool bKeepBoth, bool bQuiet) {
    if (!ChoosePlace(Item, bKeepBoth)) {
        return false;
    }
    TavroProgressBar bar(bQuiet);
    TavroTransferCallbacks callbacks = TavroMakeCallbacks(bar);
    std::string error;
    if (!TavroRestoreSelection({Item.Entry}, callbacks, error)) {
        bar.Clear();
        TavroPrintError(error);
        return false;
    }
    if (!bQuiet) {
        TavroPrintLine(stdout, Item.Entry.TrashPath + " -> " + Item.Entry.OriginalPath);
    }
    return true;
}

} // namespace

int TavroRunList(bool bJson, bool bZero) {
    TavroCatchInterrupts();
    std::vector<TavroTrashItem> items;
    if (!ReadTrash(!bZero, items)) {
        return TavroExitFailed;
    }
    TavroJson json = TavroJson::array();
    for (const TavroTrashItem& item : items) {
        bJson ? json.push_back(ItemJson(item)) : PrintItem(item, bZero);
    }
    if (bJson) {
        TavroPrintJson(json);
    }
    NoteUnlistedItems();
    return TavroWasInterrupted() ? TavroExitInterrupted : TavroExitDone;
}

int TavroRunRestore(const std::vector<std::string>& Texts, bool bKeepBoth, bool bQuiet) {
    TavroCatchInterrupts();
    int exitCode = TavroExitDone;
    for (const std::string& text : Texts) {
        // Read anew each time: what was just restored is not there any more.
        std::vector<TavroTrashItem> items;
        if (!ReadTrash(false, items)) {
            return TavroExitFailed;
        }
        std::string error;
        const std::optional<TavroTrashItem> item = TavroFindTrashItem(items, text, error);
        if (!item) {
            TavroPrintError(error);
        }
        if (!item || !RestoreItem(*item, bKeepBoth, bQuiet)) {
            exitCode = TavroExitFailed;
        }
        if (TavroWasInterrupted()) {
            return TavroExitInterrupted;
        }
    }
    return exitCode;
}

int TavroRunEmpty(int OlderThanDays, bool bForce, bool bQuiet) {
    TavroCatchInterrupts();
    std::vector<TavroTrashItem> items;
    if (!ReadTrash(true, items)) {
        return TavroExitFailed;
    }
    if (TavroWasInterrupted()) {
        return TavroExitInterrupted;
    }
    if (OlderThanDays > 0) {
        items = TavroItemsOlderThan(items, OlderThanDays);
    }
    std::uint64_t bytes = 0;
    for (const TavroTrashItem& item : items) {
        bytes += item.ByteCount;
    }
    const std::string what =
        TavroCountText(items.size(), "item") + " (" + TavroHumanSize(bytes) + ")";
    if (!bForce && !items.empty()) {
        if (!TavroCanAsk()) {
            TavroPrintError("Refusing to empty the trash without asking: use -f, or a terminal");
            return TavroExitUsage;
        }
        if (!TavroConfirm("Delete " + what + " in the trash for good?")) {
            TavroPrintError("Nothing was deleted.");
            return TavroWasInterrupted() ? TavroExitInterrupted : TavroExitFailed;
        }
    }
    std::string error;
    if (!TavroRemoveFromTrash(items, TavroWasInterrupted, error)) {
        TavroPrintError(error);
        return TavroWasInterrupted() ? TavroExitInterrupted : TavroExitFailed;
    }
    if (!bQuiet) {
        TavroPrintLine(stdout, "Deleted " + what);
        NoteUnlistedItems();
    }
    return TavroExitDone;
}

int TavroRunDoctor(const std::vector<std::string>& Mend, bool bMendAll) {
    std::vector<TavroTrashFinding> findings;
    std::string error;
    if (!TavroExamineTrash(findings, error)) {
        TavroPrintError(error);
        return TavroExitFailed;
    }
    int exitCode = TavroExitDone;
    for (const std::string& name : Mend) {
        const auto isOfThatName = [&name](const TavroTrashFinding& finding) {
            return finding.Path.filename() == name;
        };
        if (std::none_of(findings.begin(), findings.end(), isOfThatName)) {
            TavroPrintError("Nothing is wrong with '" + name + "'");
            exitCode = TavroExitFailed;
        }
    }
    for (const TavroTrashFinding& finding : findings) {
        const std::string name = finding.Path.filename().string();
        const bool bMend = bMendAll || std::find(Mend.begin(), Mend.end(), name) != Mend.end();
        if (!bMend) {
            TavroPrintLine(stdout, finding.Detail);
            exitCode = TavroExitFailed;
        } else if (TavroMendTrash(finding, error)) {
            TavroPrintLine(stdout, "Mended: " + finding.Detail);
        } else {
            TavroPrintError(error);
            exitCode = TavroExitFailed;
        }
    }
    if (findings.empty()) {
        TavroPrintLine(stdout, "The trash is in order.");
    }
    return exitCode;
}
