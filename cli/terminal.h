/// What the command shows: names, sizes, sentences and questions, on a terminal and into a pipe.

#ifndef TAVRO_CLI_TERMINAL_H
#define TAVRO_CLI_TERMINAL_H

#include <cstdint>
#include <cstdio>
#include <string>

/// Whether what is written to (or read from) `Stream` meets a person.
bool TavroIsTerminal(std::FILE* Stream);

/// `Text` with every byte that a terminal could take for a command shown as \xNN: control
/// characters of ASCII and of UTF-8's C1 range, and what is not UTF-8 at all.
std::string TavroPrintableText(const std::string& Text);

/// Writes `Text` and a line feed: printable on a terminal, byte for byte into anything else.
void TavroPrintLine(std::FILE* Stream, const std::string& Text);

/// Writes "tavro: SENTENCE" to standard error.
void TavroPrintError(const std::string& Sentence);

/// The number with its digits in groups of three: 1,234,567.
std::string TavroGroupedNumber(std::uint64_t Number);

/// "3 files", "1 file".
std::string TavroCountText(std::uint64_t Count, const std::string& Singular);

/// A size as people read it: "1 byte", "999 bytes", "1.2 kB", "34 MB", in powers of 1,000.
std::string TavroHumanSize(std::uint64_t Bytes);

/// Asks a question on standard error. It is written as it is: names in it are made printable
/// before.
/// @return the line that was typed; empty at the end of the input, and after an interrupt.
std::string TavroAsk(const std::string& Question);

/// Asks a question that is answered by y or n, on standard error.
/// @return true for a yes; false for anything else, the end of the input included.
bool TavroConfirm(const std::string& Question);

/// Whether a question can be asked: somebody reads standard error and types standard input.
bool TavroCanAsk();

#endif
