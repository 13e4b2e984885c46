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

struct TavroPlanArguments {
    std::vector<std::string> Entries;
    std::string TargetText;
    std::string BaseDirectory;
    bool bMove = false;
    TavroTransferConflictPolicy ConflictPolicy = TavroTransferConflictPolicy::Ask;
    bool bJson = false;
};

int TavroRunPlan(const TavroPlanArguments& Arguments);

#endif
