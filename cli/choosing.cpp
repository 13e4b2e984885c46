#include "choosing.h"

#include <algorithm>
#include <clocale>
#include <filesystem>
#include <stdexcept>

namespace {

CLI::Option* AddDays(CLI::App& Command, const std::string& Name, const std::string& Description) {
    CLI::Option* days = Command.add_option(Name)->type_name("DAYS")->description(Description);
    TavroCheckNumber(*days, 1, 36500, "a number of days");
    return days;
}

} // namespace

TavroChoiceOptions TavroAddChoice(CLI::App& Command) {
    CLI::Option* words =
        TavroAddNames(Command, "NAME", 1,
                      "A name in the trash, an original path or name, or a quoted pattern", "");
    words->required(false);
    return {words, Command.add_flag("--here", "Only what was in the current directory or below"),
            AddDays(Command, "--since", "Only what was trashed in the last DAYS days"),
            AddDays(Command, "--older-than", "Only what was trashed more than DAYS days ago")};
}

TavroChoice TavroReadChoice(const TavroChoiceOptions& Options) {
    const auto days = [](const CLI::Option* option) {
        return option->empty() ? 0 : option->as<int>();
    };
    TavroChoice choice;
    choice.Words = TavroValues(Options.Words);
    choice.SinceDays = days(Options.Since);
    choice.OlderThanDays = days(Options.OlderThan);
    if (!Options.Here->empty()) {
        std::error_code ec;
        choice.Below = std::filesystem::current_path(ec).string();
        if (choice.Below.empty()) { // which would be no limit
            throw std::runtime_error("Cannot tell what the current directory is");
        }
    }
    if (std::any_of(choice.Words.begin(), choice.Words.end(), TavroIsPattern)) {
        std::setlocale(LC_CTYPE, ""); // tells what one character is
    }
    return choice;
}

namespace {

/// @return nothing for what is no size.
std::optional<std::uint64_t> ParseSize(const std::string& Text) {
    const std::size_t end = std::min(Text.find_first_not_of("0123456789."), Text.size());
    std::string unit = CLI::detail::to_lower(Text.substr(end));
    if (!unit.empty() && unit.back() == 'b') {
        unit.pop_back();
    }
    double size = 0;
    if (unit.size() > 1 || !CLI::detail::lexical_cast(Text.substr(0, end), size)) {
        return std::nullopt;
    }
    const std::string units = "kmgtpe";
    const std::size_t power = unit.empty() ? 0 : units.find(unit) + 1;
    for (std::size_t i = 0; i < power; ++i) {
        size *= 1000;
    }
    const bool bKnown = unit.empty() || power > 0;
    return bKnown && size < 1.8e19 ? std::optional(static_cast<std::uint64_t>(size)) : std::nullopt;
}

} // namespace

CLI::Option* TavroAddSizeOption(CLI::App& Command, const std::string& Name,
                                const std::string& Description) {
    CLI::Option* size = Command.add_option(Name)->type_name("SIZE")->description(Description);
    TavroCheckValue(*size, "a size like 500M or 1.5G",
                    [](const std::string& text) { return ParseSize(text).has_value(); });
    return size;
}

std::optional<std::uint64_t> TavroReadSize(const CLI::Option* Option) {
    return Option->empty() ? std::nullopt : ParseSize(TavroValue(Option));
}

std::string TavroContentText(const std::vector<TavroTrashItem>& Items) {
    return TavroCountText(Items.size(), "item") + " (" + TavroHumanSize(TavroCountBytes(Items)) +
           ")";
}
