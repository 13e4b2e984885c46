/// Lists as JSON, for programs.

#ifndef TAVRO_CLI_JSON_H
#define TAVRO_CLI_JSON_H

#include "names.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

using TavroJson = nlohmann::ordered_json;

/// Adds a path as two values. JSON holds Unicode only, so "NAMEPath" is for reading, and "NAMEUri"
/// has every byte, percent-encoded. A path that is empty is null.
inline void TavroAddPath(TavroJson& OutJson, const std::string& Name, const std::string& Path) {
    OutJson[Name + "Path"] = Path.empty() ? TavroJson() : TavroJson(Path);
    OutJson[Name + "Uri"] =
        Path.empty() ? TavroJson() : TavroJson("file://" + TavroPercentEncode(Path));
}

/// Writes a value to standard output, in ASCII.
inline void TavroPrintJson(const TavroJson& Json) {
    const std::string text = Json.dump(2, ' ', true, TavroJson::error_handler_t::replace) + '\n';
    std::fwrite(text.data(), 1, text.size(), stdout);
}

#endif
