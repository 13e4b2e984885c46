/// What a person reads on a terminal: short paths, dates, columns, colours. Into anything else goes
/// what a program reads.

#ifndef TAVRO_CLI_FORMAT_H
#define TAVRO_CLI_FORMAT_H

#include <cstdio>
#include <string>

/// A path as it is shown: on a terminal relative below the current directory, and with `~/` below
/// the home directory, so that it means the same when it is typed; else as it is.
std::string TavroShownPath(std::FILE* Stream, const std::string& Path);

/// A sentence with each path in quotes as it is shown.
std::string TavroShownSentence(std::FILE* Stream, std::string Sentence);

/// "FROM -> TO" for standard output.
std::string TavroShownStep(const std::string& From, const std::string& To);

#endif
