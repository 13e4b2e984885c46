#include "format.h"

#include "terminal.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <ctime>
#include <cwchar>

std::string TavroShownStep(const std::string& From, const std::string& To) {
    return TavroShownPath(stdout, From) + " -> " + TavroShownPath(stdout, To);
}

bool TavroTellsEach(std::size_t Count, bool bVerbose) {
    constexpr std::size_t few = 10;
    return bVerbose || Count <= few || !TavroIsTerminal(stdout);
}

namespace {

/// A length of time as people say it: "5 s", "2 min", "3 h".
std::string DurationText(std::uint64_t Seconds) {
    if (Seconds < 60) {
        return std::to_string(Seconds) + " s";
    }
    return Seconds < 3600 ? std::to_string(Seconds / 60) + " min"
                          : std::to_string(Seconds / 3600) + " h";
}

} // namespace

std::string TavroSummary(const std::string& Deed, const std::string& What, std::uint64_t Bytes,
                         std::uint64_t Seconds) {
    return Deed + " " + What + (Bytes > 0 ? " (" + TavroHumanSize(Bytes) + ")" : "") +
           (Seconds > 0 ? " in " + DurationText(Seconds) : "");
}

namespace {

std::string LocalTimeText(std::int64_t Time, const char* Form) {
    const auto seconds = static_cast<std::time_t>(Time);
    std::tm local = {};
    std::array<char, 32> text = {};
    localtime_r(&seconds, &local);
    std::strftime(text.data(), text.size(), Form, &local);
    return text.data();
}

} // namespace

std::string TavroShownTime(std::int64_t Time) {
    constexpr std::int64_t day = 24 * 3600;
    const std::int64_t age = std::time(nullptr) - Time;
    if (age < 0 || age >= 7 * day) {
        return LocalTimeText(Time, "%Y-%m-%d");
    }
    if (age < 60) {
        return "just now";
    }
    const auto seconds = static_cast<std::uint64_t>(age);
    return (age < day ? DurationText(seconds) : TavroCountText(seconds / day, "day")) + " ago";
}

std::string TavroTimeText(std::int64_t Time) {
    std::string text = LocalTimeText(Time, "%Y-%m-%dT%H:%M:%S%z");
    return text.insert(text.size() - 2, ":");
}

namespace {

/// The character at an index of a printable text, which is UTF-8.
struct Character {
    std::size_t Length;
    std::size_t Width;
};

Character CharacterAt(const std::string& Text, std::size_t Index) {
    // The widths of all of Unicode, whatever the user's own locale.
    static const char* const locale = std::setlocale(LC_CTYPE, "C.UTF-8");
    const auto first = static_cast<unsigned char>(Text[Index]);
    if (first < 0x80 || locale == nullptr) {
        return {1, (first & 0xC0U) == 0x80U ? 0U : 1U};
    }
    wchar_t wide = 0;
    const int length = std::mbtowc(&wide, Text.data() + Index, Text.size() - Index);
    const int width = wcwidth(wide);
    return {static_cast<std::size_t>(std::max(length, 1)),
            static_cast<std::size_t>(std::max(width, 0))};
}

} // namespace

std::size_t TavroTextWidth(const std::string& Text) {
    std::size_t width = 0;
    for (std::size_t i = 0; i < Text.size();) {
        const Character character = CharacterAt(Text, i);
        width += character.Width;
        i += character.Length;
    }
    return width;
}

std::string TavroClippedText(const std::string& Text, std::size_t Width) {
    if (TavroTextWidth(Text) <= Width) {
        return Text;
    }
    std::size_t end = 0;
    for (std::size_t width = 0; Width > 0;) {
        const Character character = CharacterAt(Text, end);
        width += character.Width;
        if (width >= Width) { // one column is for the mark
            return Text.substr(0, end) + "…";
        }
        end += character.Length;
    }
    return "";
}

void TavroPrintColumns(const std::vector<std::vector<TavroCell>>& Rows,
                       const std::string& Separator, bool bColor) {
    constexpr std::array<const char*, 4> styles = {"", "\033[2m", "\033[1m", "\033[33m"};
    constexpr std::size_t widest = 32; // a longer one pushes what follows to the right
    const bool bTerminal = TavroIsTerminal(stdout);
    const auto shown = [&](const TavroCell& cell) {
        return bTerminal ? TavroPrintableText(cell.Text) : cell.Text;
    };
    std::vector<std::size_t> widths;
    for (const std::vector<TavroCell>& row : Rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; bTerminal && i < row.size(); ++i) {
            const std::size_t width = TavroTextWidth(shown(row[i]));
            widths[i] = std::max(widths[i], std::min(width, widest));
        }
    }
    for (const std::vector<TavroCell>& row : Rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string text = shown(row[i]);
            const bool bLast = i + 1 == row.size();
            const std::size_t width = bTerminal ? TavroTextWidth(text) : widths[i];
            const std::string padding(widths[i] - std::min(widths[i], width), ' ');
            const bool bStyled = bColor && row[i].Style != TavroStyle::Plain && !text.empty();
            line += row[i].bRight ? padding : "";
            line += bStyled ? styles.at(static_cast<std::size_t>(row[i].Style)) + text + "\033[0m"
                            : text;
            line += row[i].bRight || bLast ? "" : padding;
            line += bLast ? "\n" : bTerminal ? "  " : Separator;
        }
        std::fwrite(line.data(), 1, line.size(), stdout);
    }
}
