#include "terminal.h"

#include "interrupt.h"
#include "tavroops.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <unistd.h>

namespace {

struct CharacterRange {
    std::uint32_t First;
    std::uint32_t Last;
};

/// Characters that show nothing, and those that turn the direction of what follows.
constexpr CharacterRange hidden[] = {
    {0xAD, 0xAD},       {0x34F, 0x34F},     {0x61C, 0x61C},   {0x115F, 0x1160}, {0x17B4, 0x17B5},
    {0x180B, 0x180F},   {0x200B, 0x200F},   {0x2028, 0x202E}, {0x2060, 0x206F}, {0x3164, 0x3164},
    {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0}, {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3},
    {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF},
};

/// Those of them that join or vary what they follow, in many scripts and in emoji.
constexpr CharacterRange joiners[] = {{0x200C, 0x200D}, {0xFE00, 0xFE0F}, {0xE0100, 0xE01EF}};

template <std::size_t Size>
bool IsIn(const CharacterRange (&Ranges)[Size], std::uint32_t Character) {
    return std::any_of(std::begin(Ranges), std::end(Ranges), [&](const CharacterRange& range) {
        return range.First <= Character && Character <= range.Last;
    });
}

/// How many bytes the character at `Index` has; 0 when it is a control character, hidden or no
/// UTF-8.
/// @param bJoins  a joiner may stand here: something beyond ASCII is before it.
std::size_t PrintableLength(const std::string& Text, std::size_t Index, bool bJoins) {
    const auto byteAt = [&](std::size_t at) {
        return at < Text.size() ? static_cast<unsigned char>(Text[at]) : 0U;
    };
    const unsigned first = byteAt(Index);
    const std::size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    std::uint32_t character = length == 1 ? first : first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(Index + i) & 0xC0U) != 0x80U) {
            return 0;
        }
        character = character << 6U | (byteAt(Index + i) & 0x3FU);
    }
    constexpr std::array<std::uint32_t, 5> least = {0, 0x20, 0xA0, 0x800, 0x10000};
    const bool bSurrogate = character >= 0xD800 && character < 0xE000;
    const bool bLead = first < 0x7F || (first >= 0xC0 && first < 0xF8);
    const bool bInRange = character >= least.at(length) && character <= 0x10FFFF;
    const bool bShown = !IsIn(hidden, character) || (bJoins && IsIn(joiners, character));
    return bLead && bInRange && !bSurrogate && bShown ? length : 0;
}

} // namespace

bool TavroIsTerminal(std::FILE* Stream) {
    static const std::array<bool, 3> terminals = {isatty(0) != 0, isatty(1) != 0, isatty(2) != 0};
    return terminals.at(static_cast<std::size_t>(fileno(Stream)));
}

std::string TavroPrintableText(const std::string& Text) {
    std::string printable;
    std::size_t length = 0;
    for (std::size_t i = 0; i < Text.size();) {
        length = PrintableLength(Text, i, length > 1);
        if (length == 0) {
            const auto byte = static_cast<unsigned char>(Text[i]);
            constexpr const char* digits = "0123456789ABCDEF";
            printable += {'\\', 'x', digits[byte >> 4U], digits[byte & 15U]};
        }
        printable.append(Text, i, length);
        i += std::max<std::size_t>(length, 1);
    }
    return printable;
}

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

void TavroPrintLine(std::FILE* Stream, const std::string& Text) {
    const std::string line = (TavroIsTerminal(Stream) ? TavroPrintableText(Text) : Text) + '\n';
    std::fwrite(line.data(), 1, line.size(), Stream);
}

void TavroPrintError(const std::string& Sentence) {
    const std::string shown = TavroShownSentence(stderr, Sentence);
    TavroPrintLine(stderr, "tavro: " + shown.substr(0, shown.find_last_not_of('.') + 1));
}

void TavroPrintSkipped(const std::vector<std::string>& Paths, bool bVerbose) {
    if (Paths.size() > 1 && !bVerbose) {
        TavroPrintError("Skipped " + TavroCountText(Paths.size(), "entry") +
                        " whose destinations exist: '" + Paths.front() + "' and " +
                        TavroGroupedNumber(Paths.size() - 1) + " more");
        return;
    }
    for (const std::string& path : Paths) {
        TavroPrintError("Skipped, because its destination exists: '" + path + "'");
    }
}

int TavroExitCodeOf(const TavroFailure& Failure) {
    if (Failure.Kind == TavroFailureKind::Cancelled) {
        return TavroInterruptedExitCode();
    }
    return Failure ? TavroExitFailed : TavroExitDone;
}

int TavroPrintFailure(const TavroFailure& Failure) {
    if (Failure) {
        const std::string sentence = TavroDescribe(Failure);
        const bool bNamed =
            !Failure.Other.empty() || sentence.find(Failure.Path) != std::string::npos;
        TavroPrintError(bNamed ? sentence : sentence + ": '" + Failure.Path + "'");
    }
    return TavroExitCodeOf(Failure);
}

bool TavroPrintFailures(const std::vector<TavroFailure>& Failures) {
    for (const TavroFailure& failure : Failures) {
        TavroPrintFailure(failure);
    }
    return Failures.empty();
}

void TavroPrintUnlisted(std::uint64_t Count) {
    if (Count > 0) {
        TavroPrintError(TavroCountText(Count, "item") + " in the trash " +
                        (Count == 1 ? "has" : "have") + " no readable record; run 'tavro doctor'");
    }
}

void TavroPrintLost(const TavroAttributesLost& Lost) {
    const auto text = [](const std::string& what, std::uint64_t count) {
        return count == 0 ? "" : what + " of " + TavroCountText(count, "entry");
    };
    const std::string lists = text("the access control lists", Lost.AccessLists);
    const std::string attributes = text("the extended attributes", Lost.ExtendedAttributes);
    const std::string both = lists.empty() || attributes.empty() ? "" : ", ";
    if (!lists.empty() || !attributes.empty()) {
        TavroPrintError("Not copied: " + lists + both + attributes);
    }
}

std::string TavroGroupedNumber(std::uint64_t Number) {
    std::string digits = std::to_string(Number);
    for (std::size_t end = digits.size(); end > 3; end -= 3) {
        digits.insert(end - 3, ",");
    }
    return digits;
}

std::string TavroCountText(std::uint64_t Count, const std::string& Singular) {
    const bool bIes = !Singular.empty() && Singular.back() == 'y' && Singular != "day";
    const std::string plural =
        bIes ? Singular.substr(0, Singular.size() - 1) + "ies" : Singular + "s";
    return TavroGroupedNumber(Count) + " " + (Count == 1 ? Singular : plural);
}

std::string TavroHumanSize(std::uint64_t Bytes) {
    if (Bytes < 1000) {
        return TavroCountText(Bytes, "byte");
    }
    static constexpr std::array<const char*, 6> units = {"kB", "MB", "GB", "TB", "PB", "EB"};
    double value = static_cast<double>(Bytes) / 1000;
    std::size_t unit = 0;
    // 999.5 would be shown as 1000, so the next unit begins there.
    while (value >= 999.5 && unit + 1 < units.size()) {
        value /= 1000;
        ++unit;
    }
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "%.*f %s", value < 99.95 ? 1 : 0, value,
                  units.at(unit));
    return text.data();
}

bool TavroCanAsk() {
    return TavroIsTerminal(stdin) && TavroIsTerminal(stderr);
}

std::optional<std::string> TavroAsk(const std::string& Question) {
    std::fflush(stdout);
    std::fwrite(Question.data(), 1, Question.size(), stderr);
    std::string answer;
    char byte = '\0';
    while (TavroAwaitInput() && read(STDIN_FILENO, &byte, 1) == 1 && byte != '\n') {
        answer += byte;
    }
    if (byte != '\n') {
        std::fputs("\n", stderr); // nobody typed one
    }
    if (TavroWasInterrupted()) {
        return std::nullopt;
    }
    return answer;
}

int TavroConfirm(const std::string& Question, const std::string& Otherwise) {
    const std::optional<std::string> answer = TavroAsk(TavroPrintableText(Question) + " [y/N] ");
    if (answer == "y" || answer == "Y" || answer == "yes") {
        return TavroExitDone;
    }
    TavroPrintError(Otherwise);
    return answer ? TavroExitFailed : TavroInterruptedExitCode();
}
