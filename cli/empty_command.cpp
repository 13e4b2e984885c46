// `tavro empty`.

#include "choosing.h"
#include "recording.h"

#include <algorithm>
#include <optional>

namespace {

/// What goes: what is chosen, and of that the oldest alone where there is a size.
struct Emptied {
    TavroChoice Choice;
    std::optional<std::uint64_t> Keep; ///< So many bytes may stay in the trash.
    std::optional<std::uint64_t> Free; ///< So many bytes are to go at least.
    bool IsEverything() const {
        return Choice.IsEverything() && !Keep && !Free;
    }
};

/// Leaves of all that is listed what goes.
/// @param bMeasure  whether sizes are wanted, too.
/// @return TavroExitDone, or the exit code to end with.
int Select(const Emptied& What, bool bMeasure, std::vector<TavroTrashItem>& Items) {
    std::uint64_t bytes = What.Free.value_or(0);
    TavroFailure failure;
    if (What.Keep) { // all of the trash counts
        failure = TavroMeasureItems(Items, TavroWasInterrupted, false);
        const std::uint64_t all = TavroCountBytes(Items);
        bytes = all - std::min(all, *What.Keep);
    }
    if (!TavroPrintFailures(TavroChooseItems(What.Choice, Items))) {
        return TavroExitFailed;
    }
    if (!failure && !What.Keep && (bMeasure || What.Free)) {
        failure = TavroMeasureItems(Items, TavroWasInterrupted, false);
    }
    if (What.Keep || What.Free) {
        Items = TavroOldestItems(std::move(Items), bytes);
    }
    return TavroPrintFailure(failure);
}

/// Shows where the first of them were, and asks whether all are to be deleted.
int AgreeToDeleting(const std::vector<TavroTrashItem>& Items, bool bEverything) {
    if (!TavroCanAsk()) {
        TavroPrintError("Refusing to empty the trash without asking: use -f, or a terminal");
        return TavroExitUsage;
    }
    constexpr std::size_t most = 20;
    for (std::size_t i = 0; i < std::min(Items.size(), most) && !bEverything; ++i) {
        TavroPrintLine(stderr, TavroShownPath(stderr, Items[i].OriginalPath));
    }
    if (Items.size() > most && !bEverything) {
        TavroPrintLine(stderr, "and " + TavroCountText(Items.size() - most, "item") + " more");
    }
    return TavroConfirm("Delete " + TavroContentText(Items) + " in the trash for good?",
                        "Nothing was deleted");
}

int RunEmpty(const Emptied& What, const std::string& Volume, bool bForce, bool bQuiet,
             TavroKeeping Keeping) {
    TavroCatchInterrupts();
    TavroWhichTrashes trashes;
    if (const TavroFailure failure = TavroSeeTrashes(Volume, trashes)) {
        return TavroPrintFailure(failure);
    }
    TavroRecording recording;
    const TavroCallbacks callbacks = recording.Bind({{}, TavroWasInterrupted}, Keeping);
    if (bForce && bQuiet && What.IsEverything()) {
        const TavroFailure failure = TavroEmptyTrash(callbacks, trashes);
        return std::max(recording.EndDeletion(failure), TavroPrintFailure(failure));
    }
    std::vector<TavroTrashItem> items;
    TavroFailure failure = TavroListTrash(TavroWasInterrupted, items, trashes);
    if (failure) {
        return TavroPrintFailure(failure);
    }
    const std::uint64_t unlisted = bQuiet || !What.Choice.Words.empty()
                                       ? std::uint64_t{0}
                                       : TavroCountUnlistedItems(items, trashes);
    const bool bNothing = items.empty() && unlisted == 0;
    int exitCode = Select(What, !bForce || !bQuiet, items);
    if (exitCode == TavroExitDone && !bForce && !items.empty()) {
        exitCode = AgreeToDeleting(items, What.IsEverything());
    }
    if (exitCode != TavroExitDone) {
        return exitCode;
    }
    failure = TavroRemoveFromTrash(items, callbacks);
    exitCode = recording.EndDeletion(failure);
    if (!failure && !bQuiet) {
        TavroPrintLine(stdout,
                       bNothing ? "The trash is empty" : "Deleted " + TavroContentText(items));
        TavroPrintUnlisted(unlisted);
    }
    return std::max(exitCode, TavroPrintFailure(failure));
}

} // namespace

void TavroAddEmpty(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command =
        TavroAddCommand(App, "empty", "Delete what is in the trash, after a question",
                        "empty '*.iso' --older-than 30");
    const TavroChoiceOptions choice = TavroAddChoice(*command);
    CLI::Option* keep = TavroAddSizeOption(
        *command, "--keep",
        "Delete only the oldest, until the trash holds at most this much: 2G, 500M");
    CLI::Option* free = TavroAddSizeOption(
        *command, "--free", "Delete only the oldest, until they add up to this much");
    free->excludes(keep);
    CLI::Option* force = command->add_flag("-f,--force", "Do not ask");
    CLI::Option* quiet = TavroAddQuiet(*command);
    const TavroKeepingOptions keeping = TavroAddKeeping(*command, false);
    CLI::Option* volume = TavroAddVolume(*command);
    Table[command] = [=] {
        return RunEmpty({TavroReadChoice(choice), TavroReadSize(keep), TavroReadSize(free)},
                        TavroValue(volume), !force->empty(), !quiet->empty(), keeping.Keeping());
    };
}
