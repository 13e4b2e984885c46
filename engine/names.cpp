#include "names.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace {

/// At most so many bytes of the beginning, of which there is room for four at least; no UTF-8
/// character is cut in two.
std::string Beginning(const std::string& Text, std::size_t Room) {
    if (Text.size() <= Room) {
        return Text;
    }
    const auto isContinuation = [&](std::size_t at) {
        return (static_cast<unsigned char>(Text[at]) & 0xC0U) == 0x80U;
    };
    std::size_t end = Room;
    while (Room - end < 3 && isContinuation(end)) {
        --end;
    }
    // More than three in a row are no UTF-8, and may be cut anywhere.
    return Text.substr(0, isContinuation(end) ? Room : end);
}

/// Where the extension of a name begins; its size when it has none.
std::size_t ExtensionAt(const std::string& Name) {
    const std::size_t dot = Name.rfind('.');
    return dot == std::string::npos || dot == 0 || Name == ".." ? Name.size() : dot;
}

} // namespace

std::string TavroNumberedName(const std::string& Wanted, std::uint64_t Number,
                              std::size_t Longest) {
    constexpr std::size_t longestCharacter = 4;
    const std::string suffix = Number == 0 ? "" : " copy " + std::to_string(Number);
    std::size_t stem = ExtensionAt(Wanted);
    if (Wanted.size() - stem + suffix.size() + longestCharacter > Longest) {
        stem = Wanted.size();
    }
    const std::string extension = Wanted.substr(stem);
    return Beginning(Wanted.substr(0, stem), Longest - suffix.size() - extension.size()) + suffix +
           extension;
}

std::string TavroFreeNames::Choose(const std::string& Place, const std::string& Wanted,
                                   const std::function<bool(const std::string&)>& IsTaken,
                                   std::size_t Longest) {
    std::uint64_t& next = m_next[Place + '\0' + Wanted];
    std::string candidate = TavroNumberedName(Wanted, next++, Longest);
    while (IsTaken(candidate)) {
        candidate = TavroNumberedName(Wanted, next++, Longest);
    }
    return candidate;
}

namespace {

constexpr const char* hiddenPrefix = ".tavro-";
constexpr std::size_t threadLetters = 6;
constexpr std::size_t nameLetters = 6;
constexpr const char* letters = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr const char* asideSuffix = "-old";

std::string RandomLetters(std::size_t Count) {
    thread_local std::mt19937_64 random{std::random_device{}()};
    std::uniform_int_distribution<std::size_t> letter(0, std::strlen(letters) - 1);
    std::string text;
    while (text.size() < Count) {
        text += letters[letter(random)];
    }
    return text;
}

bool IsPlain(const std::string& Name) {
    const std::size_t prefix = std::strlen(hiddenPrefix);
    return Name.size() == prefix + threadLetters + nameLetters &&
           Name.compare(0, prefix, hiddenPrefix) == 0 &&
           Name.find_first_not_of(letters, prefix) == std::string::npos;
}

} // namespace

const std::string& TavroStagingPrefix() {
    thread_local const std::string prefix = hiddenPrefix + RandomLetters(threadLetters);
    return prefix;
}

std::string TavroStagingName() {
    return TavroStagingPrefix() + RandomLetters(nameLetters);
}

std::string TavroAsideName(const std::string& StagingName) {
    return StagingName + asideSuffix;
}

bool TavroIsAsideName(const std::string& Name) {
    const std::size_t length = Name.size() - std::min(Name.size(), std::strlen(asideSuffix));
    return Name.substr(length) == asideSuffix && IsPlain(Name.substr(0, length));
}

bool TavroIsStagingName(const std::string& Name) {
    return IsPlain(Name) || TavroIsAsideName(Name);
}

bool TavroIsPlainName(const std::string& Name) {
    return !Name.empty() && Name != "." && Name != ".." &&
           Name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

std::string TavroNameOf(const std::string& Path) {
    return Path.substr(Path.rfind('/') + 1);
}

std::string TavroParentOf(const std::string& Path) {
    const std::size_t slash = Path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    const std::size_t end = Path.find_last_not_of('/', slash);
    return end == std::string::npos ? "/" : Path.substr(0, end + 1);
}

std::string TavroJoin(const std::string& Directory, const std::string& Name) {
    const bool bSeparated = Directory.empty() || Directory.back() == '/';
    std::string path;
    path.reserve(Directory.size() + 1 + Name.size());
    return path.append(Directory).append(bSeparated ? "" : "/").append(Name);
}

bool TavroIsBelow(const std::string& Directory, const std::string& Path) {
    const std::size_t size = Directory == "/" ? 0 : Directory.size();
    return Path.size() > size + 1 && Path[size] == '/' &&
           Path.compare(0, size, Directory, 0, size) == 0;
}

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
    return Byte >= 'a' && Byte <= 'f' ? Byte - 'a' + 10 : -1;
}

} // namespace

std::string TavroPercentEncode(const std::string& Bytes) {
    std::string text;
    text.reserve(Bytes.size());
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
    bytes.reserve(Text.size());
    for (std::size_t i = 0; i < Text.size(); ++i) {
        // The zero byte behind the text is no digit, so nothing beyond it is looked at.
        const bool bEscape =
            Text[i] == '%' && DigitValue(Text[i + 1]) >= 0 && DigitValue(Text[i + 2]) >= 0;
        if (!bEscape) {
            bytes += Text[i];
            continue;
        }
        bytes += static_cast<char>(DigitValue(Text[i + 1]) * 16 + DigitValue(Text[i + 2]));
        i += 2;
    }
    return bytes;
}
