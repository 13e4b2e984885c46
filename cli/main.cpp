// The command `tavro`: reads its arguments and runs one command.

#include "commands.h"
#include "terminal.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <sys/stat.h>

namespace {

using Run = std::function<int()>;

/// The commands by the parsers that read their arguments.
using CommandTable = std::map<const CLI::App*, Run>;

const char* const g_examples = R"(Examples:
  tavro copy photos /media/stick/        copy a folder into another
  tavro move *.log ~/Logs/ -n            show what a move would do
  tavro rename report.txt final.txt      rename beside the file
  tavro trash old.iso                    to the trash; 'tavro undo' brings it back
  tavro list                             what is in the trash
  tavro restore old.iso                  put it back where it was
  tavro empty --older-than 30            make room, after a question
  tavro size ~/Music ~/Videos            how many bytes they hold

A name that begins with a dash goes behind --:  tavro trash -- -x.txt
Exit codes: 0 done, 1 something failed, 2 wrong usage, 130 interrupted.)";

std::string CurrentDirectory() {
    std::error_code ec;
    return std::filesystem::current_path(ec).string();
}

/// The argument parser takes "[a,b]" for a list of two and "++" for the end of a command, but they
/// are names here. With a zero byte at its end, which no argument can hold, such a name passes as
/// it is; Values takes that byte away again.
std::vector<std::string> ProtectedArguments(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    for (std::string& argument : arguments) {
        if (argument == "++" || (!argument.empty() && argument.back() == ']')) {
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

/// Help that says what a person needs: the name of an option and of its value.
class PlainFormatter : public CLI::Formatter {
public:
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string type = option->nonpositional() ? option->get_type_name() : "";
        return type.empty() ? "" : " " + type.substr(0, type.find(':'));
    }

    std::string make_option_usage(const CLI::Option* option) const override {
        const std::string name = make_option_name(option, true);
        return option->get_expected_max() > 1 && name.find("...") == std::string::npos
                   ? name + "..."
                   : name;
    }
};

/// A list of names, `minimum` of them at least.
CLI::Option* AddEntries(CLI::App& command, const std::string& name, int minimum,
                        const std::string& description) {
    CLI::Option* option = command.add_option(name);
    option->description(description)->required()->expected(minimum, 1 << 28);
    return option->allow_extra_args();
}

CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const std::string& example) {
    CLI::App* command = app.add_subcommand(name, description);
    command->footer("Example: tavro " + example);
    return command;
}

CLI::Option* AddBaseDirectory(CLI::App& command) {
    CLI::Option* in = command.add_option("--in");
    in->type_name("DIRECTORY");
    return in->description("Typed text is relative to this directory instead of the current");
}

/// The directory that typed text is relative to, made absolute.
std::string BaseDirectory(const CLI::Option* in) {
    const std::string current = CurrentDirectory();
    return in->empty() ? current : (std::filesystem::path(current) / Value(in)).string();
}

CLI::Option* AddQuiet(CLI::App& command) {
    return command.add_flag("-q,--quiet", "No progress, no list of what was done");
}

void AddMkdir(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "mkdir", "Create a folder, with its missing parents",
                                   "mkdir 'Letters/2026'");
    CLI::Option* text = command->add_option("TEXT");
    text->required()->description("The new folder as a pane takes it: a name, a path, ~/…");
    CLI::Option* in = AddBaseDirectory(*command);
    table[command] = [=] { return TavroRunMkdir(Value(text), BaseDirectory(in)); };
}

void AddRename(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "rename", "Rename an entry, or move it to a new path",
                                   "rename report.txt final.txt");
    CLI::Option* entry = command->add_option("ENTRY");
    entry->required()->description("What is renamed");
    CLI::Option* text = command->add_option("TEXT");
    text->required()->description("The new name, or the full new path; relative to the entry");
    table[command] = [=] { return TavroRunRename(Value(entry), Value(text)); };
}

void AddDelete(CLI::App& app, CommandTable& table) {
    CLI::App* command =
        AddCommand(app, "delete", "Delete entries for good, after a question", "delete old.iso");
    CLI::Option* entries = AddEntries(*command, "ENTRY", 1, "What is deleted");
    CLI::Option* force = command->add_flag("-f,--force", "Without asking");
    table[command] = [=] { return TavroRunDelete(Values(entries), !force->empty()); };
}

void AddSize(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "size", "Add up the sizes of the files in folders",
                                   "size ~/Music ~/Videos");
    CLI::Option* directories = AddEntries(*command, "DIRECTORY", 1, "What is measured");
    table[command] = [=] { return TavroRunSize(Values(directories)); };
}

CLI::Option* AddTransferNames(CLI::App& command) {
    return AddEntries(command, "ENTRY... TEXT", 2,
                      "The entries, and last the target as a pane takes it");
}

/// Splits "ENTRY... TEXT".
TavroTransferRequest TransferRequest(const CLI::Option* names, const CLI::Option* in, bool bMove) {
    TavroTransferRequest request;
    request.Entries = Values(names);
    request.TargetText = request.Entries.back();
    request.Entries.pop_back();
    request.BaseDirectory = BaseDirectory(in);
    request.bMove = bMove;
    return request;
}

void AddPlanVerb(CLI::App& plan, bool bMove, CommandTable& table) {
    CLI::App* command =
        AddCommand(plan, bMove ? "move" : "copy", bMove ? "Plan a move" : "Plan a copy",
                   bMove ? "plan move a.txt b.txt ~/done/" : "plan copy a.txt b.txt ~/backup/");
    CLI::Option* names = AddTransferNames(*command);
    CLI::Option* in = AddBaseDirectory(*command);
    CLI::Option* json = command->add_flag("--json", "Print the plan as JSON");
    table[command] = [=] {
        return TavroRunPlan(TransferRequest(names, in, bMove), !json->empty());
    };
}

void AddPlan(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "plan", "Show what a copy or a move would do",
                                   "plan copy photos /media/stick/");
    command->require_subcommand(1);
    AddPlanVerb(*command, false, table);
    AddPlanVerb(*command, true, table);
}

const std::map<std::string, TavroOnConflict> g_onConflict = {
    {"ask", TavroOnConflict::Ask},
    {"overwrite", TavroOnConflict::Overwrite},
    {"skip", TavroOnConflict::Skip},
    {"keep-both", TavroOnConflict::KeepBoth},
};

void AddTransfer(CLI::App& app, bool bMove, CommandTable& table) {
    CLI::App* command = AddCommand(app, bMove ? "move" : "copy",
                                   bMove ? "Move entries to a folder or a new path"
                                         : "Copy entries to a folder or a new path",
                                   bMove ? "move *.log ~/Logs/" : "copy photos /media/stick/");
    CLI::Option* names = AddTransferNames(*command);
    CLI::Option* in = AddBaseDirectory(*command);
    CLI::Option* onConflict = command->add_option("--on-conflict");
    onConflict->type_name("ask|overwrite|skip|keep-both")
        ->description("What is done about something in the way; without a terminal, ask skips")
        ->check(CLI::IsMember(g_onConflict));
    CLI::Option* dryRun = command->add_flag("-n,--dry-run", "Show the plan and do nothing");
    CLI::Option* quiet = AddQuiet(*command);
    table[command] = [=] {
        TavroTransferArguments arguments;
        arguments.Request = TransferRequest(names, in, bMove);
        if (!onConflict->empty()) {
            arguments.OnConflict = g_onConflict.at(Value(onConflict));
        }
        arguments.bDryRun = !dryRun->empty();
        arguments.bQuiet = !quiet->empty();
        return TavroRunTransfer(arguments);
    };
}

void AddTrash(CLI::App& app, CommandTable& table) {
    CLI::App* command =
        AddCommand(app, "trash", "Move entries to the trash, all or nothing", "trash old.iso");
    CLI::Option* entries = AddEntries(*command, "ENTRY", 1, "What is trashed");
    CLI::Option* quiet = AddQuiet(*command);
    table[command] = [=] { return TavroRunTrash(Values(entries), !quiet->empty()); };
}

void AddUndoAndRedo(CLI::App& app, CommandTable& table) {
    CLI::App* undo = AddCommand(app, "undo", "Undo the newest operation", "undo");
    CLI::Option* undoQuiet = AddQuiet(*undo);
    table[undo] = [=] { return TavroRunUndo(!undoQuiet->empty()); };
    CLI::App* redo = AddCommand(app, "redo", "Do again what was undone last", "redo");
    CLI::Option* redoQuiet = AddQuiet(*redo);
    table[redo] = [=] { return TavroRunRedo(!redoQuiet->empty()); };
    CLI::App* history =
        AddCommand(app, "history", "List what can be undone, newest first", "history --json");
    CLI::Option* json = history->add_flag("--json", "As JSON");
    CLI::Option* drop =
        history->add_flag("--drop", "Take the newest operation off the list without undoing it")
            ->excludes(json);
    table[history] = [=] {
        return drop->empty() ? TavroRunHistory(!json->empty()) : TavroRunHistoryDrop();
    };
}

void AddList(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "list", "List the trash, newest first",
                                   "list -0 | xargs -0 tavro restore --keep-both --");
    CLI::Option* json = command->add_flag("--json", "As JSON");
    CLI::Option* zero = command->add_flag("-0,--null", "Names alone, each ended by a zero byte");
    zero->excludes(json);
    table[command] = [=] { return TavroRunList(!json->empty(), !zero->empty()); };
}

void AddRestore(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "restore", "Put trashed entries back", "restore old.iso");
    CLI::Option* names =
        AddEntries(*command, "NAME", 1, "A name in the trash, or an original path");
    CLI::Option* keepBoth =
        command->add_flag("--keep-both", "To a free name where the original place is taken");
    CLI::Option* quiet = AddQuiet(*command);
    table[command] = [=] {
        return TavroRunRestore(Values(names), !keepBoth->empty(), !quiet->empty());
    };
}

void AddEmpty(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "empty", "Delete what is in the trash, after a question",
                                   "empty --older-than 30");
    CLI::Option* days = command->add_option("--older-than");
    days->type_name("DAYS")->description("Only what was trashed more than so many days ago");
    days->check(CLI::Range(1, 36500));
    CLI::Option* force = command->add_flag("-f,--force", "Without asking");
    CLI::Option* quiet = AddQuiet(*command);
    table[command] = [=] {
        const int olderThan = days->empty() ? 0 : days->as<int>();
        return TavroRunEmpty(olderThan, !force->empty(), !quiet->empty());
    };
}

void AddDoctor(CLI::App& app, CommandTable& table) {
    CLI::App* command = AddCommand(app, "doctor", "Look for items and records that do not match",
                                   "doctor --mend old.iso");
    CLI::Option* mend = command->add_option("--mend");
    mend->type_name("NAME...")->expected(1, 1 << 28)->allow_extra_args();
    mend->description("Mend the findings with these names");
    CLI::Option* all = command->add_flag("--mend-all", "Mend every finding");
    table[command] = [=] { return TavroRunDoctor(Values(mend), !all->empty()); };
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
    const int error = errno;
    struct stat status = {};
    if (fstat(fileno(stdout), &status) != 0 || !S_ISFIFO(status.st_mode)) {
        TavroPrintError(std::string("Cannot write to standard output: ") + std::strerror(error));
    } // the reader of a pipe who went away knows
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
    app.formatter(std::make_shared<PlainFormatter>());
    app.footer(g_examples);
    app.set_version_flag("--version", "tavro " TAVRO_VERSION);
    app.require_subcommand(1);
    CommandTable table;
    AddTransfer(app, false, table);
    AddTransfer(app, true, table);
    AddPlan(app, table);
    AddRename(app, table);
    AddMkdir(app, table);
    AddDelete(app, table);
    AddTrash(app, table);
    AddUndoAndRedo(app, table);
    AddList(app, table);
    AddRestore(app, table);
    AddEmpty(app, table);
    AddDoctor(app, table);
    AddSize(app, table);
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
    // A reader who goes away must not end work that is half done.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return RunCommandLine(argc, argv);
    } catch (const std::exception& error) {
        TavroPrintError(error.what());
        return TavroExitFailed;
    }
}
