// Typed text becomes a path: trimmed, resolved, made canonical, compared; against an independent
// reading of the same text.

#include "byte_source.h"
#include "demand.h"
#include "stage.h"

namespace fs = std::filesystem;

using namespace tavro_fuzz;

namespace {

bool isBlank(char byte) {
    return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

void checkTrimmed(const std::string& text, const std::string& trimmed) {
    const std::size_t at = text.find(trimmed);
    demand(at != std::string::npos, "what is left is a part of the text");
    demandEqual(TavroTrimText(trimmed), trimmed, "trimming again");
    demand(trimmed.empty() || (!isBlank(trimmed.front()) && !isBlank(trimmed.back())),
           "no blank at either end");
    std::string rest = text;
    rest.erase(at, trimmed.size());
    for (const char byte : rest) {
        demand(isBlank(byte), "only blanks are dropped");
    }
}

/// Canonical text stays as it is, unless dropping `..` has uncovered a link.
void checkCanonical(const std::string& text) {
    const std::string canonical = TavroCanonicalizePath(text);
    demandEqual(canonical.empty(), text.empty(), "empty for empty text alone");
    demand(canonical.empty() || canonical[0] == '/', "absolute");
    const std::string expected = stage().model().canonicalizePath(text);
    if (stage().stayedInside()) {
        demandEqual(canonical, expected, "canonical text of '" + text + "'");
        if (text.find("..") == std::string::npos) {
            demandEqual(TavroCanonicalizePath(canonical), canonical, "making it canonical again");
        }
    }
}

void checkResolved(const std::string& text, const std::string& base) {
    const fs::path resolved = TavroResolveUserPath(text, base);
    const fs::path expected = stage().model().resolveUserPath(text, base);
    if (stage().stayedInside()) {
        demandEqual(resolved.string(), expected.string(), "'" + text + "' in '" + base + "'");
    }
}

void checkCompared(const std::string& a, const std::string& b) {
    const bool bSame = TavroPathsEquivalentOrSame(a, b);
    const bool bInside = TavroPathIsInside(a, b);
    demand(TavroPathsEquivalentOrSame(a, a), "everything is the same as itself");
    demand(!TavroPathIsInside(a, a), "nothing is inside itself");
    demandEqual(TavroPathsEquivalentOrSame(b, a), bSame, "sameness the other way round");
    demand(!bInside || !TavroPathIsInside(b, a), "inside one way only");
    const bool bModelSame = stage().model().pathsEquivalentOrSame(a, b);
    const bool bModelInside = stage().model().pathIsInside(a, b);
    if (stage().stayedInside()) {
        demandEqual(bSame, bModelSame, "'" + a + "' is '" + b + "'");
        demandEqual(bInside, bModelInside, "'" + b + "' inside '" + a + "'");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const char* const bases[] = {"$/A", "$/B/to folder", "$/B/dangling", "", "folder"};
    const tavro_test::ScopedCurrentDirectory onStage(stage().currentDirectory());
    ByteSource source(bytes, size);
    const std::string base = stage().inRoot(bases[source.number(5)]);
    const std::string first = source.line();
    const std::string second = stage().inRoot(source.rest());
    checkTrimmed(first, TavroTrimText(first));
    demandEqual(TavroEndsWithPathSeparator(first),
                !first.empty() && std::string("/\\").find(first.back()) != std::string::npos,
                "ends in a separator");
    static_cast<void>(TavroCanonicalizePath(first)); // zero bytes included
    const std::string typed = stage().inRoot(TavroTrimText(first));
    checkCanonical(typed);
    checkResolved(typed, base);
    checkCompared(typed, second);
    return 0;
}
