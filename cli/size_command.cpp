// `tavro size`.

#include "command.h"
#include "measure.h"
#include "posix.h"
#include "progress_bar.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

/// A person reads the size in large units first; a script reads bytes, a tab and the path.
void PrintSize(std::uint64_t Bytes, const std::string& Directory, bool bComplete) {
    const std::string mark = bComplete ? "" : " (partial)";
    if (TavroIsTerminal(stdout)) {
        const std::string exact = Bytes < 1000 ? "" : " (" + TavroCountText(Bytes, "byte") + ")";
        TavroPrintLine(stdout, TavroHumanSize(Bytes) + exact + mark + "  " + Directory);
        return;
    }
    TavroPrintLine(stdout, std::to_string(Bytes) + mark + "\t" + Directory);
    std::fflush(stdout); // the next folder may take long
}

/// Opens a directory to be measured. What is wrong is said on standard error.
bool OpenDirectory(const std::string& Directory, TavroDescriptor& OutOpened) {
    if (const int error = TavroOpenDirectory(Directory, OutOpened)) {
        TavroPrintError("Not a directory: '" + Directory + "'" +
                        (error == ENOTDIR ? "" : std::string(": ") + std::strerror(error)));
        return false;
    }
    if (const int error = TavroAccessAt(OutOpened.Number(), ".", R_OK)) {
        TavroPrintError("Cannot read '" + Directory + "': " + std::strerror(error));
        return false;
    }
    return true;
}

/// @return false when it was interrupted.
bool PrintSizeOf(const std::string& Directory, int Opened) {
    TavroProgressBar bar(false);
    std::uint64_t count = 0;
    const auto countOne = [&] {
        // The clock is asked for only now and then: entries come faster than it answers.
        if (++count % 1024 == 0) {
            bar.ShowText(TavroCountText(count, "entry"));
        }
        return TavroWasInterrupted();
    };
    bool bComplete = false;
    const std::uint64_t bytes = TavroMeasureDirectorySize(Opened, countOne, bComplete);
    bar.Clear();
    PrintSize(bytes, Directory, bComplete);
    return bComplete;
}

int RunSize(const std::vector<std::string>& Directories) {
    TavroCatchInterrupts();
    int exitCode = TavroExitDone;
    for (const std::string& directory : Directories) {
        TavroDescriptor opened;
        if (!OpenDirectory(directory, opened)) {
            exitCode = TavroExitFailed;
        } else if (!PrintSizeOf(directory, opened.Number())) {
            return TavroInterruptedExitCode();
        }
    }
    return exitCode;
}

} // namespace

void TavroAddSize(CLI::App& App, TavroCommandTable& Table) {
    CLI::App* command = TavroAddCommand(App, "size", "Add up the sizes of the files in folders",
                                        "size ~/Music ~/Videos");
    CLI::Option* directories =
        TavroAddNames(*command, "DIRECTORY", 1, "What is measured", "something to measure");
    Table[command] = [=] { return RunSize(TavroValues(directories)); };
}
