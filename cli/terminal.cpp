#include "terminal.h"

#include <array>
#include <cstddef>
#include <unistd.h>

namespace {

bool IsContinuation(const std::string& Text, std::size_t Index) {
    return Index < Text.size() && (static_cast<unsigned char>(Text[Index]) & 0xC0U) == 0x80U;
}

/// How many bytes the character at `Index` has; 0 when it is a control character or no UTF-8.
std::size_t PrintableLength(const std::string& Text, std::size_t Index) {
    const auto first = static_cast<unsigned char>(Text[Index]);
    if (first < 0x80U) {
        return first >= 0x20U && first != 0x7FU ? 1 : 0;
    }
    const auto second = Index + 1 < Text.size() ? static_cast<unsigned char>(Text[Index + 1]) : 0U;
    std::size_t length = 0;
    if (first >= 0xC2U && first <= 0xDFU) {
        length = first == 0xC2U && second < 0xA0U ? 0 : 2; // U+0080 to U+009F are controls
    } else if (first >= 0xE0U && first <= 0xEFU) {
        const bool bOverlong = first == 0xE0U && second < 0xA0U;
        const bool bSurrogate = first == 0xEDU && second >= 0xA0U;
        length = bOverlong || bSurrogate ? 0 : 3;
    } else if (first >= 0xF0U && first <= 0xF4U) {
        const bool bOverlong = first == 0xF0U && second < 0x90U;
        const bool bTooLarge = first == 0xF4U && second >= 0x90U;
        length = bOverlong || bTooLarge ? 0 : 4;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (!IsContinuation(Text, Index + i)) {
            return 0;
        }
    }
    return length;
}

} // namespace

bool TavroIsTerminal(std::FILE* Stream) {
    return isatty(fileno(Stream)) != 0;
}

std::string TavroPrintableText(const std::string& Text) {
    std::string printable;
    for (std::size_t i = 0; i < Text.size();) {
        const std::size_t length = PrintableLength(Text, i);
        if (length != 0) {
            printable += Text.substr(i, length);
            i += length;
            continue;
        }
        std::array<char, 5> escape = {};
        std::snprintf(escape.data(), escape.size(), "\\x%02X",
                      static_cast<unsigned>(static_cast<unsigned char>(Text[i])));
        printable += escape.data();
        ++i;
    }
    return printable;
}

void TavroPrintLine(std::FILE* Stream, const std::string& Text) {
    const std::string line = (TavroIsTerminal(Stream) ? TavroPrintableText(Text) : Text) + '\n';
    std::fwrite(line.data(), 1, line.size(), Stream);
}

void TavroPrintError(const std::string& Sentence) {
    TavroPrintLine(stderr, "tavro: " + Sentence);
}

std::string TavroGroupedNumber(std::uint64_t Number) {
    std::string digits = std::to_string(Number);
    for (std::size_t end = digits.size(); end > 3; end -= 3) {
        digits.insert(end - 3, ",");
    }
    return digits;
}

std::string TavroCountText(std::uint64_t Count, const std::string& Singular) {
    const bool bIes = !Singular.empty() && Singular.back() == 'y';
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
    // 999.95 would be shown as 1000.0, so the next unit begins there.
    while (value >= 999.95 && unit + 1 < units.size()) {
        value /= 1000;
        ++unit;
    }
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "%.1f %s", value, units.at(unit));
    return text.data();
}

bool TavroCanAsk() {
    return TavroIsTerminal(stdin) && TavroIsTerminal(stderr);
}

std::string TavroAsk(const std::string& Question) {
    std::fwrite(Question.data(), 1, Question.size(), stderr);
    std::fflush(stderr);
    std::string answer;
    int byte = std::getchar();
    for (; byte != EOF && byte != '\n'; byte = std::getchar()) {
        answer += static_cast<char>(byte);
    }
    if (byte == EOF) {
        std::fputs("\n", stderr); // nobody typed one
    }
    return answer;
}

bool TavroConfirm(const std::string& Question) {
    const std::string answer = TavroAsk(TavroPrintableText(Question) + " [y/N] ");
    return answer == "y" || answer == "Y" || answer == "yes";
}
