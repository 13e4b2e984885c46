/// What each command does once its arguments are read. Each returns the exit code.

#ifndef TAVRO_CLI_COMMANDS_H
#define TAVRO_CLI_COMMANDS_H

#include "tavrotransfer.h"

#include <string>
#include <vector>

/// The exit codes that a script can rely on.
enum TavroExitCode : int {
    TavroExitDone = 0,
    TavroExitFailed = 1, ///< Something was not done; standard error says what.
    TavroExitUsage = 2,  ///< The command line was not understood, and nothing was done.
    TavroExitInterrupted = 130,
};

int TavroRunMkdir(const std::string& Text, const std::string& BaseDirectory);

int TavroRunRename(const std::string& Entry, const std::string& Text);

/// `bForce`: without asking.
int TavroRunDelete(const std::vector<std::string>& Entries, bool bForce);

int TavroRunSize(const std::vector<std::string>& Directories);

/// What is to be copied or moved, and where to.
struct TavroTransferRequest {
    std::vector<std::string> Entries;
    std::string TargetText;
    std::string BaseDirectory;
    bool bMove = false;
};

int TavroRunPlan(const TavroTransferRequest& Request, bool bJson);

/// Finds the entries and plans the request. What is wrong is said on standard error.
bool TavroPlanRequest(const TavroTransferRequest& Request, TavroTransferConflictPolicy Policy,
                      TavroTransferPlan& OutPlan);

/// Writes one line an item: "SOURCE -> DESTINATION".
void TavroPrintPlan(const TavroTransferPlan& Plan);

/// What is done about something that is in the way of a copy or a move.
enum class TavroOnConflict { Ask, Overwrite, Skip, KeepBoth };

struct TavroTransferArguments {
    TavroTransferRequest Request;
    TavroOnConflict OnConflict = TavroOnConflict::Ask;
    bool bDryRun = false;
    bool bQuiet = false;
};

int TavroRunTransfer(const TavroTransferArguments& Arguments);

int TavroRunTrash(const std::vector<std::string>& Entries, bool bQuiet);

int TavroRunUndo(bool bQuiet);

int TavroRunRedo(bool bQuiet);

int TavroRunHistory(bool bJson);

int TavroRunHistoryDrop();

/// `bZero`: names alone, each ended by a zero byte.
int TavroRunList(bool bJson, bool bZero);

/// `bKeepBoth`: to a free name, without asking, where the original place is taken.
int TavroRunRestore(const std::vector<std::string>& Texts, bool bKeepBoth, bool bQuiet);

/// `OlderThanDays`: 0 for everything.
int TavroRunEmpty(int OlderThanDays, bool bForce, bool bQuiet);

/// `Mend`: the names of the findings that are mended.
int TavroRunDoctor(const std::vector<std::string>& Mend, bool bMendAll);

#endif
