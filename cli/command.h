/// What the commands are made of: arguments, questions and printed results. Each command adds the
/// parser of its arguments and what it runs, in a file of its own.

#ifndef TAVRO_CLI_COMMAND_H
#define TAVRO_CLI_COMMAND_H

#include "conflicts.h"
#include "interrupt.h"
#include "place.h"
#include "tavrotransfer.h"
#include "terminal.h"
#include "trash_folders.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <map>
#include <string>
#include <vector>

/// What each command runs, by the parser that reads its arguments. It returns the exit code.
using TavroCommandTable = std::map<const CLI::App*, std::function<int()>>;

class TavroProgressBar;

using TavroAdder = void(CLI::App& App, TavroCommandTable& Table);
TavroAdder TavroAddCopy, TavroAddDelete, TavroAddDoctor, TavroAddEmpty, TavroAddHistory,
    TavroAddList, TavroAddMkdir, TavroAddMove, TavroAddPlan, TavroAddRedo, TavroAddRename,
    TavroAddRestore, TavroAddResume, TavroAddSize, TavroAddTrash, TavroAddUndo;

/// The names that the parser would take for something else, "[a,b]" for a list of two and "++" for
/// the end of a command, pass it with a zero byte at their end, which no argument can hold.
void TavroProtect(std::vector<std::string>& Arguments);

CLI::App* TavroAddCommand(CLI::App& App, const std::string& Name, const std::string& Description,
                          const std::string& Example);

/// Arguments by their place, `Minimum` of them at least.
/// @param Need  what the command needs, as its usage errors say it: "an entry to trash".
CLI::Option* TavroAddNames(CLI::App& Command, const std::string& Name, int Minimum,
                           const std::string& Description, const std::string& Need);

/// As above, for exactly one.
CLI::Option* TavroAddName(CLI::App& Command, const std::string& Name,
                          const std::string& Description, const std::string& Need);

CLI::Option* TavroAddQuiet(CLI::App& Command);
CLI::Option* TavroAddVerbose(CLI::App& Command);

/// --in, and the directory that it means: absolute, the current one when it is not given.
CLI::Option* TavroAddBaseDirectory(CLI::App& Command);
std::string TavroBaseDirectory(const CLI::Option* In);

/// --volume, and the trashes that a command sees by it. Of what does not answer it is said that it
/// is skipped.
CLI::Option* TavroAddVolume(CLI::App& Command);
TavroFailure TavroSeeTrashes(const std::string& OnVolume,
                             std::vector<TavroTrashFolders>& OutTrashes);

/// --color, and whether standard output has colours by it: unless told otherwise on a terminal that
/// has some, where NO_COLOR is not set.
CLI::Option* TavroAddColor(CLI::App& Command);
bool TavroHasColor(const CLI::Option* Color);

/// Takes certain values alone. @param What  as its usage error says it: "a size like 500M".
void TavroCheckValue(CLI::Option& Option, const std::string& What,
                     const std::function<bool(const std::string&)>& IsTaken);

/// Takes the name of a directory, and no empty one, which would be the current directory.
void TavroCheckNotEmpty(CLI::Option& Option);

/// Takes numbers alone. @param What  as its usage error says it: "a number of days".
void TavroCheckNumber(CLI::Option& Option, int Least, int Most, const std::string& What);

/// The values of an option, or the only one, as they were typed.
std::vector<std::string> TavroValues(const CLI::Option* Option);
std::string TavroValue(const CLI::Option* Option);

/// Whether a typed text can be resolved: without HOME nothing says what a tilde means, and that is
/// said on standard error.
bool TavroCanResolve(const std::string& Text);

/// Finds the entries that texts name. Each that does not exist is reported on standard error.
/// @param OutEntries  an entry for each text, in order.
/// @return true when all of them exist.
bool TavroFindEntries(const std::vector<std::string>& Texts,
                      std::vector<TavroOperationEntry>& OutEntries);

/// "ENTRY... TEXT", planned as a transfer. What is wrong is said on standard error.
/// @param bKeepBoth  a copy onto itself gets a free name.
CLI::Option* TavroAddTransferNames(CLI::App& Command);
bool TavroPlanNames(const CLI::Option* Names, const CLI::Option* In, bool bMove,
                    TavroTransferConflictPolicy Policy, TavroTransferPlan& OutPlan,
                    bool bKeepBoth = false);

/// Asks a person about each conflict; empty where nobody can be asked: what is in the way stays,
/// and is reported then.
/// @param bOutStopped  set when the answer was to stop.
TavroConflictJudge::Ask TavroConflictQuestion(TavroProgressBar& Bar, bool& bOutStopped);

/// Writes one line an item: "SOURCE -> DESTINATION", with a mark where something is there.
void TavroPrintPlan(const TavroTransferPlan& Plan);

#endif
