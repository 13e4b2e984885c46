#include "command.h"

#include <array>
#include <ostream>

namespace tavro_model {

const std::vector<std::string>& places() {
    static const std::vector<std::string> all = {
        "A/x.txt",
        "A/y",
        "A/y/inner",
        "A",
        "B/x.txt",
        "B/y",
        "B/y/inner",
        "B",
        "B/.p",
        "cdda:1",
        "home/.local/share/Trash/files/x.txt",
        "home/.local/share/Trash/info/x.txt.trashinfo",
        "home/.local/share/Trash/info",
        "home/.local/share",
    };
    return all;
}

// Nothing here leads out of the root: each `..` follows a base directory or a name.
const std::vector<std::string>& typedTexts() {
    static const std::vector<std::string> all = {
        "x.txt",
        " y\t",
        "B/x.txt",
        "../B",
        "../B/",
        "y/",
        "y/inner",
        "~/x.txt",
        "~",
        "~\\x",
        "",
        " \t ",
        ".",
        "..",
        "ROOT/A",
        "ROOT/B/y/",
        "new/deep/x.txt",
        "new/",
        "./y/../x.txt",
        "ROOT/A/new",
        "~x",
        "nowhere",
        ".p",
        "gone/../B/y",
        std::string(300, 'n'),
        "y\\",
    };
    return all;
}

const std::vector<std::string>& baseDirectories() {
    static const std::vector<std::string> all = {"ROOT/A", "ROOT/B", "ROOT/A/y", "ROOT/home", ""};
    return all;
}

namespace {

constexpr std::array<const char*, verbCount> verbNames = {
    "Make",         "CreateDirectory", "Rename",  "Plan",    "Delete",
    "Trash",        "Restore",         "Reapply", "Prepare", "MovePrepared",
    "WriteRecords", "RemoveRecords",   "Measure", "Ask"};
constexpr std::array<const char*, typeCount> typeNames = {
    "a file", "a folder", "a full folder", "a link to A/x.txt", "a link to B", "a dangling link"};
constexpr std::array<const char*, 6> callNames = {
    "nothing", "rename", "mkdir", "remove", "opening a record", "writing a record"};

template <typename Names, typename Index> const char* nameOf(const Names& names, Index index) {
    return names[static_cast<std::size_t>(index)];
}

const std::string& elementAt(const std::vector<std::string>& list, int index) {
    return list[static_cast<std::size_t>(index)];
}

} // namespace

std::ostream& operator<<(std::ostream& stream, Type type) {
    return stream << nameOf(typeNames, type);
}

std::ostream& operator<<(std::ostream& stream, const Command& command) {
    stream << nameOf(verbNames, command.What) << " [";
    for (const Pick& pick : command.Selection) {
        const bool bParent = pick.PathSpelling == Spelling::ThroughParent;
        const bool bSeparator = pick.PathSpelling == Spelling::EndingInSeparator;
        stream << (bParent ? " A/../" : " ") << elementAt(places(), pick.Place)
               << (bSeparator ? "/" : "") << (pick.bLie ? " (flag wrong)" : "");
    }
    const std::string& text = elementAt(typedTexts(), command.Text);
    stream << " ] slot " << command.Slot << ", " << command.MadeType << ", text '"
           << (text.size() < 100 ? text : "a very long name") << "' in '"
           << elementAt(baseDirectories(), command.Base) << "'";
    stream << (command.bOption ? ", option" : "") << (command.bHomeless ? ", without HOME" : "")
           << (command.bOtherDevice ? ", on another device" : "");
    const Failure& failure = command.InjectedFailure;
    if (failure.FailingCall != Call::None) {
        stream << ", failing: " << nameOf(callNames, failure.FailingCall) << " number "
               << failure.When << (failure.bFromThenOn ? " and on" : "");
    }
    return stream;
}

} // namespace tavro_model
