// The command `tavro`: reads its arguments and runs one command.

#include "commands.h"
#include "terminal.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>

namespace {

using Run = std::function<int()>;

/// The commands by the parsers that read their arguments.
using CommandTable = std::map<const CLI::App*, Run>;

const char* const g_examples = R"(Examples:
  tavro mkdir 'Letters/2026'             create a folder with its parents
  tavro rename report.txt final.txt      rename beside the file
  tavro rename report.txt ../done/r.txt  move within the file system
  tavro delete old.iso                   delete for good, after a question
  tavro size ~/Music ~/Videos            how many bytes they hold
  tavro plan copy a.txt b.txt /backup/   what a copy would do, doing nothing

A name that begins with a dash goes behind --:  tavro delete -- -x.txt
Exit codes: 0 done, 1 something failed, 2 wrong usage, 130 interrupted.)";

std::string CurrentDirectory() {
    std::error_code ec;
    return std::filesystem::current_path(ec).string();
}

/// The argument parser takes "[a,b]" for a list of two, but it is one name here. With a zero byte
/// at its end, which no argument can hold, it passes as it is; Values takes that byte away again.
std::vector<std::string> ProtectedArguments(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    for (std::string& argument : arguments) {
        if (!argument.empty() && argument.back() == ']') {
            argument += '\0';
        }
    }
    return arguments;
}

/// The values of an option as they were typed. They are not read as anything but raw results: a
/// conversion to a list would turn a name like {} into nothing.
std::vector<std::string> Values(const CLI::Option* option) {
    std::vector<std::string> values = option->results();
    for (std::string& value : values) {
        if (!value.empty() && value.back() == '\0') {
            value.pop_back();
        }
    }
    return values;
}

std::string Value(const CLI::Option* option) {
    return Values(option).at(0);
}

/// A list of names, `minimum` of them at least.
CLI::Option* AddEntries(CLI::App& command, const std::string& name, int minimum,
                        const std::string& description) {
    CLI::Option* option = command.add_option(name);
    option->description(description)->required()->expected(minimum, 1 << 28);
    return option->allow_extra_args();
}

CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& description) {
    CLI::App* command = app.add_subcommand(name, description);
    command->footer(""); // the examples stand in the help of the whole only
    return command;
}

void AddMkdir(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "mkdir", "Create a folder, with its missing parents");
    CLI::Option* text = command->add_option("TEXT");
    text->required()->description("The new folder as a pane takes it: a name, a path, ~/…");
    CLI::Option* in = command->add_option("--in");
    in->type_name("DIRECTORY")->description("Relative to this directory instead of the current");
    table[command] = [=] {
        return TavroRunMkdir(Value(text), in->empty() ? CurrentDirectory() : Value(in));
    };
}

void AddRename(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "rename", "Rename an entry, or move it to a new path");
    CLI::Option* entry = command->add_option("ENTRY");
    entry->required()->description("What is renamed");
    CLI::Option* text = command->add_option("TEXT");
    text->required()->description("The new name, or the full new path; relative to the entry");
    table[command] = [=] { return TavroRunRename(Value(entry), Value(text)); };
}

void AddDelete(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "delete", "Delete entries for good, after a question");
    CLI::Option* entries = AddEntries(*command, "ENTRY", 1, "What is deleted");
    CLI::Option* force = command->add_flag("-f,--force", "Without asking");
    table[command] = [=] { return TavroRunDelete(Values(entries), !force->empty()); };
}

void AddSize(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "size", "Add up the sizes of the files in folders");
    CLI::Option* directories = AddEntries(*command, "DIRECTORY", 1, "What is measured");
    table[command] = [=] { return TavroRunSize(Values(directories)); };
}

void AddPlanVerb(CLI::App& plan, bool bMove, CommandTable& table) {
    CLI::App* command =
        AddCommand(plan, bMove ? "move" : "copy", bMove ? "Plan a move" : "Plan a copy");
    CLI::Option* names = AddEntries(*command, "ENTRY... TEXT", 2, "");
    names->description("The entries, and last the target as a pane takes it");
    CLI::Option* in = command->add_option("--in");
    in->type_name("DIRECTORY")->description("The target is relative to this directory");
    CLI::Option* json = command->add_flag("--json", "Print the plan as JSON");
    table[command] = [=] {
        TavroPlanArguments arguments;
        arguments.Entries = Values(names);
        arguments.TargetText = arguments.Entries.back();
        arguments.Entries.pop_back();
        arguments.BaseDirectory = in->empty() ? CurrentDirectory() : Value(in);
        arguments.bMove = bMove;
        arguments.bJson = !json->empty();
        return TavroRunPlan(arguments);
    };
}

void AddPlan(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "plan", "Show what a copy or a move would do");
    command->require_subcommand(1);
    AddPlanVerb(*command, false, table);
    AddPlanVerb(*command, true, table);
}

/// The parser of the command that was typed: the innermost that was met.
const CLI::App* TypedCommand(const CLI::App& app) {
    const CLI::App* command = &app;
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
    }
    return command;
}

/// What was printed may still be in a buffer; a full disk shows only now.
int FlushOutput(int exitCode) {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return exitCode;
    }
    TavroPrintError(std::string("Cannot write to standard output: ") + std::strerror(errno));
    return TavroExitFailed;
}

int UsageFailure(std::string sentence) {
    sentence.erase(std::remove(sentence.begin(), sentence.end(), '\0'), sentence.end());
    TavroPrintError(sentence);
    TavroPrintLine(stderr, "Try 'tavro --help'.");
    return TavroExitUsage;
}

int ParseFailure(CLI::App& app, const CLI::ParseError& error, const std::string& firstArgument) {
    if (error.get_exit_code() == 0) {
        return FlushOutput(app.exit(error)); // --help and --version
    }
    if (app.get_subcommands().empty() && !firstArgument.empty() && firstArgument[0] != '-') {
        return UsageFailure("Unknown command '" + firstArgument + "'");
    }
    return UsageFailure(error.what());
}

int RunCommandLine(int argc, char** argv) {
    CLI::App app("File operations that lose nothing", "tavro");
    app.footer(g_examples);
    app.set_version_flag("--version", "tavro " TAVRO_VERSION);
    app.require_subcommand(1);
    CommandTable table;
    AddMkdir(app, table);
    AddRename(app, table);
    AddDelete(app, table);
    AddSize(app, table);
    AddPlan(app, table);
    try {
        std::vector<std::string> arguments = ProtectedArguments(argc, argv);
        std::reverse(arguments.begin(), arguments.end()); // the order that the parser takes
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return ParseFailure(app, error, argc > 1 ? argv[1] : "");
    }
    return FlushOutput(table.at(TypedCommand(app))());
}

} // namespace

int main(int argc, char** argv) {
    try {
        return RunCommandLine(argc, argv);
    } catch (const std::exception& error) {
        TavroPrintError(error.what());
        return TavroExitFailed;
    }
}
