#include "percent.h"

#include <cstring>

namespace {

bool IsKept(char Byte) {
    return (Byte >= 'A' && Byte <= 'Z') || (Byte >= 'a' && Byte <= 'z') ||
           (Byte >= '0' && Byte <= '9') || (Byte != '\0' && std::strchr("-./_~", Byte) != nullptr);
}

/// The value of a hexadecimal digit; -1 for any other byte.
int DigitValue(char Byte) {
    if (Byte >= '0' && Byte <= '9') {
        return Byte - '0';
    }
    if (Byte >= 'A' && Byte <= 'F') {
        return Byte - 'A' + 10;
    }
    if (Byte >= 'a' && Byte <= 'f') {
        return Byte - 'a' + 10;
    }
    return -1;
}

} // namespace

std::string TavroPercentEncode(const std::string& Bytes) {
    std::string text;
    for (const char byte : Bytes) {
        if (IsKept(byte)) {
            text += byte;
            continue;
        }
        const auto value = static_cast<unsigned char>(byte);
        text += {'%', "0123456789ABCDEF"[value >> 4U], "0123456789ABCDEF"[value & 15U]};
    }
    return text;
}

std::string TavroPercentDecode(const std::string& Text) {
    std::string bytes;
    for (std::size_t i = 0; i < Text.size(); ++i) {
        const bool bEscape = Text[i] == '%' && i + 2 < Text.size() &&
                             DigitValue(Text[i + 1]) >= 0 && DigitValue(Text[i + 2]) >= 0;
        if (!bEscape) {
            bytes += Text[i];
            continue;
        }
        bytes += static_cast<char>(DigitValue(Text[i + 1]) * 16 + DigitValue(Text[i + 2]));
        i += 2;
    }
    return bytes;
}
