#include "format.h"

#include "tavroops.h"
#include "terminal.h"

#include <filesystem>
#include <vector>

namespace {

/// A directory with a slash behind it, and what is written instead of that.
struct Prefix {
    std::string Text;
    std::string Shown;
};

/// The root is nobody's short name, and without a home nothing is below it.
Prefix PrefixOf(const std::string& Directory, const std::string& Shown) {
    const bool bUsable = Directory.size() > 1 && Directory.front() == '/';
    return {bUsable ? Directory + "/" : "", Shown};
}

const std::vector<Prefix>& Prefixes() {
    std::error_code ec;
    static const std::vector<Prefix> prefixes = {
        PrefixOf(std::filesystem::current_path(ec).string(), ""),
        PrefixOf(TavroHomeDirectoryPath(), "~/")};
    return prefixes;
}

/// Shortens what stands at `Begin`.
void Shorten(std::string& Text, std::size_t Begin) {
    for (const Prefix& prefix : Prefixes()) {
        const std::size_t end = Begin + prefix.Text.size();
        if (prefix.Text.empty() || Text.compare(Begin, prefix.Text.size(), prefix.Text) != 0) {
            continue;
        }
        // What is left must not be taken for an option or a home directory.
        const char next = end < Text.size() ? Text[end] : '-';
        const bool bOdd = prefix.Shown.empty() && (next == '-' || next == '~');
        Text.replace(Begin, prefix.Text.size(), bOdd ? "./" : prefix.Shown);
        return;
    }
}

} // namespace

std::string TavroShownPath(std::FILE* Stream, const std::string& Path) {
    std::string shown = Path;
    if (TavroIsTerminal(Stream)) {
        Shorten(shown, 0);
    }
    return shown;
}

std::string TavroShownSentence(std::FILE* Stream, std::string Sentence) {
    if (TavroIsTerminal(Stream)) {
        for (std::size_t at = Sentence.find("'/"); at != std::string::npos;
             at = Sentence.find("'/", at + 1)) {
            Shorten(Sentence, at + 1);
        }
    }
    return Sentence;
}

std::string TavroShownStep(const std::string& From, const std::string& To) {
    return TavroShownPath(stdout, From) + " -> " + TavroShownPath(stdout, To);
}
