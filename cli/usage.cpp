#include "usage.h"

#include "place.h"
#include "terminal.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

/// How many bytes are to be added, taken away, changed or swapped to make one word of the other.
std::size_t Distance(const std::string& A, const std::string& B) {
    std::vector<std::vector<std::size_t>> rows(A.size() + 1,
                                               std::vector<std::size_t>(B.size() + 1));
    std::iota(rows[0].begin(), rows[0].end(), 0U);
    for (std::size_t i = 1; i <= A.size(); ++i) {
        rows[i][0] = i;
        for (std::size_t j = 1; j <= B.size(); ++j) {
            const std::size_t change = rows[i - 1][j - 1] + (A[i - 1] == B[j - 1] ? 0 : 1);
            rows[i][j] = std::min({change, rows[i - 1][j] + 1, rows[i][j - 1] + 1});
            if (i > 1 && j > 1 && A[i - 1] == B[j - 2] && A[i - 2] == B[j - 1]) {
                rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
            }
        }
    }
    return rows[A.size()][B.size()];
}

/// "; did you mean 'mkdir'?", or nothing where no word is near.
std::string Suggestion(const std::string& Typed, const std::vector<std::string>& Words) {
    std::string nearest;
    std::size_t least = Typed.size() / 3 + 1;
    for (const std::string& word : Words) {
        const bool bBegun = Typed.size() > 2 && word.compare(0, Typed.size(), Typed) == 0;
        const std::size_t distance = bBegun ? 0 : Distance(Typed, word);
        if (distance < least) {
            least = distance;
            nearest = word;
        }
    }
    return nearest.empty() ? "" : "; did you mean '" + nearest + "'?";
}

std::string DescribeOption(const CLI::App& Command, const std::string& Typed) {
    std::vector<std::string> names;
    bool bTakesNames = false;
    for (const CLI::Option* option : Command.get_options()) {
        bTakesNames = bTakesNames || option->get_positional();
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    if (std::find(names.begin(), names.end(), Typed) != names.end()) {
        return "Option '" + Typed + "' goes after '" + TavroCommandPath(Command) + "'";
    }
    const std::string sentence = "Unknown option '" + Typed + "'";
    const std::string suggestion = Suggestion(Typed.substr(0, Typed.find('=')), names);
    if (!bTakesNames || (!suggestion.empty() && !TavroIsPresent(Typed))) {
        return sentence + suggestion;
    }
    return sentence + "; a name that begins with a dash goes after --";
}

/// What is wrong with an argument that nothing takes.
std::string DescribeExtra(const CLI::App& Command, const std::string& Extra, bool bOption) {
    if (bOption) {
        return DescribeOption(Command, Extra);
    }
    std::vector<std::string> names;
    for (const CLI::App* command : Command.get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(command->get_name());
    }
    return names.empty() ? "Unexpected argument '" + Extra + "'"
                         : "Unknown command '" + Extra + "'" + Suggestion(Extra, names);
}

/// What is wrong with the value of an option, of which the parser says "--in: WHAT".
std::string DescribeValue(const CLI::App& Command, const CLI::ParseError& Error) {
    std::string what = Error.what();
    const std::size_t colon = what.find(": ");
    const std::string name = what.substr(0, colon);
    const CLI::Option* option = Command.get_option_no_throw(name);
    if (option == nullptr || colon == std::string::npos) {
        return what;
    }
    if (Error.get_name() == "ArgumentMismatch") {
        return name + (option->count() > 1 ? " was given more than once" : " needs a value");
    }
    return name + what.substr(colon + 1);
}

} // namespace

std::string TavroCommandPath(const CLI::App& Command) {
    const CLI::App* parent = Command.get_parent();
    return (parent == nullptr ? "" : TavroCommandPath(*parent) + " ") + Command.get_name();
}

std::string TavroDescribeUsage(const CLI::App& Command, const CLI::ParseError& Error) {
    const CLI::App* root = &Command;
    while (root->get_parent() != nullptr) {
        root = root->get_parent();
    }
    bool bNamesOnly = false;
    for (const std::string& extra : root->remaining(true)) {
        if (extra == "--") {
            bNamesOnly = true;
        } else {
            return DescribeExtra(Command, extra,
                                 !bNamesOnly && extra.size() > 1 && extra[0] == '-');
        }
    }
    for (const CLI::Option* option : Command.get_options()) {
        const auto least = static_cast<std::size_t>(option->get_expected_min());
        if (option->get_positional() && option->get_required() && option->count() < least) {
            return "'" + TavroCommandPath(Command) + "' needs " + option->get_type_name();
        }
    }
    const std::string what = Error.what();
    const std::string excludes = " excludes ";
    const std::size_t middle = what.find(excludes);
    if (middle != std::string::npos) {
        return what.substr(0, middle) + " cannot be given together with " +
               what.substr(middle + excludes.size());
    }
    const bool bNoCommand = Error.get_name() == "RequiredError";
    return bNoCommand ? "" : DescribeValue(Command, Error);
}

int TavroRefuseUsage(const CLI::App& Command, const std::string& Sentence) {
    TavroPrintError(Sentence);
    TavroPrintLine(stderr, "Try '" + TavroCommandPath(Command) + " --help'");
    return TavroExitUsage;
}
