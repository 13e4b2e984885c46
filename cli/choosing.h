/// How a command line says which items in the trash it means.

#ifndef TAVRO_CLI_CHOOSING_H
#define TAVRO_CLI_CHOOSING_H

#include "choice.h"
#include "command.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The options that say it.
struct TavroChoiceOptions {
    CLI::Option* Words;
    CLI::Option* Here;
    CLI::Option* Since;
    CLI::Option* OlderThan;
};

/// Adds them to a command.
TavroChoiceOptions TavroAddChoice(CLI::App& Command);

/// Throws std::runtime_error when --here means no directory.
TavroChoice TavroReadChoice(const TavroChoiceOptions& Options);

/// An option that takes a size as TavroHumanSize writes one, without blanks: 500M, 1.5GB.
CLI::Option* TavroAddSizeOption(CLI::App& Command, const std::string& Name,
                                const std::string& Description);
std::optional<std::uint64_t> TavroReadSize(const CLI::Option* Option);

/// "3 items (1.5 kB)"
std::string TavroContentText(const std::vector<TavroTrashItem>& Items);

#endif
