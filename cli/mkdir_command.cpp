#include "commands.h"
#include "tavroops.h"
#include "terminal.h"

int TavroRunMkdir(const std::string& Text, const std::string& BaseDirectory) {
    std::string selectedPath;
    std::string error;
    if (!TavroCreateDirectory(Text, BaseDirectory, selectedPath, error)) {
        TavroPrintError(error);
        return TavroExitFailed;
    }
    TavroPrintLine(stdout, selectedPath);
    return TavroExitDone;
}
