#include "json.h"

#include "percent.h"

#include <cstdio>

void TavroAddPath(TavroJson& OutJson, const std::string& Name, const std::string& Path) {
    OutJson[Name + "Path"] = Path.empty() ? TavroJson() : TavroJson(Path);
    OutJson[Name + "Uri"] =
        Path.empty() ? TavroJson() : TavroJson("file://" + TavroPercentEncode(Path));
}

void TavroPrintJson(const TavroJson& Json) {
    const std::string text = Json.dump(2, ' ', true, TavroJson::error_handler_t::replace) + '\n';
    std::fwrite(text.data(), 1, text.size(), stdout);
}
