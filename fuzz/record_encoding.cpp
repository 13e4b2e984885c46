// Any path goes into a trash record and comes back out of it through a decoder of its own.

#include "byte_source.h"
#include "demand.h"
#include "sandbox.h"
#include "tavroops.h"
#include "world.h"

#include <cctype>
#include <vector>

using namespace tavro_fuzz;

namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::string line;
    for (const char byte : text) {
        if (byte == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line += byte;
        }
    }
    demandEqual(line, "", "what follows the last line feed");
    return lines;
}

std::string withoutPrefix(const std::string& line, const std::string& prefix) {
    demandEqual(line.substr(0, prefix.size()), prefix, "beginning of a line");
    return line.substr(prefix.size());
}

std::string decoded(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char byte = text[i];
        if (byte != '%') {
            demand(std::isalnum(static_cast<unsigned char>(byte)) != 0 ||
                       std::string("-./_~").find(byte) != std::string::npos,
                   "only plain bytes stand for themselves");
            bytes += byte;
            continue;
        }
        demand(i + 2 < text.size(), "two digits after %");
        const std::string digits = text.substr(i + 1, 2);
        demandEqual(digits.find_first_not_of("0123456789ABCDEF"), std::string::npos,
                    "position of a wrong digit");
        bytes += static_cast<char>(std::stoi(digits, nullptr, 16));
        i += 2;
    }
    return bytes;
}

void checkDate(const std::string& date) {
    const std::string shape = "0000-00-00T00:00:00";
    std::string zeroed = date;
    for (char& byte : zeroed) {
        byte = byte >= '0' && byte <= '9' ? '0' : byte;
    }
    demandEqual(zeroed, shape, "shape of the date");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const tavro_test::Sandbox sandbox(tavro_model::fastFolder());
    TavroTrashEntry entry;
    entry.OriginalPath = ByteSource(bytes, size).rest();
    entry.InfoPath = (sandbox / "record.trashinfo").string();
    std::string error = "(untouched)";
    demand(TavroWriteTrashInfoEntries({entry}, error), error);
    demandEqual(error, "(untouched)", "the sentence after success");
    const std::vector<std::string> lines = linesOf(tavro_test::readFile(entry.InfoPath));
    demandEqual(lines.size(), 3U, "number of lines");
    demandEqual(lines[0], "[Trash Info]", "the first line");
    demandEqual(decoded(withoutPrefix(lines[1], "Path=")), entry.OriginalPath, "the path");
    checkDate(withoutPrefix(lines[2], "DeletionDate="));
    TavroRemoveTrashInfoEntries({entry});
    demand(!tavro_test::isPresent(entry.InfoPath), "the record is gone");
    return 0;
}
