#include "scratch.h"

#include <cstdlib>
#include <stdexcept>

namespace fs = std::filesystem;

namespace tavro_bench {

Scratch::Scratch() {
    const char* home = std::getenv("HOME");
    m_oldHome = home == nullptr ? "" : home;
    std::string name = (fs::temp_directory_path() / "tavro-bench-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("No scratch folder can be made at " + name);
    }
    m_path = fs::canonical(name);
    setenv("HOME", m_path.c_str(), 1);
}

Scratch::~Scratch() {
    setenv("HOME", m_oldHome.c_str(), 1);
    std::error_code ec;
    fs::remove_all(m_path, ec);
}

std::vector<TavroOperationEntry> selectFiles(const fs::path& folder, std::size_t count) {
    std::vector<TavroOperationEntry> entries;
    entries.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = "file-" + std::to_string(i);
        entries.push_back({name, (folder / name).string(), false});
    }
    return entries;
}

} // namespace tavro_bench
