/// What the command shows: names, sizes, sentences and questions, on a terminal and into a pipe.

#ifndef TAVRO_CLI_TERMINAL_H
#define TAVRO_CLI_TERMINAL_H

#include "copy_file.h"
#include "failure.h"

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

/// The exit codes that a script can rely on; beside them 128 and the number of a signal.
enum TavroExitCode : int {
    TavroExitDone = 0,
    TavroExitFailed = 1, ///< Something was not done; standard error says what.
    TavroExitUsage = 2,  ///< The command line was not understood, and nothing was done.
};

/// Whether what is written to (or read from) a standard stream meets a person.
bool TavroIsTerminal(std::FILE* Stream);

/// `Text` with every byte shown as \xNN that a terminal could take for a command, or that a reader
/// would not see: control characters of ASCII and of UTF-8's C1 range, what is not UTF-8 at all,
/// characters that turn the direction of the text, and invisible ones, except those that join or
/// vary a character beyond ASCII.
std::string TavroPrintableText(const std::string& Text);

/// A path as it is shown: on a terminal relative below the current directory, and with `~/` below
/// the home directory, so that it means the same when it is typed; else as it is.
std::string TavroShownPath(std::FILE* Stream, const std::string& Path);

/// A sentence with each path in quotes as it is shown.
std::string TavroShownSentence(std::FILE* Stream, std::string Sentence);

/// Writes `Text` and a line feed: printable on a terminal, byte for byte into anything else.
void TavroPrintLine(std::FILE* Stream, const std::string& Text);

/// Writes "tavro: SENTENCE" to standard error, without the full stop that the module's have, and
/// with its paths as they are shown.
void TavroPrintError(const std::string& Sentence);

/// Says in one sentence what was skipped, or when `bVerbose` in one for each path.
void TavroPrintSkipped(const std::vector<std::string>& Paths, bool bVerbose);

/// Writes a sentence for each failure. @return whether there was none.
bool TavroPrintFailures(const std::vector<TavroFailure>& Failures);

/// The exit code that a failure leads to, or that there is none.
int TavroExitCodeOf(const TavroFailure& Failure);

/// Writes the sentence of a failure, with its path when it names none, or nothing when there is
/// none.
/// @return its exit code.
int TavroPrintFailure(const TavroFailure& Failure);

/// Says how much a list of the trash does not tell of, so that nobody takes it for the whole trash.
void TavroPrintUnlisted(std::uint64_t Count);

/// Says on standard error what a file system could not hold; nothing when nothing was lost.
void TavroPrintLost(const TavroAttributesLost& Lost);

/// The number with its digits in groups of three: 1,234,567.
std::string TavroGroupedNumber(std::uint64_t Number);

/// "3 files", "1 file".
std::string TavroCountText(std::uint64_t Count, const std::string& Singular);

/// A size as people read it: "1 byte", "999 bytes", "1.2 kB", "34.5 MB", "180 MB", in powers of
/// 1,000.
std::string TavroHumanSize(std::uint64_t Bytes);

/// Whether a question can be asked: somebody reads standard error and types standard input.
bool TavroCanAsk();

/// Asks a question on standard error. It is written as it is: names in it are made printable
/// before.
/// @return the line that was typed, empty at the end of the input; nothing after an interrupt.
std::optional<std::string> TavroAsk(const std::string& Question);

/// Asks a question that is answered by y or n.
/// @param Otherwise  what is said when the answer is no yes.
/// @return TavroExitDone for a yes; else the exit code to end with: that of an interrupt, or
///         TavroExitFailed for anything else that was typed, the end of the input included.
int TavroConfirm(const std::string& Question, const std::string& Otherwise);

#endif
