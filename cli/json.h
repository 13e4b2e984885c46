/// Lists as JSON, for programs.

#ifndef TAVRO_CLI_JSON_H
#define TAVRO_CLI_JSON_H

#include <nlohmann/json.hpp>

#include <string>

using TavroJson = nlohmann::ordered_json;

/// Adds a path as two values. JSON holds Unicode only, so "NAMEPath" is for reading, and "NAMEUri"
/// has every byte, percent-encoded. A path that is empty is null.
void TavroAddPath(TavroJson& OutJson, const std::string& Name, const std::string& Path);

/// Writes a value to standard output, in ASCII.
void TavroPrintJson(const TavroJson& Json);

#endif
