// `tavro empty`.

#include "command.h"
#include "recording.h"
#include "trash_contents.h"

namespace {

/// "3 items (1.5 kB)"
std::string ContentText(const std::vector<TavroTrashItem>& Items) {
    std::uint64_t bytes = 0;
    for (const TavroTrashItem& item : Items) {
        bytes += item.ByteCount;
    }
    return TavroCountText(Items.size(), "item") + " (" + TavroHumanSize(bytes) + ")";
}

/// @param OlderThanDays  0 for everything.
int RunEmpty(const std::string& Volume, int OlderThanDays, bool bForce, bool bQuiet, bool bSync) {
    TavroCatchInterrupts();
    TavroWhichTrashes trashes;
    if (const TavroFailure failure = TavroSeeTrashes(Volume, trashes)) {
        return TavroPrintFailure(failure);
    }
    TavroRecording recording;
    TavroCallbacks callbacks;
    callbacks.ShouldCancel = TavroWasInterrupted;
    callbacks = recording.Bind(callbacks, bSync);
    if (bForce && bQuiet && OlderThanDays == 0) {
        const TavroFailure failure = TavroEmptyTrash(callbacks, trashes);
        recording.End({}); // it cannot be undone
        return TavroPrintFailure(failure);
    }
    std::vector<TavroTrashItem> listed;
    TavroFailure failure = TavroListTrash(!bForce || !bQuiet, TavroWasInterrupted, listed, trashes);
    if (failure) {
        return TavroPrintFailure(failure);
    }
    const std::vector<TavroTrashItem> items =
        OlderThanDays > 0 ? TavroItemsOlderThan(listed, OlderThanDays) : listed;
    const std::string content = ContentText(items);
    if (!bForce && !items.empty()) {
        if (!TavroCanAsk()) {
            TavroPrintError("Refusing to empty the trash without asking: use -f, or a terminal");
            return TavroExitUsage;
        }
        if (const int exitCode = TavroConfirm("Delete " + content + " in the trash for good?",
                                              "Nothing was deleted")) {
            return exitCode;
        }
    }
    failure = TavroRemoveFromTrash(items, callbacks);
    recording.End({});
    if (!failure && !bQuiet) {
        TavroPrintLine(stdout, "Deleted " + content);
        TavroPrintUnlisted(TavroCountUnlistedItems(listed, trashes));
    }
    return TavroPrintFailure(failure);
}

} // namespace

void TavroAddEmpty(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(
        App, "empty", "Delete what is in the trash, after a question", "empty --older-than 30");
    CLI::Option* days = command->add_option("--older-than");
    days->type_name("DAYS")->description("Only what was trashed more than so many days ago");
    TavroCheckNumber(*days, 1, 36500, "a number of days");
    CLI::Option* force = command->add_flag("-f,--force", "Without asking");
    CLI::Option* quiet = TavroAddQuiet(*command);
    CLI::Option* noSync = TavroAddNoSync(*command);
    CLI::Option* volume = TavroAddVolume(*command);
    Table[command] = [=] {
        return RunEmpty(TavroValue(volume), days->empty() ? 0 : days->as<int>(), !force->empty(),
                        !quiet->empty(), TavroShouldSync(noSync));
    };
}
