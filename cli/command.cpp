#include "command.h"

#include "tavroops.h"

#include <cstdlib>
#include <filesystem>

void TavroProtect(std::vector<std::string>& Arguments) {
    for (std::string& argument : Arguments) {
        if (argument == "++" || (!argument.empty() && argument.back() == ']')) {
            argument += '\0';
        }
    }
}

CLI::App* TavroAddCommand(CLI::App& App, const std::string& Name, const std::string& Description,
                          const std::string& Example) {
    CLI::App* command = App.add_subcommand(Name, Description);
    command->footer("Example: tavro " + Example);
    return command;
}

CLI::Option* TavroAddNames(CLI::App& Command, const std::string& Name, int Minimum,
                           const std::string& Description, const std::string& Need) {
    constexpr int anyNumber = 1 << 28;
    CLI::Option* option = TavroAddName(Command, Name, Description, Need);
    return option->expected(Minimum, anyNumber)->allow_extra_args();
}

CLI::Option* TavroAddName(CLI::App& Command, const std::string& Name,
                          const std::string& Description, const std::string& Need) {
    CLI::Option* option = Command.add_option(Name);
    option->description(Description)->required()->type_name(Need);
    return option;
}

CLI::Option* TavroAddQuiet(CLI::App& Command) {
    return Command.add_flag("-q,--quiet", "Print only errors");
}

CLI::Option* TavroAddVerbose(CLI::App& Command) {
    return Command.add_flag("-v,--verbose", "Name every entry, however many there are");
}

CLI::Option* TavroAddBaseDirectory(CLI::App& Command) {
    CLI::Option* in = Command.add_option("--in");
    in->type_name("DIRECTORY");
    TavroCheckNotEmpty(*in);
    return in->description("Read TEXT relative to this directory instead of the current one");
}

std::string TavroBaseDirectory(const CLI::Option* In) {
    std::error_code ec;
    const std::filesystem::path current = std::filesystem::current_path(ec);
    return In->empty() ? current.string() : (current / TavroValue(In)).string();
}

CLI::Option* TavroAddVolume(CLI::App& Command) {
    CLI::Option* volume = Command.add_option("--volume");
    return volume->type_name("PATH")->description(
        "Only the trash of the volume that has this path");
}

TavroFailure TavroSeeTrashes(const std::string& OnVolume,
                             std::vector<TavroTrashFolders>& OutTrashes) {
    TavroTrashes trashes;
    TavroFailure failure = TavroFindTrashes(OnVolume, trashes);
    for (const std::string& silent : trashes.Silent) {
        TavroPrintError("'" + silent + "' does not answer and is skipped");
    }
    OutTrashes = std::move(trashes.Folders);
    return failure;
}

CLI::Option* TavroAddColor(CLI::App& Command) {
    CLI::Option* color = Command.add_option("--color");
    color->type_name("auto|always|never")->description("When to use colours");
    TavroCheckValue(*color, "auto, always or never", [](const std::string& value) {
        return value == "auto" || value == "always" || value == "never";
    });
    return color;
}

bool TavroHasColor(const CLI::Option* Color) {
    const std::string when = Color->empty() ? "auto" : Color->as<std::string>();
    const auto variable = [](const char* name) {
        const char* const value = std::getenv(name);
        return std::string(value == nullptr ? "" : value);
    };
    const bool bWanted = variable("NO_COLOR").empty() && !variable("TERM").empty() &&
                         variable("TERM") != "dumb" && TavroIsTerminal(stdout);
    return when == "always" || (when == "auto" && bWanted);
}

void TavroCheckValue(CLI::Option& Option, const std::string& What,
                     const std::function<bool(const std::string&)>& IsTaken) {
    Option.check([What, IsTaken](const std::string& value) {
        return IsTaken(value) ? "" : "takes " + What + ", not '" + value + "'";
    });
}

void TavroCheckNotEmpty(CLI::Option& Option) {
    TavroCheckValue(Option, "a directory", [](const std::string& text) { return !text.empty(); });
}

void TavroCheckNumber(CLI::Option& Option, int Least, int Most, const std::string& What) {
    TavroCheckValue(Option, What + " from " + std::to_string(Least) + " to " + std::to_string(Most),
                    [range = CLI::Range(Least, Most)](const std::string& value) {
                        return range(value).empty();
                    });
}

// They are not read as anything but raw results: a conversion to a list would turn a name like {}
// into nothing.
std::vector<std::string> TavroValues(const CLI::Option* Option) {
    std::vector<std::string> values = Option->results();
    for (std::string& value : values) {
        if (!value.empty() && value.back() == '\0') {
            value.pop_back();
        }
    }
    return values;
}

std::string TavroValue(const CLI::Option* Option) {
    const std::vector<std::string> values = TavroValues(Option);
    return values.empty() ? "" : values.front();
}

bool TavroCanResolve(const std::string& Text) {
    const std::string text = TavroTrimText(Text);
    const bool bTilde =
        text == "~" || text.compare(0, 2, "~/") == 0 || text.compare(0, 2, "~\\") == 0;
    if (bTilde && TavroHomeDirectoryPath().empty()) {
        TavroPrintError("Cannot tell what '" + text + "' means: HOME is not set");
        return false;
    }
    return true;
}

bool TavroFindEntries(const std::vector<std::string>& Texts,
                      std::vector<TavroOperationEntry>& OutEntries) {
    return TavroPrintFailures(TavroSelectEntries(Texts, OutEntries));
}
