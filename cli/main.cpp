// The command `tavro`: finds out which command was typed, and runs it.

#include "command.h"
#include "usage.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <sys/stat.h>

namespace {

struct Command {
    const char* Name;
    TavroAdder* Add;
};

constexpr Command commands[] = {
    {"copy", TavroAddCopy},       {"move", TavroAddMove},       {"plan", TavroAddPlan},
    {"rename", TavroAddRename},   {"mkdir", TavroAddMkdir},     {"delete", TavroAddDelete},
    {"trash", TavroAddTrash},     {"undo", TavroAddUndo},       {"redo", TavroAddRedo},
    {"resume", TavroAddResume},   {"history", TavroAddHistory}, {"list", TavroAddList},
    {"restore", TavroAddRestore}, {"empty", TavroAddEmpty},     {"doctor", TavroAddDoctor},
    {"size", TavroAddSize},
};

constexpr const char* examples = R"(Examples:
  tavro copy photos /media/stick/        copy a directory into another
  tavro move *.log ~/Logs/ -n            show what a move would do
  tavro rename report.txt final.txt      rename beside the file
  tavro trash old.iso                    to the trash; 'tavro undo' brings it back
  tavro list                             what is in the trash
  tavro restore old.iso                  put it back where it was
  tavro empty --older-than 30            make room, after a question
  tavro size ~/Music ~/Videos            how many bytes they hold

'tavro help COMMAND' explains one command.
A name that begins with a dash goes after --:  tavro trash -- -x.txt
Exit codes: 0 done, 1 something failed, 2 wrong usage, 130 interrupted
(143 by SIGTERM, 129 by SIGHUP).)";

/// Help that says what a person needs: the name of an option and of its value.
class PlainFormatter : public CLI::Formatter {
public:
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string type = option->nonpositional() ? option->get_type_name() : "";
        return type.empty() ? "" : " " + type.substr(0, type.find(':'));
    }

    std::string make_option_usage(const CLI::Option* option) const override {
        std::string name = make_option_name(option, true);
        if (option->get_expected_max() > 1 && name.find("...") == std::string::npos) {
            name += "...";
        }
        return option->get_required() ? name : "[" + name + "]";
    }
};

bool IsCommand(const std::string& Name) {
    return std::any_of(std::begin(commands), std::end(commands),
                       [&](const Command& command) { return command.Name == Name; });
}

/// "help copy" is read as "copy --help".
void ReadHelp(std::vector<std::string>& Arguments) {
    if (Arguments.empty() || Arguments.front() != "help") {
        return;
    }
    Arguments.erase(Arguments.begin());
    if (Arguments.empty() || IsCommand(Arguments.front())) {
        Arguments.emplace_back("--help");
    }
}

/// Adds the parser of the command that was typed alone: it is built in a third of the time that all
/// of them take. All are wanted for the help, and to say what is wrong.
void AddCommands(CLI::App& app, const std::string& firstArgument, TavroCommandTable& table) {
    const bool bAll = !IsCommand(firstArgument);
    for (const Command& command : commands) {
        if (bAll || command.Name == firstArgument) {
            command.Add(app, table);
        }
    }
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
    return exitCode == TavroExitDone ? TavroExitFailed : exitCode;
}

int ParseFailure(CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
        return FlushOutput(app.exit(error)); // --help and --version
    }
    const CLI::App* command = TypedCommand(app);
    std::string sentence = TavroDescribeUsage(*command, error);
    sentence.erase(std::remove(sentence.begin(), sentence.end(), '\0'), sentence.end());
    if (sentence.empty()) {
        std::fputs(app.help().c_str(), stderr); // of the command that was typed
        return TavroExitUsage;
    }
    return TavroRefuseUsage(*command, sentence);
}

int RunCommandLine(int argc, char** argv) {
    CLI::App app("File operations that lose nothing", "tavro");
    app.formatter(std::make_shared<PlainFormatter>());
    app.footer(examples);
    app.set_version_flag("--version", "tavro " TAVRO_VERSION);
    app.require_subcommand(1);
    TavroCommandTable table;
    std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    ReadHelp(arguments);
    AddCommands(app, arguments.empty() ? "" : arguments.front(), table);
    TavroProtect(arguments);
    std::reverse(arguments.begin(), arguments.end()); // the order that the parser takes
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return ParseFailure(app, error);
    }
    return FlushOutput(table.at(TypedCommand(app))());
}

} // namespace

int main(int argc, char** argv) {
    // Neither a reader who goes away nor a limit on the size of files ends work that is half done.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        return RunCommandLine(argc, argv);
    } catch (const std::bad_alloc&) {
        TavroPrintError("There is not enough memory");
        return TavroExitFailed;
    } catch (const std::exception& error) {
        TavroPrintError(error.what());
        return TavroExitFailed;
    }
}
