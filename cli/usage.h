/// What is wrong with a command line, in words of the command's own.

#ifndef TAVRO_CLI_USAGE_H
#define TAVRO_CLI_USAGE_H

#include <CLI/CLI.hpp>

#include <string>

/// "tavro plan copy"
std::string TavroCommandPath(const CLI::App& Command);

/// One sentence that says what is missing, unknown or too much, and what may have been meant.
/// @param Command  the innermost that was typed.
/// @return empty when nothing is wrong but that a command is missing.
std::string TavroDescribeUsage(const CLI::App& Command, const CLI::ParseError& Error);

/// Says what is wrong with a command line, and where the help is. @return TavroExitUsage.
int TavroRefuseUsage(const CLI::App& Command, const std::string& Sentence);

#endif
