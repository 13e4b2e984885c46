// `tavro trash`.

#include "command.h"
#include "format.h"
#include "measure.h"
#include "names.h"
#include "progress_bar.h"
#include "record.h"
#include "recording.h"
#include "trash.h"

#include <algorithm>

namespace {

enum class When { AboutCopying, Never, Once, Each };

/// What is asked before anything is moved: of -f, -i, -I and --interactive the last one counts.
struct Asking {
    When Ask = When::AboutCopying;
    bool bForgiving = false; ///< What does not exist is no error.
};

/// The options of `rm`. Those that need nothing are not kept.
struct Options {
    CLI::Option* Force;
    CLI::Option* Each;
    CLI::Option* Once;
    CLI::Option* Interactive;
    CLI::Option* Verbose;
};

Options AddOptions(CLI::App& Command, CLI::Option& Names) {
    Command.add_flag("-r,-R,--recursive", "Accepted for compatibility with rm; not needed");
    Command.add_flag("-d,--dir", "Accepted for compatibility with rm; not needed");
    const Options options = {
        Command.add_flag("-f,--force", "Ignore missing entries, ask nothing, print no list"),
        Command.add_flag("-i", "Ask about each entry"),
        Command.add_flag("-I", "Ask once, about more than three entries or a directory"),
        Command.add_flag("--interactive", "Ask: =always (as -i), =once (as -I) or =never"),
        Command.add_flag("-v,--verbose", "List each entry, even with -f or -q")};
    options.Force->each([&Names](const std::string&) { Names.required(false); });
    TavroCheckValue(*options.Interactive, "never, once or always", [](const std::string& when) {
        return when == "true" || when == "never" || when == "once" || when == "always";
    });
    return options;
}

Asking ReadAsking(const CLI::App& Command, const Options& Options) {
    Asking asking;
    std::size_t met = 0;
    for (const CLI::Option* option : Command.parse_order()) {
        if (option == Options.Force) {
            asking = {When::Never, true};
        } else if (option == Options.Each || option == Options.Once) {
            asking = {option == Options.Each ? When::Each : When::Once, false};
        } else if (option == Options.Interactive) {
            const std::string when = option->results().at(met++);
            asking.bForgiving = asking.bForgiving && when == "never";
            asking.Ask = when == "never" ? When::Never : when == "once" ? When::Once : When::Each;
        }
    }
    return asking;
}

void ForgetMissing(std::vector<TavroOperationEntry>& Entries) {
    std::vector<TavroOperationEntry> present;
    for (TavroOperationEntry& entry : Entries) {
        struct stat status = {};
        if (!TavroIsMissing(TavroStatPath(entry.Path, status))) {
            entry.bDirectory = S_ISDIR(status.st_mode);
            present.push_back(std::move(entry));
        }
    }
    Entries = std::move(present);
}

/// Asks about each entry, or once where that is called for; those that are refused are left out.
/// @return TavroExitDone, or the exit code to end with.
int AgreeToTrashing(bool bEach, std::vector<TavroOperationEntry>& Entries) {
    const auto isDirectory = [](const TavroOperationEntry& entry) { return entry.bDirectory; };
    if (!bEach && Entries.size() <= 3 &&
        std::none_of(Entries.begin(), Entries.end(), isDirectory)) {
        return TavroExitDone;
    }
    if (!TavroCanAsk()) {
        TavroPrintError("Refusing to move to the trash without asking: use -f, or a terminal");
        return TavroExitUsage;
    }
    if (!bEach) {
        return TavroConfirm("Move " + TavroCountText(Entries.size(), "entry") + " to the trash?",
                            "Nothing was moved to the trash");
    }
    std::vector<TavroOperationEntry> agreed;
    for (TavroOperationEntry& entry : Entries) {
        const int exitCode =
            TavroConfirm("Move '" + TavroShownPath(stderr, entry.Path) + "' to the trash?",
                         "'" + entry.Path + "' was not moved to the trash");
        if (TavroWasInterrupted()) {
            return exitCode;
        }
        if (exitCode == TavroExitDone) {
            agreed.push_back(std::move(entry));
        }
    }
    Entries = std::move(agreed);
    return TavroExitDone;
}

/// Leaves the entries that are to be trashed.
/// @return TavroExitDone, or the exit code to end with.
int Agree(const std::vector<std::string>& Texts, const Asking& Asking,
          std::vector<TavroOperationEntry>& Entries) {
    if (Asking.bForgiving) {
        ForgetMissing(Entries);
    }
    if (Asking.Ask == When::AboutCopying || Asking.Ask == When::Never) {
        return TavroExitDone;
    }
    return Asking.bForgiving || TavroFindEntries(Texts, Entries)
               ? AgreeToTrashing(Asking.Ask == When::Each, Entries)
               : TavroExitFailed;
}

/// Copying into the trash takes time and space, so it is said, with the size, before it begins.
/// @return TavroExitDone; or the exit code to end with, when the person was asked and said no, or
///         interrupted the count.
int AgreeToCopying(const std::vector<TavroOperationEntry>& Others, bool bAsk) {
    TavroMeasurement measurement;
    for (const TavroOperationEntry& entry : Others) {
        if (!TavroMeasureEntry(entry.Path, TavroWasInterrupted, measurement)) {
            return TavroInterruptedExitCode();
        }
    }
    const std::string text = TavroCountText(Others.size(), "entry") +
                             " on another file system will be copied to the trash (" +
                             TavroHumanSize(measurement.ByteCount) + ")";
    if (bAsk && TavroCanAsk()) {
        return TavroConfirm(text + ". Continue?", "Nothing was moved to the trash");
    }
    TavroPrintError(text);
    return TavroExitDone;
}

/// Says why nothing was trashed; what does not exist is named as it was typed.
int PrintRefusal(const TavroTrashReport& Report, const std::vector<std::string>& Texts) {
    std::vector<TavroOperationEntry> entries;
    const bool bRefused = Report.Batch.Failure.Kind == TavroFailureKind::RefuseTrash;
    if (!bRefused || TavroFindEntries(Texts, entries)) {
        TavroPrintError(TavroDescribe(Report));
    }
    return TavroExitCodeOf(Report.Batch.Failure);
}

/// How much is told of what was done.
struct Telling {
    bool bQuiet;
    bool bVerbose;
    bool bResult; ///< Whether what was done is told at all.
};

/// `rm` refuses a path that ends in `.` or `..`, whatever it leads to: hardly anybody means it.
/// @return whether there is none, after saying which there are.
bool CheckEnds(const std::vector<std::string>& Texts) {
    std::vector<TavroFailure> refusals;
    for (const std::string& text : Texts) {
        const std::string name = TavroNameOf(text.substr(0, text.find_last_not_of('/') + 1));
        if (name == "." || name == "..") {
            refusals.push_back({TavroFailureKind::RefuseDots, {}, text});
        }
    }
    return TavroPrintFailures(refusals);
}

int RunTrash(const std::vector<std::string>& Texts, const Asking& Asking, const Telling& Telling,
             const TavroTrashOptions& Where, TavroKeeping Keeping) {
    if (!CheckEnds(Texts)) {
        return TavroExitFailed;
    }
    // Each entry is looked at once, when it is trashed; before a question all are checked.
    std::vector<TavroOperationEntry> entries = TavroNameEntries(Texts);
    TavroCatchInterrupts();
    int exitCode = Agree(Texts, Asking, entries);
    const bool bNone = entries.empty() && Asking.Ask != When::AboutCopying;
    if (exitCode != TavroExitDone || bNone) {
        return exitCode;
    }
    const std::vector<TavroOperationEntry> copied =
        Telling.bQuiet || Where.bNeverCopy ? std::vector<TavroOperationEntry>()
                                           : TavroEntriesToCopy(entries, Where, Keeping.bSync);
    if (!copied.empty()) {
        if (const int code = AgreeToCopying(copied, Asking.Ask != When::Never)) {
            return code;
        }
    }
    TavroTrashReport report;
    TavroRecording recording;
    {
        TavroProgressBar bar(Telling.bQuiet);
        report =
            TavroTrashSelection(entries, recording.Bind(bar.Callbacks(), Keeping), {}, {}, Where);
    }
    // Recorded before it is printed: a reader that goes away must not cost the undo.
    exitCode = recording.End(TavroOperationOf(report));
    if (report.Batch.Failure) {
        return PrintRefusal(report, Asking.bForgiving ? std::vector<std::string>() : Texts);
    }
    TavroPrintLost(report.Batch.Lost);
    const bool bEach = TavroTellsEach(report.Entries.size(), Telling.bVerbose);
    for (const TavroTrashedEntry& trashed : report.Entries) {
        if (Telling.bResult && bEach) {
            TavroPrintLine(stdout,
                           TavroShownStep(trashed.Entry.OriginalPath, trashed.Entry.TrashPath));
        }
    }
    if (Telling.bResult && !bEach) {
        TavroPrintLine(stdout,
                       "Moved " + TavroCountText(report.Entries.size(), "entry") + " to the trash");
    }
    return exitCode;
}

} // namespace

void TavroAddTrash(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command =
        TavroAddCommand(App, "trash", "Move entries to the trash, all or nothing", "trash old.iso");
    CLI::Option* names =
        TavroAddNames(*command, "ENTRY", 1, "The entries to trash", "an entry to trash");
    const Options options = AddOptions(*command, *names);
    CLI::Option* home = command->add_flag("--home", "Use the home trash for other volumes too");
    CLI::Option* noCopy = command->add_flag("--no-copy", "Fail instead of copying to the trash");
    CLI::Option* quiet = TavroAddQuiet(*command);
    quiet->description("Print only errors, and do not ask about copying");
    const TavroKeepingOptions keeping = TavroAddKeeping(*command);
    Table[command] = [=] {
        const Asking asking = ReadAsking(*command, options);
        const bool bVerbose = !options.Verbose->empty();
        const bool bResult = bVerbose || (quiet->empty() && !asking.bForgiving);
        return RunTrash(TavroValues(names), asking, {!quiet->empty(), bVerbose, bResult},
                        {!home->empty(), !noCopy->empty()}, keeping.Keeping());
    };
}
